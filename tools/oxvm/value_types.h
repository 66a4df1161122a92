#pragma once
// The value types and register banks as the oxvm text format names them.

#include "cp_ir_details.h"
#include "kr_base_types.h"

#include <string_view>

namespace OxVm
{
	using namespace Orvex;

	enum EValueKind : u8
	{
		ValueKind_Float,	// float .. float4, quaternion
		ValueKind_Int,		// i32 .. int4
		ValueKind_Bool,		// bool .. bool4: 32-bit masks, run by the integer kernels
		ValueKind_Other,	// named by BaseTypeName but without a math kernel
	};

	struct STypeInfo
	{
		EBaseTypeID m_Type = BaseType_Void;
		EValueKind m_Kind = ValueKind_Other;
		u32 m_Components = 0;	// 32-bit components per element (0 for ValueKind_Other)
	};

	// Any EBaseTypeID value; a value outside the enumeration has kind Other.
	STypeInfo TypeInfo(EBaseTypeID type);
	// By BaseTypeName ("float3", "double", ...); false when no type has that name.
	bool FindType(std::string_view name, EBaseTypeID &type);
	inline bool HasKernel(EBaseTypeID type) { return TypeInfo(type).m_Kind != ValueKind_Other; }
	inline u32 ElementSize(EBaseTypeID type) { return TypeInfo(type).m_Components * 4; }
	// The bool type with 'components' components.
	EBaseTypeID BoolType(u32 components);

	// "constant", "normal", "instance", "stream" (MetaTypeName); false for other names.
	bool FindBank(std::string_view name, Compiler::EMetaType &bank);
	// Instance and Stream registers hold one value per element.
	inline bool IsPerElement(Compiler::EMetaType bank) { return bank >= Compiler::MetaType_Instance; }

	// Register id fields read without the VM's assertions (the tool checks ids itself).
	inline u32 RawSlot(u32 bits) { return bits & Compiler::IR::CRegID::RegisterSlotMask; }
	inline Compiler::EMetaType RawBank(u32 bits) { return Compiler::EMetaType(((bits >> Compiler::IR::CRegID::RegisterBankShift) & 3u) + 1); }
	inline EBaseTypeID RawType(u32 bits) { return EBaseTypeID(s32((bits >> Compiler::IR::CRegID::RegisterTypeShift) & 63u) - 1); }
	// Nothing set outside slot, bank and type (no meta bit, no top bits): what the text can name.
	inline bool IsPlainRegister(u32 bits) { return (bits & ~(Compiler::IR::CRegID::RegisterMask & ~(1u << Compiler::IR::CRegID::RegisterMetaShift))) == 0; }
}
