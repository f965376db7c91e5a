#include "app/MainWindow.h"

#include "tests/support/Controllers.h"
#include "tests/support/Deletions.h"
#include "tests/support/StandardOutput.h"
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

    void takesItsParentAndNoFlags()
    {
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
        static QStringList warnings;
        warnings.clear();
        const auto before = qInstallMessageHandler(
            [](QtMsgType type, const QMessageLogContext &, const QString &text) {
                warnings << QString("%1, %2 connected").arg(type).arg(connections());
                warnings << text;
            });
        const MainWindow second(nullptr);
        qInstallMessageHandler(before);
        const QString rejected =
            "^1, 4 connected\nQObject::connect: Cannot connect RpcQListView::updated\\(\\) to "
            "MainWindow::\\(null(ptr)?\\)\n1, 4 connected\nQObject::connect: Cannot connect "
            "NginxQListView::nginxUpdatad\\(\\) to MainWindow::\\(null(ptr)?\\)$";
        const QString seen = warnings.join('\n');
        QVERIFY2(QRegularExpression(rejected).match(seen).hasMatch(), qPrintable(seen));
        QCOMPARE(connections(), 4);
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
        const Nginx *deployed = nginxOf(*connect);
        const StandardOutput output;
        QVERIFY(QMetaObject::invokeMethod(window.get(), "loadNginxList"));
        QVERIFY(QMetaObject::invokeMethod(window.get(), "loadRpcList"));
        QCOMPARE(nginxView->model(), models[0]);
        QCOMPARE(rpcView->model(), models[1]);
        QCOMPARE(nginxOf(*connect), deployed);
        QCOMPARE(output.text(), QByteArray());
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
    /// Of all the buttons and lists that there are, this window's among them.
    static int connections()
    {
        int count = 0;
        for (const QWidget *widget : QApplication::allWidgets()) {
            if (qobject_cast<const DeployBtn *>(widget) != nullptr) {
                count += Counted::connections(widget, SIGNAL(clicked()));
            } else if (qobject_cast<const RpcQListView *>(widget) != nullptr) {
                count += Counted::connections(widget, SIGNAL(updated()));
            } else if (qobject_cast<const NginxQListView *>(widget) != nullptr) {
                count += Counted::connections(widget, SIGNAL(nginxUpdated()));
            }
        }
        return count;
    }

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
