// oxvm run: check, assemble, allocate, run (or compare the two paths), report.

#include "assembler.h"
#include "assert_scope.h"
#include "bundled_example.h"
#include "commands.h"
#include "compare.h"
#include "kr_profiler.h"
#include "program_loader.h"
#include "register_file.h"
#include "output_file.h"
#include "results.h"
#include "runner.h"
#include "verification.h"

#include <fmt/format.h>

namespace OxVm
{
	namespace
	{
		// --dump names -> registers; false after reporting an unknown one.
		bool FindDumped(const SProgram &program, const std::vector<std::string> &names, std::vector<s32> &registers)
		{
			for (const std::string &name : names)
			{
				s32 index = program.FindByName(name);
				for (std::size_t i = 0; index < 0 && i < program.m_Registers.size(); ++i)
					if (InlineRegisterText(program.m_Registers[i].m_Bits) == name)
						index = s32(i);
				if (index < 0)
				{
					fmt::print(stderr, "oxvm: error: --dump: no register named '{}'\n", name);
					return false;
				}
				registers.push_back(index);
			}
			return true;
		}

		void PrintListing(const SProgram &program, const std::vector<u8> &bytecode)
		{
			for (u32 offset : InstructionOffsets(bytecode))
				fmt::print("  {}\n", DisassembleOne(bytecode.data() + offset, offset, &program));
		}

		std::string Bytes(double bytes)
		{
			const char *units[] = {"B", "KB", "MB", "GB", "TB"};
			u32 unit = 0;
			while (bytes >= 1000.0 && unit < 4)
			{
				bytes /= 1000.0;
				++unit;
			}
			return fmt::format("{:.3g} {}", bytes, units[unit]);
		}

		std::string Duration(double seconds)
		{
			return seconds >= 1.0 ? fmt::format("{:.3f} s", seconds) : seconds >= 1e-3 ? fmt::format("{:.3f} ms", seconds * 1e3) : fmt::format("{:.3f} us", seconds * 1e6);
		}

		void PrintTiming(const SProgram &program, u32 elements, u32 frames, double seconds)
		{
			const double perFrame = seconds / frames;
			const u64 bytes = BytesTouchedPerFrame(program, elements);
			fmt::print("time       {} per frame, {} in all\n", Duration(perFrame), Duration(seconds));
			if (seconds > 0)
				fmt::print("throughput {:.4g} elements/s, {:.3f} GB/s touched ({} per frame)\n", double(elements) * frames / seconds, double(bytes) * frames / seconds * 1e-9, Bytes(double(bytes)));
		}

		void PrintHazards()
		{
			const Profiler::CHazards &hazards = Profiler::CHazards::CurrentThreadHazards();
			const u32 slow = hazards.Get(Profiler::CHazards::Hazard_SlowStrides);
			const u32 scalar = hazards.Get(Profiler::CHazards::Hazard_ScalarFallback);
			if (slow != 0 || scalar != 0)
				fmt::print("slow paths {} strided float loops, {} per-lane integer blocks\n", slow, scalar);
		}
	}

	int CommandRun(const SRunCommand &options)
	{
		SProgram program;
		if (!LoadProgram(options.m_Program, options.m_Elements, program))
			return Exit_BadInput;
		std::vector<s32> dumped;
		if (!FindDumped(program, options.m_Dump, dumped))
			return Exit_BadInput;
		const u32 elements = options.m_Elements != 0 ? options.m_Elements : program.m_Stream;
		const CBVM::EExecPath path = options.m_Path == "low" ? CBVM::ExecPath_Low : CBVM::ExecPath_Standard;
		const std::vector<u8> bytecode = Assemble(program);
		// The CSV output is opened before anything runs: a path that cannot be written
		// stops the command here, not after the run.
		COutputFile csv;
		std::string csvError;
		if (!options.m_Csv.empty() && !csv.Open(options.m_Csv, csvError))
		{
			fmt::print(stderr, "oxvm: error: {}\n", csvError);
			return Exit_BadInput;
		}

		Profiler::CProfiler &profiler = *Profiler::MainEngineProfiler();
		profiler.Reset();
		profiler.SetEnabled(options.m_Profile);
		Profiler::CHazards::CurrentThreadHazards().Reset();
		CCountedAsserts asserts;

		CRegisterFile file;
		std::string error;
		if (!file.Build(program, elements, options.m_Seed, error))
		{
			fmt::print(stderr, "oxvm: error: {}\n", error);
			return Exit_RunFailed;
		}
		// The VM's own verifier, against the register file the program runs on.
		if (!VerifyForRun(*program.m_File, bytecode.data(), u32(bytecode.size()), file.Storage()))
			return Exit_BadInput;
		fmt::print("program    {}{}\n", *program.m_File, options.m_Program.empty() ? " (bundled example; see oxvm example)" : "");
		fmt::print("run        {} path{}, {} elements, {} frame{}, seed {}\n", options.m_Compare ? "standard and low" : CBVM::ExecPathName(path),
				   options.m_Compare ? "s compared" : "", elements, options.m_Frames, options.m_Frames == 1 ? "" : "s", options.m_Seed);
		fmt::print("\n{} instructions, {} bytes of bytecode:\n", program.m_Instructions.size(), bytecode.size());
		PrintListing(program, bytecode);
		fmt::print("\n");
		std::fflush(stdout);

		bool failed = false;
		if (options.m_Compare)
		{
			CRegisterFile low;
			if (!low.CopyFrom(program, file, error))
			{
				fmt::print(stderr, "oxvm: error: {}\n", error);
				return Exit_RunFailed;
			}
			const SCompareReport report = ComparePaths(stdout, program, bytecode, file, low, options.m_Frames);
			failed = report.m_UndocumentedWords != 0;
			fmt::print("compare    {} words compared, {} documented differences, {}\n", report.m_WordsCompared, report.m_DocumentedWords,
					   failed ? fmt::format("{} DIFFERING WORDS outside the documented differences", report.m_UndocumentedWords)
							  : std::string("no difference outside the documented ones"));
		}
		else
		{
			SRunOptions run;
			run.m_Path = path;
			run.m_Frames = options.m_Frames;
			run.m_Progress = true;
			const SRunTiming timing = RunFrames(bytecode, file, run);
			if (!timing.m_Ok)
			{
				fmt::print(stderr, "oxvm: error: the interpreter stopped: {}\n", timing.m_Error);
				failed = true;
			}
			fmt::print("ran        {} instructions x {} frame{} over {} elements\n", program.m_Instructions.size(), options.m_Frames, options.m_Frames == 1 ? "" : "s", elements);
			PrintTiming(program, elements, options.m_Frames, timing.m_Seconds);
		}
		PrintHazards();

		fmt::print("\nwritten registers{}:\n", options.m_Compare ? " (standard path)" : "");
		PrintRegisterStats(stdout, program, file, WrittenRegisters(program));
		if (!dumped.empty())
		{
			fmt::print("\n");
			DumpRegisters(stdout, program, file, dumped);
		}
		if (options.m_Profile)
		{
			fmt::print("\nprofile:\n");
			std::fflush(stdout);
			profiler.Print(stdout);
		}
		profiler.SetEnabled(true);

		const u64 reports = asserts.Count();
		if (reports != 0)
			fmt::print(stderr, "oxvm: {} VM assertion report{} during the run{}\n", reports, reports == 1 ? "" : "s", options.m_Strict ? " (--strict: failing)" : "");
		failed = failed || (options.m_Strict && reports != 0);
		if (failed)
		{
			if (!options.m_Csv.empty())
				fmt::print(stderr, "oxvm: {} not written: the run failed\n", options.m_Csv);
			return Exit_RunFailed;
		}
		if (!options.m_Csv.empty())
		{
			const bool wrote = WriteCsv(csv.Stream(), program, file, WrittenRegisters(program), elements);
			if (!csv.Commit(error) || !wrote)
			{
				fmt::print(stderr, "oxvm: error: {}\n", error.empty() ? fmt::format("cannot write '{}'", options.m_Csv) : error);
				return Exit_RunFailed;
			}
			fmt::print("\ncsv        {} ({} rows)\n", options.m_Csv, elements);
		}
		return Exit_Ok;
	}
}
