/// A service that writes a line when it is told to, and nginx's stop command, which tells it.

#include "tests/soak/Order.h"

#include <chrono>
#include <cstdio>
#include <cstdlib>

namespace {

void waitBusily(std::chrono::microseconds pause)
{
    const auto end = std::chrono::steady_clock::now() + pause;
    while (std::chrono::steady_clock::now() < end) {
    }
}

} // namespace

int main(int argc, char **)
{
    if (argc > 1) { // -s stop
        Order order{};
        if (const char *words = std::getenv(orderVariable)) {
            std::sscanf(words, "%d %u", &order.service, &order.pause);
            giveOrder(order);
        }
        return 0;
    }
    const pid_t self = getpid();
    [[maybe_unused]] ssize_t count = write(reportsGiven, &self, sizeof(self));
    Order order{};
    while (read(ordersTaken, &order, sizeof(order)) == sizeof(order)) {
        if (order.service == self) {
            waitBusily(std::chrono::microseconds(order.pause));
            count = write(STDOUT_FILENO, "a row\n", 6);
        }
    }
}
