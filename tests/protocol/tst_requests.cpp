// The request protocol over real loopback sockets against an in-process server
// on a temporary installation: exact reply bytes, job storage, the configure
// operations, the add-in framing and the connection limit.
#include "database/jobstore.h"
#include "foundation/cp1252.h"
#include "protocol/listener.h"
#include "protocol/traffic.h"
#include "shell/server.h"
#include "support/emulator.h"
#include "support/dbfixture.h"
#include "support/installation.h"

#include <QRegularExpression>
#include <QSignalSpy>
#include <QTcpSocket>
#include <QTest>

#include <sys/socket.h>

using namespace quill;
using quill::test::Emulator;
using quill::test::TestInstallation;

namespace {

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

} // namespace

class TestRequests : public QObject {
    Q_OBJECT
    std::unique_ptr<TestInstallation> inst;
    std::unique_ptr<Server> server;
    quint16 port = 0;
    // Printer 1: answers its start-up check only after a long while and then
    // prints as slowly, so stored jobs stay queued and the printer never errs.
    Emulator slowPrinter;

    void startServer(bool addin = false)
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
        server = std::make_unique<Server>(Server::Options{});
        QCOMPARE(server->startup(), Server::Started);
    }

    std::unique_ptr<QTcpSocket> connectClient()
    {
        auto s = std::make_unique<QTcpSocket>();
        s->connectToHost(QHostAddress::LocalHost, port);
        return s->waitForConnected(5000) ? std::move(s) : nullptr;
    }

    // Collects a reply until it is as long as `want` or 5 s pass; a short one fails
    // the caller's comparison, and anything extra shows up in the last 20 ms.
    static QByteArray awaitReply(QTcpSocket& s, const QByteArray& want)
    {
        QByteArray got;
        (void)QTest::qWaitFor([&] { return (got += s.readAll()).size() >= want.size(); }, 5000);
        QTest::qWait(20);
        return got + s.readAll();
    }
    // The same for many clients at once, with one wait for extra bytes.
    static void compareReplies(std::vector<std::unique_ptr<QTcpSocket>>& clients, const QByteArray& want)
    {
        std::vector<QByteArray> got(clients.size());
        (void)QTest::qWaitFor([&] {
            size_t whole = 0;
            for (size_t i = 0; i < clients.size(); ++i)
                whole += (got[i] += clients[i]->readAll()).size() >= want.size() ? 1 : 0;
            return whole == clients.size();
        }, 10000);
        QTest::qWait(20);
        for (size_t i = 0; i < clients.size(); ++i)
            QCOMPARE(got[i] + clients[i]->readAll(), want);
    }
    QByteArray exchange(QTcpSocket& s, const QByteArray& request, const QByteArray& want)
    {
        s.write(request);
        return awaitReply(s, want);
    }

    int jobCount() { return inst->scalar("SELECT COUNT(*) FROM tbJob").toInt(); }

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
        // The listener's rules are the same whichever engine stores the jobs.
        const QByteArray test = QTest::currentTestFunction();
        if (dbtest::OnPostgres() && (test == "addinFraming" || test == "connectionLimit" || test == "oddClients"))
            QSKIP("the listener's rules: run on SQLite");
        // One server for the rows that leave it as they found it.
        if (!server)
            startServer();
        else
            server->jobs().deleteJobsWhere([](const QueuedJob&) { return true; });
        QTRY_COMPARE_WITH_TIMEOUT(server->listener().connectionCount(), 0, 5000);
    }
    void replyCodes_data();
    void replyCodes();
    void configure_data();
    void configure();
    void connectionLimit();
    void oddClients_data();
    void oddClients();
    void addinFraming(); // last: its server frames add-in records
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
    QTest::newRow("printer 6") << "" << print("6", "1") << 1002 << false;
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
    const QString mdb = inst->file("brixa.mdb");
    QCOMPARE(dbtest::JobRows(mdb), stored ? QStringList{"1|1|" + FromCp1252(request)} : QStringList());
    QCOMPARE(server->jobs().jobList().count(), stored ? 1 : 0);
    // Logged as traffic; the connection serves the next request, and a late reply
    // to this one would show before that one's reply.
    QTRY_COMPARE_WITH_TIMEOUT(inst->log().count(traffic), logged + 1, 5000);
    QCOMPARE(exchange(*c, "BRIXA\t1.00\tX", expected(9003)), expected(9003));
    if (!printer1.isEmpty())
        server.reset();
}

void TestRequests::configure_data()
{
    QTest::addColumn<QString>("templ");
    QTest::addColumn<QString>("operation");
    QTest::addColumn<QString>("templates"); // printers 1, 2 and 4's current template, afterwards
    QTest::addColumn<QList<int>>("left");   // of the jobs 1 KASSA1/Anna, 2 KASSA1/Bo, 3 Kassa2/anna, 4 KASSA2/-
    const QString unchanged = "7 8 7";
    QTest::newRow("template cleared where current") << "7" << "1" << "0 8 0" << QList<int>{1, 2, 3, 4};
    QTest::newRow("empty workstation withdraws nothing") << "" << "3\t\t*" << unchanged << QList<int>{1, 2, 3, 4};
    QTest::newRow("empty user withdraws nothing") << "" << "3\tKASSA2\t" << unchanged << QList<int>{1, 2, 3, 4};
    QTest::newRow("one workstation, any user") << "" << "3\t kassa1 \t*" << unchanged << QList<int>{3, 4};
}

void TestRequests::configure()
{
    QFETCH(QString, templ);
    QFETCH(QString, operation);
    QFETCH(QString, templates);
    QFETCH(QList<int>, left);
    auto c = connectClient();
    QVERIFY(c);
    for (const auto& [ws, u] : QList<QPair<QString, QString>>{{"KASSA1", "Anna"}, {"KASSA1", "Bo"},
                                                                {"Kassa2", "anna"}, {"KASSA2", ""}})
        QCOMPARE(exchange(*c, print("1", "1", "0", "1", ws, u), expected(0)), expected(0));
    QVERIFY(inst->sql("UPDATE tbPrinter SET CurrentTemplateId = CASE Id WHEN 2 THEN 8 ELSE 7 END"));
    const QByteArray request = ToCp1252(QStringLiteral("BRIXA\t1.00\tC\t\t%1\t\t\t\t\t\t%2").arg(templ, operation));
    QCOMPARE(exchange(*c, request, expected(0)), expected(0));
    QCOMPARE(inst->scalar("SELECT (SELECT CurrentTemplateId FROM tbPrinter WHERE Id = 1) || ' ' || (SELECT "
                          "CurrentTemplateId FROM tbPrinter WHERE Id = 2) || ' ' || (SELECT CurrentTemplateId FROM "
                          "tbPrinter WHERE Id = 4)")
                 .toString(),
             templates);
    const JobListModel& list = server->jobs().jobList();
    QList<int> ids;
    for (int r = 0; r < list.count(); ++r)
        ids << list.rowAt(r).id;
    QCOMPARE(ids, left);
    QCOMPARE(jobCount(), left.size());
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
    QTRY_COMPARE_WITH_TIMEOUT(server->listener().connectionCount(), 32, 5000);
    // The 33rd is closed at once, without a reply.
    auto extra = connectClient();
    QVERIFY(extra);
    extra->write(print("1", "1"));
    QTRY_VERIFY_WITH_TIMEOUT(extra->state() == QAbstractSocket::UnconnectedState, 5000);
    QCOMPARE(extra->readAll(), QByteArray());
    // Every one of the 32 is served.
    for (auto& c : clients)
        c->write(print("1", "1"));
    compareReplies(clients, expected(0));
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
        QCOMPARE(jobCount(), 3);
        QCOMPARE(server->jobs().jobList().count(), 3);
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
        QTRY_COMPARE_WITH_TIMEOUT(accounted(), qint64(4) << 20, 30000);
        QVERIFY2(notes >= 1 && logged <= (notes + 1) * TrafficLog::Budget,
                 qPrintable(QStringLiteral("%1 bytes logged, %2 notes").arg(logged).arg(notes)));
        // The connection still serves.
        QCOMPARE(exchange(*c, print("1", "1"), expected(0)), expected(0));
    }
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
    QTRY_COMPARE_WITH_TIMEOUT(jobCount(), 2, 5000);
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
    QTRY_COMPARE_WITH_TIMEOUT(jobCount(), 3, 5000);
    QCOMPARE(inst->scalar("SELECT Job FROM tbJob WHERE Id = 3").toString(),
             QStringLiteral("BRIXA\t1.00\tP\t1\t1\t1\tKASSA3\t0\t\t\tBo\tCap\tx;y;z \t\t\r\n"));
    // Text without a marker does not fill the buffer: a record after more than
    // the bound's worth of it is still stored (the pause lets the text arrive on its own).
    c->write(QByteArray(Listener::MaxBuffer + 1000, 'y'));
    QTest::qWait(500);
    c->write(rec1);
    QTRY_COMPARE_WITH_TIMEOUT(jobCount(), 4, 10000);
    QTest::qWait(100);
    QCOMPARE(c->bytesAvailable(), 0);

    QByteArray binary(4096, '\0');
    for (int i = 0; i < binary.size(); ++i)
        binary[i] = char((i * 7919) & 0xFF);
    bad->write(binary);
    bad->write(QByteArray(40000, 'x') + "\tBRIXA");          // separator past position 32767
    bad->write("{STARTBRIXA;" + QByteArray(3 << 20, 'a'));   // start marker, no end, past the buffer bound
    QTRY_VERIFY_WITH_TIMEOUT(bad->state() == QAbstractSocket::UnconnectedState, 20000);
    QVERIFY(inst->log().contains("add-in buffer"));
    // A standard request on an add-in connection is still answered.
    QCOMPARE(exchange(*c, print("1", "1"), expected(0)), expected(0));
}

QTEST_GUILESS_MAIN(TestRequests)
#include "tst_requests.moc"
