#include "session/PartialFile.h"

#include <cerrno>
#include <filesystem>
#include <system_error>
#include <utility>

#include <fcntl.h>
#include <stdio.h>
#include <sys/stat.h>
#include <unistd.h>

#include "wire/Protocol.h"
#include "wire/SyncException.h"

namespace fs = std::filesystem;

namespace {

[[noreturn]] void failWith(int error, const std::string& what)
{
    throw std::system_error(error, std::generic_category(), what);
}

[[noreturn]] void failOpen(const std::string& path)
{
    throw SyncException("FailedOpen", "Failed to open file: " + path);
}

} // namespace

std::string PartialFile::pathFor(const std::string& destination)
{
    return destination + std::string(Protocol::kPartialSuffix);
}

PartialFile::Start PartialFile::startFor(const std::string& partial, std::int64_t announced)
{
    struct stat st {};
    if (::lstat(partial.c_str(), &st) != 0)
        return {};
    // Left in place: creating the new partial fails on them, ending the
    // upload like a file that cannot be opened.
    if (!S_ISREG(st.st_mode) && !S_ISLNK(st.st_mode))
        return {};
    if (S_ISREG(st.st_mode) && st.st_nlink == 1 && st.st_size > 0 && st.st_size <= announced
        && ::faccessat(AT_FDCWD, partial.c_str(), W_OK, AT_EACCESS) == 0)
        return {st.st_size, st.st_dev, st.st_ino};
    ::unlink(partial.c_str());
    return {};
}

std::unique_ptr<PartialFile> PartialFile::open(const std::string& path, const Start& start)
{
    // Non-blocking, so that a FIFO put at the partial's name since fails at
    // once instead of waiting for a reader.
    int flags = O_WRONLY | O_APPEND | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC;
    if (start.offset == 0)
        flags |= O_CREAT | O_EXCL;
    int fd = ::open(path.c_str(), flags, 0666);
    if (fd < 0)
        failOpen(path);
    std::unique_ptr<PartialFile> partial(new PartialFile(path, fd));
    struct stat st {};
    if (start.offset > 0
        && (::fstat(fd, &st) != 0 || !S_ISREG(st.st_mode) || st.st_nlink != 1 || st.st_dev != start.device
            || st.st_ino != start.inode || st.st_size != start.offset))
        failOpen(path);
    return partial;
}

PartialFile::PartialFile(std::string path, int fd) : m_path(std::move(path)), m_fd(fd) {}

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

void PartialFile::flushInBackground()
{
    std::lock_guard guard(m_syncMutex);
    throwSyncError();
    if (!m_syncer.joinable())
        m_syncer = std::thread([this] { syncLoop(); });
    m_syncWanted = true;
    m_syncWake.notify_one();
}

void PartialFile::flush()
{
    {
        std::unique_lock guard(m_syncMutex);
        m_syncIdle.wait(guard, [&] { return !m_syncWanted && !m_syncing; });
        throwSyncError();
    }
    if (::fsync(m_fd) != 0)
        failWith(errno, "Failed to flush " + m_path);
    m_unflushed = false;
}

// Each pass puts everything written until then on disk, so while the disk
// is slower than the connection one pass covers several chunks.
void PartialFile::syncLoop()
{
    std::unique_lock guard(m_syncMutex);
    for (;;) {
        m_syncWake.wait(guard, [&] { return m_syncStop || m_syncWanted; });
        if (m_syncStop)
            return;
        m_syncWanted = false;
        m_syncing = true;
        guard.unlock();
        int result = ::fdatasync(m_fd);
        int error = errno;
        guard.lock();
        m_syncing = false;
        if (result != 0 && m_syncError == 0)
            m_syncError = error;
        m_syncIdle.notify_all();
    }
}

// Called under m_syncMutex.
void PartialFile::throwSyncError()
{
    if (m_syncError != 0)
        failWith(std::exchange(m_syncError, 0), "Failed to flush " + m_path);
}

void PartialFile::stopSyncing()
{
    if (!m_syncer.joinable())
        return;
    {
        std::lock_guard guard(m_syncMutex);
        m_syncStop = true;
    }
    m_syncWake.notify_one();
    m_syncer.join();
}

void PartialFile::setModified(std::int64_t seconds)
{
    const timespec times[2] = {{0, UTIME_OMIT}, {static_cast<time_t>(seconds), 0}};
    ::futimens(m_fd, times);
}

bool PartialFile::moveIntoPlace(const std::string& destination, std::int64_t seconds)
{
    // Whatever now stands at the partial's name was not written here: moving
    // it (or removing the destination for it) would lose the user's file.
    struct stat mine {}, named {};
    if (::fstat(m_fd, &mine) != 0 || ::stat(m_path.c_str(), &named) != 0 || mine.st_dev != named.st_dev
        || mine.st_ino != named.st_ino)
        return false;

    struct stat there {};
    std::error_code ignored;
    if (::lstat(destination.c_str(), &there) != 0 || !S_ISDIR(there.st_mode)) {
        // A file or link in the way is replaced in the same step.
        if (::rename(m_path.c_str(), destination.c_str()) != 0)
            return false;
    } else if (::renameat2(AT_FDCWD, m_path.c_str(), AT_FDCWD, destination.c_str(), RENAME_EXCHANGE) == 0) {
        // The folder has swapped places with the file, so it is removed only
        // once the file stands in its place.
        fs::remove_all(m_path, ignored);
    } else {
        fs::remove_all(destination, ignored);
        if (::rename(m_path.c_str(), destination.c_str()) != 0)
            return false;
    }
    setModified(seconds);
    return true;
}

void PartialFile::close()
{
    stopSyncing();
    if (m_fd < 0)
        return;
    if (m_unflushed)
        ::fsync(m_fd);
    ::close(m_fd);
    m_fd = -1;
    m_unflushed = false;
}
