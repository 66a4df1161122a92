#pragma once
// Which kernel set the standard path runs: SSE2 (the reference, on every x86-64
// processor), AVX2 or AVX-512. Every set gives the SSE2 kernels' results bit for bit
// (every destination word, NaN payloads included, every assertion report, hazard count
// and warning, the bytes written); the wider ones only get there faster. A kernel that a
// set does not widen runs the SSE2 one.
//
// At first use (not during static initialisation) the library picks the widest set
// that the processor and the operating system support (CPUID, and XGETBV for the
// register state the system saves). The environment variable OX_CBVM_ISA (auto, sse2,
// avx2, avx512, in any letter case: AVX2 and Avx512 too), read at that moment, overrides
// the choice; a set the machine lacks, or an unknown name, falls back to auto with one
// line on stderr. SetKernelIsa changes it at any time (refusing a set the machine
// lacks); a call that is running keeps the kernel it started with. The choice
// costs nothing per instruction beyond the kernel-table lookup the path always does.

#include "kr_base_types.h"

namespace Orvex
{
	namespace CBVM
	{
		enum EKernelIsa : u8
		{
			KernelIsa_SSE2 = 0,
			KernelIsa_AVX2,
			KernelIsa_AVX512,
			__MaxKernelIsas
		};

		// "sse2", "avx2", "avx512"; "?" outside the enumeration.
		const char *KernelIsaName(EKernelIsa isa);
		// The set named 'name' ("sse2", "avx2", "avx512", ASCII letters in any case, so
		// "AVX2" too); false for any other text.
		bool KernelIsaFromName(const char *name, EKernelIsa &isa);

		// Whether this processor and operating system run the set (SSE2: always).
		bool KernelIsaSupported(EKernelIsa isa);
		// The widest supported set.
		EKernelIsa WidestKernelIsa();

		// The set the standard path runs now.
		EKernelIsa ActiveKernelIsa();
		// Runs 'isa' from now on; false (and nothing changes) when it is not supported.
		bool SetKernelIsa(EKernelIsa isa);
	}
}
