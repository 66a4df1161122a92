// Differential: one instruction, shaped by the input, on the standard path, on the Low
// path and in the plain scalar model (tests/scalar_model.h).
//
// Input: operator, type, the three banks, in-place flag, stream size, then the words of
// the registers (all of every block, padding included; the input repeats when short).
// The Low path must give the model's words and report nothing. The standard path must
// give them too, except for its documented shortcuts (cbvm_math_op_paths.h), where it
// must give the documented result and only the documented reports. The library's
// classification (StandardPathDifference) and the verifier must agree with this reading:
// the verifier refuses exactly the three forms that report.

#include "cbvm_math_op_paths.h"
#include "cbvm_register_storage.h"
#include "cbvm_verifier.h"
#include "fuzz_support.h"
#include "scalar_model.h"

#include <cmath>
#include <string>
#include <vector>

using namespace Orvex;
using namespace OxFuzz;
using Compiler::EMetaType;
using Compiler::IR::SOp_MathOp;
using OxTest::EModelKind;
using EOp = SOp_MathOp::EOp;

namespace
{
	const EBaseTypeID kTypes[] = {BaseType_Float, BaseType_Float2, BaseType_Float3, BaseType_Float4, BaseType_Quaternion, BaseType_I32, BaseType_Int2,
								  BaseType_Int3, BaseType_Int4, BaseType_Bool, BaseType_Bool2, BaseType_Bool3, BaseType_Bool4};
	const EMetaType kBanks[] = {Compiler::MetaType_Constant, Compiler::MetaType_Normal, Compiler::MetaType_Instance, Compiler::MetaType_Stream};

	bool IsStream(EMetaType bank) { return bank >= Compiler::MetaType_Instance; }

	struct SFile
	{
		CRegisterStorage m_Storage{3};
		CVMRegID m_Dst, m_Src0, m_Src1;
	};

	std::vector<u32> Words(const SFile &file, CVMRegID id)
	{
		const u32 *words = file.m_Storage.DataAs<u32>(id);
		return std::vector<u32>(words, words + file.m_Storage.Capacity(id) / 4);
	}

	// The standard path's modulo by a constant divisor: one reciprocal, then a multiply.
	u32 RecipModFloat(u32 aBits, u32 cBits)
	{
		const float a = OxTest::BitsFloat(aBits), c = OxTest::BitsFloat(cBits);
		const float q = a * (1.0f / c);
		const float frac = std::fabs(q) < 2147483648.0f ? q - float(s32(q)) : 0.0f;
		return OxTest::FloatBits(frac * c);
	}

	std::vector<u32> RunOne(SFile &file, const std::vector<u8> &bytecode, CBVM::EExecPath path, std::vector<std::string> &reports)
	{
		SReports::Reset();
		reports.clear();
		const CBVM::SRunResult result = Run(file.m_Storage.Registers(), bytecode.data(), u32(bytecode.size()), path);
		if (result.m_Status != CBVM::RunStatus_Ok || result.m_Executed != 1)
			Fail("the instruction did not run");
		if (SReports::Count() != 0)
			reports.push_back(SReports::Last());
		return Words(file, file.m_Dst);
	}
}

extern "C" int LLVMFuzzerTestOneInput(const u8 *data, std::size_t size)
{
	static const bool installed = (SReports::Install(), true);
	(void)installed;

	CInput input(data, size);
	const EOp op = EOp(input.Byte() % SOp_MathOp::__MaxOps);
	const EBaseTypeID type = kTypes[input.Byte() % 13];
	const u8 banks = input.Byte();
	const bool inPlace = (banks & 0x40) != 0;
	const EMetaType dstBank = kBanks[banks & 3];
	const EMetaType src0Bank = inPlace ? dstBank : kBanks[(banks >> 2) & 3];
	const EMetaType src1Bank = kBanks[(banks >> 4) & 3];
	const u8 dimsByte = input.Byte();
	const u32 dims = dimsByte < 224 ? dimsByte % 80 : 80 + (dimsByte - 224) * 37;

	EModelKind kind;
	u32 n = 0;
	OxTest::ModelKernelForType(type, kind, n);
	const bool unary = OxTest::ModelIsUnary(op);

	SFile standard, low;
	for (SFile *file : {&standard, &low})
	{
		file->m_Dst = CVMRegID::Build(0, dstBank, type);
		file->m_Src0 = inPlace ? file->m_Dst : CVMRegID::Build(1, src0Bank, type);
		file->m_Src1 = unary ? CVMRegID::INVALID : CVMRegID::Build(2, src1Bank, type);
		for (CVMRegID id : {file->m_Dst, file->m_Src0, file->m_Src1})
			if (id.Valid())
				file->m_Storage.AllocateElements(id, IsStream(CVMRegID(id).ToBank()) && dims > 0 ? dims : 1);
		file->m_Storage.Registers().m_StreamDimensions = dims;
	}
	// Contents: the rest of the input, repeated; both files identical.
	const u8 *rest = input.Rest();
	const std::size_t restSize = input.RestSize();
	std::size_t at = 0;
	const CVMRegID distinct[3] = {standard.m_Dst, inPlace ? CVMRegID::INVALID : standard.m_Src0, standard.m_Src1};
	for (CVMRegID id : distinct)
	{
		if (!id.Valid())
			continue;
		u32 *words = standard.m_Storage.DataAs<u32>(id);
		for (u32 w = 0; w < standard.m_Storage.Capacity(id) / 4; ++w, at += 4)
		{
			u32 word = 0;
			for (u32 b = 0; b < 4 && restSize != 0; ++b)
				word |= u32(rest[(at + b) % restSize]) << (8 * b);
			words[w] = word;
		}
		std::memcpy(low.m_Storage.Data(id), words, standard.m_Storage.Capacity(id));
	}

	SOp_MathOp::SDesc desc;
	desc.m_Op = op;
	desc.m_DstReg = standard.m_Dst.ToIRRegID();
	desc.m_SrcReg0 = standard.m_Src0.ToIRRegID();
	desc.m_SrcReg1 = standard.m_Src1.ToIRRegID();
	std::vector<u8> bytecode(CMetaOp_MathOp::IP_Offset);
	bytecode.resize(CMetaOp_MathOp::EncodeDescToBytecode(bytecode.data(), desc));

	CBVM::SVerifyProblem problems[4];
	const CBVM::SVerifyResult verified = CBVM::CVerifier::Verify(bytecode.data(), u32(bytecode.size()), standard.m_Storage, problems, 4);
	if (!OxTest::ModelSupports(kind, op))
	{
		// Bitwise operators on floats: refused by the verifier, nothing to compare.
		if (verified.m_Errors != 1 || problems[0].m_Code != CBVM::VerifyError_BitwiseOnFloat)
			Fail("bitwise operator on floats not refused");
		return 0;
	}

	// The model, from the values before either run.
	const u32 evalCount = IsStream(dstBank) ? dims : 1;
	const std::vector<u32> before = Words(standard, standard.m_Dst);
	const std::vector<u32> src0 = Words(standard, standard.m_Src0);
	const std::vector<u32> src1 = unary ? std::vector<u32>() : Words(standard, standard.m_Src1);
	const u32 stride0 = IsStream(src0Bank) ? n : 0;
	const u32 stride1 = IsStream(src1Bank) ? n : 0;
	std::vector<u32> model, alternative;
	OxTest::ModelStream(op, kind, n, evalCount, src0.data(), stride0, unary ? nullptr : src1.data(), stride1, model, &alternative);

	// The standard path's documented shortcuts.
	std::vector<u32> expected = model, expectedAlt = alternative;
	std::vector<std::string> allowed;
	const bool broadcast0 = evalCount != 1 && !IsStream(src0Bank);
	const bool broadcast1 = evalCount != 1 && !unary && !IsStream(src1Bank);
	const u32 total = evalCount * n;
	const u32 blockInts = total / 12 * 12;
	bool uniform = !unary;
	for (u32 i = 1; i < 4 && uniform; ++i)
		uniform = src1[i % n] == src1[0];
	const bool shift = op == SOp_MathOp::Op_Bitwise_ShiftLeft || op == SOp_MathOp::Op_Bitwise_ShiftRight || op == SOp_MathOp::Op_Bitwise_ShiftRightLogical;
	CBVM::EPathDifference reading = CBVM::PathDifference_None;
	CBVM::EVerifyError refusal = CBVM::VerifyError_None;
	if (kind == EModelKind::Float && op == SOp_MathOp::Op_Mod && broadcast1 && !broadcast0)
	{
		for (u32 i = 0; i < total; ++i)
			expected[i] = expectedAlt[i] = RecipModFloat(src0[i], src1[i % n]);
		reading = CBVM::PathDifference_FloatModByConstant;
	}
	if (kind == EModelKind::Float && op == SOp_MathOp::Op_Mod && broadcast0 && broadcast1)
	{
		allowed.push_back("(stride0 == 0) != (stride1 == 0)");
		reading = CBVM::PathDifference_FloatModOfConstants;
		refusal = CBVM::VerifyError_FloatModOfConstants;
	}
	if (kind == EModelKind::Float && op == SOp_MathOp::Op_Neg && broadcast0)
	{
		for (u32 i = 0; i < total; ++i)
			expected[i] = expectedAlt[i] = before[i];
		allowed.push_back("stride == sizeof(_Type) && stride0 == sizeof(_Type)");
		allowed.push_back("false");
		reading = CBVM::PathDifference_FloatNegOfConstant;
		refusal = CBVM::VerifyError_FloatNegOfConstant;
	}
	if (kind == EModelKind::Int && shift && broadcast1 && blockInts > 0 && uniform && src1[0] > 31)
	{
		for (u32 i = 0; i < blockInts; ++i)
		{
			const s32 a = s32(src0[stride0 == 0 ? i % n : i]);
			expected[i] = expectedAlt[i] = op == SOp_MathOp::Op_Bitwise_ShiftRight ? u32(a < 0 ? -1 : 0) : 0u;
		}
		allowed.push_back("bits <= 31");
		reading = CBVM::PathDifference_ShiftCountAbove31;
		refusal = CBVM::VerifyError_ShiftCountAbove31;
	}
	if (kind == EModelKind::Int && op == SOp_MathOp::Op_Div && broadcast1 && blockInts > 0 && uniform && src1[0] == 0x80000000u)
	{
		for (u32 i = 0; i < blockInts; ++i)
			if (src0[stride0 == 0 ? i % n : i] == 0x80000000u)
				expected[i] = expectedAlt[i] = 0xFFFFFFFFu;
		reading = CBVM::PathDifference_DivByIntMin;
	}

	if (CBVM::StandardPathDifference(standard.m_Storage.Registers(), bytecode.data()) != reading)
		Fail("StandardPathDifference disagrees with the documented shortcuts");
	if (refusal == CBVM::VerifyError_None ? verified.Problems() != 0 : (verified.m_Errors != 1 || problems[0].m_Code != refusal))
		Fail("the verifier's verdict is not the documented one:", verified.Problems() != 0 ? problems[0].m_Message : "accepted");

	std::vector<std::string> reports;
	const std::vector<u32> gotStandard = RunOne(standard, bytecode, CBVM::ExecPath_Standard, reports);
	for (const std::string &report : reports)
	{
		bool ok = false;
		for (const std::string &allowedReport : allowed)
			ok = ok || report == allowedReport;
		if (!ok)
			Fail("standard path report:", report.c_str());
	}
	const std::vector<u32> gotLow = RunOne(low, bytecode, CBVM::ExecPath_Low, reports);
	if (!reports.empty())
		Fail("Low path report:", reports[0].c_str());

	for (u32 i = 0; i < before.size(); ++i)
	{
		const bool written = i < total;
		char detail[96];
		std::snprintf(detail, sizeof(detail), "word %u", i);
		if (gotLow[i] != (written ? model[i] : before[i]) && gotLow[i] != (written ? alternative[i] : before[i]))
			Fail("Low path differs from the model at", detail);
		if (gotStandard[i] != (written ? expected[i] : before[i]) && gotStandard[i] != (written ? expectedAlt[i] : before[i]))
			Fail("standard path differs from the model at", detail);
	}
	return 0;
}
