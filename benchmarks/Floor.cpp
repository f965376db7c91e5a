// The floor: the launcher's own form in a bare window, and behind its two buttons the least that
// the same work takes. It lies in a bundle as the launcher does and is pressed as the launcher is.
// What the launcher needs beyond it is the launcher's.

#include "ui_MainWindow.h"

#include <QApplication>
#include <QMainWindow>
#include <QStandardItemModel>

#include <array>
#include <csignal>
#include <cstdlib>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>

namespace {

/// A child, and the list that shows what it writes.
class Service : public QStandardItemModel
{
public:
    /// Forks and executes @p arguments, the first of which is the program's path.
    void start(const std::vector<const char *> &arguments)
    {
        std::array<int, 2> ends{};
        if (pipe(ends.data()) != 0) {
            std::abort();
        }
        child = fork();
        if (child == 0) {
            dup2(ends[1], STDOUT_FILENO);
            execv(arguments.front(), const_cast<char *const *>(arguments.data()));
            _exit(1);
        }
        close(ends[1]);
        output = ends[0];
    }

    /// Shows each line as soon as it is there. A reader ends with its child.
    void startReader()
    {
        std::thread([this, reading = child, from = output] {
            std::array<char, 512> chunk{};
            for (ssize_t size = 0; (size = read(from, chunk.data(), chunk.size())) > 0;) {
                const QString row = QString::fromUtf8(chunk.data(), static_cast<int>(size));
                QMetaObject::invokeMethod(this, [this, row] { appendRow(new QStandardItem(row)); });
            }
            close(from);
            waitpid(reading, nullptr, 0);
        }).detach();
    }

    void end() const { kill(child, SIGKILL); }

private:
    pid_t child = -1;
    int output = -1;
};

} // namespace

int main(int argc, char **argv)
{
    QApplication application(argc, argv);
    const std::string bundle = QApplication::applicationDirPath().toStdString() + "/../..";
    const std::string nginxCommand = "cd " + bundle + "/nginx && sbin/nginx";
    const std::string stopCommand = nginxCommand + " -s stop";
    const std::string rpcProgram = bundle + "/rpcServer/MacOs/rpcServer";

    QMainWindow window;
    Ui_MainWindow form;
    form.setupUi(&window);
    Service nginx;
    Service rpc;
    form.listView_2->setModel(&nginx);
    form.listView->setModel(&rpc);
    QObject::connect(form.pushButton, &DeployBtn::clicked, [&] {
        nginx.start({"/bin/bash", "-c", nginxCommand.c_str(), nullptr});
        rpc.start({rpcProgram.c_str(), nullptr});
        nginx.startReader();
        rpc.startReader();
    });
    QObject::connect(form.pushButton_2, &DeployBtn::clicked, [&] {
        rpc.end();
        if (std::system(stopCommand.c_str()) != 0) {
            std::abort();
        }
        nginx.end();
    });
    window.show();
    return QApplication::exec();
}
