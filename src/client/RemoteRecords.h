#pragma once

#include <string>

#include "wire/RecordFields.h"

// Folders and files as the server describes them, decoded into the same
// fields the server's records are built from.

// One folder: its path in parts, dates, flags and how many plain files lie
// directly inside it.
using RemoteFolder = FolderRecordFields;

// One file: its path in parts, kind code (0 to 8), size, dates, flags and,
// when the server computed one, the lower-case hex MD5 of its contents.
struct RemoteFile : FileRecordFields {
    std::string hash;
};
