#include "app/MainWindow.h"

#include "tests/support/Allocations.h"
#include "tests/support/Controllers.h"
#include "tests/support/Crash.h"
#include "tests/support/StandardOutput.h"
#include "tests/support/Unset.h"
#include "tests/support/Warnings.h"
#include "tests/support/WatchedView.h"
#include "ui/DeployBtn.h"
#include "ui/NginxQListView.h"
#include "ui/RpcQListView.h"
#include "ui_MainWindow.h"

#include <QApplication>
#include <QMetaMethod>
#include <QRegularExpression>

#include <algorithm>
#include <array>
#include <cstring>
#include <memory>
#include <thread>

using namespace Controllers;

namespace {

/// Members that only a subclass may name.
class Counted : public QObject
{
public:
    static int connections(const QObject *sender, const char *signal)
    {
        return (sender->*(&Counted::receivers))(signal);
    }
};

/// The two pointers that lie behind the base: the form's holder and the coordinator.
std::array<const void *, 2> fieldsOf(const MainWindow &window)
{
    std::array<const void *, 2> fields{};
    std::memcpy(&fields, reinterpret_cast<const char *>(&window) + sizeof(QMainWindow),
                sizeof fields);
    return fields;
}

} // namespace

class MainWindowTest : public QObject
{
    Q_OBJECT

private slots:
    void init()
    {
        CallLog::clear();
        const Warnings silenced;
        window = std::make_unique<MainWindow>(nullptr);
        deployButton = window->findChild<DeployBtn *>("pushButton");
        stopButton = window->findChild<DeployBtn *>("pushButton_2");
        rpcView = window->findChild<RpcQListView *>("listView");
        nginxView = window->findChild<NginxQListView *>("listView_2");
        QVERIFY(deployButton != nullptr && stopButton != nullptr);
        QVERIFY(rpcView != nullptr && nginxView != nullptr);
        connect = new Connect;
        window->setConnect(connect);
    }

    void cleanup()
    {
        CallLog::clear();
        window.reset();
        QVERIFY2(Services::allEnded(), "a service is left");
        Services::removeAll();
    }

    void hasFourPrivateSlotsInOrder()
    {
        const QMetaObject &meta = MainWindow::staticMetaObject;
        QCOMPARE(meta.className(), "MainWindow");
        QCOMPARE(meta.superClass()->className(), "QMainWindow");
        QStringList own;
        for (int i = meta.methodOffset(); i < meta.methodCount(); ++i) {
            const QMetaMethod method = meta.method(i);
            QCOMPARE(method.methodType(), QMetaMethod::Slot);
            QCOMPARE(method.access(), QMetaMethod::Private);
            QCOMPARE(method.returnType(), static_cast<int>(QMetaType::Void));
            own.append(method.methodSignature());
        }
        QCOMPARE(own, QStringList({"deployService()", "stopService()", "loadNginxList()",
                                   "loadRpcList()"}));
        QCOMPARE(meta.propertyCount(), meta.propertyOffset());
        QCOMPARE(meta.enumeratorCount(), meta.enumeratorOffset());
    }

    void holdsItsFormThenItsCoordinator()
    {
        QCOMPARE(sizeof(MainWindow), sizeof(QMainWindow) + 2 * sizeof(void *));
        QCOMPARE(fieldsOf(*window)[1], connect);
        const void *first = nullptr; // the first pointer of the form's holder
        std::memcpy(&first, fieldsOf(*window)[0], sizeof first);
        QCOMPARE(first, window->centralWidget());
    }

    void makesItsFormOnTheHeap()
    {
        const Warnings silenced;
        Allocations::record();
        const MainWindow second(nullptr);
        const auto events = Allocations::recorded();
        QVERIFY(std::any_of(events.begin(), events.end(), [&](const Allocations::Event &event) {
            return event.made && event.address == fieldsOf(second)[0] &&
                   event.bytes == sizeof(Ui_MainWindow);
        }));
    }

    void startsWithoutACoordinatorAndDeletesNone()
    {
        const Warnings silenced;
        const Unset<MainWindow> unset(nullptr);
        QCOMPARE(fieldsOf(*unset)[1], nullptr);
    }

    void takesItsParentAndNoFlags()
    {
        const Warnings silenced;
        QMainWindow parent;
        const auto *child = new MainWindow(&parent);
        const auto *plain = new QMainWindow(&parent);
        QCOMPARE(child->parent(), &parent);
        QCOMPARE(child->windowFlags(), plain->windowFlags());
        QCOMPARE(window->parent(), nullptr);
        QCOMPARE(window->windowFlags(), QMainWindow(nullptr).windowFlags());
    }

    void isFilledWithTheForm()
    {
        QCOMPARE(window->objectName(), "MainWindow");
        QCOMPARE(window->size(), QSize(476, 374));
        QCOMPARE(deployButton->text(), "Deploy Servicde");
        QCOMPARE(stopButton->text(), "Stop Service");
    }

    /// Two requests are accepted, then two are rejected with a warning each. How the toolkit prints
    /// a null name depends on its version.
    void makesTwoConnectionsAndGetsTwoWarnings()
    {
        Warnings warnings;
        QList<int> connections; // when the first warning comes
        warnings.atText = [&] {
            if (warnings.texts.size() == 1) {
                for (const QWidget *widget : QApplication::allWidgets()) {
                    if (widget != deployButton && widget != stopButton &&
                        qobject_cast<const DeployBtn *>(widget) != nullptr) {
                        connections.append(Counted::connections(widget, SIGNAL(clicked())));
                    }
                }
            }
        };
        const MainWindow second(nullptr);
        QCOMPARE(connections, QList<int>({1, 1}));
        QCOMPARE(warnings.texts.size(), 2);
        const QString rejected =
            "^warning: QObject::connect: Cannot connect %1::%2 to MainWindow::\\(null(ptr)?\\)$";
        const QRegularExpression first(rejected.arg("RpcQListView", "updated\\(\\)"));
        const QRegularExpression last(rejected.arg("NginxQListView", "nginxUpdatad\\(\\)"));
        QVERIFY2(first.match(warnings.texts.at(0)).hasMatch(), qPrintable(warnings.texts.at(0)));
        QVERIFY2(last.match(warnings.texts.at(1)).hasMatch(), qPrintable(warnings.texts.at(1)));
    }

    void onlyTheButtonsAreConnected()
    {
        QCOMPARE(Counted::connections(deployButton, SIGNAL(clicked())), 1);
        QCOMPARE(Counted::connections(stopButton, SIGNAL(clicked())), 1);
        QCOMPARE(Counted::connections(deployButton, SIGNAL(clicked(bool))), 0);
        QCOMPARE(Counted::connections(rpcView, SIGNAL(updated())), 0);
        QCOMPARE(Counted::connections(nginxView, SIGNAL(nginxUpdated())), 0);
        QVERIFY(QObject::disconnect(deployButton, SIGNAL(clicked()), window.get(),
                                    SLOT(deployService())));
        QVERIFY(
            QObject::disconnect(stopButton, SIGNAL(clicked()), window.get(), SLOT(stopService())));
    }

    /// The toolkit's automatic type: at once on the window's thread, and through its event loop
    /// from another.
    void theConnectionsAreAutomatic()
    {
        const auto clickElsewhere = [](DeployBtn *button) {
            std::thread([button] {
                QMetaObject::invokeMethod(button, "clicked", Qt::DirectConnection);
            }).join();
        };
        clickElsewhere(deployButton);
        QCOMPARE(nginxView->model(), nullptr);
        QCoreApplication::sendPostedEvents(window.get());
        QVERIFY(nginxView->model() != nullptr);

        clickElsewhere(stopButton);
        QVERIFY(nginxOf(*connect) != nullptr);
        QCoreApplication::sendPostedEvents(window.get());
        QCOMPARE(nginxOf(*connect), nullptr);

        emit deployButton->clicked();
        QVERIFY(nginxOf(*connect) != nullptr);
        emit stopButton->clicked();
        QCOMPARE(nginxOf(*connect), nullptr);
    }

    /// With controllers that are there already, each view starts its own again.
    void handsTheRpcViewOverBeforeTheNginxView()
    {
        const Warnings silenced;
        MainWindow other(nullptr);
        auto *deployed = new Connect;
        deployed->openNginx();
        deployed->openRpc();
        const auto *rpcs = other.findChild<RpcQListView *>("listView");
        const auto *nginxs = other.findChild<NginxQListView *>("listView_2");
        QList<int> rpcRows; // when the nginx view changes
        bool owned = false;
        QObject::connect(nginxs, &NginxQListView::nginxUpdated, this, [&] {
            rpcRows.append(rowsOf(rpcs->model()).size());
            owned = fieldsOf(other)[1] == deployed;
        });
        other.setConnect(deployed);
        QCOMPARE(rpcRows, QList<int>({4, 4}));
        QVERIFY(owned);
        QCOMPARE(rowsOf(nginxs->model()).size(), 4);
        QCOMPARE(fieldsOf(other)[1], deployed);
    }

    void deploysNginxBeforeRpc()
    {
        QList<int> rpcRows;
        QObject::connect(nginxView, &NginxQListView::nginxUpdated, this,
                         [&] { rpcRows.append(rowsOf(rpcView->model()).size()); });
        press(deployButton);
        QCOMPARE(rpcRows, QList<int>({0, 0}));
        const QString root = BundleTest::root();
        QCOMPARE(rowsOf(nginxView->model()),
                 QStringList({root + "/nginx/sbin/nginx", "File not found"}));
        QCOMPARE(rowsOf(rpcView->model()),
                 QStringList({root + "/rpcServer/MacOs/rpcServer", "File not found"}));
    }

    void aPressDeploysBeforeTheRelease()
    {
        install();
        show();
        press(deployButton);
        QVERIFY(areIdle(*connect));
        const QStringList before = sorted(CallLog::lines());
        QCOMPARE(before, QStringList({"nginx starts", "rpc starts"}));
        QTest::mouseRelease(deployButton, Qt::LeftButton, Qt::NoModifier, {500, 500});
        QTest::keyClick(deployButton, Qt::Key_Space);
        QCOMPARE(sorted(CallLog::lines()), before);
    }

    void otherPressesDoNothing_data()
    {
        QTest::addColumn<bool>("deployed");
        QTest::newRow("idle") << false;
        QTest::newRow("deployed") << true;
    }

    void otherPressesDoNothing()
    {
        QFETCH(bool, deployed);
        install();
        show();
        if (deployed) {
            press(deployButton);
            QVERIFY(areIdle(*connect));
        }
        const QStringList before = CallLog::lines();
        const QAbstractItemModel *model = nginxView->model();
        for (DeployBtn *button : {deployButton, stopButton}) {
            QTest::mouseClick(button, Qt::RightButton);
            QTest::mouseClick(button, Qt::MiddleButton);
            button->setFocus();
            QTest::keyClick(button, Qt::Key_Space);
        }
        QCOMPARE(CallLog::lines(), before);
        QCOMPARE(nginxView->model(), model);
        QCOMPARE(nginxOf(*connect) != nullptr, deployed);
        QCOMPARE(rpcOf(*connect) != nullptr, deployed);
    }

    void aSecondPressDeploysAnew()
    {
        install();
        show();
        press(deployButton);
        QVERIFY(areIdle(*connect));
        const QStringList expected = kills();
        CallLog::clear();
        press(deployButton);
        QVERIFY(areIdle(*connect));
        // The new services note their starts in their own time.
        const QStringList asked = CallLog::lines().filter(QRegularExpression("^(system|kill) "));
        QCOMPARE(asked, QStringList({stopCommand(), expected.at(1), expected.at(0)}));
        QCOMPARE(rowsOf(nginxView->model()).size(), 2);
        QCOMPARE(rowsOf(rpcView->model()).size(), 2);
    }

    void stopsRpcBeforeNginx()
    {
        install();
        show();
        press(deployButton);
        QVERIFY(areIdle(*connect));
        const QStringList expected = kills();
        CallLog::clear();
        press(stopButton);
        QCOMPARE(CallLog::lines(),
                 QStringList({expected.at(0), stopCommand(), "nginx stops", expected.at(1)}));
        QVERIFY(Services::allEnded());
        QCOMPARE(nginxOf(*connect), nullptr);
        QCOMPARE(rpcOf(*connect), nullptr);
        // What was shown stays.
        QCOMPARE(rowsOf(nginxView->model()).size(), 2);
        QCOMPARE(rowsOf(rpcView->model()).size(), 2);
    }

    void aStopWhileIdleEndsTheProcess()
    {
        const Crash::End end = Crash::inAnotherProcess([&](const auto &say) {
            say("stop");
            press(stopButton);
            say("survived");
        });
        QCOMPARE(end.said, QByteArray("stop\n"));
        QVERIFY2(end.wasKilledBy(SIGSEGV), qPrintable(end.text()));
    }

    void aStopWithoutNginxStillStopsRpcFirst()
    {
        install();
        connect->openRpc();
        QVERIFY(eventually([&] { return isIdleNow(rpcOf(*connect), "rpc starts"); }));
        CallLog::clear();
        const QString kill = killOf(rpcOf(*connect));
        const Crash::End end =
            Crash::inAnotherProcess([&](const Crash::Say &) { press(stopButton); });
        QVERIFY2(end.wasKilledBy(SIGSEGV), qPrintable(end.text()));
        QCOMPARE(CallLog::lines(), QStringList(kill));
    }

    void loadingTheListsDoesNothing()
    {
        install();
        show();
        press(deployButton);
        QVERIFY(areIdle(*connect));
        const QStringList before = CallLog::lines();
        const QAbstractItemModel *nginxModel = nginxView->model();
        const QAbstractItemModel *rpcModel = rpcView->model();
        const Nginx *nginx = nginxOf(*connect);
        const RpcServer *rpc = rpcOf(*connect);
        const StandardOutput output;
        const Warnings warnings;
        QVERIFY(QMetaObject::invokeMethod(window.get(), "loadNginxList"));
        QVERIFY(QMetaObject::invokeMethod(window.get(), "loadRpcList"));
        QCOMPARE(CallLog::lines(), before);
        QCOMPARE(nginxView->model(), nginxModel);
        QCOMPARE(rpcView->model(), rpcModel);
        QCOMPARE(nginxOf(*connect), nginx);
        QCOMPARE(rpcOf(*connect), rpc);
        QCOMPARE(output.text(), QByteArray());
        QCOMPARE(warnings.texts, QStringList());
    }

    void theDestructionStopsTheServicesWhileTheListsExist()
    {
        install();
        show();
        press(deployButton);
        QVERIFY(areIdle(*connect));
        const QStringList expected = kills();
        const void *form = fieldsOf(*window)[0];
        const QPointer<QObject> nginxList(nginxView);
        const QPointer<QObject> rpcList(rpcView);
        QStringList seen;
        const auto look = [&] {
            seen.append(QString("form %1, coordinator %2, lists %3")
                            .arg(Allocations::wasDeleted(form) ? "gone" : "there",
                                 Allocations::wasDeleted(connect) ? "gone" : "there",
                                 nginxList.isNull() || rpcList.isNull() ? "gone" : "there"));
        };
        CallLog::clear();
        CallLog::atKill = [&](pid_t) { look(); };
        CallLog::atSystem = look;
        Allocations::record();
        window.reset();
        Allocations::recorded();
        const QString then = "form gone, coordinator there, lists there";
        QCOMPARE(seen, QStringList({then, then, then}));
        QCOMPARE(CallLog::lines(),
                 QStringList({expected.at(0), stopCommand(), "nginx stops", expected.at(1)}));
        QVERIFY(Allocations::wasDeleted(connect));
        QVERIFY(nginxList.isNull());
        QVERIFY(rpcList.isNull());
    }

private:
    static void install()
    {
        Services::installNginx();
        Services::installRpcServer();
    }

    void show()
    {
        window->show();
        QVERIFY(QTest::qWaitForWindowExposed(window.get()));
    }

    static void press(DeployBtn *button) { QTest::mousePress(button, Qt::LeftButton); }

    /// Of the RPC server, then of nginx.
    QStringList kills() const { return {killOf(rpcOf(*connect)), killOf(nginxOf(*connect))}; }
    static QStringList sorted(QStringList lines)
    {
        lines.sort();
        return lines;
    }

    std::unique_ptr<MainWindow> window;
    Connect *connect = nullptr; ///< the window's own
    DeployBtn *deployButton = nullptr;
    DeployBtn *stopButton = nullptr;
    RpcQListView *rpcView = nullptr;
    NginxQListView *nginxView = nullptr;
};

BUNDLE_TEST_MAIN(QApplication, MainWindowTest)
#include "MainWindowTest.moc"
