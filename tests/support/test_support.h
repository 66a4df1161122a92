#pragma once
// Test-side reporter: captures every assertion report instead of printing it,
// and answers with a fixed value (continue by default, so no site is silenced).

// Under the cross build's emulator a death test cannot start the test binary again (the
// host runs no foreign executable by itself): the child is forked instead.
#if defined(OX_TESTS_EMULATED)
#	define OX_DEATH_TEST_STYLE "fast"
#else
#	define OX_DEATH_TEST_STYLE "threadsafe"
#endif

#include "kr_assert.h"

#include <cstddef>
#include <string>
#include <vector>

namespace OxTest
{
	struct SCapturedReport
	{
		std::string m_File;
		std::string m_Function;
		int m_Line = 0;
		std::string m_Expression;
		std::string m_Message;
	};

	class CAssertCapture
	{
	public:
		explicit CAssertCapture(int answer = Orvex::Assert::Answer_Continue);
		~CAssertCapture();
		CAssertCapture(const CAssertCapture &) = delete;
		CAssertCapture &operator=(const CAssertCapture &) = delete;

		std::vector<SCapturedReport> Reports() const;
		size_t Count() const;
		// Number of reports whose expression text is exactly 'expression'.
		size_t Count(const std::string &expression) const;
		bool Has(const std::string &expression, const std::string &message) const;
		void Clear();

	private:
		Orvex::Assert::FnHandler m_Previous;
	};

	// Two mapped pages, the second made inaccessible: anything placed at the end of the
	// first one faults if code reads or writes a byte past it.
	class CGuardPage
	{
	public:
		CGuardPage();
		~CGuardPage();
		CGuardPage(const CGuardPage &) = delete;
		CGuardPage &operator=(const CGuardPage &) = delete;

		bool Valid() const { return m_Base != nullptr; }
		// The last 'size' bytes before the inaccessible page.
		unsigned char *Tail(std::size_t size) const { return m_Base + m_PageSize - size; }
		// Copies 'bytes' so that their last one is the last readable byte.
		const unsigned char *PlaceAtEnd(const unsigned char *bytes, std::size_t size) const;

	private:
		unsigned char *m_Base = nullptr;
		std::size_t m_PageSize = 0;
	};
}
