// Device library against the real emulator, over TCP (network box) and over a
// pty (serial printer).
#include "foundation/settings.h"
#include "printers/comapi.h"
#include "printers/link.h"
#include "support/emulator.h"

#include <QElapsedTimer>
#include <QImage>
#include <QJsonArray>
#include <QJsonDocument>
#include <QTcpSocket>
#include <QtTest>

using namespace quill;
using quill::test::Emulator;

namespace {

const QString Tcp = QStringLiteral("tcp");
const QString Pty = QStringLiteral("pty");

QString testLayout()
{
    return QStringLiteral(QUILL_SOURCE_DIR) + QStringLiteral("/src/resources/0.lbl");
}

} // namespace

class TestComapi : public QObject {
    Q_OBJECT
private slots:
    void initTestCase();
    void init();
    void cleanup();

    void statusAndFaults_data();
    void statusAndFaults();
    void parametersPersistAcrossConnections_data() { transports(); }
    void parametersPersistAcrossConnections();
    void counters_data() { transports(); }
    void counters();
    void serviceCommandReply_data() { transports(); }
    void serviceCommandReply();
    void lockLastsForTheSession_data() { transports(); }
    void lockLastsForTheSession();
    void silentPrinterTimesOut_data() { transports(); }
    void silentPrinterTimesOut();
    void wrongSpeedGetsNoAnswer();
    void parameter30SwitchesTheSpeed();
    void printedLabelWritesImageAndSidecar_data() { transports(); }
    void printedLabelWritesImageAndSidecar();
    void layoutAndPrintResults();
    void callLogKeepsOrder_data() { transports(); }
    void callLogKeepsOrder();
    void peerDroppingMidFrameDoesNotDisturbNext();
    void badDevicesAndHandles_data();
    void badDevicesAndHandles();

private:
    void transports();
    bool start(const QString& transport, int baud = 9600);
    QString device(const QString& transport) const;
    int open(const QString& transport, int baud = 9600);

    QTemporaryDir config_;
    std::unique_ptr<Emulator> emu_;
    std::unique_ptr<QTemporaryDir> out_;
};

void TestComapi::initTestCase()
{
    QVERIFY(config_.isValid());
    // The COM port mapping is a per-machine setting: keep it in a private folder.
    qputenv("XDG_CONFIG_DIRS", config_.path().toLocal8Bit());
    qputenv("XDG_CONFIG_HOME", config_.filePath(QStringLiteral("user")).toLocal8Bit());
}

void TestComapi::init()
{
    Printer_SetTimeout(3000);
    emu_ = std::make_unique<Emulator>();
    out_ = std::make_unique<QTemporaryDir>();
    emu_->setOutDir(out_->path());
    emu_->setName(QStringLiteral("Kassa 2"));
}

void TestComapi::cleanup()
{
    emu_.reset();
    out_.reset();
}

void TestComapi::transports()
{
    QTest::addColumn<QString>("transport");
    QTest::newRow("tcp") << Tcp;
    QTest::newRow("pty") << Pty;
}

bool TestComapi::start(const QString& transport, int baud)
{
    const bool ok = transport == Tcp ? emu_->startTcp(baud) : emu_->startPty(baud);
    if (ok && transport == Pty)
        emu_->mapComPort(1);
    if (!ok)
        qWarning() << emu_->errorText();
    return ok;
}

QString TestComapi::device(const QString& transport) const
{
    return transport == Tcp ? emu_->netDevice() : QStringLiteral("COM1:");
}

int TestComapi::open(const QString& transport, int baud)
{
    const QString settings = transport == Tcp ? QString() : QStringLiteral("%1,n,8,1,x").arg(baud);
    return Printer_Open(device(transport), settings, QStringLiteral("m"));
}

void TestComapi::statusAndFaults_data()
{
    QTest::addColumn<QString>("transport");
    QTest::addColumn<QStringList>("faults");
    QTest::addColumn<int>("status");
    QTest::addColumn<int>("printResult");
    for (const QString& t : {Tcp, Pty}) {
        const QByteArray p = t.toLatin1() + ": ";
        QTest::newRow(p + "ready") << t << QStringList{} << 0 << 1;
        QTest::newRow(p + "paper out") << t << QStringList{"paper out"} << 1 << link::ErrPaper;
        QTest::newRow(p + "ribbon out") << t << QStringList{"ribbon out"} << 4 << link::ErrRibbon;
        QTest::newRow(p + "head up") << t << QStringList{"head up"} << 8 << link::ErrGeneral;
        QTest::newRow(p + "paper and ribbon") << t << QStringList{"paper out", "ribbon out"} << 5 << link::ErrRibbon;
        QTest::newRow(p + "everything") << t << QStringList{"paper out", "ribbon out", "head up"} << 13
                                        << link::ErrRibbon;
    }
}

void TestComapi::statusAndFaults()
{
    QFETCH(QString, transport);
    QFETCH(QStringList, faults);
    QFETCH(int, status);
    QFETCH(int, printResult);
    QVERIFY(start(transport));
    const int h = open(transport);
    QVERIFY2(h >= 1, qPrintable(QString::number(h)));
    QCOMPARE(Printer_Identity(h), QStringLiteral("Kassa 2"));
    QCOMPARE(Printer_GetStatus(h, 4), 0);
    for (const QString& f : faults)
        QCOMPARE(emu_->command(f), QStringLiteral("ok"));
    QCOMPARE(Printer_GetStatus(h, 4), status);
    QVERIFY(Printer_SendLayout(h, testLayout()) >= 0);
    QCOMPARE(Printer_SendVariable(h, QStringLiteral("Brixa - Printerserver v1.0.0"), 1), 1);
    QCOMPARE(Printer_PrintLabel(h, 1, QStringLiteral("i")), printResult);
    const int printed = emu_->state().value(QStringLiteral("printed")).toInt();
    QCOMPARE(printed, printResult >= 1 ? 1 : 0);
    QCOMPARE(QDir(out_->path()).entryList({QStringLiteral("*.png")}).size(), printed);

    // Clearing the faults makes the same session print again.
    for (const char* cmd : {"paper in", "ribbon in", "head down"})
        QCOMPARE(emu_->command(QString::fromLatin1(cmd)), QStringLiteral("ok"));
    QCOMPARE(Printer_GetStatus(h, 4), 0);
    QCOMPARE(Printer_PrintLabel(h, 1, QStringLiteral("i")), 1);
    Printer_Close(h);
}

void TestComapi::parametersPersistAcrossConnections()
{
    QFETCH(QString, transport);
    QVERIFY(start(transport));
    int h = open(transport);
    QVERIFY(h >= 1);
    QCOMPARE(Printer_SetParameter(h, 46, 250), 1);
    QCOMPARE(Printer_SetParameter(h, 24, 75), 1);
    Printer_Close(h);
    for (int round = 0; round < 3; ++round) {
        h = open(transport);
        QVERIFY2(h >= 1, qPrintable(QStringLiteral("round %1: %2").arg(round).arg(h)));
        int v = 0;
        QCOMPARE(Printer_GetParameter(h, 46, &v), 1);
        QCOMPARE(v, 250);
        QCOMPARE(Printer_GetParameter(h, 24, &v), 1);
        QCOMPARE(v, 75 + round);
        QCOMPARE(Printer_SetParameter(h, 24, 76 + round), 1);
        Printer_Close(h);
    }
    const QJsonObject params = emu_->state().value(QStringLiteral("parameters")).toObject();
    QCOMPARE(params.value(QStringLiteral("46")).toInt(), 250);
    QCOMPARE(params.value(QStringLiteral("24")).toInt(), 78);
    // Out-of-range parameter numbers are refused.
    h = open(transport);
    QCOMPARE(Printer_SetParameter(h, 0, 1), link::ErrGeneral);
    QCOMPARE(Printer_SetParameter(h, 1000, 1), link::ErrGeneral);
    Printer_Close(h);
}

void TestComapi::counters()
{
    QFETCH(QString, transport);
    QVERIFY(start(transport));
    const int h = open(transport);
    QVERIFY(h >= 1);
    int v[5] = {-1, -1, -1, -1, -1};
    QCOMPARE(Printer_GetCounter(h, 1, &v[0], &v[1], &v[2], &v[3], &v[4]), 1);
    QCOMPARE(v[0], 0);
    QCOMPARE(Printer_SetCounter(h, 1, 40, 1, 9, 1), 1);
    QVERIFY(Printer_SendLayout(h, testLayout()) >= 0);
    QCOMPARE(Printer_SendVariable(h, QStringLiteral("x"), 1), 1);
    QCOMPARE(Printer_PrintLabel(h, 3, QStringLiteral("i")), 3);
    QCOMPARE(Printer_GetCounter(h, 1, &v[0], &v[1], &v[2], &v[3], &v[4]), 1);
    QCOMPARE(QList<int>(v, v + 5), (QList<int>{43, 1, 9, 1, 3}));
    // Null pointers are allowed; the configuration reads only the first value.
    int first = 0;
    QCOMPARE(Printer_GetCounter(h, 1, &first, nullptr, nullptr, nullptr, nullptr), 1);
    QCOMPARE(first, 43);
    QCOMPARE(Printer_GetCounter(h, 10, &first, nullptr, nullptr, nullptr, nullptr), link::ErrGeneral);
    Printer_Close(h);
}

void TestComapi::serviceCommandReply()
{
    QFETCH(QString, transport);
    QVERIFY(start(transport));
    const int h = open(transport);
    QVERIFY(h >= 1);
    QString reply;
    QCOMPARE(Printer_ServiceCommand(h, 38153, QString(), &reply, 255), 1);
    QCOMPARE(reply, QStringLiteral("MP104C 1.00"));
    QCOMPARE(Printer_ServiceCommand(h, 38153, QString(), &reply, 3), 1);
    QCOMPARE(reply, QStringLiteral("MP1"));
    QCOMPARE(Printer_ServiceCommand(h, 100, QStringLiteral("192.168.1.40"), &reply, 255), 1);
    QCOMPARE(reply, QStringLiteral("192.168.1.40"));
    QCOMPARE(Printer_ServiceCommand(h, 102, QStringLiteral("0.0.0.0"), nullptr, 255), 1);
    QCOMPARE(Printer_ServiceCommand(h, 100, QString(), &reply, 255), 1);
    QCOMPARE(reply, QStringLiteral("192.168.1.40"));
    // Input beyond 255 characters is refused and leaves no reply.
    QCOMPARE(Printer_ServiceCommand(h, 100, QString(256, QLatin1Char('9')), &reply, 255), link::ErrGeneral);
    QVERIFY(reply.isEmpty());
    QCOMPARE(emu_->state().value(QStringLiteral("service")).toObject().value(QStringLiteral("102")).toString(),
             QStringLiteral("0.0.0.0"));
    Printer_Close(h);
}

void TestComapi::lockLastsForTheSession()
{
    QFETCH(QString, transport);
    QVERIFY(start(transport));
    int h = open(transport);
    QCOMPARE(Printer_SetParameter(h, 40, 0), 1);
    QCOMPARE(Printer_LockParameters(h), 1);
    QCOMPARE(Printer_SetParameter(h, 40, 1), link::ErrGeneral);
    QCOMPARE(Printer_ServiceCommand(h, 3196, QString(), nullptr, 255), 1);
    Printer_Close(h);
    h = open(transport);
    QCOMPARE(Printer_SetParameter(h, 40, 1), 1);
    Printer_Close(h);
}

void TestComapi::silentPrinterTimesOut()
{
    QFETCH(QString, transport);
    QVERIFY(start(transport));
    Printer_SetTimeout(600);
    int h = open(transport);
    QVERIFY(h >= 1);
    QCOMPARE(emu_->command(QStringLiteral("silent on")), QStringLiteral("ok"));
    QElapsedTimer t;
    t.start();
    QCOMPARE(Printer_GetStatus(h, 4), link::ErrComm);
    QCOMPARE(Printer_SetParameter(h, 46, 200), link::ErrComm);
    Printer_Close(h);
    const int h2 = open(transport);
    QCOMPARE(h2, link::ErrComm);
    // Bounded: three calls of 0.6 s each must not come near a hang. (The
    // figures belong in the bench; this only rules out waiting forever.)
    QVERIFY2(t.elapsed() < 20000, qPrintable(QString::number(t.elapsed())));
    // The silent printer still received the calls.
    QVERIFY(emu_->log().contains(QStringLiteral("setparam 46 200")));

    // Once it talks again it opens and answers; a late answer to an earlier
    // call is not taken for the answer of the current one.
    QCOMPARE(emu_->command(QStringLiteral("silent off")), QStringLiteral("ok"));
    h = open(transport);
    QVERIFY(h >= 1);
    QCOMPARE(emu_->command(QStringLiteral("paper out")), QStringLiteral("ok"));
    QCOMPARE(emu_->command(QStringLiteral("delay 1000")), QStringLiteral("ok"));
    QCOMPARE(Printer_GetStatus(h, 4), link::ErrComm);
    QCOMPARE(emu_->command(QStringLiteral("delay 0")), QStringLiteral("ok"));
    QCOMPARE(emu_->command(QStringLiteral("paper in")), QStringLiteral("ok"));
    QTest::qWait(600); // the late answer (status 1) arrives meanwhile
    QCOMPARE(Printer_GetStatus(h, 4), 0);
    QCOMPARE(emu_->command(QStringLiteral("paper out")), QStringLiteral("ok"));

    // A slow printer inside the bound is fine; beyond it, communication error.
    QCOMPARE(emu_->command(QStringLiteral("delay 200")), QStringLiteral("ok"));
    QCOMPARE(Printer_GetStatus(h, 4), 1);
    QCOMPARE(emu_->command(QStringLiteral("delay 1500")), QStringLiteral("ok"));
    QCOMPARE(Printer_GetStatus(h, 4), link::ErrComm);
    Printer_Close(h);
}

void TestComapi::wrongSpeedGetsNoAnswer()
{
    QVERIFY(start(Pty, 9600));
    Printer_SetTimeout(800);
    QCOMPARE(open(Pty, 57600), link::ErrComm);
    QVERIFY(emu_->log().isEmpty()); // nothing the printer could read
    const int h = open(Pty, 9600);
    QVERIFY2(h >= 1, qPrintable(QString::number(h)));
    QCOMPARE(Printer_GetStatus(h, 4), 0);
    Printer_Close(h);
    QCOMPARE(emu_->log(), (QStringList{QStringLiteral("open 9600"), QStringLiteral("status 4"),
                                      QStringLiteral("close")}));
}

void TestComapi::parameter30SwitchesTheSpeed()
{
    // The configuration's recovery path: the printer still runs at 57600.
    QVERIFY(start(Pty, 57600));
    Printer_SetTimeout(800);
    QCOMPARE(open(Pty, 9600), link::ErrComm);
    const int h = open(Pty, 57600);
    QVERIFY(h >= 1);
    QCOMPARE(Printer_SetParameter(h, link::ParamBaudRate, 9600), 1);
    // The session goes on at the new speed.
    QCOMPARE(Printer_GetStatus(h, 4), 0);
    QCOMPARE(Printer_SetParameter(h, 34, 2000), 1);
    Printer_Close(h);
    QCOMPARE(emu_->state().value(QStringLiteral("baud")).toInt(), 9600);
    QCOMPARE(open(Pty, 57600), link::ErrComm);
    const int h2 = open(Pty, 9600);
    QVERIFY(h2 >= 1);
    int v = 0;
    QCOMPARE(Printer_GetParameter(h2, link::ParamBaudRate, &v), 1);
    QCOMPARE(v, 9600);
    // Unknown rates are refused and change nothing.
    QCOMPARE(Printer_SetParameter(h2, link::ParamBaudRate, 12345), link::ErrGeneral);
    QCOMPARE(Printer_GetStatus(h2, 4), 0);
    Printer_Close(h2);
}

void TestComapi::printedLabelWritesImageAndSidecar()
{
    QFETCH(QString, transport);
    QVERIFY(start(transport));
    const int h = open(transport);
    QVERIFY(h >= 1);
    QCOMPARE(Printer_SetParameter(h, 46, 233), 1);
    for (int p : {2, 3, 4})
        QCOMPARE(Printer_SetParameter(h, p, 88), 1);
    QCOMPARE(Printer_SetParameter(h, 24, 60), 1);
    QCOMPARE(Printer_SetParameter(h, 100, 5), 1);
    QVERIFY(Printer_SendLayout(h, testLayout()) >= 0);
    const QString text = QStringLiteral("Brixa - Printerserver v1.0.0");
    QCOMPARE(Printer_SendVariable(h, text, 1), 1);
    QCOMPARE(Printer_PrintLabel(h, 2, QStringLiteral("i")), 2);
    Printer_Close(h);

    const QStringList pngs = QDir(out_->path()).entryList({QStringLiteral("*.png")}, QDir::Files, QDir::Name);
    QCOMPARE(pngs.size(), 2);
    for (int i = 0; i < 2; ++i) {
        const QImage img(out_->filePath(pngs[i]));
        QCOMPARE(img.size(), QSize(480, 320));
        int dark = 0;
        for (int y = 0; y < img.height(); y += 2)
            for (int x = 0; x < img.width(); x += 2)
                dark += qGray(img.pixel(x, y)) < 128;
        QVERIFY2(dark > 500, qPrintable(QString::number(dark))); // text, lines and bars
        QFile f(out_->filePath(QString(pngs[i]).replace(QLatin1String(".png"), QLatin1String(".json"))));
        QVERIFY(f.open(QIODevice::ReadOnly));
        const QJsonObject meta = QJsonDocument::fromJson(f.readAll()).object();
        QCOMPARE(meta.value(QStringLiteral("template")).toString(), QStringLiteral("0"));
        QCOMPARE(meta.value(QStringLiteral("variables")).toObject().value(QStringLiteral("1")).toString(), text);
        QCOMPARE(meta.value(QStringLiteral("copy")).toInt(), i + 1);
        QCOMPARE(meta.value(QStringLiteral("copies")).toInt(), 2);
        QCOMPARE(meta.value(QStringLiteral("darkness")).toInt(), 233);
        QCOMPARE(meta.value(QStringLiteral("speed")).toArray(), (QJsonArray{88, 88, 88}));
        QCOMPARE(meta.value(QStringLiteral("feeds")).toObject().value(QStringLiteral("dispensing")).toInt(), 60);
        QCOMPARE(meta.value(QStringLiteral("feeds")).toObject().value(QStringLiteral("reverse")).toInt(), 5);
    }
}

void TestComapi::layoutAndPrintResults()
{
    QVERIFY(start(Tcp));
    const int h = open(Tcp);
    QVERIFY(h >= 1);
    // Nothing to print before a layout.
    QCOMPARE(Printer_PrintLabel(h, 1, QStringLiteral("i")), link::ErrFile);
    QCOMPARE(Printer_SendLayout(h, testLayout()), 1);
    QCOMPARE(Printer_SendLayout(h, testLayout()), link::LayoutAccepted);
    // Printed without its variable: accepted with -6.
    QCOMPARE(Printer_PrintLabel(h, 1, QStringLiteral("i")), link::PrintAccepted);
    QCOMPARE(Printer_SendVariable(h, QStringLiteral("v"), 1), 1);
    QCOMPARE(Printer_PrintLabel(h, 1, QStringLiteral("i")), 1);
    QCOMPARE(Printer_PrintLabel(h, 0, QStringLiteral("i")), link::ErrGeneral);
    QCOMPARE(Printer_SendVariable(h, QStringLiteral("v"), 0), link::ErrGeneral);

    QTemporaryDir dir;
    const QString bad = dir.filePath(QStringLiteral("5.lbl"));
    QFile f(bad);
    QVERIFY(f.open(QIODevice::WriteOnly));
    f.write("label 100 100\nellipse 1 2 3\n");
    f.close();
    QCOMPARE(Printer_SendLayout(h, bad), link::ErrFile);                      // printer cannot parse it
    QCOMPARE(Printer_SendLayout(h, dir.filePath(QStringLiteral("nope.lbl"))), link::ErrFile); // no file
    QVERIFY(f.open(QIODevice::WriteOnly | QIODevice::Truncate));
    f.write("label 100 100\n# " + QByteArray(40000, 'x') + "\n");
    f.close();
    QCOMPARE(Printer_SendLayout(h, bad), link::ErrMemory);
    QVERIFY(f.open(QIODevice::WriteOnly | QIODevice::Truncate));
    f.write("label 100 100\n# " + QByteArray(link::MaxFrameBytes, 'x') + "\n");
    f.close();
    QCOMPARE(Printer_SendLayout(h, bad), link::ErrMemory);

    // Clearing the memory forgets the layout.
    QCOMPARE(Printer_Init(h, QStringLiteral("a")), 1);
    QCOMPARE(Printer_PrintLabel(h, 1, QStringLiteral("i")), link::ErrFile);
    QCOMPARE(Printer_SendLayout(h, testLayout()), 1);
    Printer_Close(h);
}

void TestComapi::callLogKeepsOrder()
{
    QFETCH(QString, transport);
    QVERIFY(start(transport));
    const int h = open(transport);
    QVERIFY(h >= 1);
    Printer_GetStatus(h, 4);
    Printer_SetParameter(h, 34, 2000);
    Printer_ServiceCommand(h, 38153, QString(), nullptr, 255);
    int c = 0;
    Printer_GetCounter(h, 1, &c, nullptr, nullptr, nullptr, nullptr);
    Printer_SetCounter(h, 1, c, 1, 9, 1);
    Printer_LockParameters(h);
    Printer_ServiceCommand(h, 3196, QString(), nullptr, 255);
    Printer_Close(h);
    const QString open = transport == Tcp ? QStringLiteral("open") : QStringLiteral("open 9600");
    const QStringList expected{open, "status 4", "setparam 34 2000", "service 38153", "getcounter 1",
                               "setcounter 1 0 1 9 1", "lock", "service 3196", "close"};
    // The close travels without an answer: wait until it is in.
    QTRY_COMPARE_WITH_TIMEOUT(emu_->log(), expected, 10000);
    QCOMPARE(emu_->command(QStringLiteral("clear-log")), QStringLiteral("ok"));
    QVERIFY(emu_->log().isEmpty());
}

void TestComapi::peerDroppingMidFrameDoesNotDisturbNext()
{
    QVERIFY(start(Tcp));
    {
        QTcpSocket s;
        s.connectToHost(QStringLiteral("127.0.0.1"), emu_->port());
        QVERIFY(s.waitForConnected(5000));
        s.write("Q\t1\tSETPARAM\t46\t1");  // no end of frame
        QVERIFY(s.waitForBytesWritten(5000));
        s.abort();
    }
    {
        QTcpSocket s;
        s.connectToHost(QStringLiteral("127.0.0.1"), emu_->port());
        QVERIFY(s.waitForConnected(5000));
        s.write("garbage\n\x01\x02\nQ\t5\tSTATUS\t4\n");
        QTRY_VERIFY_WITH_TIMEOUT((s.waitForReadyRead(100), s.canReadLine()), 10000);
        QCOMPARE(s.readLine(), QByteArray("A\t5\t0\n"));
    }
    for (int i = 0; i < 5; ++i) {
        const int h = open(Tcp);
        QVERIFY(h >= 1);
        int v = 0;
        QCOMPARE(Printer_GetParameter(h, 46, &v), 1);
        QCOMPARE(v, 167); // the half frame never reached the printer
        Printer_Close(h);
    }
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
    QFETCH(int, result);
    RegSetValue(HKEY_LOCAL_MACHINE, QStringLiteral("SOFTWARE\\Norvu\\Brixa\\Ports"), QStringLiteral("COM4"), REG_SZ,
                config_.filePath(QStringLiteral("no-such-tty")));
    QCOMPARE(Printer_Open(device, settings, QStringLiteral("m")), result);
    QCOMPARE(Printer_GetStatus(77, 4), link::ErrGeneral);
    QCOMPARE(Printer_Close(77), link::ErrGeneral);
}

QTEST_MAIN(TestComapi)
#include "tst_comapi.moc"
