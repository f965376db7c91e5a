#pragma once

#include <QByteArray>
#include <QFile>
#include <QString>

#include <cerrno>
#include <sys/wait.h>
#include <unistd.h>

/// What the tests look up about processes.
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

/// Whether @p process has not ended; one that nobody waited for has ended too.
inline bool isAlive(pid_t process)
{
    return state(process) != ' ' && state(process) != 'Z';
}

/// Waits for the end of this child and leaves it unreaped.
inline siginfo_t ended(pid_t process)
{
    siginfo_t info{};
    waitid(P_PID, static_cast<id_t>(process), &info, WEXITED | WNOWAIT);
    return info;
}

} // namespace Processes
