#pragma once
// Scalar definitions of the math operators' edge cases, in one place: the plain
// execution path and the scalar tails of the vector kernels call these, so "division
// by zero gives 0" and its relatives exist exactly once.
//
// Integer arithmetic wraps modulo 2^32 and never traps: there is no hardware divide
// on a zero divisor, and INT_MIN / -1 (which faults on x86) is routed around.

#include "kr_base_types.h"

#include <cmath>
#include <cstring>

namespace Orvex
{
	namespace ScalarOps
	{
		// ---- Wrapping arithmetic (done unsigned: signed overflow is undefined in C++)

		inline s32 AddS32(s32 a, s32 b) { return s32(u32(a) + u32(b)); }
		inline s32 SubS32(s32 a, s32 b) { return s32(u32(a) - u32(b)); }
		inline s32 MulS32(s32 a, s32 b) { return s32(u32(a) * u32(b)); }	// low 32 bits of the product
		inline s32 NegS32(s32 a) { return s32(0u - u32(a)); }				// INT_MIN stays INT_MIN

		// ---- Div

		// Truncated quotient; b == 0 gives 0. b == -1 is a wrapping negation, so
		// INT_MIN / -1 gives INT_MIN instead of a processor fault.
		inline s32 DivS32(s32 a, s32 b)
		{
			if (b == 0)
				return 0;
			if (b == -1)
				return NegS32(a);
			return a / b;
		}

		// ---- Mod

		// Remainder with the sign of a; b == 0 gives a unchanged (deliberately not 0, unlike
		// the quotient). x % -1 is 0 for every x, INT_MIN included, without dividing.
		inline s32 ModS32(s32 a, s32 b)
		{
			if (b == 0)
				return a;
			if (b == -1)
				return 0;
			return a % b;
		}

		// ---- Float arithmetic with x86's NaN words
		// The scalar parts of the float kernels (modulo, loop tails) compute with the
		// host's float operations. On x86 those are the SSE scalar instructions, whose
		// words are the reference on every machine. AArch64 gives other NaNs: an invalid
		// operation without a NaN input (0 / 0, 0 * inf) gives 0x7FC00000 there but
		// 0xFFC00000 (sign set) on x86, and of two NaN inputs AArch64 prefers a signalling
		// one where x86 returns the first source's, quieted. X86Word takes the host's
		// result r of a op b and gives x86's: r itself on x86 (and wherever r is not a NaN).

		inline float _FloatFromBits(u32 bits)
		{
			float f;
			std::memcpy(&f, &bits, 4);
			return f;
		}

		inline u32 _FloatToBits(float f)
		{
			u32 bits;
			std::memcpy(&bits, &f, 4);
			return bits;
		}

		inline float X86Word(float r, float a, float b)
		{
#if defined(__aarch64__)
			if (!std::isnan(r))
				return r;
			constexpr u32 kQuietBit = 0x00400000u;
			if (std::isnan(a))
				return _FloatFromBits(_FloatToBits(a) | kQuietBit);
			if (std::isnan(b))
				return _FloatFromBits(_FloatToBits(b) | kQuietBit);
			return _FloatFromBits(0xFFC00000u);
#else
			(void)a;
			(void)b;
			return r;
#endif
		}

		// a / b and a * b with x86's words. (The product's operands may be swapped by an
		// x86 compiler, a multiply being commutative: its callers pass a first operand that
		// is never a NaN, so the two-NaN rule cannot come into play.)
		inline float DivF32(float a, float b) { return X86Word(a / b, a, b); }
		inline float MulF32(float a, float b) { return X86Word(a * b, a, b); }

		// Fractional part of a quotient, taken only while it fits the 32-bit truncation
		// (|q| < 2^31); beyond that, and for a NaN or infinite q, +0. The vector kernels
		// compute the same thing lane by lane: (q - float(trunc32(q))) masked by |q| < 2^31.
		inline float TruncFracF32(float q)
		{
			return std::fabs(q) < 2147483648.0f ? q - float(s32(q)) : 0.0f;
		}

		// Float modulo as the VM defines it: frac(a / b) * b. The result has the sign of a,
		// x mod 0 is 0 for every finite x, and a huge quotient gives 0 rather than the exact
		// remainder.
		// (The quotient's NaN never reaches the result, TruncFracF32 gives 0 for it; the
		// product is a NaN for a NaN b, or an invalid 0 * inf.)
		inline float ModF32(float a, float b)
		{
			return MulF32(TruncFracF32(DivF32(a, b)), b);
		}

		// Negation as a sign flip, not 0 - a: 0 and -0 swap, a NaN keeps its payload.
		inline float NegF32(float a)
		{
			u32 bits;
			std::memcpy(&bits, &a, 4);
			bits ^= 0x80000000u;
			std::memcpy(&a, &bits, 4);
			return a;
		}

		// ---- Shifts: only the low five bits of the count are used (a count of 33 shifts by 1)

		inline s32 ShlS32(s32 a, s32 b) { return s32(u32(a) << (u32(b) & 31u)); }
		inline s32 SarS32(s32 a, s32 b) { return a >> (u32(b) & 31u); }	// sign-filling
		inline s32 ShrS32(s32 a, s32 b) { return s32(u32(a) >> (u32(b) & 31u)); }	// zero-filling

		static_assert((s32(-8) >> 1) == -4, "signed right shift must be arithmetic");

		// ---- Bitwise

		inline s32 AndS32(s32 a, s32 b) { return a & b; }
		inline s32 OrS32(s32 a, s32 b) { return a | b; }
		inline s32 XorS32(s32 a, s32 b) { return a ^ b; }
		inline s32 NotS32(s32 a) { return ~a; }

		// A one-operand rule in the two-operand shape of the operator table (b is ignored).
		template <s32 (*_Fn)(s32)>
		inline s32 Unary(s32 a, s32 /*b*/) { return _Fn(a); }

		// ---- Comparisons (signed): -1 (all bits set) for true, never 1, as the vector
		// compares give it

		inline s32 MaskS32(bool condition) { return condition ? -1 : 0; }
		inline s32 CmpLtS32(s32 a, s32 b) { return MaskS32(a < b); }
		inline s32 CmpLeS32(s32 a, s32 b) { return MaskS32(a <= b); }
		inline s32 CmpGtS32(s32 a, s32 b) { return MaskS32(a > b); }
		inline s32 CmpGeS32(s32 a, s32 b) { return MaskS32(a >= b); }
		inline s32 CmpEqS32(s32 a, s32 b) { return MaskS32(a == b); }
		inline s32 CmpNeS32(s32 a, s32 b) { return MaskS32(a != b); }
	}
}
