#pragma once

#include <string>
#include <string_view>

#include <sys/types.h>

// Whole-file replacement that a reader never sees half done.
namespace FileWrite {

// Writes the contents to a temporary file beside the path, flushes it to
// disk and renames it over the path, making the parent folders first.
// False when nothing was replaced (the temporary file is then removed).
bool replaceAtomically(const std::string& path, std::string_view contents, mode_t mode);

} // namespace FileWrite
