#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <variant>
#include <vector>

#include "journal/ActivityDatabase.h"
#include "journal/Change.h"

// How long and how much the trash may hold of what phones removed.
struct KeepLimits {
    int days = 30;
    // Share of each volume that kept items may use.
    int percent = 10;
};

struct RestoreResult {
    std::int64_t id = 0;
    std::string path;
    // Where the item went; nothing when it could not be restored.
    std::optional<std::string> restoredTo;
    std::string why;
};

// The journal's tables and everything read or done with them: what the
// writer thread stores, what the terminal and the desktop list, restore and
// purge. Works on its own connection, so the daemon's subcommands and the
// desktop app use it while a server writes. One thread at a time.
class ActivityStore {
public:
    // Entries and kept items older than this go, whatever keepDays says.
    static constexpr int kRetentionDays = 90;

    static std::unique_ptr<ActivityStore> open(
        std::string* error = nullptr, const std::string& file = ActivityDatabase::defaultFile());
    explicit ActivityStore(std::unique_ptr<ActivityDatabase> db);
    ~ActivityStore();
    ActivityStore(const ActivityStore&) = delete;
    ActivityStore& operator=(const ActivityStore&) = delete;

    // Stores the entries in one transaction, giving each its id.
    bool insert(std::vector<Change>& batch, std::string* error = nullptr);

    // Oldest first.
    std::vector<Change> list(const ChangeFilter& filter) const;
    std::optional<Change> find(std::int64_t id) const;
    // Puts a kept item back (see Trash::putBack); an id that has nothing
    // kept any more says so.
    RestoreResult restore(std::int64_t id);
    // Bytes kept in the trash by this program and not yet purged.
    std::int64_t keptBytes() const;
    // Removes every item this program kept; returns how many.
    int emptyKept();
    // Purges kept items older than the days, then the oldest of each volume
    // until kept items use no more than the share; drops entries older than
    // kRetentionDays and info files left without their item. Returns how
    // many kept items went.
    int purge(const KeepLimits& limits, std::int64_t nowMs);

private:
    using Value = std::variant<std::int64_t, std::string>;
    std::vector<Change> query(const std::string& where, const std::vector<Value>& values) const;
    // Moves a kept entry to `state`; false when another process got there first.
    bool claim(std::int64_t id, Change::State state, const std::string& target = {});
    bool purgeOne(const Change& change);

    std::unique_ptr<ActivityDatabase> m_db;
};
