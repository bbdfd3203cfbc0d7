// How long withdrawing a sender's jobs (configure sub-operation 3) takes as the
// queue grows: every other queued job matches. A withdraw that stays linear
// takes the same time per job at 10,000 and at 80,000 queued jobs.
//
//  1. In this process: the job store over a temp SQLite file, withdrawn the way
//     the request handler does it (deleteJobsWhere, which waits for its commit).
//  2. The real headless server on a temp installation: the request sent over
//     loopback, timed to its reply (the reply waits for the commit), and the
//     jobs left in tbJob counted afterwards.
//
// Usage: bench-queue [--dir DIR]   (temp files under DIR, default the system temp folder)
#include "database/jobdatabase.h"
#include "database/jobstore.h"
#include "database/sqlite.h"
#include "database/slots.h"
#include "foundation/settings.h"
#include "foundation/strutil.h"

#include <QCoreApplication>
#include <QDir>
#include <QElapsedTimer>
#include <QProcess>
#include <QSqlQuery>
#include <QTcpServer>
#include <QTcpSocket>
#include <QTemporaryDir>
#include <QThread>

#include <cstdio>

using namespace quill;

namespace {

const QString Bin = QStringLiteral(QUILL_BIN_DIR);
const QList<int> Sizes{10000, 20000, 40000, 80000};

// Job n of user A (odd n) or B (even n) at one workstation.
QString jobText(int n)
{
    return QStringLiteral("BRIXA\t1.00\tP\t1\t1\t1\tBENCH\t0\t\t\t%1\tjob %2").arg(n % 2 ? "A" : "B").arg(n);
}

// Configure sub-operation 3: workstation "*", user "A".
const QByteArray Withdraw = "BRIXA\t1.00\tC\t\t\t\t\t\t\t\t3\t*\tA";

bool fill(Database& db, int jobs)
{
    try {
        db.begin();
        QSqlQuery q(db.connection());
        q.prepare(QStringLiteral("INSERT INTO tbJob (Id, PrinterId, Job) VALUES (?, 1, ?)"));
        for (int i = 1; i <= jobs; ++i) {
            q.addBindValue(i);
            q.addBindValue(jobText(i));
            if (!q.exec())
                return false;
        }
        q.finish();
        db.commit();
        return true;
    } catch (const Error& e) {
        std::fprintf(stderr, "sql: %s\n", qPrintable(e.text()));
        return false;
    }
}

// The match the request handler builds for workstation "*" and user "A".
bool userA(const QueuedJob& r)
{
    return GetToken(r.senderTag(), QStringLiteral("|"), 2).trimmed().toUpper() == QLatin1String("A");
}

int tableRows(Database& db)
{
    int n = -1;
    db.run(QStringLiteral("SELECT COUNT(*) FROM tbJob"), {}, [&](QSqlQuery& q) { n = q.next() ? q.value(0).toInt() : -1; });
    return n;
}

// ms for the withdraw in this process; -1 when it went wrong.
double inProcess(const QString& dir, int jobs)
{
    JobDatabase jdb;
    PrinterSlots printers;
    jdb.database().open(dir + QStringLiteral("/jobs-%1.mdb").arg(jobs));
    jdb.database().exec(QStringLiteral("CREATE TABLE tbJob (Id INTEGER PRIMARY KEY, PrinterId INTEGER, Job TEXT)"));
    if (!fill(jdb.database(), jobs) || !jdb.SrvJobOpenDB())
        return -1;
    JobStore store(jdb, printers);
    store.SrvInitAllJobs();
    QElapsedTimer t;
    t.start();
    // One statement, committed by the storage thread before it returns.
    const int removed = store.deleteJobsWhere(userA);
    const bool committed = removed == jobs / 2;
    const double ms = double(t.nsecsElapsed()) / 1e6;
    if (removed != jobs / 2 || !committed || tableRows(jdb.database()) != jobs - jobs / 2)
        return -1;
    return ms;
}

quint16 freePort()
{
    QTcpServer s;
    s.listen(QHostAddress::LocalHost, 0);
    return s.serverPort();
}

// ms from the request to its reply with the real server; -1 when it went wrong.
double throughServer(const QString& dir, int jobs)
{
    const QString home = dir + QStringLiteral("/home-%1").arg(jobs);
    QProcess init;
    init.start(Bin + QStringLiteral("/quillbase"), {QStringLiteral("--init"), QStringLiteral("--home"), home});
    if (!init.waitForFinished(60000) || init.exitCode() != 0)
        return -1;
    const quint16 port = freePort();
    {
        Database db;
        db.open(home + QStringLiteral("/brixa.mdb"));
        db.exec(QStringLiteral("UPDATE tbServer SET port = %1, AutoStartService = 0").arg(port));
        if (!fill(db, jobs))
            return -1;
    }
    QProcess server;
    server.setProcessChannelMode(QProcess::ForwardedErrorChannel);
    server.start(Bin + QStringLiteral("/quillbase"), {QStringLiteral("--headless"), QStringLiteral("--home"), home});
    QTcpSocket client;
    QElapsedTimer waiting;
    waiting.start();
    while (client.state() != QAbstractSocket::ConnectedState && waiting.elapsed() < 60000
           && server.state() != QProcess::NotRunning) {
        client.abort();
        client.connectToHost(QHostAddress::LocalHost, port);
        if (!client.waitForConnected(200))
            QThread::msleep(50);
    }
    double ms = -1;
    if (client.state() == QAbstractSocket::ConnectedState) {
        QElapsedTimer t;
        t.start();
        client.write(Withdraw);
        client.flush();
        QByteArray reply;
        while (reply != "BRIXA\tOK\t" && t.elapsed() < 120000 && client.waitForReadyRead(120000))
            reply += client.readAll();
        if (reply == "BRIXA\tOK\t")
            ms = double(t.nsecsElapsed()) / 1e6;
    }
    client.abort();
    server.terminate();
    if (!server.waitForFinished(20000)) {
        server.kill();
        server.waitForFinished(5000);
    }
    Database db;
    db.open(home + QStringLiteral("/brixa.mdb"));
    const int left = tableRows(db);
    return left == jobs - jobs / 2 ? ms : -1;
}

void table(const char* title, const QList<double>& ms)
{
    std::printf("\n%s\n%10s %12s %18s\n", title, "queued", "withdraw ms", "us per job removed");
    for (int i = 0; i < Sizes.size(); ++i) {
        if (ms[i] < 0)
            std::printf("%10d %12s\n", Sizes[i], "failed");
        else
            std::printf("%10d %12.1f %18.2f\n", Sizes[i], ms[i], ms[i] * 1000.0 / (Sizes[i] / 2));
    }
    if (ms.first() > 0 && ms.last() > 0) {
        const double ratio = (ms.last() / (Sizes.last() / 2)) / (ms.first() / (Sizes.first() / 2));
        std::printf("per-job time at %d vs %d: %.2fx (goal: within 2x)\n", Sizes.last(), Sizes.first(), ratio);
    }
}

} // namespace

int main(int argc, char** argv)
{
    QCoreApplication app(argc, argv);
    QString base = QDir::tempPath();
    const QStringList args = app.arguments();
    const qsizetype d = args.indexOf(QStringLiteral("--dir"));
    if (d > 0 && d + 1 < args.size())
        base = args[d + 1];
    QTemporaryDir tmp(base + QStringLiteral("/bench-queue-XXXXXX"));
    if (!tmp.isValid())
        return 1;
    // Settings scopes of this run stay inside the temp folder (the server inherits them).
    qputenv("XDG_CONFIG_DIRS", tmp.filePath(QStringLiteral("machine")).toLocal8Bit());
    qputenv("XDG_CONFIG_HOME", tmp.filePath(QStringLiteral("user")).toLocal8Bit());
    std::printf("temp folder %s; withdraw of every other queued job (user A of A and B)\n", qPrintable(tmp.path()));

    QList<double> local, served;
    for (int jobs : Sizes)
        local << inProcess(tmp.path(), jobs);
    table("in this process: deleteJobsWhere, committed", local);
    if (!QFile::exists(Bin + QStringLiteral("/quillbase")))
        return 0;
    for (int jobs : Sizes)
        served << throughServer(tmp.path(), jobs);
    table("headless server: request to reply over loopback", served);
    return 0;
}
