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
    void nginxViewTakesItsParent()
    {
        QWidget parent;
        QCOMPARE(NginxQListView(&parent).window(), &parent);
    }

    void rpcViewTakesItsParent()
    {
        QWidget parent;
        QCOMPARE(RpcQListView(&parent).window(), &parent);
    }

    void nginxViewEmitsItsSignalAtOnce()
    {
        NginxQListView view(nullptr);
        const QSignalSpy updates(&view, &NginxQListView::nginxUpdated);
        view.emitUpdate();
        QCOMPARE(updates.count(), 1);
    }

    void nginxViewAsksForNoRepaint()
    {
        WatchedView<NginxQListView> view(nullptr);
        QVERIFY(view.showSettled());
        view.emitUpdate();
        QCoreApplication::processEvents();
        QCOMPARE(view.repaints, 0);
    }

    void rpcViewAsksForARepaint()
    {
        WatchedView<RpcQListView> view(nullptr);
        QVERIFY(view.showSettled());
        view.emitUpdate();
        QVERIFY2(eventually([&] { return view.repaints == 1; }, handleEvents),
                 qPrintable(QString("%1 repaints").arg(view.repaints)));
    }

    /// A repaint is asked for, and done when the event loop comes to it.
    void rpcViewDoesNotRepaintAtOnce()
    {
        WatchedView<RpcQListView> view(nullptr);
        QVERIFY(view.showSettled());
        view.emitUpdate();
        QCOMPARE(view.repaints, 0);
    }

    void rpcViewNeverEmitsItsSignal()
    {
        RpcQListView view(nullptr);
        const QSignalSpy updates(&view, &RpcQListView::updated);
        view.emitUpdate();
        QCoreApplication::processEvents();
        QCOMPARE(updates.count(), 0);
    }
};

QTEST_MAIN(QListViewsTest)
#include "QListViewsTest.moc"
