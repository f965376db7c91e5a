#pragma once

#include <QByteArray>
#include <QFile>
#include <QTemporaryFile>
#include <QTest>

#include <cstdio>
#include <fcntl.h>
#include <unistd.h>

/// Keeps what this process and its children write to standard output, as long as it lives. What a
/// failed test wrote is handed on at the end: the message that says why is in it.
class StandardOutput
{
public:
    StandardOutput() : real(fcntl(STDOUT_FILENO, F_DUPFD_CLOEXEC, 0))
    {
        std::fflush(stdout);
        if (!file.open() || dup2(file.handle(), STDOUT_FILENO) == -1) {
            qFatal("cannot keep the standard output");
        }
    }
    ~StandardOutput()
    {
        const QByteArray kept = text();
        dup2(real, STDOUT_FILENO);
        close(real);
        if (QTest::currentTestFailed()) {
            std::fwrite(kept.constData(), 1, static_cast<std::size_t>(kept.size()), stdout);
        }
    }
    StandardOutput(const StandardOutput &) = delete;
    StandardOutput &operator=(const StandardOutput &) = delete;

    /// What was written so far.
    QByteArray text() const
    {
        std::fflush(stdout);
        QFile written(file.fileName());
        return written.open(QIODevice::ReadOnly) ? written.readAll() : QByteArray();
    }

private:
    int real;
    QTemporaryFile file;
};
