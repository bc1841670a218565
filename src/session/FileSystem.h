#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

// The disk as the session handlers see it: existence and type tests,
// listings in the platform's order, a move that never replaces, free space.
// Stateless; any session thread may call it. Paths from a phone come here
// only through DiskPath.
namespace FileSystem {

// What the existence test reports. It follows a final symbolic link, so a
// link to a folder is a folder and a dangling link is nothing at all.
struct PathState {
    bool exists = false;
    bool isFolder = false;
};

// An absent path names nothing on disk.
PathState stateOf(const std::optional<std::string>& path);

enum class ItemType { Missing, RegularFile, Directory, Other };

// The type of the item itself: a final symbolic link is not followed.
ItemType typeOf(const std::string& path);

// Entry names in the order the platform lists them, without "." and "..";
// empty when the folder cannot be read.
std::vector<std::string> listFolder(const std::string& folder);

// The child path the phone sees: folder, "/", name, even when the folder
// already ends in "/".
std::string childPath(const std::string& folder, const std::string& name);

// Moves an item to a path where nothing may be replaced; across file systems
// a plain file or link is copied and the original removed. False when the
// item did not move.
bool moveWithoutReplacing(const std::string& from, const std::string& to);

// Bytes available to this process on the file system holding the path.
std::optional<std::int64_t> freeBytes(const std::string& path);

// An absent string as log lines show it, "(null)".
// kept: see docs/protocol.md (text that is not UTF-8)
std::string shown(const std::optional<std::string>& text);

} // namespace FileSystem
