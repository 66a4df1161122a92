#pragma once
// The wide float kernels: one body per operation, templated over the vector type of a
// kernel set (SIMD_AVX2::Float8, SIMD_AVX512::Float16). Included only by the unit of
// each set, compiled for its target (cbvm_math_op_wide_avx2.cpp, ..._avx512.cpp).
//
// A wide kernel is the SSE2 kernel of the same operator and dimension, faster: it takes
// the calls whose every lane the SSE2 vector loop would compute without a report (a
// packed destination, one or two packed sources, every pointer 16-byte aligned and
// non-null), runs whole periods of wide vectors over them, and hands what is left (fewer
// elements than one period) to the SSE2 kernel, which ends it exactly as it ends any
// call: its own whole vectors, then its tail. Every other call goes to the SSE2 kernel
// as it is, so slow paths, hazards and reports are the SSE2 kernel's own. Each lane
// computes the SSE2 lane operation (TOp2Impl) in the same operand order, so every word
// is the same, NaN payloads included; the wide loop reads and writes only whole periods
// inside the streams.
//
// A period is the smallest run of floats that is both whole vectors and whole elements:
// lcm(N, lanes) floats (one vector for N = 1, 2, 4; three for N = 3). A constant operand
// is laid out over one period once, outside the loop.

#include "cbvm_math_op_kernel_sets.h"
#include "cbvm_math_op_lanes.h"

#include <cstddef>
#include <cstdint>
#include <utility>

namespace Orvex
{
	namespace MathOp
	{
		template <typename _Vector, int _Dimension>
		struct TWideFloatKernels
		{
			static constexpr int kLanes = _Vector::kLanes;
			static constexpr int kPeriod = _Dimension == 3 ? 3 * kLanes : kLanes;	// floats: lcm(N, lanes), lanes a multiple of 4
			static constexpr int kVectors = kPeriod / kLanes;
			static constexpr u32 kPeriodElements = u32(kPeriod / _Dimension);
			static constexpr u32 kElementBytes = u32(4 * _Dimension);
			static_assert(kPeriod % _Dimension == 0 && kPeriod % kLanes == 0, "a period is whole elements and whole vectors");

			// _Slot: this kernel's index in the tables (the SSE2 kernel it stands for).
			template <EOp2Type _Op, u32 _Slot>
			static void Lanes(void *dst, u32 dstStride, u32 count, const void *src0, u32 stride0, const void *src1, u32 stride1)
			{
				const FnOp2Stream sse2 = g_FloatKernelsSse2[_Slot];
				const u32 whole = count / kPeriodElements * kPeriodElements;
				const bool packed0 = stride0 == kElementBytes, packed1 = stride1 == kElementBytes;
				const std::uintptr_t any = reinterpret_cast<std::uintptr_t>(dst) | reinterpret_cast<std::uintptr_t>(src0) | reinterpret_cast<std::uintptr_t>(src1);
				if (whole == 0 || dstStride != kElementBytes || !(packed0 || packed1) || (any & 15) != 0 || src0 == nullptr || src1 == nullptr)
				{
					sse2(dst, dstStride, count, src0, stride0, src1, stride1);
					return;
				}
				float *d = static_cast<float *>(dst);
				const float *a = static_cast<const float *>(src0);
				const float *b = static_cast<const float *>(src1);
				const std::size_t floats = std::size_t(whole) * _Dimension;
				if (packed0 && packed1)
				{
					for (std::size_t i = 0; i < floats; i += kLanes)
						TOp2Impl<_Op, false>::Op(_Vector::Load(a + i), _Vector::Load(b + i)).Store(d + i);
				}
				else if (packed0)
					_ConstantLoop<TOp2Impl<_Op, false>>(d, a, b, floats);
				else
					_ConstantLoop<TOp2Impl<_Op, true>>(d, b, a, floats);	// the constant is src0: c op v
				if (whole != count)
					sse2(d + floats, dstStride, count - whole, packed0 ? a + floats : a, stride0, packed1 ? b + floats : b, stride1);
			}

		private:
			// d = s op c (or c op s: _Impl flips) over whole periods, the constant laid out
			// over one period.
			template <typename _Impl>
			static __attribute__((always_inline)) void _ConstantLoop(float *d, const float *s, const float *constant, std::size_t floats)
			{
				alignas(64) float period[kPeriod];
				for (int j = 0; j < kPeriod; ++j)
					period[j] = constant[j % _Dimension];
				_Vector c[kVectors];
				for (int k = 0; k < kVectors; ++k)
					c[k] = _Vector::Load(period + k * kLanes);
				for (std::size_t i = 0; i < floats; i += kPeriod)
					for (int k = 0; k < kVectors; ++k)
						_Impl::Op(_Vector::Load(s + i + k * kLanes), c[k]).Store(d + i + k * kLanes);
			}
		};

		// A set's table: the wide kernel of every operator whose float form is lanewise,
		// null elsewhere (modulo, negation: the SSE2 kernels run).
		template <typename _Vector, int _Dimension, u32 _Op>
		constexpr FnOp2Stream _WideFloatKernelOf()
		{
			constexpr const Compiler::IR::SOp_MathOp::STraits &traits = Compiler::IR::SOp_MathOp::kTraits[_Op];
			if constexpr (traits.m_FloatKernel == Compiler::IR::SOp_MathOp::FloatKernel_Lanes)
				return &TWideFloatKernels<_Vector, _Dimension>::template Lanes<traits.m_FloatLane, _Op * 4 + (_Dimension - 1)>;
			else
				return nullptr;
		}

		template <typename _Vector, std::size_t... _Ops>
		constexpr FloatKernelTable _BuildWideFloatKernelTable(std::index_sequence<_Ops...>)
		{
			FloatKernelTable table = {};
			((table[_Ops * 4 + 0] = _WideFloatKernelOf<_Vector, 1, _Ops>(), table[_Ops * 4 + 1] = _WideFloatKernelOf<_Vector, 2, _Ops>(),
			  table[_Ops * 4 + 2] = _WideFloatKernelOf<_Vector, 3, _Ops>(), table[_Ops * 4 + 3] = _WideFloatKernelOf<_Vector, 4, _Ops>()),
			 ...);
			return table;
		}

		template <typename _Vector>
		constexpr FloatKernelTable BuildWideFloatKernelTable()
		{
			return _BuildWideFloatKernelTable<_Vector>(std::make_index_sequence<Compiler::IR::SOp_MathOp::__MaxOps>());
		}
	}
}
