#include "tests/support/CallLog.h"

#include "tests/support/BundleTest.h"

#include <QFile>

#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <dlfcn.h>
#include <unistd.h>

namespace {

using Kill = int(pid_t, int);
using System = int(const char *);
using Read = ssize_t(int, void *, size_t);

const pid_t testProcess = getpid();

/// The C library's own function. Looked up ahead of every reader: one that is cancelled in the
/// middle of a look-up would leave the loader locked.
template <typename Function>
Function *next(const char *name)
{
    return reinterpret_cast<Function *>(dlsym(RTLD_NEXT, name));
}

Read *nextRead = nullptr;

[[gnu::constructor]] void findWhatReadersCall()
{
    nextRead = next<Read>("read");
}

// Plain numbers and built-in operations: a reader may be cancelled at any instruction, and inside a
// function that is noexcept, as those of std::atomic are, that would end the process.
constexpr int descriptors = 1024;
int reading[descriptors];

} // namespace

std::function<void(pid_t)> CallLog::atKill;
std::function<void()> CallLog::atSystem;

QString CallLog::path()
{
    static const QString file = BundleTest::root() + "/log";
    return file;
}

void CallLog::note(const QByteArray &line)
{
    QFile file(path());
    if (!file.open(QIODevice::Append) || file.write(line + '\n') == -1) {
        qFatal("cannot write the log %s", qPrintable(path()));
    }
}

QStringList CallLog::lines()
{
    QFile file(path());
    if (!file.open(QIODevice::ReadOnly)) {
        return {};
    }
    return QString::fromUtf8(file.readAll()).split('\n', Qt::SkipEmptyParts);
}

void CallLog::clear()
{
    QFile::remove(path());
    atKill = nullptr;
    atSystem = nullptr;
}

int CallLog::readersOf(int fd)
{
    return fd < descriptors ? __atomic_load_n(&reading[fd], __ATOMIC_SEQ_CST) : -1;
}

extern "C" {

/// A signal to everybody or to a group is noted and goes nowhere: no fault of the code under test
/// may bring the machine down.
int kill(pid_t process, int signal) noexcept
{
    CallLog::note("kill " + QByteArray::number(process) + ' ' + QByteArray::number(signal));
    if (CallLog::atKill) {
        CallLog::atKill(process);
    }
    if (process <= 0) {
        errno = ESRCH;
        return -1;
    }
    static const auto nextKill = next<Kill>("kill");
    return nextKill(process, signal);
}

int system(const char *command)
{
    CallLog::note(QByteArray("system ") + command);
    if (CallLog::atSystem) {
        CallLog::atSystem();
    }
    static const auto nextSystem = next<System>("system");
    return nextSystem(command);
}

ssize_t read(int fd, void *buffer, size_t size)
{
    if (nextRead == nullptr) { // a library that starts before this program does
        findWhatReadersCall();
    }
    const bool counted = fd >= 0 && fd < descriptors;
    if (counted) {
        __atomic_add_fetch(&reading[fd], 1, __ATOMIC_SEQ_CST);
    }
    const ssize_t count = nextRead(fd, buffer, size);
    if (counted) {
        __atomic_sub_fetch(&reading[fd], 1, __ATOMIC_SEQ_CST);
    }
    return count;
}

/// Asked by the leak sanitizer when a process exits. A child that could not be executed exits with
/// what it inherited, some of it held by threads that it does not have: nothing to check there.
int __lsan_is_turned_off() // NOLINT(bugprone-reserved-identifier): the sanitizer's own name
{
    return getpid() != testProcess ? 1 : 0;
}
}
