#include "output_file.h"

#include <fmt/format.h>

#include <cerrno>
#include <climits>
#include <cstdlib>
#include <cstring>
#include <sys/stat.h>
#include <unistd.h>

namespace OxVm
{
	namespace
	{
		std::string Failure(const std::string &path)
		{
			return fmt::format("cannot write '{}': {}", path, std::strerror(errno));
		}

		// The folder and name of a path ("." for a bare name).
		void Split(const std::string &path, std::string &folder, std::string &name)
		{
			const std::size_t slash = path.rfind('/');
			folder = slash == std::string::npos ? std::string(".") : (slash == 0 ? std::string("/") : path.substr(0, slash));
			name = slash == std::string::npos ? path : path.substr(slash + 1);
		}

		// The mode a new file gets: 0666 less the umask.
		mode_t NewFileMode()
		{
			const mode_t mask = ::umask(0);
			::umask(mask);
			return 0666 & ~mask;
		}

		// Copies the complete temporary into 'target' in place (same inode).
		bool CopyInPlace(const std::string &temporary, const std::string &target, std::string &error)
		{
			std::FILE *in = std::fopen(temporary.c_str(), "rb");
			if (in == nullptr)
			{
				error = Failure(temporary);
				return false;
			}
			std::FILE *out = std::fopen(target.c_str(), "wb");
			if (out == nullptr)
			{
				error = Failure(target);
				std::fclose(in);
				return false;
			}
			char buffer[1 << 16];
			bool ok = true;
			for (std::size_t n; ok && (n = std::fread(buffer, 1, sizeof(buffer), in)) != 0;)
				ok = std::fwrite(buffer, 1, n, out) == n;
			ok = ok && std::ferror(in) == 0;
			if (std::fclose(out) != 0 || !ok)
			{
				error = Failure(target);
				std::fclose(in);
				return false;
			}
			std::fclose(in);
			return true;
		}
	}

	COutputFile::~COutputFile()
	{
		_Abandon();
	}

	void COutputFile::_Abandon()
	{
		if (m_Stream != nullptr && m_OwnsStream)
			std::fclose(m_Stream);
		m_Stream = nullptr;
		if (!m_Temporary.empty())
			std::remove(m_Temporary.c_str());
		m_Temporary.clear();
	}

	bool COutputFile::Open(const std::string &path, std::string &error)
	{
		_Abandon();
		m_Path = path;
		m_Target.clear();
		m_InPlace = false;
		if (path == "-")
		{
			m_Stream = stdout;
			m_OwnsStream = false;
			return true;
		}

		struct stat info;
		const bool exists = ::stat(path.c_str(), &info) == 0;	// follows links
		if (exists && !S_ISREG(info.st_mode))
		{
			// A device, a FIFO, ...: written as it is (a FIFO waits for its reader here).
			m_Stream = std::fopen(path.c_str(), "wb");
			m_OwnsStream = true;
			if (m_Stream == nullptr)
			{
				error = Failure(path);
				return false;
			}
			return true;
		}

		// A regular file, or a new one: the real path, so that a link is written through.
		std::string folder, name;
		if (exists)
		{
			char resolved[PATH_MAX];
			if (::realpath(path.c_str(), resolved) == nullptr)
			{
				error = Failure(path);
				return false;
			}
			m_Target = resolved;
			m_InPlace = info.st_nlink > 1;
		}
		else
		{
			// A dangling link names the file to create.
			char link[PATH_MAX];
			const ssize_t length = ::readlink(path.c_str(), link, sizeof(link) - 1);
			if (length > 0)
			{
				link[length] = '\0';
				std::string linkFolder, linkName;
				Split(path, linkFolder, linkName);
				m_Target = link[0] == '/' ? std::string(link) : linkFolder + "/" + link;
			}
			else
				m_Target = path;
		}
		Split(m_Target, folder, name);
		std::string pattern = folder + "/." + name + ".oxvm-XXXXXX";
		const int fd = ::mkstemp(pattern.data());
		if (fd < 0)
		{
			error = Failure(path);
			return false;
		}
		m_Temporary = pattern;
		::fchmod(fd, exists ? (info.st_mode & 07777) : NewFileMode());
		m_Stream = ::fdopen(fd, "wb");
		m_OwnsStream = true;
		if (m_Stream == nullptr)
		{
			error = Failure(path);
			::close(fd);
			_Abandon();
			return false;
		}
		return true;
	}

	bool COutputFile::Commit(std::string &error)
	{
		if (m_Stream == nullptr)
		{
			error = fmt::format("cannot write '{}': not open", m_Path);
			return false;
		}
		const bool written = std::ferror(m_Stream) == 0;
		const int closed = m_OwnsStream ? std::fclose(m_Stream) : std::fflush(m_Stream);
		m_Stream = nullptr;
		if (closed != 0 || !written)
		{
			error = Failure(m_Path);
			_Abandon();
			return false;
		}
		if (m_Temporary.empty())
			return true;	// written directly
		const bool placed = m_InPlace ? CopyInPlace(m_Temporary, m_Target, error) : std::rename(m_Temporary.c_str(), m_Target.c_str()) == 0;
		if (!placed)
		{
			if (!m_InPlace)
				error = Failure(m_Path);
			_Abandon();
			return false;
		}
		if (m_InPlace)
			std::remove(m_Temporary.c_str());
		m_Temporary.clear();
		return true;
	}
}
