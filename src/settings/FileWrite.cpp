#include "settings/FileWrite.h"

#include <cerrno>
#include <filesystem>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

namespace FileWrite {

namespace {

bool writeAll(int fd, std::string_view contents)
{
    while (!contents.empty()) {
        ssize_t n = ::write(fd, contents.data(), contents.size());
        if (n < 0 && errno == EINTR)
            continue;
        if (n <= 0)
            return false;
        contents.remove_prefix(static_cast<std::size_t>(n));
    }
    return true;
}

} // namespace

bool replaceAtomically(const std::string& path, std::string_view contents, mode_t mode)
{
    namespace fs = std::filesystem;
    const fs::path target(path);
    std::error_code ec;
    if (target.has_parent_path())
        fs::create_directories(target.parent_path(), ec);

    // Hidden and beside the target, so the rename stays on one file system.
    fs::path temp = target.parent_path() / ("." + target.filename().string() + ".XXXXXX");
    std::string name = temp.string();
    int fd = ::mkstemp(name.data());
    if (fd < 0)
        return false;
    bool ok = ::fchmod(fd, mode) == 0 && writeAll(fd, contents) && ::fsync(fd) == 0;
    ok = (::close(fd) == 0) && ok;
    if (ok && ::rename(name.c_str(), path.c_str()) == 0)
        return true;
    ::unlink(name.c_str());
    return false;
}

} // namespace FileWrite
