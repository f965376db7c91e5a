#include "tests/app/EntryScenarios.h"
#include "tests/support/Controllers.h"

#include <QCoreApplication>
#include <QProcess>

/// Runs the entry in processes of their own and reads what they note.
class EntryTest : public QObject
{
    Q_OBJECT

private slots:
    void init()
    {
        CallLog::clear();
        Services::installNginx();
        Services::installRpcServer();
    }
    void cleanup() { Services::removeAll(); }

    /// Up to the event loop: no service starts by itself.
    void startsInOrderAndDeploysNothing()
    {
        QCOMPARE(run("look around"), 0);
        QCOMPARE(CallLog::lines(), QStringList({
                                       QString("application flags: %1").arg(QT_VERSION),
                                       "shown with its coordinator: yes",
                                       "window shown: yes",
                                       "window has a parent: no",
                                       "window is local: yes",
                                       "application is local: yes",
                                       "coordinator made first: yes",
                                       "something deployed: no",
                                       "signals are default: yes",
                                       "window destroyed, application there: yes",
                                       "application destroyed",
                                   }));
    }

    void aCloseWhileDeployedStopsTheServices()
    {
        QCOMPARE(run("deploy"), 0);
        checkDeployAndStop();
        QCOMPARE(CallLog::lines().mid(8), QStringList({"window destroyed, application there: yes",
                                                       "application destroyed"}));
    }

    void theStatusIsTheEventLoops()
    {
        QCOMPARE(run("status"), 7);
        QCOMPARE(CallLog::lines().mid(1), QStringList({"window destroyed, application there: yes",
                                                       "application destroyed"}));
    }

    void theToolkitTakesItsOwnArguments()
    {
        QCOMPARE(run("arguments", {"-style", "windows", "mine"}), 0);
        QCOMPARE(CallLog::lines().mid(1, 2), QStringList({"arguments: mine", "style: windows"}));

        CallLog::clear();
        QCOMPARE(run("arguments", {"-style", "fusion", "-mine"}), 0);
        QCOMPARE(CallLog::lines().mid(1, 2), QStringList({"arguments: -mine", "style: fusion"}));
    }

    void anExceptionInTheLoopStopsTheServicesAndIsNotCaught()
    {
        QCOMPARE(run("deploy, throw in the loop"), 42);
        checkDeployAndStop();
        QCOMPARE(CallLog::lines().mid(8),
                 QStringList({"window destroyed, application there: yes", "application destroyed",
                              "exception: in the loop", "coordinators left: 0"}));
    }

    void anExceptionInTheWindowLeavesTheCoordinatorBehind()
    {
        QCOMPARE(run("throw in the window"), 42);
        QCOMPARE(CallLog::lines().mid(1),
                 QStringList({"application destroyed", "exception: in the window",
                              "coordinators left: 1"}));
    }

    void anExceptionInTheApplicationLeavesTheCoordinatorBehind()
    {
        QCOMPARE(run("throw in the application"), 42);
        QCOMPARE(CallLog::lines().mid(1),
                 QStringList({"exception: in the application", "coordinators left: 1"}));
    }

private:
    /// Runs the scenario and returns the exit status; -2 when the process did not end by itself.
    static int run(const QString &scenario, const QStringList &arguments = {})
    {
        QProcess process;
        QProcessEnvironment environment = QProcessEnvironment::systemEnvironment();
        environment.insert(EntryScenarios::variable, scenario);
        environment.insert("QT_NO_GLIB", "1"); // exceptions do not pass through its C code
        process.setProcessEnvironment(environment);
        process.setProcessChannelMode(QProcess::ForwardedChannels);
        process.start(QCoreApplication::applicationFilePath(), arguments);
        return process.waitForFinished(60'000) && process.exitStatus() == QProcess::NormalExit
                   ? process.exitCode()
                   : -2;
    }

    /// Both services note their starts, in their own time; then RPC is stopped, then nginx.
    static void checkDeployAndStop()
    {
        const QStringList lines = CallLog::lines();
        QCOMPARE(lines.size() > 7, true);
        QStringList starts = lines.mid(1, 2);
        starts.sort();
        QCOMPARE(starts, QStringList({"nginx starts", "rpc starts"}));
        QCOMPARE(lines.at(3), "deployed: yes");
        QVERIFY(lines.at(4).startsWith("kill "));
        QCOMPARE(lines.at(5), Controllers::stopCommand());
        QCOMPARE(lines.at(6), "nginx stops");
        QVERIFY(lines.at(7).startsWith("kill "));
        for (const QString &line : {lines.at(4), lines.at(7)}) {
            const pid_t service = line.section(' ', 1, 1).toInt();
            QVERIFY(eventually([&] { return !Services::isAlive(service); }));
        }
    }
};

int main(int argc, char **argv)
{
    return qEnvironmentVariableIsSet(EntryScenarios::variable)
               ? EntryScenarios::run(argc, argv)
               : BundleTest::run<QCoreApplication, EntryTest>(argc, argv);
}
#include "EntryTest.moc"
