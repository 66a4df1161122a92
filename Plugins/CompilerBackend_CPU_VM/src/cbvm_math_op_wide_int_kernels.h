#pragma once
// The wide integer kernel: the SSE2 block kernel (_ExecIntOperatorPacked,
// cbvm_math_op_int_kernel.cpp) with blocks of three wide vectors instead of three SSE
// vectors, templated over the vector type of a kernel set. Included only by the unit of
// each set, compiled for its target.
//
// A block is 3 x lanes integers (24 or 48): a multiple of 12, so a constant operand's
// 12-integer block (Broadcast12) repeats in it, laid out once per call. The wide kernel
// takes what the SSE2 kernel computes without a report: aligned pointers, no destination
// ahead inside a source stream (DestinationAheadInSource), and the lanewise and unary
// operators, division, modulo and shifts by a uniform constant (a shift count at most
// 31; not a modulo by +-1, which the SSE2 kernel clears in one go), and division,
// modulo and shifts by a stream or a constant of unequal lanes, per lane (division
// through double precision as the SSE2 kernel divides, shifts by each lane's count as
// the scalar rules shift; the hazard counted once, by FinishPerLane). It runs whole
// wide blocks and hands what is left (fewer integers than one wide block, from a whole
// 12-integer block on) to the SSE2 kernel, which ends it as it ends any call; every
// other call goes to the SSE2 kernel whole, so those paths, hazards and reports are its
// own. The vector forms are the SSE2 kernel's where it has them (TIntLanes,
// cbvm_math_op_int_uniform.h), on every lane alike.

#include "cbvm_math_op_int_uniform.h"
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
		template <typename _Vector>
		struct TWideIntKernel
		{
			using SOp_MathOp = Compiler::IR::SOp_MathOp;
			static constexpr int kLanes = _Vector::kLanes;
			static constexpr std::ptrdiff_t kBlockInts = 3 * kLanes;
			static_assert(kBlockInts % 12 == 0, "a wide block is whole 12-integer blocks");

			static void Run(SOp_MathOp::EOp op, s32 *dst, const s32 *dstStop, const s32 *src0, u32 stride0, const s32 *src1, u32 stride1)
			{
				const std::ptrdiff_t ints = dstStop - dst;
				const std::uintptr_t any = reinterpret_cast<std::uintptr_t>(dst) | reinterpret_cast<std::uintptr_t>(src0) | reinterpret_cast<std::uintptr_t>(src1);
				const SOp_MathOp::EIntKernel kind = u32(op) < SOp_MathOp::__MaxOps ? kIntKernels[op] : SOp_MathOp::IntKernel_Lanes;
				std::ptrdiff_t done = 0;
				const std::size_t span = std::size_t(ints) * 4;
				const bool ahead = (stride0 != 0 && DestinationAheadInSource(dst, src0, span)) || (stride1 != 0 && src1 != nullptr && DestinationAheadInSource(dst, src1, span));
				const std::ptrdiff_t whole = ints / kBlockInts * kBlockInts;
				auto rest = [&](std::ptrdiff_t from) { return std::make_pair(stride0 != 0 ? src0 + from : src0, stride1 != 0 && src1 != nullptr ? src1 + from : src1); };
				if (ints >= kBlockInts && (any & 15) == 0 && src0 != nullptr && !ahead)
				{
					const SSources s(src0, stride0, src1, stride1);
					const bool perLaneKind = kind == SOp_MathOp::IntKernel_Div || kind == SOp_MathOp::IntKernel_Mod || kind == SOp_MathOp::IntKernel_Shift;
					if (perLaneKind && src1 != nullptr && !s.UniformRight())
					{
						// A stream or a constant of several divisors or counts: per lane, the rest
						// and the hazard the SSE2 kernel's (FinishPerLane).
						done = _PerLaneOf(u32(op), dst, whole, s, std::make_index_sequence<SOp_MathOp::__MaxOps>());
						FinishPerLane(op, ints, dst + done, dstStop, rest(done).first, stride0, rest(done).second, stride1);
						return;
					}
					done = _RunOperatorOf(u32(op), dst, whole, s, std::make_index_sequence<SOp_MathOp::__MaxOps>());
				}
				if (done != ints)
					g_IntKernelSse2(op, dst + done, dstStop, rest(done).first, stride0, rest(done).second, stride1);
			}

		private:
			// Each operator's integer kernel kind, from the operator table at compile time (the
			// table itself holds pointers to scalar functions: read here at run time, it
			// would make this unit emit its own copies of them).
			template <std::size_t... _Ops>
			static constexpr std::array<SOp_MathOp::EIntKernel, SOp_MathOp::__MaxOps> _IntKernels(std::index_sequence<_Ops...>)
			{
				return {{SOp_MathOp::kTraits[_Ops].m_IntKernel...}};
			}
			static constexpr std::array<SOp_MathOp::EIntKernel, SOp_MathOp::__MaxOps> kIntKernels = _IntKernels(std::make_index_sequence<SOp_MathOp::__MaxOps>());

			// A source: a stream, or a constant's 12-integer block laid out over one wide block.
			struct SSource
			{
				const s32 *m_Stream = nullptr;	// null: the constant
				_Vector m_Constant[3] = {_Vector::Zero(), _Vector::Zero(), _Vector::Zero()};	// zeros beside a stream or no source

				SSource(const s32 *src, u32 stride)
				{
					if (src == nullptr)
						return;
					if (stride != 0)
					{
						m_Stream = src;
						return;
					}
					const __m128 q[3] = {_mm_loadu_ps(reinterpret_cast<const float *>(src)), _mm_loadu_ps(reinterpret_cast<const float *>(src + 4)),
										 _mm_loadu_ps(reinterpret_cast<const float *>(src + 8))};
					for (int v = 0; v < 3; ++v)
						m_Constant[v] = _Vector::Repeat12(q, v * kLanes / 4);
				}
			};

			struct SSources
			{
				SSource m_A, m_B;
				const s32 *m_Constant1;	// source 1's 12-integer block, or null
				SSources(const s32 *src0, u32 stride0, const s32 *src1, u32 stride1) : m_A(src0, stride0), m_B(src1, stride1), m_Constant1(stride1 == 0 ? src1 : nullptr) {}
				// A uniform constant right operand: the four integers of its first vector equal
				// (the test of the SSE2 kernel's block paths).
				bool UniformRight() const { return m_Constant1 != nullptr && m_Constant1[0] == m_Constant1[1] && m_Constant1[0] == m_Constant1[2] && m_Constant1[0] == m_Constant1[3]; }
			};

			// dst over 'ints' integers (whole wide blocks): vector v of the block at i is at(i, v).
			template <typename _FnAt>
			static __attribute__((always_inline)) std::ptrdiff_t _Loop(s32 *dst, std::ptrdiff_t ints, const _FnAt &at)
			{
				for (std::ptrdiff_t i = 0; i < ints; i += kBlockInts)
				{
					at(i, 0).Store(dst + i);
					at(i, 1).Store(dst + i + kLanes);
					at(i, 2).Store(dst + i + 2 * kLanes);
				}
				return ints;
			}

			// dst[i] = fn(a[i], b[i]) over 'ints' integers (whole wide blocks). Which source
			// is a stream is settled once, outside the loop: the loop of each case loads its
			// streams and keeps a constant's block in registers (a choice made per vector
			// inside the loop cost W8 by 8 an eighth of its speed against SSE2).
			template <typename _Fn>
			static __attribute__((always_inline)) std::ptrdiff_t _Blocks(s32 *dst, std::ptrdiff_t ints, const SSources &s, const _Fn &fn)
			{
				const s32 *a = s.m_A.m_Stream, *b = s.m_B.m_Stream;
				const _Vector ca[3] = {s.m_A.m_Constant[0], s.m_A.m_Constant[1], s.m_A.m_Constant[2]};
				const _Vector cb[3] = {s.m_B.m_Constant[0], s.m_B.m_Constant[1], s.m_B.m_Constant[2]};
				if (a != nullptr && b != nullptr)
					return _Loop(dst, ints, [&](std::ptrdiff_t i, int v) OX_KERNEL_LAMBDA { return fn(_Vector::Load(a + i + v * kLanes), _Vector::Load(b + i + v * kLanes)); });
				if (a != nullptr)
					return _Loop(dst, ints, [&](std::ptrdiff_t i, int v) OX_KERNEL_LAMBDA { return fn(_Vector::Load(a + i + v * kLanes), cb[v]); });
				if (b != nullptr)
					return _Loop(dst, ints, [&](std::ptrdiff_t i, int v) OX_KERNEL_LAMBDA { return fn(ca[v], _Vector::Load(b + i + v * kLanes)); });
				return _Loop(dst, ints, [&](std::ptrdiff_t, int v) OX_KERNEL_LAMBDA { return fn(ca[v], cb[v]); });
			}

			// Division by a uniform constant: the SSE2 kernel's block forms, divisor by divisor.
			template <typename _FnOfQuotient>
			static __attribute__((always_inline)) std::ptrdiff_t _ByUniform(s32 *dst, std::ptrdiff_t ints, const SSources &s, s32 divisor, bool remainder, const _FnOfQuotient &fn)
			{
				if (divisor == 1 || divisor == -1)
				{
					const _Vector sign = _Vector::SplatInt(divisor >> 31);
					return _Blocks(dst, ints, s, [&](const _Vector &a, const _Vector &) OX_KERNEL_LAMBDA { return _SignQuotient(a, sign); });
				}
				if (_IsPowerOfTwo(divisor))
				{
					const _Vector lowBits = _Vector::SplatInt(s32(u32(divisor) - 1u));
					if (remainder)
						return _Blocks(dst, ints, s, [&](const _Vector &a, const _Vector &) OX_KERNEL_LAMBDA { return _PowerOfTwoRemainder<true>(a, lowBits); });
					const u32 k = _Log2OfPowerOfTwo(divisor);
					return _Blocks(dst, ints, s, [&](const _Vector &a, const _Vector &) OX_KERNEL_LAMBDA { return _PowerOfTwoQuotient<true>(a, lowBits, k); });
				}
				const TMagicDivisor<_Vector> magic(divisor);
				if (magic.SubtractsDividend())
					return _Blocks(dst, ints, s, [&](const _Vector &a, const _Vector &) OX_KERNEL_LAMBDA { return fn(a, magic.template Quotient<true, true>(a)); });
				return _Blocks(dst, ints, s, [&](const _Vector &a, const _Vector &) OX_KERNEL_LAMBDA { return fn(a, magic.template Quotient<true, false>(a)); });
			}

			// The integers of [dst, dst + ints) the operator's wide form computed: all of
			// them, or none (the SSE2 kernel takes the call).
			template <u32 _Op>
			static __attribute__((always_inline)) std::ptrdiff_t _RunOperator(s32 *dst, std::ptrdiff_t ints, const SSources &s)
			{
				constexpr const SOp_MathOp::STraits &traits = SOp_MathOp::kTraits[_Op];
				if constexpr (traits.m_IntKernel == SOp_MathOp::IntKernel_Lanes)
					return s.m_B.m_Stream == nullptr && s.m_Constant1 == nullptr ? 0 : _Blocks(dst, ints, s, [](const _Vector &a, const _Vector &b) OX_KERNEL_LAMBDA { return TIntLanes<_Op>::Vector(a, b); });
				else if constexpr (traits.m_IntKernel == SOp_MathOp::IntKernel_Unary)
					return _Blocks(dst, ints, s, [](const _Vector &a, const _Vector &) OX_KERNEL_LAMBDA { return TIntLanes<_Op>::Vector(a); });
				else if constexpr (traits.m_IntKernel == SOp_MathOp::IntKernel_Div)
					return s.UniformRight() ? _ByUniform(dst, ints, s, s.m_Constant1[0], false, [](const _Vector &, const _Vector &q) OX_KERNEL_LAMBDA { return q; }) : 0;
				else if constexpr (traits.m_IntKernel == SOp_MathOp::IntKernel_Mod)
				{
					if (!s.UniformRight() || s.m_Constant1[0] == 1 || s.m_Constant1[0] == -1)
						return 0;
					const _Vector d = _Vector::SplatInt(s.m_Constant1[0]);
					return _ByUniform(dst, ints, s, s.m_Constant1[0], true, [&d](const _Vector &a, const _Vector &q) OX_KERNEL_LAMBDA { return a.SubInt32(q.MulLoInt32(d)); });
				}
				else
				{
					const u32 bits = s.m_Constant1 != nullptr ? u32(s.m_Constant1[0]) : 32u;
					if (!s.UniformRight() || bits > 31)
						return 0;	// the SSE2 kernel: per lane, or a count it reports
					return _Blocks(dst, ints, s, [bits](const _Vector &a, const _Vector &) OX_KERNEL_LAMBDA { return _Shift<TIntLanes<_Op>::kShift, true>(a, bits); });
				}
			}

			// The per-lane forms: division and modulo through double precision (as the SSE2
			// kernel divides), shifts by each lane's own count (its low five bits, as the
			// scalar rules shift; SSE2 has no such shift and goes lane by lane).
			template <u32 _Op>
			static __attribute__((always_inline)) std::ptrdiff_t _PerLane(s32 *dst, std::ptrdiff_t ints, const SSources &s)
			{
				constexpr SOp_MathOp::EIntKernel kKind = SOp_MathOp::kTraits[_Op].m_IntKernel;
				if constexpr (kKind == SOp_MathOp::IntKernel_Div)
					return _Blocks(dst, ints, s, [](const _Vector &a, const _Vector &b) OX_KERNEL_LAMBDA { return _QuotientsThroughDouble(a, b); });
				else if constexpr (kKind == SOp_MathOp::IntKernel_Mod)
					return _Blocks(dst, ints, s, [](const _Vector &a, const _Vector &b) OX_KERNEL_LAMBDA { return a.SubInt32(_QuotientsThroughDouble(a, b).MulLoInt32(b)); });
				else if constexpr (kKind == SOp_MathOp::IntKernel_Shift)
					return _Blocks(dst, ints, s, [](const _Vector &a, const _Vector &b) OX_KERNEL_LAMBDA { return _ShiftByLanes<TIntLanes<_Op>::kShift>(a, b); });
				else
					return 0;
			}

			template <std::size_t... _Ops>
			static __attribute__((always_inline)) std::ptrdiff_t _PerLaneOf(u32 op, s32 *dst, std::ptrdiff_t ints, const SSources &s, std::index_sequence<_Ops...>)
			{
				std::ptrdiff_t done = 0;
				(void)((op == _Ops ? (done = _PerLane<_Ops>(dst, ints, s), true) : false) || ...);
				return done;
			}

			template <std::size_t... _Ops>
			static __attribute__((always_inline)) std::ptrdiff_t _RunOperatorOf(u32 op, s32 *dst, std::ptrdiff_t ints, const SSources &s, std::index_sequence<_Ops...>)
			{
				std::ptrdiff_t done = 0;
				(void)((op == _Ops ? (done = _RunOperator<_Ops>(dst, ints, s), true) : false) || ...);
				return done;	// 0 past the operator set: the SSE2 kernel reports it
			}
		};
	}
}
