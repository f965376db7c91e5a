#include "app/MainWindow.h"

#include "services/Connect.h"
#include "ui_MainWindow.h"

MainWindow::MainWindow(QWidget *parent) : QMainWindow(parent), ui(new Ui_MainWindow)
{
    ui->setupUi(this);

    QObject::connect(ui->pushButton, SIGNAL(clicked()), this, SLOT(deployService()));
    QObject::connect(ui->pushButton_2, SIGNAL(clicked()), this, SLOT(stopService()));
    // The toolkit rejects these two with a warning each on the console, since there is no slot (and
    // the second names no signal of the view). The warnings are part of the program's output.
    constexpr const char *noSlot = nullptr;
    QObject::connect(ui->listView, SIGNAL(updated()), this, noSlot);
    QObject::connect(ui->listView_2, SIGNAL(nginxUpdatad()), this, noSlot);
}

MainWindow::~MainWindow()
{
    delete ui;
    delete connect;
}

void MainWindow::setConnect(Connect *c)
{
    connect = c;
    c->setRpcUi(ui->listView);
    c->setNginxUi(ui->listView_2);
}

void MainWindow::deployService()
{
    connect->openNginx();
    connect->openRpc();
}

void MainWindow::stopService()
{
    connect->closeRpc();
    connect->closeNginx();
}

void MainWindow::loadNginxList() {}

void MainWindow::loadRpcList() {}
