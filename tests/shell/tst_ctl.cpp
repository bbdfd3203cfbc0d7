// The headless server as its own process, with printer 1 "Kassa" on an
// emulated network box and printer 2 "Bar" on an emulated serial line:
// quillbase-ctl's commands (their effect, the --json answers, the exit codes)
// and what the server tells systemd through NOTIFY_SOCKET and on stderr.
#include "foundation/texts.h"
#include "shell/systemdnotify.h"
#include "support/dbfixture.h"
#include "support/installation.h"

#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QImage>
#include <QJsonArray>
#include <QRegularExpression>
#include <QTest>


#include <csignal>
#include <pwd.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

using quill::GetString;
using quill::dbtest::JobText;
using quill::test::HeadlessServer;
using quill::test::PrinterSite;
using quill::test::TestInstallation;
using Run = quill::test::ProgramRun;

namespace {

const QString Ctl = QStringLiteral(QUILL_BIN_DIR "/quillbase-ctl");

// The receiving end of sd_notify, bound where systemd's own listener would
// be: one datagram is one message of newline-separated assignments.
struct NotifySocket {
    const int fd = ::socket(AF_UNIX, SOCK_DGRAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0);
    QStringList lines; // every assignment received so far, in order

    ~NotifySocket() { ::close(fd); }
    bool bind(const QByteArray& path)
    {
        sockaddr_un a{};
        a.sun_family = AF_UNIX;
        if (fd < 0 || size_t(path.size()) >= sizeof(a.sun_path))
            return false;
        memcpy(a.sun_path, path.constData(), size_t(path.size()));
        return ::bind(fd, reinterpret_cast<sockaddr*>(&a), sizeof(a)) == 0;
    }
    bool waitFor(const std::function<bool(const QStringList&)>& done)
    {
        char buf[4096];
        const auto received = [&] {
            for (ssize_t n; (n = ::recv(fd, buf, sizeof(buf), 0)) > 0;)
                lines += QString::fromUtf8(buf, int(n)).split(QLatin1Char('\n'), Qt::SkipEmptyParts);
            return done(lines);
        };
        return QTest::qWaitFor(received, 20000);
    }
};

} // namespace

class TstCtl : public QObject {
    Q_OBJECT

    std::unique_ptr<PrinterSite> inst_;
    std::unique_ptr<HeadlessServer> server_;
    quint16 port_ = 0;

    QString socketPath() const { return inst_->file("quillbase.sock"); }
    // The commands whose effects later tests do not depend on share one server.
    static bool sharedServer()
    {
        const QByteArray test = QTest::currentTestFunction();
        return test == "refusals" || test == "printersAddEditRemove" || test == "deviceOperations"
            || test == "settingsSet";
    }

    // quillbase-ctl --home <installation> args..., run to its end.
    Run ctl(const QStringList& args)
    {
        return quill::test::RunProgram(Ctl, QStringList{"--home", inst_->path()} + args);
    }

    QJsonObject status()
    {
        const Run r = ctl({"--json", "status"});
        return r.code == 0 ? r.json() : QJsonObject();
    }
    // The printers are listed by id; here no slot before `id` is empty.
    QJsonObject printer(int id) { return status()["printers"].toArray()[id - 1].toObject(); }
    QString printerRow(int id)
    {
        const QStringList columns{"Name", "PrinterTypeId", "ConnectionUsed", "Connection1", "IFNULL(Connection2, '-')",
                                  "NetConnectOnly", "Strobe", "Speed", "Passive", "CutterInstalled", "DispensingFeed",
                                  "ReverseFeed"};
        const QString select = "SELECT " + columns.join(" || '|' || ") + " FROM tbPrinter WHERE Id = %1";
        return inst_->scalar(select.arg(id)).toString();
    }

private slots:
    void init()
    {
        const QByteArray test = QTest::currentTestFunction();
        if (test.startsWith("systemd") && !quill::SystemdNotifier::available())
            QSKIP("built without libsystemd: the server tells systemd nothing");
        if (sharedServer() && server_)
            return;
        server_.reset();
        inst_ = std::make_unique<PrinterSite>();
        QVERIFY2(inst_->start(), qPrintable(inst_->errorText()));
        port_ = TestInstallation::freePort();
        QVERIFY(inst_->setServer(port_, test.startsWith("systemd")));
        inst_->setUserSwitch("dwUseLog", 1);
        // Queued before the start: the service is off, so they wait in order.
        const QStringList captions{"Ett", "Två", "Tre", "Fyra"};
        for (int i = 0; test == "queueCommands" && i < 4; ++i) {
            const int printer = i == 1 ? 2 : 1;
            QVERIFY(inst_->sql("INSERT INTO tbJob (Id, PrinterId, Job) VALUES (?, ?, ?)",
                               {i + 1, printer, JobText(printer, 1, "1", "KASSA1", "Anna", captions[i])}));
        }
        server_ = std::make_unique<HeadlessServer>(*inst_);
        if (!test.startsWith("systemd"))
            QVERIFY(server_->start());
    }
    void cleanup()
    {
        if (sharedServer() && !QTest::currentTestFailed())
            return;
        server_.reset();
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
        QCOMPARE(s["service"].toObject()["running"].toBool(), false);
        QCOMPARE(s["listener"].toObject()["port"].toInt(), int(port_));
        const QJsonArray printers = s["printers"].toArray();
        QCOMPARE(printers.size(), 2);
        QCOMPARE(printers[0].toObject()["name"].toString(), QString("Kassa"));
        QTRY_COMPARE_WITH_TIMEOUT(printer(2)["statusWord"].toString(), GetString(12079), 10000);

        // A server that runs (holds its folder's lock) but does not answer is
        // not "no server": it has an exit status of its own, also with its socket gone.
        const pid_t pid = pid_t(server_->process.processId());
        QVERIFY(::kill(pid, SIGSTOP) == 0);
        const Run silent = ctl({"--json", "--timeout", "1", "status"});
        QVERIFY(QFile::rename(socketPath(), socketPath() + ".away"));
        const Run gone = ctl({"--json", "--timeout", "1", "status"});
        QVERIFY(QFile::rename(socketPath() + ".away", socketPath()));
        QVERIFY(::kill(pid, SIGCONT) == 0);
        for (const Run& r : {silent, gone}) {
            QCOMPARE(r.code, 4);
            QCOMPARE(r.json()["reason"].toString(), QString("no-answer"));
        }

        // Shutdown removes the socket; then there is no server to talk to.
        QVERIFY(server_->stop());
        QVERIFY(!QFileInfo::exists(socketPath()));
        const Run none = ctl({"--json", "status"});
        QCOMPARE(none.code, 3);
        QCOMPARE(none.json()["reason"].toString(), QString("no-server"));

        // A server killed outright leaves its socket: still no server; the next start replaces it.
        QVERIFY(server_->start());
        server_->process.kill();
        QVERIFY(server_->process.waitForFinished(10000));
        QVERIFY(QFileInfo::exists(socketPath()));
        QCOMPARE(ctl({"status"}).code, 3);
        QVERIFY(server_->start());
        QCOMPARE(ctl({"status"}).code, 0);
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
        QTest::newRow("blank name") << QStringList{"printer", "edit", "2", "--name", "  "} << 1 << GetString(12025);
        QTest::newRow("reprint out of history") << QStringList{"reprint", "99"} << 1 << "no history entry 99";
        QTest::newRow("job id not a number") << QStringList{"delete", "x"} << 2 << "not a number";
        QTest::newRow("switch not on/off") << QStringList{"settings", "set", "--silent", "yes"} << 2 << "on or off";
        QTest::newRow("unknown option") << QStringList{"printer", "add", "--colour", "red"} << 2 << "colour";
        QTest::newRow("unknown command") << QStringList{"reboot"} << 2 << "unknown command";
        QTest::newRow("move ids and --from") << QStringList{"move", "1", "--from", "2", "--to", "1"} << 2
                                             << "job ids or --from";
        QTest::newRow("preview without a file") << QStringList{"preview", "1"} << 2 << "-o FILE";
    }
    void refusals()
    {
        QFETCH(QStringList, args);
        QFETCH(int, code);
        QFETCH(QString, err);
        const Run r = ctl(args);
        QCOMPARE(r.code, code);
        QVERIFY2(r.err.contains(err), qPrintable(r.err));
        // Nothing was left half-done: the printers are back from Configuring.
        QCOMPARE(printer(1)["status"].toInt(), 1);
        QCOMPARE(printer(2)["status"].toInt(), 1);
    }

    void printersAddEditRemove()
    {
        // A network printer on the box: slot 3, checked at once.
        Run r = ctl({"--json", "printer", "add", "--name", "Shop", "--address", "127.0.0.1", "--net-port",
                     QString::number(inst_->net.port()), "--darkness", "7", "--speed", "8"});
        QCOMPARE(r.code, 0);
        QCOMPARE(r.json()["printer"].toObject()["id"].toInt(), 3);
        QCOMPARE(r.json()["printer"].toObject()["statusWord"].toString(), GetString(12079));
        QCOMPARE(printerRow(3), QString("Shop|1|2|COM1:#9600|127.0.0.1#%1|0|6|7|0|0|60|0").arg(inst_->net.port()));

        // Edited: only the fields given change; it moves to the serial line.
        r = ctl({"printer", "edit", "3", "--connection", "serial", "--com", "COM2", "--cutter", "on", "--feed", "80",
                 "--passive", "on"});
        QCOMPARE(r.code, 0);
        QCOMPARE(printerRow(3), QString("Shop|1|1|COM2:#9600|127.0.0.1#%1|0|6|7|1|1|80|0").arg(inst_->net.port()));

        // Removed: the row and the slot go.
        QCOMPARE(ctl({"printer", "remove", "3"}).code, 0);
        QCOMPARE(status()["printers"].toArray().size(), 2);
        QVERIFY(printerRow(3).isEmpty());
    }

    // Each device command reaches its printer and leaves it back from
    // Configuring; a failed one gives the window's box as the reason (one
    // command is enough for that mapping).
    void deviceOperations()
    {
        const struct {
            const char* command;
            int printer;
            const char* call; // what the emulated printer is asked
        } rows[] = {
            {"test", 1, "print 1 i"},
            {"clear", 2, "init a"},
            {"calibrate", 2, "service 44"},
            {"configure", 2, "setparam 46 "},
        };
        for (const auto& row : rows) {
            quill::test::Emulator& emu = row.printer == 1 ? inst_->net : inst_->ser;
            QTRY_COMPARE_WITH_TIMEOUT(printer(row.printer)["status"].toInt(), 1, 10000);
            const QRegularExpression asked("^" + QRegularExpression::escape(row.call));
            const int before = int(emu.log().filter(asked).size());
            const Run r = ctl({"--json", "printer", row.command, QString::number(row.printer)});
            QVERIFY2(r.code == 0 && r.json()["outcome"] == "Done", row.command);
            QTRY_COMPARE_WITH_TIMEOUT(int(emu.log().filter(asked).size()), before + 1, 10000);
            QCOMPARE(printer(row.printer)["status"].toInt(), 1);
        }
        QCOMPARE(inst_->net.command("paper out"), QString("ok"));
        const Run failed = ctl({"printer", "test", "1"});
        QCOMPARE(inst_->net.command("paper in"), QString("ok"));
        QCOMPARE(failed.code, 1);
        QVERIFY2(failed.err.contains(GetString(12024) + " " + GetString(13005)), qPrintable(failed.err));
    }

    void settingsSet()
    {
        Run r = ctl({"settings", "set", "--auto-start-service", "on", "--silent", "on", "--traffic-log", "on",
                     "--quit-question", "on"});
        QCOMPARE(r.code, 0);
        const QJsonObject s = ctl({"--json", "settings"}).json()["settings"].toObject();
        QCOMPARE(s["autoStartService"].toBool(), true);
        QCOMPARE(s["silent"].toBool(), true);
        QCOMPARE(s["trafficLog"].toBool(), true);
        QCOMPARE(s["quitQuestion"].toBool(), true);
        QCOMPARE(s["log"].toBool(), true); // not given: unchanged

        r = ctl({"--json", "settings", "set", "--port", QString::number(TestInstallation::freePort())});
        QCOMPARE(r.json()["portChange"].toString(), QString("Rebound"));
    }

    // The queue through the socket, with jobs 1 Ett, 3 Tre, 4 Fyra on printer 1
    // and 2 Två on printer 2, the service off: a delete or cancel asks the
    // window's question, answered by the command, and a cancel is logged with
    // the socket's user; a preview is the picture the printer prints; the
    // history lists what was printed and cancelled; a reprint goes to the
    // printer asked for.
    void queueCommands()
    {
        Run r = ctl({"--json", "jobs"});
        QCOMPARE(r.code, 0);
        const QJsonArray jobs = r.json()["jobs"].toArray();
        QCOMPARE(jobs.size(), 4);
        QCOMPARE(jobs[1].toObject()["caption"].toString(), QString("Två"));
        QCOMPARE(jobs[1].toObject()["printer"].toString(), QString("Bar"));
        QCOMPARE(ctl({"--json", "jobs", "--printer", "1"}).json()["jobs"].toArray().size(), 3);

        // Every id is checked first: a typo among them deletes nothing.
        r = ctl({"delete", "1", "77"});
        QCOMPARE(r.code, 1);
        QVERIFY2(r.err.contains("no queued job with id 77"), qPrintable(r.err));
        r = ctl({"delete", "3"});
        QCOMPARE(r.code, 0);
        QVERIFY2(r.out.contains(GetString(12041, "3 Tre")), qPrintable(r.out));
        QCOMPARE(quill::dbtest::JobRows(inst_->file("brixa.mdb")).size(), 3);
        r = ctl({"cancel", "4"});
        QVERIFY2(r.code == 0, qPrintable(r.err));
        const passwd* pw = ::getpwuid(::getuid());
        QVERIFY(pw);
        const QString asker = "Job 4 cancelled. Asked by control socket user " + QString::fromLocal8Bit(pw->pw_name);
        QVERIFY2(inst_->log().contains(asker), qPrintable(inst_->log()));

        const QString preview = inst_->file("preview-1.png");
        QCOMPARE(ctl({"preview", "1", "-o", preview}).code, 0);
        r = ctl({"move", "1", "--to", "2"});
        QCOMPARE(r.out, QString("Moved 1 job to printer 2.\n"));
        r = ctl({"--json", "start"});
        QCOMPARE(r.code, 0);
        QCOMPARE(r.json()["service"].toObject()["running"].toBool(), true);
        QTRY_COMPARE_WITH_TIMEOUT(quill::test::PrintedLabels(inst_->serOut.path()),
                                  (QStringList{"Ett 1/1 t1", "Två 1/1 t1"}), 20000);
        const QImage printed(QDir(inst_->serOut.path()).filePath("label-000001.png"));
        QVERIFY(!printed.isNull());
        QCOMPARE(QImage(preview).convertToFormat(QImage::Format_RGB32), printed.convertToFormat(QImage::Format_RGB32));
        QTRY_COMPARE_WITH_TIMEOUT(status()["queued"].toInt(), 0, 10000);
        QCOMPARE(ctl({"stop"}).code, 0);
        QCOMPARE(status()["service"].toObject()["running"].toBool(), false);

        const QJsonArray history = ctl({"--json", "history"}).json()["history"].toArray();
        QStringList entries;
        for (const QJsonValue& v : history)
            entries << v["caption"].toString() + ' ' + v["printer"].toString() + ' ' + v["outcome"].toString();
        QCOMPARE(entries, (QStringList{"Två Bar printed", "Ett Bar printed", "Fyra Kassa cancelled"}));
        QCOMPARE(ctl({"reprint", QString::number(history.at(0)["id"].toInt()), "--printer", "1"}).code, 0);
        const QJsonArray copy = ctl({"--json", "jobs", "--printer", "1"}).json()["jobs"].toArray();
        QCOMPARE(copy.size(), 1);
        QCOMPARE(copy[0].toObject()["caption"].toString(), QString("Två"));
        QCOMPARE(ctl({"delete", "--all"}).code, 0);
        QCOMPARE(status()["queued"].toInt(), 0);
        // Nothing to do is no failure.
        QCOMPARE(ctl({"delete", "--all"}).code, 0);
    }

    // READY=1 only once start-up has logged its last line; a status line that
    // follows the printers; watchdog pings; the log on stderr.
    void systemdReadyStatusWatchdog()
    {
        NotifySocket notify;
        QVERIFY(notify.bind(inst_->file("notify").toLocal8Bit()));
        QProcessEnvironment env = QProcessEnvironment::systemEnvironment();
        env.insert("NOTIFY_SOCKET", inst_->file("notify"));
        env.insert("WATCHDOG_USEC", "400000"); // a ping every 200 ms
        env.remove("WATCHDOG_PID");
        server_->process.setProcessEnvironment(env);
        server_->process.setProcessChannelMode(QProcess::SeparateChannels);
        QVERIFY(server_->start({"--status-interval", "500"}, false));
        QVERIFY(notify.waitFor([](const QStringList& l) { return l.contains("READY=1"); }));
        QVERIFY(inst_->log().contains("Quillbase succesfully started"));
        const QStringList& got = notify.lines;
        QVERIFY2(got.value(got.indexOf("READY=1") + 1).startsWith("STATUS=Print service running; "),
                 qPrintable(got.join(" | ")));

        // The printers answer their checks: both ready.
        const QString idle = "STATUS=Print service running; 2 of 2 printers ready; 0 jobs queued";
        QVERIFY2(notify.waitFor([&](const QStringList& l) { return l.contains(idle); }), qPrintable(got.join(" | ")));

        const qsizetype pings = got.count("WATCHDOG=1");
        QVERIFY(notify.waitFor([&](const QStringList& l) { return l.count("WATCHDOG=1") >= pings + 3; }));

        QVERIFY(server_->stop());
        QVERIFY(notify.waitFor([](const QStringList& l) { return l.contains("STOPPING=1"); }));
        const QString err = QString::fromUtf8(server_->process.readAllStandardError());
        QVERIFY2(err.contains("Quillbase succesfully started\n"), qPrintable(err));
        QVERIFY(err.contains("Quillbase terminated.\n"));
    }
};

QTEST_GUILESS_MAIN(TstCtl)
#include "tst_ctl.moc"
