#include "cache/FileState.h"

#include <algorithm>


std::optional<FileState> FileState::of(const std::string& path)
{
    struct statx stx {};
    if (path.find('\0') != std::string::npos
        || ::statx(AT_FDCWD, path.c_str(), 0, STATX_BASIC_STATS, &stx) != 0 || !S_ISREG(stx.stx_mode))
        return std::nullopt;
    return fromStatx(stx);
}

FileState FileState::fromStatx(const struct statx& stx)
{
    FileState state;
    state.device = (static_cast<std::uint64_t>(stx.stx_dev_major) << 32) | stx.stx_dev_minor;
    state.inode = stx.stx_ino;
    state.size = static_cast<std::int64_t>(stx.stx_size);
    state.modifiedNs = nanoseconds(stx.stx_mtime.tv_sec, stx.stx_mtime.tv_nsec);
    state.changedNs = nanoseconds(stx.stx_ctime.tv_sec, stx.stx_ctime.tv_nsec);
    return state;
}

std::int64_t FileState::nanoseconds(std::int64_t seconds, std::uint32_t nanos)
{
    return seconds * 1'000'000'000 + nanos;
}

bool FileState::isRacy(std::int64_t readAtNs, std::int64_t windowNs) const
{
    return std::max(modifiedNs, changedNs) > readAtNs - windowNs;
}
