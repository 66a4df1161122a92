// ox_differential: runs random well-formed math-op instructions on the standard path
// and on the Low path from identical register files and compares every destination
// word with the plain scalar model (the check itself: differential/differential_core.h,
// shared with the fuzz target fuzz_differential).
//
//   ox_differential [--instructions N] [--seed S] [--first I] [--isa SET] [--verbose]
//                   [--write-digests FILE | --digests FILE] [--dump FILE]
//
// --isa avx2, avx512 or all: each instruction also runs on the standard path with that
// kernel set (every set this machine runs, for all) from an identical file, checked
// against the model the same way, and its destination block compared word for word
// with the SSE2 kernels' (cbvm_kernel_isa.h). A set the machine lacks is skipped, said
// once.
//
// Instruction i draws everything from (seed, i), so "--seed S --first I
// --instructions 1" replays one failing instruction. The two paths may differ from the
// model only where the standard path trades exactness for speed, by design (listed in
// differential_core.h). Every other difference, and every assertion report outside
// those cases, is a failure.
//
// --write-digests FILE / --digests FILE: the cross-machine golden check. For every
// instruction the destination block left by the standard path (with the active kernel
// set) and by the Low path is hashed (FNV-1a, 64 bits, over every word, padding
// included) into one line "index digest". --write-digests writes the lines; --digests
// compares them with a file written before (the checked-in ones come from x86 SSE2), and
// names the first instruction whose words differ. Every machine, architecture and
// kernel set must produce the same lines.
//
// --dump FILE: every instruction's register blocks before the run (destination and
// sources, padding included) and both paths' destination blocks after it, as text: two
// machines' dumps of the same instructions, compared with diff, show whether their
// inputs or their results differ, and where.
// Exit status: 0 when everything matched, 1 otherwise, 2 for a bad command line.

#include "cbvm_kernel_isa.h"
#include "differential_core.h"
#include "scalar_model.h"

#include <cmath>
#include <cstdio>
#include <fstream>
#include <cstdlib>
#include <random>
#include <string>
#include <vector>

using namespace Orvex;
using Compiler::IR::SOp_MathOp;
using OxDiff::EOp;
using OxTest::EModelKind;

namespace
{
	// ---- One random instruction

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
			// One draw per statement: the order in which a call's arguments are evaluated
			// is the compiler's choice, and GCC takes them right to left on x86-64 but left
			// to right on AArch64, which gave the two machines different inputs. The
			// exponent is drawn first, as x86 always drew it (the golden digests are x86's).
			const s32 exponent = s32(rng() % 21) - 10;
			const float mantissa = float(s32(rng() % 20001) - 10000) / 997.0f;
			return OxTest::FloatBits(std::ldexp(mantissa, exponent));
		}
		if (pick <= 2)
			return u32(kSpecialInts[rng() % (sizeof(kSpecialInts) / sizeof(kSpecialInts[0]))]);
		if (pick == 3)
			return rng();
		return u32(s32(rng() % 201) - 100);
	}

	OxDiff::SCase RandomCase(std::mt19937 &rng)
	{
		const EBaseTypeID type = OxDiff::kTypes[rng() % OxDiff::kTypeCount];
		EModelKind kind;
		u32 components = 0;
		OxTest::ModelKernelForType(type, kind, components);
		EOp op;
		do
			op = EOp(rng() % SOp_MathOp::__MaxOps);
		while (!OxTest::ModelSupports(kind, op));
		const Compiler::EMetaType dstBank = OxDiff::kBanks[rng() % OxDiff::kBankCount];
		const Compiler::EMetaType src0Bank = OxDiff::kBanks[rng() % OxDiff::kBankCount];
		const Compiler::EMetaType src1Bank = OxDiff::kBanks[rng() % OxDiff::kBankCount];
		const u32 sizeClass = rng() % 16;
		const u32 streamDims = sizeClass < 13 ? rng() % 65 : (sizeClass < 15 ? 65 + rng() % 400 : 1000 + rng() % 5000);
		const bool inPlace = (rng() % 8) == 0;
		return OxDiff::MakeCase(op, type, dstBank, src0Bank, src1Bank, streamDims, inPlace);
	}

	struct SStats
	{
		u64 m_Instructions = 0;
		u64 m_Words = 0;
		u64 m_Mismatches = 0;
		u64 m_FailedInstructions = 0;
		u64 m_ExpectedDifferences = 0;	// instructions where the standard path took a documented shortcut
		u64 m_SetRuns = 0;				// runs with a wide kernel set, compared with SSE2's
	};

	// FNV-1a over the words' bytes, least significant first (the same on every machine).
	u64 Digest(u64 hash, const std::vector<u32> &words)
	{
		for (u32 w : words)
			for (int b = 0; b < 4; ++b)
			{
				hash ^= (w >> (8 * b)) & 0xFFu;
				hash *= 0x100000001B3ull;
			}
		return hash;
	}

	std::FILE *g_Dump = nullptr;	// --dump: every instruction's blocks, before and after

	void DumpWords(const char *name, const std::vector<u32> &words)
	{
		std::fprintf(g_Dump, "  %s (%zu words):", name, words.size());
		for (std::size_t w = 0; w < words.size(); ++w)
			std::fprintf(g_Dump, "%s%08x", w % 8 == 0 ? "\n    " : " ", words[w]);
		std::fprintf(g_Dump, "\n");
	}

	// The digest line of one instruction: both paths' destination blocks after the run.
	u64 DigestOne(u64 index, const OxDiff::SCase &c, const std::mt19937 &filled)
	{
		OxDiff::SFiles files;
		std::mt19937 draws = filled;
		OxDiff::BuildFiles(c, [&]() { return RandomWord(draws, c.m_Kind); }, files);
		const std::vector<u8> bytecode = OxDiff::Encode(files.m_Standard, c.m_Op);
		if (g_Dump != nullptr)
		{
			const OxDiff::SRegisterFile &file = files.m_Standard;
			std::fprintf(g_Dump, "instruction %llu: %s\n  bytecode:", (unsigned long long)index, OxDiff::Describe(c).c_str());
			for (u8 b : bytecode)
				std::fprintf(g_Dump, " %02x", b);
			std::fprintf(g_Dump, "\n");
			DumpWords("destination before", file.Words(file.m_Dst));
			if (!c.m_InPlace)
				DumpWords("source 0", file.Words(file.m_Src0));
			if (!c.m_Unary)
				DumpWords("source 1", file.Words(file.m_Src1));
		}
		const OxDiff::SRun standard = OxDiff::Execute(files.m_Standard, bytecode, CBVM::ExecPath_Standard);
		const OxDiff::SRun low = OxDiff::Execute(files.m_Low, bytecode, CBVM::ExecPath_Low);
		if (g_Dump != nullptr)
		{
			DumpWords("standard path after", standard.m_Dst);
			DumpWords("low path after", low.m_Dst);
			std::fprintf(g_Dump, "  reports: standard %zu, low %zu\n", standard.m_Reports.size(), low.m_Reports.size());
		}
		u64 hash = 0xCBF29CE484222325ull;
		hash = Digest(hash, standard.m_Dst);
		hash = Digest(hash, low.m_Dst);
		hash = Digest(hash, {u32(standard.m_Reports.size()), u32(low.m_Reports.size())});
		return hash;
	}

	std::vector<u64> *g_Digests = nullptr;	// filled when digests are written or checked

	bool CheckOne(u32 seed, u64 index, bool verbose, const std::vector<CBVM::EKernelIsa> &sets, SStats &stats)
	{
		std::mt19937 rng(seed ^ u32(index * 0x9E3779B9u) ^ u32(index >> 32));
		const OxDiff::SCase c = RandomCase(rng);
		const std::mt19937 filled = rng;	// the draws of the file: again for every kernel set
		const OxDiff::SOutcome outcome = OxDiff::CheckEveryKernelSet(
			c,
			[&](OxDiff::SFiles &files) {
				std::mt19937 draws = filled;
				OxDiff::BuildFiles(c, [&]() { return RandomWord(draws, c.m_Kind); }, files);
			},
			sets);
		stats.m_SetRuns += sets.size();
		if (g_Digests != nullptr || g_Dump != nullptr)
		{
			const u64 digest = DigestOne(index, c, filled);
			if (g_Digests != nullptr)
				g_Digests->push_back(digest);
		}

		const u64 mismatches = outcome.m_Mismatches.size();
		for (u64 m = 0; m < mismatches && (m < 4 || verbose); ++m)
			std::printf("MISMATCH seed %u instruction %llu (%s): %s %s\n", seed, (unsigned long long)index, OxDiff::Describe(c).c_str(),
						outcome.m_Mismatches[m].m_What.c_str(), outcome.m_Mismatches[m].m_Detail.c_str());
		stats.m_Instructions += 1;
		stats.m_Words += outcome.m_WordsCompared;
		stats.m_Mismatches += mismatches;
		stats.m_FailedInstructions += mismatches != 0 ? 1 : 0;
		stats.m_ExpectedDifferences += outcome.m_Expected.m_Difference != CBVM::PathDifference_None ? 1 : 0;
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
	std::string writeDigests, readDigests, dump;
	std::vector<CBVM::EKernelIsa> sets;	// wide sets compared with SSE2
	for (int i = 1; i < argc; ++i)
	{
		const std::string arg = argv[i];
		u64 *target = arg == "--instructions" ? &instructions : arg == "--seed" ? &seed : arg == "--first" ? &first : nullptr;
		CBVM::EKernelIsa named = CBVM::KernelIsa_Base;
		if (target != nullptr && i + 1 < argc && ParseU64(argv[i + 1], *target))
			++i;
		else if (arg == "--verbose")
			verbose = true;
		else if ((arg == "--write-digests" || arg == "--digests") && i + 1 < argc)
			(arg == "--digests" ? readDigests : writeDigests) = argv[++i];
		else if (arg == "--dump" && i + 1 < argc)
			dump = argv[++i];
		else if (arg == "--isa" && i + 1 < argc && (std::string(argv[i + 1]) == "all" || CBVM::KernelIsaFromName(argv[i + 1], named)))
		{
			const bool all = std::string(argv[++i]) == "all";
			for (u32 s = CBVM::KernelIsa_Base + 1; s < CBVM::__MaxKernelIsas; ++s)
			{
				if (!all && s != named)
					continue;
				if (CBVM::KernelIsaSupported(CBVM::EKernelIsa(s)))
					sets.push_back(CBVM::EKernelIsa(s));
				else
					std::printf("ox_differential: skipping %s: this machine does not run it (widest: %s)\n", CBVM::KernelIsaName(CBVM::EKernelIsa(s)),
								CBVM::KernelIsaName(CBVM::WidestKernelIsa()));
			}
		}
		else
		{
			std::fprintf(stderr, "usage: ox_differential [--instructions N] [--seed S] [--first I] [--isa SET|all] [--write-digests FILE | --digests FILE] [--dump FILE] [--verbose]\n");
			return 2;
		}
	}
	std::string setNames;
	for (CBVM::EKernelIsa set : sets)
		setNames += std::string(setNames.empty() ? "" : ", ") + CBVM::KernelIsaName(set);
	std::printf("ox_differential: seed %llu, instructions %llu..%llu%s%s\n", (unsigned long long)seed, (unsigned long long)first, (unsigned long long)(first + instructions),
				sets.empty() ? "" : ", kernel sets compared with sse2: ", setNames.c_str());
	std::fflush(stdout);

	const CBVM::EKernelIsa active = CBVM::ActiveKernelIsa();
	std::vector<u64> digests;
	if (!writeDigests.empty() || !readDigests.empty())
		g_Digests = &digests;
	if (!dump.empty() && (g_Dump = std::fopen(dump.c_str(), "w")) == nullptr)
	{
		std::fprintf(stderr, "ox_differential: cannot write %s\n", dump.c_str());
		return 2;
	}
	SStats stats;
	for (u64 i = first; i < first + instructions; ++i)
	{
		CBVM::SetKernelIsa(active);	// the digest is the active set's
		CheckOne(u32(seed), i, verbose, sets, stats);
	}
	CBVM::SetKernelIsa(active);
	if (g_Dump != nullptr && std::fclose(g_Dump) != 0)
	{
		std::fprintf(stderr, "ox_differential: cannot write %s\n", dump.c_str());
		return 2;
	}

	u64 digestFailures = 0;
	if (!writeDigests.empty())
	{
		std::ofstream out(writeDigests);
		out << "# ox_differential --seed " << seed << " --first " << first << " --instructions " << instructions << ": instruction, digest of both paths' destination words\n";
		for (u64 i = 0; i < digests.size(); ++i)
		{
			char line[64];
			std::snprintf(line, sizeof line, "%llu %016llx\n", (unsigned long long)(first + i), (unsigned long long)digests[i]);
			out << line;
		}
		if (!out)
		{
			std::fprintf(stderr, "ox_differential: cannot write %s\n", writeDigests.c_str());
			return 2;
		}
		std::printf("digests of %llu instructions written to %s (kernel set %s)\n", (unsigned long long)digests.size(), writeDigests.c_str(), CBVM::KernelIsaName(active));
	}
	if (!readDigests.empty())
	{
		std::ifstream in(readDigests);
		if (!in)
		{
			std::fprintf(stderr, "ox_differential: cannot read %s\n", readDigests.c_str());
			return 2;
		}
		std::string line;
		u64 checked = 0;
		while (std::getline(in, line))
		{
			unsigned long long index = 0, digest = 0;
			if (line.empty() || line[0] == '#' || std::sscanf(line.c_str(), "%llu %llx", &index, &digest) != 2)
				continue;
			if (index < first || index - first >= digests.size())
				continue;
			++checked;
			if (digests[index - first] != digest && digestFailures++ == 0)
			{
				std::mt19937 rng(u32(seed) ^ u32(index * 0x9E3779B9u) ^ u32(index >> 32));
				std::printf("DIGEST MISMATCH at instruction %llu (%s): %016llx here (kernel set %s), %016llx in %s\n  replay: ox_differential --seed %llu --first %llu --instructions 1 --verbose\n",
							index, OxDiff::Describe(RandomCase(rng)).c_str(), (unsigned long long)digests[index - first], CBVM::KernelIsaName(active), digest,
							readDigests.c_str(), (unsigned long long)seed, index);
			}
		}
		if (checked != digests.size())
		{
			std::printf("DIGEST FILE %s holds %llu of the %llu instructions run\n", readDigests.c_str(), (unsigned long long)checked, (unsigned long long)digests.size());
			digestFailures += 1;
		}
		std::printf("golden digests: %llu instructions checked against %s, %llu differ (kernel set %s)\n", (unsigned long long)checked, readDigests.c_str(), (unsigned long long)digestFailures,
					CBVM::KernelIsaName(active));
	}

	std::printf("instructions compared: %llu, destination words compared: %llu, documented shortcuts taken: %llu\n",
				(unsigned long long)stats.m_Instructions, (unsigned long long)stats.m_Words, (unsigned long long)stats.m_ExpectedDifferences);
	if (!sets.empty())
		std::printf("kernel-set runs compared word for word with sse2: %llu\n", (unsigned long long)stats.m_SetRuns);
	std::printf("mismatching instructions: %llu, mismatching words: %llu\n", (unsigned long long)stats.m_FailedInstructions, (unsigned long long)stats.m_Mismatches);
	std::printf("differential: %llu passed, %llu failed\n", (unsigned long long)(stats.m_Instructions - stats.m_FailedInstructions), (unsigned long long)stats.m_FailedInstructions);
	return stats.m_FailedInstructions == 0 && digestFailures == 0 ? 0 : 1;
}
