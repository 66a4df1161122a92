#pragma once
// Assertion handlers the tool installs around VM calls (kr_assert.h).

#include "cbvm_interpreter.h"
#include "kr_assert.h"
#include "program.h"

#include <cstdint>
#include <string>
#include <vector>

namespace OxVm
{
	// Swallows every report while it lives: the decoder asserts on the corrupt
	// bytecode that disasm exists to show, and the tool reports those itself.
	class CSilentAsserts
	{
	public:
		CSilentAsserts();
		~CSilentAsserts();
		CSilentAsserts(const CSilentAsserts &) = delete;
		CSilentAsserts &operator=(const CSilentAsserts &) = delete;

	private:
		Orvex::Assert::FnHandler m_Previous;
	};

	// Counts reports while it lives and prints only the first kPrinted of them (with a
	// final note), so that a run never floods the terminal. Each reporting site is
	// silenced after its report, as the default handler does: a check reports once per
	// run, at the first instruction that trips it.
	//
	// A report is printed at the program line of the instruction that raised it
	// ("prog.oxs:5:1: warning: VM assertion report: 'shl' on the standard path: uniform
	// shift count above 31"): the interpreter stores each instruction's offset in the
	// register file's m_InstructionPointer before calling it, so the handler knows which
	// one runs without the run going instruction by instruction. What the VM checked (its
	// expression, source file and line) means something to the VM's developers only, and
	// is printed with 'verbose'.
	class CCountedAsserts
	{
	public:
		static constexpr std::uint64_t kPrinted = 5;

		explicit CCountedAsserts(bool verbose = false);
		~CCountedAsserts();
		CCountedAsserts(const CCountedAsserts &) = delete;
		CCountedAsserts &operator=(const CCountedAsserts &) = delete;

		// Reports counted: one per reporting site (a site that several batch threads
		// trip at once is counted once), printed or not.
		std::uint64_t Count() const;
		// "3 VM assertion reports during the run", with how many were printed when that
		// is fewer (repeats of a printed line, reports past kPrinted).
		std::string Summary() const;

		// The program whose 'bytecode' runs from now on (both outlive this object).
		void Attribute(const SProgram &program, const std::vector<u8> &bytecode);

		// Which path runs on which register file from now on; null 'registers' between
		// runs (a report then has no instruction). Callers that call entry points
		// themselves, not through CInterpreter::Run, set the registers'
		// m_InstructionPointer to the instruction's offset as Run does.
		static void Running(CBVM::EExecPath path, const CCBCPUMetaRegisters *registers);

	private:
		Orvex::Assert::FnHandler m_Previous;
	};
}
