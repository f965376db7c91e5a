/// AimedStops STOPS [SEED]: stops and redeploys the services in the very moment in which a row
/// arrives, so many times; chance decides how far from it. Lies in a bundle whose two services are
/// both ToldService. Prints each crash. Ends with 0 if there was at most one in 1,000 stops.

#include "services/Connect.h"
#include "tests/soak/Order.h"
#include "ui/NginxQListView.h"
#include "ui/RpcQListView.h"

#include <QApplication>
#include <QHBoxLayout>

#include <algorithm>
#include <array>
#include <chrono>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <fcntl.h>
#include <random>
#include <string>
#include <sys/mman.h>
#include <sys/wait.h>
#include <unistd.h>

namespace {

constexpr int stopsOfALauncher = 100; // each start leaves a descriptor and a thread's stack behind
constexpr unsigned hangSeconds = 30;  // for one stop

using Dice = std::mt19937;

std::uint32_t upTo(std::uint32_t most, Dice &dice)
{
    return std::uniform_int_distribution<std::uint32_t>(0, most)(dice);
}

/// Gives the descriptors on which services report their numbers.
void openReports()
{
    std::array<int, 2> ends{};
    if (pipe(ends.data()) != 0) {
        _exit(2);
    }
    dup2(ends[0], reportsTaken);
    dup2(ends[1], reportsGiven);
    close(ends[0]);
    close(ends[1]);
}

/// Blocks until the next service awaits its orders; returns its process id.
pid_t nextService()
{
    pid_t service = -1;
    return read(reportsTaken, &service, sizeof(service)) == sizeof(service) ? service : -1;
}

/// Tells the RPC server to write now, and returns up to 40 microseconds later.
void tellToWrite(pid_t service, Dice &dice)
{
    giveOrder({service, 0});
    const auto end = std::chrono::steady_clock::now() + std::chrono::microseconds(upTo(40, dice));
    while (std::chrono::steady_clock::now() < end) {
    }
}

/// nginx is told by its stop command, since a stop waits for that; it takes its time to end.
void tellStopCommand(pid_t service, Dice &dice)
{
    const std::string order = std::to_string(service) + ' ' + std::to_string(upTo(1000, dice));
    setenv(orderVariable, order.c_str(), 1); // NOLINT(concurrency-mt-unsafe): readers do not ask
}

/// One launcher's life; counts its stops in @p stops, which outlives a crash.
void stopAgainAndAgain(int &stops, int most, Dice dice)
{
    int argc = 1;
    std::array<char *, 2> argv{const_cast<char *>("AimedStops"), nullptr};
    QApplication application(argc, argv.data());
    QWidget window;
    auto *row = new QHBoxLayout(&window);
    auto *rpcView = new RpcQListView;
    auto *nginxView = new NginxQListView;
    row->addWidget(rpcView);
    row->addWidget(nginxView);
    window.show();

    Connect connect;
    connect.setRpcUi(rpcView);
    connect.setNginxUi(nginxView);
    bool deployed = false;
    for (pid_t nginx = -1, rpc = -1; stops < most; ++stops) {
        alarm(hangSeconds);
        if (!deployed) {
            connect.openNginx();
            nginx = nextService();
            connect.openRpc();
            rpc = nextService();
        }
        QApplication::processEvents();
        tellStopCommand(nginx, dice);
        deployed = upTo(1, dice) == 1;
        if (deployed) {
            connect.openNginx();
            nginx = nextService();
            tellToWrite(rpc, dice);
            connect.openRpc();
            rpc = nextService();
        } else {
            tellToWrite(rpc, dice);
            connect.closeRpc();
            connect.closeNginx();
        }
    }
    unsetenv(orderVariable); // NOLINT(concurrency-mt-unsafe): likewise
}

/// Runs one launcher in a process of its own; returns its status as waitpid(2) does.
int liveOnce(int &stops, int most, unsigned seed, std::FILE *errors)
{
    const pid_t launcher = fork();
    if (launcher == 0) {
        dup2(open("/dev/null", O_WRONLY), STDOUT_FILENO);
        dup2(fileno(errors), STDERR_FILENO);
        stopAgainAndAgain(stops, most, Dice(seed));
        _exit(0);
    }
    int status = 0;
    waitpid(launcher, &status, 0);
    return status;
}

/// The end of what the launcher has written to standard error: the allocator's last words.
std::string lastWords(std::FILE *errors)
{
    std::array<char, 160> end{};
    std::fseek(errors, -160, SEEK_END);
    const std::size_t count = std::fread(end.data(), 1, end.size(), errors);
    return {end.data(), count};
}

} // namespace

int main(int argc, char **argv)
{
    const int wanted = argc > 1 ? std::atoi(argv[1]) : 1000;
    const unsigned seed =
        argc > 2 ? static_cast<unsigned>(std::atoi(argv[2])) : std::random_device()();
    std::printf("aimed: seed %u\n", seed);
    setenv("QT_QPA_PLATFORM", "offscreen", 0); // NOLINT(concurrency-mt-unsafe): one thread
    openReports();

    auto *stops = static_cast<int *>(
        mmap(nullptr, sizeof(int), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0));
    int done = 0;
    int crashes = 0;
    for (unsigned launcher = 0; done < wanted; ++launcher) {
        std::FILE *errors = std::tmpfile();
        *stops = 0;
        const int most = std::min(stopsOfALauncher, wanted - done);
        const int status = liveOnce(*stops, most, seed + launcher, errors);
        done += *stops;
        if (status != 0) {
            ++done; // the stop that it did not survive
            ++crashes;
            std::printf("aimed: launcher %u ended with status %d in its stop %d\n%s\n", launcher,
                        status, *stops + 1, lastWords(errors).c_str());
        }
        std::fclose(errors);
        std::fflush(stdout);
    }
    std::printf("aimed: %d stops and redeploys, %d crashes\n", done, crashes);
    return crashes * 1000 <= done ? 0 : 1;
}
