// The integer kernels' refusals and reports (operators outside the set, a wrong
// destination stride, unaligned and null pointers, a second source for a unary
// operator), and the vector multiply-high the magic-number division is built on.

#include "int_kernel_harness.h"
#include "mt_integer_tools.h"
#include "simd/sse/simd_vector.h"

#include <gtest/gtest.h>

#include <climits>
#include <cstdio>
#include <string>
#include <vector>

using namespace IntKernelTest;

//====================================================================================
// Refusals and reports.

TEST(IntKernels, OperatorOutsideTheSetReportsAndWritesNothing)
{
	CAssertCapture capture;
	for (int opValue : {19, 20, 100, 255, -1, INT_MIN})
		for (u32 dimension = 1; dimension <= 4; ++dimension)
		{
			capture.Clear();
			CWords src0(Repeat(3, 40)), src1(Repeat(1, 40)), dst(std::size_t(10) * dimension);
			ExecInt(dimension, EOp(opValue), dst.Data(), dimension * 4, 10, src0.Data(), dimension * 4, src1.Data(), dimension * 4);
			EXPECT_TRUE(dst.Untouched()) << "op " << opValue;
			EXPECT_EQ(1u, capture.Count());
			EXPECT_TRUE(capture.Has("false", kNotReached)) << "op " << opValue;
		}
	capture.Clear();
	CWords src0(Repeat(3, 24)), dst(24);
	MathOp::_ExecIntOperatorPacked(EOp(19), dst.Ints(), dst.Ints() + 24, src0.Ints(), 48, src0.Ints(), 48);
	EXPECT_TRUE(dst.Untouched());
	EXPECT_TRUE(capture.Has("false", kNotReached));
}

class IntKernelsDestinationStride : public CIntCaseTest
{
};

TEST_P(IntKernelsDestinationStride, VerificationWritesNothing)
{
	// A three-component source written into a four-component destination (and the other
	// way round): refused, nothing written. Mod by 1 would otherwise clear the range.
	const SCase c = GetParam();
	const EOp op = EOp(c.m_Op);
	const u32 dimension = c.m_N;
	CAssertCapture capture;
	const u32 wrongStride = (7 - dimension) * 4;
	CWords src0(Repeat(kIntMin, 64)), src1(Repeat(1, 64)), dst(64);
	ExecInt(dimension, op, dst.Data(), wrongStride, 12, src0.Data(), dimension * 4, src1.Data(), 0);
	EXPECT_TRUE(dst.Untouched()) << "op " << c.m_Op << ", N = " << dimension;
	EXPECT_EQ(1u, capture.Count());
	EXPECT_EQ(1u, capture.Count("stride == _Dimension * sizeof(s32)"));
}

namespace
{
	std::vector<SCase> ThreeAndFourComponentCases()
	{
		std::vector<SCase> cases;
		for (s32 op = 0; op < SOp_MathOp::__MaxOps; ++op)
			for (u32 n : {3u, 4u})
				cases.push_back({op, n, OxTest::EOperandShape::StreamConst, OxTest::ModelIsUnary(EOp(op))});
		return cases;
	}
}

INSTANTIATE_TEST_SUITE_P(Ops, IntKernelsDestinationStride, ::testing::ValuesIn(ThreeAndFourComponentCases()),
						 [](const ::testing::TestParamInfo<SCase> &info) { return OpMnemonic(info.param.m_Op) + "_N" + std::to_string(info.param.m_N) + "_StreamConst"; });

TEST(IntKernels, ExecOperatorIntArgumentReportsCarryTheirTexts)
{
	CAssertCapture capture;
	// 16-byte but not 32-byte aligned pointers: reported, then computed normally.
	CWords a(Repeat(6, 20)), b(Repeat(3, 20)), dst(20);
	u32 *dst16 = dst.Data() + 4;
	const u32 *a16 = a.Data() + 4;
	const u32 *b16 = b.Data() + 4;
	MathOp::ExecOperatorInt<2>(SOp_MathOp::Op_Div, dst16, 8, 8, a16, 8, b16, 8);
	char text[128];
	std::snprintf(text, sizeof(text), "Unaligned memory! %p should be 32-bytes aligned.", static_cast<const void *>(dst16));
	EXPECT_TRUE(capture.Has("OX_NAMESPACE::Mem::IsAligned<0x20>((evalInto))", text));
	std::snprintf(text, sizeof(text), "Unaligned memory! %p should be 32-bytes aligned.", static_cast<const void *>(a16));
	EXPECT_TRUE(capture.Has("OX_NAMESPACE::Mem::IsAligned<0x20>((datasrc0))", text));
	std::snprintf(text, sizeof(text), "Unaligned memory! %p should be 32-bytes aligned.", static_cast<const void *>(b16));
	EXPECT_TRUE(capture.Has("OX_NAMESPACE::Mem::IsAligned<0x20>((datasrc1))", text));
	EXPECT_EQ(3u, capture.Count());
	for (u32 i = 0; i < 16; ++i)
		EXPECT_EQ(2u, dst16[i]) << i;

	// Null pointers pass the alignment checks and are reported by their own sites.
	capture.Clear();
	MathOp::ExecOperatorInt<1>(SOp_MathOp::Op_Add, nullptr, 4, 0, nullptr, 4, nullptr, 4);
	EXPECT_EQ(2u, capture.Count());
	EXPECT_TRUE(capture.Has("evalInto != null", "evalInto != null"));
	EXPECT_TRUE(capture.Has("datasrc0 != null", "datasrc0 != null"));

	// Strides that are neither packed nor 0.
	capture.Clear();
	CWords out(8);
	MathOp::ExecOperatorInt<1>(SOp_MathOp::Op_Add, out.Data(), 4, 0, a.Data(), 8, b.Data(), 12);
	EXPECT_EQ(2u, capture.Count());
	EXPECT_EQ(1u, capture.Count("stride0 == _Dimension * sizeof(s32) || stride0 == 0"));
	EXPECT_EQ(1u, capture.Count("stride1 == _Dimension * sizeof(s32) || stride1 == 0"));
	EXPECT_TRUE(out.Untouched());	// count 0
}

TEST(IntKernels, PackedKernelAlignmentReportsCarryTheirTexts)
{
	CAssertCapture capture;
	// Fewer than 12 integers: only the scalar tail runs, so misaligned pointers are read
	// and written safely after being reported.
	CWords a({10, 20, 30, 40, 50, 60, 70}), b({1, 2, 3, 4, 5, 6, 7}), dst(8);
	s32 *dstPtr = dst.Ints() + 1;
	const s32 *srcPtr0 = reinterpret_cast<const s32 *>(a.Data()) + 1;
	const s32 *srcPtr1 = reinterpret_cast<const s32 *>(b.Data()) + 2;
	const std::vector<u32> before = dst.Values();
	MathOp::_ExecIntOperatorPacked(SOp_MathOp::Op_Sub, dstPtr, dstPtr + 5, srcPtr0, 48, srcPtr1, 48);
	char text[128];
	std::snprintf(text, sizeof(text), "Unaligned memory! %p should be 16-bytes aligned.", static_cast<const void *>(dstPtr));
	EXPECT_TRUE(capture.Has("OX_NAMESPACE::Mem::IsAligned<0x10>((dstPtr))", text));
	std::snprintf(text, sizeof(text), "Unaligned memory! %p should be 16-bytes aligned.", static_cast<const void *>(srcPtr0));
	EXPECT_TRUE(capture.Has("OX_NAMESPACE::Mem::IsAligned<0x10>((srcPtr0))", text));
	std::snprintf(text, sizeof(text), "Unaligned memory! %p should be 16-bytes aligned.", static_cast<const void *>(srcPtr1));
	EXPECT_TRUE(capture.Has("OX_NAMESPACE::Mem::IsAligned<0x10>((srcPtr1))", text));
	EXPECT_EQ(3u, capture.Count());
	const s32 expected[5] = {20 - 3, 30 - 4, 40 - 5, 50 - 6, 60 - 7};
	for (int i = 0; i < 5; ++i)
		EXPECT_EQ(expected[i], dstPtr[i]) << i;
	// Nothing outside [dstPtr, dstPtr + 5) is written.
	EXPECT_EQ(before[0], dst.Data()[0]);
	EXPECT_EQ(before[6], dst.Data()[6]);
	EXPECT_EQ(before[7], dst.Data()[7]);
	EXPECT_TRUE(dst.GuardsIntact());
}

TEST(IntKernels, NegAndNotReportASecondSourceAndNeverReadIt)
{
	CAssertCapture capture;
	const std::vector<u32> a = {0, 1, kAllOnes, kIntMin, kIntMax, 5, 6, 7, 8, 9, 10, 11, 12, 13};
	const std::vector<u32> garbage = Repeat(0xBAD0BAD0u, 14);
	for (EOp op : {SOp_MathOp::Op_Neg, SOp_MathOp::Op_Bitwise_Not})
	{
		capture.Clear();
		bool guards = false;
		const std::vector<u32> withSource1 = RunPacked(op, a, &garbage, false, &guards);
		EXPECT_EQ(1u, capture.Count("srcPtr1 == null"));	// once per call, before the loops
		EXPECT_EQ(1u, capture.Count());
		EXPECT_TRUE(guards);
		capture.Clear();
		const std::vector<u32> without = RunPacked(op, a, nullptr, false);
		EXPECT_EQ(0u, capture.Count());
		EXPECT_EQ(without, withSource1);
		for (u32 i = 0; i < a.size(); ++i)
			EXPECT_EQ(op == SOp_MathOp::Op_Neg ? 0u - a[i] : ~a[i], without[i]) << i;
	}
	// INT_MIN stays INT_MIN under negation.
	EXPECT_EQ(kIntMin, RunPacked(SOp_MathOp::Op_Neg, Repeat(kIntMin, 13), nullptr, false)[0]);
}

//====================================================================================
// The SSE2 multiply-high used by the magic-number division.

TEST(IntKernels, MulHiInt32MatchesTheScalarHighProduct)
{
	using SIMD_SSE::Float4;
	const s32 edges[] = {0, 1, -1, 2, -2, INT_MIN, INT_MAX, INT_MIN + 1, INT_MAX - 1, 0x10000, -0x10000, 0x55555555, -0x55555556, 46341, -46341};
	for (s32 x : edges)
		for (s32 y : edges)
		{
			const Float4 p = Float4::SetInt(x, y, x, -1).MulHiInt32(Float4::SetInt(y, x, INT_MIN, y));
			EXPECT_EQ(IntegerTools::MulHi32(x, y), p.LaneInt(0)) << x << " * " << y;
			EXPECT_EQ(IntegerTools::MulHi32(y, x), p.LaneInt(1)) << y << " * " << x;
			EXPECT_EQ(IntegerTools::MulHi32(x, INT_MIN), p.LaneInt(2)) << x << " * INT_MIN";
			EXPECT_EQ(IntegerTools::MulHi32(-1, y), p.LaneInt(3)) << "-1 * " << y;
		}
	// Worked values: INT_MIN * INT_MIN = 2^62, -1 * 1 = -1 (high word all ones).
	const Float4 w = Float4::SetInt(INT_MIN, -1, INT_MAX, 3).MulHiInt32(Float4::SetInt(INT_MIN, 1, INT_MAX, 5));
	EXPECT_EQ(0x40000000, w.LaneInt(0));
	EXPECT_EQ(-1, w.LaneInt(1));
	EXPECT_EQ(0x3FFFFFFF, w.LaneInt(2));
	EXPECT_EQ(0, w.LaneInt(3));

	OxTest::CSeededRandom rng(kSeed + 8);
	for (int i = 0; i < 50000; ++i)
	{
		s32 x[4], y[4];
		for (int lane = 0; lane < 4; ++lane)
		{
			x[lane] = s32(rng());
			y[lane] = s32(rng());
		}
		const Float4 p = Float4::LoadUnaligned(x).MulHiInt32(Float4::LoadUnaligned(y));
		for (int lane = 0; lane < 4; ++lane)
			ASSERT_EQ(IntegerTools::MulHi32(x[lane], y[lane]), p.LaneInt(lane)) << x[lane] << " * " << y[lane];
	}
}
