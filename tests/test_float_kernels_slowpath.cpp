// The float kernels' slow path (a strided destination, or two constant sources): values
// against the model, the hazard it counts, the warning it logs once per run, and the
// null-source report.

#include "float_kernel_harness.h"

#include <gtest/gtest.h>

#include <cstring>
#include <fstream>
#include <iterator>
#include <regex>
#include <string>
#include <thread>
#include <utility>
#include <vector>

using namespace FloatKernelTest;

//====================================================================================
// The slow path

namespace
{
	// A strided destination with packed, constant or strided sources; strides in
	// components of N.
	struct SStrideLayout
	{
		const char *m_Name;
		u32 m_DstTimesN, m_DstPlus;		// destination stride: m_DstTimesN * N + m_DstPlus words
		u32 m_S0TimesN, m_S0Plus;
		u32 m_S1TimesN, m_S1Plus;
	};

	const SStrideLayout kStrideLayouts[] = {
		{"Dst2N_StreamStream", 2, 0, 1, 0, 1, 0},
		{"DstNPlus1_ConstStream", 1, 1, 0, 0, 1, 0},
		{"Dst3N_StreamConst", 3, 0, 1, 0, 0, 0},
		{"Dst2N_ConstConst", 2, 0, 0, 0, 0, 0},
		{"DstNPlus3_StridedStrided", 1, 3, 2, 0, 1, 1},
	};

	struct SStrideCase
	{
		s32 m_Op;
		u32 m_N;
		std::size_t m_Layout;
	};

	std::vector<SStrideCase> StrideCases()
	{
		std::vector<SStrideCase> cases;
		for (EOp op : OxTest::kFloatStreamOps)
			for (u32 n = 1; n <= 4; ++n)
				for (std::size_t l = 0; l < std::size(kStrideLayouts); ++l)
					cases.push_back({s32(op), n, l});
		return cases;
	}
}

class FloatKernelsSlowPath : public ::testing::TestWithParam<SStrideCase>
{
};

TEST_P(FloatKernelsSlowPath, BadDestinationStrideMatchesTheModel)
{
	const SStrideCase c = GetParam();
	const SStrideLayout &s = kStrideLayouts[c.m_Layout];
	const u32 n = c.m_N;
	CValues values(kSeed ^ 0x0Cu ^ (u32(c.m_Op) << 24) ^ (n << 16) ^ (u32(c.m_Layout) << 12));
	CChecker checker;
	CAssertCapture capture;
	std::vector<u32> counts;
	for (u32 k = 1; k <= 40; ++k)
		counts.push_back(k);
	counts.push_back(1000);
	for (u32 count : counts)
	{
		SLayout l = SLayout::Make(c.m_Op, n, count, EOperandShape::StreamStream, s.m_DstTimesN * n + s.m_DstPlus);
		l.m_Stride0 = s.m_S0TimesN * n + s.m_S0Plus;
		l.m_Stride1 = s.m_S1TimesN * n + s.m_S1Plus;
		CRun run(l, values);
		const u32 hazards = SlowHazards();
		run.RunKernel();
		run.ExpectModel(checker, "slow path");
		if (SlowHazards() != hazards + 1)
			checker.Mismatch(l.Label() + ": slow path counted " + std::to_string(SlowHazards() - hazards) + " hazards, expected 1");
		ExpectNoReports(capture, checker, l.Label());
	}
	EXPECT_EQ(checker.Count(), 0u);
}

INSTANTIATE_TEST_SUITE_P(Ops, FloatKernelsSlowPath, ::testing::ValuesIn(StrideCases()),
						 [](const ::testing::TestParamInfo<SStrideCase> &info) {
							 return OpMnemonic(info.param.m_Op) + "_N" + std::to_string(info.param.m_N) + "_" + kStrideLayouts[info.param.m_Layout].m_Name;
						 });

class FloatKernelsTwoConstants : public CFloatCaseTest
{
};

TEST_P(FloatKernelsTwoConstants, TakeTheSlowPathAndMatchTheModel)
{
	const SCase c = GetParam();
	CValues values(CaseSeed(0x0Du, c));
	CChecker checker;
	CAssertCapture capture;
	for (u32 count : SweepCounts())
	{
		CRun run(SLayout::Make(c.m_Op, c.m_N, count, EOperandShape::ConstConst), values);
		const u32 hazards = SlowHazards();
		run.RunKernel();
		run.ExpectModel(checker, "two constants");
		// One hazard per call (count 0 returns without work; its count is not pinned).
		if (count > 0 && SlowHazards() != hazards + 1)
			checker.Mismatch(run.Layout().Label() + ": counted " + std::to_string(SlowHazards() - hazards) + " hazards, expected 1");
		ExpectNoReports(capture, checker, run.Layout().Label());
	}
	EXPECT_EQ(checker.Count(), 0u);
}

INSTANTIATE_TEST_SUITE_P(Ops, FloatKernelsTwoConstants,
						 ::testing::ValuesIn(Cases(Ops(OxTest::kFloatStreamOps), {1, 2, 3, 4}, {EOperandShape::ConstConst})), CaseName);

namespace
{
	std::vector<std::pair<std::string, std::string>> g_SinkLines;
	void RecordingSink(const char *location, const char *message) { g_SinkLines.emplace_back(location, message); }

	// The text of line 'line' (1-based) of 'path', looked up as given and, for a relative
	// path, from the repository root; empty when not found.
	std::vector<std::string> ReadLines(const std::string &path)
	{
		std::vector<std::string> lines;
		std::vector<std::string> candidates = {path};
		std::string root = __FILE__;
		for (int up = 0; up < 2 && root.find('/') != std::string::npos; ++up)
			root = root.substr(0, root.rfind('/'));
		std::string relative = path;
		while (relative.rfind("../", 0) == 0)
			relative = relative.substr(3);
		candidates.push_back(root + "/" + relative);
		for (const std::string &candidate : candidates)
		{
			std::ifstream in(candidate);
			if (!in)
				continue;
			std::string line;
			while (std::getline(in, line))
				lines.push_back(line);
			break;
		}
		return lines;
	}
}

TEST(FloatKernels, SlowPathWarningIsLoggedOncePerRun)
{
	CLogUniqueCollection *registry = CPerfHotspotsRegistry::m_Registry;
	ASSERT_NE(registry, nullptr);
	CAssertCapture capture;
	CValues values(kSeed ^ 0x0Eu);
	registry->Clear();	// a new run
	g_SinkLines.clear();
	const CLogUniqueCollection::FnSink previous = registry->SetSink(&RecordingSink);

	// Fast paths log nothing.
	for (EOp op : OxTest::kFloatOps)
		for (u32 n = 1; n <= 4; ++n)
		{
			CRun run(SLayout::Make(op, n, 6, EOperandShape::StreamStream), values);
			run.RunKernel();
		}
	EXPECT_EQ(registry->Count(), 0u);
	EXPECT_TRUE(g_SinkLines.empty());

	// Many slow-path calls, every operator and dimension, both causes.
	u32 calls = 0;
	for (int round = 0; round < 5; ++round)
		for (EOp op : OxTest::kFloatStreamOps)
			for (u32 n = 1; n <= 4; ++n)
			{
				CRun strided(SLayout::Make(op, n, 3, EOperandShape::StreamStream, n + 1), values);
				strided.RunKernel();
				CRun constants(SLayout::Make(op, n, 3, EOperandShape::ConstConst), values);
				constants.RunKernel();
				calls += 2;
			}
	registry->SetSink(previous);
	EXPECT_EQ(calls, 400u);

	ASSERT_EQ(g_SinkLines.size(), 1u) << "reported once however many slow-path calls";
	ASSERT_EQ(registry->Count(), 1u);
	const std::string location = registry->Location(0);
	EXPECT_EQ(location, g_SinkLines[0].first);
	EXPECT_STREQ(registry->Message(0), kSlowPathMessage);
	EXPECT_EQ(g_SinkLines[0].second, kSlowPathMessage);
	EXPECT_TRUE(registry->Seen(location.c_str()));

	// "[l.<line>] @ <file>": the real line of the implementation file that logs it.
	std::smatch m;
	ASSERT_TRUE(std::regex_match(location, m, std::regex(R"(^\[l\.([0-9]+)\] @ (.+)$)"))) << location;
	const std::string file = m[2].str();
	const std::size_t line = std::stoul(m[1].str());
	ASSERT_GE(file.size(), std::strlen(kImplFileName));
	EXPECT_EQ(file.substr(file.size() - std::strlen(kImplFileName)), kImplFileName) << location;
	const std::vector<std::string> lines = ReadLines(file);
	ASSERT_FALSE(lines.empty()) << "cannot open " << file;
	ASSERT_GE(line, 1u);
	ASSERT_LE(line, lines.size());
	EXPECT_NE(lines[line - 1].find(kSlowPathMessage), std::string::npos) << "line " << line << ": " << lines[line - 1];
	EXPECT_NE(lines[line - 1].find("Touch"), std::string::npos) << "line " << line << ": " << lines[line - 1];
	std::size_t mentions = 0;
	for (const std::string &text : lines)
		mentions += text.find(std::string("\"") + kSlowPathMessage + "\"") != std::string::npos ? 1 : 0;
	EXPECT_EQ(mentions, 1u) << "one logging site";
	EXPECT_EQ(capture.Count(), 0u) << FirstReport(capture);
}

TEST(FloatKernels, SlowPathCountsOneHazardPerCallOnTheCallingThread)
{
	CAssertCapture capture;
	CValues values(kSeed ^ 0x0Fu);
	Profiler::CHazards &hazards = Profiler::CHazards::CurrentThreadHazards();
	for (u32 n = 1; n <= 4; ++n)
		for (u32 times = 1; times <= 4; ++times)
		{
			const u32 before = hazards.Get(Profiler::CHazards::Hazard_SlowStrides);
			const u32 secondBefore = hazards.m_Counters[1];
			const u32 genericBefore = hazards.Get(Profiler::CHazards::Hazard_Generic);
			for (u32 t = 0; t < times; ++t)
			{
				CRun run(SLayout::Make(SOp_MathOp::Op_Add, n, 2 + t, t % 2 == 0 ? EOperandShape::ConstConst : EOperandShape::StreamStream, t % 2 == 0 ? 0 : 2 * n), values);
				run.RunKernel();
			}
			EXPECT_EQ(hazards.Get(Profiler::CHazards::Hazard_SlowStrides), before + times) << "N=" << n;
			EXPECT_EQ(hazards.m_Counters[1], secondBefore + times) << "the second counter";
			EXPECT_EQ(hazards.Get(Profiler::CHazards::Hazard_Generic), genericBefore);
		}
	// Modulo and negation never count one.
	const u32 before = hazards.Get(Profiler::CHazards::Hazard_SlowStrides);
	for (u32 n = 1; n <= 4; ++n)
	{
		CRun mod(SLayout::Make(SOp_MathOp::Op_Mod, n, 5, EOperandShape::StreamConst), values);
		mod.RunKernel();
		CRun neg(SLayout::Make(SOp_MathOp::Op_Neg, n, 5, EOperandShape::StreamStream), values);
		neg.RunKernel();
	}
	EXPECT_EQ(hazards.Get(Profiler::CHazards::Hazard_SlowStrides), before);

	// Another thread's slow path counts on that thread.
	u32 otherBefore = 0, otherAfter = 0;
	std::thread other([&]() {
		CValues threadValues(kSeed ^ 0x10u);
		otherBefore = Profiler::CHazards::CurrentThreadHazards().Get(Profiler::CHazards::Hazard_SlowStrides);
		CRun run(SLayout::Make(SOp_MathOp::Op_Mul, 2, 4, EOperandShape::ConstConst), threadValues);
		run.RunKernel();
		otherAfter = Profiler::CHazards::CurrentThreadHazards().Get(Profiler::CHazards::Hazard_SlowStrides);
	});
	other.join();
	EXPECT_EQ(otherAfter, otherBefore + 1);
	EXPECT_EQ(hazards.Get(Profiler::CHazards::Hazard_SlowStrides), before);
	EXPECT_EQ(capture.Count(), 0u) << FirstReport(capture);
}

TEST(FloatKernels, NullSourceIsReported)
{
	CAssertCapture capture;
	CValues values(kSeed ^ 0x11u);
	for (u32 n = 1; n <= 4; ++n)
	{
		// Count 0 on the slow path: nothing is dereferenced after the report.
		SLayout l = SLayout::Make(SOp_MathOp::Op_Add, n, 0, EOperandShape::StreamStream, 2 * n);
		l.m_Unary = true;
		CRun run(l, values);
		MO::_FnMathOpLookup[SOp_MathOp::Op_Add * 4 + (n - 1)](run.Dst().Data(), 8 * n, 0, run.Src0().Data(), 4 * n, nullptr, 4 * n);
		EXPECT_EQ(capture.Count("srcStream0 != null && srcStream1 != null"), 1u) << n;
		EXPECT_EQ(run.Dst().FirstChanged(), run.Dst().Total());
		capture.Clear();
	}
}

