// The emulator itself: control port, shared state of its two ports, startup.
#include "foundation/settings.h"
#include "printers/comapi.h"
#include "printers/link.h"
#include "support/emulator.h"

#include <QJsonArray>
#include <QProcess>
#include <QtTest>

using namespace quill;
using quill::test::Emulator;

class TestEmulator : public QObject {
    Q_OBJECT
private slots:
    void initTestCase();
    void controlCommands_data();
    void controlCommands();
    void stateReflectsFaultsAndCalls();
    void networkAndSerialShareOnePrinter();
    void badArgumentsEndTheProcess_data();
    void badArgumentsEndTheProcess();

private:
    QTemporaryDir config_;
};

void TestEmulator::initTestCase()
{
    qputenv("XDG_CONFIG_DIRS", config_.path().toLocal8Bit());
    qputenv("XDG_CONFIG_HOME", config_.filePath(QStringLiteral("user")).toLocal8Bit());
}

void TestEmulator::controlCommands_data()
{
    QTest::addColumn<QString>("command");
    QTest::addColumn<QString>("answer");
    QTest::newRow("paper out") << "paper out" << "ok";
    QTest::newRow("upper case") << "RIBBON OUT" << "ok";
    QTest::newRow("head up") << "head up" << "ok";
    QTest::newRow("silent off") << "silent off" << "ok";
    QTest::newRow("delay") << "delay 250" << "ok";
    QTest::newRow("clear-log") << "clear-log" << "ok";
    QTest::newRow("paper sideways") << "paper sideways" << "error expected out or in";
    QTest::newRow("head without arg") << "head" << "error expected up or down";
    QTest::newRow("negative delay") << "delay -5" << "error expected milliseconds";
    QTest::newRow("unknown") << "reboot" << "error unknown command";
    QTest::newRow("empty line") << "" << "error unknown command";
}

void TestEmulator::controlCommands()
{
    QFETCH(QString, command);
    QFETCH(QString, answer);
    Emulator emu;
    QVERIFY2(emu.startTcp(), qPrintable(emu.errorText()));
    QCOMPARE(emu.command(command), answer);
    // The port keeps answering after an error.
    QCOMPARE(emu.command(QStringLiteral("head down")), QStringLiteral("ok"));
}

void TestEmulator::stateReflectsFaultsAndCalls()
{
    Emulator emu;
    emu.setName(QStringLiteral("Bana 1"));
    QVERIFY2(emu.startTcp(57600), qPrintable(emu.errorText()));
    QJsonObject st = emu.state();
    QCOMPARE(st.value(QStringLiteral("name")).toString(), QStringLiteral("Bana 1"));
    QCOMPARE(st.value(QStringLiteral("baud")).toInt(), 57600);
    QCOMPARE(st.value(QStringLiteral("status")).toInt(), 0);
    QCOMPARE(st.value(QStringLiteral("parameters")).toObject().value(QStringLiteral("30")).toInt(), 57600);
    QCOMPARE(st.value(QStringLiteral("counters")).toObject().value(QStringLiteral("1")).toArray().size(), 5);
    QVERIFY(st.value(QStringLiteral("log")).toArray().isEmpty());

    emu.command(QStringLiteral("head up"));
    emu.command(QStringLiteral("ribbon out"));
    QCOMPARE(emu.state().value(QStringLiteral("status")).toInt(), link::StatusHeadUp | link::StatusRibbonOut);

    const int h = Printer_Open(emu.bareDevice(), QString(), QStringLiteral("m"));
    QVERIFY(h >= 1);
    QCOMPARE(Printer_GetStatus(h, 4), 12);
    QCOMPARE(Printer_SetParameter(h, 30, 9600), 1);
    QCOMPARE(Printer_SendVariable(h, QStringLiteral("Anna Berg\t12"), 14), 1);
    Printer_Close(h);
    QTRY_COMPARE_WITH_TIMEOUT(emu.log().size(), 5, 10000);
    st = emu.state();
    QCOMPARE(st.value(QStringLiteral("baud")).toInt(), 9600);
    QCOMPARE(st.value(QStringLiteral("variables")).toObject().value(QStringLiteral("14")).toString(),
             QStringLiteral("Anna Berg\t12"));
    QCOMPARE(emu.log(), (QStringList{"open", "status 4", "setparam 30 9600", "var 14 Anna Berg\t12", "close"}));
}

void TestEmulator::networkAndSerialShareOnePrinter()
{
    Emulator emu;
    QVERIFY2(emu.startBoth(9600), qPrintable(emu.errorText()));
    emu.mapComPort(2);
    int h = Printer_Open(emu.netDevice(), QString(), QStringLiteral("m"));
    QVERIFY(h >= 1);
    QCOMPARE(Printer_SetParameter(h, 46, 301), 1);
    // The serial side can talk while the network side is open.
    const int s = Printer_Open(QStringLiteral("COM2:"), QStringLiteral("9600,n,8,1,x"), QStringLiteral("m"));
    QVERIFY2(s >= 1, qPrintable(QString::number(s)));
    QVERIFY(s != h);
    int v = 0;
    QCOMPARE(Printer_GetParameter(s, 46, &v), 1);
    QCOMPARE(v, 301);
    Printer_Close(s);
    Printer_Close(h);
}

void TestEmulator::badArgumentsEndTheProcess_data()
{
    QTest::addColumn<QStringList>("args");
    QTest::newRow("no port") << QStringList{};
    QTest::newRow("odd baud") << QStringList{"--listen", "127.0.0.1:0", "--baud", "1234"};
    QTest::newRow("bad listen") << QStringList{"--listen", "nowhere"};
}

void TestEmulator::badArgumentsEndTheProcess()
{
    QFETCH(QStringList, args);
    QProcess p;
    p.start(QStringLiteral(QUILL_BIN_DIR) + QStringLiteral("/mp104c-emulator"), args);
    QVERIFY(p.waitForFinished(10000));
    QVERIFY(p.exitCode() != 0);
    QVERIFY(!p.readAllStandardOutput().contains("ready"));
}

QTEST_MAIN(TestEmulator)
#include "tst_emulator.moc"
