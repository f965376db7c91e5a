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
        window->setConnect(coordinator);
    }

    void cleanup() { window.reset(); }

    void holdsItsFormThenItsCoordinator()
    {
        std::array<const void *, 2> fields{};
        const void *firstOfTheForm = nullptr;
        const void *behindTheBase = static_cast<QMainWindow *>(window.get()) + 1;
        std::memcpy(&fields, behindTheBase, sizeof fields);
        std::memcpy(&firstOfTheForm, fields[0], sizeof firstOfTheForm);
        QCOMPARE(firstOfTheForm, window->centralWidget());
        QCOMPARE(fields[1], coordinator);
    }

    void takesItsParentAndNoFlags()
    {
        QMainWindow parent;
        QCOMPARE(MainWindow(&parent).parent(), &parent);
        QCOMPARE(MainWindow(&parent).windowFlags(), QMainWindow(&parent).windowFlags());
        QCOMPARE(window->windowFlags(), QMainWindow(nullptr).windowFlags());
    }

    /// How the toolkit prints a null name depends on its version.
    void getsAWarningForEachRequestWithoutASlot()
    {
        for (const char *rejected : {"RpcQListView::updated", "NginxQListView::nginxUpdatad"}) {
            const QString text = "^QObject::connect: Cannot connect %1\\(\\) to "
                                 "MainWindow::\\(null(ptr)?\\)$";
            QTest::ignoreMessage(QtWarningMsg, QRegularExpression(text.arg(rejected)));
        }
        const MainWindow second(nullptr); // without such a message the test fails
    }

    void handsTheRpcViewOverBeforeTheNginxView()
    {
        QCOMPARE(Steps::all, QStringList({"rpc in listView", "nginx in listView_2"}));
    }

    /// So that it is deleted even if handing the views over fails.
    void ownsTheCoordinatorBeforeItHandsTheViewsOver()
    {
        auto other = std::make_unique<MainWindow>(nullptr);
        Steps::failing = "rpc in listView";
        QVERIFY_EXCEPTION_THROWN(other->setConnect(new Connect), std::runtime_error);
        Steps::failing.clear();
        other.reset();
        QCOMPARE(Steps::all.last(), "coordinator ends");
    }

    void deploysNginxBeforeRpcAndStopsRpcBeforeNginx()
    {
        Steps::all.clear();
        QTest::mousePress(deployButton, Qt::LeftButton);
        QCOMPARE(Steps::all, deployed);
        QTest::mousePress(stopButton, Qt::LeftButton);
        QCOMPARE(Steps::all, deployed + stopped);
    }

    /// The toolkit's automatic type: not at once when it comes from another thread.
    void theConnectionsAreAutomatic()
    {
        Steps::all.clear();
        std::thread([this] {
            emit deployButton->clicked();
            emit stopButton->clicked();
        }).join();
        QCOMPARE(Steps::all, QStringList());
        QCoreApplication::sendPostedEvents(window.get());
        QCOMPARE(Steps::all, deployed + stopped);
    }

    void loadingTheListsDoesNothing()
    {
        Steps::all.clear();
        QVERIFY(QMetaObject::invokeMethod(window.get(), "loadNginxList"));
        QVERIFY(QMetaObject::invokeMethod(window.get(), "loadRpcList"));
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
    const QStringList deployed{"open nginx", "open rpc"};
    const QStringList stopped{"close rpc", "close nginx"};
    std::unique_ptr<MainWindow> window;
    Connect *coordinator = nullptr; ///< the window's own
    DeployBtn *deployButton = nullptr;
    DeployBtn *stopButton = nullptr;
};

QTEST_MAIN(MainWindowTest)
#include "MainWindowTest.moc"
