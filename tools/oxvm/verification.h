#pragma once
// The VM's bytecode verifier (cbvm_verifier.h) as the oxvm commands use it. 'run'
// prints each finding at the program line of its instruction ("file:line:column:
// warning: message"); bytecode without a program text has no lines, so 'disasm' of
// raw bytecode prints "file: error: offset N: message". Findings come in offset order.

#include "cbvm_register_storage.h"
#include "kr_base_types.h"
#include "program.h"

#include <string>
#include <vector>

namespace OxVm
{
	using namespace Orvex;

	// Index of the instruction whose bytecode holds 'offset' ('offsets': its instructions'
	// start offsets, ascending, as InstructionOffsets gives them); -1 before the first.
	s32 InstructionAt(const std::vector<u32> &offsets, u32 offset);

	// A message about the instruction at bytecode 'offset' of 'program', in the form of
	// the program's other messages: "file:line:column: severity: message" at the
	// instruction's mnemonic ('operand' >= 0: at that operand, 0 the destination, 1 and 2
	// the sources), or "file: severity: offset N: message" when the program has no line
	// for it (it came from bytecode).
	std::string InstructionMessage(const SProgram &program, const std::vector<u32> &offsets, u32 offset, const char *severity,
								   const std::string &message, s32 operand = -1);

	// 'run': the bytecode against the register file it runs on. The forms that the
	// standard path reports are warnings here, and only when the standard path runs
	// ('standardPathRuns': standard or --compare): the Low path computes them like any
	// other. Float neg and mod of constants are not repeated (the program checker warns
	// about them, with its advice). False after printing the errors, if any.
	bool VerifyForRun(const SProgram &program, const std::vector<u8> &bytecode, const CRegisterStorage &registers, bool standardPathRuns);

	// 'disasm': what can be checked without a register file (the listing is shown either
	// way). Only findings before 'stopOffset' are printed: the disassembler reports the
	// instruction it stopped at itself. False when an error was found: disasm then refuses
	// the bytecode (exit status 2), as the VM's verifier would. Raw bytecode has no lines:
	// findings name offsets.
	bool VerifyForListing(const std::string &file, const u8 *bytecode, u32 size, u32 stopOffset);
}
