#include "services/Nginx.h"
#include "tests/support/Processes.h"
#include "tests/support/Services.h"
#include "tests/support/StandardOutput.h"
#include "tests/support/WatchedView.h"
#include "ui/NginxQListView.h"

#include <QApplication>

#include <atomic>
#include <memory>

using namespace Services;

/// What only the nginx controller does.
class NginxTest : public QObject
{
    Q_OBJECT

private slots:
    void init()
    {
        SystemCalls::recordStops();
        view = std::make_unique<WatchedView<NginxQListView>>(nullptr);
        controller = std::make_unique<Nginx>();
    }

    void cleanup()
    {
        SystemCalls::stop();
        controller.reset();
        removeAll();
    }

    void theViewIsToldOfEachModelOnTheSameThread()
    {
        installNginx("echo output\n");
        std::atomic<int> told{0};
        std::atomic<int> inTurn{0};
        connect(
            view.get(), &NginxQListView::nginxUpdated, this,
            [&] {
                const int model = told++;
                if (view->count() == static_cast<std::size_t>(model + 1) &&
                    view->threadOf(static_cast<std::size_t>(model)) == std::this_thread::get_id()) {
                    ++inTurn;
                }
            },
            Qt::DirectConnection);
        controller->setUi(view.get());
        controller->insertMsg("");
        QVERIFY(eventually([&] { return told == 3; }));
        QCOMPARE(inTurn.load(), 3);
        QVERIFY(isIdle(controller.get(), "nginx starts"));
    }

    /// bash(1) reads the file that BASH_ENV names before it runs a command.
    void isStartedByTheShellInItsFolderWithTheLaunchersEnvironment()
    {
        const QString file = BundleTest::root() + "/environment";
        QFile script(file);
        QVERIFY(script.open(QIODevice::WriteOnly | QIODevice::Truncate));
        script.write("[ -z \"$BASH_EXECUTION_STRING\" ] || " +
                     noting("$0 -c $BASH_EXECUTION_STRING"));
        script.close();
        qputenv("BASH_ENV", file.toUtf8());
        installNginx(noting("$0 in $PWD with $# arguments, BASH_ENV is $BASH_ENV"));
        controller->setUi(nullptr);
        qunsetenv("BASH_ENV");
        QVERIFY(isIdle(controller.get(), "nginx starts"));
        QVERIFY(eventually([] { return SystemCalls::lines().size() == 3; }));
        QCOMPARE(
            SystemCalls::lines(),
            QStringList({"bash -c cd " + folder() + " && sbin/nginx", "nginx starts",
                         "sbin/nginx in " + folder() + " with 0 arguments, BASH_ENV is " + file}));
    }

    /// And waits for it, leaves the child alone, and records nothing.
    void abolishRunsTheStopCommand()
    {
        start("sleep 0.1\n" + noting("$0 in $PWD with $*") + "echo stopping\nexit 3\n");
        const StandardOutput output;
        controller->abolish();
        const QStringList once{stopCommand(), "nginx stops",
                               "sbin/nginx in " + folder() + " with -s stop"};
        QCOMPARE(SystemCalls::lines(), QStringList("nginx starts") + once);
        QVERIFY(output.text().contains("stopping\n")); // the launcher's, and not the list's
        QVERIFY(Processes::isAlive(childOf(*controller)));
        QVERIFY(controller->getStatus());
        QCOMPARE(view->rows(), started(nginx));

        controller->abolish(); // whatever the first one answered
        const QString kill = killOf(controller.get());
        controller.reset();
        QCOMPARE(SystemCalls::lines(),
                 QStringList("nginx starts") + once + once + QStringList(kill));
    }

    void abolishDoesNothingUnlessTheControllerRuns()
    {
        controller->abolish();
        QCOMPARE(SystemCalls::lines(), QStringList());
        start({});
        controller->setStatus(false);
        controller->abolish();
        QCOMPARE(SystemCalls::lines(), QStringList("nginx starts"));
        controller->setStatus(true);
    }

private:
    static QString folder() { return BundleTest::root() + "/nginx"; }

    void start(const QByteArray &stopped)
    {
        installNginx({}, stopped);
        controller->setUi(view.get());
        QVERIFY(isIdle(controller.get(), "nginx starts"));
    }

    std::unique_ptr<WatchedView<NginxQListView>> view;
    std::unique_ptr<Nginx> controller;
};

BUNDLE_TEST_MAIN(QApplication, NginxTest)
#include "NginxTest.moc"
