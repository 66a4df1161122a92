// oxvm asm and disasm: the bytes for every operator and kernel type, computed here
// from the documented layout; the disassembly (of a program and of raw bytecode)
// assembling back to the same bytes; corrupt bytecode stopping at its offset.

#include "oxvm_runner.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <sstream>
#include <vector>

namespace
{
	using OxTest::SOxvmResult;

	struct SType
	{
		const char *m_Name;
		std::uint32_t m_Id;			// EBaseTypeID value
		std::uint32_t m_Components;
		bool m_Float;
	};

	// The types with a math kernel, with their EBaseTypeID values.
	const SType kTypes[] = {
		{"float", 31, 1, true}, {"float2", 32, 2, true}, {"float3", 33, 3, true}, {"float4", 34, 4, true}, {"quaternion", 36, 4, true},
		{"i32", 25, 1, false}, {"int2", 26, 2, false}, {"int3", 27, 3, false}, {"int4", 28, 4, false},
		{"bool", 1, 1, false}, {"bool2", 2, 2, false}, {"bool3", 3, 3, false}, {"bool4", 4, 4, false},
	};

	const char *const kOperators[19] = {"add", "sub", "mul", "div", "mod", "neg", "shl", "shr", "shrl", "and", "or", "xor", "not",
										"cmplt", "cmple", "cmpgt", "cmpge", "cmpeq", "cmpne"};

	bool IsUnary(std::uint32_t op) { return op == 5 || op == 12; }
	bool IsBitwise(std::uint32_t op) { return op >= 6 && op <= 12; }
	bool IsComparison(std::uint32_t op) { return op >= 13; }

	// Register id: slot in bits 0-20, bank - 1 in bits 21-22, type + 1 in bits 24-29.
	std::uint32_t RegisterId(std::uint32_t slot, std::uint32_t bank, std::uint32_t type)
	{
		return slot | (bank - 1) << 21 | (type + 1) << 24;
	}

	void PutWord(std::string &bytes, std::uint32_t word)
	{
		for (int i = 0; i < 4; ++i)
			bytes += char((word >> (8 * i)) & 0xFF);
	}

	// add .. div: opcode 114 + op and three ids (13 bytes); otherwise 113, op, three ids.
	std::string Encode(std::uint32_t op, bool generic, std::uint32_t dst, std::uint32_t src0, std::uint32_t src1)
	{
		std::string bytes;
		if (op < 4 && !generic)
			bytes += char(114 + op);
		else
		{
			bytes += char(113);
			bytes += char(op);
		}
		PutWord(bytes, dst);
		PutWord(bytes, src0);
		PutWord(bytes, src1);
		return bytes;
	}

	struct SProgramAndBytes
	{
		std::string m_Text;
		std::string m_Bytes;
		std::vector<std::string> m_Mnemonics;
	};

	// Every operator on every kernel type: stream and constant operands, the generic
	// form of add .. div, comparisons into bool masks. Bitwise operators on floats are
	// left out (rejected, see BitwiseOperatorsOnFloatsAreRejected).
	SProgramAndBytes EveryOperatorAndType()
	{
		constexpr std::uint32_t kStream = 4, kConstant = 1, kNoRegister = 0xFFFFFFFFu;
		SProgramAndBytes out;
		out.m_Text = "stream 16\n";
		for (std::size_t t = 0; t < sizeof(kTypes) / sizeof(kTypes[0]); ++t)
		{
			const std::string n = kTypes[t].m_Name;
			const std::uint32_t base = std::uint32_t(t) * 8;
			out.m_Text += "reg a_" + n + " stream " + std::to_string(base) + " " + n + " = 1\n";
			out.m_Text += "reg b_" + n + " stream " + std::to_string(base + 1) + " " + n + " = 2\n";
			out.m_Text += "reg c_" + n + " constant " + std::to_string(base + 2) + " " + n + " = 3\n";
			out.m_Text += "reg d_" + n + " stream " + std::to_string(base + 3) + " " + n + "\n";
			out.m_Text += "reg m_" + n + " stream " + std::to_string(base + 4) + " bool" + (kTypes[t].m_Components > 1 ? std::to_string(kTypes[t].m_Components) : "") + "\n";
		}
		for (std::size_t t = 0; t < sizeof(kTypes) / sizeof(kTypes[0]); ++t)
		{
			const SType &type = kTypes[t];
			const std::string n = type.m_Name;
			const std::uint32_t base = std::uint32_t(t) * 8;
			const std::uint32_t a = RegisterId(base, kStream, type.m_Id), b = RegisterId(base + 1, kStream, type.m_Id);
			const std::uint32_t c = RegisterId(base + 2, kConstant, type.m_Id), d = RegisterId(base + 3, kStream, type.m_Id);
			const std::uint32_t m = RegisterId(base + 4, kStream, type.m_Components);	// boolN is type N
			for (std::uint32_t op = 0; op < 19; ++op)
			{
				if (type.m_Float && IsBitwise(op))
					continue;
				const std::string name = kOperators[op];
				auto add = [&](const std::string &mnemonic, const std::string &operands, const std::string &bytes) {
					out.m_Text += mnemonic + " " + operands + "\n";
					out.m_Bytes += bytes;
					out.m_Mnemonics.push_back(mnemonic);
				};
				if (IsUnary(op))
				{
					add(name, "d_" + n + ", a_" + n, Encode(op, false, d, a, kNoRegister));
					add(name, "d_" + n + ", c_" + n, Encode(op, false, d, c, kNoRegister));
					continue;
				}
				add(name, "d_" + n + ", a_" + n + ", b_" + n, Encode(op, false, d, a, b));
				add(name, "d_" + n + ", a_" + n + ", c_" + n, Encode(op, false, d, a, c));
				add(name, "c_" + n + ", c_" + n + ", a_" + n, Encode(op, false, c, c, a));
				if (op < 4)
					add(name + ".generic", "d_" + n + ", b_" + n + ", a_" + n, Encode(op, true, d, b, a));
				if (IsComparison(op))
					add(name, "m_" + n + ", a_" + n + ", b_" + n, Encode(op, false, m, a, b));
			}
		}
		return out;
	}

	std::vector<std::string> InstructionLines(const std::string &listing)
	{
		std::vector<std::string> lines;
		std::istringstream in(listing);
		for (std::string line; std::getline(in, line);)
			if (!line.empty() && line.rfind("stream", 0) != 0 && line.rfind("reg ", 0) != 0)
				lines.push_back(line);
		return lines;
	}

	class OxvmCodec : public OxTest::COxvmTest
	{
	};

	TEST_F(OxvmCodec, EveryOperatorAndTypeAssemblesAndRoundTrips)
	{
		const SProgramAndBytes expected = EveryOperatorAndType();
		Write("all.oxs", expected.m_Text);

		SOxvmResult result = Oxvm("asm all.oxs -o all.bin");
		ASSERT_EQ(result.m_Status, 0) << result.m_Err;
		ASSERT_EQ(Read("all.bin"), expected.m_Bytes);

		// Disassembly of the program: declarations kept, names used; assembles again.
		result = Oxvm("disasm all.oxs");
		ASSERT_EQ(result.m_Status, 0) << result.m_Err;
		// Legal but refused by the standard path: 'neg d, c' of each of the five float types.
		EXPECT_EQ(OxTest::CountLines(result.m_Err, "all.oxs:"), 5) << result.m_Err;
		EXPECT_EQ(result.m_Err.find("error"), std::string::npos);
		Write("from_program.oxs", result.m_Out);
		const std::vector<std::string> lines = InstructionLines(result.m_Out);
		ASSERT_EQ(lines.size(), expected.m_Mnemonics.size());
		for (std::size_t i = 0; i < lines.size(); ++i)
			EXPECT_EQ(lines[i].substr(0, lines[i].find(' ')), expected.m_Mnemonics[i]) << lines[i];
		ASSERT_EQ(Oxvm("asm from_program.oxs -o again.bin").m_Status, 0);
		EXPECT_EQ(Read("again.bin"), expected.m_Bytes);

		// Disassembly of the raw bytes: inline registers; assembles again, no warning.
		result = Oxvm("disasm all.bin");
		ASSERT_EQ(result.m_Status, 0) << result.m_Err;
		EXPECT_EQ(result.m_Err, "");
		EXPECT_EQ(InstructionLines(result.m_Out).size(), expected.m_Mnemonics.size());
		Write("from_bytes.oxs", result.m_Out);
		ASSERT_EQ(Oxvm("asm from_bytes.oxs -o again2.bin").m_Status, 0);
		EXPECT_EQ(Read("again2.bin"), expected.m_Bytes);
	}

	TEST_F(OxvmCodec, BitwiseOperatorsOnFloatsAreRejected)
	{
		for (const SType &type : kTypes)
		{
			if (!type.m_Float)
				continue;
			for (std::uint32_t op = 6; op <= 12; ++op)
			{
				const std::string n = type.m_Name;
				const std::string operands = IsUnary(op) ? "d, a" : "d, a, a";
				Write("f.oxs", "stream 4\nreg a stream 0 " + n + "\nreg d stream 1 " + n + "\n" + kOperators[op] + " " + operands + "\n");
				const SOxvmResult result = Oxvm("asm f.oxs -o f.bin");
				EXPECT_EQ(result.m_Status, 2);
				EXPECT_EQ(result.m_Err, "f.oxs:4:1: error: '" + std::string(kOperators[op]) + "' is a bitwise operator: it takes int and bool operands, 'a' is " + n + "\n");
			}
		}
	}

	TEST_F(OxvmCodec, ListingShowsOffsetBytesOpcodeSizeAndBank)
	{
		Write("p.oxs", "stream 8\nreg x stream 0 float3\nreg k constant 5 float3\nmul x, x, k\nmod k, k, k\n");
		const SOxvmResult result = Oxvm("disasm p.oxs");
		ASSERT_EQ(result.m_Status, 0) << result.m_Err;
		const std::vector<std::string> lines = InstructionLines(result.m_Out);
		ASSERT_EQ(lines.size(), 2u);
		// x = stream.0:float3 = 0x22600000, k = constant.5:float3 = 0x22000005.
		EXPECT_EQ(lines[0].substr(0, lines[0].find(' ')), "mul");
		EXPECT_NE(lines[0].find("x, x, k"), std::string::npos);
		EXPECT_NE(lines[0].find("; 000000 | 74 00 00 60 22 00 00 60 22 05 00 00 22 "), std::string::npos) << lines[0];
		EXPECT_NE(lines[0].find("| MathOpMul | 13 bytes | dst stream"), std::string::npos) << lines[0];
		EXPECT_NE(lines[1].find("; 000013 | 71 04 05 00 00 22 05 00 00 22 05 00 00 22 | MathOp    | 14 bytes | dst constant"), std::string::npos) << lines[1];
		EXPECT_NE(result.m_Out.find("stream 8\nreg x stream 0 float3\nreg k constant 5 float3\n"), std::string::npos);
	}

	TEST_F(OxvmCodec, TruncatedBytecodeStopsAtItsOffset)
	{
		std::string bytes = Encode(0, false, RegisterId(0, 4, 33), RegisterId(0, 4, 33), RegisterId(1, 4, 33));
		bytes += Encode(4, false, RegisterId(0, 4, 33), RegisterId(0, 4, 33), RegisterId(1, 4, 33)).substr(0, 9);
		Write("t.bin", bytes);
		const SOxvmResult result = Oxvm("disasm t.bin");
		EXPECT_EQ(result.m_Status, 2);
		EXPECT_EQ(InstructionLines(result.m_Out).size(), 1u);	// what was decoded before the cut
		EXPECT_EQ(result.m_Err, "t.bin: error: offset 13: truncated instruction: opcode 113 (MathOp) needs 14 bytes, 9 left\n");
	}

	TEST_F(OxvmCodec, CorruptBytecodeStopsAtItsOffset)
	{
		const std::string good = Encode(1, false, RegisterId(0, 4, 25), RegisterId(0, 4, 25), RegisterId(1, 4, 25));
		Write("opcode.bin", good + std::string(13, char(42)));
		SOxvmResult result = Oxvm("disasm opcode.bin");
		EXPECT_EQ(result.m_Status, 2);
		EXPECT_EQ(InstructionLines(result.m_Out).size(), 1u);
		EXPECT_EQ(result.m_Err, "opcode.bin: error: offset 13: unknown opcode 42 (math-op opcodes are 113 to 117)\n");

		Write("madd.bin", good + good + std::string(1, char(118)));
		result = Oxvm("disasm madd.bin");
		EXPECT_EQ(result.m_Status, 2);
		EXPECT_EQ(result.m_Err, "madd.bin: error: offset 26: opcode 118 (Madd) is not a math-op instruction (113 to 117)\n");

		std::string badOperator = Encode(4, false, RegisterId(0, 4, 25), RegisterId(0, 4, 25), RegisterId(1, 4, 25));
		badOperator[1] = char(19);
		Write("operator.bin", badOperator);
		result = Oxvm("disasm operator.bin");
		EXPECT_EQ(result.m_Status, 2);
		EXPECT_EQ(result.m_Err, "operator.bin: error: offset 0: unknown operator 19 (operators are 0 to 18)\n");
		EXPECT_EQ(result.m_Err.find("assert"), std::string::npos);
	}

	TEST_F(OxvmCodec, RawBytecodeTheVerifierRejectsIsListedThenRefused)
	{
		// Sources of different types: decodable, so it is listed, but the VM's verifier
		// rejects it, so disasm reports the offset and exits 2.
		Write("mixed.bin", Encode(0, false, RegisterId(0, 4, 25), RegisterId(0, 4, 25), RegisterId(1, 4, 31)));
		const SOxvmResult result = Oxvm("disasm mixed.bin");
		EXPECT_EQ(result.m_Status, 2);
		EXPECT_NE(result.m_Out.find("add          stream.0:i32, stream.0:i32, stream.1:float"), std::string::npos) << result.m_Out;
		EXPECT_NE(result.m_Err.find("mixed.bin: error: offset 0: source types differ"), std::string::npos) << result.m_Err;
		EXPECT_EQ(result.m_Err.find("assert"), std::string::npos);
	}

	TEST_F(OxvmCodec, AsmRefusesBytecodeAndWritesNothingOnError)
	{
		Write("code.bin", Encode(0, false, RegisterId(0, 4, 25), RegisterId(0, 4, 25), RegisterId(1, 4, 25)));
		const SOxvmResult result = Oxvm("asm code.bin -o out.bin");
		EXPECT_EQ(result.m_Status, 2);
		EXPECT_FALSE(Exists("out.bin"));
	}
}
