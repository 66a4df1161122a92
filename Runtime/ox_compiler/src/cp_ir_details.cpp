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
			bool SOp_MathOp::OperatorFromName(const char *name, EOp &op)
			{
				for (u32 i = 0; i < u32(__MaxOps); ++i)
				{
					if (std::strcmp(SOp_MathOp::kTraits[i].m_Name, name) == 0)
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
