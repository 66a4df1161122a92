// Text -> SProgram: one line at a time, then a second pass that resolves the operands
// that name no register declared before them (so declarations may follow their use,
// and inline registers never take the place of a named one). Each pass is linear in
// the text, with hashed register lookups.

#include "cbvm_math_op_decoder.h"
#include "cbvm_meta_ops.h"
#include "line_lexer.h"
#include "literal_operand.h"
#include "numbers.h"
#include "program.h"

#include <fmt/format.h>

#include <algorithm>
#include <cctype>
#include <cmath>
#include <unordered_set>

namespace OxVm
{
	using Compiler::IR::SOp_MathOp;

	namespace
	{
		constexpr u32 kMaxSlot = Compiler::IR::CRegID::RegisterSlotMask;

		// Bank and slot of register bits, the type masked off: two registers may not share them.
		u32 PlaceOf(u32 bits)
		{
			return bits & ~(u32(Compiler::IR::CRegID::RegisterTypeMask) << Compiler::IR::CRegID::RegisterTypeShift);
		}

		bool IsIdentifier(std::string_view text)
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
				CLineLexer lexer(text);
				m_Lexer = &lexer;
				if (lexer.Error() != nullptr)
					_Error(lexer.ErrorColumn(), lexer.Error());
				else
				{
					const SToken &first = _Peek();
					if (first.m_Kind == Token_End)
						;
					else if (first.m_Kind != Token_Word)
						_Error(first.m_Column, fmt::format("expected 'stream', 'reg' or an operator, found {}", Shown(first.m_Text)));
					else if (first.m_Text == "stream")
						_Stream();
					else if (first.m_Text == "reg")
						_Register(lexer.Code());
					else
						_Instruction();
				}
				m_Lexer = nullptr;
			}

			// Second pass: the operands left unresolved by the first, in program order. 'text'
			// is the program again: the operand's word is read back at its line and column.
			void ResolveOperands(const std::string &text)
			{
				std::size_t lineStart = 0;
				u32 line = 1;
				for (SInstruction &instruction : m_Program.m_Instructions)
				{
					SOperand *operands[3] = {&instruction.m_Dst, &instruction.m_Src[0], &instruction.m_Src[1]};
					for (u32 i = 0; i < 1u + instruction.m_SourceCount; ++i)
					{
						if (operands[i]->m_Register != kUnresolved)
							continue;
						for (; line < instruction.m_Line; ++line)
							lineStart = text.find('\n', lineStart) + 1;
						const std::size_t lineEnd = std::min(text.find('\n', lineStart), text.size());
						_Resolve(instruction, *operands[i], WordAt(std::string_view(text).substr(lineStart, lineEnd - lineStart), operands[i]->m_Column));
					}
				}
			}

		private:
			// An operand whose word names no register declared before it: ResolveOperands.
			static constexpr s32 kUnresolved = -2;

			SLocation _At(u32 column) const { return SLocation{m_Program.m_File.get(), m_Line, column}; }
			void _Error(u32 column, const std::string &message) { m_Diagnostics.Error(_At(column), message); }
			const SToken &_Peek() const { return m_Lexer->Peek(); }
			SToken _Next() { return m_Lexer->Next(); }
			bool _IsPunct(char c) const { return _Peek().m_Kind == Token_Punct && _Peek().m_Text[0] == c; }

			// A token as messages name it: 'text', or "end of line".
			static std::string _Found(const SToken &token) { return token.m_Kind == Token_End ? std::string("end of line") : Shown(token.m_Text); }

			// Expects the punctuation 'c'; reports and returns false otherwise.
			bool _Expect(char c, const char *what)
			{
				if (_IsPunct(c))
				{
					_Next();
					return true;
				}
				_Error(_Peek().m_Column, fmt::format("expected '{}' {}, found {}", c, what, _Found(_Peek())));
				return false;
			}

			bool _ExpectEnd()
			{
				const SToken &token = _Peek();
				if (token.m_Kind == Token_End)
					return true;
				_Error(token.m_Column, fmt::format("unexpected {} at the end of the line", Shown(token.m_Text)));
				return false;
			}

			void _Stream()
			{
				const SToken keyword = _Next();
				const SToken count = _Next();
				if (m_Program.m_Stream != 0 || m_Program.m_StreamWhere.m_Line != 0)
				{
					_Error(keyword.m_Column, fmt::format("duplicate 'stream' line (first at line {})", m_Program.m_StreamWhere.m_Line));
					return;
				}
				m_Program.m_StreamWhere = _At(keyword.m_Column);
				if (count.m_Kind != Token_Word || count.m_Text == "0" || !ParseCount(count.m_Text, kMaxElements, m_Program.m_Stream))
				{
					_Error(count.m_Column, fmt::format("stream size must be a whole number from 1 to {}, found {}", kMaxElements,
													   count.m_Kind == Token_End ? std::string("nothing") : Shown(count.m_Text)));
					return;
				}
				_ExpectEnd();
			}

			// bank.slot:type; false when 'text' does not have that form.
			bool _ParseInline(std::string_view text, u32 column, u32 &bits)
			{
				const std::size_t dot = text.find('.');
				const std::size_t colon = text.find(':');
				if (dot == std::string::npos || colon == std::string::npos || colon < dot)
					return false;
				Compiler::EMetaType bank;
				if (!FindBank(text.substr(0, dot), bank))
				{
					_Error(column, fmt::format("unknown bank {} in {} (banks: constant normal instance stream)", Shown(text.substr(0, dot)), Shown(text)));
					return true;
				}
				u32 slot = 0;
				const std::string_view slotText = text.substr(dot + 1, colon - dot - 1);
				if (slotText != "0" && !ParseCount(slotText, kMaxSlot, slot))
				{
					_Error(column, fmt::format("bad slot {} in {}: a whole number from 0 to {}", Shown(slotText), Shown(text), kMaxSlot));
					return true;
				}
				EBaseTypeID type;
				if (!_ParseType(text.substr(colon + 1), column, type))
					return true;
				bits = u32(Compiler::IR::CRegID::Build(slot, bank, type).m_RawBits);
				return true;
			}

			bool _ParseType(std::string_view name, u32 column, EBaseTypeID &type)
			{
				if (!FindType(name, type))
				{
					_Error(column, fmt::format("unknown type {}", Shown(name)));
					return false;
				}
				if (!HasKernel(type))
				{
					_Error(column, fmt::format("type {} has no math kernel (float float2 float3 float4 quaternion i32 int2 int3 int4 bool bool2 bool3 bool4)", Shown(name)));
					return false;
				}
				return true;
			}

			// Adds a declaration unless its name or its (bank, slot) is taken; returns its index or -1.
			s32 _Declare(SRegisterDecl decl)
			{
				const s32 named = decl.m_Name.empty() ? -1 : m_Program.FindByName(decl.m_Name);
				if (named >= 0)
				{
					m_Diagnostics.Error(decl.m_Where, fmt::format("register '{}' is already declared at line {}", decl.m_Name, m_Program.m_Registers[std::size_t(named)].m_Where.m_Line));
					return -1;
				}
				const s32 placed = m_Program.FindByPlace(decl.m_Bits);
				if (placed >= 0)
				{
					const SRegisterDecl &other = m_Program.m_Registers[std::size_t(placed)];
					m_Diagnostics.Error(decl.m_Where, fmt::format("{}.{} is already declared as '{}' ({}) at line {}", Compiler::MetaTypeName(decl.Bank()), decl.Slot(),
																  m_Program.RegisterText(placed), BaseTypeName(other.Type()), other.m_Where.m_Line));
					return -1;
				}
				return m_Program.Add(std::move(decl));
			}

			void _Register(std::string_view code)
			{
				_Next();	// reg
				const SToken name = _Next();
				if (name.m_Kind != Token_Word || !IsIdentifier(name.m_Text))
				{
					_Error(name.m_Column, fmt::format("expected a register name (letters, digits, '_'), found {}", _Found(name)));
					return;
				}
				SRegisterDecl decl;
				decl.m_Name = std::string(name.m_Text);
				decl.m_Where = _At(name.m_Column);
				// A declaration is reported once: the instructions that use a register whose
				// declaration failed say nothing more of it.
				if (!_DeclarationBody(decl) || _Declare(std::move(decl)) < 0)
					m_FailedNames.emplace(name.m_Text);
				else
					m_Program.m_Registers.back().m_Text = std::string(code);
			}

			// The declaration after its name: bank slot type [count] [= initialiser].
			bool _DeclarationBody(SRegisterDecl &decl)
			{
				const SToken bankToken = _Next();
				Compiler::EMetaType bank;
				if (!FindBank(bankToken.m_Text, bank))
				{
					_Error(bankToken.m_Column, fmt::format("expected a bank (constant normal instance stream), found {}", _Found(bankToken)));
					return false;
				}
				const SToken slotToken = _Next();
				u32 slot = 0;
				if (slotToken.m_Text != "0" && !ParseCount(slotToken.m_Text, kMaxSlot, slot))
				{
					_Error(slotToken.m_Column, fmt::format("expected a slot from 0 to {}, found {}", kMaxSlot, _Found(slotToken)));
					return false;
				}
				const SToken typeToken = _Next();
				EBaseTypeID type;
				if (!_ParseType(typeToken.m_Text, typeToken.m_Column, type))
					return false;
				decl.m_Bits = u32(Compiler::IR::CRegID::Build(slot, bank, type).m_RawBits);
				if (_IsPunct('['))
				{
					_Next();
					const SToken count = _Next();
					if (!ParseCount(count.m_Text, kMaxElements, decl.m_DeclaredCount))
					{
						_Error(count.m_Column, fmt::format("element count must be a whole number from 1 to {}, found {}", kMaxElements, _Found(count)));
						return false;
					}
					if (!_Expect(']', "after the element count"))
						return false;
				}
				if (!_IsPunct('='))
					return _ExpectEnd();
				_Next();
				decl.m_Init = std::make_unique<SInitialiser>();
				return _Initialiser(*decl.m_Init, TypeInfo(type));
			}

			// Two numbers in parentheses, as ramp() and random() take them. Float arguments
			// follow the rule of float values (ParseFloatArgument).
			bool _TwoArgs(SInitialiser &init, const STypeInfo &type, const std::string &what)
			{
				if (!_Expect('(', ("after " + what).c_str()))
					return false;
				for (u32 i = 0; i < 2; ++i)
				{
					if (i == 1 && !_Expect(',', ("between the arguments of " + what).c_str()))
						return false;
					const SToken arg = _Next();
					std::string error;
					const bool ok = arg.m_Kind == Token_Word && (type.m_Kind == ElementKind_Float ? ParseFloatArgument(arg.m_Text, init.m_FloatArgs[i], error) : ParseInt64(arg.m_Text, init.m_IntArgs[i]));
					if (!ok)
					{
						_Error(arg.m_Column, !error.empty() ? fmt::format("{} in {}", error, what)
															: fmt::format("malformed number {} in {} (a {})", _Found(arg), what, type.m_Kind == ElementKind_Float ? "decimal number" : "64-bit integer"));
						return false;
					}
				}
				return _Expect(')', ("to close " + what).c_str()) && _ExpectEnd();
			}

			bool _Initialiser(SInitialiser &init, const STypeInfo &type)
			{
				const SToken &first = _Peek();
				init.m_Where = _At(first.m_Column);
				const bool call = first.m_Kind == Token_Word && _PeekSecondIsOpen();
				if (call && (first.m_Text == "ramp" || first.m_Text == "random"))
				{
					init.m_Kind = first.m_Text == "ramp" ? Init_Ramp : Init_Random;
					const std::string what = std::string(first.m_Text) + "()";
					_Next();
					if (!_TwoArgs(init, type, what))
						return false;
					if (init.m_Kind == Init_Random && type.m_Kind == ElementKind_Float && !(std::isfinite(init.m_FloatArgs[0]) && std::isfinite(init.m_FloatArgs[1])))
					{
						m_Diagnostics.Error(init.m_Where, "random(lo, hi) needs finite bounds");
						return false;
					}
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
				if (call && first.m_Text == "csv")
					return _Csv(init);
				init.m_Kind = Init_Literal;
				for (;;)
				{
					const SToken value = _Next();
					std::string error;
					u32 word = 0;
					if (value.m_Kind != Token_Word)
					{
						_Error(value.m_Column, fmt::format("expected a value, found {}", _Found(value)));
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
				init.m_Words.shrink_to_fit();
				return true;
			}

			bool _PeekSecondIsOpen()
			{
				const SToken &second = m_Lexer->PeekSecond();
				return second.m_Kind == Token_Punct && second.m_Text == "(";
			}

			// csv("file", column, ...)
			bool _Csv(SInitialiser &init)
			{
				init.m_Kind = Init_Csv;
				_Next();	// csv
				_Next();	// (
				const SToken path = _Next();
				if (path.m_Kind != Token_String || path.m_Text.empty())
				{
					_Error(path.m_Column, "csv() needs a file name in double quotes first");
					return false;
				}
				init.m_CsvPath = Unescape(path.m_Text);
				while (_IsPunct(','))
				{
					_Next();
					const SToken column = _Next();
					SCsvColumn entry;
					entry.m_Where = _At(column.m_Column);
					if (column.m_Kind == Token_String || (column.m_Kind == Token_Word && !ParseCount(column.m_Text, 1u << 20, entry.m_Index)))
						entry.m_Name = column.m_Kind == Token_String ? Unescape(column.m_Text) : std::string(column.m_Text);
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
				const SToken mnemonic = _Next();
				SInstruction instruction;
				instruction.m_Line = m_Line;
				instruction.m_Column = mnemonic.m_Column;
				std::string_view name = mnemonic.m_Text;
				const std::size_t dot = name.find('.');
				if (dot != std::string::npos)
				{
					if (name.substr(dot) != ".generic")
					{
						_Error(mnemonic.m_Column, fmt::format("unknown suffix {} (only '.generic' exists)", Shown(name.substr(dot))));
						return;
					}
					instruction.m_Generic = true;
					name = name.substr(0, dot);
				}
				if (!SOp_MathOp::OperatorFromName(std::string(name).c_str(), instruction.m_Op))
				{
					_Error(mnemonic.m_Column, fmt::format("unknown operator {} (operators: {})", Shown(name), OperatorList()));
					return;
				}
				if (instruction.m_Generic && u32(instruction.m_Op) >= CMetaOp_MathOp::kSpecializedOpCount)
				{
					_Error(mnemonic.m_Column, fmt::format("'.generic' applies to add, sub, mul and div only; '{}' always uses the generic form", name));
					return;
				}
				const u32 expected = SOp_MathOp::OperatorTraits(instruction.m_Op).m_ParameterCount + 1u;
				SOperand *operands[3] = {&instruction.m_Dst, &instruction.m_Src[0], &instruction.m_Src[1]};
				u32 given = 0;
				for (;;)
				{
					const SToken token = _Next();
					if (token.m_Kind != Token_Word)
					{
						_Error(token.m_Column, fmt::format("expected a register, found {}", _Found(token)));
						return;
					}
					if (given < expected)
					{
						// A register declared above resolves now; any other word waits for the second pass.
						const s32 named = m_Program.FindByName(token.m_Text);
						*operands[given] = SOperand{named >= 0 ? named : kUnresolved, token.m_Column};
					}
					++given;
					if (_Peek().m_Kind == Token_End)
						break;
					if (!_Expect(',', "between operands"))
						return;
				}
				if (given != expected)
				{
					_Error(mnemonic.m_Column, fmt::format("'{}' takes {} operands ({}), {} given", name, expected,
														  expected == 2 ? "destination, source" : "destination, source0, source1", given));
					return;
				}
				instruction.m_SourceCount = u8(expected - 1);
				m_Program.m_Instructions.push_back(instruction);
			}

			void _Resolve(const SInstruction &instruction, SOperand &operand, std::string_view word)
			{
				// (A name has no '.': an inline register needs no name lookup.)
				const bool name = word.find('.') == std::string_view::npos;
				operand.m_Register = name ? m_Program.FindByName(word) : -1;
				if (operand.m_Register >= 0 || (name && m_FailedNames.count(word) != 0))
					return;	// a failed declaration was reported at its line
				m_Line = instruction.m_Line;
				u32 bits = 0;
				const std::size_t errorsBefore = m_Diagnostics.ErrorCount();
				if (!_ParseInline(word, operand.m_Column, bits))
				{
					const std::string literal = LiteralOperandMessage(word, m_Program, _OperandType(instruction));
					m_Diagnostics.Error(m_Program.At(instruction, operand), literal.empty() ? fmt::format("undeclared register {}", Shown(word)) : literal);
					return;
				}
				if (m_Diagnostics.ErrorCount() != errorsBefore)
					return;
				operand.m_Register = m_Program.FindByBits(bits);
				if (operand.m_Register >= 0)
					return;
				SRegisterDecl decl;	// first use of an inline register declares it, zero-filled
				decl.m_Bits = bits;
				decl.m_Where = m_Program.At(instruction, operand);
				operand.m_Register = _Declare(std::move(decl));
			}

			// The type an instruction's operands have, from those resolved so far (a
			// comparison's destination is a mask: only its sources say); Void when none is.
			EBaseTypeID _OperandType(const SInstruction &instruction) const
			{
				const bool comparison = std::string_view(SOp_MathOp::OperatorTraits(instruction.m_Op).m_Name).compare(0, 3, "cmp") == 0;
				for (u32 i = 0; i < instruction.m_SourceCount; ++i)
					if (instruction.m_Src[i].m_Register >= 0)
						return m_Program.m_Registers[std::size_t(instruction.m_Src[i].m_Register)].Type();
				return instruction.m_Dst.m_Register >= 0 && !comparison ? m_Program.m_Registers[std::size_t(instruction.m_Dst.m_Register)].Type() : BaseType_Void;
			}

			SProgram &m_Program;
			CDiagnostics &m_Diagnostics;
			CLineLexer *m_Lexer = nullptr;	// the line being parsed
			u32 m_Line = 0;
			std::unordered_set<std::string_view> m_FailedNames;	// views of the program text
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
		parser.ResolveOperands(text);
		return diagnostics.ErrorCount() == errorsBefore;
	}

	s32 SProgram::FindByBits(u32 bits) const
	{
		const auto found = m_ByPlace.find(PlaceOf(bits));
		return found != m_ByPlace.end() && found->second.first == bits ? found->second.second : -1;
	}

	s32 SProgram::FindByPlace(u32 bits) const
	{
		const auto found = m_ByPlace.find(PlaceOf(bits));
		return found != m_ByPlace.end() ? found->second.second : -1;
	}

	s32 SProgram::FindByName(std::string_view name) const
	{
		const auto found = name.empty() ? m_ByName.end() : m_ByName.find(name);
		return found != m_ByName.end() ? found->second : -1;
	}

	s32 SProgram::Add(SRegisterDecl decl)
	{
		const s32 index = s32(m_Registers.size());
		m_Registers.push_back(std::move(decl));
		const SRegisterDecl &added = m_Registers.back();
		if (!added.m_Name.empty())
			m_ByName.emplace(added.m_Name, index);
		m_ByPlace.emplace(PlaceOf(added.m_Bits), std::make_pair(added.m_Bits, index));
		return index;
	}

	const SInitialiser &SRegisterDecl::Init() const
	{
		static const SInitialiser kZero;
		return m_Init != nullptr ? *m_Init : kZero;
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
		return CBVM::SRegisterIdText(bits, CBVM::RegisterIdText_Exact).m_Text;
	}
}
