// oxvm asm, oxvm disasm, oxvm example.

#include "assembler.h"
#include "bundled_example.h"
#include "commands.h"
#include "output_file.h"
#include "program_loader.h"
#include "source_file.h"
#include "verification.h"

#include <fmt/format.h>

namespace OxVm
{
	namespace
	{
		// Re-assembles a listing of raw bytecode; empty when it gives 'bytes' back,
		// otherwise the reason.
		std::string RoundTripProblem(const std::string &listing, const std::string &bytes)
		{
			std::string messages;
			CDiagnostics diagnostics(nullptr);
			diagnostics.CaptureInto(&messages);
			SProgram program;
			if (!ParseProgram(listing, "listing", program, diagnostics) || !CheckProgram(program, 0, diagnostics))
			{
				diagnostics.Flush();
				return messages.substr(0, messages.find('\n'));
			}
			const std::vector<u8> again = Assemble(program);
			return std::string(again.begin(), again.end()) == bytes ? std::string() : std::string("it assembles to other bytes");
		}
	}

	int CommandAsm(const std::string &programPath, const std::string &outputPath)
	{
		// The output is opened first: a path that cannot be written stops here.
		COutputFile output;
		std::string error;
		if (!output.Open(outputPath, error))
		{
			fmt::print(stderr, "oxvm: error: {}\n", error);
			return Exit_BadInput;
		}
		SProgram program;
		if (!LoadProgram(programPath, 0, program))
			return Exit_BadInput;
		const std::vector<u8> bytecode = Assemble(program);
		const bool wrote = std::fwrite(bytecode.data(), 1, bytecode.size(), output.Stream()) == bytecode.size();
		if (!output.Commit(error) || !wrote)
		{
			fmt::print(stderr, "oxvm: error: {}\n", error.empty() ? fmt::format("cannot write '{}'", outputPath) : error);
			return Exit_RunFailed;
		}
		// (On standard error when the bytecode itself went to standard output.)
		fmt::print(outputPath == "-" ? stderr : stdout, "{}: {} instructions, {} bytes of bytecode -> {}\n", programPath, program.m_Instructions.size(), bytecode.size(), outputPath);
		return Exit_Ok;
	}

	int CommandDisasm(const std::string &path, EInputFormat format)
	{
		std::string bytes;
		std::string error;
		if (!ReadFile(path, bytes, error))
		{
			fmt::print(stderr, "oxvm: error: {}\n", error);
			return Exit_BadInput;
		}
		if (bytes.empty())
		{
			fmt::print(stderr, "{}: error: empty file: no program and no bytecode\n", path);
			return Exit_BadInput;
		}
		const bool text = format == Input_Text || (format == Input_Auto && LooksLikeText(bytes));
		if (text)
		{
			SProgram program;
			if (!LoadProgram(path, 0, program))
				return Exit_BadInput;
			const std::vector<u8> bytecode = Assemble(program);
			fmt::print("{}", Disassemble(bytecode.data(), u32(bytecode.size()), &program).m_Text);
			std::fflush(stdout);
			return VerifyForListing(path, bytecode.data(), u32(bytecode.size()), u32(bytecode.size())) ? Exit_Ok : Exit_BadInput;
		}
		const u8 *data = reinterpret_cast<const u8 *>(bytes.data());
		const SDisassembly listing = Disassemble(data, u32(bytes.size()), nullptr);
		fmt::print("{}", listing.m_Text);
		std::fflush(stdout);
		// What the VM would refuse in the bytes decoded so far (the listing's own stop is reported below).
		const bool verified = VerifyForListing(path, data, u32(bytes.size()), listing.m_Ok ? u32(bytes.size()) : listing.m_ErrorOffset);
		if (!listing.m_Ok)
		{
			fmt::print(stderr, "{}: error: offset {}: {}\n", path, listing.m_ErrorOffset, listing.m_Error);
			return Exit_BadInput;
		}
		if (!verified)
			return Exit_BadInput;
		const std::string problem = RoundTripProblem(listing.m_Text, bytes);
		if (!problem.empty())
			fmt::print(stderr, "{}: warning: this listing does not assemble back to the same bytes: {}\n", path, problem);
		return Exit_Ok;
	}

	int CommandExample()
	{
		fmt::print("{}", kBundledExampleText);
		return Exit_Ok;
	}
}
