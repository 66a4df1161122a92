#pragma once
// Splits one line of an oxvm program into tokens: words (names, numbers, mnemonics,
// inline registers such as stream.3:float3), double-quoted strings and the
// punctuation , = ( ) [ ]. '#' and ';' start a comment outside strings.
//
// Tokens are made one at a time as the parser asks for them and view the line's own
// bytes, so a line costs no memory beyond itself however many tokens it holds (a
// line of a million commas is read as far as the parser gets, one token at a time).

#include <cstdint>
#include <string>
#include <string_view>

namespace OxVm
{
	enum ETokenKind : std::uint8_t
	{
		Token_Word,
		Token_String,		// m_Text is the quoted text without its quotes, escapes still in (see Unescape)
		Token_Punct,		// m_Text is one character
		Token_End,			// end of the line (or start of a comment)
	};

	struct SToken
	{
		ETokenKind m_Kind = Token_End;
		std::string_view m_Text;
		std::uint32_t m_Column = 0;	// 1-based
	};

	class CLineLexer
	{
	public:
		// Scans the line once for its comment and an unterminated string; the tokens
		// come later, from Peek and Next. 'line' must outlive the lexer and its tokens.
		explicit CLineLexer(std::string_view line);

		const SToken &Peek() const { return m_Ahead[0]; }
		// The token after Peek().
		const SToken &PeekSecond();
		SToken Next();

		std::string_view Code() const { return m_Code; }	// the line without its comment, trimmed
		const char *Error() const { return m_Error; }		// non-null: an unterminated string
		std::uint32_t ErrorColumn() const { return m_ErrorColumn; }

	private:
		SToken _Lex();

		std::string_view m_Line;	// up to the comment
		std::size_t m_Pos = 0;
		SToken m_Ahead[2];
		bool m_HasSecond = false;
		std::string_view m_Code;
		const char *m_Error = nullptr;
		std::uint32_t m_ErrorColumn = 0;
	};

	// The word token that starts at 'column' (1-based) of 'line', as the lexer reads it:
	// lets a caller find an operand again without having kept its text.
	std::string_view WordAt(std::string_view line, std::uint32_t column);

	// The value of a string token: \x is x.
	std::string Unescape(std::string_view quoted);
}
