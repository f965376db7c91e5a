#pragma once

#include <chrono>
#include <thread>

/// Waits until @p condition holds, and returns whether it did. Runs no event loop, so what it waits
/// for happens on another thread or in another process. The limit is for a test that has failed.
template <typename Condition>
bool eventually(Condition condition)
{
    constexpr auto limit = std::chrono::seconds(20);
    constexpr auto pause = std::chrono::milliseconds(2);
    const auto deadline = std::chrono::steady_clock::now() + limit;
    while (!condition()) {
        if (std::chrono::steady_clock::now() > deadline) {
            return false;
        }
        std::this_thread::sleep_for(pause);
    }
    return true;
}
