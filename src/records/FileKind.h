#pragma once

#include <cstdint>
#include <string>

#include "wire/RecordFields.h"

// The kind of a file by its extension (without the dot), compared after
// lower-casing; an unknown or empty extension is FileKindOther.
RecordField::Kind fileKindForExtension(const std::string& extension);
