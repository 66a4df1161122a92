#include "cbvm_kernel_isa.h"

#include "cbvm_math_op_float_kernels.h"
#include "cbvm_math_op_int_selector.h"
#include "cbvm_math_op_kernel_sets.h"

#include <atomic>
#if !defined(__aarch64__)
#	include <cpuid.h>
#endif
#include <cstdio>
#include <cstdlib>
#include <cstring>

namespace Orvex
{
	namespace MathOp
	{
		const FloatKernelTable g_FloatKernelsSse2 = _FnMathOpLookup;
		const FnIntPacked g_IntKernelSse2 = &_ExecIntOperatorPacked;
		std::atomic<const SKernelSet *> g_ActiveKernelSet{nullptr};
	}

	namespace CBVM
	{
		namespace
		{
#if defined(__aarch64__)
			constexpr const char *kIsaNames[] = {"neon"};
			constexpr const char *kIsaChoices = "auto or neon";
#else
			constexpr const char *kIsaNames[] = {"sse2", "avx2", "avx512"};
			constexpr const char *kIsaChoices = "auto, sse2, avx2 or avx512";
#endif
			static_assert(sizeof(kIsaNames) / sizeof(kIsaNames[0]) == __MaxKernelIsas, "a name for every kernel set");

			// Names are compared without regard to ASCII case: people write AVX2 and Avx512
			// as often as avx2 (strcasecmp would follow the locale).
			bool SameName(const char *text, const char *name)
			{
				for (; *text != '\0' && *name != '\0'; ++text, ++name)
				{
					const char c = *text >= 'A' && *text <= 'Z' ? char(*text - 'A' + 'a') : *text;
					if (c != *name)
						return false;
				}
				return *text == *name;
			}

#if defined(__aarch64__)
			// Advanced SIMD is part of every AArch64 processor: NEON is the only set.
			EKernelIsa Widest()
			{
				return KernelIsa_NEON;
			}

			// The SSE2 kernels' source built on the NEON layer; like SSE2, no routed integer
			// kernels and no float modulo-by-constant row.
			const MathOp::SKernelSet &RowOf(EKernelIsa isa)
			{
				static const MathOp::SKernelSet s_Rows[] = {
					{MathOp::g_FloatKernelsSse2, MathOp::g_IntKernelSse2, 0, nullptr, {}, KernelIsa_NEON, kIsaNames[KernelIsa_NEON]},
				};
				static_assert(sizeof(s_Rows) / sizeof(s_Rows[0]) == __MaxKernelIsas, "a row for every kernel set");
				return s_Rows[isa];
			}
#else

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

			// The rows, made on first use (a wide set's table merges in SSE2's kernels).
			const MathOp::SKernelSet &RowOf(EKernelIsa isa)
			{
				// The wide integer kernels' block: three vectors of 8 or 16 integers.
				static const MathOp::SKernelSet s_Rows[] = {
					{MathOp::g_FloatKernelsSse2, MathOp::g_IntKernelSse2, 0, nullptr, {}, KernelIsa_SSE2, kIsaNames[KernelIsa_SSE2]},
					{Merged(MathOp::g_FloatKernelsAvx2), MathOp::g_IntKernelAvx2, 24, MathOp::g_IntRouteAvx2, MathOp::g_FloatModByConstantAvx2, KernelIsa_AVX2, kIsaNames[KernelIsa_AVX2]},
					{Merged(MathOp::g_FloatKernelsAvx512), MathOp::g_IntKernelAvx512, 48, MathOp::g_IntRouteAvx512, MathOp::g_FloatModByConstantAvx512, KernelIsa_AVX512, kIsaNames[KernelIsa_AVX512]},
				};
				static_assert(sizeof(s_Rows) / sizeof(s_Rows[0]) == __MaxKernelIsas, "a row for every kernel set");
				return s_Rows[isa];
			}
#endif

			// The first choice: the widest set, or OX_CBVM_ISA's.
			EKernelIsa FirstChoice()
			{
				EKernelIsa isa = Widest();
				const char *asked = std::getenv("OX_CBVM_ISA");
				if (asked != nullptr && asked[0] != '\0' && !SameName(asked, "auto"))
				{
					EKernelIsa named = KernelIsa_Base;
					if (!KernelIsaFromName(asked, named))
						std::fprintf(stderr, "orvex cbvm: OX_CBVM_ISA=%.40s is not %s: using %s\n", asked, kIsaChoices, KernelIsaName(isa));
					else if (!KernelIsaSupported(named))
						std::fprintf(stderr, "orvex cbvm: OX_CBVM_ISA=%s: this machine does not run it: using %s\n", asked, KernelIsaName(isa));
					else
						isa = named;
				}
				return isa;
			}
		}

		const char *KernelIsaName(EKernelIsa isa)
		{
			return u32(isa) < __MaxKernelIsas ? kIsaNames[isa] : "?";
		}

		bool KernelIsaFromName(const char *name, EKernelIsa &isa)
		{
			for (u32 i = 0; name != nullptr && i < __MaxKernelIsas; ++i)
				if (SameName(name, kIsaNames[i]))
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
			return MathOp::ActiveKernelSet().m_Isa;
		}

		bool SetKernelIsa(EKernelIsa isa)
		{
			if (!KernelIsaSupported(isa))
				return false;
			MathOp::g_ActiveKernelSet.store(&RowOf(isa), std::memory_order_relaxed);
			return true;
		}
	}
}

namespace Orvex
{
	namespace MathOp
	{
		// Two threads may both get here first: each stores the same row (or a set that
		// SetKernelIsa stored meanwhile wins, as a later SetKernelIsa would).
		const SKernelSet &_ChooseKernelSetAtFirstUse()
		{
			const SKernelSet *expected = nullptr;
			const SKernelSet *chosen = &CBVM::RowOf(CBVM::FirstChoice());
			if (!g_ActiveKernelSet.compare_exchange_strong(expected, chosen, std::memory_order_relaxed))
				return *expected;
			return *chosen;
		}
	}
}
