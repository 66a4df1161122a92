// Float modulo writes inside its destination register whatever the destination's
// element size: a destination stride below the element size is reported and the walk
// ends count strides after the start, never past the register; a stride above it ends
// at count packed elements, never reading the packed sources past their registers.

#include "bytecode_builder.h"
#include "cbvm_meta_ops.h"
#include "cbvm_register_storage.h"
#include "scalar_model.h"
#include "test_support.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

using namespace Orvex;
using Compiler::IR::SOp_MathOp;
using OxTest::CAssertCapture;

namespace
{
	constexpr u32 kGuard = 0x6A6A6A6Au;

	struct SModCase
	{
		EBaseTypeID m_Source;
		EBaseTypeID m_Destination;
		Compiler::EMetaType m_DivisorBank;
		u32 m_Elements;
	};

	std::string CaseName(const ::testing::TestParamInfo<SModCase> &info)
	{
		const SModCase &c = info.param;
		return std::string(BaseTypeName(c.m_Source)) + "_into_" + BaseTypeName(c.m_Destination) + "_" +
			   Compiler::MetaTypeName(c.m_DivisorBank) + "Divisor_" + std::to_string(c.m_Elements);
	}

	class FloatModDestinationBounds : public ::testing::TestWithParam<SModCase>
	{
	};

	// Runs 'mod dst, a, b' on the standard path with every byte of the destination's
	// storage (padding included) set to a guard pattern, and returns that storage's words.
	TEST_P(FloatModDestinationBounds, WritesOnlyInsideTheDestination)
	{
		const SModCase c = GetParam();
		CRegisterStorage storage(3);
		storage.Registers().m_StreamDimensions = c.m_Elements;
		const CVMRegID dst = CVMRegID::Build(0, Compiler::MetaType_Stream, c.m_Destination);
		const CVMRegID a = CVMRegID::Build(1, Compiler::MetaType_Stream, c.m_Source);
		const CVMRegID b = CVMRegID::Build(2, c.m_DivisorBank, c.m_Source);
		ASSERT_TRUE(storage.AllocateElements(dst, c.m_Elements));
		ASSERT_TRUE(storage.AllocateElements(a, c.m_Elements));
		ASSERT_TRUE(storage.AllocateElements(b, c.m_DivisorBank == Compiler::MetaType_Stream ? c.m_Elements : 1));
		const u32 elementBytes = CCBCPUMetaRegisters::DataSizeInBytes(c.m_Source);
		const u32 dstBytes = storage.Size(dst);
		u32 *dstWords = storage.DataAs<u32>(dst);
		for (u32 w = 0; w < storage.Capacity(dst) / 4; ++w)
			dstWords[w] = kGuard;
		float *pa = storage.DataAs<float>(a);
		float *pb = storage.DataAs<float>(b);
		for (u32 w = 0; w < storage.Size(a) / 4; ++w)
			pa[w] = 7.25f + float(w);
		for (u32 w = 0; w < storage.Size(b) / 4; ++w)
			pb[w] = 2.0f + 0.5f * float(w % 3);

		CAssertCapture capture;
		std::vector<u8> bytes;
		OxTest::EmitEncoded(bytes, SOp_MathOp::Op_Mod, dst, a, b);
		CCompilerBackendCPUProgram_VM program;
		CRuntimeCPUBindings bindings;
		SCompilerCPUDebugCtx debugCtx;
		const CBytecodeExecContext ctx(&program, bindings, storage.Registers(), debugCtx);
		CMetaOp_MathOp::_ExecBytecode(ctx, bytes.data());

		// The destination of another element size is reported by the kernel, once more on
		// the route of a one-value divisor (which repeats the check).
		const bool divisorIsStream = c.m_DivisorBank == Compiler::MetaType_Stream;
		EXPECT_EQ(capture.Count("stride == sizeof(_Type)"), divisorIsStream ? 1u : 2u);
		EXPECT_EQ(capture.Count(), divisorIsStream ? 1u : 2u);
		// Every word past the destination register's bytes keeps its guard.
		for (u32 w = dstBytes / 4; w < storage.Capacity(dst) / 4; ++w)
			ASSERT_EQ(dstWords[w], kGuard) << "word " << w << " of a " << dstBytes << "-byte destination was written";
		// Inside, the walk is packed: the first min(count * stride, count * element size)
		// bytes hold the modulo of the packed sources, word for word.
		const u32 walked = (dstBytes < c.m_Elements * elementBytes ? dstBytes : c.m_Elements * elementBytes) / 4;
		for (u32 w = 0; w < walked; ++w)
		{
			const u32 divisorWord = divisorIsStream ? w : w % (elementBytes / 4);
			const float expected = OxTest::BitsFloat(OxTest::ModelFloat(SOp_MathOp::Op_Mod, OxTest::FloatBits(pa[w]), OxTest::FloatBits(pb[divisorWord])));
			// A constant divisor goes through one reciprocal: allow the last bit.
			const float got = OxTest::BitsFloat(dstWords[w]);
			if (divisorIsStream)
				EXPECT_EQ(dstWords[w], OxTest::FloatBits(expected)) << "word " << w;
			else
				EXPECT_NEAR(got, expected, 1e-5f * 8.0f) << "word " << w;
		}
	}

	INSTANTIATE_TEST_SUITE_P(StrideBelowElementSize, FloatModDestinationBounds,
							 ::testing::Values(SModCase{BaseType_Float4, BaseType_Float2, Compiler::MetaType_Stream, 6},
											   SModCase{BaseType_Float4, BaseType_Float, Compiler::MetaType_Stream, 9},
											   SModCase{BaseType_Float3, BaseType_Float2, Compiler::MetaType_Stream, 7},
											   SModCase{BaseType_Float2, BaseType_Float, Compiler::MetaType_Stream, 13},
											   SModCase{BaseType_Float4, BaseType_Float2, Compiler::MetaType_Constant, 6},
											   SModCase{BaseType_Float3, BaseType_Float, Compiler::MetaType_Constant, 11},
											   SModCase{BaseType_Float2, BaseType_Float, Compiler::MetaType_Normal, 10}),
							 CaseName);

	INSTANTIATE_TEST_SUITE_P(StrideAboveElementSize, FloatModDestinationBounds,
							 ::testing::Values(SModCase{BaseType_Float2, BaseType_Float4, Compiler::MetaType_Stream, 6},
											   SModCase{BaseType_Float, BaseType_Float3, Compiler::MetaType_Constant, 9},
											   SModCase{BaseType_Float3, BaseType_Float4, Compiler::MetaType_Constant, 5}),
							 CaseName);
}
