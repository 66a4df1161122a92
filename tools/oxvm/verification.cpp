#include "verification.h"

#include "cbvm_verifier.h"

#include <fmt/format.h>

namespace OxVm
{
	namespace
	{
		constexpr u32 kShown = 19;	// as many as the program checker lists

		void Print(const std::string &file, const CBVM::SVerifyProblem &problem, const char *severity)
		{
			fmt::print(stderr, "{}: {}: offset {}: {}\n", file, severity, problem.m_Offset, problem.m_Message);
		}

		void PrintMore(const CBVM::SVerifyResult &result, u32 shown)
		{
			if (result.Problems() > shown && shown == kShown)
				fmt::print(stderr, "oxvm: {} more verifier findings not shown\n", result.Problems() - shown);
		}
	}

	bool VerifyForRun(const std::string &file, const u8 *bytecode, u32 size, const CRegisterStorage &registers)
	{
		CBVM::SVerifyProblem problems[kShown];
		const CBVM::SVerifyResult result = CBVM::CVerifier::Verify(bytecode, size, registers, problems, kShown, CBVM::VerifyFlag_AllowReportedForms);
		u32 shown = 0;
		for (u32 i = 0; i < result.Problems() && i < kShown; ++i, ++shown)
		{
			const CBVM::SVerifyProblem &problem = problems[i];
			const bool warnedByChecker = problem.m_Code == CBVM::VerifyError_FloatNegOfConstant || problem.m_Code == CBVM::VerifyError_FloatModOfConstants;
			if (problem.m_Severity == CBVM::VerifySeverity_Error)
				Print(file, problem, "error");
			else if (!warnedByChecker)
				Print(file, problem, "warning");
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
			Print(file, problems[i], error ? "error" : "warning");
		}
		PrintMore(result, shown);
		return !errors;
	}
}
