// The minimal interpreter: entry tables, running a mixed program on the Low path
// (checked against the scalar model, one instruction after the other), and stopping
// cleanly on unknown opcodes, truncated instructions and bad paths.

#include "cbvm_interpreter.h"
#include "cbvm_meta_ops.h"
#include "cbvm_register_storage.h"
#include "cbvm_registers.h"
#include "scalar_model.h"
#include "test_support.h"

#include <gtest/gtest.h>


#include <algorithm>
#include <cstring>
#include <iostream>
#include <map>
#include <random>
#include <string>
#include <vector>

using namespace Orvex;
using Compiler::EMetaType;
using Compiler::IR::SOp_MathOp;
using OxTest::CAssertCapture;
using OxTest::EModelKind;
using OxTest::FloatBits;
using EOp = SOp_MathOp::EOp;

namespace
{
	constexpr u32 kSeed = 0x1A7E5EEDu;

	u32 GuardWord(u32 index) { return 0xB1E55ED0u ^ (index * 0x85EBCA6Bu); }

	bool IsStreamBank(EMetaType bank) { return bank >= Compiler::MetaType_Instance; }

	u32 Encode(u8 *out, EOp op, CVMRegID dst, CVMRegID src0, CVMRegID src1)
	{
		SOp_MathOp::SDesc desc;
		desc.m_Op = op;
		desc.m_DstReg = dst.ToIRRegID();
		desc.m_SrcReg0 = src0.ToIRRegID();
		desc.m_SrcReg1 = src1.ToIRRegID();
		return CMetaOp_MathOp::EncodeDescToBytecode(out, desc);
	}

	struct SInstruction
	{
		EOp m_Op;
		CVMRegID m_Dst, m_Src0, m_Src1;
	};

	// A host: register storage, the context, and a program assembled into one buffer.
	class CHost
	{
	public:
		explicit CHost(u32 slots) : m_Storage(slots), m_Ctx(&m_Program, m_Bindings, m_Storage.Registers(), m_DebugCtx) {}

		CRegisterStorage &Storage() { return m_Storage; }
		CCBCPUMetaRegisters &Registers() { return m_Storage.Registers(); }
		const CBytecodeExecContext &Ctx() const { return m_Ctx; }

		// Allocates a register (one element for Constant / Normal, the stream otherwise)
		// and fills its padding with guard words.
		u32 *Add(CVMRegID id)
		{
			const u32 elements = IsStreamBank(id.ToBank()) ? Registers().m_StreamDimensions : 1;
			EXPECT_TRUE(m_Storage.AllocateElements(id, elements));
			u32 *data = m_Storage.DataAs<u32>(id);
			for (u32 i = m_Storage.Size(id) / 4; i < m_Storage.Capacity(id) / 4; ++i)
				data[i] = GuardWord(i);
			m_Ids.push_back(id);
			return data;
		}

		void Append(EOp op, CVMRegID dst, CVMRegID src0, CVMRegID src1)
		{
			u8 bytes[CMetaOp_MathOp::IP_Offset];
			const u32 size = Encode(bytes, op, dst, src0, src1);
			m_Offsets.push_back(u32(m_Bytes.size()));
			m_Bytes.insert(m_Bytes.end(), bytes, bytes + size);
			m_Program_.push_back({op, dst, src0, src1});
		}

		const std::vector<u8> &Bytes() const { return m_Bytes; }
		const std::vector<u32> &Offsets() const { return m_Offsets; }

		// Every word of every register, padding included.
		std::map<s32, std::vector<u32>> Snapshot() const
		{
			std::map<s32, std::vector<u32>> words;
			for (CVMRegID id : m_Ids)
			{
				const u32 *data = m_Storage.DataAs<u32>(id);
				words[id.m_RawBits].assign(data, data + m_Storage.Capacity(id) / 4);
			}
			return words;
		}

		// The model run of the first 'count' instructions over a snapshot.
		void ModelRun(std::map<s32, std::vector<u32>> &words, std::size_t count) const
		{
			const u32 dims = m_Storage.Registers().m_StreamDimensions;
			for (std::size_t k = 0; k < count; ++k)
			{
				const SInstruction &in = m_Program_[k];
				EModelKind kind;
				u32 components;
				ASSERT_TRUE(OxTest::ModelKernelForType(in.m_Src0.ToType(), kind, components));
				const u32 evalCount = IsStreamBank(in.m_Dst.ToBank()) ? dims : 1;
				const u32 stride0 = IsStreamBank(in.m_Src0.ToBank()) ? components : 0;
				const bool unary = OxTest::ModelIsUnary(in.m_Op);
				const u32 stride1 = !unary && IsStreamBank(in.m_Src1.ToBank()) ? components : 0;
				std::vector<u32> out;
				ASSERT_TRUE(OxTest::ModelStream(in.m_Op, kind, components, evalCount, words[in.m_Src0.m_RawBits].data(), stride0,
												unary ? nullptr : words[in.m_Src1.m_RawBits].data(), stride1, out));
				std::vector<u32> &dst = words[in.m_Dst.m_RawBits];
				std::copy(out.begin(), out.end(), dst.begin());
			}
		}

		::testing::AssertionResult Matches(const std::map<s32, std::vector<u32>> &expected) const
		{
			for (CVMRegID id : m_Ids)
			{
				const u32 *data = m_Storage.DataAs<u32>(id);
				const std::vector<u32> &want = expected.at(id.m_RawBits);
				for (std::size_t i = 0; i < want.size(); ++i)
					if (data[i] != want[i])
						return ::testing::AssertionFailure() << "register slot " << id.ToSlot() << " word " << i << ": expected 0x" << std::hex << want[i] << " got 0x" << data[i];
			}
			return ::testing::AssertionSuccess();
		}

	private:
		CRegisterStorage m_Storage;
		CCompilerBackendCPUProgram_VM m_Program;
		CRuntimeCPUBindings m_Bindings;
		SCompilerCPUDebugCtx m_DebugCtx;
		CBytecodeExecContext m_Ctx;
		std::vector<CVMRegID> m_Ids;
		std::vector<u8> m_Bytes;
		std::vector<u32> m_Offsets;
		std::vector<SInstruction> m_Program_;
	};

	// A particle step over 'count' particles, floats and ints mixed:
	//   tmp = g * dt; vel = vel + tmp; tmp = vel * dt; pos = pos + tmp;
	//   age = age + one; dead = age >= maxAge; bucket = age >> two; bucket = bucket % three;
	//   spin = -vel
	struct SParticles
	{
		const CVMRegID g = CVMRegID::Build(0, Compiler::MetaType_Constant, BaseType_Float3);
		const CVMRegID dt = CVMRegID::Build(1, Compiler::MetaType_Constant, BaseType_Float3);
		const CVMRegID tmp = CVMRegID::Build(2, Compiler::MetaType_Stream, BaseType_Float3);
		const CVMRegID vel = CVMRegID::Build(3, Compiler::MetaType_Stream, BaseType_Float3);
		const CVMRegID pos = CVMRegID::Build(4, Compiler::MetaType_Stream, BaseType_Float3);
		const CVMRegID age = CVMRegID::Build(5, Compiler::MetaType_Stream, BaseType_I32);
		const CVMRegID one = CVMRegID::Build(6, Compiler::MetaType_Constant, BaseType_I32);
		const CVMRegID maxAge = CVMRegID::Build(7, Compiler::MetaType_Normal, BaseType_I32);
		const CVMRegID dead = CVMRegID::Build(8, Compiler::MetaType_Stream, BaseType_Bool);
		const CVMRegID bucket = CVMRegID::Build(9, Compiler::MetaType_Instance, BaseType_I32);
		const CVMRegID two = CVMRegID::Build(10, Compiler::MetaType_Constant, BaseType_I32);
		const CVMRegID three = CVMRegID::Build(11, Compiler::MetaType_Constant, BaseType_I32);
		const CVMRegID spin = CVMRegID::Build(12, Compiler::MetaType_Stream, BaseType_Float3);

		static constexpr u32 kInstructions = 9;
		static constexpr u32 kBytes = 5 * 13 + 4 * 14;

		void Setup(CHost &host, u32 count)
		{
			host.Registers().m_StreamDimensions = count;
			std::mt19937 rng(kSeed);
			std::uniform_real_distribution<float> real(-10.0f, 10.0f);
			u32 *w = host.Add(g);
			w[0] = FloatBits(0.0f), w[1] = FloatBits(-9.81f), w[2] = FloatBits(0.25f);
			w = host.Add(dt);
			w[0] = w[1] = w[2] = FloatBits(1.0f / 60.0f);
			host.Add(tmp);
			for (CVMRegID id : {vel, pos})
			{
				w = host.Add(id);
				for (u32 i = 0; i < 3 * count; ++i)
					w[i] = FloatBits(real(rng));
			}
			w = host.Add(age);
			for (u32 i = 0; i < count; ++i)
				w[i] = std::uniform_int_distribution<u32>(0, 40)(rng);
			host.Add(one)[0] = 1;
			host.Add(maxAge)[0] = 30;
			host.Add(dead);
			host.Add(bucket);
			host.Add(two)[0] = 2;
			host.Add(three)[0] = 3;
			host.Add(spin);

			host.Append(SOp_MathOp::Op_Mul, tmp, g, dt);
			host.Append(SOp_MathOp::Op_Add, vel, vel, tmp);
			host.Append(SOp_MathOp::Op_Mul, tmp, vel, dt);
			host.Append(SOp_MathOp::Op_Add, pos, pos, tmp);
			host.Append(SOp_MathOp::Op_Add, age, age, one);
			host.Append(SOp_MathOp::Op_Cmp_GreaterOrEqual, dead, age, maxAge);
			host.Append(SOp_MathOp::Op_Bitwise_ShiftRight, bucket, age, two);
			host.Append(SOp_MathOp::Op_Mod, bucket, bucket, three);
			host.Append(SOp_MathOp::Op_Neg, spin, vel, CVMRegID::INVALID);
		}
	};

	// A page-aligned mapping of two pages, the second made inaccessible: bytes copied to
	// End() - n end exactly at the protected page.
}

//------------------------------------------------------------------------------------
// Entry tables.

TEST(InterpreterEntries, OnlyTheMathOpcodesHaveLowEntries)
{
	const CBVM::FnExecBytecode expected[5] = {&CMetaOp_MathOp::_ExecBytecode_Low, &CMetaOp_MathOp::_ExecBytecode_Add_Low, &CMetaOp_MathOp::_ExecBytecode_Sub_Low,
											  &CMetaOp_MathOp::_ExecBytecode_Mul_Low, &CMetaOp_MathOp::_ExecBytecode_Div_Low};
	for (u32 opcode = 0; opcode < 256; ++opcode)
	{
		const CBVM::SEntry &entry = CBVM::CInterpreter::Entry(CBVM::ExecPath_Low, u8(opcode));
		if (opcode >= 113 && opcode <= 117)
		{
			EXPECT_EQ(entry.m_Exec, expected[opcode - 113]) << opcode;
			EXPECT_EQ(entry.m_Size, opcode == 113 ? 14u : 13u) << opcode;
		}
		else
		{
			EXPECT_EQ(entry.m_Exec, nullptr) << opcode;
		}
	}
}

TEST(InterpreterEntries, PathNames)
{
	EXPECT_STREQ(CBVM::ExecPathName(CBVM::ExecPath_Low), "low");
	EXPECT_STREQ(CBVM::ExecPathName(CBVM::__MaxExecPaths), "?");
	EXPECT_STREQ(CBVM::ExecPathName(CBVM::EExecPath(200)), "?");
}

TEST(InterpreterEntries, NoEntryOnAPathThatDoesNotExist)
{
	for (u32 path : {u32(CBVM::__MaxExecPaths), 7u, 255u})
		for (u32 opcode : {0u, 113u, 114u, 117u, 255u})
			EXPECT_EQ(CBVM::CInterpreter::Entry(CBVM::EExecPath(path), u8(opcode)).m_Exec, nullptr) << path << " " << opcode;
}

//------------------------------------------------------------------------------------
// Running programs.

TEST(InterpreterRun, ParticleStepMatchesTheModel)
{
	std::cout << "[ seed ] InterpreterRun.ParticleStepMatchesTheModel seed = 0x" << std::hex << kSeed << std::dec << std::endl;
	for (u32 count : {1u, 8u, 37u, 1000u})
	{
		CAssertCapture capture;
		CHost host(16);
		SParticles particles;
		particles.Setup(host, count);
		ASSERT_EQ(host.Bytes().size(), std::size_t(SParticles::kBytes));

		std::map<s32, std::vector<u32>> expected = host.Snapshot();
		host.ModelRun(expected, SParticles::kInstructions);

		const CBVM::SRunResult result = CBVM::CInterpreter::Run(host.Ctx(), host.Bytes().data(), u32(host.Bytes().size()), CBVM::ExecPath_Low);
		EXPECT_EQ(result.m_Status, CBVM::RunStatus_Ok);
		EXPECT_EQ(result.m_Executed, SParticles::kInstructions);
		EXPECT_EQ(result.m_Offset, SParticles::kBytes);
		EXPECT_EQ(host.Registers().m_InstructionPointer, host.Offsets().back());
		EXPECT_EQ(host.Offsets().back(), SParticles::kBytes - 14);
		EXPECT_EQ(capture.Count(), 0u);
		EXPECT_TRUE(host.Matches(expected)) << count << " particles";

		// A few values worked out by hand, independently of the model.
		const s32 *age = host.Storage().DataAs<s32>(particles.age);
		const s32 *bucket = host.Storage().DataAs<s32>(particles.bucket);
		const u32 *dead = host.Storage().DataAs<u32>(particles.dead);
		for (u32 i = 0; i < count; ++i)
		{
			EXPECT_GE(age[i], 1);
			EXPECT_EQ(bucket[i], (age[i] / 4) % 3) << i;
			EXPECT_EQ(dead[i], age[i] >= 30 ? 0xFFFFFFFFu : 0u) << i;
		}
		const float *tmp = host.Storage().DataAs<float>(particles.tmp);
		const float *vel = host.Storage().DataAs<float>(particles.vel);
		EXPECT_EQ(tmp[3 * (count - 1) + 1], vel[3 * (count - 1) + 1] * (1.0f / 60.0f));
	}
}

TEST(InterpreterRun, RunningTwiceAdvancesTwice)
{
	CAssertCapture capture;
	CHost host(16);
	SParticles particles;
	particles.Setup(host, 13);
	std::map<s32, std::vector<u32>> expected = host.Snapshot();
	host.ModelRun(expected, SParticles::kInstructions);
	host.ModelRun(expected, SParticles::kInstructions);
	for (int run = 0; run < 2; ++run)
		EXPECT_EQ(CBVM::CInterpreter::Run(host.Ctx(), host.Bytes().data(), u32(host.Bytes().size()), CBVM::ExecPath_Low).m_Status, CBVM::RunStatus_Ok);
	EXPECT_TRUE(host.Matches(expected));
	EXPECT_EQ(capture.Count(), 0u);
}

TEST(InterpreterRun, EmptyBuffer)
{
	CAssertCapture capture;
	CHost host(1);
	const u8 nothing[1] = {CBVM::Opcode_MathOpAdd};
	const CBVM::SRunResult result = CBVM::CInterpreter::Run(host.Ctx(), nothing, 0, CBVM::ExecPath_Low);
	EXPECT_EQ(result.m_Status, CBVM::RunStatus_Ok);
	EXPECT_EQ(result.m_Executed, 0u);
	EXPECT_EQ(result.m_Offset, 0u);
	EXPECT_EQ(capture.Count(), 0u);
}

TEST(InterpreterRun, UnknownOpcodeInTheMiddle)
{
	for (u8 unknown : {u8(0), u8(42), u8(112), u8(118), u8(255)})
	{
		CAssertCapture capture;
		CHost host(16);
		SParticles particles;
		particles.Setup(host, 9);
		const std::map<s32, std::vector<u32>> before = host.Snapshot();
		std::map<s32, std::vector<u32>> expected = before;
		host.ModelRun(expected, 2);	// the first two instructions run

		// Splice the unknown byte in after instruction 1 (offset 26); instructions 2.. follow it.
		std::vector<u8> bytes = host.Bytes();
		const u32 at = host.Offsets()[2];
		ASSERT_EQ(at, 26u);
		bytes.insert(bytes.begin() + at, unknown);

		const CBVM::SRunResult result = CBVM::CInterpreter::Run(host.Ctx(), bytes.data(), u32(bytes.size()), CBVM::ExecPath_Low);
		EXPECT_EQ(result.m_Status, CBVM::RunStatus_UnknownOpcode) << int(unknown);
		EXPECT_EQ(result.m_Offset, at);
		EXPECT_EQ(result.m_Opcode, u32(unknown));
		EXPECT_EQ(result.m_Executed, 2u);
		EXPECT_TRUE(host.Matches(expected)) << int(unknown);	// pos, age, ... untouched
		EXPECT_EQ(capture.Count(), 0u);

		char text[160];
		const u32 length = CBVM::CInterpreter::FormatError(result, text, sizeof(text));
		EXPECT_EQ(length, u32(std::strlen(text)));
		const std::string line = text;
		EXPECT_NE(line.find(std::to_string(at)), std::string::npos) << line;
		EXPECT_NE(line.find(std::to_string(unknown)), std::string::npos) << line;
	}
}

TEST(InterpreterRun, UnknownOpcodeFirst)
{
	CAssertCapture capture;
	CHost host(1);
	const u8 bytes[3] = {7, CBVM::Opcode_MathOpAdd, 0};
	const CBVM::SRunResult result = CBVM::CInterpreter::Run(host.Ctx(), bytes, 3, CBVM::ExecPath_Low);
	EXPECT_EQ(result.m_Status, CBVM::RunStatus_UnknownOpcode);
	EXPECT_EQ(result.m_Offset, 0u);
	EXPECT_EQ(result.m_Opcode, 7u);
	EXPECT_EQ(result.m_Executed, 0u);
}

TEST(InterpreterRun, TruncatedLastInstructionIsNotReadPastTheBuffer)
{
	OxTest::CGuardPage page;
	ASSERT_TRUE(page.Valid());
	// Cut the program at several points inside its last (14-byte) instruction and
	// inside a 13-byte one.
	for (u32 keep : {1u, 2u, 9u, 13u})
	{
		CAssertCapture capture;
		CHost host(16);
		SParticles particles;
		particles.Setup(host, 5);
		std::map<s32, std::vector<u32>> expected = host.Snapshot();
		host.ModelRun(expected, SParticles::kInstructions - 1);

		const u32 last = host.Offsets().back();
		const u32 size = last + keep;
		const u8 *bytes = page.PlaceAtEnd(host.Bytes().data(), size);
		const CBVM::SRunResult result = CBVM::CInterpreter::Run(host.Ctx(), bytes, size, CBVM::ExecPath_Low);
		EXPECT_EQ(result.m_Status, CBVM::RunStatus_Truncated) << keep;
		EXPECT_EQ(result.m_Offset, last);
		EXPECT_EQ(result.m_Opcode, u32(CBVM::Opcode_MathOp));
		EXPECT_EQ(result.m_Executed, SParticles::kInstructions - 1);
		EXPECT_TRUE(host.Matches(expected));
		EXPECT_EQ(capture.Count(), 0u);

		char text[160];
		CBVM::CInterpreter::FormatError(result, text, sizeof(text));
		const std::string line = text;
		EXPECT_NE(line.find(std::to_string(last)), std::string::npos) << line;
		EXPECT_NE(line.find("113"), std::string::npos) << line;
	}
	for (u32 keep : {1u, 12u})
	{
		CAssertCapture capture;
		CHost host(16);
		SParticles particles;
		particles.Setup(host, 5);
		const u32 size = host.Offsets()[1] + keep;	// instruction 1 is a 13-byte add
		const u8 *bytes = page.PlaceAtEnd(host.Bytes().data(), size);
		const CBVM::SRunResult result = CBVM::CInterpreter::Run(host.Ctx(), bytes, size, CBVM::ExecPath_Low);
		EXPECT_EQ(result.m_Status, CBVM::RunStatus_Truncated);
		EXPECT_EQ(result.m_Offset, 13u);
		EXPECT_EQ(result.m_Opcode, u32(CBVM::Opcode_MathOpAdd));
		EXPECT_EQ(result.m_Executed, 1u);
	}
}

TEST(InterpreterRun, ProgramEndingAtTheLastReadableByte)
{
	OxTest::CGuardPage page;
	ASSERT_TRUE(page.Valid());
	CAssertCapture capture;
	CHost host(16);
	SParticles particles;
	particles.Setup(host, 6);
	std::map<s32, std::vector<u32>> expected = host.Snapshot();
	host.ModelRun(expected, 5);	// up to and including the 13-byte age = age + one
	const u32 size = host.Offsets()[5];
	const u8 *bytes = page.PlaceAtEnd(host.Bytes().data(), size);
	const CBVM::SRunResult result = CBVM::CInterpreter::Run(host.Ctx(), bytes, size, CBVM::ExecPath_Low);
	EXPECT_EQ(result.m_Status, CBVM::RunStatus_Ok);
	EXPECT_EQ(result.m_Executed, 5u);
	EXPECT_EQ(result.m_Offset, size);
	EXPECT_EQ(host.Registers().m_InstructionPointer, host.Offsets()[4]);
	EXPECT_TRUE(host.Matches(expected));
	EXPECT_EQ(capture.Count(), 0u);
}

TEST(InterpreterRun, BadPathRunsNothing)
{
	for (u32 path : {u32(CBVM::__MaxExecPaths), 3u, 255u})
	{
		CAssertCapture capture;
		CHost host(16);
		SParticles particles;
		particles.Setup(host, 4);
		const std::map<s32, std::vector<u32>> before = host.Snapshot();
		const CBVM::SRunResult result = CBVM::CInterpreter::Run(host.Ctx(), host.Bytes().data(), u32(host.Bytes().size()), CBVM::EExecPath(path));
		EXPECT_EQ(result.m_Status, CBVM::RunStatus_BadPath) << path;
		EXPECT_EQ(result.m_Executed, 0u);
		EXPECT_TRUE(host.Matches(before));
		char text[160];
		EXPECT_GT(CBVM::CInterpreter::FormatError(result, text, sizeof(text)), 0u);
	}
}

TEST(InterpreterRun, FormatErrorStaysInsideItsBuffer)
{
	CBVM::SRunResult result;
	result.m_Status = CBVM::RunStatus_UnknownOpcode;
	result.m_Offset = 123456;
	result.m_Opcode = 42;
	char text[32];
	std::memset(text, 'X', sizeof(text));
	CBVM::CInterpreter::FormatError(result, text, 10);
	EXPECT_LT(std::strlen(text), 10u);
	for (u32 i = 10; i < sizeof(text); ++i)
		EXPECT_EQ(text[i], 'X') << i;

	char full[160];
	CBVM::CInterpreter::FormatError(result, full, sizeof(full));
	const std::string line = full;
	EXPECT_NE(line.find("123456"), std::string::npos) << line;
	EXPECT_NE(line.find("42"), std::string::npos) << line;
}
