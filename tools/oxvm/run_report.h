#pragma once
// What 'oxvm run' prints around a run: the listing, the times and the hazard counters.

#include "program.h"

#include <chrono>
#include <string>
#include <vector>

namespace OxVm
{
	using Clock = std::chrono::steady_clock;

	double Seconds(Clock::time_point from, Clock::time_point to);
	// "61.347 ms", "2.601 s", "12.000 us".
	std::string Duration(double seconds);
	// "1.23 GB" (powers of 1000).
	std::string Bytes(double bytes);

	// The first instructions of the program (a longer listing says how many more).
	void PrintListing(const SProgram &program, const std::vector<u8> &bytecode);
	// 'setup': seconds before the run; 'seconds': all frames.
	void PrintTiming(const SProgram &program, u32 elements, u32 frames, double seconds, double setup);
	// The slow-path counters of this thread, when a slow path was taken.
	void PrintHazards();
}
