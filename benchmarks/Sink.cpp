// One message into a list of N rows, on a thread of its own as the readers are: the launcher's sink
// against the same list and model operations written bare. Both take turns, message by message, so
// that whatever else the machine does hits both alike. Apart from that, what one message leaves
// behind in memory.
//
// No model is freed, as in the launcher: the memory that a message takes is new memory, and its
// first touch is part of the cost. A list goes back to N rows before each message.

#include "benchmarks/Clock.h"
#include "services/RpcServer.h"
#include "ui/RpcQListView.h"

#include <QAbstractEventDispatcher>
#include <QApplication>
#include <QStringListModel>
#include <QVBoxLayout>
#include <QWidget>

#include <algorithm>
#include <array>
#include <benchmark/benchmark.h>
#include <fstream>
#include <semaphore.h>
#include <string>
#include <thread>
#include <vector>

namespace {

constexpr char line[] = "127.0.0.1 - - [21/Nov/2025:00:25:10 +0000] \"GET / HTTP/1.1\" 200 612\n";

using Durations = std::vector<std::int64_t>; // nanoseconds

double median(Durations durations)
{
    const auto middle = durations.begin() + static_cast<std::ptrdiff_t>(durations.size() / 2);
    std::nth_element(durations.begin(), middle, durations.end());
    return static_cast<double>(*middle);
}

QStringList makeRows(int count)
{
    QStringList rows;
    for (int row = 0; row < count; ++row) {
        rows.append(QString::number(row) + ' ' + line);
    }
    return rows;
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

/// A list in a page, as the launcher's window has it, with the sink that fills it.
class Page : public QObject
{
public:
    explicit Page(const QStringList &startRows) : rows(startRows) {}
    /// Puts the list back to its rows and inserts one message. Returns the nanoseconds that the
    /// insertion took.
    virtual std::int64_t insert() = 0;

    int paintings = 0;

protected:
    void show(QAbstractItemView *view, bool visible)
    {
        layout.addWidget(view);
        view->viewport()->installEventFilter(this);
        page.resize(450, 260); // what the launcher's window gives a list
        page.setVisible(visible);
    }

    bool eventFilter(QObject * /*watched*/, QEvent *event) override
    {
        paintings += event->type() == QEvent::Paint ? 1 : 0;
        return false;
    }

    const QStringList &rows;

private:
    QWidget page;
    QVBoxLayout layout{&page};
};

template <typename Sink>
class PageOf : public Page
{
public:
    PageOf(const QStringList &startRows, bool visible)
        : Page(startRows), view(new typename Sink::View), sink(view)
    {
        show(view, visible);
    }

    std::int64_t insert() override
    {
        sink.restore(rows);
        const std::int64_t before = nanoseconds();
        sink.insertMsg(line);
        return nanoseconds() - before;
    }

private:
    typename Sink::View *view;
    Sink sink;
};

/// The thread that the messages come from. Like a reader it was not started by the toolkit.
class Inserter
{
public:
    Inserter()
    {
        sem_init(&go, 0, 0);
        sem_init(&done, 0, 0);
        thread = std::thread([this] { run(); });
    }
    ~Inserter()
    {
        insertInto(nullptr);
        thread.join();
    }
    Inserter(const Inserter &) = delete;
    Inserter &operator=(const Inserter &) = delete;

    std::int64_t insertInto(Page *page)
    {
        target = page;
        sem_post(&go);
        sem_wait(&done);
        return elapsed;
    }

private:
    void run()
    {
        for (;;) {
            sem_wait(&go);
            Page *page = target;
            elapsed = page != nullptr ? page->insert() : 0;
            sem_post(&done);
            if (page == nullptr) {
                return;
            }
        }
    }

    sem_t go{};
    sem_t done{};
    Page *target = nullptr;
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

/// The times of one of the two sinks: of the insertion, and of the drawing that follows it.
struct Times
{
    Durations sink;
    Durations screen;

    void measure(Inserter &inserter, Page &page)
    {
        sink.push_back(inserter.insertInto(&page));
        screen.push_back(drawWhatIsDue());
    }
};

/// Arguments: the rows, and whether the lists are on screen.
void message(benchmark::State &state)
{
    const QStringList rows = makeRows(static_cast<int>(state.range(0)));
    const bool visible = state.range(1) != 0;
    PageOf<LauncherSink> launcher(rows, visible);
    PageOf<BareSink> bare(rows, visible);
    Inserter inserter;
    do {
        inserter.insertInto(&launcher);
        inserter.insertInto(&bare);
        drawWhatIsDue();
    } while (visible && (launcher.paintings < 2 || bare.paintings < 2)); // until both are there

    launcher.paintings = bare.paintings = 0;
    Times ofLauncher;
    Times ofBare;
    bool launcherFirst = true;
    for ([[maybe_unused]] auto pair : state) {
        if (launcherFirst) {
            ofLauncher.measure(inserter, launcher);
        }
        ofBare.measure(inserter, bare);
        if (!launcherFirst) {
            ofLauncher.measure(inserter, launcher);
        }
        launcherFirst = !launcherFirst;
        state.SetIterationTime(1e-9 * static_cast<double>(ofLauncher.sink.back()));
    }

    if (visible && std::min(launcher.paintings, bare.paintings) < state.iterations()) {
        state.SkipWithError("a list was not painted after each message");
    }
    state.counters["launcher_ns"] = median(ofLauncher.sink);
    state.counters["bare_ns"] = median(ofBare.sink);
    state.counters["screen_launcher_ns"] = median(ofLauncher.screen);
    state.counters["screen_bare_ns"] = median(ofBare.screen);
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

/// Argument: the rows.
template <typename Sink>
void memory(benchmark::State &state)
{
    const QStringList rows = makeRows(static_cast<int>(state.range(0)));
    PageOf<Sink> page(rows, false);
    Inserter inserter;
    inserter.insertInto(&page);
    const std::int64_t before = residentBytes();
    for ([[maybe_unused]] auto turn : state) {
        inserter.insertInto(&page);
    }
    state.counters["resident_bytes"] =
        static_cast<double>(residentBytes() - before) / static_cast<double>(state.iterations());
}

/// How often each is measured: enough for a steady median, and for megabytes of memory, next to
/// which a page of it is small.
struct Size
{
    int rows;
    int hidden;
    int visible;
    int memory;
};

constexpr std::array<Size, 4> sizes{{{100, 5'000, 400, 10'000},
                                     {1'000, 500, 100, 1'000},
                                     {10'000, 50, 20, 100},
                                     {20'000, 25, 10, 50}}};

} // namespace

int main(int argc, char **argv)
{
    QApplication application(argc, argv);
    for (const Size &size : sizes) {
        benchmark::RegisterBenchmark("message", message)
            ->Args({size.rows, 0})
            ->Iterations(size.hidden)
            ->UseManualTime();
        benchmark::RegisterBenchmark("message", message)
            ->Args({size.rows, 1})
            ->Iterations(size.visible)
            ->UseManualTime();
    }
    for (const Size &size : sizes) {
        benchmark::RegisterBenchmark("memory/launcher", memory<LauncherSink>)
            ->Arg(size.rows)
            ->Iterations(size.memory);
        benchmark::RegisterBenchmark("memory/bare", memory<BareSink>)
            ->Arg(size.rows)
            ->Iterations(size.memory);
    }
    benchmark::Initialize(&argc, argv);
    benchmark::RunSpecifiedBenchmarks();
    return 0;
}
