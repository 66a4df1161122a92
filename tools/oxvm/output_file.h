#pragma once
// How oxvm writes an output (asm -o, run --csv), without ever damaging what the path
// names:
//   - "-" is standard output;
//   - a regular file (after following symbolic links, so a link is written through) is
//     written to a temporary file in the same folder, created with the original's mode
//     (or the umask's for a new file), and renamed over it once complete: a failure
//     leaves the original as it was. A file with other hard links is rewritten in
//     place once the complete temporary copy exists, so that every link sees it;
//   - anything else (a device, a FIFO) is written directly, as a shell redirection would.
// Open() runs before any work, so that an output that cannot be written stops the
// command before it runs, not after.

#include <cstdio>
#include <string>

namespace OxVm
{
	class COutputFile
	{
	public:
		COutputFile() = default;
		~COutputFile();	// a file never committed is abandoned: its temporary is removed
		COutputFile(const COutputFile &) = delete;
		COutputFile &operator=(const COutputFile &) = delete;

		// False with 'error' ("cannot write 'x': Permission denied").
		bool Open(const std::string &path, std::string &error);
		// The stream to write to (valid between Open and Commit).
		std::FILE *Stream() const { return m_Stream; }
		// Flushes and puts the data in place. False with 'error'; a regular file is then
		// left as it was.
		bool Commit(std::string &error);

		const std::string &Path() const { return m_Path; }

	private:
		void _Abandon();

		std::string m_Path;			// as given
		std::string m_Target;		// the regular file to replace (links followed); empty: written directly
		std::string m_Temporary;	// the temporary beside it
		bool m_InPlace = false;		// the target has other hard links
		std::FILE *m_Stream = nullptr;
		bool m_OwnsStream = false;
	};
}
