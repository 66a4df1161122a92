// Batched runs (CBatchPlan, CBatchRunner) against the whole-stream run: random programs
// of every operator and type, one-element and per-element instructions mixed, constants
// written by the program, in-place and aliased registers, stream sizes around batch
// boundaries, run whole-stream, in batches on one thread, in batches on several
// threads (std::threads taking batches in any order, and the oneTBB parallel-for when it
// is built), every register word compared; and each rule of the plan, refused with its
// reason.

#include "cbvm_batch_runner.h"
#include "cbvm_kernel_isa.h"
#include "cbvm_register_storage.h"
#if OX_HAVE_TBB
#include "cbvm_tbb_parallel_for.h"
#endif
#include "cbvm_verifier.h"
#include "bytecode_builder.h"
#include "seeded_random.h"
#include "std_parallel_for.h"

#include <gtest/gtest.h>

#include <atomic>
#include <cinttypes>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <random>
#include <cstring>
#include <string>
#include <thread>
#include <vector>

#ifndef OX_HAVE_TBB
#define OX_HAVE_TBB 0
#endif

namespace
{
	using namespace Orvex;
	using Compiler::EMetaType;
	using Compiler::MetaType_Constant;
	using Compiler::MetaType_Instance;
	using Compiler::MetaType_Normal;
	using Compiler::MetaType_Stream;
	using Compiler::IR::SOp_MathOp;
	using CBVM::CBatchPlan;
	using CBVM::CBatchRunner;

	constexpr EBaseTypeID kTypes[] = {BaseType_Float, BaseType_Float2, BaseType_Float3, BaseType_Float4, BaseType_Quaternion, BaseType_I32,  BaseType_Int2,
									  BaseType_Int3,  BaseType_Int4,   BaseType_Bool,   BaseType_Bool2,  BaseType_Bool3,      BaseType_Bool4};
	constexpr EMetaType kBanks[] = {MetaType_Constant, MetaType_Normal, MetaType_Instance, MetaType_Stream};

	bool IsFloat(EBaseTypeID type) { return BaseTypeInfo(type).m_Kind == ElementKind_Float; }
	u32 Components(EBaseTypeID type) { return BaseTypeInfo(type).m_Components; }
	EBaseTypeID BoolOf(u32 components) { return EBaseTypeID(BaseType_Bool + s32(components) - 1); }

	// The draws of one register file (quiet: a file is drawn again from its seed for
	// each run it is compared in).
	struct SDraw
	{
		std::mt19937 m_Engine;
		explicit SDraw(u32 seed) : m_Engine(seed) {}
		u32 operator()() { return m_Engine(); }
		u32 Uniform(std::size_t n) { return std::uniform_int_distribution<u32>(0, u32(n - 1))(m_Engine); }
		float UniformFloat(float low, float high) { return std::uniform_real_distribution<float>(low, high)(m_Engine); }
	};

	// A register file of 'slots' slots: every (slot, bank) entry holds one type, one
	// element for Constant and Normal, the stream for Instance and Stream, random words.
	// In some files one entry views another's storage: an exact alias (same address and
	// element size), a view shifted by a vector, or a constant inside a stream.
	struct SFile
	{
		CRegisterStorage m_Storage;
		std::vector<CVMRegID> m_Ids;	// per entry, with its type
		struct SAlias
		{
			CCBCPUMetaRegisters::SRegister *m_Entry;
			CCBCPUMetaRegisters::SRegister m_Own;
		};
		std::vector<SAlias> m_Aliases;	// given back before the storage frees them

		~SFile()
		{
			for (const SAlias &alias : m_Aliases)
				*alias.m_Entry = alias.m_Own;
		}

		SFile(u32 slots, u32 stream, SDraw &random) : m_Storage(slots)
		{
			m_Storage.Registers().m_StreamDimensions = stream;
			for (u32 slot = 0; slot < slots; ++slot)
				for (EMetaType bank : kBanks)
				{
					const EBaseTypeID type = kTypes[random.Uniform(std::size(kTypes))];
					const CVMRegID id = CVMRegID::Build(slot, bank, type);
					const bool perElement = bank >= MetaType_Instance;
					EXPECT_TRUE(m_Storage.AllocateElements(id, perElement ? stream : 1));
					u32 *words = static_cast<u32 *>(m_Storage.Registers().SelectRegister(id).m_RawData);
					const u32 count = (perElement ? stream : 1) * Components(type);
					for (u32 w = 0; w < count; ++w)
						words[w] = RandomWord(type, random);
					m_Ids.push_back(id);
				}
			if (random.Uniform(3) != 0)
				return;
			const CVMRegID &viewer = m_Ids[random.Uniform(m_Ids.size())];
			const CVMRegID &viewed = m_Ids[random.Uniform(m_Ids.size())];
			if (viewer.ToSlot() == viewed.ToSlot() || viewed.ToBank() < MetaType_Instance)
				return;
			CCBCPUMetaRegisters::SRegister &entry = m_Storage.Registers().SelectRegister(viewer);
			const CCBCPUMetaRegisters::SRegister &target = m_Storage.Registers().SelectRegister(viewed);
			const u32 shift = viewer.ToBank() >= MetaType_Instance && random.Uniform(2) == 0 ? 32 : 0;
			if (target.m_Size < shift + entry.m_Size)
				return;
			m_Aliases.push_back({&entry, entry});
			entry = {static_cast<u8 *>(target.m_RawData) + shift, entry.m_Size};
		}

		static u32 RandomWord(EBaseTypeID type, SDraw &random)
		{
			if (IsFloat(type))
			{
				float f = random.UniformFloat(-100.0f, 100.0f);
				if (random.Uniform(16) == 0)
					f = float(s32(random.Uniform(7)) - 3);	// exact small values: zeros, equal operands
				u32 word;
				std::memcpy(&word, &f, 4);
				return word;
			}
			if (BaseTypeInfo(type).m_Kind == ElementKind_Bool)
				return random.Uniform(2) != 0 ? 0xFFFFFFFFu : 0u;
			const u32 pick = random.Uniform(8);
			return pick == 0 ? u32(random.Uniform(40)) : pick == 1 ? 0x80000000u : u32(random()) >> random.Uniform(24);	// shift counts, INT_MIN, any
		}
	};

	// Every word of every entry of a file; the words of 'skipped' entries' storage (and of
	// any entry viewing it) read as 0.
	std::vector<u32> Snapshot(const SFile &file, const std::vector<CVMRegID> &skipped = {})
	{
		std::vector<std::pair<const u8 *, const u8 *>> holes;
		for (const CVMRegID &id : skipped)
		{
			const CCBCPUMetaRegisters::SRegister &entry = file.m_Storage.Registers().SelectRegister(id);
			holes.emplace_back(static_cast<const u8 *>(entry.m_RawData), static_cast<const u8 *>(entry.m_RawData) + entry.m_Size);
		}
		std::vector<u32> words;
		for (const CVMRegID &id : file.m_Ids)
		{
			const CCBCPUMetaRegisters::SRegister &entry = file.m_Storage.Registers().SelectRegister(id);
			const u32 *data = static_cast<const u32 *>(entry.m_RawData);
			for (u32 w = 0; w < entry.m_Size / 4; ++w)
			{
				const u8 *at = reinterpret_cast<const u8 *>(data + w);
				bool hole = false;
				for (const auto &range : holes)
					hole = hole || (at >= range.first && at < range.second);
				words.push_back(hole ? 0u : data[w]);
			}
		}
		return words;
	}

	// A random verified instruction over the file's entries: a destination of the
	// sources' type (a comparison may write the bool of the same width), the bitwise
	// operators on ints and bools only.
	struct SOperands
	{
		CVMRegID m_Dst, m_Src0, m_Src1;
	};

	bool RandomInstruction(const SFile &file, OxTest::CSeededRandom &random, std::vector<u8> &code, std::vector<SOperands> &operands, bool oneElementOften)
	{
		const SOp_MathOp::EOp op = SOp_MathOp::EOp(random.Uniform(SOp_MathOp::__MaxOps));
		const SOp_MathOp::STraits &traits = SOp_MathOp::OperatorTraits(op);
		// A one-element instruction mostly reads one-element sources (reading a stream is
		// refused: a few are enough to see that).
		const bool oneElement = oneElementOften && random.Uniform(3) == 0;
		const bool oneElementSources = oneElement && random.Uniform(8) != 0;
		std::vector<CVMRegID> candidates;
		for (const CVMRegID &id : file.m_Ids)
			if (!oneElementSources || id.ToBank() < MetaType_Instance)
				candidates.push_back(id);
		const CVMRegID src0 = candidates[random.Uniform(candidates.size())];
		const EBaseTypeID type = src0.ToType();
		if (IsFloat(type) && !traits.FloatSupported())
			return false;
		std::vector<CVMRegID> sameType, destinations;
		const bool comparison = op >= SOp_MathOp::Op_Cmp_Lower;
		for (const CVMRegID &id : file.m_Ids)
		{
			if (id.ToType() == type && (!oneElementSources || id.ToBank() < MetaType_Instance))
				sameType.push_back(id);
			if (id.ToType() == type || (comparison && id.ToType() == BoolOf(Components(type))))
				destinations.push_back(id);
		}
		if (!oneElement && random.Uniform(8) != 0)
		{
			// Mostly a per-element destination (a one-element one from a stream is refused).
			std::vector<CVMRegID> perElement;
			for (const CVMRegID &id : destinations)
				if (id.ToBank() >= MetaType_Instance)
					perElement.push_back(id);
			if (!perElement.empty())
				destinations = perElement;
		}
		CVMRegID dst = destinations[random.Uniform(destinations.size())];
		if (random.Uniform(6) == 0 && (src0.ToType() == dst.ToType()))
			dst = src0;	// in place
		if (oneElement)
		{
			// A constant written by the program: a one-element destination from one-element sources.
			std::vector<CVMRegID> one;
			for (const CVMRegID &id : destinations)
				if (id.ToBank() < MetaType_Instance)
					one.push_back(id);
			if (!one.empty())
				dst = one[random.Uniform(one.size())];
		}
		const CVMRegID src1 = traits.m_ParameterCount > 1 ? sameType[random.Uniform(sameType.size())] : CVMRegID::INVALID;
		std::vector<u8> instruction;
		OxTest::EmitEncoded(instruction, op, dst, src0, src1);
		if (random.Uniform(4) == 0 && instruction[0] != CBVM::Opcode_MathOp)
		{
			instruction.clear();
			OxTest::EmitRaw(instruction, u32(op), dst.Bits(), src0.Bits(), src1.Bits(), /*generic*/ true);
		}
		const CBVM::SVerifyResult verdict = CBVM::CVerifier::Verify(instruction.data(), u32(instruction.size()), file.m_Storage, nullptr, 0, CBVM::VerifyFlag_AllowReportedForms);
		if (!verdict.Accepted())
			return false;
		code.insert(code.end(), instruction.begin(), instruction.end());
		operands.push_back({dst, src0, src1});
		return true;
	}

	// Scratch registers for a random program: mostly per-element destinations that the
	// program writes before it reads them (accepted), sometimes any register (a read
	// before the write, an alias of a kept register or a one-element register: refused,
	// or one the program does not use: ignored).
	std::vector<CVMRegID> RandomScratch(const SFile &file, const std::vector<SOperands> &program, OxTest::CSeededRandom &random)
	{
		std::vector<CVMRegID> scratch;
		if (random.Uniform(2) == 0)
			return scratch;
		auto sameStorage = [](const CVMRegID &a, const CVMRegID &b) { return a.ToSlot() == b.ToSlot() && a.ToBank() == b.ToBank(); };
		for (std::size_t n = 0; n < program.size(); ++n)
		{
			const CVMRegID dst = program[n].m_Dst;
			if (dst.ToBank() < MetaType_Instance || random.Uniform(2) == 0)
				continue;
			bool readFirst = false;
			for (std::size_t m = 0; m <= n && !readFirst; ++m)
				readFirst = sameStorage(program[m].m_Src0, dst) || (program[m].m_Src1.Valid() && sameStorage(program[m].m_Src1, dst)) || (m < n && sameStorage(program[m].m_Dst, dst));
			if (!readFirst || random.Uniform(8) == 0)
				scratch.push_back(dst);
		}
		if (random.Uniform(8) == 0)
			scratch.push_back(file.m_Ids[random.Uniform(file.m_Ids.size())]);
		else if (random.Uniform(4) == 0)
		{
			// A source that an instruction reads into another register and a later one
			// writes: read before it is written unless an earlier instruction writes it (a
			// run that took it would carry the wrong words into a kept register).
			const std::size_t n = random.Uniform(program.size());
			const CVMRegID src = program[n].m_Src0;
			bool writtenLater = false;
			for (std::size_t m = n + 1; m < program.size(); ++m)
				writtenLater = writtenLater || sameStorage(program[m].m_Dst, src);
			if (src.ToBank() >= MetaType_Instance && !sameStorage(src, program[n].m_Dst) && writtenLater)
				scratch.push_back(src);
		}
		return scratch;
	}

	// Runs 'code' on a copy of the file whole-stream, batched on one thread and batched
	// on 'threads' threads; false (with the first differing word) when any differs.
	struct SOutcome
	{
		bool m_Batched = false;
		bool m_Prepared = false;	// ran the plan's prepared calls
		u32 m_Scratch = 0;
		CBVM::EBatchRefusal m_Refusal = CBVM::BatchRefusal_None;
		std::string m_Difference;
		u64 m_WholeDigest = 0;	// FNV-1a of every word of the file after the whole-stream run
	};

	u64 Fnv1a(const std::vector<u32> &words)
	{
		u64 hash = 0xcbf29ce484222325ull;
		for (const u32 word : words)
			for (u32 byte = 0; byte < 4; ++byte)
				hash = (hash ^ ((word >> (8 * byte)) & 0xFFu)) * 0x100000001b3ull;
		return hash;
	}

	// The golden digests of the random programs (tests/golden/README.md): program number
	// -> digest of the whole-stream run, as written on x86 with the SSE2 kernels.
	std::vector<std::pair<u32, u64>> ReadGolden(const char *path)
	{
		std::vector<std::pair<u32, u64>> golden;
		std::ifstream in(path);
		std::string line;
		while (std::getline(in, line))
		{
			unsigned program = 0;
			std::uint64_t digest = 0;
			if (!line.empty() && line[0] != '#' && std::sscanf(line.c_str(), "%u %" SCNx64, &program, &digest) == 2)
				golden.emplace_back(program, digest);
		}
		return golden;
	}

	class BatchRunner : public ::testing::Test
	{
	protected:
		void SetUp() override { m_Previous = Assert::SetHandler(&Silent); }
		void TearDown() override { Assert::SetHandler(m_Previous); }
		static int Silent(const Assert::SReport &) { return Assert::Answer_Continue; }

		// scratch: the host's scratch registers; a batched run's words of their storage are
		// not compared (the whole-stream run writes them, a batched one does not).
		static SOutcome Compare(u32 slots, u32 stream, u32 seed, const std::vector<u8> &code, u32 batch, u32 threads, const std::vector<CVMRegID> &scratch = {})
		{
			SOutcome outcome;
			constexpr u32 kRuns = OX_HAVE_TBB ? 4 : 3;
			std::vector<u32> results[kRuns];
			for (u32 run = 0; run < kRuns; ++run)
			{
				SDraw random(seed);	// the same file each time
				SFile file(slots, stream, random);
				CCompilerBackendCPUProgram_VM program;
				CRuntimeCPUBindings bindings;
				SCompilerCPUDebugCtx debug;
				const CBytecodeExecContext context(&program, bindings, file.m_Storage.Registers(), debug);
				if (run == 0)
					CBVM::CInterpreter::Run(context, code.data(), u32(code.size()));
				else
				{
					CBatchPlan plan;
					plan.Build(code.data(), u32(code.size()), file.m_Storage, batch, scratch.data(), u32(scratch.size()));
					outcome.m_Batched = plan.Batched();
					outcome.m_Scratch = plan.ScratchRegisters();
					outcome.m_Refusal = plan.Refusal();
					OxTest::SStdParallelFor pool{threads, 2};
					CBVM::SParallelFor parallel = run == 2 ? pool.ParallelFor() : CBVM::SParallelFor();
#if OX_HAVE_TBB
					CBVM::CTbbParallelFor tbb(threads);
					if (run == 3)
						parallel = tbb.ParallelFor();
#endif
					const CBVM::SBatchRunResult result = CBatchRunner::Run(plan, context, CBVM::ExecPath_Standard, parallel);
					EXPECT_EQ(result.m_Run.m_Status, CBVM::RunStatus_Ok);
					EXPECT_EQ(result.m_Status, CBVM::BatchRun_Ok);
					EXPECT_EQ(result.m_Batched, plan.Batched());
					EXPECT_EQ(result.m_Prepared, plan.Prepared());
					outcome.m_Prepared = result.m_Prepared;
				}
				results[run] = Snapshot(file, outcome.m_Batched ? scratch : std::vector<CVMRegID>());
				if (run == 0)
					outcome.m_WholeDigest = Fnv1a(results[0]);	// every word: no run has said it batches yet
			}
			if (outcome.m_Batched && !scratch.empty())
			{
				// The whole-stream words again, without the scratch storage.
				SDraw random(seed);
				SFile file(slots, stream, random);
				CCompilerBackendCPUProgram_VM program;
				CRuntimeCPUBindings bindings;
				SCompilerCPUDebugCtx debug;
				CBVM::CInterpreter::Run(CBytecodeExecContext(&program, bindings, file.m_Storage.Registers(), debug), code.data(), u32(code.size()));
				results[0] = Snapshot(file, scratch);
			}
			const char *const names[] = {"whole", "one thread", "threads", "oneTBB"};
			for (u32 run = 1; run < kRuns && outcome.m_Difference.empty(); ++run)
				for (std::size_t w = 0; w < results[0].size(); ++w)
					if (results[run][w] != results[0][w])
					{
						outcome.m_Difference = std::string(names[run]) + ": word " + std::to_string(w) + " whole " + std::to_string(results[0][w]) + " batched " +
											   std::to_string(results[run][w]);
						break;
					}
			return outcome;
		}

		Assert::FnHandler m_Previous = nullptr;
	};

	// 3,000 random programs, each run whole-stream, batched on one thread and on several
	// (and by oneTBB), under every kernel set in turn: the words must agree. Each
	// program's whole-stream words must also hash to the golden digest written on x86
	// with SSE2 (tests/golden/random_programs_20261124_3000.txt), the same on every
	// machine. OX_RANDOM_PROGRAMS=N runs the first N only (the ARM64 stage, under
	// emulation); OX_WRITE_RANDOM_PROGRAM_DIGESTS=FILE writes the digests instead.
	TEST_F(BatchRunner, RandomProgramsGiveTheWholeStreamWords)
	{
		const u32 programs = std::getenv("OX_RANDOM_PROGRAMS") != nullptr ? u32(std::strtoul(std::getenv("OX_RANDOM_PROGRAMS"), nullptr, 10)) : 3000u;
		ASSERT_TRUE(programs >= 100 && programs <= 3000) << "OX_RANDOM_PROGRAMS: 100 to 3000";
		const char *writeDigests = std::getenv("OX_WRITE_RANDOM_PROGRAM_DIGESTS");
		const std::vector<std::pair<u32, u64>> golden = writeDigests != nullptr ? std::vector<std::pair<u32, u64>>() : ReadGolden(OX_GOLDEN_DIR "/random_programs_20261124_3000.txt");
		ASSERT_TRUE(writeDigests != nullptr || !golden.empty()) << "no golden digests in " OX_GOLDEN_DIR;
		std::vector<std::pair<u32, u64>> digests;
		std::size_t next = 0;	// in golden
		OxTest::CSeededRandom random(20261124);
		const u32 streams[] = {50, 95, 96, 97, 143, 144, 145, 193, 241, 481};
		u32 batchedPrograms = 0, withScratch = 0, refusals[CBVM::__MaxBatchRefusals] = {};
		u32 compared = 0, prepared = 0, preparedBatched = 0, preparedRefused = 0;
		// Every kernel set the machine runs, program by program in turn (the plans are
		// built, and prepared, under it).
		std::vector<CBVM::EKernelIsa> sets;
		for (u32 isa = 0; isa < CBVM::__MaxKernelIsas; ++isa)
			if (CBVM::KernelIsaSupported(CBVM::EKernelIsa(isa)))
				sets.push_back(CBVM::EKernelIsa(isa));
		if (writeDigests != nullptr)
			sets = {CBVM::KernelIsa_Base};	// the reference set: SSE2 (write the file on x86)
		const CBVM::EKernelIsa active = CBVM::ActiveKernelIsa();
		for (u32 n = 0; n < programs; ++n)
		{
			CBVM::SetKernelIsa(sets[n % sets.size()]);
			const u32 seed = u32(random());
			const u32 slots = 2 + random.Uniform(4);
			const u32 stream = streams[random.Uniform(std::size(streams))];
			const u32 batch = random.Uniform(3) == 0 ? CBatchPlan::kDefaultBatch : 48 * (1 + random.Uniform(2));
			std::vector<u8> code;
			std::vector<CVMRegID> scratch;
			{
				SDraw fileRandom(seed);
				SFile file(slots, stream, fileRandom);
				const bool oneElementOften = random.Uniform(2) == 0;
				std::vector<SOperands> operands;
				for (u32 tries = 0, count = 0; count < 3 + random.Uniform(10) && tries < 200; ++tries)
					count += RandomInstruction(file, random, code, operands, oneElementOften) ? 1 : 0;
				scratch = RandomScratch(file, operands, random);
			}
			if (code.empty())
				continue;
			const SOutcome outcome = Compare(slots, stream, seed, code, batch, 2 + random.Uniform(3), scratch);
			ASSERT_TRUE(outcome.m_Difference.empty()) << "program " << n << " (file seed " << seed << ", " << slots << " slots, stream " << stream << ", batch " << batch << ", "
													  << scratch.size() << " scratch): " << outcome.m_Difference;
			digests.emplace_back(n, outcome.m_WholeDigest);
			if (writeDigests == nullptr)
			{
				ASSERT_TRUE(next < golden.size() && golden[next].first == n) << "program " << n << " is not in the golden file (a changed generator?)";
				ASSERT_EQ(outcome.m_WholeDigest, golden[next].second) << "program " << n << " (file seed " << seed << ", " << slots << " slots, stream " << stream
																	  << ") differs from its golden digest: the first program whose words differ from x86 SSE2's";
				++next;
			}
			batchedPrograms += outcome.m_Batched ? 1 : 0;
			++compared;
			prepared += outcome.m_Prepared ? 1 : 0;
			preparedBatched += outcome.m_Prepared && outcome.m_Batched ? 1 : 0;
			preparedRefused += outcome.m_Prepared && outcome.m_Refusal != CBVM::BatchRefusal_None ? 1 : 0;
			withScratch += outcome.m_Batched && outcome.m_Scratch != 0 ? 1 : 0;
			++refusals[outcome.m_Refusal];
		}
		CBVM::SetKernelIsa(active);
		if (writeDigests != nullptr)
		{
			std::FILE *out = std::fopen(writeDigests, "w");
			ASSERT_NE(out, nullptr) << writeDigests;
			std::fprintf(out, "# test_batch_runner RandomProgramsGiveTheWholeStreamWords, seed 20261124: program, digest of its whole-stream words\n");
			for (const auto &digest : digests)
				std::fprintf(out, "%u %016" PRIx64 "\n", digest.first, std::uint64_t(digest.second));
			std::fclose(out);
		}
		// The draws must exercise both: programs that run in batches, and refusals; and
		// prepared programs (those the verifier accepts) among both (the minimums are for
		// 3,000 programs, scaled to fewer).
		auto atLeast = [&](u32 of3000) { return of3000 * programs / 3000; };
		EXPECT_GT(batchedPrograms, atLeast(100));
		EXPECT_GT(preparedBatched, atLeast(50));
		EXPECT_GT(preparedRefused, atLeast(20));
		EXPECT_GT(compared - prepared, atLeast(20));	// programs with a verifier problem: the entry points
		EXPECT_GT(refusals[CBVM::BatchRefusal_OneElementReadsStream], atLeast(10));
		EXPECT_GT(refusals[CBVM::BatchRefusal_WrittenAfterRead], atLeast(2));
		EXPECT_GT(withScratch, atLeast(60));
		EXPECT_GT(refusals[CBVM::BatchRefusal_Scratch], atLeast(10));
		std::printf("seed 20261124, %u programs, %zu golden digests matched: batched %u (%u with scratch registers), prepared %u of %u (%u batched, %u refused batching), refused: reads stream %u, written after read %u, overlap %u, short %u, scratch %u\n", programs, next, batchedPrograms,
					withScratch, prepared, compared, preparedBatched, preparedRefused, refusals[CBVM::BatchRefusal_OneElementReadsStream], refusals[CBVM::BatchRefusal_WrittenAfterRead], refusals[CBVM::BatchRefusal_OverlappingStorage],
					refusals[CBVM::BatchRefusal_ShortRegister], refusals[CBVM::BatchRefusal_Scratch]);
	}

	// Each rule of the plan, on a small file: three float streams (slots 1 to 3), a
	// float constant in slot 0 and one in slot 4.
	class BatchPlanRules : public ::testing::Test
	{
	protected:
		static constexpr u32 kStream = 40000;

		void SetUp() override
		{
			m_Storage.Registers().m_StreamDimensions = kStream;
			for (u32 slot = 1; slot <= 3; ++slot)
				ASSERT_TRUE(m_Storage.AllocateElements(Stream(slot), kStream));
			ASSERT_TRUE(m_Storage.AllocateElements(Constant(0), 1));
			ASSERT_TRUE(m_Storage.AllocateElements(Constant(4), 1));
		}
		void TearDown() override
		{
			if (m_Aliased != nullptr)
				*m_Aliased = m_Own;
		}

		static CVMRegID Stream(u32 slot) { return CVMRegID::Build(slot, MetaType_Stream, BaseType_Float3); }
		static CVMRegID Constant(u32 slot) { return CVMRegID::Build(slot, MetaType_Constant, BaseType_Float3); }

		// Slot 'viewer's stream entry views slot 'viewed's storage from byte 'shift'.
		void Alias(u32 viewer, u32 viewed, u32 shift)
		{
			m_Aliased = &m_Storage.Registers().SelectRegister(Stream(viewer));
			m_Own = *m_Aliased;
			const CCBCPUMetaRegisters::SRegister &target = m_Storage.Registers().SelectRegister(Stream(viewed));
			*m_Aliased = {static_cast<u8 *>(target.m_RawData) + shift, target.m_Size - shift};
		}

		CBatchPlan &Plan(const std::vector<u8> &code, u32 batch = CBatchPlan::kDefaultBatch, const std::vector<CVMRegID> &scratch = {})
		{
			m_Plan.Build(code.data(), u32(code.size()), m_Storage, batch, scratch.data(), u32(scratch.size()));
			return m_Plan;
		}

		// Element i of slot 'slot''s stream: (slot, i, -i).
		void Fill(u32 slot)
		{
			float *data = m_Storage.DataAs<float>(Stream(slot));
			for (u32 i = 0; i < m_Storage.Registers().m_StreamDimensions; ++i)
			{
				data[3 * i] = float(slot);
				data[3 * i + 1] = float(i);
				data[3 * i + 2] = -float(i);
			}
		}
		std::vector<u32> Words(u32 slot)
		{
			const u32 *data = m_Storage.DataAs<u32>(Stream(slot));
			return std::vector<u32>(data, data + 3 * m_Storage.Registers().m_StreamDimensions);
		}
		CBVM::SBatchRunResult Run(const CBatchPlan &plan)
		{
			CCompilerBackendCPUProgram_VM program;
			CRuntimeCPUBindings bindings;
			SCompilerCPUDebugCtx debug;
			return CBatchRunner::Run(plan, CBytecodeExecContext(&program, bindings, m_Storage.Registers(), debug));
		}

		CRegisterStorage m_Storage{5};
		CCBCPUMetaRegisters::SRegister *m_Aliased = nullptr;
		CCBCPUMetaRegisters::SRegister m_Own = {};
		CBatchPlan m_Plan;
	};

	TEST_F(BatchPlanRules, APlainProgramRunsInBatchesOfTheCacheBudget)
	{
		std::vector<u8> code;
		OxTest::EmitEncoded(code, SOp_MathOp::Op_Mul, Constant(4), Constant(0), Constant(0));	// hoisted
		OxTest::EmitEncoded(code, SOp_MathOp::Op_Add, Stream(1), Stream(1), Stream(2));
		OxTest::EmitEncoded(code, SOp_MathOp::Op_Mul, Stream(3), Stream(1), Constant(4));
		const CBatchPlan &plan = Plan(code);
		ASSERT_TRUE(plan.Batched()) << plan.Reason();
		// Three float3 streams: 36 bytes an element; 48 KiB / 36 = 1365, down to a multiple of 48.
		EXPECT_EQ(plan.BytesPerElement(), 36u);
		EXPECT_EQ(CBatchPlan::kCacheBudgetBytes, 48u * 1024u);
		EXPECT_EQ(plan.BatchElements(), 1344u);
		EXPECT_EQ(plan.BatchCount(), 30u);	// 29 x 1344 + 1024
		EXPECT_EQ(plan.HoistedInstructions(), 1u);
		EXPECT_STREQ(plan.Reason(), "batches of 1344 elements (30 batches, 36 per-element bytes each), 1 one-element instruction first");
		EXPECT_EQ(Plan(code, 100).BatchElements(), 144u);	// rounded up to the granule
		EXPECT_EQ(Plan(code, 100).BatchCount(), 278u);
		EXPECT_EQ(Plan(code, 0).Batched(), false);
		EXPECT_STREQ(m_Plan.Reason(), "whole stream: a batch size of 0 was asked");
		EXPECT_EQ(Plan(code, 39984).BatchCount(), 2u);	// 39984 + 16
		EXPECT_EQ(Plan(code, 39999).Batched(), false);	// 40032 >= 40000: one batch
		EXPECT_STREQ(m_Plan.Reason(), "whole stream: 40000 elements fit one batch of 40032");
	}

	TEST_F(BatchPlanRules, OneElementLeftJoinsTheBatchBeforeIt)
	{
		m_Storage.Registers().m_StreamDimensions = 97;	// 48 + 48 + 1
		std::vector<u8> code;
		OxTest::EmitEncoded(code, SOp_MathOp::Op_Add, Stream(1), Stream(1), Stream(2));
		const CBatchPlan &plan = Plan(code, 48);
		ASSERT_TRUE(plan.Batched()) << plan.Reason();
		EXPECT_EQ(plan.BatchCount(), 2u);	// 48, then 49
		m_Storage.Registers().m_StreamDimensions = 98;
		EXPECT_EQ(Plan(code, 48).BatchCount(), 3u);	// 48, 48, 2
	}

	TEST_F(BatchPlanRules, AOneElementInstructionReadingAStreamIsRefused)
	{
		std::vector<u8> code;
		OxTest::EmitEncoded(code, SOp_MathOp::Op_Add, Stream(1), Stream(1), Stream(2));
		OxTest::EmitEncoded(code, SOp_MathOp::Op_Add, Constant(4), Constant(0), Stream(2));
		const CBatchPlan &plan = Plan(code);
		EXPECT_FALSE(plan.Batched());
		EXPECT_EQ(plan.Refusal(), CBVM::BatchRefusal_OneElementReadsStream);
		EXPECT_STREQ(plan.Reason(), "whole stream: instruction 1 (offset 13) 'add' writes the one-element constant.4:float3 from the per-element stream.2:float3: it reads element 0 of "
									"the whole stream");
	}

	TEST_F(BatchPlanRules, AOneElementWriteAfterAPerElementReadIsRefused)
	{
		std::vector<u8> code;
		OxTest::EmitEncoded(code, SOp_MathOp::Op_Mul, Stream(1), Stream(1), Constant(4));
		OxTest::EmitEncoded(code, SOp_MathOp::Op_Add, Constant(4), Constant(4), Constant(0));	// k += step, after the streams read k
		const CBatchPlan &plan = Plan(code);
		EXPECT_EQ(plan.Refusal(), CBVM::BatchRefusal_WrittenAfterRead);
		EXPECT_STREQ(plan.Reason(), "whole stream: instruction 1 (offset 13) 'add' writes constant.4:float3, which an earlier per-element instruction reads: it cannot run before the batches");
		// Before the read, the same write is hoisted.
		std::vector<u8> before;
		OxTest::EmitEncoded(before, SOp_MathOp::Op_Add, Constant(4), Constant(4), Constant(0));
		OxTest::EmitEncoded(before, SOp_MathOp::Op_Mul, Stream(1), Stream(1), Constant(4));
		EXPECT_TRUE(Plan(before, 96).Batched()) << m_Plan.Reason();
	}

	TEST_F(BatchPlanRules, StorageSharedOtherThanExactlyIsRefused)
	{
		std::vector<u8> code;
		OxTest::EmitEncoded(code, SOp_MathOp::Op_Add, Stream(1), Stream(1), Stream(2));
		OxTest::EmitEncoded(code, SOp_MathOp::Op_Mul, Stream(3), Stream(1), Stream(1));
		Alias(3, 1, 0);	// the same storage, the same element size: an alias
		EXPECT_TRUE(Plan(code, 96).Batched()) << m_Plan.Reason();
		TearDown();
		m_Aliased = nullptr;
		m_Storage.Registers().m_StreamDimensions = kStream - 4;
		Alias(3, 1, 48);	// four elements on: element i of one is i + 4 of the other
		const CBatchPlan &plan = Plan(code);
		EXPECT_EQ(plan.Refusal(), CBVM::BatchRefusal_OverlappingStorage);
		// Each register is named at the first instruction that names it.
		EXPECT_STREQ(plan.Reason(), "whole stream: stream.1:float3 of instruction 0 (offset 0) and stream.3:float3 of instruction 1 (offset 13) share storage other than exactly "
									"(12- and 12-byte elements)");
	}

	TEST_F(BatchPlanRules, AShortStreamRegisterIsRefused)
	{
		m_Storage.Registers().m_StreamDimensions = kStream + 96;
		std::vector<u8> code;
		OxTest::EmitEncoded(code, SOp_MathOp::Op_Add, Stream(1), Stream(1), Stream(2));
		const CBatchPlan &plan = Plan(code);
		EXPECT_EQ(plan.Refusal(), CBVM::BatchRefusal_ShortRegister);
		EXPECT_NE(std::string(plan.Reason()).find("stream.1:float3 of instruction 0 (offset 0) holds 480000 bytes, fewer than the stream's 40096 elements (481152 bytes)"), std::string::npos)
			<< plan.Reason();
	}

	TEST_F(BatchPlanRules, ScratchRegistersStayInTheBatchAndTheRestIsExact)
	{
		// t = p + v; p = t * k; v = t - p: t (slot 3) is a temporary.
		std::vector<u8> code;
		OxTest::EmitEncoded(code, SOp_MathOp::Op_Add, Stream(3), Stream(1), Stream(2));
		OxTest::EmitEncoded(code, SOp_MathOp::Op_Mul, Stream(1), Stream(3), Constant(4));
		OxTest::EmitEncoded(code, SOp_MathOp::Op_Sub, Stream(2), Stream(3), Stream(1));
		m_Storage.DataAs<float>(Constant(4))[0] = 0.5f;
		m_Storage.DataAs<float>(Constant(4))[1] = 3.0f;
		m_Storage.DataAs<float>(Constant(4))[2] = -0.25f;
		for (u32 slot = 1; slot <= 3; ++slot)
			Fill(slot);
		const std::vector<u32> tBefore = Words(3);
		ASSERT_TRUE(Plan(code, 480).Batched());
		Run(m_Plan);
		const std::vector<u32> p = Words(1), v = Words(2), t = Words(3);
		for (u32 slot = 1; slot <= 3; ++slot)
			Fill(slot);
		const CBatchPlan &plan = Plan(code, 480, {Stream(3)});
		ASSERT_TRUE(plan.Batched()) << plan.Reason();
		EXPECT_EQ(plan.ScratchRegisters(), 1u);
		EXPECT_EQ(plan.BytesPerElement(), 36u);	// the scratch register counts: it is in the cache during a batch
		EXPECT_STREQ(plan.Reason(), "batches of 480 elements (84 batches, 36 per-element bytes each), 0 one-element instructions first, 1 scratch register in per-thread buffers");
		const CBVM::SBatchRunResult result = Run(plan);
		EXPECT_TRUE(result.m_Batched);
		EXPECT_EQ(Words(1), p);
		EXPECT_EQ(Words(2), v);
		EXPECT_EQ(Words(3), tBefore);	// not written
		EXPECT_NE(t, tBefore);
		// Whole stream (a batch size of 0), the scratch register is written as usual.
		for (u32 slot = 1; slot <= 3; ++slot)
			Fill(slot);
		EXPECT_FALSE(Plan(code, 0, {Stream(3)}).Batched());
		Run(m_Plan);
		EXPECT_EQ(Words(3), t);
	}

	TEST_F(BatchPlanRules, AScratchRegisterReadBeforeItIsWrittenIsRefused)
	{
		// p = t * k reads t's values from before the run; then t = p + v.
		std::vector<u8> code;
		OxTest::EmitEncoded(code, SOp_MathOp::Op_Mul, Stream(1), Stream(3), Constant(4));
		OxTest::EmitEncoded(code, SOp_MathOp::Op_Add, Stream(3), Stream(1), Stream(2));
		const CBatchPlan &plan = Plan(code, 480, {Stream(3)});
		EXPECT_EQ(plan.Refusal(), CBVM::BatchRefusal_Scratch);
		EXPECT_STREQ(plan.Reason(), "whole stream: instruction 0 (offset 0) 'mul' reads the scratch stream.3:float3 before the program writes it");
		// In place is a read too.
		std::vector<u8> inPlace;
		OxTest::EmitEncoded(inPlace, SOp_MathOp::Op_Add, Stream(3), Stream(3), Stream(2));
		EXPECT_EQ(Plan(inPlace, 480, {Stream(3)}).Refusal(), CBVM::BatchRefusal_Scratch);
		EXPECT_STREQ(m_Plan.Reason(), "whole stream: instruction 0 (offset 0) 'add' reads the scratch stream.3:float3 before the program writes it");
		// A name the program does not use is ignored.
		EXPECT_TRUE(Plan(code, 480, {CVMRegID::Build(1, MetaType_Instance, BaseType_Float)}).Batched()) << m_Plan.Reason();
		EXPECT_EQ(m_Plan.ScratchRegisters(), 0u);
	}

	TEST_F(BatchPlanRules, AScratchRegisterSharedWithAKeptOneIsRefused)
	{
		std::vector<u8> code;
		OxTest::EmitEncoded(code, SOp_MathOp::Op_Add, Stream(3), Stream(1), Stream(1));
		OxTest::EmitEncoded(code, SOp_MathOp::Op_Mul, Stream(1), Stream(2), Constant(4));
		Alias(2, 3, 0);	// slot 2's stream is slot 3's storage
		const CBatchPlan &plan = Plan(code, 480, {Stream(3)});
		EXPECT_EQ(plan.Refusal(), CBVM::BatchRefusal_Scratch);
		EXPECT_STREQ(plan.Reason(), "whole stream: stream.2:float3 of instruction 1 (offset 13) 'mul' shares storage with a scratch register but is not named scratch");
		EXPECT_TRUE(Plan(code, 480, {Stream(3), Stream(2)}).Batched()) << m_Plan.Reason();	// both named: one buffer
		EXPECT_EQ(m_Plan.ScratchRegisters(), 1u);
	}

	TEST_F(BatchPlanRules, AOneElementScratchRegisterIsRefused)
	{
		std::vector<u8> code;
		OxTest::EmitEncoded(code, SOp_MathOp::Op_Add, Stream(3), Stream(1), Stream(1));
		EXPECT_EQ(Plan(code, 480, {Constant(4)}).Refusal(), CBVM::BatchRefusal_Scratch);
		EXPECT_STREQ(m_Plan.Reason(), "whole stream: the scratch constant.4:float3 is a one-element register (only Instance and Stream registers can be scratch)");
		EXPECT_EQ(Plan(code, 480, {CVMRegID::INVALID}).Refusal(), CBVM::BatchRefusal_Scratch);
		EXPECT_STREQ(m_Plan.Reason(), "whole stream: scratch register 0 of the list (0xffffffff) is ill-formed or outside the table");
		EXPECT_STREQ(CBVM::BatchRefusalName(CBVM::BatchRefusal_Scratch), "scratch register read before written, shared with a kept register, or one-element");
	}
}
