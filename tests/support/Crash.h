#pragma once

#include <QByteArray>
#include <QString>

#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <functional>
#include <sys/prctl.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

/// Runs what brings a process down in a process of its own.
namespace Crash {

/// How that process ended, and what it said before.
struct End
{
    QByteArray said;
    int status = 0; ///< as from waitpid(2)

    bool wasKilledBy(int signal) const { return WIFSIGNALED(status) && WTERMSIG(status) == signal; }
    bool exitedWith(int code) const { return WIFEXITED(status) && WEXITSTATUS(status) == code; }
    QString text() const
    {
        return WIFSIGNALED(status) ? QString("killed by signal %1").arg(WTERMSIG(status))
                                   : QString("exited with %1").arg(WEXITSTATUS(status));
    }
};

using Say = std::function<void(const QByteArray &line)>;

/// Runs @p scenario in a fork of this process, which has only the calling thread, and waits for its
/// end. It exits with 0 after the scenario's last line.
inline End inAnotherProcess(const std::function<void(const Say &say)> &scenario)
{
    int ends[2] = {-1, -1};
    if (pipe(ends) != 0) {
        qFatal("cannot make a pipe");
    }
    std::fflush(stdout);
    const pid_t process = fork();
    if (process == 0) {
        prctl(PR_SET_PDEATHSIG, SIGKILL); // nothing outlives the test
        // The sanitizers catch this one; here it ends the process as it ends the launcher.
        std::signal(SIGSEGV, SIG_DFL);
        const rlimit noCoreFile{0, 0};
        setrlimit(RLIMIT_CORE, &noCoreFile);
        scenario([&](const QByteArray &line) {
            const QByteArray bytes = line + '\n';
            if (write(ends[1], bytes.constData(), static_cast<std::size_t>(bytes.size())) == -1) {
                _exit(98);
            }
        });
        _exit(0);
    }
    close(ends[1]);
    End end;
    char byte = 0;
    while (::read(ends[0], &byte, 1) == 1) {
        end.said.append(byte);
    }
    close(ends[0]);
    waitpid(process, &end.status, 0);
    return end;
}

} // namespace Crash
