/// A service that writes a line when it is told to, and nginx's stop command, which tells it.

#include "tests/soak/Order.h"

#include <cstdio>
#include <cstdlib>
#include <sys/prctl.h>
#include <unistd.h>

int main(int argc, char **)
{
    if (argc > 1) { // -s stop
        pid_t service = 0;
        int pause = 0;
        const char *order = std::getenv(orderVariable);
        if (order != nullptr && std::sscanf(order, "%d %d", &service, &pause) == 2) {
            giveOrder(service, pause);
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
        waitBusily(static_cast<unsigned>(order.si_value.sival_int));
        count = write(STDOUT_FILENO, "a row\n", 6);
    }
}
