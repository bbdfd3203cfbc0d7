// Who may connect: the allow-list (tAllowedClients) and the bind address
// (tBindAddress), over real loopback sockets. A client's source address is
// chosen by binding it to 127.0.0.1 or 127.0.0.2 before it connects. And whose
// queued jobs a withdraw takes.
#include "foundation/cp1252.h"
#include "foundation/settings.h"
#include "protocol/clientfilter.h"
#include "protocol/listener.h"
#include "protocol/senderfilter.h"
#include "shell/server.h"
#include "support/dbfixture.h"
#include "support/installation.h"

#include <QFile>
#include <QTcpSocket>
#include <QTest>

using namespace quill;
using quill::test::TestInstallation;

namespace {

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

// True when the server closes the connection within 5 s.
bool closedByServer(QTcpSocket& s)
{
    return QTest::qWaitFor([&] { return s.state() == QAbstractSocket::UnconnectedState; }, 5000);
}

} // namespace

class TestClients : public QObject {
    Q_OBJECT
private slots:
    void filter_data()
    {
        QTest::addColumn<QString>("list");
        QTest::addColumn<QString>("peer");
        QTest::addColumn<bool>("allowed");
        QTest::addColumn<QStringList>("invalid");
        QTest::newRow("empty lets everyone in") << "" << "192.0.2.7" << true << QStringList();
        QTest::newRow("blanks only") << "  , ," << "192.0.2.7" << true << QStringList();
        QTest::newRow("single address") << "127.0.0.1" << "127.0.0.1" << true << QStringList();
        QTest::newRow("single address, other peer") << "127.0.0.1" << "127.0.0.2" << false << QStringList();
        QTest::newRow("network") << "192.168.10.0/24" << "192.168.10.200" << true << QStringList();
        QTest::newRow("next network") << "192.168.10.0/24" << "192.168.11.1" << false << QStringList();
        QTest::newRow("host bits in network") << "192.168.10.77/24" << "192.168.10.1" << true << QStringList();
        QTest::newRow("v4-mapped peer") << "127.0.0.0/8" << "::ffff:127.0.0.9" << true << QStringList();
        QTest::newRow("v6 list, v4 peer") << "::1" << "127.0.0.1" << false << QStringList();
        QTest::newRow("bad entry skipped") << "frontdesk, 127.0.0.1" << "127.0.0.1" << true << QStringList{"frontdesk"};
        QTest::newRow("prefix too long") << "10.0.0.0/33, 127.0.0.1" << "10.0.0.1" << false << QStringList{"10.0.0.0/33"};
        // A list whose every entry is wrong lets nobody in rather than everybody.
        QTest::newRow("only bad entries") << "10.0.0.300" << "10.0.0.3" << false << QStringList{"10.0.0.300"};
    }
    void filter()
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

    void refusalLoggedOncePerMinute()
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
    void allowList()
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
            QVERIFY(closedByServer(*out));
            QCOMPARE(l.connectionCount(), Listener::MaxConnections - 1);
        }
        // The last free entry still goes to an allowed client.
        in.push_back(connectFrom(allowed, Lo1, port));
        QVERIFY(in.back());
        QTRY_COMPARE_WITH_TIMEOUT(l.connectionCount(), Listener::MaxConnections, 5000);
    }

    void bindAddress()
    {
        Listener l;
        QVERIFY(l.setBindAddress(" 127.0.0.2 "));
        QVERIFY(l.MainInitTCP(0));
        QCOMPARE(l.localAddress(), Lo2);
        QCOMPARE(l.reachableAddress(), Lo2);
        QTcpSocket other;
        other.connectToHost(Lo1, l.localPort());
        QVERIFY(!other.waitForConnected(5000));
        QCOMPARE(other.error(), QAbstractSocket::ConnectionRefusedError);
        QVERIFY(connectFrom(Lo1, Lo2, l.localPort()));

        // A bind address that does not parse opens no listener at all.
        QVERIFY(!l.setBindAddress("frontdesk.local"));
        QVERIFY(!l.MainInitTCP(0));
        QVERIFY(!l.isListening());
        QVERIFY(l.errorText().contains("Invalid bind address"));
        QVERIFY(l.setBindAddress(""));
        QVERIFY(l.MainInitTCP(0));
        QCOMPARE(l.localAddress(), QHostAddress(QHostAddress::Any));
    }

    // The per-machine settings reach the server's listener: a refused client
    // gets no reply and a log line.
    void serverReadsSettings()
    {
        TestInstallation inst;
        QVERIFY(inst.ok());
        const quint16 port = TestInstallation::freePort();
        QVERIFY(inst.setServer(port, false));
        // As an operator writes it into the per-machine file: commas unquoted.
        QFile conf(SettingsFile(HKEY_LOCAL_MACHINE));
        QVERIFY(conf.open(QIODevice::ReadOnly));
        QByteArray text = conf.readAll();
        conf.close();
        QVERIFY(text.contains("[Quillbase]\n"));
        text.replace("[Quillbase]\n", "[Quillbase]\ntBindAddress=127.0.0.1\ntAllowedClients=127.0.0.2, nonsense\n");
        QVERIFY(conf.open(QIODevice::WriteOnly | QIODevice::Truncate));
        conf.write(text);
        conf.close();
        inst.setUserSwitch("dwUseLog", 1);
        Server server(Server::Options{});
        QCOMPARE(server.startup(), Server::Started);
        QCOMPARE(server.listener().localAddress(), Lo1);

        const QByteArray request = ToCp1252("BRIXA\t1.00\tP\t1\t1");
        auto refused = connectFrom(Lo1, Lo1, port);
        QVERIFY(refused);
        refused->write(request);
        QVERIFY(closedByServer(*refused));
        QCOMPARE(refused->readAll(), QByteArray());
        auto allowed = connectFrom(Lo2, Lo1, port);
        QVERIFY(allowed);
        allowed->write(request);
        QByteArray reply;
        QVERIFY(QTest::qWaitFor([&] { return (reply += allowed->readAll()).endsWith("1001"); }, 5000));

        const QString log = inst.log();
        QVERIFY(log.contains("Connection from 127.0.0.1 refused: not in tAllowedClients."));
        QVERIFY(log.contains("tAllowedClients: ignored \"nonsense\""));
    }

    // Which queued jobs a withdraw takes: a job's workstation and user against
    // the request's, as plain fields or as the parts of the tag "workstation|user".
    void senderMatches_data()
    {
        QTest::addColumn<QString>("ws");   // the job's workstation field
        QTest::addColumn<QString>("user"); // the job's user field
        QTest::addColumn<QString>("w");    // the request's, upper case or "*"
        QTest::addColumn<QString>("u");
        QTest::addColumn<bool>("taken");
        QTest::newRow("both") << "KASSA1" << "Anna" << "KASSA1" << "ANNA" << true;
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
    void senderMatches()
    {
        QFETCH(QString, ws);
        QFETCH(QString, user);
        QFETCH(QString, w);
        QFETCH(QString, u);
        QueuedJob job;
        job.text = quill::dbtest::JobText(1, 1, "1", ws, user, "caption").toUtf8();
        QTEST(SenderFilter(w, u).matches(job), "taken");
    }
};

QTEST_GUILESS_MAIN(TestClients)
#include "tst_clients.moc"
