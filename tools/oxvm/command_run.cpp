// oxvm run: check, assemble, allocate, run (or compare the two paths), report.

#include "assembler.h"
#include "assert_scope.h"
#include "cbvm_math_op_decoder.h"
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

#if OXVM_HAVE_TBB
#include "cbvm_kernel_isa.h"
#include "cbvm_tbb_parallel_for.h"
#endif

#include <algorithm>
#include <cstdlib>
#include <memory>

#include <fmt/format.h>

#include <chrono>

namespace OxVm
{
	namespace
	{
		using Clock = std::chrono::steady_clock;

		double Seconds(Clock::time_point from, Clock::time_point to)
		{
			return std::chrono::duration<double>(to - from).count();
		}

		// --dump or --scratch names -> registers; false after reporting an unknown one.
		bool FindRegisters(const SProgram &program, const char *option, const std::vector<std::string> &names, std::vector<s32> &registers)
		{
			for (const std::string &name : names)
			{
				s32 index = program.FindByName(name);
				for (std::size_t i = 0; index < 0 && i < program.m_Registers.size(); ++i)
					if (InlineRegisterText(program.m_Registers[i].m_Bits) == name)
						index = s32(i);
				if (index < 0)
				{
					fmt::print(stderr, "oxvm: error: {}: no register named '{}'\n", option, name);
					return false;
				}
				registers.push_back(index);
			}
			return true;
		}

		// The first kListed instructions: a listing of a million lines would bury the
		// results (and take longer to print than the run); disasm lists them all.
		constexpr u32 kListed = 1000;

		void PrintListing(const SProgram &program, const std::vector<u8> &bytecode)
		{
			CBVM::CMathOpWalker walk(bytecode.data(), u32(bytecode.size()));
			CBVM::SMathOpInstruction instruction;
			for (u32 index = 0; index < kListed && walk.Next(instruction); ++index)
				fmt::print("  {}\n", DisassembleOne(bytecode.data() + instruction.m_Offset, instruction.m_Offset, &program, index));
			if (program.m_Instructions.size() > kListed)
				fmt::print("  ... and {} more instructions (oxvm disasm lists them all)\n", program.m_Instructions.size() - kListed);
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

		// 'setup': everything before the run (reading and checking the program, CSV
		// files, allocating and initialising the registers, verifying), which at millions
		// of elements takes longer than the run itself.
		void PrintTiming(const SProgram &program, u32 elements, u32 frames, double seconds, double setup)
		{
			const double perFrame = seconds / frames;
			const u64 bytes = BytesTouchedPerFrame(program, elements);
			fmt::print("setup      {} before the run (program read and checked, registers allocated and initialised, bytecode verified)\n", Duration(setup));
			fmt::print("time       {} per frame, {} for {} frame{}\n", Duration(perFrame), Duration(seconds), frames, frames == 1 ? "" : "s");
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
		const Clock::time_point started = Clock::now();
		const bool standardPathRuns = options.m_Compare || options.m_Path != "low";
		SProgram program;
		if (!LoadProgram(options.m_Program, options.m_Elements, /*acceptBytecode*/ true, program, standardPathRuns))
			return Exit_BadInput;
		std::vector<s32> dumped, scratch;
		if (!FindRegisters(program, "--dump", options.m_Dump, dumped) || !FindRegisters(program, "--scratch", options.m_Scratch, scratch))
			return Exit_BadInput;
		std::vector<CVMRegID> scratchIds;
		for (s32 index : scratch)
			scratchIds.push_back(CVMRegID{s32(program.m_Registers[std::size_t(index)].m_Bits)});
		const u32 elements = options.m_Elements != 0 ? options.m_Elements : program.m_Stream;
		const CBVM::EExecPath path = options.m_Path == "low" ? CBVM::ExecPath_Low : CBVM::ExecPath_Standard;
		// The kernel set: checked before anything is loaded or run.
		CBVM::EKernelIsa isa = CBVM::ActiveKernelIsa();
		if (options.m_Isa != "auto")
		{
			CBVM::KernelIsaFromName(options.m_Isa.c_str(), isa);
			if (!CBVM::SetKernelIsa(isa))
			{
				fmt::print(stderr, "oxvm: error: --isa {}: this machine does not run it (the widest it runs: {})\n", options.m_Isa, CBVM::KernelIsaName(CBVM::WidestKernelIsa()));
				return Exit_BadInput;
			}
		}
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
		CCountedAsserts asserts(options.m_Verbose);
		asserts.Attribute(program, bytecode);
		CProgress progress(options.m_Progress == "always" ? Progress_Always : options.m_Progress == "never" ? Progress_Never : Progress_Auto);

		CRegisterFile file;
		std::string error;
		progress.Begin("set-up: initialising registers", false);
		const bool built = file.Build(program, elements, options.m_Seed, error, [&progress](u64 done, u64 total) { progress.Update(done, total); });
		progress.End();
		if (!built)
		{
			fmt::print(stderr, "oxvm: error: {}\n", error);
			return Exit_RunFailed;
		}
		// The CSV values are in the registers now: not held twice through the run.
		for (SRegisterDecl &decl : program.m_Registers)
			if (decl.m_Init != nullptr)
				std::vector<u32>().swap(decl.m_Init->m_CsvWords);
		// The VM's own verifier, against the register file the program runs on.
		if (!VerifyForRun(program, bytecode, file.Storage(), standardPathRuns))
			return Exit_BadInput;
		fmt::print("program    {}{}\n", *program.m_File, options.m_Program.empty() ? " (bundled example; see oxvm example)" : "");
		fmt::print("run        {} path{}, {} elements, {} frame{}, seed {}\n", options.m_Compare ? "standard and low" : CBVM::ExecPathName(path),
				   options.m_Compare ? "s compared" : "", elements, options.m_Frames, options.m_Frames == 1 ? "" : "s", options.m_Seed);
		const char *environment = std::getenv("OX_CBVM_ISA");
		CBVM::EKernelIsa named = CBVM::KernelIsa_SSE2;
		const bool fromEnvironment = CBVM::KernelIsaFromName(environment, named) && named == isa;	// (an unknown or unsupported name fell back to auto)
		fmt::print("kernels    {} ({})\n", CBVM::KernelIsaName(isa),
				   options.m_Isa != "auto" ? "--isa" : fromEnvironment ? "OX_CBVM_ISA" : "the widest this machine runs");
		// Batches: planned on the file as it is, on every core the parallel-for has.
		CBVM::CBatchPlan plan;
		plan.Build(bytecode.data(), u32(bytecode.size()), file.Storage(), options.m_Batch, scratchIds.data(), u32(scratchIds.size()));
		// A batched run keeps no value of a scratch register: it is left out of the
		// results (a whole-stream run writes it as usual).
		const std::vector<s32> dropped = plan.Batched() && plan.ScratchRegisters() != 0 ? scratch : std::vector<s32>();
		for (s32 index : dumped)
			if (std::find(dropped.begin(), dropped.end(), index) != dropped.end())
			{
				fmt::print(stderr, "oxvm: error: --dump: '{}' is a --scratch register: a batched run does not keep its values\n", program.RegisterText(index));
				return Exit_BadInput;
			}
		std::vector<s32> kept = WrittenRegisters(program);
		kept.erase(std::remove_if(kept.begin(), kept.end(), [&](s32 index) { return std::find(dropped.begin(), dropped.end(), index) != dropped.end(); }), kept.end());
		CBVM::SParallelFor parallel;
		u32 threads = 1;
#if OXVM_HAVE_TBB
		std::unique_ptr<CBVM::CTbbParallelFor> pool;
		if (plan.Batched() && options.m_Threads != 1)
		{
			pool = std::make_unique<CBVM::CTbbParallelFor>(options.m_Threads);
			parallel = pool->ParallelFor();
			threads = pool->Threads();
		}
#else
		const char *noThreads = options.m_Threads != 1 ? " (built without oneTBB: one thread)" : "";
#endif
		if (plan.Batched())
			fmt::print("batching   {}, on {} thread{}{}\n", plan.Reason(), threads, threads == 1 ? "" : "s",
#if OXVM_HAVE_TBB
					   ""
#else
					   noThreads
#endif
			);
		else
			fmt::print("batching   none: {}\n", plan.Reason());
		// Prepared calls run the standard path only (the Low path has its own entry points).
		fmt::print("calls      {}\n", path == CBVM::ExecPath_Standard ? plan.PreparedReason() : "not prepared: the Low path runs through its entry points");
		if (!dropped.empty())
		{
			std::string names;
			for (s32 index : dropped)
				names += (names.empty() ? "" : ", ") + program.RegisterText(index);
			fmt::print("scratch    {}: in per-thread buffers, values not kept\n", names);
		}
		fmt::print("\n{} instructions, {} bytes of bytecode:\n", program.m_Instructions.size(), bytecode.size());
		PrintListing(program, bytecode);
		fmt::print("\n");
		std::fflush(stdout);

		bool failed = false;
		const Clock::time_point runStarted = Clock::now();
		if (options.m_Compare)
		{
			CRegisterFile low, batched;
			if (!low.CopyFrom(program, file, error) || (plan.Batched() && !batched.CopyFrom(program, file, error)))
			{
				fmt::print(stderr, "oxvm: error: {}\n", error);
				return Exit_RunFailed;
			}
			const SCompareReport report = ComparePaths(stdout, program, bytecode, file, low, options.m_Frames);
			failed = report.m_UndocumentedWords != 0;
			fmt::print("compare    {} words compared, {} documented differences, {}\n", report.m_WordsCompared, report.m_DocumentedWords,
					   failed ? fmt::format("{} DIFFERING WORDS outside the documented differences", report.m_UndocumentedWords)
							  : std::string("no difference outside the documented ones"));
			// The batched run of the standard path against its whole-stream run, word for word
			// (planned again: a plan belongs to its register file). Not profiled: the profile
			// is the comparison's.
			if (plan.Batched())
			{
				CBVM::CBatchPlan batchedPlan;
				batchedPlan.Build(bytecode.data(), u32(bytecode.size()), batched.Storage(), options.m_Batch, scratchIds.data(), u32(scratchIds.size()));
				SRunOptions run;
				run.m_Frames = options.m_Frames;
				run.m_Plan = &batchedPlan;
				run.m_Parallel = parallel;
				profiler.SetEnabled(false);
				RunFrames(bytecode, batched, run);
				profiler.SetEnabled(options.m_Profile);
				const u64 differing = CompareFiles(stdout, program, file, batched, dropped);
				failed = failed || differing != 0;
				fmt::print("batched    {} batches against the whole stream: {}\n", plan.BatchCount(),
						   differing != 0 ? fmt::format("{} DIFFERING WORDS", differing) : std::string("every word the same"));
			}
		}
		else
		{
			SRunOptions run;
			run.m_Path = path;
			run.m_Frames = options.m_Frames;
			run.m_Progress = &progress;
			run.m_Plan = &plan;
			run.m_Parallel = parallel;
			CCountedAsserts::Running(path, &file.Storage().Registers());
			const SRunTiming timing = RunFrames(bytecode, file, run);
			CCountedAsserts::Running(path, nullptr);
			if (!timing.m_Ok)
			{
				fmt::print(stderr, "oxvm: error: the interpreter stopped: {}\n", timing.m_Error);
				failed = true;
			}
			fmt::print("ran        {} instructions x {} frame{} over {} elements\n", program.m_Instructions.size(), options.m_Frames, options.m_Frames == 1 ? "" : "s", elements);
			PrintTiming(program, elements, options.m_Frames, timing.m_Seconds, Seconds(started, runStarted));
		}
		const Clock::time_point runEnded = Clock::now();
		PrintHazards();

		fmt::print("\nwritten registers{}:\n", options.m_Compare ? " (standard path)" : "");
		PrintRegisterStats(stdout, program, file, kept);
		if (!dumped.empty())
		{
			fmt::print("\n");
			DumpRegisters(stdout, program, file, dumped);
		}
		if (options.m_Profile && !standardPathRuns)
			fmt::print("\nprofile:   nothing recorded: the profiler times the standard path's entry points (_ExecBytecode, _ExecBytecode_Add .. _Div), "
					   "and the low path's are not profiler scopes (use --path standard, or --compare)\n");
		else if (options.m_Profile)
		{
			fmt::print("\nprofile{}:\n", options.m_Compare ? " (standard path: the low path's entry points are not profiler scopes)" : "");
			std::fflush(stdout);
			profiler.Print(stdout);
		}
		profiler.SetEnabled(true);

		const u64 reports = asserts.Count();
		if (reports != 0)
			fmt::print(stderr, "oxvm: {} VM assertion report{} during the run{}\n", reports, reports == 1 ? "" : "s", options.m_Strict ? " (--strict: failing)" : "");
		failed = failed || (options.m_Strict && reports != 0);
		// The wall time of the command in three parts that add up: set-up, the run (or
		// the comparison) and the summary (statistics, dumps, CSV).
		auto printTotal = [&]() {
			const Clock::time_point ended = Clock::now();
			fmt::print("\ntotal      {}: setup {}, {} {}, summary {} (statistics, dumps, CSV)\n", Duration(Seconds(started, ended)), Duration(Seconds(started, runStarted)),
					   options.m_Compare ? "compare" : "run", Duration(Seconds(runStarted, runEnded)), Duration(Seconds(runEnded, ended)));
		};
		if (failed)
		{
			if (!options.m_Csv.empty())
				fmt::print(stderr, "oxvm: {} not written: the run failed\n", options.m_Csv);
			printTotal();
			return Exit_RunFailed;
		}
		if (!options.m_Csv.empty())
		{
			const bool wrote = WriteCsv(csv.Stream(), program, file, kept, elements, options.m_CsvBits);
			if (!csv.Commit(error) || !wrote)
			{
				fmt::print(stderr, "oxvm: error: {}\n", error.empty() ? fmt::format("cannot write '{}'", options.m_Csv) : error);
				printTotal();
				return Exit_RunFailed;
			}
			fmt::print("\ncsv        {} ({} rows)\n", options.m_Csv, elements);
		}
		printTotal();
		return Exit_Ok;
	}
}
