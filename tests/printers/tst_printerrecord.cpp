// Printer records on a real SQLite tbPrinter: dialog values in and out, the
// free slot, the slot copy and its display text, update and delete.
#include "database/schema.h"
#include "foundation/eventlog.h"
#include "foundation/paths.h"
#include "printers/printerrecord.h"
#include "database/slots.h"
#include "foundation/texts.h"
#include "support/dbfixture.h"

#include <QFile>
#include <QSqlRecord>
#include <QTemporaryDir>
#include <QTest>

#include <memory>

using namespace quill;
using quill::dbtest::CurrentLogText;

namespace {

// The dialog's fields in one line: name|type|serial or network|port|rate|
// address|loaded address|net port|connect only|strobe|speed|passive|advanced;
// "-" for a list with nothing selected.
QString describe(const PrinterSettings& d)
{
    auto item = [](const std::optional<qint32>& v) { return v ? QString::number(*v) : QStringLiteral("-"); };
    return QStringList{d.name, item(d.printerTypeId), d.serial ? "serial" : "network", item(d.comPort),
                       item(d.comRate), d.netAddress, d.loadedAddress, d.netPort,
                       d.netConnectOnly ? "connect only" : "", item(d.strobe), item(d.speed),
                       d.passive ? "passive" : "", d.advancedSettings}
        .join('|');
}

} // namespace

class TestPrinterRecord : public QObject {
    Q_OBJECT
    QTemporaryDir dir;
    std::unique_ptr<Database> db;
    std::unique_ptr<PrinterRepository> printers;
    PrinterSlots slots_;

    // A row written straight into the table, Null where the map has no value.
    void insertRow(const QVariantMap& fields)
    {
        QStringList marks(fields.size(), "?");
        db->exec("INSERT INTO tbPrinter (" + fields.keys().join(',') + ") VALUES (" + marks.join(',') + ")",
                 fields.values());
    }
    // The row's fields joined with "|", Null as "null".
    QString stored(qint32 id, const QString& fields)
    {
        QString row = "<no row>";
        db->run("SELECT " + fields + " FROM tbPrinter WHERE Id = ?", {id}, [&](QSqlQuery& q) {
            if (!q.next())
                return;
            QStringList values;
            for (int i = 0; i < q.record().count(); ++i)
                values << (q.value(i).isNull() ? QStringLiteral("null") : q.value(i).toString());
            row = values.join('|');
        });
        return row;
    }
    qint32 addPrinter(const QString& name) { return SrvPrinterAddNew(*printers, slots_, {.name = name}); }
    PrinterRow row(qint32 id) { return printers->find(id).value.value_or(PrinterRow{}); }

private slots:
    void initTestCase()
    {
        QVERIFY(dir.isValid());
        SetHomeDir(dir.path());
        SetUseLog(true);
        LogInit("Quillbase");
    }
    void init()
    {
        QFile::remove(dir.filePath("printers.db"));
        QFile::remove(LogFilePath());
        db = std::make_unique<Database>();
        db->open(dir.filePath("printers.db"));
        db->exec(SchemaStatements()[0]); // tbPrinter
        printers = std::make_unique<PrinterRepository>(*db);
        slots_.reset();
    }
    void cleanup()
    {
        printers.reset();
        db->close();
        db.reset();
    }

    void saveAndLoadBack_data()
    {
        QTest::addColumn<bool>("serial");
        QTest::addColumn<QString>("address");
        QTest::addColumn<QString>("netPort");
        QTest::addColumn<QString>("advanced");
        QTest::addColumn<QString>("stored"); // ConnectionUsed, Connection1..4, then the slot's text
        QTest::addColumn<QString>("loaded");
        // The serial lists are written for a network printer too.
        QTest::newRow("network, blanks around the address")
            << false << "  10.0.0.5 " << "23" << "1;;" << "2|COM3:#57600|10.0.0.5#23|null|null 1 Kassa på 10.0.0.5"
            << " Kassa |2|network|3|57600|10.0.0.5|10.0.0.5|23|connect only|7|5|passive|1;60;0";
        QTest::newRow("serial with an address kept")
            << true << "10.1.1.1" << " 9100 " << "" << "1|COM3:#57600|10.1.1.1#9100|null|null 1 Kassa på COM3:"
            << " Kassa |2|serial|3|57600|10.1.1.1|10.1.1.1|9100|connect only|7|5|passive|0;60;0";
    }
    void saveAndLoadBack()
    {
        QFETCH(bool, serial);
        QFETCH(QString, address);
        QFETCH(QString, netPort);
        QFETCH(QString, advanced);
        const PrinterSettings d{.name = " Kassa ", .printerTypeId = 2, .serial = serial, .comPort = 3,
                                .comRate = 57600, .netAddress = address, .netPort = netPort, .netConnectOnly = true,
                                .strobe = 7, .speed = 5, .passive = true, .advancedSettings = advanced};
        QCOMPARE(SrvPrinterAddNew(*printers, slots_, d), 1);
        QCOMPARE(stored(1, "Name, CurrentTemplateId"), QString(" Kassa |0")); // as typed; the column default
        QTEST(stored(1, "ConnectionUsed, Connection1, Connection2, Connection3, Connection4") + " "
                  + slots_.at(1).displayText,
              "stored");
        PrinterSettings back;
        SrvPrinterFillDialog(row(1), back, {1, 2, 3});
        QTEST(describe(back), "loaded");
    }

    void fillDialogFromOddRows_data()
    {
        QTest::addColumn<QVariantMap>("changes");
        QTest::addColumn<QString>("dialog"); // opened as serial, COM1:, 9600, address "untouched"
        // Not a model with connection support: the connection is left alone.
        QTest::newRow("type 10") << QVariantMap{{"PrinterTypeId", 10}} << "P|-|serial|1|9600|untouched||||6|7||0;60;0";
        QTest::newRow("Strobe Null, Speed, port and rate not in the lists")
            << QVariantMap{{"Strobe", QVariant()}, {"Speed", 12}, {"Connection1", "COM7:#fast"}}
            << "P|1|network|-|-|1.2.3.4|1.2.3.4|23||4|2||0;60;0";
        QTest::newRow("advanced fields") << QVariantMap{{"CutterInstalled", 3}, {"DispensingFeed", 0},
                                                        {"ReverseFeed", 25}}
                                         << "P|1|network|2|57600|1.2.3.4|1.2.3.4|23||6|7||1;0;25";
    }
    void fillDialogFromOddRows()
    {
        QFETCH(QVariantMap, changes);
        QVariantMap fields{{"Id", 1}, {"Name", "P"}, {"PrinterTypeId", 1}, {"ConnectionUsed", 2},
                           {"Connection1", "COM2:#57600"}, {"Connection2", "1.2.3.4#23"}, {"Strobe", 6},
                           {"Speed", 7}, {"Passive", 0}};
        fields.insert(changes);
        insertRow(fields);
        PrinterSettings d;
        d.netAddress = "untouched";
        SrvPrinterFillDialog(row(1), d, {1, 2, 3, 4, 5, 6, 7, 8, 9});
        QTEST(describe(d), "dialog");
    }

    void slotsAreGivenAndFreed()
    {
        for (const char* name : {"a", "b", "c", "d"})
            addPrinter(name);
        quill::dbtest::SlotEvents rows(slots_);
        QVERIFY(SrvMainPrinterDelete(*printers, slots_, 3));
        QCOMPARE(rows.events, QStringList{"remove 3"});
        QCOMPARE(stored(3, "Name"), QString("<no row>"));

        // Ids 1, 2 and 4 remain: the next printer gets the freed 3, with the
        // defaults of a new printer for what the lists leave unselected.
        QCOMPARE(SrvPrinterAddNew(*printers, slots_, {.printerTypeId = std::nullopt}), 3);
        QCOMPARE(stored(3, "PrinterTypeId, Strobe, Speed"), QString("1|4|2"));
        // A long name: whole in the table, 25 characters in the slot.
        const QString longName = "Receptionens skrivare vid entrén";
        QCOMPARE(SrvPrinterAddNew(*printers, slots_, {.name = longName, .serial = false, .netAddress = "10.0.0.5"}), 5);
        QCOMPARE(stored(5, "Name"), longName);
        QCOMPARE(slots_.at(5).displayText, "5 " + longName.left(25).trimmed() + " på 10.0.0.5");

        // All five taken: the save path traps it, logs it and writes nothing.
        rows.events.clear();
        QCOMPARE(SrvMainPrinterSave(*printers, slots_, {}, PrinterSettings::ModeNew, -1), -1);
        QVERIFY(rows.events.isEmpty());
        QVERIFY(CurrentLogText().contains("SrvMainPrinterSave failed. Error: 9 Subscript out of range"));
        QCOMPARE(printers->all().value.size(), 5);
    }

    void saveRunsAfterSaveCheck()
    {
        // A passive printer gets no device check.
        addPrinter("one");
        quill::dbtest::SlotEvents rows(slots_);
        qint32 checked = 0;
        const auto check = [&](qint32 id) { checked = id; };
        QCOMPARE(SrvMainPrinterSave(*printers, slots_, {.name = "two", .passive = true}, PrinterSettings::ModeNew, -1,
                                    check),
                 2);
        QCOMPARE(checked, 0);
        QCOMPARE(rows.events, (QStringList{"add 2", "status 2 " + GetString(12083)}));
        QCOMPARE(slots_.at(2).status, qint32(StatusPassive));

        // Nothing selected as type is -1 for an edited printer; an active one is
        // handed to the device check.
        rows.events.clear();
        const PrinterSettings edit{
            .name = "Kiosk", .printerTypeId = std::nullopt, .serial = false, .netAddress = "127.0.0.1", .netPort = "1"};
        QCOMPARE(SrvMainPrinterSave(*printers, slots_, edit, PrinterSettings::ModeEdit, 2, check), 2);
        QCOMPARE(checked, 2);
        QCOMPARE(stored(2, "Name, PrinterTypeId"), QString("Kiosk|-1"));
        QCOMPARE(stored(1, "Name"), QString("one"));
        QCOMPARE(rows.events, QStringList{"change 2"});
    }
};

QTEST_GUILESS_MAIN(TestPrinterRecord)
#include "tst_printerrecord.moc"
