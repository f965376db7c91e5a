#include "ui/NginxQListView.h"
#include "tests/support/Repaints.h"

#include <QSignalSpy>
#include <QTest>

class NginxQListViewTest : public QObject
{
    Q_OBJECT

private slots:
    void takesItsParent()
    {
        QWidget parent;
        const auto *child = new NginxQListView(&parent);
        QCOMPARE(child->parent(), &parent);
        QVERIFY(!child->isWindow());
        QCOMPARE(NginxQListView(nullptr).parent(), nullptr);
    }

    void anUpdateIsEmittedAtOnce()
    {
        NginxQListView view(nullptr);
        const QSignalSpy updates(&view, &NginxQListView::nginxUpdated);
        view.emitUpdate();
        QCOMPARE(updates.count(), 1);
        view.emitUpdate();
        QCOMPARE(updates.count(), 2);
    }

    void anUpdateAsksForNoRepaint()
    {
        NginxQListView view(nullptr);
        Repaints repaints(&view);
        QVERIFY(repaints.shownFully);
        view.emitUpdate();
        QCoreApplication::processEvents();
        QCOMPARE(repaints.count, 0);
    }
};

QTEST_MAIN(NginxQListViewTest)
#include "NginxQListViewTest.moc"
