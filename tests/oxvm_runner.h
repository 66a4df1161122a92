#pragma once
// Runs the built oxvm binary from the tests, in a fresh temporary folder per test.

#include <gtest/gtest.h>

#include <string>

// A cross build's tool runs through the emulator (the test itself runs under it too,
// but a shell it starts is the host's): OXVM_LAUNCHER is the emulator's command line,
// to be written before OXVM_PATH in every command that starts the tool.
#ifndef OXVM_LAUNCHER
#	define OXVM_LAUNCHER ""
#endif

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
		// The same with the process's address space limited to 'kilobytes' (ulimit -v):
		// a run that needs more fails to allocate instead of swapping the machine.
		// Under a sanitizer the limit is left out (the sanitizers reserve terabytes of
		// address space), and under the cross build's emulator (whose own code buffers
		// count against it): the run's results are still checked, its memory is not.
		SOxvmResult OxvmWithMemoryLimit(const std::string &args, unsigned long kilobytes) const;
		static bool MemoryLimitsApply();
		// The same with the file 'input' (in the test's folder) as standard input.
		SOxvmResult OxvmReading(const std::string &args, const std::string &input) const;
		// Writes a file into the test's folder and returns its path.
		std::string Write(const std::string &name, const std::string &content) const;
		std::string Read(const std::string &name) const;
		bool Exists(const std::string &name) const;
		std::string Path(const std::string &name) const { return m_Dir + "/" + name; }
		static std::string Example(const std::string &name);

		std::string m_Dir;

	private:
		// 'prefix' is shell text run before oxvm, in the same shell.
		SOxvmResult _Run(const std::string &prefix, const std::string &args, const std::string &input = std::string()) const;
	};

	// The lines of 'text' that start with 'prefix'.
	int CountLines(const std::string &text, const std::string &prefix);
}
