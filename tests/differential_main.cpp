// ox_differential: runs random well-formed math-op instructions on the standard path
// and on the Low path from identical register files and compares every destination
// word with the plain scalar model.
//
//   ox_differential [--instructions N] [--seed S] [--first I] [--verbose]
//
// Instruction i draws everything from (seed, i), so "--seed S --first I
// --instructions 1" replays one failing instruction. The two paths may differ from the
// model only where the standard path trades exactness for speed, by design:
//   - float modulo by a constant divisor (a reciprocal multiply: frac(a * (1/c)) * c);
//   - a uniform integer shift count above 31 on whole 12-integer blocks (0, or the sign
//     fill, instead of count & 31; the assertion "bits <= 31" reports it);
//   - integer division by the uniform constant INT_MIN on whole blocks (INT_MIN / INT_MIN
//     gives -1: the power-of-two test accepts INT_MIN);
//   - float negation of a constant operand (a failed verification: nothing is written);
//   - float modulo with two constant operands (reported, then evaluated per element).
// Every other difference, and every assertion report outside those cases, is a failure.
// Exit status: 0 when everything matched, 1 otherwise, 2 for a bad command line.

#include "cbvm_interpreter.h"
#include "cbvm_math_op_paths.h"
#include "cbvm_meta_ops.h"
#include "cbvm_register_storage.h"
#include "kr_assert.h"
#include "scalar_model.h"

#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <random>
#include <string>
#include <vector>

using namespace Orvex;
using Compiler::EMetaType;
using Compiler::IR::SOp_MathOp;
using OxTest::EModelKind;
using EOp = SOp_MathOp::EOp;

namespace
{
	// ---- Reports made while one path runs

	std::vector<std::string> g_Reports;

	int CaptureReport(const Assert::SReport &report)
	{
		g_Reports.push_back(report.m_Expression);
		return Assert::Answer_Continue;
	}

	// ---- One random instruction

	const EBaseTypeID kTypes[] = {BaseType_Float, BaseType_Float2, BaseType_Float3, BaseType_Float4, BaseType_Quaternion,
								  BaseType_I32, BaseType_Int2, BaseType_Int3, BaseType_Int4,
								  BaseType_Bool, BaseType_Bool2, BaseType_Bool3, BaseType_Bool4};
	const EMetaType kBanks[] = {Compiler::MetaType_Constant, Compiler::MetaType_Normal, Compiler::MetaType_Instance, Compiler::MetaType_Stream};

	bool IsStream(EMetaType bank) { return bank >= Compiler::MetaType_Instance; }

	struct SCase
	{
		EOp m_Op;
		EBaseTypeID m_Type;
		EModelKind m_Kind;
		u32 m_Components;
		EMetaType m_DstBank, m_Src0Bank, m_Src1Bank;
		u32 m_StreamDims;
		bool m_InPlace;	// source 0 is the destination register
		bool m_Unary;
	};

	const float kSpecialFloats[] = {0.0f, -0.0f, 1.0f, -1.0f, 0.5f, 2.0f, -2.0f, 5.5f, -5.5f, 1.0e10f, -3.0e10f, 7.0f, 1.0e-40f, -1.0e-42f,
									INFINITY, -INFINITY, NAN, -NAN, 2147483648.0f, 3.0f, 1.0f / 3.0f, 65536.5f, 1.0e-7f};
	const s32 kSpecialInts[] = {0, 1, -1, 2, -2, 3, 7, -7, 8, -8, 13, -13, 31, 32, 33, 40, 0x7FFFFFFF, s32(0x80000000u), s32(0x80000001u), 0x40000000, -65536, 12345};

	u32 RandomWord(std::mt19937 &rng, EModelKind kind)
	{
		const u32 pick = rng() % 8;
		if (kind == EModelKind::Float)
		{
			if (pick == 0)
				return OxTest::FloatBits(kSpecialFloats[rng() % (sizeof(kSpecialFloats) / sizeof(kSpecialFloats[0]))]);
			if (pick == 1)
				return (rng() & 0x807FFFFFu) | 0x7F800000u;	// NaNs with payloads, infinities
			if (pick == 2)
				return rng();	// any bit pattern
			return OxTest::FloatBits(std::ldexp(float(s32(rng() % 20001) - 10000) / 997.0f, s32(rng() % 21) - 10));
		}
		if (pick <= 2)
			return u32(kSpecialInts[rng() % (sizeof(kSpecialInts) / sizeof(kSpecialInts[0]))]);
		if (pick == 3)
			return rng();
		return u32(s32(rng() % 201) - 100);
	}

	SCase MakeCase(std::mt19937 &rng)
	{
		SCase c;
		c.m_Type = kTypes[rng() % (sizeof(kTypes) / sizeof(kTypes[0]))];
		OxTest::ModelKernelForType(c.m_Type, c.m_Kind, c.m_Components);
		do
			c.m_Op = EOp(rng() % SOp_MathOp::__MaxOps);
		while (!OxTest::ModelSupports(c.m_Kind, c.m_Op));
		c.m_Unary = OxTest::ModelIsUnary(c.m_Op);
		c.m_DstBank = kBanks[rng() % 4];
		c.m_Src0Bank = kBanks[rng() % 4];
		c.m_Src1Bank = kBanks[rng() % 4];
		const u32 sizeClass = rng() % 16;
		c.m_StreamDims = sizeClass < 13 ? rng() % 65 : (sizeClass < 15 ? 65 + rng() % 400 : 1000 + rng() % 5000);
		c.m_InPlace = (rng() % 8) == 0;
		if (c.m_InPlace)
			c.m_Src0Bank = c.m_DstBank;
		return c;
	}

	// ---- Register files

	struct SRegisters
	{
		CRegisterStorage m_Storage{3};
		CVMRegID m_Dst, m_Src0, m_Src1;
	};

	// A stream register holds at least one element: a one-element evaluation reads element 0.
	u32 ElementsOf(EMetaType bank, u32 streamDims) { return IsStream(bank) && streamDims > 0 ? streamDims : 1; }

	void Allocate(SRegisters &regs, const SCase &c)
	{
		regs.m_Dst = CVMRegID::Build(0, c.m_DstBank, c.m_Type);
		regs.m_Src0 = c.m_InPlace ? regs.m_Dst : CVMRegID::Build(1, c.m_Src0Bank, c.m_Type);
		regs.m_Src1 = c.m_Unary ? CVMRegID::INVALID : CVMRegID::Build(2, c.m_Src1Bank, c.m_Type);
		regs.m_Storage.AllocateElements(regs.m_Dst, ElementsOf(c.m_DstBank, c.m_StreamDims));
		if (!c.m_InPlace)
			regs.m_Storage.AllocateElements(regs.m_Src0, ElementsOf(c.m_Src0Bank, c.m_StreamDims));
		if (!c.m_Unary)
			regs.m_Storage.AllocateElements(regs.m_Src1, ElementsOf(c.m_Src1Bank, c.m_StreamDims));
		regs.m_Storage.Registers().m_StreamDimensions = c.m_StreamDims;
	}

	// Fills the whole capacity, padding included, so that both copies start identical.
	void Fill(const SRegisters &regs, CVMRegID id, std::mt19937 &rng, EModelKind kind)
	{
		u32 *words = regs.m_Storage.DataAs<u32>(id);
		const u32 count = regs.m_Storage.Capacity(id) / 4;
		for (u32 i = 0; i < count; ++i)
			words[i] = RandomWord(rng, kind);
	}

	void CopyRegister(const SRegisters &from, const SRegisters &to, CVMRegID id)
	{
		std::memcpy(to.m_Storage.Data(id), from.m_Storage.Data(id), from.m_Storage.Capacity(id));
	}

	std::vector<u32> Words(const SRegisters &regs, CVMRegID id)
	{
		const u32 *words = regs.m_Storage.DataAs<u32>(id);
		return std::vector<u32>(words, words + regs.m_Storage.Capacity(id) / 4);
	}

	// ---- Where the standard path differs from the model, by design

	u32 RecipModFloat(u32 aBits, u32 cBits)
	{
		const float a = OxTest::BitsFloat(aBits), c = OxTest::BitsFloat(cBits);
		const float q = a * (1.0f / c);
		const float frac = std::fabs(q) < 2147483648.0f ? q - float(s32(q)) : 0.0f;
		return OxTest::FloatBits(frac * c);
	}

	struct SRun
	{
		std::vector<u32> m_Dst;
		std::vector<std::string> m_Reports;
		CBVM::SRunResult m_Result;
	};

	SRun Execute(SRegisters &regs, const std::vector<u8> &bytecode, CBVM::EExecPath path)
	{
		CCompilerBackendCPUProgram_VM program;
		CRuntimeCPUBindings bindings;
		SCompilerCPUDebugCtx debugCtx;
		const CBytecodeExecContext ctx(&program, bindings, regs.m_Storage.Registers(), debugCtx);
		g_Reports.clear();
		SRun run;
		run.m_Result = CBVM::CInterpreter::Run(ctx, bytecode.data(), u32(bytecode.size()), path);
		run.m_Reports = g_Reports;
		run.m_Dst = Words(regs, regs.m_Dst);
		return run;
	}

	struct SStats
	{
		u64 m_Instructions = 0;
		u64 m_Words = 0;
		u64 m_Mismatches = 0;
		u64 m_FailedInstructions = 0;
		u64 m_ExpectedDifferences = 0;	// instructions where the standard path took a documented shortcut
	};

	std::string Describe(const SCase &c)
	{
		char text[256];
		std::snprintf(text, sizeof(text), "%s %s dst=%s src0=%s src1=%s dims=%u%s", SOp_MathOp::OperatorTraits(c.m_Op).m_Name, BaseTypeName(c.m_Type),
					  Compiler::MetaTypeName(c.m_DstBank), Compiler::MetaTypeName(c.m_Src0Bank), c.m_Unary ? "-" : Compiler::MetaTypeName(c.m_Src1Bank),
					  c.m_StreamDims, c.m_InPlace ? " in-place" : "");
		return text;
	}

	bool CheckOne(u32 seed, u64 index, bool verbose, SStats &stats)
	{
		std::mt19937 rng(seed ^ u32(index * 0x9E3779B9u) ^ u32(index >> 32));
		const SCase c = MakeCase(rng);

		SRegisters standard, low;
		Allocate(standard, c);
		Allocate(low, c);
		Fill(standard, standard.m_Dst, rng, c.m_Kind);
		if (!c.m_InPlace)
			Fill(standard, standard.m_Src0, rng, c.m_Kind);
		if (!c.m_Unary)
			Fill(standard, standard.m_Src1, rng, c.m_Kind);
		for (CVMRegID id : {standard.m_Dst, standard.m_Src0, standard.m_Src1})
			if (id.Valid())
				CopyRegister(standard, low, id);

		// Model, from the values before either run.
		const u32 evalCount = IsStream(c.m_DstBank) ? c.m_StreamDims : 1;
		const u32 n = c.m_Components;
		const std::vector<u32> before = Words(standard, standard.m_Dst);
		const std::vector<u32> src0 = Words(standard, standard.m_Src0);
		const std::vector<u32> src1 = c.m_Unary ? std::vector<u32>() : Words(standard, standard.m_Src1);
		const u32 stride0 = IsStream(c.m_Src0Bank) ? n : 0;
		const u32 stride1 = IsStream(c.m_Src1Bank) ? n : 0;
		std::vector<u32> model, alternative;
		OxTest::ModelStream(c.m_Op, c.m_Kind, n, evalCount, src0.data(), stride0, c.m_Unary ? nullptr : src1.data(), stride1, model, &alternative);

		// The standard path's documented shortcuts. Its strides: every source is read as a
		// stream when one element is evaluated.
		std::vector<u32> expectedStandard = model;
		std::vector<u32> alternativeStandard = alternative;
		std::vector<std::string> allowedReports;
		const bool broadcast0 = evalCount != 1 && !IsStream(c.m_Src0Bank);
		const bool broadcast1 = evalCount != 1 && !c.m_Unary && !IsStream(c.m_Src1Bank);
		const u32 total = evalCount * n;
		const u32 blockInts = total / 12 * 12;
		// The integer kernels take their uniform-constant paths when the constant's first
		// four broadcast words are equal.
		auto uniform = [&]() {
			for (u32 i = 1; i < 4; ++i)
				if (src1[i % n] != src1[0])
					return false;
			return true;
		};
		bool shortcut = false;
		if (c.m_Kind == EModelKind::Float && c.m_Op == SOp_MathOp::Op_Mod && broadcast1 && !broadcast0)
		{
			for (u32 i = 0; i < total; ++i)
				expectedStandard[i] = alternativeStandard[i] = RecipModFloat(src0[i], src1[i % n]);
			shortcut = true;
		}
		if (c.m_Kind == EModelKind::Float && c.m_Op == SOp_MathOp::Op_Mod && broadcast0 && broadcast1)
		{
			allowedReports.push_back("(stride0 == 0) != (stride1 == 0)");
			shortcut = true;
		}
		if (c.m_Kind == EModelKind::Float && c.m_Op == SOp_MathOp::Op_Neg && broadcast0)
		{
			for (u32 i = 0; i < total; ++i)
				expectedStandard[i] = alternativeStandard[i] = before[i];
			allowedReports.push_back("stride == sizeof(_Type) && stride0 == sizeof(_Type)");
			allowedReports.push_back("false");
			shortcut = true;
		}
		const bool shift = c.m_Op == SOp_MathOp::Op_Bitwise_ShiftLeft || c.m_Op == SOp_MathOp::Op_Bitwise_ShiftRight || c.m_Op == SOp_MathOp::Op_Bitwise_ShiftRightLogical;
		if (c.m_Kind == EModelKind::Int && shift && broadcast1 && blockInts > 0 && uniform() && src1[0] > 31)
		{
			for (u32 i = 0; i < blockInts; ++i)
			{
				const s32 a = s32(src0[stride0 == 0 ? i % n : i]);
				expectedStandard[i] = alternativeStandard[i] = c.m_Op == SOp_MathOp::Op_Bitwise_ShiftRight ? u32(a < 0 ? -1 : 0) : 0u;
			}
			allowedReports.push_back("bits <= 31");
			shortcut = true;
		}
		if (c.m_Kind == EModelKind::Int && c.m_Op == SOp_MathOp::Op_Div && broadcast1 && blockInts > 0 && uniform() && src1[0] == 0x80000000u)
		{
			for (u32 i = 0; i < blockInts; ++i)
				if (src0[stride0 == 0 ? i % n : i] == 0x80000000u)
					expectedStandard[i] = alternativeStandard[i] = 0xFFFFFFFFu;
			shortcut = true;
		}
		stats.m_ExpectedDifferences += shortcut ? 1 : 0;

		// Encode and run on both paths.
		SOp_MathOp::SDesc desc;
		desc.m_Op = c.m_Op;
		desc.m_DstReg = standard.m_Dst.ToIRRegID();
		desc.m_SrcReg0 = standard.m_Src0.ToIRRegID();
		desc.m_SrcReg1 = standard.m_Src1.ToIRRegID();
		std::vector<u8> bytecode(CMetaOp_MathOp::IP_Offset);
		bytecode.resize(CMetaOp_MathOp::EncodeDescToBytecode(bytecode.data(), desc));

		// The library's own classification must agree with this test's reading.
		const CBVM::EPathDifference classified = CBVM::StandardPathDifference(standard.m_Storage.Registers(), bytecode.data());

		const SRun runStandard = Execute(standard, bytecode, CBVM::ExecPath_Standard);
		const SRun runLow = Execute(low, bytecode, CBVM::ExecPath_Low);

		u64 mismatches = 0;
		auto fail = [&](const char *what, const std::string &detail) {
			if (mismatches++ < 4 || verbose)
				std::printf("MISMATCH seed %u instruction %llu (%s): %s %s\n", seed, (unsigned long long)index, Describe(c).c_str(), what, detail.c_str());
		};
		if ((classified != CBVM::PathDifference_None) != shortcut)
			fail("classification", std::string("StandardPathDifference says '") + CBVM::PathDifferenceName(classified) + "'");
		for (const SRun *run : {&runStandard, &runLow})
			if (run->m_Result.m_Status != CBVM::RunStatus_Ok || run->m_Result.m_Executed != 1)
				fail(run == &runStandard ? "standard run" : "low run", "did not execute the instruction");
		for (const std::string &report : runLow.m_Reports)
			fail("low path report", report);
		for (const std::string &report : runStandard.m_Reports)
		{
			bool allowed = false;
			for (const std::string &expected : allowedReports)
				allowed = allowed || report == expected;
			if (!allowed)
				fail("standard path report", report);
		}
		const u32 words = u32(before.size());
		for (u32 i = 0; i < words; ++i)
		{
			const bool written = i < total;
			const u32 low0 = written ? model[i] : before[i], low1 = written ? alternative[i] : before[i];
			const u32 std0 = written ? expectedStandard[i] : before[i], std1 = written ? alternativeStandard[i] : before[i];
			char detail[160];
			if (runLow.m_Dst[i] != low0 && runLow.m_Dst[i] != low1)
			{
				std::snprintf(detail, sizeof(detail), "low word %u: expected 0x%08x, got 0x%08x", i, low0, runLow.m_Dst[i]);
				fail("value", detail);
			}
			if (runStandard.m_Dst[i] != std0 && runStandard.m_Dst[i] != std1)
			{
				std::snprintf(detail, sizeof(detail), "standard word %u: expected 0x%08x, got 0x%08x", i, std0, runStandard.m_Dst[i]);
				fail("value", detail);
			}
		}
		stats.m_Instructions += 1;
		stats.m_Words += u64(words) * 2;
		stats.m_Mismatches += mismatches;
		stats.m_FailedInstructions += mismatches != 0 ? 1 : 0;
		if (mismatches != 0)
			std::printf("  replay: ox_differential --seed %u --first %llu --instructions 1 --verbose\n", seed, (unsigned long long)index);
		return mismatches == 0;
	}

	bool ParseU64(const char *text, u64 &value)
	{
		char *end = nullptr;
		value = std::strtoull(text, &end, 0);
		return end != text && *end == 0;
	}
}

int main(int argc, char **argv)
{
	u64 instructions = 20000, seed = 20261122, first = 0;
	bool verbose = false;
	for (int i = 1; i < argc; ++i)
	{
		const std::string arg = argv[i];
		u64 *target = arg == "--instructions" ? &instructions : arg == "--seed" ? &seed : arg == "--first" ? &first : nullptr;
		if (target != nullptr && i + 1 < argc && ParseU64(argv[i + 1], *target))
			++i;
		else if (arg == "--verbose")
			verbose = true;
		else
		{
			std::fprintf(stderr, "usage: ox_differential [--instructions N] [--seed S] [--first I] [--verbose]\n");
			return 2;
		}
	}
	std::printf("ox_differential: seed %llu, instructions %llu..%llu\n", (unsigned long long)seed, (unsigned long long)first, (unsigned long long)(first + instructions));
	std::fflush(stdout);

	const Assert::FnHandler previous = Assert::SetHandler(&CaptureReport);
	SStats stats;
	for (u64 i = first; i < first + instructions; ++i)
		CheckOne(u32(seed), i, verbose, stats);
	Assert::SetHandler(previous);

	std::printf("instructions compared: %llu, destination words compared: %llu, documented shortcuts taken: %llu\n",
				(unsigned long long)stats.m_Instructions, (unsigned long long)stats.m_Words, (unsigned long long)stats.m_ExpectedDifferences);
	std::printf("mismatching instructions: %llu, mismatching words: %llu\n", (unsigned long long)stats.m_FailedInstructions, (unsigned long long)stats.m_Mismatches);
	std::printf("differential: %llu passed, %llu failed\n", (unsigned long long)(stats.m_Instructions - stats.m_FailedInstructions), (unsigned long long)stats.m_FailedInstructions);
	return stats.m_FailedInstructions == 0 ? 0 : 1;
}
