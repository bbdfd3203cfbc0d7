// The operator's commands on an in-process server with two emulated printers
// (1 "Kassa" on a network box, 2 "Bar" on a serial pty): each command's
// outcome, its questions answered both ways, and the refusals; and what the
// operator is told when a start-up step fails.
#include "database/jobdatabase.h"
#include "database/jobstore.h"
#include "foundation/error.h"
#include "foundation/eventlog.h"
#include "foundation/settings.h"
#include "foundation/texts.h"
#include "protocol/listener.h"
#include "service/printservice.h"
#include "shell/operator.h"
#include "shell/server.h"
#include "support/dbfixture.h"
#include "support/installation.h"
#include "support/mounts.h"

#include <QDir>
#include <QElapsedTimer>
#include <QFile>
#include <QLockFile>
#include <QRegularExpression>
#include <QSignalSpy>
#include <QTcpServer>
#include <QTcpSocket>
#include <QTest>
#include <QThread>

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

    qint32 addJob(int printer, const QString& caption)
    {
        const qint32 id = quill::JobRepository(srv_->database().database()).nextId().value;
        const QString text = quill::dbtest::JobText(printer, 1, "1", "KASSA1", "user1", caption);
        return srv_->jobs().SrvAddJob(quill::PrintJob::fromText(text)) ? id : -1;
    }
    int jobsInTable() { return inst_->scalar("SELECT COUNT(*) FROM tbJob").toInt(); }
    const PrinterSlot& slot(int n) { return srv_->printers().at(n); }
    int serialOpens() { return int(inst_->ser.log().filter(QRegularExpression("^open")).size()); }
    void answer(BoxAnswer a)
    {
        sink_.boxes.clear();
        sink_.answer = a;
    }
    Outcome saveNew(const QString& name, const QString& address, const QString& port, bool passive = false)
    {
        PrinterSettings dialog;
        if (op_->openNewPrinter(&dialog) != Outcome::Done)
            return Outcome::Refused;
        dialog.name = name;
        dialog.serial = false;
        dialog.netAddress = address;
        dialog.netPort = port;
        dialog.passive = passive;
        return op_->savePrinter(dialog);
    }

private slots:
    void init()
    {
        if (QByteArray(QTest::currentTestFunction()) == "startupFailures")
            return;
        inst_ = std::make_unique<PrinterSite>();
        QVERIFY2(inst_->start(), qPrintable(inst_->errorText()));
        port_ = TestInstallation::freePort();
        QVERIFY(inst_->setServer(port_, false));
        answer(BoxAnswer::Yes);
        srv_ = std::make_unique<Server>(Server::Options{3600000});
        op_ = std::make_unique<Operator>(*srv_);
        QCOMPARE(srv_->startup(), Server::Started);
        QTRY_VERIFY_WITH_TIMEOUT(slot(1).status == StatusReady && slot(2).status == StatusReady, 10000);
    }
    void cleanup()
    {
        sink_.whileShown = nullptr;
        op_.reset();
        srv_.reset();
        inst_.reset();
    }

    // The service goes on and off; jobs are deleted only while it is off, each
    // after a question that defaults to No; a cancel asks too.
    void serviceAndDeletes()
    {
        QCOMPARE(op_->deleteJob(1), Outcome::NothingToDo);
        QCOMPARE(op_->deleteAllJobs(), Outcome::NothingToDo);
        addJob(1, "Första");
        const qint32 second = addJob(2, "Andra");
        QCOMPARE(op_->toggleService(), Outcome::Done);
        QCOMPARE(op_->startService(), Outcome::NothingToDo);
        QCOMPARE(op_->deleteJob(second), Outcome::Refused);
        QCOMPARE(op_->deleteAllJobs(), Outcome::Refused);
        QVERIFY(sink_.boxes.isEmpty());
        QCOMPARE(op_->toggleService(), Outcome::Done); // nothing printed: printer 1's run needs its timer

        QCOMPARE(op_->deleteJob(999), Outcome::Invalid);
        answer(BoxAnswer::No);
        QCOMPARE(op_->deleteJob(second), Outcome::Declined);
        QCOMPARE(sink_.boxes.value(0).text, GetString(12041, QString::number(second) + " Andra"));
        QCOMPARE(sink_.boxes.value(0).defaultAnswer, BoxAnswer::No);
        QCOMPARE(op_->deleteAllJobs(), Outcome::Declined);
        QCOMPARE(sink_.boxes.value(1).text, GetString(12042));
        QCOMPARE(jobsInTable(), 2);
        answer(BoxAnswer::Yes);
        QCOMPARE(op_->deleteJob(second), Outcome::Done);
        QCOMPARE(jobsInTable(), 1);
        QCOMPARE(op_->deleteAllJobs(), Outcome::Done);
        QCOMPARE(jobsInTable(), 0);

        // A cancel asks too; a job gone while the question was up is not there to cancel.
        const qint32 first = addJob(1, "Första");
        answer(BoxAnswer::Yes);
        QCOMPARE(op_->cancelJob(first), Outcome::Done);
        QCOMPARE(sink_.texts(), QStringList{GetString(12154, QString::number(first) + " Första")});
        QCOMPARE(jobsInTable(), 0);
        const qint32 late = addJob(1, "Sist");
        sink_.whileShown = [&](const Box&) { srv_->jobs().cancelJob(late); };
        QCOMPARE(op_->cancelJob(late), Outcome::Invalid);
        sink_.whileShown = nullptr;

        // Without a listener the service cannot start.
        srv_->listener().close();
        QVERIFY(!op_->serviceAvailable());
        QCOMPARE(op_->startService(), Outcome::Refused);
    }

    // A printer the server is printing on or checking keeps its dialog shut;
    // a cancelled dialog gives the printer back the status it had.
    void editAndDeviceOperations()
    {
        PrinterSettings dialog;
        QCOMPARE(op_->openEditPrinter(4, &dialog), Outcome::Refused);
        for (const int status : {StatusWorking, StatusChecking}) {
            srv_->printers().SrvSetPrinterStatus(1, status, "före");
            QCOMPARE(op_->openEditPrinter(1, &dialog), Outcome::Refused);
            QCOMPARE(slot(1).status, status);
        }
        srv_->printers().SrvSetPrinterStatus(1, StatusError, "före");
        QCOMPARE(op_->openEditPrinter(1, &dialog), Outcome::Done);
        QCOMPARE(slot(1).status, qint32(StatusConfiguring));
        QCOMPARE(op_->cancelPrinter(), Outcome::Done);
        QCOMPARE(slot(1).status, qint32(StatusError));
        QCOMPARE(slot(1).statusText.trimmed(), QString("före"));
        QCOMPARE(op_->cancelPrinter(), Outcome::NothingToDo);
        QVERIFY(sink_.boxes.isEmpty());

        // While a device command runs, a second one, a save or a cancel is refused, not started.
        QCOMPARE(op_->openEditPrinter(1, &dialog), Outcome::Done);
        QSignalSpy finished(op_.get(), &Operator::deviceOperationFinished);
        QCOMPARE(op_->startDeviceOperation(Operator::DeviceOperation::TestPrint, dialog), Outcome::Done);
        QCOMPARE(op_->startDeviceOperation(Operator::DeviceOperation::Calibrate, dialog), Outcome::Busy);
        QCOMPARE(op_->savePrinter(dialog), Outcome::Busy);
        QCOMPARE(op_->cancelPrinter(), Outcome::Busy);
        QTRY_COMPARE_WITH_TIMEOUT(finished.size(), 1, 20000);
        QCOMPARE(finished[0][1].value<Outcome>(), Outcome::Done);
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
        // An empty port is offered the box's own.
        QCOMPARE(dialog.netPort, port.isEmpty() ? QString("23") : port);
        QVERIFY(op_->printerDialogOpen());
        QVERIFY(!srv_->printers().SrvPrinterExists(3));
    }

    void saveCheckAndDelete()
    {
        // Checked off the event loop: Checking, and not to be deleted, until the printer has answered.
        QSignalSpy checked(op_.get(), &Operator::printerChecked);
        QCOMPARE(saveNew("Shop", " 127.0.0.1 ", QString::number(inst_->net.port())), Outcome::Done);
        QCOMPARE(slot(3).status, qint32(StatusChecking));
        QCOMPARE(op_->deletePrinter(3), Outcome::Busy);
        QTRY_COMPARE_WITH_TIMEOUT(checked.size(), 1, 20000);
        QCOMPARE(slot(3).status, qint32(StatusReady));

        answer(BoxAnswer::No);
        QCOMPARE(op_->deletePrinter(3), Outcome::Declined);
        answer(BoxAnswer::Yes);
        QCOMPARE(op_->deletePrinter(3), Outcome::Done);
        QCOMPARE(sink_.texts(), QStringList{GetString(12040, "3 Shop på 127.0.0.1")});
        QCOMPARE(inst_->scalar("SELECT COUNT(*) FROM tbPrinter WHERE Id = 3").toInt(), 0);
        QCOMPARE(op_->deletePrinter(3), Outcome::Refused);

        // Five printers are all there is room for.
        for (const char* name : {"P3", "P4", "P5"})
            QCOMPARE(saveNew(name, "127.0.0.1", "23", true), Outcome::Done);
        answer(BoxAnswer::Yes);
        PrinterSettings dialog;
        QCOMPARE(op_->openNewPrinter(&dialog), Outcome::Refused);
        QCOMPARE(sink_.texts(), QStringList{GetString(12028)});
        QVERIFY(!op_->printerDialogOpen());
    }

    // A configure waiting on a printer that does not answer leaves the
    // server answering its clients; the question it asks half-way comes up
    // on the event-loop thread.
    void configureOnASilentPrinter()
    {
        QCOMPARE(op_->startService(), Outcome::Done);
        srv_->printService().links().setDeviceTimeout(1000);
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
        QCOMPARE(op_->startDeviceOperation(Operator::DeviceOperation::Configure, dialog), Outcome::Done);
        QTRY_COMPARE_WITH_TIMEOUT(inst_->net.log().count("open"), opens + 1, 10000);

        QTcpSocket c;
        c.connectToHost(QHostAddress::LocalHost, port_);
        QVERIFY(c.waitForConnected(5000));
        c.write("BRIXA\t1.00\tP\t1\t1\t1\tKASSA1\t0\t\t\tuser1\twhile configuring\t\t\r\n");
        QTRY_VERIFY_WITH_TIMEOUT(c.bytesAvailable() >= 9 || !op_->deviceOperationRunning()
                                     || c.state() != QAbstractSocket::ConnectedState, 10000);
        QVERIFY(op_->deviceOperationRunning());
        QCOMPARE(c.readAll(), QByteArray("BRIXA\tOK\t"));

        QTRY_COMPARE_WITH_TIMEOUT(finished.size(), 1, 30000);
        QCOMPARE(finished[0][1].value<Outcome>(), Outcome::Failed);
        QCOMPARE(sink_.texts(), (QStringList{GetString(12036) + "\r" + GetString(12037) + "\r\r" + GetString(12017),
                                             GetString(12034) + "\r" + GetString(12035)}));
        QVERIFY(askedOnMainThread);

        // Shutting down while an operation waits ends its waits at once: with
        // a minute per answer, the wait would otherwise last minutes, and no
        // box comes after the window is gone.
        QCOMPARE(op_->cancelPrinter(), Outcome::Done);
        QCOMPARE(op_->openEditPrinter(2, &dialog), Outcome::Done);
        QCOMPARE(inst_->ser.command("silent on"), QStringLiteral("ok"));
        srv_->printService().links().setDeviceTimeout(60000);
        const int serial = serialOpens();
        QCOMPARE(op_->startDeviceOperation(Operator::DeviceOperation::Configure, dialog), Outcome::Done);
        QTRY_COMPARE_WITH_TIMEOUT(serialOpens(), serial + 1, 10000);
        sink_.boxes.clear();
        QElapsedTimer clock;
        clock.start();
        op_.reset();
        QVERIFY2(clock.elapsed() < 30000, qPrintable(QString::number(clock.elapsed())));
        QVERIFY(sink_.boxes.isEmpty());
    }

    // Start-up and a full refresh configure the serial printer before its
    // check, in a session of its own; a refresh only checks every printer.
    void refreshRunsAPass()
    {
        QTRY_COMPARE_WITH_TIMEOUT(serialOpens(), 2, 10000);
        for (const bool full : {false, true}) {
            const int serial = serialOpens();
            srv_->printers().SrvSetPrinterStatus(1, StatusError, "Papper slut");
            QCOMPARE(full ? op_->fullRefresh() : op_->refresh(), Outcome::Done);
            QTRY_COMPARE_WITH_TIMEOUT(slot(1).status, qint32(StatusReady), 10000);
            QTRY_COMPARE_WITH_TIMEOUT(slot(2).status, qint32(StatusReady), 10000);
            QTRY_COMPARE_WITH_TIMEOUT(serialOpens(), serial + (full ? 2 : 1), 10000);
        }
    }

    void settings()
    {
        // The dialog opens only with the service stopped, after asking.
        QCOMPARE(op_->startService(), Outcome::Done);
        answer(BoxAnswer::No);
        QCOMPARE(op_->openSettings(), Outcome::Declined);
        QCOMPARE(sink_.texts(), QStringList{GetString(12016) + "\n" + GetString(12017)});
        answer(BoxAnswer::Yes);
        QCOMPARE(op_->openSettings(), Outcome::Done);
        QVERIFY(!op_->serviceRunning());

        // A port that is no number or out of range changes nothing at all.
        Operator::ServerSettings s = op_->serverSettings();
        s.silentMode = true;
        for (const char* bad : {"12a", "0", "65536"}) {
            s.port = bad;
            QCOMPARE(op_->saveSettings(s), Outcome::Invalid);
            QCOMPARE(op_->invalidField(), Operator::Field::ServerPort);
            QCOMPARE(sink_.texts().last(), GetString(12143));
        }
        QVERIFY(!SilentMode());

        // Switches: to tbServer and to the per-user store, at once.
        s.port = QString::number(port_);
        s.autoStartService = true;
        s.useTrafficLog = true;
        s.quitQuestion = true;
        answer(BoxAnswer::Yes);
        Operator::PortChange change;
        QCOMPARE(op_->saveSettings(s, &change), Outcome::Done);
        QCOMPARE(change, Operator::PortChange::Unchanged);
        QVERIFY(SilentMode() && UseTrafficLog() && srv_->quitQuestion());
        QCOMPARE(inst_->scalar("SELECT AutoStartService FROM tbServer").toInt(), 1);
        QCOMPARE(RegGetValue(HKEY_CURRENT_USER, KeyQuillbase, "dwSilentMode").toInt(), 1);

        // A busy port: 12006, the service button off, tbServer as it was.
        QTcpServer taken;
        QVERIFY(taken.listen(QHostAddress::Any, 0));
        s.port = QString::number(taken.serverPort());
        QCOMPARE(op_->saveSettings(s, &change), Outcome::Failed);
        QCOMPARE(change, Operator::PortChange::RebindFailed);
        QCOMPARE(sink_.texts(), QStringList{GetString(12006)});
        QVERIFY(!op_->serviceAvailable());
        QCOMPARE(inst_->scalar("SELECT port FROM tbServer").toInt(), int(port_));

        // A free one: rebound, told, stored.
        const quint16 fresh = TestInstallation::freePort();
        s.port = QString::number(fresh);
        answer(BoxAnswer::Yes);
        QCOMPARE(op_->saveSettings(s, &change), Outcome::Done);
        QCOMPARE(change, Operator::PortChange::Rebound);
        QVERIFY(sink_.texts().value(0).startsWith(GetString(12001) + "\n\n" + GetString(12002)));
        QCOMPARE(inst_->scalar("SELECT port FROM tbServer").toInt(), int(fresh));
        QVERIFY(op_->serviceAvailable());
    }

    void canQuit()
    {
        // Forced: always, and nothing asked; with the quit question off, nothing asked either.
        QVERIFY(op_->CanQuit(true));
        QVERIFY(op_->CanQuit(false));
        QVERIFY(sink_.boxes.isEmpty());

        // A working printer refuses.
        srv_->printers().SrvSetPrinterStatus(2, StatusWorking, GetString(12077));
        QVERIFY(!op_->CanQuit(false));
        QCOMPARE(sink_.texts(), QStringList{GetString(12021) + "\n" + GetString(12022)});
        srv_->printers().SrvSetPrinterStatus(2, StatusReady, GetString(12079));

        // The quit question, both answers.
        srv_->setQuitQuestion(true);
        answer(BoxAnswer::Cancel);
        QVERIFY(!op_->CanQuit(false));
        QCOMPARE(sink_.texts(), QStringList{GetString(12023, GetString(9003))});
        answer(BoxAnswer::Ok);
        QVERIFY(op_->CanQuit(false));
    }

    // Printer 1 holds its first job in a print run (its emulator answers
    // late); printer 3 is passive.
    qint32 holdFirstJobOfPrinter1()
    {
        if (saveNew("Passiv", "127.0.0.1", "23", true) != Outcome::Done)
            return -1;
        const qint32 held = addJob(1, "Pågår");
        if (inst_->net.command("delay 60000") != "ok" || op_->startService() != Outcome::Done)
            return -1;
        return QTest::qWaitFor([&] { return op_->jobPrinting(held); }, 10000) ? held : -1;
    }

    // The refusals ask nothing and change nothing; a printer's whole queue
    // moves without the job being printed.
    void queueTools()
    {
        const qint32 held = holdFirstJobOfPrinter1();
        QVERIFY(held > 0);
        const qint32 waiting = addJob(1, "Väntar");
        using R = control::Reason;
        const struct {
            Operator::Result got;
            Outcome outcome;
            R reason;
        } refusals[] = {
            {op_->moveJobs({held}, 2), Outcome::Refused, R::JobPrinting},
            {op_->moveJobs({waiting}, 3), Outcome::Refused, R::PrinterPassive},
            {op_->moveJobs({waiting}, 4), Outcome::Refused, R::NoPrinter},
            {op_->moveJobs({waiting}, 0), Outcome::Refused, R::PrinterRange},
            {op_->moveJobs({waiting}, 1), Outcome::NothingToDo, R::None},
            {op_->moveJobs({99}, 2), Outcome::Invalid, R::UnknownJob},
            {op_->cancelJob(held), Outcome::Refused, R::JobPrinting},
            {op_->reprint(99, 0), Outcome::Invalid, R::NotInHistory},
        };
        for (const auto& r : refusals) {
            QCOMPARE(r.got.reason, r.reason);
            QCOMPARE(r.got.outcome, r.outcome);
        }
        QVERIFY(sink_.boxes.isEmpty());
        QCOMPARE(inst_->scalar("SELECT COUNT(*) FROM tbJob WHERE PrinterId = 1").toInt(), 2);

        QCOMPARE(op_->stopService(), Outcome::Done); // printer 2 keeps what it gets
        const qint32 b = addJob(2, "B"), c = addJob(1, "C");
        int moved = 0;
        QCOMPARE(op_->movePrinterJobs(1, 2, &moved), Outcome::Done);
        QCOMPARE(moved, 2);
        const JobListModel& list = srv_->jobs().jobList();
        QList<QPair<int, int>> jobs;
        for (int row = 0; row < list.count(); ++row)
            jobs << qMakePair(list.jobAt(row).id, list.jobAt(row).printerId);
        QCOMPARE(jobs, (QList<QPair<int, int>>{{held, 1}, {waiting, 2}, {b, 2}, {c, 2}}));
        QCOMPARE(inst_->scalar("SELECT COUNT(*) FROM tbJob WHERE PrinterId = 2").toInt(), 3);
    }

    void previewAndReprint()
    {
        QCOMPARE(op_->startService(), Outcome::Done);
        addJob(2, "Greenfee");
        QTRY_COMPARE_WITH_TIMEOUT(srv_->jobs().jobList().count(), 0, 10000);
        QCOMPARE(op_->stopService(), Outcome::Done);
        std::vector<HistoryEntry> history;
        QCOMPARE(op_->history(10, &history), Outcome::Done);
        QCOMPARE(history.size(), size_t(1));
        // On another printer: the copy names it; 0 is the printer it was printed on.
        qint32 copy = 0;
        QCOMPARE(op_->reprint(history[0].id, 1, &copy), Outcome::Done);
        QCOMPARE(srv_->jobs().jobList().jobAt(0).toPrintJob().text,
                 quill::dbtest::JobText(1, 1, "1", "KASSA1", "user1", "Greenfee"));
        QCOMPARE(op_->reprint(history[0].id, 0, &copy), Outcome::Done);
        QCOMPARE(srv_->jobs().jobList().jobAt(1).printerId, 2);

        // A preview without its layout: the operator is told which file.
        QVERIFY(QFile::remove(inst_->file("1.lbl")));
        Operator::JobPreview p;
        QCOMPARE(op_->previewJob(copy, &p).reason, control::Reason::NoLayout);
        QCOMPARE(sink_.texts().last(), GetString(12162, inst_->file("1.lbl")));
    }

    // Each fault of a real installation at start-up ends in its start result
    // and at most one box, with its text and icon; silent mode shows none.
    void startupFailures_data()
    {
        QTest::addColumn<QString>("fault");
        QTest::addColumn<bool>("silent");
        QTest::addColumn<int>("result");
        QTest::addColumn<QString>("box"); // "<icon> <text>", empty for none
        const QString check = "\n" + GetString(12029, GetString(9003));
        const auto box = [](BoxIcon icon, const QString& text) { return QString::number(int(icon)) + ' ' + text; };
        const QString drivers = "CreateQuillmotor1 failed. Error: 441 no class\r\r" + GetString(12018) + "\r"
            + GetString(12019);
        QTest::newRow("database missing")
            << "-brixa.mdb" << false << int(Server::NoDatabase) << box(BoxIcon::Exclamation, GetString(12031) + check);
        QTest::newRow("database missing, silent") << "-brixa.mdb" << true << int(Server::NoDatabase) << QString();
        QTest::newRow("database is not a database")
            << "garbage" << false << int(Server::NoDatabase)
            << box(BoxIcon::Critical, "SrvOpenDatabases failed. Error: 26 file is not a database" + check);
        QTest::newRow("job table unreadable")
            << "drop tbJob" << false << int(Server::StartupFailed)
            << box(BoxIcon::None, "SrvJobOpenDB failed. Error: 1 no such table: tbJob" + check);
        QTest::newRow("driver objects not made")
            << "drivers" << false << int(Server::StartupFailed) << box(BoxIcon::Critical, drivers);
        QTest::newRow("port taken: starts without a listener")
            << "port" << false << int(Server::Started) << box(BoxIcon::Exclamation, GetString(12014));
        QTest::newRow("another copy runs")
            << "lock" << false << int(Server::OtherInstance)
            << box(BoxIcon::Information, GetString(12009, GetString(9003)));
        // The log may be in that very folder: shown even in silent mode.
        QTest::newRow("folder not writable, silent")
            << "read-only" << true << int(Server::HomeNotWritable)
            << box(BoxIcon::Critical, GetString(12144, "%1|Read-only file system"));
    }
    void startupFailures()
    {
        QFETCH(QString, fault);
        QFETCH(bool, silent);
        QFETCH(int, result);
        QFETCH(QString, box);
        TestInstallation inst;
        QVERIFY(inst.ok());
        QTcpServer taken;
        QVERIFY(taken.listen(QHostAddress::Any, 0));
        QVERIFY(inst.setServer(fault == "port" ? taken.serverPort() : TestInstallation::freePort(), false));
        inst.setUserSwitch("dwSilentMode", silent ? 1 : 0);

        QLockFile other(inst.file("quillbase.lock"));
        bool mounted = false;
        auto server = std::make_unique<Server>(Server::Options{3600000});
        if (fault.startsWith('-')) {
            QVERIFY(QFile::remove(inst.file(fault.mid(1))));
        } else if (fault == "garbage") {
            QFile file(inst.file("brixa.mdb"));
            QVERIFY(file.open(QIODevice::WriteOnly | QIODevice::Truncate) && file.write(QByteArray(8192, 'q')) == 8192);
        } else if (fault.startsWith("drop ")) {
            QVERIFY(inst.sql("DROP TABLE " + fault.mid(5)));
        } else if (fault == "drivers") {
            server->printService().setDriverFactory([](QObject*) -> MP104C* { throw Error(441, "no class"); });
        } else if (fault == "lock") {
            QVERIFY(other.tryLock(0));
        } else if (fault == "read-only") {
            QString why;
            if (!test::BindReadOnly(inst.path(), &why))
                QSKIP(qPrintable(why));
            mounted = true;
            box = box.arg(QDir::toNativeSeparators(inst.path()));
        }

        answer(BoxAnswer::Yes);
        const Server::StartResult started = server->startup();
        server.reset();
        if (mounted)
            QVERIFY(test::Unmount(inst.path()));
        QCOMPARE(int(started), result);
        QStringList shown;
        for (const quill::dbtest::ShownBox& b : sink_.boxes)
            shown << QString::number(int(b.icon)) + ' ' + b.text;
        QCOMPARE(shown, box.isEmpty() ? QStringList() : QStringList{box});
    }
};

QTEST_GUILESS_MAIN(TstOperator)
#include "tst_operator.moc"
