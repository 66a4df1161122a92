#pragma once
// The program 'oxvm run' runs when given none: examples/particles.oxs, built into
// the binary by CMake (tools/CMakeLists.txt) so there is one copy of it.

namespace OxVm
{
	extern const char *const kBundledExampleName;
	extern const char *const kBundledExampleText;
}
