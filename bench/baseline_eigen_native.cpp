// Eigen built for this machine's own instruction set (CMakeLists.txt: -march=native, in
// the ox_bench_native library): 256- or 512-bit packets where the processor has them.
#define OX_BENCH_EIGEN_NAMESPACE EigenNative
#define OX_BENCH_EIGEN_NAME "eigen_native"
#include "baseline_eigen_kernels.h"

// Made on first use (see BaselineAutoVecNative).
const OxBench::SBaselineSet &OxBench::BaselineEigenNative()
{
	static const SBaselineSet s_Set = EigenNative::Set();
	return s_Set;
}
