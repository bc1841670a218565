#include "session/HelperThread.h"

#include <utility>

HelperThread::HelperThread() : m_thread([this] { loop(); }) {}

HelperThread::~HelperThread()
{
    {
        std::lock_guard guard(m_mutex);
        m_stopping = true;
    }
    m_wake.notify_all();
    m_thread.join();
}

void HelperThread::runOnBoth(const std::function<void()>& job)
{
    {
        std::lock_guard guard(m_mutex);
        m_job = &job;
        m_claimed = false;
        m_done = false;
    }
    m_wake.notify_all();
    job();
    // A helper that has not woken by now finds the job withdrawn: waiting
    // for it to wake would cost more than its share of the work.
    std::unique_lock guard(m_mutex);
    if (m_claimed)
        m_wake.wait(guard, [&] { return m_done; });
    m_job = nullptr;
}

void HelperThread::loop()
{
    std::unique_lock guard(m_mutex);
    for (;;) {
        m_wake.wait(guard, [&] { return m_stopping || m_job; });
        if (m_stopping)
            return;
        const auto* job = std::exchange(m_job, nullptr);
        m_claimed = true;
        guard.unlock();
        (*job)();
        guard.lock();
        m_done = true;
        m_wake.notify_all();
    }
}
