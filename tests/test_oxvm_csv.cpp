// CSV files in and out of oxvm: csv() initialisers read a file a line at a time and
// keep only what the registers take (a big file runs in a small address space; a
// device or a binary file is refused soon), every bad cell is reported where it is,
// extra cells are warned about, and run --csv writes floats that other tools read
// (nan, inf) or, with --csv-bits, the exact words csv() reads back bit for bit.

#include "oxvm_runner.h"

#include <gtest/gtest.h>

#include <charconv>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <sstream>
#include <string>
#include <vector>

namespace
{
	using OxTest::CountLines;
	using OxTest::SOxvmResult;

	class OxvmCsv : public OxTest::COxvmTest
	{
	protected:
		// 'rows' rows of 16 columns c0 .. c15: c0 is the row's number (from 0), ck is
		// (row + k) % 10, so that a cell tells which row and column it came from.
		void WriteBigCsv(const std::string &name, std::uint32_t rows) const
		{
			std::FILE *out = std::fopen(Path(name).c_str(), "wb");
			ASSERT_NE(out, nullptr);
			std::string text = "c0";
			for (int k = 1; k < 16; ++k)
				text += ",c" + std::to_string(k);
			text += '\n';
			char number[16];
			for (std::uint32_t row = 0; row < rows; ++row)
			{
				const auto end = std::to_chars(number, number + sizeof(number), row).ptr;
				text.append(number, end);
				for (std::uint32_t k = 1; k < 16; ++k)
				{
					text += ',';
					text += char('0' + (row + k) % 10);
				}
				text += '\n';
				if (text.size() > (1u << 20))
				{
					ASSERT_EQ(std::fwrite(text.data(), 1, text.size(), out), text.size());
					text.clear();
				}
			}
			ASSERT_EQ(std::fwrite(text.data(), 1, text.size(), out), text.size());
			ASSERT_EQ(std::fclose(out), 0);
		}

		// The lines of a run's --dump output for one register ("  [i] value").
		static std::vector<std::string> DumpLines(const std::string &out, const std::string &title)
		{
			std::vector<std::string> lines;
			const std::size_t at = out.find("dump " + title);
			if (at == std::string::npos)
				return lines;
			std::istringstream text(out.substr(at));
			std::string line;
			std::getline(text, line);
			while (std::getline(text, line) && line.rfind("  [", 0) == 0)
				lines.push_back(line);
			return lines;
		}

		static std::vector<std::string> Split(const std::string &text, char separator)
		{
			std::vector<std::string> parts;
			std::istringstream in(text);
			for (std::string part; std::getline(in, part, separator);)
				parts.push_back(part);
			return parts;
		}
	};

	// FNV-1a of the words' bytes, as run prints a register's checksum.
	std::uint64_t Fnv1a(const std::vector<std::uint32_t> &words)
	{
		std::uint64_t hash = 0xcbf29ce484222325ull;
		for (std::uint32_t word : words)
			for (int b = 0; b < 4; ++b)
				hash = (hash ^ ((word >> (8 * b)) & 0xFF)) * 0x100000001b3ull;
		return hash;
	}

	std::string Hex16(std::uint64_t value)
	{
		char text[17];
		std::snprintf(text, sizeof(text), "%016llx", static_cast<unsigned long long>(value));
		return text;
	}

	// Far below what keeping the file's cells would take (over 3 GB for this file), and
	// enough for the registers themselves (3 x 20 MB here) and the program's code.
	constexpr unsigned long kSmallAddressSpaceKb = 200000;
	constexpr std::uint32_t kBigRows = 5000000;

	TEST_F(OxvmCsv, ABigFileIsReadInLittleMemory)
	{
		WriteBigCsv("big.csv", kBigRows);
		Write("sum.oxs",
			  "stream 16\n"
			  "reg a stream 0 i32 = csv(\"big.csv\", c0)\n"
			  "reg b stream 1 i32 = csv(\"big.csv\", c7)\n"
			  "reg s stream 2 i32\n"
			  "add s, a, b\n");

		// Every row read: 5,000,000 elements from 2 of the 16 columns.
		const SOxvmResult all = OxvmWithMemoryLimit("run sum.oxs --elements " + std::to_string(kBigRows), kSmallAddressSpaceKb);
		ASSERT_EQ(all.m_Status, 0) << all.m_Err;
		std::vector<std::uint32_t> sums(kBigRows);
		for (std::uint32_t row = 0; row < kBigRows; ++row)
			sums[row] = row + (row + 7) % 10;
		EXPECT_NE(all.m_Out.find("  s (stream.2:i32, 5000000 elements)\n    first     7  9  11\n    last      5000001  5000003  5000005\n"), std::string::npos) << all.m_Out;
		EXPECT_NE(all.m_Out.find("    stats     min 3 max 5000005 mean "), std::string::npos) << all.m_Out;
		EXPECT_NE(all.m_Out.find("    checksum  " + Hex16(Fnv1a(sums)) + "\n"), std::string::npos) << all.m_Out;

		// The first 16 rows of it.
		const SOxvmResult few = OxvmWithMemoryLimit("run sum.oxs --dump s", kSmallAddressSpaceKb);
		ASSERT_EQ(few.m_Status, 0) << few.m_Err;
		EXPECT_NE(few.m_Out.find("  [0] 7\n  [1] 9\n  [2] 11\n  [3] 3\n"), std::string::npos) << few.m_Out;
		EXPECT_NE(few.m_Out.find("  [15] 17\n"), std::string::npos) << few.m_Out;

		// One row too few is counted through the whole file.
		Write("one.oxs", "stream 16\nreg a stream 0 i32 = csv(\"big.csv\", c15)\nreg s stream 1 i32\nadd s, a, a\n");
		const SOxvmResult tooFew = OxvmWithMemoryLimit("run one.oxs --elements " + std::to_string(kBigRows + 1), kSmallAddressSpaceKb);
		EXPECT_EQ(tooFew.m_Status, 2);
		EXPECT_EQ(tooFew.m_Err, "one.oxs:2:22: error: CSV file 'big.csv' has 5000000 rows; register 'a' needs 5000001 (one per element)\n");
	}

	TEST_F(OxvmCsv, ADeviceOrABinaryFileIsRefusedSoon)
	{
		Write("zero.oxs", "stream 4\nreg a stream 0 float = csv(\"/dev/zero\", 1)\n");
		const SOxvmResult zero = OxvmWithMemoryLimit("run zero.oxs", 100000);
		EXPECT_EQ(zero.m_Status, 2);
		EXPECT_EQ(zero.m_Err, "/dev/zero:1: error: this line is longer than 1048576 bytes, the longest a CSV line may be; it holds NUL bytes: is this a text file?\n");

		Write("nul.csv", std::string(3u << 20, '\0'));
		Write("nul.oxs", "stream 4\nreg a stream 0 float = csv(\"nul.csv\", 1)\n");
		const SOxvmResult nul = OxvmWithMemoryLimit("run nul.oxs", 100000);
		EXPECT_EQ(nul.m_Status, 2);
		EXPECT_EQ(nul.m_Err, "nul.csv:1: error: this line is longer than 1048576 bytes, the longest a CSV line may be; it holds NUL bytes: is this a text file?\n");

		// A long line of text is refused at its line, without the hint.
		Write("long.csv", "x\n1\n" + std::string(2u << 20, '7') + "\n4\n");
		Write("long.oxs", "stream 4\nreg a stream 0 float = csv(\"long.csv\", x)\n");
		const SOxvmResult longLine = Oxvm("run long.oxs");
		EXPECT_EQ(longLine.m_Status, 2);
		EXPECT_EQ(longLine.m_Err, "long.csv:3: error: this line is longer than 1048576 bytes, the longest a CSV line may be\n");

		// A folder cannot be read: said at the initialiser.
		Write("dir.oxs", "stream 4\nreg a stream 0 float = csv(\"/\", 1)\n");
		const SOxvmResult dir = Oxvm("run dir.oxs");
		EXPECT_EQ(dir.m_Status, 2);
		EXPECT_EQ(dir.m_Err, "dir.oxs:2:24: error: cannot read CSV file '/': Is a directory\n");
	}

	TEST_F(OxvmCsv, ACellIsShownEscapedAndShortened)
	{
		Write("data.csv", std::string("x\n1\n2\0" "3\n", 8) + std::string(1000, 'a') + "\n4\n");
		Write("p.oxs", "stream 4\nreg a stream 0 float = csv(\"data.csv\", x)\n");
		const SOxvmResult result = Oxvm("run p.oxs");
		EXPECT_EQ(result.m_Status, 2);
		EXPECT_EQ(result.m_Err,
				  "data.csv:3:1: error: malformed number '2\\x003'\n"
				  "data.csv:4:1: error: malformed number '" + std::string(40, 'a') + "...' (1000 bytes)\n");
	}

	TEST_F(OxvmCsv, EveryBadCellIsReportedWhereItIs)
	{
		Write("data.csv",
			  "x, y ,z\n"
			  "1, 2, 3\n"
			  "1.5.1, 2, zz\n"
			  "\n"
			  "4, \"5,5\", 6\n"
			  "7\n"
			  "8, 9, 10\n");
		// Two registers read the bad cells of x: each is reported once.
		Write("p.oxs",
			  "stream 5\n"
			  "reg v stream 0 float3 = csv(\"data.csv\", x, y, z)\n"
			  "reg w stream 1 float = csv(\"data.csv\", x)\n");
		const SOxvmResult result = Oxvm("run p.oxs");
		EXPECT_EQ(result.m_Status, 2);
		EXPECT_EQ(result.m_Err,
				  "data.csv:3:1: error: malformed number '1.5.1'\n"
				  "data.csv:3:11: error: malformed number 'zz'\n"
				  "data.csv:5:4: error: malformed number '5,5'\n"
				  "data.csv:6:2: error: row has 1 field, column 2 (y) is missing\n");

		// Up to the error limit, then one line says there are more.
		std::string many = "n\n";
		for (int row = 0; row < 100; ++row)
			many += "x" + std::to_string(row) + "\n";
		Write("many.csv", many);
		Write("many.oxs", "stream 100\nreg a stream 0 i32 = csv(\"many.csv\", n)\n");
		const SOxvmResult saturated = Oxvm("run many.oxs");
		EXPECT_EQ(saturated.m_Status, 2);
		EXPECT_EQ(CountLines(saturated.m_Err, "many.csv:"), 19) << saturated.m_Err;
		EXPECT_NE(saturated.m_Err.find("many.csv:2:1: error: malformed integer 'x0'\n"), std::string::npos) << saturated.m_Err;
		EXPECT_NE(saturated.m_Err.find("many.csv:20:1: error: malformed integer 'x18'\n"), std::string::npos) << saturated.m_Err;
		EXPECT_NE(saturated.m_Err.find("oxvm: too many errors, stopping here\n"), std::string::npos) << saturated.m_Err;
	}

	TEST_F(OxvmCsv, ExtraCellsAreWarnedAboutOnce)
	{
		Write("data.csv", "x,y\n1,10\n2,20,extra\n3,30\n4,40,more,cells\n5,50,0\n");
		Write("p.oxs",
			  "stream 4\n"
			  "reg a stream 0 float = csv(\"data.csv\", x)\n"
			  "reg b stream 1 float = csv(\"data.csv\", y)\n"
			  "reg s stream 2 float\n"
			  "add s, a, b\n");
		const SOxvmResult result = Oxvm("run p.oxs --dump s");
		ASSERT_EQ(result.m_Status, 0) << result.m_Err;
		// Rows 1 .. 4 are read: the fifth, wider too, is not.
		EXPECT_EQ(result.m_Err, "data.csv:3:6: warning: 2 of the 4 rows read have more cells than the header's 2 columns (this one has 3); the extra cells are ignored\n");
		EXPECT_NE(result.m_Out.find("  [0] 11\n  [1] 22\n  [2] 33\n  [3] 44\n"), std::string::npos) << result.m_Out;
	}

	TEST_F(OxvmCsv, FloatsAreWrittenAsOtherToolsReadThem)
	{
		Write("in.csv", "n,d\n0,0\n1,0\n-1,0\n0.3,3\n");
		Write("div.oxs",
			  "stream 4\n"
			  "reg n stream 0 float = csv(\"in.csv\", n)\n"
			  "reg d stream 1 float = csv(\"in.csv\", d)\n"
			  "reg q stream 2 float\n"
			  "div q, n, d\n");
		const SOxvmResult result = Oxvm("run div.oxs --csv out.csv --dump q");
		ASSERT_EQ(result.m_Status, 0) << result.m_Err;
		const std::vector<std::string> lines = Split(Read("out.csv"), '\n');
		ASSERT_EQ(lines.size(), 5u) << Read("out.csv");
		EXPECT_EQ(lines[0], "element,q");
		EXPECT_EQ(lines[1], "0,nan");
		EXPECT_EQ(lines[2], "1,inf");
		EXPECT_EQ(lines[3], "2,-inf");
		ASSERT_EQ(lines[4].rfind("3,", 0), 0u);
		EXPECT_EQ(std::strtof(lines[4].c_str() + 2, nullptr), 0.3f / 3.0f);
		for (std::size_t i = 1; i < lines.size(); ++i)
			EXPECT_EQ(lines[i].find("0x"), std::string::npos) << lines[i];

		// csv() reads it back: the NaN as a NaN (the quiet one nan gives), the rest exactly.
		Write("back.oxs", "stream 4\nreg r stream 0 float = csv(\"out.csv\", q)\n");
		const SOxvmResult back = Oxvm("run back.oxs --dump r");
		ASSERT_EQ(back.m_Status, 0) << back.m_Err;
		const std::vector<std::string> original = DumpLines(result.m_Out, "q ");
		const std::vector<std::string> readBack = DumpLines(back.m_Out, "r ");
		ASSERT_EQ(original.size(), 4u) << result.m_Out;
		ASSERT_EQ(readBack.size(), 4u) << back.m_Out;
		EXPECT_EQ(readBack[0], "  [0] 0x7fc00000");
		for (std::size_t i = 1; i < 4; ++i)
			EXPECT_EQ(readBack[i], original[i]);
	}

	TEST_F(OxvmCsv, CsvBitsReadBackBitForBit)
	{
		Write("in.csv", "n,d,i,j\n0,0,5,-7\n1,0,-2147483648,3\n-1,0,0,0\n0x7fa00001,1,12,12\n-0.0,1,1,2\n1e-45,1,9,3\n");
		Write("p.oxs",
			  "stream 6\n"
			  "reg n stream 0 float = csv(\"in.csv\", n)\n"
			  "reg d stream 1 float = csv(\"in.csv\", d)\n"
			  "reg q stream 2 float\n"
			  "reg i stream 3 int2 = csv(\"in.csv\", i, j)\n"
			  "reg k stream 4 int2\n"
			  "reg m stream 5 bool2\n"
			  "reg one constant 6 int2 = 1\n"
			  "div q, n, d\n"
			  "mul k, i, one\n"
			  "cmpgt m, i, one\n");
		const SOxvmResult result = Oxvm("run p.oxs --csv out.csv --csv-bits --dump q,k,m");
		ASSERT_EQ(result.m_Status, 0) << result.m_Err;
		const std::vector<std::string> lines = Split(Read("out.csv"), '\n');
		ASSERT_EQ(lines.size(), 7u) << Read("out.csv");
		EXPECT_EQ(lines[0], "element,q,k.x,k.y,m.x,m.y");
		EXPECT_EQ(lines[2], "1,0x7f800000,-2147483648,3,false,true");	// inf; ints and bools as always
		EXPECT_EQ(lines[3], "2,0xff800000,0,0,false,false");			// -inf
		EXPECT_EQ(lines[4], "3,0x7fe00001,12,12,true,true");			// a signalling NaN comes out quiet, payload kept
		EXPECT_EQ(lines[5], "4,0x80000000,1,2,false,true");				// -0
		EXPECT_EQ(lines[6], "5,0x00000001,9,3,true,true");				// the smallest subnormal

		Write("back.oxs",
			  "stream 6\n"
			  "reg q stream 0 float = csv(\"out.csv\", q)\n"
			  "reg k stream 1 int2 = csv(\"out.csv\", k.x, k.y)\n"
			  "reg m stream 2 bool2 = csv(\"out.csv\", m.x, m.y)\n");
		const SOxvmResult back = Oxvm("run back.oxs --dump q,k,m");
		ASSERT_EQ(back.m_Status, 0) << back.m_Err;
		for (const char *title : {"q ", "k ", "m "})
		{
			const std::vector<std::string> original = DumpLines(result.m_Out, title);
			EXPECT_EQ(original.size(), 6u) << title;
			EXPECT_EQ(DumpLines(back.m_Out, title), original) << title;
		}

		// --csv-bits says how to write a --csv file: alone it is refused.
		const SOxvmResult alone = Oxvm("run p.oxs --csv-bits");
		EXPECT_EQ(alone.m_Status, 2);
		EXPECT_NE(alone.m_Err.find("--csv-bits requires --csv"), std::string::npos) << alone.m_Err;
	}
}
