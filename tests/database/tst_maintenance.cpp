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

constexpr int JobCount = 60;

QStringList warnings(const QStringList& lines)
{
    QStringList out;
    for (const QString& l : lines)
        if (l.startsWith(QLatin1String("Warning")) || l.contains(QLatin1String("failed")))
            out << l;
    return out;
}

// Stores jobs 1..count through the server's own job store.
bool storeJobs(int first, int count)
{
    JobDatabase jdb;
    Database& db = jdb.database();
    db.open(HomePath(QStringLiteral("brixa.mdb")));
    if (!jdb.SrvJobOpenDB())
        return false;
    PrinterSlots printerSlots;
    JobStore store(jdb, printerSlots);
    for (int i = first; i < first + count; ++i)
        if (!store.SrvAddJob(JobText(1 + i % 3, 1, QStringLiteral("1"), QStringLiteral("WS%1").arg(i), QString(),
                                     QStringLiteral("Job %1").arg(i))))
            return false;
    return true;
}

// Jobs as the server sees them after a normal start: "id caption" rows of the list.
QStringList startAndList(bool* opened)
{
    JobDatabase jdb;
    *opened = jdb.SrvOpenDatabases() && jdb.SrvJobOpenDB();
    if (!*opened)
        return {};
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
        Snapshot s(db, QStringLiteral("SELECT rootpage FROM sqlite_master WHERE name = 'tbFiller'"));
        root = s.field(QStringLiteral("rootpage")).toInt();
        Snapshot p(db, QStringLiteral("PRAGMA page_size"));
        pageSize = p.field(QStringLiteral("page_size")).toInt();
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
    void allStepsSucceed();
    void staleFilesReplaced();
    void missingFile_data();
    void missingFile();
    void failedStep_data();
    void failedStep();
    void notADatabase();
    void accountFileNamesOtherEngine();
    void walContentsSurviveMaintenance();
    void crashAfterEveryStep_data();
    void crashAfterEveryStep();
};

void TestMaintenance::allStepsSucceed()
{
    DbHome home;
    QVERIFY(home.ok());
    QVERIFY(storeJobs(1, JobCount));
    RecordingSink sink;
    bool opened = false;
    QCOMPARE(startAndList(&opened), expectedRows(JobCount));
    QVERIFY(opened);
    QVERIFY(home.has(QStringLiteral("brixa.mdb")));
    QVERIFY(!home.has(QStringLiteral("brixa_compact.mdb")));
    QVERIFY(!home.has(QStringLiteral("brixa_restore.tmp")));
    QCOMPARE(JobRows(home.file(QStringLiteral("brixa_backup.mdb"))).size(), JobCount);
    QCOMPARE(IntegrityCheck(home.file(QStringLiteral("brixa.mdb"))), QStringLiteral("ok"));
    QCOMPARE(warnings(home.logMessages()), QStringList());
    QVERIFY(sink.boxes.isEmpty());
}

void TestMaintenance::staleFilesReplaced()
{
    DbHome home;
    QVERIFY(home.ok());
    QVERIFY(storeJobs(1, 3));
    // Leftovers of an earlier start: a backup of other content and a half-made compact file.
    QVERIFY(QFile::copy(home.file(QStringLiteral("brixa.mdb")), home.file(QStringLiteral("brixa_backup.mdb"))));
    QVERIFY(ExecSql(home.file(QStringLiteral("brixa_backup.mdb")), {QStringLiteral("DELETE FROM tbJob")}));
    QVERIFY(writeFile(home.file(QStringLiteral("brixa_compact.mdb")), QByteArray(5000, 'z')));
    QVERIFY(storeJobs(4, 2));

    bool opened = false;
    QCOMPARE(startAndList(&opened), expectedRows(5));
    QVERIFY(opened);
    QVERIFY(!home.has(QStringLiteral("brixa_compact.mdb")));
    QCOMPARE(JobRows(home.file(QStringLiteral("brixa_backup.mdb"))).size(), 5);
    QCOMPARE(warnings(home.logMessages()), QStringList());
}

void TestMaintenance::missingFile_data()
{
    QTest::addColumn<QString>("file");
    QTest::addColumn<bool>("silent");
    QTest::addColumn<QString>("logLine");
    QTest::addColumn<int>("textId");
    QTest::newRow("account file") << "brixa.mda" << false << "SrvOpenDatabases failed. Can't find file brixa.mda." << 12030;
    QTest::newRow("database file") << "brixa.mdb" << false << "SrvOpenDatabases failed. Can't find file brixa.mdb." << 12031;
    QTest::newRow("database file, silent") << "brixa.mdb" << true << "SrvOpenDatabases failed. Can't find file brixa.mdb." << 12031;
}

void TestMaintenance::missingFile()
{
    QFETCH(QString, file);
    QFETCH(bool, silent);
    QFETCH(QString, logLine);
    QFETCH(int, textId);
    DbHome home;
    QVERIFY(home.ok());
    QVERIFY(QFile::remove(home.file(file)));
    SetSilentMode(silent);
    RecordingSink sink;
    JobDatabase jdb;
    QVERIFY(!jdb.SrvOpenDatabases());
    QVERIFY(!jdb.isOpen());
    QCOMPARE(home.logMessages(), QStringList{logLine});
    if (silent) {
        QVERIFY(sink.boxes.isEmpty());
    } else {
        QCOMPARE(sink.boxes.size(), 1);
        QCOMPARE(sink.boxes[0].text, GetString(textId) + "\n" + GetString(12029, GetString(9003)));
        QCOMPARE(sink.boxes[0].icon, BoxIcon::Exclamation);
    }
    // Nothing was created in place of the missing file.
    QVERIFY(!home.has(file));
    QVERIFY(!home.has(QStringLiteral("brixa_backup.mdb")));
}

void TestMaintenance::failedStep_data()
{
    QTest::addColumn<QString>("fault");
    QTest::addColumn<QString>("warning");
    QTest::addColumn<bool>("backupFresh");
    QTest::newRow("backup: brixa_backup.mdb is a folder")
        << "backupdir" << "Warning SrvOpenDatabases Backup database failed. Error: 21 Is a directory" << false;
    QTest::newRow("repair: damaged table")
        << "corrupt" << "Warning SrvOpenDatabases Repair database failed. Error: 11 database disk image is malformed" << true;
    QTest::newRow("step 1: brixa_compact.mdb is a folder")
        << "compactdir"
        << "Warning SrvOpenDatabases Compact database Step 1 - Failed to delete brixa_compact.mdb. Error: 21 Is a directory"
        << true;
}

void TestMaintenance::failedStep()
{
    QFETCH(QString, fault);
    QFETCH(QString, warning);
    QFETCH(bool, backupFresh);
    DbHome home;
    QVERIFY(home.ok());
    QVERIFY(storeJobs(1, 10));
    if (fault == QLatin1String("backupdir"))
        QVERIFY(QDir(home.path()).mkpath(QStringLiteral("brixa_backup.mdb/keep")));
    else if (fault == QLatin1String("compactdir"))
        QVERIFY(QDir(home.path()).mkpath(QStringLiteral("brixa_compact.mdb/keep")));
    else
        QVERIFY(corruptTable(home.file(QStringLiteral("brixa.mdb"))));
    QFile mdb(home.file(QStringLiteral("brixa.mdb")));
    QVERIFY(mdb.open(QIODevice::ReadOnly));
    const QByteArray before = mdb.readAll();
    mdb.close();

    RecordingSink sink;
    bool opened = false;
    // The rest of the maintenance is skipped and the database opened as it is.
    QCOMPARE(startAndList(&opened), expectedRows(10));
    QVERIFY(opened);
    const QStringList w = warnings(home.logMessages());
    QCOMPARE(w.size(), 1);
    QVERIFY2(w[0].startsWith(warning), qPrintable(w[0]));
    QVERIFY(sink.boxes.isEmpty());

    QVERIFY(mdb.open(QIODevice::ReadOnly));
    QCOMPARE(mdb.readAll(), before); // not compacted, not replaced
    mdb.close();
    QCOMPARE(QFileInfo(home.file(QStringLiteral("brixa_backup.mdb"))).isFile(), backupFresh);
    if (backupFresh)
        QCOMPARE(JobRows(home.file(QStringLiteral("brixa_backup.mdb"))).size(), 10);
    QCOMPARE(QFileInfo(home.file(QStringLiteral("brixa_compact.mdb"))).isDir(), fault == QLatin1String("compactdir"));
    QVERIFY(!QFileInfo(home.file(QStringLiteral("brixa_compact.mdb"))).isFile());
}

void TestMaintenance::notADatabase()
{
    DbHome home;
    QVERIFY(home.ok());
    QVERIFY(writeFile(home.file(QStringLiteral("brixa.mdb")), QByteArray(8192, 'q')));
    RecordingSink sink;
    JobDatabase jdb;
    QVERIFY(!jdb.SrvOpenDatabases());
    const QStringList lines = home.logMessages();
    QCOMPARE(lines.size(), 2);
    QCOMPARE(lines[0], QStringLiteral("Warning SrvOpenDatabases Repair database failed. Error: 26 file is not a database"));
    QCOMPARE(lines[1], QStringLiteral("SrvOpenDatabases failed. Error: 26 file is not a database"));
    QCOMPARE(sink.boxes.size(), 1);
    QCOMPARE(sink.boxes[0].icon, BoxIcon::Critical);
    QCOMPARE(sink.boxes[0].text, lines[1] + "\n" + GetString(12029, GetString(9003)));
}

void TestMaintenance::accountFileNamesOtherEngine()
{
    DbHome home;
    QVERIFY(home.ok());
    QVERIFY(writeFile(home.file(QStringLiteral("brixa.mda")), "engine=jet\n"));
    RecordingSink sink;
    JobDatabase jdb;
    QVERIFY(!jdb.SrvOpenDatabases());
    const QStringList lines = home.logMessages();
    QCOMPARE(lines.size(), 1);
    QVERIFY2(lines[0].startsWith(QLatin1String("SrvOpenDatabases failed. Error: 3028 ")), qPrintable(lines[0]));
    QVERIFY(!home.has(QStringLiteral("brixa_backup.mdb")));
}

// Jobs committed into the -wal of a server that died: the backup and the compacted
// database both hold them.
void TestMaintenance::walContentsSurviveMaintenance()
{
    DbHome source;
    QVERIFY(source.ok());
    QVERIFY(storeJobs(1, 20));
    Database writer;
    writer.open(source.file(QStringLiteral("brixa.mdb")));
    writer.exec(QStringLiteral("PRAGMA wal_autocheckpoint=0"));
    for (int i = 21; i <= 30; ++i)
        writer.exec(QStringLiteral("INSERT INTO tbJob (Id, PrinterId, Job) VALUES (?, 1, ?)"),
                    {i, JobText(1, 1, QStringLiteral("1"), QStringLiteral("WS"), QString(), QStringLiteral("Job %1").arg(i))});
    QVERIFY(QFileInfo(source.file(QStringLiteral("brixa.mdb-wal"))).size() > 0);

    DbHome crashed(false);
    QVERIFY(crashed.ok());
    for (const char* f : {"brixa.mda", "brixa.mdb", "brixa.mdb-wal"})
        QVERIFY(QFile::copy(source.file(QString::fromLatin1(f)), crashed.file(QString::fromLatin1(f))));
    writer.close();

    bool opened = false;
    QCOMPARE(startAndList(&opened), expectedRows(30));
    QVERIFY(opened);
    QCOMPARE(JobRows(crashed.file(QStringLiteral("brixa_backup.mdb"))).size(), 30);
    QCOMPARE(warnings(crashed.logMessages()), QStringList());
}

void TestMaintenance::crashAfterEveryStep_data()
{
    QTest::addColumn<QString>("step");
    for (const char* s : {"backup", "repair", "compact1", "compact2", "compact3", "compact4", "compact5"})
        QTest::newRow(s) << QString::fromLatin1(s);
}

void TestMaintenance::crashAfterEveryStep()
{
    QFETCH(QString, step);
    // A server that died with part of its jobs committed only into the -wal.
    DbHome source;
    QVERIFY(source.ok());
    QVERIFY(storeJobs(1, JobCount / 2));
    Database writer;
    writer.open(source.file(QStringLiteral("brixa.mdb")));
    writer.exec(QStringLiteral("PRAGMA wal_autocheckpoint=0"));
    for (int i = JobCount / 2 + 1; i <= JobCount; ++i)
        writer.exec(QStringLiteral("INSERT INTO tbJob (Id, PrinterId, Job) VALUES (?, 2, ?)"),
                    {i, JobText(2, 1, QStringLiteral("1"), QStringLiteral("WS"), QString(), QStringLiteral("Job %1").arg(i))});
    QVERIFY(QFileInfo(source.file(QStringLiteral("brixa.mdb-wal"))).size() > 0);

    DbHome home(false);
    QVERIFY(home.ok());
    for (const char* f : {"brixa.mda", "brixa.mdb", "brixa.mdb-wal"})
        QVERIFY(QFile::copy(source.file(QString::fromLatin1(f)), home.file(QString::fromLatin1(f))));
    writer.close();

    QProcess child;
    QProcessEnvironment env = QProcessEnvironment::systemEnvironment();
    env.insert(QStringLiteral("QUILL_DB_MAINTENANCE_CHILD"), home.path());
    env.insert(QStringLiteral("QUILL_MAINTENANCE_CRASH_AFTER"), step);
    child.setProcessEnvironment(env);
    child.start(QCoreApplication::applicationFilePath(), {});
    QVERIFY(child.waitForFinished(60000));
    QCOMPARE(child.exitStatus(), QProcess::NormalExit);
    QCOMPARE(child.exitCode(), 99);

    // The backup was completed before any crash point.
    QCOMPARE(IntegrityCheck(home.file(QStringLiteral("brixa_backup.mdb"))), QStringLiteral("ok"));
    QCOMPARE(JobRows(home.file(QStringLiteral("brixa_backup.mdb"))).size(), JobCount);

    if (step == QLatin1String("compact3")) {
        // brixa.mdb is gone and the next start says so; the compacted copy is whole,
        // and restoring it by hand gives the complete database back.
        QVERIFY(!home.has(QStringLiteral("brixa.mdb")));
        const QString compact = home.file(QStringLiteral("brixa_compact.mdb"));
        QCOMPARE(IntegrityCheck(compact), QStringLiteral("ok"));
        QCOMPARE(JobRows(compact).size(), JobCount);
        {
            RecordingSink sink;
            JobDatabase jdb;
            QVERIFY(!jdb.SrvOpenDatabases());
            QVERIFY(home.log().contains(QLatin1String("SrvOpenDatabases failed. Can't find file brixa.mdb.")));
        }
        QVERIFY(QFile::copy(compact, home.file(QStringLiteral("brixa.mdb"))));
    }

    bool opened = false;
    QCOMPARE(startAndList(&opened), expectedRows(JobCount));
    QVERIFY(opened);
    QCOMPARE(IntegrityCheck(home.file(QStringLiteral("brixa.mdb"))), QStringLiteral("ok"));
    QCOMPARE(JobRows(home.file(QStringLiteral("brixa.mdb"))).size(), JobCount);
    QVERIFY(!home.has(QStringLiteral("brixa_compact.mdb")));
    QVERIFY(!home.has(QStringLiteral("brixa_restore.tmp")));
}

int main(int argc, char** argv)
{
    const QString childHome = qEnvironmentVariable("QUILL_DB_MAINTENANCE_CHILD");
    if (!childHome.isEmpty()) {
        QCoreApplication app(argc, argv);
        SetHomeDir(childHome);
        QDir::setCurrent(childHome);
        SetUseLog(true);
        LogInit(QStringLiteral("Quillbase"));
        SetSilentMode(true);
        JobDatabase jdb;
        return jdb.SrvOpenDatabases() ? 0 : 1;
    }
    QCoreApplication app(argc, argv);
    TestMaintenance tc;
    return QTest::qExec(&tc, argc, argv);
}

#include "tst_maintenance.moc"
