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
//
// The choice of a block path is one function, Route: Run routes on every call, a
// prepared call once per run (its constants cannot change while its batches run), and
// both then call the same small routed kernel for the operator, operand shape and path,
// whose loop has its constants in registers and nothing left to test.

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
				const std::size_t span = std::size_t(ints) * 4;
				const bool ahead = (stride0 != 0 && DestinationAheadInSource(dst, src0, span)) || (stride1 != 0 && src1 != nullptr && DestinationAheadInSource(dst, src1, span));
				if (ints >= kBlockInts && (any & 15) == 0 && src0 != nullptr && !ahead)
				{
					const bool perLaneKind = kind == SOp_MathOp::IntKernel_Div || kind == SOp_MathOp::IntKernel_Mod || kind == SOp_MathOp::IntKernel_Shift;
					const s32 *constant1 = stride1 == 0 ? src1 : nullptr;
					if (perLaneKind && src1 != nullptr && !_UniformBlock(constant1))
					{
						// A stream or a constant of several divisors or counts: per lane, the rest
						// and the hazard the SSE2 kernel's (FinishPerLane).
						const std::ptrdiff_t whole = ints / kBlockInts * kBlockInts;
						const std::ptrdiff_t done = _PerLaneOf(u32(op), dst, whole, SSources(src0, stride0, src1, stride1), std::make_index_sequence<SOp_MathOp::__MaxOps>());
						FinishPerLane(op, ints, dst + done, dstStop, stride0 != 0 ? src0 + done : src0, stride0, stride1 != 0 ? src1 + done : src1, stride1);
						return;
					}
					const SIntRoute route = Route(op, _ShapeOf(stride0, src1, stride1), constant1);
					if (route.m_Run != nullptr)
					{
						route.m_Run(route, dst, dstStop, src0, src1);
						return;
					}
				}
				g_IntKernelSse2(op, dst, dstStop, src0, stride0, src1, stride1);
			}

			// The routed kernels (FnIntRoute, cbvm_math_op_kernel_sets.h). Each takes what Run
			// takes past its tests, which a prepared batched call meets by construction: 16-byte
			// aligned operands, no destination ahead inside a source.
			static SIntRoute Route(SOp_MathOp::EOp op, u32 shape, const s32 *constant1)
			{
				SIntRoute route;
				(void)_RouteOf(u32(op), shape, constant1, route, std::make_index_sequence<SOp_MathOp::__MaxOps>());
				return route;
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
				SSources(const s32 *src0, u32 stride0, const s32 *src1, u32 stride1) : m_A(src0, stride0), m_B(src1, stride1) {}
			};

			// dst over 'ints' integers (whole wide blocks): vector v of the block at i is at(i, v).
			template <typename _FnAt>
			static OX_ALWAYS_INLINE std::ptrdiff_t _Loop(s32 *dst, std::ptrdiff_t ints, const _FnAt &at)
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
			static OX_ALWAYS_INLINE std::ptrdiff_t _Blocks(s32 *dst, std::ptrdiff_t ints, const SSources &s, const _Fn &fn)
			{
				const s32 *a = s.m_A.m_Stream, *b = s.m_B.m_Stream;
				const _Vector ca[3] = {s.m_A.m_Constant[0], s.m_A.m_Constant[1], s.m_A.m_Constant[2]};
				const _Vector cb[3] = {s.m_B.m_Constant[0], s.m_B.m_Constant[1], s.m_B.m_Constant[2]};
				if (a != nullptr && b != nullptr)
					return _Loop(dst, ints, [&](std::ptrdiff_t i, int v) OX_ALWAYS_INLINE { return fn(_Vector::Load(a + i + v * kLanes), _Vector::Load(b + i + v * kLanes)); });
				if (a != nullptr)
					return _Loop(dst, ints, [&](std::ptrdiff_t i, int v) OX_ALWAYS_INLINE { return fn(_Vector::Load(a + i + v * kLanes), cb[v]); });
				if (b != nullptr)
					return _Loop(dst, ints, [&](std::ptrdiff_t i, int v) OX_ALWAYS_INLINE { return fn(ca[v], _Vector::Load(b + i + v * kLanes)); });
				return _Loop(dst, ints, [&](std::ptrdiff_t, int v) OX_ALWAYS_INLINE { return fn(ca[v], cb[v]); });
			}

			// Source 1 a constant whose four first integers are equal (the test of the SSE2
			// kernel's block paths); null is not.
			static bool _UniformBlock(const s32 *constant1)
			{
				return constant1 != nullptr && constant1[0] == constant1[1] && constant1[0] == constant1[2] && constant1[0] == constant1[3];
			}

			static u32 _ShapeOf(u32 stride0, const s32 *src1, u32 stride1)
			{
				return (stride0 != 0 ? IntShape_Stream0 : 0u) | (src1 != nullptr ? IntShape_Source1 : 0u) | (src1 != nullptr && stride1 != 0 ? IntShape_Stream1 : 0u);
			}

			// How a routed kernel computes its blocks.
			enum ERoute : u32
			{
				Route_Lanes,		// the lanewise and unary operators
				Route_Sign,			// division by +-1
				Route_PowerOfTwo,	// division or modulo by +-2^k
				Route_Magic,		// division or modulo by a magic multiplier
				Route_MagicSubtract,	// ... whose formula subtracts the dividend
				Route_Shift,		// a shift by one count, at most 31
			};

			// Whole wide blocks of 'ints' integers by the route, then the rest (fewer than one
			// wide block: only a run's last batch has one) to the SSE2 kernel, as Run ends a call.
			template <u32 _Op, u32 _Shape, u32 _Route>
			static void _Routed(const SIntRoute &route, s32 *dst, const s32 *dstStop, const s32 *src0, const s32 *src1)
			{
				constexpr u32 kStride0 = (_Shape & IntShape_Stream0) != 0 ? 48u : 0u;
				constexpr u32 kStride1 = (_Shape & IntShape_Stream1) != 0 ? 48u : 0u;
				const s32 *b = (_Shape & IntShape_Source1) != 0 ? src1 : nullptr;
				const std::ptrdiff_t ints = dstStop - dst, whole = ints / kBlockInts * kBlockInts;
				if (whole != 0)
					_RouteBlocks<_Op, _Route>(dst, whole, SSources(src0, kStride0, b, kStride1), route);
				if (whole != ints)
					g_IntKernelSse2(SOp_MathOp::EOp(_Op), dst + whole, dstStop, kStride0 != 0 ? src0 + whole : src0, kStride0, kStride1 != 0 ? b + whole : b, kStride1);
			}

			template <u32 _Op, u32 _Route>
			static OX_ALWAYS_INLINE void _RouteBlocks(s32 *dst, std::ptrdiff_t ints, const SSources &s, const SIntRoute &route)
			{
				constexpr SOp_MathOp::EIntKernel kKind = SOp_MathOp::kTraits[_Op].m_IntKernel;
				if constexpr (kKind == SOp_MathOp::IntKernel_Lanes)
					_Blocks(dst, ints, s, [](const _Vector &a, const _Vector &b) OX_ALWAYS_INLINE { return TIntLanes<_Op>::Vector(a, b); });
				else if constexpr (kKind == SOp_MathOp::IntKernel_Unary)
					_Blocks(dst, ints, s, [](const _Vector &a, const _Vector &) OX_ALWAYS_INLINE { return TIntLanes<_Op>::Vector(a); });
				else if constexpr (_Route == Route_Shift)
					_Blocks(dst, ints, s, [bits = route.m_Shift](const _Vector &a, const _Vector &) OX_ALWAYS_INLINE { return _Shift<TIntLanes<_Op>::kShift, true>(a, bits); });
				else if constexpr (_Route == Route_Sign)
				{
					const _Vector sign = _Vector::SplatInt(route.m_Divisor >> 31);
					_Blocks(dst, ints, s, [&](const _Vector &a, const _Vector &) OX_ALWAYS_INLINE { return _SignQuotient(a, sign); });
				}
				else if constexpr (_Route == Route_PowerOfTwo)
				{
					const _Vector lowBits = _Vector::SplatInt(s32(u32(route.m_Divisor) - 1u));
					if constexpr (kKind == SOp_MathOp::IntKernel_Mod)
						_Blocks(dst, ints, s, [&](const _Vector &a, const _Vector &) OX_ALWAYS_INLINE { return _PowerOfTwoRemainder<true>(a, lowBits); });
					else
						_Blocks(dst, ints, s, [&, k = route.m_Shift](const _Vector &a, const _Vector &) OX_ALWAYS_INLINE { return _PowerOfTwoQuotient<true>(a, lowBits, k); });
				}
				else
				{
					// r = a - q d, wrapping, for the modulo.
					const TMagicDivisor<_Vector> magic(route.m_Magic);
					const _Vector d = _Vector::SplatInt(route.m_Divisor);
					_Blocks(dst, ints, s, [&](const _Vector &a, const _Vector &) OX_ALWAYS_INLINE {
						const _Vector q = magic.template Quotient<true, _Route == Route_MagicSubtract>(a);
						if constexpr (kKind == SOp_MathOp::IntKernel_Mod)
							return a.SubInt32(q.MulLoInt32(d));
						else
							return q;
					});
				}
			}

			// Route _Route of operator _Op for the shape, one of _Shapes (none else).
			template <u32 _Op, u32 _Route, u32... _Shapes>
			static void _Take(u32 shape, SIntRoute &route)
			{
				(void)((shape == _Shapes ? (route.m_Run = &_Routed<_Op, _Shapes, _Route>, true) : false) || ...);
			}

			// The route of operator _Op, as Run would choose its path on every call.
			template <u32 _Op>
			static void _RouteOp(u32 shape, const s32 *constant1, SIntRoute &route)
			{
				constexpr SOp_MathOp::EIntKernel kKind = SOp_MathOp::kTraits[_Op].m_IntKernel;
				constexpr u32 S0 = IntShape_Stream0, S1 = IntShape_Stream1, B = IntShape_Source1;
				if constexpr (kKind == SOp_MathOp::IntKernel_Lanes)
					_Take<_Op, Route_Lanes, B, S0 | B, S1 | B, S0 | S1 | B>(shape, route);	// without source 1: the SSE2 kernel reports
				else if constexpr (kKind == SOp_MathOp::IntKernel_Unary)
					_Take<_Op, Route_Lanes, 0, S0, B, S0 | B, S1 | B, S0 | S1 | B>(shape, route);	// source 1 unread
				else
				{
					// By a uniform constant (shape S0 | B or B), from a stream or from a constant.
					if (!_UniformBlock(constant1))
						return;
					const s32 d = constant1[0];
					route.m_Divisor = d;
					if constexpr (kKind == SOp_MathOp::IntKernel_Shift)
					{
						route.m_Shift = u32(d);
						if (u32(d) <= 31)	// past 31, the SSE2 kernel reports the count
							_Take<_Op, Route_Shift, S0 | B, B>(shape, route);
					}
					else if (d == 1 || d == -1)
					{
						if constexpr (kKind == SOp_MathOp::IntKernel_Div)	// (a modulo: the SSE2 kernel clears the call in one go)
							_Take<_Op, Route_Sign, S0 | B, B>(shape, route);
					}
					else if (_IsPowerOfTwo(d))
					{
						route.m_Shift = _Log2OfPowerOfTwo(d);
						_Take<_Op, Route_PowerOfTwo, S0 | B, B>(shape, route);
					}
					else
					{
						route.m_Magic = _MagicDivisorOf(d);
						if (route.m_Magic.m_SubtractDividend)
							_Take<_Op, Route_MagicSubtract, S0 | B, B>(shape, route);
						else
							_Take<_Op, Route_Magic, S0 | B, B>(shape, route);
					}
				}
			}

			template <std::size_t... _Ops>
			static bool _RouteOf(u32 op, u32 shape, const s32 *constant1, SIntRoute &route, std::index_sequence<_Ops...>)
			{
				return ((op == _Ops ? (_RouteOp<_Ops>(shape, constant1, route), true) : false) || ...);
			}

			// The per-lane forms: division and modulo through double precision (as the SSE2
			// kernel divides), shifts by each lane's own count (its low five bits, as the
			// scalar rules shift; SSE2 has no such shift and goes lane by lane).
			template <u32 _Op>
			static OX_ALWAYS_INLINE std::ptrdiff_t _PerLane(s32 *dst, std::ptrdiff_t ints, const SSources &s)
			{
				constexpr SOp_MathOp::EIntKernel kKind = SOp_MathOp::kTraits[_Op].m_IntKernel;
				if constexpr (kKind == SOp_MathOp::IntKernel_Div)
					return _Blocks(dst, ints, s, [](const _Vector &a, const _Vector &b) OX_ALWAYS_INLINE { return _QuotientsThroughDouble(a, b); });
				else if constexpr (kKind == SOp_MathOp::IntKernel_Mod)
					return _Blocks(dst, ints, s, [](const _Vector &a, const _Vector &b) OX_ALWAYS_INLINE { return a.SubInt32(_QuotientsThroughDouble(a, b).MulLoInt32(b)); });
				else if constexpr (kKind == SOp_MathOp::IntKernel_Shift)
					return _Blocks(dst, ints, s, [](const _Vector &a, const _Vector &b) OX_ALWAYS_INLINE { return _ShiftByLanes<TIntLanes<_Op>::kShift>(a, b); });
				else
					return 0;
			}

			template <std::size_t... _Ops>
			static OX_ALWAYS_INLINE std::ptrdiff_t _PerLaneOf(u32 op, s32 *dst, std::ptrdiff_t ints, const SSources &s, std::index_sequence<_Ops...>)
			{
				std::ptrdiff_t done = 0;
				(void)((op == _Ops ? (done = _PerLane<_Ops>(dst, ints, s), true) : false) || ...);
				return done;
			}

		};
	}
}
