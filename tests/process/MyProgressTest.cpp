#include "tests/process/Processes.h"
#include "tests/process/Recorder.h"
#include "tests/process/SystemCalls.h"

#include <QTest>

#include <array>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <dlfcn.h>
#include <link.h>
#include <new>
#include <type_traits>

/// The fields, their first values and the shape of the class.
class MyProgressTest : public QObject
{
    Q_OBJECT

private slots:
    void fieldsHaveTheirTypes();
    void fieldsStandInOrder();
    void newRunnerHasItsFirstValues();
    void newRunnerIsNotCopied();
    void destructorAndSinkAreTheVirtualSlots();
    void statusIsTheRunningFlag();
    void unstartedRunnerIsDestroyedWithoutACall();
};

void MyProgressTest::fieldsHaveTheirTypes()
{
    using R = Recorder;
    QVERIFY((std::is_same_v<decltype(R::running), bool>));
    QVERIFY((std::is_same_v<decltype(R::childPid), std::int32_t>));
    QVERIFY((std::is_same_v<std::decay_t<decltype(std::declval<R>().pipeFds[0])>, int>));
    QCOMPARE(sizeof(R::pipeFds), 2 * sizeof(std::int32_t));
    QVERIFY((std::is_same_v<decltype(R::readerResult), std::int32_t>));
    QVERIFY((std::is_same_v<decltype(R::launchRequested), bool>));
    QVERIFY((std::is_same_v<decltype(R::basePath), std::string>));
    QVERIFY((std::is_same_v<decltype(R::readerThread), pthread_t>));
    QCOMPARE(sizeof(R::reserved), sizeof(void *));
}

/// And nothing stands between or behind them, such as a lock.
void MyProgressTest::fieldsStandInOrder()
{
    struct Fields
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
    QCOMPARE(sizeof(MyProgress), sizeof(Fields));

    const Recorder runner;
    const auto offset = [&runner](const auto &field) {
        return static_cast<std::size_t>(reinterpret_cast<const char *>(&field) -
                                        reinterpret_cast<const char *>(&runner));
    };
    QCOMPARE(offset(runner.running), offsetof(Fields, running));
    QCOMPARE(offset(runner.childPid), offsetof(Fields, childPid));
    QCOMPARE(offset(runner.pipeFds), offsetof(Fields, pipeFds));
    QCOMPARE(offset(runner.readerResult), offsetof(Fields, readerResult));
    QCOMPARE(offset(runner.launchRequested), offsetof(Fields, launchRequested));
    QCOMPARE(offset(runner.basePath), offsetof(Fields, basePath));
    QCOMPARE(offset(runner.readerThread), offsetof(Fields, readerThread));
    QCOMPARE(offset(runner.reserved), offsetof(Fields, reserved));
}

/// In memory that is not clean, so that each value is one that the constructor gives.
void MyProgressTest::newRunnerHasItsFirstValues()
{
    alignas(Recorder) std::array<char, sizeof(Recorder)> memory;
    memory.fill('\x5a');
    const auto *runner = ::new (memory.data()) Recorder;
    QCOMPARE(runner->running, false);
    QCOMPARE(runner->childPid, -1);
    QCOMPARE(runner->readerResult, -1);
    QCOMPARE(runner->launchRequested, false);
    QCOMPARE(runner->basePath, std::string()); // this test lies in no bundle
    QCOMPARE(runner->reserved, std::uintptr_t{0});
    runner->~Recorder();
}

void MyProgressTest::newRunnerIsNotCopied()
{
    QVERIFY(!std::is_copy_constructible_v<MyProgress>);
    QVERIFY(!std::is_copy_assignable_v<MyProgress>);
    QVERIFY(!std::is_move_constructible_v<MyProgress>);
    QVERIFY(!std::is_move_assignable_v<MyProgress>);
}

/// By the C++ ABI that GCC and Clang share: a pointer to a virtual member is 1 plus the offset of
/// its slot, a virtual destructor takes two slots, and two words stand in front of them.
void MyProgressTest::destructorAndSinkAreTheVirtualSlots()
{
    QVERIFY(std::has_virtual_destructor_v<MyProgress>);
    void (MyProgress::*const sink)(std::string) = &MyProgress::insertMsg;
    std::ptrdiff_t offset = 0;
    std::memcpy(&offset, &sink, sizeof offset);
    QCOMPARE(offset, static_cast<std::ptrdiff_t>(1 + 2 * sizeof(void *)));

    const MyProgress runner;
    void *table = nullptr;
    std::memcpy(&table, static_cast<const void *>(&runner), sizeof table);
    Dl_info found{};
    void *symbol = nullptr;
    QVERIFY(dladdr1(table, &found, &symbol, RTLD_DL_SYMENT) != 0 && symbol != nullptr);
    QCOMPARE(found.dli_sname, "_ZTV10MyProgress");
    QCOMPARE(static_cast<const ElfW(Sym) *>(symbol)->st_size, 5 * sizeof(void *));
}

void MyProgressTest::statusIsTheRunningFlag()
{
    FedRecorder runner;
    runner.setStatus(false);
    QCOMPARE(runner.running, false);
    QCOMPARE(runner.getStatus(), false);
    runner.setStatus(true);
    QCOMPARE(runner.running, true);
    QCOMPARE(runner.getStatus(), true);
}

void MyProgressTest::unstartedRunnerIsDestroyedWithoutACall()
{
    const bool never = false;
    auto *runner = new Recorder;
    SystemCalls::record(never);
    delete runner;
    SystemCalls::stop();
    QCOMPARE(SystemCalls::lines(), QStringList());
}

QTEST_GUILESS_MAIN(MyProgressTest)
#include "MyProgressTest.moc"
