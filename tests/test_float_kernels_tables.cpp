// The float kernel table (which kernel serves each operator and dimension), the
// operator building blocks the kernels are made of (flipped operands, the comparisons,
// the constant broadcast), and the float selector's own checks.

#include "float_kernel_harness.h"

#include <gtest/gtest.h>

#include <cmath>
#include <string>
#include <type_traits>
#include <vector>

using namespace FloatKernelTest;

//====================================================================================
// The kernel table and the selector

// One typed case per dimension, so that a wrong row names its N.
template <typename TDimension>
class FloatKernelTableRows : public ::testing::Test
{
};

struct SDimensionName
{
	template <typename T>
	static std::string GetName(int) { return "N" + std::to_string(T::value); }
};

using TDimensions = ::testing::Types<std::integral_constant<int, 1>, std::integral_constant<int, 2>, std::integral_constant<int, 3>, std::integral_constant<int, 4>>;
TYPED_TEST_SUITE(FloatKernelTableRows, TDimensions, SDimensionName);

TYPED_TEST(FloatKernelTableRows, EveryOperatorHasItsKernelOrNone)
{
	constexpr int N = TypeParam::value;
	using Impl = MO::SMathOpImpl<TVector<float, N>>;
	const auto &t = MO::_FnMathOpLookup;
	const std::size_t d = N - 1;
	EXPECT_TRUE(t[SOp_MathOp::Op_Add * 4 + d] == &Impl::template Op2StreamImpl<MO::Op2_Add>) << N;
	EXPECT_TRUE(t[SOp_MathOp::Op_Sub * 4 + d] == &Impl::template Op2StreamImpl<MO::Op2_Sub>) << N;
	EXPECT_TRUE(t[SOp_MathOp::Op_Mul * 4 + d] == &Impl::template Op2StreamImpl<MO::Op2_Mul>) << N;
	EXPECT_TRUE(t[SOp_MathOp::Op_Div * 4 + d] == &Impl::template Op2StreamImpl<MO::Op2_Div>) << N;
	EXPECT_TRUE(t[SOp_MathOp::Op_Mod * 4 + d] == &Impl::Op2StreamImpl_Op2_Mod) << N;
	EXPECT_TRUE(t[SOp_MathOp::Op_Neg * 4 + d] == &Impl::Op2StreamImpl_Op2_Neg) << N;
	for (s32 op = SOp_MathOp::Op_Bitwise_ShiftLeft; op <= SOp_MathOp::Op_Bitwise_Not; ++op)
		EXPECT_TRUE(t[std::size_t(op) * 4 + d] == nullptr) << OpMnemonic(op) << " N=" << N;
	EXPECT_TRUE(t[SOp_MathOp::Op_Cmp_Lower * 4 + d] == &Impl::template Op2StreamImpl<MO::Op2_LT>) << N;
	EXPECT_TRUE(t[SOp_MathOp::Op_Cmp_LowerOrEqual * 4 + d] == &Impl::template Op2StreamImpl<MO::Op2_LE>) << N;
	EXPECT_TRUE(t[SOp_MathOp::Op_Cmp_Greater * 4 + d] == &Impl::template Op2StreamImpl<MO::Op2_GT>) << N;
	EXPECT_TRUE(t[SOp_MathOp::Op_Cmp_GreaterOrEqual * 4 + d] == &Impl::template Op2StreamImpl<MO::Op2_GE>) << N;
	EXPECT_TRUE(t[SOp_MathOp::Op_Cmp_Equal * 4 + d] == &Impl::template Op2StreamImpl<MO::Op2_EQ>) << N;
	EXPECT_TRUE(t[SOp_MathOp::Op_Cmp_NotEqual * 4 + d] == &Impl::template Op2StreamImpl<MO::Op2_NE>) << N;
}

TEST(FloatKernels, OperatorFlipComputesSource0OpSource1)
{
	using SIMD_SSE::Float4;
	using SIMD_SSE::Scalar;
	const Float4 v = Float4::Set(1.0f, 2.0f, 8.0f, -3.0f);
	const Float4 c = Float4::Set(10.0f, 10.0f, 10.0f, 10.0f);
	// Flipped: Op(varying, constant) = constant op varying.
	const Float4 sub = MO::TOp2Impl<MO::Op2_Sub, true>::Op(v, c);
	const Float4 div = MO::TOp2Impl<MO::Op2_Div, true>::Op(v, c);
	const Float4 lt = MO::TOp2Impl<MO::Op2_LT, true>::Op(v, c);
	const float vs[4] = {1.0f, 2.0f, 8.0f, -3.0f};
	for (int i = 0; i < 4; ++i)
	{
		EXPECT_EQ(sub.LaneBits(i), FloatBits(10.0f - vs[i])) << i;
		EXPECT_EQ(div.LaneBits(i), FloatBits(10.0f / vs[i])) << i;
		EXPECT_EQ(lt.LaneBits(i), 0u) << i;	// 10 < v is false for every lane
	}
	const Float4 subPlain = MO::TOp2Impl<MO::Op2_Sub, false>::Op(v, c);
	for (int i = 0; i < 4; ++i)
		EXPECT_EQ(subPlain.LaneBits(i), FloatBits(vs[i] - 10.0f)) << i;

	const Scalar sv(Float4::Set(3.0f, 0, 0, 0).m_Value), sc(Float4::Set(12.0f, 0, 0, 0).m_Value);
	using SubFlipped = MO::TOp2Impl<MO::Op2_Sub, true>;
	using DivFlipped = MO::TOp2Impl<MO::Op2_Div, true>;
	using DivPlain = MO::TOp2Impl<MO::Op2_Div, false>;
	using GtFlipped = MO::TOp2Impl<MO::Op2_GT, true>;
	using GePlain = MO::TOp2Impl<MO::Op2_GE, false>;
	EXPECT_EQ(SubFlipped::Op(sv, sc).ToBits(), FloatBits(9.0f));
	EXPECT_EQ(DivFlipped::Op(sv, sc).ToBits(), FloatBits(4.0f));
	EXPECT_EQ(DivPlain::Op(sv, sc).ToBits(), FloatBits(0.25f));
	EXPECT_EQ(GtFlipped::Op(sv, sc).ToBits(), 0xFFFFFFFFu);	// 12 > 3
	EXPECT_EQ(GePlain::Op(sv, sc).ToBits(), 0u);			// 3 >= 12
}

TEST(FloatKernels, GreaterIsSwappedLowerAndNotEqualIsUnordered)
{
	using SIMD_SSE::Float4;
	// Every pair of edge values, four at a time.
	std::vector<u32> as, bs;
	for (u32 a : kFloatEdgeValues)
		for (u32 b : kFloatEdgeValues)
		{
			as.push_back(a);
			bs.push_back(b);
		}
	while (as.size() % 4 != 0)
	{
		as.push_back(0);
		bs.push_back(0);
	}
	for (std::size_t i = 0; i < as.size(); i += 4)
	{
		const Float4 a = Float4::SetInt(s32(as[i]), s32(as[i + 1]), s32(as[i + 2]), s32(as[i + 3]));
		const Float4 b = Float4::SetInt(s32(bs[i]), s32(bs[i + 1]), s32(bs[i + 2]), s32(bs[i + 3]));
		const Float4 gt = MO::TOp2Impl<MO::Op2_GT, false>::Op(a, b);
		const Float4 ge = MO::TOp2Impl<MO::Op2_GE, false>::Op(a, b);
		const Float4 ltSwapped = MO::TOp2Impl<MO::Op2_LT, false>::Op(b, a);
		const Float4 leSwapped = MO::TOp2Impl<MO::Op2_LE, false>::Op(b, a);
		const Float4 eq = MO::TOp2Impl<MO::Op2_EQ, false>::Op(a, b);
		const Float4 ne = MO::TOp2Impl<MO::Op2_NE, false>::Op(a, b);
		for (int l = 0; l < 4; ++l)
		{
			const float fa = BitsFloat(as[i + l]), fb = BitsFloat(bs[i + l]);
			EXPECT_EQ(gt.LaneBits(l), ltSwapped.LaneBits(l));
			EXPECT_EQ(ge.LaneBits(l), leSwapped.LaneBits(l));
			EXPECT_EQ(gt.LaneBits(l), fa > fb ? 0xFFFFFFFFu : 0u) << Hex(as[i + l]) << " > " << Hex(bs[i + l]);
			EXPECT_EQ(ge.LaneBits(l), fa >= fb ? 0xFFFFFFFFu : 0u) << Hex(as[i + l]) << " >= " << Hex(bs[i + l]);
			EXPECT_EQ(ne.LaneBits(l), ~eq.LaneBits(l)) << "NE is the exact negation of EQ";
			const bool anyNaN = std::isnan(fa) || std::isnan(fb);
			if (anyNaN)
			{
				EXPECT_EQ(ne.LaneBits(l), 0xFFFFFFFFu);
			}
		}
	}
}

TEST(FloatKernels, BroadcastRouterFillsAVectorWithTheConstant)
{
	alignas(32) float c[8] = {1.5f, -2.0f, 3.25f, 4.0f, 99.0f, 99.0f, 99.0f, 99.0f};
	const auto b1 = MO::TDimBroadcastRouter<1>::Broadcast(c);
	const auto b2 = MO::TDimBroadcastRouter<2>::Broadcast(c);
	const auto b4 = MO::TDimBroadcastRouter<4>::Broadcast(c);
	const u32 x = FloatBits(1.5f), y = FloatBits(-2.0f), z = FloatBits(3.25f), w = FloatBits(4.0f);
	const u32 e1[4] = {x, x, x, x}, e2[4] = {x, y, x, y}, e4[4] = {x, y, z, w};
	for (int l = 0; l < 4; ++l)
	{
		EXPECT_EQ(b1.LaneBits(l), e1[l]) << l;
		EXPECT_EQ(b2.LaneBits(l), e2[l]) << l;
		EXPECT_EQ(b4.LaneBits(l), e4[l]) << l;
	}
	// N = 2 reads 8 bytes only: an 8-byte aligned constant is fine.
	const auto b2odd = MO::TDimBroadcastRouter<2>::Broadcast(c + 2);
	const u32 e2odd[4] = {z, w, z, w};
	for (int l = 0; l < 4; ++l)
		EXPECT_EQ(b2odd.LaneBits(l), e2odd[l]) << l;
}


//====================================================================================
// The selector's checks

TEST(FloatKernels, SelectorReportsUnalignedPointersAndStillRuns)
{
	// 16-byte aligned but not 32-byte aligned: each pointer reported once with its address,
	// the kernel then runs as usual.
	const u32 seed = kSeed ^ 0x12u;
	CValues values(seed);
	CAssertCapture capture;
	const u32 count = 6;
	CWords dst(count * 4 + 4, 0x5000u), src0(count * 4 + 4, 0x6000u), src1(count * 4 + 4, 0x7000u);
	src0.Fill(values);
	src1.Fill(values);
	u32 *d = dst.Data() + 4;
	const u32 *a = src0.Data() + 4;
	const u32 *b = src1.Data() + 4;
	MO::ExecOperatorFloat<4>(SOp_MathOp::Op_Add, d, 16, count, a, 16, b, 16);
	const auto reports = capture.Reports();
	ASSERT_EQ(reports.size(), 3u) << FirstReport(capture);
	EXPECT_EQ(reports[0].m_Expression, "OX_NAMESPACE::Mem::IsAligned<0x20>((evalInto))");
	EXPECT_EQ(reports[0].m_Message, "Unaligned memory! " + PointerText(d) + " should be 32-bytes aligned.");
	EXPECT_EQ(reports[1].m_Expression, "OX_NAMESPACE::Mem::IsAligned<0x20>((datasrc0))");
	EXPECT_EQ(reports[1].m_Message, "Unaligned memory! " + PointerText(a) + " should be 32-bytes aligned.");
	EXPECT_EQ(reports[2].m_Expression, "OX_NAMESPACE::Mem::IsAligned<0x20>((datasrc1))");
	EXPECT_EQ(reports[2].m_Message, "Unaligned memory! " + PointerText(b) + " should be 32-bytes aligned.");
	for (u32 p = 0; p < count * 4; ++p)
		EXPECT_EQ(d[p], OxTest::ModelFloat(SOp_MathOp::Op_Add, a[p], b[p])) << p;
	for (std::size_t w = 4 + count * 4; w < dst.Total(); ++w)
		EXPECT_EQ(dst[w], dst.Initial(w)) << w;
	for (std::size_t w = 0; w < 4; ++w)
		EXPECT_EQ(dst[w], dst.Initial(w)) << w;
}

TEST(FloatKernels, SelectorAcceptsANullSecondSource)
{
	// Negation passes no second source: a null pointer is aligned, nothing reported.
	CAssertCapture capture;
	CValues values(kSeed ^ 0x13u);
	for (u32 n = 1; n <= 4; ++n)
	{
		CRun run(SLayout::Make(SOp_MathOp::Op_Neg, n, 11, EOperandShape::StreamStream), values);
		run.RunSelector();
		CChecker checker;
		run.ExpectModel(checker);
		EXPECT_EQ(checker.Count(), 0u);
		EXPECT_EQ(capture.Count(), 0u) << FirstReport(capture);
	}
}

TEST(FloatKernels, SelectorReportsANullDestination)
{
	CAssertCapture capture;
	CValues values(kSeed ^ 0x14u);
	for (u32 n = 1; n <= 4; ++n)
	{
		CWords src(8, 0x8000u);
		src.Fill(values);
		switch (n)
		{
		case 1: MO::ExecOperatorFloat<1>(SOp_MathOp::Op_Add, nullptr, 4, 0, src.Data(), 4, src.Data(), 4); break;
		case 2: MO::ExecOperatorFloat<2>(SOp_MathOp::Op_Add, nullptr, 8, 0, src.Data(), 8, src.Data(), 8); break;
		case 3: MO::ExecOperatorFloat<3>(SOp_MathOp::Op_Add, nullptr, 12, 0, src.Data(), 12, src.Data(), 12); break;
		case 4: MO::ExecOperatorFloat<4>(SOp_MathOp::Op_Add, nullptr, 16, 0, src.Data(), 16, src.Data(), 16); break;
		}
		EXPECT_EQ(capture.Count("evalInto != null"), 1u) << n;
		EXPECT_EQ(capture.Count(), 1u) << FirstReport(capture);
		EXPECT_EQ(src.FirstChanged(), src.Total());
		capture.Clear();
	}
}

