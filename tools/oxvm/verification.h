#pragma once
// The VM's bytecode verifier (cbvm_verifier.h) as the oxvm commands use it: findings
// printed as "file: error: offset N: message" (or warning), in offset order.

#include "cbvm_register_storage.h"
#include "kr_base_types.h"

#include <string>

namespace OxVm
{
	using namespace Orvex;

	// 'run': the bytecode against the register file it runs on. The forms that the
	// standard path reports are warnings here (the program checker has warned about float
	// neg and mod of constants already, by line, so those are not repeated; --strict and
	// --compare deal with the reports). False after printing the errors, if any.
	bool VerifyForRun(const std::string &file, const u8 *bytecode, u32 size, const CRegisterStorage &registers);

	// 'disasm': what can be checked without a register file (the listing is shown either
	// way). Only findings before 'stopOffset' are printed: the disassembler reports the
	// instruction it stopped at itself. False when an error was found: disasm then refuses
	// the bytecode (exit status 2), as the VM's verifier would.
	bool VerifyForListing(const std::string &file, const u8 *bytecode, u32 size, u32 stopOffset);
}
