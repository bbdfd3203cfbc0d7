// What an operator installs: --init of a new installation, the installed tree
// with its systemd unit, and the Debian package unpacked into a temporary root
// (never installed on this machine). Every program runs as a real process with
// private settings scopes.
#include <QDir>
#include <QDirIterator>
#include <QFile>
#include <QProcess>
#include <QStandardPaths>
#include <QTemporaryDir>
#include <QTest>

namespace {

struct Run {
    int code = -1;
    QString out, err;
};

// Runs a program to its end (at most `ms`) with the settings scopes inside `scratch`.
Run run(const QString& program, const QStringList& args, const QString& scratch, int ms = 120000)
{
    QProcess p;
    QProcessEnvironment env = QProcessEnvironment::systemEnvironment();
    env.insert("XDG_CONFIG_DIRS", scratch + "/machine");
    env.insert("XDG_CONFIG_HOME", scratch + "/user");
    p.setProcessEnvironment(env);
    p.start(program, args);
    Run r;
    if (!p.waitForStarted(10000) || !p.waitForFinished(ms)) {
        p.kill();
        p.waitForFinished(5000);
        r.err = p.errorString();
        return r;
    }
    r.code = p.exitStatus() == QProcess::NormalExit ? p.exitCode() : -1;
    r.out = QString::fromUtf8(p.readAllStandardOutput());
    r.err += QString::fromUtf8(p.readAllStandardError());
    return r;
}

QString readFile(const QString& path)
{
    QFile f(path);
    return f.open(QIODevice::ReadOnly) ? QString::fromUtf8(f.readAll()) : QString();
}

// --init of `exe` into scratch/inst; checks what every new installation has.
void checkInit(const QString& exe, const QString& scratch)
{
    const QString home = scratch + "/inst";
    const Run r = run(exe, {"--init", "--home", home}, scratch);
    QVERIFY2(r.code == 0, qPrintable(r.out + r.err));
    QVERIFY2(r.out.contains("Installation: " + home), qPrintable(r.out));
    QVERIFY2(r.out.contains("quillbase-ctl --home " + home + " printer add --name"), qPrintable(r.out));
    QVERIFY(r.out.contains("--headless --home " + home));
    for (const char* f : {"brixa.mdb", "brixa.mda", "0.lbl", "1.lbl", "lang/BrixaLangUK.Language"})
        QVERIFY2(QFile::exists(home + "/" + f), f);
}

} // namespace

class TestInstall : public QObject {
    Q_OBJECT
private slots:
    // Logging on in a new installation, unless the operator switched it off.
    void initTurnsLoggingOn_data()
    {
        QTest::addColumn<QString>("userConf");
        QTest::addColumn<QString>("useLog");
        QTest::addColumn<QString>("said");
        QTest::newRow("fresh") << "" << "dword:00000001" << "Event logging is on";
        QTest::newRow("switched off before") << "[Quillbase]\ndwUseLog=dword:00000000\n" << "dword:00000000"
                                             << "Event logging is off";
    }
    void initTurnsLoggingOn()
    {
        QFETCH(QString, userConf);
        QFETCH(QString, useLog);
        QFETCH(QString, said);
        QTemporaryDir scratch;
        QVERIFY(scratch.isValid());
        if (!userConf.isEmpty()) {
            QVERIFY(QDir().mkpath(scratch.filePath("user/Norvu")));
            QFile f(scratch.filePath("user/Norvu/Brixa.conf"));
            QVERIFY(f.open(QIODevice::WriteOnly));
            f.write(userConf.toUtf8());
        }
        const Run r = run(QUILL_BIN_DIR "/quillbase", {"--init", "--home", scratch.filePath("inst")}, scratch.path());
        QCOMPARE(r.code, 0);
        QVERIFY2(r.out.contains(said), qPrintable(r.out));
        QVERIFY(readFile(scratch.filePath("user/Norvu/Brixa.conf")).contains("dwUseLog=" + useLog));
    }

    // cmake --install: binaries, shipped files, and a unit systemd accepts.
    void installedTree()
    {
        QTemporaryDir prefix;
        QVERIFY(prefix.isValid());
        const Run inst = run(QUILL_CMAKE, {"--install", QUILL_BUILD_DIR, "--prefix", prefix.path()}, prefix.path());
        QVERIFY2(inst.code == 0, qPrintable(inst.out + inst.err));
        for (const char* f : {"bin/quillbase", "bin/mp104c-emulator", "share/quillbase/0.lbl",
                              "share/quillbase/lang/BrixaLangUK.Language", "share/doc/quillbase/protocol.md",
                              "lib/sysusers.d/quillbase.conf"})
            QVERIFY2(QFile::exists(prefix.filePath(f)), f);
        const QString unit = prefix.filePath("lib/systemd/system/quillbase.service");
        const QString text = readFile(unit);
        QVERIFY(text.contains("Type=notify"));
        QVERIFY(text.contains("ExecStart=" + prefix.filePath("bin/quillbase") + " --headless"));
        checkInit(prefix.filePath("bin/quillbase"), prefix.path());

        const QString analyze = QStandardPaths::findExecutable("systemd-analyze");
        if (analyze.isEmpty())
            QSKIP("systemd-analyze is not on this machine: the unit was not verified");
        const Run v = run(analyze, {"verify", unit}, prefix.path());
        QVERIFY2(v.code == 0 && v.err.trimmed().isEmpty(), qPrintable(v.out + v.err));
    }

    // The .deb that `make package` builds, unpacked into a temporary root.
    void debianPackage()
    {
        if (QStandardPaths::findExecutable("dpkg-deb").isEmpty())
            QSKIP("dpkg-deb is not on this machine");
        QTemporaryDir tmp;
        QVERIFY(tmp.isValid());
        const Run pack = run(QUILL_CPACK, {"-G", "DEB", "--config", QUILL_BUILD_DIR "/CPackConfig.cmake", "-B",
                                           tmp.filePath("pkg")},
                             tmp.path(), 240000);
        QVERIFY2(pack.code == 0, qPrintable(pack.out + pack.err));
        const QStringList debs = QDir(tmp.filePath("pkg")).entryList({"quillbase_*.deb"}, QDir::Files);
        QCOMPARE(debs.size(), 1);
        const QString root = tmp.filePath("root");
        const Run x = run("dpkg-deb", {"-x", tmp.filePath("pkg/" + debs[0]), root}, tmp.path());
        QVERIFY2(x.code == 0, qPrintable(x.err));

        const Run version = run(root + "/usr/bin/quillbase", {"--version"}, tmp.path());
        QCOMPARE(version.code, 0);
        QCOMPARE(version.out.trimmed(), QStringLiteral("Quillbase " QUILL_VERSION));
        QVERIFY(readFile(root + "/usr/lib/systemd/system/quillbase.service")
                    .contains("ExecStart=/usr/bin/quillbase --headless --home /var/lib/quillbase"));

        // --init takes the layouts the package ships, not only its built-in copies.
        QFile layout(root + "/usr/share/quillbase/0.lbl");
        QVERIFY(layout.open(QIODevice::Append));
        layout.write("# shipped\n");
        layout.close();
        checkInit(root + "/usr/bin/quillbase", tmp.path());
        QVERIFY(readFile(tmp.filePath("inst/0.lbl")).endsWith("# shipped\n"));
    }
};

QTEST_GUILESS_MAIN(TestInstall)
#include "tst_install.moc"
