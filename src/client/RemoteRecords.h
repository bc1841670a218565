#pragma once

#include <cstdint>
#include <string>

#include "wire/RecordFields.h"

// Folders and files as the server describes them, decoded into plain values
// of the same field types the server's records have.

// One folder: its path in parts, dates, flags and how many plain files lie
// directly inside it.
struct RemoteFolder {
    std::string fullName;
    std::string parent;
    std::string name;
    RecordField::Date created = 0;
    RecordField::Date modified = 0;
    bool archive = false;
    bool compressed = false;
    bool encrypted = false;
    bool hidden = false;
    bool readonly = false;
    bool system = false;
    RecordField::FileCount fileCount = 0;
};

// One file: its path in parts, kind code (0 to 8), size, dates, flags and,
// when the server computed one, the lower-case hex MD5 of its contents.
struct RemoteFile {
    std::string fullName;
    std::string parent;
    std::string name;
    std::string extension;
    RecordField::Kind kind = FileKindOther;
    RecordField::Size size = 0;
    RecordField::Date created = 0;
    RecordField::Date modified = 0;
    bool archive = false;
    bool compressed = false;
    bool encrypted = false;
    bool hidden = false;
    bool readonly = false;
    bool system = false;
    std::string hash;
};
