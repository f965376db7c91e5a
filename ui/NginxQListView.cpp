#include "ui/NginxQListView.h"

#include "ui/AccessibleList.h" // which makes itself the list's interface

NginxQListView::NginxQListView(QWidget *parent)
{
    setParent(parent);
}

void NginxQListView::emitUpdate()
{
    emit nginxUpdated();
}
