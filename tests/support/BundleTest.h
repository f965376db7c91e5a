#pragma once

#include <QApplication>
#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QProcess>
#include <QTemporaryDir>
#include <QTest>

#include <csignal>
#include <sys/prctl.h>

/// Support for tests that run inside a throw-away bundle of their own: the install root is where
/// the executable lies, so the test copies itself into a new bundle and runs from there.
namespace BundleTest {

/// The bundle that this process runs in, without a slash at its end; empty outside a bundle.
inline QString root()
{
    const QDir macOs(QFileInfo("/proc/self/exe").symLinkTarget().section('/', 0, -2));
    return macOs.dirName() == "MacOS" ? QDir::cleanPath(macOs.filePath("../..")) : QString();
}

/// Writes the program @p path below the bundle: a shell script with these @p lines.
inline void writeScript(const QString &path, const QByteArray &lines)
{
    const QFileInfo file(root() + '/' + path);
    QVERIFY(QDir().mkpath(file.path()));
    QFile::remove(file.filePath());
    QFile script(file.filePath());
    QVERIFY2(script.open(QIODevice::WriteOnly), qPrintable(script.errorString()));
    script.write("#!/bin/bash\n" + lines);
    QVERIFY(script.setPermissions(QFile::ReadOwner | QFile::WriteOwner | QFile::ExeOwner));
}

/// Runs @p test inside a throw-away bundle and returns the exit status of that run.
template <typename Test>
int run(int argc, char **argv)
{
    const QApplication application(argc, argv);
    if (!root().isEmpty()) {
        prctl(PR_SET_PDEATHSIG, SIGKILL); // nothing outlives the run around it
        Test test;
        return QTest::qExec(&test, argc, argv);
    }
    const QTemporaryDir directory;
    const QString macOs = directory.filePath("orvane.app/Contents/MacOS");
    const QString copy = macOs + "/test";
    if (!QDir().mkpath(macOs) || !QFile::copy("/proc/self/exe", copy)) {
        qFatal("cannot make the throw-away bundle %s", qPrintable(directory.path()));
    }
    QFile::setPermissions(copy, QFile::ReadOwner | QFile::WriteOwner | QFile::ExeOwner);
    return QProcess::execute(copy, QApplication::arguments().mid(1));
}

} // namespace BundleTest

/// The main function of a test that runs inside a throw-away bundle.
#define BUNDLE_TEST_MAIN(Test)                                                                     \
    int main(int argc, char **argv)                                                                \
    {                                                                                              \
        return BundleTest::run<Test>(argc, argv);                                                  \
    }
