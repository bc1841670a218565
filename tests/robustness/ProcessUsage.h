#pragma once

#include <chrono>

// Threads and open descriptors of this process, for tests that check that
// sessions give back everything they took.
struct ProcessUsage {
    long threads = 0;
    long descriptors = 0;

    static ProcessUsage now();
    // Waits until both counts are at most those of `baseline`; true if they got there.
    static bool waitUntilBackTo(const ProcessUsage& baseline, std::chrono::milliseconds timeout);
};
