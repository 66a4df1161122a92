#pragma once
// CPU VM meta-ops: register identifiers, the execution context handed to every
// instruction, the meta-op opcodes, and the math-operator meta-op.
//
// Math-operator bytecode. All multi-byte fields are little-endian and unaligned.
//
// Generic form, 14 bytes (any operator):
//
//    0      1      2             6             10            14
//   +------+------+-------------+-------------+-------------+
//   | 113  |  op  |     dst     |    src0     |    src1     |
//   +------+------+-------------+-------------+-------------+
//
// Specialised form, 13 bytes (add, sub, mul, div):
//
//    0      1             5             9             13
//   +------+-------------+-------------+-------------+
//   |114+op|     dst     |    src0     |    src1     |
//   +------+-------------+-------------+-------------+
//
// dst, src0 and src1 are CVMRegID raw bits; src1 is 0xFFFFFFFF (CVMRegID::INVALID)
// when the operator takes one operand.

#include "cp_ir_details.h"
#include "kr_assert.h"
#include "kr_base_types.h"

namespace Orvex
{
	//--------------------------------------------------------------------------------
	// 32-bit VM register identifier. Same layout as the low 30 bits of the IR's
	// Compiler::IR::CRegID:
	//
	//   31 30 29      24 23 22 21 20                    0
	//  +-----+----------+--+-----+-----------------------+
	//  |  0  | type + 1 |m | bank|         slot          |
	//  +-----+----------+--+-----+-----------------------+
	//
	// The accessors assert on ill-formed ids (top bits set, or INVALID) and then
	// decode the bits anyway: an assertion never changes the values computed.

	class CVMRegID
	{
	public:
		s32 m_RawBits;

		static const CVMRegID INVALID;

		// ---- The fields of raw bits, without checks: for code that tests well-formedness
		// itself (the fast paths, the verifier, the tools). The only place the layout is read.
		static constexpr u32 kInvalidBits = 0xFFFFFFFFu;
		static constexpr u32 kWellFormedLimit = 0x40000000u;	// bits 30 and 31 clear
		static constexpr bool WellFormedBits(u32 bits) { return bits < kWellFormedLimit; }
		static constexpr u32 SlotOf(u32 bits) { return (bits >> Compiler::IR::CRegID::RegisterSlotShift) & Compiler::IR::CRegID::RegisterSlotMask; }
		// The bank field: bank - MetaType_Constant (0 Constant, 1 Normal, 2 Instance, 3 Stream).
		static constexpr u32 BankIndexOf(u32 bits) { return (bits >> Compiler::IR::CRegID::RegisterBankShift) & Compiler::IR::CRegID::RegisterBankMask; }
		static constexpr Compiler::EMetaType BankOf(u32 bits) { return Compiler::EMetaType(BankIndexOf(bits) + Compiler::MetaType_Constant); }
		// Instance and Stream registers hold one value per element.
		// (Bank fields 2 and 3: one bit.)
		static constexpr bool PerElementOf(u32 bits) { return (BankIndexOf(bits) & 2u) != 0; }
		// The type field: type + 1, the index of the type table (kBaseTypes).
		static constexpr u32 TypeFieldOf(u32 bits) { return (bits >> Compiler::IR::CRegID::RegisterTypeShift) & Compiler::IR::CRegID::RegisterTypeMask; }
		static constexpr EBaseTypeID TypeOf(u32 bits) { return EBaseTypeID(s32(TypeFieldOf(bits)) - 1); }
		// The same id at another slot (a batch plan renumbers the slots a program uses).
		static constexpr u32 WithSlot(u32 bits, u32 slot)
		{
			return (bits & ~(u32(Compiler::IR::CRegID::RegisterSlotMask) << Compiler::IR::CRegID::RegisterSlotShift)) |
				   ((slot & Compiler::IR::CRegID::RegisterSlotMask) << Compiler::IR::CRegID::RegisterSlotShift);
		}

		u32 Bits() const { return u32(m_RawBits); }
		bool Valid() const { return Bits() != kInvalidBits; }
		bool _ValidAndWellFormed() const { return WellFormedBits(Bits()); }

		u32 ToSlot() const
		{
			OX_ASSERT(_ValidAndWellFormed());
			return SlotOf(Bits());
		}

		Compiler::EMetaType ToBank() const
		{
			OX_ASSERT(_ValidAndWellFormed());
			return BankOf(Bits());
		}

		EBaseTypeID ToType() const
		{
			OX_ASSERT(!Valid() || _ValidAndWellFormed());
			const EBaseTypeID typeId = TypeOf(Bits());
			// INVALID decodes as type 62: an invalid register has no type, report it.
			OX_ASSERT(Valid() || typeId == BaseType_Void);
			return typeId;
		}

		static CVMRegID Build(u32 slot, Compiler::EMetaType bank, EBaseTypeID type)
		{
			return Build(Compiler::IR::CRegID::Build(slot, bank, type));
		}

		// The low word of the IR id; the invalid IR id becomes INVALID.
		static CVMRegID Build(const Compiler::IR::CRegID &irReg)
		{
			return CVMRegID{s32(u32(irReg.m_RawBits))};
		}

		// Zero-extends back to 64 bits; INVALID becomes the invalid IR id (all 64 bits set).
		Compiler::IR::CRegID ToIRRegID() const
		{
			return Valid() ? Compiler::IR::CRegID(u64(u32(m_RawBits))) : Compiler::IR::CRegID();
		}

		bool operator==(const CVMRegID &other) const { return m_RawBits == other.m_RawBits; }
		bool operator!=(const CVMRegID &other) const { return m_RawBits != other.m_RawBits; }
	};

	inline const CVMRegID CVMRegID::INVALID = {s32(-1)};

	static_assert(sizeof(CVMRegID) == 4, "CVMRegID is one 32-bit word, as stored in bytecode");
	static_assert(CVMRegID::SlotOf(0x20200005u) == 5 && CVMRegID::BankOf(0x20200005u) == Compiler::MetaType_Normal && CVMRegID::TypeOf(0x20200005u) == BaseType_Float,
				  "type field = type + 1, bank field = bank - 1");
	static_assert(Compiler::MetaType_Instance - Compiler::MetaType_Constant == 2 && Compiler::MetaType_Stream - Compiler::MetaType_Constant == 3 &&
				  !CVMRegID::PerElementOf(0x00200000u) && CVMRegID::PerElementOf(0x00400000u) && CVMRegID::PerElementOf(0x00600000u), "per-element banks are bank fields 2 and 3");
	static_assert(CVMRegID::kWellFormedLimit == 1u << 30 && !CVMRegID::WellFormedBits(CVMRegID::kInvalidBits), "the top two bits are clear in a well-formed id");

	//--------------------------------------------------------------------------------
	// Execution context. The program, bindings and debug context belong to the host's
	// interpreter; the math operator reads only the register file.

	class CCBCPUMetaRegisters;

	// The compiled program being run (owned by the interpreter; opaque here).
	class CCompilerBackendCPUProgram_VM
	{
	};

	// Bindings of external data (owned by the interpreter; opaque here).
	class CRuntimeCPUBindings
	{
	};

	// Debugging context of a run (owned by the interpreter; opaque here).
	struct SCompilerCPUDebugCtx
	{
	};

	class CBytecodeExecContext : public CNonCopyable
	{
	public:
		CBytecodeExecContext(const CCompilerBackendCPUProgram_VM *self, const CRuntimeCPUBindings &externals, CCBCPUMetaRegisters &registers, const SCompilerCPUDebugCtx &debugCtx)
		: m_Self(self), m_Externals(externals), m_Registers(registers), m_DebugCtx(debugCtx) {}

		const CCompilerBackendCPUProgram_VM *const m_Self;
		const CRuntimeCPUBindings &m_Externals;
		CCBCPUMetaRegisters &m_Registers;
		const SCompilerCPUDebugCtx &m_DebugCtx;
	};

	namespace CBVM
	{
		// The VM's meta-op opcodes; the math operator owns 113 .. 117.
		enum EOpcode : u8
		{
			Opcode_ExternalLoad = 105,
			__FirstOpcode = Opcode_ExternalLoad,
			Opcode_ExternalStore = 106,
			Opcode_ExternalClear = 107,
			Opcode_TypeConverter = 108,
			Opcode_GenericNativeVectorConstructor = 109,
			Opcode_VectorSwizzler = 110,
			Opcode_VectorPermute = 111,
			Opcode_Broadcast = 112,
			Opcode_MathOp = 113,
			Opcode_MathOpAdd = 114,
			Opcode_MathOpSub = 115,
			Opcode_MathOpMul = 116,
			Opcode_MathOpDiv = 117,
			Opcode_Madd = 118,
			Opcode_IDivMulInv = 119,
			Opcode_MathFunc1 = 120,
			Opcode_MathFunc2 = 121,
			Opcode_MathFunc3 = 122,
			Opcode_Select = 123,
			Opcode_FunctionCall = 124,
			__MaxOpcodes = 125
		};
		static_assert(Opcode_MathOp == 113 && Opcode_MathOpAdd == 114 && Opcode_MathOpDiv == 117, "math-op opcodes");
		static_assert(Opcode_FunctionCall == 124 && __MaxOpcodes == 125, "opcode range");

		// "MathOp", "MathOpAdd", ...; "?" for any byte outside the opcode set.
		const char *OpcodeName(u32 opcode);

		// What the decoder tells the disassembler about one instruction.
		struct SOpcodeDisasReport
		{
			EOpcode m_Opcode = EOpcode(0);
			u32 m_BytecodeOffset = 0;	// the caller's; the decoder does not touch it
			u32 m_InstructionSize = 0;
			Compiler::EMetaType m_MetaType = Compiler::MetaType_Transparent;	// destination bank
		};

		struct SMetaOp_GenericDesc
		{
			EOpcode m_DstOpcode = EOpcode(0);
			CGuid m_SrcInstructionID;	// the caller's; the decoder does not touch it
			Compiler::IR::SOp_Generic m_Desc;
		};
	}

	//--------------------------------------------------------------------------------
	// The math-operator meta-op: codec (this header) and entry points.

	class CMetaOp_MathOp
	{
	public:
		using EOp = Compiler::IR::SOp_MathOp::EOp;
		using SDesc = Compiler::IR::SOp_MathOp::SDesc;

		// Largest instruction of this meta-op: the interpreter may rely on this many
		// bytes being addressable from an instruction's start.
		static constexpr u32 IP_Offset = 14;

		// Layout constants (see the drawing at the top of this file).
		static constexpr u32 kGenericSize = 14;
		static constexpr u32 kSpecializedSize = 13;
		static constexpr u32 kGenericOperatorOffset = 1;
		static constexpr u32 kGenericRegistersOffset = 2;
		static constexpr u32 kSpecializedRegistersOffset = 1;
		static constexpr u32 kDstRegOffset = 0;		// within the register block
		static constexpr u32 kSrcReg0Offset = 4;
		static constexpr u32 kSrcReg1Offset = 8;
		static constexpr u32 kRegisterBlockSize = 12;
		// Operators below this value have a specialised opcode: 114 + op.
		static constexpr u32 kSpecializedOpCount = 4;

		static u32 EncodingSize_Generic() { return kGenericSize; }
		static u32 EncodingSize_Specialized() { return kSpecializedSize; }
		static u32 EncodingSize(EOp op) { return u32(op) < kSpecializedOpCount ? kSpecializedSize : kGenericSize; }
		// (The size of an instruction already in bytecode, and everything else about reading
		// it, is the decoder's: cbvm_math_op_decoder.h.)

		// ---- Standard entry points: the SIMD stream path. Each opens a profiler scope
		// named after itself, asserts its opcode byte and returns the instruction's size
		// whatever happens inside.
		static u32 _ExecBytecode(const CBytecodeExecContext &execCtx, const u8 *bytecode);		// 113, operator in byte 1; 14
		static u32 _ExecBytecode_Add(const CBytecodeExecContext &execCtx, const u8 *bytecode);	// 114; 13
		static u32 _ExecBytecode_Sub(const CBytecodeExecContext &execCtx, const u8 *bytecode);	// 115; 13
		static u32 _ExecBytecode_Mul(const CBytecodeExecContext &execCtx, const u8 *bytecode);	// 116; 13
		static u32 _ExecBytecode_Div(const CBytecodeExecContext &execCtx, const u8 *bytecode);	// 117; 13

		// ---- Low entry points: the plain execution path (one element per iteration,
		// dense destination, no broadcasting stage). Each asserts its opcode byte and
		// returns the instruction's size whatever happens inside.
		static u32 _ExecBytecode_Low(const CBytecodeExecContext &context, const u8 *bytecode);		// 113, operator in byte 1; 14
		static u32 _ExecBytecode_Add_Low(const CBytecodeExecContext &context, const u8 *bytecode);	// 114; 13
		static u32 _ExecBytecode_Sub_Low(const CBytecodeExecContext &context, const u8 *bytecode);	// 115; 13
		static u32 _ExecBytecode_Mul_Low(const CBytecodeExecContext &context, const u8 *bytecode);	// 116; 13
		static u32 _ExecBytecode_Div_Low(const CBytecodeExecContext &context, const u8 *bytecode);	// 117; 13

		// ---- Codec
		// Writes 13 or 14 bytes at 'dst' (at least 14 must be writable) and returns the count.
		static u32 EncodeDescToBytecode(u8 *dst, const SDesc &desc);
		// Decode one instruction (at least its own size must be readable); return its size.
		static u32 DecodeBytecodeToDesc(const u8 *bytecode, SDesc &desc, CBVM::SOpcodeDisasReport &report);
		static u32 DecodeBytecodeToGeneric(const u8 *bytecode, CBVM::SMetaOp_GenericDesc &generic, CBVM::SOpcodeDisasReport &report);
	};

	static_assert(CMetaOp_MathOp::IP_Offset == CMetaOp_MathOp::kGenericSize, "IP_Offset is the largest instruction");
	static_assert(CMetaOp_MathOp::kGenericRegistersOffset + CMetaOp_MathOp::kRegisterBlockSize == CMetaOp_MathOp::kGenericSize, "generic form: opcode, operator, 3 registers");
	static_assert(CMetaOp_MathOp::kSpecializedRegistersOffset + CMetaOp_MathOp::kRegisterBlockSize == CMetaOp_MathOp::kSpecializedSize, "specialised form: opcode, 3 registers");
	static_assert(u32(CBVM::Opcode_MathOpAdd) + u32(Compiler::IR::SOp_MathOp::Op_Div) == u32(CBVM::Opcode_MathOpDiv), "specialised opcodes are 114 + op");
}
