// The instruction decoder and encoder over arbitrary bytes.
//
// Every math-op instruction found in the input (a walk that skips one byte after
// anything undecodable) is copied into a block of exactly its own size, so that
// AddressSanitizer catches a read past it, and decoded. Properties:
//   - the decoder reads only its instruction and reports its size;
//   - encode(decode(x)) is x, except that the generic form of add, sub, mul and div
//     comes back in its 13-byte form with the same registers;
//   - encode(decode(y)) == y for y = encode(decode(x)) (the encoding is stable);
//   - the generic description agrees with the plain one;
//   - an instruction the verifier's structure check accepts decodes and encodes with
//     no assertion report.
// The whole input is also walked, by the decoder's walker and by the verifier (neither
// reading past it): they frame the same instructions and stop at the same place.

#include "cbvm_math_op_decoder.h"
#include "cbvm_verifier.h"
#include "fuzz_support.h"

#include <memory>

using namespace Orvex;
using namespace OxFuzz;
using Compiler::IR::SOp_MathOp;

namespace
{
	bool SameDesc(const SOp_MathOp::SDesc &a, const SOp_MathOp::SDesc &b)
	{
		return a.m_Op == b.m_Op && a.m_DstReg == b.m_DstReg && a.m_SrcReg0 == b.m_SrcReg0 && a.m_SrcReg1 == b.m_SrcReg1;
	}

	void CheckInstruction(const u8 *bytes, const CBVM::SMathOpInstruction &decoded)
	{
		const u32 size = decoded.m_Size;
		const std::unique_ptr<u8[]> exact(new u8[size]);
		std::memcpy(exact.get(), bytes, size);
		const bool accepted = CBVM::CVerifier::VerifyStructure(exact.get(), size, nullptr, 0).Accepted();
		// The exact copy frames as the same one instruction (read only inside its block).
		CBVM::SMathOpInstruction alone;
		CBVM::DecodeMathOp(exact.get(), size, 0, alone);
		if (alone.m_Size != size || alone.m_Opcode != decoded.m_Opcode || alone.m_Op != decoded.m_Op || alone.Dst() != decoded.Dst() || alone.Src0() != decoded.Src0() ||
			alone.Src1() != decoded.Src1())
			Fail("the decoder read an instruction differently alone");

		SReports::Reset();
		SOp_MathOp::SDesc desc;
		CBVM::SOpcodeDisasReport report;
		if (CMetaOp_MathOp::DecodeBytecodeToDesc(exact.get(), desc, report) != size || report.m_InstructionSize != size || report.m_Opcode != exact[0])
			Fail("decoder size or opcode");

		u8 again[CMetaOp_MathOp::IP_Offset];
		const u32 againSize = CMetaOp_MathOp::EncodeDescToBytecode(again, desc);
		if (accepted && SReports::Count() != 0)
			Fail("structure-checked instruction reported while decoding or encoding:", SReports::Last());
		const bool shortened = exact[0] == CBVM::Opcode_MathOp && u32(desc.m_Op) < CMetaOp_MathOp::kSpecializedOpCount;
		if (shortened)
		{
			if (againSize != CMetaOp_MathOp::kSpecializedSize || again[0] != CBVM::Opcode_MathOpAdd + u32(desc.m_Op) ||
				std::memcmp(again + 1, exact.get() + 2, CMetaOp_MathOp::kRegisterBlockSize) != 0)
				Fail("generic add/sub/mul/div did not re-encode to its short form");
		}
		else if (againSize != size || std::memcmp(again, exact.get(), size) != 0)
			Fail("encode(decode(x)) != x");

		SOp_MathOp::SDesc desc2;
		CBVM::SOpcodeDisasReport report2;
		CMetaOp_MathOp::DecodeBytecodeToDesc(again, desc2, report2);
		u8 third[CMetaOp_MathOp::IP_Offset];
		const u32 thirdSize = CMetaOp_MathOp::EncodeDescToBytecode(third, desc2);
		if (!SameDesc(desc, desc2) || thirdSize != againSize || std::memcmp(third, again, againSize) != 0)
			Fail("encoding is not stable");

		if (desc.m_Op != decoded.m_Op || u32(desc.m_DstReg.m_RawBits) != decoded.Dst() || u32(desc.m_SrcReg0.m_RawBits) != decoded.Src0() || u32(desc.m_SrcReg1.m_RawBits) != decoded.Src1())
			Fail("the codec and the decoder disagree");

		CBVM::SMetaOp_GenericDesc generic;
		CBVM::SOpcodeDisasReport report3;
		CMetaOp_MathOp::DecodeBytecodeToGeneric(exact.get(), generic, report3);
		if (generic.m_DstOpcode != exact[0] || generic.m_Desc.m_Operator != u32(desc.m_Op) || generic.m_Desc.m_DstReg != desc.m_DstReg ||
			generic.m_Desc.m_SrcRegs[0] != desc.m_SrcReg0 || generic.m_Desc.m_SrcRegs[1] != desc.m_SrcReg1)
			Fail("generic description differs");
	}

	// The walk frames what the verifier counts, in step and inside the buffer, and ends
	// where the verifier reports its last problem when that is a framing one.
	void CheckWalk(const u8 *data, u32 size)
	{
		CBVM::CMathOpWalker walk(data, size);
		CBVM::SMathOpInstruction instruction;
		u32 framed = 0, end = 0;
		while (walk.Next(instruction))
		{
			if (instruction.m_Offset != end || (instruction.m_Size != CMetaOp_MathOp::kGenericSize && instruction.m_Size != CMetaOp_MathOp::kSpecializedSize) || instruction.End() > size)
				Fail("walk framed outside the buffer or out of step");
			end = instruction.End();
			++framed;
		}
		if (walk.Problem() == CBVM::MathOpDecode_Ok ? end != size : (instruction.m_Offset != end || walk.Offset() != end))
			Fail("walk stopped somewhere else than its problem");

		constexpr u32 kCapacity = 64;
		CBVM::SVerifyProblem problems[kCapacity];
		const CBVM::SVerifyResult result = CBVM::CVerifier::VerifyStructure(data, size, problems, kCapacity);
		if (framed != result.m_Instructions)
			Fail("walk and verifier count different instructions");
		if (walk.Problem() != CBVM::MathOpDecode_Ok && result.Problems() == 0)
			Fail("verifier found no framing problem");
		if (walk.Problem() != CBVM::MathOpDecode_Ok && result.Problems() <= kCapacity)
		{
			const CBVM::SVerifyProblem &last = problems[result.Problems() - 1];
			const CBVM::EVerifyError expected = walk.Problem() == CBVM::MathOpDecode_Truncated ? CBVM::VerifyError_Truncated : CBVM::VerifyError_UnknownOpcode;
			if (last.m_Offset != end || last.m_Code != expected)
				Fail("verifier reported the framing problem elsewhere");
		}
	}
}

extern "C" int LLVMFuzzerTestOneInput(const u8 *data, std::size_t size)
{
	static const bool installed = (SReports::Install(), true);
	(void)installed;

	CheckWalk(data, u32(size));

	for (u32 offset = 0; offset < size;)
	{
		CBVM::SMathOpInstruction instruction;
		const CBVM::EMathOpDecode status = CBVM::DecodeMathOp(data, u32(size), offset, instruction);
		if (status == CBVM::MathOpDecode_UnknownOpcode || status == CBVM::MathOpDecode_Truncated)
		{
			++offset;
			continue;
		}
		CheckInstruction(data + offset, instruction);
		offset = instruction.End();
	}
	return 0;
}
