#pragma once
// TVector<T, N>: the element of a stream, N packed components with no padding
// (a three-component float element is 12 bytes), so a packed stream of N-vectors
// is exactly a flat array of N * count scalars.

#include "kr_base_types.h"

namespace Orvex
{
	template <typename _Type, int _Dimension>
	struct TVector
	{
		static_assert(_Dimension >= 1 && _Dimension <= 4, "TVector holds 1 to 4 components");
		using ScalarType = _Type;
		static constexpr int Dimension = _Dimension;

		_Type m_Data[_Dimension];

		constexpr _Type &operator[](int i) { return m_Data[i]; }
		constexpr const _Type &operator[](int i) const { return m_Data[i]; }
	};

	static_assert(sizeof(TVector<float, 1>) == 4 && sizeof(TVector<float, 2>) == 8, "TVector<float, N> is 4 * N bytes");
	static_assert(sizeof(TVector<float, 3>) == 12 && sizeof(TVector<float, 4>) == 16, "TVector<float, N> is 4 * N bytes");
	static_assert(sizeof(TVector<int, 3>) == 12 && alignof(TVector<int, 3>) == 4, "TVector<int, 3> is unpadded");
}
