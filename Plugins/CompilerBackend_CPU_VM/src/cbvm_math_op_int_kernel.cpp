// Standard execution path: the packed integer kernel, _ExecIntOperatorPacked.
//
// The destination is a flat array of s32 walked in blocks of 12 integers (three
// 16-byte vectors); a source advances by its block stride (48 bytes for a stream, 0 for
// a constant block made by Broadcast12). Every operator has the same shape:
//   1. a block loop with the vector form, while at least 12 integers remain;
//   2. a scalar tail (fewer than 12 integers) indexed within the current block, which
//      is right for a constant block too because it repeats with the element's period.
// Neither step touches memory past the last integer: a block is loaded only while a whole
// block remains, and the tail goes integer by integer. So whatever the count, nothing past
// the last element of a stream operand is read or written; a program run in batches
// relies on that, because the bytes after a batch are the next batch's, which another
// thread may be writing. (Batches of 48 elements are whole blocks for every N anyway.)
// Division, modulo and shifts use the vector form only for a uniform constant right
// operand (the first four integers of the constant block equal, i.e. every component
// equal); otherwise they go per lane, block by block, through the scalar definitions of
// ScalarOps, so that each edge-case rule (x / 0, x % 0, INT_MIN / -1, count & 31) is
// written exactly once.
//
// Every block loop exists in two forms, chosen once per call: when the three pointers
// are 16-byte aligned (they always are, from the register file) and a uniform shift
// count is at most 31, no check inside the loop could fail, so the loop runs without
// the per-access alignment test and the per-vector shift-count test (TAlignedAccess<true>
// and the *_Prechecked shifts). Otherwise it runs with the vector library's checked
// forms, which report each failing access. The choice is a run-time flag ('prechecked')
// passed down to the loops, so that no assertion site is duplicated.

#include "cbvm_math_op_int_selector.h"
#include "cbvm_math_op_int_uniform.h"
#include "cbvm_math_op_lanes.h"

#include "kr_profiler.h"
#include "mt_integer_tools.h"
#include "mt_scalar_ops.h"
#include "simd/sse/simd_vector.h"

#include <array>
#include <cstring>
#include <type_traits>
#include <utility>

namespace Orvex
{
	namespace MathOp
	{
		namespace
		{
			using SIMD_SSE::Float4;
			using SIMD_SSE::TAlignedAccess;
			using SOp_MathOp = Compiler::IR::SOp_MathOp;
			using Profiler::CHazards;

			constexpr std::ptrdiff_t kBlockInts = 12;

			// A scalar fallback over whole blocks is counted once per call as a hazard.
			// Division and modulo count from 13 integers (more than one block), shifts from
			// 12 (one whole block). The thresholds differ and are kept as they are, so that
			// hazard counts recorded by hosts stay comparable from one build to the next.
			constexpr std::ptrdiff_t kDivModHazardFrom = 13;
			constexpr std::ptrdiff_t kShiftHazardFrom = 12;

			inline const s32 *_AdvanceBytes(const s32 *ptr, u32 strideBytes)
			{
				return reinterpret_cast<const s32 *>(reinterpret_cast<const u8 *>(ptr) + strideBytes);
			}

			// Where the kernel stands: the destination block and the matching source blocks.
			struct SPackedCursor
			{
				s32 *m_Dst;
				const s32 *m_DstStop;
				const s32 *m_Src0;
				u32 m_Stride0;
				const s32 *m_Src1;
				u32 m_Stride1;

				std::ptrdiff_t Remaining() const { return m_DstStop - m_Dst; }
				bool HasBlock() const { return Remaining() >= kBlockInts; }

				void NextBlock()
				{
					m_Dst += kBlockInts;
					m_Src0 = _AdvanceBytes(m_Src0, m_Stride0);
					m_Src1 = _AdvanceBytes(m_Src1, m_Stride1);
				}

				// Unary operators may come without a source 1 (null): it is never moved.
				void NextBlockSrc0Only()
				{
					m_Dst += kBlockInts;
					m_Src0 = _AdvanceBytes(m_Src0, m_Stride0);
				}
			};

			// Every component of a broadcast constant equal: the four integers of any vector
			// of its block are (the block starts x y z x for N = 3).
			inline bool _IsUniform(const s32 *block) { return SKernelPredicates::UniformLanes(block, 4); }

			// The block path of a uniform right operand: the predicate the verifier and the
			// classifier evaluate, on the broadcast block (4 lanes) and what is left.
			inline bool _UniformBlocks(const SPackedCursor &c)
			{
				return SKernelPredicates::UniformBlocks(c.m_Stride1, c.HasBlock() ? u64(c.Remaining()) : 0, c.m_Src1, 4);
			}

			//------------------------------------------------------------------------------
			// Loop shapes shared by the operators.

			// Vector form over whole blocks: fn(a, b) on each of the three vectors.
			// (The loops walk a copy of the cursor, which stays in registers: stores through
			// the destination could otherwise alias the caller's cursor.)
			template <typename _Access, typename _Fn>
			void _BinaryBlocksWith(SPackedCursor &cursor, const _Fn &fn)
			{
				SPackedCursor c = cursor;
				for (std::ptrdiff_t blocks = c.Remaining() / kBlockInts; blocks > 0; --blocks)
				{
					if constexpr (_Access::kPrechecked)
					{
						// Nothing here can report: each vector goes load, operation, store,
						// which keeps the stores close behind the loads.
						for (int v = 0; v < 12; v += 4)
						{
							const Float4 a = _Access::Load(c.m_Src0 + v);
							const Float4 b = _Access::Load(c.m_Src1 + v);
							_Access::Store(c.m_Dst + v, fn(a, b));
						}
					}
					else
					{
						// The checked accesses keep the order in which they report.
						const Float4 a0 = _Access::Load(c.m_Src0), a1 = _Access::Load(c.m_Src0 + 4), a2 = _Access::Load(c.m_Src0 + 8);
						const Float4 b0 = _Access::Load(c.m_Src1), b1 = _Access::Load(c.m_Src1 + 4), b2 = _Access::Load(c.m_Src1 + 8);
						_Access::Store(c.m_Dst, fn(a0, b0));
						_Access::Store(c.m_Dst + 4, fn(a1, b1));
						_Access::Store(c.m_Dst + 8, fn(a2, b2));
					}
					c.NextBlock();
				}
				cursor = c;
			}

			template <typename _Fn>
			void _BinaryBlocks(SPackedCursor &c, bool prechecked, const _Fn &fn)
			{
				if (prechecked)
					_BinaryBlocksWith<TAlignedAccess<true>>(c, fn);
				else
					_BinaryBlocksWith<TAlignedAccess<false>>(c, fn);
			}

			// Vector form over whole blocks reading source 0 only: the unary operators, and
			// the uniform-constant paths whose right operand already sits in registers.
			template <typename _Access, typename _Fn>
			void _UnaryBlocksWith(SPackedCursor &cursor, const _Fn &fn)
			{
				SPackedCursor c = cursor;
				for (std::ptrdiff_t blocks = c.Remaining() / kBlockInts; blocks > 0; --blocks)
				{
					if constexpr (_Access::kPrechecked)
					{
						for (int v = 0; v < 12; v += 4)
							_Access::Store(c.m_Dst + v, fn(_Access::Load(c.m_Src0 + v)));
					}
					else
					{
						const Float4 a0 = _Access::Load(c.m_Src0), a1 = _Access::Load(c.m_Src0 + 4), a2 = _Access::Load(c.m_Src0 + 8);
						_Access::Store(c.m_Dst, fn(a0));
						_Access::Store(c.m_Dst + 4, fn(a1));
						_Access::Store(c.m_Dst + 8, fn(a2));
					}
					c.NextBlockSrc0Only();
				}
				cursor = c;
			}

			// 'fn' is a generic lambda taking std::true_type when the loop is prechecked
			// (aligned pointers, shift counts known to be at most 31), std::false_type else.
			template <typename _Fn>
			void _UnaryBlocks(SPackedCursor &c, bool prechecked, const _Fn &fn)
			{
				if (prechecked)
					_UnaryBlocksWith<TAlignedAccess<true>>(c, [&fn](const Float4 &a) { return fn(a, std::true_type()); });
				else
					_UnaryBlocksWith<TAlignedAccess<false>>(c, [&fn](const Float4 &a) { return fn(a, std::false_type()); });
			}

			// Fewer than 12 integers left, indexed within the current block.
			template <s32 (*_Fn)(s32, s32)>
			void _Tail(const SPackedCursor &c)
			{
				s32 *dstPtr = c.m_Dst;
				const s32 *dstStop = c.m_DstStop;
				OX_ASSERT(dstStop - dstPtr < 4*3);
				for (std::ptrdiff_t i = 0; dstPtr + i < dstStop; ++i)
					dstPtr[i] = _Fn(c.m_Src0[i], c.m_Src1[i]);
			}

			// A unary rule ignores its second operand: source 1 is never read.
			template <s32 (*_Fn)(s32, s32)>
			void _TailUnary(const SPackedCursor &c)
			{
				s32 *dstPtr = c.m_Dst;
				const s32 *dstStop = c.m_DstStop;
				OX_ASSERT(dstStop - dstPtr < 4*3);
				for (std::ptrdiff_t i = 0; dstPtr + i < dstStop; ++i)
					dstPtr[i] = _Fn(c.m_Src0[i], 0);
			}

			template <s32 (*_Scalar)(s32, s32), typename _Vector>
			void _Lanewise(SPackedCursor &c, bool prechecked, const _Vector &vectorFn)
			{
				_BinaryBlocks(c, prechecked, vectorFn);
				_Tail<_Scalar>(c);
			}

			template <s32 (*_Scalar)(s32, s32), typename _Vector>
			void _LanewiseUnary(SPackedCursor &c, bool prechecked, const _Vector &vectorFn)
			{
				_UnaryBlocks(c, prechecked, [&vectorFn](const Float4 &a, auto) { return vectorFn(a); });
				_TailUnary<_Scalar>(c);
			}

			// Per-lane path of division, modulo and shifts (stream or non-uniform right
			// operand, or what a uniform block loop left over): scalar blocks, then the tail.
			// 'block'(c) may compute a whole block at once, as the scalar rule would.
			// (A copy of the cursor walks the blocks, as in _BinaryBlocksWith: it stays in
			// registers, where the caller's would be reloaded after every store.)
			template <s32 (*_Scalar)(s32, s32), typename _FnBlock>
			void _PerLaneWith(SPackedCursor &cursor, std::ptrdiff_t hazardFrom, const _FnBlock &block)
			{
				if (cursor.Remaining() >= hazardFrom)
					CHazards::CurrentThreadHazards().Increment(CHazards::Hazard_ScalarFallback);
				SPackedCursor c = cursor;
				while (c.HasBlock())
				{
					block(c);
					c.NextBlock();
				}
				cursor = c;
				_Tail<_Scalar>(c);
			}

			template <s32 (*_Scalar)(s32, s32)>
			void _PerLane(SPackedCursor &c, std::ptrdiff_t hazardFrom)
			{
				_PerLaneWith<_Scalar>(c, hazardFrom, [](const SPackedCursor &k) {
					for (std::ptrdiff_t i = 0; i < kBlockInts; ++i)
						k.m_Dst[i] = _Scalar(k.m_Src0[i], k.m_Src1[i]);
				});
			}

			// Per-lane division and modulo, four lanes at a time through double precision
			// (_QuotientsThroughDouble). 'hazardFrom': the call counts its hazard from that
			// many integers (a wide kernel's rest counts none: the wide kernel counted it).
			template <bool _Remainder>
			void _PerLaneDivMod(SPackedCursor &c, std::ptrdiff_t hazardFrom = kDivModHazardFrom)
			{
				constexpr s32 (*kScalar)(s32, s32) = _Remainder ? &ScalarOps::ModS32 : &ScalarOps::DivS32;
				_PerLaneWith<kScalar>(c, hazardFrom, [](const SPackedCursor &k) {
					s32 *dst = k.m_Dst;
					const s32 *src0 = k.m_Src0, *src1 = k.m_Src1;
					for (int v = 0; v < 12; v += 4)
					{
						const Float4 a = Float4::LoadUnaligned(src0 + v), b = Float4::LoadUnaligned(src1 + v);
						const Float4 q = _QuotientsThroughDouble(a, b);
						(_Remainder ? a.SubInt32(q.MulLoInt32(b)) : q).StoreUnaligned(dst + v);	// a - q b wraps as a % b
					}
				});
			}

			//------------------------------------------------------------------------------
			// Division by one divisor for all lanes, without a hardware divide (the vector
			// forms: cbvm_math_op_int_uniform.h).

			// _UnaryBlocks with fn(a, quotient of a by 'magic') on every vector.
			template <typename _Fn>
			void _MagicBlocks(SPackedCursor &c, bool aligned, const TMagicDivisor<Float4> &magic, const _Fn &fn)
			{
				const bool prechecked = aligned && magic.ShiftInRange();
				if (magic.SubtractsDividend())
					_UnaryBlocks(c, prechecked, [&magic, &fn](const Float4 &a, auto p) { return fn(a, magic.Quotient<decltype(p)::value, true>(a)); });
				else
					_UnaryBlocks(c, prechecked, [&magic, &fn](const Float4 &a, auto p) { return fn(a, magic.Quotient<decltype(p)::value, false>(a)); });
			}

			// ---- Div

			// Whole blocks divided by the uniform constant 'divisor'. 'aligned': the three
			// pointers are 16-byte aligned.
			void _DivideBlocksByUniform(SPackedCursor &c, bool aligned, s32 divisor)
			{
				if (divisor == 1 || divisor == -1)
				{
					const Float4 sign = Float4::SplatInt(divisor >> 31);
					_UnaryBlocks(c, aligned, [&sign](const Float4 &a, auto) { return _SignQuotient(a, sign); });
					return;
				}
				if (_IsPowerOfTwo(divisor))
				{
					const u32 k = _Log2OfPowerOfTwo(divisor);
					const Float4 biasMask = Float4::SplatInt(s32(u32(divisor) - 1u));
					_UnaryBlocks(c, aligned && Float4::ShiftCountInRange(k),
								 [&biasMask, k](const Float4 &a, auto prechecked) { return _PowerOfTwoQuotient<decltype(prechecked)::value>(a, biasMask, k); });
					return;
				}
				const TMagicDivisor<Float4> magic(divisor);
				_MagicBlocks(c, aligned, magic, [](const Float4 &, const Float4 &quotient) { return quotient; });
			}

			void _ExecDiv(SPackedCursor &c, bool aligned)
			{
				// The uniform test reads the constant block only once a whole block remains.
				if (_UniformBlocks(c))
					_DivideBlocksByUniform(c, aligned, c.m_Src1[0]);
				_PerLaneDivMod<false>(c);
			}

			// ---- Mod

			// Whole blocks: remainder by the uniform constant 'divisor' (not +-1).
			void _ModBlocksByUniform(SPackedCursor &c, bool aligned, s32 divisor)
			{
				if (_IsPowerOfTwo(divisor))
				{
					const Float4 lowBits = Float4::SplatInt(s32(u32(divisor) - 1u));
					_UnaryBlocks(c, aligned, [&lowBits](const Float4 &a, auto prechecked) { return _PowerOfTwoRemainder<decltype(prechecked)::value>(a, lowBits); });
					return;
				}
				// r = a - q * d, wrapping. Covers d = 0 too: q = 0, so r = a.
				const TMagicDivisor<Float4> magic(divisor);
				const Float4 d = Float4::SplatInt(divisor);
				_MagicBlocks(c, aligned, magic, [&d](const Float4 &a, const Float4 &quotient) { return a.SubInt32(quotient.MulLoInt32(d)); });
			}

			void _ExecMod(SPackedCursor &c, bool aligned)
			{
				if (c.m_Dst <= c.m_DstStop && c.m_Stride1 == 0 && _IsUniform(c.m_Src1))
				{
					const s32 divisor = c.m_Src1[0];
					if (divisor == 1 || divisor == -1)
					{
						// x % +-1 is 0 for every x (INT_MIN included): one clear of the whole
						// range, however short, and the operator is done.
						if (c.m_Dst < c.m_DstStop)
							std::memset(c.m_Dst, 0, std::size_t(c.Remaining()) * sizeof(s32));
						return;
					}
					if (c.HasBlock())
						_ModBlocksByUniform(c, aligned, divisor);
				}
				_PerLaneDivMod<true>(c);
			}

			// ---- Shifts
			// A uniform count goes to the vector shift as one count for every lane, taken as
			// unsigned (a negative count is a huge one). The vector shift asserts "bits <= 31";
			// past 31 the hardware shifts everything out: 0 for the left and logical shifts,
			// the sign fill for the arithmetic one. The per-lane path and the tail use the
			// count's low five bits instead (ScalarOps), so a constant count of 40 shifts by
			// 8 there. Both behaviours are kept: the block path reports the bad count, and
			// costs nothing per lane.

			template <s32 (*_Scalar)(s32, s32), EShiftKind _Kind>
			void _ExecShift(SPackedCursor &c, bool aligned)
			{
				if (_UniformBlocks(c))
				{
					const u32 bits = u32(c.m_Src1[0]);
					_UnaryBlocks(c, aligned && Float4::ShiftCountInRange(bits), [bits](const Float4 &a, auto prechecked) { return _Shift<_Kind, decltype(prechecked)::value>(a, bits); });
				}
				_PerLane<_Scalar>(c, kShiftHazardFrom);
			}

			//------------------------------------------------------------------------------
			// One kernel per operator, by the kind its row names.

			template <u32 _Op>
			inline OX_ALWAYS_INLINE void _ExecLanes(SPackedCursor &c, bool aligned)
			{
				_Lanewise<SOp_MathOp::kTraits[_Op].m_IntRule>(c, aligned, [](const Float4 &a, const Float4 &b) { return TIntLanes<_Op>::Vector(a, b); });
			}

			// Source 1 is never read (and is null from the entry points).
			template <u32 _Op>
			inline OX_ALWAYS_INLINE void _ExecUnary(SPackedCursor &c, bool aligned)
			{
				const s32 *srcPtr1 = c.m_Src1;
				OX_ASSERT(srcPtr1 == null);
				_LanewiseUnary<SOp_MathOp::kTraits[_Op].m_IntRule>(c, aligned, [](const Float4 &a) { return TIntLanes<_Op>::Vector(a); });
			}

			// The kernel of one operator, by the kind its row names.
			template <u32 _Op>
			inline OX_ALWAYS_INLINE void _ExecOperator(SPackedCursor &c, bool aligned)
			{
				constexpr const SOp_MathOp::STraits &traits = SOp_MathOp::kTraits[_Op];
				if constexpr (traits.m_IntKernel == SOp_MathOp::IntKernel_Lanes)
					_ExecLanes<_Op>(c, aligned);
				else if constexpr (traits.m_IntKernel == SOp_MathOp::IntKernel_Unary)
					_ExecUnary<_Op>(c, aligned);
				else if constexpr (traits.m_IntKernel == SOp_MathOp::IntKernel_Div)
					_ExecDiv(c, aligned);
				else if constexpr (traits.m_IntKernel == SOp_MathOp::IntKernel_Mod)
					_ExecMod(c, aligned);
				else
					_ExecShift<traits.m_IntRule, TIntLanes<_Op>::kShift>(c, aligned);
			}

			// One case per operator of the table (the compiler turns the chain into one
			// indexed jump); false for a value past the set.
			template <std::size_t... _Ops>
			inline OX_ALWAYS_INLINE bool _ExecOperatorOf(u32 op, SPackedCursor &c, bool aligned, std::index_sequence<_Ops...>)
			{
				return ((op == _Ops ? (_ExecOperator<_Ops>(c, aligned), true) : false) || ...);
			}
		}

		namespace
		{
			// The per-lane end of one operator after a wide kernel's blocks: its hazard as its
			// kernel counts it for the whole call, then its per-lane path, uncounted.
			template <u32 _Op>
			void _FinishPerLane(std::ptrdiff_t callInts, SPackedCursor &c)
			{
				constexpr std::ptrdiff_t kCounted = PTRDIFF_MAX;
				constexpr SOp_MathOp::EIntKernel kKind = SOp_MathOp::kTraits[_Op].m_IntKernel;
				if constexpr (kKind == SOp_MathOp::IntKernel_Div || kKind == SOp_MathOp::IntKernel_Mod || kKind == SOp_MathOp::IntKernel_Shift)
				{
					if (callInts >= (kKind == SOp_MathOp::IntKernel_Shift ? kShiftHazardFrom : kDivModHazardFrom))
						CHazards::CurrentThreadHazards().Increment(CHazards::Hazard_ScalarFallback);
					if constexpr (kKind == SOp_MathOp::IntKernel_Shift)
						_PerLane<SOp_MathOp::kTraits[_Op].m_IntRule>(c, kCounted);
					else
						_PerLaneDivMod<kKind == SOp_MathOp::IntKernel_Mod>(c, kCounted);
				}
				else
					OX_ASSERT_NOT_REACHED();	// no per-lane path: no wide kernel finishes one
			}

			template <std::size_t... _Ops>
			void _FinishPerLaneOf(u32 op, std::ptrdiff_t callInts, SPackedCursor &c, std::index_sequence<_Ops...>)
			{
				(void)((op == _Ops ? (_FinishPerLane<_Ops>(callInts, c), true) : false) || ...);
			}
		}

		void FinishPerLane(SOp_MathOp::EOp op, std::ptrdiff_t callInts, s32 *dstPtr, const s32 *dstStop, const s32 *srcPtr0, u32 stride0, const s32 *srcPtr1, u32 stride1)
		{
			SPackedCursor c = {dstPtr, dstStop, srcPtr0, stride0, srcPtr1, stride1};
			_FinishPerLaneOf(u32(op), callInts, c, std::make_index_sequence<SOp_MathOp::__MaxOps>());
		}

		void _ExecIntOperatorPacked(SOp_MathOp::EOp op, s32 *dstPtr, const s32 *dstStop, const s32 *srcPtr0, u32 stride0, const s32 *srcPtr1, u32 stride1)
		{
			// Blocks move by 48 bytes (0 for a constant block): aligned pointers stay aligned.
			const bool aligned = SIMD_SSE::_AreAligned<16>(dstPtr, srcPtr0, srcPtr1);
			if (!aligned)
			{
				OX_ASSERT_ALIGNED16(dstPtr);
				OX_ASSERT_ALIGNED16(srcPtr0);
				OX_ASSERT_ALIGNED16(srcPtr1);
			}
			SPackedCursor c = {dstPtr, dstStop, srcPtr0, stride0, srcPtr1, stride1};
			if (!_ExecOperatorOf(u32(op), c, aligned, std::make_index_sequence<SOp_MathOp::__MaxOps>()))
				OX_ASSERT_NOT_REACHED();	// past the operator set: nothing is written
		}
	}
}
