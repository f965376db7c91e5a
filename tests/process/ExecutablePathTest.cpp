#include "process/ExecutablePath.h"

#include <QFileInfo>
#include <QTest>

/// The path of this very program, asked for in two calls.
class ExecutablePathTest : public QObject
{
    Q_OBJECT

private slots:
    void initTestCase();
    void sizeZeroAsksForTheSize();
    void tooSmallBufferStaysUntouched();
    void bufferOfTheNeededSizeIsFilled();
    void largerBufferIsFilledToTheTerminatingZero();

private:
    QByteArray path;
    std::uint32_t needed = 0; ///< bytes, with the terminating zero
};

void ExecutablePathTest::initTestCase()
{
    path = QFile::encodeName(QFileInfo("/proc/self/exe").canonicalFilePath());
    QVERIFY(path.startsWith('/'));
    needed = static_cast<std::uint32_t>(path.size()) + 1;
}

void ExecutablePathTest::sizeZeroAsksForTheSize()
{
    std::uint32_t size = 0;
    QCOMPARE(executablePath(nullptr, &size), -1);
    QCOMPARE(size, needed);
}

void ExecutablePathTest::tooSmallBufferStaysUntouched()
{
    QByteArray buffer(path.size() + 1, '#');
    std::uint32_t size = needed - 1;
    QCOMPARE(executablePath(buffer.data(), &size), -1);
    QCOMPARE(size, needed);
    QCOMPARE(buffer, QByteArray(path.size() + 1, '#'));
}

void ExecutablePathTest::bufferOfTheNeededSizeIsFilled()
{
    QByteArray buffer(path.size() + 1, '#');
    std::uint32_t size = needed;
    QCOMPARE(executablePath(buffer.data(), &size), 0);
    QCOMPARE(size, needed);
    QCOMPARE(buffer, path + '\0');
}

void ExecutablePathTest::largerBufferIsFilledToTheTerminatingZero()
{
    QByteArray buffer(path.size() + 100, '#');
    std::uint32_t size = needed + 99;
    QCOMPARE(executablePath(buffer.data(), &size), 0);
    QCOMPARE(buffer, path + '\0' + QByteArray(99, '#'));
}

QTEST_GUILESS_MAIN(ExecutablePathTest)
#include "ExecutablePathTest.moc"
