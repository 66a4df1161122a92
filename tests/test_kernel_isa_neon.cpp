// The kernel set of an AArch64 build (cbvm_kernel_isa.h): NEON is the only set, its
// name is "neon", and the x86 names are unknown here. The NEON kernels' words are
// checked against the x86 reference by the rest of the suite (the scalar model, the
// fixed bit patterns of test_simd_reference_bits.cpp) and by the golden digests.

#include "cbvm_kernel_isa.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <cstring>
#include <string>

namespace
{
	using namespace Orvex;
	using CBVM::EKernelIsa;

	TEST(KernelIsa, NeonIsTheOnlySet)
	{
		EXPECT_EQ(CBVM::__MaxKernelIsas, 1u);
		EXPECT_EQ(CBVM::KernelIsa_Base, CBVM::KernelIsa_NEON);
		EXPECT_STREQ(CBVM::KernelIsaName(CBVM::KernelIsa_NEON), "neon");
		EXPECT_STREQ(CBVM::KernelIsaName(EKernelIsa(1)), "?");
		EKernelIsa isa = EKernelIsa(5);
		EXPECT_TRUE(CBVM::KernelIsaFromName("neon", isa));
		EXPECT_EQ(isa, CBVM::KernelIsa_NEON);
		// Any letter case names the set, as the x86 names do on x86.
		for (const char *spelling : {"NEON", "Neon", "nEoN"})
		{
			isa = EKernelIsa(5);
			EXPECT_TRUE(CBVM::KernelIsaFromName(spelling, isa)) << spelling;
			EXPECT_EQ(isa, CBVM::KernelIsa_NEON) << spelling;
		}
		isa = CBVM::KernelIsa_NEON;
		for (const char *bad : {"sse2", "avx2", "avx512", "AVX2", "", "auto", "neon ", "neo", "neon2"})
			EXPECT_FALSE(CBVM::KernelIsaFromName(bad, isa)) << bad;
		EXPECT_TRUE(CBVM::KernelIsaSupported(CBVM::KernelIsa_NEON));
		EXPECT_FALSE(CBVM::KernelIsaSupported(EKernelIsa(1)));
		EXPECT_EQ(CBVM::WidestKernelIsa(), CBVM::KernelIsa_NEON);
		EXPECT_TRUE(CBVM::SetKernelIsa(CBVM::KernelIsa_NEON));
		EXPECT_EQ(CBVM::ActiveKernelIsa(), CBVM::KernelIsa_NEON);
		EXPECT_FALSE(CBVM::SetKernelIsa(EKernelIsa(1)));
		EXPECT_EQ(CBVM::ActiveKernelIsa(), CBVM::KernelIsa_NEON);
	}

	// The set chosen at first use from OX_CBVM_ISA, run by CTest (tests/CMakeLists.txt)
	// with the variable spelled in mixed case or naming an x86 set, and
	// OX_TEST_EXPECTED_ISA naming the set it must give ("neon") and whether the choice is
	// refused with a line on stderr ("refused"). Run alone: the choice is made once per
	// process.
	TEST(KernelIsa, EnvironmentChoice)
	{
		const char *expected = std::getenv("OX_TEST_EXPECTED_ISA");
		if (expected == nullptr)
			GTEST_SKIP() << "run by CTest with OX_CBVM_ISA and OX_TEST_EXPECTED_ISA set";
		const bool refused = std::strcmp(expected, "refused") == 0;
		testing::internal::CaptureStderr();
		const EKernelIsa chosen = CBVM::ActiveKernelIsa();
		const std::string err = testing::internal::GetCapturedStderr();
		EXPECT_EQ(chosen, CBVM::KernelIsa_NEON) << "OX_CBVM_ISA=" << std::getenv("OX_CBVM_ISA");
		if (refused)
			EXPECT_NE(err.find("is not auto or neon: using neon"), std::string::npos) << err;
		else
			EXPECT_EQ(err, "") << "OX_CBVM_ISA=" << std::getenv("OX_CBVM_ISA");
	}
}
