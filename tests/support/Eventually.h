#pragma once

#include <chrono>
#include <thread>

/// For a test that has failed, not a measure of speed. What is left of such a test waits less.
inline std::chrono::seconds longestWait{20};

/// Waits until @p condition holds, and returns whether it did. Runs no event loop, so what it waits
/// for happens on another thread or in another process.
template <typename Condition>
bool eventually(Condition condition)
{
    constexpr auto pause = std::chrono::milliseconds(2);
    const auto deadline = std::chrono::steady_clock::now() + longestWait;
    while (!condition()) {
        if (std::chrono::steady_clock::now() > deadline) {
            longestWait = std::chrono::seconds(2);
            return false;
        }
        std::this_thread::sleep_for(pause);
    }
    return true;
}
