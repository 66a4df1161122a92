#include "kr_base_types.h"

namespace Orvex
{
	const char *BaseTypeName(EBaseTypeID type)
	{
		// Indexed by type + 1; names as the assembler reads them.
		static constexpr const char *kNames[kBaseTypeTableSize] = {
			"evolved", "void",
			"bool", "bool2", "bool3", "bool4",
			"u8", "ubyte2", "ubyte3", "ubyte4",
			"i8", "byte2", "byte3", "byte4",
			"u16", "uword2", "uword3", "uword4",
			"i16", "word2", "word3", "word4",
			"u32", "uint2", "uint3", "uint4",
			"i32", "int2", "int3", "int4",
			"u64", "i64",
			"float", "float2", "float3", "float4",
			"double", "quaternion",
		};
		static_assert(sizeof(kNames) / sizeof(kNames[0]) == kBaseTypeTableSize, "one name per type");
		const u32 index = u32(s32(type) + 1);
		return index < kBaseTypeTableSize ? kNames[index] : "?";
	}
}
