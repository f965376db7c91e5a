#include "tests/app/standin/Steps.h"

#include <QTest>

#include <array>

int launcherMain(int argc, char **argv); // the main function of app/main.cpp

/// The program's entry. That its flags are those of the toolkit is held by ContractTest.
class EntryTest : public QObject
{
    Q_OBJECT

private slots:
    void init() { Steps::all.clear(); }

    void takesItsStepsInOrder()
    {
        QCOMPARE(run(), 7); // the event loop's
        QCOMPARE(Steps::all, order + ends);
    }

    /// The coordinator is the window's from setConnect() on, and left behind before.
    void anExceptionUnwindsWhatThereIs()
    {
        for (int steps = 2; steps <= order.size(); ++steps) {
            Steps::all.clear();
            Steps::failing = order.at(steps - 1);
            QVERIFY_EXCEPTION_THROWN(run(), std::runtime_error);
            Steps::failing.clear();
            QCOMPARE(Steps::all, order.mid(0, steps) + ends.mid(qMax(0, 4 - steps)));
        }
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
    const QStringList ends{"window ends", "application ends"};
};

QTEST_APPLESS_MAIN(EntryTest)
#include "EntryTest.moc"
