// A host program embedding the math-op: it owns a register file, encodes a few
// instructions with the encoder, runs them with the interpreter on the standard path
// and reads the results back. Built against the installed package (find_package).
//
//   pos += vel * dt        for 1000 particles, dt a constant
//   hit  = pos.y < floor   (a mask: all bits set where true)

#include <cbvm_interpreter.h>
#include <cbvm_meta_ops.h>
#include <cbvm_register_storage.h>
#include <kr_assert.h>

#include <cstdio>
#include <cstring>
#include <vector>

using namespace Orvex;
using Compiler::IR::SOp_MathOp;

namespace
{
	// Appends one encoded instruction to the program.
	void Emit(std::vector<u8> &program, SOp_MathOp::EOp op, CVMRegID dst, CVMRegID src0, CVMRegID src1)
	{
		SOp_MathOp::SDesc desc;
		desc.m_Op = op;
		desc.m_DstReg = dst.ToIRRegID();
		desc.m_SrcReg0 = src0.ToIRRegID();
		desc.m_SrcReg1 = src1.ToIRRegID();
		u8 bytes[CMetaOp_MathOp::IP_Offset];
		const u32 size = CMetaOp_MathOp::EncodeDescToBytecode(bytes, desc);
		program.insert(program.end(), bytes, bytes + size);
	}
}

int main()
{
	constexpr u32 kParticles = 1000;

	// 1. Registers: (slot, bank, type). Streams hold one element per particle.
	const CVMRegID pos = CVMRegID::Build(0, Compiler::MetaType_Stream, BaseType_Float3);
	const CVMRegID vel = CVMRegID::Build(1, Compiler::MetaType_Stream, BaseType_Float3);
	const CVMRegID tmp = CVMRegID::Build(2, Compiler::MetaType_Stream, BaseType_Float3);
	const CVMRegID dt = CVMRegID::Build(3, Compiler::MetaType_Constant, BaseType_Float3);
	const CVMRegID y = CVMRegID::Build(4, Compiler::MetaType_Stream, BaseType_Float);
	const CVMRegID floorY = CVMRegID::Build(5, Compiler::MetaType_Constant, BaseType_Float);
	const CVMRegID hit = CVMRegID::Build(6, Compiler::MetaType_Stream, BaseType_Float);

	// 2. Storage: 64-byte aligned and padded, as the kernels need.
	CRegisterStorage storage(8);
	bool ok = true;
	for (CVMRegID id : {pos, vel, tmp, y, hit})
		ok = ok && storage.AllocateElements(id, kParticles);
	for (CVMRegID id : {dt, floorY})
		ok = ok && storage.AllocateElements(id, 1);
	if (!ok)
	{
		std::fprintf(stderr, "embed_host: cannot allocate registers\n");
		return 1;
	}
	storage.Registers().m_StreamDimensions = kParticles;

	float *p = storage.DataAs<float>(pos);
	float *v = storage.DataAs<float>(vel);
	float *py = storage.DataAs<float>(y);
	for (u32 i = 0; i < kParticles; ++i)
		for (u32 k = 0; k < 3; ++k)
		{
			p[3 * i + k] = float(i) + float(k);
			v[3 * i + k] = k == 1 ? -float(i % 10) : 1.0f;
		}
	const float step[3] = {0.5f, 0.5f, 0.5f};
	std::memcpy(storage.Data(dt), step, sizeof(step));
	*storage.DataAs<float>(floorY) = 100.0f;

	// 3. Program: encoded once, run as often as needed.
	std::vector<u8> program;
	Emit(program, SOp_MathOp::Op_Mul, tmp, vel, dt);
	Emit(program, SOp_MathOp::Op_Add, pos, pos, tmp);

	CCompilerBackendCPUProgram_VM self;
	CRuntimeCPUBindings bindings;
	SCompilerCPUDebugCtx debugCtx;
	const CBytecodeExecContext ctx(&self, bindings, storage.Registers(), debugCtx);
	CBVM::SRunResult result = CBVM::CInterpreter::Run(ctx, program.data(), u32(program.size()));

	// 4. A second program on a float stream: the y components, then a mask.
	for (u32 i = 0; i < kParticles; ++i)
		py[i] = p[3 * i + 1];
	std::vector<u8> test;
	Emit(test, SOp_MathOp::Op_Cmp_Lower, hit, y, floorY);
	if (result.m_Status == CBVM::RunStatus_Ok)
		result = CBVM::CInterpreter::Run(ctx, test.data(), u32(test.size()));
	if (result.m_Status != CBVM::RunStatus_Ok)
	{
		char text[160];
		CBVM::CInterpreter::FormatError(result, text, sizeof(text));
		std::fprintf(stderr, "embed_host: %s\n", text);
		return 1;
	}

	// 5. Results, checked against plain C++.
	u32 wrong = 0, hits = 0;
	const u32 *mask = storage.DataAs<u32>(hit);
	for (u32 i = 0; i < kParticles; ++i)
	{
		for (u32 k = 0; k < 3; ++k)
		{
			const float expected = float(i) + float(k) + (k == 1 ? -float(i % 10) : 1.0f) * 0.5f;
			wrong += p[3 * i + k] != expected ? 1 : 0;
		}
		const bool below = p[3 * i + 1] < 100.0f;
		wrong += mask[i] != (below ? 0xFFFFFFFFu : 0u) ? 1 : 0;
		hits += below ? 1 : 0;
	}
	std::printf("embed_host: %u particles, pos[999] = (%.2f, %.2f, %.2f), %u below the floor, %u wrong values, %llu assertion reports\n",
				kParticles, p[2997], p[2998], p[2999], hits, wrong, (unsigned long long)Assert::ReportCount());
	return wrong == 0 && Assert::ReportCount() == 0 ? 0 : 1;
}
