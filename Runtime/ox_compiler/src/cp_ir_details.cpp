#include "cp_ir_details.h"

#include <cstring>

namespace Orvex
{
	namespace Compiler
	{
		const char *MetaTypeName(EMetaType metaType)
		{
			static constexpr const char *kNames[__MaxMetaTypes] = {"transparent", "constant", "normal", "instance", "stream"};
			return u32(metaType) < __MaxMetaTypes ? kNames[metaType] : "?";
		}

		namespace IR
		{
			namespace
			{
				using STraits = SOp_MathOp::STraits;

				// Indexed by EOp.
				constexpr STraits kTraits[SOp_MathOp::__MaxOps] = {
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
				static_assert(sizeof(kTraits) / sizeof(kTraits[0]) == SOp_MathOp::__MaxOps, "one traits entry per operator");
				static_assert(kTraits[SOp_MathOp::Op_Neg].m_ParameterCount == 1 && kTraits[SOp_MathOp::Op_Bitwise_Not].m_ParameterCount == 1, "the unary operators");
				static_assert(!kTraits[SOp_MathOp::Op_Bitwise_ShiftLeft].m_FloatSupported && !kTraits[SOp_MathOp::Op_Bitwise_Not].m_FloatSupported &&
							  kTraits[SOp_MathOp::Op_Cmp_Lower].m_FloatSupported && kTraits[SOp_MathOp::Op_Neg].m_FloatSupported, "bitwise operators are integer-only");

				constexpr STraits kUnknownTraits = {2, false, "?", "?"};
			}

			const SOp_MathOp::STraits &SOp_MathOp::OperatorTraits(EOp op)
			{
				return u32(op) < u32(__MaxOps) ? kTraits[op] : kUnknownTraits;
			}

			bool SOp_MathOp::OperatorFromName(const char *name, EOp &op)
			{
				for (u32 i = 0; i < u32(__MaxOps); ++i)
				{
					if (std::strcmp(kTraits[i].m_Name, name) == 0)
					{
						op = EOp(i);
						return true;
					}
				}
				return false;
			}

			void SOp_MathOp::DescToGeneric(const SDesc &desc, SOp_Generic &generic)
			{
				generic.m_OpClass = SOp_Generic::OpClass_MathOp;
				generic.m_Operator = u32(desc.m_Op);
				generic.m_DstReg = desc.m_DstReg;
				generic.m_SrcRegs[0] = desc.m_SrcReg0;
				generic.m_SrcRegs[1] = desc.m_SrcReg1;
				generic.m_SrcRegs[2] = CRegID();
				generic.m_SourceCount = desc.m_SrcReg1.Valid() ? 2 : (desc.m_SrcReg0.Valid() ? 1 : 0);
			}
		}
	}
}
