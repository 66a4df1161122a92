#pragma once
// The oxvm commands, as main.cpp's command line hands them over. Each returns the
// process exit status: 0 done, 1 the run failed, 2 bad input (nothing run or written).

#include "kr_base_types.h"

#include <string>
#include <vector>

namespace OxVm
{
	enum EExitStatus : int
	{
		Exit_Ok = 0,
		Exit_RunFailed = 1,		// a difference between paths, an assertion under --strict, an output not written
		Exit_BadInput = 2,		// a program or bytecode error, an unreadable file, a bad option
	};

	enum EInputFormat : Orvex::u8
	{
		Input_Auto,
		Input_Text,
		Input_Bytecode,
	};

	int CommandAsm(const std::string &programPath, const std::string &outputPath);
	// 'elements' 0: the program's stream size.
	int CommandDisasm(const std::string &path, EInputFormat format, Orvex::u32 elements);
	int CommandExample();

	struct SRunCommand
	{
		std::string m_Program;			// empty: the bundled example
		EInputFormat m_Format = Input_Auto;	// what the program file is (--input)
		std::string m_Inputs;			// a bytecode run's declarations and initialisers: a program text (--inputs)
		Orvex::u32 m_Elements = 0;		// 0: the program's stream size
		Orvex::u32 m_Frames = 1;
		std::string m_Path = "standard";
		std::string m_Isa = "auto";		// the standard path's kernel set: auto (the library's choice), sse2, avx2, avx512
		Orvex::u32 m_Seed = 1;
		std::vector<std::string> m_Dump;
		std::vector<std::string> m_Scratch;	// temporaries a batched run keeps in per-thread buffers (not kept)
		std::string m_Csv;
		bool m_CsvBits = false;			// floats in the CSV as their exact words (0x........)
		bool m_Profile = false;
		bool m_Compare = false;
		bool m_Strict = false;
		Orvex::u32 m_Batch = ~0u;		// elements per batch; ~0u: the plan's; 0: whole stream
		Orvex::u32 m_Threads = 0;		// 0: every core
		bool m_ThreadsGiven = false;	// --threads was on the command line (a warning when it does nothing)
		bool m_Verbose = false;			// VM assertion reports also name the VM's check and its source line
		std::string m_Progress = "auto";	// progress bar: auto (a terminal, when long), always, never
		bool m_Quiet = false;			// only what was asked for on standard output (--csv -, --dump): no listing, no statistics
	};

	int CommandRun(const SRunCommand &options);
}
