#include "cache/DigestCache.h"

#include <algorithm>
#include <chrono>
#include <cstdlib>
#include <filesystem>
#include <system_error>

#include <sqlite3.h>

#include "wire/Digest.h"
#include "wire/Paths.h"

namespace {

// Enough for a large library's recent files while staying a few MiB.
constexpr std::size_t kFrontEntries = 20000;
// Digests waiting for the writer beyond this are dropped: it is a cache.
constexpr std::size_t kMaxPending = 20000;
constexpr std::size_t kBatch = 1000;
constexpr auto kWriteDelay = std::chrono::milliseconds(100);

const char* const kEmptyDigest = "d41d8cd98f00b204e9800998ecf8427e";

std::int64_t nowNs()
{
    return std::chrono::duration_cast<std::chrono::nanoseconds>(
        std::chrono::system_clock::now().time_since_epoch())
        .count();
}

class Statement {
public:
    Statement(sqlite3* db, const char* sql) { sqlite3_prepare_v2(db, sql, -1, &m_stmt, nullptr); }
    ~Statement() { sqlite3_finalize(m_stmt); }
    Statement(const Statement&) = delete;
    Statement& operator=(const Statement&) = delete;
    explicit operator bool() const { return m_stmt != nullptr; }
    sqlite3_stmt* get() const { return m_stmt; }
    void bind(int at, std::int64_t value) { sqlite3_bind_int64(m_stmt, at, value); }

private:
    sqlite3_stmt* m_stmt = nullptr;
};

} // namespace

std::string DigestCache::defaultFile()
{
    const char* xdg = std::getenv("XDG_CACHE_HOME");
    std::string base = (xdg && *xdg == '/') ? std::string(xdg) : Paths::homeDirectory() + "/.cache";
    return base + "/zandrel/digests.sqlite";
}

std::shared_ptr<DigestCache> DigestCache::shared()
{
    static std::mutex lock;
    static std::shared_ptr<DigestCache> cache;
    std::string file = defaultFile();
    std::lock_guard guard(lock);
    if (!cache || cache->file() != file)
        cache = std::make_shared<DigestCache>(file);
    return cache;
}

DigestCache::DigestCache(std::string file, std::chrono::nanoseconds racyWindow)
    : m_file(std::move(file)), m_racyWindowNs(racyWindow.count())
{
    m_writer = std::thread([this] { writerLoop(); });
}

DigestCache::~DigestCache()
{
    {
        std::lock_guard guard(m_mutex);
        m_stopping = true;
    }
    m_wake.notify_all();
    m_writer.join();
    closeDb();
}

std::string DigestCache::digestOf(
    const std::string& path, const std::optional<FileState>& seen, const std::atomic<bool>* keepGoing)
{
    auto before = seen ? seen : FileState::of(path);
    if (before)
        if (auto known = lookup(*before))
            return *known;
    return readAndKeep(path, before, keepGoing);
}

std::string DigestCache::readAndKeep(
    const std::string& path, const std::optional<FileState>& before, const std::atomic<bool>* keepGoing)
{
    std::int64_t readAt = nowNs();
    std::string digest = Digest::md5OfFile(path, keepGoing);
    if (keepGoing && !*keepGoing)
        return digest;
    // Kept only when nothing moved while it was read, and when a read that
    // failed part-way (which digests as empty input) cannot be what we keep.
    auto after = FileState::of(path);
    if (before && after && *before == *after && !after->isRacy(readAt, m_racyWindowNs)
        && (after->size == 0 || digest != kEmptyDigest))
        store(*after, digest);
    return digest;
}

std::optional<std::string> DigestCache::lookup(const FileState& state)
{
    std::lock_guard guard(m_mutex);
    return lookupLocked(state);
}

// Called under m_mutex.
std::optional<std::string> DigestCache::lookupLocked(const FileState& state)
{
    Key key{state.device, state.inode};
    if (auto it = m_front.find(key); it != m_front.end())
        return it->second.first == state ? std::optional(it->second.second) : std::nullopt;
    open();
    if (!m_db)
        return std::nullopt;
    if (!m_select
        && sqlite3_prepare_v3(m_db, "SELECT size, modified, changed, md5 FROM digests WHERE device = ?1 AND inode = ?2",
               -1, SQLITE_PREPARE_PERSISTENT, &m_select, nullptr)
            != SQLITE_OK)
        return std::nullopt;
    sqlite3_reset(m_select);
    sqlite3_bind_int64(m_select, 1, static_cast<std::int64_t>(state.device));
    sqlite3_bind_int64(m_select, 2, static_cast<std::int64_t>(state.inode));
    if (sqlite3_step(m_select) != SQLITE_ROW)
        return std::nullopt;
    FileState stored = state;
    stored.size = sqlite3_column_int64(m_select, 0);
    stored.modifiedNs = sqlite3_column_int64(m_select, 1);
    stored.changedNs = sqlite3_column_int64(m_select, 2);
    const auto* text = reinterpret_cast<const char*>(sqlite3_column_text(m_select, 3));
    std::optional<std::string> digest;
    if (stored == state && text)
        digest = std::string(text);
    sqlite3_reset(m_select);
    if (digest)
        remember(state, *digest);
    return digest;
}

void DigestCache::lookupMany(const std::vector<FileState>& states, std::vector<std::optional<std::string>>& digests)
{
    digests.assign(states.size(), std::nullopt);
    std::lock_guard guard(m_mutex);
    open();
    if (lookupRange(states, digests))
        return;
    for (std::size_t i = 0; i < states.size(); ++i)
        digests[i] = lookupLocked(states[i]);
}

// Called under m_mutex. False when the files are not neighbours on one
// device (a range would read far more rows than it answers).
bool DigestCache::lookupRange(const std::vector<FileState>& states, std::vector<std::optional<std::string>>& digests)
{
    constexpr std::uint64_t kSpread = 4;
    if (!m_db || states.size() < 2)
        return false;
    std::uint64_t low = states[0].inode, high = states[0].inode;
    for (const auto& state : states) {
        if (state.device != states[0].device)
            return false;
        low = std::min(low, state.inode);
        high = std::max(high, state.inode);
    }
    if (high - low > kSpread * states.size() + 64)
        return false;
    if (!m_selectRange
        && sqlite3_prepare_v3(m_db,
               "SELECT inode, size, modified, changed, md5 FROM digests WHERE device = ?1 AND inode BETWEEN ?2 AND ?3",
               -1, SQLITE_PREPARE_PERSISTENT, &m_selectRange, nullptr)
            != SQLITE_OK)
        return false;
    // Rows come in inode order; the files are matched to them through a
    // sorted index.
    std::vector<std::size_t> order(states.size());
    for (std::size_t i = 0; i < order.size(); ++i)
        order[i] = i;
    std::sort(order.begin(), order.end(), [&](std::size_t a, std::size_t b) { return states[a].inode < states[b].inode; });
    sqlite3_reset(m_selectRange);
    sqlite3_bind_int64(m_selectRange, 1, static_cast<std::int64_t>(states[0].device));
    sqlite3_bind_int64(m_selectRange, 2, static_cast<std::int64_t>(low));
    sqlite3_bind_int64(m_selectRange, 3, static_cast<std::int64_t>(high));
    std::size_t next = 0;
    while (sqlite3_step(m_selectRange) == SQLITE_ROW) {
        auto inode = static_cast<std::uint64_t>(sqlite3_column_int64(m_selectRange, 0));
        while (next < order.size() && states[order[next]].inode < inode)
            ++next;
        for (std::size_t k = next; k < order.size() && states[order[k]].inode == inode; ++k) {
            const FileState& state = states[order[k]];
            FileState stored = state;
            stored.size = sqlite3_column_int64(m_selectRange, 1);
            stored.modifiedNs = sqlite3_column_int64(m_selectRange, 2);
            stored.changedNs = sqlite3_column_int64(m_selectRange, 3);
            const auto* text = reinterpret_cast<const char*>(sqlite3_column_text(m_selectRange, 4));
            if (stored == state && text)
                digests[order[k]] = std::string(text);
        }
    }
    sqlite3_reset(m_selectRange);
    // What the memory front knows is newer than the file's rows.
    for (std::size_t i = 0; i < states.size(); ++i) {
        Key key{states[i].device, states[i].inode};
        if (auto it = m_front.find(key); it != m_front.end())
            digests[i] = it->second.first == states[i] ? std::optional(it->second.second) : std::nullopt;
    }
    return true;
}

void DigestCache::store(const FileState& state, const std::string& digest)
{
    bool wake = false;
    {
        std::lock_guard guard(m_mutex);
        remember(state, digest);
        if (m_pending.size() >= kMaxPending)
            return;
        m_pending.emplace_back(state, digest);
        // The writer needs waking only to start its delay and once a batch
        // is full; a wake per digest cost a switch of threads per file.
        wake = m_pending.size() == 1 || m_pending.size() == kBatch;
    }
    if (wake)
        m_wake.notify_all();
}

void DigestCache::remember(const FileState& state, const std::string& digest)
{
    if (m_front.size() >= kFrontEntries)
        m_front.erase(m_front.begin());
    m_front[Key{state.device, state.inode}] = {state, digest};
}

void DigestCache::flush()
{
    std::unique_lock guard(m_mutex);
    m_wake.notify_all();
    m_written.wait(guard, [&] { return m_pending.empty() && m_inFlight == 0; });
}

std::optional<std::string> DigestCache::takeProblem()
{
    std::lock_guard guard(m_mutex);
    if (m_problem.empty())
        return std::nullopt;
    return std::exchange(m_problem, std::string());
}

// Called under m_mutex. Opens the file once per cache; a file that is not a
// database, or a damaged one, is replaced by an empty one.
void DigestCache::open()
{
    if (m_opened)
        return;
    m_opened = true;
    std::string error;
    if (openOnce(error)) {
        preload();
        return;
    }
    bool damaged = error.find("not a database") != std::string::npos || error.find("malformed") != std::string::npos;
    if (damaged) {
        std::error_code ignored;
        for (const char* suffix : {"", "-wal", "-shm"})
            std::filesystem::remove(m_file + suffix, ignored);
        if (openOnce(error)) {
            m_problem = "Digest cache " + m_file + " was damaged and has been rebuilt.";
            return;
        }
    }
    bypass(error);
}

void DigestCache::closeDb()
{
    sqlite3_finalize(m_select);
    m_select = nullptr;
    sqlite3_finalize(m_selectRange);
    m_selectRange = nullptr;
    if (m_db)
        sqlite3_close(m_db);
    m_db = nullptr;
}

bool DigestCache::openOnce(std::string& error)
{
    closeDb();
    std::error_code ignored;
    std::filesystem::create_directories(std::filesystem::path(m_file).parent_path(), ignored);
    if (sqlite3_open_v2(m_file.c_str(), &m_db, SQLITE_OPEN_READWRITE | SQLITE_OPEN_CREATE | SQLITE_OPEN_NOMUTEX,
            nullptr)
        != SQLITE_OK) {
        error = m_db ? sqlite3_errmsg(m_db) : "out of memory";
        return false;
    }
    // Another process holding the file briefly is waited for, not long.
    sqlite3_busy_timeout(m_db, 200);
    const char* setup = "PRAGMA journal_mode=WAL; PRAGMA synchronous=NORMAL;"
                        "CREATE TABLE IF NOT EXISTS digests (device INTEGER NOT NULL, inode INTEGER NOT NULL,"
                        " size INTEGER NOT NULL, modified INTEGER NOT NULL, changed INTEGER NOT NULL,"
                        " md5 TEXT NOT NULL, PRIMARY KEY (device, inode)) WITHOUT ROWID;"
                        "SELECT count(*) FROM digests WHERE inode = 0;";
    char* message = nullptr;
    if (sqlite3_exec(m_db, setup, nullptr, nullptr, &message) == SQLITE_OK)
        return true;
    error = message ? message : sqlite3_errmsg(m_db);
    sqlite3_free(message);
    return false;
}

// Called under m_mutex. One pass over the table fills the memory map, far
// cheaper than a query per file for the walk after a restart.
void DigestCache::preload()
{
    Statement scan(m_db, "SELECT device, inode, size, modified, changed, md5 FROM digests");
    if (!scan)
        return;
    while (m_front.size() < kFrontEntries && sqlite3_step(scan.get()) == SQLITE_ROW) {
        FileState state;
        state.device = static_cast<std::uint64_t>(sqlite3_column_int64(scan.get(), 0));
        state.inode = static_cast<std::uint64_t>(sqlite3_column_int64(scan.get(), 1));
        state.size = sqlite3_column_int64(scan.get(), 2);
        state.modifiedNs = sqlite3_column_int64(scan.get(), 3);
        state.changedNs = sqlite3_column_int64(scan.get(), 4);
        if (const auto* text = reinterpret_cast<const char*>(sqlite3_column_text(scan.get(), 5)))
            m_front.emplace(Key{state.device, state.inode}, std::pair(state, std::string(text)));
    }
}

// Called under m_mutex: the cache goes on in memory only.
void DigestCache::bypass(const std::string& why)
{
    closeDb();
    m_pending.clear();
    m_problem = "Digest cache " + m_file + " cannot be used (" + why + "); digests are kept in memory only.";
}

void DigestCache::writerLoop()
{
    std::unique_lock guard(m_mutex);
    for (;;) {
        m_wake.wait(guard, [&] { return m_stopping || !m_pending.empty(); });
        if (!m_stopping && m_pending.size() < kBatch)
            m_wake.wait_for(guard, kWriteDelay, [&] { return m_stopping || m_pending.size() >= kBatch; });
        if (m_pending.empty()) {
            if (m_stopping)
                return;
            continue;
        }
        std::vector<std::pair<FileState, std::string>> batch;
        batch.swap(m_pending);
        m_inFlight = batch.size();
        open();
        if (m_db)
            writeBatch(batch);
        m_inFlight = 0;
        m_written.notify_all();
    }
}

// Called under m_mutex; lookups wait for one batch at most.
void DigestCache::writeBatch(std::vector<std::pair<FileState, std::string>>& batch)
{
    char* message = nullptr;
    if (sqlite3_exec(m_db, "BEGIN", nullptr, nullptr, &message) != SQLITE_OK) {
        bypass(message ? message : "cannot write");
        sqlite3_free(message);
        return;
    }
    {
        Statement insert(m_db, "INSERT OR REPLACE INTO digests VALUES (?1, ?2, ?3, ?4, ?5, ?6)");
        for (const auto& [state, digest] : batch) {
            insert.bind(1, static_cast<std::int64_t>(state.device));
            insert.bind(2, static_cast<std::int64_t>(state.inode));
            insert.bind(3, state.size);
            insert.bind(4, state.modifiedNs);
            insert.bind(5, state.changedNs);
            sqlite3_bind_text(insert.get(), 6, digest.c_str(), static_cast<int>(digest.size()), SQLITE_TRANSIENT);
            if (sqlite3_step(insert.get()) != SQLITE_DONE) {
                std::string why = sqlite3_errmsg(m_db);
                sqlite3_exec(m_db, "ROLLBACK", nullptr, nullptr, nullptr);
                bypass(why);
                return;
            }
            sqlite3_reset(insert.get());
        }
    }
    if (sqlite3_exec(m_db, "COMMIT", nullptr, nullptr, &message) != SQLITE_OK) {
        std::string why = message ? message : sqlite3_errmsg(m_db);
        sqlite3_free(message);
        sqlite3_exec(m_db, "ROLLBACK", nullptr, nullptr, nullptr);
        bypass(why);
    }
}
