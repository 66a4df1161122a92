#pragma once
// Assertions and verifications.
//
// Every site owns one "ignored" flag (a relaxed atomic byte: a race only means a
// site may report twice). A failed site calls the installed handler, whose answer
// decides what happens next:
//
//   0  break: a debugger trap is raised (SIGTRAP), then execution goes on
//   1  ignore: the site never reports again, its condition is no longer evaluated
//   *  continue
//
// Execution always goes on after an assertion with the values at hand; only a
// verification (OX_VERIFY_OR_RETURN) leaves the enclosing function.
//
// Hosts and test suites plug their own reporter in with SetHandler; the default
// handler prints one short line to stderr and answers 1 (report each site once):
//
//   orvex cbvm: assertion failed: reg0.m_Size >= evalCount * stride0 (instruction at
//   offset 24, source 0 stream.1:float3 holds 64 bytes, needs 12000)
//
// (on one line): the check's text, its message when it has one, and what the work
// running on this thread says about itself (CReportContext: the VM names the
// instruction). The site's source file, line and function are in the SReport for a
// handler that wants them; the default one leaves them out, since a host's user can do
// nothing with the library's build paths and template signatures.

#include "kr_base_types.h"

#include <atomic>

namespace Orvex
{
	namespace Assert
	{
		struct SReport
		{
			const char *m_File;
			const char *m_Function;
			int m_Line;
			const char *m_Expression;
			const char *m_Message;	// formatted message, or the expression text when there is none
		};

		// A handler must not throw: the reporter is noexcept, so that the library's hot
		// paths need no unwinding code, and an exception out of a handler ends the process.
		using FnHandler = int (*)(const SReport &report);

		enum EAnswer : int
		{
			Answer_Break = 0,
			Answer_Ignore = 1,
			Answer_Continue = 2,
		};

		// Installs 'handler' and returns the previous one; nullptr restores the default.
		FnHandler SetHandler(FnHandler handler);

		// The handler used when none is installed: one line on stderr, answers Answer_Ignore.
		int DefaultHandler(const SReport &report);

		// What the work running on this thread adds to its reports, as one short clause
		// ("instruction at offset 24"), written by 'describe' from 'state' when a report is
		// made, while the CReportContext lives. Contexts nest (the innermost one speaks) and
		// are per thread; they cost nothing until a report. The VM's reporting paths set
		// one for the instruction they check.
		using FnDescribe = u32 (*)(const void *state, char *text, u32 capacity);

		class CReportContext;
		namespace Detail
		{
			// The thread's innermost context (inline: a context is set for every instruction
			// the Low path runs, where two calls would cost more than the instruction).
			// (Defined here with its constant initialiser: an extern one would be reached
			// through the thread-local initialisation check, a call.)
			inline thread_local const CReportContext *t_ReportContext = nullptr;
		}

		class CReportContext
		{
		public:
			CReportContext(FnDescribe describe, const void *state) noexcept : m_Describe(describe), m_State(state), m_Outer(Detail::t_ReportContext)
			{
				Detail::t_ReportContext = this;
			}
			~CReportContext() { Detail::t_ReportContext = m_Outer; }
			CReportContext(const CReportContext &) = delete;
			CReportContext &operator=(const CReportContext &) = delete;

			// Writes this thread's innermost context into 'text' (always terminated; "" when
			// there is none) and returns its length. Any handler may call it.
			static u32 Describe(char *text, u32 capacity);

		private:
			FnDescribe m_Describe;
			const void *m_State;
			const CReportContext *m_Outer;
		};

		// Number of reports made since process start (silenced sites do not report).
		u64 ReportCount();

		class CSiteFlag
		{
		public:
			constexpr CSiteFlag() = default;
			bool Ignored() const { return m_Ignored.load(std::memory_order_relaxed) != 0; }
			void Ignore() { m_Ignored.store(1, std::memory_order_relaxed); }
			void Reset() { m_Ignored.store(0, std::memory_order_relaxed); }

		private:
			std::atomic<u8> m_Ignored{0};
		};

		// The reporter. 'expr2' is accepted for call compatibility and not reported twice.
		int EvalAssert(const char *file, const char *function, int line, const char *expr, const char *expr2, const char *message) noexcept;
		int EvalAssertFormat(const char *file, const char *function, int line, const char *expr, const char *expr2, const char *format, ...) noexcept
#if defined(__GNUC__)
			__attribute__((format(printf, 6, 7)))
#endif
			;

		// Reports a failed verification through the same handler. Returns true when the
		// caller should break; answer 1 sets 'ignored', after which nothing is reported.
		bool VerifyAssertFalse_Breaks(CSiteFlag &ignored, const char *file, const char *function, int line, const char *expr, const char *expr2, const char *expr3) noexcept;

		// Raises a debugger trap (int3 / SIGTRAP). With no debugger and no SIGTRAP handler
		// the process stops, which is what "break" means outside a debugger.
		void DebugBreak() noexcept;

		// Applies the handler's answer to the site that reported.
		inline void _Conclude(CSiteFlag &site, int answer)
		{
			if (answer == Answer_Ignore)
				site.Ignore();
			else if (answer == Answer_Break)
				DebugBreak();
		}
	}
}

#define OX_FUNCTION __PRETTY_FUNCTION__

// The condition is not evaluated once the site is ignored.
#define OX_ASSERT(cond) \
	do { \
		static ::OX_NAMESPACE::Assert::CSiteFlag _ox_site; \
		if (!_ox_site.Ignored() && !(cond)) \
			::OX_NAMESPACE::Assert::_Conclude(_ox_site, ::OX_NAMESPACE::Assert::EvalAssert(__FILE__, OX_FUNCTION, __LINE__, #cond, #cond, #cond)); \
	} while (0)

// A check whose predicate and text are written once elsewhere (a named check such as
// the math op's, cbvm_math_op_checks.h): reports exactly as OX_ASSERT of that text.
#define OX_ASSERT_TEXT(cond, text) \
	do { \
		static ::OX_NAMESPACE::Assert::CSiteFlag _ox_site; \
		if (!_ox_site.Ignored() && !(cond)) \
			::OX_NAMESPACE::Assert::_Conclude(_ox_site, ::OX_NAMESPACE::Assert::EvalAssert(__FILE__, OX_FUNCTION, __LINE__, text, text, text)); \
	} while (0)

// OX_ASSERT_FORMAT(cond, "printf format", args...)
#define OX_ASSERT_FORMAT(cond, ...) \
	do { \
		static ::OX_NAMESPACE::Assert::CSiteFlag _ox_site; \
		if (!_ox_site.Ignored() && !(cond)) \
			::OX_NAMESPACE::Assert::_Conclude(_ox_site, ::OX_NAMESPACE::Assert::EvalAssertFormat(__FILE__, OX_FUNCTION, __LINE__, #cond, #cond, __VA_ARGS__)); \
	} while (0)

#define OX_ASSERT_NOT_REACHED() OX_ASSERT_FORMAT(false, "Control point shouldn't be reached.")

// Alignment checks as the kernels write them; the reported expression is the macro's expansion text.
#define OX_ASSERT_ALIGNED16(ptr) OX_ASSERT_FORMAT(OX_NAMESPACE::Mem::IsAligned<0x10>((ptr)), "Unaligned memory! %p should be 16-bytes aligned.", static_cast<const void *>(ptr))
#define OX_ASSERT_ALIGNED32(ptr) OX_ASSERT_FORMAT(OX_NAMESPACE::Mem::IsAligned<0x20>((ptr)), "Unaligned memory! %p should be 32-bytes aligned.", static_cast<const void *>(ptr))

// A verification: when 'cond' fails it is reported (unless silenced) and the
// statements given as the second argument run, e.g. OX_VERIFY_OR(cond, return).
#define OX_VERIFY_OR(cond, ...) \
	do { \
		if (!(cond)) { \
			static ::OX_NAMESPACE::Assert::CSiteFlag _ox_site; \
			if (::OX_NAMESPACE::Assert::VerifyAssertFalse_Breaks(_ox_site, __FILE__, OX_FUNCTION, __LINE__, #cond, #cond, #cond)) \
				::OX_NAMESPACE::Assert::DebugBreak(); \
			__VA_ARGS__; \
		} \
	} while (0)

// OX_VERIFY_OR with the reported text given (see OX_ASSERT_TEXT).
#define OX_VERIFY_TEXT_OR(cond, text, ...) \
	do { \
		if (!(cond)) { \
			static ::OX_NAMESPACE::Assert::CSiteFlag _ox_site; \
			if (::OX_NAMESPACE::Assert::VerifyAssertFalse_Breaks(_ox_site, __FILE__, OX_FUNCTION, __LINE__, text, text, text)) \
				::OX_NAMESPACE::Assert::DebugBreak(); \
			__VA_ARGS__; \
		} \
	} while (0)

// The common form: the enclosing function returns, optionally with a value:
// OX_VERIFY_OR_RETURN(cond) / OX_VERIFY_OR_RETURN(cond, value).
#define OX_VERIFY_OR_RETURN(cond, ...) OX_VERIFY_OR(cond, return __VA_ARGS__)
