#include "tests/process/Recorder.h"
#include "tests/support/Apart.h"
#include "tests/support/Eventually.h"
#include "tests/support/StandardOutput.h"

#include <QFileInfo>
#include <QTest>

#include <array>
#include <cstdio>
#include <pty.h>

namespace {

QByteArray startedText(pid_t pid)
{
    return "Pipe ready\npid:" + QByteArray::number(pid) + "\nMain progress ready\n";
}

/// What a child that cannot become its program has written.
const QByteArray failedText = "Child progress ready\nchild progress loaded fail\n";

} // namespace

/// The launcher's standard output, to the byte, as it is when it goes into a file.
class MyProgressOutputTest : public QObject
{
    Q_OBJECT

private slots:
    void initTestCase() { std::setvbuf(stdout, nullptr, _IOFBF, BUFSIZ); }

    void baseSinkPrintsTheTextAsItStands()
    {
        const StandardOutput output;
        MyProgress runner;
        runner.insertMsg("100%s%%\n\n");
        runner.insertMsg("");
        runner.insertMsg("no line break");
        QCOMPARE(output.text(), QByteArray("100%s%%\n\nno line break"));
    }

    /// The last message of a runner that is destroyed comes to the base sink, unlike the others.
    void lifeOfARunnerIsPrintedAndNothingIsFlushed()
    {
        const StandardOutput output;
        std::unique_ptr<Recorder> runner(new Recorder);
        runner->makeProgress("/", "echo hello");
        runner->launchRequest();
        const pid_t pid = runner->childPid;
        const Messages &messages = runner->messages;
        QVERIFY(eventually([&] { return messages.count() >= 2; }));
        runner.reset();
        QCOMPARE(QFileInfo("/dev/stdout").size(), qint64{0});
        QCOMPARE(output.text(), startedText(pid) + "Progress stopped");
        QCOMPARE(messages.joined(), QByteArray("File foundhello\n"));
    }

    /// What the launcher has not flushed goes into the pipe, and stays in the launcher.
    void failedStartFlushesTheLaunchersLinesIntoThePipe()
    {
        const StandardOutput output;
        std::printf("flushed line\n");
        std::fflush(stdout);
        std::printf("earlier line\n");
        Recorder runner;
        runner.createProgress("/etc/passwd", "");
        QCOMPARE(wholeOutput(runner), "earlier line\nPipe ready\n" + failedText);
        QCOMPARE(output.text(), "flushed line\nearlier line\n" + startedText(runner.childPid));
    }

    void onATerminalTheChildsLineStaysOutOfThePipe()
    {
        const QString end = runApart([] {
            int terminal = -1;
            std::array<char, 64> name{};
            if (openpty(&terminal, &terminal, name.data(), nullptr, nullptr) != 0 ||
                std::freopen(name.data(), "w", stdout) == nullptr) {
                _exit(1);
            }
            Recorder runner;
            runner.createProgress("", "echo hello");
            const bool clean = wholeOutput(runner) == "hello\n";
            runner.createProgress("/etc/passwd", "");
            std::exit(clean && wholeOutput(runner) == failedText ? 0 : 2);
        });
        QCOMPARE(end, QString("status 0"));
    }

    void exitHandlersOfTheLauncherStayOutOfTheChild()
    {
        const StandardOutput output;
        const QString end = runApart([] {
            std::atexit([] { std::printf("handler"); });
            Recorder runner;
            runner.createProgress("/etc/passwd", "");
            std::exit(wholeOutput(runner) == "Pipe ready\n" + failedText ? 0 : 2);
        });
        QCOMPARE(end, QString("status 0"));
        QVERIFY(output.text().endsWith("handler")); // in the launcher
    }
};

QTEST_GUILESS_MAIN(MyProgressOutputTest)
#include "MyProgressOutputTest.moc"
