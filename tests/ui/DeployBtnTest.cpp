#include "ui/DeployBtn.h"

#include <QMouseEvent>
#include <QSignalSpy>
#include <QTest>

#include <memory>

namespace {

/// Sends one mouse event as the window system would: @p cause is the button that moved, @p held are
/// those that are down afterwards. Returns whether the button took it.
bool send(DeployBtn &button, QEvent::Type type, Qt::MouseButton cause, Qt::MouseButtons held,
          QPoint position = {5, 5})
{
    QMouseEvent event(type, position, button.mapToGlobal(position), cause, held, Qt::NoModifier);
    QCoreApplication::sendEvent(&button, &event);
    return event.isAccepted();
}

} // namespace

class DeployBtnTest : public QObject
{
    Q_OBJECT

private slots:
    void init()
    {
        button = std::make_unique<DeployBtn>(nullptr);
        button->resize(100, 30);
        // By the signal's text, as the main window connects it.
        action = std::make_unique<QSignalSpy>(button.get(), SIGNAL(clicked()));
        inherited = std::make_unique<QSignalSpy>(button.get(), &QAbstractButton::clicked);
    }

    void takesItsParent()
    {
        QWidget parent;
        QCOMPARE(DeployBtn(&parent).window(), &parent);
    }

    void aLeftPressActsBeforeTheButtonGoesDown()
    {
        QList<bool> down;
        QObject::connect(button.get(), &DeployBtn::clicked, this,
                         [&] { down.append(button->isDown()); });
        QVERIFY(send(*button, QEvent::MouseButtonPress, Qt::LeftButton, Qt::LeftButton));
        QCOMPARE(down, QList<bool>{false});
        QVERIFY(button->isDown());
        QCOMPARE(inherited->count(), 0);

        QVERIFY(send(*button, QEvent::MouseButtonRelease, Qt::LeftButton, Qt::NoButton));
        QCOMPARE(action->count(), 1);
        QCOMPARE(inherited->count(), 1);
        QVERIFY(!button->isDown());
    }

    void aReleaseOutsideLeavesTheActionRunOnce()
    {
        send(*button, QEvent::MouseButtonPress, Qt::LeftButton, Qt::LeftButton);
        send(*button, QEvent::MouseMove, Qt::NoButton, Qt::LeftButton, {500, 500});
        send(*button, QEvent::MouseButtonRelease, Qt::LeftButton, Qt::NoButton, {500, 500});
        QCOMPARE(action->count(), 1);
        QCOMPARE(inherited->count(), 0);
    }

    /// Whatever else is held. The inherited handling leaves the event to the parent.
    void otherButtonsDoNothing()
    {
        for (const Qt::MouseButton other : {Qt::RightButton, Qt::MiddleButton}) {
            QVERIFY(!send(*button, QEvent::MouseButtonPress, other, other | Qt::LeftButton));
            QVERIFY(!button->isDown());
            send(*button, QEvent::MouseButtonRelease, other, Qt::LeftButton);
            QCOMPARE(action->count(), 0);
            QCOMPARE(inherited->count(), 0);
        }
    }

    void aDoubleClickActsTwice()
    {
        QTest::mouseClick(button.get(), Qt::LeftButton);
        send(*button, QEvent::MouseButtonDblClick, Qt::LeftButton, Qt::LeftButton);
        QCOMPARE(action->count(), 2);
        send(*button, QEvent::MouseButtonRelease, Qt::LeftButton, Qt::NoButton);
        QCOMPARE(action->count(), 2);
        QCOMPARE(inherited->count(), 2);
    }

    void theKeyboardAndTheProgramRunOnlyTheInheritedClick()
    {
        button->show();
        button->setFocus();
        QTest::keyClick(button.get(), Qt::Key_Space);
        QCOMPARE(inherited->count(), 1);
        button->click();
        QCOMPARE(inherited->count(), 2);
        QCOMPARE(action->count(), 0);
    }

private:
    std::unique_ptr<DeployBtn> button;
    std::unique_ptr<QSignalSpy> action;
    std::unique_ptr<QSignalSpy> inherited;
};

QTEST_MAIN(DeployBtnTest)
#include "DeployBtnTest.moc"
