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
		// The profiler node of the entry point of 'opcode' (113..117), which the entry
		// point records and a prepared call standing for it records too.
		const Profiler::SNodeDescriptor &EntryProfilerNode(u8 opcode);

		// A call's set-up for one batched run (CPreparedCalls::Refresh). Only the calls that
		// have one (integer calls, float modulos by a constant on a wide set) get one, and
		// calls of one operator on the same constants share it: a long program repeats a
		// few constants many times.
		struct SCallSetup
		{
			// Each constant source over 12 words (Broadcast12). A float modulo by a constant
			// keeps the divisor in block 1 and its reciprocal, float by float, in block 0 (its
			// dividend is a stream).
			alignas(16) s32 m_Blocks[2][12];
			SIntRoute m_Route;				// an integer call: the set's routed kernel, or none
			const SKernelSet *m_Set = nullptr;	// an integer call's set (its block kernel)

			const float *Divisor() const { return reinterpret_cast<const float *>(m_Blocks[1]); }
			const float *Reciprocal() const { return reinterpret_cast<const float *>(m_Blocks[0]); }
		};

		struct SPreparedCall;
		// An integer call (one per component count): constants as blocks, then the block kernel.
		using FnPreparedInt = void (*)(const SPreparedCall &call, void *dst, u32 count, const void *src0, const void *src1);

		// What a call runs, which says which member of SPreparedCall::m_Kernel and m_Aux it uses.
		enum EPreparedKind : u8
		{
			PreparedKind_Entry,		// m_Entry on m_Bytecode: a one-element instruction
			PreparedKind_Float,		// m_Float
			PreparedKind_FloatMod,	// m_FloatMod on m_Setup: a bound batched float modulo by a constant
			PreparedKind_Int,		// m_Int, on m_Set (whole stream) or m_Setup (bound batched)
		};

		// One call in one cache line: a million-instruction program is 64 MB of calls, and
		// a thread's bound copy as much again. Operands are indexed 0 destination, 1 and 2
		// sources.
		struct alignas(64) SPreparedCall
		{
			enum EFlag : u8
			{
				Flag_ScratchDst = 1 << 0,	// (and << 1, << 2 for the sources): m_Base holds the
											// operand's offset in a thread's scratch area until Bind
				Flag_ModByConstant = 1 << 3,	// a float modulo by a constant on a wide set
			};

			union
			{
				CBVM::FnExecBytecode m_Entry;
				FnOp2Stream m_Float;
				FnFloatModByConstant m_FloatMod;
				FnPreparedInt m_Int;
			} m_Kernel = {nullptr};
			union
			{
				const u8 *m_Bytecode;		// an entry point's bytes (in the plan's copy)
				const SKernelSet *m_Set;		// the set of an integer or float call
				const SCallSetup *m_Setup;	// a bound batched call's set-up for the run
			} m_Aux = {nullptr};
			// Operand i over elements [first, ...) is m_Base[i] + first x m_Step[i] (m_Step 0:
			// a one-value operand, a bound scratch operand, or none; m_Base null: none).
			u8 *m_Base[3] = {nullptr, nullptr, nullptr};
			u32 m_Offset = 0;				// the instruction's offset in the program
			u8 m_Stride[3] = {0, 0, 0};		// the kernel's strides, as the entry point resolves them
			u8 m_Step[3] = {0, 0, 0};
			EPreparedKind m_Kind = PreparedKind_Entry;
			u8 m_Op = 0;					// Compiler::IR::SOp_MathOp::EOp
			u8 m_Opcode = 0;				// its entry point's (the profiler node)
			u8 m_Components = 0;			// an integer call's N, and a float modulo's
			u8 m_Shape = 0;					// an integer call's EIntShape bits
			u8 m_Flags = 0;					// EFlag
			u32 m_SetupIndex = 0;			// its set-up among a batched run's (CPreparedCalls::HasSetup)

			OX_ALWAYS_INLINE u8 *At(u32 operand, u32 first) const { return m_Base[operand] + std::size_t(first) * m_Step[operand]; }
			Compiler::IR::SOp_MathOp::EOp Op() const { return Compiler::IR::SOp_MathOp::EOp(m_Op); }
		};
		static_assert(sizeof(SPreparedCall) == 64, "a call is one cache line");

		class CPreparedCalls
		{
		public:
			// Prepares the instruction at 'bytecode' (its offset 'offset' in the program)
			// on 'registers' for the kernel set 'set'. The caller guarantees that the
			// verifier found no problem with it on this file: nothing is checked here.
			// One-element destinations get their entry point (standard path).
			static SPreparedCall Prepare(const u8 *bytecode, u32 offset, const CCBCPUMetaRegisters &registers, const SKernelSet &set);

			// Whether 'call' gets a set-up in a batched run (an integer call, a float modulo
			// by a constant on a wide set).
			static bool HasSetup(const SPreparedCall &call) { return call.m_Kind == PreparedKind_Int || (call.m_Flags & SPreparedCall::Flag_ModByConstant) != 0; }

			// What makes a call's set-up (it HasSetup): calls with equal keys share one. The
			// constants by address: a set-up lays out what the register holds at each run.
			struct SSetupKey
			{
				const void *m_Constant0, *m_Constant1;
				const SKernelSet *m_Set;
				u32 m_Call;		// kind, operator, shape and components

				bool operator==(const SSetupKey &other) const
				{
					return m_Constant0 == other.m_Constant0 && m_Constant1 == other.m_Constant1 && m_Set == other.m_Set && m_Call == other.m_Call;
				}
				std::size_t Hash() const
				{
					return std::hash<const void *>()(m_Constant0) * 31 ^ std::hash<const void *>()(m_Constant1) * 17 ^ std::hash<u32>()(m_Call);
				}
			};
			static SSetupKey SetupKey(const SPreparedCall &call);

			// The set-ups of a batched run, into 'setups': setups[s] for the call
			// 'calls[owners[s]]' and every call with m_SetupIndex s. An integer call's constant
			// blocks as the registers hold them now and its route; a float modulo's divisor
			// and reciprocal.
			static void Refresh(const SPreparedCall *calls, const u32 *owners, u32 count, SCallSetup *setups);

			// A copy of 'count' batched calls for the scratch area 'scratch' (null when no call
			// has a scratch operand) and, with 'setups' (Refresh's), each call on its set-up
			// setups[m_SetupIndex].
			static void Bind(const SPreparedCall *calls, u32 count, u8 *scratch, const SCallSetup *setups, SPreparedCall *bound);

			// Runs 'call' (bound, or without scratch operands) over elements [first, first +
			// count); 'context' is the file for an entry point (one-element instructions
			// ignore first and count). _Profiled: record the entry point's profiler node (the
			// caller looks at the profiler once per batch, not once per call).
			template <bool _Profiled>
			static OX_ALWAYS_INLINE void Run(const SPreparedCall &call, u32 first, u32 count, const CBytecodeExecContext &context)
			{
				if (call.m_Kind == PreparedKind_Float)
				{
					const TScope<_Profiled> scope(call.m_Opcode);
					call.m_Kernel.m_Float(call.At(0, first), call.m_Stride[0], count, call.At(1, first), call.m_Stride[1], call.At(2, first), call.m_Stride[2]);
				}
				else if (call.m_Kind == PreparedKind_Int)
				{
					const TScope<_Profiled> scope(call.m_Opcode);
					call.m_Kernel.m_Int(call, call.At(0, first), count, call.At(1, first), call.At(2, first));
				}
				else if (call.m_Kind == PreparedKind_FloatMod)
				{
					const TScope<_Profiled> scope(call.m_Opcode);
					const SCallSetup &setup = *call.m_Aux.m_Setup;
					call.m_Kernel.m_FloatMod(setup.Divisor(), setup.Reciprocal(), call.At(0, first), count, call.At(1, first), call.m_Base[2]);
				}
				else
					call.m_Kernel.m_Entry(context, call.m_Aux.m_Bytecode);	// records its own scope
			}

		private:
			template <bool _Profiled>
			struct TScope
			{
				explicit TScope(u8) {}
			};
		};

		template <>
		struct CPreparedCalls::TScope<true> : Profiler::CScopedNode
		{
			explicit TScope(u8 opcode) : Profiler::CScopedNode(Profiler::MainEngineProfiler(), EntryProfilerNode(opcode), true) {}
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
			// For each set-up of a batched run, the first of m_Batch that has it (each set-up
			// is made once a run, CPreparedCalls::Refresh).
			std::vector<u32> m_SetupOwners;
			bool m_Scratch = false;	// whether one of m_Batch has a scratch operand
			// The per-element storage a batch reads or writes outside the scratch area,
			// each once: what the next batch needs from memory (see CBatchPrefetch).
			struct SStream
			{
				const u8 *m_Base;
				u32 m_Step;
			};
			std::vector<SStream> m_Streams;
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
					const SPreparedProgram::SStream &stream = m_Streams[m_Stream];
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
			const SPreparedProgram::SStream *m_Streams;
			u32 m_StreamCount;
			u32 m_First, m_Count;
			u32 m_PerCall = 0;
			u32 m_Stream = 0;
			u64 m_Offset = 0;
		};
	}
}
