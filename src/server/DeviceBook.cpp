#include "server/DeviceBook.h"

#include <chrono>

#include <sqlite3.h>

#include "journal/ActivityDatabase.h"

namespace {

constexpr const char* kSchema = "CREATE TABLE IF NOT EXISTS devices ("
                                " address TEXT PRIMARY KEY,"
                                " hardware TEXT NOT NULL DEFAULT '',"
                                " name TEXT NOT NULL DEFAULT '',"
                                " first_seen INTEGER NOT NULL DEFAULT 0,"
                                " last_seen INTEGER NOT NULL DEFAULT 0,"
                                " sessions INTEGER NOT NULL DEFAULT 0,"
                                " bytes_sent INTEGER NOT NULL DEFAULT 0,"
                                " bytes_received INTEGER NOT NULL DEFAULT 0,"
                                " standing TEXT NOT NULL DEFAULT 'unknown');";

constexpr const char* kColumns =
    "address, hardware, name, first_seen, last_seen, sessions, bytes_sent, bytes_received, standing";

std::int64_t now()
{
    return std::chrono::duration_cast<std::chrono::seconds>(std::chrono::system_clock::now().time_since_epoch())
        .count();
}

DeviceBook::Standing standingOf(const std::string& text)
{
    if (text == "allowed")
        return DeviceBook::Standing::Allowed;
    if (text == "blocked")
        return DeviceBook::Standing::Blocked;
    return DeviceBook::Standing::Unknown;
}

std::string textAt(sqlite3_stmt* row, int column)
{
    const auto* text = reinterpret_cast<const char*>(sqlite3_column_text(row, column));
    return text ? text : "";
}

DeviceBook::Device deviceAt(sqlite3_stmt* row)
{
    DeviceBook::Device d;
    d.address = textAt(row, 0);
    d.hardware = textAt(row, 1);
    d.name = textAt(row, 2);
    d.firstSeen = sqlite3_column_int64(row, 3);
    d.lastSeen = sqlite3_column_int64(row, 4);
    d.sessions = sqlite3_column_int64(row, 5);
    d.bytesSent = sqlite3_column_int64(row, 6);
    d.bytesReceived = sqlite3_column_int64(row, 7);
    d.standing = standingOf(textAt(row, 8));
    return d;
}

// Binds the texts first (?1, ?2 ...), then the numbers.
sqlite3_stmt* prepare(sqlite3* db, const std::string& sql, const std::vector<std::string>& text,
    const std::vector<std::int64_t>& numbers)
{
    sqlite3_stmt* statement = nullptr;
    if (sqlite3_prepare_v2(db, sql.c_str(), -1, &statement, nullptr) != SQLITE_OK)
        return nullptr;
    int at = 1;
    for (const auto& t : text)
        sqlite3_bind_text(statement, at++, t.c_str(), static_cast<int>(t.size()), SQLITE_TRANSIENT);
    for (auto n : numbers)
        sqlite3_bind_int64(statement, at++, n);
    return statement;
}

} // namespace

std::unique_ptr<DeviceBook> DeviceBook::open(std::string* error)
{
    return open(ActivityDatabase::defaultFile(), error);
}

std::unique_ptr<DeviceBook> DeviceBook::open(const std::string& file, std::string* error)
{
    auto db = ActivityDatabase::open(kSchema, error, file);
    if (!db)
        return nullptr;
    return std::unique_ptr<DeviceBook>(new DeviceBook(std::move(db)));
}

DeviceBook::DeviceBook(std::unique_ptr<ActivityDatabase> db) : m_db(std::move(db)) { }

DeviceBook::~DeviceBook() = default;

bool DeviceBook::run(
    const std::string& sql, const std::vector<std::string>& text, const std::vector<std::int64_t>& numbers)
{
    std::lock_guard lock(m_mutex);
    sqlite3_stmt* statement = prepare(m_db->handle(), sql, text, numbers);
    const bool done = statement && sqlite3_step(statement) == SQLITE_DONE;
    sqlite3_finalize(statement);
    return done;
}

std::vector<DeviceBook::Device> DeviceBook::all() const
{
    std::lock_guard lock(m_mutex);
    std::vector<Device> found;
    sqlite3_stmt* statement = prepare(m_db->handle(),
        std::string("SELECT ") + kColumns + " FROM devices ORDER BY last_seen DESC, address", {}, {});
    while (statement && sqlite3_step(statement) == SQLITE_ROW)
        found.push_back(deviceAt(statement));
    sqlite3_finalize(statement);
    return found;
}

std::optional<DeviceBook::Device> DeviceBook::find(const std::string& address) const
{
    std::lock_guard lock(m_mutex);
    std::optional<Device> found;
    sqlite3_stmt* statement =
        prepare(m_db->handle(), std::string("SELECT ") + kColumns + " FROM devices WHERE address = ?1", {address}, {});
    if (statement && sqlite3_step(statement) == SQLITE_ROW)
        found = deviceAt(statement);
    sqlite3_finalize(statement);
    return found;
}

bool DeviceBook::setStanding(
    const std::string& address, Standing standing, const std::optional<std::string>& name)
{
    if (!run("INSERT INTO devices (address, standing) VALUES (?1, ?2)"
             " ON CONFLICT(address) DO UPDATE SET standing = excluded.standing",
            {address, standingName(standing)}, {}))
        return false;
    return !name || run("UPDATE devices SET name = ?2 WHERE address = ?1", {address, *name}, {});
}

bool DeviceBook::forget(const std::string& address)
{
    const bool known = find(address).has_value();
    return run("DELETE FROM devices WHERE address = ?1", {address}, {}) && known;
}

void DeviceBook::seen(const std::string& address, const std::string& hardware)
{
    run("INSERT INTO devices (address, hardware, first_seen, last_seen) VALUES (?1, ?2, ?3, ?3)"
        " ON CONFLICT(address) DO UPDATE SET last_seen = excluded.last_seen,"
        " first_seen = CASE WHEN first_seen = 0 THEN excluded.first_seen ELSE first_seen END,"
        " hardware = CASE WHEN excluded.hardware = '' THEN hardware ELSE excluded.hardware END",
        {address, hardware}, {now()});
}

void DeviceBook::sessionEnded(
    const std::string& address, const std::string& hardware, std::int64_t sent, std::int64_t received)
{
    seen(address, hardware);
    run("UPDATE devices SET sessions = sessions + 1, bytes_sent = bytes_sent + ?2,"
        " bytes_received = bytes_received + ?3 WHERE address = ?1",
        {address}, {sent, received});
}

std::string DeviceBook::standingName(Standing standing)
{
    switch (standing) {
    case Standing::Allowed: return "allowed";
    case Standing::Blocked: return "blocked";
    default: return "unknown";
    }
}
