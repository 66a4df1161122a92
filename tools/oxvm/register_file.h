#pragma once
// The register file of a run: one CRegisterStorage allocation per declared register
// (aligned, padded, zero-filled by the VM's owner), filled from the initialisers.

#include "cbvm_register_storage.h"
#include "program.h"

#include <functional>
#include <string>

namespace OxVm
{
	class CRegisterFile : public CNonCopyable
	{
	public:
		// Allocates every register of a checked program for 'elements' elements and runs
		// the initialisers; random values come from one generator seeded with 'seed',
		// drawn in declaration order. False with 'error' set when memory runs out.
		// 'progress' (may be empty) hears how many of the registers' words are allocated
		// and filled, out of a total, every few hundred thousand words: a stream of
		// millions of elements takes seconds to initialise.
		using FnProgress = std::function<void(u64 done, u64 total)>;
		bool Build(const SProgram &program, u32 elements, u32 seed, std::string &error, const FnProgress &progress = FnProgress());

		// Same registers and contents as 'other' (for running a second path).
		bool CopyFrom(const SProgram &program, const CRegisterFile &other, std::string &error);

		// Bytes the registers of a checked program take once allocated (padding and
		// alignment included), known before any is allocated. (The checker has refused a
		// register larger than a register can be.)
		static u64 BytesNeeded(const SProgram &program);

		CRegisterStorage &Storage() { return m_Storage; }
		const CRegisterStorage &Storage() const { return m_Storage; }
		// The register's words (count x components of them).
		u32 *Words(const SProgram &program, s32 index) const;
		u32 WordCount(const SProgram &program, s32 index) const;

	private:
		bool _Allocate(const SProgram &program, u32 elements, std::string &error, const FnProgress &progress = FnProgress(), u64 total = 0);

		CRegisterStorage m_Storage;
	};

	// The memory the machine can still give (MemAvailable of /proc/meminfo); ~0 when not
	// known. (An address-space limit shows when the memory is asked for.)
	u64 AvailableMemory();
}
