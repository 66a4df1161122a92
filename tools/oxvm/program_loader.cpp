#include "program_loader.h"

#include "assembler.h"
#include "bundled_example.h"
#include "run_inputs.h"
#include "source_file.h"

#include <fmt/format.h>

namespace OxVm
{
	namespace
	{
		// Bytecode -> the program of its disassembly: inline registers (zero-filled), no
		// stream size. Messages about it name the listing's lines ('oxvm disasm' prints it).
		// 'program' may hold declarations already (--inputs: ReadInputDeclarations), and
		// then its stream size and its folder (where its csv() files are).
		bool LoadBytecode(const std::string &bytes, const std::string &name, u32 elements, SProgram &program, bool standardPathRuns)
		{
			elements = elements != 0 ? elements : program.m_Stream;
			if (elements == 0)
			{
				fmt::print(stderr, "{}: error: bytecode carries no stream size: give --elements N{}\n", Printable(name),
						   program.m_DeclarationsFile != nullptr ? " (the --inputs program has no 'stream' line)" : " (or --inputs PROGRAM)");
				return false;
			}
			const std::string folder = program.m_Folder;
			std::string error;
			if (!ProgramFromBytecode(reinterpret_cast<const u8 *>(bytes.data()), u32(bytes.size()), name + " (listed by oxvm disasm)", program, error))
			{
				fmt::print(stderr, "{}: error: {}{}\n", Printable(name), error, program.m_DeclarationsFile != nullptr ? " (with the --inputs declarations)" : "");
				return false;
			}
			if (program.m_DeclarationsFile != nullptr)
				program.m_Folder = folder;
			CDiagnostics diagnostics;
			if (!CheckProgram(program, elements, diagnostics, standardPathRuns))
				return false;
			// The program runs as the assembler writes it: bytes it never writes (a non-zero
			// unused operand, say) are refused rather than silently changed.
			if (!AssemblesTo(program, reinterpret_cast<const u8 *>(bytes.data()), u32(bytes.size())))
			{
				fmt::print(stderr, "{}: error: this bytecode has encodings the assembler never writes (see oxvm disasm); run the program text instead\n", Printable(name));
				return false;
			}
			return true;
		}
	}

	bool LoadProgramText(std::string text, const std::string &name, u32 elements, SProgram &program, bool standardPathRuns)
	{
		SkipByteOrderMark(text);
		if (text.find_first_not_of(" \t\r\n") == std::string::npos)
		{
			fmt::print(stderr, "{}: error: empty program (a program has a 'stream' line and instructions)\n", Printable(name));
			return false;
		}
		CDiagnostics diagnostics;
		const bool parsed = ParseProgram(text, name, program, diagnostics);
		std::string().swap(text);	// the program holds what it needs; the text may be large
		return CheckProgram(program, elements, diagnostics, standardPathRuns) && parsed;
	}

	bool ReadInput(const std::string &path, std::string &bytes)
	{
		std::string error;
		// A device or pipe may never end (/dev/zero): when its start is neither text nor a
		// first instruction, the rest cannot make it a program, so it is not read.
		const auto judge = [&path](std::string_view start) {
			if (LooksLikeText(std::string(start)))
				return std::string();
			const std::string problem = FirstInstructionProblem(reinterpret_cast<const u8 *>(start.data()), u32(start.size()));
			return problem.empty() ? problem
								   : fmt::format("{} is neither a program text (it has control bytes) nor bytecode (offset 0: {}); refused after its first {} KiB",
												 Shown(InputName(path)), problem, start.size() >> 10);
		};
		if (ReadFile(path, kMaxInputBytes, bytes, error, judge))
			return true;
		fmt::print(stderr, "oxvm: error: {}\n", error);
		return false;
	}

	bool LoadProgram(const std::string &path, u32 elements, bool acceptBytecode, SProgram &program, bool standardPathRuns, EInputFormat format,
					 const std::string &inputs)
	{
		if (!inputs.empty() && !ReadInputDeclarations(inputs, program))
			return false;
		if (path.empty() && (format == Input_Bytecode || !inputs.empty()))
		{
			fmt::print(stderr, "oxvm: error: {}: the bundled example is a program text (give a bytecode file)\n", inputs.empty() ? "--input bytecode" : "--inputs");
			return false;
		}
		if (path.empty())
			return LoadProgramText(kBundledExampleText, kBundledExampleName, elements, program, standardPathRuns);
		std::string bytes;
		if (!ReadInput(path, bytes))
			return false;
		const std::string name = InputName(path);
		if (format == Input_Bytecode && !bytes.empty())
			return LoadBytecode(bytes, name, elements, program, standardPathRuns);
		const bool text = format == Input_Text || (format == Input_Auto && (bytes.empty() || LooksLikeText(bytes)));
		if (text && !inputs.empty())
		{
			fmt::print(stderr, "{}: error: --inputs is for bytecode: a program text declares its own registers\n", Printable(name));
			return false;
		}
		if (text)
			return LoadProgramText(std::move(bytes), name, elements, program, standardPathRuns);
		if (acceptBytecode)
			return LoadBytecode(bytes, name, elements, program, standardPathRuns);
		fmt::print(stderr, "{}: error: this is bytecode (or not text); a program is expected here\n", Printable(name));
		return false;
	}
}
