#include "tests/process/SystemCalls.h"

#include <array>
#include <atomic>
#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstring>
#include <dlfcn.h>
#include <initializer_list>
#include <pthread.h>
#include <stdexcept>
#include <string>
#include <sys/mman.h>
#include <sys/wait.h>
#include <unistd.h>

// Where this program's own code lies, as the linker tells.
extern "C" const char __executable_start; // NOLINT(bugprone-reserved-identifier)
extern "C" const char etext;

namespace {

struct Line
{
    std::array<char, 120> text;
    pid_t process;
};

/// Lies in memory that forked processes share.
struct Record
{
    std::atomic<std::size_t> count;
    std::array<Line, 200> lines;
};

Record *shared = nullptr;
std::atomic<bool> recording{false};
pid_t recordingThread = 0;
pid_t recordingProcess = 0;
const pid_t testProcess = getpid();
const bool *watched = nullptr;
bool cancelFails = false;
std::atomic<useconds_t> pauseInstead{0}; // microseconds; 0 for the one that is asked for
std::atomic<int> reads{0};
std::atomic<int> pauses{0};

bool isOurs(const void *caller)
{
    const auto *const place = static_cast<const char *>(caller);
    return place >= &__executable_start && place < &etext;
}

bool recorded(const void *caller)
{
    return recording && isOurs(caller) &&
           (gettid() == recordingThread || getpid() != recordingProcess);
}

/// Appends @p text to the line as far as there is room.
void append(Line &line, const char *text)
{
    const std::size_t used = std::strlen(line.text.data());
    std::snprintf(line.text.data() + used, line.text.size() - used, "%s", text);
}

void add(const char *name, std::initializer_list<long> numbers = {}, const char *remark = "")
{
    const std::size_t index = shared->count++;
    if (index >= shared->lines.size()) {
        return;
    }
    Line &line = shared->lines[index];
    line.process = getpid();
    line.text[0] = '\0';
    append(line, name);
    for (const long number : numbers) {
        append(line, (' ' + std::to_string(number)).c_str());
    }
    append(line, remark);
    append(line, *watched ? " (running)" : "");
}

QStringList linesOf(bool child)
{
    QStringList found;
    for (std::size_t i = 0; i < shared->count && i < shared->lines.size(); ++i) {
        const Line &line = shared->lines[i];
        if ((line.process != recordingProcess) == child) {
            found.append(QString::fromUtf8(line.text.data()));
        }
    }
    return found;
}

/// The C library's own function. Looked up once, ahead of every reader: one that is cancelled in
/// the middle of a look-up would leave the loader locked.
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
Next<ssize_t(int, void *, size_t)> nextRead{"read"};
Next<int(useconds_t)> nextUsleep{"usleep"};
Next<int(pid_t, int)> nextKill{"kill"};
Next<pid_t(pid_t, int *, int)> nextWaitpid{"waitpid"};
Next<int(pthread_t *, const pthread_attr_t *, void *(*)(void *), void *)> nextCreate{
    "pthread_create"};
Next<int(pthread_t)> nextCancel{"pthread_cancel"};
Next<int(pthread_t, void **)> nextJoin{"pthread_join"};
Next<int(pthread_t)> nextDetach{"pthread_detach"};

[[gnu::constructor]] void findWhatReadersCall()
{
    nextRead.find();
    nextUsleep.find();
}

/// What a thread that is about to wait says of itself.
const char *cancellability()
{
    int state = 0;
    int type = 0;
    pthread_setcancelstate(PTHREAD_CANCEL_DISABLE, &state);
    pthread_setcanceltype(PTHREAD_CANCEL_DEFERRED, &type);
    int changed = 0;
    pthread_setcanceltype(type, &changed);
    pthread_setcancelstate(state, &changed);
    return state == PTHREAD_CANCEL_ENABLE && type == PTHREAD_CANCEL_ASYNCHRONOUS ? " (cancellable)"
                                                                                 : "";
}

} // namespace

void SystemCalls::record(const bool &flag)
{
    if (shared == nullptr) {
        void *memory = mmap(nullptr, sizeof(Record), PROT_READ | PROT_WRITE,
                            MAP_SHARED | MAP_ANONYMOUS, -1, 0);
        shared = static_cast<Record *>(memory);
    }
    shared->count = 0;
    recordingThread = gettid();
    recordingProcess = getpid();
    watched = &flag;
    recording = true;
}

void SystemCalls::note(const QByteArray &line)
{
    if (recorded(__builtin_return_address(0))) {
        add(line.constData());
    }
}

void SystemCalls::stop()
{
    recording = false;
}

int SystemCalls::readsBegun()
{
    return reads;
}

int SystemCalls::pausesBegun()
{
    return pauses;
}

void SystemCalls::changePauses(useconds_t microseconds)
{
    pauseInstead = microseconds;
}

void SystemCalls::throwFromCancel()
{
    cancelFails = true;
}

QStringList SystemCalls::lines()
{
    return linesOf(false);
}

QStringList SystemCalls::childLines()
{
    return linesOf(true);
}

extern "C" {

int pipe(int fds[2]) noexcept
{
    if (recorded(__builtin_return_address(0))) {
        add("pipe");
    }
    return nextPipe(fds);
}

pid_t fork() noexcept
{
    if (recorded(__builtin_return_address(0))) {
        add("fork");
    }
    return nextFork();
}

int close(int fd)
{
    if (recorded(__builtin_return_address(0))) {
        add("close", {fd});
    }
    return nextClose(fd);
}

int dup2(int from, int to) noexcept
{
    if (recorded(__builtin_return_address(0))) {
        add("dup2", {from, to});
    }
    return nextDup2(from, to);
}

ssize_t read(int fd, void *buffer, size_t size)
{
    if (recorded(__builtin_return_address(0))) {
        add("read", {fd, static_cast<long>(size)}, cancellability());
    }
    reads += isOurs(__builtin_return_address(0)) ? 1 : 0;
    return nextRead(fd, buffer, size);
}

int usleep(useconds_t pause)
{
    if (recorded(__builtin_return_address(0))) {
        add("usleep", {pause}, cancellability());
    }
    pauses += isOurs(__builtin_return_address(0)) ? 1 : 0;
    return nextUsleep(pauseInstead != 0 ? pauseInstead.load() : pause);
}

/// A signal to everybody or to a group is recorded and goes nowhere: no fault of the code under
/// test may bring the machine down.
int kill(pid_t process, int signal) noexcept
{
    if (recorded(__builtin_return_address(0))) {
        add("kill", {process, signal});
    }
    if (process <= 0) {
        errno = ESRCH;
        return -1;
    }
    return nextKill(process, signal);
}

pid_t waitpid(pid_t process, int *status, int options)
{
    if (recorded(__builtin_return_address(0))) {
        add("waitpid", {process});
    }
    return nextWaitpid(process, status, options);
}

int pthread_create(pthread_t *thread, const pthread_attr_t *attributes, void *(*entry)(void *),
                   void *argument) noexcept
{
    if (recorded(__builtin_return_address(0))) {
        add("pthread_create", {}, attributes == nullptr ? "" : " with attributes");
    }
    return nextCreate(thread, attributes, entry, argument);
}

int pthread_cancel(pthread_t thread)
{
    if (recorded(__builtin_return_address(0))) {
        add("pthread_cancel");
    }
    if (cancelFails) {
        throw std::runtime_error("pthread_cancel");
    }
    return nextCancel(thread);
}

int pthread_join(pthread_t thread, void **result)
{
    if (recorded(__builtin_return_address(0))) {
        add("pthread_join");
    }
    return nextJoin(thread, result);
}

int pthread_detach(pthread_t thread) noexcept
{
    if (recorded(__builtin_return_address(0))) {
        add("pthread_detach");
    }
    return nextDetach(thread);
}

/// Leaks are looked for in the test's own process: one that was forked holds copies of everything,
/// without the threads that know them.
int __lsan_is_turned_off() // NOLINT(bugprone-reserved-identifier): the sanitizer's own name
{
    return getpid() != testProcess ? 1 : 0;
}
}
