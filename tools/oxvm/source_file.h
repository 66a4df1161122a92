#pragma once
// Reading the tool's input files, and telling a program text from bytecode.

#include "kr_base_types.h"

#include <string>

namespace OxVm
{
	// The whole file; false with 'error' set ("cannot read 'x': No such file or directory").
	bool ReadFile(const std::string &path, std::string &bytes, std::string &error);

	// Drops a UTF-8 byte-order mark at the start of a text (editors on some systems
	// write one): it is not part of the first word.
	void SkipByteOrderMark(std::string &text);

	// A program is text: tabs, line ends and printable bytes only. Bytecode always has
	// control bytes in practice (register ids hold small slots and zero bank bits). An
	// empty file is neither (the commands say so before asking).
	bool LooksLikeText(const std::string &bytes);
}
