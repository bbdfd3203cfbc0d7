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

// Every column of every row as shown.
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
    void idsStartAtOneAndReuseTheHighest();
    void rowColumns_data();
    void rowColumns();
    void nextJobFollowsQueueOrder();
    void deleteUnknownChangesNothing();
    void restartRebuildsSameQueue();
    void batchCommitsTogether();
    void failuresAreLogged();
    void modelSignals();
    void serverSettings();
    void serverSettingsWithoutRow();
    void valueLists();
    void printerLoading();
};

void TestJobStore::idsStartAtOneAndReuseTheHighest()
{
    for (int i = 1; i <= 7; ++i)
        QVERIFY(add(1, QStringLiteral("c%1").arg(i)));
    QCOMPARE(store->jobList().rowAt(0).id, 1);
    store->SrvDeleteJob(7);
    QVERIFY(add(1, QStringLiteral("again")));
    QCOMPARE(store->jobList().rowAt(6).text, QStringLiteral("7 again"));
    // The stored text is the request exactly as received.
    QCOMPARE(JobRows(mdb()).last(),
             "7|1|" + JobText(1, 1, QStringLiteral("1"), QStringLiteral("KASSA1"), QString(), QStringLiteral("again")));
}

void TestJobStore::rowColumns_data()
{
    QTest::addColumn<QString>("printer");
    QTest::addColumn<QString>("copies");
    QTest::addColumn<QString>("workstation");
    QTest::addColumn<QString>("user");
    QTest::addColumn<QString>("caption");
    QTest::addColumn<QStringList>("display"); // the four column texts
    QTest::addColumn<QStringList>("tags");
    QTest::addColumn<QStringList>("keys");
    QTest::newRow("user and workstation")
        << "2" << "3" << "KASSA1" << "anna" << "Greenfee"
        << QStringList{"1 Greenfee", "3", "Bar", "anna på KASSA1"} << QStringList{"1", "1", "2", "KASSA1|anna"}
        << QStringList{"J1", "S1", "P2", "UW|KASSA1|anna"};
    QTest::newRow("empty user: workstation alone")
        << "2" << "1" << "  KASSA1 " << "" << "Tag"
        << QStringList{"1 Tag", "1", "Bar", "KASSA1"} << QStringList{"1", "1", "2", "KASSA1|"}
        << QStringList{"J1", "S1", "P2", "UW|KASSA1|"};
    QTest::newRow("printer not in use: unknown")
        << "4" << "2" << "WS" << "" << "Addin"
        << QStringList{"1 Addin", "2", "Okänd", "WS"} << QStringList{"1", "1", "4", "WS|"}
        << QStringList{"J1", "S1", "P4", "UW|WS|"};
    QTest::newRow("copies not a number: 1, no caption")
        << "2" << "x" << "WS" << "" << ""
        << QStringList{"1 ", "1", "Bar", "WS"} << QStringList{"1", "1", "2", "WS|"}
        << QStringList{"J1", "S1", "P2", "UW|WS|"};
    QTest::newRow("no printer field")
        << "" << "1" << "WS" << "u" << "c"
        << QStringList{"1 c", "1", "Okänd", "u på WS"} << QStringList{"1", "1", "-1", "WS|u"}
        << QStringList{"J1", "S1", "P-1", "UW|WS|u"};
}

void TestJobStore::rowColumns()
{
    QFETCH(QString, printer);
    QFETCH(QString, copies);
    QFETCH(QString, workstation);
    QFETCH(QString, user);
    QFETCH(QString, caption);
    QFETCH(QStringList, display);
    QFETCH(QStringList, tags);
    QFETCH(QStringList, keys);
    useSlot(2, QStringLiteral("  Bar"));
    const QString text = QStringList{"BRIXA", "1.00", "P", printer, "1", copies, workstation, "0", "", "", user, caption}
                             .join(QLatin1Char('\t'));
    QVERIFY(store->SrvAddJob(text));
    for (int pass = 0; pass < 2; ++pass) { // as stored, and as rebuilt after a restart
        const JobListModel& list = store->jobList();
        QCOMPARE(list.rowCount(), 1);
        QStringList shownTags, shownKeys;
        for (int c = 0; c < list.columnCount(); ++c) {
            shownTags << list.data(list.index(0, c), JobListModel::TagRole).toString();
            shownKeys << list.data(list.index(0, c), JobListModel::KeyRole).toString();
        }
        QCOMPARE(shownRows(list), QStringList{display.join(QLatin1Char('/'))});
        QCOMPARE(shownTags, tags);
        QCOMPARE(shownKeys, keys);
        if (pass == 0)
            start();
    }
}

void TestJobStore::nextJobFollowsQueueOrder()
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
    // Table and list hold the same jobs.
    QStringList ids, stored;
    for (int r = 0; r < list.count(); ++r)
        ids << QString::number(list.rowAt(r).id);
    for (const QString& row : JobRows(mdb()))
        stored << row.section(QLatin1Char('|'), 0, 0);
    ids.sort();
    stored.sort();
    QCOMPARE(ids, stored);
}

void TestJobStore::deleteUnknownChangesNothing()
{
    QVERIFY(add(1, QStringLiteral("a")));
    QVERIFY(add(1, QStringLiteral("b")));
    store->SrvDeleteJob(99);
    QCOMPARE(store->jobList().count(), 2);
    QCOMPARE(JobRows(mdb()).size(), 2);
    // Emptying the table leaves it usable, and none of this is an error.
    store->SrvDeleteJob(1);
    store->SrvDeleteJob(2);
    QCOMPARE(JobRows(mdb()), QStringList());
    QVERIFY(add(1, QStringLiteral("c")));
    QCOMPARE(store->jobList().rowAt(0).text, QStringLiteral("1 c"));
    QCOMPARE(home->logMessages(), QStringList());
}

void TestJobStore::restartRebuildsSameQueue()
{
    useSlot(3, QStringLiteral("Three"));
    for (int i = 1; i <= 12; ++i)
        QVERIFY(add(i % 2 ? 3 : 1, QStringLiteral("c%1").arg(i), QStringLiteral("WS%1").arg(i)));
    for (int id : {2, 5, 12})
        store->SrvDeleteJob(id);
    QVERIFY(add(3, QStringLiteral("late"))); // gets 12 again
    const QStringList before = shownRows(store->jobList());
    start();
    QCOMPARE(shownRows(store->jobList()), before);
    QCOMPARE(store->SrvNextJobId(3), 1);
    QCOMPARE(store->SrvNextJobId(1), 4);
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
}

void TestJobStore::serverSettingsWithoutRow()
{
    QVERIFY(ExecSql(mdb(), {QStringLiteral("UPDATE tbServer SET AutoStartService = 1")}));
    jdb->SrvInitServerSettings();
    QVERIFY(ExecSql(mdb(), {QStringLiteral("DELETE FROM tbServer")}));
    QCOMPARE(jdb->SrvGetServerPort(), 0);
    jdb->SrvInitServerSettings();
    QCOMPARE(jdb->autoStartService(), 1); // left as it was
    jdb->SrvMainSaveSettings(1, 1);
    jdb->SrvMainSaveTCPSettings(QStringLiteral("127.0.0.1"), 1, QStringLiteral("h"));
    QCOMPARE(home->logMessages(),
             (QStringList{"SrvGetServerPort failed. Error: 3021 No current record.",
                          "SrvInitServerSettings failed. Error: 3021 No current record.",
                          "SrvMainSaveSettings failed. Error: 3021 No current record.",
                          "SrvMainSaveTCPSettings failed. Error: 3021 No current record."}));
    QCOMPARE(Snapshot(jdb->database(), QStringLiteral("SELECT * FROM tbServer")).RecordCount(), 0);
}

void TestJobStore::valueLists()
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

    // The fixed lists: entries and the one selected; each fill clears what was there.
    ValueList l;
    l.add(QStringLiteral("stale"), 99);
    SrvFillCOMRate(l);
    QCOMPARE(l.entries, (QVector<ValueList::Entry>{{"9600", 9600}, {"57600", 57600}}));
    QCOMPARE(l.selected, 0);
    SrvFillCOMPort(l);
    QCOMPARE(l.entries.last(), (ValueList::Entry{"COM4:", 4}));
    QCOMPARE(l.entries.size(), 4);
    SrvFillStrobe(l);
    QCOMPARE(l.entries[l.selected], (ValueList::Entry{"5", 4}));
    QCOMPARE(l.entries.last(), (ValueList::Entry{"10", 9}));
    SrvFillSpeed(l);
    QCOMPARE(l.entries[l.selected], (ValueList::Entry{"3", 2}));
    QCOMPARE(l.entries.size(), 8);
    SrvFillYesNo(l);
    QCOMPARE(l.entries, (QVector<ValueList::Entry>{{"Ja", 1}, {"Nej", 0}}));
    QCOMPARE(l.selected, 1);
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
    const PrinterSlot& kassa = printerSlots.at(2);
    QCOMPARE(kassa.name.trimmed(), QStringLiteral("Kassa"));
    QCOMPARE(kassa.connectionType, 1);
    QCOMPARE(kassa.connectionString.trimmed(), QStringLiteral("COM2:#9600"));
    QCOMPARE(kassa.displayText.trimmed(), QStringLiteral("2 Kassa på COM2:"));
    QCOMPARE(kassa.status, qint32(StatusReady));
    QCOMPARE(kassa.statusText.trimmed(), GetString(12051));
    const PrinterSlot& shop = printerSlots.at(1);
    QCOMPARE(shop.connectionString.trimmed(), QStringLiteral("10.0.0.5#23"));
    QVERIFY(shop.passive);
    QCOMPARE(shop.status, qint32(StatusPassive));
    QCOMPARE(shop.statusText.trimmed(), GetString(12052));
    QVERIFY(printerSlots.at(4).inUse);
    QVERIFY(!printerSlots.SrvPrinterExists(3));
    // A job for printer 2 now shows its name.
    QVERIFY(add(2, QStringLiteral("x")));
    QCOMPARE(store->jobList().rowAt(0).printerName, QStringLiteral("Kassa"));

    // An Id outside the slot table reaches the caller as an error.
    QVERIFY(ExecSql(mdb(), {QStringLiteral("INSERT INTO tbPrinter (Id, Name) VALUES (9, 'Bad')")}));
    QVERIFY_THROWS_EXCEPTION(Error, MainAddAndInitAllPrinters(*jdb, printerSlots));
}

QTEST_GUILESS_MAIN(TestJobStore)
#include "tst_jobstore.moc"
