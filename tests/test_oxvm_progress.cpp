// oxvm run's progress bar: the line it draws (FormatProgressLine, tested as text), the
// phases a run goes through with --progress always, nothing at all with auto on a
// non-terminal or with never, the ticker's redraw of a long phase and the line an
// assertion report gets, and Ctrl-C: the bar's line is cleared and the process still
// ends by SIGINT.

#include "oxvm_runner.h"
#include "progress.h"
#include "test_support.h"

#include <gtest/gtest.h>

#include <chrono>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <fcntl.h>
#include <fstream>
#include <iterator>
#include <string>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>

namespace
{
	using OxTest::SOxvmResult;
	using OxVm::FormatClock;
	using OxVm::FormatProgressLine;
	using OxVm::SProgressLine;

	std::string Line(const char *phase, const char *unit, unsigned long long done, unsigned long long total, double elapsed, std::size_t width = 80)
	{
		SProgressLine line;
		line.m_Phase = phase;
		line.m_Unit = unit;
		line.m_Done = done;
		line.m_Total = total;
		line.m_Elapsed = elapsed;
		return FormatProgressLine(line, width);
	}

	std::size_t Columns(const std::string &text)
	{
		std::size_t columns = 0;
		for (char c : text)
			columns += (static_cast<unsigned char>(c) & 0xC0) != 0x80 ? 1 : 0;
		return columns;
	}

	// ---- The line

	TEST(OxvmProgressLine, Clock)
	{
		EXPECT_EQ(FormatClock(0), "0:00");
		EXPECT_EQ(FormatClock(2.6), "0:03");
		EXPECT_EQ(FormatClock(59.4), "0:59");
		EXPECT_EQ(FormatClock(754), "12:34");
		EXPECT_EQ(FormatClock(3723), "1:02:03");
		EXPECT_EQ(FormatClock(-1), "0:00");
	}

	TEST(OxvmProgressLine, EstimateScalesTheElapsedTimeByTheWorkLeft)
	{
		// 12 of 100 frames in 3 s: 88 left at 0.25 s each, 22 s.
		EXPECT_EQ(Line("run", "frame", 12, 100, 3.0, 70), "run: frame 12/100 [=>              ]  12% 0:03 elapsed, ~0:22 left");
		// Halfway in 1 min 40 s: as much again.
		EXPECT_EQ(Line("set-up: initialising registers", "", 50, 100, 100.0),
				  "set-up: initialising registers [=======>      ]  50% 1:40 elapsed, ~1:40 left");
	}

	TEST(OxvmProgressLine, NothingDoneYetHasNoEstimate)
	{
		const std::string line = Line("run", "frame", 0, 100, 0.4);
		EXPECT_EQ(line, "run: frame 0/100 [" + std::string(26, ' ') + "]   0% 0:00 elapsed");
		EXPECT_EQ(line.find("left"), std::string::npos);
	}

	TEST(OxvmProgressLine, AllDoneHasAFullBarAndNoEstimate)
	{
		EXPECT_EQ(Line("summary: writing out.csv", "row", 4096, 4096, 65.0), "summary: writing out.csv: row 4096/4096 [" + std::string(10, '=') + "] 100% 1:05 elapsed");
		// More done than announced (a total that grew late) stays at 100%.
		EXPECT_NE(Line("run", "frame", 7, 5, 1.0).find("] 100% "), std::string::npos);
	}

	TEST(OxvmProgressLine, UnknownTotalShowsTheCountAndTheClockOnly)
	{
		EXPECT_EQ(Line("set-up: reading <stdin>", "", 0, 0, 5.0), "set-up: reading <stdin> 0:05 elapsed");
		EXPECT_EQ(Line("run", "frame", 3, 0, 5.0), "run: frame 3 0:05 elapsed");
	}

	TEST(OxvmProgressLine, BarNarrowsThenLongNamesAreClippedToTheWidth)
	{
		// Room for everything: the bar at its widest (40).
		const std::string wide = Line("set-up: reading prog.oxs", "", 1, 4, 1.0, 200);
		EXPECT_EQ(wide, "set-up: reading prog.oxs [==========>" + std::string(29, ' ') + "]  25% 0:01 elapsed, ~0:03 left");
		// A narrower terminal takes columns from the bar first (keeping room for a longer
		// estimate); the name stays whole.
		EXPECT_EQ(Line("set-up: reading prog.oxs", "", 1, 4, 1.0, 70), "set-up: reading prog.oxs [==>       ]  25% 0:01 elapsed, ~0:03 left");
		// The bar keeps its width while the phase goes on: from the start (no estimate
		// yet) to the end, and whatever the count's digits.
		const auto barOf = [](const std::string &text) { return text.substr(text.find('['), text.find(']') - text.find('[')).size(); };
		EXPECT_EQ(barOf(Line("run", "frame", 0, 1000, 0.0)), barOf(Line("run", "frame", 7, 1000, 1.0)));
		EXPECT_EQ(barOf(Line("run", "frame", 7, 1000, 1.0)), barOf(Line("run", "frame", 1000, 1000, 140.0)));

		// A long file name: the bar keeps its 10 columns, the name is clipped with "..."
		// to what is left of the width.
		const std::string name = "set-up: reading " + std::string(120, 'n') + ".csv";
		const std::string tail = "...: row 123456/1000000 [=>        ]  12% 0:42 elapsed, ~4:58 left";
		const std::string at100 = Line(name.c_str(), "row", 123456, 1000000, 42.0, 100);
		EXPECT_EQ(at100, "set-up: reading " + std::string(18, 'n') + tail);
		EXPECT_EQ(Columns(at100), 100u);
		EXPECT_EQ(Line(name.c_str(), "row", 123456, 1000000, 42.0, 80), "set-up: readin" + tail);
		// Where even a clipped name (8 columns) leaves no room, the line is cut at the width.
		EXPECT_EQ(Line(name.c_str(), "row", 123456, 1000000, 42.0, 60), "set-u...: row 123456/1000000 [=>        ]  12% 0:42 elapsed,");
		// A short name is never "clipped" longer.
		EXPECT_EQ(Line("run", "frame", 5, 10, 1.0, 40).rfind("run: frame 5/10 [", 0), 0u);
		// Clipping counts characters, and never cuts one in two.
		std::string accentedName = "set-up: reading ";
		for (int i = 0; i < 20; ++i)
			accentedName += "\xC3\xA9";
		const std::string accented = Line((accentedName + ".csv").c_str(), "", 1, 2, 1.0, 70);
		EXPECT_EQ(accented, "set-up: reading \xC3\xA9\xC3\xA9\xC3\xA9\xC3\xA9\xC3\xA9\xC3\xA9\xC3\xA9\xC3\xA9... [=====>    ]  50% 0:01 elapsed, ~0:01 left");
		EXPECT_EQ(Columns(accented), 70u) << accented;
		// Narrower than anything sensible: cut, never wider.
		for (std::size_t width : {0u, 5u, 20u})
			EXPECT_LE(Columns(Line("run", "frame", 5, 10, 1.0, width)), width);
		EXPECT_EQ(Line("run", "frame", 5, 10, 1.0, 20), "run: frame 5/10 [===");
	}

	// ---- The tool

	class OxvmProgress : public OxTest::COxvmTest
	{
	protected:
		// A run with every phase: a program file, a csv() file, frames, statistics, a
		// dump and a CSV output, big enough for each phase to have work.
		std::string WriteLongRun(std::size_t rows)
		{
			std::string data = "id\n";
			for (std::size_t i = 0; i < rows; ++i)
				data += std::to_string(i) + "\n";
			Write("data.csv", data);
			Write("p.oxs", "stream " + std::to_string(rows) +
							   "\n"
							   "reg id  stream   0 i32 = csv(\"data.csv\", id)\n"
							   "reg one constant 1 i32 = 1\n"
							   "reg sum stream   2 i32\n"
							   "add sum, id, one\n"
							   "add sum, sum, sum\n");
			return "run p.oxs --frames 200 --dump sum --csv out.csv";
		}

		// The last line the bar drew of a phase: from the "\r" before 'phase' to the line
		// end that closes the phase. Empty when the phase did not close a line.
		static std::string LastDrawn(const std::string &err, const std::string &phase)
		{
			const std::size_t at = err.rfind("\r" + phase);
			if (at == std::string::npos)
				return std::string();
			const std::size_t end = err.find('\n', at);
			const std::size_t next = err.find('\r', at + 1);
			if (end == std::string::npos || next < end)
				return std::string();
			return err.substr(at + 1, end - at - 1);
		}
	};

	TEST_F(OxvmProgress, AlwaysShowsEveryPhaseInOrder)
	{
		const std::string args = WriteLongRun(50000);
		const SOxvmResult result = Oxvm(args + " --progress always");
		ASSERT_EQ(result.m_Status, 0) << result.m_Err;
		const char *const phases[] = {
			"set-up: reading p.oxs [",
			"set-up: reading data.csv: row 50000/50000 [",
			"set-up: initialising registers [",
			"set-up: verifying [",
			"run: frame 200/200 [",
			"summary: statistics [",
			"summary: dumps [",
			"summary: writing out.csv: row 50000/50000 [",
		};
		std::size_t previous = 0;
		for (const char *phase : phases)
		{
			const std::string last = LastDrawn(result.m_Err, phase);
			ASSERT_FALSE(last.empty()) << phase << " in\n" << result.m_Err;
			// Each phase ends at 100%, its line cleared to the right, then ended.
			EXPECT_NE(last.find("] 100% "), std::string::npos) << last;
			EXPECT_NE(last.find(" elapsed\x1b[K"), std::string::npos) << last;
			EXPECT_EQ(last.find("left"), std::string::npos) << last;
			const std::size_t at = result.m_Err.rfind("\r" + std::string(phase));
			EXPECT_GT(at, previous) << phase;
			previous = at;
		}
		// The bar is on stderr only: stdout and the CSV file are what a run without it writes.
		const SOxvmResult plain = Oxvm(args + " --progress never");
		ASSERT_EQ(plain.m_Status, 0);
		const std::string csv = Read("out.csv");
		EXPECT_EQ(csv.substr(0, 16), "element,sum\n0,2\n");
		EXPECT_EQ(plain.m_Out.substr(0, plain.m_Out.find("ran ")), result.m_Out.substr(0, result.m_Out.find("ran ")));
		EXPECT_EQ(plain.m_Err, "");
		// always draws each phase from its start, before any work is done.
		// (80 columns: stderr is no terminal.)
		EXPECT_NE(result.m_Err.find("\r" + Line("run", "frame", 0, 200, 0.0, 80) + "\x1b[K"), std::string::npos) << result.m_Err;
	}

	TEST_F(OxvmProgress, AutoOffATerminalAndNeverLeaveStderrAlone)
	{
		const std::string args = WriteLongRun(20000);
		const SOxvmResult never = Oxvm(args + " --progress never");
		const SOxvmResult automatic = Oxvm(args);
		const SOxvmResult named = Oxvm(args + " --progress auto");
		ASSERT_EQ(never.m_Status, 0) << never.m_Err;
		ASSERT_EQ(automatic.m_Status, 0) << automatic.m_Err;
		EXPECT_EQ(never.m_Err, "");
		EXPECT_EQ(automatic.m_Err, "");
		EXPECT_EQ(named.m_Err, "");
		// Warnings (the verifier's, the VM's reports) are all stderr has, byte for byte,
		// with auto as with never.
		Write("warn.oxs", "stream 16\nreg x stream 0 i32 = ramp(1, 1)\nreg c constant 1 i32 = 40\nreg y stream 2 i32\nshl y, x, c\n");
		const SOxvmResult warned = Oxvm("run warn.oxs --frames 3 --quiet");
		const SOxvmResult warnedNever = Oxvm("run warn.oxs --frames 3 --quiet --progress never");
		EXPECT_NE(warned.m_Err.find("warn.oxs:5:1: warning: VM assertion report"), std::string::npos) << warned.m_Err;
		EXPECT_EQ(warned.m_Err, warnedNever.m_Err);
		EXPECT_EQ(warned.m_Err.find('\r'), std::string::npos) << warned.m_Err;
	}

#ifdef OXVM_PATH
	std::string ReadText(const std::string &path)
	{
		std::ifstream in(path, std::ios::binary);
		return std::string(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
	}

	// Starts "oxvm ARGS" in the test's folder with stderr to the file .stderr and SIGINT
	// at 'disposition', and waits until stderr holds 'wanted' (at most 30 s). The pid,
	// or -1.
	pid_t StartUntil(const std::string &dir, const std::string &args, const std::string &wanted, void (*disposition)(int), std::string &err)
	{
		const std::string errPath = dir + "/.stderr";
		const pid_t child = fork();
		if (child == 0)
		{
			const int errFile = open(errPath.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
			const int nothing = open("/dev/null", O_RDWR);
			if (errFile < 0 || nothing < 0 || chdir(dir.c_str()) != 0)
				_exit(127);
			dup2(errFile, STDERR_FILENO);
			dup2(nothing, STDOUT_FILENO);
			dup2(nothing, STDIN_FILENO);
			std::signal(SIGINT, disposition);
			const std::string command = "exec " OXVM_LAUNCHER "'" OXVM_PATH "' " + args;
			execl("/bin/sh", "sh", "-c", command.c_str(), static_cast<char *>(nullptr));
			_exit(127);
		}
		const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(30);
		while (std::chrono::steady_clock::now() < deadline)
		{
			std::this_thread::sleep_for(std::chrono::milliseconds(20));
			err = ReadText(errPath);
			if (err.find(wanted) != std::string::npos)
				return child;
			int status = 0;
			if (waitpid(child, &status, WNOHANG) == child)
				return -1;
		}
		kill(child, SIGKILL);
		waitpid(child, nullptr, 0);
		return -1;
	}

	// Frames enough to run for minutes: the test interrupts it long before.
	const char *const kEndlessRun = "run --frames 1000000000 --elements 4096 --progress always";

	TEST_F(OxvmProgress, CtrlCClearsTheBarAndEndsBySigint)
	{
		std::string err;
		// Once the bar has been redrawn with some frames done (it then has an estimate).
		const pid_t child = StartUntil(m_Dir, kEndlessRun, " left\x1b[K", SIG_DFL, err);
		ASSERT_GT(child, 0) << err;
		ASSERT_EQ(kill(child, SIGINT), 0);
		int status = 0;
		ASSERT_EQ(waitpid(child, &status, 0), child);
		ASSERT_TRUE(WIFSIGNALED(status)) << "exited with " << (WIFEXITED(status) ? WEXITSTATUS(status) : -1);
		EXPECT_EQ(WTERMSIG(status), SIGINT);
		err = Read(".stderr");
		const std::string clear = "\r\x1b[K";
		ASSERT_GE(err.size(), clear.size());
		EXPECT_EQ(err.substr(err.size() - clear.size()), clear) << err.substr(err.size() > 200 ? err.size() - 200 : 0);
		// What comes before the clearing is the run's bar, mid-run.
		const std::size_t bar = err.rfind("\rrun: frame ", err.size() - clear.size());
		ASSERT_NE(bar, std::string::npos);
		EXPECT_NE(err.find(" left", bar), std::string::npos) << err.substr(bar);
	}

	TEST_F(OxvmProgress, IgnoredSigintStaysIgnored)
	{
		std::string err;
		const pid_t child = StartUntil(m_Dir, kEndlessRun, "\rrun: frame ", SIG_IGN, err);
		ASSERT_GT(child, 0) << err;
		ASSERT_EQ(kill(child, SIGINT), 0);
		std::this_thread::sleep_for(std::chrono::milliseconds(300));
		int status = 0;
		EXPECT_EQ(waitpid(child, &status, WNOHANG), 0) << "SIGINT ended a run that ignores it";
		kill(child, SIGKILL);
		waitpid(child, &status, 0);
		EXPECT_TRUE(WIFSIGNALED(status) && WTERMSIG(status) == SIGKILL);
		EXPECT_EQ(Read(".stderr").find("\x1b[K\r\x1b[K"), std::string::npos);
	}
#endif

	// The handler itself, in a child process: with a bar drawn it clears the line, then
	// the process dies of the signal it handled.
	TEST(OxvmProgressDeathTest, HandlerClearsTheLineThenReraises)
	{
		GTEST_FLAG_SET(death_test_style, OX_DEATH_TEST_STYLE);
		EXPECT_EXIT(
			{
				OxVm::CProgress progress(OxVm::Progress_Always);
				progress.Begin("run", "frame", 10);
				OxVm::ClearProgressOnSignal(SIGINT);
				std::_Exit(0);	// not reached: the signal ends the process
			},
			::testing::KilledBySignal(SIGINT), "\r\x1b\\[K$");
	}

	// What a CProgress of this process writes to stderr while 'body' runs (stderr is a
	// file: no terminal, 80 columns).
	template <typename _Body>
	std::string StderrOf(_Body body)
	{
		char path[] = "/tmp/oxvm_progress_XXXXXX";
		const int file = mkstemp(path);
		EXPECT_GE(file, 0);
		std::fflush(stderr);
		const int saved = dup(STDERR_FILENO);
		dup2(file, STDERR_FILENO);
		body();
		std::fflush(stderr);
		dup2(saved, STDERR_FILENO);
		close(saved);
		close(file);
		std::ifstream in(path, std::ios::binary);
		std::string text((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
		unlink(path);
		return text;
	}

	std::size_t Count(const std::string &text, const std::string &what)
	{
		std::size_t count = 0;
		for (std::size_t at = text.find(what); at != std::string::npos; at = text.find(what, at + 1))
			++count;
		return count;
	}

	// One frame that runs long without an Update still moves the clock: the ticker
	// redraws the bar (here it is at least 2.5 s for a redraw each second).
	TEST(OxvmProgressTicker, ALongPhaseWithoutUpdatesIsRedrawn)
	{
		const std::string err = StderrOf([] {
			OxVm::CProgress progress(OxVm::Progress_Always);
			progress.Begin("run", "frame", 1);
			std::this_thread::sleep_for(std::chrono::milliseconds(2500));
			progress.End();
		});
		// Begin's line, then the ticker's (End draws nothing new: nothing was done).
		EXPECT_EQ(err.find("\r" + Line("run", "frame", 0, 1, 0.0) + "\x1b[K"), 0u) << err;
		EXPECT_GE(Count(err, "\rrun: frame 0/1 ["), 2u) << err;
		EXPECT_NE(err.find("0:01 elapsed"), std::string::npos) << err;
		EXPECT_EQ(err.back(), '\n');
	}

	// An assertion report in the middle of a phase gets a line of its own, and the bar
	// comes back below it.
	TEST(OxvmProgressTicker, AReportInterruptsTheBarWhichComesBackBelowIt)
	{
		const std::string err = StderrOf([] {
			OxVm::CProgress progress(OxVm::Progress_Always);
			progress.Begin("run", "frame", 3);
			progress.Interrupt();
			std::fputs("a report\n", stderr);
			std::this_thread::sleep_for(std::chrono::milliseconds(700));
			progress.End();
		});
		const std::size_t report = err.find("\na report\n\rrun: frame 0/3 [");
		EXPECT_NE(report, std::string::npos) << err;
		EXPECT_EQ(err.find("\rrun: frame 0/3 ["), 0u) << err;
	}

	// Without a bar (never), Interrupt writes nothing and no ticker draws.
	TEST(OxvmProgressTicker, NeverDrawsNothing)
	{
		const std::string err = StderrOf([] {
			OxVm::CProgress progress(OxVm::Progress_Never);
			progress.Begin("run", "frame", 3);
			progress.Interrupt();
			std::this_thread::sleep_for(std::chrono::milliseconds(300));
			progress.End();
		});
		EXPECT_EQ(err, "");
	}
}
