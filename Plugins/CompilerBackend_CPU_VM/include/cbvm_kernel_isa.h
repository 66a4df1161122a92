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
//
// On AArch64 there is one set, NEON ("neon"): the SSE2 kernels' source compiled against
// the NEON layer (simd/neon/simd_vector.h), giving the same bits as SSE2 on x86.
// OX_CBVM_ISA takes auto or neon there (in any letter case as well).

#include "kr_base_types.h"

namespace Orvex
{
	namespace CBVM
	{
		// The sets of the architecture the library is built for. KernelIsa_Base is the
		// reference set every other one is checked against: SSE2 on x86, NEON on AArch64
		// (its only set, which gives the SSE2 bits as well).
		enum EKernelIsa : u8
		{
#if defined(__aarch64__)
			KernelIsa_NEON = 0,
			__MaxKernelIsas,
			KernelIsa_Base = KernelIsa_NEON,
#else
			KernelIsa_SSE2 = 0,
			KernelIsa_AVX2,
			KernelIsa_AVX512,
			__MaxKernelIsas,
			KernelIsa_Base = KernelIsa_SSE2,
#endif
		};

		// "sse2", "avx2", "avx512" (x86) or "neon" (AArch64); "?" outside the enumeration.
		const char *KernelIsaName(EKernelIsa isa);
		// The set named 'name' (one of the names above, ASCII letters in any case, so
		// "AVX2" and "NEON" too); false for any other text.
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
