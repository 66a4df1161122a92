#pragma once
// The library's messages in the program's own terms. The batch plan and the verifier
// name registers by id ("stream.1:float3") and instructions by bytecode offset
// ("instruction 3 (offset 39)"), which a program's author has to look up in a listing;
// the tool knows the names and lines, so it says those instead: "'vel'", "line 12".
// A program read from bytecode has no names and no lines of its own (its lines are
// its disassembly's): its messages keep the ids and offsets.

#include "program.h"

#include <string>
#include <unordered_map>
#include <vector>

namespace OxVm
{
	class CProgramTerms
	{
	public:
		// 'offsets': the instructions' start offsets in the program's bytecode
		// (InstructionOffsets). Both must outlive this object.
		CProgramTerms(const SProgram &program, const std::vector<u32> &offsets);

		// 'text' with every register id of a named register replaced by its quoted name,
		// and "instruction N (offset M)" or "offset M" by "line L".
		std::string Say(const std::string &text) const;

	private:
		std::string _Names(const std::string &text) const;
		std::string _Lines(const std::string &text) const;
		// The line of the instruction at 'offset'; 0 when none.
		u32 _LineAt(u32 offset) const;

		const SProgram &m_Program;
		const std::vector<u32> &m_Offsets;
		std::unordered_map<std::string, std::string> m_NameOfId;	// "stream.1:float3" -> "'vel'"
	};
}
