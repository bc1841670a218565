#include "journal/ActivityDatabase.h"

#include <cstdlib>
#include <ctime>
#include <filesystem>
#include <mutex>
#include <system_error>

#include <sqlite3.h>

#include "log/SystemLog.h"
#include "wire/Paths.h"

namespace {

// Two owners opening at once must not both set the same damaged file aside.
std::mutex openLock;

enum class Outcome { Open, Damaged, Failed };

std::string lastError(sqlite3* db, char* message)
{
    std::string text = message ? message : (db ? sqlite3_errmsg(db) : "out of memory");
    sqlite3_free(message);
    return text;
}

bool isDamage(int code)
{
    code &= 0xff;
    return code == SQLITE_NOTADB || code == SQLITE_CORRUPT;
}

// A damaged file usually fails before the check runs ("file is not a
// database"); the check catches the pages the schema does not touch.
Outcome tryOpen(const std::string& file, const std::string& schema, sqlite3*& db, std::string& error)
{
    if (sqlite3_open_v2(file.c_str(), &db, SQLITE_OPEN_READWRITE | SQLITE_OPEN_CREATE | SQLITE_OPEN_NOMUTEX, nullptr)
        != SQLITE_OK) {
        error = lastError(db, nullptr);
        return Outcome::Failed;
    }
    // Another connection writing (the server while a terminal lists) is
    // waited for briefly; the writers' transactions are short.
    sqlite3_busy_timeout(db, 2000);
    char* message = nullptr;
    std::string setup = "PRAGMA journal_mode=WAL; PRAGMA synchronous=NORMAL; " + schema;
    if (sqlite3_exec(db, setup.c_str(), nullptr, nullptr, &message) != SQLITE_OK) {
        int code = sqlite3_extended_errcode(db);
        error = lastError(db, message);
        return isDamage(code) ? Outcome::Damaged : Outcome::Failed;
    }
    sqlite3_stmt* check = nullptr;
    bool healthy = false;
    if (sqlite3_prepare_v2(db, "PRAGMA quick_check", -1, &check, nullptr) == SQLITE_OK
        && sqlite3_step(check) == SQLITE_ROW) {
        const auto* text = reinterpret_cast<const char*>(sqlite3_column_text(check, 0));
        healthy = text && std::string(text) == "ok";
        if (!healthy)
            error = text ? text : "check failed";
    } else {
        int code = sqlite3_extended_errcode(db);
        error = lastError(db, nullptr);
        sqlite3_finalize(check);
        return isDamage(code) ? Outcome::Damaged : Outcome::Failed;
    }
    sqlite3_finalize(check);
    return healthy ? Outcome::Open : Outcome::Damaged;
}

std::string damagedName(const std::string& file)
{
    std::time_t now = std::time(nullptr);
    std::tm utc{};
    gmtime_r(&now, &utc);
    char stamp[32];
    std::strftime(stamp, sizeof stamp, "%Y%m%dT%H%M%S", &utc);
    std::string aside = file + ".damaged-" + stamp;
    std::error_code ignored;
    for (int n = 2; std::filesystem::exists(aside, ignored); ++n)
        aside = file + ".damaged-" + stamp + "-" + std::to_string(n);
    return aside;
}

// The -wal of a damaged file must not be replayed into the new one, so it
// goes with it.
std::string setAside(const std::string& file)
{
    std::string aside = damagedName(file);
    for (const char* suffix : {"", "-wal", "-shm"}) {
        std::error_code failed;
        if (!std::filesystem::exists(file + suffix, failed))
            continue;
        std::filesystem::rename(file + suffix, aside + suffix, failed);
        if (failed)
            std::filesystem::remove(file + suffix, failed);
    }
    return aside;
}

} // namespace

std::string ActivityDatabase::defaultFile()
{
    const char* xdg = std::getenv("XDG_STATE_HOME");
    std::string base = (xdg && *xdg == '/') ? std::string(xdg) : Paths::homeDirectory() + "/.local/state";
    return base + "/zandrel/activity.sqlite";
}

std::unique_ptr<ActivityDatabase> ActivityDatabase::open(
    const std::string& schema, std::string* error, const std::string& file)
{
    std::lock_guard guard(openLock);
    std::error_code ignored;
    std::filesystem::create_directories(std::filesystem::path(file).parent_path(), ignored);
    std::string why;
    for (int attempt = 0; attempt < 2; ++attempt) {
        sqlite3* db = nullptr;
        Outcome outcome = tryOpen(file, schema, db, why);
        if (outcome == Outcome::Open)
            return std::unique_ptr<ActivityDatabase>(new ActivityDatabase(db, file));
        if (outcome == Outcome::Failed || attempt > 0) {
            sqlite3_close(db);
            break;
        }
        // Moved while still open: closing the last connection would
        // otherwise tidy the -wal away before it could be set aside.
        std::string aside = setAside(file);
        sqlite3_close(db);
        SystemLog::write("Activity journal " + file + " was damaged (" + why + "); it was set aside as " + aside
            + " and a new one started.");
    }
    if (error)
        *error = why;
    return nullptr;
}

ActivityDatabase::ActivityDatabase(sqlite3* db, std::string file) : m_db(db), m_file(std::move(file)) { }

ActivityDatabase::~ActivityDatabase() { sqlite3_close(m_db); }

bool ActivityDatabase::exec(const std::string& sql, std::string* error) const
{
    char* message = nullptr;
    if (sqlite3_exec(m_db, sql.c_str(), nullptr, nullptr, &message) == SQLITE_OK)
        return true;
    std::string why = lastError(m_db, message);
    if (error)
        *error = why;
    return false;
}
