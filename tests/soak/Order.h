#pragma once

#include <csignal>
#include <sys/types.h>

// How the services of AimedStops are told when to write: by a signal, which reaches no other
// service. Its value is how many microseconds they wait before.

constexpr int orderSignal = SIGUSR1;
constexpr int reportsTaken = 202; ///< a service that awaits its orders
constexpr int reportsGiven = 203; ///< has written its process id here, which it inherits

/// What the stop command is to tell nginx: the two numbers of an order.
constexpr const char *orderVariable = "ORVANE_ORDER";

struct Order
{
    pid_t service;
    int pause; ///< microseconds until it writes
};

inline void giveOrder(const Order &order)
{
    sigval value{};
    value.sival_int = order.pause;
    sigqueue(order.service, orderSignal, value);
}
