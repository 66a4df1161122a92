// The plain loops: what an engine developer writes first. This file has no include
// guard on purpose: baseline_scalar.cpp, baseline_autovec.cpp and
// baseline_autovec_native.cpp each include it once, with OX_BENCH_LOOPS_NAMESPACE and
// OX_BENCH_LOOPS_NAME naming their copy, and the build gives the first
// -fno-tree-vectorize, the second -O3 (SSE2 target), the third -O3 -march=native.
//
// Integer add and multiply go through uint32_t so that they wrap without undefined
// behaviour, as the VM's do. Float modulo by a constant uses one reciprocal and a
// truncation, valid while |a / c| < 2^31 (the VM guards that range; these loops do not).

#include "baseline_divisor.h"
#include "bench_baselines.h"

#include <cmath>
#include <cstddef>
#include <cstdint>
#include <cstring>

namespace OxBench
{
	namespace OX_BENCH_LOOPS_NAMESPACE
	{
		void W1(float *__restrict o, const float *__restrict a, const float *__restrict b, std::size_t n)
		{
			for (std::size_t i = 0; i < n; ++i)
				o[i] = a[i] + b[i];
		}

		void W2(float *__restrict o, const float *__restrict a, const float *__restrict c, std::size_t n)
		{
			const float cx = c[0], cy = c[1], cz = c[2];
			for (std::size_t i = 0; i < n; ++i)
			{
				o[3 * i + 0] = a[3 * i + 0] * cx;
				o[3 * i + 1] = a[3 * i + 1] * cy;
				o[3 * i + 2] = a[3 * i + 2] * cz;
			}
		}

		void W3(float *__restrict o, const float *__restrict a, const float *__restrict b, std::size_t n)
		{
			for (std::size_t i = 0; i < 4 * n; ++i)
				o[i] = a[i] / b[i];
		}

		void W4(std::uint32_t *__restrict o, const float *__restrict a, const float *__restrict b, std::size_t n)
		{
			for (std::size_t i = 0; i < n; ++i)
				o[i] = a[i] < b[i] ? 0xFFFFFFFFu : 0u;
		}

		void W5(float *__restrict o, const float *__restrict a, float c, std::size_t n)
		{
			const float r = 1.0f / c;
			for (std::size_t i = 0; i < n; ++i)
			{
				const float q = a[i] * r;
				o[i] = (q - float(std::int32_t(q))) * c;
			}
		}

		void W6(std::int32_t *__restrict o, const std::int32_t *__restrict a, const std::int32_t *__restrict b, std::size_t n)
		{
			for (std::size_t i = 0; i < n; ++i)
				o[i] = std::int32_t(std::uint32_t(a[i]) + std::uint32_t(b[i]));
		}

		void W7(std::int32_t *__restrict o, const std::int32_t *__restrict a, const std::int32_t *__restrict b, std::size_t n)
		{
			for (std::size_t i = 0; i < n; ++i)
				o[i] = std::int32_t(std::uint32_t(a[i]) * std::uint32_t(b[i]));
		}

		void W8(std::int32_t *__restrict o, const std::int32_t *__restrict a, std::int32_t d, std::size_t n)
		{
			for (std::size_t i = 0; i < n; ++i)
				o[i] = a[i] / d;
		}

		void W9(std::int32_t *__restrict o, const std::int32_t *__restrict a, const std::int32_t *__restrict b, std::size_t n)
		{
			for (std::size_t i = 0; i < n; ++i)
				o[i] = a[i] / b[i];
		}

		void W10(float *__restrict p, float *__restrict v, const float *__restrict g, const float *__restrict dt, std::size_t n)
		{
			const float gx = g[0] * dt[0], gy = g[1] * dt[1], gz = g[2] * dt[2];
			const float dx = dt[0], dy = dt[1], dz = dt[2];
			for (std::size_t i = 0; i < n; ++i)
			{
				float *pe = p + 3 * i;
				float *ve = v + 3 * i;
				ve[0] += gx;
				ve[1] += gy;
				ve[2] += gz;
				pe[0] += ve[0] * dx;
				pe[1] += ve[1] * dy;
				pe[2] += ve[2] * dz;
			}
		}

		// W12 fused into one pass over the particles, the program's operations in its order.
		// The loop takes its streams as __restrict parameters and its constants as locals, so
		// that the compiler knows no store of the loop changes an operand it reads.
		struct SW12Constants
		{
			float gdt[3], negK[3], wind[3], negDrag[3], dt[3], boxMin[3], boxMax[3], zero[3];
			std::int32_t one, youngAge, midAge, colourYoung, colourMid, colourOld;
		};

		void W12Loop(float *__restrict pos, float *__restrict vel, std::uint32_t *__restrict outside, std::int32_t *__restrict ages,
					 const std::int32_t *__restrict lifetime, std::uint32_t *__restrict expired, std::int32_t *__restrict colour, const SW12Constants c, std::size_t n)
		{
			for (std::size_t e = 0; e < n; ++e)
			{
				for (int k = 0; k < 3; ++k)
				{
					const std::size_t i = 3 * e + k;
					float v = vel[i];
					const float f = (pos[i] * c.negK[k] + (v - c.wind[k]) * c.negDrag[k]) * c.dt[k];
					v = (v + f) + c.gdt[k];
					const float p = pos[i] + v * c.dt[k];
					vel[i] = v;
					pos[i] = p;
					const std::uint32_t down = (p < c.boxMin[k] ? 0xFFFFFFFFu : 0u) & (v < c.zero[k] ? 0xFFFFFFFFu : 0u);
					const std::uint32_t up = (p > c.boxMax[k] ? 0xFFFFFFFFu : 0u) & (v > c.zero[k] ? 0xFFFFFFFFu : 0u);
					outside[i] = down | up;
				}
				const std::int32_t age = std::int32_t(std::uint32_t(ages[e]) + std::uint32_t(c.one));
				ages[e] = age;
				expired[e] = age > lifetime[e] ? 0xFFFFFFFFu : 0u;
				const std::int32_t young = age < c.youngAge ? -1 : 0, mid = age < c.midAge ? -1 : 0;
				colour[e] = (young & c.colourYoung) | ((young ^ mid) & c.colourMid) | (~mid & c.colourOld);
			}
		}

		void W12(const SParticleStreams &s, const SParticleConstants &c, std::size_t n)
		{
			SW12Constants k;
			for (int j = 0; j < 3; ++j)
			{
				k.gdt[j] = c.m_Gravity[j] * c.m_Dt[j];
				k.negK[j] = c.m_NegK[j], k.wind[j] = c.m_Wind[j], k.negDrag[j] = c.m_NegDrag[j], k.dt[j] = c.m_Dt[j];
				k.boxMin[j] = c.m_BoxMin[j], k.boxMax[j] = c.m_BoxMax[j], k.zero[j] = c.m_Zero[j];
			}
			k.one = c.m_One, k.youngAge = c.m_YoungAge, k.midAge = c.m_MidAge;
			k.colourYoung = c.m_ColourYoung, k.colourMid = c.m_ColourMid, k.colourOld = c.m_ColourOld;
			W12Loop(s.m_Pos, s.m_Vel, s.m_Outside, s.m_Age, s.m_Lifetime, s.m_Expired, s.m_Colour, k, n);
		}

		// The VM's float modulo of q = a * (1 / c) or a / b: the fraction of q, +0 where the
		// 32-bit truncation does not hold it (|q| >= 2^31, NaN). q is cleared first there, by
		// masking its bits rather than by a select, which the compiler would turn into a
		// branch around the conversion (and then not vectorise the loop); the conversion
		// never sees an out-of-range value.
		inline float TruncFrac(float q)
		{
			std::uint32_t bits;
			std::memcpy(&bits, &q, 4);
			bits &= 0u - std::uint32_t(std::fabs(q) < 2147483648.0f);
			float inRange;
			std::memcpy(&inRange, &bits, 4);
			return inRange - float(std::int32_t(inRange));
		}

		// W13 fused into one pass over the sprites, the program's operations in its order,
		// written like W12's.
		struct SW13Constants
		{
			float g[3], dt[3], negDrag[3], box[3], rBox[3];
			float dt1, twoPi, rTwoPi, duty;
			SMagicDivisor byTicks, byFrames;
			std::uint32_t one, frames, shiftA, shiftB, shiftC, variantShift, flagsShift;
			std::int32_t litBit, expiredBit;
		};

		void W13Loop(float *__restrict pos, float *__restrict vel, float *__restrict phases, const float *__restrict spin, const float *__restrict period,
					 std::int32_t *__restrict ages, const std::int32_t *__restrict lifetime, std::int32_t *__restrict seeds, std::int32_t *__restrict expiredOut,
					 std::int32_t *__restrict flagsOut, const SW13Constants c, std::size_t n)
		{
			for (std::size_t e = 0; e < n; ++e)
			{
				for (int k = 0; k < 3; ++k)
				{
					const std::size_t i = 3 * e + k;
					const float v = vel[i] + ((vel[i] * c.negDrag[k] + c.g[k]) * c.dt[k]);
					vel[i] = v;
					pos[i] = TruncFrac((pos[i] + v * c.dt[k]) * c.rBox[k]) * c.box[k];
				}
				const float phase = TruncFrac((phases[e] + spin[e] * c.dt1) * c.rTwoPi) * c.twoPi;
				phases[e] = phase;
				const float pulse = TruncFrac(phase / period[e]) * period[e];
				const std::int32_t lit = pulse < c.duty ? -1 : 0;
				const std::int32_t age = std::int32_t(std::uint32_t(ages[e]) + c.one);
				ages[e] = age;
				const std::int32_t expired = age > lifetime[e] ? -1 : 0;
				expiredOut[e] = expired;
				const std::int32_t ticks = c.byTicks.Quotient(age);
				const std::int32_t frame = std::int32_t(std::uint32_t(ticks) - std::uint32_t(c.byFrames.Quotient(ticks)) * c.frames);
				std::uint32_t seed = std::uint32_t(seeds[e]);
				seed ^= seed << c.shiftA;
				seed ^= seed >> c.shiftB;
				seed ^= seed << c.shiftC;
				seeds[e] = std::int32_t(seed);
				const std::int32_t variant = std::int32_t((seed >> c.variantShift) << c.flagsShift);
				flagsOut[e] = ((frame | variant) | (lit & c.litBit)) | (expired & c.expiredBit);
			}
		}

		void W13(const SSpriteStreams &s, const SSpriteConstants &c, std::size_t n)
		{
			SW13Constants k;
			for (int j = 0; j < 3; ++j)
			{
				k.g[j] = c.m_Gravity[j], k.dt[j] = c.m_Dt[j], k.negDrag[j] = c.m_NegDrag[j], k.box[j] = c.m_Box[j];
				k.rBox[j] = 1.0f / c.m_Box[j];
			}
			k.dt1 = c.m_Dt1, k.twoPi = c.m_TwoPi, k.rTwoPi = 1.0f / c.m_TwoPi, k.duty = c.m_Duty;
			k.byTicks = SMagicDivisor::Of(c.m_TicksPerFrame), k.byFrames = SMagicDivisor::Of(c.m_Frames);
			k.one = std::uint32_t(c.m_One), k.frames = std::uint32_t(c.m_Frames);
			k.shiftA = std::uint32_t(c.m_ShiftA) & 31u, k.shiftB = std::uint32_t(c.m_ShiftB) & 31u, k.shiftC = std::uint32_t(c.m_ShiftC) & 31u;
			k.variantShift = std::uint32_t(c.m_VariantShift) & 31u, k.flagsShift = std::uint32_t(c.m_FlagsShift) & 31u;
			k.litBit = c.m_LitBit, k.expiredBit = c.m_ExpiredBit;
			W13Loop(s.m_Pos, s.m_Vel, s.m_Phase, s.m_Spin, s.m_Period, s.m_Age, s.m_Lifetime, s.m_Seed, s.m_Expired, s.m_Flags, k, n);
		}

		// This copy's set (the including file keeps it: a global for the default target,
		// made on first use for the native build).
		SBaselineSet Set()
		{
			SBaselineSet set;
			set.m_Name = OX_BENCH_LOOPS_NAME;
			OX_BENCH_FILL_W1_TO_W10(set);
			set.m_W12 = &W12;
			set.m_W13 = &W13;
			return set;
		}
	}
}
