#include "run_report.h"

#include "assembler.h"
#include "cbvm_math_op_decoder.h"
#include "kr_profiler.h"
#include "runner.h"

#include <fmt/format.h>

namespace OxVm
{
	namespace
	{
		// The first kListed instructions: a listing of a million lines would bury the
		// results (and take longer to print than the run); disasm lists them all.
		constexpr u32 kListed = 1000;
	}

	double Seconds(Clock::time_point from, Clock::time_point to)
	{
		return std::chrono::duration<double>(to - from).count();
	}

	std::string Duration(double seconds)
	{
		return seconds >= 1.0 ? fmt::format("{:.3f} s", seconds) : seconds >= 1e-3 ? fmt::format("{:.3f} ms", seconds * 1e3) : fmt::format("{:.3f} us", seconds * 1e6);
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

	void PrintListing(const SProgram &program, const std::vector<u8> &bytecode)
	{
		CBVM::CMathOpWalker walk(bytecode.data(), u32(bytecode.size()));
		CBVM::SMathOpInstruction instruction;
		for (u32 index = 0; index < kListed && walk.Next(instruction); ++index)
			fmt::print("  {}\n", DisassembleOne(bytecode.data() + instruction.m_Offset, instruction.m_Offset, &program, index));
		if (program.m_Instructions.size() > kListed)
			fmt::print("  ... and {} more instructions (oxvm disasm lists them all)\n", program.m_Instructions.size() - kListed);
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
