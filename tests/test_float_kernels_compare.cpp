// The float comparison kernels' results (NaN handling, raw lane masks) on every path,
// operator values that have no float kernel, and a non-packed source stride on the
// fast path.

#include "float_kernel_harness.h"

#include <gtest/gtest.h>

#include <cmath>
#include <iterator>
#include <string>
#include <utility>
#include <vector>

using namespace FloatKernelTest;

namespace
{
	const std::vector<u32> kAllDimensions = {1, 2, 3, 4};
	const std::vector<EOperandShape> kAll(std::begin(OxTest::kAllShapes), std::end(OxTest::kAllShapes));
	const std::vector<EOperandShape> kFast(std::begin(OxTest::kFastPathShapes), std::end(OxTest::kFastPathShapes));
}

class FloatKernelsCompare : public CFloatCaseTest
{
};

TEST_P(FloatKernelsCompare, NaNIsFalseExceptNotEqual)
{
	// LT, LE, GT, GE and EQ give 0 with a NaN on either side (or both); NE gives all ones.
	// On every path: packed, either constant, two constants (slow path) and a strided
	// destination (slow path).
	const SCase c = GetParam();
	const EOp op = EOp(c.m_Op);
	const u32 n = c.m_N;
	const EOperandShape kind = c.m_Shape;
	CChecker checker;
	CAssertCapture capture;
	CValues unused(0);
	const u32 nans[] = {0x7FC00000u, 0xFFC00000u, 0x7FC12345u, 0x7F800001u, 0xFFFFFFFFu};
	const u32 others[] = {0x3F800000u, 0x00000000u, 0x80000000u, 0x7F800000u, 0xFF800000u, 0x00000001u};
	const u32 expected = op == SOp_MathOp::Op_Cmp_NotEqual ? 0xFFFFFFFFu : 0u;
	for (u32 dstStride : {n, n + 1})
		for (int side = 0; side < 3; ++side)	// NaN in a, in b, in both
		{
			const u32 count = 7;
			CRun run(SLayout::Make(op, n, count, kind, dstStride), unused);
			const SLayout &l = run.Layout();
			for (std::size_t p = 0; p < SLayout::SourceWords(l.m_Stride0, n, count); ++p)
				run.Src0()[p] = side != 1 ? nans[p % std::size(nans)] : others[p % std::size(others)];
			for (std::size_t p = 0; p < SLayout::SourceWords(l.m_Stride1, n, count); ++p)
				run.Src1()[p] = side != 0 ? nans[(p + 2) % std::size(nans)] : others[(p + 1) % std::size(others)];
			run.Resnapshot();
			run.RunKernel();
			for (u32 i = 0; i < count; ++i)
				for (u32 k = 0; k < n; ++k)
				{
					const u32 got = run.Dst()[std::size_t(i) * dstStride + k];
					if (got != expected)
						checker.Mismatch(l.Label() + " " + ShapeName(kind) + " NaN side " + std::to_string(side) + ": got " + Hex(got) + " expected " + Hex(expected));
				}
			run.ExpectModel(checker, ShapeName(kind));
			capture.Clear();
		}
	EXPECT_EQ(checker.Count(), 0u);
}

TEST_P(FloatKernelsCompare, StoresRawLaneMasks)
{
	// True is all 32 bits set (not 1.0, not 1), false is 0.
	struct SValues
	{
		float a, b;
		u32 lt, le, gt, ge, eq, ne;
	};
	const u32 T = 0xFFFFFFFFu, F = 0u;
	const SValues cases[] = {
		{1.0f, 2.0f, T, T, F, F, F, T},
		{2.0f, 1.0f, F, F, T, T, F, T},
		{2.0f, 2.0f, F, T, F, T, T, F},
		{-0.0f, 0.0f, F, T, F, T, T, F},
		{-INFINITY, INFINITY, T, T, F, F, F, T},
		{INFINITY, INFINITY, F, T, F, T, T, F},
		{1.0e-45f, 0.0f, F, F, T, T, F, T},	// denormal vs zero
	};
	const SCase c = GetParam();
	const u32 n = c.m_N;
	const EOperandShape kind = c.m_Shape;
	CAssertCapture capture;
	CValues unused(0);
	for (const SValues &v : cases)
	{
		const std::pair<EOp, u32> expectations[] = {
			{SOp_MathOp::Op_Cmp_Lower, v.lt}, {SOp_MathOp::Op_Cmp_LowerOrEqual, v.le}, {SOp_MathOp::Op_Cmp_Greater, v.gt},
			{SOp_MathOp::Op_Cmp_GreaterOrEqual, v.ge}, {SOp_MathOp::Op_Cmp_Equal, v.eq}, {SOp_MathOp::Op_Cmp_NotEqual, v.ne}};
		for (const auto &e : expectations)
		{
			if (e.first != c.m_Op)
				continue;
			const u32 count = 5;
			CRun run(SLayout::Make(e.first, n, count, kind), unused);
			SetAll(run.Src0(), run.Layout().m_Stride0, n, count, {v.a});
			SetAll(run.Src1(), run.Layout().m_Stride1, n, count, {v.b});
			run.RunKernel();
			for (u32 p = 0; p < count * n; ++p)
				EXPECT_EQ(run.Dst()[p], e.second) << run.Layout().Label() << " " << ShapeName(kind) << " a=" << v.a << " b=" << v.b << " float " << p;
		}
	}
	EXPECT_EQ(capture.Count(), 0u) << FirstReport(capture);
}

INSTANTIATE_TEST_SUITE_P(Ops, FloatKernelsCompare, ::testing::ValuesIn(Cases(Ops(OxTest::kCompareOps), kAllDimensions, kAll)), CaseName);

class FloatKernelsNoKernel : public CFloatCaseTest
{
};

TEST_P(FloatKernelsNoKernel, BitwiseOperatorOnAFloatTypeWritesNothing)
{
	// The seven bitwise operators and values past the set (19, 100, 255) have no float
	// kernel: the invalid-operation message, nothing written, the table never read past
	// its 76 entries (a read there would pick up a random pointer and call it).
	const SCase c = GetParam();
	CValues values(CaseSeed(0x09u, c));
	CChecker checker;
	CAssertCapture capture;
	for (u32 count : SweepCounts())
	{
		SLayout layout = SLayout::Make(c.m_Op, c.m_N, count, c.m_Shape);
		CRun run(layout, values);
		const u32 hazards = SlowHazards();
		run.RunSelector();
		run.ExpectNothingWritten(checker, ShapeName(c.m_Shape));
		const auto reports = capture.Reports();
		if (reports.size() != 1 || reports[0].m_Expression != "fnPtr != null" || reports[0].m_Message != kInvalidFloatOpMessage)
			checker.Mismatch(layout.Label() + ": expected exactly the invalid-operation report, got " + std::to_string(reports.size()) + ", first " + FirstReport(capture));
		if (SlowHazards() != hazards)
			checker.Mismatch(layout.Label() + ": counted a hazard");
		capture.Clear();
	}
	EXPECT_EQ(checker.Count(), 0u);
}

INSTANTIATE_TEST_SUITE_P(Ops, FloatKernelsNoKernel,
						 ::testing::ValuesIn(Cases(std::vector<s32>(std::begin(OxTest::kNoFloatKernelOps), std::end(OxTest::kNoFloatKernelOps)), kAllDimensions, kFast)), CaseName);

class FloatKernelsPastTheSet : public CFloatCaseTest
{
};

TEST_P(FloatKernelsPastTheSet, OneOperandCallFindsNoKernel)
{
	// Same as a bitwise operator, including for a one-operand call.
	const SCase c = GetParam();
	CChecker checker;
	CAssertCapture capture;
	CValues values(CaseSeed(0x0Au, c));
	SLayout layout = SLayout::Make(c.m_Op, c.m_N, 9, EOperandShape::StreamStream);
	layout.m_Unary = true;	// source 1 null
	CRun run(layout, values);
	run.RunSelector();
	run.ExpectNothingWritten(checker);
	EXPECT_TRUE(capture.Has("fnPtr != null", kInvalidFloatOpMessage)) << layout.Label();
	EXPECT_EQ(capture.Count(), 1u) << layout.Label();
	EXPECT_EQ(checker.Count(), 0u);
}

INSTANTIATE_TEST_SUITE_P(Ops, FloatKernelsPastTheSet,
						 ::testing::ValuesIn(Cases({19, 20, 63, 100, 127, 128, 200, 254, 255}, kAllDimensions, {EOperandShape::StreamStream})),
						 [](const ::testing::TestParamInfo<SCase> &info) { return OpMnemonic(info.param.m_Op) + "_N" + std::to_string(info.param.m_N) + "_StreamOnly"; });

TEST(FloatKernels, NonPackedNonZeroSourceStrideOnTheFastPathIsReadAsAConstant)
{
	// The fast path needs a packed destination and one packed source; the other source's
	// stride, whatever its value, makes it the constant (element 0 only is read).
	CChecker checker;
	CAssertCapture capture;
	CValues values(kSeed ^ 0x0Bu);
	for (u32 n = 1; n <= 4; ++n)
		for (int side = 0; side < 2; ++side)
		{
			const u32 count = 9;
			SLayout l = SLayout::Make(SOp_MathOp::Op_Sub, n, count, EOperandShape::StreamStream);
			(side == 0 ? l.m_Stride0 : l.m_Stride1) = 2 * n;
			CRun run(l, values);
			const u32 hazards = SlowHazards();
			run.RunKernel();
			EXPECT_EQ(SlowHazards(), hazards) << l.Label() << ": not a slow path";
			// As if the stride were 0.
			SLayout asConstant = l;
			(side == 0 ? asConstant.m_Stride0 : asConstant.m_Stride1) = 0;
			for (u32 i = 0; i < count; ++i)
				for (u32 k = 0; k < n; ++k)
				{
					const u32 a = run.Src0()[std::size_t(i) * asConstant.m_Stride0 + k];
					const u32 b = run.Src1()[std::size_t(i) * asConstant.m_Stride1 + k];
					const u32 got = run.Dst()[std::size_t(i) * n + k];
					if (got != OxTest::ModelFloat(SOp_MathOp::Op_Sub, a, b))
						checker.Mismatch(l.Label() + ": element " + std::to_string(i) + " got " + Hex(got));
				}
			for (std::size_t w = std::size_t(count) * n; w < run.Dst().Total(); ++w)
				if (run.Dst()[w] != run.Dst().Initial(w))
					checker.Mismatch(l.Label() + ": wrote past the stream");
			ExpectNoReports(capture, checker, l.Label());
		}
	EXPECT_EQ(checker.Count(), 0u);
}

