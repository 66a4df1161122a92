#pragma once
// The value types and register banks as the oxvm text format names them.

#include "cbvm_meta_ops.h"
#include "cp_ir_details.h"
#include "kr_base_types.h"

#include <string_view>

namespace OxVm
{
	using namespace Orvex;

	// What the tool needs of a value type: the library's type table (kr_base_types.h).
	struct STypeInfo
	{
		EBaseTypeID m_Type = BaseType_Void;
		EElementKind m_Kind = ElementKind_None;
		u32 m_Components = 0;	// 32-bit components per element (0 for ElementKind_None)
	};

	// Any EBaseTypeID value; a value outside the enumeration has kind None.
	inline STypeInfo TypeInfo(EBaseTypeID type)
	{
		const SBaseTypeInfo &info = BaseTypeInfo(type);
		return {type, info.m_Kind, info.m_Kind != ElementKind_None ? u32(info.m_Components) : 0u};
	}
	// By BaseTypeName ("float3", "double", ...); false when no type has that name.
	bool FindType(std::string_view name, EBaseTypeID &type);
	inline bool HasKernel(EBaseTypeID type) { return TypeInfo(type).m_Kind != ElementKind_None; }
	inline u32 ElementSize(EBaseTypeID type) { return TypeInfo(type).m_Components * 4; }
	// The bool type with 'components' components.
	EBaseTypeID BoolType(u32 components);

	// "constant", "normal", "instance", "stream" (MetaTypeName); false for other names.
	bool FindBank(std::string_view name, Compiler::EMetaType &bank);
	// Instance and Stream registers hold one value per element.
	inline bool IsPerElement(Compiler::EMetaType bank) { return bank >= Compiler::MetaType_Instance; }

	// Register id fields read without the VM's assertions (the tool checks ids itself).
	inline u32 RawSlot(u32 bits) { return CVMRegID::SlotOf(bits); }
	inline Compiler::EMetaType RawBank(u32 bits) { return CVMRegID::BankOf(bits); }
	inline EBaseTypeID RawType(u32 bits) { return CVMRegID::TypeOf(bits); }
	// (Whether the text can name an id: CBVM::IsPlainRegisterId, cbvm_math_op_decoder.h.)
}
