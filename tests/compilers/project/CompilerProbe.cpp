// Checks what a compiler is most likely to get differently at another level: the start of a program
// with empty lists, and calls on a controller that is not there. Ends with 0 when all of it holds.
// Started with no arguments, as its own child, it prints what it was given.

#include "process/MyProgress.h"
#include "services/Connect.h"

#include <csignal>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <sys/wait.h>
#include <unistd.h>

namespace {

enum Status { Returned = 0, WentOn = 10, Faulted = 11, FaultedElsewhere = 12, FaultedEarly = 13 };

volatile std::sig_atomic_t insideCloseNginx = 0;

/// Ends the process with what the fault was: a read through a null pointer reaches the first page.
void onFault(int /*signal*/, siginfo_t *info, void * /*context*/)
{
    constexpr std::uintptr_t pageBytes = 4096;
    if (insideCloseNginx == 0) {
        _exit(FaultedEarly);
    }
    _exit(reinterpret_cast<std::uintptr_t>(info->si_addr) < pageBytes ? Faulted : FaultedElsewhere);
}

/// Runs @p scenario in a child with that handler and returns the child's status.
int statusOf(void (*scenario)())
{
    const pid_t child = fork();
    if (child == 0) {
        struct sigaction action{};
        action.sa_sigaction = onFault;
        action.sa_flags = SA_SIGINFO;
        sigaction(SIGSEGV, &action, nullptr);
        scenario();
        _exit(Returned);
    }
    int status = 0;
    waitpid(child, &status, 0);
    return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
}

bool expect(const char *what, const std::string &expected, const std::string &seen)
{
    std::printf("%s: expected %s, seen %s\n", what, expected.c_str(), seen.c_str());
    return seen == expected;
}

bool directStartGivesNothing(const char *self)
{
    MyProgress runner;
    runner.createProgress(self, "");
    std::string seen;
    for (std::string part = runner.readMsg(); !part.empty(); part = runner.readMsg()) {
        seen += part;
    }
    return expect("direct start", "no arguments, no environment", seen);
}

int printWhatWasGiven(int argc, char **argv, char **environment)
{
    // Linux 5.18 and newer put one empty string in the place of an empty list.
    const bool none = argc == 0 || (argc == 1 && *argv[0] == '\0' && argv[1] == nullptr);
    std::printf("%s arguments, %s environment", none ? "no" : "some",
                *environment == nullptr ? "no" : "some");
    return 0;
}

} // namespace

int main(int argc, char **argv, char **environment)
{
    if (argc == 0 || *argv[0] == '\0' || *environment == nullptr) {
        return printWhatWasGiven(argc, argv, environment);
    }
    // As when it is a file: what the child holds in its buffer is gone with the start.
    std::setvbuf(stdout, nullptr, _IOFBF, BUFSIZ);
    bool held = directStartGivesNothing(argv[0]);
    held &=
        expect("closeRpc with no controller", std::to_string(Returned), std::to_string(statusOf([] {
                   Connect idle;
                   for (int i = 0; i < 3; ++i) {
                       if (!idle.closeRpc()) {
                           _exit(WentOn);
                       }
                   }
               })));
    held &= expect("closeNginx with no controller", std::to_string(Faulted),
                   std::to_string(statusOf([] {
                       Connect idle;
                       idle.closeRpc();
                       insideCloseNginx = 1;
                       idle.closeNginx();
                       _exit(WentOn);
                   })));
    held &= expect("deletion of an idle coordinator", std::to_string(Returned),
                   std::to_string(statusOf([] { const Connect idle; })));
    return held ? 0 : 1;
}
