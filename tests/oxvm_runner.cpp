#include "oxvm_runner.h"

#include <cstdlib>
#include <fstream>
#include <sstream>
#include <sys/wait.h>
#include <unistd.h>

namespace OxTest
{
	void COxvmTest::SetUp()
	{
#ifndef OXVM_PATH
		GTEST_SKIP() << "oxvm is not built (OX_BUILD_TOOLS=OFF)";
#else
		std::string pattern = ::testing::TempDir() + "oxvm_test_XXXXXX";
		ASSERT_NE(mkdtemp(pattern.data()), nullptr);
		m_Dir = pattern;
#endif
	}

	void COxvmTest::TearDown()
	{
		if (!m_Dir.empty() && !HasFailure())
			std::system(("rm -rf '" + m_Dir + "'").c_str());
	}

	SOxvmResult COxvmTest::Oxvm(const std::string &args) const
	{
		return _Run(std::string(), args);
	}

	bool COxvmTest::MemoryLimitsApply()
	{
#if defined(OX_TESTS_EMULATED) || defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
		return false;
#elif defined(__has_feature)
#if __has_feature(address_sanitizer) || __has_feature(thread_sanitizer) || __has_feature(memory_sanitizer)
		return false;
#else
		return true;
#endif
#else
		return true;
#endif
	}

	SOxvmResult COxvmTest::OxvmWithMemoryLimit(const std::string &args, unsigned long kilobytes) const
	{
		if (!MemoryLimitsApply())
			return Oxvm(args);
		return _Run("ulimit -v " + std::to_string(kilobytes) + " && ", args);
	}

	SOxvmResult COxvmTest::OxvmReading(const std::string &args, const std::string &input) const
	{
		return _Run(std::string(), args, input);
	}

	SOxvmResult COxvmTest::_Run(const std::string &prefix, const std::string &args, const std::string &input) const
	{
		SOxvmResult result;
#ifdef OXVM_PATH
		const std::string out = m_Dir + "/.stdout", err = m_Dir + "/.stderr";
		const std::string command = "cd '" + m_Dir + "' && " + prefix + OXVM_LAUNCHER "'" OXVM_PATH "' " + args + " >'" + out + "' 2>'" + err + "' <" + (input.empty() ? std::string("/dev/null") : "'" + input + "'");
		const int status = std::system(command.c_str());
		result.m_Status = WIFEXITED(status) ? WEXITSTATUS(status) : -1;
		result.m_Out = Read(".stdout");
		result.m_Err = Read(".stderr");
#else
		(void)prefix;
		(void)args;
		(void)input;
#endif
		return result;
	}

	std::string COxvmTest::Write(const std::string &name, const std::string &content) const
	{
		std::ofstream(Path(name), std::ios::binary) << content;
		return Path(name);
	}

	std::string COxvmTest::Read(const std::string &name) const
	{
		std::ifstream in(Path(name), std::ios::binary);
		std::ostringstream text;
		text << in.rdbuf();
		return text.str();
	}

	bool COxvmTest::Exists(const std::string &name) const
	{
		return access(Path(name).c_str(), F_OK) == 0;
	}

	std::string COxvmTest::Example(const std::string &name)
	{
#ifdef OXVM_EXAMPLES_DIR
		return std::string(OXVM_EXAMPLES_DIR) + "/" + name;
#else
		return name;
#endif
	}

	int CountLines(const std::string &text, const std::string &prefix)
	{
		int count = 0;
		std::istringstream lines(text);
		for (std::string line; std::getline(lines, line);)
			count += line.rfind(prefix, 0) == 0 ? 1 : 0;
		return count;
	}
}
