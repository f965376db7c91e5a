#pragma once

#include "process/MyProgress.h"
#include "tests/support/BundleTest.h"
#include "tests/support/Eventually.h"
#include "tests/support/SystemCalls.h"

#include <QDir>

#include <cerrno>
#include <sys/wait.h>

/// The two services of the throw-away bundle: scripts that run the lines of the test, note in the
/// log that they started, and stay until they are killed or the test's process has ended.
namespace Services {

inline const QString nginx = "nginx/sbin/nginx";
inline const QString rpcServer = "rpcServer/MacOs/rpcServer";

/// A line of a script that appends @p words, double-quoted, to the log.
inline QByteArray noting(const QByteArray &words)
{
    return "echo \"" + words + "\" >>" + SystemCalls::logPath() + '\n';
}

/// Runs @p started, then notes "nginx starts"; for the stop command notes "nginx stops", then runs
/// @p stopped.
inline void install(const QString &program, const QByteArray &started = {},
                    const QByteArray &stopped = {})
{
    BundleTest::writeScript(program, "if [ \"$*\" = '-s stop' ]; then\n" +
                                         noting("${0##*/} stops") + stopped + "exit\nfi\n" +
                                         started + noting("${0##*/} starts") +
                                         "exec tail -f --pid=$PPID /dev/null\n");
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
struct OpenRunner : MyProgress
{
    using MyProgress::childPid;
    using MyProgress::pipeFds;
};

inline pid_t childOf(const MyProgress &runner)
{
    return runner.*(&OpenRunner::childPid);
}

inline int readEndOf(const MyProgress &runner)
{
    return (runner.*(&OpenRunner::pipeFds))[0];
}

/// Waits until the program has noted its start, and the runner's reader has nothing to do: then no
/// sink runs while the runner is deleted.
inline bool isIdle(const MyProgress &runner, const QString &program)
{
    return eventually([&] {
        return SystemCalls::lines().contains(program.section('/', -1) + " starts") &&
               SystemCalls::readersOf(readEndOf(runner)) == 1;
    });
}

/// The lines of the log for the kill of a runner's child, and for the stop command.
inline QString killOf(const MyProgress &runner)
{
    return SystemCalls::killOf(childOf(runner));
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
