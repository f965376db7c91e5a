#pragma once

#include <QMainWindow>

class Connect;
class Ui_MainWindow;

/// The launcher's window: turns the two buttons into calls of the coordinator. Construct;
/// setConnect(); show(). GUI thread.
class MainWindow : public QMainWindow
{
    Q_OBJECT

public:
    explicit MainWindow(QWidget *parent = nullptr);
    /// Stops the services while the lists that they write to still exist.
    ~MainWindow() override;

    /// Takes the coordinator over and gives it the two lists.
    void setConnect(Connect *c);

private slots:
    void deployService();
    void stopService();
    void loadNginxList();
    void loadRpcList();

private:
    Ui_MainWindow *ui;
    Connect *connect = nullptr;
};
