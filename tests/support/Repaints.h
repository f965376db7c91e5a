#pragma once

#include <QCoreApplication>
#include <QEvent>
#include <QTest>
#include <QWidget>

/// Shows a widget and counts how often it repaints.
class Repaints : public QObject
{
public:
    explicit Repaints(QWidget *shown) : widget(shown)
    {
        widget->show();
        shownFully = QTest::qWaitForWindowExposed(widget);
        QCoreApplication::instance()->installEventFilter(this);
        settle();
    }

    /// Handles events until there are none, and starts to count anew.
    void settle()
    {
        do {
            events = 0;
            QCoreApplication::sendPostedEvents();
            QCoreApplication::processEvents();
        } while (events > 0);
        count = 0;
    }

    bool eventFilter(QObject *receiver, QEvent *event) override
    {
        ++events;
        if (receiver == widget && event->type() == QEvent::Paint) {
            ++count;
        }
        return false;
    }

    bool shownFully = false;
    int count = 0;

private:
    QWidget *widget;
    int events = 0;
};
