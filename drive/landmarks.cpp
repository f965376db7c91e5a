// landmarks [toolkit options]
//     prints, as JSON, where the launcher's widgets lie in its window, so that a click from outside
//     hits them with any style and font
// landmarks [toolkit options] <rpc|nginx> <file.png> <row>...
//     draws what one of its lists looks like with these rows, for comparison with the screen
//
// Takes the launcher's own options and needs its display.

#include "ui_MainWindow.h"

#include <QApplication>
#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <QMainWindow>
#include <QPixmap>
#include <QStringListModel>
#include <QTabBar>
#include <QTextStream>

namespace {

QJsonArray centre(const QWidget *widget, const QRect &area)
{
    const QPoint point = widget->mapTo(widget->window(), area.center());
    return {point.x(), point.y()};
}

QRect place(const QWidget *widget)
{
    return {widget->mapTo(widget->window(), QPoint(0, 0)), widget->size()};
}

/// Where the rows of an empty list are: scroll bars come to lie inside. Its page is laid out when
/// it comes to the front.
QRect rowsOf(const QListView *list, QTabWidget *tabs, QWidget *page)
{
    tabs->setCurrentWidget(page);
    return place(list->viewport());
}

QJsonArray rectangle(const QRect &area)
{
    return {area.x(), area.y(), area.width(), area.height()};
}

} // namespace

int main(int argc, char **argv)
{
    const QApplication application(argc, argv);
    QMainWindow window;
    Ui_MainWindow form;
    form.setupUi(&window);
    window.setAttribute(Qt::WA_DontShowOnScreen);
    window.show();

    QStringList words = QCoreApplication::arguments().mid(1);
    if (!words.isEmpty()) {
        const bool isRpc = words.takeFirst() == "rpc";
        const QString file = words.takeFirst();
        QListView *list = isRpc ? static_cast<QListView *>(form.listView) : form.listView_2;
        const QRect area = rowsOf(list, form.tabWidget, isRpc ? form.tab_2 : form.tab_5);
        QStringListModel rows(words);
        list->setModel(&rows);
        QCoreApplication::processEvents();
        return window.grab(area).save(file) ? 0 : 1;
    }
    const QTabBar *tabs = form.tabWidget->tabBar();
    QJsonObject landmarks{{"window", QJsonArray{window.width(), window.height()}},
                          {"title", centre(form.label, form.label->rect())},
                          {"deploy", centre(form.pushButton, form.pushButton->rect())},
                          {"stop", centre(form.pushButton_2, form.pushButton_2->rect())},
                          {"directions", centre(tabs, tabs->tabRect(0))},
                          {"rpc", centre(tabs, tabs->tabRect(1))},
                          {"nginx", centre(tabs, tabs->tabRect(2))},
                          {"tabs", rectangle(place(tabs))}};
    landmarks["rpc list"] = rectangle(rowsOf(form.listView, form.tabWidget, form.tab_2));
    landmarks["nginx list"] = rectangle(rowsOf(form.listView_2, form.tabWidget, form.tab_5));
    QTextStream(stdout) << QJsonDocument(landmarks).toJson();
    return 0;
}
