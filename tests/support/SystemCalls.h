#pragma once

#include <QByteArray>
#include <QStringList>

#include <functional>
#include <unistd.h>

/// Takes the place of the C library's calls that the launcher makes (CMakeLists.txt lists them):
/// notes each in one log, in order, and hands it on. Linked into whatever has a runner, so that
/// none, however broken, can signal every process there is.
///
/// Noted are the calls on the thread that called record() and in the processes that it forks. A
/// line is the call's name and its numbers: "kill 1234 9". usleep() lasts 2 ms, whatever it is
/// asked for.
namespace SystemCalls {

/// Empties the log and notes every call from here on. While @p flag holds true, lines get
/// " (running)" at their end.
void record(const bool &flag);
/// The same, but only stops are noted: kill and system.
void recordStops();
/// Ends the record, and takes back what the functions below have set.
void stop();

/// Adds a line of the test's own. Other programs append theirs to the file at logPath().
void note(const QByteArray &line);
QByteArray logPath();
/// The lines so far, without those of the processes that this one has forked ("child ..."), or
/// these alone.
QStringList lines(bool ofChildren = false);
/// The line for the kill of a child.
inline QString killOf(pid_t child)
{
    return QString("kill %1 9").arg(child);
}

/// The next call of that name fails.
void failNext(const char *name, int error);
/// Run at each call of that name on the recording thread, before it is handed on.
void at(const char *name, std::function<void()> action);

/// The threads inside a read of @p fd, those that were cancelled there included.
int readersOf(int fd);

} // namespace SystemCalls
