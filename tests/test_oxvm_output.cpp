// How oxvm writes its outputs (run --csv, asm -o): a regular file is replaced only once
// the new content is complete, keeping its mode and every name it has (symbolic links
// written through, hard links kept); devices and FIFOs are written as they are; "-" is
// standard output; a path that cannot be written stops the command before it runs.

#include "oxvm_runner.h"

#include <gtest/gtest.h>

#include <cstdio>
#include <dirent.h>
#include <vector>
#include <fstream>
#include <string>
#include <sys/stat.h>
#include <thread>
#include <unistd.h>

namespace
{
	using OxTest::SOxvmResult;

	class OxvmOutput : public OxTest::COxvmTest
	{
	protected:
		void SetUp() override
		{
			COxvmTest::SetUp();
			Write("tiny.oxs", "stream 3\nreg a stream 0 float = ramp(1, 1)\nreg b stream 1 float\nadd b, a, a\n");
		}

		struct stat Stat(const std::string &name, bool followLinks = true) const
		{
			struct stat info = {};
			EXPECT_EQ(followLinks ? ::stat(Path(name).c_str(), &info) : ::lstat(Path(name).c_str(), &info), 0) << name;
			return info;
		}

		static constexpr const char *kCsv = "element,b\n0,2\n1,4\n2,6\n";
	};

	TEST_F(OxvmOutput, ARegularFileKeepsItsMode)
	{
		Write("out.csv", "old\n");
		ASSERT_EQ(::chmod(Path("out.csv").c_str(), 0640), 0);
		const SOxvmResult result = Oxvm("run tiny.oxs --csv out.csv");
		ASSERT_EQ(result.m_Status, 0) << result.m_Err;
		EXPECT_EQ(Read("out.csv"), kCsv);
		EXPECT_EQ(Stat("out.csv").st_mode & 07777, 0640u);
	}

	TEST_F(OxvmOutput, ASymbolicLinkIsWrittenThrough)
	{
		Write("real.csv", "old\n");
		ASSERT_EQ(::symlink("real.csv", Path("link.csv").c_str()), 0);
		ASSERT_EQ(Oxvm("run tiny.oxs --csv link.csv").m_Status, 0);
		EXPECT_TRUE(S_ISLNK(Stat("link.csv", false).st_mode));
		EXPECT_EQ(Read("real.csv"), kCsv);
		// A link to a file that does not exist yet creates that file.
		ASSERT_EQ(::symlink("later.csv", Path("dangling.csv").c_str()), 0);
		ASSERT_EQ(Oxvm("run tiny.oxs --csv dangling.csv").m_Status, 0);
		EXPECT_TRUE(S_ISLNK(Stat("dangling.csv", false).st_mode));
		EXPECT_EQ(Read("later.csv"), kCsv);
	}

	TEST_F(OxvmOutput, AHardLinkKeepsSeeingTheFile)
	{
		Write("one.csv", "old\n");
		ASSERT_EQ(::link(Path("one.csv").c_str(), Path("two.csv").c_str()), 0);
		ASSERT_EQ(Oxvm("run tiny.oxs --csv one.csv").m_Status, 0);
		EXPECT_EQ(Read("one.csv"), kCsv);
		EXPECT_EQ(Read("two.csv"), kCsv);
		EXPECT_EQ(Stat("one.csv").st_ino, Stat("two.csv").st_ino);
		EXPECT_EQ(Stat("one.csv").st_nlink, 2u);
	}

	TEST_F(OxvmOutput, ADeviceIsWrittenAsItIs)
	{
		// Through a link, so that even a broken rule could only replace the link.
		ASSERT_EQ(::symlink("/dev/null", Path("null").c_str()), 0);
		const SOxvmResult result = Oxvm("run tiny.oxs --csv null");
		EXPECT_EQ(result.m_Status, 0) << result.m_Err;
		EXPECT_TRUE(S_ISLNK(Stat("null", false).st_mode));
		EXPECT_TRUE(S_ISCHR(Stat("null").st_mode));
		// A device that refuses the data fails the command, and says so.
		ASSERT_EQ(::symlink("/dev/full", Path("full").c_str()), 0);
		const SOxvmResult full = Oxvm("run tiny.oxs --csv full");
		EXPECT_EQ(full.m_Status, 1);
		EXPECT_NE(full.m_Err.find("oxvm: error: cannot write 'full'"), std::string::npos) << full.m_Err;
		EXPECT_TRUE(S_ISCHR(Stat("full").st_mode));
	}

	TEST_F(OxvmOutput, AFifoReaderGetsTheData)
	{
		ASSERT_EQ(::mkfifo(Path("pipe").c_str(), 0600), 0);
		std::string received;
		std::thread reader([&]() {
			std::ifstream in(Path("pipe"));
			received.assign(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
		});
		const SOxvmResult result = Oxvm("run tiny.oxs --csv pipe");
		reader.join();
		EXPECT_EQ(result.m_Status, 0) << result.m_Err;
		EXPECT_EQ(received, kCsv);
		EXPECT_TRUE(S_ISFIFO(Stat("pipe", false).st_mode));
	}

	TEST_F(OxvmOutput, DashIsStandardOutput)
	{
		const SOxvmResult result = Oxvm("run tiny.oxs --csv -");
		ASSERT_EQ(result.m_Status, 0) << result.m_Err;
		EXPECT_NE(result.m_Out.find(kCsv), std::string::npos) << result.m_Out;
		EXPECT_FALSE(Exists("-"));
		// asm -o -: the bytecode alone on standard output, the summary on standard error.
		const SOxvmResult assembled = Oxvm("asm tiny.oxs -o -");
		ASSERT_EQ(assembled.m_Status, 0) << assembled.m_Err;
		EXPECT_EQ(assembled.m_Out.size(), 13u);
		EXPECT_NE(assembled.m_Err.find("1 instructions, 13 bytes of bytecode -> -"), std::string::npos) << assembled.m_Err;
	}

	// --quiet: standard output holds the CSV and nothing else, so that it feeds a pipeline.
	TEST_F(OxvmOutput, QuietLeavesTheCsvAloneOnStandardOutput)
	{
		const SOxvmResult quiet = Oxvm("run tiny.oxs --quiet --csv -");
		ASSERT_EQ(quiet.m_Status, 0) << quiet.m_Err;
		EXPECT_EQ(quiet.m_Out, kCsv);
		EXPECT_EQ(quiet.m_Err, "");
		// A dump asked for is printed, alone; the statistics and times are not.
		const SOxvmResult dumped = Oxvm("run tiny.oxs --quiet --dump b");
		ASSERT_EQ(dumped.m_Status, 0) << dumped.m_Err;
		EXPECT_EQ(dumped.m_Out.find("written registers"), std::string::npos) << dumped.m_Out;
		EXPECT_EQ(dumped.m_Out.find("total "), std::string::npos) << dumped.m_Out;
		EXPECT_EQ(dumped.m_Out.find("bytes of bytecode"), std::string::npos) << dumped.m_Out;
		EXPECT_NE(dumped.m_Out.find("  [2] 6\n"), std::string::npos) << dumped.m_Out;
		// Nothing at all without an output asked for; errors still go to standard error.
		EXPECT_EQ(Oxvm("run tiny.oxs --quiet").m_Out, "");
		const SOxvmResult bad = Oxvm("run tiny.oxs --quiet --dump nosuch");
		EXPECT_EQ(bad.m_Status, 2);
		EXPECT_NE(bad.m_Err.find("no register named 'nosuch'"), std::string::npos);
	}

	TEST_F(OxvmOutput, AnUnwritablePathStopsTheCommandBeforeItRuns)
	{
		const SOxvmResult run = Oxvm("run tiny.oxs --csv no/such/folder/out.csv");
		EXPECT_EQ(run.m_Status, 2);
		EXPECT_EQ(run.m_Out.find("instructions"), std::string::npos) << "the program ran: " << run.m_Out;
		EXPECT_NE(run.m_Err.find("cannot write 'no/such/folder/out.csv'"), std::string::npos) << run.m_Err;
		const SOxvmResult assembled = Oxvm("asm tiny.oxs -o no/such/folder/out.bin");
		EXPECT_EQ(assembled.m_Status, 2);
		EXPECT_NE(assembled.m_Err.find("cannot write 'no/such/folder/out.bin'"), std::string::npos) << assembled.m_Err;
	}

	TEST_F(OxvmOutput, AFailedRunLeavesTheFileAndNoTemporary)
	{
		Write("keep.csv", "old\n");
		// --strict fails on the assertion report of a shift by 40 over whole blocks.
		Write("bad.oxs", "stream 16\nreg x stream 0 i32 = ramp(1, 1)\nreg c constant 1 i32 = 40\nshl x, x, c\n");
		const SOxvmResult result = Oxvm("run bad.oxs --strict --csv keep.csv");
		EXPECT_EQ(result.m_Status, 1);
		EXPECT_EQ(Read("keep.csv"), "old\n");
		// No temporary is left beside it (they are named .NAME.oxvm-XXXXXX).
		std::vector<std::string> temporaries;
		if (DIR *dir = ::opendir(m_Dir.c_str()))
		{
			while (const dirent *entry = ::readdir(dir))
				if (std::string(entry->d_name).find(".oxvm-") != std::string::npos)
					temporaries.push_back(entry->d_name);
			::closedir(dir);
		}
		EXPECT_EQ(temporaries, std::vector<std::string>());
	}

	TEST_F(OxvmOutput, AsmWritesThroughTheSameRules)
	{
		Write("real.bin", "old");
		ASSERT_EQ(::chmod(Path("real.bin").c_str(), 0600), 0);
		ASSERT_EQ(::symlink("real.bin", Path("out.bin").c_str()), 0);
		ASSERT_EQ(Oxvm("asm tiny.oxs -o out.bin").m_Status, 0);
		EXPECT_TRUE(S_ISLNK(Stat("out.bin", false).st_mode));
		EXPECT_EQ(Read("real.bin").size(), 13u);	// one add: the 13-byte form
		EXPECT_EQ(Stat("real.bin").st_mode & 07777, 0600u);
	}
}

namespace
{
	using OxTest::SOxvmResult;

	// The tool never writes over a file it reads: the program, or a CSV file the
	// program's initialisers read, under any name (a link, a redirection).
	class OxvmOwnInput : public OxTest::COxvmTest
	{
	protected:
		static constexpr const char *kProgram = "stream 3\nreg a stream 0 float = csv(\"in.csv\", v)\nreg b stream 1 float\nadd b, a, a\n";
		static constexpr const char *kInput = "v\n1\n2\n3\n";
	};

	TEST_F(OxvmOwnInput, AsmRefusesItsOwnProgramAsOutput)
	{
		Write("p.oxs", kProgram);
		ASSERT_EQ(::symlink("p.oxs", Path("alias.oxs").c_str()), 0);
		ASSERT_EQ(::link(Path("p.oxs").c_str(), Path("hard.oxs").c_str()), 0);
		for (const char *output : {"p.oxs", "alias.oxs", "hard.oxs", "./p.oxs"})
		{
			const SOxvmResult result = Oxvm(std::string("asm p.oxs -o ") + output);
			EXPECT_EQ(result.m_Status, 2) << output;
			EXPECT_NE(result.m_Err.find("oxvm: error: -o '" + std::string(output) + "' is the program ('p.oxs'): writing it would destroy the input"), std::string::npos) << result.m_Err;
			EXPECT_EQ(Read("p.oxs"), kProgram) << output;
		}
		// The program read from standard input, redirected from the same file.
		const SOxvmResult piped = OxvmReading("asm - -o p.oxs", "p.oxs");
		EXPECT_EQ(piped.m_Status, 2);
		EXPECT_EQ(Read("p.oxs"), kProgram);
		// Another file is written as before.
		Write("in.csv", kInput);
		EXPECT_EQ(Oxvm("asm p.oxs -o p.bin").m_Status, 0);
	}

	TEST_F(OxvmOwnInput, RunRefusesItsInputsAsCsvOutput)
	{
		Write("p.oxs", kProgram);
		Write("in.csv", kInput);
		const SOxvmResult overCsv = Oxvm("run p.oxs --csv in.csv");
		EXPECT_EQ(overCsv.m_Status, 2);
		EXPECT_NE(overCsv.m_Err.find("--csv 'in.csv' is the csv() input of register 'a' ('in.csv')"), std::string::npos) << overCsv.m_Err;
		EXPECT_EQ(overCsv.m_Out, "");	// refused before anything ran
		EXPECT_EQ(Read("in.csv"), kInput);
		const SOxvmResult overProgram = Oxvm("run p.oxs --csv p.oxs");
		EXPECT_EQ(overProgram.m_Status, 2);
		EXPECT_NE(overProgram.m_Err.find("is the program ('p.oxs')"), std::string::npos) << overProgram.m_Err;
		EXPECT_EQ(Read("p.oxs"), kProgram);
		EXPECT_EQ(Oxvm("run p.oxs --csv out.csv").m_Status, 0);
		EXPECT_EQ(Read("out.csv"), "element,b\n0,2\n1,4\n2,6\n");
	}
}
