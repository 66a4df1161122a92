// The default assertion handler's line (kr_assert.h) as a host's user reads it on
// stderr: the check's text, its message, and for the math op the instruction's offset
// and, for a register-size check, the register and its sizes; never the library's
// source paths or a function's template signature.

#include "cbvm_interpreter.h"
#include "cbvm_meta_ops.h"
#include "cbvm_register_storage.h"
#include "kr_assert.h"
#include "bytecode_builder.h"

#include <gtest/gtest.h>

#include <cstdio>
#include <string>
#include <vector>

using namespace Orvex;
using Compiler::IR::SOp_MathOp;

namespace
{
	// The default handler's output, but answering 'continue': the math op's check sites
	// are shared by every test of the process, and the default answer would silence them.
	int PrintAndContinue(const Assert::SReport &report)
	{
		Assert::DefaultHandler(report);
		return Assert::Answer_Continue;
	}

	// What a user must never have to read in a report.
	void ExpectNoBuildDetails(const std::string &err)
	{
		EXPECT_EQ(err.find('/'), std::string::npos) << "a source path: " << err;
		EXPECT_EQ(err.find(".cpp"), std::string::npos) << err;
		EXPECT_EQ(err.find(".h:"), std::string::npos) << err;
		EXPECT_EQ(err.find("[with"), std::string::npos) << "a template signature: " << err;
		EXPECT_EQ(err.find("Orvex::"), std::string::npos) << "a function's name: " << err;
		EXPECT_LT(err.size(), 200u) << err;
	}

	void SiteWithoutContext() { OX_ASSERT(2 + 2 == 5); }
	void SiteWithMessage(int lane) { OX_ASSERT_FORMAT(lane < 4, "lane %d of 4", lane); }

	TEST(AssertLine, TheCheckTextAlone)
	{
		const Assert::FnHandler previous = Assert::SetHandler(nullptr);
		testing::internal::CaptureStderr();
		SiteWithoutContext();
		const std::string err = testing::internal::GetCapturedStderr();
		Assert::SetHandler(previous);
		EXPECT_EQ(err, "orvex cbvm: assertion failed: 2 + 2 == 5\n");
		ExpectNoBuildDetails(err);
	}

	TEST(AssertLine, TheMessageAfterTheText)
	{
		const Assert::FnHandler previous = Assert::SetHandler(nullptr);
		testing::internal::CaptureStderr();
		SiteWithMessage(7);
		const std::string err = testing::internal::GetCapturedStderr();
		Assert::SetHandler(previous);
		EXPECT_EQ(err, "orvex cbvm: assertion failed: lane < 4: lane 7 of 4\n");
	}

	u32 Describe(const void *state, char *text, u32 capacity)
	{
		return u32(std::snprintf(text, capacity, "%s", static_cast<const char *>(state)));
	}

	TEST(AssertLine, TheInnermostContextOfTheThread)
	{
		const Assert::SReport report = {"/build/machine/src/file.cpp", "void Orvex::F<int>() [with T = int]", 3, "a == b", "a == b"};
		testing::internal::CaptureStderr();
		{
			const Assert::CReportContext outer(&Describe, "outer work");
			Assert::DefaultHandler(report);
			{
				const Assert::CReportContext inner(&Describe, "inner work");
				Assert::DefaultHandler(report);
			}
			Assert::DefaultHandler(report);
		}
		Assert::DefaultHandler(report);
		const std::string err = testing::internal::GetCapturedStderr();
		EXPECT_EQ(err,
				  "orvex cbvm: assertion failed: a == b (outer work)\n"
				  "orvex cbvm: assertion failed: a == b (inner work)\n"
				  "orvex cbvm: assertion failed: a == b (outer work)\n"
				  "orvex cbvm: assertion failed: a == b\n");
		ExpectNoBuildDetails(err);

		// A clause longer than the buffer is cut, terminated.
		char text[8];
		const Assert::CReportContext context(&Describe, "a long description of the work");
		EXPECT_EQ(Assert::CReportContext::Describe(text, sizeof(text)), 7u);
		EXPECT_STREQ(text, "a long ");
	}

	// A program of two float3 instructions on a 4-element stream, the second of which
	// has an undersized operand (allocated for one element: the kernels still read and
	// write within its padded block).
	class AssertLineOfAnInstruction : public ::testing::TestWithParam<CBVM::EExecPath>
	{
	protected:
		static constexpr u32 kElements = 4;

		void SetUp() override
		{
			m_Previous = Assert::SetHandler(&PrintAndContinue);
			m_Storage.Registers().m_StreamDimensions = kElements;
		}
		void TearDown() override { Assert::SetHandler(m_Previous); }

		CVMRegID Stream(u32 slot, EBaseTypeID type, u32 elements)
		{
			const CVMRegID id = CVMRegID::Build(slot, Compiler::MetaType_Stream, type);
			EXPECT_TRUE(m_Storage.AllocateElements(id, elements));
			return id;
		}

		// Runs 'second' after a well-formed add; the offset of 'second' and stderr.
		std::string Run(const std::vector<u8> &second, u32 &offset)
		{
			const CVMRegID a = Stream(6, BaseType_Float3, kElements);
			const CVMRegID b = Stream(7, BaseType_Float3, kElements);
			std::vector<u8> code;
			OxTest::EmitEncoded(code, SOp_MathOp::Op_Add, a, a, b);
			offset = u32(code.size());
			code.insert(code.end(), second.begin(), second.end());
			CCompilerBackendCPUProgram_VM program;
			CRuntimeCPUBindings bindings;
			SCompilerCPUDebugCtx debug;
			const CBytecodeExecContext context(&program, bindings, m_Storage.Registers(), debug);
			testing::internal::CaptureStderr();
			const CBVM::SRunResult result = CBVM::CInterpreter::Run(context, code.data(), u32(code.size()), GetParam());
			const std::string err = testing::internal::GetCapturedStderr();
			EXPECT_EQ(result.m_Status, CBVM::RunStatus_Ok);
			return err;
		}

		CRegisterStorage m_Storage{8};
		Assert::FnHandler m_Previous = nullptr;
	};

	TEST_P(AssertLineOfAnInstruction, AnUndersizedSourceNamesTheRegisterAndTheSizes)
	{
		const CVMRegID dst = Stream(0, BaseType_Float3, kElements);
		const CVMRegID small = Stream(1, BaseType_Float3, 1);
		const CVMRegID other = Stream(2, BaseType_Float3, kElements);
		std::vector<u8> code;
		OxTest::EmitEncoded(code, SOp_MathOp::Op_Mul, dst, small, other);
		u32 offset = 0;
		const std::string err = Run(code, offset);
		char expected[200];
		std::snprintf(expected, sizeof(expected),
					  "orvex cbvm: assertion failed: reg0.m_Size >= evalCount * stride0 (instruction at offset %u, source 0 stream.1:float3 holds 12 bytes, needs 48)\n", offset);
		EXPECT_EQ(err, expected);
		ExpectNoBuildDetails(err);
	}

	TEST_P(AssertLineOfAnInstruction, AnUndersizedDestinationNamesTheRegisterAndTheSizes)
	{
		const CVMRegID small = Stream(3, BaseType_Float3, 1);
		const CVMRegID src0 = Stream(4, BaseType_Float3, kElements);
		const CVMRegID src1 = Stream(5, BaseType_Float3, kElements);
		std::vector<u8> code;
		OxTest::EmitEncoded(code, SOp_MathOp::Op_Sub, small, src0, src1);
		u32 offset = 0;
		const std::string err = Run(code, offset);
		// The text is each path's own (the Low path has no destination stride).
		const char *text = GetParam() == CBVM::ExecPath_Standard
							   ? "reg.m_Size >= registers.m_StreamDimensions * stride || (reg.m_Size >= stride && mt < Compiler::MetaType_Instance)"
							   : "reg.m_Size >= registers.m_StreamDimensions * dstStride || (reg.m_Size >= dstStride && mt < Compiler::MetaType_Instance)";
		char expected[300];
		std::snprintf(expected, sizeof(expected), "orvex cbvm: assertion failed: %s (instruction at offset %u, destination stream.3:float3 holds 12 bytes, needs 48)\n", text,
					  offset);
		EXPECT_EQ(err, expected);
		EXPECT_EQ(err.find('/'), std::string::npos) << err;
		EXPECT_EQ(err.find("[with"), std::string::npos) << err;
	}

	// Any other check of the instruction names its offset only.
	TEST_P(AssertLineOfAnInstruction, AnotherCheckNamesTheOffset)
	{
		const CVMRegID dst = Stream(0, BaseType_Float3, kElements);
		const CVMRegID src0 = Stream(1, BaseType_Float3, kElements);
		// A float source 1 beside a float3 source 0, large enough for what is read as float3.
		const CVMRegID floats = Stream(2, BaseType_Float, 3 * kElements);
		std::vector<u8> code;
		OxTest::EmitRaw(code, SOp_MathOp::Op_Add, u32(dst.m_RawBits), u32(src0.m_RawBits), u32(floats.m_RawBits));
		u32 offset = 0;
		const std::string err = Run(code, offset);
		const char *text = GetParam() == CBVM::ExecPath_Standard ? "m_SrcReg1.ToType() == m_SrcType0" : "m_SrcReg1.ToType() == m_SrcType";
		char expected[200];
		std::snprintf(expected, sizeof(expected), "orvex cbvm: assertion failed: %s (instruction at offset %u)\n", text, offset);
		EXPECT_EQ(err, expected);
		ExpectNoBuildDetails(err);
	}

	INSTANTIATE_TEST_SUITE_P(Paths, AssertLineOfAnInstruction, ::testing::Values(CBVM::ExecPath_Standard, CBVM::ExecPath_Low),
							 [](const ::testing::TestParamInfo<CBVM::EExecPath> &info) { return std::string(CBVM::ExecPathName(info.param)); });
}
