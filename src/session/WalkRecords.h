#pragma once

#include <cstdint>
#include <string_view>

#include "wire/Bytes.h"

// The walk's records written straight onto the end of its output buffer,
// byte for byte what the record encoders give, without building a record
// or its parts first. A full path is written from its folder part and its
// name, so no path is assembled per entry.
namespace WalkRecords {

struct Common {
    std::string_view folderPart; // the path up to and with the last "/"
    std::string_view name;
    std::string_view parent;
    std::int64_t created = 0;
    std::int64_t modified = 0;
    bool readonly = false;
};

void appendFolder(Bytes& out, const Common& item, std::int32_t fileCount);
void appendFile(Bytes& out, const Common& item, std::string_view extension, std::int32_t kind, std::uint64_t size,
    std::string_view hash);
// Puts a digest into a buffer holding one file record made with an empty one.
void fillDigest(Bytes& record, std::string_view hash);
// The full path a record at `at` carries.
std::string_view fullNameAt(const Bytes& out, std::size_t at);

} // namespace WalkRecords
