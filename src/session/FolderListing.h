#pragma once

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include "cache/FileState.h"

class HelperThread;
class WriteAccess;

// One folder's regular files and folders, in the order the platform lists
// them, with what their records need: read with large directory reads and
// one statx per entry relative to the folder, shared between two threads in
// a large folder. Names sit in one block and
// entries are plain values, so a listing reused from folder to folder
// allocates nothing once it has grown. Used by one walk's thread.
class FolderListing {
public:
    struct Entry {
        std::uint32_t nameAt = 0;
        std::uint32_t nameLength = 0;
        bool isFolder = false;
        bool writable = false;
        // False for an entry that is no plain file or folder (or is gone).
        bool listed = false;
        std::uint64_t size = 0;
        // Whole seconds since 1970, truncated toward zero; 0 where unknown.
        std::int64_t created = 0;
        std::int64_t modified = 0;
        FileState state;
    };

    // Replaces the listing with that of `path`; an unreadable folder, or a
    // listing that broke off, is empty. The root is named by the phone and
    // may be reached through a link; below it links are never followed.
    // `block` is the walk's buffer for directory reads; a large folder's
    // entries are looked at by `helper` too, when there is one. Only one
    // descriptor is open at a time, so no depth of tree runs out of them.
    void read(const std::string& path, bool followLink, WriteAccess& access, std::vector<char>& block,
        HelperThread* helper);

    const std::vector<Entry>& entries() const { return m_entries; }
    std::string_view name(const Entry& e) const { return {m_names.data() + e.nameAt, e.nameLength}; }

private:
    bool readNames(int fd, std::vector<char>& block);
    void look(int fd, Entry& entry, const WriteAccess& access) const;

    std::vector<Entry> m_entries;
    // Each name is followed by a NUL, for the calls that take it.
    std::vector<char> m_names;
};
