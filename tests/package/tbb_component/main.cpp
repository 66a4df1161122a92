// Links Orvex::cbvm_tbb as a host would, and says how many threads a pool asked for 64
// runs: at most what oneTBB runs on this machine.
#include <cbvm_tbb_parallel_for.h>

#include <cstdio>

int main()
{
	Orvex::CBVM::CTbbParallelFor pool(64);
	std::printf("tbb_host: %u threads\n", pool.Threads());
	return pool.Threads() >= 1 && pool.Threads() <= 64 ? 0 : 1;
}
