// The decoder's texts: its problems and register ids, written once for the verifier, the
// batch plan and the tools (the framing itself is inline in the header).

#include "cbvm_math_op_decoder.h"

#include <cstdio>

namespace Orvex
{
	namespace CBVM
	{
		namespace
		{
			using SOp_MathOp = Compiler::IR::SOp_MathOp;

			// snprintf's result as a length inside the buffer.
			u32 _Written(int length, u32 capacity)
			{
				if (length < 0 || capacity == 0)
					return 0;
				return u32(length) < capacity ? u32(length) : capacity - 1;
			}

			constexpr u32 _Length(const char *text)
			{
				u32 n = 0;
				while (text[n] != 0)
					++n;
				return n;
			}

			constexpr u32 _LongestTypeName()
			{
				u32 longest = 0;
				for (const SBaseTypeInfo &type : kBaseTypes)
					longest = _Length(type.m_Name) > longest ? _Length(type.m_Name) : longest;
				return longest;
			}

			// "instance" (the longest bank name) "." 7 slot digits ":" type, and the zero.
			static_assert(Compiler::IR::CRegID::RegisterSlotMask == 2097151 && Compiler::IR::CRegID::RegisterTypeMask == 63, "slots have 7 digits, type fields 2");
			static_assert(_Length("instance") + 1 + 7 + 1 + _LongestTypeName() + 1 <= kRegisterIdTextSize, "the longest register text fits");
			static_assert(_Length("instance") + 1 + 7 + 1 + _Length("type63") + 1 <= kRegisterIdTextSize, "a type field with no type fits");
		}

		u32 FormatMathOpDecodeProblem(EMathOpDecode problem, const SMathOpInstruction &at, u32 size, char *out, u32 capacity)
		{
			int length = 0;
			switch (problem)
			{
			case MathOpDecode_UnknownOpcode:
				// Another meta-op's opcode is named: bytecode of a whole program was probably
				// handed to the math-op decoder.
				if (OpcodeName(at.m_Opcode)[0] != '?')
					length = std::snprintf(out, capacity, "opcode %u (%s) is not a math-op instruction (%u to %u)", at.m_Opcode, OpcodeName(at.m_Opcode), u32(Opcode_MathOp),
										   u32(Opcode_MathOpDiv));
				else
					length = std::snprintf(out, capacity, "unknown opcode %u (math-op opcodes are %u to %u)", at.m_Opcode, u32(Opcode_MathOp), u32(Opcode_MathOpDiv));
				break;
			case MathOpDecode_Truncated:
				length = std::snprintf(out, capacity, "truncated instruction: opcode %u (%s) needs %u bytes, %u left", at.m_Opcode, OpcodeName(at.m_Opcode), at.m_Size,
									   size - at.m_Offset);
				break;
			case MathOpDecode_UnknownOperator:
				length = std::snprintf(out, capacity, "unknown operator %u (operators are 0 to %d)", u32(at.m_Op), SOp_MathOp::__MaxOps - 1);
				break;
			default:
				if (capacity != 0)
					out[0] = 0;
				break;
			}
			return _Written(length, capacity);
		}

		u32 FormatRegisterId(u32 bits, ERegisterIdText form, char (&out)[kRegisterIdTextSize])
		{
			const u32 field = CVMRegID::TypeFieldOf(bits);
			const char *type = kBaseTypes[field].m_Name;
			const bool named = type[0] != '?';
			int length;
			if (form == RegisterIdText_Exact && bits == CVMRegID::kInvalidBits)
				length = std::snprintf(out, kRegisterIdTextSize, "-");
			else if (form == RegisterIdText_Exact && (!IsPlainRegisterId(bits) || !named))
				length = std::snprintf(out, kRegisterIdTextSize, "0x%08x", bits);
			else if (named)
				length = std::snprintf(out, kRegisterIdTextSize, "%s.%u:%s", Compiler::MetaTypeName(CVMRegID::BankOf(bits)), CVMRegID::SlotOf(bits), type);
			else
				length = std::snprintf(out, kRegisterIdTextSize, "%s.%u:type%u", Compiler::MetaTypeName(CVMRegID::BankOf(bits)), CVMRegID::SlotOf(bits), field);
			return _Written(length, kRegisterIdTextSize);
		}
	}
}
