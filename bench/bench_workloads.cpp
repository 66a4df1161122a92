#include "bench_workloads.h"

#include "cbvm_kernel_isa.h"
#include "cbvm_registers.h"
#include "cbvm_verifier.h"

#include <cmath>
#include <cstdio>
#include <cstring>

namespace OxBench
{
	using namespace Orvex;
	using Compiler::IR::SOp_MathOp;

	namespace
	{
		constexpr const char *kImplNames[__MaxImpls] = {
			"standard", "low", "standard_profiler", "standard_interpreter",
			"scalar", "autovec", "sse2", "eigen", "libdivide", "libdivide_bf", "fmodf",
			"batched", "batched_all_threads", "standard_avx2", "standard_avx512",
			"autovec_native", "eigen_native",
		};

		constexpr SWorkloadInfo kWorkloads[__MaxWorkloads] = {
			{"W1", "float add, 1 component, stream + stream", 12, false},
			{"W2", "float mul, 3 components, stream x constant float3", 24, false},
			{"W3", "float div, 4 components, stream / stream", 48, false},
			{"W4", "float compare-less, 1 component, mask result", 12, false},
			{"W5", "float modulo by a constant scalar", 8, false},
			{"W6", "int add, 1 component", 12, false},
			{"W7", "int mul, 1 component", 12, false},
			{"W8by7", "int division by the uniform constant 7", 8, false},
			{"W8by8", "int division by the uniform constant 8", 8, false},
			{"W9", "int division by a stream of divisors", 12, false},
			{"W10", "particle step on float3 streams, four instructions", 48, false},
			{"W11", "one-element instructions (Constant destination)", 0, true},
			{"W12", "particle update: forces, drag, integration, age, kill masks, colour ramp; 28 instructions", 80, false},
			{"W13", "sprite update: drag, box wrap (float mod), phase and flicker, sprite frame (int div, mod), xorshift seed, packed flags; 29 instructions", 92, false},
		};

		// Deterministic inputs: a 64-bit LCG, high bits out.
		class CRandom
		{
		public:
			explicit CRandom(std::uint64_t seed) : m_State(seed * 0x9E3779B97F4A7C15ull + 1) {}
			std::uint32_t Next()
			{
				m_State = m_State * 6364136223846793005ull + 1442695040888963407ull;
				return std::uint32_t(m_State >> 32);
			}
			float Uniform(float lo, float hi) { return lo + (hi - lo) * float(Next() >> 8) * (1.0f / 16777216.0f); }

		private:
			std::uint64_t m_State;
		};
	}

	const char *ImplName(EImpl impl)
	{
		return impl < __MaxImpls ? kImplNames[impl] : nullptr;
	}

	bool ImplFromName(const std::string &name, EImpl &impl)
	{
		for (int i = 0; i < __MaxImpls; ++i)
			if (name == kImplNames[i])
			{
				impl = EImpl(i);
				return true;
			}
		return false;
	}

	const SWorkloadInfo &WorkloadInfo(EWorkload workload)
	{
		return kWorkloads[workload < __MaxWorkloads ? workload : 0];
	}

	bool WorkloadFromId(const std::string &id, EWorkload &workload)
	{
		for (int i = 0; i < __MaxWorkloads; ++i)
			if (id == kWorkloads[i].m_Id)
			{
				workload = EWorkload(i);
				return true;
			}
		return false;
	}

	const SBaselineSet *BaselineSet(EImpl impl)
	{
		switch (impl)
		{
		case Impl_Scalar: return &kBaselineScalar;
		case Impl_AutoVec: return &kBaselineAutoVec;
		case Impl_SSE2: return &kBaselineSSE2;
		case Impl_Eigen: return &kBaselineEigen;
		case Impl_AutoVecNative: return &BaselineAutoVecNative();
		case Impl_EigenNative: return &BaselineEigenNative();
		case Impl_Libdivide: return &kBaselineLibdivide;
		case Impl_LibdivideBranchfree: return &kBaselineLibdivideBranchfree;
		case Impl_Fmodf: return &kBaselineFmodf;
		default: return nullptr;
		}
	}

	//------------------------------------------------------------------------------------
	// Construction: registers, inputs and the program of each workload.

	// W13 has more one-value operands than the other workloads' 16 slots hold.
	CWorkload::CWorkload(EWorkload workload, std::uint32_t count)
	: m_Workload(workload), m_Count(count), m_Storage(workload == Workload_W13 ? 20 : 16), m_Context(&m_Program, m_Bindings, m_Storage.Registers(), m_DebugCtx)
	{
		using Compiler::MetaType_Constant;
		using Compiler::MetaType_Stream;
		CRandom random(std::uint64_t(workload) * 1000003u + count);
		const std::uint32_t n = count;
		m_Storage.Registers().m_StreamDimensions = n;

		auto fillFloat = [&](CVMRegID id, std::uint32_t floats, float lo, float hi) {
			float *data = _F(id);
			for (std::uint32_t i = 0; i < floats; ++i)
				data[i] = random.Uniform(lo, hi);
		};
		auto fillInt = [&](CVMRegID id, std::uint32_t ints) {
			std::int32_t *data = _I(id);
			for (std::uint32_t i = 0; i < ints; ++i)
				data[i] = std::int32_t(random.Next());
		};

		// The common shape: dst = src0 op src1. Every implementation reads and writes the
		// same registers, so that all of them see the same memory layout.
		auto binary = [&](SOp_MathOp::EOp op, EBaseTypeID type, bool constantSrc1) {
			m_Dst = _Declare(0, MetaType_Stream, type, n);
			m_Src0 = _Declare(1, MetaType_Stream, type, n);
			m_Src1 = _Declare(2, constantSrc1 ? MetaType_Constant : MetaType_Stream, type, constantSrc1 ? 1 : n);
			_Emit(op, m_Dst, m_Src0, m_Src1);
			m_Outputs = {m_Dst};
		};

		switch (workload)
		{
		case Workload_W1:
			binary(SOp_MathOp::Op_Add, BaseType_Float, false);
			fillFloat(m_Src0, n, -100.0f, 100.0f);
			fillFloat(m_Src1, n, -100.0f, 100.0f);
			break;
		case Workload_W2:
			binary(SOp_MathOp::Op_Mul, BaseType_Float3, true);
			fillFloat(m_Src0, 3 * n, -100.0f, 100.0f);
			_F(m_Src1)[0] = 0.5f;
			_F(m_Src1)[1] = -1.25f;
			_F(m_Src1)[2] = 3.0f;
			break;
		case Workload_W3:
		{
			binary(SOp_MathOp::Op_Div, BaseType_Float4, false);
			fillFloat(m_Src0, 4 * n, -100.0f, 100.0f);
			float *b = _F(m_Src1);
			for (std::uint32_t i = 0; i < 4 * n; ++i)
				b[i] = (random.Next() & 1 ? 1.0f : -1.0f) * random.Uniform(0.5f, 4.0f);
			break;
		}
		case Workload_W4:
		{
			binary(SOp_MathOp::Op_Cmp_Lower, BaseType_Float, false);
			fillFloat(m_Src0, n, -100.0f, 100.0f);
			fillFloat(m_Src1, n, -100.0f, 100.0f);
			break;
		}
		case Workload_W5:
		{
			// a = (k + f) * c with f in [0.1, 0.9]: far from the points where a remainder
			// computed through a reciprocal may round to the other side of a multiple.
			binary(SOp_MathOp::Op_Mod, BaseType_Float, true);
			m_ModDivisor = 2.5f;
			_F(m_Src1)[0] = m_ModDivisor;
			float *a = _F(m_Src0);
			for (std::uint32_t i = 0; i < n; ++i)
			{
				const float k = float(std::int32_t(random.Next() % 2001u) - 1000);
				const float f = random.Uniform(0.1f, 0.9f);
				a[i] = (k < 0.0f ? k - f : k + f) * m_ModDivisor;
			}
			break;
		}
		case Workload_W6:
			binary(SOp_MathOp::Op_Add, BaseType_I32, false);
			fillInt(m_Src0, n);
			fillInt(m_Src1, n);
			break;
		case Workload_W7:
			binary(SOp_MathOp::Op_Mul, BaseType_I32, false);
			fillInt(m_Src0, n);
			fillInt(m_Src1, n);
			break;
		case Workload_W8by7:
		case Workload_W8by8:
			binary(SOp_MathOp::Op_Div, BaseType_I32, true);
			fillInt(m_Src0, n);
			m_IntDivisor = workload == Workload_W8by7 ? 7 : 8;
			_I(m_Src1)[0] = m_IntDivisor;
			break;
		case Workload_W9:
		{
			// Divisors of magnitude 2 to 65536: no 0 and no INT_MIN / -1, which the plain
			// loops could not divide (the VM defines both).
			binary(SOp_MathOp::Op_Div, BaseType_I32, false);
			fillInt(m_Src0, n);
			std::int32_t *b = _I(m_Src1);
			for (std::uint32_t i = 0; i < n; ++i)
			{
				const std::int32_t magnitude = std::int32_t(2 + random.Next() % 65535u);
				b[i] = random.Next() & 1 ? magnitude : -magnitude;
			}
			break;
		}
		case Workload_W10:
		{
			// gdt = g * dt (one element, Constant destination); v = v + gdt; t = v * dt; p = p + t
			m_P = _Declare(0, MetaType_Stream, BaseType_Float3, n);
			m_V = _Declare(1, MetaType_Stream, BaseType_Float3, n);
			const CVMRegID t = _Declare(2, MetaType_Stream, BaseType_Float3, n);
			m_G = _Declare(3, MetaType_Constant, BaseType_Float3, 1);
			m_Dt = _Declare(4, MetaType_Constant, BaseType_Float3, 1);
			const CVMRegID gdt = _Declare(5, MetaType_Constant, BaseType_Float3, 1);
			_Emit(SOp_MathOp::Op_Mul, gdt, m_G, m_Dt);
			_Emit(SOp_MathOp::Op_Add, m_V, m_V, gdt);
			_Emit(SOp_MathOp::Op_Mul, t, m_V, m_Dt);
			_Emit(SOp_MathOp::Op_Add, m_P, m_P, t);
			m_Scratch = {t};	// a temporary: the batched rows keep it in the cache
			fillFloat(m_P, 3 * n, -10.0f, 10.0f);
			fillFloat(m_V, 3 * n, -10.0f, 10.0f);
			const float g[3] = {0.0f, -9.81f, 0.0f}, dt[3] = {1.0f / 60.0f, 1.0f / 60.0f, 1.0f / 60.0f};
			std::memcpy(_F(m_G), g, sizeof(g));
			std::memcpy(_F(m_Dt), dt, sizeof(dt));
			m_Outputs = {m_P, m_V};
			break;
		}
		case Workload_W11:
		{
			// 'count' instructions c = a + b on one float each: Constant destination and
			// sources, so every instruction evaluates exactly one element.
			m_Dst = _Declare(0, MetaType_Constant, BaseType_Float, 1);
			m_Src0 = _Declare(1, MetaType_Constant, BaseType_Float, 1);
			m_Src1 = _Declare(2, MetaType_Constant, BaseType_Float, 1);
			_F(m_Src0)[0] = 1.5f;
			_F(m_Src1)[0] = 2.25f;
			for (std::uint32_t i = 0; i < count; ++i)
				_Emit(SOp_MathOp::Op_Add, m_Dst, m_Src0, m_Src1);
			m_Outputs = {m_Dst};
			break;
		}
		case Workload_W12:
			_BuildParticles(n);
			break;
		case Workload_W13:
			_BuildSprites(n);
			break;
		default:
			break;
		}
		_Snapshot();
		if (Supports(workload, Impl_Batched))
		{
			// Prepared for the set the batched rows run (a plan prepared for another set
			// would run through the entry points).
			const CBVM::EKernelIsa active = CBVM::ActiveKernelIsa();
			UseKernelSet(Impl_Batched);
			m_Plan = std::make_unique<CBVM::CBatchPlan>();
			if (!m_Plan->Build(m_Bytecode.data(), std::uint32_t(m_Bytecode.size()), m_Storage, CBVM::CBatchPlan::kDefaultBatch, m_Scratch.data(), std::uint32_t(m_Scratch.size())) &&
				m_Plan->Refusal() != CBVM::BatchRefusal_None)
			{
				std::fprintf(stderr, "ox_bench: %s is refused by the batch plan: %s\n", WorkloadInfo(workload).m_Id, m_Plan->Reason());
				std::abort();
			}
			if (std::getenv("OX_BENCH_PLAN") != nullptr)
				std::fprintf(stderr, "ox_bench: %s at %u: %s; %s\n", WorkloadInfo(workload).m_Id, n, m_Plan->Reason(), m_Plan->PreparedReason());
			CBVM::SetKernelIsa(active);
			m_Threads = std::make_unique<CBVM::CTbbParallelFor>();
		}
	}

	// W12: one frame of a particle system, the kind of program a particle effect compiles
	// to. Positions and velocities are float3 streams, ages i32 streams, lifetimes an i32
	// Instance register (set at spawn, read here), everything else one-value constants.
	// The VM has no component swizzle or reduction, so the box test stays per axis: the
	// host kills a particle when 'expired' or any component of 'outside' is set.
	void CWorkload::_BuildParticles(std::uint32_t n)
	{
		using Compiler::MetaType_Constant;
		using Compiler::MetaType_Instance;
		using Compiler::MetaType_Stream;
		CRandom random(std::uint64_t(Workload_W12) * 1000003u + n);
		SParticleRegs &r = m_Particles;

		// Per-element registers: state, outputs and the temporaries the program needs.
		m_P = _Declare(0, MetaType_Stream, BaseType_Float3, n);
		m_V = _Declare(1, MetaType_Stream, BaseType_Float3, n);
		r.m_Age = _Declare(2, MetaType_Stream, BaseType_I32, n);
		r.m_Lifetime = _Declare(3, MetaType_Instance, BaseType_I32, n);
		const CVMRegID force = _Declare(4, MetaType_Stream, BaseType_Float3, n);
		const CVMRegID tmp = _Declare(5, MetaType_Stream, BaseType_Float3, n);
		r.m_Expired = _Declare(6, MetaType_Stream, BaseType_Bool, n);
		const CVMRegID down = _Declare(7, MetaType_Stream, BaseType_Bool3, n);
		const CVMRegID moving = _Declare(8, MetaType_Stream, BaseType_Bool3, n);
		const CVMRegID up = _Declare(9, MetaType_Stream, BaseType_Bool3, n);
		r.m_Outside = _Declare(10, MetaType_Stream, BaseType_Bool3, n);
		const CVMRegID young = _Declare(11, MetaType_Stream, BaseType_I32, n);
		const CVMRegID mid = _Declare(12, MetaType_Stream, BaseType_I32, n);
		const CVMRegID band = _Declare(13, MetaType_Stream, BaseType_I32, n);
		r.m_Colour = _Declare(14, MetaType_Stream, BaseType_I32, n);
		// The temporaries: the batched rows keep them in the cache (scratch registers).
		m_Scratch = {force, tmp, down, moving, up, young, mid, band};

		// One-value registers.
		m_G = _Declare(0, MetaType_Constant, BaseType_Float3, 1);
		m_Dt = _Declare(1, MetaType_Constant, BaseType_Float3, 1);
		const CVMRegID gdt = _Declare(2, MetaType_Constant, BaseType_Float3, 1);
		r.m_NegK = _Declare(3, MetaType_Constant, BaseType_Float3, 1);
		r.m_Wind = _Declare(4, MetaType_Constant, BaseType_Float3, 1);
		r.m_NegDrag = _Declare(5, MetaType_Constant, BaseType_Float3, 1);
		r.m_BoxMin = _Declare(6, MetaType_Constant, BaseType_Float3, 1);
		r.m_BoxMax = _Declare(7, MetaType_Constant, BaseType_Float3, 1);
		r.m_Zero = _Declare(8, MetaType_Constant, BaseType_Float3, 1);
		r.m_One = _Declare(9, MetaType_Constant, BaseType_I32, 1);
		r.m_YoungAge = _Declare(10, MetaType_Constant, BaseType_I32, 1);
		r.m_MidAge = _Declare(11, MetaType_Constant, BaseType_I32, 1);
		r.m_ColourYoung = _Declare(12, MetaType_Constant, BaseType_I32, 1);
		r.m_ColourMid = _Declare(13, MetaType_Constant, BaseType_I32, 1);
		r.m_ColourOld = _Declare(14, MetaType_Constant, BaseType_I32, 1);

		using O = SOp_MathOp;
		const CVMRegID none = CVMRegID::INVALID;
		// Forces: a spring toward the origin and drag against the wind, then gravity.
		_Emit(O::Op_Mul, gdt, m_G, m_Dt);						// gdt = g * dt (one element, Constant destination)
		_Emit(O::Op_Mul, force, m_P, r.m_NegK);				// force = -k * p
		_Emit(O::Op_Sub, tmp, m_V, r.m_Wind);				// air speed = v - wind
		_Emit(O::Op_Mul, tmp, tmp, r.m_NegDrag);			// drag = -c * (v - wind)
		_Emit(O::Op_Add, force, force, tmp);
		_Emit(O::Op_Mul, force, force, m_Dt);
		// Integration (explicit Euler, velocity first).
		_Emit(O::Op_Add, m_V, m_V, force);					// v += (spring + drag) * dt
		_Emit(O::Op_Add, m_V, m_V, gdt);					// v += g * dt
		_Emit(O::Op_Mul, tmp, m_V, m_Dt);
		_Emit(O::Op_Add, m_P, m_P, tmp);					// p += v * dt
		// Age and kill masks.
		_Emit(O::Op_Add, r.m_Age, r.m_Age, r.m_One);		// age += 1 (frames)
		_Emit(O::Op_Cmp_Greater, r.m_Expired, r.m_Age, r.m_Lifetime);	// i32 compare into a bool mask
		_Emit(O::Op_Cmp_Lower, down, m_P, r.m_BoxMin);		// float3 compares into bool3 masks
		_Emit(O::Op_Cmp_Lower, moving, m_V, r.m_Zero);
		_Emit(O::Op_Bitwise_And, down, down, moving);		// below the box (the floor on y) and moving down
		_Emit(O::Op_Cmp_Greater, up, m_P, r.m_BoxMax);
		_Emit(O::Op_Cmp_Greater, moving, m_V, r.m_Zero);
		_Emit(O::Op_Bitwise_And, up, up, moving);			// above the box and moving up
		_Emit(O::Op_Bitwise_Or, r.m_Outside, down, up);
		// Colour ramp by age: i32 masks pick one of three packed RGBA8 colours without a
		// branch. young implies mid (youngAge < midAge), so young ^ mid is "mid, not young".
		_Emit(O::Op_Cmp_Lower, young, r.m_Age, r.m_YoungAge);	// i32 compare into an i32 mask
		_Emit(O::Op_Cmp_Lower, mid, r.m_Age, r.m_MidAge);
		_Emit(O::Op_Bitwise_And, r.m_Colour, young, r.m_ColourYoung);
		_Emit(O::Op_Bitwise_Xor, band, young, mid);
		_Emit(O::Op_Bitwise_And, band, band, r.m_ColourMid);
		_Emit(O::Op_Bitwise_Or, r.m_Colour, r.m_Colour, band);
		_Emit(O::Op_Bitwise_Not, band, mid, none);
		_Emit(O::Op_Bitwise_And, band, band, r.m_ColourOld);
		_Emit(O::Op_Bitwise_Or, r.m_Colour, r.m_Colour, band);

		// Inputs: a cloud of particles in a 20-unit cube, a few percent of them outside
		// the box, with ages on both sides of every threshold.
		float *p = _F(m_P), *v = _F(m_V);
		for (std::uint32_t i = 0; i < 3 * n; ++i)
		{
			p[i] = random.Uniform(-10.0f, 10.0f);
			v[i] = random.Uniform(-4.0f, 4.0f);
		}
		std::int32_t *age = _I(r.m_Age), *lifetime = _I(r.m_Lifetime);
		for (std::uint32_t i = 0; i < n; ++i)
		{
			age[i] = std::int32_t(random.Next() % 240u);
			lifetime[i] = 120 + std::int32_t(random.Next() % 120u);
		}
		auto set3 = [&](CVMRegID id, float x, float y, float z) {
			float *d = _F(id);
			d[0] = x;
			d[1] = y;
			d[2] = z;
		};
		set3(m_G, 0.0f, -9.81f, 0.0f);
		set3(m_Dt, 1.0f / 60.0f, 1.0f / 60.0f, 1.0f / 60.0f);
		set3(r.m_NegK, -1.5f, -1.5f, -1.5f);
		set3(r.m_Wind, 2.0f, 0.0f, -1.0f);
		set3(r.m_NegDrag, -0.35f, -0.35f, -0.35f);
		set3(r.m_BoxMin, -9.5f, -9.0f, -9.5f);
		set3(r.m_BoxMax, 9.5f, 9.8f, 9.5f);
		set3(r.m_Zero, 0.0f, 0.0f, 0.0f);
		_I(r.m_One)[0] = 1;
		_I(r.m_YoungAge)[0] = 40;
		_I(r.m_MidAge)[0] = 120;
		_I(r.m_ColourYoung)[0] = std::int32_t(0xFF40C0F0u);	// RGBA8 words, alpha in the top byte
		_I(r.m_ColourMid)[0] = std::int32_t(0xFF2080FFu);
		_I(r.m_ColourOld)[0] = std::int32_t(0x80404040u);
		m_Outputs = {m_P, m_V, r.m_Age, r.m_Expired, r.m_Outside, r.m_Colour};

		_Verify();
	}

	// The program must be one the verifier accepts without a word: a benchmark of a
	// program that reports would time the reports.
	void CWorkload::_Verify()
	{
		CBVM::SVerifyProblem problems[8];
		const CBVM::SVerifyResult verified = CBVM::CVerifier::Verify(m_Bytecode.data(), std::uint32_t(m_Bytecode.size()), m_Storage, problems, 8);
		if (verified.Problems() != 0)
		{
			for (std::uint32_t i = 0; i < verified.Problems() && i < 8; ++i)
				std::fprintf(stderr, "ox_bench: %s program, offset %u: %s\n", WorkloadInfo(m_Workload).m_Id, problems[i].m_Offset, problems[i].m_Message);
			std::abort();
		}
	}

	// W13: one frame of a sprite effect, the second kind of program a particle effect
	// compiles to. Its float part moves float3 positions under drag and gravity and wraps
	// them into a periodic box (a modulo by a float3 constant), and turns a phase that it
	// wraps to one turn (a modulo by a float constant) into an on/off flicker against each
	// sprite's own period (a modulo by a stream). Its integer part counts the age in ticks,
	// picks the frame of a 16-frame sprite sheet from it (a division and a modulo by
	// constants), steps an xorshift seed (shifts and xors) for a random variant, and packs
	// frame, variant, flicker and expiry into one flags word. The VM has no conversion
	// between floats and ints, so the two parts share no register; the flicker crosses
	// over as a mask (a float compare writes an i32 mask).
	void CWorkload::_BuildSprites(std::uint32_t n)
	{
		using Compiler::MetaType_Constant;
		using Compiler::MetaType_Instance;
		using Compiler::MetaType_Stream;
		CRandom random(std::uint64_t(Workload_W13) * 1000003u + n);
		SSpriteRegs &r = m_Sprites;

		// Per-element state and outputs, per-sprite parameters set at spawn (Instance), and
		// the temporaries.
		m_P = _Declare(0, MetaType_Stream, BaseType_Float3, n);
		m_V = _Declare(1, MetaType_Stream, BaseType_Float3, n);
		r.m_Phase = _Declare(2, MetaType_Stream, BaseType_Float, n);
		r.m_Age = _Declare(3, MetaType_Stream, BaseType_I32, n);
		r.m_Seed = _Declare(4, MetaType_Stream, BaseType_I32, n);
		r.m_Expired = _Declare(5, MetaType_Stream, BaseType_I32, n);
		r.m_Flags = _Declare(6, MetaType_Stream, BaseType_I32, n);
		r.m_Spin = _Declare(0, MetaType_Instance, BaseType_Float, n);
		r.m_Period = _Declare(1, MetaType_Instance, BaseType_Float, n);
		r.m_Lifetime = _Declare(2, MetaType_Instance, BaseType_I32, n);
		const CVMRegID acc = _Declare(7, MetaType_Stream, BaseType_Float3, n);
		const CVMRegID step = _Declare(8, MetaType_Stream, BaseType_Float3, n);
		const CVMRegID dphase = _Declare(9, MetaType_Stream, BaseType_Float, n);
		const CVMRegID pulse = _Declare(10, MetaType_Stream, BaseType_Float, n);
		const CVMRegID lit = _Declare(11, MetaType_Stream, BaseType_I32, n);
		const CVMRegID frame = _Declare(12, MetaType_Stream, BaseType_I32, n);
		const CVMRegID t = _Declare(13, MetaType_Stream, BaseType_I32, n);
		const CVMRegID variant = _Declare(14, MetaType_Stream, BaseType_I32, n);
		m_Scratch = {acc, step, dphase, pulse, lit, frame, t, variant};

		// One-value registers.
		m_G = _Declare(0, MetaType_Constant, BaseType_Float3, 1);
		m_Dt = _Declare(1, MetaType_Constant, BaseType_Float3, 1);
		r.m_NegDrag = _Declare(2, MetaType_Constant, BaseType_Float3, 1);
		r.m_Box = _Declare(3, MetaType_Constant, BaseType_Float3, 1);
		r.m_Dt1 = _Declare(4, MetaType_Constant, BaseType_Float, 1);
		r.m_TwoPi = _Declare(5, MetaType_Constant, BaseType_Float, 1);
		r.m_Duty = _Declare(6, MetaType_Constant, BaseType_Float, 1);
		r.m_One = _Declare(7, MetaType_Constant, BaseType_I32, 1);
		r.m_TicksPerFrame = _Declare(8, MetaType_Constant, BaseType_I32, 1);
		r.m_Frames = _Declare(9, MetaType_Constant, BaseType_I32, 1);
		r.m_ShiftA = _Declare(10, MetaType_Constant, BaseType_I32, 1);
		r.m_ShiftB = _Declare(11, MetaType_Constant, BaseType_I32, 1);
		r.m_ShiftC = _Declare(12, MetaType_Constant, BaseType_I32, 1);
		r.m_VariantShift = _Declare(13, MetaType_Constant, BaseType_I32, 1);
		r.m_FlagsShift = _Declare(14, MetaType_Constant, BaseType_I32, 1);
		r.m_LitBit = _Declare(15, MetaType_Constant, BaseType_I32, 1);
		r.m_ExpiredBit = _Declare(16, MetaType_Constant, BaseType_I32, 1);

		using O = SOp_MathOp;
		// Motion: linear drag and gravity, explicit Euler, then the periodic box.
		_Emit(O::Op_Mul, acc, m_V, r.m_NegDrag);			// drag: -c * v
		_Emit(O::Op_Add, acc, acc, m_G);
		_Emit(O::Op_Mul, acc, acc, m_Dt);
		_Emit(O::Op_Add, m_V, m_V, acc);					// v += (g - c * v) * dt
		_Emit(O::Op_Mul, step, m_V, m_Dt);
		_Emit(O::Op_Add, m_P, m_P, step);					// p += v * dt
		_Emit(O::Op_Mod, m_P, m_P, r.m_Box);				// wrap into the box (float3 constant divisor: one reciprocal)
		// Phase and flicker.
		_Emit(O::Op_Mul, dphase, r.m_Spin, r.m_Dt1);
		_Emit(O::Op_Add, r.m_Phase, r.m_Phase, dphase);
		_Emit(O::Op_Mod, r.m_Phase, r.m_Phase, r.m_TwoPi);	// one turn (float constant divisor)
		_Emit(O::Op_Mod, pulse, r.m_Phase, r.m_Period);		// each sprite's own period (a stream: divides)
		_Emit(O::Op_Cmp_Lower, lit, pulse, r.m_Duty);		// float compare into an i32 mask
		// Age in ticks, expiry and the sprite-sheet frame.
		_Emit(O::Op_Add, r.m_Age, r.m_Age, r.m_One);
		_Emit(O::Op_Cmp_Greater, r.m_Expired, r.m_Age, r.m_Lifetime);
		_Emit(O::Op_Div, frame, r.m_Age, r.m_TicksPerFrame);	// by a uniform constant: a multiply-high
		_Emit(O::Op_Mod, frame, frame, r.m_Frames);			// frames loop
		// xorshift32 of the seed (13, 17, 5).
		_Emit(O::Op_Bitwise_ShiftLeft, t, r.m_Seed, r.m_ShiftA);
		_Emit(O::Op_Bitwise_Xor, r.m_Seed, r.m_Seed, t);
		_Emit(O::Op_Bitwise_ShiftRightLogical, t, r.m_Seed, r.m_ShiftB);
		_Emit(O::Op_Bitwise_Xor, r.m_Seed, r.m_Seed, t);
		_Emit(O::Op_Bitwise_ShiftLeft, t, r.m_Seed, r.m_ShiftC);
		_Emit(O::Op_Bitwise_Xor, r.m_Seed, r.m_Seed, t);
		// Flags: frame in bits 0-3, a variant of four from the seed's top bits in 4-5, lit 6, expired 7.
		_Emit(O::Op_Bitwise_ShiftRightLogical, variant, r.m_Seed, r.m_VariantShift);
		_Emit(O::Op_Bitwise_ShiftLeft, variant, variant, r.m_FlagsShift);
		_Emit(O::Op_Bitwise_Or, r.m_Flags, frame, variant);
		_Emit(O::Op_Bitwise_And, t, lit, r.m_LitBit);
		_Emit(O::Op_Bitwise_Or, r.m_Flags, r.m_Flags, t);
		_Emit(O::Op_Bitwise_And, t, r.m_Expired, r.m_ExpiredBit);
		_Emit(O::Op_Bitwise_Or, r.m_Flags, r.m_Flags, t);

		// Inputs: sprites spread over the box, some about to leave it, phases over one turn,
		// spins both ways, ages on both sides of their lifetimes.
		const float box[3] = {8.0f, 6.0f, 8.0f};
		float *p = _F(m_P), *v = _F(m_V);
		for (std::uint32_t i = 0; i < n; ++i)
			for (int k = 0; k < 3; ++k)
			{
				p[3 * i + k] = random.Uniform(-box[k], box[k]);
				v[3 * i + k] = random.Uniform(-3.0f, 3.0f);
			}
		float *phase = _F(r.m_Phase), *spin = _F(r.m_Spin), *period = _F(r.m_Period);
		std::int32_t *age = _I(r.m_Age), *lifetime = _I(r.m_Lifetime), *seed = _I(r.m_Seed);
		for (std::uint32_t i = 0; i < n; ++i)
		{
			phase[i] = random.Uniform(0.0f, 6.2831853f);
			spin[i] = random.Uniform(-6.0f, 6.0f);
			period[i] = random.Uniform(0.5f, 3.0f);
			age[i] = std::int32_t(random.Next() % 600u);
			lifetime[i] = 300 + std::int32_t(random.Next() % 300u);
			seed[i] = std::int32_t(random.Next() | 1u);	// xorshift state: never 0
		}
		auto set3 = [&](CVMRegID id, float x, float y, float z) {
			float *d = _F(id);
			d[0] = x;
			d[1] = y;
			d[2] = z;
		};
		set3(m_G, 0.0f, -9.81f, 0.0f);
		set3(m_Dt, 1.0f / 60.0f, 1.0f / 60.0f, 1.0f / 60.0f);
		set3(r.m_NegDrag, -0.5f, -0.5f, -0.5f);
		set3(r.m_Box, box[0], box[1], box[2]);
		_F(r.m_Dt1)[0] = 1.0f / 60.0f;
		_F(r.m_TwoPi)[0] = 6.2831853f;
		_F(r.m_Duty)[0] = 0.25f;
		_I(r.m_One)[0] = 1;
		_I(r.m_TicksPerFrame)[0] = 3;
		_I(r.m_Frames)[0] = 16;
		_I(r.m_ShiftA)[0] = 13;
		_I(r.m_ShiftB)[0] = 17;
		_I(r.m_ShiftC)[0] = 5;
		_I(r.m_VariantShift)[0] = 30;
		_I(r.m_FlagsShift)[0] = 4;
		_I(r.m_LitBit)[0] = 0x40;
		_I(r.m_ExpiredBit)[0] = 0x80;
		m_Outputs = {m_P, m_V, r.m_Phase, r.m_Age, r.m_Seed, r.m_Expired, r.m_Flags};
		_Verify();
	}

	CVMRegID CWorkload::_Declare(std::uint32_t slot, Compiler::EMetaType bank, EBaseTypeID type, std::uint32_t elements)
	{
		const CVMRegID id = CVMRegID::Build(slot, bank, type);
		if (!m_Storage.AllocateElements(id, elements))
		{
			std::fprintf(stderr, "ox_bench: cannot allocate %u elements\n", elements);
			std::abort();
		}
		return id;
	}

	void CWorkload::_Emit(SOp_MathOp::EOp op, CVMRegID dst, CVMRegID src0, CVMRegID src1)
	{
		SOp_MathOp::SDesc desc;
		desc.m_Op = op;
		desc.m_DstReg = dst.ToIRRegID();
		desc.m_SrcReg0 = src0.ToIRRegID();
		desc.m_SrcReg1 = src1.ToIRRegID();
		std::uint8_t bytes[CMetaOp_MathOp::IP_Offset];
		const std::uint32_t size = CMetaOp_MathOp::EncodeDescToBytecode(bytes, desc);
		m_Bytecode.insert(m_Bytecode.end(), bytes, bytes + size);
	}

	void CWorkload::_Snapshot()
	{
		m_Initial.clear();
		for (std::uint32_t slot = 0; slot < m_Storage.SlotCount(); ++slot)
			for (std::uint32_t bank = Compiler::MetaType_Constant; bank <= Compiler::MetaType_Stream; ++bank)
			{
				// Storage is per (slot, bank): any type finds it.
				const CVMRegID id = CVMRegID::Build(slot, Compiler::EMetaType(bank), BaseType_Float);
				const std::uint8_t *data = m_Storage.DataAs<std::uint8_t>(id);
				if (data != nullptr)
					m_Initial.emplace_back(id, std::vector<std::uint8_t>(data, data + m_Storage.Size(id)));
			}
	}

	void CWorkload::_Restore()
	{
		for (const auto &entry : m_Initial)
			std::memcpy(m_Storage.Data(entry.first), entry.second.data(), entry.second.size());
	}

	//------------------------------------------------------------------------------------
	// Execution

	bool CWorkload::Supports(EWorkload workload, EImpl impl)
	{
		switch (impl)
		{
		case Impl_Standard: return true;
		// The Low path divides for a float modulo by a constant where the standard path
		// multiplies by the reciprocal: W13's positions and phases would differ in the last
		// bit, and those carry into its flicker mask.
		case Impl_Low: return workload != Workload_W13;
		case Impl_StandardProfiler:
		case Impl_StandardInterpreter: return workload == Workload_W11;
		case Impl_Batched:
		case Impl_BatchedAllThreads: return workload == Workload_W10 || workload == Workload_W12 || workload == Workload_W13;
		case Impl_StandardAvx2: return workload != Workload_W11 && CBVM::KernelIsaSupported(CBVM::KernelIsa_AVX2);
		case Impl_StandardAvx512: return workload != Workload_W11 && CBVM::KernelIsaSupported(CBVM::KernelIsa_AVX512);
		default: break;
		}
		const SBaselineSet *set = BaselineSet(impl);
		if (set == nullptr)
			return false;
		switch (workload)
		{
		case Workload_W1: return set->m_W1 != nullptr;
		case Workload_W2: return set->m_W2 != nullptr;
		case Workload_W3: return set->m_W3 != nullptr;
		case Workload_W4: return set->m_W4 != nullptr;
		case Workload_W5: return set->m_W5 != nullptr;
		case Workload_W6: return set->m_W6 != nullptr;
		case Workload_W7: return set->m_W7 != nullptr;
		case Workload_W8by7:
		case Workload_W8by8: return set->m_W8 != nullptr;
		case Workload_W9: return set->m_W9 != nullptr;
		case Workload_W10: return set->m_W10 != nullptr;
		case Workload_W12: return set->m_W12 != nullptr;
		case Workload_W13: return set->m_W13 != nullptr;
		default: return false;
		}
	}

	void CWorkload::_RunBaseline(const SBaselineSet &set)
	{
		const std::size_t n = m_Count;
		switch (m_Workload)
		{
		case Workload_W1: set.m_W1(_F(m_Dst), _F(m_Src0), _F(m_Src1), n); return;
		case Workload_W2: set.m_W2(_F(m_Dst), _F(m_Src0), _F(m_Src1), n); return;
		case Workload_W3: set.m_W3(_F(m_Dst), _F(m_Src0), _F(m_Src1), n); return;
		case Workload_W4: set.m_W4(reinterpret_cast<std::uint32_t *>(_I(m_Dst)), _F(m_Src0), _F(m_Src1), n); return;
		case Workload_W5: set.m_W5(_F(m_Dst), _F(m_Src0), m_ModDivisor, n); return;
		case Workload_W6: set.m_W6(_I(m_Dst), _I(m_Src0), _I(m_Src1), n); return;
		case Workload_W7: set.m_W7(_I(m_Dst), _I(m_Src0), _I(m_Src1), n); return;
		case Workload_W8by7:
		case Workload_W8by8: set.m_W8(_I(m_Dst), _I(m_Src0), m_IntDivisor, n); return;
		case Workload_W9: set.m_W9(_I(m_Dst), _I(m_Src0), _I(m_Src1), n); return;
		case Workload_W10: set.m_W10(_F(m_P), _F(m_V), _F(m_G), _F(m_Dt), n); return;
		case Workload_W12:
		{
			const SParticleRegs &r = m_Particles;
			const SParticleStreams streams = {_F(m_P), _F(m_V), _I(r.m_Age), _I(r.m_Lifetime),
											  reinterpret_cast<std::uint32_t *>(_I(r.m_Expired)), reinterpret_cast<std::uint32_t *>(_I(r.m_Outside)), _I(r.m_Colour)};
			const SParticleConstants constants = {_F(m_G), _F(m_Dt), _F(r.m_NegK), _F(r.m_Wind), _F(r.m_NegDrag), _F(r.m_BoxMin), _F(r.m_BoxMax), _F(r.m_Zero),
												  _I(r.m_One)[0], _I(r.m_YoungAge)[0], _I(r.m_MidAge)[0], _I(r.m_ColourYoung)[0], _I(r.m_ColourMid)[0], _I(r.m_ColourOld)[0]};
			set.m_W12(streams, constants, n);
			return;
		}
		case Workload_W13:
		{
			const SSpriteRegs &r = m_Sprites;
			const SSpriteStreams streams = {_F(m_P), _F(m_V), _F(r.m_Phase), _F(r.m_Spin), _F(r.m_Period), _I(r.m_Age), _I(r.m_Lifetime), _I(r.m_Seed), _I(r.m_Expired), _I(r.m_Flags)};
			const SSpriteConstants constants = {_F(m_G), _F(m_Dt), _F(r.m_NegDrag), _F(r.m_Box), _F(r.m_Dt1)[0], _F(r.m_TwoPi)[0], _F(r.m_Duty)[0],
												_I(r.m_One)[0], _I(r.m_TicksPerFrame)[0], _I(r.m_Frames)[0], _I(r.m_ShiftA)[0], _I(r.m_ShiftB)[0], _I(r.m_ShiftC)[0],
												_I(r.m_VariantShift)[0], _I(r.m_FlagsShift)[0], _I(r.m_LitBit)[0], _I(r.m_ExpiredBit)[0]};
			set.m_W13(streams, constants, n);
			return;
		}
		default: return;
		}
	}

	void CWorkload::_RunEntryPoints(CBVM::EExecPath path)
	{
		const std::uint8_t *ip = m_Bytecode.data();
		const std::uint8_t *end = ip + m_Bytecode.size();
		while (ip < end)
			ip += CBVM::CInterpreter::Entry(path, *ip).m_Exec(m_Context, ip);
	}

	void CWorkload::UseKernelSet(EImpl impl)
	{
		// The batched rows run the widest set: they stand for a host's best run.
		if (impl == Impl_Batched || impl == Impl_BatchedAllThreads)
			CBVM::SetKernelIsa(CBVM::WidestKernelIsa());
		else
			CBVM::SetKernelIsa(impl == Impl_StandardAvx512 ? CBVM::KernelIsa_AVX512 : impl == Impl_StandardAvx2 ? CBVM::KernelIsa_AVX2 : CBVM::KernelIsa_SSE2);
	}

	std::string CWorkload::PlanBatches(std::uint32_t batchElements)
	{
		std::unique_ptr<CBVM::CBatchPlan> &plan = m_SizedPlans[batchElements];
		if (plan == nullptr)
		{
			const CBVM::EKernelIsa active = CBVM::ActiveKernelIsa();
			UseKernelSet(Impl_Batched);
			plan = std::make_unique<CBVM::CBatchPlan>();
			const bool forced = batchElements == kPrefetchOff || batchElements == kPrefetchOn;
			plan->Build(m_Bytecode.data(), std::uint32_t(m_Bytecode.size()), m_Storage, forced ? CBVM::CBatchPlan::kDefaultBatch : batchElements, m_Scratch.data(),
						std::uint32_t(m_Scratch.size()));
			if (forced)
				plan->SetPrefetch(batchElements == kPrefetchOn);
			CBVM::SetKernelIsa(active);
		}
		return plan->Batched() ? std::string() : std::string("not batched: ") + plan->Reason();
	}

	void CWorkload::Run(EImpl impl, std::uint32_t batchElements)
	{
		if (impl == Impl_Batched && batchElements != 0)
		{
			CBVM::CBatchRunner::Run(*m_SizedPlans.at(batchElements), m_Context, CBVM::ExecPath_Standard);
			return;
		}
		switch (impl)
		{
		case Impl_Standard:
		case Impl_StandardProfiler:
		case Impl_StandardAvx2:
		case Impl_StandardAvx512:
			_RunEntryPoints(CBVM::ExecPath_Standard);
			return;
		case Impl_Low:
			_RunEntryPoints(CBVM::ExecPath_Low);
			return;
		case Impl_StandardInterpreter:
			CBVM::CInterpreter::Run(m_Context, m_Bytecode.data(), std::uint32_t(m_Bytecode.size()), CBVM::ExecPath_Standard);
			return;
		case Impl_Batched:
			CBVM::CBatchRunner::Run(*m_Plan, m_Context, CBVM::ExecPath_Standard);
			return;
		case Impl_BatchedAllThreads:
			CBVM::CBatchRunner::Run(*m_Plan, m_Context, CBVM::ExecPath_Standard, m_Threads->ParallelFor());
			return;
		default:
			_RunBaseline(*BaselineSet(impl));
			return;
		}
	}

	std::string CWorkload::Check(EImpl impl, std::uint32_t batchElements)
	{
		if (batchElements != 0 && (impl != Impl_Batched || m_SizedPlans.count(batchElements) == 0))
			return "no plan of that batch size (PlanBatches)";
		if (batchElements == 0 && !Has(impl))
			return std::string("no such implementation for ") + WorkloadInfo(m_Workload).m_Id;

		// The reference: the standard path (SSE2 kernels) from the initial inputs.
		_Restore();
		UseKernelSet(Impl_Standard);
		Run(Impl_Standard);
		std::vector<std::vector<std::uint8_t>> reference;
		for (const CVMRegID id : m_Outputs)
		{
			const std::uint8_t *data = m_Storage.DataAs<std::uint8_t>(id);
			const std::uint32_t bytes = (m_Workload == Workload_W11 ? 1 : m_Count) * CCBCPUMetaRegisters::DataSizeInBytes(id.ToType());
			reference.emplace_back(data, data + bytes);
		}

		_Restore();
		UseKernelSet(impl);
		Run(impl, batchElements);
		UseKernelSet(Impl_Standard);
		const std::vector<CVMRegID> &outputs = m_Outputs;
		std::string error;
		for (std::size_t o = 0; o < outputs.size() && error.empty(); ++o)
		{
			const std::uint8_t *data = m_Storage.DataAs<std::uint8_t>(outputs[o]);
			const std::vector<std::uint8_t> &expected = reference[o];
			for (std::size_t word = 0; word < expected.size() / 4; ++word)
			{
				std::uint32_t got, want;
				std::memcpy(&got, data + 4 * word, 4);
				std::memcpy(&want, expected.data() + 4 * word, 4);
				if (got == want)
					continue;
				if (m_Workload == Workload_W5 && impl != Impl_StandardAvx2 && impl != Impl_StandardAvx512)	// a kernel set gives the same words
				{
					// A remainder through a reciprocal and an exact one (fmodf, the Low path's
					// division) may differ by rounding: accept 1/1000 of the divisor, far
					// below any misplaced multiple of it.
					float g, w;
					std::memcpy(&g, &got, 4);
					std::memcpy(&w, &want, 4);
					if (std::fabs(g - w) <= 1.0e-3f * std::fabs(m_ModDivisor))
						continue;
				}
				char text[200];
				std::snprintf(text, sizeof(text), "%s/%s: output %zu word %zu is 0x%08X, the standard path wrote 0x%08X",
							  WorkloadInfo(m_Workload).m_Id, ImplName(impl), o, word, got, want);
				error = text;
				break;
			}
		}
		_Restore();
		return error;
	}

	std::string CWorkload::DumpParticles(const std::string &dir)
	{
		if (m_Workload != Workload_W12)
			return "only W12 can be dumped";
		const SParticleRegs &r = m_Particles;
		const std::uint32_t n = m_Count;
		std::string error;
		auto write = [&](const char *name, CVMRegID id) {
			const std::string path = dir + "/" + name;
			const std::size_t bytes = std::size_t(n) * CCBCPUMetaRegisters::DataSizeInBytes(id.ToType());
			std::FILE *f = std::fopen(path.c_str(), "wb");
			const bool ok = f != nullptr && std::fwrite(m_Storage.Data(id), 1, bytes, f) == bytes;
			if ((f != nullptr && std::fclose(f) != 0) || !ok)
				if (error.empty())
					error = "cannot write " + path;
		};

		_Restore();
		write("pos.f32", m_P);
		write("vel.f32", m_V);
		write("age.i32", r.m_Age);
		write("lifetime.i32", r.m_Lifetime);
		// Constants as decimal text that reads back to the same float (9 significant digits).
		const std::string path = dir + "/constants.json";
		if (std::FILE *f = std::fopen(path.c_str(), "w"))
		{
			auto float3 = [&](const char *name, CVMRegID id, const char *sep) {
				const float *d = _F(id);
				std::fprintf(f, "  \"%s\": [%.9g, %.9g, %.9g]%s\n", name, double(d[0]), double(d[1]), double(d[2]), sep);
			};
			std::fprintf(f, "{\n  \"count\": %u,\n", n);
			float3("gravity", m_G, ",");
			float3("dt", m_Dt, ",");
			float3("neg_k", r.m_NegK, ",");
			float3("wind", r.m_Wind, ",");
			float3("neg_drag", r.m_NegDrag, ",");
			float3("box_min", r.m_BoxMin, ",");
			float3("box_max", r.m_BoxMax, ",");
			float3("zero", r.m_Zero, ",");
			std::fprintf(f, "  \"one\": %d,\n  \"young_age\": %d,\n  \"mid_age\": %d,\n", _I(r.m_One)[0], _I(r.m_YoungAge)[0], _I(r.m_MidAge)[0]);
			std::fprintf(f, "  \"colour_young\": %d,\n  \"colour_mid\": %d,\n  \"colour_old\": %d\n}\n", _I(r.m_ColourYoung)[0], _I(r.m_ColourMid)[0], _I(r.m_ColourOld)[0]);
			if (std::fclose(f) != 0 && error.empty())
				error = "cannot write " + path;
		}
		else if (error.empty())
			error = "cannot write " + path;

		Run(Impl_Standard);
		write("standard_pos.f32", m_P);
		write("standard_vel.f32", m_V);
		write("standard_age.i32", r.m_Age);
		write("standard_expired.u32", r.m_Expired);
		write("standard_outside.u32", r.m_Outside);
		write("standard_colour.i32", r.m_Colour);
		_Restore();
		return error;
	}
}
