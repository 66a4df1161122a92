#pragma once
// A parallel-for on oneTBB for CBatchRunner (cbvm_batch_runner.h): the optional library
// Orvex::cbvm_tbb (find_package(OrvexCBVM COMPONENTS tbb)). A host with its own job
// system writes its own SParallelFor instead and does not link this.
//
//   CTbbParallelFor threads;            // every core; or CTbbParallelFor(4)
//   CBatchRunner::Run(plan, ctx, ExecPath_Standard, threads.ParallelFor());
//
// Batches go to the threads of a task arena of the given size, a batch at a time as
// threads free up (batches of one program take the same time, but cores do not).

#include "cbvm_batch_runner.h"

#include <memory>

namespace Orvex
{
	namespace CBVM
	{
		class CTbbParallelFor
		{
		public:
			// 'threads' 0: every core the process may use. More threads than oneTBB runs in
			// all (those cores, or the limit a host set with a tbb::global_control) are not
			// asked for: the arena gets that many.
			explicit CTbbParallelFor(u32 threads = 0);
			~CTbbParallelFor();
			CTbbParallelFor(const CTbbParallelFor &) = delete;
			CTbbParallelFor &operator=(const CTbbParallelFor &) = delete;

			// The threads that run the batches: 4 asked for on a 2-core machine gives 2.
			u32 Threads() const { return m_Threads; }
			// Valid while this object lives.
			SParallelFor ParallelFor() { return SParallelFor{&CTbbParallelFor::_For, this}; }

		private:
			static void _For(void *self, u32 count, SParallelFor::FnBody body, void *bodyContext);

			struct SArena;
			std::unique_ptr<SArena> m_Arena;
			u32 m_Threads = 0;
		};
	}
}
