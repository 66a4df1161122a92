#pragma once
// A plain scalar model of the math operators' values, for differential tests.
//
// Which operators and types exist comes from the library's operator and type tables;
// the values are the model's own, written for clarity, one component at a time, with no
// vector code and nothing shared with the kernels: integer division, remainder and
// products go through 64-bit arithmetic, the float modulo through std::trunc /
// std::fabs, comparisons through the language's own operators. Every value is passed as its raw 32-bit word so that NaN
// payloads, signed zeros and all-ones masks compare bit for bit.
//
// Float NaN rule (what x86 SSE2 does for "a op b", the reference on every machine): a
// NaN operand comes back quieted (bit 22 set); when both operands are NaN, the first one
// wins (AArch64 hardware would prefer a signalling one). An operation that creates a NaN
// (inf - inf, 0 * inf, 0 / 0) gives x86's default NaN, 0xFFC00000 (AArch64's is
// 0x7FC00000). The model decides every NaN word itself, so it gives these words on any
// host. IEEE arithmetic does not say which NaN a two-NaN operation returns, and a
// compiler is free to swap the operands of a commutative add or mul, so for add and mul
// of two NaNs the other operand's quieted NaN is accepted as well (ModelFloatAlternative).
// The model converts no float to an integer: the float modulo's integer part is
// std::trunc of a quotient below 2^31 in magnitude, and 0 past it (where x86's
// conversion would give 0x80000000 and AArch64's saturate, neither is ever asked).

#include "cp_ir_details.h"
#include "kr_base_types.h"

#include <vector>

namespace OxTest
{
	using ModelEOp = Orvex::Compiler::IR::SOp_MathOp::EOp;

	enum class EModelKind
	{
		Float,	// IEEE single components
		Int,	// 32-bit two's complement components (bools too)
	};

	// Operators that exist for each kind. Floats have no bitwise operators; nothing exists
	// past the operator set (value 19 and up).
	bool ModelSupportsFloat(ModelEOp op);
	bool ModelSupportsInt(ModelEOp op);
	bool ModelSupports(EModelKind kind, ModelEOp op);
	// True for the operators that read only their first operand (neg, not).
	bool ModelIsUnary(ModelEOp op);

	// One component: raw words in, raw word out. The second operand is ignored by the
	// unary operators. Unsupported operators return 0 (callers check Model*Supports first).
	Orvex::u32 ModelFloat(ModelEOp op, Orvex::u32 aBits, Orvex::u32 bBits);
	// Float add, sub, mul or div of two raw words with the NaN rule above (any other
	// operator gives 0), for tests that model a kernel's own sequence of operations.
	Orvex::u32 ModelFloatArith(ModelEOp op, Orvex::u32 aBits, Orvex::u32 bBits);
	Orvex::u32 ModelInt(ModelEOp op, Orvex::u32 a, Orvex::u32 b);
	Orvex::u32 ModelComponent(EModelKind kind, ModelEOp op, Orvex::u32 a, Orvex::u32 b);

	// The other result a correct implementation may give for this component: source 1's
	// quieted NaN for float add or mul of two NaNs; the model's own value otherwise.
	Orvex::u32 ModelFloatAlternative(ModelEOp op, Orvex::u32 aBits, Orvex::u32 bBits);
	Orvex::u32 ModelAlternative(EModelKind kind, ModelEOp op, Orvex::u32 a, Orvex::u32 b);

	// The kernel family and component count a source type runs through: bools and signed
	// 32-bit ints through the integer kernels, floats through the float kernels,
	// quaternions through the four-float one. False for every other type.
	bool ModelKernelForType(Orvex::EBaseTypeID type, EModelKind &kind, Orvex::u32 &components);

	// A whole stream. Element i of a source starts at word i * stride (a stride of 0
	// re-reads element 0, i.e. broadcasts it); the destination is dense: element i's
	// components land at words [i * components, (i + 1) * components).
	//
	// Returns false (and leaves 'out' empty) when the operator does not exist for the
	// kind: a kernel writes nothing then. Otherwise 'out' holds evalCount * components
	// words. src1 may be null for unary operators. 'alternatives', when given, receives
	// ModelAlternative of every word (mostly equal to 'out').
	bool ModelStream(ModelEOp op, EModelKind kind, Orvex::u32 components, Orvex::u32 evalCount,
					 const Orvex::u32 *src0, Orvex::u32 stride0, const Orvex::u32 *src1, Orvex::u32 stride1,
					 std::vector<Orvex::u32> &out, std::vector<Orvex::u32> *alternatives = nullptr);

	// Bit casts, for tests that build values.
	Orvex::u32 FloatBits(float value);
	float BitsFloat(Orvex::u32 bits);
}
