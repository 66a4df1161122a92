#pragma once
// The benchmark's workloads: each one is a small VM program over a register file (run
// on the standard or the Low path through the interpreter's entry points) and the same
// work for every baseline that has it. A CWorkload owns everything one (workload,
// size) pair needs; the benchmark program and the instruction-count mode share it.

#include "bench_baselines.h"

#include "cbvm_batch_runner.h"
#include "cbvm_interpreter.h"
#include "cbvm_tbb_parallel_for.h"
#include "cbvm_meta_ops.h"
#include "cbvm_register_storage.h"

#include <cstdint>
#include <map>
#include <memory>
#include <string>
#include <vector>

namespace OxBench
{
	enum EImpl : std::uint8_t
	{
		// The VM paths run the workload's bytecode the way a host's interpreter does: each
		// opcode looked up in the path's entry table (CInterpreter::Entry) and its entry
		// point called, so decoding and dispatch are timed with the kernels.
		Impl_Standard = 0,			// standard path
		Impl_Low,					// Low path
		Impl_StandardProfiler,		// standard path with the scope profiler enabled (W11)
		Impl_StandardInterpreter,	// standard path through CInterpreter::Run, which also checks the buffer (W11)
		Impl_Scalar,
		Impl_AutoVec,
		Impl_SSE2,
		Impl_Eigen,
		Impl_Libdivide,
		Impl_LibdivideBranchfree,
		Impl_Fmodf,
		// The batched runner (cbvm_batch_runner.h), standard path, widest kernel set: W10,
		// W12 and W13 in cache-sized batches on one thread and on every core (oneTBB), the
		// plan built (and prepared for that set) once with the workload (not timed).
		Impl_Batched,
		Impl_BatchedAllThreads,
		// The standard path with a wide kernel set (cbvm_kernel_isa.h), on machines that
		// run it; every other VM row runs the SSE2 kernels.
		Impl_StandardAvx2,
		Impl_StandardAvx512,
		// The plain loops and Eigen built for this machine's own instruction set
		// (-march=native, bench_baselines.h): the wide kernel sets' baselines.
		Impl_AutoVecNative,
		Impl_EigenNative,
		__MaxImpls
	};

	// "standard", "low", "scalar", ...; nullptr outside the enumeration.
	const char *ImplName(EImpl impl);
	bool ImplFromName(const std::string &name, EImpl &impl);

	enum EWorkload : std::uint8_t
	{
		Workload_W1 = 0,
		Workload_W2,
		Workload_W3,
		Workload_W4,
		Workload_W5,
		Workload_W6,
		Workload_W7,
		Workload_W8by7,
		Workload_W8by8,
		Workload_W9,
		Workload_W10,
		Workload_W11,
		Workload_W12,
		Workload_W13,
		__MaxWorkloads
	};

	struct SWorkloadInfo
	{
		const char *m_Id;				// "W1", ..., "W8by7", "W8by8", ...
		const char *m_Title;
		std::uint32_t m_BytesPerItem;	// bytes read and written per element (0: not a stream workload)
		bool m_Instructions;			// items are instructions (W11), not elements
	};

	const SWorkloadInfo &WorkloadInfo(EWorkload workload);
	bool WorkloadFromId(const std::string &id, EWorkload &workload);

	// Baseline set behind a baseline implementation; nullptr for the VM paths.
	const SBaselineSet *BaselineSet(EImpl impl);

	class CWorkload
	{
	public:
		// 'count' is the stream size (W1 to W10, W12, W13) or the number of one-element
		// instructions in the program (W11). Inputs are filled deterministically.
		CWorkload(EWorkload workload, std::uint32_t count);
		CWorkload(const CWorkload &) = delete;
		CWorkload &operator=(const CWorkload &) = delete;

		// Whether 'impl' has a version of 'workload'.
		static bool Supports(EWorkload workload, EImpl impl);
		// Makes the standard path run the kernel set of 'impl' (SSE2 for every row but
		// the wide ones): before timing it, and around each run of a check.
		static void UseKernelSet(EImpl impl);
		bool Has(EImpl impl) const { return Supports(m_Workload, impl); }

		// Runs the standard path once from the initial inputs and keeps its outputs, then
		// runs 'impl' once from the same inputs and compares what it wrote. Returns "" on
		// agreement, else a description of the first difference. Inputs are restored
		// afterwards.
		// batchElements (Impl_Batched only): 0 runs the default plan, any other value a plan
		// of batches of that many elements (PlanBatches first), on any stream workload.
		std::string Check(EImpl impl, std::uint32_t batchElements = 0);

		// One execution of 'impl' (the timed body). In-place workloads (W10, W12, W13) keep
		// updating their state from one call to the next.
		void Run(EImpl impl, std::uint32_t batchElements = 0);

		// PlanBatches' sizes that stand for the default plan with prefetching forced off or on.
		static constexpr std::uint32_t kPrefetchOff = ~0u;
		static constexpr std::uint32_t kPrefetchOn = ~0u - 1;
		// Builds (once) the one-thread batched plan of batches of 'batchElements' elements
		// for Run(Impl_Batched, batchElements), with the workload's scratch registers.
		// Returns "" when the run goes in batches, else the plan's reason why not.
		std::string PlanBatches(std::uint32_t batchElements);

		std::uint32_t Count() const { return m_Count; }

		// W12 only: writes the initial inputs, the constants and the standard path's
		// outputs after one run from those inputs into 'dir' (raw little-endian arrays and
		// constants.json), for peers outside this program (bench/numexpr_w12.py). Returns
		// "" on success, else what failed. Inputs are restored afterwards.
		std::string DumpParticles(const std::string &dir);

	private:
		using CVMRegID = Orvex::CVMRegID;

		CVMRegID _Declare(std::uint32_t slot, Orvex::Compiler::EMetaType bank, Orvex::EBaseTypeID type, std::uint32_t elements);
		void _Emit(Orvex::Compiler::IR::SOp_MathOp::EOp op, CVMRegID dst, CVMRegID src0, CVMRegID src1);
		float *_F(CVMRegID id) const { return m_Storage.DataAs<float>(id); }
		std::int32_t *_I(CVMRegID id) const { return m_Storage.DataAs<std::int32_t>(id); }
		void _RunBaseline(const SBaselineSet &set);
		// Every instruction of the program: its entry point looked up by opcode and called.
		void _RunEntryPoints(Orvex::CBVM::EExecPath path);
		void _Snapshot();
		void _Restore();

		EWorkload m_Workload;
		std::uint32_t m_Count;

		Orvex::CRegisterStorage m_Storage;
		Orvex::CCompilerBackendCPUProgram_VM m_Program;
		Orvex::CRuntimeCPUBindings m_Bindings;
		Orvex::SCompilerCPUDebugCtx m_DebugCtx;
		Orvex::CBytecodeExecContext m_Context;
		std::vector<std::uint8_t> m_Bytecode;
		std::unique_ptr<Orvex::CBVM::CBatchPlan> m_Plan;			// the batched rows' (W10, W12, W13)
		std::map<std::uint32_t, std::unique_ptr<Orvex::CBVM::CBatchPlan>> m_SizedPlans;	// by batch size (PlanBatches)
		std::vector<CVMRegID> m_Scratch;							// the batched rows' scratch registers: the program's temporaries
		std::unique_ptr<Orvex::CBVM::CTbbParallelFor> m_Threads;	// every core

		// Operands, read and written by every implementation (the baselines use the VM's
		// registers as plain arrays).
		CVMRegID m_Dst = CVMRegID::INVALID, m_Src0 = CVMRegID::INVALID, m_Src1 = CVMRegID::INVALID;
		// W10: positions, velocities, gravity, time step.
		CVMRegID m_P = CVMRegID::INVALID, m_V = CVMRegID::INVALID, m_G = CVMRegID::INVALID, m_Dt = CVMRegID::INVALID;
		// W12 (the particle update): per-element state and outputs, and the constants the
		// program reads. Gravity and the time step are m_G and m_Dt.
		struct SParticleRegs
		{
			CVMRegID m_Age, m_Lifetime, m_Expired, m_Outside, m_Colour;
			CVMRegID m_NegK, m_Wind, m_NegDrag, m_BoxMin, m_BoxMax, m_Zero, m_One;
			CVMRegID m_YoungAge, m_MidAge, m_ColourYoung, m_ColourMid, m_ColourOld;
		};
		SParticleRegs m_Particles = {};
		void _BuildParticles(std::uint32_t n);
		// W13 (the sprite update): the per-element state and outputs besides positions and
		// velocities (m_P, m_V), and the constants besides gravity and the time step (m_G, m_Dt).
		struct SSpriteRegs
		{
			CVMRegID m_Phase, m_Spin, m_Period, m_Age, m_Lifetime, m_Seed, m_Expired, m_Flags;
			CVMRegID m_NegDrag, m_Box, m_Dt1, m_TwoPi, m_Duty, m_One, m_TicksPerFrame, m_Frames;
			CVMRegID m_ShiftA, m_ShiftB, m_ShiftC, m_VariantShift, m_FlagsShift, m_LitBit, m_ExpiredBit;
		};
		SSpriteRegs m_Sprites = {};
		void _BuildSprites(std::uint32_t n);
		// Aborts when the verifier reports anything about the program.
		void _Verify();
		// What a check compares.
		std::vector<CVMRegID> m_Outputs;
		float m_ModDivisor = 0.0f;		// W5: results may differ by rounding, not more
		std::int32_t m_IntDivisor = 0;	// W8

		std::vector<std::pair<CVMRegID, std::vector<std::uint8_t>>> m_Initial;
	};
}
