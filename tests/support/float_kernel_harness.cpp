#include "float_kernel_harness.h"

#include <cmath>
#include <cstdio>
#include <iterator>
#include <sstream>

namespace FloatKernelTest
{
	std::vector<u32> SweepCounts()
	{
		std::vector<u32> counts;
		for (u32 c = 0; c <= 40; ++c)
			counts.push_back(c);
		counts.push_back(1000);
		counts.push_back(4097);
		return counts;
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

	u32 CValues::Next()
	{
		const u32 pick = Uniform(100);
		if (pick < 25)
			return kFloatEdgeValues[Uniform(std::size(kFloatEdgeValues))];
		if (pick < 45)
			return u32(m_Rng());
		if (pick < 70)
			return FloatBits(float(s32(Uniform(41)) - 20));
		return FloatBits(m_Rng.UniformFloat(-1000.0f, 1000.0f));
	}

	u32 ModelModByReciprocal(u32 aBits, u32 cBits)
	{
		const float a = BitsFloat(aBits);
		const float c = BitsFloat(cBits);
		const float r = 1.0f / c;
		const float q = a * r;
		float fraction = 0.0f;
		if (std::fabs(q) < 2147483648.0f)
			fraction = q - float(s32(q));
		// (fraction is never a NaN: the product's NaN, if any, follows the model's rule.)
		return OxTest::ModelFloatArith(Orvex::Compiler::IR::SOp_MathOp::Op_Mul, FloatBits(fraction), cBits);
	}

	//--------------------------------------------------------------------------------

	namespace
	{
		// The words plus padding up to the next 32-byte boundary, plus 32 bytes more.
		std::size_t PaddedWords(std::size_t words) { return ((words + 7) / 8) * 8 + 8; }
	}

	CWords::CWords(std::size_t words, u32 salt)
	: m_Words(words), m_Total(PaddedWords(words)), m_Storage(PaddedWords(words), salt)
	{
		Snapshot();
	}

	void CWords::Fill(CValues &values)
	{
		for (std::size_t i = 0; i < m_Words; ++i)
			Data()[i] = values.Next();
		Snapshot();
	}

	std::size_t CWords::FirstChanged() const
	{
		for (std::size_t i = 0; i < m_Total; ++i)
			if (Data()[i] != m_Initial[i])
				return i;
		return m_Total;
	}

	//--------------------------------------------------------------------------------

	SLayout SLayout::Make(s32 op, u32 n, u32 count, EOperandShape shape, u32 dstStride)
	{
		SLayout l;
		l.m_Op = op;
		l.m_N = n;
		l.m_Count = count;
		l.m_DstStride = dstStride != 0 ? dstStride : n;
		l.m_Stride0 = OxTest::Src0Constant(shape) ? 0 : n;
		l.m_Stride1 = OxTest::Src1Constant(shape) ? 0 : n;
		l.m_Unary = op == SOp_MathOp::Op_Neg;
		return l;
	}

	std::string SLayout::Label() const
	{
		std::ostringstream s;
		s << OpMnemonic(m_Op) << " N=" << m_N << " count=" << m_Count << " dstStride=" << m_DstStride * 4
		  << " stride0=" << m_Stride0 * 4 << " stride1=" << (m_Unary ? std::string("none") : std::to_string(m_Stride1 * 4));
		return s.str();
	}

	CRun::CRun(const SLayout &layout, CValues &values)
	: m_L(layout)
	, m_Dst(std::size_t(layout.m_Count) * layout.m_DstStride, 0x1000u)
	, m_Src0(SLayout::SourceWords(layout.m_Stride0, layout.m_N, layout.m_Count), 0x2000u)
	, m_Src1(SLayout::SourceWords(layout.m_Stride1, layout.m_N, layout.m_Count), 0x3000u)
	{
		m_Src0.Fill(values);
		if (!m_L.m_Unary)
			m_Src1.Fill(values);
	}

	void CRun::Resnapshot()
	{
		m_Src0.Snapshot();
		m_Src1.Snapshot();
		m_Dst.Snapshot();
	}

	void CRun::RunKernel()
	{
		const MO::FnOp2Stream fn = MO::_FnMathOpLookup[std::size_t(m_L.m_Op) * 4 + (m_L.m_N - 1)];
		ASSERT_NE(fn, nullptr) << m_L.Label();
		fn(m_Dst.Data(), m_L.m_DstStride * 4, m_L.m_Count, m_Src0.Data(), m_L.m_Stride0 * 4, Src1Ptr(), Stride1Bytes());
	}

	void CRun::RunSelector()
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

	void CRun::ExpectModel(CChecker &checker, const std::string &context) const
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
		ExpectGuardsIntact(checker, label);
		ExpectSourcesUnchanged(checker, label);
	}

	void CRun::ExpectNothingWritten(CChecker &checker, const std::string &context) const
	{
		const std::string label = m_L.Label() + (context.empty() ? "" : " [" + context + "]");
		const std::size_t changed = m_Dst.FirstChanged();
		if (changed != m_Dst.Total())
			checker.Mismatch(label + ": destination word " + std::to_string(changed) + " was written (" + Hex(m_Dst[changed]) + ")");
		ExpectGuardsIntact(checker, label);
		ExpectSourcesUnchanged(checker, label);
	}

	void CRun::ExpectSourcesUnchanged(CChecker &checker, const std::string &label) const
	{
		if (m_Src0.FirstChanged() != m_Src0.Total())
			checker.Mismatch(label + ": source 0 was modified");
		if (m_Src1.FirstChanged() != m_Src1.Total())
			checker.Mismatch(label + ": source 1 was modified");
	}

	void CRun::ExpectGuardsIntact(CChecker &checker, const std::string &label) const
	{
		if (!m_Dst.GuardsIntact() || !m_Src0.GuardsIntact() || !m_Src1.GuardsIntact())
			checker.Mismatch(label + ": a word before a buffer or past its padding was written");
	}

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

	void SetAll(CWords &words, u32 stride, u32 n, u32 count, const std::vector<float> &components)
	{
		const u32 elements = stride == 0 ? 1 : count;
		for (u32 i = 0; i < elements; ++i)
			for (u32 k = 0; k < n; ++k)
				words[std::size_t(i) * stride + k] = FloatBits(components[k % components.size()]);
		words.Snapshot();
	}

	//--------------------------------------------------------------------------------

	std::vector<SCase> Cases(const std::vector<s32> &ops, const std::vector<u32> &dimensions, const std::vector<EOperandShape> &shapes)
	{
		std::vector<SCase> cases;
		for (s32 op : ops)
			for (u32 n : dimensions)
				for (EOperandShape shape : shapes)
				{
					// Negation has one operand; a constant one is refused (its own test).
					if (op == SOp_MathOp::Op_Neg && shape != EOperandShape::StreamStream)
						continue;
					cases.push_back({op, n, shape});
				}
		return cases;
	}

	std::vector<s32> Ops(const EOp *first, const EOp *last)
	{
		std::vector<s32> ops;
		for (const EOp *op = first; op != last; ++op)
			ops.push_back(s32(*op));
		return ops;
	}

	std::string CaseName(const ::testing::TestParamInfo<SCase> &info)
	{
		return OpMnemonic(info.param.m_Op) + "_N" + std::to_string(info.param.m_N) + "_" + ShapeName(info.param.m_Shape);
	}

	u32 CaseSeed(u32 salt, const SCase &c)
	{
		return kSeed ^ salt ^ (u32(c.m_Op) << 24) ^ (c.m_N << 16) ^ (u32(c.m_Shape) << 12);
	}
}
