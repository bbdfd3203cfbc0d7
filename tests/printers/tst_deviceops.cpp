// Device sessions and device operations against the real mp104c-emulator,
// over its network box (TCP on 127.0.0.1) and over a pty standing in for a
// serial port. Every operation compares the calls the printer received, in order.
#include "foundation/eventlog.h"
#include "foundation/paths.h"
#include "foundation/settings.h"
#include "printers/deviceops.h"
#include "printers/devicesession.h"
#include "printers/link.h"
#include "printers/printerrecord.h"
#include "database/slots.h"
#include "foundation/texts.h"
#include "support/dbfixture.h"
#include "support/emulator.h"

#include <QDir>
#include <QFile>
#include <QTemporaryDir>
#include <QTest>

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

PrinterSettings netDialog(const QString& address, const QString& loaded, bool connectOnly = false)
{
    return {.serial = false, .netAddress = address, .loadedAddress = loaded, .netConnectOnly = connectOnly};
}

// One operation on the printer: its result, or "configured" / "failed".
using Op = std::function<QString(const Emulator&)>;

QString done(bool ok)
{
    return ok ? "configured" : "failed";
}

Op configCOM(const QString& port, const QString& rate, const DeviceConfig& c = {167, 79})
{
    return [=](const Emulator&) { return done(SrvMPConfigCOM(ctx, port, rate, c)); };
}

QString resultName(ConfigResult r)
{
    static const char* const names[] = {"configured", "not configurable", "serial failed", "no address",
                                        "network failed", "needs serial", "trapped"};
    return names[int(r)];
}

// The dialog's configure button; also shows the loaded address it leaves.
Op configDialog(PrinterSettings d)
{
    return [=](const Emulator&) mutable {
        const ConfigResult r = ConfigureDevice(ctx, d);
        return resultName(r) + (d.loadedAddress.isEmpty() ? QString() : ", loaded " + d.loadedAddress);
    };
}

// The status check of a slot on COM3: at 9600, or of one on the box.
Op check(qint32 connectionType)
{
    return [=](const Emulator& e) {
        return SrvMPCheck(ctx, slotFor(connectionType, connectionType == ConnectionNetwork ? e.bareDevice() : "COM3:#9600"));
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

QString slotState(qint32 status, qint32 prev, const QString& text, const QStringList& events)
{
    return QStringList{QString::number(status), QString::number(prev), text}.join(' ') + "; " + events.join("; ");
}

// The check after a save of printer 3, on the box. Shows its status, previous
// status and text, then what its list row was told.
QString afterSave(const Emulator& e)
{
    PrinterSlots slots_;
    slots_.reset();
    PrinterSlot box = slotFor(2, e.bareDevice());
    box.printerId = 3;
    slots_.setPrinter(3, box);
    slots_.SrvSetPrinterStatus(3, StatusConfiguring, GetString(12074));
    quill::dbtest::SlotEvents rows(slots_);
    if (StartAfterConfigCheck(slots_, 3))
        FinishAfterConfigCheck(slots_, 3, SrvMPCheck(ctx, slots_.at(3)));
    const PrinterSlot& s = slots_.at(3);
    return slotState(s.status, s.prevStatus, s.statusText.trimmed(), rows.events);
}

} // namespace

class TestDeviceOps : public QObject {
    Q_OBJECT
    QTemporaryDir home, configDir;
    std::unique_ptr<Emulator> emu_;

private slots:
    void initTestCase()
    {
        QVERIFY(home.isValid() && configDir.isValid());
        qputenv("XDG_CONFIG_DIRS", QFile::encodeName(configDir.path() + "/machine"));
        qputenv("XDG_CONFIG_HOME", QFile::encodeName(configDir.path() + "/user"));
        SetHomeDir(home.path());
        SetUseLog(true);
        LogInit("Quillbase");
    }
    void init()
    {
        QFile::remove(LogFilePath());
        QFile::remove(home.filePath("0.lbl"));
        QVERIFY(QFile::copy(":/quill/0.lbl", home.filePath("0.lbl")));
        emu_ = std::make_unique<Emulator>();
    }
    void cleanup() { emu_.reset(); }

    // On the serial line, where a refused line speed matters.
    void parametersAndReplies()
    {
        QVERIFY2(emu_->startPty(), qPrintable(emu_->errorText()));
        emu_->mapComPort(1);
        DeviceSession h;
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
        QTemporaryDir dir;
        QVERIFY(writeFile(dir.filePath("5.lbl"), "label 100 100\n# " + QByteArray(link::MaxFrameBytes, 'x') + "\n"));
        QCOMPARE(h.sendLayout(dir.filePath("5.lbl")), link::ErrMemory);
        // A control command the emulator does not take must not pass for "ok".
        QVERIFY(emu_->command("paper sideways").startsWith("error "));
    }

    void timeouts()
    {
        // On the box: the serial line's silence is the configuration's below.
        QVERIFY2(emu_->startTcp(), qPrintable(emu_->errorText()));
        const DeviceContext fast{500};
        {
            DeviceSession h(fast);
            QCOMPARE(h.open(emu_->netDevice(), "", "m"), 1);
            QCOMPARE(emu_->command("silent on"), QString("ok"));
            QCOMPARE(h.setParameter(46, 200), link::ErrComm);
        }
        DeviceSession h(fast);
        QCOMPARE(h.open(emu_->netDevice(), "", "m"), link::ErrComm);
        // The silent printer still heard the calls.
        const QStringList heard = emu_->log();
        QVERIFY(heard.contains("setparam 46 200"));
        QCOMPARE(heard.count("close"), 1);

        // A late answer to an earlier call is not taken for the current one's.
        QCOMPARE(emu_->command("silent off"), QString("ok"));
        QCOMPARE(h.open(emu_->netDevice(), "", "m"), 1);
        for (const char* command : {"paper out", "delay 1000"})
            QCOMPARE(emu_->command(command), QString("ok"));
        QCOMPARE(h.status(4), link::ErrComm);
        for (const char* command : {"delay 0", "paper in"})
            QCOMPARE(emu_->command(command), QString("ok"));
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
            << 57600 << "" << configCOM("3", "9600", {167, 79, 75, 12}) << "configured"
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
        PrinterSettings d = netDialog("10.0.0.7", " 127.0.0.1 ");
        d.printerTypeId = d.strobe = d.speed = std::nullopt;
        QTest::newRow("dialog, network at the loaded address, nothing selected")
            << 9600 << "" << configDialog(d) << "configured, loaded 10.0.0.7"
            << fromNet + QStringList{"service 100 10.0.0.7", "service 102 0.0.0.0", "service 110 0.0.0.0"} + settings
            << "";
        QTest::newRow("dialog, serial printer removed")
            << 9600 << "on open 9600 unplug" << configDialog({.comPort = 3}) << "serial failed"
            << openOnly << configFailed("SrvMPConfigCOM");
        // Not reached at its loaded address: the operator is asked first. A
        // failure keeps the loaded address.
        QTest::newRow("dialog, box removed")
            << 9600 << "on open unplug" << configDialog(netDialog(" 10.1.2.3 ", "127.0.0.1"))
            << "needs serial, loaded 127.0.0.1" << QStringList{"open"} << "";
        QTest::newRow("dialog, box removed, connect only")
            << 9600 << "on open unplug" << configDialog(netDialog("10.9.9.9", "127.0.0.1", true))
            << "network failed, loaded 127.0.0.1" << QStringList{"open"} << configFailed("SrvMPConfigNET");

        // The silent printer: one call goes unanswered, and the printer, still
        // there, hears the close.
        QTest::newRow("serial printer falls silent")
            << 9600 << "on service 28351746 silent" << configCOM("3", "9600") << "failed"
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

        // Which fault wins is the status word's mapping (strutil); here the call
        // through each connection kind, and no connection at all.
        const QStringList netChecked = fromNet + QStringList{"close"};
        QTest::newRow("status ready") << 9600 << "" << check(2) << ok << netChecked << "";
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

        const QString checking = "status 3 " + GetString(12080);
        QTest::newRow("after save, ready")
            << 9600 << "" << Op(afterSave)
            << slotState(StatusReady, StatusChecking, GetString(12079), {checking, "status 3 " + GetString(12079)})
            << netChecked << "";
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

QTEST_GUILESS_MAIN(TestDeviceOps)
#include "tst_deviceops.moc"
