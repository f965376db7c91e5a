#pragma once

#include "Steps.h"

class Connect;
class QWidget;

class MainWindow
{
public:
    explicit MainWindow(QWidget *parent) { Steps::add(parent == nullptr ? "window" : "a child"); }
    ~MainWindow() { Steps::all.append("window ends"); }
    void setConnect(Connect *c) { Steps::add(c == nullptr ? "no coordinator" : "set coordinator"); }
    void show() { Steps::add("show"); }
};
