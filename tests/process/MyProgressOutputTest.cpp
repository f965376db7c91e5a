#include "tests/process/Recorder.h"
#include "tests/support/Eventually.h"
#include "tests/support/StandardOutput.h"

#include <QFileInfo>
#include <QTest>

#include <array>
#include <cstdio>
#include <pty.h>

namespace {

const QByteArray pipeLine = "Pipe ready\n";
const QByteArray childLine = "Child progress ready\n";
const QByteArray programFailed = "child progress loaded fail\n";
const QByteArray shellFailed = "Child progress loaded fail\n";

/// What the launcher prints about a start.
QByteArray startedText(pid_t pid)
{
    return pipeLine + "pid:" + QByteArray::number(pid) + "\nMain progress ready\n";
}

/// One way to start a child, and what the child does then.
struct Start
{
    const char *name;
    std::string path;
    std::string command;
    QByteArray childWrites;
};

const std::array<Start, 2> goodStarts{{
    {"a program that starts", "/bin/echo", "", "\n"},
    {"a command that starts", "", "echo hello", "hello\n"},
}};

const std::array<Start, 2> failedStarts{{
    {"a program that is none", "/etc/passwd", "", childLine + programFailed},
    // Longer than the kernel lets one argument be (MAX_ARG_STRLEN).
    {"a command that is too long", "", std::string(std::size_t{128} * 1024, ' '),
     childLine + shellFailed},
}};

/// What standard output is, and when a line leaves the launcher.
struct Kind
{
    const char *name;
    enum { File, Pipe, Terminal } destination;
    int buffering;   ///< the mode of setvbuf(3)
    bool keepsLines; ///< until the buffer is full
};

const std::array<Kind, 4> kinds{{
    {"a file", Kind::File, _IOFBF, true},
    {"a pipe, buffered by line as by stdbuf -oL", Kind::Pipe, _IOLBF, false},
    {"a pipe, not buffered as by stdbuf -o0", Kind::Pipe, _IONBF, false},
    {"a terminal", Kind::Terminal, _IOLBF, false},
}};

constexpr std::size_t bufferBytes = 4096; // what glibc gives a file or a pipe

/// Buffers standard output in this way from here on. glibc writes the first line after setvbuf(3)
/// too early where the stream was used before, so that line is an empty one of the test's.
void buffer(int mode)
{
    static std::array<char, bufferBytes> space;
    std::fflush(stdout);
    if (std::setvbuf(stdout, mode == _IONBF ? nullptr : space.data(), mode, space.size()) != 0) {
        qFatal("cannot change how the standard output is buffered");
    }
    std::puts("");
    std::fflush(stdout);
}

/// Makes standard output one of that kind, as long as it lives.
class OutputOf
{
public:
    explicit OutputOf(const Kind &kind)
    {
        if (kind.destination != Kind::File) {
            const bool made = kind.destination == Kind::Pipe
                                  ? pipe(ends.data()) == 0
                                  : openpty(&ends[0], &ends[1], nullptr, nullptr, nullptr) == 0;
            if (!made || dup2(ends[1], STDOUT_FILENO) == -1) {
                qFatal("cannot make the standard output %s", kind.name);
            }
        }
        buffer(kind.buffering);
    }
    ~OutputOf()
    {
        buffer(_IOFBF);
        close(ends[0]);
        close(ends[1]);
    }
    OutputOf(const OutputOf &) = delete;
    OutputOf &operator=(const OutputOf &) = delete;

private:
    StandardOutput file; ///< whose destructor brings the test's own output back
    std::array<int, 2> ends{-1, -1};
};

} // namespace

Q_DECLARE_METATYPE(Kind)
Q_DECLARE_METATYPE(Start)

/// The launcher's standard output and the child's pipe, to the byte.
class MyProgressOutputTest : public QObject
{
    Q_OBJECT

private slots:
    /// As it is when it goes into a file, however the test is started.
    void initTestCase()
    {
        const StandardOutput output;
        buffer(_IOFBF);
    }

    void baseSinkPrintsTheTextAsItStands_data()
    {
        QTest::addColumn<QByteArray>("text");
        QTest::newRow("signs of a format") << QByteArray("100%s%%");
        QTest::newRow("line breaks") << QByteArray("\na\n\n");
        QTest::newRow("no line break") << QByteArray("a");
        QTest::newRow("no text") << QByteArray("");
    }

    void baseSinkPrintsTheTextAsItStands()
    {
        QFETCH(QByteArray, text);
        const StandardOutput output;
        MyProgress().insertMsg(text.toStdString());
        QCOMPARE(output.text(), text);
    }

    void lifeOfARunnerIsPrinted()
    {
        const StandardOutput output;
        const pid_t pid = lifeOfARunner().pid;
        QCOMPARE(output.text(), startedText(pid) + "Progress stopped");
    }

    void lifeOfARunnerFlushesNothing()
    {
        const StandardOutput output;
        lifeOfARunner();
        QCOMPARE(QFileInfo("/dev/stdout").size(), qint64{0});
    }

    /// The last message comes to the base sink, unlike the others.
    void sinkDoesNotHearOfTheStopByTheDestructor()
    {
        const StandardOutput output;
        QCOMPARE(lifeOfARunner().messages.joined(), QByteArray("File foundhello\n"));
    }

    void failedStartSendsTheLaunchersUnflushedLinesIntoThePipe()
    {
        const StandardOutput output;
        std::printf("flushed line\n");
        std::fflush(stdout);
        std::printf("earlier line\n");
        Recorder runner;
        runner.createProgress("/etc/passwd", "");
        QCOMPARE(wholeOutput(runner), "earlier line\n" + pipeLine + childLine + programFailed);
    }

    void failedStartLeavesTheLaunchersLinesInTheLauncher()
    {
        const StandardOutput output;
        std::printf("earlier line\n");
        Recorder runner;
        runner.createProgress("/etc/passwd", "");
        wholeOutput(runner);
        QCOMPARE(output.text(), "earlier line\n" + startedText(runner.childPid));
    }

    void childThatStartsWritesNoLineOfTheLauncher_data() { addEachWith(goodStarts); }

    void childThatStartsWritesNoLineOfTheLauncher()
    {
        QFETCH(Kind, kind);
        QFETCH(Start, start);
        QCOMPARE(pipeAfter(start, kind), start.childWrites);
    }

    void childThatFailsWritesItsTwoLines_data() { addEachWith(failedStarts); }

    void childThatFailsWritesItsTwoLines()
    {
        QFETCH(Kind, kind);
        QFETCH(Start, start);
        const QByteArray waiting = kind.keepsLines ? pipeLine : QByteArray();
        QCOMPARE(pipeAfter(start, kind), waiting + start.childWrites);
    }

    void fullBufferIsNotTheChildsThatStarts_data() { addFillLevelsWith(goodStarts); }

    void fullBufferIsNotTheChildsThatStarts()
    {
        QFETCH(int, waitingBytes);
        QFETCH(Start, start);
        const StandardOutput output;
        std::printf("%s", dots(waitingBytes).constData());
        Recorder runner;
        runner.createProgress(start.path, start.command);
        QCOMPARE(wholeOutput(runner), start.childWrites);
    }

    void fullBufferReachesThePipeWithAFailedStart_data() { addFillLevelsWith(failedStarts); }

    /// What has left the buffer before the fork is the launcher's alone.
    void fullBufferReachesThePipeWithAFailedStart()
    {
        QFETCH(int, waitingBytes);
        QFETCH(Start, start);
        const StandardOutput output;
        const QByteArray lines = dots(waitingBytes);
        std::printf("%s", lines.constData());
        Recorder runner;
        int flushedBytes = 0;
        SystemCalls::record(runner.running);
        SystemCalls::at("fork",
                        [&] { flushedBytes = static_cast<int>(QFileInfo("/dev/stdout").size()); });
        runner.createProgress(start.path, start.command);
        SystemCalls::stop();
        QCOMPARE(counted(wholeOutput(runner)),
                 counted((lines + pipeLine).mid(flushedBytes) + start.childWrites));
    }

    void exitHandlersOfTheLauncherStayOutOfTheChild()
    {
        static bool inTheChild = false; // and nowhere else when it exits
        std::atexit([] {
            if (inTheChild) {
                std::printf("a handler of the launcher\n");
            }
        });
        const StandardOutput output;
        Recorder runner;
        inTheChild = true;
        runner.createProgress("/etc/passwd", "");
        inTheChild = false;
        QCOMPARE(wholeOutput(runner), pipeLine + childLine + programFailed);
    }

private:
    struct Life
    {
        pid_t pid;
        const Messages &messages; ///< what the runner's own sink was given
    };

    /// Starts a command, takes its line and deletes the runner.
    static Life lifeOfARunner()
    {
        const std::unique_ptr<Recorder> runner(new Recorder); // its reader may outlive it
        runner->makeProgress("/", "echo hello");
        runner->launchRequest();
        const Messages &messages = runner->messages;
        if (!eventually([&] { return messages.joined().endsWith("hello\n"); })) {
            QTest::qFail("the command's line did not come", __FILE__, __LINE__);
        }
        return {runner->childPid, messages};
    }

    /// What is in the pipe after the start. A failure's message goes to the test's own output
    /// again.
    static QByteArray pipeAfter(const Start &start, const Kind &kind)
    {
        const OutputOf output(kind);
        Recorder runner;
        runner.createProgress(start.path, start.command);
        return wholeOutput(runner);
    }

    static void addEachWith(const std::array<Start, 2> &starts)
    {
        QTest::addColumn<Kind>("kind");
        QTest::addColumn<Start>("start");
        for (const Kind &kind : kinds) {
            for (const Start &start : starts) {
                QTest::addRow("%s; %s", kind.name, start.name) << kind << start;
            }
        }
    }

    /// So many bytes of the launcher's own lines, "Pipe ready" among them, are printed until the
    /// fork: from where the buffer takes the child's line as well to where it was emptied before.
    static void addFillLevelsWith(const std::array<Start, 2> &starts)
    {
        QTest::addColumn<int>("waitingBytes");
        QTest::addColumn<Start>("start");
        const int full = bufferBytes;
        for (int bytes = full - 36; bytes <= full + 14; ++bytes) {
            for (const Start &start : starts) {
                QTest::addRow("%d bytes; %s", bytes, start.name) << bytes << start;
            }
        }
    }

    /// What the launcher has printed before "Pipe ready".
    static QByteArray dots(int waitingBytes)
    {
        return QByteArray(waitingBytes - pipeLine.size() - 1, '.') + '\n';
    }

    /// The text with its dots as a number, so that a failure's message has room for what differs.
    static QByteArray counted(const QByteArray &text)
    {
        const int number = text.count('.');
        return QByteArray::number(number) + " dots" + text.mid(number);
    }
};

QTEST_GUILESS_MAIN(MyProgressOutputTest)
#include "MyProgressOutputTest.moc"
