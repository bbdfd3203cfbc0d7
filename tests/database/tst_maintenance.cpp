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
#include "foundation/texts.h"
#include "support/dbfixture.h"

#include <QCoreApplication>
#include <QDir>
#include <QFile>
#include <QProcess>
#include <QSqlQuery>
#include <QTest>

#include <cerrno>
#include <cstring>
#include <unistd.h>

using namespace quill;
using namespace quill::dbtest;

namespace {

QString job(int i)
{
    return JobText(1 + i % 3, 1, "1", "WS", QString(), QStringLiteral("Job %1").arg(i));
}

// Jobs 1..count, committed.
bool storeJobs(const QString& home, int count)
{
    QStringList inserts;
    for (int i = 1; i <= count; ++i)
        inserts << QStringLiteral("INSERT INTO tbJob (Id, PrinterId, Job) VALUES (%1, 1, '%2')").arg(i).arg(job(i));
    return ExecSql(home + "/brixa.mdb", inserts);
}

// Runs this program as a child on the folder (see main) with one more
// environment setting; its exit code.
int runChild(const QString& home, const QString& setting)
{
    QProcess child;
    child.setEnvironment(QProcess::systemEnvironment() << "QUILL_DB_MAINTENANCE_CHILD=" + home << setting);
    child.start(QCoreApplication::applicationFilePath(), {});
    return child.waitForFinished(60000) && child.exitStatus() == QProcess::NormalExit ? child.exitCode() : -1;
}

// Jobs as the server lists them after a start ("id caption"), or "not opened".
QStringList startAndList()
{
    JobDatabase jdb;
    if (!jdb.SrvOpenDatabases() || !jdb.SrvJobOpenDB())
        return {"not opened"};
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

// An index whose entries no longer match its definition: the file still opens and
// its jobs read, but the integrity check fails.
bool corruptIndex(const QString& mdb)
{
    return ExecSql(mdb, {"CREATE INDEX ixCaption ON tbJob (Job)", "PRAGMA writable_schema = ON",
                         "UPDATE sqlite_master SET sql = 'CREATE INDEX ixCaption ON tbJob (PrinterId)' "
                         "WHERE name = 'ixCaption'"});
}

// Overwrites `pages` pages from the middle of the file on: the rows on them no
// longer read, the rest of the table does.
bool damagePages(const QString& mdb, int pages)
{
    const int pageSize = WithConnection(mdb, [](QSqlDatabase& db) {
        QSqlQuery q(db);
        return q.exec("PRAGMA page_size") && q.next() ? q.value(0).toInt() : 0;
    });
    QFile f(mdb);
    if (pageSize <= 0 || !f.open(QIODevice::ReadWrite))
        return false;
    const qint64 count = f.size() / pageSize;
    return f.seek((count / 2) * pageSize) && f.write(QByteArray(pages * pageSize, char(0xA5))) == pages * pageSize;
}

// Ids whose row still reads on its own, looked up one by one.
QList<int> readableIds(const QString& mdb, int count)
{
    return WithConnection(mdb, [&](QSqlDatabase& db) {
        QList<int> ids;
        QSqlQuery q(db);
        for (int id = 1; id <= count; ++id) {
            q.prepare("SELECT Job FROM tbJob WHERE Id = ?");
            q.addBindValue(id);
            if (q.exec() && q.next())
                ids << id;
        }
        return ids;
    });
}

// What a file of the installation is now: absent, folder, kept (the bytes of
// `before`), "<n> jobs" (a database) or other.
QString state(const QString& path, const QByteArray& before = {})
{
    const QFileInfo fi(path);
    if (!fi.exists())
        return "absent";
    if (fi.isDir())
        return "folder";
    if (readFile(path) == before)
        return "kept";
    const QStringList rows = JobRows(path);
    return !rows.isEmpty() && rows[0].startsWith("error") ? "other" : QStringLiteral("%1 jobs").arg(rows.size());
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
    void openElsewhereIsNotReplaced();
    void damagedPagesAreSalvaged_data();
    void damagedPagesAreSalvaged();
    void backupGenerations();
};

void TestMaintenance::outcomes_data()
{
    const QString checkInstallation = QStringLiteral("\n") + GetString(12029, GetString(9003));
    const QString isDir = QStringLiteral(" Error: 21 Is a directory");
    auto box = [](BoxIcon icon, const QString& text) { return QStringList{QString::number(int(icon)) + ' ' + text}; };
    QTest::addColumn<QStringList>("faults"); // "name=bytes" written, "name/" a folder, "-name" removed
    QTest::addColumn<bool>("opened");
    QTest::addColumn<QStringList>("lines"); // the log, each line from its start
    QTest::addColumn<QStringList>("boxes"); // "<icon> <text>"
    QTest::addColumn<QString>("disk");      // brixa.mdb, brixa_backup.mdb, brixa_compact.mdb
    QTest::newRow("all steps, over a stale backup and compact file")
        << QStringList{"brixa_backup.mdb=stale", "brixa_compact.mdb=stale"} << true << QStringList() << QStringList()
        << "10 jobs, 10 jobs, absent";
    QTest::newRow("account file missing")
        << QStringList{"-brixa.mda"} << false << QStringList{"SrvOpenDatabases failed. Can't find file brixa.mda."}
        << box(BoxIcon::Exclamation, GetString(12030) + checkInstallation) << "kept, absent, absent";
    QTest::newRow("database missing")
        << QStringList{"-brixa.mdb"} << false << QStringList{"SrvOpenDatabases failed. Can't find file brixa.mdb."}
        << box(BoxIcon::Exclamation, GetString(12031) + checkInstallation) << "absent, absent, absent";
    // The new backup is made beside the old one, which stays when that fails.
    QTest::newRow("backup fails: folder in the way, old backup kept")
        << QStringList{"brixa_backup.mdb=stale", "brixa_backup.tmp/"} << true
        << QStringList{"Warning SrvOpenDatabases Backup database failed." + isDir} << QStringList()
        << "kept, other, absent";
    QTest::newRow("step 1 fails: folder in the way")
        << QStringList{"brixa_compact.mdb/"} << true
        << QStringList{"Warning SrvOpenDatabases Compact database Step 1 - Failed to delete brixa_compact.mdb." + isDir}
        << QStringList() << "kept, 10 jobs, folder";
    // The compacted copy replaces brixa.mdb in one rename: when that fails the
    // database is as it was, and the start goes on with it.
    QTest::newRow("step 4 fails: folder in the way")
        << QStringList{"brixa_restore.tmp/"} << true
        << QStringList{"SrvOpenDatabases Compact database Step 4 - Failed to copy brixa_compact.mdb to brixa.mdb." + isDir}
        << QStringList() << "kept, 10 jobs, 10 jobs";
    QTest::newRow("database is not a database")
        << QStringList{"brixa.mdb=" + QString(8192, 'q')} << false
        << QStringList{"Warning SrvOpenDatabases Repair database failed. Error: 26 file is not a database",
                       "SrvOpenDatabases failed. Error: 26 file is not a database"}
        << box(BoxIcon::Critical, "SrvOpenDatabases failed. Error: 26 file is not a database" + checkInstallation)
        << "kept, other, absent";
    const QString engine = QStringLiteral("SrvOpenDatabases failed. Error: 3028 Can't start your application. The "
                                          "workgroup information file names the engine jet.");
    QTest::newRow("account file names another engine")
        << QStringList{"brixa.mda=engine=jet\n"} << false << QStringList{engine}
        << box(BoxIcon::Critical, engine + checkInstallation) << "kept, absent, absent";
}

void TestMaintenance::outcomes()
{
    QFETCH(QStringList, faults);
    QFETCH(bool, opened);
    QFETCH(QStringList, lines);
    QFETCH(QStringList, boxes);
    QFETCH(QString, disk);
    DbHome home;
    QVERIFY(home.ok());
    QVERIFY(storeJobs(home.path(), 10));
    const QString mdb = home.file("brixa.mdb");
    for (const QString& fault : faults) {
        if (fault == "damaged index")
            QVERIFY(corruptIndex(mdb));
        else if (fault.startsWith('-'))
            QVERIFY(QFile::remove(home.file(fault.mid(1))));
        else if (fault.endsWith('/'))
            QVERIFY(QDir(home.path()).mkpath(fault + "keep"));
        else {
            QFile file(home.file(fault.section('=', 0, 0)));
            QVERIFY(file.open(QIODevice::WriteOnly) && file.write(fault.section('=', 1).toLatin1()) > 0);
        }
    }
    const QByteArray before = readFile(mdb);
    RecordingSink sink;
    QCOMPARE(startAndList(), opened ? expectedRows(10) : QStringList{"not opened"});
    const QStringList log = home.logMessages();
    QCOMPARE(log.size(), lines.size());
    for (int i = 0; i < lines.size(); ++i)
        QVERIFY2(log[i].startsWith(lines[i]), qPrintable(log[i]));
    QStringList shown;
    for (const ShownBox& b : sink.boxes)
        shown << QString::number(int(b.icon)) + ' ' + b.text;
    QCOMPARE(shown, boxes);
    QCOMPARE(QStringList({state(mdb, before), state(home.file("brixa_backup.mdb")), state(home.file("brixa_compact.mdb"))})
                 .join(", "),
             disk);
    QVERIFY(!QFileInfo(home.file("brixa_restore.tmp")).isFile());
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
    QCOMPARE(runChild(home.path(), QStringLiteral("QUILL_DB_WAL_JOBS=%1").arg(jobs)), 0);
    QVERIFY(QFileInfo(home.file("brixa.mdb-wal")).size() > 0);
    QCOMPARE(runChild(home.path(), "QUILL_MAINTENANCE_CRASH_AFTER=" + step), step == "none" ? 0 : 99);

    // The backup is complete before any crash point.
    QCOMPARE(IntegrityCheck(home.file("brixa_backup.mdb")), "ok");
    QCOMPARE(JobRows(home.file("brixa_backup.mdb")).size(), jobs);
    // Whatever the step, brixa.mdb is there, whole, before the next start touches it.
    QCOMPARE(IntegrityCheck(home.file("brixa.mdb")), "ok");
    QCOMPARE(JobRows(home.file("brixa.mdb")).size(), jobs);
    QCOMPARE(startAndList(), expectedRows(jobs));
    QCOMPARE(IntegrityCheck(home.file("brixa.mdb")), "ok");
    QVERIFY(!home.has("brixa_compact.mdb") && !home.has("brixa_restore.tmp"));
    QCOMPARE(home.logMessages().filter("Warning"), QStringList());
}

// Another program with the database open during the start: the file it has open
// stays the database, so what it writes afterwards is there for the server.
void TestMaintenance::openElsewhereIsNotReplaced()
{
    DbHome home;
    QVERIFY(home.ok());
    QVERIFY(storeJobs(home.path(), 10));
    QProcess other;
    other.setEnvironment(QProcess::systemEnvironment() << "QUILL_DB_MAINTENANCE_CHILD=" + home.path()
                                                       << "QUILL_DB_HOLD=1");
    other.start(QCoreApplication::applicationFilePath(), {});
    QVERIFY(other.waitForReadyRead(20000));
    QCOMPARE(other.readLine().trimmed(), QByteArray("open"));
    QCOMPARE(startAndList(), expectedRows(10));
    QCOMPARE(home.logMessages(), QStringList{"Warning SrvOpenDatabases Compact database Step 3 - Failed to delete "
                                             "brixa.mdb. Error: " + QString::number(EBUSY) + ' '
                                             + QString::fromLocal8Bit(std::strerror(EBUSY))});
    other.write("insert\n");
    other.closeWriteChannel();
    QVERIFY(other.waitForFinished(20000));
    QCOMPARE(other.exitCode(), 0);
    QCOMPARE(JobRows(home.file("brixa.mdb")).size(), 11);
}


void TestMaintenance::damagedPagesAreSalvaged_data()
{
    QTest::addColumn<QString>("damage");
    QTest::addColumn<int>("jobs");
    QTest::newRow("index entries that do not match") << "index" << 50;
    QTest::newRow("pages of the job table overwritten") << "pages" << 2000;
}

// The rebuilt database holds every job that can still be read; the backup of the
// start before, taken while the database was good, is still on disk.
void TestMaintenance::damagedPagesAreSalvaged()
{
    QFETCH(QString, damage);
    QFETCH(int, jobs);
    DbHome home;
    QVERIFY(home.ok());
    // Longer texts: the table spans many pages.
    auto text = [](int i) { return job(i) + ' ' + QString(80, QChar('a' + i % 26)); };
    QStringList inserts;
    for (int i = 1; i <= jobs; ++i)
        inserts << QStringLiteral("INSERT INTO tbJob (Id, PrinterId, Job) VALUES (%1, 1, '%2')").arg(i).arg(text(i));
    QVERIFY(ExecSql(home.file("brixa.mdb"), inserts));
    QCOMPARE(startAndList().size(), jobs); // a good start: its backup is good
    const QString mdb = home.file("brixa.mdb");
    QVERIFY(damage == "index" ? corruptIndex(mdb) : damagePages(mdb, 3));
    QVERIFY(IntegrityCheck(mdb) != "ok");
    const QList<int> readable = readableIds(mdb, jobs);
    if (damage == "pages")
        QVERIFY2(readable.size() > jobs / 2 && readable.size() < jobs, qPrintable(QString::number(readable.size())));
    else
        QCOMPARE(readable.size(), jobs);

    const QStringList listed = startAndList();
    QStringList want;
    for (int id : readable)
        want << QStringLiteral("%1 %2").arg(id).arg(GetToken(text(id), TAB, 12));
    QCOMPARE(listed, want);
    QCOMPARE(IntegrityCheck(mdb), "ok");
    const QStringList log = home.logMessages();
    QVERIFY2(log.contains(QStringLiteral("Warning SrvOpenDatabases Repair database: tbJob: %1 rows recovered, %2 lost")
                              .arg(readable.size()).arg(jobs - readable.size())),
             qPrintable(log.join('\n')));
    QCOMPARE(log.filter("Repair database failed"), QStringList());
    QCOMPARE(QDir(home.path()).entryList({"brixa_damaged-*.mdb"}).size(), 1);
    // The backup of the good start moved aside, whole.
    const QStringList generations = QDir(home.file("backups")).entryList({"brixa_backup-*.mdb"});
    QCOMPARE(generations.size(), 1);
    const QString good = home.file("backups/" + generations.first());
    QCOMPARE(IntegrityCheck(good), "ok");
    QCOMPARE(JobRows(good).size(), jobs);
}

void TestMaintenance::backupGenerations()
{
    DbHome home;
    QVERIFY(home.ok());
    QVERIFY(storeJobs(home.path(), 3));
    for (int start = 1; start <= 7; ++start) {
        QCOMPARE(startAndList().size(), 3);
        QVERIFY(storeJobs(home.path(), 0));
    }
    // Seven starts: this one's backup and five of the six before it.
    QCOMPARE(JobRows(home.file("brixa_backup.mdb")).size(), 3);
    QCOMPARE(QDir(home.file("backups")).entryList({"brixa_backup-*.mdb"}).size(), 5);
    QVERIFY(!home.has("brixa_backup.tmp"));
}

int main(int argc, char** argv)
{
    QCoreApplication app(argc, argv);
    const QString childHome = qEnvironmentVariable("QUILL_DB_MAINTENANCE_CHILD");
    const int walJobs = qEnvironmentVariableIntValue("QUILL_DB_WAL_JOBS");
    if (!childHome.isEmpty() && walJobs > 0) {
        // A server that dies with jobs committed only into the -wal.
        Database db;
        db.open(childHome + "/brixa.mdb");
        db.exec("PRAGMA wal_autocheckpoint=0");
        const int first = NullToLong(Snapshot(db, "SELECT MAX(Id) AS m FROM tbJob").field("m"), 0) + 1;
        for (int i = first; i <= walJobs; ++i)
            db.exec("INSERT INTO tbJob (Id, PrinterId, Job) VALUES (?, 1, ?)", {i, job(i)});
        ::_exit(0);
    }
    if (!childHome.isEmpty() && qEnvironmentVariableIsSet("QUILL_DB_HOLD")) {
        // Another program that keeps the database open and writes a job when told.
        Database db;
        db.open(childHome + "/brixa.mdb");
        Snapshot(db, "SELECT COUNT(*) AS n FROM tbJob");
        QFile in, out;
        if (!in.open(stdin, QIODevice::ReadOnly) || !out.open(stdout, QIODevice::WriteOnly))
            return 2;
        out.write("open\n");
        out.flush();
        if (in.readLine().trimmed() != "insert")
            return 3;
        db.exec("INSERT INTO tbJob (Id, PrinterId, Job) VALUES (11, 1, ?)", {job(11)});
        return 0;
    }
    if (!childHome.isEmpty()) {
        SetHomeDir(childHome);
        QDir::setCurrent(childHome);
        SetUseLog(true);
        LogInit("Quillbase");
        SetSilentMode(true);
        static const QByteArray crashAfter = qgetenv("QUILL_MAINTENANCE_CRASH_AFTER");
        SetMaintenanceStepHook([](const char* step) {
            if (crashAfter == step)
                ::_exit(99);
        });
        JobDatabase jdb;
        return jdb.SrvOpenDatabases() ? 0 : 1;
    }
    TestMaintenance tc;
    return QTest::qExec(&tc, argc, argv);
}

#include "tst_maintenance.moc"
