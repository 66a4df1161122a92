#pragma once
// The decoder of math-op bytecode: the one place that knows which opcodes are math ops,
// how long each instruction is, where its register block starts and what its fields
// mean. Whatever walks bytecode reads it through here (the verifier, the codec, the
// batch plan, the oxvm tool, the fuzzers); the entry points read their own instruction
// with the inline primitives of MathOp below, so the hot path pays no call for them.
//
// The two forms (drawn in full at the top of cbvm_meta_ops.h):
//
//    generic, 14 bytes:      | 113  |  op  | dst | src0 | src1 |
//    specialised, 13 bytes:  |114+op| dst | src0 | src1 |          (op: add, sub, mul, div)
//
// A walk frames one instruction after the other. Two problems end it, because nothing
// after them can be framed: an opcode byte outside 113..117, and an instruction that
// runs past the buffer. An operator byte past the operator set is a problem of its own
// that does not end the walk: the instruction's size is known from its opcode.
//
//   CBVM::CMathOpWalker walk(bytecode, size);
//   CBVM::SMathOpInstruction ins;
//   while (walk.Next(ins))
//       use(ins.m_Offset, ins.m_Size, ins.m_Op, ins.Dst(), ins.Src0(), ins.Src1());
//   if (walk.Problem() != CBVM::MathOpDecode_Ok)
//       refuse(ins.m_Offset, walk.Problem());	// ins: what could be read there
//
// Nothing here reads outside [bytecode, bytecode + size) or allocates: the verifier,
// which promises both, is built on it.

#include "cbvm_meta_ops.h"

namespace Orvex
{
	//--------------------------------------------------------------------------------
	// The primitives of one instruction, for code that already knows its bytes are there
	// (the entry points, the codec). No bounds, no checks: framing a buffer is DecodeMathOp's.

	namespace MathOp
	{
		// The three register ids of an instruction, raw CVMRegID bits.
		struct SOperandIds
		{
			u32 m_Dst;
			u32 m_Src0;
			u32 m_Src1;	// CVMRegID::kInvalidBits for a unary operator
		};

		constexpr bool IsMathOpOpcode(u32 opcode) { return opcode - CBVM::Opcode_MathOp <= u32(CBVM::Opcode_MathOpDiv - CBVM::Opcode_MathOp); }

		// Size and register block of the instruction whose opcode byte is 'opcode': 113 is the
		// generic form, any other byte reads as a specialised one (the specialised entries
		// never look at their opcode to find their operands).
		constexpr u32 InstructionSize(u8 opcode) { return opcode == CBVM::Opcode_MathOp ? CMetaOp_MathOp::kGenericSize : CMetaOp_MathOp::kSpecializedSize; }
		constexpr u32 RegisterBlockOffset(u8 opcode) { return opcode == CBVM::Opcode_MathOp ? CMetaOp_MathOp::kGenericRegistersOffset : CMetaOp_MathOp::kSpecializedRegistersOffset; }

		// The operator an instruction evaluates: the generic form names it in byte 1 (any
		// value, checked by whoever frames it), a specialised opcode is 114 + operator (any
		// other byte reads as a division, as the division entries never look).
		constexpr Compiler::IR::SOp_MathOp::EOp OperatorOf(const u8 *bytecode)
		{
			using SOp_MathOp = Compiler::IR::SOp_MathOp;
			switch (bytecode[0])
			{
			case CBVM::Opcode_MathOp: return SOp_MathOp::EOp(bytecode[CMetaOp_MathOp::kGenericOperatorOffset]);
			case CBVM::Opcode_MathOpAdd: return SOp_MathOp::Op_Add;
			case CBVM::Opcode_MathOpSub: return SOp_MathOp::Op_Sub;
			case CBVM::Opcode_MathOpMul: return SOp_MathOp::Op_Mul;
			default: return SOp_MathOp::Op_Div;
			}
		}

		// The ids of the instruction at 'bytecode', whose register block starts 'wb' bytes in.
		inline SOperandIds ReadOperandIds(const u8 *bytecode, u32 wb)
		{
			return {OXLoadAndSwapLittleEndian<u32>(bytecode + wb + CMetaOp_MathOp::kDstRegOffset),
					OXLoadAndSwapLittleEndian<u32>(bytecode + wb + CMetaOp_MathOp::kSrcReg0Offset),
					OXLoadAndSwapLittleEndian<u32>(bytecode + wb + CMetaOp_MathOp::kSrcReg1Offset)};
		}

		static_assert(!IsMathOpOpcode(CBVM::Opcode_Broadcast) && IsMathOpOpcode(CBVM::Opcode_MathOp) && IsMathOpOpcode(CBVM::Opcode_MathOpDiv) && !IsMathOpOpcode(CBVM::Opcode_Madd) &&
						  !IsMathOpOpcode(0) && !IsMathOpOpcode(255),
					  "math-op opcodes are exactly 113 .. 117");
		static_assert(InstructionSize(CBVM::Opcode_MathOp) == 14 && InstructionSize(CBVM::Opcode_MathOpAdd) == 13 && InstructionSize(CBVM::Opcode_MathOpDiv) == 13, "14-byte generic, 13-byte specialised");
		static_assert(RegisterBlockOffset(CBVM::Opcode_MathOp) + CMetaOp_MathOp::kRegisterBlockSize == InstructionSize(CBVM::Opcode_MathOp) &&
						  RegisterBlockOffset(CBVM::Opcode_MathOpMul) + CMetaOp_MathOp::kRegisterBlockSize == InstructionSize(CBVM::Opcode_MathOpMul),
					  "the register block ends each form");
		static_assert(sizeof(SOperandIds) == CMetaOp_MathOp::kRegisterBlockSize, "three 32-bit ids");
		namespace _DecoderChecks
		{
			constexpr u8 kSub[1] = {CBVM::Opcode_MathOpSub};
			constexpr u8 kGenericShiftLeft[2] = {CBVM::Opcode_MathOp, u8(Compiler::IR::SOp_MathOp::Op_Bitwise_ShiftLeft)};
			constexpr u8 kOther[1] = {CBVM::Opcode_Madd};
			static_assert(OperatorOf(kSub) == Compiler::IR::SOp_MathOp::Op_Sub && OperatorOf(kGenericShiftLeft) == Compiler::IR::SOp_MathOp::Op_Bitwise_ShiftLeft &&
							  OperatorOf(kOther) == Compiler::IR::SOp_MathOp::Op_Div,
						  "specialised opcodes are 114 + operator, the generic form's operator is byte 1");
		}
	}

	namespace CBVM
	{
		//--------------------------------------------------------------------------------
		// Decoding a buffer.

		enum EMathOpDecode : u8
		{
			MathOpDecode_Ok = 0,
			MathOpDecode_UnknownOperator,	// generic form, operator byte >= __MaxOps: framed, the walk goes on
			MathOpDecode_UnknownOpcode,		// not 113..117: the walk ends here
			MathOpDecode_Truncated,			// the instruction runs past the buffer: the walk ends here
			__MaxMathOpDecodes
		};

		// Index of SMathOpInstruction::m_Ids: the roles in the order the bytes hold them.
		enum EMathOpOperand : u8
		{
			MathOpOperand_Dst = 0,
			MathOpOperand_Src0 = 1,
			MathOpOperand_Src1 = 2,
			__MaxMathOpOperands
		};
		static_assert(CMetaOp_MathOp::kDstRegOffset == 4 * MathOpOperand_Dst && CMetaOp_MathOp::kSrcReg0Offset == 4 * MathOpOperand_Src0 &&
						  CMetaOp_MathOp::kSrcReg1Offset == 4 * MathOpOperand_Src1 && CMetaOp_MathOp::kRegisterBlockSize == 4 * __MaxMathOpOperands,
					  "m_Ids is the register block, in order");

		// One instruction as read. For a problem that ends a walk only m_Offset, m_Opcode and
		// (truncated) m_Size are meaningful; the ids are then kInvalidBits.
		struct SMathOpInstruction
		{
			u32 m_Offset = 0;	// of the opcode byte in the buffer
			u8 m_Opcode = 0;	// 113 .. 117, or the unknown byte
			// The operator as read: the specialised opcode's, or the generic form's byte 1,
			// which may be past the set (MathOpDecode_UnknownOperator).
			Compiler::IR::SOp_MathOp::EOp m_Op = Compiler::IR::SOp_MathOp::__MaxOps;
			u32 m_Size = 0;		// 13 or 14 (a truncated instruction: the bytes it needs; unknown opcode: 0)
			u32 m_Ids[__MaxMathOpOperands] = {CVMRegID::kInvalidBits, CVMRegID::kInvalidBits, CVMRegID::kInvalidBits};

			u32 Dst() const { return m_Ids[MathOpOperand_Dst]; }
			u32 Src0() const { return m_Ids[MathOpOperand_Src0]; }
			u32 Src1() const { return m_Ids[MathOpOperand_Src1]; }	// kInvalidBits when absent
			bool HasSrc1() const { return Src1() != CVMRegID::kInvalidBits; }
			bool Generic() const { return m_Opcode == Opcode_MathOp; }
			bool KnownOperator() const { return u32(m_Op) < u32(Compiler::IR::SOp_MathOp::__MaxOps); }
			u32 End() const { return m_Offset + m_Size; }
		};

		// The fields of the instruction at 'instruction', whose bytes are all readable (its
		// opcode already checked, or it reads as a division: see MathOp::OperatorOf).
		inline SMathOpInstruction ReadMathOp(const u8 *instruction, u32 offset = 0)
		{
			SMathOpInstruction out;
			out.m_Offset = offset;
			out.m_Opcode = instruction[0];
			out.m_Op = MathOp::OperatorOf(instruction);
			out.m_Size = MathOp::InstructionSize(out.m_Opcode);
			const MathOp::SOperandIds ids = MathOp::ReadOperandIds(instruction, MathOp::RegisterBlockOffset(out.m_Opcode));
			out.m_Ids[MathOpOperand_Dst] = ids.m_Dst;
			out.m_Ids[MathOpOperand_Src0] = ids.m_Src0;
			out.m_Ids[MathOpOperand_Src1] = ids.m_Src1;
			return out;
		}

		// The instruction at 'offset' of bytecode[0, size), offset < size. Framed (Ok or
		// UnknownOperator): 'out' holds every field. Otherwise it holds the offset, the
		// opcode byte and, for a truncated instruction, the size it needs.
		inline EMathOpDecode DecodeMathOp(const u8 *bytecode, u32 size, u32 offset, SMathOpInstruction &out)
		{
			const u8 opcode = bytecode[offset];
			if (!MathOp::IsMathOpOpcode(opcode))
			{
				out = SMathOpInstruction();
				out.m_Offset = offset;
				out.m_Opcode = opcode;
				return MathOpDecode_UnknownOpcode;
			}
			if (size - offset < MathOp::InstructionSize(opcode))
			{
				out = SMathOpInstruction();
				out.m_Offset = offset;
				out.m_Opcode = opcode;
				out.m_Size = MathOp::InstructionSize(opcode);
				return MathOpDecode_Truncated;
			}
			out = ReadMathOp(bytecode + offset, offset);
			return out.KnownOperator() ? MathOpDecode_Ok : MathOpDecode_UnknownOperator;
		}

		// Every instruction of a buffer in order, up to its end or its first problem that ends
		// a walk (an unknown operator does not: check KnownOperator() where it matters).
		class CMathOpWalker
		{
		public:
			CMathOpWalker(const u8 *bytecode, u32 size) : m_Bytecode(bytecode), m_Size(size) {}

			// The next instruction in 'out', true when one was framed. False at the end of
			// the buffer, or at a problem: then 'out' holds what was read at its offset.
			bool Next(SMathOpInstruction &out)
			{
				if (m_Offset >= m_Size || m_Problem != MathOpDecode_Ok)
					return false;
				const EMathOpDecode status = DecodeMathOp(m_Bytecode, m_Size, m_Offset, out);
				if (status == MathOpDecode_UnknownOpcode || status == MathOpDecode_Truncated)
				{
					m_Problem = status;
					return false;
				}
				m_Offset += out.m_Size;
				return true;
			}

			// Why the walk ended: MathOpDecode_Ok at the end of the buffer (or before it ended).
			EMathOpDecode Problem() const { return m_Problem; }
			// Offset of the next instruction, or of the problem.
			u32 Offset() const { return m_Offset; }

		private:
			const u8 *m_Bytecode;
			u32 m_Size;
			u32 m_Offset = 0;
			EMathOpDecode m_Problem = MathOpDecode_Ok;
		};

		// The message of a decoding problem, as the verifier and the tool print it (one line,
		// no offset): "unknown opcode 7 (math-op opcodes are 113 to 117)", "truncated
		// instruction: ...", "unknown operator 200 (...)". 'at' is what DecodeMathOp gave for
		// a buffer of 'size' bytes. Empty for MathOpDecode_Ok. Returns the length written
		// (truncated to capacity - 1).
		u32 FormatMathOpDecodeProblem(EMathOpDecode problem, const SMathOpInstruction &at, u32 size, char *out, u32 capacity);

		//--------------------------------------------------------------------------------
		// Register ids as text: "stream.3:float3" (bank, slot, type), how the tools and the
		// messages name registers.

		// How an id that "bank.slot:type" would not name exactly is written.
		enum ERegisterIdText : u8
		{
			// Always the fields as they read (messages about any id, even an ill-formed one):
			// a type field with no type as "type<field>", e.g. "constant.3:type40".
			RegisterIdText_Fields = 0,
			// Only a text that names the id (the assembler reads it back): "-" for an absent
			// id, and the bits ("0x%08x") for one with the meta bit or a top bit set or a type
			// field with no type.
			RegisterIdText_Exact = 1,
		};

		// Longest text: "instance.2097151:quaternion" and a terminating zero.
		constexpr u32 kRegisterIdTextSize = 32;

		// Nothing set outside slot, bank and type: no meta bit, no top bit.
		constexpr bool IsPlainRegisterId(u32 bits)
		{
			return (bits & ~(Compiler::IR::CRegID::RegisterMask & ~(u32(Compiler::IR::CRegID::RegisterMetaMask) << Compiler::IR::CRegID::RegisterMetaShift))) == 0;
		}
		static_assert(IsPlainRegisterId(0x3F7FFFFFu) && !IsPlainRegisterId(0x00800000u) && !IsPlainRegisterId(0x40000000u) && !IsPlainRegisterId(CVMRegID::kInvalidBits),
					  "plain: slot, bank and type fields only");

		// Writes the text of 'bits' into out[0, kRegisterIdTextSize) and returns its length.
		u32 FormatRegisterId(u32 bits, ERegisterIdText form, char (&out)[kRegisterIdTextSize]);

		// The same as a value: SRegisterIdText(bits).m_Text.
		struct SRegisterIdText
		{
			char m_Text[kRegisterIdTextSize];
			explicit SRegisterIdText(u32 bits, ERegisterIdText form = RegisterIdText_Fields) { FormatRegisterId(bits, form, m_Text); }
		};
	}
}
