#pragma once
// Fixed-width scalars, the value-type enumeration shared by the compiler and the VM,
// and the small vocabulary types every runtime header leans on.

#include <cstddef>
#include <cstdint>
#include <cstring>

#define OX_NAMESPACE Orvex

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

	// Readable name of a value type; any value outside the enumeration gives "?".
	const char *BaseTypeName(EBaseTypeID type);

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
