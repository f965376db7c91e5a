#pragma once

#include <QMetaMethod>
#include <QMetaObject>
#include <QTest>

/// Checks that a class is known to the toolkit as @p name, derived from @p base, with one public
/// signal without arguments and result as method 0 of its own, and with nothing else.
inline void checkOneSignal(const QMetaObject &meta, const char *name, const char *base,
                           const char *signal)
{
    QCOMPARE(meta.className(), name);
    QCOMPARE(meta.superClass()->className(), base);

    QCOMPARE(meta.methodCount() - meta.methodOffset(), 1);
    const QMetaMethod method = meta.method(meta.methodOffset());
    QCOMPARE(method.methodSignature(), QByteArray(signal));
    QCOMPARE(method.methodType(), QMetaMethod::Signal);
    QCOMPARE(method.access(), QMetaMethod::Public);
    QCOMPARE(method.parameterCount(), 0);
    QCOMPARE(method.returnType(), static_cast<int>(QMetaType::Void));

    QCOMPARE(meta.propertyCount(), meta.propertyOffset());
    QCOMPARE(meta.enumeratorCount(), meta.enumeratorOffset());
}
