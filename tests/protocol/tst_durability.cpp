// The headless server as a separate process: a job is durable once its "OK"
// has left the server, across SIGKILL and the maintenance of the next start,
// and a second copy of the program leaves a running one alone.
// (A SIGTERM shutdown is covered by the end-to-end test.)
#include "support/dbfixture.h"
#include "support/installation.h"
#include "support/mounts.h"
#include "foundation/jobfields.h"

#include <QDir>
#include <QElapsedTimer>
#include <QSet>
#include <QFile>
#include <QJsonDocument>
#include <QJsonObject>
#include <QLocalSocket>
#include <QProcess>
#include <QTemporaryDir>
#include <QTcpSocket>
#include <QTest>

#include <algorithm>
#include <sys/resource.h>
#include <memory>

using quill::test::HeadlessServer;
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

    // Ready once the log says the whole start-up is done (the port opens earlier).
    std::unique_ptr<HeadlessServer> startServer()
    {
        auto server = std::make_unique<HeadlessServer>(*inst);
        return server->start() ? std::move(server) : nullptr;
    }

private slots:
    void initTestCase() { QUILL_SKIP_WITHOUT_ENGINE(); }
    void init()
    {
        // The folder's and the listener's rules are the same whichever engine stores the jobs.
        const QByteArray test = QTest::currentTestFunction();
        if (quill::dbtest::OnPostgres() && (test == "outOfDescriptorsControlAnswers" || test == "unwritableFolder"))
            QSKIP("the same on either engine: run on SQLite");
        inst = std::make_unique<TestInstallation>();
        QVERIFY(inst->ok());
        port = TestInstallation::freePort();
        QVERIFY(inst->setServer(port, true));
        QVERIFY(inst->addNetworkPrinter(1, "Skrivare 1", 9));
        inst->setUserSwitch("dwUseLog", 1);
    }
    void cleanup() { inst.reset(); }

    void killKeepsEveryAnsweredJobInOrder();
    void killDuringAMoveLosesAndDoublesNothing();
    void secondCopyChangesNothing_data();
    void secondCopyChangesNothing();
    void outOfDescriptorsControlAnswers();
    void unwritableFolder();
};

// 32 clients, each sending its next request once the last is answered, and
// the server killed mid-flight after 240 answers.
void TestDurability::killKeepsEveryAnsweredJobInOrder()
{
    const int clients = 32, perClient = 15, killAt = 240;
    auto server = startServer();
    QVERIFY(server);
    std::vector<QTcpSocket> sockets(clients);
    std::vector<int> sent(clients, 0), answered(clients, 0);
    std::vector<QByteArray> buffers(clients);
    auto send = [&](int k) {
        sockets[k].write(QStringLiteral("BRIXA\t1.00\tP\t1\t1\t1\tWS\t0\t\t\t\tjob %1-%2").arg(k).arg(++sent[k]).toLatin1());
    };
    for (int k = 0; k < clients; ++k) {
        sockets[k].connectToHost(QHostAddress::LocalHost, port);
        QVERIFY(sockets[k].waitForConnected(5000));
        send(k);
    }
    // Each client sends its next request as soon as the previous one is answered.
    int total = 0;
    bool refused = false;
    QVERIFY(QTest::qWaitFor([&] {
        for (int k = 0; k < clients; ++k) {
            buffers[k] += sockets[k].readAll();
            const int reply = takeReply(buffers[k]);
            refused |= reply < 0;
            if (reply > 0) {
                ++answered[k];
                if (++total < killAt && sent[k] < perClient)
                    send(k);
            }
        }
        return refused || total >= killAt;
    }, 60000));
    QVERIFY(!refused);
    server->process.kill(); // SIGKILL: no shutdown, the -wal holds the jobs
    QVERIFY(server->process.waitForFinished(10000));

    // The next start runs the maintenance over the crashed files.
    server = startServer();
    QVERIFY(server);
    QVERIFY(!inst->log().contains("Warning SrvOpenDatabases"));
    // Per client: jobs 1..n in the order sent, n at least those answered and at most those sent.
    std::vector<QStringList> stored(clients);
    for (const QString& row : quill::dbtest::JobRows(inst->file("brixa.mdb"))) {
        const QString caption = row.section('\t', 11);
        stored[caption.section(' ', 1).section('-', 0, 0).toInt()] << caption;
    }
    for (int k = 0; k < clients; ++k) {
        QVERIFY2(stored[k].size() >= answered[k] && stored[k].size() <= sent[k], qPrintable(stored[k].join(", ")));
        for (int i = 0; i < stored[k].size(); ++i)
            QCOMPARE(stored[k][i], QStringLiteral("job %1-%2").arg(k).arg(i + 1));
    }
}

// A move of a long queue to another printer is one transaction: a SIGKILL at
// any moment of it leaves every job once, all on the one printer or all on
// the other, its text naming the printer its row names.
void TestDurability::killDuringAMoveLosesAndDoublesNothing()
{
    constexpr int Jobs = 20000;
    QVERIFY(inst->addNetworkPrinter(2, "Skrivare 2", 9));
    QVERIFY(inst->sql(QStringLiteral("INSERT INTO tbJob (Id, PrinterId, Job) WITH RECURSIVE n(i) AS (SELECT 1 UNION "
                                     "ALL SELECT i + 1 FROM n WHERE i < %1) SELECT i, 1, ? || i FROM n")
                          .arg(Jobs),
                      {QStringLiteral("BRIXA\t1.00\tP\t1\t1\t1\tWS\t0\t\t\t\tjob ")}));
    // Where the jobs are: the printer all of them are on, or a description of
    // what is wrong.
    const auto holder = [&]() -> QString {
        QSet<int> ids, printers;
        for (const QString& row : quill::dbtest::JobRows(inst->file("brixa.mdb"))) {
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
                   {"--home", inst->path(), "move", "--from", from, "--to", from == "1" ? "2" : "1"});
        return ctl;
    };
    // One move that is let be, timed from its "Moving" line to its end; then
    // three killed a quarter, a half and three quarters of that time after
    // the line, so the kills fall before, inside and after the commit.
    auto server = startServer();
    QVERIFY(server);
    qint64 span = 0;
    int undone = 0;
    for (int round = 1; round <= 4; ++round) {
        const QString from = holder();
        QVERIFY2(from == "1" || from == "2", qPrintable(from));
        auto ctl = move(from);
        QVERIFY(QTest::qWaitFor([&] { return inst->log().count(QStringLiteral("Moving %1 jobs").arg(Jobs)) == round; },
                                30000));
        QElapsedTimer sinceLine;
        sinceLine.start();
        if (round == 1) {
            QVERIFY(ctl->waitForFinished(120000));
            span = sinceLine.elapsed();
            QCOMPARE(ctl->exitCode(), 0);
            QCOMPARE(holder(), from == "1" ? QStringLiteral("2") : QStringLiteral("1"));
            continue;
        }
        QTest::qWait(int(span * (round - 1) / 4));
        server->process.kill();
        QVERIFY(server->process.waitForFinished(10000));
        // A move faster than the first may have ended during the wait: its
        // end was taken in by then, and waitForFinished would say false.
        QVERIFY(ctl->state() == QProcess::NotRunning || ctl->waitForFinished(120000));
        // Read once the next server runs: on PostgreSQL the killed server's
        // session has ended by then, its statement committed or rolled back.
        server = startServer();
        QVERIFY(server);
        const QString after = holder();
        QVERIFY2(after == "1" || after == "2", qPrintable(after));
        undone += after == from;
    }
    qInfo("a move took %lld ms after its line; killed moves that were undone: %d of 3", span, undone);
}

void TestDurability::secondCopyChangesNothing_data()
{
    QTest::addColumn<QString>("option");
    QTest::addColumn<int>("exitCode");
    QTest::addColumn<QString>("message"); // on its stderr
    QTest::addColumn<bool>("ownFolder");  // the second copy in a folder of its own, with the same brixa.mda
    QTest::newRow("second server") << "--headless" << 0 << "är redan startad!" << false;
    if (!quill::dbtest::OnPostgres()) {
        QTest::newRow("init over an installation") << "--init" << 1 << "<home>/brixa.mdb already exists" << false;
        return;
    }
    QTest::newRow("init over an installation") << "--init" << 1 << "already has the server's tables" << false;
    QTest::newRow("second server on the same database") << "--headless" << 1
                                                        << "another Quillbase server is using it." << true;
}

// The running server's files, log and process are as they were; the second copy
// tells why on its stderr only.
void TestDurability::secondCopyChangesNothing()
{
    QFETCH(QString, option);
    QFETCH(int, exitCode);
    QFETCH(QString, message);
    QFETCH(bool, ownFolder);
    QVERIFY(inst->sql("INSERT INTO tbJob (Id, PrinterId, Job) VALUES (1, 1, 'kept')"));
    QTemporaryDir other;
    QVERIFY(!ownFolder || QFile::copy(inst->file("brixa.mda"), other.filePath("brixa.mda")));
    auto first = startServer();
    QVERIFY(first);
    const QString mdb = inst->file("brixa.mdb");
    const QByteArray before = quill::dbtest::ReadFile(mdb);
    const int linesBefore = inst->log().count("\r\n");
    QProcess second;
    second.start(QUILL_BIN_DIR "/quillbase", {option, "--home", ownFolder ? other.path() : inst->path()});
    QVERIFY(second.waitForFinished(20000));
    QCOMPARE(second.exitStatus(), QProcess::NormalExit);
    QCOMPARE(second.exitCode(), exitCode);
    const QString err = QString::fromUtf8(second.readAllStandardError());
    QVERIFY2(err.contains(message.replace("<home>", inst->path())), qPrintable(err));
    QVERIFY(!second.readAllStandardOutput().contains("Next:"));
    QCOMPARE(first->process.state(), QProcess::Running);
    QCOMPARE(inst->log().count("\r\n"), linesBefore);
    QCOMPARE(quill::dbtest::ReadFile(mdb), before);
}

// The server's descriptor limit lowered to just above what it has open, then
// more clients than that: the listener cannot accept, the control socket still
// answers (twice: its reserve comes back), the shortage is logged once, and
// clients are taken again once descriptors are free.
void TestDurability::outOfDescriptorsControlAnswers()
{
    auto server = startServer();
    QVERIFY(server);
    const qint64 pid = server->process.processId();
    // New descriptors take the lowest free numbers: the limit is set a few above it.
    QSet<int> open;
    for (const QString& fd : QDir(QStringLiteral("/proc/%1/fd").arg(pid)).entryList(QDir::AllEntries | QDir::System | QDir::NoDotAndDotDot))
        open.insert(fd.toInt());
    int lowestFree = 0;
    while (open.contains(lowestFree))
        ++lowestFree;
    const rlimit limit{rlim_t(lowestFree + 4), rlim_t(lowestFree + 4)};
    QCOMPARE(::prlimit(pid_t(pid), RLIMIT_NOFILE, &limit, nullptr), 0);

    const auto openCount = [&] {
        return QDir(QStringLiteral("/proc/%1/fd").arg(pid)).entryList(QDir::AllEntries | QDir::System | QDir::NoDotAndDotDot).size();
    };
    const qsizetype before = openCount();
    std::vector<std::unique_ptr<QTcpSocket>> clients;
    for (int i = 0; i < 12; ++i) {
        clients.push_back(std::make_unique<QTcpSocket>());
        clients.back()->connectToHost(QHostAddress::LocalHost, port);
        QVERIFY(clients.back()->waitForConnected(5000));
        // The first is taken alone, so the listener has found its backlog
        // empty once before it runs out, as it always has on a live server.
        if (i == 0)
            QTRY_VERIFY_WITH_TIMEOUT(openCount() > before, 10000);
    }
    const QString note = "Out of file descriptors: the listener cannot accept";
    QTRY_VERIFY_WITH_TIMEOUT(inst->log().contains(note), 10000);
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
    QTcpSocket late;
    late.connectToHost(QHostAddress::LocalHost, port);
    QVERIFY(late.waitForConnected(5000));
    late.write("BRIXA\t1.00\tX");
    QByteArray reply;
    QVERIFY(QTest::qWaitFor([&] { late.waitForReadyRead(100); reply += late.readAll(); return takeReply(reply) != 0; }, 20000));
}

// A read-only installation folder: not "already started" and exit 0, but the
// folder and the reason, and a failure exit.
void TestDurability::unwritableFolder()
{
    QString why;
    if (!quill::test::BindReadOnly(inst->path(), &why))
        QSKIP(qPrintable("cannot make the installation folder read-only: " + why));
    QProcess server;
    server.start(QUILL_BIN_DIR "/quillbase", {"--headless", "--home", inst->path()});
    const bool finished = server.waitForFinished(20000);
    const bool lockLeft = QFile::exists(inst->file("quillbase.lock"));
    quill::test::Unmount(inst->path());
    QVERIFY(finished);
    QCOMPARE(server.exitStatus(), QProcess::NormalExit);
    QCOMPARE(server.exitCode(), 1);
    const QString err = QString::fromUtf8(server.readAllStandardError());
    QVERIFY2(err.contains("Installationsmappen " + inst->path() + " kan inte skrivas: Read-only file system"),
             qPrintable(err));
    QVERIFY(!lockLeft);
}

QTEST_GUILESS_MAIN(TestDurability)
#include "tst_durability.moc"
