// The operator's commands on an in-process server with two emulated printers
// (1 "Kassa" on a network box, 2 "Bar" on a serial pty): each command's
// outcome, its questions answered both ways, and the refusals.
#include "database/jobdatabase.h"
#include "database/jobstore.h"
#include "foundation/eventlog.h"
#include "shell/messages.h"
#include "foundation/settings.h"
#include "foundation/texts.h"
#include "protocol/listener.h"
#include "service/printservice.h"
#include "service/quillmotor.h"
#include "shell/operator.h"
#include "shell/server.h"
#include "support/dbfixture.h"
#include "support/installation.h"

#include <QAbstractItemModelTester>
#include <QElapsedTimer>
#include <QFile>
#include <QRegularExpression>
#include <QScopeGuard>
#include <QThread>
#include <QSignalSpy>
#include <QTcpServer>
#include <QTcpSocket>
#include <QTest>

using namespace quill;
using quill::test::PrinterSite;
using quill::test::TestInstallation;
using Outcome = Operator::Outcome;

class TstOperator : public QObject {
    Q_OBJECT

    std::unique_ptr<PrinterSite> inst_;
    std::unique_ptr<Server> srv_;
    std::unique_ptr<Operator> op_;
    quill::dbtest::RecordingSink sink_;
    quint16 port_ = 0;

    void startServer()
    {
        srv_ = std::make_unique<Server>(Server::Options{3600000});
        op_ = std::make_unique<Operator>(*srv_);
        new QAbstractItemModelTester(&srv_->jobs().jobList(), QAbstractItemModelTester::FailureReportingMode::QtTest,
                                     op_.get());
        new QAbstractItemModelTester(&srv_->printService().printerList(),
                                     QAbstractItemModelTester::FailureReportingMode::QtTest, op_.get());
        QCOMPARE(srv_->startup(), Server::Started);
    }
    qint32 addJob(int printer, const QString& caption)
    {
        const qint32 id = quill::JobRepository(srv_->database().database()).nextId().value;
        return srv_->jobs().SrvAddJob(quill::PrintJob::fromText(quill::dbtest::JobText(printer, 1, "1", "KASSA1", "user1", caption))) ? id : -1;
    }
    int jobsInTable() { return inst_->scalar("SELECT COUNT(*) FROM tbJob").toInt(); }
    const PrinterSlot& slot(int n) { return srv_->printers().at(n); }
    void answer(BoxAnswer a)
    {
        sink_.boxes.clear();
        sink_.answer = a;
    }

    void teardown()
    {
        sink_.whileShown = nullptr;
        op_.reset();
        srv_.reset();
        inst_.reset();
        held_ = waiting_ = -1;
    }
    // The queue tools' refusals change nothing (each row checks): they share one set-up.
    static bool sharedSetUp() { return QByteArray(QTest::currentTestFunction()) == "queueToolRefusals"; }
    qint32 held_ = -1, waiting_ = -1;

private slots:
    void init()
    {
        if (sharedSetUp() && held_ > 0)
            return;
        teardown();
        inst_ = std::make_unique<PrinterSite>();
        QVERIFY2(inst_->start(), qPrintable(inst_->errorText()));
        port_ = TestInstallation::freePort();
        QVERIFY(inst_->setServer(port_, false));
        answer(BoxAnswer::Yes);
        startServer();
        QTRY_VERIFY_WITH_TIMEOUT(slot(1).status == StatusReady && slot(2).status == StatusReady, 10000);
    }
    void cleanup()
    {
        if (!sharedSetUp() || QTest::currentTestFailed())
            teardown();
    }
    void cleanupTestCase() { teardown(); }

    void serviceToggle()
    {
        QSignalSpy states(op_.get(), &Operator::serviceStateChanged);
        QCOMPARE(op_->toggleService(), Outcome::Done);
        QVERIFY(op_->serviceRunning());
        QCOMPARE(op_->startService(), Outcome::NothingToDo);
        QCOMPARE(op_->toggleService(), Outcome::Done);
        QVERIFY(!op_->serviceRunning());
        QCOMPARE(states.size(), 2);
        // Without a listener the service button cannot be pressed.
        srv_->listener().close();
        QVERIFY(!op_->serviceAvailable());
        QCOMPARE(op_->startService(), Outcome::Refused);
        QVERIFY(!op_->serviceRunning());
    }

    void deleteJobs_data()
    {
        QTest::addColumn<bool>("all");
        QTest::addColumn<bool>("yes");
        QTest::addColumn<int>("left");
        QTest::newRow("one, yes") << false << true << 2;
        QTest::newRow("one, no") << false << false << 3;
        QTest::newRow("all, yes") << true << true << 0;
        QTest::newRow("all, no") << true << false << 3;
    }
    void deleteJobs()
    {
        QFETCH(bool, all);
        QFETCH(bool, yes);
        QFETCH(int, left);
        const qint32 first = addJob(1, "Första");
        const qint32 second = addJob(2, "Andra");
        addJob(1, "Tredje");

        // Refused while the service runs, and nothing asked.
        QCOMPARE(op_->startService(), Outcome::Done);
        answer(yes ? BoxAnswer::Yes : BoxAnswer::No);
        QCOMPARE(all ? op_->deleteAllJobs() : op_->deleteJob(second), Outcome::Refused);
        QVERIFY(sink_.boxes.isEmpty());
        QCOMPARE(op_->stopService(), Outcome::Done);
        QCOMPARE(srv_->jobs().jobList().count(), 3); // nothing printed: printer 1's run needs its timer

        QSignalSpy busy(op_.get(), &Operator::busyChanged);
        QCOMPARE(all ? op_->deleteAllJobs() : op_->deleteJob(second), yes ? Outcome::Done : Outcome::Declined);
        QCOMPARE(sink_.boxes.size(), 1);
        QCOMPARE(sink_.boxes[0].text, all ? GetString(12042) : GetString(12041, QString::number(second) + " Andra"));
        QCOMPARE(sink_.boxes[0].defaultAnswer, BoxAnswer::No);
        QCOMPARE(srv_->jobs().jobList().count(), left);
        QCOMPARE(jobsInTable(), left);
        QCOMPARE(busy.size(), yes ? 2 : 0);
        if (!all && yes)
            QCOMPARE(srv_->jobs().jobList().findJob(first), 0);
    }

    void deleteJobEdges()
    {
        QCOMPARE(op_->deleteJob(1), Outcome::NothingToDo);
        QCOMPARE(op_->deleteAllJobs(), Outcome::NothingToDo);
        addJob(1, "Bara");
        QCOMPARE(op_->deleteJob(999), Outcome::Invalid);
        QVERIFY(sink_.boxes.isEmpty());
        QCOMPARE(jobsInTable(), 1);
    }

    void editRefusals_data()
    {
        QTest::addColumn<int>("status");
        QTest::addColumn<bool>("opens");
        QTest::newRow("working") << int(StatusWorking) << false;
        QTest::newRow("checking") << int(StatusChecking) << false;
        QTest::newRow("error") << int(StatusError) << true;
        QTest::newRow("ready") << int(StatusReady) << true;
    }
    void editRefusals()
    {
        QFETCH(int, status);
        QFETCH(bool, opens);
        srv_->printers().SrvSetPrinterStatus(1, status, "före");
        PrinterSettings dialog;
        QCOMPARE(op_->openEditPrinter(1, &dialog), opens ? Outcome::Done : Outcome::Refused);
        QVERIFY(sink_.boxes.isEmpty());
        if (!opens) {
            QCOMPARE(slot(1).status, status);
            QCOMPARE(op_->editingPrinter(), -1);
            return;
        }
        QCOMPARE(slot(1).status, qint32(StatusConfiguring));
        QCOMPARE(op_->editingPrinter(), 1);
        QCOMPARE(dialog.name, QString("Kassa"));
        QVERIFY(!dialog.serial);
        QCOMPARE(dialog.netAddress, QString("127.0.0.1"));
        // Cancel gives the status the printer had before.
        QCOMPARE(op_->cancelPrinter(), Outcome::Done);
        QCOMPARE(slot(1).status, status);
        QCOMPARE(slot(1).statusText.trimmed(), QString("före"));
        QCOMPARE(op_->editingPrinter(), -1);
        QCOMPARE(op_->cancelPrinter(), Outcome::NothingToDo);
    }

    void editMissingAndNewWhenFull()
    {
        PrinterSettings dialog;
        QCOMPARE(op_->openEditPrinter(4, &dialog), Outcome::Refused);
        QCOMPARE(op_->openNewPrinter(&dialog), Outcome::Done);
        QVERIFY(dialog.name.isEmpty());
        QCOMPARE(op_->editingPrinter(), -1);
        QCOMPARE(op_->cancelPrinter(), Outcome::Done);

        for (int id = 3; id <= 5; ++id) {
            QCOMPARE(op_->openNewPrinter(&dialog), Outcome::Done);
            dialog.name = QStringLiteral("P%1").arg(id);
            dialog.passive = true;
            qint32 saved = 0;
            QCOMPARE(op_->savePrinter(dialog, &saved), Outcome::Done);
            QCOMPARE(saved, id);
        }
        QCOMPARE(op_->openNewPrinter(&dialog), Outcome::Refused);
        QCOMPARE(sink_.texts(), QStringList{GetString(12028)});
        QVERIFY(!op_->printerDialogOpen());
    }

    void saveValidation_data()
    {
        QTest::addColumn<QString>("name");
        QTest::addColumn<QString>("address");
        QTest::addColumn<QString>("port");
        QTest::addColumn<int>("field");
        QTest::addColumn<int>("text");
        QTest::newRow("blank name") << "   " << "127.0.0.1" << "23" << int(Operator::Field::PrinterName) << 12025;
        QTest::newRow("no address") << "Ny" << " " << "23" << int(Operator::Field::NetAddress) << 12026;
        QTest::newRow("no port") << "Ny" << "127.0.0.1" << "" << int(Operator::Field::NetPort) << 12027;
    }
    void saveValidation()
    {
        QFETCH(QString, name);
        QFETCH(QString, address);
        QFETCH(QString, port);
        QFETCH(int, field);
        QFETCH(int, text);
        PrinterSettings dialog;
        QCOMPARE(op_->openNewPrinter(&dialog), Outcome::Done);
        dialog.name = name;
        dialog.serial = false;
        dialog.netAddress = address;
        dialog.netPort = port;
        QCOMPARE(op_->savePrinter(dialog), Outcome::Invalid);
        QCOMPARE(int(op_->invalidField()), field);
        QCOMPARE(sink_.texts(), QStringList{GetString(text)});
        QCOMPARE(dialog.netPort, port.isEmpty() ? QString("23") : port);
        QVERIFY(op_->printerDialogOpen());
        QVERIFY(!srv_->printers().SrvPrinterExists(3));
    }

    void saveNewThenDelete()
    {
        // A new network printer on the box: saved in slot 3 and checked Ready.
        PrinterSettings dialog;
        QCOMPARE(op_->openNewPrinter(&dialog), Outcome::Done);
        dialog.name = "Shop";
        dialog.serial = false;
        dialog.netAddress = " 127.0.0.1 ";
        dialog.netPort = QString::number(inst_->net.port());
        QSignalSpy selected(op_.get(), &Operator::printerSelected);
        QSignalSpy checked(op_.get(), &Operator::printerChecked);
        qint32 id = 0;
        QCOMPARE(op_->savePrinter(dialog, &id), Outcome::Done);
        QCOMPARE(id, 3);
        QCOMPARE(selected.value(0).value(0).toInt(), 3);
        // Checked off the event loop: Checking until the printer has answered.
        QCOMPARE(slot(3).status, qint32(StatusChecking));
        QCOMPARE(op_->deletePrinter(3), Outcome::Busy);
        QTRY_COMPARE_WITH_TIMEOUT(checked.size(), 1, 20000);
        QCOMPARE(checked[0][0].toInt(), 3);
        QCOMPARE(slot(3).status, qint32(StatusReady));
        QCOMPARE(slot(3).statusText.trimmed(), GetString(12079));
        QCOMPARE(srv_->printService().printerList().rowCount(), 3);
        QCOMPARE(inst_->scalar("SELECT Name FROM tbPrinter WHERE Id = 3").toString(), QString("Shop"));

        answer(BoxAnswer::No);
        QCOMPARE(op_->deletePrinter(3), Outcome::Declined);
        QVERIFY(srv_->printers().SrvPrinterExists(3));
        answer(BoxAnswer::Yes);
        QCOMPARE(op_->deletePrinter(3), Outcome::Done);
        QCOMPARE(sink_.texts(), QStringList{GetString(12040, slot(3).displayText.trimmed())});
        QVERIFY(!srv_->printers().SrvPrinterExists(3));
        QCOMPARE(srv_->printService().printerList().rowCount(), 2);
        QCOMPARE(inst_->scalar("SELECT COUNT(*) FROM tbPrinter WHERE Id = 3").toInt(), 0);
        QCOMPARE(op_->deletePrinter(3), Outcome::Refused);
    }

    void deviceOperationOneAtATime()
    {
        PrinterSettings dialog;
        QCOMPARE(op_->openEditPrinter(1, &dialog), Outcome::Done);
        QSignalSpy finished(op_.get(), &Operator::deviceOperationFinished);
        const int prints = inst_->net.log().count("print 1 i");
        QCOMPARE(op_->startDeviceOperation(Operator::DeviceOperation::TestPrint, dialog), Outcome::Done);
        QVERIFY(op_->deviceOperationRunning());
        // A second command while it runs is refused, not started.
        QCOMPARE(op_->startDeviceOperation(Operator::DeviceOperation::Calibrate, dialog), Outcome::Busy);
        QCOMPARE(op_->savePrinter(dialog), Outcome::Busy);
        QCOMPARE(op_->cancelPrinter(), Outcome::Busy);
        QTRY_COMPARE_WITH_TIMEOUT(finished.size(), 1, 20000);
        QCOMPARE(finished[0][0].value<Operator::DeviceOperation>(), Operator::DeviceOperation::TestPrint);
        QCOMPARE(finished[0][1].value<Outcome>(), Outcome::Done);
        QTRY_COMPARE_WITH_TIMEOUT(inst_->net.log().count("print 1 i"), prints + 1, 10000);

        // An unreachable printer: the box says why.
        dialog.netPort = QString::number(TestInstallation::freePort());
        QCOMPARE(op_->startDeviceOperation(Operator::DeviceOperation::ClearMemory, dialog), Outcome::Done);
        QTRY_COMPARE_WITH_TIMEOUT(finished.size(), 2, 20000);
        QCOMPARE(finished[1][1].value<Outcome>(), Outcome::Failed);
        QCOMPARE(sink_.texts().value(0), GetString(12024) + " " + GetString(12038) + "\r");
        QCOMPARE(op_->cancelPrinter(), Outcome::Done);
    }

    // A configure waiting on a printer that does not answer leaves the
    // server answering its clients; the question it asks half-way comes up
    // on the event-loop thread.
    void clientsAnsweredWhileAConfigureWaits()
    {
        QCOMPARE(op_->startService(), Outcome::Done);
        PrinterSettings dialog;
        QCOMPARE(op_->openEditPrinter(1, &dialog), Outcome::Done);
        // The box's own port, where its known address is tried first.
        RegSetValue(HKEY_LOCAL_MACHINE, KeyQuillbase, QStringLiteral("dwNetBoxPort"), REG_DWORD, inst_->net.port());
        QCOMPARE(inst_->net.command("silent on"), QStringLiteral("ok"));
        const qsizetype opens = inst_->net.log().count("open");
        answer(BoxAnswer::No);
        bool askedOnMainThread = false;
        sink_.whileShown = [&](const Box&) { askedOnMainThread = QThread::currentThread() == qApp->thread(); };
        QSignalSpy finished(op_.get(), &Operator::deviceOperationFinished);
        const int jobs = jobsInTable();
        QCOMPARE(op_->startDeviceOperation(Operator::DeviceOperation::Configure, dialog), Outcome::Done);
        QTRY_COMPARE_WITH_TIMEOUT(inst_->net.log().count("open"), opens + 1, 10000);

        int answeredDuring = 0;
        for (int i = 0; i < 3; ++i) {
            QTcpSocket c;
            c.connectToHost(QHostAddress::LocalHost, port_);
            QVERIFY(c.waitForConnected(5000));
            c.write("BRIXA\t1.00\tP\t1\t1\t1\tKASSA1\t0\t\t\tuser1\twhile configuring\t\t\r\n");
            QByteArray reply;
            QTRY_VERIFY_WITH_TIMEOUT((reply += c.readAll()).startsWith("BRIXA\tOK\t") || !op_->deviceOperationRunning(),
                                     10000);
            if (op_->deviceOperationRunning() && reply.startsWith("BRIXA\tOK\t"))
                ++answeredDuring;
        }
        QCOMPARE(answeredDuring, 3);
        QCOMPARE(jobsInTable(), jobs + 3);

        QTRY_COMPARE_WITH_TIMEOUT(finished.size(), 1, 30000);
        QCOMPARE(finished[0][1].value<Outcome>(), Outcome::Failed);
        QCOMPARE(sink_.texts(), (QStringList{GetString(12036) + "\r" + GetString(12037) + "\r\r" + GetString(12017),
                                             GetString(12034) + "\r" + GetString(12035)}));
        QVERIFY(askedOnMainThread);
        QCOMPARE(inst_->net.command("silent off"), QStringLiteral("ok"));
        QCOMPARE(op_->cancelPrinter(), Outcome::Done);
    }

    // The print driver's check of a printer waits while a test print holds
    // the same box: the box sees one whole session, then the other.
    void driverWaitsForTheConnection()
    {
        PrinterSettings dialog;
        QCOMPARE(op_->openNewPrinter(&dialog), Outcome::Done);
        dialog.serial = false;
        const QString box = slot(1).connectionString.trimmed();
        dialog.netAddress = box.section('#', 0, 0);
        dialog.netPort = box.section('#', 1);
        QCOMPARE(inst_->net.command("delay 100"), QStringLiteral("ok"));
        QCOMPARE(inst_->net.command("clear-log"), QStringLiteral("ok"));
        QSignalSpy finished(op_.get(), &Operator::deviceOperationFinished);
        QSignalSpy checked(&srv_->printService(), &PrintService::checkFinished);
        QCOMPARE(op_->startDeviceOperation(Operator::DeviceOperation::TestPrint, dialog), Outcome::Done);
        QTRY_VERIFY_WITH_TIMEOUT(inst_->net.log().contains("open"), 10000);
        srv_->printService().statusPass();
        QTRY_COMPARE_WITH_TIMEOUT(finished.size(), 1, 30000);
        QCOMPARE(finished[0][1].value<Outcome>(), Outcome::Done);
        QTRY_COMPARE_WITH_TIMEOUT(checked.size(), 1, 30000);
        QCOMPARE(checked[0][1].toBool(), true);

        // The check's session may stay open: its "open" is enough.
        QTRY_COMPARE_WITH_TIMEOUT(inst_->net.log().count("open"), 2, 10000);
        const QStringList log = inst_->net.log();
        const qsizetype firstClose = log.indexOf("close");
        QVERIFY2(firstClose > 0 && log.lastIndexOf("open") > firstClose, qPrintable(log.join(", ")));
        QVERIFY(log.indexOf("print 1 i") < firstClose);
        QCOMPARE(inst_->net.command("delay 0"), QStringLiteral("ok"));
        QCOMPARE(op_->cancelPrinter(), Outcome::Done);
    }

    // Shutting down while an operation waits on a silent printer ends its
    // waits at once: with a minute per answer, the wait would otherwise last
    // minutes, and no box comes after the window is gone.
    void shutdownEndsAWaitingOperation()
    {
        PrinterSettings dialog;
        QCOMPARE(op_->openEditPrinter(2, &dialog), Outcome::Done);
        QCOMPARE(inst_->ser.command("silent on"), QStringLiteral("ok"));
        srv_->printService().links().setDeviceTimeout(60000);
        const auto restore = qScopeGuard([this] { srv_->printService().links().setDeviceTimeout(3000); });
        const qsizetype opens = inst_->ser.log().filter(QRegularExpression("^open")).size();
        QCOMPARE(op_->startDeviceOperation(Operator::DeviceOperation::Configure, dialog), Outcome::Done);
        QTRY_COMPARE_WITH_TIMEOUT(inst_->ser.log().filter(QRegularExpression("^open")).size(), opens + 1, 10000);
        sink_.boxes.clear();
        QElapsedTimer clock;
        clock.start();
        op_.reset();
        QVERIFY2(clock.elapsed() < 30000, qPrintable(QString::number(clock.elapsed())));
        QVERIFY(sink_.boxes.isEmpty());
        QCOMPARE(inst_->ser.command("silent off"), QStringLiteral("ok"));
        // A later operation is not cancelled.
        op_ = std::make_unique<Operator>(*srv_);
        QCOMPARE(op_->openEditPrinter(2, &dialog), Outcome::Done);
        QSignalSpy finished(op_.get(), &Operator::deviceOperationFinished);
        QCOMPARE(op_->startDeviceOperation(Operator::DeviceOperation::Calibrate, dialog), Outcome::Done);
        QTRY_COMPARE_WITH_TIMEOUT(finished.size(), 1, 30000);
        QCOMPARE(finished[0][1].value<Outcome>(), Outcome::Done);
        QCOMPARE(op_->cancelPrinter(), Outcome::Done);
    }

    // A refresh checks every printer once; a full one configures the serial
    // printer first (a session of its own before the check's).
    void refreshRunsAPass()
    {
        const auto serialOpens = [&] { return inst_->ser.log().filter(QRegularExpression("^open")).size(); };
        for (const bool full : {false, true}) {
            const qsizetype checks = inst_->net.log().count("open"), serial = serialOpens();
            srv_->printers().SrvSetPrinterStatus(1, StatusError, "Papper slut");
            QCOMPARE(full ? op_->fullRefresh() : op_->refresh(), Outcome::Done);
            QTRY_COMPARE_WITH_TIMEOUT(slot(1).status, qint32(StatusReady), 10000);
            QTRY_COMPARE_WITH_TIMEOUT(slot(2).status, qint32(StatusReady), 10000);
            QVERIFY(inst_->net.log().count("open") > checks);
            QTRY_COMPARE_WITH_TIMEOUT(serialOpens(), serial + (full ? 2 : 1), 10000);
        }
    }

    void settingsStopTheServiceFirst()
    {
        QCOMPARE(op_->startService(), Outcome::Done);
        answer(BoxAnswer::No);
        QCOMPARE(op_->openSettings(), Outcome::Declined);
        QVERIFY(op_->serviceRunning());
        QCOMPARE(sink_.texts(), QStringList{GetString(12016) + "\n" + GetString(12017)});
        answer(BoxAnswer::Yes);
        QCOMPARE(op_->openSettings(), Outcome::Done);
        QVERIFY(!op_->serviceRunning());
        answer(BoxAnswer::Yes);
        QCOMPARE(op_->openSettings(), Outcome::Done);
        QVERIFY(sink_.boxes.isEmpty());
    }

    void settingsSwitchesAndPort()
    {
        Operator::ServerSettings s = op_->serverSettings();
        QCOMPARE(s.port, QString::number(port_));
        QVERIFY(!s.silentMode && !s.autoStartService);

        // A port that is no number or out of range changes nothing at all.
        s.silentMode = true;
        for (const char* bad : {"12a", "", "0", "65536", "-1"}) {
            s.port = bad;
            QCOMPARE(op_->saveSettings(s), Outcome::Invalid);
            QCOMPARE(op_->invalidField(), Operator::Field::ServerPort);
            QCOMPARE(sink_.texts().last(), GetString(12143));
        }
        QVERIFY(!SilentMode());
        sink_.boxes.clear();

        // Switches: two to tbServer, four to the per-user store, at once.
        s.port = QString::number(port_);
        s.autoStartService = true;
        s.useTrafficLog = true;
        s.useLog = false; // on in a new installation
        s.quitQuestion = true;
        QSignalSpy silent(op_.get(), &Operator::silentModeChanged);
        answer(BoxAnswer::Yes);
        Operator::PortChange change;
        QCOMPARE(op_->saveSettings(s, &change), Outcome::Done);
        QCOMPARE(change, Operator::PortChange::Unchanged);
        QVERIFY(sink_.boxes.isEmpty());
        QVERIFY(SilentMode() && UseTrafficLog() && srv_->quitQuestion());
        QCOMPARE(silent.value(0).value(0).toBool(), true);
        QCOMPARE(inst_->scalar("SELECT AutoStartService FROM tbServer").toInt(), 1);
        QCOMPARE(RegGetValue(HKEY_CURRENT_USER, KeyQuillbase, "dwSilentMode").toInt(), 1);
        QCOMPARE(RegGetValue(HKEY_CURRENT_USER, KeyQuillbase, "dwUseLog").toInt(), 0);

        // A busy port: 12006, the service button off, tbServer as it was.
        QTcpServer taken;
        QVERIFY(taken.listen(QHostAddress::Any, 0));
        QSignalSpy available(op_.get(), &Operator::serviceAvailableChanged);
        s.port = QString::number(taken.serverPort());
        QCOMPARE(op_->saveSettings(s, &change), Outcome::Failed);
        QCOMPARE(change, Operator::PortChange::RebindFailed);
        QCOMPARE(sink_.texts(), QStringList{GetString(12006)});
        QCOMPARE(available.value(0).value(0).toBool(), false);
        QCOMPARE(inst_->scalar("SELECT port FROM tbServer").toInt(), int(port_));

        // A free one: rebound, told, stored; the old port refuses.
        const quint16 fresh = TestInstallation::freePort();
        s.port = QString::number(fresh);
        answer(BoxAnswer::Yes);
        QCOMPARE(op_->saveSettings(s, &change), Outcome::Done);
        QCOMPARE(change, Operator::PortChange::Rebound);
        QVERIFY(sink_.texts().value(0).startsWith(GetString(12001) + "\n\n" + GetString(12002)));
        QCOMPARE(inst_->scalar("SELECT port FROM tbServer").toInt(), int(fresh));
        QTcpSocket client;
        client.connectToHost(QHostAddress::LocalHost, fresh);
        QVERIFY(client.waitForConnected(5000));
        QTcpSocket old;
        old.connectToHost(QHostAddress::LocalHost, port_);
        QVERIFY(!old.waitForConnected(2000));
        QVERIFY(op_->serviceAvailable());
    }

    void canQuit()
    {
        // Forced: always, and nothing asked.
        QVERIFY(op_->CanQuit(true));
        QVERIFY(sink_.boxes.isEmpty());
        QVERIFY(op_->CanQuit(false)); // quit question off

        // A working printer refuses.
        srv_->printers().SrvSetPrinterStatus(2, StatusWorking, GetString(12077));
        QVERIFY(!op_->CanQuit(false));
        QCOMPARE(sink_.texts(), QStringList{GetString(12021) + "\n" + GetString(12022)});
        QVERIFY(op_->CanQuit(true));
        srv_->printers().SrvSetPrinterStatus(2, StatusReady, GetString(12079));

        // The quit question, both answers.
        srv_->setQuitQuestion(true);
        answer(BoxAnswer::Cancel);
        QVERIFY(!op_->CanQuit(false));
        QCOMPARE(sink_.texts(), QStringList{GetString(12023, GetString(9003))});
        answer(BoxAnswer::Ok);
        QVERIFY(op_->CanQuit(false));
    }

    void canQuitWhileStarting()
    {
        // A second server on a busy port shows 12014 during its start-up; an
        // exit asked for behind that box is refused with 12020.
        teardown();
        inst_ = std::make_unique<PrinterSite>();
        QVERIFY2(inst_->start(), qPrintable(inst_->errorText()));
        QTcpServer taken;
        QVERIFY(taken.listen(QHostAddress::Any, 0));
        QVERIFY(inst_->setServer(taken.serverPort(), false));
        srv_ = std::make_unique<Server>(Server::Options{3600000});
        op_ = std::make_unique<Operator>(*srv_);
        QList<bool> answers;
        sink_.whileShown = [&](const Box& box) {
            if (box.text == GetString(12014))
                answers << op_->CanQuit(false) << op_->CanQuit(true);
        };
        QCOMPARE(srv_->startup(), Server::Started);
        QCOMPARE(answers, (QList<bool>{false, true}));
        QVERIFY(sink_.texts().contains(GetString(12020)));
        QVERIFY(!op_->serviceAvailable());
        QVERIFY(op_->CanQuit(false));
    }

    // --- queue tools: printer 1 holds its first job in a print run (its
    // emulator answers late), printer 3 is passive.
    qint32 holdFirstJobOfPrinter1()
    {
        PrinterSettings dialog;
        if (op_->openNewPrinter(&dialog) != Outcome::Done)
            return -1;
        dialog.name = QStringLiteral("Passiv");
        dialog.passive = true;
        if (op_->savePrinter(dialog) != Outcome::Done)
            return -1;
        const qint32 held = addJob(1, "Pågår");
        if (inst_->net.command("delay 60000") != "ok" || op_->startService() != Outcome::Done)
            return -1;
        return QTest::qWaitFor([&] { return op_->jobPrinting(held); }, 10000) ? held : -1;
    }

    void queueToolRefusals_data()
    {
        // Jobs: "held" (being printed on 1), "waiting" (queued on 1).
        QTest::addColumn<QString>("command");
        QTest::addColumn<QString>("job"); // held, waiting or unknown
        QTest::addColumn<int>("printer");
        QTest::addColumn<Outcome>("outcome");
        QTest::addColumn<control::Reason>("reason");
        using R = control::Reason;
        QTest::newRow("move a job being printed") << "move" << "held" << 2 << Outcome::Refused << R::JobPrinting;
        QTest::newRow("move to a passive printer") << "move" << "waiting" << 3 << Outcome::Refused << R::PrinterPassive;
        QTest::newRow("move to a missing printer") << "move" << "waiting" << 4 << Outcome::Refused << R::NoPrinter;
        QTest::newRow("move to printer 0") << "move" << "waiting" << 0 << Outcome::Refused << R::PrinterRange;
        QTest::newRow("move to its own printer") << "move" << "waiting" << 1 << Outcome::NothingToDo << R::None;
        QTest::newRow("move an unknown job") << "move" << "unknown" << 2 << Outcome::Invalid << R::UnknownJob;
        QTest::newRow("move all to a passive printer") << "move-all" << "waiting" << 3 << Outcome::Refused
                                                       << R::PrinterPassive;
        QTest::newRow("cancel a job being printed") << "cancel" << "held" << 0 << Outcome::Refused << R::JobPrinting;
        QTest::newRow("cancel an unknown job") << "cancel" << "unknown" << 0 << Outcome::Invalid << R::UnknownJob;
        QTest::newRow("preview an unknown job") << "preview" << "unknown" << 0 << Outcome::Invalid << R::UnknownJob;
        QTest::newRow("reprint out of history") << "reprint" << "unknown" << 0 << Outcome::Invalid << R::NotInHistory;
    }
    void queueToolRefusals()
    {
        QFETCH(QString, command);
        QFETCH(QString, job);
        QFETCH(int, printer);
        QFETCH(Outcome, outcome);
        QFETCH(control::Reason, reason);
        if (held_ < 0) {
            held_ = holdFirstJobOfPrinter1();
            QVERIFY(held_ > 0);
            waiting_ = addJob(1, "Väntar");
        }
        const qint32 id = job == "held" ? held_ : job == "waiting" ? waiting_ : 99;
        Operator::JobPreview preview;
        const Operator::Result r = command == "move"       ? op_->moveJobs({id}, printer)
                                   : command == "move-all" ? op_->movePrinterJobs(1, printer)
                                   : command == "cancel"   ? op_->cancelJob(id)
                                   : command == "preview"  ? op_->previewJob(id, &preview)
                                                           : op_->reprint(id, 0);
        QCOMPARE(r.outcome, outcome);
        QCOMPARE(r.reason, reason);
        // Nothing asked, nothing changed.
        QCOMPARE(sink_.boxes.size(), 0);
        QCOMPARE(inst_->scalar("SELECT COUNT(*) FROM tbJob WHERE PrinterId = 1").toInt(), 2);
        QCOMPARE(srv_->jobs().jobList().count(), 2);
    }

    void moveEveryJobOfAPrinterButTheOneBeingPrinted()
    {
        const qint32 held = holdFirstJobOfPrinter1();
        QVERIFY(held > 0);
        QCOMPARE(op_->stopService(), Outcome::Done); // printer 2 keeps what it gets
        const qint32 a = addJob(1, "A"), b = addJob(2, "B"), c = addJob(1, "C");
        int moved = 0;
        QCOMPARE(op_->movePrinterJobs(1, 2, &moved), Outcome::Done);
        QCOMPARE(moved, 2);
        const JobListModel& list = srv_->jobs().jobList();
        QList<QPair<int, int>> jobs;
        for (int row = 0; row < list.count(); ++row)
            jobs << qMakePair(list.jobAt(row).id, list.jobAt(row).printerId);
        QCOMPARE(jobs, (QList<QPair<int, int>>{{held, 1}, {a, 2}, {b, 2}, {c, 2}}));
        QCOMPARE(inst_->scalar("SELECT COUNT(*) FROM tbJob WHERE PrinterId = 2").toInt(), 3);
        QVERIFY(inst_->log().contains(QStringLiteral("2 jobs moved from printer 1 to printer 2: %1, %2. Asked by window.")
                                          .arg(a)
                                          .arg(c)));
    }

    void cancelAsksFirst()
    {
        QCOMPARE(op_->startService(), Outcome::Done);
        QVERIFY(inst_->net.command("delay 60000") == "ok");
        const qint32 held = addJob(1, "Först");
        QTRY_VERIFY_WITH_TIMEOUT(op_->jobPrinting(held), 10000);
        const qint32 id = addJob(1, "Andra");
        answer(BoxAnswer::No);
        QCOMPARE(op_->cancelJob(id), Outcome::Declined);
        QCOMPARE(sink_.boxes.size(), 1);
        QCOMPARE(sink_.boxes[0].text, GetString(12154, QString::number(id) + " Andra"));
        QCOMPARE(sink_.boxes[0].defaultAnswer, BoxAnswer::No);
        QCOMPARE(jobsInTable(), 2);
        answer(BoxAnswer::Yes);
        op_->setRequester(QStringLiteral("control socket user anna"));
        QCOMPARE(op_->cancelJob(id), Outcome::Done);
        QCOMPARE(jobsInTable(), 1);
        QCOMPARE(srv_->jobs().jobList().findJob(id), -1);
        QVERIFY(inst_->log().contains(QStringLiteral("Job %1 cancelled. Asked by control socket user anna.").arg(id)));
        // Gone while the question was up: nothing left to cancel.
        const qint32 late = addJob(1, "Sist");
        sink_.whileShown = [&](const Box&) { srv_->jobs().cancelJob(late); };
        QCOMPARE(op_->cancelJob(late), Outcome::Invalid);
    }

    void previewIsWhatTheDriverSends()
    {
        const qint32 id = addJob(2, "Förhandsvisning");
        Operator::JobPreview p;
        QCOMPARE(op_->previewJob(id, &p), Outcome::Done);
        QFile layout(inst_->file("1.lbl"));
        QVERIFY(layout.open(QIODevice::ReadOnly));
        QCOMPARE(p.layoutText, QString::fromLatin1(layout.readAll()));
        QCOMPARE(p.templateId, 1);
        QCOMPARE(p.printerId, 2);
        QCOMPARE(p.variables, JobVariables(srv_->jobs().jobList().jobAt(0).toPrintJob().text));
        // A layout that is not there: the operator is told which.
        QVERIFY(QFile::remove(inst_->file("1.lbl")));
        QCOMPARE(op_->previewJob(id, &p), Operator::Result(Outcome::Failed, control::Reason::NoLayout).outcome);
        QCOMPARE(sink_.texts(), QStringList{GetString(12162, inst_->file("1.lbl"))});
    }

    void reprintFromHistory()
    {
        QCOMPARE(op_->startService(), Outcome::Done);
        const qint32 id = addJob(2, "Greenfee");
        QTRY_COMPARE_WITH_TIMEOUT(srv_->jobs().jobList().count(), 0, 10000);
        std::vector<HistoryEntry> history;
        QCOMPARE(op_->history(10, &history), Outcome::Done);
        QCOMPARE(history.size(), size_t(1));
        QCOMPARE(history[0].jobId, id);
        QCOMPARE(history[0].outcome, HistoryPrinted);
        QCOMPARE(history[0].printerId, 2);
        // On another printer: the copy names it; on a passive one: refused.
        QCOMPARE(op_->stopService(), Outcome::Done);
        qint32 copy = 0;
        QCOMPARE(op_->reprint(history[0].id, 1, &copy), Outcome::Done);
        QCOMPARE(srv_->jobs().jobList().count(), 1);
        QCOMPARE(srv_->jobs().jobList().jobAt(0).id, copy);
        QCOMPARE(srv_->jobs().jobList().jobAt(0).toPrintJob().text,
                 quill::dbtest::JobText(1, 1, "1", "KASSA1", "user1", "Greenfee"));
        QCOMPARE(op_->reprint(history[0].id, 0, &copy), Outcome::Done);
        QCOMPARE(srv_->jobs().jobList().jobAt(1).printerId, 2);
        QCOMPARE(op_->reprint(history[0].id, 4), Operator::Result(Outcome::Refused, control::Reason::NoPrinter).outcome);
        QVERIFY(inst_->log().contains(
            QStringLiteral("Job %1 queued on printer 2, a reprint of job %2 (history 1). Asked by window.").arg(copy).arg(id)));
    }
};

QTEST_GUILESS_MAIN(TstOperator)
#include "tst_operator.moc"
