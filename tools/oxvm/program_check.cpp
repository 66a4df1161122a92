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

#include <fmt/format.h>

#include <map>

namespace OxVm
{
	using Compiler::IR::SOp_MathOp;

	namespace
	{
		constexpr u64 kMaxRegisterBytes = 0xFFFFFFFFu - 64;	// CRegisterStorage adds padding to a 32-bit size

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
				const SInitialiser &init = decl.m_Init;
				if (init.m_Kind == Init_Literal && init.m_Words.size() > 1 && init.m_Words.size() / type.m_Components > decl.m_Count)
					m_Diagnostics.Error(init.m_Where, fmt::format("{} values make {} elements; register {} holds {}", init.m_Words.size(),
																  init.m_Words.size() / type.m_Components, Quoted(m_Program, index), decl.m_Count));
				if (init.m_Kind == Init_Csv)
					_Csv(decl, index, type);
			}

			const SCsvTable *_Table(const SInitialiser &init)
			{
				const bool asWritten = init.m_CsvPath[0] == '/' || m_Program.m_Folder == ".";
				const std::string path = asWritten ? init.m_CsvPath : m_Program.m_Folder + "/" + init.m_CsvPath;
				auto found = m_Tables.find(path);
				if (found == m_Tables.end())
				{
					std::string error;
					SCsvTable table;
					if (!LoadCsv(path, table, error))
					{
						m_Diagnostics.Error(init.m_Where, error);
						return nullptr;
					}
					found = m_Tables.emplace(path, std::move(table)).first;
				}
				return &found->second;
			}

			void _Csv(SRegisterDecl &decl, s32 index, const STypeInfo &type)
			{
				SInitialiser &init = decl.m_Init;
				const SCsvTable *table = _Table(init);
				if (table == nullptr)
					return;
				const std::size_t columnCount = init.m_CsvColumns.size();
				if (columnCount != 1 && columnCount != type.m_Components)
				{
					m_Diagnostics.Error(init.m_Where, fmt::format("csv() gives {} columns for a {} register: give 1 column or {}", columnCount, BaseTypeName(type.m_Type), type.m_Components));
					return;
				}
				std::vector<std::size_t> columns;
				for (const SCsvColumn &column : init.m_CsvColumns)
				{
					std::size_t at = column.m_Index != 0 ? column.m_Index - 1 : table->m_Header.size();
					if (column.m_Index == 0)
						for (std::size_t c = 0; c < table->m_Header.size(); ++c)
							if (table->m_Header[c].m_Text == column.m_Name)
								at = c;
					if (at >= table->m_Header.size())
					{
						std::string names;
						for (const SCsvCell &cell : table->m_Header)
							names += (names.empty() ? "" : ", ") + cell.m_Text;
						m_Diagnostics.Error(column.m_Where, column.m_Index != 0 ? fmt::format("CSV file '{}' has no column {} (it has {})", *table->m_File, column.m_Index, table->m_Header.size())
																		: fmt::format("CSV file '{}' has no column '{}' (columns: {})", *table->m_File, column.m_Name, names));
						return;
					}
					columns.push_back(at);
				}
				if (table->m_Rows.size() < decl.m_Count)
				{
					m_Diagnostics.Error(init.m_Where, fmt::format("CSV file '{}' has {} rows; register {} needs {} (one per element)", *table->m_File, table->m_Rows.size(),
																  Quoted(m_Program, index), decl.m_Count));
					return;
				}
				init.m_CsvWords.reserve(std::size_t(decl.m_Count) * type.m_Components);
				for (u32 row = 0; row < decl.m_Count; ++row)
				{
					const std::vector<SCsvCell> &cells = table->m_Rows[row];
					for (u32 component = 0; component < type.m_Components; ++component)
					{
						const std::size_t column = columns[columnCount == 1 ? 0 : component];
						if (column >= cells.size())
						{
							m_Diagnostics.Error(table->At(cells.back()), fmt::format("row has {} fields, column {} is missing", cells.size(), column + 1));
							return;
						}
						std::string error;
						u32 word = 0;
						if (!ParseWord(cells[column].m_Text, type.m_Kind, word, error))
						{
							m_Diagnostics.Error(table->At(cells[column]), error);
							return;
						}
						init.m_CsvWords.push_back(word);
					}
				}
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
					m_Diagnostics.Error(instruction.At(instruction.m_Src[1]), fmt::format("source types differ: {} is {}, {} is {}", Quoted(p, s0), BaseTypeName(src0.Type()),
																				   Quoted(p, s1), BaseTypeName(p.m_Registers[std::size_t(s1)].Type())));
				if (!traits.FloatSupported() && type.m_Kind == ElementKind_Float)
					m_Diagnostics.Error(instruction.m_Where, fmt::format("'{}' is a bitwise operator: it takes int and bool operands, {} is {}", traits.m_Name, Quoted(p, s0), BaseTypeName(src0.Type())));

				const bool comparison = instruction.m_Op >= SOp_MathOp::Op_Cmp_Lower;
				if (dst.Type() != src0.Type() && !(comparison && dst.Type() == BoolType(type.m_Components)))
					m_Diagnostics.Error(instruction.At(instruction.m_Dst), fmt::format("destination {} is {}; '{}' of {} operands writes {}{}", Quoted(p, d), BaseTypeName(dst.Type()), traits.m_Name,
																			   BaseTypeName(src0.Type()), BaseTypeName(src0.Type()),
																			   comparison ? fmt::format(" or {}", BaseTypeName(BoolType(type.m_Components))) : std::string()));

				const u32 evalCount = IsPerElement(dst.Bank()) ? m_Elements : 1;
				if (IsPerElement(dst.Bank()) && dst.m_Count < m_Elements)
					m_Diagnostics.Error(instruction.At(instruction.m_Dst), fmt::format("register {} holds {} elements, too small for a stream of {}", Quoted(p, d), dst.m_Count, m_Elements));
				for (u32 i = 0; i < instruction.m_SourceCount; ++i)
				{
					const s32 s = instruction.m_Src[i].m_Register;
					const SRegisterDecl &src = p.m_Registers[std::size_t(s)];
					if (IsPerElement(src.Bank()) && src.m_Count < evalCount)
						m_Diagnostics.Error(instruction.At(instruction.m_Src[i]), fmt::format("register {} holds {} elements, too small: this instruction reads {}", Quoted(p, s), src.m_Count, evalCount));
				}
				_Warnings(instruction, evalCount, type);
			}

			// Legal, but the standard path reports them (see README, "Two execution paths").
			void _Warnings(const SInstruction &instruction, u32 evalCount, const STypeInfo &type)
			{
				if (type.m_Kind != ElementKind_Float || evalCount == 1)
					return;
				const bool constant0 = !IsPerElement(m_Program.m_Registers[std::size_t(instruction.m_Src[0].m_Register)].Bank());
				const bool constant1 = instruction.m_SourceCount > 1 && !IsPerElement(m_Program.m_Registers[std::size_t(instruction.m_Src[1].m_Register)].Bank());
				if (instruction.m_Op == SOp_MathOp::Op_Neg && constant0)
					m_Diagnostics.Warning(instruction.m_Where, "float 'neg' of a constant into a stream is refused by the standard path (nothing written); "
															   "negate into a constant register, or use 'sub' from zero");
				if (instruction.m_Op == SOp_MathOp::Op_Mod && constant0 && constant1)
					m_Diagnostics.Warning(instruction.m_Where, "float 'mod' of two constants into a stream is reported by the standard path; compute it into a constant register");
			}

			SProgram &m_Program;
			u32 m_Elements;
			CDiagnostics &m_Diagnostics;
			std::map<std::string, SCsvTable> m_Tables;
		};
	}

	bool CheckProgram(SProgram &program, u32 elements, CDiagnostics &diagnostics)
	{
		const u32 errorsBefore = diagnostics.ErrorCount();
		CChecker checker(program, elements != 0 ? elements : program.m_Stream, diagnostics);
		checker.Registers();
		checker.Instructions();
		return diagnostics.ErrorCount() == errorsBefore;
	}
}
