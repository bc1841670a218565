#include "session/FileSystem.h"

#include <cerrno>
#include <cstdio>
#include <memory>

#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <sys/statvfs.h>
#include <unistd.h>

namespace FileSystem {

namespace {

// Closes a descriptor when it goes out of scope.
class Fd {
public:
    explicit Fd(int fd) : m_fd(fd) {}
    ~Fd()
    {
        if (m_fd >= 0)
            ::close(m_fd);
    }
    Fd(const Fd&) = delete;
    Fd& operator=(const Fd&) = delete;
    int get() const { return m_fd; }

private:
    int m_fd;
};

bool copyBytes(int in, int out)
{
    std::vector<char> block(1 << 20);
    for (;;) {
        ssize_t got = ::read(in, block.data(), block.size());
        if (got < 0 && errno == EINTR)
            continue;
        if (got < 0)
            return false;
        if (got == 0)
            return true;
        for (ssize_t put = 0; put < got;) {
            ssize_t n = ::write(out, block.data() + put, static_cast<std::size_t>(got - put));
            if (n < 0 && errno == EINTR)
                continue;
            if (n <= 0)
                return false;
            put += n;
        }
    }
}

// A regular file copied to a new name that must not exist yet, keeping its
// permissions and dates as a move would.
bool copyRegularFile(const std::string& from, const std::string& to, const struct stat& st)
{
    Fd in(::open(from.c_str(), O_RDONLY | O_CLOEXEC));
    if (in.get() < 0)
        return false;
    Fd out(::open(to.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, st.st_mode & 07777));
    if (out.get() < 0)
        return false;
    const timespec times[2] = {st.st_atim, st.st_mtim};
    bool ok = copyBytes(in.get(), out.get()) && ::fchmod(out.get(), st.st_mode & 07777) == 0
        && ::futimens(out.get(), times) == 0;
    if (!ok)
        ::unlink(to.c_str());
    return ok;
}

// rename(2) cannot cross file systems: copy, then remove the original.
bool copyThenRemove(const std::string& from, const std::string& to)
{
    struct stat st {};
    if (::lstat(from.c_str(), &st) != 0)
        return false;
    bool copied = false;
    if (S_ISLNK(st.st_mode)) {
        std::string target(static_cast<std::size_t>(st.st_size) + 1, '\0');
        ssize_t n = ::readlink(from.c_str(), target.data(), target.size());
        copied = n >= 0 && static_cast<std::size_t>(n) < target.size()
            && ::symlink(target.substr(0, static_cast<std::size_t>(n)).c_str(), to.c_str()) == 0;
    } else if (S_ISREG(st.st_mode)) {
        copied = copyRegularFile(from, to, st);
    }
    if (!copied)
        return false;
    if (::unlink(from.c_str()) != 0) {
        ::unlink(to.c_str());
        return false;
    }
    return true;
}

// For file systems without RENAME_NOREPLACE: a hard link fails on an existing
// name just as well; where there are no hard links either, look first (a
// narrow race with another writer remains there).
bool moveByLink(const std::string& from, const std::string& to)
{
    if (::link(from.c_str(), to.c_str()) == 0)
        return ::unlink(from.c_str()) == 0;
    if (errno == EEXIST)
        return false;
    if (errno == EXDEV)
        return copyThenRemove(from, to);
    struct stat st {};
    if (::lstat(to.c_str(), &st) == 0 || errno != ENOENT)
        return false;
    return ::rename(from.c_str(), to.c_str()) == 0;
}

} // namespace

PathState stateOf(const std::optional<std::string>& path)
{
    struct stat st {};
    if (!path || ::stat(path->c_str(), &st) != 0)
        return {};
    return {true, S_ISDIR(st.st_mode)};
}

ItemType typeOf(const std::string& path)
{
    struct stat st {};
    if (::lstat(path.c_str(), &st) != 0)
        return ItemType::Missing;
    if (S_ISREG(st.st_mode))
        return ItemType::RegularFile;
    if (S_ISDIR(st.st_mode))
        return ItemType::Directory;
    return ItemType::Other;
}

std::vector<std::string> listFolder(const std::string& folder)
{
    std::unique_ptr<DIR, int (*)(DIR*)> dir(::opendir(folder.c_str()), &::closedir);
    if (!dir)
        return {};
    std::vector<std::string> names;
    errno = 0;
    while (const dirent* entry = ::readdir(dir.get())) {
        std::string name = entry->d_name;
        if (name != "." && name != "..")
            names.push_back(std::move(name));
        errno = 0;
    }
    // A listing that broke off is no listing, as the platform has it.
    if (errno != 0)
        return {};
    return names;
}

std::string childPath(const std::string& folder, const std::string& name)
{
    return folder + "/" + name;
}

bool moveWithoutReplacing(const std::string& from, const std::string& to)
{
    if (::renameat2(AT_FDCWD, from.c_str(), AT_FDCWD, to.c_str(), RENAME_NOREPLACE) == 0)
        return true;
    switch (errno) {
    case EXDEV:
        return copyThenRemove(from, to);
    case EINVAL:
    case ENOSYS:
    case EOPNOTSUPP:
        return moveByLink(from, to);
    default:
        return false;
    }
}

std::optional<std::int64_t> freeBytes(const std::string& path)
{
    struct statvfs fs {};
    if (::statvfs(path.c_str(), &fs) != 0)
        return std::nullopt;
    return static_cast<std::int64_t>(static_cast<std::uint64_t>(fs.f_bavail) * fs.f_frsize);
}

std::string shown(const std::optional<std::string>& text)
{
    return text ? *text : std::string("(null)");
}

} // namespace FileSystem
