#pragma once
// 'oxvm run BYTECODE --inputs PROGRAM': bytecode holds instructions only, so a bytecode
// run would start from zeros. --inputs takes everything else from a program text (its
// stream size, register names, counts and initialisers: usually the text the bytecode
// was assembled from); the bytecode's instructions then run on those registers exactly
// as the text's would, random() draws included (they follow the declarations' order).

#include "program.h"

#include <string>

namespace OxVm
{
	// Parses the program text at 'path' into 'program', then drops its instructions: the
	// bytecode's take their place (ProgramFromBytecode resolves them to the declared
	// registers by bank, slot and type). False after printing why not.
	bool ReadInputDeclarations(const std::string &path, SProgram &program);
}
