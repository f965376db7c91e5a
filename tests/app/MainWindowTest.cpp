#include "app/MainWindow.h"

#include "tests/app/standin/services/Connect.h"
#include "ui/DeployBtn.h"
#include "ui/NginxQListView.h"
#include "ui/RpcQListView.h"

#include <QRegularExpression>
#include <QTest>

#include <array>
#include <cstring>
#include <memory>
#include <thread>

class MainWindowTest : public QObject
{
    Q_OBJECT

private slots:
    void init()
    {
        window = std::make_unique<MainWindow>(nullptr);
        deployButton = window->findChild<DeployBtn *>("pushButton");
        stopButton = window->findChild<DeployBtn *>("pushButton_2");
        QVERIFY(deployButton != nullptr && stopButton != nullptr);
        coordinator = new Connect;
        Steps::all.clear();
        Steps::failing.clear();
        window->setConnect(coordinator);
    }

    void cleanup() { window.reset(); }

    void holdsItsFormThenItsCoordinator()
    {
        struct
        {
            const void *form;
            const void *coordinator;
        } fields{};
        const void *behindTheBase = static_cast<QMainWindow *>(window.get()) + 1;
        std::memcpy(&fields, behindTheBase, sizeof fields);
        const void *firstOfTheForm = nullptr;
        std::memcpy(&firstOfTheForm, fields.form, sizeof firstOfTheForm);
        QCOMPARE(firstOfTheForm, window->centralWidget());
        QCOMPARE(fields.coordinator, coordinator);
    }

    void takesItsParent()
    {
        QMainWindow parent;
        QCOMPARE(MainWindow(&parent).parent(), &parent);
    }

    void hasNoFlagsOfItsOwn()
    {
        QCOMPARE(window->windowFlags(), QMainWindow(nullptr).windowFlags());
    }

    void hasNoFlagsOfItsOwnInAParent()
    {
        QMainWindow parent;
        QCOMPARE(MainWindow(&parent).windowFlags(), QMainWindow(&parent).windowFlags());
    }

    void getsAWarningForEachRequestWithoutASlot_data()
    {
        QTest::addColumn<QString>("signal");
        QTest::newRow("the RPC view's") << "RpcQListView::updated";
        QTest::newRow("one that the nginx view has not") << "NginxQListView::nginxUpdatad";
    }

    /// How the toolkit prints a null name depends on its version.
    void getsAWarningForEachRequestWithoutASlot()
    {
        QFETCH(QString, signal);
        const QRegularExpression warning("^QObject::connect: Cannot connect " + signal +
                                         "\\(\\) to MainWindow::\\(null(ptr)?\\)$");
        QTest::ignoreMessage(QtWarningMsg, warning); // the test fails if it does not come
        const MainWindow second(nullptr);
    }

    void handsTheRpcViewOverBeforeTheNginxView()
    {
        QCOMPARE(Steps::all, QStringList({"rpc in listView", "nginx in listView_2"}));
    }

    /// So that it is deleted even if handing the views over fails.
    void ownsTheCoordinatorBeforeItHandsTheViewsOver()
    {
        auto other = std::make_unique<MainWindow>(nullptr);
        Steps::failing = "rpc in listView"; // the first of the two
        QVERIFY_EXCEPTION_THROWN(other->setConnect(new Connect), std::runtime_error);
        other.reset();
        QCOMPARE(Steps::all.last(), "coordinator ends");
    }

    void theDeployButtonOpensNginxThenRpc()
    {
        Steps::all.clear();
        QTest::mousePress(deployButton, Qt::LeftButton);
        QCOMPARE(Steps::all, QStringList({"open nginx", "open rpc"}));
    }

    void theStopButtonClosesRpcThenNginx()
    {
        Steps::all.clear();
        QTest::mousePress(stopButton, Qt::LeftButton);
        QCOMPARE(Steps::all, QStringList({"close rpc", "close nginx"}));
    }

    void theConnectionsAreAutomatic_data()
    {
        QTest::addColumn<QString>("buttonName");
        QTest::newRow("the deploy button's") << "pushButton";
        QTest::newRow("the stop button's") << "pushButton_2";
    }

    /// The toolkit's automatic type: a signal of another thread waits for the event loop.
    void theConnectionsAreAutomatic()
    {
        QFETCH(QString, buttonName);
        auto *button = window->findChild<DeployBtn *>(buttonName);
        Steps::all.clear();
        std::thread([button] { emit button->clicked(); }).join();
        QVERIFY2(Steps::all.isEmpty(), "the slot ran before the event loop");
        QCoreApplication::sendPostedEvents(window.get());
        QVERIFY2(!Steps::all.isEmpty(), "the slot did not run in the event loop");
    }

    void loadingAListDoesNothing_data()
    {
        QTest::addColumn<QByteArray>("slot");
        QTest::newRow("nginx") << QByteArray("loadNginxList");
        QTest::newRow("rpc") << QByteArray("loadRpcList");
    }

    void loadingAListDoesNothing()
    {
        QFETCH(QByteArray, slot);
        Steps::all.clear();
        QVERIFY2(QMetaObject::invokeMethod(window.get(), slot), "there is no such slot");
        QCOMPARE(Steps::all, QStringList());
    }

    void theDestructionStopsTheServicesWhileTheListsExist()
    {
        for (const QListView *view : window->findChildren<QListView *>()) {
            QObject::connect(view, &QObject::destroyed, [] { Steps::all.append("list ends"); });
        }
        Steps::all.clear();
        window.reset();
        QCOMPARE(Steps::all,
                 QStringList({"form ends", "coordinator ends", "list ends", "list ends"}));
    }

    /// In memory where no byte is 0, so that a field without an initial value shows.
    void withoutACoordinatorTheDestructionDeletesNone()
    {
        alignas(MainWindow) std::array<char, sizeof(MainWindow)> memory;
        memory.fill('\xAA');
        const auto *unused = new (memory.data()) MainWindow(nullptr);
        Steps::all.clear();
        unused->~MainWindow();
        QCOMPARE(Steps::all, QStringList("form ends"));
    }

private:
    std::unique_ptr<MainWindow> window;
    Connect *coordinator = nullptr; ///< the window's own
    DeployBtn *deployButton = nullptr;
    DeployBtn *stopButton = nullptr;
};

QTEST_MAIN(MainWindowTest)
#include "MainWindowTest.moc"
