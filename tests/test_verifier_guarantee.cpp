// The verifier's promise, under every flag: a program it finds no problem at all with
// runs on both paths with no assertion report. A shift count that the program itself
// writes is the case that needs care: its value at run time is not the one Verify
// reads, whether it is written through its own register entry or through another
// entry over the same bytes.

#include "cbvm_interpreter.h"
#include "cbvm_register_storage.h"
#include "bytecode_builder.h"
#include "cbvm_verifier.h"
#include "test_support.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

namespace
{
	using namespace Orvex;
	using Compiler::IR::SOp_MathOp;

	using OxTest::EmitEncoded;

	u32 ReportsOfARun(CCBCPUMetaRegisters &registers, const std::vector<u8> &code, CBVM::EExecPath path)
	{
		OxTest::CAssertCapture capture;
		CCompilerBackendCPUProgram_VM program;
		CRuntimeCPUBindings bindings;
		SCompilerCPUDebugCtx debugCtx;
		const CBytecodeExecContext context(&program, bindings, registers, debugCtx);
		CBVM::CInterpreter::Run(context, code.data(), u32(code.size()), path);
		return u32(capture.Count());
	}

	struct SFlagCase
	{
		u32 m_Flags;
		const char *m_Name;
	};

	class VerifierWrittenShiftCount : public ::testing::TestWithParam<SFlagCase>
	{
	};

	// add k, k, step (k = 3, step = 37 as verified), then shl y, x, k over a stream: the
	// count is 40 when the shift runs.
	TEST_P(VerifierWrittenShiftCount, ThroughItsOwnRegisterIsNeverSilent)
	{
		CRegisterStorage storage(4);
		storage.Registers().m_StreamDimensions = 24;
		const CVMRegID x = CVMRegID::Build(0, Compiler::MetaType_Stream, BaseType_I32);
		const CVMRegID y = CVMRegID::Build(1, Compiler::MetaType_Stream, BaseType_I32);
		const CVMRegID k = CVMRegID::Build(2, Compiler::MetaType_Constant, BaseType_I32);
		const CVMRegID step = CVMRegID::Build(3, Compiler::MetaType_Constant, BaseType_I32);
		for (CVMRegID id : {x, y})
			ASSERT_TRUE(storage.AllocateElements(id, 24));
		for (CVMRegID id : {k, step})
			ASSERT_TRUE(storage.AllocateElements(id, 1));
		*storage.DataAs<s32>(k) = 3;
		*storage.DataAs<s32>(step) = 37;
		std::vector<u8> code;
		EmitEncoded(code, SOp_MathOp::Op_Add, k, k, step);
		EmitEncoded(code, SOp_MathOp::Op_Bitwise_ShiftLeft, y, x, k);

		CBVM::SVerifyProblem problem;
		const CBVM::SVerifyResult result = CBVM::CVerifier::Verify(code.data(), u32(code.size()), storage, &problem, 1, GetParam().m_Flags);
		ASSERT_EQ(result.Problems(), 1u);
		EXPECT_EQ(problem.m_Code, CBVM::VerifyError_ShiftCountUnchecked);
		EXPECT_EQ(problem.m_Offset, 13u);
		// And the problem is real: the standard path reports the count the add made.
		EXPECT_GE(ReportsOfARun(storage.Registers(), code, CBVM::ExecPath_Standard), 1u);
	}

	// The count register is a second table entry over the first element of a stream that
	// the program writes: the (slot, bank) pairs differ, the bytes are the same.
	TEST_P(VerifierWrittenShiftCount, ThroughAnotherEntryOverTheSameBytesIsNeverSilent)
	{
		CRegisterStorage storage(4);
		storage.Registers().m_StreamDimensions = 24;
		const CVMRegID x = CVMRegID::Build(0, Compiler::MetaType_Stream, BaseType_I32);
		const CVMRegID y = CVMRegID::Build(1, Compiler::MetaType_Stream, BaseType_I32);
		const CVMRegID counts = CVMRegID::Build(2, Compiler::MetaType_Stream, BaseType_I32);
		const CVMRegID step = CVMRegID::Build(3, Compiler::MetaType_Constant, BaseType_I32);
		const CVMRegID countView = CVMRegID::Build(3, Compiler::MetaType_Normal, BaseType_I32);
		for (CVMRegID id : {x, y, counts})
			ASSERT_TRUE(storage.AllocateElements(id, 24));
		ASSERT_TRUE(storage.AllocateElements(step, 1));
		for (u32 i = 0; i < 24; ++i)
			storage.DataAs<s32>(counts)[i] = 3;
		*storage.DataAs<s32>(step) = 37;

		// A table of our own: the storage's entries plus the view (not owned by the storage).
		std::vector<CCBCPUMetaRegisters::SRegister> table(storage.Registers().m_Registers, storage.Registers().m_Registers + 4 * 4);
		table[3 * 4 + (Compiler::MetaType_Normal - 1)] = {storage.Data(counts), 4};
		CCBCPUMetaRegisters registers = storage.Registers();
		registers.m_Registers = table.data();

		std::vector<u8> code;
		EmitEncoded(code, SOp_MathOp::Op_Add, counts, counts, step);
		EmitEncoded(code, SOp_MathOp::Op_Bitwise_ShiftLeft, y, x, countView);

		CBVM::SVerifyProblem problem;
		const CBVM::SVerifyResult result = CBVM::CVerifier::Verify(code.data(), u32(code.size()), registers, 4, &problem, 1, GetParam().m_Flags);
		ASSERT_EQ(result.Problems(), 1u);
		EXPECT_EQ(problem.m_Code, CBVM::VerifyError_ShiftCountUnchecked);
		EXPECT_GE(ReportsOfARun(registers, code, CBVM::ExecPath_Standard), 1u);

		// A view that does not overlap what the program writes is checked by its value.
		for (u32 i = 0; i < 24; ++i)
			storage.DataAs<s32>(counts)[i] = 3;
		std::vector<u8> clean;
		EmitEncoded(clean, SOp_MathOp::Op_Add, y, counts, step);
		EmitEncoded(clean, SOp_MathOp::Op_Bitwise_ShiftLeft, y, x, countView);
		EXPECT_EQ(CBVM::CVerifier::Verify(clean.data(), u32(clean.size()), registers, 4, nullptr, 0, GetParam().m_Flags).Problems(), 0u);
		EXPECT_EQ(ReportsOfARun(registers, clean, CBVM::ExecPath_Standard), 0u);
		EXPECT_EQ(ReportsOfARun(registers, clean, CBVM::ExecPath_Low), 0u);
	}

	INSTANTIATE_TEST_SUITE_P(EveryFlag, VerifierWrittenShiftCount,
							 ::testing::Values(SFlagCase{CBVM::VerifyFlag_None, "Default"}, SFlagCase{CBVM::VerifyFlag_AllowReportedForms, "AllowReportedForms"}),
							 [](const ::testing::TestParamInfo<SFlagCase> &info) { return std::string(info.param.m_Name); });
}
