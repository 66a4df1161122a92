#include "literal_operand.h"

#include "cbvm_meta_ops.h"
#include "diagnostics.h"
#include "numbers.h"

#include <fmt/format.h>

#include <cctype>

namespace OxVm
{
	namespace
	{
		// Slots tried for the suggested declaration: a program rarely has more constants.
		constexpr u32 kSlotsTried = 256;

		// Digits, a sign or a point before a digit, or a float's special words.
		bool LooksLikeNumber(std::string_view word)
		{
			std::size_t at = word.empty() || (word[0] != '-' && word[0] != '+') ? 0 : 1;
			if (word.substr(at) == "nan" || word.substr(at) == "inf")
				return true;
			if (at < word.size() && word[at] == '.')
				++at;
			return at < word.size() && std::isdigit(static_cast<unsigned char>(word[at])) != 0;
		}

		bool LooksLikeFloat(std::string_view word)
		{
			s64 integer = 0;
			return !ParseInt64(word, integer);
		}

		// The first constant slot no register takes; -1 when the first few are all taken.
		s32 FreeConstantSlot(const SProgram &program)
		{
			for (u32 slot = 0; slot < kSlotsTried; ++slot)
				if (program.FindByPlace(u32(CVMRegID::Build(slot, Compiler::MetaType_Constant, BaseType_Float).m_RawBits)) < 0)
					return s32(slot);
			return -1;
		}
	}

	std::string LiteralOperandMessage(std::string_view word, const SProgram &program, EBaseTypeID type)
	{
		if (!LooksLikeNumber(word))
			return std::string();
		const char *typeName = type != BaseType_Void ? BaseTypeName(type) : LooksLikeFloat(word) ? "float" : "i32";
		const s32 slot = FreeConstantSlot(program);
		return fmt::format("{} is a literal: operands are registers, not literals; declare a constant register that "
						   "holds it ('reg k constant {} {} = {}') and name it here",
						   Shown(word), slot >= 0 ? fmt::to_string(slot) : std::string("SLOT"), typeName,
						   word.size() <= kShownBytes ? Printable(word) : std::string("VALUE"));
	}
}
