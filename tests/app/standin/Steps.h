#pragma once

#include <QStringList>

#include <stdexcept>

/// What the code under test does, in order, with stand-ins for the classes that it uses: each notes
/// what is asked of it.
struct Steps
{
    inline static QStringList all;
    inline static QString failing; ///< this one throws

    static void add(const QString &step)
    {
        all.append(step);
        if (step == failing) {
            throw std::runtime_error(qPrintable(step));
        }
    }
};
