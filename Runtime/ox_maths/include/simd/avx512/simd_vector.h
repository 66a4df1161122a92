#pragma once
// Float16: sixteen packed 32-bit lanes in a ZMM register, the AVX-512 counterpart of
// SIMD_SSE::Float4 with the operations the wide kernels use. Include it only in a
// translation unit compiled for AVX-512 (F, DQ, BW, VL; no fused multiply-add, as
// the AVX2 one).
//
// Comparisons give a mask register; they are widened to all-ones lanes here, so that a
// comparison kernel stores what the SSE2 one stores. Everything else is the lane-for-lane
// equivalent of its Float4 form.

#include "kr_base_types.h"

#include <immintrin.h>

#if !defined(__AVX512F__) || !defined(__AVX512DQ__)
#	error "simd/avx512/simd_vector.h needs a translation unit compiled for AVX-512 (F and DQ)"
#endif
// A contracted a * b + c rounds once where SSE2 rounds twice: a unit whose target has FMA
// (some compilers imply it with AVX-512) must be compiled with -ffp-contract=off, and say
// so with OX_SIMD_FP_CONTRACT_OFF (the build does both).
#if defined(__FMA__) && !defined(OX_SIMD_FP_CONTRACT_OFF)
#	error "FMA is enabled: compile with -ffp-contract=off and define OX_SIMD_FP_CONTRACT_OFF"
#endif

namespace Orvex
{
	namespace SIMD_AVX512
	{
		class Float16
		{
		public:
			static constexpr int kLanes = 16;
			__m512 m_Value;

			Float16() = default;
			explicit inline OX_ALWAYS_INLINE Float16(__m512 value) : m_Value(value) {}
			explicit inline OX_ALWAYS_INLINE Float16(__m512i value) : m_Value(_mm512_castsi512_ps(value)) {}
			explicit inline OX_ALWAYS_INLINE Float16(float value) : m_Value(_mm512_set1_ps(value)) {}

			static inline OX_ALWAYS_INLINE Float16 SplatInt(s32 value) { return Float16(_mm512_set1_epi32(value)); }
			inline OX_ALWAYS_INLINE __m512i AsInt() const { return _mm512_castps_si512(m_Value); }

			// Unaligned forms only (see Float8).
			static inline OX_ALWAYS_INLINE Float16 Load(const void *p) { return Float16(_mm512_loadu_si512(p)); }
			inline OX_ALWAYS_INLINE void Store(void *p) const { _mm512_storeu_si512(p, AsInt()); }

			// Vector 'first' / 4 of a 12-float block repeated: quarter p is q[(first + p) % 3]
			// (built in registers, see Float8).
			static inline OX_ALWAYS_INLINE Float16 Repeat12(const __m128 (&q)[3], int first)
			{
				__m512 v = _mm512_castps128_ps512(q[first % 3]);
				v = _mm512_insertf32x4(v, q[(first + 1) % 3], 1);
				v = _mm512_insertf32x4(v, q[(first + 2) % 3], 2);
				return Float16(_mm512_insertf32x4(v, q[first % 3], 3));
			}

			// + and *: a's NaN when both lanes are NaN, as Float4's (the first source, pinned).
			friend inline OX_ALWAYS_INLINE Float16 operator+(const Float16 &a, const Float16 &b)
			{
				__m512 r;
				__asm__("vaddps %2, %1, %0" : "=v"(r) : "v"(a.m_Value), "v"(b.m_Value));
				return Float16(r);
			}
			friend inline OX_ALWAYS_INLINE Float16 operator-(const Float16 &a, const Float16 &b) { return Float16(_mm512_sub_ps(a.m_Value, b.m_Value)); }
			friend inline OX_ALWAYS_INLINE Float16 operator*(const Float16 &a, const Float16 &b)
			{
				__m512 r;
				__asm__("vmulps %2, %1, %0" : "=v"(r) : "v"(a.m_Value), "v"(b.m_Value));
				return Float16(r);
			}
			friend inline OX_ALWAYS_INLINE Float16 operator/(const Float16 &a, const Float16 &b) { return Float16(_mm512_div_ps(a.m_Value, b.m_Value)); }

			// The SSE predicates (see Float8), each mask bit widened to an all-ones lane.
			friend inline OX_ALWAYS_INLINE Float16 operator<(const Float16 &a, const Float16 &b) { return _Lanes(_mm512_cmp_ps_mask(a.m_Value, b.m_Value, _CMP_LT_OS)); }
			friend inline OX_ALWAYS_INLINE Float16 operator<=(const Float16 &a, const Float16 &b) { return _Lanes(_mm512_cmp_ps_mask(a.m_Value, b.m_Value, _CMP_LE_OS)); }
			friend inline OX_ALWAYS_INLINE Float16 operator==(const Float16 &a, const Float16 &b) { return _Lanes(_mm512_cmp_ps_mask(a.m_Value, b.m_Value, _CMP_EQ_OQ)); }
			friend inline OX_ALWAYS_INLINE Float16 operator!=(const Float16 &a, const Float16 &b) { return _Lanes(_mm512_cmp_ps_mask(a.m_Value, b.m_Value, _CMP_NEQ_UQ)); }

			friend inline OX_ALWAYS_INLINE Float16 operator&(const Float16 &a, const Float16 &b) { return Float16(_mm512_and_ps(a.m_Value, b.m_Value)); }
			friend inline OX_ALWAYS_INLINE Float16 operator|(const Float16 &a, const Float16 &b) { return Float16(_mm512_or_ps(a.m_Value, b.m_Value)); }
			friend inline OX_ALWAYS_INLINE Float16 operator^(const Float16 &a, const Float16 &b) { return Float16(_mm512_xor_ps(a.m_Value, b.m_Value)); }
			// this & ~mask
			inline OX_ALWAYS_INLINE Float16 AndNot(const Float16 &mask) const { return Float16(_mm512_andnot_ps(mask.m_Value, m_Value)); }

			inline OX_ALWAYS_INLINE Float16 operator~() const { return Float16(_mm512_xor_si512(AsInt(), _mm512_set1_epi32(-1))); }
			static inline OX_ALWAYS_INLINE Float16 Zero() { return Float16(_mm512_setzero_ps()); }

			// ---- Integer lanes (signed 32-bit, wrapping), as Float4's
			inline OX_ALWAYS_INLINE Float16 AddInt32(const Float16 &b) const { return Float16(_mm512_add_epi32(AsInt(), b.AsInt())); }
			inline OX_ALWAYS_INLINE Float16 SubInt32(const Float16 &b) const { return Float16(_mm512_sub_epi32(AsInt(), b.AsInt())); }
			inline OX_ALWAYS_INLINE Float16 MulLoInt32(const Float16 &b) const { return Float16(_mm512_mullo_epi32(AsInt(), b.AsInt())); }
			// High halves of the unsigned 64-bit products: even lanes, then odd lanes shifted down.
			inline OX_ALWAYS_INLINE Float16 MulHiUInt32(const Float16 &b) const
			{
				const __m512i even = _mm512_srli_epi64(_mm512_mul_epu32(AsInt(), b.AsInt()), 32);
				const __m512i odd = _mm512_mul_epu32(_mm512_srli_epi64(AsInt(), 32), _mm512_srli_epi64(b.AsInt(), 32));
				return Float16(_mm512_mask_blend_epi32(__mmask16(0xAAAA), even, odd));
			}
			// a / b per lane through double precision, truncated toward zero: every 32-bit
			// integer is exact in a double, and the truncated double quotient is the integer
			// quotient for every pair with b != 0 (not INT_MIN / -1, which does not fit).
			inline OX_ALWAYS_INLINE Float16 QuotientInt32ThroughDouble(const Float16 &b) const
			{
				const __m512i x = AsInt(), y = b.AsInt();
				const __m512d low = _mm512_div_pd(_mm512_cvtepi32_pd(_mm512_castsi512_si256(x)), _mm512_cvtepi32_pd(_mm512_castsi512_si256(y)));
				const __m512d high = _mm512_div_pd(_mm512_cvtepi32_pd(_mm512_extracti64x4_epi64(x, 1)), _mm512_cvtepi32_pd(_mm512_extracti64x4_epi64(y, 1)));
				return Float16(_mm512_inserti64x4(_mm512_castsi256_si512(_mm512_cvttpd_epi32(low)), _mm512_cvttpd_epi32(high), 1));
			}

			// Each lane shifted by its own count, 0 to 31 (the caller masks the counts).
			inline OX_ALWAYS_INLINE Float16 ShiftLeftInt32ByLanes(const Float16 &counts) const { return Float16(_mm512_sllv_epi32(AsInt(), counts.AsInt())); }
			inline OX_ALWAYS_INLINE Float16 ShiftRightArithInt32ByLanes(const Float16 &counts) const { return Float16(_mm512_srav_epi32(AsInt(), counts.AsInt())); }
			inline OX_ALWAYS_INLINE Float16 ShiftRightLogicalInt32ByLanes(const Float16 &counts) const { return Float16(_mm512_srlv_epi32(AsInt(), counts.AsInt())); }

			inline OX_ALWAYS_INLINE Float16 CmpEqInt32(const Float16 &b) const { return _Lanes(_mm512_cmpeq_epi32_mask(AsInt(), b.AsInt())); }
			inline OX_ALWAYS_INLINE Float16 CmpLtInt32(const Float16 &b) const { return _Lanes(_mm512_cmplt_epi32_mask(AsInt(), b.AsInt())); }
			inline OX_ALWAYS_INLINE Float16 CmpGtInt32(const Float16 &b) const { return _Lanes(_mm512_cmpgt_epi32_mask(AsInt(), b.AsInt())); }
			// One count for every lane, at most 31 (the callers check it, as Float4's *_Prechecked).
			inline OX_ALWAYS_INLINE Float16 ShiftLeftInt32_Prechecked(u32 bits) const { return Float16(_mm512_sll_epi32(AsInt(), _mm_cvtsi32_si128(int(bits)))); }
			inline OX_ALWAYS_INLINE Float16 ShiftRightArithInt32_Prechecked(u32 bits) const { return Float16(_mm512_sra_epi32(AsInt(), _mm_cvtsi32_si128(int(bits)))); }
			inline OX_ALWAYS_INLINE Float16 ShiftRightLogicalInt32_Prechecked(u32 bits) const { return Float16(_mm512_srl_epi32(AsInt(), _mm_cvtsi32_si128(int(bits)))); }
			// Truncates toward zero; NaN and out-of-range lanes give 0x80000000, as cvttps2dq.
			inline OX_ALWAYS_INLINE Float16 ConvertToInt32Trunc() const { return Float16(_mm512_cvttps_epi32(m_Value)); }
			inline OX_ALWAYS_INLINE Float16 ConvertInt32ToFloat() const { return Float16(_mm512_cvtepi32_ps(AsInt())); }

		private:
			static inline OX_ALWAYS_INLINE Float16 _Lanes(__mmask16 mask) { return Float16(_mm512_movm_epi32(mask)); }
		};

		static_assert(sizeof(Float16) == 64, "Float16 is exactly one ZMM register");
	}
}
