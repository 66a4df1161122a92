// Division by a uniform constant through a magic multiplier: the quotient rebuilt
// from ComputeMul32Divisor(d) by DivideByMul32 must be the C truncated quotient for
// every dividend, across the whole divisor range.

#include "mt_integer_tools.h"

#include <gtest/gtest.h>

#include <climits>
#include <cstddef>
#include <cstdio>
#include <thread>
#include <vector>

using namespace Orvex;
using IntegerTools::ComputeMul32Divisor;
using IntegerTools::DivideByMul32;
using IntegerTools::SMulDivisor;

namespace
{
	// Every random value in this file derives from this seed, so a failure replays.
	constexpr u64 kSeed = 0x5EEDD1F1DE0C0FFEull;

	void PrintSeed()
	{
		std::printf("[ IntegerTools ] random seed 0x%016llx\n", static_cast<unsigned long long>(kSeed));
	}

	// Small, fast, well-mixed generator (splitmix64).
	struct SRng
	{
		u64 m_State;

		explicit SRng(u64 seed) : m_State(seed) {}

		u64 Next64()
		{
			u64 z = (m_State += 0x9E3779B97F4A7C15ull);
			z = (z ^ (z >> 30)) * 0xBF58476D1CE4E5B9ull;
			z = (z ^ (z >> 27)) * 0x94D049BB133111EBull;
			return z ^ (z >> 31);
		}

		s32 NextS32() { return s32(u32(Next64() >> 32)); }
	};

	// The truncated quotient, in 64 bits so that no 32-bit overflow can trap. This also
	// covers d == INT_MIN: |a| <= 2^31 so the quotient is 0 except INT_MIN / INT_MIN == 1.
	s32 ReferenceQuotient(s32 a, s32 d)
	{
		return s32(s64(a) / s64(d));
	}

	bool Representable(s64 v)
	{
		return v >= s64(INT_MIN) && v <= s64(INT_MAX);
	}

	// Edge dividends for divisor d: the range ends, zero and its neighbours, and k*d-1,
	// k*d, k*d+1 for multiples near zero and near both ends of the 32-bit range.
	// Returns the count written to 'out' (capacity 64).
	int EdgeDividends(s32 d, s32 *out)
	{
		int n = 0;
		const s32 fixedValues[] = {INT_MIN, INT_MIN + 1, INT_MIN + 2, INT_MAX, INT_MAX - 1, INT_MAX - 2, 0, 1, -1, 2, -2};
		for (s32 v : fixedValues)
			out[n++] = v;

		const s64 kHigh = s64(INT_MAX) / s64(d);
		const s64 kLow = s64(INT_MIN) / s64(d);
		const s64 ks[] = {1, -1, 2, -2, 3, -3, 7, -7, kHigh, kHigh - 1, kHigh + 1, kLow, kLow - 1, kLow + 1};
		for (s64 k : ks)
		{
			const s64 base = k * s64(d);
			for (s64 delta = -1; delta <= 1; ++delta)
			{
				const s64 v = base + delta;
				if (Representable(v))
					out[n++] = s32(v);
			}
		}
		return n;
	}

	// Collects mismatches without paying for a gtest assertion per dividend.
	struct SChecker
	{
		u64 m_Checks = 0;
		u64 m_Failures = 0;
		u64 m_BadShifts = 0;

		void CheckShift(s32 d, const SMulDivisor &md)
		{
			if (md.m_Shifter > 31)
			{
				if (++m_BadShifts <= 8)
					ADD_FAILURE() << "divisor " << d << ": shift " << md.m_Shifter << " exceeds 31";
			}
		}

		void Check(s32 a, s32 d, const SMulDivisor &md)
		{
			++m_Checks;
			const s32 expected = ReferenceQuotient(a, d);
			const s32 got = DivideByMul32(a, d, md);
			if (got != expected)
			{
				if (++m_Failures <= 16)
					ADD_FAILURE() << a << " / " << d << ": expected " << expected << ", got " << got
								  << " (M = " << md.m_Multiplier << ", s = " << md.m_Shifter << ")";
			}
		}

		// The edge set plus 'randomCount' random dividends.
		void CheckDivisor(s32 d, SRng &rng, int randomCount)
		{
			const SMulDivisor md = ComputeMul32Divisor(d);
			CheckShift(d, md);
			s32 dividends[64];
			const int n = EdgeDividends(d, dividends);
			for (int i = 0; i < n; ++i)
				Check(dividends[i], d, md);
			for (int i = 0; i < randomCount; ++i)
				Check(rng.NextS32(), d, md);
		}
	};

	bool IsTrivialDivisor(s32 d)
	{
		return d == 0 || d == 1 || d == -1;
	}
}

//----------------------------------------------------------------------------

TEST(IntegerToolsMul32Divisor, LayoutIsTwoPackedWords)
{
	static_assert(sizeof(SMulDivisor) == 8, "layout");
	static_assert(offsetof(SMulDivisor, m_Multiplier) == 0, "layout");
	static_assert(offsetof(SMulDivisor, m_Shifter) == 4, "layout");
	const SMulDivisor md{-123, 7u};
	EXPECT_EQ(md.m_Multiplier, -123);
	EXPECT_EQ(md.m_Shifter, 7u);
}

TEST(IntegerToolsMul32Divisor, MulHi32IsTheHighHalfOfTheProduct)
{
	PrintSeed();
	SRng rng(kSeed ^ 0x1);
	const s32 edges[] = {INT_MIN, INT_MIN + 1, -2, -1, 0, 1, 2, INT_MAX - 1, INT_MAX};
	for (s32 a : edges)
		for (s32 b : edges)
		{
			const s64 product = s64(a) * s64(b);
			// Floor division by 2^32, written without relying on shifting a negative value.
			const s64 high = (product >= 0) ? product / (s64(1) << 32) : -((-product + (s64(1) << 32) - 1) / (s64(1) << 32));
			EXPECT_EQ(IntegerTools::MulHi32(a, b), s32(high)) << a << " * " << b;
		}
	for (int i = 0; i < 100000; ++i)
	{
		const s32 a = rng.NextS32();
		const s32 b = rng.NextS32();
		const s64 product = s64(a) * s64(b);
		const s64 high = (product >= 0) ? product / (s64(1) << 32) : -((-product + (s64(1) << 32) - 1) / (s64(1) << 32));
		ASSERT_EQ(IntegerTools::MulHi32(a, b), s32(high)) << a << " * " << b;
	}
}

TEST(IntegerToolsMul32Divisor, ZeroDivisorGivesZeroQuotientAndKeepsTheDividend)
{
	PrintSeed();
	const SMulDivisor md = ComputeMul32Divisor(0);
	EXPECT_EQ(md.m_Multiplier, 0);
	EXPECT_EQ(md.m_Shifter, 0u);

	SRng rng(kSeed ^ 0x2);
	std::vector<s32> dividends = {INT_MIN, INT_MIN + 1, INT_MAX, INT_MAX - 1, 0, 1, -1, 12345, -12345};
	for (int i = 0; i < 1000; ++i)
		dividends.push_back(rng.NextS32());
	for (s32 a : dividends)
	{
		const s32 q = DivideByMul32(a, 0, md);
		EXPECT_EQ(q, 0) << "dividend " << a;
		const s32 remainder = s32(u32(a) - u32(q) * 0u);
		EXPECT_EQ(remainder, a) << "dividend " << a;
	}
}

TEST(IntegerToolsMul32Divisor, UnitDivisorsReturnTheDocumentedPlaceholder)
{
	// +-1 are resolved by the kernels before the multiply; they get {0, 0}.
	for (s32 d : {1, -1})
	{
		const SMulDivisor md = ComputeMul32Divisor(d);
		EXPECT_EQ(md.m_Multiplier, 0) << "divisor " << d;
		EXPECT_EQ(md.m_Shifter, 0u) << "divisor " << d;
	}
}

TEST(IntegerToolsMul32Divisor, IntMinDivisor)
{
	PrintSeed();
	const s32 d = INT_MIN;
	const SMulDivisor md = ComputeMul32Divisor(d);
	EXPECT_LE(md.m_Shifter, 31u);

	// |a| <= 2^31 == |d|, so the truncated quotient is 1 for INT_MIN itself and 0 for
	// everything else: checked here independently of the reference helper.
	EXPECT_EQ(DivideByMul32(INT_MIN, d, md), 1);
	const s32 zeros[] = {INT_MIN + 1, INT_MIN + 2, -(1 << 30), -1, 0, 1, 1 << 30, INT_MAX - 1, INT_MAX};
	for (s32 a : zeros)
		EXPECT_EQ(DivideByMul32(a, d, md), 0) << "dividend " << a;

	SRng rng(kSeed ^ 0x3);
	for (int i = 0; i < 200000; ++i)
	{
		const s32 a = rng.NextS32();
		ASSERT_EQ(DivideByMul32(a, d, md), a == INT_MIN ? 1 : 0) << "dividend " << a;
	}
}

TEST(IntegerToolsMul32Divisor, SmallDivisorsAgainstEdgeAndRandomDividends)
{
	PrintSeed();
	SRng rng(kSeed ^ 0x4);
	SChecker checker;
	u64 addCorrected = 0, subCorrected = 0, uncorrected = 0;
	for (s32 d = -70000; d <= 70000; ++d)
	{
		if (IsTrivialDivisor(d))
			continue;
		checker.CheckDivisor(d, rng, 32);

		const SMulDivisor md = ComputeMul32Divisor(d);
		if (d > 0 && md.m_Multiplier < 0)
			++addCorrected;
		else if (d < 0 && md.m_Multiplier > 0)
			++subCorrected;
		else
			++uncorrected;
	}
	EXPECT_EQ(checker.m_Failures, 0u);
	EXPECT_EQ(checker.m_BadShifts, 0u);
	EXPECT_GT(checker.m_Checks, 140000u * 40u);
	// The range must exercise both corrections and the plain path.
	EXPECT_GT(addCorrected, 0u);
	EXPECT_GT(subCorrected, 0u);
	EXPECT_GT(uncorrected, 0u);
}

TEST(IntegerToolsMul32Divisor, DenseDividendsForAFewDivisors)
{
	// Every dividend in a window around zero and around both range ends.
	const s32 divisors[] = {2, -2, 3, -3, 5, -5, 6, -6, 7, -7, 10, -10, 641, -641, 6700417, -6700417,
							1 << 30, -(1 << 30), INT_MAX, INT_MIN + 1, INT_MIN};
	SChecker checker;
	for (s32 d : divisors)
	{
		const SMulDivisor md = ComputeMul32Divisor(d);
		checker.CheckShift(d, md);
		for (s32 a = -(1 << 18); a <= (1 << 18); ++a)
			checker.Check(a, d, md);
		for (s32 i = 0; i < (1 << 16); ++i)
		{
			checker.Check(INT_MIN + i, d, md);
			checker.Check(INT_MAX - i, d, md);
		}
	}
	EXPECT_EQ(checker.m_Failures, 0u);
	EXPECT_EQ(checker.m_BadShifts, 0u);
}

TEST(IntegerToolsMul32Divisor, PowersOfTwoAndRangeEnds)
{
	PrintSeed();
	SRng rng(kSeed ^ 0x5);
	std::vector<s64> centres;
	for (int k = 1; k <= 30; ++k)
		centres.push_back(s64(1) << k);
	for (int k = 1; k <= 31; ++k)
		centres.push_back(-(s64(1) << k));
	centres.push_back(s64(INT_MAX));
	centres.push_back(s64(INT_MIN) + 1);

	SChecker checker;
	int divisorCount = 0;
	for (s64 c : centres)
		for (s64 delta = -2; delta <= 2; ++delta)
		{
			const s64 d = c + delta;
			if (!Representable(d) || IsTrivialDivisor(s32(d)))
				continue;
			checker.CheckDivisor(s32(d), rng, 4096);
			++divisorCount;
		}
	EXPECT_EQ(checker.m_Failures, 0u);
	EXPECT_EQ(checker.m_BadShifts, 0u);
	EXPECT_GT(divisorCount, 300);
}

TEST(IntegerToolsMul32Divisor, DivisorsSpreadAcrossTheWholeRange)
{
	PrintSeed();
	SRng rng(kSeed ^ 0x6);
	SChecker checker;
	u64 divisorCount = 0;

	// A fixed odd stride through all 2^32 values: about a million divisors.
	const u32 stride = 4093u;
	for (u64 v = 12345u; v < (u64(1) << 32); v += stride)
	{
		const s32 d = s32(u32(v));
		if (IsTrivialDivisor(d))
			continue;
		checker.CheckDivisor(d, rng, 4);
		++divisorCount;
	}
	// And a million random ones.
	for (int i = 0; i < 1000000; ++i)
	{
		const s32 d = rng.NextS32();
		if (IsTrivialDivisor(d))
			continue;
		checker.CheckDivisor(d, rng, 4);
		++divisorCount;
	}
	EXPECT_GT(divisorCount, 2000000u);
	EXPECT_EQ(checker.m_Failures, 0u);
	EXPECT_EQ(checker.m_BadShifts, 0u);
}

// Every 32-bit divisor but -1, 0, 1 against the edge dividends. Takes minutes: run by
// hand with --gtest_also_run_disabled_tests.
TEST(IntegerToolsMul32Divisor, DISABLED_EveryDivisor)
{
	PrintSeed();
	struct SThreadResult
	{
		u64 m_Checks = 0;
		u64 m_Failures = 0;
		u64 m_BadShifts = 0;
		s32 m_FirstA = 0, m_FirstD = 0, m_FirstExpected = 0, m_FirstGot = 0;
	};

	constexpr int kThreads = 2;
	SThreadResult results[kThreads];

	auto work = [&results](int index) {
		SThreadResult &r = results[index];
		SRng rng(kSeed ^ (0x100u + u64(index)));
		auto check = [&r](s32 a, s32 d, const SMulDivisor &md) {
			++r.m_Checks;
			const s32 expected = ReferenceQuotient(a, d);
			const s32 got = DivideByMul32(a, d, md);
			if (got != expected && r.m_Failures++ == 0)
			{
				r.m_FirstA = a;
				r.m_FirstD = d;
				r.m_FirstExpected = expected;
				r.m_FirstGot = got;
			}
		};
		// Interleaved blocks keep both threads busy with a similar mix of divisors.
		constexpr u64 kBlock = u64(1) << 20;
		for (u64 block = u64(index) * kBlock; block < (u64(1) << 32); block += kThreads * kBlock)
			for (u64 v = block; v < block + kBlock; ++v)
			{
				const s32 d = s32(u32(v));
				if (IsTrivialDivisor(d))
					continue;
				const SMulDivisor md = ComputeMul32Divisor(d);
				if (md.m_Shifter > 31)
					++r.m_BadShifts;
				check(INT_MIN, d, md);
				check(INT_MAX, d, md);
				check(0, d, md);
				check(1, d, md);
				check(-1, d, md);
				check(d, d, md);
				if (d != INT_MIN)
				{
					check(d - 1, d, md);
					check(-d, d, md);
				}
				if (d != INT_MAX)
					check(d + 1, d, md);
				check(rng.NextS32(), d, md);
				check(rng.NextS32(), d, md);
			}
	};

	std::thread threads[kThreads];
	for (int i = 0; i < kThreads; ++i)
		threads[i] = std::thread(work, i);
	for (std::thread &t : threads)
		t.join();

	u64 checks = 0;
	for (const SThreadResult &r : results)
	{
		checks += r.m_Checks;
		EXPECT_EQ(r.m_BadShifts, 0u);
		EXPECT_EQ(r.m_Failures, 0u) << "first failure: " << r.m_FirstA << " / " << r.m_FirstD << ": expected "
									<< r.m_FirstExpected << ", got " << r.m_FirstGot;
	}
	std::printf("[ IntegerTools ] %llu quotients checked\n", static_cast<unsigned long long>(checks));
	EXPECT_GT(checks, u64(4294967293u) * 10u);
}
