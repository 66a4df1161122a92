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
//
// Modulo computes what the SSE2 kernel computes lane for lane: frac(a / b) * b for two
// streams and for a constant dividend, frac(a * r) * c for a constant divisor c, with r
// = 1 / c divided once per lane as the SSE2 kernel divides it. Negation flips the sign
// bit. Their preconditions (packed destination and stream operands) are the SSE2
// kernel's checks: a call that fails one goes to it, and it reports.

#include "cbvm_math_op_kernel_sets.h"
#include "cbvm_math_op_lanes.h"

#include <immintrin.h>

#include <array>
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
			static constexpr u32 kVectorBytes = u32(4 * kLanes);

			// By the destination's offset from the vector width, in 16-byte steps: the fewest
			// elements that bring it to the width (their bytes a whole number of 16-byte vectors).
			static constexpr std::array<u32, kVectorBytes / 16> kPeelBy16 = [] {
				std::array<u32, kVectorBytes / 16> peel = {};
				for (u32 step = 1; step < kVectorBytes / 16; ++step)
					while ((16 * step + peel[step] * kElementBytes) % kVectorBytes != 0)
						++peel[step];
				return peel;
			}();
			static_assert(kPeelBy16[0] == 0 && (16 + kPeelBy16[1] * kElementBytes) % kVectorBytes == 0, "a peel reaches the vector width");

			// _Slot: this kernel's index in the tables (the SSE2 kernel it stands for).
			template <EOp2Type _Op, u32 _Slot>
			static void Lanes(void *dst, u32 dstStride, u32 count, const void *src0, u32 stride0, const void *src1, u32 stride1)
			{
				_Widened<_Slot>(dst, dstStride, count, src0, stride0, src1, stride1, [](float *d, const float *a, const float *b, std::size_t floats, bool packed0, bool packed1) OX_ALWAYS_INLINE {
					if (packed0 && packed1)
						_StreamLoop(d, a, b, floats, [](const _Vector &x, const _Vector &y) OX_ALWAYS_INLINE { return TOp2Impl<_Op, false>::Op(x, y); });
					else if (packed0)
						_ConstantLoop(d, a, b, floats, [](const _Vector &v, const _Vector &c) OX_ALWAYS_INLINE { return TOp2Impl<_Op, false>::Op(v, c); });
					else
						_ConstantLoop(d, b, a, floats, [](const _Vector &v, const _Vector &c) OX_ALWAYS_INLINE { return TOp2Impl<_Op, true>::Op(v, c); });	// c op v
				});
			}

			template <u32 _Slot>
			static void Mod(void *dst, u32 dstStride, u32 count, const void *src0, u32 stride0, const void *src1, u32 stride1)
			{
				// (Two constants are not widened: _Widened needs a stream operand.)
				_Widened<_Slot>(dst, dstStride, count, src0, stride0, src1, stride1, [](float *d, const float *a, const float *b, std::size_t floats, bool packed0, bool packed1) OX_ALWAYS_INLINE {
					const TTruncFrac<_Vector> truncFrac;
					if (packed0 && packed1)
						_StreamLoop(d, a, b, floats, [&](const _Vector &x, const _Vector &y) OX_ALWAYS_INLINE { return truncFrac(x / y) * y; });
					else if (packed0)
					{
						// A constant divisor: its reciprocal once per lane, as the SSE2 kernel divides it.
						_Vector c[kVectors], r[kVectors];
						_Period(b, c);
						for (int k = 0; k < kVectors; ++k)
							r[k] = _Vector(1.0f) / c[k];
						_ByReciprocal(d, a, floats, c, r);
					}
					else
						_ConstantLoop(d, b, a, floats, [&](const _Vector &y, const _Vector &c) OX_ALWAYS_INLINE { return truncFrac(c / y) * y; });	// a constant dividend
				});
			}

			// Mod by a constant divisor whose layout over 12 floats and reciprocal were made
			// once (a prepared batched call, CPreparedCalls::Refresh): Mod's constant-divisor
			// loop, with nothing divided per call. 'constant' is the divisor's register, for
			// the calls and the rest that go to the SSE2 kernel, as Mod hands them.
			template <u32 _Slot>
			static void ModByConstant(const float *divisor12, const float *reciprocal12, void *dst, u32 count, const void *src0, const void *constant)
			{
				_Widened<_Slot>(dst, kElementBytes, count, src0, kElementBytes, constant, 0, [&](float *d, const float *a, const float *, std::size_t floats, bool, bool) OX_ALWAYS_INLINE {
					_Vector c[kVectors], r[kVectors];
					_Repeat(_Quarters(divisor12), c);
					_Repeat(_Quarters(reciprocal12), r);
					_ByReciprocal(d, a, floats, c, r);
				});
			}

			template <u32 _Slot>
			static void Neg(void *dst, u32 dstStride, u32 count, const void *src0, u32 stride0, const void *src1, u32 stride1)
			{
				// Negation has no second operand (src1 is null): only a packed stream src0 is widened.
				if (src1 != nullptr || stride0 != kElementBytes)
				{
					g_FloatKernelsSse2[_Slot](dst, dstStride, count, src0, stride0, src1, stride1);
					return;
				}
				_Widened<_Slot>(dst, dstStride, count, src0, stride0, src0, stride0, [](float *d, const float *a, const float *, std::size_t floats, bool, bool) OX_ALWAYS_INLINE {
					const _Vector signs = _Vector::SplatInt(s32(0x80000000u));
					_Periods(d, floats, [&](std::size_t i, int) OX_ALWAYS_INLINE { return _Vector::Load(a + i) ^ signs; });
				}, /*unary*/ true);
			}

		private:
			// The frame of every wide kernel: the calls it takes (packed destination, a
			// packed source, pointers 16-byte aligned and non-null, at least one period, no
			// destination ahead inside a source stream), the first elements to the SSE2
			// kernel up to the vector width on long calls,
			// 'loop' over whole periods, the rest to the SSE2 kernel; any other call to the
			// SSE2 kernel as it is. 'loop'(d, a, b, floats, packed0, packed1).
			template <u32 _Slot, typename _FnLoop>
			static OX_ALWAYS_INLINE void _Widened(void *dst, u32 dstStride, u32 count, const void *src0, u32 stride0, const void *src1, u32 stride1,
																const _FnLoop &loop, bool unary = false)
			{
				const FnOp2Stream sse2 = g_FloatKernelsSse2[_Slot];
				const bool packed0 = stride0 == kElementBytes, packed1 = stride1 == kElementBytes;
				const std::uintptr_t any = reinterpret_cast<std::uintptr_t>(dst) | reinterpret_cast<std::uintptr_t>(src0) | reinterpret_cast<std::uintptr_t>(src1);
				const std::size_t span = std::size_t(count) * kElementBytes;
				if (count < kPeriodElements || dstStride != kElementBytes || !(packed0 || packed1) || (any & 15) != 0 || src0 == nullptr || src1 == nullptr ||
					(packed0 && DestinationAheadInSource(dst, src0, span)) || (packed1 && DestinationAheadInSource(dst, src1, span)))
				{
					sse2(dst, dstStride, count, src0, stride0, unary ? nullptr : src1, stride1);
					return;
				}
				if (std::size_t(count) * _Dimension >= 64 * kLanes && (reinterpret_cast<std::uintptr_t>(dst) & (kVectorBytes - 1)) != 0)
					_Peeled<_Slot>(static_cast<float *>(dst), count, static_cast<const float *>(src0), stride0, static_cast<const float *>(src1), stride1, loop, unary);
				else
					_Run<_Slot>(static_cast<float *>(dst), count, static_cast<const float *>(src0), stride0, static_cast<const float *>(src1), stride1, loop, unary);
			}

			// Whole periods of 'count' elements with 'loop', the rest to the SSE2 kernel (with
			// the call's own strides: a source that is not packed is the constant).
			template <u32 _Slot, typename _FnLoop>
			static OX_ALWAYS_INLINE void _Run(float *d, u32 count, const float *a, u32 stride0, const float *b, u32 stride1, const _FnLoop &loop, bool unary)
			{
				const bool packed0 = stride0 == kElementBytes, packed1 = stride1 == kElementBytes;
				const u32 whole = count / kPeriodElements * kPeriodElements;
				const std::size_t floats = std::size_t(whole) * _Dimension;
				loop(d, a, b, floats, packed0, packed1);
				if (whole != count)
					g_FloatKernelsSse2[_Slot](d + floats, kElementBytes, count - whole, packed0 ? a + floats : a, stride0, unary ? nullptr : packed1 ? b + floats : b, stride1);
			}

			// A long call whose destination is off the vector width (16-byte aligned, as the
			// register file promises): the SSE2 kernel takes the first elements, a whole
			// number of its own vectors up to the width, so that no wide access splits a
			// cache line (1.3-1.5x slower inside the level-1 cache). Out of line, and only
			// from 64 wide vectors on: shorter calls lose more to the extra call than to the
			// splits (AVX2, 256 floats: 19 against 25 ns).
			template <u32 _Slot, typename _FnLoop>
			static __attribute__((noinline)) void _Peeled(float *d, u32 count, const float *a, u32 stride0, const float *b, u32 stride1, const _FnLoop &loop, bool unary)
			{
				const bool packed0 = stride0 == kElementBytes, packed1 = stride1 == kElementBytes;
				const u32 peel = kPeelBy16[(reinterpret_cast<std::uintptr_t>(d) & (kVectorBytes - 1)) / 16];
				const std::size_t peeled = std::size_t(peel) * _Dimension;
				g_FloatKernelsSse2[_Slot](d, kElementBytes, peel, a, stride0, unary ? nullptr : b, stride1);
				_Run<_Slot>(d + peeled, count - peel, packed0 ? a + peeled : a, stride0, packed1 ? b + peeled : b, stride1, loop, unary);
			}

			// The loop of every wide kernel: vector k of the period at float i is at(i + k *
			// lanes, k), stored to d there, over whole periods. Four vectors per iteration when
			// a period is one vector (a three-vector period as it is), all computed before the
			// first store; then one period at a time. (Reading ahead is safe: no destination
			// here lies ahead inside a source, see _Widened.)
			template <typename _FnAt>
			static OX_ALWAYS_INLINE void _Periods(float *d, std::size_t floats, const _FnAt &at)
			{
				constexpr int kUnroll = kVectors == 1 ? 4 : 1;
				std::size_t i = 0;
				for (; i + kUnroll * kPeriod <= floats; i += kUnroll * kPeriod)
				{
					_Vector v[kUnroll * kVectors];
#pragma GCC unroll 4
					for (int j = 0; j < kUnroll * kVectors; ++j)
						v[j] = at(i + std::size_t(j) * kLanes, j % kVectors);
#pragma GCC unroll 4
					for (int j = 0; j < kUnroll * kVectors; ++j)
						v[j].Store(d + i + std::size_t(j) * kLanes);
				}
				for (; i < floats; i += kPeriod)
#pragma GCC unroll 3
					for (int k = 0; k < kVectors; ++k)
						at(i + std::size_t(k) * kLanes, k).Store(d + i + std::size_t(k) * kLanes);
			}

			// d = op(a, b) over two streams.
			template <typename _FnOp>
			static OX_ALWAYS_INLINE void _StreamLoop(float *d, const float *a, const float *b, std::size_t floats, const _FnOp &op)
			{
				_Periods(d, floats, [&](std::size_t i, int) OX_ALWAYS_INLINE { return op(_Vector::Load(a + i), _Vector::Load(b + i)); });
			}

			// d = frac(a / c) c over whole periods, the quotient as a * r (r = 1 / c, made by the caller).
			static OX_ALWAYS_INLINE void _ByReciprocal(float *d, const float *a, std::size_t floats, const _Vector (&c)[kVectors], const _Vector (&r)[kVectors])
			{
				const TTruncFrac<_Vector> truncFrac;
				_Periods(d, floats, [&](std::size_t i, int k) OX_ALWAYS_INLINE { return truncFrac(_Vector::Load(a + i) * r[k]) * c[k]; });
			}

			struct SQuarters
			{
				__m128 m_Q[3];
			};

			// A 12-float block as three SSE vectors.
			static OX_ALWAYS_INLINE SQuarters _Quarters(const float *block12)
			{
				return {{_mm_loadu_ps(block12), _mm_loadu_ps(block12 + 4), _mm_loadu_ps(block12 + 8)}};
			}

			// A 12-float block repeated over one period.
			static OX_ALWAYS_INLINE void _Repeat(const SQuarters &block, _Vector (&c)[kVectors])
			{
				for (int k = 0; k < kVectors; ++k)
					c[k] = _Vector::Repeat12(block.m_Q, k * kLanes / 4);
			}

			// A constant element laid out over one period, as kVectors vectors: the element
			// over 12 floats (three SSE vectors, in registers), then that block repeated. A
			// three-component element reads 16 bytes: the register file pads every element.
			static OX_ALWAYS_INLINE void _Period(const float *constant, _Vector (&c)[kVectors])
			{
				SQuarters block;
				__m128 (&q)[3] = block.m_Q;
				if (_Dimension == 1)
					q[0] = _mm_set1_ps(constant[0]);
				else if (_Dimension == 2)
					q[0] = _mm_castpd_ps(_mm_load1_pd(reinterpret_cast<const double *>(constant)));
				else
					q[0] = _mm_loadu_ps(constant);
				q[1] = _Dimension == 3 ? _mm_shuffle_ps(q[0], q[0], _MM_SHUFFLE(1, 0, 2, 1)) : q[0];	// c1 c2 c0 c1
				q[2] = _Dimension == 3 ? _mm_shuffle_ps(q[0], q[0], _MM_SHUFFLE(2, 1, 0, 2)) : q[0];	// c2 c0 c1 c2
				if (_Dimension == 3)
					q[0] = _mm_shuffle_ps(q[0], q[0], _MM_SHUFFLE(0, 2, 1, 0));	// c0 c1 c2 c0
				_Repeat(block, c);
			}

			// d = op(s, c) over whole periods: s a stream, c the constant over one period.
			template <typename _FnOp>
			static OX_ALWAYS_INLINE void _ConstantLoop(float *d, const float *s, const float *constant, std::size_t floats, const _FnOp &op)
			{
				_Vector c[kVectors];
				_Period(constant, c);
				_Periods(d, floats, [&](std::size_t i, int k) OX_ALWAYS_INLINE { return op(_Vector::Load(s + i), c[k]); });
			}
		};

		// A set's table: a wide kernel for every operator with a float form (by its kind
		// in the operator table), null for the others.
		template <typename _Vector, int _Dimension, u32 _Op>
		constexpr FnOp2Stream _WideFloatKernelOf()
		{
			using Kernels = TWideFloatKernels<_Vector, _Dimension>;
			constexpr const Compiler::IR::SOp_MathOp::STraits &traits = Compiler::IR::SOp_MathOp::kTraits[_Op];
			constexpr u32 kSlot = _Op * 4 + (_Dimension - 1);
			if constexpr (traits.m_FloatKernel == Compiler::IR::SOp_MathOp::FloatKernel_Lanes)
				return &Kernels::template Lanes<traits.m_FloatLane, kSlot>;
			else if constexpr (traits.m_FloatKernel == Compiler::IR::SOp_MathOp::FloatKernel_Mod)
				return &Kernels::template Mod<kSlot>;
			else if constexpr (traits.m_FloatKernel == Compiler::IR::SOp_MathOp::FloatKernel_Neg)
				return &Kernels::template Neg<kSlot>;
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

		// A set's ModByConstant for N = 1 to 4.
		template <typename _Vector>
		constexpr FloatModByConstantRow BuildWideModByConstantRow()
		{
			constexpr u32 kMod = Compiler::IR::SOp_MathOp::Op_Mod * 4;
			return {{&TWideFloatKernels<_Vector, 1>::template ModByConstant<kMod + 0>, &TWideFloatKernels<_Vector, 2>::template ModByConstant<kMod + 1>,
					 &TWideFloatKernels<_Vector, 3>::template ModByConstant<kMod + 2>, &TWideFloatKernels<_Vector, 4>::template ModByConstant<kMod + 3>}};
		}

		template <typename _Vector>
		constexpr FloatKernelTable BuildWideFloatKernelTable()
		{
			return _BuildWideFloatKernelTable<_Vector>(std::make_index_sequence<Compiler::IR::SOp_MathOp::__MaxOps>());
		}
	}
}
