#include "cbvm_prepared_call.h"

#include "cbvm_math_op_checks.h"
#include "cbvm_math_op_decoder.h"
#include "cbvm_math_op_float_kernels.h"
#include "cbvm_math_op_int_selector.h"
#include "cbvm_stream_copier.h"

#include <algorithm>

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
				_ExecIntBlocks<_Dimension>(call.Op(), dst, count, src0, call.m_Stride[1], src1, call.m_Stride[2], *call.m_Aux.m_Set);
			}

			// A batched call whose constants are blocks already (Refresh), without a route.
			template <int _Dimension>
			void _RunBlocks(const SPreparedCall &call, void *dst, u32 count, const void *src0, const void *src1)
			{
				s32 *d = static_cast<s32 *>(dst);
				const std::size_t ints = std::size_t(count) * _Dimension;
				IntKernelFor(*call.m_Aux.m_Setup->m_Set, ints)(call.Op(), d, d + ints, static_cast<const s32 *>(src0), call.m_Stride[1] != 0 ? 48u : 0u, static_cast<const s32 *>(src1),
															   call.m_Stride[2] != 0 ? 48u : 0u);
			}

			// A batched call on its route.
			template <int _Dimension>
			void _RunRouted(const SPreparedCall &call, void *dst, u32 count, const void *src0, const void *src1)
			{
				s32 *d = static_cast<s32 *>(dst);
				call.m_Aux.m_Setup->m_Route.m_Run(call.m_Aux.m_Setup->m_Route, d, d + std::size_t(count) * _Dimension, static_cast<const s32 *>(src0), static_cast<const s32 *>(src1));
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
		}

		SPreparedCall CPreparedCalls::Prepare(const u8 *bytecode, u32 offset, const CCBCPUMetaRegisters &registers, const SKernelSet &set)
		{
			SPreparedCall call;
			call.m_Offset = offset;
			call.m_Opcode = bytecode[0];
			// One-element instructions, and (defensively: the caller verified) any that does
			// not pass the entry point's checks, call the entry point.
			call.m_Kernel.m_Entry = CBVM::CInterpreter::Entry(CBVM::ExecPath_Standard, bytecode[0]).m_Exec;
			call.m_Aux.m_Bytecode = bytecode;
			const CBVM::SMathOpInstruction ins = CBVM::ReadMathOp(bytecode, offset);
			const Compiler::IR::SOp_MathOp::EOp op = ins.m_Op;
			SProbePolicy probe;
			SResolvedMathOp r = {};
			// Strides are element sizes (at most 16 bytes) or 0; the bound keeps a byte each honest.
			if (!CVMRegID::PerElementOf(ins.Dst()) || !ResolveOperands<Path_Standard>(probe, registers, bytecode, RegisterBlockOffset(bytecode[0]), op, r) ||
				std::max({r.m_Stride, r.m_Stride0, r.m_Stride1}) > 0xFFu)
				return call;
			call.m_Op = u8(op);
			// A batch moves a stream operand by whole elements; a one-value one stays.
			const u32 strides[3] = {r.m_Stride, r.m_Stride0, r.m_Stride1};
			const void *bases[3] = {r.m_EvalInto, r.m_Data0, r.m_Data1};
			for (u32 i = 0; i < 3; ++i)
			{
				call.m_Base[i] = static_cast<u8 *>(const_cast<void *>(bases[i]));
				call.m_Stride[i] = call.m_Step[i] = u8(strides[i]);
			}
			const SBaseTypeInfo &type = BaseTypeInfo(r.m_SrcType0);
			call.m_Components = u8(type.m_Components);
			call.m_Aux.m_Set = &set;
			if (type.m_Kind == ElementKind_Float)
			{
				call.m_Kind = PreparedKind_Float;
				call.m_Kernel.m_Float = set.m_Float[u32(op) * 4 + (type.m_Components - 1)];
				if (op == Compiler::IR::SOp_MathOp::Op_Mod && r.m_Stride0 != 0 && r.m_Stride1 == 0 && set.m_FloatModByConstant[type.m_Components - 1] != nullptr)
					call.m_Flags |= SPreparedCall::Flag_ModByConstant;
			}
			else
			{
				call.m_Kind = PreparedKind_Int;
				call.m_Kernel.m_Int = kIntCalls[type.m_Components - 1];
				call.m_Shape = u8((r.m_Stride0 != 0 ? IntShape_Stream0 : 0u) | (r.m_Data1 != nullptr ? IntShape_Source1 : 0u) | (r.m_Stride1 != 0 ? IntShape_Stream1 : 0u));
			}
			return call;
		}

		CPreparedCalls::SSetupKey CPreparedCalls::SetupKey(const SPreparedCall &call)
		{
			const bool integer = call.m_Kind == PreparedKind_Int;
			return {integer && _Constant0(call) ? call.m_Base[1] : nullptr, !integer || _Constant1(call) ? call.m_Base[2] : nullptr, call.m_Aux.m_Set,
					u32(call.m_Kind) | u32(call.m_Op) << 8 | u32(call.m_Shape) << 16 | u32(call.m_Components) << 24};
		}

		void CPreparedCalls::Refresh(const SPreparedCall *calls, const u32 *owners, u32 count, SCallSetup *setups)
		{
			for (u32 s = 0; s < count; ++s)
			{
				const SPreparedCall &call = calls[owners[s]];
				SCallSetup &setup = setups[s];
				setup.m_Set = call.m_Aux.m_Set;
				if (call.m_Kind == PreparedKind_Float)
				{
					// The reciprocal as Mod divides it, float by float (IEEE division: the same
					// bits at any width).
					kBroadcasts[call.m_Components - 1](call.m_Base[2], setup.m_Blocks[1]);
					float *reciprocal = reinterpret_cast<float *>(setup.m_Blocks[0]);
					for (u32 f = 0; f < 12; ++f)
						reciprocal[f] = 1.0f / setup.Divisor()[f];
					continue;
				}
				const bool constant0 = _Constant0(call);
				const bool constant1 = _Constant1(call);
				if (constant0)
					kBroadcasts[call.m_Components - 1](call.m_Base[1], setup.m_Blocks[0]);
				if (constant1)
					kBroadcasts[call.m_Components - 1](call.m_Base[2], setup.m_Blocks[1]);
				const SKernelSet &set = *call.m_Aux.m_Set;
				setup.m_Route = set.m_IntRoute != nullptr ? set.m_IntRoute(call.Op(), call.m_Shape, constant1 ? setup.m_Blocks[1] : nullptr) : SIntRoute();
			}
		}

		void CPreparedCalls::Bind(const SPreparedCall *calls, u32 count, u8 *scratch, const SCallSetup *setups, SPreparedCall *bound)
		{
			for (u32 c = 0; c < count; ++c)
			{
				SPreparedCall &call = bound[c];
				call = calls[c];
				for (u32 i = 0; i < 3; ++i)
					if ((call.m_Flags & (SPreparedCall::Flag_ScratchDst << i)) != 0)
					{
						// Until now m_Base held the offset in the area (CBatchPlan::_Prepare).
						call.m_Base[i] = scratch + reinterpret_cast<std::uintptr_t>(call.m_Base[i]);
						call.m_Step[i] = 0;
					}
				if (setups == nullptr || !HasSetup(call))
					continue;
				const SCallSetup &setup = setups[call.m_SetupIndex];
				if (call.m_Kind == PreparedKind_Float)
				{
					call.m_Kind = PreparedKind_FloatMod;
					call.m_Kernel.m_FloatMod = call.m_Aux.m_Set->m_FloatModByConstant[call.m_Components - 1];
					call.m_Aux.m_Setup = &setup;
					continue;
				}
				call.m_Aux.m_Setup = &setup;
				if (_Constant0(call))
					call.m_Base[1] = const_cast<u8 *>(reinterpret_cast<const u8 *>(setup.m_Blocks[0]));
				if (_Constant1(call))
					call.m_Base[2] = const_cast<u8 *>(reinterpret_cast<const u8 *>(setup.m_Blocks[1]));
				call.m_Kernel.m_Int = (setup.m_Route.m_Run != nullptr ? kRoutedCalls : kBlockCalls)[call.m_Components - 1];
			}
		}
	}
}
