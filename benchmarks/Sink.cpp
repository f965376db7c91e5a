// One message into a list of N rows, on a thread of its own as the readers are: the launcher's sink
// against the same list and model operations written bare, and the memory that each message leaves
// behind.
//
// No model is freed, as in the launcher: the memory that a message takes is new memory, and its
// first touch is part of the cost. The list goes back to N rows before each message.

#include "benchmarks/Clock.h"
#include "services/RpcServer.h"
#include "ui/RpcQListView.h"

#include <QAbstractEventDispatcher>
#include <QApplication>
#include <QStringListModel>
#include <QVBoxLayout>
#include <QWidget>

#include <algorithm>
#include <benchmark/benchmark.h>
#include <fstream>
#include <semaphore.h>
#include <string>
#include <thread>
#include <vector>

namespace {

constexpr char line[] = "127.0.0.1 - - [21/Nov/2025:00:25:10 +0000] \"GET / HTTP/1.1\" 200 612\n";

QStringList makeRows(int count)
{
    QStringList rows;
    for (int row = 0; row < count; ++row) {
        rows.append(QString::number(row) + ' ' + line);
    }
    return rows;
}

std::int64_t residentBytes()
{
    std::ifstream file("/proc/self/smaps_rollup");
    for (std::string word; file >> word;) {
        std::int64_t kilobytes = 0;
        if (word == "Rss:" && file >> kilobytes) {
            return kilobytes * 1024;
        }
    }
    return -1;
}

class LauncherSink : public RpcServer
{
public:
    using View = RpcQListView;

    explicit LauncherSink(View *shownIn) { view = shownIn; }
    void restore(const QStringList &rows) { messages = rows; }
};

class BareSink
{
public:
    using View = QListView;

    explicit BareSink(View *shownIn) : view(shownIn) {}
    void restore(const QStringList &rows) { messages = rows; }
    void insertMsg(const std::string &msg)
    {
        messages.append(QString::fromStdString(msg));
        view->setModel(new QStringListModel(messages));
        view->update();
    }

private:
    View *view;
    QStringList messages;
};

class PaintCounter : public QObject
{
public:
    int count = 0;

protected:
    bool eventFilter(QObject *, QEvent *event) override
    {
        count += event->type() == QEvent::Paint ? 1 : 0;
        return false;
    }
};

/// A thread that inserts one message whenever it is told to, and says how long the insertion took.
/// Like the reader it was not started by the toolkit.
template <typename Sink>
class Inserter
{
public:
    Inserter(Sink &target, const QStringList &startRows) : sink(target), rows(startRows)
    {
        sem_init(&go, 0, 0);
        sem_init(&done, 0, 0);
        thread = std::thread([this] { run(); });
    }
    ~Inserter()
    {
        stop = true;
        sem_post(&go);
        thread.join();
    }
    Inserter(const Inserter &) = delete;
    Inserter &operator=(const Inserter &) = delete;

    std::int64_t insert()
    {
        sem_post(&go);
        sem_wait(&done);
        return elapsed;
    }

private:
    void run()
    {
        for (;;) {
            sem_wait(&go);
            if (stop) {
                return;
            }
            sink.restore(rows);
            const std::int64_t before = nanoseconds();
            sink.insertMsg(line);
            elapsed = nanoseconds() - before;
            sem_post(&done);
        }
    }

    Sink &sink;
    const QStringList &rows;
    sem_t go{};
    sem_t done{};
    bool stop = false;
    std::int64_t elapsed = 0;
    std::thread thread;
};

/// Lets the window draw what is due, and says how long that took. More than one turn: the painting
/// of the list begins with its layout, which asks for the painting once more.
std::int64_t drawWhatIsDue()
{
    const std::int64_t before = nanoseconds();
    while (QAbstractEventDispatcher::instance()->processEvents(QEventLoop::AllEvents)) {
    }
    return nanoseconds() - before;
}

using Durations = std::vector<std::int64_t>; // nanoseconds, touched before the memory is measured

double median(Durations durations)
{
    const auto middle = durations.begin() + static_cast<std::ptrdiff_t>(durations.size() / 2);
    std::nth_element(durations.begin(), middle, durations.end());
    return static_cast<double>(*middle);
}

/// Arguments: the rows, and whether the list is on screen. On screen, a turn of the event loop
/// follows each message, with the new layout and the painting; it is counted for itself.
template <typename Sink>
void message(benchmark::State &state)
{
    const QStringList rows = makeRows(static_cast<int>(state.range(0)));
    const bool visible = state.range(1) != 0;

    QWidget page;
    QVBoxLayout layout(&page);
    auto *view = new typename Sink::View(&page);
    layout.addWidget(view);
    page.resize(450, 260); // what the launcher's window gives a list
    page.setVisible(visible);
    Sink sink(view);
    Inserter<Sink> inserter(sink, rows);
    PaintCounter painted;
    view->viewport()->installEventFilter(&painted);
    do {
        inserter.insert();
        drawWhatIsDue();
    } while (visible && painted.count < 2); // until the window is there

    painted.count = 0;
    Durations sinkTimes(static_cast<std::size_t>(state.max_iterations));
    Durations screenTimes(sinkTimes.size());
    std::size_t number = 0;
    std::int64_t resident = residentBytes();
    for ([[maybe_unused]] auto turn : state) {
        sinkTimes[number] = inserter.insert();
        screenTimes[number] = visible ? drawWhatIsDue() : 0;
        state.SetIterationTime(1e-9 * static_cast<double>(sinkTimes[number]));
        ++number;
    }
    resident = residentBytes() - resident;

    if (visible && painted.count < state.iterations()) {
        state.SkipWithError("the list was not painted after each message");
    }
    state.counters["sink_ns"] = median(sinkTimes);
    state.counters["screen_ns"] = median(screenTimes);
    state.counters["resident_bytes"] =
        static_cast<double>(resident) / static_cast<double>(state.iterations());
}

/// So many messages leave some megabytes behind: enough to see past the pages of the allocator.
benchmark::IterationCount iterations(int rows, bool visible)
{
    constexpr int hiddenBytes = 8'000'000;
    constexpr int visibleRows = 200'000; // laying a row out takes microseconds
    return visible ? visibleRows / rows : hiddenBytes / (8 * rows);
}

template <typename Sink>
void add(const std::string &name, int rows, bool visible)
{
    benchmark::RegisterBenchmark(name.c_str(), message<Sink>)
        ->Args({rows, visible ? 1 : 0})
        ->Iterations(iterations(rows, visible))
        ->UseManualTime();
}

} // namespace

int main(int argc, char **argv)
{
    QApplication application(argc, argv);
    for (const bool visible : {false, true}) {
        for (const int rows : {100, 1'000, 10'000, 20'000}) {
            add<LauncherSink>("launcher", rows, visible);
            add<BareSink>("bare", rows, visible);
        }
    }
    benchmark::Initialize(&argc, argv);
    benchmark::RunSpecifiedBenchmarks();
    return 0;
}
