// oxvm run: load, verify, plan, run (or compare the two paths), report. CommandRun
// calls one step after the other; each step says why it stops, and the first that
// does ends the command with its exit status.

#include "assembler.h"
#include "assert_scope.h"
#include "commands.h"
#include "compare.h"
#include "diagnostics.h"
#include "kr_profiler.h"
#include "output_file.h"
#include "program_loader.h"
#include "program_terms.h"
#include "register_file.h"
#include "results.h"
#include "run_options.h"
#include "run_report.h"
#include "runner.h"
#include "source_file.h"
#include "verification.h"

#include "cbvm_kernel_isa.h"
#if OXVM_HAVE_TBB
#include "cbvm_tbb_parallel_for.h"
#endif

#include <algorithm>
#include <cstdlib>
#include <memory>
#include <new>

#include <fmt/format.h>

namespace OxVm
{
	namespace
	{
		// Everything a run builds up, step after step.
		struct SRun
		{
			explicit SRun(const SRunCommand &options) : m_Options(options) {}

			const SRunCommand &m_Options;
			bool m_StandardPathRuns = true;
			CBVM::EExecPath m_Path = CBVM::ExecPath_Standard;
			CBVM::EKernelIsa m_Isa = CBVM::KernelIsa_Base;
			u32 m_Elements = 0;
			SProgram m_Program;
			std::vector<u8> m_Bytecode;
			std::vector<s32> m_Dumped, m_Scratch;
			std::vector<CVMRegID> m_ScratchIds;
			std::vector<s32> m_Dropped;		// scratch registers whose values a batched run does not keep
			std::vector<s32> m_Kept;		// written registers the results show
			COutputFile m_Csv;
			CRegisterFile m_File;
			CBVM::CBatchPlan m_Plan;
			CBVM::SParallelFor m_Parallel;
			u32 m_Threads = 1;
#if OXVM_HAVE_TBB
			std::unique_ptr<CBVM::CTbbParallelFor> m_Pool;
#endif
			Clock::time_point m_Started = Clock::now();
			Clock::time_point m_RunStarted, m_RunEnded;
			bool m_Failed = false;
		};

		// The kernel set: checked before anything is loaded or run.
		bool ChooseKernels(SRun &run)
		{
			run.m_Isa = CBVM::ActiveKernelIsa();
			if (run.m_Options.m_Isa == "auto")
				return true;
			CBVM::KernelIsaFromName(run.m_Options.m_Isa.c_str(), run.m_Isa);
			if (CBVM::SetKernelIsa(run.m_Isa))
				return true;
			fmt::print(stderr, "oxvm: error: --isa {}: this machine does not run it (the widest it runs: {})\n", run.m_Options.m_Isa, CBVM::KernelIsaName(CBVM::WidestKernelIsa()));
			return false;
		}

		// --csv names no file the run reads: the program, or a csv() initialiser's file.
		bool OutputsSpareInputs(const SRun &run)
		{
			const std::string &csv = run.m_Options.m_Csv;
			if (csv.empty())
				return true;
			if (!run.m_Options.m_Program.empty() && !OutputSparesInput("--csv", csv, run.m_Options.m_Program, "the program"))
				return false;
			if (!run.m_Options.m_Inputs.empty() && !OutputSparesInput("--csv", csv, run.m_Options.m_Inputs, "the --inputs program"))
				return false;
			for (const SRegisterDecl &decl : run.m_Program.m_Registers)
				if (decl.Init().m_Kind == Init_Csv &&
					!OutputSparesInput("--csv", csv, CsvFilePath(run.m_Program, decl.Init()), fmt::format("the csv() input of register '{}'", decl.m_Name)))
					return false;
			return true;
		}

		// The program, the registers the options name, the kernels and the CSV output:
		// everything that can be refused before memory is spent on the registers.
		bool Load(SRun &run)
		{
			const SRunCommand &options = run.m_Options;
			run.m_StandardPathRuns = options.m_Compare || options.m_Path != "low";
			run.m_Path = options.m_Path == "low" ? CBVM::ExecPath_Low : CBVM::ExecPath_Standard;
			if (!LoadProgram(options.m_Program, options.m_Elements, /*acceptBytecode*/ true, run.m_Program, run.m_StandardPathRuns, options.m_Format, options.m_Inputs))
				return false;
			if (!ResolveRunOptions(options, run.m_Program, run.m_Dumped, run.m_Scratch))
				return false;
			for (s32 index : run.m_Scratch)
				run.m_ScratchIds.push_back(CVMRegID{s32(run.m_Program.m_Registers[std::size_t(index)].m_Bits)});
			run.m_Elements = options.m_Elements != 0 ? options.m_Elements : run.m_Program.m_Stream;	// (--inputs: its stream line)
			if (!ChooseKernels(run))
				return false;
			run.m_Bytecode = Assemble(run.m_Program);
			// The CSV output is opened before anything runs: a path that cannot be written
			// stops the command here, not after the run.
			std::string error;
			if (!OutputsSpareInputs(run))
				return false;
			if (!options.m_Csv.empty() && !run.m_Csv.Open(options.m_Csv, error))
			{
				fmt::print(stderr, "oxvm: error: {}\n", error);
				return false;
			}
			return true;
		}

		// The registers' memory, counted and asked for at once before any of it is touched
		// (allocating zero-fills, register after register): a run that cannot have it
		// stops here, not after seconds of filling gigabytes. --compare runs the low path
		// on a copy, so it needs twice as much.
		bool MemoryAvailable(const SRun &run)
		{
			const u64 bytes = CRegisterFile::BytesNeeded(run.m_Program) * (run.m_Options.m_Compare ? 2 : 1);
			const u64 available = AvailableMemory();
			const bool fits = bytes <= available && bytes < (u64(1) << 47);
			// Not touched, so not paid for: the allocation only asks whether the address
			// space (a ulimit, the kernel's overcommit rule) has room.
			std::unique_ptr<char[]> probe(fits ? new (std::nothrow) char[std::size_t(bytes)] : nullptr);
			if (probe != nullptr || bytes == 0)
				return true;
			fmt::print(stderr, "oxvm: error: out of memory: the registers need {} for {} elements{}{}\n", Bytes(double(bytes)), run.m_Elements,
					   run.m_Options.m_Compare ? " (twice: --compare runs a copy)" : "",
					   available != ~u64(0) && bytes > available ? fmt::format(", the machine has {} available", Bytes(double(available))) : std::string());
			return false;
		}

		// Allocates and initialises the registers.
		bool SetUp(SRun &run, CProgress &progress)
		{
			if (!MemoryAvailable(run))
				return false;
			std::string error;
			progress.Begin("set-up: initialising registers", "", 0);
			const bool built = run.m_File.Build(run.m_Program, run.m_Elements, run.m_Options.m_Seed, error, progress.Reporter());
			progress.End();
			if (!built)
			{
				fmt::print(stderr, "oxvm: error: {}\n", error);
				return false;
			}
			// The CSV values are in the registers now: not held twice through the run.
			for (SRegisterDecl &decl : run.m_Program.m_Registers)
				if (decl.m_Init != nullptr)
					std::vector<u32>().swap(decl.m_Init->m_CsvWords);
			return true;
		}

		// The VM's own verifier, against the register file the program runs on.
		bool Verify(const SRun &run)
		{
			return VerifyForRun(run.m_Program, run.m_Bytecode, run.m_File.Storage(), run.m_StandardPathRuns);
		}

		// The threads the batches are spread over (one without oneTBB).
		void ChooseThreads(SRun &run)
		{
#if OXVM_HAVE_TBB
			if (run.m_Plan.Batched() && run.m_Options.m_Threads != 1)
			{
				run.m_Pool = std::make_unique<CBVM::CTbbParallelFor>(run.m_Options.m_Threads);
				run.m_Parallel = run.m_Pool->ParallelFor();
				run.m_Threads = run.m_Pool->Threads();
			}
#else
			(void)run;
#endif
		}

		bool IsIn(const std::vector<s32> &list, s32 index)
		{
			return std::find(list.begin(), list.end(), index) != list.end();
		}

		// Batches: planned on the file as it is, on every core the parallel-for has.
		void Plan(SRun &run)
		{
			run.m_Plan.Build(run.m_Bytecode.data(), u32(run.m_Bytecode.size()), run.m_File.Storage(), run.m_Options.m_Batch, run.m_ScratchIds.data(), u32(run.m_ScratchIds.size()));
			// A batched run keeps no value of a scratch register: it is left out of the
			// results (a whole-stream run writes it as usual).
			if (run.m_Plan.Batched() && run.m_Plan.ScratchRegisters() != 0)
				run.m_Dropped = run.m_Scratch;
			run.m_Kept = WrittenRegisters(run.m_Program);
			run.m_Kept.erase(std::remove_if(run.m_Kept.begin(), run.m_Kept.end(), [&](s32 index) { return IsIn(run.m_Dropped, index); }), run.m_Kept.end());
			ChooseThreads(run);
		}

		void PrintBatching(const SRun &run)
		{
#if OXVM_HAVE_TBB
			const char *noThreads = "";
#else
			const char *noThreads = run.m_Options.m_Threads != 1 ? " (built without oneTBB: one thread)" : "";
#endif
			const std::vector<u32> offsets = InstructionOffsets(run.m_Bytecode);
			const CProgramTerms terms(run.m_Program, offsets);
			const u32 batch = run.m_Plan.BatchElements();
			// (The plan gives a lone last element to the batch before it.)
			const std::string leftover = run.m_Plan.Batched() && run.m_Elements % batch == 1
											 ? fmt::format("; the one element left over joins the last batch ({} elements)", batch + 1)
											 : std::string();
			if (run.m_Plan.Batched())
				fmt::print("batching   {}, on {} thread{}{}{}\n", run.m_Plan.Reason(), run.m_Threads, run.m_Threads == 1 ? "" : "s", noThreads, leftover);
			else
				fmt::print("batching   none: {}\n", terms.Say(run.m_Plan.Reason()));
			// Prepared calls run the standard path only (the Low path has its own entry points).
			fmt::print("calls      {}\n", run.m_Path == CBVM::ExecPath_Standard ? terms.Say(run.m_Plan.PreparedReason()) : "not prepared: the Low path runs through its entry points");
			if (run.m_Dropped.empty())
				return;
			std::string names;
			for (s32 index : run.m_Dropped)
				names += (names.empty() ? "" : ", ") + run.m_Program.RegisterText(index);
			fmt::print("scratch    {}: in per-thread buffers, values not kept\n", names);
		}

		// What runs, how, and the listing: printed before the run starts.
		void PrintHeader(const SRun &run)
		{
			const SRunCommand &options = run.m_Options;
			fmt::print("program    {}{}\n", *run.m_Program.m_File, options.m_Program.empty() ? " (bundled example; see oxvm example)" : "");
			fmt::print("run        {} path{}, {} elements, {} frame{}, seed {}\n", options.m_Compare ? "standard and low" : CBVM::ExecPathName(run.m_Path),
					   options.m_Compare ? "s compared" : "", run.m_Elements, options.m_Frames, options.m_Frames == 1 ? "" : "s", options.m_Seed);
			const char *environment = std::getenv("OX_CBVM_ISA");
			CBVM::EKernelIsa named = CBVM::KernelIsa_Base;
			const bool fromEnvironment = CBVM::KernelIsaFromName(environment, named) && named == run.m_Isa;	// (an unknown or unsupported name fell back to auto)
			fmt::print("kernels    {} ({})\n", CBVM::KernelIsaName(run.m_Isa),
					   options.m_Isa != "auto" ? "--isa" : fromEnvironment ? "OX_CBVM_ISA" : "the widest this machine runs");
			PrintBatching(run);
			fmt::print("\n{} instructions, {} bytes of bytecode:\n", run.m_Program.m_Instructions.size(), run.m_Bytecode.size());
			PrintListing(run.m_Program, run.m_Bytecode);
			fmt::print("\n");
			std::fflush(stdout);
		}

		// The frames on the chosen path; false when the interpreter stopped.
		bool Execute(SRun &run, CProgress &progress)
		{
			SRunOptions options;
			options.m_Path = run.m_Path;
			options.m_Frames = run.m_Options.m_Frames;
			options.m_Progress = &progress;
			options.m_Plan = &run.m_Plan;
			options.m_Parallel = run.m_Parallel;
			CCountedAsserts::Running(run.m_Path, &run.m_File.Storage().Registers());
			const SRunTiming timing = RunFrames(run.m_Bytecode, run.m_File, options);
			CCountedAsserts::Running(run.m_Path, nullptr);
			if (!timing.m_Ok)
				fmt::print(stderr, "oxvm: error: the interpreter stopped: {}\n", timing.m_Error);
			const u32 frames = run.m_Options.m_Frames;
			if (run.m_Options.m_Quiet)
				return timing.m_Ok;
			fmt::print("ran        {} instructions x {} frame{} over {} elements\n", run.m_Program.m_Instructions.size(), frames, frames == 1 ? "" : "s", run.m_Elements);
			PrintTiming(run.m_Program, run.m_Elements, frames, timing.m_Seconds, Seconds(run.m_Started, run.m_RunStarted));
			return timing.m_Ok;
		}

		// The batched run of the standard path against its whole-stream run, word for word
		// (planned again: a plan belongs to its register file). Not profiled: the profile
		// is the comparison's.
		bool CompareBatched(SRun &run, CRegisterFile &batched)
		{
			CBVM::CBatchPlan batchedPlan;
			batchedPlan.Build(run.m_Bytecode.data(), u32(run.m_Bytecode.size()), batched.Storage(), run.m_Options.m_Batch, run.m_ScratchIds.data(), u32(run.m_ScratchIds.size()));
			SRunOptions options;
			options.m_Frames = run.m_Options.m_Frames;
			options.m_Progress = CProgress::Current();
			options.m_Phase = "compare: batched run";
			options.m_Plan = &batchedPlan;
			options.m_Parallel = run.m_Parallel;
			Profiler::CProfiler &profiler = *Profiler::MainEngineProfiler();
			profiler.SetEnabled(false);
			RunFrames(run.m_Bytecode, batched, options);
			profiler.SetEnabled(run.m_Options.m_Profile);
			const u64 differing = CompareFiles(stdout, run.m_Program, run.m_File, batched, run.m_Dropped);
			fmt::print("batched    {} batches against the whole stream: {}\n", run.m_Plan.BatchCount(),
					   differing != 0 ? fmt::format("{} DIFFERING WORDS", differing) : std::string("every word the same"));
			return differing == 0;
		}

		// --compare: both paths from the same inputs (and batched against whole-stream);
		// a difference outside the documented ones fails the run. False when the copies
		// of the register file cannot be allocated (out of memory).
		bool Compare(SRun &run)
		{
			CRegisterFile low, batched;
			std::string error;
			if (!low.CopyFrom(run.m_Program, run.m_File, error) || (run.m_Plan.Batched() && !batched.CopyFrom(run.m_Program, run.m_File, error)))
			{
				fmt::print(stderr, "oxvm: error: {}\n", error);
				return false;
			}
			const SCompareReport report = ComparePaths(stdout, run.m_Program, run.m_Bytecode, run.m_File, low, run.m_Options.m_Frames);
			const bool differs = report.m_UndocumentedWords != 0;
			fmt::print("compare    {} words compared, {} documented differences, {}\n", report.m_WordsCompared, report.m_DocumentedWords,
					   differs ? fmt::format("{} DIFFERING WORDS outside the documented differences", report.m_UndocumentedWords)
							   : std::string("no difference outside the documented ones"));
			const bool batchedSame = !run.m_Plan.Batched() || CompareBatched(run, batched);
			run.m_Failed = differs || !batchedSame;
			return true;
		}

		// The registers written: statistics, dumps, then the profile.
		void PrintResults(const SRun &run, CProgress &progress)
		{
			const SRunCommand &options = run.m_Options;
			if (!options.m_Quiet)
			{
				fmt::print("\nwritten registers{}:\n", options.m_Compare ? " (standard path)" : "");
				PrintRegisterStats(stdout, run.m_Program, run.m_File, run.m_Kept, &progress);
			}
			if (!run.m_Dumped.empty())
			{
				if (!options.m_Quiet)
					fmt::print("\n");
				DumpRegisters(stdout, run.m_Program, run.m_File, run.m_Dumped, &progress);
			}
			Profiler::CProfiler &profiler = *Profiler::MainEngineProfiler();
			if (options.m_Profile && !run.m_StandardPathRuns)
				fmt::print("\nprofile:   nothing recorded: the profiler times the standard path's entry points (_ExecBytecode, _ExecBytecode_Add .. _Div), "
						   "and the low path's are not profiler scopes (use --path standard, or --compare)\n");
			else if (options.m_Profile)
			{
				fmt::print("\nprofile{}:\n", options.m_Compare ? " (standard path: the low path's entry points are not profiler scopes)" : "");
				std::fflush(stdout);
				profiler.Print(stdout);
			}
			profiler.SetEnabled(true);
		}

		// The wall time of the command in three parts that add up: set-up, the run (or
		// the comparison) and the summary (statistics, dumps, CSV).
		void PrintTotal(const SRun &run)
		{
			if (run.m_Options.m_Quiet)
				return;
			const Clock::time_point ended = Clock::now();
			fmt::print("\ntotal      {}: setup {}, {} {}, summary {} (statistics, dumps, CSV)\n", Duration(Seconds(run.m_Started, ended)),
					   Duration(Seconds(run.m_Started, run.m_RunStarted)), run.m_Options.m_Compare ? "compare" : "run", Duration(Seconds(run.m_RunStarted, run.m_RunEnded)),
					   Duration(Seconds(run.m_RunEnded, ended)));
		}

		// The CSV file, only when the run succeeded.
		bool WriteOutputs(SRun &run, CProgress &progress)
		{
			const std::string &path = run.m_Options.m_Csv;
			if (path.empty())
				return true;
			if (run.m_Failed)
			{
				fmt::print(stderr, "oxvm: {} not written: the run failed\n", path);
				return false;
			}
			std::string error;
			const bool wrote = WriteCsv(run.m_Csv.Stream(), run.m_Program, run.m_File, run.m_Kept, run.m_Elements, run.m_Options.m_CsvBits, &progress,
										path == "-" ? std::string("to stdout") : Printable(path));
			if (!run.m_Csv.Commit(error) || !wrote)
			{
				fmt::print(stderr, "oxvm: error: {}\n", error.empty() ? fmt::format("cannot write '{}'", path) : error);
				return false;
			}
			if (!run.m_Options.m_Quiet)
				fmt::print("\ncsv        {} ({} rows)\n", path, run.m_Elements);
			return true;
		}

		// Everything after the run: results, assertion reports, outputs and times.
		int Report(SRun &run, const CCountedAsserts &asserts, CProgress &progress)
		{
			PrintResults(run, progress);
			const u64 reports = asserts.Count();
			const bool strict = run.m_Options.m_Strict;
			if (reports != 0)
				fmt::print(stderr, "oxvm: {}{}\n", asserts.Summary(), strict ? " (--strict: failing)" : "");
			run.m_Failed = run.m_Failed || (strict && reports != 0);
			const bool written = WriteOutputs(run, progress);
			PrintTotal(run);
			return run.m_Failed || !written ? Exit_RunFailed : Exit_Ok;
		}

		void StartProfiling(const SRunCommand &options)
		{
			Profiler::CProfiler &profiler = *Profiler::MainEngineProfiler();
			profiler.Reset();
			profiler.SetEnabled(options.m_Profile);
			Profiler::CHazards::CurrentThreadHazards().Reset();
		}

		EProgressMode ProgressMode(const std::string &name)
		{
			return name == "always" ? Progress_Always : name == "never" ? Progress_Never : Progress_Auto;
		}
	}

	int CommandRun(const SRunCommand &options)
	{
		SRun run(options);
		// Before anything is read: reading a large program or csv() file is a phase too.
		CProgress progress(ProgressMode(options.m_Progress));
		if (!Load(run))
			return Exit_BadInput;
		StartProfiling(options);
		CCountedAsserts asserts(options.m_Verbose);
		asserts.Attribute(run.m_Program, run.m_Bytecode);
		if (!SetUp(run, progress))
			return Exit_BadInput;
		if (!Verify(run))
			return Exit_BadInput;
		Plan(run);
		if (!options.m_Quiet)
			PrintHeader(run);
		run.m_RunStarted = Clock::now();
		if (options.m_Compare)
		{
			if (!Compare(run))
				return Exit_BadInput;
		}
		else
			run.m_Failed = !Execute(run, progress);
		run.m_RunEnded = Clock::now();
		if (!options.m_Quiet)
			PrintHazards();
		return Report(run, asserts, progress);
	}
}
