#pragma once

#include <QPushButton>

/// A push button that acts when the left mouse button goes down on it, not when it comes up.
/// GUI thread.
class DeployBtn : public QPushButton
{
    Q_OBJECT

public:
    explicit DeployBtn(QWidget *parent = nullptr);

signals:
    /// Hides the inherited signal on purpose: a connection by the text "clicked()" lands here, so
    /// the space bar, other mouse buttons and the release run nothing.
    void clicked(); // clazy:exclude=overloaded-signal

protected:
    void mousePressEvent(QMouseEvent *e) override;
};
