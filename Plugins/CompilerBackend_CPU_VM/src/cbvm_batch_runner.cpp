#include "cbvm_batch_runner.h"

#include "cbvm_prepared_call.h"
#include "kr_assert.h"

#include <algorithm>
#include <atomic>
#include <memory>
#include <thread>

namespace Orvex
{
	namespace CBVM
	{
		namespace
		{
			using SRegister = CCBCPUMetaRegisters::SRegister;

			constexpr const char *kStatusNames[] = {
				"ok",
				"the plan was never built: nothing ran",
				"a register cannot hold what the program needs: nothing ran",
				"the register file changed since the plan was built: ran whole-stream (rebuild the plan)",
				"the parallel-for did not run every batch exactly once",
			};
			static_assert(sizeof(kStatusNames) / sizeof(kStatusNames[0]) == __MaxBatchRunStatuses, "a name for every status");

			// The registers of the batch running on this thread (CBatchRunner::CurrentRegisters).
			thread_local const CCBCPUMetaRegisters *t_Current = nullptr;

			// A thread's workspace: its scratch buffers and a batch's register table. Grown
			// (zeroed, padding included) when a plan needs more; kept for the thread's later
			// runs.
			class CThreadWorkspace
			{
			public:
				static constexpr std::size_t kAlign = 64;

				u8 *Reserve(std::size_t bytes)
				{
					if (bytes > m_Size)
					{
						m_Bytes.reset(new u8[bytes + kAlign]());
						m_Size = bytes;
					}
					const std::uintptr_t base = reinterpret_cast<std::uintptr_t>(m_Bytes.get());
					return m_Bytes.get() + (kAlign - base % kAlign) % kAlign;
				}

			private:
				std::unique_ptr<u8[]> m_Bytes;
				std::size_t m_Size = 0;
			};
			thread_local CThreadWorkspace t_Workspace;
			// The run whose calls this thread's workspace holds bound (a run's number, the area
			// they are bound to): a thread binds once per run, however many ranges of batches
			// the parallel-for hands it.
			std::atomic<u64> g_RunNumbers{0};
			thread_local u64 t_BoundRun = 0;
			thread_local const u8 *t_BoundArea = nullptr;

			// What the runs this thread starts prepare for their batches: the calls' set-up
			// (CPreparedCalls::Refresh) and, for a program without scratch operands, the one
			// bound copy of its calls that every thread runs. Grown when a run needs more.
			template <typename _Type>
			class TRunBuffer
			{
			public:
				_Type *Reserve(std::size_t count)
				{
					if (count > m_Size)
					{
						m_Items.reset(new _Type[count]);
						m_Size = count;
					}
					return m_Items.get();
				}

			private:
				std::unique_ptr<_Type[]> m_Items;
				std::size_t m_Size = 0;
			};
			thread_local TRunBuffer<MathOp::SCallSetup> t_Setups;
			thread_local TRunBuffer<MathOp::SPreparedCall> t_SharedCalls;

			// One bit per batch of the run the calling thread starts: which batches the
			// parallel-for ran. Kept apart from the workspace, which the caller's own
			// bodies may grow meanwhile.
			class CBatchMarks
			{
			public:
				std::atomic<u64> *Clear(u32 batches)
				{
					const std::size_t words = (std::size_t(batches) + 63) / 64;
					if (words > m_Words)
					{
						m_Marks.reset(new std::atomic<u64>[words]);
						m_Words = words;
					}
					for (std::size_t w = 0; w < words; ++w)
						m_Marks[w].store(0, std::memory_order_relaxed);
					return m_Marks.get();
				}

			private:
				std::unique_ptr<std::atomic<u64>[]> m_Marks;
				std::size_t m_Words = 0;
			};
			thread_local CBatchMarks t_Marks;

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

			// Prepared calls over elements [first, first + count), each with its offset as the
			// instruction pointer of the context's registers; with the entry points' profiler
			// nodes when the profiler records. 'prefetch' (or null) brings the next batch's
			// lines in, a slice before each call.
			template <bool _Profiled>
			void RunCallsAs(const MathOp::SPreparedCall *calls, u32 callCount, u32 first, u32 count, const CBytecodeExecContext &context, CBatchPrefetch *prefetch)
			{
				for (u32 c = 0; c < callCount; ++c)
				{
					if (prefetch != nullptr)
						prefetch->Next();
					context.m_Registers.m_InstructionPointer = calls[c].m_Offset;
					MathOp::CPreparedCalls::Run<_Profiled>(calls[c], first, count, context);
				}
			}

			void RunCalls(const MathOp::SPreparedCall *calls, u32 callCount, u32 first, u32 count, const CBytecodeExecContext &context, CBatchPrefetch *prefetch = nullptr)
			{
				if (Profiler::MainEngineProfiler()->Enabled())
					RunCallsAs<true>(calls, callCount, first, count, context, prefetch);
				else
					RunCallsAs<false>(calls, callCount, first, count, context, prefetch);
			}

			// What every batch of one run shares.
			struct SBatches
			{
				const CBatchPlan *m_Plan;
				const CBytecodeExecContext *m_Context;
				EExecPath m_Path;
				const SPreparedProgram *m_Prepared;	// null: through the entry points
				const MathOp::SCallSetup *m_Setups;	// the prepared calls' set-up for this run
				const MathOp::SPreparedCall *m_Shared;	// the calls bound for every thread, or null (scratch operands: each binds its own)
				u64 m_Number;						// this run's (g_RunNumbers)
				std::thread::id m_Caller;
				std::atomic<u32> m_Hazards[Profiler::CHazards::__MaxHazards];	// counted on other threads
				// The parallel-for's bookkeeping: a bit per batch run, and the batches run
				// twice or ranges outside [0, count).
				std::atomic<u64> *m_Marks;
				std::atomic<u32> m_Misrun{0};
			};
		}

		const char *BatchRunStatusName(EBatchRunStatus status)
		{
			return u32(status) < __MaxBatchRunStatuses ? kStatusNames[status] : "?";
		}

		// (A friend of CBatchPlan: reads its tables.)
		struct CBatchRunnerAccess
		{
			enum EFile : u8
			{
				File_Same,
				File_Changed,
				File_TooSmall,
			};
			// The file against the one Build saw; 'entry': the first register too small.
			static EFile CheckFile(const CBatchPlan &plan, const CCBCPUMetaRegisters &file, u32 &entry);
			// The parallel-for's body: batches [begin, end) of one run.
			static void RunBatches(void *batches, u32 begin, u32 end);
			static SBatchRunResult Run(const CBatchPlan &plan, const CBytecodeExecContext &context, EExecPath path, const SParallelFor &parallel);
		};

		CBatchRunnerAccess::EFile CBatchRunnerAccess::CheckFile(const CBatchPlan &plan, const CCBCPUMetaRegisters &file, u32 &entry)
		{
			bool same = file.m_Registers == plan.m_Table && file.m_StreamDimensions == plan.m_Stream;
			entry = 0;
			if (file.m_Registers == nullptr && !plan.m_Whole.empty())
				return File_TooSmall;	// no table at all: every instruction names a register
			for (const CBatchPlan::SRegisterUse &use : plan.m_Uses)
			{
				entry = use.m_Entry;
				const SRegister &now = file.m_Registers[use.m_Entry];
				const u64 need = u64(use.m_ElementSize) * (use.m_PerElement ? file.m_StreamDimensions : 1);
				if (now.m_RawData == nullptr || now.m_Size < need)
					return File_TooSmall;
				same = same && now.m_RawData == use.m_Seen.m_RawData && now.m_Size == use.m_Seen.m_Size;
			}
			return same ? File_Same : File_Changed;
		}

		void CBatchRunnerAccess::RunBatches(void *batches, u32 begin, u32 end)
		{
			SBatches &run = *static_cast<SBatches *>(batches);
			const CBatchPlan &plan = *run.m_Plan;
			if (begin > end || end > plan.m_BatchCount)
			{
				// Nothing past the count runs: it would write past the registers.
				run.m_Misrun.fetch_add(1, std::memory_order_relaxed);
				end = std::min(end, plan.m_BatchCount);
				if (begin >= end)
					return;
			}

			// This thread's workspace: the scratch area, then the batch's register table (entry
			// points) or, when the program has scratch operands, its copy of the calls bound
			// to its scratch area (prepared). A program without any runs the caller's one
			// bound copy: threads x calls would be gigabytes for a long program on a big machine.
			const SPreparedProgram *prepared = run.m_Prepared;
			const u32 calls = prepared != nullptr ? u32(prepared->m_Batch.size()) : 0u;
			const u32 entries = prepared != nullptr ? 0u : u32(plan.m_Entries.size());
			const u32 ownCalls = run.m_Shared == nullptr ? calls : 0u;
			u8 *area = t_Workspace.Reserve(std::size_t(plan.m_ScratchBytes) + std::size_t(entries) * sizeof(SRegister) + std::size_t(ownCalls) * sizeof(MathOp::SPreparedCall));
			u8 *scratch = area;
			SRegister *table = reinterpret_cast<SRegister *>(area + plan.m_ScratchBytes);
			MathOp::SPreparedCall *own = reinterpret_cast<MathOp::SPreparedCall *>(area + plan.m_ScratchBytes);
			static_assert(CBatchPlan::kScratchAlign % alignof(MathOp::SPreparedCall) == 0 && CBatchPlan::kScratchAlign % alignof(SRegister) == 0, "the tables follow the aligned scratch area");
			if (ownCalls != 0 && (t_BoundRun != run.m_Number || t_BoundArea != area))
			{
				MathOp::CPreparedCalls::Bind(prepared->m_Batch.data(), calls, scratch, run.m_Setups, own);
				t_BoundRun = run.m_Number;
				t_BoundArea = area;
			}
			else if (prepared == nullptr)
				t_BoundRun = 0;	// the batches' tables overwrite whatever calls were bound here
			const MathOp::SPreparedCall *bound = run.m_Shared != nullptr ? run.m_Shared : own;

			const CCBCPUMetaRegisters &whole = run.m_Context->m_Registers;
			CCBCPUMetaRegisters registers = whole;
			if (prepared == nullptr)
				registers.m_Registers = table;
			const CBytecodeExecContext context(run.m_Context->m_Self, run.m_Context->m_Externals, registers, run.m_Context->m_DebugCtx);
			Profiler::CHazards &hazards = Profiler::CHazards::CurrentThreadHazards();
			const Profiler::CHazards before = hazards;
			t_Current = &registers;
			auto runBatch = [&](u32 batch) {
				const u32 first = batch * plan.m_BatchElements;
				const u32 count = batch + 1 == plan.m_BatchCount ? plan.m_Stream - first : plan.m_BatchElements;	// the last takes the rest
				registers.m_StreamDimensions = count;
				if (prepared != nullptr)
				{
					if (prepared->m_Prefetch && batch + 1 < end)
					{
						const u32 nextFirst = first + count;
						CBatchPrefetch prefetch(*prepared, nextFirst, batch + 2 == plan.m_BatchCount ? plan.m_Stream - nextFirst : plan.m_BatchElements, calls);
						RunCalls(bound, calls, first, count, context, &prefetch);
					}
					else
						RunCalls(bound, calls, first, count, context);
					return;
				}
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
				RunCode(context, plan.m_Batch, plan.m_BatchOffsets, run.m_Path);
			};
			// Each batch's bit is set before it runs, 64 at a time: a batch another body
			// marked already is not run again (a second run of an in-place instruction
			// would change its words).
			for (u32 chunk = begin; chunk < end;)
			{
				const u32 word = chunk / 64, stop = std::min(end, (word + 1) * 64);
				const u64 mask = (stop - word * 64 == 64 ? ~u64(0) : (u64(1) << (stop - word * 64)) - 1) & ~((u64(1) << (chunk % 64)) - 1);
				const u64 marked = run.m_Marks[word].fetch_or(mask, std::memory_order_relaxed) & mask;
				if (marked != 0)
					run.m_Misrun.fetch_add(1, std::memory_order_relaxed);
				for (u32 batch = chunk; batch < stop; ++batch)
					if ((marked & (u64(1) << (batch % 64))) == 0)
						runBatch(batch);
				chunk = stop;
			}
			t_Current = nullptr;
			if (std::this_thread::get_id() != run.m_Caller)
				for (u32 c = 0; c < Profiler::CHazards::__MaxHazards; ++c)
					run.m_Hazards[c] += hazards.m_Counters[c] - before.m_Counters[c];
		}

		SBatchRunResult CBatchRunnerAccess::Run(const CBatchPlan &plan, const CBytecodeExecContext &context, EExecPath path, const SParallelFor &parallel)
		{
			SBatchRunResult out;
			if (!plan.m_Built)
			{
				out.m_Status = BatchRun_NotBuilt;
				return out;
			}
			const EFile file = CheckFile(plan, context.m_Registers, out.m_Entry);
			if (file == File_TooSmall)
			{
				out.m_Status = BatchRun_RegisterTooSmall;
				return out;
			}
			out.m_Status = file == File_Changed ? BatchRun_PlanStale : BatchRun_Ok;
			// Prepared calls: the standard path, the set they were prepared for, the file they point into.
			const SPreparedProgram *prepared = plan.m_Prepared.get();
			if (path != ExecPath_Standard || file != File_Same || (prepared != nullptr && prepared->m_Set != &MathOp::ActiveKernelSet()))
				prepared = nullptr;
			out.m_Prepared = prepared != nullptr;

			Profiler::CHazards &hazards = Profiler::CHazards::CurrentThreadHazards();
			const Profiler::CHazards before = hazards;
			if (!plan.m_Batched || file != File_Same)
			{
				if (prepared != nullptr)
				{
					RunCalls(prepared->m_Whole.data(), u32(prepared->m_Whole.size()), 0, context.m_Registers.m_StreamDimensions, context);
					out.m_Run = {RunStatus_Ok, u32(plan.m_Whole.size()), 0, u32(prepared->m_Whole.size())};
				}
				else
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
			MathOp::SCallSetup *setups = nullptr;
			const MathOp::SPreparedCall *shared = nullptr;
			if (prepared != nullptr)
			{
				const u32 calls = u32(prepared->m_Batch.size());
				const u32 setupCount = u32(prepared->m_SetupOwners.size());
				setups = t_Setups.Reserve(setupCount);
				MathOp::CPreparedCalls::Refresh(prepared->m_Batch.data(), prepared->m_SetupOwners.data(), setupCount, setups);
				// Without set-ups either, binding would copy the calls as they are: run them.
				if (!prepared->m_Scratch && setupCount == 0)
					shared = prepared->m_Batch.data();
				else if (!prepared->m_Scratch)
				{
					MathOp::SPreparedCall *bound = t_SharedCalls.Reserve(calls);
					MathOp::CPreparedCalls::Bind(prepared->m_Batch.data(), calls, nullptr, setups, bound);
					shared = bound;
				}
			}
			SBatches run{&plan, &context, path, prepared, setups, shared, g_RunNumbers.fetch_add(1, std::memory_order_relaxed) + 1, std::this_thread::get_id(), {}, t_Marks.Clear(plan.m_BatchCount)};
			if (parallel.m_For != nullptr)
				parallel.m_For(parallel.m_Host, plan.m_BatchCount, &CBatchRunnerAccess::RunBatches, &run);
			else
				CBatchRunnerAccess::RunBatches(&run, 0, plan.m_BatchCount);
			bool everyBatch = run.m_Misrun.load() == 0;
			for (u32 batch = 0; batch < plan.m_BatchCount && everyBatch; batch += 64)
			{
				const u32 bits = std::min<u32>(64, plan.m_BatchCount - batch);
				everyBatch = run.m_Marks[batch / 64].load(std::memory_order_relaxed) == (bits == 64 ? ~u64(0) : (u64(1) << bits) - 1);
			}
			if (!everyBatch)
				out.m_Status = BatchRun_BatchesMissed;
			for (u32 c = 0; c < Profiler::CHazards::__MaxHazards; ++c)
			{
				hazards.m_Counters[c] += run.m_Hazards[c].load();
				out.m_Hazards[c] = hazards.m_Counters[c] - before.m_Counters[c];
			}
			out.m_Run.m_Offset = u32(plan.m_Whole.size());
			out.m_Run.m_Executed = plan.m_HoistedCount + u32(plan.m_BatchOffsets.size()) * plan.m_BatchCount;
			return out;
		}

		SBatchRunResult CBatchRunner::Run(const CBatchPlan &plan, const CBytecodeExecContext &context, EExecPath path, const SParallelFor &parallel)
		{
			return CBatchRunnerAccess::Run(plan, context, path, parallel);
		}

		const CCBCPUMetaRegisters *CBatchRunner::CurrentRegisters()
		{
			return t_Current;
		}
	}
}
