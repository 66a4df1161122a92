#pragma once
// CSV files of register initialisers, read one line at a time: the first line names
// the columns, fields are separated by commas, may be double-quoted ("" is a quote
// inside), and are trimmed of spaces. Blank lines are skipped.
//
// A data file can be far bigger than what a program takes from it (a few columns of
// its first rows), so nothing here holds more than one line: the caller converts the
// cells it needs as the lines go by and stops reading once it has them. A line is at
// most kMaxCsvLineBytes long and at most kMaxCsvBytes of a file are read, so that a
// device such as /dev/zero, or a binary file named by mistake, ends in an error soon
// and in little memory.

#include <cstdint>
#include <cstdio>
#include <string>
#include <string_view>
#include <vector>

namespace OxVm
{
	constexpr std::size_t kMaxCsvLineBytes = std::size_t(1) << 20;	// 1 MiB
	constexpr std::uint64_t kMaxCsvBytes = std::uint64_t(4) << 30;	// 4 GiB read of one file

	// One field of a line: its text within the line, and the 1-based column (byte) it
	// starts at, for messages.
	struct SCsvField
	{
		std::uint32_t m_Begin = 0;		// text bytes [m_Begin, m_End) of the line; inside the quotes when quoted
		std::uint32_t m_End = 0;
		std::uint32_t m_Column = 0;
		bool m_Escaped = false;			// quoted text holding "" pairs, undone by CsvFieldText
	};

	// The fields of 'line', into 'fields' (reused from line to line: no allocation once
	// it has grown to the widest line), and how many the line has: at least one. Only
	// the first 'wanted' are split out; the others are only counted (fast when the rest
	// of the line has no quotes), as a register reading a few columns needs no more.
	std::size_t SplitCsvLine(std::string_view line, std::vector<SCsvField> &fields, std::size_t wanted = SIZE_MAX);

	// The text of a field: a view of 'line', or of 'scratch' when quotes had to be undone.
	std::string_view CsvFieldText(std::string_view line, const SCsvField &field, std::string &scratch);

	class CCsvReader
	{
	public:
		CCsvReader() = default;
		~CCsvReader();
		CCsvReader(const CCsvReader &) = delete;
		CCsvReader &operator=(const CCsvReader &) = delete;

		// False with Error() set ("cannot read CSV file 'x': No such file or directory").
		bool Open(const std::string &path);

		// The next line that is not blank (spaces and tabs only), without its line end
		// ("\n" or "\r\n") and, on line 1, without a UTF-8 byte-order mark. The view
		// stays valid until the next call. False at the end of the file, and also when
		// Error() is set: a line longer than kMaxCsvLineBytes, more than kMaxCsvBytes
		// read, a failed read.
		bool NextLine(std::string_view &line);

		// 1-based number of the line NextLine returned last, or of the line an error is on.
		std::uint32_t LineNumber() const { return m_LineNumber > UINT32_MAX ? UINT32_MAX : std::uint32_t(m_LineNumber); }
		const std::string &Error() const { return m_Error; }
		// True when Error() is about a line of the file (too long, too much read); false
		// when the file could not be opened or read at all.
		bool ErrorHasLine() const { return m_ErrorHasLine; }

	private:
		bool _Fill();
		void _Fail(std::string message, bool hasLine);

		std::FILE *m_File = nullptr;
		std::string m_Path;
		std::vector<char> m_Buffer;
		std::size_t m_Begin = 0;		// unread bytes of m_Buffer: [m_Begin, m_End)
		std::size_t m_End = 0;
		std::string m_Line;				// a line that spans reads of m_Buffer
		std::uint64_t m_BytesRead = 0;
		std::uint64_t m_LineNumber = 0;
		std::string m_Error;
		bool m_ErrorHasLine = false;
	};
}
