// oxvm run: the bundled example, the examples on both paths and compared, the
// options (--frames, --elements, --seed, --dump, --csv, --profile, --strict) and
// every command's --help.

#include "oxvm_runner.h"

#include "cbvm_kernel_isa.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <fstream>
#include <sstream>
#include <vector>

namespace
{
	using OxTest::CountLines;
	using OxTest::SOxvmResult;

	class OxvmRun : public OxTest::COxvmTest
	{
	};

	std::vector<std::vector<std::string>> ParseCsv(const std::string &text)
	{
		std::vector<std::vector<std::string>> rows;
		std::istringstream lines(text);
		for (std::string line; std::getline(lines, line);)
		{
			std::vector<std::string> cells;
			std::istringstream fields(line);
			for (std::string cell; std::getline(fields, cell, ',');)
				cells.push_back(cell);
			rows.push_back(cells);
		}
		return rows;
	}

	// The register statistics of a run's output: from "written registers" up to the
	// timing summary at the end (which differs from run to run).
	std::string WrittenSection(const std::string &out)
	{
		const std::size_t from = out.find("written registers");
		const std::size_t to = out.find("\ntotal      ", from);
		return from == std::string::npos ? std::string() : out.substr(from, to == std::string::npos ? std::string::npos : to - from);
	}

	// The line of 'text' that starts with 'prefix' (after leading spaces); empty when none.
	std::string LineStarting(const std::string &text, const std::string &prefix)
	{
		std::istringstream lines(text);
		for (std::string line; std::getline(lines, line);)
			if (line.find_first_not_of(' ') != std::string::npos && line.compare(line.find_first_not_of(' '), prefix.size(), prefix) == 0)
				return line;
		return std::string();
	}

	const char kShiftBy40[] =
		"stream 16\n"
		"reg x stream 0 i32 = ramp(1, 1)\n"
		"reg c constant 1 i32 = 40\n"
		"reg y stream 2 i32\n"
		"shl y, x, c\n";

	TEST_F(OxvmRun, BundledExampleRuns)
	{
		const SOxvmResult result = Oxvm("run");
		ASSERT_EQ(result.m_Status, 0) << result.m_Err;
		EXPECT_EQ(result.m_Err, "");
		EXPECT_NE(result.m_Out.find("program    particles.oxs (bundled example"), std::string::npos);
		EXPECT_NE(result.m_Out.find("run        standard path, 4096 elements, 1 frame, seed 1"), std::string::npos);
		EXPECT_NE(result.m_Out.find("9 instructions, 121 bytes of bytecode"), std::string::npos);	// 5 x 13 + 4 x 14
		EXPECT_NE(result.m_Out.find("ran        9 instructions x 1 frame over 4096 elements"), std::string::npos);
		EXPECT_NE(result.m_Out.find("time       "), std::string::npos);
		EXPECT_NE(result.m_Out.find("elements/s"), std::string::npos);
		EXPECT_NE(result.m_Out.find("GB/s touched"), std::string::npos);
		for (const char *name : {"gdt", "vel", "tmp", "pos", "below", "age", "dead", "bucket"})
			EXPECT_NE(result.m_Out.find(std::string("\n  ") + name + " ("), std::string::npos) << name;
		EXPECT_EQ(CountLines(result.m_Out, "    checksum  "), 8);
	}

	TEST_F(OxvmRun, BundledExampleIsTheExampleFile)
	{
		const SOxvmResult result = Oxvm("example");
		EXPECT_EQ(result.m_Status, 0);
		std::ifstream in(Example("particles.oxs"));
		std::ostringstream file;
		file << in.rdbuf();
		EXPECT_EQ(result.m_Out, file.str());
	}

	TEST_F(OxvmRun, ExamplesRunOnBothPathsAndAgree)
	{
		for (const char *example : {"particles.oxs", "integer_bits.oxs", "masks.oxs"})
		{
			const std::string path = "'" + Example(example) + "'";
			for (const char *execPath : {"standard", "low"})
			{
				const SOxvmResult result = Oxvm("run " + path + " --strict --frames 2 --path " + execPath);
				EXPECT_EQ(result.m_Status, 0) << example << " " << execPath << "\n" << result.m_Err;
				EXPECT_EQ(result.m_Err, "") << example;
			}
			const SOxvmResult compared = Oxvm("run " + path + " --compare --strict --frames 3");
			EXPECT_EQ(compared.m_Status, 0) << example << "\n" << compared.m_Out << compared.m_Err;
			EXPECT_NE(compared.m_Out.find(", 0 documented differences, no difference outside the documented ones"), std::string::npos) << example << compared.m_Out;
		}
	}

	TEST_F(OxvmRun, BothPathsGiveTheSameChecksums)
	{
		const std::string path = "'" + Example("integer_bits.oxs") + "'";
		const SOxvmResult standard = Oxvm("run " + path + " --path standard");
		const SOxvmResult low = Oxvm("run " + path + " --path low");
		ASSERT_EQ(standard.m_Status, 0);
		ASSERT_EQ(low.m_Status, 0);
		const std::string written = WrittenSection(standard.m_Out);
		EXPECT_EQ(written, WrittenSection(low.m_Out));
		EXPECT_EQ(CountLines(written, "    checksum  "), 19);	// 20 instructions, product written twice
	}

	TEST_F(OxvmRun, CompareListsDocumentedDifferences)
	{
		Write("doc.oxs", std::string(kShiftBy40) + "reg k constant 3 float = 2\nreg n stream 4 float\nneg n, k\n");
		const SOxvmResult result = Oxvm("run doc.oxs --compare");
		EXPECT_EQ(result.m_Status, 0) << result.m_Out;
		// shl by 40 of 16 elements: the 12 of the whole block give 0 instead of x << 8.
		EXPECT_NE(result.m_Out.find("documented: instruction 0 (line 5) `shl`: uniform shift count above 31: 12 words in 1 frame"), std::string::npos) << result.m_Out;
		EXPECT_NE(result.m_Out.find("documented: instruction 1 (line 8) `neg`: float negation of a constant (refused): 16 words in 1 frame"), std::string::npos);
		EXPECT_NE(result.m_Out.find("no difference outside the documented ones"), std::string::npos);
		EXPECT_NE(result.m_Err.find("doc.oxs:8:1: warning: float 'neg' of a constant into a stream is refused by the standard path"), std::string::npos) << result.m_Err;
		// Reports are counted and never flood stderr; each names its program line.
		EXPECT_NE(result.m_Err.find("doc.oxs:5:1: warning: VM assertion report: 'shl' on the standard path: uniform shift count above 31\n"), std::string::npos) << result.m_Err;
		EXPECT_NE(result.m_Err.find("doc.oxs:8:1: warning: VM assertion report: 'neg' on the standard path: float negation of a constant (refused)\n"), std::string::npos);
		EXPECT_EQ(CountLines(result.m_Err, "oxvm: VM assertion report"), 0);
	}

	TEST_F(OxvmRun, StrictFailsOnAnAssertionReport)
	{
		Write("shift.oxs", kShiftBy40);
		SOxvmResult result = Oxvm("run shift.oxs");
		EXPECT_EQ(result.m_Status, 0);
		EXPECT_NE(result.m_Err.find("shift.oxs:5:1: warning: VM assertion report: 'shl' on the standard path: uniform shift count above 31\n"), std::string::npos) << result.m_Err;
		EXPECT_NE(result.m_Err.find("oxvm: 1 VM assertion report during the run\n"), std::string::npos);

		result = Oxvm("run shift.oxs --strict --csv out.csv");
		EXPECT_EQ(result.m_Status, 1);
		EXPECT_NE(result.m_Err.find("(--strict: failing)"), std::string::npos);
		EXPECT_NE(result.m_Err.find("oxvm: out.csv not written: the run failed"), std::string::npos);
		EXPECT_FALSE(Exists("out.csv"));
		EXPECT_FALSE(Exists("out.csv.tmp"));

		// The Low path uses the count's low five bits and reports nothing.
		result = Oxvm("run shift.oxs --strict --path low --dump y");
		EXPECT_EQ(result.m_Status, 0) << result.m_Err;
		EXPECT_NE(result.m_Out.find("  [0] 256\n"), std::string::npos);	// 1 << (40 & 31)
	}

	TEST_F(OxvmRun, CsvIsWrittenAndReadsBack)
	{
		Write("tiny.oxs",
			  "stream 5\n"
			  "reg a    stream   0 float = ramp(1, 2)\n"
			  "reg h    constant 1 float = 0.5\n"
			  "reg p    stream   2 float\n"
			  "reg i    stream   3 int2  = ramp(-3, 1)\n"
			  "reg k    constant 4 int2  = 3, -2\n"
			  "reg q    stream   5 int2\n"
			  "reg four constant 7 float = 4\n"
			  "reg m    stream   6 bool\n"
			  "reg g    constant 8 float\n"
			  "mul p, a, h\n"
			  "mul q, i, k\n"
			  "cmpgt m, a, four\n"
			  "add g, h, four\n");
		const SOxvmResult result = Oxvm("run tiny.oxs --csv out.csv");
		ASSERT_EQ(result.m_Status, 0) << result.m_Err;
		EXPECT_FALSE(Exists("out.csv.tmp"));
		const std::vector<std::vector<std::string>> rows = ParseCsv(Read("out.csv"));
		ASSERT_EQ(rows.size(), 6u);
		EXPECT_EQ(rows[0], (std::vector<std::string>{"element", "p", "q.x", "q.y", "m", "g"}));
		for (int e = 0; e < 5; ++e)
		{
			const std::vector<std::string> &row = rows[std::size_t(e) + 1];
			ASSERT_EQ(row.size(), 6u);
			const float a = 1.0f + 2.0f * float(e);
			EXPECT_EQ(std::atoi(row[0].c_str()), e);
			EXPECT_EQ(std::strtof(row[1].c_str(), nullptr), a * 0.5f);
			EXPECT_EQ(std::atoi(row[2].c_str()), (e - 3) * 3);
			EXPECT_EQ(std::atoi(row[3].c_str()), (e - 3) * -2);
			EXPECT_EQ(row[4], a > 4.0f ? "true" : "false");
			EXPECT_EQ(std::strtof(row[5].c_str(), nullptr), 4.5f);	// a constant repeats on every row
		}
		// The CSV is a valid initialiser again.
		Write("again.oxs", "stream 5\nreg p stream 0 float = csv(\"out.csv\", p)\nreg q stream 1 int2 = csv(\"out.csv\", q.x, q.y)\n"
						   "reg m stream 2 bool = csv(\"out.csv\", m)\nreg r stream 3 float\nadd r, p, p\n");
		const SOxvmResult again = Oxvm("run again.oxs --dump q,m,r");
		ASSERT_EQ(again.m_Status, 0) << again.m_Err;
		EXPECT_NE(again.m_Out.find("  [4] (3, -2)\n"), std::string::npos) << again.m_Out;
		EXPECT_NE(again.m_Out.find("dump m (stream.2:bool, 5 elements)\n  [0] false\n  [1] false\n  [2] true\n"), std::string::npos);
		EXPECT_NE(again.m_Out.find("  [3] 7\n"), std::string::npos);	// (1 + 2 * 3) * 0.5 * 2
	}

	TEST_F(OxvmRun, FramesAndElementsAndDump)
	{
		// particles.oxs: age starts as ramp(0, 1) and gains one per frame.
		const SOxvmResult result = Oxvm("run --frames 5 --elements 100 --dump age");
		ASSERT_EQ(result.m_Status, 0) << result.m_Err;
		EXPECT_NE(result.m_Out.find("ran        9 instructions x 5 frames over 100 elements"), std::string::npos);
		EXPECT_EQ(CountLines(result.m_Out, "  ["), 100);
		EXPECT_NE(result.m_Out.find("  [0] 5\n"), std::string::npos);
		EXPECT_NE(result.m_Out.find("  [99] 104\n"), std::string::npos);
	}

	// The "calls" line: a program the verifier accepts runs as prepared direct calls on the
	// standard path; the Low path runs through its entry points.
	TEST_F(OxvmRun, TheCallsLineSaysWhetherTheProgramRunsPrepared)
	{
		// The reference set of the architecture: sse2 on x86, neon on AArch64.
		const std::string base = Orvex::CBVM::KernelIsaName(Orvex::CBVM::KernelIsa_Base);
		const SOxvmResult standard = Oxvm("run --frames 2 --isa " + base);
		ASSERT_EQ(standard.m_Status, 0) << standard.m_Err;
		EXPECT_EQ(LineStarting(standard.m_Out, "calls"), "calls      prepared: 8 direct calls a batch, " + base + " kernels");
		const SOxvmResult low = Oxvm("run --frames 2 --path low");
		ASSERT_EQ(low.m_Status, 0) << low.m_Err;
		EXPECT_EQ(LineStarting(low.m_Out, "calls"), "calls      not prepared: the Low path runs through its entry points");
	}

	// Batches: the "batching" line says how the run went or why it was whole-stream, and
	// the results are the whole-stream run's.
	TEST_F(OxvmRun, BatchedRunsGiveTheWholeStreamResults)
	{
		const SOxvmResult whole = Oxvm("run --frames 3 --batch 0");
		ASSERT_EQ(whole.m_Status, 0) << whole.m_Err;
		EXPECT_EQ(LineStarting(whole.m_Out, "batching"), "batching   none: whole stream: a batch size of 0 was asked");
		const SOxvmResult oneBatch = Oxvm("run --frames 3 --elements 500");
		EXPECT_EQ(LineStarting(oneBatch.m_Out, "batching"), "batching   none: whole stream: 500 elements fit one batch of 816");
		for (const char *threads : {"1", "2"})
		{
			const SOxvmResult batched = Oxvm(std::string("run --frames 3 --batch 100 --threads ") + threads);
			ASSERT_EQ(batched.m_Status, 0) << batched.m_Err;
			EXPECT_NE(LineStarting(batched.m_Out, "batching").find("batching   batches of 144 elements (29 batches, 60 per-element bytes each), 1 one-element instruction first, on "),
					  std::string::npos)
				<< batched.m_Out;
			EXPECT_EQ(WrittenSection(batched.m_Out), WrittenSection(whole.m_Out)) << threads << " threads";
		}
		const SOxvmResult compared = Oxvm("run --frames 2 --batch 96 --threads 2 --compare");
		ASSERT_EQ(compared.m_Status, 0) << compared.m_Err;
		EXPECT_EQ(LineStarting(compared.m_Out, "batched "), "batched    43 batches against the whole stream: every word the same");
	}

	// --scratch: a temporary kept in per-thread buffers, left out of the results; every
	// other register as in the whole-stream run; refusals said on the batching line.
	TEST_F(OxvmRun, ScratchRegistersAreLeftOutOfTheResults)
	{
		const SOxvmResult whole = Oxvm("run --frames 3 --batch 0 --scratch tmp");
		ASSERT_EQ(whole.m_Status, 0) << whole.m_Err;
		EXPECT_EQ(LineStarting(whole.m_Out, "scratch"), "");	// whole stream: tmp is written as usual
		EXPECT_NE(WrittenSection(whole.m_Out).find("  tmp ("), std::string::npos);
		const SOxvmResult batched = Oxvm("run --frames 3 --batch 96 --threads 2 --scratch tmp");
		ASSERT_EQ(batched.m_Status, 0) << batched.m_Err;
		EXPECT_NE(LineStarting(batched.m_Out, "batching").find(", 1 scratch register in per-thread buffers, on "), std::string::npos) << batched.m_Out;
		EXPECT_EQ(LineStarting(batched.m_Out, "scratch"), "scratch    tmp: in per-thread buffers, values not kept");
		// The written registers: the whole run's, without tmp's block.
		std::string expected = WrittenSection(whole.m_Out);
		const std::size_t tmp = expected.find("  tmp (");
		const std::size_t next = expected.find("\n  ", expected.find("checksum", tmp)) + 1;
		expected.erase(tmp, next - tmp);
		EXPECT_EQ(WrittenSection(batched.m_Out), expected);
		const SOxvmResult compared = Oxvm("run --frames 2 --batch 96 --compare --scratch tmp");
		ASSERT_EQ(compared.m_Status, 0) << compared.m_Err;
		EXPECT_EQ(LineStarting(compared.m_Out, "batched "), "batched    43 batches against the whole stream: every word the same");

		const SOxvmResult readFirst = Oxvm("run --batch 96 --scratch pos");
		ASSERT_EQ(readFirst.m_Status, 0) << readFirst.m_Err;
		EXPECT_EQ(LineStarting(readFirst.m_Out, "batching"), "batching   none: whole stream: line 27 'add' reads the scratch 'pos' before the program writes it");
		const SOxvmResult dumped = Oxvm("run --batch 96 --scratch tmp --dump tmp");
		EXPECT_EQ(dumped.m_Status, 2);
		EXPECT_NE(dumped.m_Err.find("oxvm: error: --dump: 'tmp' is a --scratch register: its values are not kept"), std::string::npos) << dumped.m_Err;
		const SOxvmResult unknown = Oxvm("run --scratch nosuch");
		EXPECT_EQ(unknown.m_Status, 2);
		EXPECT_NE(unknown.m_Err.find("oxvm: error: --scratch: no register named 'nosuch'"), std::string::npos);
	}

	// A refusal to batch names the program's registers and lines, as written; bytecode,
	// which has neither, keeps the register ids and offsets.
	TEST_F(OxvmRun, BatchingRefusalsNameRegistersAndLines)
	{
		Write("one.oxs",
			  "stream 1000\n"
			  "reg vel stream 1 float3 = 1\n"
			  "reg dt constant 4 float3 = 0.016\n"
			  "reg gdt constant 5 float3\n"
			  "\n"
			  "add vel, vel, dt\n"
			  "mul gdt, vel, dt\n");
		const SOxvmResult text = Oxvm("run one.oxs --batch 96");
		ASSERT_EQ(text.m_Status, 0) << text.m_Err;
		EXPECT_EQ(LineStarting(text.m_Out, "batching"),
				  "batching   none: whole stream: line 7 'mul' writes the one-element 'gdt' from the per-element 'vel': it reads element 0 of the whole stream");
		ASSERT_EQ(Oxvm("asm one.oxs -o one.oxb").m_Status, 0);
		const SOxvmResult bytecode = Oxvm("run one.oxb --elements 1000 --batch 96");
		ASSERT_EQ(bytecode.m_Status, 0) << bytecode.m_Err;
		EXPECT_EQ(LineStarting(bytecode.m_Out, "batching"),
				  "batching   none: whole stream: instruction 1 (offset 13) 'mul' writes the one-element constant.5:float3 from the per-element stream.1:float3: "
				  "it reads element 0 of the whole stream");
		// An inline register keeps its id (it is its name); a name only replaces a whole id.
		Write("scratch.oxs",
			  "stream 1000\n"
			  "reg vel stream 1 float3 = 1\n"
			  "add vel, stream.3:float3, vel\n");
		const SOxvmResult inlined = Oxvm("run scratch.oxs --batch 96 --scratch stream.3:float3");
		ASSERT_EQ(inlined.m_Status, 0) << inlined.m_Err;
		EXPECT_EQ(LineStarting(inlined.m_Out, "batching"), "batching   none: whole stream: line 3 'add' reads the scratch stream.3:float3 before the program writes it");
	}

	// The options are decided against the program before the set-up: refusals come at
	// once (nothing on standard output), options that do nothing or are changed say so.
	TEST_F(OxvmRun, OptionsAreDecidedBeforeTheSetUp)
	{
		// A scratch register dumped: refused whatever the size, batched or not.
		for (const char *elements : {"10", "100000"})
		{
			const SOxvmResult dumped = Oxvm(std::string("run --scratch tmp --dump tmp --elements ") + elements);
			EXPECT_EQ(dumped.m_Status, 2) << elements;
			EXPECT_EQ(dumped.m_Err, "oxvm: error: --dump: 'tmp' is a --scratch register: its values are not kept (leave it out of --scratch to dump it)\n");
			EXPECT_EQ(dumped.m_Out, "");
		}
		const SOxvmResult oneElement = Oxvm("run --scratch gdt");
		EXPECT_EQ(oneElement.m_Status, 2);
		EXPECT_EQ(oneElement.m_Err, "oxvm: error: --scratch: 'gdt' is a one-element register: only instance and stream registers can be scratch\n");
		EXPECT_EQ(oneElement.m_Out, "");

		const std::string base = Orvex::CBVM::KernelIsaName(Orvex::CBVM::KernelIsa_Base);
		const SOxvmResult lowIsa = Oxvm("run --path low --isa " + base);
		EXPECT_EQ(lowIsa.m_Status, 0) << lowIsa.m_Err;
		EXPECT_EQ(lowIsa.m_Err, "oxvm: warning: --isa " + base + " does nothing with --path low: kernel sets are the standard path's\n");
		const SOxvmResult wholeThreads = Oxvm("run --batch 0 --threads 2");
		EXPECT_EQ(wholeThreads.m_Status, 0) << wholeThreads.m_Err;
		EXPECT_EQ(wholeThreads.m_Err, "oxvm: warning: --threads 2 does nothing with --batch 0: a whole-stream run runs on one thread\n");
		EXPECT_EQ(Oxvm("run --batch 0").m_Err, "");	// the default thread count is no choice made

		const SOxvmResult rounded = Oxvm("run --batch 47 --elements 1000");
		EXPECT_EQ(rounded.m_Status, 0) << rounded.m_Err;
		EXPECT_EQ(rounded.m_Err, "oxvm: note: --batch 47 is rounded up to 48: batches are multiples of 48 elements\n");
		EXPECT_NE(LineStarting(rounded.m_Out, "batching").find("batches of 48 elements (21 batches"), std::string::npos) << rounded.m_Out;
		// 97 elements in batches of 48: the 97th joins the second batch.
		const SOxvmResult leftover = Oxvm("run --batch 48 --elements 97");
		EXPECT_EQ(leftover.m_Status, 0) << leftover.m_Err;
		const std::string line = LineStarting(leftover.m_Out, "batching");
		EXPECT_NE(line.find("batches of 48 elements (2 batches"), std::string::npos) << line;
		EXPECT_NE(line.find("; the one element left over joins the last batch (49 elements)"), std::string::npos) << line;
		EXPECT_EQ(LineStarting(Oxvm("run --batch 48 --elements 98").m_Out, "batching").find("left over"), std::string::npos);
	}

	// --isa: the kernel set named on the "kernels" line, the same results from every set
	// this machine runs; a set it lacks is refused.
	TEST_F(OxvmRun, EveryKernelSetGivesTheSameResults)
	{
		// The reference: SSE2 on x86, NEON (the only set) on AArch64.
		const std::string base = Orvex::CBVM::KernelIsaName(Orvex::CBVM::KernelIsa_Base);
		const SOxvmResult reference = Oxvm("run --frames 3 --isa " + base);
		ASSERT_EQ(reference.m_Status, 0) << reference.m_Err;
		EXPECT_EQ(LineStarting(reference.m_Out, "kernels"), "kernels    " + base + " (--isa)");
		EXPECT_EQ(LineStarting(Oxvm("run").m_Out, "kernels"), std::string("kernels    ") + Orvex::CBVM::KernelIsaName(Orvex::CBVM::WidestKernelIsa()) + " (the widest this machine runs)");
		for (Orvex::u32 other = Orvex::CBVM::KernelIsa_Base + 1; other < Orvex::CBVM::__MaxKernelIsas; ++other)
		{
			const Orvex::CBVM::EKernelIsa isa = Orvex::CBVM::EKernelIsa(other);
			const char *set = Orvex::CBVM::KernelIsaName(isa);
			const SOxvmResult result = Oxvm(std::string("run --frames 3 --isa ") + set);
			if (!Orvex::CBVM::KernelIsaSupported(isa))
			{
				EXPECT_EQ(result.m_Status, 2);
				EXPECT_NE(result.m_Err.find(std::string("oxvm: error: --isa ") + set + ": this machine does not run it"), std::string::npos) << result.m_Err;
				continue;
			}
			ASSERT_EQ(result.m_Status, 0) << result.m_Err;
			EXPECT_EQ(LineStarting(result.m_Out, "kernels"), std::string("kernels    ") + set + " (--isa)");
			EXPECT_EQ(WrittenSection(result.m_Out), WrittenSection(reference.m_Out)) << set;
			const SOxvmResult compared = Oxvm(std::string("run --frames 2 --compare --isa ") + set);
			EXPECT_EQ(compared.m_Status, 0) << set << compared.m_Out;
		}
		EXPECT_NE(Oxvm("run --isa avx9").m_Status, 0);
	}

	TEST_F(OxvmRun, SeedDecidesRandomValues)
	{
		const std::string first7 = Oxvm("run --seed 7").m_Out;
		const std::string again7 = Oxvm("run --seed 7").m_Out;
		const std::string other = Oxvm("run --seed 8").m_Out;
		const std::string written7 = WrittenSection(first7);
		EXPECT_EQ(written7, WrittenSection(again7));
		EXPECT_NE(written7, WrittenSection(other));
	}

	TEST_F(OxvmRun, ProfileShowsEntryPoints)
	{
		// (Whole-stream: a batched run calls each entry point once per batch.)
		SOxvmResult result = Oxvm("run --profile --frames 3 --batch 0");
		ASSERT_EQ(result.m_Status, 0);
		EXPECT_NE(result.m_Out.find("\nprofile:\n"), std::string::npos);
		// particles.oxs, 3 frames: three adds, two muls and four generic instructions per frame.
		EXPECT_NE(LineStarting(result.m_Out, "_ExecBytecode_Add ").find(" 9 "), std::string::npos) << result.m_Out;
		EXPECT_NE(LineStarting(result.m_Out, "_ExecBytecode_Mul ").find(" 6 "), std::string::npos);
		EXPECT_NE(LineStarting(result.m_Out, "_ExecBytecode ").find(" 12 "), std::string::npos);
		EXPECT_EQ(LineStarting(result.m_Out, "_ExecBytecode_Low"), "");
		result = Oxvm("run");
		EXPECT_EQ(result.m_Out.find("profile:"), std::string::npos);
	}

	TEST_F(OxvmRun, EveryCommandHasHelp)
	{
		for (const char *command : {"", "asm ", "disasm ", "run ", "example "})
		{
			const SOxvmResult result = Oxvm(std::string(command) + "--help");
			EXPECT_EQ(result.m_Status, 0) << command;
			EXPECT_NE(result.m_Out.find("Usage: "), std::string::npos) << command;
		}
		const SOxvmResult run = Oxvm("run --help");
		for (const char *option : {"--elements", "--frames", "--path", "--seed", "--dump", "--csv", "--profile", "--compare", "--strict", "--verbose", "--progress", "--batch", "--threads", "--scratch", "--isa"})
			EXPECT_NE(run.m_Out.find(option), std::string::npos) << option;
	}
}
