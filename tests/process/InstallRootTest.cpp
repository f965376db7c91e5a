#include <QCoreApplication>
#include <QFile>
#include <QFileInfo>
#include <QProcess>
#include <QTemporaryDir>
#include <QTest>

#include <fcntl.h>
#include <filesystem>
#include <memory>
#include <sys/stat.h>
#include <unistd.h>

namespace {

/// A probe (InstallRootProbe.cpp) that is asked where it is, as often as wanted.
class Probe
{
public:
    struct Answer
    {
        QByteArray directory, root, firstRoot;
    };

    explicit Probe(const QString &program, const QStringList &arguments = {})
    {
        process.start(program, arguments);
    }
    ~Probe()
    {
        process.closeWriteChannel();
        process.waitForFinished();
    }
    Probe(const Probe &) = delete;
    Probe &operator=(const Probe &) = delete;

    Answer answer()
    {
        QByteArray output;
        while (output.count('\0') < 3 && process.waitForReadyRead(1000 * ORVANE_PATIENCE)) {
            output += process.readAllStandardOutput();
        }
        const QList<QByteArray> texts = output.split('\0');
        return texts.size() == 4 ? Answer{texts[0], texts[1], texts[2]}
                                 : Answer{"no answer: " + output, {}, {}};
    }
    Answer answerAgain()
    {
        process.write("\n");
        return answer();
    }
    /// Whether an emulator runs the program and tells it what the kernel would.
    bool isEmulated() const
    {
        return QFile::symLinkTarget(QString("/proc/%1/exe").arg(process.processId())) !=
               QFileInfo(process.program()).canonicalFilePath();
    }

private:
    QProcess process;
};

} // namespace

/// The directory and the install root that a program finds for itself, by where it lies. A probe is
/// copied to each place and started there as ./name, the one way that works for a path of any
/// length.
class InstallRootTest : public QObject
{
    Q_OBJECT

private slots:
    void init()
    {
        directory = std::make_unique<QTemporaryDir>();
        QVERIFY(chdir(place()) == 0);
    }

    void cleanup()
    {
        QVERIFY(chdir("/") == 0);
        std::error_code error;
        std::filesystem::remove_all(directory->path().toStdString(), error);
        QVERIFY2(!error, error.message().c_str());
    }

    void rootEndsAtTheBundleName_data()
    {
        QTest::addColumn<QByteArray>("below"); // the program's directory
        QTest::addColumn<QByteArray>("root");  // what of it is the install root
        const auto add = [](const char *name, const QByteArray &below, const QByteArray &root) {
            QTest::newRow(name) << below << root;
        };
        add("a bundle", "orvane.app/Contents/MacOS", "orvane.app");
        add("the bundle directory itself", "orvane.app", "orvane.app");
        add("two bundles: the inner one", "A/orvane.app/B/orvane.app/Contents/MacOS",
            "A/orvane.app/B/orvane.app");
        add("two bundles in a row", "orvane.app/orvane.app/Contents", "orvane.app/orvane.app");
        add("any character for the dot", "orvane_app/MacOS", "orvane_app");
        add("a slash for the dot", "orvane/app/MacOS", "orvane/app");
        add("more behind the name", "x/orvane.apple", "x/orvane.app");
        add("more behind the inner name", "orvane.app/orvane.apps/bin", "orvane.app/orvane.app");
        add("no character for the dot", "orvaneapp/MacOS", {});
        add("two characters for the dot", "orvane..app/MacOS", {});
        add("more in front of the name", "xorvane.app/MacOS", {});
        add("the name cut short", "orvane.ap/MacOS", {});
        add("capital letters", "Orvane.App/MacOS", {});
        add("no bundle", "usr/local/bin", {});
        add("characters of a pattern", "(a) [b]*+?$\\/orvane.app/^", "(a) [b]*+?$\\/orvane.app");
        add("UTF-8", "Büro/\u65e5\u672c/orvane.app/MacOS", "Büro/\u65e5\u672c/orvane.app");
        add("not UTF-8", "\xff\xfe\x80/orvane.app/\xc3", "\xff\xfe\x80/orvane.app");
        add("a line break behind the name", "orvane.app/a\nb", "orvane.app");
        add("a line break in front of the name", "a\nb/orvane.app", {});
    }

    void rootEndsAtTheBundleName()
    {
        QFETCH(QByteArray, below);
        QFETCH(QByteArray, root);
        enter(below);
        putProbe("probe");
        const Probe::Answer answer = Probe("./probe").answer();
        QCOMPARE(answer.directory, place() + '/' + below);
        QCOMPARE(answer.root, root.isEmpty() ? QByteArray() : place() + '/' + root);
    }

    void fileNameTakesNoPart()
    {
        enter("bin");
        putProbe("orvane.app");
        const Probe::Answer answer = Probe("./orvane.app").answer();
        QCOMPARE(answer.directory, place() + "/bin");
        QCOMPARE(answer.root, QByteArray());
    }

    void pathsOfAnyLength_data()
    {
        QTest::addColumn<int>("length"); // bytes of the program's path
        // The kernel shows a path of up to 4095 bytes.
        for (const int length : {255, 256, 257, 512, 4094, 4095, 4096, 4097, 6000}) {
            QTest::addRow("%d bytes", length) << length;
        }
    }

    void pathsOfAnyLength()
    {
        QFETCH(int, length);
        const QByteArray bundle = "/orvane.app";
        int missing = length - place().size() - bundle.size() - 2; // for "/p"
        QByteArray above;
        while (missing > 0) {
            int part = qMin(missing, 200);
            part -= missing - part == 1 ? 1 : 0; // a last part needs its slash and a character
            above += '/' + QByteArray(part - 1, 'a');
            missing -= part;
        }
        enter(above.mid(1) + bundle);
        putProbe("p");
        const QByteArray root = place() + above + bundle;
        QCOMPARE(root.size() + 2, length);
        QCOMPARE(Probe("./p").answer().root, root);
    }

    void linksToTheProgramAreFollowed()
    {
        const QByteArray below = "Contents/" + QByteArray(250, 'm'); // also where a path is long
        enter("orvane.app/" + below);
        putProbe("probe");
        QVERIFY(chdir("../../..") == 0);
        QVERIFY(symlink("orvane.app/" + below + "/probe", "link") == 0);
        QVERIFY(symlink("orvane.app", "orvane_app") == 0);
        for (const QByteArray &link : {QByteArray("./link"), "./orvane_app/" + below + "/probe"}) {
            const Probe::Answer answer = Probe(link).answer();
            QCOMPARE(answer.directory, place() + "/orvane.app/" + below);
            QCOMPARE(answer.root, place() + "/orvane.app");
        }
    }

    void programDeletedOrReplacedWhileItRuns_data()
    {
        QTest::addColumn<bool>("replaced");
        QTest::newRow("deleted") << false;
        QTest::newRow("replaced") << true;
    }

    void programDeletedOrReplacedWhileItRuns()
    {
        QFETCH(bool, replaced);
        enter("orvane.app/MacOS");
        putProbe("probe");
        Probe probe("./probe");
        probe.answer();
        QVERIFY(unlink("probe") == 0);
        if (replaced) {
            putProbe("probe");
        }
        const Probe::Answer answer = probe.answerAgain();
        QCOMPARE(answer.directory, place() + "/orvane.app/MacOS");
        QCOMPARE(answer.root, place() + "/orvane.app");
    }

    /// Nothing is kept from one runner to the next, and a runner keeps what it found.
    void everyRunnerLooksAgainAndOnce()
    {
        enter("A/orvane.app");
        putProbe("probe");
        Probe probe("./probe");
        probe.answer();
        if (probe.isEmulated()) {
            QSKIP("the emulator keeps the path that it was started with", "");
        }
        QVERIFY(chdir("../..") == 0);
        QVERIFY(rename("A", "B") == 0);
        const Probe::Answer answer = probe.answerAgain();
        QCOMPARE(answer.root, place() + "/B/orvane.app");
        QCOMPARE(answer.firstRoot, place() + "/A/orvane.app");
    }

    void withoutProcTheStartedPathCounts_data()
    {
        QTest::addColumn<QString>("program");
        QTest::newRow("absolute") << "$PWD/MacOS/probe";
        QTest::newRow("relative") << "MacOS/probe";
    }

    void withoutProcTheStartedPathCounts()
    {
        QFETCH(QString, program);
        QStringList namespaces{"--mount"};
        if (geteuid() != 0) {
            namespaces << "--map-root-user";
        }
        const QString hide = "mount -t tmpfs none /proc";
        if (QProcess::execute("unshare", namespaces + hide.split(' ')) != 0) {
            QSKIP("this machine lets nobody have file systems of his own", ""); // Clang wants two
        }
        enter("orvane.app/MacOS");
        putProbe("probe");
        QVERIFY(chdir("..") == 0);
        Probe probe("unshare",
                    namespaces + QStringList{"bash", "-c", hide + " && exec \"" + program + '"'});
        const Probe::Answer answer = probe.answer();
        QCOMPARE(answer.directory, place() + "/orvane.app/MacOS");
        QCOMPARE(answer.root, place() + "/orvane.app");
    }

private:
    QByteArray place() const { return QFile::encodeName(directory->path()); }

    /// Makes the directories, one below the other, and goes into the last.
    static void enter(const QByteArray &directories)
    {
        for (const QByteArray &name : directories.split('/')) {
            mkdir(name, S_IRWXU);
            QVERIFY2(chdir(name) == 0, name);
        }
    }

    /// Copies the probe into the current directory, whose path may be too long for QFile.
    static void putProbe(const QByteArray &name)
    {
        QFile probe(QCoreApplication::applicationDirPath() + "/InstallRootProbe");
        QVERIFY(probe.open(QIODevice::ReadOnly));
        const QByteArray program = probe.readAll();
        const int copy = open(name, O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, S_IRWXU);
        QVERIFY(copy != -1);
        QVERIFY(write(copy, program, static_cast<std::size_t>(program.size())) == program.size());
        close(copy);
    }

    std::unique_ptr<QTemporaryDir> directory;
};

QTEST_GUILESS_MAIN(InstallRootTest)
#include "InstallRootTest.moc"
