#include "cbvm_prepared_call.h"

#include "cbvm_math_op_checks.h"
#include "cbvm_math_op_decoder.h"
#include "cbvm_math_op_float_kernels.h"
#include "cbvm_math_op_int_selector.h"
#include "cbvm_stream_copier.h"

namespace Orvex
{
	namespace MathOp
	{
		namespace
		{
			// ExecOperatorInt past its checks (the verifier made them), for the call's set: a
			// whole-stream call, constants broadcast on every call.
			template <int _Dimension>
			void _RunInt(const SPreparedCall &call, void *dst, u32 count, const void *src0, const void *src1)
			{
				_ExecIntBlocks<_Dimension>(call.m_Op, dst, count, src0, call.m_Stride0, src1, call.m_Stride1, *call.m_Set);
			}

			// A batched call whose constants are blocks already (Refresh), without a route.
			template <int _Dimension>
			void _RunBlocks(const SPreparedCall &call, void *dst, u32 count, const void *src0, const void *src1)
			{
				s32 *d = static_cast<s32 *>(dst);
				const std::size_t ints = std::size_t(count) * _Dimension;
				IntKernelFor(*call.m_Set, ints)(call.m_Op, d, d + ints, static_cast<const s32 *>(src0), call.m_Stride0 != 0 ? 48u : 0u, static_cast<const s32 *>(src1),
												call.m_Stride1 != 0 ? 48u : 0u);
			}

			// A batched call on its route.
			template <int _Dimension>
			void _RunRouted(const SPreparedCall &call, void *dst, u32 count, const void *src0, const void *src1)
			{
				s32 *d = static_cast<s32 *>(dst);
				call.m_Setup->m_Route.m_Run(call.m_Setup->m_Route, d, d + std::size_t(count) * _Dimension, static_cast<const s32 *>(src0), static_cast<const s32 *>(src1));
			}

			constexpr FnPreparedInt kIntCalls[] = {&_RunInt<1>, &_RunInt<2>, &_RunInt<3>, &_RunInt<4>};
			constexpr FnPreparedInt kBlockCalls[] = {&_RunBlocks<1>, &_RunBlocks<2>, &_RunBlocks<3>, &_RunBlocks<4>};
			constexpr FnPreparedInt kRoutedCalls[] = {&_RunRouted<1>, &_RunRouted<2>, &_RunRouted<3>, &_RunRouted<4>};
			static_assert(sizeof(kIntCalls) == sizeof(kBlockCalls) && sizeof(kIntCalls) == sizeof(kRoutedCalls) && sizeof(kIntCalls) / sizeof(kIntCalls[0]) == 4,
						  "one integer call of each kind per component count");

			constexpr const void *(*kBroadcasts[])(const void *, void *) = {&TBroadcaster<1>::Broadcast12, &TBroadcaster<2>::Broadcast12, &TBroadcaster<3>::Broadcast12,
																			 &TBroadcaster<4>::Broadcast12};

			// An integer call's constant sources (EIntShape bits), which a run lays out as blocks.
			bool _Constant0(const SPreparedCall &call) { return (call.m_Shape & IntShape_Stream0) == 0; }
			bool _Constant1(const SPreparedCall &call) { return (call.m_Shape & (IntShape_Source1 | IntShape_Stream1)) == IntShape_Source1; }

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
			call.m_Components = u8(type.m_Components);
			if (type.m_Kind == ElementKind_Float)
			{
				call.m_Float = set.m_Float[u32(call.m_Op) * 4 + (type.m_Components - 1)];
				if (call.m_Op == Compiler::IR::SOp_MathOp::Op_Mod && r.m_Stride0 != 0 && r.m_Stride1 == 0)
					call.m_FloatMod = set.m_FloatModByConstant[type.m_Components - 1];
			}
			else
			{
				call.m_Int = kIntCalls[type.m_Components - 1];
				call.m_Set = &set;
				call.m_Shape = u8((r.m_Stride0 != 0 ? IntShape_Stream0 : 0u) | (r.m_Data1 != nullptr ? IntShape_Source1 : 0u) | (r.m_Stride1 != 0 ? IntShape_Stream1 : 0u));
			}
			return call;
		}

		void CPreparedCalls::Refresh(const SPreparedCall *calls, u32 count, SCallSetup *setups)
		{
			for (u32 c = 0; c < count; ++c)
			{
				const SPreparedCall &call = calls[c];
				SCallSetup &setup = setups[c];
				if (call.m_FloatMod != nullptr)
				{
					// The reciprocal as Mod divides it, float by float (IEEE division: the same
					// bits at any width).
					kBroadcasts[call.m_Components - 1](call.m_Src1.m_Base, setup.m_Blocks[1]);
					const float *divisor = reinterpret_cast<const float *>(setup.m_Blocks[1]);
					for (u32 f = 0; f < 12; ++f)
						setup.m_Reciprocal[f] = 1.0f / divisor[f];
					continue;
				}
				if (call.m_Int == nullptr)
					continue;
				const bool constant0 = _Constant0(call);
				const bool constant1 = _Constant1(call);
				if (constant0)
					kBroadcasts[call.m_Components - 1](call.m_Src0.m_Base, setup.m_Blocks[0]);
				if (constant1)
					kBroadcasts[call.m_Components - 1](call.m_Src1.m_Base, setup.m_Blocks[1]);
				setup.m_Route = call.m_Set->m_IntRoute != nullptr ? call.m_Set->m_IntRoute(call.m_Op, call.m_Shape, constant1 ? setup.m_Blocks[1] : nullptr) : SIntRoute();
			}
		}

		void CPreparedCalls::Bind(const SPreparedCall *calls, u32 count, u8 *scratch, const SCallSetup *setups, SPreparedCall *bound)
		{
			for (u32 c = 0; c < count; ++c)
			{
				SPreparedCall &call = bound[c];
				call = calls[c];
				for (SPreparedOperand *operand : {&call.m_Dst, &call.m_Src0, &call.m_Src1})
					if (operand->m_Scratch != SPreparedOperand::kNotScratch)
					{
						operand->m_Base = scratch + operand->m_Scratch;
						operand->m_Step = 0;
					}
				if (setups == nullptr || (call.m_Int == nullptr && call.m_FloatMod == nullptr))
					continue;
				const SCallSetup &setup = setups[c];
				call.m_Setup = &setup;
				if (call.m_FloatMod != nullptr)
				{
					call.m_Float = nullptr;	// Run takes m_FloatMod
					continue;
				}
				if (_Constant0(call))
					call.m_Src0.m_Base = const_cast<u8 *>(reinterpret_cast<const u8 *>(setup.m_Blocks[0]));
				if (_Constant1(call))
					call.m_Src1.m_Base = const_cast<u8 *>(reinterpret_cast<const u8 *>(setup.m_Blocks[1]));
				call.m_Int = (setup.m_Route.m_Run != nullptr ? kRoutedCalls : kBlockCalls)[call.m_Components - 1];
			}
		}
	}
}
