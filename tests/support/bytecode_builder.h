#pragma once
// Math-op instructions as tests write them: through the library's encoder, or as raw
// bytes with any ids and any operator byte (what the encoder would assert on).

#include "cbvm_meta_ops.h"

#include <vector>

namespace OxTest
{
	// Appends the encoder's bytes of (op, dst, src0, src1); src1 CVMRegID::INVALID for a
	// unary operator.
	inline void EmitEncoded(std::vector<Orvex::u8> &code, Orvex::Compiler::IR::SOp_MathOp::EOp op, Orvex::CVMRegID dst, Orvex::CVMRegID src0,
							Orvex::CVMRegID src1 = Orvex::CVMRegID::INVALID)
	{
		Orvex::Compiler::IR::SOp_MathOp::SDesc desc;
		desc.m_Op = op;
		desc.m_DstReg = dst.ToIRRegID();
		desc.m_SrcReg0 = src0.ToIRRegID();
		desc.m_SrcReg1 = src1.ToIRRegID();
		Orvex::u8 bytes[Orvex::CMetaOp_MathOp::IP_Offset];
		code.insert(code.end(), bytes, bytes + Orvex::CMetaOp_MathOp::EncodeDescToBytecode(bytes, desc));
	}

	// Appends raw bytes: the specialised form for add .. div unless 'generic', the
	// generic one with the operator byte otherwise.
	inline void EmitRaw(std::vector<Orvex::u8> &code, Orvex::u32 op, Orvex::u32 dst, Orvex::u32 src0, Orvex::u32 src1 = 0xFFFFFFFFu, bool generic = false)
	{
		const bool shortForm = op < Orvex::CMetaOp_MathOp::kSpecializedOpCount && !generic;
		code.push_back(shortForm ? Orvex::u8(Orvex::CBVM::Opcode_MathOpAdd + op) : Orvex::u8(Orvex::CBVM::Opcode_MathOp));
		if (!shortForm)
			code.push_back(Orvex::u8(op));
		for (Orvex::u32 bits : {dst, src0, src1})
			for (Orvex::u32 b = 0; b < 4; ++b)
				code.push_back(Orvex::u8(bits >> (8 * b)));
	}
}
