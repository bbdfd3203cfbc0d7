// Device library against the real emulator, over TCP (network box) and over a
// pty (serial printer); the emulator's control port and command line. Line
// speed changes are in tst_deviceops (the serial rate switch).
#include "foundation/settings.h"
#include "printers/comapi.h"
#include "printers/link.h"
#include "support/emulator.h"

#include <QImage>
#include <QJsonArray>
#include <QJsonDocument>
#include <QProcess>
#include <QtTest>

using namespace quill;
using quill::test::Emulator;

namespace {

const QString Tcp = QStringLiteral("tcp");
const QString Pty = QStringLiteral("pty");
const QString Title = QStringLiteral("Brixa - Printerserver v1.0.0");

QString testLayout()
{
    return QStringLiteral(QUILL_SOURCE_DIR "/src/resources/0.lbl");
}

} // namespace

class TestComapi : public QObject {
    Q_OBJECT
    QTemporaryDir config_;
    std::unique_ptr<Emulator> emu_;
    std::unique_ptr<QTemporaryDir> out_;

    bool start(const QString& transport, int baud = 9600)
    {
        const bool ok = transport == Tcp ? emu_->startTcp(baud) : emu_->startPty(baud);
        if (ok && transport == Pty)
            emu_->mapComPort(1);
        if (!ok)
            qWarning() << emu_->errorText();
        return ok;
    }
    int open(const QString& transport, int baud = 9600)
    {
        if (transport == Tcp)
            return Printer_Open(emu_->netDevice(), "", "m");
        return Printer_Open("COM1:", QString("%1,n,8,1,x").arg(baud), "m");
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
        Printer_SetTimeout(3000);
        emu_ = std::make_unique<Emulator>();
        out_ = std::make_unique<QTemporaryDir>();
        emu_->setOutDir(out_->path());
        emu_->setName("Kassa 2");
    }
    void cleanup()
    {
        emu_.reset();
        out_.reset();
    }

    void faultsStopPrinting();
    void printerKeepsItsSettings_data() { transports(); }
    void printerKeepsItsSettings();
    void layoutResults();
    void printedLabelImageAndSidecar();
    void timeouts_data() { transports(); }
    void timeouts();
    void badDevicesAndHandles_data();
    void badDevicesAndHandles();
    void emulatorControlAndStartup();
};

void TestComapi::faultsStopPrinting()
{
    QVERIFY(start(Tcp));
    const int h = open(Tcp);
    QVERIFY2(h >= 1, qPrintable(QString::number(h)));
    QCOMPARE(Printer_Identity(h), QString("Kassa 2"));
    QCOMPARE(Printer_GetStatus(h, 4), 0);
    QCOMPARE(Printer_SendLayout(h, testLayout()), 1);
    QCOMPARE(Printer_SendVariable(h, Title, 1), 1);
    for (const char* fault : {"paper out", "ribbon out", "head up"})
        QCOMPARE(emu_->command(fault), QString("ok"));
    QCOMPARE(Printer_GetStatus(h, 4), 13);
    // Ribbon before paper before head; each fault cleared lets the next show.
    const std::pair<const char*, int> clears[] = {
        {"ribbon in", link::ErrPaper}, {"paper in", link::ErrGeneral}, {"head down", 1}};
    QCOMPARE(Printer_PrintLabel(h, 1, "i"), link::ErrRibbon);
    for (auto [clear, result] : clears) {
        QCOMPARE(emu_->command(clear), QString("ok"));
        QCOMPARE(Printer_PrintLabel(h, 1, "i"), result);
    }
    QCOMPARE(emu_->state()["printed"].toInt(), 1);
    QCOMPARE(QDir(out_->path()).entryList({"*.png"}).size(), 1);
    Printer_Close(h);
}

void TestComapi::printerKeepsItsSettings()
{
    QFETCH(QString, transport);
    QVERIFY(start(transport));
    int h = open(transport);
    QVERIFY(h >= 1);
    QString reply;
    QCOMPARE(Printer_SetParameter(h, 46, 250), 1);
    QCOMPARE(Printer_SetCounter(h, 1, 40, 1, 9, 1), 1);
    QCOMPARE(Printer_ServiceCommand(h, 100, QStringLiteral("192.168.1.40"), &reply, 255), 1);
    QCOMPARE(reply, QStringLiteral("192.168.1.40"));
    QCOMPARE(Printer_ServiceCommand(h, 38153, QString(), &reply, 3), 1);
    QCOMPARE(reply, QStringLiteral("MP1")); // cut to the reply buffer
    QCOMPARE(Printer_SetParameter(h, link::ParamBaudRate, 12345), link::ErrGeneral); // no such rate
    QCOMPARE(Printer_LockParameters(h), 1);
    QCOMPARE(Printer_SetParameter(h, 40, 1), link::ErrGeneral);
    Printer_Close(h);

    // A new session: parameters, counter and box address are kept, the lock is not.
    h = open(transport);
    QVERIFY(h >= 1);
    int v = 0;
    QCOMPARE(Printer_GetParameter(h, 46, &v), 1);
    QCOMPARE(v, 250);
    int c[5] = {-1, -1, -1, -1, -1};
    QCOMPARE(Printer_GetCounter(h, 1, &c[0], &c[1], &c[2], &c[3], &c[4]), 1);
    QCOMPARE(QList<int>(c, c + 5), (QList<int>{40, 1, 9, 1, 0}));
    QCOMPARE(Printer_ServiceCommand(h, 100, QString(), &reply, 255), 1);
    QCOMPARE(reply, QStringLiteral("192.168.1.40"));
    QCOMPARE(Printer_SetParameter(h, 40, 1), 1);

    // Numbers and texts out of range are refused.
    QCOMPARE(Printer_SetParameter(h, 0, 1), link::ErrGeneral);
    QCOMPARE(Printer_SetParameter(h, 1000, 1), link::ErrGeneral);
    QCOMPARE(Printer_GetCounter(h, 10, &c[0], nullptr, nullptr, nullptr, nullptr), link::ErrGeneral);
    QCOMPARE(Printer_ServiceCommand(h, 100, QString(256, QLatin1Char('9')), &reply, 255), link::ErrGeneral);
    QVERIFY(reply.isEmpty());
    Printer_Close(h);
}

void TestComapi::layoutResults()
{
    QVERIFY(start(Tcp));
    const int h = open(Tcp);
    QVERIFY(h >= 1);
    QCOMPARE(Printer_PrintLabel(h, 1, QStringLiteral("i")), link::ErrFile); // no layout yet
    QCOMPARE(Printer_SendLayout(h, testLayout()), 1);
    QCOMPARE(Printer_SendLayout(h, testLayout()), link::LayoutAccepted);
    QCOMPARE(Printer_PrintLabel(h, 1, QStringLiteral("i")), link::PrintAccepted); // variable 1 missing
    QCOMPARE(Printer_SendVariable(h, QStringLiteral("v"), 1), 1);
    QCOMPARE(Printer_PrintLabel(h, 1, QStringLiteral("i")), 1);
    QCOMPARE(Printer_PrintLabel(h, 0, QStringLiteral("i")), link::ErrGeneral);
    QCOMPARE(Printer_SendVariable(h, QStringLiteral("v"), 0), link::ErrGeneral);

    QTemporaryDir dir;
    const QString path = dir.filePath(QStringLiteral("5.lbl"));
    auto write = [&path](const QByteArray& text) {
        QFile f(path);
        return f.open(QIODevice::WriteOnly | QIODevice::Truncate) && f.write(text) == text.size();
    };
    QVERIFY(write("label 100 100\nellipse 1 2 3\n"));
    QCOMPARE(Printer_SendLayout(h, path), link::ErrFile); // the printer cannot parse it
    QCOMPARE(Printer_SendLayout(h, dir.filePath(QStringLiteral("nope.lbl"))), link::ErrFile);
    QVERIFY(write("label 100 100\n# " + QByteArray(40000, 'x') + "\n"));
    QCOMPARE(Printer_SendLayout(h, path), link::ErrMemory); // beyond the printer's memory
    QVERIFY(write("label 100 100\n# " + QByteArray(link::MaxFrameBytes, 'x') + "\n"));
    QCOMPARE(Printer_SendLayout(h, path), link::ErrMemory); // beyond a frame

    // Clearing the memory forgets the layout.
    QCOMPARE(Printer_Init(h, QStringLiteral("a")), 1);
    QCOMPARE(Printer_PrintLabel(h, 1, QStringLiteral("i")), link::ErrFile);
    QCOMPARE(Printer_SendLayout(h, testLayout()), 1);
    Printer_Close(h);
}

void TestComapi::printedLabelImageAndSidecar()
{
    QVERIFY(start(Tcp));
    const int h = open(Tcp);
    QVERIFY(h >= 1);
    QCOMPARE(Printer_SetParameter(h, 46, 233), 1);
    for (int p : {2, 3, 4})
        QCOMPARE(Printer_SetParameter(h, p, 88), 1);
    QCOMPARE(Printer_SetParameter(h, 100, 5), 1);
    QCOMPARE(Printer_SendLayout(h, testLayout()), 1);
    QCOMPARE(Printer_SendVariable(h, Title, 1), 1);
    QCOMPARE(Printer_PrintLabel(h, 2, QStringLiteral("i")), 2);
    int c[5] = {};
    QCOMPARE(Printer_GetCounter(h, 1, &c[0], &c[1], &c[2], &c[3], &c[4]), 1);
    QCOMPARE(c[0], 2);
    QCOMPARE(c[4], 2);
    Printer_Close(h);

    const QStringList pngs = QDir(out_->path()).entryList({QStringLiteral("*.png")}, QDir::Files, QDir::Name);
    QCOMPARE(pngs.size(), 2);
    for (int i = 0; i < 2; ++i) {
        QCOMPARE(QImage(out_->filePath(pngs[i])).size(), QSize(480, 320));
        QFile f(out_->filePath(QString(pngs[i]).replace(QLatin1String(".png"), QLatin1String(".json"))));
        QVERIFY(f.open(QIODevice::ReadOnly));
        const QJsonObject expected{
            {"image", pngs[i]}, {"template", "0"}, {"variables", QJsonObject{{"1", Title}}},
            {"copy", i + 1}, {"copies", 2}, {"darkness", 233}, {"speed", QJsonArray{88, 88, 88}},
            {"feeds", QJsonObject{{"dispensing", 60}, {"reverse", 5}}}};
        QCOMPARE(QJsonDocument::fromJson(f.readAll()).object(), expected);
    }
}

void TestComapi::timeouts()
{
    QFETCH(QString, transport);
    QVERIFY(start(transport));
    Printer_SetTimeout(500);
    int h = open(transport);
    QVERIFY(h >= 1);
    QCOMPARE(emu_->command(QStringLiteral("silent on")), QStringLiteral("ok"));
    QCOMPARE(Printer_SetParameter(h, 46, 200), link::ErrComm);
    Printer_Close(h);
    QCOMPARE(open(transport), link::ErrComm);
    // The silent printer still heard the calls.
    const QStringList heard = emu_->log();
    QVERIFY(heard.contains(QStringLiteral("setparam 46 200")));
    QCOMPARE(heard.count(QStringLiteral("close")), 1);

    // A late answer to an earlier call is not taken for the current one's.
    QCOMPARE(emu_->command(QStringLiteral("silent off")), QStringLiteral("ok"));
    h = open(transport);
    QVERIFY(h >= 1);
    QCOMPARE(emu_->command(QStringLiteral("paper out")), QStringLiteral("ok"));
    QCOMPARE(emu_->command(QStringLiteral("delay 1000")), QStringLiteral("ok"));
    QCOMPARE(Printer_GetStatus(h, 4), link::ErrComm);
    QCOMPARE(emu_->command(QStringLiteral("delay 0")), QStringLiteral("ok"));
    QCOMPARE(emu_->command(QStringLiteral("paper in")), QStringLiteral("ok"));
    QTest::qWait(700); // the late answer (status 1) comes in meanwhile
    QCOMPARE(Printer_GetStatus(h, 4), 0);

    // A slow printer inside the bound is fine.
    QCOMPARE(emu_->command(QStringLiteral("delay 100")), QStringLiteral("ok"));
    QCOMPARE(Printer_GetStatus(h, 4), 0);
    Printer_Close(h);
}

void TestComapi::badDevicesAndHandles_data()
{
    QTest::addColumn<QString>("device");
    QTest::addColumn<QString>("settings");
    QTest::addColumn<int>("result");
    QTest::newRow("empty") << QString() << QString() << link::ErrGeneral;
    QTest::newRow("LPT1:") << QStringLiteral("LPT1:") << QString() << link::ErrGeneral;
    QTest::newRow("COM0:") << QStringLiteral("COM0:") << QStringLiteral("9600,n,8,1,x") << link::ErrGeneral;
    QTest::newRow("bad settings") << QStringLiteral("COM1:") << QStringLiteral("fast,n,8,1,x") << link::ErrGeneral;
    QTest::newRow("bad port") << QStringLiteral("NETBOX:127.0.0.1#99999") << QString() << link::ErrGeneral;
    QTest::newRow("no address") << QStringLiteral("NETBOX:#23") << QString() << link::ErrGeneral;
    QTest::newRow("nobody listening") << QStringLiteral("127.0.0.1#1") << QString() << link::ErrComm;
    QTest::newRow("serial port missing") << QStringLiteral("COM4:") << QStringLiteral("9600,n,8,1,x")
                                         << link::ErrComm;
}

void TestComapi::badDevicesAndHandles()
{
    QFETCH(QString, device);
    QFETCH(QString, settings);
    RegSetValue(HKEY_LOCAL_MACHINE, QStringLiteral("SOFTWARE\\Norvu\\Brixa\\Ports"), QStringLiteral("COM4"), REG_SZ,
                config_.filePath(QStringLiteral("no-such-tty")));
    QTEST(Printer_Open(device, settings, QStringLiteral("m")), "result");
    QCOMPARE(Printer_GetStatus(77, 4), link::ErrGeneral);
    QCOMPARE(Printer_Close(77), link::ErrGeneral);
}

void TestComapi::emulatorControlAndStartup()
{
    QVERIFY(start(Tcp));
    const std::pair<const char*, const char*> answers[] = {
        {"RIBBON OUT", "ok"}, {"delay 250", "ok"}, {"paper sideways", "error expected out or in"},
        {"on lock", "error expected on CALL silent|unplug"}, {"reboot", "error unknown command"}};
    for (auto [command, answer] : answers)
        QCOMPARE(emu_->command(QString::fromLatin1(command)), QString::fromLatin1(answer));
    const QJsonObject st = emu_->state();
    QCOMPARE(st.value(QStringLiteral("status")).toInt(), link::StatusRibbonOut);
    QCOMPARE(st.value(QStringLiteral("delay")).toInt(), 250);

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

QTEST_MAIN(TestComapi)
#include "tst_comapi.moc"
