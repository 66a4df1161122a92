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

#include "cbvm_meta_op_math_operator.float.impl.h"
#include "cbvm_registers.h"
#include "cp_ir_details.h"
#include "kr_base_types.h"
#include "mt_scalar_ops.h"
#include "simd/sse/simd_vector.h"

#include <array>

namespace Orvex
{
	namespace MathOp
	{
		//--------------------------------------------------------------------------------
		// Kernel rows: which selector, and so which element layout, a source type runs
		// through. Booleans go through the integer kernels and a quaternion through the
		// four-component float kernel; every other type has no kernel (row 0).

		enum EKernelRow : u8
		{
			Row_None = 0,
			Row_Float1, Row_Float2, Row_Float3, Row_Float4,
			Row_Int1, Row_Int2, Row_Int3, Row_Int4,
			__MaxKernelRows
		};

		constexpr EKernelRow _KernelRowOfType(EBaseTypeID type)
		{
			switch (type)
			{
			case BaseType_Float: return Row_Float1;
			case BaseType_Float2: return Row_Float2;
			case BaseType_Float3: return Row_Float3;
			case BaseType_Float4:
			case BaseType_Quaternion: return Row_Float4;
			case BaseType_I32:
			case BaseType_Bool: return Row_Int1;
			case BaseType_Int2:
			case BaseType_Bool2: return Row_Int2;
			case BaseType_Int3:
			case BaseType_Bool3: return Row_Int3;
			case BaseType_Int4:
			case BaseType_Bool4: return Row_Int4;
			default: return Row_None;
			}
		}

		constexpr u32 _RowComponents(EKernelRow row) { return row == Row_None ? 0u : (u32(row) - 1u) % 4u + 1u; }

		// Indexed by a register id's 6-bit type field (type + 1): any field value is safe.
		constexpr std::array<EKernelRow, 64> _BuildKernelRowOfTypeField()
		{
			std::array<EKernelRow, 64> rows = {};
			for (u32 field = 0; field < 64; ++field)
				rows[field] = _KernelRowOfType(EBaseTypeID(s32(field) - 1));
			return rows;
		}
		inline constexpr std::array<EKernelRow, 64> _KernelRowOfTypeField = _BuildKernelRowOfTypeField();

		// Element sizes by type field, 0 past the table: one load, no range test.
		constexpr std::array<u32, 64> _BuildTypeFieldSizes()
		{
			std::array<u32, 64> sizes = {};
			for (u32 field = 0; field < kBaseTypeTableSize; ++field)
				sizes[field] = CCBCPUMetaRegisters::m_DataTypeSizeInBytes[field];
			return sizes;
		}
		inline constexpr std::array<u32, 64> _TypeFieldSizes = _BuildTypeFieldSizes();

		// Every type with a kernel has the element size its kernel walks: 4 bytes per
		// component. So "destination size == source 0 size" is all the one-element path
		// still has to test about strides.
		constexpr bool _RowSizesMatchTypeSizes()
		{
			for (u32 field = 0; field < 64; ++field)
				if (_KernelRowOfTypeField[field] != Row_None && _TypeFieldSizes[field] != 4 * _RowComponents(_KernelRowOfTypeField[field]))
					return false;
			return true;
		}
		static_assert(_RowSizesMatchTypeSizes(), "a kernel row's element is 4 bytes per component");
		static_assert(_KernelRowOfTypeField[BaseType_Bool3 + 1] == Row_Int3 && _KernelRowOfTypeField[BaseType_Quaternion + 1] == Row_Float4, "bools and quaternions");
		static_assert(_KernelRowOfTypeField[BaseType_Double + 1] == Row_None && _KernelRowOfTypeField[63] == Row_None, "types without a kernel");

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
					Access::Store(dst, STruncFrac()(a / b) * b);
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
			template <s32 (*_Fn)(s32, s32)>
			static void Op2(void *dst, const void *src0, const void *src1)
			{
				for (int k = 0; k < _Dimension; ++k)
					static_cast<s32 *>(dst)[k] = _Fn(static_cast<const s32 *>(src0)[k], static_cast<const s32 *>(src1)[k]);
			}

			template <s32 (*_Fn)(s32)>
			static void Op1(void *dst, const void *src0, const void * /*src1*/)
			{
				for (int k = 0; k < _Dimension; ++k)
					static_cast<s32 *>(dst)[k] = _Fn(static_cast<const s32 *>(src0)[k]);
			}
		};

		//--------------------------------------------------------------------------------
		// Table indexed by op * __MaxKernelRows + row. Null where the stream path has no
		// kernel either (row 0, the bitwise operators on floats): those instructions go
		// through the selectors, which report them.

		using SingleKernelTable = std::array<FnOp2Single, SOp_MathOp::__MaxOps * __MaxKernelRows>;

		template <int _Dimension>
		constexpr void _SetSingleRows(SingleKernelTable &t)
		{
			using F = TSingleFloat<_Dimension>;
			using I = TSingleInt<_Dimension>;
			const u32 f = Row_Float1 + (_Dimension - 1), i = Row_Int1 + (_Dimension - 1);
			auto at = [&t](SOp_MathOp::EOp op, u32 row) -> FnOp2Single & { return t[u32(op) * __MaxKernelRows + row]; };

			at(SOp_MathOp::Op_Add, f) = &F::template Op2<Op2_Add>;
			at(SOp_MathOp::Op_Sub, f) = &F::template Op2<Op2_Sub>;
			at(SOp_MathOp::Op_Mul, f) = &F::template Op2<Op2_Mul>;
			at(SOp_MathOp::Op_Div, f) = &F::template Op2<Op2_Div>;
			at(SOp_MathOp::Op_Mod, f) = &F::Mod;
			at(SOp_MathOp::Op_Neg, f) = &F::Neg;
			at(SOp_MathOp::Op_Cmp_Lower, f) = &F::template Op2<Op2_LT>;
			at(SOp_MathOp::Op_Cmp_LowerOrEqual, f) = &F::template Op2<Op2_LE>;
			at(SOp_MathOp::Op_Cmp_Greater, f) = &F::template Op2<Op2_GT>;
			at(SOp_MathOp::Op_Cmp_GreaterOrEqual, f) = &F::template Op2<Op2_GE>;
			at(SOp_MathOp::Op_Cmp_Equal, f) = &F::template Op2<Op2_EQ>;
			at(SOp_MathOp::Op_Cmp_NotEqual, f) = &F::template Op2<Op2_NE>;

			at(SOp_MathOp::Op_Add, i) = &I::template Op2<&ScalarOps::AddS32>;
			at(SOp_MathOp::Op_Sub, i) = &I::template Op2<&ScalarOps::SubS32>;
			at(SOp_MathOp::Op_Mul, i) = &I::template Op2<&ScalarOps::MulS32>;
			at(SOp_MathOp::Op_Div, i) = &I::template Op2<&ScalarOps::DivS32>;
			at(SOp_MathOp::Op_Mod, i) = &I::template Op2<&ScalarOps::ModS32>;
			at(SOp_MathOp::Op_Neg, i) = &I::template Op1<&ScalarOps::NegS32>;
			at(SOp_MathOp::Op_Bitwise_ShiftLeft, i) = &I::template Op2<&ScalarOps::ShlS32>;
			at(SOp_MathOp::Op_Bitwise_ShiftRight, i) = &I::template Op2<&ScalarOps::SarS32>;
			at(SOp_MathOp::Op_Bitwise_ShiftRightLogical, i) = &I::template Op2<&ScalarOps::ShrS32>;
			at(SOp_MathOp::Op_Bitwise_And, i) = &I::template Op2<&ScalarOps::AndS32>;
			at(SOp_MathOp::Op_Bitwise_Or, i) = &I::template Op2<&ScalarOps::OrS32>;
			at(SOp_MathOp::Op_Bitwise_Xor, i) = &I::template Op2<&ScalarOps::XorS32>;
			at(SOp_MathOp::Op_Bitwise_Not, i) = &I::template Op1<&ScalarOps::NotS32>;
			at(SOp_MathOp::Op_Cmp_Lower, i) = &I::template Op2<&ScalarOps::CmpLtS32>;
			at(SOp_MathOp::Op_Cmp_LowerOrEqual, i) = &I::template Op2<&ScalarOps::CmpLeS32>;
			at(SOp_MathOp::Op_Cmp_Greater, i) = &I::template Op2<&ScalarOps::CmpGtS32>;
			at(SOp_MathOp::Op_Cmp_GreaterOrEqual, i) = &I::template Op2<&ScalarOps::CmpGeS32>;
			at(SOp_MathOp::Op_Cmp_Equal, i) = &I::template Op2<&ScalarOps::CmpEqS32>;
			at(SOp_MathOp::Op_Cmp_NotEqual, i) = &I::template Op2<&ScalarOps::CmpNeS32>;
		}

		constexpr SingleKernelTable _BuildSingleKernelTable()
		{
			SingleKernelTable table = {};
			_SetSingleRows<1>(table);
			_SetSingleRows<2>(table);
			_SetSingleRows<3>(table);
			_SetSingleRows<4>(table);
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
	}
}
