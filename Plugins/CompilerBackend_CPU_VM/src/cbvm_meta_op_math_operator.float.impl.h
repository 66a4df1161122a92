#pragma once
// Standard execution path: the float stream kernels.
//
// A stream of TVector<float, N> is a flat float array. The kernels run over whole
// 16-byte vectors with aligned loads and stores only:
//   - both sources packed: the three streams are walked as flat arrays, one vector per
//     iteration whatever N is, then one unconditional full-vector tail whose result is
//     stored partially (the loads read up to 16 bytes past the end: streams are padded);
//   - one constant source: the constant is broadcast into registers once, outside the
//     loop (three rotations of it for N = 3, whose 12-byte period spans 3 vectors);
//   - anything else (a non-packed destination, two constants) takes a per-component
//     scalar loop, counted as a hazard and reported once as a performance warning.
//
// Every kernel has the signature of FnOp2Stream and computes src0 op src1. Modulo and
// negation have kernels of their own at the end of the file.

#include "cp_ir_details.h"
#include "kr_assert.h"
#include "kr_log_unique.h"
#include "kr_memoryviews.h"
#include "kr_profiler.h"
#include "mt_scalar_ops.h"
#include "mt_vector.h"
#include "simd/sse/simd_vector.h"

#include <array>

namespace Orvex
{
	namespace MathOp
	{
		using SIMD_SSE::Float4;
		using SIMD_SSE::Scalar;
		using SOp_MathOp = Compiler::IR::SOp_MathOp;

		using FnOp2Stream = void (*)(void *dst, u32 dstStride, u32 count, const void *src0, u32 stride0, const void *src1, u32 stride1);

		// Kernel operators of the ten arithmetic and comparison kernels.
		enum EOp2Type
		{
			Op2_Add = 0,
			Op2_Sub = 1,
			Op2_Mul = 2,
			Op2_Div = 3,
			Op2_LT = 4,
			Op2_LE = 5,
			Op2_GT = 6,
			Op2_GE = 7,
			Op2_EQ = 8,
			Op2_NE = 9,
		};
		static_assert(Op2_Div == 3 && Op2_NE == 9, "EOp2Type values");

		//--------------------------------------------------------------------------------
		// Operators. _FlipArgs lets a kernel whose constant is src0 still pass the varying
		// value first: Op(v, c) then computes c op v, i.e. src0 op src1 either way.

		template <EOp2Type _Op, bool _FlipArgs>
		struct TOp2Impl
		{
			static Float4 Op(const Float4 &a, const Float4 &b) { return _FlipArgs ? _Op2(b, a) : _Op2(a, b); }
			static Scalar Op(const Scalar &a, const Scalar &b) { return _FlipArgs ? _Op2(b, a) : _Op2(a, b); }

		private:
			template <typename _Vector>
			static _Vector _Op2(const _Vector &a, const _Vector &b)
			{
				if constexpr (_Op == Op2_Add) return a + b;
				else if constexpr (_Op == Op2_Sub) return a - b;
				else if constexpr (_Op == Op2_Mul) return a * b;
				else if constexpr (_Op == Op2_Div) return a / b;	// true division, no reciprocal estimate
				else if constexpr (_Op == Op2_LT) return a < b;	// ordered: false with a NaN
				else if constexpr (_Op == Op2_LE) return a <= b;
				else if constexpr (_Op == Op2_GT) return b < a;	// SSE has no ordered >: swap the operands
				else if constexpr (_Op == Op2_GE) return b <= a;
				else if constexpr (_Op == Op2_EQ) return a == b;
				else return a != b;	// NE, unordered: true with a NaN, the exact negation of EQ
			}
		};

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

		// Vector form of ScalarOps::TruncFracF32: (q - float(trunc32(q))) where |q| < 2^31,
		// else +0 (the comparison is false for a NaN, which clears the lane).
		inline Float4 _TruncFrac(const Float4 &q)
		{
			const Float4 absQ = q & Float4::LoadAligned16(SIMD_SSE::Constants::_Constant_Fp32_InvSignMasks);
			const Float4 inRange = absQ < Float4(2147483648.0f);
			return (q - q.ConvertToInt32Trunc().ConvertInt32ToFloat()) & inRange;
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
					for (; dstStream + 4 <= dstEnd; dstStream += 4, srcStream0 += 4, srcStream1 += 4)
						TOp2Impl<_Op, false>::Op(Float4::LoadAligned16(srcStream0), Float4::LoadAligned16(srcStream1)).StoreAligned16(dstStream);
					_Tail(dstStream, dstEnd, [&] { return TOp2Impl<_Op, false>::Op(Float4::LoadAligned16(srcStream0), Float4::LoadAligned16(srcStream1)); });
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
				if constexpr (_Dimension != 3)
				{
					const Float4 c = TDimBroadcastRouter<_Dimension>::Broadcast(constant);
					for (; dstStream + 4 <= dstEnd; dstStream += 4, srcStream += 4)
						Impl::Op(Float4::LoadAligned16(srcStream), c).StoreAligned16(dstStream);
					_Tail(dstStream, dstEnd, [&] { return Impl::Op(Float4::LoadAligned16(srcStream), c); });
				}
				else
				{
					// A 12-byte element repeats every 3 vectors: rotate the constant three ways.
					const Float4 c = Float4::LoadAligned16(constant);	// the fourth float is read and ignored
					const Float4 c0 = c.Swizzle<0, 1, 2, 0>();	// x y z x
					const Float4 c1 = c.Swizzle<1, 2, 0, 1>();	// y z x y
					const Float4 c2 = c.Swizzle<2, 0, 1, 2>();	// z x y z
					for (; dstStream + 12 <= dstEnd; dstStream += 12, srcStream += 12)
					{
						Impl::Op(Float4::LoadAligned16(srcStream + 0), c0).StoreAligned16(dstStream + 0);
						Impl::Op(Float4::LoadAligned16(srcStream + 4), c1).StoreAligned16(dstStream + 4);
						Impl::Op(Float4::LoadAligned16(srcStream + 8), c2).StoreAligned16(dstStream + 8);
					}
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

			// ---- Modulo: frac(a / b) * b, the sign of a; see ScalarOps::ModF32.

			static void Op2StreamImpl_Op2_Mod(void *dst, u32 stride, u32 count, const void *src0, u32 stride0, const void *src1, u32 stride1)
			{
				OX_ASSERT(stride == sizeof(_Type));
				OX_ASSERT(stride0 == sizeof(_Type) || stride0 == 0);
				OX_ASSERT(stride1 == sizeof(_Type) || stride1 == 0);
				// The end is count packed elements even after a reported bad destination
				// stride: the sources hold count packed elements, never more.
				float *dstStream = static_cast<float *>(dst);
				const float *dstStop = dstStream + std::size_t(count) * _Dimension;
				const float *srcStream0 = static_cast<const float *>(src0);
				const float *srcStream1 = static_cast<const float *>(src1);

				if (stride0 == sizeof(_Type) && stride1 == sizeof(_Type))
				{
					Op2StreamImpl_Op2_Mod_Packed(dstStream, dstStop, srcStream0, srcStream1);
					return;
				}
				OX_ASSERT(stride == sizeof(_Type));
				OX_ASSERT((stride0 == 0) != (stride1 == 0));
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
				for (; dstStream + 4 <= dstStop; dstStream += 4, srcStream0 += 4, srcStream1 += 4)
				{
					const Float4 a = Float4::LoadAligned16(srcStream0);
					const Float4 b = Float4::LoadAligned16(srcStream1);
					(_TruncFrac(a / b) * b).StoreAligned16(dstStream);
				}
				for (; dstStream < dstStop; ++dstStream, ++srcStream0, ++srcStream1)
					*dstStream = ScalarOps::ModF32(*srcStream0, *srcStream1);
			}

			// One constant operand, N = 1, 2, 4: 'cst' holds it repeated over four lanes, so
			// lane j of 'cst' is the component of the j-th float of any aligned vector.
			static void Op2StreamImpl_Op2_Mod_V124(float *dstStream, const float *dstStop, const float *srcStream0, u32 stride0, const float *srcStream1, u32 stride1, Float4 cst)
			{
				OX_ASSERT(srcStream0 != null && srcStream1 != null);
				alignas(16) float cstLanes[4];
				cst.StoreAligned16(cstLanes);
				if (stride1 == 0)
				{
					// Constant divisor: one reciprocal, then a multiply per vector instead of a
					// division (may differ from a true division in the last bit; accepted).
					const Float4 r = Float4(1.0f) / cst;
					alignas(16) float rLanes[4];
					r.StoreAligned16(rLanes);
					for (; dstStream + 4 <= dstStop; dstStream += 4, srcStream0 += 4)
						(_TruncFrac(Float4::LoadAligned16(srcStream0) * r) * cst).StoreAligned16(dstStream);
					// The tail starts on a vector boundary: float j takes lane j of r and cst.
					for (int j = 0; dstStream < dstStop; ++dstStream, ++srcStream0, ++j)
						*dstStream = ScalarOps::TruncFracF32(*srcStream0 * rLanes[j]) * cstLanes[j];
				}
				else if (stride0 == 0)
				{
					// Constant dividend: a true division per vector.
					for (; dstStream + 4 <= dstStop; dstStream += 4, srcStream1 += 4)
					{
						const Float4 b = Float4::LoadAligned16(srcStream1);
						(_TruncFrac(cst / b) * b).StoreAligned16(dstStream);
					}
					for (int j = 0; dstStream < dstStop; ++dstStream, ++srcStream1, ++j)
						*dstStream = ScalarOps::ModF32(cstLanes[j], *srcStream1);
				}
				// Both strides non-zero: that case belongs to the packed function.
			}

			// One constant operand, N = 3: the constant (and the reciprocal of a constant
			// divisor) as three rotated vectors, 12 floats (4 elements) per iteration.
			static void Op2StreamImpl_Op2_Mod_V3(float *dstStream, const float *dstStop, const float *srcStream0, u32 stride0, const float *srcStream1, u32 stride1)
			{
				OX_ASSERT(srcStream0 != null && srcStream1 != null);
				const bool constantDivisor = stride1 == 0;
				const Float4 cst = Float4::LoadFloat3(constantDivisor ? srcStream1 : srcStream0);
				const Float4 c[3] = {cst.Swizzle<0, 1, 2, 0>(), cst.Swizzle<1, 2, 0, 1>(), cst.Swizzle<2, 0, 1, 2>()};
				const float *constant = constantDivisor ? srcStream1 : srcStream0;
				if (constantDivisor)
				{
					const Float4 r = Float4(1.0f) / cst;
					const Float4 rc[3] = {r.Swizzle<0, 1, 2, 0>(), r.Swizzle<1, 2, 0, 1>(), r.Swizzle<2, 0, 1, 2>()};
					for (; dstStream + 12 <= dstStop; dstStream += 12, srcStream0 += 12)
						for (int v = 0; v < 3; ++v)
							(_TruncFrac(Float4::LoadAligned16(srcStream0 + 4 * v) * rc[v]) * c[v]).StoreAligned16(dstStream + 4 * v);
					// Whole elements are left: float j is component j % 3.
					alignas(16) float rLanes[4];
					r.StoreAligned16(rLanes);
					for (int j = 0; dstStream < dstStop; ++dstStream, ++srcStream0, ++j)
						*dstStream = ScalarOps::TruncFracF32(*srcStream0 * rLanes[j % 3]) * constant[j % 3];
				}
				else if (stride0 == 0)
				{
					for (; dstStream + 12 <= dstStop; dstStream += 12, srcStream1 += 12)
						for (int v = 0; v < 3; ++v)
						{
							const Float4 b = Float4::LoadAligned16(srcStream1 + 4 * v);
							(_TruncFrac(c[v] / b) * b).StoreAligned16(dstStream + 4 * v);
						}
					for (int j = 0; dstStream < dstStop; ++dstStream, ++srcStream1, ++j)
						*dstStream = ScalarOps::ModF32(constant[j % 3], *srcStream1);
				}
			}

			// ---- Negation: a sign flip, so 0 and -0 swap and a NaN keeps its payload.

			static void Op2StreamImpl_Op2_Neg(void *dst, u32 stride, u32 count, const void *datasrc0, u32 stride0, const void *datasrc1, u32 /*stride1*/)
			{
				OX_ASSERT(datasrc0 != null && datasrc1 == null);
				// A constant operand is not supported here: report it and write nothing.
				OX_VERIFY_OR(stride == sizeof(_Type) && stride0 == sizeof(_Type), OX_ASSERT(false); return);

				float *dstStream = static_cast<float *>(dst);
				const float *dstStreamStop = dstStream + std::size_t(count) * _Dimension;
				const float *srcStream = static_cast<const float *>(datasrc0);
				const Float4 signs = Float4::LoadAligned16(SIMD_SSE::Constants::_Constant_Fp32_SignMasks);
				for (; dstStream + 4 <= dstStreamStop; dstStream += 4, srcStream += 4)
					(Float4::LoadAligned16(srcStream) ^ signs).StoreAligned16(dstStream);
				if constexpr (_Dimension == 4)
					OX_ASSERT(dstStream == dstStreamStop);
				else
					for (; dstStream < dstStreamStop; ++dstStream, ++srcStream)
						*dstStream = ScalarOps::NegF32(*srcStream);
			}

		private:
			// The packed loops end here: N = 4 always ends on dstEnd; otherwise 0 to 3
			// floats are left, computed from one more full vector of each source, always
			// (padding makes the over-read safe), and stored partially.
			template <typename _FnLastVector>
			static void _Tail(float *dstStream, const float *dstEnd, const _FnLastVector &lastVector)
			{
				if constexpr (_Dimension == 4)
				{
					(void)lastVector;
					OX_ASSERT(dstStream == dstEnd);
				}
				else
				{
					const std::ptrdiff_t left = dstEnd - dstStream;
					OX_ASSERT(left < 4);
					_StorePartial(dstStream, lastVector(), left);
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
		// Kernel table, indexed by op * 4 + (N - 1). The bitwise operators have no float
		// kernel (null entries).

		using FloatKernelTable = std::array<FnOp2Stream, SOp_MathOp::__MaxOps * 4>;

		template <EOp2Type _Op>
		constexpr void _SetFloatRow(FloatKernelTable &table, SOp_MathOp::EOp op)
		{
			table[op * 4 + 0] = &SMathOpImpl<TVector<float, 1>>::template Op2StreamImpl<_Op>;
			table[op * 4 + 1] = &SMathOpImpl<TVector<float, 2>>::template Op2StreamImpl<_Op>;
			table[op * 4 + 2] = &SMathOpImpl<TVector<float, 3>>::template Op2StreamImpl<_Op>;
			table[op * 4 + 3] = &SMathOpImpl<TVector<float, 4>>::template Op2StreamImpl<_Op>;
		}

		constexpr FloatKernelTable _BuildFloatKernelTable()
		{
			FloatKernelTable table = {};
			_SetFloatRow<Op2_Add>(table, SOp_MathOp::Op_Add);
			_SetFloatRow<Op2_Sub>(table, SOp_MathOp::Op_Sub);
			_SetFloatRow<Op2_Mul>(table, SOp_MathOp::Op_Mul);
			_SetFloatRow<Op2_Div>(table, SOp_MathOp::Op_Div);
			table[SOp_MathOp::Op_Mod * 4 + 0] = &SMathOpImpl<TVector<float, 1>>::Op2StreamImpl_Op2_Mod;
			table[SOp_MathOp::Op_Mod * 4 + 1] = &SMathOpImpl<TVector<float, 2>>::Op2StreamImpl_Op2_Mod;
			table[SOp_MathOp::Op_Mod * 4 + 2] = &SMathOpImpl<TVector<float, 3>>::Op2StreamImpl_Op2_Mod;
			table[SOp_MathOp::Op_Mod * 4 + 3] = &SMathOpImpl<TVector<float, 4>>::Op2StreamImpl_Op2_Mod;
			table[SOp_MathOp::Op_Neg * 4 + 0] = &SMathOpImpl<TVector<float, 1>>::Op2StreamImpl_Op2_Neg;
			table[SOp_MathOp::Op_Neg * 4 + 1] = &SMathOpImpl<TVector<float, 2>>::Op2StreamImpl_Op2_Neg;
			table[SOp_MathOp::Op_Neg * 4 + 2] = &SMathOpImpl<TVector<float, 3>>::Op2StreamImpl_Op2_Neg;
			table[SOp_MathOp::Op_Neg * 4 + 3] = &SMathOpImpl<TVector<float, 4>>::Op2StreamImpl_Op2_Neg;
			_SetFloatRow<Op2_LT>(table, SOp_MathOp::Op_Cmp_Lower);
			_SetFloatRow<Op2_LE>(table, SOp_MathOp::Op_Cmp_LowerOrEqual);
			_SetFloatRow<Op2_GT>(table, SOp_MathOp::Op_Cmp_Greater);
			_SetFloatRow<Op2_GE>(table, SOp_MathOp::Op_Cmp_GreaterOrEqual);
			_SetFloatRow<Op2_EQ>(table, SOp_MathOp::Op_Cmp_Equal);
			_SetFloatRow<Op2_NE>(table, SOp_MathOp::Op_Cmp_NotEqual);
			return table;
		}

		inline constexpr FloatKernelTable _FnMathOpLookup = _BuildFloatKernelTable();
		static_assert(_FnMathOpLookup.size() == 76, "19 operators x 4 dimensions");
		constexpr u32 _CountFloatKernels(u32 first, u32 last)
		{
			u32 count = 0;
			for (u32 i = first * 4; i < last * 4 + 4; ++i)
				count += _FnMathOpLookup[i] != nullptr ? 1 : 0;
			return count;
		}
		static_assert(_CountFloatKernels(SOp_MathOp::Op_Add, SOp_MathOp::Op_Neg) == 24, "arithmetic, modulo and negation: every dimension");
		static_assert(_CountFloatKernels(SOp_MathOp::Op_Bitwise_ShiftLeft, SOp_MathOp::Op_Bitwise_Not) == 0, "no float bitwise kernels");
		static_assert(_CountFloatKernels(SOp_MathOp::Op_Cmp_Lower, SOp_MathOp::Op_Cmp_NotEqual) == 24, "comparisons: every dimension");

		// The float selector: alignment and null checks, then one table lookup. An operator
		// without a kernel (bitwise, or any value past the set) writes nothing.
		template <int _Dimension>
		void ExecOperatorFloat(SOp_MathOp::EOp op, void *evalInto, u32 dstStride, u32 count, const void *datasrc0, u32 stride0, const void *datasrc1, u32 stride1)
		{
			OX_ASSERT_ALIGNED32(evalInto);
			OX_ASSERT_ALIGNED32(datasrc0);
			OX_ASSERT_ALIGNED32(datasrc1);
			OX_ASSERT(evalInto != null);
			// The operator byte can hold any value: look up only inside the table.
			const FnOp2Stream fnPtr = u32(op) < u32(SOp_MathOp::__MaxOps) ? _FnMathOpLookup[u32(op) * 4 + (_Dimension - 1)] : nullptr;
			OX_ASSERT_FORMAT(fnPtr != null, "[Backend CPU-VM]: Invalid Operation: logical ops cannot be applied to 'float' type");
			if (fnPtr == nullptr)
				return;
			fnPtr(evalInto, dstStride, count, datasrc0, stride0, datasrc1, stride1);
		}
	}
}
