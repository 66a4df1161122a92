// The Low path on named integer and float edge values, what it never writes after a
// three-component stream, a constant operand on either side, and a destination that
// is also a source.

#include "low_path_harness.h"

#include <gtest/gtest.h>

#include <climits>
#include <cstdio>
#include <iterator>
#include <string>
#include <vector>

using namespace LowPathTest;

//------------------------------------------------------------------------------------
// Integer edge values.

TEST(LowPathInt, DivisionByZeroIsZero) { EXPECT_EQ(s32(RunInt(SOp_MathOp::Op_Div, 7, 0)), 0); }
TEST(LowPathInt, ModuloByZeroIsTheDividend) { EXPECT_EQ(s32(RunInt(SOp_MathOp::Op_Mod, 7, 0)), 7); }
TEST(LowPathInt, DivisionTruncatesTowardZero) { EXPECT_EQ(s32(RunInt(SOp_MathOp::Op_Div, -7, 2)), -3); }
TEST(LowPathInt, ModuloHasTheSignOfTheDividend) { EXPECT_EQ(s32(RunInt(SOp_MathOp::Op_Mod, -7, 2)), -1); }
TEST(LowPathInt, IntMinDividedByMinusOneIsIntMin) { EXPECT_EQ(s32(RunInt(SOp_MathOp::Op_Div, INT_MIN, -1)), INT_MIN); }
TEST(LowPathInt, IntMinModuloMinusOneIsZero) { EXPECT_EQ(s32(RunInt(SOp_MathOp::Op_Mod, INT_MIN, -1)), 0); }
TEST(LowPathInt, ShiftCountUsesItsLowFiveBits) { EXPECT_EQ(s32(RunInt(SOp_MathOp::Op_Bitwise_ShiftLeft, 1, 33)), 2); }
TEST(LowPathInt, ShiftRightFillsWithTheSign) { EXPECT_EQ(s32(RunInt(SOp_MathOp::Op_Bitwise_ShiftRight, -8, 1)), -4); }
TEST(LowPathInt, LogicalShiftRightFillsWithZeros) { EXPECT_EQ(RunInt(SOp_MathOp::Op_Bitwise_ShiftRightLogical, -8, 1), 2147483644u); }
TEST(LowPathInt, MultiplicationWraps) { EXPECT_EQ(RunInt(SOp_MathOp::Op_Mul, 65536, 65537), 65536u); }
TEST(LowPathInt, AdditionWraps) { EXPECT_EQ(s32(RunInt(SOp_MathOp::Op_Add, INT_MAX, 1)), INT_MIN); }
TEST(LowPathInt, NegationOfIntMinIsIntMin) { EXPECT_EQ(s32(RunInt(SOp_MathOp::Op_Neg, INT_MIN, 0)), INT_MIN); }
TEST(LowPathInt, NotFlipsEveryBit) { EXPECT_EQ(RunInt(SOp_MathOp::Op_Bitwise_Not, 0x0F0F0F0F, 0), 0xF0F0F0F0u); }
TEST(LowPathInt, ComparisonsAreSigned)
{
	EXPECT_EQ(RunInt(SOp_MathOp::Op_Cmp_Lower, -1, 1), 0xFFFFFFFFu);
	EXPECT_EQ(RunInt(SOp_MathOp::Op_Cmp_Greater, INT_MIN, INT_MAX), 0u);
	EXPECT_EQ(RunInt(SOp_MathOp::Op_Cmp_NotEqual, 5, 5), 0u);
}

//------------------------------------------------------------------------------------
// Float edge values.

TEST(LowPathFloat, ModuloOfPositiveDividend) { EXPECT_EQ(RunFloat(SOp_MathOp::Op_Mod, 5.5f, 2.0f), FloatBits(1.5f)); }
TEST(LowPathFloat, ModuloHasTheSignOfTheDividend) { EXPECT_EQ(RunFloat(SOp_MathOp::Op_Mod, -5.5f, 2.0f), FloatBits(-1.5f)); }
TEST(LowPathFloat, ModuloOfAHugeQuotientIsZero) { EXPECT_EQ(RunFloat(SOp_MathOp::Op_Mod, 3.0e10f, 7.0f), 0u); }
TEST(LowPathFloat, ModuloByZeroIsZero)
{
	EXPECT_EQ(RunFloat(SOp_MathOp::Op_Mod, 5.0f, 0.0f), 0u);
	EXPECT_EQ(RunFloat(SOp_MathOp::Op_Mod, 0.0f, 0.0f), 0u);
}
TEST(LowPathFloat, ModuloByANegativeDivisor)
{
	EXPECT_EQ(RunFloat(SOp_MathOp::Op_Mod, 3.0f, -2.0f), FloatBits(1.0f));	// frac(-1.5) = -0.5, times -2
	EXPECT_EQ(RunFloat(SOp_MathOp::Op_Mod, 4.0f, -2.0f), 0x80000000u);		// frac(-2) = +0, times -2
}
TEST(LowPathFloat, LowerStoresAllOnes) { EXPECT_EQ(RunFloat(SOp_MathOp::Op_Cmp_Lower, 1.0f, 2.0f), 0xFFFFFFFFu); }
TEST(LowPathFloat, EqualOfTwoNaNsIsFalse) { EXPECT_EQ(RunOne(SOp_MathOp::Op_Cmp_Equal, BaseType_Float, 0x7FC00000u, 0x7FC00000u), 0u); }
TEST(LowPathFloat, NotEqualWithANaNIsTrue) { EXPECT_EQ(RunOne(SOp_MathOp::Op_Cmp_NotEqual, BaseType_Float, 0x7FC00000u, 0x3F800000u), 0xFFFFFFFFu); }
TEST(LowPathFloat, NegationOfZeroIsMinusZero) { EXPECT_EQ(RunFloat(SOp_MathOp::Op_Neg, 0.0f, 0.0f), 0x80000000u); }
TEST(LowPathFloat, NegationKeepsANaNPayload) { EXPECT_EQ(RunOne(SOp_MathOp::Op_Neg, BaseType_Float, 0x7F800123u, 0), 0xFF800123u); }
TEST(LowPathFloat, DivisionIsTrueDivision) { EXPECT_EQ(RunFloat(SOp_MathOp::Op_Div, 1.0f, 3.0f), FloatBits(1.0f / 3.0f)); }
TEST(LowPathFloat, DenormalsAreKept) { EXPECT_EQ(RunOne(SOp_MathOp::Op_Add, BaseType_Float, 0x00000001u, 0x00000001u), 0x00000002u); }

//------------------------------------------------------------------------------------
// What is never written, and broadcasting.

TEST(LowPathGuards, ThreeComponentKernelLeavesTheWordAfterTheStream)
{
	for (EBaseTypeID type : {BaseType_Float3, BaseType_Int3, BaseType_Bool3})
	{
		CAssertCapture capture;
		SInstr in = Same(SOp_MathOp::Op_Add, type, Compiler::MetaType_Stream, Compiler::MetaType_Stream, Compiler::MetaType_Stream, 5);
		CLowRun run(in);
		EXPECT_EQ(run.Storage().Size(run.DstId()), 60u);	// tightly packed: 5 x 12 bytes
		for (u32 i = 0; i < 15; ++i)
			run.Src0()[i] = run.Src1()[i] = 0;
		EXPECT_EQ(run.Run(), 13u);
		EXPECT_EQ(capture.Count(), 0u);
		for (u32 i = 0; i < 15; ++i)
			EXPECT_EQ(run.Dst()[i], 0u) << i;
		EXPECT_EQ(run.Dst()[15], GuardWord(15)) << BaseTypeName(type);
		EXPECT_TRUE(run.CheckDestination());
	}
}

TEST(LowPathBroadcast, ConstantMinusStream)
{
	CAssertCapture capture;
	SInstr in = Same(SOp_MathOp::Op_Sub, BaseType_Float2, Compiler::MetaType_Stream, Compiler::MetaType_Constant, Compiler::MetaType_Stream, 13);
	CLowRun run(in);
	run.Src0()[0] = FloatBits(100.0f);
	run.Src0()[1] = FloatBits(-1.0f);
	for (u32 i = 0; i < 26; ++i)
		run.Src1()[i] = FloatBits(float(i));
	EXPECT_EQ(run.Run(), 13u);
	EXPECT_EQ(capture.Count(), 0u);
	for (u32 i = 0; i < 13; ++i)
	{
		EXPECT_EQ(run.Dst()[2 * i], FloatBits(100.0f - float(2 * i))) << i;
		EXPECT_EQ(run.Dst()[2 * i + 1], FloatBits(-1.0f - float(2 * i + 1))) << i;
	}
	EXPECT_TRUE(run.CheckDestination());
}

TEST(LowPathBroadcast, StreamMinusConstant)
{
	CAssertCapture capture;
	SInstr in = Same(SOp_MathOp::Op_Sub, BaseType_Int3, Compiler::MetaType_Instance, Compiler::MetaType_Stream, Compiler::MetaType_Normal, 12);
	CLowRun run(in);
	for (u32 i = 0; i < 36; ++i)
		run.Src0()[i] = i * 10;
	run.Src1()[0] = 1;
	run.Src1()[1] = 2;
	run.Src1()[2] = u32(-3);
	EXPECT_EQ(run.Run(), 13u);
	EXPECT_EQ(capture.Count(), 0u);
	const s32 c[3] = {1, 2, -3};
	for (u32 i = 0; i < 36; ++i)
		EXPECT_EQ(s32(run.Dst()[i]), s32(i * 10) - c[i % 3]) << i;
	EXPECT_TRUE(run.CheckDestination());
}

TEST(LowPathAliasing, DestinationIsASource)
{
	CAssertCapture capture;
	CRegisterStorage storage(2);
	CCompilerBackendCPUProgram_VM program;
	CRuntimeCPUBindings bindings;
	SCompilerCPUDebugCtx debugCtx;
	CBytecodeExecContext ctx(&program, bindings, storage.Registers(), debugCtx);
	const CVMRegID pos = CVMRegID::Build(0, Compiler::MetaType_Stream, BaseType_Float3);
	const CVMRegID vel = CVMRegID::Build(1, Compiler::MetaType_Stream, BaseType_Float3);
	ASSERT_TRUE(storage.AllocateElements(pos, 9));
	ASSERT_TRUE(storage.AllocateElements(vel, 9));
	storage.Registers().m_StreamDimensions = 9;
	float *p = storage.DataAs<float>(pos);
	float *v = storage.DataAs<float>(vel);
	for (u32 i = 0; i < 27; ++i)
	{
		p[i] = float(i);
		v[i] = 0.5f * float(i);
	}
	u8 bytes[14];
	EXPECT_EQ(EncodeWithCodec(bytes, SOp_MathOp::Op_Add, pos, pos, vel), 13u);
	EXPECT_EQ(CMetaOp_MathOp::_ExecBytecode_Add_Low(ctx, bytes), 13u);
	EXPECT_EQ(capture.Count(), 0u);
	for (u32 i = 0; i < 27; ++i)
		EXPECT_EQ(p[i], 1.5f * float(i)) << i;
}

