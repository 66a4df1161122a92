// The C library's fmodf, one call per element: the exact remainder with the sign of the
// dividend.

#include "bench_baselines.h"

#include <cmath>

namespace OxBench
{
	namespace
	{
		void W5(float *o, const float *a, float c, std::size_t n)
		{
			for (std::size_t i = 0; i < n; ++i)
				o[i] = std::fmod(a[i], c);
		}
	}

	const SBaselineSet kBaselineFmodf = [] {
		SBaselineSet set;
		set.m_Name = "fmodf";
		set.m_W5 = &W5;
		return set;
	}();
}
