#include "program_loader.h"

#include "assembler.h"
#include "bundled_example.h"
#include "source_file.h"

#include <fmt/format.h>

namespace OxVm
{
	namespace
	{
		// Bytecode -> the program of its disassembly: inline registers (zero-filled), no
		// stream size. Messages about it name the listing's lines ('oxvm disasm' prints it).
		bool LoadBytecode(const std::string &bytes, const std::string &name, u32 elements, SProgram &program, bool standardPathRuns)
		{
			if (elements == 0)
			{
				fmt::print(stderr, "{}: error: bytecode carries no stream size: give --elements N\n", Printable(name));
				return false;
			}
			std::string error;
			if (!ProgramFromBytecode(reinterpret_cast<const u8 *>(bytes.data()), u32(bytes.size()), name + " (listed by oxvm disasm)", program, error))
			{
				fmt::print(stderr, "{}: error: {}\n", Printable(name), error);
				return false;
			}
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
		if (ReadFile(path, kMaxInputBytes, bytes, error))
			return true;
		fmt::print(stderr, "oxvm: error: {}\n", error);
		return false;
	}

	bool LoadProgram(const std::string &path, u32 elements, bool acceptBytecode, SProgram &program, bool standardPathRuns, EInputFormat format)
	{
		if (path.empty() && format == Input_Bytecode)
		{
			fmt::print(stderr, "oxvm: error: --input bytecode: the bundled example is a program text (give a bytecode file)\n");
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
		if (format == Input_Text || bytes.empty() || LooksLikeText(bytes))
			return LoadProgramText(std::move(bytes), name, elements, program, standardPathRuns);
		if (acceptBytecode)
			return LoadBytecode(bytes, name, elements, program, standardPathRuns);
		fmt::print(stderr, "{}: error: this is bytecode (or not text); a program is expected here\n", Printable(name));
		return false;
	}
}
