// The floor of a window program: an empty main window of the same toolkit, built with the same
// flags. What the launcher needs beyond it is the launcher's.
//
//   EmptyWindow         nothing in it
//   EmptyWindow text    one line of text, for which the toolkit has to find and load a font

#include <QApplication>
#include <QLabel>
#include <QMainWindow>

int main(int argc, char **argv)
{
    QApplication application(argc, argv);
    QMainWindow window;
    window.resize(476, 374); // the launcher's
    if (argc > 1) {
        window.setCentralWidget(new QLabel("Orvane Launcher"));
    }
    window.show();
    return QApplication::exec();
}
