#pragma once
// Shared by the fuzz targets: an assertion handler that counts reports, a failure that
// libFuzzer records as a crash, and a register file built from fuzz input.

#include "cbvm_interpreter.h"
#include "cbvm_meta_ops.h"
#include "cbvm_registers.h"
#include "kr_assert.h"

#include <cstdio>
#include <cstdlib>
#include <cstring>

namespace OxFuzz
{
	using namespace Orvex;

	// Reports since the last Reset; the handler answers "continue" so no site is silenced
	// (a silenced site would hide the next input's report).
	struct SReports
	{
		static u64 &Count()
		{
			static u64 s_Count = 0;
			return s_Count;
		}
		static const char *&Last()
		{
			static const char *s_Last = "";
			return s_Last;
		}
		static int Handler(const Assert::SReport &report)
		{
			++Count();
			Last() = report.m_Expression;
			return Assert::Answer_Continue;
		}
		static void Install() { Assert::SetHandler(&Handler); }
		static void Reset()
		{
			Count() = 0;
			Last() = "";
		}
	};

	// A property broken: print it and abort, which libFuzzer saves as a crash input.
	[[noreturn]] inline void Fail(const char *what, const char *detail = "")
	{
		std::fprintf(stderr, "FUZZ PROPERTY BROKEN: %s %s\n", what, detail);
		std::abort();
	}

	// Reads the fuzz input front to back; past the end it gives zeros.
	class CInput
	{
	public:
		CInput(const u8 *data, std::size_t size) : m_Data(data), m_Size(size) {}
		u8 Byte() { return m_At < m_Size ? m_Data[m_At++] : 0; }
		u32 Word()
		{
			u32 value = 0;
			for (int i = 0; i < 4; ++i)
				value |= u32(Byte()) << (8 * i);
			return value;
		}
		const u8 *Rest() const { return m_Data + (m_At < m_Size ? m_At : m_Size); }
		std::size_t RestSize() const { return m_At < m_Size ? m_Size - m_At : 0; }

	private:
		const u8 *m_Data;
		std::size_t m_Size;
		std::size_t m_At = 0;
	};

	// A register file the fuzzer shapes: per (slot, bank) entry no storage, or a block of
	// some size, aligned or deliberately not, holding words of a chosen pattern. Blocks
	// keep the padding of CRegisterStorage (32 bytes past the size, rounded to 32).
	class CFuzzRegisters
	{
	public:
		static constexpr u32 kMaxSlots = 4;
		static constexpr u32 kEntries = kMaxSlots * CCBCPUMetaRegisters::kBanksPerSlot;

		CFuzzRegisters() { m_Registers.m_Registers = m_Table; }
		CFuzzRegisters(const CFuzzRegisters &) = delete;
		CFuzzRegisters &operator=(const CFuzzRegisters &) = delete;
		~CFuzzRegisters()
		{
			for (const SBlock &block : m_Blocks)
				std::free(block.m_Base);
		}

		// Reads slot count, stream size and two bytes per entry (size class, alignment,
		// pattern) from 'input'.
		void Build(CInput &input)
		{
			m_Slots = 1 + input.Byte() % kMaxSlots;
			const u8 dims = input.Byte();
			m_Registers.m_StreamDimensions = dims < 200 ? dims % 70 : 70 + u32(dims) * 3;
			const u32 n = m_Registers.m_StreamDimensions;
			for (u32 e = 0; e < m_Slots * CCBCPUMetaRegisters::kBanksPerSlot; ++e)
			{
				const u8 shape = input.Byte();
				const u8 pattern = input.Byte();
				// Sizes around what a stream of any type needs, and a few fixed ones.
				const u32 sizes[8] = {0, 4, 16, 48, n * 16, n * 16 > 4 ? n * 16 - 4 : 0, n * 4, n * 12};
				const u32 sizeClass = shape & 7;
				if (sizeClass == 0 && (shape & 0x80) != 0)
					continue;	// no storage
				const u32 skew = (shape & 0x40) != 0 ? ((shape >> 3) & 3) * 4 + 4 : 0;	// 4..16 bytes off 32
				_Allocate(e, sizes[sizeClass], skew);
				u32 *words = reinterpret_cast<u32 *>(m_Blocks[e].m_Base);
				for (u32 w = 0; w < m_Blocks[e].m_Capacity / 4; ++w)
					words[w] = PatternWord(pattern, w);
			}
		}

		// Same shape and contents as 'other'.
		void CopyFrom(const CFuzzRegisters &other)
		{
			m_Slots = other.m_Slots;
			m_Registers.m_StreamDimensions = other.m_Registers.m_StreamDimensions;
			for (u32 e = 0; e < kEntries; ++e)
				if (other.m_Blocks[e].m_Base != nullptr)
				{
					_Allocate(e, other.m_Table[e].m_Size, other.m_Blocks[e].m_Skew);
					std::memcpy(m_Blocks[e].m_Base, other.m_Blocks[e].m_Base, m_Blocks[e].m_Capacity);
				}
		}

		static u32 PatternWord(u8 pattern, u32 w)
		{
			switch (pattern & 7)
			{
			case 0: return 0;
			case 1: return w % 7;					// small ints, shift counts 0..6
			case 2: return 32u + (pattern >> 3);	// one count above 31 everywhere
			case 3: return 0x3F800000u + (w << 16);	// floats around 1
			case 4: return 0x80000000u;				// INT_MIN, -0.0f
			case 5: return (w & 1) != 0 ? 0xFFFFFFFFu : u32(pattern);
			case 6: return w * 2654435761u;			// mixed bits, NaNs included
			default: return u32(pattern) * 0x01010101u;
			}
		}

		CCBCPUMetaRegisters &Registers() { return m_Registers; }
		u32 Slots() const { return m_Slots; }
		// The entry's whole block (padding included), for comparing two files.
		const u8 *Block(u32 e) const { return m_Blocks[e].m_Base; }
		u32 Capacity(u32 e) const { return m_Blocks[e].m_Capacity; }

	private:
		struct SBlock
		{
			u8 *m_Base = nullptr;
			u32 m_Skew = 0;
			u32 m_Capacity = 0;
		};

		// 'size' usable bytes 'skew' bytes past a 32-byte boundary, then the padding.
		void _Allocate(u32 e, u32 size, u32 skew)
		{
			const u32 capacity = (skew + size + 32 + 31) / 32 * 32;
			m_Blocks[e] = {static_cast<u8 *>(std::aligned_alloc(32, capacity)), skew, capacity};
			m_Table[e] = {m_Blocks[e].m_Base + skew, size};
		}

		CCBCPUMetaRegisters m_Registers;
		CCBCPUMetaRegisters::SRegister m_Table[kEntries] = {};
		SBlock m_Blocks[kEntries];
		u32 m_Slots = 0;
	};

	// Runs bytecode on one path over 'registers'; the interpreter's result.
	inline CBVM::SRunResult Run(CCBCPUMetaRegisters &registers, const u8 *bytecode, u32 size, CBVM::EExecPath path)
	{
		CCompilerBackendCPUProgram_VM program;
		CRuntimeCPUBindings bindings;
		SCompilerCPUDebugCtx debugCtx;
		const CBytecodeExecContext context(&program, bindings, registers, debugCtx);
		return CBVM::CInterpreter::Run(context, bytecode, size, path);
	}
}
