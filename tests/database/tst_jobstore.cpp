// The job store (tbJob and the job list), the connection's kept statements and
// the repositories of the small tables: printers and the template lookup.
#include "database/jobdatabase.h"
#include "database/jobstore.h"
#include "database/repositories.h"
#include "support/dbfixture.h"

#include <QAbstractItemModelTester>
#include <QRandomGenerator>
#include <QSignalSpy>
#include <QTest>

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
} // namespace

class TestJobStore : public QObject {
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
        // The repositories' statements and errors: SQLite's only.
        static const QByteArrayList sqliteOnly{"keptStatements", "printerRows", "templateLookup"};
        if (OnPostgres() && sqliteOnly.contains(QTest::currentTestFunction()))
            QSKIP("run on SQLite");
        printerSlots.reset();
        home = std::make_unique<DbHome>();
        QVERIFY(home->ok());
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
    void failuresAreLogged();
    void moveKeepsPlaces();
    void moveFailsWhole();
    void historyOfFinishedJobs();
    void historyBounds_data();
    void historyBounds();
    void keptStatements();
    void printerRows();
    void currentTemplate();
    void templateLookup();
};

void TestJobStore::idsDeletesAndSignals()
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

void TestJobStore::rowColumns_data()
{
    QTest::addColumn<QString>("fields"); // printer;copies;workstation;user;caption
    QTest::addColumn<QString>("shown");
    QTest::newRow("user and workstation") << "2;3;KASSA1;anna;Greenfee" << "1 Greenfee/3/Baren vid sjöns norra s/anna på KASSA1";
    QTest::newRow("empty user: workstation alone") << "2;1;  KASSA1 ;;Tag" << "1 Tag/1/Baren vid sjöns norra s/KASSA1";
    QTest::newRow("printer not in use: unknown") << "4;2;WS;;Addin" << "1 Addin/2/Okänd/WS";
}

void TestJobStore::rowColumns()
{
    QFETCH(QString, fields);
    QFETCH(QString, shown);
    // The name column holds 25 characters: a longer name is cut there.
    printerSlots.setPrinter(2, {.name = FixedText("  Baren vid sjöns norra strand", 25)});
    const QStringList f = fields.split(QLatin1Char(';'));
    QVERIFY(store->SrvAddJob(PrintJob::fromText(JobText(0, 1, f[1], f[2], f[3], f[4]).replace("\tP\t0\t", "\tP\t" + f[0] + "\t"))));
    QCOMPARE(shownRows(store->jobList()), QStringList{shown});
}

void TestJobStore::queueOrderAndRestart()
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

void TestJobStore::writesGatherWhileACommitWaits()
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

void TestJobStore::deleteJobsWhere()
{
    // 40 jobs, ids 1..40, printers 1, 2, 3 in turn, handed over without waiting:
    // the deletion takes them all the same. Runs of one and of many go.
    for (int i = 1; i <= 40; ++i)
        QVERIFY(store->submitJob(PrintJob::fromText(JobText((i - 1) % 3 + 1, 1, "1", "KASSA1", QString(),
                                                            QStringLiteral("c%1").arg(i)))));
    const QList<int> gone{1, 2, 6, 17, 31, 32, 33, 34, 35, 36, 37, 38, 39, 40};
    QList<int> kept;
    for (int id = 1; id <= 40; ++id)
        if (!gone.contains(id))
            kept << id;
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
    QCOMPARE(list.rowAt(list.count() - 1).text, "31 after");
    store->SrvDeleteJob(31);
    QCOMPARE(listIds(list), kept);
    QCOMPARE(home->logMessages(), QStringList());
}

void TestJobStore::failuresAreLogged()
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
void TestJobStore::moveKeepsPlaces()
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

void TestJobStore::moveFailsWhole()
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
void TestJobStore::historyOfFinishedJobs()
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
    // A new job takes the next id of tbJob; the history keeps its own numbers.
    QVERIFY(add(1, "next"));
    store->SrvDeleteJob(4);
    QCOMPARE(store->history(10).value.front().id, 3);
}

void TestJobStore::historyBounds_data()
{
    QTest::addColumn<int>("maxRows");
    QTest::addColumn<int>("maxDays");
    QTest::addColumn<int>("aged");    // entries 40 days old before the jobs print
    QTest::addColumn<int>("printed");
    QTest::addColumn<QList<int>>("kept"); // history ids, newest first
    QTest::newRow("rows bound") << 3 << 30 << 0 << 5 << QList<int>{5, 4, 3};
    QTest::newRow("age bound") << 10 << 30 << 2 << 2 << QList<int>{4, 3};
    QTest::newRow("older entries within the days kept") << 10 << 60 << 2 << 1 << QList<int>{3, 2, 1};
}

void TestJobStore::historyBounds()
{
    QFETCH(int, maxRows);
    QFETCH(int, maxDays);
    QFETCH(int, aged);
    QFETCH(int, printed);
    QFETCH(QList<int>, kept);
    store->setHistoryLimits(maxRows, maxDays);
    const QString old = QDateTime::currentDateTimeUtc().addDays(-40).toString("yyyy-MM-ddTHH:mm:ss.zzzZ");
    for (int i = 1; i <= aged; ++i)
        QVERIFY(ExecSql(mdb(), {QStringLiteral("INSERT INTO tbJobHistory (Id, JobId, PrinterId, Finished, Outcome, Job) "
                                               "VALUES (%1, %1, 1, '%2', 'printed', 'x')")
                                    .arg(i)
                                    .arg(old)}));
    for (int i = 1; i <= printed; ++i) {
        QVERIFY(add(1, QStringLiteral("c%1").arg(i)));
        store->SrvDeleteJob(store->SrvNextJobId(1));
        store->sync(); // one commit each, as printed jobs come
    }
    QList<int> ids;
    for (const HistoryEntry& e : store->history(100).value)
        ids << e.id;
    QCOMPARE(ids, kept);
}

void TestJobStore::keptStatements()
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

void TestJobStore::printerRows()
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

void TestJobStore::currentTemplate()
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

void TestJobStore::templateLookup()
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

QTEST_GUILESS_MAIN(TestJobStore)
#include "tst_jobstore.moc"
