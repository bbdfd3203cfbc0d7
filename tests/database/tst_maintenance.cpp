// Start-up maintenance of the database files: outcomes on disk and in the log,
// and what a crash after each step leaves behind.
//
// Started with QUILL_DB_MAINTENANCE_CHILD=<folder> this program runs only the
// start-up of that folder's database (so a crash point set with
// QUILL_MAINTENANCE_CRASH_AFTER ends it there) instead of the tests.
#include "database/jobdatabase.h"
#include "database/jobstore.h"
#include "foundation/eventlog.h"
#include "foundation/paths.h"
#include "foundation/strutil.h"
#include "shell/texts.h"
#include "support/dbfixture.h"

#include <QCoreApplication>
#include <QDir>
#include <QFile>
#include <QProcess>
#include <QTest>

#include <sys/stat.h>
#include <unistd.h>

using namespace quill;
using namespace quill::dbtest;

namespace {

QString job(int i)
{
    return JobText(1 + i % 3, 1, QStringLiteral("1"), QStringLiteral("WS"), QString(), QStringLiteral("Job %1").arg(i));
}

// Jobs 1..count through the server's own job store.
bool storeJobs(const QString& home, int count)
{
    JobDatabase jdb;
    jdb.database().open(home + QStringLiteral("/brixa.mdb"));
    if (!jdb.SrvJobOpenDB())
        return false;
    PrinterSlots printerSlots;
    JobStore store(jdb, printerSlots);
    for (int i = 1; i <= count; ++i)
        if (!store.SrvAddJob(job(i)))
            return false;
    return true;
}

// Runs this program as a child on the folder (see main); its exit code.
int runChild(const QString& home, const QString& name, const QString& value)
{
    QProcess child;
    QProcessEnvironment env = QProcessEnvironment::systemEnvironment();
    env.insert(QStringLiteral("QUILL_DB_MAINTENANCE_CHILD"), home);
    env.insert(name, value);
    child.setProcessEnvironment(env);
    child.start(QCoreApplication::applicationFilePath(), {});
    if (!child.waitForFinished(60000) || child.exitStatus() != QProcess::NormalExit)
        return -1;
    return child.exitCode();
}

// Jobs as the server lists them after a start ("id caption"), or "not opened".
QStringList startAndList()
{
    JobDatabase jdb;
    if (!jdb.SrvOpenDatabases() || !jdb.SrvJobOpenDB())
        return {QStringLiteral("not opened")};
    PrinterSlots printerSlots;
    JobStore store(jdb, printerSlots);
    store.SrvInitAllJobs();
    QStringList rows;
    for (int i = 0; i < store.jobList().count(); ++i)
        rows << store.jobList().rowAt(i).text;
    return rows;
}

QStringList expectedRows(int count)
{
    QStringList rows;
    for (int i = 1; i <= count; ++i)
        rows << QStringLiteral("%1 Job %1").arg(i);
    return rows;
}

QByteArray readFile(const QString& path)
{
    QFile f(path);
    return f.open(QIODevice::ReadOnly) ? f.readAll() : QByteArray();
}

bool writeFile(const QString& path, const QByteArray& bytes)
{
    QFile f(path);
    return f.open(QIODevice::WriteOnly | QIODevice::Truncate) && f.write(bytes) == bytes.size();
}

// Overwrites the page type of a table's root page: the file still opens, but the
// integrity check fails on that table.
bool corruptTable(const QString& mdb)
{
    QStringList fill{QStringLiteral("CREATE TABLE tbFiller (Id INTEGER PRIMARY KEY, Data TEXT)")};
    for (int i = 0; i < 50; ++i)
        fill << QStringLiteral("INSERT INTO tbFiller (Data) VALUES ('%1')").arg(QString(400, QLatin1Char('x')));
    if (!ExecSql(mdb, fill))
        return false;
    int root = 0, pageSize = 0;
    {
        Database db;
        db.open(mdb);
        root = Snapshot(db, QStringLiteral("SELECT rootpage FROM sqlite_master WHERE name = 'tbFiller'"))
                   .field(QStringLiteral("rootpage")).toInt();
        pageSize = Snapshot(db, QStringLiteral("PRAGMA page_size")).field(QStringLiteral("page_size")).toInt();
    }
    QFile f(mdb);
    if (root < 2 || pageSize < 512 || !f.open(QIODevice::ReadWrite) || !f.seek(qint64(root - 1) * pageSize))
        return false;
    return f.write(QByteArray(1, char(0x7f))) == 1;
}

// What a file of the installation is now: absent, folder, kept (the same file,
// unchanged since `before`), "<n> jobs" (a database) or other.
struct FileId {
    ino_t inode = 0;
    QByteArray bytes;
};
FileId fileId(const QString& path)
{
    struct stat st = {};
    ::stat(QFile::encodeName(path).constData(), &st);
    return {st.st_ino, readFile(path)};
}
QString state(const QString& path, const FileId& before = {})
{
    const QFileInfo fi(path);
    if (!fi.exists())
        return QStringLiteral("absent");
    if (fi.isDir())
        return QStringLiteral("folder");
    const FileId now = fileId(path);
    if (now.inode == before.inode && now.bytes == before.bytes)
        return QStringLiteral("kept");
    const QStringList rows = JobRows(path);
    return !rows.isEmpty() && rows[0].startsWith(QLatin1String("error")) ? QStringLiteral("other")
                                                                          : QStringLiteral("%1 jobs").arg(rows.size());
}

} // namespace

class TestMaintenance : public QObject {
    Q_OBJECT
private slots:
    void init() { SetSilentMode(false); }
    void outcomes_data();
    void outcomes();
    void crashAfterEveryStep_data();
    void crashAfterEveryStep();
};

void TestMaintenance::outcomes_data()
{
    const QString checkInstallation = QStringLiteral("\n") + GetString(12029, GetString(9003));
    const QString isDir = QStringLiteral(" Error: 21 Is a directory");
    QTest::addColumn<QString>("fault");
    QTest::addColumn<bool>("opened");
    QTest::addColumn<QStringList>("lines"); // the log, each line from its start
    QTest::addColumn<QString>("box");       // empty: none shown
    QTest::addColumn<int>("icon");
    QTest::addColumn<QString>("disk");      // brixa.mdb, brixa_backup.mdb, brixa_compact.mdb
    QTest::newRow("all steps, over a stale backup and compact file")
        << "stale" << true << QStringList() << "" << 0 << "10 jobs, 10 jobs, absent";
    QTest::newRow("account file missing")
        << "brixa.mda" << false << QStringList{"SrvOpenDatabases failed. Can't find file brixa.mda."}
        << GetString(12030) + checkInstallation << int(BoxIcon::Exclamation) << "kept, absent, absent";
    QTest::newRow("database missing")
        << "brixa.mdb" << false << QStringList{"SrvOpenDatabases failed. Can't find file brixa.mdb."}
        << GetString(12031) + checkInstallation << int(BoxIcon::Exclamation) << "absent, absent, absent";
    QTest::newRow("database missing, silent: no box")
        << "brixa.mdb silent" << false << QStringList{"SrvOpenDatabases failed. Can't find file brixa.mdb."} << ""
        << 0 << "absent, absent, absent";
    QTest::newRow("backup fails: folder in the way")
        << "brixa_backup.mdb/keep" << true << QStringList{"Warning SrvOpenDatabases Backup database failed." + isDir}
        << "" << 0 << "kept, folder, absent";
    QTest::newRow("repair fails: damaged table")
        << "corrupt" << true
        << QStringList{"Warning SrvOpenDatabases Repair database failed. Error: 11 database disk image is malformed"}
        << "" << 0 << "kept, 10 jobs, absent";
    QTest::newRow("step 1 fails: folder in the way")
        << "brixa_compact.mdb/keep" << true
        << QStringList{"Warning SrvOpenDatabases Compact database Step 1 - Failed to delete brixa_compact.mdb." + isDir}
        << "" << 0 << "kept, 10 jobs, folder";
    // Step 4, the copy back after brixa.mdb was deleted, is the one step that ends the start.
    QTest::newRow("step 4 fails: folder in the way")
        << "brixa_restore.tmp/keep" << false
        << QStringList{"SrvOpenDatabases Compact database Step 4 - Failed to copy brixa_compact.mdb to brixa.mdb." + isDir}
        << "SrvOpenDatabases - Failed to restore the brixa database after repair and compact." + isDir + "\n"
               + GetString(12137)
        << int(BoxIcon::None) << "absent, 10 jobs, 10 jobs";
    QTest::newRow("database is not a database")
        << "junk" << false
        << QStringList{"Warning SrvOpenDatabases Repair database failed. Error: 26 file is not a database",
                       "SrvOpenDatabases failed. Error: 26 file is not a database"}
        << "SrvOpenDatabases failed. Error: 26 file is not a database" + checkInstallation << int(BoxIcon::Critical)
        << "kept, other, absent";
    const QString engine = QStringLiteral("SrvOpenDatabases failed. Error: 3028 Can't start your application. The "
                                          "workgroup information file names the engine jet.");
    QTest::newRow("account file names another engine")
        << "engine" << false << QStringList{engine} << engine + checkInstallation << int(BoxIcon::Critical)
        << "kept, absent, absent";
}

void TestMaintenance::outcomes()
{
    QFETCH(QString, fault);
    QFETCH(bool, opened);
    QFETCH(QStringList, lines);
    QFETCH(QString, box);
    QFETCH(int, icon);
    QFETCH(QString, disk);
    DbHome home;
    QVERIFY(home.ok());
    QVERIFY(storeJobs(home.path(), 10));
    const QString mdb = home.file(QStringLiteral("brixa.mdb"));
    if (fault == QLatin1String("stale")) {
        QVERIFY(writeFile(home.file(QStringLiteral("brixa_backup.mdb")), QByteArray(9000, 'b')));
        QVERIFY(writeFile(home.file(QStringLiteral("brixa_compact.mdb")), QByteArray(5000, 'z')));
    } else if (fault.startsWith(QLatin1String("brixa.md"))) {
        QVERIFY(QFile::remove(home.file(fault.section(QLatin1Char(' '), 0, 0))));
        SetSilentMode(fault.endsWith(QLatin1String("silent")));
    } else if (fault.endsWith(QLatin1String("/keep"))) {
        QVERIFY(QDir(home.path()).mkpath(fault));
    } else if (fault == QLatin1String("corrupt")) {
        QVERIFY(corruptTable(mdb));
    } else if (fault == QLatin1String("junk")) {
        QVERIFY(writeFile(mdb, QByteArray(8192, 'q')));
    } else if (fault == QLatin1String("engine")) {
        QVERIFY(writeFile(home.file(QStringLiteral("brixa.mda")), "engine=jet\n"));
    }
    const FileId before = fileId(mdb);
    RecordingSink sink;
    {
        JobDatabase jdb;
        QCOMPARE(jdb.SrvOpenDatabases(), opened);
        QCOMPARE(jdb.isOpen(), opened);
        if (opened) { // on the database as it is now, whole
            QVERIFY(jdb.SrvJobOpenDB());
            PrinterSlots printerSlots;
            JobStore store(jdb, printerSlots);
            store.SrvInitAllJobs();
            QCOMPARE(store.jobList().count(), 10);
            QCOMPARE(store.jobList().rowAt(9).text, QStringLiteral("10 Job 10"));
        }
    }
    const QStringList log = home.logMessages();
    QCOMPARE(log.size(), lines.size());
    for (int i = 0; i < lines.size(); ++i)
        QVERIFY2(log[i].startsWith(lines[i]), qPrintable(log[i]));
    QCOMPARE(sink.boxes.size(), box.isEmpty() ? 0 : 1);
    if (!box.isEmpty()) {
        QCOMPARE(sink.boxes[0].text, box);
        QCOMPARE(int(sink.boxes[0].icon), icon);
    }
    QCOMPARE(QStringList({state(mdb, before), state(home.file(QStringLiteral("brixa_backup.mdb"))),
                          state(home.file(QStringLiteral("brixa_compact.mdb")))})
                 .join(QStringLiteral(", ")),
             disk);
    QVERIFY(!QFileInfo(home.file(QStringLiteral("brixa_restore.tmp"))).isFile());
}

void TestMaintenance::crashAfterEveryStep_data()
{
    QTest::addColumn<QString>("step");
    for (const char* s : {"none", "backup", "repair", "compact1", "compact2", "compact3", "compact4", "compact5"})
        QTest::newRow(s) << QString::fromLatin1(s);
}

// A server that died with half of its jobs only in the -wal, then a start that
// crashes after the step (or does not crash), then a normal start.
void TestMaintenance::crashAfterEveryStep()
{
    QFETCH(QString, step);
    const int jobs = 60;
    DbHome home;
    QVERIFY(home.ok());
    QVERIFY(storeJobs(home.path(), jobs / 2));
    QCOMPARE(runChild(home.path(), QStringLiteral("QUILL_DB_WAL_JOBS"), QString::number(jobs)), 0);
    QVERIFY(QFileInfo(home.file(QStringLiteral("brixa.mdb-wal"))).size() > 0);
    QCOMPARE(runChild(home.path(), QStringLiteral("QUILL_MAINTENANCE_CRASH_AFTER"), step),
             step == QLatin1String("none") ? 0 : 99);

    // The backup is complete before any crash point.
    QCOMPARE(IntegrityCheck(home.file(QStringLiteral("brixa_backup.mdb"))), QStringLiteral("ok"));
    QCOMPARE(JobRows(home.file(QStringLiteral("brixa_backup.mdb"))).size(), jobs);
    if (step == QLatin1String("compact3")) {
        // brixa.mdb is gone and the next start says so; the compacted copy is whole,
        // and restoring it by hand gives the complete database back.
        QVERIFY(!home.has(QStringLiteral("brixa.mdb")));
        const QString compact = home.file(QStringLiteral("brixa_compact.mdb"));
        QCOMPARE(JobRows(compact).size(), jobs);
        RecordingSink sink;
        QCOMPARE(startAndList(), QStringList{QStringLiteral("not opened")});
        QVERIFY(home.logMessages().contains(QLatin1String("SrvOpenDatabases failed. Can't find file brixa.mdb.")));
        QVERIFY(QFile::copy(compact, home.file(QStringLiteral("brixa.mdb"))));
    }
    QCOMPARE(startAndList(), expectedRows(jobs));
    QCOMPARE(IntegrityCheck(home.file(QStringLiteral("brixa.mdb"))), QStringLiteral("ok"));
    QVERIFY(!home.has(QStringLiteral("brixa_compact.mdb")));
    QVERIFY(!home.has(QStringLiteral("brixa_restore.tmp")));
    QCOMPARE(home.logMessages().filter(QStringLiteral("Warning")), QStringList());
}

int main(int argc, char** argv)
{
    QCoreApplication app(argc, argv);
    const QString childHome = qEnvironmentVariable("QUILL_DB_MAINTENANCE_CHILD");
    const int walJobs = qEnvironmentVariableIntValue("QUILL_DB_WAL_JOBS");
    if (!childHome.isEmpty() && walJobs > 0) {
        // A server that dies with jobs committed only into the -wal.
        Database db;
        db.open(childHome + QStringLiteral("/brixa.mdb"));
        db.exec(QStringLiteral("PRAGMA wal_autocheckpoint=0"));
        const int first = NullToLong(Snapshot(db, QStringLiteral("SELECT MAX(Id) AS m FROM tbJob")).field("m"), 0) + 1;
        for (int i = first; i <= walJobs; ++i)
            db.exec(QStringLiteral("INSERT INTO tbJob (Id, PrinterId, Job) VALUES (?, 1, ?)"), {i, job(i)});
        ::_exit(0);
    }
    if (!childHome.isEmpty()) {
        SetHomeDir(childHome);
        QDir::setCurrent(childHome);
        SetUseLog(true);
        LogInit(QStringLiteral("Quillbase"));
        SetSilentMode(true);
        JobDatabase jdb;
        return jdb.SrvOpenDatabases() ? 0 : 1;
    }
    TestMaintenance tc;
    return QTest::qExec(&tc, argc, argv);
}

#include "tst_maintenance.moc"
