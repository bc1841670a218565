#pragma once

#include <cstdint>
#include <string>

#include "wire/RecordFields.h"

// One folder as reported to the phone: its path in parts, dates, attribute
// flags and the number of plain files directly inside it. A plain value,
// built per request and encoded at once.
class DirSyncInfo {
public:
    std::string fullName;
    std::string parent;
    std::string name;
    RecordField::Date created = 0;
    RecordField::Date modified = 0;
    // Never set on this platform; on the wire all the same.
    bool archive = false;
    bool compressed = false;
    bool encrypted = false;
    bool hidden = false;
    bool readonly = false;
    bool system = false;
    RecordField::FileCount fileCount = 0;

    // Never fails: a missing or unreadable folder has dates 0 and no files.
    static DirSyncInfo initFromPath(const std::string& path);
    // The empty record that ends a streamed list.
    static DirSyncInfo finish();

    // Same path, case-sensitive, canonically equivalent Unicode forms equal.
    bool isEqual(const DirSyncInfo& other) const;
    DirSyncInfo copy() const;
};
