#include "session/PartialFile.h"

#include <cerrno>
#include <filesystem>
#include <system_error>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include "wire/SyncException.h"

namespace fs = std::filesystem;

namespace {

constexpr const char* kSuffix = ".zandrel";

[[noreturn]] void failWith(int error, const std::string& what)
{
    throw std::system_error(error, std::generic_category(), what);
}

} // namespace

std::string PartialFile::pathFor(const std::string& destination)
{
    return destination + kSuffix;
}

std::int64_t PartialFile::resumeOffset(const std::string& partial, std::int64_t announced)
{
    struct stat st {};
    if (::stat(partial.c_str(), &st) != 0 || S_ISDIR(st.st_mode))
        return 0;
    if (st.st_size > announced) {
        std::error_code ignored;
        fs::remove(partial, ignored);
        return 0;
    }
    return st.st_size;
}

void PartialFile::setModified(const std::string& path, std::int64_t seconds)
{
    const timespec times[2] = {{0, UTIME_OMIT}, {static_cast<time_t>(seconds), 0}};
    ::utimensat(AT_FDCWD, path.c_str(), times, 0);
}

void PartialFile::moveIntoPlace(const std::string& partial, const std::string& destination, std::int64_t seconds)
{
    std::error_code ignored;
    // A dangling link counts as something in the way, too.
    if (fs::symlink_status(destination, ignored).type() != fs::file_type::not_found)
        fs::remove_all(destination, ignored);
    fs::rename(partial, destination, ignored);
    setModified(destination, seconds);
}

PartialFile::PartialFile(std::string path) : m_path(std::move(path))
{
    m_fd = ::open(m_path.c_str(), O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0644);
    // Only a folder (or an unwritable spot) standing at the partial's path
    // gets here; the upload ends like a download of a file it cannot open.
    if (m_fd < 0)
        throw SyncException("FailedOpen", "Failed to open file: " + m_path);
}

PartialFile::~PartialFile()
{
    close();
}

void PartialFile::append(const std::uint8_t* data, std::size_t length)
{
    while (length > 0) {
        ssize_t n = ::write(m_fd, data, length);
        if (n < 0 && errno == EINTR)
            continue;
        if (n < 0)
            failWith(errno, "Failed to write to " + m_path);
        data += n;
        length -= static_cast<std::size_t>(n);
        m_unflushed = true;
    }
}

void PartialFile::flush()
{
    // EINVAL: the partial is something that cannot be synchronised (a
    // device), which holds nothing to lose.
    if (::fsync(m_fd) != 0 && errno != EINVAL)
        failWith(errno, "Failed to flush " + m_path);
    m_unflushed = false;
}

void PartialFile::close()
{
    if (m_fd < 0)
        return;
    if (m_unflushed)
        ::fsync(m_fd);
    ::close(m_fd);
    m_fd = -1;
    m_unflushed = false;
}
