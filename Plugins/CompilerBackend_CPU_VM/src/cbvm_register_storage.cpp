#include "cbvm_register_storage.h"

#include <cstdlib>
#include <cstring>

namespace Orvex
{
	namespace
	{
		// A register id addresses 2^21 slots; a larger table could never be reached.
		constexpr u32 kMaxSlots = Compiler::IR::CRegID::RegisterSlotMask + 1;

		void *_AllocateBlock(u32 capacity)
		{
			void *block = std::aligned_alloc(CRegisterStorage::kAlignment, capacity);
			if (block != nullptr)
				std::memset(block, 0, capacity);
			return block;
		}
	}

	u32 CRegisterStorage::CapacityFor(u32 sizeInBytes)
	{
		const u64 padded = u64(sizeInBytes) + kPadding;
		const u64 rounded = (padded + kAlignment - 1) & ~u64(kAlignment - 1);
		return rounded <= 0xFFFFFFFFull ? u32(rounded) : 0;
	}

	bool CRegisterStorage::Reset(u32 slotCount)
	{
		_FreeAll();
		if (slotCount == 0)
			return true;
		if (slotCount > kMaxSlots)
			return false;
		const std::size_t entries = std::size_t(slotCount) * CCBCPUMetaRegisters::kBanksPerSlot;
		auto *table = static_cast<CCBCPUMetaRegisters::SRegister *>(std::calloc(entries, sizeof(CCBCPUMetaRegisters::SRegister)));
		auto *capacities = static_cast<u32 *>(std::calloc(entries, sizeof(u32)));
		if (table == nullptr || capacities == nullptr)
		{
			std::free(table);
			std::free(capacities);
			return false;
		}
		m_Registers.m_Registers = table;
		m_Capacities = capacities;
		m_SlotCount = slotCount;
		return true;
	}

	CCBCPUMetaRegisters::SRegister *CRegisterStorage::_Entry(CVMRegID id) const
	{
		// Checked before touching the accessors, which would assert on a bad id.
		if (!id._ValidAndWellFormed())
			return nullptr;
		const u32 slot = u32(id.m_RawBits) & Compiler::IR::CRegID::RegisterSlotMask;
		if (slot >= m_SlotCount)
			return nullptr;
		return &m_Registers.SelectRegister(id);
	}

	bool CRegisterStorage::Allocate(CVMRegID id, u32 sizeInBytes)
	{
		CCBCPUMetaRegisters::SRegister *entry = _Entry(id);
		const u32 capacity = CapacityFor(sizeInBytes);
		if (entry == nullptr || capacity == 0)
			return false;
		void *block = _AllocateBlock(capacity);
		if (block == nullptr)
			return false;
		std::free(entry->m_RawData);
		entry->m_RawData = block;
		entry->m_Size = sizeInBytes;
		m_Capacities[entry - m_Registers.m_Registers] = capacity;
		return true;
	}

	bool CRegisterStorage::AllocateElements(CVMRegID id, u32 elementCount)
	{
		if (_Entry(id) == nullptr)
			return false;
		const EBaseTypeID type = id.ToType();
		const u32 index = u32(s32(type) + 1);
		const u32 elementSize = index < kBaseTypeTableSize ? CCBCPUMetaRegisters::m_DataTypeSizeInBytes[index] : 0;
		const u64 size = u64(elementSize) * elementCount;
		if (elementSize == 0 || size > 0xFFFFFFFFull)
			return false;
		return Allocate(id, u32(size));
	}

	bool CRegisterStorage::AllocateScratch(u32 sizeInBytes)
	{
		const u32 capacity = CapacityFor(sizeInBytes);
		void *block = capacity != 0 ? _AllocateBlock(capacity) : nullptr;
		if (block == nullptr)
			return false;
		std::free(m_Registers.m_ScratchBuffer);
		m_Registers.m_ScratchBuffer = static_cast<u8 *>(block);
		return true;
	}

	void CRegisterStorage::Release(CVMRegID id)
	{
		if (CCBCPUMetaRegisters::SRegister *entry = _Entry(id))
		{
			std::free(entry->m_RawData);
			entry->m_RawData = nullptr;
			entry->m_Size = 0;
			m_Capacities[entry - m_Registers.m_Registers] = 0;
		}
	}

	void *CRegisterStorage::Data(CVMRegID id) const
	{
		const CCBCPUMetaRegisters::SRegister *entry = _Entry(id);
		return entry != nullptr ? entry->m_RawData : nullptr;
	}

	u32 CRegisterStorage::Size(CVMRegID id) const
	{
		const CCBCPUMetaRegisters::SRegister *entry = _Entry(id);
		return entry != nullptr ? entry->m_Size : 0;
	}

	u32 CRegisterStorage::Capacity(CVMRegID id) const
	{
		const CCBCPUMetaRegisters::SRegister *entry = _Entry(id);
		return entry != nullptr ? m_Capacities[entry - m_Registers.m_Registers] : 0;
	}

	void CRegisterStorage::_FreeAll()
	{
		const std::size_t entries = std::size_t(m_SlotCount) * CCBCPUMetaRegisters::kBanksPerSlot;
		for (std::size_t i = 0; i < entries; ++i)
			std::free(m_Registers.m_Registers[i].m_RawData);
		std::free(m_Registers.m_Registers);
		std::free(m_Capacities);
		std::free(m_Registers.m_ScratchBuffer);
		m_Registers.m_Registers = nullptr;
		m_Registers.m_ScratchBuffer = nullptr;
		m_Capacities = nullptr;
		m_SlotCount = 0;
	}
}
