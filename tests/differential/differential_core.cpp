#include "differential_core.h"

#include "cbvm_meta_ops.h"
#include "kr_assert.h"

#include <cmath>
#include <cstdio>
#include <cstring>

using namespace Orvex;
using Compiler::IR::SOp_MathOp;
using OxTest::EModelKind;

namespace OxDiff
{
	const EBaseTypeID kTypes[kTypeCount] = {BaseType_Float, BaseType_Float2, BaseType_Float3, BaseType_Float4, BaseType_Quaternion,
											BaseType_I32, BaseType_Int2, BaseType_Int3, BaseType_Int4,
											BaseType_Bool, BaseType_Bool2, BaseType_Bool3, BaseType_Bool4};
	const EMetaType kBanks[kBankCount] = {Compiler::MetaType_Constant, Compiler::MetaType_Normal, Compiler::MetaType_Instance, Compiler::MetaType_Stream};

	bool IsStream(EMetaType bank) { return bank >= Compiler::MetaType_Instance; }

	SCase MakeCase(EOp op, EBaseTypeID type, EMetaType dstBank, EMetaType src0Bank, EMetaType src1Bank, u32 streamDims, bool inPlace)
	{
		SCase c;
		c.m_Op = op;
		c.m_Type = type;
		OxTest::ModelKernelForType(type, c.m_Kind, c.m_Components);
		c.m_Unary = OxTest::ModelIsUnary(op);
		c.m_DstBank = dstBank;
		c.m_Src0Bank = inPlace ? dstBank : src0Bank;
		c.m_Src1Bank = src1Bank;
		c.m_StreamDims = streamDims;
		c.m_InPlace = inPlace;
		return c;
	}

	std::string Describe(const SCase &c)
	{
		char text[256];
		std::snprintf(text, sizeof(text), "%s %s dst=%s src0=%s src1=%s dims=%u%s", SOp_MathOp::OperatorTraits(c.m_Op).m_Name, BaseTypeName(c.m_Type),
					  Compiler::MetaTypeName(c.m_DstBank), Compiler::MetaTypeName(c.m_Src0Bank), c.m_Unary ? "-" : Compiler::MetaTypeName(c.m_Src1Bank),
					  c.m_StreamDims, c.m_InPlace ? " in-place" : "");
		return text;
	}

	std::vector<u32> SRegisterFile::Words(CVMRegID id) const
	{
		const u32 *words = m_Storage.DataAs<u32>(id);
		return std::vector<u32>(words, words + m_Storage.Capacity(id) / 4);
	}

	void BuildFiles(const SCase &c, const std::function<u32()> &nextWord, SFiles &files)
	{
		for (SRegisterFile *file : {&files.m_Standard, &files.m_Low})
		{
			file->m_Dst = CVMRegID::Build(0, c.m_DstBank, c.m_Type);
			file->m_Src0 = c.m_InPlace ? file->m_Dst : CVMRegID::Build(1, c.m_Src0Bank, c.m_Type);
			file->m_Src1 = c.m_Unary ? CVMRegID::INVALID : CVMRegID::Build(2, c.m_Src1Bank, c.m_Type);
			const CVMRegID distinct[3] = {file->m_Dst, c.m_InPlace ? CVMRegID::INVALID : file->m_Src0, file->m_Src1};
			for (CVMRegID id : distinct)
				if (id.Valid())
					file->m_Storage.AllocateElements(id, IsStream(id.ToBank()) && c.m_StreamDims > 0 ? c.m_StreamDims : 1);
			file->m_Storage.Registers().m_StreamDimensions = c.m_StreamDims;
		}
		// Every word, padding included, so that both files start identical.
		const SRegisterFile &standard = files.m_Standard;
		for (CVMRegID id : {standard.m_Dst, c.m_InPlace ? CVMRegID::INVALID : standard.m_Src0, standard.m_Src1})
		{
			if (!id.Valid())
				continue;
			u32 *words = standard.m_Storage.DataAs<u32>(id);
			const u32 capacity = standard.m_Storage.Capacity(id);
			for (u32 w = 0; w < capacity / 4; ++w)
				words[w] = nextWord();
			std::memcpy(files.m_Low.m_Storage.Data(id), words, capacity);
		}
	}

	std::vector<u8> Encode(const SRegisterFile &file, EOp op)
	{
		SOp_MathOp::SDesc desc;
		desc.m_Op = op;
		desc.m_DstReg = file.m_Dst.ToIRRegID();
		desc.m_SrcReg0 = file.m_Src0.ToIRRegID();
		desc.m_SrcReg1 = file.m_Src1.ToIRRegID();
		std::vector<u8> bytecode(CMetaOp_MathOp::IP_Offset);
		bytecode.resize(CMetaOp_MathOp::EncodeDescToBytecode(bytecode.data(), desc));
		return bytecode;
	}

	namespace
	{
		// The standard path's modulo by a constant divisor: one reciprocal, then a multiply.
		u32 RecipModFloat(u32 aBits, u32 cBits)
		{
			const float a = OxTest::BitsFloat(aBits), c = OxTest::BitsFloat(cBits);
			const float q = a * (1.0f / c);
			const float frac = std::fabs(q) < 2147483648.0f ? q - float(s32(q)) : 0.0f;
			return OxTest::ModelFloatArith(SOp_MathOp::Op_Mul, OxTest::FloatBits(frac), cBits);	// the model's NaN words
		}

		bool IsShift(EOp op)
		{
			return op == SOp_MathOp::Op_Bitwise_ShiftLeft || op == SOp_MathOp::Op_Bitwise_ShiftRight || op == SOp_MathOp::Op_Bitwise_ShiftRightLogical;
		}
	}

	SExpectation Expect(const SCase &c, const SRegisterFile &file)
	{
		SExpectation e;
		const u32 evalCount = IsStream(c.m_DstBank) ? c.m_StreamDims : 1;
		const u32 n = c.m_Components;
		e.m_Before = file.Words(file.m_Dst);
		const std::vector<u32> src0 = file.Words(file.m_Src0);
		const std::vector<u32> src1 = c.m_Unary ? std::vector<u32>() : file.Words(file.m_Src1);
		const u32 stride0 = IsStream(c.m_Src0Bank) ? n : 0;
		const u32 stride1 = IsStream(c.m_Src1Bank) ? n : 0;
		OxTest::ModelStream(c.m_Op, c.m_Kind, n, evalCount, src0.data(), stride0, c.m_Unary ? nullptr : src1.data(), stride1, e.m_Low, &e.m_LowAlt);
		e.m_Written = evalCount * n;
		e.m_Standard = e.m_Low;
		e.m_StandardAlt = e.m_LowAlt;

		// The shortcuts. A source is broadcast when more than one element is evaluated
		// from a non-stream register (one element reads every source as a stream).
		const bool broadcast0 = evalCount != 1 && !IsStream(c.m_Src0Bank);
		const bool broadcast1 = evalCount != 1 && !c.m_Unary && !IsStream(c.m_Src1Bank);
		const u32 total = e.m_Written;
		const u32 blockInts = total / 12 * 12;
		// The integer kernels take their uniform-constant paths when the constant's first
		// four broadcast words are equal.
		bool uniform = !c.m_Unary;
		for (u32 i = 1; i < 4 && uniform; ++i)
			uniform = src1[i % n] == src1[0];
		auto setStandard = [&e](u32 i, u32 word) { e.m_Standard[i] = e.m_StandardAlt[i] = word; };
		if (c.m_Kind == EModelKind::Float && c.m_Op == SOp_MathOp::Op_Mod && broadcast1 && !broadcast0)
		{
			for (u32 i = 0; i < total; ++i)
				setStandard(i, RecipModFloat(src0[i], src1[i % n]));
			e.m_Difference = CBVM::PathDifference_FloatModByConstant;
		}
		// One element divides exactly (the model's values), but the same operands take the
		// reciprocal from two elements on: classified all the same.
		if (c.m_Kind == EModelKind::Float && c.m_Op == SOp_MathOp::Op_Mod && evalCount == 1 && !c.m_Unary && !IsStream(c.m_Src1Bank))
			e.m_Difference = CBVM::PathDifference_FloatModByConstant;
		if (c.m_Kind == EModelKind::Float && c.m_Op == SOp_MathOp::Op_Mod && broadcast0 && broadcast1)
		{
			e.m_AllowedReports.push_back("(stride0 == 0) != (stride1 == 0)");
			e.m_Difference = CBVM::PathDifference_FloatModOfConstants;
			e.m_Refusal = CBVM::VerifyError_FloatModOfConstants;
		}
		if (c.m_Kind == EModelKind::Float && c.m_Op == SOp_MathOp::Op_Neg && broadcast0)
		{
			for (u32 i = 0; i < total; ++i)
				setStandard(i, e.m_Before[i]);
			e.m_AllowedReports.push_back("stride == sizeof(_Type) && stride0 == sizeof(_Type)");
			e.m_AllowedReports.push_back("false");
			e.m_Difference = CBVM::PathDifference_FloatNegOfConstant;
			e.m_Refusal = CBVM::VerifyError_FloatNegOfConstant;
		}
		if (c.m_Kind == EModelKind::Int && IsShift(c.m_Op) && broadcast1 && blockInts > 0 && uniform && src1[0] > 31)
		{
			for (u32 i = 0; i < blockInts; ++i)
			{
				const s32 a = s32(src0[stride0 == 0 ? i % n : i]);
				setStandard(i, c.m_Op == SOp_MathOp::Op_Bitwise_ShiftRight ? u32(a < 0 ? -1 : 0) : 0u);
			}
			e.m_AllowedReports.push_back("bits <= 31");
			e.m_Difference = CBVM::PathDifference_ShiftCountAbove31;
			e.m_Refusal = CBVM::VerifyError_ShiftCountAbove31;
		}
		if (c.m_Kind == EModelKind::Int && c.m_Op == SOp_MathOp::Op_Div && broadcast1 && blockInts > 0 && uniform && src1[0] == 0x80000000u)
		{
			for (u32 i = 0; i < blockInts; ++i)
				if (src0[stride0 == 0 ? i % n : i] == 0x80000000u)
					setStandard(i, 0xFFFFFFFFu);
			e.m_Difference = CBVM::PathDifference_DivByIntMin;
		}
		return e;
	}

	namespace
	{
		// The reports of the run in progress (Execute installs the handler).
		std::vector<std::string> g_Reports;

		int CaptureReport(const Assert::SReport &report)
		{
			g_Reports.push_back(report.m_Expression);
			return Assert::Answer_Continue;
		}
	}

	SRun Execute(SRegisterFile &file, const std::vector<u8> &bytecode, CBVM::EExecPath path)
	{
		CCompilerBackendCPUProgram_VM program;
		CRuntimeCPUBindings bindings;
		SCompilerCPUDebugCtx debugCtx;
		const CBytecodeExecContext ctx(&program, bindings, file.m_Storage.Registers(), debugCtx);
		g_Reports.clear();
		const Assert::FnHandler previous = Assert::SetHandler(&CaptureReport);
		SRun run;
		run.m_Result = CBVM::CInterpreter::Run(ctx, bytecode.data(), u32(bytecode.size()), path);
		Assert::SetHandler(previous);
		run.m_Reports.swap(g_Reports);
		run.m_Dst = file.Words(file.m_Dst);
		return run;
	}

	SOutcome Check(const SCase &c, SFiles &files, const std::vector<u8> &bytecode)
	{
		SOutcome outcome;
		const SExpectation &e = outcome.m_Expected = Expect(c, files.m_Standard);
		const CBVM::EPathDifference classified = CBVM::StandardPathDifference(files.m_Standard.m_Storage.Registers(), bytecode.data());
		const SRun standard = Execute(files.m_Standard, bytecode, CBVM::ExecPath_Standard);
		const SRun low = Execute(files.m_Low, bytecode, CBVM::ExecPath_Low);

		auto fail = [&outcome](const char *what, const std::string &detail) { outcome.m_Mismatches.push_back({what, detail}); };
		if (classified != e.m_Difference)
			fail("classification", std::string("StandardPathDifference says '") + CBVM::PathDifferenceName(classified) + "', expected '" +
									   CBVM::PathDifferenceName(e.m_Difference) + "'");
		for (const SRun *run : {&standard, &low})
			if (run->m_Result.m_Status != CBVM::RunStatus_Ok || run->m_Result.m_Executed != 1)
				fail(run == &standard ? "standard run" : "low run", "did not execute the instruction");
		for (const std::string &report : low.m_Reports)
			fail("low path report", report);
		for (const std::string &report : standard.m_Reports)
		{
			bool allowed = false;
			for (const std::string &expected : e.m_AllowedReports)
				allowed = allowed || report == expected;
			if (!allowed)
				fail("standard path report", report);
		}
		// Words past the evaluated ones (the rest of the block, padding included) must be
		// left as they were.
		const u32 words = u32(e.m_Before.size());
		for (u32 i = 0; i < words; ++i)
		{
			const bool written = i < e.m_Written;
			const u32 low0 = written ? e.m_Low[i] : e.m_Before[i], low1 = written ? e.m_LowAlt[i] : e.m_Before[i];
			const u32 std0 = written ? e.m_Standard[i] : e.m_Before[i], std1 = written ? e.m_StandardAlt[i] : e.m_Before[i];
			char detail[160];
			if (low.m_Dst[i] != low0 && low.m_Dst[i] != low1)
			{
				std::snprintf(detail, sizeof(detail), "low word %u: expected 0x%08x, got 0x%08x", i, low0, low.m_Dst[i]);
				fail("value", detail);
			}
			if (standard.m_Dst[i] != std0 && standard.m_Dst[i] != std1)
			{
				std::snprintf(detail, sizeof(detail), "standard word %u: expected 0x%08x, got 0x%08x", i, std0, standard.m_Dst[i]);
				fail("value", detail);
			}
		}
		outcome.m_WordsCompared = words * 2;
		return outcome;
	}

	std::vector<CBVM::EKernelIsa> WideKernelSets()
	{
		std::vector<CBVM::EKernelIsa> sets;
		for (u32 s = CBVM::KernelIsa_Base + 1; s < CBVM::__MaxKernelIsas; ++s)
			if (CBVM::KernelIsaSupported(CBVM::EKernelIsa(s)))
				sets.push_back(CBVM::EKernelIsa(s));
		return sets;
	}

	SOutcome CheckEveryKernelSet(const SCase &c, const std::function<void(SFiles &)> &fill, const std::vector<CBVM::EKernelIsa> &sets)
	{
		const CBVM::EKernelIsa active = CBVM::ActiveKernelIsa();
		SFiles files;
		fill(files);
		CBVM::SetKernelIsa(CBVM::KernelIsa_Base);
		SOutcome outcome = Check(c, files, Encode(files.m_Standard, c.m_Op));
		const std::vector<u32> reference = files.m_Standard.Words(files.m_Standard.m_Dst);
		for (CBVM::EKernelIsa set : sets)
		{
			SFiles wide;
			fill(wide);
			CBVM::SetKernelIsa(set);
			SOutcome withSet = Check(c, wide, Encode(wide.m_Standard, c.m_Op));
			CBVM::SetKernelIsa(CBVM::KernelIsa_Base);
			const std::string name = CBVM::KernelIsaName(set);
			for (SMismatch &m : withSet.m_Mismatches)
				outcome.m_Mismatches.push_back({name + ": " + m.m_What, m.m_Detail});
			const std::vector<u32> words = wide.m_Standard.Words(wide.m_Standard.m_Dst);
			for (std::size_t w = 0; w < words.size() && w < reference.size(); ++w)
				if (words[w] != reference[w])
				{
					char detail[96];
					std::snprintf(detail, sizeof(detail), "word %zu of the destination block: sse2 0x%08x, %s 0x%08x", w, reference[w], name.c_str(), words[w]);
					outcome.m_Mismatches.push_back({name + " differs from sse2", detail});
				}
		}
		CBVM::SetKernelIsa(active);
		return outcome;
	}
}
