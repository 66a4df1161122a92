#pragma once
// Test-side reporter: captures every assertion report instead of printing it,
// and answers with a fixed value (continue by default, so no site is silenced).

#include "kr_assert.h"

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
}
