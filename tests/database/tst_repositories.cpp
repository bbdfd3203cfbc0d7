// The connection's kept statements and the repositories of the small tables on
// real SQLite files: printers and the template lookup.
#include "database/jobdatabase.h"
#include "database/repositories.h"
#include "support/dbfixture.h"

#include <QTest>

using namespace quill;
using namespace quill::dbtest;

class TestRepositories : public QObject {
    Q_OBJECT
    std::unique_ptr<DbHome> home;
    std::unique_ptr<JobDatabase> jdb;
    QString mdb() const { return home->file("brixa.mdb"); }
    Database& db() { return jdb->database(); }
    int count(const QString& table)
    {
        int n = -1;
        db().run("SELECT COUNT(*) FROM " + table, {}, [&](QSqlQuery& q) { n = q.next() ? q.value(0).toInt() : -1; });
        return n;
    }

private slots:
    void init()
    {
        home = std::make_unique<DbHome>();
        QVERIFY(home->ok());
        jdb = std::make_unique<JobDatabase>();
        jdb->database().open(mdb());
    }
    void cleanup()
    {
        jdb.reset();
        home.reset();
    }
    void keptStatements();
    void printerRows();
    void currentTemplate();
    void templateLookup();
};

void TestRepositories::keptStatements()
{
    QVERIFY(ExecSql(mdb(), {"INSERT INTO tbJob (Id, PrinterId, Job) VALUES (1, 1, 'x')"}));
    const QString ids = "SELECT Id FROM tbJob ORDER BY Id";
    db().run("PRAGMA journal_mode", {}, [](QSqlQuery& q) { QVERIFY(q.next() && q.value(0).toString() == "wal"); });
    db().run("PRAGMA synchronous", {}, [](QSqlQuery& q) { QVERIFY(q.next() && q.value(0).toInt() == 2); });

    // A kept statement ends its read even when not all its rows were read: another
    // writer's row is seen by the next statement.
    QVERIFY(ExecSql(mdb(), {"INSERT INTO tbJob (Id, PrinterId, Job) VALUES (2, 1, 'x')"}));
    db().run(ids, {}, [](QSqlQuery& q) { QVERIFY(q.next()); });
    QVERIFY(ExecSql(mdb(), {"INSERT INTO tbJob (Id, PrinterId, Job) VALUES (5, 1, 'x')"}));
    QCOMPARE(count("tbJob"), 3);

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
    QCOMPARE(count("tbJob"), 5);
}

void TestRepositories::printerRows()
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

void TestRepositories::currentTemplate()
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

void TestRepositories::templateLookup()
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

QTEST_GUILESS_MAIN(TestRepositories)
#include "tst_repositories.moc"
