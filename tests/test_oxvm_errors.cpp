// oxvm on bad input: every kind of mistake gives "file:line:column: error: ...",
// exit status 2, no output file and no assertion report from the VM.

#include "oxvm_runner.h"

#include <gtest/gtest.h>

namespace
{
	using OxTest::SOxvmResult;

	const char kHeader[] =
		"stream 16\n"
		"reg a stream 0 float3 = 1\n"
		"reg b stream 1 float3 = 2\n"
		"reg i stream 2 i32 = 3\n";

	class OxvmErrors : public OxTest::COxvmTest
	{
	protected:
		// Assembles 'program' (after kHeader unless 'bare') and expects exactly one error,
		// 'expected', on stderr.
		void ExpectError(const std::string &program, const std::string &expected, bool bare = false)
		{
			Write("bad.oxs", bare ? program : kHeader + program);
			const SOxvmResult result = Oxvm("asm bad.oxs -o out.bin");
			EXPECT_EQ(result.m_Status, 2) << result.m_Err;
			EXPECT_EQ(result.m_Err, expected + "\n");
			EXPECT_EQ(result.m_Err.find("assert"), std::string::npos);
			EXPECT_FALSE(Exists("out.bin"));
			EXPECT_FALSE(Exists("out.bin.tmp"));
			// run checks the same way, and runs nothing.
			const SOxvmResult run = Oxvm("run bad.oxs");
			EXPECT_EQ(run.m_Status, 2);
			EXPECT_EQ(run.m_Out, "");
			EXPECT_NE(run.m_Err.find(expected), std::string::npos) << run.m_Err;
		}
	};

	TEST_F(OxvmErrors, UnknownOperator)
	{
		ExpectError("madd a, a, b\n", "bad.oxs:5:1: error: unknown operator 'madd' (operators: add sub mul div mod neg shl shr shrl and or xor not cmplt cmple cmpgt cmpge cmpeq cmpne)");
	}

	TEST_F(OxvmErrors, UndeclaredRegister)
	{
		ExpectError("add a, a, c\n", "bad.oxs:5:11: error: undeclared register 'c'");
	}

	// A number where a register goes: the operators read registers only, so the message
	// says how to hold the value in a constant (of the operands' type, in a free slot).
	TEST_F(OxvmErrors, LiteralOperandSaysHowToDeclareAConstant)
	{
		ExpectError("mul a, a, 0.5\n",
					"bad.oxs:5:11: error: '0.5' is a literal: operands are registers, not literals; declare a constant register that holds it "
					"('reg k constant 0 float3 = 0.5') and name it here");
		ExpectError("add i, -3, i\n",
					"bad.oxs:5:8: error: '-3' is a literal: operands are registers, not literals; declare a constant register that holds it "
					"('reg k constant 0 i32 = -3') and name it here");
		// No operand to take a type from: the number's form decides; slot 0 is taken.
		ExpectError("reg c constant 0 float = 1\ncmplt stream.5:bool, 7, 1.5e3\n",
					"bad.oxs:6:22: error: '7' is a literal: operands are registers, not literals; declare a constant register that holds it "
					"('reg k constant 1 i32 = 7') and name it here\n"
					"bad.oxs:6:25: error: '1.5e3' is a literal: operands are registers, not literals; declare a constant register that holds it "
					"('reg k constant 1 float = 1.5e3') and name it here");
		// A name that starts with a letter is still an undeclared register.
		ExpectError("add a, a, e3\n", "bad.oxs:5:11: error: undeclared register 'e3'");
	}

	TEST_F(OxvmErrors, MistypedRegisterType)
	{
		ExpectError("reg c stream 3 flaot3\n", "bad.oxs:5:16: error: unknown type 'flaot3'");
	}

	TEST_F(OxvmErrors, InlineRegisterOfAnotherType)
	{
		// stream.0 is 'a', a float3: naming it as an int3 is a mistake, not a new register.
		ExpectError("add a, stream.0:int3, b\n", "bad.oxs:5:8: error: stream.0 is already declared as 'a' (float3) at line 2");
	}

	TEST_F(OxvmErrors, WrongOperandCount)
	{
		ExpectError("add a, b\n", "bad.oxs:5:1: error: 'add' takes 3 operands (destination, source0, source1), 2 given");
		ExpectError("neg a, a, b\n", "bad.oxs:5:1: error: 'neg' takes 2 operands (destination, source), 3 given");
	}

	TEST_F(OxvmErrors, SourceTypeMismatch)
	{
		ExpectError("mul a, a, i\n", "bad.oxs:5:11: error: source types differ: 'a' is float3, 'i' is i32");
	}

	TEST_F(OxvmErrors, DestinationTypeMismatch)
	{
		ExpectError("add i, a, b\n", "bad.oxs:5:5: error: destination 'i' is i32; 'add' of float3 operands writes float3");
		ExpectError("cmplt i, a, b\n", "bad.oxs:5:7: error: destination 'i' is i32; 'cmplt' of float3 operands writes float3 or bool3");
	}

	TEST_F(OxvmErrors, BitwiseOperatorOnFloats)
	{
		ExpectError("xor a, a, b\n", "bad.oxs:5:1: error: 'xor' is a bitwise operator: it takes int and bool operands, 'a' is float3");
	}

	TEST_F(OxvmErrors, RegisterTooSmall)
	{
		ExpectError("reg small stream 3 float3 [8]\nadd a, small, b\n", "bad.oxs:6:8: error: register 'small' holds 8 elements, too small: this instruction reads 16");
		ExpectError("reg small stream 3 float3 [8]\nadd small, a, b\n", "bad.oxs:6:5: error: register 'small' holds 8 elements, too small for a stream of 16");
	}

	TEST_F(OxvmErrors, RegisterTooSmallForElementsOption)
	{
		Write("ok.oxs", std::string(kHeader) + "reg r stream 3 float3 [16]\nadd r, a, b\n");
		const SOxvmResult result = Oxvm("run ok.oxs --elements 17");
		EXPECT_EQ(result.m_Status, 2);
		EXPECT_NE(result.m_Err.find("ok.oxs:6:5: error: register 'r' holds 16 elements, too small for a stream of 17"), std::string::npos) << result.m_Err;
		EXPECT_EQ(Oxvm("run ok.oxs --elements 16").m_Status, 0);
	}

	TEST_F(OxvmErrors, UnreadableCsv)
	{
		ExpectError("reg c stream 3 float3 = csv(\"missing.csv\", 1)\n", "bad.oxs:5:25: error: cannot read CSV file 'missing.csv': No such file or directory");
	}

	TEST_F(OxvmErrors, CsvColumnAndRowsChecked)
	{
		Write("data.csv", "x,y\n1,2\n3,4\n");
		ExpectError("reg c stream 3 float = csv(\"data.csv\", z)\n", "bad.oxs:5:40: error: CSV file 'data.csv' has no column 'z' (columns: x, y)");
		ExpectError("reg c stream 3 float = csv(\"data.csv\", x)\n", "bad.oxs:5:24: error: CSV file 'data.csv' has 2 rows; register 'c' needs 16 (one per element)");
		ExpectError("reg c stream 3 float3 = csv(\"data.csv\", x, y)\n", "bad.oxs:5:25: error: csv() gives 2 columns for a float3 register: give 1 column or 3");
	}

	TEST_F(OxvmErrors, MalformedNumberInCsvIsReportedInTheCsvFile)
	{
		Write("data.csv", "x\n1\n2\n 2.5.1\n4\n");
		ExpectError("stream 4\nreg c stream 0 float = csv(\"data.csv\", x)\n", "data.csv:4:2: error: malformed number '2.5.1'", true);
	}

	TEST_F(OxvmErrors, MalformedNumber)
	{
		ExpectError("reg c constant 3 float3 = 1, 2.5e, 3\n", "bad.oxs:5:30: error: malformed number '2.5e'");
		ExpectError("reg c constant 3 i32 = 1.5\n", "bad.oxs:5:24: error: malformed integer '1.5'");
		ExpectError("reg c constant 3 i32 = 2147483648\n", "bad.oxs:5:24: error: integer '2147483648' does not fit in 32 bits (use 0x... for raw bits)");
		ExpectError("reg c stream 3 float = ramp(0, x)\n", "bad.oxs:5:32: error: malformed number 'x' in ramp() (a decimal number)");
	}

	TEST_F(OxvmErrors, WrongValueCount)
	{
		ExpectError("reg c constant 3 float3 = 1, 2\n", "bad.oxs:5:27: error: 2 values for a float3 register: give 1 value or a multiple of 3");
		ExpectError("reg c constant 3 float3 = 1, 2, 3, 4, 5, 6\n", "bad.oxs:5:27: error: 6 values make 2 elements; register 'c' holds 1");
	}

	TEST_F(OxvmErrors, TypeWithoutKernel)
	{
		ExpectError("reg d stream 3 double\n",
					"bad.oxs:5:16: error: type 'double' has no math kernel (float float2 float3 float4 quaternion i32 int2 int3 int4 bool bool2 bool3 bool4)");
	}

	TEST_F(OxvmErrors, DuplicateDeclarations)
	{
		ExpectError("reg a stream 3 float3\n", "bad.oxs:5:5: error: register 'a' is already declared at line 2");
		ExpectError("reg c stream 0 float\n", "bad.oxs:5:5: error: stream.0 is already declared as 'a' (float3) at line 2");
	}

	TEST_F(OxvmErrors, StreamLine)
	{
		ExpectError("reg a stream 0 float\n", "bad.oxs:1:1: error: missing 'stream N' line (elements per stream; or give --elements N)", true);
		ExpectError("stream 0\n", "bad.oxs:1:8: error: stream size must be a whole number from 1 to 268435455, found '0'", true);
		ExpectError("stream 4\nstream 8\n", "bad.oxs:2:1: error: duplicate 'stream' line (first at line 1)", true);
	}

	TEST_F(OxvmErrors, EveryErrorOfAFileIsListedInLineOrder)
	{
		Write("bad.oxs", std::string(kHeader) + "add a, a, nope\nfrob a\nxor a, a, b\n");
		const SOxvmResult result = Oxvm("asm bad.oxs -o out.bin");
		EXPECT_EQ(result.m_Status, 2);
		EXPECT_EQ(result.m_Err,
				  "bad.oxs:5:11: error: undeclared register 'nope'\n"
				  "bad.oxs:6:1: error: unknown operator 'frob' (operators: add sub mul div mod neg shl shr shrl and or xor not cmplt cmple cmpgt cmpge cmpeq cmpne)\n"
				  "bad.oxs:7:1: error: 'xor' is a bitwise operator: it takes int and bool operands, 'a' is float3\n");
	}

	TEST_F(OxvmErrors, ErrorFloodIsCapped)
	{
		std::string program = kHeader;
		for (int i = 0; i < 200; ++i)
			program += "frob a, a, b\n";
		Write("bad.oxs", program);
		const SOxvmResult result = Oxvm("asm bad.oxs -o out.bin");
		EXPECT_EQ(result.m_Status, 2);
		EXPECT_EQ(OxTest::CountLines(result.m_Err, "bad.oxs:"), 19);
		EXPECT_EQ(OxTest::CountLines(result.m_Err, "oxvm: too many errors"), 1);
	}

	TEST_F(OxvmErrors, MissingFilesAndBadOptions)
	{
		SOxvmResult result = Oxvm("run nothere.oxs");
		EXPECT_EQ(result.m_Status, 2);
		EXPECT_EQ(result.m_Err, "oxvm: error: cannot read 'nothere.oxs': No such file or directory\n");
		EXPECT_EQ(Oxvm("run --path fast").m_Status, 2);
		EXPECT_EQ(Oxvm("run --elements 0").m_Status, 2);
		EXPECT_EQ(Oxvm("frobnicate").m_Status, 2);
		EXPECT_EQ(Oxvm("").m_Status, 2);
		result = Oxvm("run --dump nosuch");
		EXPECT_EQ(result.m_Status, 2);
		EXPECT_EQ(result.m_Err, "oxvm: error: --dump: no register named 'nosuch'\n");
	}

	// asm wants a program; run takes bytecode too, but it needs a stream size.
	TEST_F(OxvmErrors, BytecodeIsNotAProgram)
	{
		Write("code.bin", std::string("\x72\x00\x00\x60\x22\x00\x00\x60\x22\x00\x00\x60\x22", 13));
		const SOxvmResult assembled = Oxvm("asm code.bin -o out.bin");
		EXPECT_EQ(assembled.m_Status, 2);
		EXPECT_EQ(assembled.m_Err, "code.bin: error: this is bytecode (or not text); a program is expected here\n");
		const SOxvmResult result = Oxvm("run code.bin");
		EXPECT_EQ(result.m_Status, 2);
		EXPECT_EQ(result.m_Err, "code.bin: error: bytecode carries no stream size: give --elements N (or --inputs PROGRAM)\n");
	}
}
