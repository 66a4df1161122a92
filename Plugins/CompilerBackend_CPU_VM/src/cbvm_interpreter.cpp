#include "cbvm_interpreter.h"

#include "cbvm_registers.h"

#include <cstdio>

namespace Orvex
{
	namespace CBVM
	{
		namespace
		{
			// One table per path, indexed by the opcode byte: every byte has an entry.
			struct SEntryTable
			{
				SEntry m_Entries[256];
			};

			// The five math-op entries of one path, in opcode order 113 .. 117.
			constexpr SEntryTable _BuildTable(FnExecBytecode generic, FnExecBytecode add, FnExecBytecode sub, FnExecBytecode mul, FnExecBytecode div)
			{
				SEntryTable table = {};
				table.m_Entries[Opcode_MathOp] = {generic, CMetaOp_MathOp::kGenericSize};
				table.m_Entries[Opcode_MathOpAdd] = {add, CMetaOp_MathOp::kSpecializedSize};
				table.m_Entries[Opcode_MathOpSub] = {sub, CMetaOp_MathOp::kSpecializedSize};
				table.m_Entries[Opcode_MathOpMul] = {mul, CMetaOp_MathOp::kSpecializedSize};
				table.m_Entries[Opcode_MathOpDiv] = {div, CMetaOp_MathOp::kSpecializedSize};
				return table;
			}

			constexpr SEntryTable kStandardTable = _BuildTable(&CMetaOp_MathOp::_ExecBytecode, &CMetaOp_MathOp::_ExecBytecode_Add, &CMetaOp_MathOp::_ExecBytecode_Sub,
															   &CMetaOp_MathOp::_ExecBytecode_Mul, &CMetaOp_MathOp::_ExecBytecode_Div);
			constexpr SEntryTable kLowTable = _BuildTable(&CMetaOp_MathOp::_ExecBytecode_Low, &CMetaOp_MathOp::_ExecBytecode_Add_Low, &CMetaOp_MathOp::_ExecBytecode_Sub_Low,
														  &CMetaOp_MathOp::_ExecBytecode_Mul_Low, &CMetaOp_MathOp::_ExecBytecode_Div_Low);
			constexpr SEntry kNoEntry = {nullptr, 0};

			const SEntryTable *const kTables[__MaxExecPaths] = {&kStandardTable, &kLowTable};
		}

		const char *ExecPathName(EExecPath path)
		{
			static constexpr const char *kNames[__MaxExecPaths] = {"standard", "low"};
			return u32(path) < __MaxExecPaths ? kNames[path] : "?";
		}

		const SEntry &CInterpreter::Entry(EExecPath path, u8 opcode)
		{
			return u32(path) < __MaxExecPaths ? kTables[path]->m_Entries[opcode] : kNoEntry;
		}

		SRunResult CInterpreter::Run(const CBytecodeExecContext &context, const u8 *bytecode, u32 size, EExecPath path)
		{
			SRunResult result;
			if (u32(path) >= __MaxExecPaths)
			{
				result.m_Status = RunStatus_BadPath;
				return result;
			}
			const SEntryTable &table = *kTables[path];
			u32 offset = 0;
			while (offset < size)
			{
				const u8 opcode = bytecode[offset];
				const SEntry &entry = table.m_Entries[opcode];
				result.m_Offset = offset;
				result.m_Opcode = opcode;
				if (entry.m_Exec == nullptr)
				{
					result.m_Status = RunStatus_UnknownOpcode;
					return result;
				}
				if (entry.m_Size > size - offset)
				{
					result.m_Status = RunStatus_Truncated;
					return result;
				}
				context.m_Registers.m_InstructionPointer = offset;
				offset += entry.m_Exec(context, bytecode + offset);
				++result.m_Executed;
			}
			result.m_Offset = offset;
			result.m_Opcode = 0;
			return result;
		}

		u32 CInterpreter::FormatError(const SRunResult &result, char *buffer, u32 bufferSize)
		{
			int length = 0;
			switch (result.m_Status)
			{
			case RunStatus_Ok:
				length = std::snprintf(buffer, bufferSize, "ok: %u instructions, %u bytes", result.m_Executed, result.m_Offset);
				break;
			case RunStatus_UnknownOpcode:
				length = std::snprintf(buffer, bufferSize, "unknown opcode %u at offset %u", result.m_Opcode, result.m_Offset);
				break;
			case RunStatus_Truncated:
				length = std::snprintf(buffer, bufferSize, "truncated instruction: opcode %u at offset %u runs past the end of the bytecode", result.m_Opcode, result.m_Offset);
				break;
			default:
				length = std::snprintf(buffer, bufferSize, "no such execution path");
				break;
			}
			return length < 0 ? 0 : (u32(length) < bufferSize ? u32(length) : (bufferSize > 0 ? bufferSize - 1 : 0));
		}
	}
}
