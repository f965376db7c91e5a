#pragma once

#include <QChildEvent>
#include <QTest>
#include <QWidget>

/// A widget that notes what its children are at the moment when they become its children. One that
/// a base constructor hands over is still an object of that base.
class Parent : public QWidget
{
public:
    QList<QByteArray> arrivals;

protected:
    void childEvent(QChildEvent *event) override
    {
        if (event->added()) {
            arrivals.append(event->child()->metaObject()->className());
        }
    }
};

/// Checks that a widget takes its parent, null included, after its base was constructed without.
template <typename Widget>
void checkParent(const char *name)
{
    const Widget alone(nullptr);
    QCOMPARE(alone.parent(), nullptr);

    Parent parent;
    const auto *child = new Widget(&parent);
    QCOMPARE(child->parent(), &parent);
    QCOMPARE(parent.arrivals, QList<QByteArray>{name});
    QVERIFY(!child->isWindow());
}
