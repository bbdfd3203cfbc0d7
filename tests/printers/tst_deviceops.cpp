// Device operations against the real mp104c-emulator, over its network box
// (TCP on 127.0.0.1) and over a pty standing in for a serial port. Every case
// compares the calls the printer received, in order.
#include "foundation/error.h"
#include "foundation/eventlog.h"
#include "foundation/messages.h"
#include "foundation/paths.h"
#include "foundation/settings.h"
#include "printers/comapi.h"
#include "printers/deviceops.h"
#include "printers/printerrecord.h"
#include "service/slots.h"
#include "shell/texts.h"
#include "support/emulator.h"

#include "support/dbfixture.h"

#include <QDir>
#include <QFile>
#include <QImage>
#include <QTcpServer>
#include <QTemporaryDir>
#include <QTest>

using namespace quill;
using quill::dbtest::CurrentLogText;
using quill::test::Emulator;

namespace {

// Message boxes as "icon: text".
class RecordingSink final : public MessageSink {
public:
    QStringList boxes;
    BoxAnswer answer = BoxAnswer::Yes;
    BoxAnswer show(const QString&, const QString& text, BoxIcon icon, BoxButtons buttons) override
    {
        const char* kind = icon == BoxIcon::Question ? "question" : icon == BoxIcon::Exclamation ? "exclamation"
                                                                                                 : "information";
        boxes << QString::fromLatin1(kind) + ": " + text;
        return buttons == BoxButtons::YesNo ? answer : BoxAnswer::Ok;
    }
};

class RecordingRows final : public PrinterRowView {
public:
    QStringList events;
    void addRow(qint32) override {}
    void updateRow(qint32) override {}
    void removeRow(qint32) override {}
    void showStatus(qint32 slot, const QString& word, const QString& text) override
    {
        events << QStringLiteral("status %1 %2|%3").arg(slot).arg(word, text);
    }
    void selectRow(qint32 slot) override { events << QStringLiteral("select %1").arg(slot); }
};

// The calls of the print settings, after the connection steps, up to the close.
QStringList printSettingsCalls(int darkness, int speed, int feed, int reverse)
{
    const QString s = QString::number(speed);
    return {"service 38153", "setparam 46 " + QString::number(darkness), "service 28351746", "setparam 2 " + s,
            "setparam 3 " + s, "setparam 4 " + s, "setparam 40 0", "setparam 23 4500",
            "setparam 24 " + QString::number(feed), "setparam 100 " + QString::number(reverse), "setparam 68 0",
            "setparam 69 0", "setparam 50 0", "getcounter 1", "setcounter 1 0 1 9 1", "lock", "service 3196",
            "close"};
}

DeviceConfig config(qint16 darkness, qint16 speed, qint32 feed = 60, qint32 reverse = 0)
{
    DeviceConfig c;
    c.darkness = darkness;
    c.speed = speed;
    c.dispensingFeed = feed;
    c.reverseFeed = reverse;
    return c;
}

PrinterSlot slotFor(qint32 connectionType, const QString& connection)
{
    PrinterSlot s;
    s.printerId = 1;
    s.connectionType = connectionType;
    s.connectionString = connection;
    s.inUse = true;
    return s;
}

QString configFailed(const QString& operation, int textId)
{
    return operation + ": Configuration failed. COMAPI Error: " + GetString(textId);
}

QString title()
{
    return GetString(9003)
        + QStringLiteral(" v%1.%2.%3").arg(QUILL_VERSION_MAJOR).arg(QUILL_VERSION_MINOR).arg(QUILL_VERSION_PATCH);
}

QStringList testPrintCalls(const QString& open)
{
    return {open, "layout 0", "var 1 " + title(), "print 1 i", "close"};
}

bool clearLog(Emulator& emu)
{
    const QStringList calls = emu.settledLog();
    return !calls.isEmpty() && calls.last() == "close" && emu.command("clear-log") == "ok";
}

void useNetBoxPort(quint16 port)
{
    RegSetValue(HKEY_LOCAL_MACHINE, KeyQuillbase, QStringLiteral("dwNetBoxPort"), REG_DWORD, port);
}

const QString Serial = QStringLiteral("COM1:");
const QString SerialSettings = QStringLiteral("9600,n,8,1,x");

} // namespace

class TestDeviceOps : public QObject {
    Q_OBJECT
    QTemporaryDir home, configDir;
    RecordingSink sink;


private slots:
    void initTestCase()
    {
        QVERIFY(home.isValid() && configDir.isValid());
        qputenv("XDG_CONFIG_DIRS", QFile::encodeName(configDir.path() + "/machine"));
        qputenv("XDG_CONFIG_HOME", QFile::encodeName(configDir.path() + "/user"));
        SetHomeDir(home.path());
        QVERIFY(QFile::copy(":/quill/0.lbl", home.filePath("0.lbl")));
        SetUseLog(true);
        LogInit("Quillbase");
        SetMessageSink(&sink);
    }
    void init()
    {
        QFile::remove(LogFilePath());
        sink.boxes.clear();
        sink.answer = BoxAnswer::Yes;
        SetSilentMode(false);
        // Calls are local round trips; a printer that does not answer is
        // given up on after this long.
        Printer_SetTimeout(1000);
    }
    void cleanupTestCase() { SetMessageSink(nullptr); }

    void adjustment_data();
    void adjustment();
    void unsupportedTypes();
    void serialRateSwitch_data();
    void serialRateSwitch();
    void reconfigureSerialPrinters();
    void networkConfiguration_data();
    void networkConfiguration();
    void dialogConfigure();
    void dialogFailures_data();
    void dialogFailures();
    void statusBits_data();
    void statusBits();
    void checkWithoutContact();
    void testPrint();
    void testPrintResults_data();
    void testPrintResults();
    void clearAndCalibrate();
    void failureMidSequence_data();
    void failureMidSequence();
    void afterSaveChecks();
};

void TestDeviceOps::adjustment_data()
{
    QTest::addColumn<int>("type");
    QTest::addColumn<int>("strobe");
    QTest::addColumn<int>("speed");
    QTest::addColumn<int>("darkness");
    QTest::addColumn<int>("speedValue");
    QTest::newRow("type 1 defaults") << 1 << 4 << 2 << 167 << 79;
    QTest::newRow("type 2 s9") << 2 << 9 << 0 << 700 << 60;
    QTest::newRow("type 3 s4 v3") << 3 << 4 << 3 << 333 << 153;
    QTest::newRow("type 8 s7 v4") << 8 << 7 << 4 << 511 << 149;
    QTest::newRow("type 9 highest") << 9 << 9 << 7 << 1000 << 150;
}

void TestDeviceOps::adjustment()
{
    QFETCH(int, type);
    QFETCH(int, strobe);
    QFETCH(int, speed);
    const DeviceAdjustment a = ConvertAdjustment(type, strobe, speed);
    QTEST(int(a.darkness), "darkness");
    QTEST(int(a.speed), "speedValue");
}

void TestDeviceOps::unsupportedTypes()
{
    // The configure button does nothing for a type without configuration
    // support: no box, no device, no log line.
    for (int type : {0, 10}) {
        QVERIFY_THROWS_EXCEPTION(Error, ConvertAdjustment(type, 4, 2));
        PrinterSettings d;
        d.printerTypeId = type;
        QVERIFY(!SrvMPConfig(d));
    }
    QVERIFY(sink.boxes.isEmpty());
    QVERIFY(CurrentLogText().isEmpty());
}

void TestDeviceOps::serialRateSwitch_data()
{
    QTest::addColumn<int>("printerRate");
    QTest::addColumn<QString>("chosenRate");
    QTest::addColumn<QStringList>("connectCalls");
    // The open at the wrong speed reaches the printer only as noise.
    QTest::newRow("printer at 57600, 9600 chosen")
        << 57600 << "9600" << QStringList{"open 57600", "status 4", "setparam 30 9600", "setparam 34 2000"};
    QTest::newRow("printer at 9600, 57600 chosen")
        << 9600 << "57600" << QStringList{"open 9600", "status 4", "setparam 30 57600", "setparam 34 2000"};
    QTest::newRow("printer already at 9600")
        << 9600 << "9600" << QStringList{"open 9600", "status 4", "setparam 34 2000"};
}

void TestDeviceOps::serialRateSwitch()
{
    QFETCH(int, printerRate);
    QFETCH(QString, chosenRate);
    QFETCH(QStringList, connectCalls);
    Emulator emu;
    QVERIFY2(emu.startPty(printerRate), qPrintable(emu.errorText()));
    emu.mapComPort(2);

    QVERIFY(SrvMPConfigCOM("2", chosenRate, config(167, 79, 75, 12)));
    QCOMPARE(emu.settledLog(), connectCalls + printSettingsCalls(167, 79, 75, 12));
    QCOMPARE(emu.state()["baud"].toInt(), chosenRate.toInt());
    QVERIFY(CurrentLogText().isEmpty());

    // The printer now answers at the chosen speed straight away.
    QVERIFY(clearLog(emu));
    QVERIFY(SrvMPConfigCOM2("COM2:", chosenRate));
    QCOMPARE(emu.settledLog(),
             (QStringList{"open " + chosenRate, "status 4", "setparam 34 2000", "lock", "service 3196", "close"}));
}

void TestDeviceOps::reconfigureSerialPrinters()
{
    Emulator emu;
    QVERIFY2(emu.startPty(9600), qPrintable(emu.errorText()));
    emu.mapComPort(1);
    emu.mapComPort(3);
    PrinterSlots slots_;
    slots_.reset();
    slots_.at(1) = slotFor(1, "COM1:#57600 ");
    slots_.at(2) = slotFor(1, "COM3:#9600");
    slots_.at(2).passive = true;
    slots_.at(4) = slotFor(2, "127.0.0.1#1");
    slots_.at(5) = slotFor(1, "COM3:#9600");
    slots_.at(5).inUse = false;
    ReConfigCOMPrinters(slots_);

    // Only slot 1: passive, network and free slots are skipped.
    QCOMPARE(emu.settledLog(), (QStringList{"open 9600", "status 4", "setparam 30 57600", "setparam 34 2000", "lock",
                                            "service 3196", "close"}));
    QCOMPARE(emu.state()["baud"].toInt(), 57600);
}

void TestDeviceOps::networkConfiguration_data()
{
    QTest::addColumn<bool>("connectOnly");
    QTest::addColumn<bool>("loaded");
    QTest::addColumn<QStringList>("connectCalls");
    const QStringList address{"service 100 10.1.2.3", "service 102 0.0.0.0", "service 110 0.0.0.0"};
    QTest::newRow("connect only") << true << true << QStringList{"open", "status 4"};
    QTest::newRow("box at its loaded address") << false << true << QStringList{"open", "status 4"} + address;
    QTest::newRow("new box, through the serial port")
        << false << false << QStringList{"open 9600", "status 4"} + address;
}

void TestDeviceOps::networkConfiguration()
{
    QFETCH(bool, connectOnly);
    QFETCH(bool, loaded);
    QFETCH(QStringList, connectCalls);
    Emulator emu;
    QVERIFY2(emu.startBoth(9600), qPrintable(emu.errorText()));
    emu.mapComPort(1);
    useNetBoxPort(emu.port());

    QVERIFY(SrvMPConfigNET("10.1.2.3", loaded ? "127.0.0.1" : "", connectOnly, "1", "9600", config(700, 60, 40, 5)));
    QCOMPARE(emu.settledLog(), connectCalls + printSettingsCalls(700, 60, 40, 5));
    // Only a box without a known address is asked about.
    const QString question = GetString(12036) + "\r" + GetString(12037) + "\r\r" + GetString(12017);
    QCOMPARE(sink.boxes, loaded ? QStringList() : QStringList{"question: " + question});
    QVERIFY(CurrentLogText().isEmpty());
}

void TestDeviceOps::dialogConfigure()
{
    Emulator emu;
    QVERIFY2(emu.startBoth(9600), qPrintable(emu.errorText()));
    emu.mapComPort(4);
    useNetBoxPort(emu.port());

    // Serial, type 2, highest steps, advanced settings with an empty feed.
    PrinterSettings d;
    d.printerTypeId = 2;
    d.comPort = 4;
    d.strobe = 9;
    d.speed = 7;
    d.advancedSettings = "1;;30";
    QVERIFY(SrvMPConfig(d));
    QCOMPARE(emu.settledLog(),
             QStringList({"open 9600", "status 4", "setparam 34 2000"}) + printSettingsCalls(700, 125, 60, 30));

    // Network with nothing selected in the lists: type 1 and the default
    // steps; the box's new address becomes the loaded one.
    QVERIFY(clearLog(emu));
    d = PrinterSettings();
    d.printerTypeId.reset();
    d.strobe.reset();
    d.speed.reset();
    d.serial = false;
    d.netAddress = "10.0.0.7";
    d.loadedAddress = " 127.0.0.1 ";
    QVERIFY(SrvMPConfig(d));
    QCOMPARE(d.loadedAddress, QString("10.0.0.7"));
    QCOMPARE(emu.settledLog(), QStringList({"open", "status 4", "service 100 10.0.0.7", "service 102 0.0.0.0",
                                            "service 110 0.0.0.0"}) + printSettingsCalls(167, 79, 60, 0));
    QVERIFY(sink.boxes.isEmpty());
}

void TestDeviceOps::dialogFailures_data()
{
    QTest::addColumn<bool>("serial");
    QTest::addColumn<QString>("address");
    QTest::addColumn<QString>("loaded");
    QTest::addColumn<bool>("silent");
    QTest::addColumn<QStringList>("boxes");
    QTest::addColumn<QString>("logLine");
    const QString netFailed = "exclamation: " + GetString(12034) + "\r" + GetString(12035);
    const QString question = GetString(12036) + "\r" + GetString(12037) + "\r\r" + GetString(12017);
    QTest::newRow("serial printer not there") << true << "" << "" << false
                                              << QStringList{"information: " + GetString(12032)}
                                              << configFailed("SrvMPConfigCOM", 13003);
    QTest::newRow("no address") << false << "   " << "" << false
                                << QStringList{"information: " + GetString(12033)} << "";
    // No loaded address: the operator is asked first; a No is no device failure.
    QTest::newRow("new box, question declined")
        << false << " 10.1.2.3 " << "" << false << QStringList{"question: " + question, netFailed} << "";
    QTest::newRow("box unreachable, connect only") << false << "10.9.9.9" << "127.0.0.1" << false
                                                   << QStringList{netFailed} << configFailed("SrvMPConfigNET", 13003);
    QTest::newRow("the same in silent mode") << false << "10.9.9.9" << "127.0.0.1" << true << QStringList{}
                                             << configFailed("SrvMPConfigNET", 13003);
}

void TestDeviceOps::dialogFailures()
{
    QFETCH(QString, loaded);
    QFETCH(QString, logLine);
    RegSetValue(HKEY_LOCAL_MACHINE, "SOFTWARE\\Norvu\\Brixa\\Ports", "COM1", REG_SZ, home.filePath("no-such-tty"));
    quint16 deadPort = 0;
    {
        QTcpServer s;
        QVERIFY(s.listen(QHostAddress::LocalHost));
        deadPort = s.serverPort();
    }
    useNetBoxPort(deadPort);
    sink.answer = BoxAnswer::No;
    QFETCH(bool, silent);
    SetSilentMode(silent);

    PrinterSettings d;
    QFETCH(bool, serial);
    d.serial = serial;
    QFETCH(QString, address);
    d.netAddress = address;
    d.loadedAddress = loaded;
    d.netConnectOnly = !loaded.isEmpty();
    QVERIFY(!SrvMPConfig(d));
    QTEST(sink.boxes, "boxes");
    QCOMPARE(d.loadedAddress, loaded);
    if (logLine.isEmpty())
        QVERIFY2(CurrentLogText().isEmpty(), qPrintable(CurrentLogText()));
    else
        QVERIFY2(CurrentLogText().contains(logLine), qPrintable(CurrentLogText()));
}

void TestDeviceOps::statusBits_data()
{
    QTest::addColumn<bool>("serial");
    QTest::addColumn<QStringList>("faults");
    QTest::addColumn<QString>("result");
    QTest::newRow("ready") << false << QStringList{} << "OK\t";
    QTest::newRow("paper out") << false << QStringList{"paper out"} << "ERR\t" + GetString(13005);
    QTest::newRow("ribbon out") << false << QStringList{"ribbon out"} << "ERR\t" + GetString(13009);
    QTest::newRow("head up") << false << QStringList{"head up"} << "ERR\t" + GetString(13010);
    QTest::newRow("ribbon before paper") << false << QStringList{"paper out", "ribbon out"}
                                         << "ERR\t" + GetString(13009);
    QTest::newRow("paper before head") << true << QStringList{"head up", "paper out"} << "ERR\t" + GetString(13005);
    QTest::newRow("serial ready") << true << QStringList{} << "OK\t";
}

void TestDeviceOps::statusBits()
{
    QFETCH(bool, serial);
    QFETCH(QStringList, faults);
    Emulator emu;
    QVERIFY2(serial ? emu.startPty(9600) : emu.startTcp(), qPrintable(emu.errorText()));
    emu.mapComPort(1);
    for (const QString& f : faults)
        QCOMPARE(emu.command(f), QString("ok"));
    QTEST(SrvMPCheck(serial ? slotFor(1, "COM1:#9600") : slotFor(2, emu.bareDevice())), "result");
    QCOMPARE(emu.settledLog(), (QStringList{serial ? "open 9600" : "open", "status 4", "close"}));
}

void TestDeviceOps::checkWithoutContact()
{
    const QString noContact = "ERR\t" + GetString(12038);
    QCOMPARE(SrvMPCheck(slotFor(3, "COM1:#9600")), noContact);
    QCOMPARE(SrvMPCheck(slotFor(0, "")), noContact);
    RegSetValue(HKEY_LOCAL_MACHINE, "SOFTWARE\\Norvu\\Brixa\\Ports", "COM2", REG_SZ, home.filePath("no-such-tty"));
    QCOMPARE(SrvMPCheck(slotFor(1, "COM2:#9600")), noContact);
    QCOMPARE(SrvMPTestPrint("COM2:", SerialSettings), noContact);
    QCOMPARE(SrvMPClear("COM2:", SerialSettings), noContact);
    QCOMPARE(SrvMPCal("COM2:", SerialSettings), noContact);
}

void TestDeviceOps::testPrint()
{
    QTemporaryDir out;
    Emulator emu;
    emu.setOutDir(out.path());
    QVERIFY2(emu.startTcp(), qPrintable(emu.errorText()));

    // The dialog's values, with blanks around them, name the bare box.
    PrinterSettings d;
    d.serial = false;
    d.netAddress = " 127.0.0.1 ";
    d.netPort = QString::number(emu.port()) + " ";
    QString device, settings;
    DialogDevice(d, &device, &settings);
    QCOMPARE(device, emu.bareDevice());
    QCOMPARE(settings, QString());

    QCOMPARE(SrvMPTestPrint(device, settings), QString("OK\t"));
    QCOMPARE(TestPrintTitle(), title());
    QCOMPARE(emu.settledLog(), testPrintCalls("open"));
    const QStringList pngs = QDir(out.path()).entryList({"*.png"});
    QCOMPARE(pngs.size(), 1);
    const QImage label(out.filePath(pngs[0]));
    QCOMPARE(label.size(), QSize(480, 320));
    // Where the title line and its barcode land is tst_label's business.
    // QUILL_TESTPRINT_PNG=file keeps the emulator's label for a look.
    if (!qEnvironmentVariableIsEmpty("QUILL_TESTPRINT_PNG")) {
        QFile::remove(qEnvironmentVariable("QUILL_TESTPRINT_PNG"));
        QVERIFY(QFile::copy(out.filePath(pngs[0]), qEnvironmentVariable("QUILL_TESTPRINT_PNG")));
    }
}

void TestDeviceOps::testPrintResults_data()
{
    QTest::addColumn<bool>("serial");
    QTest::addColumn<QString>("fault");
    QTest::addColumn<QByteArray>("layout"); // empty: the installed 0.lbl; "-": none
    QTest::addColumn<bool>("again");        // the printer holds the layout already
    QTest::addColumn<QString>("result");
    QTest::addColumn<QStringList>("calls");
    QTest::newRow("paper out") << false << "paper out" << QByteArray() << false << "ERR\t" + GetString(13005)
                               << testPrintCalls("open");
    QTest::newRow("ribbon out") << true << "ribbon out" << QByteArray() << false << "ERR\t" + GetString(13009)
                                << testPrintCalls("open 9600");
    QTest::newRow("no test layout") << false << "" << QByteArray("-") << false << "ERR\t" + GetString(13004)
                                    << QStringList{"open", "close"};
    QTest::newRow("same layout again: -7") << true << "" << QByteArray() << true << "OK\t"
                                           << testPrintCalls("open 9600");
    QTest::newRow("variable 2 never sent: -6")
        << false << "" << QByteArray("label 200 100\ntext 10 10 20 \"{1}\"\ntext 10 50 20 \"{2}\"\n") << false
        << "OK\t" << testPrintCalls("open");
}

void TestDeviceOps::testPrintResults()
{
    QFETCH(bool, serial);
    QFETCH(QString, fault);
    QFETCH(QByteArray, layout);
    QFETCH(bool, again);
    Emulator emu;
    QVERIFY2(serial ? emu.startPty(9600) : emu.startTcp(), qPrintable(emu.errorText()));
    emu.mapComPort(1);
    const QString device = serial ? Serial : emu.bareDevice();
    const QString settings = serial ? SerialSettings : QString();
    if (again) {
        QCOMPARE(SrvMPTestPrint(device, settings), QString("OK\t"));
        QVERIFY(clearLog(emu));
    }
    if (!fault.isEmpty())
        QCOMPARE(emu.command(fault), QString("ok"));
    QTemporaryDir other;
    QFile f(other.filePath("0.lbl"));
    QVERIFY(layout == "-" || layout.isEmpty() || (f.open(QIODevice::WriteOnly) && f.write(layout) == layout.size()));
    f.close();
    SetHomeDir(layout.isEmpty() ? home.path() : other.path());
    const QString result = SrvMPTestPrint(" " + device + " ", " " + settings + " ");
    SetHomeDir(home.path());
    QTEST(result, "result");
    QTEST(emu.settledLog(), "calls");
}

void TestDeviceOps::clearAndCalibrate()
{
    Emulator emu;
    QVERIFY2(emu.startPty(57600), qPrintable(emu.errorText()));
    emu.mapComPort(1);
    const QString settings = "57600,n,8,1,x";
    QCOMPARE(SrvMPTestPrint(Serial, settings), QString("OK\t"));
    QVERIFY(clearLog(emu));
    QCOMPARE(SrvMPClear(Serial, settings), QString("OK\t"));
    QCOMPARE(emu.settledLog(), (QStringList{"open 57600", "init a", "close"}));
    QVERIFY(emu.state()["layout"].isNull());
    QVERIFY(clearLog(emu));
    QCOMPARE(SrvMPCal(Serial, settings), QString("OK\t"));
    QCOMPARE(emu.settledLog(), (QStringList{"open 57600", "service 44", "lock", "service 3196", "close"}));
}

void TestDeviceOps::failureMidSequence_data()
{
    QTest::addColumn<bool>("serial");
    QTest::addColumn<QString>("fault");
    QTest::addColumn<QString>("operation");
    QTest::addColumn<QStringList>("calls");
    const QStringList settings = printSettingsCalls(167, 79, 60, 0);
    // Each open is heard and goes unanswered; the retry at 57600 is noise.
    QTest::newRow("silent printer") << true << "silent on" << "SrvMPConfigCOM" << QStringList{"open 9600"};
    QTest::newRow("silent printer, re-configuration") << true << "silent on" << "SrvMPConfigCOM2"
                                                      << QStringList{"open 9600"};
    // A printer that is still there hears the close.
    QTest::newRow("serial printer falls silent")
        << true << "on service 28351746 silent" << "SrvMPConfigCOM"
        << QStringList{"open 9600", "status 4", "setparam 34 2000"} + settings.mid(0, 3) + QStringList{"close"};
    QTest::newRow("serial printer removed") << true << "on lock unplug" << "SrvMPConfigCOM2"
                                            << QStringList{"open 9600", "status 4", "setparam 34 2000", "lock"};
    QTest::newRow("network box removed") << false << "on setparam 46 unplug" << "SrvMPConfigNET"
                                         << QStringList{"open", "status 4"} + settings.mid(0, 2);
}

void TestDeviceOps::failureMidSequence()
{
    QFETCH(bool, serial);
    QFETCH(QString, fault);
    QFETCH(QString, operation);
    QFETCH(QStringList, calls);
    Emulator emu;
    QVERIFY2(serial ? emu.startPty(9600) : emu.startTcp(), qPrintable(emu.errorText()));
    emu.mapComPort(1);
    useNetBoxPort(emu.port());
    QCOMPARE(emu.command(fault), QString("ok"));
    if (fault == "silent on")
        Printer_SetTimeout(300); // nothing is going to answer

    bool ok = true;
    if (operation == "SrvMPConfigCOM")
        ok = SrvMPConfigCOM("1", "9600", config(167, 79));
    else if (operation == "SrvMPConfigCOM2")
        ok = SrvMPConfigCOM2(Serial, "9600");
    else
        ok = SrvMPConfigNET("", "127.0.0.1", true, "1", "9600", config(167, 79));
    QVERIFY(!ok);
    QCOMPARE(calls.last() == "close" ? emu.settledLog() : emu.log(), calls);
    QVERIFY2(CurrentLogText().contains(configFailed(operation, 13003)), qPrintable(CurrentLogText()));

    Printer_SetTimeout(300); // silent or gone: nothing will answer
    QCOMPARE(SrvMPCheck(serial ? slotFor(1, "COM1:#9600") : slotFor(2, emu.bareDevice())),
             "ERR\t" + GetString(12038));
}

void TestDeviceOps::afterSaveChecks()
{
    Emulator emu;
    QVERIFY2(emu.startTcp(), qPrintable(emu.errorText()));
    PrinterSlots slots_;
    slots_.reset();
    slots_.at(3) = slotFor(2, emu.bareDevice());
    slots_.at(3).printerId = 3;
    slots_.SrvSetPrinterStatus(3, StatusConfiguring, GetString(12074));
    RecordingRows rows;

    SrvInitPrinterAfterConfig(slots_, 3, &rows);
    QCOMPARE(slots_.at(3).status, qint32(StatusReady));
    QCOMPARE(slots_.at(3).statusText.trimmed(), GetString(12079));
    QCOMPARE(slots_.at(3).prevStatus, qint32(StatusChecking));
    QCOMPARE(rows.events, (QStringList{"status 3 " + GetString(12080) + "|" + GetString(12050), "select 3",
                                       "status 3 " + GetString(12079) + "|" + GetString(12051), "select 3"}));

    rows.events.clear();
    QCOMPARE(emu.command("paper out"), QString("ok"));
    SrvInitPrinterAfterConfig(slots_, 3, &rows);
    QCOMPARE(slots_.at(3).status, qint32(StatusError));
    QCOMPARE(slots_.at(3).statusText.trimmed(), GetString(13005));
    QCOMPARE(rows.events.value(2), "status 3 " + GetString(12082) + "|" + GetString(13005));

    // Passive: no device call at all.
    QVERIFY(clearLog(emu));
    SrvPassivePrinterAfterConfig(slots_, 3, nullptr);
    QCOMPARE(slots_.at(3).status, qint32(StatusPassive));
    QVERIFY(emu.log().isEmpty());

    // A slot number outside the table is trapped and logged.
    SrvInitPrinterAfterConfig(slots_, 9, nullptr);
    QVERIFY(CurrentLogText().contains("SrvInitPrinterAfterConfig failed. PId = 9 Error: 9 Subscript out of range"));
}

QTEST_GUILESS_MAIN(TestDeviceOps)
#include "tst_deviceops.moc"
