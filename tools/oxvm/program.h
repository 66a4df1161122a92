#pragma once
// The oxvm program: what a text file says (stream size, named registers with their
// initialisers, instructions), before and after checking.
//
//   ParseProgram   text -> SProgram (syntax, names, numbers)          program_parser.cpp
//   CheckProgram   SProgram -> ready to assemble and run              program_check.cpp
//
// Both report through CDiagnostics and go on after an error, so that one run lists
// every mistake; a program is usable only when no error was reported.

#include "diagnostics.h"
#include "value_types.h"

#include <deque>
#include <memory>
#include <string>
#include <string_view>
#include <unordered_map>
#include <vector>

namespace OxVm
{
	// Elements per stream at most: a 16-byte element times this still fits the 32-bit
	// size of a register.
	constexpr u32 kMaxElements = (1u << 28) - 1;

	enum EInitKind : u8
	{
		Init_Zero,		// no initialiser
		Init_Literal,	// v0, v1, ...: repeated over the register's words
		Init_Ramp,		// ramp(start, step): element i = start + i * step, every component
		Init_Random,	// random(lo, hi): seeded, uniform, one draw per word
		Init_Csv,		// csv("file", column...): row i -> element i
	};

	struct SCsvColumn
	{
		std::string m_Name;		// header name, or empty when given by index
		u32 m_Index = 0;		// 1-based index when given by number
		SLocation m_Where;
	};

	struct SInitialiser
	{
		EInitKind m_Kind = Init_Zero;
		SLocation m_Where;
		std::vector<u32> m_Words;			// Init_Literal: the values as 32-bit words
		double m_FloatArgs[2] = {0, 0};		// Init_Ramp, Init_Random on float registers
		s64 m_IntArgs[2] = {0, 0};			// Init_Ramp, Init_Random on int and bool registers
		std::string m_CsvPath;				// Init_Csv: as written (relative to the program's folder)
		std::vector<SCsvColumn> m_CsvColumns;
		std::vector<u32> m_CsvWords;		// Init_Csv: filled by CheckProgram, rows x components
	};

	struct SRegisterDecl
	{
		std::string m_Name;			// empty for a register named inline (stream.3:float3)
		u32 m_Bits = 0;				// CVMRegID raw bits: slot, bank, type
		u32 m_DeclaredCount = 0;	// [N]; 0: the default (the stream for per-element banks, else 1)
		u32 m_Count = 0;			// elements allocated: set by CheckProgram
		std::unique_ptr<SInitialiser> m_Init;	// null: zero-filled (most registers: not paid for)
		SLocation m_Where;
		std::string m_Text;			// the declaration as written, comment removed

		const SInitialiser &Init() const;	// a zero initialiser when m_Init is null
		Compiler::EMetaType Bank() const { return RawBank(m_Bits); }
		u32 Slot() const { return RawSlot(m_Bits); }
		EBaseTypeID Type() const { return RawType(m_Bits); }
	};

	// An operand as the parser resolved it (its text is not kept: a program of a million
	// instructions would hold three strings each). Its place is the instruction's line
	// and this column: SInstruction::At.
	struct SOperand
	{
		s32 m_Register = -1;		// index into SProgram::m_Registers; -1: none (an error was reported)
		u32 m_Column = 0;
	};

	// 36 bytes: a program holds millions. Its place in the file: SProgram::Where and At.
	struct SInstruction
	{
		Compiler::IR::SOp_MathOp::EOp m_Op = Compiler::IR::SOp_MathOp::__MaxOps;
		bool m_Generic = false;		// ".generic": the 14-byte form even for add .. div
		u8 m_SourceCount = 0;
		u32 m_Line = 0;				// of the mnemonic
		u32 m_Column = 0;
		SOperand m_Dst;
		SOperand m_Src[2];
	};

	struct SProgram
	{
		std::unique_ptr<std::string> m_File = std::make_unique<std::string>();	// stable address for SLocation
		std::string m_Folder;		// where CSV paths are looked up
		u32 m_Stream = 0;
		SLocation m_StreamWhere;
		bool m_FromBytecode = false;	// read back from bytecode: no names, its lines are its listing's
		std::unique_ptr<std::string> m_DeclarationsFile;	// run --inputs: the text the declarations' locations name
		// Deques: they grow without moving what they hold, so a long program never needs
		// twice its memory at once, and the name lookup can view the names in place.
		std::deque<SRegisterDecl> m_Registers;
		std::deque<SInstruction> m_Instructions;

		// Index of the register with these bits; -1 when none. Hashed: a lookup per
		// operand must not scan the registers.
		s32 FindByBits(u32 bits) const;
		s32 FindByName(std::string_view name) const;
		// Adds a register to m_Registers and to the lookups; its name (if any) and its
		// place (bank and slot) must be free (see FindByName, FindByPlace).
		s32 Add(SRegisterDecl decl);
		// The register at the bank and slot of 'bits', whatever its type; -1 when none.
		s32 FindByPlace(u32 bits) const;
		// Name, or the inline form "bank.slot:type".
		std::string RegisterText(s32 index) const;

		// Where an instruction is (its mnemonic), and where one of its operands is.
		SLocation Where(const SInstruction &instruction) const { return SLocation{m_File.get(), instruction.m_Line, instruction.m_Column}; }
		SLocation At(const SInstruction &instruction, const SOperand &operand) const { return SLocation{m_File.get(), instruction.m_Line, operand.m_Column}; }

	private:
		std::unordered_map<std::string_view, s32> m_ByName;	// views of the registers' m_Name
		// Bank and slot bits (the type masked off) -> the register's bits and index: the
		// bits are here so that FindByBits reads the table only, not the register.
		std::unordered_map<u32, std::pair<u32, s32>> m_ByPlace;
	};

	// The file a csv() initialiser reads: its path as written when absolute, otherwise
	// relative to the program's folder.
	std::string CsvFilePath(const SProgram &program, const SInitialiser &init);

	// Inline form of any register id: "stream.3:float3"; "-" for the invalid id and
	// "0x%08x" when the id has bits the text cannot name (meta bit, top bits, no type name).
	std::string InlineRegisterText(u32 bits);

	// 'fileName' is used in messages and to find CSV files.
	bool ParseProgram(const std::string &text, const std::string &fileName, SProgram &program, CDiagnostics &diagnostics);

	// Resolves element counts for a run of 'elements' (0: the program's stream size; a
	// program without a 'stream' line needs 'elements'), loads CSV initialisers and
	// checks every instruction.
	// 'standardPathRuns' false: the warnings about forms only the standard path reports
	// are left out (oxvm run --path low).
	bool CheckProgram(SProgram &program, u32 elements, CDiagnostics &diagnostics, bool standardPathRuns = true);
}
