#pragma once
// Low execution path: the plain kernels of the math operator.
//
// One element per loop iteration, no unrolling, no broadcasting stage: a constant
// operand comes with a stride of 0 and is simply re-read for every element. The
// destination is dense (N components per element) and a kernel never touches memory
// past the N components of an element, so a 3-component kernel leaves the float
// after each element alone, and nothing past the last element of any operand is read
// or written, whatever the count (a batch's neighbour may be written by another thread
// meanwhile). The only vector work is one Float4 operation per element for 2 to 4
// components.
//
// Loads and stores by dimension:
//   N = 1   Scalar::Load / Store                      (4 bytes)
//   N = 2   Float4::LoadFloat2 / StoreFloat2           (8 bytes)
//   N = 3   Float4::LoadFloat3 / StoreFloat3           (8 + 4 bytes)
//   N = 4   Float4::LoadAligned16 / StoreAligned16     (16 bytes, 16-byte aligned elements)

#include "cbvm_math_op_checks.h"
#include "cbvm_math_op_lanes.h"
#include "cp_ir_details.h"
#include "kr_assert.h"
#include "mt_scalar_ops.h"
#include "mt_vector.h"
#include "simd/sse/simd_vector.h"

#include <array>
#include <type_traits>
#include <utility>

namespace Orvex
{
	namespace MathOp
	{
		using SIMD_SSE::Float4;
		using SIMD_SSE::Scalar;
		using SOp_MathOp = Compiler::IR::SOp_MathOp;

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

		// Unary operators read source 0 only. _Fn: a one-operand rule, or an integer rule of
		// the operator table (two operands, the second ignored).
		template <int _Dimension, typename _ScalarType, auto _Fn>
		inline void _LowUnaryLoop(_ScalarType *dstStream, const _ScalarType *dstStreamEnd, const _ScalarType *srcStream0, u32 stride0, const void *srcStream1)
		{
			OX_ASSERT(srcStream1 == null);
			if (!(dstStream < dstStreamEnd))
				return;
			do
			{
				for (int k = 0; k < _Dimension; ++k)
				{
					if constexpr (std::is_invocable_v<decltype(_Fn), _ScalarType>)
						dstStream[k] = _Fn(srcStream0[k]);
					else
						dstStream[k] = _Fn(srcStream0[k], _ScalarType());
				}
				dstStream += _Dimension;
				srcStream0 = _AdvanceBytes(srcStream0, stride0);
			} while (dstStream < dstStreamEnd);
		}

		//--------------------------------------------------------------------------------
		// Stream kernels: element by element through a lane operation, each asserting the
		// source strides again.

		// An integer lane operation on whole elements: the four-lane vector form, whose
		// lane 0 alone is stored for one component.
		template <u32 _Op>
		struct TLowIntLanes
		{
			static Float4 Op(const Float4 &a, const Float4 &b) { return TIntLanes<_Op>::Vector(a, b); }
			static Scalar Op(const Scalar &a, const Scalar &b) { return Scalar(Op(Float4(a.m_Value), Float4(b.m_Value)).m_Value); }
		};

		template <typename _Type>
		struct SMathOpImpl_Low;

		template <int _Dimension>
		struct SMathOpImpl_Low<TVector<float, _Dimension>>
		{
			using _ScalarType = float;

			template <EOp2Type _Op>
			static void Op2StreamImpl(float *dstStream, const float *dstStreamEnd, const float *srcStream0, u32 stride0, const float *srcStream1, u32 stride1)
			{
				OX_ASSERT(stride0 == _Dimension * sizeof(float) || stride0 == 0);
				OX_ASSERT(stride1 == _Dimension * sizeof(float) || stride1 == 0);
				_LowElementLoop<_Dimension, TOp2Impl<_Op, false>>(dstStream, dstStreamEnd, srcStream0, stride0, srcStream1, stride1);
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

			template <u32 _Op>
			static void Op2StreamImpl(s32 *dstStream, const s32 *dstStreamEnd, const s32 *srcStream0, u32 stride0, const s32 *srcStream1, u32 stride1)
			{
				OX_ASSERT(stride0 == _Dimension * sizeof(s32) || stride0 == 0);
				OX_ASSERT(stride1 == _Dimension * sizeof(s32) || stride1 == 0);
				_LowElementLoop<_Dimension, TLowIntLanes<_Op>>(dstStream, dstStreamEnd, srcStream0, stride0, srcStream1, stride1);
			}
		};

		//--------------------------------------------------------------------------------
		// Kernel tables, one entry per operator and dimension, generated from the operator
		// table. Floats: a lanewise operator by its lane operation, modulo and negation by
		// their scalar rules. Integers: the bitwise lanes and the comparisons by their
		// vector lanes through Op2StreamImpl; the arithmetic, the shifts and the unary
		// operators component by component through their scalar rule.

		using FnLowKernel = void (*)(void *dst, const void *dstEnd, const void *src0, u32 stride0, const void *src1, u32 stride1);

		template <int _Dimension, u32 _Op>
		void _LowFloatKernel(void *dst, const void *dstEnd, const void *src0, u32 stride0, const void *src1, u32 stride1)
		{
			using Impl = SMathOpImpl_Low<TVector<float, _Dimension>>;
			constexpr const SOp_MathOp::STraits &traits = SOp_MathOp::kTraits[_Op];
			float *d = static_cast<float *>(dst);
			const float *e = static_cast<const float *>(dstEnd), *a = static_cast<const float *>(src0), *b = static_cast<const float *>(src1);
			if constexpr (traits.m_FloatKernel == SOp_MathOp::FloatKernel_Lanes)
				Impl::template Op2StreamImpl<traits.m_FloatLane>(d, e, a, stride0, b, stride1);
			else if constexpr (traits.m_FloatKernel == SOp_MathOp::FloatKernel_Mod)
				Impl::Op2StreamImpl_Op2_Low_Mod(d, e, a, stride0, b, stride1);
			else
				_LowUnaryLoop<_Dimension, float, &ScalarOps::NegF32>(d, e, a, stride0, src1);
		}

		// The integer operators whose Low kernel is a vector lane operation (and, or, xor,
		// the comparisons); the others are computed by their scalar rule.
		constexpr bool _LowIntHasVectorLanes(const SOp_MathOp::STraits &traits)
		{
			return traits.m_IntKernel == SOp_MathOp::IntKernel_Lanes && (traits.m_FloatKernel == SOp_MathOp::FloatKernel_None || traits.m_FloatLane >= Op2_LT);
		}

		template <int _Dimension, u32 _Op>
		void _LowIntKernel(void *dst, const void *dstEnd, const void *src0, u32 stride0, const void *src1, u32 stride1)
		{
			using Impl = SMathOpImpl_Low<TVector<int, _Dimension>>;
			constexpr const SOp_MathOp::STraits &traits = SOp_MathOp::kTraits[_Op];
			s32 *d = static_cast<s32 *>(dst);
			const s32 *e = static_cast<const s32 *>(dstEnd), *a = static_cast<const s32 *>(src0), *b = static_cast<const s32 *>(src1);
			if constexpr (_LowIntHasVectorLanes(traits))
				Impl::template Op2StreamImpl<_Op>(d, e, a, stride0, b, stride1);
			else if constexpr (traits.m_ParameterCount == 1)
				_LowUnaryLoop<_Dimension, s32, traits.m_IntRule>(d, e, a, stride0, src1);
			else
				_LowComponentLoop<_Dimension, s32, traits.m_IntRule>(d, e, a, stride0, b, stride1);
		}

		template <int _Dimension, std::size_t... _Ops>
		constexpr std::array<FnLowKernel, SOp_MathOp::__MaxOps> _BuildLowFloatTable(std::index_sequence<_Ops...>)
		{
			return {{(SOp_MathOp::kTraits[_Ops].FloatSupported() ? &_LowFloatKernel<_Dimension, _Ops> : nullptr)...}};
		}

		template <int _Dimension, std::size_t... _Ops>
		constexpr std::array<FnLowKernel, SOp_MathOp::__MaxOps> _BuildLowIntTable(std::index_sequence<_Ops...>)
		{
			return {{&_LowIntKernel<_Dimension, _Ops>...}};
		}

		template <int _Dimension>
		inline constexpr std::array<FnLowKernel, SOp_MathOp::__MaxOps> _FnLowFloat = _BuildLowFloatTable<_Dimension>(std::make_index_sequence<SOp_MathOp::__MaxOps>());
		template <int _Dimension>
		inline constexpr std::array<FnLowKernel, SOp_MathOp::__MaxOps> _FnLowInt = _BuildLowIntTable<_Dimension>(std::make_index_sequence<SOp_MathOp::__MaxOps>());

		//--------------------------------------------------------------------------------
		// Operator selectors, called once per instruction by the Low entry points, after
		// their operand checks (AssertSelectorOperands).

		template <int _Dimension>
		void ExecOperatorFloat_Low(SOp_MathOp::EOp op, void *evalInto, u32 evalCount, const void *datasrc0, u32 stride0, const void *datasrc1, u32 stride1)
		{
			AssertSelectorOperands<Path_Low, float, _Dimension>(evalInto, datasrc0, stride0, datasrc1, stride1);

			const FnLowKernel fn = u32(op) < u32(SOp_MathOp::__MaxOps) ? _FnLowFloat<_Dimension>[op] : nullptr;
			if (fn == nullptr)
			{
				// The bitwise operators, and any value past the operator set.
				OX_ASSERT_FORMAT(false, "[Backend CPU-VM]: Invalid Operation: logical ops cannot be applied to 'float' type");
				return;
			}
			fn(evalInto, static_cast<float *>(evalInto) + std::size_t(evalCount) * _Dimension, datasrc0, stride0, datasrc1, stride1);
		}

		template <int _Dimension>
		void ExecOperatorInt_Low(SOp_MathOp::EOp op, void *evalInto, u32 evalCount, const void *datasrc0, u32 stride0, const void *datasrc1, u32 stride1)
		{
			AssertSelectorOperands<Path_Low, s32, _Dimension>(evalInto, datasrc0, stride0, datasrc1, stride1);

			if (u32(op) >= u32(SOp_MathOp::__MaxOps))
			{
				OX_ASSERT_FORMAT(false, "[Backend CPU-VM]: Unsupported integer operation");
				return;
			}
			_FnLowInt<_Dimension>[op](evalInto, static_cast<s32 *>(evalInto) + std::size_t(evalCount) * _Dimension, datasrc0, stride0, datasrc1, stride1);
		}
	}
}
