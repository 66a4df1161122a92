// The standard entry points: operand resolution, counts and strides, size checks,
// dispatch on the source type, profiler scopes, and the interpreter's default path.

#include "cbvm_interpreter.h"
#include "cbvm_meta_ops.h"
#include "cbvm_register_storage.h"
#include "kr_profiler.h"
#include "scalar_model.h"
#include "test_support.h"

#include <gtest/gtest.h>

#include <cstdio>
#include <cstring>
#include <random>
#include <vector>

using namespace Orvex;
using Compiler::EMetaType;
using Compiler::IR::SOp_MathOp;
using OxTest::CAssertCapture;
using EOp = SOp_MathOp::EOp;

namespace
{
	constexpr EMetaType kConstant = Compiler::MetaType_Constant;
	constexpr EMetaType kNormal = Compiler::MetaType_Normal;
	constexpr EMetaType kInstance = Compiler::MetaType_Instance;
	constexpr EMetaType kStream = Compiler::MetaType_Stream;

	const char *kDstSizeCheck = "reg.m_Size >= registers.m_StreamDimensions * stride || (reg.m_Size >= stride && mt < Compiler::MetaType_Instance)";
	const char *kSrc0SizeCheck = "reg0.m_Size >= evalCount * stride0";
	const char *kSrc1SizeCheck = "reg1.m_Size >= evalCount * stride1";
	const char *kOperandCountCheck = "m_SrcReg1.Valid() == (Compiler::IR::SOp_MathOp::OperatorTraits(op).m_ParameterCount > 1)";

	// A register file of a few slots and the context that reaches it.
	class CHost
	{
	public:
		explicit CHost(u32 streamDims) : m_Storage(8), m_Ctx(&m_Program, m_Bindings, m_Storage.Registers(), m_DebugCtx)
		{
			m_Storage.Registers().m_StreamDimensions = streamDims;
		}

		// Allocates 'elements' elements (default: one per stream element, or one) and fills
		// them with words from 'fill'.
		CVMRegID Reg(u32 slot, EMetaType bank, EBaseTypeID type, const std::vector<u32> &fill, s32 elements = -1)
		{
			const CVMRegID id = CVMRegID::Build(slot, bank, type);
			const u32 dims = m_Storage.Registers().m_StreamDimensions;
			const u32 count = elements >= 0 ? u32(elements) : (bank >= kInstance ? dims : 1);
			EXPECT_TRUE(m_Storage.Allocate(id, count * CCBCPUMetaRegisters::m_DataTypeSizeInBytes[type + 1]));
			u32 *words = m_Storage.DataAs<u32>(id);
			const u32 capacity = m_Storage.Capacity(id) / 4;
			for (u32 i = 0; i < capacity; ++i)
				words[i] = fill.empty() ? 0xDEAD0000u + i : fill[i % fill.size()];
			return id;
		}

		std::vector<u32> Words(CVMRegID id, u32 count) const
		{
			const u32 *words = m_Storage.DataAs<u32>(id);
			return std::vector<u32>(words, words + count);
		}

		// Encodes (op, dst, src0, src1) and calls the standard entry of its opcode.
		u32 Exec(EOp op, CVMRegID dst, CVMRegID src0, CVMRegID src1)
		{
			SOp_MathOp::SDesc desc;
			desc.m_Op = op;
			desc.m_DstReg = dst.ToIRRegID();
			desc.m_SrcReg0 = src0.ToIRRegID();
			desc.m_SrcReg1 = src1.ToIRRegID();
			u8 bytes[CMetaOp_MathOp::IP_Offset];
			CMetaOp_MathOp::EncodeDescToBytecode(bytes, desc);
			return ExecBytes(bytes);
		}

		u32 ExecBytes(const u8 *bytes)
		{
			const CBVM::SEntry &entry = CBVM::CInterpreter::Entry(CBVM::ExecPath_Standard, bytes[0]);
			return entry.m_Exec(m_Ctx, bytes);
		}

		CRegisterStorage &Storage() { return m_Storage; }
		const CBytecodeExecContext &Ctx() const { return m_Ctx; }

	private:
		CRegisterStorage m_Storage;
		CCompilerBackendCPUProgram_VM m_Program;
		CRuntimeCPUBindings m_Bindings;
		SCompilerCPUDebugCtx m_DebugCtx;
		CBytecodeExecContext m_Ctx;
	};

	u32 F(float value) { return OxTest::FloatBits(value); }
}

TEST(StandardEntry, ConstantOrNormalDestinationEvaluatesOneElementFromStreamSources)
{
	for (EMetaType dstBank : {kConstant, kNormal})
	{
		CAssertCapture capture;
		CHost host(50);
		const CVMRegID dst = host.Reg(0, dstBank, BaseType_Float, {0xAAAAAAAAu});
		const CVMRegID a = host.Reg(1, kStream, BaseType_Float, {F(1.5f), F(2.5f)});
		const CVMRegID b = host.Reg(2, kInstance, BaseType_Float, {F(10.0f), F(20.0f)});
		EXPECT_EQ(host.Exec(SOp_MathOp::Op_Add, dst, a, b), 13u);
		const std::vector<u32> out = host.Words(dst, 2);
		EXPECT_EQ(out[0], F(11.5f));
		EXPECT_EQ(out[1], 0xAAAAAAAAu) << "one element only";
		EXPECT_EQ(capture.Count(), 0u);
	}
}

TEST(StandardEntry, SingleEvaluationReadsConstantSourcesAsStreams)
{
	// evalCount 1 gives every source its element size: an empty Normal source is too
	// small (the Low path would accept it, with stride 0).
	CAssertCapture capture;
	CHost host(8);
	const CVMRegID dst = host.Reg(0, kNormal, BaseType_I32, {});
	const CVMRegID empty = host.Reg(1, kNormal, BaseType_I32, {7}, 0);
	const CVMRegID one = host.Reg(2, kConstant, BaseType_I32, {5});
	host.Exec(SOp_MathOp::Op_Add, dst, empty, one);
	EXPECT_EQ(capture.Count(kSrc0SizeCheck), 1u);
	EXPECT_EQ(capture.Count(), 1u);
}

TEST(StandardEntry, StreamDestinationBroadcastsAConstantSource)
{
	for (EMetaType dstBank : {kInstance, kStream})
	{
		CAssertCapture capture;
		CHost host(37);
		const CVMRegID dst = host.Reg(0, dstBank, BaseType_Float3, {0xAAAAAAAAu});
		std::vector<u32> values;
		for (u32 i = 0; i < 37 * 3; ++i)
			values.push_back(F(float(i)));
		const CVMRegID a = host.Reg(1, kStream, BaseType_Float3, values);
		const CVMRegID c = host.Reg(2, kConstant, BaseType_Float3, {F(100.0f), F(200.0f), F(300.0f)});
		host.Exec(SOp_MathOp::Op_Sub, dst, c, a);	// constant - stream
		const std::vector<u32> out = host.Words(dst, 37 * 3 + 1);
		for (u32 i = 0; i < 37 * 3; ++i)
			EXPECT_EQ(out[i], F(float((i % 3 + 1) * 100) - float(i))) << i;
		EXPECT_EQ(out[37 * 3], 0xAAAAAAAAu);
		EXPECT_EQ(capture.Count(), 0u);
	}
}

TEST(StandardEntry, UnaryOperatorsHaveNoSecondSource)
{
	CAssertCapture capture;
	CHost host(9);
	const CVMRegID dst = host.Reg(0, kStream, BaseType_Float2, {});
	const CVMRegID a = host.Reg(1, kStream, BaseType_Float2, {F(0.0f), F(-2.0f), 0x7FC01234u});
	EXPECT_EQ(host.Exec(SOp_MathOp::Op_Neg, dst, a, CVMRegID::INVALID), 14u);
	const std::vector<u32> out = host.Words(dst, 18);
	const u32 expected[3] = {F(-0.0f), F(2.0f), 0xFFC01234u};
	for (u32 i = 0; i < 18; ++i)
		EXPECT_EQ(out[i], expected[i % 3]) << i;

	const CVMRegID idst = host.Reg(2, kStream, BaseType_Int4, {});
	const CVMRegID ia = host.Reg(3, kStream, BaseType_Int4, {0u, 1u, 0x80000000u});
	host.Exec(SOp_MathOp::Op_Bitwise_Not, idst, ia, CVMRegID::INVALID);
	const std::vector<u32> iout = host.Words(idst, 36);
	const u32 iexpected[3] = {0xFFFFFFFFu, 0xFFFFFFFEu, 0x7FFFFFFFu};
	for (u32 i = 0; i < 36; ++i)
		EXPECT_EQ(iout[i], iexpected[i % 3]) << i;
	EXPECT_EQ(capture.Count(), 0u);
}

TEST(StandardEntry, Bool3RunsTheThreeComponentIntegerKernel)
{
	CAssertCapture capture;
	CHost host(5);
	const CVMRegID dst = host.Reg(0, kStream, BaseType_Bool3, {0xAAAAAAAAu});
	const CVMRegID a = host.Reg(1, kStream, BaseType_Bool3, {0xFFFFFFFFu, 0u, 0xFFFFFFFFu, 0u});
	const CVMRegID b = host.Reg(2, kConstant, BaseType_Bool3, {0xFFFFFFFFu, 0xFFFFFFFFu, 0u});
	host.Exec(SOp_MathOp::Op_Bitwise_And, dst, a, b);
	const std::vector<u32> out = host.Words(dst, 16);
	for (u32 i = 0; i < 15; ++i)
	{
		const u32 ai = (i % 4 == 0 || i % 4 == 2) ? 0xFFFFFFFFu : 0u;
		const u32 bi = i % 3 == 2 ? 0u : 0xFFFFFFFFu;
		EXPECT_EQ(out[i], ai & bi) << i;
	}
	EXPECT_EQ(out[15], 0xAAAAAAAAu) << "five 3-component elements, nothing after";
	EXPECT_EQ(capture.Count(), 0u);
}

TEST(StandardEntry, QuaternionRunsTheFourFloatKernel)
{
	CAssertCapture capture;
	CHost host(3);
	const CVMRegID dst = host.Reg(0, kStream, BaseType_Quaternion, {});
	const CVMRegID a = host.Reg(1, kStream, BaseType_Quaternion, {F(1.0f), F(2.0f), F(3.0f), F(4.0f)});
	const CVMRegID b = host.Reg(2, kNormal, BaseType_Quaternion, {F(0.5f), F(0.25f), F(2.0f), F(-1.0f)});
	host.Exec(SOp_MathOp::Op_Mul, dst, a, b);
	const std::vector<u32> out = host.Words(dst, 12);
	const float expected[4] = {0.5f, 0.5f, 6.0f, -4.0f};
	for (u32 i = 0; i < 12; ++i)
		EXPECT_EQ(out[i], F(expected[i % 4])) << i;
	EXPECT_EQ(capture.Count(), 0u);
}

TEST(StandardEntry, UnsupportedTypesReportAndWriteNothing)
{
	// A stream destination, and the one-element ones (Constant, Normal).
	for (EMetaType dstBank : {kStream, kConstant, kNormal})
		for (EBaseTypeID type : {BaseType_Double, BaseType_I64, BaseType_U64, BaseType_U8, BaseType_Word3, BaseType_UInt2, BaseType_U32})
		{
			CAssertCapture capture;
			CHost host(4);
			const CVMRegID dst = host.Reg(0, dstBank, type, {0x5A5A5A5Au});
			const CVMRegID a = host.Reg(1, kStream, type, {1u});
			const CVMRegID b = host.Reg(2, kStream, type, {2u});
			host.Exec(SOp_MathOp::Op_Add, dst, a, b);
			EXPECT_TRUE(capture.Has("false", "Control point shouldn't be reached.")) << BaseTypeName(type) << " bank " << int(dstBank);
			EXPECT_EQ(capture.Count(), 1u) << BaseTypeName(type);
			for (u32 word : host.Words(dst, host.Storage().Capacity(dst) / 4))
				ASSERT_EQ(word, 0x5A5A5A5Au) << BaseTypeName(type);
		}
}

TEST(StandardEntry, BitwiseOperatorOnFloatsWritesNothing)
{
	for (EMetaType dstBank : {kStream, kConstant, kNormal})
	{
		CAssertCapture capture;
		CHost host(6);
		const CVMRegID dst = host.Reg(0, dstBank, BaseType_Float2, {0x5A5A5A5Au});
		const CVMRegID a = host.Reg(1, kStream, BaseType_Float2, {F(1.0f)});
		const CVMRegID b = host.Reg(2, kStream, BaseType_Float2, {F(3.0f)});
		host.Exec(SOp_MathOp::Op_Bitwise_And, dst, a, b);
		EXPECT_TRUE(capture.Has("fnPtr != null", "[Backend CPU-VM]: Invalid Operation: logical ops cannot be applied to 'float' type")) << int(dstBank);
		EXPECT_EQ(capture.Count(), 1u);
		for (u32 word : host.Words(dst, host.Storage().Capacity(dst) / 4))
			EXPECT_EQ(word, 0x5A5A5A5Au);
	}
}

TEST(StandardEntry, OperatorByteBeyondTheSetFindsNoKernel)
{
	for (EMetaType dstBank : {kStream, kConstant})
		for (u8 opByte : {u8(19), u8(100), u8(255)})
		{
			CAssertCapture capture;
			CHost host(6);
			const CVMRegID dst = host.Reg(0, dstBank, BaseType_Float4, {0x5A5A5A5Au});
			const CVMRegID a = host.Reg(1, kStream, BaseType_Float4, {F(1.0f)});
			u8 bytes[14] = {CBVM::Opcode_MathOp, opByte};
			for (int i = 0; i < 3; ++i)
				std::memcpy(bytes + 2 + 4 * i, &(i == 0 ? dst : a).m_RawBits, 4);
			EXPECT_EQ(host.ExecBytes(bytes), 14u);
			EXPECT_TRUE(capture.Has("fnPtr != null", "[Backend CPU-VM]: Invalid Operation: logical ops cannot be applied to 'float' type")) << int(opByte);
			for (u32 word : host.Words(dst, host.Storage().Capacity(dst) / 4))
				ASSERT_EQ(word, 0x5A5A5A5Au);
		}
}

TEST(StandardEntry, IntegerDestinationOfAnotherSizeIsRefused)
{
	for (EMetaType dstBank : {kStream, kConstant, kNormal})
	{
		CAssertCapture capture;
		CHost host(4);
		const CVMRegID dst = host.Reg(0, dstBank, BaseType_Int4, {0x5A5A5A5Au});
		const CVMRegID a = host.Reg(1, kStream, BaseType_Int3, {1u});
		const CVMRegID b = host.Reg(2, kStream, BaseType_Int3, {2u});
		host.Exec(SOp_MathOp::Op_Add, dst, a, b);
		EXPECT_EQ(capture.Count("stride == _Dimension * sizeof(s32)"), 1u) << int(dstBank);
		EXPECT_EQ(capture.Count(), 1u);
		for (u32 word : host.Words(dst, host.Storage().Capacity(dst) / 4))
			EXPECT_EQ(word, 0x5A5A5A5Au);
	}
}

TEST(StandardEntry, SpecialisedEntriesEvaluateTheirOwnOperator)
{
	CAssertCapture capture;
	CHost host(4);
	const CVMRegID dst = host.Reg(0, kStream, BaseType_I32, {});
	const CVMRegID a = host.Reg(1, kStream, BaseType_I32, {20u});
	const CVMRegID b = host.Reg(2, kStream, BaseType_I32, {6u});
	u8 bytes[13] = {CBVM::Opcode_MathOpSub};
	std::memcpy(bytes + 1, &dst.m_RawBits, 4);
	std::memcpy(bytes + 5, &a.m_RawBits, 4);
	std::memcpy(bytes + 9, &b.m_RawBits, 4);
	EXPECT_EQ(CMetaOp_MathOp::_ExecBytecode_Sub(host.Ctx(), bytes), 13u);
	EXPECT_EQ(host.Words(dst, 1)[0], 14u);
	EXPECT_EQ(capture.Count(), 0u);

	// Whatever the opcode byte says, each entry evaluates its own operator and reports the byte.
	const struct
	{
		u32 (*m_Entry)(const CBytecodeExecContext &, const u8 *);
		const char *m_Check;
		u32 m_Expected;
	} entries[] = {
		{&CMetaOp_MathOp::_ExecBytecode_Add, "bytecode[0] == CBVM::Opcode_MathOpAdd", 26u},
		{&CMetaOp_MathOp::_ExecBytecode_Sub, "bytecode[0] == CBVM::Opcode_MathOpSub", 14u},
		{&CMetaOp_MathOp::_ExecBytecode_Mul, "bytecode[0] == CBVM::Opcode_MathOpMul", 120u},
		{&CMetaOp_MathOp::_ExecBytecode_Div, "bytecode[0] == CBVM::Opcode_MathOpDiv", 3u},
	};
	bytes[0] = 0x42;
	for (const auto &entry : entries)
	{
		capture.Clear();
		EXPECT_EQ(entry.m_Entry(host.Ctx(), bytes), 13u);
		EXPECT_EQ(host.Words(dst, 1)[0], entry.m_Expected) << entry.m_Check;
		EXPECT_EQ(capture.Count(entry.m_Check), 1u);
	}
	u8 generic[14] = {0x42, SOp_MathOp::Op_Mod};
	std::memcpy(generic + 2, bytes + 1, 12);
	capture.Clear();
	EXPECT_EQ(CMetaOp_MathOp::_ExecBytecode(host.Ctx(), generic), 14u);
	EXPECT_EQ(host.Words(dst, 1)[0], 2u);
	EXPECT_EQ(capture.Count("bytecode[0] == CBVM::Opcode_MathOp"), 1u);
}

TEST(StandardEntry, SizeAndOperandChecks)
{
	{
		CAssertCapture capture;
		CHost host(8);
		const CVMRegID dst = host.Reg(0, kStream, BaseType_Float, {}, 7);
		const CVMRegID a = host.Reg(1, kStream, BaseType_Float, {F(1.0f)});
		const CVMRegID b = host.Reg(2, kStream, BaseType_Float, {F(1.0f)}, 7);
		host.Exec(SOp_MathOp::Op_Add, dst, a, b);
		EXPECT_EQ(capture.Count(kDstSizeCheck), 1u);
		EXPECT_EQ(capture.Count(kSrc1SizeCheck), 1u);
		EXPECT_EQ(capture.Count(), 2u);
	}
	{
		CAssertCapture capture;
		CHost host(8);
		const CVMRegID dst = host.Reg(0, kStream, BaseType_Float, {});
		const CVMRegID a = host.Reg(1, kStream, BaseType_Float, {F(1.0f)});
		const CVMRegID b = host.Reg(2, kStream, BaseType_I32, {1u});
		host.Exec(SOp_MathOp::Op_Cmp_Equal, dst, a, b);
		EXPECT_EQ(capture.Count("m_SrcReg1.ToType() == m_SrcType0"), 1u);
		EXPECT_EQ(capture.Count(), 1u);
	}
	{
		// A unary operator with a second source, built by hand (the encoder would report it).
		CAssertCapture capture;
		CHost host(8);
		const CVMRegID dst = host.Reg(0, kStream, BaseType_I32, {});
		const CVMRegID a = host.Reg(1, kStream, BaseType_I32, {5u});
		u8 bytes[14] = {CBVM::Opcode_MathOp, SOp_MathOp::Op_Bitwise_Not};
		std::memcpy(bytes + 2, &dst.m_RawBits, 4);
		std::memcpy(bytes + 6, &a.m_RawBits, 4);
		std::memcpy(bytes + 10, &a.m_RawBits, 4);
		host.ExecBytes(bytes);
		EXPECT_EQ(capture.Count(kOperandCountCheck), 1u);
	}
}

TEST(StandardEntry, ProfilerRecordsOneEntryPerCallUnderEachName)
{
	CAssertCapture capture;
	CHost host(4);
	const CVMRegID dst = host.Reg(0, kStream, BaseType_Float, {});
	const CVMRegID a = host.Reg(1, kStream, BaseType_Float, {F(3.0f)});
	const CVMRegID b = host.Reg(2, kStream, BaseType_Float, {F(2.0f)});
	Profiler::CProfiler &profiler = *Profiler::MainEngineProfiler();
	auto count = [&](const char *name) {
		Profiler::SNodeStats stats;
		return profiler.FindByName(name, stats) ? stats.m_Count : 0;
	};
	const struct
	{
		EOp m_Op;
		const char *m_Name;
	} cases[] = {
		{SOp_MathOp::Op_Add, "_ExecBytecode_Add"},
		{SOp_MathOp::Op_Sub, "_ExecBytecode_Sub"},
		{SOp_MathOp::Op_Mul, "_ExecBytecode_Mul"},
		{SOp_MathOp::Op_Div, "_ExecBytecode_Div"},
		{SOp_MathOp::Op_Mod, "_ExecBytecode"},
	};
	for (const auto &c : cases)
	{
		const u64 before = count(c.m_Name);
		for (int i = 0; i < 3; ++i)
			host.Exec(c.m_Op, dst, a, b);
		EXPECT_EQ(count(c.m_Name) - before, 3u) << c.m_Name;
		Profiler::SNodeStats stats;
		ASSERT_TRUE(profiler.FindByName(c.m_Name, stats));
		EXPECT_EQ(stats.m_Descriptor->m_Flags, 0u);
		EXPECT_EQ(stats.m_Descriptor->m_Color[0], 1.0f);
		EXPECT_EQ(stats.m_Descriptor->m_Color[1], 0.1f);
		EXPECT_EQ(stats.m_Descriptor->m_Color[2], 0.5f);
		EXPECT_EQ(stats.m_Descriptor->m_Color[3], 1.0f);
		EXPECT_NE(std::string(stats.m_Descriptor->m_File).find("cbvm_meta_op_math_operator"), std::string::npos);
	}
	// The Low path is not profiled.
	const u64 before = count("_ExecBytecode_Add");
	u8 bytes[14];
	SOp_MathOp::SDesc desc;
	desc.m_Op = SOp_MathOp::Op_Add;
	desc.m_DstReg = dst.ToIRRegID();
	desc.m_SrcReg0 = a.ToIRRegID();
	desc.m_SrcReg1 = b.ToIRRegID();
	CMetaOp_MathOp::EncodeDescToBytecode(bytes, desc);
	CMetaOp_MathOp::_ExecBytecode_Add_Low(host.Ctx(), bytes);
	EXPECT_EQ(count("_ExecBytecode_Add"), before);
	EXPECT_EQ(capture.Count(), 0u);
}

TEST(StandardEntry, InterpreterDefaultsToTheStandardPath)
{
	EXPECT_EQ(CBVM::CInterpreter::Entry(CBVM::ExecPath_Standard, CBVM::Opcode_MathOp).m_Exec, &CMetaOp_MathOp::_ExecBytecode);
	EXPECT_EQ(CBVM::CInterpreter::Entry(CBVM::ExecPath_Standard, CBVM::Opcode_MathOpDiv).m_Exec, &CMetaOp_MathOp::_ExecBytecode_Div);
	EXPECT_EQ(CBVM::CInterpreter::Entry(CBVM::ExecPath_Standard, CBVM::Opcode_MathOpDiv).m_Size, 13u);
	EXPECT_EQ(CBVM::CInterpreter::Entry(CBVM::ExecPath_Standard, 112).m_Exec, nullptr);
	EXPECT_STREQ(CBVM::ExecPathName(CBVM::ExecPath_Standard), "standard");

	CAssertCapture capture;
	CHost host(4);
	const CVMRegID dst = host.Reg(0, kStream, BaseType_I32, {});
	const CVMRegID a = host.Reg(1, kStream, BaseType_I32, {9u});
	const CVMRegID b = host.Reg(2, kConstant, BaseType_I32, {4u});
	SOp_MathOp::SDesc desc;
	desc.m_Op = SOp_MathOp::Op_Mul;
	desc.m_DstReg = dst.ToIRRegID();
	desc.m_SrcReg0 = a.ToIRRegID();
	desc.m_SrcReg1 = b.ToIRRegID();
	u8 bytes[14];
	const u32 size = CMetaOp_MathOp::EncodeDescToBytecode(bytes, desc);
	Profiler::SNodeStats stats;
	const u64 before = Profiler::MainEngineProfiler()->FindByName("_ExecBytecode_Mul", stats) ? stats.m_Count : 0;
	const CBVM::SRunResult result = CBVM::CInterpreter::Run(host.Ctx(), bytes, size);
	EXPECT_EQ(result.m_Status, CBVM::RunStatus_Ok);
	ASSERT_TRUE(Profiler::MainEngineProfiler()->FindByName("_ExecBytecode_Mul", stats));
	EXPECT_EQ(stats.m_Count, before + 1) << "the default path is the standard one";
	EXPECT_EQ(host.Words(dst, 4), std::vector<u32>(4, 36u));
}

TEST(StandardEntry, BothPathsRunTheSameProgramIdentically)
{
	// A particle step with integer bookkeeping, run on each path from identical registers.
	auto build = [](CHost &host, std::vector<u8> &program) {
		const u32 n = 1000;
		std::vector<u32> pos, vel, age;
		for (u32 i = 0; i < n; ++i)
		{
			for (u32 k = 0; k < 3; ++k)
			{
				pos.push_back(F(float(i) * 0.25f - float(k)));
				vel.push_back(F(float(k) - float(i % 7)));
			}
			age.push_back(i * 7);
		}
		const CVMRegID rPos = host.Reg(0, kStream, BaseType_Float3, pos);
		const CVMRegID rVel = host.Reg(1, kStream, BaseType_Float3, vel);
		const CVMRegID rTmp = host.Reg(2, kStream, BaseType_Float3, {});
		const CVMRegID rG = host.Reg(3, kConstant, BaseType_Float3, {F(0.0f), F(-9.81f), F(0.0f)});
		const CVMRegID rDt = host.Reg(4, kConstant, BaseType_Float3, {F(1.0f / 60.0f)});
		const CVMRegID rAge = host.Reg(5, kStream, BaseType_I32, age);
		const CVMRegID rOne = host.Reg(6, kConstant, BaseType_I32, {1u});
		const CVMRegID rMax = host.Reg(7, kConstant, BaseType_I32, {3000u});
		const struct
		{
			EOp m_Op;
			CVMRegID m_Dst, m_A, m_B;
		} code[] = {
			{SOp_MathOp::Op_Mul, rTmp, rG, rDt},
			{SOp_MathOp::Op_Add, rVel, rVel, rTmp},
			{SOp_MathOp::Op_Mul, rTmp, rVel, rDt},
			{SOp_MathOp::Op_Add, rPos, rPos, rTmp},
			{SOp_MathOp::Op_Div, rTmp, rPos, rDt},
			{SOp_MathOp::Op_Add, rAge, rAge, rOne},
			{SOp_MathOp::Op_Div, rAge, rAge, rOne},
			{SOp_MathOp::Op_Mod, rAge, rAge, rMax},
			{SOp_MathOp::Op_Bitwise_ShiftRight, rAge, rAge, rOne},
			{SOp_MathOp::Op_Cmp_Lower, rAge, rAge, rMax},
		};
		for (const auto &c : code)
		{
			SOp_MathOp::SDesc desc;
			desc.m_Op = c.m_Op;
			desc.m_DstReg = c.m_Dst.ToIRRegID();
			desc.m_SrcReg0 = c.m_A.ToIRRegID();
			desc.m_SrcReg1 = c.m_B.ToIRRegID();
			u8 bytes[14];
			program.insert(program.end(), bytes, bytes + CMetaOp_MathOp::EncodeDescToBytecode(bytes, desc));
		}
	};
	CAssertCapture capture;
	CHost standard(1000), low(1000);
	std::vector<u8> program, same;
	build(standard, program);
	build(low, same);
	ASSERT_EQ(program, same);
	const CBVM::SRunResult a = CBVM::CInterpreter::Run(standard.Ctx(), program.data(), u32(program.size()), CBVM::ExecPath_Standard);
	const CBVM::SRunResult b = CBVM::CInterpreter::Run(low.Ctx(), program.data(), u32(program.size()), CBVM::ExecPath_Low);
	EXPECT_EQ(a.m_Status, CBVM::RunStatus_Ok);
	EXPECT_EQ(b.m_Status, CBVM::RunStatus_Ok);
	EXPECT_EQ(a.m_Executed, 10u);
	EXPECT_EQ(b.m_Executed, 10u);
	// Every register, padding included.
	for (u32 slot : {0u, 1u, 2u, 5u})
	{
		const EMetaType bank = kStream;
		const EBaseTypeID type = slot == 5 ? BaseType_I32 : BaseType_Float3;
		const CVMRegID id = CVMRegID::Build(slot, bank, type);
		const u32 words = standard.Storage().Capacity(id) / 4;
		EXPECT_EQ(standard.Words(id, words), low.Words(id, words)) << "slot " << slot;
	}
	EXPECT_EQ(capture.Count(), 0u);
}

//------------------------------------------------------------------------------------
// One-element evaluations (Constant or Normal destination) run kernels of their own:
// they must give, bit for bit, what the stream kernels give for the same element.

namespace
{
	// Random words with the values that matter often enough: float specials (signed
	// zeros, infinities, NaNs with payloads, denormals, huge quotients) and integer ones
	// (0, +-1, INT_MIN, INT_MAX, shift counts past 31).
	u32 _InterestingWord(std::mt19937 &rng, bool floats)
	{
		static const u32 kFloatSpecials[] = {0x00000000u, 0x80000000u, 0x7F800000u, 0xFF800000u, 0x7FC00000u, 0xFFA00001u, 0x00000001u, 0x3F800000u, 0xBF800000u, 0x4F000000u, 0x7F7FFFFFu, 0x40400000u};
		static const u32 kIntSpecials[] = {0u, 1u, 0xFFFFFFFFu, 0x80000000u, 0x7FFFFFFFu, 31u, 32u, 40u, 0xFFFFFFE0u, 7u, 8u, 0xFFFFFFF9u};
		const u32 pick = rng() % 4;
		if (pick == 0)
			return floats ? kFloatSpecials[rng() % 12] : kIntSpecials[rng() % 12];
		if (pick == 1 && floats)
			return OxTest::FloatBits(float(s32(rng() % 2001) - 1000) / 8.0f);	// small exact values
		if (pick == 1)
			return u32(s32(rng() % 201) - 100);
		return rng();
	}
}

TEST(StandardEntry, OneElementEvaluationMatchesTheStreamKernels)
{
	constexpr u32 kSeed = 20261122;
	std::printf("one-element vs stream evaluation: seed %u\n", kSeed);
	std::mt19937 rng(kSeed);
	constexpr u32 kElements = 13;	// whole vectors, 12-integer blocks and tails
	const EBaseTypeID types[] = {BaseType_Float, BaseType_Float2, BaseType_Float3, BaseType_Float4, BaseType_Quaternion,
								 BaseType_I32, BaseType_Int2, BaseType_Int3, BaseType_Int4, BaseType_Bool, BaseType_Bool2, BaseType_Bool3, BaseType_Bool4};
	u32 compared = 0;
	for (u32 opValue = 0; opValue < u32(SOp_MathOp::__MaxOps); ++opValue)
		for (EBaseTypeID type : types)
		{
			const EOp op = EOp(opValue);
			OxTest::EModelKind kind;
			u32 components = 0;
			ASSERT_TRUE(OxTest::ModelKernelForType(type, kind, components));
			if (!OxTest::ModelSupports(kind, op))
				continue;
			const bool unary = OxTest::ModelIsUnary(op);
			for (int round = 0; round < 20; ++round)
			{
				std::vector<u32> wordsA(kElements * components), wordsB(kElements * components);
				for (u32 i = 0; i < wordsA.size(); ++i)
				{
					wordsA[i] = _InterestingWord(rng, kind == OxTest::EModelKind::Float);
					wordsB[i] = _InterestingWord(rng, kind == OxTest::EModelKind::Float);
				}
				CAssertCapture capture;
				CHost host(kElements);
				const CVMRegID streamDst = host.Reg(0, kStream, type, {});
				const CVMRegID a = host.Reg(1, kStream, type, wordsA);
				const CVMRegID b = host.Reg(2, kInstance, type, wordsB);
				host.Exec(op, streamDst, a, unary ? CVMRegID::INVALID : b);
				const std::vector<u32> streamOut = host.Words(streamDst, kElements * components);

				for (u32 e = 0; e < kElements; ++e)
				{
					const auto element = [&](const std::vector<u32> &words) { return std::vector<u32>(words.begin() + e * components, words.begin() + (e + 1) * components); };
					const CVMRegID dst = host.Reg(3, e % 2 ? kNormal : kConstant, type, {0xA5A5A5A5u});
					const CVMRegID ca = host.Reg(4, e % 3 ? kConstant : kNormal, type, element(wordsA));
					const CVMRegID cb = host.Reg(5, kConstant, type, element(wordsB));
					host.Exec(op, dst, ca, unary ? CVMRegID::INVALID : cb);
					const std::vector<u32> out = host.Words(dst, components + 1);
					for (u32 k = 0; k < components; ++k)
					{
						const u32 x = wordsA[e * components + k], y = wordsB[e * components + k];
						const u32 model = OxTest::ModelComponent(kind, op, x, y);
						const u32 alternative = OxTest::ModelAlternative(kind, op, x, y);
						const u32 fromStream = streamOut[e * components + k];
						if (model != alternative)	// add or mul of two NaNs: either NaN, on either path
							EXPECT_TRUE((out[k] == model || out[k] == alternative) && (fromStream == model || fromStream == alternative)) << std::hex << x << " " << y;
						else
							EXPECT_EQ(out[k], fromStream) << SOp_MathOp::OperatorTraits(op).m_Name << " " << BaseTypeName(type) << " element " << e << " component " << k << std::hex << " a " << x << " b " << y;
						++compared;
					}
					EXPECT_EQ(out[components], 0xA5A5A5A5u) << "one element only";
				}
				EXPECT_EQ(capture.Count(), 0u) << SOp_MathOp::OperatorTraits(op).m_Name << " " << BaseTypeName(type);
			}
		}
	EXPECT_GT(compared, 100000u);
}

TEST(StandardEntry, OneElementEvaluationOfMisalignedRegistersStillReports)
{
	// A register a host points at memory that is not 32-byte aligned is not taken by the
	// one-element kernels: the selector reports it and evaluates anyway, as for streams.
	// (16-byte aligned here: the vector accesses that follow a report need that much.)
	for (EBaseTypeID type : {BaseType_Float, BaseType_Float4, BaseType_I32, BaseType_Int3})
	{
		CAssertCapture capture;
		CHost host(4);
		const u32 size = CCBCPUMetaRegisters::m_DataTypeSizeInBytes[type + 1];
		const bool floats = type == BaseType_Float || type == BaseType_Float4;
		const CVMRegID dst = host.Reg(0, kConstant, type, {0u});
		const CVMRegID a = host.Reg(1, kConstant, type, {floats ? F(3.0f) : 3u}, 2);
		const CVMRegID b = host.Reg(2, kConstant, type, {floats ? F(5.0f) : 5u});
		CCBCPUMetaRegisters::SRegister &entry = host.Storage().Registers().SelectRegister(a);
		const CCBCPUMetaRegisters::SRegister saved = entry;
		entry.m_RawData = static_cast<u8 *>(entry.m_RawData) + 16;
		entry.m_Size = size;
		host.Exec(SOp_MathOp::Op_Mul, dst, a, b);
		entry = saved;	// the storage frees what it allocated
		EXPECT_EQ(capture.Count("OX_NAMESPACE::Mem::IsAligned<0x20>((datasrc0))"), 1u) << BaseTypeName(type);
		EXPECT_EQ(host.Words(dst, 1)[0], floats ? F(15.0f) : 15u) << BaseTypeName(type);
	}
}

TEST(StandardEntryDeathTest, SizeChecksDoNotWrapForHugeStreams)
{
	// 2^30 elements of 4 bytes: the product wraps to 0 in 32 bits, and a one-element
	// register would pass the destination size check. It must be reported. The check only
	// reports (execution goes on and writes far past the register, which ends the
	// process), so each path runs in a child and the report is looked for on stderr.
	GTEST_FLAG_SET(death_test_style, OX_DEATH_TEST_STYLE);
	for (CBVM::EExecPath path : {CBVM::ExecPath_Standard, CBVM::ExecPath_Low})
	{
		EXPECT_DEATH(
			{
				CHost host(1u << 30);
				const CVMRegID dst = host.Reg(0, kStream, BaseType_Float, {0u}, 1);
				const CVMRegID a = host.Reg(1, kStream, BaseType_Float, {F(1.0f)}, 1);
				SOp_MathOp::SDesc desc;
				desc.m_Op = SOp_MathOp::Op_Add;
				desc.m_DstReg = dst.ToIRRegID();
				desc.m_SrcReg0 = a.ToIRRegID();
				desc.m_SrcReg1 = a.ToIRRegID();
				u8 bytes[CMetaOp_MathOp::IP_Offset];
				CMetaOp_MathOp::EncodeDescToBytecode(bytes, desc);
				CBVM::CInterpreter::Entry(path, bytes[0]).m_Exec(host.Ctx(), bytes);
			},
			"m_StreamDimensions \\* (stride|dstStride)")
			<< (path == CBVM::ExecPath_Standard ? "standard" : "Low");
	}
}
