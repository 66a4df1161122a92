// The Low path's reports of malformed instructions: registers too small for what they
// evaluate, a missing or extra second source, and registers off their 32-byte alignment.

#include "low_path_harness.h"

#include <gtest/gtest.h>

#include <climits>
#include <cstdio>
#include <iterator>
#include <string>
#include <vector>

using namespace LowPathTest;

//------------------------------------------------------------------------------------
// Size and operand checks.

TEST(LowPathSizeChecks, StreamDestinationTooSmall)
{
	CAssertCapture capture;
	SInstr in = Same(SOp_MathOp::Op_Add, BaseType_Float, Compiler::MetaType_Stream, Compiler::MetaType_Stream, Compiler::MetaType_Stream, 8);
	in.m_DstBytes = 7 * 4;
	CLowRun run(in);
	EXPECT_EQ(run.Run(), 13u);
	EXPECT_EQ(capture.Count(kDstSizeCheck), 1u);
	EXPECT_TRUE(capture.Has(kDstSizeCheck, kDstSizeCheck));
	EXPECT_EQ(capture.Count(), 1u);
}

TEST(LowPathSizeChecks, ConstantDestinationTooSmall)
{
	CAssertCapture capture;
	SInstr in = Same(SOp_MathOp::Op_Add, BaseType_Float4, Compiler::MetaType_Constant, Compiler::MetaType_Normal, Compiler::MetaType_Normal, 8);
	in.m_DstBytes = 12;
	CLowRun run(in);
	EXPECT_EQ(run.Run(), 13u);
	EXPECT_EQ(capture.Count(kDstSizeCheck), 1u);
	EXPECT_EQ(capture.Count(), 1u);
}

TEST(LowPathSizeChecks, ConstantDestinationOfOneElementIsEnough)
{
	CAssertCapture capture;
	SInstr in = Same(SOp_MathOp::Op_Add, BaseType_Float4, Compiler::MetaType_Normal, Compiler::MetaType_Stream, Compiler::MetaType_Constant, 100);
	CLowRun run(in);
	EXPECT_EQ(run.Storage().Size(run.DstId()), 16u);
	EXPECT_EQ(run.Run(), 13u);
	EXPECT_EQ(capture.Count(), 0u);
	EXPECT_TRUE(run.CheckDestination());
}

TEST(LowPathSizeChecks, Source0TooSmall)
{
	CAssertCapture capture;
	SInstr in = Same(SOp_MathOp::Op_Mul, BaseType_Int2, Compiler::MetaType_Stream, Compiler::MetaType_Instance, Compiler::MetaType_Stream, 6);
	in.m_Src0Bytes = 5 * 8;
	CLowRun run(in);
	EXPECT_EQ(run.Run(), 13u);
	EXPECT_EQ(capture.Count(kSrc0SizeCheck), 1u);
	EXPECT_TRUE(capture.Has(kSrc0SizeCheck, kSrc0SizeCheck));
	EXPECT_EQ(capture.Count(), 1u);
}

TEST(LowPathSizeChecks, Source1TooSmall)
{
	CAssertCapture capture;
	SInstr in = Same(SOp_MathOp::Op_Cmp_Equal, BaseType_Float3, Compiler::MetaType_Stream, Compiler::MetaType_Stream, Compiler::MetaType_Stream, 6);
	in.m_Src1Bytes = 5 * 12;
	CLowRun run(in);
	EXPECT_EQ(run.Run(), 14u);
	EXPECT_EQ(capture.Count(kSrc1SizeCheck), 1u);
	EXPECT_TRUE(capture.Has(kSrc1SizeCheck, kSrc1SizeCheck));
	EXPECT_EQ(capture.Count(), 1u);
}

TEST(LowPathSizeChecks, UnaryOperatorWithASecondSource)
{
	for (EOp op : {SOp_MathOp::Op_Neg, SOp_MathOp::Op_Bitwise_Not})
	{
		CAssertCapture capture;
		SInstr in = Same(op, BaseType_Int2, Compiler::MetaType_Stream, Compiler::MetaType_Stream, Compiler::MetaType_Stream, 4);
		in.m_HasSrc1 = true;
		CLowRun run(in);
		for (u32 i = 0; i < 8; ++i)
		{
			run.Src0()[i] = i * 3 + 1;
			run.Src1()[i] = 0x12345678u;
		}
		EXPECT_EQ(run.Run(), 14u);
		EXPECT_EQ(capture.Count(kOperandCountCheck), 1u);
		EXPECT_TRUE(capture.Has(kOperandCountCheck, kOperandCountCheck));
		EXPECT_EQ(capture.Count("srcStream1 == null"), 1u);
		// Source 0 alone is read.
		for (u32 i = 0; i < 8; ++i)
			EXPECT_EQ(run.Dst()[i], op == SOp_MathOp::Op_Neg ? 0u - (i * 3 + 1) : ~(i * 3 + 1)) << i;
		EXPECT_TRUE(run.CheckDestination());
	}
	CAssertCapture capture;
	SInstr in = Same(SOp_MathOp::Op_Neg, BaseType_Float, Compiler::MetaType_Stream, Compiler::MetaType_Stream, Compiler::MetaType_Stream, 3);
	in.m_HasSrc1 = true;
	CLowRun run(in);
	for (u32 i = 0; i < 3; ++i)
		run.Src0()[i] = FloatBits(float(i));
	EXPECT_EQ(run.Run(), 14u);
	EXPECT_EQ(capture.Count(kOperandCountCheck), 1u);
	for (u32 i = 0; i < 3; ++i)
		EXPECT_EQ(run.Dst()[i], FloatBits(float(i)) ^ 0x80000000u) << i;
}

TEST(LowPathSizeChecks, BinaryOperatorWithoutASecondSource)
{
	// Nothing evaluated (zero stream dimensions), so only the report is observable.
	for (u8 opcode : {u8(CBVM::Opcode_MathOpAdd), u8(CBVM::Opcode_MathOpDiv), u8(CBVM::Opcode_MathOp)})
	{
		CAssertCapture capture;
		SInstr in = Same(SOp_MathOp::Op_Add, BaseType_Float2, Compiler::MetaType_Stream, Compiler::MetaType_Stream, Compiler::MetaType_Stream, 0);
		in.m_HasSrc1 = false;
		CLowRun run(in);
		u8 bytes[14];
		u32 expectedSize;
		if (opcode == CBVM::Opcode_MathOp)
			expectedSize = EncodeGeneric(bytes, opcode, u8(SOp_MathOp::Op_Cmp_Greater), run.DstId(), run.Src0Id(), CVMRegID::INVALID);
		else
			expectedSize = EncodeSpecialised(bytes, opcode, run.DstId(), run.Src0Id(), CVMRegID::INVALID);
		EXPECT_EQ(EntryForOpcode(opcode)(run.Ctx(), bytes), expectedSize);
		EXPECT_EQ(capture.Count(kOperandCountCheck), 1u) << int(opcode);
		EXPECT_TRUE(capture.Has(kOperandCountCheck, kOperandCountCheck));
		EXPECT_EQ(capture.Count(), 1u);
		EXPECT_TRUE(run.DestinationUntouched());
	}
}

//------------------------------------------------------------------------------------
// Alignment: a register file made by hand, one register 4 bytes off a 32-byte boundary.

namespace
{
	struct SMisalignedCase
	{
		u32 m_Which;	// 0: destination, 1: source 0, 2: source 1
		const char *m_Expression;
	};
}

TEST(LowPathAlignment, MisalignedRegistersAreReported)
{
	const SMisalignedCase cases[] = {
		{0, "OX_NAMESPACE::Mem::IsAligned<0x20>((evalInto))"},
		{1, "OX_NAMESPACE::Mem::IsAligned<0x20>((datasrc0))"},
		{2, "OX_NAMESPACE::Mem::IsAligned<0x20>((datasrc1))"},
	};
	for (EBaseTypeID type : {BaseType_Float2, BaseType_Int3})
		for (const SMisalignedCase &c : cases)
		{
			CAssertCapture capture;
			OxTest::CGuardedStorage dstBuffer(64, 0x100u), src0Buffer(64, 0x200u), src1Buffer(64, 0x300u);
			u32 *data[3] = {dstBuffer.Data(), src0Buffer.Data(), src1Buffer.Data()};
			data[c.m_Which] += 1;	// 4 bytes off
			const u32 n = 5, comps = type == BaseType_Float2 ? 2 : 3;
			for (u32 i = 0; i < n * comps; ++i)
			{
				data[1][i] = type == BaseType_Float2 ? FloatBits(float(i) + 0.5f) : i * 7;
				data[2][i] = type == BaseType_Float2 ? FloatBits(2.0f) : 3;
			}
			for (u32 i = n * comps; i < 60; ++i)
				data[0][i] = GuardWord(i);

			CCBCPUMetaRegisters::SRegister table[3 * CCBCPUMetaRegisters::kBanksPerSlot] = {};
			CCBCPUMetaRegisters registers;
			registers.m_Registers = table;
			registers.m_StreamDimensions = n;
			const CVMRegID ids[3] = {CVMRegID::Build(0, Compiler::MetaType_Stream, type), CVMRegID::Build(1, Compiler::MetaType_Stream, type), CVMRegID::Build(2, Compiler::MetaType_Stream, type)};
			for (u32 r = 0; r < 3; ++r)
			{
				registers.SelectRegister(ids[r]).m_RawData = data[r];
				registers.SelectRegister(ids[r]).m_Size = n * comps * 4;
			}
			CCompilerBackendCPUProgram_VM program;
			CRuntimeCPUBindings bindings;
			SCompilerCPUDebugCtx debugCtx;
			CBytecodeExecContext ctx(&program, bindings, registers, debugCtx);
			u8 bytes[14];
			EncodeWithCodec(bytes, SOp_MathOp::Op_Mul, ids[0], ids[1], ids[2]);
			EXPECT_EQ(CMetaOp_MathOp::_ExecBytecode_Mul_Low(ctx, bytes), 13u);

			char message[128];
			std::snprintf(message, sizeof(message), "Unaligned memory! %p should be 32-bytes aligned.", static_cast<const void *>(data[c.m_Which]));
			EXPECT_EQ(capture.Count(c.m_Expression), 1u) << c.m_Expression;
			EXPECT_TRUE(capture.Has(c.m_Expression, message)) << message;
			EXPECT_EQ(capture.Count(), 1u);
			// Execution goes on with the values at hand: the product is still computed.
			for (u32 i = 0; i < n * comps; ++i)
			{
				const u32 expected = type == BaseType_Float2 ? FloatBits((float(i) + 0.5f) * 2.0f) : i * 21;
				EXPECT_EQ(data[0][i], expected) << i;
			}
			EXPECT_EQ(data[0][n * comps], GuardWord(n * comps));
			EXPECT_TRUE(dstBuffer.GuardsIntact());
		}
}
