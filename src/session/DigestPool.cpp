#include "session/DigestPool.h"

#include <exception>
#include <utility>

#include "cache/DigestCache.h"

namespace {

// A file up to this size joins a batch; a batch goes out at this many files
// or bytes.
constexpr std::int64_t kSmallFile = 256 * 1024;
constexpr std::size_t kBatchFiles = 32;
constexpr std::int64_t kBatchBytes = 2 * 1024 * 1024;

} // namespace

DigestPool::DigestPool(std::shared_ptr<DigestCache> cache, const std::atomic<bool>* keepGoing, unsigned workers)
    : m_cache(std::move(cache)), m_keepGoing(keepGoing)
{
    for (unsigned i = 0; i < workers; ++i)
        m_threads.emplace_back([this] { work(); });
}

DigestPool::~DigestPool()
{
    {
        std::lock_guard guard(m_mutex);
        m_stopping = true;
        m_jobs.clear();
    }
    m_wake.notify_all();
    for (auto& t : m_threads)
        t.join();
}

DigestPool::Ticket DigestPool::submit(std::string path, const FileState& state)
{
    if (state.size > kSmallFile)
        seal(); // the small files before it are not held back behind it
    if (!m_open.answers) {
        m_open.answers = std::make_shared<std::promise<std::vector<std::string>>>();
        m_open.future = m_open.answers->get_future().share();
    }
    Ticket ticket{m_open.future, m_open.files.size()};
    m_open.bytes += state.size;
    m_open.files.emplace_back(std::move(path), state);
    if (state.size > kSmallFile || m_open.files.size() >= kBatchFiles || m_open.bytes >= kBatchBytes)
        seal();
    return ticket;
}

void DigestPool::seal()
{
    if (m_open.files.empty())
        return;
    auto job = [cache = m_cache, keepGoing = m_keepGoing, batch = std::exchange(m_open, Batch())] {
        try {
            std::vector<std::string> digests;
            digests.reserve(batch.files.size());
            for (const auto& [path, state] : batch.files)
                digests.push_back(cache->readAndKeep(path, state, keepGoing));
            batch.answers->set_value(std::move(digests));
        } catch (...) {
            batch.answers->set_exception(std::current_exception());
        }
    };
    {
        std::lock_guard guard(m_mutex);
        m_jobs.emplace_back(std::move(job));
    }
    m_wake.notify_one();
}

void DigestPool::work()
{
    std::unique_lock guard(m_mutex);
    for (;;) {
        m_wake.wait(guard, [&] { return m_stopping || !m_jobs.empty(); });
        if (m_jobs.empty())
            return;
        auto job = std::move(m_jobs.front());
        m_jobs.pop_front();
        guard.unlock();
        job();
        guard.lock();
    }
}
