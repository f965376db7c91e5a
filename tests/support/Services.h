#pragma once

#include "process/MyProgress.h"
#include "tests/support/BundleTest.h"
#include "tests/support/Eventually.h"
#include "tests/support/SystemCalls.h"

#include <QDir>

#include <cerrno>
#include <sys/wait.h>

/// The two services of the throw-away bundle: scripts that note in the log that they start, run the
/// lines of the test, and stay until they are killed or the test's process has ended.
namespace Services {

inline const QString nginx = "nginx/sbin/nginx";
inline const QString rpcServer = "rpcServer/MacOs/rpcServer";

/// A line of a script that appends @p words, double-quoted, to the log.
inline QByteArray noting(const QByteArray &words)
{
    return "echo \"" + words + "\" >>" + SystemCalls::logPath() + '\n';
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

inline void installBoth()
{
    installNginx();
    installRpcServer();
}

/// Waits for the end of every child of this process, and takes the services out of the bundle.
inline void removeAll()
{
    QVERIFY2(eventually([] { return waitpid(-1, nullptr, WNOHANG) == -1 && errno == ECHILD; }),
             "a service is left");
    for (const char *folder : {"/nginx", "/rpcServer"}) {
        QDir(BundleTest::root() + folder).removeRecursively();
    }
}

/// Members of a runner that only a subclass may name.
class OpenRunner : public MyProgress
{
public:
    using MyProgress::childPid;
    using MyProgress::launchRequested;
    using MyProgress::pipeFds;
};

inline pid_t childOf(const MyProgress &runner)
{
    return runner.*(&OpenRunner::childPid);
}

inline int pipeOf(const MyProgress &runner)
{
    return (runner.*(&OpenRunner::pipeFds))[0];
}

/// Waits until there is a runner, its service has noted its start, and its reader has nothing to
/// do: then no sink runs while the runner is deleted.
inline bool isIdle(const MyProgress *runner, const QString &start)
{
    return eventually([&] {
        return runner != nullptr && SystemCalls::lines().contains(start) &&
               SystemCalls::readersOf(pipeOf(*runner)) == 1;
    });
}

/// The lines of the log for the kill of a runner's child, and for the stop command.
inline QString killOf(const MyProgress *runner)
{
    return QString("kill %1 9").arg(childOf(*runner));
}

inline QString stopCommand()
{
    return "system cd " + BundleTest::root() + "/nginx && sbin/nginx -s stop";
}

/// The rows of a service that was started, before it writes.
inline QStringList started(const QString &program)
{
    return {BundleTest::root() + '/' + program, "File found"};
}

inline QStringList missing(const QString &program)
{
    return {BundleTest::root() + '/' + program, "File not found"};
}

} // namespace Services
