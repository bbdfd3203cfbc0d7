// What an operator installs: --init of a new installation, the installed tree
// with its systemd unit, and the Debian package unpacked into a temporary root
// (never installed on this machine): contents, lintian, the unit's sandbox,
// the shipped settings, and the new server over an older installation. Every
// program runs as a real process with private settings scopes.
#include "foundation/settings.h"
#include "protocol/clientfilter.h"
#include "support/dbfixture.h"
#include "support/installation.h"

#include <QCryptographicHash>
#include <QDir>
#include <QDirIterator>
#include <QHostAddress>
#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <QRegularExpression>
#include <QSqlQuery>
#include <QFile>
#include <QProcess>
#include <QStandardPaths>
#include <QTemporaryDir>
#include <QTest>

#include <sys/stat.h>
#include <unistd.h>

namespace {

struct Run {
    int code = -1;
    QString out, err;
};

// Runs a program to its end (at most `ms`) with the settings scopes inside `scratch`;
// `env` replaces or adds variables ("NAME=value").
Run run(const QString& program, const QStringList& args, const QString& scratch, int ms = 120000,
        const QStringList& extraEnv = {})
{
    QProcess p;
    QProcessEnvironment env = QProcessEnvironment::systemEnvironment();
    env.insert("XDG_CONFIG_DIRS", scratch + "/machine");
    env.insert("XDG_CONFIG_HOME", scratch + "/user");
    for (const QString& v : extraEnv)
        env.insert(v.section('=', 0, 0), v.section('=', 1));
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

// --init of `exe` into scratch/inst under the service's umask; checks what
// every new installation has: its files, logging on, and nothing open to other
// users or writable by the group.
void checkInit(const QString& exe, const QString& scratch)
{
    const QString home = scratch + "/inst";
    const mode_t saved = umask(0027);
    const Run r = run(exe, {"--init", "--home", home}, scratch);
    umask(saved);
    QVERIFY2(r.code == 0, qPrintable(r.out + r.err));
    QVERIFY2(r.out.contains("Installation: " + home), qPrintable(r.out));
    QVERIFY2(r.out.contains("quillbase-ctl --home " + home + " printer add --name"), qPrintable(r.out));
    QVERIFY(r.out.contains("--headless --home " + home));
    QVERIFY2(r.out.contains("Event logging is on"), qPrintable(r.out));
    QVERIFY(readFile(scratch + "/user/Norvu/Brixa.conf").contains("dwUseLog=dword:00000001"));
    for (const char* f : {"brixa.mdb", "brixa.mda", "0.lbl", "1.lbl", "lang/BrixaLangUK.Language"})
        QVERIFY2(QFile::exists(home + "/" + f), f);
    const QFile::Permissions open = QFile::WriteGroup | QFile::ReadOther | QFile::WriteOther | QFile::ExeOther;
    for (const QString& dir : {home, scratch + "/user"}) {
        QDirIterator it(dir, QDir::Files | QDir::Dirs | QDir::NoDotAndDotDot, QDirIterator::Subdirectories);
        while (it.hasNext()) {
            const QFileInfo f(it.next());
            QVERIFY2(!(f.permissions() & open), qPrintable(f.filePath()));
        }
    }
}

} // namespace

class TestInstall : public QObject {
    Q_OBJECT
private slots:
    // The operator's choice of no logging stays through a new installation.
    void initKeepsLoggingOff()
    {
        QTemporaryDir scratch;
        QVERIFY(scratch.isValid());
        QVERIFY(writeFile(scratch.filePath("user/Norvu/Brixa.conf"), "[Quillbase]\ndwUseLog=dword:00000000\n"));
        const Run r = run(QUILL_BIN_DIR "/quillbase", {"--init", "--home", scratch.filePath("inst")}, scratch.path());
        QCOMPARE(r.code, 0);
        QVERIFY2(r.out.contains("Event logging is off"), qPrintable(r.out));
        QVERIFY(readFile(scratch.filePath("user/Norvu/Brixa.conf")).contains("dwUseLog=dword:00000000"));
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

    // The packages `make package` builds, made once for the tests below and
    // unpacked into temporary roots (never installed on this machine).
    void buildPackages()
    {
        if (QStandardPaths::findExecutable("dpkg-deb").isEmpty())
            QSKIP("dpkg-deb is not on this machine");
        QVERIFY(pkg_.isValid());
        const Run pack = run(QUILL_CPACK, {"-G", "DEB", "--config", QUILL_BUILD_DIR "/CPackConfig.cmake", "-B",
                                           pkg_.path()},
                             pkg_.path(), 240000);
        QVERIFY2(pack.code == 0, qPrintable(pack.out + pack.err));
        for (const QString& name : {QStringLiteral("quillbase"), QStringLiteral("mp104c-emulator")}) {
            const QStringList debs = QDir(pkg_.path()).entryList({name + "_*.deb"}, QDir::Files);
            QCOMPARE(debs.size(), 1);
            debs_[name] = pkg_.filePath(debs[0]);
            const Run x = run("dpkg-deb", {"-R", debs_[name], root(name)}, pkg_.path());
            QVERIFY2(x.code == 0, qPrintable(x.err));
        }
    }

    // Each file in its package, the emulator in its own, binaries stripped
    // with their symbols in -dbgsym packages.
    void packageContents_data()
    {
        QTest::addColumn<QString>("package");
        QTest::addColumn<QStringList>("present");
        QTest::addColumn<QStringList>("absent");
        QTest::newRow("server") << "quillbase"
                                << QStringList{"usr/bin/quillbase", "usr/bin/quillbase-ctl",
                                               "usr/share/man/man8/quillbase.8.gz",
                                               "usr/share/man/man1/quillbase-ctl.1.gz",
                                               "usr/share/doc/quillbase/copyright",
                                               "usr/share/doc/quillbase/changelog.Debian.gz",
                                               "usr/share/bash-completion/completions/quillbase-ctl",
                                               "etc/quillbase/Norvu/Brixa.conf", "usr/share/quillbase/0.lbl",
                                               "DEBIAN/postinst", "DEBIAN/postrm", "DEBIAN/prerm"}
                                << QStringList{"usr/bin/mp104c-emulator"};
        QTest::newRow("emulator") << "mp104c-emulator"
                                  << QStringList{"usr/bin/mp104c-emulator", "usr/share/man/man1/mp104c-emulator.1.gz",
                                                 "usr/share/doc/mp104c-emulator/copyright",
                                                 "usr/share/doc/mp104c-emulator/changelog.Debian.gz"}
                                  << QStringList{"usr/bin/quillbase", "DEBIAN/postinst", "etc"};
    }
    void packageContents()
    {
        QFETCH(QString, package);
        QFETCH(QStringList, present);
        QFETCH(QStringList, absent);
        if (debs_.isEmpty())
            QSKIP("no packages were built");
        const QString r = root(package);
        for (const QString& f : present)
            QVERIFY2(QFile::exists(r + "/" + f), qPrintable(f));
        for (const QString& f : absent)
            QVERIFY2(!QFile::exists(r + "/" + f), qPrintable(f));
        for (const QString& exe : QDir(r + "/usr/bin").entryList(QDir::Files)) {
            const Run sections = run("readelf", {"-S", "-W", r + "/usr/bin/" + exe}, pkg_.path());
            QVERIFY2(sections.code == 0 && sections.out.contains(".text"), qPrintable(sections.err));
            QVERIFY2(!sections.out.contains(".debug_info") && !sections.out.contains(".symtab"), qPrintable(exe));
        }
        const QStringList dbgsym = QDir(pkg_.path()).entryList({package + "-dbgsym_*.ddeb"}, QDir::Files);
        QCOMPARE(dbgsym.size(), 1);
        const Run listing = run("dpkg-deb", {"-c", pkg_.filePath(dbgsym[0])}, pkg_.path());
        QVERIFY2(listing.out.contains("/usr/lib/debug/.build-id/") && listing.out.contains(".debug"),
                 qPrintable(listing.out));
    }

    // The package as installed by hand would run: --version, --init with the
    // shipped layouts and settings, which it leaves as shipped (a conffile).
    void packagedServerInitialises()
    {
        if (debs_.isEmpty())
            QSKIP("no packages were built");
        const QString r = root("quillbase");
        const Run version = run(r + "/usr/bin/quillbase", {"--version"}, pkg_.path());
        QCOMPARE(version.code, 0);
        QCOMPARE(version.out.trimmed(), QStringLiteral("Quillbase " QUILL_VERSION));
        const Run ctlVersion = run(r + "/usr/bin/quillbase-ctl", {"--version"}, pkg_.path());
        QCOMPARE(ctlVersion.out.trimmed(), QStringLiteral("quillbase-ctl " QUILL_VERSION));
        const QString unit = readFile(r + "/usr/lib/systemd/system/quillbase.service");
        QVERIFY(unit.contains("ExecStart=/usr/bin/quillbase --headless --home /var/lib/quillbase"));
        QVERIFY(unit.contains("XDG_CONFIG_DIRS=/etc/quillbase "));
        QCOMPARE(readFile(r + "/DEBIAN/conffiles").trimmed(), QStringLiteral("/etc/quillbase/Norvu/Brixa.conf"));

        QTemporaryDir tmp;
        QVERIFY(tmp.isValid());
        // The shipped settings stand in for the machine's (run() points there).
        const QString shipped = readFile(r + "/etc/quillbase/Norvu/Brixa.conf");
        QVERIFY(writeFile(tmp.filePath("machine/Norvu/Brixa.conf"), shipped));
        QVERIFY(writeFile(r + "/usr/share/quillbase/0.lbl", "# shipped\n", QIODevice::Append));
        checkInit(r + "/usr/bin/quillbase", tmp.path());
        QVERIFY(readFile(tmp.filePath("inst/0.lbl")).endsWith("# shipped\n"));
        QCOMPARE(readFile(tmp.filePath("machine/Norvu/Brixa.conf")), shipped);
    }

    // The shipped allow-list: this machine and the private networks only.
    void shippedAllowList_data()
    {
        QTest::addColumn<QString>("peer");
        QTest::addColumn<bool>("allowed");
        QTest::newRow("loopback") << "127.0.0.1" << true;
        QTest::newRow("loopback v6") << "::1" << true;
        QTest::newRow("10/8") << "10.20.30.40" << true;
        QTest::newRow("172.16/12") << "172.31.255.1" << true;
        QTest::newRow("just outside 172.16/12") << "172.32.0.1" << false;
        QTest::newRow("192.168/16") << "192.168.10.5" << true;
        QTest::newRow("unique local v6") << "fd12:3456::7" << true;
        QTest::newRow("public v4") << "8.8.8.8" << false;
    }
    void shippedAllowList()
    {
        QFETCH(QString, peer);
        QFETCH(bool, allowed);
        if (debs_.isEmpty())
            QSKIP("no packages were built");
        const QString conf = root("quillbase") + "/etc/quillbase/Norvu/Brixa.conf";
        qputenv("XDG_CONFIG_DIRS", QFileInfo(conf).absolutePath().chopped(QStringLiteral("/Norvu").size()).toUtf8());
        QCOMPARE(quill::RegGetValue(quill::HKEY_LOCAL_MACHINE, quill::KeyQuillbase, "tBindAddress"), QString());
        QStringList invalid;
        quill::ClientFilter filter;
        filter.setAllowed(quill::RegGetValue(quill::HKEY_LOCAL_MACHINE, quill::KeyQuillbase, "tAllowedClients"),
                          &invalid);
        QVERIFY2(invalid.isEmpty(), qPrintable(invalid.join(", ")));
        QVERIFY(filter.restricted());
        QCOMPARE(filter.allows(QHostAddress(peer)), allowed);
    }

    // The server of the new package over an installation an earlier version
    // made and used: its queued jobs and settings are there after the start.
    void upgradeKeepsJobsAndSettings()
    {
        if (debs_.isEmpty())
            QSKIP("no packages were built");
        quill::test::TestInstallation inst;
        QVERIFY(inst.ok());
        const quint16 port = quill::test::TestInstallation::freePort();
        QVERIFY(inst.setServer(port, false));
        inst.setUserSwitch("dwUseLog", 1);
        inst.setUserSwitch("dwQuitQuestion", 1);
        for (int id = 1; id <= 2; ++id)
            QVERIFY(inst.sql("INSERT INTO tbJob (Id, PrinterId, Job) VALUES (?, 1, ?)",
                             {id, quill::dbtest::JobText(1, 1, "1", "KASSA1", "Anna", QString("Jobb %1").arg(id))}));
        const QString r = root("quillbase");
        QProcess server;
        server.setProcessChannelMode(QProcess::ForwardedErrorChannel);
        server.start(r + "/usr/bin/quillbase", {"--headless", "--home", inst.path()});
        QVERIFY(server.waitForStarted(10000));
        QTRY_VERIFY_WITH_TIMEOUT(inst.log().contains("Quillbase succesfully started"), 30000);
        const Run jobs = run(r + "/usr/bin/quillbase-ctl", {"--home", inst.path(), "--json", "jobs"},
                             inst.path());
        const Run settings = run(r + "/usr/bin/quillbase-ctl", {"--home", inst.path(), "--json", "settings"},
                                 inst.path());
        server.terminate();
        QVERIFY(server.waitForFinished(20000));
        QCOMPARE(jobs.code, 0);
        const QJsonArray list = QJsonDocument::fromJson(jobs.out.toUtf8()).object()["jobs"].toArray();
        QCOMPARE(list.size(), 2);
        QCOMPARE(list[1].toObject()["caption"].toString(), QString("Jobb 2"));
        const QJsonObject s = QJsonDocument::fromJson(settings.out.toUtf8()).object()["settings"].toObject();
        QCOMPARE(s["port"], QJsonValue(int(port)));
        QCOMPARE(s["quitQuestion"].toBool(), true);
    }

    // The maintainer scripts as dpkg runs them, into a temporary root without
    // chroot (DPKG_ROOT): the first installation makes the user and enables
    // the unit; an upgrade keeps the installation, the administrator's
    // settings and disable; purge takes away what the package made. Nothing
    // starts: no systemd runs in that root.
    void maintainerScriptsInAnotherRoot()
    {
        if (debs_.isEmpty())
            QSKIP("no packages were built");
        for (const char* tool : {"dpkg", "deb-systemd-helper", "systemd-sysusers", "systemctl", "userdel"})
            if (QStandardPaths::findExecutable(tool).isEmpty())
                QSKIP(qPrintable(QString("%1 is not on this machine: the maintainer scripts were not run").arg(tool)));
        if (getuid() != 0)
            QSKIP("dpkg installs into another root as root only: the maintainer scripts were not run");
        const bool hostHadUser = run("getent", {"passwd", "quillbase"}, pkg_.path()).code == 0;

        QTemporaryDir scratch;
        QVERIFY(scratch.isValid());
        const QString r = scratch.filePath("root");
        QVERIFY(QDir().mkpath(r + "/var/lib/dpkg/info") && QDir().mkpath(r + "/var/lib/dpkg/updates")
                && QDir().mkpath(r + "/etc") && writeFile(r + "/var/lib/dpkg/status", ""));
        // The libraries the package depends on are this machine's, not the root's.
        const auto dpkg = [&](const QStringList& args) {
            const Run d = run("dpkg", QStringList{"--root", r, "--force-script-chrootless", "--force-depends"} + args,
                              scratch.path());
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

        // The installation the unit's first start makes, with queued jobs; the
        // administrator's changes: settings edited, the unit disabled.
        const QStringList unitEnv{"XDG_CONFIG_DIRS=" + r + "/etc/quillbase", "XDG_CONFIG_HOME=" + home + "/config"};
        const Run init = run(r + "/usr/bin/quillbase", {"--init", "--home", home}, scratch.path(), 120000, unitEnv);
        QVERIFY2(init.code == 0, qPrintable(init.out + init.err));
        QVERIFY(quill::dbtest::WithConnection(home + "/brixa.mdb", [](QSqlDatabase& db) {
            QSqlQuery q(db);
            q.prepare("INSERT INTO tbJob (Id, PrinterId, Job) VALUES (1, 1, ?)");
            q.addBindValue(quill::dbtest::JobText(1, 1, "1", "KASSA1", "Anna", "Jobb 1"));
            return q.exec();
        }));
        QVERIFY(writeFile(conf, "tAllowedClients=192.168.7.0/24\n", QIODevice::Append));
        const QString edited = readFile(conf);
        const Run disable = run("systemctl", {"--root", r, "disable", "quillbase.service"}, scratch.path());
        QVERIFY2(disable.code == 0 && !QFileInfo(wants).exists(), qPrintable(disable.err));
        const QStringList before = digests(home);
        QVERIFY(before.join('\n').contains("brixa.mdb ") && before.join('\n').contains("config/Norvu/Brixa.conf "));

        // The next revision of the same package.
        const QString next = scratch.filePath("next");
        QCOMPARE(run("dpkg-deb", {"-R", debs_["quillbase"], next}, scratch.path()).code, 0);
        QString control = readFile(next + "/DEBIAN/control");
        control.replace(QRegularExpression("^Version: (.*)$", QRegularExpression::MultilineOption),
                        "Version: \\1+next");
        QVERIFY(writeFile(next + "/DEBIAN/control", control));
        const QString nextDeb = scratch.filePath("next.deb");
        QCOMPARE(run("dpkg-deb", {"--root-owner-group", "-b", next, nextDeb}, scratch.path()).code, 0);
        failed = dpkg({"-i", nextDeb});
        QVERIFY2(failed.isEmpty(), qPrintable(failed));
        QVERIFY(readFile(r + "/var/lib/dpkg/status").contains(QRegularExpression("^Version: .*\\+next$",
                                                                                  QRegularExpression::MultilineOption)));
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
        QCOMPARE(run("getent", {"passwd", "quillbase"}, pkg_.path()).code == 0, hostHadUser);
    }

    // Lintian finds no error and no warning in any package.
    void lintianClean_data()
    {
        QTest::addColumn<QString>("package");
        QTest::newRow("server") << "quillbase_*.deb";
        QTest::newRow("emulator") << "mp104c-emulator_*.deb";
        QTest::newRow("server symbols") << "quillbase-dbgsym_*.ddeb";
        QTest::newRow("emulator symbols") << "mp104c-emulator-dbgsym_*.ddeb";
    }
    void lintianClean()
    {
        QFETCH(QString, package);
        if (debs_.isEmpty())
            QSKIP("no packages were built");
        const QString lintian = QStandardPaths::findExecutable("lintian");
        if (lintian.isEmpty())
            QSKIP("lintian is not on this machine (make deps installs it): the package was not checked");
        const QStringList files = QDir(pkg_.path()).entryList({package}, QDir::Files);
        QCOMPARE(files.size(), 1);
        const Run l = run(lintian, {"--fail-on", "error,warning", "--tag-display-limit", "0", pkg_.filePath(files[0])},
                          pkg_.path(), 240000);
        QVERIFY2(l.code == 0, qPrintable(l.out + l.err));
    }

    // The unit's sandbox, as systemd rates it: "OK" or better.
    void unitHardened()
    {
        if (debs_.isEmpty())
            QSKIP("no packages were built");
        const QString analyze = QStandardPaths::findExecutable("systemd-analyze");
        if (analyze.isEmpty())
            QSKIP("systemd-analyze is not on this machine: the unit's sandbox was not rated");
        const QString unit = root("quillbase") + "/usr/lib/systemd/system/quillbase.service";
        const Run a = run(analyze, {"security", "--offline=true", "--no-pager", unit}, pkg_.path());
        const QRegularExpression level("Overall exposure level for quillbase.service: ([0-9.]+) (\\S+)");
        const QRegularExpressionMatch m = level.match(a.out);
        QVERIFY2(m.hasMatch(), qPrintable(a.out + a.err));
        QVERIFY2(m.captured(1).toDouble() <= 4.0, qPrintable(m.captured(0)));
        const QString unitText = readFile(unit);
        QVERIFY(unitText.contains("SupplementaryGroups=dialout"));
        QVERIFY(unitText.contains("UMask=0027"));
    }

    // Completion of quillbase-ctl's commands and options in bash.
    void bashCompletion_data()
    {
        QTest::addColumn<QString>("line");
        QTest::addColumn<QStringList>("expected");
        QTest::newRow("command") << "quillbase-ctl pr" << QStringList{"preview", "printer"};
        QTest::newRow("subcommand") << "quillbase-ctl printer c"
                                    << QStringList{"calibrate", "clear", "configure"};
        QTest::newRow("after --home") << "quillbase-ctl --home /tmp st" << QStringList{"start", "status", "stop"};
        QTest::newRow("printer option") << "quillbase-ctl printer add --conn"
                                        << QStringList{"--connect-only", "--connection"};
        QTest::newRow("option value") << "quillbase-ctl printer edit 2 --connection " << QStringList{"network", "serial"};
        QTest::newRow("switch value") << "quillbase-ctl settings set --log " << QStringList{"off", "on"};
        QTest::newRow("settings set") << "quillbase-ctl settings s" << QStringList{"set"};
    }
    void bashCompletion()
    {
        QFETCH(QString, line);
        QFETCH(QStringList, expected);
        const QString framework = "/usr/share/bash-completion/bash_completion";
        if (!QFile::exists(framework))
            QSKIP("bash-completion is not on this machine (make deps installs it)");
        const QString script = QUILL_SOURCE_DIR "/packaging/quillbase-ctl.bash-completion";
        // The line split as bash does; the cursor at its end.
        const QString program = QStringLiteral(
            "source %1; source %2; line=\"$0\"; read -ra COMP_WORDS <<< \"$line\"; "
            "[[ $line == *' ' ]] && COMP_WORDS+=(''); COMP_CWORD=$((${#COMP_WORDS[@]} - 1)); "
            "COMP_LINE=$line; COMP_POINT=${#line}; _quillbase_ctl; printf '%s\\n' \"${COMPREPLY[@]}\" | sort")
                                    .arg(framework, script);
        QTemporaryDir tmp;
        const Run r = run("bash", {"-c", program, line}, tmp.path());
        QCOMPARE(r.code, 0);
        QCOMPARE(r.out.split('\n', Qt::SkipEmptyParts), expected);
    }

private:
    QTemporaryDir pkg_;
    QHash<QString, QString> debs_;
    QString root(const QString& package) const { return pkg_.filePath("root-" + package); }
};

QTEST_GUILESS_MAIN(TestInstall)
#include "tst_install.moc"
