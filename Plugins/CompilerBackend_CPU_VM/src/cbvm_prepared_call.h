#pragma once
// One math-op instruction decoded once into a direct kernel call (a prepared call), for
// programs that run many times (cbvm_batch_plan.h).
//
// The standard entry point, on every call, decodes the three register ids, resolves
// them in the register table, checks sizes, alignment, operand count and types, looks
// the kernel up in the active kernel set and, for integers, lays constant operands out
// as 12-integer blocks: 10 to 20 ns before the first element. For an instruction whose
// checks the verifier has already passed on this very register file, every one of
// those steps gives the same answer each time, so Prepare does them once and a call is
// then the kernel itself over [first, first + count) of the streams:
//   - floats: the active set's kernel for (operator, components), as the float
//     selector finds it, called with the resolved strides;
//   - integers and booleans: the active set's block kernel (SSE2's below the set's
//     block, as the integer selector chooses), constants as 12-integer blocks;
//   - one-element destinations: the entry point itself (they run once per run).
// What depends on register values is derived where the entry point derives it, so a
// prepared call gives the words, reports, hazard counts and once-only warnings of the
// entry point on the same operands, and records the entry point's profiler scope (one
// flag test when the profiler is off). In a batched run the constants cannot change
// while the batches run (every one-element instruction ran before them), so the run
// starts with Refresh, which does the value-dependent set-up once for all its batches:
// an integer call's constant operands as 12-integer blocks and, for a wide set, the
// route its block kernel would take on every call (the uniform-constant test, the
// division, modulo or shift path, the divisor's magic numbers: SIntRoute); a float
// modulo by a constant on a wide set, the divisor's reciprocal (FnFloatModByConstant). A
// whole-stream run calls each instruction once and keeps the per-call set-up (its
// one-element instructions may write a constant between two calls).
//
// A prepared call holds raw pointers into the register file it was prepared on: the
// plan that owns it checks, before each run, that the file is still that one.

#include "cbvm_interpreter.h"
#include "cbvm_math_op_kernel_sets.h"
#include "cbvm_meta_ops.h"
#include "cbvm_registers.h"
#include "kr_profiler.h"

#include <vector>

namespace Orvex
{
	namespace MathOp
	{
		// Where an operand of a call lies for elements [first, ...): a base moved by
		// first x m_Step bytes (m_Step 0: a one-value operand, or none; m_Base null: none).
		// A scratch register's is an offset in the running thread's scratch area until the
		// thread binds its copy of the calls to its area (the area holds one batch: a
		// bound scratch operand does not move).
		struct SPreparedOperand
		{
			static constexpr u32 kNotScratch = ~0u;

			u8 *m_Base = nullptr;
			u32 m_Step = 0;
			u32 m_Scratch = kNotScratch;

			// Once bound (CPreparedCalls::Bind): no test per call.
			OX_ALWAYS_INLINE u8 *At(u32 first) const { return m_Base + std::size_t(first) * m_Step; }
		};

		// The profiler node of the entry point of 'opcode' (113..117), which the entry
		// point records and a prepared call standing for it records too.
		const Profiler::SNodeDescriptor &EntryProfilerNode(u8 opcode);

		// A call's set-up for one batched run (CPreparedCalls::Refresh).
		struct SCallSetup
		{
			alignas(16) s32 m_Blocks[2][12];	// each constant source over 12 words (Broadcast12)
			SIntRoute m_Route;				// an integer call: the set's routed kernel, or none
			alignas(16) float m_Reciprocal[12];	// a float modulo by a constant: 1 / m_Blocks[1], per float
		};

		struct SPreparedCall;
		// An integer call (one per component count): constants as blocks, then the block kernel.
		using FnPreparedInt = void (*)(const SPreparedCall &call, void *dst, u32 count, const void *src0, const void *src1);

		struct SPreparedCall
		{
			FnOp2Stream m_Float = nullptr;		// a float kernel, or null
			FnPreparedInt m_Int = nullptr;		// an integer call, or null
			// A float modulo by a constant on a wide set: its kernel with the divisor's
			// reciprocal made once per run. A bound batched call runs it instead of m_Float.
			FnFloatModByConstant m_FloatMod = nullptr;
			const SKernelSet *m_Set = nullptr;	// an integer call's kernel set
			const SCallSetup *m_Setup = nullptr;	// its set-up for the run (bound batched calls)
			u8 m_Components = 0;				// an integer call's N, and a float modulo's
			u8 m_Shape = 0;						// an integer call's EIntShape bits
			CBVM::FnExecBytecode m_Entry = nullptr;	// a one-element instruction: its entry point
			const u8 *m_Bytecode = nullptr;		// ... and its bytes (in the plan's copy)
			const Profiler::SNodeDescriptor *m_Node = nullptr;	// its entry point's profiler node
			u32 m_Offset = 0;					// the instruction's offset in the program
			Compiler::IR::SOp_MathOp::EOp m_Op = Compiler::IR::SOp_MathOp::Op_Add;
			u32 m_Stride = 0, m_Stride0 = 0, m_Stride1 = 0;	// as the entry point resolves them
			SPreparedOperand m_Dst, m_Src0, m_Src1;
		};

		class CPreparedCalls
		{
		public:
			// Prepares the instruction at 'bytecode' (its offset 'offset' in the program)
			// on 'registers' for the kernel set 'set'. The caller guarantees that the
			// verifier found no problem with it on this file: nothing is checked here.
			// One-element destinations get their entry point (standard path).
			static SPreparedCall Prepare(const u8 *bytecode, u32 offset, const CCBCPUMetaRegisters &registers, const SKernelSet &set);

			// The set-up of a batched run of 'count' calls, into 'setups' (one per call): an
			// integer call's constant blocks as the registers hold them now and its route, a
			// float modulo's divisor and reciprocal.
			static void Refresh(const SPreparedCall *calls, u32 count, SCallSetup *setups);

			// A thread's copy of 'count' calls for its scratch area 'scratch', and, with
			// 'setups' (Refresh's), each call on its set-up.
			static void Bind(const SPreparedCall *calls, u32 count, u8 *scratch, const SCallSetup *setups, SPreparedCall *bound);

			// Runs 'call' (bound, or without scratch operands) over elements [first, first +
			// count); 'context' is the file for an entry point (one-element instructions
			// ignore first and count). _Profiled: record the entry point's profiler node (the
			// caller looks at the profiler once per batch, not once per call).
			template <bool _Profiled>
			static OX_ALWAYS_INLINE void Run(const SPreparedCall &call, u32 first, u32 count, const CBytecodeExecContext &context)
			{
				if (call.m_Float != nullptr)
				{
					const TScope<_Profiled> scope(*call.m_Node);
					call.m_Float(call.m_Dst.At(first), call.m_Stride, count, call.m_Src0.At(first), call.m_Stride0, call.m_Src1.At(first), call.m_Stride1);
				}
				else if (call.m_FloatMod != nullptr && call.m_Setup != nullptr)
				{
					const TScope<_Profiled> scope(*call.m_Node);
					call.m_FloatMod(reinterpret_cast<const float *>(call.m_Setup->m_Blocks[1]), call.m_Setup->m_Reciprocal, call.m_Dst.At(first), count, call.m_Src0.At(first), call.m_Src1.m_Base);
				}
				else if (call.m_Int != nullptr)
				{
					const TScope<_Profiled> scope(*call.m_Node);
					call.m_Int(call, call.m_Dst.At(first), count, call.m_Src0.At(first), call.m_Src1.At(first));
				}
				else
					call.m_Entry(context, call.m_Bytecode);	// records its own scope
			}

		private:
			template <bool _Profiled>
			struct TScope
			{
				explicit TScope(const Profiler::SNodeDescriptor &) {}
			};
		};

		template <>
		struct CPreparedCalls::TScope<true> : Profiler::CScopedNode
		{
			explicit TScope(const Profiler::SNodeDescriptor &node) : Profiler::CScopedNode(Profiler::MainEngineProfiler(), node, true) {}
		};
	}
}

namespace Orvex
{
	namespace CBVM
	{
		// A plan's prepared calls (cbvm_batch_plan.h): the whole program in order, for a
		// whole-stream run, and the per-element instructions with their scratch operands,
		// for the batches; both for the kernel set m_Set.
		struct SPreparedProgram
		{
			const MathOp::SKernelSet *m_Set = nullptr;
			std::vector<MathOp::SPreparedCall> m_Whole;
			std::vector<MathOp::SPreparedCall> m_Batch;
			// The per-element storage a batch reads or writes outside the scratch area,
			// each once: what the next batch needs from memory (see CBatchPrefetch).
			std::vector<MathOp::SPreparedOperand> m_Streams;
			// Whether batches prefetch the next one (CBatchPlan::SetPrefetch).
			bool m_Prefetch = false;
		};

		// Software prefetch of the next batch's streams, spread over the calls of the
		// current one: a batch computes in the first-level cache while the lines of the
		// next arrive, instead of waiting for them at its first instruction (the hardware
		// prefetchers follow a stream only within a batch, and stop at its end).
		class CBatchPrefetch
		{
		public:
			static constexpr u32 kLine = 64;

			// Elements [first, first + count) of every stream, 'calls' slices.
			CBatchPrefetch(const SPreparedProgram &program, u32 first, u32 count, u32 calls)
			: m_Streams(program.m_Streams.data()), m_StreamCount(u32(program.m_Streams.size())), m_First(first), m_Count(count)
			{
				u64 lines = 0;
				for (u32 s = 0; s < m_StreamCount; ++s)
					lines += (u64(count) * m_Streams[s].m_Step + kLine - 1) / kLine;
				m_PerCall = u32((lines + calls - 1) / (calls != 0 ? calls : 1));
			}

			// The next slice of lines.
			OX_ALWAYS_INLINE void Next()
			{
				for (u32 n = m_PerCall; n != 0 && m_Stream < m_StreamCount; --n)
				{
					const MathOp::SPreparedOperand &stream = m_Streams[m_Stream];
					__builtin_prefetch(stream.m_Base + (u64(m_First) * stream.m_Step) + m_Offset, 1, 3);
					m_Offset += kLine;
					if (m_Offset >= u64(m_Count) * stream.m_Step)
					{
						m_Offset = 0;
						++m_Stream;
					}
				}
			}

		private:
			const MathOp::SPreparedOperand *m_Streams;
			u32 m_StreamCount;
			u32 m_First, m_Count;
			u32 m_PerCall = 0;
			u32 m_Stream = 0;
			u64 m_Offset = 0;
		};
	}
}
