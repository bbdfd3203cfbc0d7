// What an operator installs: --init of a new installation, and the Debian
// packages unpacked into a temporary root (never installed on this machine):
// contents, lintian, the systemd unit and its sandbox, the shipped settings and
// the maintainer scripts. The server runs as a real process with private
// settings scopes.
#include "support/installation.h"

#include <QCryptographicHash>
#include <QDir>
#include <QDirIterator>
#include <QRegularExpression>
#include <QFile>
#include <QStandardPaths>
#include <QTest>

#include <sys/stat.h>
#include <unistd.h>

using quill::test::ProgramRun;
using quill::test::RunProgram;

namespace {

QString readFile(const QString& path)
{
    QFile f(path);
    return f.open(QIODevice::ReadOnly) ? QString::fromUtf8(f.readAll()) : QString();
}

// Writes (or, with Append, adds) `text`, making the folder first.
bool writeFile(const QString& path, const QString& text, QIODevice::OpenMode mode = QIODevice::Truncate)
{
    QFile f(path);
    return QDir().mkpath(QFileInfo(path).absolutePath()) && f.open(QIODevice::WriteOnly | mode)
        && f.write(text.toUtf8()) == text.toUtf8().size();
}

// Every file under `dir` with a digest of its bytes, sorted by path.
QStringList digests(const QString& dir)
{
    QStringList list;
    QDirIterator it(dir, QDir::Files | QDir::Hidden, QDirIterator::Subdirectories);
    while (it.hasNext()) {
        const QString path = it.next();
        QFile f(path);
        if (f.open(QIODevice::ReadOnly))
            list << QDir(dir).relativeFilePath(path) + " "
                        + QCryptographicHash::hash(f.readAll(), QCryptographicHash::Sha256).toHex();
    }
    list.sort();
    return list;
}

} // namespace

class TestInstall : public QObject {
    Q_OBJECT
private slots:
    // The packages `make package` builds, made once for the tests below and
    // unpacked into temporary roots (never installed on this machine).
    void initTestCase()
    {
        if (QStandardPaths::findExecutable("dpkg-deb").isEmpty())
            QSKIP("dpkg-deb is not on this machine: the packages were not built");
        QVERIFY(pkg_.isValid());
        const ProgramRun pack = RunProgram(
            QUILL_CPACK, {"-G", "DEB", "--config", QUILL_BUILD_DIR "/CPackConfig.cmake", "-B", pkg_.path()},
            QProcessEnvironment::systemEnvironment(), 240000);
        QVERIFY2(pack.code == 0, qPrintable(pack.out + pack.err));
        for (const QString& name : {QStringLiteral("quillbase"), QStringLiteral("mp104c-emulator")}) {
            const QStringList debs = QDir(pkg_.path()).entryList({name + "_*.deb"}, QDir::Files);
            QCOMPARE(debs.size(), 1);
            debs_[name] = pkg_.filePath(debs[0]);
            const ProgramRun x = RunProgram("dpkg-deb", {"-R", debs_[name], root(name)});
            QVERIFY2(x.code == 0, qPrintable(x.err));
        }
    }

    // Each file in its package, the emulator in its own (lintian below finds
    // a binary not stripped, and a missing manual page, copyright or
    // changelog); the shipped settings a conffile. The maintainer scripts'
    // test uses the rest.
    void packageContents()
    {
        for (const char* f : {"usr/bin/quillbase-ctl", "usr/share/bash-completion/completions/quillbase-ctl"})
            QVERIFY2(QFile::exists(root("quillbase") + "/" + f), f);
        const QString conffiles = readFile(root("quillbase") + "/DEBIAN/conffiles");
        QCOMPARE(conffiles.trimmed(), QStringLiteral("/etc/quillbase/Norvu/Brixa.conf"));
        QVERIFY(!QFile::exists(root("quillbase") + "/usr/bin/mp104c-emulator"));
        QVERIFY(QFile::exists(root("mp104c-emulator") + "/usr/bin/mp104c-emulator"));
        for (const char* f : {"usr/bin/quillbase", "DEBIAN/postinst", "etc"})
            QVERIFY2(!QFile::exists(root("mp104c-emulator") + "/" + f), f);
    }

    // The maintainer scripts as dpkg runs them, into a temporary root without
    // chroot (DPKG_ROOT): the first installation makes the user and enables
    // the unit; the packaged server makes its installation as the unit's
    // first start would; an upgrade keeps the installation, the
    // administrator's settings and disable; purge takes away what the package
    // made. Nothing starts: no systemd runs in that root.
    void maintainerScriptsInAnotherRoot()
    {
        for (const char* tool : {"dpkg", "deb-systemd-helper", "systemd-sysusers", "systemctl", "userdel"})
            if (QStandardPaths::findExecutable(tool).isEmpty())
                QSKIP(qPrintable(QString("%1 is not on this machine: the maintainer scripts were not run").arg(tool)));
        if (getuid() != 0)
            QSKIP("dpkg installs into another root as root only: the maintainer scripts were not run");

        QTemporaryDir scratch;
        QVERIFY(scratch.isValid());
        const QString r = scratch.filePath("root");
        QVERIFY(QDir().mkpath(r + "/var/lib/dpkg/info") && QDir().mkpath(r + "/var/lib/dpkg/updates")
                && QDir().mkpath(r + "/etc") && writeFile(r + "/var/lib/dpkg/status", ""));
        // The libraries the package depends on are this machine's, not the root's.
        const auto dpkg = [&](const QStringList& args) {
            const ProgramRun d =
                RunProgram("dpkg", QStringList{"--root", r, "--force-script-chrootless", "--force-depends"} + args);
            return d.code == 0 ? QString() : d.out + d.err;
        };
        const QString wants = r + "/etc/systemd/system/multi-user.target.wants/quillbase.service";
        const QString home = r + "/var/lib/quillbase";
        const QString conf = r + "/etc/quillbase/Norvu/Brixa.conf";

        QString failed = dpkg({"-i", debs_["quillbase"]});
        QVERIFY2(failed.isEmpty(), qPrintable(failed));
        QVERIFY(readFile(r + "/etc/passwd").contains(QRegularExpression("^quillbase:x:\\d+:\\d+:.*:/var/lib/quillbase:",
                                                                          QRegularExpression::MultilineOption)));
        QVERIFY(readFile(r + "/etc/group").contains(QRegularExpression("^dialout:x:\\d+:quillbase$",
                                                                         QRegularExpression::MultilineOption)));
        QVERIFY(QFileInfo(wants).isSymLink());

        // The unit's first start, in its environment and under its umask: the
        // shipped layouts and settings (left as shipped), logging on, nothing
        // open to other users or writable by the group.
        QProcessEnvironment env = QProcessEnvironment::systemEnvironment();
        env.insert("XDG_CONFIG_DIRS", r + "/etc/quillbase");
        env.insert("XDG_CONFIG_HOME", home + "/config");
        const ProgramRun version = RunProgram(r + "/usr/bin/quillbase", {"--version"}, env);
        QCOMPARE(version.out.trimmed(), QStringLiteral("Quillbase " QUILL_VERSION));
        QVERIFY(writeFile(r + "/usr/share/quillbase/0.lbl", "# shipped\n", QIODevice::Append));
        const QString shipped = readFile(conf);
        const mode_t saved = umask(0027);
        const ProgramRun init = RunProgram(r + "/usr/bin/quillbase", {"--init", "--home", home}, env);
        umask(saved);
        QVERIFY2(init.code == 0, qPrintable(init.out + init.err));
        QVERIFY2(init.out.contains("quillbase-ctl --home " + home + " printer add --name"), qPrintable(init.out));
        QVERIFY(readFile(home + "/config/Norvu/Brixa.conf").contains("dwUseLog=dword:00000001"));
        QVERIFY(readFile(home + "/0.lbl").endsWith("# shipped\n"));
        QCOMPARE(readFile(conf), shipped);
        const QFile::Permissions open = QFile::WriteGroup | QFile::ReadOther | QFile::WriteOther | QFile::ExeOther;
        QDirIterator it(home, QDir::Files | QDir::Dirs | QDir::NoDotAndDotDot, QDirIterator::Subdirectories);
        while (it.hasNext()) {
            const QFileInfo f(it.next());
            QVERIFY2(!(f.permissions() & open), qPrintable(f.filePath()));
        }

        // The administrator's changes: settings edited, the unit disabled.
        QVERIFY(writeFile(conf, "tAllowedClients=192.168.7.0/24\n", QIODevice::Append));
        const QString edited = readFile(conf);
        const ProgramRun disable = RunProgram("systemctl", {"--root", r, "disable", "quillbase.service"});
        QVERIFY2(disable.code == 0 && !QFileInfo(wants).exists(), qPrintable(disable.err));
        const QStringList before = digests(home);
        for (const char* f : {"brixa.mdb ", "1.lbl ", "lang/BrixaLangUK.Language ", "config/Norvu/Brixa.conf "})
            QVERIFY2(before.join('\n').contains(f), f);

        // An upgrade: dpkg runs the same scripts, in the same order, for the
        // same version installed again.
        failed = dpkg({"-i", debs_["quillbase"]});
        QVERIFY2(failed.isEmpty(), qPrintable(failed));
        QCOMPARE(digests(home), before);
        QCOMPARE(readFile(conf), edited);
        QVERIFY(!QFileInfo(wants).exists());
        QCOMPARE(QFileInfo(home).permissions() & (QFile::ReadOther | QFile::ExeOther | QFile::ReadGroup |
                                                  QFile::WriteGroup | QFile::ExeGroup),
                 QFile::ReadGroup | QFile::ExeGroup);

        failed = dpkg({"--purge", "quillbase"});
        QVERIFY2(failed.isEmpty(), qPrintable(failed));
        QVERIFY(!QFileInfo::exists(home));
        QVERIFY(!QFileInfo::exists(r + "/etc/quillbase"));
        QVERIFY(!readFile(r + "/etc/passwd").contains("quillbase"));
        QVERIFY(!readFile(r + "/etc/group").contains("quillbase"));
        QCOMPARE(digests(r + "/etc/systemd"), QStringList());
    }

    // Lintian finds no error and no warning in any package, the two -dbgsym
    // packages included (one run over all four: most of its time is its own
    // start).
    void lintianClean()
    {
        const QString lintian = QStandardPaths::findExecutable("lintian");
        if (lintian.isEmpty())
            QSKIP("lintian is not on this machine (make deps installs it): the packages were not checked");
        QStringList files = QDir(pkg_.path()).entryList({"*.deb", "*.ddeb"}, QDir::Files);
        QCOMPARE(files.size(), 4);
        for (QString& f : files)
            f = pkg_.filePath(f);
        const QStringList args{"--fail-on", "error,warning", "--tag-display-limit", "0"};
        const ProgramRun l = RunProgram(lintian, args + files, QProcessEnvironment::systemEnvironment(), 240000);
        QVERIFY2(l.code == 0, qPrintable(l.out + l.err));
    }

    // A unit systemd accepts (its program where the package puts it), that
    // reads the shipped settings and reaches the serial ports, in its sandbox.
    void unitHardened()
    {
        const QString analyze = QStandardPaths::findExecutable("systemd-analyze");
        if (analyze.isEmpty())
            QSKIP("systemd-analyze is not on this machine: the unit was not checked");
        const QString unit = root("quillbase") + "/usr/lib/systemd/system/quillbase.service";
        QTemporaryDir tmp;
        QVERIFY(writeFile(tmp.filePath("quillbase.service"),
                          readFile(unit).replace("/usr/bin/quillbase", root("quillbase") + "/usr/bin/quillbase")));
        const ProgramRun v = RunProgram(analyze, {"verify", tmp.filePath("quillbase.service")});
        QVERIFY2(v.code == 0 && v.err.trimmed().isEmpty(), qPrintable(v.out + v.err));
        for (const char* line : {"ExecStart=/usr/bin/quillbase --headless --home /var/lib/quillbase",
                                 "XDG_CONFIG_DIRS=/etc/quillbase ", "SupplementaryGroups=dialout", "UMask=0027"})
            QVERIFY2(readFile(unit).contains(line), line);
    }

private:
    QTemporaryDir pkg_;
    QHash<QString, QString> debs_;
    QString root(const QString& package) const { return pkg_.filePath("root-" + package); }
};

QTEST_GUILESS_MAIN(TestInstall)
#include "tst_install.moc"
