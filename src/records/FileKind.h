#pragma once

#include <cstdint>
#include <string>

// The coarse file kinds a phone sorts files by. The numbers are fixed by the
// protocol: 5 is the catch-all, and the two picture groups are 4 and 6.
enum FileKind : std::int32_t {
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

// The kind of a file by its extension (without the dot), compared after
// lower-casing; an unknown or empty extension is FileKindOther.
std::int32_t fileKindForExtension(const std::string& extension);
