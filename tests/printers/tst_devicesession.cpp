// Device sessions against the real emulator, over TCP (network box) and over a
// pty (serial printer); the emulator's control port and command line. Line
// speed changes are in tst_deviceops (the serial rate switch).
#include "foundation/settings.h"
#include "printers/devicesession.h"
#include "printers/link.h"
#include "support/emulator.h"

#include <QProcess>
#include <QtTest>

using namespace quill;
using quill::test::Emulator;

namespace {

const QString Tcp = QStringLiteral("tcp");
const QString Pty = QStringLiteral("pty");

QString testLayout()
{
    return QStringLiteral(QUILL_SOURCE_DIR "/src/resources/0.lbl");
}

bool writeFile(const QString& path, const QByteArray& text)
{
    QFile f(path);
    return f.open(QIODevice::WriteOnly | QIODevice::Truncate) && f.write(text) == text.size();
}

} // namespace

class TestDeviceSession : public QObject {
    Q_OBJECT
    QTemporaryDir config_;
    std::unique_ptr<Emulator> emu_;

    bool start(const QString& transport)
    {
        const bool ok = transport == Tcp ? emu_->startTcp() : emu_->startPty();
        if (ok && transport == Pty)
            emu_->mapComPort(1);
        return ok;
    }
    int open(DeviceSession& s, const QString& transport)
    {
        return transport == Tcp ? s.open(emu_->netDevice(), "", "m") : s.open("COM1:", "9600,n,8,1,x", "m");
    }
    static void transports()
    {
        QTest::addColumn<QString>("transport");
        QTest::newRow("tcp") << Tcp;
        QTest::newRow("pty") << Pty;
    }

private slots:
    void initTestCase()
    {
        QVERIFY(config_.isValid());
        // The COM port mapping is a per-machine setting: keep it in a private folder.
        qputenv("XDG_CONFIG_DIRS", config_.path().toLocal8Bit());
        qputenv("XDG_CONFIG_HOME", config_.filePath("user").toLocal8Bit());
    }
    void init()
    {
        emu_ = std::make_unique<Emulator>();
        emu_->setName("Kassa 2");
    }
    void cleanup() { emu_.reset(); }

    void parametersAndReplies_data() { transports(); }
    void parametersAndReplies();
    void printResults();
    void timeouts_data() { transports(); }
    void timeouts();
    void badDevices_data();
    void badDevices();
    void emulatorControlAndStartup();
};

void TestDeviceSession::parametersAndReplies()
{
    QFETCH(QString, transport);
    QVERIFY2(start(transport), qPrintable(emu_->errorText()));
    DeviceSession h;
    QCOMPARE(open(h, transport), 1);
    int v = 0;
    QCOMPARE(h.setParameter(46, 250), 1);
    QCOMPARE(h.parameter(46, &v), 1);
    QCOMPARE(v, 250);
    int c[5] = {-1, -1, -1, -1, -1};
    QCOMPARE(h.setCounter(1, 40, 1, 9, 1), 1);
    QCOMPARE(h.counter(1, &c[0], &c[1], &c[2], &c[3], &c[4]), 1);
    QCOMPARE(QList<int>(c, c + 5), (QList<int>{40, 1, 9, 1, 0}));
    QString reply;
    QCOMPARE(h.service(100, "192.168.1.40", &reply, 255), 1);
    QCOMPARE(reply, QString("192.168.1.40"));
    QCOMPARE(h.service(38153, QString(), &reply, 3), 1);
    QCOMPARE(reply, QString("MP1")); // cut to the reply buffer
    QCOMPARE(h.service(100, QString(256, '9'), &reply, 255), link::ErrGeneral);
    QVERIFY(reply.isEmpty());
    // A refused line speed leaves this side's speed alone: the session goes on.
    QCOMPARE(h.setParameter(link::ParamBaudRate, 12345), link::ErrGeneral);
    QCOMPARE(h.lockParameters(), 1);
    QCOMPARE(h.setParameter(40, 1), link::ErrGeneral);
}

void TestDeviceSession::printResults()
{
    QVERIFY2(start(Tcp), qPrintable(emu_->errorText()));
    DeviceSession h;
    QCOMPARE(open(h, Tcp), 1);
    QCOMPARE(h.identity(), QString("Kassa 2"));
    QCOMPARE(h.printLabel(1, "i"), link::ErrFile); // no layout yet
    QCOMPARE(h.sendLayout(testLayout()), 1);
    QCOMPARE(h.sendLayout(testLayout()), link::LayoutAccepted);
    QCOMPARE(h.printLabel(1, "i"), link::PrintAccepted); // variable 1 missing
    QCOMPARE(h.sendVariable("v", 1), 1);
    QCOMPARE(h.printLabel(1, "i"), 1);
    QCOMPARE(h.printLabel(0, "i"), link::ErrGeneral);
    QCOMPARE(h.sendVariable("v", 0), link::ErrGeneral);

    QCOMPARE(h.status(4), 0);
    for (const char* fault : {"paper out", "ribbon out", "head up"})
        QCOMPARE(emu_->command(fault), QString("ok"));
    QCOMPARE(h.status(4), 13);
    // Ribbon before paper before head; each fault cleared lets the next show.
    // Variable 1 went with the first print that carried it.
    const std::pair<const char*, int> clears[] = {
        {"ribbon in", link::ErrPaper}, {"paper in", link::ErrGeneral}, {"head down", link::PrintAccepted}};
    QCOMPARE(h.printLabel(1, "i"), link::ErrRibbon);
    for (auto [clear, result] : clears) {
        QCOMPARE(emu_->command(clear), QString("ok"));
        QCOMPARE(h.printLabel(1, "i"), result);
    }

    // Unparsable for the printer, beyond its memory, beyond a frame; missing.
    QTemporaryDir dir;
    const QString path = dir.filePath("5.lbl");
    const std::pair<QByteArray, int> files[] = {
        {"label 100 100\nellipse 1 2 3\n", link::ErrFile},
        {"label 100 100\n# " + QByteArray(40000, 'x') + "\n", link::ErrMemory},
        {"label 100 100\n# " + QByteArray(link::MaxFrameBytes, 'x') + "\n", link::ErrMemory}};
    for (const auto& [text, result] : files) {
        QVERIFY(writeFile(path, text));
        QCOMPARE(h.sendLayout(path), result);
    }
    QCOMPARE(h.sendLayout(dir.filePath("nope.lbl")), link::ErrFile);

    // Clearing the memory forgets the layout.
    QCOMPARE(h.init("a"), 1);
    QCOMPARE(h.printLabel(1, "i"), link::ErrFile);
}

void TestDeviceSession::timeouts()
{
    QFETCH(QString, transport);
    QVERIFY2(start(transport), qPrintable(emu_->errorText()));
    const DeviceContext fast{500};
    {
        DeviceSession h(fast);
        QCOMPARE(open(h, transport), 1);
        QCOMPARE(emu_->command("silent on"), QString("ok"));
        QCOMPARE(h.setParameter(46, 200), link::ErrComm);
    }
    DeviceSession h(fast);
    QCOMPARE(open(h, transport), link::ErrComm);
    // The silent printer still heard the calls.
    const QStringList heard = emu_->log();
    QVERIFY(heard.contains("setparam 46 200"));
    QCOMPARE(heard.count("close"), 1);

    // A late answer to an earlier call is not taken for the current one's.
    QCOMPARE(emu_->command("silent off"), QString("ok"));
    QCOMPARE(open(h, transport), 1);
    for (const char* command : {"paper out", "delay 1000"})
        QCOMPARE(emu_->command(command), QString("ok"));
    QCOMPARE(h.status(4), link::ErrComm);
    for (const char* command : {"delay 0", "paper in"})
        QCOMPARE(emu_->command(command), QString("ok"));
    QTest::qWait(700); // the late answer (status 1) comes in meanwhile
    QCOMPARE(h.status(4), 0);

    // A slow printer inside the bound is fine.
    QCOMPARE(emu_->command("delay 100"), QString("ok"));
    QCOMPARE(h.status(4), 0);
}

void TestDeviceSession::badDevices_data()
{
    QTest::addColumn<QString>("device");
    QTest::addColumn<QString>("settings");
    QTest::addColumn<int>("result");
    QTest::newRow("LPT1:") << "LPT1:" << "" << link::ErrGeneral;
    QTest::newRow("COM0:") << "COM0:" << "9600,n,8,1,x" << link::ErrGeneral;
    QTest::newRow("bad settings") << "COM1:" << "fast,n,8,1,x" << link::ErrGeneral;
    QTest::newRow("bad port") << "NETBOX:127.0.0.1#99999" << "" << link::ErrGeneral;
    QTest::newRow("no address") << "NETBOX:#23" << "" << link::ErrGeneral;
    QTest::newRow("nobody listening") << "127.0.0.1#1" << "" << link::ErrComm;
    QTest::newRow("serial port missing") << "COM4:" << "9600,n,8,1,x" << link::ErrComm;
}

void TestDeviceSession::badDevices()
{
    QFETCH(QString, device);
    QFETCH(QString, settings);
    RegSetValue(HKEY_LOCAL_MACHINE, "SOFTWARE\\Norvu\\Brixa\\Ports", "COM4", REG_SZ, config_.filePath("no-such-tty"));
    DeviceSession s;
    QTEST(s.open(device, settings, "m"), "result");
    // A session that did not open refuses every call.
    QCOMPARE(s.status(4), link::ErrGeneral);
    QCOMPARE(s.close(), link::ErrGeneral);
}

void TestDeviceSession::emulatorControlAndStartup()
{
    // A control command the emulator does not take must not pass for "ok".
    QVERIFY2(start(Tcp), qPrintable(emu_->errorText()));
    for (const char* command : {"paper sideways", "on lock", "reboot"})
        QVERIFY(emu_->command(command).startsWith("error "));
    QCOMPARE(emu_->command("RIBBON OUT"), QString("ok"));
    QCOMPARE(emu_->state().value("status").toInt(), link::StatusRibbonOut);

    // Bad command lines end the process before it is ready.
    const QStringList bad[] = {{}, {"--listen", "127.0.0.1:0", "--baud", "1234"}, {"--listen", "nowhere"}};
    for (const QStringList& args : bad) {
        QProcess p;
        p.start(QStringLiteral(QUILL_BIN_DIR "/mp104c-emulator"), args);
        QVERIFY(p.waitForFinished(10000));
        QVERIFY(p.exitCode() != 0);
        QVERIFY(!p.readAllStandardOutput().contains("ready"));
    }
}

QTEST_MAIN(TestDeviceSession)
#include "tst_devicesession.moc"
