// The database layer: the job store (tbJob and the job list), the connection's
// kept statements, the repositories of the small tables (printers and the
// template lookup), and the start-up maintenance of the database files (outcomes
// on disk and in the log, and what a crash after a step leaves behind).
//
// Started with QUILL_DB_CHILD set, this program is instead another program on
// the database of its working folder (see main).
#include "database/jobdatabase.h"
#include "database/jobrepository.h"
#include "database/jobstore.h"
#include "database/repositories.h"
#include "foundation/eventlog.h"
#include "foundation/paths.h"
#include "foundation/strutil.h"
#include "support/dbfixture.h"

#include <QAbstractItemModelTester>
#include <QCoreApplication>
#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QProcess>
#include <QRandomGenerator>
#include <QRegularExpression>
#include <QSignalSpy>
#include <QTest>
#include <QtEndian>

#include <cerrno>
#include <cstring>
#include <unistd.h>

using namespace quill;
using namespace quill::dbtest;

namespace {

// The queue rule as the list states it: first row, in list order, of the printer.
qint32 linearNextJob(const JobListModel& list, qint32 printerId)
{
    for (int r = 0; r < list.count(); ++r)
        if (list.rowAt(r).printerId == printerId)
            return list.rowAt(r).id;
    return 0;
}

// Every shown column of every row, "/"-joined per row, once all are announced.
QStringList shownRows(JobListModel& list)
{
    list.flushChanges();
    QStringList out;
    for (int r = 0; r < list.rowCount(); ++r) {
        QStringList cols;
        for (int c = 0; c < list.columnCount(); ++c)
            cols << list.data(list.index(r, c)).toString();
        out << cols.join(QLatin1Char('/'));
    }
    return out;
}

// Job ids of the list in its order, and of tbJob in Id order.
QList<int> listIds(const JobListModel& list)
{
    QList<int> ids;
    for (int r = 0; r < list.count(); ++r)
        ids << list.rowAt(r).id;
    return ids;
}
QList<int> tableIds(const QString& mdb)
{
    QList<int> ids;
    for (const QString& row : JobRows(mdb))
        ids << row.section(QLatin1Char('|'), 0, 0).toInt();
    return ids;
}
QString job(int i)
{
    return JobText(1 + i % 3, 1, "1", "WS", QString(), QStringLiteral("Job %1").arg(i));
}

// Jobs 1..count with these texts, committed together.
bool storeJobs(const QString& home, int count, const std::function<QString(int)>& text = job)
{
    QStringList inserts{"BEGIN"};
    for (int i = 1; i <= count; ++i)
        inserts << QStringLiteral("INSERT INTO tbJob (Id, PrinterId, Job) VALUES (%1, 1, '%2')").arg(i).arg(text(i));
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

class TestDatabase : public QObject {
    Q_OBJECT
    std::unique_ptr<DbHome> home;
    std::unique_ptr<JobDatabase> jdb;
    std::unique_ptr<JobStore> store;
    PrinterSlots printerSlots;
    QString mdb() const { return home->file("brixa.mdb"); }
    Database& db() { return jdb->database(); }

    // The database side of a server start: maintenance, tables checked, list from tbJob.
    void start()
    {
        store.reset();
        jdb = std::make_unique<JobDatabase>();
        QVERIFY(jdb->SrvOpenDatabases() && jdb->SrvTemplateTypeOpenDB() && jdb->SrvJobOpenDB());
        store = std::make_unique<JobStore>(*jdb, printerSlots);
        store->SrvInitAllJobs();
    }
    bool add(int printer, const QString& caption)
    {
        return store->SrvAddJob(PrintJob::fromText(JobText(printer, 1, "1", "KASSA1", QString(), caption)));
    }
private slots:
    void initTestCase() { QUILL_SKIP_WITHOUT_ENGINE(); }
    void init()
    {
        // The maintenance tests start the database themselves, as often as they need.
        static const QByteArrayList maintenance{"outcomes", "crashAfterEveryStep", "openElsewhereIsNotReplaced",
                                                "commitDuringCompactionIsKept", "damagedPagesAreSalvaged",
                                                "backupGenerations", "postgresMaintenance"};
        // The repositories' statements and errors, and the steps on a database
        // file, are SQLite's; PostgreSQL has maintenance of its own.
        static const QByteArrayList sqliteOnly =
            maintenance.mid(0, 6) + QByteArrayList{"keptStatements", "printerRows", "templateLookup", "walCopiedIntoTheFile"};
        const QByteArray test = QTest::currentTestFunction();
        if (OnPostgres() && sqliteOnly.contains(test))
            QSKIP("run on SQLite");
        printerSlots.reset();
        home = std::make_unique<DbHome>();
        QVERIFY(home->ok());
        if (!maintenance.contains(test))
            start();
    }
    void cleanup()
    {
        store.reset();
        jdb.reset();
        home.reset();
    }
    void idsDeletesAndSignals();
    void rowColumns_data();
    void rowColumns();
    void queueOrderAndRestart();
    void writesGatherWhileACommitWaits();
    void deleteJobsWhere();
    void walCopiedIntoTheFile();
    void failuresAreLogged();
    void moveKeepsPlaces();
    void moveFailsWhole();
    void historyOfFinishedJobs();
    void historyBounds();
    void keptStatements();
    void printerRows();
    void currentTemplate();
    void templateLookup();
    void outcomes_data();
    void outcomes();
    void crashAfterEveryStep_data();
    void crashAfterEveryStep();
    void openElsewhereIsNotReplaced();
    void commitDuringCompactionIsKept();
    void damagedPagesAreSalvaged_data();
    void damagedPagesAreSalvaged();
    void backupGenerations();
    void postgresMaintenance_data();
    void postgresMaintenance();
};

void TestDatabase::idsDeletesAndSignals()
{
    JobListModel& list = store->jobList();
    QSignalSpy removed(&list, &QAbstractItemModel::rowsRemoved);
    QSignalSpy reset(&list, &QAbstractItemModel::modelReset);
    for (int i = 1; i <= 3; ++i)
        QVERIFY(add(1, QStringLiteral("c%1").arg(i)));
    list.flushChanges();
    store->SrvDeleteJob(3);
    store->SrvDeleteJob(99); // in neither table nor list: nothing happens
    QTRY_COMPARE(removed.size(), 1);
    QVERIFY(add(1, "again"));
    QCOMPARE(list.rowAt(2).text, "3 again");
    // Emptying the table leaves it usable, and none of this is an error.
    for (int id = 1; id <= 3; ++id)
        store->SrvDeleteJob(id);
    QVERIFY(add(1, "c"));
    QCOMPARE(list.rowAt(0).text, "1 c");
    store->SrvInitAllJobs(); // the rebuild is one reset, not a row per job
    QCOMPARE(reset.size(), 1);
    // Another program deletes the last job: the next id is lower than one
    // still listed, and lookups by id find it all the same.
    QVERIFY(add(1, "d"));
    store->SrvDeleteJob(1);
    store->SrvInitAllJobs();
    QVERIFY(ExecSql(mdb(), {"DELETE FROM tbJob WHERE Id = 2"}));
    QVERIFY(add(1, "e"));
    QCOMPARE(list.rowAt(1).text, "1 e");
    QCOMPARE(list.findJob(1), 1);
    store->SrvDeleteJob(1);
    QCOMPARE(list.findJob(1), -1);
    QCOMPARE(list.count(), 1);
    QCOMPARE(home->logMessages(), QStringList());
}

void TestDatabase::rowColumns_data()
{
    QTest::addColumn<QString>("fields"); // printer;copies;workstation;user;caption
    QTest::addColumn<QString>("shown");
    QTest::newRow("user and workstation") << "2;3;KASSA1;anna;Greenfee" << "1 Greenfee/3/Baren vid sjöns norra s/anna på KASSA1";
    QTest::newRow("empty user: workstation alone") << "2;1;  KASSA1 ;;Tag" << "1 Tag/1/Baren vid sjöns norra s/KASSA1";
    QTest::newRow("printer not in use: unknown") << "4;2;WS;;Addin" << "1 Addin/2/Okänd/WS";
}

void TestDatabase::rowColumns()
{
    QFETCH(QString, fields);
    QFETCH(QString, shown);
    // The name column holds 25 characters: a longer name is cut there.
    printerSlots.setPrinter(2, {.name = FixedText("  Baren vid sjöns norra strand", 25)});
    const QStringList f = fields.split(QLatin1Char(';'));
    QVERIFY(store->SrvAddJob(PrintJob::fromText(JobText(0, 1, f[1], f[2], f[3], f[4]).replace("\tP\t0\t", "\tP\t" + f[0] + "\t"))));
    QCOMPARE(shownRows(store->jobList()), QStringList{shown});
}

void TestDatabase::queueOrderAndRestart()
{
    // Random adds and deletes, always against the linear walk. The captions hold
    // what a list literal or a statement would have to escape; they come back whole.
    QRandomGenerator rng(4711);
    JobListModel& list = store->jobList();
    for (int step = 0; step < 150; ++step) {
        const int op = int(rng.bounded(10));
        if (op < 6 || list.count() == 0)
            QVERIFY(add(int(rng.bounded(1, 6)), QStringLiteral("s%1 \"{Å\\,}' NULL").arg(step)));
        else
            store->SrvDeleteJob(list.rowAt(int(rng.bounded(list.count()))).id);
        for (qint32 p = 0; p <= 6; ++p)
            QCOMPARE(store->SrvNextJobId(p), linearNextJob(list, p));
    }
    const QStringList before = shownRows(list);
    store->sync();
    QCOMPARE(JobRows(mdb()).size(), before.size());
    start();
    QCOMPARE(shownRows(store->jobList()), before);
    for (qint32 p = 0; p <= 6; ++p)
        QCOMPARE(store->SrvNextJobId(p), linearNextJob(store->jobList(), p));
}

void TestDatabase::writesGatherWhileACommitWaits()
{
    QVERIFY(add(1, "single"));
    quint64 through = 0;
    std::vector<quint64> failed;
    store->onCommitted = [&](quint64 t, const std::vector<quint64>& f) {
        through = t;
        failed.insert(failed.end(), f.begin(), f.end());
    };
    const quint64 before = store->transactions();
    auto submit = [&](int printer, const QString& caption) {
        return store->submitJob(PrintJob::fromText(JobText(printer, 1, "1", "KASSA1", QString(), caption))).value_or(0);
    };
    // While another program holds the write lock, the first job's transaction
    // waits for it; whatever is handed over meanwhile gathers for the next one.
    quint64 last = 0;
    {
        Database other;
        HoldWriteLock(other, mdb());
        QVERIFY(submit(1, "a") > 0);
        QTest::qWait(200);
        QVERIFY(submit(2, "b") > 0);
        store->SrvDeleteJob(1);
        last = submit(1, "c");
        QVERIFY(last > 0);
        QCOMPARE(store->jobList().count(), 0); // rows come with their commit
        other.rollback();
    }
    QTRY_COMPARE_WITH_TIMEOUT(through, last, 10000);
    QCOMPARE(store->transactions() - before, quint64(2));
    QVERIFY(failed.empty());
    // Ids count the rows written before them, the deletion included.
    QCOMPARE(listIds(store->jobList()), (QList<int>{2, 3, 4}));
    QCOMPARE(tableIds(mdb()), (QList<int>{2, 3, 4}));
}

void TestDatabase::deleteJobsWhere()
{
    // 40 jobs, ids 1..40, printers 1, 2, 3 in turn, handed over without waiting:
    // the deletion takes them all the same. Runs of one and of many go, more
    // runs than are erased one by one.
    for (int i = 1; i <= 40; ++i)
        QVERIFY(store->submitJob(PrintJob::fromText(JobText((i - 1) % 3 + 1, 1, "1", "KASSA1", QString(),
                                                            QStringLiteral("c%1").arg(i)))));
    QList<int> gone, kept;
    for (int id = 1; id <= 40; ++id)
        (id == 1 || id % 2 == 0 || id > 34 ? gone : kept) << id;
    JobListModel& list = store->jobList();
    QAbstractItemModelTester tester(&list, QAbstractItemModelTester::FailureReportingMode::QtTest);
    QCOMPARE(store->deleteJobsWhere([&](const QueuedJob& r) { return gone.contains(r.id); }), gone.size());
    QCOMPARE(tableIds(mdb()), kept);
    QCOMPARE(listIds(list), kept);
    // The queue and the lookups by job follow the list.
    for (qint32 p = 0; p <= 4; ++p)
        QCOMPARE(store->SrvNextJobId(p), linearNextJob(list, p));
    for (int id = 1; id <= 40; ++id)
        QCOMPARE(list.findJob(id), int(kept.indexOf(id)));
    // The store goes on as before: a new job is appended, and deleted on its own.
    QVERIFY(add(2, "after"));
    QCOMPARE(list.rowAt(list.count() - 1).text, "34 after");
    store->SrvDeleteJob(34);
    QCOMPARE(listIds(list), kept);
    QCOMPARE(home->logMessages(), QStringList());
}

void TestDatabase::walCopiedIntoTheFile()
{
    // The writer's commits leave the WAL alone; the writer copies it into the
    // file itself once it is past 1,000 pages, so the WAL does not grow for ever.
    const QString caption(12000, QLatin1Char('x')); // three or four pages a job
    quint64 last = 0;
    for (int i = 0; i < 400; ++i)
        last = store->submitJob(PrintJob::fromText(JobText(1, 1, "1", "KASSA1", QString(), caption))).value_or(0);
    QVERIFY(last > 0);
    QTRY_COMPARE_WITH_TIMEOUT(store->jobList().count(), 400, 30000);
    QTRY_VERIFY_WITH_TIMEOUT(QFileInfo(mdb()).size() > 400 * 12000, 30000);
}

void TestDatabase::failuresAreLogged()
{
    QVERIFY(add(1, "a") && add(1, "b"));
    QVERIFY(ExecSql(mdb(), {"DROP TABLE tbJob"}));
    QVERIFY(!add(1, "c"));
    // A row the table cannot delete is logged per job and stays listed, as it
    // may still be in tbJob: the list and the table never disagree.
    QCOMPARE(store->deleteJobsWhere([](const QueuedJob&) { return true; }), 0);
    QCOMPARE(listIds(store->jobList()), (QList<int>{1, 2}));
    const OpenResult opened = jdb->SrvJobOpenDB();
    QVERIFY(!opened);
    store->SrvInitAllJobs();
    const QString noTable = OnPostgres() ? "Error: 1 relation \"tbjob\" does not exist (42P01)"
                                         : "Error: 1 no such table: tbJob";
    QCOMPARE(home->logMessages(),
             (QStringList{"SrvAddJob failed. JId = 0 " + noTable, "SrvDBDeleteJob failed. JId = 1 " + noTable,
                          "SrvDBDeleteJob failed. JId = 2 " + noTable,
                          "SrvJobOpenDB failed. " + noTable,
                          "SrvInitAllJobs failed. Error: 91 Object variable or With block variable not set"}));
    // The open operation also hands its failure up, for the start-up to show.
    QCOMPARE(opened.failure->failure.line(), "SrvJobOpenDB failed. " + noTable);
}

// Moved jobs name their new printer in their text and keep their places in
// the queue, in the list and in tbJob alike.
void TestDatabase::moveKeepsPlaces()
{
    for (const auto& [printer, caption] : {std::pair{1, "a"}, {1, "b"}, {2, "c"}, {1, "d"}})
        QVERIFY(add(printer, caption));
    QVERIFY(store->moveJobs({4, 1}, 2));
    const auto row = [](int id, int printer, const char* caption) {
        return QStringLiteral("%1|%2|").arg(id).arg(printer) + JobText(printer, 1, "1", "KASSA1", QString(), caption);
    };
    QCOMPARE(JobRows(mdb()), (QStringList{row(1, 2, "a"), row(2, 1, "b"), row(3, 2, "c"), row(4, 2, "d")}));
    QCOMPARE(listIds(store->jobList()), (QList<int>{1, 2, 3, 4}));
    QCOMPARE(store->SrvNextJobId(1), 2);
    QCOMPARE(store->nextJob(2)->text, JobText(2, 1, "1", "KASSA1", QString(), "a"));
    // Printed on its new printer, the rest of that printer's queue follows in order.
    store->SrvDeleteJob(1);
    QCOMPARE(store->SrvNextJobId(2), 3);
    QCOMPARE(home->logMessages(), QStringList());
}

void TestDatabase::moveFailsWhole()
{
    for (int i = 1; i <= 3; ++i)
        QVERIFY(add(1, QStringLiteral("c%1").arg(i)));
    const QStringList before = JobRows(mdb());
    Database other;
    HoldWriteLock(other, mdb());
    QVERIFY(!store->moveJobs({1, 3}, 2));
    other.rollback();
    QCOMPARE(JobRows(mdb()), before);
    QCOMPARE(store->SrvNextJobId(2), 0);
    const QString locked = OnPostgres() ? " Error: 5 canceling statement due to lock timeout (55P03)"
                                        : " Error: 5 database is locked";
    QCOMPARE(home->logMessages(),
             (QStringList{"SrvMoveJob failed. JId = 1" + locked, "SrvMoveJob failed. JId = 3" + locked}));
}

// A printed job and a cancelled one leave tbJob into the history, each with
// its printer, text and how it ended; newest first.
void TestDatabase::historyOfFinishedJobs()
{
    QVERIFY(add(1, "printed"));
    QVERIFY(add(2, "cancelled"));
    QVERIFY(add(2, "stays"));
    const QDateTime before = QDateTime::currentDateTimeUtc().addSecs(-1);
    store->SrvDeleteJob(1);
    QVERIFY(store->cancelJob(2));
    QCOMPARE(tableIds(mdb()), QList<int>{3});
    const DbResult<std::vector<HistoryEntry>> h = store->history(10);
    QCOMPARE(h.value.size(), size_t(2));
    const auto described = [](const HistoryEntry& e) {
        return QStringLiteral("%1 job %2 printer %3 %4 %5").arg(e.id).arg(e.jobId).arg(e.printerId).arg(e.outcome, e.text);
    };
    QCOMPARE(described(h.value[0]), "2 job 2 printer 2 cancelled " + JobText(2, 1, "1", "KASSA1", QString(), "cancelled"));
    QCOMPARE(described(h.value[1]), "1 job 1 printer 1 printed " + JobText(1, 1, "1", "KASSA1", QString(), "printed"));
    QVERIFY(h.value[0].finished >= before && h.value[0].finished <= QDateTime::currentDateTimeUtc());
    QCOMPARE(described(store->historyEntry(1).value), described(h.value[1]));
    QCOMPARE(store->historyEntry(7).value.id, 0);
}

// At most so many entries and none older than so many days, as each commit leaves them.
void TestDatabase::historyBounds()
{
    const QString old = QDateTime::currentDateTimeUtc().addDays(-40).toString("yyyy-MM-ddTHH:mm:ss.zzzZ");
    for (int i = 1; i <= 2; ++i)
        QVERIFY(ExecSql(mdb(), {QStringLiteral("INSERT INTO tbJobHistory (Id, JobId, PrinterId, Finished, Outcome, Job) "
                                               "VALUES (%1, %1, 1, '%2', 'printed', 'x')")
                                    .arg(i)
                                    .arg(old)}));
    // Printed jobs, one commit each; the history ids then kept, newest first.
    const auto print = [&](int jobs) {
        for (int i = 0; i < jobs; ++i) {
            add(1, "c");
            store->SrvDeleteJob(store->SrvNextJobId(1));
            store->sync();
        }
        QList<int> ids;
        for (const HistoryEntry& e : store->history(100).value)
            ids << e.id;
        return ids;
    };
    store->setHistoryLimits(10, 60);
    QCOMPARE(print(1), (QList<int>{3, 2, 1}));
    store->setHistoryLimits(3, 30);
    QCOMPARE(print(1), (QList<int>{4, 3}));
    QCOMPARE(print(2), (QList<int>{6, 5, 4}));
}

void TestDatabase::keptStatements()
{
    const auto count = [&] {
        int n = -1;
        db().run("SELECT COUNT(*) FROM tbJob", {}, [&](QSqlQuery& q) { n = q.next() ? q.value(0).toInt() : -1; });
        return n;
    };
    QVERIFY(ExecSql(mdb(), {"INSERT INTO tbJob (Id, PrinterId, Job) VALUES (1, 1, 'x')"}));
    const QString ids = "SELECT Id FROM tbJob ORDER BY Id";
    db().run("PRAGMA journal_mode", {}, [](QSqlQuery& q) { QVERIFY(q.next() && q.value(0).toString() == "wal"); });
    db().run("PRAGMA synchronous", {}, [](QSqlQuery& q) { QVERIFY(q.next() && q.value(0).toInt() == 2); });

    // A kept statement ends its read even when not all its rows were read: another
    // writer's row is seen by the next statement.
    QVERIFY(ExecSql(mdb(), {"INSERT INTO tbJob (Id, PrinterId, Job) VALUES (2, 1, 'x')"}));
    db().run(ids, {}, [](QSqlQuery& q) { QVERIFY(q.next()); });
    QVERIFY(ExecSql(mdb(), {"INSERT INTO tbJob (Id, PrinterId, Job) VALUES (5, 1, 'x')"}));
    QCOMPARE(count(), 3);

    // The same text run again while it is still running: each has its own rows.
    int outer = 0, inner = 0;
    db().run(ids, {}, [&](QSqlQuery& q) {
        while (q.next()) {
            ++outer;
            db().run(ids, {}, [&](QSqlQuery& q2) {
                while (q2.next())
                    ++inner;
            });
        }
    });
    QCOMPARE(outer, 3);
    QCOMPARE(inner, 9);

    // A failed statement holds no lock, and the same text works with other values.
    const QString insert = "INSERT INTO tbJob (Id, PrinterId, Job) VALUES (?, 1, 'y')";
    const auto failed = Trap([&] { db().exec(insert, {1}); });
    QVERIFY(failed && QList<int>({19, 1555}).contains(failed->number));
    QVERIFY(ExecSql(mdb(), {"INSERT INTO tbJob (Id, PrinterId, Job) VALUES (3, 1, 'z')"}));
    QCOMPARE(db().exec(insert, {4}), 1);
    QCOMPARE(count(), 5);
}

void TestDatabase::printerRows()
{
    PrinterRepository printers(db());
    PrinterRow row;
    row.id = 3;
    row.name = "Kassa";
    row.connectionUsed = 2;
    row.connection[1] = "10.0.0.5#23";
    row.netConnectOnly = 1;
    QVERIFY(!printers.insert(row));
    // Columns come back into their own fields; those the row leaves Null stay
    // Null; CurrentTemplateId gets its default.
    const auto found = printers.find(3);
    QVERIFY(found.ok() && found.value);
    QCOMPARE(found.value->connectionField(2).toString(), "10.0.0.5#23");
    QCOMPARE(found.value->netConnectOnly.toInt(), 1);
    QVERIFY(found.value->connectionField(1).isNull() && found.value->strobe.isNull());
    QCOMPARE(found.value->currentTemplateId.toInt(), 0);
    QVERIFY(!printers.find(4).value);

    // The same Id again is the engine's constraint error; an update of a row that
    // is not there is "No current record.".
    const auto again = printers.insert(row);
    QVERIFY(again && QList<int>({19, 1555}).contains(again->number));
    row.id = 4;
    QCOMPARE(printers.update(row).value_or(Error(0, {})).text(), "3021 No current record.");
    row.id = 3;
    row.name = "Lager";
    QVERIFY(!printers.update(row));
    QCOMPARE(printers.all().value.value(0).name.toString(), "Lager");

    // A printer that is not there deletes without error; the start-up's check of
    // an unreadable table hands the failure up, with the operation's name.
    QVERIFY(!printers.remove(9));
    QVERIFY(!printers.remove(3));
    QVERIFY(printers.all().value.isEmpty());
    QVERIFY(ExecSql(mdb(), {"DROP TABLE tbPrinter"}));
    const OpenResult opened = jdb->SrvPrinterOpenDB();
    QVERIFY(!opened);
    QCOMPARE(opened.failure->kind, DatabaseFailure::Kind::Unreadable);
    QCOMPARE(opened.failure->failure.line(), "SrvPrinterOpenDB failed. Error: 1 no such table: tbPrinter");
}

void TestDatabase::currentTemplate()
{
    QVERIFY(ExecSql(mdb(), {"INSERT INTO tbPrinter (Id, Name) VALUES (1, 'a'), (2, 'b')",
                            "UPDATE tbPrinter SET CurrentTemplateId = NULL WHERE Id = 2"}));
    PrinterRepository printers(db());
    QCOMPARE(printers.currentTemplate(2).value, 0); // Null reads 0
    QVERIFY(!printers.setCurrentTemplate(1, 7) && !printers.setCurrentTemplate(2, 7));
    QVERIFY(!printers.setCurrentTemplate(5, 7)); // no row: nothing changes
    QCOMPARE(printers.currentTemplate(1).value, 7);
    QCOMPARE(printers.currentTemplate(5).value, 0);
    QVERIFY(!printers.setCurrentTemplate(2, 8));
    QVERIFY(!printers.clearCurrentTemplate(7));
    QCOMPARE(printers.currentTemplate(1).value, 0);
    QCOMPARE(printers.currentTemplate(2).value, 8);
}

void TestDatabase::templateLookup()
{
    QVERIFY(jdb->SrvTemplateTypeOpenDB());
    QVERIFY(jdb->SrvTemplateInDB(1));
    QVERIFY(!jdb->SrvTemplateInDB(3));
    // Another program adds templates after start-up: one with its type, one without.
    QVERIFY(ExecSql(mdb(), {"INSERT INTO tbTemplate (Id, TemplateTypeId) VALUES (3, 1), (4, 7)"}));
    QVERIFY(jdb->SrvTemplateInDB(3)); // the miss read the ids again
    QVERIFY(!jdb->SrvTemplateInDB(4)); // no type row: never found
    QVERIFY(ExecSql(mdb(), {"INSERT INTO tbTemplateType (Id) VALUES (7)"}));
    QVERIFY(jdb->SrvTemplateInDB(4));
    // One deleted since is still known until a miss reads them again.
    QVERIFY(ExecSql(mdb(), {"DELETE FROM tbTemplate WHERE Id = 1"}));
    QVERIFY(jdb->SrvTemplateInDB(1));
    QVERIFY(!jdb->SrvTemplateInDB(99));
    QVERIFY(!jdb->SrvTemplateInDB(1));

    // Unreadable: the re-read logs and the template is not found; the start-up's
    // read also hands its failure up.
    QVERIFY(ExecSql(mdb(), {"DROP TABLE tbTemplateType"}));
    QVERIFY(!jdb->SrvTemplateInDB(98));
    const OpenResult opened = jdb->SrvTemplateTypeOpenDB();
    QVERIFY(!opened);
    const QString failed = " failed. Error: 1 no such table: tbTemplateType";
    QCOMPARE(home->logMessages(), (QStringList{"SrvTemplateTypeReOpenDB" + failed, "SrvTemplateTypeOpenDB" + failed}));
    QCOMPARE(opened.failure->failure.line(), "SrvTemplateTypeOpenDB" + failed);
}

void TestDatabase::outcomes_data()
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

void TestDatabase::outcomes()
{
    QFETCH(QStringList, faults);
    QFETCH(bool, opened);
    QFETCH(QStringList, lines);
    QFETCH(QString, disk);
    QVERIFY(storeJobs(home->path(), 10));
    const QString mdb = home->file("brixa.mdb");
    for (const QString& fault : faults) {
        if (fault.startsWith('-'))
            QVERIFY(QFile::remove(home->file(fault.mid(1))));
        else if (fault.endsWith('/'))
            QVERIFY(QDir(home->path()).mkpath(fault + "keep"));
        else {
            QFile file(home->file(fault.section('=', 0, 0)));
            QVERIFY(file.open(QIODevice::WriteOnly) && file.write(fault.section('=', 1).toLatin1()) > 0);
            // As an installer writes it, whatever the umask of this run.
            QVERIFY(file.setPermissions(QFile::ReadOwner | QFile::WriteOwner | QFile::ReadGroup | QFile::ReadOther));
        }
    }
    const QByteArray before = ReadFile(mdb);
    QCOMPARE(startAndList(), opened ? expectedRows(10) : QStringList{"not opened"});
    const QStringList log = home->logMessages();
    QCOMPARE(log.size(), lines.size());
    for (int i = 0; i < lines.size(); ++i)
        QVERIFY2(log[i].startsWith(lines[i]), qPrintable(log[i]));
    const QStringList states{state(mdb, before), state(home->file("brixa_backup.mdb")),
                             state(home->file("brixa_compact.mdb"))};
    QCOMPARE(states.join(", "), disk);
    QVERIFY(!QFileInfo(home->file("brixa_restore.tmp")).isFile());
}

void TestDatabase::crashAfterEveryStep_data()
{
    QTest::addColumn<QString>("step");
    // Jobs still only in the -wal beside a stale compacted copy; the copy become
    // brixa.mdb, the -wal gone, the copy still beside it.
    for (const char* s : {"compact2", "compact4"})
        QTest::newRow(s) << QString::fromLatin1(s);
}

// A server that died with half of its jobs only in the -wal, then a start that
// crashes after the step, then a normal start.
void TestDatabase::crashAfterEveryStep()
{
    QFETCH(QString, step);
    const int jobs = 60;
    QVERIFY(storeJobs(home->path(), jobs / 2));
    QCOMPARE(exitCode(*startChild(home->path(), QStringLiteral("wal %1").arg(jobs))), 0);
    QVERIFY(QFileInfo(home->file("brixa.mdb-wal")).size() > 0);
    QCOMPARE(exitCode(*startChild(home->path(), "crash " + step)), 99);

    // The backup is complete before any crash point, and brixa.mdb is there,
    // whole, before the next start touches it.
    for (const QString& file : QStringList{"brixa_backup.mdb", "brixa.mdb"}) {
        QCOMPARE(QueryRows(home->file(file), "PRAGMA integrity_check"), QStringList{"ok"});
        QCOMPARE(JobRows(home->file(file)).size(), jobs);
    }
    QCOMPARE(startAndList(), expectedRows(jobs));
    QCOMPARE(QueryRows(home->file("brixa.mdb"), "PRAGMA integrity_check"), QStringList{"ok"});
    QVERIFY(!QFileInfo::exists(home->file("brixa_compact.mdb")) && !QFileInfo::exists(home->file("brixa_restore.tmp")));
    QCOMPARE(home->logMessages().filter("Warning"), QStringList());
}

// Another program with the database open during the start: the file it has open
// stays the database, so what it writes afterwards is there for the server.
void TestDatabase::openElsewhereIsNotReplaced()
{
    QVERIFY(storeJobs(home->path(), 10));
    const auto other = startChild(home->path(), "hold");
    QVERIFY(other->waitForReadyRead(20000));
    QCOMPARE(other->readLine(), QByteArray("open\n"));
    QCOMPARE(startAndList(), expectedRows(10));
    QCOMPARE(home->logMessages(), QStringList{"Warning SrvOpenDatabases Compact database Step 3 - Failed to delete "
                                             "brixa.mdb. Error: " + QString::number(EBUSY) + ' '
                                             + QString::fromLocal8Bit(std::strerror(EBUSY))});
    other->closeWriteChannel();
    QCOMPARE(exitCode(*other), 0);
    QCOMPARE(JobRows(home->file("brixa.mdb")).size(), 11);
}

// A job another program commits while the start compacts: the compacted copy,
// which lacks it, does not replace the database.
void TestDatabase::commitDuringCompactionIsKept()
{
    QVERIFY(storeJobs(home->path(), 10));
    SetMaintenanceStepHook([](const char* step) {
        if (std::strcmp(step, "compact2") == 0)
            ExecSql(HomePath("brixa.mdb"), {"INSERT INTO tbJob (Id, PrinterId, Job) VALUES (11, 1, '" + job(11) + "')"});
    });
    const QStringList listed = startAndList();
    SetMaintenanceStepHook(nullptr);
    QCOMPARE(listed, expectedRows(11));
    QCOMPARE(home->logMessages().filter("Step 3 - Failed to delete brixa.mdb.").size(), 1);
}

void TestDatabase::damagedPagesAreSalvaged_data()
{
    QTest::addColumn<bool>("pages");
    QTest::newRow("index entries that do not match") << false;
    QTest::newRow("settings page and pages in the middle overwritten") << true;
}

// Every job whose text is still whole in the file comes back (at least 95% of
// them), none that was deleted and none garbled; the settings row comes back
// from the good backup when its page is gone.
void TestDatabase::damagedPagesAreSalvaged()
{
    QFETCH(bool, pages);
    const int jobs = 2000, deleted = 150;
    // Longer texts: the table spans many pages.
    auto text = [](int i) { return job(i) + QStringLiteral(" #%1# ").arg(i) + QString(80, QChar('a' + i % 26)); };
    const QString mdb = home->file("brixa.mdb");
    QVERIFY(storeJobs(home->path(), jobs, text) && ExecSql(mdb, {"UPDATE tbServer SET port = 20123"}));
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
        QVERIFY(f.seek(32));
        const quint32 trunk = qFromBigEndian<quint32>(f.read(4).constData());
        QVERIFY(trunk > 0 && f.seek(qint64(trunk - 1) * pageSize));
        const QByteArray list = f.read(12);
        QVERIFY(qFromBigEndian<quint32>(list.constData() + 4) > 0);
        const quint32 leaf = qFromBigEndian<quint32>(list.constData() + 8);
        QVERIFY(f.seek(qint64(leaf - 1) * pageSize) && f.write(stale) == pageSize);
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

    const QStringList log = home->logMessages();
    QVERIFY2(log.filter(QRegularExpression(QStringLiteral("^Warning SrvOpenDatabases Repair database: tbJob: %1 rows "
                                                          "recovered, \\d+ lost")
                                               .arg(listed.size())))
                     .size() == 1,
             qPrintable(log.join('\n')));
    QCOMPARE(log.filter("rows restored from"),
             pages ? QStringList{"Warning SrvOpenDatabases Repair database: tbServer: 1 rows restored from "
                                 "brixa_backup.mdb"}
                   : QStringList());
    QCOMPARE(QDir(home->path()).entryList({"brixa_damaged-*.mdb"}).size(), 1);
    // The backup of the good start stays, whole and marked kept (so no later
    // start prunes it), and the next start finds the repaired file as it was.
    QCOMPARE(JobRows(home->file("brixa_backup.mdb")).size(), jobs);
    QVERIFY(ReadFile(home->file("brixa_backup.mdb.check")).contains("\nkept: "));
    QCOMPARE(startAndList(), listed);
}

void TestDatabase::backupGenerations()
{
    const int jobs = 300;
    QVERIFY(storeJobs(home->path(), jobs));
    for (int start = 1; start <= 7; ++start) {
        QCOMPARE(startAndList().size(), jobs);
        QVERIFY(storeJobs(home->path(), 0));
    }
    // Seven starts: this one's backup and five of the six before it, each with
    // the record of its check.
    QCOMPARE(JobRows(home->file("brixa_backup.mdb")).size(), jobs);
    QStringList generations = QDir(home->file("backups")).entryList({"brixa_backup-*.mdb"}, QDir::Files);
    QCOMPARE(generations.size(), 5);
    generations << "../brixa_backup.mdb";
    for (const QString& g : generations) {
        const QStringList record = QString::fromUtf8(ReadFile(home->file("backups/" + g + ".check"))).split('\n');
        QCOMPARE(record.value(0), "ok");
        QVERIFY2(record.value(2).contains("tbJob 300"), qPrintable(record.join('|')));
    }
    QCOMPARE(state(home->file("brixa_backup.tmp")), "absent");
    // Backups without the record of a passed check (left by hand) go first:
    // the newest that passed stays, however old, and so does one a repair followed.
    QDir backups(home->file("backups"));
    const QStringList before = backups.entryList({"brixa_backup-*.mdb"}, QDir::Files, QDir::Name);
    for (const QString& g : before.mid(1))
        QVERIFY(backups.remove(g + ".check"));
    QVERIFY(QFile::remove(home->file("brixa_backup.mdb.check")));
    QFile record(backups.filePath(before[1] + ".check"));
    QVERIFY(record.open(QIODevice::WriteOnly) && record.write("damaged\nkept: a repair followed\n") > 0);
    record.close();
    QCOMPARE(startAndList().size(), jobs);
    QVERIFY(backups.exists(before[0]) && backups.exists(before[1]));
    QCOMPARE(backups.entryList({"brixa_backup-*.mdb"}, QDir::Files).size(), 5);

    // A restart loop on a database beyond repair (cut to its first page): every
    // start fails and makes no backup, and the backups stay as they were.
    const QString mdb = home->file("brixa.mdb");
    QVERIFY(QFile::resize(mdb, 4096));
    const QByteArray damaged = ReadFile(mdb);
    const QStringList kept = backups.entryList(QDir::Files, QDir::Name);
    const QByteArray good = ReadFile(home->file("brixa_backup.mdb"));
    for (int start = 0; start < 7; ++start)
        QCOMPARE(startAndList(), QStringList{"not opened"});
    QCOMPARE(home->logMessages().filter("Warning SrvOpenDatabases Repair database failed.").size(), 7);
    QCOMPARE(ReadFile(mdb), damaged);
    QCOMPARE(ReadFile(home->file("brixa_backup.mdb")), good);
    QCOMPARE(backups.entryList(QDir::Files, QDir::Name), kept);
}

void TestDatabase::postgresMaintenance_data()
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
void TestDatabase::postgresMaintenance()
{
    if (!OnPostgres())
        QSKIP("PostgreSQL's maintenance");
    QFETCH(QString, backup);
    QFETCH(QString, logged);
    QVERIFY(storeJobs(home->path(), 3));
    QFile mda(home->file("brixa.mda"));
    QVERIFY(mda.open(QIODevice::Append));
    mda.write(backup.replace("<home>", home->path()).toUtf8() + '\n');
    mda.close();
    QCOMPARE(startAndList().size(), 3);
    const QStringList lines = CurrentLogText().split("\r\n").filter("SrvOpenDatabases");
    QCOMPARE(lines.size(), 3);
    QVERIFY2(lines[0].contains(logged.replace("<home>", home->path())), qPrintable(lines[0]));
    QVERIFY(lines[1].endsWith("SrvOpenDatabases Repair database: PostgreSQL's own (recovery from its write-ahead log)"));
    QVERIFY(lines[2].endsWith("SrvOpenDatabases Compact database: PostgreSQL's own (autovacuum)"));
    const QStringList dumps = QDir(home->file("dumps")).entryList({"brixa-*.dump"}, QDir::Files);
    QCOMPARE(dumps.size(), QTest::currentDataTag() == QByteArray("dump written") ? 1 : 0);
    // pg_restore's custom format, whole: it lists the job table's data.
    if (!dumps.isEmpty()) {
        QProcess list;
        list.start("pg_restore", {"--list", home->file("dumps/" + dumps[0])});
        QVERIFY(list.waitForFinished(30000));
        QVERIFY(list.readAllStandardOutput().contains("TABLE DATA public tbjob"));
    }
}

int main(int argc, char** argv)
{
    QCoreApplication app(argc, argv);
    const QStringList child = qEnvironmentVariable("QUILL_DB_CHILD").split(' ', Qt::SkipEmptyParts);
    if (child.isEmpty()) {
        TestDatabase tc;
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

#include "tst_database.moc"
