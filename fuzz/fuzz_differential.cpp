// Differential: one instruction, shaped by the input, on the standard path, on the Low
// path and in the plain scalar model (tests/scalar_model.h), through the check that
// ox_differential runs too (tests/differential/differential_core.h).
//
// Input: operator, type, the three banks, in-place flag, stream size, then the words of
// the registers (all of every block, padding included; the input repeats when short).
// The Low path must give the model's words and report nothing. The standard path must
// give them too, except for its documented shortcuts (cbvm_path_difference.h), where it
// must give the documented result and only the documented reports. The library's
// classification (StandardPathDifference) and the verifier must agree with this reading:
// the verifier refuses exactly the three forms that report. The standard path runs with
// the SSE2 kernels and then with every wider kernel set the machine runs
// (cbvm_kernel_isa.h), each checked the same way and word for word against SSE2.

#include "cbvm_verifier.h"
#include "differential_core.h"
#include "fuzz_support.h"
#include "scalar_model.h"

#include <string>
#include <vector>

using namespace Orvex;
using namespace OxFuzz;
using Compiler::EMetaType;
using Compiler::IR::SOp_MathOp;

extern "C" int LLVMFuzzerTestOneInput(const u8 *data, std::size_t size)
{
	CInput input(data, size);
	const OxDiff::EOp op = OxDiff::EOp(input.Byte() % SOp_MathOp::__MaxOps);
	const EBaseTypeID type = OxDiff::kTypes[input.Byte() % OxDiff::kTypeCount];
	const u8 banks = input.Byte();
	const bool inPlace = (banks & 0x40) != 0;
	const EMetaType dstBank = OxDiff::kBanks[banks & 3];
	const EMetaType src0Bank = OxDiff::kBanks[(banks >> 2) & 3];
	const EMetaType src1Bank = OxDiff::kBanks[(banks >> 4) & 3];
	const u8 dimsByte = input.Byte();
	const u32 dims = dimsByte < 224 ? dimsByte % 80 : 80 + (dimsByte - 224) * 37;
	const OxDiff::SCase c = OxDiff::MakeCase(op, type, dstBank, src0Bank, src1Bank, dims, inPlace);

	// Contents: the rest of the input, repeated, four bytes a word; every file identical.
	const u8 *rest = input.Rest();
	const std::size_t restSize = input.RestSize();
	auto fill = [&](OxDiff::SFiles &files) {
		std::size_t at = 0;
		OxDiff::BuildFiles(
			c,
			[&]() {
				u32 word = 0;
				for (u32 b = 0; b < 4 && restSize != 0; ++b)
					word |= u32(rest[(at + b) % restSize]) << (8 * b);
				at += 4;
				return word;
			},
			files);
	};
	OxDiff::SFiles files;
	fill(files);
	const std::vector<u8> bytecode = OxDiff::Encode(files.m_Standard, op);

	CBVM::SVerifyProblem problems[4];
	const CBVM::SVerifyResult verified = CBVM::CVerifier::Verify(bytecode.data(), u32(bytecode.size()), files.m_Standard.m_Storage, problems, 4);
	if (!OxTest::ModelSupports(c.m_Kind, op))
	{
		// Bitwise operators on floats: refused by the verifier, nothing to compare.
		if (verified.m_Errors != 1 || problems[0].m_Code != CBVM::VerifyError_BitwiseOnFloat)
			Fail("bitwise operator on floats not refused");
		return 0;
	}

	static const std::vector<CBVM::EKernelIsa> s_Sets = OxDiff::WideKernelSets();
	const OxDiff::SOutcome outcome = OxDiff::CheckEveryKernelSet(c, fill, s_Sets);
	const CBVM::EVerifyError refusal = outcome.m_Expected.m_Refusal;
	if (refusal == CBVM::VerifyError_None ? verified.Problems() != 0 : (verified.m_Errors != 1 || problems[0].m_Code != refusal))
		Fail("the verifier's verdict is not the documented one:", verified.Problems() != 0 ? problems[0].m_Message : "accepted");
	if (!outcome.m_Mismatches.empty())
	{
		const OxDiff::SMismatch &first = outcome.m_Mismatches.front();
		const std::string detail = first.m_Detail + " (" + OxDiff::Describe(c) + ")";
		Fail(first.m_What.c_str(), detail.c_str());
	}
	return 0;
}
