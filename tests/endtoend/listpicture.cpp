// Draws what one of the launcher's lists looks like with given rows, for comparison with the
// screen: listpicture <rpc|nginx> <file.png> <row>... [toolkit options]. Needs a display.

#include "ui_MainWindow.h"

#include <QApplication>
#include <QMainWindow>
#include <QPixmap>
#include <QStringListModel>

int main(int argc, char **argv)
{
    const QApplication application(argc, argv);
    QStringList arguments = QCoreApplication::arguments().mid(1);
    const bool isRpc = arguments.takeFirst() == "rpc";
    const QString file = arguments.takeFirst();

    QMainWindow window;
    Ui_MainWindow form;
    form.setupUi(&window);
    form.tabWidget->setCurrentWidget(isRpc ? form.tab_2 : form.tab_5);
    window.setAttribute(Qt::WA_DontShowOnScreen);
    window.show();

    QListView *list = isRpc ? static_cast<QListView *>(form.listView) : form.listView_2;
    // The landmark is the viewport of an empty list: scroll bars come to lie inside it.
    const QRect place(list->viewport()->mapTo(&window, QPoint(0, 0)), list->viewport()->size());
    QStringListModel rows(arguments);
    list->setModel(&rows);
    QCoreApplication::processEvents();
    return window.grab(place).save(file) ? 0 : 1;
}
