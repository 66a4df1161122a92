#include "diagnostics.h"

#include <fmt/format.h>

#include <algorithm>
#include <tuple>

namespace OxVm
{
	namespace
	{
		// Length of the valid UTF-8 sequence at 'i' (at least 2 bytes); 0 when there is none.
		std::size_t Utf8Length(std::string_view text, std::size_t i)
		{
			const unsigned char lead = static_cast<unsigned char>(text[i]);
			const std::size_t length = lead >= 0xF0 && lead <= 0xF4 ? 4 : lead >= 0xE0 ? 3 : lead >= 0xC2 && lead <= 0xDF ? 2 : 0;
			if (length == 0 || i + length > text.size())
				return 0;
			for (std::size_t k = 1; k < length; ++k)
				if ((static_cast<unsigned char>(text[i + k]) & 0xC0) != 0x80)
					return 0;
			return length;
		}
	}

	std::string Printable(std::string_view text)
	{
		std::string out;
		out.reserve(text.size());
		for (std::size_t i = 0; i < text.size(); ++i)
		{
			const unsigned char byte = static_cast<unsigned char>(text[i]);
			if (byte >= 0x20 && byte < 0x7F)
			{
				out += char(byte);
				continue;
			}
			const std::size_t length = byte >= 0x80 ? Utf8Length(text, i) : 0;
			if (length != 0)
			{
				out.append(text.substr(i, length));
				i += length - 1;
			}
			else
				out += fmt::format("\\x{:02x}", byte);
		}
		return out;
	}

	std::string Shown(std::string_view text)
	{
		if (text.size() <= kShownBytes)
			return "'" + Printable(text) + "'";
		// Cut on a character boundary, so that the shown part stays valid UTF-8.
		std::size_t cut = kShownBytes;
		while (cut > 0 && (static_cast<unsigned char>(text[cut]) & 0xC0) == 0x80)
			--cut;
		return fmt::format("'{}...' ({} bytes)", Printable(text.substr(0, cut)), text.size());
	}

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
		std::string prefix = where.m_File != nullptr ? Printable(*where.m_File) : std::string("oxvm");
		if (where.m_Line != 0)
			prefix += fmt::format(":{}", where.m_Line);
		if (where.m_Line != 0 && where.m_Column != 0)
			prefix += fmt::format(":{}", where.m_Column);
		auto file = std::find(m_Files.begin(), m_Files.end(), where.m_File);
		if (file == m_Files.end())
			file = m_Files.insert(m_Files.end(), where.m_File);
		// Messages quote input through Shown(); Printable() here is the net for any byte that got past.
		m_Pending.push_back({std::uint32_t(file - m_Files.begin()), where, m_Sequence++, fmt::format("{}: {}: {}\n", prefix, severity, Printable(message))});
		// Only the first kMaxErrors in order are ever printed: keep those (and one more, for
		// the "too many" line), so that a million warnings cost no memory.
		if (m_Pending.size() >= 2 * kMaxErrors)
		{
			_Sort();
			m_Pending.resize(kMaxErrors + 1);
		}
	}

	void CDiagnostics::_Sort()
	{
		std::stable_sort(m_Pending.begin(), m_Pending.end(), [](const SEntry &a, const SEntry &b) {
			return std::tie(a.m_FileOrder, a.m_Where.m_Line, a.m_Where.m_Column, a.m_Sequence) < std::tie(b.m_FileOrder, b.m_Where.m_Line, b.m_Where.m_Column, b.m_Sequence);
		});
	}

	void CDiagnostics::Flush()
	{
		_Sort();
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
