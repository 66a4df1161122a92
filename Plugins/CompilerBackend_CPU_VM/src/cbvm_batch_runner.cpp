#include "cbvm_batch_runner.h"

#include "kr_assert.h"

#include <atomic>
#include <thread>

namespace Orvex
{
	namespace CBVM
	{
		namespace
		{
			using SRegister = CCBCPUMetaRegisters::SRegister;

			// The registers of the batch running on this thread (CBatchRunner::CurrentRegisters).
			thread_local const CCBCPUMetaRegisters *t_Current = nullptr;

			// Runs planned code (decoded when the plan was built: every opcode known, every
			// instruction whole) with each instruction's offset in the planned bytecode as
			// the instruction pointer, as a whole-stream run would show it.
			void RunCode(const CBytecodeExecContext &context, const std::vector<u8> &code, const std::vector<u32> &offsets, EExecPath path)
			{
				u32 at = 0;
				for (u32 offset : offsets)
				{
					const SEntry &entry = CInterpreter::Entry(path, code[at]);
					context.m_Registers.m_InstructionPointer = offset;
					at += entry.m_Exec(context, code.data() + at);
				}
			}

			// What every batch of one run shares.
			struct SBatches
			{
				const CBatchPlan *m_Plan;
				const CBytecodeExecContext *m_Context;
				EExecPath m_Path;
				std::thread::id m_Caller;
				std::atomic<u32> m_Hazards[Profiler::CHazards::__MaxHazards];	// counted on other threads
			};
		}

		// (A friend of CBatchPlan: reads its tables.)
		struct CBatchRunnerAccess
		{
			// The parallel-for's body: batches [begin, end) of one run.
			static void RunBatches(void *batches, u32 begin, u32 end);
		};

		void CBatchRunnerAccess::RunBatches(void *batches, u32 begin, u32 end)
		{
			SBatches &run = *static_cast<SBatches *>(batches);
			const CBatchPlan &plan = *run.m_Plan;
			const u32 entries = u32(plan.m_Entries.size());

			// This call's table: on the stack, or one of the plan's; its scratch area: the
			// plan's of the same index (a free bit taken).
			SRegister stackTable[CBatchPlan::kStackEntries];
			SRegister *table = stackTable;
			u8 *scratch = nullptr;
			u32 pooled = ~0u;
			if (plan.m_PoolBodies != 0)
			{
				for (;;)
				{
					u64 free = plan.m_PoolFree.load(std::memory_order_relaxed);
					while (free != 0 && !plan.m_PoolFree.compare_exchange_weak(free, free & (free - 1), std::memory_order_acquire))
					{
					}
					if (free != 0)
					{
						pooled = u32(__builtin_ctzll(free));
						break;
					}
					std::this_thread::yield();	// more bodies at once than hardware threads
				}
				if (plan.m_Pool)
					table = plan.m_Pool.get() + std::size_t(pooled) * entries;
				if (plan.m_ScratchPool)
				{
					const std::uintptr_t base = reinterpret_cast<std::uintptr_t>(plan.m_ScratchPool.get());
					scratch = plan.m_ScratchPool.get() + ((CBatchPlan::kScratchAlign - base % CBatchPlan::kScratchAlign) % CBatchPlan::kScratchAlign) +
							  std::size_t(pooled) * plan.m_ScratchBytes;
				}
			}

			const CCBCPUMetaRegisters &whole = run.m_Context->m_Registers;
			CCBCPUMetaRegisters registers = whole;
			registers.m_Registers = table;
			const CBytecodeExecContext context(run.m_Context->m_Self, run.m_Context->m_Externals, registers, run.m_Context->m_DebugCtx);
			Profiler::CHazards &hazards = Profiler::CHazards::CurrentThreadHazards();
			const Profiler::CHazards before = hazards;
			for (u32 batch = begin; batch < end; ++batch)
			{
				const u32 first = batch * plan.m_BatchElements;
				const u32 count = batch + 1 == plan.m_BatchCount ? plan.m_Stream - first : plan.m_BatchElements;	// the last takes the rest
				for (u32 i = 0; i < entries; ++i)
				{
					const CBatchPlan::SEntryPlan &entry = plan.m_Entries[i];
					const SRegister &source = whole.m_Registers[entry.m_Source];
					const u32 skip = u32(u64(first) * entry.m_ElementSize);	// whole vectors: a multiple of 32 bytes, inside the register
					if (entry.m_Scratch != CBatchPlan::kNotScratch)
						table[i] = SRegister{scratch + entry.m_Scratch, (plan.m_BatchElements + 1) * entry.m_ElementSize};
					else
						table[i] = entry.m_ElementSize == 0 || source.m_RawData == nullptr ? source : SRegister{static_cast<u8 *>(source.m_RawData) + skip, source.m_Size - skip};
				}
				registers.m_StreamDimensions = count;
				t_Current = &registers;
				RunCode(context, plan.m_Batch, plan.m_BatchOffsets, run.m_Path);
				t_Current = nullptr;
			}
			if (std::this_thread::get_id() != run.m_Caller)
				for (u32 c = 0; c < Profiler::CHazards::__MaxHazards; ++c)
					run.m_Hazards[c] += hazards.m_Counters[c] - before.m_Counters[c];
			if (pooled != ~0u)
				plan.m_PoolFree.fetch_or(u64(1) << pooled, std::memory_order_release);
		}

		SBatchRunResult CBatchRunner::Run(const CBatchPlan &plan, const CBytecodeExecContext &context, EExecPath path, const SParallelFor &parallel)
		{
			SBatchRunResult out;
			Profiler::CHazards &hazards = Profiler::CHazards::CurrentThreadHazards();
			const Profiler::CHazards before = hazards;
			const bool sameFile = context.m_Registers.m_Registers == plan.m_Table && context.m_Registers.m_StreamDimensions == plan.m_Stream;
			OX_ASSERT_FORMAT(sameFile || !plan.m_Batched, "CBatchRunner: the register file is not the one the plan was built on (rebuild the plan)");
			if (!plan.m_Batched || !sameFile)
			{
				out.m_Run = CInterpreter::Run(context, plan.m_Whole.data(), u32(plan.m_Whole.size()), path);
				for (u32 c = 0; c < Profiler::CHazards::__MaxHazards; ++c)
					out.m_Hazards[c] = hazards.m_Counters[c] - before.m_Counters[c];
				return out;
			}
			out.m_Batched = true;
			out.m_Batches = plan.m_BatchCount;
			if (u32(path) >= __MaxExecPaths)
			{
				out.m_Run.m_Status = RunStatus_BadPath;
				return out;
			}
			RunCode(context, plan.m_Hoisted, plan.m_HoistedOffsets, path);
			SBatches run{&plan, &context, path, std::this_thread::get_id(), {}};
			if (parallel.m_For != nullptr)
				parallel.m_For(parallel.m_Host, plan.m_BatchCount, &CBatchRunnerAccess::RunBatches, &run);
			else
				CBatchRunnerAccess::RunBatches(&run, 0, plan.m_BatchCount);
			for (u32 c = 0; c < Profiler::CHazards::__MaxHazards; ++c)
			{
				hazards.m_Counters[c] += run.m_Hazards[c].load();
				out.m_Hazards[c] = hazards.m_Counters[c] - before.m_Counters[c];
			}
			out.m_Run.m_Offset = u32(plan.m_Whole.size());
			out.m_Run.m_Executed = plan.m_HoistedCount + u32(plan.m_BatchOffsets.size()) * plan.m_BatchCount;
			return out;
		}

		const CCBCPUMetaRegisters *CBatchRunner::CurrentRegisters()
		{
			return t_Current;
		}
	}
}
