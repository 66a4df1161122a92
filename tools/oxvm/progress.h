#pragma once
// The progress bar of 'oxvm run' on stderr, one phase of the command after the other:
//   set-up: reading prog.oxs [========================================] 100% 0:01 elapsed
//   run: frame 12/100 [====>                                   ]  12% 0:03 elapsed, ~0:22 left
// Every long phase (reading, register initialisation, verification, the frames, the
// statistics, dumps and the CSV file) goes through the one CProgress the command owns.
// The line itself is built by FormatProgressLine, which knows nothing of terminals, so
// that what a user sees can be tested as text.

#include "kr_base_types.h"

#include <chrono>
#include <condition_variable>
#include <cstddef>
#include <functional>
#include <mutex>
#include <signal.h>
#include <string>
#include <string_view>
#include <thread>

namespace OxVm
{
	using namespace Orvex;

	enum EProgressMode : u8
	{
		Progress_Auto,		// on a terminal, once a phase has taken over a second
		Progress_Always,	// from the start of every phase, wherever stderr goes
		Progress_Never,
	};

	// How far a piece of work is: 'done' of 'total' units (total 0: not known yet).
	using FnProgress = std::function<void(u64 done, u64 total)>;

	// One state of a phase, as the line shows it.
	struct SProgressLine
	{
		std::string_view m_Phase;	// "run", "set-up: initialising registers"
		std::string_view m_Unit;	// "frame": "run: frame 12/100"; empty: no count, the bar only
		u64 m_Done = 0;
		u64 m_Total = 0;			// 0: not known (no bar, no percentage, no estimate)
		double m_Elapsed = 0;		// seconds since the phase began
	};

	// The line for 'line', at most 'width' columns (UTF-8 characters) long:
	//   "run: frame 12/100 [====>     ]  12% 0:03 elapsed, ~0:22 left"
	// The time left is the elapsed time scaled by the work left, and only shown once some
	// work is done and some is left. The bar narrows (to 10) before the phase name is
	// clipped ("set-up: reading a-very-lo... [") and, on a very narrow terminal, the line
	// is cut at 'width'.
	std::string FormatProgressLine(const SProgressLine &line, std::size_t width);

	// "0:03", "12:34", "1:02:03" (seconds rounded to the nearest).
	std::string FormatClock(double seconds);

	// The bar of one command. Update is cheap while nothing is drawn (a lock and one clock
	// read) and draws at most ten times a second. A phase that drew its bar ends its line,
	// so that what the command prints next starts on a line of its own. A ticker thread
	// redraws the bar once a second while no Update comes (one frame of a long program
	// runs for minutes without one): the elapsed time moves, and an auto bar still shows
	// up after a second. Every member may be called from any thread.
	//
	// While a bar may be shown the object catches SIGINT: Ctrl-C clears the bar's line
	// (the shell's prompt does not land after a half-drawn bar), then the signal ends the
	// process as it would have without the bar (exit status 130 in a shell).
	class CProgress
	{
	public:
		explicit CProgress(EProgressMode mode);
		~CProgress();
		CProgress(const CProgress &) = delete;
		CProgress &operator=(const CProgress &) = delete;

		// Starts a phase named 'phase' of 'total' units ('unit': what the count shows, as
		// "frame"; empty: no count). Ends the phase before, if any. 'phase' must outlive
		// the phase.
		void Begin(std::string_view phase, std::string_view unit, u64 total);
		void Update(u64 done, u64 total);
		// Ends the phase (its bar, if drawn, keeps its last state on its own line).
		void End();
		// Takes the bar off the terminal before the phase writes a line to stdout (a dump,
		// the statistics), when both go to a terminal; the next Update draws it again.
		void Clear();
		// Takes the bar off the terminal before a line goes to stderr (an assertion report
		// in the middle of a frame); the ticker draws it again below that line.
		void Interrupt();
		// Update as a callback, for code that only knows FnProgress.
		FnProgress Reporter();

		// The bar of the running command, for work that starts its own phase deep inside
		// the loader (reading files, csv() rows); null when none.
		static CProgress *Current();

	private:
		using Clock = std::chrono::steady_clock;

		void _End();
		void _Draw();
		void _Tick();	// the ticker's redraw, under m_Lock

		std::mutex m_Lock;					// every member below, and the bar's line
		std::condition_variable m_Wake;	// ends the ticker's wait
		bool m_Stop = false;
		std::thread m_Ticker;				// started when a bar may be shown

		bool m_Enabled = false;
		bool m_Always = false;
		bool m_Terminal = false;		// stderr is a terminal
		bool m_Phase = false;			// between Begin and End
		bool m_Drawing = false;			// the phase's bar is shown (or was, before a Clear)
		bool m_Cleared = false;			// Clear took it off the terminal
		std::string m_Name, m_Unit;
		u64 m_Done = 0;
		u64 m_Total = 0;
		u64 m_DrawnDone = ~u64(0);		// m_Done when the bar was last drawn
		Clock::time_point m_Start;
		Clock::time_point m_LastDraw;
		CProgress *m_Outer = nullptr;	// Current() before this one
		bool m_HandlerInstalled = false;
		struct sigaction m_OuterHandler = {};	// SIGINT's disposition before this one
	};

	// A phase of the running command's bar for the life of the object (nothing without a
	// bar), for work that cannot see the command: Begin in the constructor, End in the
	// destructor.
	class CProgressPhase
	{
	public:
		CProgressPhase(std::string_view phase, std::string_view unit, u64 total);
		~CProgressPhase();
		CProgressPhase(const CProgressPhase &) = delete;
		CProgressPhase &operator=(const CProgressPhase &) = delete;

		void Update(u64 done, u64 total) const
		{
			if (m_Progress != nullptr)
				m_Progress->Update(done, total);
		}

	private:
		CProgress *m_Progress;
	};

	// The SIGINT handler the bar installs (exposed for the tests): when a bar is on
	// stderr, writes "\r\x1b[K" there, then restores the default disposition and raises
	// the signal again. Async-signal-safe: write(), signal() and raise() only.
	void ClearProgressOnSignal(int signal);
}
