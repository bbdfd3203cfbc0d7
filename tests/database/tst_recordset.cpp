// The record layer on real SQLite files: what table-type recordsets and snapshots
// see, keyed seeks, positioned writes, errors, and the template lookup.
#include "database/jobdatabase.h"
#include "database/recordset.h"
#include "foundation/strutil.h"
#include "support/dbfixture.h"

#include <QTest>

using namespace quill;
using namespace quill::dbtest;

namespace {

void addJob(TableRecordset& rs, qint32 id, qint32 printer, const QString& text)
{
    rs.AddNew();
    rs.setField(QStringLiteral("Id"), id);
    rs.setField(QStringLiteral("PrinterId"), printer);
    rs.setField(QStringLiteral("Job"), text);
    rs.Update();
}

// The error number a call throws; 0 when it throws nothing.
int errorNumber(const std::function<void()>& f)
{
    try {
        f();
    } catch (const Error& e) {
        return e.number;
    }
    return 0;
}

} // namespace

class TestRecordset : public QObject {
    Q_OBJECT
    std::unique_ptr<DbHome> home;
    Database db;
    QString mdb() const { return home->file(QStringLiteral("brixa.mdb")); }
private slots:
    void init()
    {
        home = std::make_unique<DbHome>();
        QVERIFY(home->ok());
        db.open(mdb());
    }
    void cleanup()
    {
        db.close();
        home.reset();
    }
    void journalSettings();
    void tableSeesWritesSnapshotDoesNot();
    void keyedSeek_data();
    void keyedSeek();
    void positionedWrites();
    void walkBeyondReadAhead();
    void fieldsByNameNullAndDefaults();
    void findFirstCriteria_data();
    void findFirstCriteria();
    void templateLookup();
};

void TestRecordset::journalSettings()
{
    // A job is durable when its commit returns only with these.
    QCOMPARE(Snapshot(db, QStringLiteral("PRAGMA journal_mode")).field(QStringLiteral("journal_mode")).toString(),
             QStringLiteral("wal"));
    QCOMPARE(Snapshot(db, QStringLiteral("PRAGMA synchronous")).field(QStringLiteral("synchronous")).toInt(), 2);
    QCOMPARE(Snapshot(db, QStringLiteral("PRAGMA foreign_keys")).field(QStringLiteral("foreign_keys")).toInt(), 0);
}

void TestRecordset::tableSeesWritesSnapshotDoesNot()
{
    TableRecordset jobs(db, QStringLiteral("tbJob"));
    jobs.setIndex(QStringLiteral("PrimaryKey"));
    // Empty: populating raises nothing, positioned operations have no current row.
    QVERIFY(jobs.IsBOF() && jobs.IsEOF());
    SrvPopulateRecordset(jobs);
    for (auto op : {&TableRecordset::MoveFirst, &TableRecordset::Edit, &TableRecordset::Delete})
        QCOMPARE(errorNumber([&] { (jobs.*op)(); }), ErrNoCurrentRecord);
    Snapshot none(db, QStringLiteral("SELECT * FROM tbJob"));
    QCOMPARE(errorNumber([&] { none.field(QStringLiteral("Id")); }), ErrNoCurrentRecord);

    addJob(jobs, 4, 2, QStringLiteral("four"));
    Snapshot before(db, QStringLiteral("SELECT * FROM tbJob"));
    addJob(jobs, 5, 1, QStringLiteral("five"));
    QCOMPARE(jobs.RecordCount(), 2);
    QVERIFY(jobs.seek(QStringLiteral("="), 5));
    QCOMPARE(jobs.field(QStringLiteral("Job")).toString(), QStringLiteral("five"));
    // Committed at once, for any other reader.
    QCOMPARE(JobRows(mdb()), (QStringList{"4|2|four", "5|1|five"}));
    QCOMPARE(before.RecordCount(), 1);
    before.MoveLast();
    QCOMPARE(before.field(QStringLiteral("Job")).toString(), QStringLiteral("four"));
}

void TestRecordset::keyedSeek_data()
{
    QTest::addColumn<QVariant>("key");
    QTest::addColumn<QString>("job"); // empty: no match
    QTest::newRow("first") << QVariant(1) << "j1";
    QTest::newRow("last") << QVariant(10) << "j10";
    QTest::newRow("gap") << QVariant(3) << "";
    QTest::newRow("above") << QVariant(11) << "";
    QTest::newRow("as text") << QVariant(QStringLiteral("5")) << "j5";
    QTest::newRow("not a number") << QVariant(QStringLiteral("x")) << "";
    QTest::newRow("null") << QVariant() << "";
}

void TestRecordset::keyedSeek()
{
    QFETCH(QVariant, key);
    QFETCH(QString, job);
    TableRecordset jobs(db, QStringLiteral("tbJob"));
    QCOMPARE(errorNumber([&] { jobs.seek(QStringLiteral("="), 1); }), 3019); // no current index
    QCOMPARE(errorNumber([&] { jobs.setIndex(QStringLiteral("ByPrinter")); }), ErrNotAnIndex);
    jobs.setIndex(QStringLiteral("PrimaryKey"));
    for (int id : {10, 1, 5, 2})
        addJob(jobs, id, 1, QStringLiteral("j%1").arg(id));
    QCOMPARE(jobs.seek(QStringLiteral("="), key), !job.isEmpty());
    QCOMPARE(jobs.NoMatch(), job.isEmpty());
    if (job.isEmpty())
        QCOMPARE(errorNumber([&] { jobs.field(QStringLiteral("Job")); }), ErrNoCurrentRecord);
    else
        QCOMPARE(jobs.field(QStringLiteral("Job")).toString(), job);
}

void TestRecordset::positionedWrites()
{
    TableRecordset jobs(db, QStringLiteral("tbJob"));
    jobs.setIndex(QStringLiteral("PrimaryKey"));
    for (int id : {1, 2, 5})
        addJob(jobs, id, 1, QStringLiteral("j%1").arg(id));

    // Edit: the pending value shows until Update, and only then reaches the file.
    QVERIFY(jobs.seek(QStringLiteral("="), 2));
    QCOMPARE(errorNumber([&] { jobs.setField(QStringLiteral("Job"), QStringLiteral("x")); }), ErrUpdateWithoutEdit);
    jobs.Edit();
    jobs.setField(QStringLiteral("job"), QStringLiteral("changed"));
    QCOMPARE(jobs.field(QStringLiteral("Job")).toString(), QStringLiteral("changed"));
    QCOMPARE(JobRows(mdb())[1], QStringLiteral("2|1|j2"));
    jobs.Update();
    QCOMPARE(JobRows(mdb())[1], QStringLiteral("2|1|changed"));
    // A move abandons an edit.
    jobs.Edit();
    jobs.setField(QStringLiteral("PrinterId"), 9);
    jobs.MoveFirst();
    QCOMPARE(errorNumber([&] { jobs.Update(); }), ErrUpdateWithoutEdit);
    QCOMPARE(JobRows(mdb())[1], QStringLiteral("2|1|changed"));

    // AddNew keeps the current row current, even when the new key sorts before it.
    QVERIFY(jobs.seek(QStringLiteral("="), 5));
    addJob(jobs, 3, 1, QStringLiteral("j3"));
    QCOMPARE(jobs.field(QStringLiteral("Id")).toInt(), 5);
    // A key that exists already is refused with SQLite's constraint error and changes nothing.
    QVERIFY(QList<int>({19, 1555}).contains(errorNumber([&] { addJob(jobs, 3, 1, QStringLiteral("again")); })));
    QStringList order;
    for (jobs.MoveFirst(); !jobs.IsEOF(); jobs.MoveNext())
        order << jobs.field(QStringLiteral("Job")).toString();
    QCOMPARE(order, (QStringList{"j1", "changed", "j3", "j5"}));

    // Delete: no current row until the next move, which lands on the row after it.
    QVERIFY(jobs.seek(QStringLiteral("="), 2));
    jobs.Delete();
    QCOMPARE(errorNumber([&] { jobs.field(QStringLiteral("Id")); }), ErrRecordDeleted);
    jobs.MoveNext();
    QCOMPARE(jobs.field(QStringLiteral("Id")).toInt(), 3);
    QVERIFY(!jobs.seek(QStringLiteral("="), 2));
    jobs.MoveLast();
    jobs.Delete();
    jobs.MoveNext();
    QVERIFY(jobs.IsEOF());
    QCOMPARE(JobRows(mdb()), (QStringList{"1|1|j1", "3|1|j3"}));
}

void TestRecordset::walkBeyondReadAhead()
{
    db.begin();
    for (int id = 1; id <= 1000; ++id)
        db.exec(QStringLiteral("INSERT INTO tbJob (Id, PrinterId, Job) VALUES (?, ?, ?)"),
                {id * 2, id % 5, QStringLiteral("job %1").arg(id * 2)});
    db.commit();
    TableRecordset jobs(db, QStringLiteral("tbJob"));
    jobs.setIndex(QStringLiteral("PrimaryKey"));
    QCOMPARE(jobs.RecordCount(), 1000);
    // Change rows inside and outside the rows read so far, then walk everything.
    QVERIFY(jobs.seek(QStringLiteral("="), 600));
    jobs.Edit();
    jobs.setField(QStringLiteral("Job"), QStringLiteral("edited"));
    jobs.Update();
    for (int id : {602, 1998}) {
        QVERIFY(jobs.seek(QStringLiteral("="), id));
        jobs.Delete();
    }
    int n = 0;
    qint64 last = 0;
    for (jobs.MoveFirst(); !jobs.IsEOF(); jobs.MoveNext(), ++n) {
        const qint64 id = jobs.field(QStringLiteral("Id")).toLongLong();
        QVERIFY(id > last);
        last = id;
        QCOMPARE(jobs.field(QStringLiteral("Job")).toString(),
                 id == 600 ? QStringLiteral("edited") : QStringLiteral("job %1").arg(id));
    }
    QCOMPARE(n, 998);
    QCOMPARE(last, 2000);
}

void TestRecordset::fieldsByNameNullAndDefaults()
{
    TableRecordset printers(db, QStringLiteral("tbPrinter"));
    printers.AddNew();
    printers.setField(QStringLiteral("ID"), 1);
    // Column defaults fill a new row; names match in any case; Null stays null.
    QCOMPARE(printers.field(QStringLiteral("dispensingfeed")).toInt(), 60);
    printers.Update();
    printers.MoveFirst();
    QCOMPARE(printers.field(QStringLiteral("STROBE")).toInt(), 4);
    QVERIFY(printers.field(QStringLiteral("Name")).isNull());
    QCOMPARE(NullToLong(printers.field(QStringLiteral("PrinterTypeId")), -1), -1);
    QCOMPARE(errorNumber([&] { printers.field(QStringLiteral("NoSuchField")); }), ErrItemNotFound);
    // The settings query asks for "Port" and reads "port".
    QCOMPARE(Snapshot(db, QStringLiteral("SELECT Port FROM tbServer")).field(QStringLiteral("port")).toInt(), 20001);
}

void TestRecordset::findFirstCriteria_data()
{
    QTest::addColumn<QString>("criteria");
    QTest::addColumn<int>("result"); // 1 found, 0 not found, else the error number
    QTest::newRow("qualified template id") << "tbTemplate.Id = 2" << 1;
    QTest::newRow("no such template") << "tbTemplate.Id = 3" << 0;
    QTest::newRow("type id is not a template id") << "tbTemplateType.Id = 2" << 0;
    QTest::newRow("unqualified") << "TemplateTypeId=1" << 1;
    QTest::newRow("bracketed") << "[tbTemplate].[Id] = 1" << 1;
    QTest::newRow("text value") << "tbTemplate.Id = '2'" << 1;
    QTest::newRow("unknown field") << "tbTemplate.Name = 1" << ErrItemNotFound;
    QTest::newRow("not a comparison") << "tbTemplate.Id > 1" << ErrCriteriaSyntax;
    QTest::newRow("no value") << "tbTemplate.Id =" << ErrCriteriaSyntax;
}

void TestRecordset::findFirstCriteria()
{
    QFETCH(QString, criteria);
    QFETCH(int, result);
    Snapshot t(db, QStringLiteral("SELECT * FROM tbTemplate INNER JOIN tbTemplateType ON "
                                  "tbTemplate.TemplateTypeId = tbTemplateType.Id"));
    QCOMPARE(t.RecordCount(), 2);
    int got = -1;
    try {
        got = t.FindFirst(criteria) ? 1 : 0;
        QCOMPARE(t.NoMatch(), got == 0);
    } catch (const Error& e) {
        got = e.number;
    }
    QCOMPARE(got, result);
    if (got == 1 && criteria.endsWith(QLatin1Char('2')))
        QCOMPARE(t.field(QStringLiteral("tbTemplate.Id")).toInt(), 2);
}

void TestRecordset::templateLookup()
{
    db.close();
    JobDatabase jdb;
    jdb.database().open(mdb());
    QVERIFY(jdb.SrvTemplateTypeOpenDB());
    QVERIFY(jdb.SrvTemplateInDB(1));
    QVERIFY(!jdb.SrvTemplateInDB(3));
    // Another program adds templates after start-up: one with its type, one without.
    QVERIFY(ExecSql(mdb(), {QStringLiteral("INSERT INTO tbTemplate (Id, TemplateTypeId) VALUES (3, 1), (4, 7)")}));
    QVERIFY(!jdb.templateRecordset()->FindFirst(QStringLiteral("tbTemplate.Id = 3")));
    QVERIFY(jdb.SrvTemplateInDB(3)); // the miss re-read the snapshot
    QCOMPARE(jdb.templateRecordset()->RecordCount(), 3);
    QVERIFY(!jdb.SrvTemplateInDB(4)); // no type row: never found
    QVERIFY(ExecSql(mdb(), {QStringLiteral("INSERT INTO tbTemplateType (Id) VALUES (7)")}));
    QVERIFY(jdb.SrvTemplateInDB(4));
    jdb.SrvCloseDatabases();
    QVERIFY(!jdb.isOpen());
    QCOMPARE(jdb.templateRecordset(), nullptr);
}

QTEST_GUILESS_MAIN(TestRecordset)
#include "tst_recordset.moc"
