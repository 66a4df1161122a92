#pragma once
// Program -> bytecode with the VM's encoder, and bytecode -> assembler text with the
// VM's decoder. The text that Disassemble prints assembles back to the same bytes.

#include "program.h"

#include <functional>
#include <string>
#include <string_view>
#include <vector>

namespace OxVm
{
	// Encodes every instruction of a checked program: the 13-byte form for add, sub,
	// mul and div (14 bytes with ".generic"), 14 bytes for the other operators.
	std::vector<u8> Assemble(const SProgram &program);

	// One instruction of a checked program into 'out' (kMaxInstructionBytes); its size.
	constexpr u32 kMaxInstructionBytes = CMetaOp_MathOp::kGenericSize;
	u32 EncodeInstruction(const SProgram &program, const SInstruction &instruction, u8 *out);
	// Whether the program assembles to exactly these bytes (without assembling a copy).
	bool AssemblesTo(const SProgram &program, const u8 *bytes, u32 size);

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

	// Why the first instruction of 'bytecode' does not decode ("unknown opcode 0"); empty
	// when it does.
	std::string FirstInstructionProblem(const u8 *bytecode, u32 size);

	// The same, handing the text to 'sink' a piece at a time instead of keeping it (a
	// listing is ten times its bytecode): first the head (stream line, declarations,
	// blank line) with firstOffset == endOffset == 0, then whole lines of the
	// instructions in [firstOffset, endOffset), at most kListingPiece at a time.
	// 'stream': the stream line of a listing without a program (0: bytecode carries
	// none, the line says so and gives 16).
	using FnListingSink = std::function<void(std::string_view text, u32 firstOffset, u32 endOffset)>;
	constexpr u32 kListingPiece = 65536;
	SDisassembly Disassemble(const u8 *bytecode, u32 size, const SProgram *program, const FnListingSink &sink, u32 stream = 0);

	// Bytecode -> the program its listing gives: every register inline, zero-filled, no
	// stream size; instruction i at line i + 3 of the listing, as 'oxvm disasm' prints it.
	// False with 'error' ("offset 26: unknown opcode 42") when the bytes do not decode
	// or name a register that a program cannot (the VM's verifier says more).
	bool ProgramFromBytecode(const u8 *bytecode, u32 size, const std::string &name, SProgram &program, std::string &error);

	// The listing of one instruction for 'oxvm run' and error messages: mnemonic and
	// operands, then a comment with offset, bytes, opcode, size and destination bank.
	// 'bytecode' holds at least the instruction's own size.
	// 'index': the instruction's index in 'program' when the bytecode is the program's
	// own (Assemble): its operands are named from the program without a lookup.
	constexpr u32 kNoInstruction = ~0u;
	std::string DisassembleOne(const u8 *bytecode, u32 offset, const SProgram *program, u32 index = kNoInstruction);
}
