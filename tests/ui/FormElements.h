#pragma once

#include <QBoxLayout>
#include <QGridLayout>
#include <QMetaEnum>
#include <QSpacerItem>
#include <QString>
#include <QStringList>
#include <QWidget>

/// One element of the form that is known by name.
struct Element
{
    const char *name; ///< null for a spacer
    const char *className;
    const char *parent;
};

/// Every element, in the order of the holder's pointers. The pages' parent is the tab widget's own
/// stack, which the toolkit names.
inline const QList<Element> &formElements()
{
    static const QList<Element> elements = {
        {"centralWidget", "QWidget", "MainWindow"},
        {"gridLayout", "QGridLayout", "centralWidget"},
        {"verticalLayout", "QVBoxLayout", "gridLayout"},
        {"verticalLayout_2", "QVBoxLayout", "verticalLayout"},
        {"horizontalLayout_2", "QHBoxLayout", "verticalLayout_2"},
        {nullptr, nullptr, nullptr},
        {"label", "QLabel", "centralWidget"},
        {nullptr, nullptr, nullptr},
        {"verticalLayout_5", "QVBoxLayout", "verticalLayout"},
        {"tabWidget", "QTabWidget", "centralWidget"},
        {"tab", "QWidget", "qt_tabwidget_stackedwidget"},
        {"gridLayout_4", "QGridLayout", "tab"},
        {"verticalLayout_6", "QVBoxLayout", "gridLayout_4"},
        {"label_2", "QLabel", "tab"},
        {"verticalLayout_8", "QVBoxLayout", "gridLayout_4"},
        {"label_3", "QLabel", "tab"},
        {"verticalLayout_9", "QVBoxLayout", "gridLayout_4"},
        {"label_4", "QLabel", "tab"},
        {"tab_2", "QWidget", "qt_tabwidget_stackedwidget"},
        {"gridLayout_2", "QGridLayout", "tab_2"},
        {"listView", "RpcQListView", "tab_2"},
        {"tab_5", "QWidget", "qt_tabwidget_stackedwidget"},
        {"gridLayout_3", "QGridLayout", "tab_5"},
        {"listView_2", "NginxQListView", "tab_5"},
        {"horizontalLayout_3", "QHBoxLayout", "verticalLayout"},
        {"horizontalLayout_8", "QHBoxLayout", "horizontalLayout_3"},
        {"pushButton", "DeployBtn", "centralWidget"},
        {"horizontalLayout_9", "QHBoxLayout", "horizontalLayout_3"},
        {"pushButton_2", "DeployBtn", "centralWidget"},
    };
    return elements;
}

inline QStringList elementNames()
{
    QStringList names;
    for (const Element &each : formElements()) {
        if (each.name != nullptr) {
            names.append(each.name);
        }
    }
    return names;
}

/// A layout and all in it as text, one line an item: the name, or the numbers of a spacer; for a
/// layout its spacing; for an item of a grid its cell and how many rows and columns it spans.
inline QStringList describe(QLayout *layout, const QString &indent = {})
{
    const auto *grid = qobject_cast<QGridLayout *>(layout);
    const QString spacing =
        grid == nullptr
            ? QString::number(layout->spacing())
            : QString("%1/%2").arg(grid->horizontalSpacing()).arg(grid->verticalSpacing());
    QStringList lines{indent + layout->objectName() + " spacing " + spacing};
    for (int i = 0; i < layout->count(); ++i) {
        QLayoutItem *item = layout->itemAt(i);
        QStringList parts;
        if (item->widget() != nullptr) {
            parts << indent + "  " + item->widget()->objectName();
        } else if (item->layout() != nullptr) {
            parts = describe(item->layout(), indent + "  ");
        } else {
            const QSizePolicy policy = item->spacerItem()->sizePolicy();
            const auto policies = QMetaEnum::fromType<QSizePolicy::Policy>();
            parts << QString("%1  spacer %2x%3 %4 %5")
                         .arg(indent)
                         .arg(item->sizeHint().width())
                         .arg(item->sizeHint().height())
                         .arg(policies.valueToKey(policy.horizontalPolicy()))
                         .arg(policies.valueToKey(policy.verticalPolicy()));
        }
        if (grid != nullptr) {
            int row = 0;
            int column = 0;
            int rows = 0;
            int columns = 0;
            grid->getItemPosition(i, &row, &column, &rows, &columns);
            parts[0] +=
                QString(" at %1,%2 spans %3,%4").arg(row).arg(column).arg(rows).arg(columns);
        }
        if (item->alignment() != 0) {
            parts[0] += " aligned";
        }
        lines += parts;
    }
    return lines;
}
