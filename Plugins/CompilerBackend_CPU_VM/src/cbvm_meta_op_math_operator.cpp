// The math-operator meta-op: entry points (operand resolution and dispatch) and the
// bytecode encoder and decoder. The kernels live in the .impl headers.

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
		CRegID _ReadRegister(const u8 *src)
		{
			const u32 bits = OXLoadAndSwapLittleEndian<u32>(src);
			return bits == TGuid<u32>::INVALID ? CRegID() : CRegID(u64(bits));
		}

		SDecodedMathOp _Decode(const u8 *bytecode)
		{
			SDecodedMathOp decoded;
			decoded.m_Opcode = bytecode[0];
			// Any byte other than 113..116 decodes as a division; Check() reports unexpected ones.
			switch (decoded.m_Opcode)
			{
			case CBVM::Opcode_MathOp: decoded.m_Op = SOp_MathOp::EOp(bytecode[CMetaOp_MathOp::kGenericOperatorOffset]); break;
			case CBVM::Opcode_MathOpAdd: decoded.m_Op = SOp_MathOp::Op_Add; break;
			case CBVM::Opcode_MathOpSub: decoded.m_Op = SOp_MathOp::Op_Sub; break;
			case CBVM::Opcode_MathOpMul: decoded.m_Op = SOp_MathOp::Op_Mul; break;
			default: decoded.m_Op = SOp_MathOp::Op_Div; break;
			}
			const bool generic = decoded.m_Opcode == CBVM::Opcode_MathOp;
			const u8 *block = bytecode + (generic ? CMetaOp_MathOp::kGenericRegistersOffset : CMetaOp_MathOp::kSpecializedRegistersOffset);
			decoded.m_Size = generic ? CMetaOp_MathOp::kGenericSize : CMetaOp_MathOp::kSpecializedSize;
			decoded.m_DstReg = _ReadRegister(block + CMetaOp_MathOp::kDstRegOffset);
			decoded.m_SrcReg0 = _ReadRegister(block + CMetaOp_MathOp::kSrcReg0Offset);
			decoded.m_SrcReg1 = _ReadRegister(block + CMetaOp_MathOp::kSrcReg1Offset);
			return decoded;
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
		using RegisterEntry = CCBCPUMetaRegisters::SRegister;

		// Reads the three operands at bytecode + wb, resolves them in the register file and
		// runs the selector of source 0's type. The Low path has no destination stride (the
		// kernels write densely) and gives a source a stride by its bank alone: a Constant or
		// Normal source is re-read (stride 0) even when only one element is evaluated.
		void _MetaOp_MathOp_ExecBytecode_Low_Impl(const CBytecodeExecContext &context, const u8 *bytecode, u32 wb, SOp_MathOp::EOp op)
		{
			OX_ASSERT(bytecode[0] == CBVM::Opcode_MathOp || bytecode[0] == CBVM::Opcode_MathOpAdd || bytecode[0] == CBVM::Opcode_MathOpSub || bytecode[0] == CBVM::Opcode_MathOpMul || bytecode[0] == CBVM::Opcode_MathOpDiv);
			const CCBCPUMetaRegisters &registers = context.m_Registers;

			const CVMRegID m_DstReg = {s32(OXLoadAndSwapLittleEndian<u32>(bytecode + wb + CMetaOp_MathOp::kDstRegOffset))};
			const CVMRegID m_SrcReg0 = {s32(OXLoadAndSwapLittleEndian<u32>(bytecode + wb + CMetaOp_MathOp::kSrcReg0Offset))};
			const CVMRegID m_SrcReg1 = {s32(OXLoadAndSwapLittleEndian<u32>(bytecode + wb + CMetaOp_MathOp::kSrcReg1Offset))};

			const EBaseTypeID m_SrcType = m_SrcReg0.ToType();
			const RegisterEntry &reg = registers.SelectRegister(m_DstReg);
			const RegisterEntry &reg0 = registers.SelectRegister(m_SrcReg0);
			const Compiler::EMetaType mt = m_DstReg.ToBank();

			const u32 evalCount = mt < Compiler::MetaType_Instance ? 1 : registers.m_StreamDimensions;
			// Strides are at most 16; they are 64-bit so that the size checks below cannot
			// wrap for a huge m_StreamDimensions (the kernels take them as u32).
			const u64 elementSize = CCBCPUMetaRegisters::DataSizeInBytes(m_SrcType);
			const u64 stride0 = m_SrcReg0.ToBank() >= Compiler::MetaType_Instance ? elementSize : 0;
			const u64 dstStride = CCBCPUMetaRegisters::DataSizeInBytes(m_DstReg.ToType());

			OX_ASSERT(reg.m_Size >= registers.m_StreamDimensions * dstStride || (reg.m_Size >= dstStride && mt < Compiler::MetaType_Instance));
			OX_ASSERT(reg0.m_Size >= evalCount * stride0);
			OX_ASSERT(m_SrcReg1.Valid() == (Compiler::IR::SOp_MathOp::OperatorTraits(op).m_ParameterCount > 1));

			const void *datasrc1 = nullptr;
			u64 stride1 = 0;
			if (m_SrcReg1.Valid())
			{
				OX_ASSERT(m_SrcReg1.ToType() == m_SrcType);
				const RegisterEntry &reg1 = registers.SelectRegister(m_SrcReg1);
				// Source 0's element size, deliberately: the sources are meant to share a type.
				stride1 = m_SrcReg1.ToBank() >= Compiler::MetaType_Instance ? elementSize : 0;
				OX_ASSERT(reg1.m_Size >= evalCount * stride1);
				datasrc1 = reg1.m_RawData;
			}

			void *evalInto = reg.m_RawData;
			const void *datasrc0 = reg0.m_RawData;
			switch (m_SrcType)
			{
			case BaseType_Bool:
			case BaseType_I32: MathOp::ExecOperatorInt_Low<1>(op, evalInto, evalCount, datasrc0, u32(stride0), datasrc1, u32(stride1)); break;
			case BaseType_Bool2:
			case BaseType_Int2: MathOp::ExecOperatorInt_Low<2>(op, evalInto, evalCount, datasrc0, u32(stride0), datasrc1, u32(stride1)); break;
			case BaseType_Bool3:
			case BaseType_Int3: MathOp::ExecOperatorInt_Low<3>(op, evalInto, evalCount, datasrc0, u32(stride0), datasrc1, u32(stride1)); break;
			case BaseType_Bool4:
			case BaseType_Int4: MathOp::ExecOperatorInt_Low<4>(op, evalInto, evalCount, datasrc0, u32(stride0), datasrc1, u32(stride1)); break;
			case BaseType_Float: MathOp::ExecOperatorFloat_Low<1>(op, evalInto, evalCount, datasrc0, u32(stride0), datasrc1, u32(stride1)); break;
			case BaseType_Float2: MathOp::ExecOperatorFloat_Low<2>(op, evalInto, evalCount, datasrc0, u32(stride0), datasrc1, u32(stride1)); break;
			case BaseType_Float3: MathOp::ExecOperatorFloat_Low<3>(op, evalInto, evalCount, datasrc0, u32(stride0), datasrc1, u32(stride1)); break;
			case BaseType_Float4:
			case BaseType_Quaternion: MathOp::ExecOperatorFloat_Low<4>(op, evalInto, evalCount, datasrc0, u32(stride0), datasrc1, u32(stride1)); break;
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
		// What the kernels need of one instruction: its operands resolved in the register
		// file, the element count and the source strides (0: one value broadcast to every
		// element).
		struct SResolvedMathOp
		{
			void *m_EvalInto;
			u32 m_Stride;
			u32 m_EvalCount;
			const void *m_Data0;
			u32 m_Stride0;
			const void *m_Data1;
			u32 m_Stride1;
			EBaseTypeID m_SrcType0;
		};

		// Reads the three operands at bytecode + wb and resolves them, every check of the
		// instruction an assertion (each reports, and execution goes on with the values at
		// hand). Out of line: well-formed instructions never come here.
		__attribute__((noinline, cold)) void _ResolveChecked(const CCBCPUMetaRegisters &registers, const u8 *bytecode, u32 wb, SOp_MathOp::EOp op, SResolvedMathOp &out)
		{
			OX_ASSERT(bytecode[0] == CBVM::Opcode_MathOp || bytecode[0] == CBVM::Opcode_MathOpAdd || bytecode[0] == CBVM::Opcode_MathOpSub || bytecode[0] == CBVM::Opcode_MathOpMul || bytecode[0] == CBVM::Opcode_MathOpDiv);

			const CVMRegID m_DstReg = {s32(OXLoadAndSwapLittleEndian<u32>(bytecode + wb + CMetaOp_MathOp::kDstRegOffset))};
			const CVMRegID m_SrcReg0 = {s32(OXLoadAndSwapLittleEndian<u32>(bytecode + wb + CMetaOp_MathOp::kSrcReg0Offset))};
			const CVMRegID m_SrcReg1 = {s32(OXLoadAndSwapLittleEndian<u32>(bytecode + wb + CMetaOp_MathOp::kSrcReg1Offset))};

			const EBaseTypeID m_DstType = m_DstReg.ToType();
			const EBaseTypeID m_SrcType0 = m_SrcReg0.ToType();
			const RegisterEntry &reg = registers.SelectRegister(m_DstReg);
			const RegisterEntry &reg0 = registers.SelectRegister(m_SrcReg0);
			const Compiler::EMetaType mt = m_DstReg.ToBank();
			const Compiler::EMetaType mt0 = m_SrcReg0.ToBank();

			// Strides are at most 16; they are 64-bit so that the size checks below cannot
			// wrap for a huge m_StreamDimensions (the kernels take them as u32).
			const u64 stride = CCBCPUMetaRegisters::DataSizeInBytes(m_DstType);
			void *evalInto = reg.m_RawData;
			const u32 evalCount = mt >= Compiler::MetaType_Instance ? registers.m_StreamDimensions : 1;
			const u32 typeSize = CCBCPUMetaRegisters::DataSizeInBytes(m_SrcType0);
			// A single evaluation reads every source as a (one-element) stream; otherwise
			// Constant and Normal sources are broadcast.
			const u64 stride0 = (evalCount == 1 || mt0 >= Compiler::MetaType_Instance) ? typeSize : 0;
			u64 stride1 = 0;
			const void *data0 = reg0.m_RawData;
			const void *data1 = nullptr;

			OX_ASSERT(reg.m_Size >= registers.m_StreamDimensions * stride || (reg.m_Size >= stride && mt < Compiler::MetaType_Instance));
			OX_ASSERT(reg0.m_Size >= evalCount * stride0);
			OX_ASSERT(m_SrcReg1.Valid() == (Compiler::IR::SOp_MathOp::OperatorTraits(op).m_ParameterCount > 1));
			if (m_SrcReg1.Valid())
			{
				OX_ASSERT(m_SrcReg1.ToType() == m_SrcType0);
				const RegisterEntry &reg1 = registers.SelectRegister(m_SrcReg1);
				// Source 0's type size, deliberately: the sources are meant to share a type.
				stride1 = (evalCount == 1 || m_SrcReg1.ToBank() >= Compiler::MetaType_Instance) ? typeSize : 0;
				OX_ASSERT(reg1.m_Size >= evalCount * stride1);
				data1 = reg1.m_RawData;
			}
			out = {evalInto, u32(stride), evalCount, data0, u32(stride0), data1, u32(stride1), m_SrcType0};
		}

		// SelectRegister without its assertions, for ids already known to be well-formed
		// (the fast paths test the bits themselves).
		inline const RegisterEntry &_SelectWellFormed(const CCBCPUMetaRegisters &registers, u32 bits)
		{
			return registers.m_Registers[std::size_t(bits & 0x1FFFFFu) * CCBCPUMetaRegisters::kBanksPerSlot + ((bits >> 21) & 3u)];
		}

		// The resolution of an instruction that nothing is wrong with: it tests, in one go
		// and without the per-site flags, exactly the conditions that _ResolveChecked
		// asserts, and returns false as soon as one fails, leaving the instruction to
		// _ResolveChecked (which then reports it). When it returns true none of those
		// assertions could have reported, and 'out' holds the values _ResolveChecked
		// computes.
		inline __attribute__((always_inline)) bool _ResolveWellFormed(const CCBCPUMetaRegisters &registers, const u8 *bytecode, u32 wb, SOp_MathOp::EOp op, SResolvedMathOp &out)
		{
			if (u32(bytecode[0]) - CBVM::Opcode_MathOp > u32(CBVM::Opcode_MathOpDiv - CBVM::Opcode_MathOp))
				return false;
			const u32 dstBits = OXLoadAndSwapLittleEndian<u32>(bytecode + wb + CMetaOp_MathOp::kDstRegOffset);
			const u32 src0Bits = OXLoadAndSwapLittleEndian<u32>(bytecode + wb + CMetaOp_MathOp::kSrcReg0Offset);
			const u32 src1Bits = OXLoadAndSwapLittleEndian<u32>(bytecode + wb + CMetaOp_MathOp::kSrcReg1Offset);
			// Well-formed (valid, top bits clear): what ToType, ToSlot and ToBank assert.
			if ((dstBits | src0Bits) >= 0x40000000u)
				return false;
			const bool hasSrc1 = CVMRegID{s32(src1Bits)}.Valid();
			if (hasSrc1 && src1Bits >= 0x40000000u)
				return false;
			if (hasSrc1 != (Compiler::IR::SOp_MathOp::OperatorTraits(op).m_ParameterCount > 1))
				return false;

			// Element sizes: a zero size is reported by DataSizeInBytes (but for BaseType_Evolved,
			// which is left to the checked path altogether).
			const u32 dstTypeIndex = (dstBits >> 24) & 63u;	// type + 1
			const u32 src0TypeIndex = (src0Bits >> 24) & 63u;
			// (Sizes by type field: 0 past the type table, which fails here too.)
			const u32 stride = MathOp::_TypeFieldSizes[dstTypeIndex];
			const u32 typeSize = MathOp::_TypeFieldSizes[src0TypeIndex];
			if (stride == 0 || typeSize == 0)
				return false;

			const RegisterEntry &reg = _SelectWellFormed(registers, dstBits);
			const RegisterEntry &reg0 = _SelectWellFormed(registers, src0Bits);
			// Bank field: bank - 1, so Instance and Stream are 2 and 3.
			const auto isInstanceOrStream = [](u32 bits) { return ((bits >> 21) & 3u) + 1 >= Compiler::MetaType_Instance; };
			const bool dstIsStream = isInstanceOrStream(dstBits);
			const u32 evalCount = dstIsStream ? registers.m_StreamDimensions : 1;
			const u32 stride0 = (evalCount == 1 || isInstanceOrStream(src0Bits)) ? typeSize : 0;
			// 64-bit products, as in _ResolveChecked: no wrap for a huge m_StreamDimensions.
			if (!(reg.m_Size >= u64(registers.m_StreamDimensions) * stride || (reg.m_Size >= stride && !dstIsStream)))
				return false;
			if (!(reg0.m_Size >= u64(evalCount) * stride0))
				return false;

			u32 stride1 = 0;
			const void *data1 = nullptr;
			if (hasSrc1)
			{
				if (((src1Bits >> 24) & 63u) != src0TypeIndex)
					return false;
				const RegisterEntry &reg1 = _SelectWellFormed(registers, src1Bits);
				stride1 = (evalCount == 1 || isInstanceOrStream(src1Bits)) ? typeSize : 0;
				if (!(reg1.m_Size >= u64(evalCount) * stride1))
					return false;
				data1 = reg1.m_RawData;
			}
			out = {reg.m_RawData, stride, evalCount, reg0.m_RawData, stride0, data1, stride1, EBaseTypeID(s32(src0TypeIndex) - 1)};
			return true;
		}

		// Runs the kernel of source 0's type: only that type selects it (through its kernel
		// row), and the switch compiles to one indexed jump.
		inline __attribute__((always_inline)) void _Dispatch(SOp_MathOp::EOp op, const SResolvedMathOp &r)
		{
			switch (MathOp::_KernelRowOfTypeField[u32(s32(r.m_SrcType0) + 1) & 63u])
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

		// _ResolveChecked, then the kernel: an instruction that _ResolveWellFormed did not
		// accept, which reports what is wrong and is evaluated with the values at hand.
		__attribute__((noinline, cold)) void _ExecChecked(const CCBCPUMetaRegisters &registers, const u8 *bytecode, u32 wb, SOp_MathOp::EOp op) noexcept
		{
			SResolvedMathOp checked;
			_ResolveChecked(registers, bytecode, wb, op, checked);
			_Dispatch(op, checked);
		}

		// A Constant or Normal destination evaluates one element. When every check of the
		// worker, the selector and the stream kernel would pass for this instruction, this
		// runs the one-element kernel of its operator and row (the same result, without
		// the stream set-up) and returns true. It tests what _ResolveWellFormed tests,
		// narrowed to one element (every stride is then the source type's size), plus what
		// the selectors and kernels test: destination of the source's element size,
		// pointers present and 32-byte aligned. Anything else returns false, and the
		// instruction goes the general way, which reports whatever is wrong.
		inline __attribute__((always_inline)) bool _TrySingle(const CCBCPUMetaRegisters &registers, const u8 *bytecode, u32 wb, SOp_MathOp::EOp op)
		{
			const u32 dstBits = OXLoadAndSwapLittleEndian<u32>(bytecode + wb + CMetaOp_MathOp::kDstRegOffset);
			// Valid and well-formed (bits 31, 30 clear), Constant or Normal bank (bank field
			// 0 or 1: bit 22 clear).
			if ((dstBits & 0xC0400000u) != 0 || u32(op) >= u32(SOp_MathOp::__MaxOps))
				return false;
			if (u32(bytecode[0]) - CBVM::Opcode_MathOp > u32(CBVM::Opcode_MathOpDiv - CBVM::Opcode_MathOp))
				return false;
			const u32 src0Bits = OXLoadAndSwapLittleEndian<u32>(bytecode + wb + CMetaOp_MathOp::kSrcReg0Offset);
			const u32 src1Bits = OXLoadAndSwapLittleEndian<u32>(bytecode + wb + CMetaOp_MathOp::kSrcReg1Offset);
			if (src0Bits >= 0x40000000u)
				return false;
			// Source 1: absent for a unary operator; for a binary one, present with source 0's
			// type field, which also makes it valid and well-formed (the top bits are equal).
			const bool binary = Compiler::IR::SOp_MathOp::OperatorTraits(op).m_ParameterCount > 1;
			if (binary ? (src1Bits >> 24) != (src0Bits >> 24) : src1Bits != TGuid<u32>::INVALID)
				return false;

			// A kernel for (operator, row) exists only for a type with a row, whose size is
			// then 4 x N bytes, never 0; the destination must have that size too.
			const u32 src0Field = src0Bits >> 24;
			const MathOp::FnOp2Single fn = MathOp::_FnSingleLookup[u32(op) * MathOp::__MaxKernelRows + MathOp::_KernelRowOfTypeField[src0Field]];
			if (fn == nullptr)
				return false;
			const u32 size = MathOp::_TypeFieldSizes[src0Field];
			if (MathOp::_TypeFieldSizes[dstBits >> 24] != size)
				return false;

			const RegisterEntry &reg = _SelectWellFormed(registers, dstBits);
			const RegisterEntry &reg0 = _SelectWellFormed(registers, src0Bits);
			if (!(reg.m_Size >= u64(registers.m_StreamDimensions) * size || reg.m_Size >= size) || reg0.m_Size < size)
				return false;
			const void *data1 = nullptr;
			if (binary)
			{
				const RegisterEntry &reg1 = _SelectWellFormed(registers, src1Bits);
				if (reg1.m_Size < size || reg1.m_RawData == nullptr)
					return false;
				data1 = reg1.m_RawData;
			}
			if (reg.m_RawData == nullptr || reg0.m_RawData == nullptr || !SIMD_SSE::_AreAligned<32>(reg.m_RawData, reg0.m_RawData, data1))
				return false;
			fn(reg.m_RawData, reg0.m_RawData, data1);
			return true;
		}

		// Resolves the three operands at bytecode + wb in the register file
		// (_ResolveWellFormed, or _ResolveChecked for anything it does not accept) and runs
		// the kernel of source 0's type. Out of line, so that a one-element instruction that
		// _TrySingle takes pays for none of its frame.
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
			SResolvedMathOp r;
			if (_ResolveWellFormed(registers, bytecode, wb, op, r))
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
