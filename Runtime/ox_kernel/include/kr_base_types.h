#pragma once
// Fixed-width scalars, the value-type enumeration shared by the compiler and the VM,
// and the small vocabulary types every runtime header leans on.

#include <cstddef>
#include <cstdint>
#include <cstring>

#define OX_NAMESPACE Orvex

// The one spelling of "always inline" (GCC and Clang): kernel loop bodies, the lambdas of
// kernel loops and the vector wrappers' operations, whose call would cost more than their
// work, or which a kernel holding every operator's loops would push past the inliner's
// budget.
#define OX_ALWAYS_INLINE __attribute__((always_inline))

namespace Orvex
{
	using u8 = std::uint8_t;
	using s8 = std::int8_t;
	using u16 = std::uint16_t;
	using s16 = std::int16_t;
	using u32 = std::uint32_t;
	using s32 = std::int32_t;
	using u64 = std::uint64_t;
	using s64 = std::int64_t;

	// Lets assertion sites read "ptr != null", which is also the text they report.
	inline constexpr std::nullptr_t null = nullptr;

	//----------------------------------------------------------------------------
	// Value types. Register identifiers store (type + 1) in a 6-bit field, so
	// BaseType_Evolved (-1) is field 0 and the largest field value, 63, means 62:
	// anything past __MaxBaseTypes must be treated as "no such type".

	enum EBaseTypeID : s32
	{
		BaseType_Evolved = -1,
		BaseType_Void = 0,
		BaseType_Bool, BaseType_Bool2, BaseType_Bool3, BaseType_Bool4,
		BaseType_U8, BaseType_UByte2, BaseType_UByte3, BaseType_UByte4,
		BaseType_I8, BaseType_Byte2, BaseType_Byte3, BaseType_Byte4,
		BaseType_U16, BaseType_UWord2, BaseType_UWord3, BaseType_UWord4,
		BaseType_I16, BaseType_Word2, BaseType_Word3, BaseType_Word4,
		BaseType_U32, BaseType_UInt2, BaseType_UInt3, BaseType_UInt4,
		BaseType_I32, BaseType_Int2, BaseType_Int3, BaseType_Int4,
		BaseType_U64, BaseType_I64,
		BaseType_Float, BaseType_Float2, BaseType_Float3, BaseType_Float4,
		BaseType_Double,
		BaseType_Quaternion,
		__MaxBaseTypes
	};

	static_assert(BaseType_Bool == 1 && BaseType_Bool4 == 4, "EBaseTypeID: bools");
	static_assert(BaseType_U8 == 5 && BaseType_Byte4 == 12, "EBaseTypeID: 8-bit family");
	static_assert(BaseType_U16 == 13 && BaseType_Word4 == 20, "EBaseTypeID: 16-bit family");
	static_assert(BaseType_U32 == 21 && BaseType_UInt4 == 24, "EBaseTypeID: unsigned 32-bit family");
	static_assert(BaseType_I32 == 25 && BaseType_Int4 == 28, "EBaseTypeID: signed 32-bit family");
	static_assert(BaseType_U64 == 29 && BaseType_I64 == 30, "EBaseTypeID: 64-bit integers");
	static_assert(BaseType_Float == 31 && BaseType_Float4 == 34, "EBaseTypeID: floats");
	static_assert(BaseType_Double == 35 && BaseType_Quaternion == 36 && __MaxBaseTypes == 37, "EBaseTypeID: tail");

	// Number of entries of a table indexed by (type + 1): Evolved .. Quaternion.
	inline constexpr u32 kBaseTypeTableSize = u32(__MaxBaseTypes) + 1;
	// Values of a register id's 6-bit type field (type + 1): the type table's size.
	inline constexpr u32 kTypeFieldCount = 64;

	// What the components of a value type are, as the math kernels see them.
	enum EElementKind : u8
	{
		ElementKind_None = 0,	// no 32-bit lane kernel: void, 8/16/64-bit and unsigned integers, double
		ElementKind_Float,		// 32-bit floats: float .. float4, quaternion
		ElementKind_Int,		// signed 32-bit integers: i32 .. int4
		ElementKind_Bool,		// 32-bit masks: bool .. bool4, run by the integer kernels
	};

	// One row per value type: every table indexed by type (names, element sizes, the
	// kernels a type runs through) is this one or derived from it.
	struct SBaseTypeInfo
	{
		const char *m_Name;		// as the assembler reads it
		u32 m_Size;				// bytes of one element in a register: the stream stride
		u8 m_Components;		// components of an element (0 for void and evolved)
		EElementKind m_Kind;
	};

	// Indexed by the type field (type + 1), all 64 values: past Quaternion, "?" of size 0.
	inline constexpr SBaseTypeInfo kBaseTypes[kTypeFieldCount] = {
		{"evolved", 0, 0, ElementKind_None}, {"void", 0, 0, ElementKind_None},
		{"bool", 4, 1, ElementKind_Bool}, {"bool2", 8, 2, ElementKind_Bool}, {"bool3", 12, 3, ElementKind_Bool}, {"bool4", 16, 4, ElementKind_Bool},
		{"u8", 1, 1, ElementKind_None}, {"ubyte2", 2, 2, ElementKind_None}, {"ubyte3", 3, 3, ElementKind_None}, {"ubyte4", 4, 4, ElementKind_None},
		{"i8", 1, 1, ElementKind_None}, {"byte2", 2, 2, ElementKind_None}, {"byte3", 3, 3, ElementKind_None}, {"byte4", 4, 4, ElementKind_None},
		{"u16", 2, 1, ElementKind_None}, {"uword2", 4, 2, ElementKind_None}, {"uword3", 6, 3, ElementKind_None}, {"uword4", 8, 4, ElementKind_None},
		{"i16", 2, 1, ElementKind_None}, {"word2", 4, 2, ElementKind_None}, {"word3", 6, 3, ElementKind_None}, {"word4", 8, 4, ElementKind_None},
		{"u32", 4, 1, ElementKind_None}, {"uint2", 8, 2, ElementKind_None}, {"uint3", 12, 3, ElementKind_None}, {"uint4", 16, 4, ElementKind_None},
		{"i32", 4, 1, ElementKind_Int}, {"int2", 8, 2, ElementKind_Int}, {"int3", 12, 3, ElementKind_Int}, {"int4", 16, 4, ElementKind_Int},
		{"u64", 8, 1, ElementKind_None}, {"i64", 8, 1, ElementKind_None},
		{"float", 4, 1, ElementKind_Float}, {"float2", 8, 2, ElementKind_Float}, {"float3", 12, 3, ElementKind_Float}, {"float4", 16, 4, ElementKind_Float},
		{"double", 8, 1, ElementKind_None},
		{"quaternion", 16, 4, ElementKind_Float},
		{"?", 0, 0, ElementKind_None}, {"?", 0, 0, ElementKind_None}, {"?", 0, 0, ElementKind_None}, {"?", 0, 0, ElementKind_None},
		{"?", 0, 0, ElementKind_None}, {"?", 0, 0, ElementKind_None}, {"?", 0, 0, ElementKind_None}, {"?", 0, 0, ElementKind_None},
		{"?", 0, 0, ElementKind_None}, {"?", 0, 0, ElementKind_None}, {"?", 0, 0, ElementKind_None}, {"?", 0, 0, ElementKind_None},
		{"?", 0, 0, ElementKind_None}, {"?", 0, 0, ElementKind_None}, {"?", 0, 0, ElementKind_None}, {"?", 0, 0, ElementKind_None},
		{"?", 0, 0, ElementKind_None}, {"?", 0, 0, ElementKind_None}, {"?", 0, 0, ElementKind_None}, {"?", 0, 0, ElementKind_None},
		{"?", 0, 0, ElementKind_None}, {"?", 0, 0, ElementKind_None}, {"?", 0, 0, ElementKind_None}, {"?", 0, 0, ElementKind_None},
		{"?", 0, 0, ElementKind_None}, {"?", 0, 0, ElementKind_None},
	};

	// The row of any value: outside the enumeration, the "?" row.
	constexpr const SBaseTypeInfo &BaseTypeInfo(EBaseTypeID type)
	{
		return kBaseTypes[u32(s32(type) + 1) < kTypeFieldCount ? u32(s32(type) + 1) : kTypeFieldCount - 1];
	}

	// Readable name of a value type; any value outside the enumeration gives "?".
	constexpr const char *BaseTypeName(EBaseTypeID type) { return BaseTypeInfo(type).m_Name; }

	// The rows agree with the enumeration: a kernel kind only for 32-bit components, the
	// component count of every vector family, nothing past the last type.
	constexpr bool _BaseTypesAreConsistent()
	{
		for (u32 field = 0; field < kTypeFieldCount; ++field)
		{
			const SBaseTypeInfo &t = kBaseTypes[field];
			if (t.m_Kind != ElementKind_None && t.m_Size != 4u * t.m_Components)
				return false;
			if (field >= kBaseTypeTableSize && (t.m_Size != 0 || t.m_Name[0] != '?'))
				return false;
		}
		return true;
	}
	static_assert(sizeof(kBaseTypes) / sizeof(kBaseTypes[0]) == kTypeFieldCount, "one row per type field");
	static_assert(_BaseTypesAreConsistent(), "a kernel kind only for 32-bit components; nothing past Quaternion");
	static_assert(BaseTypeInfo(BaseType_Float3).m_Size == 12 && BaseTypeInfo(BaseType_Quaternion).m_Components == 4 && BaseTypeInfo(BaseType_Bool3).m_Kind == ElementKind_Bool,
				  "rows in enumeration order");
	static_assert(BaseTypeInfo(BaseType_Double).m_Size == 8 && BaseTypeInfo(BaseType_Word3).m_Size == 6 && BaseTypeInfo(BaseType_UInt4).m_Kind == ElementKind_None,
				  "types without a kernel");
	static_assert(BaseTypeInfo(EBaseTypeID(200)).m_Size == 0 && BaseTypeInfo(EBaseTypeID(-5)).m_Name[0] == '?', "any value is safe");

	//----------------------------------------------------------------------------
	// Identifiers: a typed integer whose all-ones value means "none".

	template <typename _Type>
	struct TGuid
	{
		static constexpr _Type INVALID = static_cast<_Type>(~_Type(0));
		_Type m_Value = INVALID;

		constexpr bool Valid() const { return m_Value != INVALID; }
	};
	using CGuid = TGuid<u32>;

	static_assert(TGuid<u32>::INVALID == 0xFFFFFFFFu, "TGuid<u32>::INVALID must be all ones");

	class CNonCopyable
	{
	protected:
		CNonCopyable() = default;
		~CNonCopyable() = default;

	public:
		CNonCopyable(const CNonCopyable &) = delete;
		CNonCopyable &operator=(const CNonCopyable &) = delete;
	};

	// Unaligned little-endian access, as bytecode is laid out. memcpy compiles to one
	// plain load or store on x86-64; big-endian hosts would swap here.
	template <typename _Type>
	inline _Type OXLoadAndSwapLittleEndian(const void *src)
	{
		_Type value;
		std::memcpy(&value, src, sizeof(_Type));
		return value;
	}

	template <typename _Type>
	inline void OXSwapAndStoreLittleEndian(void *dst, _Type value)
	{
		std::memcpy(dst, &value, sizeof(_Type));
	}

#if defined(__BYTE_ORDER__) && __BYTE_ORDER__ != __ORDER_LITTLE_ENDIAN__
#error "bytecode access assumes a little-endian host"
#endif

	namespace Mem
	{
		template <std::size_t _Alignment>
		inline bool IsAligned(const void *ptr)
		{
			static_assert(_Alignment != 0 && (_Alignment & (_Alignment - 1)) == 0, "alignment must be a power of two");
			return (reinterpret_cast<std::uintptr_t>(ptr) & (_Alignment - 1)) == 0;
		}
	}
}
