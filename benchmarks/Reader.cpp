// The road of the child's output, from its write to the row in the view's model, in a real window:
// the launcher's controller against a bare blocking read in a thread.
//
//   Reader lines COUNT RESULT    COUNT lines, each written when the reader is idle
//   Reader bare COUNT RESULT     the same lines, read by the bare thread
//   Reader flood BYTES RESULT    the pace and the order under a child that writes BYTES at once
//
// Runs inside a bundle whose RPC server is the benchmarks' child, and writes what it measured into
// the file RESULT: a latency in nanoseconds on each line; for a flood the bytes, those of the first
// chunk, the nanoseconds from the first chunk to the last, and whether every byte came in order.

#include "benchmarks/Clock.h"
#include "services/RpcServer.h"
#include "ui/RpcQListView.h"

#include <QApplication>
#include <QMainWindow>

#include <array>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <random>
#include <semaphore.h>
#include <string>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>
#include <vector>

namespace {

constexpr char programPath[] = "/rpcServer/MacOs/rpcServer";

/// The nanoseconds since the stamp in a child's line, "NUMBER STAMP\n".
std::int64_t age(const std::string &line, std::int64_t now)
{
    return now - std::stoll(line.substr(line.find(' ')));
}

/// The controller, with a look at each row as soon as it is in the view's model.
class Observed : public RpcServer
{
public:
    void insertMsg(std::string msg) override
    {
        RpcServer::insertMsg(msg);
        last = nanoseconds();
        if (msg.empty() || msg == "File found" || msg == getBasePath() + programPath) {
            return;
        }
        inView = inView && shownRow() == QString::fromStdString(msg);
        observe(msg);
    }

    sem_t arrived{};
    std::int64_t first = 0; ///< of the flood
    std::int64_t last = 0;
    std::size_t firstBytes = 0;
    std::size_t expectedBytes = 0; ///< 0 for single lines
    std::string received;
    bool inView = true;

private:
    QString shownRow() const
    {
        const QAbstractItemModel *model = view->model();
        return model->index(model->rowCount() - 1, 0).data().toString();
    }

    void observe(const std::string &msg)
    {
        if (received.empty()) {
            first = last;
            firstBytes = msg.size();
        }
        received += msg;
        if (received.size() >= expectedBytes) {
            sem_post(&arrived);
        }
    }
};

void give(const std::string &orders, const std::string &order)
{
    std::ofstream(orders) << order << std::endl;
}

/// Waits until the reader has paused and is blocked in its read again; not always for the same
/// time, so that no timer is met in step.
void letReaderIdle()
{
    static std::minstd_rand random{1};
    usleep(230'000 + static_cast<useconds_t>(random() % 40'000));
}

using Latencies = std::vector<std::int64_t>;

Latencies measureLines(Observed &server, const std::string &orders, std::size_t count)
{
    Latencies latencies;
    for (std::size_t number = 0; number < count; ++number) {
        letReaderIdle();
        server.received.clear();
        give(orders, "line " + std::to_string(number));
        sem_wait(&server.arrived);
        latencies.push_back(age(server.received, server.last));
    }
    return latencies;
}

/// The floor: a thread, a blocking read, and the time.
Latencies measureBare(const std::string &program, const std::string &orders, std::size_t count)
{
    std::array<int, 2> ends{};
    if (pipe(ends.data()) != 0) {
        std::abort();
    }
    const pid_t child = fork();
    if (child == 0) {
        dup2(ends[1], STDOUT_FILENO);
        const std::array<char *, 1> noArguments{nullptr};
        execve(program.c_str(), noArguments.data(), nullptr);
        _exit(1);
    }
    close(ends[1]);

    Latencies latencies;
    sem_t arrived{};
    std::thread reader([&] {
        std::array<char, 512> line{};
        while (latencies.size() < count) {
            const ssize_t size = read(ends[0], line.data(), line.size());
            const std::int64_t now = nanoseconds();
            latencies.push_back(age({line.data(), static_cast<std::size_t>(size)}, now));
            sem_post(&arrived);
        }
    });
    for (std::size_t number = 0; number < count; ++number) {
        letReaderIdle();
        give(orders, "line " + std::to_string(number));
        sem_wait(&arrived);
    }
    reader.join();
    kill(child, SIGKILL);
    waitpid(child, nullptr, 0);
    return latencies;
}

bool inOrder(const std::string &flood)
{
    constexpr std::size_t recordBytes = 16;
    for (std::size_t at = 0; at < flood.size(); at += recordBytes) {
        std::array<char, recordBytes + 1> record{};
        std::snprintf(record.data(), record.size(), "%015zu\n", at / recordBytes);
        if (flood.compare(at, recordBytes, record.data()) != 0) {
            return false;
        }
    }
    return true;
}

void print(std::ofstream &result, const Latencies &latencies)
{
    for (const std::int64_t latency : latencies) {
        result << latency << '\n';
    }
}

std::string bundleProgram()
{
    return MyProgress().getBasePath() + programPath;
}

/// Runs beside the event loop, in the place of the driver's hand.
void measure(Observed &server, const std::string &what, std::size_t amount, std::ofstream &result)
{
    const std::string program = bundleProgram();
    const std::string orders = program + ".orders";
    if (what == "bare") {
        print(result, measureBare(program, orders, amount));
    } else if (what == "lines") {
        print(result, measureLines(server, orders, amount));
    } else {
        give(orders, "flood " + std::to_string(amount));
        sem_wait(&server.arrived);
        result << server.received.size() << ' ' << server.firstBytes << ' '
               << server.last - server.first << ' ' << inOrder(server.received) << '\n';
    }
    if (!server.inView) {
        result << "a row was not in the view's model\n";
    }
}

} // namespace

int main(int argc, char **argv)
{
    QApplication application(argc, argv);
    if (argc != 4) {
        return 2;
    }
    const std::string what = argv[1];
    const std::size_t amount = std::stoul(argv[2]);
    std::ofstream result(argv[3]);

    QMainWindow window;
    auto *view = new RpcQListView(&window);
    window.setCentralWidget(view);
    window.resize(476, 374);
    window.show();
    view->setVisible(what != "flood"); // as on a page that is not in front

    Observed server;
    if (what != "bare") {
        server.expectedBytes = what == "flood" ? amount : 0;
        server.setUi(view);
    }
    std::thread user([&] {
        measure(server, what, amount, result);
        QMetaObject::invokeMethod(&application, "quit", Qt::QueuedConnection);
    });
    const int status = QApplication::exec();
    user.join();
    return status;
}
