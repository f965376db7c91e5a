#include "ui/RpcQListView.h"
#include "tests/support/Eventually.h"
#include "tests/support/Repaints.h"

#include <QSignalSpy>
#include <QTest>

class RpcQListViewTest : public QObject
{
    Q_OBJECT

private slots:
    void takesItsParent()
    {
        QWidget parent;
        const auto *child = new RpcQListView(&parent);
        QCOMPARE(child->parent(), &parent);
        QVERIFY(!child->isWindow());
        QCOMPARE(RpcQListView(nullptr).parent(), nullptr);
    }

    /// Asked for, and done when the event loop comes to it.
    void anUpdateAsksForARepaintAndEmitsNothing()
    {
        RpcQListView view(nullptr);
        const QSignalSpy updates(&view, &RpcQListView::updated);
        Repaints repaints(&view);
        QVERIFY(repaints.shownFully);
        view.emitUpdate();
        QCOMPARE(repaints.count, 0);
        QVERIFY(eventually([&] { return repaints.count == 1; }, handleEvents));
        QCOMPARE(updates.count(), 0);
    }
};

QTEST_MAIN(RpcQListViewTest)
#include "RpcQListViewTest.moc"
