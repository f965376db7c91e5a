#pragma once

#include <QByteArray>
#include <QFile>
#include <QString>
#include <QTemporaryFile>

#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <functional>
#include <sys/prctl.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

/// How a process ended, and what it wrote.
struct End
{
    QByteArray output;
    int status = 0; ///< as from waitpid(2)

    QString text() const
    {
        return WIFSIGNALED(status) ? QString("signal %1").arg(WTERMSIG(status))
                                   : QString("status %1").arg(WEXITSTATUS(status));
    }
};

/// Runs @p scenario in a fork of this process, which has only the calling thread, and waits for its
/// end. Its standard output and error are a file, as when the launcher's output is sent into one,
/// and it ends in exit().
inline End runApart(const std::function<void()> &scenario)
{
    QTemporaryFile file;
    if (!file.open()) {
        qFatal("cannot make a file for the output");
    }
    const QByteArray name = QFile::encodeName(file.fileName());
    std::fflush(stdout);
    const pid_t process = fork();
    if (process == 0) {
        prctl(PR_SET_PDEATHSIG, SIGKILL); // nothing outlives the test
        if (std::freopen(name.constData(), "a", stdout) == nullptr) {
            _exit(99);
        }
        dup2(STDOUT_FILENO, STDERR_FILENO);
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
    End end;
    waitpid(process, &end.status, 0);
    end.output = file.readAll();
    return end;
}
