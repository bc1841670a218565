#pragma once

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <thread>
#include <unordered_map>
#include <utility>
#include <vector>

#include "cache/FileState.h"

struct sqlite3;
struct sqlite3_stmt;

// MD5 digests of files, kept across restarts so that an unchanged file is
// never read again to answer a digest. A bounded map in memory stands in
// front of an SQLite file (WAL mode); new digests reach the file in batches
// on a writer thread of the cache's own, never on a session's path. A file
// that is missing, corrupt, locked or read-only is rebuilt or bypassed (the
// cache then lives in memory only), never a failure of the caller.
// Callable from any thread.
class DigestCache {
public:
    // The cache at $XDG_CACHE_HOME/zandrel/digests.sqlite (~/.cache by
    // default), shared by every session; a new one when that path changes.
    static std::shared_ptr<DigestCache> shared();
    static std::string defaultFile();

    // A file changed less than `racyWindow` before it is read is not kept
    // (two seconds; tests shorten it).
    explicit DigestCache(std::string file, std::chrono::nanoseconds racyWindow = std::chrono::seconds(2));
    // Writes what is still pending.
    ~DigestCache();
    DigestCache(const DigestCache&) = delete;
    DigestCache& operator=(const DigestCache&) = delete;

    // The digest of the file's current contents (32 lower-case hex digits):
    // from the cache when the file's state is unchanged, otherwise read, and
    // kept unless the file was changing. `seen` is a state the caller has
    // just read, saving a second look. Anything but a regular file is read
    // every time. A read cut short by `keepGoing` (see Digest::md5OfFile)
    // is not kept.
    std::string digestOf(const std::string& path, const std::optional<FileState>& seen = std::nullopt,
        const std::atomic<bool>* keepGoing = nullptr);

    // digestOf for a file the cache has just been asked about and did not
    // know: read at once, and kept as digestOf keeps it.
    std::string readAndKeep(const std::string& path, const std::optional<FileState>& before,
        const std::atomic<bool>* keepGoing = nullptr);

    std::optional<std::string> lookup(const FileState& state);
    // The same for the files of one folder, in their order: files made one
    // after another have neighbouring inodes, so one range query of the
    // file answers them all where a query each would cost a round each.
    void lookupMany(const std::vector<FileState>& states, std::vector<std::optional<std::string>>& digests);
    void store(const FileState& state, const std::string& digest);
    // Waits until every stored digest is in the file (or the file is gone).
    void flush();
    // The one log line owed for a trouble with the file, once.
    std::optional<std::string> takeProblem();
    const std::string& file() const { return m_file; }

private:
    struct Key {
        std::uint64_t device, inode;
        bool operator==(const Key&) const = default;
    };
    struct KeyHash {
        std::size_t operator()(const Key& k) const { return std::hash<std::uint64_t>()(k.inode * 31 + k.device); }
    };

    void open();
    void closeDb();
    void preload();
    bool openOnce(std::string& error);
    void bypass(const std::string& why);
    void remember(const FileState& state, const std::string& digest);
    std::optional<std::string> lookupLocked(const FileState& state);
    bool lookupRange(const std::vector<FileState>& states, std::vector<std::optional<std::string>>& digests);
    void writerLoop();
    void writeBatch(std::vector<std::pair<FileState, std::string>>& batch);

    std::string m_file;
    std::int64_t m_racyWindowNs;
    // Guards the map, the database handle and the pending list.
    std::mutex m_mutex;
    std::condition_variable m_wake;
    std::condition_variable m_written;
    std::unordered_map<Key, std::pair<FileState, std::string>, KeyHash> m_front;
    std::vector<std::pair<FileState, std::string>> m_pending;
    std::size_t m_inFlight = 0;
    sqlite3* m_db = nullptr;
    sqlite3_stmt* m_select = nullptr;
    sqlite3_stmt* m_selectRange = nullptr;
    bool m_opened = false;
    bool m_stopping = false;
    std::string m_problem;
    std::thread m_writer;
};
