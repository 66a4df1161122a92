// The words of the four-lane layer where AArch64 arithmetic differs from x86's: the
// NEON layer must give the SSE2 words, so this file runs unchanged on both
// architectures. On x86 it pins the reference (what SSE2 gives); on AArch64 it checks
// each fix-up of simd/neon/simd_vector.h against the same words:
//   - invalid operations without a NaN input give the default NaN with its sign set;
//   - with two NaN inputs the first operand's NaN comes out, quieted, whether either
//     one is signalling or not; with one NaN input, that one, quieted;
//   - float -> int conversion of a NaN or an out-of-range value gives 0x80000000;
//   - integer division through double precision gives 0x80000000 where the quotient
//     does not fit;
//   - compare masks of NaNs and signed zeros, and the integer operations at their edges.

#include "simd/sse/simd_vector.h"

#include <gtest/gtest.h>

#include <climits>
#include <cstring>
#include <initializer_list>

namespace
{
	using Orvex::s32;
	using Orvex::u32;
	using Orvex::SIMD_SSE::Float4;
	using Orvex::SIMD_SSE::Scalar;

	float FromBits(u32 bits)
	{
		float f;
		std::memcpy(&f, &bits, 4);
		return f;
	}

	Float4 Words(u32 x, u32 y, u32 z, u32 w)
	{
		return Float4::SetInt(s32(x), s32(y), s32(z), s32(w));
	}

	constexpr u32 kInf = 0x7F800000u, kNegInf = 0xFF800000u, kZero = 0, kNegZero = 0x80000000u, kOne = 0x3F800000u;
	constexpr u32 kX86DefaultNan = 0xFFC00000u;

	enum EArith
	{
		Add,
		Sub,
		Mul,
		Div
	};
	const char *const kNames[] = {"+", "-", "*", "/"};

	Float4 Apply(EArith op, const Float4 &a, const Float4 &b)
	{
		switch (op)
		{
		case Add: return a + b;
		case Sub: return a - b;
		case Mul: return a * b;
		default: return a / b;
		}
	}

	u32 ApplyScalar(EArith op, u32 a, u32 b)
	{
		const Scalar x(FromBits(a)), y(FromBits(b));
		switch (op)
		{
		case Add: return (x + y).ToBits();
		case Sub: return (x - y).ToBits();
		case Mul: return (x * y).ToBits();
		default: return (x / y).ToBits();
		}
	}

	// Checks a op b in every lane position of a Float4 (the other lanes ordinary) and as a
	// Scalar.
	void ExpectWord(EArith op, u32 a, u32 b, u32 expected)
	{
		for (int lane = 0; lane < 4; ++lane)
		{
			u32 as[4] = {kOne, kOne, kOne, kOne}, bs[4] = {kOne, kOne, kOne, kOne};
			as[lane] = a;
			bs[lane] = b;
			const Float4 r = Apply(op, Words(as[0], as[1], as[2], as[3]), Words(bs[0], bs[1], bs[2], bs[3]));
			for (int i = 0; i < 4; ++i)
				EXPECT_EQ(r.LaneBits(i), i == lane ? expected : Apply(op, Float4(1.0f), Float4(1.0f)).LaneBits(0))
					<< std::hex << a << " " << kNames[op] << " " << b << ", lane " << i << " of " << lane;
		}
		EXPECT_EQ(ApplyScalar(op, a, b), expected) << std::hex << "scalar " << a << " " << kNames[op] << " " << b;
	}

	TEST(SimdReferenceBits, InvalidOperationGivesTheNegativeDefaultNan)
	{
		ExpectWord(Add, kInf, kNegInf, kX86DefaultNan);
		ExpectWord(Add, kNegInf, kInf, kX86DefaultNan);
		ExpectWord(Sub, kInf, kInf, kX86DefaultNan);
		ExpectWord(Sub, kNegInf, kNegInf, kX86DefaultNan);
		ExpectWord(Mul, kZero, kInf, kX86DefaultNan);
		ExpectWord(Mul, kNegInf, kNegZero, kX86DefaultNan);
		ExpectWord(Div, kZero, kZero, kX86DefaultNan);
		ExpectWord(Div, kNegZero, kZero, kX86DefaultNan);
		ExpectWord(Div, kInf, kNegInf, kX86DefaultNan);
	}

	TEST(SimdReferenceBits, TwoNanInputsGiveTheFirstOperandsNanQuieted)
	{
		const u32 quietA = 0x7FC00123u, signallingA = 0x7F800123u, quietB = 0xFFC00456u, signallingB = 0xFF800456u;
		for (EArith op : {Add, Sub, Mul, Div})
		{
			ExpectWord(op, quietA, quietB, quietA);
			ExpectWord(op, quietA, signallingB, quietA);	// AArch64 alone would prefer b (signalling)
			ExpectWord(op, signallingA, quietB, 0x7FC00123u);
			ExpectWord(op, signallingA, signallingB, 0x7FC00123u);
			ExpectWord(op, quietB, quietA, quietB);
			ExpectWord(op, signallingB, quietA, 0xFFC00456u);
		}
	}

	TEST(SimdReferenceBits, OneNanInputGivesThatNanQuieted)
	{
		for (EArith op : {Add, Sub, Mul, Div})
			for (u32 other : {kOne, kZero, kNegZero, kInf, kNegInf, 0x00000001u})
			{
				ExpectWord(op, 0x7F800001u, other, 0x7FC00001u);
				ExpectWord(op, other, 0xFF812345u, 0xFFC12345u);
				ExpectWord(op, 0xFFFFFFFFu, other, 0xFFFFFFFFu);
				ExpectWord(op, other, 0x7FC00000u, 0x7FC00000u);
			}
	}

	TEST(SimdReferenceBits, OrdinaryResultsAreUntouched)
	{
		// Infinities, signed zeros and subnormals that are not NaNs pass as computed.
		ExpectWord(Add, kInf, kOne, kInf);
		ExpectWord(Sub, kNegZero, kZero, kNegZero);
		ExpectWord(Mul, 0x00000001u, 0x3F000000u, 0x00000000u);	// half the smallest subnormal: rounds to even, 0
		ExpectWord(Mul, 0x00000003u, 0x3F000000u, 0x00000002u);	// denormals kept (no flush to zero)
		ExpectWord(Div, kOne, kZero, kInf);
		ExpectWord(Div, kOne, kNegZero, kNegInf);
		ExpectWord(Div, 0x00800000u, 0x40000000u, 0x00400000u);	// a subnormal result
	}

	TEST(SimdReferenceBits, ConversionOfNanAndOutOfRangeGivesIntMin)
	{
		const struct
		{
			u32 m_In;
			u32 m_Out;
		} cases[] = {
			{0x7FC00000u, 0x80000000u}, {0xFFC00000u, 0x80000000u}, {0x7F800001u, 0x80000000u},	// NaNs
			{kInf, 0x80000000u}, {kNegInf, 0x80000000u},
			{0x4F000000u, 0x80000000u},	// 2^31
			{0x4F7FFFFFu, 0x80000000u}, {0xCF7FFFFFu, 0x80000000u},	// near 2^32
			{0xCF000001u, 0x80000000u},	// just below -2^31
			{0xCF000000u, 0x80000000u},	// -2^31 itself: in range
			{0x4EFFFFFFu, 2147483520u},	// the largest float below 2^31
			{0xBFC00000u, u32(-1)},		// -1.5 truncates to -1
			{0x3FF33333u, 1u},			// 1.9 truncates to 1
			{kNegZero, 0u}, {0x00000001u, 0u},
		};
		for (const auto &c : cases)
		{
			const Float4 r = Words(c.m_In, kOne, c.m_In, 0x40400000u).ConvertToInt32Trunc();
			EXPECT_EQ(r.LaneBits(0), c.m_Out) << std::hex << c.m_In;
			EXPECT_EQ(r.LaneBits(1), 1u);
			EXPECT_EQ(r.LaneBits(2), c.m_Out) << std::hex << c.m_In;
			EXPECT_EQ(r.LaneBits(3), 3u);
		}
	}

	TEST(SimdReferenceBits, QuotientThroughDoubleOutOfRangeGivesIntMin)
	{
		const Float4 a = Float4::SetInt(INT_MIN, 7, -7, INT_MIN);
		const Float4 b = Float4::SetInt(-1, 0, 2, 1);
		const Float4 q = a.QuotientInt32ThroughDouble(b);
		EXPECT_EQ(q.LaneBits(0), 0x80000000u);	// INT_MIN / -1 does not fit
		EXPECT_EQ(q.LaneBits(1), 0x80000000u);	// x / 0: infinity
		EXPECT_EQ(q.LaneInt(2), -3);
		EXPECT_EQ(q.LaneInt(3), INT_MIN);
		const Float4 z = Float4::SetInt(0, 0, 5, -5).QuotientInt32ThroughDouble(Float4::SetInt(0, -3, -5, 5));
		EXPECT_EQ(z.LaneBits(0), 0x80000000u);	// 0 / 0: NaN
		EXPECT_EQ(z.LaneBits(1), 0u);
		EXPECT_EQ(z.LaneInt(2), -1);
		EXPECT_EQ(z.LaneInt(3), -1);
	}

	TEST(SimdReferenceBits, CompareMasksOfNansAndSignedZeros)
	{
		const Float4 a = Words(0x7FC00000u, kNegZero, 0x7F800001u, kOne);
		const Float4 b = Words(kOne, kZero, 0x7F800001u, 0xFFC00000u);
		const u32 T = 0xFFFFFFFFu, F = 0;
		const u32 lt[4] = {F, F, F, F}, le[4] = {F, T, F, F}, eq[4] = {F, T, F, F}, ne[4] = {T, F, T, T};
		for (int i = 0; i < 4; ++i)
		{
			EXPECT_EQ((a < b).LaneBits(i), lt[i]) << i;
			EXPECT_EQ((a <= b).LaneBits(i), le[i]) << i;
			EXPECT_EQ((a > b).LaneBits(i), lt[i]) << i;
			EXPECT_EQ((a >= b).LaneBits(i), le[i]) << i;
			EXPECT_EQ((a == b).LaneBits(i), eq[i]) << i;
			EXPECT_EQ((a != b).LaneBits(i), ne[i]) << i;
		}
		EXPECT_EQ((Scalar(FromBits(0x7FC00000u)) != Scalar(1.0f)).ToBits(), T);
		EXPECT_EQ((Scalar(-0.0f) == Scalar(0.0f)).ToBits(), T);
		EXPECT_EQ((Scalar(-0.0f) < Scalar(0.0f)).ToBits(), F);
	}

	TEST(SimdReferenceBits, IntegerEdges)
	{
		const Float4 a = Float4::SetInt(INT_MIN, INT_MAX, -1, 46341);
		const Float4 b = Float4::SetInt(-1, INT_MAX, INT_MIN, 46341);
		const Float4 lo = a.MulLoInt32(b), hi = a.MulHiInt32(b), uhi = a.MulHiUInt32(b);
		const s32 expectLo[4] = {INT_MIN, 1, INT_MIN, s32(u32(46341u * 46341u))};
		for (int i = 0; i < 4; ++i)
		{
			const long long p = static_cast<long long>(a.LaneInt(i)) * b.LaneInt(i);
			const unsigned long long up = static_cast<unsigned long long>(a.LaneBits(i)) * b.LaneBits(i);
			EXPECT_EQ(lo.LaneInt(i), expectLo[i]) << i;
			EXPECT_EQ(hi.LaneBits(i), u32(static_cast<unsigned long long>(p) >> 32)) << i;
			EXPECT_EQ(uhi.LaneBits(i), u32(up >> 32)) << i;
		}
		const Float4 sum = a.AddInt32(b), diff = a.SubInt32(b);
		EXPECT_EQ(sum.LaneBits(0), 0x7FFFFFFFu);	// wraps
		EXPECT_EQ(diff.LaneBits(0), 0x80000001u);
		EXPECT_EQ(a.CmpLtInt32(b).LaneBits(0), 0xFFFFFFFFu);	// signed
		EXPECT_EQ(a.CmpGtInt32(b).LaneBits(2), 0xFFFFFFFFu);
		EXPECT_EQ(a.CmpEqInt32(b).LaneBits(1), 0xFFFFFFFFu);
		EXPECT_EQ(Float4::SetInt(-8, 8, INT_MIN, 1).ShiftRightArithInt32_Prechecked(31).LaneBits(0), 0xFFFFFFFFu);
		EXPECT_EQ(Float4::SetInt(-8, 8, INT_MIN, 1).ShiftRightLogicalInt32_Prechecked(31).LaneBits(2), 1u);
		EXPECT_EQ(Float4::SetInt(-8, 8, INT_MIN, 1).ShiftLeftInt32_Prechecked(31).LaneBits(3), 0x80000000u);
		EXPECT_EQ(Float4::SetInt(-8, 8, INT_MIN, 1).ShiftLeftInt32_Prechecked(0).LaneInt(0), -8);
		// Int -> float rounds to nearest even, as cvtdq2ps under the default MXCSR.
		const Float4 f = Float4::SetInt(16777217, INT_MAX, -16777219, INT_MIN).ConvertInt32ToFloat();
		EXPECT_EQ(f.LaneBits(0), 0x4B800000u);
		EXPECT_EQ(f.LaneBits(1), 0x4F000000u);
		EXPECT_EQ(f.LaneBits(2), 0xCB800002u);
		EXPECT_EQ(f.LaneBits(3), 0xCF000000u);
	}
}
