// Prepared programs (cbvm_prepared_call.h, CBatchPlan) against the entry points: every
// operator x type x operand shape (streams, a constant either side, two constants,
// in place) x stream size around vector, block and batch boundaries, on every kernel
// set the machine runs, batched and whole-stream: every byte of every register
// allocation (padding included), the hazard counts, the assertion reports and the
// once-only warnings must be the entry points'. Then the misuse of the runner: a plan
// never built, registers reallocated or grown past, a stream grown, a changed kernel
// set, and parallel-fors that skip, repeat or overrun batches.

#include "cbvm_batch_runner.h"
#include "cbvm_kernel_isa.h"
#include "cbvm_register_storage.h"
#include "cbvm_verifier.h"
#include "bytecode_builder.h"
#include "kr_log_unique.h"
#include "seeded_random.h"
#include "type_lists.h"

#include <gtest/gtest.h>

#include <cstdio>
#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <random>
#include <string>
#include <vector>

namespace
{
	using namespace Orvex;
	using Compiler::EMetaType;
	using Compiler::MetaType_Constant;
	using Compiler::MetaType_Stream;
	using Compiler::IR::SOp_MathOp;
	using CBVM::CBatchPlan;
	using CBVM::CBatchRunner;

	// Operand shapes: the banks of source 0 and source 1 (a constant is one element), and
	// whether the destination is source 0's register.
	struct SShape
	{
		const char *m_Name;
		EMetaType m_Src0, m_Src1;
		bool m_InPlace;
	};
	constexpr SShape kShapes[] = {
		{"streams", MetaType_Stream, MetaType_Stream, false},
		{"constant-left", MetaType_Constant, MetaType_Stream, false},
		{"constant-right", MetaType_Stream, MetaType_Constant, false},
		{"two-constants", MetaType_Constant, MetaType_Constant, false},
		{"in-place", MetaType_Stream, MetaType_Stream, true},
		{"in-place-constant", MetaType_Stream, MetaType_Constant, true},
	};

	int CountingHandler(const Assert::SReport &) { return Assert::Answer_Continue; }

	// One instruction over a file of three registers (slots 0 to 2), filled from a seed.
	struct SCase
	{
		SOp_MathOp::EOp m_Op;
		EBaseTypeID m_Type;
		SShape m_Shape;
		u32 m_Stream;
		u32 m_Seed;

		CVMRegID Dst() const { return m_Shape.m_InPlace ? Src0() : CVMRegID::Build(0, MetaType_Stream, m_Type); }
		CVMRegID Src0() const { return CVMRegID::Build(1, m_Shape.m_Src0, m_Type); }
		CVMRegID Src1() const { return SOp_MathOp::OperatorTraits(m_Op).m_ParameterCount == 1 ? CVMRegID::INVALID : CVMRegID::Build(2, m_Shape.m_Src1, m_Type); }
		std::vector<u8> Code() const
		{
			std::vector<u8> code;
			OxTest::EmitEncoded(code, m_Op, Dst(), Src0(), Src1());
			return code;
		}
	};

	// What one run left: every byte of every allocation, the reports, warnings and hazards.
	struct SResult
	{
		std::vector<u8> m_Bytes;
		u64 m_Reports = 0;
		u32 m_Warnings = 0;
		u32 m_Hazards[Profiler::CHazards::__MaxHazards] = {};
		bool m_Prepared = false;
		CBVM::EBatchRunStatus m_Status = CBVM::BatchRun_Ok;
	};

	class CFile
	{
	public:
		explicit CFile(const SCase &c) : m_Storage(3)
		{
			m_Storage.Registers().m_StreamDimensions = c.m_Stream;
			std::mt19937 random(c.m_Seed);
			auto uniform = [&](u32 n) { return u32(random() % n); };
			const bool shift = SOp_MathOp::OperatorTraits(c.m_Op).m_IntKernel == SOp_MathOp::IntKernel_Shift;
			for (const CVMRegID id : {c.Dst(), c.Src0(), c.Src1()})
			{
				if (!id.Valid() || m_Storage.Data(id) != nullptr)
					continue;
				const bool perElement = id.ToBank() >= Compiler::MetaType_Instance;
				EXPECT_TRUE(m_Storage.AllocateElements(id, perElement ? c.m_Stream : 1));
				u8 *bytes = m_Storage.DataAs<u8>(id);
				const u32 capacity = m_Storage.Capacity(id);
				for (u32 b = 0; b < capacity; ++b)
					bytes[b] = u8(random());
				if (BaseTypeInfo(c.m_Type).m_Kind == ElementKind_Float)
				{
					float *floats = m_Storage.DataAs<float>(id);
					for (u32 f = 0; f < m_Storage.Size(id) / 4; ++f)
						floats[f] = uniform(8) == 0 ? float(s32(uniform(5)) - 2) : (float(uniform(20000)) - 10000.0f) / 64.0f;
				}
				else if (shift && id.Bits() == c.Src1().Bits())
				{
					// Counts in 0..31: a count above 31 is a reported form (never prepared).
					s32 *counts = m_Storage.DataAs<s32>(id);
					const s32 same = s32(uniform(32));
					for (u32 w = 0; w < m_Storage.Size(id) / 4; ++w)
						counts[w] = uniform(4) == 0 ? s32(uniform(32)) : same;
				}
			}
		}

		CRegisterStorage m_Storage;
	};

	SResult Snapshot(const CFile &file, const SCase &c)
	{
		SResult result;
		for (const CVMRegID id : {c.Dst(), c.Src0(), c.Src1()})
			if (id.Valid())
			{
				const u8 *bytes = file.m_Storage.DataAs<u8>(id);
				result.m_Bytes.insert(result.m_Bytes.end(), bytes, bytes + file.m_Storage.Capacity(id));
			}
		return result;
	}

	// Runs the case batched (batchElements) or whole-stream (0), prepared or through the
	// entry points (the same plan with its prepared calls dropped).
	SResult RunCase(const SCase &c, u32 batchElements, bool prepared)
	{
		CFile file(c);
		const std::vector<u8> code = c.Code();
		CBatchPlan plan;
		plan.Build(code.data(), u32(code.size()), file.m_Storage, batchElements);
		if (!prepared)
			plan.ForgetPrepared();
		CCompilerBackendCPUProgram_VM program;
		CRuntimeCPUBindings bindings;
		SCompilerCPUDebugCtx debug;
		CPerfHotspotsRegistry::m_Registry->Clear();
		const u64 reports = Assert::ReportCount();
		const CBVM::SBatchRunResult run = CBatchRunner::Run(plan, CBytecodeExecContext(&program, bindings, file.m_Storage.Registers(), debug));
		SResult result = Snapshot(file, c);
		result.m_Reports = Assert::ReportCount() - reports;
		result.m_Warnings = CPerfHotspotsRegistry::m_Registry->Count();
		std::memcpy(result.m_Hazards, run.m_Hazards, sizeof(result.m_Hazards));
		result.m_Prepared = run.m_Prepared;
		result.m_Status = run.m_Status;
		return result;
	}

	std::string Describe(const SCase &c, u32 batch, const char *isa)
	{
		char text[200];
		std::snprintf(text, sizeof(text), "%s %s %s, stream %u, batch %u, %s kernels, seed %u", SOp_MathOp::OperatorTraits(c.m_Op).m_Name, BaseTypeInfo(c.m_Type).m_Name,
					  c.m_Shape.m_Name, c.m_Stream, batch, isa, c.m_Seed);
		return text;
	}

	class PreparedCalls : public ::testing::Test
	{
	protected:
		void SetUp() override
		{
			m_Previous = Assert::SetHandler(&CountingHandler);
			m_Isa = CBVM::ActiveKernelIsa();
		}
		void TearDown() override
		{
			Assert::SetHandler(m_Previous);
			CBVM::SetKernelIsa(m_Isa);
			CPerfHotspotsRegistry::m_Registry->Clear();
		}

		Assert::FnHandler m_Previous = nullptr;
		CBVM::EKernelIsa m_Isa = CBVM::KernelIsa_Base;
	};

	TEST_F(PreparedCalls, EveryCallGivesTheEntryPointsBytesReportsAndHazards)
	{
		// Stream sizes around vectors (4, 8, 16 floats), integer blocks (12, 24, 48
		// integers) and batches of 48 and 96 elements (the last batch's tail).
		const u32 streams[] = {2, 3, 5, 13, 47, 50, 97, 145, 191};
		const u32 batches[] = {0, 48, 96};
		OxTest::CSeededRandom random(20261125);
		std::printf("seed 20261125\n");
		u32 compared = 0, prepared = 0, batchedPrepared = 0;
		for (u32 isa = 0; isa < CBVM::__MaxKernelIsas; ++isa)
		{
			if (!CBVM::SetKernelIsa(CBVM::EKernelIsa(isa)))
				continue;
			const char *isaName = CBVM::KernelIsaName(CBVM::EKernelIsa(isa));
			for (u32 op = 0; op < SOp_MathOp::__MaxOps; ++op)
				for (const OxTest::SKernelType &kernelType : OxTest::kKernelTypes)
					for (const SShape &shape : kShapes)
					{
						const bool unary = SOp_MathOp::OperatorTraits(SOp_MathOp::EOp(op)).m_ParameterCount == 1;
						if (unary && shape.m_Src1 == MetaType_Constant)
							continue;	// a unary operator has no source 1: its shapes are those of source 0
						for (const u32 stream : streams)
							for (const u32 batch : batches)
					{
						const SCase c{SOp_MathOp::EOp(op), kernelType.m_Type, shape, stream, u32(random())};
						const SResult viaEntries = RunCase(c, batch, false);
						const SResult viaCalls = RunCase(c, batch, true);
						ASSERT_FALSE(viaEntries.m_Prepared) << Describe(c, batch, isaName);
						ASSERT_EQ(viaCalls.m_Bytes, viaEntries.m_Bytes) << Describe(c, batch, isaName);
						ASSERT_EQ(viaCalls.m_Reports, viaEntries.m_Reports) << Describe(c, batch, isaName);
						ASSERT_EQ(viaCalls.m_Warnings, viaEntries.m_Warnings) << Describe(c, batch, isaName);
						for (u32 h = 0; h < Profiler::CHazards::__MaxHazards; ++h)
							ASSERT_EQ(viaCalls.m_Hazards[h], viaEntries.m_Hazards[h]) << "hazard " << h << ": " << Describe(c, batch, isaName);
						++compared;
						prepared += viaCalls.m_Prepared ? 1 : 0;
						batchedPrepared += viaCalls.m_Prepared && batch != 0 && c.m_Stream > batch + 1 ? 1 : 0;
					}
					}
		}
		std::printf("compared %u cases, %u prepared (%u of them batched)\n", compared, prepared, batchedPrepared);
		// Every operator and type has a verified shape: most cases must run prepared.
		EXPECT_GT(prepared, compared / 2);
		EXPECT_GT(batchedPrepared, compared / 8);
	}
}

namespace
{
	// The runner's misuse: d = a + b over float3 streams (slots 0 to 2), in batches of 96.
	class RunnerMisuse : public ::testing::Test
	{
	protected:
		static constexpr u32 kStream = 1000;

		void SetUp() override
		{
			m_Previous = Assert::SetHandler(&CountingHandler);
			m_Storage.Registers().m_StreamDimensions = kStream;
			for (u32 slot = 0; slot < 3; ++slot)
			{
				ASSERT_TRUE(m_Storage.AllocateElements(Id(slot), kStream));
				float *data = m_Storage.DataAs<float>(Id(slot));
				for (u32 f = 0; f < 3 * kStream; ++f)
					data[f] = float(slot * 10000 + f);
			}
			OxTest::EmitEncoded(m_Code, SOp_MathOp::Op_Add, Id(0), Id(1), Id(2));
			m_Plan.Build(m_Code.data(), u32(m_Code.size()), m_Storage, 96);
			ASSERT_TRUE(m_Plan.Batched()) << m_Plan.Reason();
			ASSERT_TRUE(m_Plan.Prepared()) << m_Plan.PreparedReason();
		}
		void TearDown() override { Assert::SetHandler(m_Previous); }

		static CVMRegID Id(u32 slot) { return CVMRegID::Build(slot, MetaType_Stream, BaseType_Float3); }

		CBVM::SBatchRunResult Run(const CBVM::SParallelFor &parallel = CBVM::SParallelFor())
		{
			CCompilerBackendCPUProgram_VM program;
			CRuntimeCPUBindings bindings;
			SCompilerCPUDebugCtx debug;
			return CBatchRunner::Run(m_Plan, CBytecodeExecContext(&program, bindings, m_Storage.Registers(), debug), CBVM::ExecPath_Standard, parallel);
		}
		std::vector<u8> Bytes(u32 slot) const
		{
			const u8 *data = m_Storage.DataAs<u8>(Id(slot));
			return std::vector<u8>(data, data + m_Storage.Capacity(Id(slot)));
		}
		// d[i] == a[i] + b[i] for the first 'elements' elements, untouched (its fill) after.
		void ExpectSums(u32 elements) const
		{
			const float *d = m_Storage.DataAs<float>(Id(0));
			for (u32 f = 0; f < 3 * kStream; ++f)
				ASSERT_EQ(d[f], f < 3 * elements ? float(10000 + f) + float(20000 + f) : float(f)) << "float " << f;
		}

		// A parallel-for of a test: 'runs' calls body over [begin, end) pairs given as a list.
		struct SScripted
		{
			std::vector<std::pair<u32, u32>> m_Ranges;
			static void For(void *host, u32, CBVM::SParallelFor::FnBody body, void *context)
			{
				for (const auto &range : static_cast<SScripted *>(host)->m_Ranges)
					body(context, range.first, range.second);
			}
			CBVM::SParallelFor ParallelFor() { return CBVM::SParallelFor{&SScripted::For, this}; }
		};

		CRegisterStorage m_Storage{3};
		std::vector<u8> m_Code;
		CBatchPlan m_Plan;
		Assert::FnHandler m_Previous = nullptr;
	};

	TEST_F(RunnerMisuse, APreparedPlanGivesTheSums)
	{
		const CBVM::SBatchRunResult result = Run();
		EXPECT_EQ(result.m_Status, CBVM::BatchRun_Ok);
		EXPECT_TRUE(result.m_Prepared);
		EXPECT_TRUE(result.m_Batched);
		EXPECT_EQ(result.m_Batches, 11u);	// 10 x 96, then 40
		ExpectSums(kStream);
	}

	TEST_F(RunnerMisuse, APlanNeverBuiltRunsNothingAndSaysSo)
	{
		CBatchPlan never;
		CCompilerBackendCPUProgram_VM program;
		CRuntimeCPUBindings bindings;
		SCompilerCPUDebugCtx debug;
		const std::vector<u8> before = Bytes(0);
		const CBVM::SBatchRunResult result = CBatchRunner::Run(never, CBytecodeExecContext(&program, bindings, m_Storage.Registers(), debug));
		EXPECT_EQ(result.m_Status, CBVM::BatchRun_NotBuilt);
		EXPECT_STREQ(CBVM::BatchRunStatusName(result.m_Status), "the plan was never built: nothing ran");
		EXPECT_EQ(result.m_Run.m_Executed, 0u);
		EXPECT_EQ(Bytes(0), before);
		EXPECT_FALSE(never.Built());
		EXPECT_TRUE(m_Plan.Built());
	}

	TEST_F(RunnerMisuse, ARegisterReallocatedSmallerRunsNothing)
	{
		ASSERT_TRUE(m_Storage.AllocateElements(Id(2), kStream / 2));	// source b, half the stream
		const std::vector<u8> before = Bytes(0);
		const CBVM::SBatchRunResult result = Run();
		EXPECT_EQ(result.m_Status, CBVM::BatchRun_RegisterTooSmall);
		EXPECT_EQ(result.m_Entry, 2u * CCBCPUMetaRegisters::kBanksPerSlot + (MetaType_Stream - MetaType_Constant));
		EXPECT_EQ(Bytes(0), before);
	}

	TEST_F(RunnerMisuse, AStreamGrownPastTheRegistersRunsNothing)
	{
		m_Storage.Registers().m_StreamDimensions = kStream + 1;
		const std::vector<u8> before = Bytes(0);
		EXPECT_EQ(Run().m_Status, CBVM::BatchRun_RegisterTooSmall);
		EXPECT_EQ(Bytes(0), before);
	}

	TEST_F(RunnerMisuse, NoRegisterTableRunsNothing)
	{
		CCBCPUMetaRegisters none;	// no table
		none.m_StreamDimensions = kStream;
		CCompilerBackendCPUProgram_VM program;
		CRuntimeCPUBindings bindings;
		SCompilerCPUDebugCtx debug;
		EXPECT_EQ(CBatchRunner::Run(m_Plan, CBytecodeExecContext(&program, bindings, none, debug)).m_Status, CBVM::BatchRun_RegisterTooSmall);
		CBatchPlan undecodable;	// built on no table: refused, and still not run on none
		undecodable.Build(m_Code.data(), u32(m_Code.size()), none, 3);
		EXPECT_EQ(undecodable.Refusal(), CBVM::BatchRefusal_Undecodable);
		EXPECT_EQ(CBatchRunner::Run(undecodable, CBytecodeExecContext(&program, bindings, none, debug)).m_Status, CBVM::BatchRun_RegisterTooSmall);
	}

	TEST_F(RunnerMisuse, MovedStorageRunsWholeStreamThroughTheEntryPoints)
	{
		// Source a moved: the same words and size at another address (padding included).
		CCBCPUMetaRegisters::SRegister &entry = m_Storage.Registers().SelectRegister(Id(1));
		const CCBCPUMetaRegisters::SRegister own = entry;
		const u32 bytes = m_Storage.Capacity(Id(1));
		std::unique_ptr<u8, decltype(&std::free)> moved(static_cast<u8 *>(std::aligned_alloc(64, (bytes + 63) / 64 * 64)), &std::free);
		std::memcpy(moved.get(), own.m_RawData, bytes);
		entry = {moved.get(), own.m_Size};
		const CBVM::SBatchRunResult result = Run();
		entry = own;
		EXPECT_EQ(result.m_Status, CBVM::BatchRun_PlanStale);
		EXPECT_FALSE(result.m_Prepared);
		EXPECT_FALSE(result.m_Batched);
		ExpectSums(kStream);
	}

	TEST_F(RunnerMisuse, ASmallerStreamRunsWholeStreamThroughTheEntryPoints)
	{
		m_Storage.Registers().m_StreamDimensions = 500;
		const CBVM::SBatchRunResult result = Run();
		EXPECT_EQ(result.m_Status, CBVM::BatchRun_PlanStale);
		ExpectSums(500);
	}

	TEST_F(RunnerMisuse, AnotherKernelSetRunsTheEntryPoints)
	{
		const CBVM::EKernelIsa active = CBVM::ActiveKernelIsa();
		const CBVM::EKernelIsa other = active == CBVM::KernelIsa_Base ? CBVM::WidestKernelIsa() : CBVM::KernelIsa_Base;
		if (other == active)
			GTEST_SKIP() << "this machine runs one kernel set";
		ASSERT_TRUE(CBVM::SetKernelIsa(other));
		const CBVM::SBatchRunResult result = Run();
		CBVM::SetKernelIsa(active);
		EXPECT_EQ(result.m_Status, CBVM::BatchRun_Ok);
		EXPECT_FALSE(result.m_Prepared);
		EXPECT_TRUE(result.m_Batched);
		ExpectSums(kStream);
	}

	TEST_F(RunnerMisuse, AParallelForThatSkipsABatchIsReported)
	{
		SScripted skips{{{0, 5}, {6, 11}}};
		EXPECT_EQ(Run(skips.ParallelFor()).m_Status, CBVM::BatchRun_BatchesMissed);
	}

	TEST_F(RunnerMisuse, AParallelForThatRunsABatchTwiceIsReported)
	{
		SScripted twice{{{0, 11}, {3, 4}}};
		EXPECT_EQ(Run(twice.ParallelFor()).m_Status, CBVM::BatchRun_BatchesMissed);
		// Repeats and gaps of the same count and index sum: 11 batches whose indices add
		// up to 55, but 5 and 7 are missing and 4 and 8 run twice.
		SScripted swapped{{{0, 5}, {4, 5}, {6, 7}, {8, 9}, {8, 11}}};
		EXPECT_EQ(Run(swapped.ParallelFor()).m_Status, CBVM::BatchRun_BatchesMissed);
	}

	TEST_F(RunnerMisuse, AParallelForPastTheCountRunsNothingPastTheRegisters)
	{
		const std::vector<u8> before = Bytes(0);
		SScripted past{{{0, 11}, {11, 40}, {20, 10}}};
		EXPECT_EQ(Run(past.ParallelFor()).m_Status, CBVM::BatchRun_BatchesMissed);
		ExpectSums(kStream);
		// The padding after the stream kept its bytes.
		const std::vector<u8> after = Bytes(0);
		EXPECT_TRUE(std::equal(after.begin() + 12 * kStream, after.end(), before.begin() + 12 * kStream));
	}

	TEST_F(RunnerMisuse, AParallelForThatRunsEveryBatchOnceIsOk)
	{
		SScripted shuffled{{{7, 11}, {0, 3}, {3, 7}}};
		EXPECT_EQ(Run(shuffled.ParallelFor()).m_Status, CBVM::BatchRun_Ok);
		ExpectSums(kStream);
	}
}

namespace
{
	// Constants a host changes between runs are read by every run: a prepared call keeps
	// no value of a register, only where it lies (integer division by a uniform constant,
	// a float modulo's reciprocal, a shift count, a broadcast block). Calls of one operator
	// on the same constant share a set-up, and on another constant do not.
	TEST_F(PreparedCalls, ConstantsChangedBetweenRunsAreReadEachRun)
	{
		constexpr u32 kStream = 500;
		const CVMRegID q = CVMRegID::Build(0, MetaType_Stream, BaseType_I32), a = CVMRegID::Build(1, MetaType_Stream, BaseType_I32);
		const CVMRegID divisor = CVMRegID::Build(2, MetaType_Constant, BaseType_I32), count = CVMRegID::Build(3, MetaType_Constant, BaseType_I32);
		const CVMRegID m = CVMRegID::Build(4, MetaType_Stream, BaseType_Float3), x = CVMRegID::Build(5, MetaType_Stream, BaseType_Float3);
		const CVMRegID period = CVMRegID::Build(6, MetaType_Constant, BaseType_Float3);
		const CVMRegID r = CVMRegID::Build(7, MetaType_Stream, BaseType_I32);
		const CVMRegID divisor2 = CVMRegID::Build(8, MetaType_Constant, BaseType_I32), q2 = CVMRegID::Build(9, MetaType_Stream, BaseType_I32);
		const CVMRegID period2 = CVMRegID::Build(10, MetaType_Constant, BaseType_Float3), m2 = CVMRegID::Build(11, MetaType_Stream, BaseType_Float3);
		std::vector<u8> code;
		OxTest::EmitEncoded(code, SOp_MathOp::Op_Div, q, a, divisor);
		OxTest::EmitEncoded(code, SOp_MathOp::Op_Mod, r, a, divisor);
		OxTest::EmitEncoded(code, SOp_MathOp::Op_Bitwise_ShiftLeft, q, q, count);
		OxTest::EmitEncoded(code, SOp_MathOp::Op_Mod, m, x, period);
		OxTest::EmitEncoded(code, SOp_MathOp::Op_Add, m, m, period);
		OxTest::EmitEncoded(code, SOp_MathOp::Op_Div, q2, a, divisor2);
		OxTest::EmitEncoded(code, SOp_MathOp::Op_Div, q2, q2, divisor);
		OxTest::EmitEncoded(code, SOp_MathOp::Op_Mod, m2, x, period2);
		OxTest::EmitEncoded(code, SOp_MathOp::Op_Mod, m2, m2, period);
		for (const u32 batch : {0u, 48u})
		{
			CRegisterStorage files[2] = {CRegisterStorage(12), CRegisterStorage(12)};
			CBatchPlan plans[2];
			for (u32 f = 0; f < 2; ++f)
			{
				files[f].Registers().m_StreamDimensions = kStream;
				for (const CVMRegID id : {q, a, m, x, r, q2, m2})
					ASSERT_TRUE(files[f].AllocateElements(id, kStream));
				for (const CVMRegID id : {divisor, count, period, divisor2, period2})
					ASSERT_TRUE(files[f].AllocateElements(id, 1));
				for (u32 i = 0; i < kStream; ++i)
					files[f].DataAs<s32>(a)[i] = s32(i * 7919u) - 1000000;
				for (u32 i = 0; i < 3 * kStream; ++i)
					files[f].DataAs<float>(x)[i] = float(i) * 0.37f - 200.0f;
				plans[f].Build(code.data(), u32(code.size()), files[f], batch);
			}
			ASSERT_TRUE(plans[0].Prepared()) << plans[0].PreparedReason();
			plans[1].ForgetPrepared();
			// Each integer route in turn: magic numbers (with and without the dividend's
			// correction), +-1, powers of two, a zero divisor.
			const s32 divisors[] = {7, -3, 1, 1 << 20, -1, -16, 0, 641};
			const s32 counts[] = {3, 0, 31, 5, 1, 17, 30, 2};
			const float periods[][4] = {{2.5f, 3.0f, 0.75f, 0.0f}, {1.0f, 1.0f, 1.0f, 0.0f}, {-4.0f, 0.1f, 100.0f, 0.0f}, {0.3f, 7.0f, 2.0f, 0.0f},
										{0.5f, 0.5f, 0.5f, 0.0f}, {3.0f, -2.0f, 9.5f, 0.0f}, {1e-3f, 1e3f, 7.0f, 0.0f}, {6.0f, 6.0f, 1.0f, 0.0f}};
			for (u32 frame = 0; frame < 8; ++frame)
			{
				std::vector<u8> words[2];
				for (u32 f = 0; f < 2; ++f)
				{
					*files[f].DataAs<s32>(divisor) = divisors[frame];
					*files[f].DataAs<s32>(count) = counts[frame];
					std::memcpy(files[f].DataAs<float>(period), periods[frame], sizeof(periods[frame]));
					*files[f].DataAs<s32>(divisor2) = divisors[(frame + 3) % 8];
					std::memcpy(files[f].DataAs<float>(period2), periods[(frame + 5) % 8], sizeof(periods[frame]));
					CCompilerBackendCPUProgram_VM program;
					CRuntimeCPUBindings bindings;
					SCompilerCPUDebugCtx debug;
					const CBVM::SBatchRunResult run = CBatchRunner::Run(plans[f], CBytecodeExecContext(&program, bindings, files[f].Registers(), debug));
					EXPECT_EQ(run.m_Prepared, f == 0);
					for (const CVMRegID id : {q, m, r, q2, m2})
						words[f].insert(words[f].end(), files[f].DataAs<u8>(id), files[f].DataAs<u8>(id) + files[f].Size(id));
				}
				ASSERT_EQ(words[0], words[1]) << "frame " << frame << ", batch " << batch;
			}
		}
	}
}
