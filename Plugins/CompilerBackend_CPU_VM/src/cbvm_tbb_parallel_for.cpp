#include "cbvm_tbb_parallel_for.h"

#include <tbb/blocked_range.h>
#include <tbb/parallel_for.h>
#include <tbb/task_arena.h>

namespace Orvex
{
	namespace CBVM
	{
		struct CTbbParallelFor::SArena
		{
			tbb::task_arena m_Arena;
			explicit SArena(int threads) : m_Arena(threads) {}
		};

		CTbbParallelFor::CTbbParallelFor(u32 threads)
		: m_Arena(new SArena(threads == 0 ? tbb::task_arena::automatic : int(threads)))
		{
			m_Arena->m_Arena.initialize();
			m_Threads = u32(m_Arena->m_Arena.max_concurrency());
		}

		CTbbParallelFor::~CTbbParallelFor() = default;

		void CTbbParallelFor::_For(void *self, u32 count, SParallelFor::FnBody body, void *bodyContext)
		{
			CTbbParallelFor &me = *static_cast<CTbbParallelFor *>(self);
			me.m_Arena->m_Arena.execute([&] {
				tbb::parallel_for(tbb::blocked_range<u32>(0, count, 1), [&](const tbb::blocked_range<u32> &range) { body(bodyContext, range.begin(), range.end()); });
			});
		}
	}
}
