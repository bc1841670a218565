#include "journal/Journal.h"

#include "journal/Trash.h"
#include "log/SystemLog.h"

namespace {

constexpr std::size_t kBatch = 500;
// Past this many waiting entries (a disk that stopped answering), new ones
// are dropped rather than held in memory without end.
constexpr std::size_t kMaxPending = 200000;
constexpr auto kWriteDelay = std::chrono::milliseconds(100);

std::int64_t nowMs()
{
    return std::chrono::duration_cast<std::chrono::milliseconds>(
        std::chrono::system_clock::now().time_since_epoch())
        .count();
}

} // namespace

std::shared_ptr<Journal> Journal::shared()
{
    static std::mutex lock;
    static std::shared_ptr<Journal> journal;
    std::string file = ActivityDatabase::defaultFile();
    std::lock_guard guard(lock);
    if (!journal || journal->file() != file)
        journal = std::make_shared<Journal>(file);
    return journal;
}

Journal::Journal(std::string file) : m_file(std::move(file))
{
    m_writer = std::thread([this] { writerLoop(); });
}

Journal::~Journal()
{
    {
        std::lock_guard guard(m_mutex);
        m_stopping = true;
    }
    m_wake.notify_all();
    m_writer.join();
}

void Journal::record(Change change)
{
    if (change.at == 0)
        change.at = nowMs();
    {
        std::lock_guard guard(m_mutex);
        if (m_pending.size() >= kMaxPending)
            return;
        m_pending.push_back(std::move(change));
    }
    m_wake.notify_all();
}

void Journal::flush()
{
    std::unique_lock guard(m_mutex);
    m_hurry = true;
    m_wake.notify_all();
    m_written.wait(guard, [&] { return m_pending.empty() && m_inFlight == 0 && !m_purging; });
}

void Journal::purgeEvery(std::chrono::milliseconds period, std::function<KeepLimits()> limits)
{
    {
        std::lock_guard guard(m_mutex);
        m_limits = std::move(limits);
        m_period = period;
        m_nextPurge = std::chrono::steady_clock::now();
    }
    m_wake.notify_all();
}

void Journal::writerLoop()
{
    std::unique_lock guard(m_mutex);
    for (;;) {
        auto due = [&] { return m_limits && std::chrono::steady_clock::now() >= m_nextPurge; };
        auto ready = [&] { return m_stopping || !m_pending.empty() || due(); };
        if (m_limits)
            m_wake.wait_until(guard, m_nextPurge, ready);
        else
            m_wake.wait(guard, ready);
        if (!m_stopping && !m_pending.empty() && m_pending.size() < kBatch)
            m_wake.wait_for(guard, kWriteDelay, [&] { return m_stopping || m_hurry || m_pending.size() >= kBatch; });
        m_hurry = false;
        if (!m_pending.empty()) {
            std::vector<Change> batch;
            batch.swap(m_pending);
            m_inFlight = batch.size();
            guard.unlock();
            writeBatch(batch);
            guard.lock();
            m_inFlight = 0;
            m_written.notify_all();
        }
        purgeIfDue(guard);
        if (m_stopping && m_pending.empty())
            return;
    }
}

// Called with the guard held; lets it go while the disk is touched.
void Journal::purgeIfDue(std::unique_lock<std::mutex>& guard)
{
    if (!m_limits || m_stopping || std::chrono::steady_clock::now() < m_nextPurge)
        return;
    m_nextPurge = std::chrono::steady_clock::now() + m_period;
    auto limits = m_limits;
    m_purging = true;
    guard.unlock();
    if (ensureOpen())
        m_store->purge(limits(), nowMs());
    guard.lock();
    m_purging = false;
    m_written.notify_all();
}

bool Journal::ensureOpen()
{
    if (m_store || m_openTried)
        return m_store != nullptr;
    m_openTried = true;
    std::string error;
    m_store = ActivityStore::open(&error, m_file);
    if (!m_store)
        SystemLog::write("Activity journal " + m_file + " cannot be used (" + error + "); changes are not recorded.");
    return m_store != nullptr;
}

void Journal::writeBatch(std::vector<Change>& batch)
{
    if (!ensureOpen())
        return;
    // Sizes of kept folders are counted here, off the session's path.
    for (auto& change : batch)
        if (change.state == Change::State::Kept && change.keptSize < 0)
            change.keptSize = Trash::sizeOf(change.keptAs);
    for (auto& change : batch)
        if (change.kind == Change::Kind::DeletedFolder && change.size < 0)
            change.size = change.keptSize;
    std::string error;
    // Said once: a full disk would otherwise fill the log as well.
    if (!m_store->insert(batch, &error) && !m_lossReported) {
        m_lossReported = true;
        SystemLog::write("Activity journal " + m_file + ": entries lost (" + error + ").");
    }
}
