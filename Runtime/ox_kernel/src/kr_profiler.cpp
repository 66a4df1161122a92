#include "kr_profiler.h"

#include <algorithm>
#include <chrono>
#include <cstring>

namespace Orvex
{
	namespace Profiler
	{
		namespace
		{
			thread_local CHazards t_Hazards;

			u32 _HomeSlot(const SNodeDescriptor *descriptor)
			{
				const u64 key = reinterpret_cast<std::uintptr_t>(descriptor) >> 3;
				return u32((key * 0x9E3779B97F4A7C15ull) >> 40) % CProfiler::kMaxNodes;
			}
		}

		u64 NowNanoseconds()
		{
			return u64(std::chrono::duration_cast<std::chrono::nanoseconds>(std::chrono::steady_clock::now().time_since_epoch()).count());
		}

		void CProfiler::Record(const SNodeDescriptor &descriptor, u64 nanoseconds)
		{
			// Open addressing keyed by the descriptor's address; a slot, once claimed, keeps
			// its descriptor for the life of the profiler, so lookups need no lock.
			const u32 home = _HomeSlot(&descriptor);
			for (u32 probe = 0; probe < kMaxNodes; ++probe)
			{
				SSlot &slot = m_Slots[(home + probe) % kMaxNodes];
				const SNodeDescriptor *owner = slot.m_Descriptor.load(std::memory_order_acquire);
				if (owner == nullptr)
				{
					const SNodeDescriptor *expected = nullptr;
					if (slot.m_Descriptor.compare_exchange_strong(expected, &descriptor, std::memory_order_acq_rel))
						owner = &descriptor;
					else
						owner = expected;
				}
				if (owner == &descriptor)
				{
					slot.m_Count.fetch_add(1, std::memory_order_relaxed);
					slot.m_TotalNanoseconds.fetch_add(nanoseconds, std::memory_order_relaxed);
					return;
				}
			}
			m_Dropped.fetch_add(1, std::memory_order_relaxed);
		}

		const CProfiler::SSlot *CProfiler::_Find(const SNodeDescriptor &descriptor) const
		{
			const u32 home = _HomeSlot(&descriptor);
			for (u32 probe = 0; probe < kMaxNodes; ++probe)
			{
				const SSlot &slot = m_Slots[(home + probe) % kMaxNodes];
				const SNodeDescriptor *owner = slot.m_Descriptor.load(std::memory_order_acquire);
				if (owner == &descriptor)
					return &slot;
				if (owner == nullptr)
					return nullptr;
			}
			return nullptr;
		}

		SNodeStats CProfiler::Stats(const SNodeDescriptor &descriptor) const
		{
			SNodeStats stats;
			stats.m_Descriptor = &descriptor;
			if (const SSlot *slot = _Find(descriptor))
			{
				stats.m_Count = slot->m_Count.load(std::memory_order_relaxed);
				stats.m_TotalNanoseconds = slot->m_TotalNanoseconds.load(std::memory_order_relaxed);
			}
			return stats;
		}

		bool CProfiler::FindByName(const char *name, SNodeStats &out) const
		{
			out = SNodeStats();
			bool found = false;
			for (const SSlot &slot : m_Slots)
			{
				const SNodeDescriptor *owner = slot.m_Descriptor.load(std::memory_order_acquire);
				if (owner == nullptr || std::strcmp(owner->m_Name, name) != 0)
					continue;
				found = true;
				out.m_Descriptor = owner;
				out.m_Count += slot.m_Count.load(std::memory_order_relaxed);
				out.m_TotalNanoseconds += slot.m_TotalNanoseconds.load(std::memory_order_relaxed);
			}
			return found;
		}

		u32 CProfiler::Snapshot(SNodeStats *out, u32 capacity) const
		{
			u32 count = 0;
			for (const SSlot &slot : m_Slots)
			{
				const SNodeDescriptor *owner = slot.m_Descriptor.load(std::memory_order_acquire);
				if (owner == nullptr || count == capacity)
					continue;
				out[count++] = {owner, slot.m_Count.load(std::memory_order_relaxed), slot.m_TotalNanoseconds.load(std::memory_order_relaxed)};
			}
			return count;
		}

		void CProfiler::Reset()
		{
			for (SSlot &slot : m_Slots)
			{
				slot.m_Count.store(0, std::memory_order_relaxed);
				slot.m_TotalNanoseconds.store(0, std::memory_order_relaxed);
			}
			m_Dropped.store(0, std::memory_order_relaxed);
		}

		void CProfiler::Print(std::FILE *out) const
		{
			SNodeStats nodes[kMaxNodes];
			const u32 count = Snapshot(nodes, kMaxNodes);
			std::sort(nodes, nodes + count, [](const SNodeStats &a, const SNodeStats &b) { return a.m_TotalNanoseconds > b.m_TotalNanoseconds; });
			std::fprintf(out, "%-32s %12s %14s %12s\n", "scope", "count", "total ms", "mean ns");
			for (u32 i = 0; i < count; ++i)
			{
				const SNodeStats &node = nodes[i];
				if (node.m_Count == 0)
					continue;
				std::fprintf(out, "%-32s %12llu %14.3f %12.1f\n", node.m_Descriptor->m_Name, (unsigned long long)node.m_Count,
							 double(node.m_TotalNanoseconds) * 1.0e-6, double(node.m_TotalNanoseconds) / double(node.m_Count));
			}
		}

		CHazards &CHazards::CurrentThreadHazards()
		{
			return t_Hazards;
		}

		void CHazards::Reset()
		{
			for (u32 &counter : m_Counters)
				counter = 0;
		}
	}
}
