#include "line_lexer.h"

namespace OxVm
{
	namespace
	{
		bool IsSpace(char c) { return c == ' ' || c == '\t' || c == '\r' || c == '\v' || c == '\f'; }
		bool IsPunct(char c) { return c == ',' || c == '=' || c == '(' || c == ')' || c == '[' || c == ']'; }
		bool IsComment(char c) { return c == '#' || c == ';'; }
	}

	SLexedLine LexLine(std::string_view line)
	{
		SLexedLine out;
		std::size_t i = 0;
		std::size_t codeEnd = 0;
		while (i < line.size())
		{
			const char c = line[i];
			if (IsSpace(c))
			{
				++i;
				continue;
			}
			if (IsComment(c))
				break;
			SToken token;
			token.m_Column = std::uint32_t(i + 1);
			if (IsPunct(c))
			{
				token.m_Kind = Token_Punct;
				token.m_Text = std::string(1, c);
				++i;
			}
			else if (c == '"')
			{
				token.m_Kind = Token_String;
				++i;
				bool closed = false;
				while (i < line.size())
				{
					if (line[i] == '\\' && i + 1 < line.size())
					{
						token.m_Text += line[i + 1];
						i += 2;
						continue;
					}
					if (line[i] == '"')
					{
						closed = true;
						++i;
						break;
					}
					token.m_Text += line[i++];
				}
				if (!closed && out.m_Error.empty())
				{
					out.m_Error = "missing closing quote";
					out.m_ErrorColumn = token.m_Column;
				}
			}
			else
			{
				token.m_Kind = Token_Word;
				while (i < line.size() && !IsSpace(line[i]) && !IsPunct(line[i]) && !IsComment(line[i]) && line[i] != '"')
					token.m_Text += line[i++];
			}
			codeEnd = i;
			out.m_Tokens.push_back(std::move(token));
		}
		SToken end;
		end.m_Column = std::uint32_t(codeEnd + 1);
		out.m_Tokens.push_back(end);
		const std::size_t codeStart = line.find_first_not_of(" \t\r\v\f");
		if (codeStart != std::string_view::npos && codeStart < codeEnd)
			out.m_Code = std::string(line.substr(codeStart, codeEnd - codeStart));
		return out;
	}
}
