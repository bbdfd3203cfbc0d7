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
QString resultOf(const QSignalSpy& spy)
{
    return spy.last().last().value<DriverResult>().logText();
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
        // Before the run: "no layout" removes 1.lbl; else a longer job on
        // template 1 (then the run has NewTemplate false), perhaps a test print.
        QTest::addColumn<QString>("before");
        QTest::addColumn<QString>("fault"); // emulator command before the run
        QTest::addColumn<QString>("result");
        QTest::addColumn<QStringList>("labels");
        const QStringList two{"Första 1/2 t1", "Första 2/2 t1"}, none;
        const QString longer = "Lång 1/1 t1 [Rad 14/Rad 15/Rad 16/Rad 17]";

        QTest::newRow("check ready, serial") << true << false << "" << "" << Ok << none;
        QTest::newRow("check head up, serial") << true << false << "" << "head up" << err(13010) << none;
        QTest::newRow("print") << false << true << "" << "" << Ok << two;
        QTest::newRow("print paper out, serial") << true << true << "" << "paper out" << err(13005) << none;
        // The silent printer: the run ends on its time limit.
        QTest::newRow("print no answer, serial") << true << true << "" << "silent on" << err(13003) << none;
        QTest::newRow("print layout missing") << false << true << "no layout" << "" << err(13004) << none;
        // The tag lines the shorter job lacks stay empty.
        QTest::newRow("print shorter job") << false << true << "longer job" << "" << Ok << QStringList{longer} + two;
        // The printer no longer holds layout 1: it is sent again.
        QTest::newRow("print after test print")
            << false << true << "test print" << "" << Ok << QStringList{longer, " 1/1 t0"} + two;
    }

    void run()
    {
        QFETCH(bool, serial);
        QFETCH(bool, print);
        QFETCH(QString, before);
        QFETCH(QString, fault);
        QFETCH(QString, result);
        QFETCH(QStringList, labels);
        QVERIFY2(start(serial), qPrintable(emu_->errorText()));
        const qint32 id = drv_->PrinterId();
        if (before == "no layout") {
            QVERIFY(QFile::remove(inst_->file("1.lbl")));
        } else if (!before.isEmpty()) {
            QSignalSpy first(drv_.get(), &MP104C::MPPrintJobFinished);
            const QString longJob = JobText(id, 1, "1", "KASSA1", "user1", "Lång") + "\t\tRad 14\tRad 15\tRad 16\tRad 17";
            QVERIFY(drv_->MPPrintJob(job(6, longJob), true) && first.wait(10000));
            QCOMPARE(resultOf(first), Ok);
            if (before == "test print")
                QCOMPARE(SrvMPTestPrint({}, drv_->Port(), drv_->Settings()), Ok);
        }
        if (!fault.isEmpty())
            QCOMPARE(emu_->command(fault), QStringLiteral("ok"));
        const bool silent = fault == "silent on";
        if (silent)
            drv_->setAnswerTimeout(300);
        SetUseLog(true);

        QSignalSpy checked(drv_.get(), &MP104C::MPCheckFinished);
        QSignalSpy printed(drv_.get(), &MP104C::MPPrintJobFinished);
        const PrintJob second = job(7, JobText(id, 1, "2", "KASSA1", "user1", "Första"));
        QVERIFY(print ? drv_->MPPrintJob(second, before.isEmpty() || before == "no layout") : drv_->MPCheck());
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
        if (before != "no layout")
            QCOMPARE(emu_->log().value(0), serial ? QStringLiteral("open 9600") : QStringLiteral("open"));
        if (print) {
            const bool resent = before == "test print";
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
        QCOMPARE(emu_->command("delay 700"), QStringLiteral("ok"));
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
        // Nobody listening: no contact, as for every device that does not open.
        QVERIFY(install());
        QSignalSpy done(drv_.get(), &MP104C::MPCheckFinished);
        drv_->setPort(QStringLiteral("NETBOX:127.0.0.1#%1").arg(TestInstallation::freePort()));
        QVERIFY(drv_->MPCheck() && done.wait(10000));
        QCOMPARE(resultOf(done), err(12038));
    }

    void creation_data()
    {
        QTest::addColumn<int>("failing");  // the slot whose creation fails
        QTest::addColumn<int>("failures"); // attempts that fail there
        QTest::addColumn<int>("error");
        QTest::addColumn<QList<int>>("attempts"); // per slot
        QTest::addColumn<bool>("ok");
        QTest::newRow("429 retried until it works") << 2 << 2 << 429 << QList<int>{1, 3, 1, 1, 1} << true;
        QTest::newRow("441 not retried, the rest not tried") << 3 << 1 << 441 << QList<int>{1, 1, 1, 0, 0} << false;
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
            if (slot == failing && tried[slot - 1] <= failures)
                throw Error(error, "no class");
            ++created;
            return new MP104C(parent);
        });
        const Checked<Failure> result = svc.MainCreateQuillmotors();
        QCOMPARE(bool(result), ok);
        QCOMPARE(tried, attempts);
        for (int n = 1; n <= 5; ++n)
            QCOMPARE(svc.driver(n) != nullptr, ok || n < failing);
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
