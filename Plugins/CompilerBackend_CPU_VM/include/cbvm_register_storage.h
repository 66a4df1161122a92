#pragma once
// CRegisterStorage: an owner of register storage for hosts and tests.
//
// It holds the register table of a CCBCPUMetaRegisters (four entries per slot) and
// one heap block per allocated register, with the guarantees the math-operator
// kernels rely on:
//   - every block starts on a 64-byte boundary (kAlignment, a cache line; the
//     instruction checks ask for 32);
//   - every block is followed by at least 32 readable bytes (kPadding) and is rounded
//     up to a multiple of 64 (kAlignment), so a kernel may read whole 16-byte vectors
//     past the last element (the values read there never reach a destination);
//   - blocks are zero-filled, padding included.
// Allocation happens here, at setup; the execution path never allocates.
//
//   CRegisterStorage storage(8);                           // 8 slots
//   const CVMRegID pos = CVMRegID::Build(0, Compiler::MetaType_Stream, BaseType_Float3);
//   storage.AllocateElements(pos, 4096);
//   storage.Registers().m_StreamDimensions = 4096;
//   float *p = storage.DataAs<float>(pos);
//   CBytecodeExecContext ctx(&program, bindings, storage.Registers(), debugCtx);

#include "cbvm_meta_ops.h"
#include "cbvm_registers.h"

namespace Orvex
{
	class CRegisterStorage : public CNonCopyable
	{
	public:
		// A cache line: a 64-byte vector of the AVX-512 kernels never straddles two lines
		// (the instruction checks ask for 32).
		static constexpr u32 kAlignment = 64;
		static constexpr u32 kPadding = 32;

		CRegisterStorage() = default;
		explicit CRegisterStorage(u32 slotCount) { Reset(slotCount); }
		~CRegisterStorage() { _FreeAll(); }

		// Frees every register and makes an empty table of 'slotCount' slots.
		// False (and an empty storage) when the table cannot be allocated.
		bool Reset(u32 slotCount);

		// (Re)allocates the register's storage: 'sizeInBytes' usable bytes, zero-filled.
		// False when the id is invalid or ill-formed, its slot is outside the table,
		// or memory is exhausted; the register is then left as it was.
		bool Allocate(CVMRegID id, u32 sizeInBytes);
		// Allocates room for 'elementCount' elements of the register's own type.
		bool AllocateElements(CVMRegID id, u32 elementCount);
		// Scratch memory of the run (CCBCPUMetaRegisters::m_ScratchBuffer), same guarantees.
		bool AllocateScratch(u32 sizeInBytes);
		void Release(CVMRegID id);

		// nullptr / 0 for a register that has no storage or an id outside the table.
		void *Data(CVMRegID id) const;
		template <typename _Type>
		_Type *DataAs(CVMRegID id) const { return static_cast<_Type *>(Data(id)); }
		u32 Size(CVMRegID id) const;
		// Bytes actually allocated (size rounded up, padding included).
		u32 Capacity(CVMRegID id) const;

		u32 SlotCount() const { return m_SlotCount; }
		// The register file to hand to CBytecodeExecContext.
		CCBCPUMetaRegisters &Registers() { return m_Registers; }
		const CCBCPUMetaRegisters &Registers() const { return m_Registers; }

		static u32 CapacityFor(u32 sizeInBytes);

	private:
		CCBCPUMetaRegisters::SRegister *_Entry(CVMRegID id) const;
		void _FreeAll();

		CCBCPUMetaRegisters m_Registers;
		u32 *m_Capacities = nullptr;	// per table entry
		u32 m_SlotCount = 0;
	};
}
