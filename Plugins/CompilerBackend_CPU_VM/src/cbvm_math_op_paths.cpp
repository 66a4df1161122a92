#include "cbvm_math_op_paths.h"

namespace Orvex
{
	namespace CBVM
	{
		const char *PathDifferenceName(EPathDifference difference)
		{
			static constexpr const char *kNames[__MaxPathDifferences] = {
				"none",
				"float modulo by a constant (reciprocal multiply)",
				"float modulo of two constants",
				"float negation of a constant (refused)",
				"uniform shift count above 31",
				"division by the uniform constant INT_MIN",
			};
			return u32(difference) < __MaxPathDifferences ? kNames[difference] : "?";
		}

		EPathDifference StandardPathDifference(const CCBCPUMetaRegisters &registers, const u8 *bytecode)
		{
			using SOp_MathOp = Compiler::IR::SOp_MathOp;
			const bool generic = bytecode[0] == Opcode_MathOp;
			const SOp_MathOp::EOp op = generic ? SOp_MathOp::EOp(bytecode[CMetaOp_MathOp::kGenericOperatorOffset])
											   : SOp_MathOp::EOp(bytecode[0] - Opcode_MathOpAdd);
			const u8 *block = bytecode + (generic ? CMetaOp_MathOp::kGenericRegistersOffset : CMetaOp_MathOp::kSpecializedRegistersOffset);
			const CVMRegID dst = {s32(OXLoadAndSwapLittleEndian<u32>(block + CMetaOp_MathOp::kDstRegOffset))};
			const CVMRegID src0 = {s32(OXLoadAndSwapLittleEndian<u32>(block + CMetaOp_MathOp::kSrcReg0Offset))};
			const CVMRegID src1 = {s32(OXLoadAndSwapLittleEndian<u32>(block + CMetaOp_MathOp::kSrcReg1Offset))};
			if (!dst._ValidAndWellFormed() || !src0._ValidAndWellFormed())
				return PathDifference_None;

			// The standard path broadcasts a Constant or Normal source only when it evaluates
			// a count other than one.
			const u32 evalCount = dst.ToBank() >= Compiler::MetaType_Instance ? registers.m_StreamDimensions : 1;
			const bool broadcast0 = evalCount != 1 && src0.ToBank() < Compiler::MetaType_Instance;
			const bool hasSrc1 = src1._ValidAndWellFormed();
			const bool broadcast1 = evalCount != 1 && hasSrc1 && src1.ToBank() < Compiler::MetaType_Instance;

			const SBaseTypeInfo &type = BaseTypeInfo(src0.ToType());
			const SOp_MathOp::STraits &traits = SOp_MathOp::OperatorTraits(op);
			if (type.m_Kind == ElementKind_Float)
			{
				if (traits.m_FloatKernel == SOp_MathOp::FloatKernel_Mod && broadcast1)
					return broadcast0 ? PathDifference_FloatModOfConstants : PathDifference_FloatModByConstant;
				if (traits.m_FloatKernel == SOp_MathOp::FloatKernel_Neg && broadcast0)
					return PathDifference_FloatNegOfConstant;
				return PathDifference_None;
			}

			// Integers: the block paths run on whole 12-integer blocks when the constant's
			// first four broadcast words are equal.
			const u32 components = type.m_Kind != ElementKind_None ? type.m_Components : 0;
			if (!broadcast1 || components == 0 || u64(evalCount) * components < 12)
				return PathDifference_None;
			const s32 *constant = static_cast<const s32 *>(registers.SelectRegister(src1).m_RawData);
			for (u32 i = 1; i < 4; ++i)
				if (constant[i % components] != constant[0])
					return PathDifference_None;
			if (traits.m_IntKernel == SOp_MathOp::IntKernel_Shift && u32(constant[0]) > 31)
				return PathDifference_ShiftCountAbove31;
			if (traits.m_IntKernel == SOp_MathOp::IntKernel_Div && u32(constant[0]) == 0x80000000u)
				return PathDifference_DivByIntMin;
			return PathDifference_None;
		}
	}
}
