#include "csv_table.h"

#include <fmt/format.h>

#include <algorithm>
#include <cerrno>
#include <cstring>

namespace OxVm
{
	namespace
	{
		constexpr std::size_t kReadBytes = std::size_t(64) << 10;

		bool IsBlank(char c) { return c == ' ' || c == '\t'; }
	}

	std::size_t SplitCsvLine(std::string_view line, std::vector<SCsvField> &fields, std::size_t wanted)
	{
		fields.clear();
		const std::size_t size = line.size();
		std::size_t i = 0;
		for (;;)
		{
			if (fields.size() == wanted && line.find('"', i) == std::string_view::npos)
				return fields.size() + 1 + std::size_t(std::count(line.begin() + std::ptrdiff_t(i), line.end(), ','));
			SCsvField field;
			while (i < size && IsBlank(line[i]))
				++i;
			field.m_Column = std::uint32_t(i + 1);
			if (i < size && line[i] == '"')
			{
				field.m_Begin = std::uint32_t(++i);
				field.m_End = std::uint32_t(size);	// no closing quote: the rest of the line
				for (; i < size; ++i)
				{
					if (line[i] != '"')
						continue;
					if (i + 1 < size && line[i + 1] == '"')
					{
						field.m_Escaped = true;
						++i;
						continue;
					}
					field.m_End = std::uint32_t(i++);
					break;
				}
				// Anything between the closing quote and the comma is not part of the field.
				while (i < size && line[i] != ',')
					++i;
			}
			else
			{
				field.m_Begin = std::uint32_t(i);
				while (i < size && line[i] != ',')
					++i;
				std::size_t end = i;
				while (end > field.m_Begin && IsBlank(line[end - 1]))
					--end;
				field.m_End = std::uint32_t(end);
			}
			fields.push_back(field);
			if (i >= size)
				return fields.size();
			++i;	// the comma
		}
	}

	std::string_view CsvFieldText(std::string_view line, const SCsvField &field, std::string &scratch)
	{
		const std::string_view text = line.substr(field.m_Begin, field.m_End - field.m_Begin);
		if (!field.m_Escaped)
			return text;
		scratch.clear();
		for (std::size_t i = 0; i < text.size(); ++i)
		{
			scratch += text[i];
			if (text[i] == '"' && i + 1 < text.size() && text[i + 1] == '"')
				++i;
		}
		return scratch;
	}

	CCsvReader::~CCsvReader()
	{
		if (m_File != nullptr)
			std::fclose(m_File);
	}

	bool CCsvReader::Open(const std::string &path)
	{
		m_Path = path;
		m_File = std::fopen(path.c_str(), "rb");
		if (m_File == nullptr)
		{
			_Fail(fmt::format("cannot read CSV file '{}': {}", path, std::strerror(errno)), false);
			return false;
		}
		m_Buffer.resize(kReadBytes);
		return true;
	}

	void CCsvReader::_Fail(std::string message, bool hasLine)
	{
		if (m_Error.empty())
		{
			m_Error = std::move(message);
			m_ErrorHasLine = hasLine;
		}
	}

	bool CCsvReader::_Fill()
	{
		if (m_File == nullptr || !m_Error.empty())
			return false;
		// Never past the limit, so that every line that ends within it is still read; one
		// byte beyond it tells a file that ends there from one that goes on.
		const std::uint64_t left = kMaxCsvBytes - m_BytesRead;
		const std::size_t want = left >= m_Buffer.size() ? m_Buffer.size() : std::size_t(left == 0 ? 1 : left);
		const std::size_t got = std::fread(m_Buffer.data(), 1, want, m_File);
		if (got == 0)
		{
			if (std::ferror(m_File))
				_Fail(fmt::format("cannot read CSV file '{}': {}", m_Path, std::strerror(errno)), false);
			return false;
		}
		if (left == 0)
		{
			m_LineNumber += 1;	// the line the limit falls on
			_Fail(fmt::format("reading stopped here, after {} GiB: oxvm reads at most {} bytes of a CSV file", kMaxCsvBytes >> 30, kMaxCsvBytes), true);
			return false;
		}
		m_Begin = 0;
		m_End = got;
		m_BytesRead += got;
		return true;
	}

	bool CCsvReader::NextLine(std::string_view &line)
	{
		for (;;)
		{
			m_Line.clear();
			bool inBuffer = false;	// the whole line sits in m_Buffer: no copy
			bool ended = false;
			for (;;)
			{
				if (m_Begin == m_End && !_Fill())
					break;
				const char *start = m_Buffer.data() + m_Begin;
				const std::size_t available = m_End - m_Begin;
				const char *newline = static_cast<const char *>(std::memchr(start, '\n', available));
				const std::size_t take = newline != nullptr ? std::size_t(newline - start) : available;
				if (m_Line.size() + take > kMaxCsvLineBytes)
				{
					const bool nul = std::memchr(start, '\0', take) != nullptr || m_Line.find('\0') != std::string::npos;
					m_LineNumber += 1;
					_Fail(fmt::format("this line is longer than {} bytes, the longest a CSV line may be{}", kMaxCsvLineBytes,
									  nul ? "; it holds NUL bytes: is this a text file?" : ""),
						  true);
					return false;
				}
				m_Begin += take + (newline != nullptr ? 1 : 0);
				if (newline != nullptr && m_Line.empty())
				{
					line = std::string_view(start, take);
					inBuffer = true;
					ended = true;
					break;
				}
				m_Line.append(start, take);
				if (newline != nullptr)
				{
					ended = true;
					break;
				}
			}
			if (!m_Error.empty() || (!ended && m_Line.empty()))
				return false;
			if (!inBuffer)
				line = m_Line;
			++m_LineNumber;
			if (m_LineNumber == 1 && line.substr(0, 3) == "\xEF\xBB\xBF")
				line.remove_prefix(3);
			if (!line.empty() && line.back() == '\r')
				line.remove_suffix(1);
			if (line.find_first_not_of(" \t") != std::string_view::npos)
				return true;
		}
	}
}
