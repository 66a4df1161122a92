#include "assert_scope.h"

#include <atomic>
#include <cstdio>
#include <cstring>

namespace OxVm
{
	namespace
	{
		std::atomic<std::uint64_t> g_Counted{0};

		int Silent(const Orvex::Assert::SReport &)
		{
			return Orvex::Assert::Answer_Continue;
		}

		int Counted(const Orvex::Assert::SReport &report)
		{
			const std::uint64_t index = g_Counted.fetch_add(1);
			const bool ownMessage = std::strcmp(report.m_Message, report.m_Expression) != 0;
			if (index < CCountedAsserts::kPrinted)
				std::fprintf(stderr, "oxvm: VM assertion report: %s:%d: %s%s%s\n", report.m_File, report.m_Line, report.m_Expression,
							 ownMessage ? ": " : "", ownMessage ? report.m_Message : "");
			else if (index == CCountedAsserts::kPrinted)
				std::fprintf(stderr, "oxvm: further VM assertion reports are counted, not printed\n");
			return Orvex::Assert::Answer_Ignore;
		}
	}

	CSilentAsserts::CSilentAsserts() : m_Previous(Orvex::Assert::SetHandler(&Silent)) {}
	CSilentAsserts::~CSilentAsserts() { Orvex::Assert::SetHandler(m_Previous); }

	CCountedAsserts::CCountedAsserts() : m_Previous(Orvex::Assert::SetHandler(&Counted)) { g_Counted = 0; }
	CCountedAsserts::~CCountedAsserts() { Orvex::Assert::SetHandler(m_Previous); }
	std::uint64_t CCountedAsserts::Count() const { return g_Counted.load(); }
}
