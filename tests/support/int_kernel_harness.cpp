#include "int_kernel_harness.h"

#include <climits>
#include <iterator>
#include <sstream>

namespace IntKernelTest
{
	//--------------------------------------------------------------------------------
	// Values.


	u32 CValues::Next()
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

	std::vector<u32> CValues::Words(std::size_t n)
	{
		std::vector<u32> w(n);
		for (u32 &x : w)
			x = Next();
		return w;
	}




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


	bool IsUniformConstant(const SOperand *b, u32 dimension)
	{
		if (b == nullptr || !b->m_Constant)
			return false;
		for (u32 c = 1; c < dimension; ++c)
			if (b->m_Words[c] != b->m_Words[0])
				return false;
		return true;
	}


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

	std::vector<u32> RunPacked(EOp op, const std::vector<u32> &a, const std::vector<u32> *b, bool constantBlock, bool *guardsIntact)
	{
		CWords src0(a), src1(b != nullptr ? *b : std::vector<u32>()), dst(a.size());
		MathOp::_ExecIntOperatorPacked(op, dst.Ints(), dst.Ints() + a.size(), src0.Ints(), 48, b != nullptr ? src1.Ints() : nullptr, constantBlock ? 0 : 48);
		if (guardsIntact != nullptr)
			*guardsIntact = dst.GuardsIntact();
		return dst.Values();
	}


	std::vector<u32> WrappedMultiples(s32 d)
	{
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

	//--------------------------------------------------------------------------------

	std::vector<SCase> AllOpCases(const std::vector<u32> &dimensions)
	{
		std::vector<SCase> cases;
		for (s32 op = 0; op < SOp_MathOp::__MaxOps; ++op)
		{
			const bool unary = OxTest::ModelIsUnary(EOp(op));
			for (u32 n : dimensions)
				for (OxTest::EOperandShape shape : OxTest::kAllShapes)
					if (!unary || !OxTest::Src1Constant(shape))
						cases.push_back({op, n, shape, unary});
		}
		return cases;
	}

	std::string CaseName(const ::testing::TestParamInfo<SCase> &info)
	{
		const SCase &c = info.param;
		const std::string shape = c.m_Unary ? (OxTest::Src0Constant(c.m_Shape) ? "Const" : "Stream") : OxTest::ShapeName(c.m_Shape);
		return OpMnemonic(c.m_Op) + "_N" + std::to_string(c.m_N) + "_" + shape;
	}

	u32 CaseSeed(u32 salt, const SCase &c)
	{
		return kSeed + salt + (u32(c.m_Op) << 24) + (c.m_N << 16) + (u32(c.m_Shape) << 12);
	}
}
