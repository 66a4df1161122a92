#pragma once
// The random source of a test's inputs. It always starts from a fixed seed and says
// which one in the test's output and in its XML record ("seed" property), so that a
// failure on any machine can be replayed by running the same test again.

#include <gtest/gtest.h>

#include <cstdint>
#include <cstdio>
#include <random>
#include <string>

namespace OxTest
{
	class CSeededRandom
	{
	public:
		using result_type = std::mt19937::result_type;

		explicit CSeededRandom(std::uint32_t seed) : m_Seed(seed), m_Engine(seed)
		{
			const ::testing::TestInfo *info = ::testing::UnitTest::GetInstance()->current_test_info();
			const std::string name = info != nullptr ? std::string(info->test_suite_name()) + "." + info->name() : std::string("(no test)");
			std::printf("[ seed ] %s: seed %u (0x%08X)\n", name.c_str(), unsigned(seed), unsigned(seed));
			std::fflush(stdout);
			if (info != nullptr)
				::testing::Test::RecordProperty("seed", std::to_string(seed));
		}

		std::uint32_t Seed() const { return m_Seed; }

		// A uniform random generator, so the standard distributions can draw from it.
		static constexpr result_type min() { return std::mt19937::min(); }
		static constexpr result_type max() { return std::mt19937::max(); }
		result_type operator()() { return m_Engine(); }

		// Uniform in [0, n).
		std::uint32_t Uniform(std::size_t n) { return std::uniform_int_distribution<std::uint32_t>(0, std::uint32_t(n - 1))(m_Engine); }
		float UniformFloat(float low, float high) { return std::uniform_real_distribution<float>(low, high)(m_Engine); }

	private:
		std::uint32_t m_Seed;
		std::mt19937 m_Engine;
	};
}
