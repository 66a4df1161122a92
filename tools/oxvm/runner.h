#pragma once
// Runs assembled bytecode through the VM's interpreter, frame after frame, and
// measures it.

#include "cbvm_interpreter.h"
#include "program.h"
#include "register_file.h"

#include <string>
#include <vector>

namespace OxVm
{
	struct SRunOptions
	{
		CBVM::EExecPath m_Path = CBVM::ExecPath_Standard;
		u32 m_Frames = 1;
		bool m_Progress = false;	// may show a progress bar on stderr (when the run is long)
	};

	struct SRunTiming
	{
		double m_Seconds = 0;		// all frames
		bool m_Ok = true;
		std::string m_Error;		// the interpreter's message when it stopped early
	};

	SRunTiming RunFrames(const std::vector<u8> &bytecode, CRegisterFile &file, const SRunOptions &options);

	// Bytes one frame reads and writes: per instruction, the evaluated elements times
	// the destination's element size plus each source's.
	u64 BytesTouchedPerFrame(const SProgram &program, u32 elements);

	// Instruction start offsets in the program's bytecode, one per instruction.
	std::vector<u32> InstructionOffsets(const std::vector<u8> &bytecode);
}
