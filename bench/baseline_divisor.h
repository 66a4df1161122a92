#pragma once
// Signed division by a run-time divisor without a divide: the magic multiplier and
// shift of Hacker's Delight (10-1), computed once per call of a baseline, then applied
// to every element. The quotient is the truncated one, exactly, for 2 <= |d| < 2^31, so
// a baseline that uses it writes the VM's words. Shared by the hand SSE2 loops and the
// plain fused loops (each translation unit gets its own inline copy, built for its own
// target).

#include <cstdint>

namespace OxBench
{
	struct SMagicDivisor
	{
		std::int32_t m_Multiplier;
		int m_Shift;
		std::int32_t m_AddMask;	// all ones: add the dividend to the high product (d > 0, negative multiplier)
		std::int32_t m_SubMask;	// all ones: subtract it (d < 0, positive multiplier)

		// |d| >= 2 (the magic number of 1 and 0 does not exist).
		static SMagicDivisor Of(std::int32_t d)
		{
			const std::uint32_t two31 = 0x80000000u;
			const std::uint32_t ud = std::uint32_t(d);
			const std::uint32_t ad = d < 0 ? 0u - ud : ud;
			const std::uint32_t t = two31 + (ud >> 31);
			const std::uint32_t anc = t - 1 - t % ad;
			int p = 31;
			std::uint32_t q1 = two31 / anc, r1 = two31 - q1 * anc, q2 = two31 / ad, r2 = two31 - q2 * ad, delta;
			do
			{
				++p;
				q1 *= 2;
				r1 *= 2;
				if (r1 >= anc)
				{
					++q1;
					r1 -= anc;
				}
				q2 *= 2;
				r2 *= 2;
				if (r2 >= ad)
				{
					++q2;
					r2 -= ad;
				}
				delta = ad - r2;
			} while (q1 < delta || (q1 == delta && r1 == 0));
			std::int32_t magic = std::int32_t(q2 + 1);
			if (d < 0)
				magic = std::int32_t(0u - std::uint32_t(magic));
			return {magic, p - 32, d > 0 && magic < 0 ? -1 : 0, d < 0 && magic > 0 ? -1 : 0};
		}

		// One quotient, in plain code a compiler vectorises (a widening multiply, its high half).
		std::int32_t Quotient(std::int32_t a) const
		{
			const std::int32_t hi = std::int32_t((std::int64_t(a) * std::int64_t(m_Multiplier)) >> 32);
			const std::int32_t q = std::int32_t(std::uint32_t(hi) + std::uint32_t(a & m_AddMask) - std::uint32_t(a & m_SubMask)) >> m_Shift;
			return std::int32_t(std::uint32_t(q) + (std::uint32_t(q) >> 31));
		}
	};
}
