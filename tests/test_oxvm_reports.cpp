// oxvm run: what it reports besides the results. VM assertion reports at the program
// line that raised them (--verbose adds the VM's check), verifier findings at lines
// and columns, the standard path's warnings only when that path runs, the profile of
// a low-path run, the set-up, run and summary times apart, and the progress bar.

#include "oxvm_runner.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <cstdlib>
#include <fcntl.h>
#include <sstream>
#include <string>
#include <sys/wait.h>
#include <unistd.h>

namespace
{
	using OxTest::CountLines;
	using OxTest::SOxvmResult;

	class OxvmReports : public OxTest::COxvmTest
	{
	protected:
#ifdef OXVM_PATH
		// Runs "oxvm ARGS" in the test's folder with stderr on a pseudo-terminal (stdout
		// to a file): what a user at a terminal sees of the progress bar.
		std::string StderrOnTerminal(const std::string &args) const
		{
			const int master = posix_openpt(O_RDWR | O_NOCTTY);
			if (master < 0 || grantpt(master) != 0 || unlockpt(master) != 0)
				return "(no pseudo-terminal)";
			const std::string slave = ptsname(master);
			const pid_t child = fork();
			if (child == 0)
			{
				setsid();
				const int terminal = open(slave.c_str(), O_RDWR);
				const int out = open((m_Dir + "/.stdout").c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
				if (terminal < 0 || out < 0 || chdir(m_Dir.c_str()) != 0)
					_exit(127);
				dup2(terminal, STDERR_FILENO);
				dup2(out, STDOUT_FILENO);
				const std::string command = "exec " OXVM_LAUNCHER "'" OXVM_PATH "' " + args + " </dev/null";
				execl("/bin/sh", "sh", "-c", command.c_str(), static_cast<char *>(nullptr));
				_exit(127);
			}
			std::string text;
			char buffer[4096];
			for (;;)
			{
				const ssize_t got = read(master, buffer, sizeof(buffer));
				if (got > 0)
					text.append(buffer, std::size_t(got));
				else if (got < 0 && errno == EINTR)
					continue;
				else
					break;	// EIO once the child closed the terminal
			}
			int status = 0;
			waitpid(child, &status, 0);
			close(master);
			return text;
		}
#endif
	};

	// A duration as run prints it ("1.234 s", "5.000 ms", "12.345 us") in seconds; -1
	// when 'text' does not start with one.
	double ParseDuration(const std::string &text)
	{
		char *end = nullptr;
		const double value = std::strtod(text.c_str(), &end);
		if (end == text.c_str())
			return -1;
		const std::string unit = std::string(end).substr(0, 3);
		return unit == " ms" ? value * 1e-3 : unit == " us" ? value * 1e-6 : unit.rfind(" s", 0) == 0 ? value : -1;
	}

	// The line of 'text' that starts with 'prefix'; empty when none.
	std::string Line(const std::string &text, const std::string &prefix)
	{
		std::istringstream lines(text);
		for (std::string line; std::getline(lines, line);)
			if (line.rfind(prefix, 0) == 0)
				return line;
		return std::string();
	}

	// The duration that follows 'label' in 'line'; -1 when there is none.
	double DurationAfter(const std::string &line, const std::string &label)
	{
		const std::size_t at = line.find(label);
		return at == std::string::npos ? -1 : ParseDuration(line.substr(at + label.size()));
	}

	// A shift by 40 over whole 12-integer blocks (reported by the standard path) as the
	// third instruction, at line 7, and a float negation of a constant into a stream
	// (refused, reported twice by the standard path) at line 10.
	const char kReported[] =
		"stream 16\n"
		"reg x stream 0 i32 = ramp(1, 1)\n"
		"reg c constant 1 i32 = 40\n"
		"reg y stream 2 i32\n"
		"add y, x, x\n"
		"add y, y, x\n"
		"shl y, x, c\n"
		"reg k constant 3 float = 2\n"
		"reg n stream 4 float\n"
		"neg n, k\n";

	// ---- VM assertion reports

	TEST_F(OxvmReports, AnAssertionReportNamesTheProgramLineNotTheVmSources)
	{
		Write("prog.oxs", "stream 16\n"
						  "reg x stream 0 i32 = ramp(1, 1)\n"
						  "reg c constant 1 i32 = 40\n"
						  "reg y stream 2 i32\n"
						  "# two instructions before the one that reports\n"
						  "add y, x, x\n"
						  "add y, y, x\n"
						  "\n"
						  "    shl y, x, c\n");
		const SOxvmResult result = Oxvm("run prog.oxs --frames 3");
		EXPECT_EQ(result.m_Status, 0) << result.m_Err;
		EXPECT_NE(result.m_Err.find("prog.oxs:9:5: warning: VM assertion report: 'shl' on the standard path: uniform shift count above 31\n"), std::string::npos)
			<< result.m_Err;
		// A check reports once per run, however many frames trip it.
		EXPECT_NE(result.m_Err.find("oxvm: 1 VM assertion report during the run\n"), std::string::npos) << result.m_Err;
		// Nothing of the VM's own sources: no expression, no source file.
		EXPECT_EQ(result.m_Err.find("bits <= 31"), std::string::npos) << result.m_Err;
		EXPECT_EQ(result.m_Err.find(".h:"), std::string::npos) << result.m_Err;
		EXPECT_EQ(result.m_Err.find(".cpp:"), std::string::npos) << result.m_Err;
		EXPECT_EQ(result.m_Err.find("VM check"), std::string::npos) << result.m_Err;
	}

	// Batches on several threads can trip one check at once, before its site is silenced:
	// each site is counted once, so the count is the same from run to run, and it is
	// the number of lines printed.
	TEST_F(OxvmReports, ABatchedRunCountsTheSameReportsEveryTime)
	{
		Write("shifts.oxs",
			  "stream 100000\n"
			  "reg x stream 0 i32 = ramp(1, 1)\n"
			  "reg c constant 1 i32 = 40\n"
			  "reg y stream 2 i32\n"
			  "reg z stream 3 i32\n"
			  "shl y, x, c\n"
			  "shr z, x, c\n"
			  "shrl y, y, c\n");
		for (int run = 0; run < 12; ++run)
		{
			const SOxvmResult result = Oxvm("run shifts.oxs --batch 48 --threads 4 --quiet");
			ASSERT_EQ(result.m_Status, 0) << result.m_Err;
			EXPECT_EQ(CountLines(result.m_Err, "shifts.oxs:"), 6) << result.m_Err;	// three verifier warnings, three reports
			EXPECT_EQ(CountLines(result.m_Err, "shifts.oxs:6:1: warning: VM assertion report: 'shl'"), 1) << result.m_Err;
			EXPECT_EQ(CountLines(result.m_Err, "shifts.oxs:8:1: warning: VM assertion report: 'shrl'"), 1) << result.m_Err;
			EXPECT_NE(result.m_Err.find("\noxvm: 3 VM assertion reports during the run\n"), std::string::npos) << "run " << run << ":\n" << result.m_Err;
		}
	}

	TEST_F(OxvmReports, VerboseAddsTheVmCheckAndItsSourceLine)
	{
		Write("prog.oxs", kReported);
		const SOxvmResult result = Oxvm("run prog.oxs --verbose");
		EXPECT_EQ(result.m_Status, 0) << result.m_Err;
		const std::string shift = "prog.oxs:7:1: warning: VM assertion report: 'shl' on the standard path: uniform shift count above 31\n    VM check 'bits <= 31' at ";
		const std::size_t at = result.m_Err.find(shift);
		ASSERT_NE(at, std::string::npos) << result.m_Err;
		// The check's source file and line follow: "...simd_vector.h:NNN".
		const std::string source = result.m_Err.substr(at + shift.size(), result.m_Err.find('\n', at + shift.size()) - at - shift.size());
		EXPECT_NE(source.find(".h:"), std::string::npos) << source;
		EXPECT_GT(std::atoi(source.substr(source.rfind(':') + 1).c_str()), 0) << source;
		// Both reports of the refused negation, each with its own check.
		EXPECT_EQ(CountLines(result.m_Err, "prog.oxs:10:1: warning: VM assertion report: 'neg' on the standard path: float negation of a constant (refused)"), 2)
			<< result.m_Err;
		EXPECT_EQ(CountLines(result.m_Err, "    VM check '"), 3) << result.m_Err;
		EXPECT_NE(result.m_Err.find("oxvm: 3 VM assertion reports during the run\n"), std::string::npos) << result.m_Err;
	}

	TEST_F(OxvmReports, ReportsOfEachInstructionAreAttributedAndNotRepeated)
	{
		Write("prog.oxs", kReported);
		const SOxvmResult result = Oxvm("run prog.oxs");
		EXPECT_EQ(result.m_Status, 0) << result.m_Err;
		EXPECT_EQ(CountLines(result.m_Err, "prog.oxs:7:1: warning: VM assertion report: 'shl' on the standard path: uniform shift count above 31"), 1) << result.m_Err;
		// The negation raises two reports that read the same without --verbose: one line.
		EXPECT_EQ(CountLines(result.m_Err, "prog.oxs:10:1: warning: VM assertion report: 'neg' on the standard path: float negation of a constant (refused)"), 1)
			<< result.m_Err;
		// Counted are the three reports; the summary says why only two lines show.
		EXPECT_NE(result.m_Err.find("oxvm: 3 VM assertion reports during the run (2 printed; 1 read as a line printed already)\n"), std::string::npos) << result.m_Err;

		// --compare runs each instruction itself (not through the interpreter's loop):
		// its reports are attributed too.
		const SOxvmResult compared = Oxvm("run prog.oxs --compare");
		EXPECT_EQ(compared.m_Status, 0) << compared.m_Out << compared.m_Err;
		EXPECT_EQ(CountLines(compared.m_Err, "prog.oxs:7:1: warning: VM assertion report: 'shl' on the standard path: uniform shift count above 31"), 1)
			<< compared.m_Err;
		EXPECT_EQ(CountLines(compared.m_Err, "prog.oxs:10:1: warning: VM assertion report: 'neg' on the standard path: float negation of a constant (refused)"), 1)
			<< compared.m_Err;

		// The Low path computes both: no report.
		const SOxvmResult low = Oxvm("run prog.oxs --path low --strict");
		EXPECT_EQ(low.m_Status, 0) << low.m_Err;
		EXPECT_EQ(low.m_Err.find("VM assertion report"), std::string::npos) << low.m_Err;
	}

	// ---- Standard-path warnings, verifier findings at lines, the profile of the Low path

	TEST_F(OxvmReports, StandardPathWarningsOnlyWhenTheStandardPathRuns)
	{
		Write("prog.oxs", std::string(kReported) +
							  "reg m stream 5 float\n"
							  "reg d constant 6 float = 3\n"
							  "mod m, k, d\n");
		const char *const kNeg = "prog.oxs:10:1: warning: float 'neg' of a constant into a stream is refused by the standard path";
		const char *const kMod = "prog.oxs:13:1: warning: float 'mod' of two constants into a stream is reported by the standard path";
		const char *const kShift = "prog.oxs:7:11: warning: uniform 'shl' count 40 in 'c' is above 31: ";

		const SOxvmResult low = Oxvm("run prog.oxs --path low");
		EXPECT_EQ(low.m_Status, 0) << low.m_Err;
		EXPECT_EQ(low.m_Err, "");

		for (const char *options : {"", "--path standard", "--compare"})
		{
			const SOxvmResult result = Oxvm(std::string("run prog.oxs ") + options);
			EXPECT_EQ(result.m_Status, 0) << options << "\n" << result.m_Err;
			for (const char *warning : {kNeg, kMod, kShift})
				EXPECT_EQ(CountLines(result.m_Err, warning), 1) << options << ": " << warning << "\n" << result.m_Err;
		}
	}

	TEST_F(OxvmReports, VerifierFindingsOfARunNameLineAndColumn)
	{
		// A count that an earlier instruction writes cannot be checked before the run: the
		// verifier says so at the count operand of the shift.
		Write("prog.oxs", "stream 16\n"
						  "reg x stream 0 i32 = ramp(1, 1)\n"
						  "reg c constant 1 i32 = 4\n"
						  "reg y stream 2 i32\n"
						  "add c, c, c\n"
						  "  shl   y, x,  c\n");
		const SOxvmResult result = Oxvm("run prog.oxs");
		EXPECT_EQ(result.m_Status, 0) << result.m_Err;
		EXPECT_EQ(result.m_Err, "prog.oxs:6:16: warning: 'shl' count register 'c' is written by this program: its value at run time is not checked here "
								"(a uniform count above 31 is reported by the standard path)\n");
		EXPECT_EQ(result.m_Err.find("offset"), std::string::npos);
		// It concerns the standard path only.
		EXPECT_EQ(Oxvm("run prog.oxs --path low").m_Err, "");
	}

	// The shift-count warning of bytecode, which has no names, keeps the register's id;
	// the "calls" line names the program's line and register, not an offset and an id.
	TEST_F(OxvmReports, ShiftCountWarningsNameTheRegisterWhenTheProgramDoes)
	{
		Write("prog.oxs", "stream 16\n"
						  "reg x stream 0 i32 = ramp(1, 1)\n"
						  "reg c constant 1 i32 = 4\n"
						  "reg y stream 2 i32\n"
						  "add c, c, c\n"
						  "shl y, x, c\n");
		const SOxvmResult text = Oxvm("run prog.oxs");
		EXPECT_EQ(text.m_Status, 0) << text.m_Err;
		EXPECT_NE(text.m_Out.find("calls      not prepared: the verifier reports 1 problem (line 6: 'shl' count register 'c' is written"), std::string::npos) << text.m_Out;
		ASSERT_EQ(Oxvm("asm prog.oxs -o prog.oxb").m_Status, 0);
		const SOxvmResult bytecode = Oxvm("run prog.oxb --elements 16");
		EXPECT_EQ(bytecode.m_Status, 0) << bytecode.m_Err;
		EXPECT_EQ(bytecode.m_Err, "prog.oxb (listed by oxvm disasm):4: warning: 'shl' count register constant.1:i32 is written by this program: its value at run time is not "
								  "checked here (a uniform count above 31 is reported by the standard path)\n");
		EXPECT_NE(bytecode.m_Out.find("(offset 13: 'shl' count register constant.1:i32 is written"), std::string::npos) << bytecode.m_Out;
	}

	TEST_F(OxvmReports, ProfileOfALowPathRunSaysWhyItIsEmpty)
	{
		const SOxvmResult low = Oxvm("run --profile --path low");
		ASSERT_EQ(low.m_Status, 0) << low.m_Err;
		EXPECT_NE(low.m_Out.find("\nprofile:   nothing recorded: the profiler times the standard path's entry points (_ExecBytecode, _ExecBytecode_Add .. _Div), "
								 "and the low path's are not profiler scopes (use --path standard, or --compare)\n"),
				  std::string::npos)
			<< low.m_Out;
		EXPECT_EQ(Line(low.m_Out, "scope "), "");	// no empty table

		// --compare runs the standard path too: its entry points are listed, and said to be its.
		const SOxvmResult compared = Oxvm("run --profile --compare");
		ASSERT_EQ(compared.m_Status, 0) << compared.m_Err;
		EXPECT_NE(compared.m_Out.find("\nprofile (standard path: the low path's entry points are not profiler scopes):\n"), std::string::npos) << compared.m_Out;
		EXPECT_NE(Line(compared.m_Out, "_ExecBytecode_Add ").find(" 3 "), std::string::npos) << compared.m_Out;	// particles.oxs: three adds
	}

	// ---- Set-up, run and summary times

	TEST_F(OxvmReports, SetupRunAndSummaryTimesAddUpToTheTotal)
	{
		// Drawing 2,000,000 random words takes far longer than one add over 500,000
		// elements, and so does writing 500,000 CSV rows.
		Write("prog.oxs", "stream 500000\n"
						  "reg a stream 0 float4 = random(-1, 1)\n"
						  "reg b stream 1 float4\n"
						  "add b, a, a\n");
		const SOxvmResult result = Oxvm("run prog.oxs --csv out.csv");
		ASSERT_EQ(result.m_Status, 0) << result.m_Err;
		const std::string setupLine = Line(result.m_Out, "setup      ");
		const std::string timeLine = Line(result.m_Out, "time       ");
		const std::string totalLine = Line(result.m_Out, "total      ");
		ASSERT_NE(setupLine, "") << result.m_Out;
		ASSERT_NE(totalLine, "") << result.m_Out;
		EXPECT_NE(setupLine.find(" before the run (program read and checked, registers allocated and initialised, bytecode verified)"), std::string::npos) << setupLine;
		EXPECT_NE(timeLine.find(" per frame, "), std::string::npos) << timeLine;
		EXPECT_NE(timeLine.find(" for 1 frame"), std::string::npos) << timeLine;
		// The total is the last line, after the CSV's.
		EXPECT_GT(result.m_Out.find("\ntotal      "), result.m_Out.find("\ncsv        out.csv (500000 rows)"));
		EXPECT_NE(totalLine.find(" (statistics, dumps, CSV)"), std::string::npos) << totalLine;

		const double setup = DurationAfter(setupLine, "setup      ");
		const double total = DurationAfter(totalLine, "total      ");
		const double setupPart = DurationAfter(totalLine, ": setup ");
		const double run = DurationAfter(totalLine, ", run ");
		const double summary = DurationAfter(totalLine, ", summary ");
		const double frames = DurationAfter(timeLine, " per frame, ");
		ASSERT_GT(setup, 0) << setupLine;
		ASSERT_GT(run, 0) << totalLine;
		ASSERT_GT(summary, 0) << totalLine;
		EXPECT_EQ(setup, setupPart) << result.m_Out;	// one measure, printed twice
		// The three parts make the total (each printed to 4 significant digits at most).
		EXPECT_NEAR(setupPart + run + summary, total, total * 2e-3 + 3e-6) << totalLine;
		// The run's own time is within its part of the total.
		EXPECT_LE(frames, run) << result.m_Out;
		EXPECT_GT(setup, 5 * run) << result.m_Out;
		EXPECT_GT(summary, 5 * run) << result.m_Out;
	}

	TEST_F(OxvmReports, CompareTimesItsComparisonApart)
	{
		const SOxvmResult result = Oxvm("run --compare");
		ASSERT_EQ(result.m_Status, 0) << result.m_Err;
		const std::string totalLine = Line(result.m_Out, "total      ");
		EXPECT_GT(DurationAfter(totalLine, ", compare "), 0) << result.m_Out;
		EXPECT_EQ(totalLine.find(", run "), std::string::npos) << totalLine;
	}

	// ---- The progress bar

	TEST_F(OxvmReports, ProgressBarCoversSetUpThenTheRun)
	{
		const SOxvmResult result = Oxvm("run --frames 3 --progress always");
		ASSERT_EQ(result.m_Status, 0) << result.m_Err;
		const std::size_t setup = result.m_Err.find("\rset-up: initialising registers [");
		const std::size_t run = result.m_Err.find("\rrun: frame 3/3 [========");
		ASSERT_NE(setup, std::string::npos) << result.m_Err;
		ASSERT_NE(run, std::string::npos) << result.m_Err;
		EXPECT_LT(setup, run);
		EXPECT_NE(result.m_Err.find("] 100% 0:00 elapsed", run), std::string::npos) << result.m_Err;
		// Each phase ends its line; the bar is redrawn in place with carriage returns. The
		// bundled example is not read from a file: initialising, verifying, the frames and
		// the statistics.
		EXPECT_NE(result.m_Err.find(" elapsed\x1b[K\n"), std::string::npos);
		EXPECT_EQ(result.m_Err.back(), '\n');
		EXPECT_EQ(CountLines(result.m_Err, "\r"), 4) << result.m_Err;
		EXPECT_EQ(CountLines(result.m_Err, "\rsummary: statistics ["), 1) << result.m_Err;

		// Not on a terminal (stderr is a file here), or never: no bar.
		EXPECT_EQ(Oxvm("run --frames 3").m_Err, "");
		EXPECT_EQ(Oxvm("run --frames 3 --progress never").m_Err, "");
		EXPECT_EQ(Oxvm("run --progress sometimes").m_Status, 2);
	}

#ifdef OXVM_PATH
	TEST_F(OxvmReports, ProgressBarOnATerminalOnlyWhenLong)
	{
		// A run of milliseconds on a terminal: nothing drawn.
		const std::string quiet = StderrOnTerminal("run --frames 3");
		EXPECT_EQ(quiet.find('['), std::string::npos) << quiet;
		// Forced, the bar reaches the terminal.
		const std::string forced = StderrOnTerminal("run --frames 3 --progress always");
		EXPECT_NE(forced.find("run: frame 3/3 ["), std::string::npos) << forced;
		EXPECT_NE(Read(".stdout").find("ran        9 instructions x 3 frames"), std::string::npos);
	}
#endif
}
