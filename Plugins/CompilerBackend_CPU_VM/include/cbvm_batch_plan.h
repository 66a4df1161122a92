#pragma once
// How a math-op program runs in batches of elements: the plan, built once per program
// and register file (CBatchRunner runs it).
//
// The interpreter runs each instruction over the whole stream before the next: every
// instruction streams its registers through memory again. A batched run takes
// elements [begin, end) of every Instance and Stream register through the whole
// program, then the next batch, so that a batch's operands stay in the first-level
// cache from one instruction to the next; batches are independent, so they may run on
// several threads. The results are the whole-stream run's, bit for bit, for every
// program the plan accepts:
//   - per-element instructions (an Instance or Stream destination) run in program
//     order in every batch: as prepared calls (below) over the batch's elements, or
//     through the unchanged entry points on a register table whose Instance and Stream
//     entries point at the batch's elements;
//   - one-element instructions (a Constant or Normal destination) whose sources are
//     all one-element run once, before the batches, in program order ("hoisted").
// A program is refused (it then runs whole-stream) when batching could change a word:
//   - a one-element instruction reads an Instance or Stream source (it reads element
//     0 of the whole stream, which a batch would move);
//   - a one-element instruction writes a register that an earlier per-element
//     instruction reads (hoisted, it would run before that read);
//   - storage of the program's per-element registers overlaps other than exactly (the
//     same address and element size), or a one-element destination overlaps one
//     (judged by storage bytes, not by slot and bank);
//   - a per-element register holds fewer elements than the stream;
//   - the bytecode does not decode, or names a register outside the table (verify it
//     first: the plan is no verifier).
// Reason() says which, in a sentence a host can log.
//
// Scratch registers. A host may name per-element registers whose values it does not
// read after the run: the program's temporaries. In a batched run each of them lives
// in a buffer of one batch per thread, which stays in the cache, instead of its
// storage: the temporaries cost no memory traffic, and the storage is not written at
// all (it keeps what it held). Every other register ends bit for bit as after the
// whole-stream run. A scratch register must be written by the program before it reads
// it (the first per-element instruction that names its storage writes it and does not
// read it), and every register of the program on the same storage must be named too;
// otherwise the plan refuses (a one-element register cannot be scratch either). Names
// of registers the program does not use are ignored. A program that runs whole-stream
// (refused, or one batch) writes its scratch registers as usual.
//
// Prepared programs. When the verifier (cbvm_verifier.h) reports no problem at all for
// the program on the file, Build also decodes every instruction once into a direct
// kernel call of the active kernel set (cbvm_prepared_call.h): operands resolved, kernel
// chosen, nothing checked again. A standard-path run of a prepared plan, batched or
// whole-stream, is then a walk of those calls, with the words, assertion reports, hazard
// counts and once-only warnings of the entry points (the checks it skips are the ones the
// verifier found to hold; everything that depends on register values stays in the
// kernels), and the entry points' profiler nodes. A program with a problem, a Low
// path run, or a plan whose kernel set is no longer the active one runs through the
// entry points as before. Prepared() and PreparedReason() say which.
//
// The register file. A plan holds pointers into the file it was built on. Before every
// run the runner compares the table, the stream size and the pointer and size of every
// register the program names with what Build saw (a walk over those registers): a file
// changed since (rebuild the plan) runs whole-stream through the entry points, and one
// whose registers no longer hold the stream (a register reallocated smaller, a stream
// size grown past the registers) runs nothing at all: see CBatchRunner.
//
// Batches are multiples of kBatchGranule elements: a batch boundary never splits a
// vector or an integer block of any kernel, so only the last batch has a tail, and
// every batch of 32-byte aligned storage starts 32-byte aligned. The last batch takes
// the elements left, at least two (a single one joins the batch before it: evaluating
// one element, an instruction reads its one-value sources as streams, which can pick
// another kernel). The default size keeps a batch's per-element registers within
// kCacheBudgetBytes (about the first-level cache: see there).
//
// Build allocates (the plan owns a rewritten copy of the bytecode and the prepared
// calls). Running it allocates nothing, but for each thread's first run of a plan that
// needs a larger scratch area than the thread had (see CBatchRunner).

#include "cbvm_meta_ops.h"
#include "cbvm_registers.h"

#include <memory>
#include <vector>

namespace Orvex
{
	class CRegisterStorage;

	namespace CBVM
	{
		enum EBatchRefusal : u8
		{
			BatchRefusal_None = 0,
			BatchRefusal_Undecodable,			// an opcode, operator or register id the plan cannot follow
			BatchRefusal_OneElementReadsStream,	// a one-element instruction reads an Instance or Stream source
			BatchRefusal_WrittenAfterRead,		// a one-element instruction writes what an earlier per-element one reads
			BatchRefusal_OverlappingStorage,	// storage overlaps other than exactly
			BatchRefusal_ShortRegister,			// a per-element register holds fewer elements than the stream
			BatchRefusal_Scratch,				// a scratch register read before it is written, shared with a kept one, or one-element
			__MaxBatchRefusals
		};

		// "one-element instruction reads a per-element source", ...; "?" outside the enumeration.
		const char *BatchRefusalName(EBatchRefusal refusal);

		struct CBatchRunnerAccess;
		struct SPreparedProgram;

		class CBatchPlan
		{
		public:
			// Elements a batch boundary is a multiple of: 4 floats and the 12-integer
			// blocks divide 48 x every component count, and 48 elements of 4 to 16 bytes
			// are a multiple of 32 bytes.
			static constexpr u32 kBatchGranule = 48;
			// Per-element bytes of a default batch (scratch registers included): about the
			// first-level data cache. Prepared calls cost a few nanoseconds each, so batches
			// this small pay little for their number; smaller ones pay more calls than they
			// save misses, larger ones spill to the second level. Measured on the particle
			// programs (docs/BENCHMARKS.md): 384 to 432 elements at 104 to 124 bytes each
			// are within a few percent of the best size in the cache and at a million
			// elements, where 192 (half of it) lose up to 20% in the cache.
			static constexpr u32 kCacheBudgetBytes = 48 * 1024;
			static constexpr u32 kDefaultBatch = ~0u;	// Build's batchElements: the size chosen from the program
			// A prepared batched run prefetches each next batch's streams while the current
			// one computes when the program's streams (outside the scratch registers) exceed
			// this many bytes: past the last-level cache the next batch's lines come from
			// memory, and the hardware prefetchers stop at a batch's end (a million particles
			// of W12, 84 MB: 1.3x with prefetching). Below, the lines are close already and
			// prefetching them only takes load slots (65,536 particles, 5 MB: 0.75x with it).
			static constexpr u64 kPrefetchFromBytes = 16 * 1024 * 1024;

			CBatchPlan();
			~CBatchPlan();
			CBatchPlan(const CBatchPlan &) = delete;
			CBatchPlan &operator=(const CBatchPlan &) = delete;

			// Plans 'bytecode' (verified) over the register file as it is now (its table,
			// storage and m_StreamDimensions; slotCount entries of 4 banks). batchElements:
			// kDefaultBatch, 0 (whole stream), or a size (rounded up to kBatchGranule).
			// scratch: scratchCount registers whose values the host does not need after the
			// run (see above; by slot and bank: the type is not looked at).
			// Returns Batched(). Rebuild after the host changes the table or the stream size.
			bool Build(const u8 *bytecode, u32 size, const CCBCPUMetaRegisters &registers, u32 slotCount, u32 batchElements = kDefaultBatch, const CVMRegID *scratch = nullptr,
					   u32 scratchCount = 0);
			bool Build(const u8 *bytecode, u32 size, const CRegisterStorage &storage, u32 batchElements = kDefaultBatch, const CVMRegID *scratch = nullptr, u32 scratchCount = 0);

			// Overrides the automatic choice of prefetching (kPrefetchFromBytes) until the
			// next Build; for measurements. No effect on a plan that is not prepared.
			void SetPrefetch(bool prefetch);
			bool Prefetches() const;
			// Drops the prepared calls: runs go through the entry points until the next
			// Build (to compare the two, or to profile the entry points themselves).
			void ForgetPrepared();

			// Build was called (a plan never built runs nothing: CBatchRunner says so).
			bool Built() const { return m_Built; }
			// The standard path runs the prepared calls (see above).
			bool Prepared() const { return m_Prepared != nullptr; }
			// "prepared: 28 direct calls a batch, avx512 kernels" (whole-stream: "prepared: 28 direct
			// calls, ...") or why not, in one sentence.
			const char *PreparedReason() const { return m_PreparedReason; }

			// True when the run goes in batches; false when it runs whole-stream: refused
			// (Refusal() != None), batch size 0, or a stream that fits one batch.
			bool Batched() const { return m_Batched; }
			EBatchRefusal Refusal() const { return m_Refusal; }
			// Why the run is whole-stream, or how it is batched: one sentence.
			const char *Reason() const { return m_Reason; }
			u32 BatchElements() const { return m_BatchElements; }
			u32 BatchCount() const { return m_BatchCount; }
			u32 StreamElements() const { return m_Stream; }
			u32 HoistedInstructions() const { return m_HoistedCount; }
			// Bytes of per-element registers per element (what the default batch divides).
			u32 BytesPerElement() const { return m_BytesPerElement; }
			// Scratch registers (distinct storage) that a batched run keeps in per-thread buffers.
			u32 ScratchRegisters() const { return m_ScratchCount; }
		private:
			friend class CBatchRunner;
			friend struct CBatchRunnerAccess;

			// One entry of a batch's register table: the planned file's entry, moved by
			// begin x m_ElementSize bytes for a per-element one (m_ElementSize 0: as is), or
			// for a scratch one the thread's buffer at m_Scratch.
			static constexpr u32 kNotScratch = ~0u;
			struct SEntryPlan
			{
				u32 m_Source;		// index in the planned file's table
				u32 m_ElementSize;
				u32 m_Scratch = kNotScratch;	// offset in a thread's scratch area
			};

			struct SInstruction;
			struct SRange;
			struct SScratchOf;
			using Program = std::vector<SInstruction>;

			// Build's steps, in order; each returns false after _Refuse when it refuses.
			void _Reset(const u8 *bytecode, u32 size, const CCBCPUMetaRegisters &registers);
			bool _Decode(const u8 *bytecode, u32 size, const CCBCPUMetaRegisters &registers, u32 slotCount, Program &program);
			bool _OrderRules(const Program &program, const CCBCPUMetaRegisters &registers, std::vector<SRange> &perElement, std::vector<SRange> &oneElement);
			bool _Storage(const Program &program, const CCBCPUMetaRegisters &registers, std::vector<SRange> &perElement, const std::vector<SRange> &oneElement);
			bool _Scratch(const Program &program, const CCBCPUMetaRegisters &registers, u32 slotCount, const CVMRegID *scratch, u32 scratchCount, SScratchOf &scratchOf);
			void _Renumber(const u8 *bytecode, const Program &program, const CCBCPUMetaRegisters &registers);
			bool _BatchSize(u32 batchElements);
			bool _Areas(const CCBCPUMetaRegisters &registers, SScratchOf &scratchOf);
			void _Snapshot(const Program &program, const CCBCPUMetaRegisters &registers);
			void _Prepare(const Program &program, const CCBCPUMetaRegisters &registers, u32 slotCount, const SScratchOf &scratchOf);
			void _Refuse(EBatchRefusal refusal, const char *format, ...);

			bool m_Built = false;
			bool m_Batched = false;
			EBatchRefusal m_Refusal = BatchRefusal_None;
			const CCBCPUMetaRegisters::SRegister *m_Table = nullptr;	// the planned file's table
			char m_Reason[256] = "not planned";
			char m_PreparedReason[256] = "not planned";
			u32 m_Stream = 0;
			u32 m_BatchElements = 0;
			u32 m_BatchCount = 0;
			u32 m_HoistedCount = 0;
			u32 m_BytesPerElement = 0;
			u32 m_ScratchCount = 0;
			std::vector<u8> m_Whole;		// the planned bytecode, as given (a whole-stream run)
			std::vector<u8> m_Hoisted;		// one-element instructions, as given
			std::vector<u8> m_Batch;		// per-element instructions, registers renumbered into m_Entries
			std::vector<u32> m_HoistedOffsets, m_BatchOffsets;	// each instruction's offset in m_Whole
			std::vector<SEntryPlan> m_Entries;	// 4 per renumbered slot
			// Every register the program names, as Build saw it, and what it must hold: the
			// runner's check of the file.
			struct SRegisterUse
			{
				u32 m_Entry;		// index in the table
				CCBCPUMetaRegisters::SRegister m_Seen;
				u32 m_ElementSize;
				bool m_PerElement;	// holds the stream (else one element)
			};
			std::vector<SRegisterUse> m_Uses;
			// A running body's scratch area: the scratch buffers (a multiple of kScratchAlign),
			// and a batch's register table for a run through the entry points.
			static constexpr u32 kScratchAlign = 64;
			u32 m_ScratchBytes = 0;
			std::unique_ptr<SPreparedProgram> m_Prepared;	// null: not prepared
		};
	}
}
