#pragma once
// Thin SSE2 wrappers the VM kernels are written against.
//
// Scalar holds one float in lane 0 of an XMM register; Float4 holds four packed
// 32-bit lanes, read as floats or as signed integers depending on the operation.
// Only SSE2 is assumed (default x86-64 target): everything that later instruction
// sets provide directly (32-bit multiply, ...) is emulated here.
//
// Memory accesses go through the integer load/store forms wherever the width
// allows: their pointer types may alias anything, so a stream of s32 can be read
// through the same code path as a stream of float without breaking aliasing rules.
//
// On AArch64 this header gives the NEON layer instead (simd/neon/simd_vector.h), which
// computes the same bits: the kernels include this one header on every architecture.

#if defined(__aarch64__)
#	include "simd/neon/simd_vector.h"
#elif !defined(__x86_64__) && !defined(__i386__)
#	error "the four-lane SIMD layer exists for x86 (SSE2) and AArch64 (NEON) only"
#else

#include "kr_assert.h"
#include "kr_base_types.h"

#include <cstdint>

#include <emmintrin.h>
#include <xmmintrin.h>

namespace Orvex
{
	namespace SIMD_SSE
	{
		namespace Constants
		{
			// Masks for sign manipulation: and with the inverse to take the absolute
			// value, xor with the sign mask to negate.
			alignas(16) inline constexpr u32 _Constant_Fp32_SignMasks[4] = {0x80000000u, 0x80000000u, 0x80000000u, 0x80000000u};
			alignas(16) inline constexpr u32 _Constant_Fp32_InvSignMasks[4] = {0x7FFFFFFFu, 0x7FFFFFFFu, 0x7FFFFFFFu, 0x7FFFFFFFu};
		}

		// All 32 bits set in every lane (pcmpeqd of a register with itself).
		inline OX_ALWAYS_INLINE __m128 _AllOnes()
		{
			const __m128i any = _mm_setzero_si128();
			return _mm_castsi128_ps(_mm_cmpeq_epi32(any, any));
		}

		// a + b and a * b whose operand roles the compiler may not swap. IEEE arithmetic does
		// not say which NaN a two-NaN operation returns; on x86 it is the instruction's first
		// source, and a compiler may swap the operands of a commutative intrinsic, so that
		// two kernels (or two loops of one kernel) could disagree. Pinned, the first operand
		// is the instruction's first source: a op b of two NaNs is a's quieted NaN, in every
		// kernel and every kernel set. _Op: the instruction without its "v" ("addps").
#if defined(__AVX__)
#	define OX_SIMD_FIRST_SOURCE(_Op, result, a, b) __asm__("v" _Op " %2, %1, %0" : "=v"(result) : "v"(a), "v"(b))
#else
#	define OX_SIMD_FIRST_SOURCE(_Op, result, a, b) \
		do \
		{ \
			result = a; \
			__asm__(_Op " %1, %0" : "+x"(result) : "x"(b)); \
		} while (0)
#endif

		// Holds the alignment assertion of the aligned accesses, so that it can be
		// exercised on its own without performing a faulting access.
		inline OX_ALWAYS_INLINE void _CheckAligned16(const void *p)
		{
			OX_ASSERT_ALIGNED16(p);
		}

		//----------------------------------------------------------------------------
		// Scalar: one float in lane 0. The upper lanes carry no meaning.

		class Scalar
		{
		public:
			__m128 m_Value;

			Scalar() = default;
			explicit inline OX_ALWAYS_INLINE Scalar(__m128 value) : m_Value(value) {}
			explicit inline OX_ALWAYS_INLINE Scalar(float value) : m_Value(_mm_set_ss(value)) {}

			// ---- Loads and stores (32 bits, no alignment requirement)

			static inline OX_ALWAYS_INLINE Scalar Load(const void *p) { return Scalar(_mm_castsi128_ps(_mm_loadu_si32(p))); }
			inline OX_ALWAYS_INLINE void Store(void *p) const { _mm_storeu_si32(p, _mm_castps_si128(m_Value)); }

			// ---- Conversions and lane 0 access

			inline OX_ALWAYS_INLINE float ToFloat() const { return _mm_cvtss_f32(m_Value); }
			static inline OX_ALWAYS_INLINE Scalar FromInt(s32 value) { return Scalar(_mm_castsi128_ps(_mm_cvtsi32_si128(value))); }
			inline OX_ALWAYS_INLINE s32 ToInt() const { return _mm_cvtsi128_si32(_mm_castps_si128(m_Value)); }
			inline OX_ALWAYS_INLINE u32 ToBits() const { return static_cast<u32>(ToInt()); }

			// ---- Arithmetic (IEEE, including the division)

			friend inline OX_ALWAYS_INLINE Scalar operator+(const Scalar &a, const Scalar &b)
			{
				__m128 r;
				OX_SIMD_FIRST_SOURCE("addss", r, a.m_Value, b.m_Value);
				return Scalar(r);
			}
			friend inline OX_ALWAYS_INLINE Scalar operator-(const Scalar &a, const Scalar &b) { return Scalar(_mm_sub_ss(a.m_Value, b.m_Value)); }
			friend inline OX_ALWAYS_INLINE Scalar operator*(const Scalar &a, const Scalar &b)
			{
				__m128 r;
				OX_SIMD_FIRST_SOURCE("mulss", r, a.m_Value, b.m_Value);
				return Scalar(r);
			}
			friend inline OX_ALWAYS_INLINE Scalar operator/(const Scalar &a, const Scalar &b) { return Scalar(_mm_div_ss(a.m_Value, b.m_Value)); }

			// ---- Comparisons: lane 0 becomes all ones or zero
			// Ordered, except != which is true when either side is NaN (so that != is
			// exactly the negation of ==). > and >= are < and <= with swapped operands.

			friend inline OX_ALWAYS_INLINE Scalar operator<(const Scalar &a, const Scalar &b) { return Scalar(_mm_cmplt_ss(a.m_Value, b.m_Value)); }
			friend inline OX_ALWAYS_INLINE Scalar operator<=(const Scalar &a, const Scalar &b) { return Scalar(_mm_cmple_ss(a.m_Value, b.m_Value)); }
			friend inline OX_ALWAYS_INLINE Scalar operator>(const Scalar &a, const Scalar &b) { return Scalar(_mm_cmplt_ss(b.m_Value, a.m_Value)); }
			friend inline OX_ALWAYS_INLINE Scalar operator>=(const Scalar &a, const Scalar &b) { return Scalar(_mm_cmple_ss(b.m_Value, a.m_Value)); }
			friend inline OX_ALWAYS_INLINE Scalar operator==(const Scalar &a, const Scalar &b) { return Scalar(_mm_cmpeq_ss(a.m_Value, b.m_Value)); }
			friend inline OX_ALWAYS_INLINE Scalar operator!=(const Scalar &a, const Scalar &b) { return Scalar(_mm_cmpneq_ss(a.m_Value, b.m_Value)); }

			// ---- Bitwise

			friend inline OX_ALWAYS_INLINE Scalar operator&(const Scalar &a, const Scalar &b) { return Scalar(_mm_and_ps(a.m_Value, b.m_Value)); }
			friend inline OX_ALWAYS_INLINE Scalar operator|(const Scalar &a, const Scalar &b) { return Scalar(_mm_or_ps(a.m_Value, b.m_Value)); }
			friend inline OX_ALWAYS_INLINE Scalar operator^(const Scalar &a, const Scalar &b) { return Scalar(_mm_xor_ps(a.m_Value, b.m_Value)); }
			inline OX_ALWAYS_INLINE Scalar operator~() const { return Scalar(_mm_xor_ps(m_Value, _AllOnes())); }

			// ---- Integer arithmetic on lane 0 (wrapping)

			inline OX_ALWAYS_INLINE Scalar AddInt32(const Scalar &b) const { return Scalar(_mm_castsi128_ps(_mm_add_epi32(_mm_castps_si128(m_Value), _mm_castps_si128(b.m_Value)))); }
			inline OX_ALWAYS_INLINE Scalar SubInt32(const Scalar &b) const { return Scalar(_mm_castsi128_ps(_mm_sub_epi32(_mm_castps_si128(m_Value), _mm_castps_si128(b.m_Value)))); }
		};

		static_assert(sizeof(Scalar) == 16, "Scalar is exactly one XMM register");

		//----------------------------------------------------------------------------
		// Float4: four packed 32-bit lanes, floats or signed integers.

		class Float4
		{
		public:
			__m128 m_Value;

			Float4() = default;
			explicit inline OX_ALWAYS_INLINE Float4(__m128 value) : m_Value(value) {}
			explicit inline OX_ALWAYS_INLINE Float4(__m128i value) : m_Value(_mm_castsi128_ps(value)) {}
			explicit inline OX_ALWAYS_INLINE Float4(float value) : m_Value(_mm_set1_ps(value)) {}
			// Broadcasts lane 0 of the scalar.
			explicit inline OX_ALWAYS_INLINE Float4(const Scalar &value) : m_Value(_mm_shuffle_ps(value.m_Value, value.m_Value, _MM_SHUFFLE(0, 0, 0, 0))) {}

			static inline OX_ALWAYS_INLINE Float4 Zero() { return Float4(_mm_setzero_ps()); }
			static inline OX_ALWAYS_INLINE Float4 Set(float x, float y, float z, float w) { return Float4(_mm_setr_ps(x, y, z, w)); }
			static inline OX_ALWAYS_INLINE Float4 SetInt(s32 x, s32 y, s32 z, s32 w) { return Float4(_mm_setr_epi32(x, y, z, w)); }
			static inline OX_ALWAYS_INLINE Float4 SplatInt(s32 value) { return Float4(_mm_set1_epi32(value)); }

			inline OX_ALWAYS_INLINE __m128i AsInt() const { return _mm_castps_si128(m_Value); }

			// ---- Loads and stores
			// The aligned forms report a misaligned pointer, then still perform the
			// aligned access: the fault that follows points at the right instruction.

			static inline OX_ALWAYS_INLINE Float4 LoadAligned16(const void *p)
			{
				_CheckAligned16(p);
				return Float4(_mm_load_ps(static_cast<const float *>(p)));
			}

			inline OX_ALWAYS_INLINE void StoreAligned16(void *p) const
			{
				_CheckAligned16(p);
				_mm_store_ps(static_cast<float *>(p), m_Value);
			}

			// The same aligned accesses without the report, for loops that checked their
			// pointers once before starting: a pointer found 16-byte aligned that moves by
			// whole vectors stays aligned, so checking every access again could never
			// report anything (see TAlignedAccess below).
			static inline OX_ALWAYS_INLINE Float4 LoadAligned16_Prechecked(const void *p) { return Float4(_mm_load_ps(static_cast<const float *>(p))); }
			inline OX_ALWAYS_INLINE void StoreAligned16_Prechecked(void *p) const { _mm_store_ps(static_cast<float *>(p), m_Value); }

			static inline OX_ALWAYS_INLINE Float4 LoadUnaligned(const void *p) { return Float4(_mm_loadu_ps(static_cast<const float *>(p))); }
			inline OX_ALWAYS_INLINE void StoreUnaligned(void *p) const { _mm_storeu_ps(static_cast<float *>(p), m_Value); }

			// Two lanes: 8 bytes in, lanes 2-3 zeroed.
			static inline OX_ALWAYS_INLINE Float4 LoadFloat2(const void *p) { return Float4(_mm_loadl_epi64(static_cast<const __m128i *>(p))); }
			inline OX_ALWAYS_INLINE void StoreFloat2(void *p) const { _mm_storel_epi64(static_cast<__m128i *>(p), AsInt()); }

			// Three lanes as 8 + 4 bytes: a packed 12-byte element may end right at the
			// end of a buffer (or of a mapped page), so bytes 12..15 are never touched.
			static inline OX_ALWAYS_INLINE Float4 LoadFloat3(const void *p)
			{
				const __m128i xy = _mm_loadl_epi64(static_cast<const __m128i *>(p));
				const __m128i z = _mm_loadu_si32(static_cast<const u8 *>(p) + 8);
				return Float4(_mm_unpacklo_epi64(xy, z));	// x y z 0
			}

			inline OX_ALWAYS_INLINE void StoreFloat3(void *p) const
			{
				_mm_storel_epi64(static_cast<__m128i *>(p), AsInt());
				_mm_storeu_si32(static_cast<u8 *>(p) + 8, _mm_unpackhi_epi64(AsInt(), AsInt()));
			}

			// ---- Lane access (slow path: tests, debugging)

			inline OX_ALWAYS_INLINE float Lane(int i) const
			{
				alignas(16) float lanes[4];
				_mm_store_ps(lanes, m_Value);
				return lanes[i & 3];
			}

			inline OX_ALWAYS_INLINE s32 LaneInt(int i) const
			{
				alignas(16) s32 lanes[4];
				_mm_store_si128(reinterpret_cast<__m128i *>(lanes), AsInt());
				return lanes[i & 3];
			}

			inline OX_ALWAYS_INLINE u32 LaneBits(int i) const { return static_cast<u32>(LaneInt(i)); }

			// ---- Swizzle: result lane 0 = lane a, lane 1 = lane b, ...

			template <int a, int b, int c, int d>
			inline OX_ALWAYS_INLINE Float4 Swizzle() const
			{
				static_assert(a >= 0 && a < 4 && b >= 0 && b < 4 && c >= 0 && c < 4 && d >= 0 && d < 4, "Swizzle lanes are 0..3");
				// _MM_SHUFFLE lists the lanes from the highest down.
				return Float4(_mm_shuffle_ps(m_Value, m_Value, _MM_SHUFFLE(d, c, b, a)));
			}

			// ---- Arithmetic (float lanes, IEEE, including the division)

			// + and *: a's NaN when both lanes are NaN (OX_SIMD_FIRST_SOURCE).
			friend inline OX_ALWAYS_INLINE Float4 operator+(const Float4 &a, const Float4 &b)
			{
				__m128 r;
				OX_SIMD_FIRST_SOURCE("addps", r, a.m_Value, b.m_Value);
				return Float4(r);
			}
			friend inline OX_ALWAYS_INLINE Float4 operator-(const Float4 &a, const Float4 &b) { return Float4(_mm_sub_ps(a.m_Value, b.m_Value)); }
			friend inline OX_ALWAYS_INLINE Float4 operator*(const Float4 &a, const Float4 &b)
			{
				__m128 r;
				OX_SIMD_FIRST_SOURCE("mulps", r, a.m_Value, b.m_Value);
				return Float4(r);
			}
			friend inline OX_ALWAYS_INLINE Float4 operator/(const Float4 &a, const Float4 &b) { return Float4(_mm_div_ps(a.m_Value, b.m_Value)); }

			// ---- Comparisons (float lanes): each lane all ones or zero
			// Ordered, except != which is true when either side is NaN.

			friend inline OX_ALWAYS_INLINE Float4 operator<(const Float4 &a, const Float4 &b) { return Float4(_mm_cmplt_ps(a.m_Value, b.m_Value)); }
			friend inline OX_ALWAYS_INLINE Float4 operator<=(const Float4 &a, const Float4 &b) { return Float4(_mm_cmple_ps(a.m_Value, b.m_Value)); }
			friend inline OX_ALWAYS_INLINE Float4 operator>(const Float4 &a, const Float4 &b) { return Float4(_mm_cmplt_ps(b.m_Value, a.m_Value)); }
			friend inline OX_ALWAYS_INLINE Float4 operator>=(const Float4 &a, const Float4 &b) { return Float4(_mm_cmple_ps(b.m_Value, a.m_Value)); }
			friend inline OX_ALWAYS_INLINE Float4 operator==(const Float4 &a, const Float4 &b) { return Float4(_mm_cmpeq_ps(a.m_Value, b.m_Value)); }
			friend inline OX_ALWAYS_INLINE Float4 operator!=(const Float4 &a, const Float4 &b) { return Float4(_mm_cmpneq_ps(a.m_Value, b.m_Value)); }

			// ---- Bitwise

			friend inline OX_ALWAYS_INLINE Float4 operator&(const Float4 &a, const Float4 &b) { return Float4(_mm_and_ps(a.m_Value, b.m_Value)); }
			friend inline OX_ALWAYS_INLINE Float4 operator|(const Float4 &a, const Float4 &b) { return Float4(_mm_or_ps(a.m_Value, b.m_Value)); }
			friend inline OX_ALWAYS_INLINE Float4 operator^(const Float4 &a, const Float4 &b) { return Float4(_mm_xor_ps(a.m_Value, b.m_Value)); }
			inline OX_ALWAYS_INLINE Float4 operator~() const { return Float4(_mm_xor_ps(m_Value, _AllOnes())); }
			// this & ~mask (andnps complements its first operand).
			inline OX_ALWAYS_INLINE Float4 AndNot(const Float4 &mask) const { return Float4(_mm_andnot_ps(mask.m_Value, m_Value)); }

			// ---- Integer arithmetic and comparisons (signed 32-bit lanes, wrapping)

			inline OX_ALWAYS_INLINE Float4 AddInt32(const Float4 &b) const { return Float4(_mm_add_epi32(AsInt(), b.AsInt())); }
			inline OX_ALWAYS_INLINE Float4 SubInt32(const Float4 &b) const { return Float4(_mm_sub_epi32(AsInt(), b.AsInt())); }

			// Low 32 bits of each product. SSE2 only multiplies lanes 0 and 2 into 64-bit
			// results (pmuludq), so lanes 1 and 3 are shifted down and multiplied
			// separately, then the low halves are interleaved back. The low 32 bits of a
			// product do not depend on signedness, so the unsigned multiply is exact.
			inline OX_ALWAYS_INLINE Float4 MulLoInt32(const Float4 &b) const
			{
				const __m128i even = _mm_mul_epu32(AsInt(), b.AsInt());	// 64-bit products of lanes 0, 2
				const __m128i odd = _mm_mul_epu32(_mm_srli_si128(AsInt(), 4), _mm_srli_si128(b.AsInt(), 4));	// lanes 1, 3
				const __m128i evenLo = _mm_shuffle_epi32(even, _MM_SHUFFLE(0, 0, 2, 0));	// p0 p2 . .
				const __m128i oddLo = _mm_shuffle_epi32(odd, _MM_SHUFFLE(0, 0, 2, 0));	// p1 p3 . .
				return Float4(_mm_unpacklo_epi32(evenLo, oddLo));	// p0 p1 p2 p3
			}

			// High 32 bits of each signed 64-bit product (what the magic-number division
			// needs). SSE2 only has the unsigned 32x32->64 multiply, on lanes 0 and 2, so
			// the high halves are taken from two pmuludq as above and then corrected for
			// the signs: a signed lane is its unsigned reading minus 2^32 when negative, so
			//   a * b = ua * ub - 2^32 * (ua * [b < 0] + ub * [a < 0]) + 2^64 * [a < 0][b < 0]
			// and modulo 2^32 the high half loses b when a < 0 and a when b < 0.
			inline OX_ALWAYS_INLINE Float4 MulHiInt32(const Float4 &b) const
			{
				const __m128i even = _mm_mul_epu32(AsInt(), b.AsInt());	// 64-bit products of lanes 0, 2
				const __m128i odd = _mm_mul_epu32(_mm_srli_si128(AsInt(), 4), _mm_srli_si128(b.AsInt(), 4));	// lanes 1, 3
				const __m128i evenHi = _mm_shuffle_epi32(even, _MM_SHUFFLE(3, 3, 3, 1));	// h0 h2 . .
				const __m128i oddHi = _mm_shuffle_epi32(odd, _MM_SHUFFLE(3, 3, 3, 1));	// h1 h3 . .
				const __m128i unsignedHi = _mm_unpacklo_epi32(evenHi, oddHi);	// h0 h1 h2 h3
				const __m128i aNeg = _mm_srai_epi32(AsInt(), 31);	// all ones where a < 0
				const __m128i bNeg = _mm_srai_epi32(b.AsInt(), 31);
				const __m128i correction = _mm_add_epi32(_mm_and_si128(aNeg, b.AsInt()), _mm_and_si128(bNeg, AsInt()));
				return Float4(_mm_sub_epi32(unsignedHi, correction));
			}

			// High 32 bits of each unsigned 64-bit product: the two pmuludq above without
			// the sign correction.
			inline OX_ALWAYS_INLINE Float4 MulHiUInt32(const Float4 &b) const
			{
				const __m128i even = _mm_mul_epu32(AsInt(), b.AsInt());	// 64-bit products of lanes 0, 2
				const __m128i odd = _mm_mul_epu32(_mm_srli_si128(AsInt(), 4), _mm_srli_si128(b.AsInt(), 4));	// lanes 1, 3
				const __m128i evenHi = _mm_shuffle_epi32(even, _MM_SHUFFLE(3, 3, 3, 1));	// h0 h2 . .
				const __m128i oddHi = _mm_shuffle_epi32(odd, _MM_SHUFFLE(3, 3, 3, 1));	// h1 h3 . .
				return Float4(_mm_unpacklo_epi32(evenHi, oddHi));	// h0 h1 h2 h3
			}

			// a / b per lane through double precision, truncated toward zero: every 32-bit
			// integer is exact in a double, and the truncated double quotient is the integer
			// quotient for every pair with b != 0 (not INT_MIN / -1, which does not fit).
			inline OX_ALWAYS_INLINE Float4 QuotientInt32ThroughDouble(const Float4 &b) const
			{
				const __m128i x = AsInt(), y = b.AsInt();
				const __m128d low = _mm_div_pd(_mm_cvtepi32_pd(x), _mm_cvtepi32_pd(y));
				const __m128d high = _mm_div_pd(_mm_cvtepi32_pd(_mm_shuffle_epi32(x, _MM_SHUFFLE(1, 0, 3, 2))), _mm_cvtepi32_pd(_mm_shuffle_epi32(y, _MM_SHUFFLE(1, 0, 3, 2))));
				return Float4(_mm_unpacklo_epi64(_mm_cvttpd_epi32(low), _mm_cvttpd_epi32(high)));
			}

			inline OX_ALWAYS_INLINE Float4 CmpEqInt32(const Float4 &b) const { return Float4(_mm_cmpeq_epi32(AsInt(), b.AsInt())); }
			inline OX_ALWAYS_INLINE Float4 CmpLtInt32(const Float4 &b) const { return Float4(_mm_cmplt_epi32(AsInt(), b.AsInt())); }
			inline OX_ALWAYS_INLINE Float4 CmpGtInt32(const Float4 &b) const { return Float4(_mm_cmpgt_epi32(AsInt(), b.AsInt())); }

			// ---- Shifts by one count for all lanes
			// The count goes through a register: past 31 the hardware gives 0 for the
			// left and logical right shifts and the sign fill for the arithmetic one.
			// That is the behaviour kept when the assertion is not fatal.

			// A vector shift takes one count for every lane and shifts everything out past 31
			// (0, or the sign fill): such a count is reported.
			static constexpr bool ShiftCountInRange(u32 bits) { return bits <= 31; }

			inline OX_ALWAYS_INLINE Float4 ShiftLeftInt32(u32 bits) const
			{
				OX_ASSERT_TEXT(ShiftCountInRange(bits), "bits <= 31");
				return Float4(_mm_sll_epi32(AsInt(), _mm_cvtsi32_si128(static_cast<int>(bits))));
			}

			inline OX_ALWAYS_INLINE Float4 ShiftRightArithInt32(u32 bits) const
			{
				OX_ASSERT_TEXT(ShiftCountInRange(bits), "bits <= 31");
				return Float4(_mm_sra_epi32(AsInt(), _mm_cvtsi32_si128(static_cast<int>(bits))));
			}

			inline OX_ALWAYS_INLINE Float4 ShiftRightLogicalInt32(u32 bits) const
			{
				OX_ASSERT_TEXT(ShiftCountInRange(bits), "bits <= 31");
				return Float4(_mm_srl_epi32(AsInt(), _mm_cvtsi32_si128(static_cast<int>(bits))));
			}

			// The same shifts without the check, for loops that checked their count
			// (bits <= 31) once before starting; any other count takes the forms above.
			inline OX_ALWAYS_INLINE Float4 ShiftLeftInt32_Prechecked(u32 bits) const { return Float4(_mm_sll_epi32(AsInt(), _mm_cvtsi32_si128(static_cast<int>(bits)))); }
			inline OX_ALWAYS_INLINE Float4 ShiftRightArithInt32_Prechecked(u32 bits) const { return Float4(_mm_sra_epi32(AsInt(), _mm_cvtsi32_si128(static_cast<int>(bits)))); }
			inline OX_ALWAYS_INLINE Float4 ShiftRightLogicalInt32_Prechecked(u32 bits) const { return Float4(_mm_srl_epi32(AsInt(), _mm_cvtsi32_si128(static_cast<int>(bits)))); }

			// ---- Conversions

			// Truncates toward zero; NaN and out-of-range lanes give 0x80000000.
			inline OX_ALWAYS_INLINE Float4 ConvertToInt32Trunc() const { return Float4(_mm_cvttps_epi32(m_Value)); }
			inline OX_ALWAYS_INLINE Float4 ConvertInt32ToFloat() const { return Float4(_mm_cvtepi32_ps(AsInt())); }
		};

		static_assert(sizeof(Float4) == 16, "Float4 is exactly one XMM register");

		//----------------------------------------------------------------------------
		// Checking a loop's pointers once, before the loop.

		// True when every pointer given is a multiple of _Alignment (null is).
		template <std::uintptr_t _Alignment>
		inline bool _AreAligned(const void *a, const void *b = nullptr, const void *c = nullptr)
		{
			static_assert((_Alignment & (_Alignment - 1)) == 0, "a power of two");
			return ((reinterpret_cast<std::uintptr_t>(a) | reinterpret_cast<std::uintptr_t>(b) | reinterpret_cast<std::uintptr_t>(c)) & (_Alignment - 1)) == 0;
		}

		// Memory access of a vector loop, chosen once per loop:
		//   TAlignedAccess<true>   every pointer of the loop was found 16-byte aligned on
		//                          entry and moves by whole vectors: no access can be
		//                          misaligned, none is checked again;
		//   TAlignedAccess<false>  each access checks and reports, as LoadAligned16 and
		//                          StoreAligned16 do.
		// Both perform the same aligned accesses and report exactly the same things; the
		// first one only leaves the per-access test out of the loop.
		template <bool _Prechecked>
		struct TAlignedAccess
		{
			static constexpr bool kPrechecked = _Prechecked;

			static inline OX_ALWAYS_INLINE Float4 Load(const void *p)
			{
				if constexpr (_Prechecked)
					return Float4::LoadAligned16_Prechecked(p);
				else
					return Float4::LoadAligned16(p);
			}

			static inline OX_ALWAYS_INLINE void Store(void *p, const Float4 &value)
			{
				if constexpr (_Prechecked)
					value.StoreAligned16_Prechecked(p);
				else
					value.StoreAligned16(p);
			}
		};
	}
}

#endif	// x86
