// The floor of a window program: an empty main window of the same toolkit, built with the same
// flags. What the launcher needs beyond it is the launcher's.

#include <QApplication>
#include <QMainWindow>

int main(int argc, char **argv)
{
    QApplication application(argc, argv);
    QMainWindow window;
    window.resize(476, 374); // the launcher's
    window.show();
    return QApplication::exec();
}
