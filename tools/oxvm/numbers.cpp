#include "numbers.h"

#include <fmt/format.h>

#include "diagnostics.h"

#include <charconv>
#include <cmath>
#include <cstdlib>
#include <cstring>
#include <limits>

namespace OxVm
{
	namespace
	{
		bool IsHex(std::string_view text)
		{
			return text.size() > 2 && text[0] == '0' && (text[1] == 'x' || text[1] == 'X');
		}

		bool ParseHex(std::string_view text, u64 &value)
		{
			const char *begin = text.data() + 2;
			const char *end = text.data() + text.size();
			const auto result = std::from_chars(begin, end, value, 16);
			return result.ec == std::errc() && result.ptr == end;
		}

		// from_chars takes no leading '+'; accept it, like a human would write it.
		std::string_view SkipPlus(std::string_view text)
		{
			return text.size() > 1 && text[0] == '+' && text[1] != '-' ? text.substr(1) : text;
		}

		enum ENumberParse : u8
		{
			Number_Ok,
			Number_Malformed,
			Number_TooLarge,
		};

		// The float rule of the text format (numbers.h): the nearest float, an overflow refused.
		ENumberParse ParseFloatText(std::string_view text, float &value)
		{
			const std::string_view digits = SkipPlus(text);
			const auto result = std::from_chars(digits.data(), digits.data() + digits.size(), value);
			if (digits.empty() || result.ptr != digits.data() + digits.size() || result.ec == std::errc::invalid_argument)
				return Number_Malformed;
			if (result.ec != std::errc::result_out_of_range)
				return Number_Ok;
			// Out of range either way: strtof rounds to nearest and tells an underflow (a
			// subnormal or zero) from an overflow (an infinity). The syntax is from_chars'
			// own, checked above, so the two read the same number.
			const float nearest = std::strtof(std::string(digits).c_str(), nullptr);
			if (std::isinf(nearest))
				return Number_TooLarge;
			value = nearest;
			return Number_Ok;
		}

		std::string OutOfRange(std::string_view text)
		{
			return fmt::format("number {} is beyond the float range (largest {}; write inf for an infinity)", Shown(text), std::numeric_limits<float>::max());
		}
	}

	bool ParseFloatArgument(std::string_view text, double &value, std::string &error)
	{
		float nearest = 0.0f;
		const ENumberParse parsed = ParseFloatText(text, nearest);
		if (parsed == Number_Malformed)
			return false;
		if (parsed == Number_TooLarge)
		{
			error = OutOfRange(text);
			return false;
		}
		// The double itself: the float is only the range check. A double underflow is its zero.
		const std::string_view digits = SkipPlus(text);
		const auto result = std::from_chars(digits.data(), digits.data() + digits.size(), value);
		if (result.ec == std::errc::result_out_of_range)
			value = double(nearest);
		return true;
	}

	bool ParseInt64(std::string_view text, s64 &value)
	{
		text = SkipPlus(text);
		if (IsHex(text))
		{
			u64 bits = 0;
			if (!ParseHex(text, bits) || bits > 0xFFFFFFFFu)
				return false;
			value = s64(bits);
			return true;
		}
		const auto result = std::from_chars(text.data(), text.data() + text.size(), value, 10);
		return !text.empty() && result.ec == std::errc() && result.ptr == text.data() + text.size();
	}

	bool ParseWord(std::string_view text, EElementKind kind, u32 &word, std::string &error)
	{
		if (kind == ElementKind_Bool && (text == "true" || text == "false"))
		{
			word = text == "true" ? 0xFFFFFFFFu : 0u;
			return true;
		}
		if (IsHex(SkipPlus(text)))
		{
			u64 bits = 0;
			if (!ParseHex(SkipPlus(text), bits) || bits > 0xFFFFFFFFu)
			{
				error = fmt::format("malformed number {}: a hex word has at most 8 digits", Shown(text));
				return false;
			}
			word = u32(bits);
			return true;
		}
		if (kind == ElementKind_Float)
		{
			float value = 0.0f;
			const ENumberParse parsed = ParseFloatText(text, value);
			if (parsed != Number_Ok)
			{
				error = parsed == Number_TooLarge ? OutOfRange(text) : fmt::format("malformed number {}", Shown(text));
				return false;
			}
			std::memcpy(&word, &value, 4);
			return true;
		}
		s64 value = 0;
		if (!ParseInt64(text, value))
		{
			error = kind == ElementKind_Bool ? fmt::format("malformed value {}: expected true, false or an integer", Shown(text))
										   : fmt::format("malformed integer {}", Shown(text));
			return false;
		}
		if (value < -2147483648LL || value > 2147483647LL)
		{
			error = fmt::format("integer {} does not fit in 32 bits (use 0x... for raw bits)", Shown(text));
			return false;
		}
		word = u32(s32(value));
		return true;
	}

	bool ParseCount(std::string_view text, u64 max, u32 &value)
	{
		u64 parsed = 0;
		const auto result = std::from_chars(text.data(), text.data() + text.size(), parsed, 10);
		if (text.empty() || result.ec != std::errc() || result.ptr != text.data() + text.size() || parsed == 0 || parsed > max)
			return false;
		value = u32(parsed);
		return true;
	}

	std::string FormatWord(u32 word, EElementKind kind)
	{
		switch (kind)
		{
		case ElementKind_Float:
		{
			float value;
			std::memcpy(&value, &word, 4);
			// NaNs (comparison masks among them) keep their bits: the text reads back exactly.
			return value != value ? fmt::format("{:#010x}", word) : fmt::format("{}", value);
		}
		case ElementKind_Bool:
			return word == 0xFFFFFFFFu ? "true" : (word == 0 ? "false" : fmt::format("{:#010x}", word));
		default:
			return fmt::format("{}", s32(word));
		}
	}
}
