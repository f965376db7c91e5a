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
    }
    virtual void further() {}
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
using NginxFields = Controlled<Nginx, NginxQListView>;
using RpcFields = Controlled<RpcServer, RpcQListView>;
template struct Controlled<Nginx, NginxQListView>;
template struct Controlled<RpcServer, RpcQListView>;

/// Whether pointers at these places lie one behind the other, from the first place on.
template <typename... Places>
constexpr bool areInOrder(Places... places)
{
    std::size_t next = 0;
    return ((places == next++ * sizeof(void *)) && ...);
}

struct Coordinator : Connect
{
    static void layout()
    {
        static_assert(areInOrder(offsetof(Coordinator, nginx), offsetof(Coordinator, rpc),
                                 offsetof(Coordinator, rpcView), offsetof(Coordinator, nginxView)));
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

// One pointer for each element of the form.
#define AT(element) offsetof(Ui_MainWindow, element)
static_assert(areInOrder(AT(centralWidget), AT(gridLayout), AT(verticalLayout),
                         AT(verticalLayout_2), AT(horizontalLayout_2), AT(horizontalSpacer),
                         AT(label), AT(horizontalSpacer_2), AT(verticalLayout_5), AT(tabWidget),
                         AT(tab), AT(gridLayout_4), AT(verticalLayout_6), AT(label_2),
                         AT(verticalLayout_8), AT(label_3), AT(verticalLayout_9), AT(label_4),
                         AT(tab_2), AT(gridLayout_2), AT(listView), AT(tab_5), AT(gridLayout_3),
                         AT(listView_2), AT(horizontalLayout_3), AT(horizontalLayout_8),
                         AT(pushButton), AT(horizontalLayout_9), AT(pushButton_2)));
static_assert(sizeof(Ui_MainWindow) == 29 * sizeof(void *));
static_assert(std::is_trivially_destructible_v<Ui_MainWindow>); // it owns nothing

static_assert(std::has_virtual_destructor_v<MyProgress>);
static_assert(std::is_base_of_v<MyProgress, Nginx> && std::is_base_of_v<MyProgress, RpcServer>);
static_assert(!std::is_copy_constructible_v<MyProgress> && !std::is_copy_assignable_v<MyProgress>);
static_assert(!std::is_copy_constructible_v<Connect> && !std::is_copy_assignable_v<Connect>);
static_assert(std::is_same_v<decltype(&MyProgress::getBasePath),
                             std::string (MyProgress::*)() const>); // a copy

// The flags of the application object, which the entry leaves at the toolkit's default, are the
// version that the launcher is built against, one byte each for major, minor and patch: 330499 with
// 5.11.3.
static_assert(QT_VERSION_CHECK(5, 11, 3) == 330499);
static_assert(QApplication::ApplicationFlags == QT_VERSION);

/// An object made in memory where no byte is 0, so that a field without an initial value shows.
template <typename Object>
std::unique_ptr<Object> madeInDirt()
{
    void *memory = std::memset(::operator new(sizeof(Object)), 0xAA, sizeof(Object));
    return std::unique_ptr<Object>(::new (memory) Object);
}

/// The number of a virtual member's slot. By the C++ ABI that GCC and Clang share, a pointer to the
/// member holds the slot's offset, on some machines marked in the lowest bit.
template <typename Member>
std::ptrdiff_t slotOf(Member member)
{
    std::ptrdiff_t offset = 0;
    std::memcpy(&offset, &member, sizeof offset);
    return offset / static_cast<std::ptrdiff_t>(sizeof(void *));
}

constexpr std::ptrdiff_t slotsOfTheDestructor = 2; // by the same ABI

/// The class, its base, and what it has of its own.
QString described(const QMetaObject &meta)
{
    QStringList parts{QString("%1 : %2").arg(meta.className(), meta.superClass()->className())};
    for (int i = meta.methodOffset(); i < meta.methodCount(); ++i) {
        const QMetaMethod method = meta.method(i);
        const std::array<const char *, 3> access{"private", "protected", "public"};
        const std::array<const char *, 4> kind{"method", "signal", "slot", "constructor"};
        parts << QString("%1 %2 %3 %4")
                     .arg(access.at(method.access()), kind.at(method.methodType()),
                          method.typeName(), method.methodSignature());
    }
    if (meta.propertyCount() > meta.propertyOffset() ||
        meta.enumeratorCount() > meta.enumeratorOffset()) {
        parts << "properties or enumerations";
    }
    return parts.join(", ");
}

} // namespace

/// What cannot be asked of the compiler.
class ContractTest : public QObject
{
    Q_OBJECT

private slots:
    void theCoordinatorStartsEmpty() { QVERIFY(madeInDirt<Coordinator>()->isEmpty()); }

    void theNginxControllerStartsEmpty() { QVERIFY(madeInDirt<NginxFields>()->isEmpty()); }

    void theRpcControllerStartsEmpty() { QVERIFY(madeInDirt<RpcFields>()->isEmpty()); }

    void theSinkIsBehindTheDestructor_data()
    {
        QTest::addColumn<std::ptrdiff_t>("slot");
        QTest::newRow("of a runner") << slotOf(&MyProgress::insertMsg);
        QTest::newRow("of nginx") << slotOf(&Nginx::insertMsg);
        QTest::newRow("of the RPC server") << slotOf(&RpcServer::insertMsg);
    }

    void theSinkIsBehindTheDestructor()
    {
        QFETCH(std::ptrdiff_t, slot);
        QCOMPARE(slot, slotsOfTheDestructor);
    }

    void theSinkIsTheLastSlot_data()
    {
        QTest::addColumn<std::ptrdiff_t>("slotOfASubclass");
        QTest::newRow("of a runner") << slotOf(&Runner::further);
        QTest::newRow("of nginx") << slotOf(&NginxFields::further);
        QTest::newRow("of the RPC server") << slotOf(&RpcFields::further);
    }

    void theSinkIsTheLastSlot()
    {
        QFETCH(std::ptrdiff_t, slotOfASubclass);
        QCOMPARE(slotOfASubclass, slotsOfTheDestructor + 1);
    }

    void aClassHasItsOwnSignalsAndSlots_data()
    {
        QTest::addColumn<QString>("actual");
        QTest::addColumn<QString>("expected");
        QTest::newRow("the button") << described(DeployBtn::staticMetaObject)
                                    << "DeployBtn : QPushButton, public signal void clicked()";
        QTest::newRow("the nginx view")
            << described(NginxQListView::staticMetaObject)
            << "NginxQListView : QListView, public signal void nginxUpdated()";
        QTest::newRow("the RPC view") << described(RpcQListView::staticMetaObject)
                                      << "RpcQListView : QListView, public signal void updated()";
        QTest::newRow("the window")
            << described(MainWindow::staticMetaObject)
            << "MainWindow : QMainWindow, private slot void deployService(), "
               "private slot void stopService(), private slot void loadNginxList(), "
               "private slot void loadRpcList()";
    }

    void aClassHasItsOwnSignalsAndSlots()
    {
        QFETCH(QString, actual);
        QFETCH(QString, expected);
        QCOMPARE(actual, expected);
    }
};

QTEST_MAIN(ContractTest)
#include "ContractTest.moc"
