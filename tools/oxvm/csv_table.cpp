#include "csv_table.h"

#include "source_file.h"

#include <cerrno>
#include <cstring>
#include <fstream>
#include <sstream>

namespace OxVm
{
	namespace
	{
		std::vector<SCsvCell> SplitLine(const std::string &line, std::uint32_t lineNumber)
		{
			std::vector<SCsvCell> cells;
			std::size_t i = 0;
			for (;;)
			{
				SCsvCell cell;
				cell.m_Line = lineNumber;
				while (i < line.size() && (line[i] == ' ' || line[i] == '\t'))
					++i;
				cell.m_Column = std::uint32_t(i + 1);
				if (i < line.size() && line[i] == '"')
				{
					for (++i; i < line.size(); ++i)
					{
						if (line[i] == '"' && i + 1 < line.size() && line[i + 1] == '"')
							cell.m_Text += line[++i];
						else if (line[i] == '"')
						{
							++i;
							break;
						}
						else
							cell.m_Text += line[i];
					}
					while (i < line.size() && line[i] != ',')
						++i;
				}
				else
				{
					while (i < line.size() && line[i] != ',')
						cell.m_Text += line[i++];
					while (!cell.m_Text.empty() && (cell.m_Text.back() == ' ' || cell.m_Text.back() == '\t'))
						cell.m_Text.pop_back();
				}
				cells.push_back(std::move(cell));
				if (i >= line.size())
					return cells;
				++i;	// the comma
			}
		}
	}

	bool LoadCsv(const std::string &path, SCsvTable &table, std::string &error)
	{
		*table.m_File = path;
		std::ifstream in(path, std::ios::binary);
		if (!in)
		{
			error = "cannot read CSV file '" + path + "': " + std::strerror(errno);
			return false;
		}
		std::string line;
		std::uint32_t lineNumber = 0;
		while (std::getline(in, line))
		{
			++lineNumber;
			if (lineNumber == 1)
				SkipByteOrderMark(line);
			if (!line.empty() && line.back() == '\r')
				line.pop_back();
			if (line.find_first_not_of(" \t") == std::string::npos)
				continue;
			std::vector<SCsvCell> cells = SplitLine(line, lineNumber);
			if (table.m_Header.empty())
				table.m_Header = std::move(cells);
			else
				table.m_Rows.push_back(std::move(cells));
		}
		if (in.bad())
		{
			error = "error while reading CSV file '" + path + "'";
			return false;
		}
		if (table.m_Header.empty())
		{
			error = "CSV file '" + path + "' is empty: its first line must name the columns";
			return false;
		}
		return true;
	}
}
