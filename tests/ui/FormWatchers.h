#pragma once

#include "tests/ui/FormElements.h"

#include <QChildEvent>
#include <QCoreApplication>
#include <QPointer>
#include <QProxyStyle>
#include <QStyleFactory>
#include <QTranslator>

#include <functional>

/// Default margins and spacings that differ from each other and from the form's.
class OddStyle : public QProxyStyle
{
public:
    OddStyle() : QProxyStyle(QStyleFactory::create("fusion")) {}

    int pixelMetric(PixelMetric metric, const QStyleOption *option,
                    const QWidget *widget) const override
    {
        switch (metric) {
        case PM_LayoutLeftMargin:
            return 21;
        case PM_LayoutTopMargin:
            return 22;
        case PM_LayoutRightMargin:
            return 23;
        case PM_LayoutBottomMargin:
            return 24;
        case PM_LayoutHorizontalSpacing:
        case PM_LayoutVerticalSpacing:
            return 25;
        default:
            return QProxyStyle::pixelMetric(metric, option, widget);
        }
    }
};

/// Keeps what it is asked to translate, and translates nothing.
class AskedTexts : public QTranslator
{
public:
    AskedTexts() { QCoreApplication::installTranslator(this); }

    bool isEmpty() const override { return false; }
    QString translate(const char *context, const char *source, const char *disambiguation,
                      int count) const override
    {
        if (*context != 'Q') { // not one of the toolkit's own widgets
            if (atText) {
                atText(source);
            }
            asked.append(QString("%1|%2|%3|%4")
                             .arg(context, disambiguation == nullptr ? "none" : disambiguation)
                             .arg(count)
                             .arg(QString::fromUtf8(source)));
        }
        return {};
    }

    std::function<void(const QByteArray &source)> atText;
    mutable QStringList asked;
};

/// Keeps which object becomes the child of which, in order.
class Adoptions : public QObject
{
public:
    Adoptions() { QCoreApplication::instance()->installEventFilter(this); }

    bool eventFilter(QObject *receiver, QEvent *event) override
    {
        if (event->type() == QEvent::ChildAdded) {
            auto *child = static_cast<QChildEvent *>(event)->child();
            if (pairs.isEmpty() && atFirst) {
                atFirst();
            }
            pairs.append(qMakePair(QPointer<QObject>(receiver), QPointer<QObject>(child)));
        }
        return false;
    }

    /// "parent < child" for each child that is an element of the form.
    QStringList ofElements() const
    {
        QStringList lines;
        for (const auto &[parent, child] : pairs) {
            if (!child.isNull() && elementNames().contains(child->objectName())) {
                lines.append(parent->objectName() + " < " + child->objectName());
            }
        }
        return lines;
    }

    std::function<void()> atFirst;

private:
    QList<QPair<QPointer<QObject>, QPointer<QObject>>> pairs;
};
