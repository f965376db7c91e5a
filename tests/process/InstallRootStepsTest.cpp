#include "process/ExecutablePath.h"
#include "tests/process/Recorder.h"

#include <QTest>

#include <algorithm>
#include <array>
#include <new>
#include <stdexcept>
#include <tuple>

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
        std::size_t made;    ///< bytes of the last array that was made
    };
    QByteArray path;
    bool fails = false;
    std::vector<Call> calls;
};

Platform platform;
std::size_t lastArray = 0; // bytes

/// A runner under construction, and what its fields hold when it asks for the path.
const MyProgress *underConstruction = nullptr;
bool allSet = false;

void look(const MyProgress &runner)
{
    allSet = !(runner.*(&Recorder::running)) && runner.*(&Recorder::childPid) == -1 &&
             runner.*(&Recorder::readerResult) == -1 && !(runner.*(&Recorder::launchRequested)) &&
             runner.*(&Recorder::reserved) == 0 && (runner.*(&Recorder::basePath)).empty();
}

} // namespace

void *operator new[](std::size_t bytes)
{
    lastArray = bytes;
    return ::operator new(bytes);
}

void operator delete[](void *memory) noexcept
{
    ::operator delete(memory);
}

void operator delete[](void *memory, std::size_t) noexcept
{
    ::operator delete(memory);
}

/// Stands in for the platform: needs no terminating zero in what it hands over.
int executablePath(char *buffer, std::uint32_t *size)
{
    if (platform.fails) {
        throw std::runtime_error("no path");
    }
    if (underConstruction != nullptr) {
        look(*underConstruction);
    }
    platform.calls.push_back(
        {buffer, size, *size, buffer == nullptr ? '#' : buffer[*size], lastArray});
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
    void init() { platform = Platform{"/A/orvane.app/Contents/MacOS/orvane", false, {}}; }

    void directoryIsAskedForTwice()
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
        QCOMPARE(second.made, std::size_t{second.bytes} + 1);
    }

    void directoryEndsBeforeTheLastSlash()
    {
        platform.path = "/A//b/";
        QCOMPARE(Recorder().GetExeDir(), std::string("/A//b"));
        platform.path = "/orvane.app";
        QCOMPARE(Recorder().GetExeDir(), std::string());
        QCOMPARE(Recorder().basePath, std::string());
    }

    void makeBasePathReplacesTheRoot()
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

    void rootIsNotLookedForAgain()
    {
        Recorder runner;
        platform.path = "/B/orvane.app/orvane";
        runner.makeProgress("/bin/true", "");
        runner.launchRequest();
        runner.deleteProgress();
        QCOMPARE(runner.getBasePath(), std::string("/A/orvane.app"));
        QCOMPARE(Recorder().getBasePath(), std::string("/B/orvane.app"));
    }

    /// In memory that is not clean, so that each value is one that the constructor gives.
    void otherFieldsAreSetBeforeTheRoot()
    {
        alignas(Recorder) std::array<char, sizeof(Recorder)> memory;
        memory.fill('\x5a');
        allSet = false;
        underConstruction = reinterpret_cast<const MyProgress *>(memory.data());
        const auto *runner = ::new (memory.data()) Recorder;
        underConstruction = nullptr;
        QVERIFY(allSet);
        QCOMPARE(runner->basePath, std::string("/A/orvane.app"));
        runner->~Recorder();
    }

    void exceptionLeavesTheConstructor()
    {
        platform.fails = true;
        QVERIFY_EXCEPTION_THROWN(Recorder(), std::runtime_error);
    }
};

QTEST_GUILESS_MAIN(InstallRootStepsTest)
#include "InstallRootStepsTest.moc"
