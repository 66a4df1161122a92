// The math-operator meta-op's codec: the encoder the back-end emits programs with, and
// the decoder of its disassembly report (the layout is drawn in cbvm_meta_ops.h).

#include "cbvm_math_op_decoder.h"
#include "cbvm_meta_ops.h"

namespace Orvex
{
	using Compiler::IR::CRegID;
	using Compiler::IR::SOp_MathOp;

	namespace
	{
		// Zero-extends a register field; the invalid VM id becomes the invalid IR id.
		CRegID _ToIRRegID(u32 bits)
		{
			return bits == CVMRegID::kInvalidBits ? CRegID() : CRegID(u64(bits));
		}
	}

	u32 CMetaOp_MathOp::EncodeDescToBytecode(u8 *dst, const SDesc &desc)
	{
		OX_ASSERT(desc.m_DstReg.Valid() && desc.m_SrcReg0.Valid());
		OX_ASSERT(desc.m_SrcReg1.Valid() ^ (Compiler::IR::SOp_MathOp::OperatorTraits(desc.m_Op).m_ParameterCount <= 1));

		u32 wb;
		if (u32(desc.m_Op) >= kSpecializedOpCount)
		{
			dst[0] = CBVM::Opcode_MathOp;
			dst[kGenericOperatorOffset] = u8(u32(desc.m_Op));	// an operator beyond a byte keeps its low byte
			wb = kGenericRegistersOffset;
		}
		else
		{
			dst[0] = u8(CBVM::Opcode_MathOpAdd + u32(desc.m_Op));
			wb = kSpecializedRegistersOffset;
		}
		// The VM id is the IR id's low word: same layout, and all-ones stays all-ones.
		OXSwapAndStoreLittleEndian<u32>(dst + wb + kDstRegOffset, u32(desc.m_DstReg.m_RawBits));
		OXSwapAndStoreLittleEndian<u32>(dst + wb + kSrcReg0Offset, u32(desc.m_SrcReg0.m_RawBits));
		OXSwapAndStoreLittleEndian<u32>(dst + wb + kSrcReg1Offset, u32(desc.m_SrcReg1.m_RawBits));
		wb += kRegisterBlockSize;

		OX_ASSERT(EncodingSize(desc.m_Op) == wb);
		return wb;
	}

	u32 CMetaOp_MathOp::DecodeBytecodeToDesc(const u8 *bytecode, SDesc &desc, CBVM::SOpcodeDisasReport &report)
	{
		// Any byte other than 113..116 reads as a division; the opcode check reports unexpected ones.
		const CBVM::SMathOpInstruction decoded = CBVM::ReadMathOp(bytecode);
		// (Named as the assertion texts name them: the texts are part of the product.)
		const CRegID m_DstReg = _ToIRRegID(decoded.Dst()), m_SrcReg0 = _ToIRRegID(decoded.Src0()), m_SrcReg1 = _ToIRRegID(decoded.Src1());
		OX_ASSERT(!m_SrcReg1.Valid() || m_SrcReg1.ToType() == m_SrcReg0.ToType());
		OX_ASSERT_TEXT(MathOp::IsMathOpOpcode(decoded.m_Opcode),
					   "m_Opcode == CBVM::Opcode_MathOp || m_Opcode == CBVM::Opcode_MathOpAdd || m_Opcode == CBVM::Opcode_MathOpSub || m_Opcode == CBVM::Opcode_MathOpMul || m_Opcode == CBVM::Opcode_MathOpDiv");

		report.m_Opcode = CBVM::EOpcode(decoded.m_Opcode);
		report.m_InstructionSize = decoded.m_Size;
		report.m_MetaType = m_DstReg.Valid() ? m_DstReg.ToBank() : Compiler::MetaType_Transparent;

		desc.m_Op = decoded.m_Op;
		desc.m_DstReg = m_DstReg;
		desc.m_SrcReg0 = m_SrcReg0;
		desc.m_SrcReg1 = m_SrcReg1;
		return report.m_InstructionSize;
	}

	u32 CMetaOp_MathOp::DecodeBytecodeToGeneric(const u8 *bytecode, CBVM::SMetaOp_GenericDesc &generic, CBVM::SOpcodeDisasReport &report)
	{
		SDesc desc;	// __MaxOps and three invalid registers until decoded
		const u32 size = DecodeBytecodeToDesc(bytecode, desc, report);
		generic.m_DstOpcode = report.m_Opcode;
		SOp_MathOp::DescToGeneric(desc, generic.m_Desc);
		return size;
	}
}

