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

Q_DECLARE_METATYPE(Qt::MouseButton)

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

    void aLeftPressActsOnce()
    {
        press();
        QCOMPARE(action->count(), 1);
    }

    void aLeftPressActsBeforeTheButtonGoesDown()
    {
        bool wasDown = true;
        QObject::connect(button.get(), &DeployBtn::clicked, this,
                         [&] { wasDown = button->isDown(); });
        press();
        QVERIFY2(!wasDown, "the action came after the inherited handling, or not at all");
    }

    void aLeftPressShowsTheButtonDown()
    {
        press();
        QVERIFY2(button->isDown(), "the button shows no press");
    }

    void aLeftPressIsTheButtonsOwn() { QVERIFY2(press(), "the press was left to the parent"); }

    void aLeftPressIsNoInheritedClickYet()
    {
        press();
        QCOMPARE(inherited->count(), 0);
    }

    void aReleaseDoesNotActAgain()
    {
        press();
        release();
        QCOMPARE(action->count(), 1);
    }

    void aReleaseIsTheInheritedClick()
    {
        press();
        release();
        QCOMPARE(inherited->count(), 1);
    }

    void aReleaseShowsTheButtonUp()
    {
        press();
        release();
        QVERIFY2(!button->isDown(), "the button shows a press still");
    }

    void aReleaseOutsideLeavesTheActionRunOnce()
    {
        press();
        releaseOutside();
        QCOMPARE(action->count(), 1);
    }

    void aReleaseOutsideIsNoInheritedClick()
    {
        press();
        releaseOutside();
        QCOMPARE(inherited->count(), 0);
    }

    void anotherButtonDoesNotAct_data() { addOtherButtons(); }

    void anotherButtonDoesNotAct()
    {
        QFETCH(Qt::MouseButton, other);
        send(*button, QEvent::MouseButtonPress, other, other | Qt::LeftButton); // whatever is held
        send(*button, QEvent::MouseButtonRelease, other, Qt::LeftButton);
        QCOMPARE(action->count(), 0);
    }

    void anotherButtonIsNoInheritedClick_data() { addOtherButtons(); }

    void anotherButtonIsNoInheritedClick()
    {
        QFETCH(Qt::MouseButton, other);
        send(*button, QEvent::MouseButtonPress, other, other | Qt::LeftButton);
        send(*button, QEvent::MouseButtonRelease, other, Qt::LeftButton);
        QCOMPARE(inherited->count(), 0);
    }

    void anotherButtonDoesNotShowTheButtonDown_data() { addOtherButtons(); }

    void anotherButtonDoesNotShowTheButtonDown()
    {
        QFETCH(Qt::MouseButton, other);
        send(*button, QEvent::MouseButtonPress, other, other | Qt::LeftButton);
        QVERIFY2(!button->isDown(), "the button shows a press");
    }

    void anotherButtonIsLeftToTheParent_data() { addOtherButtons(); }

    void anotherButtonIsLeftToTheParent()
    {
        QFETCH(Qt::MouseButton, other);
        QVERIFY2(!send(*button, QEvent::MouseButtonPress, other, other | Qt::LeftButton),
                 "the button took the press");
    }

    void aDoubleClickActsTwice()
    {
        doubleClick();
        QCOMPARE(action->count(), 2);
    }

    void aDoubleClickIsTwoInheritedClicks()
    {
        doubleClick();
        QCOMPARE(inherited->count(), 2);
    }

    void theSpaceBarDoesNotAct()
    {
        pressTheSpaceBar();
        QCOMPARE(action->count(), 0);
    }

    void theSpaceBarIsTheInheritedClick()
    {
        pressTheSpaceBar();
        QCOMPARE(inherited->count(), 1);
    }

    void aClickByTheProgramDoesNotAct()
    {
        button->click();
        QCOMPARE(action->count(), 0);
    }

    void aClickByTheProgramIsTheInheritedClick()
    {
        button->click();
        QCOMPARE(inherited->count(), 1);
    }

private:
    bool press() { return send(*button, QEvent::MouseButtonPress, Qt::LeftButton, Qt::LeftButton); }

    void release() { send(*button, QEvent::MouseButtonRelease, Qt::LeftButton, Qt::NoButton); }

    void releaseOutside()
    {
        const QPoint outside(500, 500);
        send(*button, QEvent::MouseMove, Qt::NoButton, Qt::LeftButton, outside);
        send(*button, QEvent::MouseButtonRelease, Qt::LeftButton, Qt::NoButton, outside);
    }

    /// The second press comes as an event of its own kind.
    void doubleClick()
    {
        press();
        release();
        send(*button, QEvent::MouseButtonDblClick, Qt::LeftButton, Qt::LeftButton);
        release();
    }

    void pressTheSpaceBar()
    {
        button->show();
        button->setFocus();
        QTest::keyClick(button.get(), Qt::Key_Space);
    }

    static void addOtherButtons()
    {
        QTest::addColumn<Qt::MouseButton>("other");
        QTest::newRow("right") << Qt::RightButton;
        QTest::newRow("middle") << Qt::MiddleButton;
    }

    std::unique_ptr<DeployBtn> button;
    std::unique_ptr<QSignalSpy> action;
    std::unique_ptr<QSignalSpy> inherited;
};

QTEST_MAIN(DeployBtnTest)
#include "DeployBtnTest.moc"
