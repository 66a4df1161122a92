#pragma once
// Float8: eight packed 32-bit lanes in a YMM register, the AVX2 counterpart of
// SIMD_SSE::Float4 with the operations the wide kernels use. Include it only in a
// translation unit compiled for AVX2 (-mavx2; every lane must compute exactly what the SSE2
// instruction computes, so no fused multiply-add).
//
// Every operation is the lane-for-lane equivalent of its Float4 form: the same IEEE
// operation, the same operand order (a NaN result carries the first NaN operand's
// payload, as with SSE), the same all-ones masks from comparisons (ordered, except !=).

#include "kr_base_types.h"

#include <immintrin.h>

#if !defined(__AVX2__)
#	error "simd/avx2/simd_vector.h needs a translation unit compiled for AVX2"
#endif
// A contracted a * b + c rounds once where SSE2 rounds twice: a unit whose target has FMA
// (some compilers imply it with AVX-512) must be compiled with -ffp-contract=off, and say
// so with OX_SIMD_FP_CONTRACT_OFF (the build does both).
#if defined(__FMA__) && !defined(OX_SIMD_FP_CONTRACT_OFF)
#	error "FMA is enabled: compile with -ffp-contract=off and define OX_SIMD_FP_CONTRACT_OFF"
#endif

namespace Orvex
{
	namespace SIMD_AVX2
	{
		class Float8
		{
		public:
			static constexpr int kLanes = 8;
			__m256 m_Value;

			Float8() = default;
			explicit inline OX_ALWAYS_INLINE Float8(__m256 value) : m_Value(value) {}
			explicit inline OX_ALWAYS_INLINE Float8(__m256i value) : m_Value(_mm256_castsi256_ps(value)) {}
			explicit inline OX_ALWAYS_INLINE Float8(float value) : m_Value(_mm256_set1_ps(value)) {}

			static inline OX_ALWAYS_INLINE Float8 SplatInt(s32 value) { return Float8(_mm256_set1_epi32(value)); }
			inline OX_ALWAYS_INLINE __m256i AsInt() const { return _mm256_castps_si256(m_Value); }

			// Unaligned forms only: on the processors that have AVX2 they cost nothing more on
			// aligned data, and a 16-byte aligned stream (all the register file promises) is
			// not always 32-byte aligned.
			static inline OX_ALWAYS_INLINE Float8 Load(const void *p) { return Float8(_mm256_loadu_si256(static_cast<const __m256i *>(p))); }
			inline OX_ALWAYS_INLINE void Store(void *p) const { _mm256_storeu_si256(static_cast<__m256i *>(p), AsInt()); }

			// Vector 'first' / 2 of a 12-float block repeated: quarter p is q[(first + p) % 3].
			// Built in registers: a block stored float by float and loaded back as a wide
			// vector would stall on store forwarding, on every call that lays out a constant.
			static inline OX_ALWAYS_INLINE Float8 Repeat12(const __m128 (&q)[3], int first) { return Float8(_mm256_set_m128(q[(first + 1) % 3], q[first % 3])); }

			// + and *: a's NaN when both lanes are NaN, as Float4's (the first source, pinned).
			friend inline OX_ALWAYS_INLINE Float8 operator+(const Float8 &a, const Float8 &b)
			{
				__m256 r;
				__asm__("vaddps %2, %1, %0" : "=v"(r) : "v"(a.m_Value), "v"(b.m_Value));
				return Float8(r);
			}
			friend inline OX_ALWAYS_INLINE Float8 operator-(const Float8 &a, const Float8 &b) { return Float8(_mm256_sub_ps(a.m_Value, b.m_Value)); }
			friend inline OX_ALWAYS_INLINE Float8 operator*(const Float8 &a, const Float8 &b)
			{
				__m256 r;
				__asm__("vmulps %2, %1, %0" : "=v"(r) : "v"(a.m_Value), "v"(b.m_Value));
				return Float8(r);
			}
			friend inline OX_ALWAYS_INLINE Float8 operator/(const Float8 &a, const Float8 &b) { return Float8(_mm256_div_ps(a.m_Value, b.m_Value)); }

			// The predicates of cmpltps, cmpleps, cmpeqps and cmpneqps: ordered and
			// signalling for < and <=, ordered quiet ==, unordered quiet !=.
			friend inline OX_ALWAYS_INLINE Float8 operator<(const Float8 &a, const Float8 &b) { return Float8(_mm256_cmp_ps(a.m_Value, b.m_Value, _CMP_LT_OS)); }
			friend inline OX_ALWAYS_INLINE Float8 operator<=(const Float8 &a, const Float8 &b) { return Float8(_mm256_cmp_ps(a.m_Value, b.m_Value, _CMP_LE_OS)); }
			friend inline OX_ALWAYS_INLINE Float8 operator==(const Float8 &a, const Float8 &b) { return Float8(_mm256_cmp_ps(a.m_Value, b.m_Value, _CMP_EQ_OQ)); }
			friend inline OX_ALWAYS_INLINE Float8 operator!=(const Float8 &a, const Float8 &b) { return Float8(_mm256_cmp_ps(a.m_Value, b.m_Value, _CMP_NEQ_UQ)); }

			friend inline OX_ALWAYS_INLINE Float8 operator&(const Float8 &a, const Float8 &b) { return Float8(_mm256_and_ps(a.m_Value, b.m_Value)); }
			friend inline OX_ALWAYS_INLINE Float8 operator|(const Float8 &a, const Float8 &b) { return Float8(_mm256_or_ps(a.m_Value, b.m_Value)); }
			friend inline OX_ALWAYS_INLINE Float8 operator^(const Float8 &a, const Float8 &b) { return Float8(_mm256_xor_ps(a.m_Value, b.m_Value)); }
			// this & ~mask
			inline OX_ALWAYS_INLINE Float8 AndNot(const Float8 &mask) const { return Float8(_mm256_andnot_ps(mask.m_Value, m_Value)); }

			inline OX_ALWAYS_INLINE Float8 operator~() const { return Float8(_mm256_xor_si256(AsInt(), _mm256_set1_epi32(-1))); }
			static inline OX_ALWAYS_INLINE Float8 Zero() { return Float8(_mm256_setzero_ps()); }

			// ---- Integer lanes (signed 32-bit, wrapping), as Float4's
			inline OX_ALWAYS_INLINE Float8 AddInt32(const Float8 &b) const { return Float8(_mm256_add_epi32(AsInt(), b.AsInt())); }
			inline OX_ALWAYS_INLINE Float8 SubInt32(const Float8 &b) const { return Float8(_mm256_sub_epi32(AsInt(), b.AsInt())); }
			inline OX_ALWAYS_INLINE Float8 MulLoInt32(const Float8 &b) const { return Float8(_mm256_mullo_epi32(AsInt(), b.AsInt())); }
			// High halves of the unsigned 64-bit products: even lanes, then odd lanes shifted down.
			inline OX_ALWAYS_INLINE Float8 MulHiUInt32(const Float8 &b) const
			{
				const __m256i even = _mm256_srli_epi64(_mm256_mul_epu32(AsInt(), b.AsInt()), 32);
				const __m256i odd = _mm256_mul_epu32(_mm256_srli_epi64(AsInt(), 32), _mm256_srli_epi64(b.AsInt(), 32));
				return Float8(_mm256_blend_epi32(even, odd, 0xAA));
			}
			// a / b per lane through double precision, truncated toward zero: every 32-bit
			// integer is exact in a double, and the truncated double quotient is the integer
			// quotient for every pair with b != 0 (not INT_MIN / -1, which does not fit).
			inline OX_ALWAYS_INLINE Float8 QuotientInt32ThroughDouble(const Float8 &b) const
			{
				const __m256i x = AsInt(), y = b.AsInt();
				const __m256d low = _mm256_div_pd(_mm256_cvtepi32_pd(_mm256_castsi256_si128(x)), _mm256_cvtepi32_pd(_mm256_castsi256_si128(y)));
				const __m256d high = _mm256_div_pd(_mm256_cvtepi32_pd(_mm256_extracti128_si256(x, 1)), _mm256_cvtepi32_pd(_mm256_extracti128_si256(y, 1)));
				return Float8(_mm256_set_m128i(_mm256_cvttpd_epi32(high), _mm256_cvttpd_epi32(low)));
			}

			// Each lane shifted by its own count, 0 to 31 (the caller masks the counts).
			inline OX_ALWAYS_INLINE Float8 ShiftLeftInt32ByLanes(const Float8 &counts) const { return Float8(_mm256_sllv_epi32(AsInt(), counts.AsInt())); }
			inline OX_ALWAYS_INLINE Float8 ShiftRightArithInt32ByLanes(const Float8 &counts) const { return Float8(_mm256_srav_epi32(AsInt(), counts.AsInt())); }
			inline OX_ALWAYS_INLINE Float8 ShiftRightLogicalInt32ByLanes(const Float8 &counts) const { return Float8(_mm256_srlv_epi32(AsInt(), counts.AsInt())); }

			inline OX_ALWAYS_INLINE Float8 CmpEqInt32(const Float8 &b) const { return Float8(_mm256_cmpeq_epi32(AsInt(), b.AsInt())); }
			inline OX_ALWAYS_INLINE Float8 CmpLtInt32(const Float8 &b) const { return Float8(_mm256_cmpgt_epi32(b.AsInt(), AsInt())); }
			inline OX_ALWAYS_INLINE Float8 CmpGtInt32(const Float8 &b) const { return Float8(_mm256_cmpgt_epi32(AsInt(), b.AsInt())); }
			// One count for every lane, at most 31 (the callers check it, as Float4's *_Prechecked).
			inline OX_ALWAYS_INLINE Float8 ShiftLeftInt32_Prechecked(u32 bits) const { return Float8(_mm256_sll_epi32(AsInt(), _mm_cvtsi32_si128(int(bits)))); }
			inline OX_ALWAYS_INLINE Float8 ShiftRightArithInt32_Prechecked(u32 bits) const { return Float8(_mm256_sra_epi32(AsInt(), _mm_cvtsi32_si128(int(bits)))); }
			inline OX_ALWAYS_INLINE Float8 ShiftRightLogicalInt32_Prechecked(u32 bits) const { return Float8(_mm256_srl_epi32(AsInt(), _mm_cvtsi32_si128(int(bits)))); }
			// Truncates toward zero; NaN and out-of-range lanes give 0x80000000, as cvttps2dq.
			inline OX_ALWAYS_INLINE Float8 ConvertToInt32Trunc() const { return Float8(_mm256_cvttps_epi32(m_Value)); }
			inline OX_ALWAYS_INLINE Float8 ConvertInt32ToFloat() const { return Float8(_mm256_cvtepi32_ps(AsInt())); }
		};

		static_assert(sizeof(Float8) == 32, "Float8 is exactly one YMM register");
	}
}
