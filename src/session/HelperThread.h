#pragma once

#include <condition_variable>
#include <functional>
#include <mutex>
#include <thread>

// A second pair of hands for one walk: runs the same job on a helper thread
// and on the caller's at once, and returns when both are done (or at once
// when the helper had not even started). The job shares out its work itself
// and must be safe to run twice at the same time. Owned and called by one walk's thread.
class HelperThread {
public:
    HelperThread();
    ~HelperThread();
    HelperThread(const HelperThread&) = delete;
    HelperThread& operator=(const HelperThread&) = delete;

    void runOnBoth(const std::function<void()>& job);

private:
    void loop();

    // Guards the job and the three flags.
    std::mutex m_mutex;
    std::condition_variable m_wake;
    const std::function<void()>* m_job = nullptr;
    bool m_claimed = false;
    bool m_done = false;
    bool m_stopping = false;
    std::thread m_thread;
};
