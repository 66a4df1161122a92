// Operator set, opcodes and the bytecode encoder / decoder.

#include "cbvm_meta_ops.h"
#include "test_support.h"

#include <gtest/gtest.h>

#include <cstring>
#include <iostream>
#include <random>

using namespace Orvex;
using Compiler::IR::CRegID;
using Compiler::IR::SOp_MathOp;
using OxTest::CAssertCapture;
using EOp = SOp_MathOp::EOp;
using SDesc = SOp_MathOp::SDesc;

namespace
{
	SDesc MakeDesc(EOp op, CRegID dst, CRegID src0, CRegID src1)
	{
		SDesc desc;
		desc.m_Op = op;
		desc.m_DstReg = dst;
		desc.m_SrcReg0 = src0;
		desc.m_SrcReg1 = src1;
		return desc;
	}

	u32 ReadU32(const u8 *p)
	{
		return u32(p[0]) | (u32(p[1]) << 8) | (u32(p[2]) << 16) | (u32(p[3]) << 24);
	}

	const CRegID kDst = CRegID::Build(1, Compiler::MetaType_Stream, BaseType_Float3);
	const CRegID kSrc0 = CRegID::Build(2, Compiler::MetaType_Instance, BaseType_Float3);
	const CRegID kSrc1 = CRegID::Build(3, Compiler::MetaType_Constant, BaseType_Float3);
}

TEST(Operators, EnumerationAndTraits)
{
	EXPECT_EQ(int(SOp_MathOp::Op_Add), 0);
	EXPECT_EQ(int(SOp_MathOp::Op_Mod), 4);
	EXPECT_EQ(int(SOp_MathOp::Op_Bitwise_ShiftRightLogical), 8);
	EXPECT_EQ(int(SOp_MathOp::Op_Cmp_GreaterOrEqual), 16);
	EXPECT_EQ(int(SOp_MathOp::__MaxOps), 19);
	for (int op = 0; op < SOp_MathOp::__MaxOps; ++op)
	{
		const bool unary = op == SOp_MathOp::Op_Neg || op == SOp_MathOp::Op_Bitwise_Not;
		EXPECT_EQ(SOp_MathOp::OperatorTraits(EOp(op)).m_ParameterCount, unary ? 1 : 2) << op;
		EXPECT_EQ(SOp_MathOp::OperatorTraits(EOp(op)).FloatSupported(), op < 6 || op > 12) << op;
		EOp back;
		ASSERT_TRUE(SOp_MathOp::OperatorFromName(SOp_MathOp::OperatorTraits(EOp(op)).m_Name, back));
		EXPECT_EQ(int(back), op);
	}
	EOp unused;
	EXPECT_FALSE(SOp_MathOp::OperatorFromName("fma", unused));
}

TEST(Operators, AnyOperatorValueIsSafe)
{
	// The operator byte of the generic form holds 0..255; an EOp may hold anything.
	for (int op = SOp_MathOp::__MaxOps; op < 256; ++op)
	{
		EXPECT_EQ(SOp_MathOp::OperatorTraits(EOp(op)).m_ParameterCount, 2) << op;
		EXPECT_STREQ(SOp_MathOp::OperatorTraits(EOp(op)).m_Name, "?");
	}
	EXPECT_EQ(SOp_MathOp::OperatorTraits(EOp(-1)).m_ParameterCount, 2);
	EXPECT_EQ(SOp_MathOp::OperatorTraits(EOp(0x7FFFFFFF)).m_ParameterCount, 2);
}

TEST(Opcodes, ValuesAndNames)
{
	EXPECT_EQ(int(CBVM::__FirstOpcode), 105);
	EXPECT_EQ(int(CBVM::Opcode_MathOp), 113);
	EXPECT_EQ(int(CBVM::Opcode_MathOpDiv), 117);
	EXPECT_EQ(int(CBVM::Opcode_Select), 123);
	EXPECT_STREQ(CBVM::OpcodeName(113), "MathOp");
	EXPECT_STREQ(CBVM::OpcodeName(116), "MathOpMul");
	EXPECT_STREQ(CBVM::OpcodeName(105), "ExternalLoad");
	EXPECT_STREQ(CBVM::OpcodeName(124), "FunctionCall");
	EXPECT_STREQ(CBVM::OpcodeName(104), "?");
	EXPECT_STREQ(CBVM::OpcodeName(125), "?");
	EXPECT_STREQ(CBVM::OpcodeName(0xFFFFFFFF), "?");
}

TEST(Codec, Sizes)
{
	EXPECT_EQ(CMetaOp_MathOp::IP_Offset, 14u);
	EXPECT_EQ(CMetaOp_MathOp::EncodingSize_Generic(), 14u);
	EXPECT_EQ(CMetaOp_MathOp::EncodingSize_Specialized(), 13u);
	for (int op = 0; op < 4; ++op)
		EXPECT_EQ(CMetaOp_MathOp::EncodingSize(EOp(op)), 13u);
	for (int op = 4; op < 300; ++op)
		EXPECT_EQ(CMetaOp_MathOp::EncodingSize(EOp(op)), 14u);
	EXPECT_EQ(CMetaOp_MathOp::EncodingSize(EOp(-1)), 14u) << "read as unsigned";
}

TEST(Codec, DivIsThirteenBytesModIsFourteen)
{
	CAssertCapture capture;
	u8 bytes[14];
	EXPECT_EQ(CMetaOp_MathOp::EncodeDescToBytecode(bytes, MakeDesc(SOp_MathOp::Op_Div, kDst, kSrc0, kSrc1)), 13u);
	EXPECT_EQ(bytes[0], 117);
	EXPECT_EQ(CMetaOp_MathOp::EncodeDescToBytecode(bytes, MakeDesc(SOp_MathOp::Op_Mod, kDst, kSrc0, kSrc1)), 14u);
	EXPECT_EQ(bytes[0], 113);
	EXPECT_EQ(bytes[1], 4);
	EXPECT_EQ(capture.Count(), 0u);
}

TEST(Codec, ByteLayoutOfBothForms)
{
	CAssertCapture capture;
	const CRegID dst(0x21600011), src0(0x22234567), src1(0x23A00002);
	u8 bytes[16];
	std::memset(bytes, 0xCD, sizeof(bytes));
	ASSERT_EQ(CMetaOp_MathOp::EncodeDescToBytecode(bytes, MakeDesc(SOp_MathOp::Op_Sub, dst, src0, src1)), 13u);
	const u8 specialised[13] = {115, 0x11, 0x00, 0x60, 0x21, 0x67, 0x45, 0x23, 0x22, 0x02, 0x00, 0xA0, 0x23};
	EXPECT_EQ(std::memcmp(bytes, specialised, 13), 0);
	EXPECT_EQ(bytes[13], 0xCD) << "a 13-byte instruction writes 13 bytes";

	ASSERT_EQ(CMetaOp_MathOp::EncodeDescToBytecode(bytes, MakeDesc(SOp_MathOp::Op_Cmp_NotEqual, dst, src0, src1)), 14u);
	const u8 generic[14] = {113, 18, 0x11, 0x00, 0x60, 0x21, 0x67, 0x45, 0x23, 0x22, 0x02, 0x00, 0xA0, 0x23};
	EXPECT_EQ(std::memcmp(bytes, generic, 14), 0);
	EXPECT_EQ(bytes[14], 0xCD);
	EXPECT_EQ(capture.Count(), 0u);
}

TEST(Codec, UnaryOperatorStoresNoSecondSource)
{
	CAssertCapture capture;
	u8 bytes[14];
	ASSERT_EQ(CMetaOp_MathOp::EncodeDescToBytecode(bytes, MakeDesc(SOp_MathOp::Op_Neg, kDst, kSrc0, CRegID())), 14u);
	EXPECT_EQ(bytes[1], 5);
	EXPECT_EQ(ReadU32(bytes + 10), 0xFFFFFFFFu);

	SDesc desc;
	CBVM::SOpcodeDisasReport report;
	EXPECT_EQ(CMetaOp_MathOp::DecodeBytecodeToDesc(bytes, desc, report), 14u);
	EXPECT_EQ(desc.m_Op, SOp_MathOp::Op_Neg);
	EXPECT_FALSE(desc.m_SrcReg1.Valid());
	EXPECT_EQ(desc.m_SrcReg1.m_RawBits, ~u64(0)) << "all 64 bits set, not 0x00000000FFFFFFFF";
	EXPECT_EQ(capture.Count(), 0u);
}

TEST(Codec, InvalidRegisterBecomesAllOnes)
{
	CAssertCapture capture;
	const u8 bytes[13] = {114, 0xFF, 0xFF, 0xFF, 0xFF, 0x05, 0, 0x20, 0x20, 0x05, 0, 0x20, 0x20};
	SDesc desc;
	CBVM::SOpcodeDisasReport report;
	CMetaOp_MathOp::DecodeBytecodeToDesc(bytes, desc, report);
	EXPECT_EQ(desc.m_DstReg.m_RawBits, ~u64(0));
	EXPECT_EQ(desc.m_SrcReg0.m_RawBits, 0x20200005ull) << "zero-extended";
	EXPECT_EQ(report.m_MetaType, Compiler::MetaType_Transparent) << "an invalid destination has no bank";
}

TEST(Codec, GenericOpcodeCarriesAnyOperator)
{
	CAssertCapture capture;
	u8 bytes[14] = {113, 2};
	const u32 id = u32(CRegID::Build(4, Compiler::MetaType_Stream, BaseType_I32).m_RawBits);
	for (int i = 0; i < 3; ++i)
		std::memcpy(bytes + 2 + 4 * i, &id, 4);
	CBVM::SMetaOp_GenericDesc generic;
	generic.m_SrcInstructionID.m_Value = 1234;
	CBVM::SOpcodeDisasReport report;
	report.m_BytecodeOffset = 777;
	EXPECT_EQ(CMetaOp_MathOp::DecodeBytecodeToGeneric(bytes, generic, report), 14u);
	EXPECT_EQ(generic.m_DstOpcode, CBVM::Opcode_MathOp);
	EXPECT_EQ(generic.m_Desc.m_OpClass, Compiler::IR::SOp_Generic::OpClass_MathOp);
	EXPECT_EQ(generic.m_Desc.m_Operator, u32(SOp_MathOp::Op_Mul));
	EXPECT_EQ(generic.m_Desc.m_SourceCount, 2u);
	EXPECT_EQ(generic.m_Desc.m_DstReg.m_RawBits, u64(id));
	EXPECT_EQ(generic.m_Desc.m_SrcRegs[1].m_RawBits, u64(id));
	EXPECT_FALSE(generic.m_Desc.m_SrcRegs[2].Valid());
	EXPECT_EQ(generic.m_SrcInstructionID.m_Value, 1234u) << "not the decoder's";
	EXPECT_EQ(report.m_BytecodeOffset, 777u) << "not the decoder's";
	EXPECT_EQ(report.m_Opcode, CBVM::Opcode_MathOp);
	EXPECT_EQ(report.m_InstructionSize, 14u);
	EXPECT_EQ(report.m_MetaType, Compiler::MetaType_Stream);
	EXPECT_EQ(capture.Count(), 0u);
}

TEST(Codec, UnexpectedOpcodesDecodeAsDivisionAndAreReported)
{
	const char *kOpcodeCheck = "m_Opcode == CBVM::Opcode_MathOp || m_Opcode == CBVM::Opcode_MathOpAdd || m_Opcode == CBVM::Opcode_MathOpSub || m_Opcode == CBVM::Opcode_MathOpMul || m_Opcode == CBVM::Opcode_MathOpDiv";
	for (int opcode : {0, 1, 105, 112, 118, 124, 200, 255})
	{
		CAssertCapture capture;
		u8 bytes[13] = {u8(opcode)};
		const u32 id = u32(CRegID::Build(1, Compiler::MetaType_Normal, BaseType_Float).m_RawBits);
		for (int i = 0; i < 3; ++i)
			std::memcpy(bytes + 1 + 4 * i, &id, 4);
		SDesc desc;
		CBVM::SOpcodeDisasReport report;
		report.m_BytecodeOffset = 42;
		EXPECT_EQ(CMetaOp_MathOp::DecodeBytecodeToDesc(bytes, desc, report), 13u) << opcode;
		EXPECT_EQ(desc.m_Op, SOp_MathOp::Op_Div) << opcode;
		EXPECT_EQ(int(report.m_Opcode), opcode);
		EXPECT_EQ(report.m_InstructionSize, 13u);
		EXPECT_EQ(report.m_BytecodeOffset, 42u);
		EXPECT_EQ(desc.m_DstReg.m_RawBits, u64(id));
		EXPECT_EQ(capture.Count(kOpcodeCheck), 1u) << opcode;
		EXPECT_EQ(capture.Count(), 1u) << opcode;
	}
	CAssertCapture capture;
	for (int opcode = 113; opcode <= 117; ++opcode)
	{
		u8 bytes[14] = {u8(opcode), 0};
		const u32 id = u32(CRegID::Build(1, Compiler::MetaType_Normal, BaseType_Float).m_RawBits);
		for (int i = 0; i < 3; ++i)
			std::memcpy(bytes + (opcode == 113 ? 2 : 1) + 4 * i, &id, 4);
		SDesc desc;
		CBVM::SOpcodeDisasReport report;
		CMetaOp_MathOp::DecodeBytecodeToDesc(bytes, desc, report);
		EXPECT_EQ(int(desc.m_Op), opcode == 113 ? 0 : opcode - 114);
	}
	EXPECT_EQ(capture.Count(), 0u);
}

TEST(Codec, DecoderChecksSourceTypes)
{
	CAssertCapture capture;
	u8 bytes[14];
	const CRegID intSrc = CRegID::Build(3, Compiler::MetaType_Stream, BaseType_I32);
	CMetaOp_MathOp::EncodeDescToBytecode(bytes, MakeDesc(SOp_MathOp::Op_Add, kDst, kSrc0, intSrc));
	SDesc desc;
	CBVM::SOpcodeDisasReport report;
	CMetaOp_MathOp::DecodeBytecodeToDesc(bytes, desc, report);
	EXPECT_EQ(capture.Count("!m_SrcReg1.Valid() || m_SrcReg1.ToType() == m_SrcReg0.ToType()"), 1u);
	EXPECT_EQ(desc.m_SrcReg1, intSrc) << "reported, decoded all the same";

	// An ill-formed id (bit 31 set) is reported by the IR id's own accessor.
	capture.Clear();
	const CRegID illFormed(0x80000000ull | u64(kSrc0.m_RawBits));
	CMetaOp_MathOp::EncodeDescToBytecode(bytes, MakeDesc(SOp_MathOp::Op_Add, kDst, illFormed, kSrc1));
	CMetaOp_MathOp::DecodeBytecodeToDesc(bytes, desc, report);
	EXPECT_EQ(capture.Count("_ValidAndWellFormed()"), 1u);
	EXPECT_EQ(desc.m_SrcReg0, illFormed);
}

TEST(Codec, EncoderChecks)
{
	CAssertCapture capture;
	u8 bytes[14];
	const char *kValidCheck = "desc.m_DstReg.Valid() && desc.m_SrcReg0.Valid()";
	const char *kCountCheck = "desc.m_SrcReg1.Valid() ^ (Compiler::IR::SOp_MathOp::OperatorTraits(desc.m_Op).m_ParameterCount <= 1)";
	EXPECT_EQ(CMetaOp_MathOp::EncodeDescToBytecode(bytes, MakeDesc(SOp_MathOp::Op_Add, CRegID(), kSrc0, kSrc1)), 13u);
	EXPECT_EQ(capture.Count(kValidCheck), 1u);
	CMetaOp_MathOp::EncodeDescToBytecode(bytes, MakeDesc(SOp_MathOp::Op_Mul, kDst, kSrc0, CRegID()));	// binary without src1
	EXPECT_EQ(capture.Count(kCountCheck), 1u);
	CMetaOp_MathOp::EncodeDescToBytecode(bytes, MakeDesc(SOp_MathOp::Op_Bitwise_Not, kDst, kSrc0, kSrc1));	// unary with src1
	EXPECT_EQ(capture.Count(kCountCheck), 2u);
	EXPECT_EQ(capture.Count(), 3u);
	// Every report names the codec's source file.
	for (const OxTest::SCapturedReport &r : capture.Reports())
		EXPECT_NE(r.m_File.find("cbvm_math_op_codec.cpp"), std::string::npos) << r.m_File;
}

TEST(Codec, OperatorBeyondAByteKeepsItsLowByte)
{
	CAssertCapture capture;
	u8 bytes[14];
	EXPECT_EQ(CMetaOp_MathOp::EncodeDescToBytecode(bytes, MakeDesc(EOp(0x10D), kDst, kSrc0, kSrc1)), 14u);
	EXPECT_EQ(bytes[0], 113);
	EXPECT_EQ(bytes[1], 0x0D);
	EXPECT_EQ(capture.Count(), 0u);
}

TEST(Codec, RoundTripOfEveryOperatorWithRandomRegisters)
{
	const u32 seed = 20261122;
	std::cout << "[ seed ] Codec round trip seed = " << seed << std::endl;
	std::mt19937 rng(seed);
	CAssertCapture capture;
	for (int op = 0; op < SOp_MathOp::__MaxOps; ++op)
	{
		for (int trial = 0; trial < 500; ++trial)
		{
			SCOPED_TRACE("op " + std::to_string(op) + " trial " + std::to_string(trial));
			auto randomReg = [&](EBaseTypeID type) {
				const u32 slot = rng() & CRegID::RegisterSlotMask;
				const auto bank = Compiler::EMetaType(1 + rng() % 4);
				return CRegID::Build(slot, bank, type, (rng() & 1) != 0);
			};
			const auto type = EBaseTypeID(s32(rng() % kBaseTypeTableSize) - 1);
			const bool unary = SOp_MathOp::OperatorTraits(EOp(op)).m_ParameterCount == 1;
			// One draw per statement: a call's arguments are evaluated in an order of the
			// compiler's choosing (right to left by GCC on x86-64, left to right on AArch64),
			// and a seed must give the same trial on every machine.
			const CRegID dst = randomReg(EBaseTypeID(s32(rng() % kBaseTypeTableSize) - 1));
			const CRegID src0 = randomReg(type);
			const CRegID src1 = unary ? CRegID() : randomReg(type);
			const SDesc in = MakeDesc(EOp(op), dst, src0, src1);

			u8 bytes[16];
			std::memset(bytes, 0xAB, sizeof(bytes));
			const u32 written = CMetaOp_MathOp::EncodeDescToBytecode(bytes, in);
			ASSERT_EQ(written, CMetaOp_MathOp::EncodingSize(EOp(op)));
			ASSERT_EQ(bytes[written], 0xAB);

			SDesc out;
			CBVM::SOpcodeDisasReport report;
			ASSERT_EQ(CMetaOp_MathOp::DecodeBytecodeToDesc(bytes, out, report), written);
			EXPECT_EQ(out.m_Op, in.m_Op);
			EXPECT_EQ(out.m_DstReg, in.m_DstReg);
			EXPECT_EQ(out.m_SrcReg0, in.m_SrcReg0);
			EXPECT_EQ(out.m_SrcReg1, in.m_SrcReg1);
			EXPECT_EQ(report.m_InstructionSize, written);
			EXPECT_EQ(report.m_MetaType, in.m_DstReg.ToBank());
			EXPECT_EQ(int(report.m_Opcode), op < 4 ? 114 + op : 113);

			// Re-encoding the decoded description gives the same bytes.
			u8 again[16];
			std::memset(again, 0xAB, sizeof(again));
			ASSERT_EQ(CMetaOp_MathOp::EncodeDescToBytecode(again, out), written);
			EXPECT_EQ(std::memcmp(bytes, again, sizeof(bytes)), 0);
		}
	}
	EXPECT_EQ(capture.Count(), 0u);
}
