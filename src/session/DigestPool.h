#pragma once

#include <atomic>
#include <condition_variable>
#include <cstdint>
#include <deque>
#include <functional>
#include <future>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "cache/FileState.h"

class DigestCache;

// Digests of one walk's files on as many threads as there are cores. Small
// files are handed out in batches, so that one hand-off between threads
// carries many of them; a large file goes alone, so that both cores hash
// large files at once. Submitted and waited for by the walk's thread.
class DigestPool {
public:
    // A digest to come: the batch's answers, and which of them it is.
    struct Ticket {
        std::shared_future<std::vector<std::string>> batch;
        std::size_t index = 0;
    };

    DigestPool(std::shared_ptr<DigestCache> cache, const std::atomic<bool>* keepGoing, unsigned workers);
    // Drops the batches nobody has started and waits for the running ones.
    ~DigestPool();
    DigestPool(const DigestPool&) = delete;
    DigestPool& operator=(const DigestPool&) = delete;

    // A file the cache did not know.
    Ticket submit(std::string path, const FileState& state);
    // Hands out the batch being gathered; called before waiting on a ticket.
    void seal();

private:
    struct Batch {
        std::vector<std::pair<std::string, FileState>> files;
        std::int64_t bytes = 0;
        std::shared_ptr<std::promise<std::vector<std::string>>> answers;
        std::shared_future<std::vector<std::string>> future;
    };

    void work();

    std::shared_ptr<DigestCache> m_cache;
    const std::atomic<bool>* m_keepGoing;
    Batch m_open;
    // Guards the jobs and the stop flag.
    std::mutex m_mutex;
    std::condition_variable m_wake;
    std::deque<std::function<void()>> m_jobs;
    std::vector<std::thread> m_threads;
    bool m_stopping = false;
};
