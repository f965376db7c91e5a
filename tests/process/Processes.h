#pragma once

#include <QByteArray>
#include <QFile>
#include <QTemporaryFile>
#include <QTest>

#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <functional>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

/// Waits until the condition holds. The limit is for a test that has failed, not a measure of
/// speed.
#define WAIT_UNTIL(condition) QTRY_VERIFY_WITH_TIMEOUT(condition, 60'000)

/// What the tests look up about processes, and the processes that they make for themselves.
namespace Processes {

/// /proc/PID/FILE.
inline QByteArray about(pid_t process, const char *file)
{
    QFile source(QString("/proc/%1/%2").arg(process).arg(file));
    return source.open(QIODevice::ReadOnly) ? source.readAll() : QByteArray();
}

/// The target of the link /proc/PID/FILE, or an empty text.
inline QByteArray link(pid_t process, const QByteArray &file)
{
    QByteArray target(4096, '\0');
    const QByteArray path = "/proc/" + QByteArray::number(process) + '/' + file;
    const ssize_t length =
        readlink(path.constData(), target.data(), static_cast<std::size_t>(target.size()));
    return target.left(static_cast<int>(length > 0 ? length : 0));
}

inline QByteArray descriptor(pid_t process, int fd)
{
    return link(process, "fd/" + QByteArray::number(fd));
}

/// The name of the program that the process runs, without the directory; "" when there is none.
inline QByteArray program(pid_t process)
{
    return about(process, "comm").trimmed();
}

/// R, S, D, Z ... as ps(1) shows it; ' ' when there is no such process.
inline char state(pid_t process)
{
    const QByteArray stat = about(process, "stat");
    const int name = stat.lastIndexOf(')');
    return name < 0 ? ' ' : stat.at(name + 2);
}

/// Waits for the end of this child and leaves it unreaped.
inline siginfo_t ended(pid_t process)
{
    siginfo_t info{};
    waitid(P_PID, static_cast<id_t>(process), &info, WEXITED | WNOWAIT);
    return info;
}

/// How a process of its own ended, and what it wrote.
struct Run
{
    QByteArray output;
    int status; ///< as from waitpid(2)
};

/// Runs @p scenario in a process of its own whose standard output and error are a file, as when
/// the launcher is started with its output sent into one, and which ends in exit().
inline Run runApart(const std::function<void()> &scenario)
{
    QTemporaryFile file;
    if (!file.open()) {
        qFatal("cannot make a file for the output");
    }
    const QByteArray name = QFile::encodeName(file.fileName());
    std::fflush(stdout);
    const pid_t process = fork();
    if (process == 0) {
        if (std::freopen(name.constData(), "w", stdout) == nullptr) {
            _exit(99);
        }
        dup2(STDOUT_FILENO, STDERR_FILENO);
        const rlimit noCoreFile{0, 0};
        setrlimit(RLIMIT_CORE, &noCoreFile);
        alarm(60); // seconds, for a scenario that hangs
        scenario();
        std::exit(0);
    }
    Run run{};
    waitpid(process, &run.status, 0);
    run.output = file.readAll();
    return run;
}

/// Holds a limit of this process for as long as it lives.
class Limit
{
public:
    Limit(__rlimit_resource_t limited, rlim_t value) : resource(limited)
    {
        getrlimit(resource, &before);
        const rlimit changed{value, before.rlim_max};
        setrlimit(resource, &changed);
    }
    ~Limit() { setrlimit(resource, &before); }
    Limit(const Limit &) = delete;
    Limit &operator=(const Limit &) = delete;

private:
    __rlimit_resource_t resource;
    rlimit before{};
};

/// As long as it lives, this process can make neither a process nor a thread. The kernel lets root
/// make as many as it likes, so for that time root becomes nobody.
class NoNewTasks
{
public:
    NoNewTasks() : root(geteuid() == 0), limit(RLIMIT_NPROC, 0)
    {
        constexpr uid_t nobody = 65534;
        if (root && setresuid(nobody, nobody, 0) != 0) {
            qFatal("cannot become another user");
        }
    }
    ~NoNewTasks()
    {
        if (root && setresuid(0, 0, 0) != 0) {
            qFatal("cannot become root again");
        }
    }
    NoNewTasks(const NoNewTasks &) = delete;
    NoNewTasks &operator=(const NoNewTasks &) = delete;

private:
    bool root;
    Limit limit;
};

} // namespace Processes
