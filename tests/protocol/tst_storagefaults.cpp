// Storage faults while clients send print requests, against an in-process server
// on a temporary installation: a job that cannot be stored is answered 1005 and
// is neither in tbJob nor in the job list; once the fault is gone requests are
// stored again without a restart. The faults are real: another connection holding
// the write lock; brixa.mdb read-only (a read-only bind mount), or on PostgreSQL
// the database made read-only by its administrator; the installation on a tmpfs
// that is filled up; the database server ending the connections.
#include "database/jobstore.h"
#include "database/sqlite.h"
#include "foundation/cp1252.h"
#include "protocol/listener.h"
#include "shell/server.h"
#include "support/dbfixture.h"
#include "support/emulator.h"
#include "support/installation.h"
#include "support/mounts.h"

#include <QFile>
#include <QTcpSocket>
#include <QTest>

#include <algorithm>

using namespace quill;
using quill::test::Emulator;
using quill::test::TestInstallation;

namespace {

const QByteArray Ok = "BRIXA\tOK\t";
const QByteArray NotStored = ToCp1252(QStringLiteral(
    "BRIXA\tERR\tBrixa - Printerserver:\rUtskriftjobbet kunde inte sparas. Kontakta systemansvarig!\r\r"
    "Utskriftjobbet har INTE lagrats i utskriftskön.1005"));

// A reply is whole when it is the plain OK or ends in its four-digit code.
bool whole(const QByteArray& b)
{
    return b == Ok || (b.size() > 13 && std::all_of(b.end() - 4, b.end(), [](char c) { return c >= '0' && c <= '9'; }));
}

} // namespace

class TestStorageFaults : public QObject {
    Q_OBJECT
    std::unique_ptr<TestInstallation> inst;
    std::unique_ptr<Server> server;
    QStringList mounts;
    quint16 port = 0;
    // Printer 1 answers its check only after a long while: stored jobs stay queued.
    Emulator slowPrinter;
    int sent = 0;

    // `clients` connections each send `each` requests, one after the other's
    // reply; every reply, in the order they came.
    QList<QByteArray> send(int clients, int each)
    {
        std::vector<std::unique_ptr<QTcpSocket>> sockets;
        std::vector<int> left(clients, each);
        std::vector<QByteArray> buffers(clients);
        QList<QByteArray> replies;
        auto request = [&](int k) {
            sockets[k]->write(QStringLiteral("BRIXA\t1.00\tP\t1\t1\t1\tWS%1\t0\t\t\t\tJob %2").arg(k).arg(++sent).toLatin1());
            --left[k];
        };
        for (int k = 0; k < clients; ++k) {
            sockets.push_back(std::make_unique<QTcpSocket>());
            sockets[k]->connectToHost(QHostAddress::LocalHost, port);
            if (!sockets[k]->waitForConnected(5000))
                return {};
            request(k);
        }
        (void)QTest::qWaitFor([&] {
            for (int k = 0; k < clients; ++k) {
                buffers[k] += sockets[k]->readAll();
                if (!whole(buffers[k]))
                    continue;
                replies << std::exchange(buffers[k], {});
                if (left[k] > 0)
                    request(k);
            }
            return replies.size() == clients * each;
        }, 60000);
        return replies;
    }

    // An installation with printer 1 on the slow printer, its log on.
    bool install()
    {
        inst = std::make_unique<TestInstallation>();
        port = TestInstallation::freePort();
        inst->setUserSwitch("dwUseLog", 1);
        return inst->ok() && inst->setServer(port, true)
            && inst->addNetworkPrinter(1, "Skrivare 1", slowPrinter.port());
    }

    // Ids in tbJob, and whether the job list shows exactly those.
    QString storedIds()
    {
        QStringList onDisk, listed;
        for (const QString& row : dbtest::JobRows(inst->file("brixa.mdb")))
            onDisk << row.section('|', 0, 0);
        const JobListModel& list = server->jobs().jobList();
        for (int r = 0; r < list.count(); ++r)
            listed << QString::number(list.rowAt(r).id);
        return listed == onDisk ? onDisk.join(' ') : "tbJob " + onDisk.join(' ') + " but listed " + listed.join(' ');
    }

private slots:
    void initTestCase()
    {
        QUILL_SKIP_WITHOUT_ENGINE();
        QVERIFY2(slowPrinter.startTcp(), qPrintable(slowPrinter.errorText()));
        QCOMPARE(slowPrinter.command("delay 9000"), QStringLiteral("ok"));
    }
    void cleanup()
    {
        server.reset();
        while (!mounts.isEmpty())
            test::Unmount(mounts.takeLast());
        inst.reset();
    }
    void faultAnswers1005_data();
    void faultAnswers1005();
    void replyWaitsForItsOwnCommit();
    void lostConnectionsOpenedAgain();
};

void TestStorageFaults::faultAnswers1005_data()
{
    QTest::addColumn<QString>("fault");
    if (dbtest::OnPostgres()) {
        QTest::newRow("database made read-only") << "read-only database";
        return;
    }
    QTest::newRow("brixa.mdb read-only") << "read-only";
    QTest::newRow("installation disk full") << "disk full";
}

void TestStorageFaults::faultAnswers1005()
{
    QFETCH(QString, fault);
    QVERIFY(install());
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
        QCOMPARE(send(1, before), QList<QByteArray>(before, Ok));
    const QString storedBefore = storedIds();
    QCOMPARE(storedBefore.split(' ', Qt::SkipEmptyParts).size(), before);

    if (fault == "read-only database") {
        // Sessions already open follow a reload, as after a failover to a standby.
        QVERIFY(inst->sql("ALTER SYSTEM SET default_transaction_read_only = on"));
        QVERIFY(inst->scalar("SELECT pg_reload_conf()").toBool());
    } else if (fault == "disk full") {
        QVERIFY(test::FillUp(inst->file("filler")) > 0);
    }
    QCOMPARE(send(2, 2), QList<QByteArray>(4, NotStored));
    QCOMPARE(storedIds(), storedBefore);
    QVERIFY(inst->log().contains("SrvAddJob failed."));

    // Gone again: the next requests are stored as usual.
    if (fault == "read-only database") {
        QVERIFY(inst->sql("ALTER SYSTEM RESET default_transaction_read_only"));
        QVERIFY(inst->scalar("SELECT pg_reload_conf()").toBool());
    } else if (fault == "disk full") {
        QVERIFY(QFile::remove(inst->file("filler")));
    } else {
        QVERIFY(test::Unmount(mounts.takeLast()));
    }
    QCOMPARE(send(2, 2), QList<QByteArray>(4, Ok));
    QCOMPARE(storedIds().split(' ', Qt::SkipEmptyParts).size(), before + 4);
}

// Another connection holds the write lock. A request that arrives while
// another's commit waits for the lock is stored in the next transaction: it is
// not answered with the first one's outcome. Both wait the lock out.
void TestStorageFaults::replyWaitsForItsOwnCommit()
{
    QVERIFY(install());
    server = std::make_unique<Server>(Server::Options{});
    QCOMPARE(server->startup(), Server::Started);
    Database holder;
    dbtest::HoldWriteLock(holder, inst->file("brixa.mdb"));
    QTcpSocket a, b;
    for (QTcpSocket* s : {&a, &b}) {
        s->connectToHost(QHostAddress::LocalHost, port);
        QVERIFY(s->waitForConnected(5000));
    }
    a.write("BRIXA\t1.00\tP\t1\t1\t1\tWS\t0\t\t\t\ta");
    QTest::qWait(300); // a's transaction is waiting for the lock by now
    b.write("BRIXA\t1.00\tP\t1\t1\t1\tWS\t0\t\t\t\tb");
    QByteArray ra, rb;
    QVERIFY(QTest::qWaitFor([&] { return whole(ra += a.readAll()) && whole(rb += b.readAll()); }, 20000));
    QCOMPARE(ra, NotStored);
    QCOMPARE(rb, NotStored);
    QCOMPARE(storedIds(), QString());
    QVERIFY(inst->log().contains("SrvAddJob failed."));
    holder.rollback();
    QCOMPARE(send(1, 1), QList<QByteArray>{Ok});
}

// The database server ends the server's connections, as its restart would: the
// batch that finds its connection gone is answered 1005 (whether its insert was
// made cannot be known, so it is not made again), the next one is stored, and
// the next lookup opens the main connection again, with the lock of one server
// per database.
void TestStorageFaults::lostConnectionsOpenedAgain()
{
    if (!dbtest::OnPostgres())
        QSKIP("only a database server has connections to lose");
    QVERIFY(install());
    server = std::make_unique<Server>(Server::Options{});
    QCOMPARE(server->startup(), Server::Started);
    QCOMPARE(send(1, 2), QList<QByteArray>(2, Ok));
    QCOMPARE(inst->scalar("SELECT count(pg_terminate_backend(pid)) FROM pg_stat_activity "
                          "WHERE application_name = 'quillbase' AND datname = current_database()")
                 .toInt(),
             2);
    QCOMPARE(send(1, 1), QList<QByteArray>{NotStored});
    QCOMPARE(send(2, 2), QList<QByteArray>(4, Ok));
    QCOMPARE(storedIds(), "1 2 3 4 5 6");
    // A template nobody has: the miss reads the templates again on the main connection.
    QTcpSocket client;
    client.connectToHost(QHostAddress::LocalHost, port);
    QVERIFY(client.waitForConnected(5000));
    client.write("BRIXA\t1.00\tP\t1\t99\t1\tWS\t0\t\t\t\tno such template");
    QByteArray reply;
    QVERIFY(QTest::qWaitFor([&] { client.waitForReadyRead(100); reply += client.readAll(); return whole(reply); }, 20000));
    QVERIFY2(reply.endsWith("1004"), reply.constData());
    QVERIFY(inst->log().contains("was lost and has been opened again"));
    QCOMPARE(inst->scalar("SELECT count(*) FROM pg_locks WHERE locktype = 'advisory' AND granted").toInt(), 1);
}

QTEST_GUILESS_MAIN(TestStorageFaults)
#include "tst_storagefaults.moc"
