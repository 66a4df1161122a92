#pragma once
// Every lane of a vector divided by one divisor (a uniform constant right operand), or
// shifted by one count, without a hardware divide, and every lane divided by its own
// divisor through double precision: the vector forms of the integer kernels' division
// and shift paths, written once for every vector width (Float4 in the SSE2 kernel,
// the wide vectors in the wide kernels, cbvm_math_op_wide_int_kernels.h). Helpers that
// are not templates have internal linkage: a unit compiled for a wide target must not
// share its copy with the others.
//
// _Prechecked: the shift count is known to be at most 31, so the shift needs no check
// (the wide vectors have only that form; Float4 also reports a count past 31).

#include "cbvm_math_op_kernel_sets.h"
#include "cbvm_math_op_lanes.h"
#include "mt_integer_tools.h"

namespace Orvex
{
	namespace MathOp
	{
		// Per-lane division through double precision (QuotientInt32ThroughDouble of the
		// vector classes: exact for every pair with b != 0 that fits), with the per-lane
		// rules of ScalarOps: b = 0 gives 0, and INT_MIN / -1 the wrapping INT_MIN, which is
		// INT_MIN / 1. Those lanes divide by 1 (a zero divisor's result is then cleared),
		// so that no lane raises a divide-by-zero or an invalid conversion; every other
		// b = -1 lane divides as it is. The remainder is a - q b with the lane's own b,
		// wrapping (x % 0 = x, x % -1 = 0).
		template <typename _Vector>
		static inline OX_ALWAYS_INLINE _Vector _QuotientsThroughDouble(const _Vector &a, const _Vector &b)
		{
			const _Vector zero = b.CmpEqInt32(_Vector::Zero());
			const _Vector overflow = b.CmpEqInt32(_Vector::SplatInt(-1)) & a.CmpEqInt32(_Vector::SplatInt(s32(0x80000000u)));
			const _Vector byOne = zero | overflow;
			return a.QuotientInt32ThroughDouble(b.AndNot(byOne) | (byOne & _Vector::SplatInt(1))).AndNot(zero);
		}

		// Each lane shifted by its own count's low five bits (ScalarOps' per-lane shifts).
		// Wide vectors only: SSE2 has no per-lane shift.
		template <EShiftKind _Kind, typename _Vector>
		static inline OX_ALWAYS_INLINE _Vector _ShiftByLanes(const _Vector &a, const _Vector &counts)
		{
			const _Vector bits = counts & _Vector::SplatInt(31);
			if constexpr (_Kind == Shift_Left)
				return a.ShiftLeftInt32ByLanes(bits);
			else if constexpr (_Kind == Shift_RightArith)
				return a.ShiftRightArithInt32ByLanes(bits);
			else
				return a.ShiftRightLogicalInt32ByLanes(bits);
		}

		template <EShiftKind _Kind, bool _Prechecked, typename _Vector>
		static inline OX_ALWAYS_INLINE _Vector _Shift(const _Vector &a, u32 bits)
		{
			if constexpr (_Prechecked)
			{
				if constexpr (_Kind == Shift_Left)
					return a.ShiftLeftInt32_Prechecked(bits);
				else if constexpr (_Kind == Shift_RightArith)
					return a.ShiftRightArithInt32_Prechecked(bits);
				else
					return a.ShiftRightLogicalInt32_Prechecked(bits);
			}
			else
			{
				if constexpr (_Kind == Shift_Left)
					return a.ShiftLeftInt32(bits);
				else if constexpr (_Kind == Shift_RightArith)
					return a.ShiftRightArithInt32(bits);
				else
					return a.ShiftRightLogicalInt32(bits);
			}
		}

		// A single set bit. The test is on the unsigned bits on purpose: INT_MIN
		// (0x80000000) passes, as the one negative "power of two".
		static inline bool _IsPowerOfTwo(s32 divisor)
		{
			const u32 bits = u32(divisor);
			return bits != 0 && (bits & (bits - 1)) == 0;
		}

		// k with |d| = 2^k: right shifts of |d| (unsigned, so INT_MIN gives 2^31 and
		// k = 31) until it is zero, minus one.
		static inline u32 _Log2OfPowerOfTwo(s32 divisor)
		{
			u32 magnitude = divisor < 0 ? 0u - u32(divisor) : u32(divisor);
			u32 shifts = 0;
			while (magnitude != 0)
			{
				magnitude >>= 1;
				++shifts;
			}
			return shifts - 1;
		}

		// A divisor's multiplier, shift and dividend correction (SMagicDivisor), computed once
		// per divisor: a prepared call keeps them for a whole run (cbvm_prepared_call.h).
		static inline OX_ALWAYS_INLINE SMagicDivisor _MagicDivisorOf(s32 divisor)
		{
			// +-1 have no multiplier; the sign trick handles them before we get here.
			const IntegerTools::SMulDivisor md = IntegerTools::ComputeMul32Divisor(divisor);
			const bool addDividend = divisor > 0 && md.m_Multiplier < 0;	// the addMask of the formula
			const bool subDividend = divisor < 0 && md.m_Multiplier > 0;	// the subMask
			const bool negativeMultiplier = md.m_Multiplier < 0;		// the signed high half's correction
			return {md.m_Multiplier, md.m_Shifter, int(addDividend) - int(subDividend) - int(negativeMultiplier) != 0};
		}

		// Signed magic-number division (see mt_integer_tools.h for how M and s are
		// chosen; DivideByMul32 there is the same sequence on one scalar):
		//   t = mulhi(a, M) + (a & addMask) - (a & subMask);  t >>= s;  q = t + (t >>> 31)
		// The masks undo the 2^32 lost when the 33-bit multiplier was stored in 32 bits;
		// the final logical shift adds 1 to negative t, turning floor into truncation.
		// A divisor of 0 gets M = 0, s = 0: both masks are off and q is 0 for every a,
		// which is also what the per-lane rule gives for x / 0 (and a - 0 * 0 = a for x % 0).
		//
		// The vector form computes the same t with fewer operations. The signed high half
		// is the unsigned one minus two corrections, mulhi(a, M) = mulhu(a, M) - (a < 0 ? M : 0)
		// - (M < 0 ? a : 0), and every term in a then adds up to either 0 or -a (all of
		// it modulo 2^32, so the result is bit for bit the same):
		//   d > 0, M >= 0:  0               d < 0, M > 0:  -(a & subMask) = -a
		//   d > 0, M < 0:   -a + a = 0      d < 0, M < 0:  -a
		//   d = 0 (M = 0):  0
		// so t = mulhu(a, M) - (a < 0 ? M : 0), minus a once more for a negative divisor.
		template <typename _Vector>
		class TMagicDivisor
		{
		public:
			explicit TMagicDivisor(s32 divisor) : TMagicDivisor(_MagicDivisorOf(divisor)) {}
			explicit TMagicDivisor(const SMagicDivisor &magic)
			: m_Multiplier(_Vector::SplatInt(magic.m_Multiplier)), m_SubtractDividend(magic.m_SubtractDividend), m_Shift(magic.m_Shift)
			{
			}

			// At most 31 by construction; a loop checks it once with this.
			bool ShiftInRange() const { return m_Shift <= 31; }
			bool SubtractsDividend() const { return m_SubtractDividend; }

			// _SubtractDividend: SubtractsDividend(), as a constant of the loop.
			template <bool _Prechecked, bool _SubtractDividend>
			OX_ALWAYS_INLINE _Vector Quotient(const _Vector &a) const
			{
				const _Vector aNegative = a.ShiftRightArithInt32_Prechecked(31);	// all ones where a < 0
				_Vector t = a.MulHiUInt32(m_Multiplier).SubInt32(aNegative & m_Multiplier);
				if constexpr (_SubtractDividend)
					t = t.SubInt32(a);
				t = _Shift<Shift_RightArith, _Prechecked>(t, m_Shift);
				return t.AddInt32(_Shift<Shift_RightLogical, _Prechecked>(t, 31));
			}

		private:
			_Vector m_Multiplier;
			bool m_SubtractDividend;
			u32 m_Shift;
		};

		// Division by +-1: s = 0 or -1, (a ^ s) - s is a for 1 and the wrapping negation
		// for -1, so INT_MIN / -1 gives INT_MIN here as it does per lane.
		template <typename _Vector>
		static inline OX_ALWAYS_INLINE _Vector _SignQuotient(const _Vector &a, const _Vector &sign)
		{
			return (a ^ sign).SubInt32(sign);
		}

		// Division by 2^k (or -2^k, INT_MIN): an arithmetic shift floors; adding d - 1 to
		// negative dividends first makes it truncate. For d = INT_MIN (k = 31, bias
		// 0x7FFFFFFF) every dividend gives 0 except INT_MIN itself, which gives -1 instead
		// of 1: INT_MIN + bias is -1 and -1 >> 31 stays -1. The power-of-two test
		// deliberately admits INT_MIN and that one quotient is kept as it is.
		template <bool _Prechecked, typename _Vector>
		static inline OX_ALWAYS_INLINE _Vector _PowerOfTwoQuotient(const _Vector &a, const _Vector &biasMask, u32 k)
		{
			return _Shift<Shift_RightArith, _Prechecked>(a.AddInt32(_Shift<Shift_RightArith, _Prechecked>(a, 31) & biasMask), k);
		}

		// Remainder by 2^k: r = a - ((a + bias) & ~(d - 1)), the truncated multiple of d
		// below a. For d = INT_MIN the mask keeps only the sign bit; this gives a for every
		// a but INT_MIN, and 0 for INT_MIN (INT_MIN + 0x7FFFFFFF = -1, masked to INT_MIN).
		// All three are the exact remainders: the division quirk does not show here.
		template <bool _Prechecked, typename _Vector>
		static inline OX_ALWAYS_INLINE _Vector _PowerOfTwoRemainder(const _Vector &a, const _Vector &lowBits)
		{
			const _Vector biased = a.AddInt32(_Shift<Shift_RightArith, _Prechecked>(a, 31) & lowBits);
			return a.SubInt32(biased.AndNot(lowBits));
		}
	}
}
