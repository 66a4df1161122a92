#pragma once
// Program text -> a parsed and checked SProgram, reporting every error on stderr.

#include "program.h"

#include <string>

namespace OxVm
{
	// 'path' empty: the bundled example. 'elements' 0: the program's own stream size.
	// False after printing the errors (file:line:column: error: ...).
	bool LoadProgram(const std::string &path, u32 elements, SProgram &program);
}
