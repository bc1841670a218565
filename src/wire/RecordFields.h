#pragma once

#include <cstdint>
#include <string>

// The field types the wire fixes for file and folder records, shared by the
// server that builds records and the client that reads them back.
namespace RecordField {

// A file's size in bytes; 8 bytes on the wire.
using Size = std::uint64_t;
// Whole seconds since 1970-01-01 00:00:00 UTC, truncated toward zero; 8 bytes.
using Date = std::int64_t;
// A file's kind code (a FileKind); only its low 8 bits go on the wire.
using Kind = std::int32_t;
// Plain files directly inside a folder; sign-extended to 8 bytes on the wire.
using FileCount = std::int32_t;

} // namespace RecordField

// The coarse file kinds a phone sorts files by. The numbers are fixed by the
// protocol: 5 is the catch-all, and the two picture groups are 4 and 6.
enum FileKind : RecordField::Kind {
    FileKindArchive = 0,
    FileKindAudio = 1,
    FileKindCode = 2,
    FileKindDocument = 3,
    FileKindImage = 4,
    FileKindOther = 5,
    FileKindPhoto = 6,
    FileKindVideo = 7,
    FileKindWeb = 8,
};

// The fields a folder record carries, in the order they go on the wire.
struct FolderRecordFields {
    std::string fullName;
    std::string parent;
    std::string name;
    RecordField::Date created = 0;
    RecordField::Date modified = 0;
    // Never set by this server; on the wire all the same.
    bool archive = false;
    bool compressed = false;
    bool encrypted = false;
    bool hidden = false;
    bool readonly = false;
    bool system = false;
    RecordField::FileCount fileCount = 0;
};

// The fields a file record carries before its digest, in wire order. The
// digest text follows them; whether it may be absent is each side's matter.
struct FileRecordFields {
    std::string fullName;
    std::string parent;
    std::string name;
    std::string extension;
    RecordField::Kind kind = FileKindOther;
    RecordField::Size size = 0;
    RecordField::Date created = 0;
    RecordField::Date modified = 0;
    // Never set by this server; on the wire all the same.
    bool archive = false;
    bool compressed = false;
    bool encrypted = false;
    bool hidden = false;
    bool readonly = false;
    bool system = false;
};
