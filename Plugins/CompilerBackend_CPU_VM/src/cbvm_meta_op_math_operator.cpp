// The math-operator meta-op's standard entry points: operand resolution and dispatch to
// the SIMD stream kernels (cbvm_math_op_float_kernels.h, cbvm_math_op_int_selector.h) or,
// for one element, the one-element kernels (cbvm_math_op_one_element_kernels.h).

#include "cbvm_math_op_checks.h"
#include "cbvm_prepared_call.h"
#include "cbvm_math_op_float_kernels.h"
#include "cbvm_math_op_int_selector.h"
#include "cbvm_math_op_rows.h"
#include "cbvm_math_op_one_element_kernels.h"
#include "cbvm_meta_ops.h"
#include "cbvm_registers.h"
#include "kr_profiler.h"

namespace Orvex
{
	using Compiler::IR::SOp_MathOp;
}

namespace Orvex
{
	namespace
	{
		using MathOp::SResolvedMathOp;

		// The standard path's selectors, by kernel row.
		struct SStandardSelectors
		{
			template <int _Dimension>
			static OX_ALWAYS_INLINE void Float(SOp_MathOp::EOp op, const SResolvedMathOp &r)
			{
				MathOp::ExecOperatorFloat<_Dimension>(op, r.m_EvalInto, r.m_Stride, r.m_EvalCount, r.m_Data0, r.m_Stride0, r.m_Data1, r.m_Stride1);
			}
			template <int _Dimension>
			static OX_ALWAYS_INLINE void Int(SOp_MathOp::EOp op, const SResolvedMathOp &r)
			{
				MathOp::ExecOperatorInt<_Dimension>(op, r.m_EvalInto, r.m_Stride, r.m_EvalCount, r.m_Data0, r.m_Stride0, r.m_Data1, r.m_Stride1);
			}
		};

		// Runs the kernel of source 0's type: only that type selects it (through its kernel
		// row). A type without a row is reported and nothing is written.
		inline OX_ALWAYS_INLINE void _Dispatch(SOp_MathOp::EOp op, const SResolvedMathOp &r)
		{
			if (!MathOp::RunRowSelector<SStandardSelectors>(MathOp::_KernelRowOfType(r.m_SrcType0), op, r))
				OX_ASSERT_NOT_REACHED();
		}

		// An instruction that the probe did not accept: resolved with every check reported,
		// then evaluated with the values at hand. Out of line: well-formed instructions never
		// come here.
		__attribute__((noinline, cold)) void _ExecChecked(const CCBCPUMetaRegisters &registers, const u8 *bytecode, u32 wb, SOp_MathOp::EOp op) noexcept
		{
			MathOp::TReportPolicy<MathOp::Path_Standard> report(registers);
			const Assert::CReportContext context = report.InstructionContext();
			SResolvedMathOp checked;
			MathOp::ResolveOperands<MathOp::Path_Standard>(report, registers, bytecode, wb, op, checked);
			_Dispatch(op, checked);
		}

		// A Constant or Normal destination evaluates one element. When no check of the
		// worker, the selector or the stream kernel could report for this instruction, this
		// runs the one-element kernel of its operator and row (the same result, without the
		// stream set-up) and returns true. Anything else returns false, and the instruction
		// goes the general way, which reports whatever is wrong.
		inline OX_ALWAYS_INLINE bool _TrySingle(const CCBCPUMetaRegisters &registers, const u8 *bytecode, u32 wb, SOp_MathOp::EOp op)
		{
			return MathOp::SingleKernelFused</*_Run*/ true>(registers, bytecode, wb, op);
		}

		// Resolves the three operands at bytecode + wb in the register file (probed, or with
		// every check reported when the probe fails) and runs the kernel of source 0's type.
		// Out of line, so that a one-element instruction that _TrySingle takes pays for none
		// of its frame.
		//
		// _FixedOp: the operator of a specialised entry point (add, sub, mul, div), whose
		// operand-count test and kernel lookup then fold away; -1 for the generic entry,
		// which passes the operator byte.
		template <int _FixedOp>
		__attribute__((noinline)) void _ExecStreams(const CCBCPUMetaRegisters &registers, const u8 *bytecode, u32 wb, SOp_MathOp::EOp operatorByte) noexcept
		{
			const SOp_MathOp::EOp op = _FixedOp >= 0 ? SOp_MathOp::EOp(_FixedOp) : operatorByte;
			// The reporting path has its own dispatch, out of line: the resolved operands of
			// a well-formed instruction stay in registers and this frame stays small (at a
			// stream size that fills the level-1 cache, every line the instruction itself
			// touches costs stream lines a miss).
			MathOp::SProbePolicy probe;
			SResolvedMathOp r;
			if (MathOp::ResolveOperands<MathOp::Path_Standard>(probe, registers, bytecode, wb, op, r))
				_Dispatch(op, r);
			else
				_ExecChecked(registers, bytecode, wb, op);
		}

		// The worker of the five entry points. noexcept: nothing in it throws (assertion
		// handlers must not), so the entry points need no unwinding code around their
		// profiler scope.
		// (_FixedOp: see _ExecStreams; the specialised entries pass their operator.)
		template <int _FixedOp = -1>
		void _MetaOp_MathOp_ExecBytecode_Impl(const CBytecodeExecContext &execCtx, const u8 *bytecode, u32 wb, SOp_MathOp::EOp op) noexcept
		{
			const CCBCPUMetaRegisters &registers = execCtx.m_Registers;
			if (!_TrySingle(registers, bytecode, wb, op))
				_ExecStreams<_FixedOp>(registers, bytecode, wb, op);
		}

		// Each entry point is a profiler scope named after itself. Constant-initialised, and
		// shared with the prepared calls that stand for the entry points
		// (cbvm_prepared_call.h), so that a profile counts an instruction under its entry's
		// name however it ran.
		constexpr TVector<float, 4> kEntryColor = {{1.0f, 0.1f, 0.5f, 1.0f}};
		constexpr Profiler::SNodeDescriptor kEntryNodes[] = {
			{"_ExecBytecode", __FILE__, kEntryColor, 0},	 {"_ExecBytecode_Add", __FILE__, kEntryColor, 0}, {"_ExecBytecode_Sub", __FILE__, kEntryColor, 0},
			{"_ExecBytecode_Mul", __FILE__, kEntryColor, 0}, {"_ExecBytecode_Div", __FILE__, kEntryColor, 0},
		};
		static_assert(sizeof(kEntryNodes) / sizeof(kEntryNodes[0]) == CBVM::Opcode_MathOpDiv - CBVM::Opcode_MathOp + 1, "a profiler node for every math-op opcode");
	}

	const Profiler::SNodeDescriptor &MathOp::EntryProfilerNode(u8 opcode)
	{
		return kEntryNodes[IsMathOpOpcode(opcode) ? opcode - CBVM::Opcode_MathOp : 0];
	}

	u32 CMetaOp_MathOp::_ExecBytecode(const CBytecodeExecContext &execCtx, const u8 *bytecode)
	{
		const Profiler::CScopedNode scope(Profiler::MainEngineProfiler(), kEntryNodes[0], true);
		OX_ASSERT(bytecode[0] == CBVM::Opcode_MathOp);
		_MetaOp_MathOp_ExecBytecode_Impl(execCtx, bytecode, kGenericRegistersOffset, SOp_MathOp::EOp(bytecode[kGenericOperatorOffset]));
		return kGenericSize;
	}

	u32 CMetaOp_MathOp::_ExecBytecode_Add(const CBytecodeExecContext &execCtx, const u8 *bytecode)
	{
		const Profiler::CScopedNode scope(Profiler::MainEngineProfiler(), kEntryNodes[1], true);
		OX_ASSERT(bytecode[0] == CBVM::Opcode_MathOpAdd);
		_MetaOp_MathOp_ExecBytecode_Impl<SOp_MathOp::Op_Add>(execCtx, bytecode, kSpecializedRegistersOffset, SOp_MathOp::Op_Add);
		return kSpecializedSize;
	}

	u32 CMetaOp_MathOp::_ExecBytecode_Sub(const CBytecodeExecContext &execCtx, const u8 *bytecode)
	{
		const Profiler::CScopedNode scope(Profiler::MainEngineProfiler(), kEntryNodes[2], true);
		OX_ASSERT(bytecode[0] == CBVM::Opcode_MathOpSub);
		_MetaOp_MathOp_ExecBytecode_Impl<SOp_MathOp::Op_Sub>(execCtx, bytecode, kSpecializedRegistersOffset, SOp_MathOp::Op_Sub);
		return kSpecializedSize;
	}

	u32 CMetaOp_MathOp::_ExecBytecode_Mul(const CBytecodeExecContext &execCtx, const u8 *bytecode)
	{
		const Profiler::CScopedNode scope(Profiler::MainEngineProfiler(), kEntryNodes[3], true);
		OX_ASSERT(bytecode[0] == CBVM::Opcode_MathOpMul);
		_MetaOp_MathOp_ExecBytecode_Impl<SOp_MathOp::Op_Mul>(execCtx, bytecode, kSpecializedRegistersOffset, SOp_MathOp::Op_Mul);
		return kSpecializedSize;
	}

	u32 CMetaOp_MathOp::_ExecBytecode_Div(const CBytecodeExecContext &execCtx, const u8 *bytecode)
	{
		const Profiler::CScopedNode scope(Profiler::MainEngineProfiler(), kEntryNodes[4], true);
		OX_ASSERT(bytecode[0] == CBVM::Opcode_MathOpDiv);
		_MetaOp_MathOp_ExecBytecode_Impl<SOp_MathOp::Op_Div>(execCtx, bytecode, kSpecializedRegistersOffset, SOp_MathOp::Op_Div);
		return kSpecializedSize;
	}
}
