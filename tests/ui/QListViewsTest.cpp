#include "tests/support/Eventually.h"
#include "tests/support/WatchedView.h"
#include "ui/NginxQListView.h"
#include "ui/RpcQListView.h"

#include <QSignalSpy>

/// The two views, which differ on purpose.
class QListViewsTest : public QObject
{
    Q_OBJECT

private slots:
    void takeTheirParent()
    {
        QWidget parent;
        QCOMPARE(NginxQListView(&parent).window(), &parent);
        QCOMPARE(RpcQListView(&parent).window(), &parent);
    }

    void nginxViewEmitsAtOnceAndAsksForNoRepaint()
    {
        WatchedView<NginxQListView> view(nullptr);
        const QSignalSpy updates(&view, &NginxQListView::nginxUpdated);
        QVERIFY(view.showSettled());
        view.emitUpdate();
        QCOMPARE(updates.count(), 1);
        QCoreApplication::processEvents();
        QCOMPARE(view.repaints, 0);
    }

    /// Asked for, and done when the event loop comes to it.
    void rpcViewAsksForARepaintAndEmitsNothing()
    {
        WatchedView<RpcQListView> view(nullptr);
        const QSignalSpy updates(&view, &RpcQListView::updated);
        QVERIFY(view.showSettled());
        view.emitUpdate();
        QCOMPARE(view.repaints, 0);
        QVERIFY(eventually([&] { return view.repaints == 1; }, handleEvents));
        QCOMPARE(updates.count(), 0);
    }
};

QTEST_MAIN(QListViewsTest)
#include "QListViewsTest.moc"
