#pragma once
// Runs the built oxvm binary from the tests, in a fresh temporary folder per test.

#include <gtest/gtest.h>

#include <string>

namespace OxTest
{
	struct SOxvmResult
	{
		int m_Status = -1;		// exit status; -1 when the process did not exit normally
		std::string m_Out;
		std::string m_Err;
	};

	class COxvmTest : public ::testing::Test
	{
	protected:
		void SetUp() override;
		void TearDown() override;

		// Runs "oxvm ARGS" in the test's folder (ARGS is shell text: quote paths yourself).
		SOxvmResult Oxvm(const std::string &args) const;
		// Writes a file into the test's folder and returns its path.
		std::string Write(const std::string &name, const std::string &content) const;
		std::string Read(const std::string &name) const;
		bool Exists(const std::string &name) const;
		std::string Path(const std::string &name) const { return m_Dir + "/" + name; }
		static std::string Example(const std::string &name);

		std::string m_Dir;
	};

	// The lines of 'text' that start with 'prefix'.
	int CountLines(const std::string &text, const std::string &prefix);
}
