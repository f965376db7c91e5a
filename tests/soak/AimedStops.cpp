/// AimedStops STOPS SEED: stops and redeploys the services in the very moment in which a row
/// arrives, so many times; chance decides how far from it. Lies in a bundle whose two services are
/// both ToldService. Prints each crash. Ends with 0 if there was at most one in 1,000 stops.

#include "services/Connect.h"
#include "tests/soak/Order.h"
#include "ui/NginxQListView.h"
#include "ui/RpcQListView.h"

#include <QApplication>

#include <algorithm>
#include <array>
#include <cstdint>
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
    if (pipe(ends.data()) != 0 || dup2(ends[0], reportsTaken) == -1 ||
        dup2(ends[1], reportsGiven) == -1) {
        std::exit(2);
    }
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
    giveOrder(service, 0);
    waitBusily(upTo(40, dice));
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
    RpcQListView rpcView;
    rpcView.show();
    NginxQListView nginxView;
    nginxView.show();

    Connect connect;
    connect.setRpcUi(&rpcView);
    connect.setNginxUi(&nginxView);
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
int liveOnce(int &stops, int most, unsigned seed)
{
    const pid_t launcher = fork();
    if (launcher == 0) {
        dup2(open("/dev/null", O_WRONLY), STDOUT_FILENO);
        stopAgainAndAgain(stops, most, Dice(seed));
        _exit(0);
    }
    int status = 0;
    waitpid(launcher, &status, 0);
    return status;
}

} // namespace

int main(int argc, char **argv)
{
    if (argc != 3) {
        return 2;
    }
    const int wanted = std::atoi(argv[1]);
    const auto seed = static_cast<unsigned>(std::atoi(argv[2]));
    setenv("QT_QPA_PLATFORM", "offscreen", 0); // NOLINT(concurrency-mt-unsafe): one thread
    // Of the standard error, the allocator's last words are left.
    qInstallMessageHandler([](QtMsgType, const QMessageLogContext &, const QString &) {});
    openReports();

    auto *stops = static_cast<int *>(
        mmap(nullptr, sizeof(int), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0));
    int done = 0;
    int crashes = 0;
    for (unsigned launcher = 0; done < wanted; ++launcher) {
        *stops = 0;
        const int most = std::min(stopsOfALauncher, wanted - done);
        const int status = liveOnce(*stops, most, seed + launcher);
        done += *stops;
        if (status != 0) {
            ++done; // the stop that it did not survive
            ++crashes;
            std::printf("aimed: launcher %u ended with status %d in its stop %d\n", launcher,
                        status, *stops + 1);
            std::fflush(stdout);
        }
    }
    std::printf("aimed: %d stops and redeploys, %d crashes\n", done, crashes);
    return crashes * 1000 <= done ? 0 : 1;
}
