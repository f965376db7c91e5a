#pragma once

#include "process/MyProgress.h"
#include "tests/support/SystemCalls.h"

#include <QByteArray>
#include <QList>

#include <deque>
#include <memory>
#include <mutex>
#include <new>
#include <string>
#include <unistd.h>
#include <vector>

/// What a sink was given. Outlives its runner: a reader may still be on its way out.
class Messages
{
public:
    void add(const std::string &text)
    {
        const std::lock_guard<std::mutex> lock(mutex);
        texts.append(QByteArray::fromStdString(text));
        last = pthread_self();
    }

    /// Every message so far, the empty ones included.
    QList<QByteArray> all() const
    {
        const std::lock_guard<std::mutex> lock(mutex);
        return texts;
    }
    /// What was read, in one piece.
    QByteArray joined() const { return all().join(); }
    int count() const { return all().size(); }
    /// The thread that gave the last message.
    pthread_t sender() const
    {
        const std::lock_guard<std::mutex> lock(mutex);
        return last;
    }

    /// A new record that is never deleted.
    static Messages &make()
    {
        static auto &kept = *new std::deque<Messages>;
        return kept.emplace_back();
    }

private:
    mutable std::mutex mutex;
    QList<QByteArray> texts;
    pthread_t last{};
};

/// A runner that keeps its messages, with every field in the open.
class Recorder : public MyProgress
{
public:
    using MyProgress::basePath;
    using MyProgress::childPid;
    using MyProgress::launchRequested;
    using MyProgress::pipeFds;
    using MyProgress::readerResult;
    using MyProgress::readerThread;
    using MyProgress::reserved;
    using MyProgress::running;

    void insertMsg(std::string msg) override { messages.add(msg); }

    Messages &messages = Messages::make();

    /// Nothing joins a reader, so one may touch its runner after the deletion: the memory stays.
    /// Not inline, or the compiler misses the other half of the pair.
    [[gnu::noinline]] static void *operator new(std::size_t size) { return ::operator new(size); }
    [[gnu::noinline]] static void operator delete(void *memory)
    {
        static auto &kept = *new std::vector<void *>;
        kept.push_back(memory);
    }
};

/// A runner that notes each message among the system calls as well.
struct Noting : Recorder
{
    void insertMsg(std::string msg) override
    {
        SystemCalls::note("sink " + QByteArray::fromStdString(msg));
        Recorder::insertMsg(msg);
    }
};

/// A runner that reads a pipe of the test's own; no child writes into it.
class FedRecorder : public Recorder
{
public:
    /// Above every process id that Linux gives (PID_MAX_LIMIT).
    static constexpr std::int32_t noProcess = 0x7fffffff;

    FedRecorder()
    {
        createPipe();
        childPid = noProcess;
        running = true;
    }

    void feed(const QByteArray &bytes) const
    {
        if (write(pipeFds[1], bytes.constData(), static_cast<std::size_t>(bytes.size())) !=
            bytes.size()) {
            qFatal("the pipe takes no more");
        }
    }
    void endOfFile() const { close(pipeFds[1]); }
};

/// A shell command whose process, tail(1), stays until it is killed or the test has ended.
constexpr const char *sleeping = "exec tail --follow --pid=$PPID /dev/null";

/// Everything that the child writes until it ends, taken without the reader.
inline QByteArray wholeOutput(MyProgress &runner)
{
    std::string output;
    for (std::string part = runner.readMsg(); !part.empty(); part = runner.readMsg()) {
        output += part;
    }
    return QByteArray::fromStdString(output);
}

/// Waits for the end of the thread and returns what it ended with.
inline void *endOf(pthread_t thread)
{
    void *result = nullptr;
    return pthread_join(thread, &result) == 0 ? result : nullptr;
}

using SystemCalls::killOf;

/// What a runner asks of the system when it is deleted.
template <typename Runner>
QStringList callsOfDeletion(std::unique_ptr<Runner> &runner)
{
    static const bool never = false;
    SystemCalls::record(never);
    runner.reset();
    SystemCalls::stop();
    return SystemCalls::lines();
}
