#pragma once
// Splits one line of an oxvm program into tokens: words (names, numbers, mnemonics,
// inline registers such as stream.3:float3), double-quoted strings and the
// punctuation , = ( ) [ ]. '#' and ';' start a comment outside strings.

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

namespace OxVm
{
	enum ETokenKind : std::uint8_t
	{
		Token_Word,
		Token_String,		// m_Text holds the unquoted value
		Token_Punct,		// m_Text is one character
		Token_End,			// end of the line (or start of a comment)
	};

	struct SToken
	{
		ETokenKind m_Kind = Token_End;
		std::string m_Text;
		std::uint32_t m_Column = 0;	// 1-based
	};

	struct SLexedLine
	{
		std::vector<SToken> m_Tokens;	// always ends with Token_End
		std::string m_Code;				// the line without its comment, trimmed
		std::string m_Error;			// non-empty: an unterminated string
		std::uint32_t m_ErrorColumn = 0;
	};

	SLexedLine LexLine(std::string_view line);
}
