#pragma once

#include "process/MyProgress.h"

#include <QStringList>

class NginxQListView;

/// Runs the bundle's nginx and shows what it writes. Construct; setUi(); abolish(); delete.
/// GUI thread, but for insertMsg(), which also runs on the reader thread.
class Nginx : public MyProgress
{
public:
    /// Records one message and shows the whole list; an empty one is dropped.
    void insertMsg(std::string msg) override;
    /// Stores the view (not owned, may be null) and starts nginx.
    void setUi(NginxQListView *v);
    /// Runs nginx's own stop command and waits for it, if this controller runs. The child itself is
    /// left to the destructor. @sa ~MyProgress
    void abolish();

protected:
    NginxQListView *view = nullptr;
    QStringList messages;
};
