#include "progress.h"

#include <fmt/format.h>

#include <algorithm>
#include <cmath>
#include <csignal>
#include <cstdio>

#include <sys/ioctl.h>
#include <unistd.h>

namespace OxVm
{
	namespace
	{
		constexpr std::size_t kBarMax = 40;
		constexpr std::size_t kBarMin = 10;
		constexpr std::size_t kNameMin = 8;		// a clipped phase name keeps this much ("set-u...")
		constexpr std::size_t kFileWidth = 80;	// the line's width when stderr is no terminal
		constexpr double kAutoDelay = 1.0;		// auto: a phase shows its bar once it has taken this long
		constexpr double kRedraw = 0.1;
		constexpr double kTick = 1.0;			// the ticker's redraw without an Update
		constexpr auto kTickerWait = std::chrono::milliseconds(250);

		// Written by the SIGINT handler: prepared up front, as the handler may not format.
		constexpr char kClearLine[] = "\r\x1b[K";

		// Whether a bar is on stderr now (its line not ended), for the signal handler; set
		// before the bar's bytes are written, so an interrupted draw is cleared too.
		volatile std::sig_atomic_t g_BarShown = 0;
		CProgress *g_Current = nullptr;

		bool IsContinuation(char c)
		{
			return (static_cast<unsigned char>(c) & 0xC0) == 0x80;
		}

		// Columns of a UTF-8 text: one per character.
		std::size_t Columns(std::string_view text)
		{
			return std::size_t(std::count_if(text.begin(), text.end(), [](char c) { return !IsContinuation(c); }));
		}

		// The first 'columns' characters of 'text'.
		std::string_view Cut(std::string_view text, std::size_t columns)
		{
			std::size_t seen = 0;
			for (std::size_t i = 0; i < text.size(); ++i)
				if (!IsContinuation(text[i]) && seen++ == columns)
					return text.substr(0, i);
			return text;
		}

		std::string Bar(u64 done, u64 total, std::size_t width)
		{
			const std::size_t filled = std::size_t(std::min<u64>(done, total) * width / total);
			std::string bar(filled, '=');
			if (filled < width && done != 0)
				bar += '>';
			bar.resize(width, ' ');
			return bar;
		}
	}

	std::string FormatClock(double seconds)
	{
		const u64 whole = seconds > 0 ? u64(std::llround(seconds)) : 0;
		if (whole >= 3600)
			return fmt::format("{}:{:02}:{:02}", whole / 3600, whole / 60 % 60, whole % 60);
		return fmt::format("{}:{:02}", whole / 60, whole % 60);
	}

	std::string FormatProgressLine(const SProgressLine &line, std::size_t width)
	{
		const bool known = line.m_Total != 0;
		std::string count;
		if (!line.m_Unit.empty())
			count = known ? fmt::format(": {} {}/{}", line.m_Unit, line.m_Done, line.m_Total) : fmt::format(": {} {}", line.m_Unit, line.m_Done);
		std::string tail = FormatClock(line.m_Elapsed) + " elapsed";
		std::string left;
		if (known && line.m_Done != 0 && line.m_Done < line.m_Total)
			left = ", ~" + FormatClock(line.m_Elapsed * double(line.m_Total - line.m_Done) / double(line.m_Done)) + " left";
		if (known)
			tail = fmt::format("{:3}% ", std::min<u64>(line.m_Done, line.m_Total) * 100 / line.m_Total) + tail;

		// name + count + " [" bar "] " + tail, or name + count + " " + tail without a bar.
		// The bar's width is worked out for the widest line of the phase (the count at its
		// total's digits, an estimate of up to 9:59:59 left), so that it keeps its width
		// from one redraw to the next; the name is clipped only when the line as it is
		// does not fit.
		tail += left;
		std::string_view name = line.m_Phase;
		const std::size_t fixed = Columns(count) + Columns(tail) + (known ? 4 : 1);
		std::size_t bar = 0;
		if (known)
		{
			const std::size_t widestCount = line.m_Unit.empty() ? 0 : Columns(line.m_Unit) + 4 + 2 * fmt::formatted_size("{}", line.m_Total);
			const std::size_t widest = std::max(widestCount, Columns(count)) + Columns(tail) - Columns(left) + std::max<std::size_t>(Columns(left), 15) + 4;
			const std::size_t room = width > Columns(name) + widest ? width - Columns(name) - widest : 0;
			bar = std::clamp(room, kBarMin, kBarMax);
		}
		std::string clipped;
		const std::size_t room = std::max(width > fixed + bar ? width - fixed - bar : 0, kNameMin);
		if (Columns(name) + fixed + bar > width && Columns(name) > room)
		{
			clipped = std::string(Cut(name, room - 3)) + "...";
			name = clipped;
		}
		std::string text = std::string(name) + count + (known ? " [" + Bar(line.m_Done, line.m_Total, bar) + "] " : std::string(" ")) + tail;
		// A terminal narrower than even that: the line is cut rather than wrapped.
		if (Columns(text) > width)
			text.resize(Cut(text, width).size());
		return text;
	}

	void ClearProgressOnSignal(int signal)
	{
		if (g_BarShown != 0)
		{
			const ssize_t written = write(STDERR_FILENO, kClearLine, sizeof(kClearLine) - 1);
			(void)written;	// nothing to do about a failed write on the way out
		}
		std::signal(signal, SIG_DFL);
		std::raise(signal);
	}

	CProgress::CProgress(EProgressMode mode)
	: m_Terminal(isatty(STDERR_FILENO) != 0)
	{
		m_Enabled = mode == Progress_Always || (mode == Progress_Auto && m_Terminal);
		m_Always = mode == Progress_Always;
		m_Outer = g_Current;
		g_Current = this;
		if (!m_Enabled)
			return;
		// A SIGINT that is ignored (a job started in the background by a shell without
		// job control) stays ignored: the bar only changes how an interrupt ends.
		if (sigaction(SIGINT, nullptr, &m_OuterHandler) == 0 && m_OuterHandler.sa_handler != SIG_IGN)
		{
			struct sigaction action = {};
			action.sa_handler = ClearProgressOnSignal;
			sigemptyset(&action.sa_mask);
			m_HandlerInstalled = sigaction(SIGINT, &action, nullptr) == 0;
		}
		m_Ticker = std::thread([this] {
			std::unique_lock<std::mutex> lock(m_Lock);
			while (!m_Wake.wait_for(lock, kTickerWait, [this] { return m_Stop; }))
				_Tick();
		});
	}

	CProgress::~CProgress()
	{
		End();
		if (m_Ticker.joinable())
		{
			{
				const std::lock_guard<std::mutex> lock(m_Lock);
				m_Stop = true;
			}
			m_Wake.notify_one();
			m_Ticker.join();
		}
		g_Current = m_Outer;
		if (m_HandlerInstalled)
			sigaction(SIGINT, &m_OuterHandler, nullptr);
	}

	CProgress *CProgress::Current()
	{
		return g_Current;
	}

	FnProgress CProgress::Reporter()
	{
		return [this](u64 done, u64 total) { Update(done, total); };
	}

	void CProgress::Begin(std::string_view phase, std::string_view unit, u64 total)
	{
		const std::lock_guard<std::mutex> lock(m_Lock);
		_End();
		m_Phase = true;
		m_Name = phase;
		m_Unit = unit;
		m_Done = 0;
		m_Total = total;
		m_DrawnDone = ~u64(0);
		m_Start = Clock::now();
		m_LastDraw = m_Start;
		m_Cleared = false;
		m_Drawing = m_Enabled && m_Always;
		if (m_Drawing)
			_Draw();
	}

	void CProgress::Update(u64 done, u64 total)
	{
		if (!m_Enabled)
			return;
		const std::lock_guard<std::mutex> lock(m_Lock);
		if (!m_Phase)
			return;
		m_Done = done;
		m_Total = total;
		if (!m_Drawing)
		{
			if (std::chrono::duration<double>(Clock::now() - m_Start).count() <= kAutoDelay)
				return;
			m_Drawing = true;
		}
		else if (std::chrono::duration<double>(Clock::now() - m_LastDraw).count() <= kRedraw && (total == 0 || done < total))
			return;
		_Draw();
	}

	void CProgress::End()
	{
		const std::lock_guard<std::mutex> lock(m_Lock);
		_End();
	}

	void CProgress::_End()
	{
		if (!m_Phase)
			return;
		m_Phase = false;
		if (!m_Drawing)
			return;
		if (m_DrawnDone != m_Done || m_Cleared)
			_Draw();
		std::fputs("\n", stderr);
		g_BarShown = 0;
		std::fflush(stderr);
		m_Drawing = false;
	}

	void CProgress::Clear()
	{
		const std::lock_guard<std::mutex> lock(m_Lock);
		if (!m_Terminal || !m_Drawing || m_Cleared)
			return;
		std::fputs(kClearLine, stderr);
		std::fflush(stderr);
		g_BarShown = 0;
		m_Cleared = true;
	}

	void CProgress::Interrupt()
	{
		const std::lock_guard<std::mutex> lock(m_Lock);
		if (!m_Drawing || m_Cleared)
			return;
		// On a terminal the line goes; in a file it ends, so that the report starts a line.
		std::fputs(m_Terminal ? kClearLine : "\n", stderr);
		std::fflush(stderr);
		g_BarShown = 0;
		m_LastDraw = Clock::time_point();	// the next tick draws
	}

	void CProgress::_Tick()
	{
		if (!m_Phase || m_Cleared)
			return;	// a Clear waits for the phase's own Update: it is writing to stdout
		const Clock::time_point now = Clock::now();
		if (!m_Drawing)
		{
			if (std::chrono::duration<double>(now - m_Start).count() <= kAutoDelay)
				return;
			m_Drawing = true;
		}
		else if (std::chrono::duration<double>(now - m_LastDraw).count() < kTick)
			return;
		_Draw();
	}

	void CProgress::_Draw()
	{
		std::size_t width = kFileWidth;
		struct winsize size;
		// One column short of the terminal's: a line that fills it would wrap on some.
		if (m_Terminal && ioctl(STDERR_FILENO, TIOCGWINSZ, &size) == 0 && size.ws_col > 1)
			width = std::size_t(size.ws_col) - 1;
		const SProgressLine line{m_Name, m_Unit, m_Done, m_Total, std::chrono::duration<double>(Clock::now() - m_Start).count()};
		// \x1b[K clears what a longer line drawn before left on the right.
		const std::string text = "\r" + FormatProgressLine(line, width) + "\x1b[K";
		if (m_Terminal)
			std::fflush(stdout);	// what the phase printed comes before the bar
		g_BarShown = 1;
		std::fwrite(text.data(), 1, text.size(), stderr);
		std::fflush(stderr);
		m_LastDraw = Clock::now();
		m_DrawnDone = m_Done;
		m_Cleared = false;
	}

	CProgressPhase::CProgressPhase(std::string_view phase, std::string_view unit, u64 total) : m_Progress(CProgress::Current())
	{
		if (m_Progress != nullptr)
			m_Progress->Begin(phase, unit, total);
	}

	CProgressPhase::~CProgressPhase()
	{
		if (m_Progress != nullptr)
			m_Progress->End();
	}
}
