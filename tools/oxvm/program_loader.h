#pragma once
// An input file -> a parsed and checked SProgram, reporting every error on stderr.
// A program is text; 'oxvm run' also takes bytecode (the output of 'oxvm asm'), read
// back through the VM's decoder into the program its disassembly gives.

#include "commands.h"
#include "program.h"

#include <string>

namespace OxVm
{
	// 'path' empty: the bundled example; "-": standard input. 'elements' 0: the program's
	// own stream size (bytecode has none: it needs 'elements'). Bytecode is refused
	// unless 'acceptBytecode'; 'format' says what the file is (Input_Auto: text when it
	// has no control bytes). False after printing the errors (file:line:column: error: ...).
	// 'standardPathRuns' false leaves out the warnings about the standard path (CheckProgram).
	// 'inputs' (bytecode only): a program text whose declarations the bytecode runs on
	// (run_inputs.h).
	bool LoadProgram(const std::string &path, u32 elements, bool acceptBytecode, SProgram &program, bool standardPathRuns = true,
					 EInputFormat format = Input_Auto, const std::string &inputs = std::string());

	// The bytes of an input file ("-": standard input) up to kMaxInputBytes; false after
	// printing why not.
	bool ReadInput(const std::string &path, std::string &bytes);

	// A program text already read ('name' for messages and to find CSV files).
	bool LoadProgramText(std::string text, const std::string &name, u32 elements, SProgram &program, bool standardPathRuns = true);
}
