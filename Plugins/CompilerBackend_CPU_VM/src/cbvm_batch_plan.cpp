#include "cbvm_batch_plan.h"

#include "cbvm_math_op_checks.h"
#include "cbvm_register_storage.h"

#include <algorithm>
#include <cstdarg>
#include <cstdint>
#include <cstdio>
#include <map>
#include <thread>
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

			// One instruction as the plan sees it.
			struct SInstruction
			{
				u32 m_Offset;
				u32 m_Size;
				SOp_MathOp::EOp m_Op;
				u32 m_Ids[3];		// destination, source 0, source 1 (kInvalidBits: none)
				u32 m_Operands;		// 2 or 3
				u32 m_ElementSize;	// of every operand: the paths size all three by source 0's type
				bool m_PerElement;	// an Instance or Stream destination
			};

			// Bytes [m_Begin, m_End) of one register's storage as the program uses it.
			struct SRange
			{
				std::uintptr_t m_Begin, m_End;
				u32 m_ElementSize;
				u32 m_Entry;		// its index in the table
				u32 m_Bits;			// the id that named it (for the reason)
				u32 m_Instruction;	// the instruction (for the reason)
			};

			bool Overlap(const SRange &a, const SRange &b) { return a.m_Begin < b.m_End && b.m_Begin < a.m_End; }
			bool Exact(const SRange &a, const SRange &b) { return a.m_Begin == b.m_Begin && a.m_End == b.m_End && a.m_ElementSize == b.m_ElementSize; }

			// "stream.3:float3"
			struct SIdText
			{
				char m_Text[48];
				explicit SIdText(u32 bits)
				{
					std::snprintf(m_Text, sizeof(m_Text), "%s.%u:%s", Compiler::MetaTypeName(CVMRegID::BankOf(bits)), CVMRegID::SlotOf(bits), BaseTypeName(CVMRegID::TypeOf(bits)));
				}
			};

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

		bool CBatchPlan::Build(const u8 *bytecode, u32 size, const CRegisterStorage &storage, u32 batchElements, const CVMRegID *scratch, u32 scratchCount)
		{
			return Build(bytecode, size, storage.Registers(), storage.SlotCount(), batchElements, scratch, scratchCount);
		}

		bool CBatchPlan::Build(const u8 *bytecode, u32 size, const CCBCPUMetaRegisters &registers, u32 slotCount, u32 batchElements, const CVMRegID *scratch, u32 scratchCount)
		{
			m_Batched = false;
			m_Refusal = BatchRefusal_None;
			m_Stream = registers.m_StreamDimensions;
			m_Table = registers.m_Registers;
			m_BatchElements = 0;
			m_BatchCount = 0;
			m_HoistedCount = 0;
			m_BytesPerElement = 0;
			m_ScratchCount = 0;
			m_Whole.assign(bytecode, bytecode + size);
			m_Hoisted.clear();
			m_Batch.clear();
			m_HoistedOffsets.clear();
			m_BatchOffsets.clear();
			m_Entries.clear();
			m_Pool.reset();
			m_ScratchPool.reset();
			m_PoolBodies = 0;
			m_ScratchBytes = 0;
			m_PoolFree = 0;

			// Decode: the ids, sizes and kinds of every instruction.
			std::vector<SInstruction> program;
			for (u32 offset = 0; offset < size;)
			{
				const u8 opcode = bytecode[offset];
				if (opcode < Opcode_MathOp || opcode > Opcode_MathOpDiv || size - offset < MathOp::InstructionSize(opcode))
				{
					_Refuse(BatchRefusal_Undecodable, "no math-op instruction at offset %u (verify the bytecode first)", offset);
					return false;
				}
				SInstruction ins;
				ins.m_Offset = offset;
				ins.m_Size = MathOp::InstructionSize(opcode);
				ins.m_Op = MathOp::OperatorOf(bytecode + offset);
				if (u32(ins.m_Op) >= SOp_MathOp::__MaxOps)
				{
					_Refuse(BatchRefusal_Undecodable, "unknown operator at offset %u (verify the bytecode first)", offset);
					return false;
				}
				const MathOp::SOperandIds ids = MathOp::ReadOperandIds(bytecode + offset, MathOp::RegisterBlockOffset(opcode));
				ins.m_Ids[0] = ids.m_Dst;
				ins.m_Ids[1] = ids.m_Src0;
				ins.m_Ids[2] = ids.m_Src1;
				ins.m_Operands = SOp_MathOp::OperatorTraits(ins.m_Op).m_ParameterCount + 1u;
				for (u32 i = 0; i < ins.m_Operands; ++i)
					if (!CVMRegID::WellFormedBits(ins.m_Ids[i]) || CVMRegID::SlotOf(ins.m_Ids[i]) >= slotCount || registers.m_Registers == nullptr)
					{
						_Refuse(BatchRefusal_Undecodable, "a register of the instruction at offset %u is ill-formed or outside the table (verify the bytecode first)", offset);
						return false;
					}
				ins.m_ElementSize = BaseTypeInfo(CVMRegID::TypeOf(ins.m_Ids[1])).m_Size;
				ins.m_PerElement = CVMRegID::PerElementOf(ins.m_Ids[0]);
				program.push_back(ins);
				offset += ins.m_Size;
			}
			if (batchElements == 0)
			{
				std::snprintf(m_Reason, sizeof(m_Reason), "whole stream: a batch size of 0 was asked");
				return false;
			}

			auto rangeOf = [&](u32 bits, u64 elements, u32 elementSize, u32 instruction) {
				const CCBCPUMetaRegisters::SRegister &entry = registers.SelectWellFormed(bits);
				const std::uintptr_t begin = reinterpret_cast<std::uintptr_t>(entry.m_RawData);
				return SRange{begin, begin + std::uintptr_t(elements * elementSize), elementSize, CVMRegID::SlotOf(bits) * CCBCPUMetaRegisters::kBanksPerSlot + CVMRegID::BankIndexOf(bits), bits,
							  instruction};
			};

			// The rules of program order: one-element instructions read one-element
			// sources only, and write nothing an earlier per-element instruction read.
			CIntervals readByPerElement;
			std::vector<SRange> perElement, oneElement;
			for (u32 n = 0; n < program.size(); ++n)
			{
				const SInstruction &ins = program[n];
				const char *name = SOp_MathOp::OperatorTraits(ins.m_Op).m_Name;
				if (!ins.m_PerElement)
				{
					for (u32 i = 1; i < ins.m_Operands; ++i)
						if (CVMRegID::PerElementOf(ins.m_Ids[i]))
						{
							_Refuse(BatchRefusal_OneElementReadsStream, "instruction %u (offset %u) '%s' writes the one-element %s from the per-element %s: it reads element 0 of the whole stream", n,
									ins.m_Offset, name, SIdText(ins.m_Ids[0]).m_Text, SIdText(ins.m_Ids[i]).m_Text);
							return false;
						}
					const SRange written = rangeOf(ins.m_Ids[0], 1, ins.m_ElementSize, n);
					if (readByPerElement.Overlaps(written.m_Begin, written.m_End))
					{
						_Refuse(BatchRefusal_WrittenAfterRead, "instruction %u (offset %u) '%s' writes %s, which an earlier per-element instruction reads: it cannot run before the batches", n,
								ins.m_Offset, name, SIdText(ins.m_Ids[0]).m_Text);
						return false;
					}
				}
				for (u32 i = 0; i < ins.m_Operands; ++i)
				{
					if (CVMRegID::PerElementOf(ins.m_Ids[i]))
						perElement.push_back(rangeOf(ins.m_Ids[i], m_Stream, ins.m_ElementSize, n));
					else
					{
						oneElement.push_back(rangeOf(ins.m_Ids[i], 1, ins.m_ElementSize, n));
						if (ins.m_PerElement && i != 0)
							readByPerElement.Add(oneElement.back().m_Begin, oneElement.back().m_End);
					}
				}
			}

			// Storage: each per-element register holds the stream, and per-element storage
			// overlaps only exactly (aliases), and no one-element register overlaps it.
			for (const SRange &range : perElement)
			{
				const CCBCPUMetaRegisters::SRegister &entry = registers.m_Registers[range.m_Entry];
				if (u64(entry.m_Size) < u64(m_Stream) * range.m_ElementSize)
				{
					_Refuse(BatchRefusal_ShortRegister, "%s of instruction %u (offset %u) holds %u bytes, fewer than the stream's %u elements (%llu bytes)", SIdText(range.m_Bits).m_Text,
							range.m_Instruction, program[range.m_Instruction].m_Offset, entry.m_Size, m_Stream, static_cast<unsigned long long>(u64(m_Stream) * range.m_ElementSize));
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
							SIdText(first.m_Bits).m_Text, first.m_Instruction, program[first.m_Instruction].m_Offset, SIdText(second.m_Bits).m_Text, second.m_Instruction,
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
					_Refuse(BatchRefusal_OverlappingStorage, "the one-element %s of instruction %u (offset %u) lies in per-element storage", SIdText(range.m_Bits).m_Text,
							range.m_Instruction, program[range.m_Instruction].m_Offset);
					return false;
				}

			// Scratch storage, by its first byte (per-element storage overlaps only exactly,
			// so aliases share it): named by the host, written before it is read, every
			// register on it named.
			struct SScratch
			{
				bool m_Written = false;
				u32 m_Offset = kNotScratch;	// in a body's scratch area, once placed
			};
			std::unordered_map<std::uintptr_t, SScratch> scratchOf;
			std::unordered_set<u32> scratchEntries;	// table indices named
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
					_Refuse(BatchRefusal_Scratch, "the scratch %s is a one-element register (only Instance and Stream registers can be scratch)", SIdText(bits).m_Text);
					return false;
				}
				scratchEntries.insert(CVMRegID::SlotOf(bits) * CCBCPUMetaRegisters::kBanksPerSlot + CVMRegID::BankIndexOf(bits));
				if (const void *data = registers.SelectWellFormed(bits).m_RawData)
					scratchOf.emplace(reinterpret_cast<std::uintptr_t>(data), SScratch());
			}
			auto storageOf = [&](u32 bits) { return reinterpret_cast<std::uintptr_t>(registers.SelectWellFormed(bits).m_RawData); };
			if (!scratchOf.empty())
				for (u32 n = 0; n < program.size(); ++n)
				{
					const SInstruction &ins = program[n];
					if (!ins.m_PerElement)
						continue;	// one-element instructions name no per-element storage (checked above)
					const char *name = SOp_MathOp::OperatorTraits(ins.m_Op).m_Name;
					for (u32 i = 0; i < ins.m_Operands; ++i)
					{
						const u32 bits = ins.m_Ids[i];
						const auto found = CVMRegID::PerElementOf(bits) ? scratchOf.find(storageOf(bits)) : scratchOf.end();
						if (found == scratchOf.end())
							continue;
						if (scratchEntries.count(CVMRegID::SlotOf(bits) * CCBCPUMetaRegisters::kBanksPerSlot + CVMRegID::BankIndexOf(bits)) == 0)
						{
							_Refuse(BatchRefusal_Scratch, "%s of instruction %u (offset %u) '%s' shares storage with a scratch register but is not named scratch", SIdText(bits).m_Text, n,
									ins.m_Offset, name);
							return false;
						}
						if (i != 0 && !found->second.m_Written)
						{
							_Refuse(BatchRefusal_Scratch, "instruction %u (offset %u) '%s' reads the scratch %s before the program writes it", n, ins.m_Offset, name,
									SIdText(bits).m_Text);
							return false;
						}
					}
					if (CVMRegID::PerElementOf(ins.m_Ids[0]))
						if (const auto found = scratchOf.find(storageOf(ins.m_Ids[0])); found != scratchOf.end())
							found->second.m_Written = true;
				}

			// Renumber the slots the per-element instructions use (a batch's table holds
			// those only), note each per-element entry's element size, and split the code.
			std::unordered_map<u32, u32> compact;	// slot -> renumbered slot
			std::unordered_map<std::uintptr_t, u32> bytesOfStorage;	// per-element storage -> element size (aliases once)
			for (const SInstruction &ins : program)
			{
				if (!ins.m_PerElement)
				{
					m_HoistedOffsets.push_back(ins.m_Offset);
					m_Hoisted.insert(m_Hoisted.end(), bytecode + ins.m_Offset, bytecode + ins.m_Offset + ins.m_Size);
					++m_HoistedCount;
					continue;
				}
				const std::size_t at = m_Batch.size();
				m_BatchOffsets.push_back(ins.m_Offset);
				m_Batch.insert(m_Batch.end(), bytecode + ins.m_Offset, bytecode + ins.m_Offset + ins.m_Size);
				const u32 wb = MathOp::RegisterBlockOffset(bytecode[ins.m_Offset]);
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

			if (m_BatchOffsets.empty())
			{
				std::snprintf(m_Reason, sizeof(m_Reason), "whole stream: no per-element instruction");
				return false;
			}
			// The batch: a multiple of the granule, the default one within the cache budget.
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

			// Scratch areas: the largest batch (a lone last element joins the one before it)
			// and the padding a register file guarantees after every register, each aligned.
			u64 scratchBytes = 0;
			for (SEntryPlan &entry : m_Entries)
			{
				const auto found = entry.m_ElementSize != 0 ? scratchOf.find(reinterpret_cast<std::uintptr_t>(registers.m_Registers[entry.m_Source].m_RawData)) : scratchOf.end();
				if (found == scratchOf.end() || !found->second.m_Written)
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
			if (m_Entries.size() > kStackEntries || m_ScratchBytes != 0)
			{
				m_PoolBodies = std::clamp<u32>(std::thread::hardware_concurrency(), 1, 64);
				if (m_Entries.size() > kStackEntries)
					m_Pool.reset(new CCBCPUMetaRegisters::SRegister[std::size_t(m_PoolBodies) * m_Entries.size()]);
				if (m_ScratchBytes != 0)
					m_ScratchPool.reset(new u8[std::size_t(m_PoolBodies) * m_ScratchBytes + kScratchAlign]());	// zeroed, padding included
				m_PoolFree = m_PoolBodies == 64 ? ~u64(0) : (u64(1) << m_PoolBodies) - 1;
			}
			m_Batched = true;
			int length = std::snprintf(m_Reason, sizeof(m_Reason), "batches of %u elements (%u batches, %u per-element bytes each), %u one-element instruction%s first", m_BatchElements,
									   m_BatchCount, m_BytesPerElement, m_HoistedCount, m_HoistedCount == 1 ? "" : "s");
			if (m_ScratchCount != 0)
				std::snprintf(m_Reason + length, sizeof(m_Reason) - u32(length), ", %u scratch register%s in per-thread buffers", m_ScratchCount, m_ScratchCount == 1 ? "" : "s");
			return true;
		}
	}
}
