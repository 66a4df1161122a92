#include "assembler.h"

#include "assert_scope.h"
#include "cbvm_math_op_decoder.h"
#include "cbvm_meta_ops.h"

#include <fmt/format.h>

#include <algorithm>

namespace OxVm
{
	using Compiler::IR::CRegID;
	using Compiler::IR::SOp_MathOp;

	namespace
	{
		CRegID IrRegister(const SProgram &program, const SOperand &operand)
		{
			return operand.m_Register < 0 ? CRegID() : CRegID(u64(program.m_Registers[std::size_t(operand.m_Register)].m_Bits));
		}

		std::string RegisterName(const CRegID &reg, const SProgram *program)
		{
			const u32 bits = reg.Valid() ? u32(reg.m_RawBits) : 0xFFFFFFFFu;
			const s32 index = program != nullptr && reg.Valid() ? program->FindByBits(bits) : -1;
			return index >= 0 ? program->RegisterText(index) : InlineRegisterText(bits);
		}

		// Why the instruction at 'offset' cannot be read back; empty when it can. An unknown
		// operator stops the tool too: it has no mnemonic.
		std::string DecodeProblem(const u8 *bytecode, u32 size, u32 offset, CBVM::SMathOpInstruction &instruction)
		{
			const CBVM::EMathOpDecode problem = CBVM::DecodeMathOp(bytecode, size, offset, instruction);
			char text[160];
			CBVM::FormatMathOpDecodeProblem(problem, instruction, size, text, sizeof(text));
			return text;
		}
	}

	u32 EncodeInstruction(const SProgram &program, const SInstruction &instruction, u8 *out)
	{
		SOp_MathOp::SDesc desc;
		desc.m_Op = instruction.m_Op;
		desc.m_DstReg = IrRegister(program, instruction.m_Dst);
		desc.m_SrcReg0 = IrRegister(program, instruction.m_Src[0]);
		desc.m_SrcReg1 = instruction.m_SourceCount > 1 ? IrRegister(program, instruction.m_Src[1]) : CRegID();
		u8 encoded[CMetaOp_MathOp::IP_Offset];
		const u32 size = CMetaOp_MathOp::EncodeDescToBytecode(encoded, desc);
		if (!(instruction.m_Generic && size == CMetaOp_MathOp::kSpecializedSize))
		{
			std::copy(encoded, encoded + size, out);
			return size;
		}
		// The generic form of add .. div: opcode 113, the operator byte, then the same registers.
		out[0] = CBVM::Opcode_MathOp;
		out[1] = u8(instruction.m_Op);
		std::copy(encoded + CMetaOp_MathOp::kSpecializedRegistersOffset, encoded + size, out + 2);
		return CMetaOp_MathOp::kGenericSize;
	}

	std::vector<u8> Assemble(const SProgram &program)
	{
		// Sized once: a program of millions of instructions never holds two copies.
		std::size_t size = 0;
		for (const SInstruction &instruction : program.m_Instructions)
			size += instruction.m_Generic ? CMetaOp_MathOp::kGenericSize : CMetaOp_MathOp::EncodingSize(instruction.m_Op);
		std::vector<u8> bytecode(size);
		std::size_t at = 0;
		for (const SInstruction &instruction : program.m_Instructions)
			at += EncodeInstruction(program, instruction, bytecode.data() + at);
		return bytecode;
	}

	bool AssemblesTo(const SProgram &program, const u8 *bytes, u32 size)
	{
		u32 at = 0;
		for (const SInstruction &instruction : program.m_Instructions)
		{
			u8 encoded[kMaxInstructionBytes];
			const u32 length = EncodeInstruction(program, instruction, encoded);
			if (size - at < length || !std::equal(encoded, encoded + length, bytes + at))
				return false;
			at += length;
		}
		return at == size;
	}

	std::string DisassembleOne(const u8 *bytecode, u32 offset, const SProgram *program, u32 index)
	{
		SOp_MathOp::SDesc desc;
		CBVM::SOpcodeDisasReport report;
		report.m_BytecodeOffset = offset;
		u32 size = 0;
		{
			CSilentAsserts silent;
			size = CMetaOp_MathOp::DecodeBytecodeToDesc(bytecode, desc, report);
		}
		const SOp_MathOp::STraits &traits = SOp_MathOp::OperatorTraits(desc.m_Op);
		std::string mnemonic = traits.m_Name;
		if (report.m_Opcode == CBVM::Opcode_MathOp && u32(desc.m_Op) < CMetaOp_MathOp::kSpecializedOpCount)
			mnemonic += ".generic";
		const SInstruction *source = program != nullptr && index < program->m_Instructions.size() ? &program->m_Instructions[index] : nullptr;
		auto name = [&](const CRegID &reg, const SOperand &operand) { return source != nullptr ? program->RegisterText(operand.m_Register) : RegisterName(reg, program); };
		std::string operands = name(desc.m_DstReg, source ? source->m_Dst : SOperand{}) + ", " + name(desc.m_SrcReg0, source ? source->m_Src[0] : SOperand{});
		if (desc.m_SrcReg1.Valid() || traits.m_ParameterCount > 1)
			operands += ", " + name(desc.m_SrcReg1, source ? source->m_Src[1] : SOperand{});
		// (By hand: a listing has millions of these bytes, a format call each costs seconds.)
		static const char kHex[] = "0123456789abcdef";
		std::string raw;
		raw.reserve(3 * size);
		for (u32 i = 0; i < size; ++i)
		{
			if (i != 0)
				raw += ' ';
			raw += kHex[bytecode[i] >> 4];
			raw += kHex[bytecode[i] & 15];
		}
		return fmt::format("{:<12} {:<44} ; {:06} | {:<41} | {:<9} | {:2} bytes | dst {}", mnemonic, operands, report.m_BytecodeOffset, raw,
						   CBVM::OpcodeName(report.m_Opcode), report.m_InstructionSize, Compiler::MetaTypeName(report.m_MetaType));
	}

	std::string FirstInstructionProblem(const u8 *bytecode, u32 size)
	{
		CBVM::SMathOpInstruction decoded;
		return DecodeProblem(bytecode, size, 0, decoded);
	}

	SDisassembly Disassemble(const u8 *bytecode, u32 size, const SProgram *program)
	{
		std::string text;
		SDisassembly out = Disassemble(bytecode, size, program, [&text](std::string_view piece, u32, u32) { text.append(piece); });
		out.m_Text = std::move(text);
		return out;
	}

	SDisassembly Disassemble(const u8 *bytecode, u32 size, const SProgram *program, const FnListingSink &sink, u32 stream)
	{
		SDisassembly out;
		std::string text;
		if (program != nullptr)
		{
			text += fmt::format("stream {}\n", program->m_Stream);
			for (const SRegisterDecl &decl : program->m_Registers)
				if (!decl.m_Name.empty())
					text += decl.m_Text + "\n";
		}
		else if (stream != 0)
			text += fmt::format("stream {}\n", stream);
		else
			text += "stream 16    ; bytecode carries no stream size: set the one to run with\n";
		text += "\n";
		sink(text, 0, 0);
		text.clear();
		u32 offset = 0, pieceStart = 0, lines = 0;
		while (offset < size)
		{
			CBVM::SMathOpInstruction decoded;
			const std::string problem = DecodeProblem(bytecode, size, offset, decoded);
			if (!problem.empty())
			{
				out.m_Ok = false;
				out.m_ErrorOffset = offset;
				out.m_Error = problem;
				break;
			}
			text += DisassembleOne(bytecode + offset, offset, program, out.m_Instructions) + "\n";
			offset = decoded.End();
			++out.m_Instructions;
			if (++lines == kListingPiece)
			{
				sink(text, pieceStart, offset);
				text.clear();
				pieceStart = offset;
				lines = 0;
			}
		}
		if (lines != 0)
			sink(text, pieceStart, offset);
		return out;
	}

	bool ProgramFromBytecode(const u8 *bytecode, u32 size, const std::string &name, SProgram &program, std::string &error)
	{
		*program.m_File = name;
		program.m_Folder = ".";
		program.m_FromBytecode = true;
		u32 line = 3;	// after the listing's stream line and blank line
		for (u32 offset = 0; offset < size; ++line)
		{
			CBVM::SMathOpInstruction decoded;
			error = DecodeProblem(bytecode, size, offset, decoded);
			if (!error.empty())
			{
				error = fmt::format("offset {}: {}", offset, error);
				return false;
			}
			SInstruction instruction;
			instruction.m_Op = decoded.m_Op;
			instruction.m_Generic = decoded.Generic() && u32(decoded.m_Op) < CMetaOp_MathOp::kSpecializedOpCount;
			instruction.m_Line = line;
			instruction.m_Column = 1;
			instruction.m_SourceCount = u8(SOp_MathOp::OperatorTraits(decoded.m_Op).m_ParameterCount);
			SOperand *operands[CBVM::__MaxMathOpOperands] = {&instruction.m_Dst, &instruction.m_Src[0], &instruction.m_Src[1]};
			for (u32 i = 0; i < 1u + instruction.m_SourceCount; ++i)
			{
				const u32 bits = decoded.m_Ids[i];
				s32 index = program.FindByBits(bits);
				if (index < 0)
				{
					const s32 placed = program.FindByPlace(bits);
					if (!CBVM::IsPlainRegisterId(bits) || !HasKernel(RawType(bits)) || placed >= 0)
					{
						error = fmt::format("offset {}: register {} {}", offset, InlineRegisterText(bits),
											placed >= 0 ? fmt::format("shares its place with {} of another type", program.RegisterText(placed)) : std::string("cannot be named in a program"));
						return false;
					}
					SRegisterDecl decl;
					decl.m_Bits = bits;
					decl.m_Where = program.Where(instruction);
					index = program.Add(std::move(decl));
				}
				*operands[i] = SOperand{index, 0};
			}
			program.m_Instructions.push_back(instruction);
			offset = decoded.End();
		}
		return true;
	}
}
