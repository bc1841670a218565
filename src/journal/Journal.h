#pragma once

#include <chrono>
#include <condition_variable>
#include <cstddef>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "journal/ActivityStore.h"
#include "journal/Change.h"

// The activity journal's writer: sessions hand it entries and go on; a
// thread of its own stores them in batches, works out the size of what was
// kept, and purges the kept items at start and hourly. A file that cannot be
// used costs one log line and the entries; never a session's time.
// Callable from any thread.
class Journal {
public:
    // The journal at ActivityDatabase::defaultFile(), shared by every
    // session; a new one when that path changes.
    static std::shared_ptr<Journal> shared();

    explicit Journal(std::string file);
    // Writes what is still pending.
    ~Journal();
    Journal(const Journal&) = delete;
    Journal& operator=(const Journal&) = delete;

    // Never waits for the disk: the entry joins the queue.
    void record(Change change);
    // Waits until every recorded entry is in the file (or dropped) and no
    // purge is under way.
    void flush();
    // Purges now and then every `period`, with the limits asked for each
    // time (the settings may change meanwhile).
    void purgeEvery(std::chrono::milliseconds period, std::function<KeepLimits()> limits);
    const std::string& file() const { return m_file; }

private:
    void writerLoop();
    void writeBatch(std::vector<Change>& batch);
    bool ensureOpen();
    void purgeIfDue(std::unique_lock<std::mutex>& guard);

    std::string m_file;
    // Guards the queue, the purge schedule and the flags; never held while
    // the disk is touched.
    std::mutex m_mutex;
    std::condition_variable m_wake;
    std::condition_variable m_written;
    std::vector<Change> m_pending;
    std::size_t m_inFlight = 0;
    bool m_stopping = false;
    // A flush is waiting: no batching delay; a purge is under way.
    bool m_hurry = false;
    bool m_purging = false;
    std::function<KeepLimits()> m_limits;
    std::chrono::milliseconds m_period{0};
    std::chrono::steady_clock::time_point m_nextPurge{};
    // Used by the writer thread alone.
    std::unique_ptr<ActivityStore> m_store;
    bool m_openTried = false;
    bool m_lossReported = false;
    std::thread m_writer;
};
