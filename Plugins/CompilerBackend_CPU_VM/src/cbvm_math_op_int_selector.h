#pragma once
// Standard execution path: the integer operator kernels (ints and bools, 1 to 4
// components).
//
// Two layers:
//   - ExecOperatorInt<N> checks its arguments once per instruction and turns each
//     constant operand into a 12-integer block (TBroadcaster<N>::Broadcast12), on the
//     stack: the kernel then reads the constant's register no more (its one element,
//     N = 3 as one aligned vector whose fourth word lies in the register's padding);
//   - _ExecIntOperatorPacked, one kernel for every dimension, walks the destination as
//     a flat array of s32 in blocks of 12 (three SSE vectors) and switches on the
//     operator. 12 is a multiple of 1, 2, 3 and 4, so a broadcast constant lines up
//     with every block of a stream and the kernel never needs to know N.
//
// Integer arithmetic wraps modulo 2^32 and never faults: no hardware divide ever sees
// a zero divisor or the pair (INT_MIN, -1). The per-lane rules are those of
// ScalarOps (mt_scalar_ops.h): x / 0 = 0, x % 0 = x, INT_MIN / -1 = INT_MIN,
// INT_MIN % -1 = 0, shift counts use their low five bits.
//
// The block paths of a uniform constant operand differ from those rules in two
// places (see cbvm_math_op_int_kernel.cpp): a uniform shift count above 31
// shifts everything out instead of using its low five bits, and INT_MIN divided by
// the constant INT_MIN gives -1 instead of 1.

#include "cbvm_math_op_checks.h"
#include "cbvm_math_op_kernel_sets.h"
#include "cbvm_stream_copier.h"
#include "cp_ir_details.h"
#include "kr_assert.h"
#include "kr_base_types.h"
#include "simd/sse/simd_vector.h"

#include <cstddef>

namespace Orvex
{
	namespace MathOp
	{
		// dstPtr[i] = op(srcPtr0[i], srcPtr1[i]) over [dstPtr, dstStop). stride0 / stride1
		// are per 12-integer block, in bytes: 48 for a packed stream, 0 for a constant
		// given as a 12-integer block (as Broadcast12 builds it). Pointers must be 16-byte
		// aligned; srcPtr1 is null for the unary operators (neg, not).
		void _ExecIntOperatorPacked(Compiler::IR::SOp_MathOp::EOp op, s32 *dstPtr, const s32 *dstStop, const s32 *srcPtr0, u32 stride0, const s32 *srcPtr1, u32 stride1);

		// The checks of ExecOperatorInt, each an assertion; false when the destination
		// stride is refused. Out of line: only reached when one of them fails.
		template <int _Dimension>
		__attribute__((noinline, cold)) bool _CheckIntOperands(const void *evalInto, u32 stride, const void *datasrc0, u32 stride0, const void *datasrc1, u32 stride1)
		{
			AssertSelectorOperands<Path_Standard, s32, _Dimension>(evalInto, datasrc0, stride0, datasrc1, stride1);
			// The kernel writes a dense stream: a destination of another element size would
			// be overrun or left half-written, so this one is refused, not just reported.
			OX_VERIFY_TEXT_OR(SKernelPredicates::DestinationPacked(stride, _Dimension * sizeof(s32)), "stride == _Dimension * sizeof(s32)", return false);
			return true;
		}

		// What ExecOperatorInt does once its checks hold (a prepared call starts here): each
		// constant operand as a 12-integer block on the stack, then the block kernel of 'set'
		// (cbvm_kernel_isa.h), or SSE2's for fewer integers than the set's block.
		template <int _Dimension>
		OX_ALWAYS_INLINE inline void _ExecIntBlocks(Compiler::IR::SOp_MathOp::EOp op, void *evalInto, u32 count, const void *datasrc0, u32 stride0, const void *datasrc1, u32 stride1, const SKernelSet &set)
		{
			// One block per operand, so that two constant operands do not share a block.
			alignas(16) s32 constantBlocks[2][12];
			static_assert(sizeof(constantBlocks[0]) == 48, "a broadcast block is 48 bytes");

			const void *src0 = datasrc0;
			const void *src1 = datasrc1;
			if (stride0 == 0)
				src0 = TBroadcaster<_Dimension>::Broadcast12(datasrc0, constantBlocks[0]);
			if (datasrc1 != null && stride1 == 0)
				src1 = TBroadcaster<_Dimension>::Broadcast12(datasrc1, constantBlocks[1]);

			s32 *dst = static_cast<s32 *>(evalInto);
			const s32 *dstStop = dst + std::size_t(count) * _Dimension;
			const FnIntPacked kernel = std::size_t(count) * _Dimension >= set.m_IntMinInts ? set.m_Int : &_ExecIntOperatorPacked;
			kernel(op, dst, dstStop, static_cast<const s32 *>(src0), stride0 != 0 ? 48u : 0u, static_cast<const s32 *>(src1), stride1 != 0 ? 48u : 0u);
		}

		// 'stride' is the destination stride in bytes and must be _Dimension * 4 (anything
		// else is refused and nothing is written); 'count' is the number of elements;
		// stride0 / stride1 are _Dimension * 4 for a stream and 0 for a constant.
		template <int _Dimension>
		void ExecOperatorInt(Compiler::IR::SOp_MathOp::EOp op, void *evalInto, u32 stride, u32 count, const void *datasrc0, u32 stride0, const void *datasrc1, u32 stride1)
		{
			static_assert(_Dimension >= 1 && _Dimension <= 4, "integer kernels handle 1 to 4 components");

			constexpr u32 kElementBytes = _Dimension * sizeof(s32);
			// The checks of _CheckIntOperands in one test: when it holds, none of them can report.
			const bool wellFormed = evalInto != null && datasrc0 != null && SIMD_SSE::_AreAligned<32>(evalInto, datasrc0, datasrc1) &&
									(stride0 == kElementBytes || stride0 == 0) && (stride1 == kElementBytes || stride1 == 0) && SKernelPredicates::DestinationPacked(stride, kElementBytes);
			if (!wellFormed && !_CheckIntOperands<_Dimension>(evalInto, stride, datasrc0, stride0, datasrc1, stride1))
				return;

			_ExecIntBlocks<_Dimension>(op, evalInto, count, datasrc0, stride0, datasrc1, stride1, ActiveKernelSet());
		}
	}
}
