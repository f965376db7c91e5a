#pragma once

#include <array>
#include <cstdint>
#include <sys/types.h>
#include <unistd.h>

// How the services of AimedStops are told when to write: by orders on descriptors that they
// inherit.

constexpr int ordersTaken = 200;  ///< the services read their orders here
constexpr int ordersGiven = 201;  ///< and others write them here
constexpr int reportsTaken = 202; ///< a service that reads its orders
constexpr int reportsGiven = 203; ///< has written its process id here

/// What the stop command is to tell nginx: the two numbers of an order.
constexpr const char *orderVariable = "ORVANE_ORDER";

struct Order
{
    pid_t service;       ///< other services leave it alone
    std::uint32_t pause; ///< microseconds until it writes
};

/// Gives the descriptors their numbers.
inline void openOrders()
{
    for (const int taken : {ordersTaken, reportsTaken}) {
        std::array<int, 2> ends{};
        if (pipe(ends.data()) != 0) {
            _exit(2);
        }
        dup2(ends[0], taken);
        dup2(ends[1], taken + 1);
        close(ends[0]);
        close(ends[1]);
    }
}

inline void giveOrder(const Order &order)
{
    [[maybe_unused]] const ssize_t count = write(ordersGiven, &order, sizeof(order));
}
