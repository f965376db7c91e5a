#include "tests/app/entry/QApplication"

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
        run();
        QCOMPARE(Steps::all, QStringList({"coordinator", "application", "window", "set coordinator",
                                          "show", "loop", "window ends", "application ends"}));
    }

    void returnsTheStatusOfTheEventLoop() { QCOMPARE(run(), QApplication::loopStatus); }

    void applicationGetsTheArguments()
    {
        run();
        QCOMPARE(QApplication::arguments, QStringList({"orvane", "-mine"}));
    }

    void applicationGetsTheDefaultFlags()
    {
        run();
        QCOMPARE(QApplication::flags, int{QApplication::ApplicationFlags});
    }

    void anExceptionUnwindsWhatThereIs_data()
    {
        QTest::addColumn<QString>("failsAt");
        QTest::addColumn<QStringList>("unwinds");
        const QStringList nothing;
        const QStringList application{"application ends"};
        const QStringList windowAndApplication{"window ends", "application ends"};
        QTest::newRow("fails at: application; unwinds: nothing") << "application" << nothing;
        QTest::newRow("fails at: window; unwinds: application") << "window" << application;
        QTest::newRow("fails at: set coordinator; unwinds: window, application")
            << "set coordinator" << windowAndApplication;
        QTest::newRow("fails at: show; unwinds: window, application")
            << "show" << windowAndApplication;
        QTest::newRow("fails at: loop; unwinds: window, application")
            << "loop" << windowAndApplication;
    }

    /// The coordinator is the window's from setConnect() on, and left behind before.
    void anExceptionUnwindsWhatThereIs()
    {
        QFETCH(QString, failsAt);
        QFETCH(QStringList, unwinds);
        Steps::failing = failsAt;
        QVERIFY_EXCEPTION_THROWN(run(), std::runtime_error);
        const QStringList afterTheFailure = Steps::all.mid(Steps::all.indexOf(failsAt) + 1);
        QCOMPARE(afterTheFailure, unwinds);
    }

private:
    static int run()
    {
        char name[] = "orvane";
        char argument[] = "-mine";
        std::array<char *, 3> arguments{name, argument, nullptr};
        return launcherMain(2, arguments.data());
    }
};

QTEST_APPLESS_MAIN(EntryTest)
#include "EntryTest.moc"
