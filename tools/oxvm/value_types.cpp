#include "value_types.h"

namespace OxVm
{
	STypeInfo TypeInfo(EBaseTypeID type)
	{
		STypeInfo info;
		info.m_Type = type;
		if (type >= BaseType_Bool && type <= BaseType_Bool4)
			info = {type, ValueKind_Bool, u32(type - BaseType_Bool) + 1};
		else if (type >= BaseType_I32 && type <= BaseType_Int4)
			info = {type, ValueKind_Int, u32(type - BaseType_I32) + 1};
		else if (type >= BaseType_Float && type <= BaseType_Float4)
			info = {type, ValueKind_Float, u32(type - BaseType_Float) + 1};
		else if (type == BaseType_Quaternion)
			info = {type, ValueKind_Float, 4};
		return info;
	}

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
