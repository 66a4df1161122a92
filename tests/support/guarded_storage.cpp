#include "guarded_storage.h"

#include <cstdint>

namespace OxTest
{
	using Orvex::u32;

	CGuardedStorage::CGuardedStorage(std::size_t words, u32 salt)
	: m_Words(words), m_Salt(salt)
	{
		// Room for both guards plus the words skipped to reach the 32-byte boundary.
		m_Storage.resize(words + 2 * kGuardWords + kAlignment / sizeof(u32));
		for (std::size_t i = 0; i < m_Storage.size(); ++i)
			m_Storage[i] = GuardWord(u32(i), m_Salt);
		const std::uintptr_t raw = reinterpret_cast<std::uintptr_t>(m_Storage.data() + kGuardWords);
		m_Offset = kGuardWords + ((kAlignment - raw % kAlignment) % kAlignment) / sizeof(u32);
	}

	CGuardedStorage::CGuardedStorage(const std::vector<u32> &words, u32 salt)
	: CGuardedStorage(words.size(), salt)
	{
		for (std::size_t i = 0; i < words.size(); ++i)
			Data()[i] = words[i];
	}

	bool CGuardedStorage::GuardsIntact() const
	{
		for (std::size_t i = 0; i < m_Storage.size(); ++i)
			if ((i < m_Offset || i >= m_Offset + m_Words) && m_Storage[i] != GuardWord(u32(i), m_Salt))
				return false;
		return true;
	}

	bool CGuardedStorage::Untouched() const
	{
		for (std::size_t i = 0; i < m_Storage.size(); ++i)
			if (m_Storage[i] != GuardWord(u32(i), m_Salt))
				return false;
		return true;
	}
}
