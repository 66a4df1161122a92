// The float arithmetic and comparison kernels against the scalar model: every operator,
// dimension and operand shape over every tail length, through the table and through the
// selector, on edge values, and the layouts where a store ends (tails, whole vectors,
// three-component constants, the end of a page).
//
// Each (operator, N, shape) is a case of its own: a failure names it, e.g.
// FloatKernelsModel.EveryCountAgainstTheModel/Div_N3_StreamConst.

#include "float_kernel_harness.h"

#include <gtest/gtest.h>

#include <iterator>
#include <string>
#include <utility>
#include <vector>

using namespace FloatKernelTest;
using OxTest::kFastPathShapes;

namespace
{
	const std::vector<u32> kAllDimensions = {1, 2, 3, 4};
	const std::vector<EOperandShape> kFast(std::begin(kFastPathShapes), std::end(kFastPathShapes));
	const std::vector<EOperandShape> kOneConstant = {EOperandShape::ConstStream, EOperandShape::StreamConst};
}

//====================================================================================
// Every operator x N x count x operand shape, against the model

class FloatKernelsModel : public CFloatCaseTest
{
};

TEST_P(FloatKernelsModel, EveryCountAgainstTheModel)
{
	const SCase c = GetParam();
	CValues values(CaseSeed(0x01u, c));
	CChecker checker;
	CAssertCapture capture;
	for (u32 count : SweepCounts())
	{
		CRun run(SLayout::Make(c.m_Op, c.m_N, count, c.m_Shape), values);
		const u32 hazards = SlowHazards();
		run.RunKernel();
		const std::string label = run.Layout().Label();
		run.ExpectModel(checker, ShapeName(c.m_Shape));
		ExpectNoReports(capture, checker, label);
		if (SlowHazards() != hazards)
			checker.Mismatch(label + ": a fast-path case counted a slow-stride hazard");
	}
	EXPECT_EQ(checker.Count(), 0u);
}

INSTANTIATE_TEST_SUITE_P(Ops, FloatKernelsModel, ::testing::ValuesIn(Cases(Ops(OxTest::kFloatOps), kAllDimensions, kFast)), CaseName);

class FloatKernelsSelector : public CFloatCaseTest
{
};

TEST_P(FloatKernelsSelector, RunsTheKernelAgainstTheModel)
{
	const SCase c = GetParam();
	CValues values(CaseSeed(0x02u, c));
	CChecker checker;
	CAssertCapture capture;
	const u32 counts[] = {0, 1, 2, 3, 4, 5, 7, 8, 13, 33};
	for (u32 count : counts)
	{
		CRun run(SLayout::Make(c.m_Op, c.m_N, count, c.m_Shape), values);
		run.RunSelector();
		run.ExpectModel(checker, std::string("selector ") + ShapeName(c.m_Shape));
		ExpectNoReports(capture, checker, run.Layout().Label());
	}
	EXPECT_EQ(checker.Count(), 0u);
}

INSTANTIATE_TEST_SUITE_P(Ops, FloatKernelsSelector, ::testing::ValuesIn(Cases(Ops(OxTest::kFloatOps), kAllDimensions, kFast)), CaseName);

class FloatKernelsEdgeValues : public CFloatCaseTest
{
};

TEST_P(FloatKernelsEdgeValues, AgainstTheModel)
{
	// Two streams: every (a, b) pair of edge values (NaNs, signed zeros, infinities,
	// denormals, 2^31 neighbours). One constant: every edge value as the constant against
	// a stream of all of them.
	const SCase c = GetParam();
	const u32 n = c.m_N;
	CChecker checker;
	CAssertCapture capture;
	CValues unused(0);
	const u32 s = u32(std::size(kFloatEdgeValues));
	if (c.m_Shape == EOperandShape::StreamStream)
	{
		const u32 count = (s * s + n - 1) / n;
		CRun run(SLayout::Make(c.m_Op, n, count, EOperandShape::StreamStream), unused);
		for (u32 p = 0; p < count * n; ++p)
		{
			run.Src0()[p] = kFloatEdgeValues[(p / s) % s];
			if (c.m_Op != SOp_MathOp::Op_Neg)
				run.Src1()[p] = kFloatEdgeValues[p % s];
		}
		run.Resnapshot();
		run.RunKernel();
		run.ExpectModel(checker, "edge pairs");
		ExpectNoReports(capture, checker, run.Layout().Label());
	}
	else
	{
		for (u32 k0 = 0; k0 < s; ++k0)
		{
			const u32 count = (s + n - 1) / n + 1;
			CRun run(SLayout::Make(c.m_Op, n, count, c.m_Shape), unused);
			CWords &constant = c.m_Shape == EOperandShape::ConstStream ? run.Src0() : run.Src1();
			CWords &stream = c.m_Shape == EOperandShape::ConstStream ? run.Src1() : run.Src0();
			for (u32 k = 0; k < n; ++k)
				constant[k] = kFloatEdgeValues[(k0 + 7 * k) % s];
			for (u32 p = 0; p < count * n; ++p)
				stream[p] = kFloatEdgeValues[p % s];
			run.Resnapshot();
			run.RunKernel();
			run.ExpectModel(checker, std::string("edge constant ") + ShapeName(c.m_Shape));
			ExpectNoReports(capture, checker, run.Layout().Label());
		}
	}
	EXPECT_EQ(checker.Count(), 0u);
}

INSTANTIATE_TEST_SUITE_P(Ops, FloatKernelsEdgeValues, ::testing::ValuesIn(Cases(Ops(OxTest::kFloatOps), kAllDimensions, kFast)), CaseName);

//====================================================================================
// Edge cases of the arithmetic and comparison kernels

namespace
{
	// Two constants are a slow-path case, which modulo and negation do not have.
	std::vector<SCase> CountZeroCases()
	{
		std::vector<SCase> cases;
		for (const SCase &c : Cases(Ops(OxTest::kFloatOps), kAllDimensions, std::vector<EOperandShape>(std::begin(OxTest::kAllShapes), std::end(OxTest::kAllShapes))))
			if (!(c.m_Shape == EOperandShape::ConstConst && c.m_Op == SOp_MathOp::Op_Mod))
				cases.push_back(c);
		return cases;
	}
}

class FloatKernelsCountZero : public CFloatCaseTest
{
};

TEST_P(FloatKernelsCountZero, WritesNothingOnAnyPath)
{
	const SCase c = GetParam();
	CValues values(CaseSeed(0x03u, c));
	CChecker checker;
	CAssertCapture capture;
	const bool slowPath = c.m_Shape == EOperandShape::ConstConst;
	CRun run(SLayout::Make(c.m_Op, c.m_N, 0, c.m_Shape), values);
	run.RunKernel();
	run.ExpectNothingWritten(checker, slowPath ? "slow path, two constants" : ShapeName(c.m_Shape));
	ExpectNoReports(capture, checker, run.Layout().Label());
	// The other slow path, a strided destination, goes with the two-stream case.
	if (c.m_Shape == EOperandShape::StreamStream && c.m_Op != SOp_MathOp::Op_Mod && c.m_Op != SOp_MathOp::Op_Neg)
	{
		CRun strided(SLayout::Make(c.m_Op, c.m_N, 0, EOperandShape::StreamStream, 2 * c.m_N), values);
		strided.RunKernel();
		strided.ExpectNothingWritten(checker, "slow path, strided destination");
		ExpectNoReports(capture, checker, strided.Layout().Label());
	}
	EXPECT_EQ(checker.Count(), 0u);
}

INSTANTIATE_TEST_SUITE_P(Ops, FloatKernelsCountZero, ::testing::ValuesIn(CountZeroCases()), CaseName);

class FloatKernelsFourComponents : public CFloatCaseTest
{
};

TEST_P(FloatKernelsFourComponents, EveryCountEndsExactlyOnTheEnd)
{
	// N = 4: one element per vector, no partial store, and the closing
	// "dstStream == dstEnd" check never fires.
	const SCase c = GetParam();
	CValues values(CaseSeed(0x04u, c));
	CChecker checker;
	CAssertCapture capture;
	for (u32 count = 0; count <= 40; ++count)
	{
		CRun run(SLayout::Make(c.m_Op, 4, count, c.m_Shape), values);
		run.RunKernel();
		run.ExpectModel(checker, ShapeName(c.m_Shape));
		if (capture.Count("dstStream == dstEnd") != 0 || capture.Count("dstStream == dstStreamStop") != 0)
			checker.Mismatch(run.Layout().Label() + ": the end check fired");
		ExpectNoReports(capture, checker, run.Layout().Label());
	}
	EXPECT_EQ(checker.Count(), 0u);
}

INSTANTIATE_TEST_SUITE_P(Ops, FloatKernelsFourComponents, ::testing::ValuesIn(Cases(Ops(OxTest::kFloatOps), {4}, kFast)), CaseName);

class FloatKernelsOneComponentCountFive : public CFloatCaseTest
{
};

TEST_P(FloatKernelsOneComponentCountFive, StoresExactlyOneTailFloat)
{
	const SCase c = GetParam();
	CValues values(CaseSeed(0x05u, c));
	CAssertCapture capture;
	CRun run(SLayout::Make(c.m_Op, 1, 5, c.m_Shape), values);
	SetAll(run.Src0(), run.Layout().m_Stride0, 1, 5, {1.0f});
	SetAll(run.Src1(), run.Layout().m_Stride1, 1, 5, {2.0f});
	run.RunKernel();
	for (u32 i = 0; i < 5; ++i)
		EXPECT_EQ(run.Dst()[i], FloatBits(3.0f)) << ShapeName(c.m_Shape) << " float " << i;
	// Float 4 is the tail's only float: float 5 on is untouched.
	for (std::size_t i = 5; i < run.Dst().Total(); ++i)
		EXPECT_EQ(run.Dst()[i], run.Dst().Initial(i)) << ShapeName(c.m_Shape) << " word " << i;
	EXPECT_TRUE(run.Dst().GuardsIntact());
	EXPECT_EQ(capture.Count(), 0u) << FirstReport(capture);
}

INSTANTIATE_TEST_SUITE_P(Add, FloatKernelsOneComponentCountFive, ::testing::ValuesIn(Cases({SOp_MathOp::Op_Add}, {1}, kFast)), CaseName);

class FloatKernelsWholeVectors : public CFloatCaseTest
{
};

TEST_P(FloatKernelsWholeVectors, CountsLeaveNoTail)
{
	// count * E a multiple of 16 bytes: every float is stored by a full vector and nothing
	// after the stream moves.
	const SCase c = GetParam();
	CValues values(CaseSeed(0x06u, c));
	CChecker checker;
	CAssertCapture capture;
	const std::pair<u32, u32> layouts[] = {{1, 4}, {1, 8}, {1, 64}, {2, 2}, {2, 4}, {2, 30}, {3, 4}, {3, 8}, {3, 12}, {4, 1}, {4, 3}};
	u32 runs = 0;
	for (const auto &l : layouts)
	{
		if (l.first != c.m_N)
			continue;
		CRun run(SLayout::Make(c.m_Op, l.first, l.second, c.m_Shape), values);
		run.RunKernel();
		run.ExpectModel(checker, ShapeName(c.m_Shape));
		ExpectNoReports(capture, checker, run.Layout().Label());
		++runs;
	}
	EXPECT_GE(runs, 2u);
	EXPECT_EQ(checker.Count(), 0u);
}

INSTANTIATE_TEST_SUITE_P(Ops, FloatKernelsWholeVectors, ::testing::ValuesIn(Cases(Ops(OxTest::kFloatStreamOps), kAllDimensions, kFast)), CaseName);

TEST(FloatKernels, ThreeComponentsPackedCountOneStoresThreeFloats)
{
	CValues values(kSeed ^ 0x07u);
	CAssertCapture capture;
	CRun run(SLayout::Make(SOp_MathOp::Op_Mul, 3, 1, EOperandShape::StreamStream), values);
	SetAll(run.Src0(), 3, 3, 1, {2.0f, 3.0f, 4.0f});
	SetAll(run.Src1(), 3, 3, 1, {5.0f, 6.0f, 7.0f});
	run.RunKernel();
	EXPECT_EQ(run.Dst()[0], FloatBits(10.0f));
	EXPECT_EQ(run.Dst()[1], FloatBits(18.0f));
	EXPECT_EQ(run.Dst()[2], FloatBits(28.0f));
	for (std::size_t i = 3; i < run.Dst().Total(); ++i)
		EXPECT_EQ(run.Dst()[i], run.Dst().Initial(i)) << "word " << i;
	EXPECT_TRUE(run.Dst().GuardsIntact());
	EXPECT_EQ(capture.Count(), 0u) << FirstReport(capture);
}

class FloatKernelsThreeComponentConstant : public CFloatCaseTest
{
};

TEST_P(FloatKernelsThreeComponentConstant, TailsOf3_6_9AndOneIterationAt4)
{
	// count 1, 2, 3: tails of 3, 6, 9 floats; count 4: one 48-byte iteration, no tail;
	// 5 to 8 the same after one iteration. Each component meets its own constant
	// component, on either side.
	const SCase c = GetParam();
	const EOp op = EOp(c.m_Op);
	const EOperandShape kind = c.m_Shape;
	CChecker checker;
	CAssertCapture capture;
	CValues unused(0);
	const float cst[3] = {100.0f, 200.0f, 400.0f};
	for (u32 count = 1; count <= 8; ++count)
	{
		CRun run(SLayout::Make(op, 3, count, kind), unused);
		CWords &constant = kind == EOperandShape::ConstStream ? run.Src0() : run.Src1();
		CWords &stream = kind == EOperandShape::ConstStream ? run.Src1() : run.Src0();
		for (u32 k = 0; k < 3; ++k)
			constant[k] = FloatBits(cst[k]);
		for (u32 p = 0; p < count * 3; ++p)
			stream[p] = FloatBits(float(p + 1) * (p % 2 == 0 ? 1.0f : 150.0f));
		run.Resnapshot();
		run.RunKernel();
		for (u32 p = 0; p < count * 3; ++p)
		{
			const float v = BitsFloat(stream[p]);
			const float k = cst[p % 3];
			const float a = kind == EOperandShape::ConstStream ? k : v;
			const float b = kind == EOperandShape::ConstStream ? v : k;
			const u32 expected = op == SOp_MathOp::Op_Sub ? FloatBits(a - b) : op == SOp_MathOp::Op_Add ? FloatBits(a + b) : (a < b ? 0xFFFFFFFFu : 0u);
			if (run.Dst()[p] != expected)
				checker.Mismatch(run.Layout().Label() + " " + ShapeName(kind) + ": float " + std::to_string(p) + " got " + Hex(run.Dst()[p]) + " expected " + Hex(expected));
		}
		run.ExpectModel(checker, ShapeName(kind));
		ExpectNoReports(capture, checker, run.Layout().Label());
	}
	EXPECT_EQ(checker.Count(), 0u);
}

INSTANTIATE_TEST_SUITE_P(Ops, FloatKernelsThreeComponentConstant,
						 ::testing::ValuesIn(Cases({SOp_MathOp::Op_Sub, SOp_MathOp::Op_Add, SOp_MathOp::Op_Cmp_Lower}, {3}, kOneConstant)), CaseName);

namespace
{
	std::vector<s32> StreamOpsAndMod()
	{
		std::vector<s32> ops = Ops(OxTest::kFloatStreamOps);
		ops.push_back(SOp_MathOp::Op_Mod);
		return ops;
	}
}

class FloatKernelsThreeComponentPageEnd : public CFloatCaseTest
{
};

TEST_P(FloatKernelsThreeComponentPageEnd, NeverReadsOrWritesPastTheStream)
{
	// The varying stream ends right before an inaccessible page, and so does the
	// destination: a read or write of any byte past either faults. The streams start
	// 16-byte aligned when count is a multiple of 4; with fewer elements than one
	// iteration only scalar accesses happen, so an unaligned start is fine there.
	CGuardPage srcPage, dstPage;
	if (!srcPage.Valid() || !dstPage.Valid())
		GTEST_SKIP() << "no guard page";
	const SCase c = GetParam();
	const EOp op = EOp(c.m_Op);
	const EOperandShape kind = c.m_Shape;
	CValues values(CaseSeed(0x08u, c));
	CChecker checker;
	CAssertCapture capture;
	CWords constant(3, 0x4000u);
	std::vector<u32> counts = {0, 1, 4, 8, 12, 16, 40};
	if (op == SOp_MathOp::Op_Mod)
		counts.insert(counts.end(), {2, 3});	// the modulo tail is scalar float by float
	for (u32 count : counts)
	{
		const std::size_t bytes = std::size_t(count) * 12;
		u32 *stream = reinterpret_cast<u32 *>(srcPage.Tail(bytes));
		u32 *dst = reinterpret_cast<u32 *>(dstPage.Tail(bytes));
		for (std::size_t p = 0; p < count * 3u; ++p)
		{
			stream[p] = values.Next();
			dst[p] = OxTest::GuardWord(u32(p));
		}
		for (u32 k = 0; k < 3; ++k)
			constant[k] = values.Next();
		const u32 *src0 = kind == EOperandShape::ConstStream ? constant.Data() : stream;
		const u32 *src1 = kind == EOperandShape::ConstStream ? stream : constant.Data();
		const u32 stride0 = kind == EOperandShape::ConstStream ? 0 : 12;
		const u32 stride1 = kind == EOperandShape::ConstStream ? 12 : 0;
		MO::_FnMathOpLookup[std::size_t(op) * 4 + 2](dst, 12, count, src0, stride0, src1, stride1);
		const std::string label = OpMnemonic(op) + " N=3 count=" + std::to_string(count) + " " + ShapeName(kind) + " at a page end";
		const bool reciprocal = op == SOp_MathOp::Op_Mod && kind == EOperandShape::StreamConst;
		for (u32 p = 0; p < count * 3; ++p)
		{
			const u32 a = stride0 == 0 ? src0[p % 3] : src0[p];
			const u32 b = stride1 == 0 ? src1[p % 3] : src1[p];
			const u32 expected = reciprocal ? ModelModByReciprocal(a, b) : OxTest::ModelFloat(op, a, b);
			const u32 alternative = reciprocal ? expected : OxTest::ModelFloatAlternative(op, a, b);
			if (dst[p] != expected && dst[p] != alternative)
				checker.Mismatch(label + ": float " + std::to_string(p) + " a=" + Hex(a) + " b=" + Hex(b) + " got " + Hex(dst[p]) + " expected " + Hex(expected));
		}
		ExpectNoReports(capture, checker, label);
	}
	EXPECT_EQ(checker.Count(), 0u);
}

INSTANTIATE_TEST_SUITE_P(StreamOpsAndMod, FloatKernelsThreeComponentPageEnd, ::testing::ValuesIn(Cases(StreamOpsAndMod(), {3}, kOneConstant)), CaseName);

class FloatKernelsConstantSource0 : public CFloatCaseTest
{
};

TEST_P(FloatKernelsConstantSource0, SubAndDivAreConstantOpVarying)
{
	const SCase c = GetParam();
	const EOp op = EOp(c.m_Op);
	const u32 n = c.m_N;
	CAssertCapture capture;
	CValues unused(0);
	const float cst[4] = {10.0f, -20.0f, 1.0f, 7.0f};
	const float vs[] = {1.0f, 2.0f, 4.0f, 3.0f, -5.0f, 0.5f, 8.0f, 10.0f, 6.0f, 9.0f, 11.0f, -1.0f, 1.0f, 2.0f, 3.0f, 4.0f, 5.0f, 6.0f, 7.0f, 8.0f};
	for (u32 count : {1u, 2u, 3u, 4u, 5u})
	{
		CRun run(SLayout::Make(op, n, count, EOperandShape::ConstStream), unused);
		for (u32 k = 0; k < n; ++k)
			run.Src0()[k] = FloatBits(cst[k]);
		for (u32 p = 0; p < count * n; ++p)
			run.Src1()[p] = FloatBits(vs[p % std::size(vs)]);
		run.Resnapshot();
		run.RunKernel();
		for (u32 p = 0; p < count * n; ++p)
		{
			const float k = cst[p % n], v = vs[p % std::size(vs)];
			const float expected = op == SOp_MathOp::Op_Sub ? k - v : k / v;
			EXPECT_EQ(run.Dst()[p], FloatBits(expected)) << run.Layout().Label() << " float " << p << ": expected " << expected;
		}
		CChecker checker;
		run.ExpectModel(checker);
		EXPECT_EQ(checker.Count(), 0u);
	}
	EXPECT_EQ(capture.Count(), 0u) << FirstReport(capture);
}

INSTANTIATE_TEST_SUITE_P(SubDiv, FloatKernelsConstantSource0,
						 ::testing::ValuesIn(Cases({SOp_MathOp::Op_Sub, SOp_MathOp::Op_Div}, kAllDimensions, {EOperandShape::ConstStream})), CaseName);
