#pragma once
// Scope profiler and per-thread hazard counters.
//
// A scope is described by a function-local static SNodeDescriptor (built once under
// the language's thread-safe static initialisation) and timed by a CScopedNode.
// The profiler keeps, per descriptor, how many times the scope was entered and the
// total time spent in it: lock-free, fixed-size, no heap.
//
//   static const Profiler::SNodeDescriptor desc("MyScope", __FILE__, TVector<float, 4>{{1, 0, 0, 1}}, 0);
//   Profiler::CScopedNode node(Profiler::MainEngineProfiler(), desc, true);
//
// Hazards are cheap per-thread counters of "legal but slow" events, which tests and
// tools read back after a run.

#include "kr_base_types.h"
#include "mt_vector.h"

#include <atomic>
#include <cstdio>

namespace Orvex
{
	namespace Profiler
	{
		struct SNodeDescriptor
		{
			enum EFlags : u32
			{
				None = 0,
				Idle = 0x10000000,
				Update = 0x20000000,
				Frame = 0x40000000,
				Mask_User = 0xFFFF,
				Mask_Reserved = 0x0FFF0000,
			};

			// constexpr: a descriptor built from constants is constant-initialised, so the
			// function-local static of a scope costs no guard test per call.
			constexpr SNodeDescriptor(const char *name, const char *file, const TVector<float, 4> &color, u32 flags)
			: m_Name(name), m_File(file), m_Color(color), m_Flags(flags) {}

			const char *m_Name;
			const char *m_File;
			TVector<float, 4> m_Color;
			u32 m_Flags;
		};

		struct SNodeStats
		{
			const SNodeDescriptor *m_Descriptor = nullptr;
			u64 m_Count = 0;
			u64 m_TotalNanoseconds = 0;
		};

		class CProfiler : CNonCopyable
		{
		public:
			static constexpr u32 kMaxNodes = 256;

			constexpr CProfiler() = default;

			void SetEnabled(bool enabled) { m_Enabled.store(enabled, std::memory_order_relaxed); }
			bool Enabled() const { return m_Enabled.load(std::memory_order_relaxed); }

			// Adds one entry of 'nanoseconds' to the descriptor's node. Thread-safe.
			void Record(const SNodeDescriptor &descriptor, u64 nanoseconds);

			// Stats of one descriptor (zero counts when it was never recorded).
			SNodeStats Stats(const SNodeDescriptor &descriptor) const;
			// Sum over every descriptor named 'name'; false when none was recorded.
			bool FindByName(const char *name, SNodeStats &out) const;
			// Copies up to 'capacity' recorded nodes into 'out', returns how many.
			u32 Snapshot(SNodeStats *out, u32 capacity) const;
			// Entries that did not fit in the table.
			u64 Dropped() const { return m_Dropped.load(std::memory_order_relaxed); }

			// Zeroes every counter; descriptors stay known.
			void Reset();
			// One line per node, by total time: name, count, total and mean time.
			void Print(std::FILE *out) const;

		private:
			struct SSlot
			{
				std::atomic<const SNodeDescriptor *> m_Descriptor{nullptr};
				std::atomic<u64> m_Count{0};
				std::atomic<u64> m_TotalNanoseconds{0};
			};

			const SSlot *_Find(const SNodeDescriptor &descriptor) const;

			SSlot m_Slots[kMaxNodes] = {};
			std::atomic<u64> m_Dropped{0};
			std::atomic<bool> m_Enabled{true};
		};

		namespace _Detail
		{
			inline CProfiler g_MainEngineProfiler;	// constant-initialised
		}

		// The process-wide profiler (enabled by default; never null). Inline: a scope on a
		// hot path pays one flag test when the profiler is disabled, not a call.
		inline CProfiler *MainEngineProfiler() { return &_Detail::g_MainEngineProfiler; }

		// Monotonic clock used by the scopes, in nanoseconds.
		u64 NowNanoseconds();

		class CScopedNode : CNonCopyable
		{
		public:
			// Records nothing when 'enabled' is false, 'profiler' is null or disabled.
			CScopedNode(CProfiler *profiler, const SNodeDescriptor &descriptor, bool enabled)
			: m_Profiler(profiler != nullptr && enabled && profiler->Enabled() ? profiler : nullptr)
			, m_Descriptor(&descriptor)
			, m_Start(m_Profiler != nullptr ? NowNanoseconds() : 0) {}

			~CScopedNode()
			{
				if (m_Profiler != nullptr)
					m_Profiler->Record(*m_Descriptor, NowNanoseconds() - m_Start);
			}

		private:
			CProfiler *m_Profiler;
			const SNodeDescriptor *m_Descriptor;
			u64 m_Start;
		};

		class CHazards
		{
		public:
			enum ECounter : u32
			{
				Hazard_Generic = 0,
				Hazard_SlowStrides = 1,		// float kernels: "slow codepath taken, bad strides"
				Hazard_ScalarFallback = 2,	// integer kernels: per-lane division, modulo or shift over whole blocks
				__MaxHazards = 4,
			};

			// The calling thread's counters.
			static CHazards &CurrentThreadHazards();

			void Increment(ECounter counter) { ++m_Counters[counter]; }
			u32 Get(ECounter counter) const { return m_Counters[counter]; }
			void Reset();

			u32 m_Counters[__MaxHazards] = {};
		};
		static_assert(CHazards::Hazard_SlowStrides == 1, "the slow-stride count is the second counter");
	}
}
