#pragma once
// 'oxvm run's options against the program, decided before anything is allocated: the
// registers --dump and --scratch name, the combinations that cannot work (errors) and
// the ones that do nothing or are changed (warnings and notes on stderr).

#include "commands.h"
#include "program.h"

#include <vector>

namespace OxVm
{
	// Fills 'dumped' and 'scratch' with the registers the options name. False after
	// printing an error (an unknown name, a scratch register dumped or one-element).
	bool ResolveRunOptions(const SRunCommand &options, const SProgram &program, std::vector<s32> &dumped, std::vector<s32> &scratch);
}
