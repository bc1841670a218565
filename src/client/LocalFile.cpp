#include "client/LocalFile.h"

#include <cerrno>
#include <cstring>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include "client/ClientErrors.h"

namespace {

std::string failure(const std::string& what, const std::string& path)
{
    return what + " " + path + ": " + std::strerror(errno);
}

} // namespace

LocalFile::LocalFile(const std::string& path, Mode mode)
    : m_path(path)
{
    int flags = O_CLOEXEC;
    switch (mode) {
    case Mode::Read:
        flags |= O_RDONLY;
        break;
    case Mode::Write:
        flags |= O_WRONLY | O_CREAT;
        break;
    case Mode::WriteTruncate:
        flags |= O_WRONLY | O_CREAT | O_TRUNC;
        break;
    }
    m_fd = ::open(path.c_str(), flags, 0644);
    if (m_fd < 0)
        throw LocalFileError(failure("cannot open", path));
}

LocalFile& LocalFile::operator=(LocalFile&& other) noexcept
{
    if (this != &other) {
        close();
        m_fd = std::exchange(other.m_fd, -1);
        m_path = std::move(other.m_path);
    }
    return *this;
}

std::size_t LocalFile::readAt(std::int64_t position, std::uint8_t* buffer, std::size_t length)
{
    for (;;) {
        ssize_t n = ::pread(m_fd, buffer, length, position);
        if (n >= 0)
            return static_cast<std::size_t>(n);
        if (errno != EINTR)
            throw LocalFileError(failure("cannot read", m_path));
    }
}

void LocalFile::writeAt(std::int64_t position, const std::uint8_t* data, std::size_t length)
{
    while (length > 0) {
        ssize_t n = ::pwrite(m_fd, data, length, position);
        if (n < 0 && errno == EINTR)
            continue;
        if (n <= 0)
            throw LocalFileError(failure("cannot write", m_path));
        data += n;
        length -= static_cast<std::size_t>(n);
        position += n;
    }
}

void LocalFile::close()
{
    if (m_fd >= 0)
        ::close(m_fd);
    m_fd = -1;
}

std::int64_t LocalFile::sizeOf(const std::string& path)
{
    struct stat st {};
    if (::stat(path.c_str(), &st) != 0 || !S_ISREG(st.st_mode))
        return -1;
    return st.st_size;
}

std::string LocalFile::kindOf(const std::string& path)
{
    struct stat st {};
    if (::stat(path.c_str(), &st) != 0 || S_ISREG(st.st_mode))
        return {};
    if (S_ISDIR(st.st_mode))
        return "a folder";
    if (S_ISFIFO(st.st_mode))
        return "a FIFO";
    if (S_ISSOCK(st.st_mode))
        return "a socket";
    return "a device";
}

std::int64_t LocalFile::modifiedOf(const std::string& path)
{
    struct stat st {};
    if (::stat(path.c_str(), &st) != 0)
        return 0;
    return st.st_mtim.tv_sec;
}

bool LocalFile::setModified(const std::string& path, std::int64_t seconds)
{
    timespec times[2];
    times[0].tv_sec = 0;
    times[0].tv_nsec = UTIME_OMIT;
    times[1].tv_sec = static_cast<time_t>(seconds);
    times[1].tv_nsec = 0;
    return ::utimensat(AT_FDCWD, path.c_str(), times, 0) == 0;
}

bool LocalFile::setModified(std::int64_t seconds)
{
    timespec times[2];
    times[0].tv_sec = 0;
    times[0].tv_nsec = UTIME_OMIT;
    times[1].tv_sec = static_cast<time_t>(seconds);
    times[1].tv_nsec = 0;
    return ::futimens(m_fd, times) == 0;
}
