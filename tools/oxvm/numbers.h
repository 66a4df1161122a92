#pragma once
// Number words of the text format and of CSV cells, parsed exactly and without locale:
//   floats: decimal or exponent form, nan, inf, -inf; 0x........ gives the raw bits.
//           A number is rounded to the nearest float, as the C library does: one too
//           small for a float (1e-50) becomes the nearest one (a subnormal, or zero of
//           its sign); one beyond the largest float (1e39) is an error, never an
//           infinity (write inf for that).
//   ints:   decimal in [-2^31, 2^31 - 1], or 0x0 .. 0xffffffff (two's complement bits)
//   bools:  true (all bits set), false (0), or any int form

#include "value_types.h"

#include <string>
#include <string_view>

namespace OxVm
{
	// One 32-bit word of a register of 'kind'. On failure 'error' says why.
	bool ParseWord(std::string_view text, EElementKind kind, u32 &word, std::string &error);

	// Arguments of ramp() and random() on float registers: kept as doubles (ramp steps
	// are summed in double precision), under the float rule above: 1e-50 is taken,
	// 1e39 is refused. On failure 'error' says why (empty: not a number at all).
	bool ParseFloatArgument(std::string_view text, double &value, std::string &error);
	// Arguments of ramp() and random() on int and bool registers: a 64-bit integer
	// (decimal or hex).
	bool ParseInt64(std::string_view text, s64 &value);

	// A 1-based count or index, 1 .. 'max'.
	bool ParseCount(std::string_view text, u64 max, u32 &value);

	// A word as text: shortest round-trip floats, decimal ints, true/false for bool masks.
	std::string FormatWord(u32 word, EElementKind kind);
}
