#include "diagnostics.h"

#include <fmt/format.h>

#include <algorithm>
#include <tuple>

namespace OxVm
{
	void CDiagnostics::Error(const SLocation &where, const std::string &message)
	{
		++m_Errors;
		_Add(where, "error", message);
	}

	void CDiagnostics::Warning(const SLocation &where, const std::string &message)
	{
		_Add(where, "warning", message);
	}

	void CDiagnostics::_Add(const SLocation &where, const char *severity, const std::string &message)
	{
		std::string prefix = where.m_File != nullptr ? *where.m_File : std::string("oxvm");
		if (where.m_Line != 0)
			prefix += fmt::format(":{}", where.m_Line);
		if (where.m_Line != 0 && where.m_Column != 0)
			prefix += fmt::format(":{}", where.m_Column);
		auto file = std::find(m_Files.begin(), m_Files.end(), where.m_File);
		if (file == m_Files.end())
			file = m_Files.insert(m_Files.end(), where.m_File);
		m_Pending.push_back({std::uint32_t(file - m_Files.begin()), where, m_Sequence++, fmt::format("{}: {}: {}\n", prefix, severity, message)});
	}

	void CDiagnostics::Flush()
	{
		std::stable_sort(m_Pending.begin(), m_Pending.end(), [](const SEntry &a, const SEntry &b) {
			return std::tie(a.m_FileOrder, a.m_Where.m_Line, a.m_Where.m_Column, a.m_Sequence) < std::tie(b.m_FileOrder, b.m_Where.m_Line, b.m_Where.m_Column, b.m_Sequence);
		});
		for (const SEntry &entry : m_Pending)
		{
			const std::string text = ++m_Printed < kMaxErrors ? entry.m_Text : std::string(m_Printed == kMaxErrors ? "oxvm: too many errors, stopping here\n" : "");
			if (m_Capture != nullptr)
				*m_Capture += text;
			else if (m_Out != nullptr)
				std::fputs(text.c_str(), m_Out);
		}
		m_Pending.clear();
	}
}
