#pragma once
// The float kernel tables of the kernel sets (cbvm_kernel_isa.h), indexed as the SSE2
// table (_FnMathOpLookup): op * 4 + (N - 1). Deliberately free of kernel code, so that
// the wide units include it without compiling any SSE2 kernel for their own target
// (an inline function compiled there could be the copy the linker keeps for every
// unit, and fault on a processor without that set).

#include "cbvm_kernel_isa.h"
#include "cp_ir_details.h"

#include <array>
#include <atomic>
#include <cstddef>
#include <cstdint>

// The lambdas of the wide kernels' loops (per vector, per block) are OX_ALWAYS_INLINE: a
// wide kernel holds every operator's loops in one function, past GCC's inlining budget,
// and a lambda left as a call inside a loop costs more than the wider vector gains.

namespace Orvex
{
	namespace MathOp
	{
		// Whether a destination starts inside a source stream, past its start ('bytes': the
		// call's span of the stream). The SSE2 loops then read words they wrote a few
		// vectors before, which a wide loop would read before writing them, so the wide
		// kernels hand such calls to the SSE2 kernel. (A destination on the source or
		// behind it reads nothing it wrote: those stay wide.) Internal linkage: each
		// unit keeps its own copy, compiled for its own target.
		static inline bool DestinationAheadInSource(const void *dst, const void *src, std::size_t bytes)
		{
			const std::uintptr_t d = reinterpret_cast<std::uintptr_t>(dst), s = reinterpret_cast<std::uintptr_t>(src);
			return d > s && d - s < bytes;
		}
	}
}

namespace Orvex
{
	namespace MathOp
	{
		using FnOp2Stream = void (*)(void *dst, u32 dstStride, u32 count, const void *src0, u32 stride0, const void *src1, u32 stride1);
		using FloatKernelTable = std::array<FnOp2Stream, Compiler::IR::SOp_MathOp::__MaxOps * 4>;

		// The SSE2 kernels: the reference, and what a wide kernel hands every case it does
		// not widen (the same call, so the same reports).
		extern const FloatKernelTable g_FloatKernelsSse2;
		// A wide set's own kernels; null where it has none (the SSE2 kernel runs).
		extern const FloatKernelTable g_FloatKernelsAvx2;
		extern const FloatKernelTable g_FloatKernelsAvx512;

		// The integer block kernel of each set (cbvm_math_op_int_selector.h describes its
		// arguments).
		using FnIntPacked = void (*)(Compiler::IR::SOp_MathOp::EOp op, s32 *dstPtr, const s32 *dstStop, const s32 *srcPtr0, u32 stride0, const s32 *srcPtr1, u32 stride1);
		extern const FnIntPacked g_IntKernelSse2;
		extern const FnIntPacked g_IntKernelAvx2;
		extern const FnIntPacked g_IntKernelAvx512;

		// A float modulo of a stream by a constant (N = 1 to 4) whose divisor laid out over 12
		// floats (as Broadcast12 lays an element out) and its reciprocal, 1 / divisor per
		// float, were made once (a prepared batched call); 'constant' is the divisor's
		// register. The words of the set's Mod kernel on the same operands.
		using FnFloatModByConstant = void (*)(const float *divisor12, const float *reciprocal12, void *dst, u32 count, const void *src0, const void *constant);
		using FloatModByConstantRow = std::array<FnFloatModByConstant, 4>;
		extern const FloatModByConstantRow g_FloatModByConstantAvx2;
		extern const FloatModByConstantRow g_FloatModByConstantAvx512;

		// A uniform divisor's multiplier, shift and dividend correction
		// (cbvm_math_op_int_uniform.h computes them: _MagicDivisorOf).
		struct SMagicDivisor
		{
			s32 m_Multiplier;
			u32 m_Shift;
			bool m_SubtractDividend;
		};

		// The operand shapes of an integer call, as bits.
		enum EIntShape : u32
		{
			IntShape_Stream0 = 1,	// source 0 is a stream (else a constant's 12-integer block)
			IntShape_Stream1 = 2,	// source 1 is a stream (else its block, or none)
			IntShape_Source1 = 4,	// there is a source 1 (not for neg and not)
		};

		// A wide set's kernel for one operator and shape, with what its block kernel would
		// derive from the operands on every call derived once (SIntRoute): the operator's
		// choice, the test of a uniform right operand, the division, modulo or shift path and
		// its divisor's magic numbers. A prepared call routes once per run (its constants are
		// fixed while its batches run) and then calls m_Run. A constant source is given as its
		// 12-integer block (TBroadcaster<N>::Broadcast12), a stream as its first integer.
		struct SIntRoute;
		using FnIntRouted = void (*)(const SIntRoute &route, s32 *dst, const s32 *dstStop, const s32 *src0, const s32 *src1);
		struct SIntRoute
		{
			FnIntRouted m_Run = nullptr;	// null: the call keeps the block kernel (see FnIntRoute)
			s32 m_Divisor = 0;				// a uniform right operand
			u32 m_Shift = 0;				// a shift count, or log2 of a power-of-two divisor
			SMagicDivisor m_Magic = {0, 0, false};
		};
		// The route of 'op' over 'shape' (EIntShape bits); 'constant1': source 1's block when
		// it is a constant, else null. No route (m_Run null) for what the block kernel does
		// per lane or reports: a division, modulo or shift by a stream or by a constant of
		// unequal components, a shift count past 31, a modulo by +-1, an operator without
		// its operand.
		using FnIntRoute = SIntRoute (*)(Compiler::IR::SOp_MathOp::EOp op, u32 shape, const s32 *constant1);
		extern const FnIntRoute g_IntRouteAvx2;
		extern const FnIntRoute g_IntRouteAvx512;

		// One kernel set: everything the standard path's selectors (and a prepared
		// program) look up, in one row, so that a change of set is one pointer store and a
		// call never mixes one set's float kernels with another's integer kernel.
		struct SKernelSet
		{
			// The float table first and by value: a lookup is one load from the row.
			FloatKernelTable m_Float;		// the set's kernels, SSE2's where it has none
			FnIntPacked m_Int;				// the set's integer block kernel
			// Below this many integers the set has no whole block: the selector calls the
			// SSE2 kernel directly, which spares small calls a hop (0 for SSE2; three
			// vectors of the set otherwise).
			u32 m_IntMinInts;
			FnIntRoute m_IntRoute;			// the set's routed kernels; null: none (SSE2)
			FloatModByConstantRow m_FloatModByConstant;	// nulls: none (SSE2)
			CBVM::EKernelIsa m_Isa;
			const char *m_Name;				// "sse2", "avx2", "avx512"
		};

		// The active row; null until the first call that needs one picks it (the widest set
		// the machine runs, or OX_CBVM_ISA's): nothing is chosen during static
		// initialisation, so a host's own start-up code cannot see a half-chosen set.
		extern std::atomic<const SKernelSet *> g_ActiveKernelSet;
		const SKernelSet &_ChooseKernelSetAtFirstUse();

		// Internal linkage, as above: the wide units never call it, but a copy they
		// compiled must not be the one the linker keeps.
		static inline OX_ALWAYS_INLINE const SKernelSet &ActiveKernelSet()
		{
			const SKernelSet *set = g_ActiveKernelSet.load(std::memory_order_relaxed);
			return __builtin_expect(set != nullptr, 1) ? *set : _ChooseKernelSetAtFirstUse();
		}

		// The integer block kernel for 'ints' integers in 'set': the set's own from its
		// block size up, SSE2's below.
		static inline OX_ALWAYS_INLINE FnIntPacked IntKernelFor(const SKernelSet &set, std::size_t ints)
		{
			return ints >= set.m_IntMinInts ? set.m_Int : g_IntKernelSse2;
		}

		// The end of a per-lane division, modulo or shift whose whole blocks a wide kernel
		// computed: counts the call's hazard as the SSE2 kernel counts it for 'callInts'
		// integers, then runs the SSE2 kernel's per-lane path over [dstPtr, dstStop)
		// without counting again. (Defined with the SSE2 kernel, so the hazard counter's
		// code is never compiled for a wide target.)
		void FinishPerLane(Compiler::IR::SOp_MathOp::EOp op, std::ptrdiff_t callInts, s32 *dstPtr, const s32 *dstStop, const s32 *srcPtr0, u32 stride0, const s32 *srcPtr1, u32 stride1);
	}
}
