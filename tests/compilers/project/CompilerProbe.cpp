// Checks what a compiler is most likely to get differently at another level: the start of a program
// with empty lists, and calls on a controller that is not there. Ends with 0 when all of it holds.
// Started with no arguments, as its own child, it prints what it was given.

#include "process/MyProgress.h"
#include "services/Connect.h"

#include <csignal>
#include <cstdint>
#include <cstdio>
#include <string>
#include <sys/wait.h>
#include <unistd.h>

namespace {

enum Ending { NullRead = 10, OtherFault, WentOn };

volatile std::sig_atomic_t insideCloseNginx = 0;

/// Ends the process with what the fault was: a read through a null pointer reaches the first page.
void onFault(int /*signal*/, siginfo_t *info, void * /*context*/)
{
    constexpr std::uintptr_t pageBytes = 4096;
    const bool first = reinterpret_cast<std::uintptr_t>(info->si_addr) < pageBytes;
    _exit(insideCloseNginx != 0 && first ? NullRead : OtherFault);
}

[[noreturn]] void stopWithNothingDeployed()
{
    struct sigaction action{};
    action.sa_sigaction = onFault;
    action.sa_flags = SA_SIGINFO;
    sigaction(SIGSEGV, &action, nullptr);
    {
        const Connect deleted;
    }
    Connect idle;
    for (int i = 0; i < 3; ++i) {
        if (!idle.closeRpc()) {
            _exit(OtherFault);
        }
    }
    insideCloseNginx = 1;
    idle.closeNginx();
    _exit(WentOn);
}

std::string endOf(void (*scenario)())
{
    const pid_t child = fork();
    if (child == 0) {
        scenario();
    }
    int status = 0;
    waitpid(child, &status, 0);
    return WIFEXITED(status) ? std::to_string(WEXITSTATUS(status)) : "a signal";
}

std::string outputOf(const char *program)
{
    MyProgress runner;
    runner.createProgress(program, "");
    std::string seen;
    for (std::string part = runner.readMsg(); !part.empty(); part = runner.readMsg()) {
        seen += part;
    }
    return seen;
}

bool expect(const char *what, const std::string &expected, const std::string &seen)
{
    std::printf("%s: expected %s, seen %s\n", what, expected.c_str(), seen.c_str());
    return seen == expected;
}

} // namespace

int main(int argc, char **argv, char **environment)
{
    // Linux 5.18 and newer put one empty string in the place of an empty list.
    const bool none = argc == 0 || (argc == 1 && *argv[0] == '\0' && argv[1] == nullptr);
    if (none || *environment == nullptr) {
        std::printf("%s arguments, %s environment", none ? "no" : "some",
                    *environment == nullptr ? "no" : "some");
        return 0;
    }
    alarm(30); // should it hang: the test's own limit is for the build
    // As when it is a file: what the child holds in its buffer is gone with the start.
    std::setvbuf(stdout, nullptr, _IOFBF, BUFSIZ);
    const bool held = expect("direct start", "no arguments, no environment", outputOf(argv[0])) &&
                      expect("stop with nothing deployed", std::to_string(NullRead),
                             endOf(stopWithNothingDeployed));
    return held ? 0 : 1;
}
