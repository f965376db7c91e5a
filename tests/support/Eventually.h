#pragma once

#include <QCoreApplication>

#include <chrono>
#include <thread>

inline void sleepShortly()
{
    std::this_thread::sleep_for(std::chrono::milliseconds(2));
}

inline void handleEvents()
{
    QCoreApplication::processEvents();
    sleepShortly();
}

/// Waits until @p condition holds, and returns whether it did. What it waits for happens on another
/// thread or in another process, or @p meanwhile, in the event loop. The limit is for a test that
/// has failed, not a measure of speed; what is left of such a test waits less.
template <typename Condition>
bool eventually(Condition condition, void (*meanwhile)() = sleepShortly)
{
    static std::chrono::seconds patience{ORVANE_PATIENCE};
    const auto deadline = std::chrono::steady_clock::now() + patience;
    while (!condition()) {
        if (std::chrono::steady_clock::now() > deadline) {
            patience = std::chrono::seconds(2);
            return false;
        }
        meanwhile();
    }
    return true;
}
