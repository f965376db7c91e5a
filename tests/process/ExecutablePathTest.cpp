#include "process/ExecutablePath.h"

#include <QFileInfo>
#include <QTest>

/// The path of this very program, asked for in two calls.
class ExecutablePathTest : public QObject
{
    Q_OBJECT

private slots:
    void initTestCase()
    {
        path = QFile::encodeName(QFileInfo("/proc/self/exe").canonicalFilePath());
        QVERIFY(path.startsWith('/'));
    }

    void sizeZeroAsksForTheSize()
    {
        std::uint32_t size = 0;
        QCOMPARE(executablePath(nullptr, &size), -1);
        QCOMPARE(static_cast<int>(size), path.size() + 1); // with the terminating zero
    }

    void bufferIsFilledIfItIsLargeEnough_data()
    {
        QTest::addColumn<int>("missing"); // bytes
        QTest::addColumn<int>("result");
        QTest::newRow("too small") << 1 << -1;
        QTest::newRow("of the needed size") << 0 << 0;
        QTest::newRow("larger") << -99 << 0;
    }

    void bufferIsFilledIfItIsLargeEnough()
    {
        QFETCH(int, missing);
        QFETCH(int, result);
        QByteArray expected(path.size() + 100, '#');
        QByteArray buffer = expected;
        if (result == 0) {
            expected.replace(0, path.size() + 1, path + '\0');
        }
        auto size = static_cast<std::uint32_t>(path.size() + 1 - missing);
        QCOMPARE(executablePath(buffer.data(), &size), result);
        QCOMPARE(buffer, expected);
        QVERIFY(result == 0 || static_cast<int>(size) == path.size() + 1);
    }

private:
    QByteArray path;
};

QTEST_GUILESS_MAIN(ExecutablePathTest)
#include "ExecutablePathTest.moc"
