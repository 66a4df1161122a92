#pragma once
// Where the standard path may give other bits than the Low path, by design.
//
// The two paths agree bit for bit except where the standard path trades exactness for
// speed (or refuses an operand form). Tools that run both paths side by side (oxvm
// run --compare, the differential tests) use this to tell a documented difference from
// a bug. Which NaN a float add or mul of two NaNs returns is not covered here: IEEE
// leaves it open and the paths may differ there for any instruction.

#include "cbvm_meta_ops.h"
#include "cbvm_registers.h"

namespace Orvex
{
	namespace CBVM
	{
		enum EPathDifference : u8
		{
			PathDifference_None = 0,
			PathDifference_FloatModByConstant,	// a one-value divisor: one reciprocal and a multiply from two
												// elements on, frac(a * (1/c)) * c; one element divides exactly,
												// so the same operands give other bits in a stream
			PathDifference_FloatModOfConstants,	// two constant operands: reported on the standard path
			PathDifference_FloatNegOfConstant,	// refused on the standard path: nothing written
			PathDifference_ShiftCountAbove31,	// uniform count > 31 on whole blocks: 0 or the sign fill
			PathDifference_DivByIntMin,			// uniform divisor INT_MIN on whole blocks: INT_MIN / INT_MIN = -1
			__MaxPathDifferences
		};

		// "none", "float modulo by a constant", ...; "?" outside the enumeration.
		const char *PathDifferenceName(EPathDifference difference);

		// Classifies the math-op instruction at 'bytecode' (opcode 113..117, whole
		// instruction readable) against the register file it will run on. Expects a
		// well-formed instruction (ids well-formed, registers present): reads the second
		// source's first element for the integer cases.
		EPathDifference StandardPathDifference(const CCBCPUMetaRegisters &registers, const u8 *bytecode);
	}
}
