// The headless server as systemd runs it: a real `quillbase --headless` child
// whose NOTIFY_SOCKET names a Unix datagram socket this test binds, as
// systemd's own listener does; what it says there and on stderr.
#include "foundation/cp1252.h"
#include "shell/systemdnotify.h"
#include "support/dbfixture.h"
#include "support/installation.h"

#include <QProcess>
#include <QRegularExpression>
#include <QTcpServer>
#include <QTcpSocket>
#include <QTest>

#include <fcntl.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

using quill::test::Emulator;
using quill::test::TestInstallation;

namespace {

// The receiving end of sd_notify: one datagram is one message of
// newline-separated assignments.
class NotifySocket {
public:
    explicit NotifySocket(const QString& path) : path_(path)
    {
        fd_ = ::socket(AF_UNIX, SOCK_DGRAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0);
        sockaddr_un a{};
        a.sun_family = AF_UNIX;
        const QByteArray p = path.toLocal8Bit();
        if (fd_ < 0 || size_t(p.size()) >= sizeof(a.sun_path))
            return;
        memcpy(a.sun_path, p.constData(), size_t(p.size()));
        bound_ = ::bind(fd_, reinterpret_cast<sockaddr*>(&a), sizeof(a)) == 0;
    }
    ~NotifySocket()
    {
        if (fd_ >= 0)
            ::close(fd_);
    }
    bool bound() const { return bound_; }
    QString path() const { return path_; }

    // Every assignment received so far, in order.
    QStringList received()
    {
        char buf[4096];
        ssize_t n;
        while ((n = ::recv(fd_, buf, sizeof(buf), 0)) > 0)
            lines_ += QString::fromUtf8(buf, int(n)).split(QLatin1Char('\n'), Qt::SkipEmptyParts);
        return lines_;
    }
    bool waitFor(const std::function<bool(const QStringList&)>& done, int ms = 20000)
    {
        return QTest::qWaitFor([&] { return done(received()); }, ms);
    }

private:
    QString path_;
    int fd_ = -1;
    bool bound_ = false;
    QStringList lines_;
};

int countStarting(const QStringList& lines, const QString& prefix)
{
    return int(std::count_if(lines.cbegin(), lines.cend(), [&](const QString& l) { return l.startsWith(prefix); }));
}

} // namespace

class TestSystemd : public QObject {
    Q_OBJECT

    std::unique_ptr<TestInstallation> inst_;
    std::unique_ptr<NotifySocket> notify_;
    QProcess server_;

    void startServer()
    {
        QProcessEnvironment env = QProcessEnvironment::systemEnvironment();
        env.insert("NOTIFY_SOCKET", notify_->path());
        env.insert("WATCHDOG_USEC", "400000"); // a ping every 200 ms
        env.remove("WATCHDOG_PID");
        server_.setProcessEnvironment(env);
        server_.start(QStringLiteral(QUILL_BIN_DIR "/quillbase"),
                      {"--headless", "--home", inst_->path(), "--status-interval", "500"});
        QVERIFY(server_.waitForStarted(10000));
    }

private slots:
    void init()
    {
        if (!quill::SystemdNotifier::available())
            QSKIP("built without libsystemd: the server tells systemd nothing");
        inst_ = std::make_unique<TestInstallation>();
        QVERIFY(inst_->ok());
        notify_ = std::make_unique<NotifySocket>(inst_->file("notify"));
        QVERIFY(notify_->bound());
    }
    void cleanup()
    {
        if (server_.state() != QProcess::NotRunning) {
            server_.terminate();
            if (!server_.waitForFinished(10000))
                server_.kill();
        }
        notify_.reset();
        inst_.reset();
    }

    // READY=1 only once start-up has logged its last line; a status line that
    // follows the queue and the printers; watchdog pings; the log on stderr.
    void readyStatusWatchdog()
    {
        Emulator printer;
        QVERIFY2(printer.startTcp(), qPrintable(printer.errorText()));
        const quint16 port = TestInstallation::freePort();
        QVERIFY(inst_->setServer(port, true));
        QVERIFY(inst_->addNetworkPrinter(1, "Kassa", printer.port()));
        inst_->setUserSwitch("dwUseLog", 1);
        startServer();

        QVERIFY2(notify_->waitFor([](const QStringList& l) { return l.contains("READY=1"); }),
                 qPrintable(notify_->received().join(" | ")));
        QVERIFY(inst_->log().contains("Quillbase succesfully started"));
        QStringList got = notify_->received();
        const int ready = int(got.indexOf("READY=1"));
        QVERIFY(ready + 1 < got.size());
        QVERIFY2(got[ready + 1].startsWith("STATUS=Print service running; "), qPrintable(got[ready + 1]));

        // The printer answers its check: one of one ready.
        const QString idle = "STATUS=Print service running; 1 of 1 printers ready; 0 jobs queued";
        QVERIFY2(notify_->waitFor([&](const QStringList& l) { return l.contains(idle); }),
                 qPrintable(notify_->received().join(" | ")));

        // A job is stored (queued), printed, and the queue is empty again. The
        // status line is sent at most four times a second, so the printer
        // answers slowly enough for the queued state to last.
        QCOMPARE(printer.command("delay 300"), QStringLiteral("ok"));
        QTcpSocket client;
        client.connectToHost(QHostAddress::LocalHost, port);
        QVERIFY(client.waitForConnected(5000));
        client.write(quill::ToCp1252(quill::dbtest::JobText(1, 1, "1", "KASSA1", "Anna", "Greenfee")));
        const QRegularExpression queued("^STATUS=Print service running; \\d of 1 printers ready; 1 job queued$");
        QVERIFY2(notify_->waitFor([&](const QStringList& l) {
                     const int q = int(l.lastIndexOf(queued));
                     return q >= 0 && l.indexOf(idle, q) > q;
                 }),
                 qPrintable(notify_->received().join(" | ")));

        const int pings = countStarting(notify_->received(), "WATCHDOG=1");
        QVERIFY(notify_->waitFor([&](const QStringList& l) { return countStarting(l, "WATCHDOG=1") >= pings + 3; }));

        // No identical status twice in a row: a line is sent only when it changes.
        got = notify_->received();
        QStringList statuses;
        for (const QString& l : got)
            if (l.startsWith("STATUS="))
                statuses << l;
        for (int i = 1; i < statuses.size(); ++i)
            QVERIFY2(statuses[i] != statuses[i - 1], qPrintable(statuses[i]));

        server_.terminate();
        QVERIFY(server_.waitForFinished(10000));
        QVERIFY(notify_->received().contains("STOPPING=1"));
        const QString err = QString::fromUtf8(server_.readAllStandardError());
        QVERIFY2(err.contains("Quillbase succesfully started\n"), qPrintable(err));
        QVERIFY(err.contains("Quillbase terminated.\n"));
        // The driver's outcome line reaches the journal too.
        QVERIFY2(err.contains(QRegularExpression("Quillmotor MPPrintJob PId = 1 JId = \\d+: 1 label\\(s\\) printed")),
                 qPrintable(err));
    }

    // A port that is taken: the server still starts, as without systemd, but
    // says so on stderr and in its status line, logging switched off or not.
    void portTaken()
    {
        QTcpServer squatter;
        QVERIFY(squatter.listen(QHostAddress::Any, 0));
        QVERIFY(inst_->setServer(squatter.serverPort(), true));
        inst_->setUserSwitch("dwUseLog", 0);
        startServer();
        QVERIFY(notify_->waitFor([](const QStringList& l) { return l.contains("READY=1"); }));
        const QStringList got = notify_->received();
        const QString status = got.value(int(got.indexOf("READY=1")) + 1);
        QVERIFY2(status.startsWith(QStringLiteral("STATUS=NOT LISTENING (port %1: ").arg(squatter.serverPort())),
                 qPrintable(status));
        QVERIFY(status.endsWith("Print service stopped; 0 of 0 printers ready; 0 jobs queued"));
        QByteArray err;
        QVERIFY(QTest::qWaitFor([&] { return (err += server_.readAllStandardError()).contains("not listening"); },
                                10000));
        QVERIFY2(err.contains(QStringLiteral("Quillbase is not listening: port %1: ").arg(squatter.serverPort()).toUtf8()),
                 err.constData());
        // Logging is off here: the event log's lines stay off stderr.
        QVERIFY2(!err.contains("succesfully started"), err.constData());
    }
};

QTEST_GUILESS_MAIN(TestSystemd)
#include "tst_systemd.moc"
