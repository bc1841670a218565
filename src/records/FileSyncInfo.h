#pragma once

#include <cstdint>
#include <optional>
#include <string>

#include "records/FileKind.h"
#include "wire/RecordFields.h"

// One file as reported to the phone: its path in parts, kind, size, dates,
// attribute flags and, once a listing has computed it, its MD5 text.
// A plain value, built per request and encoded at once.
class FileSyncInfo : public FileRecordFields {
public:
    // Lower-case hex MD5, filled in only by the recursive listing.
    std::optional<std::string> hash;

    // Never fails: a missing file keeps its path parts, with size and dates 0.
    static FileSyncInfo initFromPath(const std::string& path);
    // The empty record that ends a streamed list.
    static FileSyncInfo finish();

    RecordField::Kind guessFileType() const;
    // Everything but the hash, which the copy leaves absent.
    FileSyncInfo copy() const;
};
