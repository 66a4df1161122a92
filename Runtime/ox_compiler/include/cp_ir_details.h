#pragma once
// Intermediate-representation declarations shared by the script compiler and the
// CPU VM back-end: register banks, the 64-bit IR register identifier, the math
// operator set and its description record, and the generic IR form.

#include "kr_assert.h"
#include "kr_base_types.h"

namespace Orvex
{
	namespace Compiler
	{
		// How often a register's value varies. Constant and Normal registers hold one
		// value; Instance and Stream registers hold one value per evaluated element.
		enum EMetaType : u8
		{
			MetaType_Transparent = 0,
			MetaType_Constant = 1,
			MetaType_Normal = 2,
			MetaType_Instance = 3,
			MetaType_Stream = 4,
			__MaxMetaTypes = 5
		};
		static_assert(MetaType_Constant == 1 && MetaType_Stream == 4 && __MaxMetaTypes == 5, "EMetaType values");

		// Readable name of a bank ("constant", "normal", ...); "?" outside the enumeration.
		const char *MetaTypeName(EMetaType metaType);

		namespace IR
		{
			//------------------------------------------------------------------------
			// 64-bit register identifier. Low 30 bits, shared bit for bit with the VM's
			// 32-bit CVMRegID:
			//
			//   29      24 23 22 21 20                    0
			//  +----------+--+-----+-----------------------+
			//  | type + 1 |m | bank|         slot          |
			//  +----------+--+-----+-----------------------+
			//
			// bank holds (EMetaType - 1); m is the IR's meta bit, carried through.
			// All 64 bits set means "no register".

			class CRegID
			{
			public:
				static constexpr u32 RegisterSlotShift = 0;
				static constexpr u32 RegisterSlotBits = 21;
				static constexpr u32 RegisterSlotMask = 2097151;
				static constexpr u32 RegisterBankShift = 21;
				static constexpr u32 RegisterBankBits = 2;
				static constexpr u32 RegisterBankMask = 3;
				static constexpr u32 RegisterMetaShift = 23;
				static constexpr u32 RegisterMetaBits = 1;
				static constexpr u32 RegisterMetaMask = 1;
				static constexpr u32 RegisterTypeShift = 24;
				static constexpr u32 RegisterTypeBits = 6;
				static constexpr u32 RegisterTypeMask = 63;
				static constexpr u32 RegisterMask = 1073741823;
				static constexpr u64 InvalidBits = ~u64(0);

				u64 m_RawBits = InvalidBits;

				constexpr CRegID() = default;
				constexpr explicit CRegID(u64 rawBits) : m_RawBits(rawBits) {}

				// Packs a register; out-of-range fields are masked to their width.
				static constexpr CRegID Build(u32 slot, EMetaType bank, EBaseTypeID type, bool meta = false)
				{
					return CRegID(u64(((slot & RegisterSlotMask) << RegisterSlotShift) |
									  ((u32(bank - 1) & RegisterBankMask) << RegisterBankShift) |
									  ((meta ? 1u : 0u) << RegisterMetaShift) |
									  ((u32(type + 1) & RegisterTypeMask) << RegisterTypeShift)));
				}

				constexpr bool Valid() const { return m_RawBits != InvalidBits; }
				// Nothing set outside the 30-bit layout (false for the invalid id).
				constexpr bool _ValidAndWellFormed() const { return m_RawBits <= RegisterMask; }

				u32 ToSlot() const
				{
					if ((u32(m_RawBits) & ~RegisterMask) != 0)
						OX_ASSERT(_ValidAndWellFormed());
					return (u32(m_RawBits) >> RegisterSlotShift) & RegisterSlotMask;
				}

				EMetaType ToBank() const
				{
					if ((u32(m_RawBits) & ~RegisterMask) != 0)
						OX_ASSERT(_ValidAndWellFormed());
					return EMetaType(((u32(m_RawBits) >> RegisterBankShift) & RegisterBankMask) + 1);
				}

				EBaseTypeID ToType() const
				{
					if ((u32(m_RawBits) & ~RegisterMask) != 0)
						OX_ASSERT(_ValidAndWellFormed());
					return EBaseTypeID(s32((u32(m_RawBits) >> RegisterTypeShift) & RegisterTypeMask) - 1);
				}

				bool ToMetaBit() const { return ((u32(m_RawBits) >> RegisterMetaShift) & RegisterMetaMask) != 0; }

				constexpr bool operator==(const CRegID &other) const { return m_RawBits == other.m_RawBits; }
				constexpr bool operator!=(const CRegID &other) const { return m_RawBits != other.m_RawBits; }
			};

			static_assert(sizeof(CRegID) == 8, "CRegID is one 64-bit word");
			static_assert(CRegID::RegisterMask == (1u << 30) - 1, "the layout covers the low 30 bits");
			static_assert(CRegID::RegisterSlotMask == (1u << CRegID::RegisterSlotBits) - 1 &&
						  CRegID::RegisterBankShift == CRegID::RegisterSlotShift + CRegID::RegisterSlotBits &&
						  CRegID::RegisterMetaShift == CRegID::RegisterBankShift + CRegID::RegisterBankBits &&
						  CRegID::RegisterTypeShift == CRegID::RegisterMetaShift + CRegID::RegisterMetaBits &&
						  CRegID::RegisterTypeShift + CRegID::RegisterTypeBits == 30, "register fields are contiguous");
			static_assert(CRegID::Build(5, MetaType_Normal, BaseType_Float).m_RawBits == 0x20200005, "type field holds type + 1, bank field bank - 1");

			//------------------------------------------------------------------------
			// Generic IR form: what the optimiser and the disassembly report see of any
			// instruction, whatever its own description record.

			struct SOp_Generic
			{
				static constexpr u32 kMaxSources = 3;

				enum EOpClass : u8
				{
					OpClass_Invalid = 0,
					OpClass_MathOp = 1,
				};

				EOpClass m_OpClass = OpClass_Invalid;
				u32 m_Operator = 0;		// the class's own operator value (SOp_MathOp::EOp for math ops)
				u32 m_SourceCount = 0;	// index of the last valid source + 1
				CRegID m_DstReg;
				CRegID m_SrcRegs[kMaxSources];
			};

			//------------------------------------------------------------------------
			// Math operators.

			struct SOp_MathOp
			{
				enum EOp : s32
				{
					Op_Add = 0,						// a + b
					Op_Sub,							// a - b
					Op_Mul,							// a * b (ints: low 32 bits)
					Op_Div,							// a / b (ints: truncated, b == 0 gives 0)
					Op_Mod,							// remainder with the sign of a
					Op_Neg,							// -a (floats: sign flip; ints: 0 - a, wrapping)
					Op_Bitwise_ShiftLeft,			// a << (b & 31)
					Op_Bitwise_ShiftRight,			// a >> (b & 31), sign-filling
					Op_Bitwise_ShiftRightLogical,	// a >> (b & 31), zero-filling
					Op_Bitwise_And,					// a & b
					Op_Bitwise_Or,					// a | b
					Op_Bitwise_Xor,					// a ^ b
					Op_Bitwise_Not,					// ~a
					Op_Cmp_Lower,					// a < b: all bits set, else 0
					Op_Cmp_LowerOrEqual,			// a <= b
					Op_Cmp_Greater,					// a > b
					Op_Cmp_GreaterOrEqual,			// a >= b
					Op_Cmp_Equal,					// a == b
					Op_Cmp_NotEqual,				// a != b (floats: true when either is NaN)
					__MaxOps
				};
				static_assert(Op_Div == 3 && Op_Mod == 4 && Op_Neg == 5, "EOp: arithmetic");
				static_assert(Op_Bitwise_ShiftLeft == 6 && Op_Bitwise_Not == 12, "EOp: bitwise");
				static_assert(Op_Cmp_Lower == 13 && Op_Cmp_NotEqual == 18 && __MaxOps == 19, "EOp: comparisons");

				struct STraits
				{
					u8 m_ParameterCount;	// read by the VM: 1 for unary operators, 2 otherwise
					bool m_FloatSupported;	// the bitwise operators exist for integers and bools only
					const char *m_Name;		// assembler / disassembler mnemonic
					const char *m_Symbol;	// the operator as scripts write it
				};

				struct SDesc
				{
					EOp m_Op = __MaxOps;
					CRegID m_DstReg;
					CRegID m_SrcReg0;
					CRegID m_SrcReg1;	// invalid exactly when the operator takes one operand
				};

				// Indexed by EOp; constexpr so that the VM's hot path reads it without a call.
				static constexpr STraits kTraits[__MaxOps] = {
					{2, true, "add", "+"},
					{2, true, "sub", "-"},
					{2, true, "mul", "*"},
					{2, true, "div", "/"},
					{2, true, "mod", "%"},
					{1, true, "neg", "-"},
					{2, false, "shl", "<<"},
					{2, false, "shr", ">>"},
					{2, false, "shrl", ">>>"},
					{2, false, "and", "&"},
					{2, false, "or", "|"},
					{2, false, "xor", "^"},
					{1, false, "not", "~"},
					{2, true, "cmplt", "<"},
					{2, true, "cmple", "<="},
					{2, true, "cmpgt", ">"},
					{2, true, "cmpge", ">="},
					{2, true, "cmpeq", "=="},
					{2, true, "cmpne", "!="},
				};
				static constexpr STraits kUnknownTraits = {2, false, "?", "?"};

				// Traits of any value: an operator outside the set reads as a two-operand
				// operator named "?", never outside the table.
				static constexpr const STraits &OperatorTraits(EOp op)
				{
					return u32(op) < u32(__MaxOps) ? kTraits[op] : kUnknownTraits;
				}

				// Finds an operator by mnemonic; false when there is none.
				static bool OperatorFromName(const char *name, EOp &op);

				static void DescToGeneric(const SDesc &desc, SOp_Generic &generic);
			};

			static_assert(sizeof(SOp_MathOp::kTraits) / sizeof(SOp_MathOp::kTraits[0]) == SOp_MathOp::__MaxOps, "one traits entry per operator");
			static_assert(SOp_MathOp::OperatorTraits(SOp_MathOp::Op_Neg).m_ParameterCount == 1 && SOp_MathOp::OperatorTraits(SOp_MathOp::Op_Bitwise_Not).m_ParameterCount == 1, "the unary operators");
			static_assert(!SOp_MathOp::kTraits[SOp_MathOp::Op_Bitwise_ShiftLeft].m_FloatSupported && !SOp_MathOp::kTraits[SOp_MathOp::Op_Bitwise_Not].m_FloatSupported &&
						  SOp_MathOp::kTraits[SOp_MathOp::Op_Cmp_Lower].m_FloatSupported && SOp_MathOp::kTraits[SOp_MathOp::Op_Neg].m_FloatSupported, "bitwise operators are integer-only");
			static_assert(SOp_MathOp::OperatorTraits(SOp_MathOp::EOp(200)).m_ParameterCount == 2, "an unknown operator reads as a two-operand one");
		}
	}
}
