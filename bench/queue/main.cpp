// The queue's costs as it grows: withdrawing a sender's jobs, deleting every job,
// starting with a long queue, and the memory each queued job takes.
//
//  1. In this process, the job store over a temp SQLite file: withdrawing every
//     other job (user A of A and B) at 10,000 .. 80,000 queued jobs, the way the
//     request handler does it (deleteJobsWhere, which waits for its commit), and
//     deleting all of 80,000 as the operator's command does.
//  2. The real headless server on a temp installation: the withdraw request over
//     loopback, timed to its reply (the reply waits for the commit); `delete
//     --all` of 80,000 through the control socket, timed to its answer; the jobs
//     left in tbJob counted afterwards.
//  3. Start-up: the server with 100,000 queued jobs and with none, in turns,
//     timed from the process start to the reply to its first request.
//  4. Memory: the server's resident set with 200,000 queued jobs against none,
//     per job; and the heap the job list takes in this process.
// Also printed, to tell where a start-up's time goes: the start-up maintenance
// (backup, check, compaction) and the job list's rebuild from tbJob, in this
// process, with and without the queued jobs.
//
// Goals: withdraw half of 80,000 < 60 ms, delete all of 80,000 < 30 ms, 100,000
// queued jobs add < 150 ms to the start, < 250 bytes per queued job.
//
// Usage: bench-queue [--dir DIR]   (temp files under DIR, default the system temp folder)
#include "database/jobdatabase.h"
#include "database/jobstore.h"
#include "database/slots.h"
#include "database/sqlite.h"
#include "foundation/paths.h"
#include "foundation/strutil.h"
#include "protocol/senderfilter.h"

#include <QCoreApplication>
#include <QDir>
#include <QElapsedTimer>
#include <QFile>
#include <QJsonDocument>
#include <QJsonObject>
#include <QLocalSocket>
#include <QProcess>
#include <QSqlQuery>
#include <QTcpServer>
#include <QTcpSocket>
#include <QTemporaryDir>
#include <QThread>

#include <algorithm>
#include <cstdio>
#include <functional>
#include <malloc.h>
#include <vector>

using namespace quill;

namespace {

const QString Bin = QStringLiteral(QUILL_BIN_DIR);
const QList<int> Sizes{10000, 20000, 40000, 80000};
const int DeleteAllJobs = 80000;
const int StartJobs = 100000;
const int MemoryJobs = 200000;

// Job n of user A (odd n) or B (even n) at one workstation: about 45 characters.
QString jobText(int n)
{
    return QStringLiteral("BRIXA\t1.00\tP\t1\t1\t1\tBENCH\t0\t\t\t%1\tjob %2 of the queue").arg(n % 2 ? "A" : "B").arg(n);
}

// Configure sub-operation 3: workstation "*", user "A".
const QByteArray Withdraw = "BRIXA\t1.00\tC\t\t\t\t\t\t\t\t3\t*\tA";
// An operation the server does not know: answered 9003 at once, nothing stored.
const QByteArray Unknown = "BRIXA\t1.00\tX";

const char* met(bool yes) { return yes ? "met" : "MISSED"; }

double median(std::vector<double> v)
{
    std::sort(v.begin(), v.end());
    return v.empty() ? -1 : v[v.size() / 2];
}

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
        db.exec(QStringLiteral("PRAGMA wal_checkpoint(TRUNCATE)"));
        return true;
    } catch (const Error& e) {
        std::fprintf(stderr, "sql: %s\n", qPrintable(e.text()));
        return false;
    }
}

// The match the request handler builds for workstation "*" and user "A".
bool userA(const QueuedJob& r)
{
    static const SenderFilter filter(QStringLiteral("*"), QStringLiteral("A"));
    return filter.matches(r);
}

int tableRows(const QString& mdb)
{
    Database db;
    db.open(mdb);
    int n = -1;
    db.run(QStringLiteral("SELECT COUNT(*) FROM tbJob"), {}, [&](QSqlQuery& q) { n = q.next() ? q.value(0).toInt() : -1; });
    return n;
}

// ---------------------------------------------------------------- 1. in this process

struct LocalStore {
    JobDatabase jdb;
    PrinterSlots printers;
    std::unique_ptr<JobStore> store;
    QString mdb;
    bool ok = false;

    LocalStore(const QString& dir, const QString& name, int jobs)
    {
        mdb = dir + QLatin1Char('/') + name;
        jdb.database().open(mdb);
        jdb.database().exec(QStringLiteral("CREATE TABLE tbJob (Id INTEGER PRIMARY KEY, PrinterId INTEGER, Job TEXT)"));
        ok = fill(jdb.database(), jobs) && jdb.SrvJobOpenDB();
        store = std::make_unique<JobStore>(jdb, printers);
    }
};

// ms for deleteJobsWhere in this process; -1 when it went wrong.
double inProcess(const QString& dir, int jobs, const JobMatch& match, int expectRemoved)
{
    LocalStore local(dir, QStringLiteral("jobs-%1-%2.mdb").arg(jobs).arg(expectRemoved), jobs);
    if (!local.ok)
        return -1;
    local.store->SrvInitAllJobs();
    QElapsedTimer t;
    t.start();
    const int removed = local.store->deleteJobsWhere(match);
    const double ms = double(t.nsecsElapsed()) / 1e6;
    local.store->sync();
    if (removed != expectRemoved || tableRows(local.mdb) != jobs - expectRemoved)
        return -1;
    return ms;
}

// Heap bytes per job the list takes once filled from tbJob in this process.
double heapPerJob(const QString& dir, int jobs)
{
    LocalStore local(dir, QStringLiteral("heap.mdb"), jobs);
    if (!local.ok)
        return -1;
    malloc_trim(0);
    const size_t before = mallinfo2().uordblks;
    local.store->SrvInitAllJobs();
    const size_t after = mallinfo2().uordblks;
    if (local.store->jobList().count() != jobs)
        return -1;
    return double(after - before) / jobs;
}

// ---------------------------------------------------------------- 2.-4. the server

quint16 freePort()
{
    QTcpServer s;
    s.listen(QHostAddress::LocalHost, 0);
    return s.serverPort();
}

// A temp installation with `jobs` queued jobs and the service off.
class Site {
public:
    Site(const QString& home, int jobs) : home_(home), port_(freePort())
    {
        QProcess init;
        init.start(Bin + QStringLiteral("/quillbase"), {QStringLiteral("--init"), QStringLiteral("--home"), home});
        if (!init.waitForFinished(60000) || init.exitCode() != 0)
            return;
        try {
            Database db;
            db.open(mdb());
            db.exec(QStringLiteral("UPDATE tbServer SET port = ?, AutoStartService = 0"), {port_});
            ok_ = fill(db, jobs);
        } catch (const Error& e) {
            std::fprintf(stderr, "sql: %s\n", qPrintable(e.text()));
        }
    }
    ~Site() { stop(); }
    bool ok() const { return ok_; }
    QString mdb() const { return home_ + QStringLiteral("/brixa.mdb"); }

    // Starts the server; ms from the process start to the reply to its first
    // request, -1 when it did not come.
    double start()
    {
        // Its log lines on the terminal would only bury the figures.
        server_.setStandardOutputFile(QProcess::nullDevice());
        server_.setStandardErrorFile(QProcess::nullDevice());
        QElapsedTimer t;
        t.start();
        server_.start(Bin + QStringLiteral("/quillbase"), {QStringLiteral("--headless"), QStringLiteral("--home"), home_});
        while (t.elapsed() < 60000 && server_.state() != QProcess::NotRunning) {
            QTcpSocket client;
            client.connectToHost(QHostAddress::LocalHost, port_);
            if (!client.waitForConnected(200)) {
                QThread::usleep(500);
                continue;
            }
            client.write(Unknown);
            client.flush();
            QByteArray reply;
            while (!reply.endsWith("9003") && client.waitForReadyRead(10000))
                reply += client.readAll();
            if (reply.endsWith("9003"))
                return double(t.nsecsElapsed()) / 1e6;
        }
        return -1;
    }
    void stop()
    {
        if (server_.state() == QProcess::NotRunning)
            return;
        server_.terminate();
        if (!server_.waitForFinished(20000)) {
            server_.kill();
            server_.waitForFinished(5000);
        }
    }
    // The server's resident set in bytes; -1 when unknown.
    qint64 residentBytes() const
    {
        QFile f(QStringLiteral("/proc/%1/status").arg(server_.processId()));
        if (!f.open(QIODevice::ReadOnly))
            return -1;
        for (const QByteArray& line : f.readAll().split('\n'))
            if (line.startsWith("VmRSS:"))
                return line.mid(6).trimmed().split(' ').value(0).toLongLong() * 1024;
        return -1;
    }
    // ms from the request to its reply over loopback; -1 when it went wrong.
    double request(const QByteArray& text, const QByteArray& expected)
    {
        QTcpSocket client;
        client.connectToHost(QHostAddress::LocalHost, port_);
        if (!client.waitForConnected(5000))
            return -1;
        QElapsedTimer t;
        t.start();
        client.write(text);
        client.flush();
        QByteArray reply;
        while (reply != expected && t.elapsed() < 120000 && client.waitForReadyRead(120000))
            reply += client.readAll();
        return reply == expected ? double(t.nsecsElapsed()) / 1e6 : -1;
    }
    // ms from a control command to its answer; -1 when it was not done.
    double control(const QJsonObject& request)
    {
        const QByteArray line = QJsonDocument(request).toJson(QJsonDocument::Compact) + '\n';
        QElapsedTimer waited;
        waited.start();
        // The control socket refuses commands while the start-up is still under way.
        while (waited.elapsed() < 30000) {
            QLocalSocket socket;
            socket.connectToServer(home_ + QStringLiteral("/quillbase.sock"));
            if (!socket.waitForConnected(2000)) {
                QThread::msleep(20);
                continue;
            }
            QElapsedTimer t;
            t.start();
            socket.write(line);
            socket.flush();
            QByteArray answer;
            while (!answer.endsWith('\n') && t.elapsed() < 120000 && socket.waitForReadyRead(120000))
                answer += socket.readAll();
            const double ms = double(t.nsecsElapsed()) / 1e6;
            const QJsonObject a = QJsonDocument::fromJson(answer).object();
            if (a.value(QStringLiteral("reason")).toString() == QLatin1String("starting")) {
                QThread::msleep(20);
                continue;
            }
            if (!a.value(QStringLiteral("ok")).toBool())
                std::fprintf(stderr, "control: %s\n", answer.constData());
            return a.value(QStringLiteral("ok")).toBool() ? ms : -1;
        }
        return -1;
    }

private:
    QString home_;
    quint16 port_;
    bool ok_ = false;
    QProcess server_;
};

// ms of the start-up maintenance and of the job list's rebuild, in this process.
std::pair<double, double> startPieces(const QString& home, int jobs)
{
    Site site(home, jobs);
    if (!site.ok())
        return {-1, -1};
    SetHomeDir(home);
    JobDatabase jdb;
    PrinterSlots printers;
    QElapsedTimer t;
    t.start();
    if (!jdb.SrvOpenDatabases() || !jdb.SrvJobOpenDB())
        return {-1, -1};
    const double maintenance = double(t.nsecsElapsed()) / 1e6;
    JobStore store(jdb, printers);
    t.start();
    store.SrvInitAllJobs();
    const double rebuild = double(t.nsecsElapsed()) / 1e6;
    return {maintenance, store.jobList().count() == jobs ? rebuild : -1};
}

double serverWithdraw(const QString& dir, int jobs)
{
    Site site(dir + QStringLiteral("/withdraw-%1").arg(jobs), jobs);
    if (!site.ok() || site.start() < 0)
        return -1;
    const double ms = site.request(Withdraw, "BRIXA\tOK\t");
    site.stop();
    return tableRows(site.mdb()) == jobs - jobs / 2 ? ms : -1;
}

double serverDeleteAll(const QString& dir, int jobs)
{
    Site site(dir + QStringLiteral("/delete-all"), jobs);
    if (!site.ok() || site.start() < 0)
        return -1;
    const double ms = site.control({{QStringLiteral("command"), QStringLiteral("delete")},
                                    {QStringLiteral("args"), QJsonObject{{QStringLiteral("all"), true}}}});
    site.stop();
    return tableRows(site.mdb()) == 0 ? ms : -1;
}

void withdrawTable(const char* title, const QList<double>& ms)
{
    std::printf("\n%s\n%10s %12s %18s\n", title, "queued", "withdraw ms", "us per job removed");
    for (int i = 0; i < Sizes.size(); ++i) {
        if (ms[i] < 0)
            std::printf("%10d %12s\n", Sizes[i], "failed");
        else
            std::printf("%10d %12.1f %18.2f\n", Sizes[i], ms[i], ms[i] * 1000.0 / (Sizes[i] / 2));
    }
}

} // namespace

int main(int argc, char** argv)
{
    QCoreApplication app(argc, argv);
    std::setvbuf(stdout, nullptr, _IOLBF, 0);
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
    std::printf("temp folder %s; %d cores\n", qPrintable(tmp.path()), QThread::idealThreadCount());

    // The largest queue three times, in folders of their own: the median, or -1
    // when any of them went wrong (this disk's speed swings from run to run).
    auto largest = [&](const std::function<double(const QString& dir)>& run) {
        std::vector<double> ms;
        for (int k = 1; k <= 3; ++k) {
            const QString dir = tmp.filePath(QStringLiteral("largest-%1").arg(k));
            QDir().mkpath(dir);
            ms.push_back(run(dir));
        }
        std::printf("  %d queued, three times: %.1f, %.1f, %.1f ms\n", Sizes.last(), ms[0], ms[1], ms[2]);
        return *std::min_element(ms.begin(), ms.end()) < 0 ? -1 : median(ms);
    };
    QList<double> local, served;
    for (int jobs : Sizes)
        local << (jobs == Sizes.last() ? largest([&](const QString& dir) { return inProcess(dir, jobs, userA, jobs / 2); })
                                       : inProcess(tmp.path(), jobs, userA, jobs / 2));
    withdrawTable("in this process: withdraw every other job (deleteJobsWhere, committed)", local);
    const double localAll = inProcess(tmp.path(), DeleteAllJobs, [](const QueuedJob&) { return true; }, DeleteAllJobs);
    std::printf("in this process: delete all of %d: %.1f ms\n", DeleteAllJobs, localAll);
    const double heap = heapPerJob(tmp.path(), MemoryJobs);
    std::printf("in this process: heap taken by the job list of %d jobs: %.0f bytes per job\n", MemoryJobs, heap);

    if (!QFile::exists(Bin + QStringLiteral("/quillbase")))
        return 0;
    for (int jobs : Sizes)
        served << (jobs == Sizes.last() ? largest([&](const QString& dir) { return serverWithdraw(dir, jobs); })
                                        : serverWithdraw(tmp.path(), jobs));
    withdrawTable("headless server: withdraw request to its reply over loopback", served);
    const double servedAll = serverDeleteAll(tmp.path(), DeleteAllJobs);
    std::printf("headless server: delete --all of %d through the control socket: %.1f ms\n", DeleteAllJobs, servedAll);

    // Start-up, the long queue and the empty one in turns.
    std::vector<double> emptyStarts, fullStarts;
    {
        Site empty(tmp.filePath(QStringLiteral("start-empty")), 0);
        Site full(tmp.filePath(QStringLiteral("start-full")), StartJobs);
        for (int run = 0; run < 3 && empty.ok() && full.ok(); ++run) {
            emptyStarts.push_back(empty.start());
            empty.stop();
            fullStarts.push_back(full.start());
            full.stop();
            std::printf("start-up run %d: empty %.0f ms, %d queued jobs %.0f ms (to the first reply)\n", run + 1,
                        emptyStarts.back(), StartJobs, fullStarts.back());
        }
    }

    for (int jobs : {0, StartJobs}) {
        const auto [maintenance, rebuild] = startPieces(tmp.filePath(QStringLiteral("pieces-%1").arg(jobs)), jobs);
        std::printf("in this process, %d queued jobs: start-up maintenance %.0f ms, job list rebuilt from tbJob in "
                    "%.0f ms\n", jobs, maintenance, rebuild);
    }

    // Memory: resident set once the first request is answered.
    qint64 emptyRss = -1, fullRss = -1;
    {
        Site empty(tmp.filePath(QStringLiteral("memory-empty")), 0);
        Site full(tmp.filePath(QStringLiteral("memory-full")), MemoryJobs);
        if (empty.ok() && full.ok() && empty.start() >= 0 && full.start() >= 0) {
            QThread::msleep(500);
            emptyRss = empty.residentBytes();
            fullRss = full.residentBytes();
        }
        std::printf("resident set: empty %.1f MB, %d queued jobs %.1f MB\n", double(emptyRss) / 1e6, MemoryJobs,
                    double(fullRss) / 1e6);
    }

    const double startAdds = median(fullStarts) - median(emptyStarts);
    const double perJob = emptyRss > 0 && fullRss > 0 ? double(fullRss - emptyRss) / MemoryJobs : -1;
    std::printf("\n%-56s %10s %10s %8s\n", "figure", "measured", "goal", "");
    std::printf("%-56s %10.1f %10s %8s\n", "withdraw half of 80,000, in process (ms, median of 3)", local.last(), "< 60",
                met(local.last() >= 0 && local.last() < 60));
    std::printf("%-56s %10.1f %10s %8s\n", "withdraw half of 80,000, request to reply (ms, med. of 3)", served.last(), "< 60",
                met(served.last() >= 0 && served.last() < 60));
    std::printf("%-56s %10.1f %10s %8s\n", "delete all of 80,000, in process (ms)", localAll, "< 30",
                met(localAll >= 0 && localAll < 30));
    std::printf("%-56s %10.1f %10s %8s\n", "delete --all of 80,000, control socket (ms)", servedAll, "< 30",
                met(servedAll >= 0 && servedAll < 30));
    std::printf("%-56s %10.0f %10s %8s\n", "start-up to first reply, empty (ms, median of 3)", median(emptyStarts), "-", "");
    std::printf("%-56s %10.0f %10s %8s\n", "start-up to first reply, 100,000 queued (ms, median of 3)", median(fullStarts),
                "-", "");
    std::printf("%-56s %10.0f %10s %8s\n", "  what 100,000 queued jobs add (ms)", startAdds, "< 150",
                met(median(fullStarts) > 0 && startAdds < 150));
    std::printf("%-56s %10.0f %10s %8s\n", "memory per queued job at 200,000, resident set (bytes)", perJob, "< 250",
                met(perJob > 0 && perJob < 250));
    std::printf("%-56s %10.0f %10s %8s\n", "  heap of the job list alone, in process (bytes)", heap, "-", "");
    return 0;
}
