// Assertions, verifications, the once-only log, the profiler and the hazard counters.

#include "kr_assert.h"
#include "kr_log_unique.h"
#include "kr_profiler.h"
#include "test_support.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <csignal>
#include <cstdio>
#include <cstring>
#include <string>
#include <thread>
#include <vector>

using namespace Orvex;
using OxTest::CAssertCapture;

namespace
{
	//--------------------------------------------------------------------------------
	// Each test owns its assertion sites: a silenced site stays silenced for the
	// whole process, so sites are never shared between tests.

	int g_Evaluations = 0;
	bool CountedFalse()
	{
		++g_Evaluations;
		return false;
	}

	int g_SiteLine = 0;
	void SiteForFields(int value)
	{
		g_SiteLine = __LINE__ + 1;
		OX_ASSERT(value > 10);
	}

	void SiteForIgnore() { OX_ASSERT(CountedFalse()); }
	void SiteForContinue() { OX_ASSERT(CountedFalse()); }
	void SiteForBreak() { OX_ASSERT(CountedFalse()); }
	void SiteForDefaultHandler() { OX_ASSERT(1 + 1 == 3); }
	void SiteFormatted(int value) { OX_ASSERT_FORMAT(value == 0, "value %d of '%s'", value, "lane"); }
	void SiteNotReached() { OX_ASSERT_NOT_REACHED(); }
	void SiteAligned(const void *evalInto) { OX_ASSERT_ALIGNED32(evalInto); }
	void SiteAligned16(const void *dstPtr) { OX_ASSERT_ALIGNED16(dstPtr); }

	int g_WorkDone = 0;
	int VerifiedWork(int x)
	{
		OX_VERIFY_OR_RETURN(x > 0, -1);
		++g_WorkDone;
		return x * 2;
	}

	void VerifiedVoidWork(int stride)
	{
		OX_VERIFY_OR_RETURN(stride == 16);
		++g_WorkDone;
	}

	volatile std::sig_atomic_t g_Traps = 0;
	void OnTrap(int) { g_Traps = g_Traps + 1; }

	struct SScopedTrapHandler
	{
		struct sigaction m_Previous;
		SScopedTrapHandler()
		{
			struct sigaction action;
			std::memset(&action, 0, sizeof(action));
			action.sa_handler = &OnTrap;
			sigemptyset(&action.sa_mask);
			sigaction(SIGTRAP, &action, &m_Previous);
			g_Traps = 0;
		}
		~SScopedTrapHandler() { sigaction(SIGTRAP, &m_Previous, nullptr); }
	};
}

TEST(Assert, ReportCarriesFileLineFunctionExpressionAndMessage)
{
	CAssertCapture capture;
	SiteForFields(3);
	SiteForFields(30);	// holds: no report
	const std::vector<OxTest::SCapturedReport> reports = capture.Reports();
	ASSERT_EQ(reports.size(), 1u);
	EXPECT_EQ(reports[0].m_File, std::string(__FILE__));
	EXPECT_EQ(reports[0].m_Line, g_SiteLine);
	EXPECT_NE(reports[0].m_Function.find("SiteForFields"), std::string::npos) << reports[0].m_Function;
	EXPECT_EQ(reports[0].m_Expression, "value > 10");
	EXPECT_EQ(reports[0].m_Message, "value > 10");	// no message: the expression again
}

TEST(Assert, AnswerIgnoreSilencesTheSiteForGood)
{
	CAssertCapture capture(Assert::Answer_Ignore);
	g_Evaluations = 0;
	SiteForIgnore();
	SiteForIgnore();
	SiteForIgnore();
	EXPECT_EQ(capture.Count(), 1u);
	EXPECT_EQ(g_Evaluations, 1) << "an ignored site must not evaluate its condition";
}

TEST(Assert, OtherAnswersContinueAndReportAgain)
{
	CAssertCapture capture(7);
	g_Evaluations = 0;
	SiteForContinue();
	SiteForContinue();
	EXPECT_EQ(capture.Count(), 2u);
	EXPECT_EQ(g_Evaluations, 2);
}

TEST(Assert, AnswerBreakRaisesATrapThenContinues)
{
	SScopedTrapHandler trap;
	CAssertCapture capture(Assert::Answer_Break);
	g_Evaluations = 0;
	SiteForBreak();
	EXPECT_EQ(g_Traps, 1);
	int after = 0;
	++after;	// execution went on past the trap
	SiteForBreak();
	EXPECT_EQ(after, 1);
	EXPECT_EQ(g_Traps, 2) << "break does not silence the site";
	EXPECT_EQ(capture.Count(), 2u);
}

TEST(Assert, FormattedMessage)
{
	CAssertCapture capture;
	SiteFormatted(42);
	EXPECT_TRUE(capture.Has("value == 0", "value 42 of 'lane'"));
	SiteNotReached();
	EXPECT_TRUE(capture.Has("false", "Control point shouldn't be reached."));
}

TEST(Assert, AlignmentTexts)
{
	CAssertCapture capture;
	alignas(32) static unsigned char buffer[64];
	SiteAligned(buffer);
	EXPECT_EQ(capture.Count(), 0u);
	SiteAligned(buffer + 16);
	char expected[128];
	std::snprintf(expected, sizeof(expected), "Unaligned memory! %p should be 32-bytes aligned.", static_cast<const void *>(buffer + 16));
	EXPECT_TRUE(capture.Has("OX_NAMESPACE::Mem::IsAligned<0x20>((evalInto))", expected));
	SiteAligned(nullptr);	// null is aligned
	SiteAligned16(buffer + 16);
	SiteAligned16(buffer + 4);
	std::snprintf(expected, sizeof(expected), "Unaligned memory! %p should be 16-bytes aligned.", static_cast<const void *>(buffer + 4));
	EXPECT_TRUE(capture.Has("OX_NAMESPACE::Mem::IsAligned<0x10>((dstPtr))", expected));
	EXPECT_EQ(capture.Count(), 2u);
}

TEST(Assert, DefaultHandlerPrintsOneLineAndSilences)
{
	const Assert::FnHandler previous = Assert::SetHandler(nullptr);
	const u64 before = Assert::ReportCount();
	testing::internal::CaptureStderr();
	SiteForDefaultHandler();
	SiteForDefaultHandler();
	const std::string err = testing::internal::GetCapturedStderr();
	Assert::SetHandler(previous);
	EXPECT_EQ(Assert::ReportCount() - before, 1u) << "the default handler answers 'ignore'";
	// The check's text only: the site's file and function mean nothing to a host's user.
	EXPECT_EQ(err, "orvex cbvm: assertion failed: 1 + 1 == 3\n");
}

TEST(Assert, DefaultHandlerPrintsTheMessageWhenThereIsOne)
{
	testing::internal::CaptureStderr();
	const int answer = Assert::DefaultHandler({"file.cpp", "void f()", 12, "p != null", "pointer was null"});
	const std::string err = testing::internal::GetCapturedStderr();
	EXPECT_EQ(answer, Assert::Answer_Ignore);
	EXPECT_EQ(err, "orvex cbvm: assertion failed: p != null: pointer was null\n");
}

TEST(Assert, SetHandlerReturnsThePreviousOne)
{
	struct SLocal
	{
		static int A(const Assert::SReport &) { return 2; }
		static int B(const Assert::SReport &) { return 2; }
	};
	const Assert::FnHandler original = Assert::SetHandler(&SLocal::A);
	EXPECT_EQ(Assert::SetHandler(&SLocal::B), &SLocal::A);
	EXPECT_EQ(Assert::SetHandler(nullptr), &SLocal::B);
	EXPECT_EQ(Assert::SetHandler(original), nullptr);
}

TEST(Verify, FailureReportsAndLeavesTheFunction)
{
	CAssertCapture capture;
	g_WorkDone = 0;
	EXPECT_EQ(VerifiedWork(4), 8);
	EXPECT_EQ(VerifiedWork(-5), -1);
	EXPECT_EQ(g_WorkDone, 1);
	EXPECT_EQ(capture.Count("x > 0"), 1u);
	VerifiedVoidWork(12);
	EXPECT_EQ(g_WorkDone, 1);
	EXPECT_EQ(capture.Count("stride == 16"), 1u);
}

TEST(Verify, IgnoredVerificationStillLeavesButStopsReporting)
{
	CAssertCapture capture(Assert::Answer_Ignore);
	g_WorkDone = 0;
	VerifiedVoidWork(8);
	VerifiedVoidWork(8);
	EXPECT_EQ(g_WorkDone, 0);
	EXPECT_EQ(capture.Count("stride == 16"), 1u);
}

TEST(Verify, BreakAnswerTrapsThenLeaves)
{
	SScopedTrapHandler trap;
	CAssertCapture capture(Assert::Answer_Break);
	g_WorkDone = 0;
	Assert::CSiteFlag flag;
	EXPECT_TRUE(Assert::VerifyAssertFalse_Breaks(flag, "f.cpp", "g()", 3, "a", "a", "a"));
	EXPECT_FALSE(flag.Ignored());
	EXPECT_EQ(VerifiedWork(0), -1);
	EXPECT_EQ(g_Traps, 1);
	EXPECT_EQ(g_WorkDone, 0);
}

TEST(Verify, VerifyAssertFalseBreaksHonoursTheFlag)
{
	CAssertCapture capture(Assert::Answer_Ignore);
	Assert::CSiteFlag flag;
	EXPECT_FALSE(Assert::VerifyAssertFalse_Breaks(flag, "f.cpp", "g()", 3, "a", "a", "a"));
	EXPECT_TRUE(flag.Ignored()) << "answer 1 sets the site's flag";
	EXPECT_FALSE(Assert::VerifyAssertFalse_Breaks(flag, "f.cpp", "g()", 3, "a", "a", "a"));
	EXPECT_EQ(capture.Count(), 1u);
}

//------------------------------------------------------------------------------------
// Once-only log

namespace
{
	std::atomic<int> g_SinkCalls{0};
	void CountingSink(const char *, const char *) { g_SinkCalls.fetch_add(1); }

	// The registry must be usable from any static initialiser, before main.
	const bool g_RegistryReadyAtStartup = CPerfHotspotsRegistry::m_Registry != nullptr && CPerfHotspotsRegistry::m_Registry->Count() < CLogUniqueCollection::kMaxEntries;
}

TEST(LogUnique, RegistryExistsFromProcessStart)
{
	EXPECT_TRUE(g_RegistryReadyAtStartup);
	ASSERT_NE(CPerfHotspotsRegistry::m_Registry, nullptr);
}

TEST(LogUnique, ReportsALocationOnlyTheFirstTime)
{
	static CLogUniqueCollection log;
	g_SinkCalls = 0;
	log.SetSink(&CountingSink);
	EXPECT_TRUE(log.Touch("[l.721] @ kernels.impl", "CBVM: math op: slow codepath taken, bad strides"));
	EXPECT_FALSE(log.Touch("[l.721] @ kernels.impl", "CBVM: math op: slow codepath taken, bad strides"));
	EXPECT_FALSE(log.Touch("[l.721] @ kernels.impl", "another message, same location"));
	EXPECT_TRUE(log.Touch("[l.722] @ kernels.impl", "second"));
	EXPECT_EQ(g_SinkCalls.load(), 2);
	EXPECT_EQ(log.Count(), 2u);
	EXPECT_TRUE(log.Seen("[l.721] @ kernels.impl"));
	EXPECT_FALSE(log.Seen("[l.723] @ kernels.impl"));
	EXPECT_STREQ(log.Location(0), "[l.721] @ kernels.impl");
	EXPECT_STREQ(log.Message(0), "CBVM: math op: slow codepath taken, bad strides");
	EXPECT_EQ(log.Location(2), nullptr);
	log.Clear();
	EXPECT_EQ(log.Count(), 0u);
	EXPECT_TRUE(log.Touch("[l.721] @ kernels.impl", "again after Clear"));
}

TEST(LogUnique, DefaultSinkPrintsLocationAndMessage)
{
	static CLogUniqueCollection log;
	testing::internal::CaptureStderr();
	log.Touch("[l.9] @ here.cpp", "hello");
	log.Touch("[l.9] @ here.cpp", "hello");
	EXPECT_EQ(testing::internal::GetCapturedStderr(), "[l.9] @ here.cpp: hello\n");
}

TEST(LogUnique, LongLocationsAndOverflow)
{
	static CLogUniqueCollection log;
	g_SinkCalls = 0;
	log.SetSink(&CountingSink);
	const std::string longLocation(500, 'x');
	EXPECT_TRUE(log.Touch(longLocation.c_str(), "long"));
	EXPECT_FALSE(log.Touch(longLocation.c_str(), "long"));
	EXPECT_TRUE(log.Seen(longLocation.c_str()));
	EXPECT_EQ(std::strlen(log.Location(0)), CLogUniqueCollection::kMaxLocationLength);
	for (u32 i = 1; i < CLogUniqueCollection::kMaxEntries; ++i)
		EXPECT_TRUE(log.Touch(("loc" + std::to_string(i)).c_str(), "m"));
	EXPECT_EQ(log.Count(), CLogUniqueCollection::kMaxEntries);
	// A full table still reports new locations, every time, and counts them.
	EXPECT_TRUE(log.Touch("one too many", "m"));
	EXPECT_TRUE(log.Touch("one too many", "m"));
	EXPECT_EQ(log.Overflows(), 2u);
	EXPECT_EQ(log.Count(), CLogUniqueCollection::kMaxEntries);
	EXPECT_EQ(g_SinkCalls.load(), int(CLogUniqueCollection::kMaxEntries) + 2);
}

TEST(LogUnique, ManyThreadsReportEachLocationOnce)
{
	static CLogUniqueCollection log;
	g_SinkCalls = 0;
	log.SetSink(&CountingSink);
	constexpr int kThreads = 8;
	constexpr int kLocations = 40;
	std::atomic<int> firsts{0};
	std::vector<std::thread> threads;
	for (int t = 0; t < kThreads; ++t)
	{
		threads.emplace_back([&, t]() {
			char location[32];
			for (int round = 0; round < 200; ++round)
				for (int i = 0; i < kLocations; ++i)
				{
					std::snprintf(location, sizeof(location), "[l.%d] @ f", (i + t) % kLocations);
					if (log.Touch(location, "slow"))
						firsts.fetch_add(1);
				}
		});
	}
	for (std::thread &thread : threads)
		thread.join();
	EXPECT_EQ(log.Count(), u32(kLocations));
	EXPECT_EQ(firsts.load(), kLocations);
	EXPECT_EQ(g_SinkCalls.load(), kLocations);
}

//------------------------------------------------------------------------------------
// Profiler

TEST(Profiler, DescriptorFlags)
{
	EXPECT_EQ(u32(Profiler::SNodeDescriptor::None), 0u);
	EXPECT_EQ(u32(Profiler::SNodeDescriptor::Idle), 0x10000000u);
	EXPECT_EQ(u32(Profiler::SNodeDescriptor::Update), 0x20000000u);
	EXPECT_EQ(u32(Profiler::SNodeDescriptor::Frame), 0x40000000u);
	EXPECT_EQ(u32(Profiler::SNodeDescriptor::Mask_User), 0xFFFFu);
	EXPECT_EQ(u32(Profiler::SNodeDescriptor::Mask_Reserved), 0x0FFF0000u);
}

TEST(Profiler, ScopesCountEntriesAndTime)
{
	static Profiler::CProfiler profiler;
	static const Profiler::SNodeDescriptor desc("ScopeA", __FILE__, TVector<float, 4>{{1.0f, 0.1f, 0.5f, 1.0f}}, 0);
	static const Profiler::SNodeDescriptor other("ScopeB", __FILE__, TVector<float, 4>{{0, 0, 0, 1}}, Profiler::SNodeDescriptor::Update);
	for (int i = 0; i < 5; ++i)
	{
		Profiler::CScopedNode node(&profiler, desc, true);
		std::this_thread::sleep_for(std::chrono::microseconds(200));
	}
	{
		Profiler::CScopedNode off(&profiler, other, false);	// not recorded
		Profiler::CScopedNode none(nullptr, other, true);	// not recorded
	}
	const Profiler::SNodeStats stats = profiler.Stats(desc);
	EXPECT_EQ(stats.m_Count, 5u);
	EXPECT_GE(stats.m_TotalNanoseconds, 5u * 200000u);
	EXPECT_EQ(profiler.Stats(other).m_Count, 0u);

	Profiler::SNodeStats byName;
	ASSERT_TRUE(profiler.FindByName("ScopeA", byName));
	EXPECT_EQ(byName.m_Count, 5u);
	EXPECT_EQ(byName.m_Descriptor, &desc);
	EXPECT_FALSE(profiler.FindByName("ScopeB", byName));

	profiler.SetEnabled(false);
	{
		Profiler::CScopedNode node(&profiler, desc, true);
	}
	profiler.SetEnabled(true);
	EXPECT_EQ(profiler.Stats(desc).m_Count, 5u);

	std::FILE *out = std::tmpfile();
	ASSERT_NE(out, nullptr);
	profiler.Print(out);
	std::rewind(out);
	char text[1024] = {};
	const size_t length = std::fread(text, 1, sizeof(text) - 1, out);
	std::fclose(out);
	EXPECT_NE(std::string(text, length).find("ScopeA"), std::string::npos);

	profiler.Reset();
	EXPECT_EQ(profiler.Stats(desc).m_Count, 0u);
}

TEST(Profiler, ThreadsRecordEveryEntry)
{
	static Profiler::CProfiler profiler;
	static const Profiler::SNodeDescriptor desc("Threaded", __FILE__, TVector<float, 4>{{1, 1, 1, 1}}, 0);
	std::vector<std::thread> threads;
	for (int t = 0; t < 4; ++t)
		threads.emplace_back([]() {
			for (int i = 0; i < 20000; ++i)
				Profiler::CScopedNode node(&profiler, desc, true);
		});
	for (std::thread &thread : threads)
		thread.join();
	EXPECT_EQ(profiler.Stats(desc).m_Count, 80000u);
}

TEST(Profiler, FullTableDropsAndCounts)
{
	static Profiler::CProfiler profiler;
	static std::vector<Profiler::SNodeDescriptor> descs;
	for (u32 i = 0; i < Profiler::CProfiler::kMaxNodes + 3; ++i)
		descs.emplace_back("n", __FILE__, TVector<float, 4>{{0, 0, 0, 0}}, 0);
	for (const Profiler::SNodeDescriptor &d : descs)
		profiler.Record(d, 1);
	EXPECT_EQ(profiler.Dropped(), 3u);
	Profiler::SNodeStats all;
	ASSERT_TRUE(profiler.FindByName("n", all));
	EXPECT_EQ(all.m_Count, u64(Profiler::CProfiler::kMaxNodes));
}

TEST(Profiler, MainProfilerExists)
{
	ASSERT_NE(Profiler::MainEngineProfiler(), nullptr);
	EXPECT_EQ(Profiler::MainEngineProfiler(), Profiler::MainEngineProfiler());
}

TEST(Hazards, CountersArePerThread)
{
	Profiler::CHazards &mine = Profiler::CHazards::CurrentThreadHazards();
	mine.Reset();
	mine.Increment(Profiler::CHazards::Hazard_SlowStrides);
	mine.Increment(Profiler::CHazards::Hazard_SlowStrides);
	EXPECT_EQ(mine.m_Counters[1], 2u) << "the slow-stride count is the second counter";
	u32 seenByOther = 123;
	std::thread other([&]() {
		Profiler::CHazards &theirs = Profiler::CHazards::CurrentThreadHazards();
		seenByOther = theirs.Get(Profiler::CHazards::Hazard_SlowStrides);
		theirs.Increment(Profiler::CHazards::Hazard_SlowStrides);
	});
	other.join();
	EXPECT_EQ(seenByOther, 0u);
	EXPECT_EQ(mine.Get(Profiler::CHazards::Hazard_SlowStrides), 2u);
	EXPECT_EQ(&mine, &Profiler::CHazards::CurrentThreadHazards());
}
