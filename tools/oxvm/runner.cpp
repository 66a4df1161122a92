#include "runner.h"

#include "cbvm_math_op_decoder.h"

#include <fmt/format.h>

namespace OxVm
{
	namespace
	{
		using Clock = std::chrono::steady_clock;

		double Since(Clock::time_point start)
		{
			return std::chrono::duration<double>(Clock::now() - start).count();
		}
	}

	SRunTiming RunFrames(const std::vector<u8> &bytecode, CRegisterFile &file, const SRunOptions &options)
	{
		SRunTiming timing;
		CCompilerBackendCPUProgram_VM program;
		CRuntimeCPUBindings bindings;
		SCompilerCPUDebugCtx debugCtx;
		const CBytecodeExecContext context(&program, bindings, file.Storage().Registers(), debugCtx);
		if (options.m_Progress != nullptr)
			options.m_Progress->Begin(options.m_Phase, "frame", options.m_Frames);
		const Clock::time_point start = Clock::now();
		for (u32 frame = 0; frame < options.m_Frames; ++frame)
		{
			CBVM::SBatchRunResult run;
			if (options.m_Plan != nullptr)
				run = CBVM::CBatchRunner::Run(*options.m_Plan, context, options.m_Path, options.m_Parallel);
			else
				run.m_Run = CBVM::CInterpreter::Run(context, bytecode.data(), u32(bytecode.size()), options.m_Path);
			if (run.m_Run.m_Status != CBVM::RunStatus_Ok)
			{
				char text[160];
				CBVM::CInterpreter::FormatError(run.m_Run, text, sizeof(text));
				timing.m_Ok = false;
				timing.m_Error = fmt::format("frame {}: {}", frame, text);
				break;
			}
			if (run.m_Status != CBVM::BatchRun_Ok)
			{
				timing.m_Ok = false;
				timing.m_Error = fmt::format("frame {}: {}", frame, CBVM::BatchRunStatusName(run.m_Status));
				break;
			}
			if (options.m_Progress != nullptr)
				options.m_Progress->Update(frame + 1, options.m_Frames);
		}
		timing.m_Seconds = Since(start);
		if (options.m_Progress != nullptr)
			options.m_Progress->End();
		return timing;
	}

	u64 BytesTouchedPerFrame(const SProgram &program, u32 elements)
	{
		u64 bytes = 0;
		for (const SInstruction &instruction : program.m_Instructions)
		{
			const SRegisterDecl &dst = program.m_Registers[std::size_t(instruction.m_Dst.m_Register)];
			const u64 evalCount = IsPerElement(dst.Bank()) ? elements : 1;
			u64 perElement = ElementSize(dst.Type());
			for (u32 i = 0; i < instruction.m_SourceCount; ++i)
				perElement += ElementSize(program.m_Registers[std::size_t(instruction.m_Src[i].m_Register)].Type());
			bytes += evalCount * perElement;
		}
		return bytes;
	}

	std::vector<u32> InstructionOffsets(const std::vector<u8> &bytecode)
	{
		std::vector<u32> offsets;
		CBVM::CMathOpWalker walk(bytecode.data(), u32(bytecode.size()));
		for (CBVM::SMathOpInstruction instruction; walk.Next(instruction);)
			offsets.push_back(instruction.m_Offset);
		return offsets;
	}
}
