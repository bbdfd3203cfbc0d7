// The headless server as a separate process: a job is durable once its "OK"
// has left the server, across SIGKILL and the maintenance of the next start;
// SIGTERM shuts down in order.
#include "foundation/cp1252.h"
#include "support/installation.h"

#include <QFile>
#include <QProcess>
#include <QSet>
#include <QTcpSocket>
#include <QTest>

#include <algorithm>
#include <memory>

using quill::test::TestInstallation;

namespace {

// Takes one whole reply off buf (each client has one request out at a time): 1 for
// an accepted job, "OK" with or without a status code, -1 for a refusal, 0 while
// the reply is not complete. Printer 1 answers nobody, so once the print service
// has checked it the "OK" carries code 1102.
int takeReply(QByteArray& buf)
{
    const bool plain = buf == "BRIXA\tOK\t";
    const bool coded =
        buf.size() > 13 && std::all_of(buf.end() - 4, buf.end(), [](char c) { return c >= '0' && c <= '9'; });
    if (!plain && !coded)
        return 0;
    const int r = buf.startsWith("BRIXA\tOK\t") ? 1 : -1;
    buf.clear();
    return r;
}

} // namespace

class TestDurability : public QObject {
    Q_OBJECT
    std::unique_ptr<TestInstallation> inst;
    quint16 port = 0;

    std::unique_ptr<QProcess> startServer()
    {
        auto p = std::make_unique<QProcess>();
        p->setProcessEnvironment(QProcessEnvironment::systemEnvironment());
        p->setProcessChannelMode(QProcess::ForwardedErrorChannel);
        p->start(QStringLiteral(QUILL_BIN_DIR "/quillbase"), {"--headless", "--home", inst->path()});
        if (!p->waitForStarted(10000))
            return nullptr;
        // Ready once the port accepts a connection.
        for (int i = 0; i < 200; ++i) {
            QTcpSocket probe;
            probe.connectToHost(QHostAddress::LocalHost, port);
            if (probe.waitForConnected(200))
                return p;
            QTest::qWait(50);
        }
        return nullptr;
    }

    static QByteArray request(int n)
    {
        return QByteArray("BRIXA\t1.00\tP\t1\t1\t1\tKASSA1\t0\t\t\t\tjob ") + QByteArray::number(n);
    }

    QStringList storedCaptions()
    {
        QStringList captions;
        const int count = inst->scalar("SELECT COUNT(*) FROM tbJob").toInt();
        for (int id = 1, found = 0; found < count && id < 100000; ++id) {
            const QVariant job = inst->scalar(QString("SELECT Job FROM tbJob WHERE Id = %1").arg(id));
            if (job.isValid()) {
                captions << job.toString().section('\t', 11, 11);
                ++found;
            }
        }
        return captions;
    }

private slots:
    void init()
    {
        inst = std::make_unique<TestInstallation>();
        QVERIFY(inst->ok());
        port = TestInstallation::freePort();
        QVERIFY(inst->setServer(port, true));
        QVERIFY(inst->addNetworkPrinter(1, "Skrivare 1", 9));
        inst->setUserSwitch("dwUseLog", 1);
    }
    void cleanup() { inst.reset(); }

    void killAfterOkKeepsEveryJobInOrder();
    void killWithManyClientsKeepsEveryAnsweredJob();
    void terminateShutsDownInOrder();
    void secondInstanceLeavesFirstAlone();
    void initRefusesExistingDatabase();
};

void TestDurability::killAfterOkKeepsEveryJobInOrder()
{
    auto server = startServer();
    QVERIFY(server);
    QTcpSocket c;
    c.connectToHost(QHostAddress::LocalHost, port);
    QVERIFY(c.waitForConnected(5000));
    const int n = 40;
    for (int i = 1; i <= n; ++i) {
        c.write(request(i));
        QByteArray got;
        int result = 0;
        QVERIFY(QTest::qWaitFor([&] { got += c.readAll(); return (result = takeReply(got)) != 0; }, 10000));
        QCOMPARE(result, 1);
    }
    server->kill(); // SIGKILL: no shutdown, the -wal holds the jobs
    QVERIFY(server->waitForFinished(10000));

    // The next start runs the maintenance over the crashed files.
    server = startServer();
    QVERIFY(server);
    QStringList want;
    for (int i = 1; i <= n; ++i)
        want << QString("job %1").arg(i);
    QCOMPARE(storedCaptions(), want);
    QVERIFY(inst->log().contains("Quillbase succesfully started"));
    QVERIFY(!inst->log().contains("Warning SrvOpenDatabases"));
    // Numbering goes on after the last job.
    QTcpSocket c2;
    c2.connectToHost(QHostAddress::LocalHost, port);
    QVERIFY(c2.waitForConnected(5000));
    c2.write(request(n + 1));
    QByteArray reply;
    int result = 0;
    QVERIFY(QTest::qWaitFor([&] { reply += c2.readAll(); return (result = takeReply(reply)) != 0; }, 10000));
    QCOMPARE(result, 1);
    QCOMPARE(inst->scalar("SELECT MAX(Id) FROM tbJob").toInt(), n + 1);
    server->terminate();
    QVERIFY(server->waitForFinished(10000));
}

void TestDurability::killWithManyClientsKeepsEveryAnsweredJob()
{
    auto server = startServer();
    QVERIFY(server);
    const int clients = 32, perClient = 15;
    std::vector<std::unique_ptr<QTcpSocket>> sockets;
    std::vector<int> sent(clients, 0);
    std::vector<QByteArray> buffers(clients);
    QSet<QString> answered;
    for (int k = 0; k < clients; ++k) {
        sockets.push_back(std::make_unique<QTcpSocket>());
        sockets.back()->connectToHost(QHostAddress::LocalHost, port);
        QVERIFY(sockets.back()->waitForConnected(5000));
    }
    auto name = [](int k, int i) { return QString("job %1-%2").arg(k).arg(i); };
    auto send = [&](int k) {
        ++sent[k];
        sockets[k]->write(QByteArray("BRIXA\t1.00\tP\t1\t1\t1\tWS\t0\t\t\t\t") + name(k, sent[k]).toLatin1());
    };
    for (int k = 0; k < clients; ++k)
        send(k);
    // Each client sends its next request as soon as the previous one is answered;
    // kill the server when about half of all jobs are answered.
    const int killAt = clients * perClient / 2;
    QVERIFY(QTest::qWaitFor([&] {
        for (int k = 0; k < clients; ++k) {
            buffers[k] += sockets[k]->readAll();
            if (takeReply(buffers[k]) == 1) {
                answered.insert(name(k, sent[k]));
                if (sent[k] < perClient && answered.size() < killAt)
                    send(k);
            }
        }
        return answered.size() >= killAt;
    }, 60000));
    server->kill();
    QVERIFY(server->waitForFinished(10000));

    server = startServer();
    QVERIFY(server);
    const QStringList stored = storedCaptions();
    const QSet<QString> storedSet(stored.begin(), stored.end());
    QCOMPARE(stored.size(), storedSet.size()); // nothing twice
    for (const QString& a : answered)
        QVERIFY2(storedSet.contains(a), qPrintable(a + " was answered OK but is missing"));
    // Per client the jobs keep the order they were sent in.
    for (int k = 0; k < clients; ++k) {
        int last = 0;
        for (const QString& s : stored) {
            if (!s.startsWith(QString("job %1-").arg(k)))
                continue;
            const int i = s.section('-', 1).toInt();
            QVERIFY(i > last);
            last = i;
        }
    }
    server->terminate();
    QVERIFY(server->waitForFinished(10000));
}

void TestDurability::terminateShutsDownInOrder()
{
    auto server = startServer();
    QVERIFY(server);
    server->terminate(); // SIGTERM
    QVERIFY(server->waitForFinished(10000));
    QCOMPARE(server->exitStatus(), QProcess::NormalExit);
    QCOMPARE(server->exitCode(), 0);
    const QString log = inst->log();
    QVERIFY(log.contains("Quillbase terminated."));
    QVERIFY(log.indexOf("Quillbase succesfully started") < log.indexOf("Quillbase terminated."));
    // The next start is not taken for a second instance.
    server = startServer();
    QVERIFY(server);
    server->terminate();
    QVERIFY(server->waitForFinished(10000));
    QCOMPARE(log.count("Quillbase terminated."), 1);
    QCOMPARE(inst->log().count("Quillbase terminated."), 2);
}

void TestDurability::secondInstanceLeavesFirstAlone()
{
    auto first = startServer();
    QVERIFY(first);
    const int linesBefore = inst->log().count("\r\n");
    QProcess second;
    second.setProcessEnvironment(QProcessEnvironment::systemEnvironment());
    second.start(QStringLiteral(QUILL_BIN_DIR "/quillbase"), {"--headless", "--home", inst->path()});
    QVERIFY(second.waitForFinished(20000));
    QCOMPARE(second.exitCode(), 0);
    QVERIFY(QString::fromUtf8(second.readAllStandardError()).contains(QStringLiteral("är redan startad!")));
    QCOMPARE(first->state(), QProcess::Running);
    // The box of the second copy is on its stderr only; the log got no line from it.
    QCOMPARE(inst->log().count("\r\n"), linesBefore);
    first->terminate();
    QVERIFY(first->waitForFinished(10000));
}

void TestDurability::initRefusesExistingDatabase()
{
    QVERIFY(inst->sql("INSERT INTO tbJob (Id, PrinterId, Job) VALUES (1, 1, 'kept')"));
    QFile mdb(inst->file("brixa.mdb"));
    QVERIFY(mdb.open(QIODevice::ReadOnly));
    const QByteArray before = mdb.readAll();
    mdb.close();
    QProcess init;
    init.start(QStringLiteral(QUILL_BIN_DIR "/quillbase"), {"--init", "--home", inst->path()});
    QVERIFY(init.waitForFinished(20000));
    QCOMPARE(init.exitStatus(), QProcess::NormalExit);
    QVERIFY(init.exitCode() != 0);
    const QString err = QString::fromUtf8(init.readAllStandardError());
    QVERIFY2(err.contains(mdb.fileName() + " already exists"), qPrintable(err));
    QVERIFY(mdb.open(QIODevice::ReadOnly));
    QCOMPARE(mdb.readAll(), before);
    QCOMPARE(inst->scalar("SELECT Job FROM tbJob WHERE Id = 1").toString(), QStringLiteral("kept"));
}

QTEST_GUILESS_MAIN(TestDurability)
#include "tst_durability.moc"
