#include "ui/RpcQListView.h"
#include "tests/support/Repaints.h"
#include "tests/ui/MetaObject.h"
#include "tests/ui/Parent.h"

#include <QSignalSpy>

class RpcQListViewTest : public QObject
{
    Q_OBJECT

private slots:
    void hasOneSignal()
    {
        checkOneSignal(RpcQListView::staticMetaObject, "RpcQListView", "QListView", "updated()");
    }

    void addsNoFields() { QCOMPARE(sizeof(RpcQListView), sizeof(QListView)); }

    void takesItsParent() { checkParent<RpcQListView>("RpcQListView"); }

    void anUpdateIsNeverEmitted()
    {
        RpcQListView view(nullptr);
        const QSignalSpy updates(&view, &RpcQListView::updated);
        Repaints repaints(&view);
        view.emitUpdate();
        repaints.settle();
        QCOMPARE(updates.count(), 0);
    }

    /// Asked for, and done when the event loop comes to it.
    void anUpdateAsksForARepaint()
    {
        RpcQListView view(nullptr);
        Repaints repaints(&view);
        QVERIFY(repaints.shownFully);
        view.emitUpdate();
        QCOMPARE(repaints.count, 0);
        QTRY_COMPARE(repaints.count, 1);
    }
};

QTEST_MAIN(RpcQListViewTest)
#include "RpcQListViewTest.moc"
