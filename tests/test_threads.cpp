// Concurrency: several threads, each with its own register file, run the same programs
// at the same time on both paths; every thread's registers and hazard counts must equal
// those of a single-threaded run of the same path, and nothing may be reported. The
// ThreadSanitizer build (scripts/sanitize.sh) runs this file on its own.

#include "cbvm_batch_runner.h"
#include "cbvm_interpreter.h"
#include "cbvm_register_storage.h"
#include "cbvm_verifier.h"
#include "kr_profiler.h"
#include "std_parallel_for.h"
#include "test_support.h"

#include <gtest/gtest.h>

#include <atomic>
#include <cstring>
#include <string>
#include <thread>
#include <vector>

namespace
{
	using namespace Orvex;
	using Compiler::MetaType_Constant;
	using Compiler::MetaType_Instance;
	using Compiler::MetaType_Normal;
	using Compiler::MetaType_Stream;
	using Compiler::IR::SOp_MathOp;

	constexpr u32 kStream = 517;	// whole vectors and blocks, and tails
	constexpr u32 kFrames = 12;
	constexpr u32 kThreads = 6;

	// A particle step and integer bookkeeping: float and integer kernels, streams and
	// broadcast constants, in-place updates, comparisons, a per-lane division (a hazard).
	struct SProgram
	{
		CVMRegID m_Registers[12] = {
			CVMRegID::Build(0, MetaType_Stream, BaseType_Float3),		// pos
			CVMRegID::Build(1, MetaType_Stream, BaseType_Float3),		// vel
			CVMRegID::Build(2, MetaType_Constant, BaseType_Float3),		// gravity * dt
			CVMRegID::Build(3, MetaType_Constant, BaseType_Float3),		// dt
			CVMRegID::Build(4, MetaType_Stream, BaseType_Float3),		// tmp
			CVMRegID::Build(5, MetaType_Instance, BaseType_I32),		// age
			CVMRegID::Build(6, MetaType_Normal, BaseType_I32),			// one
			CVMRegID::Build(7, MetaType_Stream, BaseType_I32),			// divisor per particle
			CVMRegID::Build(8, MetaType_Stream, BaseType_I32),			// bucket
			CVMRegID::Build(9, MetaType_Stream, BaseType_Bool3),		// below the floor
			CVMRegID::Build(10, MetaType_Stream, BaseType_Float4),		// colour
			CVMRegID::Build(11, MetaType_Constant, BaseType_Float4),	// fade
		};
		std::vector<u8> m_Code;

		SProgram()
		{
			const CVMRegID *r = m_Registers;
			Emit(SOp_MathOp::Op_Add, r[1], r[1], r[2]);
			Emit(SOp_MathOp::Op_Mul, r[4], r[1], r[3]);
			Emit(SOp_MathOp::Op_Add, r[0], r[0], r[4]);
			Emit(SOp_MathOp::Op_Cmp_Lower, r[9], r[0], r[2]);
			Emit(SOp_MathOp::Op_Mod, r[4], r[0], r[3]);
			Emit(SOp_MathOp::Op_Add, r[5], r[5], r[6]);
			Emit(SOp_MathOp::Op_Div, r[8], r[5], r[7]);
			Emit(SOp_MathOp::Op_Bitwise_ShiftRight, r[8], r[8], r[6]);
			Emit(SOp_MathOp::Op_Bitwise_Xor, r[8], r[8], r[5]);
			Emit(SOp_MathOp::Op_Mul, r[10], r[10], r[11]);
			Emit(SOp_MathOp::Op_Neg, r[4], r[4]);
		}

		void Emit(SOp_MathOp::EOp op, CVMRegID dst, CVMRegID src0, CVMRegID src1 = CVMRegID::INVALID)
		{
			SOp_MathOp::SDesc desc;
			desc.m_Op = op;
			desc.m_DstReg = dst.ToIRRegID();
			desc.m_SrcReg0 = src0.ToIRRegID();
			desc.m_SrcReg1 = src1.ToIRRegID();
			u8 bytes[CMetaOp_MathOp::IP_Offset];
			m_Code.insert(m_Code.end(), bytes, bytes + CMetaOp_MathOp::EncodeDescToBytecode(bytes, desc));
		}

		// The same starting values for every thread.
		void Build(CRegisterStorage &storage) const
		{
			storage.Reset(12);
			storage.Registers().m_StreamDimensions = kStream;
			for (u32 i = 0; i < 12; ++i)
			{
				const CVMRegID id = m_Registers[i];
				const bool perElement = id.ToBank() >= MetaType_Instance;
				storage.AllocateElements(id, perElement ? kStream : 1);
				u32 *words = storage.DataAs<u32>(id);
				const bool isFloat = id.ToType() == BaseType_Float3 || id.ToType() == BaseType_Float4;
				for (u32 w = 0; w < storage.Size(id) / 4; ++w)
				{
					const u32 mix = (w * 2654435761u) ^ (i * 40503u);
					if (isFloat)
					{
						const float value = float(s32(mix % 2001) - 1000) / 64.0f;
						std::memcpy(&words[w], &value, 4);
					}
					else
						words[w] = i == 7 ? mix % 9 + 1 : i == 6 ? 1 : mix % 1000;
				}
			}
		}
	};

	struct SOutcome
	{
		std::vector<u32> m_Words;	// every register, in order
		u32 m_Hazards[Profiler::CHazards::__MaxHazards] = {};
		bool m_Ok = true;
	};

	// Builds a register file, runs the frames on 'path' and collects the result. Reads
	// the calling thread's hazard counters.
	SOutcome RunFrames(const SProgram &program, CBVM::EExecPath path)
	{
		SOutcome outcome;
		CRegisterStorage storage;
		program.Build(storage);
		Profiler::CHazards::CurrentThreadHazards().Reset();
		CCompilerBackendCPUProgram_VM vmProgram;
		CRuntimeCPUBindings bindings;
		SCompilerCPUDebugCtx debugCtx;
		const CBytecodeExecContext context(&vmProgram, bindings, storage.Registers(), debugCtx);
		for (u32 frame = 0; frame < kFrames; ++frame)
		{
			const CBVM::SRunResult result = CBVM::CInterpreter::Run(context, program.m_Code.data(), u32(program.m_Code.size()), path);
			outcome.m_Ok = outcome.m_Ok && result.m_Status == CBVM::RunStatus_Ok;
		}
		for (CVMRegID id : program.m_Registers)
		{
			const u32 *words = storage.DataAs<u32>(id);
			outcome.m_Words.insert(outcome.m_Words.end(), words, words + storage.Size(id) / 4);
		}
		for (u32 h = 0; h < Profiler::CHazards::__MaxHazards; ++h)
			outcome.m_Hazards[h] = Profiler::CHazards::CurrentThreadHazards().Get(Profiler::CHazards::ECounter(h));
		return outcome;
	}

	TEST(Threads, ConcurrentRunsOnBothPathsEqualSingleThreadedRuns)
	{
		const SProgram program;
		{
			CRegisterStorage storage;
			program.Build(storage);
			ASSERT_EQ(CBVM::CVerifier::Verify(program.m_Code.data(), u32(program.m_Code.size()), storage, nullptr, 0).Problems(), 0u);
		}
		const u64 reportsBefore = Assert::ReportCount();
		const SOutcome reference[2] = {RunFrames(program, CBVM::ExecPath_Standard), RunFrames(program, CBVM::ExecPath_Low)};
		ASSERT_TRUE(reference[0].m_Ok && reference[1].m_Ok);
		ASSERT_GT(reference[0].m_Hazards[Profiler::CHazards::Hazard_ScalarFallback], 0u);	// the hazard counts are compared too

		// Every thread starts its frames at once, half on each path.
		std::atomic<u32> ready{0};
		std::vector<SOutcome> outcomes(kThreads);
		std::vector<std::thread> threads;
		for (u32 t = 0; t < kThreads; ++t)
			threads.emplace_back([&, t] {
				ready.fetch_add(1);
				while (ready.load() < kThreads)
					std::this_thread::yield();
				outcomes[t] = RunFrames(program, t % 2 == 0 ? CBVM::ExecPath_Standard : CBVM::ExecPath_Low);
			});
		for (std::thread &thread : threads)
			thread.join();

		for (u32 t = 0; t < kThreads; ++t)
		{
			const SOutcome &expected = reference[t % 2];
			EXPECT_TRUE(outcomes[t].m_Ok) << t;
			EXPECT_TRUE(outcomes[t].m_Words == expected.m_Words) << "thread " << t << " (" << (t % 2 == 0 ? "standard" : "low") << " path) differs from the single-threaded run";
			for (u32 h = 0; h < Profiler::CHazards::__MaxHazards; ++h)
				EXPECT_EQ(outcomes[t].m_Hazards[h], expected.m_Hazards[h]) << "thread " << t << " hazard " << h;
		}
		EXPECT_EQ(Assert::ReportCount(), reportsBefore);
	}

	// The program in batches of 48 (517 elements: ten batches and a tail) on several
	// threads: every word as in the whole-stream run, on both paths, and the hazards the
	// batches counted on other threads summed into the caller's, as on one thread. Once
	// more with tmp as a scratch register (per-thread buffers): every other word the same.
	TEST(Threads, BatchesOnSeveralThreadsGiveTheWholeStreamWords)
	{
		const SProgram program;
		const CVMRegID tmp = program.m_Registers[4];
		for (CBVM::EExecPath path : {CBVM::ExecPath_Standard, CBVM::ExecPath_Low})
		{
			const SOutcome whole = RunFrames(program, path);
			SOutcome batched[3];
			std::size_t tmpBegin = 0, tmpEnd = 0;	// tmp's words in m_Words
			for (u32 run = 0; run < 3; ++run)
			{
				CRegisterStorage storage;
				program.Build(storage);
				Profiler::CHazards::CurrentThreadHazards().Reset();
				CBVM::CBatchPlan plan;
				ASSERT_TRUE(plan.Build(program.m_Code.data(), u32(program.m_Code.size()), storage, 48, &tmp, run == 2 ? 1 : 0)) << plan.Reason();
				ASSERT_EQ(plan.ScratchRegisters(), run == 2 ? 1u : 0u);
				CCompilerBackendCPUProgram_VM vmProgram;
				CRuntimeCPUBindings bindings;
				SCompilerCPUDebugCtx debugCtx;
				const CBytecodeExecContext context(&vmProgram, bindings, storage.Registers(), debugCtx);
				OxTest::SStdParallelFor threads{run == 0 ? 1u : kThreads, 1};
				// The standard path runs the prepared calls (the program passes the verifier).
				EXPECT_TRUE(plan.Prepared()) << plan.PreparedReason();
				for (u32 frame = 0; frame < kFrames; ++frame)
				{
					const CBVM::SBatchRunResult result = CBVM::CBatchRunner::Run(plan, context, path, threads.ParallelFor());
					EXPECT_EQ(result.m_Run.m_Status, CBVM::RunStatus_Ok);
					EXPECT_EQ(result.m_Status, CBVM::BatchRun_Ok);
					EXPECT_EQ(result.m_Prepared, path == CBVM::ExecPath_Standard);
				}
				for (CVMRegID id : program.m_Registers)
				{
					const u32 *words = storage.DataAs<u32>(id);
					if (id == tmp)
						tmpBegin = batched[run].m_Words.size(), tmpEnd = tmpBegin + storage.Size(id) / 4;
					batched[run].m_Words.insert(batched[run].m_Words.end(), words, words + storage.Size(id) / 4);
				}
				for (u32 h = 0; h < Profiler::CHazards::__MaxHazards; ++h)
					batched[run].m_Hazards[h] = Profiler::CHazards::CurrentThreadHazards().Get(Profiler::CHazards::ECounter(h));
			}
			EXPECT_EQ(batched[0].m_Words, whole.m_Words) << CBVM::ExecPathName(path);
			EXPECT_EQ(batched[1].m_Words, whole.m_Words) << CBVM::ExecPathName(path);
			for (u32 h = 0; h < Profiler::CHazards::__MaxHazards; ++h)
			{
				EXPECT_EQ(batched[1].m_Hazards[h], batched[0].m_Hazards[h]) << "hazard " << h;
				EXPECT_EQ(batched[2].m_Hazards[h], batched[0].m_Hazards[h]) << "hazard " << h;
			}
			std::vector<u32> kept = whole.m_Words;
			kept.erase(kept.begin() + std::ptrdiff_t(tmpBegin), kept.begin() + std::ptrdiff_t(tmpEnd));
			batched[2].m_Words.erase(batched[2].m_Words.begin() + std::ptrdiff_t(tmpBegin), batched[2].m_Words.begin() + std::ptrdiff_t(tmpEnd));
			EXPECT_EQ(batched[2].m_Words, kept) << CBVM::ExecPathName(path) << " with a scratch register";
		}
	}
}
