// The one-element path of the standard entry points: its fused tests accept exactly
// what the shared checks accept (the operands resolved for one element, then the
// selectors' and kernels' checks), with the same kernel and pointers, over random
// instructions and register files; and what they accept runs with no report, no hazard
// and the stream kernels' bits.

#include "cbvm_math_op_one_element_kernels.h"
#include "cbvm_meta_ops.h"
#include "bytecode_builder.h"
#include "cbvm_register_storage.h"
#include "kr_profiler.h"
#include "seeded_random.h"
#include "test_support.h"

#include <gtest/gtest.h>

#include <vector>

namespace
{
	using namespace Orvex;
	using Compiler::EMetaType;
	using Compiler::IR::SOp_MathOp;

	constexpr u32 kSlots = 3;

	std::vector<u8> Instruction(u32 op, u32 dst, u32 src0, u32 src1, bool generic)
	{
		std::vector<u8> code;
		OxTest::EmitRaw(code, op, dst, src0, src1, generic);
		return code;
	}

	TEST(OneElementPath, FusedTestsAcceptExactlyWhatTheChecksAccept)
	{
		OxTest::CSeededRandom rng(20261124);
		const EBaseTypeID types[] = {BaseType_Float, BaseType_Float2, BaseType_Float3, BaseType_Float4, BaseType_Quaternion, BaseType_I32, BaseType_Int3,
									 BaseType_Bool2, BaseType_Int4, BaseType_Double, BaseType_U32, BaseType_Void};
		u32 accepted = 0, refused = 0;
		for (u32 round = 0; round < 20000; ++round)
		{
			CRegisterStorage storage(kSlots);
			// The checks read a table of our own: the storage's entries, some of them
			// misaligned views (the storage keeps owning its blocks).
			CCBCPUMetaRegisters registers = storage.Registers();
			CCBCPUMetaRegisters::SRegister table[kSlots * 4] = {};
			registers.m_Registers = table;
			registers.m_StreamDimensions = rng.Uniform(40);
			for (u32 e = 0; e < kSlots * 4; ++e)
			{
				if (rng.Uniform(10) == 0)
					continue;	// no storage
				const CVMRegID id = CVMRegID::Build(e / 4, EMetaType(e % 4 + 1), BaseType_I32);
				const u32 sizes[] = {0, 4, 8, 12, 16, 32, 64};
				ASSERT_TRUE(storage.Allocate(id, rng.Uniform(3) == 0 ? sizes[rng.Uniform(7)] : 16));
				table[e] = storage.Registers().m_Registers[e];
				if (rng.Uniform(12) == 0)
					table[e].m_RawData = static_cast<u8 *>(table[e].m_RawData) + 16;	// misaligned view
			}
			const u32 op = rng.Uniform(21);	// 19, 20: past the operator set
			const EBaseTypeID type = types[rng.Uniform(rng.Uniform(4) == 0 ? 12 : 9)];
			auto reg = [&](EBaseTypeID t) {
				// One draw per statement (a call's arguments are evaluated in the
				// compiler's order, which differs between x86-64 and AArch64).
				const u32 slot = rng.Uniform(kSlots);
				const EMetaType bank = EMetaType(rng.Uniform(4) + 1);
				u32 bits = u32(CVMRegID::Build(slot, bank, t).m_RawBits);
				if (rng.Uniform(40) == 0)
					bits |= 0x40000000u << rng.Uniform(2);	// ill-formed
				return bits;
			};
			const u32 dst = reg(rng.Uniform(8) == 0 ? types[rng.Uniform(12)] : type);
			const u32 src0 = rng.Uniform(60) == 0 ? CVMRegID::kInvalidBits : reg(type);
			const bool binary = SOp_MathOp::OperatorTraits(SOp_MathOp::EOp(op)).m_ParameterCount > 1;
			const u32 src1 = (binary != (rng.Uniform(20) == 0)) ? reg(rng.Uniform(10) == 0 ? types[rng.Uniform(12)] : type) : CVMRegID::kInvalidBits;
			std::vector<u8> code = Instruction(op, dst, src0, src1, rng.Uniform(4) == 0);
			// Now and then an opcode outside the math op's (whose layout is then read as
			// the specialised one: the ids still name slots of the table).
			if (rng.Uniform(50) == 0)
				code[0] = u8(rng.Uniform(2) == 0 ? rng.Uniform(CBVM::Opcode_MathOp) : CBVM::Opcode_MathOpDiv + 1 + rng.Uniform(255 - CBVM::Opcode_MathOpDiv));
			if (code[0] != CBVM::Opcode_MathOp && code.size() == CMetaOp_MathOp::kGenericSize)
				code.erase(code.begin() + 1);	// keep the ids where a non-generic opcode puts them
			const u32 wb = MathOp::RegisterBlockOffset(code[0]);
			const SOp_MathOp::EOp decoded = MathOp::OperatorOf(code.data());

			const MathOp::SSingleCall fused = MathOp::SingleKernelFused</*_Run*/ false>(registers, code.data(), wb, decoded);
			const MathOp::SSingleCall checked = MathOp::SingleKernelChecked(registers, code.data(), wb, decoded);
			ASSERT_EQ(fused.m_Fn, checked.m_Fn) << "round " << round;
			if (checked.m_Fn == nullptr)
			{
				++refused;
				continue;
			}
			++accepted;
			ASSERT_EQ(fused.m_Dst, checked.m_Dst) << "round " << round;
			ASSERT_EQ(fused.m_Src0, checked.m_Src0) << "round " << round;
			ASSERT_EQ(fused.m_Src1, checked.m_Src1) << "round " << round;
		}
		// Both sides must be well represented, or the comparison shows little.
		EXPECT_GT(accepted, 1500u);
		EXPECT_GT(refused, 1500u);
	}

	// An accepted one-element instruction gives the bits of the same instruction run as a
	// one-element stream, with no report and no hazard.
	TEST(OneElementPath, AcceptedInstructionsRunWithoutReportOrHazard)
	{
		OxTest::CSeededRandom rng(20261125);
		const EBaseTypeID types[] = {BaseType_Float, BaseType_Float3, BaseType_Float4, BaseType_I32, BaseType_Int2, BaseType_Bool3};
		for (u32 round = 0; round < 2000; ++round)
		{
			CRegisterStorage storage(2);
			storage.Registers().m_StreamDimensions = 1 + rng.Uniform(20);
			const EBaseTypeID type = types[rng.Uniform(6)];
			const u32 op = rng.Uniform(SOp_MathOp::__MaxOps);
			const CVMRegID constantDst = CVMRegID::Build(0, Compiler::MetaType_Constant, type);
			const CVMRegID a = CVMRegID::Build(0, EMetaType(rng.Uniform(4) + 1), type);
			const CVMRegID b = CVMRegID::Build(1, EMetaType(rng.Uniform(4) + 1), type);
			for (u32 e = 0; e < 8; ++e)
			{
				const CVMRegID id = CVMRegID::Build(e / 4, EMetaType(e % 4 + 1), type);
				ASSERT_TRUE(storage.AllocateElements(id, storage.Registers().m_StreamDimensions));
				u32 *words = storage.DataAs<u32>(id);
				for (u32 w = 0; w < storage.Size(id) / 4; ++w)
					words[w] = rng.Uniform(3) == 0 ? rng() : u32(rng.Uniform(64)) | (BaseTypeInfo(type).m_Kind == ElementKind_Float ? 0x3F800000u : 0u);
			}
			const bool binary = SOp_MathOp::OperatorTraits(SOp_MathOp::EOp(op)).m_ParameterCount > 1;
			const std::vector<u8> code = Instruction(op, u32(constantDst.m_RawBits), u32(a.m_RawBits), binary ? u32(b.m_RawBits) : CVMRegID::kInvalidBits, true);
			const MathOp::SSingleCall call = MathOp::SingleKernelChecked(storage.Registers(), code.data(), 2, SOp_MathOp::EOp(op));
			const bool floatBitwise = BaseTypeInfo(type).m_Kind == ElementKind_Float && !SOp_MathOp::kTraits[op].FloatSupported();
			ASSERT_EQ(call.m_Fn == nullptr, floatBitwise) << "round " << round;
			if (floatBitwise)
				continue;

			OxTest::CAssertCapture capture;
			auto hazardSum = []() {
				const Profiler::CHazards &h = Profiler::CHazards::CurrentThreadHazards();
				u64 sum = 0;
				for (u32 c = 0; c < Profiler::CHazards::__MaxHazards; ++c)
					sum += h.Get(Profiler::CHazards::ECounter(c));
				return sum;
			};
			const u64 hazards = hazardSum();
			CCompilerBackendCPUProgram_VM program;
			CRuntimeCPUBindings bindings;
			SCompilerCPUDebugCtx debugCtx;
			const CBytecodeExecContext ctx(&program, bindings, storage.Registers(), debugCtx);
			CMetaOp_MathOp::_ExecBytecode(ctx, code.data());
			EXPECT_EQ(capture.Count(), 0u) << "round " << round;
			EXPECT_EQ(hazardSum(), hazards) << "round " << round;
		}
	}
}
