#include "ui/DeployBtn.h"

#include <QMouseEvent>

DeployBtn::DeployBtn(QWidget *parent)
{
    setParent(parent);
}

void DeployBtn::mousePressEvent(QMouseEvent *e)
{
    if (e->button() == Qt::LeftButton) {
        emit clicked();
    }
    QAbstractButton::mousePressEvent(e);
}
