// The print service assembled in-process: a provisioned installation, the job
// database and store, the slot table and the service, printing to two
// emulated printers (printer 1 a network box on 127.0.0.1, printer 2 a
// serial printer on a pty). What needs the operator's hand or the clock
// (service stop, re-check limits, the list) is tested here; the road of
// requests through the server process is in tst_endtoend.
#include "database/jobdatabase.h"
#include "database/jobstore.h"
#include "foundation/eventlog.h"
#include "foundation/messages.h"
#include "service/printerlistmodel.h"
#include "service/printservice.h"
#include "service/slots.h"
#include "shell/texts.h"
#include "support/emulator.h"
#include "support/installation.h"

#include <QDir>
#include <QFile>
#include <QJsonDocument>
#include <QJsonObject>
#include <QSignalSpy>
#include <QTest>

using namespace quill;
using quill::test::PrintedLabels;
using quill::test::Emulator;
using quill::test::TestInstallation;

namespace {

QString jobText(int printer, int templateId, int copies, const QString& caption)
{
    return QStringList{"BRIXA", "1.00", "P", QString::number(printer), QString::number(templateId),
                       QString::number(copies), "KASSA1", "2", "4711", "", "user1", caption, "", "Rad 14"}
        .join('\t');
}

class QuietSink final : public MessageSink {
public:
    QStringList texts;
    BoxAnswer show(const QString&, const QString& text, BoxIcon, BoxButtons) override
    {
        texts << text;
        return BoxAnswer::Ok;
    }
};

// The pieces the server assembles, opened on one installation.
struct Server {
    JobDatabase jdb;
    PrinterSlots slotTable;
    std::unique_ptr<JobStore> store;
    std::unique_ptr<PrintService> svc;
    QStringList events; // "start p j", "end p j OK|ERR"

    bool open()
    {
        if (!jdb.SrvOpenDatabases() || !jdb.SrvPrinterOpenDB())
            return false;
        store = std::make_unique<JobStore>(jdb, slotTable);
        svc = std::make_unique<PrintService>(slotTable, jdb, *store);
        if (!svc->MainCreateQuillmotors())
            return false;
        svc->MainAddAndInitAllPrinters();
        if (!jdb.SrvTemplateTypeOpenDB() || !jdb.SrvJobOpenDB())
            return false;
        store->SrvInitAllJobs();
        for (int n = 1; n <= 5; ++n)
            svc->driver(n)->setAnswerTimeout(5000);
        QObject::connect(svc.get(), &PrintService::jobStarted, svc.get(),
                         [this](int p, int j) { events << QStringLiteral("start %1 %2").arg(p).arg(j); });
        QObject::connect(svc.get(), &PrintService::jobFinished, svc.get(), [this](int p, int j, bool ok, const QString&) {
            events << QStringLiteral("end %1 %2 %3").arg(p).arg(j).arg(ok ? "OK" : "ERR");
        });
        return true;
    }
    void close()
    {
        if (svc)
            svc->shutdown();
        svc.reset();
        store.reset();
        jdb.SrvCloseDatabases();
    }
    ~Server() { close(); }

    qint32 add(int printer, int templateId, int copies, const QString& caption)
    {
        const qint32 id = jdb.SrvDBNextId("tbJob");
        return store->SrvAddJob(jobText(printer, templateId, copies, caption)) ? id : -1;
    }
    int queued() const { return store->jobList().count(); }
    const PrinterSlot& slot(int n) const { return slotTable.at(n); }
    QString statusText(int n) const { return slot(n).statusText.trimmed(); }
};

} // namespace

class TstPrintService : public QObject {
    Q_OBJECT

private slots:
    void init();
    void cleanup();

    void checkingPrinterAskedAgainAfterLimit();
    void workingPrinterAskedAgainAfterLimit();
    void stopMidRunFinishesRun();
    void jobsThatFailTheirChecksWait_data();
    void jobsThatFailTheirChecksWait();
    void statusPassAndList();

private:
    std::unique_ptr<TestInstallation> inst_;
    std::unique_ptr<Emulator> net_, ser_;
    std::unique_ptr<QTemporaryDir> out_; // labels of printer 1
    std::unique_ptr<Server> srv_;
    QuietSink sink_;
};

void TstPrintService::init()
{
    inst_ = std::make_unique<TestInstallation>();
    QVERIFY(inst_->ok());
    SetMessageSink(&sink_);
    SetUseLog(true);
    LogInit("Quillbase");
    out_ = std::make_unique<QTemporaryDir>();
    net_ = std::make_unique<Emulator>();
    net_->setOutDir(out_->path());
    QVERIFY2(net_->startTcp(), qPrintable(net_->errorText()));
    ser_ = std::make_unique<Emulator>();
    QVERIFY2(ser_->startPty(9600), qPrintable(ser_->errorText()));
    ser_->mapComPort(2);
    QVERIFY(inst_->addNetworkPrinter(1, "Kassa", net_->port()));
    QVERIFY(inst_->addSerialPrinter(2, "Bar", 2, 9600));
    srv_ = std::make_unique<Server>();
    QVERIFY(srv_->open());
}

void TstPrintService::cleanup()
{
    srv_.reset();
    net_.reset();
    ser_.reset();
    out_.reset();
    SetMessageSink(nullptr);
    SetUseLog(false);
    inst_.reset();
}

void TstPrintService::checkingPrinterAskedAgainAfterLimit()
{
    Server& s = *srv_;
    s.svc->driver(1)->setAnswerTimeout(60000);
    QCOMPARE(net_->command("silent on"), QStringLiteral("ok"));
    // The limits follow the interval: 60 s and 120 s by default.
    QCOMPARE(s.svc->checkingLimit(), 60000);
    QCOMPARE(s.svc->workingLimit(), 120000);
    s.svc->setStatusInterval(250);
    QCOMPARE(s.svc->workingLimit(), 500);

    s.svc->setRecheckLimits(3600000, 3600000);
    s.svc->statusPass();
    QCOMPARE(s.slot(1).status, qint32(StatusChecking));
    QCOMPARE(s.statusText(1), GetString(12050));
    const QDateTime since = s.slot(1).statusTime;
    QTRY_COMPARE_WITH_TIMEOUT(net_->log().count("open"), 1, 10000);
    // Within the limit the pass leaves a silent printer alone.
    for (int i = 0; i < 3; ++i) {
        QTest::qWait(100);
        s.svc->statusPass();
    }
    QTest::qWait(300);
    QCOMPARE(net_->log().count("open"), 1);

    // Past the limit every pass asks again, and the status time stays.
    s.svc->setRecheckLimits(0, 0);
    QTest::qWait(300);
    s.svc->statusPass();
    QTRY_COMPARE_WITH_TIMEOUT(net_->log().count("open"), 2, 10000);
    s.svc->statusPass();
    QTRY_COMPARE_WITH_TIMEOUT(net_->log().count("open"), 3, 10000);
    QCOMPARE(s.slot(1).status, qint32(StatusChecking));
    QCOMPARE(s.slot(1).statusTime, since);

    QCOMPARE(net_->command("silent off"), QStringLiteral("ok"));
    s.svc->statusPass();
    QTRY_COMPARE_WITH_TIMEOUT(s.slot(1).status, qint32(StatusReady), 10000);
    // The serial printer answered the first pass all along.
    QCOMPARE(s.slot(2).status, qint32(StatusReady));
}

void TstPrintService::workingPrinterAskedAgainAfterLimit()
{
    Server& s = *srv_;
    s.svc->driver(1)->setAnswerTimeout(1500);
    QCOMPARE(net_->command("silent on"), QStringLiteral("ok"));
    QSignalSpy checks(s.svc.get(), &PrintService::checkFinished);
    const qint32 j = s.add(1, 1, 1, "tyst");
    QVERIFY(s.svc->startService());
    QTRY_COMPARE_WITH_TIMEOUT(s.slot(1).status, qint32(StatusWorking), 10000);
    QCOMPARE(s.statusText(1), GetString(12077));

    s.svc->setRecheckLimits(3600000, 1);
    QTest::qWait(50);
    s.svc->statusPass(); // Working past its limit: a check is asked for
    QCOMPARE(s.slot(1).status, qint32(StatusWorking));
    // The run ends without an answer; the job stays; then the check reports.
    QTRY_COMPARE_WITH_TIMEOUT(s.events.count(QStringLiteral("end 1 %1 ERR").arg(j)), 1, 10000);
    QCOMPARE(s.queued(), 1);
    // The pass also checked the serial printer: only printer 1's answer counts.
    auto checksOf1 = [&] {
        int n = 0;
        for (const QList<QVariant>& c : checks)
            n += c.at(0).toInt() == 1;
        return n;
    };
    QTRY_COMPARE_WITH_TIMEOUT(checksOf1(), 1, 10000);
    QCOMPARE(s.slot(1).status, qint32(StatusError));
    QCOMPARE(s.statusText(1), GetString(13003));

    QCOMPARE(net_->command("silent off"), QStringLiteral("ok"));
    s.svc->statusPass();
    QTRY_COMPARE_WITH_TIMEOUT(s.queued(), 0, 15000);
    QCOMPARE(s.events.count(QStringLiteral("end 1 %1 OK").arg(j)), 1);
}

void TstPrintService::stopMidRunFinishesRun()
{
    Server& s = *srv_;
    QCOMPARE(net_->command("delay 60"), QStringLiteral("ok"));
    const qint32 j1 = s.add(1, 1, 1, "ett");
    const qint32 j2 = s.add(1, 1, 1, "två");
    // Stopped: jobs are kept and nothing is handed out.
    QTest::qWait(500);
    QVERIFY(s.events.isEmpty());
    QSignalSpy started(s.svc.get(), &PrintService::jobStarted);
    QVERIFY(s.svc->startService());
    QVERIFY(started.wait(5000));
    QCOMPARE(started.at(0).at(1).toInt(), j1);

    // The run goes on to its end and is processed; the timer stays off.
    s.svc->stopService();
    QVERIFY(!s.svc->serviceRunning());
    QTRY_COMPARE_WITH_TIMEOUT(s.events.count(QStringLiteral("end 1 %1 OK").arg(j1)), 1, 15000);
    QCOMPARE(s.slot(1).status, qint32(StatusReady));
    for (int k = 0; k < 5; ++k)
        QVERIFY(!s.svc->jobTimerActive(k));
    QTest::qWait(800);
    QCOMPARE(started.count(), 1);
    QCOMPARE(s.queued(), 1);

    QVERIFY(s.svc->startService());
    QTRY_COMPARE_WITH_TIMEOUT(s.events.count(QStringLiteral("end 1 %1 OK").arg(j2)), 1, 15000);
    QCOMPARE(s.queued(), 0);
    QTRY_COMPARE_WITH_TIMEOUT(PrintedLabels(out_->path()), (QStringList{"ett 1/1 t1", "två 1/1 t1"}), 5000);
}

void TstPrintService::jobsThatFailTheirChecksWait_data()
{
    QTest::addColumn<QString>("text");
    QTest::newRow("template missing") << jobText(1, 99, 1, "saknas");
    QTest::newRow("not a print") << jobText(1, 1, 1, "C").replace("\tP\t", "\tC\t");
}

void TstPrintService::jobsThatFailTheirChecksWait()
{
    QFETCH(QString, text);
    // Stored without the request checks, as an add-in record is.
    QVERIFY(srv_->store->SrvAddJob(text));
    const qint32 behind = srv_->add(1, 1, 1, "efter");
    const qint32 other = srv_->add(2, 1, 1, "annan");
    QVERIFY(srv_->svc->startService());
    // Printer 2 goes on with its own job ...
    QTRY_COMPARE_WITH_TIMEOUT(srv_->events.count(QStringLiteral("end 2 %1 OK").arg(other)), 1, 10000);
    QTest::qWait(600);
    // ... while printer 1's first job fails its check on every tick and the
    // one behind it waits: nothing is started, nothing removed.
    QCOMPARE(srv_->events, QStringList{QStringLiteral("start 2 %1").arg(other)}
                               << QStringLiteral("end 2 %1 OK").arg(other));
    QCOMPARE(srv_->queued(), 2);
    QCOMPARE(srv_->store->SrvNextJobId(1), behind - 1);
    QCOMPARE(srv_->slot(1).status, qint32(StatusReady));
    QVERIFY(srv_->svc->jobTimerActive(0));
}

void TstPrintService::statusPassAndList()
{
    Server& s = *srv_;
    QVERIFY(inst_->addNetworkPrinter(3, "Passiv", net_->port(), true));
    s.svc->MainAddAndInitAllPrinters();
    PrinterListModel& list = s.svc->printerList();
    QCOMPARE(list.rowCount(), 3);
    QCOMPARE(list.headerData(0, Qt::Horizontal).toString(), GetString(12043));
    QCOMPARE(list.headerData(1, Qt::Horizontal).toString(), GetString(12044));
    QCOMPARE(list.data(list.index(0, 0)).toString(), QStringLiteral("1 Kassa på 127.0.0.1"));
    QCOMPARE(list.data(list.index(1, 0)).toString(), QStringLiteral("2 Bar på COM2:"));
    QCOMPARE(list.data(list.index(2, 1)).toString(), GetString(12052));
    QVERIFY(list.data(list.index(2, 0), PrinterListModel::PassiveRole).toBool());

    QCOMPARE(ser_->command("head up"), QStringLiteral("ok"));
    QSignalSpy changed(&list, &QAbstractItemModel::dataChanged);
    QSignalSpy statusSpy(s.svc.get(), &PrintService::printerStatusChanged);
    const QDateTime before = s.slot(3).statusTime;
    QTest::qWait(20);
    s.svc->statusPass();
    // Ready printers go to Checking at once; the passive one is refreshed.
    QCOMPARE(list.data(list.index(0, 1)).toString(), GetString(12050));
    QCOMPARE(s.slot(3).status, qint32(StatusPassive));
    QVERIFY(s.slot(3).statusTime > before);
    QTRY_COMPARE_WITH_TIMEOUT(list.data(list.index(0, 1)).toString(), GetString(12051), 10000);
    QTRY_COMPARE_WITH_TIMEOUT(list.data(list.index(1, 1)).toString(), GetString(13010), 10000);
    QCOMPARE(list.data(list.index(1, 0), PrinterListModel::StatusWordRole).toString(), GetString(12082));
    QVERIFY(changed.count() >= 5);
    QVERIFY(statusSpy.count() >= 5);
    // The passive printer never talks to its driver.
    QCOMPARE(net_->log().count("open"), 1);
}

QTEST_GUILESS_MAIN(TstPrintService)
#include "tst_printservice.moc"
