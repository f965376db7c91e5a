#pragma once

#include <QByteArray>
#include <QStringList>
#include <unistd.h>

/// Records what the code under test asks of the system, in order. The test's executable defines the
/// calls itself, notes each one and hands it on to the C library:
/// pipe fork close dup2 read usleep kill waitpid pthread_create _cancel _join _detach.
///
/// Recorded are the calls that this program's own code makes, not a library, on the thread that
/// called record() and in processes that it forks.
/// A line is the call's name and its numbers: "kill 1234 9".
namespace SystemCalls {

/// Starts a new record. While @p flag holds true, lines get " (running)" at their end.
void record(const bool &flag);
/// Adds a line of the test's own.
void note(const QByteArray &line);

/// Ends the record.
void stop();
/// The lines of this process, or of the processes that it forked.
QStringList lines();
QStringList childLines();

/// How many reads and pauses any thread of this program has begun.
int readsBegun();
int pausesBegun();
/// From now on usleep() lasts so long, whatever it is asked for.
void changePauses(useconds_t microseconds);
/// From now on pthread_cancel() throws.
void throwFromCancel();

} // namespace SystemCalls
