// The bytecode verifier (cbvm_verifier.h): what it accepts runs on both paths with no
// assertion report and no write outside its registers; it never reads past the
// bytecode; problems are counted past the output's capacity; the reported forms are
// errors or warnings as asked; the oxvm commands print its findings. The corpus of
// malformed programs is in test_verifier_corpus.cpp.

#include "cbvm_interpreter.h"
#include "cbvm_register_storage.h"
#include "cbvm_verifier.h"
#include "bytecode_builder.h"
#include "oxvm_runner.h"
#include "test_support.h"

#include <gtest/gtest.h>

#include <random>
#include <string>
#include <vector>

namespace
{
	using namespace Orvex;
	using Compiler::EMetaType;
	using Compiler::MetaType_Constant;
	using Compiler::MetaType_Instance;
	using Compiler::MetaType_Normal;
	using Compiler::MetaType_Stream;
	using Compiler::IR::SOp_MathOp;
	using EOp = SOp_MathOp::EOp;

	constexpr u8 kSentinel = 0xA5;

	using OxTest::EmitRaw;
	// Raw instruction bytes: any ids, any operator (the encoder would assert on bad ones).
	void Emit(std::vector<u8> &code, u32 op, u32 dst, u32 src0, u32 src1 = 0xFFFFFFFFu, bool generic = false) { EmitRaw(code, op, dst, src0, src1, generic); }

	u32 Id(u32 slot, EMetaType bank, EBaseTypeID type) { return u32(CVMRegID::Build(slot, bank, type).m_RawBits); }

	bool IsFloat(EBaseTypeID type) { return (type >= BaseType_Float && type <= BaseType_Float4) || type == BaseType_Quaternion; }
	bool IsPerElement(EMetaType bank) { return bank >= MetaType_Instance; }

	// The padding of every register (between its size and its capacity) set to kSentinel.
	void MarkPadding(const CRegisterStorage &storage, u32 slots)
	{
		for (u32 e = 0; e < slots * 4; ++e)
		{
			const CVMRegID id = CVMRegID::Build(e / 4, EMetaType(e % 4 + 1), BaseType_I32);
			if (u8 *data = storage.DataAs<u8>(id))
				std::fill(data + storage.Size(id), data + storage.Capacity(id), kSentinel);
		}
	}

	// Number of padding bytes that no longer hold kSentinel.
	u32 PaddingWritten(const CRegisterStorage &storage, u32 slots)
	{
		u32 written = 0;
		for (u32 e = 0; e < slots * 4; ++e)
		{
			const CVMRegID id = CVMRegID::Build(e / 4, EMetaType(e % 4 + 1), BaseType_I32);
			if (const u8 *data = storage.DataAs<u8>(id))
				for (u32 i = storage.Size(id); i < storage.Capacity(id); ++i)
					written += data[i] != kSentinel ? 1 : 0;
		}
		return written;
	}

	CBVM::SRunResult RunPath(CRegisterStorage &storage, const std::vector<u8> &code, CBVM::EExecPath path)
	{
		CCompilerBackendCPUProgram_VM program;
		CRuntimeCPUBindings bindings;
		SCompilerCPUDebugCtx debugCtx;
		const CBytecodeExecContext context(&program, bindings, storage.Registers(), debugCtx);
		return CBVM::CInterpreter::Run(context, code.data(), u32(code.size()), path);
	}

	// Runs on both paths (one after the other, on the same registers) and expects every
	// instruction run, no report and no byte of padding written.
	void ExpectCleanRuns(CRegisterStorage &storage, u32 slots, const std::vector<u8> &code, u32 instructions, const std::string &what)
	{
		MarkPadding(storage, slots);
		OxTest::CAssertCapture capture;
		for (CBVM::EExecPath path : {CBVM::ExecPath_Standard, CBVM::ExecPath_Low})
		{
			const CBVM::SRunResult result = RunPath(storage, code, path);
			EXPECT_EQ(result.m_Status, CBVM::RunStatus_Ok) << what;
			EXPECT_EQ(result.m_Executed, instructions) << what;
		}
		EXPECT_EQ(capture.Count(), 0u) << what << (capture.Count() != 0 ? ": " + capture.Reports()[0].m_Expression : std::string());
		EXPECT_EQ(PaddingWritten(storage, slots), 0u) << what;
	}

	const EBaseTypeID kKernelTypes[] = {BaseType_Float, BaseType_Float2, BaseType_Float3, BaseType_Float4, BaseType_Quaternion, BaseType_I32, BaseType_Int2,
										BaseType_Int3, BaseType_Int4, BaseType_Bool, BaseType_Bool2, BaseType_Bool3, BaseType_Bool4};
	const EMetaType kBanks[] = {MetaType_Constant, MetaType_Normal, MetaType_Instance, MetaType_Stream};

	TEST(Verifier, AcceptsEveryOperatorTypeAndBankAndBothPathsRunItCleanly)
	{
		// Slot t holds type t in all four banks, slot types + t too: the second sources, which
		// no instruction writes (a shift count the program writes could not be checked). A
		// stream of 37 elements: whole blocks and a tail.
		constexpr u32 kStream = 37;
		const u32 types = u32(sizeof(kKernelTypes) / sizeof(kKernelTypes[0]));
		const u32 slots = 2 * types;
		CRegisterStorage storage(slots);
		storage.Registers().m_StreamDimensions = kStream;
		for (u32 t = 0; t < slots; ++t)
			for (EMetaType bank : kBanks)
			{
				const CVMRegID id = CVMRegID::Build(t, bank, kKernelTypes[t % types]);
				ASSERT_TRUE(storage.AllocateElements(id, IsPerElement(bank) ? kStream : 1));
				u32 *words = storage.DataAs<u32>(id);
				for (u32 w = 0; w < storage.Size(id) / 4; ++w)
					words[w] = IsFloat(kKernelTypes[t % types]) ? 0x3FC00000u + (w << 12) : (w * 7 + t) % 31;	// floats near 1.5, counts below 32
			}

		std::vector<u8> code;
		u32 instructions = 0;
		for (u32 t = 0; t < types; ++t)
			for (u32 op = 0; op < SOp_MathOp::__MaxOps; ++op)
			{
				const SOp_MathOp::STraits &traits = SOp_MathOp::OperatorTraits(EOp(op));
				if (IsFloat(kKernelTypes[t]) && !traits.FloatSupported())
					continue;
				for (u32 form = 0; form < 16; ++form)
				{
					const EMetaType dstBank = kBanks[form % 4], src0Bank = kBanks[(form / 4) % 4], src1Bank = kBanks[(form + 1) % 4];
					const bool broadcast = IsPerElement(dstBank);
					// The three forms the standard path reports are refused (tested below).
					if (IsFloat(kKernelTypes[t]) && broadcast && op == SOp_MathOp::Op_Neg && !IsPerElement(src0Bank))
						continue;
					if (IsFloat(kKernelTypes[t]) && broadcast && op == SOp_MathOp::Op_Mod && !IsPerElement(src0Bank) && !IsPerElement(src1Bank))
						continue;
					const u32 src1 = traits.m_ParameterCount > 1 ? Id(types + t, src1Bank, kKernelTypes[t]) : 0xFFFFFFFFu;
					Emit(code, op, Id(t, dstBank, kKernelTypes[t]), Id(t, src0Bank, kKernelTypes[t]), src1, form == 5);
					++instructions;
				}
			}
		CBVM::SVerifyProblem problems[4];
		const CBVM::SVerifyResult result = CBVM::CVerifier::Verify(code.data(), u32(code.size()), storage, problems, 4);
		EXPECT_EQ(result.Problems(), 0u) << problems[0].m_Offset << ": " << problems[0].m_Message;
		EXPECT_EQ(result.m_Instructions, instructions);
		EXPECT_GT(instructions, 3000u);
		ExpectCleanRuns(storage, slots, code, instructions, "every operator, type and bank");
	}

	// Random register files and random, mostly plausible instructions: whatever the
	// verifier accepts without a problem runs cleanly on both paths. Under the
	// AddressSanitizer build this also shows that nothing reads outside a register's block.
	TEST(Verifier, WhatItAcceptsRunsWithoutReportOrWriteOutsideItsRegisters)
	{
		std::mt19937 rng(20261207);
		const EBaseTypeID types[] = {BaseType_Float, BaseType_Float3, BaseType_Float4, BaseType_Quaternion, BaseType_I32, BaseType_Int3, BaseType_Bool2,
									 BaseType_Int4, BaseType_Double, BaseType_U32};
		const u32 dims[] = {0, 1, 2, 5, 12, 13, 16, 37, 100};
		u32 accepted = 0, refused = 0;
		for (u32 program = 0; program < 4000; ++program)
		{
			constexpr u32 kSlots = 3;
			CRegisterStorage storage(kSlots);
			const u32 n = dims[rng() % 9];
			storage.Registers().m_StreamDimensions = n;
			for (u32 e = 0; e < kSlots * 4; ++e)
			{
				const u32 sizes[8] = {0, 4, 16, n * 4, n * 8, n * 12, n * 16, n * 16 + 16};
				if (rng() % 8 == 0)
					continue;	// no storage
				const CVMRegID id = CVMRegID::Build(e / 4, EMetaType(e % 4 + 1), BaseType_I32);
				// Half of them large enough for any type, the others any size.
				ASSERT_TRUE(storage.Allocate(id, sizes[rng() % 2 == 0 ? 6 + rng() % 2 : rng() % 8]));
				u32 *words = storage.DataAs<u32>(id);
				for (u32 w = 0; w < storage.Size(id) / 4; ++w)
					words[w] = rng() % 3 == 0 ? rng() : rng() % 40;
			}
			std::vector<u8> code;
			const u32 count = 1 + rng() % 3;
			for (u32 i = 0; i < count; ++i)
			{
				const u32 op = rng() % 20;	// 19: past the operator set
				// One draw per statement: the operands of % and a call's arguments are
				// evaluated in the compiler's order (GCC takes arguments right to left on
				// x86-64, left to right on AArch64), and a seed must replay anywhere.
				const u32 typeDraw = rng();
				const EBaseTypeID type = types[typeDraw % (rng() % 4 == 0 ? 10 : 8)];
				const auto reg = [&](EBaseTypeID t) {
					const u32 slotDraw = rng();
					const u32 slot = slotDraw % (kSlots + (rng() % 10 == 0 ? 1 : 0));
					const u32 bank = rng() % 4;
					return Id(slot, kBanks[bank], t);
				};
				const u32 dst = reg(rng() % 8 == 0 ? types[rng() % 10] : type);
				const u32 src0 = reg(type);
				const bool binary = SOp_MathOp::OperatorTraits(EOp(op)).m_ParameterCount > 1;
				const u32 src1 = (binary != (rng() % 20 == 0)) ? reg(rng() % 10 == 0 ? types[rng() % 10] : type) : 0xFFFFFFFFu;
				const u32 written = rng() % 50 == 0 ? rng() : dst;
				const bool generic = rng() % 4 == 0;
				Emit(code, op, written, src0, src1, generic);
			}
			const CBVM::SVerifyResult result = CBVM::CVerifier::Verify(code.data(), u32(code.size()), storage, nullptr, 0);
			if (result.Problems() != 0)
			{
				refused += result.Accepted() ? 0 : 1;
				continue;
			}
			++accepted;
			ExpectCleanRuns(storage, kSlots, code, count, "random program " + std::to_string(program));
			if (HasFailure())
				return;
		}
		// Neither side may be empty, or the test shows nothing.
		EXPECT_GT(accepted, 200u);
		EXPECT_GT(refused, 200u);
	}

	TEST(Verifier, NeverReadsPastTheBytecode)
	{
		const OxTest::CGuardPage page;
		ASSERT_TRUE(page.Valid());
		std::vector<u8> code;
		Emit(code, SOp_MathOp::Op_Mul, Id(0, MetaType_Stream, BaseType_Float), Id(0, MetaType_Stream, BaseType_Float), Id(1, MetaType_Constant, BaseType_Float));
		Emit(code, SOp_MathOp::Op_Bitwise_Xor, Id(2, MetaType_Stream, BaseType_I32), Id(2, MetaType_Stream, BaseType_I32), Id(2, MetaType_Normal, BaseType_I32));
		CRegisterStorage storage(3);
		// Every cut of the program, its last byte just before an unreadable page.
		for (u32 size = 0; size <= code.size(); ++size)
		{
			const u8 *placed = page.PlaceAtEnd(code.data(), size);
			CBVM::SVerifyProblem problem;
			const CBVM::SVerifyResult structure = CBVM::CVerifier::VerifyStructure(placed, size, &problem, 1);
			CBVM::CVerifier::Verify(placed, size, storage, nullptr, 0);
			if (size == 0 || size == 13 || size == code.size())
				EXPECT_TRUE(structure.Accepted()) << size;
			else
			{
				const u32 at = size < 13 ? 0 : 13;
				EXPECT_EQ(structure.m_Errors, 1u);
				EXPECT_EQ(problem.m_Offset, at);
				EXPECT_EQ(problem.m_Code, CBVM::VerifyError_Truncated);
				const std::string expected = at == 0 ? "truncated instruction: opcode 116 (MathOpMul) needs 13 bytes, " + std::to_string(size) + " left"
													 : "truncated instruction: opcode 113 (MathOp) needs 14 bytes, " + std::to_string(size - 13) + " left";
				EXPECT_EQ(problem.m_Message, expected);
			}
		}
		// Random bytes, mostly math-op opcodes.
		std::mt19937 rng(7);
		for (u32 trial = 0; trial < 2000; ++trial)
		{
			std::vector<u8> bytes(rng() % 64);
			for (u8 &b : bytes)
				b = rng() % 3 == 0 ? u8(CBVM::Opcode_MathOp + rng() % 5) : u8(rng());
			const u8 *placed = page.PlaceAtEnd(bytes.data(), bytes.size());
			CBVM::CVerifier::VerifyStructure(placed, u32(bytes.size()), nullptr, 0);
			CBVM::CVerifier::Verify(placed, u32(bytes.size()), storage, nullptr, 0);
		}
	}

	// Five instructions, each with one problem (a storage-less register file of 4 slots).
	std::vector<u8> FiveBadInstructions()
	{
		std::vector<u8> code;
		for (u32 i = 0; i < 5; ++i)
			Emit(code, SOp_MathOp::Op_Add, Id(i, MetaType_Stream, BaseType_Float), Id(i, MetaType_Stream, BaseType_Float), Id(i, MetaType_Stream, BaseType_I32));
		return code;
	}

	TEST(Verifier, CountsEveryProblemButStoresOnlyCapacity)
	{
		const std::vector<u8> code = FiveBadInstructions();
		CBVM::SVerifyProblem problems[2];
		const CBVM::SVerifyResult result = CBVM::CVerifier::VerifyStructure(code.data(), u32(code.size()), problems, 2);
		EXPECT_EQ(result.m_Errors, 5u);
		EXPECT_EQ(result.m_Instructions, 5u);
		EXPECT_EQ(problems[0].m_Offset, 0u);
		EXPECT_EQ(problems[1].m_Offset, 13u);
		EXPECT_STREQ(problems[1].m_Message, "source types differ: source 0 is stream.1:float, source 1 is stream.1:i32");
		EXPECT_EQ(CBVM::CVerifier::VerifyStructure(code.data(), u32(code.size()), nullptr, 0).m_Errors, 5u);
		EXPECT_EQ(CBVM::CVerifier::VerifyStructure(code.data(), u32(code.size()), nullptr, 7).m_Errors, 5u);	// capacity without storage
		EXPECT_TRUE(CBVM::CVerifier::VerifyStructure(nullptr, 0, nullptr, 0).Accepted());
	}

	TEST(Verifier, StructureOnlyChecksWhatNeedsNoRegisterFile)
	{
		std::vector<u8> code;
		Emit(code, SOp_MathOp::Op_Neg, Id(100, MetaType_Stream, BaseType_Float), Id(3, MetaType_Constant, BaseType_Float));
		EXPECT_EQ(CBVM::CVerifier::VerifyStructure(code.data(), u32(code.size()), nullptr, 0).Problems(), 0u);
		CRegisterStorage storage(4);
		CBVM::SVerifyProblem problems[4];
		const CBVM::SVerifyResult full = CBVM::CVerifier::Verify(code.data(), u32(code.size()), storage, problems, 4);
		// Past a slot outside the file the instruction's registers are not resolved: the
		// storage of constant.3 is checked once the slot is fixed.
		EXPECT_EQ(full.m_Errors, 1u);
		EXPECT_STREQ(problems[0].m_Message, "slot 100 of stream.100:float is outside the register file (4 slots)");
		std::vector<u8> fixed;
		Emit(fixed, SOp_MathOp::Op_Neg, Id(1, MetaType_Stream, BaseType_Float), Id(3, MetaType_Constant, BaseType_Float));
		ASSERT_TRUE(storage.AllocateElements(CVMRegID::Build(1, MetaType_Stream, BaseType_Float), 16));
		const CBVM::SVerifyResult again = CBVM::CVerifier::Verify(fixed.data(), u32(fixed.size()), storage, problems, 4);
		EXPECT_EQ(again.m_Errors, 1u);
		EXPECT_STREQ(problems[0].m_Message, "register constant.3:float has no storage (null data pointer)");
	}

	TEST(Verifier, NullRegisterTableHasNoSlots)
	{
		std::vector<u8> code;
		Emit(code, SOp_MathOp::Op_Add, Id(0, MetaType_Stream, BaseType_Float), Id(0, MetaType_Stream, BaseType_Float), Id(0, MetaType_Stream, BaseType_Float));
		CCBCPUMetaRegisters registers;	// no table at all
		CBVM::SVerifyProblem problem;
		const CBVM::SVerifyResult result = CBVM::CVerifier::Verify(code.data(), u32(code.size()), registers, 4, &problem, 1);
		EXPECT_EQ(result.m_Errors, 1u);	// one register, used three times
		EXPECT_STREQ(problem.m_Message, "slot 0 of stream.0:float is outside the register file (0 slots)");
	}

	TEST(Verifier, ARegisterInTwoRolesMustHoldTheLargerNeed)
	{
		// stream.0 is destination (16 elements written) and source; it holds 15: one problem, not two.
		CRegisterStorage storage(2);
		const CVMRegID x = CVMRegID::Build(0, MetaType_Stream, BaseType_Int2);
		ASSERT_TRUE(storage.AllocateElements(x, 15));
		ASSERT_TRUE(storage.AllocateElements(CVMRegID::Build(1, MetaType_Constant, BaseType_Int2), 1));
		storage.Registers().m_StreamDimensions = 16;
		std::vector<u8> code;
		Emit(code, SOp_MathOp::Op_Mul, u32(x.m_RawBits), u32(x.m_RawBits), Id(1, MetaType_Constant, BaseType_Int2));
		CBVM::SVerifyProblem problems[2];
		EXPECT_EQ(CBVM::CVerifier::Verify(code.data(), u32(code.size()), storage, problems, 2).m_Errors, 1u);
		EXPECT_STREQ(problems[0].m_Message, "register stream.0:int2 holds 120 bytes, too small: this instruction writes 16 elements (128 bytes)");
	}

	TEST(Verifier, AnEmptyStreamIsAcceptedWithEmptyPerElementRegisters)
	{
		// A particle system with no particles: stream registers of 0 elements.
		CRegisterStorage storage(3);
		const CVMRegID pos = CVMRegID::Build(0, MetaType_Stream, BaseType_Float3);
		const CVMRegID dt = CVMRegID::Build(1, MetaType_Constant, BaseType_Float3);
		const CVMRegID ids = CVMRegID::Build(2, MetaType_Instance, BaseType_I32);
		const CVMRegID k = CVMRegID::Build(2, MetaType_Constant, BaseType_I32);
		ASSERT_TRUE(storage.AllocateElements(pos, 0) && storage.AllocateElements(dt, 1) && storage.AllocateElements(ids, 0) && storage.AllocateElements(k, 1));
		storage.Registers().m_StreamDimensions = 0;
		std::vector<u8> code;
		Emit(code, SOp_MathOp::Op_Mul, u32(pos.m_RawBits), u32(pos.m_RawBits), u32(dt.m_RawBits));
		Emit(code, SOp_MathOp::Op_Mod, u32(ids.m_RawBits), u32(ids.m_RawBits), u32(k.m_RawBits));
		Emit(code, SOp_MathOp::Op_Bitwise_ShiftLeft, u32(ids.m_RawBits), u32(k.m_RawBits), u32(ids.m_RawBits));
		EXPECT_EQ(CBVM::CVerifier::Verify(code.data(), u32(code.size()), storage, nullptr, 0).Problems(), 0u);
		ExpectCleanRuns(storage, 3, code, 3, "empty stream");
	}

	// float neg of a constant, float mod of two constants, shl by a uniform 40: the three
	// forms that the standard path reports.
	struct SReportedForms
	{
		CRegisterStorage m_Storage{4};
		std::vector<u8> m_Code;

		SReportedForms()
		{
			const CVMRegID f = CVMRegID::Build(0, MetaType_Stream, BaseType_Float);
			const CVMRegID c = CVMRegID::Build(1, MetaType_Constant, BaseType_Float);
			const CVMRegID x = CVMRegID::Build(2, MetaType_Stream, BaseType_I32);
			const CVMRegID count = CVMRegID::Build(3, MetaType_Normal, BaseType_I32);
			for (CVMRegID id : {f, x})
				m_Storage.AllocateElements(id, 24);
			for (CVMRegID id : {c, count})
				m_Storage.AllocateElements(id, 1);
			*m_Storage.DataAs<float>(c) = 3.0f;
			*m_Storage.DataAs<s32>(count) = 40;
			m_Storage.Registers().m_StreamDimensions = 24;
			Emit(m_Code, SOp_MathOp::Op_Neg, u32(f.m_RawBits), u32(c.m_RawBits));
			Emit(m_Code, SOp_MathOp::Op_Mod, u32(f.m_RawBits), u32(c.m_RawBits), u32(c.m_RawBits));
			Emit(m_Code, SOp_MathOp::Op_Bitwise_ShiftLeft, u32(x.m_RawBits), u32(x.m_RawBits), u32(count.m_RawBits));
		}
	};

	TEST(Verifier, ReportedFormsAreErrorsByDefaultAndWarningsWhenAllowed)
	{
		SReportedForms forms;
		CBVM::SVerifyProblem problems[3];
		const CBVM::SVerifyResult strict = CBVM::CVerifier::Verify(forms.m_Code.data(), u32(forms.m_Code.size()), forms.m_Storage, problems, 3);
		EXPECT_EQ(strict.m_Errors, 3u);
		EXPECT_EQ(strict.m_Warnings, 0u);
		EXPECT_EQ(problems[0].m_Code, CBVM::VerifyError_FloatNegOfConstant);
		EXPECT_EQ(problems[1].m_Code, CBVM::VerifyError_FloatModOfConstants);
		EXPECT_EQ(problems[2].m_Code, CBVM::VerifyError_ShiftCountAbove31);
		EXPECT_STREQ(problems[2].m_Message, "uniform 'shl' count 40 in normal.3:i32 is above 31: the standard path shifts whole blocks out (0 or the sign fill) and reports it, "
											"the Low path uses the low five bits; keep counts in 0..31");

		const CBVM::SVerifyResult allowed = CBVM::CVerifier::Verify(forms.m_Code.data(), u32(forms.m_Code.size()), forms.m_Storage, problems, 3, CBVM::VerifyFlag_AllowReportedForms);
		EXPECT_TRUE(allowed.Accepted());
		EXPECT_EQ(allowed.m_Warnings, 3u);
		for (const CBVM::SVerifyProblem &problem : problems)
			EXPECT_EQ(problem.m_Severity, CBVM::VerifySeverity_Warning);

		// The warnings are true: the standard path reports each form, the Low path none.
		OxTest::CAssertCapture capture;
		RunPath(forms.m_Storage, forms.m_Code, CBVM::ExecPath_Low);
		EXPECT_EQ(capture.Count(), 0u);
		RunPath(forms.m_Storage, forms.m_Code, CBVM::ExecPath_Standard);
		EXPECT_EQ(capture.Count("stride == sizeof(_Type) && stride0 == sizeof(_Type)"), 1u);
		EXPECT_EQ(capture.Count("(stride0 == 0) != (stride1 == 0)"), 1u);
		EXPECT_GE(capture.Count("bits <= 31"), 1u);	// once per vector shifted
	}

	TEST(Verifier, ShiftCountsAreCheckedWhereTheyReachTheBlockPath)
	{
		SReportedForms forms;
		const CVMRegID x = CVMRegID::Build(2, MetaType_Stream, BaseType_I32);
		const CVMRegID count = CVMRegID::Build(3, MetaType_Normal, BaseType_I32);
		std::vector<u8> shift;
		Emit(shift, SOp_MathOp::Op_Bitwise_ShiftRight, u32(x.m_RawBits), u32(x.m_RawBits), u32(count.m_RawBits));
		const auto problems = [&](const std::vector<u8> &code, u32 flags) {
			return CBVM::CVerifier::Verify(code.data(), u32(code.size()), forms.m_Storage, nullptr, 0, flags).Problems();
		};
		EXPECT_EQ(problems(shift, 0), 1u);
		*forms.m_Storage.DataAs<s32>(count) = 31;
		EXPECT_EQ(problems(shift, 0), 0u);
		// Fewer than 12 integers: the per-lane tail uses count & 31 and reports nothing.
		*forms.m_Storage.DataAs<s32>(count) = 40;
		forms.m_Storage.Registers().m_StreamDimensions = 11;
		EXPECT_EQ(problems(shift, 0), 0u);
		ExpectCleanRuns(forms.m_Storage, 4, shift, 1, "count 40 over 11 integers");
	}

	TEST(Verifier, AShiftCountTheProgramWritesIsAWarning)
	{
		SReportedForms forms;
		const CVMRegID x = CVMRegID::Build(2, MetaType_Stream, BaseType_I32);
		const CVMRegID count = CVMRegID::Build(3, MetaType_Normal, BaseType_I32);
		*forms.m_Storage.DataAs<s32>(count) = 3;
		std::vector<u8> code;
		Emit(code, SOp_MathOp::Op_Bitwise_ShiftRightLogical, u32(x.m_RawBits), u32(x.m_RawBits), u32(count.m_RawBits));
		Emit(code, SOp_MathOp::Op_Add, u32(count.m_RawBits), u32(count.m_RawBits), u32(count.m_RawBits));	// 3, 6, 12, 24, 48: above 31 by the 5th frame
		CBVM::SVerifyProblem problem;
		const CBVM::SVerifyResult strict = CBVM::CVerifier::Verify(code.data(), u32(code.size()), forms.m_Storage, &problem, 1);
		EXPECT_TRUE(strict.Accepted());
		EXPECT_EQ(strict.m_Warnings, 1u);
		EXPECT_EQ(problem.m_Code, CBVM::VerifyError_ShiftCountUnchecked);
		EXPECT_EQ(problem.m_Severity, CBVM::VerifySeverity_Warning);
		EXPECT_STREQ(problem.m_Message, "'shrl' count register normal.3:i32 is written by this program: its value at run time is not checked here "
										"(a uniform count above 31 is reported by the standard path)");
		// Allowing the reported forms does not make the run-time value known: the same warning.
		const CBVM::SVerifyResult allowed = CBVM::CVerifier::Verify(code.data(), u32(code.size()), forms.m_Storage, &problem, 1, CBVM::VerifyFlag_AllowReportedForms);
		EXPECT_EQ(allowed.m_Warnings, 1u);
		EXPECT_EQ(problem.m_Code, CBVM::VerifyError_ShiftCountUnchecked);

		// The warning is true: the count doubles each frame and the fifth one shifts by 48.
		OxTest::CAssertCapture capture;
		for (u32 frame = 0; frame < 4; ++frame)
			RunPath(forms.m_Storage, code, CBVM::ExecPath_Standard);
		EXPECT_EQ(capture.Count(), 0u);
		RunPath(forms.m_Storage, code, CBVM::ExecPath_Standard);
		EXPECT_GE(capture.Count("bits <= 31"), 1u);
	}

	TEST(Verifier, EveryErrorHasAName)
	{
		std::vector<std::string> names;
		for (u32 code = 0; code < CBVM::__MaxVerifyErrors; ++code)
		{
			const std::string name = CBVM::VerifyErrorName(CBVM::EVerifyError(code));
			EXPECT_NE(name, "?");
			EXPECT_EQ(std::count(names.begin(), names.end(), name), 0) << name;
			names.push_back(name);
		}
		EXPECT_STREQ(CBVM::VerifyErrorName(CBVM::__MaxVerifyErrors), "?");
		EXPECT_STREQ(CBVM::VerifyErrorName(CBVM::EVerifyError(200)), "?");
	}

	// ---- The oxvm commands

	class OxvmVerifier : public OxTest::COxvmTest
	{
	};

	TEST_F(OxvmVerifier, RunWarnsAboutAShiftCountAbove31AtItsCount)
	{
		Write("shift.oxs", "stream 16\nreg x stream 0 i32 = ramp(1, 1)\nreg y stream 2 i32\nreg c constant 1 i32 = 40\nadd y, x, x\nshl y, x, c\n");
		const OxTest::SOxvmResult result = Oxvm("run shift.oxs");
		EXPECT_EQ(result.m_Status, 0) << result.m_Err;
		// The instruction at offset 13 is line 6; the count 'c' is its column 11.
		EXPECT_NE(result.m_Err.find("shift.oxs:6:11: warning: uniform 'shl' count 40 in 'c' is above 31:"), std::string::npos) << result.m_Err;
		// A clean program prints nothing from the verifier.
		Write("clean.oxs", "stream 16\nreg x stream 0 i32 = ramp(1, 1)\nreg c constant 1 i32 = 4\nshl x, x, c\n");
		const OxTest::SOxvmResult clean = Oxvm("run clean.oxs --strict");
		EXPECT_EQ(clean.m_Status, 0);
		EXPECT_EQ(clean.m_Err, "");
	}

	TEST_F(OxvmVerifier, DisasmListsWhatTheVerifierRefusesInRawBytecode)
	{
		std::vector<u8> code;
		Emit(code, SOp_MathOp::Op_Add, Id(0, MetaType_Stream, BaseType_Float), Id(0, MetaType_Stream, BaseType_Float), Id(1, MetaType_Stream, BaseType_Float));
		Emit(code, SOp_MathOp::Op_Bitwise_Or, Id(0, MetaType_Stream, BaseType_Float2), Id(0, MetaType_Stream, BaseType_Float2), Id(1, MetaType_Stream, BaseType_Float2));
		Emit(code, SOp_MathOp::Op_Sub, Id(0, MetaType_Stream, BaseType_Double), Id(0, MetaType_Stream, BaseType_Double), Id(1, MetaType_Stream, BaseType_Double));
		code.push_back(42);
		Write("bad.bin", std::string(code.begin(), code.end()));
		const OxTest::SOxvmResult result = Oxvm("disasm bad.bin");
		EXPECT_EQ(result.m_Status, 2);
		EXPECT_EQ(result.m_Err,
				  "bad.bin: error: offset 13: 'or' is a bitwise operator: it takes int and bool operands, source 0 is stream.0:float2\n"
				  "bad.bin: error: offset 27: source type of stream.0:double has no math kernel (kernels: float..float4, quaternion, i32..int4, bool..bool4)\n"
				  "bad.bin: error: offset 40: unknown opcode 42 (math-op opcodes are 113 to 117)\n");
	}
}
