#pragma once
// Standard execution path: the float stream kernels.
//
// A stream of TVector<float, N> is a flat float array. The kernels run over whole
// 16-byte vectors with aligned loads and stores only:
//   - both sources packed: the three streams are walked as flat arrays, one vector per
//     iteration whatever N is; when 1 to 3 floats are left, one more full vector of each
//     source is loaded and its result stored partially (see below);
//   - one constant source: the constant is broadcast into registers once, outside the
//     loop (three rotations of it for N = 3, whose 12-byte period spans 3 vectors);
//   - anything else (a non-packed destination, two constants) takes a per-component
//     scalar loop, counted as a hazard and reported once as a performance warning.
// Each vector loop checks its stream pointers for 16-byte alignment once, on entry:
// aligned pointers (always, from the register file) run the loop without a check per
// access (SIMD_SSE::TAlignedAccess<true>); a misaligned one runs the same loop with the
// vector library's checked accesses, which report every misaligned access.
//
// Reads past the last element. A program may run in batches of elements (one thread per
// batch, every batch a multiple of 48 elements), so the bytes right after a batch's last
// element can belong to the next batch, which another thread may be writing: a load of
// them is a data race even when its lanes are thrown away. So whenever count x N floats
// is a whole number of vectors (every batch but the last one of a stream), no kernel
// here reads or writes a byte past the last element of any stream operand. Only a real
// tail, 1 to 3 floats left after the whole vectors of a packed loop (N = 1, 2, 3) or a
// one-constant loop (N = 1, 2), loads one full vector per stream source that runs up to
// 12 bytes past the end, into the padding the register file guarantees after every
// stream; its extra lanes are never stored. The test for that tail sits after the loop,
// once per call. The N = 3 one-constant loop, modulo and negation never read past the
// end at all: their tails are scalar or whole vectors inside the stream. A constant
// operand is its one element, read once before the loop (N = 3 as one aligned vector
// whose fourth float, inside the register's padding, is ignored).
//
// Every kernel has the signature of FnOp2Stream and computes src0 op src1. Modulo and
// negation have kernels of their own at the end of the file.

#include "cbvm_math_op_checks.h"
#include "cbvm_math_op_kernel_sets.h"
#include "cbvm_math_op_lanes.h"
#include "cp_ir_details.h"
#include "kr_assert.h"
#include "kr_log_unique.h"
#include "kr_memoryviews.h"
#include "kr_profiler.h"
#include "mt_scalar_ops.h"
#include "mt_vector.h"
#include "simd/sse/simd_vector.h"

#include <array>
#include <utility>

namespace Orvex
{
	namespace MathOp
	{
		using SIMD_SSE::Float4;
		using SIMD_SSE::Scalar;
		using SOp_MathOp = Compiler::IR::SOp_MathOp;

		// One constant element replicated to fill a vector (N = 1, 2, 4).
		template <int _Dimension>
		struct TDimBroadcastRouter;

		template <>
		struct TDimBroadcastRouter<1>
		{
			static Float4 Broadcast(const float *src) { return Float4(Scalar::Load(src)); }	// c c c c
		};

		template <>
		struct TDimBroadcastRouter<2>
		{
			static Float4 Broadcast(const float *src) { return Float4::LoadFloat2(src).Swizzle<0, 1, 0, 1>(); }	// x y x y
		};

		template <>
		struct TDimBroadcastRouter<4>
		{
			static Float4 Broadcast(const float *src) { return Float4::LoadAligned16(src); }	// x y z w
		};

		// Stores the first 'left' floats of 'value' (0 to 3), nothing past them.
		inline void _StorePartial(float *dst, const Float4 &value, std::ptrdiff_t left)
		{
			switch (left)
			{
			case 1: Scalar(value.m_Value).Store(dst); break;
			case 2: value.StoreFloat2(dst); break;
			case 3: value.StoreFloat3(dst); break;
			default: break;
			}
		}

		// Lane 0 of a vector as a Scalar (the three rotations of an N = 3 constant start
		// with x, y and z respectively).
		inline Scalar _Lane0(const Float4 &value) { return Scalar(value.m_Value); }

		using SIMD_SSE::TAlignedAccess;
		using SIMD_SSE::_AreAligned;

		// Floats of [first, last) that whole groups of _Group floats cover: the loops run
		// while their index is below this (one compare, no end arithmetic per iteration).
		template <std::ptrdiff_t _Group>
		inline std::ptrdiff_t _WholeGroups(const float *first, const float *last)
		{
			const std::ptrdiff_t floats = last - first;
			return floats > 0 ? floats - floats % _Group : 0;
		}

		//--------------------------------------------------------------------------------
		// Stream kernels of dimension N.

		template <typename _Type>
		struct SMathOpImpl;

		template <int _Dimension>
		struct SMathOpImpl<TVector<float, _Dimension>>
		{
			using _Type = TVector<float, _Dimension>;
			static constexpr u32 kElementBytes = u32(sizeof(_Type));

			// ---- Arithmetic and comparisons

			template <EOp2Type _Op>
			static void Op2StreamImpl(void *dst, u32 dstStride, u32 count, const void *src0, u32 stride0, const void *src1, u32 stride1)
			{
				const float *srcStream0 = static_cast<const float *>(src0);
				const float *srcStream1 = static_cast<const float *>(src1);
				OX_ASSERT(srcStream0 != null && srcStream1 != null);

				// The vector loops need a packed destination and at least one packed source.
				if (dstStride != kElementBytes || (stride0 != kElementBytes && stride1 != kElementBytes))
				{
					_SlowPath<_Op>(dst, dstStride, count, src0, stride0, src1, stride1);
					return;
				}

				float *dstStream = static_cast<float *>(dst);
				const float *dstEnd = dstStream + std::size_t(count) * _Dimension;
				if (stride0 == kElementBytes && stride1 == kElementBytes)
				{
					// Element borders do not matter to a lane-wise operator: walk flat floats.
					using Impl = TOp2Impl<_Op, false>;
					auto vector = [=](std::ptrdiff_t i, auto access) { return Impl::Op(decltype(access)::Load(srcStream0 + i), decltype(access)::Load(srcStream1 + i)); };
					if (_AreAligned<16>(dstStream, srcStream0, srcStream1))
						_VectorLoopAndTail<TAlignedAccess<true>>(dstStream, dstEnd, vector);
					else
						_VectorLoopAndTail<TAlignedAccess<false>>(dstStream, dstEnd, vector);
				}
				else if (stride1 != kElementBytes)
					Op2StreamImpl_PartiallyVarying<_Op, false>(srcStream1, srcStream0, dstStream, dstEnd);
				else
					Op2StreamImpl_PartiallyVarying<_Op, true>(srcStream0, srcStream1, dstStream, dstEnd);
			}

			// One constant element and one packed stream.
			template <EOp2Type _Op, bool _FlipArgs>
			static void Op2StreamImpl_PartiallyVarying(const float *constant, const float *srcStream, float *dstStream, const float *dstEnd)
			{
				using Impl = TOp2Impl<_Op, _FlipArgs>;
				// The constant is read once, outside the loop: only the two streams move.
				const bool aligned = _AreAligned<16>(dstStream, srcStream);
				if constexpr (_Dimension != 3)
				{
					const Float4 c = TDimBroadcastRouter<_Dimension>::Broadcast(constant);
					auto vector = [=](std::ptrdiff_t i, auto access) { return Impl::Op(decltype(access)::Load(srcStream + i), c); };
					if (aligned)
						_VectorLoopAndTail<TAlignedAccess<true>>(dstStream, dstEnd, vector);
					else
						_VectorLoopAndTail<TAlignedAccess<false>>(dstStream, dstEnd, vector);
				}
				else
				{
					// A 12-byte element repeats every 3 vectors: rotate the constant three ways.
					const Float4 c = Float4::LoadAligned16(constant);	// the fourth float is read and ignored
					const Float4 c0 = c.Swizzle<0, 1, 2, 0>();	// x y z x
					const Float4 c1 = c.Swizzle<1, 2, 0, 1>();	// y z x y
					const Float4 c2 = c.Swizzle<2, 0, 1, 2>();	// z x y z
					const std::ptrdiff_t done = aligned
						? _Rotated3Loop<Impl, TAlignedAccess<true>>(dstStream, dstEnd, srcStream, c0, c1, c2)
						: _Rotated3Loop<Impl, TAlignedAccess<false>>(dstStream, dstEnd, srcStream, c0, c1, c2);
					dstStream += done;
					srcStream += done;
					// 0 to 3 elements left. Whole vectors only where they end inside the
					// stream, scalars for the rest: nothing is read or written past dstEnd.
					const std::ptrdiff_t left = dstEnd - dstStream;
					OX_ASSERT(left <= 9 && left % 3 == 0);
					const Scalar x = _Lane0(c0), y = _Lane0(c1), z = _Lane0(c2);
					auto scalarOp = [&](int i, const Scalar &k) { Impl::Op(Scalar::Load(srcStream + i), k).Store(dstStream + i); };
					switch (left)
					{
					case 3:
						scalarOp(0, x);
						scalarOp(1, y);
						scalarOp(2, z);
						break;
					case 6:
						Impl::Op(Float4::LoadAligned16(srcStream), c0).StoreAligned16(dstStream);
						scalarOp(4, y);
						scalarOp(5, z);
						break;
					case 9:
						Impl::Op(Float4::LoadAligned16(srcStream + 0), c0).StoreAligned16(dstStream + 0);
						Impl::Op(Float4::LoadAligned16(srcStream + 4), c1).StoreAligned16(dstStream + 4);
						scalarOp(8, z);
						break;
					default:
						break;
					}
				}
			}

		private:
			// dstStream[i .. i + 3] = vector(i, _Access()) for every whole vector before
			// dstEnd, then the tail (see _Tail) when floats are left. 'vector' loads through
			// the access type it is given.
			template <typename _Access, typename _FnVector>
			static void _VectorLoopAndTail(float *dstStream, const float *dstEnd, const _FnVector &vector)
			{
				const std::ptrdiff_t whole = _WholeGroups<4>(dstStream, dstEnd);
				std::ptrdiff_t i = 0;
				for (; i < whole; i += 4)
					_Access::Store(dstStream + i, vector(i, _Access()));
				if constexpr (_Dimension == 4)
					_Tail(dstStream + i, dstEnd, Float4::Zero());
				else if (dstStream + i != dstEnd)
				{
					// The tail's vector starts at the first float left and runs past dstEnd.
					// With no float left it would lie wholly past the last element (in the
					// next batch, when the stream is run in batches): it is not loaded.
					_Tail(dstStream + i, dstEnd, vector(i, _Access()));
				}
			}

			// N = 3 with one constant: 12 floats (4 elements, 3 vectors) per iteration.
			template <typename _Impl, typename _Access>
			static std::ptrdiff_t _Rotated3Loop(float *dstStream, const float *dstEnd, const float *srcStream, const Float4 &c0, const Float4 &c1, const Float4 &c2)
			{
				const std::ptrdiff_t whole = _WholeGroups<12>(dstStream, dstEnd);
				std::ptrdiff_t i = 0;
				for (; i < whole; i += 12)
				{
					_Access::Store(dstStream + i + 0, _Impl::Op(_Access::Load(srcStream + i + 0), c0));
					_Access::Store(dstStream + i + 4, _Impl::Op(_Access::Load(srcStream + i + 4), c1));
					_Access::Store(dstStream + i + 8, _Impl::Op(_Access::Load(srcStream + i + 8), c2));
				}
				return i;
			}

		public:
			// ---- Modulo: frac(a / b) * b, the sign of a; see ScalarOps::ModF32.

			static void Op2StreamImpl_Op2_Mod(void *dst, u32 stride, u32 count, const void *src0, u32 stride0, const void *src1, u32 stride1)
			{
				OX_ASSERT_TEXT(SKernelPredicates::DestinationPacked(stride, kElementBytes), "stride == sizeof(_Type)");
				OX_ASSERT(stride0 == sizeof(_Type) || stride0 == 0);
				OX_ASSERT(stride1 == sizeof(_Type) || stride1 == 0);
				// The walk is packed and ends 'count' destination strides after dst: a
				// reported stride below the element size stops early rather than write past
				// the destination register (count * stride bytes). A stride above it stops
				// at count packed elements, because the packed sources hold no more.
				float *dstStream = static_cast<float *>(dst);
				const float *dstStop = dstStream + std::size_t(count) * (stride < kElementBytes ? stride : kElementBytes) / sizeof(float);
				const float *srcStream0 = static_cast<const float *>(src0);
				const float *srcStream1 = static_cast<const float *>(src1);

				if (stride0 == sizeof(_Type) && stride1 == sizeof(_Type))
				{
					Op2StreamImpl_Op2_Mod_Packed(dstStream, dstStop, srcStream0, srcStream1);
					return;
				}
				OX_ASSERT_TEXT(SKernelPredicates::DestinationPacked(stride, kElementBytes), "stride == sizeof(_Type)");
				OX_ASSERT_TEXT(SKernelPredicates::ModOneConstant(stride0, stride1), "(stride0 == 0) != (stride1 == 0)");
				if (stride0 == 0 && stride1 == 0)
				{
					// Two constants are not a stream operation. Rather than read a constant
					// as if it were a stream (past its register), evaluate the one value for
					// every element, as the plain path does.
					for (; dstStream < dstStop; dstStream += _Dimension)
						for (int k = 0; k < _Dimension; ++k)
							dstStream[k] = ScalarOps::ModF32(srcStream0[k], srcStream1[k]);
					return;
				}
				if constexpr (_Dimension != 3)
				{
					const Float4 cst = TDimBroadcastRouter<_Dimension>::Broadcast(stride0 != 0 ? srcStream1 : srcStream0);
					Op2StreamImpl_Op2_Mod_V124(dstStream, dstStop, srcStream0, stride0, srcStream1, stride1, cst);
				}
				else
					Op2StreamImpl_Op2_Mod_V3(dstStream, dstStop, srcStream0, stride0, srcStream1, stride1);
			}

			static void Op2StreamImpl_Op2_Mod_Packed(float *dstStream, const float *dstStop, const float *srcStream0, const float *srcStream1)
			{
				OX_ASSERT(srcStream0 != null && srcStream1 != null);
				if (_AreAligned<16>(dstStream, srcStream0, srcStream1))
					_ModPacked<TAlignedAccess<true>>(dstStream, dstStop, srcStream0, srcStream1);
				else
					_ModPacked<TAlignedAccess<false>>(dstStream, dstStop, srcStream0, srcStream1);
			}

			// One constant operand, N = 1, 2, 4: 'cst' holds it repeated over four lanes, so
			// lane j of 'cst' is the component of the j-th float of any aligned vector.
			static void Op2StreamImpl_Op2_Mod_V124(float *dstStream, const float *dstStop, const float *srcStream0, u32 stride0, const float *srcStream1, u32 stride1, Float4 cst)
			{
				OX_ASSERT(srcStream0 != null && srcStream1 != null);
				// Only the destination and the stream operand move (a constant has stride 0).
				if (_AreAligned<16>(dstStream, stride0 != 0 ? srcStream0 : nullptr, stride1 != 0 ? srcStream1 : nullptr))
					_ModV124<TAlignedAccess<true>>(dstStream, dstStop, srcStream0, stride0, srcStream1, stride1, cst);
				else
					_ModV124<TAlignedAccess<false>>(dstStream, dstStop, srcStream0, stride0, srcStream1, stride1, cst);
			}

			// One constant operand, N = 3: the constant (and the reciprocal of a constant
			// divisor) as three rotated vectors, 12 floats (4 elements) per iteration.
			static void Op2StreamImpl_Op2_Mod_V3(float *dstStream, const float *dstStop, const float *srcStream0, u32 stride0, const float *srcStream1, u32 stride1)
			{
				OX_ASSERT(srcStream0 != null && srcStream1 != null);
				if (_AreAligned<16>(dstStream, stride0 != 0 ? srcStream0 : nullptr, stride1 != 0 ? srcStream1 : nullptr))
					_ModV3<TAlignedAccess<true>>(dstStream, dstStop, srcStream0, stride0, srcStream1, stride1);
				else
					_ModV3<TAlignedAccess<false>>(dstStream, dstStop, srcStream0, stride0, srcStream1, stride1);
			}

		private:
			template <typename _Access>
			static void _ModPacked(float *dstStream, const float *dstStop, const float *srcStream0, const float *srcStream1)
			{
				const TTruncFrac<Float4> truncFrac;
				const std::ptrdiff_t whole = _WholeGroups<4>(dstStream, dstStop);
				for (std::ptrdiff_t i = 0; i < whole; i += 4)
				{
					const Float4 a = _Access::Load(srcStream0 + i);
					const Float4 b = _Access::Load(srcStream1 + i);
					_Access::Store(dstStream + i, truncFrac(a / b) * b);
				}
				dstStream += whole;
				srcStream0 += whole;
				srcStream1 += whole;
				for (; dstStream < dstStop; ++dstStream, ++srcStream0, ++srcStream1)
					*dstStream = ScalarOps::ModF32(*srcStream0, *srcStream1);
			}

			template <typename _Access>
			static void _ModV124(float *dstStream, const float *dstStop, const float *srcStream0, u32 stride0, const float *srcStream1, u32 stride1, Float4 cst)
			{
				const TTruncFrac<Float4> truncFrac;
				alignas(16) float cstLanes[4];
				cst.StoreAligned16(cstLanes);
				if (stride1 == 0)
				{
					// Constant divisor: one reciprocal, then a multiply per vector instead of a
					// division (may differ from a true division in the last bit; accepted).
					const Float4 r = Float4(1.0f) / cst;
					alignas(16) float rLanes[4];
					r.StoreAligned16(rLanes);
					const std::ptrdiff_t whole = _WholeGroups<4>(dstStream, dstStop);
					for (std::ptrdiff_t i = 0; i < whole; i += 4)
						_Access::Store(dstStream + i, truncFrac(_Access::Load(srcStream0 + i) * r) * cst);
					dstStream += whole;
					srcStream0 += whole;
					// The tail starts on a vector boundary: float j takes lane j of r and cst.
					for (int j = 0; dstStream < dstStop; ++dstStream, ++srcStream0, ++j)
						*dstStream = ScalarOps::MulF32(ScalarOps::TruncFracF32(*srcStream0 * rLanes[j]), cstLanes[j]);
				}
				else if (stride0 == 0)
				{
					// Constant dividend: a true division per vector.
					const std::ptrdiff_t whole = _WholeGroups<4>(dstStream, dstStop);
					for (std::ptrdiff_t i = 0; i < whole; i += 4)
					{
						const Float4 b = _Access::Load(srcStream1 + i);
						_Access::Store(dstStream + i, truncFrac(cst / b) * b);
					}
					dstStream += whole;
					srcStream1 += whole;
					for (int j = 0; dstStream < dstStop; ++dstStream, ++srcStream1, ++j)
						*dstStream = ScalarOps::ModF32(cstLanes[j], *srcStream1);
				}
				// Both strides non-zero: that case belongs to the packed function.
			}

			template <typename _Access>
			static void _ModV3(float *dstStream, const float *dstStop, const float *srcStream0, u32 stride0, const float *srcStream1, u32 stride1)
			{
				const TTruncFrac<Float4> truncFrac;
				const bool constantDivisor = stride1 == 0;
				const Float4 cst = Float4::LoadFloat3(constantDivisor ? srcStream1 : srcStream0);
				const Float4 c[3] = {cst.Swizzle<0, 1, 2, 0>(), cst.Swizzle<1, 2, 0, 1>(), cst.Swizzle<2, 0, 1, 2>()};
				const float *constant = constantDivisor ? srcStream1 : srcStream0;
				if (constantDivisor)
				{
					const Float4 r = Float4(1.0f) / cst;
					const Float4 rc[3] = {r.Swizzle<0, 1, 2, 0>(), r.Swizzle<1, 2, 0, 1>(), r.Swizzle<2, 0, 1, 2>()};
					const std::ptrdiff_t whole = _WholeGroups<12>(dstStream, dstStop);
					for (std::ptrdiff_t i = 0; i < whole; i += 12)
						for (int v = 0; v < 3; ++v)
							_Access::Store(dstStream + i + 4 * v, truncFrac(_Access::Load(srcStream0 + i + 4 * v) * rc[v]) * c[v]);
					dstStream += whole;
					srcStream0 += whole;
					// Whole elements are left: float j is component j % 3.
					alignas(16) float rLanes[4];
					r.StoreAligned16(rLanes);
					for (int j = 0; dstStream < dstStop; ++dstStream, ++srcStream0, ++j)
						*dstStream = ScalarOps::MulF32(ScalarOps::TruncFracF32(*srcStream0 * rLanes[j % 3]), constant[j % 3]);
				}
				else if (stride0 == 0)
				{
					const std::ptrdiff_t whole = _WholeGroups<12>(dstStream, dstStop);
					for (std::ptrdiff_t i = 0; i < whole; i += 12)
						for (int v = 0; v < 3; ++v)
						{
							const Float4 b = _Access::Load(srcStream1 + i + 4 * v);
							_Access::Store(dstStream + i + 4 * v, truncFrac(c[v] / b) * b);
						}
					dstStream += whole;
					srcStream1 += whole;
					for (int j = 0; dstStream < dstStop; ++dstStream, ++srcStream1, ++j)
						*dstStream = ScalarOps::ModF32(constant[j % 3], *srcStream1);
				}
			}

		public:
			// ---- Negation: a sign flip, so 0 and -0 swap and a NaN keeps its payload.

			static void Op2StreamImpl_Op2_Neg(void *dst, u32 stride, u32 count, const void *datasrc0, u32 stride0, const void *datasrc1, u32 /*stride1*/)
			{
				OX_ASSERT(datasrc0 != null && datasrc1 == null);
				// A constant operand is not supported here: report it and write nothing.
				OX_VERIFY_TEXT_OR(SKernelPredicates::NegOfStream(stride, stride0, kElementBytes), "stride == sizeof(_Type) && stride0 == sizeof(_Type)", OX_ASSERT(false); return);

				float *dstStream = static_cast<float *>(dst);
				const float *dstStreamStop = dstStream + std::size_t(count) * _Dimension;
				const float *srcStream = static_cast<const float *>(datasrc0);
				const Float4 signs = Float4::LoadAligned16(SIMD_SSE::Constants::_Constant_Fp32_SignMasks);
				if (_AreAligned<16>(dstStream, srcStream))
					dstStream = _NegVectors<TAlignedAccess<true>>(dstStream, dstStreamStop, srcStream, signs);
				else
					dstStream = _NegVectors<TAlignedAccess<false>>(dstStream, dstStreamStop, srcStream, signs);
				srcStream += dstStream - static_cast<float *>(dst);
				if constexpr (_Dimension == 4)
					OX_ASSERT(dstStream == dstStreamStop);
				else
					for (; dstStream < dstStreamStop; ++dstStream, ++srcStream)
						*dstStream = ScalarOps::NegF32(*srcStream);
			}

		private:
			// Whole vectors of a negation; returns where the destination stopped.
			template <typename _Access>
			static float *_NegVectors(float *dstStream, const float *dstStreamStop, const float *srcStream, const Float4 &signs)
			{
				const std::ptrdiff_t whole = _WholeGroups<4>(dstStream, dstStreamStop);
				for (std::ptrdiff_t i = 0; i < whole; i += 4)
					_Access::Store(dstStream + i, _Access::Load(srcStream + i) ^ signs);
				return dstStream + whole;
			}

			// The packed loops end here: N = 4 always ends on dstEnd; otherwise, when 1 to 3
			// floats are left (the caller tests that), they are computed from one more full
			// vector of each source and stored partially. That vector reads up to 12 bytes
			// past the last element, into the stream's padding; only the last batch of a
			// stream has such a tail. 'lastVector' is that vector (unused for N = 4).
			static OX_ALWAYS_INLINE void _Tail(float *dstStream, const float *dstEnd, const Float4 &lastVector)
			{
				if constexpr (_Dimension == 4)
				{
					(void)lastVector;
					OX_ASSERT(dstStream == dstEnd);
				}
				else
				{
					const std::ptrdiff_t left = dstEnd - dstStream;
					OX_ASSERT(left > 0 && left < 4);
					_StorePartial(dstStream, lastVector, left);
				}
			}

			// Strides the vector loops cannot use: one scalar operation per component.
			template <EOp2Type _Op>
			static void _SlowPath(void *dst, u32 dstStride, u32 count, const void *src0, u32 stride0, const void *src1, u32 stride1)
			{
				Profiler::CHazards::CurrentThreadHazards().Increment(Profiler::CHazards::Hazard_SlowStrides);
				CPerfHotspotsRegistry::m_Registry->Touch(OX_LOG_LOCATION, "CBVM: math op: slow codepath taken, bad strides");

				const TStridedMemoryView<_Type> dstView(static_cast<_Type *>(dst), count, dstStride);
				const TStridedMemoryView<const _Type> src0View(static_cast<const _Type *>(src0), count, stride0);
				const TStridedMemoryView<const _Type> src1View(static_cast<const _Type *>(src1), count, stride1);
				for (u32 i = 0; i < count; ++i)
				{
					const _Type &a = src0View[i];
					const _Type &b = src1View[i];
					_Type &r = dstView[i];
					for (int k = 0; k < _Dimension; ++k)
						TOp2Impl<_Op, false>::Op(Scalar::Load(&a[k]), Scalar::Load(&b[k])).Store(&r[k]);
				}
			}
		};

		//--------------------------------------------------------------------------------
		// Kernel table, indexed by op * 4 + (N - 1), generated from the operator table: a
		// lanewise operator gets the kernel of its lane operation, modulo and negation
		// their own, and an operator without a float form (bitwise) a null entry.

		template <int _Dimension, u32 _Op>
		constexpr FnOp2Stream _FloatKernelOf()
		{
			using Impl = SMathOpImpl<TVector<float, _Dimension>>;
			constexpr const SOp_MathOp::STraits &traits = SOp_MathOp::kTraits[_Op];
			if constexpr (traits.m_FloatKernel == SOp_MathOp::FloatKernel_Lanes)
				return &Impl::template Op2StreamImpl<traits.m_FloatLane>;
			else if constexpr (traits.m_FloatKernel == SOp_MathOp::FloatKernel_Mod)
				return &Impl::Op2StreamImpl_Op2_Mod;
			else if constexpr (traits.m_FloatKernel == SOp_MathOp::FloatKernel_Neg)
				return &Impl::Op2StreamImpl_Op2_Neg;
			else
				return nullptr;
		}

		template <std::size_t... _Ops>
		constexpr FloatKernelTable _BuildFloatKernelTable(std::index_sequence<_Ops...>)
		{
			FloatKernelTable table = {};
			((table[_Ops * 4 + 0] = _FloatKernelOf<1, _Ops>(), table[_Ops * 4 + 1] = _FloatKernelOf<2, _Ops>(),
			  table[_Ops * 4 + 2] = _FloatKernelOf<3, _Ops>(), table[_Ops * 4 + 3] = _FloatKernelOf<4, _Ops>()), ...);
			return table;
		}

		inline constexpr FloatKernelTable _FnMathOpLookup = _BuildFloatKernelTable(std::make_index_sequence<SOp_MathOp::__MaxOps>());

		// Every operator with a float form has a kernel of every dimension, and no other.
		constexpr bool _FloatTableMatchesTraits()
		{
			for (u32 i = 0; i < _FnMathOpLookup.size(); ++i)
				if ((_FnMathOpLookup[i] != nullptr) != SOp_MathOp::kTraits[i / 4].FloatSupported())
					return false;
			return true;
		}
		static_assert(_FnMathOpLookup.size() == 76, "19 operators x 4 dimensions");
		static_assert(_FloatTableMatchesTraits(), "a float kernel exactly for the operators with a float form");

		// The selector's checks, each an assertion, then the kernel when there is one. Out
		// of line: ExecOperatorFloat comes here only when one of the checks fails.
		template <int _Dimension>
		__attribute__((noinline, cold)) void _ExecOperatorFloatChecked(FnOp2Stream fnPtr, void *evalInto, u32 dstStride, u32 count, const void *datasrc0, u32 stride0, const void *datasrc1, u32 stride1)
		{
			OX_ASSERT_ALIGNED32(evalInto);
			OX_ASSERT_ALIGNED32(datasrc0);
			OX_ASSERT_ALIGNED32(datasrc1);
			OX_ASSERT(evalInto != null);
			OX_ASSERT_FORMAT(fnPtr != null, "[Backend CPU-VM]: Invalid Operation: logical ops cannot be applied to 'float' type");
			if (fnPtr == nullptr)
				return;
			fnPtr(evalInto, dstStride, count, datasrc0, stride0, datasrc1, stride1);
		}

		// The float selector: alignment and null checks, then one table lookup. An operator
		// without a kernel (bitwise, or any value past the set) writes nothing.
		template <int _Dimension>
		void ExecOperatorFloat(SOp_MathOp::EOp op, void *evalInto, u32 dstStride, u32 count, const void *datasrc0, u32 stride0, const void *datasrc1, u32 stride1)
		{
			// The operator byte can hold any value: look up only inside the table (the active
			// kernel set's: cbvm_kernel_isa.h).
			const FnOp2Stream fnPtr = u32(op) < u32(SOp_MathOp::__MaxOps) ? ActiveKernelSet().m_Float[u32(op) * 4 + (_Dimension - 1)] : nullptr;
			// When everything the checks test holds, none of them can report: straight to the kernel.
			if (fnPtr != nullptr && evalInto != null && SIMD_SSE::_AreAligned<32>(evalInto, datasrc0, datasrc1))
				fnPtr(evalInto, dstStride, count, datasrc0, stride0, datasrc1, stride1);
			else
				_ExecOperatorFloatChecked<_Dimension>(fnPtr, evalInto, dstStride, count, datasrc0, stride0, datasrc1, stride1);
		}
	}
}
