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
#include "shell/texts.h"
#include "support/dbfixture.h"

#include <QCoreApplication>
#include <QDir>
#include <QFile>
#include <QProcess>
#include <QTest>

using namespace quill;
using namespace quill::dbtest;

namespace {

QStringList warnings(const QStringList& lines)
{
    QStringList out;
    for (const QString& l : lines)
        if (l.startsWith(QLatin1String("Warning")) || l.contains(QLatin1String("failed")))
            out << l;
    return out;
}

QString job(int i) { return JobText(1 + i % 3, 1, QStringLiteral("1"), QStringLiteral("WS"), QString(), QStringLiteral("Job %1").arg(i)); }

// Jobs 1..count through the server's own job store; with walOnly, jobs from
// walFrom on are committed only into the -wal, as a server that died leaves them.
bool storeJobs(const QString& home, int count, int walFrom = 0)
{
    {
        JobDatabase jdb;
        jdb.database().open(home + QStringLiteral("/brixa.mdb"));
        if (!jdb.SrvJobOpenDB())
            return false;
        PrinterSlots printerSlots;
        JobStore store(jdb, printerSlots);
        for (int i = 1; i <= (walFrom ? walFrom - 1 : count); ++i)
            if (!store.SrvAddJob(job(i)))
                return false;
    }
    if (!walFrom)
        return true;
    // Written by one connection, and the files copied while it still holds them.
    QTemporaryDir scratch;
    const QString mdb = home + QStringLiteral("/brixa.mdb");
    Database writer;
    writer.open(mdb);
    writer.exec(QStringLiteral("PRAGMA wal_autocheckpoint=0"));
    for (int i = walFrom; i <= count; ++i)
        writer.exec(QStringLiteral("INSERT INTO tbJob (Id, PrinterId, Job) VALUES (?, 1, ?)"), {i, job(i)});
    for (const char* f : {"", "-wal"})
        if (!QFile::copy(mdb + QLatin1String(f), scratch.filePath(QStringLiteral("brixa.mdb")) + QLatin1String(f)))
            return false;
    writer.close();
    for (const char* f : {"", "-wal", "-shm"})
        QFile::remove(mdb + QLatin1String(f));
    return QFile::copy(scratch.filePath(QStringLiteral("brixa.mdb")), mdb)
        && QFile::copy(scratch.filePath(QStringLiteral("brixa.mdb-wal")), mdb + QStringLiteral("-wal"))
        && QFileInfo(mdb + QStringLiteral("-wal")).size() > 0;
}

// Jobs as the server lists them after a start ("id caption"); empty when it cannot open.
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

} // namespace

class TestMaintenance : public QObject {
    Q_OBJECT
private slots:
    void init() { SetSilentMode(false); }
    void succeedsOverStaleFiles();
    void missingFile_data();
    void missingFile();
    void failedStepOpensAsItIs_data();
    void failedStepOpensAsItIs();
    void failedRestoreEndsStart();
    void cannotOpen_data();
    void cannotOpen();
    void crashAfterEveryStep_data();
    void crashAfterEveryStep();
};

void TestMaintenance::succeedsOverStaleFiles()
{
    DbHome home;
    QVERIFY(home.ok());
    QVERIFY(storeJobs(home.path(), 5));
    // Leftovers of an earlier start: a backup of other content and a half-made compact file.
    QVERIFY(writeFile(home.file(QStringLiteral("brixa_backup.mdb")), QByteArray(9000, 'b')));
    QVERIFY(writeFile(home.file(QStringLiteral("brixa_compact.mdb")), QByteArray(5000, 'z')));
    RecordingSink sink;
    QCOMPARE(startAndList(), expectedRows(5));
    QVERIFY(!home.has(QStringLiteral("brixa_compact.mdb")));
    QVERIFY(!home.has(QStringLiteral("brixa_restore.tmp")));
    QCOMPARE(JobRows(home.file(QStringLiteral("brixa_backup.mdb"))).size(), 5);
    QCOMPARE(IntegrityCheck(home.file(QStringLiteral("brixa.mdb"))), QStringLiteral("ok"));
    QCOMPARE(warnings(home.logMessages()), QStringList());
    QVERIFY(sink.boxes.isEmpty());
}

void TestMaintenance::missingFile_data()
{
    QTest::addColumn<QString>("file");
    QTest::addColumn<bool>("silent");
    QTest::addColumn<int>("textId");
    QTest::newRow("account file") << "brixa.mda" << false << 12030;
    QTest::newRow("database file") << "brixa.mdb" << false << 12031;
    QTest::newRow("database file, silent") << "brixa.mdb" << true << 12031;
}

void TestMaintenance::missingFile()
{
    QFETCH(QString, file);
    QFETCH(bool, silent);
    QFETCH(int, textId);
    DbHome home;
    QVERIFY(home.ok());
    QVERIFY(QFile::remove(home.file(file)));
    SetSilentMode(silent);
    RecordingSink sink;
    JobDatabase jdb;
    QVERIFY(!jdb.SrvOpenDatabases());
    QVERIFY(!jdb.isOpen());
    QCOMPARE(home.logMessages(), QStringList{"SrvOpenDatabases failed. Can't find file " + file + "."});
    QCOMPARE(sink.boxes.size(), silent ? 0 : 1);
    if (!silent) {
        QCOMPARE(sink.boxes[0].text, GetString(textId) + "\n" + GetString(12029, GetString(9003)));
        QCOMPARE(sink.boxes[0].icon, BoxIcon::Exclamation);
    }
    // Nothing was made in place of the missing file.
    QVERIFY(!home.has(file));
    QVERIFY(!home.has(QStringLiteral("brixa_backup.mdb")));
}

void TestMaintenance::failedStepOpensAsItIs_data()
{
    QTest::addColumn<QString>("fault");
    QTest::addColumn<QString>("warning");
    QTest::newRow("backup: brixa_backup.mdb is a folder")
        << "brixa_backup.mdb" << "Warning SrvOpenDatabases Backup database failed. Error: 21 Is a directory";
    QTest::newRow("repair: damaged table")
        << "" << "Warning SrvOpenDatabases Repair database failed. Error: 11 database disk image is malformed";
    QTest::newRow("step 1: brixa_compact.mdb is a folder")
        << "brixa_compact.mdb"
        << "Warning SrvOpenDatabases Compact database Step 1 - Failed to delete brixa_compact.mdb. Error: 21 Is a directory";
}

void TestMaintenance::failedStepOpensAsItIs()
{
    QFETCH(QString, fault);
    QFETCH(QString, warning);
    DbHome home;
    QVERIFY(home.ok());
    QVERIFY(storeJobs(home.path(), 10));
    if (fault.isEmpty())
        QVERIFY(corruptTable(home.file(QStringLiteral("brixa.mdb"))));
    else
        QVERIFY(QDir(home.path()).mkpath(fault + QStringLiteral("/keep")));
    const QByteArray before = readFile(home.file(QStringLiteral("brixa.mdb")));

    RecordingSink sink;
    // One warning, the rest of the maintenance skipped, the database opened as it is.
    QCOMPARE(startAndList(), expectedRows(10));
    const QStringList w = warnings(home.logMessages());
    QCOMPARE(w.size(), 1);
    QVERIFY2(w[0].startsWith(warning), qPrintable(w[0]));
    QVERIFY(sink.boxes.isEmpty());
    QCOMPARE(readFile(home.file(QStringLiteral("brixa.mdb"))), before);
    // The backup is fresh unless the backup itself failed; the folder in the way stays.
    if (fault != QLatin1String("brixa_backup.mdb"))
        QCOMPARE(JobRows(home.file(QStringLiteral("brixa_backup.mdb"))).size(), 10);
    if (!fault.isEmpty())
        QVERIFY(QFileInfo(home.file(fault)).isDir());
    QVERIFY(!QFileInfo(home.file(QStringLiteral("brixa_compact.mdb"))).isFile());
}

// Step 4, the copy back after brixa.mdb was deleted, is the one failing step that ends the start.
void TestMaintenance::failedRestoreEndsStart()
{
    DbHome home;
    QVERIFY(home.ok());
    QVERIFY(storeJobs(home.path(), 10));
    QVERIFY(QDir(home.path()).mkpath(QStringLiteral("brixa_restore.tmp/keep")));
    RecordingSink sink;
    JobDatabase jdb;
    QVERIFY(!jdb.SrvOpenDatabases());
    QVERIFY(!jdb.isOpen());
    const QString error = QStringLiteral("Error: 21 Is a directory");
    QCOMPARE(warnings(home.logMessages()), QStringList());
    QCOMPARE(home.logMessages(), QStringList{"SrvOpenDatabases Compact database Step 4 - Failed to copy "
                                             "brixa_compact.mdb to brixa.mdb. " + error});
    QCOMPARE(sink.boxes.size(), 1);
    QCOMPARE(sink.boxes[0].text, "SrvOpenDatabases - Failed to restore the brixa database after repair and compact. "
                                     + error + "\n" + GetString(12137));
    QCOMPARE(sink.boxes[0].icon, BoxIcon::None);
    // No brixa.mdb; the backup and the compacted copy both hold every job.
    QVERIFY(!home.has(QStringLiteral("brixa.mdb")));
    QCOMPARE(JobRows(home.file(QStringLiteral("brixa_backup.mdb"))).size(), 10);
    QCOMPARE(JobRows(home.file(QStringLiteral("brixa_compact.mdb"))).size(), 10);
}

void TestMaintenance::cannotOpen_data()
{
    QTest::addColumn<QString>("file");
    QTest::addColumn<QByteArray>("content");
    QTest::addColumn<QStringList>("lines");
    QTest::newRow("database is not a database")
        << "brixa.mdb" << QByteArray(8192, 'q')
        << QStringList{"Warning SrvOpenDatabases Repair database failed. Error: 26 file is not a database",
                       "SrvOpenDatabases failed. Error: 26 file is not a database"};
    QTest::newRow("account file names another engine")
        << "brixa.mda" << QByteArray("engine=jet\n")
        << QStringList{"SrvOpenDatabases failed. Error: 3028 Can't start your application. The workgroup "
                       "information file names the engine jet."};
}

void TestMaintenance::cannotOpen()
{
    QFETCH(QString, file);
    QFETCH(QByteArray, content);
    QFETCH(QStringList, lines);
    DbHome home;
    QVERIFY(home.ok());
    QVERIFY(writeFile(home.file(file), content));
    RecordingSink sink;
    JobDatabase jdb;
    QVERIFY(!jdb.SrvOpenDatabases());
    QCOMPARE(home.logMessages(), lines);
    QCOMPARE(sink.boxes.size(), 1);
    QCOMPARE(sink.boxes[0].icon, BoxIcon::Critical);
    QCOMPARE(sink.boxes[0].text, lines.last() + "\n" + GetString(12029, GetString(9003)));
}

void TestMaintenance::crashAfterEveryStep_data()
{
    QTest::addColumn<QString>("step");
    for (const char* s : {"none", "backup", "repair", "compact1", "compact2", "compact3", "compact4", "compact5"})
        QTest::newRow(s) << QString::fromLatin1(s);
}

// A server that died with part of its jobs only in the -wal, then a start that
// crashes after the step (or does not crash), then a normal start.
void TestMaintenance::crashAfterEveryStep()
{
    QFETCH(QString, step);
    const int jobs = 60;
    DbHome home;
    QVERIFY(home.ok());
    QVERIFY(storeJobs(home.path(), jobs, jobs / 2 + 1));

    QProcess child;
    QProcessEnvironment env = QProcessEnvironment::systemEnvironment();
    env.insert(QStringLiteral("QUILL_DB_MAINTENANCE_CHILD"), home.path());
    env.insert(QStringLiteral("QUILL_MAINTENANCE_CRASH_AFTER"), step);
    child.setProcessEnvironment(env);
    child.start(QCoreApplication::applicationFilePath(), {});
    QVERIFY(child.waitForFinished(60000));
    QCOMPARE(child.exitStatus(), QProcess::NormalExit);
    QCOMPARE(child.exitCode(), step == QLatin1String("none") ? 0 : 99);

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
    QCOMPARE(warnings(home.logMessages()).filter(QStringLiteral("Warning")), QStringList());
}

int main(int argc, char** argv)
{
    QCoreApplication app(argc, argv);
    const QString childHome = qEnvironmentVariable("QUILL_DB_MAINTENANCE_CHILD");
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
