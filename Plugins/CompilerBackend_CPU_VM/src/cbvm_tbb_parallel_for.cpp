#include "cbvm_tbb_parallel_for.h"

#include <tbb/blocked_range.h>
#include <tbb/global_control.h>
#include <tbb/info.h>
#include <tbb/parallel_for.h>
#include <tbb/task_arena.h>

#include <algorithm>

namespace Orvex
{
	namespace CBVM
	{
		namespace
		{
			// The arena's size: the threads asked for (0: the cores this process may use), at
			// most the threads oneTBB runs in all (max_allowed_parallelism: those cores too,
			// unless the host set another limit with a global_control). An arena asked for
			// more reports the size asked for but runs no more threads than that limit, and
			// oneTBB prints a warning of its own ("The request for 63 workers is ignored")
			// when it first asks for the missing workers: the arena is never made larger.
			int ArenaSize(u32 threads)
			{
				const std::size_t asked = threads != 0 ? threads : std::size_t(std::max(1, tbb::info::default_concurrency()));
				const std::size_t limit = tbb::global_control::active_value(tbb::global_control::max_allowed_parallelism);
				return int(std::max<std::size_t>(1, std::min(asked, limit)));
			}
		}

		struct CTbbParallelFor::SArena
		{
			tbb::task_arena m_Arena;
			explicit SArena(int threads) : m_Arena(threads) {}
		};

		CTbbParallelFor::CTbbParallelFor(u32 threads)
		: m_Arena(new SArena(ArenaSize(threads)))
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
