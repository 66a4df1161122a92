#pragma once
// Standard execution path: the one-element kernels and the kernel rows.
//
// A Constant or Normal destination evaluates exactly one element. Through the stream
// kernels that one value would pay for their set-up (stride and alignment tests, loop
// bounds, a partial store), several times the cost of the operation itself. The worker
// sends such an instruction here instead when none of the stream path's checks could
// report: destination and sources of the row's element size (4 x N bytes), 32-byte
// aligned, source 0 present and source 1 present exactly for a binary operator.
//
// Each function reads and writes exactly the N components of its operands (N = 4 as
// one aligned vector, fewer one component at a time), nothing around them.
//
// Each function computes what the stream kernel of its operator and row computes on a
// packed stream of one element, lane for lane:
//   - float arithmetic and comparisons: the same TOp2Impl operator, on one vector for
//     N = 4 and per component below (the stream kernels' tail does the same lane ops);
//   - float modulo: frac(a / b) * b on one vector for N = 4, ScalarOps::ModF32 per
//     component below, as the packed modulo kernel's loop and tail do;
//   - float negation: a sign flip;
//   - integers: the ScalarOps definitions per component, which is what the packed
//     integer kernel runs for fewer than 12 integers (a one-element evaluation has no
//     broadcast operand, so no uniform-constant block path applies).
// The tests run every operator and row both ways and compare the results bit for bit.

#include "cbvm_math_op_checks.h"
#include "cbvm_math_op_rows.h"
#include "cbvm_math_op_float_kernels.h"
#include "cbvm_registers.h"
#include "cp_ir_details.h"
#include "kr_base_types.h"
#include "mt_scalar_ops.h"
#include "simd/sse/simd_vector.h"

#include <array>
#include <type_traits>
#include <utility>

namespace Orvex
{
	namespace MathOp
	{
		//--------------------------------------------------------------------------------
		// One-element kernels: dst = src0 op src1 for one element of N components. The
		// pointers are 32-byte aligned and not null (src1 is null for unary operators).

		using FnOp2Single = void (*)(void *dst, const void *src0, const void *src1);

		template <int _Dimension>
		struct TSingleFloat
		{
			using Access = SIMD_SSE::TAlignedAccess<true>;

			template <EOp2Type _Op>
			static void Op2(void *dst, const void *src0, const void *src1)
			{
				using Impl = TOp2Impl<_Op, false>;
				if constexpr (_Dimension == 4)
					Access::Store(dst, Impl::Op(Access::Load(src0), Access::Load(src1)));
				else
					for (int k = 0; k < _Dimension; ++k)
						Impl::Op(Scalar::Load(static_cast<const float *>(src0) + k), Scalar::Load(static_cast<const float *>(src1) + k)).Store(static_cast<float *>(dst) + k);
			}

			static void Mod(void *dst, const void *src0, const void *src1)
			{
				if constexpr (_Dimension == 4)
				{
					const Float4 a = Access::Load(src0);
					const Float4 b = Access::Load(src1);
					Access::Store(dst, TTruncFrac<Float4>()(a / b) * b);
				}
				else
					for (int k = 0; k < _Dimension; ++k)
						static_cast<float *>(dst)[k] = ScalarOps::ModF32(static_cast<const float *>(src0)[k], static_cast<const float *>(src1)[k]);
			}

			static void Neg(void *dst, const void *src0, const void * /*src1*/)
			{
				if constexpr (_Dimension == 4)
					Access::Store(dst, Access::Load(src0) ^ Float4::LoadAligned16_Prechecked(SIMD_SSE::Constants::_Constant_Fp32_SignMasks));
				else
					for (int k = 0; k < _Dimension; ++k)
						static_cast<float *>(dst)[k] = ScalarOps::NegF32(static_cast<const float *>(src0)[k]);
			}
		};

		template <int _Dimension>
		struct TSingleInt
		{
			template <SOp_MathOp::FnIntRule _Fn>
			static void Op2(void *dst, const void *src0, const void *src1)
			{
				for (int k = 0; k < _Dimension; ++k)
					static_cast<s32 *>(dst)[k] = _Fn(static_cast<const s32 *>(src0)[k], static_cast<const s32 *>(src1)[k]);
			}

			// Source 1 is null for the unary operators: never read.
			template <SOp_MathOp::FnIntRule _Fn>
			static void Op1(void *dst, const void *src0, const void * /*src1*/)
			{
				for (int k = 0; k < _Dimension; ++k)
					static_cast<s32 *>(dst)[k] = _Fn(static_cast<const s32 *>(src0)[k], 0);
			}
		};

		//--------------------------------------------------------------------------------
		// Table indexed by op * __MaxKernelRows + row, generated from the operator table.
		// Null where the stream path has no kernel either (row 0, the bitwise operators on
		// floats): those instructions go through the selectors, which report them.

		using SingleKernelTable = std::array<FnOp2Single, SOp_MathOp::__MaxOps * __MaxKernelRows>;

		template <int _Dimension, u32 _Op>
		constexpr FnOp2Single _SingleFloatOf()
		{
			using F = TSingleFloat<_Dimension>;
			constexpr const SOp_MathOp::STraits &traits = SOp_MathOp::kTraits[_Op];
			if constexpr (traits.m_FloatKernel == SOp_MathOp::FloatKernel_Lanes)
				return &F::template Op2<traits.m_FloatLane>;
			else if constexpr (traits.m_FloatKernel == SOp_MathOp::FloatKernel_Mod)
				return &F::Mod;
			else if constexpr (traits.m_FloatKernel == SOp_MathOp::FloatKernel_Neg)
				return &F::Neg;
			else
				return nullptr;
		}

		template <int _Dimension, u32 _Op>
		constexpr FnOp2Single _SingleIntOf()
		{
			using I = TSingleInt<_Dimension>;
			constexpr const SOp_MathOp::STraits &traits = SOp_MathOp::kTraits[_Op];
			if constexpr (traits.m_ParameterCount == 1)
				return &I::template Op1<traits.m_IntRule>;
			else
				return &I::template Op2<traits.m_IntRule>;
		}

		template <int _Dimension, std::size_t... _Ops>
		constexpr void _SetSingleRows(SingleKernelTable &t, std::index_sequence<_Ops...>)
		{
			((t[_Ops * __MaxKernelRows + Row_Float1 + (_Dimension - 1)] = _SingleFloatOf<_Dimension, _Ops>(),
			  t[_Ops * __MaxKernelRows + Row_Int1 + (_Dimension - 1)] = _SingleIntOf<_Dimension, _Ops>()), ...);
		}

		constexpr SingleKernelTable _BuildSingleKernelTable()
		{
			SingleKernelTable table = {};
			constexpr auto ops = std::make_index_sequence<SOp_MathOp::__MaxOps>();
			_SetSingleRows<1>(table, ops);
			_SetSingleRows<2>(table, ops);
			_SetSingleRows<3>(table, ops);
			_SetSingleRows<4>(table, ops);
			return table;
		}

		inline constexpr SingleKernelTable _FnSingleLookup = _BuildSingleKernelTable();

		// The one-element path covers exactly the (operator, row) pairs the selectors have
		// a kernel for: every operator on integers, all but the bitwise ones on floats.
		constexpr bool _SingleTableMatchesSelectors()
		{
			for (u32 op = 0; op < u32(SOp_MathOp::__MaxOps); ++op)
				for (u32 n = 0; n < 4; ++n)
				{
					if ((_FnSingleLookup[op * __MaxKernelRows + Row_Float1 + n] != nullptr) != (_FnMathOpLookup[op * 4 + n] != nullptr))
						return false;
					if (_FnSingleLookup[op * __MaxKernelRows + Row_Int1 + n] == nullptr || _FnSingleLookup[op * __MaxKernelRows + Row_None] != nullptr)
						return false;
				}
			return true;
		}
		static_assert(_SingleTableMatchesSelectors(), "one-element kernels exist where the stream kernels do");

		// The one-element kernel of the instruction at bytecode (register block at wb) and
		// its resolved operands, when it evaluates one element (a well-formed Constant or
		// Normal destination) and none of the checks of the worker, the selectors and the
		// stream kernels could report, nor would the stream kernel take its slow path: the
		// probe of ResolveOperands for one element, then KernelChecks. Null otherwise.
		struct SSingleCall
		{
			FnOp2Single m_Fn = nullptr;	// null: not a one-element instruction without reports
			void *m_Dst = nullptr;
			const void *m_Src0 = nullptr;
			const void *m_Src1 = nullptr;
		};

		inline SSingleCall SingleKernelChecked(const CCBCPUMetaRegisters &registers, const u8 *bytecode, u32 wb, SOp_MathOp::EOp op)
		{
			const u32 dstBits = ReadOperandIds(bytecode, wb).m_Dst;
			if (!CVMRegID::WellFormedBits(dstBits) || CVMRegID::PerElementOf(dstBits))
				return {};
			SProbePolicy probe;
			SResolvedMathOp r;
			if (!ResolveOperands<Path_Standard, SProbePolicy, /*_OneElement*/ true>(probe, registers, bytecode, wb, op, r) || !KernelChecks</*_OneElement*/ true>(probe, op, r))
				return {};
			return {_FnSingleLookup[u32(op) * __MaxKernelRows + _KernelRowOfType(r.m_SrcType0)], r.m_EvalInto, r.m_Data0, r.m_Data1};
		}

		// SingleKernelChecked with its tests fused, for the entry points: one element is the
		// common case of a script's constant math, where the separate tests cost a quarter
		// of the instruction. It accepts exactly what SingleKernelChecked accepts, with the
		// same kernel and operands (a test compares the two over random instructions):
		//   - well-formed and not per-element: bits 30, 31 and 22 of the destination clear;
		//   - source 1 of a binary operator: the same top byte as source 0's (same type,
		//     valid and well-formed at once); of a unary one: CVMRegID::INVALID;
		//   - a one-element kernel for (operator, row): the row exists (a size of 4 x N) and
		//     the operator has a form for it; the destination of the same size;
		//   - register sizes for one element, pointers present and 32-byte aligned.
		//
		// _Run: call the kernel here and return whether it ran (the entry points), instead of
		// returning the call (the test).
		template <bool _Run>
		inline OX_ALWAYS_INLINE std::conditional_t<_Run, bool, SSingleCall> SingleKernelFused(const CCBCPUMetaRegisters &registers, const u8 *bytecode, u32 wb, SOp_MathOp::EOp op)
		{
			constexpr u32 kTopBits = ~(CVMRegID::kWellFormedLimit - 1);
			constexpr u32 kPerElementBit = 2u << Compiler::IR::CRegID::RegisterBankShift;
			static_assert(CVMRegID::PerElementOf(kPerElementBit) && !CVMRegID::PerElementOf(~kPerElementBit & (CVMRegID::kWellFormedLimit - 1)), "the per-element bit");
			const u32 dstBits = OXLoadAndSwapLittleEndian<u32>(bytecode + wb + CMetaOp_MathOp::kDstRegOffset);
			if ((dstBits & (kTopBits | kPerElementBit)) != 0 || u32(op) >= u32(SOp_MathOp::__MaxOps))
				return std::conditional_t<_Run, bool, SSingleCall>();
			if (!IsMathOpOpcode(bytecode[0]))
				return std::conditional_t<_Run, bool, SSingleCall>();
			const SOperandIds ids = ReadOperandIds(bytecode, wb);
			if (!CVMRegID::WellFormedBits(ids.m_Src0))
				return std::conditional_t<_Run, bool, SSingleCall>();
			const bool binary = SOp_MathOp::kTraits[op].m_ParameterCount > 1;
			constexpr u32 kTypeAndTopShift = Compiler::IR::CRegID::RegisterTypeShift;
			if (binary ? (ids.m_Src1 >> kTypeAndTopShift) != (ids.m_Src0 >> kTypeAndTopShift) : ids.m_Src1 != CVMRegID::kInvalidBits)
				return std::conditional_t<_Run, bool, SSingleCall>();
			const u32 src0Field = CVMRegID::TypeFieldOf(ids.m_Src0);
			const FnOp2Single fn = _FnSingleLookup[u32(op) * __MaxKernelRows + _KernelRowOfTypeField[src0Field]];
			if (fn == nullptr)
				return std::conditional_t<_Run, bool, SSingleCall>();
			const u32 size = _TypeFieldSizes[src0Field];
			if (_TypeFieldSizes[CVMRegID::TypeFieldOf(dstBits)] != size)
				return std::conditional_t<_Run, bool, SSingleCall>();
			const RegisterEntry &reg = registers.SelectWellFormed(dstBits);
			const RegisterEntry &reg0 = registers.SelectWellFormed(ids.m_Src0);
			if (!(reg.m_Size >= u64(registers.m_StreamDimensions) * size || reg.m_Size >= size) || reg0.m_Size < size)
				return std::conditional_t<_Run, bool, SSingleCall>();
			const void *data1 = nullptr;
			if (binary)
			{
				const RegisterEntry &reg1 = registers.SelectWellFormed(ids.m_Src1);
				if (reg1.m_Size < size || reg1.m_RawData == nullptr)
					return std::conditional_t<_Run, bool, SSingleCall>();
				data1 = reg1.m_RawData;
			}
			if (reg.m_RawData == nullptr || reg0.m_RawData == nullptr || !SIMD_SSE::_AreAligned<32>(reg.m_RawData, reg0.m_RawData, data1))
				return std::conditional_t<_Run, bool, SSingleCall>();
			if constexpr (_Run)
			{
				fn(reg.m_RawData, reg0.m_RawData, data1);
				return true;
			}
			else
				return SSingleCall{fn, reg.m_RawData, reg0.m_RawData, data1};
		}
	}
}
