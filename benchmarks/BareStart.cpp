// The floor of deploy and stop: two bare fork and exec calls from a process of the launcher's size,
// and the bare stop command. It is a window program of the same toolkit, grown to the size that the
// driver orders. Orders come line by line on standard input; each is answered with one line.
//
//   grow BYTES    touch so much more memory
//   start         fork and exec both children: "STAMP", taken before the first fork
//   stop          run the stop command: "STAMP STAMP STATUS", before and after
//   kill          kill both children and wait for them
//   window        the number of its window
//
// A press into the window does the same as "start", with the same answer.
// The one argument is the bundle's root.

#include "benchmarks/Clock.h"

#include <QApplication>
#include <QMainWindow>

#include <array>
#include <cinttypes>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <fcntl.h>
#include <string>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>
#include <vector>

namespace {

/// Standard output as it was. What the children write goes nowhere.
std::FILE *keepForAnswers()
{
    const int kept = fcntl(STDOUT_FILENO, F_DUPFD_CLOEXEC, 0);
    const int nowhere = open("/dev/null", O_WRONLY);
    dup2(nowhere, STDOUT_FILENO);
    return fdopen(kept, "w");
}

class Window : public QMainWindow
{
public:
    explicit Window(const std::string &bundle)
        : command("cd " + bundle + "/nginx && sbin/nginx"), stopCommand(command + " -s stop"),
          program(bundle + "/rpcServer/MacOs/rpcServer")
    {
        resize(476, 374);
        show();
    }

    void obey(const std::string &order)
    {
        if (order == "start") {
            start();
        } else if (order == "stop") {
            stop();
        } else if (order == "kill") {
            killBoth();
        } else if (order == "window") {
            std::fprintf(answers, "%llu\n", winId());
        } else {
            ballast.emplace_back(std::stoul(order.substr(order.find(' '))), 'x');
            std::fputs("grown\n", answers);
        }
        std::fflush(answers);
    }

protected:
    void mousePressEvent(QMouseEvent * /*event*/) override { obey("start"); }

private:
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
        std::fprintf(answers, "%" PRId64 "\n", before);
    }

    void stop()
    {
        const std::int64_t before = nanoseconds();
        const int status = std::system(stopCommand.c_str());
        const std::int64_t after = nanoseconds();
        std::fprintf(answers, "%" PRId64 " %" PRId64 " %d\n", before, after, status);
    }

    void killBoth()
    {
        for (const pid_t child : {shell, direct}) {
            kill(child, SIGKILL);
            waitpid(child, nullptr, 0);
        }
        std::fputs("killed\n", answers);
    }

    std::FILE *answers = keepForAnswers();
    std::string command;
    std::string stopCommand;
    std::string program;
    std::vector<std::string> ballast;
    pid_t shell = -1;
    pid_t direct = -1;
};

/// Hands the orders to the thread of the window, one by one, and ends the program after the last.
void passOrders(Window *window)
{
    std::array<char, 64> line{};
    while (std::fgets(line.data(), line.size(), stdin) != nullptr) {
        std::string order = line.data();
        order.pop_back(); // the line break
        QMetaObject::invokeMethod(
            window, [window, order] { window->obey(order); }, Qt::BlockingQueuedConnection);
    }
    QMetaObject::invokeMethod(window, [window] { window->close(); }, Qt::QueuedConnection);
}

} // namespace

int main(int argc, char **argv)
{
    QApplication application(argc, argv);
    Window window(QApplication::arguments().at(1).toStdString());
    std::thread orders(passOrders, &window);
    const int status = QApplication::exec();
    orders.join();
    return status;
}
