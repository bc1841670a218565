#pragma once

#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <vector>

// The desktop's trash as the freedesktop.org Trash specification 1.0 lays
// it out, so that the file manager lists what we keep with its original
// place: the home trash ($XDG_DATA_HOME/Trash) for items on its file system,
// $topdir/.Trash/$uid or $topdir/.Trash-$uid for items on other volumes.
// Each kept item is files/NAME plus info/NAME.trashinfo, the info file
// written (exclusively) first, so a crash between the two steps leaves an
// info file without its item, never an item that has lost its place.
// Stateless; any thread may call it.
namespace Trash {

struct Kept {
    bool kept = false;
    // Where it stood (its folder resolved), what the info file names.
    std::string original;
    // The item in the trash (…/files/NAME) and its info file.
    std::string item;
    std::string info;
    // When not kept: why, in a few words ("its volume is read-only").
    std::string why;
};

// Moves the item (not following a final link) into the trash of its volume.
// `betweenSteps` runs after the info file is written and before the move
// (tests stop the process there).
Kept keep(const std::string& path, const std::function<void()>& betweenSteps = {});

// Puts a kept item back at `original`, making its parent folders; when that
// path is taken it goes beside it as "NAME (restored)", "NAME (restored 2)",
// …, never over anything. The info file goes once the item is back.
// Returns where it went, or nothing (`why` says why).
std::optional<std::string> putBack(const std::string& item, const std::string& info, const std::string& original,
    std::string& why);

// Removes a kept item for good: the item first, then its info file.
void discard(const std::string& item, const std::string& info);

// Removes info files whose item is missing and that are older than
// `minAgeSeconds` (younger ones may belong to a move still under way).
int removeOrphanInfo(const std::string& trashDir, std::int64_t minAgeSeconds);

// The trash folder that holds a kept item (…/files/NAME -> …).
std::string trashDirOf(const std::string& item);
// The home trash, $XDG_DATA_HOME/Trash (~/.local/share/Trash).
std::string homeTrash();

// Bytes of the item and everything below it, links not followed.
std::int64_t sizeOf(const std::string& path);
// Size in bytes of the file system holding the path; 0 when unknown.
std::int64_t volumeSize(const std::string& path);

// The info file's text, and its parts.
std::string infoText(const std::string& pathValue, std::int64_t deletedAtSeconds);
std::string escapePath(const std::string& path);
std::string unescapePath(const std::string& text);
std::string deletionDate(std::int64_t seconds);

} // namespace Trash
