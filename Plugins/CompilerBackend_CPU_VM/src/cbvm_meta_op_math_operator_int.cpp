// Standard execution path: the packed integer kernel, _ExecIntOperatorPacked.
//
// The destination is a flat array of s32 walked in blocks of 12 integers (three
// 16-byte vectors); a source advances by its block stride (48 bytes for a stream, 0 for
// a constant block made by Broadcast12). Every operator has the same shape:
//   1. a block loop with the vector form, while at least 12 integers remain;
//   2. a scalar tail (fewer than 12 integers) indexed within the current block, which
//      is right for a constant block too because it repeats with the element's period.
// Division, modulo and shifts use the vector form only for a uniform constant right
// operand (the first four integers of the constant block equal, i.e. every component
// equal); otherwise they go per lane, block by block, through the scalar definitions of
// ScalarOps, so that each edge-case rule (x / 0, x % 0, INT_MIN / -1, count & 31) is
// written exactly once.

#include "cbvm_meta_op_math_operator.int.impl.h"

#include "kr_profiler.h"
#include "mt_integer_tools.h"
#include "mt_scalar_ops.h"
#include "simd/sse/simd_vector.h"

#include <cstring>

namespace Orvex
{
	namespace MathOp
	{
		namespace
		{
			using SIMD_SSE::Float4;
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

			// The four integers that any vector of a constant block holds: equal means every
			// component of the constant is equal (the block starts x y z x for N = 3).
			inline bool _IsUniform(const s32 *block)
			{
				return block[0] == block[1] && block[0] == block[2] && block[0] == block[3];
			}

			//------------------------------------------------------------------------------
			// Loop shapes shared by the operators.

			// Vector form over whole blocks: fn(a, b) on each of the three vectors.
			template <typename _Fn>
			void _BinaryBlocks(SPackedCursor &c, const _Fn &fn)
			{
				while (c.HasBlock())
				{
					const Float4 a0 = Float4::LoadAligned16(c.m_Src0), a1 = Float4::LoadAligned16(c.m_Src0 + 4), a2 = Float4::LoadAligned16(c.m_Src0 + 8);
					const Float4 b0 = Float4::LoadAligned16(c.m_Src1), b1 = Float4::LoadAligned16(c.m_Src1 + 4), b2 = Float4::LoadAligned16(c.m_Src1 + 8);
					fn(a0, b0).StoreAligned16(c.m_Dst);
					fn(a1, b1).StoreAligned16(c.m_Dst + 4);
					fn(a2, b2).StoreAligned16(c.m_Dst + 8);
					c.NextBlock();
				}
			}

			// Vector form over whole blocks reading source 0 only: the unary operators, and
			// the uniform-constant paths whose right operand already sits in registers.
			template <typename _Fn>
			void _UnaryBlocks(SPackedCursor &c, const _Fn &fn)
			{
				while (c.HasBlock())
				{
					const Float4 a0 = Float4::LoadAligned16(c.m_Src0), a1 = Float4::LoadAligned16(c.m_Src0 + 4), a2 = Float4::LoadAligned16(c.m_Src0 + 8);
					fn(a0).StoreAligned16(c.m_Dst);
					fn(a1).StoreAligned16(c.m_Dst + 4);
					fn(a2).StoreAligned16(c.m_Dst + 8);
					c.NextBlockSrc0Only();
				}
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

			template <s32 (*_Fn)(s32)>
			void _TailUnary(const SPackedCursor &c)
			{
				s32 *dstPtr = c.m_Dst;
				const s32 *dstStop = c.m_DstStop;
				OX_ASSERT(dstStop - dstPtr < 4*3);
				for (std::ptrdiff_t i = 0; dstPtr + i < dstStop; ++i)
					dstPtr[i] = _Fn(c.m_Src0[i]);
			}

			template <s32 (*_Scalar)(s32, s32), typename _Vector>
			void _Lanewise(SPackedCursor &c, const _Vector &vectorFn)
			{
				_BinaryBlocks(c, vectorFn);
				_Tail<_Scalar>(c);
			}

			template <s32 (*_Scalar)(s32), typename _Vector>
			void _LanewiseUnary(SPackedCursor &c, const _Vector &vectorFn)
			{
				_UnaryBlocks(c, vectorFn);
				_TailUnary<_Scalar>(c);
			}

			// Per-lane path of division, modulo and shifts (stream or non-uniform right
			// operand, or what a uniform block loop left over): scalar blocks, then the tail.
			template <s32 (*_Scalar)(s32, s32)>
			void _PerLane(SPackedCursor &c, std::ptrdiff_t hazardFrom)
			{
				if (c.Remaining() >= hazardFrom)
					CHazards::CurrentThreadHazards().Increment(CHazards::Hazard_ScalarFallback);
				while (c.HasBlock())
				{
					for (std::ptrdiff_t i = 0; i < kBlockInts; ++i)
						c.m_Dst[i] = _Scalar(c.m_Src0[i], c.m_Src1[i]);
					c.NextBlock();
				}
				_Tail<_Scalar>(c);
			}

			//------------------------------------------------------------------------------
			// Scalar forms the SIMD-free tails need beyond ScalarOps. Comparisons give -1
			// (all bits set) for true, never 1.

			inline s32 _Mask(bool condition) { return condition ? -1 : 0; }
			s32 _AndS32(s32 a, s32 b) { return a & b; }
			s32 _OrS32(s32 a, s32 b) { return a | b; }
			s32 _XorS32(s32 a, s32 b) { return a ^ b; }
			s32 _NotS32(s32 a) { return ~a; }
			s32 _CmpLtS32(s32 a, s32 b) { return _Mask(a < b); }
			s32 _CmpLeS32(s32 a, s32 b) { return _Mask(a <= b); }
			s32 _CmpGtS32(s32 a, s32 b) { return _Mask(a > b); }
			s32 _CmpGeS32(s32 a, s32 b) { return _Mask(a >= b); }
			s32 _CmpEqS32(s32 a, s32 b) { return _Mask(a == b); }
			s32 _CmpNeS32(s32 a, s32 b) { return _Mask(a != b); }

			//------------------------------------------------------------------------------
			// Division by one divisor for all lanes, without a hardware divide.

			// A single set bit. The test is on the unsigned bits on purpose: INT_MIN
			// (0x80000000) passes, as the one negative "power of two".
			inline bool _IsPowerOfTwo(s32 divisor)
			{
				const u32 bits = u32(divisor);
				return bits != 0 && (bits & (bits - 1)) == 0;
			}

			// k with |d| = 2^k: right shifts of |d| (unsigned, so INT_MIN gives 2^31 and
			// k = 31) until it is zero, minus one.
			inline u32 _Log2OfPowerOfTwo(s32 divisor)
			{
				u32 magnitude = divisor < 0 ? 0u - u32(divisor) : u32(divisor);
				u32 shifts = 0;
				while (magnitude != 0)
				{
					magnitude >>= 1;
					++shifts;
				}
				return shifts - 1;
			}

			// Signed magic-number division (see mt_integer_tools.h for how M and s are
			// chosen; DivideByMul32 there is the same sequence on one scalar):
			//   t = mulhi(a, M) + (a & addMask) - (a & subMask);  t >>= s;  q = t + (t >>> 31)
			// The masks undo the 2^32 lost when the 33-bit multiplier was stored in 32 bits;
			// the final logical shift adds 1 to negative t, turning floor into truncation.
			// A divisor of 0 gets M = 0, s = 0: both masks are off and q is 0 for every a,
			// which is also what the per-lane rule gives for x / 0 (and a - 0 * 0 = a for x % 0).
			class CMagicDivisor
			{
			public:
				explicit CMagicDivisor(s32 divisor)
				{
					// +-1 have no multiplier; the sign trick handles them before we get here.
					OX_ASSERT(divisor != 1 && divisor != -1);
					const IntegerTools::SMulDivisor md = IntegerTools::ComputeMul32Divisor(divisor);
					m_Multiplier = Float4::SplatInt(md.m_Multiplier);
					m_AddMask = Float4::SplatInt(divisor > 0 && md.m_Multiplier < 0 ? -1 : 0);
					m_SubMask = Float4::SplatInt(divisor < 0 && md.m_Multiplier > 0 ? -1 : 0);
					m_Shift = md.m_Shifter;
				}

				Float4 Quotient(const Float4 &a) const
				{
					Float4 t = a.MulHiInt32(m_Multiplier);
					t = t.AddInt32(a & m_AddMask).SubInt32(a & m_SubMask);
					t = t.ShiftRightArithInt32(m_Shift);
					return t.AddInt32(t.ShiftRightLogicalInt32(31));
				}

			private:
				Float4 m_Multiplier;
				Float4 m_AddMask;
				Float4 m_SubMask;
				u32 m_Shift;
			};

			// ---- Div

			// Whole blocks divided by the uniform constant 'divisor'.
			void _DivideBlocksByUniform(SPackedCursor &c, s32 divisor)
			{
				if (divisor == 1 || divisor == -1)
				{
					// s = 0 or -1: (a ^ s) - s is a for 1 and the wrapping negation for -1, so
					// INT_MIN / -1 gives INT_MIN here as it does per lane.
					const Float4 sign = Float4::SplatInt(divisor >> 31);
					_UnaryBlocks(c, [&sign](const Float4 &a) { return (a ^ sign).SubInt32(sign); });
					return;
				}
				if (_IsPowerOfTwo(divisor))
				{
					// An arithmetic shift floors; adding d - 1 to negative dividends first makes
					// it truncate. For d = INT_MIN (k = 31, bias 0x7FFFFFFF) every dividend gives
					// 0 except INT_MIN itself, which gives -1 instead of 1: INT_MIN + bias is -1
					// and -1 >> 31 stays -1. The power-of-two test deliberately admits INT_MIN and
					// that one quotient is kept as it is.
					const u32 k = _Log2OfPowerOfTwo(divisor);
					const Float4 biasMask = Float4::SplatInt(s32(u32(divisor) - 1u));
					_UnaryBlocks(c, [&biasMask, k](const Float4 &a) { return a.AddInt32(a.ShiftRightArithInt32(31) & biasMask).ShiftRightArithInt32(k); });
					return;
				}
				const CMagicDivisor magic(divisor);
				_UnaryBlocks(c, [&magic](const Float4 &a) { return magic.Quotient(a); });
			}

			void _ExecDiv(SPackedCursor &c)
			{
				// The uniform test reads the constant block only once a whole block remains.
				if (c.m_Stride1 == 0 && c.HasBlock() && _IsUniform(c.m_Src1))
					_DivideBlocksByUniform(c, c.m_Src1[0]);
				_PerLane<&ScalarOps::DivS32>(c, kDivModHazardFrom);
			}

			// ---- Mod

			// Whole blocks: remainder by the uniform constant 'divisor' (not +-1).
			void _ModBlocksByUniform(SPackedCursor &c, s32 divisor)
			{
				if (_IsPowerOfTwo(divisor))
				{
					// r = a - ((a + bias) & ~(d - 1)): the truncated multiple of d below a. For
					// d = INT_MIN the mask keeps only the sign bit; this gives a for every a but
					// INT_MIN, and 0 for INT_MIN (INT_MIN + 0x7FFFFFFF = -1, masked to INT_MIN).
					// All three are the exact remainders: the division quirk does not show here.
					const Float4 lowBits = Float4::SplatInt(s32(u32(divisor) - 1u));
					_UnaryBlocks(c, [&lowBits](const Float4 &a)
					{
						const Float4 biased = a.AddInt32(a.ShiftRightArithInt32(31) & lowBits);
						return a.SubInt32(biased.AndNot(lowBits));
					});
					return;
				}
				// r = a - q * d, wrapping. Covers d = 0 too: q = 0, so r = a.
				const CMagicDivisor magic(divisor);
				const Float4 d = Float4::SplatInt(divisor);
				_UnaryBlocks(c, [&magic, &d](const Float4 &a) { return a.SubInt32(magic.Quotient(a).MulLoInt32(d)); });
			}

			void _ExecMod(SPackedCursor &c)
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
						_ModBlocksByUniform(c, divisor);
				}
				_PerLane<&ScalarOps::ModS32>(c, kDivModHazardFrom);
			}

			// ---- Shifts
			// A uniform count goes to the vector shift as one count for every lane, taken as
			// unsigned (a negative count is a huge one). The vector shift asserts "bits <= 31";
			// past 31 the hardware shifts everything out: 0 for the left and logical shifts,
			// the sign fill for the arithmetic one. The per-lane path and the tail use the
			// count's low five bits instead (ScalarOps), so a constant count of 40 shifts by
			// 8 there. Both behaviours are kept: the block path reports the bad count, and
			// costs nothing per lane.

			template <s32 (*_Scalar)(s32, s32), typename _VectorShift>
			void _ExecShift(SPackedCursor &c, const _VectorShift &shift)
			{
				if (c.m_Stride1 == 0 && c.HasBlock() && _IsUniform(c.m_Src1))
				{
					const u32 bits = u32(c.m_Src1[0]);
					_UnaryBlocks(c, [&shift, bits](const Float4 &a) { return shift(a, bits); });
				}
				_PerLane<_Scalar>(c, kShiftHazardFrom);
			}
		}

		void _ExecIntOperatorPacked(SOp_MathOp::EOp op, s32 *dstPtr, const s32 *dstStop, const s32 *srcPtr0, u32 stride0, const s32 *srcPtr1, u32 stride1)
		{
			OX_ASSERT_ALIGNED16(dstPtr);
			OX_ASSERT_ALIGNED16(srcPtr0);
			OX_ASSERT_ALIGNED16(srcPtr1);

			SPackedCursor c = {dstPtr, dstStop, srcPtr0, stride0, srcPtr1, stride1};
			switch (op)
			{
			// ---- Add, Sub, Mul (wrapping; SSE2 has no 32-bit multiply, MulLoInt32 builds it)
			case SOp_MathOp::Op_Add: _Lanewise<&ScalarOps::AddS32>(c, [](const Float4 &a, const Float4 &b) { return a.AddInt32(b); }); return;
			case SOp_MathOp::Op_Sub: _Lanewise<&ScalarOps::SubS32>(c, [](const Float4 &a, const Float4 &b) { return a.SubInt32(b); }); return;
			case SOp_MathOp::Op_Mul: _Lanewise<&ScalarOps::MulS32>(c, [](const Float4 &a, const Float4 &b) { return a.MulLoInt32(b); }); return;

			// ---- Div, Mod
			case SOp_MathOp::Op_Div: _ExecDiv(c); return;
			case SOp_MathOp::Op_Mod: _ExecMod(c); return;

			// ---- Neg (0 - a: INT_MIN stays INT_MIN), Not; source 1 is never read
			case SOp_MathOp::Op_Neg:
				OX_ASSERT(srcPtr1 == null);
				_LanewiseUnary<&ScalarOps::NegS32>(c, [](const Float4 &a) { return Float4::Zero().SubInt32(a); });
				return;
			case SOp_MathOp::Op_Bitwise_Not:
				OX_ASSERT(srcPtr1 == null);
				_LanewiseUnary<&_NotS32>(c, [](const Float4 &a) { return ~a; });
				return;

			// ---- Shifts
			case SOp_MathOp::Op_Bitwise_ShiftLeft: _ExecShift<&ScalarOps::ShlS32>(c, [](const Float4 &a, u32 bits) { return a.ShiftLeftInt32(bits); }); return;
			case SOp_MathOp::Op_Bitwise_ShiftRight: _ExecShift<&ScalarOps::SarS32>(c, [](const Float4 &a, u32 bits) { return a.ShiftRightArithInt32(bits); }); return;
			case SOp_MathOp::Op_Bitwise_ShiftRightLogical: _ExecShift<&ScalarOps::ShrS32>(c, [](const Float4 &a, u32 bits) { return a.ShiftRightLogicalInt32(bits); }); return;

			// ---- And, Or, Xor
			case SOp_MathOp::Op_Bitwise_And: _Lanewise<&_AndS32>(c, [](const Float4 &a, const Float4 &b) { return a & b; }); return;
			case SOp_MathOp::Op_Bitwise_Or: _Lanewise<&_OrS32>(c, [](const Float4 &a, const Float4 &b) { return a | b; }); return;
			case SOp_MathOp::Op_Bitwise_Xor: _Lanewise<&_XorS32>(c, [](const Float4 &a, const Float4 &b) { return a ^ b; }); return;

			// ---- Comparisons (signed). SSE2 only compares for <, > and ==: the other three
			// are their complements.
			case SOp_MathOp::Op_Cmp_Lower: _Lanewise<&_CmpLtS32>(c, [](const Float4 &a, const Float4 &b) { return a.CmpLtInt32(b); }); return;
			case SOp_MathOp::Op_Cmp_LowerOrEqual: _Lanewise<&_CmpLeS32>(c, [](const Float4 &a, const Float4 &b) { return ~a.CmpGtInt32(b); }); return;
			case SOp_MathOp::Op_Cmp_Greater: _Lanewise<&_CmpGtS32>(c, [](const Float4 &a, const Float4 &b) { return a.CmpGtInt32(b); }); return;
			case SOp_MathOp::Op_Cmp_GreaterOrEqual: _Lanewise<&_CmpGeS32>(c, [](const Float4 &a, const Float4 &b) { return ~a.CmpLtInt32(b); }); return;
			case SOp_MathOp::Op_Cmp_Equal: _Lanewise<&_CmpEqS32>(c, [](const Float4 &a, const Float4 &b) { return a.CmpEqInt32(b); }); return;
			case SOp_MathOp::Op_Cmp_NotEqual: _Lanewise<&_CmpNeS32>(c, [](const Float4 &a, const Float4 &b) { return ~a.CmpEqInt32(b); }); return;

			default:	// past the operator set: nothing is written
				OX_ASSERT_NOT_REACHED();
				return;
			}
		}
	}
}
