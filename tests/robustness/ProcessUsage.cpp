#include "ProcessUsage.h"

#include <filesystem>
#include <thread>

namespace {

long entries(const char* folder)
{
    long count = 0;
    for ([[maybe_unused]] const auto& entry : std::filesystem::directory_iterator(folder))
        ++count;
    return count;
}

} // namespace

ProcessUsage ProcessUsage::now()
{
    return {entries("/proc/self/task"), entries("/proc/self/fd")};
}

bool ProcessUsage::waitUntilBackTo(const ProcessUsage& baseline, std::chrono::milliseconds timeout)
{
    // A session thread is counted out just before it returns, so the task
    // list may trail the session count by a moment.
    auto deadline = std::chrono::steady_clock::now() + timeout;
    for (;;) {
        auto usage = now();
        if (usage.threads <= baseline.threads && usage.descriptors <= baseline.descriptors)
            return true;
        if (std::chrono::steady_clock::now() > deadline)
            return false;
        std::this_thread::sleep_for(std::chrono::milliseconds(20));
    }
}
