#include "tests/support/SystemCalls.h"

#include <QFile>

#include <cerrno>
#include <csignal>
#include <fcntl.h>
#include <initializer_list>
#include <map>
#include <poll.h>
#include <pthread.h>
#include <sys/mman.h>
#include <utility>

namespace {

enum Recording { Nothing, Stops, Everything };

// Plain data and built-in operations where a reader comes by: it may be cancelled at any
// instruction, and inside a function that is noexcept, as those of std::atomic are, that would end
// the process.
constexpr int descriptors = 1024;
int reading[descriptors];
constexpr useconds_t shortPause = 2000; // microseconds
Recording recording = Nothing;
pid_t recordingThread = 0;

const pid_t testProcess = getpid();
int logFile = -1; ///< in memory; appended to in one write a line, so that forks and programs can
const bool *watched = nullptr;
std::map<QByteArray, std::function<void()>> actions;

/// What the next call of that name is to fail with.
struct Failure
{
    QByteArray name; ///< empty: no call is to fail
    int error = 0;
};
Failure failure;

[[gnu::constructor]] void openLog()
{
    logFile = memfd_create("log", MFD_CLOEXEC);
    fcntl(logFile, F_SETFL, O_APPEND);
}

bool isRecorded()
{
    return recording != Nothing && (gettid() == recordingThread || getpid() != testProcess);
}

/// Notes the call, and returns whether it is to be handed on; errno tells why not.
bool begin(const QByteArray &name, std::initializer_list<long> numbers = {},
           const QByteArray &remark = {})
{
    if (!isRecorded()) {
        return true;
    }
    if (recording == Everything || name == "kill" || name == "system") {
        QByteArray line = name;
        for (const long number : numbers) {
            line += ' ' + QByteArray::number(static_cast<qlonglong>(number));
        }
        SystemCalls::note(line + remark);
    }
    const auto action = actions.find(name);
    if (action != actions.end()) {
        action->second();
    }
    if (failure.name != name) {
        return true;
    }
    failure.name.clear();
    errno = failure.error;
    return false;
}

/// Notes a call that readers make too, with what the thread that is about to wait says of itself.
/// Apart from the call, for the objects here.
[[gnu::noinline]] void noteWait(const char *name, std::initializer_list<long> numbers)
{
    int state = 0;
    int type = 0;
    pthread_setcancelstate(PTHREAD_CANCEL_DISABLE, &state);
    pthread_setcanceltype(PTHREAD_CANCEL_DEFERRED, &type);
    pthread_setcanceltype(type, nullptr);
    pthread_setcancelstate(state, nullptr);
    QByteArray remark = " (deferred)";
    if (state != PTHREAD_CANCEL_ENABLE) {
        remark = " (held off)";
    } else if (type == PTHREAD_CANCEL_ASYNCHRONOUS) {
        remark = " (cancellable)";
    }
    begin(name, numbers, remark);
}

void start(Recording what, const bool *flag)
{
    if (ftruncate(logFile, 0) != 0) {
        qFatal("there is no log");
    }
    SystemCalls::stop();
    watched = flag;
    recordingThread = gettid();
    recording = what;
}

} // namespace

void SystemCalls::record(const bool &flag)
{
    start(Everything, &flag);
}

void SystemCalls::recordStops()
{
    start(Stops, nullptr);
}

void SystemCalls::stop()
{
    recording = Nothing;
    actions.clear();
    failure = {};
}

void SystemCalls::note(const QByteArray &line)
{
    const QByteArray bytes = (getpid() != testProcess ? "child " : "") + line +
                             (watched != nullptr && *watched ? " (running)\n" : "\n");
    if (write(logFile, bytes.constData(), static_cast<std::size_t>(bytes.size())) == -1) {
        qFatal("cannot write the log");
    }
}

QByteArray SystemCalls::logPath()
{
    return "/proc/" + QByteArray::number(testProcess) + "/fd/" + QByteArray::number(logFile);
}

QStringList SystemCalls::lines(bool ofChildren)
{
    QFile file(logPath());
    if (!file.open(QIODevice::ReadOnly)) {
        qFatal("cannot read the log");
    }
    QStringList found;
    for (const QString &line : QString::fromUtf8(file.readAll()).split('\n', Qt::SkipEmptyParts)) {
        if (line.startsWith("child ") == ofChildren) {
            found.append(line);
        }
    }
    return found;
}

void SystemCalls::failNext(const char *name, int error)
{
    failure = {name, error};
}

void SystemCalls::at(const char *name, std::function<void()> action)
{
    actions[name] = std::move(action);
}

int SystemCalls::readersOf(int fd)
{
    return __atomic_load_n(&reading[fd], __ATOMIC_SEQ_CST);
}

// __real_NAME is the C library's own; the linker hands the calls of this program's code to
// __wrap_NAME (--wrap).
extern "C" {

int __real_access(const char *path, int mode);
int __wrap_access(const char *path, int mode)
{
    begin("access", {mode});
    return __real_access(path, mode);
}

int __real_pipe(int fds[2]);
int __wrap_pipe(int fds[2])
{
    return begin("pipe") ? __real_pipe(fds) : -1;
}

pid_t __real_fork();
pid_t __wrap_fork()
{
    return begin("fork") ? __real_fork() : -1;
}

int __real_close(int fd);
int __wrap_close(int fd)
{
    return begin("close", {fd}) ? __real_close(fd) : -1;
}

/// Takes a signal that a test holds back, as if it arrived now.
int __wrap_poll(pollfd *fds, nfds_t count, int timeout)
{
    if (isRecorded()) {
        noteWait("poll", {static_cast<long>(count), timeout});
    }
    const timespec limit{timeout / 1000, timeout % 1000 * 1'000'000L};
    const sigset_t none{};
    return ppoll(fds, count, timeout < 0 ? nullptr : &limit, &none);
}

ssize_t __real_read(int fd, void *buffer, size_t size);
ssize_t __wrap_read(int fd, void *buffer, size_t size)
{
    if (isRecorded()) {
        noteWait("read", {fd, static_cast<long>(size)});
    }
    const bool counted = fd >= 0 && fd < descriptors;
    if (counted) {
        __atomic_add_fetch(&reading[fd], 1, __ATOMIC_SEQ_CST);
    }
    const ssize_t count = __real_read(fd, buffer, size);
    if (counted) {
        __atomic_sub_fetch(&reading[fd], 1, __ATOMIC_SEQ_CST);
    }
    return count;
}

int __real_usleep(useconds_t pause);
int __wrap_usleep(useconds_t pause)
{
    if (isRecorded()) {
        noteWait("usleep", {static_cast<long>(pause)});
    }
    return __real_usleep(shortPause);
}

/// A signal to everybody or to a group is noted and goes nowhere: no fault of the code under test
/// may bring the machine down.
int __real_kill(pid_t process, int signal);
int __wrap_kill(pid_t process, int signal)
{
    begin("kill", {process, signal});
    if (process <= 0) {
        errno = ESRCH;
        return -1;
    }
    return __real_kill(process, signal);
}

int __real_system(const char *command);
int __wrap_system(const char *command)
{
    begin("system", {}, QByteArray(" ") + command);
    return __real_system(command);
}

int __real_pthread_create(pthread_t *thread, const pthread_attr_t *attributes,
                          void *(*entry)(void *), void *argument);
int __wrap_pthread_create(pthread_t *thread, const pthread_attr_t *attributes,
                          void *(*entry)(void *), void *argument)
{
    return begin("pthread_create", {}, attributes == nullptr ? "" : " with attributes")
               ? __real_pthread_create(thread, attributes, entry, argument)
               : errno;
}

int __real_pthread_cancel(pthread_t thread);
int __wrap_pthread_cancel(pthread_t thread)
{
    begin("pthread_cancel");
    return __real_pthread_cancel(thread);
}

/// Leaks are looked for in the test's own process: one that was forked holds copies of everything,
/// without the threads that know them.
int __lsan_is_turned_off()
{
    return getpid() != testProcess ? 1 : 0;
}
}
