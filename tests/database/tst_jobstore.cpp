// The job store (tbJob and the job list), the server settings row and the
// printer-type list of the printer dialog.
#include "database/jobdatabase.h"
#include "database/jobstore.h"
#include "database/lists.h"
#include "foundation/texts.h"
#include "support/dbfixture.h"

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

// Every shown column of every row, "/"-joined per row.
QStringList shownRows(const JobListModel& list)
{
    QStringList out;
    for (int r = 0; r < list.rowCount(); ++r) {
        QStringList cols;
        for (int c = 0; c < list.columnCount(); ++c)
            cols << list.data(list.index(r, c)).toString();
        out << cols.join(QLatin1Char('/'));
    }
    return out;
}

} // namespace

class TestJobStore : public QObject {
    Q_OBJECT
    std::unique_ptr<DbHome> home;
    std::unique_ptr<JobDatabase> jdb;
    std::unique_ptr<JobStore> store;
    PrinterSlots printerSlots;
    QString mdb() const { return home->file("brixa.mdb"); }

    // The database side of a server start: maintenance, recordsets, list from tbJob.
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
        return store->SrvAddJob(JobText(printer, 1, "1", "KASSA1", QString(), caption));
    }
private slots:
    void init()
    {
        SetSilentMode(false);
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
    void batchCommitsTogether();
    void failuresAreLogged();
    void serverSettings();
    void printerTypeList();
};

void TestJobStore::idsDeletesAndSignals()
{
    JobListModel& list = store->jobList();
    QSignalSpy inserted(&list, &QAbstractItemModel::rowsInserted);
    QSignalSpy removed(&list, &QAbstractItemModel::rowsRemoved);
    QSignalSpy reset(&list, &QAbstractItemModel::modelReset);
    for (int i = 1; i <= 7; ++i)
        QVERIFY(add(1, QStringLiteral("c%1").arg(i)));
    QCOMPARE(inserted.size(), 7);
    QCOMPARE(inserted[6][1].toInt(), 6);
    store->SrvDeleteJob(7);
    store->SrvDeleteJob(99); // in neither table nor list: nothing happens
    QCOMPARE(removed.size(), 1);
    QCOMPARE(removed[0][1].toInt(), 6);
    QVERIFY(add(1, "again"));
    QCOMPARE(list.rowAt(6).text, "7 again");
    // Emptying the table leaves it usable, and none of this is an error.
    for (int id = 1; id <= 7; ++id)
        store->SrvDeleteJob(id);
    QCOMPARE(JobRows(mdb()), QStringList());
    QVERIFY(add(1, "c"));
    QCOMPARE(shownRows(list), QStringList{"1 c/1/Okänd/KASSA1"});
    store->SrvInitAllJobs(); // the rebuild is one reset, not a row per job
    QCOMPARE(reset.size(), 1);
    QCOMPARE(inserted.size(), 9);
    QCOMPARE(home->logMessages(), QStringList());
}

void TestJobStore::rowColumns_data()
{
    QTest::addColumn<QString>("fields"); // printer;copies;workstation;user;caption
    QTest::addColumn<QString>("shown");
    QTest::newRow("user and workstation") << "2;3;KASSA1;anna;Greenfee" << "1 Greenfee/3/Bar/anna på KASSA1";
    QTest::newRow("empty user: workstation alone") << "2;1;  KASSA1 ;;Tag" << "1 Tag/1/Bar/KASSA1";
    QTest::newRow("printer not in use: unknown") << "4;2;WS;;Addin" << "1 Addin/2/Okänd/WS";
    QTest::newRow("copies not a number, no caption") << "2;x;WS;;" << "1 /1/Bar/WS";
    QTest::newRow("no printer field") << ";1;WS;u;c" << "1 c/1/Okänd/u på WS";
}

void TestJobStore::rowColumns()
{
    QFETCH(QString, fields);
    QFETCH(QString, shown);
    printerSlots.setPrinter(2, {.name = FixedText("  Bar", 25)});
    const QStringList f = fields.split(QLatin1Char(';'));
    QVERIFY(store->SrvAddJob(JobText(0, 1, f[1], f[2], f[3], f[4]).replace("\tP\t0\t", "\tP\t" + f[0] + "\t")));
    QCOMPARE(shownRows(store->jobList()), QStringList{shown});
}

void TestJobStore::queueOrderAndRestart()
{
    // Random adds and deletes, always against the linear walk.
    QRandomGenerator rng(4711);
    JobListModel& list = store->jobList();
    for (int step = 0; step < 400; ++step) {
        const int op = int(rng.bounded(10));
        if (op < 6 || list.count() == 0)
            QVERIFY(add(int(rng.bounded(1, 6)), QStringLiteral("s%1").arg(step)));
        else
            store->SrvDeleteJob(list.rowAt(int(rng.bounded(list.count()))).id);
        for (qint32 p = 0; p <= 6; ++p)
            QCOMPARE(store->SrvNextJobId(p), linearNextJob(list, p));
    }
    const QStringList before = shownRows(list);
    QCOMPARE(JobRows(mdb()).size(), before.size());
    start();
    QCOMPARE(shownRows(store->jobList()), before);
    for (qint32 p = 0; p <= 6; ++p)
        QCOMPARE(store->SrvNextJobId(p), linearNextJob(store->jobList(), p));
}

void TestJobStore::batchCommitsTogether()
{
    QVERIFY(add(1, "single"));
    QVERIFY(store->beginBatch());
    QVERIFY(!store->beginBatch());
    QVERIFY(add(1, "a"));
    QVERIFY(add(2, "b"));
    store->SrvDeleteJob(1);
    QVERIFY(add(1, "c"));
    // Ids count the batch's own rows; other readers see none of it yet.
    QCOMPARE(store->jobList().rowAt(2).text, "4 c");
    QCOMPARE(JobRows(mdb()).size(), 1);
    QVERIFY(store->commitBatch());
    const QStringList rows = JobRows(mdb());
    QCOMPARE(rows.size(), 3);
    QVERIFY(rows[0].startsWith("2|1|") && rows[1].startsWith("3|2|") && rows[2].startsWith("4|1|"));
    // Outside a batch each job commits on its own again.
    QVERIFY(add(2, "d"));
    QCOMPARE(JobRows(mdb()).size(), 4);
    QVERIFY(!store->commitBatch());
}

void TestJobStore::failuresAreLogged()
{
    {
        // Another program holds the write lock: no batch begins, and the job that
        // cannot be stored is the one line logged.
        Database other;
        other.open(mdb());
        other.begin();
        QVERIFY(!store->beginBatch());
        QVERIFY(!add(1, "locked"));
        other.rollback();
    }
    QVERIFY(add(1, "a"));
    QVERIFY(ExecSql(mdb(), {"DROP TABLE tbJob"}));
    QVERIFY(!add(1, "b"));
    QCOMPARE(store->jobList().count(), 1);
    store->SrvDBDeleteJob(1);
    RecordingSink sink;
    QVERIFY(!jdb->SrvJobOpenDB());
    store->SrvInitAllJobs();
    const QString noTable = "Error: 1 no such table: tbJob";
    QCOMPARE(home->logMessages(),
             (QStringList{"SrvAddJob failed. JId = 1 Error: 5 database is locked",
                          "SrvAddJob failed. JId = 0 " + noTable, "SrvDBDeleteJob failed. JId = 1 " + noTable,
                          "SrvJobOpenDB failed. " + noTable,
                          "SrvInitAllJobs failed. Error: 91 Object variable or With block variable not set"}));
    // Only the open operation shows a box.
    QCOMPARE(sink.boxes.size(), 1);
    QCOMPARE(sink.boxes[0].text, "SrvJobOpenDB failed. " + noTable + "\n" + GetString(12029, GetString(9003)));
}

void TestJobStore::serverSettings()
{
    QVERIFY(ExecSql(mdb(), {"UPDATE tbServer SET port = NULL, AutoStartService = 2"}));
    QCOMPARE(jdb->SrvGetServerPort(), 20001);
    jdb->SrvInitServerSettings();
    QCOMPARE(jdb->autoStartService(), 1);
    jdb->SrvMainSaveTCPSettings("127.0.0.1", 20555, "golfhost");
    QCOMPARE(jdb->SrvGetServerPort(), 20555);
    QCOMPARE(Snapshot(jdb->database(), "SELECT IP || '|' || HostName AS r FROM tbServer").field("r").toString(),
             "127.0.0.1|golfhost");
    QCOMPARE(home->logMessages(), QStringList());
}

void TestJobStore::printerTypeList()
{
    // Type 1 is selected wherever it lands in name order, or else the first; a Null name shows empty.
    ValueList types;
    QVERIFY(ExecSql(mdb(), {"UPDATE tbPrinterType SET Name = 'ZZ last' WHERE Id = 1",
                            "UPDATE tbPrinterType SET Name = NULL WHERE Id = 4"}));
    SrvPrinterFillPrinterType(*jdb, types);
    QCOMPARE(types.entries.first(), (ValueList::Entry{QString(), 4}));
    QCOMPARE(types.entries.value(types.selected).itemData, 1);
    QCOMPARE(types.selected, types.entries.size() - 1);
    QVERIFY(ExecSql(mdb(), {"DELETE FROM tbPrinterType WHERE Id = 1"}));
    SrvPrinterFillPrinterType(*jdb, types);
    QCOMPARE(types.selected, 0);
}

QTEST_GUILESS_MAIN(TestJobStore)
#include "tst_jobstore.moc"
