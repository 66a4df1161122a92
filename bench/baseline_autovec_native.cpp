// The plain loops at -O3, vectorised by the compiler for this machine's own instruction
// set (CMakeLists.txt: -march=native, in the ox_bench_native library).
#define OX_BENCH_LOOPS_NAMESPACE AutoVecNativeLoops
#define OX_BENCH_LOOPS_SET kBaselineAutoVecNative
#define OX_BENCH_LOOPS_NAME "autovec_native"
#include "baseline_loops.h"

const OxBench::SBaselineSet &OxBench::BaselineAutoVecNative()
{
	return kBaselineAutoVecNative;
}
