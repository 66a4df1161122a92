#include "run_options.h"

#include "cbvm_batch_plan.h"

#include <fmt/format.h>

#include <algorithm>

namespace OxVm
{
	namespace
	{
		// --dump or --scratch names -> registers; false after reporting an unknown one.
		bool FindRegisters(const SProgram &program, const char *option, const std::vector<std::string> &names, std::vector<s32> &registers)
		{
			for (const std::string &name : names)
			{
				s32 index = program.FindByName(name);
				for (std::size_t i = 0; index < 0 && i < program.m_Registers.size(); ++i)
					if (InlineRegisterText(program.m_Registers[i].m_Bits) == name)
						index = s32(i);
				if (index < 0)
				{
					fmt::print(stderr, "oxvm: error: {}: no register named '{}'\n", option, name);
					return false;
				}
				registers.push_back(index);
			}
			return true;
		}

		// A scratch register is a per-element temporary whose values are not kept: one
		// that holds a single value cannot be one, and one cannot be dumped. Refused here
		// whatever the stream size, not only when the run turns out batched.
		bool ScratchUsable(const SProgram &program, const std::vector<s32> &dumped, const std::vector<s32> &scratch)
		{
			for (s32 index : scratch)
			{
				if (!IsPerElement(program.m_Registers[std::size_t(index)].Bank()))
				{
					fmt::print(stderr, "oxvm: error: --scratch: '{}' is a one-element register: only instance and stream registers can be scratch\n", program.RegisterText(index));
					return false;
				}
				if (std::find(dumped.begin(), dumped.end(), index) != dumped.end())
				{
					fmt::print(stderr, "oxvm: error: --dump: '{}' is a --scratch register: its values are not kept (leave it out of --scratch to dump it)\n", program.RegisterText(index));
					return false;
				}
			}
			return true;
		}

		// Options that change nothing in this run, or are changed, are said to.
		void WarnAboutOptions(const SRunCommand &options)
		{
			if (options.m_Isa != "auto" && !options.m_Compare && options.m_Path == "low")
				fmt::print(stderr, "oxvm: warning: --isa {} does nothing with --path low: kernel sets are the standard path's\n", options.m_Isa);
			if (options.m_ThreadsGiven && options.m_Batch == 0)
				fmt::print(stderr, "oxvm: warning: --threads {} does nothing with --batch 0: a whole-stream run runs on one thread\n", options.m_Threads);
			constexpr u32 granule = CBVM::CBatchPlan::kBatchGranule;
			const u32 batch = options.m_Batch;
			if (batch != 0 && batch != CBVM::CBatchPlan::kDefaultBatch && batch % granule != 0)
				fmt::print(stderr, "oxvm: note: --batch {} is rounded up to {}: batches are multiples of {} elements\n", batch, u64(batch + granule - 1) / granule * granule, granule);
		}
	}

	bool ResolveRunOptions(const SRunCommand &options, const SProgram &program, std::vector<s32> &dumped, std::vector<s32> &scratch)
	{
		if (!FindRegisters(program, "--dump", options.m_Dump, dumped) || !FindRegisters(program, "--scratch", options.m_Scratch, scratch))
			return false;
		if (!ScratchUsable(program, dumped, scratch))
			return false;
		WarnAboutOptions(options);
		return true;
	}
}
