#include "process/MyProgress.h"

#include "process/ExecutablePath.h"

#include <cerrno>
#include <csignal>
#include <cstddef>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <poll.h>
#include <regex>
#include <unistd.h>
#include <utility>

namespace {

constexpr std::size_t readChunkBytes = 512;
constexpr useconds_t readPause = 200'000; // microseconds

using Chunk = std::array<char, readChunkBytes>;

/// Makes a pipe into @p fds and reports how that went on standard output.
bool openPipe(std::array<std::int32_t, 2> &fds)
{
    if (pipe(fds.data()) == -1) {
        std::puts("Pipe created fail");
        return false;
    }
    std::puts("Pipe ready");
    return true;
}

/// Fills @p chunk with one read of @p fd. End of file and errors leave it empty.
void readChunk(std::int32_t fd, Chunk &chunk)
{
    chunk.fill('\0');
    [[maybe_unused]] const ssize_t count = read(fd, chunk.data(), chunk.size());
}

/// The text up to the first zero byte; a full chunk has none and ends with the buffer.
std::string chunkText(const Chunk &chunk)
{
    return {chunk.data(), strnlen(chunk.data(), chunk.size())};
}

/// From here on a cancellation ends the calling thread at any instruction.
void allowCancellation()
{
    int previous = 0;
    // Asynchronous on purpose: a stop neither waits for the reader nor asks where it is.
    // NOLINTNEXTLINE(cert-pos47-c,concurrency-thread-canceltype-asynchronous)
    pthread_setcanceltype(PTHREAD_CANCEL_ASYNCHRONOUS, &previous);
    pthread_setcancelstate(PTHREAD_CANCEL_ENABLE, &previous);
}

/// From here on a cancellation waits; one that came before has ended the calling thread. In glibc
/// it comes as a signal, whose handler asks for the type only: one that is on its way would still
/// strike behind a change of the state (seen with 2.36: in the allocator, which then stays locked).
/// At the end of a cancellation point, which poll() is, glibc waits for such a signal.
void holdOffCancellation()
{
    int previous = 0;
    pthread_setcanceltype(PTHREAD_CANCEL_DEFERRED, &previous);
    poll(nullptr, 0, 0);
    pthread_testcancel();
    pthread_setcancelstate(PTHREAD_CANCEL_DISABLE, &previous);
}

/// Hands one chunk to the sink. Kept out of the reader's own frame: a cancelled thread unwinds
/// from any instruction, and a frame with objects to destroy has instructions that the C++ runtime
/// does not expect an unwind from, which ends in terminate.
[[gnu::noinline]] void deliver(MyProgress &runner, const Chunk &chunk)
{
    runner.insertMsg(chunkText(chunk));
}

/// Cancels @p thread. glibc reads through whatever handle it is given; the null handle of a runner
/// that never had a reader is answered here as other platforms' libraries answer it.
int cancelThread(pthread_t thread)
{
    return thread == pthread_t{} ? ESRCH : pthread_cancel(thread);
}

} // namespace

MyProgress::MyProgress() // NOLINT(cppcoreguidelines-pro-type-member-init): no pipe, no descriptors
{
    makeBasePath();
}

MyProgress::~MyProgress()
{
    if (running) {
        deleteProgress();
    }
}

std::string MyProgress::GetExeDir()
{
    std::uint32_t size = 0;
    executablePath(nullptr, &size);
    const auto path = std::make_unique<char[]>(std::size_t{size} + 1);
    path[size] = '\0';
    executablePath(path.get(), &size);
    *std::strrchr(path.get(), '/') = '\0';
    return path.get();
}

void MyProgress::makeBasePath()
{
    const std::string directory = GetExeDir();
    // The unescaped dot and the missing end are kept: orvane_app and orvane.apple count as well.
    const std::regex bundle("^.*(/orvane.app)");
    std::smatch match;
    basePath = std::regex_search(directory, match, bundle) ? match.str() : std::string();
}

void MyProgress::insertMsg(std::string msg)
{
    std::printf("%s", msg.c_str());
}

void MyProgress::makeProgress(std::string path, std::string command)
{
    if (access(path.c_str(), F_OK) != 0) {
        insertMsg("File not found");
        return;
    }
    insertMsg("File found");
    createProgress(std::move(path), std::move(command));
}

bool MyProgress::createPipe()
{
    return openPipe(pipeFds);
}

void MyProgress::createProgress(std::string path, std::string command)
{
    running = false;
    if (!openPipe(pipeFds)) {
        return;
    }

    childPid = fork();
    if (childPid == -1) {
        return;
    }
    if (childPid == 0) {
        runChild(path, command);
    }

    std::printf("pid:%d\n", childPid);
    running = true;
    std::puts("Main progress ready");
    close(pipeFds[1]);
    if (launchRequested && childPid >= 1) {
        startReader();
    }
}

/// The child's side of the fork; does not return. Only the pipe's read end is closed: the child
/// keeps every other descriptor of the launcher.
void MyProgress::runChild(const std::string &path, const std::string &command)
{
    close(pipeFds[0]);
    dup2(pipeFds[1], STDOUT_FILENO);
    dup2(pipeFds[1], STDERR_FILENO);
    const char *failure = nullptr;
    if (command.empty()) {
        // Neither arguments nor environment, not even a program name. glibc's execle() cannot say
        // that: it counts its first argument before it looks for the end of the list, and then
        // takes the environment from behind the end. Linux 5.18 and newer hand the program one
        // empty string as argument 0.
        const std::array<char *, 1> noArguments{nullptr};
        execve(path.c_str(), noArguments.data(), nullptr);
        failure = "child progress loaded fail";
    } else {
        execl("/bin/bash", "bash", "-c", command.c_str(), nullptr);
        failure = "Child progress loaded fail";
    }
    // Only a child that exits may write this line. Printed before the exec, it would go into the
    // pipe where standard output is not buffered, or by line only, or its buffer is nearly full.
    std::puts("Child progress ready");
    std::puts(failure);
    // What is buffered, the launcher's unflushed lines among it, goes into the pipe. The toolkit's
    // exit handlers would wait for threads that a forked child lacks (QDBusConnection's, with Qt
    // 5.15): the handler that is registered last runs first and leaves the others out.
    std::atexit([] {
        std::fflush(nullptr);
        _exit(0);
    });
    std::exit(0); // NOLINT(concurrency-mt-unsafe): a forked child has one thread
}

void MyProgress::launchRequest()
{
    launchRequested = true;
    if (running && childPid > 0) {
        startReader();
    }
}

void MyProgress::launch()
{
    if (childPid > 0) {
        startReader();
    }
}

void MyProgress::startReader()
{
    // POSIX leaves the handle undefined on failure; the runner keeps the one that it had.
    pthread_t created{};
    readerResult = pthread_create(&created, nullptr, autoUpdate, this);
    if (readerResult == 0) {
        readerThread = created;
    }
}

std::string MyProgress::readMsg()
{
    Chunk chunk;
    readChunk(pipeFds[0], chunk);
    return chunkText(chunk);
}

void *MyProgress::autoUpdate(void *self)
{
    allowCancellation();
    auto *runner = static_cast<MyProgress *>(self);
    for (;;) {
        // A thread that returns frees its memory: not to be cut off in the middle either.
        holdOffCancellation();
        if (!runner->running) {
            return self;
        }
        allowCancellation();
        Chunk chunk;
        readChunk(runner->pipeFds[0], chunk);
        // A sink cut off in the middle leaves the toolkit's lists broken, and the unwind through
        // the toolkit's code ends the process: a cancellation waits until the sink has returned.
        holdOffCancellation();
        deliver(*runner, chunk);
        allowCancellation();
        usleep(readPause);
    }
}

bool MyProgress::deleteProgress()
{
    running = false;
    kill(childPid, SIGKILL);
    cancelThread(readerThread);
    insertMsg("Progress stopped");
    return true;
}
