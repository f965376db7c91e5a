#include "ui/NginxQListView.h"
#include "tests/support/Repaints.h"
#include "tests/ui/MetaObject.h"
#include "tests/ui/Parent.h"

#include <QSignalSpy>

class NginxQListViewTest : public QObject
{
    Q_OBJECT

private slots:
    void hasOneSignal()
    {
        checkOneSignal(NginxQListView::staticMetaObject, "NginxQListView", "QListView",
                       "nginxUpdated()");
    }

    void addsNoFields() { QCOMPARE(sizeof(NginxQListView), sizeof(QListView)); }

    void takesItsParent() { checkParent<NginxQListView>("NginxQListView"); }

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
