#pragma once
// Once-per-location log, used for performance warnings ("slow codepath taken").
//
// Touch(location, message) records the pair and reports it the first time the
// location is seen; later touches of the same location only cost a lock-free
// scan. Storage is a fixed table inside the collection: no heap, usable from any
// thread, and the process-wide instance exists before any code runs.

#include "kr_base_types.h"

#include <atomic>
#include <mutex>

#define OX_STRINGIZE_IMPL(x) #x
#define OX_STRINGIZE(x) OX_STRINGIZE_IMPL(x)

// The location text of the current source line: "[l.<line>] @ <file>".
#define OX_LOG_LOCATION "[l." OX_STRINGIZE(__LINE__) "] @ " __FILE__

namespace Orvex
{
	class CLogUniqueCollection : CNonCopyable
	{
	public:
		static constexpr u32 kMaxEntries = 128;
		static constexpr u32 kMaxLocationLength = 191;
		static constexpr u32 kMaxMessageLength = 127;

		// Called once per new location (outside the lock-free path). The default prints
		// "<location>: <message>" on stderr; nullptr restores it.
		using FnSink = void (*)(const char *location, const char *message);

		constexpr CLogUniqueCollection() = default;

		// Returns true when the location was seen for the first time (and was reported).
		bool Touch(const char *location, const char *message);

		u32 Count() const;
		bool Seen(const char *location) const;
		// Entry 'index' (0 .. Count() - 1) in order of first sight; nullptr past the end.
		const char *Location(u32 index) const;
		const char *Message(u32 index) const;
		// Locations that did not fit in the table (they are reported every time).
		u32 Overflows() const;

		FnSink SetSink(FnSink sink);
		// Forgets every location (for tests and for hosts that start a new run).
		// Not to be called while another thread may be touching the collection.
		void Clear();

	private:
		struct SEntry
		{
			u64 m_Hash = 0;
			char m_Location[kMaxLocationLength + 1] = {};
			char m_Message[kMaxMessageLength + 1] = {};
		};

		s32 _Find(const char *location, u64 hash, u32 count) const;

		SEntry m_Entries[kMaxEntries] = {};
		std::atomic<u32> m_Count{0};	// entries [0, m_Count) are published
		std::atomic<u32> m_Overflows{0};
		std::atomic<FnSink> m_Sink{nullptr};
		mutable std::mutex m_Lock;
	};

	class CPerfHotspotsRegistry
	{
	public:
		// Process-wide collection, constant-initialised: never null.
		static CLogUniqueCollection *m_Registry;
	};
}
