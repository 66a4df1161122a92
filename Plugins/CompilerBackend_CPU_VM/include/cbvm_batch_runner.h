#pragma once
// Runs a CBatchPlan: the hoisted one-element instructions once, then the batches, on
// the calling thread or spread over threads by a parallel-for the host supplies.
//
//   CBatchPlan plan;
//   plan.Build(bytecode, size, storage);                 // once per program and file
//   SBatchRunResult r = CBatchRunner::Run(plan, ctx);   // every frame; or with a parallel-for
//   // plan.Reason(): "batches of 864 elements (1214 batches, ...)" or why it ran whole-stream
//
// A plan that is not batched runs whole-stream: its prepared calls when it has them
// (standard path, the kernel set it was prepared for), otherwise CInterpreter::Run, as
// the program would without a plan. The results are the whole-stream run's, bit for bit,
// whatever the batch size, however the batches are spread over threads, prepared or not.
//
// Misuse is refused, never run past a register (m_Status, BatchRunStatusName):
//   - a plan never built: nothing runs (BatchRun_NotBuilt);
//   - before each run, every register the program names is compared with what Build
//     saw (O(registers)). One that can no longer hold what the program reads or writes
//     at the current m_StreamDimensions (reallocated smaller, a stream grown past it, no
//     table): nothing runs (BatchRun_RegisterTooSmall, m_Entry says which). Any other
//     change (another table, storage moved, another stream size): the program runs
//     whole-stream through the entry points (BatchRun_PlanStale: rebuild the plan);
//   - a parallel-for that does not run every batch exactly once (a range skipped, run
//     twice or past the count; ranges past the count are not run): BatchRun_BatchesMissed,
//     and the registers hold what the batches that ran wrote.
//
// The parallel-for: m_For(m_Host, count, body, bodyContext) must call body(bodyContext,
// begin, end) over ranges that cover [0, count) exactly once, on any threads, and
// return when all have returned. A host brings its own job system this way; the
// optional library Orvex::cbvm_tbb (cbvm_tbb_parallel_for.h) gives one on oneTBB.
// Assertion reports, profiler scopes and once-only warnings work on any thread. The
// hazard counters are per thread: the run adds what the batches counted on other
// threads to the calling thread's counters, so that they read as after a run on one
// thread, and returns the total.
//
// Per-thread state lives in a workspace the runner owns, one per thread: the scratch
// buffers of the batch running there and, for a run through the entry points, the
// batch's register table. A thread's first run that needs more than its workspace holds
// allocates it (and keeps it for later runs); any other run allocates nothing. No body
// waits for another, whatever the number of threads.

#include "cbvm_batch_plan.h"
#include "cbvm_interpreter.h"
#include "kr_profiler.h"

namespace Orvex
{
	namespace CBVM
	{
		struct SParallelFor
		{
			using FnBody = void (*)(void *bodyContext, u32 begin, u32 end);
			using FnFor = void (*)(void *host, u32 count, FnBody body, void *bodyContext);

			FnFor m_For = nullptr;	// null: every batch on the calling thread
			void *m_Host = nullptr;
		};

		enum EBatchRunStatus : u8
		{
			BatchRun_Ok = 0,
			BatchRun_NotBuilt,			// the plan was never built: nothing ran
			BatchRun_RegisterTooSmall,	// a register cannot hold what the program needs now: nothing ran
			BatchRun_PlanStale,			// the file changed since Build: ran whole-stream through the entry points
			BatchRun_BatchesMissed,		// the parallel-for did not run every batch exactly once
			__MaxBatchRunStatuses
		};

		// "ok", "plan never built", ...; "?" outside the enumeration.
		const char *BatchRunStatusName(EBatchRunStatus status);

		struct SBatchRunResult
		{
			EBatchRunStatus m_Status = BatchRun_Ok;
			u32 m_Entry = 0;			// BatchRun_RegisterTooSmall: the table entry (slot x 4 + bank)
			bool m_Prepared = false;	// ran the plan's prepared calls (else the entry points)
			SRunResult m_Run;			// Ok (a planned program has no opcode the interpreter would stop at), or the whole-stream run's result
			bool m_Batched = false;		// ran in batches (else whole-stream: plan.Reason())
			u32 m_Batches = 0;
			u32 m_Hazards[Profiler::CHazards::__MaxHazards] = {};	// counted by the run on every thread
		};

		class CBatchRunner
		{
		public:
			// 'context' should hold the register file the plan was built on (see above for
			// what happens otherwise).
			static SBatchRunResult Run(const CBatchPlan &plan, const CBytecodeExecContext &context, EExecPath path = ExecPath_Standard, const SParallelFor &parallel = SParallelFor());

			// The register file of the batch running on the calling thread (its
			// m_InstructionPointer is the instruction's offset in the planned bytecode, as in
			// a whole-stream run), or null outside a batch: for an assertion handler that
			// wants to know the instruction. Hoisted instructions run on the host's file,
			// whose m_InstructionPointer they set the same way.
			static const CCBCPUMetaRegisters *CurrentRegisters();
		};
	}
}
