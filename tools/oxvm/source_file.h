#pragma once
// Reading the tool's input files, and telling a program text from bytecode.

#include "kr_base_types.h"

#include <functional>
#include <string>
#include <string_view>

namespace OxVm
{
	using namespace Orvex;

	// The largest program or bytecode file the tool reads (about 10 million instructions):
	// a larger input is refused before it can take the machine's memory (oxvm holds a
	// program in at most about 8 bytes per byte of its text, beyond the registers).
	constexpr u64 kMaxInputBytes = u64(256) << 20;

	// The whole file ("-": standard input), at most 'limit' bytes; false with 'error' set
	// ("cannot read 'x': No such file or directory", "'x' is larger than ..."). Reads
	// devices and pipes too: an endless one stops at the limit.
	// 'judge' (may be empty) sees the first 64 KiB of a device or pipe, whose size is not
	// known, and may end the reading there: a message (non-empty) is the error.
	using FnJudgeStart = std::function<std::string(std::string_view start)>;
	bool ReadFile(const std::string &path, u64 limit, std::string &bytes, std::string &error, const FnJudgeStart &judge = FnJudgeStart());

	// Whether writing 'output' would replace the input 'input' ("-": standard input, which
	// may be a file redirected in): both are the same regular file, links followed (same
	// device and inode). Devices and FIFOs are written as they are, not replaced, and an
	// output that does not exist yet is no input: neither overlaps.
	bool SameRegularFile(const std::string &input, const std::string &output);

	// True when 'output' (given by 'option': "-o", "--csv") is not the input 'input';
	// otherwise prints why the command refuses ('what' says what the input is: "the
	// program", "the csv() input of register 'ids'") and returns false. Called before
	// the output is opened: nothing has been written.
	bool OutputSparesInput(const char *option, const std::string &output, const std::string &input, const std::string &what);

	// The name messages give an input path: "<stdin>" for "-".
	std::string InputName(const std::string &path);

	// Drops a UTF-8 byte-order mark at the start of a text (editors on some systems
	// write one): it is not part of the first word.
	void SkipByteOrderMark(std::string &text);

	// A program is text: tabs, line ends and printable bytes only. Bytecode always has
	// control bytes in practice (register ids hold small slots and zero bank bits). An
	// empty file is neither (the commands say so before asking).
	bool LooksLikeText(const std::string &bytes);
}
