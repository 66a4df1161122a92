#pragma once
// Intermediate-representation declarations shared by the script compiler and the
// CPU VM back-end: register banks, the 64-bit IR register identifier, the math
// operator set and its description record, and the generic IR form.

#include "kr_assert.h"
#include "kr_base_types.h"
#include "mt_scalar_ops.h"

namespace Orvex
{
	namespace MathOp
	{
		// The lane operations of the lanewise float kernels: one SSE operation per four
		// components, the same operation on one lane in the scalar tails.
		enum EOp2Type : u8
		{
			Op2_Add = 0,
			Op2_Sub = 1,
			Op2_Mul = 2,
			Op2_Div = 3,
			Op2_LT = 4,
			Op2_LE = 5,
			Op2_GT = 6,
			Op2_GE = 7,
			Op2_EQ = 8,
			Op2_NE = 9,
			Op2_None = 10,	// not a lanewise float operator
		};
		static_assert(Op2_Div == 3 && Op2_NE == 9, "EOp2Type values");
	}

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
			// Math operators: one row per operator in kTraits below. Every per-operator
			// table of the VM (kernel tables of both execution paths, the one-element
			// kernels, the verifier's rules, the path-difference classifier, the tools'
			// mnemonics, the tests' model) is derived from that row and checked against
			// it; adding an operator means one row here plus its kernels.

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

				// How the float kernels evaluate an operator.
				enum EFloatKernel : u8
				{
					FloatKernel_None = 0,	// no float form (the bitwise operators): reported, nothing written
					FloatKernel_Lanes,		// m_FloatLane on every component
					FloatKernel_Mod,		// frac(a / b) * b, with a route per constant operand
					FloatKernel_Neg,		// a sign flip of source 0
				};

				// How the integer kernels evaluate an operator (ints and bools).
				enum EIntKernel : u8
				{
					IntKernel_Lanes = 0,	// one vector operation per four lanes, two sources
					IntKernel_Unary,		// one vector operation per four lanes, source 0 only
					IntKernel_Div,			// by a uniform constant: sign trick, shift or magic number; else per lane
					IntKernel_Mod,			// the same, for the remainder
					IntKernel_Shift,		// by a uniform count: one vector shift; else per lane (count & 31)
				};

				// A scalar rule: the operator on one 32-bit integer lane (ScalarOps); a unary
				// rule ignores b.
				using FnIntRule = s32 (*)(s32 a, s32 b);

				struct STraits
				{
					u8 m_ParameterCount;		// read by the VM: 1 for unary operators, 2 otherwise
					const char *m_Name;			// assembler / disassembler mnemonic
					EFloatKernel m_FloatKernel;
					MathOp::EOp2Type m_FloatLane;		// for FloatKernel_Lanes, else Op2_None
					EIntKernel m_IntKernel;
					FnIntRule m_IntRule;		// the per-lane definition every integer path shares

					// The bitwise operators exist for integers and bools only.
					constexpr bool FloatSupported() const { return m_FloatKernel != FloatKernel_None; }
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
					{2, "add", FloatKernel_Lanes, MathOp::Op2_Add, IntKernel_Lanes, &ScalarOps::AddS32},
					{2, "sub", FloatKernel_Lanes, MathOp::Op2_Sub, IntKernel_Lanes, &ScalarOps::SubS32},
					{2, "mul", FloatKernel_Lanes, MathOp::Op2_Mul, IntKernel_Lanes, &ScalarOps::MulS32},
					{2, "div", FloatKernel_Lanes, MathOp::Op2_Div, IntKernel_Div, &ScalarOps::DivS32},
					{2, "mod", FloatKernel_Mod, MathOp::Op2_None, IntKernel_Mod, &ScalarOps::ModS32},
					{1, "neg", FloatKernel_Neg, MathOp::Op2_None, IntKernel_Unary, &ScalarOps::Unary<&ScalarOps::NegS32>},
					{2, "shl", FloatKernel_None, MathOp::Op2_None, IntKernel_Shift, &ScalarOps::ShlS32},
					{2, "shr", FloatKernel_None, MathOp::Op2_None, IntKernel_Shift, &ScalarOps::SarS32},
					{2, "shrl", FloatKernel_None, MathOp::Op2_None, IntKernel_Shift, &ScalarOps::ShrS32},
					{2, "and", FloatKernel_None, MathOp::Op2_None, IntKernel_Lanes, &ScalarOps::AndS32},
					{2, "or", FloatKernel_None, MathOp::Op2_None, IntKernel_Lanes, &ScalarOps::OrS32},
					{2, "xor", FloatKernel_None, MathOp::Op2_None, IntKernel_Lanes, &ScalarOps::XorS32},
					{1, "not", FloatKernel_None, MathOp::Op2_None, IntKernel_Unary, &ScalarOps::Unary<&ScalarOps::NotS32>},
					{2, "cmplt", FloatKernel_Lanes, MathOp::Op2_LT, IntKernel_Lanes, &ScalarOps::CmpLtS32},
					{2, "cmple", FloatKernel_Lanes, MathOp::Op2_LE, IntKernel_Lanes, &ScalarOps::CmpLeS32},
					{2, "cmpgt", FloatKernel_Lanes, MathOp::Op2_GT, IntKernel_Lanes, &ScalarOps::CmpGtS32},
					{2, "cmpge", FloatKernel_Lanes, MathOp::Op2_GE, IntKernel_Lanes, &ScalarOps::CmpGeS32},
					{2, "cmpeq", FloatKernel_Lanes, MathOp::Op2_EQ, IntKernel_Lanes, &ScalarOps::CmpEqS32},
					{2, "cmpne", FloatKernel_Lanes, MathOp::Op2_NE, IntKernel_Lanes, &ScalarOps::CmpNeS32},
				};
				static constexpr STraits kUnknownTraits = {2, "?", FloatKernel_None, MathOp::Op2_None, IntKernel_Lanes, nullptr};

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

			// The rows agree with themselves: one source exactly for the unary kernels, a
			// lane exactly for the lanewise float kernels, a rule for every operator.
			constexpr bool _TraitsAreConsistent()
			{
				using T = SOp_MathOp;
				for (const T::STraits &t : T::kTraits)
				{
					if ((t.m_ParameterCount == 1) != (t.m_IntKernel == T::IntKernel_Unary) || t.m_ParameterCount < 1 || t.m_ParameterCount > 2)
						return false;
					if ((t.m_FloatKernel == T::FloatKernel_Lanes) != (t.m_FloatLane != MathOp::Op2_None))
						return false;
					if (t.m_FloatKernel == T::FloatKernel_Neg && t.m_ParameterCount != 1)
						return false;
					if (t.m_IntRule == nullptr || t.m_Name == nullptr)
						return false;
				}
				return true;
			}
			static_assert(sizeof(SOp_MathOp::kTraits) / sizeof(SOp_MathOp::kTraits[0]) == SOp_MathOp::__MaxOps, "one traits entry per operator");
			static_assert(_TraitsAreConsistent(), "each operator row agrees with itself");
			static_assert(SOp_MathOp::OperatorTraits(SOp_MathOp::Op_Neg).m_ParameterCount == 1 && SOp_MathOp::OperatorTraits(SOp_MathOp::Op_Bitwise_Not).m_ParameterCount == 1, "the unary operators");
			static_assert(!SOp_MathOp::kTraits[SOp_MathOp::Op_Bitwise_ShiftLeft].FloatSupported() && !SOp_MathOp::kTraits[SOp_MathOp::Op_Bitwise_Not].FloatSupported() &&
						  SOp_MathOp::kTraits[SOp_MathOp::Op_Cmp_Lower].FloatSupported() && SOp_MathOp::kTraits[SOp_MathOp::Op_Neg].FloatSupported(), "bitwise operators are integer-only");
			static_assert(SOp_MathOp::OperatorTraits(SOp_MathOp::EOp(200)).m_ParameterCount == 2, "an unknown operator reads as a two-operand one");
		}
	}
}
