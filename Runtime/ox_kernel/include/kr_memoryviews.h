#pragma once
// TStridedMemoryView<T>: (pointer, count, byte stride) over elements of T.
// A stride of 0 makes every index read element 0, which is how a single value is
// broadcast over a stream without copying it.

#include "kr_assert.h"
#include "kr_base_types.h"

#include <type_traits>

namespace Orvex
{
	template <typename _Type>
	class TStridedMemoryView
	{
	public:
		static constexpr u32 ValueFootprintInBytes = u32(sizeof(_Type));
		using RawPointer = std::conditional_t<std::is_const_v<_Type>, const u8 *, u8 *>;

		struct SStorage
		{
			RawPointer m_RawDataPtr;
			u32 m_Count;
			u32 m_Stride;
		};

		TStridedMemoryView() : m_Storage{nullptr, 0, 0} {}

		TStridedMemoryView(_Type *data, u32 count, u32 stride)
		: m_Storage{reinterpret_cast<RawPointer>(data), count, stride}
		{
			OX_ASSERT(stride >= ValueFootprintInBytes || stride == 0);
		}

		_Type &operator[](u32 index) const
		{
			OX_ASSERT(m_Storage.m_RawDataPtr != null);
			OX_ASSERT(index < m_Storage.m_Count);
			return *reinterpret_cast<_Type *>(m_Storage.m_RawDataPtr + std::size_t(index) * m_Storage.m_Stride);
		}

		_Type *Data() const { return reinterpret_cast<_Type *>(m_Storage.m_RawDataPtr); }
		u32 Count() const { return m_Storage.m_Count; }
		u32 Stride() const { return m_Storage.m_Stride; }
		bool Empty() const { return m_Storage.m_Count == 0; }

	private:
		SStorage m_Storage;
	};
}
