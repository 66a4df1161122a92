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
// The verifier also walks the whole input (never reading past it).

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

	void CheckInstruction(const u8 *bytes, u32 size)
	{
		const std::unique_ptr<u8[]> exact(new u8[size]);
		std::memcpy(exact.get(), bytes, size);
		const bool accepted = CBVM::CVerifier::VerifyStructure(exact.get(), size, nullptr, 0).Accepted();

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

		CBVM::SMetaOp_GenericDesc generic;
		CBVM::SOpcodeDisasReport report3;
		CMetaOp_MathOp::DecodeBytecodeToGeneric(exact.get(), generic, report3);
		if (generic.m_DstOpcode != exact[0] || generic.m_Desc.m_Operator != u32(desc.m_Op) || generic.m_Desc.m_DstReg != desc.m_DstReg ||
			generic.m_Desc.m_SrcRegs[0] != desc.m_SrcReg0 || generic.m_Desc.m_SrcRegs[1] != desc.m_SrcReg1)
			Fail("generic description differs");
	}
}

extern "C" int LLVMFuzzerTestOneInput(const u8 *data, std::size_t size)
{
	static const bool installed = (SReports::Install(), true);
	(void)installed;

	CBVM::SVerifyProblem problems[4];
	CBVM::CVerifier::VerifyStructure(data, u32(size), problems, 4);

	for (std::size_t offset = 0; offset < size;)
	{
		const u8 opcode = data[offset];
		const u32 need = CMetaOp_MathOp::SizeOfOpcode(opcode);
		if (opcode < CBVM::Opcode_MathOp || opcode > CBVM::Opcode_MathOpDiv || size - offset < need)
		{
			++offset;
			continue;
		}
		CheckInstruction(data + offset, need);
		offset += need;
	}
	return 0;
}
