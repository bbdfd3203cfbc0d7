// The record layer on real SQLite files: what table-type recordsets and snapshots
// see, keyed seeks, positioned writes, errors, and the template lookup.
#include "database/jobdatabase.h"
#include "database/recordset.h"
#include "support/dbfixture.h"

#include <QTest>

using namespace quill;
using namespace quill::dbtest;

namespace {

// A job row of printer 1, its text "j<id>" unless given.
void addJob(TableRecordset& rs, qint32 id, const QString& text = {})
{
    rs.AddNew();
    rs.setField("Id", id);
    rs.setField("PrinterId", 1);
    rs.setField("Job", text.isEmpty() ? QStringLiteral("j%1").arg(id) : text);
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
    QString mdb() const { return home->file("brixa.mdb"); }
    // tbJob opened on its key, holding the given jobs.
    std::unique_ptr<TableRecordset> jobTable(std::initializer_list<int> ids = {})
    {
        auto jobs = std::make_unique<TableRecordset>(db, "tbJob");
        jobs->setIndex("PrimaryKey");
        for (int id : ids)
            addJob(*jobs, id);
        return jobs;
    }
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
    void keyedSeek_data();
    void keyedSeek();
    void positionedWrites();
    void walkBeyondReadAhead();
    void templateLookup();
    void keptStatements();
};

void TestRecordset::keyedSeek_data()
{
    QTest::addColumn<QVariant>("key");
    QTest::addColumn<QString>("job"); // empty: no match
    QTest::newRow("last") << QVariant(10) << "j10";
    QTest::newRow("gap") << QVariant(3) << "";
    QTest::newRow("above") << QVariant(11) << "";
    QTest::newRow("as text") << QVariant("5") << "j5";
    QTest::newRow("not a number") << QVariant("x") << "";
    QTest::newRow("null") << QVariant() << "";
}

void TestRecordset::keyedSeek()
{
    QFETCH(QVariant, key);
    QFETCH(QString, job);
    auto jobs = jobTable({10, 1, 5, 2});
    QCOMPARE(jobs->seek("=", key), !job.isEmpty());
    QCOMPARE(jobs->NoMatch(), job.isEmpty());
    if (job.isEmpty())
        QCOMPARE(errorNumber([&] { jobs->field("Job"); }), ErrNoCurrentRecord);
    else
        QCOMPARE(jobs->field("Job").toString(), job);
}

// Each write commits at once, durably, for any reader; a snapshot keeps what it read.
void TestRecordset::positionedWrites()
{
    QCOMPARE(Snapshot(db, "PRAGMA journal_mode").field("journal_mode").toString(), "wal");
    QCOMPARE(Snapshot(db, "PRAGMA synchronous").field("synchronous").toInt(), 2);
    auto jobs = jobTable({1, 2, 5});
    Snapshot before(db, "SELECT * FROM tbJob");
    // Edit: the pending value shows until Update, and only then reaches the file.
    QVERIFY(jobs->seek("=", 2));
    QCOMPARE(errorNumber([&] { jobs->setField("Job", "x"); }), ErrUpdateWithoutEdit);
    jobs->Edit();
    jobs->setField("job", "changed");
    QCOMPARE(jobs->field("Job").toString(), "changed");
    QCOMPARE(JobRows(mdb())[1], "2|1|j2");
    jobs->Update();
    QCOMPARE(JobRows(mdb())[1], "2|1|changed");

    // AddNew keeps the current row current, even when the new key sorts before it.
    QVERIFY(jobs->seek("=", 5));
    addJob(*jobs, 3);
    QCOMPARE(jobs->field("Id").toInt(), 5);
    // A key that exists already is refused with SQLite's constraint error.
    QVERIFY(QList<int>({19, 1555}).contains(errorNumber([&] { addJob(*jobs, 3, "again"); })));
    QStringList order;
    for (jobs->MoveFirst(); !jobs->IsEOF(); jobs->MoveNext())
        order << jobs->field("Job").toString();
    QCOMPARE(order, (QStringList{"j1", "changed", "j3", "j5"}));

    // Delete: no current row until the next move, which lands on the row after it.
    QVERIFY(jobs->seek("=", 2));
    jobs->Delete();
    QCOMPARE(errorNumber([&] { jobs->field("Id"); }), ErrRecordDeleted);
    jobs->MoveNext();
    QCOMPARE(jobs->field("Id").toInt(), 3);
    QVERIFY(!jobs->seek("=", 2));
    jobs->MoveLast();
    jobs->Delete();
    jobs->MoveNext();
    QVERIFY(jobs->IsEOF());
    QCOMPARE(JobRows(mdb()), (QStringList{"1|1|j1", "3|1|j3"}));
    QCOMPARE(before.RecordCount(), 3);
    before.MoveLast();
    QCOMPARE(before.field("Job").toString(), "j5");
}

void TestRecordset::walkBeyondReadAhead()
{
    db.exec("WITH RECURSIVE n(i) AS (SELECT 2 UNION ALL SELECT i + 2 FROM n WHERE i < 2000) "
            "INSERT INTO tbJob (Id, PrinterId, Job) SELECT i, 1, 'j' || i FROM n");
    auto jobs = jobTable();
    QCOMPARE(jobs->RecordCount(), 1000);
    // Change rows inside and outside the rows read so far, then walk everything.
    QVERIFY(jobs->seek("=", 600));
    jobs->Edit();
    jobs->setField("Job", "edited");
    jobs->Update();
    for (int id : {602, 1998}) {
        QVERIFY(jobs->seek("=", id));
        jobs->Delete();
    }
    QStringList want, walked;
    for (int id = 2; id <= 2000; id += 2)
        if (id != 602 && id != 1998)
            want << QString::number(id) + (id == 600 ? QStringLiteral(" edited") : QStringLiteral(" j%1").arg(id));
    for (jobs->MoveFirst(); !jobs->IsEOF(); jobs->MoveNext())
        walked << jobs->field("Id").toString() + ' ' + jobs->field("Job").toString();
    QCOMPARE(walked, want);
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
    QVERIFY(ExecSql(mdb(), {"INSERT INTO tbTemplate (Id, TemplateTypeId) VALUES (3, 1), (4, 7)"}));
    QVERIFY(!jdb.templateRecordset()->FindFirst("tbTemplate.Id = 3"));
    QVERIFY(jdb.SrvTemplateInDB(3)); // the miss re-read the snapshot
    QCOMPARE(jdb.templateRecordset()->RecordCount(), 3);
    QVERIFY(!jdb.SrvTemplateInDB(4)); // no type row: never found
    QVERIFY(ExecSql(mdb(), {"INSERT INTO tbTemplateType (Id) VALUES (7)"}));
    QVERIFY(jdb.SrvTemplateInDB(4));
}

void TestRecordset::keptStatements()
{
    auto count = [&] { return Snapshot(db, "SELECT COUNT(*) AS n FROM tbJob").field("n").toInt(); };
    auto jobs = jobTable({1});
    QCOMPARE(count(), 1);

    // A kept statement ends its read even when not all its rows were read: another
    // writer's row is seen by the next statement.
    const QString ids = "SELECT Id FROM tbJob ORDER BY Id";
    QVERIFY(ExecSql(mdb(), {"INSERT INTO tbJob (Id, PrinterId, Job) VALUES (2, 1, 'x')"}));
    db.run(ids, {}, [](QSqlQuery& q) { QVERIFY(q.next()); });
    QVERIFY(ExecSql(mdb(), {"INSERT INTO tbJob (Id, PrinterId, Job) VALUES (5, 1, 'x')"}));
    QCOMPARE(count(), 3);

    // The same text run again while it is still running: each has its own rows.
    int outer = 0, inner = 0;
    db.run(ids, {}, [&](QSqlQuery& q) {
        while (q.next()) {
            ++outer;
            db.run(ids, {}, [&](QSqlQuery& q2) {
                while (q2.next())
                    ++inner;
            });
        }
    });
    QCOMPARE(outer, 3);
    QCOMPARE(inner, 9);

    // A failed statement holds no lock, and the same text works with other values.
    const QString insert = "INSERT INTO tbJob (Id, PrinterId, Job) VALUES (?, 1, 'y')";
    QVERIFY(errorNumber([&] { db.insert(insert, {1}); }) != 0);
    QVERIFY(ExecSql(mdb(), {"INSERT INTO tbJob (Id, PrinterId, Job) VALUES (3, 1, 'z')"}));
    QCOMPARE(db.insert(insert, {4}), 4);

    // Another connection changed the schema: a kept statement is prepared again by
    // SQLite, and a "*" brings the new column.
    const QString job3 = "SELECT Job FROM tbJob WHERE Id = 3";
    const QString all = "SELECT * FROM tbJob WHERE Id = 3";
    QCOMPARE(Snapshot(db, job3).field("Job").toString(), "z");
    QCOMPARE(Snapshot(db, all).field("Job").toString(), "z");
    QVERIFY(ExecSql(mdb(), {"ALTER TABLE tbJob ADD COLUMN Extra INTEGER DEFAULT 7"}));
    QCOMPARE(Snapshot(db, all).field("Extra").toInt(), 7);
    QCOMPARE(Snapshot(db, job3).field("Job").toString(), "z");
}

QTEST_GUILESS_MAIN(TestRecordset)
#include "tst_recordset.moc"
