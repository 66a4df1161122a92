#pragma once
// The register file of a running VM program, as every meta-op sees it.
//
// Registers are addressed by (slot, bank): the four banks of one slot lie next to
// each other in m_Registers, in the order Constant, Normal, Instance, Stream, so a
// register's entry is slot * 4 + (bank - MetaType_Constant). Each entry is a
// pointer to raw storage and its size in bytes. Storage handed to the math
// operator must be 32-byte aligned and padded so that a whole 16-byte vector may be
// read past the last element (CRegisterStorage does both).

#include "cbvm_meta_ops.h"
#include "kr_base_types.h"

#include <array>

namespace Orvex
{
	class CCBCPUMetaRegisters
	{
	public:
		struct SRegister
		{
			void *m_RawData;
			u32 m_Size;	// bytes
		};

		static constexpr u32 kBanksPerSlot = 4;

		u8 *m_ScratchBuffer = nullptr;
		SRegister *m_Registers = nullptr;
		u32 m_StreamDimensions = 0;		// elements evaluated for an Instance or Stream destination
		// The offset of the instruction running, in its program's bytecode: the interpreter
		// and the batch runner set it before each call (a host calling an entry point
		// itself sets it the same way). Assertion reports name the instruction by it.
		u32 m_InstructionPointer = 0;

		// Byte size of one element of each type, indexed by type + 1 (BaseType_Evolved first):
		// the stream stride of that type. The sizes of the type table (kr_base_types.h).
		static constexpr std::array<u32, kBaseTypeTableSize> m_DataTypeSizeInBytes = []() {
			std::array<u32, kBaseTypeTableSize> sizes = {};
			for (u32 field = 0; field < kBaseTypeTableSize; ++field)
				sizes[field] = kBaseTypes[field].m_Size;
			return sizes;
		}();

		// Any value is safe: a type outside the table has size 0, which is reported
		// (like every zero size except BaseType_Evolved's).
		static u32 DataSizeInBytes(EBaseTypeID typeID)
		{
			const u32 size = BaseTypeInfo(typeID).m_Size;
			OX_ASSERT(size != 0 || typeID == BaseType_Evolved);
			return size;
		}

		// No bounds check: ToSlot and ToBank assert on ill-formed ids, and the host
		// (or a bytecode verifier) guarantees that slots exist.
		SRegister &SelectRegister(CVMRegID id) const
		{
			return m_Registers[std::size_t(id.ToSlot()) * kBanksPerSlot + (u32(id.ToBank()) - Compiler::MetaType_Constant)];
		}

		// SelectRegister without the id's assertions, for raw bits already known to be
		// well-formed (CVMRegID::WellFormedBits) and inside the table.
		SRegister &SelectWellFormed(u32 bits) const
		{
			return m_Registers[std::size_t(CVMRegID::SlotOf(bits)) * kBanksPerSlot + CVMRegID::BankIndexOf(bits)];
		}

		// The scratch buffer, lent to one evaluation at a time; hand it back with
		// ReleaseEvaluationCache.
		u8 *AcquireEvaluationCache() const { return m_ScratchBuffer; }
		void ReleaseEvaluationCache(u8 *cache) const
		{
			OX_ASSERT(cache == m_ScratchBuffer);
		}
	};

	static_assert(sizeof(CCBCPUMetaRegisters::SRegister) == 16, "SRegister: pointer and size");
	static_assert(offsetof(CCBCPUMetaRegisters::SRegister, m_Size) == 8, "SRegister: size after the pointer");
	static_assert(sizeof(CCBCPUMetaRegisters::m_DataTypeSizeInBytes) / sizeof(u32) == 38, "one size per type, Evolved to Quaternion");
	static_assert(CCBCPUMetaRegisters::m_DataTypeSizeInBytes[BaseType_Float3 + 1] == 12 && CCBCPUMetaRegisters::m_DataTypeSizeInBytes[BaseType_Quaternion + 1] == 16, "float sizes");
	static_assert(CCBCPUMetaRegisters::m_DataTypeSizeInBytes[BaseType_Bool3 + 1] == 3 * 4 && CCBCPUMetaRegisters::m_DataTypeSizeInBytes[BaseType_Int4 + 1] == 4 * 4, "bools and ints run through the 32-bit integer kernels");
	static_assert(CCBCPUMetaRegisters::m_DataTypeSizeInBytes[BaseType_Double + 1] == 8 && CCBCPUMetaRegisters::m_DataTypeSizeInBytes[BaseType_Word3 + 1] == 6, "double and 16-bit sizes");
}
