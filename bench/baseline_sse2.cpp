// Hand-written SSE2 loops (emmintrin.h only, default x86-64 target), written as the SSE2
// limit: four 16-byte vectors per iteration with aligned loads and stores (two periods,
// six vectors, for a float3 constant in its three rotations), then one vector at a time,
// then scalar code for the elements left after the last whole vector.

#include "baseline_divisor.h"
#include "bench_baselines.h"

#include <emmintrin.h>

#include <cmath>
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

		// The loop of every stream workload: vector(i) handles lanes i..i+3, four of them
		// per iteration, then one at a time; scalar(i) handles one lane after the last
		// whole vector.
		template <typename _FnVector, typename _FnScalar>
		inline void Unrolled(std::size_t n, const _FnVector &vector, const _FnScalar &scalar)
		{
			std::size_t i = 0;
			for (; i + 16 <= n; i += 16)
			{
				vector(i);
				vector(i + 4);
				vector(i + 8);
				vector(i + 12);
			}
			for (; i + 4 <= n; i += 4)
				vector(i);
			for (; i < n; ++i)
				scalar(i);
		}

		inline __m128i LoadI(const std::int32_t *p) { return _mm_load_si128(reinterpret_cast<const __m128i *>(p)); }
		inline void StoreI(std::int32_t *p, __m128i v) { _mm_store_si128(reinterpret_cast<__m128i *>(p), v); }

		void W1(float *o, const float *a, const float *b, std::size_t n)
		{
			Unrolled(n, [&](std::size_t i) { _mm_store_ps(o + i, _mm_add_ps(_mm_load_ps(a + i), _mm_load_ps(b + i))); },
					 [&](std::size_t i) { o[i] = a[i] + b[i]; });
		}

		void W2(float *o, const float *a, const float *c, std::size_t n)
		{
			const __m128 c0 = _mm_setr_ps(c[0], c[1], c[2], c[0]);
			const __m128 c1 = _mm_setr_ps(c[1], c[2], c[0], c[1]);
			const __m128 c2 = _mm_setr_ps(c[2], c[0], c[1], c[2]);
			const std::size_t floats = 3 * n;
			std::size_t i = 0;
			auto period = [&](std::size_t j) {
				_mm_store_ps(o + j + 0, _mm_mul_ps(_mm_load_ps(a + j + 0), c0));
				_mm_store_ps(o + j + 4, _mm_mul_ps(_mm_load_ps(a + j + 4), c1));
				_mm_store_ps(o + j + 8, _mm_mul_ps(_mm_load_ps(a + j + 8), c2));
			};
			for (; i + 24 <= floats; i += 24)
			{
				period(i);
				period(i + 12);
			}
			for (; i + 12 <= floats; i += 12)
				period(i);
			for (; i < floats; ++i)
				o[i] = a[i] * c[i % 3];
		}

		void W3(float *o, const float *a, const float *b, std::size_t n)
		{
			Unrolled(4 * n, [&](std::size_t i) { _mm_store_ps(o + i, _mm_div_ps(_mm_load_ps(a + i), _mm_load_ps(b + i))); },
					 [&](std::size_t i) { o[i] = a[i] / b[i]; });
		}

		void W4(std::uint32_t *o, const float *a, const float *b, std::size_t n)
		{
			Unrolled(n, [&](std::size_t i) { _mm_store_ps(reinterpret_cast<float *>(o + i), _mm_cmplt_ps(_mm_load_ps(a + i), _mm_load_ps(b + i))); },
					 [&](std::size_t i) { o[i] = a[i] < b[i] ? 0xFFFFFFFFu : 0u; });
		}

		// q = a / c by one reciprocal; the result is (q - trunc(q)) * c, for |q| < 2^31.
		void W5(float *o, const float *a, float c, std::size_t n)
		{
			const float r = 1.0f / c;
			const __m128 vr = _mm_set1_ps(r), vc = _mm_set1_ps(c);
			Unrolled(
				n,
				[&](std::size_t i) {
					const __m128 q = _mm_mul_ps(_mm_load_ps(a + i), vr);
					const __m128 t = _mm_cvtepi32_ps(_mm_cvttps_epi32(q));
					_mm_store_ps(o + i, _mm_mul_ps(_mm_sub_ps(q, t), vc));
				},
				[&](std::size_t i) {
					const float q = a[i] * r;
					o[i] = (q - float(std::int32_t(q))) * c;
				});
		}

		void W6(std::int32_t *o, const std::int32_t *a, const std::int32_t *b, std::size_t n)
		{
			Unrolled(n, [&](std::size_t i) { StoreI(o + i, _mm_add_epi32(LoadI(a + i), LoadI(b + i))); },
					 [&](std::size_t i) { o[i] = std::int32_t(std::uint32_t(a[i]) + std::uint32_t(b[i])); });
		}

		void W7(std::int32_t *o, const std::int32_t *a, const std::int32_t *b, std::size_t n)
		{
			Unrolled(n, [&](std::size_t i) { StoreI(o + i, MulLo32(LoadI(a + i), LoadI(b + i))); },
					 [&](std::size_t i) { o[i] = std::int32_t(std::uint32_t(a[i]) * std::uint32_t(b[i])); });
		}

		// Signed division by a run-time divisor: an arithmetic shift for a positive power
		// of two, otherwise the magic multiplier and shift of Hacker's Delight (10-1).
		void W8(std::int32_t *o, const std::int32_t *a, std::int32_t d, std::size_t n)
		{
			const auto scalar = [&](std::size_t i) { o[i] = a[i] / d; };
			const std::uint32_t ud = std::uint32_t(d);
			if (d > 1 && (ud & (ud - 1)) == 0)
			{
				int k = 0;
				while ((1u << k) != ud)
					++k;
				const __m128i bias = _mm_set1_epi32(d - 1);
				const __m128i shift = _mm_cvtsi32_si128(k);
				Unrolled(
					n,
					[&](std::size_t i) {
						const __m128i x = LoadI(a + i);
						StoreI(o + i, _mm_sra_epi32(_mm_add_epi32(x, _mm_and_si128(_mm_srai_epi32(x, 31), bias)), shift));
					},
					scalar);
			}
			else if (d >= 2 || d <= -2)
			{
				const SMagicDivisor m = SMagicDivisor::Of(d);
				const std::int32_t magic = m.m_Multiplier;
				const int s = m.m_Shift;
				const __m128i vm = _mm_set1_epi32(magic);
				const __m128i addMask = _mm_set1_epi32(m.m_AddMask);
				const __m128i subMask = _mm_set1_epi32(m.m_SubMask);
				const __m128i shift = _mm_cvtsi32_si128(s);
				Unrolled(
					n,
					[&](std::size_t i) {
						const __m128i x = LoadI(a + i);
						__m128i q = MulHiS32(x, vm);
						q = _mm_sub_epi32(_mm_add_epi32(q, _mm_and_si128(x, addMask)), _mm_and_si128(x, subMask));
						q = _mm_sra_epi32(q, shift);
						StoreI(o + i, _mm_add_epi32(q, _mm_srli_epi32(q, 31)));
					},
					scalar);
			}
			else
				for (std::size_t i = 0; i < n; ++i)
					scalar(i);
		}

		// Per-lane divisors: SSE2 has no integer division, but every int32 is exact in a
		// double and the truncated double quotient is the integer quotient.
		void W9(std::int32_t *o, const std::int32_t *a, const std::int32_t *b, std::size_t n)
		{
			Unrolled(
				n,
				[&](std::size_t i) {
					const __m128i x = LoadI(a + i), y = LoadI(b + i);
					const __m128d lo = _mm_div_pd(_mm_cvtepi32_pd(x), _mm_cvtepi32_pd(y));
					const __m128d hi = _mm_div_pd(_mm_cvtepi32_pd(_mm_unpackhi_epi64(x, x)), _mm_cvtepi32_pd(_mm_unpackhi_epi64(y, y)));
					StoreI(o + i, _mm_unpacklo_epi64(_mm_cvttpd_epi32(lo), _mm_cvttpd_epi32(hi)));
				},
				[&](std::size_t i) { o[i] = a[i] / b[i]; });
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

		// One particle of W12, for the particles after the last group of four: the same
		// operations in the same order as the vector loop (and the program).
		void W12Particle(const SParticleStreams &s, const SParticleConstants &c, const float *gdt, std::size_t e)
		{
			for (int k = 0; k < 3; ++k)
			{
				const std::size_t i = 3 * e + k;
				float v = s.m_Vel[i];
				const float f = (s.m_Pos[i] * c.m_NegK[k] + (v - c.m_Wind[k]) * c.m_NegDrag[k]) * c.m_Dt[k];
				v = (v + f) + gdt[k];
				const float p = s.m_Pos[i] + v * c.m_Dt[k];
				s.m_Vel[i] = v;
				s.m_Pos[i] = p;
				const bool leaving = (p < c.m_BoxMin[k] && v < c.m_Zero[k]) || (p > c.m_BoxMax[k] && v > c.m_Zero[k]);
				s.m_Outside[i] = leaving ? 0xFFFFFFFFu : 0u;
			}
			const std::int32_t age = std::int32_t(std::uint32_t(s.m_Age[e]) + std::uint32_t(c.m_One));
			s.m_Age[e] = age;
			s.m_Expired[e] = age > s.m_Lifetime[e] ? 0xFFFFFFFFu : 0u;
			const std::int32_t young = age < c.m_YoungAge ? -1 : 0, mid = age < c.m_MidAge ? -1 : 0;
			s.m_Colour[e] = (young & c.m_ColourYoung) | ((young ^ mid) & c.m_ColourMid) | (~mid & c.m_ColourOld);
		}

		// W12 in one pass, four particles (twelve floats, four integers) per iteration: the
		// forces, the integration and the box test on three vectors of each float3 stream
		// with the constants in their three rotations, then age, expiry and colour on one
		// vector. The colour is picked with masks, as the program does.
		void W12(const SParticleStreams &s, const SParticleConstants &c, std::size_t n)
		{
			const float gdt[3] = {c.m_Gravity[0] * c.m_Dt[0], c.m_Gravity[1] * c.m_Dt[1], c.m_Gravity[2] * c.m_Dt[2]};
			struct SRotations
			{
				__m128 r[3];
			};
			auto rotations = [](const float *k) {
				return SRotations{{_mm_setr_ps(k[0], k[1], k[2], k[0]), _mm_setr_ps(k[1], k[2], k[0], k[1]), _mm_setr_ps(k[2], k[0], k[1], k[2])}};
			};
			const SRotations negK = rotations(c.m_NegK), wind = rotations(c.m_Wind), negDrag = rotations(c.m_NegDrag), dt = rotations(c.m_Dt);
			const SRotations gdtR = rotations(gdt), boxMin = rotations(c.m_BoxMin), boxMax = rotations(c.m_BoxMax), zero = rotations(c.m_Zero);
			const __m128i one = _mm_set1_epi32(c.m_One), youngAge = _mm_set1_epi32(c.m_YoungAge), midAge = _mm_set1_epi32(c.m_MidAge);
			const __m128i colourYoung = _mm_set1_epi32(c.m_ColourYoung), colourMid = _mm_set1_epi32(c.m_ColourMid), colourOld = _mm_set1_epi32(c.m_ColourOld);
			float *outside = reinterpret_cast<float *>(s.m_Outside);
			std::size_t e = 0;
			for (; e + 4 <= n; e += 4)
			{
				const std::size_t f0 = 3 * e;
				for (int j = 0; j < 3; ++j)
				{
					float *pp = s.m_Pos + f0 + 4 * j;
					float *vp = s.m_Vel + f0 + 4 * j;
					__m128 v = _mm_load_ps(vp);
					__m128 p = _mm_load_ps(pp);
					__m128 f = _mm_mul_ps(p, negK.r[j]);
					f = _mm_add_ps(f, _mm_mul_ps(_mm_sub_ps(v, wind.r[j]), negDrag.r[j]));
					f = _mm_mul_ps(f, dt.r[j]);
					v = _mm_add_ps(_mm_add_ps(v, f), gdtR.r[j]);
					p = _mm_add_ps(p, _mm_mul_ps(v, dt.r[j]));
					_mm_store_ps(vp, v);
					_mm_store_ps(pp, p);
					const __m128 down = _mm_and_ps(_mm_cmplt_ps(p, boxMin.r[j]), _mm_cmplt_ps(v, zero.r[j]));
					const __m128 up = _mm_and_ps(_mm_cmpgt_ps(p, boxMax.r[j]), _mm_cmpgt_ps(v, zero.r[j]));
					_mm_store_ps(outside + f0 + 4 * j, _mm_or_ps(down, up));
				}
				__m128i *agep = reinterpret_cast<__m128i *>(s.m_Age + e);
				const __m128i age = _mm_add_epi32(_mm_load_si128(agep), one);
				_mm_store_si128(agep, age);
				const __m128i lifetime = _mm_load_si128(reinterpret_cast<const __m128i *>(s.m_Lifetime + e));
				_mm_store_si128(reinterpret_cast<__m128i *>(s.m_Expired + e), _mm_cmpgt_epi32(age, lifetime));
				const __m128i young = _mm_cmplt_epi32(age, youngAge);
				const __m128i mid = _mm_cmplt_epi32(age, midAge);
				__m128i colour = _mm_or_si128(_mm_and_si128(young, colourYoung), _mm_and_si128(_mm_xor_si128(young, mid), colourMid));
				colour = _mm_or_si128(colour, _mm_andnot_si128(mid, colourOld));
				_mm_store_si128(reinterpret_cast<__m128i *>(s.m_Colour + e), colour);
			}
			for (; e < n; ++e)
				W12Particle(s, c, gdt, e);
		}
	}

	namespace
	{
		// The VM's float modulo on four lanes: the fraction of q where the 32-bit truncation
		// holds it, +0 where it gives the indefinite 0x80000000 (|q| >= 2^31, NaN).
		inline __m128 TruncFrac(__m128 q)
		{
			const __m128i t = _mm_cvttps_epi32(q);
			const __m128 outOfRange = _mm_castsi128_ps(_mm_cmpeq_epi32(t, _mm_set1_epi32(std::int32_t(0x80000000u))));
			return _mm_andnot_ps(outOfRange, _mm_sub_ps(q, _mm_cvtepi32_ps(t)));
		}

		inline float TruncFrac(float q)
		{
			return std::fabs(q) < 2147483648.0f ? q - float(std::int32_t(q)) : 0.0f;
		}

		// Four truncated quotients by one divisor (|d| >= 2): the magic multiplier of W8.
		struct SMagic4
		{
			explicit SMagic4(std::int32_t d)
			: m(SMagicDivisor::Of(d)), vm(_mm_set1_epi32(m.m_Multiplier)), add(_mm_set1_epi32(m.m_AddMask)), sub(_mm_set1_epi32(m.m_SubMask)), shift(_mm_cvtsi32_si128(m.m_Shift))
			{
			}
			__m128i Quotient(__m128i x) const
			{
				__m128i q = MulHiS32(x, vm);
				q = _mm_sub_epi32(_mm_add_epi32(q, _mm_and_si128(x, add)), _mm_and_si128(x, sub));
				q = _mm_sra_epi32(q, shift);
				return _mm_add_epi32(q, _mm_srli_epi32(q, 31));
			}
			SMagicDivisor m;
			__m128i vm, add, sub, shift;
		};

		// W13 in one pass, four sprites (twelve floats of each float3 stream, four of every
		// other stream) per iteration: drag, gravity, integration and the box wrap on three
		// vectors with the constants and reciprocals in their three rotations; then the phase,
		// the flicker, age, expiry, sprite frame, seed and flags on one vector each.
		void W13(const SSpriteStreams &s, const SSpriteConstants &c, std::size_t n)
		{
			const float rBox[3] = {1.0f / c.m_Box[0], 1.0f / c.m_Box[1], 1.0f / c.m_Box[2]};
			const float rTwoPi = 1.0f / c.m_TwoPi;
			struct SRotations
			{
				__m128 r[3];
			};
			auto rotations = [](const float *k) {
				return SRotations{{_mm_setr_ps(k[0], k[1], k[2], k[0]), _mm_setr_ps(k[1], k[2], k[0], k[1]), _mm_setr_ps(k[2], k[0], k[1], k[2])}};
			};
			const SRotations g = rotations(c.m_Gravity), dt = rotations(c.m_Dt), negDrag = rotations(c.m_NegDrag), box = rotations(c.m_Box), rbox = rotations(rBox);
			const __m128 dt1 = _mm_set1_ps(c.m_Dt1), twoPi = _mm_set1_ps(c.m_TwoPi), rtwoPi = _mm_set1_ps(rTwoPi), duty = _mm_set1_ps(c.m_Duty);
			const SMagic4 byTicks(c.m_TicksPerFrame), byFrames(c.m_Frames);
			const __m128i one = _mm_set1_epi32(c.m_One), frames = _mm_set1_epi32(c.m_Frames);
			const __m128i shiftA = _mm_cvtsi32_si128(c.m_ShiftA & 31), shiftB = _mm_cvtsi32_si128(c.m_ShiftB & 31), shiftC = _mm_cvtsi32_si128(c.m_ShiftC & 31);
			const __m128i variantShift = _mm_cvtsi32_si128(c.m_VariantShift & 31), flagsShift = _mm_cvtsi32_si128(c.m_FlagsShift & 31);
			const __m128i litBit = _mm_set1_epi32(c.m_LitBit), expiredBit = _mm_set1_epi32(c.m_ExpiredBit);
			auto load = [](const std::int32_t *p) { return _mm_load_si128(reinterpret_cast<const __m128i *>(p)); };
			auto store = [](std::int32_t *p, __m128i v) { _mm_store_si128(reinterpret_cast<__m128i *>(p), v); };
			std::size_t e = 0;
			for (; e + 4 <= n; e += 4)
			{
				const std::size_t f0 = 3 * e;
				for (int j = 0; j < 3; ++j)
				{
					float *pp = s.m_Pos + f0 + 4 * j;
					float *vp = s.m_Vel + f0 + 4 * j;
					__m128 v = _mm_load_ps(vp);
					v = _mm_add_ps(v, _mm_mul_ps(_mm_add_ps(_mm_mul_ps(v, negDrag.r[j]), g.r[j]), dt.r[j]));
					const __m128 p = _mm_add_ps(_mm_load_ps(pp), _mm_mul_ps(v, dt.r[j]));
					_mm_store_ps(vp, v);
					_mm_store_ps(pp, _mm_mul_ps(TruncFrac(_mm_mul_ps(p, rbox.r[j])), box.r[j]));
				}
				const __m128 phase = _mm_mul_ps(TruncFrac(_mm_mul_ps(_mm_add_ps(_mm_load_ps(s.m_Phase + e), _mm_mul_ps(_mm_load_ps(s.m_Spin + e), dt1)), rtwoPi)), twoPi);
				_mm_store_ps(s.m_Phase + e, phase);
				const __m128 period = _mm_load_ps(s.m_Period + e);
				const __m128i lit = _mm_castps_si128(_mm_cmplt_ps(_mm_mul_ps(TruncFrac(_mm_div_ps(phase, period)), period), duty));

				const __m128i age = _mm_add_epi32(load(s.m_Age + e), one);
				store(s.m_Age + e, age);
				const __m128i expired = _mm_cmpgt_epi32(age, load(s.m_Lifetime + e));
				store(s.m_Expired + e, expired);
				const __m128i ticks = byTicks.Quotient(age);
				const __m128i frame = _mm_sub_epi32(ticks, MulLo32(byFrames.Quotient(ticks), frames));
				__m128i seed = load(s.m_Seed + e);
				seed = _mm_xor_si128(seed, _mm_sll_epi32(seed, shiftA));
				seed = _mm_xor_si128(seed, _mm_srl_epi32(seed, shiftB));
				seed = _mm_xor_si128(seed, _mm_sll_epi32(seed, shiftC));
				store(s.m_Seed + e, seed);
				__m128i flags = _mm_or_si128(frame, _mm_sll_epi32(_mm_srl_epi32(seed, variantShift), flagsShift));
				flags = _mm_or_si128(_mm_or_si128(flags, _mm_and_si128(lit, litBit)), _mm_and_si128(expired, expiredBit));
				store(s.m_Flags + e, flags);
			}
			// The sprites after the last group of four: the same operations on one lane.
			const std::uint32_t shiftAs = std::uint32_t(c.m_ShiftA) & 31u, shiftBs = std::uint32_t(c.m_ShiftB) & 31u, shiftCs = std::uint32_t(c.m_ShiftC) & 31u;
			for (; e < n; ++e)
			{
				for (int k = 0; k < 3; ++k)
				{
					const std::size_t i = 3 * e + k;
					const float v = s.m_Vel[i] + ((s.m_Vel[i] * c.m_NegDrag[k] + c.m_Gravity[k]) * c.m_Dt[k]);
					s.m_Vel[i] = v;
					s.m_Pos[i] = TruncFrac((s.m_Pos[i] + v * c.m_Dt[k]) * rBox[k]) * c.m_Box[k];
				}
				const float phase = TruncFrac((s.m_Phase[e] + s.m_Spin[e] * c.m_Dt1) * rTwoPi) * c.m_TwoPi;
				s.m_Phase[e] = phase;
				const std::int32_t lit = TruncFrac(phase / s.m_Period[e]) * s.m_Period[e] < c.m_Duty ? -1 : 0;
				const std::int32_t age = std::int32_t(std::uint32_t(s.m_Age[e]) + std::uint32_t(c.m_One));
				s.m_Age[e] = age;
				const std::int32_t expired = age > s.m_Lifetime[e] ? -1 : 0;
				s.m_Expired[e] = expired;
				const std::int32_t ticks = byTicks.m.Quotient(age);
				const std::int32_t frame = std::int32_t(std::uint32_t(ticks) - std::uint32_t(byFrames.m.Quotient(ticks)) * std::uint32_t(c.m_Frames));
				std::uint32_t seed = std::uint32_t(s.m_Seed[e]);
				seed ^= seed << shiftAs;
				seed ^= seed >> shiftBs;
				seed ^= seed << shiftCs;
				s.m_Seed[e] = std::int32_t(seed);
				const std::int32_t variant = std::int32_t((seed >> (std::uint32_t(c.m_VariantShift) & 31u)) << (std::uint32_t(c.m_FlagsShift) & 31u));
				s.m_Flags[e] = ((frame | variant) | (lit & c.m_LitBit)) | (expired & c.m_ExpiredBit);
			}
		}
	}

	const SBaselineSet kBaselineSSE2 = [] {
		SBaselineSet set;
		set.m_Name = "sse2";
		OX_BENCH_FILL_W1_TO_W10(set);
		set.m_W12 = &W12;
		set.m_W13 = &W13;
		return set;
	}();
}
