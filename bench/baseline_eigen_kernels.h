// Eigen 3.4 array expressions over the caller's buffers (Eigen::Map, 16-byte aligned).
// Float3 streams are 3 x n arrays (one column per element). This file has no include
// guard on purpose: baseline_eigen.cpp (default x86-64 target: Eigen vectorises with
// SSE2) and baseline_eigen_native.cpp (this machine's own instruction set) each include
// it once, with OX_BENCH_EIGEN_NAMESPACE and OX_BENCH_EIGEN_NAME naming their copy.

#include "bench_baselines.h"

#include <Eigen/Core>

#include <cstdint>

namespace OxBench
{
	namespace OX_BENCH_EIGEN_NAMESPACE
	{
		using Eigen::Aligned16;
		using Eigen::Map;
		using ArrayF = Eigen::Array<float, Eigen::Dynamic, 1>;
		using ArrayI = Eigen::Array<std::int32_t, Eigen::Dynamic, 1>;
		using Array3F = Eigen::Array<float, 3, Eigen::Dynamic>;
		using Index = Eigen::Index;

		void W1(float *o, const float *a, const float *b, std::size_t n)
		{
			Map<ArrayF, Aligned16>(o, Index(n)) = Map<const ArrayF, Aligned16>(a, Index(n)) + Map<const ArrayF, Aligned16>(b, Index(n));
		}

		void W2(float *o, const float *a, const float *c, std::size_t n)
		{
			const Eigen::Array3f k(c[0], c[1], c[2]);
			Map<Array3F, Aligned16>(o, 3, Index(n)) = Map<const Array3F, Aligned16>(a, 3, Index(n)).colwise() * k;
		}

		void W3(float *o, const float *a, const float *b, std::size_t n)
		{
			Map<ArrayF, Aligned16>(o, Index(4 * n)) = Map<const ArrayF, Aligned16>(a, Index(4 * n)) / Map<const ArrayF, Aligned16>(b, Index(4 * n));
		}

		void W4(std::uint32_t *o, const float *a, const float *b, std::size_t n)
		{
			// true (1) becomes -1: all 32 bits set.
			Map<ArrayI, Aligned16>(reinterpret_cast<std::int32_t *>(o), Index(n)) =
				-(Map<const ArrayF, Aligned16>(a, Index(n)) < Map<const ArrayF, Aligned16>(b, Index(n))).cast<std::int32_t>();
		}

		void W5(float *o, const float *a, float c, std::size_t n)
		{
			const float r = 1.0f / c;
			const Map<const ArrayF, Aligned16> x(a, Index(n));
			Map<ArrayF, Aligned16>(o, Index(n)) = (x * r - (x * r).cast<std::int32_t>().cast<float>()) * c;
		}

		void W6(std::int32_t *o, const std::int32_t *a, const std::int32_t *b, std::size_t n)
		{
			Map<ArrayI, Aligned16>(o, Index(n)) = Map<const ArrayI, Aligned16>(a, Index(n)) + Map<const ArrayI, Aligned16>(b, Index(n));
		}

		void W7(std::int32_t *o, const std::int32_t *a, const std::int32_t *b, std::size_t n)
		{
			Map<ArrayI, Aligned16>(o, Index(n)) = Map<const ArrayI, Aligned16>(a, Index(n)) * Map<const ArrayI, Aligned16>(b, Index(n));
		}

		void W8(std::int32_t *o, const std::int32_t *a, std::int32_t d, std::size_t n)
		{
			Map<ArrayI, Aligned16>(o, Index(n)) = Map<const ArrayI, Aligned16>(a, Index(n)) / d;
		}

		void W9(std::int32_t *o, const std::int32_t *a, const std::int32_t *b, std::size_t n)
		{
			Map<ArrayI, Aligned16>(o, Index(n)) = Map<const ArrayI, Aligned16>(a, Index(n)) / Map<const ArrayI, Aligned16>(b, Index(n));
		}

		void W10(float *p, float *v, const float *g, const float *dt, std::size_t n)
		{
			const Eigen::Array3f d(dt[0], dt[1], dt[2]);
			const Eigen::Array3f gdt = Eigen::Array3f(g[0], g[1], g[2]) * d;
			Map<Array3F, Aligned16> vel(v, 3, Index(n));
			Map<Array3F, Aligned16> pos(p, 3, Index(n));
			vel.colwise() += gdt;
			pos += vel.colwise() * d;
		}

		// This copy's set (the including file keeps it: a global for the default target,
		// made on first use for the native build).
		SBaselineSet Set()
		{
			SBaselineSet set;
			set.m_Name = OX_BENCH_EIGEN_NAME;
			OX_BENCH_FILL_W1_TO_W10(set);
			return set;
		}
	}
}
