#pragma once
// --compare: the standard and the Low path side by side, instruction by instruction,
// each on its own copy of the register file.

#include "program.h"
#include "register_file.h"

#include <cstdio>
#include <vector>

namespace OxVm
{
	struct SCompareReport
	{
		u64 m_WordsCompared = 0;
		u64 m_DocumentedWords = 0;		// differences the standard path makes by design
		u64 m_UndocumentedWords = 0;	// anything else: a bug
	};

	// Runs 'frames' frames. After each instruction the destination register's words are
	// compared. A difference on an instruction that StandardPathDifference classifies
	// is documented; its standard result is then copied into the Low file so that later
	// instructions start from the same values. A float add or mul whose two results are
	// both NaN is equal (which NaN comes out is not defined). Every other difference is
	// listed (register, element, component, both values) on 'out'.
	SCompareReport ComparePaths(std::FILE *out, const SProgram &program, const std::vector<u8> &bytecode, CRegisterFile &standard, CRegisterFile &low, u32 frames);

	// Every word of every register of two files of the program (a whole-stream and a
	// batched run): the differing ones listed (the first few), their count returned.
	u64 CompareFiles(std::FILE *out, const SProgram &program, const CRegisterFile &whole, const CRegisterFile &batched, const std::vector<s32> &skipped);
}
