#include "runner.h"

#include <fmt/format.h>

#include <chrono>
#include <unistd.h>

namespace OxVm
{
	namespace
	{
		using Clock = std::chrono::steady_clock;

		double Since(Clock::time_point start)
		{
			return std::chrono::duration<double>(Clock::now() - start).count();
		}

		void DrawProgress(u32 done, u32 total)
		{
			constexpr u32 kWidth = 40;
			const u32 filled = u32(u64(done) * kWidth / total);
			fmt::print(stderr, "\r[{:#<{}}{:<{}}] {:3}% frame {}/{}", "", filled, "", kWidth - filled, u64(done) * 100 / total, done, total);
			std::fflush(stderr);
		}
	}

	SRunTiming RunFrames(const std::vector<u8> &bytecode, CRegisterFile &file, const SRunOptions &options)
	{
		SRunTiming timing;
		CCompilerBackendCPUProgram_VM program;
		CRuntimeCPUBindings bindings;
		SCompilerCPUDebugCtx debugCtx;
		const CBytecodeExecContext context(&program, bindings, file.Storage().Registers(), debugCtx);
		const bool terminal = options.m_Progress && isatty(STDERR_FILENO) != 0;
		bool drawing = false;
		Clock::time_point lastDraw;
		const Clock::time_point start = Clock::now();
		for (u32 frame = 0; frame < options.m_Frames; ++frame)
		{
			const CBVM::SRunResult result = CBVM::CInterpreter::Run(context, bytecode.data(), u32(bytecode.size()), options.m_Path);
			if (result.m_Status != CBVM::RunStatus_Ok)
			{
				char text[160];
				CBVM::CInterpreter::FormatError(result, text, sizeof(text));
				timing.m_Ok = false;
				timing.m_Error = fmt::format("frame {}: {}", frame, text);
				break;
			}
			// The bar appears only when the frames done so far say the run takes over a second.
			if (terminal && !drawing && Since(start) / (frame + 1) * options.m_Frames > 1.0)
				drawing = true;
			if (drawing && (Since(lastDraw) > 0.1 || frame + 1 == options.m_Frames))
			{
				DrawProgress(frame + 1, options.m_Frames);
				lastDraw = Clock::now();
			}
		}
		timing.m_Seconds = Since(start);
		if (drawing)
			fmt::print(stderr, "\n");
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
		for (u32 offset = 0; offset < bytecode.size();)
		{
			offsets.push_back(offset);
			offset += bytecode[offset] == CBVM::Opcode_MathOp ? CMetaOp_MathOp::kGenericSize : CMetaOp_MathOp::kSpecializedSize;
		}
		return offsets;
	}
}
