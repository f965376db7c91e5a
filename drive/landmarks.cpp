// Prints, as JSON, where the launcher's widgets lie in its window, so that a click from outside
// hits them with any style and font. Takes the launcher's own options and needs its display.

#include "ui_MainWindow.h"

#include <QApplication>
#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <QMainWindow>
#include <QTabBar>
#include <QTextStream>

namespace {

QJsonArray centre(const QWidget *widget, const QRect &area)
{
    const QPoint point = widget->mapTo(widget->window(), area.center());
    return {point.x(), point.y()};
}

QJsonArray rectangle(const QWidget *widget)
{
    const QPoint corner = widget->mapTo(widget->window(), QPoint(0, 0));
    return {corner.x(), corner.y(), widget->width(), widget->height()};
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

    const QTabBar *tabs = form.tabWidget->tabBar();
    QJsonObject landmarks{{"window", QJsonArray{window.width(), window.height()}},
                          {"title", centre(form.label, form.label->rect())},
                          {"deploy", centre(form.pushButton, form.pushButton->rect())},
                          {"stop", centre(form.pushButton_2, form.pushButton_2->rect())},
                          {"directions", centre(tabs, tabs->tabRect(0))},
                          {"rpc", centre(tabs, tabs->tabRect(1))},
                          {"nginx", centre(tabs, tabs->tabRect(2))}};
    form.tabWidget->setCurrentWidget(form.tab_2); // a page is laid out when it comes to the front
    landmarks["rpc list"] = rectangle(form.listView->viewport());
    form.tabWidget->setCurrentWidget(form.tab_5);
    landmarks["nginx list"] = rectangle(form.listView_2->viewport());
    QTextStream(stdout) << QJsonDocument(landmarks).toJson();
    return 0;
}
