#pragma once
// What the integer kernel tests (test_int_kernels_*.cpp) share: value sources, one
// kernel run on guarded copies of its operands, and the model's expected words.
//
// Values are checked bit for bit against the plain scalar model (scalar_model.h). The
// block paths of a uniform constant operand differ from the model in two deliberate
// places, which ExpectedInt models explicitly:
//   - a uniform shift count above 31 (as unsigned) shifts whole blocks out: 0 for the
//     left and logical shifts, the sign fill for the arithmetic one (and "bits <= 31" is
//     reported); the tail uses the count's low five bits like the model;
//   - INT_MIN divided by the constant INT_MIN gives -1 on whole blocks (power-of-two path).

#include "cbvm_math_op_int_selector.h"
#include "guarded_storage.h"
#include "kr_profiler.h"
#include "scalar_model.h"
#include "seeded_random.h"
#include "test_support.h"
#include "type_lists.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

namespace IntKernelTest
{
	using namespace Orvex;
	using Compiler::IR::SOp_MathOp;
	using OxTest::CAssertCapture;
	using OxTest::EModelKind;
	using OxTest::OpMnemonic;
	using EOp = SOp_MathOp::EOp;

	// Operand buffers: 32-byte aligned words with guard words on both sides (also the
	// padding that lets a 3-component constant be read as 16 bytes).
	using CWords = OxTest::CGuardedStorage;

	constexpr u32 kSeed = 0x1A7C0DE5u;

	constexpr u32 kIntMin = 0x80000000u;
	constexpr u32 kIntMax = 0x7FFFFFFFu;
	constexpr u32 kAllOnes = 0xFFFFFFFFu;

	inline const char *const kBitsCheck = "bits <= 31";
	inline const char *const kNotReached = "Control point shouldn't be reached.";

	inline u32 ScalarFallbacks() { return Profiler::CHazards::CurrentThreadHazards().Get(Profiler::CHazards::Hazard_ScalarFallback); }
	inline void ResetHazards() { Profiler::CHazards::CurrentThreadHazards().Reset(); }

	inline bool IsShift(EOp op)
	{
		return op == SOp_MathOp::Op_Bitwise_ShiftLeft || op == SOp_MathOp::Op_Bitwise_ShiftRight || op == SOp_MathOp::Op_Bitwise_ShiftRightLogical;
	}

	//--------------------------------------------------------------------------------
	// Values.

	inline constexpr u32 kIntEdgeValues[] = {
		0u, 1u, kAllOnes, 2u, u32(-2), 7u, u32(-7), 8u, u32(-8), 13u, u32(-13),
		kIntMin, kIntMax, kIntMin + 1, kIntMax - 1,
		31u, 32u, 33u, 40u, 0x55555555u, 0xAAAAAAAAu,
		65536u, u32(-65536), 46341u, u32(-46341),
	};

	class CValues
	{
	public:
		explicit CValues(u32 seed) : m_Rng(seed) {}

		u32 Next();
		std::vector<u32> Words(std::size_t n);
		u32 Uniform(std::size_t n) { return m_Rng.Uniform(n); }
		u32 Raw() { return u32(m_Rng()); }

	private:
		OxTest::CSeededRandom m_Rng;
	};

	//--------------------------------------------------------------------------------
	// Running the kernel and the model.

	struct SOperand
	{
		std::vector<u32> m_Words;	// _Dimension words for a constant, count * _Dimension for a stream
		bool m_Constant = false;
	};

	inline SOperand Stream(std::vector<u32> words) { return SOperand{std::move(words), false}; }
	inline SOperand Constant(std::vector<u32> words) { return SOperand{std::move(words), true}; }

	void ExecInt(u32 dimension, EOp op, void *dst, u32 stride, u32 count, const void *src0, u32 stride0, const void *src1, u32 stride1);

	struct SRunResult
	{
		std::vector<u32> m_Values;
		bool m_GuardsIntact = false;
	};

	// ExecOperatorInt<dimension> on aligned copies of the operands; b null for unary operators.
	SRunResult RunInt(EOp op, u32 dimension, u32 count, const SOperand &a, const SOperand *b);
	inline SRunResult RunInt(EOp op, u32 dimension, u32 count, const SOperand &a, const SOperand &b) { return RunInt(op, dimension, count, a, &b); }

	bool IsUniformConstant(const SOperand *b, u32 dimension);
	// The integers handled by whole 12-integer blocks on a uniform-constant block path.
	inline std::size_t UniformBlockEnd(u32 dimension, u32 count) { return std::size_t(count) * dimension / 12 * 12; }

	// The model's values, with the two deliberate differences of the uniform-constant
	// block paths written out.
	std::vector<u32> ExpectedInt(EOp op, u32 dimension, u32 count, const SOperand &a, const SOperand *b);
	// The one report a correct run makes: a uniform shift count above 31 on whole blocks.
	bool ExpectsBitsReport(EOp op, u32 dimension, u32 count, const SOperand *b);

	::testing::AssertionResult SameWords(const std::vector<u32> &expected, const std::vector<u32> &actual);
	std::string Describe(EOp op, u32 dimension, u32 count, const SOperand &a, const SOperand *b);

	// One differential case: values, guards, and the reports (none, or only "bits <= 31").
	::testing::AssertionResult CheckCase(CAssertCapture &capture, EOp op, u32 dimension, u32 count, const SOperand &a, const SOperand *b);

	SOperand Make(CValues &values, bool constant, u32 dimension, u32 count);
	// count * N over 0..40 and just past, then the long streams.
	std::vector<u32> CountsFor(u32 dimension);

	// _ExecIntOperatorPacked over 'total' integers with a stream source 0 and a stream or
	// a 12-integer constant block as source 1 (prepared by the caller).
	std::vector<u32> RunPacked(EOp op, const std::vector<u32> &a, const std::vector<u32> *b, bool constantBlock, bool *guardsIntact = nullptr);

	inline std::vector<u32> Repeat(u32 value, std::size_t n) { return std::vector<u32>(n, value); }

	// Dividends on both sides of multiples of d: where a wrong multiplier shows first.
	std::vector<u32> WrappedMultiples(s32 d);

	//--------------------------------------------------------------------------------
	// Parameterized cases: operator, dimension, operand shape.

	struct SCase
	{
		s32 m_Op;
		u32 m_N;
		OxTest::EOperandShape m_Shape;
		bool m_Unary;	// the operator reads source 0 only: the shape's second half is unused
	};

	// Every operator of the set x the dimensions x the shapes; a unary operator gets the
	// shapes of source 0 only (StreamStream and ConstStream, named Stream and Const).
	std::vector<SCase> AllOpCases(const std::vector<u32> &dimensions);
	std::string CaseName(const ::testing::TestParamInfo<SCase> &info);
	u32 CaseSeed(u32 salt, const SCase &c);

	class CIntCaseTest : public ::testing::TestWithParam<SCase>
	{
	};
}
