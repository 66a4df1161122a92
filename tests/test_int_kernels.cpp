// The integer operator kernels of the standard path: ExecOperatorInt<N> (checks,
// constant blocks, destination-stride refusal) and _ExecIntOperatorPacked (every
// operator, block loops, tails, uniform-constant paths, per-lane paths, hazard counts).
//
// Values are checked bit for bit against the plain scalar model (scalar_model.h). The
// block paths of a uniform constant operand differ from the model in two deliberate
// places, which ExpectedInt below models explicitly:
//   - a uniform shift count above 31 (as unsigned) shifts whole blocks out: 0 for the
//     left and logical shifts, the sign fill for the arithmetic one (and "bits <= 31" is
//     reported); the tail uses the count's low five bits like the model;
//   - INT_MIN divided by the constant INT_MIN gives -1 on whole blocks (power-of-two path).

#include "cbvm_meta_op_math_operator.int.impl.h"
#include "kr_profiler.h"
#include "mt_integer_tools.h"
#include "scalar_model.h"
#include "simd/sse/simd_vector.h"
#include "test_support.h"

#include <gtest/gtest.h>

#include <climits>
#include <cstdint>
#include <cstdio>
#include <iostream>
#include <iterator>
#include <random>
#include <sstream>
#include <string>
#include <vector>

using namespace Orvex;
using Compiler::IR::SOp_MathOp;
using OxTest::CAssertCapture;
using OxTest::EModelKind;
using EOp = SOp_MathOp::EOp;

namespace
{
	constexpr u32 kSeed = 0x1A7C0DE5u;

	constexpr u32 kIntMin = 0x80000000u;
	constexpr u32 kIntMax = 0x7FFFFFFFu;
	constexpr u32 kAllOnes = 0xFFFFFFFFu;

	const char *const kBitsCheck = "bits <= 31";
	const char *const kNotReached = "Control point shouldn't be reached.";

	void PrintSeed(const char *test, u32 seed)
	{
		std::cout << "[ seed ] " << test << " seed = 0x" << std::hex << seed << std::dec << std::endl;
	}

	u32 GuardWord(std::size_t index) { return 0xC0DE0000u ^ u32(index * 0x9E3779B1u); }

	u32 ScalarFallbacks() { return Profiler::CHazards::CurrentThreadHazards().Get(Profiler::CHazards::Hazard_ScalarFallback); }
	void ResetHazards() { Profiler::CHazards::CurrentThreadHazards().Reset(); }

	bool IsShift(EOp op)
	{
		return op == SOp_MathOp::Op_Bitwise_ShiftLeft || op == SOp_MathOp::Op_Bitwise_ShiftRight || op == SOp_MathOp::Op_Bitwise_ShiftRightLogical;
	}

	//--------------------------------------------------------------------------------
	// 32-byte aligned words with guard words on both sides (also the padding that lets a
	// 3-component constant be read as 16 bytes).

	class CWords
	{
	public:
		static constexpr std::size_t kGuardWords = 16;

		explicit CWords(std::size_t count) : m_Count(count), m_Storage(count + 2 * kGuardWords + 8)
		{
			for (std::size_t i = 0; i < m_Storage.size(); ++i)
				m_Storage[i] = GuardWord(i);
			const std::uintptr_t raw = reinterpret_cast<std::uintptr_t>(m_Storage.data() + kGuardWords);
			m_Offset = kGuardWords + ((32 - raw % 32) % 32) / sizeof(u32);
		}

		explicit CWords(const std::vector<u32> &words) : CWords(words.size())
		{
			for (std::size_t i = 0; i < words.size(); ++i)
				Data()[i] = words[i];
		}

		u32 *Data() { return m_Storage.data() + m_Offset; }
		s32 *Ints() { return reinterpret_cast<s32 *>(Data()); }
		std::size_t Count() const { return m_Count; }
		std::vector<u32> Values() { return std::vector<u32>(Data(), Data() + m_Count); }

		// Every word outside [0, Count()) still holds its guard pattern.
		bool GuardsIntact() const
		{
			for (std::size_t i = 0; i < m_Storage.size(); ++i)
				if ((i < m_Offset || i >= m_Offset + m_Count) && m_Storage[i] != GuardWord(i))
					return false;
			return true;
		}

		// Every word, inside included, still holds its guard pattern: nothing was written.
		bool Untouched() const
		{
			for (std::size_t i = 0; i < m_Storage.size(); ++i)
				if (m_Storage[i] != GuardWord(i))
					return false;
			return true;
		}

	private:
		std::size_t m_Count;
		std::vector<u32> m_Storage;
		std::size_t m_Offset = 0;
	};

	//--------------------------------------------------------------------------------
	// Values.

	const u32 kIntEdgeValues[] = {
		0u, 1u, kAllOnes, 2u, u32(-2), 7u, u32(-7), 8u, u32(-8), 13u, u32(-13),
		kIntMin, kIntMax, kIntMin + 1, kIntMax - 1,
		31u, 32u, 33u, 40u, 0x55555555u, 0xAAAAAAAAu,
		65536u, u32(-65536), 46341u, u32(-46341),
	};

	class CValues
	{
	public:
		explicit CValues(u32 seed) : m_Rng(seed) {}

		u32 Next()
		{
			const u32 pick = Uniform(100);
			if (pick < 30)
				return kIntEdgeValues[Uniform(std::size(kIntEdgeValues))];
			if (pick < 50)
				return Uniform(41);		// shift counts 0 .. 40
			if (pick < 75)
				return u32(s32(Uniform(201)) - 100);
			return u32(m_Rng());
		}

		std::vector<u32> Words(std::size_t n)
		{
			std::vector<u32> w(n);
			for (u32 &x : w)
				x = Next();
			return w;
		}

		u32 Uniform(std::size_t n) { return u32(std::uniform_int_distribution<u32>(0, u32(n - 1))(m_Rng)); }
		u32 Raw() { return u32(m_Rng()); }

	private:
		std::mt19937 m_Rng;
	};

	//--------------------------------------------------------------------------------
	// Running the kernel and the model.

	struct SOperand
	{
		std::vector<u32> m_Words;	// _Dimension words for a constant, count * _Dimension for a stream
		bool m_Constant = false;
	};

	SOperand Stream(std::vector<u32> words) { return SOperand{std::move(words), false}; }
	SOperand Constant(std::vector<u32> words) { return SOperand{std::move(words), true}; }

	void ExecInt(u32 dimension, EOp op, void *dst, u32 stride, u32 count, const void *src0, u32 stride0, const void *src1, u32 stride1)
	{
		switch (dimension)
		{
		case 1: MathOp::ExecOperatorInt<1>(op, dst, stride, count, src0, stride0, src1, stride1); return;
		case 2: MathOp::ExecOperatorInt<2>(op, dst, stride, count, src0, stride0, src1, stride1); return;
		case 3: MathOp::ExecOperatorInt<3>(op, dst, stride, count, src0, stride0, src1, stride1); return;
		case 4: MathOp::ExecOperatorInt<4>(op, dst, stride, count, src0, stride0, src1, stride1); return;
		default: FAIL() << "no kernel for " << dimension << " components";
		}
	}

	struct SRunResult
	{
		std::vector<u32> m_Values;
		bool m_GuardsIntact = false;
	};

	// ExecOperatorInt<dimension> on aligned copies of the operands; b null for unary operators.
	SRunResult RunInt(EOp op, u32 dimension, u32 count, const SOperand &a, const SOperand *b)
	{
		CWords src0(a.m_Words);
		CWords src1(b != nullptr ? b->m_Words : std::vector<u32>());
		CWords dst(std::size_t(count) * dimension);
		const u32 elementBytes = dimension * 4;
		ExecInt(dimension, op, dst.Data(), elementBytes, count,
				src0.Data(), a.m_Constant ? 0 : elementBytes,
				b != nullptr ? src1.Data() : nullptr, b != nullptr && !b->m_Constant ? elementBytes : 0);
		SRunResult result;
		result.m_Values = dst.Values();
		result.m_GuardsIntact = dst.GuardsIntact() && src0.Values() == a.m_Words && (b == nullptr || src1.Values() == b->m_Words);
		return result;
	}

	SRunResult RunInt(EOp op, u32 dimension, u32 count, const SOperand &a, const SOperand &b) { return RunInt(op, dimension, count, a, &b); }

	bool IsUniformConstant(const SOperand *b, u32 dimension)
	{
		if (b == nullptr || !b->m_Constant)
			return false;
		for (u32 c = 1; c < dimension; ++c)
			if (b->m_Words[c] != b->m_Words[0])
				return false;
		return true;
	}

	// The integers handled by whole 12-integer blocks on a uniform-constant block path.
	std::size_t UniformBlockEnd(u32 dimension, u32 count) { return std::size_t(count) * dimension / 12 * 12; }

	// The model's values, with the two deliberate differences of the uniform-constant
	// block paths written out.
	std::vector<u32> ExpectedInt(EOp op, u32 dimension, u32 count, const SOperand &a, const SOperand *b)
	{
		std::vector<u32> out;
		OxTest::ModelStream(op, EModelKind::Int, dimension, count,
							a.m_Words.data(), a.m_Constant ? 0 : dimension,
							b != nullptr ? b->m_Words.data() : nullptr, b != nullptr && !b->m_Constant ? dimension : 0, out);
		if (!IsUniformConstant(b, dimension))
			return out;
		const u32 d = b->m_Words[0];
		const std::size_t blockEnd = UniformBlockEnd(dimension, count);
		for (std::size_t i = 0; i < blockEnd; ++i)
		{
			const u32 x = a.m_Words[a.m_Constant ? i % dimension : i];
			if (IsShift(op) && d > 31u)
				out[i] = (op == SOp_MathOp::Op_Bitwise_ShiftRight && s32(x) < 0) ? kAllOnes : 0u;
			else if (op == SOp_MathOp::Op_Div && d == kIntMin && x == kIntMin)
				out[i] = kAllOnes;
		}
		return out;
	}

	// The one report a correct run makes: a uniform shift count above 31 on whole blocks.
	bool ExpectsBitsReport(EOp op, u32 dimension, u32 count, const SOperand *b)
	{
		return IsShift(op) && IsUniformConstant(b, dimension) && b->m_Words[0] > 31u && UniformBlockEnd(dimension, count) > 0;
	}

	::testing::AssertionResult SameWords(const std::vector<u32> &expected, const std::vector<u32> &actual)
	{
		if (expected.size() != actual.size())
			return ::testing::AssertionFailure() << "size " << actual.size() << ", expected " << expected.size();
		for (std::size_t i = 0; i < expected.size(); ++i)
			if (expected[i] != actual[i])
				return ::testing::AssertionFailure() << "integer " << i << " is " << s32(actual[i]) << " (0x" << std::hex << actual[i] << std::dec << "), expected " << s32(expected[i]) << " (0x" << std::hex << expected[i] << std::dec << ")";
		return ::testing::AssertionSuccess();
	}

	std::string Describe(EOp op, u32 dimension, u32 count, const SOperand &a, const SOperand *b)
	{
		std::ostringstream s;
		s << "op " << int(op) << ", N = " << dimension << ", count = " << count << ", src0 " << (a.m_Constant ? "constant" : "stream");
		if (b != nullptr)
		{
			s << ", src1 " << (b->m_Constant ? "constant" : "stream");
			if (b->m_Constant)
			{
				s << " (";
				for (u32 c = 0; c < dimension; ++c)
					s << (c ? ", " : "") << s32(b->m_Words[c]);
				s << ")";
			}
		}
		return s.str();
	}

	// One differential case: values, guards, and the reports (none, or only "bits <= 31").
	::testing::AssertionResult CheckCase(CAssertCapture &capture, EOp op, u32 dimension, u32 count, const SOperand &a, const SOperand *b)
	{
		capture.Clear();
		const SRunResult run = RunInt(op, dimension, count, a, b);
		const std::vector<u32> expected = ExpectedInt(op, dimension, count, a, b);
		::testing::AssertionResult same = SameWords(expected, run.m_Values);
		if (!same)
			return ::testing::AssertionFailure() << Describe(op, dimension, count, a, b) << ": " << same.message();
		if (!run.m_GuardsIntact)
			return ::testing::AssertionFailure() << Describe(op, dimension, count, a, b) << ": wrote outside the destination or into a source";
		const bool bitsExpected = ExpectsBitsReport(op, dimension, count, b);
		const std::size_t bitsReports = capture.Count(kBitsCheck);
		if (capture.Count() != bitsReports || (bitsReports > 0) != bitsExpected)
			return ::testing::AssertionFailure() << Describe(op, dimension, count, a, b) << ": " << capture.Count() << " reports, " << bitsReports << " of them \"bits <= 31\", expected " << (bitsExpected ? "only those" : "none");
		return ::testing::AssertionSuccess();
	}

	SOperand Make(CValues &values, bool constant, u32 dimension, u32 count)
	{
		return SOperand{values.Words(constant ? dimension : std::size_t(count) * dimension), constant};
	}

	std::vector<u32> CountsFor(u32 dimension)
	{
		std::vector<u32> counts;
		for (u32 count = 0; count * dimension <= 40 + dimension; ++count)	// count * N over 0..40 and just past
			counts.push_back(count);
		counts.push_back(4096 / dimension);
		counts.push_back(4096 / dimension + 1);
		counts.push_back(1000);
		return counts;
	}

	// _ExecIntOperatorPacked over 'total' integers with a stream source 0 and a stream or
	// a 12-integer constant block as source 1 (prepared by the caller).
	std::vector<u32> RunPacked(EOp op, const std::vector<u32> &a, const std::vector<u32> *b, bool constantBlock, bool *guardsIntact = nullptr)
	{
		CWords src0(a), src1(b != nullptr ? *b : std::vector<u32>()), dst(a.size());
		MathOp::_ExecIntOperatorPacked(op, dst.Ints(), dst.Ints() + a.size(), src0.Ints(), 48, b != nullptr ? src1.Ints() : nullptr, constantBlock ? 0 : 48);
		if (guardsIntact != nullptr)
			*guardsIntact = dst.GuardsIntact();
		return dst.Values();
	}

	std::vector<u32> Repeat(u32 value, std::size_t n) { return std::vector<u32>(n, value); }

	std::vector<u32> WrappedMultiples(s32 d)
	{
		// Dividends on both sides of multiples of d: where a wrong multiplier shows first.
		std::vector<u32> out;
		const s64 factors[] = {1, 2, 3, 7, 100, 1000, 65535, 65537};
		for (s64 f : factors)
			for (s64 sign : {s64(1), s64(-1)})
				for (s64 delta : {s64(-1), s64(0), s64(1)})
					out.push_back(u32(u64(sign * f * s64(d) + delta)));
		if (d != 0)
		{
			const s64 q = s64(INT_MAX) / (d < 0 ? -s64(d) : s64(d));
			for (s64 sign : {s64(1), s64(-1)})
				for (s64 delta : {s64(-1), s64(0), s64(1)})
					out.push_back(u32(u64(sign * q * (d < 0 ? -s64(d) : s64(d)) + delta)));
		}
		return out;
	}
}

//====================================================================================
// Every operator, every dimension, against the model.

TEST(IntKernels, EveryOperatorEveryDimensionMatchesTheModel)
{
	PrintSeed("IntKernels.EveryOperatorEveryDimensionMatchesTheModel", kSeed);
	CValues values(kSeed);
	CAssertCapture capture;
	for (int opValue = 0; opValue < SOp_MathOp::__MaxOps; ++opValue)
	{
		const EOp op = EOp(opValue);
		const bool unary = OxTest::ModelIsUnary(op);
		for (u32 dimension = 1; dimension <= 4; ++dimension)
			for (u32 count : CountsFor(dimension))
				for (int shape = 0; shape < (unary ? 2 : 4); ++shape)
				{
					// shape bit 0: source 0 constant; bit 1: source 1 constant
					const SOperand a = Make(values, (shape & 1) != 0, dimension, count);
					const SOperand b = Make(values, (shape & 2) != 0, dimension, count);
					ASSERT_TRUE(CheckCase(capture, op, dimension, count, a, unary ? nullptr : &b)) << "seed 0x" << std::hex << kSeed;
				}
	}
}

TEST(IntKernels, BooleansRunThroughTheIntegerKernelsOfTheirComponentCount)
{
	PrintSeed("IntKernels.BooleansRunThroughTheIntegerKernelsOfTheirComponentCount", kSeed + 1);
	std::mt19937 rng(kSeed + 1);
	CAssertCapture capture;
	const EBaseTypeID types[] = {BaseType_Bool, BaseType_Bool2, BaseType_Bool3, BaseType_Bool4};
	for (EBaseTypeID type : types)
	{
		EModelKind kind;
		u32 dimension = 0;
		ASSERT_TRUE(OxTest::ModelKernelForType(type, kind, dimension));
		ASSERT_EQ(EModelKind::Int, kind);
		ASSERT_EQ(u32(type - BaseType_Bool + 1), dimension);
		for (int opValue = 0; opValue < SOp_MathOp::__MaxOps; ++opValue)
		{
			const EOp op = EOp(opValue);
			for (u32 count : {1u, 5u, 12u, 13u, 100u})
				for (int shape = 0; shape < 4; ++shape)
				{
					auto boolWords = [&](std::size_t n) {
						std::vector<u32> w(n);
						for (u32 &x : w)
							x = (rng() & 1) ? kAllOnes : 0u;
						return w;
					};
					const bool c0 = (shape & 1) != 0, c1 = (shape & 2) != 0;
					const SOperand a{boolWords(c0 ? dimension : count * dimension), c0};
					const SOperand b{boolWords(c1 ? dimension : count * dimension), c1};
					ASSERT_TRUE(CheckCase(capture, op, dimension, count, a, OxTest::ModelIsUnary(op) ? nullptr : &b)) << BaseTypeName(type);
				}
		}
	}
}

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

TEST(IntKernels, InPlaceEvaluationMatchesTheModel)
{
	// A register may be both destination and source 0 (a = a op b).
	PrintSeed("IntKernels.InPlaceEvaluationMatchesTheModel", kSeed + 2);
	CValues values(kSeed + 2);
	CAssertCapture capture;
	for (int opValue = 0; opValue < SOp_MathOp::__MaxOps; ++opValue)
	{
		const EOp op = EOp(opValue);
		const bool unary = OxTest::ModelIsUnary(op);
		for (u32 dimension = 1; dimension <= 4; ++dimension)
		{
			const u32 count = 29;
			const SOperand a = Make(values, false, dimension, count);
			const SOperand b = Make(values, false, dimension, count);
			const std::vector<u32> expected = ExpectedInt(op, dimension, count, a, unary ? nullptr : &b);
			CWords inOut(a.m_Words), src1(b.m_Words);
			ExecInt(dimension, op, inOut.Data(), dimension * 4, count, inOut.Data(), dimension * 4, unary ? nullptr : src1.Data(), unary ? 0 : dimension * 4);
			EXPECT_TRUE(SameWords(expected, inOut.Values())) << Describe(op, dimension, count, a, &b);
		}
	}
	EXPECT_EQ(0u, capture.Count());
}

//====================================================================================
// Division and modulo by uniform and non-uniform divisors.

TEST(IntKernels, DivisionAndModuloByEveryDivisorMatchTheModel)
{
	PrintSeed("IntKernels.DivisionAndModuloByEveryDivisorMatchTheModel", kSeed + 3);
	CValues values(kSeed + 3);
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
		for (EOp op : {SOp_MathOp::Op_Div, SOp_MathOp::Op_Mod})
			for (u32 dimension = 1; dimension <= 4; ++dimension)
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

TEST(IntKernels, RandomUniformDivisorsOverRandomDividendsMatchTheModel)
{
	PrintSeed("IntKernels.RandomUniformDivisorsOverRandomDividendsMatchTheModel", kSeed + 4);
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

TEST(IntKernels, NonUniformConstantDivisorsAndShiftCountsGoPerLane)
{
	PrintSeed("IntKernels.NonUniformConstantDivisorsAndShiftCountsGoPerLane", kSeed + 5);
	CValues values(kSeed + 5);
	CAssertCapture capture;
	const EOp ops[] = {SOp_MathOp::Op_Div, SOp_MathOp::Op_Mod, SOp_MathOp::Op_Bitwise_ShiftLeft, SOp_MathOp::Op_Bitwise_ShiftRight, SOp_MathOp::Op_Bitwise_ShiftRightLogical};
	const std::vector<u32> constants[] = {{3, 5}, {0, 7}, {u32(-1), 2}, {kIntMin, 1}, {40, 8}, {2, 2, 3}, {31, 32, 33}, {0, 0, 0, 5}, {u32(-8), 8, 8, 8}};
	for (EOp op : ops)
		for (const std::vector<u32> &c : constants)
		{
			const u32 dimension = u32(c.size());
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
}

TEST(IntKernels, UniformShiftCountsZeroToThirtyOneMatchTheModel)
{
	PrintSeed("IntKernels.UniformShiftCountsZeroToThirtyOneMatchTheModel", kSeed + 6);
	CValues values(kSeed + 6);
	CAssertCapture capture;
	for (EOp op : {SOp_MathOp::Op_Bitwise_ShiftLeft, SOp_MathOp::Op_Bitwise_ShiftRight, SOp_MathOp::Op_Bitwise_ShiftRightLogical})
		for (u32 n = 0; n <= 31; ++n)
			for (u32 dimension = 1; dimension <= 4; ++dimension)
			{
				const u32 count = 60 / dimension + 1;
				const SOperand a = Make(values, false, dimension, count);
				const SOperand b = Constant(Repeat(n, dimension));
				ResetHazards();
				ASSERT_TRUE(CheckCase(capture, op, dimension, count, a, &b));
				EXPECT_EQ(0u, ScalarFallbacks());
			}
}

//====================================================================================
// Edge cases, one test each.

TEST(IntKernels, BelowOneBlockEverythingIsDoneByTheTail)
{
	PrintSeed("IntKernels.BelowOneBlockEverythingIsDoneByTheTail", kSeed + 7);
	CValues values(kSeed + 7);
	CAssertCapture capture;
	for (int opValue = 0; opValue < SOp_MathOp::__MaxOps; ++opValue)
	{
		const EOp op = EOp(opValue);
		for (u32 dimension = 1; dimension <= 4; ++dimension)
			for (u32 count = 0; count * dimension < 12; ++count)
				for (int shape = 0; shape < 4; ++shape)
				{
					const SOperand a = Make(values, (shape & 1) != 0, dimension, count);
					const SOperand b = Make(values, (shape & 2) != 0, dimension, count);
					ResetHazards();
					ASSERT_TRUE(CheckCase(capture, op, dimension, count, a, OxTest::ModelIsUnary(op) ? nullptr : &b));
					EXPECT_EQ(0u, ScalarFallbacks());
				}
	}
	// A uniform count of 40 on the tail acts as 8, with no report: the tail uses count & 31.
	const SOperand a = Stream({1, kAllOnes, 0x00FF00FFu, kIntMin, 5, 6, 7, 8, 9, 10, 11});
	const SOperand forty = Constant({40});
	capture.Clear();
	const SRunResult run = RunInt(SOp_MathOp::Op_Bitwise_ShiftLeft, 1, 11, a, &forty);
	for (u32 i = 0; i < 11; ++i)
		EXPECT_EQ(a.m_Words[i] << 8, run.m_Values[i]) << i;
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

TEST(IntKernels, DestinationStrideVerificationWritesNothing)
{
	CAssertCapture capture;
	for (int opValue = 0; opValue < SOp_MathOp::__MaxOps; ++opValue)
	{
		const EOp op = EOp(opValue);
		// A three-component source written into a four-component destination (and the other
		// way round): refused, nothing written. Mod by 1 would otherwise clear the range.
		for (u32 dimension : {3u, 4u})
		{
			capture.Clear();
			const u32 wrongStride = (7 - dimension) * 4;
			CWords src0(Repeat(kIntMin, 64)), src1(Repeat(1, 64)), dst(64);
			ExecInt(dimension, op, dst.Data(), wrongStride, 12, src0.Data(), dimension * 4, src1.Data(), 0);
			EXPECT_TRUE(dst.Untouched()) << "op " << opValue << ", N = " << dimension;
			EXPECT_EQ(1u, capture.Count());
			EXPECT_EQ(1u, capture.Count("stride == _Dimension * sizeof(s32)"));
		}
	}
}

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
	PrintSeed("IntKernels.MulHiInt32MatchesTheScalarHighProduct", kSeed + 8);
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

	std::mt19937 rng(kSeed + 8);
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
