// The plain loops at -O3, vectorised by the compiler for this machine's own instruction
// set (CMakeLists.txt: -march=native, in the ox_bench_native library).
#define OX_BENCH_LOOPS_NAMESPACE AutoVecNativeLoops
#define OX_BENCH_LOOPS_NAME "autovec_native"
#include "baseline_loops.h"

// Made on first use, not at load: code of this library may use any instruction of the
// build machine, and ox_bench --icount runs under valgrind, which does not emulate them all.
const OxBench::SBaselineSet &OxBench::BaselineAutoVecNative()
{
	static const SBaselineSet s_Set = AutoVecNativeLoops::Set();
	return s_Set;
}
