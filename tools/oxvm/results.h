#pragma once
// What a run shows of the registers it wrote: statistics, full dumps and a CSV file.

#include "program.h"
#include "progress.h"
#include "register_file.h"

#include <cstdio>
#include <string>
#include <string_view>
#include <vector>

namespace OxVm
{
	// Destinations of the program's instructions, in order of first write.
	std::vector<s32> WrittenRegisters(const SProgram &program);

	// Per register: its first and last few elements, and per component min, max and
	// mean (floats: NaNs counted apart; bools: how many are true), and the FNV-1a
	// checksum of its bytes.
	// 'progress' (may be null) shows the phase "summary: statistics", in words.
	void PrintRegisterStats(std::FILE *out, const SProgram &program, const CRegisterFile &file, const std::vector<s32> &registers, CProgress *progress = nullptr);

	// Every element of each register, one line per element; 'progress' (may be null)
	// shows the phase "summary: dumps", in elements.
	void DumpRegisters(std::FILE *out, const SProgram &program, const CRegisterFile &file, const std::vector<s32> &registers, CProgress *progress = nullptr);

	// One row per element of the stream, a column per component of each register
	// (name, or name.x name.y ...); a Constant or Normal register repeats its value.
	// Floats are numbers any CSV reader takes (nan, inf, -inf included); with
	// 'floatBits' they are their exact words, 0x........, as csv() reads them back.
	// Written to 'out' (an output opened by COutputFile); false when a write failed.
	// 'progress' (may be null) shows the phase "summary: writing PATH" ('name'), in rows.
	bool WriteCsv(std::FILE *out, const SProgram &program, const CRegisterFile &file, const std::vector<s32> &registers, u32 elements, bool floatBits = false,
				  CProgress *progress = nullptr, std::string_view name = "CSV");
}
