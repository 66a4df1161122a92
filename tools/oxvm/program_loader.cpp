#include "program_loader.h"

#include "bundled_example.h"
#include "source_file.h"

#include <fmt/format.h>

namespace OxVm
{
	bool LoadProgram(const std::string &path, u32 elements, SProgram &program)
	{
		std::string text = kBundledExampleText;
		if (!path.empty())
		{
			std::string error;
			if (!ReadFile(path, text, error))
			{
				fmt::print(stderr, "oxvm: error: {}\n", error);
				return false;
			}
			SkipByteOrderMark(text);
			if (text.find_first_not_of(" \t\r\n") == std::string::npos)
			{
				fmt::print(stderr, "{}: error: empty program (a program has a 'stream' line and instructions)\n", path);
				return false;
			}
			if (!LooksLikeText(text))
			{
				fmt::print(stderr, "{}: error: this is bytecode (or not text); a program is expected here\n", path);
				return false;
			}
		}
		CDiagnostics diagnostics;
		const bool parsed = ParseProgram(text, path.empty() ? kBundledExampleName : path, program, diagnostics);
		// Checking needs a stream size; without one the parser has already said so.
		const bool checked = (elements != 0 || program.m_Stream != 0) && CheckProgram(program, elements, diagnostics);
		return parsed && checked;
	}
}
