#pragma once
// Integer helpers for the math operators: signed 32-bit division by a value that is
// uniform across a whole stream, done with one multiply-high, an add/sub correction,
// a shift and a sign fix-up instead of a hardware divide per lane.
//
// ComputeMul32Divisor(d) returns the pair (M, s) once per uniform divisor; the kernels
// then evaluate, per lane, exactly what DivideByMul32 below evaluates per scalar.
// DivideByMul32 is the reference definition of that per-lane sequence: tests and the
// scalar fallback use it, so the SIMD code has a single formula to match.
//
// Special divisors (no valid multiplier exists for them):
//  -  d == 0      returns {0, 0}. With M == 0 both corrections are off and the formula
//                 yields q == 0, so the remainder a - q * d equals the dividend: the
//                 same answer the per-lane paths give for a zero divisor.
//  -  d == 1, -1  return {0, 0} as well. Dividing by +-1 needs an effective multiplier
//                 of +-2^32, which does not fit; the kernels resolve these divisors with
//                 a sign trick before ever reaching the multiply. DivideByMul32 with
//                 this pair gives 0, which is NOT the quotient: callers must not use it.

#include "kr_base_types.h"

#include <cstddef>

namespace Orvex
{
	namespace IntegerTools
	{
		struct SMulDivisor
		{
			s32 m_Multiplier;	// M: low 32 bits of the effective multiplier (see below)
			u32 m_Shifter;		// s: arithmetic right shift applied after the multiply-high, always <= 31
		};

		// The SIMD kernels load this as two consecutive 32-bit lanes.
		static_assert(sizeof(SMulDivisor) == 8, "SMulDivisor must be two packed 32-bit words");
		static_assert(offsetof(SMulDivisor, m_Multiplier) == 0, "SMulDivisor::m_Multiplier must come first");
		static_assert(offsetof(SMulDivisor, m_Shifter) == 4, "SMulDivisor::m_Shifter must follow m_Multiplier");

		// Signed shifts are implementation-defined for negative values before C++20; every
		// compiler we target shifts arithmetically, and the formula below relies on it.
		static_assert((s32(-1) >> 1) == -1 && (s32(-8) >> 2) == -2, "signed right shift must be arithmetic");

		// How the pair is chosen. For |d| >= 2 take a precision p = 32 + s and the integer
		// m = floor(2^p / |d|) + 1, so m * |d| = 2^p + e with 1 <= e <= |d|. Then
		// x * m / 2^p = x / |d| + x * e / (|d| * 2^p): the excess term stays below one unit
		// of 1/|d| as long as e * 2^31 <= 2^p, which makes floor(x * m / 2^p) the floored
		// quotient for x >= 0 and one below the truncated quotient for x < 0 (hence the
		// final "+1 when negative"). The smallest such p is kept; p <= 31 + ceil(log2 |d|),
		// so s <= 30 and m < 2^32. For d < 0 the multiplier is -m, i.e. the quotient of -a.
		// The effective multiplier (+-m) needs 33 signed bits, so only its low 32 bits are
		// stored in M. When M's sign differs from the sign of d, M is off by exactly
		// +-2^32, and mulhi(a, M) is off by exactly +-a: adding a back (d > 0, M < 0) or
		// subtracting it (d < 0, M > 0) restores mulhi(a, effective multiplier), which
		// always fits in 32 bits.
		// Negative divisors also have to be right for a == INT_MIN, where -a = 2^31 is one
		// past the positive range: the search rejects the few (p, m) that would be off by
		// one there, e.g. d == INT_MIN correctly yields INT_MIN / INT_MIN == 1.
		SMulDivisor ComputeMul32Divisor(int divisor);

		// High 32 bits of the signed 64-bit product a * b.
		inline s32 MulHi32(s32 a, s32 b)
		{
			const u64 product = u64(s64(a) * s64(b));
			return s32(u32(product >> 32));
		}

		// Truncated a / d computed from the pair returned by ComputeMul32Divisor(d), step by
		// step as the vector kernels do it. Exact for every a when d is not 0, 1 or -1.
		inline s32 DivideByMul32(s32 a, s32 d, SMulDivisor md)
		{
			const s32 m = md.m_Multiplier;
			const u32 addMask = (d > 0 && m < 0) ? ~0u : 0u;
			const u32 subMask = (d < 0 && m > 0) ? ~0u : 0u;
			// Wrapping 32-bit arithmetic, done unsigned so the intermediate overflow is defined.
			const u32 ua = u32(a);
			const u32 corrected = u32(MulHi32(a, m)) + (ua & addMask) - (ua & subMask);
			const s32 t = s32(corrected) >> md.m_Shifter;
			return s32(u32(t) + (u32(t) >> 31));
		}
	}
}
