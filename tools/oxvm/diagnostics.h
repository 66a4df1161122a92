#pragma once
// Error messages in the compiler form "file:line:column: error: message". They are
// collected while a file is read and checked, then printed in file and line order
// (Flush, or the destructor), so that one run shows every mistake (up to a limit).

#include <cstdint>
#include <cstdio>
#include <string>
#include <string_view>
#include <vector>

namespace OxVm
{
	struct SLocation
	{
		const std::string *m_File = nullptr;	// owned by the program (or the CSV table) reporting
		std::uint32_t m_Line = 0;				// 1-based; 0: the whole file
		std::uint32_t m_Column = 0;				// 1-based; 0: the whole line
	};

	// A piece of input as messages show it, in single quotes: bytes that are not
	// printable text (controls, broken UTF-8) as \xNN, and a long token cut after its
	// first kShownBytes bytes with its length given ("'aaaa...' (1048576 bytes)"), so
	// that a message stays one readable line whatever the input holds.
	std::string Shown(std::string_view text);
	// The same without the quotes (names of files, whole lines).
	std::string Printable(std::string_view text);
	constexpr std::size_t kShownBytes = 40;

	class CDiagnostics
	{
	public:
		static constexpr std::uint32_t kMaxErrors = 20;

		// A null stream counts errors without printing them.
		explicit CDiagnostics(std::FILE *out = stderr) : m_Out(out) {}
		~CDiagnostics() { Flush(); }
		CDiagnostics(const CDiagnostics &) = delete;
		CDiagnostics &operator=(const CDiagnostics &) = delete;

		// Messages go to 'text' (one line each) instead of the stream.
		void CaptureInto(std::string *text) { m_Capture = text; }

		void Error(const SLocation &where, const std::string &message);
		void Warning(const SLocation &where, const std::string &message);
		// Prints what was collected, sorted; the counts stay.
		void Flush();

		std::uint32_t ErrorCount() const { return m_Errors; }
		bool Failed() const { return m_Errors != 0; }
		// True once kMaxErrors were found: callers may stop looking for more.
		bool Saturated() const { return m_Errors >= kMaxErrors; }

	private:
		struct SEntry
		{
			std::uint32_t m_FileOrder;	// files in order of first message
			SLocation m_Where;
			std::uint32_t m_Sequence;
			std::string m_Text;
		};

		void _Add(const SLocation &where, const char *severity, const std::string &message);
		void _Sort();

		std::FILE *m_Out;
		std::string *m_Capture = nullptr;
		std::uint32_t m_Errors = 0;
		std::vector<const std::string *> m_Files;
		std::vector<SEntry> m_Pending;	// never more than about 2 x kMaxErrors: the first ones in order are kept
		std::uint32_t m_Sequence = 0;
		std::uint32_t m_Printed = 0;
	};
}
