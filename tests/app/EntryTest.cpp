#include "tests/app/entry/Steps.h"

#include <QTest>

#include <array>

int launcherMain(int argc, char **argv); // the main function of app/main.cpp

/// The program's entry. That its flags are those of the toolkit is held by ContractTest.
class EntryTest : public QObject
{
    Q_OBJECT

private slots:
    void init()
    {
        Steps::all.clear();
        Steps::failing.clear();
    }

    void takesItsStepsInOrder()
    {
        QCOMPARE(run(), 7); // the event loop's
        QCOMPARE(Steps::all, order + QStringList({"window ends", "application ends"}));
    }

    void anExceptionUnwindsWhatThereIs_data()
    {
        QTest::addColumn<int>("steps"); // until it comes
        QTest::addColumn<QStringList>("unwound");
        QTest::newRow("in the application") << 2 << QStringList();
        QTest::newRow("in the window") << 3 << QStringList("application ends");
        for (int steps = 4; steps <= order.size(); ++steps) {
            QTest::newRow(qPrintable(order.at(steps - 1)))
                << steps << QStringList({"window ends", "application ends"});
        }
    }

    /// The coordinator is the window's from setConnect() on, and left behind before.
    void anExceptionUnwindsWhatThereIs()
    {
        QFETCH(int, steps);
        QFETCH(QStringList, unwound);
        Steps::failing = order.at(steps - 1);
        QVERIFY_EXCEPTION_THROWN(run(), std::runtime_error);
        QCOMPARE(Steps::all, order.mid(0, steps) + unwound);
    }

private:
    static int run()
    {
        char name[] = "orvane";
        char argument[] = "-mine";
        std::array<char *, 3> arguments{name, argument, nullptr};
        return launcherMain(2, arguments.data());
    }

    const QStringList order{
        "coordinator", "application 2 -mine 330499", "window", "set coordinator", "show", "loop"};
};

QTEST_APPLESS_MAIN(EntryTest)
#include "EntryTest.moc"
