#include "value_types.h"

namespace OxVm
{
	bool FindType(std::string_view name, EBaseTypeID &type)
	{
		for (s32 t = BaseType_Evolved; t < __MaxBaseTypes; ++t)
		{
			if (name == BaseTypeName(EBaseTypeID(t)))
			{
				type = EBaseTypeID(t);
				return true;
			}
		}
		return false;
	}

	EBaseTypeID BoolType(u32 components)
	{
		return EBaseTypeID(BaseType_Bool + s32(components) - 1);
	}

	bool FindBank(std::string_view name, Compiler::EMetaType &bank)
	{
		for (u32 b = Compiler::MetaType_Constant; b <= Compiler::MetaType_Stream; ++b)
		{
			if (name == Compiler::MetaTypeName(Compiler::EMetaType(b)))
			{
				bank = Compiler::EMetaType(b);
				return true;
			}
		}
		return false;
	}
}
