#pragma once

#include <chrono>
#include <csignal>
#include <sys/types.h>

// How the services of AimedStops are told when to write: by a signal, which reaches no other
// service. Its value is how many microseconds they wait before.

constexpr int orderSignal = SIGUSR1;
constexpr int reportsTaken = 202; ///< a service that awaits its orders
constexpr int reportsGiven = 203; ///< has written its process id here, which it inherits

/// What the stop command is to give nginx: its process id and the pause.
constexpr const char *orderVariable = "ORVANE_ORDER";

inline void giveOrder(pid_t service, int pause)
{
    sigval value{};
    value.sival_int = pause;
    sigqueue(service, orderSignal, value);
}

inline void waitBusily(unsigned microseconds)
{
    const auto end = std::chrono::steady_clock::now() + std::chrono::microseconds(microseconds);
    while (std::chrono::steady_clock::now() < end) {
    }
}
