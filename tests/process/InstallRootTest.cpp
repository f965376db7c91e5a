#include "process/ExecutablePath.h"
#include "tests/process/Recorder.h"

#include <QTest>

#include <algorithm>
#include <array>
#include <malloc.h>
#include <memory>
#include <new>
#include <stdexcept>

namespace {

/// What executablePath() was called with.
struct Call
{
    const char *buffer;
    std::uint32_t size;
    char atSize;      ///< the byte buffer[size]
    std::size_t room; ///< bytes that the buffer has, at least
};

std::vector<Call> calls;
const QByteArray usualPath = "/A/orvane.app/Contents/MacOS/orvane";
QByteArray path = usualPath; // what it answers
void (*whenAsked)() = nullptr;

} // namespace

/// Stands in for the platform: says that it failed, and gives no terminating zero.
int executablePath(char *buffer, std::uint32_t *size)
{
    if (whenAsked != nullptr) {
        whenAsked();
    }
    calls.push_back(
        {buffer, *size, buffer == nullptr ? '#' : buffer[*size], malloc_usable_size(buffer)});
    if (buffer != nullptr) {
        std::copy(path.cbegin(), path.cend(), buffer);
    }
    *size = static_cast<std::uint32_t>(path.size());
    return -1;
}

/// The directory and the install root of a runner, by the path that the platform gives.
class InstallRootTest : public QObject
{
    Q_OBJECT

private slots:
    void init()
    {
        path = usualPath;
        whenAsked = nullptr;
    }

    void rootEndsAtTheBundleName_data()
    {
        QTest::addColumn<QByteArray>("directory"); // the program's
        QTest::addColumn<QByteArray>("root");      // what of it is the install root
        const auto add = [](const char *name, const QByteArray &directory, const QByteArray &root) {
            QTest::newRow(name) << directory << root;
        };
        add("a bundle", "/A/orvane.app/Contents/MacOS", "/A/orvane.app");
        add("the bundle directory itself", "/orvane.app", "/orvane.app");
        add("two bundles: the inner one", "/A/orvane.app/B/orvane.app/Contents/MacOS",
            "/A/orvane.app/B/orvane.app");
        add("any character for the dot", "/A/orvane_app/MacOS", "/A/orvane_app");
        add("a slash for the dot", "/A/orvane/app/MacOS", "/A/orvane/app");
        add("more behind the name", "/x/orvane.apple", "/x/orvane.app");
        add("no character for the dot", "/A/orvaneapp/MacOS", {});
        add("two characters for the dot", "/A/orvane..app/MacOS", {});
        add("more in front of the name", "/A/xorvane.app/MacOS", {});
        add("capital letters", "/A/Orvane.App/MacOS", {});
        add("no bundle", "/usr/local/bin", {});
        add("the root directory", "", {});
        add("slashes in a row and at the end", "/A//orvane.app/", "/A//orvane.app");
        add("characters of a pattern", "/(a) [b]*+?$\\/orvane.app/^", "/(a) [b]*+?$\\/orvane.app");
        add("not UTF-8", "/\xff\xfe\x80/orvane.app/\xc3", "/\xff\xfe\x80/orvane.app");
        add("a line break behind the name", "/orvane.app/a\nb", "/orvane.app");
        add("a line break in front of the name", "/a\nb/orvane.app", {});
    }

    void rootEndsAtTheBundleName()
    {
        QFETCH(QByteArray, directory);
        QFETCH(QByteArray, root);
        path = directory + fileName;
        QCOMPARE(Recorder().getBasePath(), root.toStdString());
    }

    void directoryIsWhatStandsBeforeTheFileName_data() { rootEndsAtTheBundleName_data(); }

    void directoryIsWhatStandsBeforeTheFileName()
    {
        QFETCH(QByteArray, directory);
        path = directory + fileName;
        QCOMPARE(Recorder().GetExeDir(), directory.toStdString());
    }

    /// Both calls fail here.
    void answersOfThePlatformAreNotLookedAt()
    {
        QCOMPARE(Recorder().GetExeDir(), std::string("/A/orvane.app/Contents/MacOS"));
    }

    void platformIsAskedTwice() { QCOMPARE(callsForTheDirectory().size(), std::size_t{2}); }

    void firstCallHasNoBuffer() { QVERIFY(callsForTheDirectory().front().buffer == nullptr); }

    void firstCallAsksForTheSize() { QCOMPARE(callsForTheDirectory().front().size, 0U); }

    void secondCallHasABuffer() { QVERIFY(callsForTheDirectory().back().buffer != nullptr); }

    void secondCallSaysTheSizeThatTheFirstGave()
    {
        QCOMPARE(callsForTheDirectory().back().size, static_cast<std::uint32_t>(path.size()));
    }

    void terminatingZeroStandsBehindTheSize()
    {
        QCOMPARE(callsForTheDirectory().back().atSize, '\0');
    }

    void bufferHasRoomForTheTerminatingZero()
    {
        path = "/A/orvane.app/Contents/MacOS/forty bytes"; // an allocation of 40 bytes has no more
        const Call second = callsForTheDirectory().back();
        QVERIFY2(second.room > second.size, "the buffer is as small as the size");
    }

    void rootStaysThroughTheLifeOfARunner()
    {
        const std::unique_ptr<Recorder> runner(new Recorder); // its reader may outlive it
        path = "/B/orvane.app/orvane";
        runner->makeProgress("/bin/true", "");
        runner->launchRequest();
        runner->deleteProgress();
        QCOMPARE(runner->getBasePath(), std::string("/A/orvane.app"));
    }

    void nextRunnerLooksAnew()
    {
        const Recorder first;
        path = "/B/orvane.app/orvane";
        QCOMPARE(Recorder().getBasePath(), std::string("/B/orvane.app"));
    }

    void rootIsEmptiedWhenThereIsNoBundleAnyMore()
    {
        Recorder runner;
        path = "/usr/local/bin/orvane";
        runner.makeBasePath();
        QCOMPARE(runner.getBasePath(), std::string());
    }

    void otherFieldsAreSetBeforeTheRoot_data()
    {
        QTest::addColumn<int>("actual");
        QTest::addColumn<int>("expected");
        const Fields fields = fieldsBeforeTheRoot();
        QTest::newRow("running") << int{fields.running} << int{false};
        QTest::newRow("childPid") << fields.childPid << -1;
        QTest::newRow("readerResult") << fields.readerResult << -1;
        QTest::newRow("launchRequested") << int{fields.launchRequested} << int{false};
        QTest::newRow("reserved") << static_cast<int>(fields.reserved) << 0;
        QTest::newRow("length of basePath") << static_cast<int>(fields.basePath.size()) << 0;
    }

    void otherFieldsAreSetBeforeTheRoot()
    {
        QFETCH(int, actual);
        QFETCH(int, expected);
        QCOMPARE(actual, expected);
    }

    void exceptionLeavesTheConstructor()
    {
        whenAsked = [] { throw std::runtime_error("no path"); };
        QVERIFY_EXCEPTION_THROWN(Recorder(), std::runtime_error);
    }

private:
    /// The name takes no part, nor what the kernel adds to that of a deleted program.
    const QByteArray fileName = "/orvane.app (deleted)";

    /// The calls that one GetExeDir() makes.
    static std::vector<Call> callsForTheDirectory()
    {
        Recorder runner;
        calls.clear();
        runner.GetExeDir();
        return calls;
    }

    struct Fields
    {
        bool running;
        std::int32_t childPid;
        std::int32_t readerResult;
        bool launchRequested;
        std::uintptr_t reserved;
        std::string basePath;
    };

    /// The fields of a runner when its constructor looks for the root. In memory that is not clean,
    /// so that each value is one that the constructor gives.
    static Fields fieldsBeforeTheRoot()
    {
        alignas(Recorder) static std::array<char, sizeof(Recorder)> memory;
        static Fields fields;
        memory.fill('\x5a');
        whenAsked = [] {
            const auto &runner = *reinterpret_cast<const MyProgress *>(memory.data());
            fields = {runner.*(&Recorder::running),      runner.*(&Recorder::childPid),
                      runner.*(&Recorder::readerResult), runner.*(&Recorder::launchRequested),
                      runner.*(&Recorder::reserved),     runner.*(&Recorder::basePath)};
        };
        const auto *runner = ::new (memory.data()) Recorder;
        runner->~Recorder();
        whenAsked = nullptr;
        return fields;
    }
};

QTEST_GUILESS_MAIN(InstallRootTest)
#include "InstallRootTest.moc"
