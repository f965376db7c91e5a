#include "app/MainWindow.h"
#include "services/Connect.h"
#include "services/Nginx.h"
#include "services/RpcServer.h"
#include "ui/DeployBtn.h"
#include "ui/NginxQListView.h"
#include "ui/RpcQListView.h"
#include "ui_MainWindow.h"

#include <QApplication>
#include <QMetaMethod>
#include <QTest>

#include <array>
#include <cstddef>
#include <cstring>
#include <memory>
#include <new>
#include <type_traits>

// The layout of the classes that is contract: which fields, of which type, in which order, and
// nothing else, such as a lock, between or behind them. GCC and Clang lay out a class with a base
// as they lay out a structure with the same fields in a row.
#pragma GCC diagnostic ignored "-Winvalid-offsetof"

namespace {

struct RunnerFields
{
    void *virtualSlots;
    bool running;
    std::int32_t childPid;
    std::array<std::int32_t, 2> pipeFds;
    std::int32_t readerResult;
    bool launchRequested;
    std::string basePath;
    pthread_t readerThread;
    std::uintptr_t reserved;
};

struct ControllerFields
{
    RunnerFields runner;
    void *view;
    QStringList messages;
};

/// Whether the field of that name has the same place and the same type in both.
#define SAME_FIELD(Class, Fields, field)                                                           \
    static_assert(offsetof(Class, field) == offsetof(Fields, field));                              \
    static_assert(std::is_same_v<decltype(Class::field), decltype(Fields::field)>)

struct Runner : MyProgress
{
    static void layout()
    {
        SAME_FIELD(Runner, RunnerFields, running);
        SAME_FIELD(Runner, RunnerFields, childPid);
        SAME_FIELD(Runner, RunnerFields, pipeFds);
        SAME_FIELD(Runner, RunnerFields, readerResult);
        SAME_FIELD(Runner, RunnerFields, launchRequested);
        SAME_FIELD(Runner, RunnerFields, basePath);
        SAME_FIELD(Runner, RunnerFields, readerThread);
        SAME_FIELD(Runner, RunnerFields, reserved);
        static_assert(sizeof(MyProgress) == sizeof(RunnerFields));
        static_assert(sizeof(reserved) == sizeof(void *));
    }
};

template <typename Controller, typename View>
struct Controlled : Controller
{
    static void layout()
    {
        static_assert(offsetof(Controlled, view) == offsetof(ControllerFields, view));
        static_assert(std::is_same_v<decltype(Controlled::view), View *>);
        SAME_FIELD(Controlled, ControllerFields, messages);
        static_assert(sizeof(Controller) == sizeof(ControllerFields));
    }
    bool isEmpty() const { return this->view == nullptr && this->messages.isEmpty(); }
    virtual void further() {}
};
template struct Controlled<Nginx, NginxQListView>;
template struct Controlled<RpcServer, RpcQListView>;

struct Coordinator : Connect
{
    static void layout()
    {
        static_assert(offsetof(Coordinator, nginx) == 0 * sizeof(void *));
        static_assert(offsetof(Coordinator, rpc) == 1 * sizeof(void *));
        static_assert(offsetof(Coordinator, rpcView) == 2 * sizeof(void *));
        static_assert(offsetof(Coordinator, nginxView) == 3 * sizeof(void *));
        static_assert(sizeof(Connect) == 4 * sizeof(void *));
        static_assert(std::is_same_v<decltype(nginx), Nginx *>);
        static_assert(std::is_same_v<decltype(rpc), RpcServer *>);
        static_assert(std::is_same_v<decltype(rpcView), RpcQListView *>);
        static_assert(std::is_same_v<decltype(nginxView), NginxQListView *>);
    }
    bool isEmpty() const
    {
        return nginx == nullptr && rpc == nullptr && rpcView == nullptr && nginxView == nullptr;
    }
};

static_assert(sizeof(DeployBtn) == sizeof(QPushButton));
static_assert(sizeof(NginxQListView) == sizeof(QListView));
static_assert(sizeof(RpcQListView) == sizeof(QListView));
static_assert(sizeof(MainWindow) == sizeof(QMainWindow) + 2 * sizeof(void *));

/// One pointer for each element of the form, in this order, with two spacers at 5 and 7.
constexpr std::array<std::size_t, 27> formPlaces{offsetof(Ui_MainWindow, centralWidget),
                                                 offsetof(Ui_MainWindow, gridLayout),
                                                 offsetof(Ui_MainWindow, verticalLayout),
                                                 offsetof(Ui_MainWindow, verticalLayout_2),
                                                 offsetof(Ui_MainWindow, horizontalLayout_2),
                                                 offsetof(Ui_MainWindow, label),
                                                 offsetof(Ui_MainWindow, verticalLayout_5),
                                                 offsetof(Ui_MainWindow, tabWidget),
                                                 offsetof(Ui_MainWindow, tab),
                                                 offsetof(Ui_MainWindow, gridLayout_4),
                                                 offsetof(Ui_MainWindow, verticalLayout_6),
                                                 offsetof(Ui_MainWindow, label_2),
                                                 offsetof(Ui_MainWindow, verticalLayout_8),
                                                 offsetof(Ui_MainWindow, label_3),
                                                 offsetof(Ui_MainWindow, verticalLayout_9),
                                                 offsetof(Ui_MainWindow, label_4),
                                                 offsetof(Ui_MainWindow, tab_2),
                                                 offsetof(Ui_MainWindow, gridLayout_2),
                                                 offsetof(Ui_MainWindow, listView),
                                                 offsetof(Ui_MainWindow, tab_5),
                                                 offsetof(Ui_MainWindow, gridLayout_3),
                                                 offsetof(Ui_MainWindow, listView_2),
                                                 offsetof(Ui_MainWindow, horizontalLayout_3),
                                                 offsetof(Ui_MainWindow, horizontalLayout_8),
                                                 offsetof(Ui_MainWindow, pushButton),
                                                 offsetof(Ui_MainWindow, horizontalLayout_9),
                                                 offsetof(Ui_MainWindow, pushButton_2)};

constexpr bool formIsInOrder()
{
    for (std::size_t i = 0; i < formPlaces.size(); ++i) {
        const std::size_t spacers = i < 5 ? 0 : i < 6 ? 1 : 2;
        if (formPlaces[i] != (i + spacers) * sizeof(void *)) {
            return false;
        }
    }
    return true;
}
static_assert(formIsInOrder());
static_assert(sizeof(Ui_MainWindow) == 29 * sizeof(void *));
static_assert(std::is_trivially_destructible_v<Ui_MainWindow>); // it owns nothing

static_assert(std::has_virtual_destructor_v<MyProgress>);
static_assert(std::is_base_of_v<MyProgress, Nginx> && std::is_base_of_v<MyProgress, RpcServer>);
static_assert(!std::is_copy_constructible_v<MyProgress> && !std::is_copy_assignable_v<MyProgress>);
static_assert(!std::is_copy_constructible_v<Connect> && !std::is_copy_assignable_v<Connect>);
static_assert(std::is_same_v<decltype(&MyProgress::getBasePath),
                             std::string (MyProgress::*)() const>); // a copy

// The entry leaves the flags of its application object at the toolkit's default.
static_assert(QApplication::ApplicationFlags == QT_VERSION);

/// An object made in memory where no byte is 0, so that a field without an initial value shows.
/// Holds for what a constructor leaves alone in a build without optimisation.
template <typename Object>
std::unique_ptr<Object> madeInDirt()
{
    void *memory = ::operator new(sizeof(Object));
    auto *bytes = static_cast<volatile unsigned char *>(memory);
    for (std::size_t i = 0; i < sizeof(Object); ++i) {
        bytes[i] = 0xAA;
    }
    return std::unique_ptr<Object>(::new (memory) Object);
}

/// By the C++ ABI that GCC and Clang share, a pointer to a virtual member holds the offset of its
/// slot, on some machines marked in the lowest bit.
template <typename Member>
std::ptrdiff_t slotOf(Member member)
{
    std::ptrdiff_t offset = 0;
    std::memcpy(&offset, &member, sizeof offset);
    return offset / static_cast<std::ptrdiff_t>(sizeof(void *));
}

} // namespace

Q_DECLARE_METATYPE(const QMetaObject *)

/// What the compiler cannot be asked of the contract.
class ContractTest : public QObject
{
    Q_OBJECT

private slots:
    void coordinatorAndControllersStartEmpty()
    {
        const auto connect = madeInDirt<Coordinator>();
        QVERIFY(connect->isEmpty());
        const auto nginx = madeInDirt<Controlled<Nginx, NginxQListView>>();
        QVERIFY(nginx->isEmpty());
        const auto rpc = madeInDirt<Controlled<RpcServer, RpcQListView>>();
        QVERIFY(rpc->isEmpty());
    }

    /// Its last field, which is the coordinator. Destroyed, it deletes none.
    void windowStartsWithoutACoordinator()
    {
        const auto window = madeInDirt<MainWindow>();
        const void *connect = window.get();
        std::memcpy(&connect, reinterpret_cast<const char *>(window.get() + 1) - sizeof(void *),
                    sizeof(void *));
        QCOMPARE(connect, nullptr);
    }

    /// The destructor takes two slots; the sink is behind it, and the last.
    void theSinkIsBehindTheDestructor()
    {
        struct Further : MyProgress
        {
            virtual void further() {}
        };
        QCOMPARE(slotOf(&MyProgress::insertMsg), 2);
        QCOMPARE(slotOf(&Nginx::insertMsg), 2);
        QCOMPARE(slotOf(&RpcServer::insertMsg), 2);
        QCOMPARE(slotOf(&Further::further), 3);
        QCOMPARE(slotOf(&Controlled<Nginx, NginxQListView>::further), 3);
        QCOMPARE(slotOf(&Controlled<RpcServer, RpcQListView>::further), 3);
    }

    void classesHaveTheirOwnSignalsAndSlots_data()
    {
        QTest::addColumn<const QMetaObject *>("meta");
        QTest::addColumn<QString>("base");
        QTest::addColumn<QStringList>("methods");
        const QString signal = "public signal void ";
        const QString slot = "private slot void ";
        QTest::newRow("DeployBtn")
            << &DeployBtn::staticMetaObject << "QPushButton" << QStringList(signal + "clicked()");
        QTest::newRow("NginxQListView") << &NginxQListView::staticMetaObject << "QListView"
                                        << QStringList(signal + "nginxUpdated()");
        QTest::newRow("RpcQListView")
            << &RpcQListView::staticMetaObject << "QListView" << QStringList(signal + "updated()");
        QTest::newRow("MainWindow")
            << &MainWindow::staticMetaObject << "QMainWindow"
            << QStringList({slot + "deployService()", slot + "stopService()",
                            slot + "loadNginxList()", slot + "loadRpcList()"});
    }

    void classesHaveTheirOwnSignalsAndSlots()
    {
        QFETCH(const QMetaObject *, meta);
        QFETCH(QString, base);
        QFETCH(QStringList, methods);
        QCOMPARE(meta->className(), QTest::currentDataTag());
        QCOMPARE(meta->superClass()->className(), base);
        QStringList own;
        for (int i = meta->methodOffset(); i < meta->methodCount(); ++i) {
            const QMetaMethod method = meta->method(i);
            own.append(QString(method.access() == QMetaMethod::Public    ? "public "
                               : method.access() == QMetaMethod::Private ? "private "
                                                                         : "protected ") +
                       (method.methodType() == QMetaMethod::Signal ? "signal " : "slot ") +
                       method.typeName() + ' ' + method.methodSignature());
        }
        QCOMPARE(own, methods);
        QCOMPARE(meta->propertyCount(), meta->propertyOffset());
        QCOMPARE(meta->enumeratorCount(), meta->enumeratorOffset());
    }
};

QTEST_MAIN(ContractTest)
#include "ContractTest.moc"
