#pragma once
// Runs a CBatchPlan: the hoisted one-element instructions once, then the batches, on
// the calling thread or spread over threads by a parallel-for the host supplies.
//
//   CBatchPlan plan;
//   plan.Build(bytecode, size, storage);                 // once per program and file
//   SBatchRunResult r = CBatchRunner::Run(plan, ctx);   // every frame; or with a parallel-for
//   // plan.Reason(): "batches of 864 elements (1214 batches, ...)" or why it ran whole-stream
//
// A plan that is not batched runs through CInterpreter::Run, as the program would
// without a plan. The results are the whole-stream run's, bit for bit, whatever the
// batch size and however the batches are spread over threads.
//
// The parallel-for: m_For(m_Host, count, body, bodyContext) must call body(bodyContext,
// begin, end) over ranges that cover [0, count) exactly once, on any threads, and
// return when all have returned. A host brings its own job system this way; the
// optional library ox_cbvm_tbb (cbvm_tbb_parallel_for.h) gives one on oneTBB.
// Assertion reports, profiler scopes and once-only warnings work on any thread. The
// hazard counters are per thread: the run adds what the batches counted on other
// threads to the calling thread's counters, so that they read as after a run on one
// thread, and returns the total.
//
// A run allocates nothing: a batch's register table lives on the stack, or for large
// programs in the plan, and so do the scratch buffers (one set per hardware thread,
// taken without a lock).

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

		struct SBatchRunResult
		{
			SRunResult m_Run;			// Ok (a planned program has no opcode the interpreter would stop at), or the whole-stream run's result
			bool m_Batched = false;		// ran in batches (else whole-stream: plan.Reason())
			u32 m_Batches = 0;
			u32 m_Hazards[Profiler::CHazards::__MaxHazards] = {};	// counted by the run on every thread
		};

		class CBatchRunner
		{
		public:
			// 'context' must be the register file the plan was built on (same table and
			// m_StreamDimensions): otherwise the run asserts and goes whole-stream.
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
