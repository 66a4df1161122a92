// Hand-written SSE2 loops (emmintrin.h only, default x86-64 target): one 16-byte vector
// per iteration with aligned loads and stores, three rotations of a float3 constant
// over 12 floats, scalar code for the elements left after the last whole vector.

#include "bench_baselines.h"

#include <emmintrin.h>

#include <cstdint>

namespace OxBench
{
	namespace
	{
		// Low 32 bits of four 32x32 products: SSE2 multiplies lanes 0 and 2 only.
		inline __m128i MulLo32(__m128i a, __m128i b)
		{
			const __m128i even = _mm_mul_epu32(a, b);
			const __m128i odd = _mm_mul_epu32(_mm_srli_si128(a, 4), _mm_srli_si128(b, 4));
			return _mm_unpacklo_epi32(_mm_shuffle_epi32(even, _MM_SHUFFLE(0, 0, 2, 0)), _mm_shuffle_epi32(odd, _MM_SHUFFLE(0, 0, 2, 0)));
		}

		// High 32 bits of four signed 32x32 products (unsigned products, sign-corrected).
		inline __m128i MulHiS32(__m128i a, __m128i b)
		{
			const __m128i even = _mm_mul_epu32(a, b);
			const __m128i odd = _mm_mul_epu32(_mm_srli_si128(a, 4), _mm_srli_si128(b, 4));
			const __m128i hi = _mm_unpacklo_epi32(_mm_shuffle_epi32(even, _MM_SHUFFLE(3, 3, 3, 1)), _mm_shuffle_epi32(odd, _MM_SHUFFLE(3, 3, 3, 1)));
			const __m128i fix = _mm_add_epi32(_mm_and_si128(_mm_srai_epi32(a, 31), b), _mm_and_si128(_mm_srai_epi32(b, 31), a));
			return _mm_sub_epi32(hi, fix);
		}

		void W1(float *o, const float *a, const float *b, std::size_t n)
		{
			std::size_t i = 0;
			for (; i + 4 <= n; i += 4)
				_mm_store_ps(o + i, _mm_add_ps(_mm_load_ps(a + i), _mm_load_ps(b + i)));
			for (; i < n; ++i)
				o[i] = a[i] + b[i];
		}

		void W2(float *o, const float *a, const float *c, std::size_t n)
		{
			const __m128 c0 = _mm_setr_ps(c[0], c[1], c[2], c[0]);
			const __m128 c1 = _mm_setr_ps(c[1], c[2], c[0], c[1]);
			const __m128 c2 = _mm_setr_ps(c[2], c[0], c[1], c[2]);
			const std::size_t floats = 3 * n;
			std::size_t i = 0;
			for (; i + 12 <= floats; i += 12)
			{
				_mm_store_ps(o + i + 0, _mm_mul_ps(_mm_load_ps(a + i + 0), c0));
				_mm_store_ps(o + i + 4, _mm_mul_ps(_mm_load_ps(a + i + 4), c1));
				_mm_store_ps(o + i + 8, _mm_mul_ps(_mm_load_ps(a + i + 8), c2));
			}
			for (; i < floats; ++i)
				o[i] = a[i] * c[i % 3];
		}

		void W3(float *o, const float *a, const float *b, std::size_t n)
		{
			for (std::size_t i = 0; i < 4 * n; i += 4)
				_mm_store_ps(o + i, _mm_div_ps(_mm_load_ps(a + i), _mm_load_ps(b + i)));
		}

		void W4(std::uint32_t *o, const float *a, const float *b, std::size_t n)
		{
			std::size_t i = 0;
			for (; i + 4 <= n; i += 4)
				_mm_store_ps(reinterpret_cast<float *>(o + i), _mm_cmplt_ps(_mm_load_ps(a + i), _mm_load_ps(b + i)));
			for (; i < n; ++i)
				o[i] = a[i] < b[i] ? 0xFFFFFFFFu : 0u;
		}

		// q = a / c by one reciprocal; the result is (q - trunc(q)) * c, for |q| < 2^31.
		void W5(float *o, const float *a, float c, std::size_t n)
		{
			const float r = 1.0f / c;
			const __m128 vr = _mm_set1_ps(r), vc = _mm_set1_ps(c);
			std::size_t i = 0;
			for (; i + 4 <= n; i += 4)
			{
				const __m128 q = _mm_mul_ps(_mm_load_ps(a + i), vr);
				const __m128 t = _mm_cvtepi32_ps(_mm_cvttps_epi32(q));
				_mm_store_ps(o + i, _mm_mul_ps(_mm_sub_ps(q, t), vc));
			}
			for (; i < n; ++i)
			{
				const float q = a[i] * r;
				o[i] = (q - float(std::int32_t(q))) * c;
			}
		}

		void W6(std::int32_t *o, const std::int32_t *a, const std::int32_t *b, std::size_t n)
		{
			std::size_t i = 0;
			for (; i + 4 <= n; i += 4)
				_mm_store_si128(reinterpret_cast<__m128i *>(o + i), _mm_add_epi32(_mm_load_si128(reinterpret_cast<const __m128i *>(a + i)), _mm_load_si128(reinterpret_cast<const __m128i *>(b + i))));
			for (; i < n; ++i)
				o[i] = std::int32_t(std::uint32_t(a[i]) + std::uint32_t(b[i]));
		}

		void W7(std::int32_t *o, const std::int32_t *a, const std::int32_t *b, std::size_t n)
		{
			std::size_t i = 0;
			for (; i + 4 <= n; i += 4)
				_mm_store_si128(reinterpret_cast<__m128i *>(o + i), MulLo32(_mm_load_si128(reinterpret_cast<const __m128i *>(a + i)), _mm_load_si128(reinterpret_cast<const __m128i *>(b + i))));
			for (; i < n; ++i)
				o[i] = std::int32_t(std::uint32_t(a[i]) * std::uint32_t(b[i]));
		}

		// Signed division by a run-time divisor: an arithmetic shift for a positive power
		// of two, otherwise the magic multiplier and shift of Hacker's Delight (10-1).
		void W8(std::int32_t *o, const std::int32_t *a, std::int32_t d, std::size_t n)
		{
			std::size_t i = 0;
			const std::uint32_t ud = std::uint32_t(d);
			if (d > 1 && (ud & (ud - 1)) == 0)
			{
				int k = 0;
				while ((1u << k) != ud)
					++k;
				const __m128i bias = _mm_set1_epi32(d - 1);
				const __m128i shift = _mm_cvtsi32_si128(k);
				for (; i + 4 <= n; i += 4)
				{
					const __m128i x = _mm_load_si128(reinterpret_cast<const __m128i *>(a + i));
					const __m128i biased = _mm_add_epi32(x, _mm_and_si128(_mm_srai_epi32(x, 31), bias));
					_mm_store_si128(reinterpret_cast<__m128i *>(o + i), _mm_sra_epi32(biased, shift));
				}
			}
			else if (d >= 2 || d <= -2)
			{
				// Magic number M and shift s (signed division, 32 bits).
				const std::uint32_t two31 = 0x80000000u;
				const std::uint32_t ad = d < 0 ? 0u - ud : ud;
				const std::uint32_t t = two31 + (ud >> 31);
				const std::uint32_t anc = t - 1 - t % ad;
				int p = 31;
				std::uint32_t q1 = two31 / anc, r1 = two31 - q1 * anc, q2 = two31 / ad, r2 = two31 - q2 * ad, delta;
				do
				{
					++p;
					q1 *= 2; r1 *= 2;
					if (r1 >= anc) { ++q1; r1 -= anc; }
					q2 *= 2; r2 *= 2;
					if (r2 >= ad) { ++q2; r2 -= ad; }
					delta = ad - r2;
				} while (q1 < delta || (q1 == delta && r1 == 0));
				std::int32_t magic = std::int32_t(q2 + 1);
				if (d < 0)
					magic = -magic;
				const int s = p - 32;
				const __m128i vm = _mm_set1_epi32(magic);
				const __m128i addMask = _mm_set1_epi32(d > 0 && magic < 0 ? -1 : 0);
				const __m128i subMask = _mm_set1_epi32(d < 0 && magic > 0 ? -1 : 0);
				const __m128i shift = _mm_cvtsi32_si128(s);
				for (; i + 4 <= n; i += 4)
				{
					const __m128i x = _mm_load_si128(reinterpret_cast<const __m128i *>(a + i));
					__m128i q = MulHiS32(x, vm);
					q = _mm_sub_epi32(_mm_add_epi32(q, _mm_and_si128(x, addMask)), _mm_and_si128(x, subMask));
					q = _mm_sra_epi32(q, shift);
					q = _mm_add_epi32(q, _mm_srli_epi32(q, 31));
					_mm_store_si128(reinterpret_cast<__m128i *>(o + i), q);
				}
			}
			for (; i < n; ++i)
				o[i] = a[i] / d;
		}

		// Per-lane divisors: SSE2 has no integer division, but every int32 is exact in a
		// double and the truncated double quotient is the integer quotient.
		void W9(std::int32_t *o, const std::int32_t *a, const std::int32_t *b, std::size_t n)
		{
			std::size_t i = 0;
			for (; i + 4 <= n; i += 4)
			{
				const __m128i x = _mm_load_si128(reinterpret_cast<const __m128i *>(a + i));
				const __m128i y = _mm_load_si128(reinterpret_cast<const __m128i *>(b + i));
				const __m128d lo = _mm_div_pd(_mm_cvtepi32_pd(x), _mm_cvtepi32_pd(y));
				const __m128d hi = _mm_div_pd(_mm_cvtepi32_pd(_mm_unpackhi_epi64(x, x)), _mm_cvtepi32_pd(_mm_unpackhi_epi64(y, y)));
				_mm_store_si128(reinterpret_cast<__m128i *>(o + i), _mm_unpacklo_epi64(_mm_cvttpd_epi32(lo), _mm_cvttpd_epi32(hi)));
			}
			for (; i < n; ++i)
				o[i] = a[i] / b[i];
		}

		// One pass over both streams: v += g * dt, then p += v * dt, 4 particles (12 floats)
		// per iteration.
		void W10(float *p, float *v, const float *g, const float *dt, std::size_t n)
		{
			const float gdt[3] = {g[0] * dt[0], g[1] * dt[1], g[2] * dt[2]};
			const __m128 k0 = _mm_setr_ps(gdt[0], gdt[1], gdt[2], gdt[0]);
			const __m128 k1 = _mm_setr_ps(gdt[1], gdt[2], gdt[0], gdt[1]);
			const __m128 k2 = _mm_setr_ps(gdt[2], gdt[0], gdt[1], gdt[2]);
			const __m128 d0 = _mm_setr_ps(dt[0], dt[1], dt[2], dt[0]);
			const __m128 d1 = _mm_setr_ps(dt[1], dt[2], dt[0], dt[1]);
			const __m128 d2 = _mm_setr_ps(dt[2], dt[0], dt[1], dt[2]);
			const std::size_t floats = 3 * n;
			std::size_t i = 0;
			for (; i + 12 <= floats; i += 12)
			{
				const __m128 v0 = _mm_add_ps(_mm_load_ps(v + i + 0), k0);
				const __m128 v1 = _mm_add_ps(_mm_load_ps(v + i + 4), k1);
				const __m128 v2 = _mm_add_ps(_mm_load_ps(v + i + 8), k2);
				_mm_store_ps(v + i + 0, v0);
				_mm_store_ps(v + i + 4, v1);
				_mm_store_ps(v + i + 8, v2);
				_mm_store_ps(p + i + 0, _mm_add_ps(_mm_load_ps(p + i + 0), _mm_mul_ps(v0, d0)));
				_mm_store_ps(p + i + 4, _mm_add_ps(_mm_load_ps(p + i + 4), _mm_mul_ps(v1, d1)));
				_mm_store_ps(p + i + 8, _mm_add_ps(_mm_load_ps(p + i + 8), _mm_mul_ps(v2, d2)));
			}
			for (; i < floats; ++i)
			{
				v[i] += gdt[i % 3];
				p[i] += v[i] * dt[i % 3];
			}
		}
	}

	const SBaselineSet kBaselineSSE2 = [] {
		SBaselineSet set;
		set.m_Name = "sse2";
		set.m_W1 = &W1;
		set.m_W2 = &W2;
		set.m_W3 = &W3;
		set.m_W4 = &W4;
		set.m_W5 = &W5;
		set.m_W6 = &W6;
		set.m_W7 = &W7;
		set.m_W8 = &W8;
		set.m_W9 = &W9;
		set.m_W10 = &W10;
		return set;
	}();
}
