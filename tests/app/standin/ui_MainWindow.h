#pragma once

#include "Steps.h"

#define Ui_MainWindow GeneratedForm
#include "ui/ui_MainWindow.h" // of the build's folder
#undef Ui_MainWindow

/// The form, and its end noted.
class Ui_MainWindow : public GeneratedForm
{
public:
    ~Ui_MainWindow() { Steps::all.append("form ends"); }
};
