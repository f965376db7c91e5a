#include "ui/RpcQListView.h"

RpcQListView::RpcQListView(QWidget *parent)
{
    setParent(parent);
}

void RpcQListView::emitUpdate()
{
    // The nginx view emits here; this one only repaints, and updated() stays silent.
    update();
}
