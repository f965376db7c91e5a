#include <QCoreApplication>
#include <QFile>
#include <QProcess>
#include <QTemporaryDir>
#include <QTest>

#include <fcntl.h>
#include <filesystem>
#include <sys/stat.h>
#include <unistd.h>

/// The directory and the install root that a program finds for itself, by where it lies. A probe is
/// copied to each place and started there as ./name, the one way that works for a path of any
/// length.
class InstallRootTest : public QObject
{
    Q_OBJECT

private slots:
    void init();
    void cleanup();

    void rootEndsAtTheBundleName_data();
    void rootEndsAtTheBundleName();
    void fileNameTakesNoPart();
    void pathsOfAnyLength_data();
    void pathsOfAnyLength();
    void linkToTheProgramIsFollowed();
    void linkToTheBundleIsFollowed();
    void bundleBehindALinkIsTheRoot();
    void programDeletedWhileItRuns();
    void programReplacedWhileItRuns();
    void everyRunnerLooksAgainAndOnce();
    void withoutProcTheStartedPathCounts_data();
    void withoutProcTheStartedPathCounts();

private:
    struct Answer
    {
        QByteArray directory, root, firstRoot;
    };

    QByteArray place() const { return QFile::encodeName(directory->path()); }
    static void enter(const QByteArray &directories);
    static void putProbe(const QByteArray &name);
    static Answer read(QProcess &probe);
    static Answer ask(const QString &program);

    std::unique_ptr<QTemporaryDir> directory;
};

void InstallRootTest::init()
{
    directory = std::make_unique<QTemporaryDir>();
    QVERIFY(chdir(place().constData()) == 0);
}

void InstallRootTest::cleanup()
{
    QVERIFY(chdir("/") == 0);
    std::error_code error;
    std::filesystem::remove_all(directory->path().toStdString(), error);
    QVERIFY2(!error, error.message().c_str());
}

/// Makes the directories, one below the other, and goes into the last.
void InstallRootTest::enter(const QByteArray &directories)
{
    const QList<QByteArray> names = directories.split('/');
    for (const QByteArray &name : names) {
        mkdir(name.constData(), S_IRWXU);
        QVERIFY2(chdir(name.constData()) == 0, name.constData());
    }
}

/// Copies the probe into the current directory.
void InstallRootTest::putProbe(const QByteArray &name)
{
    QFile probe(QCoreApplication::applicationDirPath() + "/InstallRootProbe");
    QVERIFY(probe.open(QIODevice::ReadOnly));
    const QByteArray program = probe.readAll();
    const int copy = open(name.constData(), O_WRONLY | O_CREAT | O_EXCL, S_IRWXU);
    QVERIFY(copy != -1);
    QVERIFY(write(copy, program.constData(), static_cast<std::size_t>(program.size())) ==
            program.size());
    close(copy);
}

InstallRootTest::Answer InstallRootTest::read(QProcess &probe)
{
    QByteArray output;
    while (output.count('\0') < 3 && probe.waitForReadyRead()) {
        output += probe.readAllStandardOutput();
    }
    const QList<QByteArray> texts = output.split('\0');
    return texts.size() == 4 ? Answer{texts[0], texts[1], texts[2]}
                             : Answer{"no answer: " + output, {}, {}};
}

InstallRootTest::Answer InstallRootTest::ask(const QString &program)
{
    QProcess probe;
    probe.start(program, QStringList());
    const Answer answer = read(probe);
    probe.closeWriteChannel();
    probe.waitForFinished();
    const QByteArray errors = probe.readAllStandardError();
    // A sanitizer warns, with such a line, of a path that is too long for it.
    const bool quiet = errors.isEmpty() || (errors.startsWith("==") && errors.count('\n') == 1);
    return quiet && probe.exitCode() == 0 ? answer : Answer{"the probe failed", {}, {}};
}

void InstallRootTest::rootEndsAtTheBundleName_data()
{
    QTest::addColumn<QByteArray>("below"); // the program's directory
    QTest::addColumn<QByteArray>("root");  // what of it is the install root
    using Bytes = QByteArray;

    QTest::newRow("a bundle") << Bytes("orvane.app/Contents/MacOS") << Bytes("orvane.app");
    QTest::newRow("the bundle directory itself") << Bytes("orvane.app") << Bytes("orvane.app");
    QTest::newRow("two bundles: the inner one")
        << Bytes("A/orvane.app/B/orvane.app/Contents/MacOS") << Bytes("A/orvane.app/B/orvane.app");
    QTest::newRow("two bundles in a row")
        << Bytes("orvane.app/orvane.app/Contents") << Bytes("orvane.app/orvane.app");
    QTest::newRow("any character for the dot") << Bytes("orvane_app/MacOS") << Bytes("orvane_app");
    QTest::newRow("a slash for the dot") << Bytes("orvane/app/MacOS") << Bytes("orvane/app");
    QTest::newRow("more behind the name") << Bytes("x/orvane.apple") << Bytes("x/orvane.app");
    QTest::newRow("more behind the inner name")
        << Bytes("orvane.app/orvane.apps/bin") << Bytes("orvane.app/orvane.app");
    QTest::newRow("no character for the dot") << Bytes("orvaneapp/MacOS") << Bytes();
    QTest::newRow("two characters for the dot") << Bytes("orvane..app/MacOS") << Bytes();
    QTest::newRow("more in front of the name") << Bytes("xorvane.app/MacOS") << Bytes();
    QTest::newRow("the name cut short") << Bytes("orvane.ap/MacOS") << Bytes();
    QTest::newRow("capital letters") << Bytes("Orvane.App/MacOS") << Bytes();
    QTest::newRow("no bundle") << Bytes("usr/local/bin") << Bytes();
    QTest::newRow("blanks") << Bytes("a b/orvane.app/Mac OS") << Bytes("a b/orvane.app");
    QTest::newRow("characters of a pattern")
        << Bytes("(a)[b]*+?$\\/orvane.app/^") << Bytes("(a)[b]*+?$\\/orvane.app");
    QTest::newRow("UTF-8") << Bytes("Büro/\u65e5\u672c/orvane.app/MacOS")
                           << Bytes("Büro/\u65e5\u672c/orvane.app");
    QTest::newRow("not UTF-8") << Bytes("\xff\xfe\x80/orvane.app/\xc3")
                               << Bytes("\xff\xfe\x80/orvane.app");
    QTest::newRow("a line break behind the name")
        << Bytes("orvane.app/a\nb") << Bytes("orvane.app");
    QTest::newRow("a line break in front of the name") << Bytes("a\nb/orvane.app") << Bytes();
}

void InstallRootTest::rootEndsAtTheBundleName()
{
    QFETCH(QByteArray, below);
    QFETCH(QByteArray, root);
    enter(below);
    putProbe("probe");
    const Answer answer = ask("./probe");
    QCOMPARE(answer.directory, place() + '/' + below);
    QCOMPARE(answer.root, root.isEmpty() ? QByteArray() : place() + '/' + root);
}

void InstallRootTest::fileNameTakesNoPart()
{
    enter("bin");
    putProbe("orvane.app");
    const Answer answer = ask("./orvane.app");
    QCOMPARE(answer.directory, place() + "/bin");
    QCOMPARE(answer.root, QByteArray());
}

void InstallRootTest::pathsOfAnyLength_data()
{
    QTest::addColumn<int>("length"); // bytes of the program's path
    // The kernel shows a path of up to 4095 bytes.
    for (const int length : {255, 256, 257, 511, 512, 513, 4094, 4095, 4096, 4097, 6000}) {
        QTest::addRow("%d bytes", length) << length;
    }
}

void InstallRootTest::pathsOfAnyLength()
{
    QFETCH(int, length);
    const QByteArray bundle = "/orvane.app";
    const QByteArray program = "/p";
    int missing = length - place().size() - bundle.size() - program.size();
    QByteArray above;
    while (missing > 0) {
        int part = qMin(missing, 200);
        part -= missing - part == 1 ? 1 : 0; // a last part needs its slash and a character
        above += '/' + QByteArray(part - 1, 'a');
        missing -= part;
    }
    enter(above.mid(1) + bundle);
    putProbe("p");
    QCOMPARE(place().size() + above.size() + bundle.size() + program.size(), length);
    QCOMPARE(ask("./p").root, place() + above + bundle);
}

void InstallRootTest::linkToTheProgramIsFollowed()
{
    enter("orvane.app/Contents/MacOS");
    putProbe("probe");
    QVERIFY(chdir("../../..") == 0);
    QVERIFY(symlink("orvane.app/Contents/MacOS/probe", "link") == 0);
    const Answer answer = ask("./link");
    QCOMPARE(answer.directory, place() + "/orvane.app/Contents/MacOS");
    QCOMPARE(answer.root, place() + "/orvane.app");
}

void InstallRootTest::linkToTheBundleIsFollowed()
{
    enter("payload/MacOS");
    putProbe("probe");
    QVERIFY(chdir("../..") == 0);
    QVERIFY(symlink("payload", "orvane.app") == 0);
    const Answer answer = ask("./orvane.app/MacOS/probe");
    QCOMPARE(answer.directory, place() + "/payload/MacOS");
    QCOMPARE(answer.root, QByteArray());
}

void InstallRootTest::bundleBehindALinkIsTheRoot()
{
    enter("orvane.app/MacOS");
    putProbe("probe");
    QVERIFY(chdir("../..") == 0);
    QVERIFY(symlink("orvane.app", "link") == 0);
    QCOMPARE(ask("./link/MacOS/probe").root, place() + "/orvane.app");
}

void InstallRootTest::programDeletedWhileItRuns()
{
    enter("orvane.app/MacOS");
    putProbe("probe");
    QProcess probe;
    probe.start("./probe", QStringList());
    read(probe);
    QVERIFY(unlink("probe") == 0);
    probe.write("\n");
    const Answer answer = read(probe);
    QCOMPARE(answer.directory, place() + "/orvane.app/MacOS");
    QCOMPARE(answer.root, place() + "/orvane.app");
    probe.closeWriteChannel();
    probe.waitForFinished();
}

void InstallRootTest::programReplacedWhileItRuns()
{
    enter("orvane.app/MacOS");
    putProbe("probe");
    QProcess probe;
    probe.start("./probe", QStringList());
    read(probe);
    putProbe("update");
    QVERIFY(rename("update", "probe") == 0);
    probe.write("\n");
    const Answer answer = read(probe);
    QCOMPARE(answer.directory, place() + "/orvane.app/MacOS");
    QCOMPARE(answer.root, place() + "/orvane.app");
    probe.closeWriteChannel();
    probe.waitForFinished();
}

/// Nothing is kept from one runner to the next, and a runner keeps what it found.
void InstallRootTest::everyRunnerLooksAgainAndOnce()
{
    enter("A/orvane.app");
    putProbe("probe");
    QProcess probe;
    probe.start("./probe", QStringList());
    read(probe);
    QVERIFY(chdir("../..") == 0);
    QVERIFY(rename("A", "B") == 0);
    probe.write("\n");
    const Answer answer = read(probe);
    QCOMPARE(answer.root, place() + "/B/orvane.app");
    QCOMPARE(answer.firstRoot, place() + "/A/orvane.app");
    probe.closeWriteChannel();
    probe.waitForFinished();
}

void InstallRootTest::withoutProcTheStartedPathCounts_data()
{
    QTest::addColumn<QString>("program");
    QTest::newRow("absolute") << "$PWD/MacOS/probe";
    QTest::newRow("relative") << "MacOS/probe";
}

void InstallRootTest::withoutProcTheStartedPathCounts()
{
    QFETCH(QString, program);
    QStringList namespaces{"--mount"};
    if (geteuid() != 0) {
        namespaces << "--map-root-user";
    }
    if (QProcess::execute("unshare",
                          namespaces + QStringList{"mount", "-t", "tmpfs", "none", "/proc"}) != 0) {
        QSKIP("this machine lets nobody have file systems of his own", ""); // Clang wants two
    }
    enter("orvane.app/MacOS");
    putProbe("probe");
    QVERIFY(chdir("..") == 0);
    QProcess probe;
    probe.start("unshare",
                namespaces + QStringList{"bash", "-c",
                                         "mount -t tmpfs none /proc && exec \"" + program + '"'});
    const Answer answer = read(probe);
    QCOMPARE(answer.directory, place() + "/orvane.app/MacOS");
    QCOMPARE(answer.root, place() + "/orvane.app");
    probe.closeWriteChannel();
    probe.waitForFinished();
}

QTEST_GUILESS_MAIN(InstallRootTest)
#include "InstallRootTest.moc"
