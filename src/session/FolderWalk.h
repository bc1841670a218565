#pragma once

#include <atomic>
#include <cstdint>
#include <deque>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "session/DigestPool.h"
#include "session/FolderListing.h"
#include "session/HelperThread.h"
#include "session/WalkRecords.h"
#include "session/WriteAccess.h"
#include "wire/Bytes.h"

class DigestCache;
class StreamIO;

// The recursive listing of one walk command, run on its session's thread:
// depth first, pre-order, each folder's record, its files, then its
// subfolders. Each folder is read once through a descriptor, with one statx
// per entry relative to it, and records are encoded straight into the
// output buffer. With digests on, the next files are digested on
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
    struct Pending {
        // A file record waiting for its digest, and what was made after it.
        Bytes record;
        bool isFile = false;
        std::optional<DigestPool::Ticket> ticket;
    };
    // Where a record starts in the buffer, and whether it is a file's.
    struct Mark {
        std::uint32_t at;
        bool isFile;
    };

    void walkFolder(const std::string& path, std::size_t depth, const WalkRecords::Common* self);
    void emitFile(const FolderListing& listing, const FolderListing::Entry& entry, WalkRecords::Common item,
        std::optional<std::string> known);
    void emit(Bytes record, bool isFile);
    void drain(std::size_t keep);
    void append(const Bytes& record, bool isFile);
    void written(bool isFile);
    void flush();

    StreamIO& m_io;
    std::string m_context;
    Hooks m_hooks;
    std::shared_ptr<DigestCache> m_cache;
    std::unique_ptr<DigestPool> m_pool;
    std::deque<Pending> m_pending;
    WriteAccess m_access;
    std::unique_ptr<HelperThread> m_helper;
    // One listing per depth of the current path, reused folder to folder,
    // and the block their directory reads go through.
    std::vector<std::unique_ptr<FolderListing>> m_levels;
    std::vector<char> m_block;
    Bytes m_rootRecord;
    // A folder's files as the digest cache is asked about them, and its answers.
    std::vector<FileState> m_states;
    std::vector<std::optional<std::string>> m_known;

    // What the next write holds.
    Bytes m_buffer;
    std::vector<Mark> m_marks;
    // After a failed write, records go out one by one, so that each file
    // record's failure is logged on its own and a folder record's ends the walk.
    bool m_oneByOne = false;
};
