#pragma once
// Test-owned memory for kernel operands: the data starts on a 32-byte boundary (what the
// register file guarantees) and sits between two guard areas. Every word, data included,
// starts as a known guard pattern, so a test can tell afterwards whether a kernel wrote
// outside its destination (GuardsIntact) or wrote anything at all (Untouched).

#include "kr_base_types.h"

#include <cstddef>
#include <vector>

namespace OxTest
{
	// The guard pattern of word 'index'. The salt keeps two buffers of one test from holding
	// the same words, so a copy from the wrong buffer does not look like an untouched one.
	inline Orvex::u32 GuardWord(Orvex::u32 index, Orvex::u32 salt = 0) { return 0xC0DE0000u ^ ((index ^ salt) * 0x9E3779B1u); }

	class CGuardedStorage
	{
	public:
		static constexpr std::size_t kAlignment = 32;
		// Guard words on each side: wide enough that a 16- or 32-byte access starting past
		// either end lands inside a guard rather than in somebody else's memory.
		static constexpr std::size_t kGuardWords = 16;

		explicit CGuardedStorage(std::size_t words, Orvex::u32 salt = 0);
		// Data words set to 'words' (the guards hold their pattern).
		explicit CGuardedStorage(const std::vector<Orvex::u32> &words, Orvex::u32 salt = 0);

		CGuardedStorage(const CGuardedStorage &) = delete;
		CGuardedStorage &operator=(const CGuardedStorage &) = delete;

		std::size_t Words() const { return m_Words; }
		std::size_t Bytes() const { return m_Words * sizeof(Orvex::u32); }

		Orvex::u32 *Data() { return m_Storage.data() + m_Offset; }
		const Orvex::u32 *Data() const { return m_Storage.data() + m_Offset; }
		template <typename T>
		T *As() { return reinterpret_cast<T *>(Data()); }
		template <typename T>
		const T *As() const { return reinterpret_cast<const T *>(Data()); }
		Orvex::s32 *Ints() { return As<Orvex::s32>(); }
		float *Floats() { return As<float>(); }

		Orvex::u32 &operator[](std::size_t i) { return Data()[i]; }
		Orvex::u32 operator[](std::size_t i) const { return Data()[i]; }

		std::vector<Orvex::u32> Values() const { return std::vector<Orvex::u32>(Data(), Data() + m_Words); }

		// What data word 'i' held before anybody wrote it.
		Orvex::u32 Guard(std::size_t i) const { return GuardWord(Orvex::u32(m_Offset + i), m_Salt); }

		// Every word before and after the data still holds its pattern.
		bool GuardsIntact() const;
		// Every word, data included, still holds its pattern: nothing was written.
		bool Untouched() const;

	private:
		std::size_t m_Words;
		Orvex::u32 m_Salt;
		std::vector<Orvex::u32> m_Storage;
		std::size_t m_Offset = 0;
	};
}
