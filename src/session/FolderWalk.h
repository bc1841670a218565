#pragma once

#include <atomic>
#include <cstdint>
#include <deque>
#include <functional>
#include <future>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "records/DirSyncInfo.h"
#include "records/FileSyncInfo.h"
#include "wire/Bytes.h"

class DigestCache;
class DigestPool;
class StreamIO;

// The recursive listing of one walk command, run on its session's thread:
// depth first, pre-order, each folder's record, its files, then its
// subfolders. Each folder is read once through a descriptor, with one statx
// per entry relative to it. With digests on, the next files are digested on
// a small pool while the records still go out strictly in walk order; the
// look-ahead is bounded, so memory stays flat for any tree. Records are
// gathered into large writes: the bytes on the wire are the same, only their
// grouping into system calls differs.
class FolderWalk {
public:
    struct Hooks {
        // Log lines, as the session writes them.
        std::function<void(const std::string&)> logInfo;
        // Whether log lines are written at all (formatting them costs).
        bool logging = false;
        // Turns false when the session is told to end: digests under way stop.
        const std::atomic<bool>* keepGoing = nullptr;
    };

    FolderWalk(StreamIO& io, std::string context, Hooks hooks, bool withDigests);
    ~FolderWalk();
    FolderWalk(const FolderWalk&) = delete;
    FolderWalk& operator=(const FolderWalk&) = delete;

    // Writes the tree under `root` (not starting with "~") and the end marker.
    void run(const std::string& root);

private:
    struct Entry;
    struct Pending {
        // Folder records (and the end marker) are encoded at once; a file's
        // record waits for its digest.
        Bytes folder;
        std::optional<FileSyncInfo> file;
        std::future<std::string> digest;
    };

    void walkFolder(const std::string& path, DirSyncInfo record, bool isRoot);
    void add(Pending item);
    void drain(std::size_t keep);
    void write(Bytes encoded, const std::string* filePath);
    void flush();

    StreamIO& m_io;
    std::string m_context;
    Hooks m_hooks;
    std::shared_ptr<DigestCache> m_cache;
    std::unique_ptr<DigestPool> m_pool;
    std::deque<Pending> m_pending;

    // What the next write holds, and which of it are file records (their
    // paths) or folder records (empty).
    Bytes m_buffer;
    std::vector<std::string> m_marks;
    // After a failed write, records go out one by one, so that each file
    // record's failure is logged on its own and a folder record's ends the walk.
    bool m_oneByOne = false;
};
