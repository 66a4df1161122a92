// oxvm: command-line front end of the math-operator meta-op.
//
//   oxvm demo    encode a small particle-step program, decode it back, print its
//                disassembly, run it on the standard path over a few particles, print
//                the results and check the Low path agrees; exits non-zero on any
//                mismatch or assertion report.

#include "cbvm_interpreter.h"
#include "cbvm_meta_ops.h"
#include "cbvm_register_storage.h"
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
		"           registers. Then runs it with the interpreter on the standard path\n"
		"           over 8 particles, prints the registers it wrote, runs it again on\n"
		"           the Low path and compares. Fails (exit 1) if a decoded instruction\n"
		"           differs from what was encoded, if a run stops early, if the two\n"
		"           paths disagree, or if any assertion is reported.\n"
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
		{"gdt", CRegID::Build(11, Compiler::MetaType_Constant, BaseType_Float3)},
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

	// Runs the demo program on a few particles on one execution path; returns every
	// register's words (empty when the run stopped early).
	std::vector<u32> RunParticles(const std::vector<u8> &bytecode, CBVM::EExecPath path, bool print)
	{
		constexpr u32 kParticles = 8;
		CRegisterStorage storage(16);
		for (const SNamedRegister &named : kRegisters)
		{
			const CVMRegID id = CVMRegID::Build(named.m_Reg);
			const bool stream = id.ToBank() >= Compiler::MetaType_Instance;
			if (!storage.AllocateElements(id, stream ? kParticles : 1))
			{
				std::fprintf(stderr, "oxvm: cannot allocate register %s\n", named.m_Name);
				return {};
			}
		}
		storage.Registers().m_StreamDimensions = kParticles;
		auto data = [&](const char *name) {
			for (const SNamedRegister &named : kRegisters)
				if (std::strcmp(named.m_Name, name) == 0)
					return storage.Data(CVMRegID::Build(named.m_Reg));
			return static_cast<void *>(nullptr);
		};
		float *vel = static_cast<float *>(data("vel"));
		float *pos = static_cast<float *>(data("pos"));
		s32 *age = static_cast<s32 *>(data("age"));
		for (u32 i = 0; i < kParticles; ++i)
		{
			pos[3 * i + 0] = float(i);
			vel[3 * i + 0] = 1.0f;
			vel[3 * i + 1] = 2.0f + float(i);
			age[i] = s32(i * 3);
		}
		const float gravity[3] = {0.0f, -9.81f, 0.0f};
		std::memcpy(data("gravity"), gravity, sizeof(gravity));
		const float dt[3] = {0.5f, 0.5f, 0.5f};
		std::memcpy(data("dt"), dt, sizeof(dt));
		*static_cast<s32 *>(data("one")) = 1;
		*static_cast<s32 *>(data("maxAge")) = 10;
		*static_cast<s32 *>(data("shift")) = 1;

		CCompilerBackendCPUProgram_VM program;
		CRuntimeCPUBindings bindings;
		SCompilerCPUDebugCtx debugCtx;
		const CBytecodeExecContext ctx(&program, bindings, storage.Registers(), debugCtx);
		const CBVM::SRunResult result = CBVM::CInterpreter::Run(ctx, bytecode.data(), u32(bytecode.size()), path);
		char status[160];
		CBVM::CInterpreter::FormatError(result, status, sizeof(status));
		std::printf("%srun on the %s path over %u particles: %s\n", print ? "\n" : "", CBVM::ExecPathName(path), kParticles, status);
		if (result.m_Status != CBVM::RunStatus_Ok)
			return {};

		std::vector<u32> words;
		for (const SNamedRegister &named : kRegisters)
		{
			const CVMRegID id = CVMRegID::Build(named.m_Reg);
			const u32 *data = storage.DataAs<u32>(id);
			words.insert(words.end(), data, data + storage.Size(id) / 4);
		}
		if (!print)
			return words;
		std::printf("\n");

		const s32 *dead = static_cast<const s32 *>(data("dead"));
		const s32 *bucket = static_cast<const s32 *>(data("bucket"));
		std::printf("%-4s  %-28s  %-28s  %4s  %5s  %6s\n", "i", "pos", "vel", "age", "dead", "bucket");
		for (u32 i = 0; i < kParticles; ++i)
			std::printf("%-4u  %8.3f %8.3f %8.3f    %8.3f %8.3f %8.3f    %4d  %5d  %6d\n", i, pos[3 * i], pos[3 * i + 1], pos[3 * i + 2], vel[3 * i],
						vel[3 * i + 1], vel[3 * i + 2], age[i], dead[i], bucket[i]);
		return words;
	}

	int RunDemo()
	{
		const u64 reportsBefore = Assert::ReportCount();
		const SOp_MathOp::SDesc program[] = {
			Instr(SOp_MathOp::Op_Mul, "gdt", "gravity", "dt"),	// gdt = g * dt, once (constant destination)
			Instr(SOp_MathOp::Op_Add, "vel", "vel", "gdt"),		// vel += gdt
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
		std::printf("\nround trip %s: %d mismatches\n", mismatches == 0 ? "OK" : "FAILED", mismatches);

		const std::vector<u32> standard = RunParticles(bytecode, CBVM::ExecPath_Standard, true);
		const std::vector<u32> low = RunParticles(bytecode, CBVM::ExecPath_Low, false);
		const bool ran = !standard.empty() && standard == low;
		std::printf("standard and low paths %s (%zu register words compared)\n", ran ? "agree" : "DIFFER", standard.size());
		const u64 reports = Assert::ReportCount() - reportsBefore;
		std::printf("\n%llu assertion reports\n", (unsigned long long)reports);
		return mismatches == 0 && ran && reports == 0 ? 0 : 1;
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
