#pragma once

#include <QAccessibleWidget>

/// What an assistive technology gets of a list: its name, and no rows. The toolkit's own interface
/// of a list reads the view's rows on the GUI thread while a reader thread installs the next model,
/// which ends the launcher. The toolkit makes and deletes the objects.
/// GUI thread; a reader thread, too, looks them up with each row that it shows.
class AccessibleList : public QAccessibleWidget
{
public:
    AccessibleList(QWidget *list, const QString &name);

    /// Neither rows nor the parts that a list consists of.
    [[nodiscard]] int childCount() const override;
    [[nodiscard]] QAccessibleInterface *child(int index) const override;

    /// Makes this the interface of both list views when the application object is made.
    static bool install() noexcept;
};

/// Here, so that a program has it as soon as a view's source includes this: a function of a static
/// library that nothing refers to is not linked.
inline const bool listsAreAccessible = AccessibleList::install();
