// The math-operator meta-op's Low entry points: the plain execution path (the kernels
// are in cbvm_math_op_low_kernels.h).

#include "cbvm_math_op_checks.h"
#include "cbvm_math_op_low_kernels.h"
#include "cbvm_math_op_rows.h"
#include "cbvm_meta_ops.h"
#include "cbvm_registers.h"

namespace Orvex
{
	using Compiler::IR::SOp_MathOp;
}

namespace Orvex
{
	namespace
	{
		// The Low path's selectors, by kernel row: no destination stride.
		struct SLowSelectors
		{
			template <int _Dimension>
			static void Float(SOp_MathOp::EOp op, const MathOp::SResolvedMathOp &r)
			{
				MathOp::ExecOperatorFloat_Low<_Dimension>(op, r.m_EvalInto, r.m_EvalCount, r.m_Data0, r.m_Stride0, r.m_Data1, r.m_Stride1);
			}
			template <int _Dimension>
			static void Int(SOp_MathOp::EOp op, const MathOp::SResolvedMathOp &r)
			{
				MathOp::ExecOperatorInt_Low<_Dimension>(op, r.m_EvalInto, r.m_EvalCount, r.m_Data0, r.m_Stride0, r.m_Data1, r.m_Stride1);
			}
		};

		// Resolves the three operands at bytecode + wb, every check reported, and runs the
		// selector of source 0's type. The Low path has no destination stride (the kernels
		// write densely) and gives a source a stride by its bank alone: a Constant or Normal
		// source is re-read (stride 0) even when only one element is evaluated.
		void _MetaOp_MathOp_ExecBytecode_Low_Impl(const CBytecodeExecContext &context, const u8 *bytecode, u32 wb, SOp_MathOp::EOp op)
		{
			MathOp::SResolvedMathOp r;
			{
				// Scoped to the checks: alive across the kernel, the policy cost a float4
				// division 16% (its kernel was compiled around it).
				MathOp::TReportPolicy<MathOp::Path_Low> report(context.m_Registers);
				MathOp::ResolveOperands<MathOp::Path_Low>(report, context.m_Registers, bytecode, wb, op, r);
			}
			if (!MathOp::RunRowSelector<SLowSelectors>(MathOp::_KernelRowOfType(r.m_SrcType0), op, r))
				OX_ASSERT_NOT_REACHED();
		}
	}

	u32 CMetaOp_MathOp::_ExecBytecode_Low(const CBytecodeExecContext &context, const u8 *bytecode)
	{
		OX_ASSERT(bytecode[0] == CBVM::Opcode_MathOp);
		_MetaOp_MathOp_ExecBytecode_Low_Impl(context, bytecode, kGenericRegistersOffset, SOp_MathOp::EOp(bytecode[kGenericOperatorOffset]));
		return IP_Offset;
	}

	u32 CMetaOp_MathOp::_ExecBytecode_Add_Low(const CBytecodeExecContext &context, const u8 *bytecode)
	{
		OX_ASSERT(bytecode[0] == CBVM::Opcode_MathOpAdd);
		_MetaOp_MathOp_ExecBytecode_Low_Impl(context, bytecode, kSpecializedRegistersOffset, SOp_MathOp::Op_Add);
		return kSpecializedSize;
	}

	u32 CMetaOp_MathOp::_ExecBytecode_Sub_Low(const CBytecodeExecContext &context, const u8 *bytecode)
	{
		OX_ASSERT(bytecode[0] == CBVM::Opcode_MathOpSub);
		_MetaOp_MathOp_ExecBytecode_Low_Impl(context, bytecode, kSpecializedRegistersOffset, SOp_MathOp::Op_Sub);
		return kSpecializedSize;
	}

	u32 CMetaOp_MathOp::_ExecBytecode_Mul_Low(const CBytecodeExecContext &context, const u8 *bytecode)
	{
		OX_ASSERT(bytecode[0] == CBVM::Opcode_MathOpMul);
		_MetaOp_MathOp_ExecBytecode_Low_Impl(context, bytecode, kSpecializedRegistersOffset, SOp_MathOp::Op_Mul);
		return kSpecializedSize;
	}

	u32 CMetaOp_MathOp::_ExecBytecode_Div_Low(const CBytecodeExecContext &context, const u8 *bytecode)
	{
		OX_ASSERT(bytecode[0] == CBVM::Opcode_MathOpDiv);
		_MetaOp_MathOp_ExecBytecode_Low_Impl(context, bytecode, kSpecializedRegistersOffset, SOp_MathOp::Op_Div);
		return kSpecializedSize;
	}
}

