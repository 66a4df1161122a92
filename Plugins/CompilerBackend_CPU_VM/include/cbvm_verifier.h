#pragma once
// A bytecode verifier for hosts that load math-op programs from disk, a cache or a
// network: it checks every instruction against the register file it will run on,
// before anything runs.
//
// The entry points trust their bytecode (slots are not bounds-checked, a broken
// invariant is only reported), which is right for programs the engine's compiler
// produced. A program from anywhere else goes through Verify first:
//
//   SVerifyProblem problems[16];
//   const SVerifyResult result = CVerifier::Verify(bytes, size, storage, problems, 16);
//   if (!result.Accepted())
//       for (u32 i = 0; i < result.Problems() && i < 16; ++i)
//           log("offset %u: %s", problems[i].m_Offset, problems[i].m_Message);
//
// Checked, per instruction: a known opcode (113..117), the whole instruction inside the
// buffer, the operator in range; then the checks the entry points of both paths make
// themselves, the same predicates evaluated instead of reported: well-formed register
// ids, the operand count, a source type with a kernel (float..float4, quaternion,
// i32..int4, bool..bool4), both sources of one type, no bitwise operator on floats, a
// destination whose element size is the sources' (the integer kernels refuse any other
// stride, the Low path writes densely), storage present and 32-byte aligned, register
// sizes for m_StreamDimensions (in 64 bits), and the kernels' checks of the operand
// forms below. What the entry points cannot check is checked here too: every slot
// inside the register file, and one element in every one-value register.
//
// The guarantee: when Verify reports no problem at all (no error, no warning), the
// program runs on both paths (CInterpreter::Run, standard or Low) with no assertion
// report and no access outside its registers, as long as the host keeps the register
// file as it was verified (table, pointers, sizes, m_StreamDimensions) and keeps the
// padding that CRegisterStorage provides (at least 32 readable bytes after each
// register: the kernels read whole 16-byte vectors past the last element).
//
// Three legal forms make the standard path report (see cbvm_path_difference.h). By
// default they are errors; with VerifyFlag_AllowReportedForms they are warnings (for
// tools that show the paths' documented differences):
//   - float neg of a Constant or Normal source into a per-element destination
//     (refused, nothing written);
//   - float mod of two Constant or Normal sources into a per-element destination;
//   - a uniform shift count above 31 over whole 12-integer blocks. This one depends on
//     the count register's value, which Verify reads as it is now; when an instruction
//     of the program may write any byte of the count (decided by storage addresses, so
//     a second table entry over the same bytes counts too), its value at run time
//     cannot be known here and Verify warns instead (VerifyError_ShiftCountUnchecked),
//     with or without VerifyFlag_AllowReportedForms. Re-verify after the host changes a
//     shift-count constant, or keep counts in 0..31.
//
// Verify never reads outside [bytecode, bytecode + size), reads the register table only
// for slots below slotCount, and reads register storage only for the shift count (the
// first element of a register whose size was checked). It allocates nothing. The walk
// is linear in the bytecode, except that each shift by a broadcast count register
// (other than the one before it) scans the program once for writes to the count.

#include "cbvm_meta_ops.h"
#include "cbvm_register_storage.h"
#include "cbvm_registers.h"

namespace Orvex
{
	namespace CBVM
	{
		enum EVerifyError : u8
		{
			VerifyError_None = 0,
			VerifyError_UnknownOpcode,		// not 113..117; the walk stops here
			VerifyError_Truncated,			// the instruction runs past the buffer; the walk stops here
			VerifyError_UnknownOperator,	// generic form, operator byte >= 19
			VerifyError_IllFormedRegister,	// a register id with bits 30-31 set, or a missing destination / source 0
			VerifyError_OperandCount,		// source 1 present for neg / not, or missing for a binary operator
			VerifyError_UnsupportedType,	// source 0's type has no kernel
			VerifyError_SourceTypesDiffer,
			VerifyError_BitwiseOnFloat,
			VerifyError_DestinationType,	// destination element size differs from the sources'
			VerifyError_SlotOutOfRange,
			VerifyError_NoStorage,			// null data pointer
			VerifyError_Misaligned,			// storage not 32-byte aligned
			VerifyError_RegisterTooSmall,
			VerifyError_FloatNegOfConstant,	// reported forms: errors unless VerifyFlag_AllowReportedForms
			VerifyError_FloatModOfConstants,
			VerifyError_ShiftCountAbove31,
			VerifyError_ShiftCountUnchecked,	// always a warning (see above)
			__MaxVerifyErrors
		};

		enum EVerifySeverity : u8
		{
			VerifySeverity_Error = 0,
			VerifySeverity_Warning = 1,
		};

		enum EVerifyFlags : u32
		{
			VerifyFlag_None = 0,
			// The three forms the standard path reports become warnings.
			VerifyFlag_AllowReportedForms = 1u << 0,
		};

		struct SVerifyProblem
		{
			static constexpr u32 kMessageSize = 256;

			u32 m_Offset = 0;			// byte offset of the instruction
			EVerifyError m_Code = VerifyError_None;
			EVerifySeverity m_Severity = VerifySeverity_Error;
			char m_Message[kMessageSize] = {};	// one line, no offset, e.g. "source types differ: ..."
		};

		struct SVerifyResult
		{
			u32 m_Errors = 0;
			u32 m_Warnings = 0;
			u32 m_Instructions = 0;	// instructions decoded (the walk stops at an unknown opcode or a cut)

			// Problems found, stored or not (only the first 'capacity' are stored).
			u32 Problems() const { return m_Errors + m_Warnings; }
			bool Accepted() const { return m_Errors == 0; }
		};

		class CVerifier
		{
		public:
			// Every problem of bytecode[0, size) against 'registers', whose table has
			// 'slotCount' slots (four entries each). The first 'capacity' problems go to
			// 'problems' (may be null when capacity is 0), in offset order.
			static SVerifyResult Verify(const u8 *bytecode, u32 size, const CCBCPUMetaRegisters &registers, u32 slotCount,
										SVerifyProblem *problems, u32 capacity, u32 flags = VerifyFlag_None);

			// The same against a CRegisterStorage (its SlotCount()).
			static SVerifyResult Verify(const u8 *bytecode, u32 size, const CRegisterStorage &storage,
										SVerifyProblem *problems, u32 capacity, u32 flags = VerifyFlag_None);

			// Only what does not depend on a register file: opcodes, sizes, operators,
			// register ids, operand counts and types. For tools that list bytecode
			// without running it.
			static SVerifyResult VerifyStructure(const u8 *bytecode, u32 size, SVerifyProblem *problems, u32 capacity);
		};

		// "unknown opcode", "register too small", ...; "?" outside the enumeration.
		const char *VerifyErrorName(EVerifyError code);
	}
}
