#include "services/Nginx.h"
#include "tests/support/Processes.h"
#include "tests/support/Services.h"
#include "tests/support/StandardOutput.h"
#include "tests/support/WatchedView.h"
#include "ui/NginxQListView.h"

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
        std::atomic<std::size_t> told{0};
        std::atomic<int> inTurn{0};
        const auto look = [&] {
            const auto models = view->installed();
            if (models.size() == ++told && models.back().thread == std::this_thread::get_id()) {
                ++inTurn;
            }
        };
        connect(view.get(), &NginxQListView::nginxUpdated, this, look, Qt::DirectConnection);
        start("echo output\n");
        controller->insertMsg("");
        QVERIFY(eventually([&] { return inTurn == 3; }));
        QCOMPARE(told.load(), std::size_t{3});
        QVERIFY(isIdle(*controller, nginx));
    }

    /// bash(1) reads the file that BASH_ENV names before it runs a command.
    void isStartedByTheShellInItsFolder()
    {
        BundleTest::writeScript("environment", "[ -z \"$BASH_EXECUTION_STRING\" ] || " +
                                                   noting("$0 -c $BASH_EXECUTION_STRING"));
        qputenv("BASH_ENV", BundleTest::root().toUtf8() + "/environment");
        start(noting("$0 in $PWD with $# arguments"));
        qunsetenv("BASH_ENV");
        QCOMPARE(SystemCalls::lines(),
                 QStringList({"bash -c cd " + folder() + " && sbin/nginx",
                              "sbin/nginx in " + folder() + " with 0 arguments", "nginx starts"}));
    }

    /// And waits for it, whatever it answers, leaves the child alone, and records nothing.
    void abolishRunsTheStopCommand()
    {
        start({}, "sleep 0.1\n" + noting("after a while") + "echo stopping\nexit 3\n");
        const StandardOutput output;
        controller->abolish();
        QCOMPARE(SystemCalls::lines(),
                 QStringList({"nginx starts", stopCommand(), "nginx stops", "after a while"}));
        QVERIFY(output.text().contains("stopping\n")); // the launcher's, and not the list's
        QVERIFY(Processes::isAlive(childOf(*controller)));
        QVERIFY(controller->getStatus());
        QCOMPARE(view->rows(), started(nginx));
    }

    void abolishDoesNothingUnlessTheControllerRuns()
    {
        start();
        controller->setStatus(false);
        controller->abolish();
        QCOMPARE(SystemCalls::lines(), QStringList("nginx starts"));
        controller->setStatus(true);
    }

private:
    static QString folder() { return BundleTest::root() + "/nginx"; }

    void start(const QByteArray &started = {}, const QByteArray &stopped = {})
    {
        install(nginx, started, stopped);
        controller->setUi(view.get());
        QVERIFY(isIdle(*controller, nginx));
    }

    std::unique_ptr<WatchedView<NginxQListView>> view;
    std::unique_ptr<Nginx> controller;
};

BUNDLE_TEST_MAIN(NginxTest)
#include "NginxTest.moc"
