#pragma once
// TBroadcaster: turns one constant element into a block that repeats with the period
// of a packed stream, so that a kernel walking its streams in fixed blocks can read a
// constant operand exactly like a stream operand (same offsets, same loads).
//
// Broadcast12 writes 12 32-bit words (48 bytes, three 16-byte vectors): 12 is the
// smallest word count that holds a whole number of elements for every dimension
// (12, 6, 4 and 3 copies for N = 1, 2, 3, 4) and is itself a whole number of vectors.
// Only bits are copied, so float and integer constants are handled alike.
//
// Loads by dimension:
//   N = 1   one 32-bit word (any 4-byte aligned address)
//   N = 2   8 bytes         (need not be 16-byte aligned)
//   N = 3   16 bytes, 16-byte aligned: the fourth word is read and ignored, so a
//           3-component constant must be stored aligned and padded to 16 bytes
//   N = 4   16 bytes, 16-byte aligned
// The block at dst must be 16-byte aligned (three aligned stores).
//
// An alignment failure is reported and the aligned access is still performed: the
// fault that may follow then points at the offending instruction.

#include "kr_assert.h"
#include "kr_base_types.h"
#include "simd/sse/simd_vector.h"

namespace Orvex
{
	template <int _Dimension>
	class TBroadcaster
	{
		static_assert(_Dimension >= 1 && _Dimension <= 4, "TBroadcaster handles 1 to 4 components");

	public:
		// Reads one element of _Dimension words at 'src', writes the 48-byte block at
		// 'dst' and returns 'dst': callers replace their source pointer by the result.
		static const void *Broadcast12(const void *src, void *dst);

		// The 24-word form (two 48-byte halves), for kernels that walk 96-byte blocks.
		// No kernel of the math operator does, so it is declared only: a definition
		// nothing calls would go untested, and a caller that appears later fails to
		// link instead of silently running unverified code.
		static const void *Broadcast24(const void *src, void *dst);

	private:
		// The three stores of a block, each with its own report of a misaligned block.
		static void _StoreBlock(void *_dst, const SIMD_SSE::Float4 &v0, const SIMD_SSE::Float4 &v1, const SIMD_SSE::Float4 &v2)
		{
			u8 *bytes = static_cast<u8 *>(_dst);
			_StoreVector(bytes, v0);
			_StoreVector(bytes + 16, v1);
			_StoreVector(bytes + 32, v2);
		}

		static void _StoreVector(void *_dst, const SIMD_SSE::Float4 &v)
		{
			OX_ASSERT_ALIGNED16(_dst);
			v.StoreAligned16(_dst);
		}
	};

	// ---- N = 1: x x x x | x x x x | x x x x

	template <>
	inline const void *TBroadcaster<1>::Broadcast12(const void *src, void *dst)
	{
		const SIMD_SSE::Float4 x(SIMD_SSE::Scalar::Load(src));	// splat of lane 0
		_StoreBlock(dst, x, x, x);
		return dst;
	}

	// ---- N = 2: x y x y | x y x y | x y x y

	template <>
	inline const void *TBroadcaster<2>::Broadcast12(const void *src, void *dst)
	{
		// 8-byte load: a 2-component constant only needs its own 8 bytes to be readable.
		const SIMD_SSE::Float4 xy = SIMD_SSE::Float4::LoadFloat2(src).Swizzle<0, 1, 0, 1>();
		_StoreBlock(dst, xy, xy, xy);
		return dst;
	}

	// ---- N = 3: x y z x | y z x y | z x y z
	// Four elements span the three vectors; each vector starts one component further
	// along the element than the previous one, hence the three rotations.

	template <>
	inline const void *TBroadcaster<3>::Broadcast12(const void *src, void *dst)
	{
		OX_ASSERT_ALIGNED16(src);
		const SIMD_SSE::Float4 xyz_ = SIMD_SSE::Float4::LoadAligned16(src);	// lane 3 is not part of the element
		_StoreBlock(dst, xyz_.Swizzle<0, 1, 2, 0>(), xyz_.Swizzle<1, 2, 0, 1>(), xyz_.Swizzle<2, 0, 1, 2>());
		return dst;
	}

	// ---- N = 4: x y z w | x y z w | x y z w

	template <>
	inline const void *TBroadcaster<4>::Broadcast12(const void *src, void *dst)
	{
		OX_ASSERT_ALIGNED16(src);
		const SIMD_SSE::Float4 xyzw = SIMD_SSE::Float4::LoadAligned16(src);
		_StoreBlock(dst, xyzw, xyzw, xyzw);
		return dst;
	}
}
