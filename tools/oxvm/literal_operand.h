#pragma once
// A number written where an instruction takes a register ("mul v, v, 0.5"). The VM's
// math operators read registers only, so the program has to hold the value in a
// constant register; the message says how, with a declaration that fits the program.

#include "program.h"

#include <string>
#include <string_view>

namespace OxVm
{
	// Empty when 'word' is not a number; otherwise the message for it as an operand.
	// 'type': the instruction's other operands' type when known (BaseType_Void: not
	// known, the number's form decides between float and i32).
	std::string LiteralOperandMessage(std::string_view word, const SProgram &program, EBaseTypeID type);
}
