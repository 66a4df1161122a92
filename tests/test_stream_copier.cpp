// Constant broadcasting: the 48-byte block TBroadcaster<N>::Broadcast12 builds from one
// element of 1 to 4 components, what it reads, and what it reports.

#include "cbvm_stream_copier.h"
#include "test_support.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

using namespace Orvex;
using OxTest::CAssertCapture;

namespace
{
	// Never part of an element: a word that shows up in a block was read from the wrong place.
	constexpr u32 kPoison = 0xDEADBEEFu;
	// What the words around a block hold before the call.
	constexpr u32 kGuard = 0xC0FFEE00u;

	// Elements whose words are all distinct, with bit patterns a float copy could alter
	// (signalling NaN, -0, denormal, all ones): the block must hold them bit for bit.
	const u32 kElement[4] = {0x7FA00001u, 0x80000000u, 0x00000001u, 0xFFFFFFFFu};

	// A 48-byte block with 16 guard words on each side, the block 32-byte aligned.
	struct alignas(32) SBlockArea
	{
		u32 m_Before[16];
		u32 m_Block[12];
		u32 m_After[20];

		SBlockArea()
		{
			for (u32 &w : m_Before)
				w = kGuard;
			for (u32 &w : m_Block)
				w = kGuard;
			for (u32 &w : m_After)
				w = kGuard;
		}

		bool GuardsIntact() const
		{
			for (u32 w : m_Before)
				if (w != kGuard)
					return false;
			for (u32 w : m_After)
				if (w != kGuard)
					return false;
			return true;
		}
	};

	template <int _Dimension>
	const void *Broadcast(const void *src, void *dst)
	{
		return TBroadcaster<_Dimension>::Broadcast12(src, dst);
	}

	using FnBroadcast = const void *(*)(const void *, void *);

	FnBroadcast BroadcastFor(int dimension)
	{
		switch (dimension)
		{
		case 1: return &Broadcast<1>;
		case 2: return &Broadcast<2>;
		case 3: return &Broadcast<3>;
		default: return &Broadcast<4>;
		}
	}

	// The block holds 12 / N whole copies of the element, component after component.
	::testing::AssertionResult HoldsCopies(const u32 *block, const u32 *element, int dimension)
	{
		for (int i = 0; i < 12; ++i)
			if (block[i] != element[i % dimension])
				return ::testing::AssertionFailure() << "word " << i << " is 0x" << std::hex << block[i] << ", expected 0x" << element[i % dimension];
		return ::testing::AssertionSuccess();
	}
}

TEST(Broadcast, EveryDimensionHoldsWholeCopiesAndReturnsDst)
{
	CAssertCapture capture;
	for (int dimension = 1; dimension <= 4; ++dimension)
	{
		SCOPED_TRACE("N = " + std::to_string(dimension));
		// 16-byte aligned and padded to 16 bytes; the words past the element are poison.
		alignas(16) u32 element[4] = {kPoison, kPoison, kPoison, kPoison};
		std::memcpy(element, kElement, sizeof(u32) * dimension);
		SBlockArea area;
		const void *result = BroadcastFor(dimension)(element, area.m_Block);
		EXPECT_EQ(static_cast<const void *>(area.m_Block), result);
		EXPECT_TRUE(HoldsCopies(area.m_Block, element, dimension));
		EXPECT_TRUE(area.GuardsIntact());
		// The source is only read.
		for (int i = 0; i < dimension; ++i)
			EXPECT_EQ(kElement[i], element[i]);
	}
	EXPECT_EQ(0u, capture.Count());
}

TEST(Broadcast, Dimension3RotatesTheElementAcrossTheThreeVectors)
{
	alignas(16) const u32 element[4] = {10, 20, 30, kPoison};
	SBlockArea area;
	TBroadcaster<3>::Broadcast12(element, area.m_Block);
	const u32 expected[12] = {10, 20, 30, 10, /**/ 20, 30, 10, 20, /**/ 30, 10, 20, 30};
	for (int i = 0; i < 12; ++i)
		EXPECT_EQ(expected[i], area.m_Block[i]) << "word " << i;
}

TEST(Broadcast, Dimension3ReadsSixteenAlignedBytesAndIgnoresTheFourthWord)
{
	// A 3-component constant stored aligned and padded to 16 bytes, ending exactly at the
	// last readable byte: the 16-byte read stays inside, and the pad word never shows up.
	OxTest::CGuardPage page;
	ASSERT_TRUE(page.Valid());
	u32 *element = reinterpret_cast<u32 *>(page.Tail(16));
	ASSERT_TRUE(Mem::IsAligned<0x10>(element));
	element[0] = 0x11111111u;
	element[1] = 0x22222222u;
	element[2] = 0x33333333u;
	element[3] = kPoison;
	CAssertCapture capture;
	SBlockArea area;
	TBroadcaster<3>::Broadcast12(element, area.m_Block);
	EXPECT_TRUE(HoldsCopies(area.m_Block, element, 3));
	for (u32 w : area.m_Block)
		EXPECT_NE(kPoison, w);
	EXPECT_EQ(0u, capture.Count());
}

TEST(Broadcast, Dimension2AcceptsAnEightByteAlignedSourceWithoutReport)
{
	CAssertCapture capture;
	alignas(16) u32 storage[8] = {kPoison, kPoison, 0x01020304u, 0xA0B0C0D0u, kPoison, kPoison, kPoison, kPoison};
	const u32 *element = storage + 2;	// 8-byte aligned, not 16
	ASSERT_FALSE(Mem::IsAligned<0x10>(element));
	SBlockArea area;
	EXPECT_EQ(static_cast<const void *>(area.m_Block), TBroadcaster<2>::Broadcast12(element, area.m_Block));
	EXPECT_TRUE(HoldsCopies(area.m_Block, element, 2));
	EXPECT_EQ(0u, capture.Count());

	// It reads its 8 bytes only: the element may end at the last readable byte.
	OxTest::CGuardPage page;
	ASSERT_TRUE(page.Valid());
	u32 *atEnd = reinterpret_cast<u32 *>(page.Tail(8));
	atEnd[0] = 5;
	atEnd[1] = 0xFFFFFFFBu;
	TBroadcaster<2>::Broadcast12(atEnd, area.m_Block);
	EXPECT_TRUE(HoldsCopies(area.m_Block, atEnd, 2));
	EXPECT_EQ(0u, capture.Count());
}

TEST(Broadcast, Dimension1ReadsOneWordAtAnyFourByteAlignedAddress)
{
	CAssertCapture capture;
	OxTest::CGuardPage page;
	ASSERT_TRUE(page.Valid());
	u32 *atEnd = reinterpret_cast<u32 *>(page.Tail(4));	// 12 mod 16, last readable word
	*atEnd = 0x80000001u;
	SBlockArea area;
	TBroadcaster<1>::Broadcast12(atEnd, area.m_Block);
	EXPECT_TRUE(HoldsCopies(area.m_Block, atEnd, 1));
	EXPECT_TRUE(area.GuardsIntact());
	EXPECT_EQ(0u, capture.Count());
}

// A misaligned source of dimension 3 or 4, or a misaligned block, is reported first
// (default handler: one line on stderr); the aligned access that follows then faults.
// The abort covers a build where that access would happen not to fault: what is
// checked is the report.
TEST(BroadcastDeathTest, MisalignedSourceOfDimension3And4IsReported)
{
	GTEST_FLAG_SET(death_test_style, OX_DEATH_TEST_STYLE);
	alignas(16) static u32 storage[12] = {};
	const u32 *misaligned = storage + 1;
	const char *pattern = "OX_NAMESPACE::Mem::IsAligned<0x10>\\(\\(src\\)\\): Unaligned memory! 0x[0-9a-f]+ should be 16-bytes aligned\\.";
	EXPECT_DEATH(
		{
			Orvex::Assert::SetHandler(nullptr);
			alignas(16) u32 block[12];
			TBroadcaster<3>::Broadcast12(misaligned, block);
			std::abort();
		},
		pattern);
	EXPECT_DEATH(
		{
			Orvex::Assert::SetHandler(nullptr);
			alignas(16) u32 block[12];
			TBroadcaster<4>::Broadcast12(misaligned, block);
			std::abort();
		},
		pattern);
}

TEST(BroadcastDeathTest, MisalignedBlockIsReportedAtTheStore)
{
	GTEST_FLAG_SET(death_test_style, OX_DEATH_TEST_STYLE);
	EXPECT_DEATH(
		{
			Orvex::Assert::SetHandler(nullptr);
			alignas(16) u32 block[16] = {};
			const u32 element = 7;
			TBroadcaster<1>::Broadcast12(&element, block + 1);
			std::abort();
		},
		"OX_NAMESPACE::Mem::IsAligned<0x10>\\(\\(_dst\\)\\): Unaligned memory! 0x[0-9a-f]+ should be 16-bytes aligned\\.");
}
