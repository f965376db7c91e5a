// One message into a list of N rows: the launcher's sink against the same list and model operations
// written bare. It comes on a thread that the toolkit did not start, as a reader's, while the event
// loop runs on the main thread. No model is freed, as in the launcher: the memory that a message
// takes is new memory, and its first touch is part of the cost.

#include "services/RpcServer.h"
#include "ui/RpcQListView.h"

#include <QAbstractEventDispatcher>
#include <QApplication>
#include <QSemaphore>
#include <QStringListModel>
#include <QVBoxLayout>
#include <QWindow>

#include <algorithm>
#include <benchmark/benchmark.h>
#include <malloc.h>
#include <memory>
#include <thread>

namespace {

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
template <typename Sink>
struct Page
{
    explicit Page(bool visible)
    {
        layout.addWidget(view);
        page.resize(450, 260); // what the launcher's window gives a list
        page.setVisible(visible);
        while (visible && !page.windowHandle()->isExposed()) {
            QCoreApplication::processEvents(QEventLoop::WaitForMoreEvents);
        }
    }

    QWidget page;
    QVBoxLayout layout{&page};
    typename Sink::View *view = new typename Sink::View;
    Sink sink{view};
};

/// Runs @p work on the GUI thread and waits for it.
template <typename Work>
void onGuiThread(Work work)
{
    QMetaObject::invokeMethod(qApp, work, Qt::BlockingQueuedConnection);
}

/// More than one turn: the painting of the list begins with its layout, which asks for the painting
/// once more.
void drawWhatIsDue()
{
    while (QAbstractEventDispatcher::instance()->processEvents(QEventLoop::AllEvents)) {
    }
}

double allocatedBytes()
{
    const struct mallinfo2 all = mallinfo2();
    return static_cast<double>(all.uordblks) + static_cast<double>(all.hblkhd);
}

/// Arguments: the rows, and whether the list is on screen, with its drawing as part of the time.
/// The list goes back to its rows before each message, which releases nothing.
template <typename Sink>
void message(benchmark::State &state)
{
    const std::string line = "127.0.0.1 - - [21/Nov/2025:00:25:10 +0000] \"GET / HTTP/1.1\" 200\n";
    QStringList rows;
    while (rows.size() < state.range(0)) {
        rows.append(QString::number(rows.size()) + ' ' + line.c_str());
    }
    const bool visible = state.range(1) != 0;
    std::unique_ptr<Page<Sink>> page;
    onGuiThread([&] { page = std::make_unique<Page<Sink>>(visible); });
    const auto insert = [&] {
        page->sink.restore(rows);
        page->sink.insertMsg(line);
    };
    const auto insertAndDraw = [&] {
        // The window waits meanwhile, so that it draws once, and not sometimes in between as well.
        static QSemaphore waits;
        static QSemaphore inserted;
        const auto wait = [] {
            waits.release();
            inserted.acquire();
        };
        QMetaObject::invokeMethod(qApp, wait, Qt::QueuedConnection);
        waits.acquire();
        insert();
        inserted.release();
        onGuiThread(drawWhatIsDue);
    };
    insertAndDraw(); // what only the first takes
    const double before = allocatedBytes();
    for ([[maybe_unused]] auto turn : state) {
        visible ? insertAndDraw() : insert();
    }
    state.counters["bytes"] = (allocatedBytes() - before) / static_cast<double>(state.iterations());
    onGuiThread([&] { page.reset(); });
}

/// Registers @p run for each number of rows, hidden and on screen. Counted is the processor's time,
/// of all threads, which asks neither for the other programs nor for the X server.
void measure(const char *name, void (*run)(benchmark::State &))
{
    for (const int rows : {100, 1'000, 10'000, 20'000}) {
        auto *hidden = benchmark::RegisterBenchmark(name, run);
        hidden->Args({rows, 0})->Iterations(std::max(10, 40'000 / rows))->MeasureProcessCPUTime();
        auto *drawn = benchmark::RegisterBenchmark(name, run);
        drawn->Args({rows, 1})->Iterations(std::max(2, 2'000 / rows))->MeasureProcessCPUTime();
    }
}

} // namespace

int main(int argc, char **argv)
{
    QApplication application(argc, argv);
    QApplication::setQuitOnLastWindowClosed(false); // pages come and go
    measure("launcher", message<LauncherSink>);
    measure("floor", message<BareSink>);
    benchmark::Initialize(&argc, argv);
    std::thread reader([&] {
        benchmark::RunSpecifiedBenchmarks();
        QMetaObject::invokeMethod(&application, "quit", Qt::QueuedConnection);
    });
    const int status = QApplication::exec();
    reader.join();
    return status;
}
