#include "process/ExecutablePath.h"

#include <QDir>
#include <QFileInfo>
#include <QTest>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <sys/auxv.h>
#include <sys/types.h>

namespace {

// What the kernel tells of the running program: the target of /proc/self/exe, empty where there is
// none, and what the program was started by. The truth while they are null.
QByteArray target;
QByteArray started;

/// Asks in two calls.
QByteArray path()
{
    std::uint32_t size = 0;
    executablePath(nullptr, &size);
    QByteArray path(static_cast<int>(size), '#');
    return executablePath(path.data(), &size) == 0 ? path.chopped(1) : "failed";
}

} // namespace

// The linker gives the calls of this program's own code to these (--wrap).
extern "C" {
ssize_t __real_readlink(const char *link, char *buffer, std::size_t size);
unsigned long __real_getauxval(unsigned long type);

ssize_t __wrap_readlink(const char *link, char *buffer, std::size_t size)
{
    if (target.isNull()) {
        return __real_readlink(link, buffer, size);
    }
    if (size > 100'000) {
        qFatal("the buffer grows without an end");
    }
    if (target.isEmpty()) {
        errno = ENAMETOOLONG;
        return -1;
    }
    const std::size_t length = std::min(size, static_cast<std::size_t>(target.size()));
    std::memcpy(buffer, target.constData(), length);
    return static_cast<ssize_t>(length);
}

unsigned long __wrap_getauxval(unsigned long type)
{
    return started.isNull() ? __real_getauxval(type)
                            : reinterpret_cast<unsigned long>(started.constData());
}
}

class ExecutablePathTest : public QObject
{
    Q_OBJECT

private slots:
    void init()
    {
        target = QByteArray();
        started = QByteArray();
    }

    void pathIsThatOfThisProgram()
    {
        const QString expected = QFileInfo("/proc/self/exe").canonicalFilePath();
        started = "/nowhere";
        QCOMPARE(path(), QFile::encodeName(expected));
        started = QByteArray();
        target = "";
        QCOMPARE(QFileInfo(QFile::decodeName(path())).canonicalFilePath(), expected);
    }

    void bufferThatIsTooSmallStaysUntouched()
    {
        target = "/a/b";
        QByteArray buffer("####");
        std::uint32_t size = 4; // no room for the terminating zero
        QCOMPARE(executablePath(buffer.data(), &size), -1);
        QCOMPARE(buffer, QByteArray("####"));
        QCOMPARE(size, 5U);
    }

    void bufferIsFilledUpToTheTerminatingZero()
    {
        target = "/a/b";
        QByteArray buffer("######");
        std::uint32_t size = 5;
        QCOMPARE(executablePath(buffer.data(), &size), 0);
        QCOMPARE(buffer, QByteArray("/a/b\0#", 6));
    }

    void pathsOfAnyLength()
    {
        for (const int length : {1, 255, 256, 257, 511, 512, 513, 5000}) {
            target = '/' + QByteArray(length - 1, 'a');
            QCOMPARE(path(), target);
        }
    }

    void withoutALinkTheStartedPathCounts()
    {
        target = "";
        started = "/usr/bin/orvane";
        QCOMPARE(path(), started);
        started = "../bin/orvane";
        QCOMPARE(path(), QFile::encodeName(QDir::currentPath()) + "/../bin/orvane");
    }
};

QTEST_GUILESS_MAIN(ExecutablePathTest)
#include "ExecutablePathTest.moc"
