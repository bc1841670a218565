#pragma once

#include <cstdint>
#include <optional>
#include <string>

#include <fcntl.h>
#include <sys/stat.h>

// What identifies a file and its contents for the digest cache: the same
// (device, inode) with the same size, modification time and change time, to
// the nanosecond. Writing to a file always moves its change time, and no
// program can set that back, so a rewrite that restores size and
// modification time is still seen.
struct FileState {
    std::uint64_t device = 0;
    std::uint64_t inode = 0;
    std::int64_t size = 0;
    std::int64_t modifiedNs = 0;
    std::int64_t changedNs = 0;

    bool operator==(const FileState&) const = default;

    // The state of a regular file (following links); nothing for anything else.
    static std::optional<FileState> of(const std::string& path);
    // From a statx already made (with at least STATX_BASIC_STATS).
    static FileState fromStatx(const struct statx& stx);
    // Nanoseconds since 1970 of a statx timestamp.
    static std::int64_t nanoseconds(std::int64_t seconds, std::uint32_t nanos);
    // True when the file changed within `windowNs` before `readAtNs`:
    // timestamps of such a file can repeat after a further change, so its
    // digest is not kept.
    bool isRacy(std::int64_t readAtNs, std::int64_t windowNs) const;
};
