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
		EXPECT_EQ(both.m_Err, "oxvm: error: --path excludes --compare (oxvm run --help)\n");
	}

	// The command line's own mistakes read like the tool's other errors, and point to the
	// help of the command that was given.
	TEST_F(OxvmInput, CommandLineErrorsHaveTheToolsPrefix)
	{
		const struct
		{
			const char *m_Args;
			const char *m_Error;
		} cases[] = {
			{"run --frames 0", "oxvm: error: --frames: '0' is not a whole number from 1 to 1000000000 (oxvm run --help)\n"},
			{"run --bogus", "oxvm: error: The following argument was not expected: --bogus (oxvm run --help)\n"},
			{"disasm", "oxvm: error: file is required (oxvm disasm --help)\n"},
			{"disasm x --input binary", "oxvm: error: --input: binary not in {auto,text,bytecode} (oxvm disasm --help)\n"},
			{"", "oxvm: error: A subcommand is required (oxvm --help)\n"},
		};
		for (const auto &c : cases)
		{
			const SOxvmResult result = Oxvm(c.m_Args);
			EXPECT_EQ(result.m_Status, 2) << c.m_Args;
			EXPECT_EQ(result.m_Err, c.m_Error) << c.m_Args;
			EXPECT_EQ(result.m_Out, "") << c.m_Args;
		}
	}

	// A number option gives its range whatever is wrong with the text.
	TEST_F(OxvmInput, NumberOptionsGiveTheirRange)
	{
		Write("t.oxs", kProgram);
		const struct
		{
			const char *m_Args;
			const char *m_Error;
		} cases[] = {
			{"run t.oxs --elements 268435455x", "'268435455x' is not a whole number from 1 to 268435455"},
			{"run t.oxs --elements 268435456", "'268435456' is not a whole number from 1 to 268435455"},
			{"run t.oxs --elements 0", "'0' is not a whole number from 1 to 268435455"},
			{"run t.oxs --seed 4294967296", "'4294967296' is not a whole number from 0 to 4294967295"},
			{"run t.oxs --seed -1", "'-1' is not a whole number from 0 to 4294967295"},
			{"run t.oxs --frames 1e3", "'1e3' is not a whole number from 1 to 1000000000"},
		};
		for (const auto &c : cases)
		{
			const SOxvmResult result = Oxvm(c.m_Args);
			EXPECT_EQ(result.m_Status, 2) << c.m_Args;
			EXPECT_NE(result.m_Err.find(c.m_Error), std::string::npos) << c.m_Args << ": " << result.m_Err;
		}
		EXPECT_EQ(Oxvm("run t.oxs --seed 4294967295 --elements 268435455x").m_Status, 2);
		EXPECT_EQ(Oxvm("run t.oxs --seed 4294967295").m_Status, 0);
	}

	// run takes the bytecode that asm writes (its registers start at zero, and it needs a
	// stream size), and every command reads standard input for '-'.
	TEST_F(OxvmInput, RunTakesBytecodeAndStandardInput)
	{
		Write("t.oxs", kProgram);
		ASSERT_EQ(Oxvm("asm t.oxs -o t.bin").m_Status, 0);
		const SOxvmResult noSize = Oxvm("run t.bin");
		EXPECT_EQ(noSize.m_Status, 2);
		EXPECT_EQ(noSize.m_Err, "t.bin: error: bytecode carries no stream size: give --elements N (or --inputs PROGRAM)\n");
		const SOxvmResult bytecode = Oxvm("run t.bin --elements 5 --dump stream.1:float");
		ASSERT_EQ(bytecode.m_Status, 0) << bytecode.m_Err;
		EXPECT_NE(bytecode.m_Out.find("add          stream.1:float, stream.0:float, stream.0:float"), std::string::npos) << bytecode.m_Out;
		EXPECT_NE(bytecode.m_Out.find("dump stream.1:float (stream.1:float, 5 elements)\n  [0] 0\n"), std::string::npos) << bytecode.m_Out;

		const SOxvmResult piped = OxvmReading("run - --dump b", "t.oxs");
		ASSERT_EQ(piped.m_Status, 0) << piped.m_Err;
		EXPECT_NE(piped.m_Out.find("program    <stdin>\n"), std::string::npos) << piped.m_Out;
		EXPECT_NE(piped.m_Out.find("  [0] 2\n  [1] 4\n  [2] 6\n"), std::string::npos) << piped.m_Out;
		const SOxvmResult pipedBytecode = OxvmReading("run - --elements 2", "t.bin");
		EXPECT_EQ(pipedBytecode.m_Status, 0) << pipedBytecode.m_Err;
		const SOxvmResult assembled = OxvmReading("asm - -o s.bin", "t.oxs");
		ASSERT_EQ(assembled.m_Status, 0) << assembled.m_Err;
		EXPECT_EQ(Read("s.bin"), Read("t.bin"));
		const SOxvmResult listed = OxvmReading("disasm -", "t.bin");
		EXPECT_EQ(listed.m_Status, 0) << listed.m_Err;
		EXPECT_EQ(listed.m_Out, Oxvm("disasm t.bin").m_Out);
		Write("bad.oxs", "stream 2\nadd a, a, a\n");
		EXPECT_NE(OxvmReading("asm - -o x.bin", "bad.oxs").m_Err.find("<stdin>:2:5: error: undeclared register 'a'"), std::string::npos);
	}

	// run --input says what the file is, as disasm's does: text is parsed whatever bytes
	// it holds, bytecode is decoded even when its bytes look like text.
	TEST_F(OxvmInput, RunInputSaysWhatTheFileIs)
	{
		Write("t.oxs", kProgram);
		ASSERT_EQ(Oxvm("asm t.oxs -o t.bin").m_Status, 0);
		const SOxvmResult asText = Oxvm("run t.bin --input text --elements 3");
		EXPECT_EQ(asText.m_Status, 2);
		EXPECT_EQ(asText.m_Err.rfind("t.bin:1:1: error: unknown operator", 0), 0u) << asText.m_Err;
		EXPECT_EQ(asText.m_Out, "");
		const SOxvmResult asBytecode = Oxvm("run t.oxs --input bytecode --elements 3");
		EXPECT_EQ(asBytecode.m_Status, 2);
		EXPECT_EQ(asBytecode.m_Err.rfind("t.oxs: error: offset 0: ", 0), 0u) << asBytecode.m_Err;
		// The choice that auto makes anyway runs as before.
		EXPECT_EQ(Oxvm("run t.oxs --input text").m_Status, 0);
		EXPECT_EQ(Oxvm("run t.bin --input bytecode --elements 3").m_Status, 0);
		const SOxvmResult bundled = Oxvm("run --input bytecode");
		EXPECT_EQ(bundled.m_Status, 2);
		EXPECT_EQ(bundled.m_Err, "oxvm: error: --input bytecode: the bundled example is a program text (give a bytecode file)\n");
	}

	// run BYTECODE --inputs TEXT: the text's stream size, names, counts and initialisers
	// (random() and csv() ones too), the bytecode's instructions: the text's results.
	TEST_F(OxvmInput, BytecodeRunsWithTheInputsOfAProgramText)
	{
		for (const char *example : {"particles.oxs", "masks.oxs"})
		{
			const std::string text = OxTest::COxvmTest::Example(example);
			ASSERT_EQ(Oxvm("asm '" + text + "' -o p.bin").m_Status, 0) << example;
			const SOxvmResult fromText = Oxvm("run '" + text + "' --frames 2 --quiet --csv -");
			const SOxvmResult fromBytecode = Oxvm("run p.bin --inputs '" + text + "' --frames 2 --quiet --csv -");
			ASSERT_EQ(fromBytecode.m_Status, 0) << example << ": " << fromBytecode.m_Err;
			EXPECT_EQ(fromBytecode.m_Out, fromText.m_Out) << example;
			EXPECT_GT(OxTest::CountLines(fromBytecode.m_Out, ""), 10) << example;
		}
		// Names from the text: --dump takes them; --elements still decides the size.
		Write("t.oxs", kProgram);
		ASSERT_EQ(Oxvm("asm t.oxs -o t.bin").m_Status, 0);
		const SOxvmResult named = Oxvm("run t.bin --inputs t.oxs --dump b");
		ASSERT_EQ(named.m_Status, 0) << named.m_Err;
		EXPECT_NE(named.m_Out.find("dump b (stream.1:float, 3 elements)\n  [0] 2\n  [1] 4\n  [2] 6\n"), std::string::npos) << named.m_Out;
		EXPECT_NE(Oxvm("run t.bin --inputs t.oxs --elements 5 --dump b").m_Out.find("  [4] 10\n"), std::string::npos);
		// A register of the text at the same place with another type, a text without a
		// stream line and no --elements, text or bytecode on the wrong side: refused.
		Write("wrong.oxs", "stream 3\nreg a stream 0 i32\n");
		const SOxvmResult wrong = Oxvm("run t.bin --inputs wrong.oxs");
		EXPECT_EQ(wrong.m_Status, 2);
		EXPECT_EQ(wrong.m_Err, "t.bin: error: offset 0: register stream.0:float shares its place with a of another type (with the --inputs declarations)\n");
		Write("nostream.oxs", "reg a stream 0 float = 1\n");
		EXPECT_EQ(Oxvm("run t.bin --inputs nostream.oxs").m_Err, "t.bin: error: bytecode carries no stream size: give --elements N (the --inputs program has no 'stream' line)\n");
		EXPECT_EQ(Oxvm("run t.oxs --inputs t.oxs").m_Err, "t.oxs: error: --inputs is for bytecode: a program text declares its own registers\n");
		EXPECT_EQ(Oxvm("run t.bin --inputs t.bin").m_Err, "t.bin: error: --inputs takes a program text (its declarations), not bytecode or an empty file\n");
		EXPECT_EQ(Oxvm("run t.bin --inputs t.oxs --csv t.oxs").m_Status, 2);
		EXPECT_EQ(Read("t.oxs"), kProgram);
	}

	// disasm --elements: the size a program is checked for and the listing's stream line.
	TEST_F(OxvmInput, DisasmElementsSetsTheStreamLine)
	{
		Write("t.oxs", "reg a stream 0 float = ramp(1, 1)\nreg b stream 1 float\nadd b, a, a\n");
		EXPECT_EQ(Oxvm("disasm t.oxs").m_Status, 2);
		const SOxvmResult text = Oxvm("disasm t.oxs --elements 8");
		ASSERT_EQ(text.m_Status, 0) << text.m_Err;
		EXPECT_EQ(text.m_Out.rfind("stream 8\nreg a stream 0 float = ramp(1, 1)\n", 0), 0u) << text.m_Out;
		Write("small.oxs", "stream 4\nreg a stream 0 float [4]\nreg b stream 1 float\nadd b, a, a\n");
		const SOxvmResult tooSmall = Oxvm("disasm small.oxs --elements 8");
		EXPECT_EQ(tooSmall.m_Status, 2);
		EXPECT_NE(tooSmall.m_Err.find("small.oxs:"), std::string::npos) << tooSmall.m_Err;
		Write("whole.oxs", kProgram);
		ASSERT_EQ(Oxvm("asm whole.oxs -o t.bin").m_Status, 0);
		const SOxvmResult bytecode = Oxvm("disasm t.bin --elements 1000");
		ASSERT_EQ(bytecode.m_Status, 0) << bytecode.m_Err;
		EXPECT_EQ(bytecode.m_Out.rfind("stream 1000\n\n", 0), 0u) << bytecode.m_Out;
		EXPECT_EQ(Oxvm("disasm t.bin").m_Out.rfind("stream 16    ; bytecode carries no stream size", 0), 0u);
		EXPECT_EQ(Oxvm("disasm t.bin --elements 0").m_Status, 2);
	}

	// A program without a 'stream' line runs with --elements, and says what is missing without.
	TEST_F(OxvmInput, ElementsStandInForAMissingStreamLine)
	{
		Write("t.oxs", "reg a stream 0 float = ramp(1, 1)\nreg b stream 1 float\nadd b, a, a\n");
		const SOxvmResult run = Oxvm("run t.oxs --elements 2 --dump b");
		ASSERT_EQ(run.m_Status, 0) << run.m_Err;
		EXPECT_NE(run.m_Out.find("dump b (stream.1:float, 2 elements)\n  [0] 2\n  [1] 4\n"), std::string::npos) << run.m_Out;
		const SOxvmResult missing = Oxvm("run t.oxs");
		EXPECT_EQ(missing.m_Status, 2);
		EXPECT_EQ(missing.m_Err, "t.oxs:1:1: error: missing 'stream N' line (elements per stream; or give --elements N)\n");
	}
}
