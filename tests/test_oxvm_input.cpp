// What oxvm accepts as input and how its command line reads: a byte-order mark is not
// part of the first word, an empty file is called empty, --dump takes one register (or
// a comma list) so that it never takes the program's name, an unknown command is named,
// --version and help answer, and --compare refuses a --path it would ignore.

#include "oxvm_runner.h"

#include <gtest/gtest.h>

#include <string>

namespace
{
	using OxTest::SOxvmResult;

	class OxvmInput : public OxTest::COxvmTest
	{
	protected:
		static constexpr const char *kProgram = "stream 3\nreg a stream 0 float = ramp(1, 1)\nreg b stream 1 float\nadd b, a, a\n";
	};

	TEST_F(OxvmInput, DumpTakesOneRegisterOrACommaList)
	{
		Write("t.oxs", kProgram);
		for (const char *args : {"run --dump b t.oxs", "run t.oxs --dump b", "run --dump a,b t.oxs", "run --dump a --dump b t.oxs"})
		{
			const SOxvmResult result = Oxvm(args);
			ASSERT_EQ(result.m_Status, 0) << args << ": " << result.m_Err;
			EXPECT_NE(result.m_Out.find("program    t.oxs"), std::string::npos) << args;
			EXPECT_NE(result.m_Out.find("dump b (stream.1:float, 3 elements)\n  [0] 2\n  [1] 4\n  [2] 6\n"), std::string::npos) << args << ": " << result.m_Out;
		}
		EXPECT_EQ(OxTest::CountLines(Oxvm("run --dump a,b t.oxs").m_Out, "dump "), 2);
	}

	TEST_F(OxvmInput, AByteOrderMarkIsNotPartOfTheFirstWord)
	{
		Write("bom.oxs", "\xEF\xBB\xBF" "stream 3\nreg a stream 0 float = csv(\"in.csv\", x)\nreg b stream 1 float\nadd b, a, a\n");
		Write("in.csv", "\xEF\xBB\xBF" "x,y\n1,0\n3,0\n5,0\n");
		const SOxvmResult result = Oxvm("run bom.oxs --dump b");
		ASSERT_EQ(result.m_Status, 0) << result.m_Err;
		EXPECT_NE(result.m_Out.find("  [0] 2\n  [1] 6\n  [2] 10\n"), std::string::npos) << result.m_Out;
	}

	TEST_F(OxvmInput, AnEmptyFileIsCalledEmpty)
	{
		Write("empty.oxs", "");
		const SOxvmResult run = Oxvm("run empty.oxs");
		EXPECT_EQ(run.m_Status, 2);
		EXPECT_NE(run.m_Err.find("empty.oxs: error: empty program"), std::string::npos) << run.m_Err;
		const SOxvmResult disasm = Oxvm("disasm empty.oxs");
		EXPECT_EQ(disasm.m_Status, 2);
		EXPECT_NE(disasm.m_Err.find("empty.oxs: error: empty file"), std::string::npos) << disasm.m_Err;
		Write("blank.oxs", "\n  \n");
		EXPECT_NE(Oxvm("run blank.oxs").m_Err.find("blank.oxs: error: empty program"), std::string::npos);
	}

	TEST_F(OxvmInput, TheCommandLineNamesWhatIsWrong)
	{
		const SOxvmResult unknown = Oxvm("frobnicate");
		EXPECT_EQ(unknown.m_Status, 2);
		EXPECT_NE(unknown.m_Err.find("oxvm: error: unknown command 'frobnicate' (commands: help, asm, disasm, run, example; oxvm --help)"), std::string::npos) << unknown.m_Err;
		const SOxvmResult version = Oxvm("--version");
		EXPECT_EQ(version.m_Status, 0);
		EXPECT_EQ(version.m_Out.rfind("oxvm ", 0), 0u) << version.m_Out;
		const SOxvmResult help = Oxvm("help");
		EXPECT_EQ(help.m_Status, 0);
		EXPECT_EQ(help.m_Out, Oxvm("--help").m_Out);
		EXPECT_NE(help.m_Out.find("Usage: oxvm"), std::string::npos);
		const SOxvmResult both = Oxvm("run --compare --path low");
		EXPECT_EQ(both.m_Status, 2);
		EXPECT_NE(both.m_Err.find("--path excludes --compare"), std::string::npos) << both.m_Err;
	}
}
