#pragma once
// Number words of the text format and of CSV cells, parsed exactly and without locale:
//   floats: decimal or exponent form, nan, inf, -inf; 0x........ gives the raw bits
//   ints:   decimal in [-2^31, 2^31 - 1], or 0x0 .. 0xffffffff (two's complement bits)
//   bools:  true (all bits set), false (0), or any int form

#include "value_types.h"

#include <string>
#include <string_view>

namespace OxVm
{
	// One 32-bit word of a register of 'kind'. On failure 'error' says why.
	bool ParseWord(std::string_view text, EElementKind kind, u32 &word, std::string &error);

	// Arguments of ramp() and random(): any decimal number for floats, a 64-bit integer
	// (decimal or hex) for ints and bools.
	bool ParseDouble(std::string_view text, double &value);
	bool ParseInt64(std::string_view text, s64 &value);

	// A 1-based count or index, 1 .. 'max'.
	bool ParseCount(std::string_view text, u64 max, u32 &value);

	// A word as text: shortest round-trip floats, decimal ints, true/false for bool masks.
	std::string FormatWord(u32 word, EElementKind kind);
}
