#pragma once

#include <QListView>

/// The list that shows what the RPC server writes. GUI thread, but for emitUpdate(), which the
/// controller's message sink calls on its reader thread.
class RpcQListView : public QListView
{
    Q_OBJECT

public:
    explicit RpcQListView(QWidget *parent = nullptr);

    /// Asks for a repaint; does not emit updated().
    void emitUpdate();

signals:
    void updated();
};
