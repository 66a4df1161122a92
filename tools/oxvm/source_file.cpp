#include "source_file.h"

#include <fmt/format.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <sstream>

namespace OxVm
{
	bool ReadFile(const std::string &path, std::string &bytes, std::string &error)
	{
		std::ifstream in(path, std::ios::binary);
		if (!in)
		{
			error = fmt::format("cannot read '{}': {}", path, std::strerror(errno));
			return false;
		}
		std::ostringstream content;
		content << in.rdbuf();
		if (in.bad())
		{
			error = fmt::format("cannot read '{}'", path);
			return false;
		}
		bytes = content.str();
		return true;
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
