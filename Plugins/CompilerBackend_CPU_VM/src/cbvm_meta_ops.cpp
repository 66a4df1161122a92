#include "cbvm_meta_ops.h"

namespace Orvex
{
	namespace CBVM
	{
		const char *OpcodeName(u32 opcode)
		{
			// Indexed by opcode - __FirstOpcode.
			static constexpr const char *kNames[__MaxOpcodes - __FirstOpcode] = {
				"ExternalLoad", "ExternalStore", "ExternalClear", "TypeConverter",
				"GenericNativeVectorConstructor", "VectorSwizzler", "VectorPermute", "Broadcast",
				"MathOp", "MathOpAdd", "MathOpSub", "MathOpMul", "MathOpDiv",
				"Madd", "IDivMulInv", "MathFunc1", "MathFunc2", "MathFunc3", "Select", "FunctionCall",
			};
			static_assert(sizeof(kNames) / sizeof(kNames[0]) == __MaxOpcodes - __FirstOpcode, "one name per opcode");
			return opcode >= __FirstOpcode && opcode < __MaxOpcodes ? kNames[opcode - __FirstOpcode] : "?";
		}
	}
}
