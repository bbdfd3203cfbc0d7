// The job store (tbJob and the job list), the server settings row, the value
// lists of the printer dialog and the start-up loading of the printer table.
#include "database/jobdatabase.h"
#include "database/jobstore.h"
#include "database/lists.h"
#include "database/printerload.h"
#include "foundation/strutil.h"
#include "shell/texts.h"
#include "support/dbfixture.h"

#include <QRandomGenerator>
#include <QSignalSpy>
#include <QTest>

using namespace quill;
using namespace quill::dbtest;

namespace {

// The queue rule as the list states it: first row, in list order, whose printer tag matches.
qint32 linearNextJob(const JobListModel& list, qint32 printerId)
{
    for (int r = 0; r < list.rowCount(); ++r)
        if (list.data(list.index(r, JobListModel::ColPrinter), JobListModel::TagRole).toString()
            == QString::number(printerId))
            return NullToLong(list.data(list.index(r, JobListModel::ColJob), JobListModel::TagRole), 0);
    return 0;
}

// Every column of every row, in the given role, "/"-joined per row.
QStringList shownRows(const JobListModel& list, int role = Qt::DisplayRole)
{
    QStringList out;
    for (int r = 0; r < list.rowCount(); ++r) {
        QStringList cols;
        for (int c = 0; c < list.columnCount(); ++c)
            cols << list.data(list.index(r, c), role).toString();
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
    QString mdb() const { return home->file(QStringLiteral("brixa.mdb")); }

    // A start of the server's database side: maintenance, recordsets, list from tbJob.
    void start()
    {
        store.reset();
        jdb = std::make_unique<JobDatabase>();
        QVERIFY(jdb->SrvOpenDatabases());
        QVERIFY(jdb->SrvPrinterOpenDB());
        QVERIFY(jdb->SrvTemplateTypeOpenDB());
        QVERIFY(jdb->SrvJobOpenDB());
        store = std::make_unique<JobStore>(*jdb, printerSlots);
        store->SrvInitAllJobs();
    }
    void useSlot(qint32 id, const QString& name)
    {
        printerSlots.at(id).inUse = true;
        printerSlots.at(id).name = FixedText(name, 25);
    }
    bool add(int printer, const QString& caption, const QString& ws = QStringLiteral("KASSA1"))
    {
        return store->SrvAddJob(JobText(printer, 1, QStringLiteral("1"), ws, QString(), caption));
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
    void idsAndDeletes();
    void rowColumns_data();
    void rowColumns();
    void queueOrderAndRestart();
    void batchCommitsTogether();
    void failuresAreLogged();
    void modelSignals();
    void serverSettings();
    void printerTypeList();
    void printerLoading();
};

void TestJobStore::idsAndDeletes()
{
    for (int i = 1; i <= 7; ++i)
        QVERIFY(add(1, QStringLiteral("c%1").arg(i)));
    QCOMPARE(store->jobList().rowAt(0).id, 1);
    store->SrvDeleteJob(7);
    store->SrvDeleteJob(99); // in neither table nor list: nothing happens
    QVERIFY(add(1, QStringLiteral("again")));
    QCOMPARE(store->jobList().rowAt(6).text, QStringLiteral("7 again"));
    // The stored text is the request exactly as received.
    QCOMPARE(JobRows(mdb()).last(),
             "7|1|" + JobText(1, 1, QStringLiteral("1"), QStringLiteral("KASSA1"), QString(), QStringLiteral("again")));
    // Emptying the table leaves it usable, and none of this is an error.
    for (int id = 1; id <= 7; ++id)
        store->SrvDeleteJob(id);
    QCOMPARE(JobRows(mdb()), QStringList());
    QCOMPARE(store->jobList().count(), 0);
    QVERIFY(add(1, QStringLiteral("c")));
    QCOMPARE(store->jobList().rowAt(0).text, QStringLiteral("1 c"));
    QCOMPARE(home->logMessages(), QStringList());
}

void TestJobStore::rowColumns_data()
{
    QTest::addColumn<QString>("fields"); // printer;copies;workstation;user;caption
    QTest::addColumn<QString>("display");
    QTest::addColumn<QString>("tags");
    QTest::addColumn<QString>("keys");
    QTest::newRow("user and workstation") << "2;3;KASSA1;anna;Greenfee" << "1 Greenfee/3/Bar/anna på KASSA1"
                                          << "1/1/2/KASSA1|anna" << "J1/S1/P2/UW|KASSA1|anna";
    QTest::newRow("empty user: workstation alone") << "2;1;  KASSA1 ;;Tag" << "1 Tag/1/Bar/KASSA1" << "1/1/2/KASSA1|"
                                                   << "J1/S1/P2/UW|KASSA1|";
    QTest::newRow("printer not in use: unknown") << "4;2;WS;;Addin" << "1 Addin/2/Okänd/WS" << "1/1/4/WS|"
                                                 << "J1/S1/P4/UW|WS|";
    QTest::newRow("copies not a number, no caption") << "2;x;WS;;" << "1 /1/Bar/WS" << "1/1/2/WS|" << "J1/S1/P2/UW|WS|";
    QTest::newRow("no printer field") << ";1;WS;u;c" << "1 c/1/Okänd/u på WS" << "1/1/-1/WS|u" << "J1/S1/P-1/UW|WS|u";
}

void TestJobStore::rowColumns()
{
    QFETCH(QString, fields);
    QFETCH(QString, display);
    QFETCH(QString, tags);
    QFETCH(QString, keys);
    useSlot(2, QStringLiteral("  Bar"));
    const QStringList f = fields.split(QLatin1Char(';'));
    QVERIFY(store->SrvAddJob(JobText(0, 1, f[1], f[2], f[3], f[4]).replace("\tP\t0\t", "\tP\t" + f[0] + "\t")));
    for (int pass = 0; pass < 2; ++pass) { // as stored, and as rebuilt after a restart
        QCOMPARE(shownRows(store->jobList()), QStringList{display});
        QCOMPARE(shownRows(store->jobList(), JobListModel::TagRole), QStringList{tags});
        QCOMPARE(shownRows(store->jobList(), JobListModel::KeyRole), QStringList{keys});
        start();
    }
}

void TestJobStore::queueOrderAndRestart()
{
    useSlot(1, QStringLiteral("One"));
    useSlot(2, QStringLiteral("Two"));
    QVERIFY(add(2, QStringLiteral("a")));
    QVERIFY(add(1, QStringLiteral("b")));
    QVERIFY(add(2, QStringLiteral("c")));
    QCOMPARE(store->SrvNextJobId(2), 1);
    QCOMPARE(store->SrvNextJobId(1), 2);
    QCOMPARE(store->SrvNextJobId(3), 0);

    // Random adds and both ways of deleting, always against the linear walk.
    QRandomGenerator rng(4711);
    JobListModel& list = store->jobList();
    for (int step = 0; step < 400; ++step) {
        const int op = int(rng.bounded(10));
        if (op < 6 || list.count() == 0) {
            QVERIFY(add(int(rng.bounded(1, 6)), QStringLiteral("s%1").arg(step)));
        } else if (op < 8) {
            store->SrvDeleteJob(list.rowAt(int(rng.bounded(list.count()))).id);
        } else {
            // The way the sender filter removes rows: delete in the table, drop the row by position.
            const int row = int(rng.bounded(list.count()));
            store->SrvDBDeleteJob(list.rowAt(row).id);
            list.removeRowAt(row);
        }
        for (qint32 p = 0; p <= 6; ++p)
            QCOMPARE(store->SrvNextJobId(p), linearNextJob(list, p));
    }
    // A restart rebuilds the same queue from the table.
    const QStringList before = shownRows(list);
    QCOMPARE(JobRows(mdb()).size(), before.size());
    start();
    QCOMPARE(shownRows(store->jobList()), before);
    for (qint32 p = 0; p <= 6; ++p)
        QCOMPARE(store->SrvNextJobId(p), linearNextJob(store->jobList(), p));
}

void TestJobStore::batchCommitsTogether()
{
    QVERIFY(add(1, QStringLiteral("single")));
    QVERIFY(store->beginBatch());
    QVERIFY(!store->beginBatch());
    QVERIFY(add(1, QStringLiteral("a")));
    QVERIFY(add(2, QStringLiteral("b")));
    store->SrvDeleteJob(1);
    QVERIFY(add(1, QStringLiteral("c")));
    // Ids count the batch's own rows; other readers see none of it yet.
    QCOMPARE(store->jobList().rowAt(2).text, QStringLiteral("4 c"));
    QCOMPARE(JobRows(mdb()).size(), 1);
    QVERIFY(store->commitBatch());
    QVERIFY(!store->inBatch());
    const QStringList rows = JobRows(mdb());
    QCOMPARE(rows.size(), 3);
    QVERIFY(rows[0].startsWith(QLatin1String("2|1|")));
    QVERIFY(rows[2].startsWith(QLatin1String("4|1|")));
    // Outside a batch each job commits on its own again.
    QVERIFY(add(2, QStringLiteral("d")));
    QCOMPARE(JobRows(mdb()).size(), 4);
    QVERIFY(!store->commitBatch());
}

void TestJobStore::failuresAreLogged()
{
    QVERIFY(add(1, QStringLiteral("a")));
    QVERIFY(ExecSql(mdb(), {QStringLiteral("DROP TABLE tbJob")}));
    QVERIFY(!add(1, QStringLiteral("b")));
    QCOMPARE(store->jobList().count(), 1);
    store->SrvDBDeleteJob(1);
    RecordingSink sink;
    QVERIFY(!jdb->SrvJobOpenDB());
    store->SrvInitAllJobs();
    const QString noTable = QStringLiteral("Error: 1 no such table: tbJob");
    QCOMPARE(home->logMessages(),
             (QStringList{"SrvAddJob failed. JId = 0 " + noTable, "SrvDBDeleteJob failed. JId = 1 " + noTable,
                          "SrvJobOpenDB failed. " + noTable,
                          "SrvInitAllJobs failed. Error: 91 Object variable or With block variable not set"}));
    // Only the open operation shows a box.
    QCOMPARE(sink.boxes.size(), 1);
    QCOMPARE(sink.boxes[0].text, "SrvJobOpenDB failed. " + noTable + "\n" + GetString(12029, GetString(9003)));
}

void TestJobStore::modelSignals()
{
    JobListModel& list = store->jobList();
    QCOMPARE(list.headerData(0, Qt::Horizontal).toString(), GetString(12045));
    QSignalSpy inserted(&list, &QAbstractItemModel::rowsInserted);
    QSignalSpy removed(&list, &QAbstractItemModel::rowsRemoved);
    QSignalSpy reset(&list, &QAbstractItemModel::modelReset);
    QVERIFY(add(1, QStringLiteral("a")));
    QVERIFY(add(1, QStringLiteral("b")));
    QCOMPARE(inserted.size(), 2);
    QCOMPARE(inserted[1][1].toInt(), 1);
    store->SrvDeleteJob(1);
    QCOMPARE(removed.size(), 1);
    QCOMPARE(removed[0][1].toInt(), 0);
    store->SrvInitAllJobs(); // the rebuild is one reset, not a row per job
    QCOMPARE(reset.size(), 1);
    QCOMPARE(inserted.size(), 2);
    QCOMPARE(list.data(list.index(0, 0), JobListModel::JobIdRole).toInt(), 2);
}

void TestJobStore::serverSettings()
{
    QCOMPARE(jdb->SrvGetServerPort(), 20001);
    QVERIFY(ExecSql(mdb(), {QStringLiteral("UPDATE tbServer SET port = NULL, AutoStartService = 2, StartMinimized = 1")}));
    QCOMPARE(jdb->SrvGetServerPort(), 20001);
    jdb->SrvInitServerSettings();
    QCOMPARE(jdb->autoStartService(), 1);
    QCOMPARE(jdb->startMinimized(), 1);

    jdb->SrvMainSaveSettings(0, 1);
    QCOMPARE(jdb->autoStartService(), 0);
    jdb->SrvMainSaveTCPSettings(QStringLiteral("127.0.0.1"), 20555, QStringLiteral("golfhost"));
    QCOMPARE(jdb->SrvGetServerPort(), 20555);
    Snapshot row(jdb->database(), QStringLiteral("SELECT IP || '|' || HostName || '|' || AutoStartService || '|' || "
                                                 "StartMinimized AS r FROM tbServer"));
    QCOMPARE(row.field(QStringLiteral("r")).toString(), QStringLiteral("127.0.0.1|golfhost|0|1"));
    jdb->SrvMainSaveTCPSettings(QStringLiteral("::1"), 20001);
    Snapshot again(jdb->database(), QStringLiteral("SELECT HostName FROM tbServer"));
    QCOMPARE(again.field(QStringLiteral("HostName")).toString(), ComputerName());
    QCOMPARE(home->logMessages(), QStringList());

    // Without its row: every operation logs, the switches stay as they were.
    QVERIFY(ExecSql(mdb(), {QStringLiteral("DELETE FROM tbServer")}));
    QCOMPARE(jdb->SrvGetServerPort(), 0);
    jdb->SrvInitServerSettings();
    QCOMPARE(jdb->startMinimized(), 1);
    jdb->SrvMainSaveSettings(1, 1);
    jdb->SrvMainSaveTCPSettings(QStringLiteral("127.0.0.1"), 1, QStringLiteral("h"));
    const QString noRow = QStringLiteral(" failed. Error: 3021 No current record.");
    QCOMPARE(home->logMessages(), (QStringList{"SrvGetServerPort" + noRow, "SrvInitServerSettings" + noRow,
                                               "SrvMainSaveSettings" + noRow, "SrvMainSaveTCPSettings" + noRow}));
    QCOMPARE(Snapshot(jdb->database(), QStringLiteral("SELECT * FROM tbServer")).RecordCount(), 0);
}

void TestJobStore::printerTypeList()
{
    ValueList types;
    SrvPrinterFillPrinterType(*jdb, types);
    QCOMPARE(types.entries.size(), 9);
    QCOMPARE(types.entries[types.selected].itemData, 1);
    // Type 1 is selected wherever it lands in name order; a Null name shows empty.
    QVERIFY(ExecSql(mdb(), {QStringLiteral("UPDATE tbPrinterType SET Name = 'ZZ last' WHERE Id = 1"),
                            QStringLiteral("UPDATE tbPrinterType SET Name = NULL WHERE Id = 4")}));
    SrvPrinterFillPrinterType(*jdb, types);
    QCOMPARE(types.entries.first(), (ValueList::Entry{QString(), 4}));
    QCOMPARE(types.selected, 8);
    QVERIFY(ExecSql(mdb(), {QStringLiteral("DELETE FROM tbPrinterType WHERE Id = 1")}));
    SrvPrinterFillPrinterType(*jdb, types);
    QCOMPARE(types.selected, 0);
    QVERIFY(ExecSql(mdb(), {QStringLiteral("DELETE FROM tbPrinterType")}));
    SrvPrinterFillPrinterType(*jdb, types);
    QVERIFY(types.entries.isEmpty());
    QCOMPARE(types.selected, -1);
    QVERIFY(ExecSql(mdb(), {QStringLiteral("DROP TABLE tbPrinterType")}));
    SrvPrinterFillPrinterType(*jdb, types);
    QCOMPARE(home->logMessages(),
             QStringList{"SrvPrinterFillPrinterType failed. Error: 1 no such table: tbPrinterType"});
}

void TestJobStore::printerLoading()
{
    QVERIFY(ExecSql(mdb(), {
        QStringLiteral("INSERT INTO tbPrinter (Id, Name, PrinterTypeId, ConnectionUsed, Connection1, Connection2, Passive) "
                       "VALUES (2, ' Kassa ', 1, 1, 'COM2:#9600', NULL, 0), "
                       "(1, 'Shop', 2, 2, 'COM1:#9600', '10.0.0.5#23', 1)"),
    }));
    printerSlots.at(4).inUse = true; // a slot whose printer is gone stays as it was
    QCOMPARE(MainAddAndInitAllPrinters(*jdb, printerSlots), (QVector<qint32>{1, 2}));
    // Each slot gets its printer's record and Ready, or Passive.
    QCOMPARE(printerSlots.at(2).connectionString.trimmed(), QStringLiteral("COM2:#9600"));
    QCOMPARE(printerSlots.at(2).status, qint32(StatusReady));
    QCOMPARE(printerSlots.at(2).statusText.trimmed(), GetString(12051));
    QVERIFY(printerSlots.at(1).passive);
    QCOMPARE(printerSlots.at(1).status, qint32(StatusPassive));
    QCOMPARE(printerSlots.at(1).statusText.trimmed(), GetString(12052));
    QVERIFY(printerSlots.at(4).inUse);
    QVERIFY(!printerSlots.SrvPrinterExists(3));

    // An Id outside the slot table reaches the caller as an error.
    QVERIFY(ExecSql(mdb(), {QStringLiteral("INSERT INTO tbPrinter (Id, Name) VALUES (9, 'Bad')")}));
    QVERIFY_THROWS_EXCEPTION(Error, MainAddAndInitAllPrinters(*jdb, printerSlots));
}

QTEST_GUILESS_MAIN(TestJobStore)
#include "tst_jobstore.moc"
