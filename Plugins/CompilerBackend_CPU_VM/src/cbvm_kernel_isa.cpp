#include "cbvm_kernel_isa.h"

#include "cbvm_math_op_float_kernels.h"
#include "cbvm_math_op_int_selector.h"
#include "cbvm_math_op_kernel_sets.h"

#include <atomic>
#include <cpuid.h>
#include <cstdio>
#include <cstdlib>
#include <cstring>

namespace Orvex
{
	namespace MathOp
	{
		const FloatKernelTable g_FloatKernelsSse2 = _FnMathOpLookup;
		std::atomic<const FloatKernelTable *> g_ActiveFloatKernels{&g_FloatKernelsSse2};
		const FnIntPacked g_IntKernelSse2 = &_ExecIntOperatorPacked;
		std::atomic<FnIntPacked> g_ActiveIntKernel{&_ExecIntOperatorPacked};
		std::atomic<u32> g_ActiveIntMinInts{0};
	}

	namespace CBVM
	{
		namespace
		{
			constexpr const char *kIsaNames[] = {"sse2", "avx2", "avx512"};
			static_assert(sizeof(kIsaNames) / sizeof(kIsaNames[0]) == __MaxKernelIsas, "a name for every kernel set");

			// XCR0: the register state the operating system saves on a context switch.
			u64 EnabledState()
			{
				u32 eax = 0, edx = 0;
				__asm__ volatile("xgetbv" : "=a"(eax), "=d"(edx) : "c"(0));
				return (u64(edx) << 32) | eax;
			}

			// What the processor has and the system saves: AVX2 needs the XMM and YMM state
			// (XCR0 bits 1, 2); AVX-512 (F, DQ, BW, VL) also the mask and ZMM state (5 to 7).
			EKernelIsa Detect()
			{
				unsigned eax = 0, ebx = 0, ecx = 0, edx = 0;
				if (!__get_cpuid(1, &eax, &ebx, &ecx, &edx) || (ecx & (1u << 27)) == 0 || (ecx & (1u << 28)) == 0)	// OSXSAVE, AVX
					return KernelIsa_SSE2;
				const u64 state = EnabledState();
				if ((state & 0x6) != 0x6 || !__get_cpuid_count(7, 0, &eax, &ebx, &ecx, &edx) || (ebx & (1u << 5)) == 0)	// AVX2
					return KernelIsa_SSE2;
				constexpr u32 kAvx512 = (1u << 16) | (1u << 17) | (1u << 30) | (1u << 31);	// F, DQ, BW, VL
				if ((state & 0xE6) != 0xE6 || (ebx & kAvx512) != kAvx512)
					return KernelIsa_AVX2;
				return KernelIsa_AVX512;
			}

			EKernelIsa Widest()
			{
				static const EKernelIsa s_Widest = Detect();
				return s_Widest;
			}

			// A set's table: its own kernels, SSE2's where it has none.
			MathOp::FloatKernelTable Merged(const MathOp::FloatKernelTable &wide)
			{
				MathOp::FloatKernelTable table = MathOp::g_FloatKernelsSse2;
				for (std::size_t i = 0; i < table.size(); ++i)
					if (wide[i] != nullptr && table[i] != nullptr)
						table[i] = wide[i];
				return table;
			}

			const MathOp::FloatKernelTable *FloatTableOf(EKernelIsa isa)
			{
				static const MathOp::FloatKernelTable s_Avx2 = Merged(MathOp::g_FloatKernelsAvx2);
				static const MathOp::FloatKernelTable s_Avx512 = Merged(MathOp::g_FloatKernelsAvx512);
				return isa == KernelIsa_AVX512 ? &s_Avx512 : isa == KernelIsa_AVX2 ? &s_Avx2 : &MathOp::g_FloatKernelsSse2;
			}

			std::atomic<u8> s_Active{KernelIsa_SSE2};

			// The choice at start-up: the widest set, or OX_CBVM_ISA's.
			struct SChooseAtStart
			{
				SChooseAtStart()
				{
					EKernelIsa isa = Widest();
					const char *asked = std::getenv("OX_CBVM_ISA");
					if (asked != nullptr && asked[0] != '\0' && std::strcmp(asked, "auto") != 0)
					{
						EKernelIsa named = KernelIsa_SSE2;
						if (!KernelIsaFromName(asked, named))
							std::fprintf(stderr, "orvex cbvm: OX_CBVM_ISA=%.40s is not auto, sse2, avx2 or avx512: using %s\n", asked, KernelIsaName(isa));
						else if (!KernelIsaSupported(named))
							std::fprintf(stderr, "orvex cbvm: OX_CBVM_ISA=%s: this machine does not run it: using %s\n", asked, KernelIsaName(isa));
						else
							isa = named;
					}
					SetKernelIsa(isa);
				}
			};
			const SChooseAtStart s_ChooseAtStart;
		}

		const char *KernelIsaName(EKernelIsa isa)
		{
			return u32(isa) < __MaxKernelIsas ? kIsaNames[isa] : "?";
		}

		bool KernelIsaFromName(const char *name, EKernelIsa &isa)
		{
			for (u32 i = 0; name != nullptr && i < __MaxKernelIsas; ++i)
				if (std::strcmp(name, kIsaNames[i]) == 0)
				{
					isa = EKernelIsa(i);
					return true;
				}
			return false;
		}

		bool KernelIsaSupported(EKernelIsa isa)
		{
			return u32(isa) < __MaxKernelIsas && isa <= Widest();
		}

		EKernelIsa WidestKernelIsa()
		{
			return Widest();
		}

		EKernelIsa ActiveKernelIsa()
		{
			return EKernelIsa(s_Active.load(std::memory_order_relaxed));
		}

		bool SetKernelIsa(EKernelIsa isa)
		{
			if (!KernelIsaSupported(isa))
				return false;
			MathOp::g_ActiveFloatKernels.store(FloatTableOf(isa), std::memory_order_relaxed);
			MathOp::g_ActiveIntKernel.store(isa == KernelIsa_AVX512 ? MathOp::g_IntKernelAvx512 : isa == KernelIsa_AVX2 ? MathOp::g_IntKernelAvx2 : MathOp::g_IntKernelSse2,
											std::memory_order_relaxed);
			// Three vectors of 16, 8 or 4 integers: the wide kernels' block.
			MathOp::g_ActiveIntMinInts.store(isa == KernelIsa_AVX512 ? 48u : isa == KernelIsa_AVX2 ? 24u : 0u, std::memory_order_relaxed);
			s_Active.store(isa, std::memory_order_relaxed);
			return true;
		}
	}
}
