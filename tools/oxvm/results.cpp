#include "results.h"

#include "numbers.h"

#include <fmt/format.h>

#include <algorithm>
#include <cerrno>
#include <cmath>
#include <cstring>
#include <iterator>
#include <limits>

namespace OxVm
{
	namespace
	{
		constexpr u32 kShown = 3;	// elements shown at each end
		constexpr u32 kProgressElements = 1u << 16;	// elements (or rows) between two progress calls
		const char *const kComponentNames[4] = {"x", "y", "z", "w"};

		std::string Element(const u32 *words, u32 components, EElementKind kind)
		{
			if (components == 1)
				return FormatWord(words[0], kind);
			std::string text = "(";
			for (u32 c = 0; c < components; ++c)
				text += (c == 0 ? "" : ", ") + FormatWord(words[c], kind);
			return text + ")";
		}

		std::string Elements(const u32 *words, u32 first, u32 end, u32 components, EElementKind kind)
		{
			std::string text;
			for (u32 i = first; i < end; ++i)
				text += (i == first ? "" : "  ") + Element(words + std::size_t(i) * components, components, kind);
			return text;
		}

		u64 Fnv1a(const u32 *words, std::size_t count)
		{
			u64 hash = 0xcbf29ce484222325ull;
			const u8 *bytes = reinterpret_cast<const u8 *>(words);
			for (std::size_t i = 0; i < count * 4; ++i)
				hash = (hash ^ bytes[i]) * 0x100000001b3ull;
			return hash;
		}

		// min, max, mean of one component; "n/a" when it has no number.
		// 'progress' hears each kProgressElements elements gone through, from 'done' of 'total'.
		std::string ComponentStats(const u32 *words, u32 count, u32 components, u32 component, EElementKind kind, CProgress *progress, u64 done, u64 total)
		{
			double lo = std::numeric_limits<double>::infinity(), hi = -lo, sum = 0;
			u32 numbers = 0, nans = 0, trues = 0;
			for (u32 i = 0; i < count; ++i)
			{
				if (progress != nullptr && i % kProgressElements == kProgressElements - 1)
					progress->Update(done + i, total);
				const u32 word = words[std::size_t(i) * components + component];
				double value = double(s32(word));
				if (kind == ElementKind_Float)
				{
					float f;
					std::memcpy(&f, &word, 4);
					value = f;
				}
				trues += word != 0 ? 1 : 0;
				if (value != value)
				{
					++nans;
					continue;
				}
				lo = std::min(lo, value);
				hi = std::max(hi, value);
				sum += value;
				++numbers;
			}
			if (kind == ElementKind_Bool)
				return fmt::format("true {}/{}", trues, count);
			if (numbers == 0)
				return fmt::format("all NaN ({})", nans);
			std::string text = kind == ElementKind_Float ? fmt::format("min {} max {} mean {:.6g}", float(lo), float(hi), sum / numbers)
													   : fmt::format("min {} max {} mean {:.6g}", s64(lo), s64(hi), sum / numbers);
			return nans != 0 ? text + fmt::format(" (NaN {})", nans) : text;
		}

		// A cell of the CSV output. FormatWord keeps a NaN's bits as 0x........, which
		// spreadsheets and data libraries do not read as a number: here a NaN is "nan"
		// (its sign and payload dropped) and infinities are "inf" and "-inf", as those
		// tools write them. 'floatBits' writes every float as its word instead, which
		// csv() reads back bit for bit. Ints and bools are exact either way.
		void AppendCsvCell(std::string &row, u32 word, EElementKind kind, bool floatBits)
		{
			row += ',';
			if (kind == ElementKind_Float && floatBits)
				fmt::format_to(std::back_inserter(row), "{:#010x}", word);
			else if (kind == ElementKind_Float && (word & 0x7F800000u) == 0x7F800000u && (word & 0x007FFFFFu) != 0)
				row += "nan";
			else
				row += FormatWord(word, kind);
		}

		std::string Title(const SProgram &program, s32 index)
		{
			const SRegisterDecl &decl = program.m_Registers[std::size_t(index)];
			return fmt::format("{} ({}, {} element{})", program.RegisterText(index), InlineRegisterText(decl.m_Bits), decl.m_Count, decl.m_Count == 1 ? "" : "s");
		}
	}

	std::vector<s32> WrittenRegisters(const SProgram &program)
	{
		std::vector<s32> written;
		std::vector<bool> seen(program.m_Registers.size());
		for (const SInstruction &instruction : program.m_Instructions)
		{
			const std::size_t dst = std::size_t(instruction.m_Dst.m_Register);
			if (!seen[dst])
				written.push_back(instruction.m_Dst.m_Register);
			seen[dst] = true;
		}
		return written;
	}

	void PrintRegisterStats(std::FILE *out, const SProgram &program, const CRegisterFile &file, const std::vector<s32> &registers, CProgress *progress)
	{
		// Counted in elements per component: each component's statistics go through every
		// element once (the checksum's pass is not counted: it is the fast part).
		u64 total = 0, done = 0;
		for (s32 index : registers)
			total += u64(program.m_Registers[std::size_t(index)].m_Count) * TypeInfo(program.m_Registers[std::size_t(index)].Type()).m_Components;
		if (progress != nullptr)
			progress->Begin("summary: statistics", "", total);
		for (s32 index : registers)
		{
			const SRegisterDecl &decl = program.m_Registers[std::size_t(index)];
			const STypeInfo type = TypeInfo(decl.Type());
			const u32 *words = file.Words(program, index);
			const u32 count = decl.m_Count;
			// A register's lines are made first, then printed at once: the bar leaves the
			// terminal only for as long as it takes to print them.
			std::string text = fmt::format("  {}\n", Title(program, index));
			if (count <= 2 * kShown)
				text += fmt::format("    values    {}\n", Elements(words, 0, count, type.m_Components, type.m_Kind));
			else
			{
				text += fmt::format("    first     {}\n", Elements(words, 0, kShown, type.m_Components, type.m_Kind));
				text += fmt::format("    last      {}\n", Elements(words, count - kShown, count, type.m_Components, type.m_Kind));
			}
			for (u32 c = 0; c < type.m_Components; ++c, done += count)
				text += fmt::format("    {:<9} {}\n", type.m_Components == 1 ? "stats" : kComponentNames[c],
									ComponentStats(words, count, type.m_Components, c, type.m_Kind, progress, done, total));
			text += fmt::format("    checksum  {:016x}\n", Fnv1a(words, std::size_t(count) * type.m_Components));
			if (progress != nullptr)
				progress->Clear();
			std::fputs(text.c_str(), out);
			if (progress != nullptr)
				progress->Update(done, total);
		}
		if (progress != nullptr)
			progress->End();
	}

	void DumpRegisters(std::FILE *out, const SProgram &program, const CRegisterFile &file, const std::vector<s32> &registers, CProgress *progress)
	{
		u64 total = 0, done = 0;
		for (s32 index : registers)
			total += program.m_Registers[std::size_t(index)].m_Count;
		if (progress != nullptr)
			progress->Begin("summary: dumps", "", total);
		for (s32 index : registers)
		{
			const SRegisterDecl &decl = program.m_Registers[std::size_t(index)];
			const STypeInfo type = TypeInfo(decl.Type());
			const u32 *words = file.Words(program, index);
			if (progress != nullptr)
				progress->Clear();
			fmt::print(out, "dump {}\n", Title(program, index));
			for (u32 i = 0; i < decl.m_Count; ++i)
			{
				// Each line goes to stdout, maybe the bar's terminal: the bar leaves it first
				// (nothing to do unless the bar is drawn there) and is drawn again under the
				// lines at most ten times a second.
				if (progress != nullptr)
					progress->Clear();
				fmt::print(out, "  [{}] {}\n", i, Element(words + std::size_t(i) * type.m_Components, type.m_Components, type.m_Kind));
				if (progress != nullptr)
					progress->Update(++done, total);
			}
		}
		if (progress != nullptr)
			progress->End();
	}

	bool WriteCsv(std::FILE *out, const SProgram &program, const CRegisterFile &file, const std::vector<s32> &registers, u32 elements, bool floatBits,
				  CProgress *progress, std::string_view name)
	{
		// Rows to stdout ('--csv -') may share the bar's terminal: the bar leaves it
		// before each row there, as for dumps.
		const bool shared = out == stdout;
		if (progress != nullptr)
			progress->Begin(fmt::format("summary: writing {}", name), "row", elements);
		std::string header = "element";
		for (s32 index : registers)
		{
			const u32 components = TypeInfo(program.m_Registers[std::size_t(index)].Type()).m_Components;
			for (u32 c = 0; c < components; ++c)
				header += "," + program.RegisterText(index) + (components == 1 ? "" : std::string(".") + kComponentNames[c]);
		}
		if (progress != nullptr && shared)
			progress->Clear();
		fmt::print(out, "{}\n", header);
		std::string row;
		for (u32 i = 0; i < elements; ++i)
		{
			row = fmt::format("{}", i);
			for (s32 index : registers)
			{
				const SRegisterDecl &decl = program.m_Registers[std::size_t(index)];
				const STypeInfo type = TypeInfo(decl.Type());
				const u32 *element = file.Words(program, index) + std::size_t(IsPerElement(decl.Bank()) ? i : 0) * type.m_Components;
				for (u32 c = 0; c < type.m_Components; ++c)
					AppendCsvCell(row, element[c], type.m_Kind, floatBits);
			}
			row += "\n";
			if (progress != nullptr && shared)
				progress->Clear();
			std::fputs(row.c_str(), out);
			if (progress != nullptr && (shared || i % kProgressElements == kProgressElements - 1))
				progress->Update(u64(i) + 1, elements);
		}
		if (progress != nullptr)
		{
			progress->Update(elements, elements);
			progress->End();
		}
		return std::ferror(out) == 0;
	}
}
