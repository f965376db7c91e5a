#include "process/ExecutablePath.h"
#include "tests/process/Recorder.h"

#include <QTest>

#include <algorithm>
#include <array>
#include <new>
#include <stdexcept>
#include <tuple>
#include <type_traits>
#include <utility>

namespace {

/// What executablePath() was called with, and what it answers.
struct Platform
{
    struct Call
    {
        const char *buffer;
        const std::uint32_t *size;
        std::uint32_t bytes; ///< *size at the call
        char last;           ///< the byte behind the buffer that *size tells of
    };
    QByteArray path;
    bool fails = false;
    std::vector<Call> calls;
};

Platform platform;

/// The fields of a runner under construction, copied when it asks for the path. It is no Recorder
/// yet, so they are found by where a finished one has them.
struct Fields
{
    std::int32_t childPid = 0, readerResult = 0;
    bool running = true, launchRequested = true;
    std::uintptr_t reserved = 1;
    std::string basePath = "none";
};

const char *underConstruction = nullptr;
Fields fields;

template <typename Field>
void copyField(const Recorder &finished, const Field &of, Field &to)
{
    const auto offset =
        reinterpret_cast<const char *>(&of) - reinterpret_cast<const char *>(&finished);
    to = *reinterpret_cast<const Field *>(underConstruction + offset);
}

void copyFields()
{
    const char *memory = std::exchange(underConstruction, nullptr);
    const Recorder finished;
    underConstruction = memory;
    copyField(finished, finished.childPid, fields.childPid);
    copyField(finished, finished.readerResult, fields.readerResult);
    copyField(finished, finished.running, fields.running);
    copyField(finished, finished.launchRequested, fields.launchRequested);
    copyField(finished, finished.reserved, fields.reserved);
    copyField(finished, finished.basePath, fields.basePath);
    underConstruction = nullptr;
}

} // namespace

/// Stands in for the platform: needs no terminating zero in what it hands over.
int executablePath(char *buffer, std::uint32_t *size)
{
    if (platform.fails) {
        throw std::runtime_error("no path");
    }
    if (underConstruction != nullptr) {
        copyFields();
    }
    platform.calls.push_back({buffer, size, *size, buffer == nullptr ? '#' : buffer[*size]});
    if (buffer != nullptr) {
        std::copy(platform.path.cbegin(), platform.path.cend(), buffer);
    }
    *size = static_cast<std::uint32_t>(platform.path.size());
    return -1;
}

/// How the directory and the install root are computed, with a path of the test's own.
class InstallRootStepsTest : public QObject
{
    Q_OBJECT

private slots:
    void init();
    void directoryIsAskedForTwice();
    void directoryEndsBeforeTheLastSlash();
    void programInTheFileSystemRootHasAnEmptyDirectory();
    void getBasePathReturnsACopy();
    void makeBasePathReplacesTheRoot();
    void rootIsNotLookedForAgain();
    void otherFieldsAreSetBeforeTheRoot();
    void exceptionLeavesTheConstructor();
};

void InstallRootStepsTest::init()
{
    platform = Platform{"/A/orvane.app/Contents/MacOS/orvane", false, {}};
}

void InstallRootStepsTest::directoryIsAskedForTwice()
{
    Recorder runner;
    platform.calls.clear();
    // Both calls fail here, and neither answer is looked at.
    QCOMPARE(runner.GetExeDir(), std::string("/A/orvane.app/Contents/MacOS"));

    QCOMPARE(platform.calls.size(), std::size_t{2});
    const auto &[first, second] = std::tie(platform.calls[0], platform.calls[1]);
    QVERIFY(first.buffer == nullptr);
    QCOMPARE(first.bytes, 0U);
    QVERIFY(second.buffer != nullptr);
    QCOMPARE(second.bytes, static_cast<std::uint32_t>(platform.path.size()));
    QCOMPARE(second.size, first.size);
    QCOMPARE(second.last, '\0');
}

void InstallRootStepsTest::directoryEndsBeforeTheLastSlash()
{
    platform.path = "/A//b/";
    QCOMPARE(Recorder().GetExeDir(), std::string("/A//b"));
}

void InstallRootStepsTest::programInTheFileSystemRootHasAnEmptyDirectory()
{
    platform.path = "/orvane.app";
    Recorder runner;
    QCOMPARE(runner.GetExeDir(), std::string());
    QCOMPARE(runner.getBasePath(), std::string());
}

void InstallRootStepsTest::getBasePathReturnsACopy()
{
    QVERIFY((std::is_same_v<decltype(Recorder().getBasePath()), std::string>));
    Recorder runner;
    std::string copy = runner.getBasePath();
    copy += "/changed";
    QCOMPARE(runner.basePath, std::string("/A/orvane.app"));
}

void InstallRootStepsTest::makeBasePathReplacesTheRoot()
{
    Recorder runner;
    QCOMPARE(runner.basePath, std::string("/A/orvane.app"));
    platform.path = "/B/orvane_app/orvane";
    runner.makeBasePath();
    QCOMPARE(runner.basePath, std::string("/B/orvane_app"));
    platform.path = "/usr/local/bin/orvane";
    runner.makeBasePath();
    QCOMPARE(runner.basePath, std::string());
}

void InstallRootStepsTest::rootIsNotLookedForAgain()
{
    Recorder runner;
    platform.path = "/B/orvane.app/orvane";
    runner.makeProgress("/bin/true", "");
    runner.launchRequest();
    runner.deleteProgress();
    QCOMPARE(runner.basePath, std::string("/A/orvane.app"));
    QCOMPARE(runner.getBasePath(), std::string("/A/orvane.app"));
}

void InstallRootStepsTest::otherFieldsAreSetBeforeTheRoot()
{
    alignas(Recorder) std::array<char, sizeof(Recorder)> memory;
    memory.fill('\x5a');
    underConstruction = memory.data();
    const auto *runner = ::new (memory.data()) Recorder;
    QCOMPARE(fields.running, false);
    QCOMPARE(fields.childPid, -1);
    QCOMPARE(fields.readerResult, -1);
    QCOMPARE(fields.launchRequested, false);
    QCOMPARE(fields.reserved, std::uintptr_t{0});
    QCOMPARE(fields.basePath, std::string());
    QCOMPARE(runner->basePath, std::string("/A/orvane.app"));
    runner->~Recorder();
}

void InstallRootStepsTest::exceptionLeavesTheConstructor()
{
    platform.fails = true;
    QVERIFY_EXCEPTION_THROWN(Recorder(), std::runtime_error);
}

QTEST_GUILESS_MAIN(InstallRootStepsTest)
#include "InstallRootStepsTest.moc"
