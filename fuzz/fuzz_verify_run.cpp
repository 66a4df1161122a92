// Verify, then run on both paths: the verifier's guarantee under fuzzing.
//
// Input: a register-file shape (fuzz_support.h: slots, stream size, per-entry size,
// alignment and contents), then raw bytecode. The verifier must never read outside the
// bytecode (AddressSanitizer watches the exact-size input). When it accepts the program
// with no problem at all, the program must run on both paths with every instruction
// executed and no assertion report, and AddressSanitizer must see no access outside
// the registers' blocks. With warnings only, it must still run without a memory error.

#include "cbvm_verifier.h"
#include "fuzz_support.h"

#include <vector>

using namespace Orvex;
using namespace OxFuzz;

extern "C" int LLVMFuzzerTestOneInput(const u8 *data, std::size_t size)
{
	static const bool installed = (SReports::Install(), true);
	(void)installed;

	CInput input(data, size);
	CFuzzRegisters standard;
	standard.Build(input);
	// The bytecode is copied to its own exact-size block, so that any read past it is caught.
	const std::size_t codeSize = input.RestSize();
	std::vector<u8> bytecode(input.Rest(), input.Rest() + codeSize);

	CBVM::SVerifyProblem problems[8];
	const CBVM::SVerifyResult result = CBVM::CVerifier::Verify(bytecode.data(), u32(codeSize), standard.Registers(), standard.Slots(), problems, 8);
	const CBVM::SVerifyResult structure = CBVM::CVerifier::VerifyStructure(bytecode.data(), u32(codeSize), nullptr, 0);
	// Whatever the structure check finds, the full check finds too.
	if (structure.m_Errors > result.m_Errors || structure.m_Instructions != result.m_Instructions)
		Fail("structure check found more than the full check");
	if (!result.Accepted())
		return 0;

	CFuzzRegisters low;
	low.CopyFrom(standard);
	SReports::Reset();
	const CBVM::SRunResult ranStandard = Run(standard.Registers(), bytecode.data(), u32(codeSize), CBVM::ExecPath_Standard);
	const CBVM::SRunResult ranLow = Run(low.Registers(), bytecode.data(), u32(codeSize), CBVM::ExecPath_Low);
	for (const CBVM::SRunResult *ran : {&ranStandard, &ranLow})
		if (ran->m_Status != CBVM::RunStatus_Ok || ran->m_Executed != result.m_Instructions)
			Fail("an accepted program did not run whole");
	if (result.m_Warnings == 0 && SReports::Count() != 0)
		Fail("assertion report from an accepted program:", SReports::Last());
	return 0;
}
