// oxvm: assembler, disassembler and runner of math-op bytecode. The command line
// (CLI11) lives here; the commands are in command_codec.cpp and command_run.cpp.

#include "cbvm_kernel_isa.h"
#include "commands.h"
#include "program.h"

#include <CLI/CLI.hpp>

#include <charconv>
#include <cstdio>
#include <exception>
#include <map>
#include <new>
#include <string>
#include <vector>

namespace
{
	// --isa's values: auto, then the library's kernel set names.
	std::vector<std::string> IsaChoices()
	{
		std::vector<std::string> choices = {"auto"};
		for (Orvex::u32 isa = 0; isa < Orvex::CBVM::__MaxKernelIsas; ++isa)
			choices.push_back(Orvex::CBVM::KernelIsaName(Orvex::CBVM::EKernelIsa(isa)));
		return choices;
	}

	const char kFormatHelp[] =
		"\nProgram format (one statement per line, '#' or ';' starts a comment):\n"
		"  stream 4096                                  elements per stream\n"
		"  reg pos stream 0 float3 = random(-10, 10)    name bank slot type [[count]] [= initialiser]\n"
		"  add pos, pos, vel                            operator destination, source0[, source1]\n"
		"  reg half constant 7 float = 0.5              operands are registers: a value goes in a constant\n"
		"See docs/oxvm.md for the whole format.\n";

	// A whole number lo..hi, and a message that gives the range whatever is wrong with
	// the text (a suffix, a sign, too many digits).
	CLI::Validator WholeNumber(std::uint64_t lo, std::uint64_t hi)
	{
		const std::string range = std::to_string(lo) + " to " + std::to_string(hi);
		return CLI::Validator(
			[lo, hi, range](std::string &text) {
				std::uint64_t value = 0;
				const auto result = std::from_chars(text.data(), text.data() + text.size(), value, 10);
				const bool ok = !text.empty() && result.ec == std::errc() && result.ptr == text.data() + text.size() && value >= lo && value <= hi;
				return ok ? std::string() : "'" + OxVm::Printable(text) + "' is not a whole number from " + range;
			},
			"whole number " + range);
	}

	// A command-line mistake reads like the tool's other errors, and says where the
	// options are explained (the command's own --help when a command was given).
	std::string FailureMessage(const CLI::App *app, const CLI::Error &error)
	{
		const std::vector<CLI::App *> commands = app->get_subcommands();
		const std::string help = commands.empty() ? "oxvm --help" : "oxvm " + commands.back()->get_name() + " --help";
		return std::string("oxvm: error: ") + error.what() + " (" + help + ")\n";
	}

	const std::map<std::string, OxVm::EInputFormat> kInputFormats = {{"auto", OxVm::Input_Auto}, {"text", OxVm::Input_Text}, {"bytecode", OxVm::Input_Bytecode}};

	int Main(int argc, char **argv)
	{
		using namespace OxVm;
		CLI::App app{"oxvm: assemble, disassemble and run math-op programs of the CPU bytecode VM.", "oxvm"};
		// (Before the commands are added: each copies its parent's formatter.)
		app.failure_message(FailureMessage);
		app.footer(kFormatHelp);
		app.require_subcommand(1);
		app.set_version_flag("--version", std::string("oxvm ") + OXVM_VERSION);
		CLI::App *helpCommand = app.add_subcommand("help", "Print this help.");

		std::string asmProgram, asmOutput;
		CLI::App *asmCommand = app.add_subcommand("asm", "Assemble a program into bytecode with the VM's encoder (13-byte add, sub, mul, div; 14 bytes otherwise).");
		asmCommand->add_option("program", asmProgram, "program text (.oxs); - reads standard input")->required();
		asmCommand->add_option("-o,--output", asmOutput, "bytecode file to write: a regular file is replaced whole or not at all, keeping its mode and links; a device or FIFO is written as it is; - is standard output")->required();

		std::string disasmPath, disasmInput = "auto";
		Orvex::u32 disasmElements = 0;
		CLI::App *disasmCommand = app.add_subcommand("disasm",
			"Decode bytecode (or a program, assembled first) with the VM's decoder and print it as assembler text: per instruction the mnemonic and "
			"registers, then the byte offset, raw bytes, opcode, size and destination bank. The text assembles back to the same bytes. "
			"A truncated or corrupt file prints what was decoded, then the offset of the problem (exit 2).");
		disasmCommand->add_option("file", disasmPath, "bytecode file or program text; - reads standard input")->required();
		disasmCommand->add_option("--input", disasmInput, "what the file is: auto (text if it has no control bytes), text or bytecode")
			->check(CLI::IsMember({"auto", "text", "bytecode"}))
			->capture_default_str();
		disasmCommand->add_option("--elements", disasmElements,
			"elements per stream, as 'run --elements' takes them: a program is checked for that size (one without a 'stream' line needs it), "
			"and the listing's 'stream' line says it (raw bytecode carries no stream size)")
			->check(WholeNumber(1, OxVm::kMaxElements));

		SRunCommand run;
		std::string runInput = "auto";
		CLI::App *runCommand = app.add_subcommand("run",
			"Check and assemble a program, allocate its registers, run it through the VM's interpreter and print the disassembly, the time per "
			"frame, the throughput and, for each register written, its first and last values, min, max, mean and checksum; then the wall time "
			"in three parts: set-up (reading, initialising, verifying), run and summary. VM assertion reports are printed at the program line "
			"that raised them. Without a program, runs the bundled particle example.");
		runCommand->add_option("program", run.m_Program,
			"program text (.oxs), or bytecode as oxvm asm writes it (with --elements; its registers start at zero); - reads standard input; "
			"default: the bundled example (see 'oxvm example')");
		runCommand->add_option("--input", runInput, "what the program file is: auto (text if it has no control bytes), text or bytecode")
			->check(CLI::IsMember({"auto", "text", "bytecode"}))
			->capture_default_str();
		runCommand->add_option("--inputs", run.m_Inputs,
			"with a bytecode program: a program text (usually the one it was assembled from) whose stream line, register names, counts and "
			"initialisers it runs with, instead of zeros; its instructions are ignored, the bytecode's run. Same results as running that text");
		runCommand->add_option("--elements", run.m_Elements, "elements per stream (default: the program's 'stream' line)")->check(WholeNumber(1, OxVm::kMaxElements));
		runCommand->add_option("--frames", run.m_Frames, "run the program this many times, as simulation frames (progress bar on a terminal when long)")
			->check(WholeNumber(1, 1000000000u))
			->capture_default_str();
		runCommand->add_option("--path", run.m_Path, "execution path: standard (SIMD) or low (plain)")->check(CLI::IsMember({"standard", "low"}))->capture_default_str();
		runCommand->add_option("--isa", run.m_Isa,
			"the standard path's kernel set: auto (the widest this machine runs, or the OX_CBVM_ISA environment variable's), sse2, avx2 or avx512; "
			"every set gives the same words, the wider ones faster")
			->check(CLI::IsMember(IsaChoices()))
			->capture_default_str();
		runCommand->add_option("--seed", run.m_Seed, "seed of random() initialisers")->check(WholeNumber(0, 0xFFFFFFFFu))->capture_default_str();
		// One value per --dump (repeat it, or give a comma list), so that it never takes the
		// program's name for a register's.
		runCommand->add_option("--dump", run.m_Dump, "print every element of this register (a name or bank.slot:type; repeat --dump, or give a comma list)")
			->allow_extra_args(false)
			->delimiter(',');
		runCommand->add_option("--csv", run.m_Csv, "write the written registers, one row per element, to this CSV file (only when the run succeeds; a regular file is replaced whole, keeping its mode and links; a device or FIFO is written as it is; - is standard output)");
		runCommand->add_flag("--csv-bits", run.m_CsvBits, "in the --csv file, write floats as their exact 32-bit words (0x7fc00000) instead of numbers (nan, inf, 1.5), so that csv() initialisers read them back bit for bit")->needs("--csv");
		runCommand->add_flag("--profile", run.m_Profile, "print the profiler's count and time per VM entry point (the standard path's: the low path's are not profiler scopes)");
		CLI::Option *compare = runCommand->add_flag("--compare", run.m_Compare,
			"run the standard and the low path side by side from the same inputs and list every differing word outside the documented differences (exit 1 if any)");
		// --compare runs both paths: a --path beside it would be ignored, so it is refused.
		compare->excludes(runCommand->get_option("--path"));
		runCommand->add_option("--batch", run.m_Batch,
			"elements per batch: the program runs over one batch of elements at a time, every instruction, so that the batch stays in the cache "
			"(rounded up to a multiple of 48, with a note; a lone last element joins the last batch; default: from the program's bytes per element; 0: the whole stream, instruction after instruction). "
			"A program batching could change refuses and runs whole-stream: the output says why. "
			"On the standard path a program the verifier accepts runs as prepared direct kernel calls, batched or not: the 'calls' line says so, or why not")
			->check(WholeNumber(0, OxVm::kMaxElements));
		runCommand->add_option("--scratch", run.m_Scratch,
			"a temporary of the program (an instance or stream register it writes before it reads; never one --dump names): a batched run keeps it in a per-thread buffer of one batch, "
			"in the cache, and does not keep its values (no statistics, dump or CSV column for it); repeat --scratch, or give a comma list")
			->allow_extra_args(false)
			->delimiter(',');
		runCommand->add_option("--threads", run.m_Threads, "threads the batches are spread over (0: every core; a whole-stream run, --batch 0, runs on one)")->check(WholeNumber(0, 1024))->capture_default_str();
		runCommand->add_flag("--strict", run.m_Strict, "fail (exit 1) when the VM reports any assertion");
		runCommand->add_flag("--verbose", run.m_Verbose,
			"with each VM assertion report (printed at the program line of the instruction that raised it), also print the VM's check: its expression and its source file and line");
		runCommand->add_option("--progress", run.m_Progress,
			"progress bar on stderr, with the time elapsed and an estimate of the time left, for each long phase: set-up (reading files, initialising registers, "
			"verifying), the run's frames (or --compare's), the summary (statistics, dumps) and writing the CSV file; auto (on a terminal, once a phase has "
			"taken over a second), always (from the start of each phase, wherever stderr goes) or never. Ctrl-C clears the bar's line")
			->check(CLI::IsMember({"auto", "always", "never"}))
			->capture_default_str();

		runCommand->add_flag("--quiet", run.m_Quiet,
			"print only what was asked for on standard output (--csv -, --dump, --profile, --compare's differences): no disassembly, no statistics, no "
			"times, so that 'run --quiet --csv -' feeds a pipeline; warnings and errors still go to standard error");

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
			return CommandDisasm(disasmPath, kInputFormats.at(disasmInput), disasmElements);
		if (runCommand->parsed())
		{
			run.m_ThreadsGiven = runCommand->count("--threads") != 0;
			run.m_Format = kInputFormats.at(runInput);
			return CommandRun(run);
		}
		return CommandExample();
	}

}

int main(int argc, char **argv)
{
	// Nothing the tool does may end in an uncaught exception: out of memory (a huge
	// input under a memory limit) is a message and exit status 2 like any bad input.
	try
	{
		return Main(argc, argv);
	}
	catch (const std::bad_alloc &)
	{
		std::fputs("oxvm: error: out of memory\n", stderr);
	}
	catch (const std::exception &e)
	{
		std::fprintf(stderr, "oxvm: error: %s\n", e.what());
	}
	return OxVm::Exit_BadInput;
}
