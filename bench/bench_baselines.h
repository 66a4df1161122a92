#pragma once
// The baselines of the benchmark: the same work as each workload, written the way an
// engine developer would write it without the VM. Each implementation is one set of
// kernels; a null entry means the implementation has no version of that workload.
//
// All pointers are 32-byte aligned and padded (they come from CRegisterStorage, like
// the VM's registers). Float3 and float4 streams are packed (12 and 16 bytes per
// element). Every kernel is compiled in its own translation unit, so a divisor or a
// constant passed as an argument is a run-time value there, as it is for the VM.

#include <cstddef>
#include <cstdint>

namespace OxBench
{
	// W12's particles: packed float3 positions and velocities, i32 ages (updated in
	// place), i32 lifetimes, and the masks and colours the update writes.
	struct SParticleStreams
	{
		float *m_Pos;				// float3
		float *m_Vel;				// float3
		std::int32_t *m_Age;
		const std::int32_t *m_Lifetime;
		std::uint32_t *m_Expired;	// bool: age > lifetime
		std::uint32_t *m_Outside;	// bool3: per axis, leaving the box (below its minimum moving down, or above its maximum moving up)
		std::int32_t *m_Colour;		// packed RGBA8: young, middle-aged or old
	};

	// W12's one-value operands, as the program's Constant registers hold them.
	struct SParticleConstants
	{
		const float *m_Gravity, *m_Dt, *m_NegK, *m_Wind, *m_NegDrag, *m_BoxMin, *m_BoxMax, *m_Zero;	// float3 each
		std::int32_t m_One, m_YoungAge, m_MidAge, m_ColourYoung, m_ColourMid, m_ColourOld;
	};

	// W13's sprites: packed float3 positions and velocities, float phases (updated in
	// place), per-particle spins and flicker periods, i32 ages and random seeds (updated
	// in place), i32 lifetimes, and the expiry mask and packed flags the update writes.
	struct SSpriteStreams
	{
		float *m_Pos;					// float3
		float *m_Vel;					// float3
		float *m_Phase;
		const float *m_Spin;
		const float *m_Period;
		std::int32_t *m_Age;			// in ticks
		const std::int32_t *m_Lifetime;
		std::int32_t *m_Seed;			// xorshift state
		std::int32_t *m_Expired;		// i32 mask: age > lifetime
		std::int32_t *m_Flags;			// sprite frame | variant << 4 | lit bit | expired bit
	};

	// W13's one-value operands, as the program's Constant registers hold them.
	struct SSpriteConstants
	{
		const float *m_Gravity, *m_Dt, *m_NegDrag, *m_Box;	// float3 each
		float m_Dt1, m_TwoPi, m_Duty;
		std::int32_t m_One, m_TicksPerFrame, m_Frames;		// divisors: |d| >= 2
		std::int32_t m_ShiftA, m_ShiftB, m_ShiftC, m_VariantShift, m_FlagsShift;	// counts 0..31
		std::int32_t m_LitBit, m_ExpiredBit;
	};

	struct SBaselineSet
	{
		const char *m_Name;	// short name used in benchmark names ("scalar", "autovec", ...)

		// W1  o[i] = a[i] + b[i], float
		void (*m_W1)(float *o, const float *a, const float *b, std::size_t n) = nullptr;
		// W2  o[i] = a[i] * c, float3 elements, c one float3
		void (*m_W2)(float *o, const float *a, const float *c, std::size_t n) = nullptr;
		// W3  o[i] = a[i] / b[i], float4 elements
		void (*m_W3)(float *o, const float *a, const float *b, std::size_t n) = nullptr;
		// W4  o[i] = a[i] < b[i] ? 0xFFFFFFFF : 0, float in, mask out
		void (*m_W4)(std::uint32_t *o, const float *a, const float *b, std::size_t n) = nullptr;
		// W5  o[i] = a[i] mod c, float, c one float (sign of a, frac(a / c) * c)
		void (*m_W5)(float *o, const float *a, float c, std::size_t n) = nullptr;
		// W6  o[i] = a[i] + b[i], int32 (wrapping)
		void (*m_W6)(std::int32_t *o, const std::int32_t *a, const std::int32_t *b, std::size_t n) = nullptr;
		// W7  o[i] = a[i] * b[i], int32 (wrapping)
		void (*m_W7)(std::int32_t *o, const std::int32_t *a, const std::int32_t *b, std::size_t n) = nullptr;
		// W8  o[i] = a[i] / d, int32, d one run-time divisor (truncating)
		void (*m_W8)(std::int32_t *o, const std::int32_t *a, std::int32_t d, std::size_t n) = nullptr;
		// W9  o[i] = a[i] / b[i], int32 (truncating; the inputs hold no 0 and no INT_MIN / -1)
		void (*m_W9)(std::int32_t *o, const std::int32_t *a, const std::int32_t *b, std::size_t n) = nullptr;
		// W10 particle step on float3: v += g * dt; p += v * dt (g, dt one float3 each)
		void (*m_W10)(float *p, float *v, const float *g, const float *dt, std::size_t n) = nullptr;
		// W12 particle update, the operations of the W12 program in its order, one pass:
		//   v += (p * negK + (v - wind) * negDrag) * dt; v += g * dt; p += v * dt; age += 1;
		//   expired = age > lifetime; outside = (p < boxMin & v < 0) | (p > boxMax & v > 0);
		//   colour = age < youngAge ? young : age < midAge ? mid : old
		void (*m_W12)(const SParticleStreams &s, const SParticleConstants &c, std::size_t n) = nullptr;
		// W13 sprite update, the operations of the W13 program in its order, one pass
		// (float modulo: truncFrac(a * (1 / c)) * c by a constant, truncFrac(a / b) * b by a stream):
		//   v += (v * negDrag + g) * dt; p = (p + v * dt) mod box; phase = (phase + spin * dt1) mod twoPi;
		//   lit = phase mod period < duty; age += 1; expired = age > lifetime;
		//   frame = (age / ticksPerFrame) % frames; seed = xorshift(seed);
		//   flags = frame | (seed >>> 30) << 4 | lit & litBit | expired & expiredBit
		void (*m_W13)(const SSpriteStreams &s, const SSpriteConstants &c, std::size_t n) = nullptr;
	};

	// Fills W1 to W10 of 'set' with the functions of those names in the current scope: each
	// baseline file defines them in its own namespace.
#define OX_BENCH_FILL_W1_TO_W10(set)                                                                  \
	((set).m_W1 = &W1, (set).m_W2 = &W2, (set).m_W3 = &W3, (set).m_W4 = &W4, (set).m_W5 = &W5,     \
	 (set).m_W6 = &W6, (set).m_W7 = &W7, (set).m_W8 = &W8, (set).m_W9 = &W9, (set).m_W10 = &W10)

	// The plain loops of baseline_loops.h (W12 and W13 fused into one pass each), built twice: without the vectoriser and at -O3.
	extern const SBaselineSet kBaselineScalar;
	extern const SBaselineSet kBaselineAutoVec;
	// Hand-written SSE2 intrinsics.
	extern const SBaselineSet kBaselineSSE2;
	// Eigen 3.4 array expressions over mapped buffers.
	extern const SBaselineSet kBaselineEigen;
	// libdivide 3.0, SSE2 vector division by a run-time divisor (W8 only): the default
	// (branchfull) divider and the branchfree one.
	extern const SBaselineSet kBaselineLibdivide;
	extern const SBaselineSet kBaselineLibdivideBranchfree;
	// The C library's fmodf (W5 only).
	extern const SBaselineSet kBaselineFmodf;

	// The plain loops at -O3 and Eigen, built for this machine's own instruction set
	// (-march=native): the best a compiler makes of them here, against the wide kernel
	// sets. They live in their own shared library (ox_bench_native), whose template and
	// inline code is bound inside it, so that no default-target copy of Eigen's or the
	// standard library's code is replaced by a native one at link time (or the reverse).
	// Functions, not variables: an executable's copy of a shared library's variable
	// would not be the one the library initialises once its references are bound inside.
	__attribute__((visibility("default"))) const SBaselineSet &BaselineAutoVecNative();
	__attribute__((visibility("default"))) const SBaselineSet &BaselineEigenNative();

	// Versions of the libraries as built in ("3.4.0", "3.0").
	const char *EigenVersion();
	const char *LibdivideVersion();
}
