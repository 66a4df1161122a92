#pragma once
// A minimal interpreter for hosts and tests: walks a buffer of math-operator
// bytecode and calls the entry point of each instruction's opcode.
//
// Each execution path has its own entry table, indexed by the opcode byte (all 256
// values, so any byte is safe to look up). Run() checks, before calling an entry,
// that the opcode is known and that the whole instruction lies inside the buffer;
// otherwise it stops and reports the offset and the opcode instead of reading past
// the buffer. It does not verify register ids, types or sizes: the entry points
// assert on those (a bytecode verifier is the place to reject a bad program).
//
//   SRunResult result = CInterpreter::Run(ctx, bytes, size);   // standard path; or ExecPath_Low
//   if (result.m_Status != RunStatus_Ok) { char text[128]; CInterpreter::FormatError(result, text, sizeof(text)); ... }

#include "cbvm_meta_ops.h"

namespace Orvex
{
	namespace CBVM
	{
		enum EExecPath : u8
		{
			ExecPath_Standard = 0,	// the SIMD stream path (the default)
			ExecPath_Low = 1,		// the plain path: one element per iteration
			__MaxExecPaths
		};

		// Readable name ("standard", "low"); "?" for a value outside the enumeration.
		const char *ExecPathName(EExecPath path);

		using FnExecBytecode = u32 (*)(const CBytecodeExecContext &context, const u8 *bytecode);

		struct SEntry
		{
			FnExecBytecode m_Exec;	// null: the opcode is not known to this path
			u32 m_Size;				// bytes of the instruction, checked before m_Exec runs
		};

		enum ERunStatus : u8
		{
			RunStatus_Ok = 0,
			RunStatus_UnknownOpcode,	// no entry for the opcode at m_Offset
			RunStatus_Truncated,		// the instruction at m_Offset runs past the end of the buffer
			RunStatus_BadPath,			// the execution path does not exist
		};

		struct SRunResult
		{
			ERunStatus m_Status = RunStatus_Ok;
			u32 m_Offset = 0;		// offset of the failing instruction (or the buffer size when all ran)
			u32 m_Opcode = 0;		// its opcode byte
			u32 m_Executed = 0;		// instructions run before stopping
		};

		class CInterpreter
		{
		public:
			// Entry of 'opcode' on 'path'; an entry with a null m_Exec when there is none.
			static const SEntry &Entry(EExecPath path, u8 opcode);

			// Runs every instruction of bytecode[0, size) in order. Sets
			// registers.m_InstructionPointer to each instruction's offset before calling it.
			static SRunResult Run(const CBytecodeExecContext &context, const u8 *bytecode, u32 size, EExecPath path = ExecPath_Standard);

			// One line, e.g. "unknown opcode 42 at offset 13"; returns the length written.
			static u32 FormatError(const SRunResult &result, char *buffer, u32 bufferSize);
		};
	}
}
