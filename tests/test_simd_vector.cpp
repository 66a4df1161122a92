// SSE2 wrappers: every operation is checked lane by lane against plain scalar C++
// evaluated at run time, floats compared by bit pattern.

#include "simd/sse/simd_vector.h"
#include "test_support.h"

#include <gtest/gtest.h>

#include <sys/wait.h>

#include <climits>
#include <cmath>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <iostream>
#include <limits>
#include <random>
#include <string>

using Orvex::s32;
using Orvex::u32;
using Orvex::u8;
using Orvex::SIMD_SSE::Float4;
using Orvex::SIMD_SSE::Scalar;

namespace
{
	u32 Bits(float f)
	{
		u32 u;
		std::memcpy(&u, &f, sizeof(u));
		return u;
	}

	float FromBits(u32 u)
	{
		float f;
		std::memcpy(&f, &u, sizeof(f));
		return f;
	}

	bool IsNaNBits(u32 u) { return (u & 0x7F800000u) == 0x7F800000u && (u & 0x007FFFFFu) != 0; }

	const float kInf = std::numeric_limits<float>::infinity();
	const float kNaN = std::numeric_limits<float>::quiet_NaN();

	// Edge values every float operation goes through, including both zeros and NaN.
	const float kSpecials[] = {
		0.0f, -0.0f, 1.0f, -1.0f, 2.5f, -3.75f, 1.0f / 3.0f, 1e30f, -1e-30f,
		std::numeric_limits<float>::max(), std::numeric_limits<float>::min(),
		std::numeric_limits<float>::denorm_min(), kInf, -kInf, kNaN,
	};
	constexpr int kSpecialCount = int(sizeof(kSpecials) / sizeof(kSpecials[0]));

	// Reads through volatile so the scalar reference is computed by the CPU at run
	// time, never constant-folded by the compiler.
	float Opaque(float f)
	{
		volatile float v = f;
		return v;
	}

	enum EOp { Op_Add, Op_Sub, Op_Mul, Op_Div, Op_Lt, Op_Le, Op_Gt, Op_Ge, Op_Eq, Op_Ne, Op_Count };
	const char *const kOpNames[Op_Count] = {"+", "-", "*", "/", "<", "<=", ">", ">=", "==", "!="};

	u32 Mask(bool b) { return b ? 0xFFFFFFFFu : 0u; }

	u32 ReferenceOp(EOp op, float a, float b)
	{
		a = Opaque(a);
		b = Opaque(b);
		switch (op)
		{
		case Op_Add: return Bits(a + b);
		case Op_Sub: return Bits(a - b);
		case Op_Mul: return Bits(a * b);
		case Op_Div: return Bits(a / b);
		case Op_Lt: return Mask(a < b);
		case Op_Le: return Mask(a <= b);
		case Op_Gt: return Mask(a > b);
		case Op_Ge: return Mask(a >= b);
		case Op_Eq: return Mask(a == b);
		case Op_Ne: return Mask(a != b);
		default: return 0;
		}
	}

	// The same operator spelling for both wrapper classes.
	template <typename _Vector>
	_Vector ApplyOp(EOp op, const _Vector &a, const _Vector &b)
	{
		switch (op)
		{
		case Op_Add: return a + b;
		case Op_Sub: return a - b;
		case Op_Mul: return a * b;
		case Op_Div: return a / b;
		case Op_Lt: return a < b;
		case Op_Le: return a <= b;
		case Op_Gt: return a > b;
		case Op_Ge: return a >= b;
		case Op_Eq: return a == b;
		case Op_Ne: return a != b;
		default: return _Vector(0.0f);
		}
	}

	// Arithmetic results are compared bit for bit; a NaN result only has to be a NaN,
	// since the compiler may commute the reference operands and pick the other payload.
	void ExpectSameResult(u32 expected, u32 actual, const std::string &what)
	{
		if (IsNaNBits(expected))
			EXPECT_TRUE(IsNaNBits(actual)) << what << " got 0x" << std::hex << actual;
		else
			EXPECT_EQ(expected, actual) << what << std::hex << " expected 0x" << expected << " got 0x" << actual;
	}

	std::string Describe(EOp op, float a, float b)
	{
		char text[128];
		std::snprintf(text, sizeof(text), "%.9g %s %.9g", double(a), kOpNames[op], double(b));
		return text;
	}

	s32 WrapMul(s32 a, s32 b) { return static_cast<s32>(static_cast<u32>(a) * static_cast<u32>(b)); }
	s32 WrapAdd(s32 a, s32 b) { return static_cast<s32>(static_cast<u32>(a) + static_cast<u32>(b)); }
	s32 WrapSub(s32 a, s32 b) { return static_cast<s32>(static_cast<u32>(a) - static_cast<u32>(b)); }

	const s32 kIntEdges[] = {0, 1, -1, 2, -2, 3, 7, -7, 0x7FFF, 0x10000, -0x10000, 0x12345678, -0x12345678, INT_MAX, INT_MIN, INT_MAX - 1, INT_MIN + 1};
	constexpr int kIntEdgeCount = int(sizeof(kIntEdges) / sizeof(kIntEdges[0]));

	const std::string kShiftExpr = "bits <= 31";
	const std::string kAlignExpr = "OX_NAMESPACE::Mem::IsAligned<0x10>((p))";

	// Two adjacent pages, the second one inaccessible: data placed at the end of the
	// first page proves that a load reads nothing past its size.
	constexpr u8 kGuardByte = 0xA5;

	// Every byte outside [begin, end) must still hold the guard value.
	void ExpectGuardOutside(const u8 *buffer, size_t size, size_t begin, size_t end)
	{
		for (size_t i = 0; i < size; ++i)
		{
			if (i < begin || i >= end)
			{
				EXPECT_EQ(kGuardByte, buffer[i]) << "byte " << i << " written outside [" << begin << ", " << end << ")";
			}
		}
	}
}

//----------------------------------------------------------------------------
// Constants

TEST(SimdConstants, SignMaskLanes)
{
	using namespace Orvex::SIMD_SSE::Constants;
	EXPECT_TRUE(Orvex::Mem::IsAligned<16>(_Constant_Fp32_SignMasks));
	EXPECT_TRUE(Orvex::Mem::IsAligned<16>(_Constant_Fp32_InvSignMasks));
	for (int i = 0; i < 4; ++i)
	{
		EXPECT_EQ(0x80000000u, _Constant_Fp32_SignMasks[i]) << "lane " << i;
		EXPECT_EQ(0x7FFFFFFFu, _Constant_Fp32_InvSignMasks[i]) << "lane " << i;
	}
	static_assert(sizeof(_Constant_Fp32_SignMasks) == 16 && sizeof(_Constant_Fp32_InvSignMasks) == 16, "4 lanes of 32 bits");
}

TEST(SimdConstants, UsableWithAlignedLoad)
{
	using namespace Orvex::SIMD_SSE::Constants;
	OxTest::CAssertCapture capture;
	const Float4 sign = Float4::LoadAligned16(_Constant_Fp32_SignMasks);
	const Float4 invSign = Float4::LoadAligned16(_Constant_Fp32_InvSignMasks);
	EXPECT_EQ(0u, capture.Count());

	const Float4 v = Float4::Set(-2.5f, 3.0f, -0.0f, -kInf);
	const Float4 absV = v & invSign;
	const Float4 negV = v ^ sign;
	EXPECT_EQ(Bits(2.5f), absV.LaneBits(0));
	EXPECT_EQ(Bits(3.0f), absV.LaneBits(1));
	EXPECT_EQ(Bits(0.0f), absV.LaneBits(2));
	EXPECT_EQ(Bits(kInf), absV.LaneBits(3));
	EXPECT_EQ(Bits(2.5f), negV.LaneBits(0));
	EXPECT_EQ(Bits(-3.0f), negV.LaneBits(1));
	EXPECT_EQ(Bits(0.0f), negV.LaneBits(2));
	EXPECT_EQ(Bits(kInf), negV.LaneBits(3));
}

//----------------------------------------------------------------------------
// Scalar

TEST(SimdScalar, ConstructLoadStore)
{
	EXPECT_EQ(Bits(-1.25f), Bits(Scalar(-1.25f).ToFloat()));
	EXPECT_EQ(Bits(-0.0f), Bits(Scalar(-0.0f).ToFloat()));
	EXPECT_EQ(-123, Scalar::FromInt(-123).ToInt());
	EXPECT_EQ(0x80000000u, Scalar::FromInt(INT_MIN).ToBits());

	// Loads and stores exactly four bytes, at any alignment.
	u8 buffer[16];
	std::memset(buffer, kGuardByte, sizeof(buffer));
	const float value = 6.5f;
	std::memcpy(buffer + 3, &value, 4);
	const Scalar loaded = Scalar::Load(buffer + 3);
	EXPECT_EQ(Bits(6.5f), loaded.ToBits());

	std::memset(buffer, kGuardByte, sizeof(buffer));
	Scalar(-7.75f).Store(buffer + 5);
	float back;
	std::memcpy(&back, buffer + 5, 4);
	EXPECT_EQ(Bits(-7.75f), Bits(back));
	ExpectGuardOutside(buffer, sizeof(buffer), 5, 9);
}

TEST(SimdScalar, LoadReadsOnlyFourBytes)
{
	OxTest::CGuardPage page;
	ASSERT_TRUE(page.Valid());
	u8 *tail = page.Tail(4);
	const s32 value = -42;
	std::memcpy(tail, &value, 4);
	EXPECT_EQ(-42, Scalar::Load(tail).ToInt());
}

TEST(SimdScalar, ArithmeticAndComparisonsMatchScalarCode)
{
	for (int op = 0; op < Op_Count; ++op)
		for (float a : kSpecials)
			for (float b : kSpecials)
			{
				const u32 expected = ReferenceOp(EOp(op), a, b);
				const u32 actual = ApplyOp(EOp(op), Scalar(a), Scalar(b)).ToBits();
				ExpectSameResult(expected, actual, Describe(EOp(op), a, b));
			}
}

TEST(SimdScalar, IeeeCornerCases)
{
	EXPECT_EQ(Bits(kInf), (Scalar(1.0f) / Scalar(0.0f)).ToBits());
	EXPECT_EQ(Bits(-kInf), (Scalar(1.0f) / Scalar(-0.0f)).ToBits());
	EXPECT_TRUE(IsNaNBits((Scalar(0.0f) / Scalar(0.0f)).ToBits()));
	EXPECT_TRUE(IsNaNBits((Scalar(kInf) - Scalar(kInf)).ToBits()));
	EXPECT_TRUE(IsNaNBits((Scalar(kInf) * Scalar(0.0f)).ToBits()));
	EXPECT_EQ(Bits(0.0f), (Scalar(0.0f) + Scalar(-0.0f)).ToBits());
	EXPECT_EQ(Bits(-0.0f), (Scalar(-0.0f) + Scalar(-0.0f)).ToBits());
	EXPECT_EQ(Bits(-0.0f), (Scalar(-0.0f) * Scalar(5.0f)).ToBits());
	EXPECT_EQ(Bits(0.0f), (Scalar(1.0f) - Scalar(1.0f)).ToBits());
	// A true division, not a reciprocal estimate: 1/3 correctly rounded.
	EXPECT_EQ(0x3EAAAAABu, (Scalar(1.0f) / Scalar(3.0f)).ToBits());
	EXPECT_EQ(Bits(0.1f), (Scalar(1.0f) / Scalar(10.0f)).ToBits());
}

TEST(SimdScalar, NotEqualIsUnorderedOthersOrdered)
{
	const Scalar nan(kNaN), one(1.0f);
	const Scalar pairs[][2] = {{nan, one}, {one, nan}, {nan, nan}};
	for (const auto &p : pairs)
	{
		EXPECT_EQ(0u, (p[0] < p[1]).ToBits());
		EXPECT_EQ(0u, (p[0] <= p[1]).ToBits());
		EXPECT_EQ(0u, (p[0] > p[1]).ToBits());
		EXPECT_EQ(0u, (p[0] >= p[1]).ToBits());
		EXPECT_EQ(0u, (p[0] == p[1]).ToBits());
		EXPECT_EQ(0xFFFFFFFFu, (p[0] != p[1]).ToBits());
	}
	// Signed zeros compare equal.
	EXPECT_EQ(0xFFFFFFFFu, (Scalar(0.0f) == Scalar(-0.0f)).ToBits());
	EXPECT_EQ(0u, (Scalar(0.0f) != Scalar(-0.0f)).ToBits());
	EXPECT_EQ(0u, (Scalar(-0.0f) < Scalar(0.0f)).ToBits());
	EXPECT_EQ(0xFFFFFFFFu, (Scalar(-kInf) < Scalar(kInf)).ToBits());
	EXPECT_EQ(0xFFFFFFFFu, (Scalar(kInf) >= Scalar(kInf)).ToBits());
	EXPECT_EQ(0xFFFFFFFFu, (Scalar(2.0f) > Scalar(1.0f)).ToBits());
	EXPECT_EQ(0u, (Scalar(1.0f) > Scalar(2.0f)).ToBits());
}

TEST(SimdScalar, Bitwise)
{
	const Scalar a = Scalar::FromInt(static_cast<s32>(0xF0F0A5A5u));
	const Scalar b = Scalar::FromInt(static_cast<s32>(0x0FF0FF00u));
	EXPECT_EQ(0xF0F0A5A5u & 0x0FF0FF00u, (a & b).ToBits());
	EXPECT_EQ(0xF0F0A5A5u | 0x0FF0FF00u, (a | b).ToBits());
	EXPECT_EQ(0xF0F0A5A5u ^ 0x0FF0FF00u, (a ^ b).ToBits());
	EXPECT_EQ(~0xF0F0A5A5u, (~a).ToBits());
	EXPECT_EQ(0xFFFFFFFFu, (~Scalar(0.0f)).ToBits());
	EXPECT_EQ(0u, (~Scalar::FromInt(-1)).ToBits());
}

TEST(SimdScalar, IntegerLane)
{
	for (s32 a : kIntEdges)
		for (s32 b : kIntEdges)
		{
			EXPECT_EQ(WrapAdd(a, b), Scalar::FromInt(a).AddInt32(Scalar::FromInt(b)).ToInt()) << a << " + " << b;
			EXPECT_EQ(WrapSub(a, b), Scalar::FromInt(a).SubInt32(Scalar::FromInt(b)).ToInt()) << a << " - " << b;
		}
}

//----------------------------------------------------------------------------
// Float4: construction, lanes, swizzles

TEST(SimdFloat4, Construction)
{
	const Float4 zero = Float4::Zero();
	const Float4 set = Float4::Set(1.0f, -2.0f, 3.5f, -0.0f);
	const Float4 splat(-4.25f);
	const Float4 fromScalar(Scalar(7.0f));
	const Float4 ints = Float4::SetInt(1, -2, INT_MAX, INT_MIN);
	const Float4 splatInt = Float4::SplatInt(-5);

	const float expectedSet[4] = {1.0f, -2.0f, 3.5f, -0.0f};
	const s32 expectedInts[4] = {1, -2, INT_MAX, INT_MIN};
	for (int i = 0; i < 4; ++i)
	{
		EXPECT_EQ(0u, zero.LaneBits(i));
		EXPECT_EQ(Bits(expectedSet[i]), set.LaneBits(i));
		EXPECT_EQ(Bits(expectedSet[i]), Bits(set.Lane(i)));
		EXPECT_EQ(Bits(-4.25f), splat.LaneBits(i));
		EXPECT_EQ(Bits(7.0f), fromScalar.LaneBits(i));
		EXPECT_EQ(expectedInts[i], ints.LaneInt(i));
		EXPECT_EQ(static_cast<u32>(expectedInts[i]), ints.LaneBits(i));
		EXPECT_EQ(-5, splatInt.LaneInt(i));
	}
	static_assert(sizeof(Float4) == 16, "one register");
}

TEST(SimdFloat4, FromScalarBroadcastsLaneZeroOnly)
{
	// Upper lanes of the scalar register hold garbage; only lane 0 is broadcast.
	Scalar s;
#if defined(__aarch64__)
	const float lanes[4] = {9.0f, 1.0f, 2.0f, 3.0f};
	s.m_Value = vld1q_f32(lanes);
#else
	s.m_Value = _mm_setr_ps(9.0f, 1.0f, 2.0f, 3.0f);
#endif
	const Float4 v(s);
	for (int i = 0; i < 4; ++i)
		EXPECT_EQ(Bits(9.0f), v.LaneBits(i));
}

TEST(SimdFloat4, Swizzle)
{
	const Float4 v = Float4::Set(10.0f, 11.0f, 12.0f, 13.0f);
	const Float4 s0 = v.Swizzle<0, 1, 2, 0>();
	const Float4 s1 = v.Swizzle<1, 2, 0, 1>();
	const Float4 s2 = v.Swizzle<2, 0, 1, 2>();
	const Float4 s3 = v.Swizzle<3, 2, 1, 0>();
	const float e0[4] = {10.0f, 11.0f, 12.0f, 10.0f};
	const float e1[4] = {11.0f, 12.0f, 10.0f, 11.0f};
	const float e2[4] = {12.0f, 10.0f, 11.0f, 12.0f};
	const float e3[4] = {13.0f, 12.0f, 11.0f, 10.0f};
	for (int i = 0; i < 4; ++i)
	{
		EXPECT_EQ(Bits(e0[i]), s0.LaneBits(i)) << "<0,1,2,0> lane " << i;
		EXPECT_EQ(Bits(e1[i]), s1.LaneBits(i)) << "<1,2,0,1> lane " << i;
		EXPECT_EQ(Bits(e2[i]), s2.LaneBits(i)) << "<2,0,1,2> lane " << i;
		EXPECT_EQ(Bits(e3[i]), s3.LaneBits(i)) << "<3,2,1,0> lane " << i;
	}
}

//----------------------------------------------------------------------------
// Float4: loads and stores

TEST(SimdFloat4, AlignedAndUnalignedRoundTrip)
{
	OxTest::CAssertCapture capture;
	alignas(16) float src[4] = {1.0f, -2.0f, kInf, -0.0f};
	alignas(16) float dst[4] = {};
	const Float4 v = Float4::LoadAligned16(src);
	v.StoreAligned16(dst);
	for (int i = 0; i < 4; ++i)
		EXPECT_EQ(Bits(src[i]), Bits(dst[i]));

	alignas(16) u8 buffer[40];
	std::memset(buffer, kGuardByte, sizeof(buffer));
	v.StoreUnaligned(buffer + 3);
	const Float4 back = Float4::LoadUnaligned(buffer + 3);
	for (int i = 0; i < 4; ++i)
		EXPECT_EQ(Bits(src[i]), back.LaneBits(i));
	ExpectGuardOutside(buffer, sizeof(buffer), 3, 19);
	EXPECT_EQ(0u, capture.Count());
}

TEST(SimdFloat4, LoadFloat2AndFloat3ZeroTheRest)
{
	// Garbage after the element must not reach the upper lanes.
	u8 buffer[32];
	std::memset(buffer, 0xFF, sizeof(buffer));
	const float xyz[3] = {1.5f, -2.5f, 3.25f};
	std::memcpy(buffer + 1, xyz, sizeof(xyz));

	const Float4 v2 = Float4::LoadFloat2(buffer + 1);
	EXPECT_EQ(Bits(1.5f), v2.LaneBits(0));
	EXPECT_EQ(Bits(-2.5f), v2.LaneBits(1));
	EXPECT_EQ(0u, v2.LaneBits(2));
	EXPECT_EQ(0u, v2.LaneBits(3));

	const Float4 v3 = Float4::LoadFloat3(buffer + 1);
	EXPECT_EQ(Bits(1.5f), v3.LaneBits(0));
	EXPECT_EQ(Bits(-2.5f), v3.LaneBits(1));
	EXPECT_EQ(Bits(3.25f), v3.LaneBits(2));
	EXPECT_EQ(0u, v3.LaneBits(3));
}

TEST(SimdFloat4, PartialLoadsStopAtTheEndOfThePage)
{
	OxTest::CGuardPage page;
	ASSERT_TRUE(page.Valid());
	const float xyz[3] = {4.0f, -5.0f, 6.0f};

	u8 *tail8 = page.Tail(8);
	std::memcpy(tail8, xyz, 8);
	const Float4 v2 = Float4::LoadFloat2(tail8);
	EXPECT_EQ(Bits(4.0f), v2.LaneBits(0));
	EXPECT_EQ(Bits(-5.0f), v2.LaneBits(1));
	EXPECT_EQ(0u, v2.LaneBits(2));

	u8 *tail12 = page.Tail(12);
	std::memcpy(tail12, xyz, 12);
	const Float4 v3 = Float4::LoadFloat3(tail12);
	EXPECT_EQ(Bits(4.0f), v3.LaneBits(0));
	EXPECT_EQ(Bits(-5.0f), v3.LaneBits(1));
	EXPECT_EQ(Bits(6.0f), v3.LaneBits(2));
	EXPECT_EQ(0u, v3.LaneBits(3));

	// And the partial stores: writing past the page would fault.
	Float4::Set(7.0f, 8.0f, 9.0f, 10.0f).StoreFloat3(tail12);
	Float4::Set(11.0f, 12.0f, 13.0f, 14.0f).StoreFloat2(tail8);
	float back[3];
	std::memcpy(back, tail12, 12);
	EXPECT_EQ(Bits(7.0f), Bits(back[0]));
	EXPECT_EQ(Bits(11.0f), Bits(back[1]));
	EXPECT_EQ(Bits(12.0f), Bits(back[2]));
}

TEST(SimdFloat4, PartialStoresWriteOnlyTheirBytes)
{
	const Float4 v = Float4::Set(1.0f, 2.0f, 3.0f, 4.0f);
	for (int offset = 0; offset < 4; ++offset)
	{
		SCOPED_TRACE(offset);
		u8 buffer[32];
		std::memset(buffer, kGuardByte, sizeof(buffer));
		v.StoreFloat2(buffer + offset);
		float xy[2];
		std::memcpy(xy, buffer + offset, 8);
		EXPECT_EQ(Bits(1.0f), Bits(xy[0]));
		EXPECT_EQ(Bits(2.0f), Bits(xy[1]));
		ExpectGuardOutside(buffer, sizeof(buffer), offset, offset + 8);

		std::memset(buffer, kGuardByte, sizeof(buffer));
		v.StoreFloat3(buffer + offset);
		float xyz[3];
		std::memcpy(xyz, buffer + offset, 12);
		EXPECT_EQ(Bits(1.0f), Bits(xyz[0]));
		EXPECT_EQ(Bits(2.0f), Bits(xyz[1]));
		EXPECT_EQ(Bits(3.0f), Bits(xyz[2]));
		ExpectGuardOutside(buffer, sizeof(buffer), offset, offset + 12);
	}
}

TEST(SimdFloat4, MisalignedPointerIsReported)
{
	OxTest::CAssertCapture capture;
	alignas(16) u8 buffer[32] = {};
	Orvex::SIMD_SSE::_CheckAligned16(buffer);
	Orvex::SIMD_SSE::_CheckAligned16(buffer + 16);
	EXPECT_EQ(0u, capture.Count());

	const void *misaligned = buffer + 4;
	Orvex::SIMD_SSE::_CheckAligned16(misaligned);
	ASSERT_EQ(1u, capture.Count());
	const OxTest::SCapturedReport report = capture.Reports()[0];
	EXPECT_EQ(kAlignExpr, report.m_Expression);

	const std::string prefix = "Unaligned memory! 0x";
	const std::string suffix = " should be 16-bytes aligned.";
	ASSERT_GE(report.m_Message.size(), prefix.size() + suffix.size());
	EXPECT_EQ(prefix, report.m_Message.substr(0, prefix.size()));
	EXPECT_EQ(suffix, report.m_Message.substr(report.m_Message.size() - suffix.size()));
	char pointerText[64];
	std::snprintf(pointerText, sizeof(pointerText), "%p", misaligned);
	EXPECT_EQ("Unaligned memory! " + std::string(pointerText) + suffix, report.m_Message);

	// "continue" keeps the site live: a second failure reports again.
	Orvex::SIMD_SSE::_CheckAligned16(buffer + 8);
	EXPECT_EQ(2u, capture.Count(kAlignExpr));
}

namespace
{
	bool KilledByAnySignal(int status) { return WIFSIGNALED(status); }

	// Opaque offset so the compiler cannot see (and exploit) the misalignment.
	const void *MisalignedPointer(const void *aligned)
	{
		volatile std::uintptr_t offset = 4;
		return static_cast<const u8 *>(aligned) + offset;
	}
}

TEST(SimdFloat4DeathTest, AlignedLoadFromMisalignedPointerReportsThenFaults)
{
	GTEST_FLAG_SET(death_test_style, OX_DEATH_TEST_STYLE);
	alignas(16) static float source[8] = {};
	EXPECT_EXIT(
		{
			const Float4 v = Float4::LoadAligned16(MisalignedPointer(source));
			// Demand the whole register: reading a single lane lets the compiler
			// shrink the 16-byte load into a 4-byte one that cannot fault.
			__asm__ volatile("" : : "x"(v.m_Value));
			std::exit(0);
		},
		KilledByAnySignal, "Unaligned memory! 0x[0-9a-f]+ should be 16-bytes aligned\\.");
}

TEST(SimdFloat4DeathTest, AlignedStoreToMisalignedPointerReportsThenFaults)
{
	GTEST_FLAG_SET(death_test_style, OX_DEATH_TEST_STYLE);
	alignas(16) static float target[8] = {};
	EXPECT_EXIT(
		{
			Float4(1.0f).StoreAligned16(const_cast<void *>(MisalignedPointer(target)));
			__asm__ volatile("" : : : "memory");	// keep the store
			std::exit(0);
		},
		KilledByAnySignal, "Unaligned memory! 0x[0-9a-f]+ should be 16-bytes aligned\\.");
}

//----------------------------------------------------------------------------
// Float4: float arithmetic and comparisons

TEST(SimdFloat4, ArithmeticAndComparisonsMatchScalarCode)
{
	// Four different pairs per vector, rotated so every pair visits every lane.
	for (int op = 0; op < Op_Count; ++op)
		for (int i = 0; i < kSpecialCount; ++i)
			for (int j = 0; j < kSpecialCount; ++j)
			{
				float a[4], b[4];
				for (int lane = 0; lane < 4; ++lane)
				{
					a[lane] = kSpecials[(i + lane) % kSpecialCount];
					b[lane] = kSpecials[(j + 3 * lane) % kSpecialCount];
				}
				const Float4 result = ApplyOp(EOp(op), Float4::LoadUnaligned(a), Float4::LoadUnaligned(b));
				for (int lane = 0; lane < 4; ++lane)
					ExpectSameResult(ReferenceOp(EOp(op), a[lane], b[lane]), result.LaneBits(lane), Describe(EOp(op), a[lane], b[lane]));
			}
}

TEST(SimdFloat4, IeeeCornerCases)
{
	const Float4 q = Float4::Set(1.0f, -1.0f, 0.0f, 1.0f) / Float4::Set(0.0f, 0.0f, 0.0f, 3.0f);
	EXPECT_EQ(Bits(kInf), q.LaneBits(0));
	EXPECT_EQ(Bits(-kInf), q.LaneBits(1));
	EXPECT_TRUE(IsNaNBits(q.LaneBits(2)));
	EXPECT_EQ(0x3EAAAAABu, q.LaneBits(3));	// correctly rounded 1/3

	const Float4 s = Float4::Set(0.0f, -0.0f, kInf, -kInf) + Float4::Set(-0.0f, -0.0f, -kInf, -kInf);
	EXPECT_EQ(Bits(0.0f), s.LaneBits(0));
	EXPECT_EQ(Bits(-0.0f), s.LaneBits(1));
	EXPECT_TRUE(IsNaNBits(s.LaneBits(2)));
	EXPECT_EQ(Bits(-kInf), s.LaneBits(3));

	const Float4 m = Float4::Set(-0.0f, kInf, kNaN, 3.0f) * Float4::Set(2.0f, 0.0f, 1.0f, -0.0f);
	EXPECT_EQ(Bits(-0.0f), m.LaneBits(0));
	EXPECT_TRUE(IsNaNBits(m.LaneBits(1)));
	EXPECT_TRUE(IsNaNBits(m.LaneBits(2)));
	EXPECT_EQ(Bits(-0.0f), m.LaneBits(3));

	const Float4 d = Float4::Set(5.0f, 1.0f, -2.0f, 2.0f) - Float4::Set(5.0f, kInf, -2.0f, 0.5f);
	EXPECT_EQ(Bits(0.0f), d.LaneBits(0));
	EXPECT_EQ(Bits(-kInf), d.LaneBits(1));
	EXPECT_EQ(Bits(0.0f), d.LaneBits(2));
	EXPECT_EQ(Bits(1.5f), d.LaneBits(3));
}

TEST(SimdFloat4, NotEqualIsUnorderedOthersOrdered)
{
	const Float4 a = Float4::Set(kNaN, 1.0f, kNaN, 0.0f);
	const Float4 b = Float4::Set(1.0f, kNaN, kNaN, -0.0f);
	const u32 lt[4] = {0, 0, 0, 0};
	const u32 le[4] = {0, 0, 0, 0xFFFFFFFFu};
	const u32 eq[4] = {0, 0, 0, 0xFFFFFFFFu};
	const u32 ne[4] = {0xFFFFFFFFu, 0xFFFFFFFFu, 0xFFFFFFFFu, 0};
	for (int i = 0; i < 4; ++i)
	{
		EXPECT_EQ(lt[i], (a < b).LaneBits(i)) << "lane " << i;
		EXPECT_EQ(le[i], (a <= b).LaneBits(i)) << "lane " << i;
		EXPECT_EQ(lt[i], (a > b).LaneBits(i)) << "lane " << i;
		EXPECT_EQ(le[i], (a >= b).LaneBits(i)) << "lane " << i;
		EXPECT_EQ(eq[i], (a == b).LaneBits(i)) << "lane " << i;
		EXPECT_EQ(ne[i], (a != b).LaneBits(i)) << "lane " << i;
	}

	const Float4 x = Float4::Set(1.0f, 2.0f, -kInf, 3.0f);
	const Float4 y = Float4::Set(2.0f, 1.0f, kInf, 3.0f);
	const u32 xLtY[4] = {0xFFFFFFFFu, 0, 0xFFFFFFFFu, 0};
	const u32 xGtY[4] = {0, 0xFFFFFFFFu, 0, 0};
	const u32 xGeY[4] = {0, 0xFFFFFFFFu, 0, 0xFFFFFFFFu};
	for (int i = 0; i < 4; ++i)
	{
		EXPECT_EQ(xLtY[i], (x < y).LaneBits(i)) << "lane " << i;
		EXPECT_EQ(xGtY[i], (x > y).LaneBits(i)) << "lane " << i;
		EXPECT_EQ(xGeY[i], (x >= y).LaneBits(i)) << "lane " << i;
	}
}

TEST(SimdFloat4, Bitwise)
{
	const Float4 a = Float4::SetInt(static_cast<s32>(0xF0F0A5A5u), 0, -1, 0x12345678);
	const Float4 b = Float4::SetInt(0x0FF0FF00, -1, -1, static_cast<s32>(0x87654321u));
	for (int i = 0; i < 4; ++i)
	{
		const u32 x = a.LaneBits(i), y = b.LaneBits(i);
		EXPECT_EQ(x & y, (a & b).LaneBits(i));
		EXPECT_EQ(x | y, (a | b).LaneBits(i));
		EXPECT_EQ(x ^ y, (a ^ b).LaneBits(i));
		EXPECT_EQ(~x, (~a).LaneBits(i));
		EXPECT_EQ(x & ~y, a.AndNot(b).LaneBits(i));
		EXPECT_EQ(y & ~x, b.AndNot(a).LaneBits(i));
	}
	// A comparison mask complemented is the opposite mask.
	const Float4 mask = Float4::Set(1.0f, 2.0f, 3.0f, 4.0f) < Float4(2.5f);
	const Float4 inv = ~mask;
	EXPECT_EQ(0u, inv.LaneBits(0));
	EXPECT_EQ(0u, inv.LaneBits(1));
	EXPECT_EQ(0xFFFFFFFFu, inv.LaneBits(2));
	EXPECT_EQ(0xFFFFFFFFu, inv.LaneBits(3));
}

//----------------------------------------------------------------------------
// Float4: integer lanes

TEST(SimdFloat4Int, AddSubCompareAgainstScalar)
{
	for (int i = 0; i < kIntEdgeCount; ++i)
		for (int j = 0; j < kIntEdgeCount; ++j)
		{
			s32 a[4], b[4];
			for (int lane = 0; lane < 4; ++lane)
			{
				a[lane] = kIntEdges[(i + lane) % kIntEdgeCount];
				b[lane] = kIntEdges[(j + 5 * lane) % kIntEdgeCount];
			}
			const Float4 va = Float4::LoadUnaligned(a), vb = Float4::LoadUnaligned(b);
			const Float4 sum = va.AddInt32(vb), diff = va.SubInt32(vb);
			const Float4 eq = va.CmpEqInt32(vb), lt = va.CmpLtInt32(vb), gt = va.CmpGtInt32(vb);
			for (int lane = 0; lane < 4; ++lane)
			{
				SCOPED_TRACE(std::to_string(a[lane]) + " op " + std::to_string(b[lane]));
				EXPECT_EQ(WrapAdd(a[lane], b[lane]), sum.LaneInt(lane));
				EXPECT_EQ(WrapSub(a[lane], b[lane]), diff.LaneInt(lane));
				EXPECT_EQ(Mask(a[lane] == b[lane]), eq.LaneBits(lane));
				EXPECT_EQ(Mask(a[lane] < b[lane]), lt.LaneBits(lane));
				EXPECT_EQ(Mask(a[lane] > b[lane]), gt.LaneBits(lane));
			}
		}
}

TEST(SimdFloat4Int, ComparisonsAreSigned)
{
	const Float4 a = Float4::SetInt(INT_MIN, -1, 0, INT_MAX);
	const Float4 zero = Float4::SplatInt(0);
	const u32 lt[4] = {0xFFFFFFFFu, 0xFFFFFFFFu, 0, 0};
	const u32 gt[4] = {0, 0, 0, 0xFFFFFFFFu};
	for (int i = 0; i < 4; ++i)
	{
		EXPECT_EQ(lt[i], a.CmpLtInt32(zero).LaneBits(i));
		EXPECT_EQ(gt[i], a.CmpGtInt32(zero).LaneBits(i));
	}
}

TEST(SimdFloat4Int, MulLoEdgeValues)
{
	for (int i = 0; i < kIntEdgeCount; ++i)
		for (int j = 0; j < kIntEdgeCount; ++j)
		{
			s32 a[4], b[4];
			for (int lane = 0; lane < 4; ++lane)
			{
				a[lane] = kIntEdges[(i + lane) % kIntEdgeCount];
				b[lane] = kIntEdges[(j + 7 * lane) % kIntEdgeCount];
			}
			const Float4 p = Float4::LoadUnaligned(a).MulLoInt32(Float4::LoadUnaligned(b));
			for (int lane = 0; lane < 4; ++lane)
				EXPECT_EQ(WrapMul(a[lane], b[lane]), p.LaneInt(lane)) << a[lane] << " * " << b[lane] << " lane " << lane;
		}
	const Float4 p = Float4::SetInt(INT_MIN, INT_MAX, -1, INT_MIN).MulLoInt32(Float4::SetInt(-1, INT_MAX, INT_MIN, INT_MIN));
	EXPECT_EQ(INT_MIN, p.LaneInt(0));	// INT_MIN * -1 wraps to itself
	EXPECT_EQ(1, p.LaneInt(1));			// (2^31 - 1)^2 = 2^62 - 2^32 + 1
	EXPECT_EQ(INT_MIN, p.LaneInt(2));
	EXPECT_EQ(0, p.LaneInt(3));			// 2^62
}

TEST(SimdFloat4Int, MulLoRandom)
{
	const std::uint32_t seed = 0x5EED1234u;
	std::cout << "[ SimdFloat4Int.MulLoRandom ] seed = 0x" << std::hex << seed << std::dec << std::endl;
	SCOPED_TRACE("seed = " + std::to_string(seed));
	std::mt19937 rng(seed);
	for (int iteration = 0; iteration < 20000; ++iteration)
	{
		s32 a[4], b[4];
		for (int lane = 0; lane < 4; ++lane)
		{
			a[lane] = static_cast<s32>(rng());
			// Small factors too, where most products fit in 32 bits.
			b[lane] = (iteration & 1) ? static_cast<s32>(rng()) : static_cast<s32>(rng() % 2001u) - 1000;
		}
		const Float4 p = Float4::LoadUnaligned(a).MulLoInt32(Float4::LoadUnaligned(b));
		for (int lane = 0; lane < 4; ++lane)
			ASSERT_EQ(WrapMul(a[lane], b[lane]), p.LaneInt(lane)) << a[lane] << " * " << b[lane] << " lane " << lane << " iteration " << iteration;
	}
}

TEST(SimdFloat4Int, ShiftsMatchScalarForValidCounts)
{
	OxTest::CAssertCapture capture;
	const Float4 v = Float4::SetInt(INT_MIN, -0x12345679, 0x7EDCBA98, 1);
	for (u32 n = 0; n <= 31; ++n)
	{
		const Float4 l = v.ShiftLeftInt32(n), ra = v.ShiftRightArithInt32(n), rl = v.ShiftRightLogicalInt32(n);
		for (int lane = 0; lane < 4; ++lane)
		{
			const s32 x = v.LaneInt(lane);
			const u32 ux = static_cast<u32>(x);
			EXPECT_EQ(ux << n, l.LaneBits(lane)) << x << " << " << n;
			// Arithmetic shift written without relying on signed >> of negatives.
			const u32 sra = x < 0 ? ~(~ux >> n) : ux >> n;
			EXPECT_EQ(sra, ra.LaneBits(lane)) << x << " >> " << n;
			EXPECT_EQ(ux >> n, rl.LaneBits(lane)) << x << " >>> " << n;
		}
	}
	EXPECT_EQ(0u, capture.Count());
}

TEST(SimdFloat4Int, ShiftCountsPast31ReportAndSaturate)
{
	OxTest::CAssertCapture capture;	// answers "continue"
	const Float4 v = Float4::SetInt(INT_MIN, -5, 5, INT_MAX);
	const s32 signFill[4] = {-1, -1, 0, 0};
	size_t expectedReports = 0;
	for (u32 n : {32u, 40u})
	{
		SCOPED_TRACE(n);
		const Float4 l = v.ShiftLeftInt32(n);
		const Float4 ra = v.ShiftRightArithInt32(n);
		const Float4 rl = v.ShiftRightLogicalInt32(n);
		expectedReports += 3;
		for (int lane = 0; lane < 4; ++lane)
		{
			EXPECT_EQ(0, l.LaneInt(lane));
			EXPECT_EQ(signFill[lane], ra.LaneInt(lane));
			EXPECT_EQ(0, rl.LaneInt(lane));
		}
		EXPECT_EQ(expectedReports, capture.Count());
		EXPECT_EQ(expectedReports, capture.Count(kShiftExpr));
	}
	for (const OxTest::SCapturedReport &r : capture.Reports())
	{
		EXPECT_EQ(kShiftExpr, r.m_Expression);
		EXPECT_EQ(kShiftExpr, r.m_Message);
	}
}

//----------------------------------------------------------------------------
// Float4: conversions

TEST(SimdFloat4, ConvertToInt32Truncates)
{
	const Float4 a = Float4::Set(1.9f, -1.9f, -0.5f, 123456.75f).ConvertToInt32Trunc();
	EXPECT_EQ(1, a.LaneInt(0));
	EXPECT_EQ(-1, a.LaneInt(1));
	EXPECT_EQ(0, a.LaneInt(2));
	EXPECT_EQ(123456, a.LaneInt(3));

	// Out of range and NaN give the "integer indefinite" value. The inputs go through
	// memory the compiler cannot see into: folding these constants at compile time
	// would not follow the hardware rule.
	volatile float edges[4] = {2147483648.0f, -2147483648.0f, kNaN, -kInf};
	const Float4 b = Float4::Set(edges[0], edges[1], edges[2], edges[3]).ConvertToInt32Trunc();
	EXPECT_EQ(INT_MIN, b.LaneInt(0));
	EXPECT_EQ(INT_MIN, b.LaneInt(1));
	EXPECT_EQ(INT_MIN, b.LaneInt(2));
	EXPECT_EQ(INT_MIN, b.LaneInt(3));
}

TEST(SimdFloat4, ConvertInt32ToFloat)
{
	const Float4 a = Float4::SetInt(INT_MIN, -1, 0, 16777217).ConvertInt32ToFloat();
	EXPECT_EQ(Bits(-2147483648.0f), a.LaneBits(0));
	EXPECT_EQ(Bits(-1.0f), a.LaneBits(1));
	EXPECT_EQ(Bits(0.0f), a.LaneBits(2));		// +0, never -0
	EXPECT_EQ(Bits(16777216.0f), a.LaneBits(3));	// rounds to nearest even
	const Float4 b = Float4::SplatInt(INT_MAX).ConvertInt32ToFloat();
	EXPECT_EQ(Bits(2147483648.0f), b.LaneBits(0));
	EXPECT_EQ(Bits(FromBits(0x4F000000u)), b.LaneBits(3));
}
