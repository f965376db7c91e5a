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

    void theLinkLeadsToThisProgram()
    {
        started = "/nowhere"; // plays no part
        QCOMPARE(path(), QFile::encodeName(QFileInfo("/proc/self/exe").canonicalFilePath()));
    }

    void withoutALinkTheStartedPathLeadsToThisProgram()
    {
        target = "";
        QCOMPARE(QFileInfo(QFile::decodeName(path())).canonicalFilePath(),
                 QFileInfo("/proc/self/exe").canonicalFilePath());
    }

    void bufferThatIsTooSmallIsRefused() { QCOMPARE(askedWith(4).result, -1); }

    void bufferThatIsTooSmallStaysUntouched()
    {
        QCOMPARE(askedWith(4).buffer, QByteArray("######"));
    }

    void bufferThatIsTooSmallIsToldTheSize() { QCOMPARE(askedWith(4).size, 5U); }

    void bufferThatFitsIsAccepted() { QCOMPARE(askedWith(5).result, 0); }

    void bufferThatFitsIsFilledUpToTheTerminatingZero()
    {
        QCOMPARE(askedWith(5).buffer, QByteArray("/a/b\0#", 6));
    }

    void pathOfAnyLengthIsRead_data()
    {
        QTest::addColumn<int>("bytes");
        QTest::newRow("the root directory") << 1;
        QTest::newRow("one byte less than the first buffer") << 255;
        QTest::newRow("as long as the first buffer") << 256;
        QTest::newRow("one byte more than the first buffer") << 257;
        QTest::newRow("one byte less than the second buffer") << 511;
        QTest::newRow("as long as the second buffer") << 512;
        QTest::newRow("one byte more than the second buffer") << 513;
        QTest::newRow("several buffers more") << 5000;
    }

    void pathOfAnyLengthIsRead()
    {
        QFETCH(int, bytes);
        target = '/' + QByteArray(bytes - 1, 'a');
        QCOMPARE(path(), target);
    }

    void withoutALinkAnAbsoluteStartedPathCounts()
    {
        target = "";
        started = "/usr/bin/orvane";
        QCOMPARE(path(), started);
    }

    void withoutALinkARelativeStartedPathIsMadeAbsolute()
    {
        target = "";
        started = "../bin/orvane";
        QCOMPARE(path(), QFile::encodeName(QDir::currentPath()) + "/../bin/orvane");
    }

private:
    struct Answer
    {
        int result;
        std::uint32_t size; ///< as it is afterwards
        QByteArray buffer;  ///< which was "######"
    };

    /// Asks once for the path "/a/b", of 4 bytes and a terminating zero, with a buffer of @p size.
    static Answer askedWith(std::uint32_t size)
    {
        target = "/a/b";
        QByteArray buffer("######");
        const int result = executablePath(buffer.data(), &size);
        return {result, size, buffer};
    }
};

QTEST_GUILESS_MAIN(ExecutablePathTest)
#include "ExecutablePathTest.moc"
