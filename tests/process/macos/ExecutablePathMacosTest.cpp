#include "process/ExecutablePath.h"
#include "process/MyProgress.h"
#include "tests/process/macos/mach-o/dyld.h"

#include <QTest>

#include <cstring>
#include <string>

namespace {

const std::string path = "/Applications/orvane.app/Contents/MacOS/orvane";

} // namespace

/// As macOS answers: the size counts the terminating zero, and a buffer too small stays untouched.
int _NSGetExecutablePath(char *buffer, std::uint32_t *size)
{
    const auto needed = static_cast<std::uint32_t>(path.size() + 1);
    if (*size < needed) {
        *size = needed;
        return -1;
    }
    std::memcpy(buffer, path.c_str(), needed);
    return 0;
}

class ExecutablePathMacosTest : public QObject
{
    Q_OBJECT

private slots:
    void platformIsAskedForTheSize()
    {
        std::uint32_t size = 0;
        QCOMPARE(executablePath(nullptr, &size), -1);
        QCOMPARE(size, static_cast<std::uint32_t>(path.size() + 1));
    }

    void platformIsAskedForThePath()
    {
        QByteArray buffer(100, '#');
        auto size = static_cast<std::uint32_t>(buffer.size());
        QCOMPARE(executablePath(buffer.data(), &size), 0);
        QCOMPARE(buffer.constData(), path.c_str());
    }

    void directoryAndRootComeFromThePlatform()
    {
        MyProgress runner;
        QCOMPARE(runner.GetExeDir(), std::string("/Applications/orvane.app/Contents/MacOS"));
        QCOMPARE(runner.getBasePath(), std::string("/Applications/orvane.app"));
    }
};

QTEST_GUILESS_MAIN(ExecutablePathMacosTest)
#include "ExecutablePathMacosTest.moc"
