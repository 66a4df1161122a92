#include "verification.h"

#include "cbvm_verifier.h"
#include "program_terms.h"
#include "progress.h"
#include "runner.h"

#include <fmt/format.h>

#include <algorithm>

namespace OxVm
{
	namespace
	{
		constexpr u32 kShown = 19;	// as many as the program checker lists

		void PrintMore(const CBVM::SVerifyResult &result, u32 shown)
		{
			if (result.Problems() > shown && shown == kShown)
				fmt::print(stderr, "oxvm: {} more verifier findings not shown\n", result.Problems() - shown);
		}

		// The shift-count findings are about source 1 (the count); the others about the
		// instruction as a whole.
		s32 OperandOf(CBVM::EVerifyError code)
		{
			return code == CBVM::VerifyError_ShiftCountAbove31 || code == CBVM::VerifyError_ShiftCountUnchecked ? 2 : -1;
		}

		// Findings that exist because of what the standard path does with a legal form.
		bool AboutStandardPath(CBVM::EVerifyError code)
		{
			return code == CBVM::VerifyError_FloatNegOfConstant || code == CBVM::VerifyError_FloatModOfConstants || code == CBVM::VerifyError_ShiftCountAbove31 ||
				   code == CBVM::VerifyError_ShiftCountUnchecked;
		}
	}

	s32 InstructionAt(const std::vector<u32> &offsets, u32 offset)
	{
		const auto after = std::upper_bound(offsets.begin(), offsets.end(), offset);
		return s32(after - offsets.begin()) - 1;
	}

	std::string InstructionMessage(const SProgram &program, const std::vector<u32> &offsets, u32 offset, const char *severity, const std::string &message, s32 operand)
	{
		const s32 index = InstructionAt(offsets, offset);
		if (index >= 0 && std::size_t(index) < program.m_Instructions.size())
		{
			const SInstruction &instruction = program.m_Instructions[std::size_t(index)];
			SLocation where = program.Where(instruction);
			if (operand == 0)
				where = program.At(instruction, instruction.m_Dst);
			else if (operand > 0 && u32(operand) <= instruction.m_SourceCount)
				where = program.At(instruction, instruction.m_Src[operand - 1]);
			if (where.m_File != nullptr && where.m_Line != 0)
				return fmt::format("{}:{}{}: {}: {}", Printable(*where.m_File), where.m_Line, where.m_Column != 0 ? fmt::format(":{}", where.m_Column) : std::string(),
								   severity, message);
		}
		return fmt::format("{}: {}: offset {}: {}", Printable(*program.m_File), severity, offset, message);
	}

	bool VerifyForRun(const SProgram &program, const std::vector<u8> &bytecode, const CRegisterStorage &registers, bool standardPathRuns)
	{
		CBVM::SVerifyProblem problems[kShown];
		CBVM::SVerifyResult result;
		{
			// One call of the VM's verifier: the bar can only say it started and ended (and
			// how long it took), and it ends before any finding is printed.
			const CProgressPhase phase("set-up: verifying", "", 1);
			result = CBVM::CVerifier::Verify(bytecode.data(), u32(bytecode.size()), registers, problems, kShown, CBVM::VerifyFlag_AllowReportedForms);
			phase.Update(1, 1);
		}
		const std::vector<u32> offsets = InstructionOffsets(bytecode);
		const CProgramTerms terms(program, offsets);
		u32 shown = 0;
		for (u32 i = 0; i < result.Problems() && i < kShown; ++i, ++shown)
		{
			const CBVM::SVerifyProblem &problem = problems[i];
			const bool error = problem.m_Severity == CBVM::VerifySeverity_Error;
			const bool warnedByChecker = problem.m_Code == CBVM::VerifyError_FloatNegOfConstant || problem.m_Code == CBVM::VerifyError_FloatModOfConstants;
			if (!error && (warnedByChecker || (!standardPathRuns && AboutStandardPath(problem.m_Code))))
				continue;
			fmt::print(stderr, "{}\n", InstructionMessage(program, offsets, problem.m_Offset, error ? "error" : "warning", terms.Say(problem.m_Message), OperandOf(problem.m_Code)));
		}
		PrintMore(result, shown);
		return result.Accepted();
	}

	bool VerifyForListing(const std::string &file, const u8 *bytecode, u32 size, u32 stopOffset)
	{
		CBVM::SVerifyProblem problems[kShown];
		const CBVM::SVerifyResult result = CBVM::CVerifier::VerifyStructure(bytecode, size, problems, kShown);
		u32 shown = 0;
		bool errors = false;
		for (u32 i = 0; i < result.Problems() && i < kShown && problems[i].m_Offset < stopOffset; ++i, ++shown)
		{
			const bool error = problems[i].m_Severity == CBVM::VerifySeverity_Error;
			errors = errors || error;
			fmt::print(stderr, "{}: {}: offset {}: {}\n", file, error ? "error" : "warning", problems[i].m_Offset, problems[i].m_Message);
		}
		PrintMore(result, shown);
		return !errors;
	}
}
