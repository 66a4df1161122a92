// The README's first example, word for word between the markers (a test compares the
// two): a host that owns a register file, encodes a two-instruction program and runs it
// frame after frame as a prepared plan, in cache-sized batches. Built against the
// installed package, like main.cpp; the package test checks that it runs prepared and
// batched.

// README:begin
#include <cbvm_batch_runner.h>
#include <cbvm_meta_ops.h>
#include <cbvm_register_storage.h>
#include <cstdio>
#include <vector>
using namespace Orvex;
using Compiler::IR::SOp_MathOp;

int main()
{
    // Registers: (slot, bank, type). A Stream register holds one value per particle.
    const CVMRegID pos = CVMRegID::Build(0, Compiler::MetaType_Stream, BaseType_Float3);
    const CVMRegID vel = CVMRegID::Build(1, Compiler::MetaType_Stream, BaseType_Float3);
    const CVMRegID tmp = CVMRegID::Build(2, Compiler::MetaType_Stream, BaseType_Float3);
    const CVMRegID dt = CVMRegID::Build(3, Compiler::MetaType_Constant, BaseType_Float3);
    CRegisterStorage storage(4);                        // aligned, padded, zeroed
    for (const CVMRegID id : {pos, vel, tmp})
        storage.AllocateElements(id, 100000);
    storage.AllocateElements(dt, 1);
    storage.Registers().m_StreamDimensions = 100000;    // fill pos, vel and dt here

    // The program: tmp = vel * dt, then pos = pos + tmp (13 or 14 bytes an instruction).
    std::vector<u8> program;
    const SOp_MathOp::SDesc code[] = {{SOp_MathOp::Op_Mul, tmp.ToIRRegID(), vel.ToIRRegID(), dt.ToIRRegID()},
                                      {SOp_MathOp::Op_Add, pos.ToIRRegID(), pos.ToIRRegID(), tmp.ToIRRegID()}};
    for (const SOp_MathOp::SDesc &desc : code)
    {
        u8 bytes[CMetaOp_MathOp::IP_Offset];
        program.insert(program.end(), bytes, bytes + CMetaOp_MathOp::EncodeDescToBytecode(bytes, desc));
    }

    // Built once (verified, decoded into direct kernel calls), run every frame.
    CBVM::CBatchPlan plan;
    plan.Build(program.data(), u32(program.size()), storage, CBVM::CBatchPlan::kDefaultBatch, &tmp, 1);
    CCompilerBackendCPUProgram_VM self;
    CRuntimeCPUBindings bindings;
    SCompilerCPUDebugCtx debug;
    const CBytecodeExecContext ctx(&self, bindings, storage.Registers(), debug);
    for (int frame = 0; frame < 60; ++frame)
        if (CBVM::CBatchRunner::Run(plan, ctx).m_Status != CBVM::BatchRun_Ok)
            return 1;
    std::printf("%s; %s\n", plan.Reason(), plan.PreparedReason());   // how it runs
    return 0;
}
// README:end
