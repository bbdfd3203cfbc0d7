// The print service of an in-process server on a provisioned installation,
// printing to two emulators (printer 1 a network box, printer 2 a serial
// printer on a pty): what needs the operator's hand or the clock and cannot
// be seen from outside the server. Jobs through the server are in tst_endtoend.
#include "database/jobdatabase.h"
#include "database/jobstore.h"
#include "service/printerlistmodel.h"
#include "service/printservice.h"
#include "shell/server.h"
#include "foundation/texts.h"
#include "support/dbfixture.h"
#include "support/emulator.h"
#include "support/installation.h"

#include <QRegularExpression>
#include <QSignalSpy>
#include <QTest>

using namespace quill;
using quill::test::PrinterSite;
using quill::test::PrintedLabels;
using quill::test::TestInstallation;

class TstPrintService : public QObject {
    Q_OBJECT

    // Stores a one-copy job as it comes, without the request checks; its id or -1.
    qint32 add(int printer, int templateId, const QString& caption, const QString& op = QStringLiteral("P"))
    {
        const qint32 id = quill::JobRepository(srv_->database().database()).nextId().value;
        QString text = quill::dbtest::JobText(printer, templateId, "1", "KASSA1", "user1", caption);
        text.replace(QStringLiteral("\tP\t"), QStringLiteral("\t%1\t").arg(op));
        return srv_->jobs().SrvAddJob(PrintJob::fromText(text)) ? id : -1;
    }
    int queued() { return srv_->jobs().jobList().count(); }
    const PrinterSlot& slot(int n) { return srv_->printers().at(n); }
    QString statusText(int n) { return slot(n).statusText.trimmed(); }
    int count(const QString& event, int p, int j) const { return events_.count(event.arg(p).arg(j)); }

    std::unique_ptr<PrinterSite> inst_;
    std::unique_ptr<Server> srv_;
    PrintService* svc_ = nullptr;
    QStringList events_; // "start p j", "end p j OK|ERR"
    quill::dbtest::RecordingSink sink_;

private slots:
    void init()
    {
        inst_ = std::make_unique<PrinterSite>();
        QVERIFY2(inst_->start(), qPrintable(inst_->errorText()));
        QVERIFY(inst_->setServer(TestInstallation::freePort(), false));
        // No status pass but those a test makes, after the start-up one.
        srv_ = std::make_unique<Server>(Server::Options{3600000});
        QCOMPARE(srv_->startup(), Server::Started);
        svc_ = &srv_->printService();
        events_.clear();
        connect(svc_, &PrintService::jobStarted, this,
                [this](int p, int j) { events_ << QStringLiteral("start %1 %2").arg(p).arg(j); });
        connect(svc_, &PrintService::jobFinished, this, [this](int p, int j, bool ok, const QString&) {
            events_ << QStringLiteral("end %1 %2 %3").arg(p).arg(j).arg(ok ? "OK" : "ERR");
        });
        QTRY_VERIFY_WITH_TIMEOUT(slot(1).status == StatusReady && slot(2).status == StatusReady, 10000);
    }

    void cleanup()
    {
        srv_.reset();
        inst_.reset();
    }

    void recheckLimits()
    {
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

        // Checking: left alone within its limit; past it every pass asks again,
        // on a new link, and the status time stays.
        svc_->driver(1)->setAnswerTimeout(60000);
        svc_->setRecheckLimits(3600000, 3600000);
        const int opens = inst_->net.log().count("open");
        svc_->statusPass();
        QCOMPARE(slot(1).status, qint32(StatusChecking));
        const QDateTime since = slot(1).statusTime;
        QTRY_COMPARE_WITH_TIMEOUT(inst_->net.log().count("open"), opens + 1, 10000);
        svc_->statusPass();
        QTest::qWait(300);
        QCOMPARE(inst_->net.log().count("open"), opens + 1);
        svc_->setRecheckLimits(1, 1);
        svc_->statusPass();
        QTRY_COMPARE_WITH_TIMEOUT(inst_->net.log().count("open"), opens + 2, 10000);
        QCOMPARE(slot(1).status, qint32(StatusChecking));
        QCOMPARE(slot(1).statusTime, since);
        QCOMPARE(checksOf1(), 1); // the dropped attempts never report

        QCOMPARE(inst_->net.command("silent off"), QStringLiteral("ok"));
        svc_->statusPass();
        QTRY_COMPARE_WITH_TIMEOUT(queued(), 0, 15000);
        QCOMPARE(count("end %1 %2 OK", 1, j), 1);
    }

    void stopMidRunFinishesRun()
    {
        QCOMPARE(inst_->net.command("delay 60"), QStringLiteral("ok"));
        const qint32 j1 = add(1, 1, "ett");
        const qint32 j2 = add(1, 1, "två");
        // Stopped: jobs are kept and nothing is handed out.
        QTest::qWait(300);
        QVERIFY(events_.isEmpty());
        QVERIFY(svc_->startService());
        QTRY_COMPARE_WITH_TIMEOUT(events_, QStringList{QStringLiteral("start 1 %1").arg(j1)}, 5000);

        // The run goes on to its end and is processed; the job timers stay off.
        svc_->stopService();
        QVERIFY(!svc_->serviceRunning());
        QTRY_COMPARE_WITH_TIMEOUT(count("end %1 %2 OK", 1, j1), 1, 15000);
        QCOMPARE(slot(1).status, qint32(StatusReady));
        for (int k = 0; k < 5; ++k)
            QVERIFY(!svc_->jobTimerActive(k));
        QTest::qWait(300);
        QCOMPARE(events_.size(), 2);
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
        QVERIFY(inst_->addNetworkPrinter(3, "Passiv", inst_->net.port(), true));
        svc_->MainAddAndInitAllPrinters();
        PrinterListModel& list = svc_->printerList();
        auto cell = [&](int row, int column, int role = Qt::DisplayRole) {
            return list.data(list.index(row, column), role);
        };
        QCOMPARE(cell(2, 1).toString(), GetString(12052));
        QVERIFY(cell(2, 0, PrinterListModel::PassiveRole).toBool());

        QCOMPARE(inst_->ser.command("head up"), QStringLiteral("ok"));
        const QDateTime before = slot(3).statusTime;
        const int opens = inst_->net.log().count("open");
        QTest::qWait(20);
        svc_->statusPass();
        // Ready printers go to Checking at once; the passive one is refreshed.
        QCOMPARE(cell(0, 1).toString(), GetString(12050));
        QCOMPARE(slot(3).status, qint32(StatusPassive));
        QVERIFY(slot(3).statusTime > before);
        QTRY_COMPARE_WITH_TIMEOUT(cell(0, 1).toString(), GetString(12051), 10000);
        QTRY_COMPARE_WITH_TIMEOUT(cell(1, 1).toString(), GetString(13010), 10000);
        QCOMPARE(cell(1, 0, PrinterListModel::StatusWordRole).toString(), GetString(12082));
        // The passive printer, on the same box as printer 1, never talks to its driver.
        QCOMPARE(inst_->net.log().count("open"), opens + 1);
    }
};

QTEST_GUILESS_MAIN(TstPrintService)
#include "tst_printservice.moc"
