#pragma once
// What the Low path tests (test_low_path_*.cpp) share: one math instruction over a fresh
// register file (slot 0 the destination, slot 1 source 0, slot 2 source 1), encoded by
// hand or by the codec, run through its Low entry point, and checked against the scalar
// model bit for bit; every destination word the instruction must not write starts as a
// guard pattern.

#include "cbvm_meta_ops.h"
#include "cbvm_register_storage.h"
#include "cbvm_registers.h"
#include "guarded_storage.h"
#include "scalar_model.h"
#include "seeded_random.h"
#include "test_support.h"
#include "type_lists.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdio>
#include <iterator>
#include <sstream>
#include <string>
#include <vector>

namespace LowPathTest
{
	using namespace Orvex;
	using Compiler::EMetaType;
	using Compiler::IR::SOp_MathOp;
	using OxTest::CAssertCapture;
	using OxTest::EModelKind;
	using OxTest::FloatBits;
	using EOp = SOp_MathOp::EOp;

	constexpr u32 kSeed = 0x10A7F00Du;

	const EMetaType kBanks[4] = {Compiler::MetaType_Constant, Compiler::MetaType_Normal, Compiler::MetaType_Instance, Compiler::MetaType_Stream};


	const char *const kInvalidFloatOpMessage = "[Backend CPU-VM]: Invalid Operation: logical ops cannot be applied to 'float' type";
	const char *const kUnsupportedIntOpMessage = "[Backend CPU-VM]: Unsupported integer operation";
	const char *const kDstSizeCheck = "reg.m_Size >= registers.m_StreamDimensions * dstStride || (reg.m_Size >= dstStride && mt < Compiler::MetaType_Instance)";
	const char *const kSrc0SizeCheck = "reg0.m_Size >= evalCount * stride0";
	const char *const kSrc1SizeCheck = "reg1.m_Size >= evalCount * stride1";
	const char *const kOperandCountCheck = "m_SrcReg1.Valid() == (Compiler::IR::SOp_MathOp::OperatorTraits(op).m_ParameterCount > 1)";
	const char *const kSrc1TypeCheck = "m_SrcReg1.ToType() == m_SrcType";

	inline bool IsStreamBank(EMetaType bank) { return bank >= Compiler::MetaType_Instance; }

	// Guard pattern: what every word a kernel must not touch holds before the run.
	using OxTest::GuardWord;

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
				return FloatBits(m_Rng.UniformFloat(-1000.0f, 1000.0f));
			}
			if (pick < 30)
				return kIntSpecials[Uniform(std::size(kIntSpecials))];
			if (pick < 55)
				return Uniform(41);		// shift counts 0 .. 40
			if (pick < 75)
				return u32(s32(Uniform(201)) - 100);
			return u32(m_Rng());
		}

		u32 Uniform(std::size_t n) { return m_Rng.Uniform(n); }

	private:
		OxTest::CSeededRandom m_Rng;
	};


	//--------------------------------------------------------------------------------
	// Bytecode by hand (the encoder is tested elsewhere; here the tests need forms the
	// encoder refuses to produce).

	inline void PutU32(u8 *p, u32 v)
	{
		for (u32 i = 0; i < 4; ++i)
			p[i] = u8(v >> (8 * i));
	}

	inline u32 EncodeGeneric(u8 *out, u8 opcode, u8 opByte, CVMRegID dst, CVMRegID src0, CVMRegID src1)
	{
		out[0] = opcode;
		out[1] = opByte;
		PutU32(out + 2, u32(dst.m_RawBits));
		PutU32(out + 6, u32(src0.m_RawBits));
		PutU32(out + 10, u32(src1.m_RawBits));
		return 14;
	}

	inline u32 EncodeSpecialised(u8 *out, u8 opcode, CVMRegID dst, CVMRegID src0, CVMRegID src1)
	{
		out[0] = opcode;
		PutU32(out + 1, u32(dst.m_RawBits));
		PutU32(out + 5, u32(src0.m_RawBits));
		PutU32(out + 9, u32(src1.m_RawBits));
		out[13] = 0xEE;		// not part of the instruction
		return 13;
	}

	inline u32 EncodeWithCodec(u8 *out, EOp op, CVMRegID dst, CVMRegID src0, CVMRegID src1)
	{
		SOp_MathOp::SDesc desc;
		desc.m_Op = op;
		desc.m_DstReg = dst.ToIRRegID();
		desc.m_SrcReg0 = src0.ToIRRegID();
		desc.m_SrcReg1 = src1.ToIRRegID();
		return CMetaOp_MathOp::EncodeDescToBytecode(out, desc);
	}

	using FnEntry = u32 (*)(const CBytecodeExecContext &, const u8 *);

	inline FnEntry EntryForOpcode(u8 opcode)
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

	inline SInstr Same(EOp op, EBaseTypeID type, EMetaType dstBank, EMetaType bank0, EMetaType bank1, u32 streamDims)
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

	inline std::string Describe(const SInstr &in)
	{
		std::ostringstream s;
		s << "op " << int(in.m_Op) << " (" << SOp_MathOp::OperatorTraits(in.m_Op).m_Name << ") type0 " << BaseTypeName(in.m_Type0)
		  << " type1 " << BaseTypeName(in.m_Type1) << " dst " << BaseTypeName(in.m_DstType)
		  << " banks " << Compiler::MetaTypeName(in.m_DstBank) << " <- " << Compiler::MetaTypeName(in.m_Bank0) << ", "
		  << (in.m_HasSrc1 ? Compiler::MetaTypeName(in.m_Bank1) : "none") << " dims " << in.m_StreamDimensions
		  << (in.m_Generic ? " generic" : "");
		return s.str();
	}

	inline std::string Hex(u32 v)
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

	inline u32 ExpectedSize(const SInstr &in)
	{
		return (in.m_Generic || u32(in.m_Op) >= CMetaOp_MathOp::kSpecializedOpCount) ? 14u : 13u;
	}

	// Runs a well-formed instruction and checks everything: size, no report, values,
	// guards. Unsupported operators must report their one message and write nothing.
	inline ::testing::AssertionResult RunWellFormed(const SInstr &in, CValues &values)
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
	inline u32 RunOne(EOp op, EBaseTypeID type, u32 a, u32 b)
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

	inline u32 RunInt(EOp op, s32 a, s32 b)
	{
		const u32 got = RunOne(op, BaseType_I32, u32(a), u32(b));
		EXPECT_EQ(got, OxTest::ModelInt(op, u32(a), u32(b))) << "model disagrees";
		return got;
	}

	inline u32 RunFloat(EOp op, float a, float b)
	{
		const u32 got = RunOne(op, BaseType_Float, FloatBits(a), FloatBits(b));
		EXPECT_EQ(got, OxTest::ModelFloat(op, FloatBits(a), FloatBits(b))) << "model disagrees";
		return got;
	}
}
