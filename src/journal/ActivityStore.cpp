#include "journal/ActivityStore.h"

#include <algorithm>
#include <filesystem>
#include <map>
#include <set>

#include <sqlite3.h>

#include "journal/Trash.h"

namespace fs = std::filesystem;

namespace {

const char* const kSchema
    = "CREATE TABLE IF NOT EXISTS changes (id INTEGER PRIMARY KEY, at INTEGER NOT NULL, session INTEGER NOT NULL,"
      " device TEXT NOT NULL, kind TEXT NOT NULL, path TEXT NOT NULL, target TEXT NOT NULL DEFAULT '',"
      " size INTEGER NOT NULL DEFAULT -1, kept_as TEXT NOT NULL DEFAULT '', kept_size INTEGER NOT NULL DEFAULT -1, info TEXT NOT NULL DEFAULT '',"
      " note TEXT NOT NULL DEFAULT '', state TEXT NOT NULL DEFAULT '');"
      "CREATE INDEX IF NOT EXISTS changes_at ON changes (at);"
      "CREATE INDEX IF NOT EXISTS changes_kept ON changes (state) WHERE state = 'kept';";

const char* const kColumns = "id, at, session, device, kind, path, target, size, kept_as, kept_size, info, note, state";

// An info file this young may belong to a move still under way elsewhere.
constexpr std::int64_t kOrphanAgeSeconds = 600;
constexpr std::int64_t kDayMs = 86400000;

class Statement {
public:
    Statement(sqlite3* db, const std::string& sql) { sqlite3_prepare_v2(db, sql.c_str(), -1, &m_stmt, nullptr); }
    ~Statement() { sqlite3_finalize(m_stmt); }
    Statement(const Statement&) = delete;
    Statement& operator=(const Statement&) = delete;
    explicit operator bool() const { return m_stmt != nullptr; }
    sqlite3_stmt* get() const { return m_stmt; }
    void bind(int at, std::int64_t value) { sqlite3_bind_int64(m_stmt, at, value); }
    void bind(int at, const std::string& text)
    {
        sqlite3_bind_text(m_stmt, at, text.data(), static_cast<int>(text.size()), SQLITE_TRANSIENT);
    }
    std::string text(int column) const
    {
        const auto* value = reinterpret_cast<const char*>(sqlite3_column_text(m_stmt, column));
        return value ? std::string(value, static_cast<std::size_t>(sqlite3_column_bytes(m_stmt, column))) : "";
    }
    std::int64_t number(int column) const { return sqlite3_column_int64(m_stmt, column); }

private:
    sqlite3_stmt* m_stmt = nullptr;
};

Change readRow(const Statement& row)
{
    Change c;
    c.id = row.number(0);
    c.at = row.number(1);
    c.session = row.number(2);
    c.device = row.text(3);
    c.kind = Change::kindFrom(row.text(4)).value_or(Change::Kind::Connected);
    c.path = row.text(5);
    c.target = row.text(6);
    c.size = row.number(7);
    c.keptAs = row.text(8);
    c.keptSize = row.number(9);
    c.info = row.text(10);
    c.note = row.text(11);
    c.state = Change::stateFrom(row.text(12));
    return c;
}

} // namespace

std::unique_ptr<ActivityStore> ActivityStore::open(std::string* error, const std::string& file)
{
    auto db = ActivityDatabase::open(kSchema, error, file);
    if (!db)
        return nullptr;
    return std::make_unique<ActivityStore>(std::move(db));
}

ActivityStore::ActivityStore(std::unique_ptr<ActivityDatabase> db) : m_db(std::move(db)) { }

ActivityStore::~ActivityStore() = default;

bool ActivityStore::insert(std::vector<Change>& batch, std::string* error)
{
    if (!m_db->exec("BEGIN", error))
        return false;
    Statement insert(m_db->handle(),
        "INSERT INTO changes (at, session, device, kind, path, target, size, kept_as, kept_size, info, note, state)"
        " VALUES (?1, ?2, ?3, ?4, ?5, ?6, ?7, ?8, ?9, ?10, ?11, ?12)");
    for (auto& c : batch) {
        insert.bind(1, c.at);
        insert.bind(2, c.session);
        insert.bind(3, c.device);
        insert.bind(4, Change::kindText(c.kind));
        insert.bind(5, c.path);
        insert.bind(6, c.target);
        insert.bind(7, c.size);
        insert.bind(8, c.keptAs);
        insert.bind(9, c.keptSize);
        insert.bind(10, c.info);
        insert.bind(11, c.note);
        insert.bind(12, Change::stateText(c.state));
        if (!insert || sqlite3_step(insert.get()) != SQLITE_DONE) {
            if (error)
                *error = sqlite3_errmsg(m_db->handle());
            m_db->exec("ROLLBACK");
            return false;
        }
        c.id = sqlite3_last_insert_rowid(m_db->handle());
        sqlite3_reset(insert.get());
    }
    return m_db->exec("COMMIT", error);
}

std::vector<Change> ActivityStore::query(const std::string& where, const std::vector<Value>& values) const
{
    Statement select(m_db->handle(), std::string("SELECT ") + kColumns + " FROM changes" + where);
    std::vector<Change> found;
    if (!select)
        return found;
    for (std::size_t i = 0; i < values.size(); ++i)
        std::visit([&](const auto& v) { select.bind(static_cast<int>(i + 1), v); }, values[i]);
    while (sqlite3_step(select.get()) == SQLITE_ROW)
        found.push_back(readRow(select));
    return found;
}

std::vector<Change> ActivityStore::list(const ChangeFilter& filter) const
{
    std::string where = " WHERE 1";
    std::vector<Value> values;
    auto add = [&](const std::string& clause, Value value) {
        values.push_back(std::move(value));
        where += " AND " + clause + std::to_string(values.size());
    };
    if (filter.since)
        add("at >= ?", *filter.since);
    if (filter.until)
        add("at <= ?", *filter.until);
    if (filter.device)
        add("device = ?", *filter.device);
    if (filter.restorableOnly)
        where += " AND state = 'kept'";
    return query(where + " ORDER BY id", values);
}

std::optional<Change> ActivityStore::find(std::int64_t id) const
{
    auto found = query(" WHERE id = ?1", {id});
    if (found.empty())
        return std::nullopt;
    return found.front();
}

bool ActivityStore::claim(std::int64_t id, Change::State state, const std::string& target)
{
    Statement update(m_db->handle(), "UPDATE changes SET state = ?2, target = CASE WHEN ?3 = '' THEN target ELSE ?3 END"
                                     " WHERE id = ?1 AND state = 'kept'");
    update.bind(1, id);
    update.bind(2, Change::stateText(state));
    update.bind(3, target);
    return update && sqlite3_step(update.get()) == SQLITE_DONE && sqlite3_changes(m_db->handle()) == 1;
}

RestoreResult ActivityStore::restore(std::int64_t id)
{
    RestoreResult result;
    result.id = id;
    auto change = find(id);
    if (!change) {
        result.why = "no such entry";
        return result;
    }
    result.path = change->path;
    if (change->state != Change::State::Kept) {
        result.why = change->state == Change::State::Restored ? "already restored"
            : change->state == Change::State::Purged          ? "purged from the trash"
            : change->note.empty()                            ? "nothing was kept"
                                                              : "not kept: " + change->note;
        return result;
    }
    // Claimed first, so a purge or a second restore elsewhere leaves it be.
    if (!claim(id, Change::State::Restored)) {
        result.why = "restored or purged meanwhile";
        return result;
    }
    result.restoredTo = Trash::putBack(change->keptAs, change->info, change->path, result.why);
    Statement update(m_db->handle(), "UPDATE changes SET state = ?2, target = ?3 WHERE id = ?1");
    update.bind(1, id);
    update.bind(2, Change::stateText(result.restoredTo ? Change::State::Restored : Change::State::Kept));
    update.bind(3, result.restoredTo.value_or(change->target));
    sqlite3_step(update.get());
    return result;
}

std::int64_t ActivityStore::keptBytes() const
{
    Statement sum(m_db->handle(), "SELECT coalesce(sum(max(kept_size, 0)), 0) FROM changes WHERE state = 'kept'");
    return sum && sqlite3_step(sum.get()) == SQLITE_ROW ? sum.number(0) : 0;
}

bool ActivityStore::purgeOne(const Change& change)
{
    if (!claim(change.id, Change::State::Purged))
        return false;
    Trash::discard(change.keptAs, change.info);
    return true;
}

int ActivityStore::emptyKept()
{
    int purged = 0;
    for (const auto& change : query(" WHERE state = 'kept' ORDER BY at", {}))
        purged += purgeOne(change) ? 1 : 0;
    return purged;
}

int ActivityStore::purge(const KeepLimits& limits, std::int64_t nowMs)
{
    int purged = 0;
    // Items the person removed from the trash meanwhile are gone already;
    // a trash missing whole is on a volume not mounted now (a stick
    // unplugged), whose items are still there for when it comes back.
    for (const auto& change : query(" WHERE state = 'kept'", {}))
        if (!fs::exists(fs::symlink_status(change.keptAs)) && fs::is_directory(Trash::trashDirOf(change.keptAs)))
            purged += purgeOne(change) ? 1 : 0;
    std::int64_t days = std::clamp(limits.days, 0, kRetentionDays);
    for (const auto& change : query(" WHERE state = 'kept' AND at < ?1 ORDER BY at", {nowMs - days * kDayMs}))
        purged += purgeOne(change) ? 1 : 0;

    // Per volume: each trash folder lives on the volume it serves.
    auto kept = query(" WHERE state = 'kept' ORDER BY at", {});
    std::map<std::string, std::int64_t> used;
    std::set<std::string> trashes{Trash::homeTrash()};
    for (const auto& change : kept) {
        used[Trash::trashDirOf(change.keptAs)] += std::max<std::int64_t>(change.keptSize, 0);
        trashes.insert(Trash::trashDirOf(change.keptAs));
    }
    for (const auto& change : kept) {
        std::string dir = Trash::trashDirOf(change.keptAs);
        std::int64_t volume = Trash::volumeSize(dir);
        std::int64_t allowed = volume / 100 * std::clamp(limits.percent, 0, 100);
        // A volume whose size cannot be read (not mounted now) keeps its items.
        if (volume == 0 || used[dir] <= allowed)
            continue;
        if (purgeOne(change)) {
            used[dir] -= std::max<std::int64_t>(change.keptSize, 0);
            ++purged;
        }
    }

    Statement drop(m_db->handle(), "DELETE FROM changes WHERE at < ?1 AND state <> 'kept'");
    drop.bind(1, nowMs - kRetentionDays * kDayMs);
    sqlite3_step(drop.get());
    for (const auto& dir : trashes)
        Trash::removeOrphanInfo(dir, kOrphanAgeSeconds);
    return purged;
}
