// SProgram -> checked: element counts, initialisers (CSV files loaded here) and the
// operand rules, so that a checked program never makes the VM assert on types or
// sizes. The rules are the tool's, stricter than what the kernels would accept:
//   - both sources have the same type (the kernels read source 1 as source 0's type);
//   - the bitwise operators take int and bool operands only;
//   - the destination has the sources' type; a comparison may also write the bool
//     type of the same width (its masks);
//   - a per-element (instance, stream) destination holds the whole stream, and every
//     per-element source holds as many elements as the instruction evaluates.

#include "csv_table.h"
#include "numbers.h"
#include "program.h"
#include "progress.h"

#include <fmt/format.h>

#include <algorithm>
#include <map>
#include <new>
#include <set>
#include <tuple>

namespace OxVm
{
	using Compiler::IR::SOp_MathOp;

	namespace
	{
		constexpr u64 kMaxRegisterBytes = 0xFFFFFFFFu - 64;	// CRegisterStorage adds padding to a 32-bit size
		constexpr u32 kProgressRows = 4096;		// csv() rows between two progress calls

		std::string Quoted(const SProgram &program, s32 index)
		{
			return "'" + program.RegisterText(index) + "'";
		}

		class CChecker
		{
		public:
			CChecker(SProgram &program, u32 elements, CDiagnostics &diagnostics)
			: m_Program(program), m_Elements(elements), m_Diagnostics(diagnostics) {}

			void Registers()
			{
				for (std::size_t i = 0; i < m_Program.m_Registers.size() && !m_Diagnostics.Saturated(); ++i)
					_Register(s32(i));
			}

			void Instructions()
			{
				for (const SInstruction &instruction : m_Program.m_Instructions)
				{
					if (m_Diagnostics.Saturated())
						return;
					_Instruction(instruction);
				}
			}

		private:
			void _Register(s32 index)
			{
				SRegisterDecl &decl = m_Program.m_Registers[std::size_t(index)];
				const STypeInfo type = TypeInfo(decl.Type());
				decl.m_Count = decl.m_DeclaredCount != 0 ? decl.m_DeclaredCount : (IsPerElement(decl.Bank()) ? m_Elements : 1);
				if (u64(decl.m_Count) * ElementSize(type.m_Type) > kMaxRegisterBytes)
				{
					m_Diagnostics.Error(decl.m_Where, fmt::format("register {} would need {} bytes; a register holds at most {}", Quoted(m_Program, index),
																  u64(decl.m_Count) * ElementSize(type.m_Type), kMaxRegisterBytes));
					return;
				}
				const SInitialiser &init = decl.Init();
				if (init.m_Kind == Init_Literal && init.m_Words.size() > 1 && init.m_Words.size() / type.m_Components > decl.m_Count)
					m_Diagnostics.Error(init.m_Where, fmt::format("{} values make {} elements; register {} holds {}", init.m_Words.size(),
																  init.m_Words.size() / type.m_Components, Quoted(m_Program, index), decl.m_Count));
				if (init.m_Kind == Init_Csv)
					_Csv(decl, index, type);
			}

			// One string per CSV path for the whole check: messages about a file point at it.
			const std::string *_CsvName(const std::string &path)
			{
				return &*m_CsvNames.insert(path).first;
			}

			// Reports a cell once, however many registers (or components) read it.
			void _CsvError(const SLocation &where, const std::string &message)
			{
				if (m_CsvReported.insert({where.m_File, where.m_Line, where.m_Column}).second)
					m_Diagnostics.Error(where, message);
			}

			// A header name as a message lists it: printable, and cut when long.
			static std::string HeaderName(const std::string &name)
			{
				return name.size() <= kShownBytes ? Printable(name) : Shown(name);
			}

			// csv("file", column, ...). The file is read a line at a time, once per register:
			// the header, then rows 1 .. count, converting the cells of the named columns
			// into the register's words. Nothing else of the file is kept, and nothing after
			// the last row needed is read, so that a big file costs its register's memory
			// and no more.
			void _Csv(SRegisterDecl &decl, s32 index, const STypeInfo &type)
			{
				SInitialiser &init = *decl.m_Init;	// (a csv() initialiser)
				const std::string *file = _CsvName(CsvFilePath(m_Program, init));
				CCsvReader reader;
				std::string_view line;
				// A failed open or read is the initialiser's error; a line that is too long,
				// or the size limit, is the CSV file's, at its line.
				auto readerError = [&]() {
					if (reader.ErrorHasLine())
						_CsvError(SLocation{file, reader.LineNumber(), 0}, reader.Error());
					else
						m_Diagnostics.Error(init.m_Where, reader.Error());
				};
				if (!reader.Open(*file))
				{
					readerError();
					return;
				}
				if (!reader.NextLine(line))
				{
					if (!reader.Error().empty())
						readerError();
					else
						m_Diagnostics.Error(init.m_Where, fmt::format("CSV file '{}' is empty: its first line must name the columns", *file));
					return;
				}
				// The rows are the long part ("set-up: reading data.csv: row 40000/100000").
				CProgressPhase phase("set-up: reading " + Printable(*file), "row", decl.m_Count);
				std::vector<SCsvField> fields;
				std::string scratch;
				SplitCsvLine(line, fields);
				std::vector<std::string> header;
				for (const SCsvField &field : fields)
					header.emplace_back(CsvFieldText(line, field, scratch));

				const std::size_t columnCount = init.m_CsvColumns.size();
				if (columnCount != 1 && columnCount != type.m_Components)
				{
					m_Diagnostics.Error(init.m_Where, fmt::format("csv() gives {} columns for a {} register: give 1 column or {}", columnCount, BaseTypeName(type.m_Type), type.m_Components));
					return;
				}
				std::vector<std::size_t> columns;
				for (const SCsvColumn &column : init.m_CsvColumns)
				{
					std::size_t at = column.m_Index != 0 ? column.m_Index - 1 : header.size();
					if (column.m_Index == 0)
						for (std::size_t c = 0; c < header.size(); ++c)
							if (header[c] == column.m_Name)
								at = c;
					if (at >= header.size())
					{
						// A header of thousands of columns is not listed whole.
						constexpr std::size_t kListed = 16;
						std::string names;
						for (std::size_t c = 0; c < header.size() && c < kListed; ++c)
							names += (c == 0 ? "" : ", ") + HeaderName(header[c]);
						if (header.size() > kListed)
							names += fmt::format(", ... ({} in all)", header.size());
						m_Diagnostics.Error(column.m_Where, column.m_Index != 0 ? fmt::format("CSV file '{}' has no column {} (it has {})", *file, column.m_Index, header.size())
																		: fmt::format("CSV file '{}' has no column {} (columns: {})", *file, Shown(column.m_Name), names));
						return;
					}
					columns.push_back(at);
				}

				const std::size_t wordCount = std::size_t(decl.m_Count) * type.m_Components;
				try
				{
					init.m_CsvWords.reserve(wordCount);
				}
				catch (const std::bad_alloc &)
				{
					m_Diagnostics.Error(init.m_Where, fmt::format("cannot allocate {} bytes for the values of register {}", u64(wordCount) * 4, Quoted(m_Program, index)));
					return;
				}
				u32 rows = 0;
				u32 widerRows = 0;		// rows with more cells than the header has columns
				SLocation firstWider;
				std::size_t firstWiderCells = 0;
				const std::size_t wanted = *std::max_element(columns.begin(), columns.end()) + 1;
				while (rows < decl.m_Count && !m_Diagnostics.Saturated() && reader.NextLine(line))
				{
					if (++rows % kProgressRows == 0)
						phase.Update(rows, decl.m_Count);
					const std::size_t cells = SplitCsvLine(line, fields, wanted);
					const u32 lineNumber = reader.LineNumber();
					if (cells > header.size() && widerRows++ == 0)
					{
						std::vector<SCsvField> all;
						SplitCsvLine(line, all);
						firstWider = SLocation{file, lineNumber, all[header.size()].m_Column};
						firstWiderCells = cells;
					}
					u32 words[4] = {0, 0, 0, 0};
					for (u32 component = 0; component < type.m_Components; ++component)
					{
						if (columnCount == 1 && component != 0)
						{
							words[component] = words[0];
							continue;
						}
						const std::size_t column = columns[columnCount == 1 ? 0 : component];
						if (column >= fields.size())
						{
							_CsvError(SLocation{file, lineNumber, u32(line.size() + 1)},
									  fmt::format("row has {} field{}, column {} ({}) is missing", cells, cells == 1 ? "" : "s", column + 1, HeaderName(header[column])));
							continue;
						}
						const std::string_view text = CsvFieldText(line, fields[column], scratch);
						std::string error;
						if (!ParseWord(text, type.m_Kind, words[component], error))
							_CsvError(SLocation{file, lineNumber, fields[column].m_Column}, error);
					}
					init.m_CsvWords.insert(init.m_CsvWords.end(), words, words + type.m_Components);
				}
				phase.Update(rows, decl.m_Count);
				if (!reader.Error().empty())
				{
					readerError();
					return;
				}
				if (m_Diagnostics.Saturated())
					return;
				if (rows < decl.m_Count)
					m_Diagnostics.Error(init.m_Where, fmt::format("CSV file '{}' has {} rows; register {} needs {} (one per element)", *file, rows, Quoted(m_Program, index), decl.m_Count));
				// Extra cells are most likely a header that lost a name, or a separator
				// inside an unquoted number: said once per file, not once per row.
				if (widerRows != 0 && m_CsvWarned.insert(file).second)
					m_Diagnostics.Warning(firstWider, fmt::format("{} of the {} rows read have more cells than the header's {} column{} (this one has {}); the extra cells are ignored",
																  widerRows, rows, header.size(), header.size() == 1 ? "" : "s", firstWiderCells));
			}

			void _Instruction(const SInstruction &instruction)
			{
				const s32 d = instruction.m_Dst.m_Register;
				const s32 s0 = instruction.m_Src[0].m_Register;
				const s32 s1 = instruction.m_SourceCount > 1 ? instruction.m_Src[1].m_Register : -1;
				if (d < 0 || s0 < 0 || (instruction.m_SourceCount > 1 && s1 < 0))
					return;	// already reported by the parser
				const SProgram &p = m_Program;
				const SRegisterDecl &dst = p.m_Registers[std::size_t(d)];
				const SRegisterDecl &src0 = p.m_Registers[std::size_t(s0)];
				const STypeInfo type = TypeInfo(src0.Type());
				const SOp_MathOp::STraits &traits = SOp_MathOp::OperatorTraits(instruction.m_Op);

				if (s1 >= 0 && p.m_Registers[std::size_t(s1)].Type() != src0.Type())
					m_Diagnostics.Error(p.At(instruction, instruction.m_Src[1]), fmt::format("source types differ: {} is {}, {} is {}", Quoted(p, s0), BaseTypeName(src0.Type()),
																				   Quoted(p, s1), BaseTypeName(p.m_Registers[std::size_t(s1)].Type())));
				if (!traits.FloatSupported() && type.m_Kind == ElementKind_Float)
					m_Diagnostics.Error(p.Where(instruction), fmt::format("'{}' is a bitwise operator: it takes int and bool operands, {} is {}", traits.m_Name, Quoted(p, s0), BaseTypeName(src0.Type())));

				const bool comparison = instruction.m_Op >= SOp_MathOp::Op_Cmp_Lower;
				if (dst.Type() != src0.Type() && !(comparison && dst.Type() == BoolType(type.m_Components)))
					m_Diagnostics.Error(p.At(instruction, instruction.m_Dst), fmt::format("destination {} is {}; '{}' of {} operands writes {}{}", Quoted(p, d), BaseTypeName(dst.Type()), traits.m_Name,
																			   BaseTypeName(src0.Type()), BaseTypeName(src0.Type()),
																			   comparison ? fmt::format(" or {}", BaseTypeName(BoolType(type.m_Components))) : std::string()));

				const u32 evalCount = IsPerElement(dst.Bank()) ? m_Elements : 1;
				if (IsPerElement(dst.Bank()) && dst.m_Count < m_Elements)
					m_Diagnostics.Error(p.At(instruction, instruction.m_Dst), fmt::format("register {} holds {} elements, too small for a stream of {}", Quoted(p, d), dst.m_Count, m_Elements));
				for (u32 i = 0; i < instruction.m_SourceCount; ++i)
				{
					const s32 s = instruction.m_Src[i].m_Register;
					const SRegisterDecl &src = p.m_Registers[std::size_t(s)];
					if (IsPerElement(src.Bank()) && src.m_Count < evalCount)
						m_Diagnostics.Error(p.At(instruction, instruction.m_Src[i]), fmt::format("register {} holds {} elements, too small: this instruction reads {}", Quoted(p, s), src.m_Count, evalCount));
				}
				_Warnings(instruction, evalCount, type);
			}

			// Legal, but the standard path reports them (docs/embedding.md, "Two execution paths").
			// Said only when the standard path will run them: the Low path computes them
			// like any other instruction.
			void _Warnings(const SInstruction &instruction, u32 evalCount, const STypeInfo &type)
			{
				if (!m_StandardPathRuns || type.m_Kind != ElementKind_Float || evalCount == 1)
					return;
				const bool constant0 = !IsPerElement(m_Program.m_Registers[std::size_t(instruction.m_Src[0].m_Register)].Bank());
				const bool constant1 = instruction.m_SourceCount > 1 && !IsPerElement(m_Program.m_Registers[std::size_t(instruction.m_Src[1].m_Register)].Bank());
				if (instruction.m_Op == SOp_MathOp::Op_Neg && constant0)
					m_Diagnostics.Warning(m_Program.Where(instruction), "float 'neg' of a constant into a stream is refused by the standard path (nothing written); "
															   "negate into a constant register, or use 'sub' from zero");
				if (instruction.m_Op == SOp_MathOp::Op_Mod && constant0 && constant1)
					m_Diagnostics.Warning(m_Program.Where(instruction), "float 'mod' of two constants into a stream is reported by the standard path; compute it into a constant register");
			}

		public:
			void SetStandardPathRuns(bool runs) { m_StandardPathRuns = runs; }

		private:
			bool m_StandardPathRuns = true;

			SProgram &m_Program;
			u32 m_Elements;
			CDiagnostics &m_Diagnostics;
			std::set<std::string> m_CsvNames;		// node-based: the names keep their address
			std::set<std::tuple<const std::string *, u32, u32>> m_CsvReported;
			std::set<const std::string *> m_CsvWarned;
		};
	}

	bool CheckProgram(SProgram &program, u32 elements, CDiagnostics &diagnostics, bool standardPathRuns)
	{
		const u32 errorsBefore = diagnostics.ErrorCount();
		// Every count derives from the stream size: without one there is nothing to check.
		if (elements == 0 && program.m_Stream == 0)
		{
			if (program.m_StreamWhere.m_Line == 0)	// (a bad 'stream' line was reported where it is)
				diagnostics.Error(SLocation{program.m_File.get(), 1, 1}, "missing 'stream N' line (elements per stream; or give --elements N)");
			return false;
		}
		CChecker checker(program, elements != 0 ? elements : program.m_Stream, diagnostics);
		checker.SetStandardPathRuns(standardPathRuns);
		checker.Registers();
		checker.Instructions();
		return diagnostics.ErrorCount() == errorsBefore;
	}

	std::string CsvFilePath(const SProgram &program, const SInitialiser &init)
	{
		const bool asWritten = init.m_CsvPath[0] == '/' || program.m_Folder == ".";
		return asWritten ? init.m_CsvPath : program.m_Folder + "/" + init.m_CsvPath;
	}
}
