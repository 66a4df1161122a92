// The plain loops, scalar: CMakeLists.txt compiles this file with -fno-tree-vectorize.
#define OX_BENCH_LOOPS_NAMESPACE ScalarLoops
#define OX_BENCH_LOOPS_NAME "scalar"
#include "baseline_loops.h"

const OxBench::SBaselineSet OxBench::kBaselineScalar = OxBench::ScalarLoops::Set();
