#include "source_file.h"

#include <fmt/format.h>

#include "diagnostics.h"
#include "progress.h"

#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <optional>

namespace OxVm
{
	bool ReadFile(const std::string &path, u64 limit, std::string &bytes, std::string &error, const FnJudgeStart &judge)
	{
		const bool standardInput = path == "-";
		std::FILE *file = standardInput ? stdin : std::fopen(path.c_str(), "rb");
		if (file == nullptr)
		{
			error = fmt::format("cannot read {}: {}", Shown(path), std::strerror(errno));
			return false;
		}
		bytes.clear();
		// A regular file's size is known: one allocation of the right size, and a file
		// over the limit is refused before a byte of it is read.
		struct stat info;
		const bool regular = fstat(fileno(file), &info) == 0 && S_ISREG(info.st_mode);
		bool tooLarge = regular && u64(info.st_size) > limit;
		if (regular && !tooLarge)
			bytes.reserve(std::size_t(info.st_size));
		char chunk[1 << 16];
		// A phase of the running command's bar ('oxvm run': "set-up: reading prog.oxs"),
		// in bytes when the size is known; ended before the caller prints any error.
		std::optional<CProgressPhase> phase(std::in_place, "set-up: reading " + Printable(InputName(path)), "", regular ? u64(info.st_size) : 0);
		while (!tooLarge)
		{
			const std::size_t got = std::fread(chunk, 1, sizeof(chunk), file);
			if (got == 0)
				break;
			if (bytes.size() + got > limit)
			{
				tooLarge = true;
				break;
			}
			bytes.append(chunk, got);
			phase->Update(bytes.size(), regular ? u64(info.st_size) : 0);
			if (!regular && judge && bytes.size() == sizeof(chunk) && !(error = judge(bytes)).empty())
				break;
		}
		const bool failed = std::ferror(file) != 0;
		const int readErrno = errno;
		phase.reset();
		if (!standardInput)
			std::fclose(file);
		const bool judged = !error.empty();
		if (tooLarge)
			error = fmt::format("{} is larger than {} MiB, the largest input oxvm reads", Shown(InputName(path)), limit >> 20);
		else if (failed)
			error = fmt::format("cannot read {}: {}", Shown(InputName(path)), std::strerror(readErrno));
		if (tooLarge || failed || judged)
		{
			std::string().swap(bytes);
			return false;
		}
		return true;
	}

	bool SameRegularFile(const std::string &input, const std::string &output)
	{
		struct stat in, out;
		if (output == "-" || stat(output.c_str(), &out) != 0 || !S_ISREG(out.st_mode))
			return false;
		const int got = input == "-" ? fstat(STDIN_FILENO, &in) : stat(input.c_str(), &in);
		return got == 0 && S_ISREG(in.st_mode) && in.st_dev == out.st_dev && in.st_ino == out.st_ino;
	}

	bool OutputSparesInput(const char *option, const std::string &output, const std::string &input, const std::string &what)
	{
		if (!SameRegularFile(input, output))
			return true;
		fmt::print(stderr, "oxvm: error: {} {} is {} ({}): writing it would destroy the input; write to another file\n", option, Shown(output), what,
				   Shown(InputName(input)));
		return false;
	}

	std::string InputName(const std::string &path)
	{
		return path == "-" ? std::string("<stdin>") : path;
	}

	void SkipByteOrderMark(std::string &text)
	{
		if (text.compare(0, 3, "\xEF\xBB\xBF") == 0)
			text.erase(0, 3);
	}

	bool LooksLikeText(const std::string &bytes)
	{
		if (bytes.empty())
			return false;
		for (char c : bytes)
		{
			const unsigned char byte = static_cast<unsigned char>(c);
			if (byte < 0x20 && byte != '\t' && byte != '\n' && byte != '\r')
				return false;
			if (byte == 0x7F)
				return false;
		}
		return true;
	}
}
