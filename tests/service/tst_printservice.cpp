// The print service and its MP104C driver objects on a provisioned
// installation, printing to two emulators (printer 1 a network box, printer 2
// a serial printer on a pty): what needs the operator's hand or the clock, and
// the driver's exact results and time limits, none of which can be seen from
// outside the server. Jobs through the server are in tst_endtoend.
#include "database/jobrepository.h"
#include "database/jobstore.h"
#include "printers/deviceops.h"
#include "service/printerlistmodel.h"
#include "service/printservice.h"
#include "service/quillmotor.h"
#include "shell/server.h"
#include "foundation/texts.h"
#include "support/dbfixture.h"
#include "support/emulator.h"
#include "support/installation.h"

#include <QRegularExpression>
#include <QSignalSpy>
#include <QTest>

using namespace quill;
using quill::dbtest::JobText;
using quill::test::Emulator;
using quill::test::PrinterSite;
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

class TstPrintService : public QObject {
    Q_OBJECT

    // Stores a one-copy job as it comes, without the request checks; its id or -1.
    qint32 add(int printer, int templateId, const QString& caption, const QString& op = QStringLiteral("P"))
    {
        const qint32 id = quill::JobRepository(srv_->database().database()).nextId().value;
        QString text = JobText(printer, templateId, "1", "KASSA1", "user1", caption);
        text.replace(QStringLiteral("\tP\t"), QStringLiteral("\t%1\t").arg(op));
        return srv_->jobs().SrvAddJob(PrintJob::fromText(text)) ? id : -1;
    }
    int queued() { return srv_->jobs().jobList().count(); }
    const PrinterSlot& slot(int n) { return srv_->printers().at(n); }
    QString statusText(int n) { return slot(n).statusText.trimmed(); }
    int count(const QString& event, int p, int j) const { return events_.count(event.arg(p).arg(j)); }

    // The server, with no status pass but those a test makes after the start-up one.
    bool startServer()
    {
        srv_ = std::make_unique<Server>(Server::Options{3600000});
        if (srv_->startup() != Server::Started)
            return false;
        svc_ = &srv_->printService();
        connect(svc_, &PrintService::jobStarted, this,
                [this](int p, int j) { events_ << QStringLiteral("start %1 %2").arg(p).arg(j); });
        connect(svc_, &PrintService::jobFinished, this, [this](int p, int j, bool ok, const QString&) {
            events_ << QStringLiteral("end %1 %2 %3").arg(p).arg(j).arg(ok ? "OK" : "ERR");
        });
        return QTest::qWaitFor([&] { return slot(1).status == StatusReady && slot(2).status == StatusReady; }, 10000);
    }
    // A driver object of its own, without a server: printer 1 on the box or printer 2 on COM2:.
    Emulator& startDriver(bool serial)
    {
        drv_ = std::make_unique<MP104C>();
        drv_->setAnswerTimeout(5000);
        drv_->setPort(serial ? QStringLiteral("COM2:") : "NETBOX:" + inst_->net.bareDevice());
        drv_->setSettings(serial ? QStringLiteral("9600,n,8,1,x") : QString());
        drv_->setPrinterId(serial ? 2 : 1);
        return serial ? inst_->ser : inst_->net;
    }

    std::unique_ptr<PrinterSite> inst_;
    std::unique_ptr<Server> srv_;
    std::unique_ptr<MP104C> drv_;
    PrintService* svc_ = nullptr;
    QStringList events_; // "start p j", "end p j OK|ERR"
    quill::dbtest::RecordingSink sink_;

private slots:
    void init()
    {
        events_.clear();
        inst_ = std::make_unique<PrinterSite>();
        QVERIFY2(inst_->start(), qPrintable(inst_->errorText()));
        QVERIFY(inst_->setServer(TestInstallation::freePort(), false));
    }

    void cleanup()
    {
        srv_.reset();
        drv_.reset();
        inst_.reset();
    }

    void recheckLimits()
    {
        QVERIFY(startServer());
        // Working past its limit: the pass asks for a check, which waits for the
        // end of the run (here without an answer: the job stays).
        svc_->driver(1)->setAnswerTimeout(1000);
        QCOMPARE(inst_->net.command("silent on"), QStringLiteral("ok"));
        QSignalSpy checks(svc_, &PrintService::checkFinished);
        auto checksOf1 = [&] { // the pass checks printer 2 as well
            return std::count_if(checks.cbegin(), checks.cend(), [](const QList<QVariant>& c) { return c.at(0) == 1; });
        };
        const qint32 j = add(1, 1, "tyst");
        QVERIFY(svc_->startService());
        QTRY_COMPARE_WITH_TIMEOUT(slot(1).status, qint32(StatusWorking), 10000);
        QCOMPARE(statusText(1), GetString(12077));
        svc_->setRecheckLimits(3600000, 1);
        QTest::qWait(20);
        svc_->statusPass();
        svc_->statusPass(); // asked twice meanwhile: one check
        QCOMPARE(slot(1).status, qint32(StatusWorking));
        QTRY_COMPARE_WITH_TIMEOUT(count("end %1 %2 ERR", 1, j), 1, 10000);
        QCOMPARE(queued(), 1);
        QTRY_COMPARE_WITH_TIMEOUT(checksOf1(), 1, 10000);
        QVERIFY(!svc_->driver(1)->busy());
        QCOMPARE(slot(1).status, qint32(StatusError));
        QCOMPARE(statusText(1), GetString(13003));

        QCOMPARE(inst_->net.command("silent off"), QStringLiteral("ok"));
        svc_->statusPass();
        QTRY_COMPARE_WITH_TIMEOUT(queued(), 0, 15000);
        QCOMPARE(count("end %1 %2 OK", 1, j), 1);
    }

    void stopMidRunFinishesRun()
    {
        QVERIFY(startServer());
        QCOMPARE(inst_->net.command("delay 60"), QStringLiteral("ok"));
        const qint32 j1 = add(1, 1, "ett");
        const qint32 j2 = add(1, 1, "två");
        QVERIFY(svc_->startService());
        QTRY_COMPARE_WITH_TIMEOUT(events_, QStringList{QStringLiteral("start 1 %1").arg(j1)}, 5000);

        // The run goes on to its end and is processed; the job timers stay off.
        svc_->stopService();
        QTRY_COMPARE_WITH_TIMEOUT(count("end %1 %2 OK", 1, j1), 1, 15000);
        QCOMPARE(slot(1).status, qint32(StatusReady));
        for (int k = 0; k < 5; ++k)
            QVERIFY(!svc_->jobTimerActive(k));
        QCOMPARE(queued(), 1);

        QVERIFY(svc_->startService());
        QTRY_COMPARE_WITH_TIMEOUT(count("end %1 %2 OK", 1, j2), 1, 15000);
        QCOMPARE(queued(), 0);
        QTRY_COMPARE_WITH_TIMEOUT(PrintedLabels(inst_->netOut.path()), (QStringList{"ett 1/1 t1", "två 1/1 t1"}), 5000);
        // The layout goes with the first job of its template only, before its print.
        QCOMPARE(inst_->net.log().filter(QRegularExpression("^(layout|print)")),
                 (QStringList{"layout 1", "print 1 i 1", "print 1 i 1"}));
    }

    void jobsThatFailTheirChecksWait()
    {
        QVERIFY(startServer());
        // Stored without the request checks, as add-in records are: a missing
        // template at printer 1, a job that is no print at printer 2.
        const qint32 bad1 = add(1, 99, "saknas");
        const qint32 bad2 = add(2, 1, "C", "C");
        add(1, 1, "efter");
        add(2, 1, "annan");
        QVERIFY(svc_->startService());
        // They fail their checks on every tick and the jobs behind them wait:
        // nothing is started, nothing removed.
        QTest::qWait(800);
        QCOMPARE(events_, QStringList());
        QCOMPARE(queued(), 4);
        QCOMPARE(srv_->jobs().SrvNextJobId(1), bad1);
        QCOMPARE(srv_->jobs().SrvNextJobId(2), bad2);
        QCOMPARE(slot(1).status, qint32(StatusReady));
        QCOMPARE(slot(2).status, qint32(StatusReady));

        // Once they are gone, the timers still ticking hand out the jobs behind.
        srv_->jobs().SrvDeleteJob(bad1);
        srv_->jobs().SrvDeleteJob(bad2);
        QTRY_COMPARE_WITH_TIMEOUT(queued(), 0, 15000);
        QCOMPARE(events_.count(), 4);
        QTRY_COMPARE_WITH_TIMEOUT(PrintedLabels(inst_->netOut.path()), QStringList{"efter 1/1 t1"}, 5000);
    }

    void statusPassAndList()
    {
        QVERIFY(startServer());
        QVERIFY(inst_->addNetworkPrinter(3, "Passiv", inst_->net.port(), true));
        svc_->MainAddAndInitAllPrinters();
        PrinterListModel& list = svc_->printerList();
        auto status = [&](int row) { return list.data(list.index(row, 1)).toString(); };
        QCOMPARE(inst_->ser.command("head up"), QStringLiteral("ok"));
        const int opens = inst_->net.log().count("open");
        svc_->statusPass();
        // Ready printers go to Checking at once; the passive one stays passive.
        QCOMPARE(status(0), GetString(12050));
        QCOMPARE(slot(3).status, qint32(StatusPassive));
        QTRY_COMPARE_WITH_TIMEOUT(status(0), GetString(12051), 10000);
        QTRY_COMPARE_WITH_TIMEOUT(status(1), GetString(13010), 10000);
        // The passive printer, on the same box as printer 1, never talks to its driver.
        QCOMPARE(inst_->net.log().count("open"), opens + 1);
    }

    void run_data()
    {
        QTest::addColumn<bool>("serial");
        // Before the run: "no layout" removes 1.lbl; else a longer job on
        // template 1 (then the run has NewTemplate false), perhaps a test print.
        QTest::addColumn<QString>("before");
        QTest::addColumn<QString>("result");
        QTest::addColumn<QStringList>("labels");
        const QStringList two{"Första 1/2 t1", "Första 2/2 t1"};
        const QString longer = "Lång 1/1 t1 [Rad 14/Rad 15/Rad 16/Rad 17]";
        QTest::newRow("print, serial") << true << "" << Ok << two;
        QTest::newRow("layout missing") << false << "no layout" << err(13004) << QStringList();
        // The tag lines the shorter job lacks stay empty.
        QTest::newRow("shorter job") << false << "longer job" << Ok << QStringList{longer} + two;
        // The printer no longer holds layout 1: it is sent again.
        QTest::newRow("after test print") << false << "test print" << Ok << QStringList{longer, " 1/1 t0"} + two;
    }
    void run()
    {
        QFETCH(bool, serial);
        QFETCH(QString, before);
        QFETCH(QString, result);
        QFETCH(QStringList, labels);
        startDriver(serial);
        const qint32 id = drv_->PrinterId();
        QSignalSpy printed(drv_.get(), &MP104C::MPPrintJobFinished);
        if (before == "no layout") {
            QVERIFY(QFile::remove(inst_->file("1.lbl")));
        } else if (!before.isEmpty()) {
            const QString longJob = JobText(id, 1, "1", "KASSA1", "user1", "Lång") + "\t\tRad 14\tRad 15\tRad 16\tRad 17";
            QVERIFY(drv_->MPPrintJob(job(6, longJob), true) && printed.wait(10000));
            QCOMPARE(resultOf(printed), Ok);
            if (before == "test print")
                QCOMPARE(SrvMPTestPrint({}, drv_->Port(), drv_->Settings()), Ok);
        }
        printed.clear();
        const PrintJob second = job(7, JobText(id, 1, "2", "KASSA1", "user1", "Första"));
        QVERIFY(drv_->MPPrintJob(second, before.isEmpty() || before == "no layout"));
        QVERIFY(printed.isEmpty()); // all work runs on the event loop
        // The event carries the run's own printer and job, whatever was written meanwhile.
        drv_->setPrinterId(97);
        QVERIFY(printed.wait(10000));
        QCOMPARE(resultOf(printed), result);
        QCOMPARE(printed.last().at(0).value<qint32>(), id);
        QCOMPARE(printed.last().at(1).value<PrintJob>().id, 7);
        QVERIFY(!drv_->busy());
        QTRY_COMPARE_WITH_TIMEOUT(PrintedLabels((serial ? inst_->serOut : inst_->netOut).path()), labels, 10000);
    }

    // A serial line outlives a run: the answer that came too late for one run
    // reaches the next, which does not take it for its own (an open's 1 read
    // as the status word would be paper out).
    void lateAnswerOfAnEarlierRun()
    {
        QCOMPARE(startDriver(true).command("delay 700"), QStringLiteral("ok"));
        QSignalSpy done(drv_.get(), &MP104C::MPCheckFinished);
        drv_->setAnswerTimeout(300);
        QVERIFY(drv_->MPCheck() && done.wait(10000));
        QCOMPARE(resultOf(done), err(13003));
        drv_->setAnswerTimeout(5000);
        QVERIFY(drv_->MPCheck() && done.wait(10000));
        QCOMPARE(resultOf(done), Ok);
    }

};

QTEST_GUILESS_MAIN(TstPrintService)
#include "tst_printservice.moc"
