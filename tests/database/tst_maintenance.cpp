// Start-up maintenance of the database files: outcomes on disk and in the log,
// and what a crash after a step leaves behind.
//
// Started with QUILL_DB_CHILD set, this program is instead another program on
// the database of its working folder (see main).
#include "database/jobdatabase.h"
#include "database/jobrepository.h"
#include "database/jobstore.h"
#include "foundation/eventlog.h"
#include "foundation/paths.h"
#include "foundation/strutil.h"
#include "support/dbfixture.h"

#include <QCoreApplication>
#include <QDir>
#include <QFile>
#include <QProcess>
#include <QRegularExpression>
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

// Jobs 1..count, committed together.
bool storeJobs(const QString& home, int count)
{
    QStringList inserts{"BEGIN"};
    for (int i = 1; i <= count; ++i)
        inserts << QStringLiteral("INSERT INTO tbJob (Id, PrinterId, Job) VALUES (%1, 1, '%2')").arg(i).arg(job(i));
    return ExecSql(home + "/brixa.mdb", inserts << "COMMIT");
}

// This program again, as the other program `what` (see main) on the folder.
std::unique_ptr<QProcess> startChild(const QString& home, const QString& what)
{
    auto child = std::make_unique<QProcess>();
    child->setWorkingDirectory(home);
    child->setEnvironment(QProcess::systemEnvironment() << "QUILL_DB_CHILD=" + what);
    child->start(QCoreApplication::applicationFilePath(), {});
    return child;
}

// The child's exit code once it has ended, or -1.
int exitCode(QProcess& child)
{
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

// What a file of the installation is now: absent, folder, kept (the bytes of
// `before`), "<n> jobs" (a database) or other.
QString state(const QString& path, const QByteArray& before = {})
{
    const QFileInfo fi(path);
    if (!fi.exists())
        return "absent";
    if (fi.isDir())
        return "folder";
    if (ReadFile(path) == before)
        return "kept";
    const QStringList rows = JobRows(path);
    return !rows.isEmpty() && rows[0].startsWith("error") ? "other" : QStringLiteral("%1 jobs").arg(rows.size());
}

} // namespace

class TestMaintenance : public QObject {
    Q_OBJECT
private slots:
    void initTestCase() { QUILL_SKIP_WITHOUT_ENGINE(); }
    void init()
    {
        // The steps on files are SQLite's; PostgreSQL has only its own.
        if (OnPostgres() && std::strcmp(QTest::currentTestFunction(), "postgresMaintenance") != 0)
            QSKIP("a database file's maintenance: SQLite's only");
    }
    void outcomes_data();
    void outcomes();
    void crashAfterEveryStep_data();
    void crashAfterEveryStep();
    void openElsewhereIsNotReplaced();
    void commitDuringCompactionIsKept();
    void damagedPagesAreSalvaged_data();
    void damagedPagesAreSalvaged();
    void backupGenerations();
    void unreadableStartsKeepTheGoodBackup();
    void postgresMaintenance_data();
    void postgresMaintenance();
};

void TestMaintenance::outcomes_data()
{
    const QString isDir = QStringLiteral(" Error: 21 Is a directory");
    QTest::addColumn<QStringList>("faults"); // "name=bytes" written, "name/" a folder, "-name" removed
    QTest::addColumn<bool>("opened");
    QTest::addColumn<QStringList>("lines"); // the log, each line from its start
    QTest::addColumn<QString>("disk");      // brixa.mdb, brixa_backup.mdb, brixa_compact.mdb
    QTest::newRow("all steps, over a stale backup and compact file")
        << QStringList{"brixa_backup.mdb=stale", "brixa_compact.mdb=stale"} << true << QStringList()
        << "10 jobs, 10 jobs, absent";
    QTest::newRow("account file missing")
        << QStringList{"-brixa.mda"} << false << QStringList{"SrvOpenDatabases failed. Can't find file brixa.mda."}
        << "kept, absent, absent";
    // The new backup is made beside the old one, which stays when that fails.
    QTest::newRow("backup fails: folder in the way, old backup kept")
        << QStringList{"brixa_backup.mdb=stale", "brixa_backup.tmp/"} << true
        << QStringList{"Warning SrvOpenDatabases Backup database failed." + isDir} << "kept, other, absent";
    // The compacted copy replaces brixa.mdb in one rename: when that fails the
    // database is as it was, and the start goes on with it.
    QTest::newRow("step 4 fails: folder in the way")
        << QStringList{"brixa_restore.tmp/"} << true
        << QStringList{"SrvOpenDatabases Compact database Step 4 - Failed to copy brixa_compact.mdb to brixa.mdb." + isDir}
        << "kept, 10 jobs, 10 jobs";
    QTest::newRow("database is not a database")
        << QStringList{"brixa.mdb=" + QString(8192, 'q')} << false
        << QStringList{"Warning SrvOpenDatabases Repair database failed. Error: 26 file is not a database",
                       "SrvOpenDatabases failed. Error: 26 file is not a database"}
        << "kept, absent, absent";
    // libpq would only warn and connect without the password.
    const QString readable = QStringLiteral("SrvOpenDatabases failed. Error: 3028 Can't start your application. The "
                                            "workgroup information file names the password file pgpass, which others "
                                            "may read: it must have mode 0600.");
    QTest::newRow("password file others may read")
        << QStringList{"pgpass=secret\n", "brixa.mda=engine=postgresql\npassfile=pgpass\n"} << false
        << QStringList{readable} << "kept, absent, absent";
}

void TestMaintenance::outcomes()
{
    QFETCH(QStringList, faults);
    QFETCH(bool, opened);
    QFETCH(QStringList, lines);
    QFETCH(QString, disk);
    DbHome home;
    QVERIFY(home.ok());
    QVERIFY(storeJobs(home.path(), 10));
    const QString mdb = home.file("brixa.mdb");
    for (const QString& fault : faults) {
        if (fault.startsWith('-'))
            QVERIFY(QFile::remove(home.file(fault.mid(1))));
        else if (fault.endsWith('/'))
            QVERIFY(QDir(home.path()).mkpath(fault + "keep"));
        else {
            QFile file(home.file(fault.section('=', 0, 0)));
            QVERIFY(file.open(QIODevice::WriteOnly) && file.write(fault.section('=', 1).toLatin1()) > 0);
            // As an installer writes it, whatever the umask of this run.
            QVERIFY(file.setPermissions(QFile::ReadOwner | QFile::WriteOwner | QFile::ReadGroup | QFile::ReadOther));
        }
    }
    const QByteArray before = ReadFile(mdb);
    QCOMPARE(startAndList(), opened ? expectedRows(10) : QStringList{"not opened"});
    const QStringList log = home.logMessages();
    QCOMPARE(log.size(), lines.size());
    for (int i = 0; i < lines.size(); ++i)
        QVERIFY2(log[i].startsWith(lines[i]), qPrintable(log[i]));
    QCOMPARE(QStringList({state(mdb, before), state(home.file("brixa_backup.mdb")), state(home.file("brixa_compact.mdb"))})
                 .join(", "),
             disk);
    QVERIFY(!QFileInfo(home.file("brixa_restore.tmp")).isFile());
}

void TestMaintenance::crashAfterEveryStep_data()
{
    QTest::addColumn<QString>("step");
    // Jobs still only in the -wal beside a stale compacted copy; the copy become
    // brixa.mdb, the -wal gone, the copy still beside it.
    for (const char* s : {"compact2", "compact4"})
        QTest::newRow(s) << QString::fromLatin1(s);
}

// A server that died with half of its jobs only in the -wal, then a start that
// crashes after the step, then a normal start.
void TestMaintenance::crashAfterEveryStep()
{
    QFETCH(QString, step);
    const int jobs = 60;
    DbHome home;
    QVERIFY(home.ok());
    QVERIFY(storeJobs(home.path(), jobs / 2));
    QCOMPARE(exitCode(*startChild(home.path(), QStringLiteral("wal %1").arg(jobs))), 0);
    QVERIFY(QFileInfo(home.file("brixa.mdb-wal")).size() > 0);
    QCOMPARE(exitCode(*startChild(home.path(), "crash " + step)), 99);

    // The backup is complete before any crash point, and brixa.mdb is there,
    // whole, before the next start touches it.
    for (const QString& file : QStringList{"brixa_backup.mdb", "brixa.mdb"}) {
        QCOMPARE(QueryRows(home.file(file), "PRAGMA integrity_check"), QStringList{"ok"});
        QCOMPARE(JobRows(home.file(file)).size(), jobs);
    }
    QCOMPARE(startAndList(), expectedRows(jobs));
    QCOMPARE(QueryRows(home.file("brixa.mdb"), "PRAGMA integrity_check"), QStringList{"ok"});
    QVERIFY(!QFileInfo::exists(home.file("brixa_compact.mdb")) && !QFileInfo::exists(home.file("brixa_restore.tmp")));
    QCOMPARE(home.logMessages().filter("Warning"), QStringList());
}

// Another program with the database open during the start: the file it has open
// stays the database, so what it writes afterwards is there for the server.
void TestMaintenance::openElsewhereIsNotReplaced()
{
    DbHome home;
    QVERIFY(home.ok());
    QVERIFY(storeJobs(home.path(), 10));
    const auto other = startChild(home.path(), "hold");
    QVERIFY(other->waitForReadyRead(20000));
    QCOMPARE(other->readLine(), QByteArray("open\n"));
    QCOMPARE(startAndList(), expectedRows(10));
    QCOMPARE(home.logMessages(), QStringList{"Warning SrvOpenDatabases Compact database Step 3 - Failed to delete "
                                             "brixa.mdb. Error: " + QString::number(EBUSY) + ' '
                                             + QString::fromLocal8Bit(std::strerror(EBUSY))});
    other->closeWriteChannel();
    QCOMPARE(exitCode(*other), 0);
    QCOMPARE(JobRows(home.file("brixa.mdb")).size(), 11);
}

// A job another program commits while the start compacts: the compacted copy,
// which lacks it, does not replace the database.
void TestMaintenance::commitDuringCompactionIsKept()
{
    DbHome home;
    QVERIFY(home.ok());
    QVERIFY(storeJobs(home.path(), 10));
    SetMaintenanceStepHook([](const char* step) {
        if (std::strcmp(step, "compact2") == 0)
            ExecSql(HomePath("brixa.mdb"), {"INSERT INTO tbJob (Id, PrinterId, Job) VALUES (11, 1, '" + job(11) + "')"});
    });
    const QStringList listed = startAndList();
    SetMaintenanceStepHook(nullptr);
    QCOMPARE(listed, expectedRows(11));
    QCOMPARE(home.logMessages().filter("Step 3 - Failed to delete brixa.mdb.").size(), 1);
}

void TestMaintenance::damagedPagesAreSalvaged_data()
{
    QTest::addColumn<bool>("pages");
    QTest::newRow("index entries that do not match") << false;
    QTest::newRow("settings page and pages in the middle overwritten") << true;
}

// Every job whose text is still whole in the file comes back (at least 95% of
// them), none that was deleted and none garbled; the settings row comes back
// from the good backup when its page is gone.
void TestMaintenance::damagedPagesAreSalvaged()
{
    QFETCH(bool, pages);
    const int jobs = 2000, deleted = 150;
    DbHome home;
    QVERIFY(home.ok());
    // Longer texts: the table spans many pages.
    auto text = [](int i) { return job(i) + QStringLiteral(" #%1# ").arg(i) + QString(80, QChar('a' + i % 26)); };
    QStringList inserts{"BEGIN"};
    for (int i = 1; i <= jobs; ++i)
        inserts << QStringLiteral("INSERT INTO tbJob (Id, PrinterId, Job) VALUES (%1, 1, '%2')").arg(i).arg(text(i));
    const QString mdb = home.file("brixa.mdb");
    QVERIFY(ExecSql(mdb, inserts << "UPDATE tbServer SET port = 20123" << "COMMIT"));
    QCOMPARE(startAndList().size(), jobs); // a good start: its backup is good
    // Printed jobs: their pages go to the free list with the texts still on them.
    const int pageSize = QueryRows(mdb, "PRAGMA page_size").value(0).toInt();
    QVERIFY(pageSize > 0);
    const QByteArray good = ReadFile(mdb);
    const QByteArray stale = good.mid(good.indexOf(text(1).toUtf8()) / pageSize * pageSize, pageSize);
    QVERIFY(ExecSql(mdb, {QStringLiteral("DELETE FROM tbJob WHERE Id <= %1").arg(deleted)}));
    const QStringList serverRow = QueryRows(mdb, "SELECT * FROM tbServer");
    QVERIFY(serverRow.value(0).contains("20123"));

    if (!pages) {
        // The file still opens and its jobs read, but the integrity check fails.
        QVERIFY(ExecSql(mdb, {"CREATE INDEX ixCaption ON tbJob (Job)", "PRAGMA writable_schema = ON",
                              "UPDATE sqlite_master SET sql = 'CREATE INDEX ixCaption ON tbJob (PrinterId)' "
                              "WHERE name = 'ixCaption'"}));
    } else {
        const QString root = QueryRows(mdb, "SELECT rootpage FROM sqlite_master WHERE name = 'tbServer'").value(0);
        QFile f(mdb);
        QVERIFY(root.toInt() > 0 && f.open(QIODevice::ReadWrite));
        const qint64 middle = f.size() / pageSize / 2;
        for (qint64 page : {root.toInt() - 1LL, middle, middle + 1})
            QVERIFY(f.seek(page * pageSize) && f.write(QByteArray(pageSize, char(0xA5))) == pageSize);
        // A free page that still holds deleted jobs, as one freed without being
        // wiped does (the other row's new index takes every free page).
        auto be32 = [](const QByteArray& b) {
            return quint32(uchar(b[0])) << 24 | quint32(uchar(b[1])) << 16 | quint32(uchar(b[2])) << 8 | uchar(b[3]);
        };
        QVERIFY(f.seek(32));
        const quint32 trunk = be32(f.read(4));
        QVERIFY(trunk > 0 && f.seek(qint64(trunk - 1) * pageSize));
        const QByteArray list = f.read(12);
        QVERIFY(be32(list.mid(4)) > 0);
        QVERIFY(f.seek(qint64(be32(list.mid(8)) - 1) * pageSize) && f.write(stale) == pageSize);
    }
    QVERIFY(QueryRows(mdb, "PRAGMA integrity_check") != QStringList{"ok"});
    const QByteArray bytes = ReadFile(mdb);
    QVERIFY(!pages || bytes.contains(text(1).toUtf8()));
    QSet<int> intact;
    for (int id = deleted + 1; id <= jobs; ++id)
        if (bytes.contains(text(id).toUtf8()))
            intact.insert(id);
    QVERIFY2(intact.size() > (jobs - deleted) / 2, qPrintable(QString::number(intact.size())));

    const QStringList listed = startAndList();
    int back = 0;
    for (const QString& row : listed) {
        const int id = row.section(' ', 0, 0).toInt();
        QVERIFY2(id > deleted && id <= jobs && row == QStringLiteral("%1 %2").arg(id).arg(GetToken(text(id), TAB, 12)), qPrintable(row));
        back += intact.contains(id) ? 1 : 0;
    }
    QVERIFY2(back * 100 >= intact.size() * 95, qPrintable(QStringLiteral("%1 of %2").arg(back).arg(intact.size())));
    if (!pages)
        QCOMPARE(listed.size(), jobs - deleted);
    for (const QString& row : JobRows(mdb))
        QCOMPARE(row.section('|', 2), text(row.section('|', 0, 0).toInt()));
    QCOMPARE(QueryRows(mdb, "PRAGMA integrity_check"), QStringList{"ok"});
    QCOMPARE(QueryRows(mdb, "SELECT * FROM tbServer"), serverRow);

    const QStringList log = home.logMessages();
    QVERIFY2(log.filter(QRegularExpression(QStringLiteral("^Warning SrvOpenDatabases Repair database: tbJob: %1 rows "
                                                          "recovered, \\d+ lost")
                                               .arg(listed.size())))
                     .size() == 1,
             qPrintable(log.join('\n')));
    QCOMPARE(log.filter("rows restored from"),
             pages ? QStringList{"Warning SrvOpenDatabases Repair database: tbServer: 1 rows restored from brixa_backup.mdb"}
                   : QStringList());
    QCOMPARE(QDir(home.path()).entryList({"brixa_damaged-*.mdb"}).size(), 1);
    // The backup of the good start stays, whole and marked kept (so no later
    // start prunes it), and the next start finds the repaired file as it was.
    QCOMPARE(JobRows(home.file("brixa_backup.mdb")).size(), jobs);
    QVERIFY(ReadFile(home.file("brixa_backup.mdb.check")).contains("\nkept: "));
    QCOMPARE(startAndList(), listed);
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
    // Seven starts: this one's backup and five of the six before it, each with
    // the record of its check.
    QCOMPARE(JobRows(home.file("brixa_backup.mdb")).size(), 3);
    QStringList generations = QDir(home.file("backups")).entryList({"brixa_backup-*.mdb"}, QDir::Files);
    QCOMPARE(generations.size(), 5);
    generations << "../brixa_backup.mdb";
    for (const QString& g : generations) {
        const QStringList record = QString::fromUtf8(ReadFile(home.file("backups/" + g + ".check"))).split('\n');
        QCOMPARE(record.value(0), "ok");
        QVERIFY2(record.value(2).contains("tbJob 3"), qPrintable(record.join('|')));
    }
    QCOMPARE(state(home.file("brixa_backup.tmp")), "absent");
    // Backups without the record of a passed check (left by hand) go first:
    // the newest that passed stays, however old, and so does one a repair followed.
    QDir backups(home.file("backups"));
    const QStringList before = backups.entryList({"brixa_backup-*.mdb"}, QDir::Files, QDir::Name);
    for (const QString& g : before.mid(1))
        QVERIFY(backups.remove(g + ".check"));
    QVERIFY(QFile::remove(home.file("brixa_backup.mdb.check")));
    QFile kept(backups.filePath(before[1] + ".check"));
    QVERIFY(kept.open(QIODevice::WriteOnly) && kept.write("damaged\nkept: a repair followed\n") > 0);
    kept.close();
    QCOMPARE(startAndList().size(), 3);
    QVERIFY(backups.exists(before[0]) && backups.exists(before[1]));
    QCOMPARE(backups.entryList({"brixa_backup-*.mdb"}, QDir::Files).size(), 5);
}

// A restart loop on a database beyond repair (cut to its first page): every
// start fails, makes no backup, and the good backups with every job stay as they were.
void TestMaintenance::unreadableStartsKeepTheGoodBackup()
{
    const int jobs = 300;
    DbHome home;
    QVERIFY(home.ok());
    QVERIFY(storeJobs(home.path(), jobs));
    for (int start = 0; start < 3; ++start)
        QCOMPARE(startAndList().size(), jobs);
    const QString mdb = home.file("brixa.mdb");
    QVERIFY(QFile::resize(mdb, 4096));
    const QByteArray damaged = ReadFile(mdb);
    const QStringList before = QDir(home.file("backups")).entryList(QDir::Files, QDir::Name);
    const QByteArray goodBackup = ReadFile(home.file("brixa_backup.mdb"));
    for (int start = 0; start < 7; ++start)
        QCOMPARE(startAndList(), QStringList{"not opened"});
    QCOMPARE(home.logMessages().filter("Warning SrvOpenDatabases Repair database failed.").size(), 7);
    QCOMPARE(ReadFile(mdb), damaged);
    QCOMPARE(ReadFile(home.file("brixa_backup.mdb")), goodBackup);
    QCOMPARE(QDir(home.file("backups")).entryList(QDir::Files, QDir::Name), before);
    QCOMPARE(JobRows(home.file("brixa_backup.mdb")).size(), jobs);
}

void TestMaintenance::postgresMaintenance_data()
{
    QTest::addColumn<QString>("backup"); // the backup line of brixa.mda; <home> for the folder
    QTest::addColumn<QString>("logged"); // the backup step's line, up to the file's name
    QTest::newRow("none named") << "" << "SrvOpenDatabases Backup database: none (brixa.mda names no backup folder)";
    QTest::newRow("dump written") << "backup=<home>/dumps" << "SrvOpenDatabases Backup database: <home>/dumps/brixa-";
    QTest::newRow("folder cannot be made") << "backup=<home>/brixa.mda/dumps"
                                           << "Warning SrvOpenDatabases Backup database failed. Error: ";
}

// Each start on PostgreSQL: a dated dump when brixa.mda names a folder (one that
// fails is logged and the start goes on), and a line each for the repair and the
// compaction, which are the engine's own.
void TestMaintenance::postgresMaintenance()
{
    if (!OnPostgres())
        QSKIP("PostgreSQL's maintenance");
    QFETCH(QString, backup);
    QFETCH(QString, logged);
    DbHome home;
    QVERIFY(home.ok());
    QVERIFY(storeJobs(home.path(), 3));
    QFile mda(home.file("brixa.mda"));
    QVERIFY(mda.open(QIODevice::Append));
    mda.write(backup.replace("<home>", home.path()).toUtf8() + '\n');
    mda.close();
    QCOMPARE(startAndList().size(), 3);
    const QStringList lines = CurrentLogText().split("\r\n").filter("SrvOpenDatabases");
    QCOMPARE(lines.size(), 3);
    QVERIFY2(lines[0].contains(logged.replace("<home>", home.path())), qPrintable(lines[0]));
    QVERIFY(lines[1].endsWith("SrvOpenDatabases Repair database: PostgreSQL's own (recovery from its write-ahead log)"));
    QVERIFY(lines[2].endsWith("SrvOpenDatabases Compact database: PostgreSQL's own (autovacuum)"));
    const QStringList dumps = QDir(home.file("dumps")).entryList({"brixa-*.dump"}, QDir::Files);
    QCOMPARE(dumps.size(), QTest::currentDataTag() == QByteArray("dump written") ? 1 : 0);
    // pg_restore's custom format, whole: it lists the job table's data.
    if (!dumps.isEmpty()) {
        QVERIFY(ReadFile(home.file("dumps/" + dumps[0])).startsWith("PGDMP"));
        QProcess list;
        list.start("pg_restore", {"--list", home.file("dumps/" + dumps[0])});
        QVERIFY(list.waitForFinished(30000));
        QVERIFY(list.readAllStandardOutput().contains("TABLE DATA public tbjob"));
    }
}

int main(int argc, char** argv)
{
    QCoreApplication app(argc, argv);
    const QStringList child = qEnvironmentVariable("QUILL_DB_CHILD").split(' ', Qt::SkipEmptyParts);
    if (child.isEmpty()) {
        TestMaintenance tc;
        return QTest::qExec(&tc, argc, argv);
    }
    Database db;
    if (child[0] == "wal") {
        // A server that dies with jobs up to the number given committed only into the -wal.
        db.open(QDir::current().filePath("brixa.mdb"));
        db.exec("PRAGMA wal_autocheckpoint=0");
        for (int i = JobRepository(db).nextId().value; i <= child.value(1).toInt(); ++i)
            db.exec("INSERT INTO tbJob (Id, PrinterId, Job) VALUES (?, 1, ?)", {i, job(i)});
        ::_exit(0);
    }
    if (child[0] == "hold") {
        // Keeps the database open, and writes job 11 once its input ends.
        db.open(QDir::current().filePath("brixa.mdb"));
        db.exec("SELECT COUNT(*) FROM tbJob");
        QFile in, out;
        if (!in.open(stdin, QIODevice::ReadOnly) || !out.open(stdout, QIODevice::WriteOnly))
            return 2;
        out.write("open\n");
        out.flush();
        in.readAll();
        db.exec("INSERT INTO tbJob (Id, PrinterId, Job) VALUES (11, 1, ?)", {job(11)});
        return 0;
    }
    // "crash <step>": a start-up that ends at that step's crash point.
    SetHomeDir(QDir::currentPath());
    SetUseLog(true);
    LogInit("Quillbase");
    static const QByteArray crashAfter = child.value(1).toLatin1();
    SetMaintenanceStepHook([](const char* step) {
        if (crashAfter == step)
            ::_exit(99);
    });
    JobDatabase jdb;
    return jdb.SrvOpenDatabases() ? 0 : 1;
}

#include "tst_maintenance.moc"
