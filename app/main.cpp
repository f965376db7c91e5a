#include "app/MainWindow.h"
#include "services/Connect.h"

#include <QApplication>

int main(int argc, char **argv)
{
    auto *connect = new Connect; // the window owns it from setConnect() on
    QApplication application(argc, argv);
    MainWindow window(nullptr);
    window.setConnect(connect);
    window.show();
    return QApplication::exec();
}
