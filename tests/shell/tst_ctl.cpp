// quillbase-ctl against the headless server as its own process, with printer 1
// "Kassa" on an emulated network box and printer 2 "Bar" on an emulated serial
// line: each command's effect in the database, the queue and on the printers,
// the --json answers, the refusals with their exit codes, and who may connect.
#include "foundation/cp1252.h"
#include "foundation/settings.h"
#include "foundation/texts.h"
#include "support/dbfixture.h"
#include "support/installation.h"

#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QImage>
#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <QProcess>
#include <QRegularExpression>
#include <QStandardPaths>
#include <QTcpServer>
#include <QTcpSocket>
#include <QTest>

#include <csignal>
#include <pwd.h>
#include <unistd.h>

using quill::GetString;
using quill::dbtest::JobText;
using quill::test::PrinterSite;
using quill::test::TestInstallation;

namespace {

struct Run {
    int code = -1;
    QString out, err;
    QJsonObject json() const { return QJsonDocument::fromJson(out.toUtf8()).object(); }
};

const QString Ctl = QStringLiteral(QUILL_BIN_DIR "/quillbase-ctl");

} // namespace

class TstCtl : public QObject {
    Q_OBJECT

    std::unique_ptr<PrinterSite> inst_;
    std::unique_ptr<QProcess> server_;
    quint16 port_ = 0;

    QString socketPath() const { return inst_->file("quillbase.sock"); }
    static bool sharedServer()
    {
        const QByteArray test = QTest::currentTestFunction();
        return test == "refusals" || test == "deviceOperations";
    }

    bool startServer()
    {
        const int startsBefore = inst_->log().count("Quillbase succesfully started");
        server_ = std::make_unique<QProcess>();
        server_->setProcessChannelMode(QProcess::ForwardedErrorChannel);
        server_->start(QStringLiteral(QUILL_BIN_DIR "/quillbase"), {"--headless", "--home", inst_->path()});
        return server_->waitForStarted(10000)
            && QTest::qWaitFor([&] { return inst_->log().count("Quillbase succesfully started") > startsBefore; },
                               20000);
    }
    bool stopServer()
    {
        if (!server_)
            return true;
        server_->terminate();
        const bool ended = server_->waitForFinished(10000);
        if (!ended)
            server_->kill();
        server_.reset();
        return ended;
    }

    // quillbase-ctl --home <installation> args..., run to its end.
    static Run ctlIn(const QString& home, const QStringList& args, const QStringList& runAs = {})
    {
        QProcess p;
        const QStringList ctlArgs = QStringList{"--home", home} + args;
        if (runAs.isEmpty())
            p.start(Ctl, ctlArgs);
        else
            p.start(runAs.first(), runAs.mid(1) + QStringList{Ctl} + ctlArgs);
        Run r;
        if (!p.waitForFinished(120000)) {
            p.kill();
            p.waitForFinished(5000);
            return r;
        }
        r.code = p.exitStatus() == QProcess::NormalExit ? p.exitCode() : -1;
        r.out = QString::fromUtf8(p.readAllStandardOutput());
        r.err = QString::fromUtf8(p.readAllStandardError());
        return r;
    }
    Run ctl(const QStringList& args) { return ctlIn(inst_->path(), args); }

    QJsonObject status()
    {
        const Run r = ctl({"--json", "status"});
        return r.code == 0 ? r.json() : QJsonObject();
    }
    QJsonObject printer(int id)
    {
        for (const QJsonValue& v : status()["printers"].toArray())
            if (v.toObject()["id"].toInt() == id)
                return v.toObject();
        return {};
    }
    QString printerRow(int id)
    {
        return inst_->scalar(QStringLiteral("SELECT Name || '|' || PrinterTypeId || '|' || ConnectionUsed || '|' || "
                                            "Connection1 || '|' || IFNULL(Connection2, '-') || '|' || NetConnectOnly "
                                            "|| '|' || Strobe || '|' || Speed || '|' || Passive || '|' || "
                                            "CutterInstalled || '|' || DispensingFeed || '|' || ReverseFeed FROM "
                                            "tbPrinter WHERE Id = %1")
                                 .arg(id))
            .toString();
    }
    // Everything a refused command must leave as it was.
    QString snapshot()
    {
        QStringList s;
        for (int id = 1; id <= 5; ++id)
            s << printerRow(id);
        s << inst_->scalar("SELECT port || '|' || AutoStartService FROM tbServer").toString();
        s << quill::dbtest::JobRows(inst_->file("brixa.mdb"));
        return s.join('\n');
    }
    void queueJobs()
    {
        // Queued before the start: the service is off, so they wait in order.
        const QStringList captions{"Ett", "Två", "Tre"};
        for (int i = 0; i < 3; ++i)
            QVERIFY(inst_->sql("INSERT INTO tbJob (Id, PrinterId, Job) VALUES (?, ?, ?)",
                               {i + 1, i == 1 ? 2 : 1, JobText(i == 1 ? 2 : 1, 1, "1", "KASSA1", "Anna", captions[i])}));
    }

private slots:
    void init()
    {
        const QByteArray test = QTest::currentTestFunction();
        if (test == "help")
            return;
        // The refusals and the device operations change nothing lasting (each
        // row checks), so each shares one server.
        if (sharedServer() && server_)
            return;
        stopServer();
        inst_ = std::make_unique<PrinterSite>();
        QVERIFY2(inst_->start(), qPrintable(inst_->errorText()));
        port_ = TestInstallation::freePort();
        QVERIFY(inst_->setServer(port_, false));
        inst_->setUserSwitch("dwUseLog", 1);
        if (test == "serviceAndJobs" || test == "queueTools")
            queueJobs();
        if (test == "printerCommandsWaitForStartUpWork")
            QCOMPARE(inst_->ser.command("silent on"), QStringLiteral("ok"));
        QVERIFY(startServer());
    }
    void cleanup()
    {
        if (sharedServer() && !QTest::currentTestFailed())
            return;
        stopServer();
        inst_.reset();
    }
    void cleanupTestCase()
    {
        stopServer();
        inst_.reset();
    }

    void statusAndSocket()
    {
        // Only the server's user and group may connect.
        const QFileInfo socket(socketPath());
        QVERIFY(socket.exists());
        const auto perms = socket.permissions();
        QVERIFY(perms.testFlags(QFile::ReadOwner | QFile::WriteOwner | QFile::ReadGroup | QFile::WriteGroup));
        QVERIFY(!(perms & (QFile::ReadOther | QFile::WriteOther | QFile::ExeOther)));

        const QJsonObject s = status();
        QCOMPARE(s["ok"].toBool(), true);
        QCOMPARE(s["service"].toObject()["running"].toBool(), false);
        QCOMPARE(s["service"].toObject()["text"].toString(), GetString(12085));
        QCOMPARE(s["listener"].toObject()["listening"].toBool(), true);
        QCOMPARE(s["listener"].toObject()["port"].toInt(), int(port_));
        QCOMPARE(s["listener"].toObject()["maxConnections"].toInt(), 32);
        const QJsonArray printers = s["printers"].toArray();
        QCOMPARE(printers.size(), 2);
        QCOMPARE(printers[0].toObject()["name"].toString(), QString("Kassa"));
        QCOMPARE(printers[0].toObject()["connection"].toString(), QString("127.0.0.1#%1").arg(inst_->net.port()));
        QCOMPARE(printers[1].toObject()["connection"].toString(), QString("COM2:#9600"));
        QTRY_COMPARE_WITH_TIMEOUT(printer(2)["statusWord"].toString(), GetString(12079), 10000);
        QCOMPARE(printer(1)["seconds"].type(), QJsonValue::Double);

        // A client connection shows in the listener's count.
        QTcpSocket client;
        client.connectToHost(QHostAddress::LocalHost, port_);
        QVERIFY(client.waitForConnected(5000));
        QTRY_COMPARE_WITH_TIMEOUT(status()["listener"].toObject()["connections"].toInt(), 1, 10000);

        // The folder as a person types it, relative to where they stand.
        QProcess relative;
        relative.setWorkingDirectory(inst_->path());
        relative.start(Ctl, {"--home", ".", "status"});
        QVERIFY(relative.waitForFinished(120000));
        const QString table = QString::fromUtf8(relative.readAllStandardOutput());
        QCOMPARE(relative.exitCode(), 0);
        QVERIFY2(table.contains(GetString(12085)) && table.contains("Kassa") && table.contains("COM2:#9600"),
                 qPrintable(table));

        // Shutdown removes the socket; then there is no server to talk to.
        QVERIFY(stopServer());
        QVERIFY(!QFileInfo::exists(socketPath()));
        const Run none = ctl({"--json", "status"});
        QCOMPARE(none.code, 3);
        QCOMPARE(none.json()["ok"], QJsonValue(false));
        QCOMPARE(none.json()["reason"].toString(), QString("no-server"));
        QVERIFY2(none.err.contains("no Quillbase server runs in"), qPrintable(none.err));
    }

    // A server that runs (holds its folder's lock) but does not answer is not
    // "no server": it has its own exit status, also when its socket is gone.
    void serverNotAnswering_data()
    {
        QTest::addColumn<bool>("socketGone");
        QTest::newRow("socket accepts, no answer") << false;
        QTest::newRow("socket gone, lock held") << true;
    }
    void serverNotAnswering()
    {
        QFETCH(bool, socketGone);
        const QString moved = socketPath() + ".away";
        if (socketGone)
            QVERIFY(QFile::rename(socketPath(), moved));
        QVERIFY(::kill(pid_t(server_->processId()), SIGSTOP) == 0);
        const Run r = ctl({"--json", "--timeout", "1", "status"});
        QVERIFY(::kill(pid_t(server_->processId()), SIGCONT) == 0);
        if (socketGone)
            QVERIFY(QFile::rename(moved, socketPath()));
        QCOMPARE(r.code, 4);
        QCOMPARE(r.json()["reason"].toString(), QString("no-answer"));
        QVERIFY2(r.err.contains("does not answer") || r.err.contains("did not answer"), qPrintable(r.err));
        QCOMPARE(ctl({"status"}).code, 0);
    }

    void staleSocketReplaced()
    {
        // A server killed outright leaves its socket; the next start replaces it.
        server_->kill();
        server_->waitForFinished(10000);
        server_.reset();
        QVERIFY(QFileInfo::exists(socketPath()));
        QCOMPARE(ctl({"status"}).code, 3);
        QVERIFY(startServer());
        QCOMPARE(ctl({"status"}).code, 0);
    }

    void serviceAndJobs()
    {
        Run r = ctl({"--json", "jobs"});
        QCOMPARE(r.code, 0);
        const QJsonArray jobs = r.json()["jobs"].toArray();
        QCOMPARE(jobs.size(), 3);
        QCOMPARE(jobs[1].toObject()["caption"].toString(), QString("Två"));
        QCOMPARE(jobs[1].toObject()["printer"].toString(), QString("Bar"));
        QCOMPARE(jobs[1].toObject()["sender"].toString(), GetString(12055, "Anna|KASSA1"));
        QCOMPARE(jobs[1].toObject()["copies"], QJsonValue(1));
        r = ctl({"--json", "jobs", "--printer", "1"});
        QCOMPARE(r.json()["jobs"].toArray().size(), 2);
        QCOMPARE(printer(1)["queued"].toInt(), 2);

        // Deleting asks the window's question, answered by the command; the row goes.
        r = ctl({"delete", "3"});
        QCOMPARE(r.code, 0);
        QVERIFY2(r.out.contains(GetString(12041, "3 Tre")), qPrintable(r.out));
        QCOMPARE(quill::dbtest::JobRows(inst_->file("brixa.mdb")).size(), 2);

        // Started; deleting is refused while the service runs.
        QCOMPARE(inst_->net.command("paper out"), QString("ok"));
        r = ctl({"--json", "start"});
        QCOMPARE(r.code, 0);
        QCOMPARE(r.json()["service"].toObject()["running"].toBool(), true);
        QCOMPARE(ctl({"start"}).code, 0); // already running: nothing to do
        QCOMPARE(ctl({"refresh"}).code, 0);
        QTRY_COMPARE_WITH_TIMEOUT(printer(1)["status"].toInt(), 4, 15000);
        r = ctl({"delete", "--all"});
        QCOMPARE(r.code, 1);
        QVERIFY2(r.err.contains("stopped"), qPrintable(r.err));

        QCOMPARE(ctl({"stop"}).code, 0);
        QCOMPARE(status()["service"].toObject()["running"].toBool(), false);
        r = ctl({"delete", "--all"});
        QCOMPARE(r.code, 0);
        QVERIFY(r.out.contains(GetString(12042)));
        QTRY_COMPARE_WITH_TIMEOUT(status()["queued"].toInt(), 0, 10000);
        QCOMPARE(ctl({"delete", "--all"}).code, 0); // an empty queue
    }

    void refusals_data()
    {
        QTest::addColumn<QStringList>("args");
        QTest::addColumn<int>("code");
        QTest::addColumn<QString>("err");
        QTest::newRow("printer id outside 1..5") << QStringList{"printer", "edit", "6", "--name", "X"} << 1
                                                 << "outside 1..5";
        QTest::newRow("no such printer") << QStringList{"printer", "remove", "4"} << 1 << "no printer 4";
        QTest::newRow("darkness outside its list") << QStringList{"printer", "edit", "1", "--darkness", "11"} << 1
                                                   << "--darkness: '11' is not one of: 1, 2";
        QTest::newRow("feed not digits") << QStringList{"printer", "edit", "2", "--feed", "6x"} << 1 << "--feed";
        QTest::newRow("blank name") << QStringList{"printer", "edit", "2", "--name", "  "} << 1 << GetString(12025);
        QTest::newRow("port not a number") << QStringList{"settings", "set", "--port", "20a1"} << 1
                                           << GetString(12143);
        QTest::newRow("unknown job") << QStringList{"delete", "77"} << 1 << "no queued job with id 77";
        QTest::newRow("job id not a number") << QStringList{"delete", "x"} << 2 << "not a number";
        QTest::newRow("switch not on/off") << QStringList{"settings", "set", "--silent", "yes"} << 2 << "on or off";
        QTest::newRow("unknown option") << QStringList{"printer", "add", "--colour", "red"} << 2 << "colour";
        QTest::newRow("unknown command") << QStringList{"reboot"} << 2 << "unknown command";
        QTest::newRow("no command") << QStringList{} << 2 << "no command";
        QTest::newRow("group without subcommand") << QStringList{"printer"} << 2 << "needs a subcommand";
        QTest::newRow("unknown subcommand") << QStringList{"printer", "reboot"} << 2 << "unknown printer subcommand";
        QTest::newRow("timeout not a number") << QStringList{"--timeout", "x", "status"} << 2 << "--timeout";
        QTest::newRow("move to a missing printer") << QStringList{"move", "--from", "1", "--to", "4"} << 1
                                                   << "no printer 4";
        QTest::newRow("move without --to") << QStringList{"move", "1"} << 2 << "--to N";
        QTest::newRow("move ids and --from") << QStringList{"move", "1", "--from", "2", "--to", "1"} << 2
                                             << "job ids or --from";
        QTest::newRow("reprint out of history") << QStringList{"reprint", "99"} << 1 << "no history entry 99";
        QTest::newRow("preview without a file") << QStringList{"preview", "1"} << 2 << "-o FILE";
    }
    void refusals()
    {
        QFETCH(QStringList, args);
        QFETCH(int, code);
        QFETCH(QString, err);
        QCOMPARE(ctl({"start"}).code, 0);
        QTRY_COMPARE_WITH_TIMEOUT(printer(1)["status"].toInt(), 1, 10000);
        const QString before = snapshot();
        const Run r = ctl(args);
        QCOMPARE(r.code, code);
        QVERIFY2(r.err.contains(err), qPrintable(r.err));
        QCOMPARE(snapshot(), before);
        // Nothing was left half-done: the service runs, the printers are back.
        const QJsonObject s = status();
        QCOMPARE(s["service"].toObject()["running"].toBool(), true);
        QCOMPARE(printer(1)["status"].toInt(), 1);
        QCOMPARE(s["printers"].toArray().size(), 2);
    }

    // The start-up's serial reconfiguration waits on a silent printer for
    // seconds; a printer command given meanwhile waits for it instead of
    // being told the printers are busy.
    void printerCommandsWaitForStartUpWork()
    {
        const Run r = ctl({"--json", "printer", "edit", "1", "--name", "Kassa 2"});
        QCOMPARE(r.code, 0);
        QCOMPARE(r.json()["outcome"].toString(), QString("Done"));
        QCOMPARE(inst_->scalar("SELECT Name FROM tbPrinter WHERE Id = 1").toString(), QString("Kassa 2"));
        // The reconfiguration did wait on the silent line (it is logged once it gave up).
        QVERIFY2(inst_->log().contains("SrvMPConfigCOM2: Configuration failed"), qPrintable(inst_->log()));
    }

    void printersAddEditRemove()
    {
        // A network printer on the box: slot 3, checked at once.
        Run r = ctl({"--json", "printer", "add", "--name", "Shop", "--address", " 127.0.0.1 ", "--net-port",
                     QString::number(inst_->net.port()), "--darkness", "7", "--speed", "8"});
        QCOMPARE(r.code, 0);
        QCOMPARE(r.json()["printer"].toObject()["id"].toInt(), 3);
        QCOMPARE(r.json()["printer"].toObject()["statusWord"].toString(), GetString(12079));
        QCOMPARE(printerRow(3), QString("Shop|1|2|COM1:#9600|127.0.0.1#%1|0|6|7|0|0|60|0").arg(inst_->net.port()));
        QCOMPARE(printer(3)["display"].toString(), QString("3 Shop på 127.0.0.1"));

        // Edited: only the fields given change; it moves to the serial line.
        r = ctl({"printer", "edit", "3", "--connection", "serial", "--com", "COM2", "--cutter", "on", "--feed", "80",
                 "--passive", "on"});
        QCOMPARE(r.code, 0);
        QCOMPARE(printerRow(3), QString("Shop|1|1|COM2:#9600|127.0.0.1#%1|0|6|7|1|1|80|0").arg(inst_->net.port()));
        QCOMPARE(printer(3)["statusWord"].toString(), GetString(12083));

        // Removed: the row and the slot go.
        r = ctl({"printer", "remove", "3"});
        QCOMPARE(r.code, 0);
        QVERIFY(r.out.contains(GetString(12040, "3 Shop på COM2:")));
        QCOMPARE(inst_->scalar("SELECT COUNT(*) FROM tbPrinter WHERE Id = 3").toInt(), 0);
        QVERIFY(printer(3).isEmpty());
    }

    void deviceOperations_data()
    {
        QTest::addColumn<QStringList>("args");
        QTest::addColumn<int>("printer");
        QTest::addColumn<QString>("call"); // what the emulated printer is asked
        QTest::newRow("test print, network") << QStringList{"test", "1"} << 1 << "print 1 i";
        QTest::newRow("clear, serial") << QStringList{"clear", "2"} << 2 << "init a";
        QTest::newRow("calibrate, serial") << QStringList{"calibrate", "2"} << 2 << "service 44";
        QTest::newRow("configure, serial") << QStringList{"configure", "2"} << 2 << "setparam 46 ";
    }
    void deviceOperations()
    {
        QFETCH(QStringList, args);
        QFETCH(int, printer);
        QFETCH(QString, call);
        quill::test::Emulator& emu = printer == 1 ? inst_->net : inst_->ser;
        QTRY_COMPARE_WITH_TIMEOUT(this->printer(printer)["status"].toInt(), 1, 10000);
        const auto calls = [&] { return int(emu.log().filter(QRegularExpression("^" + QRegularExpression::escape(call))).size()); };
        const int before = calls();
        const Run r = ctl(QStringList{"--json", "printer"} + args);
        QCOMPARE(r.code, 0);
        QCOMPARE(r.json()["outcome"].toString(), QString("Done"));
        QTRY_COMPARE_WITH_TIMEOUT(calls(), before + 1, 10000);
        // The printer's status is back from Configuring.
        QCOMPARE(this->printer(printer)["status"].toInt(), 1);

        // A printer out of paper: the window's box is the reason (one row is enough for the mapping).
        if (args.first() != "test")
            return;
        QCOMPARE(emu.command("paper out"), QString("ok"));
        const Run failed = ctl(QStringList{"printer"} + args);
        QCOMPARE(emu.command("paper in"), QString("ok"));
        QCOMPARE(failed.code, 1);
        QVERIFY2(failed.err.contains(GetString(12024) + " " + GetString(13005)), qPrintable(failed.err));
    }

    void settingsSet()
    {
        QCOMPARE(ctl({"start"}).code, 0);
        Run r = ctl({"settings", "set", "--auto-start-service", "on", "--silent", "on", "--traffic-log", "on",
                     "--quit-question", "on"});
        QCOMPARE(r.code, 0);
        // The dialog's stop question, answered; the service is stopped.
        QVERIFY2(r.out.contains(GetString(12016)), qPrintable(r.out));
        QCOMPARE(status()["service"].toObject()["running"].toBool(), false);
        QCOMPARE(inst_->scalar("SELECT AutoStartService FROM tbServer").toInt(), 1);
        const QJsonObject s = ctl({"--json", "settings"}).json()["settings"].toObject();
        QCOMPARE(s["silent"].toBool(), true);
        QCOMPARE(s["trafficLog"].toBool(), true);
        QCOMPARE(s["quitQuestion"].toBool(), true);
        QCOMPARE(s["log"].toBool(), true); // not given: unchanged
        QCOMPARE(s["startMinimized"].toBool(), false);
        QCOMPARE(s["port"], QJsonValue(int(port_)));
        QCOMPARE(quill::RegGetValue(quill::HKEY_CURRENT_USER, quill::KeyQuillbase, "dwSilentMode").toInt(), 1);

        // A new port: rebound, told, stored, and print requests reach it.
        const quint16 fresh = TestInstallation::freePort();
        r = ctl({"--json", "settings", "set", "--port", QString::number(fresh)});
        QCOMPARE(r.code, 0);
        QCOMPARE(r.json()["portChange"].toString(), QString("Rebound"));
        QVERIFY(r.json()["messages"].toArray()[0].toObject()["text"].toString().startsWith(GetString(12001)));
        QCOMPARE(status()["listener"].toObject()["port"].toInt(), int(fresh));

        // A port taken by another program: 12006, the stored port stays.
        QTcpServer taken;
        QVERIFY(taken.listen(QHostAddress::Any, 0));
        r = ctl({"settings", "set", "--port", QString::number(taken.serverPort())});
        QCOMPARE(r.code, 1);
        QVERIFY(r.err.contains(GetString(12006)));
        QCOMPARE(status()["listener"].toObject()["listening"].toBool(), false);
        r = ctl({"start"});
        QCOMPARE(r.code, 1);
        QVERIFY(r.err.contains("no TCP listener"));
    }

    void otherUserRefused()
    {
        if (::geteuid() != 0)
            QSKIP("needs root to run the client as another user");
        const QString runuser = QStandardPaths::findExecutable("runuser");
        if (runuser.isEmpty())
            QSKIP("runuser is not installed");
        const QStringList asNobody{runuser, "-u", "nobody", "--"};
        if (ctlIn(inst_->path(), {"--help"}, asNobody).code != 0)
            QSKIP("the user nobody cannot run quillbase-ctl from the build folder");
        // The folder is open to everyone, so only the socket's own mode stands in the way.
        QVERIFY(QFile::setPermissions(inst_->path(), QFile::permissions(inst_->path()) | QFile::ExeOther
                                                         | QFile::ReadOther | QFile::ExeGroup | QFile::ReadGroup));
        Run r = ctlIn(inst_->path(), {"status"}, asNobody);
        QCOMPARE(r.code, 1);
        QVERIFY2(r.err.contains("not allowed"), qPrintable(r.err));
        // The same client gets through once the socket lets others in: the
        // refusal above was the socket's mode and nothing else.
        const auto mode = QFile::permissions(socketPath());
        QVERIFY(QFile::setPermissions(socketPath(), mode | QFile::ReadOther | QFile::WriteOther | QFile::ExeOther));
        r = ctlIn(inst_->path(), {"status"}, asNobody);
        QVERIFY(QFile::setPermissions(socketPath(), mode));
        QCOMPARE(r.code, 0);
    }

    // The queue tools through the socket: a preview is the picture the
    // printer prints, moves and cancels change the queue, the history
    // reprints; the event log names the socket's user.
    void queueTools()
    {
        const QString preview = inst_->file("preview-1.png");
        Run r = ctl({"preview", "1", "-o", preview});
        QCOMPARE(r.code, 0);
        QVERIFY2(r.out.contains(preview) && r.out.contains("480 x 640"), qPrintable(r.out));
        r = ctl({"move", "1", "--to", "2"});
        QCOMPARE(r.code, 0);
        QCOMPARE(r.out, QString("Moved 1 job to printer 2.\n"));
        QCOMPARE(ctl({"start"}).code, 0);
        QTRY_COMPARE_WITH_TIMEOUT(quill::test::PrintedLabels(inst_->serOut.path()),
                                  (QStringList{"Ett 1/1 t1", "Två 1/1 t1"}), 20000);
        const QImage printed(QDir(inst_->serOut.path()).filePath("label-000001.png"));
        QVERIFY(!printed.isNull());
        QCOMPARE(QImage(preview).convertToFormat(QImage::Format_RGB32), printed.convertToFormat(QImage::Format_RGB32));

        // History, newest first; a reprint on another printer prints there.
        QTRY_COMPARE_WITH_TIMEOUT(status()["queued"].toInt(), 0, 10000);
        r = ctl({"--json", "history"});
        QCOMPARE(r.code, 0);
        QStringList history;
        int ett = 0;
        for (const QJsonValue& v : r.json()["history"].toArray()) {
            history << QStringLiteral("%1 %2 %3 %4")
                           .arg(v["job"].toInt())
                           .arg(v["printer"].toString(), v["outcome"].toString(), v["caption"].toString());
            if (v["caption"].toString() == "Ett")
                ett = v["id"].toInt();
        }
        // Printer 1 prints its own job meanwhile; Bar's two come in their order.
        history.removeAll("3 Kassa printed Tre");
        QCOMPARE(history, (QStringList{"2 Bar printed Två", "1 Bar printed Ett"}));
        r = ctl({"reprint", QString::number(ett), "--printer", "1"});
        QCOMPARE(r.code, 0);
        QTRY_VERIFY_WITH_TIMEOUT(quill::test::PrintedLabels(inst_->netOut.path()).contains("Ett 1/1 t1"), 20000);

        // A job behind a printer in error is cancelled while the service runs.
        QCOMPARE(inst_->net.command("paper out"), QString("ok"));
        QCOMPARE(ctl({"refresh"}).code, 0);
        QTRY_COMPARE_WITH_TIMEOUT(printer(1)["status"].toInt(), 4, 15000);
        r = ctl({"reprint", QString::number(ett), "--printer", "1"});
        QCOMPARE(r.code, 0);
        const int copy = r.out.section(' ', 2, 2).remove(',').toInt();
        r = ctl({"cancel", QString::number(copy)});
        QVERIFY2(r.code == 0, qPrintable(r.err));
        QVERIFY2(r.out.contains(GetString(12154, QString::number(copy) + " Ett")), qPrintable(r.out));
        QCOMPARE(status()["queued"].toInt(), 0);
        QCOMPARE(ctl({"--json", "history", "--limit", "1"}).json()["history"].toArray().at(0).toObject()["outcome"].toString(),
                 QString("cancelled"));
        const passwd* pw = ::getpwuid(::getuid());
        QVERIFY(pw);
        QVERIFY2(inst_->log().contains(QStringLiteral("Job %1 cancelled. Asked by control socket user %2.")
                                           .arg(copy)
                                           .arg(QString::fromLocal8Bit(pw->pw_name))),
                 qPrintable(inst_->log()));

        // A layout the renderer cannot read: the line and what is wrong.
        QFile bad(inst_->file("2.lbl"));
        QVERIFY(bad.open(QIODevice::WriteOnly) && bad.write("label 480 640\ntext 10 20 30\n") > 0);
        bad.close();
        QVERIFY(stopServer()); // the queue is read from tbJob at start-up
        QVERIFY(inst_->sql("INSERT INTO tbJob (Id, PrinterId, Job) VALUES (50, 1, ?)",
                           {JobText(1, 2, "1", "KASSA1", "Anna", "Trasig")}));
        QVERIFY(startServer());
        r = ctl({"preview", "50", "-o", inst_->file("bad.png")});
        QCOMPARE(r.code, 1);
        QVERIFY2(r.err.contains(inst_->file("2.lbl") + ": line 2: text X Y SIZE"), qPrintable(r.err));
        QVERIFY(!QFile::exists(inst_->file("bad.png")));
    }

    void help_data()
    {
        QTest::addColumn<QStringList>("args");
        QTest::addColumn<QString>("text");
        QTest::newRow("main") << QStringList{"--help"} << "printer configure";
        QTest::newRow("main: exit status") << QStringList{"--help"} << "4 a server runs there but does not answer";
        QTest::newRow("printer group") << QStringList{"printer", "--help"} << "printer calibrate ID";
        QTest::newRow("version") << QStringList{"--version"} << "quillbase-ctl " QUILL_VERSION;
        QTest::newRow("printer add") << QStringList{"printer", "add", "--help"} << "--reverse-feed";
        QTest::newRow("delete") << QStringList{"delete", "--help"} << "--all";
    }
    void help()
    {
        QFETCH(QStringList, args);
        QFETCH(QString, text);
        // No server is needed for help.
        const Run r = ctlIn(QDir::tempPath(), args);
        QCOMPARE(r.code, 0);
        QVERIFY2(r.out.contains(text), qPrintable(r.out));
    }
};

QTEST_GUILESS_MAIN(TstCtl)
#include "tst_ctl.moc"
