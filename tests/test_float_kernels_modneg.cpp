// The float modulo kernel (true division, a reciprocal for a constant divisor, the
// component a tail float meets, the reports of the layouts it refuses) and the negation
// kernel (a sign flip, a constant operand refused).

#include "float_kernel_harness.h"

#include <gtest/gtest.h>

#include <iterator>
#include <string>
#include <vector>

using namespace FloatKernelTest;

//====================================================================================
// Modulo

namespace
{
	// A modulo whose every source component is a and b: the same float is expected on
	// every path.
	struct SModValue
	{
		const char *m_Name;
		float m_A, m_B;
		u32 m_Expected;
	};

	const SModValue kModValues[] = {
		{"FiveAndAHalfByTwoIsOneAndAHalf", 5.5f, 2.0f, FloatBits(1.5f)},
		{"SignOfTheDividend", -5.5f, 2.0f, FloatBits(-1.5f)},
		{"NegativeDivisorKeepsTheSignOfTheDividend", 5.5f, -2.0f, FloatBits(1.5f)},
		{"QuotientReaching2Pow31IsZero", 1.0e10f, 2.0f, 0u},
		// By zero: the quotient is infinite (or NaN for 0 / 0), masked to 0, times the divisor 0.
		{"ZeroByZero", 0.0f, 0.0f, 0u},
		{"OneByZero", 1.0f, 0.0f, 0u},
		{"MinusOneByZero", -1.0f, 0.0f, 0u},
		{"FiveAndAHalfByZero", 5.5f, 0.0f, 0u},
		{"MinusThreeAndAQuarterByZero", -3.25f, 0.0f, 0u},
		{"TenBillionByZero", 1.0e10f, 0.0f, 0u},
		{"NearFloatMaxByZero", 3.4e38f, 0.0f, 0u},
		{"DenormalByZero", 1.0e-45f, 0.0f, 0u},
		{"MinusDenormalByZero", -1.0e-45f, 0.0f, 0u},
	};

	struct SModValueCase
	{
		std::size_t m_Value;
		u32 m_N;
		EOperandShape m_Shape;
	};

	std::vector<SModValueCase> ModValueCases()
	{
		std::vector<SModValueCase> cases;
		for (std::size_t v = 0; v < std::size(kModValues); ++v)
			for (u32 n = 1; n <= 4; ++n)
				for (EOperandShape shape : OxTest::kAllShapes)
					cases.push_back({v, n, shape});
		return cases;
	}
}

class FloatKernelsModValue : public ::testing::TestWithParam<SModValueCase>
{
};

TEST_P(FloatKernelsModValue, EveryCountGivesTheExpectedFloat)
{
	const SModValueCase c = GetParam();
	const SModValue &v = kModValues[c.m_Value];
	const u32 n = c.m_N;
	const EOperandShape kind = c.m_Shape;
	CAssertCapture capture;
	CValues unused(0);
	for (u32 count : {1u, 2u, 3u, 4u, 5u, 8u, 9u})
	{
		CRun run(SLayout::Make(SOp_MathOp::Op_Mod, n, count, kind), unused);
		SetAll(run.Src0(), run.Layout().m_Stride0, n, count, {v.m_A});
		SetAll(run.Src1(), run.Layout().m_Stride1, n, count, {v.m_B});
		run.RunKernel();
		for (u32 p = 0; p < count * n; ++p)
			EXPECT_EQ(run.Dst()[p], v.m_Expected) << v.m_A << " mod " << v.m_B << " " << run.Layout().Label() << " " << ShapeName(kind) << " float " << p;
		for (std::size_t w = std::size_t(count) * n; w < run.Dst().Total(); ++w)
			EXPECT_EQ(run.Dst()[w], run.Dst().Initial(w)) << run.Layout().Label() << " word " << w;
		EXPECT_TRUE(run.Dst().GuardsIntact()) << run.Layout().Label();
		// Two constants are reported (modulo has no slow path); nothing else is.
		if (kind != EOperandShape::ConstConst)
		{
			EXPECT_EQ(capture.Count(), 0u) << FirstReport(capture);
		}
		capture.Clear();
	}
}

INSTANTIATE_TEST_SUITE_P(Values, FloatKernelsModValue, ::testing::ValuesIn(ModValueCases()),
						 [](const ::testing::TestParamInfo<SModValueCase> &info) {
							 return std::string(kModValues[info.param.m_Value].m_Name) + "_N" + std::to_string(info.param.m_N) + "_" + ShapeName(info.param.m_Shape);
						 });

TEST(FloatKernels, ModThreeComponentConstantDivisorCountFive)
{
	// 15 floats: one 12-float iteration, then a 3-float tail with the components x, y, z.
	// Powers of two make the reciprocal exact, so the values are known by hand.
	CAssertCapture capture;
	CValues unused(0);
	const u32 count = 5;
	CRun run(SLayout::Make(SOp_MathOp::Op_Mod, 3, count, EOperandShape::StreamConst), unused);
	run.Src1()[0] = FloatBits(2.0f);
	run.Src1()[1] = FloatBits(4.0f);
	run.Src1()[2] = FloatBits(8.0f);
	for (u32 i = 0; i < count; ++i)
		for (u32 k = 0; k < 3; ++k)
			run.Src0()[i * 3 + k] = FloatBits((i % 2 == 0 ? 1.0f : -1.0f) * (15.25f + 16.0f * float(i)));
	run.Resnapshot();
	run.RunKernel();
	const float byComponent[3] = {1.25f, 3.25f, 7.25f};
	for (u32 i = 0; i < count; ++i)
		for (u32 k = 0; k < 3; ++k)
			EXPECT_EQ(run.Dst()[i * 3 + k], FloatBits((i % 2 == 0 ? 1.0f : -1.0f) * byComponent[k])) << "element " << i << " component " << k;
	CChecker checker;
	run.ExpectModel(checker);
	EXPECT_EQ(checker.Count(), 0u);
	EXPECT_EQ(capture.Count(), 0u) << FirstReport(capture);

	// Divisors that are not powers of two, against the reciprocal model.
	CValues values(kSeed ^ 0x15u);
	CRun other(SLayout::Make(SOp_MathOp::Op_Mod, 3, count, EOperandShape::StreamConst), values);
	other.Src1()[0] = FloatBits(3.0f);
	other.Src1()[1] = FloatBits(-0.7f);
	other.Src1()[2] = FloatBits(10.0f);
	other.Resnapshot();
	other.RunKernel();
	other.ExpectModel(checker, "3, -0.7, 10");
	EXPECT_EQ(checker.Count(), 0u);

	// The same shape with a constant dividend (true division).
	CRun dividend(SLayout::Make(SOp_MathOp::Op_Mod, 3, count, EOperandShape::ConstStream), unused);
	dividend.Src0()[0] = FloatBits(15.25f);
	dividend.Src0()[1] = FloatBits(7.75f);
	dividend.Src0()[2] = FloatBits(3.5f);
	for (u32 i = 0; i < count; ++i)
	{
		dividend.Src1()[i * 3 + 0] = FloatBits(2.0f);
		dividend.Src1()[i * 3 + 1] = FloatBits(4.0f);
		dividend.Src1()[i * 3 + 2] = FloatBits(8.0f);
	}
	dividend.Resnapshot();
	dividend.RunKernel();
	const float expected[3] = {1.25f, 3.75f, 3.5f};
	for (u32 i = 0; i < count; ++i)
		for (u32 k = 0; k < 3; ++k)
			EXPECT_EQ(dividend.Dst()[i * 3 + k], FloatBits(expected[k])) << "element " << i << " component " << k;
	dividend.ExpectModel(checker);
	EXPECT_EQ(checker.Count(), 0u);
	EXPECT_EQ(capture.Count(), 0u) << FirstReport(capture);
}

TEST(FloatKernels, ModTwoComponentTailUsesTheComponentOfItsPosition)
{
	// N = 2 with an odd count: the last element is a 2-float scalar tail. Its second
	// float must meet the constant's second component (y), for a constant divisor and a
	// constant dividend alike.
	CAssertCapture capture;
	CValues unused(0);
	for (u32 count = 1; count <= 41; count += 2)
	{
		CRun divisor(SLayout::Make(SOp_MathOp::Op_Mod, 2, count, EOperandShape::StreamConst), unused);
		divisor.Src1()[0] = FloatBits(2.0f);
		divisor.Src1()[1] = FloatBits(8.0f);
		for (u32 p = 0; p < count * 2; ++p)
			divisor.Src0()[p] = FloatBits(15.25f);
		divisor.Resnapshot();
		divisor.RunKernel();
		for (u32 i = 0; i < count; ++i)
		{
			EXPECT_EQ(divisor.Dst()[i * 2 + 0], FloatBits(1.25f)) << "constant divisor, count " << count << " element " << i << " x";
			EXPECT_EQ(divisor.Dst()[i * 2 + 1], FloatBits(7.25f)) << "constant divisor, count " << count << " element " << i << " y";
		}

		CRun dividend(SLayout::Make(SOp_MathOp::Op_Mod, 2, count, EOperandShape::ConstStream), unused);
		dividend.Src0()[0] = FloatBits(15.25f);
		dividend.Src0()[1] = FloatBits(7.75f);
		for (u32 i = 0; i < count; ++i)
		{
			dividend.Src1()[i * 2 + 0] = FloatBits(2.0f);
			dividend.Src1()[i * 2 + 1] = FloatBits(4.0f);
		}
		dividend.Resnapshot();
		dividend.RunKernel();
		for (u32 i = 0; i < count; ++i)
		{
			EXPECT_EQ(dividend.Dst()[i * 2 + 0], FloatBits(1.25f)) << "constant dividend, count " << count << " element " << i << " x";
			EXPECT_EQ(dividend.Dst()[i * 2 + 1], FloatBits(3.75f)) << "constant dividend, count " << count << " element " << i << " y";
		}
		CChecker checker;
		divisor.ExpectModel(checker);
		dividend.ExpectModel(checker);
		EXPECT_EQ(checker.Count(), 0u);
	}
	EXPECT_EQ(capture.Count(), 0u) << FirstReport(capture);
}

TEST(FloatKernels, ModByAConstantDivisorIsAReciprocalMultiply)
{
	// Pick dividends for which a * (1 / c) and a / c give different remainders: the
	// kernel must give the reciprocal one, on the vector part and in the tail, for N = 1..4.
	const u32 seed = kSeed ^ 0x16u;
	OxTest::CSeededRandom rng(seed);
	CAssertCapture capture;
	CValues unused(0);
	const float divisors[] = {3.0f, 10.0f, 0.3f, -7.0f};
	for (u32 n = 1; n <= 4; ++n)
	{
		std::vector<u32> dividends;
		const float c = divisors[n - 1];
		for (int tries = 0; tries < 200000 && dividends.size() < 64; ++tries)
		{
			const float a = std::uniform_real_distribution<float>(-5000.0f, 5000.0f)(rng);
			const u32 viaReciprocal = ModelModByReciprocal(FloatBits(a), FloatBits(c));
			if (viaReciprocal != OxTest::ModelFloat(SOp_MathOp::Op_Mod, FloatBits(a), FloatBits(c)))
				dividends.push_back(FloatBits(a));
		}
		ASSERT_GE(dividends.size(), 16u) << "not enough dividends where the two differ";
		const u32 count = u32(dividends.size() / n) - 1;	// leaves a tail for N = 1 .. 3
		CRun run(SLayout::Make(SOp_MathOp::Op_Mod, n, count, EOperandShape::StreamConst), unused);
		for (u32 k = 0; k < n; ++k)
			run.Src1()[k] = FloatBits(c);
		for (u32 p = 0; p < count * n; ++p)
			run.Src0()[p] = dividends[p];
		run.Resnapshot();
		run.RunKernel();
		for (u32 p = 0; p < count * n; ++p)
			EXPECT_EQ(run.Dst()[p], ModelModByReciprocal(dividends[p], FloatBits(c))) << "N=" << n << " float " << p << " a=" << BitsFloat(dividends[p]) << " c=" << c;
	}
	EXPECT_EQ(capture.Count(), 0u) << FirstReport(capture);
}

TEST(FloatKernels, ModOfTwoConstantsIsReportedAndEvaluatesTheConstants)
{
	// Both constants sit right before an inaccessible page: nothing past either is read.
	CGuardPage page0, page1;
	if (!page0.Valid() || !page1.Valid())
		GTEST_SKIP() << "no guard page";
	const u32 seed = kSeed ^ 0x17u;
	CValues values(seed);
	CAssertCapture capture;
	CChecker checker;
	for (u32 n = 1; n <= 4; ++n)
		for (u32 count : SweepCounts())
		{
			u32 *c0 = reinterpret_cast<u32 *>(page0.Tail(4 * n));
			u32 *c1 = reinterpret_cast<u32 *>(page1.Tail(4 * n));
			for (u32 k = 0; k < n; ++k)
			{
				c0[k] = values.Next();
				c1[k] = values.Next();
			}
			CWords dst(std::size_t(count) * n, 0x9000u);
			MO::_FnMathOpLookup[SOp_MathOp::Op_Mod * 4 + (n - 1)](dst.Data(), 4 * n, count, c0, 0, c1, 0);
			const std::string label = "Mod N=" + std::to_string(n) + " count=" + std::to_string(count) + " two constants";
			for (u32 i = 0; i < count; ++i)
				for (u32 k = 0; k < n; ++k)
				{
					const u32 expected = OxTest::ModelFloat(SOp_MathOp::Op_Mod, c0[k], c1[k]);
					const u32 got = dst[std::size_t(i) * n + k];
					if (got != expected)
						checker.Mismatch(label + ": element " + std::to_string(i) + " component " + std::to_string(k) + " got " + Hex(got) + " expected " + Hex(expected));
				}
			for (std::size_t w = std::size_t(count) * n; w < dst.Total(); ++w)
				if (dst[w] != dst.Initial(w))
				{
					checker.Mismatch(label + ": wrote past the stream");
					break;
				}
			const auto reports = capture.Reports();
			if (reports.size() != 1 || reports[0].m_Expression != "(stride0 == 0) != (stride1 == 0)")
				checker.Mismatch(label + ": expected exactly the one-constant report, got " + std::to_string(reports.size()) + ", first " + FirstReport(capture));
			capture.Clear();
		}
	EXPECT_EQ(checker.Count(), 0u);
}

TEST(FloatKernels, ModWithANonPackedNonZeroSourceStrideWritesNothing)
{
	// One source with a stride that is neither packed nor 0, the other packed: reported,
	// and no kernel case matches, so nothing is written.
	CAssertCapture capture;
	CValues values(kSeed ^ 0x18u);
	CChecker checker;
	for (u32 n = 1; n <= 4; ++n)
		for (int side = 0; side < 2; ++side)
		{
			SLayout l = SLayout::Make(SOp_MathOp::Op_Mod, n, 7, EOperandShape::StreamStream);
			(side == 0 ? l.m_Stride0 : l.m_Stride1) = 2 * n;
			CRun run(l, values);
			run.RunKernel();
			run.ExpectNothingWritten(checker);
			EXPECT_EQ(capture.Count(side == 0 ? "stride0 == sizeof(_Type) || stride0 == 0" : "stride1 == sizeof(_Type) || stride1 == 0"), 1u) << l.Label();
			EXPECT_EQ(capture.Count("(stride0 == 0) != (stride1 == 0)"), 1u) << l.Label();
			EXPECT_EQ(capture.Count(), 2u) << l.Label() << " " << FirstReport(capture);
			capture.Clear();
		}
	EXPECT_EQ(checker.Count(), 0u);
}

TEST(FloatKernels, ModWithABadDestinationStrideIsReported)
{
	CAssertCapture capture;
	CValues values(kSeed ^ 0x19u);
	for (u32 n = 1; n <= 4; ++n)
	{
		const u32 count = 6;
		SLayout l = SLayout::Make(SOp_MathOp::Op_Mod, n, count, EOperandShape::StreamStream, 2 * n);
		// Sources and destination large enough for either reading of the bad stride.
		SLayout big = SLayout::Make(SOp_MathOp::Op_Mod, n, 2 * count, EOperandShape::StreamStream, n);
		CRun run(big, values);
		MO::_FnMathOpLookup[SOp_MathOp::Op_Mod * 4 + (n - 1)](run.Dst().Data(), l.m_DstStride * 4, count, run.Src0().Data(), 4 * n, run.Src1().Data(), 4 * n);
		EXPECT_EQ(capture.Count("stride == sizeof(_Type)"), 1u) << l.Label() << " " << FirstReport(capture);
		// The first 'count' packed elements are the modulo of the packed sources.
		for (u32 p = 0; p < count * n; ++p)
			EXPECT_EQ(run.Dst()[p], OxTest::ModelFloat(SOp_MathOp::Op_Mod, run.Src0()[p], run.Src1()[p])) << l.Label() << " float " << p;
		capture.Clear();
	}
}

TEST(FloatKernels, ModConstantHelpersWithTwoStreamsWriteNothing)
{
	// Op2StreamImpl_Op2_Mod_V124 / _V3 called with two non-zero strides: that case belongs
	// to the packed helper, they write nothing.
	CAssertCapture capture;
	CValues values(kSeed ^ 0x1Au);
	CWords dst(24, 0xA000u), a(24, 0xB000u), b(24, 0xC000u);
	a.Fill(values);
	b.Fill(values);
	float *d = reinterpret_cast<float *>(dst.Data());
	const float *pa = reinterpret_cast<const float *>(a.Data());
	const float *pb = reinterpret_cast<const float *>(b.Data());
	MO::SMathOpImpl<TVector<float, 1>>::Op2StreamImpl_Op2_Mod_V124(d, d + 13, pa, 4, pb, 4, MO::TDimBroadcastRouter<1>::Broadcast(pb));
	MO::SMathOpImpl<TVector<float, 2>>::Op2StreamImpl_Op2_Mod_V124(d, d + 14, pa, 8, pb, 8, MO::TDimBroadcastRouter<2>::Broadcast(pb));
	MO::SMathOpImpl<TVector<float, 4>>::Op2StreamImpl_Op2_Mod_V124(d, d + 16, pa, 16, pb, 16, MO::TDimBroadcastRouter<4>::Broadcast(pb));
	MO::SMathOpImpl<TVector<float, 3>>::Op2StreamImpl_Op2_Mod_V3(d, d + 15, pa, 12, pb, 12);
	EXPECT_EQ(dst.FirstChanged(), dst.Total());
	EXPECT_EQ(a.FirstChanged(), a.Total());
	EXPECT_EQ(b.FirstChanged(), b.Total());
	EXPECT_EQ(capture.Count(), 0u) << FirstReport(capture);

	// And the packed helper on its own: true division, vector part and scalar tail.
	MO::SMathOpImpl<TVector<float, 1>>::Op2StreamImpl_Op2_Mod_Packed(d, d + 7, pa, pb);
	for (u32 p = 0; p < 7; ++p)
		EXPECT_EQ(dst[p], OxTest::ModelFloat(SOp_MathOp::Op_Mod, a[p], b[p])) << p;
	for (std::size_t w = 7; w < dst.Total(); ++w)
		EXPECT_EQ(dst[w], dst.Initial(w)) << w;
}

//====================================================================================
// Negation

TEST(FloatKernels, NegationOfZeroIsMinusZero)
{
	CAssertCapture capture;
	CValues unused(0);
	for (u32 n = 1; n <= 4; ++n)
		for (u32 count = 1; count <= 9; ++count)
		{
			CRun run(SLayout::Make(SOp_MathOp::Op_Neg, n, count, EOperandShape::StreamStream), unused);
			for (u32 p = 0; p < count * n; ++p)
				run.Src0()[p] = p % 2 == 0 ? 0x00000000u : 0x80000000u;
			run.Resnapshot();
			run.RunKernel();
			for (u32 p = 0; p < count * n; ++p)
				EXPECT_EQ(run.Dst()[p], p % 2 == 0 ? 0x80000000u : 0x00000000u) << run.Layout().Label() << " float " << p;
			for (std::size_t w = std::size_t(count) * n; w < run.Dst().Total(); ++w)
				EXPECT_EQ(run.Dst()[w], run.Dst().Initial(w)) << run.Layout().Label() << " word " << w;
		}
	EXPECT_EQ(capture.Count(), 0u) << FirstReport(capture);
}

TEST(FloatKernels, NegationKeepsANaNPayloadAndFlipsItsSign)
{
	// A sign flip, not 0 - a: a signalling NaN stays signalling, payloads are kept.
	CAssertCapture capture;
	CValues unused(0);
	const u32 in[] = {0x7FC12345u, 0xFFC00000u, 0x7F800001u, 0xFFA00001u, 0x7FFFFFFFu, 0x7F800000u, 0x00000001u, 0x3F800000u};
	for (u32 n = 1; n <= 4; ++n)
		for (u32 count : {1u, 2u, 3u, 5u, 8u, 11u})
		{
			CRun run(SLayout::Make(SOp_MathOp::Op_Neg, n, count, EOperandShape::StreamStream), unused);
			for (u32 p = 0; p < count * n; ++p)
				run.Src0()[p] = in[p % std::size(in)];
			run.Resnapshot();
			run.RunKernel();
			for (u32 p = 0; p < count * n; ++p)
				EXPECT_EQ(run.Dst()[p], in[p % std::size(in)] ^ 0x80000000u) << run.Layout().Label() << " float " << p;
		}
	EXPECT_EQ(capture.Count(), 0u) << FirstReport(capture);
}

TEST(FloatKernels, NegationOfAConstantOperandIsRefusedAndWritesNothing)
{
	CAssertCapture capture;
	CValues values(kSeed ^ 0x1Bu);
	CChecker checker;
	for (u32 n = 1; n <= 4; ++n)
		for (u32 count : {1u, 4u, 7u})
			for (int form = 0; form < 3; ++form)	// constant source, strided destination, both
			{
				SLayout l = SLayout::Make(SOp_MathOp::Op_Neg, n, count, EOperandShape::StreamStream, form == 0 ? n : 2 * n);
				if (form != 1)
					l.m_Stride0 = 0;
				CRun run(l, values);
				run.RunKernel();
				run.ExpectNothingWritten(checker);
				const auto reports = capture.Reports();
				if (reports.size() != 2 || reports[0].m_Expression != "stride == sizeof(_Type) && stride0 == sizeof(_Type)" || reports[1].m_Expression != "false")
					checker.Mismatch(l.Label() + ": expected the failed verification then 'false', got " + std::to_string(reports.size()) + " reports, first " + FirstReport(capture));
				capture.Clear();
			}
	EXPECT_EQ(checker.Count(), 0u);
}

TEST(FloatKernels, NegationWithASecondSourceIsReported)
{
	CAssertCapture capture;
	CValues values(kSeed ^ 0x1Cu);
	for (u32 n = 1; n <= 4; ++n)
	{
		SLayout l = SLayout::Make(SOp_MathOp::Op_Add, n, 5, EOperandShape::StreamStream);
		CRun run(l, values);
		MO::_FnMathOpLookup[SOp_MathOp::Op_Neg * 4 + (n - 1)](run.Dst().Data(), 4 * n, 5, run.Src0().Data(), 4 * n, run.Src1().Data(), 4 * n);
		EXPECT_EQ(capture.Count("datasrc0 != null && datasrc1 == null"), 1u) << n;
		EXPECT_EQ(capture.Count(), 1u) << FirstReport(capture);
		// Execution goes on: the first source is negated.
		for (u32 p = 0; p < 5 * n; ++p)
			EXPECT_EQ(run.Dst()[p], run.Src0()[p] ^ 0x80000000u) << n << " " << p;
		capture.Clear();
	}
}
