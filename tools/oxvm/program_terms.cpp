#include "program_terms.h"

#include "verification.h"

#include <fmt/format.h>

#include <cctype>
#include <cstring>

namespace OxVm
{
	namespace
	{
		// The characters of a register id's text: bank, '.', slot, ':', type.
		bool InId(char c)
		{
			return std::isalnum(static_cast<unsigned char>(c)) != 0 || c == '.' || c == ':' || c == '_';
		}

		// Reads the decimal number at text[at]; false when there is none.
		bool NumberAt(const std::string &text, std::size_t &at, u32 &value)
		{
			const std::size_t start = at;
			u64 number = 0;
			while (at < text.size() && std::isdigit(static_cast<unsigned char>(text[at])) != 0 && number <= 0xFFFFFFFFu)
				number = number * 10 + u64(text[at++] - '0');
			value = u32(number);
			return at > start && number <= 0xFFFFFFFFu;
		}

		bool StartsAt(const std::string &text, std::size_t at, const char *word)
		{
			return text.compare(at, std::strlen(word), word) == 0;
		}
	}

	CProgramTerms::CProgramTerms(const SProgram &program, const std::vector<u32> &offsets) : m_Program(program), m_Offsets(offsets)
	{
		for (const SRegisterDecl &decl : program.m_Registers)
			if (!decl.m_Name.empty())
				m_NameOfId.emplace(InlineRegisterText(decl.m_Bits), "'" + decl.m_Name + "'");
	}

	std::string CProgramTerms::Say(const std::string &text) const
	{
		return m_Program.m_FromBytecode ? text : _Lines(_Names(text));
	}

	std::string CProgramTerms::_Names(const std::string &text) const
	{
		std::string said;
		for (std::size_t at = 0; at < text.size();)
		{
			if (!InId(text[at]))
			{
				said += text[at++];
				continue;
			}
			std::size_t end = at;
			while (end < text.size() && InId(text[end]))
				++end;
			// A sentence's full stop or a label's colon is not part of the id.
			std::size_t idEnd = end;
			while (idEnd > at && (text[idEnd - 1] == '.' || text[idEnd - 1] == ':'))
				--idEnd;
			const auto name = m_NameOfId.find(text.substr(at, idEnd - at));
			said += name != m_NameOfId.end() ? name->second : text.substr(at, idEnd - at);
			said.append(text, idEnd, end - idEnd);
			at = end;
		}
		return said;
	}

	std::string CProgramTerms::_Lines(const std::string &text) const
	{
		std::string said;
		for (std::size_t at = 0; at < text.size();)
		{
			// "instruction N (offset M)" or "offset M", at a word's start.
			const bool wordStart = at == 0 || std::isalnum(static_cast<unsigned char>(text[at - 1])) == 0;
			std::size_t end = at;
			u32 index = 0, offset = 0;
			bool found = false;
			if (wordStart && StartsAt(text, at, "instruction "))
			{
				end = at + std::strlen("instruction ");
				found = NumberAt(text, end, index) && StartsAt(text, end, " (offset ") && NumberAt(text, end += std::strlen(" (offset "), offset) && end < text.size() &&
						text[end] == ')';
				++end;
			}
			else if (wordStart && StartsAt(text, at, "offset "))
			{
				end = at + std::strlen("offset ");
				found = NumberAt(text, end, offset);
			}
			const u32 line = found ? _LineAt(offset) : 0;
			if (line == 0)
			{
				said += text[at++];
				continue;
			}
			said += fmt::format("line {}", line);
			at = end;
		}
		return said;
	}

	u32 CProgramTerms::_LineAt(u32 offset) const
	{
		const s32 index = InstructionAt(m_Offsets, offset);
		if (index < 0 || std::size_t(index) >= m_Program.m_Instructions.size())
			return 0;
		// Only an instruction's own start: an offset inside one is about its bytes.
		return m_Offsets[std::size_t(index)] == offset ? m_Program.m_Instructions[std::size_t(index)].m_Line : 0;
	}
}
