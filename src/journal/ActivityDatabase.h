#pragma once

#include <memory>
#include <string>

struct sqlite3;

// The activity file, $XDG_STATE_HOME/zandrel/activity.sqlite (~/.local/state
// when unset), shared by the tables that remember what phones did and which
// phones came: each owner opens its own connection and creates its own
// tables, so no owner needs to know the others' schema. A connection is used
// by one thread at a time (its owner's lock or its owner's thread).
class ActivityDatabase {
public:
    static std::string defaultFile();

    // Opens `file`, making its folder, in WAL mode, and runs `schema` (the
    // caller's CREATE TABLE IF NOT EXISTS ...). A file that is not a database
    // or fails its check is set aside beside itself as
    // NAME.damaged-YYYYMMDDTHHMMSS (with its -wal and -shm) and a new one is
    // started, with one log line saying so. Null when no file can be used at
    // all (a read-only folder, a full disk); `error` then says why.
    static std::unique_ptr<ActivityDatabase> open(
        const std::string& schema, std::string* error = nullptr, const std::string& file = defaultFile());

    ~ActivityDatabase();
    ActivityDatabase(const ActivityDatabase&) = delete;
    ActivityDatabase& operator=(const ActivityDatabase&) = delete;

    sqlite3* handle() const { return m_db; }
    const std::string& file() const { return m_file; }
    // Runs statements that return no rows; false (and `error`) on failure.
    bool exec(const std::string& sql, std::string* error = nullptr) const;

private:
    ActivityDatabase(sqlite3* db, std::string file);

    sqlite3* m_db;
    std::string m_file;
};
