#pragma once
// What the float stream kernel tests (test_float_kernels_*.cpp) share: value sources,
// guarded operand buffers, one kernel run laid out by operator, dimension, count and
// operand shape, and its check against the scalar model.
//
// Values are checked bit for bit against the scalar model (scalar_model.h); the one
// exception is modulo by a constant divisor, which the kernels compute with one
// reciprocal and a multiply per value, and which is modelled here as exactly that.
// Every stream sits in 32-byte aligned memory followed by 32 bytes of padding (what the
// register file guarantees); the padding and every word a kernel has no business
// writing start as a guard pattern and are checked afterwards.

#include "cbvm_math_op_float_kernels.h"
#include "guarded_storage.h"
#include "scalar_model.h"
#include "seeded_random.h"
#include "test_support.h"
#include "type_lists.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

namespace FloatKernelTest
{
	using namespace Orvex;
	namespace MO = Orvex::MathOp;
	using Compiler::IR::SOp_MathOp;
	using OxTest::BitsFloat;
	using OxTest::CAssertCapture;
	using OxTest::CGuardPage;
	using OxTest::EOperandShape;
	using OxTest::FloatBits;
	using OxTest::OpMnemonic;
	using OxTest::ShapeName;
	using EOp = SOp_MathOp::EOp;

	constexpr u32 kSeed = 0xF1A7C0DEu;

	inline const char *const kInvalidFloatOpMessage = "[Backend CPU-VM]: Invalid Operation: logical ops cannot be applied to 'float' type";
	inline const char *const kSlowPathMessage = "CBVM: math op: slow codepath taken, bad strides";
	inline const char *const kImplFileName = "cbvm_math_op_float_kernels.h";

	// Counts 0 .. 40 (every tail length of every dimension, a few times over), then two
	// long streams.
	std::vector<u32> SweepCounts();

	std::string Hex(u32 v);
	std::string PointerText(const void *p);

	//--------------------------------------------------------------------------------
	// Values: edge values mixed with random words and ordinary numbers.

	inline constexpr u32 kFloatEdgeValues[] = {
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

		u32 Next();
		u32 Uniform(std::size_t n) { return m_Rng.Uniform(n); }
		OxTest::CSeededRandom &Random() { return m_Rng; }

	private:
		OxTest::CSeededRandom m_Rng;
	};

	// Modulo by a constant divisor as the kernels compute it: one reciprocal of the
	// divisor, a multiply per value, the fractional part while the quotient fits a 32-bit
	// truncation (a plain conversion to int, no library truncation), then times the divisor.
	u32 ModelModByReciprocal(u32 aBits, u32 cBits);

	//--------------------------------------------------------------------------------
	// 32-byte aligned words, followed by 32 bytes of padding; everything starts as guard,
	// and guarded storage sits on both sides of that.

	class CWords
	{
	public:
		CWords(std::size_t words, u32 salt);

		u32 Guard(std::size_t i) const { return m_Storage.Guard(i); }
		u32 *Data() { return m_Storage.Data(); }
		const u32 *Data() const { return m_Storage.Data(); }
		u32 &operator[](std::size_t i) { return m_Storage[i]; }
		u32 operator[](std::size_t i) const { return m_Storage[i]; }
		std::size_t Words() const { return m_Words; }
		std::size_t Total() const { return m_Total; }

		void Fill(CValues &values);
		void Snapshot() { m_Initial.assign(Data(), Data() + m_Total); }
		u32 Initial(std::size_t i) const { return m_Initial[i]; }

		// First word that differs from the snapshot, or Total().
		std::size_t FirstChanged() const;
		// Nothing was written before the data or past its padding.
		bool GuardsIntact() const { return m_Storage.GuardsIntact(); }

	private:
		std::size_t m_Words;
		std::size_t m_Total;
		OxTest::CGuardedStorage m_Storage;
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

	struct SLayout
	{
		s32 m_Op = SOp_MathOp::Op_Add;
		u32 m_N = 1;
		u32 m_Count = 0;
		u32 m_DstStride = 0;	// words; the destination is never constant
		u32 m_Stride0 = 0;		// words; 0 = constant
		u32 m_Stride1 = 0;
		bool m_Unary = false;	// no source 1 at all (null pointer)

		static SLayout Make(s32 op, u32 n, u32 count, EOperandShape shape, u32 dstStride = 0);
		std::string Label() const;
		static std::size_t SourceWords(u32 stride, u32 n, u32 count) { return stride == 0 ? n : std::size_t(count) * stride; }
	};

	class CRun
	{
	public:
		CRun(const SLayout &layout, CValues &values);

		CWords &Dst() { return m_Dst; }
		CWords &Src0() { return m_Src0; }
		CWords &Src1() { return m_Src1; }
		const SLayout &Layout() const { return m_L; }

		// Re-snapshot after a test changed source values by hand.
		void Resnapshot();

		const void *Src1Ptr() const { return m_L.m_Unary ? nullptr : m_Src1.Data(); }
		u32 Stride1Bytes() const { return m_L.m_Unary ? 0u : m_L.m_Stride1 * 4; }

		// Through the kernel table (the kernel itself, no selector checks).
		void RunKernel();
		// Through the float selector.
		void RunSelector();

		// Component k of element i of each source.
		u32 A(u32 i, u32 k) const { return m_Src0[std::size_t(i) * m_L.m_Stride0 + k]; }
		u32 B(u32 i, u32 k) const { return m_L.m_Unary ? 0u : m_Src1[std::size_t(i) * m_L.m_Stride1 + k]; }

		bool ReciprocalModulo() const { return m_L.m_Op == SOp_MathOp::Op_Mod && m_L.m_Stride1 == 0 && m_L.m_Stride0 != 0; }

		// Every destination component equals the model (or its accepted alternative), every
		// other destination word (gaps of a strided destination, padding) keeps its guard,
		// and the sources are unchanged.
		void ExpectModel(CChecker &checker, const std::string &context = std::string()) const;
		// Nothing at all was written.
		void ExpectNothingWritten(CChecker &checker, const std::string &context = std::string()) const;
		void ExpectSourcesUnchanged(CChecker &checker, const std::string &label) const;

	private:
		void ExpectGuardsIntact(CChecker &checker, const std::string &label) const;

		SLayout m_L;
		CWords m_Dst;
		CWords m_Src0;
		CWords m_Src1;
	};

	std::string FirstReport(const CAssertCapture &capture);
	void ExpectNoReports(CAssertCapture &capture, CChecker &checker, const std::string &label);
	u32 SlowHazards();

	// Sets every element of a source (one element for a constant) to the given components,
	// repeated as needed.
	void SetAll(CWords &words, u32 stride, u32 n, u32 count, const std::vector<float> &components);

	//--------------------------------------------------------------------------------
	// Parameterized cases: operator, dimension (component count) and operand shape.

	struct SCase
	{
		s32 m_Op;
		u32 m_N;
		EOperandShape m_Shape;
	};

	// Every (operator, N, shape) of the lists; negation only with a stream operand.
	std::vector<SCase> Cases(const std::vector<s32> &ops, const std::vector<u32> &dimensions, const std::vector<EOperandShape> &shapes);
	std::vector<s32> Ops(const EOp *first, const EOp *last);
	template <std::size_t N>
	std::vector<s32> Ops(const EOp (&ops)[N]) { return Ops(ops, ops + N); }

	// "Add_N3_StreamConst".
	std::string CaseName(const ::testing::TestParamInfo<SCase> &info);

	// A seed of its own per case, so that a case replays on its own.
	u32 CaseSeed(u32 salt, const SCase &c);

	class CFloatCaseTest : public ::testing::TestWithParam<SCase>
	{
	};
}
