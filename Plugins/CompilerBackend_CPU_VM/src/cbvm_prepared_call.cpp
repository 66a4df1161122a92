#include "cbvm_prepared_call.h"

#include "cbvm_math_op_checks.h"
#include "cbvm_math_op_decoder.h"
#include "cbvm_math_op_float_kernels.h"
#include "cbvm_math_op_int_selector.h"

namespace Orvex
{
	namespace MathOp
	{
		namespace
		{
			// ExecOperatorInt past its checks (the verifier made them), for the call's set.
			template <int _Dimension>
			void _RunInt(const SPreparedCall &call, void *dst, u32 count, const void *src0, const void *src1)
			{
				_ExecIntBlocks<_Dimension>(call.m_Op, dst, count, src0, call.m_Stride0, src1, call.m_Stride1, *call.m_Set);
			}

			constexpr FnPreparedInt kIntCalls[] = {&_RunInt<1>, &_RunInt<2>, &_RunInt<3>, &_RunInt<4>};
			static_assert(sizeof(kIntCalls) / sizeof(kIntCalls[0]) == 4, "one integer call per component count");

			SPreparedOperand _Operand(void *data, u32 stride) { return {static_cast<u8 *>(data), stride, SPreparedOperand::kNotScratch}; }
		}

		SPreparedCall CPreparedCalls::Prepare(const u8 *bytecode, u32 offset, const CCBCPUMetaRegisters &registers, const SKernelSet &set)
		{
			SPreparedCall call;
			call.m_Offset = offset;
			call.m_Bytecode = bytecode;
			call.m_Node = &EntryProfilerNode(bytecode[0]);
			const CBVM::SMathOpInstruction ins = CBVM::ReadMathOp(bytecode, offset);
			call.m_Op = ins.m_Op;
			// One-element instructions, and (defensively: the caller verified) any that does
			// not pass the entry point's checks, call the entry point.
			call.m_Entry = CBVM::CInterpreter::Entry(CBVM::ExecPath_Standard, bytecode[0]).m_Exec;
			SProbePolicy probe;
			SResolvedMathOp r = {};
			if (!CVMRegID::PerElementOf(ins.Dst()) || !ResolveOperands<Path_Standard>(probe, registers, bytecode, RegisterBlockOffset(bytecode[0]), call.m_Op, r))
				return call;
			call.m_Stride = r.m_Stride;
			call.m_Stride0 = r.m_Stride0;
			call.m_Stride1 = r.m_Stride1;
			// A batch moves a stream operand by whole elements; a one-value one stays.
			call.m_Dst = _Operand(r.m_EvalInto, r.m_Stride);
			call.m_Src0 = _Operand(const_cast<void *>(r.m_Data0), r.m_Stride0);
			call.m_Src1 = _Operand(const_cast<void *>(r.m_Data1), r.m_Stride1);
			const SBaseTypeInfo &type = BaseTypeInfo(r.m_SrcType0);
			if (type.m_Kind == ElementKind_Float)
				call.m_Float = set.m_Float[u32(call.m_Op) * 4 + (type.m_Components - 1)];
			else
			{
				call.m_Int = kIntCalls[type.m_Components - 1];
				call.m_Set = &set;
			}
			return call;
		}
	}
}
