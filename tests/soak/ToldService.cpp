/// A service that writes a line when it is told to, and nginx's stop command, which tells it.

#include "tests/soak/Order.h"

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <sys/prctl.h>
#include <unistd.h>

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
            std::sscanf(words, "%d %d", &order.service, &order.pause);
            giveOrder(order);
        }
        return 0;
    }
    prctl(PR_SET_PDEATHSIG, SIGKILL); // a launcher that crashed leaves no service behind
    sigset_t orders;
    sigemptyset(&orders);
    sigaddset(&orders, orderSignal);
    sigprocmask(SIG_BLOCK, &orders, nullptr);
    const pid_t self = getpid();
    [[maybe_unused]] ssize_t count = write(reportsGiven, &self, sizeof(self));
    siginfo_t order{};
    while (sigwaitinfo(&orders, &order) == orderSignal) {
        waitBusily(std::chrono::microseconds(order.si_value.sival_int));
        count = write(STDOUT_FILENO, "a row\n", 6);
    }
}
