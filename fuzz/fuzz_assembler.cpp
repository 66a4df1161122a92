// The oxvm assembler's parser and checker over arbitrary text.
//
// csv() initialisers are turned into zero ones before checking, so that the fuzzer
// never opens files (a path such as /dev/zero would never end). Properties, for a
// program that parses and checks:
//   - its bytecode passes the verifier's structure check, one instruction per statement;
//   - the disassembly (with the program, and of the raw bytes) parses, checks and
//     assembles back to the same bytes;
//   - when its registers are small, the full verifier (reported forms allowed) finds no
//     error against the register file oxvm builds, and when the strict verifier finds
//     no problem at all, both paths run it with no assertion report.

#include "assembler.h"
#include "cbvm_verifier.h"
#include "fuzz_support.h"
#include "program.h"
#include "register_file.h"

#include <string>

using namespace Orvex;
using namespace OxFuzz;

namespace
{
	constexpr u64 kMaxRunBytes = 1u << 20;

	bool ParseAndCheck(const std::string &text, OxVm::SProgram &program)
	{
		OxVm::CDiagnostics diagnostics(nullptr);
		if (!OxVm::ParseProgram(text, "fuzz.oxs", program, diagnostics) || program.m_Stream == 0)
			return false;
		for (OxVm::SRegisterDecl &decl : program.m_Registers)
			if (decl.m_Init != nullptr && decl.m_Init->m_Kind == OxVm::Init_Csv)
				decl.m_Init->m_Kind = OxVm::Init_Zero;
		return OxVm::CheckProgram(program, 0, diagnostics);
	}

	void CheckRoundTrip(const std::string &listing, const std::vector<u8> &bytes, const char *what)
	{
		OxVm::SProgram again;
		if (!ParseAndCheck(listing, again))
			Fail("the disassembly does not parse and check:", what);
		if (OxVm::Assemble(again) != bytes)
			Fail("the disassembly assembles to other bytes:", what);
	}

	void CheckRegisterFile(const OxVm::SProgram &program, const std::vector<u8> &bytes)
	{
		u64 total = 0;
		for (const OxVm::SRegisterDecl &decl : program.m_Registers)
			total += u64(decl.m_Count) * OxVm::ElementSize(decl.Type());
		if (total > kMaxRunBytes)
			return;
		OxVm::CRegisterFile file;
		std::string error;
		if (!file.Build(program, program.m_Stream, 1, error))
			Fail("cannot build the register file:", error.c_str());
		CBVM::SVerifyProblem problem;
		const CBVM::SVerifyResult allowed = CBVM::CVerifier::Verify(bytes.data(), u32(bytes.size()), file.Storage(), &problem, 1, CBVM::VerifyFlag_AllowReportedForms);
		if (!allowed.Accepted())
			Fail("the verifier refuses a checked program:", problem.m_Message);
		if (CBVM::CVerifier::Verify(bytes.data(), u32(bytes.size()), file.Storage(), nullptr, 0).Problems() != 0)
			return;
		SReports::Reset();
		Run(file.Storage().Registers(), bytes.data(), u32(bytes.size()), CBVM::ExecPath_Standard);
		Run(file.Storage().Registers(), bytes.data(), u32(bytes.size()), CBVM::ExecPath_Low);
		if (SReports::Count() != 0)
			Fail("assertion report from a verified program:", SReports::Last());
	}
}

extern "C" int LLVMFuzzerTestOneInput(const u8 *data, std::size_t size)
{
	static const bool installed = (SReports::Install(), true);
	(void)installed;

	OxVm::SProgram program;
	if (!ParseAndCheck(std::string(reinterpret_cast<const char *>(data), size), program))
		return 0;
	const std::vector<u8> bytes = OxVm::Assemble(program);
	const CBVM::SVerifyResult structure = CBVM::CVerifier::VerifyStructure(bytes.data(), u32(bytes.size()), nullptr, 0);
	if (!structure.Accepted() || structure.m_Instructions != program.m_Instructions.size())
		Fail("the verifier's structure check refuses a checked program");

	const OxVm::SDisassembly named = OxVm::Disassemble(bytes.data(), u32(bytes.size()), &program);
	const OxVm::SDisassembly raw = OxVm::Disassemble(bytes.data(), u32(bytes.size()), nullptr);
	if (!named.m_Ok || !raw.m_Ok)
		Fail("the disassembler stops on assembled bytes");
	CheckRoundTrip(named.m_Text, bytes, "with the program");
	CheckRoundTrip(raw.m_Text, bytes, "of the raw bytes");
	CheckRegisterFile(program, bytes);
	return 0;
}
