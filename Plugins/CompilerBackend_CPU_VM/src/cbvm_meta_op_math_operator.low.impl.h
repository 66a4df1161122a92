#pragma once
// Low execution path: the plain kernels of the math operator.
//
// One element per loop iteration, no unrolling, no broadcasting stage: a constant
// operand comes with a stride of 0 and is simply re-read for every element. The
// destination is dense (N components per element) and a kernel never touches memory
// past the N components of an element, so a 3-component kernel leaves the float
// after each element alone. The only vector work is one Float4 operation per element
// for 2 to 4 components.
//
// Loads and stores by dimension:
//   N = 1   Scalar::Load / Store                      (4 bytes)
//   N = 2   Float4::LoadFloat2 / StoreFloat2           (8 bytes)
//   N = 3   Float4::LoadFloat3 / StoreFloat3           (8 + 4 bytes)
//   N = 4   Float4::LoadAligned16 / StoreAligned16     (16 bytes, 16-byte aligned elements)

#include "cp_ir_details.h"
#include "kr_assert.h"
#include "mt_scalar_ops.h"
#include "mt_vector.h"
#include "simd/sse/simd_vector.h"

namespace Orvex
{
	namespace MathOp
	{
		using SIMD_SSE::Float4;
		using SIMD_SSE::Scalar;
		using SOp_MathOp = Compiler::IR::SOp_MathOp;

		// The Low path's own two-operand operators. SL and SR exist for completeness of
		// the set; the integer shifts are written out in the selector instead.
		enum EOp2Type_Low
		{
			Op2_Low_Add = 0,
			Op2_Low_Sub = 1,
			Op2_Low_Mul = 2,
			Op2_Low_Div = 3,
			Op2_Low_LT = 4,
			Op2_Low_LE = 5,
			Op2_Low_GT = 6,
			Op2_Low_GE = 7,
			Op2_Low_EQ = 8,
			Op2_Low_NE = 9,
			Op2_Low_SL = 10,
			Op2_Low_SR = 11,
			Op2_Low_And = 12,
			Op2_Low_Or = 13,
			Op2_Low_Xor = 14,
		};
		static_assert(Op2_Low_NE == 9 && Op2_Low_Xor == 14, "EOp2Type_Low values");

		//--------------------------------------------------------------------------------
		// Element access: exactly N components in and out.

		template <int _Dimension>
		struct TLowElement;

		template <>
		struct TLowElement<1>
		{
			static Scalar Load(const void *src) { return Scalar::Load(src); }
			static void Store(void *dst, const Scalar &value) { value.Store(dst); }
		};

		template <>
		struct TLowElement<2>
		{
			static Float4 Load(const void *src) { return Float4::LoadFloat2(src); }
			static void Store(void *dst, const Float4 &value) { value.StoreFloat2(dst); }
		};

		template <>
		struct TLowElement<3>
		{
			static Float4 Load(const void *src) { return Float4::LoadFloat3(src); }
			static void Store(void *dst, const Float4 &value) { value.StoreFloat3(dst); }
		};

		template <>
		struct TLowElement<4>
		{
			static Float4 Load(const void *src) { return Float4::LoadAligned16(src); }
			static void Store(void *dst, const Float4 &value) { value.StoreAligned16(dst); }
		};

		template <typename _Type>
		inline const _Type *_AdvanceBytes(const _Type *ptr, u32 stride)
		{
			return reinterpret_cast<const _Type *>(reinterpret_cast<const u8 *>(ptr) + stride);
		}

		//--------------------------------------------------------------------------------
		// Operators on whole elements.

		// Float: IEEE single precision. Comparisons are ordered (false with a NaN) except
		// NE, which is unordered so that it stays the exact negation of EQ; true is all
		// 32 bits set, stored as is (not 1.0).
		template <EOp2Type_Low _Op>
		struct TOp2Impl_LowF32
		{
			static Scalar Op(const Scalar &a, const Scalar &b) { return _Op2(a, b); }
			static Float4 Op(const Float4 &a, const Float4 &b) { return _Op2(a, b); }

		private:
			template <typename _Vector>
			static _Vector _Op2(const _Vector &a, const _Vector &b)
			{
				if constexpr (_Op == Op2_Low_Add) return a + b;
				else if constexpr (_Op == Op2_Low_Sub) return a - b;
				else if constexpr (_Op == Op2_Low_Mul) return a * b;
				else if constexpr (_Op == Op2_Low_Div) return a / b;
				else if constexpr (_Op == Op2_Low_LT) return a < b;
				else if constexpr (_Op == Op2_Low_LE) return a <= b;
				else if constexpr (_Op == Op2_Low_GT) return a > b;
				else if constexpr (_Op == Op2_Low_GE) return a >= b;
				else if constexpr (_Op == Op2_Low_EQ) return a == b;
				else if constexpr (_Op == Op2_Low_NE) return a != b;
				else static_assert(_Op == Op2_Low_Add, "no float kernel for this operator");
			}
		};

		// Signed 32-bit lanes: comparisons give -1 / 0, LE, GE and NE are complements of
		// GT, LT and EQ (SSE2 has no other integer compares).
		template <EOp2Type_Low _Op>
		struct TOp2Impl_LowS32
		{
			static Float4 Op(const Float4 &a, const Float4 &b)
			{
				if constexpr (_Op == Op2_Low_LT) return a.CmpLtInt32(b);
				else if constexpr (_Op == Op2_Low_LE) return ~a.CmpGtInt32(b);
				else if constexpr (_Op == Op2_Low_GT) return a.CmpGtInt32(b);
				else if constexpr (_Op == Op2_Low_GE) return ~a.CmpLtInt32(b);
				else if constexpr (_Op == Op2_Low_EQ) return a.CmpEqInt32(b);
				else if constexpr (_Op == Op2_Low_NE) return ~a.CmpEqInt32(b);
				else if constexpr (_Op == Op2_Low_And) return a & b;
				else if constexpr (_Op == Op2_Low_Or) return a | b;
				else if constexpr (_Op == Op2_Low_Xor) return a ^ b;
				else static_assert(_Op == Op2_Low_LT, "no integer kernel for this operator");
			}

			// Lane 0 of the four-lane form: the other lanes are never stored.
			static Scalar Op(const Scalar &a, const Scalar &b) { return Scalar(Op(Float4(a.m_Value), Float4(b.m_Value)).m_Value); }
		};

		//--------------------------------------------------------------------------------
		// Loops. Every one has the same shape: nothing when dst is not below dstEnd, then
		// one element per iteration, sources advanced by their byte strides.

		template <int _Dimension, typename _OpImpl, typename _ScalarType>
		inline void _LowElementLoop(_ScalarType *dstStream, const _ScalarType *dstStreamEnd, const _ScalarType *srcStream0, u32 stride0, const _ScalarType *srcStream1, u32 stride1)
		{
			using Element = TLowElement<_Dimension>;
			if (!(dstStream < dstStreamEnd))
				return;
			do
			{
				Element::Store(dstStream, _OpImpl::Op(Element::Load(srcStream0), Element::Load(srcStream1)));
				dstStream += _Dimension;
				srcStream0 = _AdvanceBytes(srcStream0, stride0);
				srcStream1 = _AdvanceBytes(srcStream1, stride1);
			} while (dstStream < dstStreamEnd);
		}

		// Component by component, through a scalar definition of the operator.
		template <int _Dimension, typename _ScalarType, _ScalarType (*_Fn)(_ScalarType, _ScalarType)>
		inline void _LowComponentLoop(_ScalarType *dstStream, const _ScalarType *dstStreamEnd, const _ScalarType *srcStream0, u32 stride0, const _ScalarType *srcStream1, u32 stride1)
		{
			if (!(dstStream < dstStreamEnd))
				return;
			do
			{
				for (int k = 0; k < _Dimension; ++k)
					dstStream[k] = _Fn(srcStream0[k], srcStream1[k]);
				dstStream += _Dimension;
				srcStream0 = _AdvanceBytes(srcStream0, stride0);
				srcStream1 = _AdvanceBytes(srcStream1, stride1);
			} while (dstStream < dstStreamEnd);
		}

		// Unary operators read source 0 only.
		template <int _Dimension, typename _ScalarType, _ScalarType (*_Fn)(_ScalarType)>
		inline void _LowUnaryLoop(_ScalarType *dstStream, const _ScalarType *dstStreamEnd, const _ScalarType *srcStream0, u32 stride0, const void *srcStream1)
		{
			OX_ASSERT(srcStream1 == null);
			if (!(dstStream < dstStreamEnd))
				return;
			do
			{
				for (int k = 0; k < _Dimension; ++k)
					dstStream[k] = _Fn(srcStream0[k]);
				dstStream += _Dimension;
				srcStream0 = _AdvanceBytes(srcStream0, stride0);
			} while (dstStream < dstStreamEnd);
		}

		//--------------------------------------------------------------------------------
		// Stream kernels.

		template <typename _Type>
		struct SMathOpImpl_Low;

		template <int _Dimension>
		struct SMathOpImpl_Low<TVector<float, _Dimension>>
		{
			using _ScalarType = float;

			template <EOp2Type_Low _Op>
			static void Op2StreamImpl(float *dstStream, const float *dstStreamEnd, const float *srcStream0, u32 stride0, const float *srcStream1, u32 stride1)
			{
				OX_ASSERT(stride0 == _Dimension * sizeof(float) || stride0 == 0);
				OX_ASSERT(stride1 == _Dimension * sizeof(float) || stride1 == 0);
				_LowElementLoop<_Dimension, TOp2Impl_LowF32<_Op>>(dstStream, dstStreamEnd, srcStream0, stride0, srcStream1, stride1);
			}

			static void Op2StreamImpl_Op2_Low_Mod(float *dstStream, const float *dstStreamEnd, const float *srcStream0, u32 stride0, const float *srcStream1, u32 stride1)
			{
				OX_ASSERT(stride0 == _Dimension * sizeof(float) || stride0 == 0);
				OX_ASSERT(stride1 == _Dimension * sizeof(float) || stride1 == 0);
				_LowComponentLoop<_Dimension, float, &ScalarOps::ModF32>(dstStream, dstStreamEnd, srcStream0, stride0, srcStream1, stride1);
			}
		};

		template <int _Dimension>
		struct SMathOpImpl_Low<TVector<int, _Dimension>>
		{
			using _ScalarType = s32;

			template <EOp2Type_Low _Op>
			static void Op2StreamImpl(s32 *dstStream, const s32 *dstStreamEnd, const s32 *srcStream0, u32 stride0, const s32 *srcStream1, u32 stride1)
			{
				OX_ASSERT(stride0 == _Dimension * sizeof(s32) || stride0 == 0);
				OX_ASSERT(stride1 == _Dimension * sizeof(s32) || stride1 == 0);
				_LowElementLoop<_Dimension, TOp2Impl_LowS32<_Op>>(dstStream, dstStreamEnd, srcStream0, stride0, srcStream1, stride1);
			}
		};

		//--------------------------------------------------------------------------------
		// Operator selectors, called once per instruction by the Low entry points.

		template <int _Dimension>
		void ExecOperatorFloat_Low(SOp_MathOp::EOp op, void *evalInto, u32 evalCount, const void *datasrc0, u32 stride0, const void *datasrc1, u32 stride1)
		{
			OX_ASSERT_ALIGNED32(evalInto);
			OX_ASSERT_ALIGNED32(datasrc0);
			OX_ASSERT_ALIGNED32(datasrc1);
			OX_ASSERT(evalInto != null);
			OX_ASSERT(datasrc0 != null);
			OX_ASSERT(stride0 == _Dimension * sizeof(float) || stride0 == 0);
			OX_ASSERT(stride1 == _Dimension * sizeof(float) || stride1 == 0);

			using Impl = SMathOpImpl_Low<TVector<float, _Dimension>>;
			float *dst = static_cast<float *>(evalInto);
			const float *dstEnd = dst + std::size_t(evalCount) * _Dimension;
			const float *src0 = static_cast<const float *>(datasrc0);
			const float *src1 = static_cast<const float *>(datasrc1);
			switch (op)
			{
			case SOp_MathOp::Op_Add: Impl::template Op2StreamImpl<Op2_Low_Add>(dst, dstEnd, src0, stride0, src1, stride1); return;
			case SOp_MathOp::Op_Sub: Impl::template Op2StreamImpl<Op2_Low_Sub>(dst, dstEnd, src0, stride0, src1, stride1); return;
			case SOp_MathOp::Op_Mul: Impl::template Op2StreamImpl<Op2_Low_Mul>(dst, dstEnd, src0, stride0, src1, stride1); return;
			case SOp_MathOp::Op_Div: Impl::template Op2StreamImpl<Op2_Low_Div>(dst, dstEnd, src0, stride0, src1, stride1); return;
			case SOp_MathOp::Op_Mod: Impl::Op2StreamImpl_Op2_Low_Mod(dst, dstEnd, src0, stride0, src1, stride1); return;
			case SOp_MathOp::Op_Neg: _LowUnaryLoop<_Dimension, float, &ScalarOps::NegF32>(dst, dstEnd, src0, stride0, datasrc1); return;
			case SOp_MathOp::Op_Cmp_Lower: Impl::template Op2StreamImpl<Op2_Low_LT>(dst, dstEnd, src0, stride0, src1, stride1); return;
			case SOp_MathOp::Op_Cmp_LowerOrEqual: Impl::template Op2StreamImpl<Op2_Low_LE>(dst, dstEnd, src0, stride0, src1, stride1); return;
			case SOp_MathOp::Op_Cmp_Greater: Impl::template Op2StreamImpl<Op2_Low_GT>(dst, dstEnd, src0, stride0, src1, stride1); return;
			case SOp_MathOp::Op_Cmp_GreaterOrEqual: Impl::template Op2StreamImpl<Op2_Low_GE>(dst, dstEnd, src0, stride0, src1, stride1); return;
			case SOp_MathOp::Op_Cmp_Equal: Impl::template Op2StreamImpl<Op2_Low_EQ>(dst, dstEnd, src0, stride0, src1, stride1); return;
			case SOp_MathOp::Op_Cmp_NotEqual: Impl::template Op2StreamImpl<Op2_Low_NE>(dst, dstEnd, src0, stride0, src1, stride1); return;
			default:	// the bitwise operators, and any value past the operator set
				OX_ASSERT_FORMAT(false, "[Backend CPU-VM]: Invalid Operation: logical ops cannot be applied to 'float' type");
				return;
			}
		}

		template <int _Dimension>
		void ExecOperatorInt_Low(SOp_MathOp::EOp op, void *evalInto, u32 evalCount, const void *datasrc0, u32 stride0, const void *datasrc1, u32 stride1)
		{
			OX_ASSERT_ALIGNED32(evalInto);
			OX_ASSERT_ALIGNED32(datasrc0);
			OX_ASSERT_ALIGNED32(datasrc1);
			OX_ASSERT(evalInto != null);
			OX_ASSERT(datasrc0 != null);
			OX_ASSERT(stride0 == _Dimension * sizeof(s32) || stride0 == 0);
			OX_ASSERT(stride1 == _Dimension * sizeof(s32) || stride1 == 0);

			using Impl = SMathOpImpl_Low<TVector<int, _Dimension>>;
			s32 *dst = static_cast<s32 *>(evalInto);
			const s32 *dstEnd = dst + std::size_t(evalCount) * _Dimension;
			const s32 *src0 = static_cast<const s32 *>(datasrc0);
			const s32 *src1 = static_cast<const s32 *>(datasrc1);
			switch (op)
			{
			case SOp_MathOp::Op_Add: _LowComponentLoop<_Dimension, s32, &ScalarOps::AddS32>(dst, dstEnd, src0, stride0, src1, stride1); return;
			case SOp_MathOp::Op_Sub: _LowComponentLoop<_Dimension, s32, &ScalarOps::SubS32>(dst, dstEnd, src0, stride0, src1, stride1); return;
			case SOp_MathOp::Op_Mul: _LowComponentLoop<_Dimension, s32, &ScalarOps::MulS32>(dst, dstEnd, src0, stride0, src1, stride1); return;
			case SOp_MathOp::Op_Div: _LowComponentLoop<_Dimension, s32, &ScalarOps::DivS32>(dst, dstEnd, src0, stride0, src1, stride1); return;
			case SOp_MathOp::Op_Mod: _LowComponentLoop<_Dimension, s32, &ScalarOps::ModS32>(dst, dstEnd, src0, stride0, src1, stride1); return;
			case SOp_MathOp::Op_Neg: _LowUnaryLoop<_Dimension, s32, &ScalarOps::NegS32>(dst, dstEnd, src0, stride0, datasrc1); return;
			case SOp_MathOp::Op_Bitwise_ShiftLeft: _LowComponentLoop<_Dimension, s32, &ScalarOps::ShlS32>(dst, dstEnd, src0, stride0, src1, stride1); return;
			case SOp_MathOp::Op_Bitwise_ShiftRight: _LowComponentLoop<_Dimension, s32, &ScalarOps::SarS32>(dst, dstEnd, src0, stride0, src1, stride1); return;
			case SOp_MathOp::Op_Bitwise_ShiftRightLogical: _LowComponentLoop<_Dimension, s32, &ScalarOps::ShrS32>(dst, dstEnd, src0, stride0, src1, stride1); return;
			case SOp_MathOp::Op_Bitwise_And: Impl::template Op2StreamImpl<Op2_Low_And>(dst, dstEnd, src0, stride0, src1, stride1); return;
			case SOp_MathOp::Op_Bitwise_Or: Impl::template Op2StreamImpl<Op2_Low_Or>(dst, dstEnd, src0, stride0, src1, stride1); return;
			case SOp_MathOp::Op_Bitwise_Xor: Impl::template Op2StreamImpl<Op2_Low_Xor>(dst, dstEnd, src0, stride0, src1, stride1); return;
			case SOp_MathOp::Op_Bitwise_Not: _LowUnaryLoop<_Dimension, s32, &ScalarOps::NotS32>(dst, dstEnd, src0, stride0, datasrc1); return;
			case SOp_MathOp::Op_Cmp_Lower: Impl::template Op2StreamImpl<Op2_Low_LT>(dst, dstEnd, src0, stride0, src1, stride1); return;
			case SOp_MathOp::Op_Cmp_LowerOrEqual: Impl::template Op2StreamImpl<Op2_Low_LE>(dst, dstEnd, src0, stride0, src1, stride1); return;
			case SOp_MathOp::Op_Cmp_Greater: Impl::template Op2StreamImpl<Op2_Low_GT>(dst, dstEnd, src0, stride0, src1, stride1); return;
			case SOp_MathOp::Op_Cmp_GreaterOrEqual: Impl::template Op2StreamImpl<Op2_Low_GE>(dst, dstEnd, src0, stride0, src1, stride1); return;
			case SOp_MathOp::Op_Cmp_Equal: Impl::template Op2StreamImpl<Op2_Low_EQ>(dst, dstEnd, src0, stride0, src1, stride1); return;
			case SOp_MathOp::Op_Cmp_NotEqual: Impl::template Op2StreamImpl<Op2_Low_NE>(dst, dstEnd, src0, stride0, src1, stride1); return;
			default:
				OX_ASSERT_FORMAT(false, "[Backend CPU-VM]: Unsupported integer operation");
				return;
			}
		}
	}
}
