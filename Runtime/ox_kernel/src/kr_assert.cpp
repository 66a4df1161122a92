#include "kr_assert.h"

#include <csignal>
#include <cstdarg>
#include <cstdio>
#include <cstring>

namespace Orvex
{
	namespace Assert
	{
		namespace
		{
			std::atomic<FnHandler> g_Handler{nullptr};
			std::atomic<u64> g_ReportCount{0};

			int _Report(const char *file, const char *function, int line, const char *expr, const char *message)
			{
				g_ReportCount.fetch_add(1, std::memory_order_relaxed);
				const SReport report = {file, function, line, expr, message};
				const FnHandler handler = g_Handler.load(std::memory_order_acquire);
				return handler != nullptr ? handler(report) : DefaultHandler(report);
			}
		}

		FnHandler SetHandler(FnHandler handler)
		{
			return g_Handler.exchange(handler, std::memory_order_acq_rel);
		}

		int DefaultHandler(const SReport &report)
		{
			// Stack buffers, no heap: reports come from any thread, in the middle of a run.
			char context[192];
			CReportContext::Describe(context, sizeof(context));
			const bool ownMessage = std::strcmp(report.m_Message, report.m_Expression) != 0;
			// One fprintf call so that reports from several threads do not interleave.
			std::fprintf(stderr, "orvex cbvm: assertion failed: %s%s%s%s%s%s\n", report.m_Expression, ownMessage ? ": " : "", ownMessage ? report.m_Message : "",
						 context[0] != '\0' ? " (" : "", context, context[0] != '\0' ? ")" : "");
			return Answer_Ignore;
		}

		u32 CReportContext::Describe(char *text, u32 capacity)
		{
			if (capacity == 0)
				return 0;
			text[0] = '\0';
			const CReportContext *context = Detail::t_ReportContext;
			if (context == nullptr || context->m_Describe == nullptr)
				return 0;
			const u32 length = context->m_Describe(context->m_State, text, capacity);
			text[capacity - 1] = '\0';
			return length < capacity ? length : capacity - 1;
		}

		u64 ReportCount()
		{
			return g_ReportCount.load(std::memory_order_relaxed);
		}

		int EvalAssert(const char *file, const char *function, int line, const char *expr, const char * /*expr2*/, const char *message) noexcept
		{
			return _Report(file, function, line, expr, message != nullptr ? message : expr);
		}

		int EvalAssertFormat(const char *file, const char *function, int line, const char *expr, const char * /*expr2*/, const char *format, ...) noexcept
		{
			// Stack buffer: reports must work without the heap, from any thread.
			char message[1024];
			va_list args;
			va_start(args, format);
			std::vsnprintf(message, sizeof(message), format, args);
			va_end(args);
			return _Report(file, function, line, expr, message);
		}

		bool VerifyAssertFalse_Breaks(CSiteFlag &ignored, const char *file, const char *function, int line, const char *expr, const char * /*expr2*/, const char * /*expr3*/) noexcept
		{
			if (ignored.Ignored())
				return false;
			const int answer = _Report(file, function, line, expr, expr);
			if (answer == Answer_Ignore)
				ignored.Ignore();
			return answer == Answer_Break;
		}

		void DebugBreak() noexcept
		{
#if defined(__x86_64__) || defined(__i386__)
			// int3 leaves the instruction pointer after the trap, so a debugger (or a
			// SIGTRAP handler) resumes right here.
			__asm__ volatile("int3");
#else
			std::raise(SIGTRAP);
#endif
		}
	}
}
