// The standard path's float stream kernels, called directly: the ten arithmetic and
// comparison kernels, modulo and negation, the kernel table and the float selector.
//
// Values are checked bit for bit against the scalar model (tests/scalar_model.h); the
// one exception is modulo by a constant divisor, which the kernels compute with one
// reciprocal and a multiply per value, and which is modelled here as exactly that.
// Every stream sits in 32-byte aligned memory followed by 32 bytes of padding (what the
// register file guarantees); the padding and every word a kernel has no business
// writing start as a guard pattern and are checked afterwards.

#include "cbvm_meta_op_math_operator.float.impl.h"
#include "scalar_model.h"
#include "test_support.h"

#include <gtest/gtest.h>

#include <cmath>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <iostream>
#include <iterator>
#include <random>
#include <regex>
#include <sstream>
#include <string>
#include <thread>
#include <utility>
#include <vector>

using namespace Orvex;
namespace MO = Orvex::MathOp;
using Compiler::IR::SOp_MathOp;
using OxTest::BitsFloat;
using OxTest::CAssertCapture;
using OxTest::CGuardPage;
using OxTest::FloatBits;
using EOp = SOp_MathOp::EOp;

namespace
{
	constexpr u32 kSeed = 0xF1A7C0DEu;

	const char *const kInvalidFloatOpMessage = "[Backend CPU-VM]: Invalid Operation: logical ops cannot be applied to 'float' type";
	const char *const kSlowPathMessage = "CBVM: math op: slow codepath taken, bad strides";
	const char *const kImplFileName = "cbvm_meta_op_math_operator.float.impl.h";

	const EOp kFloatOps[] = {
		SOp_MathOp::Op_Add, SOp_MathOp::Op_Sub, SOp_MathOp::Op_Mul, SOp_MathOp::Op_Div,
		SOp_MathOp::Op_Mod, SOp_MathOp::Op_Neg,
		SOp_MathOp::Op_Cmp_Lower, SOp_MathOp::Op_Cmp_LowerOrEqual, SOp_MathOp::Op_Cmp_Greater,
		SOp_MathOp::Op_Cmp_GreaterOrEqual, SOp_MathOp::Op_Cmp_Equal, SOp_MathOp::Op_Cmp_NotEqual};

	// The operators of the Op2StreamImpl family (everything but modulo and negation).
	const EOp kStreamOps[] = {
		SOp_MathOp::Op_Add, SOp_MathOp::Op_Sub, SOp_MathOp::Op_Mul, SOp_MathOp::Op_Div,
		SOp_MathOp::Op_Cmp_Lower, SOp_MathOp::Op_Cmp_LowerOrEqual, SOp_MathOp::Op_Cmp_Greater,
		SOp_MathOp::Op_Cmp_GreaterOrEqual, SOp_MathOp::Op_Cmp_Equal, SOp_MathOp::Op_Cmp_NotEqual};

	const EOp kCompareOps[] = {
		SOp_MathOp::Op_Cmp_Lower, SOp_MathOp::Op_Cmp_LowerOrEqual, SOp_MathOp::Op_Cmp_Greater,
		SOp_MathOp::Op_Cmp_GreaterOrEqual, SOp_MathOp::Op_Cmp_Equal, SOp_MathOp::Op_Cmp_NotEqual};

	// Operator values without a float kernel: the bitwise operators and values past the set
	// (the bytecode's operator byte can hold any of 0..255).
	const s32 kNoKernelOps[] = {6, 7, 8, 9, 10, 11, 12, 19, 100, 255};

	std::vector<u32> SweepCounts()
	{
		std::vector<u32> counts;
		for (u32 c = 0; c <= 40; ++c)
			counts.push_back(c);
		counts.push_back(1000);
		counts.push_back(4097);
		return counts;
	}

	std::string OpName(s32 op)
	{
		static const char *const names[] = {
			"Add", "Sub", "Mul", "Div", "Mod", "Neg", "Shl", "Sar", "Shr", "And", "Or", "Xor", "Not",
			"LT", "LE", "GT", "GE", "EQ", "NE"};
		if (op >= 0 && op < s32(std::size(names)))
			return names[op];
		return "op" + std::to_string(op);
	}

	std::string Hex(u32 v)
	{
		char text[16];
		std::snprintf(text, sizeof(text), "0x%08X", v);
		return text;
	}

	std::string PointerText(const void *p)
	{
		char text[64];
		std::snprintf(text, sizeof(text), "%p", p);
		return text;
	}

	u32 GuardWord(u32 index) { return 0xBAD00000u ^ (index * 0x9E3779B1u); }

	void PrintSeed(const char *test, u32 seed)
	{
		std::cout << "[ seed ] " << test << " seed = 0x" << std::hex << seed << std::dec << std::endl;
	}

	//--------------------------------------------------------------------------------
	// Values: edge values mixed with random words and ordinary numbers.

	const u32 kFloatEdgeValues[] = {
		0x00000000u, 0x80000000u,				// +0, -0
		0x7F800000u, 0xFF800000u,				// +inf, -inf
		0x7FC00000u, 0xFFC00000u,				// quiet NaNs
		0x7FC12345u, 0xFFE00ABCu,				// quiet NaNs with payloads
		0x7F800001u, 0xFFA00001u,				// signalling NaNs
		0x00000001u, 0x807FFFFFu, 0x00400000u,	// denormals
		0x00800000u, 0x80800000u,				// smallest normals
		0x7F7FFFFFu, 0xFF7FFFFFu,				// largest finite
		0x3F800000u, 0xBF800000u,				// 1, -1
		0x3F000000u, 0x40000000u, 0xC0000000u,	// 0.5, 2, -2
		0x40400000u, 0x40B00000u, 0xC0B00000u,	// 3, 5.5, -5.5
		0x501502F9u, 0x4F000000u, 0x4EFFFFFFu,	// 1e10, 2^31, the float below 2^31
		0xCF000000u, 0x3DCCCCCDu, 0x41200000u,	// -2^31, 0.1, 10
	};

	class CValues
	{
	public:
		explicit CValues(u32 seed) : m_Rng(seed) {}

		u32 Next()
		{
			const u32 pick = Uniform(100);
			if (pick < 25)
				return kFloatEdgeValues[Uniform(std::size(kFloatEdgeValues))];
			if (pick < 45)
				return u32(m_Rng());
			if (pick < 70)
				return FloatBits(float(s32(Uniform(41)) - 20));
			return FloatBits(std::uniform_real_distribution<float>(-1000.0f, 1000.0f)(m_Rng));
		}

		u32 Uniform(std::size_t n) { return u32(std::uniform_int_distribution<u32>(0, u32(n - 1))(m_Rng)); }

	private:
		std::mt19937 m_Rng;
	};

	// The value source of a test, its seed printed.
	CValues SeededValues(u32 seed)
	{
		const ::testing::TestInfo *info = ::testing::UnitTest::GetInstance()->current_test_info();
		PrintSeed(info != nullptr ? info->name() : "?", seed);
		return CValues(seed);
	}

	//--------------------------------------------------------------------------------
	// Models.

	// Modulo by a constant divisor as the kernels compute it: one reciprocal of the
	// divisor, a multiply per value, the fractional part while the quotient fits a 32-bit
	// truncation (a plain conversion to int, no library truncation), then times the divisor.
	u32 ModelModByReciprocal(u32 aBits, u32 cBits)
	{
		const float a = BitsFloat(aBits);
		const float c = BitsFloat(cBits);
		const float r = 1.0f / c;
		const float q = a * r;
		float fraction = 0.0f;
		if (std::fabs(q) < 2147483648.0f)
			fraction = q - float(s32(q));
		return FloatBits(fraction * c);
	}

	//--------------------------------------------------------------------------------
	// 32-byte aligned words, followed by 32 bytes of padding; everything starts as guard.

	class CWords
	{
	public:
		CWords(std::size_t words, u32 salt) : m_Words(words), m_Salt(salt)
		{
			m_Total = ((words + 7) / 8) * 8 + 8;
			m_Storage.assign(m_Total + 8, 0u);
			const std::uintptr_t p = reinterpret_cast<std::uintptr_t>(m_Storage.data());
			m_Data = m_Storage.data() + ((32 - p % 32) % 32) / 4;
			for (std::size_t i = 0; i < m_Total; ++i)
				m_Data[i] = Guard(i);
			Snapshot();
		}

		u32 Guard(std::size_t i) const { return GuardWord(u32(i) ^ m_Salt); }
		u32 *Data() { return m_Data; }
		const u32 *Data() const { return m_Data; }
		u32 &operator[](std::size_t i) { return m_Data[i]; }
		u32 operator[](std::size_t i) const { return m_Data[i]; }
		std::size_t Words() const { return m_Words; }
		std::size_t Total() const { return m_Total; }

		void Fill(CValues &values)
		{
			for (std::size_t i = 0; i < m_Words; ++i)
				m_Data[i] = values.Next();
			Snapshot();
		}

		void Snapshot() { m_Initial.assign(m_Data, m_Data + m_Total); }
		u32 Initial(std::size_t i) const { return m_Initial[i]; }

		// First word that differs from the snapshot, or Total().
		std::size_t FirstChanged() const
		{
			for (std::size_t i = 0; i < m_Total; ++i)
				if (m_Data[i] != m_Initial[i])
					return i;
			return m_Total;
		}

	private:
		std::size_t m_Words;
		std::size_t m_Total = 0;
		u32 m_Salt;
		std::vector<u32> m_Storage;
		u32 *m_Data = nullptr;
		std::vector<u32> m_Initial;
	};

	//--------------------------------------------------------------------------------
	// Mismatch collection: every mismatch counts, the first few are printed.

	class CChecker
	{
	public:
		void Mismatch(const std::string &text)
		{
			++m_Count;
			if (m_Count <= 20)
				ADD_FAILURE() << text;
		}
		u64 Count() const { return m_Count; }

	private:
		u64 m_Count = 0;
	};

	//--------------------------------------------------------------------------------
	// One kernel run: layout, buffers, model check.

	enum class EOperands
	{
		Packed,		// both sources streams
		Src0Const,	// source 0 one element (stride 0)
		Src1Const,	// source 1 one element (stride 0)
		BothConst,	// both one element: the slow path
	};

	const char *OperandsName(EOperands o)
	{
		switch (o)
		{
		case EOperands::Packed: return "packed";
		case EOperands::Src0Const: return "src0-const";
		case EOperands::Src1Const: return "src1-const";
		case EOperands::BothConst: return "both-const";
		}
		return "?";
	}

	struct SLayout
	{
		s32 m_Op = SOp_MathOp::Op_Add;
		u32 m_N = 1;
		u32 m_Count = 0;
		u32 m_DstStride = 0;	// words; the destination is never constant
		u32 m_Stride0 = 0;		// words; 0 = constant
		u32 m_Stride1 = 0;
		bool m_Unary = false;	// no source 1 at all (null pointer)

		static SLayout Make(s32 op, u32 n, u32 count, EOperands operands, u32 dstStride = 0)
		{
			SLayout l;
			l.m_Op = op;
			l.m_N = n;
			l.m_Count = count;
			l.m_DstStride = dstStride != 0 ? dstStride : n;
			l.m_Stride0 = (operands == EOperands::Src0Const || operands == EOperands::BothConst) ? 0 : n;
			l.m_Stride1 = (operands == EOperands::Src1Const || operands == EOperands::BothConst) ? 0 : n;
			l.m_Unary = op == SOp_MathOp::Op_Neg;
			return l;
		}

		std::string Label() const
		{
			std::ostringstream s;
			s << OpName(m_Op) << " N=" << m_N << " count=" << m_Count << " dstStride=" << m_DstStride * 4
			  << " stride0=" << m_Stride0 * 4 << " stride1=" << (m_Unary ? std::string("none") : std::to_string(m_Stride1 * 4));
			return s.str();
		}

		static std::size_t SourceWords(u32 stride, u32 n, u32 count) { return stride == 0 ? n : std::size_t(count) * stride; }
	};

	class CRun
	{
	public:
		CRun(const SLayout &layout, CValues &values)
		: m_L(layout)
		, m_Dst(std::size_t(layout.m_Count) * layout.m_DstStride, 0x1000u)
		, m_Src0(SLayout::SourceWords(layout.m_Stride0, layout.m_N, layout.m_Count), 0x2000u)
		, m_Src1(SLayout::SourceWords(layout.m_Stride1, layout.m_N, layout.m_Count), 0x3000u)
		{
			m_Src0.Fill(values);
			if (!m_L.m_Unary)
				m_Src1.Fill(values);
		}

		CWords &Dst() { return m_Dst; }
		CWords &Src0() { return m_Src0; }
		CWords &Src1() { return m_Src1; }
		const SLayout &Layout() const { return m_L; }

		// Re-snapshot after a test changed source values by hand.
		void Resnapshot()
		{
			m_Src0.Snapshot();
			m_Src1.Snapshot();
			m_Dst.Snapshot();
		}

		const void *Src1Ptr() const { return m_L.m_Unary ? nullptr : m_Src1.Data(); }
		u32 Stride1Bytes() const { return m_L.m_Unary ? 0u : m_L.m_Stride1 * 4; }

		// Through the kernel table (the kernel itself, no selector checks).
		void RunKernel()
		{
			const MO::FnOp2Stream fn = MO::_FnMathOpLookup[std::size_t(m_L.m_Op) * 4 + (m_L.m_N - 1)];
			ASSERT_NE(fn, nullptr) << m_L.Label();
			fn(m_Dst.Data(), m_L.m_DstStride * 4, m_L.m_Count, m_Src0.Data(), m_L.m_Stride0 * 4, Src1Ptr(), Stride1Bytes());
		}

		// Through the float selector.
		void RunSelector()
		{
			const EOp op = static_cast<EOp>(m_L.m_Op);
			void *dst = m_Dst.Data();
			const u32 ds = m_L.m_DstStride * 4, c = m_L.m_Count, s0 = m_L.m_Stride0 * 4, s1 = Stride1Bytes();
			const void *p0 = m_Src0.Data();
			const void *p1 = Src1Ptr();
			switch (m_L.m_N)
			{
			case 1: MO::ExecOperatorFloat<1>(op, dst, ds, c, p0, s0, p1, s1); break;
			case 2: MO::ExecOperatorFloat<2>(op, dst, ds, c, p0, s0, p1, s1); break;
			case 3: MO::ExecOperatorFloat<3>(op, dst, ds, c, p0, s0, p1, s1); break;
			case 4: MO::ExecOperatorFloat<4>(op, dst, ds, c, p0, s0, p1, s1); break;
			default: FAIL() << "bad N";
			}
		}

		// Component k of element i of each source.
		u32 A(u32 i, u32 k) const { return m_Src0[std::size_t(i) * m_L.m_Stride0 + k]; }
		u32 B(u32 i, u32 k) const { return m_L.m_Unary ? 0u : m_Src1[std::size_t(i) * m_L.m_Stride1 + k]; }

		bool ReciprocalModulo() const { return m_L.m_Op == SOp_MathOp::Op_Mod && m_L.m_Stride1 == 0 && m_L.m_Stride0 != 0; }

		// Every destination component equals the model (or its accepted alternative), every
		// other destination word (gaps of a strided destination, padding) keeps its guard,
		// and the sources are unchanged.
		void ExpectModel(CChecker &checker, const std::string &context = std::string()) const
		{
			const std::string label = m_L.Label() + (context.empty() ? "" : " [" + context + "]");
			std::vector<bool> written(m_Dst.Total(), false);
			const EOp op = static_cast<EOp>(m_L.m_Op);
			for (u32 i = 0; i < m_L.m_Count; ++i)
				for (u32 k = 0; k < m_L.m_N; ++k)
				{
					const std::size_t idx = std::size_t(i) * m_L.m_DstStride + k;
					written[idx] = true;
					const u32 a = A(i, k), b = B(i, k);
					const u32 expected = ReciprocalModulo() ? ModelModByReciprocal(a, b) : OxTest::ModelFloat(op, a, b);
					const u32 alternative = ReciprocalModulo() ? expected : OxTest::ModelFloatAlternative(op, a, b);
					const u32 got = m_Dst[idx];
					if (got != expected && got != alternative)
						checker.Mismatch(label + ": element " + std::to_string(i) + " component " + std::to_string(k) + ": a=" + Hex(a) +
										 " b=" + Hex(b) + " got " + Hex(got) + " expected " + Hex(expected) +
										 (alternative != expected ? " or " + Hex(alternative) : std::string()));
				}
			for (std::size_t idx = 0; idx < m_Dst.Total(); ++idx)
				if (!written[idx] && m_Dst[idx] != m_Dst.Initial(idx))
				{
					checker.Mismatch(label + ": destination word " + std::to_string(idx) + " (not a result word; " + std::to_string(std::size_t(m_L.m_Count) * m_L.m_N) +
									 " result floats) was written: " + Hex(m_Dst[idx]));
					break;
				}
			ExpectSourcesUnchanged(checker, label);
		}

		// Nothing at all was written.
		void ExpectNothingWritten(CChecker &checker, const std::string &context = std::string()) const
		{
			const std::string label = m_L.Label() + (context.empty() ? "" : " [" + context + "]");
			const std::size_t changed = m_Dst.FirstChanged();
			if (changed != m_Dst.Total())
				checker.Mismatch(label + ": destination word " + std::to_string(changed) + " was written (" + Hex(m_Dst[changed]) + ")");
			ExpectSourcesUnchanged(checker, label);
		}

		void ExpectSourcesUnchanged(CChecker &checker, const std::string &label) const
		{
			if (m_Src0.FirstChanged() != m_Src0.Total())
				checker.Mismatch(label + ": source 0 was modified");
			if (m_Src1.FirstChanged() != m_Src1.Total())
				checker.Mismatch(label + ": source 1 was modified");
		}

	private:
		SLayout m_L;
		CWords m_Dst;
		CWords m_Src0;
		CWords m_Src1;
	};

	std::string FirstReport(const CAssertCapture &capture)
	{
		const auto reports = capture.Reports();
		if (reports.empty())
			return "(none)";
		return "'" + reports[0].m_Expression + "' / '" + reports[0].m_Message + "' at line " + std::to_string(reports[0].m_Line);
	}

	void ExpectNoReports(CAssertCapture &capture, CChecker &checker, const std::string &label)
	{
		if (capture.Count() != 0)
			checker.Mismatch(label + ": unexpected assertion report(s), first: " + FirstReport(capture));
		capture.Clear();
	}

	u32 SlowHazards() { return Profiler::CHazards::CurrentThreadHazards().Get(Profiler::CHazards::Hazard_SlowStrides); }

	// Sets every element of a source (one element for a constant) to the given components,
	// repeated as needed.
	void SetAll(CWords &words, u32 stride, u32 n, u32 count, const std::vector<float> &components)
	{
		const u32 elements = stride == 0 ? 1 : count;
		for (u32 i = 0; i < elements; ++i)
			for (u32 k = 0; k < n; ++k)
				words[std::size_t(i) * stride + k] = FloatBits(components[k % components.size()]);
		words.Snapshot();
	}
}

//====================================================================================
// The kernel table and the selector

template <int N>
static void ExpectTableRowsForDimension()
{
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
		EXPECT_TRUE(t[std::size_t(op) * 4 + d] == nullptr) << OpName(op) << " N=" << N;
	EXPECT_TRUE(t[SOp_MathOp::Op_Cmp_Lower * 4 + d] == &Impl::template Op2StreamImpl<MO::Op2_LT>) << N;
	EXPECT_TRUE(t[SOp_MathOp::Op_Cmp_LowerOrEqual * 4 + d] == &Impl::template Op2StreamImpl<MO::Op2_LE>) << N;
	EXPECT_TRUE(t[SOp_MathOp::Op_Cmp_Greater * 4 + d] == &Impl::template Op2StreamImpl<MO::Op2_GT>) << N;
	EXPECT_TRUE(t[SOp_MathOp::Op_Cmp_GreaterOrEqual * 4 + d] == &Impl::template Op2StreamImpl<MO::Op2_GE>) << N;
	EXPECT_TRUE(t[SOp_MathOp::Op_Cmp_Equal * 4 + d] == &Impl::template Op2StreamImpl<MO::Op2_EQ>) << N;
	EXPECT_TRUE(t[SOp_MathOp::Op_Cmp_NotEqual * 4 + d] == &Impl::template Op2StreamImpl<MO::Op2_NE>) << N;
}

TEST(FloatKernels, TableHas76EntriesIndexedByOperatorAndDimension)
{
	EXPECT_EQ(MO::_FnMathOpLookup.size(), 76u);
	EXPECT_EQ(SOp_MathOp::__MaxOps * 4, 76);
	EXPECT_EQ(int(MO::Op2_Add), 0);
	EXPECT_EQ(int(MO::Op2_Sub), 1);
	EXPECT_EQ(int(MO::Op2_Mul), 2);
	EXPECT_EQ(int(MO::Op2_Div), 3);
	EXPECT_EQ(int(MO::Op2_LT), 4);
	EXPECT_EQ(int(MO::Op2_LE), 5);
	EXPECT_EQ(int(MO::Op2_GT), 6);
	EXPECT_EQ(int(MO::Op2_GE), 7);
	EXPECT_EQ(int(MO::Op2_EQ), 8);
	EXPECT_EQ(int(MO::Op2_NE), 9);
	ExpectTableRowsForDimension<1>();
	ExpectTableRowsForDimension<2>();
	ExpectTableRowsForDimension<3>();
	ExpectTableRowsForDimension<4>();
	u32 nulls = 0;
	for (const MO::FnOp2Stream fn : MO::_FnMathOpLookup)
		nulls += fn == nullptr ? 1 : 0;
	EXPECT_EQ(nulls, 28u);
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
// Every operator x N x count x operand kind, against the model

TEST(FloatKernels, EveryOperatorEveryDimensionEveryCountAgainstTheModel)
{
	const u32 seed = kSeed ^ 0x01u;
	PrintSeed("EveryOperatorEveryDimensionEveryCountAgainstTheModel", seed);
	CValues values(seed);
	CChecker checker;
	CAssertCapture capture;
	const EOperands kinds[] = {EOperands::Packed, EOperands::Src0Const, EOperands::Src1Const};
	for (EOp op : kFloatOps)
		for (u32 n = 1; n <= 4; ++n)
			for (u32 count : SweepCounts())
				for (EOperands kind : kinds)
				{
					if (op == SOp_MathOp::Op_Neg && kind != EOperands::Packed)
						continue;	// negation has one operand; a constant one is refused (own test)
					CRun run(SLayout::Make(op, n, count, kind), values);
					const u32 hazards = SlowHazards();
					run.RunKernel();
					const std::string label = run.Layout().Label();
					run.ExpectModel(checker, OperandsName(kind));
					ExpectNoReports(capture, checker, label);
					if (SlowHazards() != hazards)
						checker.Mismatch(label + ": a fast-path case counted a slow-stride hazard");
				}
	EXPECT_EQ(checker.Count(), 0u);
}

TEST(FloatKernels, SelectorRunsTheKernelOfEveryFloatOperator)
{
	const u32 seed = kSeed ^ 0x02u;
	PrintSeed("SelectorRunsTheKernelOfEveryFloatOperator", seed);
	CValues values(seed);
	CChecker checker;
	CAssertCapture capture;
	const EOperands kinds[] = {EOperands::Packed, EOperands::Src0Const, EOperands::Src1Const};
	const u32 counts[] = {0, 1, 2, 3, 4, 5, 7, 8, 13, 33};
	for (EOp op : kFloatOps)
		for (u32 n = 1; n <= 4; ++n)
			for (u32 count : counts)
				for (EOperands kind : kinds)
				{
					if (op == SOp_MathOp::Op_Neg && kind != EOperands::Packed)
						continue;
					CRun run(SLayout::Make(op, n, count, kind), values);
					run.RunSelector();
					run.ExpectModel(checker, std::string("selector ") + OperandsName(kind));
					ExpectNoReports(capture, checker, run.Layout().Label());
				}
	EXPECT_EQ(checker.Count(), 0u);
}

TEST(FloatKernels, EdgeValuePairsEveryOperator)
{
	// Every (a, b) pair of edge values (NaNs, signed zeros, infinities, denormals, 2^31
	// neighbours) as a packed stream, and every edge value as a constant against a stream
	// of all of them, on either side.
	CChecker checker;
	CAssertCapture capture;
	CValues unused(0);
	const u32 s = u32(std::size(kFloatEdgeValues));
	for (EOp op : kFloatOps)
		for (u32 n = 1; n <= 4; ++n)
		{
			{
				const u32 count = (s * s + n - 1) / n;
				CRun run(SLayout::Make(op, n, count, EOperands::Packed), unused);
				for (u32 p = 0; p < count * n; ++p)
				{
					run.Src0()[p] = kFloatEdgeValues[(p / s) % s];
					if (op != SOp_MathOp::Op_Neg)
						run.Src1()[p] = kFloatEdgeValues[p % s];
				}
				run.Resnapshot();
				run.RunKernel();
				run.ExpectModel(checker, "edge pairs");
				ExpectNoReports(capture, checker, run.Layout().Label());
			}
			if (op == SOp_MathOp::Op_Neg)
				continue;
			for (EOperands kind : {EOperands::Src0Const, EOperands::Src1Const})
				for (u32 c = 0; c < s; ++c)
				{
					const u32 count = (s + n - 1) / n + 1;
					CRun run(SLayout::Make(op, n, count, kind), unused);
					CWords &constant = kind == EOperands::Src0Const ? run.Src0() : run.Src1();
					CWords &stream = kind == EOperands::Src0Const ? run.Src1() : run.Src0();
					for (u32 k = 0; k < n; ++k)
						constant[k] = kFloatEdgeValues[(c + 7 * k) % s];
					for (u32 p = 0; p < count * n; ++p)
						stream[p] = kFloatEdgeValues[p % s];
					run.Resnapshot();
					run.RunKernel();
					run.ExpectModel(checker, std::string("edge constant ") + OperandsName(kind));
					ExpectNoReports(capture, checker, run.Layout().Label());
				}
		}
	EXPECT_EQ(checker.Count(), 0u);
}

//====================================================================================
// Edge cases of the arithmetic and comparison kernels

TEST(FloatKernels, CountZeroWritesNothingOnAnyPath)
{
	CValues values = SeededValues(kSeed ^ 0x03u);
	CChecker checker;
	CAssertCapture capture;
	for (EOp op : kFloatOps)
		for (u32 n = 1; n <= 4; ++n)
		{
			for (EOperands kind : {EOperands::Packed, EOperands::Src0Const, EOperands::Src1Const})
			{
				if (op == SOp_MathOp::Op_Neg && kind != EOperands::Packed)
					continue;
				CRun run(SLayout::Make(op, n, 0, kind), values);
				run.RunKernel();
				run.ExpectNothingWritten(checker, OperandsName(kind));
				ExpectNoReports(capture, checker, run.Layout().Label());
			}
			if (op == SOp_MathOp::Op_Mod || op == SOp_MathOp::Op_Neg)
				continue;
			// Slow path: a strided destination, and two constants.
			CRun strided(SLayout::Make(op, n, 0, EOperands::Packed, 2 * n), values);
			strided.RunKernel();
			strided.ExpectNothingWritten(checker, "slow path, strided destination");
			ExpectNoReports(capture, checker, strided.Layout().Label());
			CRun constants(SLayout::Make(op, n, 0, EOperands::BothConst), values);
			constants.RunKernel();
			constants.ExpectNothingWritten(checker, "slow path, two constants");
			ExpectNoReports(capture, checker, constants.Layout().Label());
		}
	EXPECT_EQ(checker.Count(), 0u);
}

TEST(FloatKernels, FourComponentsEveryCountEndsExactlyOnTheEnd)
{
	// N = 4: one element per vector, no partial store, and the closing
	// "dstStream == dstEnd" check never fires.
	CValues values = SeededValues(kSeed ^ 0x04u);
	CChecker checker;
	CAssertCapture capture;
	for (EOp op : kFloatOps)
		for (u32 count = 0; count <= 40; ++count)
			for (EOperands kind : {EOperands::Packed, EOperands::Src0Const, EOperands::Src1Const})
			{
				if (op == SOp_MathOp::Op_Neg && kind != EOperands::Packed)
					continue;
				CRun run(SLayout::Make(op, 4, count, kind), values);
				run.RunKernel();
				run.ExpectModel(checker, OperandsName(kind));
				if (capture.Count("dstStream == dstEnd") != 0 || capture.Count("dstStream == dstStreamStop") != 0)
					checker.Mismatch(run.Layout().Label() + ": the end check fired");
				ExpectNoReports(capture, checker, run.Layout().Label());
			}
	EXPECT_EQ(checker.Count(), 0u);
}

TEST(FloatKernels, OneComponentCountFiveStoresExactlyOneTailFloat)
{
	CValues values = SeededValues(kSeed ^ 0x05u);
	CAssertCapture capture;
	for (EOperands kind : {EOperands::Packed, EOperands::Src0Const, EOperands::Src1Const})
	{
		CRun run(SLayout::Make(SOp_MathOp::Op_Add, 1, 5, kind), values);
		SetAll(run.Src0(), run.Layout().m_Stride0, 1, 5, {1.0f});
		SetAll(run.Src1(), run.Layout().m_Stride1, 1, 5, {2.0f});
		run.RunKernel();
		for (u32 i = 0; i < 5; ++i)
			EXPECT_EQ(run.Dst()[i], FloatBits(3.0f)) << OperandsName(kind) << " float " << i;
		// Float 4 is the tail's only float: float 5 on is untouched.
		for (std::size_t i = 5; i < run.Dst().Total(); ++i)
			EXPECT_EQ(run.Dst()[i], run.Dst().Initial(i)) << OperandsName(kind) << " word " << i;
		EXPECT_EQ(capture.Count(), 0u) << FirstReport(capture);
	}
}

TEST(FloatKernels, WholeVectorCountsLeaveNoTail)
{
	// count * E a multiple of 16 bytes: every float is stored by a full vector and nothing
	// after the stream moves.
	CValues values = SeededValues(kSeed ^ 0x06u);
	CChecker checker;
	CAssertCapture capture;
	const std::pair<u32, u32> cases[] = {{1, 4}, {1, 8}, {1, 64}, {2, 2}, {2, 4}, {2, 30}, {3, 4}, {3, 8}, {3, 12}, {4, 1}, {4, 3}};
	for (EOp op : kStreamOps)
		for (const auto &c : cases)
			for (EOperands kind : {EOperands::Packed, EOperands::Src0Const, EOperands::Src1Const})
			{
				CRun run(SLayout::Make(op, c.first, c.second, kind), values);
				run.RunKernel();
				run.ExpectModel(checker, OperandsName(kind));
				ExpectNoReports(capture, checker, run.Layout().Label());
			}
	EXPECT_EQ(checker.Count(), 0u);
}

TEST(FloatKernels, ThreeComponentsPackedCountOneStoresThreeFloats)
{
	CValues values = SeededValues(kSeed ^ 0x07u);
	CAssertCapture capture;
	CRun run(SLayout::Make(SOp_MathOp::Op_Mul, 3, 1, EOperands::Packed), values);
	SetAll(run.Src0(), 3, 3, 1, {2.0f, 3.0f, 4.0f});
	SetAll(run.Src1(), 3, 3, 1, {5.0f, 6.0f, 7.0f});
	run.RunKernel();
	EXPECT_EQ(run.Dst()[0], FloatBits(10.0f));
	EXPECT_EQ(run.Dst()[1], FloatBits(18.0f));
	EXPECT_EQ(run.Dst()[2], FloatBits(28.0f));
	for (std::size_t i = 3; i < run.Dst().Total(); ++i)
		EXPECT_EQ(run.Dst()[i], run.Dst().Initial(i)) << "word " << i;
	EXPECT_EQ(capture.Count(), 0u) << FirstReport(capture);
}

TEST(FloatKernels, ThreeComponentConstantTailsOf3_6_9AndOneIterationAt4)
{
	// count 1, 2, 3: tails of 3, 6, 9 floats; count 4: one 48-byte iteration, no tail;
	// 5 to 8 the same after one iteration. Each component meets its own constant
	// component, on either side.
	CChecker checker;
	CAssertCapture capture;
	CValues unused(0);
	const float cst[3] = {100.0f, 200.0f, 400.0f};
	for (u32 count = 1; count <= 8; ++count)
		for (EOperands kind : {EOperands::Src0Const, EOperands::Src1Const})
			for (EOp op : {SOp_MathOp::Op_Sub, SOp_MathOp::Op_Add, SOp_MathOp::Op_Cmp_Lower})
			{
				CRun run(SLayout::Make(op, 3, count, kind), unused);
				CWords &constant = kind == EOperands::Src0Const ? run.Src0() : run.Src1();
				CWords &stream = kind == EOperands::Src0Const ? run.Src1() : run.Src0();
				for (u32 k = 0; k < 3; ++k)
					constant[k] = FloatBits(cst[k]);
				for (u32 p = 0; p < count * 3; ++p)
					stream[p] = FloatBits(float(p + 1) * (p % 2 == 0 ? 1.0f : 150.0f));
				run.Resnapshot();
				run.RunKernel();
				for (u32 p = 0; p < count * 3; ++p)
				{
					const float v = BitsFloat(stream[p]);
					const float c = cst[p % 3];
					const float a = kind == EOperands::Src0Const ? c : v;
					const float b = kind == EOperands::Src0Const ? v : c;
					const u32 expected = op == SOp_MathOp::Op_Sub ? FloatBits(a - b) : op == SOp_MathOp::Op_Add ? FloatBits(a + b) : (a < b ? 0xFFFFFFFFu : 0u);
					if (run.Dst()[p] != expected)
						checker.Mismatch(run.Layout().Label() + " " + OperandsName(kind) + ": float " + std::to_string(p) + " got " + Hex(run.Dst()[p]) + " expected " + Hex(expected));
				}
				run.ExpectModel(checker, OperandsName(kind));
				ExpectNoReports(capture, checker, run.Layout().Label());
			}
	EXPECT_EQ(checker.Count(), 0u);
}

TEST(FloatKernels, ThreeComponentConstantNeverReadsOrWritesPastTheStream)
{
	// The varying stream ends right before an inaccessible page, and so does the
	// destination: a read or write of any byte past either faults. The streams start
	// 16-byte aligned when count is a multiple of 4; with fewer elements than one
	// iteration only scalar accesses happen, so an unaligned start is fine there.
	CGuardPage srcPage, dstPage;
	if (!srcPage.Valid() || !dstPage.Valid())
		GTEST_SKIP() << "no guard page";
	const u32 seed = kSeed ^ 0x08u;
	PrintSeed("ThreeComponentConstantNeverReadsOrWritesPastTheStream", seed);
	CValues values(seed);
	CChecker checker;
	CAssertCapture capture;
	CWords constant(3, 0x4000u);
	std::vector<EOp> ops(std::begin(kStreamOps), std::end(kStreamOps));
	ops.push_back(SOp_MathOp::Op_Mod);
	for (EOp op : ops)
		for (EOperands kind : {EOperands::Src0Const, EOperands::Src1Const})
		{
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
					dst[p] = GuardWord(u32(p));
				}
				for (u32 k = 0; k < 3; ++k)
					constant[k] = values.Next();
				const u32 *src0 = kind == EOperands::Src0Const ? constant.Data() : stream;
				const u32 *src1 = kind == EOperands::Src0Const ? stream : constant.Data();
				const u32 stride0 = kind == EOperands::Src0Const ? 0 : 12;
				const u32 stride1 = kind == EOperands::Src0Const ? 12 : 0;
				MO::_FnMathOpLookup[std::size_t(op) * 4 + 2](dst, 12, count, src0, stride0, src1, stride1);
				const std::string label = OpName(op) + " N=3 count=" + std::to_string(count) + " " + OperandsName(kind) + " at a page end";
				const bool reciprocal = op == SOp_MathOp::Op_Mod && kind == EOperands::Src1Const;
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
		}
	EXPECT_EQ(checker.Count(), 0u);
}

TEST(FloatKernels, SubAndDivWithAConstantSource0AreConstantOpVarying)
{
	CAssertCapture capture;
	CValues unused(0);
	const float cst[4] = {10.0f, -20.0f, 1.0f, 7.0f};
	const float vs[] = {1.0f, 2.0f, 4.0f, 3.0f, -5.0f, 0.5f, 8.0f, 10.0f, 6.0f, 9.0f, 11.0f, -1.0f, 1.0f, 2.0f, 3.0f, 4.0f, 5.0f, 6.0f, 7.0f, 8.0f};
	for (u32 n = 1; n <= 4; ++n)
		for (u32 count : {1u, 2u, 3u, 4u, 5u})
			for (EOp op : {SOp_MathOp::Op_Sub, SOp_MathOp::Op_Div})
			{
				CRun run(SLayout::Make(op, n, count, EOperands::Src0Const), unused);
				for (u32 k = 0; k < n; ++k)
					run.Src0()[k] = FloatBits(cst[k]);
				for (u32 p = 0; p < count * n; ++p)
					run.Src1()[p] = FloatBits(vs[p % std::size(vs)]);
				run.Resnapshot();
				run.RunKernel();
				for (u32 p = 0; p < count * n; ++p)
				{
					const float c = cst[p % n], v = vs[p % std::size(vs)];
					const float expected = op == SOp_MathOp::Op_Sub ? c - v : c / v;
					EXPECT_EQ(run.Dst()[p], FloatBits(expected)) << run.Layout().Label() << " float " << p << ": expected " << expected;
				}
				CChecker checker;
				run.ExpectModel(checker);
				EXPECT_EQ(checker.Count(), 0u);
			}
	EXPECT_EQ(capture.Count(), 0u) << FirstReport(capture);
}

TEST(FloatKernels, ComparingNaNIsFalseExceptNotEqual)
{
	// LT, LE, GT, GE and EQ give 0 with a NaN on either side (or both); NE gives all ones.
	// On every path: packed, either constant, two constants (slow path) and a strided
	// destination (slow path).
	CChecker checker;
	CAssertCapture capture;
	CValues unused(0);
	const u32 nans[] = {0x7FC00000u, 0xFFC00000u, 0x7FC12345u, 0x7F800001u, 0xFFFFFFFFu};
	const u32 others[] = {0x3F800000u, 0x00000000u, 0x80000000u, 0x7F800000u, 0xFF800000u, 0x00000001u};
	for (EOp op : kCompareOps)
	{
		const u32 expected = op == SOp_MathOp::Op_Cmp_NotEqual ? 0xFFFFFFFFu : 0u;
		for (u32 n = 1; n <= 4; ++n)
			for (EOperands kind : {EOperands::Packed, EOperands::Src0Const, EOperands::Src1Const, EOperands::BothConst})
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
									checker.Mismatch(l.Label() + " " + OperandsName(kind) + " NaN side " + std::to_string(side) + ": got " + Hex(got) + " expected " + Hex(expected));
							}
						run.ExpectModel(checker, OperandsName(kind));
						capture.Clear();
					}
	}
	EXPECT_EQ(checker.Count(), 0u);
}

TEST(FloatKernels, ComparisonsStoreRawLaneMasks)
{
	// True is all 32 bits set (not 1.0, not 1), false is 0.
	struct SCase
	{
		float a, b;
		u32 lt, le, gt, ge, eq, ne;
	};
	const u32 T = 0xFFFFFFFFu, F = 0u;
	const SCase cases[] = {
		{1.0f, 2.0f, T, T, F, F, F, T},
		{2.0f, 1.0f, F, F, T, T, F, T},
		{2.0f, 2.0f, F, T, F, T, T, F},
		{-0.0f, 0.0f, F, T, F, T, T, F},
		{-INFINITY, INFINITY, T, T, F, F, F, T},
		{INFINITY, INFINITY, F, T, F, T, T, F},
		{1.0e-45f, 0.0f, F, F, T, T, F, T},	// denormal vs zero
	};
	CAssertCapture capture;
	CValues unused(0);
	for (const SCase &c : cases)
		for (u32 n = 1; n <= 4; ++n)
			for (EOperands kind : {EOperands::Packed, EOperands::Src0Const, EOperands::Src1Const, EOperands::BothConst})
			{
				const std::pair<EOp, u32> expectations[] = {
					{SOp_MathOp::Op_Cmp_Lower, c.lt}, {SOp_MathOp::Op_Cmp_LowerOrEqual, c.le}, {SOp_MathOp::Op_Cmp_Greater, c.gt},
					{SOp_MathOp::Op_Cmp_GreaterOrEqual, c.ge}, {SOp_MathOp::Op_Cmp_Equal, c.eq}, {SOp_MathOp::Op_Cmp_NotEqual, c.ne}};
				for (const auto &e : expectations)
				{
					const u32 count = 5;
					CRun run(SLayout::Make(e.first, n, count, kind), unused);
					SetAll(run.Src0(), run.Layout().m_Stride0, n, count, {c.a});
					SetAll(run.Src1(), run.Layout().m_Stride1, n, count, {c.b});
					run.RunKernel();
					for (u32 p = 0; p < count * n; ++p)
						EXPECT_EQ(run.Dst()[p], e.second) << run.Layout().Label() << " " << OperandsName(kind) << " a=" << c.a << " b=" << c.b << " float " << p;
				}
			}
	EXPECT_EQ(capture.Count(), 0u) << FirstReport(capture);
}

TEST(FloatKernels, BitwiseOperatorOnAFloatTypeWritesNothing)
{
	// The seven bitwise operators and values past the set (19, 100, 255) have no float
	// kernel: the invalid-operation message, nothing written, the table never read past
	// its 76 entries (a read there would pick up a random pointer and call it).
	CValues values = SeededValues(kSeed ^ 0x09u);
	CChecker checker;
	CAssertCapture capture;
	for (s32 op : kNoKernelOps)
		for (u32 n = 1; n <= 4; ++n)
			for (u32 count : SweepCounts())
				for (EOperands kind : {EOperands::Packed, EOperands::Src0Const, EOperands::Src1Const})
				{
					SLayout layout = SLayout::Make(op, n, count, kind);
					CRun run(layout, values);
					const u32 hazards = SlowHazards();
					run.RunSelector();
					run.ExpectNothingWritten(checker, OperandsName(kind));
					const auto reports = capture.Reports();
					if (reports.size() != 1 || reports[0].m_Expression != "fnPtr != null" || reports[0].m_Message != kInvalidFloatOpMessage)
						checker.Mismatch(layout.Label() + ": expected exactly the invalid-operation report, got " + std::to_string(reports.size()) + ", first " + FirstReport(capture));
					if (SlowHazards() != hazards)
						checker.Mismatch(layout.Label() + ": counted a hazard");
					capture.Clear();
				}
	EXPECT_EQ(checker.Count(), 0u);
}

TEST(FloatKernels, OperatorValuesPastTheSetFindNoKernel)
{
	// Same as a bitwise operator, including for a one-operand call.
	CChecker checker;
	CAssertCapture capture;
	CValues values = SeededValues(kSeed ^ 0x0Au);
	for (s32 op : {19, 20, 63, 100, 127, 128, 200, 254, 255})
		for (u32 n = 1; n <= 4; ++n)
		{
			SLayout layout = SLayout::Make(op, n, 9, EOperands::Packed);
			layout.m_Unary = true;	// source 1 null
			CRun run(layout, values);
			run.RunSelector();
			run.ExpectNothingWritten(checker);
			EXPECT_TRUE(capture.Has("fnPtr != null", kInvalidFloatOpMessage)) << layout.Label();
			EXPECT_EQ(capture.Count(), 1u) << layout.Label();
			capture.Clear();
		}
	EXPECT_EQ(checker.Count(), 0u);
}

TEST(FloatKernels, NonPackedNonZeroSourceStrideOnTheFastPathIsReadAsAConstant)
{
	// The fast path needs a packed destination and one packed source; the other source's
	// stride, whatever its value, makes it the constant (element 0 only is read).
	CChecker checker;
	CAssertCapture capture;
	CValues values = SeededValues(kSeed ^ 0x0Bu);
	for (u32 n = 1; n <= 4; ++n)
		for (int side = 0; side < 2; ++side)
		{
			const u32 count = 9;
			SLayout l = SLayout::Make(SOp_MathOp::Op_Sub, n, count, EOperands::Packed);
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

//====================================================================================
// The slow path

TEST(FloatKernels, BadDestinationStrideTakesTheSlowPathAndMatchesTheModel)
{
	const u32 seed = kSeed ^ 0x0Cu;
	PrintSeed("BadDestinationStrideTakesTheSlowPathAndMatchesTheModel", seed);
	CValues values(seed);
	CChecker checker;
	CAssertCapture capture;
	std::vector<u32> counts;
	for (u32 c = 1; c <= 40; ++c)
		counts.push_back(c);
	counts.push_back(1000);
	for (EOp op : kStreamOps)
		for (u32 n = 1; n <= 4; ++n)
			for (u32 count : counts)
			{
				// A strided destination with packed, constant or strided sources.
				struct SStrides
				{
					u32 dst, s0, s1;
				};
				const SStrides strides[] = {
					{2 * n, n, n}, {n + 1, 0, n}, {3 * n, n, 0}, {2 * n, 0, 0}, {n + 3, 2 * n, n + 1}};
				for (const SStrides &s : strides)
				{
					SLayout l = SLayout::Make(op, n, count, EOperands::Packed, s.dst);
					l.m_Stride0 = s.s0;
					l.m_Stride1 = s.s1;
					CRun run(l, values);
					const u32 hazards = SlowHazards();
					run.RunKernel();
					run.ExpectModel(checker, "slow path");
					if (SlowHazards() != hazards + 1)
						checker.Mismatch(l.Label() + ": slow path counted " + std::to_string(SlowHazards() - hazards) + " hazards, expected 1");
					ExpectNoReports(capture, checker, l.Label());
				}
			}
	EXPECT_EQ(checker.Count(), 0u);
}

TEST(FloatKernels, TwoConstantSourcesTakeTheSlowPathAndMatchTheModel)
{
	const u32 seed = kSeed ^ 0x0Du;
	PrintSeed("TwoConstantSourcesTakeTheSlowPathAndMatchTheModel", seed);
	CValues values(seed);
	CChecker checker;
	CAssertCapture capture;
	for (EOp op : kStreamOps)
		for (u32 n = 1; n <= 4; ++n)
			for (u32 count : SweepCounts())
			{
				CRun run(SLayout::Make(op, n, count, EOperands::BothConst), values);
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
	CValues values = SeededValues(kSeed ^ 0x0Eu);
	registry->Clear();	// a new run
	g_SinkLines.clear();
	const CLogUniqueCollection::FnSink previous = registry->SetSink(&RecordingSink);

	// Fast paths log nothing.
	for (EOp op : kFloatOps)
		for (u32 n = 1; n <= 4; ++n)
		{
			CRun run(SLayout::Make(op, n, 6, EOperands::Packed), values);
			run.RunKernel();
		}
	EXPECT_EQ(registry->Count(), 0u);
	EXPECT_TRUE(g_SinkLines.empty());

	// Many slow-path calls, every operator and dimension, both causes.
	u32 calls = 0;
	for (int round = 0; round < 5; ++round)
		for (EOp op : kStreamOps)
			for (u32 n = 1; n <= 4; ++n)
			{
				CRun strided(SLayout::Make(op, n, 3, EOperands::Packed, n + 1), values);
				strided.RunKernel();
				CRun constants(SLayout::Make(op, n, 3, EOperands::BothConst), values);
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
	CValues values = SeededValues(kSeed ^ 0x0Fu);
	Profiler::CHazards &hazards = Profiler::CHazards::CurrentThreadHazards();
	for (u32 n = 1; n <= 4; ++n)
		for (u32 times = 1; times <= 4; ++times)
		{
			const u32 before = hazards.Get(Profiler::CHazards::Hazard_SlowStrides);
			const u32 secondBefore = hazards.m_Counters[1];
			const u32 genericBefore = hazards.Get(Profiler::CHazards::Hazard_Generic);
			for (u32 t = 0; t < times; ++t)
			{
				CRun run(SLayout::Make(SOp_MathOp::Op_Add, n, 2 + t, t % 2 == 0 ? EOperands::BothConst : EOperands::Packed, t % 2 == 0 ? 0 : 2 * n), values);
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
		CRun mod(SLayout::Make(SOp_MathOp::Op_Mod, n, 5, EOperands::Src1Const), values);
		mod.RunKernel();
		CRun neg(SLayout::Make(SOp_MathOp::Op_Neg, n, 5, EOperands::Packed), values);
		neg.RunKernel();
	}
	EXPECT_EQ(hazards.Get(Profiler::CHazards::Hazard_SlowStrides), before);

	// Another thread's slow path counts on that thread.
	u32 otherBefore = 0, otherAfter = 0;
	std::thread other([&]() {
		CValues threadValues = SeededValues(kSeed ^ 0x10u);
		otherBefore = Profiler::CHazards::CurrentThreadHazards().Get(Profiler::CHazards::Hazard_SlowStrides);
		CRun run(SLayout::Make(SOp_MathOp::Op_Mul, 2, 4, EOperands::BothConst), threadValues);
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
	CValues values = SeededValues(kSeed ^ 0x11u);
	for (u32 n = 1; n <= 4; ++n)
	{
		// Count 0 on the slow path: nothing is dereferenced after the report.
		SLayout l = SLayout::Make(SOp_MathOp::Op_Add, n, 0, EOperands::Packed, 2 * n);
		l.m_Unary = true;
		CRun run(l, values);
		MO::_FnMathOpLookup[SOp_MathOp::Op_Add * 4 + (n - 1)](run.Dst().Data(), 8 * n, 0, run.Src0().Data(), 4 * n, nullptr, 4 * n);
		EXPECT_EQ(capture.Count("srcStream0 != null && srcStream1 != null"), 1u) << n;
		EXPECT_EQ(run.Dst().FirstChanged(), run.Dst().Total());
		capture.Clear();
	}
}

//====================================================================================
// The selector's checks

TEST(FloatKernels, SelectorReportsUnalignedPointersAndStillRuns)
{
	// 16-byte aligned but not 32-byte aligned: each pointer reported once with its address,
	// the kernel then runs as usual.
	const u32 seed = kSeed ^ 0x12u;
	PrintSeed("SelectorReportsUnalignedPointersAndStillRuns", seed);
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
	CValues values = SeededValues(kSeed ^ 0x13u);
	for (u32 n = 1; n <= 4; ++n)
	{
		CRun run(SLayout::Make(SOp_MathOp::Op_Neg, n, 11, EOperands::Packed), values);
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
	CValues values = SeededValues(kSeed ^ 0x14u);
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

//====================================================================================
// Modulo

namespace
{
	// Runs a mod with every component of source 0 = a and of source 1 = b, on every path,
	// and checks every result float against 'expected'.
	void ExpectModOnEveryPath(float a, float b, u32 expected)
	{
		CAssertCapture capture;
		CValues unused(0);
		for (u32 n = 1; n <= 4; ++n)
			for (u32 count : {1u, 2u, 3u, 4u, 5u, 8u, 9u})
				for (EOperands kind : {EOperands::Packed, EOperands::Src0Const, EOperands::Src1Const, EOperands::BothConst})
				{
					CRun run(SLayout::Make(SOp_MathOp::Op_Mod, n, count, kind), unused);
					SetAll(run.Src0(), run.Layout().m_Stride0, n, count, {a});
					SetAll(run.Src1(), run.Layout().m_Stride1, n, count, {b});
					run.RunKernel();
					for (u32 p = 0; p < count * n; ++p)
						EXPECT_EQ(run.Dst()[p], expected) << a << " mod " << b << " " << run.Layout().Label() << " " << OperandsName(kind) << " float " << p;
					for (std::size_t w = std::size_t(count) * n; w < run.Dst().Total(); ++w)
						EXPECT_EQ(run.Dst()[w], run.Dst().Initial(w)) << run.Layout().Label() << " word " << w;
					if (kind != EOperands::BothConst)
					{
						EXPECT_EQ(capture.Count(), 0u) << FirstReport(capture);
					}
					capture.Clear();
				}
	}
}

TEST(FloatKernels, ModFiveAndAHalfByTwoIsOneAndAHalf) { ExpectModOnEveryPath(5.5f, 2.0f, FloatBits(1.5f)); }
TEST(FloatKernels, ModHasTheSignOfTheDividend) { ExpectModOnEveryPath(-5.5f, 2.0f, FloatBits(-1.5f)); }
TEST(FloatKernels, ModByANegativeDivisorKeepsTheSignOfTheDividend) { ExpectModOnEveryPath(5.5f, -2.0f, FloatBits(1.5f)); }
TEST(FloatKernels, ModWithAQuotientReaching2Pow31IsZero) { ExpectModOnEveryPath(1.0e10f, 2.0f, 0u); }

TEST(FloatKernels, ModByZeroIsZeroForEveryFiniteDividend)
{
	// The quotient is infinite (or NaN for 0 / 0): masked to 0, times the divisor 0.
	for (float a : {0.0f, 1.0f, -1.0f, 5.5f, -3.25f, 1.0e10f, 3.4e38f, 1.0e-45f, -1.0e-45f})
		ExpectModOnEveryPath(a, 0.0f, 0u);
}

TEST(FloatKernels, ModThreeComponentConstantDivisorCountFive)
{
	// 15 floats: one 12-float iteration, then a 3-float tail with the components x, y, z.
	// Powers of two make the reciprocal exact, so the values are known by hand.
	CAssertCapture capture;
	CValues unused(0);
	const u32 count = 5;
	CRun run(SLayout::Make(SOp_MathOp::Op_Mod, 3, count, EOperands::Src1Const), unused);
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
	CValues values = SeededValues(kSeed ^ 0x15u);
	CRun other(SLayout::Make(SOp_MathOp::Op_Mod, 3, count, EOperands::Src1Const), values);
	other.Src1()[0] = FloatBits(3.0f);
	other.Src1()[1] = FloatBits(-0.7f);
	other.Src1()[2] = FloatBits(10.0f);
	other.Resnapshot();
	other.RunKernel();
	other.ExpectModel(checker, "3, -0.7, 10");
	EXPECT_EQ(checker.Count(), 0u);

	// The same shape with a constant dividend (true division).
	CRun dividend(SLayout::Make(SOp_MathOp::Op_Mod, 3, count, EOperands::Src0Const), unused);
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
		CRun divisor(SLayout::Make(SOp_MathOp::Op_Mod, 2, count, EOperands::Src1Const), unused);
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

		CRun dividend(SLayout::Make(SOp_MathOp::Op_Mod, 2, count, EOperands::Src0Const), unused);
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
	PrintSeed("ModByAConstantDivisorIsAReciprocalMultiply", seed);
	std::mt19937 rng(seed);
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
		CRun run(SLayout::Make(SOp_MathOp::Op_Mod, n, count, EOperands::Src1Const), unused);
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
	PrintSeed("ModOfTwoConstantsIsReportedAndEvaluatesTheConstants", seed);
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
	CValues values = SeededValues(kSeed ^ 0x18u);
	CChecker checker;
	for (u32 n = 1; n <= 4; ++n)
		for (int side = 0; side < 2; ++side)
		{
			SLayout l = SLayout::Make(SOp_MathOp::Op_Mod, n, 7, EOperands::Packed);
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
	CValues values = SeededValues(kSeed ^ 0x19u);
	for (u32 n = 1; n <= 4; ++n)
	{
		const u32 count = 6;
		SLayout l = SLayout::Make(SOp_MathOp::Op_Mod, n, count, EOperands::Packed, 2 * n);
		// Sources and destination large enough for either reading of the bad stride.
		SLayout big = SLayout::Make(SOp_MathOp::Op_Mod, n, 2 * count, EOperands::Packed, n);
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
	CValues values = SeededValues(kSeed ^ 0x1Au);
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
			CRun run(SLayout::Make(SOp_MathOp::Op_Neg, n, count, EOperands::Packed), unused);
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
			CRun run(SLayout::Make(SOp_MathOp::Op_Neg, n, count, EOperands::Packed), unused);
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
	CValues values = SeededValues(kSeed ^ 0x1Bu);
	CChecker checker;
	for (u32 n = 1; n <= 4; ++n)
		for (u32 count : {1u, 4u, 7u})
			for (int form = 0; form < 3; ++form)	// constant source, strided destination, both
			{
				SLayout l = SLayout::Make(SOp_MathOp::Op_Neg, n, count, EOperands::Packed, form == 0 ? n : 2 * n);
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
	CValues values = SeededValues(kSeed ^ 0x1Cu);
	for (u32 n = 1; n <= 4; ++n)
	{
		SLayout l = SLayout::Make(SOp_MathOp::Op_Add, n, 5, EOperands::Packed);
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
