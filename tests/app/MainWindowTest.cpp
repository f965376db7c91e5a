#include "app/MainWindow.h"

#include "tests/support/Controllers.h"
#include "tests/support/Deletions.h"
#include "tests/support/StandardOutput.h"
#include "tests/support/Unset.h"
#include "tests/support/Warnings.h"
#include "ui/DeployBtn.h"
#include "ui/NginxQListView.h"
#include "ui/RpcQListView.h"

#include <QApplication>
#include <QPointer>
#include <QRegularExpression>

#include <array>
#include <cstring>
#include <memory>
#include <thread>

using namespace Controllers;
using namespace Services;

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

int rowsOf(const QListView *view)
{
    return view->model() == nullptr ? 0 : view->model()->rowCount();
}

} // namespace

class MainWindowTest : public QObject
{
    Q_OBJECT

private slots:
    void init()
    {
        SystemCalls::recordStops();
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
        SystemCalls::stop();
        window.reset();
        removeAll();
    }

    void holdsItsFormThenItsCoordinator()
    {
        const void *first = nullptr; // the first pointer of the form's holder
        std::memcpy(&first, fieldsOf(*window)[0], sizeof first);
        QCOMPARE(first, window->centralWidget());
        QCOMPARE(fieldsOf(*window)[1], connect);
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
        QCOMPARE(child->parent(), &parent);
        QCOMPARE(child->windowFlags(), QMainWindow(&parent).windowFlags());
        QCOMPARE(window->parent(), nullptr);
        QCOMPARE(window->windowFlags(), QMainWindow(nullptr).windowFlags());
    }

    /// Two requests are accepted, then two are rejected with a warning each. How the toolkit prints
    /// a null name depends on its version.
    void makesTwoConnectionsAndGetsTwoWarnings()
    {
        Warnings warnings;
        QList<int> connections; // when the first warning comes
        warnings.atText = [&] {
            for (const QWidget *widget : QApplication::allWidgets()) {
                if (widget != deployButton && widget != stopButton && warnings.texts.size() == 1 &&
                    qobject_cast<const DeployBtn *>(widget) != nullptr) {
                    connections.append(Counted::connections(widget, SIGNAL(clicked())));
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
        QCOMPARE(Counted::connections(rpcView, SIGNAL(updated())), 0);
        QCOMPARE(Counted::connections(nginxView, SIGNAL(nginxUpdated())), 0);
    }

    /// The toolkit's automatic type: at once on the window's thread, and through its event loop
    /// from another.
    void theConnectionsAreAutomatic()
    {
        const auto clickElsewhere = [](DeployBtn *button) {
            std::thread([button] { emit button->clicked(); }).join();
        };
        clickElsewhere(deployButton);
        QCOMPARE(nginxOf(*connect), nullptr);
        QCoreApplication::sendPostedEvents(window.get());
        QVERIFY(nginxOf(*connect) != nullptr);
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
            rpcRows.append(rowsOf(rpcs));
            owned = fieldsOf(other)[1] == deployed;
        });
        other.setConnect(deployed);
        QCOMPARE(rpcRows, QList<int>({4, 4}));
        QVERIFY(owned);
        QCOMPARE(rowsOf(nginxs), 4);
    }

    void deploysNginxBeforeRpcAndStopsRpcBeforeNginx()
    {
        installBoth();
        QList<int> rpcRows; // when the nginx view changes
        QObject::connect(nginxView, &NginxQListView::nginxUpdated, this,
                         [&] { rpcRows.append(rowsOf(rpcView)); });
        press(deployButton);
        QCOMPARE(rpcRows, QList<int>({0, 0}));
        QVERIFY(areIdle(*connect));
        const QString rpcKill = killOf(rpcOf(*connect));
        const QString nginxKill = killOf(nginxOf(*connect));
        SystemCalls::recordStops();
        press(stopButton);
        QCOMPARE(SystemCalls::lines(),
                 QStringList({rpcKill, stopCommand(), "nginx stops", nginxKill}));
        QCOMPARE(nginxOf(*connect), nullptr);
        QCOMPARE(rpcOf(*connect), nullptr);
        QCOMPARE(rowsOf(nginxView), 2); // what was shown stays
        QCOMPARE(rowsOf(rpcView), 2);
    }

    void loadingTheListsDoesNothing()
    {
        press(deployButton);
        const QAbstractItemModel *models[] = {nginxView->model(), rpcView->model()};
        const Nginx *nginx = nginxOf(*connect);
        const StandardOutput output;
        const Warnings warnings;
        QVERIFY(QMetaObject::invokeMethod(window.get(), "loadNginxList"));
        QVERIFY(QMetaObject::invokeMethod(window.get(), "loadRpcList"));
        QCOMPARE(nginxView->model(), models[0]);
        QCOMPARE(rpcView->model(), models[1]);
        QCOMPARE(nginxOf(*connect), nginx);
        QCOMPARE(output.text(), QByteArray());
        QCOMPARE(warnings.texts, QStringList());
    }

    void theDestructionStopsTheServicesWhileTheListsExist()
    {
        installBoth();
        press(deployButton);
        QVERIFY(areIdle(*connect));
        const QString rpcKill = killOf(rpcOf(*connect));
        const QString nginxKill = killOf(nginxOf(*connect));
        const void *form = fieldsOf(*window)[0];
        const QPointer<QObject> nginxList(nginxView);
        const QPointer<QObject> rpcList(rpcView);
        QStringList seen;
        const auto look = [&] {
            seen.append(QString("form %1, coordinator %2, lists %3")
                            .arg(Deletions::happened(form) ? "gone" : "there",
                                 Deletions::happened(connect) ? "gone" : "there",
                                 nginxList.isNull() || rpcList.isNull() ? "gone" : "there"));
        };
        SystemCalls::recordStops();
        SystemCalls::at("kill", look);
        SystemCalls::at("system", look);
        Deletions::watch(form, connect);
        window.reset();
        const QString then = "form gone, coordinator there, lists there";
        QCOMPARE(seen, QStringList({then, then, then}));
        QCOMPARE(SystemCalls::lines(),
                 QStringList({rpcKill, stopCommand(), "nginx stops", nginxKill}));
        QVERIFY(Deletions::happened(connect));
        QVERIFY(nginxList.isNull());
        QVERIFY(rpcList.isNull());
    }

private:
    static void press(DeployBtn *button) { QTest::mousePress(button, Qt::LeftButton); }

    std::unique_ptr<MainWindow> window;
    Connect *connect = nullptr; ///< the window's own
    DeployBtn *deployButton = nullptr;
    DeployBtn *stopButton = nullptr;
    RpcQListView *rpcView = nullptr;
    NginxQListView *nginxView = nullptr;
};

BUNDLE_TEST_MAIN(QApplication, MainWindowTest)
#include "MainWindowTest.moc"
