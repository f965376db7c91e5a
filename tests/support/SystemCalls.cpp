#include "tests/support/SystemCalls.h"

#include <QFile>

#include <cerrno>
#include <csignal>
#include <dlfcn.h>
#include <fcntl.h>
#include <initializer_list>
#include <map>
#include <poll.h>
#include <pthread.h>
#include <sys/mman.h>
#include <utility>

// Where this program's own code lies, as the linker tells.
extern "C" const char __executable_start; // NOLINT(bugprone-reserved-identifier)
extern "C" const char etext;

namespace {

enum Recording { Nothing, Stops, Everything };

// Plain data and built-in operations where a reader comes by: it may be cancelled at any
// instruction, and inside a function that is noexcept, as those of std::atomic are, that would end
// the process.
constexpr int descriptors = 1024;
int reading[descriptors];
int pauses = 0;
constexpr useconds_t shortPause = 2000; // microseconds
useconds_t pauseLength = shortPause;
Recording recording = Nothing;
pid_t recordingThread = 0;

const pid_t testProcess = getpid();
int logFile = -1; ///< in memory; appended to in one write a line, so that forks and programs can
const bool *watched = nullptr;
std::map<QByteArray, std::function<void()>> actions;
std::pair<QByteArray, int> failure;

bool isOurs(const void *caller)
{
    const auto *const place = static_cast<const char *>(caller);
    return place >= &__executable_start && place < &etext;
}

bool isRecorded(const void *caller)
{
    return recording != Nothing && isOurs(caller) &&
           (gettid() == recordingThread || getpid() != testProcess);
}

/// Notes the call, and returns whether it is to be handed on; errno tells why not.
bool begin(const void *caller, const QByteArray &name, std::initializer_list<long> numbers = {},
           const QByteArray &remark = {})
{
    if (!isRecorded(caller)) {
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
    if (failure.first != name) {
        return true;
    }
    failure.first.clear();
    errno = failure.second;
    return false;
}

/// What a thread that is about to wait says of itself.
QByteArray cancellability()
{
    int state = 0;
    int type = 0;
    pthread_setcancelstate(PTHREAD_CANCEL_DISABLE, &state);
    pthread_setcanceltype(PTHREAD_CANCEL_DEFERRED, &type);
    pthread_setcanceltype(type, nullptr);
    pthread_setcancelstate(state, nullptr);
    return state != PTHREAD_CANCEL_ENABLE        ? " (held off)"
           : type == PTHREAD_CANCEL_ASYNCHRONOUS ? " (cancellable)"
                                                 : " (deferred)";
}

/// Of a call that readers make too; apart from it, for the objects here.
[[gnu::noinline]] void noteWait(const void *caller, const char *name,
                                std::initializer_list<long> numbers)
{
    begin(caller, name, numbers, cancellability());
}

/// The C library's own function. Looked up ahead of every reader: one that is cancelled in the
/// middle of a look-up would leave the loader locked.
template <typename Function>
struct Next
{
    const char *name;
    Function *function = nullptr;

    void find() { function = reinterpret_cast<Function *>(dlsym(RTLD_NEXT, name)); }

    template <typename... Arguments>
    auto operator()(Arguments... arguments)
    {
        if (function == nullptr) { // a library that starts before this program does
            find();
        }
        return function(arguments...);
    }
};

Next<int(int *)> nextPipe{"pipe"};
Next<pid_t()> nextFork{"fork"};
Next<int(int)> nextClose{"close"};
Next<int(int, int)> nextDup2{"dup2"};
Next<int(pollfd *, nfds_t, int)> nextPoll{"poll"};
Next<ssize_t(int, void *, size_t)> nextRead{"read"};
Next<int(useconds_t)> nextUsleep{"usleep"};
Next<int(pid_t, int)> nextKill{"kill"};
Next<int(const char *)> nextSystem{"system"};
Next<int(pthread_t *, const pthread_attr_t *, void *(*)(void *), void *)> nextCreate{
    "pthread_create"};
Next<int(pthread_t)> nextCancel{"pthread_cancel"};

[[gnu::constructor]] void prepare()
{
    nextPoll.find();
    nextRead.find();
    nextUsleep.find();
    logFile = memfd_create("log", MFD_CLOEXEC);
    fcntl(logFile, F_SETFL, O_APPEND);
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
    pauseLength = shortPause;
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

void SystemCalls::changePauses(useconds_t microseconds)
{
    pauseLength = microseconds;
}

int SystemCalls::pausesBegun()
{
    return __atomic_load_n(&pauses, __ATOMIC_SEQ_CST);
}

int SystemCalls::readersOf(int fd)
{
    return __atomic_load_n(&reading[fd], __ATOMIC_SEQ_CST);
}

extern "C" {

int pipe(int fds[2]) noexcept
{
    return begin(__builtin_return_address(0), "pipe") ? nextPipe(fds) : -1;
}

pid_t fork() noexcept
{
    return begin(__builtin_return_address(0), "fork") ? nextFork() : -1;
}

int close(int fd)
{
    return begin(__builtin_return_address(0), "close", {fd}) ? nextClose(fd) : -1;
}

int dup2(int from, int to) noexcept
{
    return begin(__builtin_return_address(0), "dup2", {from, to}) ? nextDup2(from, to) : -1;
}

int poll(pollfd *fds, nfds_t count, int timeout)
{
    if (!isOurs(__builtin_return_address(0))) {
        return nextPoll(fds, count, timeout);
    }
    if (isRecorded(__builtin_return_address(0))) {
        noteWait(__builtin_return_address(0), "poll", {static_cast<long>(count), timeout});
    }
    // Takes a signal that a test holds back, as if it arrived now.
    const timespec limit{timeout / 1000, timeout % 1000 * 1'000'000L};
    const sigset_t none{};
    return ppoll(fds, count, timeout < 0 ? nullptr : &limit, &none);
}

ssize_t read(int fd, void *buffer, size_t size)
{
    if (isRecorded(__builtin_return_address(0))) {
        noteWait(__builtin_return_address(0), "read", {fd, static_cast<long>(size)});
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

int usleep(useconds_t pause)
{
    if (!isOurs(__builtin_return_address(0))) {
        return nextUsleep(pause);
    }
    if (isRecorded(__builtin_return_address(0))) {
        noteWait(__builtin_return_address(0), "usleep", {static_cast<long>(pause)});
    }
    __atomic_add_fetch(&pauses, 1, __ATOMIC_SEQ_CST);
    return nextUsleep(pauseLength);
}

/// A signal to everybody or to a group is noted and goes nowhere: no fault of the code under test
/// may bring the machine down.
int kill(pid_t process, int signal) noexcept
{
    begin(__builtin_return_address(0), "kill", {process, signal});
    if (process <= 0) {
        errno = ESRCH;
        return -1;
    }
    return nextKill(process, signal);
}

int system(const char *command)
{
    begin(__builtin_return_address(0), "system", {}, QByteArray(" ") + command);
    return nextSystem(command);
}

int pthread_create(pthread_t *thread, const pthread_attr_t *attributes, void *(*entry)(void *),
                   void *argument) noexcept
{
    return begin(__builtin_return_address(0), "pthread_create", {},
                 attributes == nullptr ? "" : " with attributes")
               ? nextCreate(thread, attributes, entry, argument)
               : errno;
}

int pthread_cancel(pthread_t thread)
{
    begin(__builtin_return_address(0), "pthread_cancel");
    return nextCancel(thread);
}

/// Leaks are looked for in the test's own process: one that was forked holds copies of everything,
/// without the threads that know them.
int __lsan_is_turned_off() // NOLINT(bugprone-reserved-identifier): the sanitizer's own name
{
    return getpid() != testProcess ? 1 : 0;
}
}
