// libdivide 3.0: division of an int32 stream by one run-time divisor with its SSE2
// vector API (LIBDIVIDE_SSE2), four quotients per call; the leftover elements use the
// same divider's scalar form.

#define LIBDIVIDE_SSE2
#include <libdivide.h>

#include "bench_baselines.h"

#include <emmintrin.h>

#include <cstdint>

namespace OxBench
{
	namespace
	{
		template <typename _Divider>
		void W8(std::int32_t *o, const std::int32_t *a, std::int32_t d, std::size_t n)
		{
			const _Divider divider(d);
			std::size_t i = 0;
			for (; i + 4 <= n; i += 4)
			{
				const __m128i x = _mm_load_si128(reinterpret_cast<const __m128i *>(a + i));
				_mm_store_si128(reinterpret_cast<__m128i *>(o + i), divider.divide(x));
			}
			for (; i < n; ++i)
				o[i] = divider.divide(a[i]);
		}
	}

	const SBaselineSet kBaselineLibdivide = [] {
		SBaselineSet set;
		set.m_Name = "libdivide";
		set.m_W8 = &W8<libdivide::divider<std::int32_t>>;
		return set;
	}();

	const SBaselineSet kBaselineLibdivideBranchfree = [] {
		SBaselineSet set;
		set.m_Name = "libdivide_bf";
		set.m_W8 = &W8<libdivide::branchfree_divider<std::int32_t>>;
		return set;
	}();
}

const char *OxBench::LibdivideVersion()
{
	return LIBDIVIDE_VERSION;
}
