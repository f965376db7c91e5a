// The floor of deploy and stop: two bare fork and exec calls from a process of the launcher's size,
// and the bare stop command. It is a window program of the same toolkit, grown to the size that the
// driver orders. Orders come line by line on standard input; each is answered with one line.
//
//   grow BYTES    touch so much more memory
//   start         fork and exec both children: "STAMP", taken before the first fork
//   stop          run the stop command: "STAMP STAMP", before and after
//   kill          kill both children and wait for them
//
// The one argument is the bundle's root.

#include "benchmarks/Clock.h"

#include <QApplication>
#include <QMainWindow>

#include <array>
#include <cinttypes>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <sys/wait.h>
#include <unistd.h>
#include <vector>

namespace {

class Orders
{
public:
    explicit Orders(std::string bundle)
        : command("cd " + bundle + "/nginx && sbin/nginx"), stopCommand(command + " -s stop"),
          program(bundle + "/rpcServer/MacOs/rpcServer")
    {}

    void obey()
    {
        std::array<char, 16> what{};
        while (std::scanf("%15s", what.data()) == 1) {
            const std::string order = what.data();
            if (order == "grow") {
                grow();
            } else if (order == "start") {
                start();
            } else if (order == "stop") {
                stop();
            } else if (order == "kill") {
                killBoth();
            }
            std::fflush(stdout);
        }
    }

private:
    void grow()
    {
        std::size_t bytes = 0;
        if (std::scanf("%zu", &bytes) == 1) {
            ballast.emplace_back(bytes, 'x');
        }
        std::puts("grown");
    }

    void start()
    {
        const std::int64_t before = nanoseconds();
        shell = fork();
        if (shell == 0) {
            execl("/bin/bash", "bash", "-c", command.c_str(), nullptr);
            _exit(1);
        }
        direct = fork();
        if (direct == 0) {
            const std::array<char *, 1> noArguments{nullptr};
            execve(program.c_str(), noArguments.data(), nullptr);
            _exit(1);
        }
        std::printf("%" PRId64 "\n", before);
    }

    void stop()
    {
        const std::int64_t before = nanoseconds();
        const int status = std::system(stopCommand.c_str());
        const std::int64_t after = nanoseconds();
        std::printf("%" PRId64 " %" PRId64 " %d\n", before, after, status);
    }

    void killBoth()
    {
        for (const pid_t child : {shell, direct}) {
            kill(child, SIGKILL);
            waitpid(child, nullptr, 0);
        }
        std::puts("killed");
    }

    std::string command;
    std::string stopCommand;
    std::string program;
    std::vector<std::string> ballast;
    pid_t shell = -1;
    pid_t direct = -1;
};

} // namespace

int main(int argc, char **argv)
{
    QApplication application(argc, argv);
    QMainWindow window;
    window.resize(476, 374);
    window.show();
    QApplication::processEvents();
    Orders(QApplication::arguments().at(1).toStdString()).obey();
    return 0;
}
