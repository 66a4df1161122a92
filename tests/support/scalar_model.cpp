#include "scalar_model.h"

#include <cmath>
#include <cstring>

namespace OxTest
{
	using Orvex::s32;
	using Orvex::s64;
	using Orvex::u32;
	using Orvex::u64;
	using SOp = Orvex::Compiler::IR::SOp_MathOp;

	namespace
	{
		constexpr u32 kSignBit = 0x80000000u;
		constexpr u32 kQuietBit = 0x00400000u;
		constexpr u32 kAllOnes = 0xFFFFFFFFu;
		// The NaN x86 gives for an invalid operation without a NaN operand (sign set).
		constexpr u32 kX86DefaultNaN = 0xFFC00000u;

		bool IsNaNBits(u32 bits) { return (bits & 0x7F800000u) == 0x7F800000u && (bits & 0x007FFFFFu) != 0; }

		u32 Mask(bool condition) { return condition ? kAllOnes : 0u; }

		// The host computes only values that are not NaNs: every NaN word is the
		// header's rule, decided here.
		float HostArith(ModelEOp op, float a, float b)
		{
			switch (op)
			{
			case SOp::Op_Add: return a + b;
			case SOp::Op_Sub: return a - b;
			case SOp::Op_Mul: return a * b;
			case SOp::Op_Div: return a / b;
			default: return 0.0f;
			}
		}

		// frac(a / b) * b. The fractional part is only taken while the quotient fits a
		// 32-bit integer (|q| < 2^31); past that, and for an infinite or NaN quotient, it
		// is +0. The integer part is an integer: its zero is unsigned, so a quotient of
		// -0 leaves a fractional part of -0 - (+0) = -0.
		u32 FloatMod(u32 aBits, u32 bBits)
		{
			const float a = BitsFloat(aBits);
			const float b = BitsFloat(bBits);
			const float q = a / b;
			float fraction = 0.0f;
			if (std::fabs(q) < 2147483648.0f)
			{
				float whole = std::trunc(q);
				if (whole == 0.0f)
					whole = 0.0f;	// drop the sign of a zero integer part
				fraction = q - whole;
			}
			return ModelFloatArith(SOp::Op_Mul, FloatBits(fraction), bBits);
		}

		// Floor of v / 2^k, i.e. what a sign-filling right shift gives, without shifting
		// a negative number.
		s64 FloorDivPow2(s64 v, u32 k)
		{
			const s64 d = s64(1) << k;
			if (v >= 0)
				return v / d;
			return -((-v + d - 1) / d);
		}

		u32 Low32(s64 v) { return u32(u64(v) & 0xFFFFFFFFull); }
	}

	// The NaN rule of the header spelled out, so that the word depends neither on how
	// the compiler orders commutative operands nor on the machine: a NaN operand's word
	// (the first one's) is taken before the host computes anything, and a NaN the host
	// makes from two non-NaN operands (inf - inf, 0 * inf, 0 / 0) is x86's default NaN,
	// whatever the host's own default is (AArch64's has the sign clear).
	u32 ModelFloatArith(ModelEOp op, u32 aBits, u32 bBits)
	{
		if (IsNaNBits(aBits))
			return aBits | kQuietBit;
		if (IsNaNBits(bBits))
			return bBits | kQuietBit;
		const u32 result = FloatBits(HostArith(op, BitsFloat(aBits), BitsFloat(bBits)));
		return IsNaNBits(result) ? kX86DefaultNaN : result;
	}

	u32 FloatBits(float value)
	{
		u32 bits;
		std::memcpy(&bits, &value, sizeof(bits));
		return bits;
	}

	float BitsFloat(u32 bits)
	{
		float value;
		std::memcpy(&value, &bits, sizeof(value));
		return value;
	}

	// Which operators exist, and their operand counts, are the operator table's
	// (cp_ir_details.h); only the values are the model's own.
	bool ModelIsUnary(ModelEOp op)
	{
		return ModelSupportsInt(op) && SOp::kTraits[op].m_ParameterCount == 1;
	}

	bool ModelSupportsInt(ModelEOp op)
	{
		return s32(op) >= 0 && s32(op) < s32(SOp::__MaxOps);
	}

	bool ModelSupportsFloat(ModelEOp op)
	{
		return ModelSupportsInt(op) && SOp::kTraits[op].FloatSupported();
	}

	bool ModelSupports(EModelKind kind, ModelEOp op)
	{
		return kind == EModelKind::Float ? ModelSupportsFloat(op) : ModelSupportsInt(op);
	}

	u32 ModelFloat(ModelEOp op, u32 aBits, u32 bBits)
	{
		const float a = BitsFloat(aBits);
		const float b = BitsFloat(bBits);
		switch (op)
		{
		case SOp::Op_Add:
		case SOp::Op_Sub:
		case SOp::Op_Mul:
		case SOp::Op_Div:
			return ModelFloatArith(op, aBits, bBits);
		case SOp::Op_Mod:
			return FloatMod(aBits, bBits);
		case SOp::Op_Neg:
			return aBits ^ kSignBit;
		// The language's comparisons are IEEE ones: ordered, except != which is true
		// for a NaN on either side.
		case SOp::Op_Cmp_Lower: return Mask(a < b);
		case SOp::Op_Cmp_LowerOrEqual: return Mask(a <= b);
		case SOp::Op_Cmp_Greater: return Mask(a > b);
		case SOp::Op_Cmp_GreaterOrEqual: return Mask(a >= b);
		case SOp::Op_Cmp_Equal: return Mask(a == b);
		case SOp::Op_Cmp_NotEqual: return Mask(a != b);
		default:
			return 0;
		}
	}

	u32 ModelInt(ModelEOp op, u32 aWord, u32 bWord)
	{
		// Everything in 64 bits, where none of these operations can overflow; the
		// result is the low 32 bits.
		const s64 a = s32(aWord);
		const s64 b = s32(bWord);
		const u32 count = bWord & 31u;
		switch (op)
		{
		case SOp::Op_Add: return Low32(a + b);
		case SOp::Op_Sub: return Low32(a - b);
		case SOp::Op_Mul: return Low32(a * b);
		case SOp::Op_Div: return b == 0 ? 0u : Low32(a / b);	// INT_MIN / -1 = 2^31, wraps to INT_MIN
		case SOp::Op_Mod: return b == 0 ? aWord : Low32(a % b);	// C++ remainder has the sign of a
		case SOp::Op_Neg: return Low32(-a);
		case SOp::Op_Bitwise_ShiftLeft: return Low32(s64(u64(aWord) << count));
		case SOp::Op_Bitwise_ShiftRight: return Low32(FloorDivPow2(a, count));
		case SOp::Op_Bitwise_ShiftRightLogical: return u32(u64(aWord) >> count);
		case SOp::Op_Bitwise_And: return aWord & bWord;
		case SOp::Op_Bitwise_Or: return aWord | bWord;
		case SOp::Op_Bitwise_Xor: return aWord ^ bWord;
		case SOp::Op_Bitwise_Not: return aWord ^ kAllOnes;
		case SOp::Op_Cmp_Lower: return Mask(a < b);
		case SOp::Op_Cmp_LowerOrEqual: return Mask(a <= b);
		case SOp::Op_Cmp_Greater: return Mask(a > b);
		case SOp::Op_Cmp_GreaterOrEqual: return Mask(a >= b);
		case SOp::Op_Cmp_Equal: return Mask(a == b);
		case SOp::Op_Cmp_NotEqual: return Mask(a != b);
		default:
			return 0;
		}
	}

	u32 ModelComponent(EModelKind kind, ModelEOp op, u32 a, u32 b)
	{
		return kind == EModelKind::Float ? ModelFloat(op, a, b) : ModelInt(op, a, b);
	}

	u32 ModelFloatAlternative(ModelEOp op, u32 aBits, u32 bBits)
	{
		if ((op == SOp::Op_Add || op == SOp::Op_Mul) && IsNaNBits(aBits) && IsNaNBits(bBits))
			return bBits | kQuietBit;
		return ModelFloat(op, aBits, bBits);
	}

	u32 ModelAlternative(EModelKind kind, ModelEOp op, u32 a, u32 b)
	{
		return kind == EModelKind::Float ? ModelFloatAlternative(op, a, b) : ModelInt(op, a, b);
	}

	// The kernel family of a type is the type table's element kind (kr_base_types.h).
	bool ModelKernelForType(Orvex::EBaseTypeID type, EModelKind &kind, u32 &components)
	{
		const Orvex::SBaseTypeInfo &info = Orvex::BaseTypeInfo(type);
		if (info.m_Kind == Orvex::ElementKind_None)
			return false;
		kind = info.m_Kind == Orvex::ElementKind_Float ? EModelKind::Float : EModelKind::Int;
		components = info.m_Components;
		return true;
	}

	bool ModelStream(ModelEOp op, EModelKind kind, u32 components, u32 evalCount,
					 const u32 *src0, u32 stride0, const u32 *src1, u32 stride1,
					 std::vector<u32> &out, std::vector<u32> *alternatives)
	{
		out.clear();
		if (alternatives != nullptr)
			alternatives->clear();
		if (!ModelSupports(kind, op))
			return false;
		const bool unary = ModelIsUnary(op);
		out.resize(std::size_t(evalCount) * components);
		if (alternatives != nullptr)
			alternatives->resize(out.size());
		for (u32 i = 0; i < evalCount; ++i)
			for (u32 c = 0; c < components; ++c)
			{
				const u32 a = src0[std::size_t(i) * stride0 + c];
				const u32 b = (unary || src1 == nullptr) ? 0u : src1[std::size_t(i) * stride1 + c];
				out[std::size_t(i) * components + c] = ModelComponent(kind, op, a, b);
				if (alternatives != nullptr)
					(*alternatives)[std::size_t(i) * components + c] = ModelAlternative(kind, op, a, b);
			}
		return true;
	}
}
