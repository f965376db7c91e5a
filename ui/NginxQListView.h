#pragma once

#include <QListView>

/// The list that shows what nginx writes. GUI thread, but for emitUpdate(), which the
/// controller's message sink calls on its reader thread.
class NginxQListView : public QListView
{
    Q_OBJECT

public:
    explicit NginxQListView(QWidget *parent = nullptr);

    /// Emits nginxUpdated().
    void emitUpdate();

signals:
    void nginxUpdated();
};
