#pragma once
// Runs assembled bytecode through the VM's interpreter, frame after frame, and
// measures it.

#include "cbvm_batch_runner.h"
#include "cbvm_interpreter.h"
#include "program.h"
#include "progress.h"
#include "register_file.h"

#include <chrono>
#include <string>
#include <vector>

namespace OxVm
{
	struct SRunOptions
	{
		CBVM::EExecPath m_Path = CBVM::ExecPath_Standard;
		u32 m_Frames = 1;
		CProgress *m_Progress = nullptr;	// may show a progress bar (phase m_Phase, in frames)
		const char *m_Phase = "run";
		// Batches (CBatchRunner; whole-stream when the plan is not batched); null: the
		// interpreter over the whole stream.
		const CBVM::CBatchPlan *m_Plan = nullptr;
		CBVM::SParallelFor m_Parallel;
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

	// Instruction start offsets in the program's bytecode, one per instruction (up to the
	// first one that cannot be decoded: none, for the tool's own assembly).
	std::vector<u32> InstructionOffsets(const std::vector<u8> &bytecode);
}
