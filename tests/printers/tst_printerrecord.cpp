// Printer records on a real SQLite tbPrinter (dialog values in and out, the
// free slot, the slot copy and its display text, update and delete); which
// connection a device name is, and the links that give a connection to one
// party at a time, in turn.
#include "database/schema.h"
#include "foundation/eventlog.h"
#include "foundation/paths.h"
#include "printers/printerlink.h"
#include "printers/printerrecord.h"
#include "database/slots.h"
#include "foundation/settings.h"
#include "foundation/texts.h"
#include "support/dbfixture.h"

#include <QCoreApplication>
#include <QDeadlineTimer>
#include <QFile>
#include <QSqlRecord>
#include <QTemporaryDir>
#include <QTest>
#include <QThread>

#include <atomic>
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
        qputenv("XDG_CONFIG_DIRS", dir.path().toLocal8Bit());
        qputenv("XDG_CONFIG_HOME", dir.filePath("user").toLocal8Bit());
        // COM2 is a link to a line, as the emulator's pty is.
        QFile line(dir.filePath("ttyQ0"));
        QVERIFY(line.open(QIODevice::WriteOnly));
        QVERIFY(QFile::link(line.fileName(), dir.filePath("com2")));
        RegSetValue(HKEY_LOCAL_MACHINE, QStringLiteral("SOFTWARE\\Norvu\\Brixa\\Ports"), QStringLiteral("COM2"), REG_SZ,
                    dir.filePath("com2"));
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
        QCOMPARE(addPrinter("e"), 5);

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

    void sameConnection_data()
    {
        QTest::addColumn<QString>("a");
        QTest::addColumn<QString>("b");
        QTest::addColumn<bool>("same");
        QTest::newRow("COMn with and without colon") << "COM2:" << "com2" << true;
        QTest::newRow("box without port is on 23") << "NETBOX:127.0.0.1" << "127.0.0.1#23" << true;
        QTest::newRow("host names ignore case") << "NETBOX:Skrivare.Local#23" << "skrivare.local#23" << true;
        QTest::newRow("other port, other box") << "127.0.0.1#23" << "127.0.0.1#24" << false;
    }
    void sameConnection()
    {
        QFETCH(QString, a);
        QFETCH(QString, b);
        QFETCH(bool, same);
        QVERIFY(!LinkKey(a).isEmpty());
        QCOMPARE(LinkKey(a) == LinkKey(b), same);
    }

    // Every party takes its turn on a connection in the order it asked; work
    // that needs two connections is queued on both at once, and blocking work
    // runs on a worker, with `done` back on the event loop.
    void turnsInOrder()
    {
        PrinterLinks links;
        const QString line = LinkKey("COM2:"), box = LinkKey("127.0.0.1#23");
        QStringList order;
        bool onWorker = false;
        const auto first = links.acquire({line}, [&] { order << "driver 1"; });
        QVERIFY(!links.granted(first)); // never before acquire returns
        QTRY_VERIFY_WITH_TIMEOUT(links.granted(first), 10000);
        links.run({line, box}, this,
                  [&](const DeviceContext& c) {
                      onWorker = QThread::currentThread() != qApp->thread() && c.timeoutMs == links.deviceTimeout();
                  },
                  [&] { order << "device work"; });
        const auto second = links.acquire({box}, [&] { order << "driver 2"; });
        QTest::qWait(100);
        QCOMPARE(order, QStringList{"driver 1"});
        QVERIFY(links.link(box)->busy() && links.link(line)->waiting() == 2);
        links.release(first);
        QTRY_COMPARE_WITH_TIMEOUT(order, (QStringList{"driver 1", "device work", "driver 2"}), 10000);
        QVERIFY(onWorker);
        QVERIFY(!links.link(line)->busy());
        // Withdrawing a turn that was never granted lets the next one go.
        const auto third = links.acquire({box}, [&] { order << "driver 3"; });
        links.release(second);
        QTRY_VERIFY_WITH_TIMEOUT(links.granted(third), 10000);
        links.release(third);
        QVERIFY(!links.link(box)->busy());
    }

    // Stopping a party's work ends its waits at once and drops what it still
    // had queued, without its `done`; the others go on.
    void stopWorkCancelsOnlyItsOwn()
    {
        PrinterLinks links;
        links.setDeviceTimeout(60000);
        const QString line = LinkKey("COM2:");
        QObject owner, other;
        std::atomic<bool> started{false}, cancelled{false};
        bool ended = false, otherDone = false;
        links.run({line}, &owner,
                  [&](const DeviceContext& c) {
                      started = true;
                      QDeadlineTimer limit(c.timeoutMs);
                      while (!c.cancelled() && !limit.hasExpired())
                          QThread::msleep(5);
                      cancelled = c.cancelled();
                  },
                  [&] { ended = true; });
        links.run({line}, &owner, [](const DeviceContext&) {}, [&] { ended = true; });
        links.run({line}, &other, [](const DeviceContext&) {}, [&] { otherDone = true; });
        QTRY_VERIFY_WITH_TIMEOUT(started.load(), 10000);
        links.stopWork(&owner);
        QVERIFY(cancelled);
        QVERIFY(!links.hasWork(&owner));
        QTRY_VERIFY_WITH_TIMEOUT(otherDone, 10000);
        QVERIFY(!ended);
    }
};

QTEST_GUILESS_MAIN(TestPrinterRecord)
#include "tst_printerrecord.moc"
