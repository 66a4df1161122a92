// The Low path's entry points (instruction sizes, the opcode byte they are handed),
// the kernel chosen by source 0's type, a source 1 of another type, and the operators
// or types that have no kernel.

#include "low_path_harness.h"

#include <gtest/gtest.h>

#include <climits>
#include <cstdio>
#include <iterator>
#include <string>
#include <vector>

using namespace LowPathTest;

//------------------------------------------------------------------------------------
// Entry points.

TEST(LowPathEntries, ReturnTheirInstructionSize)
{
	CAssertCapture capture;
	for (s32 op = 0; op < 4; ++op)
	{
		SInstr in = Same(EOp(op), BaseType_Float, Compiler::MetaType_Stream, Compiler::MetaType_Stream, Compiler::MetaType_Stream, 3);
		CLowRun specialised(in);
		EXPECT_EQ(specialised.Run(), 13u);
		EXPECT_EQ(specialised.EncodedSize(), 13u);
		in.m_Generic = true;
		CLowRun generic(in);
		EXPECT_EQ(generic.Run(), 14u);
		EXPECT_EQ(generic.EncodedSize(), 14u);
	}
	SInstr in = Same(SOp_MathOp::Op_Mod, BaseType_Float, Compiler::MetaType_Stream, Compiler::MetaType_Stream, Compiler::MetaType_Stream, 3);
	CLowRun generic(in);
	EXPECT_EQ(generic.Run(), 14u);
	EXPECT_EQ(capture.Count(), 0u);
}

TEST(LowPathEntries, SpecialisedEntriesEvaluateTheirOwnOperatorWhateverTheOpcodeByte)
{
	const FnEntry entries[4] = {&CMetaOp_MathOp::_ExecBytecode_Add_Low, &CMetaOp_MathOp::_ExecBytecode_Sub_Low, &CMetaOp_MathOp::_ExecBytecode_Mul_Low, &CMetaOp_MathOp::_ExecBytecode_Div_Low};
	const char *const texts[4] = {"bytecode[0] == CBVM::Opcode_MathOpAdd", "bytecode[0] == CBVM::Opcode_MathOpSub", "bytecode[0] == CBVM::Opcode_MathOpMul", "bytecode[0] == CBVM::Opcode_MathOpDiv"};
	for (u32 e = 0; e < 4; ++e)
		for (u8 wrong : {u8(113), u8(114), u8(115), u8(116), u8(117), u8(0), u8(200)})
		{
			if (wrong == 114 + e)
				continue;
			CAssertCapture capture;
			SInstr in = Same(EOp(e), BaseType_I32, Compiler::MetaType_Stream, Compiler::MetaType_Stream, Compiler::MetaType_Stream, 4);
			CLowRun run(in);
			const s32 a[4] = {100, -7, 9, INT_MIN};
			const s32 b[4] = {3, 2, -4, -1};
			for (u32 i = 0; i < 4; ++i)
			{
				run.Src0()[i] = u32(a[i]);
				run.Src1()[i] = u32(b[i]);
			}
			u8 bytes[14];
			EncodeSpecialised(bytes, wrong, run.DstId(), run.Src0Id(), run.Src1Id());
			run.Snapshot();
			EXPECT_EQ(entries[e](run.Ctx(), bytes), 13u);
			EXPECT_EQ(capture.Count(texts[e]), 1u) << int(wrong);
			EXPECT_TRUE(capture.Has(texts[e], texts[e]));
			// The entry's own operator, not the byte's.
			EXPECT_TRUE(run.CheckDestination()) << "entry " << e << " byte " << int(wrong);
		}
}

TEST(LowPathEntries, GenericEntryReportsAWrongOpcodeAndEvaluatesByte1)
{
	for (u8 wrong : {u8(114), u8(115), u8(117), u8(0), u8(255)})
	{
		CAssertCapture capture;
		SInstr in = Same(SOp_MathOp::Op_Mul, BaseType_Float3, Compiler::MetaType_Stream, Compiler::MetaType_Stream, Compiler::MetaType_Constant, 5);
		CLowRun run(in);
		for (u32 i = 0; i < 15; ++i)
			run.Src0()[i] = FloatBits(float(i) - 4.5f);
		for (u32 i = 0; i < 3; ++i)
			run.Src1()[i] = FloatBits(float(i) + 1.5f);
		u8 bytes[14];
		EncodeGeneric(bytes, wrong, u8(SOp_MathOp::Op_Mul), run.DstId(), run.Src0Id(), run.Src1Id());
		run.Snapshot();
		EXPECT_EQ(CMetaOp_MathOp::_ExecBytecode_Low(run.Ctx(), bytes), 14u);
		EXPECT_EQ(capture.Count("bytecode[0] == CBVM::Opcode_MathOp"), 1u) << int(wrong);
		EXPECT_TRUE(run.CheckDestination());
		EXPECT_EQ(run.Dst()[4], FloatBits(-0.5f * 2.5f));
	}
}

TEST(LowPathEntries, SizeIsReturnedWhenTheKernelRefuses)
{
	CAssertCapture capture;
	SInstr in = Same(SOp_MathOp::Op_Add, BaseType_Double, Compiler::MetaType_Stream, Compiler::MetaType_Stream, Compiler::MetaType_Stream, 2);
	CLowRun run(in);
	EXPECT_EQ(run.Run(), 13u);
	in.m_Generic = true;
	CLowRun generic(in);
	EXPECT_EQ(generic.Run(), 14u);
	EXPECT_EQ(capture.Count("false"), 2u);
}

//------------------------------------------------------------------------------------
// Kernel selection by source 0's type.

TEST(LowPathKernels, QuaternionRunsThroughTheFourFloatKernel)
{
	CAssertCapture capture;
	SInstr in = Same(SOp_MathOp::Op_Mul, BaseType_Quaternion, Compiler::MetaType_Stream, Compiler::MetaType_Stream, Compiler::MetaType_Stream, 3);
	CLowRun run(in);
	for (u32 i = 0; i < 12; ++i)
	{
		run.Src0()[i] = FloatBits(float(i + 1));
		run.Src1()[i] = FloatBits(0.5f);
	}
	EXPECT_EQ(run.Run(), 13u);
	EXPECT_EQ(capture.Count(), 0u);
	// Component-wise, four per element, all twelve written.
	for (u32 i = 0; i < 12; ++i)
		EXPECT_EQ(run.Dst()[i], FloatBits(float(i + 1) * 0.5f)) << i;
	EXPECT_EQ(run.Dst()[12], GuardWord(12));
	EXPECT_TRUE(run.CheckDestination());
}

TEST(LowPathKernels, Bool3RunsThroughTheThreeIntKernel)
{
	CAssertCapture capture;
	SInstr in = Same(SOp_MathOp::Op_Bitwise_And, BaseType_Bool3, Compiler::MetaType_Stream, Compiler::MetaType_Stream, Compiler::MetaType_Stream, 4);
	CLowRun run(in);
	for (u32 i = 0; i < 12; ++i)
	{
		run.Src0()[i] = (i % 2) ? 0xFFFFFFFFu : 0u;
		run.Src1()[i] = (i % 3) ? 0xFFFFFFFFu : 0u;
	}
	EXPECT_EQ(run.Run(), 14u);
	EXPECT_EQ(capture.Count(), 0u);
	for (u32 i = 0; i < 12; ++i)
		EXPECT_EQ(run.Dst()[i], ((i % 2) && (i % 3)) ? 0xFFFFFFFFu : 0u) << i;
	EXPECT_EQ(run.Dst()[12], GuardWord(12));
	EXPECT_TRUE(run.CheckDestination());
}

TEST(LowPathKernels, ComparisonIntoABoolDestination)
{
	CAssertCapture capture;
	SInstr in = Same(SOp_MathOp::Op_Cmp_Lower, BaseType_Float2, Compiler::MetaType_Stream, Compiler::MetaType_Stream, Compiler::MetaType_Stream, 3);
	in.m_DstType = BaseType_Bool2;
	CLowRun run(in);
	const float a[6] = {1.0f, 2.0f, -0.0f, 5.0f, 1.0f, 7.0f};
	const float b[6] = {2.0f, 2.0f, 0.0f, 4.0f, 1.5f, 8.0f};
	for (u32 i = 0; i < 6; ++i)
	{
		run.Src0()[i] = FloatBits(a[i]);
		run.Src1()[i] = FloatBits(b[i]);
	}
	EXPECT_EQ(run.Run(), 14u);
	EXPECT_EQ(capture.Count(), 0u);
	const u32 expected[6] = {0xFFFFFFFFu, 0, 0, 0, 0xFFFFFFFFu, 0xFFFFFFFFu};
	for (u32 i = 0; i < 6; ++i)
		EXPECT_EQ(run.Dst()[i], expected[i]) << i;
	EXPECT_TRUE(run.CheckDestination());
}

TEST(LowPathTypes, Src1OfAnotherTypeIsReportedAndReadWithSrc0ElementSize)
{
	CAssertCapture capture;
	// Float3 and Float4 sources: source 1 is walked with a 12-byte stride.
	SInstr in = Same(SOp_MathOp::Op_Add, BaseType_Float3, Compiler::MetaType_Stream, Compiler::MetaType_Stream, Compiler::MetaType_Stream, 4);
	in.m_Type1 = BaseType_Float4;
	CLowRun run(in);
	for (u32 i = 0; i < 12; ++i)
		run.Src0()[i] = FloatBits(float(100 * i));
	for (u32 i = 0; i < 16; ++i)
		run.Src1()[i] = FloatBits(float(i));
	EXPECT_EQ(run.Run(), 13u);
	EXPECT_EQ(capture.Count(kSrc1TypeCheck), 1u);
	EXPECT_TRUE(capture.Has(kSrc1TypeCheck, kSrc1TypeCheck));
	EXPECT_EQ(capture.Count(), 1u);
	for (u32 i = 0; i < 12; ++i)
		EXPECT_EQ(run.Dst()[i], FloatBits(float(100 * i + i))) << i;	// word i of source 1, not 4 * (i / 3) + i % 3
	EXPECT_TRUE(run.CheckDestination());
}

TEST(LowPathTypes, Src1OfAFloatTypeUnderAnIntSource)
{
	CAssertCapture capture;
	SInstr in = Same(SOp_MathOp::Op_Bitwise_Xor, BaseType_I32, Compiler::MetaType_Stream, Compiler::MetaType_Stream, Compiler::MetaType_Stream, 5);
	in.m_Type1 = BaseType_Float;
	CLowRun run(in);
	for (u32 i = 0; i < 5; ++i)
	{
		run.Src0()[i] = 0x0F0F0F0Fu * i;
		run.Src1()[i] = FloatBits(float(i) + 0.25f);
	}
	EXPECT_EQ(run.Run(), 14u);
	EXPECT_EQ(capture.Count(kSrc1TypeCheck), 1u);
	EXPECT_EQ(capture.Count(), 1u);
	for (u32 i = 0; i < 5; ++i)
		EXPECT_EQ(run.Dst()[i], (0x0F0F0F0Fu * i) ^ FloatBits(float(i) + 0.25f)) << i;	// raw bits, the int kernel
	EXPECT_TRUE(run.CheckDestination());
}

TEST(LowPathTypes, TypesWithoutAKernelReportAndWriteNothing)
{
	for (s32 t = BaseType_Evolved; t < __MaxBaseTypes; ++t)
	{
		EModelKind kind;
		u32 components;
		if (OxTest::ModelKernelForType(EBaseTypeID(t), kind, components))
			continue;
		for (EOp op : {SOp_MathOp::Op_Add, SOp_MathOp::Op_Mod, SOp_MathOp::Op_Neg, SOp_MathOp::Op_Bitwise_And})
		{
			CAssertCapture capture;
			SInstr in = Same(op, EBaseTypeID(t), Compiler::MetaType_Stream, Compiler::MetaType_Stream, Compiler::MetaType_Stream, 6);
			CLowRun run(in);
			for (u32 i = 0; i < run.Storage().Size(run.Src0Id()) / 4; ++i)
				run.Src0()[i] = 0x3F800000u + i;
			EXPECT_EQ(run.Run(), ExpectedSize(in));
			EXPECT_EQ(capture.Count("false"), 1u) << BaseTypeName(EBaseTypeID(t));
			EXPECT_TRUE(capture.Has("false", "Control point shouldn't be reached.")) << BaseTypeName(EBaseTypeID(t));
			EXPECT_TRUE(run.DestinationUntouched());
		}
	}
}

TEST(LowPathTypes, NamedTypesWithoutAKernel)
{
	for (EBaseTypeID type : {BaseType_Double, BaseType_I64, BaseType_U64, BaseType_U8, BaseType_I16, BaseType_UInt3, BaseType_U32, BaseType_Word4})
	{
		CAssertCapture capture;
		SInstr in = Same(SOp_MathOp::Op_Mul, type, Compiler::MetaType_Stream, Compiler::MetaType_Stream, Compiler::MetaType_Normal, 13);
		CLowRun run(in);
		EXPECT_EQ(run.Run(), 13u);
		EXPECT_EQ(capture.Count(), 1u) << BaseTypeName(type);
		EXPECT_TRUE(capture.Has("false", "Control point shouldn't be reached.")) << BaseTypeName(type);
		EXPECT_TRUE(run.DestinationUntouched());
	}
}

//------------------------------------------------------------------------------------
// Operators that do not exist for a kind.

TEST(LowPathInvalidOps, FloatAndOnEveryDimension)
{
	for (EBaseTypeID type : {BaseType_Float, BaseType_Float2, BaseType_Float3, BaseType_Float4, BaseType_Quaternion})
	{
		CAssertCapture capture;
		SInstr in = Same(SOp_MathOp::Op_Bitwise_And, type, Compiler::MetaType_Stream, Compiler::MetaType_Stream, Compiler::MetaType_Stream, 7);
		CLowRun run(in);
		for (u32 i = 0; i < run.Storage().Size(run.Src0Id()) / 4; ++i)
			run.Src0()[i] = run.Src1()[i] = 0xFFFFFFFFu;
		EXPECT_EQ(run.Run(), 14u);
		EXPECT_EQ(capture.Count(), 1u) << BaseTypeName(type);
		EXPECT_TRUE(capture.Has("false", kInvalidFloatOpMessage)) << BaseTypeName(type);
		EXPECT_TRUE(run.DestinationUntouched());
	}
}

TEST(LowPathInvalidOps, OperatorBytesPastTheSet)
{
	for (u8 opByte : {u8(19), u8(200), u8(255)})
		for (EBaseTypeID type : {BaseType_Float, BaseType_Float3, BaseType_Quaternion, BaseType_I32, BaseType_Int4, BaseType_Bool2})
		{
			CAssertCapture capture;
			SInstr in = Same(EOp(opByte), type, Compiler::MetaType_Stream, Compiler::MetaType_Stream, Compiler::MetaType_Stream, 5);
			CLowRun run(in);
			EXPECT_EQ(run.Run(), 14u);
			const bool isFloat = type == BaseType_Float || type == BaseType_Float3 || type == BaseType_Quaternion;
			EXPECT_EQ(capture.Count(), 1u) << int(opByte) << " " << BaseTypeName(type);
			EXPECT_TRUE(capture.Has("false", isFloat ? kInvalidFloatOpMessage : kUnsupportedIntOpMessage)) << int(opByte) << " " << BaseTypeName(type);
			EXPECT_TRUE(run.DestinationUntouched());
		}
}

