#include "ui/NginxQListView.h"

NginxQListView::NginxQListView(QWidget *parent)
{
    setParent(parent);
}

void NginxQListView::emitUpdate()
{
    emit nginxUpdated();
}
