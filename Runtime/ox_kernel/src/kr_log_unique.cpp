#include "kr_log_unique.h"

#include <algorithm>
#include <cstdio>
#include <cstring>

namespace Orvex
{
	namespace
	{
		u64 _HashText(const char *text)
		{
			u64 hash = 14695981039346656037ull;	// FNV-1a
			for (; *text != 0; ++text)
				hash = (hash ^ u8(*text)) * 1099511628211ull;
			return hash;
		}

		void _CopyTruncated(char *dst, const char *src, u32 maxLength)
		{
			const size_t length = std::min<size_t>(std::strlen(src), maxLength);
			std::memcpy(dst, src, length);
			dst[length] = 0;
		}

		void _DefaultSink(const char *location, const char *message)
		{
			std::fprintf(stderr, "%s: %s\n", location, message);
		}

		// Constant-initialised, so the registry pointer is valid before any static constructor runs.
		CLogUniqueCollection g_PerfHotspots;
	}

	CLogUniqueCollection *CPerfHotspotsRegistry::m_Registry = &g_PerfHotspots;

	s32 CLogUniqueCollection::_Find(const char *location, u64 hash, u32 count) const
	{
		// Stored locations are truncated copies: compare the same prefix.
		for (u32 i = 0; i < count; ++i)
			if (m_Entries[i].m_Hash == hash && std::strncmp(m_Entries[i].m_Location, location, kMaxLocationLength) == 0)
				return s32(i);
		return -1;
	}

	bool CLogUniqueCollection::Touch(const char *location, const char *message)
	{
		if (location == nullptr)
			location = "";
		if (message == nullptr)
			message = "";
		char key[kMaxLocationLength + 1];
		_CopyTruncated(key, location, kMaxLocationLength);
		const u64 hash = _HashText(key);
		if (_Find(key, hash, m_Count.load(std::memory_order_acquire)) >= 0)
			return false;

		FnSink sink = nullptr;
		{
			std::lock_guard<std::mutex> lock(m_Lock);
			const u32 count = m_Count.load(std::memory_order_relaxed);
			if (_Find(key, hash, count) >= 0)
				return false;	// another thread got there first
			if (count < kMaxEntries)
			{
				SEntry &entry = m_Entries[count];
				entry.m_Hash = hash;
				_CopyTruncated(entry.m_Location, key, kMaxLocationLength);
				_CopyTruncated(entry.m_Message, message, kMaxMessageLength);
				m_Count.store(count + 1, std::memory_order_release);
			}
			else
				m_Overflows.fetch_add(1, std::memory_order_relaxed);
			sink = m_Sink.load(std::memory_order_acquire);
		}
		(sink != nullptr ? sink : &_DefaultSink)(location, message);
		return true;
	}

	u32 CLogUniqueCollection::Count() const
	{
		return m_Count.load(std::memory_order_acquire);
	}

	bool CLogUniqueCollection::Seen(const char *location) const
	{
		char key[kMaxLocationLength + 1];
		_CopyTruncated(key, location != nullptr ? location : "", kMaxLocationLength);
		return _Find(key, _HashText(key), m_Count.load(std::memory_order_acquire)) >= 0;
	}

	const char *CLogUniqueCollection::Location(u32 index) const
	{
		return index < Count() ? m_Entries[index].m_Location : nullptr;
	}

	const char *CLogUniqueCollection::Message(u32 index) const
	{
		return index < Count() ? m_Entries[index].m_Message : nullptr;
	}

	u32 CLogUniqueCollection::Overflows() const
	{
		return m_Overflows.load(std::memory_order_relaxed);
	}

	CLogUniqueCollection::FnSink CLogUniqueCollection::SetSink(FnSink sink)
	{
		return m_Sink.exchange(sink, std::memory_order_acq_rel);
	}

	void CLogUniqueCollection::Clear()
	{
		std::lock_guard<std::mutex> lock(m_Lock);
		m_Count.store(0, std::memory_order_release);
		m_Overflows.store(0, std::memory_order_relaxed);
	}
}
