// The printers layer: the link codec and the label layouts; printer records on
// a real SQLite tbPrinter and the links that give a connection to one party at
// a time; device sessions and device operations against the real
// mp104c-emulator, over its network box (TCP on 127.0.0.1) and over a pty
// standing in for a serial port, comparing the calls the printer received.
#include "database/schema.h"
#include "database/slots.h"
#include "foundation/eventlog.h"
#include "foundation/paths.h"
#include "foundation/settings.h"
#include "foundation/texts.h"
#include "label/label.h"
#include "printers/deviceops.h"
#include "printers/devicesession.h"
#include "printers/link.h"
#include "printers/printerlink.h"
#include "printers/printerrecord.h"
#include "support/dbfixture.h"
#include "support/emulator.h"

#include <QSqlRecord>
#include <QThread>
#include <QtTest>

#include <functional>

using namespace quill;
using quill::dbtest::CurrentLogText;
using quill::test::Emulator;

namespace {

bool writeFile(const QString& path, const QByteArray& text)
{
    QFile f(path);
    return f.open(QIODevice::WriteOnly | QIODevice::Truncate) && f.write(text) == text.size();
}

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

// Local round trips; longer means a silent printer.
const DeviceContext ctx{1000};

// The calls of the print settings, after the connection steps, up to the close.
QStringList printSettingsCalls(int darkness, int speed, int feed = 60, int reverse = 0)
{
    const QString s = QString::number(speed);
    return {"service 38153", "setparam 46 " + QString::number(darkness), "service 28351746", "setparam 2 " + s,
            "setparam 3 " + s, "setparam 4 " + s, "setparam 40 0", "setparam 23 4500",
            "setparam 24 " + QString::number(feed), "setparam 100 " + QString::number(reverse), "setparam 68 0",
            "setparam 69 0", "setparam 50 0", "getcounter 1", "setcounter 1 0 1 9 1", "lock", "service 3196",
            "close"};
}

QStringList testPrintCalls(const QString& open)
{
    const QString title = GetString(9003)
        + QStringLiteral(" v%1.%2.%3").arg(QUILL_VERSION_MAJOR).arg(QUILL_VERSION_MINOR).arg(QUILL_VERSION_PATCH);
    return {open, "layout 0", "var 1 " + title, "print 1 i", "close"};
}

QString configFailed(const QString& operation)
{
    return operation + ": Configuration failed. COMAPI Error: " + GetString(13003);
}

PrinterSlot slotFor(qint32 connectionType, const QString& connection)
{
    return {.printerId = 1, .connectionType = connectionType, .connectionString = connection, .inUse = true};
}

// One operation on the printer: its result.
using Op = std::function<QString(const Emulator&)>;

// The dialog's configure button; also shows the loaded address it leaves.
Op configDialog(PrinterSettings d)
{
    static const char* const names[] = {"configured", "not configurable", "serial failed", "no address",
                                        "network failed", "needs serial", "trapped"};
    return [=](const Emulator&) mutable {
        const QString result = names[int(ConfigureDevice(ctx, d))];
        return result + (d.loadedAddress.isEmpty() ? QString() : ", loaded " + d.loadedAddress);
    };
}

// The status check of a slot on COM3: at 9600, or of one on the box.
Op check(qint32 connectionType)
{
    return [=](const Emulator& e) {
        const QString connection = connectionType == ConnectionNetwork ? e.bareDevice() : "COM3:#9600";
        return SrvMPCheck(ctx, slotFor(connectionType, connection));
    };
}

// The dialog's test print, its values with blanks around them; the results
// of each round. layout: empty keeps the installed 0.lbl, "-" removes it, else replaces it.
Op testPrint(bool serial, const QByteArray& layout = {}, int rounds = 1)
{
    return [=](const Emulator& e) {
        const PrinterSettings d{.serial = serial, .comPort = 3, .netAddress = " 127.0.0.1 ",
                                .netPort = QString::number(e.port()) + " "};
        const PrinterDevice device = DialogDevice(d);
        const QString path = QDir(HomeDir()).filePath("0.lbl");
        if (layout == "-" ? !QFile::remove(path) : !layout.isEmpty() && !writeFile(path, layout))
            return QStringLiteral("cannot change the layout");
        QString results;
        for (int i = 0; i < rounds; ++i)
            results += SrvMPTestPrint(ctx, " " + device.name + " ", " " + device.settings + " ");
        return results;
    };
}

QString reconfigureAll(const Emulator&)
{
    PrinterSlots slots_;
    slots_.reset();
    slots_.setPrinter(1, slotFor(1, "COM3:#57600 "));
    PrinterSlot passive = slotFor(1, "COM3:#9600");
    passive.passive = true;
    slots_.setPrinter(2, passive);
    slots_.setPrinter(4, slotFor(2, "127.0.0.1#1"));
    slots_.setPrinter(5, slotFor(1, "COM3:#9600"));
    slots_.removePrinter(5);
    ReConfigCOMLines(ctx, SerialLinesToReconfigure(slots_));
    return "done";
}

} // namespace

class TestPrinters : public QObject {
    Q_OBJECT
    quill::dbtest::DbHome home;
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

private slots:
    void initTestCase()
    {
        QVERIFY(home.ok());
        qputenv("XDG_CONFIG_DIRS", QFile::encodeName(home.file("machine")));
        qputenv("XDG_CONFIG_HOME", QFile::encodeName(home.file("user")));
        // COM2 is a link to a line, as the emulator's pty is.
        QFile line(home.file("ttyQ0"));
        QVERIFY(line.open(QIODevice::WriteOnly));
        QVERIFY(QFile::link(line.fileName(), home.file("com2")));
        RegSetValue(HKEY_LOCAL_MACHINE, QStringLiteral("SOFTWARE\\Norvu\\Brixa\\Ports"), QStringLiteral("COM2"), REG_SZ,
                    home.file("com2"));
    }
    void init()
    {
        QFile::remove(LogFilePath());
        QFile::remove(home.file("0.lbl"));
        QVERIFY(QFile::copy(":/quill/0.lbl", home.file("0.lbl")));
        QFile::remove(home.file("printers.db"));
        db = std::make_unique<Database>();
        db->open(home.file("printers.db"));
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

    void linkRoundTrip_data()
    {
        QTest::addColumn<QStringList>("args");
        QTest::newRow("empty field") << QStringList{"", "m"};
        QTest::newRow("separators and escape look-alikes") << QStringList{"a\tb\nc\r\\d \\t \\x41 \\\\"};
        QTest::newRow("control bytes and XON/XOFF") << QStringList{QString::fromLatin1("\x01\x11\x13\x1b\x7f")};
    }
    void linkRoundTrip()
    {
        QFETCH(QStringList, args);
        // A control byte left raw on the wire would split the frame, be dropped as
        // flow control or make the decoder refuse it: the round trip shows each.
        LinkDecoder d;
        d.feed(EncodeRequest(42, link::Service, args) + EncodeAnswer(42, link::LayoutAccepted, args));
        LinkFrame q, a, none;
        QVERIFY(d.next(&q) && d.next(&a) && !d.next(&none));
        QCOMPARE(q.kind, LinkFrame::Request);
        QCOMPARE(q.id, 42u);
        QCOMPARE(q.verb, link::Service);
        QCOMPARE(q.args, args);
        QCOMPARE(a.kind, LinkFrame::Answer);
        QCOMPARE(a.id, 42u);
        QCOMPARE(a.result, link::LayoutAccepted);
        QCOMPARE(a.args, args);
        QCOMPARE(d.rejected(), 0);
    }

    void linkDecoder_data()
    {
        QTest::addColumn<QByteArray>("input");
        QTest::addColumn<int>("chunk"); // 0 = all at once
        QTest::addColumn<int>("frames");
        QTest::addColumn<int>("rejected");
        QTest::addColumn<int>("buffered");
        const QByteArray good = "Q\t7\tSTATUS\t4\n";
        QTest::newRow("two frames, odd chunks, CRLF") << good + "\r\nA\t7\t-2\r\n" << 5 << 2 << 0 << 0;
        QTest::newRow("partial") << QByteArray("Q\t1\tSTA") << 3 << 0 << 0 << 7;
        QTest::newRow("XON/XOFF between bytes") << QByteArray("Q\t7\t\x13STA\x11TUS\t4\n") << 2 << 1 << 0 << 0;
        QTest::newRow("garbage then good") << QByteArray("\xff\xfe\x00zz\n", 6) + good << 3 << 1 << 1 << 0;
        // An endless line is dropped up to its LF; decoding resumes after it.
        QTest::newRow("endless line")
            << QByteArray(link::MaxFrameBytes * 3, 'a') + "tail\n" + good << 1000 << 1 << 1 << 0;
    }
    void linkDecoder()
    {
        QFETCH(QByteArray, input);
        QFETCH(int, chunk);
        LinkDecoder d;
        for (qsizetype i = 0; i < input.size(); i += chunk ? chunk : input.size()) {
            d.feed(input.mid(i, chunk ? chunk : input.size()));
            QVERIFY(d.bufferedBytes() < link::MaxFrameBytes);
        }
        int n = 0;
        LinkFrame f;
        while (d.next(&f))
            ++n;
        QTEST(n, "frames");
        QTEST(d.rejected(), "rejected");
        QTEST(d.bufferedBytes(), "buffered");
    }

    void layoutParse_data()
    {
        QTest::addColumn<QString>("text");
        QTest::addColumn<int>("elements"); // -1: refused
        QTest::addColumn<QString>("error"); // start of the reason
        QTest::newRow("every element") << "label 400 300\ntext 1 2 20 \"a {1}\" bold center\n"
                                          "barcode 5 6 50 2 \"{2}\" text\nline 0 0 10 10 3\nbox 0 0 400 300\n"
                                       << 4 << QString();
        QTest::newRow("comments, quote escapes, CRLF")
            << "# x\n\n label 100 50 # size\r\ntext 1 1 10 \"say \\\"hi\\\" \\\\ # no comment\"\r\n" << 1 << QString();
        QTest::newRow("element before label") << "text 1 1 10 \"x\"\nlabel 10 10" << -1
                                              << "line 1: label statement must come first";
        QTest::newRow("label too big") << "label 5000 50" << -1 << "line 1: label";
        QTest::newRow("unknown statement") << "label 100 50\n\nellipse 1 2 3" << -1 << "line 3: unknown";
        QTest::newRow("text bad option") << "label 100 50\ntext 1 1 10 \"x\" italic" << -1
                                         << "line 2: unknown text option";
    }
    void layoutParse()
    {
        QFETCH(QString, text);
        QFETCH(int, elements);
        QFETCH(QString, error);
        LabelLayout layout;
        QString why;
        QCOMPARE(ParseLabelLayout(text, &layout, &why), elements >= 0);
        if (elements >= 0)
            QCOMPARE(layout.elements.size(), elements);
        else
            QVERIFY2(why.startsWith(error), qPrintable(why));
    }

    void layoutFilling()
    {
        const QMap<int, QString> vars{{1, "Brixa"}, {2, "{1}"}, {12, "Tolv"}};
        QCOMPARE(FillPlaceholders("a{1}b{12}c", vars), QString("aBrixabTolvc"));
        QCOMPARE(FillPlaceholders("[{3}]{x}{0}", vars), QString("[]{x}{0}")); // missing: nothing
        QCOMPARE(FillPlaceholders("{2}", vars), QString("{1}")); // values are not re-read
        // "A": start B 211214, 'A' 111323, check (104 + 33) % 103 = 34 -> 131123, stop 2331112.
        QCOMPARE(Code128Widths("A"),
                 (QVector<int>{2, 1, 1, 2, 1, 4, 1, 1, 1, 3, 2, 3, 1, 3, 1, 1, 2, 3, 2, 3, 3, 1, 1, 1, 2}));
        // The test label we ship fills only its title line, the one the test print sends.
        QFile shipped(":/quill/0.lbl");
        QVERIFY(shipped.open(QIODevice::ReadOnly));
        LabelLayout test;
        QString why;
        QVERIFY2(ParseLabelLayout(QString::fromUtf8(shipped.readAll()), &test, &why), qPrintable(why));
        QCOMPARE(test.variables(), QSet<int>{1});
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
        SrvPrinterFillDialog(printers->find(1).value.value_or(PrinterRow{}), back, {1, 2, 3});
        QTEST(describe(back), "loaded");
    }

    void slotsAreGivenAndFreed()
    {
        for (const char* name : {"a", "b", "c", "d"})
            addPrinter(name);
        quill::dbtest::SlotEvents rows(slots_);
        QVERIFY(SrvMainPrinterDelete(*printers, slots_, 3));
        QCOMPARE(rows.events, QStringList{"remove 3"});
        // Ids 1, 2 and 4 remain: the next printer gets the freed 3, with the
        // defaults of a new printer for what the lists leave unselected.
        QCOMPARE(SrvPrinterAddNew(*printers, slots_, {.printerTypeId = std::nullopt}), 3);
        QCOMPARE(stored(3, "PrinterTypeId, Strobe, Speed"), QString("1|4|2"));
        QCOMPARE(addPrinter("e"), 5);
    }

    // A passive printer gets no device check; an active one is handed to it,
    // and the answer decides what its list row shows.
    void saveRunsAfterSaveCheck()
    {
        addPrinter("one");
        quill::dbtest::SlotEvents rows(slots_);
        qint32 checked = 0;
        const auto check = [&](qint32 id) {
            checked = id;
            if (StartAfterConfigCheck(slots_, id))
                FinishAfterConfigCheck(slots_, id, "OK\t");
        };
        QCOMPARE(SrvMainPrinterSave(*printers, slots_, {.name = "two", .passive = true}, PrinterSettings::ModeNew, -1,
                                    check),
                 2);
        QCOMPARE(checked, 0);
        QCOMPARE(rows.events, (QStringList{"add 2", "status 2 " + GetString(12083)}));
        QCOMPARE(slots_.at(2).status, qint32(StatusPassive));

        // Nothing selected as type is -1 for an edited printer.
        rows.events.clear();
        const PrinterSettings edit{
            .name = "Kiosk", .printerTypeId = std::nullopt, .serial = false, .netAddress = "127.0.0.1", .netPort = "1"};
        QCOMPARE(SrvMainPrinterSave(*printers, slots_, edit, PrinterSettings::ModeEdit, 2, check), 2);
        QCOMPARE(checked, 2);
        QCOMPARE(stored(2, "Name, PrinterTypeId"), QString("Kiosk|-1"));
        QCOMPARE(stored(1, "Name"), QString("one"));
        QCOMPARE(rows.events,
                 (QStringList{"change 2", "status 2 " + GetString(12080), "status 2 " + GetString(12079)}));
        QCOMPARE(slots_.at(2).status, qint32(StatusReady));
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

    // On the serial line, where a refused line speed matters and a line
    // outlives a call that timed out.
    void session()
    {
        Emulator emu;
        QVERIFY2(emu.startPty(), qPrintable(emu.errorText()));
        emu.mapComPort(1);
        DeviceSession h(DeviceContext{500});
        QCOMPARE(h.open("COM1:", "9600,n,8,1,x", "m"), 1);
        int c[5] = {-1, -1, -1, -1, -1};
        QCOMPARE(h.setCounter(1, 40, 1, 9, 1), 1);
        QCOMPARE(h.counter(1, &c[0], &c[1], &c[2], &c[3], &c[4]), 1);
        QCOMPARE(QList<int>(c, c + 5), (QList<int>{40, 1, 9, 1, 0}));
        QString reply;
        QCOMPARE(h.service(38153, QString(), &reply, 3), 1);
        QCOMPARE(reply, QString("MP1")); // cut to the reply buffer
        QCOMPARE(h.service(100, QString(256, '9'), &reply, 255), link::ErrGeneral);
        QVERIFY(reply.isEmpty());
        // A refused line speed leaves this side's speed alone: the session goes on.
        QCOMPARE(h.setParameter(link::ParamBaudRate, 12345), link::ErrGeneral);
        QCOMPARE(h.lockParameters(), 1);
        QCOMPARE(h.setParameter(40, 1), link::ErrGeneral);
        // A layout beyond a frame is refused before it is sent.
        QVERIFY(writeFile(home.file("5.lbl"), "label 100 100\n# " + QByteArray(link::MaxFrameBytes, 'x') + "\n"));
        QCOMPARE(h.sendLayout(home.file("5.lbl")), link::ErrMemory);

        // A late answer to an earlier call is not taken for the current one's.
        for (const char* command : {"paper out", "delay 1000"})
            QCOMPARE(emu.command(command), QString("ok"));
        QCOMPARE(h.status(4), link::ErrComm);
        for (const char* command : {"delay 0", "paper in"})
            QCOMPARE(emu.command(command), QString("ok"));
        QTest::qWait(700); // the late answer (status 1) comes in meanwhile
        QCOMPARE(h.status(4), 0);
    }

    void operations_data()
    {
        QTest::addColumn<int>("baud");       // the printer's line speed; it also sits behind the box
        QTest::addColumn<QString>("faults"); // emulator commands first, ";" between them
        QTest::addColumn<Op>("op");
        QTest::addColumn<QString>("result");
        QTest::addColumn<QStringList>("calls");
        QTest::addColumn<QString>("logLine"); // empty: the log stays empty
        const QStringList settings = printSettingsCalls(167, 79);
        const QStringList fromNet{"open", "status 4"}, from9600{"open 9600", "status 4"}, openOnly{"open 9600"};
        const QString ok = "OK\t", noContact = "ERR\t" + GetString(12038);

        // The open at the wrong speed reaches the printer only as noise.
        QTest::newRow("serial, rate switch to 9600")
            << 57600 << "" << configDialog({.comPort = 3, .advancedSettings = "0;75;12"}) << "configured"
            << QStringList{"open 57600", "status 4", "setparam 30 9600", "setparam 34 2000"}
                + printSettingsCalls(167, 79, 75, 12) << "";
        // Only slot 1, switched over to 57600: passive, network and free slots are skipped.
        QTest::newRow("re-configuration of the serial slots")
            << 9600 << "" << Op(reconfigureAll) << "done"
            << from9600 + QStringList{"setparam 30 57600", "setparam 34 2000", "lock", "service 3196", "close"} << "";

        // The last type of the table at its highest steps.
        QTest::newRow("dialog, serial, type 9, highest steps, empty feed")
            << 9600 << ""
            << configDialog({.printerTypeId = 9, .comPort = 3, .strobe = 9, .speed = 7, .advancedSettings = "1;;30"})
            << "configured" << from9600 + QStringList{"setparam 34 2000"} + printSettingsCalls(1000, 150, 60, 30) << "";
        // Nothing selected in the lists: type 1 and the default steps.
        PrinterSettings d{.serial = false, .netAddress = "10.0.0.7", .loadedAddress = " 127.0.0.1 "};
        d.printerTypeId = d.strobe = d.speed = std::nullopt;
        QTest::newRow("dialog, network at the loaded address, nothing selected")
            << 9600 << "" << configDialog(d) << "configured, loaded 10.0.0.7"
            << fromNet + QStringList{"service 100 10.0.0.7", "service 102 0.0.0.0", "service 110 0.0.0.0"} + settings
            << "";
        QTest::newRow("dialog, serial printer removed")
            << 9600 << "on open 9600 unplug" << configDialog({.comPort = 3}) << "serial failed"
            << openOnly << configFailed("SrvMPConfigCOM");
        // A box not reached at its loaded address fails for "connect only" and
        // keeps the loaded address.
        QTest::newRow("dialog, box removed, connect only")
            << 9600 << "on open unplug"
            << configDialog({.serial = false, .netAddress = "10.9.9.9", .loadedAddress = "127.0.0.1",
                             .netConnectOnly = true})
            << "network failed, loaded 127.0.0.1" << QStringList{"open"} << configFailed("SrvMPConfigNET");

        // The silent printer: one call goes unanswered, and the printer, still
        // there, hears the close.
        QTest::newRow("serial printer falls silent")
            << 9600 << "on service 28351746 silent" << configDialog({.comPort = 3}) << "serial failed"
            << from9600 + QStringList{"setparam 34 2000"} + settings.mid(0, 3) + QStringList{"close"}
            << configFailed("SrvMPConfigCOM");

        QTest::newRow("clear memory, calibrate")
            << 57600 << ""
            << Op([](const Emulator&) {
                   const QString line = "57600,n,8,1,x", cleared = SrvMPClear(ctx, "COM3:", line);
                   return cleared + SrvMPCal(ctx, "COM3:", line);
               })
            << ok + ok
            << QStringList{"open 57600", "init a", "close", "open 57600", "service 44", "lock", "service 3196", "close"}
            << "";

        // Which fault wins is the status word's mapping; here the call
        // through each connection kind, and no connection at all.
        QTest::newRow("status ready") << 9600 << "" << check(2) << ok << fromNet + QStringList{"close"} << "";
        QTest::newRow("status ribbon before paper before head, serial")
            << 9600 << "head up;paper out;ribbon out" << check(1) << "ERR\t" + GetString(13009)
            << from9600 + QStringList{"close"} << "";
        QTest::newRow("status, no connection") << 9600 << "" << check(3) << noContact << QStringList{} << "";

        const QStringList netPrint = testPrintCalls("open"), serialPrint = testPrintCalls("open 9600");
        QTest::newRow("test print, no test layout") << 9600 << "" << testPrint(false, "-") << "ERR\t" + GetString(13004)
                                                    << QStringList{"open", "close"} << "";
        QTest::newRow("test print twice, the same layout again: -7")
            << 9600 << "" << testPrint(true, {}, 2) << ok + ok << serialPrint + serialPrint << "";
        QTest::newRow("test print, variable 2 never sent: -6")
            << 9600 << "" << testPrint(false, "label 200 100\ntext 10 10 20 \"{1}\"\ntext 10 50 20 \"{2}\"\n") << ok
            << netPrint << "";
    }

    void operations()
    {
        QFETCH(int, baud);
        QFETCH(QString, faults);
        QFETCH(Op, op);
        QFETCH(QStringList, calls);
        QFETCH(QString, logLine);
        Emulator emu;
        QVERIFY2(emu.startBoth(baud), qPrintable(emu.errorText()));
        // The printer is on COM3: only; a port number that is not passed on reaches nothing.
        emu.mapComPort(3);
        RegSetValue(HKEY_LOCAL_MACHINE, KeyQuillbase, QStringLiteral("dwNetBoxPort"), REG_DWORD, emu.port());
        for (const QString& f : faults.split(';', Qt::SkipEmptyParts))
            QCOMPARE(emu.command(f), QString("ok"));

        QTEST(op(emu), "result");
        // A close gets no answer, so the library may return before the printer has it.
        QTRY_COMPARE_WITH_TIMEOUT(emu.log(), calls, 10000);
        const QString log = CurrentLogText();
        QVERIFY2(logLine.isEmpty() ? log.isEmpty() : log.contains(logLine), qPrintable(log));
    }
};

QTEST_GUILESS_MAIN(TestPrinters)
#include "tst_printers.moc"
