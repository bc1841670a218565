#pragma once

#include <chrono>
#include <thread>

// Polls `done` until it holds or `limit` has passed; true when it held.
template <typename Condition>
bool eventually(Condition done, std::chrono::milliseconds limit = std::chrono::seconds(10))
{
    for (auto deadline = std::chrono::steady_clock::now() + limit; !done();) {
        if (std::chrono::steady_clock::now() > deadline)
            return false;
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
    return true;
}
