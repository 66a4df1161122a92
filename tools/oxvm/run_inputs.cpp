#include "run_inputs.h"

#include "program_loader.h"
#include "source_file.h"

#include <fmt/format.h>

namespace OxVm
{
	bool ReadInputDeclarations(const std::string &path, SProgram &program)
	{
		std::string text;
		if (!ReadInput(path, text))
			return false;
		const std::string name = InputName(path);
		SkipByteOrderMark(text);
		if (!LooksLikeText(text))
		{
			fmt::print(stderr, "{}: error: --inputs takes a program text (its declarations), not bytecode or an empty file\n", Printable(name));
			return false;
		}
		CDiagnostics diagnostics;
		if (!ParseProgram(text, name, program, diagnostics))
			return false;
		program.m_Instructions.clear();
		// The declarations keep pointing at their file's name; the program takes the
		// bytecode's name for its instructions.
		program.m_DeclarationsFile = std::move(program.m_File);
		program.m_File = std::make_unique<std::string>();
		return true;
	}
}
