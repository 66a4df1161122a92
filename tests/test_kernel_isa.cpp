// The kernel sets (cbvm_kernel_isa.h): choosing one, and every wide kernel against the
// SSE2 kernel it stands for, byte for byte. Each set the processor lacks is skipped with
// a message.
//
// A wide kernel and the SSE2 kernel run on copies of the same inputs (random words:
// ordinary values, NaNs with payloads, infinities, signed zeros, subnormals, equal
// pairs), over element counts around every period of every width, with packed
// operands, a constant on either side, pointers 16- but not 32-byte aligned and strides
// the vector loops do not take (a hazard; a misaligned pointer, which the SSE2 kernel
// reports and then faults on, goes to it the same way). Every byte of
// the destination buffer (the destination and 64 bytes after it) must match, and so must
// the assertion reports and hazard counts of the call.

#include "cbvm_kernel_isa.h"
#include "cbvm_math_op_kernel_sets.h"
#include "kr_assert.h"
#include "kr_profiler.h"
#include "cp_ir_details.h"
#include "seeded_random.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

namespace
{
	using namespace Orvex;
	using CBVM::EKernelIsa;

	TEST(KernelIsa, NamesAndChoice)
	{
		EXPECT_STREQ(CBVM::KernelIsaName(CBVM::KernelIsa_SSE2), "sse2");
		EXPECT_STREQ(CBVM::KernelIsaName(CBVM::KernelIsa_AVX2), "avx2");
		EXPECT_STREQ(CBVM::KernelIsaName(CBVM::KernelIsa_AVX512), "avx512");
		EXPECT_STREQ(CBVM::KernelIsaName(EKernelIsa(7)), "?");
		EKernelIsa isa = CBVM::KernelIsa_SSE2;
		EXPECT_TRUE(CBVM::KernelIsaFromName("avx512", isa));
		EXPECT_EQ(isa, CBVM::KernelIsa_AVX512);
		// Any letter case names the same set.
		const struct
		{
			const char *m_Text;
			EKernelIsa m_Isa;
		} kSpellings[] = {{"AVX2", CBVM::KernelIsa_AVX2}, {"Avx512", CBVM::KernelIsa_AVX512}, {"SSE2", CBVM::KernelIsa_SSE2},
						  {"sSe2", CBVM::KernelIsa_SSE2}, {"aVX2", CBVM::KernelIsa_AVX2}, {"AVX512", CBVM::KernelIsa_AVX512}};
		for (const auto &spelling : kSpellings)
		{
			isa = EKernelIsa(7);
			EXPECT_TRUE(CBVM::KernelIsaFromName(spelling.m_Text, isa)) << spelling.m_Text;
			EXPECT_EQ(isa, spelling.m_Isa) << spelling.m_Text;
		}
		isa = CBVM::KernelIsa_AVX2;
		for (const char *bad : {"", "avx", "AVX", "sse2 ", " SSE2", "auto", "AUTO", "avx5122", "AVX2X", "avx51"})
		{
			EXPECT_FALSE(CBVM::KernelIsaFromName(bad, isa)) << bad;
			EXPECT_EQ(isa, CBVM::KernelIsa_AVX2) << "a refused name leaves the set alone: " << bad;
		}
		EXPECT_FALSE(CBVM::KernelIsaFromName(nullptr, isa));

		EXPECT_TRUE(CBVM::KernelIsaSupported(CBVM::KernelIsa_SSE2));
		EXPECT_FALSE(CBVM::KernelIsaSupported(EKernelIsa(7)));
		const EKernelIsa widest = CBVM::WidestKernelIsa();
		EXPECT_TRUE(CBVM::KernelIsaSupported(widest));
		const EKernelIsa before = CBVM::ActiveKernelIsa();
		for (u32 i = 0; i < CBVM::__MaxKernelIsas; ++i)
		{
			const EKernelIsa set = EKernelIsa(i);
			EXPECT_EQ(CBVM::KernelIsaSupported(set), i <= u32(widest)) << CBVM::KernelIsaName(set);
			const EKernelIsa active = CBVM::ActiveKernelIsa();
			EXPECT_EQ(CBVM::SetKernelIsa(set), CBVM::KernelIsaSupported(set));
			// A refused set changes nothing.
			EXPECT_EQ(CBVM::ActiveKernelIsa(), CBVM::KernelIsaSupported(set) ? set : active);
		}
		EXPECT_FALSE(CBVM::SetKernelIsa(EKernelIsa(7)));
		EXPECT_TRUE(CBVM::SetKernelIsa(before));
		std::printf("kernel sets: widest %s, active %s\n", CBVM::KernelIsaName(widest), CBVM::KernelIsaName(before));
	}

	// The set chosen at first use from OX_CBVM_ISA, run by CTest (tests/CMakeLists.txt)
	// with the variable spelled in mixed case and OX_TEST_EXPECTED_ISA naming the set it
	// must give ("widest": the widest this machine runs). Run alone, so that nothing else
	// has used the kernel sets before it: the choice is made once per process.
	TEST(KernelIsa, EnvironmentChoice)
	{
		const char *expected = std::getenv("OX_TEST_EXPECTED_ISA");
		if (expected == nullptr)
			GTEST_SKIP() << "run by CTest with OX_CBVM_ISA and OX_TEST_EXPECTED_ISA set";
		EKernelIsa want = CBVM::WidestKernelIsa();
		if (std::strcmp(expected, "widest") != 0)
		{
			ASSERT_TRUE(CBVM::KernelIsaFromName(expected, want)) << expected;
			if (!CBVM::KernelIsaSupported(want))
				GTEST_SKIP() << "this machine does not run " << expected;
		}
		testing::internal::CaptureStderr();
		const EKernelIsa chosen = CBVM::ActiveKernelIsa();
		const std::string err = testing::internal::GetCapturedStderr();
		EXPECT_EQ(chosen, want) << "OX_CBVM_ISA=" << std::getenv("OX_CBVM_ISA");
		// A name read as unknown would also end on the widest set, with this line.
		EXPECT_EQ(err, "") << "OX_CBVM_ISA=" << std::getenv("OX_CBVM_ISA");
	}

	// A word of one of the kinds that tell kernels apart.
	u32 RandomWord(OxTest::CSeededRandom &random)
	{
		switch (random.Uniform(10))
		{
		case 0: return 0x7F800001u + random.Uniform(0x3FFFFF);				// signalling NaN, payload
		case 1: return 0xFFC00000u | random.Uniform(0x3FFFFF);				// quiet NaN, negative, payload
		case 2: return random.Uniform(2) ? 0x7F800000u : 0xFF800000u;		// infinities
		case 3: return random.Uniform(2) ? 0x00000000u : 0x80000000u;		// zeros
		case 4:	// subnormals (the payload drawn first: the operands of | have no set order)
		{
			const u32 payload = random.Uniform(0x7FFFFF);
			return payload | (random.Uniform(2) << 31);
		}
		case 5: return 0x3F800000u;											// 1.0 (equal pairs)
		default:
		{
			float f = random.UniformFloat(-1000.0f, 1000.0f);
			u32 word;
			std::memcpy(&word, &f, 4);
			return word;
		}
		}
	}

	u64 g_Reports = 0;
	int CountReport(const Assert::SReport &)
	{
		++g_Reports;
		return Assert::Answer_Continue;
	}

	// One call's operands: where they sit and how they are walked.
	struct SLayout
	{
		const char *m_Name;
		u32 m_Offset;		// bytes added to every 64-byte aligned pointer
		bool m_Const0, m_Const1;
		u32 m_DstStrideFactor;	// 1: packed; 2: every other element (the slow path)
	};
	constexpr SLayout kLayouts[] = {
		{"packed", 0, false, false, 1},
		{"src1 constant", 0, false, true, 1},
		{"src0 constant", 0, true, false, 1},
		{"16 but not 32-byte aligned", 16, false, false, 1},
		{"32 but not 64-byte aligned", 32, false, false, 1},
		{"48 bytes past a cache line", 48, false, false, 1},
		{"constant, 16 but not 32-byte aligned", 48, false, true, 1},
		{"constant first, 32 but not 64-byte aligned", 32, true, false, 1},
		{"strided destination (slow path)", 0, false, false, 2},
	};

	struct SOutcome
	{
		std::vector<u8> m_Bytes;
		u64 m_Reports;
		u32 m_Hazards[Profiler::CHazards::__MaxHazards];
	};

	class WideFloatKernels : public ::testing::TestWithParam<EKernelIsa>
	{
	protected:
		void SetUp() override { m_Previous = Assert::SetHandler(&CountReport); }
		void TearDown() override { Assert::SetHandler(m_Previous); }

		// Runs 'fn' on fresh copies of the inputs; the destination buffer and what the call counted.
		static SOutcome Run(MathOp::FnOp2Stream fn, const SLayout &l, u32 n, u32 count, const std::vector<u32> &a, const std::vector<u32> &b, bool unary = false)
		{
			constexpr u32 kGuard = 64;
			const u32 bytes = 4 * n;
			const u32 dstBytes = count * bytes * l.m_DstStrideFactor + kGuard;
			std::vector<u8> dst(dstBytes + 128, 0xA5), s0(a.size() * 4 + 128), s1(b.size() * 4 + 128);
			auto place = [&](std::vector<u8> &v) { return reinterpret_cast<u8 *>((reinterpret_cast<std::uintptr_t>(v.data()) + 63) & ~std::uintptr_t(63)) + l.m_Offset; };
			u8 *d = place(dst), *p0 = place(s0), *p1 = place(s1);
			std::memcpy(p0, a.data(), a.size() * 4);
			std::memcpy(p1, b.data(), b.size() * 4);
			Profiler::CHazards &hazards = Profiler::CHazards::CurrentThreadHazards();
			hazards.Reset();
			g_Reports = 0;
			// A unary operator (negation) gets no second operand, as from the selector.
			fn(d, bytes * l.m_DstStrideFactor, count, p0, l.m_Const0 ? 0 : bytes, unary ? nullptr : p1, l.m_Const1 ? 0 : bytes);
			SOutcome out;
			out.m_Bytes.assign(d, d + dstBytes);
			out.m_Reports = g_Reports;
			for (u32 h = 0; h < Profiler::CHazards::__MaxHazards; ++h)
				out.m_Hazards[h] = hazards.Get(Profiler::CHazards::ECounter(h));
			return out;
		}

		Assert::FnHandler m_Previous = nullptr;
	};

	TEST_P(WideFloatKernels, GiveTheSse2KernelsBytesReportsAndHazards)
	{
		const EKernelIsa isa = GetParam();
		if (!CBVM::KernelIsaSupported(isa))
			GTEST_SKIP() << "this machine does not run " << CBVM::KernelIsaName(isa) << " (widest: " << CBVM::KernelIsaName(CBVM::WidestKernelIsa()) << ")";
		const MathOp::FloatKernelTable &wide = isa == CBVM::KernelIsa_AVX512 ? MathOp::g_FloatKernelsAvx512 : MathOp::g_FloatKernelsAvx2;
		OxTest::CSeededRandom random(20261124);
		// (From 64 wide vectors on, a misaligned destination's first elements go to SSE2:
		// 2053 reaches that for every dimension and set.)
		const u32 counts[] = {0, 1, 2, 3, 4, 5, 7, 8, 9, 15, 16, 17, 23, 24, 25, 31, 32, 33, 47, 48, 49, 63, 64, 65, 95, 96, 97, 100, 257, 1001, 2053};
		u32 kernels = 0, calls = 0;
		for (u32 slot = 0; slot < wide.size(); ++slot)
		{
			if (wide[slot] == nullptr)
				continue;
			++kernels;
			const u32 n = slot % 4 + 1;
			for (const SLayout &l : kLayouts)
				for (u32 count : counts)
				{
					std::vector<u32> a((l.m_Const0 ? 1 : count) * n + 4), b((l.m_Const1 ? 1 : count) * n + 4);
					for (u32 &w : a)
						w = RandomWord(random);
					for (u32 &w : b)
						w = random.Uniform(4) == 0 && (&w - b.data()) < std::ptrdiff_t(a.size()) ? a[std::size_t(&w - b.data())] : RandomWord(random);
					const bool unary = Compiler::IR::SOp_MathOp::kTraits[slot / 4].m_ParameterCount == 1;
					const SOutcome expected = Run(MathOp::g_FloatKernelsSse2[slot], l, n, count, a, b, unary);
					const SOutcome got = Run(wide[slot], l, n, count, a, b, unary);
					++calls;
					const std::string where = std::string(CBVM::KernelIsaName(isa)) + " slot " + std::to_string(slot) + " (operator " + std::to_string(slot / 4) + ", N " +
											  std::to_string(n) + "), " + l.m_Name + ", " + std::to_string(count) + " elements";
					ASSERT_EQ(got.m_Reports, expected.m_Reports) << where;
					for (u32 h = 0; h < Profiler::CHazards::__MaxHazards; ++h)
						ASSERT_EQ(got.m_Hazards[h], expected.m_Hazards[h]) << where << ", hazard " << h;
					for (std::size_t i = 0; i < expected.m_Bytes.size(); ++i)
						ASSERT_EQ(got.m_Bytes[i], expected.m_Bytes[i]) << where << ", byte " << i << (i >= count * 4 * n * l.m_DstStrideFactor ? " (past the destination)" : "");
				}
		}
		EXPECT_EQ(kernels, 48u);	// ten lanewise operators, modulo and negation, x four dimensions
		std::printf("%s: %u kernels, %u calls, every byte, report and hazard the SSE2 kernel's\n", CBVM::KernelIsaName(isa), kernels, calls);
	}

	// Float add and mul of two NaNs: the first source's quieted NaN, at every place a
	// kernel computes a lane (vector loops, constant loops, tails, the slow path), in
	// every kernel set. (The compiler may swap a commutative intrinsic's operands, which
	// decides the winner on x86: the vector classes pin them.)
	TEST_P(WideFloatKernels, TwoNaNsGiveTheFirstSourcesNaNEverywhere)
	{
		const EKernelIsa isa = GetParam();
		if (!CBVM::KernelIsaSupported(isa))
			GTEST_SKIP() << "this machine does not run " << CBVM::KernelIsaName(isa);
		const MathOp::FloatKernelTable &wide = isa == CBVM::KernelIsa_AVX512 ? MathOp::g_FloatKernelsAvx512 : MathOp::g_FloatKernelsAvx2;
		constexpr u32 kA = 0x7FA000AAu, kB = 0xFFC000BBu;	// a signalling NaN, a negative quiet NaN
		constexpr u32 kQuietA = kA | 0x00400000u;
		for (const MathOp::FloatKernelTable *table : {&MathOp::g_FloatKernelsSse2, &wide})
			for (u32 op : {u32(Compiler::IR::SOp_MathOp::Op_Add), u32(Compiler::IR::SOp_MathOp::Op_Mul)})
				for (u32 n = 1; n <= 4; ++n)
					for (const SLayout &l : kLayouts)
						for (u32 count : {13u, 100u})
						{
							const std::vector<u32> a((l.m_Const0 ? 1 : count) * n + 4, kA), b((l.m_Const1 ? 1 : count) * n + 4, kB);
							const SOutcome out = Run((*table)[op * 4 + n - 1], l, n, count, a, b);
							for (u32 e = 0; e < count; ++e)
								for (u32 k = 0; k < n; ++k)
								{
									u32 word;
									std::memcpy(&word, out.m_Bytes.data() + (e * l.m_DstStrideFactor * n + k) * 4, 4);
									ASSERT_EQ(word, kQuietA) << (table == &wide ? CBVM::KernelIsaName(isa) : "sse2") << " operator " << op << " N " << n << ", " << l.m_Name << ", "
															 << count << " elements: element " << e << " component " << k;
								}
						}
	}

	// The integer block kernel of each wide set against the SSE2 one (_ExecIntOperatorPacked),
	// as the integer selector calls it: destination and sources 16-byte aligned, a source a
	// stream (48-byte block stride) or a constant's 12-integer block (stride 0).
	TEST_P(WideFloatKernels, IntKernelGivesTheSse2KernelsBytesReportsAndHazards)
	{
		const EKernelIsa isa = GetParam();
		if (!CBVM::KernelIsaSupported(isa))
			GTEST_SKIP() << "this machine does not run " << CBVM::KernelIsaName(isa);
		const MathOp::FnIntPacked wide = isa == CBVM::KernelIsa_AVX512 ? MathOp::g_IntKernelAvx512 : MathOp::g_IntKernelAvx2;
		OxTest::CSeededRandom random(20261125);
		const s32 specials[] = {0, 1, -1, 2, -2, 3, 7, -7, 8, -8, 31, 32, 40, 0x7FFFFFFF, s32(0x80000000u), 12345, -65536, 1 << 20};
		auto word = [&]() { return random.Uniform(3) == 0 ? specials[random.Uniform(std::size(specials))] : s32(random()) >> random.Uniform(31); };
		const u32 counts[] = {0, 5, 11, 12, 13, 23, 24, 25, 36, 47, 48, 49, 60, 95, 96, 97, 144, 300, 1001};
		enum ERight { Right_Stream, Right_Uniform, Right_Mixed, Right_ConstantLeft };
		u32 calls = 0;
		for (u32 op = 0; op < Compiler::IR::SOp_MathOp::__MaxOps; ++op)
		{
			const bool unary = Compiler::IR::SOp_MathOp::kTraits[op].m_ParameterCount == 1;
			for (ERight right : {Right_Stream, Right_Uniform, Right_Mixed, Right_ConstantLeft})
				for (u32 count : counts)
				{
					// count integers; a constant block of 12; every buffer 64-byte aligned plus room.
					std::vector<s32> a(count + 64), b(count + 64), block(12);
					for (s32 &w : a)
						w = word();
					for (s32 &w : b)
						w = word();
					const s32 uniform = word();
					for (u32 i = 0; i < 12; ++i)
						block[i] = right == Right_Uniform ? uniform : word();
					SOutcome outcome[2];
					for (u32 run = 0; run < 2; ++run)
					{
						alignas(64) s32 blockCopy[12];
						std::memcpy(blockCopy, block.data(), sizeof(blockCopy));
						std::vector<s32> dst(count + 64 + 16, s32(0xA5A5A5A5)), s0(a.size() + 16), s1(b.size() + 16);
						auto aligned = [](std::vector<s32> &v) { return reinterpret_cast<s32 *>((reinterpret_cast<std::uintptr_t>(v.data()) + 63) & ~std::uintptr_t(63)); };
						s32 *d = aligned(dst), *p0 = aligned(s0), *p1 = aligned(s1);
						std::memcpy(p0, a.data(), a.size() * 4);
						std::memcpy(p1, b.data(), b.size() * 4);
						const bool leftConstant = right == Right_ConstantLeft, rightConstant = right == Right_Uniform || right == Right_Mixed;
						Profiler::CHazards &hazards = Profiler::CHazards::CurrentThreadHazards();
						hazards.Reset();
						g_Reports = 0;
						(run == 0 ? MathOp::g_IntKernelSse2 : wide)(Compiler::IR::SOp_MathOp::EOp(op), d, d + count, leftConstant ? blockCopy : p0, leftConstant ? 0 : 48,
																	unary ? nullptr : rightConstant ? blockCopy : p1, rightConstant ? 0 : 48);
						outcome[run].m_Bytes.assign(reinterpret_cast<u8 *>(d), reinterpret_cast<u8 *>(d + count + 16));
						outcome[run].m_Reports = g_Reports;
						for (u32 h = 0; h < Profiler::CHazards::__MaxHazards; ++h)
							outcome[run].m_Hazards[h] = hazards.Get(Profiler::CHazards::ECounter(h));
					}
					++calls;
					const std::string where = std::string(CBVM::KernelIsaName(isa)) + " operator " + std::to_string(op) + ", right operand kind " + std::to_string(right) + ", " +
											  std::to_string(count) + " integers";
					ASSERT_EQ(outcome[1].m_Reports, outcome[0].m_Reports) << where;
					for (u32 h = 0; h < Profiler::CHazards::__MaxHazards; ++h)
						ASSERT_EQ(outcome[1].m_Hazards[h], outcome[0].m_Hazards[h]) << where << ", hazard " << h;
					for (std::size_t i = 0; i < outcome[0].m_Bytes.size(); ++i)
						ASSERT_EQ(outcome[1].m_Bytes[i], outcome[0].m_Bytes[i]) << where << ", byte " << i << (i >= count * 4 ? " (past the destination)" : "");
				}
		}
		std::printf("%s: integer kernel, %u calls, every byte, report and hazard the SSE2 kernel's\n", CBVM::KernelIsaName(isa), calls);
	}

	// A destination sharing storage with a source stream, ahead of it, behind it or on it:
	// the SSE2 loop, one vector at a time, reads words it wrote a few vectors before when
	// the destination runs ahead of a source, and the wide kernels must give the words it
	// gives. One buffer holds the source streams and the destination; the whole buffer is
	// compared after the call.
	TEST_P(WideFloatKernels, OverlappingStreamsGiveTheSse2KernelsBytes)
	{
		const EKernelIsa isa = GetParam();
		if (!CBVM::KernelIsaSupported(isa))
			GTEST_SKIP() << "this machine does not run " << CBVM::KernelIsaName(isa);
		const MathOp::FloatKernelTable &wide = isa == CBVM::KernelIsa_AVX512 ? MathOp::g_FloatKernelsAvx512 : MathOp::g_FloatKernelsAvx2;
		const MathOp::FnIntPacked wideInt = isa == CBVM::KernelIsa_AVX512 ? MathOp::g_IntKernelAvx512 : MathOp::g_IntKernelAvx2;
		OxTest::CSeededRandom random(20261126);
		constexpr u32 kCount = 301, kBase = 1024;	// bytes before the first source, room for a destination behind it
		const int shifts[] = {-64, -5, -1, 0, 1, 2, 3, 4, 5, 8, 12, 16, 17, 64};	// destination - source 0, in 16-byte vectors
		std::vector<u32> words((kBase + 4 * 4 * kCount) / 4 + 2048);
		u32 calls = 0;
		// Runs one call on a fresh copy of 'words' at a 64-byte aligned address; the buffer after it.
		auto run = [&](auto &&call) {
			std::vector<u32> buffer(words.size() + 16);
			u8 *base = reinterpret_cast<u8 *>((reinterpret_cast<std::uintptr_t>(buffer.data()) + 63) & ~std::uintptr_t(63));
			std::memcpy(base, words.data(), words.size() * 4);
			call(base);
			return std::vector<u8>(base, base + words.size() * 4);
		};
		for (int shift : shifts)
			for (bool src1Inside : {false, true})
			{
				for (u32 &w : words)
					w = RandomWord(random);
				const std::ptrdiff_t dstAt = std::ptrdiff_t(kBase) + 16 * shift, src1At = src1Inside ? kBase + 32 : kBase + 4 * 4 * kCount + 1024;
				for (u32 slot = 0; slot < wide.size(); ++slot)
				{
					if (wide[slot] == nullptr)
						continue;
					const u32 bytes = 4 * (slot % 4 + 1);
					const bool unary = Compiler::IR::SOp_MathOp::kTraits[slot / 4].m_ParameterCount == 1;
					std::vector<u8> out[2];
					for (int r = 0; r < 2; ++r)
						out[r] = run([&](u8 *base) { (r == 0 ? MathOp::g_FloatKernelsSse2[slot] : wide[slot])(base + dstAt, bytes, kCount, base + kBase, bytes, unary ? nullptr : base + src1At, bytes); });
					++calls;
					ASSERT_EQ(out[1], out[0]) << CBVM::KernelIsaName(isa) << " slot " << slot << ", destination " << shift << " vectors from source 0"
											  << (src1Inside ? ", source 1 in the same storage" : "");
				}
				for (u32 op = 0; op < Compiler::IR::SOp_MathOp::__MaxOps; ++op)
				{
					const bool unary = Compiler::IR::SOp_MathOp::kTraits[op].m_ParameterCount == 1;
					std::vector<u8> out[2];
					for (int r = 0; r < 2; ++r)
						out[r] = run([&](u8 *base) {
							s32 *d = reinterpret_cast<s32 *>(base + dstAt);
							(r == 0 ? MathOp::g_IntKernelSse2 : wideInt)(Compiler::IR::SOp_MathOp::EOp(op), d, d + 4 * kCount, reinterpret_cast<const s32 *>(base + kBase), 48,
																		 unary ? nullptr : reinterpret_cast<const s32 *>(base + src1At), 48);
						});
					++calls;
					ASSERT_EQ(out[1], out[0]) << CBVM::KernelIsaName(isa) << " integer operator " << op << ", destination " << shift << " vectors from source 0"
											  << (src1Inside ? ", source 1 in the same storage" : "");
				}
			}
		std::printf("%s: %u calls with overlapping storage, every byte the SSE2 kernel's\n", CBVM::KernelIsaName(isa), calls);
	}

	INSTANTIATE_TEST_SUITE_P(EverySet, WideFloatKernels, ::testing::Values(CBVM::KernelIsa_AVX2, CBVM::KernelIsa_AVX512),
							 [](const ::testing::TestParamInfo<EKernelIsa> &info) { return std::string(CBVM::KernelIsaName(info.param)); });
}
