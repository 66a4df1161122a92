// The math-operator meta-op: entry points (operand resolution and dispatch) and the
// bytecode encoder and decoder. The kernels live in the .impl headers.

#include "cbvm_math_op_checks.h"
#include "cbvm_meta_op_math_operator.float.impl.h"
#include "cbvm_meta_op_math_operator.int.impl.h"
#include "cbvm_meta_op_math_operator.low.impl.h"
#include "cbvm_meta_op_math_operator.single.impl.h"
#include "cbvm_meta_ops.h"
#include "cbvm_registers.h"
#include "kr_profiler.h"

namespace Orvex
{
	using Compiler::IR::CRegID;
	using Compiler::IR::SOp_MathOp;

	namespace
	{
		// An instruction's fields as read from its bytes, before they reach the caller's records.
		struct SDecodedMathOp
		{
			u8 m_Opcode;
			SOp_MathOp::EOp m_Op;
			u32 m_Size;
			CRegID m_DstReg;
			CRegID m_SrcReg0;
			CRegID m_SrcReg1;

			void Check() const
			{
				OX_ASSERT(!m_SrcReg1.Valid() || m_SrcReg1.ToType() == m_SrcReg0.ToType());
				OX_ASSERT(m_Opcode == CBVM::Opcode_MathOp || m_Opcode == CBVM::Opcode_MathOpAdd || m_Opcode == CBVM::Opcode_MathOpSub || m_Opcode == CBVM::Opcode_MathOpMul || m_Opcode == CBVM::Opcode_MathOpDiv);
			}
		};

		// Zero-extends a register field; the invalid VM id becomes the invalid IR id.
		CRegID _ToIRRegID(u32 bits)
		{
			return bits == CVMRegID::kInvalidBits ? CRegID() : CRegID(u64(bits));
		}

		SDecodedMathOp _Decode(const u8 *bytecode)
		{
			// Any byte other than 113..116 decodes as a division; Check() reports unexpected ones.
			const u8 opcode = bytecode[0];
			const MathOp::SOperandIds ids = MathOp::ReadOperandIds(bytecode, MathOp::RegisterBlockOffset(opcode));
			return {opcode, MathOp::OperatorOf(bytecode), MathOp::InstructionSize(opcode), _ToIRRegID(ids.m_Dst), _ToIRRegID(ids.m_Src0), _ToIRRegID(ids.m_Src1)};
		}
	}

	u32 CMetaOp_MathOp::EncodeDescToBytecode(u8 *dst, const SDesc &desc)
	{
		OX_ASSERT(desc.m_DstReg.Valid() && desc.m_SrcReg0.Valid());
		OX_ASSERT(desc.m_SrcReg1.Valid() ^ (Compiler::IR::SOp_MathOp::OperatorTraits(desc.m_Op).m_ParameterCount <= 1));

		u32 wb;
		if (u32(desc.m_Op) >= kSpecializedOpCount)
		{
			dst[0] = CBVM::Opcode_MathOp;
			dst[kGenericOperatorOffset] = u8(u32(desc.m_Op));	// an operator beyond a byte keeps its low byte
			wb = kGenericRegistersOffset;
		}
		else
		{
			dst[0] = u8(CBVM::Opcode_MathOpAdd + u32(desc.m_Op));
			wb = kSpecializedRegistersOffset;
		}
		// The VM id is the IR id's low word: same layout, and all-ones stays all-ones.
		OXSwapAndStoreLittleEndian<u32>(dst + wb + kDstRegOffset, u32(desc.m_DstReg.m_RawBits));
		OXSwapAndStoreLittleEndian<u32>(dst + wb + kSrcReg0Offset, u32(desc.m_SrcReg0.m_RawBits));
		OXSwapAndStoreLittleEndian<u32>(dst + wb + kSrcReg1Offset, u32(desc.m_SrcReg1.m_RawBits));
		wb += kRegisterBlockSize;

		OX_ASSERT(EncodingSize(desc.m_Op) == wb);
		return wb;
	}

	u32 CMetaOp_MathOp::DecodeBytecodeToDesc(const u8 *bytecode, SDesc &desc, CBVM::SOpcodeDisasReport &report)
	{
		const SDecodedMathOp decoded = _Decode(bytecode);
		decoded.Check();

		report.m_Opcode = CBVM::EOpcode(decoded.m_Opcode);
		report.m_InstructionSize = decoded.m_Size;
		report.m_MetaType = decoded.m_DstReg.Valid() ? decoded.m_DstReg.ToBank() : Compiler::MetaType_Transparent;

		desc.m_Op = decoded.m_Op;
		desc.m_DstReg = decoded.m_DstReg;
		desc.m_SrcReg0 = decoded.m_SrcReg0;
		desc.m_SrcReg1 = decoded.m_SrcReg1;
		return report.m_InstructionSize;
	}

	u32 CMetaOp_MathOp::DecodeBytecodeToGeneric(const u8 *bytecode, CBVM::SMetaOp_GenericDesc &generic, CBVM::SOpcodeDisasReport &report)
	{
		SDesc desc;	// __MaxOps and three invalid registers until decoded
		const u32 size = DecodeBytecodeToDesc(bytecode, desc, report);
		generic.m_DstOpcode = report.m_Opcode;
		SOp_MathOp::DescToGeneric(desc, generic.m_Desc);
		return size;
	}
}

//------------------------------------------------------------------------------------
// Low entry points

namespace Orvex
{
	namespace
	{
		// Resolves the three operands at bytecode + wb, every check reported, and runs the
		// selector of source 0's type. The Low path has no destination stride (the kernels
		// write densely) and gives a source a stride by its bank alone: a Constant or Normal
		// source is re-read (stride 0) even when only one element is evaluated.
		void _MetaOp_MathOp_ExecBytecode_Low_Impl(const CBytecodeExecContext &context, const u8 *bytecode, u32 wb, SOp_MathOp::EOp op)
		{
			MathOp::TReportPolicy<MathOp::Path_Low> report;
			MathOp::SResolvedMathOp r;
			MathOp::ResolveOperands<MathOp::Path_Low>(report, context.m_Registers, bytecode, wb, op, r);
			switch (MathOp::_KernelRowOfType(r.m_SrcType0))
			{
			case MathOp::Row_Int1: MathOp::ExecOperatorInt_Low<1>(op, r.m_EvalInto, r.m_EvalCount, r.m_Data0, r.m_Stride0, r.m_Data1, r.m_Stride1); break;
			case MathOp::Row_Int2: MathOp::ExecOperatorInt_Low<2>(op, r.m_EvalInto, r.m_EvalCount, r.m_Data0, r.m_Stride0, r.m_Data1, r.m_Stride1); break;
			case MathOp::Row_Int3: MathOp::ExecOperatorInt_Low<3>(op, r.m_EvalInto, r.m_EvalCount, r.m_Data0, r.m_Stride0, r.m_Data1, r.m_Stride1); break;
			case MathOp::Row_Int4: MathOp::ExecOperatorInt_Low<4>(op, r.m_EvalInto, r.m_EvalCount, r.m_Data0, r.m_Stride0, r.m_Data1, r.m_Stride1); break;
			case MathOp::Row_Float1: MathOp::ExecOperatorFloat_Low<1>(op, r.m_EvalInto, r.m_EvalCount, r.m_Data0, r.m_Stride0, r.m_Data1, r.m_Stride1); break;
			case MathOp::Row_Float2: MathOp::ExecOperatorFloat_Low<2>(op, r.m_EvalInto, r.m_EvalCount, r.m_Data0, r.m_Stride0, r.m_Data1, r.m_Stride1); break;
			case MathOp::Row_Float3: MathOp::ExecOperatorFloat_Low<3>(op, r.m_EvalInto, r.m_EvalCount, r.m_Data0, r.m_Stride0, r.m_Data1, r.m_Stride1); break;
			case MathOp::Row_Float4: MathOp::ExecOperatorFloat_Low<4>(op, r.m_EvalInto, r.m_EvalCount, r.m_Data0, r.m_Stride0, r.m_Data1, r.m_Stride1); break;
			default:
				OX_ASSERT_NOT_REACHED();
				return;
			}
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

//------------------------------------------------------------------------------------
// Standard entry points

namespace Orvex
{
	namespace
	{
		using MathOp::SResolvedMathOp;

		// Runs the kernel of source 0's type: only that type selects it (through its kernel
		// row), and the switch compiles to one indexed jump.
		inline __attribute__((always_inline)) void _Dispatch(SOp_MathOp::EOp op, const SResolvedMathOp &r)
		{
			switch (MathOp::_KernelRowOfType(r.m_SrcType0))
			{
			case MathOp::Row_Float1: MathOp::ExecOperatorFloat<1>(op, r.m_EvalInto, r.m_Stride, r.m_EvalCount, r.m_Data0, r.m_Stride0, r.m_Data1, r.m_Stride1); break;
			case MathOp::Row_Float2: MathOp::ExecOperatorFloat<2>(op, r.m_EvalInto, r.m_Stride, r.m_EvalCount, r.m_Data0, r.m_Stride0, r.m_Data1, r.m_Stride1); break;
			case MathOp::Row_Float3: MathOp::ExecOperatorFloat<3>(op, r.m_EvalInto, r.m_Stride, r.m_EvalCount, r.m_Data0, r.m_Stride0, r.m_Data1, r.m_Stride1); break;
			case MathOp::Row_Float4: MathOp::ExecOperatorFloat<4>(op, r.m_EvalInto, r.m_Stride, r.m_EvalCount, r.m_Data0, r.m_Stride0, r.m_Data1, r.m_Stride1); break;
			case MathOp::Row_Int1: MathOp::ExecOperatorInt<1>(op, r.m_EvalInto, r.m_Stride, r.m_EvalCount, r.m_Data0, r.m_Stride0, r.m_Data1, r.m_Stride1); break;
			case MathOp::Row_Int2: MathOp::ExecOperatorInt<2>(op, r.m_EvalInto, r.m_Stride, r.m_EvalCount, r.m_Data0, r.m_Stride0, r.m_Data1, r.m_Stride1); break;
			case MathOp::Row_Int3: MathOp::ExecOperatorInt<3>(op, r.m_EvalInto, r.m_Stride, r.m_EvalCount, r.m_Data0, r.m_Stride0, r.m_Data1, r.m_Stride1); break;
			case MathOp::Row_Int4: MathOp::ExecOperatorInt<4>(op, r.m_EvalInto, r.m_Stride, r.m_EvalCount, r.m_Data0, r.m_Stride0, r.m_Data1, r.m_Stride1); break;
			default:
				OX_ASSERT_NOT_REACHED();
				return;
			}
		}

		// An instruction that the probe did not accept: resolved with every check reported,
		// then evaluated with the values at hand. Out of line: well-formed instructions never
		// come here.
		__attribute__((noinline, cold)) void _ExecChecked(const CCBCPUMetaRegisters &registers, const u8 *bytecode, u32 wb, SOp_MathOp::EOp op) noexcept
		{
			MathOp::TReportPolicy<MathOp::Path_Standard> report;
			SResolvedMathOp checked;
			MathOp::ResolveOperands<MathOp::Path_Standard>(report, registers, bytecode, wb, op, checked);
			_Dispatch(op, checked);
		}

		// A Constant or Normal destination evaluates one element. When no check of the
		// worker, the selector or the stream kernel could report for this instruction, this
		// runs the one-element kernel of its operator and row (the same result, without the
		// stream set-up) and returns true. Anything else returns false, and the instruction
		// goes the general way, which reports whatever is wrong.
		inline __attribute__((always_inline)) bool _TrySingle(const CCBCPUMetaRegisters &registers, const u8 *bytecode, u32 wb, SOp_MathOp::EOp op)
		{
			const MathOp::SSingleCall call = MathOp::SingleKernelFused(registers, bytecode, wb, op);
			if (call.m_Fn == nullptr)
				return false;
			call.m_Fn(call.m_Dst, call.m_Src0, call.m_Src1);
			return true;
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

		// Each entry point is a profiler scope named after itself.
		constexpr TVector<float, 4> kEntryColor = {{1.0f, 0.1f, 0.5f, 1.0f}};
	}

	u32 CMetaOp_MathOp::_ExecBytecode(const CBytecodeExecContext &execCtx, const u8 *bytecode)
	{
		static const Profiler::SNodeDescriptor s_Node("_ExecBytecode", __FILE__, kEntryColor, 0);
		const Profiler::CScopedNode scope(Profiler::MainEngineProfiler(), s_Node, true);
		OX_ASSERT(bytecode[0] == CBVM::Opcode_MathOp);
		_MetaOp_MathOp_ExecBytecode_Impl(execCtx, bytecode, kGenericRegistersOffset, SOp_MathOp::EOp(bytecode[kGenericOperatorOffset]));
		return kGenericSize;
	}

	u32 CMetaOp_MathOp::_ExecBytecode_Add(const CBytecodeExecContext &execCtx, const u8 *bytecode)
	{
		static const Profiler::SNodeDescriptor s_Node("_ExecBytecode_Add", __FILE__, kEntryColor, 0);
		const Profiler::CScopedNode scope(Profiler::MainEngineProfiler(), s_Node, true);
		OX_ASSERT(bytecode[0] == CBVM::Opcode_MathOpAdd);
		_MetaOp_MathOp_ExecBytecode_Impl<SOp_MathOp::Op_Add>(execCtx, bytecode, kSpecializedRegistersOffset, SOp_MathOp::Op_Add);
		return kSpecializedSize;
	}

	u32 CMetaOp_MathOp::_ExecBytecode_Sub(const CBytecodeExecContext &execCtx, const u8 *bytecode)
	{
		static const Profiler::SNodeDescriptor s_Node("_ExecBytecode_Sub", __FILE__, kEntryColor, 0);
		const Profiler::CScopedNode scope(Profiler::MainEngineProfiler(), s_Node, true);
		OX_ASSERT(bytecode[0] == CBVM::Opcode_MathOpSub);
		_MetaOp_MathOp_ExecBytecode_Impl<SOp_MathOp::Op_Sub>(execCtx, bytecode, kSpecializedRegistersOffset, SOp_MathOp::Op_Sub);
		return kSpecializedSize;
	}

	u32 CMetaOp_MathOp::_ExecBytecode_Mul(const CBytecodeExecContext &execCtx, const u8 *bytecode)
	{
		static const Profiler::SNodeDescriptor s_Node("_ExecBytecode_Mul", __FILE__, kEntryColor, 0);
		const Profiler::CScopedNode scope(Profiler::MainEngineProfiler(), s_Node, true);
		OX_ASSERT(bytecode[0] == CBVM::Opcode_MathOpMul);
		_MetaOp_MathOp_ExecBytecode_Impl<SOp_MathOp::Op_Mul>(execCtx, bytecode, kSpecializedRegistersOffset, SOp_MathOp::Op_Mul);
		return kSpecializedSize;
	}

	u32 CMetaOp_MathOp::_ExecBytecode_Div(const CBytecodeExecContext &execCtx, const u8 *bytecode)
	{
		static const Profiler::SNodeDescriptor s_Node("_ExecBytecode_Div", __FILE__, kEntryColor, 0);
		const Profiler::CScopedNode scope(Profiler::MainEngineProfiler(), s_Node, true);
		OX_ASSERT(bytecode[0] == CBVM::Opcode_MathOpDiv);
		_MetaOp_MathOp_ExecBytecode_Impl<SOp_MathOp::Op_Div>(execCtx, bytecode, kSpecializedRegistersOffset, SOp_MathOp::Op_Div);
		return kSpecializedSize;
	}
}
