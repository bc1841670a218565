#pragma once

#include <cstdint>
#include <string>

// Folders and files as the server describes them, decoded into plain values.
// Dates are whole seconds since 1970-01-01 00:00:00 UTC.

// One folder: its path in parts, dates, flags and how many plain files lie
// directly inside it.
struct RemoteFolder {
    std::string fullName;
    std::string parent;
    std::string name;
    std::int64_t created = 0;
    std::int64_t modified = 0;
    bool archive = false;
    bool compressed = false;
    bool encrypted = false;
    bool hidden = false;
    bool readonly = false;
    bool system = false;
    std::int64_t fileCount = 0;
};

// One file: its path in parts, kind code (0 to 8), size, dates, flags and,
// when the server computed one, the lower-case hex MD5 of its contents.
struct RemoteFile {
    std::string fullName;
    std::string parent;
    std::string name;
    std::string extension;
    std::uint8_t kind = 5;
    std::uint64_t size = 0;
    std::int64_t created = 0;
    std::int64_t modified = 0;
    bool archive = false;
    bool compressed = false;
    bool encrypted = false;
    bool hidden = false;
    bool readonly = false;
    bool system = false;
    std::string hash;
};
