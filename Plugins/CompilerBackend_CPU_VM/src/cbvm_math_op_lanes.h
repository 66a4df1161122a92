#pragma once
// The lane operations of the kernels, written once for every path that computes lanes:
// the standard stream kernels (vector loops and scalar tails), the one-element kernels
// and the Low kernels. Which operator uses which float lane operation is the operator
// table's m_FloatLane (cp_ir_details.h); the integer ones are TIntLanes<op>.

#include "cp_ir_details.h"
#include "simd/sse/simd_vector.h"

namespace Orvex
{
	namespace MathOp
	{
		using SIMD_SSE::Float4;
		using SIMD_SSE::Scalar;
		using SOp_MathOp = Compiler::IR::SOp_MathOp;

		//--------------------------------------------------------------------------------
		// Float lanes. _FlipArgs lets a kernel whose constant is src0 still pass the varying
		// value first: Op(v, c) then computes c op v, i.e. src0 op src1 either way.

		// _Vector: Scalar, Float4 or a wide vector (the same operation on every lane width).
		template <EOp2Type _Op, bool _FlipArgs>
		struct TOp2Impl
		{
			template <typename _Vector>
			static OX_ALWAYS_INLINE _Vector Op(const _Vector &a, const _Vector &b) { return _FlipArgs ? _Op2(b, a) : _Op2(a, b); }

		private:
			template <typename _Vector>
			static OX_ALWAYS_INLINE _Vector _Op2(const _Vector &a, const _Vector &b)
			{
				if constexpr (_Op == Op2_Add) return a + b;
				else if constexpr (_Op == Op2_Sub) return a - b;
				else if constexpr (_Op == Op2_Mul) return a * b;
				else if constexpr (_Op == Op2_Div) return a / b;	// true division, no reciprocal estimate
				else if constexpr (_Op == Op2_LT) return a < b;	// ordered: false with a NaN
				else if constexpr (_Op == Op2_LE) return a <= b;
				else if constexpr (_Op == Op2_GT) return b < a;	// SSE has no ordered >: swap the operands
				else if constexpr (_Op == Op2_GE) return b <= a;
				else if constexpr (_Op == Op2_EQ) return a == b;
				else return a != b;	// NE, unordered: true with a NaN, the exact negation of EQ
			}
		};

		// Vector form of ScalarOps::TruncFracF32 for the float modulo: q - float(trunc32(q))
		// where |q| < 2^31, else +0. The truncation itself tells the two apart: it gives
		// 0x80000000 for every lane with |q| >= 2^31 or a NaN (-2^31 included, which is out
		// of the range too) and for no lane inside the range, whose truncations all lie in
		// (-2^31, 2^31). The pattern is made once, outside a loop. _Vector: Float4 or a wide
		// vector.
		template <typename _Vector>
		struct TTruncFrac
		{
			_Vector m_Indefinite = _Vector::SplatInt(s32(0x80000000u));
			OX_ALWAYS_INLINE _Vector operator()(const _Vector &q) const
			{
				const _Vector truncated = q.ConvertToInt32Trunc();
				return (q - truncated.ConvertInt32ToFloat()).AndNot(truncated.CmpEqInt32(m_Indefinite));
			}
		};

		// The three integer shifts.
		enum EShiftKind
		{
			Shift_Left,
			Shift_RightArith,
			Shift_RightLogical,
		};

		//--------------------------------------------------------------------------------
		// Integer lanes: the vector form of each operator, for the kernel kinds of the operator table
		// (cp_ir_details.h) that have one: a lanewise or unary operation on every lane of
		// a vector (Float4 or a wide one), or the kind of a shift.

		template <u32 _Op>
		struct TIntLanes;

		// ---- Add, Sub, Mul (wrapping; SSE2 has no 32-bit multiply, MulLoInt32 builds it)
		template <> struct TIntLanes<SOp_MathOp::Op_Add> { template <typename V> static V Vector(const V &a, const V &b) { return a.AddInt32(b); } };
		template <> struct TIntLanes<SOp_MathOp::Op_Sub> { template <typename V> static V Vector(const V &a, const V &b) { return a.SubInt32(b); } };
		template <> struct TIntLanes<SOp_MathOp::Op_Mul> { template <typename V> static V Vector(const V &a, const V &b) { return a.MulLoInt32(b); } };
		// ---- Neg (0 - a: INT_MIN stays INT_MIN), Not
		template <> struct TIntLanes<SOp_MathOp::Op_Neg> { template <typename V> static V Vector(const V &a) { return V::Zero().SubInt32(a); } };
		template <> struct TIntLanes<SOp_MathOp::Op_Bitwise_Not> { template <typename V> static V Vector(const V &a) { return ~a; } };
		// ---- Shifts
		template <> struct TIntLanes<SOp_MathOp::Op_Bitwise_ShiftLeft> { static constexpr EShiftKind kShift = Shift_Left; };
		template <> struct TIntLanes<SOp_MathOp::Op_Bitwise_ShiftRight> { static constexpr EShiftKind kShift = Shift_RightArith; };
		template <> struct TIntLanes<SOp_MathOp::Op_Bitwise_ShiftRightLogical> { static constexpr EShiftKind kShift = Shift_RightLogical; };
		// ---- And, Or, Xor
		template <> struct TIntLanes<SOp_MathOp::Op_Bitwise_And> { template <typename V> static V Vector(const V &a, const V &b) { return a & b; } };
		template <> struct TIntLanes<SOp_MathOp::Op_Bitwise_Or> { template <typename V> static V Vector(const V &a, const V &b) { return a | b; } };
		template <> struct TIntLanes<SOp_MathOp::Op_Bitwise_Xor> { template <typename V> static V Vector(const V &a, const V &b) { return a ^ b; } };
		// ---- Comparisons (signed). SSE2 only compares for <, > and ==: the other three
		// are their complements.
		template <> struct TIntLanes<SOp_MathOp::Op_Cmp_Lower> { template <typename V> static V Vector(const V &a, const V &b) { return a.CmpLtInt32(b); } };
		template <> struct TIntLanes<SOp_MathOp::Op_Cmp_LowerOrEqual> { template <typename V> static V Vector(const V &a, const V &b) { return ~a.CmpGtInt32(b); } };
		template <> struct TIntLanes<SOp_MathOp::Op_Cmp_Greater> { template <typename V> static V Vector(const V &a, const V &b) { return a.CmpGtInt32(b); } };
		template <> struct TIntLanes<SOp_MathOp::Op_Cmp_GreaterOrEqual> { template <typename V> static V Vector(const V &a, const V &b) { return ~a.CmpLtInt32(b); } };
		template <> struct TIntLanes<SOp_MathOp::Op_Cmp_Equal> { template <typename V> static V Vector(const V &a, const V &b) { return a.CmpEqInt32(b); } };
		template <> struct TIntLanes<SOp_MathOp::Op_Cmp_NotEqual> { template <typename V> static V Vector(const V &a, const V &b) { return ~a.CmpEqInt32(b); } };
	}
}
