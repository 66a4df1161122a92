// Register identifiers, element sizes, the register file, its storage owner and
// the strided memory view.

#include "cbvm_meta_ops.h"
#include "cbvm_register_storage.h"
#include "cbvm_registers.h"
#include "kr_memoryviews.h"
#include "mt_vector.h"
#include "test_support.h"

#include <gtest/gtest.h>

#include <cstring>

using namespace Orvex;
using Compiler::IR::CRegID;
using OxTest::CAssertCapture;

namespace
{
	CVMRegID Raw(u32 bits) { return CVMRegID{s32(bits)}; }
}

TEST(VMRegID, FieldsOfAWellFormedId)
{
	CAssertCapture capture;
	const CVMRegID id = Raw(0x20200005);	// type field 32, bank field 1, slot 5
	EXPECT_TRUE(id.Valid());
	EXPECT_TRUE(id._ValidAndWellFormed());
	EXPECT_EQ(id.ToType(), BaseType_Float);
	EXPECT_EQ(id.ToBank(), Compiler::MetaType_Normal);
	EXPECT_EQ(id.ToSlot(), 5u);
	// The field holds type + 1: 31 is I64, not Float.
	EXPECT_EQ(Raw(0x1F200005).ToType(), BaseType_I64);
	EXPECT_EQ(Raw(0x00000000).ToType(), BaseType_Evolved);
	EXPECT_EQ(Raw(0x01000000).ToType(), BaseType_Void);
	EXPECT_EQ(Raw(0x3FFFFFFF).ToSlot(), 0x1FFFFFu);
	EXPECT_EQ(capture.Count(), 0u);
}

TEST(VMRegID, BankIsNeverTransparentWhenWellFormed)
{
	CAssertCapture capture;
	const Compiler::EMetaType expected[4] = {Compiler::MetaType_Constant, Compiler::MetaType_Normal, Compiler::MetaType_Instance, Compiler::MetaType_Stream};
	for (u32 bank = 0; bank < 4; ++bank)
		for (u32 rest : {0u, 0x1FFFFFu, 0x3F800000u, 0x12345u})
		{
			const CVMRegID id = Raw((rest & ~(3u << 21)) | (bank << 21));
			EXPECT_EQ(id.ToBank(), expected[bank]);
			EXPECT_NE(id.ToBank(), Compiler::MetaType_Transparent);
		}
	EXPECT_EQ(capture.Count(), 0u);
}

TEST(VMRegID, BuildAndIRConversion)
{
	const CVMRegID id = CVMRegID::Build(7, Compiler::MetaType_Stream, BaseType_Int3);
	EXPECT_EQ(id.ToSlot(), 7u);
	EXPECT_EQ(id.ToBank(), Compiler::MetaType_Stream);
	EXPECT_EQ(id.ToType(), BaseType_Int3);
	EXPECT_EQ(id.ToIRRegID().m_RawBits, u64(u32(id.m_RawBits)));
	EXPECT_EQ(CVMRegID::INVALID.ToIRRegID().m_RawBits, ~u64(0));
	EXPECT_EQ(CVMRegID::Build(CRegID()), CVMRegID::INVALID);
	EXPECT_EQ(u32(CVMRegID::INVALID.m_RawBits), 0xFFFFFFFFu);
	EXPECT_FALSE(CVMRegID::INVALID.Valid());
	EXPECT_FALSE(CVMRegID::INVALID._ValidAndWellFormed());
}

TEST(VMRegID, AccessorAssertions)
{
	CAssertCapture capture;
	const CVMRegID topBits = Raw(0x40000005);
	EXPECT_EQ(topBits.ToSlot(), 5u);	// reported, then decoded anyway
	EXPECT_EQ(capture.Count("_ValidAndWellFormed()"), 1u);
	topBits.ToBank();
	EXPECT_EQ(capture.Count("_ValidAndWellFormed()"), 2u);
	Raw(0x80000005).ToType();
	EXPECT_EQ(capture.Count("!Valid() || _ValidAndWellFormed()"), 1u);

	capture.Clear();
	EXPECT_EQ(s32(CVMRegID::INVALID.ToType()), 62);	// no type: reported by the second check
	EXPECT_EQ(capture.Count("Valid() || typeId == BaseType_Void"), 1u);
	EXPECT_EQ(capture.Count("!Valid() || _ValidAndWellFormed()"), 0u);
	CVMRegID::INVALID.ToSlot();
	CVMRegID::INVALID.ToBank();
	EXPECT_EQ(capture.Count("_ValidAndWellFormed()"), 2u);
	for (const OxTest::SCapturedReport &r : capture.Reports())
		EXPECT_NE(r.m_File.find("cbvm_meta_ops.h"), std::string::npos) << r.m_File;
}

TEST(IRRegID, LayoutAndAccessors)
{
	CAssertCapture capture;
	EXPECT_EQ(CRegID::RegisterSlotShift, 0u);
	EXPECT_EQ(CRegID::RegisterSlotBits, 21u);
	EXPECT_EQ(CRegID::RegisterSlotMask, 2097151u);
	EXPECT_EQ(CRegID::RegisterBankShift, 21u);
	EXPECT_EQ(CRegID::RegisterBankBits, 2u);
	EXPECT_EQ(CRegID::RegisterBankMask, 3u);
	EXPECT_EQ(CRegID::RegisterMetaShift, 23u);
	EXPECT_EQ(CRegID::RegisterMetaBits, 1u);
	EXPECT_EQ(CRegID::RegisterMetaMask, 1u);
	EXPECT_EQ(CRegID::RegisterTypeShift, 24u);
	EXPECT_EQ(CRegID::RegisterTypeBits, 6u);
	EXPECT_EQ(CRegID::RegisterTypeMask, 63u);
	EXPECT_EQ(CRegID::RegisterMask, 1073741823u);

	const CRegID reg = CRegID::Build(9, Compiler::MetaType_Instance, BaseType_Quaternion, true);
	EXPECT_EQ(reg.ToType(), BaseType_Quaternion);
	EXPECT_EQ(reg.ToBank(), Compiler::MetaType_Instance);
	EXPECT_EQ(reg.ToSlot(), 9u);
	EXPECT_TRUE(reg.ToMetaBit());
	EXPECT_TRUE(reg.Valid());
	EXPECT_FALSE(CRegID().Valid());
	EXPECT_EQ(CRegID().m_RawBits, ~u64(0));
	EXPECT_EQ(capture.Count(), 0u);

	// Bits 30/31 set: reported, the fields are still decoded.
	const CRegID bad(0x80200005ull | (u64(32) << 24));
	EXPECT_EQ(bad.ToBank(), Compiler::MetaType_Normal);
	EXPECT_EQ(capture.Count("_ValidAndWellFormed()"), 1u);
	EXPECT_EQ(bad.ToType(), BaseType_Float);
	EXPECT_EQ(capture.Count("_ValidAndWellFormed()"), 2u);
	for (const OxTest::SCapturedReport &r : capture.Reports())
		EXPECT_NE(r.m_File.find("cp_ir_details.h"), std::string::npos) << r.m_File;
}

TEST(DataSize, EveryEntryOfTheTable)
{
	CAssertCapture capture;
	const u32 expected[kBaseTypeTableSize] = {
		0, 0, 4, 8, 12, 16, 1, 2, 3, 4, 1, 2, 3, 4, 2, 4, 6, 8, 2, 4, 6, 8,
		4, 8, 12, 16, 4, 8, 12, 16, 8, 8, 4, 8, 12, 16, 8, 16};
	for (s32 type = BaseType_Evolved; type < __MaxBaseTypes; ++type)
		EXPECT_EQ(CCBCPUMetaRegisters::DataSizeInBytes(EBaseTypeID(type)), expected[type + 1]) << BaseTypeName(EBaseTypeID(type));
	// Only Void (size 0, not Evolved) was reported.
	EXPECT_EQ(capture.Count("size != 0 || typeID == BaseType_Evolved"), 1u);
	EXPECT_EQ(capture.Count(), 1u);
}

TEST(DataSize, EvolvedIsSilentVoidIsReported)
{
	CAssertCapture capture;
	EXPECT_EQ(CCBCPUMetaRegisters::DataSizeInBytes(BaseType_Evolved), 0u);
	EXPECT_EQ(capture.Count(), 0u);
	EXPECT_EQ(CCBCPUMetaRegisters::DataSizeInBytes(BaseType_Void), 0u);
	ASSERT_EQ(capture.Count(), 1u);
	EXPECT_NE(capture.Reports()[0].m_File.find("cbvm_registers.h"), std::string::npos);
}

TEST(DataSize, AnyTypeFieldIsSafe)
{
	CAssertCapture capture;
	// A register's 6-bit type field decodes to -1 .. 62; past the table the size is 0, reported.
	for (u32 field = 0; field < 64; ++field)
	{
		const EBaseTypeID type = Raw(field << 24).ToType();
		const u32 size = CCBCPUMetaRegisters::DataSizeInBytes(type);
		if (s32(type) >= __MaxBaseTypes)
		{
			EXPECT_EQ(size, 0u) << field;
		}
	}
	EXPECT_EQ(capture.Count("size != 0 || typeID == BaseType_Evolved"), 1u + (64u - kBaseTypeTableSize));
	EXPECT_EQ(CCBCPUMetaRegisters::DataSizeInBytes(EBaseTypeID(-100000)), 0u);
	EXPECT_EQ(CCBCPUMetaRegisters::DataSizeInBytes(EBaseTypeID(1 << 30)), 0u);
}

TEST(RegisterFile, SelectRegisterIndexing)
{
	CCBCPUMetaRegisters::SRegister table[32] = {};
	CCBCPUMetaRegisters registers;
	registers.m_Registers = table;
	EXPECT_EQ(&registers.SelectRegister(CVMRegID::Build(3, Compiler::MetaType_Stream, BaseType_Float)), &table[15]);
	EXPECT_EQ(&registers.SelectRegister(CVMRegID::Build(0, Compiler::MetaType_Constant, BaseType_Float)), &table[0]);
	EXPECT_EQ(&registers.SelectRegister(CVMRegID::Build(2, Compiler::MetaType_Normal, BaseType_I32)), &table[9]);
	EXPECT_EQ(&registers.SelectRegister(CVMRegID::Build(7, Compiler::MetaType_Instance, BaseType_Bool)), &table[30]);
}

TEST(RegisterFile, EvaluationCacheIsTheScratchBuffer)
{
	CAssertCapture capture;
	alignas(32) u8 scratch[64];
	CCBCPUMetaRegisters registers;
	registers.m_ScratchBuffer = scratch;
	u8 *cache = registers.AcquireEvaluationCache();
	EXPECT_EQ(cache, scratch);
	registers.ReleaseEvaluationCache(cache);
	EXPECT_EQ(capture.Count(), 0u);
	registers.ReleaseEvaluationCache(scratch + 1);
	EXPECT_EQ(capture.Count("cache == m_ScratchBuffer"), 1u);
}

TEST(ExecContext, BuiltFromTheHostObjects)
{
	CCompilerBackendCPUProgram_VM program;
	CRuntimeCPUBindings bindings;
	SCompilerCPUDebugCtx debugCtx;
	CRegisterStorage storage(4);
	const CBytecodeExecContext ctx(&program, bindings, storage.Registers(), debugCtx);
	EXPECT_EQ(ctx.m_Self, &program);
	EXPECT_EQ(&ctx.m_Externals, &bindings);
	EXPECT_EQ(&ctx.m_Registers, &storage.Registers());
	EXPECT_EQ(&ctx.m_DebugCtx, &debugCtx);
	static_assert(!std::is_copy_constructible_v<CBytecodeExecContext>, "the context is not copyable");
}

TEST(RegisterStorage, AlignedPaddedAndZeroed)
{
	CRegisterStorage storage(8);
	ASSERT_EQ(storage.SlotCount(), 8u);
	for (u32 size : {0u, 1u, 4u, 12u, 31u, 32u, 33u, 4096u, 12345u})
	{
		const CVMRegID id = CVMRegID::Build(size % 8, Compiler::MetaType_Stream, BaseType_Float3);
		ASSERT_TRUE(storage.Allocate(id, size)) << size;
		const u8 *data = storage.DataAs<u8>(id);
		ASSERT_NE(data, nullptr);
		EXPECT_TRUE(Mem::IsAligned<32>(data)) << size;
		EXPECT_EQ(storage.Size(id), size);
		const u32 capacity = storage.Capacity(id);
		EXPECT_GE(capacity, size + CRegisterStorage::kPadding) << size;
		EXPECT_EQ(capacity % CRegisterStorage::kAlignment, 0u) << size;
		for (u32 i = 0; i < capacity; ++i)
			ASSERT_EQ(data[i], 0) << "byte " << i << " of a " << size << "-byte register";
		// The register file sees exactly what the owner allocated.
		const CCBCPUMetaRegisters::SRegister &reg = storage.Registers().SelectRegister(id);
		EXPECT_EQ(reg.m_RawData, data);
		EXPECT_EQ(reg.m_Size, size);
	}
}

TEST(RegisterStorage, ElementsUseTheRegistersType)
{
	CRegisterStorage storage(2);
	const CVMRegID f3 = CVMRegID::Build(1, Compiler::MetaType_Instance, BaseType_Float3);
	ASSERT_TRUE(storage.AllocateElements(f3, 100));
	EXPECT_EQ(storage.Size(f3), 1200u);
	const CVMRegID q = CVMRegID::Build(0, Compiler::MetaType_Constant, BaseType_Quaternion);
	ASSERT_TRUE(storage.AllocateElements(q, 1));
	EXPECT_EQ(storage.Size(q), 16u);
	// Types without an element size cannot be sized by count.
	EXPECT_FALSE(storage.AllocateElements(CVMRegID::Build(0, Compiler::MetaType_Normal, BaseType_Void), 4));
	EXPECT_FALSE(storage.AllocateElements(CVMRegID::Build(0, Compiler::MetaType_Normal, BaseType_Evolved), 4));
	EXPECT_FALSE(storage.AllocateElements(f3, 0x20000000u)) << "size overflows 32 bits";
	EXPECT_EQ(storage.Size(f3), 1200u) << "a failed allocation leaves the register as it was";
}

TEST(RegisterStorage, BadIdsAreRefusedWithoutReports)
{
	CAssertCapture capture;
	CRegisterStorage storage(4);
	EXPECT_FALSE(storage.Allocate(CVMRegID::INVALID, 16));
	EXPECT_FALSE(storage.Allocate(Raw(0x40000001), 16));
	EXPECT_FALSE(storage.Allocate(CVMRegID::Build(4, Compiler::MetaType_Stream, BaseType_Float), 16));
	EXPECT_EQ(storage.Data(CVMRegID::Build(4, Compiler::MetaType_Stream, BaseType_Float)), nullptr);
	EXPECT_EQ(storage.Data(CVMRegID::INVALID), nullptr);
	EXPECT_EQ(storage.Size(CVMRegID::INVALID), 0u);
	EXPECT_EQ(storage.Capacity(CVMRegID::INVALID), 0u);
	EXPECT_FALSE(storage.Allocate(CVMRegID::Build(0, Compiler::MetaType_Stream, BaseType_Float), 0xFFFFFFF0u)) << "no room for the padding";
	EXPECT_EQ(capture.Count(), 0u);
}

TEST(RegisterStorage, ReleaseResetAndScratch)
{
	CRegisterStorage storage(2);
	const CVMRegID id = CVMRegID::Build(1, Compiler::MetaType_Stream, BaseType_I32);
	ASSERT_TRUE(storage.Allocate(id, 64));
	storage.DataAs<s32>(id)[3] = 77;
	ASSERT_TRUE(storage.Allocate(id, 128));	// reallocation: fresh zeroed storage
	EXPECT_EQ(storage.DataAs<s32>(id)[3], 0);
	storage.Release(id);
	EXPECT_EQ(storage.Data(id), nullptr);
	EXPECT_EQ(storage.Size(id), 0u);

	ASSERT_TRUE(storage.AllocateScratch(100));
	EXPECT_TRUE(Mem::IsAligned<32>(storage.Registers().m_ScratchBuffer));

	ASSERT_TRUE(storage.Reset(16));
	EXPECT_EQ(storage.SlotCount(), 16u);
	EXPECT_EQ(storage.Registers().m_ScratchBuffer, nullptr);
	EXPECT_EQ(storage.Data(CVMRegID::Build(15, Compiler::MetaType_Stream, BaseType_I32)), nullptr);
	EXPECT_FALSE(storage.Reset(Compiler::IR::CRegID::RegisterSlotMask + 2)) << "more slots than an id can address";
	EXPECT_EQ(storage.SlotCount(), 0u);
}

TEST(MemoryView, StridesAndAssertions)
{
	CAssertCapture capture;
	float data[8] = {0, 1, 2, 3, 4, 5, 6, 7};
	TStridedMemoryView<float> packed(data, 8, 4);
	EXPECT_EQ(packed[5], 5.0f);
	TStridedMemoryView<const TVector<float, 2>> pairs(reinterpret_cast<const TVector<float, 2> *>(data), 4, 8);
	EXPECT_EQ(pairs[3][1], 7.0f);
	TStridedMemoryView<float> every3rd(data, 3, 12);
	EXPECT_EQ(every3rd[2], 6.0f);
	TStridedMemoryView<float> broadcast(data + 2, 100, 0);
	EXPECT_EQ(broadcast[0], 2.0f);
	EXPECT_EQ(broadcast[99], 2.0f);
	EXPECT_EQ(capture.Count(), 0u);

	TStridedMemoryView<float> tooTight(data, 2, 2);
	EXPECT_EQ(capture.Count("stride >= ValueFootprintInBytes || stride == 0"), 1u);
	(void)tooTight;
	(void)packed[8];
	EXPECT_EQ(capture.Count("index < m_Storage.m_Count"), 1u);
	TStridedMemoryView<float> empty;
	(void)&empty;
}

TEST(MemoryViewDeathTest, NullStorageIsReportedBeforeTheRead)
{
	GTEST_FLAG_SET(death_test_style, OX_DEATH_TEST_STYLE);
	// The report comes first (default handler, stderr), then the read faults.
	EXPECT_DEATH(
		{
			TStridedMemoryView<float> nullView(nullptr, 1, 4);
			volatile float value = nullView[0];
			(void)value;
		},
		"m_Storage.m_RawDataPtr != null");
}

TEST(Names, AnyValueIsSafe)
{
	EXPECT_STREQ(BaseTypeName(BaseType_Float3), "float3");
	EXPECT_STREQ(BaseTypeName(BaseType_Evolved), "evolved");
	EXPECT_STREQ(BaseTypeName(BaseType_Quaternion), "quaternion");
	EXPECT_STREQ(BaseTypeName(__MaxBaseTypes), "?");
	EXPECT_STREQ(BaseTypeName(EBaseTypeID(-2)), "?");
	EXPECT_STREQ(Compiler::MetaTypeName(Compiler::MetaType_Stream), "stream");
	EXPECT_STREQ(Compiler::MetaTypeName(Compiler::EMetaType(200)), "?");
}
