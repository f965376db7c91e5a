#pragma once

#include "tests/support/BundleTest.h"
#include "tests/support/CallLog.h"
#include "tests/support/Eventually.h"

#include <QDir>
#include <QFile>

#include <cerrno>
#include <sys/wait.h>

/// The two services of the throw-away bundle: scripts that note in the call log that they start,
/// run the lines of the test, and stay until they are killed or the test's process has ended.
namespace Services {

inline const QString nginx = "nginx/sbin/nginx";
inline const QString rpcServer = "rpcServer/MacOs/rpcServer";

/// A line of a script that appends @p words, double-quoted, to the call log.
inline QByteArray noting(const QByteArray &words)
{
    return "echo \"" + words + "\" >>" + CallLog::path().toUtf8() + '\n';
}

inline QByteArray staying()
{
    return "exec tail -f --pid=$PPID /dev/null\n";
}

/// "nginx starts", then @p started; for the stop command "nginx stops", then @p stopped.
inline void installNginx(const QByteArray &started = {}, const QByteArray &stopped = {})
{
    BundleTest::writeScript(nginx, "if [ \"$*\" = '-s stop' ]; then\n" + noting("nginx stops") +
                                       stopped + "exit\nfi\n" + noting("nginx starts") + started +
                                       staying());
}

/// "rpc starts", then @p started.
inline void installRpcServer(const QByteArray &started = {})
{
    BundleTest::writeScript(rpcServer, noting("rpc starts") + started + staying());
}

inline void removeAll()
{
    for (const char *folder : {"/nginx", "/rpcServer"}) {
        QDir(BundleTest::root() + folder).removeRecursively();
    }
}

/// Whether @p process has not ended; one that nobody waited for has ended too.
inline bool isAlive(pid_t process)
{
    QFile stat(QString("/proc/%1/stat").arg(process));
    if (!stat.open(QIODevice::ReadOnly)) {
        return false;
    }
    const QByteArray line = stat.readAll();
    return line.at(line.lastIndexOf(')') + 2) != 'Z';
}

/// Waits for the end of every child of this process.
inline bool allEnded()
{
    return eventually([] { return waitpid(-1, nullptr, WNOHANG) == -1 && errno == ECHILD; });
}

} // namespace Services
