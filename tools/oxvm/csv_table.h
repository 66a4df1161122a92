#pragma once
// A small CSV reader for register initialisers: the first line names the columns,
// fields are separated by commas, may be double-quoted ("" is a quote inside), and
// are trimmed of spaces. Blank lines are skipped. Every cell keeps its line and
// column, so a bad value is reported where it is.

#include "diagnostics.h"

#include <memory>
#include <string>
#include <vector>

namespace OxVm
{
	struct SCsvCell
	{
		std::string m_Text;
		std::uint32_t m_Line = 0;
		std::uint32_t m_Column = 0;
	};

	struct SCsvTable
	{
		std::unique_ptr<std::string> m_File = std::make_unique<std::string>();	// stable address for SLocation
		std::vector<SCsvCell> m_Header;
		std::vector<std::vector<SCsvCell>> m_Rows;

		SLocation At(const SCsvCell &cell) const { return SLocation{m_File.get(), cell.m_Line, cell.m_Column}; }
	};

	// False with 'error' set when the file cannot be read or has no header line.
	bool LoadCsv(const std::string &path, SCsvTable &table, std::string &error);
}
