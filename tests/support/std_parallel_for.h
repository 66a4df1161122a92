#pragma once
// A parallel-for over std::threads for the batched-run tests: 'threads' workers (the
// calling thread among them) take chunks of 'chunk' batches from a shared counter, so
// that the batches of one run land on different threads in an order that changes from
// run to run. ThreadSanitizer sees every access (a oneTBB pool is not instrumented).

#include "cbvm_batch_runner.h"

#include <algorithm>
#include <atomic>
#include <thread>
#include <vector>

namespace OxTest
{
	struct SStdParallelFor
	{
		Orvex::u32 m_Threads;
		Orvex::u32 m_Chunk;

		static void For(void *host, Orvex::u32 count, Orvex::CBVM::SParallelFor::FnBody body, void *context)
		{
			const SStdParallelFor &self = *static_cast<const SStdParallelFor *>(host);
			std::atomic<Orvex::u32> next{0};
			auto work = [&]() {
				for (;;)
				{
					const Orvex::u32 begin = next.fetch_add(self.m_Chunk);
					if (begin >= count)
						return;
					body(context, begin, std::min(count, begin + self.m_Chunk));
				}
			};
			std::vector<std::thread> workers;
			for (Orvex::u32 t = 1; t < self.m_Threads; ++t)
				workers.emplace_back(work);
			work();
			for (std::thread &worker : workers)
				worker.join();
		}

		Orvex::CBVM::SParallelFor ParallelFor() { return Orvex::CBVM::SParallelFor{&SStdParallelFor::For, this}; }
	};
}
