// oxvm: assembler, disassembler and runner of math-op bytecode. The command line
// (CLI11) lives here; the commands are in command_codec.cpp and command_run.cpp.

#include "commands.h"

#include <CLI/CLI.hpp>

#include <cstdio>

#include <map>

namespace
{
	const char kFormatHelp[] =
		"\nProgram format (one statement per line, '#' or ';' starts a comment):\n"
		"  stream 4096                                  elements per stream\n"
		"  reg pos stream 0 float3 = random(-10, 10)    name bank slot type [[count]] [= initialiser]\n"
		"  add pos, pos, vel                            operator destination, source0[, source1]\n"
		"See the README section 'The oxvm tool' for the whole format.\n";
}

int main(int argc, char **argv)
{
	using namespace OxVm;
	CLI::App app{"oxvm: assemble, disassemble and run math-op programs of the CPU bytecode VM.", "oxvm"};
	app.footer(kFormatHelp);
	app.require_subcommand(1);
	app.set_version_flag("--version", std::string("oxvm ") + OXVM_VERSION);
	CLI::App *helpCommand = app.add_subcommand("help", "Print this help.");

	std::string asmProgram, asmOutput;
	CLI::App *asmCommand = app.add_subcommand("asm", "Assemble a program into bytecode with the VM's encoder (13-byte add, sub, mul, div; 14 bytes otherwise).");
	asmCommand->add_option("program", asmProgram, "program text (.oxs)")->required();
	asmCommand->add_option("-o,--output", asmOutput, "bytecode file to write: a regular file is replaced whole or not at all, keeping its mode and links; a device or FIFO is written as it is; - is standard output")->required();

	std::string disasmPath, disasmInput = "auto";
	CLI::App *disasmCommand = app.add_subcommand("disasm",
		"Decode bytecode (or a program, assembled first) with the VM's decoder and print it as assembler text: per instruction the mnemonic and "
		"registers, then the byte offset, raw bytes, opcode, size and destination bank. The text assembles back to the same bytes. "
		"A truncated or corrupt file prints what was decoded, then the offset of the problem (exit 2).");
	disasmCommand->add_option("file", disasmPath, "bytecode file or program text")->required();
	disasmCommand->add_option("--input", disasmInput, "what the file is: auto (text if it has no control bytes), text or bytecode")
		->check(CLI::IsMember({"auto", "text", "bytecode"}))
		->capture_default_str();

	SRunCommand run;
	CLI::App *runCommand = app.add_subcommand("run",
		"Check and assemble a program, allocate its registers, run it through the VM's interpreter and print the disassembly, the time per "
		"frame, the throughput and, for each register written, its first and last values, min, max, mean and checksum. "
		"Without a program, runs the bundled particle example.");
	runCommand->add_option("program", run.m_Program, "program text (.oxs); default: the bundled example (see 'oxvm example')");
	runCommand->add_option("--elements", run.m_Elements, "elements per stream (default: the program's 'stream' line)")->check(CLI::Range(1u, (1u << 28) - 1));
	runCommand->add_option("--frames", run.m_Frames, "run the program this many times, as simulation frames (progress bar on a terminal when long)")
		->check(CLI::Range(1u, 1000000000u))
		->capture_default_str();
	runCommand->add_option("--path", run.m_Path, "execution path: standard (SIMD) or low (plain)")->check(CLI::IsMember({"standard", "low"}))->capture_default_str();
	runCommand->add_option("--seed", run.m_Seed, "seed of random() initialisers")->capture_default_str();
	// One value per --dump (repeat it, or give a comma list), so that it never takes the
	// program's name for a register's.
	runCommand->add_option("--dump", run.m_Dump, "print every element of this register (a name or bank.slot:type; repeat --dump, or give a comma list)")
		->allow_extra_args(false)
		->delimiter(',');
	runCommand->add_option("--csv", run.m_Csv, "write the written registers, one row per element, to this CSV file (only when the run succeeds; a regular file is replaced whole, keeping its mode and links; a device or FIFO is written as it is; - is standard output)");
	runCommand->add_flag("--profile", run.m_Profile, "print the profiler's count and time per VM entry point");
	CLI::Option *compare = runCommand->add_flag("--compare", run.m_Compare,
		"run the standard and the low path side by side from the same inputs and list every differing word outside the documented differences (exit 1 if any)");
	// --compare runs both paths: a --path beside it would be ignored, so it is refused.
	compare->excludes(runCommand->get_option("--path"));
	runCommand->add_flag("--strict", run.m_Strict, "fail (exit 1) when the VM reports any assertion");

	app.add_subcommand("example", "Print the bundled example program (examples/particles.oxs).");

	// The help of the whole tool, as --help prints it ('oxvm help' prints it too).
	const std::string toolHelp = app.help();

	// A first word that is no option and no command is named (CLI11 would only say that
	// a command is required).
	if (argc > 1 && argv[1][0] != '-')
	{
		bool known = false;
		std::string commands;
		for (const CLI::App *command : app.get_subcommands({}))
		{
			known = known || command->get_name() == argv[1];
			commands += (commands.empty() ? "" : ", ") + command->get_name();
		}
		if (!known)
		{
			std::fprintf(stderr, "oxvm: error: unknown command '%s' (commands: %s; oxvm --help)\n", argv[1], commands.c_str());
			return Exit_BadInput;
		}
	}
	try
	{
		app.parse(argc, argv);
	}
	catch (const CLI::ParseError &e)
	{
		// CLI11 reports through exceptions; --help is one of them and exits 0.
		return app.exit(e) == 0 ? Exit_Ok : Exit_BadInput;
	}

	if (helpCommand->parsed())
	{
		std::fputs(toolHelp.c_str(), stdout);
		return Exit_Ok;
	}
	if (asmCommand->parsed())
		return CommandAsm(asmProgram, asmOutput);
	if (disasmCommand->parsed())
	{
		const std::map<std::string, EInputFormat> formats = {{"auto", Input_Auto}, {"text", Input_Text}, {"bytecode", Input_Bytecode}};
		return CommandDisasm(disasmPath, formats.at(disasmInput));
	}
	if (runCommand->parsed())
		return CommandRun(run);
	return CommandExample();
}
