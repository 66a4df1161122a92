// The Low path against the scalar model: the model itself on known values, every
// operator on every kernel type (short, long and generic-form streams, every pair of
// edge values), every combination of register banks, and how many elements an
// instruction evaluates. Each type and operator, or bank triple, is a case of its own.

#include "low_path_harness.h"

#include <gtest/gtest.h>

#include <climits>
#include <cstdio>
#include <iterator>
#include <string>
#include <vector>

using namespace LowPathTest;

//------------------------------------------------------------------------------------
// The model itself, on values whose results are known independently.

TEST(LowPathModel, KnownValues)
{
	EXPECT_EQ(OxTest::ModelInt(SOp_MathOp::Op_Div, u32(INT_MIN), u32(-1)), u32(INT_MIN));
	EXPECT_EQ(OxTest::ModelInt(SOp_MathOp::Op_Mod, u32(INT_MIN), u32(-1)), 0u);
	EXPECT_EQ(OxTest::ModelInt(SOp_MathOp::Op_Mul, 0x10000u, 0x10000u), 0u);
	EXPECT_EQ(OxTest::ModelInt(SOp_MathOp::Op_Bitwise_ShiftRight, u32(-7), 1), u32(-4));
	EXPECT_EQ(OxTest::ModelInt(SOp_MathOp::Op_Bitwise_ShiftRight, u32(INT_MIN), 31), 0xFFFFFFFFu);
	EXPECT_EQ(OxTest::ModelInt(SOp_MathOp::Op_Bitwise_ShiftLeft, 3, 31), 0x80000000u);
	EXPECT_EQ(OxTest::ModelFloat(SOp_MathOp::Op_Add, 0x7F800001u, 0x3F800000u), 0x7FC00001u);	// signalling NaN quieted
	EXPECT_EQ(OxTest::ModelFloat(SOp_MathOp::Op_Mul, 0x3F800000u, 0xFFC00123u), 0xFFC00123u);
	EXPECT_EQ(OxTest::ModelFloat(SOp_MathOp::Op_Neg, 0x7FC12345u, 0), 0xFFC12345u);
	EXPECT_EQ(OxTest::ModelFloat(SOp_MathOp::Op_Mod, FloatBits(-0.0f), FloatBits(2.0f)), 0x80000000u);
	EXPECT_EQ(OxTest::ModelFloat(SOp_MathOp::Op_Mod, FloatBits(5.0f), FloatBits(0.0f)), 0x00000000u);
	EXPECT_EQ(OxTest::ModelFloat(SOp_MathOp::Op_Mod, FloatBits(4.0f), FloatBits(-2.0f)), 0x80000000u);
	EXPECT_EQ(OxTest::ModelFloat(SOp_MathOp::Op_Mod, 0x7FC00000u, FloatBits(2.0f)), 0x00000000u);	// NaN quotient: frac 0
	EXPECT_EQ(OxTest::ModelFloat(SOp_MathOp::Op_Cmp_NotEqual, 0x7FC00000u, 0x7FC00000u), 0xFFFFFFFFu);
	// Two NaNs: the first wins, the second is accepted for the commutative operators only.
	EXPECT_EQ(OxTest::ModelFloat(SOp_MathOp::Op_Add, 0x7F800001u, 0xFFC00002u), 0x7FC00001u);
	EXPECT_EQ(OxTest::ModelFloatAlternative(SOp_MathOp::Op_Add, 0x7F800001u, 0xFFC00002u), 0xFFC00002u);
	EXPECT_EQ(OxTest::ModelFloatAlternative(SOp_MathOp::Op_Mul, 0x7FC00001u, 0xFF800002u), 0xFFC00002u);
	EXPECT_EQ(OxTest::ModelFloatAlternative(SOp_MathOp::Op_Sub, 0x7FC00001u, 0xFFC00002u), 0x7FC00001u);
	EXPECT_EQ(OxTest::ModelFloatAlternative(SOp_MathOp::Op_Add, 0x3F800000u, 0xFFC00002u), 0xFFC00002u);
	EXPECT_FALSE(OxTest::ModelSupportsFloat(SOp_MathOp::Op_Bitwise_And));
	EXPECT_FALSE(OxTest::ModelSupportsInt(EOp(19)));
	EXPECT_TRUE(OxTest::ModelSupportsInt(SOp_MathOp::Op_Bitwise_Not));

	const u32 a[] = {1, 2, 3, 4, 5, 6};
	const u32 b[] = {10, 20, 30};
	std::vector<u32> out;
	ASSERT_TRUE(OxTest::ModelStream(SOp_MathOp::Op_Add, EModelKind::Int, 3, 2, a, 3, b, 0, out));
	EXPECT_EQ(out, (std::vector<u32>{11, 22, 33, 14, 25, 36}));
	EXPECT_FALSE(OxTest::ModelStream(SOp_MathOp::Op_Bitwise_Xor, EModelKind::Float, 1, 1, a, 1, b, 1, out));
	EXPECT_TRUE(out.empty());
}

//------------------------------------------------------------------------------------
// Every operator, every kernel type, short streams.

namespace
{
	// One kernel type and one operator value.
	struct STypeOp
	{
		std::size_t m_Type;	// index into OxTest::kKernelTypes
		s32 m_Op;
	};

	std::vector<STypeOp> TypeOps(s32 opCount)
	{
		std::vector<STypeOp> cases;
		for (std::size_t t = 0; t < std::size(OxTest::kKernelTypes); ++t)
			for (s32 op = 0; op < opCount; ++op)
				cases.push_back({t, op});
		return cases;
	}

	std::string TypeOpName(const ::testing::TestParamInfo<STypeOp> &info)
	{
		return std::string(OxTest::kKernelTypes[info.param.m_Type].m_Name) + "_" + OxTest::OpMnemonic(info.param.m_Op);
	}

	u32 TypeOpSeed(u32 salt, const STypeOp &c) { return kSeed + salt + (u32(c.m_Type) << 16) + (u32(c.m_Op) << 8); }
}

class LowPathOperators : public ::testing::TestWithParam<STypeOp>
{
};

TEST_P(LowPathOperators, ShortStreams)
{
	const STypeOp c = GetParam();
	CValues values(TypeOpSeed(0, c));
	const EBaseTypeID type = OxTest::kKernelTypes[c.m_Type].m_Type;
	for (u32 count : kSmallCounts)
	{
		SInstr in = Same(EOp(c.m_Op), type, Compiler::MetaType_Stream, Compiler::MetaType_Stream, Compiler::MetaType_Stream, count);
		ASSERT_TRUE(RunWellFormed(in, values));
	}
}

TEST_P(LowPathOperators, LargeStreams)
{
	const STypeOp c = GetParam();
	CValues values(TypeOpSeed(2, c));
	const EBaseTypeID type = OxTest::kKernelTypes[c.m_Type].m_Type;
	for (u32 count : {1000u, 4099u})
	{
		SInstr in = Same(EOp(c.m_Op), type, Compiler::MetaType_Stream, Compiler::MetaType_Stream, Compiler::MetaType_Instance, count);
		ASSERT_TRUE(RunWellFormed(in, values));
	}
}

INSTANTIATE_TEST_SUITE_P(TypesOps, LowPathOperators, ::testing::ValuesIn(TypeOps(SOp_MathOp::__MaxOps)), TypeOpName);

class LowPathGenericForm : public ::testing::TestWithParam<STypeOp>
{
};

TEST_P(LowPathGenericForm, OfTheSpecialisedOperators)
{
	const STypeOp c = GetParam();
	CValues values(TypeOpSeed(1, c));
	const EBaseTypeID type = OxTest::kKernelTypes[c.m_Type].m_Type;
	for (u32 count : {1u, 5u, 13u})
	{
		SInstr in = Same(EOp(c.m_Op), type, Compiler::MetaType_Stream, Compiler::MetaType_Instance, Compiler::MetaType_Stream, count);
		in.m_Generic = true;
		ASSERT_TRUE(RunWellFormed(in, values));
	}
}

INSTANTIATE_TEST_SUITE_P(TypesOps, LowPathGenericForm, ::testing::ValuesIn(TypeOps(s32(CMetaOp_MathOp::kSpecializedOpCount))), TypeOpName);

// Every edge value against every edge value, one pair per element, every operator.
namespace
{
	struct SKindOp
	{
		EModelKind m_Kind;
		s32 m_Op;
	};

	std::vector<SKindOp> SupportedKindOps()
	{
		std::vector<SKindOp> cases;
		for (EModelKind kind : {EModelKind::Float, EModelKind::Int})
			for (s32 op = 0; op < SOp_MathOp::__MaxOps; ++op)
				if (OxTest::ModelSupports(kind, EOp(op)))
					cases.push_back({kind, op});
		return cases;
	}
}

class LowPathEdgePairs : public ::testing::TestWithParam<SKindOp>
{
};

TEST_P(LowPathEdgePairs, AllPairsOfEdgeValues)
{
	CAssertCapture capture;
	const EModelKind kind = GetParam().m_Kind;
	const s32 op = GetParam().m_Op;
	{
		std::vector<u32> pool;
		if (kind == EModelKind::Float)
			pool.assign(std::begin(kFloatSpecials), std::end(kFloatSpecials));
		else
		{
			pool.assign(std::begin(kIntSpecials), std::end(kIntSpecials));
			for (u32 shift = 0; shift <= 40; ++shift)
				pool.push_back(shift);
		}
		const u32 n = u32(pool.size() * pool.size());
		const EBaseTypeID type = kind == EModelKind::Float ? BaseType_Float : BaseType_I32;
		{
			ASSERT_TRUE(OxTest::ModelSupports(kind, EOp(op)));
			SInstr in = Same(EOp(op), type, Compiler::MetaType_Stream, Compiler::MetaType_Stream, Compiler::MetaType_Stream, n);
			CLowRun run(in);
			for (u32 i = 0; i < n; ++i)
			{
				run.Src0()[i] = pool[i / pool.size()];
				if (in.m_HasSrc1)
					run.Src1()[i] = pool[i % pool.size()];
			}
			EXPECT_EQ(run.Run(), ExpectedSize(in));
			ASSERT_TRUE(run.CheckDestination());
		}
	}
	EXPECT_EQ(capture.Count(), 0u);
}

INSTANTIATE_TEST_SUITE_P(KindsOps, LowPathEdgePairs, ::testing::ValuesIn(SupportedKindOps()),
						 [](const ::testing::TestParamInfo<SKindOp> &info) {
							 return std::string(info.param.m_Kind == EModelKind::Float ? "Float" : "I32") + "_" + OxTest::OpMnemonic(info.param.m_Op);
						 });

//------------------------------------------------------------------------------------
// Banks: every destination bank with every bank for each source.

namespace
{
	struct SBanks
	{
		EMetaType m_Dst, m_Src0, m_Src1;
	};

	std::vector<SBanks> EveryBankTriple()
	{
		std::vector<SBanks> cases;
		for (EMetaType dstBank : kBanks)
			for (EMetaType bank0 : kBanks)
				for (EMetaType bank1 : kBanks)
					cases.push_back({dstBank, bank0, bank1});
		return cases;
	}

	std::string BanksName(const ::testing::TestParamInfo<SBanks> &info)
	{
		return std::string(Compiler::MetaTypeName(info.param.m_Dst)) + "_From_" + Compiler::MetaTypeName(info.param.m_Src0) + "_" + Compiler::MetaTypeName(info.param.m_Src1);
	}
}

class LowPathBanks : public ::testing::TestWithParam<SBanks>
{
};

TEST_P(LowPathBanks, EveryOperatorOnSevenTypes)
{
	const SBanks b = GetParam();
	CValues values(kSeed + 3 + (u32(b.m_Dst) << 16) + (u32(b.m_Src0) << 12) + (u32(b.m_Src1) << 8));
	const EBaseTypeID types[] = {BaseType_Float, BaseType_Float3, BaseType_Quaternion, BaseType_I32, BaseType_Int3, BaseType_Bool2, BaseType_Int4};
	for (EBaseTypeID type : types)
		for (s32 op = 0; op < SOp_MathOp::__MaxOps; ++op)
			for (u32 count : {0u, 1u, 5u, 13u})
			{
				SInstr in = Same(EOp(op), type, b.m_Dst, b.m_Src0, b.m_Src1, count);
				ASSERT_TRUE(RunWellFormed(in, values));
			}
}

INSTANTIATE_TEST_SUITE_P(Triples, LowPathBanks, ::testing::ValuesIn(EveryBankTriple()), BanksName);

TEST(LowPathEvalCount, ConstantAndNormalDestinationsEvaluateOneElement)
{
	CValues values(kSeed + 4);
	for (EMetaType dstBank : {Compiler::MetaType_Constant, Compiler::MetaType_Normal})
		for (u32 dims : {0u, 1u, 2u, 7u, 64u})
		{
			CAssertCapture capture;
			SInstr in = Same(SOp_MathOp::Op_Mul, BaseType_Float2, dstBank, Compiler::MetaType_Stream, Compiler::MetaType_Instance, dims);
			CLowRun run(in);
			run.Fill(values);
			EXPECT_EQ(run.Run(), 13u);
			EXPECT_EQ(capture.Count(), 0u) << Describe(in);
			EXPECT_EQ(run.EvalCount(), 1u);
			EXPECT_TRUE(run.CheckDestination());
			// One Float2 element: words 0 and 1, and nothing after them.
			EXPECT_EQ(run.Dst()[2], GuardWord(2));
			EXPECT_EQ(run.Dst()[3], GuardWord(3));
		}
}

TEST(LowPathEvalCount, InstanceAndStreamDestinationsEvaluateStreamDimensions)
{
	CValues values(kSeed + 5);
	for (EMetaType dstBank : {Compiler::MetaType_Instance, Compiler::MetaType_Stream})
		for (u32 dims : {0u, 1u, 2u, 7u, 64u})
		{
			CAssertCapture capture;
			SInstr in = Same(SOp_MathOp::Op_Sub, BaseType_Int2, dstBank, Compiler::MetaType_Stream, Compiler::MetaType_Normal, dims);
			CLowRun run(in);
			run.Fill(values);
			EXPECT_EQ(run.Run(), 13u);
			EXPECT_EQ(capture.Count(), 0u);
			EXPECT_EQ(run.EvalCount(), dims);
			EXPECT_TRUE(run.CheckDestination());
			for (u32 i = 0; i < dims * 2; ++i)
				EXPECT_EQ(run.Dst()[i], run.Src0()[i] - run.Src1()[i % 2]) << i;
			EXPECT_EQ(run.Dst()[dims * 2], GuardWord(dims * 2));
		}
}

TEST(LowPathEvalCount, NormalSourceOfSizeZeroIsNotReported)
{
	CAssertCapture capture;
	SInstr in = Same(SOp_MathOp::Op_Add, BaseType_Float, Compiler::MetaType_Normal, Compiler::MetaType_Normal, Compiler::MetaType_Constant, 9);
	in.m_Src0Bytes = 0;
	CLowRun run(in);
	run.Src1()[0] = FloatBits(2.5f);
	EXPECT_EQ(run.Storage().Size(run.Src0Id()), 0u);
	EXPECT_EQ(run.Run(), 13u);
	EXPECT_EQ(capture.Count(), 0u);
	// One element, read from the (zero-filled) start of source 0's storage.
	EXPECT_EQ(run.Dst()[0], FloatBits(2.5f));
	EXPECT_TRUE(run.CheckDestination());
}

