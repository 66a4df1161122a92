#include "assert_scope.h"

#include "cbvm_batch_runner.h"
#include "cbvm_path_difference.h"
#include "progress.h"
#include "runner.h"
#include "verification.h"

#include <fmt/format.h>

#include <algorithm>
#include <atomic>
#include <cstdio>
#include <cstring>
#include <mutex>
#include <set>
#include <tuple>
#include <string>

namespace OxVm
{
	namespace
	{
		std::atomic<std::uint64_t> g_Counted{0};

		// What the counting handler knows of the run (the tool runs the VM on one thread).
		struct SAttribution
		{
			bool m_Verbose = false;
			const SProgram *m_Program = nullptr;
			const std::vector<u8> *m_Bytecode = nullptr;
			std::vector<u32> m_Offsets;
			CBVM::EExecPath m_Path = CBVM::ExecPath_Standard;
			const CCBCPUMetaRegisters *m_Registers = nullptr;
			std::vector<std::string> m_Printed;	// reports printed so far
			// Sites that reported: a site answered "ignore" stops reporting, but batches
			// on other threads may have passed its (relaxed) flag already and report it
			// again; counted once, the count is the same from run to run.
			// A site is its file, line, function and check (a template's instantiations are
			// sites of their own, and so are two checks on one line).
			std::set<std::tuple<const char *, int, const char *, const char *>> m_Sites;
			u64 m_Repeats = 0;	// reports that read as a line already printed (counted, not printed)
			bool m_NoteGiven = false;
			bool m_Describing = false;	// a report raised while describing one is only counted
		};
		SAttribution g_Attribution;

		int Silent(const Orvex::Assert::SReport &)
		{
			return Orvex::Assert::Answer_Continue;
		}

		// The forms the standard path reports by design, named as --compare names them.
		bool ReportedForm(CBVM::EPathDifference kind)
		{
			return kind == CBVM::PathDifference_FloatModOfConstants || kind == CBVM::PathDifference_FloatNegOfConstant || kind == CBVM::PathDifference_ShiftCountAbove31;
		}

		// The report as the user reads it: at the instruction's line when one runs, with
		// what the program did to cause it when that is one of the documented forms.
		std::string Describe(const Orvex::Assert::SReport &report)
		{
			const SAttribution &at = g_Attribution;
			const bool ownMessage = std::strcmp(report.m_Message, report.m_Expression) != 0;
			const std::string vmMessage = ownMessage ? report.m_Message : "a check of the VM failed (--verbose shows which)";
			// In a batch, the batch's registers hold the instruction pointer (an offset of the
			// program's bytecode, as in a whole-stream run).
			const CCBCPUMetaRegisters *current = CBVM::CBatchRunner::CurrentRegisters() != nullptr ? CBVM::CBatchRunner::CurrentRegisters() : at.m_Registers;
			const s32 index = at.m_Program != nullptr && current != nullptr ? InstructionAt(at.m_Offsets, current->m_InstructionPointer) : -1;
			if (index < 0 || std::size_t(index) >= at.m_Program->m_Instructions.size())
				return "oxvm: warning: VM assertion report: " + vmMessage;
			const u32 offset = at.m_Offsets[std::size_t(index)];
			const CBVM::EPathDifference kind =
				at.m_Path == CBVM::ExecPath_Standard ? CBVM::StandardPathDifference(*at.m_Registers, at.m_Bytecode->data() + offset) : CBVM::PathDifference_None;
			const char *mnemonic = Compiler::IR::SOp_MathOp::OperatorTraits(at.m_Program->m_Instructions[std::size_t(index)].m_Op).m_Name;
			return InstructionMessage(*at.m_Program, at.m_Offsets, offset, "warning",
									  fmt::format("VM assertion report: '{}' on the {} path: {}", mnemonic, CBVM::ExecPathName(at.m_Path),
												  ReportedForm(kind) ? std::string(CBVM::PathDifferenceName(kind)) : vmMessage));
		}

		// Batches report from several threads: one report is described and printed at a time.
		std::mutex g_Lock;

		// A report is counted once per site; what is not printed (a line already printed,
		// reports past kPrinted) is counted apart, so that the summary can say so.
		int Counted(const Orvex::Assert::SReport &report)
		{
			const std::lock_guard<std::mutex> lock(g_Lock);
			SAttribution &at = g_Attribution;
			if (at.m_Describing)
				return Orvex::Assert::Answer_Continue;
			if (!at.m_Sites.insert({report.m_File, report.m_Line, report.m_Function, report.m_Expression}).second)
				return Orvex::Assert::Answer_Ignore;
			g_Counted.fetch_add(1);
			at.m_Describing = true;
			std::string text = Describe(report);
			at.m_Describing = false;
			if (at.m_Verbose)
				text += fmt::format("\n    VM check '{}'{}{} at {}:{}", report.m_Expression, std::strcmp(report.m_Message, report.m_Expression) != 0 ? ": " : "",
									std::strcmp(report.m_Message, report.m_Expression) != 0 ? report.m_Message : "", report.m_File, report.m_Line);
			if (std::find(at.m_Printed.begin(), at.m_Printed.end(), text) != at.m_Printed.end())
			{
				++at.m_Repeats;
				return Orvex::Assert::Answer_Ignore;
			}
			// A report in the middle of a frame starts its own line; the bar comes back below it.
			if (CProgress *bar = CProgress::Current(); bar != nullptr && (at.m_Printed.size() < CCountedAsserts::kPrinted || !at.m_NoteGiven))
				bar->Interrupt();
			if (at.m_Printed.size() < CCountedAsserts::kPrinted)
			{
				std::fprintf(stderr, "%s\n", text.c_str());
				at.m_Printed.push_back(std::move(text));
			}
			else if (!at.m_NoteGiven)
			{
				std::fprintf(stderr, "oxvm: further VM assertion reports are counted, not printed\n");
				at.m_NoteGiven = true;
			}
			return Orvex::Assert::Answer_Ignore;
		}
	}

	CSilentAsserts::CSilentAsserts() : m_Previous(Orvex::Assert::SetHandler(&Silent)) {}
	CSilentAsserts::~CSilentAsserts() { Orvex::Assert::SetHandler(m_Previous); }

	CCountedAsserts::CCountedAsserts(bool verbose) : m_Previous(Orvex::Assert::SetHandler(&Counted))
	{
		g_Counted = 0;
		g_Attribution = SAttribution();
		g_Attribution.m_Verbose = verbose;
	}

	CCountedAsserts::~CCountedAsserts()
	{
		Orvex::Assert::SetHandler(m_Previous);
		g_Attribution = SAttribution();
	}

	std::uint64_t CCountedAsserts::Count() const { return g_Counted.load(); }

	std::string CCountedAsserts::Summary() const
	{
		const std::lock_guard<std::mutex> lock(g_Lock);
		const SAttribution &at = g_Attribution;
		const u64 counted = g_Counted.load(), printed = at.m_Printed.size(), unlisted = counted - printed - at.m_Repeats;
		std::string text = fmt::format("{} VM assertion report{} during the run", counted, counted == 1 ? "" : "s");
		if (printed == counted)
			return text;
		text += fmt::format(" ({} printed", printed);
		if (at.m_Repeats != 0)
			text += fmt::format("; {} read as a line printed already", at.m_Repeats);
		if (unlisted != 0)
			text += fmt::format("; {} past the first {}", unlisted, kPrinted);
		return text + ")";
	}

	void CCountedAsserts::Attribute(const SProgram &program, const std::vector<u8> &bytecode)
	{
		g_Attribution.m_Program = &program;
		g_Attribution.m_Bytecode = &bytecode;
		g_Attribution.m_Offsets = InstructionOffsets(bytecode);
	}

	void CCountedAsserts::Running(CBVM::EExecPath path, const CCBCPUMetaRegisters *registers)
	{
		g_Attribution.m_Path = path;
		g_Attribution.m_Registers = registers;
	}
}
