#include "line_lexer.h"

#include <algorithm>

namespace OxVm
{
	namespace
	{
		bool IsSpace(char c) { return c == ' ' || c == '\t' || c == '\r' || c == '\v' || c == '\f'; }
		bool IsPunct(char c) { return c == ',' || c == '=' || c == '(' || c == ')' || c == '[' || c == ']'; }
		bool IsComment(char c) { return c == '#' || c == ';'; }

		// Index of the quote closing the string that starts at 'open'; npos when the line ends first.
		std::size_t ClosingQuote(std::string_view line, std::size_t open)
		{
			for (std::size_t i = open + 1; i < line.size(); ++i)
			{
				if (line[i] == '\\' && i + 1 < line.size())
					++i;
				else if (line[i] == '"')
					return i;
			}
			return std::string_view::npos;
		}
	}

	CLineLexer::CLineLexer(std::string_view line)
	{
		// Where the comment starts (a '#' or ';' inside a string is text).
		std::size_t end = 0;
		for (; end < line.size() && !IsComment(line[end]); ++end)
		{
			if (line[end] != '"')
				continue;
			const std::size_t close = ClosingQuote(line, end);
			if (close == std::string_view::npos)
			{
				m_Error = "missing closing quote";
				m_ErrorColumn = std::uint32_t(end + 1);
				end = line.size();
				break;
			}
			end = close;
		}
		m_Line = line.substr(0, end);
		std::size_t first = 0, last = m_Line.size();
		while (first < last && IsSpace(m_Line[first]))
			++first;
		while (last > first && IsSpace(m_Line[last - 1]))
			--last;
		m_Code = m_Line.substr(first, last - first);
		m_Ahead[0] = _Lex();
	}

	const SToken &CLineLexer::PeekSecond()
	{
		if (!m_HasSecond)
		{
			m_Ahead[1] = _Lex();
			m_HasSecond = true;
		}
		return m_Ahead[1];
	}

	SToken CLineLexer::Next()
	{
		const SToken token = m_Ahead[0];
		if (token.m_Kind == Token_End)
			return token;	// the end stays the end
		m_Ahead[0] = m_HasSecond ? m_Ahead[1] : _Lex();
		m_HasSecond = false;
		return token;
	}

	SToken CLineLexer::_Lex()
	{
		while (m_Pos < m_Line.size() && IsSpace(m_Line[m_Pos]))
			++m_Pos;
		SToken token;
		token.m_Column = std::uint32_t(m_Pos + 1);
		if (m_Pos >= m_Line.size())
		{
			// The end token sits just after the last token of the code.
			token.m_Column = std::uint32_t(m_Code.data() - m_Line.data() + m_Code.size() + 1);
			return token;
		}
		const std::size_t start = m_Pos;
		const char c = m_Line[m_Pos];
		if (IsPunct(c))
		{
			token.m_Kind = Token_Punct;
			++m_Pos;
		}
		else if (c == '"')
		{
			token.m_Kind = Token_String;
			const std::size_t close = ClosingQuote(m_Line, start);
			const std::size_t stop = close == std::string_view::npos ? m_Line.size() : close;
			token.m_Text = m_Line.substr(start + 1, stop - start - 1);
			m_Pos = close == std::string_view::npos ? m_Line.size() : close + 1;
			return token;
		}
		else
		{
			token.m_Kind = Token_Word;
			while (m_Pos < m_Line.size() && !IsSpace(m_Line[m_Pos]) && !IsPunct(m_Line[m_Pos]) && m_Line[m_Pos] != '"')
				++m_Pos;
		}
		token.m_Text = m_Line.substr(start, m_Pos - start);
		return token;
	}

	std::string_view WordAt(std::string_view line, std::uint32_t column)
	{
		const std::size_t start = std::min<std::size_t>(column - 1, line.size());
		std::size_t end = start;
		while (end < line.size() && !IsSpace(line[end]) && !IsPunct(line[end]) && !IsComment(line[end]) && line[end] != '"')
			++end;
		return line.substr(start, end - start);
	}

	std::string Unescape(std::string_view quoted)
	{
		std::string value;
		value.reserve(quoted.size());
		for (std::size_t i = 0; i < quoted.size(); ++i)
			value += quoted[i] == '\\' && i + 1 < quoted.size() ? quoted[++i] : quoted[i];
		return value;
	}
}
