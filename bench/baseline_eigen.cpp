// Eigen at the default x86-64 target: it vectorises with SSE2 where it can.
#define OX_BENCH_EIGEN_NAMESPACE EigenSse2
#define OX_BENCH_EIGEN_NAME "eigen"
#include "baseline_eigen_kernels.h"

const OxBench::SBaselineSet OxBench::kBaselineEigen = OxBench::EigenSse2::Set();

const char *OxBench::EigenVersion()
{
#define OX_BENCH_STR2(x) #x
#define OX_BENCH_STR(x) OX_BENCH_STR2(x)
	return OX_BENCH_STR(EIGEN_WORLD_VERSION) "." OX_BENCH_STR(EIGEN_MAJOR_VERSION) "." OX_BENCH_STR(EIGEN_MINOR_VERSION);
}
