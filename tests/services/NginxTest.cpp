#include "services/Nginx.h"

#include "tests/services/ControllerTest.h"
#include "ui/NginxQListView.h"

#include <QApplication>

class NginxTest : public ControllerTestOf<Nginx, NginxQListView>
{
    Q_OBJECT

    QString program() const override { return "nginx/sbin/nginx"; }
    void install(const QByteArray &lines) const override { Services::installNginx(lines); }
    QString failure() const override { return "sbin/nginx: Permission denied\n"; } // bash's words

    static QString folder() { return BundleTest::root() + "/nginx"; }

private slots:
    void theViewIsToldAfterEachModel()
    {
        Watched view(nullptr);
        QList<std::size_t> models;
        connect(
            &view, &NginxQListView::nginxUpdated, this, [&] { models.append(view.count()); },
            Qt::DirectConnection);
        Open controller;
        controller.view = &view;
        controller.insertMsg("first");
        controller.insertMsg("");
        controller.insertMsg("second");
        QCOMPARE(models, QList<std::size_t>({1, 2}));
    }

    void theViewIsToldByTheReaderThread()
    {
        install("echo output\n");
        Watched view(nullptr);
        std::mutex mutex;
        std::vector<std::thread::id> threads;
        connect(
            &view, &NginxQListView::nginxUpdated, this,
            [&] {
                const std::lock_guard<std::mutex> lock(mutex);
                threads.push_back(std::this_thread::get_id());
            },
            Qt::DirectConnection);
        Open controller;
        controller.setUi(&view);
        QVERIFY(eventually([&] {
            const std::lock_guard<std::mutex> lock(mutex);
            return threads.size() == 3;
        }));
        QVERIFY(threads.at(1) == std::this_thread::get_id());
        QVERIFY(threads.at(2) == view.threadOf(2));
        QVERIFY(isIdle(controller));
    }

    /// bash(1) reads the file that BASH_ENV names before it runs a command.
    void isStartedByTheShell()
    {
        const QString file = BundleTest::root() + "/environment";
        QFile script(file);
        QVERIFY(script.open(QIODevice::WriteOnly | QIODevice::Truncate));
        script.write("[ -z \"$BASH_EXECUTION_STRING\" ] || " +
                     Services::noting("$0 -c $BASH_EXECUTION_STRING"));
        script.close();
        qputenv("BASH_ENV", file.toUtf8());
        install({});
        Open controller;
        controller.setUi(nullptr);
        qunsetenv("BASH_ENV");
        QVERIFY(eventually([] { return CallLog::lines().size() == 2; }));
        QCOMPARE(CallLog::lines(),
                 QStringList({"bash -c cd " + folder() + " && sbin/nginx", "nginx starts"}));
        QVERIFY(isIdle(controller));
    }

    void startsInItsFolderWithoutArgumentsInTheLaunchersEnvironment()
    {
        qputenv("ORVANE_SEEN", "yes");
        install(Services::noting("$0 in $PWD with $# arguments, seen: $ORVANE_SEEN"));
        Open controller;
        controller.setUi(nullptr);
        qunsetenv("ORVANE_SEEN");
        QVERIFY(eventually([] { return CallLog::lines().size() == 2; }));
        QCOMPARE(CallLog::lines().last(),
                 "sbin/nginx in " + folder() + " with 0 arguments, seen: yes");
        QVERIFY(isIdle(controller));
    }

    void abolishRunsTheStopCommandAndLeavesTheChildAlone()
    {
        Services::installNginx({}, Services::noting("$0 in $PWD with $*"));
        Open controller;
        controller.setUi(nullptr);
        QVERIFY(isIdle(controller));
        controller.abolish();
        QCOMPARE(CallLog::lines(),
                 QStringList({"nginx starts", "system cd " + folder() + " && sbin/nginx -s stop",
                              "nginx stops", "sbin/nginx in " + folder() + " with -s stop"}));
        QVERIFY(Services::isAlive(controller.childPid));
        QVERIFY(controller.getStatus());
        QCOMPARE(controller.messages, QStringList({path(), "File found"}));
    }

    void abolishLooksWhereTheRootWasAtTheStart()
    {
        Services::installNginx({});
        Open controller;
        controller.setUi(nullptr);
        QVERIFY(isIdle(controller));
        controller.basePath = "/elsewhere";
        controller.abolish();
        QCOMPARE(CallLog::lines().last(), "system cd /elsewhere/nginx && sbin/nginx -s stop");
        controller.basePath = BundleTest::root().toStdString();
    }

    void abolishWaitsForTheStopCommand()
    {
        Services::installNginx({}, "sleep 0.3\n" + Services::noting("nginx has stopped"));
        Open controller;
        controller.setUi(nullptr);
        QVERIFY(isIdle(controller));
        controller.abolish();
        QCOMPARE(CallLog::lines().last(), "nginx has stopped");
    }

    void abolishIgnoresHowTheStopCommandEnds()
    {
        Services::installNginx({}, "exit 3\n");
        auto controller = std::make_unique<Open>();
        controller->setUi(nullptr);
        QVERIFY(isIdle(*controller));
        const std::int32_t child = controller->childPid;
        controller->abolish();
        controller->abolish();
        QCOMPARE(CallLog::lines().filter("nginx stops").size(), 2);
        QVERIFY(controller->getStatus());
        controller.reset();
        QCOMPARE(CallLog::lines().last(), QString("kill %1 9").arg(child));
    }

    /// The next row is what the service itself writes next.
    void theStopCommandWritesToTheLaunchersOutput()
    {
        makeFifo();
        Services::installNginx(waiting() + "echo own\n", "echo stopping\n");
        Watched view(nullptr);
        const StandardOutput output;
        Open controller;
        controller.setUi(&view);
        QVERIFY(isIdle(controller));
        controller.abolish();
        QVERIFY(output.text().contains("stopping\n"));
        goOn();
        QVERIFY(eventually([&] { return view.count() == 3; }));
        QCOMPARE(rowsOf(view.model()), QStringList({path(), "File found", "own\n"}));
        QVERIFY(isIdle(controller));
    }

    void abolishDoesNothingUnlessTheControllerRuns()
    {
        install({});
        Open controller;
        controller.abolish();
        QCOMPARE(CallLog::lines(), QStringList());

        controller.setUi(nullptr);
        QVERIFY(isIdle(controller));
        controller.setStatus(false);
        controller.abolish();
        QCOMPARE(CallLog::lines(), QStringList("nginx starts"));
        controller.setStatus(true);
    }
};

BUNDLE_TEST_MAIN(QApplication, NginxTest)
#include "NginxTest.moc"
