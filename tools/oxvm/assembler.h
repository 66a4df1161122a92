#pragma once
// Program -> bytecode with the VM's encoder, and bytecode -> assembler text with the
// VM's decoder. The text that Disassemble prints assembles back to the same bytes.

#include "program.h"

#include <string>
#include <vector>

namespace OxVm
{
	// Encodes every instruction of a checked program: the 13-byte form for add, sub,
	// mul and div (14 bytes with ".generic"), 14 bytes for the other operators.
	std::vector<u8> Assemble(const SProgram &program);

	struct SDisassembly
	{
		std::string m_Text;			// what was decoded, as assembler text
		u32 m_Instructions = 0;
		bool m_Ok = true;			// false: stopped at m_ErrorOffset
		u32 m_ErrorOffset = 0;
		std::string m_Error;		// e.g. "unknown opcode 42"
	};

	// 'program' (may be null) supplies the stream line, the declarations and the
	// register names; without it registers print inline (stream.3:float3). Never reads
	// past 'size': sizes are checked before the decoder runs.
	SDisassembly Disassemble(const u8 *bytecode, u32 size, const SProgram *program);

	// The listing of one instruction for 'oxvm run' and error messages: mnemonic and
	// operands, then a comment with offset, bytes, opcode, size and destination bank.
	// 'bytecode' holds at least the instruction's own size.
	std::string DisassembleOne(const u8 *bytecode, u32 offset, const SProgram *program);
}
