#include "mt_integer_tools.h"

#include "kr_assert.h"

namespace Orvex
{
	namespace IntegerTools
	{
		SMulDivisor ComputeMul32Divisor(int divisor)
		{
			// 0 and +-1 have no multiplier; see the header for what callers get instead.
			if (divisor == 0 || divisor == 1 || divisor == -1)
				return SMulDivisor{0, 0u};

			const bool negative = divisor < 0;
			// |d| in unsigned arithmetic, so INT_MIN gives 2^31 without overflow.
			const u64 absD = negative ? u64(0u - u32(divisor)) : u64(u32(divisor));

			// floor(2^p / |d|) for every p <= 62 is the 2^62 quotient shifted right by
			// 62 - p (flooring twice is flooring once), so one division serves the search.
			const u64 quotient62 = (u64(1) << 62) / absD;

			// Dividends of -d are in [-2^31 + 1, 2^31]; 2^31 has remainder r2_31 mod |d|.
			const u64 r2_31 = (u64(1) << 31) % absD;

			for (u32 p = 32; p <= 62; ++p)
			{
				const u64 twoP = u64(1) << p;
				const u64 m = (quotient62 >> (62 - p)) + 1;		// floor(2^p / |d|) + 1
				const u64 e = m * absD - twoP;					// in [1, |d|]; m * |d| <= 2^p + |d| cannot overflow
				const u64 errorBound = u64(1) << (p - 31);
				if (e > errorBound)
					continue;
				// With e * 2^31 == 2^p exactly, the dividend 2^31 (reached only for d < 0,
				// as -INT_MIN) lands precisely on the next integer when its remainder is
				// |d| - 1: one too high. Any other remainder keeps it below.
				if (negative && e == errorBound && r2_31 == absD - 1)
					continue;

				OX_ASSERT(m < (u64(1) << 32));
				// Store the low 32 bits of +-m; the add/sub correction supplies the rest.
				const u32 low = negative ? u32(0u - u32(m)) : u32(m);
				return SMulDivisor{s32(low), p - 32};
			}

			// Unreachable: p = 31 + ceil(log2 |d|) always satisfies both tests.
			OX_ASSERT_NOT_REACHED();
			return SMulDivisor{0, 0u};
		}
	}
}
