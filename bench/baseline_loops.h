// The plain loops: what an engine developer writes first. This file has no include
// guard on purpose: baseline_scalar.cpp, baseline_autovec.cpp and
// baseline_autovec_native.cpp each include it once, with OX_BENCH_LOOPS_NAMESPACE and
// OX_BENCH_LOOPS_NAME naming their copy, and the build gives the first
// -fno-tree-vectorize, the second -O3 (SSE2 target), the third -O3 -march=native.
//
// Integer add and multiply go through uint32_t so that they wrap without undefined
// behaviour, as the VM's do. Float modulo by a constant uses one reciprocal and a
// truncation, valid while |a / c| < 2^31 (the VM guards that range; these loops do not).

#include "bench_baselines.h"

#include <cstddef>
#include <cstdint>

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

		// This copy's set (the including file keeps it: a global for the default target,
		// made on first use for the native build).
		SBaselineSet Set()
		{
			SBaselineSet set;
			set.m_Name = OX_BENCH_LOOPS_NAME;
			OX_BENCH_FILL_W1_TO_W10(set);
			return set;
		}
	}
}
