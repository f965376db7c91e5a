#pragma once

#include <QByteArray>
#include <QString>
#include <QStringList>

#include <functional>
#include <sys/types.h>

/// One log, in order, of what this process asks of the system and of what its services note.
/// The test's executable defines kill(2), system(3) and read(2) itself; each call is noted and
/// handed on. A line is "kill 1234 9" or "system COMMAND"; reads are only counted. A service
/// appends its own lines to the file at path().
namespace CallLog {

/// The log file: inside the throw-away bundle of this process.
QString path();
void note(const QByteArray &line);
QStringList lines();
/// Empties the log and takes the two functions below away.
void clear();

/// Run at the call, before it is handed on.
extern std::function<void(pid_t process)> atKill;
extern std::function<void()> atSystem;

/// The threads that are inside a read of @p fd, those that were cancelled there included.
int readersOf(int fd);

} // namespace CallLog
