#pragma once

#include <QString>
#include <QStringList>
#include <QtGlobal>

#include <functional>

/// Keeps what the toolkit says on the console, as long as it lives. One at a time.
class Warnings
{
public:
    Warnings() : before(qInstallMessageHandler(keep)) { current = this; }
    ~Warnings()
    {
        qInstallMessageHandler(before);
        current = nullptr;
    }
    Warnings(const Warnings &) = delete;
    Warnings &operator=(const Warnings &) = delete;

    /// "warning: TEXT"; another word in front for what is less or more than a warning.
    QStringList texts;
    /// Run at each, after it was kept.
    std::function<void()> atText;

private:
    static void keep(QtMsgType type, const QMessageLogContext &, const QString &text)
    {
        current->texts.append((type == QtWarningMsg ? "warning: " : "other: ") + text);
        if (current->atText) {
            current->atText();
        }
    }

    inline static Warnings *current = nullptr;
    QtMessageHandler before;
};
