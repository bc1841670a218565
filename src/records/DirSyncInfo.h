#pragma once

#include <cstdint>
#include <string>

#include "wire/RecordFields.h"

// One folder as reported to the phone: its path in parts, dates, attribute
// flags and the number of plain files directly inside it. A plain value,
// built per request and encoded at once.
class DirSyncInfo : public FolderRecordFields {
public:
    // Never fails: a missing or unreadable folder has dates 0 and no files.
    static DirSyncInfo initFromPath(const std::string& path);
    // The empty record that ends a streamed list.
    static DirSyncInfo finish();

    DirSyncInfo copy() const;
};
