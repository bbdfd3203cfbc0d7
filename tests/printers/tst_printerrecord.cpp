// Printer records on a real SQLite tbPrinter: dialog values in and out, the
// free slot, the slot copy and its display text, update and delete.
#include "database/recordset.h"
#include "foundation/eventlog.h"
#include "foundation/messages.h"
#include "foundation/paths.h"
#include "printers/deviceops.h"
#include "printers/printerrecord.h"
#include "service/slots.h"
#include "shell/texts.h"

#include "support/dbfixture.h"

#include <QFile>
#include <QTemporaryDir>
#include <QTest>

#include <memory>

using namespace quill;
using quill::dbtest::CurrentLogText;

namespace {

class AnsweringSink final : public MessageSink {
public:
    QStringList texts;
    BoxAnswer answer = BoxAnswer::Yes;
    BoxAnswer show(const QString&, const QString& text, BoxIcon, BoxButtons buttons) override
    {
        texts << text;
        return buttons == BoxButtons::YesNo ? answer : BoxAnswer::Ok;
    }
};

class Rows final : public PrinterRowView {
public:
    QStringList events;
    void addRow(qint32 slot) override { events << QStringLiteral("add %1").arg(slot); }
    void updateRow(qint32 slot) override { events << QStringLiteral("update %1").arg(slot); }
    void removeRow(qint32 slot) override { events << QStringLiteral("remove %1").arg(slot); }
    void showStatus(qint32 slot, const QString& word, const QString& text) override
    {
        events << QStringLiteral("status %1 %2|%3").arg(slot).arg(word, text);
    }
    void selectRow(qint32) override {}
};

} // namespace

class TestPrinterRecord : public QObject {
    Q_OBJECT
    QTemporaryDir dir;
    std::unique_ptr<Database> db;
    std::unique_ptr<TableRecordset> rs;
    PrinterSlots slots_;
    AnsweringSink sink;

    // A row written straight into the table, Null where the map has no value.
    void insertRow(const QVariantMap& fields)
    {
        QStringList marks(fields.size(), "?");
        db->exec("INSERT INTO tbPrinter (" + fields.keys().join(',') + ") VALUES (" + marks.join(',') + ")",
                 fields.values());
        rs->Requery();
    }
    QVariant stored(qint32 id, const QString& field)
    {
        QSqlQuery q = db->select("SELECT " + field + " FROM tbPrinter WHERE Id = ?", {id});
        return q.next() ? q.value(0) : QVariant(QStringLiteral("<no row>"));
    }
    qint32 addPrinter(const QString& name)
    {
        PrinterSettings d;
        d.name = name;
        return SrvPrinterAddNew(*rs, slots_, d);
    }

private slots:
    void initTestCase()
    {
        QVERIFY(dir.isValid());
        SetHomeDir(dir.path());
        SetUseLog(true);
        LogInit("Quillbase");
        SetMessageSink(&sink);
    }
    void cleanupTestCase() { SetMessageSink(nullptr); }
    void init()
    {
        QFile::remove(dir.filePath("printers.db"));
        QFile::remove(LogFilePath());
        db = std::make_unique<Database>();
        db->open(dir.filePath("printers.db"));
        db->exec("CREATE TABLE tbPrinter (Id INTEGER PRIMARY KEY, Name TEXT, PrinterTypeId INTEGER, "
                 "ConnectionUsed INTEGER, Connection1 TEXT, Connection2 TEXT, Connection3 TEXT, Connection4 TEXT, "
                 "NetConnectOnly INTEGER, Strobe INTEGER, Speed INTEGER, Passive INTEGER, CutterInstalled INTEGER, "
                 "DispensingFeed INTEGER, ReverseFeed INTEGER, CurrentTemplateId INTEGER DEFAULT 0)");
        rs = std::make_unique<TableRecordset>(*db, "tbPrinter");
        rs->setIndex("PrimaryKey");
        slots_.reset();
        sink.texts.clear();
        sink.answer = BoxAnswer::Yes;
        EditPrinterId = -1;
    }
    void cleanup()
    {
        rs.reset();
        db->close();
        db.reset();
    }

    void saveAndLoadBack_data();
    void saveAndLoadBack();
    void fillDialogFromOddRows_data();
    void fillDialogFromOddRows();
    void slotsAreGivenAndFreed();
    void slotCopyAndDisplayText();
    void saveRunsAfterSaveCheck();
};

void TestPrinterRecord::saveAndLoadBack_data()
{
    QTest::addColumn<bool>("serial");
    QTest::addColumn<int>("port");
    QTest::addColumn<int>("rate");
    QTest::addColumn<QString>("address");
    QTest::addColumn<QString>("netPort");
    QTest::addColumn<QString>("connection1");
    QTest::addColumn<QVariant>("connection2");
    QTest::addColumn<QString>("advanced");
    QTest::addColumn<QString>("advancedBack"); // cutter, feed and reverse as stored
    QTest::newRow("serial COM3 57600, no address")
        << true << 3 << 57600 << "" << "" << "COM3:#57600" << QVariant() << "1;80;15" << "1;80;15";
    // The serial lists are written for a network printer too.
    QTest::newRow("network, blanks around the address") << false << 1 << 9600 << "  10.0.0.5 " << "23"
                                                        << "COM1:#9600" << QVariant("10.0.0.5#23") << "1;;" << "1;60;0";
    QTest::newRow("serial with an address kept") << true << 4 << 9600 << "10.1.1.1" << " 9100 " << "COM4:#9600"
                                                 << QVariant("10.1.1.1#9100") << "" << "0;60;0";
}

void TestPrinterRecord::saveAndLoadBack()
{
    QFETCH(bool, serial);
    QFETCH(int, port);
    QFETCH(int, rate);
    QFETCH(QString, address);
    QFETCH(QString, netPort);
    QFETCH(QVariant, connection2);
    PrinterSettings d;
    d.name = " Kassa ";
    d.printerTypeId = 2;
    d.serial = serial;
    d.comPort = port;
    d.comRate = rate;
    d.netAddress = address;
    d.netPort = netPort;
    d.netConnectOnly = true;
    d.strobe = 7;
    d.speed = 5;
    d.passive = true;
    QFETCH(QString, advanced);
    d.advancedSettings = advanced;
    QCOMPARE(SrvPrinterAddNew(*rs, slots_, d), 1);

    QCOMPARE(stored(1, "Name").toString(), QString(" Kassa ")); // as typed
    QCOMPARE(stored(1, "ConnectionUsed").toInt(), serial ? 1 : 2);
    QTEST(stored(1, "Connection1").toString(), "connection1");
    QCOMPARE(stored(1, "Connection2").isNull(), connection2.isNull());
    QCOMPARE(stored(1, "Connection2").toString(), connection2.toString());
    QVERIFY(stored(1, "Connection3").isNull() && stored(1, "Connection4").isNull());
    QCOMPARE(stored(1, "CurrentTemplateId").toInt(), 0); // the column default

    QVERIFY(rs->seek("=", 1));
    PrinterSettings back;
    SrvPrinterFillDialog(*rs, back, {1, 2, 3});
    QCOMPARE(back.name, d.name);
    QCOMPARE(back.printerTypeId, std::optional<qint32>(2));
    QCOMPARE(back.serial, serial);
    QCOMPARE(back.comPort, std::optional<qint32>(port));
    QCOMPARE(back.comRate, std::optional<qint32>(rate));
    QCOMPARE(back.netAddress, address.trimmed());
    QCOMPARE(back.loadedAddress, address.trimmed());
    QCOMPARE(back.netPort, address.trimmed().isEmpty() ? QString() : netPort.trimmed());
    QVERIFY(back.netConnectOnly && back.passive);
    QCOMPARE(back.strobe, std::optional<qint32>(7));
    QCOMPARE(back.speed, std::optional<qint32>(5));
    QTEST(back.advancedSettings, "advancedBack");
}

void TestPrinterRecord::fillDialogFromOddRows_data()
{
    QTest::addColumn<QVariantMap>("row");
    QTest::addColumn<bool>("connectionTouched");
    QTest::addColumn<std::optional<qint32>>("type");
    QTest::addColumn<std::optional<qint32>>("port");
    QTest::addColumn<std::optional<qint32>>("rate");
    QTest::addColumn<int>("strobe");
    QTest::addColumn<int>("speed");
    QTest::addColumn<QString>("advanced");
    using O = std::optional<qint32>;
    const QVariantMap base{{"Id", 1},           {"Name", "P"},       {"PrinterTypeId", 1},
                           {"ConnectionUsed", 2}, {"Connection1", "COM2:#57600"}, {"Connection2", "1.2.3.4#23"},
                           {"Strobe", 6},       {"Speed", 7},        {"Passive", 0}};
    QTest::newRow("plain") << base << true << O(1) << O(2) << O(57600) << 6 << 7 << "0;60;0";
    QVariantMap m = base;
    m["PrinterTypeId"] = 10; // not a model with connection support
    QTest::newRow("type 10") << m << false << O() << O(1) << O(9600) << 6 << 7 << "0;60;0";
    m["PrinterTypeId"] = QVariant();
    QTest::newRow("type Null") << m << false << O() << O(1) << O(9600) << 6 << 7 << "0;60;0";
    m = base;
    m["Strobe"] = QVariant();
    m["Speed"] = 12;
    QTest::newRow("Strobe Null, Speed out of range") << m << true << O(1) << O(2) << O(57600) << 4 << 2 << "0;60;0";
    m = base;
    m["Connection1"] = "COM7:#fast";
    QTest::newRow("port and rate not in the lists") << m << true << O(1) << O() << O() << 6 << 7 << "0;60;0";
    m = base;
    m["CutterInstalled"] = 3;
    m["DispensingFeed"] = 0;
    m["ReverseFeed"] = 25;
    QTest::newRow("advanced fields") << m << true << O(1) << O(2) << O(57600) << 6 << 7 << "1;0;25";
}

void TestPrinterRecord::fillDialogFromOddRows()
{
    QFETCH(QVariantMap, row);
    QFETCH(bool, connectionTouched);
    insertRow(row);
    QVERIFY(rs->seek("=", 1));
    PrinterSettings d; // as the dialog opens: serial, COM1:, 9600
    d.netAddress = "untouched";
    SrvPrinterFillDialog(*rs, d, {1, 2, 3, 4, 5, 6, 7, 8, 9});
    QTEST(d.printerTypeId, "type");
    QTEST(d.comPort, "port");
    QTEST(d.comRate, "rate");
    QCOMPARE(d.serial, !connectionTouched);
    QCOMPARE(d.netAddress, connectionTouched ? QString("1.2.3.4") : QString("untouched"));
    QTEST(d.strobe.value_or(-1), "strobe");
    QTEST(d.speed.value_or(-1), "speed");
    QTEST(d.advancedSettings, "advanced");
}

void TestPrinterRecord::slotsAreGivenAndFreed()
{
    for (const char* name : {"a", "b", "c", "d"})
        addPrinter(name);
    // Deleting asks first; No keeps everything.
    Rows rows;
    sink.answer = BoxAnswer::No;
    QVERIFY(!SrvMainPrinterDelete(*rs, slots_, 3, "3 c på COM1:", &rows));
    QCOMPARE(sink.texts, QStringList{GetString(12040, "3 c på COM1:")});
    QVERIFY(slots_.SrvPrinterExists(3));
    sink.answer = BoxAnswer::Yes;
    QVERIFY(SrvMainPrinterDelete(*rs, slots_, 3, "3 c på COM1:", &rows));
    QCOMPARE(rows.events, QStringList{"remove 3"});
    QCOMPARE(stored(3, "Name").toString(), QString("<no row>"));
    QVERIFY(!slots_.SrvPrinterExists(3));

    // Ids 1, 2 and 4 remain: the next printer gets 3, with the defaults of a
    // new printer for what the lists leave unselected.
    QCOMPARE(slots_.FreeSlot(), 3);
    PrinterSettings d;
    d.printerTypeId.reset();
    QCOMPARE(SrvPrinterAddNew(*rs, slots_, d), 3);
    QCOMPARE(stored(3, "PrinterTypeId").toInt(), 1);
    QCOMPARE(stored(3, "Strobe").toInt(), 4);
    QCOMPARE(stored(3, "Speed").toInt(), 2);
    QCOMPARE(addPrinter("e"), 5);

    // All five taken: the save path traps it, logs it and writes nothing.
    QCOMPARE(slots_.FreeSlot(), -1);
    rows.events.clear();
    QCOMPARE(SrvMainPrinterSave(*rs, slots_, d, PrinterSettings::ModeNew, &rows), -1);
    QVERIFY(rows.events.isEmpty());
    QVERIFY(CurrentLogText().contains("SrvMainPrinterSave failed. Error: 9 Subscript out of range"));
    QCOMPARE(rs->RecordCount(), 5);

    // An id from no row is trapped too.
    QVERIFY(!SrvMainPrinterDelete(*rs, slots_, -1, "", nullptr));
    QVERIFY(CurrentLogText().contains("SrvMainPrinterDelete failed. Error: 9 Subscript out of range"));
}

void TestPrinterRecord::slotCopyAndDisplayText()
{
    PrinterSettings d;
    d.name = "  Kassa  ";
    d.comPort = 2;
    QCOMPARE(SrvPrinterAddNew(*rs, slots_, d), 1);
    QCOMPARE(slots_.at(1).displayText, QString("1 Kassa på COM2:"));
    QVERIFY(slots_.at(1).inUse && !slots_.at(1).passive);

    // A long name: whole in the table, 25 characters in the slot.
    const QString longName = "Receptionens skrivare vid entrén";
    d = PrinterSettings();
    d.name = longName;
    d.serial = false;
    d.netAddress = "192.168.1.40";
    d.netPort = "23";
    d.passive = true;
    QCOMPARE(SrvPrinterAddNew(*rs, slots_, d), 2);
    QCOMPARE(stored(2, "Name").toString(), longName);
    QCOMPARE(slots_.at(2).displayText, "2 " + longName.left(25).trimmed() + " på 192.168.1.40");
    QVERIFY(slots_.at(2).passive);

    // Connection 4 loads unchanged; an unknown number keeps the old string.
    insertRow({{"Id", 4}, {"Name", "n"}, {"ConnectionUsed", 4}, {"Connection4", "LPT1:"}});
    QVERIFY(rs->seek("=", 4));
    SrvPrinterLoadSlot(slots_.at(4), RowReader(*rs));
    QCOMPARE(slots_.at(4).connectionString, QString("LPT1:"));
    insertRow({{"Id", 5}, {"Name", "m"}, {"ConnectionUsed", 7}});
    QVERIFY(rs->seek("=", 5));
    slots_.at(5).connectionString = "COM4:#9600";
    SrvPrinterLoadSlot(slots_.at(5), RowReader(*rs));
    QCOMPARE(slots_.at(5).displayText, QString("5 m på COM4:"));
}

void TestPrinterRecord::saveRunsAfterSaveCheck()
{
    // A passive printer gets no device check.
    Rows rows;
    addPrinter("one");
    PrinterSettings d;
    d.name = "two";
    d.passive = true;
    QCOMPARE(SrvMainPrinterSave(*rs, slots_, d, PrinterSettings::ModeNew, &rows), 2);
    QCOMPARE(rows.events, (QStringList{"add 2", "status 2 " + GetString(12083) + "|" + GetString(12052)}));
    QCOMPARE(slots_.at(2).status, qint32(StatusPassive));

    // Edited while something else moved the recordset; nothing selected as
    // type is -1 for an edited printer. With no reachable device the check
    // ends in Error with "Ingen kontakt".
    rows.events.clear();
    QVERIFY(rs->seek("=", 2));
    SrvPrinterFillDialog(*rs, d);
    d.name = "Kiosk";
    d.printerTypeId.reset();
    d.passive = false;
    d.serial = false;
    d.netAddress = "127.0.0.1";
    d.netPort = "1";
    EditPrinterId = 2;
    rs->MoveFirst();
    QCOMPARE(SrvMainPrinterSave(*rs, slots_, d, PrinterSettings::ModeEdit, &rows), 2);
    QCOMPARE(EditPrinterId, -1);
    QCOMPARE(stored(2, "Name").toString(), QString("Kiosk"));
    QCOMPARE(stored(2, "PrinterTypeId").toInt(), -1);
    QCOMPARE(stored(1, "Name").toString(), QString("one"));
    QCOMPARE(slots_.at(2).displayText, QString("2 Kiosk på 127.0.0.1"));
    QCOMPARE(rows.events.value(0), QString("update 2"));
    QCOMPARE(slots_.at(2).status, qint32(StatusError));
    QCOMPARE(slots_.at(2).statusText.trimmed(), GetString(12038));
}

QTEST_GUILESS_MAIN(TestPrinterRecord)
#include "tst_printerrecord.moc"
