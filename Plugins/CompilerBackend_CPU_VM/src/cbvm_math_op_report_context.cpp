// The clause a report made on the math op's reporting way adds (cbvm_math_op_checks.h,
// SInstructionReport): cold code, run only when a report is printed or a handler asks.

#include "cbvm_math_op_checks.h"

#include <cstdio>

namespace Orvex
{
	namespace MathOp
	{
		u32 DescribeInstruction(const void *state, char *text, u32 capacity)
		{
			const SInstructionReport &report = *static_cast<const SInstructionReport *>(state);
			int length = std::snprintf(text, capacity, "instruction at offset %u", report.m_Registers->m_InstructionPointer);
			if (report.m_Operand != nullptr && length >= 0 && u32(length) < capacity)
			{
				const CBVM::SRegisterIdText id(report.m_RegisterBits);
				const int more = std::snprintf(text + length, capacity - u32(length), ", %s %s holds %llu bytes, needs %llu", report.m_Operand, id.m_Text,
											   static_cast<unsigned long long>(report.m_Size), static_cast<unsigned long long>(report.m_Needed));
				length = more < 0 ? length : length + more;
			}
			return length < 0 ? 0 : u32(length);
		}
	}
}
