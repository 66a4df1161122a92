#include "cbvm_batch_plan.h"

#include "cbvm_math_op_checks.h"
#include "cbvm_math_op_decoder.h"
#include "cbvm_prepared_call.h"
#include "cbvm_verifier.h"
#include "cbvm_register_storage.h"

#include <algorithm>
#include <cstdarg>
#include <cstdint>
#include <cstdio>
#include <map>
#include <unordered_map>
#include <unordered_set>

namespace Orvex
{
	namespace CBVM
	{
		using Compiler::IR::SOp_MathOp;

		namespace
		{
			constexpr const char *kRefusalNames[] = {
				"none",
				"the bytecode does not decode",
				"one-element instruction reads a per-element source",
				"one-element instruction writes what an earlier per-element instruction reads",
				"storage overlaps other than exactly",
				"per-element register shorter than the stream",
				"scratch register read before written, shared with a kept register, or one-element",
			};
			static_assert(sizeof(kRefusalNames) / sizeof(kRefusalNames[0]) == __MaxBatchRefusals, "a name for every refusal");

			template <typename _Range>
			bool Overlap(const _Range &a, const _Range &b) { return a.m_Begin < b.m_End && b.m_Begin < a.m_End; }
			template <typename _Range>
			bool Exact(const _Range &a, const _Range &b) { return a.m_Begin == b.m_Begin && a.m_End == b.m_End && a.m_ElementSize == b.m_ElementSize; }

			void StoreLittleEndian(u8 *at, u32 value)
			{
				for (u32 i = 0; i < 4; ++i)
					at[i] = u8(value >> (8 * i));
			}

			// Merged byte intervals, for "does a range overlap anything added so far".
			class CIntervals
			{
			public:
				void Add(std::uintptr_t begin, std::uintptr_t end)
				{
					auto next = m_Ranges.upper_bound(begin);
					if (next != m_Ranges.begin() && std::prev(next)->second >= begin)
					{
						--next;
						begin = next->first;
						end = std::max(end, next->second);
						next = m_Ranges.erase(next);
					}
					while (next != m_Ranges.end() && next->first <= end)
					{
						end = std::max(end, next->second);
						next = m_Ranges.erase(next);
					}
					m_Ranges.emplace(begin, end);
				}
				bool Overlaps(std::uintptr_t begin, std::uintptr_t end) const
				{
					auto next = m_Ranges.lower_bound(end);
					return next != m_Ranges.begin() && std::prev(next)->second > begin;
				}

			private:
				std::map<std::uintptr_t, std::uintptr_t> m_Ranges;	// begin -> end, disjoint
			};
		}

		const char *BatchRefusalName(EBatchRefusal refusal)
		{
			return u32(refusal) < __MaxBatchRefusals ? kRefusalNames[refusal] : "?";
		}

		void CBatchPlan::_Refuse(EBatchRefusal refusal, const char *format, ...)
		{
			m_Batched = false;
			m_Refusal = refusal;
			int length = std::snprintf(m_Reason, sizeof(m_Reason), "whole stream: ");
			va_list args;
			va_start(args, format);
			std::vsnprintf(m_Reason + length, sizeof(m_Reason) - u32(length), format, args);
			va_end(args);
		}

		// One instruction as the plan sees it.
		// 24 bytes: Build holds one per instruction of the program while it plans.
		struct CBatchPlan::SInstruction
		{
			u32 m_Offset;
			u32 m_Ids[3];		// destination, source 0, source 1 (kInvalidBits: none)
			u8 m_Size;			// 13 or 14
			u8 m_Op;			// SOp_MathOp::EOp
			u8 m_Operands;		// 2 or 3
			u8 m_ElementSize;	// of every operand: the paths size all three by source 0's type
			bool m_PerElement;	// an Instance or Stream destination
			const char *Name() const { return SOp_MathOp::OperatorTraits(SOp_MathOp::EOp(m_Op)).m_Name; }
		};

		// Bytes [m_Begin, m_End) of one register's storage as the program uses it.
		struct CBatchPlan::SRange
		{
			std::uintptr_t m_Begin, m_End;
			u32 m_ElementSize;
			u32 m_Entry;		// its index in the table
			u32 m_Bits;			// the id that named it (for the reason)
			u32 m_Instruction;	// the instruction (for the reason)
		};

		// Scratch storage, by its first byte (per-element storage overlaps only exactly, so
		// aliases share it), and the table entries the host named.
		struct CBatchPlan::SScratchOf
		{
			struct SScratch
			{
				bool m_Written = false;
				u32 m_Offset = kNotScratch;	// in a body's scratch area, once placed
			};
			std::unordered_map<std::uintptr_t, SScratch> m_Of;
			std::unordered_set<u32> m_Entries;

			// The scratch storage at 'data', placed in the area, or null.
			const SScratch *Placed(const void *data) const
			{
				const auto found = m_Of.find(reinterpret_cast<std::uintptr_t>(data));
				return found != m_Of.end() && found->second.m_Offset != kNotScratch ? &found->second : nullptr;
			}
		};

		namespace
		{
			u32 EntryOf(u32 bits) { return CVMRegID::SlotOf(bits) * CCBCPUMetaRegisters::kBanksPerSlot + CVMRegID::BankIndexOf(bits); }
		}

		CBatchPlan::CBatchPlan() = default;
		CBatchPlan::~CBatchPlan() = default;

		bool CBatchPlan::Build(const u8 *bytecode, u32 size, const CRegisterStorage &storage, u32 batchElements, const CVMRegID *scratch, u32 scratchCount)
		{
			return Build(bytecode, size, storage.Registers(), storage.SlotCount(), batchElements, scratch, scratchCount);
		}

		bool CBatchPlan::Build(const u8 *bytecode, u32 size, const CCBCPUMetaRegisters &registers, u32 slotCount, u32 batchElements, const CVMRegID *scratch, u32 scratchCount)
		{
			_Reset(bytecode, size, registers);
			m_Built = true;
			Program program;
			if (!_Decode(bytecode, size, registers, slotCount, program))
				return false;
			std::vector<SRange> perElement, oneElement;
			SScratchOf scratchOf;
			if (batchElements == 0)
				std::snprintf(m_Reason, sizeof(m_Reason), "whole stream: a batch size of 0 was asked");
			else if (_OrderRules(program, registers, perElement, oneElement) && _Storage(program, registers, perElement, oneElement) &&
					 _Scratch(program, registers, slotCount, scratch, scratchCount, scratchOf))
			{
				_Renumber(bytecode, program, registers);
				m_Batched = _BatchSize(batchElements) && _Areas(registers, scratchOf);
				if (!m_Batched)
				{
					// A whole-stream plan runs m_Whole only: the batches' code and tables go
					// (a long program's would stay as large as the program).
					std::vector<u8>().swap(m_Hoisted);
					std::vector<u8>().swap(m_Batch);
					std::vector<u32>().swap(m_HoistedOffsets);
					std::vector<u32>().swap(m_BatchOffsets);
					std::vector<SEntryPlan>().swap(m_Entries);
				}
			}
			_Snapshot(program, registers);
			_Prepare(program, registers, slotCount, scratchOf);
			return m_Batched;
		}

		void CBatchPlan::SetPrefetch(bool prefetch)
		{
			if (m_Prepared != nullptr)
				m_Prepared->m_Prefetch = prefetch;
		}

		void CBatchPlan::ForgetPrepared()
		{
			m_Prepared.reset();
			std::snprintf(m_PreparedReason, sizeof(m_PreparedReason), "not prepared: the host dropped the prepared calls");
		}

		bool CBatchPlan::Prefetches() const
		{
			return m_Prepared != nullptr && m_Prepared->m_Prefetch && m_Batched;
		}

		void CBatchPlan::_Reset(const u8 *bytecode, u32 size, const CCBCPUMetaRegisters &registers)
		{
			m_Built = false;
			m_Batched = false;
			m_Refusal = BatchRefusal_None;
			m_Stream = registers.m_StreamDimensions;
			m_Table = registers.m_Registers;
			m_BatchElements = m_BatchCount = m_HoistedCount = m_BytesPerElement = m_ScratchCount = m_ScratchBytes = 0;
			m_Whole.assign(bytecode, bytecode + size);
			m_Hoisted.clear();
			m_Batch.clear();
			m_HoistedOffsets.clear();
			m_BatchOffsets.clear();
			m_Entries.clear();
			m_Uses.clear();
			m_Prepared.reset();
			std::snprintf(m_PreparedReason, sizeof(m_PreparedReason), "not prepared: the bytecode does not decode");
		}

		// The ids, sizes and kinds of every instruction.
		bool CBatchPlan::_Decode(const u8 *bytecode, u32 size, const CCBCPUMetaRegisters &registers, u32 slotCount, Program &program)
		{
			static_assert(sizeof(SInstruction) == 24, "a program's decoded instructions stay small");
			CMathOpWalker walk(bytecode, size);
			SMathOpInstruction decoded;
			// At most one instruction per 13 bytes: reserved once, a program of a million
			// instructions is not copied as it grows (nor held at twice its size).
			program.reserve(size / 13);
			while (walk.Next(decoded))
			{
				const u32 offset = decoded.m_Offset;
				if (!decoded.KnownOperator())
				{
					_Refuse(BatchRefusal_Undecodable, "unknown operator at offset %u (verify the bytecode first)", offset);
					return false;
				}
				SInstruction ins;
				ins.m_Offset = offset;
				ins.m_Size = u8(decoded.m_Size);
				ins.m_Op = u8(decoded.m_Op);
				ins.m_Ids[0] = decoded.Dst();
				ins.m_Ids[1] = decoded.Src0();
				ins.m_Ids[2] = decoded.Src1();
				ins.m_Operands = u8(SOp_MathOp::OperatorTraits(decoded.m_Op).m_ParameterCount + 1u);
				for (u32 i = 0; i < ins.m_Operands; ++i)
					if (!CVMRegID::WellFormedBits(ins.m_Ids[i]) || CVMRegID::SlotOf(ins.m_Ids[i]) >= slotCount || registers.m_Registers == nullptr)
					{
						_Refuse(BatchRefusal_Undecodable, "a register of the instruction at offset %u is ill-formed or outside the table (verify the bytecode first)", offset);
						return false;
					}
				ins.m_ElementSize = u8(BaseTypeInfo(CVMRegID::TypeOf(ins.m_Ids[1])).m_Size);
				ins.m_PerElement = CVMRegID::PerElementOf(ins.m_Ids[0]);
				program.push_back(ins);
			}
			if (walk.Problem() != MathOpDecode_Ok)
			{
				_Refuse(BatchRefusal_Undecodable, "no math-op instruction at offset %u (verify the bytecode first)", decoded.m_Offset);
				return false;
			}
			return true;
		}

		// The rules of program order: one-element instructions read one-element sources
		// only, and write nothing an earlier per-element instruction read.
		bool CBatchPlan::_OrderRules(const Program &program, const CCBCPUMetaRegisters &registers, std::vector<SRange> &perElement, std::vector<SRange> &oneElement)
		{
			auto rangeOf = [&](u32 bits, u64 elements, u32 elementSize, u32 instruction) {
				const std::uintptr_t begin = reinterpret_cast<std::uintptr_t>(registers.SelectWellFormed(bits).m_RawData);
				return SRange{begin, begin + std::uintptr_t(elements * elementSize), elementSize, EntryOf(bits), bits, instruction};
			};
			CIntervals readByPerElement;
			// Each register once per element size, at the first instruction that names it so:
			// the storage rules judge ranges, and a long program names few registers many times.
			std::unordered_set<u64> seen;
			for (u32 n = 0; n < program.size(); ++n)
			{
				const SInstruction &ins = program[n];
				const char *name = ins.Name();
				if (!ins.m_PerElement)
				{
					for (u32 i = 1; i < ins.m_Operands; ++i)
						if (CVMRegID::PerElementOf(ins.m_Ids[i]))
						{
							_Refuse(BatchRefusal_OneElementReadsStream, "instruction %u (offset %u) '%s' writes the one-element %s from the per-element %s: it reads element 0 of the whole stream", n,
									ins.m_Offset, name, SRegisterIdText(ins.m_Ids[0]).m_Text, SRegisterIdText(ins.m_Ids[i]).m_Text);
							return false;
						}
					const SRange written = rangeOf(ins.m_Ids[0], 1, ins.m_ElementSize, n);
					if (readByPerElement.Overlaps(written.m_Begin, written.m_End))
					{
						_Refuse(BatchRefusal_WrittenAfterRead, "instruction %u (offset %u) '%s' writes %s, which an earlier per-element instruction reads: it cannot run before the batches", n,
								ins.m_Offset, name, SRegisterIdText(ins.m_Ids[0]).m_Text);
						return false;
					}
				}
				for (u32 i = 0; i < ins.m_Operands; ++i)
				{
					const bool perElementOperand = CVMRegID::PerElementOf(ins.m_Ids[i]);
					const SRange range = rangeOf(ins.m_Ids[i], perElementOperand ? m_Stream : 1, ins.m_ElementSize, n);
					if (!perElementOperand && ins.m_PerElement && i != 0)
						readByPerElement.Add(range.m_Begin, range.m_End);
					if (seen.insert(u64(ins.m_Ids[i]) << 32 | ins.m_ElementSize).second)
						(perElementOperand ? perElement : oneElement).push_back(range);
				}
			}
			return true;
		}

		// Each per-element register holds the stream, per-element storage overlaps only
		// exactly (aliases), and no one-element register overlaps it.
		bool CBatchPlan::_Storage(const Program &program, const CCBCPUMetaRegisters &registers, std::vector<SRange> &perElement, const std::vector<SRange> &oneElement)
		{
			for (const SRange &range : perElement)
			{
				const u32 bytes = registers.m_Registers[range.m_Entry].m_Size;
				if (u64(bytes) < u64(m_Stream) * range.m_ElementSize)
				{
					_Refuse(BatchRefusal_ShortRegister, "%s of instruction %u (offset %u) holds %u bytes, fewer than the stream's %u elements (%llu bytes)", SRegisterIdText(range.m_Bits).m_Text,
							range.m_Instruction, program[range.m_Instruction].m_Offset, bytes, m_Stream, static_cast<unsigned long long>(u64(m_Stream) * range.m_ElementSize));
					return false;
				}
			}
			std::sort(perElement.begin(), perElement.end(), [](const SRange &a, const SRange &b) { return a.m_Begin != b.m_Begin ? a.m_Begin < b.m_Begin : a.m_End < b.m_End; });
			for (std::size_t i = 1; i < perElement.size(); ++i)
			{
				// Sorted by start, two ranges that overlap have every range between them
				// overlapping the first: the first pair of neighbours on that chain that is not
				// an exact repeat is found here.
				const SRange &a = perElement[i - 1], &b = perElement[i];
				if (Overlap(a, b) && !Exact(a, b))
				{
					const SRange &first = a.m_Instruction <= b.m_Instruction ? a : b;
					const SRange &second = a.m_Instruction <= b.m_Instruction ? b : a;
					_Refuse(BatchRefusal_OverlappingStorage, "%s of instruction %u (offset %u) and %s of instruction %u (offset %u) share storage other than exactly (%u- and %u-byte elements)",
							SRegisterIdText(first.m_Bits).m_Text, first.m_Instruction, program[first.m_Instruction].m_Offset, SRegisterIdText(second.m_Bits).m_Text, second.m_Instruction,
							program[second.m_Instruction].m_Offset, first.m_ElementSize, second.m_ElementSize);
					return false;
				}
			}
			CIntervals perElementBytes;
			for (const SRange &range : perElement)
				perElementBytes.Add(range.m_Begin, range.m_End);
			for (const SRange &range : oneElement)
				if (perElementBytes.Overlaps(range.m_Begin, range.m_End))
				{
					_Refuse(BatchRefusal_OverlappingStorage, "the one-element %s of instruction %u (offset %u) lies in per-element storage", SRegisterIdText(range.m_Bits).m_Text,
							range.m_Instruction, program[range.m_Instruction].m_Offset);
					return false;
				}
			return true;
		}

		// Scratch registers: named by the host, per-element, written before they are read,
		// every register on their storage named.
		bool CBatchPlan::_Scratch(const Program &program, const CCBCPUMetaRegisters &registers, u32 slotCount, const CVMRegID *scratch, u32 scratchCount, SScratchOf &scratchOf)
		{
			for (u32 s = 0; s < scratchCount; ++s)
			{
				const u32 bits = scratch[s].Bits();
				if (!CVMRegID::WellFormedBits(bits) || CVMRegID::SlotOf(bits) >= slotCount || registers.m_Registers == nullptr)
				{
					_Refuse(BatchRefusal_Scratch, "scratch register %u of the list (0x%08x) is ill-formed or outside the table", s, bits);
					return false;
				}
				if (!CVMRegID::PerElementOf(bits))
				{
					_Refuse(BatchRefusal_Scratch, "the scratch %s is a one-element register (only Instance and Stream registers can be scratch)", SRegisterIdText(bits).m_Text);
					return false;
				}
				scratchOf.m_Entries.insert(EntryOf(bits));
				if (const void *data = registers.SelectWellFormed(bits).m_RawData)
					scratchOf.m_Of.emplace(reinterpret_cast<std::uintptr_t>(data), SScratchOf::SScratch());
			}
			for (u32 n = 0; n < program.size() && !scratchOf.m_Of.empty(); ++n)
			{
				const SInstruction &ins = program[n];
				if (!ins.m_PerElement)
					continue;	// one-element instructions name no per-element storage (checked before)
				const char *name = ins.Name();
				for (u32 i = 0; i < ins.m_Operands; ++i)
				{
					const u32 bits = ins.m_Ids[i];
					const auto found = CVMRegID::PerElementOf(bits) ? scratchOf.m_Of.find(reinterpret_cast<std::uintptr_t>(registers.SelectWellFormed(bits).m_RawData)) : scratchOf.m_Of.end();
					if (found == scratchOf.m_Of.end())
						continue;
					if (scratchOf.m_Entries.count(EntryOf(bits)) == 0)
					{
						_Refuse(BatchRefusal_Scratch, "%s of instruction %u (offset %u) '%s' shares storage with a scratch register but is not named scratch", SRegisterIdText(bits).m_Text, n,
								ins.m_Offset, name);
						return false;
					}
					if (i != 0 && !found->second.m_Written)
					{
						_Refuse(BatchRefusal_Scratch, "instruction %u (offset %u) '%s' reads the scratch %s before the program writes it", n, ins.m_Offset, name, SRegisterIdText(bits).m_Text);
						return false;
					}
				}
				const auto found = scratchOf.m_Of.find(reinterpret_cast<std::uintptr_t>(registers.SelectWellFormed(ins.m_Ids[0]).m_RawData));
				if (found != scratchOf.m_Of.end())
					found->second.m_Written = true;
			}
			return true;
		}

		// The slots the per-element instructions use, renumbered (a batch's table for the
		// entry points holds those only), each per-element entry's element size, and the
		// code split into the hoisted one-element instructions and the batch's.
		void CBatchPlan::_Renumber(const u8 *bytecode, const Program &program, const CCBCPUMetaRegisters &registers)
		{
			std::unordered_map<u32, u32> compact;	// slot -> renumbered slot
			std::unordered_map<std::uintptr_t, u32> bytesOfStorage;	// per-element storage -> element size (aliases once)
			// Sized once: grown by doubling, a long program's copies would hold up to twice their size.
			std::size_t hoisted = 0, hoistedBytes = 0;
			for (const SInstruction &ins : program)
				if (!ins.m_PerElement)
				{
					++hoisted;
					hoistedBytes += ins.m_Size;
				}
			m_Hoisted.reserve(hoistedBytes);
			m_HoistedOffsets.reserve(hoisted);
			m_Batch.reserve(m_Whole.size() - hoistedBytes);
			m_BatchOffsets.reserve(program.size() - hoisted);
			for (const SInstruction &ins : program)
			{
				const u8 *code = bytecode + ins.m_Offset;
				if (!ins.m_PerElement)
				{
					m_HoistedOffsets.push_back(ins.m_Offset);
					m_Hoisted.insert(m_Hoisted.end(), code, code + ins.m_Size);
					++m_HoistedCount;
					continue;
				}
				const std::size_t at = m_Batch.size();
				m_BatchOffsets.push_back(ins.m_Offset);
				m_Batch.insert(m_Batch.end(), code, code + ins.m_Size);
				const u32 wb = MathOp::RegisterBlockOffset(code[0]);
				const u32 fieldOffsets[3] = {CMetaOp_MathOp::kDstRegOffset, CMetaOp_MathOp::kSrcReg0Offset, CMetaOp_MathOp::kSrcReg1Offset};
				for (u32 i = 0; i < ins.m_Operands; ++i)
				{
					const u32 bits = ins.m_Ids[i];
					const auto placed = compact.emplace(CVMRegID::SlotOf(bits), u32(compact.size()));
					if (placed.second)
						for (u32 bank = 0; bank < CCBCPUMetaRegisters::kBanksPerSlot; ++bank)
							m_Entries.push_back({CVMRegID::SlotOf(bits) * CCBCPUMetaRegisters::kBanksPerSlot + bank, 0});
					const u32 renumbered = placed.first->second;
					StoreLittleEndian(m_Batch.data() + at + wb + fieldOffsets[i], CVMRegID::WithSlot(bits, renumbered));
					if (CVMRegID::PerElementOf(bits))
					{
						m_Entries[renumbered * CCBCPUMetaRegisters::kBanksPerSlot + CVMRegID::BankIndexOf(bits)].m_ElementSize = ins.m_ElementSize;
						bytesOfStorage.emplace(reinterpret_cast<std::uintptr_t>(registers.SelectWellFormed(bits).m_RawData), ins.m_ElementSize);
					}
				}
			}
			for (const auto &storage : bytesOfStorage)
				m_BytesPerElement += storage.second;
		}

		// The batch: a multiple of the granule, the default one within the cache budget.
		bool CBatchPlan::_BatchSize(u32 batchElements)
		{
			if (m_BatchOffsets.empty())
			{
				std::snprintf(m_Reason, sizeof(m_Reason), "whole stream: no per-element instruction");
				return false;
			}
			u64 batch = batchElements;
			if (batchElements == kDefaultBatch)
				batch = std::max<u64>(1, kCacheBudgetBytes / std::max<u32>(m_BytesPerElement, 1) / kBatchGranule) * kBatchGranule;
			batch = (batch + kBatchGranule - 1) / kBatchGranule * kBatchGranule;
			// The last batch takes what is left, and one element left over joins the batch
			// before it: an instruction evaluating one element reads its one-value sources
			// as streams (cbvm_math_op_checks.h), which may choose another kernel.
			const u64 count = m_Stream / batch + (m_Stream % batch > 1 ? 1 : 0);
			if (count <= 1)
			{
				std::snprintf(m_Reason, sizeof(m_Reason), "whole stream: %u elements fit one batch of %llu", m_Stream, static_cast<unsigned long long>(batch));
				return false;
			}
			m_BatchElements = u32(batch);
			m_BatchCount = u32(count);
			return true;
		}

		// A body's scratch area: each scratch storage once, for the largest batch (a lone
		// last element joins the one before it) and the padding a register file guarantees
		// after every register, each aligned.
		bool CBatchPlan::_Areas(const CCBCPUMetaRegisters &registers, SScratchOf &scratchOf)
		{
			u64 scratchBytes = 0;
			for (SEntryPlan &entry : m_Entries)
			{
				const auto found = entry.m_ElementSize != 0 ? scratchOf.m_Of.find(reinterpret_cast<std::uintptr_t>(registers.m_Registers[entry.m_Source].m_RawData)) : scratchOf.m_Of.end();
				if (found == scratchOf.m_Of.end() || !found->second.m_Written)
					continue;
				if (found->second.m_Offset == kNotScratch)
				{
					const u64 bytes = (u64(m_BatchElements) + 1) * entry.m_ElementSize + CRegisterStorage::kPadding;
					if (scratchBytes + bytes > (u64(1) << 31))
					{
						_Refuse(BatchRefusal_Scratch, "the scratch buffers of a batch of %u elements exceed 2 GiB (ask for smaller batches)", m_BatchElements);
						m_BatchElements = m_BatchCount = 0;
						return false;
					}
					found->second.m_Offset = u32(scratchBytes);
					scratchBytes = (scratchBytes + bytes + kScratchAlign - 1) / kScratchAlign * kScratchAlign;
					++m_ScratchCount;
				}
				entry.m_Scratch = found->second.m_Offset;
			}
			m_ScratchBytes = u32(scratchBytes);
			const int length = std::snprintf(m_Reason, sizeof(m_Reason), "batches of %u elements (%u batches, %u per-element bytes each), %u one-element instruction%s first", m_BatchElements,
											 m_BatchCount, m_BytesPerElement, m_HoistedCount, m_HoistedCount == 1 ? "" : "s");
			if (m_ScratchCount != 0)
				std::snprintf(m_Reason + length, sizeof(m_Reason) - u32(length), ", %u scratch register%s in per-thread buffers", m_ScratchCount, m_ScratchCount == 1 ? "" : "s");
			return true;
		}

		// Every register the program names, as it is now, and what it must hold: the
		// runner compares the file with this before each run.
		void CBatchPlan::_Snapshot(const Program &program, const CCBCPUMetaRegisters &registers)
		{
			std::unordered_map<u32, u32> useOf;	// entry -> index in m_Uses
			for (const SInstruction &ins : program)
				for (u32 i = 0; i < ins.m_Operands; ++i)
				{
					const u32 entry = EntryOf(ins.m_Ids[i]);
					const auto placed = useOf.emplace(entry, u32(m_Uses.size()));
					if (placed.second)
						m_Uses.push_back({entry, registers.m_Registers[entry], 0, false});
					SRegisterUse &use = m_Uses[placed.first->second];
					use.m_ElementSize = std::max<u32>(use.m_ElementSize, ins.m_ElementSize);
					use.m_PerElement = use.m_PerElement || (ins.m_PerElement && CVMRegID::PerElementOf(ins.m_Ids[i]));
				}
		}

		// Direct calls, when the verifier finds nothing at all to report on this file.
		void CBatchPlan::_Prepare(const Program &program, const CCBCPUMetaRegisters &registers, u32 slotCount, const SScratchOf &scratchOf)
		{
			SVerifyProblem problem;
			const SVerifyResult verified = CVerifier::Verify(m_Whole.data(), u32(m_Whole.size()), registers, slotCount, &problem, 1);
			if (verified.Problems() != 0)
			{
				std::snprintf(m_PreparedReason, sizeof(m_PreparedReason), "not prepared: the verifier reports %u problem%s (offset %u: %.160s)", verified.Problems(),
							  verified.Problems() == 1 ? "" : "s", problem.m_Offset, problem.m_Message);
				return;
			}
			auto prepared = std::make_unique<SPreparedProgram>();
			prepared->m_Set = &MathOp::ActiveKernelSet();
			// One call per instruction for a whole-stream run, or one per per-element
			// instruction for the batches: a batched plan never runs the former (a run of it
			// goes whole-stream only when the file changed, and then through the entry
			// points). Reserved: grown by doubling, the calls of a long program took up to
			// three times their size while they were copied.
			(m_Batched ? prepared->m_Batch : prepared->m_Whole).reserve(program.size());
			std::unordered_set<const u8 *> streams;
			struct SKeyHash
			{
				std::size_t operator()(const MathOp::CPreparedCalls::SSetupKey &key) const { return key.Hash(); }
			};
			std::unordered_map<MathOp::CPreparedCalls::SSetupKey, u32, SKeyHash> setups;	// -> index in m_SetupOwners
			for (const SInstruction &ins : program)
			{
				const MathOp::SPreparedCall call = MathOp::CPreparedCalls::Prepare(m_Whole.data() + ins.m_Offset, ins.m_Offset, registers, *prepared->m_Set);
				if (!m_Batched)
				{
					prepared->m_Whole.push_back(call);
					continue;
				}
				if (!ins.m_PerElement)
					continue;
				// In a batch, a scratch operand lives in the running thread's area: until a
				// thread binds the call, its base is the offset there.
				MathOp::SPreparedCall batch = call;
				for (u32 i = 0; i < 3; ++i)
					if (batch.m_Step[i] != 0)
					{
						if (const SScratchOf::SScratch *placed = scratchOf.Placed(batch.m_Base[i]))
						{
							batch.m_Base[i] = reinterpret_cast<u8 *>(std::uintptr_t(placed->m_Offset));
							batch.m_Flags |= u8(MathOp::SPreparedCall::Flag_ScratchDst << i);
							prepared->m_Scratch = true;
						}
						else if (streams.insert(batch.m_Base[i]).second)
							prepared->m_Streams.push_back({batch.m_Base[i], batch.m_Step[i]});
					}
				if (MathOp::CPreparedCalls::HasSetup(batch))
				{
					const auto placed = setups.emplace(MathOp::CPreparedCalls::SetupKey(batch), u32(prepared->m_SetupOwners.size()));
					if (placed.second)
						prepared->m_SetupOwners.push_back(u32(prepared->m_Batch.size()));
					batch.m_SetupIndex = placed.first->second;
				}
				prepared->m_Batch.push_back(batch);
			}
			u64 streamBytes = 0;
			for (const SPreparedProgram::SStream &stream : prepared->m_Streams)
				streamBytes += u64(stream.m_Step) * m_Stream;
			prepared->m_Prefetch = streamBytes > kPrefetchFromBytes;
			std::snprintf(m_PreparedReason, sizeof(m_PreparedReason), "prepared: %u direct calls%s, %s kernels%s", u32(m_Batched ? prepared->m_Batch.size() : prepared->m_Whole.size()), m_Batched ? " a batch" : "", prepared->m_Set->m_Name,
						  prepared->m_Prefetch ? ", batches prefetch the next" : "");
			m_Prepared = std::move(prepared);
		}
	}
}
