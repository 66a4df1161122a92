#include "register_file.h"

#include <fmt/format.h>

#include <cmath>
#include <cstdio>
#include <cstring>
#include <random>

namespace OxVm
{
	namespace
	{
		// mt19937's output sequence is fixed by the standard, and the mappings below are
		// ours, so a seed gives the same values with any standard library.
		float RandomFloat(std::mt19937 &rng, double lo, double hi)
		{
			const double unit = double(rng() >> 8) * (1.0 / 16777216.0);	// [0, 1), 24 bits
			const float value = float(lo + (hi - lo) * unit);
			return value >= float(hi) && hi > lo ? std::nextafter(float(hi), float(lo)) : value;
		}

		u32 RandomInt(std::mt19937 &rng, s64 lo, s64 hi)
		{
			const u64 range = u64(hi - lo) + 1;	// up to 2^33: hi and lo are 64-bit
			// The high word is drawn first, in its own statement: the operands of | may be
			// evaluated in either order, and a seed must give the same values on every
			// machine and compiler.
			const u64 high = rng();
			const u64 draw = (high << 32 | rng()) % range;
			return u32(u64(lo) + draw);
		}

		constexpr std::size_t kProgressWords = 1u << 18;	// words between two progress calls

		u64 WordsOf(const SRegisterDecl &decl)
		{
			return u64(decl.m_Count) * TypeInfo(decl.Type()).m_Components;
		}

		// 'done' and 'total': progress of the whole set-up, in words.
		void Fill(const SRegisterDecl &decl, u32 *words, std::mt19937 &rng, const CRegisterFile::FnProgress &progress, u64 done, u64 total)
		{
			const STypeInfo type = TypeInfo(decl.Type());
			const std::size_t count = std::size_t(decl.m_Count) * type.m_Components;
			const SInitialiser &init = decl.Init();
			const bool isFloat = type.m_Kind == ElementKind_Float;
			for (std::size_t w = 0; w < count; ++w)
			{
				if (w % kProgressWords == kProgressWords - 1 && progress)
					progress(done + w, total);
				const std::size_t element = w / type.m_Components;
				float f = 0.0f;
				u32 word = 0;
				switch (init.m_Kind)
				{
				case Init_Zero:
					break;
				case Init_Literal:
					word = init.m_Words[w % init.m_Words.size()];
					break;
				case Init_Csv:
					word = init.m_CsvWords[w];
					break;
				case Init_Ramp:
					f = float(init.m_FloatArgs[0] + double(element) * init.m_FloatArgs[1]);
					word = u32(u64(init.m_IntArgs[0]) + u64(element) * u64(init.m_IntArgs[1]));	// wraps, as int arithmetic does
					break;
				case Init_Random:
					if (isFloat)
						f = RandomFloat(rng, init.m_FloatArgs[0], init.m_FloatArgs[1]);
					else
						word = RandomInt(rng, init.m_IntArgs[0], init.m_IntArgs[1]);
					break;
				}
				if (isFloat && (init.m_Kind == Init_Ramp || init.m_Kind == Init_Random))
					std::memcpy(&word, &f, 4);
				words[w] = word;
			}
		}
	}

	bool CRegisterFile::_Allocate(const SProgram &program, u32 elements, std::string &error, const FnProgress &progress, u64 total)
	{
		u64 done = 0;
		u32 slots = 0;
		for (const SRegisterDecl &decl : program.m_Registers)
			slots = std::max(slots, decl.Slot() + 1);
		if (!m_Storage.Reset(slots))
		{
			error = fmt::format("out of memory: cannot allocate a register table of {} slots", slots);
			return false;
		}
		for (const SRegisterDecl &decl : program.m_Registers)
		{
			if (!m_Storage.AllocateElements(CVMRegID{s32(decl.m_Bits)}, decl.m_Count))
			{
				error = fmt::format("out of memory: cannot allocate {} elements of {} for register '{}'", decl.m_Count, BaseTypeName(decl.Type()),
									program.RegisterText(program.FindByBits(decl.m_Bits)));
				return false;
			}
			done += WordsOf(decl);
			if (progress)
				progress(done, total);
		}
		m_Storage.Registers().m_StreamDimensions = elements;
		return true;
	}

	bool CRegisterFile::Build(const SProgram &program, u32 elements, u32 seed, std::string &error, const FnProgress &progress)
	{
		// Allocation (the storage is zero-filled) and filling both touch every word.
		u64 words = 0;
		for (const SRegisterDecl &decl : program.m_Registers)
			words += WordsOf(decl);
		if (!_Allocate(program, elements, error, progress, 2 * words))
			return false;
		std::mt19937 rng(seed);
		u64 done = words;
		for (std::size_t i = 0; i < program.m_Registers.size(); ++i)
		{
			Fill(program.m_Registers[i], Words(program, s32(i)), rng, progress, done, 2 * words);
			done += WordsOf(program.m_Registers[i]);
		}
		if (progress)
			progress(done, 2 * words);
		return true;
	}

	u64 CRegisterFile::BytesNeeded(const SProgram &program)
	{
		u64 bytes = 0;
		for (const SRegisterDecl &decl : program.m_Registers)
			bytes += CRegisterStorage::CapacityFor(ElementSize(decl.Type()) * decl.m_Count);
		return bytes;
	}

	u64 AvailableMemory()
	{
		u64 available = ~u64(0);
		if (std::FILE *info = std::fopen("/proc/meminfo", "r"))
		{
			char line[256];
			unsigned long long kb = 0;
			while (std::fgets(line, sizeof(line), info) != nullptr)
				if (std::sscanf(line, "MemAvailable: %llu kB", &kb) == 1)
					available = u64(kb) * 1024;
			std::fclose(info);
		}
		return available;
	}

	bool CRegisterFile::CopyFrom(const SProgram &program, const CRegisterFile &other, std::string &error)
	{
		if (!_Allocate(program, other.m_Storage.Registers().m_StreamDimensions, error))
			return false;
		for (std::size_t i = 0; i < program.m_Registers.size(); ++i)
			std::memcpy(Words(program, s32(i)), other.Words(program, s32(i)), std::size_t(WordCount(program, s32(i))) * 4);
		return true;
	}

	u32 *CRegisterFile::Words(const SProgram &program, s32 index) const
	{
		return m_Storage.DataAs<u32>(CVMRegID{s32(program.m_Registers[std::size_t(index)].m_Bits)});
	}

	u32 CRegisterFile::WordCount(const SProgram &program, s32 index) const
	{
		return m_Storage.Size(CVMRegID{s32(program.m_Registers[std::size_t(index)].m_Bits)}) / 4;
	}
}
