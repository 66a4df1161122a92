// The plain loops at -O3, vectorised by the compiler for the default x86-64 target (SSE2).
#define OX_BENCH_LOOPS_NAMESPACE AutoVecLoops
#define OX_BENCH_LOOPS_NAME "autovec"
#include "baseline_loops.h"

const OxBench::SBaselineSet OxBench::kBaselineAutoVec = OxBench::AutoVecLoops::Set();
