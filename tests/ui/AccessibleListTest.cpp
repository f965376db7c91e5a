#include "ui/NginxQListView.h"
#include "ui/RpcQListView.h"

#include <QAccessible>
#include <QStringListModel>
#include <QTest>

/// What an assistive technology gets of each list, in which a row is.
class AccessibleListTest : public QObject
{
    Q_OBJECT

private slots:
    void init()
    {
        nginx.setModel(&rows);
        rpc.setModel(&rows);
    }

    void isAList_data() { lists(); }
    void isAList()
    {
        QFETCH(QListView *, list);
        QCOMPARE(QAccessible::queryAccessibleInterface(list)->role(), QAccessible::List);
    }

    void hasTheTitleOfItsTabAsItsName_data() { lists(); }
    void hasTheTitleOfItsTabAsItsName()
    {
        QFETCH(QListView *, list);
        QFETCH(QString, title);
        QCOMPARE(QAccessible::queryAccessibleInterface(list)->text(QAccessible::Name), title);
    }

    void countsNoChildren_data() { lists(); }
    void countsNoChildren()
    {
        QFETCH(QListView *, list);
        QCOMPARE(QAccessible::queryAccessibleInterface(list)->childCount(), 0);
    }

    void givesNoChildren_data() { lists(); }
    void givesNoChildren()
    {
        QFETCH(QListView *, list);
        QCOMPARE(QAccessible::queryAccessibleInterface(list)->child(0), nullptr);
    }

    /// A table is asked for its cells, and a reader thread reports each new model to it.
    void isNoTable_data() { lists(); }
    void isNoTable()
    {
        QFETCH(QListView *, list);
        QCOMPARE(QAccessible::queryAccessibleInterface(list)->tableInterface(), nullptr);
    }

    void otherWidgetsKeepTheToolkitsInterface()
    {
        QListView other;
        other.setModel(&rows);
        QCOMPARE(QAccessible::queryAccessibleInterface(&other)->childCount(), 1);
    }

private:
    void lists()
    {
        QTest::addColumn<QListView *>("list");
        QTest::addColumn<QString>("title");
        QTest::newRow("nginx") << static_cast<QListView *>(&nginx) << "Nginx";
        QTest::newRow("rpc") << static_cast<QListView *>(&rpc) << "RPC Service";
    }

    QStringListModel rows = QStringListModel({"File found"});
    NginxQListView nginx;
    RpcQListView rpc;
};

QTEST_MAIN(AccessibleListTest)
#include "AccessibleListTest.moc"
