#pragma once
// Kernel rows: which selector, and so which element layout, a value type runs through,
// derived from the type table (kr_base_types.h). Booleans go through the integer
// kernels and a quaternion through the four-component float kernel; every other type
// has no kernel (row 0).

#include "kr_base_types.h"

#include <array>

namespace Orvex
{
	namespace MathOp
	{
		enum EKernelRow : u8
		{
			Row_None = 0,
			Row_Float1, Row_Float2, Row_Float3, Row_Float4,
			Row_Int1, Row_Int2, Row_Int3, Row_Int4,
			__MaxKernelRows
		};

		// The row of a type table entry: its element kind and component count.
		constexpr EKernelRow _KernelRowOf(const SBaseTypeInfo &type)
		{
			switch (type.m_Kind)
			{
			case ElementKind_Float: return EKernelRow(Row_Float1 + type.m_Components - 1);
			case ElementKind_Int:
			case ElementKind_Bool: return EKernelRow(Row_Int1 + type.m_Components - 1);
			default: return Row_None;
			}
		}

		constexpr u32 _RowComponents(EKernelRow row) { return row == Row_None ? 0u : (u32(row) - 1u) % 4u + 1u; }

		// Indexed by a register id's 6-bit type field (type + 1): any field value is safe.
		inline constexpr std::array<EKernelRow, kTypeFieldCount> _KernelRowOfTypeField = []() {
			std::array<EKernelRow, kTypeFieldCount> rows = {};
			for (u32 field = 0; field < kTypeFieldCount; ++field)
				rows[field] = _KernelRowOf(kBaseTypes[field]);
			return rows;
		}();

		// The row of any type value (the table covers every type field).
		inline EKernelRow _KernelRowOfType(EBaseTypeID type) { return _KernelRowOfTypeField[u32(s32(type) + 1) % kTypeFieldCount]; }

		// Element sizes by type field, 0 past the table: one load, no range test.
		inline constexpr std::array<u32, kTypeFieldCount> _TypeFieldSizes = []() {
			std::array<u32, kTypeFieldCount> sizes = {};
			for (u32 field = 0; field < kTypeFieldCount; ++field)
				sizes[field] = kBaseTypes[field].m_Size;
			return sizes;
		}();

		// Every type with a kernel has the element size its kernel walks: 4 bytes per
		// component. So "destination size == source 0 size" is all the one-element path
		// still has to test about strides.
		constexpr bool _RowSizesMatchTypeSizes()
		{
			for (u32 field = 0; field < 64; ++field)
				if (_KernelRowOfTypeField[field] != Row_None && _TypeFieldSizes[field] != 4 * _RowComponents(_KernelRowOfTypeField[field]))
					return false;
			return true;
		}
		static_assert(_RowSizesMatchTypeSizes(), "a kernel row's element is 4 bytes per component");
		static_assert(_KernelRowOfTypeField[BaseType_Bool3 + 1] == Row_Int3 && _KernelRowOfTypeField[BaseType_Quaternion + 1] == Row_Float4, "bools and quaternions");
		static_assert(_KernelRowOfTypeField[BaseType_Double + 1] == Row_None && _KernelRowOfTypeField[63] == Row_None, "types without a kernel");

		// Runs the selector of a kernel row with 'args': _Selectors::Float<N> or
		// _Selectors::Int<N> (each path has its family); false for Row_None. The switch
		// compiles to one indexed jump.
		template <typename _Selectors, typename... _Args>
		inline OX_ALWAYS_INLINE bool RunRowSelector(EKernelRow row, const _Args &...args)
		{
			switch (row)
			{
			case Row_Float1: _Selectors::template Float<1>(args...); return true;
			case Row_Float2: _Selectors::template Float<2>(args...); return true;
			case Row_Float3: _Selectors::template Float<3>(args...); return true;
			case Row_Float4: _Selectors::template Float<4>(args...); return true;
			case Row_Int1: _Selectors::template Int<1>(args...); return true;
			case Row_Int2: _Selectors::template Int<2>(args...); return true;
			case Row_Int3: _Selectors::template Int<3>(args...); return true;
			case Row_Int4: _Selectors::template Int<4>(args...); return true;
			default: return false;
			}
		}
	}
}
