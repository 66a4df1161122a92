// Text -> SProgram: one line at a time, then a second pass that resolves operand
// names (so declarations may follow their use).

#include "cbvm_meta_ops.h"
#include "line_lexer.h"
#include "numbers.h"
#include "program.h"

#include <fmt/format.h>

#include <cctype>
#include <map>

namespace OxVm
{
	using Compiler::IR::SOp_MathOp;

	namespace
	{
		constexpr u32 kMaxSlot = Compiler::IR::CRegID::RegisterSlotMask;
		constexpr u64 kMaxElements = (1u << 28) - 1;	// 16-byte elements must fit a 32-bit register size

		bool IsIdentifier(const std::string &text)
		{
			if (text.empty() || !(std::isalpha(u8(text[0])) || text[0] == '_'))
				return false;
			for (char c : text)
				if (!(std::isalnum(u8(c)) || c == '_'))
					return false;
			return true;
		}

		std::string OperatorList()
		{
			std::string list;
			for (u32 op = 0; op < SOp_MathOp::__MaxOps; ++op)
				list += fmt::format("{}{}", op == 0 ? "" : " ", SOp_MathOp::OperatorTraits(SOp_MathOp::EOp(op)).m_Name);
			return list;
		}

		class CParser
		{
		public:
			CParser(SProgram &program, CDiagnostics &diagnostics) : m_Program(program), m_Diagnostics(diagnostics) {}

			void Line(u32 lineNumber, std::string_view text)
			{
				m_Line = lineNumber;
				SLexedLine lexed = LexLine(text);
				if (!lexed.m_Error.empty())
				{
					_Error(lexed.m_ErrorColumn, lexed.m_Error);
					return;
				}
				m_Tokens = std::move(lexed.m_Tokens);
				m_Pos = 0;
				const SToken &first = _Peek();
				if (first.m_Kind == Token_End)
					return;
				if (first.m_Kind != Token_Word)
					_Error(first.m_Column, fmt::format("expected 'stream', 'reg' or an operator, found '{}'", first.m_Text));
				else if (first.m_Text == "stream")
					_Stream();
				else if (first.m_Text == "reg")
					_Register(lexed.m_Code);
				else
					_Instruction();
			}

			// Second pass: operand names to register indices.
			void ResolveOperands()
			{
				for (SInstruction &instruction : m_Program.m_Instructions)
				{
					_Resolve(instruction.m_Dst);
					for (u32 i = 0; i < instruction.m_SourceCount; ++i)
						_Resolve(instruction.m_Src[i]);
				}
			}

		private:
			SLocation _At(u32 column) const { return SLocation{m_Program.m_File.get(), m_Line, column}; }
			void _Error(u32 column, const std::string &message) { m_Diagnostics.Error(_At(column), message); }
			const SToken &_Peek() const { return m_Tokens[m_Pos]; }
			const SToken &_Next() { return m_Tokens[m_Pos < m_Tokens.size() - 1 ? m_Pos++ : m_Pos]; }
			bool _IsPunct(char c) const { return _Peek().m_Kind == Token_Punct && _Peek().m_Text[0] == c; }

			// Expects the punctuation 'c'; reports and returns false otherwise.
			bool _Expect(char c, const char *what)
			{
				if (_IsPunct(c))
				{
					++m_Pos;
					return true;
				}
				const SToken &token = _Peek();
				_Error(token.m_Column, fmt::format("expected '{}' {}, found {}", c, what, token.m_Kind == Token_End ? "end of line" : "'" + token.m_Text + "'"));
				return false;
			}

			bool _ExpectEnd()
			{
				const SToken &token = _Peek();
				if (token.m_Kind == Token_End)
					return true;
				_Error(token.m_Column, fmt::format("unexpected '{}' at the end of the line", token.m_Text));
				return false;
			}

			void _Stream()
			{
				const SToken &keyword = _Next();
				const SToken &count = _Next();
				if (m_Program.m_Stream != 0 || m_Program.m_StreamWhere.m_Line != 0)
				{
					_Error(keyword.m_Column, fmt::format("duplicate 'stream' line (first at line {})", m_Program.m_StreamWhere.m_Line));
					return;
				}
				m_Program.m_StreamWhere = _At(keyword.m_Column);
				if (count.m_Kind != Token_Word || count.m_Text == "0" || !ParseCount(count.m_Text, kMaxElements, m_Program.m_Stream))
				{
					_Error(count.m_Column, fmt::format("stream size must be a whole number from 1 to {}, found {}", kMaxElements,
													   count.m_Kind == Token_End ? "nothing" : "'" + count.m_Text + "'"));
					return;
				}
				_ExpectEnd();
			}

			// bank.slot:type
			bool _ParseInline(const std::string &text, u32 column, u32 &bits)
			{
				const std::size_t dot = text.find('.');
				const std::size_t colon = text.find(':');
				if (dot == std::string::npos || colon == std::string::npos || colon < dot)
					return false;
				Compiler::EMetaType bank;
				if (!FindBank(text.substr(0, dot), bank))
				{
					_Error(column, fmt::format("unknown bank '{}' in '{}' (banks: constant normal instance stream)", text.substr(0, dot), text));
					return true;
				}
				u32 slot = 0;
				const std::string slotText = text.substr(dot + 1, colon - dot - 1);
				if (slotText != "0" && !ParseCount(slotText, kMaxSlot, slot))
				{
					_Error(column, fmt::format("bad slot '{}' in '{}': a whole number from 0 to {}", slotText, text, kMaxSlot));
					return true;
				}
				EBaseTypeID type;
				if (!_ParseType(text.substr(colon + 1), column, type))
					return true;
				bits = u32(Compiler::IR::CRegID::Build(slot, bank, type).m_RawBits);
				return true;
			}

			bool _ParseType(const std::string &name, u32 column, EBaseTypeID &type)
			{
				if (!FindType(name, type))
				{
					_Error(column, fmt::format("unknown type '{}'", name));
					return false;
				}
				if (!HasKernel(type))
				{
					_Error(column, fmt::format("type '{}' has no math kernel (float float2 float3 float4 quaternion i32 int2 int3 int4 bool bool2 bool3 bool4)", name));
					return false;
				}
				return true;
			}

			// Adds a declaration unless its name or its (bank, slot) is taken; returns its index or -1.
			s32 _Declare(SRegisterDecl decl)
			{
				if (!decl.m_Name.empty())
				{
					const auto named = m_Names.find(decl.m_Name);
					if (named != m_Names.end())
					{
						m_Diagnostics.Error(decl.m_Where, fmt::format("register '{}' is already declared at line {}", decl.m_Name, m_Program.m_Registers[named->second].m_Where.m_Line));
						return -1;
					}
				}
				const u32 place = decl.m_Bits & ~(u32(Compiler::IR::CRegID::RegisterTypeMask) << Compiler::IR::CRegID::RegisterTypeShift);
				const auto placed = m_Places.find(place);
				if (placed != m_Places.end())
				{
					const SRegisterDecl &other = m_Program.m_Registers[placed->second];
					m_Diagnostics.Error(decl.m_Where, fmt::format("{}.{} is already declared as '{}' ({}) at line {}", Compiler::MetaTypeName(decl.Bank()), decl.Slot(),
																  m_Program.RegisterText(placed->second), BaseTypeName(other.Type()), other.m_Where.m_Line));
					return -1;
				}
				const s32 index = s32(m_Program.m_Registers.size());
				if (!decl.m_Name.empty())
					m_Names[decl.m_Name] = index;
				m_Places[place] = index;
				m_Program.m_Registers.push_back(std::move(decl));
				return index;
			}

			void _Register(const std::string &code)
			{
				_Next();	// reg
				SRegisterDecl decl;
				decl.m_Text = code;
				const SToken &name = _Next();
				decl.m_Where = _At(name.m_Column);
				if (name.m_Kind != Token_Word || !IsIdentifier(name.m_Text))
				{
					_Error(name.m_Column, fmt::format("expected a register name (letters, digits, '_'), found {}", name.m_Kind == Token_End ? "end of line" : "'" + name.m_Text + "'"));
					return;
				}
				decl.m_Name = name.m_Text;
				const SToken &bankToken = _Next();
				Compiler::EMetaType bank;
				if (!FindBank(bankToken.m_Text, bank))
				{
					_Error(bankToken.m_Column, fmt::format("expected a bank (constant normal instance stream), found '{}'", bankToken.m_Text));
					return;
				}
				const SToken &slotToken = _Next();
				u32 slot = 0;
				if (slotToken.m_Text != "0" && !ParseCount(slotToken.m_Text, kMaxSlot, slot))
				{
					_Error(slotToken.m_Column, fmt::format("expected a slot from 0 to {}, found '{}'", kMaxSlot, slotToken.m_Text));
					return;
				}
				const SToken &typeToken = _Next();
				EBaseTypeID type;
				if (!_ParseType(typeToken.m_Text, typeToken.m_Column, type))
					return;
				decl.m_Bits = u32(Compiler::IR::CRegID::Build(slot, bank, type).m_RawBits);
				if (_IsPunct('['))
				{
					++m_Pos;
					const SToken &count = _Next();
					if (!ParseCount(count.m_Text, kMaxElements, decl.m_DeclaredCount))
					{
						_Error(count.m_Column, fmt::format("element count must be a whole number from 1 to {}, found '{}'", kMaxElements, count.m_Text));
						return;
					}
					if (!_Expect(']', "after the element count"))
						return;
				}
				if (_IsPunct('='))
				{
					++m_Pos;
					if (!_Initialiser(decl.m_Init, TypeInfo(type)))
						return;
				}
				else if (!_ExpectEnd())
					return;
				_Declare(std::move(decl));
			}

			// Two numbers in parentheses, as ramp() and random() take them.
			bool _TwoArgs(SInitialiser &init, const STypeInfo &type, const std::string &what)
			{
				if (!_Expect('(', ("after " + what).c_str()))
					return false;
				for (u32 i = 0; i < 2; ++i)
				{
					if (i == 1 && !_Expect(',', ("between the arguments of " + what).c_str()))
						return false;
					const SToken &arg = _Next();
					const bool ok = type.m_Kind == ElementKind_Float ? ParseDouble(arg.m_Text, init.m_FloatArgs[i]) : ParseInt64(arg.m_Text, init.m_IntArgs[i]);
					if (arg.m_Kind != Token_Word || !ok)
					{
						_Error(arg.m_Column, fmt::format("malformed number '{}' in {} (a {})", arg.m_Text, what, type.m_Kind == ElementKind_Float ? "decimal number" : "64-bit integer"));
						return false;
					}
				}
				return _Expect(')', ("to close " + what).c_str()) && _ExpectEnd();
			}

			bool _Initialiser(SInitialiser &init, const STypeInfo &type)
			{
				const SToken &first = _Peek();
				init.m_Where = _At(first.m_Column);
				// A word is followed by at least the end token, so m_Pos + 1 exists.
				const bool call = first.m_Kind == Token_Word && m_Tokens[m_Pos + 1].m_Kind == Token_Punct && m_Tokens[m_Pos + 1].m_Text == "(";
				if (first.m_Kind == Token_Word && call && (first.m_Text == "ramp" || first.m_Text == "random"))
				{
					init.m_Kind = first.m_Text == "ramp" ? Init_Ramp : Init_Random;
					++m_Pos;
					if (!_TwoArgs(init, type, first.m_Text + "()"))
						return false;
					if (init.m_Kind == Init_Random && (type.m_Kind == ElementKind_Float ? !(init.m_FloatArgs[0] <= init.m_FloatArgs[1]) : init.m_IntArgs[0] > init.m_IntArgs[1]))
					{
						m_Diagnostics.Error(init.m_Where, "random(lo, hi) needs lo <= hi");
						return false;
					}
					const bool int32 = init.m_IntArgs[0] >= -2147483648LL && init.m_IntArgs[1] <= 4294967295LL;
					if (init.m_Kind == Init_Random && type.m_Kind != ElementKind_Float && !int32)
					{
						m_Diagnostics.Error(init.m_Where, "random(lo, hi) on integers takes 32-bit bounds");
						return false;
					}
					return true;
				}
				if (first.m_Kind == Token_Word && call && first.m_Text == "csv")
					return _Csv(init);
				init.m_Kind = Init_Literal;
				for (;;)
				{
					const SToken &value = _Next();
					std::string error;
					u32 word = 0;
					if (value.m_Kind != Token_Word)
					{
						_Error(value.m_Column, fmt::format("expected a value, found {}", value.m_Kind == Token_End ? "end of line" : "'" + value.m_Text + "'"));
						return false;
					}
					if (!ParseWord(value.m_Text, type.m_Kind, word, error))
					{
						_Error(value.m_Column, error);
						return false;
					}
					init.m_Words.push_back(word);
					if (_Peek().m_Kind == Token_End)
						break;
					if (!_Expect(',', "between values"))
						return false;
				}
				const std::size_t count = init.m_Words.size();
				if (count != 1 && count % type.m_Components != 0)
				{
					m_Diagnostics.Error(init.m_Where, fmt::format("{} values for a {} register: give 1 value or a multiple of {}", count, BaseTypeName(type.m_Type), type.m_Components));
					return false;
				}
				return true;
			}

			// csv("file", column, ...)
			bool _Csv(SInitialiser &init)
			{
				init.m_Kind = Init_Csv;
				m_Pos += 2;
				const SToken &path = _Next();
				if (path.m_Kind != Token_String || path.m_Text.empty())
				{
					_Error(path.m_Column, "csv() needs a file name in double quotes first");
					return false;
				}
				init.m_CsvPath = path.m_Text;
				while (_IsPunct(','))
				{
					++m_Pos;
					const SToken &column = _Next();
					SCsvColumn entry;
					entry.m_Where = _At(column.m_Column);
					if (column.m_Kind == Token_String || (column.m_Kind == Token_Word && !ParseCount(column.m_Text, 1u << 20, entry.m_Index)))
						entry.m_Name = column.m_Text;
					else if (column.m_Kind != Token_Word)
					{
						_Error(column.m_Column, "expected a CSV column: a header name or a 1-based index");
						return false;
					}
					init.m_CsvColumns.push_back(entry);
				}
				if (init.m_CsvColumns.empty())
				{
					_Error(_Peek().m_Column, "csv() needs at least one column after the file name");
					return false;
				}
				return _Expect(')', "to close csv()") && _ExpectEnd();
			}

			void _Instruction()
			{
				const SToken &mnemonic = _Next();
				SInstruction instruction;
				instruction.m_Where = _At(mnemonic.m_Column);
				std::string name = mnemonic.m_Text;
				const std::size_t dot = name.find('.');
				if (dot != std::string::npos)
				{
					if (name.substr(dot) != ".generic")
					{
						_Error(mnemonic.m_Column, fmt::format("unknown suffix '{}' (only '.generic' exists)", name.substr(dot)));
						return;
					}
					instruction.m_Generic = true;
					name.resize(dot);
				}
				if (!SOp_MathOp::OperatorFromName(name.c_str(), instruction.m_Op))
				{
					_Error(mnemonic.m_Column, fmt::format("unknown operator '{}' (operators: {})", name, OperatorList()));
					return;
				}
				if (instruction.m_Generic && u32(instruction.m_Op) >= CMetaOp_MathOp::kSpecializedOpCount)
				{
					_Error(mnemonic.m_Column, fmt::format("'.generic' applies to add, sub, mul and div only; '{}' always uses the generic form", name));
					return;
				}
				std::vector<SOperand> operands;
				for (;;)
				{
					const SToken &token = _Next();
					if (token.m_Kind != Token_Word)
					{
						_Error(token.m_Column, fmt::format("expected a register, found {}", token.m_Kind == Token_End ? "end of line" : "'" + token.m_Text + "'"));
						return;
					}
					SOperand operand;
					operand.m_Text = token.m_Text;
					operand.m_Where = _At(token.m_Column);
					operands.push_back(operand);
					if (_Peek().m_Kind == Token_End)
						break;
					if (!_Expect(',', "between operands"))
						return;
				}
				const u32 expected = SOp_MathOp::OperatorTraits(instruction.m_Op).m_ParameterCount + 1u;
				if (operands.size() != expected)
				{
					_Error(mnemonic.m_Column, fmt::format("'{}' takes {} operands ({}), {} given", name, expected,
														  expected == 2 ? "destination, source" : "destination, source0, source1", operands.size()));
					return;
				}
				instruction.m_Dst = operands[0];
				instruction.m_SourceCount = expected - 1;
				for (u32 i = 0; i < instruction.m_SourceCount; ++i)
					instruction.m_Src[i] = operands[i + 1];
				m_Program.m_Instructions.push_back(std::move(instruction));
			}

			void _Resolve(SOperand &operand)
			{
				const auto named = m_Names.find(operand.m_Text);
				if (named != m_Names.end())
				{
					operand.m_Register = named->second;
					return;
				}
				m_Line = operand.m_Where.m_Line;
				u32 bits = 0;
				const std::size_t errorsBefore = m_Diagnostics.ErrorCount();
				if (!_ParseInline(operand.m_Text, operand.m_Where.m_Column, bits))
				{
					m_Diagnostics.Error(operand.m_Where, fmt::format("undeclared register '{}'", operand.m_Text));
					return;
				}
				if (m_Diagnostics.ErrorCount() != errorsBefore)
					return;
				operand.m_Register = m_Program.FindByBits(bits);
				if (operand.m_Register >= 0)
					return;
				SRegisterDecl decl;	// first use of an inline register declares it, zero-filled
				decl.m_Bits = bits;
				decl.m_Where = operand.m_Where;
				operand.m_Register = _Declare(std::move(decl));
			}

			SProgram &m_Program;
			CDiagnostics &m_Diagnostics;
			std::vector<SToken> m_Tokens;
			std::size_t m_Pos = 0;
			u32 m_Line = 0;
			std::map<std::string, s32> m_Names;
			std::map<u32, s32> m_Places;	// bits without the type -> register
		};
	}

	bool ParseProgram(const std::string &text, const std::string &fileName, SProgram &program, CDiagnostics &diagnostics)
	{
		*program.m_File = fileName;
		const std::size_t slash = fileName.find_last_of('/');
		program.m_Folder = slash == std::string::npos ? std::string(".") : fileName.substr(0, slash == 0 ? 1 : slash);
		const u32 errorsBefore = diagnostics.ErrorCount();
		CParser parser(program, diagnostics);
		std::size_t start = 0;
		u32 line = 1;
		while (start <= text.size() && !diagnostics.Saturated())
		{
			std::size_t end = text.find('\n', start);
			if (end == std::string::npos)
				end = text.size();
			parser.Line(line, std::string_view(text).substr(start, end - start));
			start = end + 1;
			++line;
		}
		parser.ResolveOperands();
		if (program.m_StreamWhere.m_Line == 0)
			diagnostics.Error(SLocation{program.m_File.get(), 1, 1}, "missing 'stream N' line (elements per stream)");
		return diagnostics.ErrorCount() == errorsBefore;
	}

	s32 SProgram::FindByBits(u32 bits) const
	{
		for (std::size_t i = 0; i < m_Registers.size(); ++i)
			if (m_Registers[i].m_Bits == bits)
				return s32(i);
		return -1;
	}

	s32 SProgram::FindByName(const std::string &name) const
	{
		for (std::size_t i = 0; i < m_Registers.size(); ++i)
			if (!name.empty() && m_Registers[i].m_Name == name)
				return s32(i);
		return -1;
	}

	std::string SProgram::RegisterText(s32 index) const
	{
		if (index < 0 || std::size_t(index) >= m_Registers.size())
			return "-";
		const SRegisterDecl &decl = m_Registers[std::size_t(index)];
		return decl.m_Name.empty() ? InlineRegisterText(decl.m_Bits) : decl.m_Name;
	}

	std::string InlineRegisterText(u32 bits)
	{
		if (bits == 0xFFFFFFFFu)
			return "-";
		const char *type = BaseTypeName(RawType(bits));
		if (!IsPlainRegister(bits) || type[0] == '?')
			return fmt::format("{:#010x}", bits);
		return fmt::format("{}.{}:{}", Compiler::MetaTypeName(RawBank(bits)), RawSlot(bits), type);
	}
}
