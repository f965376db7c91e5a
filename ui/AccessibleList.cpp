#include "ui/AccessibleList.h"

#include <QCoreApplication>
#include <QWidget>

namespace {

/// The toolkit asks with the name of each class of @p object, the most derived one first, until
/// there is an interface. The lists' names are the titles of their tabs.
QAccessibleInterface *interfaceOf(const QString &className, QObject *object)
{
    const bool nginx = className == QLatin1String("NginxQListView");
    if (!nginx && className != QLatin1String("RpcQListView")) {
        return nullptr;
    }
    return new AccessibleList(qobject_cast<QWidget *>(object),
                              QString::fromLatin1(nginx ? "Nginx" : "RPC Service"));
}

} // namespace

AccessibleList::AccessibleList(QWidget *list, const QString &name)
    : QAccessibleWidget(list, QAccessible::List, name)
{}

int AccessibleList::childCount() const
{
    return 0;
}

QAccessibleInterface *AccessibleList::child(int /*index*/) const
{
    return nullptr;
}

bool AccessibleList::install() noexcept
{
    qAddPreRoutine([] { QAccessible::installFactory(interfaceOf); });
    return true;
}
