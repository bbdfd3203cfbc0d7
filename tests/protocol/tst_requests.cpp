// The request protocol over real loopback sockets against the server on a
// temporary installation, in process or as a `quillbase --headless` of its own:
// exact reply bytes, job storage, the configure operations, the add-in framing
// and the connection limit. Who may connect: the allow-list (tAllowedClients)
// and the bind address (tBindAddress), a client's source address chosen by
// binding it to 127.0.0.1 or 127.0.0.2 before it connects. Whose queued jobs a
// withdraw takes.
//
// And storage faults: a job is durable once its "OK" has left the server, across
// SIGKILL and the maintenance of the next start; a job that cannot be stored is
// answered 1005 and is neither in tbJob nor in the job list, and once the fault
// is gone requests are stored again without a restart. The faults are real:
// SIGKILL; brixa.mdb or the installation folder read-only (a read-only bind
// mount), or on PostgreSQL the database made read-only by its administrator; the
// installation on a tmpfs that is filled up; the database server ending the
// connections; a second copy of the program; too few file descriptors.
#include "database/jobstore.h"
#include "database/sqlite.h"
#include "foundation/cp1252.h"
#include "foundation/jobfields.h"
#include "foundation/settings.h"
#include "protocol/clientfilter.h"
#include "protocol/listener.h"
#include "protocol/senderfilter.h"
#include "protocol/traffic.h"
#include "shell/server.h"
#include "support/emulator.h"
#include "support/dbfixture.h"
#include "support/installation.h"
#include "support/mounts.h"

#include <QDir>
#include <QElapsedTimer>
#include <QFile>
#include <QJsonDocument>
#include <QJsonObject>
#include <QLocalSocket>
#include <QRegularExpression>
#include <QScopeGuard>
#include <QSet>
#include <QSignalSpy>
#include <QTcpSocket>
#include <QTemporaryDir>
#include <QTest>

#include <algorithm>
#include <climits>
#include <sys/resource.h>
#include <sys/socket.h>

using namespace quill;
using quill::test::Emulator;
using quill::test::HeadlessServer;
using quill::test::TestInstallation;

namespace {

// The cluster's sessions made read-only (or writable again), as after a
// failover. pg_reload_conf() only signals the postmaster: once a new session
// sees the setting, every open one has been signalled too, and applies it
// before its next command.
bool setClusterReadOnly(TestInstallation& inst, bool on)
{
    if (!inst.sql(on ? "ALTER SYSTEM SET default_transaction_read_only = on"
                     : "ALTER SYSTEM RESET default_transaction_read_only")
        || !inst.scalar("SELECT pg_reload_conf()").toBool())
        return false;
    const QString want = on ? "on" : "off";
    QElapsedTimer waited;
    waited.start();
    while (inst.scalar("SHOW default_transaction_read_only").toString() != want) {
        if (waited.elapsed() > 30000)
            return false;
        QTest::qWait(20);
    }
    return true;
}

const QHostAddress Lo1(QStringLiteral("127.0.0.1"));
const QHostAddress Lo2(QStringLiteral("127.0.0.2"));

// A client from `from` to `to`:port; null when the connection was not made.
std::unique_ptr<QTcpSocket> connectFrom(const QHostAddress& from, const QHostAddress& to, quint16 port)
{
    auto s = std::make_unique<QTcpSocket>();
    if (!s->bind(from))
        return nullptr;
    s->connectToHost(to, port);
    return s->waitForConnected(5000) ? std::move(s) : nullptr;
}

// A whole reply, byte for byte; none for code -1.
QByteArray expected(int code, const QString& status = {})
{
    if (code < 0)
        return {};
    if (code == 0)
        return "BRIXA\tOK\t";
    if (code == 1101 || code == 1102)
        return ToCp1252("BRIXA\tOK\tBrixa - Printerserver:\rStatus skrivare: " + status
                        + "\r\rUtskriftjobbet har lagrats i utskriftskön." + QString::number(code));
    const QString notStored = "\r\rUtskriftjobbet har INTE lagrats i utskriftskön.";
    const QString settings = "\rKontrollera inställningarna i Brixa - Inställningar!" + notStored;
    const QMap<int, QString> texts{
        {1001, "Tjänsten är inte startad.\rStarta tjänsten och försök igen!"},
        {1002, "Inställd skrivare saknas!" + settings},
        {1003, "Inställd skrivare är passiv och används inte!\rAktivera skrivaren eller ställ in en annan skrivare!"
                   + notStored},
        {1004, "Inställd mall saknas!" + settings},
        {1005, "Utskriftjobbet kunde inte sparas. Kontakta systemansvarig!" + notStored},
        {2001, "Okänd konfigureringsoperation!\r"},
        {9002, "Versionskonflikt råder i Brixa intallationen.\rKontrollera att senaste versionen av Brixa är korrekt "
               "installerat på samtliga datorer!"},
        {9003, "Okänd utskriftsoperation!" + settings},
    };
    return ToCp1252("BRIXA\tERR\tBrixa - Printerserver:\r" + texts.value(code) + QString::number(code));
}

QByteArray print(const QString& printer, const QString& templ, const QString& mode = "0",
                 const QString& copies = "1", const QString& ws = "KASSA1", const QString& user = "",
                 const QString& caption = "Greenfee")
{
    return ToCp1252(QStringLiteral("BRIXA\t1.00\tP\t%1\t%2\t%3\t%4\t%5\t\t\t%6\t%7")
                        .arg(printer, templ, copies, ws, mode, user, caption));
}

// A reply is whole when it is the plain OK or ends in its four-digit code.
bool whole(const QByteArray& b)
{
    return b == expected(0)
        || (b.size() > 13 && std::all_of(b.end() - 4, b.end(), [](char c) { return c >= '0' && c <= '9'; }));
}

// The server closed the connection (a refused client): nothing more comes on it.
bool dropped(const QTcpSocket& s) { return s.state() != QAbstractSocket::ConnectedState; }
// As QTRY_COMPARE, but failing at once when the server closes client `c`.
#define TRY_COMPARE_OPEN(c, actual, expected, ms) do { \
    (void)QTest::qWaitFor([&] { return (actual) == (expected) || dropped(c); }, ms); \
    QVERIFY2((actual) == (expected) || !dropped(c), "the server closed the connection"); \
    QCOMPARE(actual, expected); } while (false)

// A reply's bytes as they come in. One that stops short of its end counts once it has
// been still for 2 s, or at once when the server closed the connection, so a malformed
// or missing reply fails the caller's comparison instead of waiting out its limit.
struct Incoming {
    QByteArray bytes;
    QElapsedTimer grew;
    bool closed = false;
    void read(QTcpSocket& s)
    {
        closed = dropped(s); // before reading: what came until the close is buffered by then
        const QByteArray more = s.readAll();
        if (!more.isEmpty()) {
            bytes += more;
            grew.start();
        }
    }
    bool stalled() const { return closed || (!bytes.isEmpty() && grew.elapsed() >= 2000); }
};

// The tests that make an installation of their own, and leave it behind them.
const QByteArrayList FaultTests{"killKeepsEveryAnsweredJobInOrder", "killDuringAMoveLosesAndDoublesNothing",
                                "faultAnswers1005", "lostConnectionsOpenedAgain", "secondCopyChangesNothing",
                                "outOfDescriptorsControlAnswers", "unwritableFolder"};

} // namespace

class TestRequests : public QObject {
    Q_OBJECT
    std::unique_ptr<TestInstallation> inst;
    std::unique_ptr<Server> server;
    quint16 port = 0;
    // Printer 1: answers its start-up check only after a long while and then
    // prints as slowly, so stored jobs stay queued and the printer never errs.
    Emulator slowPrinter;

    QStringList mounts;
    // The connections of the last send(), and per connection the captions it
    // sent and how many of them were answered.
    std::vector<std::unique_ptr<QTcpSocket>> clients;
    std::vector<QStringList> sentBy;
    std::vector<int> answeredBy;

    // An installation with add-in framing, or with lines added to the
    // per-machine settings as an operator writes them (commas unquoted).
    void install(bool addin = false, const QByteArray& machineLines = {})
    {
        server.reset();
        inst = std::make_unique<TestInstallation>();
        QVERIFY(inst->ok());
        port = TestInstallation::freePort();
        QVERIFY(inst->setServer(port, true));
        QVERIFY(inst->addNetworkPrinter(1, "Skrivare 1", slowPrinter.port()));
        QVERIFY(inst->addNetworkPrinter(2, "Passiv", 9, true));
        QVERIFY(inst->addNetworkPrinter(4, "Fyra", 9));
        // Template 3 is in the table without a layout file.
        QVERIFY(inst->sql("INSERT INTO tbTemplate (Id, TemplateTypeId) VALUES (3, 1)"));
        if (addin)
            inst->setMachineValue("Quillbase", "dwAddinScala", 1, true);
        inst->setUserSwitch("dwUseLog", 1);
        inst->setUserSwitch("dwUseTrafficLog", 1);
        if (!machineLines.isEmpty()) {
            QFile conf(SettingsFile(HKEY_LOCAL_MACHINE));
            QVERIFY(conf.open(QIODevice::ReadWrite));
            QByteArray text = conf.readAll();
            QVERIFY(text.contains("[Quillbase]\n"));
            text.replace("[Quillbase]\n", "[Quillbase]\n" + machineLines);
            QVERIFY(conf.seek(0) && conf.write(text) == text.size());
        }
    }
    // The same with an in-process server started on it.
    void startServer(bool addin = false, const QByteArray& machineLines = {})
    {
        install(addin, machineLines);
        server = std::make_unique<Server>(Server::Options{});
        QCOMPARE(server->startup(), Server::Started);
    }

    std::unique_ptr<QTcpSocket> connectClient() { return connectFrom(Lo1, Lo1, port); }

    // Collects a reply until it is as long as `want`, stalls, or 10 s pass; a
    // short one fails the caller's comparison, and anything extra shows up in
    // the last 20 ms.
    static QByteArray awaitReply(QTcpSocket& s, const QByteArray& want)
    {
        Incoming got;
        (void)QTest::qWaitFor([&] {
            got.read(s);
            return got.bytes.size() >= want.size() || got.stalled();
        }, 10000);
        QTest::qWait(20);
        return got.bytes + s.readAll();
    }
    QByteArray exchange(QTcpSocket& s, const QByteArray& request, const QByteArray& want)
    {
        s.write(request);
        return awaitReply(s, want);
    }

    int jobCount() { return inst->scalar("SELECT COUNT(*) FROM tbJob").toInt(); }

    // `count` connections each send up to `each` requests, the next once the
    // last is answered, until `stopAt` replies came in all; every reply, in the
    // order they came. The connections stay open.
    QList<QByteArray> send(int count, int each, int stopAt = INT_MAX)
    {
        clients.clear();
        sentBy.assign(count, {});
        answeredBy.assign(count, 0);
        std::vector<Incoming> buffers(count);
        QList<QByteArray> replies;
        auto request = [&](int k) {
            sentBy[k] << QStringLiteral("Job %1-%2").arg(k).arg(sentBy[k].size() + 1);
            clients[k]->write("BRIXA\t1.00\tP\t1\t1\t1\tWS\t0\t\t\t\t" + sentBy[k].last().toLatin1());
        };
        for (int k = 0; k < count; ++k) {
            clients.push_back(connectClient());
            if (!clients[k])
                return {};
            request(k);
        }
        const int all = std::min(count * each, stopAt);
        (void)QTest::qWaitFor([&] {
            for (int k = 0; k < count; ++k) {
                buffers[k].read(*clients[k]);
                if (!whole(buffers[k].bytes) && !buffers[k].stalled())
                    continue;
                replies << std::exchange(buffers[k], {}).bytes;
                ++answeredBy[k];
                if (sentBy[k].size() < each && replies.size() < all)
                    request(k);
            }
            return replies.size() >= all;
        }, 60000);
        return replies;
    }

    // `quillbase --headless` on the installation, once its whole start-up is done.
    std::unique_ptr<HeadlessServer> startHeadless()
    {
        auto headless = std::make_unique<HeadlessServer>(*inst);
        return headless->start() ? std::move(headless) : nullptr;
    }

    // Ids in tbJob, and whether the job list shows exactly those.
    QString storedIds()
    {
        const QStringList onDisk = dbtest::QueryRows(inst->file("brixa.mdb"), "SELECT Id FROM tbJob ORDER BY Id");
        QStringList listed;
        const JobListModel& list = server->jobs().jobList();
        for (int r = 0; r < list.count(); ++r)
            listed << QString::number(list.rowAt(r).id);
        return listed == onDisk ? onDisk.join(' ') : "tbJob " + onDisk.join(' ') + " but listed " + listed.join(' ');
    }


private slots:
    void initTestCase()
    {
        QUILL_SKIP_WITHOUT_ENGINE();
        SetTrafficWindowForTesting(500);
        QVERIFY2(slowPrinter.startTcp(), qPrintable(slowPrinter.errorText()));
        QCOMPARE(slowPrinter.command("delay 9000"), QStringLiteral("ok"));
    }
    void init()
    {
        // The listener's, the filters' and the folder's rules are the same whichever engine stores the jobs.
        const QByteArray test = QTest::currentTestFunction();
        static const QByteArrayList onEitherEngine = QByteArrayList{"replyCodes", "configure", "replyWaitsForItsOwnCommit"} + FaultTests.mid(0, 5);
        if (dbtest::OnPostgres() && !onEitherEngine.contains(test))
            QSKIP("the listener's rules: run on SQLite");
        if (FaultTests.contains(test)) {
            install();
            return;
        }
        // One server for the rows that leave it as they found it.
        if (!server)
            startServer();
        else
            server->jobs().deleteJobsWhere([](const QueuedJob&) { return true; });
        QTRY_COMPARE_WITH_TIMEOUT(server->listener().connectionCount(), 0, 5000);
    }
    void cleanup()
    {
        clients.clear();
        if (!FaultTests.contains(QTest::currentTestFunction()))
            return;
        server.reset();
        while (!mounts.isEmpty())
            test::Unmount(mounts.takeLast());
        inst.reset();
    }
    void replyCodes_data();
    void replyCodes();
    void configure_data();
    void configure();
    void connectionLimit();
    void oddClients_data();
    void oddClients();
    void filter_data();
    void filter();
    void refusalLoggedOncePerMinute();
    void allowList();
    void bindAddress();
    void senderMatches_data();
    void senderMatches();
    void replyWaitsForItsOwnCommit();
    void serverReadsSettings(); // its server refuses 127.0.0.1
    void addinFraming(); // its server frames add-in records
    void killKeepsEveryAnsweredJobInOrder();
    void killDuringAMoveLosesAndDoublesNothing();
    void faultAnswers1005_data();
    void faultAnswers1005();
    void lostConnectionsOpenedAgain();
    void secondCopyChangesNothing_data();
    void secondCopyChangesNothing();
    void outOfDescriptorsControlAnswers();
    void unwritableFolder();
};

void TestRequests::replyCodes_data()
{
    QTest::addColumn<QString>("printer1"); // printer 1's state, or "service stopped"
    QTest::addColumn<QByteArray>("request");
    QTest::addColumn<int>("code"); // -1: no reply
    QTest::addColumn<bool>("stored");
    const QByteArray configure = "BRIXA\t1.00\tC\t\t\t\t\t\t\t\t";
    QTest::newRow("ok") << "" << print("1", "1", "0", "3", "KASSA1", "Anna", "Tävling") << 0 << true;
    QTest::newRow("marker in lower case") << "" << QByteArray("brixa\t1.00\tP\t1\t1\t1\tWS") << 0 << true;
    QTest::newRow("version differs") << "" << QByteArray("BRIXA\t1.0\tP\t1\t1") << 9002 << false;
    QTest::newRow("printer slot free") << "" << print("3", "1") << 1002 << false;
    QTest::newRow("passive before template") << "" << print("2", "99") << 1003 << false;
    QTest::newRow("template not in table") << "" << print("1", "99") << 1004 << false;
    QTest::newRow("mode 2 without layout file") << "" << print("1", "3", "2") << 1004 << false;
    QTest::newRow("mode 1 without layout file") << "" << print("1", "3", "1") << 1004 << false;
    QTest::newRow("mode 7 as mode 0") << "" << print("1", "3", "7") << 0 << true;
    QTest::newRow("configure unknown") << "" << configure + "9" << 2001 << false;
    QTest::newRow("configure 2") << "" << configure + "2" << 0 << false;
    QTest::newRow("not the protocol") << "" << QByteArray("HELLO\t1.00\tP") << -1 << false;
    // The rows below change the server: the next row gets a new one.
    QTest::newRow("service stopped: before the printer") << "service stopped" << print("6", "1") << 1001 << false;
    QTest::newRow("printer in error") << "error" << print("1", "1") << 1102 << true;
    QTest::newRow("printer checked after an error") << "checking" << print("1", "1") << 1101 << true;
}

void TestRequests::replyCodes()
{
    QFETCH(QString, printer1);
    QFETCH(QByteArray, request);
    QFETCH(int, code);
    QFETCH(bool, stored);
    if (printer1 == "service stopped")
        server->stopService();
    else if (!printer1.isEmpty()) // the reply shows the error, also while the printer is checked again
        server->printers().SrvSetPrinterStatus(1, StatusError, "Slut på papper");
    if (printer1 == "checking")
        server->printers().SrvSetPrinterStatus(1, StatusChecking, "Kontrollerar");
    const QString traffic = " Network traffic\r\n" + FromCp1252(request);
    const qsizetype logged = inst->log().count(traffic);
    auto c = connectClient();
    QVERIFY(c);
    QSignalSpy indicator(&server->traffic(), &TrafficIndicator::changed);
    const QByteArray want = expected(code, "Slut på papper");
    QCOMPARE(exchange(*c, request, want), want);
    // The indicator shows a job received for a stored one only.
    bool receiving = false;
    for (const QList<QVariant>& change : indicator)
        receiving |= change[0].value<TrafficIndicator::State>() == TrafficIndicator::ReceivingJob;
    QCOMPARE(receiving, stored);
    // Committed, exactly as received, and queued by the time the reply arrives.
    QCOMPARE(dbtest::JobRows(inst->file("brixa.mdb")),
             stored ? QStringList{"1|1|" + FromCp1252(request)} : QStringList());
    QCOMPARE(server->jobs().jobList().count(), stored ? 1 : 0);
    // Logged as traffic; the connection serves the next request, and a late reply
    // to this one would show before that one's reply.
    TRY_COMPARE_OPEN(*c, inst->log().count(traffic), logged + 1, 5000);
    QCOMPARE(exchange(*c, "BRIXA\t1.00\tX", expected(9003)), expected(9003));
    if (!printer1.isEmpty())
        server.reset();
}

void TestRequests::configure_data()
{
    QTest::addColumn<QString>("templ");
    QTest::addColumn<QString>("operation");
    QTest::addColumn<QString>("templates"); // printers 1, 2 and 4's current template, afterwards
    QTest::addColumn<QString>("left");      // of the jobs 1 KASSA1/Anna, 2 KASSA1/Bo, 3 Kassa2/anna, 4 KASSA2/-
    const QString unchanged = "7 8 7";
    QTest::newRow("template cleared where current") << "7" << "1" << "0 8 0" << "1 2 3 4";
    QTest::newRow("empty user withdraws nothing") << "" << "3\tKASSA2\t" << unchanged << "1 2 3 4";
    QTest::newRow("one workstation, any user") << "" << "3\t kassa1 \t*" << unchanged << "3 4";
}

void TestRequests::configure()
{
    QFETCH(QString, templ);
    QFETCH(QString, operation);
    QFETCH(QString, templates);
    QFETCH(QString, left);
    auto c = connectClient();
    QVERIFY(c);
    for (const auto& [ws, u] : QList<QPair<QString, QString>>{{"KASSA1", "Anna"}, {"KASSA1", "Bo"},
                                                                {"Kassa2", "anna"}, {"KASSA2", ""}})
        QCOMPARE(exchange(*c, print("1", "1", "0", "1", ws, u), expected(0)), expected(0));
    QVERIFY(inst->sql("UPDATE tbPrinter SET CurrentTemplateId = CASE Id WHEN 2 THEN 8 ELSE 7 END"));
    const QByteArray request = ToCp1252(QStringLiteral("BRIXA\t1.00\tC\t\t%1\t\t\t\t\t\t%2").arg(templ, operation));
    QCOMPARE(exchange(*c, request, expected(0)), expected(0));
    const QString mdb = inst->file("brixa.mdb");
    QCOMPARE(dbtest::QueryRows(mdb, "SELECT CurrentTemplateId FROM tbPrinter ORDER BY Id").join(' '), templates);
    QCOMPARE(storedIds(), left);
}

void TestRequests::connectionLimit()
{
    // Without an allow-list the start warned, once.
    QCOMPARE(inst->log().count("Warning: tAllowedClients is not set, so any address that reaches the listener "
                               "may connect."),
             1);
    std::vector<std::unique_ptr<QTcpSocket>> clients;
    for (int i = 0; i < Listener::MaxConnections; ++i) {
        clients.push_back(connectClient());
        QVERIFY(clients.back());
    }
    TRY_COMPARE_OPEN(*clients.back(), server->listener().connectionCount(), 32, 5000);
    // The 33rd is closed at once, without a reply.
    auto extra = connectClient();
    QVERIFY(extra);
    extra->write(print("1", "1"));
    QTRY_VERIFY_WITH_TIMEOUT(extra->state() == QAbstractSocket::UnconnectedState, 5000);
    QCOMPARE(extra->readAll(), QByteArray());
    // Every one of the 32 is served.
    for (auto& c : clients)
        c->write(print("1", "1"));
    for (auto& c : clients)
        QCOMPARE(awaitReply(*c, expected(0)), expected(0));
    // One leaves; the next client gets its entry.
    clients[4]->disconnectFromHost();
    QTRY_COMPARE_WITH_TIMEOUT(server->listener().FindFreeConnection(), 5, 5000);
    auto next = connectClient();
    QVERIFY(next);
    QCOMPARE(exchange(*next, print("1", "1"), expected(0)), expected(0));
}

void TestRequests::oddClients_data()
{
    QTest::addColumn<QString>("client");
    QTest::newRow("stops sending after its request") << "half-close";
    QTest::newRow("sends a 4 MB junk stream") << "junk";
}

void TestRequests::oddClients()
{
    QFETCH(QString, client);
    if (client == "half-close") {
        // Its reply waits for the commit, by which time the server has seen it stop sending.
        for (int round = 0; round < 3; ++round) {
            auto c = connectClient();
            QVERIFY(c);
            c->write(print("1", "1"));
            QVERIFY(c->waitForBytesWritten(5000));
            QCOMPARE(::shutdown(int(c->socketDescriptor()), SHUT_WR), 0);
            QCOMPARE(awaitReply(*c, expected(0)), expected(0));
        }
        QCOMPARE(storedIds(), "1 2 3");
    } else {
        auto c = connectClient();
        QVERIFY(c);
        const QByteArray junk(1 << 20, '~');
        for (int i = 0; i < 4; ++i)
            c->write(junk);
        QVERIFY(QTest::qWaitFor([&] { return c->bytesToWrite() == 0; }, 60000));
        // However it arrives, each window of the connection logs at most the
        // budget, and its note counts the rest: together every byte.
        const QRegularExpression noteText("\\[connection 1: (\\d+) bytes in \\d+ arrivals left out of the traffic log");
        qint64 logged = 0, notes = 0;
        auto accounted = [&] {
            const QString log = inst->log();
            logged = log.count('~');
            notes = 0;
            qint64 leftOut = 0;
            for (auto m = noteText.globalMatch(log); m.hasNext(); ++notes)
                leftOut += m.next().captured(1).toLongLong();
            return logged + leftOut;
        };
        TRY_COMPARE_OPEN(*c, accounted(), qint64(4) << 20, 30000);
        QVERIFY2(notes >= 1 && logged <= (notes + 1) * TrafficLog::Budget,
                 qPrintable(QStringLiteral("%1 bytes logged, %2 notes").arg(logged).arg(notes)));
        // The connection still serves.
        QCOMPARE(exchange(*c, print("1", "1"), expected(0)), expected(0));
    }
}

void TestRequests::filter_data()
{
    QTest::addColumn<QString>("list");
    QTest::addColumn<QString>("peer");
    QTest::addColumn<bool>("allowed");
    QTest::addColumn<QStringList>("invalid");
    QTest::newRow("empty lets everyone in") << "" << "192.0.2.7" << true << QStringList();
    QTest::newRow("blanks only") << "  , ," << "192.0.2.7" << true << QStringList();
    QTest::newRow("single address, other peer") << "127.0.0.1" << "127.0.0.2" << false << QStringList();
    QTest::newRow("next network") << "192.168.10.0/24" << "192.168.11.1" << false << QStringList();
    QTest::newRow("host bits in network") << "192.168.10.77/24" << "192.168.10.1" << true << QStringList();
    QTest::newRow("v4-mapped peer") << "127.0.0.0/8" << "::ffff:127.0.0.9" << true << QStringList();
    QTest::newRow("v6 list, v4 peer") << "::1" << "127.0.0.1" << false << QStringList();
    QTest::newRow("bad entry skipped") << "frontdesk, 127.0.0.1" << "127.0.0.1" << true << QStringList{"frontdesk"};
    QTest::newRow("prefix too long") << "10.0.0.0/33, 127.0.0.1" << "10.0.0.1" << false << QStringList{"10.0.0.0/33"};
    // A list whose every entry is wrong lets nobody in rather than everybody.
    QTest::newRow("only bad entries") << "10.0.0.300" << "10.0.0.3" << false << QStringList{"10.0.0.300"};
}
void TestRequests::filter()
{
    QFETCH(QString, list);
    QFETCH(QString, peer);
    QFETCH(bool, allowed);
    QFETCH(QStringList, invalid);
    ClientFilter f;
    QStringList bad;
    f.setAllowed(list, &bad);
    QCOMPARE(f.allows(QHostAddress(peer)), allowed);
    QCOMPARE(bad, invalid);
}

void TestRequests::refusalLoggedOncePerMinute()
{
    ClientFilter f;
    const QDateTime t0 = QDateTime::currentDateTimeUtc();
    QVERIFY(f.shouldLogRefusal(Lo2, t0));
    QVERIFY(!f.shouldLogRefusal(Lo2, t0.addSecs(59)));
    QVERIFY(!f.shouldLogRefusal(QHostAddress("::ffff:127.0.0.2"), t0.addSecs(30)));
    QVERIFY(f.shouldLogRefusal(QHostAddress("127.0.0.3"), t0.addSecs(30)));
    QVERIFY(f.shouldLogRefusal(Lo2, t0.addSecs(60)));
}

// Allowed .2, refused .1: a refused client is closed at once and holds no
// connection entry, even when the table is otherwise full.
void TestRequests::allowList()
{
    const QHostAddress allowed = Lo2, refused = Lo1;
    Listener l;
    QVERIFY(l.setAllowedClients("127.0.0.2/32, 10.0.0.0/8").isEmpty());
    QVERIFY(l.setBindAddress("127.0.0.1"));
    QVERIFY(l.MainInitTCP(0));
    const quint16 port = l.localPort();

    std::vector<std::unique_ptr<QTcpSocket>> in;
    for (int i = 0; i < Listener::MaxConnections - 1; ++i) {
        in.push_back(connectFrom(allowed, Lo1, port));
        QVERIFY(in.back());
    }
    QTRY_COMPARE_WITH_TIMEOUT(l.connectionCount(), Listener::MaxConnections - 1, 10000);
    for (int attempt = 0; attempt < 3; ++attempt) {
        auto out = connectFrom(refused, Lo1, port);
        QVERIFY(out); // the kernel accepts; the server closes it
        QTRY_VERIFY_WITH_TIMEOUT(out->state() == QAbstractSocket::UnconnectedState, 5000);
        QCOMPARE(l.connectionCount(), Listener::MaxConnections - 1);
    }
    // The last free entry still goes to an allowed client.
    in.push_back(connectFrom(allowed, Lo1, port));
    QVERIFY(in.back());
    QTRY_COMPARE_WITH_TIMEOUT(l.connectionCount(), Listener::MaxConnections, 5000);
}

void TestRequests::bindAddress()
{
    Listener l;
    QVERIFY(l.setBindAddress(" 127.0.0.2 "));
    QVERIFY(l.MainInitTCP(0));
    QCOMPARE(l.localAddress(), Lo2);
    QCOMPARE(l.reachableAddress(), Lo2);

    // A bind address that does not parse opens no listener at all.
    QVERIFY(!l.setBindAddress("frontdesk.local"));
    QVERIFY(!l.MainInitTCP(0));
    QVERIFY(!l.isListening());
    QVERIFY(l.errorText().contains("Invalid bind address"));
    QVERIFY(l.setBindAddress(""));
    QVERIFY(l.MainInitTCP(0));
    QCOMPARE(l.localAddress(), QHostAddress(QHostAddress::Any));
}

// The per-machine settings reach the server's listener: a refused client gets
// no reply and a log line.
void TestRequests::serverReadsSettings()
{
    startServer(false, "tBindAddress=127.0.0.1\ntAllowedClients=127.0.0.2, nonsense\n");
    QCOMPARE(server->listener().localAddress(), Lo1);
    auto refused = connectFrom(Lo1, Lo1, port);
    QVERIFY(refused);
    refused->write("BRIXA\t1.00\tX");
    QTRY_VERIFY_WITH_TIMEOUT(refused->state() == QAbstractSocket::UnconnectedState, 5000);
    QCOMPARE(refused->readAll(), QByteArray());
    auto allowed = connectFrom(Lo2, Lo1, port);
    QVERIFY(allowed);
    QCOMPARE(exchange(*allowed, "BRIXA\t1.00\tX", expected(9003)), expected(9003));
    QVERIFY(inst->log().contains("Connection from 127.0.0.1 refused: not in tAllowedClients."));
    QVERIFY(inst->log().contains("tAllowedClients: ignored \"nonsense\""));
    server.reset();
}

// Which queued jobs a withdraw takes: a job's workstation and user against
// the request's, as plain fields or as the parts of the tag "workstation|user".
void TestRequests::senderMatches_data()
{
    QTest::addColumn<QString>("ws");   // the job's workstation field
    QTest::addColumn<QString>("user"); // the job's user field
    QTest::addColumn<QString>("w");    // the request's, upper case or "*"
    QTest::addColumn<QString>("u");
    QTest::addColumn<bool>("taken");
    QTest::newRow("blanks and case") << " kassa1 " << " anna " << "KASSA1" << "ANNA" << true;
    QTest::newRow("other workstation") << "KASSA1" << "Anna" << "KASSA2" << "*" << false;
    QTest::newRow("any of both") << "" << "" << "*" << "*" << true;
    QTest::newRow("blank workstation, named") << "  " << "Anna" << "KASSA1" << "*" << false;
    QTest::newRow("tag in the workstation") << "K1|Bo" << "x" << "K1" << "BO" << true;
    QTest::newRow("tag in the user") << "K1" << "Bo|x" << "K1" << "BO" << true;
    QTest::newRow("tag, user beyond it") << "K1|Bo" << "x" << "K1" << "X" << false;
    QTest::newRow("letters beyond ASCII") << "Kassa å" << "Åsa" << "KASSA Å" << "ÅSA" << true;
    QTest::newRow("ASCII job, request beyond") << "KASSA1" << "asa" << "KASSA1" << "ÅSA" << false;
    QTest::newRow("last letter of the alphabet") << "kassaz" << "Anna" << "KASSAZ" << "ANNA" << true;
    QTest::newRow("line end trimmed") << "KASSA1" << "anna\r" << "KASSA1" << "ANNA" << true;
    QTest::newRow("no-break space trimmed") << "KASSA1" << "anna\u00a0" << "KASSA1" << "ANNA" << true;
    QTest::newRow("request not trimmed") << "KASSA1" << "Anna" << "KASSA1" << " ANNA" << false;
}
void TestRequests::senderMatches()
{
    QFETCH(QString, ws);
    QFETCH(QString, user);
    QFETCH(QString, w);
    QFETCH(QString, u);
    QueuedJob job;
    job.text = quill::dbtest::JobText(1, 1, "1", ws, user, "caption").toUtf8();
    QTEST(SenderFilter(w, u).matches(job), "taken");
}

// Add-in framing on: records are stored without a reply, and a connection that
// floods the buffered path is closed while the others carry on.
void TestRequests::addinFraming()
{
    startServer(true);
    auto c = connectClient();
    auto bad = connectClient();
    QVERIFY(c && bad);
    // Two records in one arrival, stored whatever the printer (9 is none); no reply for either.
    const QByteArray rec1 = "{STARTBRIXA;1.00;P;1;1;2;KASSA1;0;;;Anna;Tee 1}\r\n{ENDBRIXA}\n";
    const QByteArray rec2 = "{STARTBRIXA;1.00;P;9;1;1;KASSA2;0;;;;Tee 2}\r\n{ENDBRIXA}\n";
    c->write(rec1 + rec2);
    TRY_COMPARE_OPEN(*c, jobCount(), 2, 5000);
    QCOMPARE(inst->scalar("SELECT Job FROM tbJob WHERE Id = 1").toString(),
             QStringLiteral("BRIXA\t1.00\tP\t1\t1\t2\tKASSA1\t0\t\t\tAnna\tTee 1 \t\t\r\n"));

    // A record cut after its start marker waits for the rest.
    c->write("{STARTBRIXA;1.00;P;1;1;1;KA");
    QTest::qWait(200);
    QCOMPARE(jobCount(), 2);
    // ... and for the line end after its end marker.
    c->write("SSA3;0;;;Bo;Cap;x;y;z}\r\n{ENDBRIXA}");
    QTest::qWait(200);
    QCOMPARE(jobCount(), 2);
    // More than 12 fields: the rest stay joined to field 13.
    c->write("\n");
    TRY_COMPARE_OPEN(*c, jobCount(), 3, 5000);
    QCOMPARE(inst->scalar("SELECT Job FROM tbJob WHERE Id = 3").toString(),
             QStringLiteral("BRIXA\t1.00\tP\t1\t1\t1\tKASSA3\t0\t\t\tBo\tCap\tx;y;z \t\t\r\n"));
    // Text without a marker does not fill the buffer: a record after more than
    // the bound's worth of it is still stored (the pause lets the text arrive on its own).
    c->write(QByteArray(Listener::MaxBuffer + 1000, 'y'));
    QTest::qWait(500);
    c->write(rec1);
    TRY_COMPARE_OPEN(*c, jobCount(), 4, 10000);
    QTest::qWait(100);
    QCOMPARE(c->bytesAvailable(), 0);

    bad->write(QByteArray(40000, 'x') + "\tBRIXA");          // separator past position 32767
    bad->write("{STARTBRIXA;" + QByteArray(3 << 20, 'a'));   // start marker, no end, past the buffer bound
    QTRY_VERIFY_WITH_TIMEOUT(bad->state() == QAbstractSocket::UnconnectedState, 20000);
    QVERIFY(inst->log().contains("add-in buffer"));
    // A standard request on an add-in connection is still answered.
    QCOMPARE(exchange(*c, print("1", "1"), expected(0)), expected(0));
}

// 32 clients, each sending its next request once the last is answered, and
// the server killed mid-flight after 240 answers. The next start runs the
// maintenance over the crashed files; then each client's jobs are there, the
// answered ones at least, in the order sent.
void TestRequests::killKeepsEveryAnsweredJobInOrder()
{
    auto headless = startHeadless();
    QVERIFY(headless);
    const QList<QByteArray> replies = send(32, 15, 240);
    headless->process.kill(); // SIGKILL: no shutdown, the -wal holds the jobs
    QVERIFY(headless->process.waitForFinished(10000));
    QVERIFY(replies.size() >= 240);
    for (const QByteArray& reply : replies)
        QVERIFY2(reply.startsWith(expected(0)), reply.constData());
    headless = startHeadless();
    QVERIFY(headless);
    QVERIFY(!inst->log().contains("Warning SrvOpenDatabases"));
    std::vector<QStringList> stored(32);
    for (const QString& row : dbtest::JobRows(inst->file("brixa.mdb"))) {
        const QString caption = row.section('\t', 11);
        stored[caption.section(' ', 1).section('-', 0, 0).toInt()] << caption;
    }
    for (int k = 0; k < 32; ++k) {
        QVERIFY2(stored[k].size() >= answeredBy[k], qPrintable(stored[k].join(", ")));
        QCOMPARE(stored[k], sentBy[k].mid(0, stored[k].size()));
    }
}

// A move of a long queue to another printer is one transaction: a SIGKILL at
// any moment of it leaves every job once, all on the one printer or all on
// the other, its text naming the printer its row names.
void TestRequests::killDuringAMoveLosesAndDoublesNothing()
{
    constexpr int Jobs = 20000;
    // Printers that never answer: none of the jobs is printed meanwhile.
    QVERIFY(inst->addNetworkPrinter(3, "Skrivare 3", 9) && inst->addNetworkPrinter(5, "Skrivare 5", 9));
    QVERIFY(inst->sql(QStringLiteral("INSERT INTO tbJob (Id, PrinterId, Job) WITH RECURSIVE n(i) AS (SELECT 1 UNION "
                                     "ALL SELECT i + 1 FROM n WHERE i < %1) SELECT i, 3, ? || i FROM n")
                          .arg(Jobs),
                      {QStringLiteral("BRIXA\t1.00\tP\t3\t1\t1\tWS\t0\t\t\t\tjob ")}));
    // Where the jobs are: the printer all of them are on, or a description of
    // what is wrong.
    const auto holder = [&]() -> QString {
        QSet<int> ids, printers;
        for (const QString& row : dbtest::JobRows(inst->file("brixa.mdb"))) {
            const int printer = row.section('|', 1, 1).toInt();
            if (quill::JobFields(row.section('|', 2)).printerId() != printer)
                return QStringLiteral("text and row disagree: ") + row;
            ids.insert(row.section('|', 0, 0).toInt());
            printers.insert(printer);
        }
        if (ids.size() != Jobs)
            return QStringLiteral("%1 jobs").arg(ids.size());
        return printers.size() == 1 ? QString::number(*printers.begin()) : QStringLiteral("split");
    };
    const auto move = [&](const QString& from) {
        auto ctl = std::make_unique<QProcess>();
        ctl->start(QUILL_BIN_DIR "/quillbase-ctl",
                   {"--home", inst->path(), "move", "--from", from, "--to", from == "3" ? "5" : "3"});
        return ctl;
    };
    // One move that is let be, timed from its "Moving" line to its end; then
    // two killed a third and two thirds of that time after the line, so the
    // kills fall early and late in the move.
    auto headless = startHeadless();
    QVERIFY(headless);
    qint64 span = 0;
    for (int round = 1; round <= 3; ++round) {
        const QString from = holder();
        auto ctl = move(from);
        QVERIFY(QTest::qWaitFor([&] { return inst->log().count(QStringLiteral("Moving %1 jobs").arg(Jobs)) == round; },
                                30000));
        QElapsedTimer sinceLine;
        sinceLine.start();
        if (round == 1) {
            QVERIFY(ctl->waitForFinished(120000));
            span = sinceLine.elapsed();
            QCOMPARE(ctl->exitCode(), 0);
            QCOMPARE(holder(), from == "3" ? QStringLiteral("5") : QStringLiteral("3"));
            continue;
        }
        QTest::qWait(int(span * (round - 1) / 3));
        headless->process.kill();
        QVERIFY(headless->process.waitForFinished(10000));
        // A move faster than the first may have ended during the wait: its
        // end was taken in by then, and waitForFinished would say false.
        QVERIFY(ctl->state() == QProcess::NotRunning || ctl->waitForFinished(120000));
        // Read once the next server runs: on PostgreSQL the killed server's
        // session has ended by then, its statement committed or rolled back.
        headless = startHeadless();
        QVERIFY(headless);
        const QString after = holder();
        QVERIFY2(after == "3" || after == "5", qPrintable(after));
    }
}

void TestRequests::faultAnswers1005_data()
{
    QTest::addColumn<QString>("fault");
    if (dbtest::OnPostgres()) {
        QTest::newRow("database made read-only") << "read-only database";
        return;
    }
    QTest::newRow("brixa.mdb read-only") << "read-only";
    QTest::newRow("installation disk full") << "disk full";
}

void TestRequests::faultAnswers1005()
{
    QFETCH(QString, fault);
    const QString mdb = inst->file("brixa.mdb");
    QString why;
    if (fault == "disk full") {
        if (!test::MountTmpfsOver(inst->path(), 8192, &why))
            QSKIP(qPrintable("no tmpfs for the installation: " + why));
        mounts << inst->path();
    }
    // A file that cannot be written when the server opens it: the start goes on
    // with it as it is.
    if (fault == "read-only") {
        if (!test::BindReadOnly(mdb, &why))
            QSKIP(qPrintable("cannot make brixa.mdb read-only: " + why));
        mounts << mdb;
    }
    server = std::make_unique<Server>(Server::Options{});
    QCOMPARE(server->startup(), Server::Started);
    QVERIFY(server->serviceRunning());

    const int before = fault == "read-only" ? 0 : 2;
    if (before > 0)
        QCOMPARE(send(1, before), QList<QByteArray>(before, expected(0)));
    const QString storedBefore = storedIds();
    QCOMPARE(storedBefore.split(' ', Qt::SkipEmptyParts).size(), before);

    // A failed check must not leave the cluster read-only for the tests after it.
    auto writable = qScopeGuard([&] {
        if (fault == "read-only database")
            setClusterReadOnly(*inst, false);
    });
    if (fault == "read-only database") {
        QVERIFY(setClusterReadOnly(*inst, true));
    } else if (fault == "disk full") {
        QVERIFY(test::FillUp(inst->file("filler")) > 0);
    }
    QCOMPARE(send(2, 2), QList<QByteArray>(4, expected(1005)));
    QCOMPARE(storedIds(), storedBefore);
    QVERIFY(inst->log().contains("SrvAddJob failed."));

    // Gone again: the next requests are stored as usual.
    if (fault == "read-only database") {
        writable.dismiss();
        QVERIFY(setClusterReadOnly(*inst, false));
    } else if (fault == "disk full") {
        QVERIFY(QFile::remove(inst->file("filler")));
    } else {
        QVERIFY(test::Unmount(mounts.takeLast()));
    }
    QCOMPARE(send(2, 2), QList<QByteArray>(4, expected(0)));
    QCOMPARE(storedIds().split(' ', Qt::SkipEmptyParts).size(), before + 4);
}

// Another connection holds the write lock. A request that arrives while
// another's commit waits for the lock is stored in the next transaction: it is
// not answered with the first one's outcome. Both wait the lock out.
void TestRequests::replyWaitsForItsOwnCommit()
{
    Database holder;
    dbtest::HoldWriteLock(holder, inst->file("brixa.mdb"));
    auto a = connectClient();
    auto b = connectClient();
    QVERIFY(a && b);
    a->write(print("1", "1"));
    QTest::qWait(300); // a's transaction is waiting for the lock by now
    b->write(print("1", "1"));
    QCOMPARE(awaitReply(*a, expected(1005)), expected(1005));
    QCOMPARE(awaitReply(*b, expected(1005)), expected(1005));
    holder.rollback();
}

// The database server ends the server's connections, as its restart would: the
// batch that finds its connection gone is answered 1005 (whether its insert was
// made cannot be known, so it is not made again), the next one is stored, and
// the next lookup opens the main connection again, with the lock of one server
// per database.
void TestRequests::lostConnectionsOpenedAgain()
{
    if (!dbtest::OnPostgres())
        QSKIP("only a database server has connections to lose");
    server = std::make_unique<Server>(Server::Options{});
    QCOMPARE(server->startup(), Server::Started);
    QCOMPARE(send(1, 2), QList<QByteArray>(2, expected(0)));
    QCOMPARE(inst->scalar("SELECT count(pg_terminate_backend(pid)) FROM pg_stat_activity "
                          "WHERE application_name = 'quillbase' AND datname = current_database()")
                 .toInt(),
             2);
    QCOMPARE(send(1, 1), QList<QByteArray>{expected(1005)});
    QCOMPARE(send(2, 2), QList<QByteArray>(4, expected(0)));
    QCOMPARE(storedIds(), "1 2 3 4 5 6");
    // A template nobody has: the miss reads the templates again on the main connection.
    auto client = connectClient();
    QVERIFY(client);
    QCOMPARE(exchange(*client, print("1", "99"), expected(1004)), expected(1004));
    QVERIFY(inst->log().contains("was lost and has been opened again"));
    QCOMPARE(inst->scalar("SELECT count(*) FROM pg_locks WHERE locktype = 'advisory' AND granted").toInt(), 1);
}

void TestRequests::secondCopyChangesNothing_data()
{
    QTest::addColumn<QString>("option");
    QTest::addColumn<int>("exitCode");
    QTest::addColumn<QString>("message"); // on its stderr
    QTest::addColumn<bool>("ownFolder");  // the second copy in a folder of its own, with the same brixa.mda
    QTest::newRow("second server") << "--headless" << 0 << "är redan startad!" << false;
    if (!dbtest::OnPostgres()) {
        QTest::newRow("init over an installation") << "--init" << 1 << "<home>/brixa.mdb already exists" << false;
        return;
    }
    QTest::newRow("init over an installation") << "--init" << 1 << "already has the server's tables" << false;
    QTest::newRow("second server on the same database") << "--headless" << 1
                                                        << "another Quillbase server is using it." << true;
}

// The running server's files, log and process are as they were; the second copy
// tells why on its stderr only.
void TestRequests::secondCopyChangesNothing()
{
    QFETCH(QString, option);
    QFETCH(int, exitCode);
    QFETCH(QString, message);
    QFETCH(bool, ownFolder);
    QVERIFY(inst->sql("INSERT INTO tbJob (Id, PrinterId, Job) VALUES (1, 1, 'kept')"));
    QTemporaryDir other;
    QVERIFY(!ownFolder || QFile::copy(inst->file("brixa.mda"), other.filePath("brixa.mda")));
    auto first = startHeadless();
    QVERIFY(first);
    const QString mdb = inst->file("brixa.mdb");
    const QByteArray before = dbtest::ReadFile(mdb);
    const int linesBefore = inst->log().count("\r\n");
    QProcess second;
    second.start(QUILL_BIN_DIR "/quillbase", {option, "--home", ownFolder ? other.path() : inst->path()});
    QVERIFY(second.waitForFinished(20000));
    QCOMPARE(second.exitStatus(), QProcess::NormalExit);
    QCOMPARE(second.exitCode(), exitCode);
    const QString err = QString::fromUtf8(second.readAllStandardError());
    QVERIFY2(err.contains(message.replace("<home>", inst->path())), qPrintable(err));
    QCOMPARE(first->process.state(), QProcess::Running);
    QCOMPARE(inst->log().count("\r\n"), linesBefore);
    QCOMPARE(dbtest::ReadFile(mdb), before);
}

// The server's descriptor limit lowered to just above what it has open, then
// more clients than that: the listener cannot accept, the control socket still
// answers (twice: its reserve comes back), the shortage is logged once, and
// clients are taken again once descriptors are free.
void TestRequests::outOfDescriptorsControlAnswers()
{
    auto headless = startHeadless();
    QVERIFY(headless);
    const qint64 pid = headless->process.processId();
    const auto fds = [&] {
        return QDir(QStringLiteral("/proc/%1/fd").arg(pid)).entryList(QDir::AllEntries | QDir::System | QDir::NoDotAndDotDot);
    };
    // New descriptors take the lowest free numbers: the limit is set a few above it.
    QSet<int> open;
    for (const QString& fd : fds())
        open.insert(fd.toInt());
    int lowestFree = 0;
    while (open.contains(lowestFree))
        ++lowestFree;
    const rlimit limit{rlim_t(lowestFree + 4), rlim_t(lowestFree + 4)};
    QCOMPARE(::prlimit(pid_t(pid), RLIMIT_NOFILE, &limit, nullptr), 0);

    const qsizetype before = fds().size();
    std::vector<std::unique_ptr<QTcpSocket>> clients;
    for (int i = 0; i < 12; ++i) {
        clients.push_back(connectClient());
        QVERIFY(clients.back());
        // The first is taken alone, so the listener has found its backlog
        // empty once before it runs out, as it always has on a live server.
        if (i == 0)
            TRY_COMPARE_OPEN(*clients[0], fds().size() > before, true, 10000);
    }
    const QString note = "Out of file descriptors: the listener cannot accept";
    TRY_COMPARE_OPEN(*clients[0], inst->log().contains(note), true, 10000);
    for (int round = 0; round < 2; ++round) {
        QLocalSocket control;
        control.connectToServer(inst->file("quillbase.sock"));
        QVERIFY(control.waitForConnected(5000));
        control.write("{\"command\": \"status\"}\n");
        QVERIFY(QTest::qWaitFor([&] { return control.canReadLine() || (control.waitForReadyRead(100) && control.canReadLine()); }, 10000));
        const QJsonObject reply = QJsonDocument::fromJson(control.readLine()).object();
        QVERIFY2(reply.value("ok").toBool() && reply.contains("listener"), qPrintable(QJsonDocument(reply).toJson()));
        control.disconnectFromServer();
        QTest::qWait(300);
    }
    // The listener has tried again every quarter second meanwhile.
    QCOMPARE(inst->log().count("Out of file descriptors"), 1);

    clients.clear();
    auto late = connectClient();
    QVERIFY(late);
    QCOMPARE(exchange(*late, "BRIXA\t1.00\tX", expected(9003)), expected(9003));
}

// A read-only installation folder: not "already started" and exit 0, but the
// folder and the reason, and a failure exit.
void TestRequests::unwritableFolder()
{
    QString why;
    if (!test::BindReadOnly(inst->path(), &why))
        QSKIP(qPrintable("cannot make the installation folder read-only: " + why));
    QProcess server;
    server.start(QUILL_BIN_DIR "/quillbase", {"--headless", "--home", inst->path()});
    const bool finished = server.waitForFinished(20000);
    const bool lockLeft = QFile::exists(inst->file("quillbase.lock"));
    test::Unmount(inst->path());
    QVERIFY(finished);
    QCOMPARE(server.exitStatus(), QProcess::NormalExit);
    QCOMPARE(server.exitCode(), 1);
    const QString err = QString::fromUtf8(server.readAllStandardError());
    QVERIFY2(err.contains("Installationsmappen " + inst->path() + " kan inte skrivas: Read-only file system"),
             qPrintable(err));
    QVERIFY(!lockLeft);
}

QTEST_GUILESS_MAIN(TestRequests)
#include "tst_requests.moc"
