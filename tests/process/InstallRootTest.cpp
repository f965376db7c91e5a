#include "process/ExecutablePath.h"
#include "tests/process/Recorder.h"

#include <QTest>

#include <algorithm>
#include <array>
#include <malloc.h>
#include <new>
#include <stdexcept>

namespace {

/// What executablePath() was called with.
struct Call
{
    const char *buffer;
    std::uint32_t bytes; ///< *size
    char last;           ///< the byte behind the buffer that *size tells of
    std::size_t room;    ///< bytes that the buffer has, at least
};

std::vector<Call> calls;
QByteArray path; // what it answers
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
        path = "/A/orvane.app/Contents/MacOS/orvane";
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
        // The file's name takes no part, nor what the kernel adds to that of a deleted program.
        path = directory + "/orvane.app (deleted)";
        Recorder runner;
        QCOMPARE(runner.GetExeDir(), directory.toStdString());
        QCOMPARE(runner.getBasePath(), root.toStdString());
    }

    void directoryIsAskedForTwice()
    {
        path = "/A/orvane.app/Contents/MacOS/forty bytes"; // for which 40 bytes are made, or 56
        Recorder runner;
        calls.clear();
        QCOMPARE(runner.GetExeDir(), std::string("/A/orvane.app/Contents/MacOS"));
        QCOMPARE(calls.size(), std::size_t{2}); // both fail here, and neither answer is looked at
        QVERIFY(calls[0].buffer == nullptr);
        QCOMPARE(calls[0].bytes, 0U);
        QVERIFY(calls[1].buffer != nullptr);
        QCOMPARE(calls[1].bytes, static_cast<std::uint32_t>(path.size()));
        QCOMPARE(calls[1].last, '\0');
        QVERIFY(calls[1].room > calls[1].bytes);
    }

    /// Nothing is kept from one runner to the next, and a runner keeps what it found.
    void everyRunnerLooksOnce()
    {
        Recorder runner;
        path = "/B/orvane.app/orvane";
        runner.makeProgress("/bin/true", "");
        runner.launchRequest();
        runner.deleteProgress();
        QCOMPARE(runner.getBasePath(), std::string("/A/orvane.app"));
        QCOMPARE(Recorder().getBasePath(), std::string("/B/orvane.app"));
        path = "/usr/local/bin/orvane";
        runner.makeBasePath();
        QCOMPARE(runner.getBasePath(), std::string());
    }

    /// In memory that is not clean, so that each value is one that the constructor gives.
    void otherFieldsAreSetBeforeTheRoot()
    {
        alignas(Recorder) static std::array<char, sizeof(Recorder)> memory;
        static bool allSet = false;
        memory.fill('\x5a');
        whenAsked = [] {
            const auto &runner = *reinterpret_cast<const MyProgress *>(memory.data());
            allSet = !(runner.*(&Recorder::running)) && runner.*(&Recorder::childPid) == -1 &&
                     runner.*(&Recorder::readerResult) == -1 &&
                     !(runner.*(&Recorder::launchRequested)) &&
                     runner.*(&Recorder::reserved) == 0 && (runner.*(&Recorder::basePath)).empty();
        };
        const auto *runner = ::new (memory.data()) Recorder;
        QVERIFY(allSet);
        runner->~Recorder();
    }

    void exceptionLeavesTheConstructor()
    {
        whenAsked = [] { throw std::runtime_error("no path"); };
        QVERIFY_EXCEPTION_THROWN(Recorder(), std::runtime_error);
    }
};

QTEST_GUILESS_MAIN(InstallRootTest)
#include "InstallRootTest.moc"
