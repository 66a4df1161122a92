#include "compare.h"

#include "assert_scope.h"
#include "cbvm_interpreter.h"
#include "cbvm_path_difference.h"
#include "numbers.h"
#include "progress.h"
#include "runner.h"

#include <fmt/format.h>

#include <algorithm>

#include <cstring>
#include <map>
#include <optional>

namespace OxVm
{
	using Compiler::IR::SOp_MathOp;

	namespace
	{
		constexpr u32 kListed = 20;	// undocumented differences printed one by one

		bool IsNan(u32 word)
		{
			return (word & 0x7F800000u) == 0x7F800000u && (word & 0x007FFFFFu) != 0;
		}

		struct SDocumented
		{
			CBVM::EPathDifference m_Kind = CBVM::PathDifference_None;
			u64 m_Words = 0;
			u32 m_Frames = 0;
		};
	}

	u64 CompareFiles(std::FILE *out, const SProgram &program, const CRegisterFile &whole, const CRegisterFile &batched, const std::vector<s32> &skipped)
	{
		u64 differing = 0;
		for (std::size_t r = 0; r < program.m_Registers.size(); ++r)
		{
			const s32 index = s32(r);
			if (std::find(skipped.begin(), skipped.end(), index) != skipped.end())
				continue;
			const STypeInfo type = TypeInfo(program.m_Registers[r].Type());
			const u32 *a = whole.Words(program, index);
			const u32 *b = batched.Words(program, index);
			for (u32 w = 0, count = whole.WordCount(program, index); w < count; ++w)
				if (a[w] != b[w] && differing++ < kListed)
					fmt::print(out, "  BATCHED DIFFERENCE: register {} element {} component {}: whole stream {:#010x} ({}), batched {:#010x} ({})\n", program.RegisterText(index),
							   w / type.m_Components, w % type.m_Components, a[w], FormatWord(a[w], type.m_Kind), b[w], FormatWord(b[w], type.m_Kind));
		}
		if (differing > kListed)
			fmt::print(out, "  ... and {} more differing words\n", differing - kListed);
		return differing;
	}

	SCompareReport ComparePaths(std::FILE *out, const SProgram &program, const std::vector<u8> &bytecode, CRegisterFile &standard, CRegisterFile &low, u32 frames)
	{
		SCompareReport report;
		CCompilerBackendCPUProgram_VM vmProgram;
		CRuntimeCPUBindings bindings;
		SCompilerCPUDebugCtx debugCtx;
		const CBytecodeExecContext standardContext(&vmProgram, bindings, standard.Storage().Registers(), debugCtx);
		const CBytecodeExecContext lowContext(&vmProgram, bindings, low.Storage().Registers(), debugCtx);
		const std::vector<u32> offsets = InstructionOffsets(bytecode);
		std::map<u32, SDocumented> documented;	// by instruction index

		// Ended before the summary lines below; a listed difference takes the bar off the
		// terminal first, when 'out' may share it.
		std::optional<CProgressPhase> phase(std::in_place, "compare: both paths", "frame", frames);
		CProgress *const progress = out == stdout ? CProgress::Current() : nullptr;
		for (u32 frame = 0; frame < frames; ++frame)
		{
			for (std::size_t i = 0; i < offsets.size(); ++i)
			{
				const u8 *instruction = bytecode.data() + offsets[i];
				const SInstruction &source = program.m_Instructions[i];
				// Classified before running: the instruction may overwrite its own operands.
				const CBVM::EPathDifference kind = CBVM::StandardPathDifference(standard.Storage().Registers(), instruction);
				// As CInterpreter::Run does: a VM assertion report names this instruction.
				standard.Storage().Registers().m_InstructionPointer = offsets[i];
				low.Storage().Registers().m_InstructionPointer = offsets[i];
				CCountedAsserts::Running(CBVM::ExecPath_Standard, &standard.Storage().Registers());
				CBVM::CInterpreter::Entry(CBVM::ExecPath_Standard, instruction[0]).m_Exec(standardContext, instruction);
				CCountedAsserts::Running(CBVM::ExecPath_Low, &low.Storage().Registers());
				CBVM::CInterpreter::Entry(CBVM::ExecPath_Low, instruction[0]).m_Exec(lowContext, instruction);
				CCountedAsserts::Running(CBVM::ExecPath_Standard, nullptr);

				const s32 dst = source.m_Dst.m_Register;
				const EElementKind valueKind = TypeInfo(program.m_Registers[std::size_t(dst)].Type()).m_Kind;
				const u32 components = TypeInfo(program.m_Registers[std::size_t(dst)].Type()).m_Components;
				const bool anyNan = valueKind == ElementKind_Float && (source.m_Op == SOp_MathOp::Op_Add || source.m_Op == SOp_MathOp::Op_Mul);
				u32 *a = standard.Words(program, dst);
				u32 *b = low.Words(program, dst);
				const u32 count = standard.WordCount(program, dst);
				report.m_WordsCompared += count;
				u64 differing = 0;
				for (u32 w = 0; w < count; ++w)
				{
					if (a[w] == b[w] || (anyNan && IsNan(a[w]) && IsNan(b[w])))
						continue;
					++differing;
					if (kind != CBVM::PathDifference_None)
						continue;
					if (report.m_UndocumentedWords < kListed && progress != nullptr)
						progress->Clear();
					if (report.m_UndocumentedWords++ < kListed)
						fmt::print(out, "  DIFFERENCE frame {} instruction {} (line {}): register {} element {} component {}: standard {:#010x} ({}), low {:#010x} ({})\n", frame, i,
								   source.m_Line, program.RegisterText(dst), w / components, w % components, a[w], FormatWord(a[w], valueKind), b[w], FormatWord(b[w], valueKind));
				}
				if (differing == 0)
					continue;
				if (kind != CBVM::PathDifference_None)
				{
					SDocumented &entry = documented[u32(i)];
					entry.m_Kind = kind;
					entry.m_Words += differing;
					++entry.m_Frames;
					report.m_DocumentedWords += differing;
				}
				// Both files go on from the standard result, so a difference shows where it starts.
				std::memcpy(b, a, std::size_t(count) * 4);
			}
			phase->Update(u64(frame) + 1, frames);
		}
		phase.reset();
		if (report.m_UndocumentedWords > kListed)
			fmt::print(out, "  ... and {} more differing words\n", report.m_UndocumentedWords - kListed);
		for (const auto &[index, entry] : documented)
			fmt::print(out, "  documented: instruction {} (line {}) `{}`: {}: {} words in {} frame{}\n", index, program.m_Instructions[index].m_Line,
					   SOp_MathOp::OperatorTraits(program.m_Instructions[index].m_Op).m_Name, CBVM::PathDifferenceName(entry.m_Kind), entry.m_Words, entry.m_Frames,
					   entry.m_Frames == 1 ? "" : "s");
		return report;
	}
}
