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
		// Re-assembles one piece of a listing of raw bytecode (with the listing's head);
		// empty when it gives its bytes back, otherwise the reason.
		std::string RoundTripProblem(const std::string &head, std::string_view piece, const u8 *bytes, u32 size)
		{
			std::string messages;
			CDiagnostics diagnostics(nullptr);
			diagnostics.CaptureInto(&messages);
			SProgram program;
			std::string listing = head;
			listing.append(piece);
			if (!ParseProgram(listing, "listing", program, diagnostics) || !CheckProgram(program, 0, diagnostics))
			{
				diagnostics.Flush();
				return messages.substr(0, messages.find('\n'));
			}
			return AssemblesTo(program, bytes, size) ? std::string() : std::string("it assembles to other bytes");
		}
	}

	int CommandAsm(const std::string &programPath, const std::string &outputPath)
	{
		// The output is opened first: a path that cannot be written stops here, and so
		// does the program itself (asm p.oxs -o p.oxs would replace it).
		COutputFile output;
		std::string error;
		if (!OutputSparesInput("-o", outputPath, programPath, "the program"))
			return Exit_BadInput;
		if (!output.Open(outputPath, error))
		{
			fmt::print(stderr, "oxvm: error: {}\n", error);
			return Exit_BadInput;
		}
		SProgram program;
		if (!LoadProgram(programPath, 0, /*acceptBytecode*/ false, program))
			return Exit_BadInput;
		const std::vector<u8> bytecode = Assemble(program);
		const bool wrote = std::fwrite(bytecode.data(), 1, bytecode.size(), output.Stream()) == bytecode.size();
		if (!output.Commit(error) || !wrote)
		{
			fmt::print(stderr, "oxvm: error: {}\n", error.empty() ? fmt::format("cannot write '{}'", outputPath) : error);
			return Exit_RunFailed;
		}
		// (On standard error when the bytecode itself went to standard output.)
		fmt::print(outputPath == "-" ? stderr : stdout, "{}: {} instructions, {} bytes of bytecode -> {}\n", Printable(InputName(programPath)), program.m_Instructions.size(), bytecode.size(), outputPath);
		return Exit_Ok;
	}

	int CommandDisasm(const std::string &path, EInputFormat format, u32 elements)
	{
		std::string bytes;
		if (!ReadInput(path, bytes))
			return Exit_BadInput;
		const std::string name = InputName(path);
		if (bytes.empty())
		{
			fmt::print(stderr, "{}: error: empty file: no program and no bytecode\n", Printable(name));
			return Exit_BadInput;
		}
		const bool text = format == Input_Text || (format == Input_Auto && LooksLikeText(bytes));
		if (text)
		{
			SProgram program;
			if (!LoadProgramText(std::move(bytes), name, elements, program))
				return Exit_BadInput;
			if (elements != 0)
				program.m_Stream = elements;	// the listing runs as checked
			const std::vector<u8> bytecode = Assemble(program);
			Disassemble(bytecode.data(), u32(bytecode.size()), &program, [](std::string_view text, u32, u32) { std::fwrite(text.data(), 1, text.size(), stdout); });
			std::fflush(stdout);
			return VerifyForListing(name, bytecode.data(), u32(bytecode.size()), u32(bytecode.size())) ? Exit_Ok : Exit_BadInput;
		}
		const u8 *data = reinterpret_cast<const u8 *>(bytes.data());
		// The listing goes out a piece at a time, each piece assembled back as it goes,
		// so that a large file never has its whole listing in memory.
		std::string head, problem;
		const SDisassembly listing = Disassemble(data, u32(bytes.size()), nullptr, [&](std::string_view text, u32 first, u32 end) {
			std::fwrite(text.data(), 1, text.size(), stdout);
			if (first == end)
				head = std::string(text);
			else if (problem.empty())
				problem = RoundTripProblem(head, text, data + first, end - first);
		}, elements);
		std::fflush(stdout);
		// What the VM would refuse in the bytes decoded so far (the listing's own stop is reported below).
		const bool verified = VerifyForListing(name, data, u32(bytes.size()), listing.m_Ok ? u32(bytes.size()) : listing.m_ErrorOffset);
		if (!listing.m_Ok)
		{
			fmt::print(stderr, "{}: error: offset {}: {}\n", Printable(name), listing.m_ErrorOffset, listing.m_Error);
			return Exit_BadInput;
		}
		if (!verified)
			return Exit_BadInput;
		// Pieces assemble alone; one register at two types in two pieces is caught here.
		SProgram whole;
		if (problem.empty())
			ProgramFromBytecode(data, u32(bytes.size()), name, whole, problem);	// (the reason, with its offset, goes to problem)
		if (!problem.empty())
			fmt::print(stderr, "{}: warning: this listing does not assemble back to the same bytes: {}\n", Printable(name), problem);
		return Exit_Ok;
	}

	int CommandExample()
	{
		fmt::print("{}", kBundledExampleText);
		return Exit_Ok;
	}
}
