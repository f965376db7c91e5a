#include "tests/app/EntryScenarios.h"

#include "app/MainWindow.h"
#include "tests/support/Allocations.h"
#include "tests/support/Controllers.h"
#include "ui/DeployBtn.h"

#include <QApplication>
#include <QStyle>
#include <QTest>
#include <QTimer>

#include <algorithm>
#include <csignal>
#include <cstdio>
#include <cstring>
#include <dlfcn.h>
#include <pthread.h>
#include <stdexcept>
#include <unistd.h>
#include <vector>

int launcherMain(int argc, char **argv); // the main function of app/main.cpp

namespace {

/// What could be the coordinator: made before the application object and not deleted since.
std::vector<const void *> madeFirst;

QByteArray scenario()
{
    return qgetenv(EntryScenarios::variable);
}

void note(const char *what, const QByteArray &seen)
{
    CallLog::note(QByteArray(what) + ": " + seen);
}

QByteArray yes(bool seen)
{
    return seen ? "yes" : "no";
}

bool isOnTheStack(const void *address)
{
    pthread_attr_t attributes;
    void *low = nullptr;
    std::size_t bytes = 0;
    pthread_getattr_np(pthread_self(), &attributes);
    pthread_attr_getstack(&attributes, &low, &bytes);
    pthread_attr_destroy(&attributes);
    const auto *start = static_cast<const char *>(low);
    return address >= start && address < start + bytes;
}

bool isDefault(int signal)
{
    struct sigaction action = {};
    sigaction(signal, nullptr, &action);
    return action.sa_handler == SIG_DFL;
}

MainWindow *window()
{
    MainWindow *found = nullptr;
    for (QWidget *widget : QApplication::topLevelWidgets()) {
        if (auto *candidate = qobject_cast<MainWindow *>(widget)) {
            found = candidate;
        }
    }
    return found;
}

/// The last field of the window.
const Connect *coordinator()
{
    const Connect *connect = nullptr;
    std::memcpy(&connect,
                reinterpret_cast<const char *>(window()) + sizeof(MainWindow) - sizeof connect,
                sizeof connect);
    return connect;
}

void lookAround()
{
    note("window shown", yes(window()->isVisible()));
    note("window has a parent", yes(window()->parent() != nullptr));
    note("window is local", yes(isOnTheStack(window())));
    note("application is local", yes(isOnTheStack(qApp)));
    note("coordinator made first",
         yes(std::count(madeFirst.begin(), madeFirst.end(), coordinator()) == 1));
    note("something deployed", yes(Controllers::nginxOf(*coordinator()) != nullptr ||
                                   Controllers::rpcOf(*coordinator()) != nullptr));
    const auto handled = {SIGTERM, SIGINT, SIGHUP, SIGQUIT, SIGUSR1, SIGUSR2, SIGCHLD};
    note("signals are default", yes(std::all_of(handled.begin(), handled.end(), isDefault)));
}

void act()
{
    QObject::connect(window(), &QObject::destroyed,
                     [] { note("window destroyed, application there", yes(qApp != nullptr)); });
    QObject::connect(qApp, &QObject::destroyed, [] { CallLog::note("application destroyed"); });
    if (scenario().contains("deploy")) {
        QTest::mousePress(window()->findChild<DeployBtn *>("pushButton"), Qt::LeftButton);
        note("deployed", yes(Controllers::areIdle(*coordinator())));
    }
    if (scenario().contains("look")) {
        lookAround();
    }
    if (scenario().contains("arguments")) {
        note("arguments", QCoreApplication::arguments().mid(1).join(' ').toUtf8());
        note("style", QApplication::style()->objectName().toUtf8());
    }
    if (scenario().contains("throw in the loop")) {
        throw std::runtime_error("in the loop");
    }
    if (scenario().contains("status")) {
        QApplication::exit(7);
    } else {
        window()->close();
    }
}

/// Looks at the window when it is about to be shown for the first time.
class FirstShow : public QObject
{
public:
    bool eventFilter(QObject *receiver, QEvent *event) override
    {
        if (event->type() == QEvent::Show && receiver == window()) {
            note("shown with its coordinator", yes(coordinator() != nullptr));
            QCoreApplication::instance()->removeEventFilter(this);
        }
        return false;
    }
};

void throwing(QtMsgType, const QMessageLogContext &, const QString &)
{
    throw std::runtime_error("in the window");
}

/// Run by the toolkit at the end of the application object's construction.
void whenTheApplicationStarts()
{
    if (scenario().isEmpty()) {
        return;
    }
    if (scenario() == "throw in the application") {
        throw std::runtime_error("in the application");
    }
    if (scenario() == "throw in the window") {
        QObject::connect(qApp, &QObject::destroyed, [] { CallLog::note("application destroyed"); });
        qInstallMessageHandler(throwing);
    }
    if (scenario().contains("look")) {
        static FirstShow firstShow;
        qApp->installEventFilter(&firstShow);
    }
    QTimer::singleShot(0, act);
}

} // namespace

Q_COREAPP_STARTUP_FUNCTION(whenTheApplicationStarts)

/// Stands in for QApplication's constructor where the entry calls it: notes what it is given and
/// hands it on. The name is the compiler's for QApplication(int &, char **, int).
extern "C" void constructApplication(void *self, int &argc, char **argv,
                                     int flags) __asm__("_ZN12QApplicationC1ERiPPci");

void constructApplication(void *self, int &argc, char **argv, int flags)
{
    for (const Allocations::Event &event : Allocations::recorded()) {
        if (event.made && event.bytes == sizeof(Connect)) {
            madeFirst.push_back(event.address);
        }
    }
    note("application flags", QByteArray::number(flags));
    Allocations::record();
    using Constructor = void(void *, int &, char **, int);
    auto *next = reinterpret_cast<Constructor *>(dlsym(RTLD_NEXT, "_ZN12QApplicationC1ERiPPci"));
    next(self, argc, argv, flags);
}

int EntryScenarios::run(int argc, char **argv)
{
    Allocations::record();
    try {
        return launcherMain(argc, argv);
    } catch (const std::runtime_error &error) {
        note("exception", error.what());
        Allocations::recorded();
        const auto left = std::count_if(madeFirst.begin(), madeFirst.end(), [](const void *object) {
            return !Allocations::wasDeleted(object);
        });
        note("coordinators left", QByteArray::number(static_cast<int>(left)));
        std::fflush(nullptr);
        _exit(42); // what the exception left behind is no leak to look for
    }
}
