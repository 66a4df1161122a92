#pragma once
// Assertion handlers the tool installs around VM calls (kr_assert.h).

#include "kr_assert.h"

#include <cstdint>

namespace OxVm
{
	// Swallows every report while it lives: the decoder asserts on the corrupt
	// bytecode that disasm exists to show, and the tool reports those itself.
	class CSilentAsserts
	{
	public:
		CSilentAsserts();
		~CSilentAsserts();
		CSilentAsserts(const CSilentAsserts &) = delete;
		CSilentAsserts &operator=(const CSilentAsserts &) = delete;

	private:
		Orvex::Assert::FnHandler m_Previous;
	};

	// Counts reports while it lives and prints only the first kPrinted of them (with a
	// final note), so that a run never floods the terminal. Each reporting site is
	// silenced after its report, as the default handler does.
	class CCountedAsserts
	{
	public:
		static constexpr std::uint64_t kPrinted = 5;

		CCountedAsserts();
		~CCountedAsserts();
		CCountedAsserts(const CCountedAsserts &) = delete;
		CCountedAsserts &operator=(const CCountedAsserts &) = delete;

		std::uint64_t Count() const;

	private:
		Orvex::Assert::FnHandler m_Previous;
	};
}
