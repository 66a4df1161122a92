// oxvm on large and hostile input: memory stays within a small multiple of the input
// (checked under an address-space limit), endless or huge files are refused with a
// message, out of memory is a message and exit status 2 (never an abort), a failed
// declaration is reported once, and messages quote input printably and briefly.

#include "oxvm_runner.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <string>

namespace
{
	using OxTest::SOxvmResult;

	class OxvmLimits : public OxTest::COxvmTest
	{
	protected:
		// Address space of a small run: the binary, its libraries, stacks and the first
		// heap. Measured: 'oxvm --version' runs in 8 MB of address space; 'asm' of 1,000,000
		// instructions (12 MB of text) in 70 MB.
		static constexpr unsigned long kBaseKb = 64 * 1024;

		// A program of 'count' instructions "add b, a, b" (12 bytes a line).
		std::string LongProgram(const std::string &name, unsigned count) const
		{
			std::string text = "stream 4\nreg a stream 0 float = 1\nreg b stream 1 float\n";
			text.reserve(text.size() + std::size_t(count) * 12);
			for (unsigned i = 0; i < count; ++i)
				text += "add b, a, b\n";
			return Write(name, text);
		}
	};

	// 1,000,000 instructions (12 MB of text) assemble within 8 bytes per byte of input.
	TEST_F(OxvmLimits, AProgramTakesAtMostEightBytesPerByteOfText)
	{
		LongProgram("long.oxs", 1000000);
		const SOxvmResult result = OxvmWithMemoryLimit("asm long.oxs -o long.bin", kBaseKb + 8 * 12000);
		ASSERT_EQ(result.m_Status, 0) << result.m_Err;
		EXPECT_EQ(Read("long.bin").size(), 13u * 1000000u);
	}

	// One line of 20 MiB of commas: tokens are not kept, so this is an error at the first
	// comma after the value, in little memory.
	TEST_F(OxvmLimits, ALineOfCommasCostsNothingBeyondItself)
	{
		Write("commas.oxs", "stream 4\nreg a stream 0 float = " + std::string(20u << 20, ',') + "\n");
		const SOxvmResult result = OxvmWithMemoryLimit("asm commas.oxs -o out.bin", kBaseKb + 3 * 20 * 1024);
		EXPECT_EQ(result.m_Status, 2);
		EXPECT_EQ(result.m_Err, "commas.oxs:2:24: error: expected a value, found ','\n");
	}

	// An endless device is read up to the input limit, then refused; bytes that are not
	// text are bytecode to 'run', which needs a stream size and valid opcodes.
	TEST_F(OxvmLimits, EndlessAndBinaryInputsAreRefusedWithAMessage)
	{
		const SOxvmResult zero = Oxvm("run /dev/zero");
		EXPECT_EQ(zero.m_Status, 2);
		// Refused by its first 64 KiB (neither text nor a first instruction), not after 256 MiB.
		EXPECT_EQ(zero.m_Err, "oxvm: error: '/dev/zero' is neither a program text (it has control bytes) nor bytecode (offset 0: unknown opcode 0 "
							  "(math-op opcodes are 113 to 117)); refused after its first 64 KiB\n");

		std::string noise;
		for (unsigned i = 0; i < 4096; ++i)
			noise += char((i * 2654435761u) >> 13);
		Write("noise.bin", noise);
		const SOxvmResult run = Oxvm("run noise.bin");
		EXPECT_EQ(run.m_Status, 2);
		EXPECT_EQ(run.m_Err, "noise.bin: error: bytecode carries no stream size: give --elements N (or --inputs PROGRAM)\n");
		const SOxvmResult sized = Oxvm("run noise.bin --elements 16");
		EXPECT_EQ(sized.m_Status, 2);
		EXPECT_NE(sized.m_Err.find("noise.bin: error: offset 0: unknown opcode"), std::string::npos) << sized.m_Err;
		const SOxvmResult assembled = Oxvm("asm noise.bin -o out.bin");
		EXPECT_EQ(assembled.m_Status, 2);
		EXPECT_EQ(assembled.m_Err, "noise.bin: error: this is bytecode (or not text); a program is expected here\n");
	}

	// Out of memory anywhere is a message and exit status 2, not an uncaught exception.
	TEST_F(OxvmLimits, OutOfMemoryIsAMessage)
	{
		if (!MemoryLimitsApply())
			GTEST_SKIP() << "no address-space limit under a sanitizer or an emulator";
		LongProgram("long.oxs", 1000000);
		const SOxvmResult result = OxvmWithMemoryLimit("asm long.oxs -o long.bin", kBaseKb / 2);	// it needs about 70 MB
		EXPECT_EQ(result.m_Status, 2);
		EXPECT_EQ(result.m_Err, "oxvm: error: out of memory\n");
		EXPECT_FALSE(Exists("long.bin"));
	}

	// The registers' memory is counted and asked for before any register is allocated
	// or initialised: a run that cannot have it stops at once, with exit status 2.
	TEST_F(OxvmLimits, RegistersThatDoNotFitAreRefusedBeforeTheSetUp)
	{
		if (!MemoryLimitsApply())
			GTEST_SKIP() << "no address-space limit under a sanitizer or an emulator";
		// The bundled example at the largest stream needs about 30 GB: under a limit of a
		// few hundred MB it is refused before the set-up, nothing printed on standard output.
		const SOxvmResult huge = OxvmWithMemoryLimit("run --elements 268435455", kBaseKb + 256 * 1024);
		EXPECT_EQ(huge.m_Status, 2);
		EXPECT_EQ(huge.m_Err.rfind("oxvm: error: out of memory: the registers need ", 0), 0u) << huge.m_Err;
		EXPECT_NE(huge.m_Err.find(" for 268435455 elements"), std::string::npos) << huge.m_Err;
		EXPECT_EQ(huge.m_Out, "");
		// --compare needs twice as much, and says so.
		const SOxvmResult compared = OxvmWithMemoryLimit("run --elements 20000000 --compare", kBaseKb + 256 * 1024);
		EXPECT_EQ(compared.m_Status, 2);
		EXPECT_NE(compared.m_Err.find("(twice: --compare runs a copy)"), std::string::npos) << compared.m_Err;
	}

	// A regular file over the input limit is refused by its size, before a byte of it is
	// read: in a few MB of address space, where reading it up to the limit would need 256.
	TEST_F(OxvmLimits, AFileOverTheLimitIsRefusedUnread)
	{
		ASSERT_EQ(std::system(("truncate -s 300M '" + Path("sparse.oxs") + "'").c_str()), 0);
		const SOxvmResult result = OxvmWithMemoryLimit("run sparse.oxs", kBaseKb + 16 * 1024);
		EXPECT_EQ(result.m_Status, 2);
		EXPECT_EQ(result.m_Err, "oxvm: error: 'sparse.oxs' is larger than 256 MiB, the largest input oxvm reads\n");
	}

	TEST_F(OxvmLimits, AFailedDeclarationIsReportedOnce)
	{
		Write("bad.oxs", "stream 4\nreg a stream 0 floot = 1\nreg b stream 1 float\nadd b, a, b\nmul b, a, a\nreg b stream 2 float\nsub b, b, b\n");
		const SOxvmResult result = Oxvm("asm bad.oxs -o out.bin");
		EXPECT_EQ(result.m_Status, 2);
		EXPECT_EQ(result.m_Err,
				  "bad.oxs:2:16: error: unknown type 'floot'\n"
				  "bad.oxs:6:5: error: register 'b' is already declared at line 3\n");
	}

	// Input is quoted with unprintable bytes escaped and long tokens cut.
	TEST_F(OxvmLimits, MessagesQuoteInputPrintablyAndBriefly)
	{
		Write("bytes.oxs", "stream 4\nreg a stream 0 float\nadd a, a, \xff\xfe" "b\nadd a, a, caf\xc3\xa9\n");
		const SOxvmResult bytes = Oxvm("asm bytes.oxs -o out.bin");
		EXPECT_EQ(bytes.m_Status, 2);
		EXPECT_EQ(bytes.m_Err,
				  "bytes.oxs:3:11: error: undeclared register '\\xff\\xfeb'\n"
				  "bytes.oxs:4:11: error: undeclared register 'caf\xc3\xa9'\n");

		Write("long.oxs", "stream 4\nreg a stream 0 float = " + std::string(1u << 20, '7') + "x\n");
		const SOxvmResult longToken = Oxvm("asm long.oxs -o out.bin");
		EXPECT_EQ(longToken.m_Status, 2);
		EXPECT_EQ(longToken.m_Err, "long.oxs:2:24: error: malformed number '" + std::string(40, '7') + "...' (1048577 bytes)\n");
	}

	// A number too small for a float is its nearest float; one too large is refused, in
	// values and in ramp() and random() alike; random() needs finite bounds.
	TEST_F(OxvmLimits, FloatRangeIsOneRuleForValuesAndArguments)
	{
		Write("tiny.oxs", "stream 2\nreg a constant 0 float2 = 1e-50, -1e-50\nreg t constant 1 float = 1e-40\nreg r stream 0 float = ramp(1e-50, 0)\n"
						  "reg b constant 2 float2\nreg s stream 1 float\nadd b, a, a\nadd s, r, r\nadd t, t, t\n");
		const SOxvmResult tiny = Oxvm("run tiny.oxs --dump b,t,s");
		ASSERT_EQ(tiny.m_Status, 0) << tiny.m_Err;
		EXPECT_NE(tiny.m_Out.find("  [0] (0, -0)\n"), std::string::npos) << tiny.m_Out;
		EXPECT_NE(tiny.m_Out.find("  [0] 1.99999e-40\n"), std::string::npos) << tiny.m_Out;	// the subnormal nearest 1e-40, doubled exactly
		EXPECT_NE(tiny.m_Out.find("dump s (stream.1:float, 2 elements)\n  [0] 0\n  [1] 0\n"), std::string::npos) << tiny.m_Out;

		struct SCase
		{
			const char *m_Line;
			std::string m_Error;
		};
		const SCase cases[] = {
			{"reg a stream 0 float = 1e39", "bad.oxs:2:24: error: number '1e39' is beyond the float range (largest 3.4028235e+38; write inf for an infinity)"},
			{"reg a stream 0 float = random(-1e39, 1)",
			 "bad.oxs:2:31: error: number '-1e39' is beyond the float range (largest 3.4028235e+38; write inf for an infinity) in random()"},
			{"reg a stream 0 float = ramp(0, 4e38)", "bad.oxs:2:32: error: number '4e38' is beyond the float range (largest 3.4028235e+38; write inf for an infinity) in ramp()"},
			{"reg a stream 0 float = random(-inf, inf)", "bad.oxs:2:24: error: random(lo, hi) needs finite bounds"},
		};
		for (const SCase &c : cases)
		{
			Write("bad.oxs", std::string("stream 2\n") + c.m_Line + "\n");
			const SOxvmResult result = Oxvm("asm bad.oxs -o out.bin");
			EXPECT_EQ(result.m_Status, 2) << c.m_Line;
			EXPECT_EQ(result.m_Err, c.m_Error + "\n") << c.m_Line;
		}
		// An infinity written as such stays a value.
		Write("inf.oxs", "stream 1\nreg a constant 0 float = -inf\nreg b constant 1 float\nadd b, a, a\n");
		const SOxvmResult inf = Oxvm("run inf.oxs --dump b");
		ASSERT_EQ(inf.m_Status, 0) << inf.m_Err;
		EXPECT_NE(inf.m_Out.find("  [0] -inf\n"), std::string::npos) << inf.m_Out;
	}
}
