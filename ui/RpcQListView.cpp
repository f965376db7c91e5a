#include "ui/RpcQListView.h"

#include "ui/AccessibleList.h" // which makes itself the list's interface

RpcQListView::RpcQListView(QWidget *parent)
{
    setParent(parent);
}

void RpcQListView::emitUpdate()
{
    // The nginx view emits here; this one only repaints, and updated() stays silent.
    update();
}
