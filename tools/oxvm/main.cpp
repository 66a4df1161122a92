// oxvm: command-line front end of the math-operator meta-op.
//
//   oxvm demo    encode a small particle-step program, decode it back and print its
//                disassembly; exits non-zero if decoding does not give back exactly
//                what was encoded.

#include "cbvm_meta_ops.h"
#include "kr_assert.h"

#include <cstdio>
#include <cstring>
#include <string>
#include <vector>

using namespace Orvex;
using Compiler::IR::CRegID;
using Compiler::IR::SOp_MathOp;

namespace
{
	const char kUsage[] =
		"usage: oxvm <command>\n"
		"\n"
		"commands:\n"
		"  demo     encode a small particle-step program with the math-op encoder,\n"
		"           decode every instruction back and print its disassembly:\n"
		"           offset, raw bytes, opcode, size, destination bank, operator and\n"
		"           registers. Fails (exit 1) if a decoded instruction differs from\n"
		"           what was encoded, or if any assertion is reported.\n"
		"  help     print this text (also -h, --help)\n";

	struct SNamedRegister
	{
		const char *m_Name;
		CRegID m_Reg;
	};

	const SNamedRegister kRegisters[] = {
		{"pos", CRegID::Build(0, Compiler::MetaType_Stream, BaseType_Float3)},
		{"vel", CRegID::Build(1, Compiler::MetaType_Stream, BaseType_Float3)},
		{"tmp", CRegID::Build(2, Compiler::MetaType_Stream, BaseType_Float3)},
		{"gravity", CRegID::Build(3, Compiler::MetaType_Constant, BaseType_Float3)},
		{"dt", CRegID::Build(4, Compiler::MetaType_Constant, BaseType_Float3)},
		{"age", CRegID::Build(5, Compiler::MetaType_Stream, BaseType_I32)},
		{"one", CRegID::Build(6, Compiler::MetaType_Constant, BaseType_I32)},
		{"maxAge", CRegID::Build(7, Compiler::MetaType_Constant, BaseType_I32)},
		{"dead", CRegID::Build(8, Compiler::MetaType_Stream, BaseType_I32)},
		{"bucket", CRegID::Build(9, Compiler::MetaType_Stream, BaseType_I32)},
		{"shift", CRegID::Build(10, Compiler::MetaType_Constant, BaseType_I32)},
	};

	std::string RegisterText(const CRegID &reg)
	{
		if (!reg.Valid())
			return "-";
		for (const SNamedRegister &named : kRegisters)
			if (named.m_Reg == reg)
				return named.m_Name;
		char text[64];
		std::snprintf(text, sizeof(text), "%s.%u:%s", Compiler::MetaTypeName(reg.ToBank()), reg.ToSlot(), BaseTypeName(reg.ToType()));
		return text;
	}

	SOp_MathOp::SDesc Instr(SOp_MathOp::EOp op, const char *dst, const char *src0, const char *src1)
	{
		auto find = [](const char *name) {
			for (const SNamedRegister &named : kRegisters)
				if (name != nullptr && std::strcmp(named.m_Name, name) == 0)
					return named.m_Reg;
			return CRegID();
		};
		SOp_MathOp::SDesc desc;
		desc.m_Op = op;
		desc.m_DstReg = find(dst);
		desc.m_SrcReg0 = find(src0);
		desc.m_SrcReg1 = find(src1);
		return desc;
	}

	int RunDemo()
	{
		const u64 reportsBefore = Assert::ReportCount();
		const SOp_MathOp::SDesc program[] = {
			Instr(SOp_MathOp::Op_Mul, "tmp", "gravity", "dt"),	// tmp = g * dt
			Instr(SOp_MathOp::Op_Add, "vel", "vel", "tmp"),		// vel += tmp
			Instr(SOp_MathOp::Op_Mul, "tmp", "vel", "dt"),		// tmp = vel * dt
			Instr(SOp_MathOp::Op_Add, "pos", "pos", "tmp"),		// pos += tmp
			Instr(SOp_MathOp::Op_Neg, "tmp", "vel", nullptr),	// tmp = -vel
			Instr(SOp_MathOp::Op_Add, "age", "age", "one"),		// age += 1
			Instr(SOp_MathOp::Op_Cmp_GreaterOrEqual, "dead", "age", "maxAge"),
			Instr(SOp_MathOp::Op_Bitwise_ShiftRight, "bucket", "age", "shift"),
			Instr(SOp_MathOp::Op_Mod, "bucket", "bucket", "maxAge"),
		};

		std::vector<u8> bytecode;
		for (const SOp_MathOp::SDesc &desc : program)
		{
			u8 buffer[CMetaOp_MathOp::IP_Offset];
			const u32 size = CMetaOp_MathOp::EncodeDescToBytecode(buffer, desc);
			bytecode.insert(bytecode.end(), buffer, buffer + size);
		}
		std::printf("particle step: %zu instructions, %zu bytes of bytecode\n\n", sizeof(program) / sizeof(program[0]), bytecode.size());
		std::printf("%-6s  %-41s  %-9s  %4s  %-8s  %-6s  %s\n", "offset", "bytes", "opcode", "size", "dst bank", "op", "dst, src0, src1");

		int mismatches = 0;
		u32 offset = 0;
		for (const SOp_MathOp::SDesc &expected : program)
		{
			SOp_MathOp::SDesc desc;
			CBVM::SOpcodeDisasReport report;
			report.m_BytecodeOffset = offset;
			const u32 size = CMetaOp_MathOp::DecodeBytecodeToDesc(bytecode.data() + offset, desc, report);
			std::string raw;
			for (u32 i = 0; i < size; ++i)
			{
				char hex[4];
				std::snprintf(hex, sizeof(hex), i == 0 ? "%02x" : " %02x", bytecode[offset + i]);
				raw += hex;
			}
			std::printf("%06u  %-41s  %-9s  %4u  %-8s  %-6s  %s, %s, %s\n", report.m_BytecodeOffset, raw.c_str(), CBVM::OpcodeName(report.m_Opcode),
						report.m_InstructionSize, Compiler::MetaTypeName(report.m_MetaType), SOp_MathOp::OperatorTraits(desc.m_Op).m_Name,
						RegisterText(desc.m_DstReg).c_str(), RegisterText(desc.m_SrcReg0).c_str(), RegisterText(desc.m_SrcReg1).c_str());
			if (desc.m_Op != expected.m_Op || desc.m_DstReg != expected.m_DstReg || desc.m_SrcReg0 != expected.m_SrcReg0 || desc.m_SrcReg1 != expected.m_SrcReg1)
			{
				std::fprintf(stderr, "oxvm: instruction at offset %u does not decode to what was encoded\n", offset);
				++mismatches;
			}
			offset += size;
		}
		const u64 reports = Assert::ReportCount() - reportsBefore;
		std::printf("\n%s: %d mismatches, %llu assertion reports\n", mismatches == 0 && reports == 0 ? "round trip OK" : "round trip FAILED", mismatches,
					(unsigned long long)reports);
		return mismatches == 0 && reports == 0 ? 0 : 1;
	}
}

int main(int argc, char **argv)
{
	const std::string command = argc > 1 ? argv[1] : "";
	if (command == "demo")
		return RunDemo();
	if (command == "help" || command == "-h" || command == "--help")
	{
		std::fputs(kUsage, stdout);
		return 0;
	}
	if (command.empty())
		std::fprintf(stderr, "oxvm: missing command\n\n%s", kUsage);
	else
		std::fprintf(stderr, "oxvm: unknown command '%s'\n\n%s", command.c_str(), kUsage);
	return 2;
}
