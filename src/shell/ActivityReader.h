#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include <QObject>
#include <QThread>

#include "journal/ActivityStore.h"
#include "journal/Change.h"

// What the activity window asks for: the store's filter, and the kinds to
// show (all when empty).
struct ActivityQuery {
    ChangeFilter filter;
    std::vector<Change::Kind> kinds;
};

// What it gets back. Newest first, the way a live table reads.
struct ActivityListing {
    std::vector<Change> changes;
    // Every phone in the time range, for the phone filter.
    std::vector<std::string> devices;
    // Items kept in the trash and not yet restored or purged, and their bytes.
    std::size_t keptCount = 0;
    std::int64_t keptBytes = 0;
    // Why the journal could not be read; empty when it was.
    std::string error;
};

// The activity window's door to the journal and the trash: a thread of its
// own with its own connection, so that listing, restoring and emptying
// (which may remove large folders) never hold up the window. Called on the
// GUI thread; each answer comes back there, to the receiver, as a queued
// call, and is dropped when the receiver is gone.
class ActivityReader {
public:
    ActivityReader(std::string file, QObject* receiver);
    // Waits for the work under way.
    ~ActivityReader();
    ActivityReader(const ActivityReader&) = delete;
    ActivityReader& operator=(const ActivityReader&) = delete;

    // Answers only when the journal changed since the last answer or the
    // query is another, unless `force`: the window asks every few seconds.
    void list(ActivityQuery query, bool force, std::function<void(ActivityListing)> done);
    void restore(std::vector<std::int64_t> ids, std::function<void(std::vector<RestoreResult>)> done);
    void emptyKept(std::function<void(int)> done);

private:
    // The file's identity, and size and time of it and its write-ahead log:
    // a commit changes one of them; a file set aside and started anew (a
    // damaged one) changes the identity.
    struct Stamp {
        std::uint64_t inode = 0;
        std::int64_t size = 0;
        std::int64_t timeNs = 0;
        std::int64_t walSize = 0;
        std::int64_t walTimeNs = 0;
        bool operator==(const Stamp&) const = default;
    };

    template <class Work>
    void run(Work work);
    template <class Result>
    void answer(std::function<void(Result)> done, Result result);
    ActivityStore* store(std::string& error);
    Stamp stamp() const;
    static ActivityListing read(const ActivityStore& store, const ActivityQuery& query);

    std::string m_file;
    QObject* m_receiver;
    QThread m_thread;
    // Lives on m_thread; queued calls run there.
    std::unique_ptr<QObject> m_worker;
    // The members below are used on m_thread only.
    std::unique_ptr<ActivityStore> m_store;
    std::optional<Stamp> m_lastStamp;
    std::optional<ActivityQuery> m_lastQuery;
};
