#include "test_support.h"

#include <sys/mman.h>
#include <unistd.h>

#include <cstring>
#include <mutex>

namespace OxTest
{
	namespace
	{
		std::mutex g_Lock;
		std::vector<SCapturedReport> g_Reports;
		int g_Answer = Orvex::Assert::Answer_Continue;

		int _Capture(const Orvex::Assert::SReport &report)
		{
			std::lock_guard<std::mutex> lock(g_Lock);
			g_Reports.push_back({report.m_File, report.m_Function, report.m_Line, report.m_Expression, report.m_Message});
			return g_Answer;
		}
	}

	CAssertCapture::CAssertCapture(int answer)
	{
		{
			std::lock_guard<std::mutex> lock(g_Lock);
			g_Reports.clear();
			g_Answer = answer;
		}
		m_Previous = Orvex::Assert::SetHandler(&_Capture);
	}

	CAssertCapture::~CAssertCapture()
	{
		Orvex::Assert::SetHandler(m_Previous);
	}

	std::vector<SCapturedReport> CAssertCapture::Reports() const
	{
		std::lock_guard<std::mutex> lock(g_Lock);
		return g_Reports;
	}

	size_t CAssertCapture::Count() const
	{
		std::lock_guard<std::mutex> lock(g_Lock);
		return g_Reports.size();
	}

	size_t CAssertCapture::Count(const std::string &expression) const
	{
		std::lock_guard<std::mutex> lock(g_Lock);
		size_t n = 0;
		for (const SCapturedReport &r : g_Reports)
			n += r.m_Expression == expression ? 1 : 0;
		return n;
	}

	bool CAssertCapture::Has(const std::string &expression, const std::string &message) const
	{
		std::lock_guard<std::mutex> lock(g_Lock);
		for (const SCapturedReport &r : g_Reports)
			if (r.m_Expression == expression && r.m_Message == message)
				return true;
		return false;
	}

	void CAssertCapture::Clear()
	{
		std::lock_guard<std::mutex> lock(g_Lock);
		g_Reports.clear();
	}

	CGuardPage::CGuardPage()
	{
		m_PageSize = std::size_t(sysconf(_SC_PAGESIZE));
		void *mem = mmap(nullptr, 2 * m_PageSize, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
		if (mem == MAP_FAILED)
			return;
		m_Base = static_cast<unsigned char *>(mem);
		if (mprotect(m_Base + m_PageSize, m_PageSize, PROT_NONE) != 0)
		{
			munmap(m_Base, 2 * m_PageSize);
			m_Base = nullptr;
		}
	}

	CGuardPage::~CGuardPage()
	{
		if (m_Base != nullptr)
			munmap(m_Base, 2 * m_PageSize);
	}

	const unsigned char *CGuardPage::PlaceAtEnd(const unsigned char *bytes, std::size_t size) const
	{
		unsigned char *dst = Tail(size);
		std::memcpy(dst, bytes, size);
		return dst;
	}
}
