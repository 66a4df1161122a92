// ox_bench: the math-op's standard and Low paths against the baselines an engine
// developer would otherwise use, for every workload of bench_workloads.h.
//
//   ox_bench [Google Benchmark flags]      benchmarks named <workload>/<implementation>/<size>
//                                           (batched_b<B>: the batched runner on one thread in
//                                           batches of B elements)
//   ox_bench --list                         the workload ids and titles
//   ox_bench --caches                       the data cache sizes CPUID reports
//   ox_bench --icount <workload> <impl> <n> one checked run, then one more run with
//                                           callgrind collecting (run it under
//                                           valgrind --tool=callgrind --collect-atstart=no)
//   ox_bench --dump W12 <n> <dir>           W12's inputs, constants and standard-path
//                                           outputs as files, for bench/numexpr_w12.py
//
// Every implementation other than the standard path is checked against the standard
// path's results on the same inputs before it is timed; a disagreement skips that
// benchmark with an error that names the first differing word. The scope profiler is
// disabled for every benchmark except W11/standard_profiler.

#include "bench_workloads.h"

#include "cbvm_kernel_isa.h"
#include "kr_profiler.h"

#include <benchmark/benchmark.h>
#include <cpuid.h>
#include <valgrind/callgrind.h>

#include <cstdio>
#include <algorithm>
#include <cstdlib>
#include <map>
#include <memory>
#include <string>

namespace OxBench
{
	namespace
	{
		constexpr std::uint32_t kSizes[] = {16, 256, 4096, 65536, 1048576};
		constexpr std::uint32_t kW11Instructions = 64;
		// W12, the particle update, runs from a level-1-sized stream to one far past the
		// last-level cache (16 Mi particles: 2.2 GiB of registers, and as much again for
		// the copy of the inputs that every check restores).
		constexpr std::uint32_t kW12Sizes[] = {4096, 65536, 1048576, 16777216};	// W13's too
		// The particle programs batched on one thread at first-level-cache batch sizes, against
		// the default plan (batched) at a million elements and against the whole stream at
		// 4,096 (one default batch).
		constexpr std::uint32_t kBatchSizes[] = {384, 768};
		constexpr std::uint32_t kBatchSizeCounts[] = {4096, 1048576};
		// The fixed cost of a call: W1 (one instruction) batched on one thread at batch sizes
		// from 48 to 3,072 over a stream that fits the second-level cache (768 KiB), so that
		// the time per batch is a line in the batch size whose intercept is that cost.
		constexpr std::uint32_t kCallCostBatches[] = {48, 96, 192, 384, 768, 1536, 3072};
		constexpr std::uint32_t kCallCostCount = 65536;
		// The same for whole programs: W12 (28 instructions) and W13 (29) at 4,096 elements,
		// whose registers stay in the second-level cache (the intercept over the program's
		// instructions is a call's), and at a million, streaming from memory: the
		// measurements behind the default batch size (CBatchPlan::kCacheBudgetBytes).
		constexpr std::uint32_t kProgramCostBatches[] = {48, 96, 192, 384, 768, 1536};
		// W1, W4 and W6 also at the sizes either side of 4,096, where three streams of 16 KiB
		// fill a 48 KiB level-1 data cache (and overflow a 32 KiB one), against the SSE2 and
		// the native baselines.
		constexpr std::uint32_t kNeighbourSizes[] = {2048, 8192};
		constexpr EWorkload kNeighbourWorkloads[] = {Workload_W1, Workload_W4, Workload_W6};
		constexpr EImpl kNeighbourImpls[] = {Impl_Standard, Impl_AutoVec, Impl_SSE2, Impl_Eigen, Impl_StandardAvx2, Impl_StandardAvx512, Impl_AutoVecNative, Impl_EigenNative};

		// Every workload is built once, on first use, and kept: benchmarks of the same
		// workload and size share it, in whatever order they run (the report interleaves
		// repetitions at random). All of them together take a few hundred megabytes.
		CWorkload &Workload(EWorkload workload, std::uint32_t count)
		{
			static std::map<std::pair<int, std::uint32_t>, std::unique_ptr<CWorkload>> s_Workloads;
			std::unique_ptr<CWorkload> &w = s_Workloads[{int(workload), count}];
			if (w == nullptr)
				w = std::make_unique<CWorkload>(workload, count);
			return *w;
		}

		void Benchmark(benchmark::State &state, EWorkload workload, EImpl impl, std::uint32_t count)
		{
			CWorkload &w = Workload(workload, count);
			if (impl != Impl_Standard)
			{
				const std::string error = w.Check(impl);
				if (!error.empty())
				{
					state.SkipWithError(error.c_str());
					return;
				}
			}
			Orvex::Profiler::MainEngineProfiler()->SetEnabled(impl == Impl_StandardProfiler);
			CWorkload::UseKernelSet(impl);
			for (auto _ : state)
			{
				w.Run(impl);
				benchmark::ClobberMemory();
			}
			Orvex::Profiler::MainEngineProfiler()->SetEnabled(false);

			const SWorkloadInfo &info = WorkloadInfo(workload);
			state.SetItemsProcessed(std::int64_t(state.iterations()) * count);
			if (info.m_BytesPerItem != 0)
				state.SetBytesProcessed(std::int64_t(state.iterations()) * count * info.m_BytesPerItem);
		}

		void BenchmarkBatches(benchmark::State &state, EWorkload workload, std::uint32_t count, std::uint32_t batchElements)
		{
			CWorkload &w = Workload(workload, count);
			std::string error = w.PlanBatches(batchElements);
			if (error.empty())
				error = w.Check(Impl_Batched, batchElements);
			if (!error.empty())
			{
				state.SkipWithError(error.c_str());
				return;
			}
			CWorkload::UseKernelSet(Impl_Batched);
			for (auto _ : state)
			{
				w.Run(Impl_Batched, batchElements);
				benchmark::ClobberMemory();
			}
			const SWorkloadInfo &info = WorkloadInfo(workload);
			state.SetItemsProcessed(std::int64_t(state.iterations()) * count);
			state.SetBytesProcessed(std::int64_t(state.iterations()) * count * info.m_BytesPerItem);
			state.counters["batch"] = batchElements;
		}

		void RegisterBatches(EWorkload workload, std::uint32_t count, std::uint32_t batchElements)
		{
			const std::string row = batchElements == CWorkload::kPrefetchOff  ? "batched_noprefetch"
								  : batchElements == CWorkload::kPrefetchOn ? "batched_prefetch"
																			 : "batched_b" + std::to_string(batchElements);
			const std::string name = std::string(WorkloadInfo(workload).m_Id) + "/" + row + "/" + std::to_string(count);
			benchmark::RegisterBenchmark(name.c_str(), &BenchmarkBatches, workload, count, batchElements)->UseRealTime();
		}

		void Register(EWorkload workload, EImpl impl, std::uint32_t count)
		{
			const std::string name = std::string(WorkloadInfo(workload).m_Id) + "/" + ImplName(impl) + "/" + std::to_string(count);
			benchmark::RegisterBenchmark(name.c_str(), &Benchmark, workload, impl, count)->UseRealTime();
		}

		void RegisterAll()
		{
			for (int wi = 0; wi < __MaxWorkloads; ++wi)
			{
				const EWorkload workload = EWorkload(wi);
				const SWorkloadInfo &info = WorkloadInfo(workload);
				if (workload == Workload_W12 || workload == Workload_W13)
				{
					for (const std::uint32_t count : kW12Sizes)
						for (int ii = 0; ii < __MaxImpls; ++ii)
							if (CWorkload::Supports(workload, EImpl(ii)))
								Register(workload, EImpl(ii), count);
					continue;
				}
				for (const std::uint32_t size : kSizes)
				{
					const std::uint32_t count = info.m_Instructions ? kW11Instructions : size;
					for (int ii = 0; ii < __MaxImpls; ++ii)
					{
						const EImpl impl = EImpl(ii);
						if (CWorkload::Supports(workload, impl))
							Register(workload, impl, count);
					}
					if (info.m_Instructions)
						break;	// one program size only
				}
			}
			for (const EWorkload workload : kNeighbourWorkloads)
				for (const std::uint32_t count : kNeighbourSizes)
					for (const EImpl impl : kNeighbourImpls)
						if (CWorkload::Supports(workload, impl))	// a kernel set the machine has
							Register(workload, impl, count);
			for (const EWorkload workload : {Workload_W12, Workload_W13})
				for (const std::uint32_t count : kBatchSizeCounts)
					for (const std::uint32_t batch : kBatchSizes)
						RegisterBatches(workload, count, batch);
			for (const std::uint32_t batch : kCallCostBatches)
				RegisterBatches(Workload_W1, kCallCostCount, batch);
			for (const EWorkload workload : {Workload_W12, Workload_W13})
				for (const std::uint32_t count : kBatchSizeCounts)
					for (const std::uint32_t batch : kProgramCostBatches)
						if (std::find(std::begin(kBatchSizes), std::end(kBatchSizes), batch) == std::end(kBatchSizes))	// those are registered above
							RegisterBatches(workload, count, batch);
			// The default plan with prefetching forced off and on, at every size: the
			// measurements behind CBatchPlan::kPrefetchFromBytes.
			for (const EWorkload workload : {Workload_W12, Workload_W13})
				for (const std::uint32_t count : kW12Sizes)
					for (const std::uint32_t forced : {CWorkload::kPrefetchOff, CWorkload::kPrefetchOn})
						RegisterBatches(workload, count, forced);
		}

		// The kernel sets this machine runs and those it cannot, for the report.
		std::string KernelSets()
		{
			std::string run = "sse2", notRun;
			for (const auto &set : {std::make_pair(Orvex::CBVM::KernelIsa_AVX2, "avx2"), std::make_pair(Orvex::CBVM::KernelIsa_AVX512, "avx512")})
			{
				std::string &list = Orvex::CBVM::KernelIsaSupported(set.first) ? run : notRun;
				list += (list.empty() ? "" : " ") + std::string(set.second);
			}
			return "run: " + run + "; not run: " + (notRun.empty() ? "none" : notRun);
		}

		// Data cache sizes from CPUID, for the report when the system does not list them:
		// leaf 4 (deterministic cache parameters), else AMD's leaves 0x80000005 / 6.
		std::string DataCaches()
		{
			unsigned a, b, c, d;
			std::string text;
			if (__get_cpuid(0, &a, &b, &c, &d) && a >= 4)
				for (unsigned index = 0; index < 8; ++index)
				{
					__cpuid_count(4, index, a, b, c, d);
					const unsigned type = a & 31;
					if (type == 0)
						break;
					if (type == 2)	// instruction cache
						continue;
					const unsigned bytes = (((b >> 22) & 0x3FF) + 1) * (((b >> 12) & 0x3FF) + 1) * ((b & 0xFFF) + 1) * (c + 1);
					text += (text.empty() ? "" : ", ") + std::string("L") + std::to_string((a >> 5) & 7) + (((a >> 5) & 7) == 1 ? "d " : " ") + std::to_string(bytes / 1024) + " KiB";
				}
			if (text.empty() && __get_cpuid(0x80000005, &a, &b, &c, &d) && (c >> 24) != 0)
			{
				text = "L1d " + std::to_string(c >> 24) + " KiB";
				if (__get_cpuid(0x80000006, &a, &b, &c, &d) && (c >> 16) != 0)
					text += ", L2 " + std::to_string(c >> 16) + " KiB";
			}
			return text.empty() ? "not reported" : text;
		}

		int ListWorkloads()
		{
			for (int wi = 0; wi < __MaxWorkloads; ++wi)
			{
				const SWorkloadInfo &info = WorkloadInfo(EWorkload(wi));
				std::printf("%s\t%u\t%s\t%s\n", info.m_Id, info.m_BytesPerItem, info.m_Instructions ? "instructions" : "elements", info.m_Title);
			}
			return 0;
		}

		// One checked warm-up run outside collection, then exactly one run inside it.
		int InstructionCount(const std::string &workloadId, const std::string &implName, const std::string &countText)
		{
			EWorkload workload;
			EImpl impl;
			if (!WorkloadFromId(workloadId, workload) || !ImplFromName(implName, impl) || !CWorkload::Supports(workload, impl))
			{
				std::fprintf(stderr, "ox_bench: --icount: unknown workload or implementation: %s %s\n", workloadId.c_str(), implName.c_str());
				return 2;
			}
			const std::uint32_t count = std::uint32_t(std::strtoul(countText.c_str(), nullptr, 10));
			CWorkload w(workload, count);
			if (impl != Impl_Standard)
			{
				const std::string error = w.Check(impl);
				if (!error.empty())
				{
					std::fprintf(stderr, "ox_bench: %s\n", error.c_str());
					return 1;
				}
			}
			Orvex::Profiler::MainEngineProfiler()->SetEnabled(impl == Impl_StandardProfiler);
			CWorkload::UseKernelSet(impl);
			w.Run(impl);
			CALLGRIND_TOGGLE_COLLECT;
			w.Run(impl);
			CALLGRIND_TOGGLE_COLLECT;
			std::printf("icount %s %s %u items\n", workloadId.c_str(), implName.c_str(), count);
			return 0;
		}
	}
}

int main(int argc, char **argv)
{
	using namespace OxBench;
	Orvex::Profiler::MainEngineProfiler()->SetEnabled(false);

	if (argc >= 2 && std::string(argv[1]) == "--list")
		return ListWorkloads();
	if (argc >= 2 && std::string(argv[1]) == "--caches")
	{
		std::printf("%s\n", DataCaches().c_str());
		return 0;
	}
	if (argc >= 2 && std::string(argv[1]) == "--icount")
	{
		if (argc != 5)
		{
			std::fprintf(stderr, "usage: ox_bench --icount <workload> <implementation> <count>\n");
			return 2;
		}
		return InstructionCount(argv[2], argv[3], argv[4]);
	}

	if (argc >= 2 && std::string(argv[1]) == "--dump")
	{
		if (argc != 5 || std::string(argv[2]) != "W12")
		{
			std::fprintf(stderr, "usage: ox_bench --dump W12 <count> <directory>\n");
			return 2;
		}
		CWorkload w(Workload_W12, std::uint32_t(std::strtoul(argv[3], nullptr, 10)));
		const std::string error = w.DumpParticles(argv[4]);
		if (!error.empty())
		{
			std::fprintf(stderr, "ox_bench: --dump: %s\n", error.c_str());
			return 1;
		}
		return 0;
	}

	benchmark::AddCustomContext("compiler", "g++ " __VERSION__);
	benchmark::AddCustomContext("eigen", EigenVersion());
	benchmark::AddCustomContext("libdivide", LibdivideVersion());
	benchmark::AddCustomContext("profiler", "disabled (enabled only for W11/standard_profiler)");
	benchmark::AddCustomContext("data_caches", DataCaches());
	benchmark::AddCustomContext("kernel_sets", KernelSets());
	RegisterAll();
	benchmark::Initialize(&argc, argv);
	if (benchmark::ReportUnrecognizedArguments(argc, argv))
		return 1;
	benchmark::RunSpecifiedBenchmarks();
	benchmark::Shutdown();
	return 0;
}
