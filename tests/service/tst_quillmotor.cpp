// The MP104C driver object against real emulators (network box over TCP, a
// serial printer on a pty): what the server cannot show from outside, that is
// exact result texts, the identity read back, time limits, and the creation
// of the five objects. Printing through the whole server is in tst_endtoend.
#include "database/jobdatabase.h"
#include "database/jobstore.h"
#include "foundation/error.h"
#include "foundation/eventlog.h"
#include "printers/deviceops.h"
#include "service/printservice.h"
#include "service/quillmotor.h"
#include "database/slots.h"
#include "foundation/texts.h"
#include "support/dbfixture.h"
#include "support/emulator.h"
#include "support/installation.h"

#include <QFile>
#include <QSignalSpy>
#include <QTemporaryDir>
#include <QTest>

using namespace quill;
using quill::dbtest::JobText;
using quill::test::Emulator;
using quill::test::PrintedLabels;
using quill::test::TestInstallation;

namespace {
const QString Ok = QStringLiteral("OK\t");
QString err(int text) { return QStringLiteral("ERR\t") + GetString(text); }

PrintJob job(qint32 id, const QString& text)
{
    PrintJob j = PrintJob::fromText(text);
    j.id = id;
    return j;
}

// The result an event carried, as the driver's log writes it.
QString resultOf(const QSignalSpy& spy, int at = -1)
{
    const QList<QVariant>& args = at < 0 ? spy.last() : spy.at(at);
    return args.last().value<DriverResult>().logText();
}
} // namespace

class TstQuillmotor : public QObject {
    Q_OBJECT

    std::unique_ptr<TestInstallation> inst_;
    std::unique_ptr<Emulator> emu_;
    std::unique_ptr<QTemporaryDir> out_; // labels the emulator printed
    std::unique_ptr<MP104C> drv_;

    bool install()
    {
        inst_ = std::make_unique<TestInstallation>();
        return inst_->ok();
    }

    // Printer 1 on a network box, or printer 2 on COM3: at 9600 baud.
    bool start(bool serial)
    {
        emu_ = std::make_unique<Emulator>();
        out_ = std::make_unique<QTemporaryDir>();
        emu_->setOutDir(out_->path());
        if (!install() || !(serial ? emu_->startPty(9600) : emu_->startTcp()))
            return false;
        if (serial)
            emu_->mapComPort(3);
        drv_->setPort(serial ? QStringLiteral("COM3:") : "NETBOX:" + emu_->bareDevice());
        drv_->setSettings(serial ? QStringLiteral("9600,n,8,1,x") : QString());
        drv_->setPrinterId(serial ? 2 : 1);
        return true;
    }

private slots:
    void init()
    {
        drv_ = std::make_unique<MP104C>();
        drv_->setAnswerTimeout(5000);
    }

    void cleanup()
    {
        drv_.reset();
        emu_.reset();
        out_.reset();
        SetUseLog(false);
        inst_.reset();
    }

    void connectionTexts_data()
    {
        QTest::addColumn<int>("type");
        QTest::addColumn<int>("connection");
        QTest::addColumn<QString>("string");
        QTest::addColumn<QString>("port");
        QTest::addColumn<QString>("settings");
        QTest::addColumn<int>("printerId");

        QTest::newRow("serial, blanks") << 2 << 1 << " COM1: # 9600 " << "COM1:" << "9600,n,8,1,x" << 4;
        QTest::newRow("network") << 1 << 2 << "192.168.1.40#23" << "NETBOX:192.168.1.40#23" << "" << 4;
        QTest::newRow("connection 3") << 2 << 3 << "whatever" << "" << "" << 4;
        // Other printer types leave identity and connection as they were.
        QTest::newRow("type 3") << 3 << 1 << "COM2:#57600" << "old port" << "old settings" << 99;
    }

    void connectionTexts()
    {
        drv_->setPrinterId(99);
        drv_->setPort("old port");
        drv_->setSettings("old settings");
        QFETCH(int, type);
        QFETCH(int, connection);
        QFETCH(QString, string);
        const PrinterSlot s{
            .printerId = 4, .printerTypeId = type, .connectionType = connection, .connectionString = string};
        PrintService::MainSetQuillmotorConnection(drv_.get(), s);
        QTEST(drv_->Port(), "port");
        QTEST(drv_->Settings(), "settings");
        QTEST(drv_->PrinterId(), "printerId");
    }

    void jobVariables()
    {
        // Empty fields go out too, and the add-in form's trailing CR LF does not.
        QStringList vars;
        for (const auto& [n, value] : JobVariables(QStringLiteral("BRIXA\t1.00\tP\t1\t5\t1\tWS\t0\t\tx\r\n\t\r\n")))
            vars << QStringLiteral("%1=%2").arg(n).arg(value);
        QCOMPARE(vars,
                 QStringList({"1=BRIXA", "2=1.00", "3=P", "4=1", "5=5", "6=1", "7=WS", "8=0", "9=", "10=x", "11="}));
    }

    void run_data()
    {
        QTest::addColumn<bool>("serial");
        QTest::addColumn<bool>("print");
        // Before the run, which then has NewTemplate false: a longer job on
        // template 1, then a "test print" or a "clear" of memory.
        QTest::addColumn<QString>("before");
        QTest::addColumn<QString>("fault");  // emulator command before the run
        QTest::addColumn<QString>("layout"); // new 1.lbl; "-": none
        QTest::addColumn<QString>("result");
        QTest::addColumn<QStringList>("labels");
        const QStringList two{"Första 1/2 t1", "Första 2/2 t1"}, none;
        const QString longer = "Lång 1/1 t1 [Rad 14/Rad 15/Rad 16/Rad 17]";

        QTest::newRow("check ready, serial") << true << false << "" << "" << "" << Ok << none;
        QTest::newRow("check ribbon out") << false << false << "" << "ribbon out" << "" << err(13009) << none;
        QTest::newRow("check head up, serial") << true << false << "" << "head up" << "" << err(13010) << none;
        QTest::newRow("check no answer") << false << false << "" << "silent on" << "" << err(13003) << none;
        QTest::newRow("print") << false << true << "" << "" << "" << Ok << two;
        QTest::newRow("print paper out, serial") << true << true << "" << "paper out" << "" << err(13005) << none;
        QTest::newRow("print no answer, serial") << true << true << "" << "silent on" << "" << err(13003) << none;
        QTest::newRow("print layout missing") << false << true << "" << "" << "-" << err(13004) << none;
        QTest::newRow("print layout unparsable")
            << false << true << "" << "" << "this is no layout\n" << err(13004) << none;
        // The tag lines the shorter job lacks stay empty.
        QTest::newRow("print shorter job") << false << true << "longer job" << "" << "" << Ok << QStringList{longer} + two;
        // The printer no longer holds layout 1: it is sent again.
        QTest::newRow("print after test print")
            << false << true << "test print" << "" << "" << Ok << QStringList{longer, " 1/1 t0"} + two;
        QTest::newRow("print after clear, serial") << true << true << "clear" << "" << "" << Ok << QStringList{longer} + two;
    }

    void run()
    {
        QFETCH(bool, serial);
        QFETCH(bool, print);
        QFETCH(QString, before);
        QFETCH(QString, fault);
        QFETCH(QString, layout);
        QFETCH(QString, result);
        QFETCH(QStringList, labels);
        QVERIFY2(start(serial), qPrintable(emu_->errorText()));
        const qint32 id = drv_->PrinterId();
        if (!before.isEmpty()) {
            QSignalSpy first(drv_.get(), &MP104C::MPPrintJobFinished);
            const QString longJob = JobText(id, 1, "1", "KASSA1", "user1", "Lång") + "\t\tRad 14\tRad 15\tRad 16\tRad 17";
            QVERIFY(drv_->MPPrintJob(job(6, longJob), true) && first.wait(10000));
            QCOMPARE(resultOf(first), Ok);
            if (before == "test print")
                QCOMPARE(SrvMPTestPrint({}, drv_->Port(), drv_->Settings()), Ok);
            else if (before == "clear")
                QCOMPARE(SrvMPClear({}, drv_->Port(), drv_->Settings()), Ok);
        }
        if (!fault.isEmpty())
            QCOMPARE(emu_->command(fault), QStringLiteral("ok"));
        const bool silent = fault == "silent on";
        if (silent)
            drv_->setAnswerTimeout(300);
        QFile lbl(inst_->file("1.lbl"));
        if (layout == "-")
            QVERIFY(lbl.remove());
        else if (!layout.isEmpty())
            QVERIFY(lbl.open(QIODevice::WriteOnly | QIODevice::Truncate) && lbl.write(layout.toUtf8()) > 0);
        lbl.close();
        SetUseLog(true);

        QSignalSpy checked(drv_.get(), &MP104C::MPCheckFinished);
        QSignalSpy printed(drv_.get(), &MP104C::MPPrintJobFinished);
        const PrintJob second = job(7, JobText(id, 1, "2", "KASSA1", "user1", "Första"));
        QVERIFY(print ? drv_->MPPrintJob(second, before.isEmpty()) : drv_->MPCheck());
        QVERIFY(checked.isEmpty() && printed.isEmpty()); // all work runs on the event loop
        // The event carries the run's own identity, whatever was written meanwhile.
        drv_->setPrinterId(97);
        QSignalSpy& done = print ? printed : checked;
        QVERIFY(done.wait(10000));
        QCOMPARE(resultOf(done), result);
        QCOMPARE((print ? checked : printed).count(), 0);
        QCOMPARE(done.last().at(0).value<qint32>(), id);
        if (print) {
            const PrintJob ran = done.last().at(1).value<PrintJob>();
            QCOMPARE(ran.id, 7);
            QCOMPARE(ran.templateId, 1);
            QCOMPARE(ran.text, second.text);
        }
        drv_->setPrinterId(id);
        QVERIFY(!drv_->busy());
        if (layout != "-")
            QCOMPARE(emu_->log().value(0), serial ? QStringLiteral("open 9600") : QStringLiteral("open"));
        if (print) {
            const bool resent = before == "test print" || before == "clear";
            QString done = result;
            if (result == Ok)
                done = before.isEmpty() || resent ? "2 label(s) printed, layout 1 sent" : "2 label(s) printed";
            const QString log = inst_->log("Quillmotor");
            QVERIFY2(log.contains(QStringLiteral("MPPrintJob PId = %1 JId = 7: ").arg(id) + done), qPrintable(log));
            QCOMPARE(log.count("not held by the printer, sent again"), resent ? 1 : 0);
        }
        QTRY_COMPARE_WITH_TIMEOUT(PrintedLabels(out_->path()), labels, 10000);

        // After a run without an answer the driver works again once the printer talks.
        if (silent) {
            QCOMPARE(emu_->command("silent off"), QStringLiteral("ok"));
            QVERIFY(drv_->MPCheck());
            QVERIFY(checked.wait(10000));
            QCOMPARE(resultOf(checked), Ok);
        }
    }

    // A serial line outlives a run: the answer that came too late for one run
    // reaches the next, which does not take it for its own (an open's 1 read
    // as the status word would be paper out).
    void lateAnswerOfAnEarlierRun()
    {
        QVERIFY2(start(true), qPrintable(emu_->errorText()));
        QCOMPARE(emu_->command("delay 1000"), QStringLiteral("ok"));
        QSignalSpy done(drv_.get(), &MP104C::MPCheckFinished);
        drv_->setAnswerTimeout(300);
        QVERIFY(drv_->MPCheck() && done.wait(10000));
        QCOMPARE(resultOf(done), err(13003));
        drv_->setAnswerTimeout(5000);
        QVERIFY(drv_->MPCheck() && done.wait(10000));
        QCOMPARE(resultOf(done), Ok);
    }

    void unreachable()
    {
        QVERIFY(install());
        inst_->setMachineValue("Ports", "COM4", inst_->file("no-such-tty"), false);
        QSignalSpy done(drv_.get(), &MP104C::MPCheckFinished);
        drv_->setSettings("9600,n,8,1,x");
        // Nobody listening, a serial port that does not exist, no port at all.
        for (const QString& port : {QStringLiteral("NETBOX:127.0.0.1#%1").arg(TestInstallation::freePort()),
                                    QStringLiteral("COM4:"), QString()}) {
            drv_->setPort(port);
            QVERIFY(drv_->MPCheck());
            QVERIFY(done.wait(10000));
            QCOMPARE(resultOf(done), err(12038));
        }
    }

    void creation_data()
    {
        QTest::addColumn<int>("failing");  // the slot whose creation fails
        QTest::addColumn<int>("failures"); // attempts that fail there; -1: every one
        QTest::addColumn<int>("error");
        QTest::addColumn<QList<int>>("attempts"); // per slot; -1: retried (more than 2)
        QTest::addColumn<bool>("ok");

        QTest::newRow("all created") << 0 << 0 << 0 << QList<int>{1, 1, 1, 1, 1} << true;
        QTest::newRow("retried until it works") << 2 << 2 << 429 << QList<int>{1, 3, 1, 1, 1} << true;
        QTest::newRow("third fails, rest not tried") << 3 << -1 << 429 << QList<int>{1, 1, -1, 0, 0} << false;
        QTest::newRow("441 is not retried") << 5 << 1 << 441 << QList<int>{1, 1, 1, 1, 1} << false;
    }

    void creation()
    {
        QFETCH(int, failing);
        QFETCH(int, failures);
        QFETCH(int, error);
        QFETCH(QList<int>, attempts);
        QFETCH(bool, ok);
        QVERIFY(install());
        SetUseLog(true);
        LogInit("Quillbase");

        JobDatabase jdb;
        PrinterSlots slotTable;
        JobStore store(jdb, slotTable);
        PrintService svc(slotTable, jdb, store);
        svc.setCreateRetryWindow(400);
        // Objects are made in slot order: the next one is for slot created + 1.
        int created = 0;
        QList<int> tried(5, 0);
        svc.setDriverFactory([&](QObject* parent) -> MP104C* {
            const int slot = created + 1;
            ++tried[slot - 1];
            if (slot == failing && (failures < 0 || tried[slot - 1] <= failures))
                throw Error(error, "no class");
            ++created;
            return new MP104C(parent);
        });
        const Checked<Failure> result = svc.MainCreateQuillmotors();
        QCOMPARE(bool(result), ok);
        for (int n = 1; n <= 5; ++n) {
            if (attempts[n - 1] >= 0)
                QCOMPARE(tried[n - 1], attempts[n - 1]);
            else
                QVERIFY2(tried[n - 1] > 2, "a failing creation is retried");
            QCOMPARE(svc.driver(n) != nullptr, ok || n < failing);
        }
        // The first failure ends the creation: one line, and the same failure handed up.
        const QString line = QStringLiteral("CreateQuillmotor%1 failed. Error: %2 no class").arg(failing).arg(error);
        const QString log = inst_->log();
        QCOMPARE(log.count("CreateQuillmotor"), ok ? 0 : 1);
        QVERIFY2(ok || log.contains(line), qPrintable(log));
        QCOMPARE(result.failure ? result.failure->line() : QString(), ok ? QString() : line);
    }
};

QTEST_GUILESS_MAIN(TstQuillmotor)
#include "tst_quillmotor.moc"
