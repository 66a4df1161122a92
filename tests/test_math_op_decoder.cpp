// The decoder (cbvm_math_op_decoder.h): every opcode in both forms, every other opcode
// byte, every truncation, unknown operators, walks that meet a problem midway, and the
// texts of its problems and of register ids. Buffers sit at the end of a readable page
// so that a read past them faults.

#include "cbvm_math_op_decoder.h"
#include "cbvm_verifier.h"
#include "bytecode_builder.h"
#include "test_support.h"

#include <gtest/gtest.h>

#include <cstring>
#include <string>
#include <vector>

namespace
{
	using namespace Orvex;
	using CBVM::SMathOpInstruction;
	using Compiler::EMetaType;
	using Compiler::MetaType_Constant;
	using Compiler::MetaType_Instance;
	using Compiler::MetaType_Normal;
	using Compiler::MetaType_Stream;
	using Compiler::IR::SOp_MathOp;
	using EOp = SOp_MathOp::EOp;
	using OxTest::EmitRaw;

	constexpr u32 kAbsent = 0xFFFFFFFFu;

	u32 Id(u32 slot, EMetaType bank, EBaseTypeID type) { return u32(CVMRegID::Build(slot, bank, type).m_RawBits); }

	// Three distinct ids, so that a field read from the wrong place shows.
	const u32 kDst = Id(7, MetaType_Stream, BaseType_Float3);
	const u32 kSrc0 = Id(1, MetaType_Instance, BaseType_Float3);
	const u32 kSrc1 = Id(2097151, MetaType_Constant, BaseType_Float3);

	// The instruction's bytes at the end of a guarded page (the page outlives the test's use).
	const u8 *Guarded(const OxTest::CGuardPage &page, const std::vector<u8> &bytes) { return page.PlaceAtEnd(bytes.data(), bytes.size()); }

	std::string ProblemText(CBVM::EMathOpDecode problem, const SMathOpInstruction &at, u32 size)
	{
		char text[256];
		const u32 length = CBVM::FormatMathOpDecodeProblem(problem, at, size, text, sizeof(text));
		EXPECT_EQ(length, std::strlen(text));
		return text;
	}

	std::string IdText(u32 bits, CBVM::ERegisterIdText form)
	{
		char text[CBVM::kRegisterIdTextSize];
		const u32 length = CBVM::FormatRegisterId(bits, form, text);
		EXPECT_EQ(length, std::strlen(text)) << bits;
		EXPECT_STREQ(CBVM::SRegisterIdText(bits, form).m_Text, text);
		return text;
	}
}

TEST(MathOpDecoder, EveryOperatorInEachOfItsFormsFrames)
{
	OxTest::CGuardPage page;
	ASSERT_TRUE(page.Valid());
	for (u32 op = 0; op < u32(SOp_MathOp::__MaxOps); ++op)
		for (bool generic : {false, true})
		{
			const bool specialised = !generic && op < CMetaOp_MathOp::kSpecializedOpCount;
			if (!generic && !specialised)
				continue;	// only add .. div have the 13-byte form
			const bool binary = SOp_MathOp::OperatorTraits(EOp(op)).m_ParameterCount > 1;
			std::vector<u8> code;
			EmitRaw(code, op, kDst, kSrc0, binary ? kSrc1 : kAbsent, generic);
			const u8 *bytes = Guarded(page, code);

			SMathOpInstruction ins;
			ASSERT_EQ(CBVM::DecodeMathOp(bytes, u32(code.size()), 0, ins), CBVM::MathOpDecode_Ok) << op << " generic " << generic;
			EXPECT_EQ(ins.m_Offset, 0u);
			EXPECT_EQ(u32(ins.m_Opcode), specialised ? 114 + op : 113u);
			EXPECT_EQ(ins.m_Size, specialised ? 13u : 14u);
			EXPECT_EQ(ins.m_Size, code.size());
			EXPECT_EQ(ins.End(), code.size());
			EXPECT_EQ(u32(ins.m_Op), op);
			EXPECT_TRUE(ins.KnownOperator());
			EXPECT_EQ(ins.Generic(), !specialised);
			EXPECT_EQ(ins.Dst(), kDst);
			EXPECT_EQ(ins.Src0(), kSrc0);
			EXPECT_EQ(ins.Src1(), binary ? kSrc1 : kAbsent);
			EXPECT_EQ(ins.HasSrc1(), binary);
			EXPECT_EQ(ins.m_Ids[CBVM::MathOpOperand_Dst], kDst);
			EXPECT_EQ(ins.m_Ids[CBVM::MathOpOperand_Src1], ins.Src1());

			// The unchecked read of the same bytes, and the codec, see the same instruction.
			const SMathOpInstruction read = CBVM::ReadMathOp(bytes);
			EXPECT_EQ(read.m_Op, ins.m_Op);
			EXPECT_EQ(read.m_Size, ins.m_Size);
			EXPECT_EQ(read.Src0(), ins.Src0());
			OxTest::CAssertCapture capture;
			SOp_MathOp::SDesc desc;
			CBVM::SOpcodeDisasReport report;
			EXPECT_EQ(CMetaOp_MathOp::DecodeBytecodeToDesc(bytes, desc, report), ins.m_Size);
			EXPECT_EQ(desc.m_Op, ins.m_Op);
			EXPECT_EQ(u32(desc.m_DstReg.m_RawBits), ins.Dst());
			EXPECT_EQ(capture.Count(), 0u);
		}
}

TEST(MathOpDecoder, AnInstructionLaterInTheBufferKeepsItsOffset)
{
	std::vector<u8> code;
	EmitRaw(code, SOp_MathOp::Op_Mul, kDst, kSrc0, kSrc1);
	EmitRaw(code, SOp_MathOp::Op_Neg, kDst, kSrc0, kAbsent);
	SMathOpInstruction ins;
	ASSERT_EQ(CBVM::DecodeMathOp(code.data(), u32(code.size()), 13, ins), CBVM::MathOpDecode_Ok);
	EXPECT_EQ(ins.m_Offset, 13u);
	EXPECT_EQ(ins.End(), 27u);
	EXPECT_EQ(ins.m_Op, SOp_MathOp::Op_Neg);
	EXPECT_EQ(ins.Dst(), kDst);
	EXPECT_FALSE(ins.HasSrc1());
}

TEST(MathOpDecoder, EveryOtherOpcodeByteIsUnknown)
{
	OxTest::CGuardPage page;
	ASSERT_TRUE(page.Valid());
	u32 unknown = 0;
	for (u32 byte = 0; byte < 256; ++byte)
	{
		if (byte >= 113 && byte <= 117)
			continue;
		++unknown;
		// Alone at the end of the page, and followed by a full instruction's worth of bytes.
		for (u32 size : {1u, 14u})
		{
			std::vector<u8> code(size, u8(CBVM::Opcode_MathOpAdd));
			code[0] = u8(byte);
			SMathOpInstruction ins;
			ins.m_Size = 99;
			ASSERT_EQ(CBVM::DecodeMathOp(Guarded(page, code), size, 0, ins), CBVM::MathOpDecode_UnknownOpcode) << byte;
			EXPECT_EQ(ins.m_Offset, 0u);
			EXPECT_EQ(u32(ins.m_Opcode), byte);
			EXPECT_EQ(ins.m_Size, 0u);
			EXPECT_EQ(ins.Dst(), kAbsent);
		}
	}
	EXPECT_EQ(unknown, 251u);
}

TEST(MathOpDecoder, TruncatedAtEveryLength)
{
	OxTest::CGuardPage page;
	ASSERT_TRUE(page.Valid());
	for (u32 opcode = 113; opcode <= 117; ++opcode)
	{
		std::vector<u8> whole;
		if (opcode == 113)
			EmitRaw(whole, SOp_MathOp::Op_Mod, kDst, kSrc0, kSrc1, true);
		else
			EmitRaw(whole, opcode - 114, kDst, kSrc0, kSrc1);
		ASSERT_EQ(whole[0], opcode);
		const u32 full = opcode == 113 ? 14u : 13u;
		ASSERT_EQ(whole.size(), full);
		for (u32 length = 1; length < full; ++length)
		{
			// After one whole instruction, so the offset and the bytes left are not the same.
			std::vector<u8> code;
			EmitRaw(code, SOp_MathOp::Op_Add, kDst, kSrc0, kSrc1);
			code.insert(code.end(), whole.begin(), whole.begin() + length);
			const u8 *bytes = Guarded(page, code);
			SMathOpInstruction ins;
			ASSERT_EQ(CBVM::DecodeMathOp(bytes, u32(code.size()), 13, ins), CBVM::MathOpDecode_Truncated) << opcode << " " << length;
			EXPECT_EQ(ins.m_Offset, 13u);
			EXPECT_EQ(u32(ins.m_Opcode), opcode);
			EXPECT_EQ(ins.m_Size, full) << "the bytes it needs";
			EXPECT_EQ(ins.Src0(), kAbsent) << "nothing read past the opcode";

			CBVM::CMathOpWalker walk(bytes, u32(code.size()));
			SMathOpInstruction first, stop;
			EXPECT_TRUE(walk.Next(first));
			EXPECT_FALSE(walk.Next(stop));
			EXPECT_EQ(walk.Problem(), CBVM::MathOpDecode_Truncated);
			EXPECT_EQ(stop.m_Offset, 13u);
			EXPECT_EQ(walk.Offset(), 13u);
			EXPECT_EQ(ProblemText(walk.Problem(), stop, u32(code.size())),
					  "truncated instruction: opcode " + std::to_string(opcode) + " (" + CBVM::OpcodeName(opcode) + ") needs " + std::to_string(full) + " bytes, " +
						  std::to_string(length) + " left");
		}
	}
}

TEST(MathOpDecoder, AnOperatorPastTheSetIsFramedAndReported)
{
	OxTest::CGuardPage page;
	ASSERT_TRUE(page.Valid());
	for (u32 op : {u32(SOp_MathOp::__MaxOps), 20u, 200u, 255u})
	{
		std::vector<u8> code;
		EmitRaw(code, op, kDst, kSrc0, kSrc1, true);
		SMathOpInstruction ins;
		ASSERT_EQ(CBVM::DecodeMathOp(Guarded(page, code), u32(code.size()), 0, ins), CBVM::MathOpDecode_UnknownOperator) << op;
		EXPECT_FALSE(ins.KnownOperator());
		EXPECT_EQ(u32(ins.m_Op), op);
		EXPECT_EQ(ins.m_Size, 14u);
		EXPECT_EQ(ins.Src1(), kSrc1);
		EXPECT_EQ(ProblemText(CBVM::MathOpDecode_UnknownOperator, ins, u32(code.size())), "unknown operator " + std::to_string(op) + " (operators are 0 to 18)");
	}
}

TEST(MathOpDecoder, AWalkGoesPastAnUnknownOperatorAndStopsAtAnUnknownOpcode)
{
	std::vector<u8> code;
	EmitRaw(code, SOp_MathOp::Op_Add, kDst, kSrc0, kSrc1);					// 0
	EmitRaw(code, SOp_MathOp::Op_Mod, kDst, kSrc0, kSrc1, true);				// 13
	EmitRaw(code, 200, kDst, kSrc0, kSrc1, true);								// 27: unknown operator
	EmitRaw(code, SOp_MathOp::Op_Neg, kSrc0, kDst, kAbsent);					// 41
	code.push_back(u8(CBVM::Opcode_Broadcast));								// 55: another meta-op
	EmitRaw(code, SOp_MathOp::Op_Sub, kDst, kSrc0, kSrc1);					// never reached
	OxTest::CGuardPage page;
	ASSERT_TRUE(page.Valid());
	const u8 *bytes = Guarded(page, code);

	CBVM::CMathOpWalker walk(bytes, u32(code.size()));
	std::vector<SMathOpInstruction> seen;
	SMathOpInstruction ins;
	while (walk.Next(ins))
		seen.push_back(ins);
	ASSERT_EQ(seen.size(), 4u);
	const u32 offsets[4] = {0, 13, 27, 41};
	const u32 sizes[4] = {13, 14, 14, 14};
	const u32 ops[4] = {u32(SOp_MathOp::Op_Add), u32(SOp_MathOp::Op_Mod), 200, u32(SOp_MathOp::Op_Neg)};
	for (u32 i = 0; i < 4; ++i)
	{
		EXPECT_EQ(seen[i].m_Offset, offsets[i]) << i;
		EXPECT_EQ(seen[i].m_Size, sizes[i]) << i;
		EXPECT_EQ(u32(seen[i].m_Op), ops[i]) << i;
	}
	EXPECT_FALSE(seen[2].KnownOperator());
	EXPECT_EQ(seen[3].Dst(), kSrc0);
	EXPECT_EQ(seen[3].Src0(), kDst);

	EXPECT_EQ(walk.Problem(), CBVM::MathOpDecode_UnknownOpcode);
	EXPECT_EQ(ins.m_Offset, 55u);
	EXPECT_EQ(u32(ins.m_Opcode), u32(CBVM::Opcode_Broadcast));
	EXPECT_EQ(walk.Offset(), 55u);
	EXPECT_FALSE(walk.Next(ins)) << "a walk stays stopped";
	EXPECT_EQ(walk.Offset(), 55u);
	EXPECT_EQ(ProblemText(walk.Problem(), ins, u32(code.size())), "opcode 112 (Broadcast) is not a math-op instruction (113 to 117)");

	// The verifier walks the same way: four instructions, the operator and the opcode reported where they are.
	CBVM::SVerifyProblem problems[8];
	const CBVM::SVerifyResult result = CBVM::CVerifier::VerifyStructure(bytes, u32(code.size()), problems, 8);
	EXPECT_EQ(result.m_Instructions, 4u);
	ASSERT_GE(result.Problems(), 2u);
	ASSERT_LE(result.Problems(), 8u);
	const CBVM::SVerifyProblem &last = problems[result.Problems() - 1];
	EXPECT_EQ(last.m_Offset, 55u);
	EXPECT_EQ(last.m_Code, CBVM::VerifyError_UnknownOpcode);
	EXPECT_STREQ(last.m_Message, "opcode 112 (Broadcast) is not a math-op instruction (113 to 117)");
	bool operatorReported = false;
	for (u32 i = 0; i < result.Problems(); ++i)
		operatorReported = operatorReported || (problems[i].m_Offset == 27 && problems[i].m_Code == CBVM::VerifyError_UnknownOperator &&
												std::string(problems[i].m_Message) == "unknown operator 200 (operators are 0 to 18)");
	EXPECT_TRUE(operatorReported);
}

TEST(MathOpDecoder, AWalkToTheEndReportsNoProblem)
{
	std::vector<u8> code;
	for (u32 op = 0; op < u32(SOp_MathOp::__MaxOps); ++op)
		EmitRaw(code, op, kDst, kSrc0, kSrc1);
	CBVM::CMathOpWalker walk(code.data(), u32(code.size()));
	SMathOpInstruction ins;
	u32 count = 0, end = 0;
	while (walk.Next(ins))
	{
		EXPECT_EQ(ins.m_Offset, end);
		EXPECT_EQ(u32(ins.m_Op), count);
		end = ins.End();
		++count;
	}
	EXPECT_EQ(count, u32(SOp_MathOp::__MaxOps));
	EXPECT_EQ(end, code.size());
	EXPECT_EQ(walk.Problem(), CBVM::MathOpDecode_Ok);
	EXPECT_EQ(walk.Offset(), code.size());

	CBVM::CMathOpWalker empty(nullptr, 0);
	EXPECT_FALSE(empty.Next(ins));
	EXPECT_EQ(empty.Problem(), CBVM::MathOpDecode_Ok);
}

TEST(MathOpDecoder, ProblemTexts)
{
	SMathOpInstruction at;
	at.m_Offset = 40;
	at.m_Opcode = 7;
	EXPECT_EQ(ProblemText(CBVM::MathOpDecode_UnknownOpcode, at, 100), "unknown opcode 7 (math-op opcodes are 113 to 117)");
	at.m_Opcode = 118;
	EXPECT_EQ(ProblemText(CBVM::MathOpDecode_UnknownOpcode, at, 100), "opcode 118 (Madd) is not a math-op instruction (113 to 117)");
	EXPECT_EQ(ProblemText(CBVM::MathOpDecode_Ok, at, 100), "");

	// Cut to the caller's capacity, terminated.
	char small[8];
	EXPECT_EQ(CBVM::FormatMathOpDecodeProblem(CBVM::MathOpDecode_UnknownOpcode, at, 100, small, sizeof(small)), 7u);
	EXPECT_STREQ(small, "opcode ");
}

TEST(MathOpDecoder, RegisterIdTexts)
{
	using CBVM::RegisterIdText_Exact;
	using CBVM::RegisterIdText_Fields;
	for (CBVM::ERegisterIdText form : {RegisterIdText_Fields, RegisterIdText_Exact})
	{
		EXPECT_EQ(IdText(Id(3, MetaType_Stream, BaseType_Float3), form), "stream.3:float3");
		EXPECT_EQ(IdText(Id(0, MetaType_Constant, BaseType_I32), form), "constant.0:i32");
		EXPECT_EQ(IdText(Id(12, MetaType_Normal, BaseType_Bool4), form), "normal.12:bool4");
		EXPECT_EQ(IdText(Id(2097151, MetaType_Instance, BaseType_Quaternion), form), "instance.2097151:quaternion") << "the longest text fits";
		EXPECT_EQ(IdText(0x00000005u, form), "constant.5:evolved") << "type field 0";
	}

	// Ill-formed (bit 30 set): the fields as they read, or the bits.
	EXPECT_EQ(IdText(0x62600001u, RegisterIdText_Fields), "stream.1:float3");
	EXPECT_EQ(IdText(0x62600001u, RegisterIdText_Exact), "0x62600001");
	// A type field with no type (40).
	EXPECT_EQ(IdText(0x28000003u, RegisterIdText_Fields), "constant.3:type40");
	EXPECT_EQ(IdText(0x28000003u, RegisterIdText_Exact), "0x28000003");
	// The meta bit: not part of the text, so only the bits name the id exactly.
	const u32 meta = Id(4, MetaType_Normal, BaseType_Float) | (1u << Compiler::IR::CRegID::RegisterMetaShift);
	EXPECT_EQ(IdText(meta, RegisterIdText_Fields), "normal.4:float");
	EXPECT_EQ(IdText(meta, RegisterIdText_Exact), "0x20a00004");
	// Source 1 absent.
	EXPECT_EQ(IdText(kAbsent, RegisterIdText_Exact), "-");
	EXPECT_EQ(IdText(kAbsent, RegisterIdText_Fields), "stream.2097151:type63");

	EXPECT_TRUE(CBVM::IsPlainRegisterId(Id(9, MetaType_Stream, BaseType_Int4)));
	EXPECT_FALSE(CBVM::IsPlainRegisterId(meta));
	EXPECT_FALSE(CBVM::IsPlainRegisterId(0x62600001u));
}
