#include "cbvm_path_difference.h"

#include "cbvm_math_op_checks.h"

namespace Orvex
{
	namespace CBVM
	{
		const char *PathDifferenceName(EPathDifference difference)
		{
			static constexpr const char *kNames[__MaxPathDifferences] = {
				"none",
				"float modulo by a constant (reciprocal multiply from two elements on)",
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
			const SOp_MathOp::EOp op = MathOp::OperatorOf(bytecode);
			const u32 wb = MathOp::RegisterBlockOffset(bytecode[0]);
			const MathOp::SOperandIds ids = MathOp::ReadOperandIds(bytecode, wb);
			if (!CVMRegID::WellFormedBits(ids.m_Dst) || !CVMRegID::WellFormedBits(ids.m_Src0))
				return PathDifference_None;
			// The operands as the standard path resolves them, and its kernels' checks.
			MathOp::SCollectPolicy checks;
			MathOp::SResolvedMathOp r;
			MathOp::ResolveOperands<MathOp::Path_Standard>(checks, registers, bytecode, wb, op, r);
			MathOp::KernelChecks</*_OneElement*/ false>(checks, op, r);

			const SBaseTypeInfo &type = BaseTypeInfo(r.m_SrcType0);
			const SOp_MathOp::STraits &traits = SOp_MathOp::OperatorTraits(op);
			const bool hasSrc1 = CVMRegID::WellFormedBits(ids.m_Src1);
			if (type.m_Kind == ElementKind_Float)
			{
				if (checks.Failed<MathOp::SCheck_ModOneConstant>())
					return PathDifference_FloatModOfConstants;
				// The reciprocal route takes a broadcast divisor; one element divides exactly,
				// but the same operands take the reciprocal in a stream.
				if (traits.m_FloatKernel == SOp_MathOp::FloatKernel_Mod && hasSrc1 && !CVMRegID::PerElementOf(ids.m_Src1))
					return PathDifference_FloatModByConstant;
				// (Negation reports another destination size too; that is no path difference.)
				if (checks.Failed<MathOp::SCheck_NegOfStream>() && r.m_Stride0 == 0)
					return PathDifference_FloatNegOfConstant;
				return PathDifference_None;
			}

			// Integers: the block paths of a uniform constant divisor or count.
			if (checks.Failed<MathOp::SCheck_ShiftCount>())
				return PathDifference_ShiftCountAbove31;
			if (type.m_Kind == ElementKind_None || !hasSrc1 || r.m_Data1 == nullptr)
				return PathDifference_None;
			const s32 *constant = static_cast<const s32 *>(r.m_Data1);
			const bool blocks = MathOp::SKernelPredicates::UniformBlocks(r.m_Stride1, u64(r.m_EvalCount) * type.m_Components, constant, type.m_Components);
			if (blocks && traits.m_IntKernel == SOp_MathOp::IntKernel_Div && u32(constant[0]) == 0x80000000u)
				return PathDifference_DivByIntMin;
			return PathDifference_None;
		}
	}
}
