#pragma once
// Runs assembled bytecode through the VM's interpreter, frame after frame, and
// measures it; the progress bar of long set-ups and runs.

#include "cbvm_batch_runner.h"
#include "cbvm_interpreter.h"
#include "program.h"
#include "register_file.h"

#include <chrono>
#include <string>
#include <vector>

namespace OxVm
{
	enum EProgressMode : u8
	{
		Progress_Auto,		// on a terminal, once a phase is seen to take over a second
		Progress_Always,	// from the start of every phase, wherever stderr goes
		Progress_Never,
	};

	// The progress bar on stderr, one phase after the other:
	//   [################                        ]  40% set-up: initialising registers
	//   [########################################] 100% run: frame 10/10
	// A phase that drew its bar ends its line, so that what the run prints next starts on
	// a line of its own. Update is cheap while nothing is drawn (one clock read), and
	// draws at most ten times a second.
	class CProgress
	{
	public:
		explicit CProgress(EProgressMode mode);
		~CProgress();
		CProgress(const CProgress &) = delete;
		CProgress &operator=(const CProgress &) = delete;

		// Starts a phase named 'label' ("set-up: initialising registers") of 'total' units
		// (0: not known yet); 'frames': the bar counts "frame i/n" (units are frames),
		// otherwise it shows only the percentage.
		void Begin(const char *label, bool frames, u64 total = 0);
		void Update(u64 done, u64 total);
		// Ends the phase (its bar, if drawn, keeps its last state on its own line).
		void End();

	private:
		using Clock = std::chrono::steady_clock;

		void _Draw();

		bool m_Enabled = false;
		bool m_Always = false;
		bool m_Drawing = false;
		bool m_Frames = false;
		const char *m_Label = "";
		u64 m_Done = 0;
		u64 m_Total = 0;
		u64 m_DrawnDone = ~u64(0);	// m_Done when the bar was last drawn
		Clock::time_point m_Start;
		Clock::time_point m_LastDraw;
	};

	struct SRunOptions
	{
		CBVM::EExecPath m_Path = CBVM::ExecPath_Standard;
		u32 m_Frames = 1;
		CProgress *m_Progress = nullptr;	// may show a progress bar (phase "run")
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
