#pragma once

#include <QString>

#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <functional>
#include <sys/prctl.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

/// Runs @p scenario in a fork of this process, which has only the calling thread, and returns how
/// that ended: "status 0" after the scenario and exit(), "signal 11".
inline QString runApart(const std::function<void()> &scenario)
{
    std::fflush(stdout);
    const pid_t process = fork();
    if (process == 0) {
        prctl(PR_SET_PDEATHSIG, SIGKILL); // nothing outlives the test
        // The sanitizers and the toolkit's tests catch these; here they end the process as they end
        // the launcher.
        std::signal(SIGSEGV, SIG_DFL);
        std::signal(SIGABRT, SIG_DFL);
        const rlimit noCoreFile{0, 0};
        setrlimit(RLIMIT_CORE, &noCoreFile);
        alarm(ORVANE_PATIENCE); // for a scenario that hangs
        scenario();
        std::exit(0);
    }
    int status = 0;
    waitpid(process, &status, 0);
    return WIFSIGNALED(status) ? QString("signal %1").arg(WTERMSIG(status))
                               : QString("status %1").arg(WEXITSTATUS(status));
}
