// The Low execution path of the math operator: entry points, operand resolution,
// evaluation counts, strides, the kernels' values (checked against the scalar model
// bit for bit), what is never written, and the reports of malformed instructions.

#include "cbvm_meta_ops.h"
#include "cbvm_register_storage.h"
#include "cbvm_registers.h"
#include "scalar_model.h"
#include "test_support.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <climits>
#include <cstdio>
#include <iostream>
#include <iterator>
#include <random>
#include <sstream>
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
	constexpr u32 kSeed = 0x10A7F00Du;

	const EMetaType kBanks[4] = {Compiler::MetaType_Constant, Compiler::MetaType_Normal, Compiler::MetaType_Instance, Compiler::MetaType_Stream};

	const EBaseTypeID kKernelTypes[] = {
		BaseType_Float, BaseType_Float2, BaseType_Float3, BaseType_Float4, BaseType_Quaternion,
		BaseType_I32, BaseType_Int2, BaseType_Int3, BaseType_Int4,
		BaseType_Bool, BaseType_Bool2, BaseType_Bool3, BaseType_Bool4};

	const char *const kInvalidFloatOpMessage = "[Backend CPU-VM]: Invalid Operation: logical ops cannot be applied to 'float' type";
	const char *const kUnsupportedIntOpMessage = "[Backend CPU-VM]: Unsupported integer operation";
	const char *const kDstSizeCheck = "reg.m_Size >= registers.m_StreamDimensions * dstStride || (reg.m_Size >= dstStride && mt < Compiler::MetaType_Instance)";
	const char *const kSrc0SizeCheck = "reg0.m_Size >= evalCount * stride0";
	const char *const kSrc1SizeCheck = "reg1.m_Size >= evalCount * stride1";
	const char *const kOperandCountCheck = "m_SrcReg1.Valid() == (Compiler::IR::SOp_MathOp::OperatorTraits(op).m_ParameterCount > 1)";
	const char *const kSrc1TypeCheck = "m_SrcReg1.ToType() == m_SrcType";

	bool IsStreamBank(EMetaType bank) { return bank >= Compiler::MetaType_Instance; }

	// Guard pattern: what every word a kernel must not touch holds before the run.
	u32 GuardWord(u32 index) { return 0xC0DE0000u ^ (index * 0x9E3779B1u); }

	//--------------------------------------------------------------------------------
	// Values: a pool of edge values, mixed with random words and ordinary numbers.

	const u32 kFloatSpecials[] = {
		0x00000000u, 0x80000000u,					// +0, -0
		0x7F800000u, 0xFF800000u,					// +inf, -inf
		0x7FC00000u, 0xFFC00000u,					// quiet NaNs
		0x7FC12345u, 0xFFF00ABCu, 0x7FFFFFFFu,		// quiet NaNs with payloads
		0x7F800001u, 0xFFA00001u, 0x7FBFFFFFu,		// signalling NaNs
		0x00000001u, 0x807FFFFFu, 0x00400000u,		// denormals
		0x00800000u, 0x80800000u,					// smallest normals
		0x7F7FFFFFu, 0xFF7FFFFFu,					// largest finite
		0x3F800000u, 0xBF800000u,					// 1, -1
		0x3F000000u, 0x40000000u, 0xC0000000u,		// 0.5, 2, -2
		0x40400000u, 0x40B00000u, 0xC0B00000u,		// 3, 5.5, -5.5
		0x40E00000u, 0x50DF8476u,					// 7, 3e10
		0x4F000000u, 0x4EFFFFFFu, 0xCF000000u,		// 2^31, largest float below 2^31, -2^31
		0x0DA24260u, 0x3DCCCCCDu,					// 1e-30, 0.1
	};

	const u32 kIntSpecials[] = {
		0u, 1u, 0xFFFFFFFFu, 2u, 0xFFFFFFFEu, 7u, u32(-7),
		0x80000000u, 0x7FFFFFFFu, 0x80000001u, 0x7FFFFFFEu,
		31u, 32u, 33u, 40u, 0x55555555u, 0xAAAAAAAAu,
		65536u, u32(-65536), 46341u, u32(-46341),
	};

	class CValues
	{
	public:
		explicit CValues(u32 seed) : m_Rng(seed) {}

		u32 Next(EModelKind kind)
		{
			const u32 pick = Uniform(100);
			if (kind == EModelKind::Float)
			{
				if (pick < 30)
					return kFloatSpecials[Uniform(std::size(kFloatSpecials))];
				if (pick < 55)
					return u32(m_Rng());
				if (pick < 75)
					return FloatBits(float(s32(Uniform(201)) - 100));
				return FloatBits(std::uniform_real_distribution<float>(-1000.0f, 1000.0f)(m_Rng));
			}
			if (pick < 30)
				return kIntSpecials[Uniform(std::size(kIntSpecials))];
			if (pick < 55)
				return Uniform(41);		// shift counts 0 .. 40
			if (pick < 75)
				return u32(s32(Uniform(201)) - 100);
			return u32(m_Rng());
		}

		u32 Uniform(std::size_t n) { return u32(std::uniform_int_distribution<u32>(0, u32(n - 1))(m_Rng)); }

	private:
		std::mt19937 m_Rng;
	};

	void PrintSeed(const char *test)
	{
		std::cout << "[ seed ] " << test << " seed = 0x" << std::hex << kSeed << std::dec << std::endl;
	}

	//--------------------------------------------------------------------------------
	// Bytecode by hand (the encoder is tested elsewhere; here the tests need forms the
	// encoder refuses to produce).

	void PutU32(u8 *p, u32 v)
	{
		for (u32 i = 0; i < 4; ++i)
			p[i] = u8(v >> (8 * i));
	}

	u32 EncodeGeneric(u8 *out, u8 opcode, u8 opByte, CVMRegID dst, CVMRegID src0, CVMRegID src1)
	{
		out[0] = opcode;
		out[1] = opByte;
		PutU32(out + 2, u32(dst.m_RawBits));
		PutU32(out + 6, u32(src0.m_RawBits));
		PutU32(out + 10, u32(src1.m_RawBits));
		return 14;
	}

	u32 EncodeSpecialised(u8 *out, u8 opcode, CVMRegID dst, CVMRegID src0, CVMRegID src1)
	{
		out[0] = opcode;
		PutU32(out + 1, u32(dst.m_RawBits));
		PutU32(out + 5, u32(src0.m_RawBits));
		PutU32(out + 9, u32(src1.m_RawBits));
		out[13] = 0xEE;		// not part of the instruction
		return 13;
	}

	u32 EncodeWithCodec(u8 *out, EOp op, CVMRegID dst, CVMRegID src0, CVMRegID src1)
	{
		SOp_MathOp::SDesc desc;
		desc.m_Op = op;
		desc.m_DstReg = dst.ToIRRegID();
		desc.m_SrcReg0 = src0.ToIRRegID();
		desc.m_SrcReg1 = src1.ToIRRegID();
		return CMetaOp_MathOp::EncodeDescToBytecode(out, desc);
	}

	using FnEntry = u32 (*)(const CBytecodeExecContext &, const u8 *);

	FnEntry EntryForOpcode(u8 opcode)
	{
		switch (opcode)
		{
		case CBVM::Opcode_MathOp: return &CMetaOp_MathOp::_ExecBytecode_Low;
		case CBVM::Opcode_MathOpAdd: return &CMetaOp_MathOp::_ExecBytecode_Add_Low;
		case CBVM::Opcode_MathOpSub: return &CMetaOp_MathOp::_ExecBytecode_Sub_Low;
		case CBVM::Opcode_MathOpMul: return &CMetaOp_MathOp::_ExecBytecode_Mul_Low;
		case CBVM::Opcode_MathOpDiv: return &CMetaOp_MathOp::_ExecBytecode_Div_Low;
		default: return nullptr;
		}
	}

	//--------------------------------------------------------------------------------
	// One instruction over a fresh register file: slot 0 holds the destination, slot 1
	// source 0, slot 2 source 1.

	struct SInstr
	{
		EOp m_Op = SOp_MathOp::Op_Add;
		EBaseTypeID m_Type0 = BaseType_Float;
		EBaseTypeID m_Type1 = BaseType_Float;
		EBaseTypeID m_DstType = BaseType_Float;
		EMetaType m_DstBank = Compiler::MetaType_Stream;
		EMetaType m_Bank0 = Compiler::MetaType_Stream;
		EMetaType m_Bank1 = Compiler::MetaType_Stream;
		bool m_HasSrc1 = true;
		u32 m_StreamDimensions = 1;
		bool m_Generic = false;		// generic form even for add .. div
		// Register sizes in bytes; negative: what a well-formed program would allocate.
		s64 m_DstBytes = -1;
		s64 m_Src0Bytes = -1;
		s64 m_Src1Bytes = -1;
	};

	SInstr Same(EOp op, EBaseTypeID type, EMetaType dstBank, EMetaType bank0, EMetaType bank1, u32 streamDims)
	{
		SInstr in;
		in.m_Op = op;
		in.m_Type0 = in.m_Type1 = in.m_DstType = type;
		in.m_DstBank = dstBank;
		in.m_Bank0 = bank0;
		in.m_Bank1 = bank1;
		in.m_HasSrc1 = !OxTest::ModelIsUnary(op);
		in.m_StreamDimensions = streamDims;
		return in;
	}

	std::string Describe(const SInstr &in)
	{
		std::ostringstream s;
		s << "op " << int(in.m_Op) << " (" << SOp_MathOp::OperatorTraits(in.m_Op).m_Name << ") type0 " << BaseTypeName(in.m_Type0)
		  << " type1 " << BaseTypeName(in.m_Type1) << " dst " << BaseTypeName(in.m_DstType)
		  << " banks " << Compiler::MetaTypeName(in.m_DstBank) << " <- " << Compiler::MetaTypeName(in.m_Bank0) << ", "
		  << (in.m_HasSrc1 ? Compiler::MetaTypeName(in.m_Bank1) : "none") << " dims " << in.m_StreamDimensions
		  << (in.m_Generic ? " generic" : "");
		return s.str();
	}

	std::string Hex(u32 v)
	{
		char text[16];
		std::snprintf(text, sizeof(text), "0x%08X", v);
		return text;
	}

	class CLowRun
	{
	public:
		explicit CLowRun(const SInstr &in)
		: m_In(in), m_Storage(4), m_Ctx(&m_Program, m_Bindings, m_Storage.Registers(), m_DebugCtx)
		{
			m_Dst = CVMRegID::Build(0, in.m_DstBank, in.m_DstType);
			m_Src0 = CVMRegID::Build(1, in.m_Bank0, in.m_Type0);
			m_Src1 = in.m_HasSrc1 ? CVMRegID::Build(2, in.m_Bank1, in.m_Type1) : CVMRegID::INVALID;
			m_Storage.Registers().m_StreamDimensions = in.m_StreamDimensions;
			m_EvalCount = IsStreamBank(in.m_DstBank) ? in.m_StreamDimensions : 1;

			const u32 dstSize = SizeOf(in.m_DstType);
			const u32 dstBytes = in.m_DstBytes >= 0 ? u32(in.m_DstBytes) : dstSize * (IsStreamBank(in.m_DstBank) ? in.m_StreamDimensions : 1);
			EXPECT_TRUE(m_Storage.Allocate(m_Dst, dstBytes));
			AllocateSource(m_Src0, in.m_Type0, in.m_Bank0, in.m_Src0Bytes);
			if (in.m_HasSrc1)
				AllocateSource(m_Src1, in.m_Type1, in.m_Bank1, in.m_Src1Bytes);

			// Every destination word, padding included, starts as guard.
			u32 *dst = m_Storage.DataAs<u32>(m_Dst);
			for (u32 i = 0; i < m_Storage.Capacity(m_Dst) / 4; ++i)
				dst[i] = GuardWord(i);
		}

		// Fills the sources' used bytes with values; then, for one comparison in
		// seven, makes source 1's word equal to source 0's.
		void Fill(CValues &values)
		{
			EModelKind kind = EModelKind::Float;
			u32 components = 1;
			OxTest::ModelKernelForType(m_In.m_Type0, kind, components);
			u32 *s0 = m_Storage.DataAs<u32>(m_Src0);
			for (u32 i = 0; i < m_Storage.Size(m_Src0) / 4; ++i)
				s0[i] = values.Next(kind);
			if (!m_In.m_HasSrc1)
				return;
			u32 *s1 = m_Storage.DataAs<u32>(m_Src1);
			const u32 n1 = m_Storage.Size(m_Src1) / 4;
			for (u32 i = 0; i < n1; ++i)
				s1[i] = values.Next(kind);
			const u32 common = std::min(n1, m_Storage.Size(m_Src0) / 4);
			for (u32 i = 0; i < common; ++i)
				if (values.Uniform(7) == 0)
					s1[i] = s0[i];
		}

		u32 *Src0() const { return m_Storage.DataAs<u32>(m_Src0); }
		u32 *Src1() const { return m_Storage.DataAs<u32>(m_Src1); }
		u32 *Dst() const { return m_Storage.DataAs<u32>(m_Dst); }
		u32 DstWords() const { return m_Storage.Capacity(m_Dst) / 4; }
		u32 EvalCount() const { return m_EvalCount; }
		CVMRegID DstId() const { return m_Dst; }
		CVMRegID Src0Id() const { return m_Src0; }
		CVMRegID Src1Id() const { return m_Src1; }
		CRegisterStorage &Storage() { return m_Storage; }
		const CBytecodeExecContext &Ctx() const { return m_Ctx; }

		// Encodes the instruction (codec, or generic by hand) and runs its entry point;
		// the sources are snapshotted first so that the model sees the inputs.
		u32 Run()
		{
			Snapshot();
			u8 bytes[16] = {};
			if (m_In.m_Generic || u32(m_In.m_Op) >= CMetaOp_MathOp::kSpecializedOpCount)
				m_Size = EncodeGeneric(bytes, CBVM::Opcode_MathOp, u8(m_In.m_Op), m_Dst, m_Src0, m_Src1);
			else if (m_In.m_HasSrc1)
				m_Size = EncodeWithCodec(bytes, m_In.m_Op, m_Dst, m_Src0, m_Src1);
			else
				m_Size = EncodeSpecialised(bytes, u8(CBVM::Opcode_MathOpAdd + u32(m_In.m_Op)), m_Dst, m_Src0, m_Src1);
			const FnEntry entry = EntryForOpcode(bytes[0]);
			if (entry == nullptr)
			{
				ADD_FAILURE() << "no entry for opcode " << int(bytes[0]);
				return 0;
			}
			return entry(m_Ctx, bytes);
		}

		u32 EncodedSize() const { return m_Size; }

		void Snapshot()
		{
			m_Snap0.assign(Src0(), Src0() + m_Storage.Capacity(m_Src0) / 4);
			if (m_In.m_HasSrc1)
				m_Snap1.assign(Src1(), Src1() + m_Storage.Capacity(m_Src1) / 4);
			else
				m_Snap1.clear();
		}

		// What the model expects: source 0's type picks the kernel, source strides come
		// from the banks (source 0's element size for both), the destination is dense.
		bool Expected(std::vector<u32> &out, std::vector<u32> *alternatives = nullptr) const
		{
			EModelKind kind;
			u32 components;
			if (!OxTest::ModelKernelForType(m_In.m_Type0, kind, components))
			{
				out.clear();
				return false;
			}
			const u32 elementWords = CCBCPUMetaRegisters::m_DataTypeSizeInBytes[m_In.m_Type0 + 1] / 4;
			const u32 stride0 = IsStreamBank(m_In.m_Bank0) ? elementWords : 0;
			const u32 stride1 = IsStreamBank(m_In.m_Bank1) ? elementWords : 0;
			return OxTest::ModelStream(m_In.m_Op, kind, components, m_EvalCount, m_Snap0.data(), stride0,
									   m_In.m_HasSrc1 ? m_Snap1.data() : nullptr, stride1, out, alternatives);
		}

		// Every destination word: the model's value below the evaluated count (when the
		// operator exists), the guard everywhere else.
		::testing::AssertionResult CheckDestination() const
		{
			std::vector<u32> expected, alternatives;
			Expected(expected, &alternatives);
			const u32 *dst = Dst();
			for (u32 i = 0; i < DstWords(); ++i)
			{
				const bool computed = i < expected.size();
				const u32 want = computed ? expected[i] : GuardWord(i);
				if (dst[i] != want && !(computed && dst[i] == alternatives[i]))
				{
					auto failure = ::testing::AssertionFailure();
					failure << Describe(m_In) << ": word " << i << (computed ? " (computed)" : " (must be untouched)")
							<< " expected " << Hex(want) << " got " << Hex(dst[i]);
					if (computed)
					{
						EModelKind kind;
						u32 components;
						OxTest::ModelKernelForType(m_In.m_Type0, kind, components);
						const u32 element = i / components, c = i % components;
						const u32 elementWords = CCBCPUMetaRegisters::m_DataTypeSizeInBytes[m_In.m_Type0 + 1] / 4;
						failure << " inputs " << Hex(m_Snap0[(IsStreamBank(m_In.m_Bank0) ? element * elementWords : 0) + c]);
						if (m_In.m_HasSrc1)
							failure << ", " << Hex(m_Snap1[(IsStreamBank(m_In.m_Bank1) ? element * elementWords : 0) + c]);
					}
					return failure;
				}
			}
			return ::testing::AssertionSuccess();
		}

		::testing::AssertionResult DestinationUntouched() const
		{
			for (u32 i = 0; i < DstWords(); ++i)
				if (Dst()[i] != GuardWord(i))
					return ::testing::AssertionFailure() << Describe(m_In) << ": word " << i << " was written (" << Hex(Dst()[i]) << ")";
			return ::testing::AssertionSuccess();
		}

	private:
		static u32 SizeOf(EBaseTypeID type)
		{
			const u32 index = u32(type + 1);
			const u32 size = index < kBaseTypeTableSize ? CCBCPUMetaRegisters::m_DataTypeSizeInBytes[index] : 0;
			return size != 0 ? size : 16;	// types without a size still get some storage
		}

		void AllocateSource(CVMRegID id, EBaseTypeID type, EMetaType bank, s64 bytesOverride)
		{
			// A stream source holds at least every element a stream destination evaluates.
			const u32 elements = IsStreamBank(bank) ? std::max(m_In.m_StreamDimensions, m_EvalCount) : 1;
			const u32 bytes = bytesOverride >= 0 ? u32(bytesOverride) : SizeOf(type) * elements;
			EXPECT_TRUE(m_Storage.Allocate(id, bytes));
		}

		SInstr m_In;
		CRegisterStorage m_Storage;
		CCompilerBackendCPUProgram_VM m_Program;
		CRuntimeCPUBindings m_Bindings;
		SCompilerCPUDebugCtx m_DebugCtx;
		CBytecodeExecContext m_Ctx;
		CVMRegID m_Dst = CVMRegID::INVALID, m_Src0 = CVMRegID::INVALID, m_Src1 = CVMRegID::INVALID;
		u32 m_EvalCount = 0;
		u32 m_Size = 0;
		std::vector<u32> m_Snap0, m_Snap1;
	};

	u32 ExpectedSize(const SInstr &in)
	{
		return (in.m_Generic || u32(in.m_Op) >= CMetaOp_MathOp::kSpecializedOpCount) ? 14u : 13u;
	}

	// Runs a well-formed instruction and checks everything: size, no report, values,
	// guards. Unsupported operators must report their one message and write nothing.
	::testing::AssertionResult RunWellFormed(const SInstr &in, CValues &values)
	{
		CAssertCapture capture;
		CLowRun run(in);
		run.Fill(values);
		const u32 size = run.Run();
		if (size != ExpectedSize(in))
			return ::testing::AssertionFailure() << Describe(in) << ": returned " << size;

		EModelKind kind;
		u32 components;
		OxTest::ModelKernelForType(in.m_Type0, kind, components);
		if (OxTest::ModelSupports(kind, in.m_Op))
		{
			if (capture.Count() != 0)
				return ::testing::AssertionFailure() << Describe(in) << ": unexpected report '" << capture.Reports()[0].m_Expression << "'";
			return run.CheckDestination();
		}
		const char *message = kind == EModelKind::Float ? kInvalidFloatOpMessage : kUnsupportedIntOpMessage;
		if (capture.Count() != 1 || !capture.Has("false", message))
			return ::testing::AssertionFailure() << Describe(in) << ": expected exactly the report '" << message << "', got " << capture.Count() << " reports";
		return run.DestinationUntouched();
	}

	const u32 kSmallCounts[] = {0, 1, 2, 3, 4, 5, 7, 8, 12, 13};

	// A one-element instruction on Normal registers, for the named edge cases.
	u32 RunOne(EOp op, EBaseTypeID type, u32 a, u32 b)
	{
		CAssertCapture capture;
		SInstr in = Same(op, type, Compiler::MetaType_Normal, Compiler::MetaType_Normal, Compiler::MetaType_Normal, 0);
		CLowRun run(in);
		run.Src0()[0] = a;
		if (in.m_HasSrc1)
			run.Src1()[0] = b;
		EXPECT_EQ(run.Run(), ExpectedSize(in));
		EXPECT_EQ(capture.Count(), 0u);
		EXPECT_EQ(run.Dst()[1], GuardWord(1));
		return run.Dst()[0];
	}

	u32 RunInt(EOp op, s32 a, s32 b)
	{
		const u32 got = RunOne(op, BaseType_I32, u32(a), u32(b));
		EXPECT_EQ(got, OxTest::ModelInt(op, u32(a), u32(b))) << "model disagrees";
		return got;
	}

	u32 RunFloat(EOp op, float a, float b)
	{
		const u32 got = RunOne(op, BaseType_Float, FloatBits(a), FloatBits(b));
		EXPECT_EQ(got, OxTest::ModelFloat(op, FloatBits(a), FloatBits(b))) << "model disagrees";
		return got;
	}
}

//------------------------------------------------------------------------------------
// The model itself, on values whose results are known independently.

TEST(LowPathModel, KnownValues)
{
	EXPECT_EQ(OxTest::ModelInt(SOp_MathOp::Op_Div, u32(INT_MIN), u32(-1)), u32(INT_MIN));
	EXPECT_EQ(OxTest::ModelInt(SOp_MathOp::Op_Mod, u32(INT_MIN), u32(-1)), 0u);
	EXPECT_EQ(OxTest::ModelInt(SOp_MathOp::Op_Mul, 0x10000u, 0x10000u), 0u);
	EXPECT_EQ(OxTest::ModelInt(SOp_MathOp::Op_Bitwise_ShiftRight, u32(-7), 1), u32(-4));
	EXPECT_EQ(OxTest::ModelInt(SOp_MathOp::Op_Bitwise_ShiftRight, u32(INT_MIN), 31), 0xFFFFFFFFu);
	EXPECT_EQ(OxTest::ModelInt(SOp_MathOp::Op_Bitwise_ShiftLeft, 3, 31), 0x80000000u);
	EXPECT_EQ(OxTest::ModelFloat(SOp_MathOp::Op_Add, 0x7F800001u, 0x3F800000u), 0x7FC00001u);	// signalling NaN quieted
	EXPECT_EQ(OxTest::ModelFloat(SOp_MathOp::Op_Mul, 0x3F800000u, 0xFFC00123u), 0xFFC00123u);
	EXPECT_EQ(OxTest::ModelFloat(SOp_MathOp::Op_Neg, 0x7FC12345u, 0), 0xFFC12345u);
	EXPECT_EQ(OxTest::ModelFloat(SOp_MathOp::Op_Mod, FloatBits(-0.0f), FloatBits(2.0f)), 0x80000000u);
	EXPECT_EQ(OxTest::ModelFloat(SOp_MathOp::Op_Mod, FloatBits(5.0f), FloatBits(0.0f)), 0x00000000u);
	EXPECT_EQ(OxTest::ModelFloat(SOp_MathOp::Op_Mod, FloatBits(4.0f), FloatBits(-2.0f)), 0x80000000u);
	EXPECT_EQ(OxTest::ModelFloat(SOp_MathOp::Op_Mod, 0x7FC00000u, FloatBits(2.0f)), 0x00000000u);	// NaN quotient: frac 0
	EXPECT_EQ(OxTest::ModelFloat(SOp_MathOp::Op_Cmp_NotEqual, 0x7FC00000u, 0x7FC00000u), 0xFFFFFFFFu);
	// Two NaNs: the first wins, the second is accepted for the commutative operators only.
	EXPECT_EQ(OxTest::ModelFloat(SOp_MathOp::Op_Add, 0x7F800001u, 0xFFC00002u), 0x7FC00001u);
	EXPECT_EQ(OxTest::ModelFloatAlternative(SOp_MathOp::Op_Add, 0x7F800001u, 0xFFC00002u), 0xFFC00002u);
	EXPECT_EQ(OxTest::ModelFloatAlternative(SOp_MathOp::Op_Mul, 0x7FC00001u, 0xFF800002u), 0xFFC00002u);
	EXPECT_EQ(OxTest::ModelFloatAlternative(SOp_MathOp::Op_Sub, 0x7FC00001u, 0xFFC00002u), 0x7FC00001u);
	EXPECT_EQ(OxTest::ModelFloatAlternative(SOp_MathOp::Op_Add, 0x3F800000u, 0xFFC00002u), 0xFFC00002u);
	EXPECT_FALSE(OxTest::ModelSupportsFloat(SOp_MathOp::Op_Bitwise_And));
	EXPECT_FALSE(OxTest::ModelSupportsInt(EOp(19)));
	EXPECT_TRUE(OxTest::ModelSupportsInt(SOp_MathOp::Op_Bitwise_Not));

	const u32 a[] = {1, 2, 3, 4, 5, 6};
	const u32 b[] = {10, 20, 30};
	std::vector<u32> out;
	ASSERT_TRUE(OxTest::ModelStream(SOp_MathOp::Op_Add, EModelKind::Int, 3, 2, a, 3, b, 0, out));
	EXPECT_EQ(out, (std::vector<u32>{11, 22, 33, 14, 25, 36}));
	EXPECT_FALSE(OxTest::ModelStream(SOp_MathOp::Op_Bitwise_Xor, EModelKind::Float, 1, 1, a, 1, b, 1, out));
	EXPECT_TRUE(out.empty());
}

//------------------------------------------------------------------------------------
// Every operator, every kernel type, short streams.

TEST(LowPathOperators, EveryOperatorEveryTypeShortStreams)
{
	PrintSeed("LowPathOperators.EveryOperatorEveryTypeShortStreams");
	CValues values(kSeed);
	for (EBaseTypeID type : kKernelTypes)
		for (s32 op = 0; op < SOp_MathOp::__MaxOps; ++op)
			for (u32 count : kSmallCounts)
			{
				SInstr in = Same(EOp(op), type, Compiler::MetaType_Stream, Compiler::MetaType_Stream, Compiler::MetaType_Stream, count);
				ASSERT_TRUE(RunWellFormed(in, values));
			}
}

TEST(LowPathOperators, GenericFormOfTheSpecialisedOperators)
{
	PrintSeed("LowPathOperators.GenericFormOfTheSpecialisedOperators");
	CValues values(kSeed + 1);
	for (EBaseTypeID type : kKernelTypes)
		for (s32 op = 0; op < s32(CMetaOp_MathOp::kSpecializedOpCount); ++op)
			for (u32 count : {1u, 5u, 13u})
			{
				SInstr in = Same(EOp(op), type, Compiler::MetaType_Stream, Compiler::MetaType_Instance, Compiler::MetaType_Stream, count);
				in.m_Generic = true;
				ASSERT_TRUE(RunWellFormed(in, values));
			}
}

TEST(LowPathOperators, LargeStreams)
{
	PrintSeed("LowPathOperators.LargeStreams");
	CValues values(kSeed + 2);
	for (EBaseTypeID type : kKernelTypes)
		for (s32 op = 0; op < SOp_MathOp::__MaxOps; ++op)
			for (u32 count : {1000u, 4099u})
			{
				SInstr in = Same(EOp(op), type, Compiler::MetaType_Stream, Compiler::MetaType_Stream, Compiler::MetaType_Instance, count);
				ASSERT_TRUE(RunWellFormed(in, values));
			}
}

// Every edge value against every edge value, one pair per element, every operator.
TEST(LowPathOperators, AllPairsOfEdgeValues)
{
	CAssertCapture capture;
	for (EModelKind kind : {EModelKind::Float, EModelKind::Int})
	{
		std::vector<u32> pool;
		if (kind == EModelKind::Float)
			pool.assign(std::begin(kFloatSpecials), std::end(kFloatSpecials));
		else
		{
			pool.assign(std::begin(kIntSpecials), std::end(kIntSpecials));
			for (u32 shift = 0; shift <= 40; ++shift)
				pool.push_back(shift);
		}
		const u32 n = u32(pool.size() * pool.size());
		const EBaseTypeID type = kind == EModelKind::Float ? BaseType_Float : BaseType_I32;
		for (s32 op = 0; op < SOp_MathOp::__MaxOps; ++op)
		{
			if (!OxTest::ModelSupports(kind, EOp(op)))
				continue;
			SInstr in = Same(EOp(op), type, Compiler::MetaType_Stream, Compiler::MetaType_Stream, Compiler::MetaType_Stream, n);
			CLowRun run(in);
			for (u32 i = 0; i < n; ++i)
			{
				run.Src0()[i] = pool[i / pool.size()];
				if (in.m_HasSrc1)
					run.Src1()[i] = pool[i % pool.size()];
			}
			EXPECT_EQ(run.Run(), ExpectedSize(in));
			ASSERT_TRUE(run.CheckDestination());
		}
	}
	EXPECT_EQ(capture.Count(), 0u);
}

//------------------------------------------------------------------------------------
// Banks: every destination bank with every bank for each source.

TEST(LowPathBanks, EveryBankCombination)
{
	PrintSeed("LowPathBanks.EveryBankCombination");
	CValues values(kSeed + 3);
	const EBaseTypeID types[] = {BaseType_Float, BaseType_Float3, BaseType_Quaternion, BaseType_I32, BaseType_Int3, BaseType_Bool2, BaseType_Int4};
	for (EMetaType dstBank : kBanks)
		for (EMetaType bank0 : kBanks)
			for (EMetaType bank1 : kBanks)
				for (EBaseTypeID type : types)
					for (s32 op = 0; op < SOp_MathOp::__MaxOps; ++op)
						for (u32 count : {0u, 1u, 5u, 13u})
						{
							SInstr in = Same(EOp(op), type, dstBank, bank0, bank1, count);
							ASSERT_TRUE(RunWellFormed(in, values));
						}
}

TEST(LowPathEvalCount, ConstantAndNormalDestinationsEvaluateOneElement)
{
	PrintSeed("LowPathEvalCount.ConstantAndNormalDestinationsEvaluateOneElement");
	CValues values(kSeed + 4);
	for (EMetaType dstBank : {Compiler::MetaType_Constant, Compiler::MetaType_Normal})
		for (u32 dims : {0u, 1u, 2u, 7u, 64u})
		{
			CAssertCapture capture;
			SInstr in = Same(SOp_MathOp::Op_Mul, BaseType_Float2, dstBank, Compiler::MetaType_Stream, Compiler::MetaType_Instance, dims);
			CLowRun run(in);
			run.Fill(values);
			EXPECT_EQ(run.Run(), 13u);
			EXPECT_EQ(capture.Count(), 0u) << Describe(in);
			EXPECT_EQ(run.EvalCount(), 1u);
			EXPECT_TRUE(run.CheckDestination());
			// One Float2 element: words 0 and 1, and nothing after them.
			EXPECT_EQ(run.Dst()[2], GuardWord(2));
			EXPECT_EQ(run.Dst()[3], GuardWord(3));
		}
}

TEST(LowPathEvalCount, InstanceAndStreamDestinationsEvaluateStreamDimensions)
{
	PrintSeed("LowPathEvalCount.InstanceAndStreamDestinationsEvaluateStreamDimensions");
	CValues values(kSeed + 5);
	for (EMetaType dstBank : {Compiler::MetaType_Instance, Compiler::MetaType_Stream})
		for (u32 dims : {0u, 1u, 2u, 7u, 64u})
		{
			CAssertCapture capture;
			SInstr in = Same(SOp_MathOp::Op_Sub, BaseType_Int2, dstBank, Compiler::MetaType_Stream, Compiler::MetaType_Normal, dims);
			CLowRun run(in);
			run.Fill(values);
			EXPECT_EQ(run.Run(), 13u);
			EXPECT_EQ(capture.Count(), 0u);
			EXPECT_EQ(run.EvalCount(), dims);
			EXPECT_TRUE(run.CheckDestination());
			for (u32 i = 0; i < dims * 2; ++i)
				EXPECT_EQ(run.Dst()[i], run.Src0()[i] - run.Src1()[i % 2]) << i;
			EXPECT_EQ(run.Dst()[dims * 2], GuardWord(dims * 2));
		}
}

TEST(LowPathEvalCount, NormalSourceOfSizeZeroIsNotReported)
{
	CAssertCapture capture;
	SInstr in = Same(SOp_MathOp::Op_Add, BaseType_Float, Compiler::MetaType_Normal, Compiler::MetaType_Normal, Compiler::MetaType_Constant, 9);
	in.m_Src0Bytes = 0;
	CLowRun run(in);
	run.Src1()[0] = FloatBits(2.5f);
	EXPECT_EQ(run.Storage().Size(run.Src0Id()), 0u);
	EXPECT_EQ(run.Run(), 13u);
	EXPECT_EQ(capture.Count(), 0u);
	// One element, read from the (zero-filled) start of source 0's storage.
	EXPECT_EQ(run.Dst()[0], FloatBits(2.5f));
	EXPECT_TRUE(run.CheckDestination());
}

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
			alignas(32) u32 buffers[3][64] = {};
			u32 *data[3] = {buffers[0], buffers[1], buffers[2]};
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
		}
}
