#include "records/ItemAttributes.h"

#include <cerrno>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

namespace {

// A date reduced to whole seconds toward zero: -1.5 s is -1, not -2. The
// kernel keeps negative times as a negative second plus a positive fraction.
std::int64_t wholeSeconds(std::int64_t seconds, std::int64_t nanoseconds)
{
    return (seconds < 0 && nanoseconds > 0) ? seconds + 1 : seconds;
}

// For kernels or sandboxes without statx; such a file system keeps no birth
// time as far as we can tell.
ItemAttributes readWithLstat(const std::string& path)
{
    struct stat st {};
    if (::lstat(path.c_str(), &st) != 0)
        return {};
    ItemAttributes attrs;
    attrs.size = static_cast<std::uint64_t>(st.st_size);
    attrs.modified = wholeSeconds(st.st_mtim.tv_sec, st.st_mtim.tv_nsec);
    attrs.isRegularFile = S_ISREG(st.st_mode);
    return attrs;
}

} // namespace

ItemAttributes ItemAttributes::read(const std::string& path)
{
    struct statx stx {};
    if (::statx(AT_FDCWD, path.c_str(), AT_SYMLINK_NOFOLLOW, STATX_BASIC_STATS | STATX_BTIME, &stx) != 0)
        return errno == ENOSYS || errno == EPERM ? readWithLstat(path) : ItemAttributes{};
    return fromStatx(stx);
}

ItemAttributes ItemAttributes::fromStatx(const struct statx& stx)
{
    ItemAttributes attrs;
    attrs.size = stx.stx_size;
    attrs.modified = wholeSeconds(stx.stx_mtime.tv_sec, stx.stx_mtime.tv_nsec);
    if (stx.stx_mask & STATX_BTIME)
        attrs.created = wholeSeconds(stx.stx_btime.tv_sec, stx.stx_btime.tv_nsec);
    attrs.isRegularFile = S_ISREG(stx.stx_mode);
    return attrs;
}

bool isWritableByUs(const std::string& path)
{
    return ::access(path.c_str(), W_OK) == 0;
}
