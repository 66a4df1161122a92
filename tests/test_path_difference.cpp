// Where the standard path may give other bits: float modulo by a one-value divisor
// divides exactly for one element and multiplies by a reciprocal from two on, so the
// same operands give other bits in a constant register and in a stream; the classifier
// names both cases.

#include "bytecode_builder.h"
#include "cbvm_path_difference.h"
#include "cbvm_meta_ops.h"
#include "cbvm_register_storage.h"
#include "test_support.h"

#include <gtest/gtest.h>

#include <cstring>

namespace
{
	using namespace Orvex;
	using Compiler::IR::SOp_MathOp;

	u32 Bits(float value)
	{
		u32 bits;
		std::memcpy(&bits, &value, 4);
		return bits;
	}

	struct SModByThree
	{
		CRegisterStorage m_Storage{4};
		CVMRegID m_Divisor = CVMRegID::Build(0, Compiler::MetaType_Constant, BaseType_Float);
		CVMRegID m_Dividend = CVMRegID::Build(1, Compiler::MetaType_Constant, BaseType_Float);
		CVMRegID m_One = CVMRegID::Build(2, Compiler::MetaType_Constant, BaseType_Float);
		CVMRegID m_Values = CVMRegID::Build(1, Compiler::MetaType_Stream, BaseType_Float);
		CVMRegID m_Stream = CVMRegID::Build(2, Compiler::MetaType_Stream, BaseType_Float);

		SModByThree()
		{
			m_Storage.Registers().m_StreamDimensions = 2;
			for (CVMRegID id : {m_Divisor, m_Dividend, m_One})
				EXPECT_TRUE(m_Storage.AllocateElements(id, 1));
			for (CVMRegID id : {m_Values, m_Stream})
				EXPECT_TRUE(m_Storage.AllocateElements(id, 2));
			*m_Storage.DataAs<float>(m_Divisor) = 3.0f;
			*m_Storage.DataAs<float>(m_Dividend) = 959.99994f;
			m_Storage.DataAs<float>(m_Values)[0] = m_Storage.DataAs<float>(m_Values)[1] = 959.99994f;
		}

		std::vector<u8> Mod(CVMRegID dst, CVMRegID a) const
		{
			std::vector<u8> bytes;
			OxTest::EmitEncoded(bytes, SOp_MathOp::Op_Mod, dst, a, m_Divisor);
			return bytes;
		}

		void Run(const std::vector<u8> &bytes)
		{
			CCompilerBackendCPUProgram_VM program;
			CRuntimeCPUBindings bindings;
			SCompilerCPUDebugCtx debugCtx;
			const CBytecodeExecContext ctx(&program, bindings, m_Storage.Registers(), debugCtx);
			CMetaOp_MathOp::_ExecBytecode(ctx, bytes.data());
		}
	};

	TEST(PathDifference, FloatModByAConstantDependsOnTheElementCount)
	{
		OxTest::CAssertCapture capture;
		SModByThree file;
		const std::vector<u8> one = file.Mod(file.m_One, file.m_Dividend);
		const std::vector<u8> stream = file.Mod(file.m_Stream, file.m_Values);
		file.Run(one);
		file.Run(stream);
		EXPECT_EQ(capture.Count(), 0u);
		// One element: a true division, 959.99994 / 3 = 319.99998, frac * 3 = 2.9999084.
		EXPECT_EQ(*file.m_Storage.DataAs<u32>(file.m_One), Bits(2.9999084f));
		// Two elements: 959.99994 * (1/3) rounds to 320, whose fraction is 0.
		EXPECT_EQ(file.m_Storage.DataAs<u32>(file.m_Stream)[0], Bits(0.0f));
		EXPECT_EQ(file.m_Storage.DataAs<u32>(file.m_Stream)[1], Bits(0.0f));
		// Both are the documented difference.
		EXPECT_EQ(CBVM::StandardPathDifference(file.m_Storage.Registers(), one.data()), CBVM::PathDifference_FloatModByConstant);
		EXPECT_EQ(CBVM::StandardPathDifference(file.m_Storage.Registers(), stream.data()), CBVM::PathDifference_FloatModByConstant);
		// A stream divisor divides exactly at any count: no difference.
		std::vector<u8> streams = stream;
		const u32 divisorStream = u32(file.m_Values.m_RawBits);
		std::memcpy(streams.data() + streams.size() - 4, &divisorStream, 4);
		EXPECT_EQ(CBVM::StandardPathDifference(file.m_Storage.Registers(), streams.data()), CBVM::PathDifference_None);
	}
}
