// The integer kernels' edge cases, one test each: the tail below one block, the
// uniform-constant block paths (1 and -1, INT_MIN, zero, powers of two, shift counts
// past 31), where the per-lane hazard starts to count, and the comparison masks.

#include "int_kernel_harness.h"

#include <gtest/gtest.h>

#include <climits>
#include <iterator>
#include <vector>

using namespace IntKernelTest;

//====================================================================================
// Edge cases, one test each.

class IntKernelsBelowOneBlock : public CIntCaseTest
{
};

TEST_P(IntKernelsBelowOneBlock, EverythingIsDoneByTheTail)
{
	const SCase c = GetParam();
	const EOp op = EOp(c.m_Op);
	const u32 dimension = c.m_N;
	CValues values(CaseSeed(7, c));
	CAssertCapture capture;
	// A unary operator ignores source 1: its shape is run both ways all the same.
	const std::vector<bool> src1Constant = c.m_Unary ? std::vector<bool>{false, true} : std::vector<bool>{OxTest::Src1Constant(c.m_Shape)};
	for (u32 count = 0; count * dimension < 12; ++count)
		for (bool c1 : src1Constant)
		{
			const SOperand a = Make(values, OxTest::Src0Constant(c.m_Shape), dimension, count);
			const SOperand b = Make(values, c1, dimension, count);
			ResetHazards();
			ASSERT_TRUE(CheckCase(capture, op, dimension, count, a, c.m_Unary ? nullptr : &b));
			EXPECT_EQ(0u, ScalarFallbacks());
		}
}

INSTANTIATE_TEST_SUITE_P(Ops, IntKernelsBelowOneBlock, ::testing::ValuesIn(AllOpCases({1, 2, 3, 4})), CaseName);

TEST(IntKernels, BelowOneBlockAUniformShiftCountOfFortyActsAsEight)
{
	// A uniform count of 40 on the tail acts as 8, with no report: the tail uses count & 31.
	CAssertCapture capture;
	const SOperand a = Stream({1, kAllOnes, 0x00FF00FFu, kIntMin, 5, 6, 7, 8, 9, 10, 11});
	const SOperand forty = Constant({40});
	const SRunResult run = RunInt(SOp_MathOp::Op_Bitwise_ShiftLeft, 1, 11, a, &forty);
	for (u32 i = 0; i < 11; ++i)
		EXPECT_EQ(a.m_Words[i] << 8, run.m_Values[i]) << i;
	EXPECT_TRUE(run.m_GuardsIntact);
	EXPECT_EQ(0u, capture.Count());
}

TEST(IntKernels, ModByUniformOneOrMinusOneClearsTheRangeEvenBelowOneBlock)
{
	CAssertCapture capture;
	for (u32 d : {1u, kAllOnes})
		for (u32 dimension = 1; dimension <= 4; ++dimension)
			for (u32 count : {1u, 2u, 3u, 5u, 11u, 200u})
			{
				std::vector<u32> a(std::size_t(count) * dimension);
				for (std::size_t i = 0; i < a.size(); ++i)
					a[i] = i % 3 == 0 ? kIntMin : u32(0x12345 + i);
				const SOperand divisor = Constant(Repeat(d, dimension));
				ResetHazards();
				const SRunResult run = RunInt(SOp_MathOp::Op_Mod, dimension, count, Stream(a), &divisor);
				EXPECT_EQ(std::vector<u32>(a.size(), 0u), run.m_Values) << "d = " << s32(d) << ", N = " << dimension << ", count = " << count;
				EXPECT_TRUE(run.m_GuardsIntact);
				EXPECT_EQ(0u, ScalarFallbacks());
			}
	// Straight into the packed kernel: 5 integers (no whole block) are cleared too.
	bool guards = false;
	const std::vector<u32> block = Repeat(kAllOnes, 12);
	EXPECT_EQ(Repeat(0u, 5), RunPacked(SOp_MathOp::Op_Mod, {kIntMin, 9, 8, 7, 6}, &block, true, &guards));
	EXPECT_TRUE(guards);
	EXPECT_EQ(0u, capture.Count());
}

TEST(IntKernels, HazardCountForDivisionAndModuloStartsAtThirteenIntegers)
{
	CAssertCapture capture;
	for (EOp op : {SOp_MathOp::Op_Div, SOp_MathOp::Op_Mod})
	{
		const std::vector<u32> a13 = {100, u32(-100), 7, 8, 9, 10, 11, 12, 13, 14, 15, 16, 17};
		const std::vector<u32> b13 = {3, 3, 0, 2, 2, 2, 5, 5, 5, 7, 7, 7, 1};
		const std::vector<u32> a12(a13.begin(), a13.begin() + 12), b12(b13.begin(), b13.begin() + 12);

		ResetHazards();
		RunPacked(op, a12, &b12, false);
		EXPECT_EQ(0u, ScalarFallbacks()) << "12 integers, stream divisor";
		RunPacked(op, a13, &b13, false);
		EXPECT_EQ(1u, ScalarFallbacks()) << "13 integers, stream divisor";

		// Through ExecOperatorInt: 12 integers = 12 x 1 or 3 x 4 components; 13 or 16 count.
		ResetHazards();
		RunInt(op, 1, 12, Stream(a12), Stream(b12));
		RunInt(op, 4, 3, Stream(a12), Stream(b12));
		EXPECT_EQ(0u, ScalarFallbacks());
		RunInt(op, 1, 13, Stream(a13), Stream(b13));
		EXPECT_EQ(1u, ScalarFallbacks());
		std::vector<u32> a16 = a13, b16 = b13;
		a16.resize(16, 5);
		b16.resize(16, 3);
		RunInt(op, 4, 4, Stream(a16), Stream(b16));
		EXPECT_EQ(2u, ScalarFallbacks());

		// Once per call, however many blocks.
		ResetHazards();
		RunInt(op, 2, 3000, Stream(Repeat(1000, 6000)), Stream(Repeat(7, 6000)));
		EXPECT_EQ(1u, ScalarFallbacks());

		// A uniform constant divisor takes the block path: 13 integers leave one for the
		// per-lane tail, which is not a hazard.
		ResetHazards();
		const SOperand seven = Constant({7});
		RunInt(op, 1, 13, Stream(a13), &seven);
		RunInt(op, 1, 5000, Stream(Repeat(1000, 5000)), &seven);
		EXPECT_EQ(0u, ScalarFallbacks());
	}
	EXPECT_EQ(0u, capture.Count());
}

TEST(IntKernels, HazardCountForShiftsStartsAtTwelveIntegers)
{
	CAssertCapture capture;
	for (EOp op : {SOp_MathOp::Op_Bitwise_ShiftLeft, SOp_MathOp::Op_Bitwise_ShiftRight, SOp_MathOp::Op_Bitwise_ShiftRightLogical})
	{
		const std::vector<u32> a = {1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12};
		const std::vector<u32> counts = {0, 1, 2, 3, 4, 5, 6, 7, 8, 31, 32, 33};
		const std::vector<u32> a11(a.begin(), a.begin() + 11), counts11(counts.begin(), counts.begin() + 11);

		ResetHazards();
		RunPacked(op, a11, &counts11, false);
		EXPECT_EQ(0u, ScalarFallbacks()) << "11 integers, stream counts";
		RunPacked(op, a, &counts, false);
		EXPECT_EQ(1u, ScalarFallbacks()) << "12 integers, stream counts";

		ResetHazards();
		RunInt(op, 1, 11, Stream(a11), Stream(counts11));
		EXPECT_EQ(0u, ScalarFallbacks());
		RunInt(op, 3, 4, Stream(a), Stream(counts));
		EXPECT_EQ(1u, ScalarFallbacks());

		// A uniform constant count: block path, no hazard.
		ResetHazards();
		const SOperand three = Constant({3, 3});
		RunInt(op, 2, 6, Stream(a), &three);
		RunInt(op, 2, 500, Stream(Repeat(77, 1000)), &three);
		EXPECT_EQ(0u, ScalarFallbacks());
	}
	EXPECT_EQ(0u, capture.Count());
}

TEST(IntKernels, DivByConstantMinusOneWrapsIntMinOnBlocks)
{
	CAssertCapture capture;
	const std::vector<u32> a = {kIntMin, kIntMax, 0, 1, kAllOnes, 7, u32(-7), kIntMin + 1, 100, u32(-100), 2, kIntMin,	// one block
								kIntMin, 3};	// tail
	const std::vector<u32> expected = {kIntMin, kIntMin + 1, 0, kAllOnes, 1, u32(-7), 7, kIntMax, u32(-100), 100, u32(-2), kIntMin,
									   kIntMin, u32(-3)};
	const SOperand minusOne = Constant({kAllOnes});
	const SRunResult run = RunInt(SOp_MathOp::Op_Div, 1, u32(a.size()), Stream(a), &minusOne);
	EXPECT_TRUE(SameWords(expected, run.m_Values));
	// And by 1: unchanged.
	const SOperand one = Constant({1, 1});
	EXPECT_EQ(a, RunInt(SOp_MathOp::Op_Div, 2, u32(a.size() / 2), Stream(a), &one).m_Values);
	EXPECT_EQ(0u, capture.Count());
}

TEST(IntKernels, DivByConstantIntMinKeepsThePowerOfTwoQuirkOnBlocks)
{
	CAssertCapture capture;
	// One whole block, then a tail of three.
	const std::vector<u32> a = {7, u32(-7), kIntMin, kIntMax, 0, 1, kAllOnes, kIntMin + 1, 0x40000000u, 0xC0000000u, kIntMin, 12345,
								7, u32(-7), kIntMin};
	// Block: every quotient 0, except INT_MIN / INT_MIN = -1 (the exact quotient is 1).
	// Tail: the per-lane rule, exact: INT_MIN / INT_MIN = 1.
	const std::vector<u32> expected = {0, 0, kAllOnes, 0, 0, 0, 0, 0, 0, 0, kAllOnes, 0,
									   0, 0, 1};
	const SOperand intMin = Constant({kIntMin});
	const SRunResult run = RunInt(SOp_MathOp::Op_Div, 1, u32(a.size()), Stream(a), &intMin);
	EXPECT_TRUE(SameWords(expected, run.m_Values));
	// With a stream divisor the per-lane path gives the exact 1 everywhere.
	const SRunResult perLane = RunInt(SOp_MathOp::Op_Div, 1, u32(a.size()), Stream(a), Stream(Repeat(kIntMin, a.size())));
	EXPECT_EQ(1u, perLane.m_Values[2]);
	EXPECT_EQ(1u, perLane.m_Values[10]);
	EXPECT_EQ(0u, capture.Count());
}

TEST(IntKernels, ModByConstantIntMinGivesExactRemaindersOnBlocks)
{
	CAssertCapture capture;
	// Through the power-of-two formula with the mask 0x80000000: a for every dividend
	// except INT_MIN, which gives 0. That is the exact remainder in every case.
	const std::vector<u32> a = {7, u32(-7), kIntMin, kIntMax, 0, 1, kAllOnes, kIntMin + 1, 0x40000000u, 0xC0000000u, kIntMin, 12345,
								kIntMin, u32(-5)};
	const std::vector<u32> expected = {7, u32(-7), 0, kIntMax, 0, 1, kAllOnes, kIntMin + 1, 0x40000000u, 0xC0000000u, 0, 12345,
									   0, u32(-5)};
	const SOperand intMin = Constant({kIntMin, kIntMin});
	const SRunResult run = RunInt(SOp_MathOp::Op_Mod, 2, u32(a.size() / 2), Stream(a), &intMin);
	EXPECT_TRUE(SameWords(expected, run.m_Values));
	EXPECT_EQ(0u, capture.Count());
}

TEST(IntKernels, StreamDivisorZeroLaneGivesZeroQuotientAndTheDividendAsRemainder)
{
	CAssertCapture capture;
	std::vector<u32> a(15), b(15);
	for (u32 i = 0; i < 15; ++i)
	{
		a[i] = i % 2 ? kIntMin + i : u32(-s32(i) * 1000 - 1);
		b[i] = i % 3 == 0 ? 0u : 3u;
	}
	const SRunResult div = RunInt(SOp_MathOp::Op_Div, 1, 15, Stream(a), Stream(b));
	const SRunResult mod = RunInt(SOp_MathOp::Op_Mod, 1, 15, Stream(a), Stream(b));
	for (u32 i = 0; i < 15; i += 3)	// zero lanes, in the block (0..11) and the tail (12)
	{
		EXPECT_EQ(0u, div.m_Values[i]) << i;
		EXPECT_EQ(a[i], mod.m_Values[i]) << i;
	}
	EXPECT_EQ(u32(s32(a[1]) / 3), div.m_Values[1]);
	EXPECT_EQ(u32(s32(a[1]) % 3), mod.m_Values[1]);
	EXPECT_EQ(0u, capture.Count());
}

TEST(IntKernels, UniformConstantDivisorZeroOnBlocksEqualsThePerLaneRules)
{
	CAssertCapture capture;
	for (u32 dimension = 1; dimension <= 4; ++dimension)
	{
		const u32 count = 36 / dimension + 1;
		std::vector<u32> a(std::size_t(count) * dimension);
		for (std::size_t i = 0; i < a.size(); ++i)
			a[i] = kIntEdgeValues[i % std::size(kIntEdgeValues)];
		const SOperand zero = Constant(Repeat(0, dimension));
		ResetHazards();
		EXPECT_EQ(Repeat(0, a.size()), RunInt(SOp_MathOp::Op_Div, dimension, count, Stream(a), &zero).m_Values);
		EXPECT_EQ(a, RunInt(SOp_MathOp::Op_Mod, dimension, count, Stream(a), &zero).m_Values);
		EXPECT_EQ(0u, ScalarFallbacks()) << "the zero divisor took the block path";
	}
	EXPECT_EQ(0u, capture.Count());
}

TEST(IntKernels, ModByConstantEightAndMinusEight)
{
	CAssertCapture capture;
	// 12 integers: one whole block, the uniform path only.
	const std::vector<u32> a = {u32(-13), 13, u32(-13), 13, 8, u32(-8), 0, kIntMin, kIntMax, u32(-1), 7, u32(-7)};
	// By 8 (power of two): -13 gives -5 and 13 gives 5.
	const std::vector<u32> by8 = {u32(-5), 5, u32(-5), 5, 0, 0, 0, 0, 7, u32(-1), 7, u32(-7)};
	// By -8 (not a power of two by the bit test: multiplier path): same remainders.
	const std::vector<u32> byMinus8 = by8;
	const SOperand eight = Constant({8});
	const SOperand minusEight = Constant({u32(-8), u32(-8), u32(-8), u32(-8)});
	ResetHazards();
	EXPECT_TRUE(SameWords(by8, RunInt(SOp_MathOp::Op_Mod, 1, 12, Stream(a), &eight).m_Values));
	EXPECT_TRUE(SameWords(byMinus8, RunInt(SOp_MathOp::Op_Mod, 4, 3, Stream(a), &minusEight).m_Values));
	EXPECT_EQ(0u, ScalarFallbacks());
	EXPECT_EQ(0u, capture.Count());
}

TEST(IntKernels, ThreeComponentConstantDivisorWithUnequalLanesIsRefusedTheBlockPath)
{
	CAssertCapture capture;
	const u32 count = 8;	// 24 integers: two whole blocks
	std::vector<u32> a;
	for (u32 i = 0; i < count; ++i)
		for (u32 v : {7u, u32(-7), 7u})
			a.push_back(v + 6 * i);
	const SOperand divisor = Constant({2, 2, 3});
	ResetHazards();
	const SRunResult div = RunInt(SOp_MathOp::Op_Div, 3, count, Stream(a), &divisor);
	const SRunResult mod = RunInt(SOp_MathOp::Op_Mod, 3, count, Stream(a), &divisor);
	EXPECT_EQ(2u, ScalarFallbacks()) << "each call went per lane";
	for (u32 i = 0; i < count * 3; ++i)
	{
		const s32 x = s32(a[i]);
		const s32 d = i % 3 == 2 ? 3 : 2;
		EXPECT_EQ(u32(x / d), div.m_Values[i]) << i;
		EXPECT_EQ(u32(x % d), mod.m_Values[i]) << i;
	}
	EXPECT_EQ(u32(7 / 3), div.m_Values[2]);
	EXPECT_EQ(u32(-7 / 2), div.m_Values[1]);
	EXPECT_EQ(0u, capture.Count());
}

TEST(IntKernels, ConstantShiftCountFortyOnBlocksAndOnTheTail)
{
	// Reports answered "continue": the block shift goes on with the count as it is.
	CAssertCapture capture;
	const std::vector<u32> a = {1, kAllOnes, 0x00FF00FFu, kIntMin, kIntMax, 5, u32(-5), 0, 0x80000001u, 2, 3, 4,	// block
								1, kAllOnes, kIntMin};	// tail
	for (u32 n : {40u, kAllOnes /* -1: unsigned, above 31 */})
	{
		const SOperand count = Constant({n});
		const u32 tailCount = n & 31u;
		for (EOp op : {SOp_MathOp::Op_Bitwise_ShiftLeft, SOp_MathOp::Op_Bitwise_ShiftRight, SOp_MathOp::Op_Bitwise_ShiftRightLogical})
		{
			capture.Clear();
			const SRunResult run = RunInt(op, 1, u32(a.size()), Stream(a), &count);
			for (u32 i = 0; i < a.size(); ++i)
			{
				u32 expected;
				if (i < 12)	// shifted out entirely; the arithmetic shift leaves the sign fill
					expected = op == SOp_MathOp::Op_Bitwise_ShiftRight ? (s32(a[i]) < 0 ? kAllOnes : 0u) : 0u;
				else if (op == SOp_MathOp::Op_Bitwise_ShiftLeft)
					expected = a[i] << tailCount;
				else if (op == SOp_MathOp::Op_Bitwise_ShiftRightLogical)
					expected = a[i] >> tailCount;
				else
					expected = s32(a[i]) < 0 ? ~(~a[i] >> tailCount) : a[i] >> tailCount;
				EXPECT_EQ(expected, run.m_Values[i]) << "op " << int(op) << ", count " << s32(n) << ", integer " << i;
			}
			EXPECT_GE(capture.Count(kBitsCheck), 1u);
			EXPECT_EQ(capture.Count(), capture.Count(kBitsCheck));
		}
	}
	// The worked case: 1 << 40 is 0 on a block and 1 << 8 = 256 on the tail.
	const SOperand forty = Constant({40});
	const SRunResult run = RunInt(SOp_MathOp::Op_Bitwise_ShiftLeft, 1, 13, Stream(Repeat(1, 13)), &forty);
	EXPECT_EQ(0u, run.m_Values[0]);
	EXPECT_EQ(0u, run.m_Values[11]);
	EXPECT_EQ(256u, run.m_Values[12]);
}

TEST(IntKernels, ComparisonsWriteAllBitsSetNeverOne)
{
	CAssertCapture capture;
	const std::vector<u32> a = {1, 2, 3, kIntMin, kIntMax, 0, kAllOnes, 5, 5, u32(-5), 9, 10, /**/ 1, 2, 3};
	const std::vector<u32> b = {2, 2, 1, kIntMax, kIntMin, 0, 1, 5, 6, 5, 9, 0, /**/ 2, 2, 1};
	struct SExpect { EOp m_Op; bool (*m_Fn)(s32, s32); };
	const SExpect cases[] = {
		{SOp_MathOp::Op_Cmp_Lower, [](s32 x, s32 y) { return x < y; }},
		{SOp_MathOp::Op_Cmp_LowerOrEqual, [](s32 x, s32 y) { return x <= y; }},
		{SOp_MathOp::Op_Cmp_Greater, [](s32 x, s32 y) { return x > y; }},
		{SOp_MathOp::Op_Cmp_GreaterOrEqual, [](s32 x, s32 y) { return x >= y; }},
		{SOp_MathOp::Op_Cmp_Equal, [](s32 x, s32 y) { return x == y; }},
		{SOp_MathOp::Op_Cmp_NotEqual, [](s32 x, s32 y) { return x != y; }},
	};
	for (const SExpect &c : cases)
	{
		const SRunResult run = RunInt(c.m_Op, 1, u32(a.size()), Stream(a), Stream(b));
		for (u32 i = 0; i < a.size(); ++i)
		{
			EXPECT_EQ(c.m_Fn(s32(a[i]), s32(b[i])) ? kAllOnes : 0u, run.m_Values[i]) << "op " << int(c.m_Op) << ", integer " << i;
			EXPECT_NE(1u, run.m_Values[i]);
		}
	}
	EXPECT_EQ(0u, capture.Count());
}

TEST(IntKernels, PerLaneIntMinDividedByMinusOneWrapsWithoutTrapping)
{
	CAssertCapture capture;
	// Stream divisors and a non-uniform constant both reach the per-lane path, in whole
	// blocks and in the tail. The result is settled as wrapping: INT_MIN / -1 = INT_MIN,
	// INT_MIN % -1 = 0.
	const std::vector<u32> a = Repeat(kIntMin, 14);
	const SOperand minusOnes = Stream(Repeat(kAllOnes, 14));
	EXPECT_EQ(Repeat(kIntMin, 14), RunInt(SOp_MathOp::Op_Div, 1, 14, Stream(a), &minusOnes).m_Values);
	EXPECT_EQ(Repeat(0, 14), RunInt(SOp_MathOp::Op_Mod, 1, 14, Stream(a), &minusOnes).m_Values);

	const SOperand mixed = Constant({kAllOnes, 2});	// not uniform
	const SRunResult div = RunInt(SOp_MathOp::Op_Div, 2, 7, Stream(a), &mixed);
	const SRunResult mod = RunInt(SOp_MathOp::Op_Mod, 2, 7, Stream(a), &mixed);
	for (u32 i = 0; i < 14; ++i)
	{
		EXPECT_EQ(i % 2 == 0 ? kIntMin : 0xC0000000u, div.m_Values[i]) << i;
		EXPECT_EQ(0u, mod.m_Values[i]) << i;
	}
	EXPECT_EQ(0u, capture.Count());
}


// Per-lane division and modulo (a stream divisor) go four lanes at a time through double
// precision: every quotient and remainder must be the scalar rule's, for pairs drawn
// from the whole 32-bit range, near the edges (INT_MIN, INT_MAX, +-1, 0, powers of two
// and their neighbours) and with equal magnitudes.
#include "cbvm_kernel_isa.h"
#include "cbvm_math_op_int_selector.h"
#include "cbvm_math_op_kernel_sets.h"
#include "mt_scalar_ops.h"
#include "seeded_random.h"

#if defined(__aarch64__)
// The floating-point exception flags (FPSR: invalid, divide by zero, overflow,
// underflow, inexact, input denormal) in x86's MXCSR bit order, as the test reads them.
static unsigned FpFlags()
{
	Orvex::u64 fpsr;
	__asm__ volatile("mrs %0, fpsr" : "=r"(fpsr));
	return unsigned(fpsr & 0x1) | unsigned((fpsr & 0x80) >> 6) | unsigned((fpsr & 0x2) << 1) | unsigned((fpsr & 0xC) << 1) | unsigned((fpsr & 0x10) << 1);
}
static void ClearFpFlags()
{
	Orvex::u64 fpsr;
	__asm__ volatile("mrs %0, fpsr" : "=r"(fpsr));
	fpsr &= ~Orvex::u64(0x9F);
	__asm__ volatile("msr fpsr, %0" : : "r"(fpsr));
}
#else
#include <xmmintrin.h>
static unsigned FpFlags()
{
	return _mm_getcsr() & 0x3F;
}
static void ClearFpFlags()
{
	_mm_setcsr(_mm_getcsr() & ~0x3Fu);
}
#endif

#include <cstring>
#include <utility>

TEST(DivModThroughDouble, EveryPairGivesTheScalarRule)
{
	using Orvex::s32;
	using Orvex::Compiler::IR::SOp_MathOp;
	namespace CBVM = Orvex::CBVM;
	OxTest::CSeededRandom random(20261126);
	std::vector<s32> edges = {0, 1, -1, 2, -2, 3, -3, INT_MAX, INT_MIN, INT_MAX - 1, INT_MIN + 1, 46341, -46341, 65536, -65536};
	for (int k = 2; k < 31; ++k)
		for (s32 d : {-1, 0, 1})
		{
			edges.push_back(s32((1u << k) + u32(d)));
			edges.push_back(-s32((1u << k) + u32(d)));
		}
	// Every pair of edges (INT_MIN / -1, x / 0 among them), then random pairs.
	std::vector<s32> a, b;
	for (s32 x : edges)
		for (s32 y : edges)
		{
			a.push_back(x);
			b.push_back(y);
		}
	constexpr std::size_t kPairs = 1 << 18;
	while (a.size() < kPairs)
	{
		const u32 pick = random.Uniform(4);
		a.push_back(pick == 0 ? edges[random.Uniform(edges.size())] : s32(random()));
		b.push_back(pick == 1 ? edges[random.Uniform(edges.size())] : pick == 2 ? s32(random()) >> random.Uniform(31) : s32(random()));
		if (random.Uniform(16) == 0)
			b.back() = random.Uniform(2) ? a.back() : s32(0u - u32(a.back()));	// (wrapping: INT_MIN stays INT_MIN)
	}
	const std::size_t pairs = a.size() / 48 * 48;	// whole blocks of every kernel set
	a.resize(pairs + 16);
	b.resize(pairs + 16);
	// The SSE2 block kernel as the selector calls it, and each wide set's on this machine.
	// (On AArch64 the one block kernel is the NEON build of the same source.)
	std::vector<std::pair<const char *, Orvex::MathOp::FnIntPacked>> kernels = {{CBVM::KernelIsaName(CBVM::KernelIsa_Base), Orvex::MathOp::g_IntKernelSse2}};
#if !defined(__aarch64__)
	if (CBVM::KernelIsaSupported(CBVM::KernelIsa_AVX2))
		kernels.push_back({"avx2", Orvex::MathOp::g_IntKernelAvx2});
	if (CBVM::KernelIsaSupported(CBVM::KernelIsa_AVX512))
		kernels.push_back({"avx512", Orvex::MathOp::g_IntKernelAvx512});
#endif
	for (const auto &kernel : kernels)
		for (SOp_MathOp::EOp op : {SOp_MathOp::Op_Div, SOp_MathOp::Op_Mod})
		{
			std::vector<s32> dst(pairs + 16, 0x5A5A5A5A);
			ASSERT_EQ(reinterpret_cast<std::uintptr_t>(a.data()) % 16, 0u);
			// No lane may raise a floating-point exception flag but inexact: a host that
			// unmasks them would trap.
			constexpr unsigned kInexact = 0x20;
			ClearFpFlags();
			kernel.second(op, dst.data(), dst.data() + pairs, a.data(), 48, b.data(), 48);
			EXPECT_EQ(FpFlags() & ~kInexact, 0u) << kernel.first << (op == SOp_MathOp::Op_Div ? " div" : " mod") << ": floating-point exception flags raised";
			for (std::size_t i = 0; i < pairs; ++i)
			{
				const s32 expected = op == SOp_MathOp::Op_Div ? Orvex::ScalarOps::DivS32(a[i], b[i]) : Orvex::ScalarOps::ModS32(a[i], b[i]);
				ASSERT_EQ(dst[i], expected) << kernel.first << (op == SOp_MathOp::Op_Div ? " div " : " mod ") << a[i] << ", " << b[i] << " (pair " << i << ")";
			}
			EXPECT_EQ(dst[pairs], 0x5A5A5A5A);
		}
}
