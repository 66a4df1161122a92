// The oneTBB parallel-for (cbvm_tbb_parallel_for.h): Threads() is the number of threads
// that run the batches, however many were asked for, and oneTBB has nothing to warn
// about. Built only with oneTBB (tests/CMakeLists.txt).

#include "cbvm_tbb_parallel_for.h"

#include <tbb/global_control.h>
#include <tbb/info.h>

#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <mutex>
#include <set>
#include <string>
#include <thread>
#include <vector>

namespace
{
	using namespace Orvex;

	std::size_t Limit() { return tbb::global_control::active_value(tbb::global_control::max_allowed_parallelism); }

	// Runs 'count' batches, each a short spin so that every thread of the arena can take
	// some; returns the distinct threads that ran them and checks that each ran once.
	std::size_t RunBatches(CBVM::CTbbParallelFor &pool, u32 count)
	{
		struct SState
		{
			std::vector<std::atomic<u32>> m_Runs;
			std::mutex m_Lock;
			std::set<std::thread::id> m_Threads;
			explicit SState(u32 n) : m_Runs(n) {}
		} state(count);
		CBVM::SParallelFor parallel = pool.ParallelFor();
		parallel.m_For(parallel.m_Host, count, [](void *context, u32 begin, u32 end) {
			SState &s = *static_cast<SState *>(context);
			for (u32 i = begin; i < end; ++i)
			{
				volatile u32 spin = 0;
				for (u32 k = 0; k < 20000; ++k)
					spin = spin + k;
				s.m_Runs[i].fetch_add(1);
			}
			const std::lock_guard<std::mutex> lock(s.m_Lock);
			s.m_Threads.insert(std::this_thread::get_id());
		}, &state);
		for (u32 i = 0; i < count; ++i)
			EXPECT_EQ(state.m_Runs[i].load(), 1u) << "batch " << i;
		return state.m_Threads.size();
	}

	// Makes a pool of 'asked' threads and runs batches on it with stderr captured: what
	// Threads() said, how many threads ran, and what was printed.
	struct SPoolRun
	{
		u32 m_Threads;
		std::size_t m_Ran;
		std::string m_Stderr;
	};
	SPoolRun MakeAndRun(u32 asked)
	{
		SPoolRun run;
		testing::internal::CaptureStderr();
		{
			CBVM::CTbbParallelFor pool(asked);
			run.m_Threads = pool.Threads();
			run.m_Ran = RunBatches(pool, 256);
		}
		run.m_Stderr = testing::internal::GetCapturedStderr();
		return run;
	}

	TEST(TbbParallelFor, MoreThreadsThanTheMachineRunsReportsTheThreadsThatRun)
	{
		const std::size_t limit = Limit();
		const SPoolRun run = MakeAndRun(64);
		EXPECT_EQ(run.m_Threads, u32(std::min<std::size_t>(64, limit))) << "oneTBB runs at most " << limit << " threads here";
		EXPECT_LE(run.m_Ran, std::size_t(run.m_Threads));
		EXPECT_EQ(run.m_Stderr, "");
	}

	TEST(TbbParallelFor, EveryCoreByDefault)
	{
		const SPoolRun run = MakeAndRun(0);
		EXPECT_EQ(run.m_Threads, u32(std::min<std::size_t>(std::size_t(tbb::info::default_concurrency()), Limit())));
		EXPECT_LE(run.m_Ran, std::size_t(run.m_Threads));
		EXPECT_EQ(run.m_Stderr, "");
	}

	TEST(TbbParallelFor, OneThreadAskedIsOneThread)
	{
		const SPoolRun run = MakeAndRun(1);
		EXPECT_EQ(run.m_Threads, 1u);
		EXPECT_EQ(run.m_Ran, 1u);
		EXPECT_EQ(run.m_Stderr, "");
	}

	// A host's own limit (a global_control) caps the pool the same way, whatever the
	// machine: below the cores (1) and above them (3 on a 2-core machine: oneTBB then runs
	// 3 threads, more than the cores).
	TEST(TbbParallelFor, AHostLimitCapsThePool)
	{
		for (const std::size_t hostLimit : {std::size_t(1), std::size_t(3)})
		{
			const tbb::global_control control(tbb::global_control::max_allowed_parallelism, hostLimit);
			ASSERT_EQ(Limit(), hostLimit);
			for (const u32 asked : {0u, 2u, 64u})
			{
				const SPoolRun run = MakeAndRun(asked);
				const std::size_t wanted = asked == 0 ? std::min<std::size_t>(std::size_t(tbb::info::default_concurrency()), hostLimit)
													  : std::min<std::size_t>(asked, hostLimit);
				EXPECT_EQ(run.m_Threads, u32(wanted)) << "limit " << hostLimit << ", asked " << asked;
				EXPECT_LE(run.m_Ran, std::size_t(run.m_Threads)) << "limit " << hostLimit << ", asked " << asked;
				// Without the cap oneTBB says "The request for 63 workers is ignored" here.
				EXPECT_EQ(run.m_Stderr, "") << "limit " << hostLimit << ", asked " << asked;
			}
		}
	}
}
