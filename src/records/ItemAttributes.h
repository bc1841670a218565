#pragma once

#include <cstdint>
#include <string>

#include <fcntl.h>
#include <sys/stat.h>

// What the records read from the disk about one item. A final symbolic link
// is examined itself, never followed.
struct ItemAttributes {
    std::uint64_t size = 0;
    // Whole seconds since 1970, truncated toward zero; 0 where unknown.
    std::int64_t created = 0;
    std::int64_t modified = 0;
    bool isRegularFile = false;

    // Never fails: an item whose attributes cannot be read gives all zeros.
    static ItemAttributes read(const std::string& path);
    // From a statx already made (with STATX_BASIC_STATS | STATX_BTIME).
    static ItemAttributes fromStatx(const struct statx& stx);
};

// True when this process may write the item.
bool isWritableByUs(const std::string& path);
