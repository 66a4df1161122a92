// The integer kernels against the scalar model: every operator, dimension and operand
// shape over every count up to a few blocks and past, bools through the same kernels,
// constants on either side, in-place evaluation, and division, modulo and shifts by
// uniform and non-uniform constants.
//
// Each (operator, N, shape) is a case of its own: a failure names it, e.g.
// IntKernelsModel.EveryCountMatchesTheModel/Ops_Div_N3_StreamConst.

#include "int_kernel_harness.h"

#include <gtest/gtest.h>

#include <climits>
#include <iterator>
#include <vector>

using namespace IntKernelTest;

namespace
{
	const std::vector<u32> kAllDimensions = {1, 2, 3, 4};

	std::vector<SCase> OpDimensionCases(std::initializer_list<EOp> ops, const std::vector<u32> &dimensions)
	{
		std::vector<SCase> cases;
		for (EOp op : ops)
			for (u32 n : dimensions)
				cases.push_back({s32(op), n, OxTest::EOperandShape::StreamConst, OxTest::ModelIsUnary(op)});
		return cases;
	}

	// For cases whose shape is fixed by the test: operator and dimension only.
	std::string OpDimensionName(const ::testing::TestParamInfo<SCase> &info)
	{
		return OpMnemonic(info.param.m_Op) + "_N" + std::to_string(info.param.m_N);
	}

	std::vector<SCase> EveryOpAndDimension()
	{
		std::vector<SCase> cases;
		for (s32 op = 0; op < SOp_MathOp::__MaxOps; ++op)
			for (u32 n : kAllDimensions)
				cases.push_back({op, n, OxTest::EOperandShape::StreamStream, OxTest::ModelIsUnary(EOp(op))});
		return cases;
	}
}

//====================================================================================
// Every operator, every dimension, against the model.

class IntKernelsModel : public CIntCaseTest
{
};

TEST_P(IntKernelsModel, EveryCountMatchesTheModel)
{
	const SCase c = GetParam();
	const EOp op = EOp(c.m_Op);
	const u32 seed = CaseSeed(0, c);
	CValues values(seed);
	CAssertCapture capture;
	for (u32 count : CountsFor(c.m_N))
	{
		const SOperand a = Make(values, OxTest::Src0Constant(c.m_Shape), c.m_N, count);
		const SOperand b = Make(values, OxTest::Src1Constant(c.m_Shape), c.m_N, count);
		ASSERT_TRUE(CheckCase(capture, op, c.m_N, count, a, c.m_Unary ? nullptr : &b)) << "seed 0x" << std::hex << seed;
	}
}

INSTANTIATE_TEST_SUITE_P(Ops, IntKernelsModel, ::testing::ValuesIn(AllOpCases(kAllDimensions)), CaseName);

class IntKernelsBooleans : public CIntCaseTest
{
};

TEST_P(IntKernelsBooleans, RunThroughTheIntegerKernelsOfTheirComponentCount)
{
	const SCase c = GetParam();
	const EOp op = EOp(c.m_Op);
	const EBaseTypeID type = OxTest::kBoolKernelTypes[c.m_N - 1].m_Type;
	OxTest::CSeededRandom rng(CaseSeed(1, c));
	CAssertCapture capture;
	EModelKind kind;
	u32 dimension = 0;
	ASSERT_TRUE(OxTest::ModelKernelForType(type, kind, dimension));
	ASSERT_EQ(EModelKind::Int, kind);
	ASSERT_EQ(u32(type - BaseType_Bool + 1), dimension);
	auto boolWords = [&](std::size_t n) {
		std::vector<u32> w(n);
		for (u32 &x : w)
			x = (rng() & 1) ? kAllOnes : 0u;
		return w;
	};
	// A unary operator ignores source 1: its shape is run both ways all the same.
	const std::vector<bool> src1Constant = c.m_Unary ? std::vector<bool>{false, true} : std::vector<bool>{OxTest::Src1Constant(c.m_Shape)};
	for (u32 count : {1u, 5u, 12u, 13u, 100u})
		for (bool c1 : src1Constant)
		{
			const bool c0 = OxTest::Src0Constant(c.m_Shape);
			const SOperand a{boolWords(c0 ? dimension : count * dimension), c0};
			const SOperand b{boolWords(c1 ? dimension : count * dimension), c1};
			ASSERT_TRUE(CheckCase(capture, op, dimension, count, a, c.m_Unary ? nullptr : &b)) << BaseTypeName(type);
		}
}

INSTANTIATE_TEST_SUITE_P(Bools, IntKernelsBooleans, ::testing::ValuesIn(AllOpCases(kAllDimensions)), CaseName);

TEST(IntKernels, ConstantOperandOnEitherSideLinesUpWithEveryComponent)
{
	CAssertCapture capture;
	// Non-commutative operators show which side the constant is on.
	const SOperand stream3 = Stream({10, 20, 30, 11, 21, 31, 12, 22, 32, 13, 23, 33, 14, 24, 34});
	const SOperand constant3 = Constant({1, 2, 3});
	const SRunResult left = RunInt(SOp_MathOp::Op_Sub, 3, 5, constant3, &stream3);
	const SRunResult right = RunInt(SOp_MathOp::Op_Sub, 3, 5, stream3, &constant3);
	for (u32 i = 0; i < 15; ++i)
	{
		EXPECT_EQ(u32(s32(i % 3 + 1) - s32(stream3.m_Words[i])), left.m_Values[i]) << i;
		EXPECT_EQ(stream3.m_Words[i] - (i % 3 + 1), right.m_Values[i]) << i;
	}
	// Two constants use two blocks: the result is the same element everywhere.
	const SOperand other = Constant({100, 200, 300});
	const SRunResult both = RunInt(SOp_MathOp::Op_Sub, 3, 8, other, &constant3);
	for (u32 i = 0; i < 24; ++i)
		EXPECT_EQ(u32((i % 3 + 1) * 99), both.m_Values[i]) << i;
	EXPECT_EQ(0u, capture.Count());
}

class IntKernelsInPlace : public CIntCaseTest
{
};

TEST_P(IntKernelsInPlace, EvaluationMatchesTheModel)
{
	// A register may be both destination and source 0 (a = a op b).
	const SCase c = GetParam();
	const EOp op = EOp(c.m_Op);
	const u32 dimension = c.m_N;
	const bool unary = c.m_Unary;
	CValues values(CaseSeed(2, c));
	CAssertCapture capture;
	const u32 count = 29;
	const SOperand a = Make(values, false, dimension, count);
	const SOperand b = Make(values, false, dimension, count);
	const std::vector<u32> expected = ExpectedInt(op, dimension, count, a, unary ? nullptr : &b);
	CWords inOut(a.m_Words), src1(b.m_Words);
	ExecInt(dimension, op, inOut.Data(), dimension * 4, count, inOut.Data(), dimension * 4, unary ? nullptr : src1.Data(), unary ? 0 : dimension * 4);
	EXPECT_TRUE(SameWords(expected, inOut.Values())) << Describe(op, dimension, count, a, &b);
	EXPECT_TRUE(inOut.GuardsIntact());
	EXPECT_EQ(0u, capture.Count());
}

INSTANTIATE_TEST_SUITE_P(Ops, IntKernelsInPlace, ::testing::ValuesIn(EveryOpAndDimension()), OpDimensionName);

//====================================================================================
// Division and modulo by uniform and non-uniform divisors.

class IntKernelsEveryDivisor : public CIntCaseTest
{
};

TEST_P(IntKernelsEveryDivisor, DivisionAndModuloMatchTheModel)
{
	const SCase c = GetParam();
	const EOp op = EOp(c.m_Op);
	const u32 dimension = c.m_N;
	CValues values(CaseSeed(3, c));
	std::vector<s32> divisors;
	for (s32 d = -70; d <= 70; ++d)
		divisors.push_back(d);
	divisors.push_back(INT_MIN);
	divisors.push_back(INT_MIN + 1);
	divisors.push_back(INT_MAX);
	divisors.push_back(INT_MAX - 1);
	for (int k = 7; k <= 30; ++k)
	{
		divisors.push_back(s32(1) << k);
		divisors.push_back(-(s32(1) << k));
		divisors.push_back((s32(1) << k) + 1);
		divisors.push_back((s32(1) << k) - 1);
	}
	const u32 edges[] = {kIntMin, kIntMax, 0u, 1u, kAllOnes, kIntMin + 1, kIntMax - 1, 2u, u32(-2)};

	CAssertCapture capture;
	for (s32 d : divisors)
	{
		std::vector<u32> dividends(std::begin(edges), std::end(edges));
		for (u32 w : WrappedMultiples(d))
			dividends.push_back(w);
		while (dividends.size() < 12 * 12 + 7)
			dividends.push_back(values.Raw());
		{
			const u32 count = u32(dividends.size()) / dimension;
			// The edge dividends land in every component position, blocks and tail alike.
			std::vector<u32> a(dividends.begin(), dividends.begin() + std::size_t(count) * dimension);
			const SOperand stream = Stream(a);
			const SOperand tailFirst = Stream(std::vector<u32>(a.rbegin(), a.rend()));
			const SOperand uniform = Constant(Repeat(u32(d), dimension));
			const SOperand streamDivisor = Stream(Repeat(u32(d), a.size()));
			ResetHazards();
			ASSERT_TRUE(CheckCase(capture, op, dimension, count, stream, &uniform));
			ASSERT_TRUE(CheckCase(capture, op, dimension, count, tailFirst, &uniform));
			EXPECT_EQ(0u, ScalarFallbacks()) << "uniform constant divisor " << d << " took the per-lane path";
			ASSERT_TRUE(CheckCase(capture, op, dimension, count, stream, &streamDivisor));
			EXPECT_EQ(1u, ScalarFallbacks()) << "stream divisor " << d;
		}
	}
}

INSTANTIATE_TEST_SUITE_P(DivMod, IntKernelsEveryDivisor, ::testing::ValuesIn(OpDimensionCases({SOp_MathOp::Op_Div, SOp_MathOp::Op_Mod}, kAllDimensions)), OpDimensionName);

TEST(IntKernels, RandomUniformDivisorsOverRandomDividendsMatchTheModel)
{
	CValues values(kSeed + 4);
	CAssertCapture capture;
	for (int round = 0; round < 300; ++round)
	{
		// Random magnitudes spread over every bit length.
		const u32 bitsLength = values.Uniform(32);
		u32 d = values.Raw() >> bitsLength;
		if (values.Uniform(2) != 0)
			d = 0u - d;
		const u32 dimension = 1 + values.Uniform(4);
		const u32 count = 2048 / dimension + values.Uniform(12);
		std::vector<u32> a(std::size_t(count) * dimension);
		for (u32 &x : a)
			x = values.Uniform(4) == 0 ? values.Next() : values.Raw();
		const SOperand divisor = Constant(Repeat(d, dimension));
		ASSERT_TRUE(CheckCase(capture, SOp_MathOp::Op_Div, dimension, count, Stream(a), &divisor)) << "round " << round;
		ASSERT_TRUE(CheckCase(capture, SOp_MathOp::Op_Mod, dimension, count, Stream(a), &divisor)) << "round " << round;
	}
}

namespace
{
	// Constants whose components differ, per dimension.
	std::vector<std::vector<u32>> NonUniformConstants(u32 dimension)
	{
		const std::vector<u32> constants[] = {{3, 5}, {0, 7}, {u32(-1), 2}, {kIntMin, 1}, {40, 8}, {2, 2, 3}, {31, 32, 33}, {0, 0, 0, 5}, {u32(-8), 8, 8, 8}};
		std::vector<std::vector<u32>> out;
		for (const std::vector<u32> &c : constants)
			if (c.size() == dimension)
				out.push_back(c);
		return out;
	}
}

class IntKernelsNonUniformConstant : public CIntCaseTest
{
};

TEST_P(IntKernelsNonUniformConstant, DivisorsAndShiftCountsGoPerLane)
{
	const SCase p = GetParam();
	const EOp op = EOp(p.m_Op);
	const u32 dimension = p.m_N;
	CValues values(CaseSeed(5, p));
	CAssertCapture capture;
	const std::vector<std::vector<u32>> constants = NonUniformConstants(dimension);
	ASSERT_FALSE(constants.empty());
	for (const std::vector<u32> &c : constants)
		for (u32 count : {1u, 7u, 25u, 333u})
		{
			const SOperand a = Make(values, false, dimension, count);
			const SOperand b = Constant(c);
			ResetHazards();
			ASSERT_TRUE(CheckCase(capture, op, dimension, count, a, &b));
			const std::ptrdiff_t threshold = IsShift(op) ? 12 : 13;
			EXPECT_EQ(std::ptrdiff_t(count * dimension) >= threshold ? 1u : 0u, ScalarFallbacks()) << Describe(op, dimension, count, a, &b);
		}
}

INSTANTIATE_TEST_SUITE_P(DivModShifts, IntKernelsNonUniformConstant,
						 ::testing::ValuesIn(OpDimensionCases({SOp_MathOp::Op_Div, SOp_MathOp::Op_Mod, SOp_MathOp::Op_Bitwise_ShiftLeft, SOp_MathOp::Op_Bitwise_ShiftRight, SOp_MathOp::Op_Bitwise_ShiftRightLogical}, {2, 3, 4})),
						 OpDimensionName);

class IntKernelsUniformShift : public CIntCaseTest
{
};

TEST_P(IntKernelsUniformShift, CountsZeroToThirtyOneMatchTheModel)
{
	const SCase c = GetParam();
	const EOp op = EOp(c.m_Op);
	const u32 dimension = c.m_N;
	CValues values(CaseSeed(6, c));
	CAssertCapture capture;
	for (u32 n = 0; n <= 31; ++n)
	{
		const u32 count = 60 / dimension + 1;
		const SOperand a = Make(values, false, dimension, count);
		const SOperand b = Constant(Repeat(n, dimension));
		ResetHazards();
		ASSERT_TRUE(CheckCase(capture, op, dimension, count, a, &b));
		EXPECT_EQ(0u, ScalarFallbacks());
	}
}

INSTANTIATE_TEST_SUITE_P(Shifts, IntKernelsUniformShift,
						 ::testing::ValuesIn(OpDimensionCases({SOp_MathOp::Op_Bitwise_ShiftLeft, SOp_MathOp::Op_Bitwise_ShiftRight, SOp_MathOp::Op_Bitwise_ShiftRightLogical}, kAllDimensions)),
						 OpDimensionName);

