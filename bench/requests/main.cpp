// How fast print requests become durable jobs, against what the disk allows.
//
//  1. The floor: one-row INSERT and COMMIT after another into a tbJob-like table
//     in a temp file on the same disk, WAL journal and synchronous=FULL as the
//     server opens brixa.mdb, written with SQLite's own C interface (nothing of
//     Qt or of the server in between).
//  2. The real headless server on a temp installation: accepted print requests
//     per second and latency with 1 and with 32 connections, every client
//     waiting for each reply before it sends the next request.
//     1 and 2 take turns in short slices (the disk's speed drifts with whatever
//     else runs); the goals are judged on the median over three rounds of each
//     round's request rate / floor rate: 1 connection at least 0.9 of the
//     floor, 32 connections at least 12 times it.
//
// Start-up time and memory with a long queue are bench-queue's.
//
// Also printed, to tell where the time of a request goes: the server's job store
// path run in this process (begin, SrvAddJob, commit per job), the round trip
// of a reply that stores nothing (an unknown operation, code 9003), and, CPU by
// CPU, the bare loop and the 1-connection load with the server and this process
// both held on that one CPU. On virtual machines a wake-up that crosses CPUs
// (client to server, server to client, the disk's interrupt to a sleeping
// committer) can cost more than the server's own work; these figures show the
// share with and without those crossings.
//
// Usage: bench-requests [seconds per load phase, default 5] [--dir DIR]
//   --dir puts the temp files under DIR (default: the system temp folder), so
//   another disk can be measured.
#include "database/jobdatabase.h"
#include "database/jobstore.h"
#include "database/sqlite.h"
#include "foundation/eventlog.h"
#include "foundation/settings.h"
#include "../support/load.h"

#include <QCoreApplication>
#include <QDate>
#include <QDir>
#include <QElapsedTimer>
#include <QFile>
#include <QProcess>
#include <QSqlQuery>
#include <QTcpServer>
#include <QTcpSocket>
#include <QTemporaryDir>
#include <QThread>
#include <QTimer>

#include <algorithm>
#include <cstdio>
#include <memory>
#include <vector>

#include <sched.h>
#include <sqlite3.h>

using namespace quill;
using namespace reqload;

namespace {


// ---------------------------------------------------------------- 1. commit rate

// A commit loop run in slices that take turns with the request load.
class CommitLoop {
public:
    virtual ~CommitLoop() = default;
    void slice(int ms)
    {
        QElapsedTimer t;
        t.start();
        while (t.elapsed() < ms && commitOne(++n_))
            ++count_;
        ns_ += t.nsecsElapsed();
    }
    // Commits per second since the last call.
    double takeRate()
    {
        const double r = ns_ > 0 ? double(count_) * 1e9 / double(ns_) : 0;
        count_ = ns_ = 0;
        return r;
    }

protected:
    virtual bool commitOne(qint64 n) = 0;

private:
    qint64 n_ = 0, count_ = 0, ns_ = 0;
};

const QString JobTable = QStringLiteral("CREATE TABLE tbJob (Id INTEGER PRIMARY KEY, PrinterId INTEGER, Job TEXT)");

// The floor: insert-and-commit into a tbJob-like table with SQLite's C interface,
// journal and synchronous mode as the server sets them.
class BareCommits : public CommitLoop {
public:
    explicit BareCommits(const QString& path)
    {
        if (sqlite3_open(path.toLocal8Bit().constData(), &db_) != SQLITE_OK) {
            std::fprintf(stderr, "floor: cannot open %s\n", qPrintable(path));
            return;
        }
        journal = pragma("PRAGMA journal_mode=WAL");
        sqlite3_exec(db_, "PRAGMA synchronous=FULL", nullptr, nullptr, nullptr);
        sync = pragma("PRAGMA synchronous");
        sqlite3_exec(db_, JobTable.toLatin1().constData(), nullptr, nullptr, nullptr);
        sqlite3_prepare_v2(db_, "INSERT INTO tbJob (Id, PrinterId, Job) VALUES (?, 1, ?)", -1, &insert_, nullptr);
    }
    ~BareCommits() override
    {
        sqlite3_finalize(insert_);
        sqlite3_close(db_);
    }
    QString journal, sync;

protected:
    bool commitOne(qint64 n) override
    {
        if (!insert_)
            return false;
        const QByteArray text = printRequest(0, n);
        sqlite3_bind_int64(insert_, 1, n);
        sqlite3_bind_text(insert_, 2, text.constData(), int(text.size()), SQLITE_TRANSIENT);
        // Autocommit: every insert is its own durable commit.
        const int rc = sqlite3_step(insert_);
        sqlite3_reset(insert_);
        if (rc == SQLITE_DONE)
            return true;
        std::fprintf(stderr, "floor: insert failed: %s\n", sqlite3_errmsg(db_));
        return false;
    }

private:
    QString pragma(const char* sql)
    {
        sqlite3_stmt* st = nullptr;
        QString value;
        if (sqlite3_prepare_v2(db_, sql, -1, &st, nullptr) == SQLITE_OK && sqlite3_step(st) == SQLITE_ROW)
            value = QString::fromUtf8(reinterpret_cast<const char*>(sqlite3_column_text(st, 0)));
        sqlite3_finalize(st);
        return value;
    }
    sqlite3* db_ = nullptr;
    sqlite3_stmt* insert_ = nullptr;
};

// The server's own store path without the network: one job per batch, as a
// lone request on one connection gets it (handed to the storage thread, committed).
class StoreCommits : public CommitLoop {
public:
    explicit StoreCommits(const QString& path)
    {
        jdb_.database().open(path);
        jdb_.database().exec(JobTable);
        jdb_.SrvJobOpenDB();
        store_ = std::make_unique<JobStore>(jdb_, slots_);
    }

protected:
    bool commitOne(qint64 n) override
    {
        return store_->SrvAddJob(PrintJob::fromText(QString::fromLatin1(printRequest(0, n))));
    }

private:
    JobDatabase jdb_;
    PrinterSlots slots_;
    std::unique_ptr<JobStore> store_;
};

// ---------------------------------------------------------------- installation and server

bool sqlOn(const QString& mdb, const QStringList& statements)
{
    try {
        Database db;
        db.open(mdb);
        db.begin();
        for (const QString& s : statements)
            db.exec(s);
        db.commit();
        db.exec(QStringLiteral("PRAGMA wal_checkpoint(TRUNCATE)"));
        return true;
    } catch (const Error& e) {
        std::fprintf(stderr, "sql: %s\n", qPrintable(e.text()));
        return false;
    }
}



// ---------------------------------------------------------------- 2. request load


// The 1-connection load and the bare loop with the server and this process held
// on one CPU, for each CPU in turn (at most 4): no wake-up crosses CPUs then,
// except the disk's interrupt where it is taken elsewhere.
struct OneCpu {
    int cpu = 0;
    double commitRate = 0, oneRate = 0;
};

std::vector<OneCpu> onEachCpu(qint64 serverPid, const QTemporaryDir& tmp, quint16 port, int sliceMs)
{
    std::vector<OneCpu> result;
    cpu_set_t mine, servers;
    if (serverPid <= 0 || sched_getaffinity(0, sizeof mine, &mine) != 0
        || sched_getaffinity(pid_t(serverPid), sizeof servers, &servers) != 0 || CPU_COUNT(&mine) < 2)
        return result;
    for (int cpu = 0; cpu < CPU_SETSIZE && result.size() < 4; ++cpu) {
        if (!CPU_ISSET(cpu, &mine))
            continue;
        cpu_set_t one;
        CPU_ZERO(&one);
        CPU_SET(cpu, &one);
        if (sched_setaffinity(0, sizeof one, &one) != 0 || sched_setaffinity(pid_t(serverPid), sizeof one, &one) != 0)
            break;
        BareCommits bare(tmp.filePath(QStringLiteral("cpu%1.mdb").arg(cpu)));
        LoadFigures one1;
        for (int i = 0; i < 4; ++i) {
            bare.slice(sliceMs);
            one1.add(load(port, 1, sliceMs));
        }
        const OneCpu c{cpu, bare.takeRate(), one1.rate()};
        std::printf("all on CPU %d: floor %.0f commits/s, 1 connection %.0f req/s, share %.2f\n", cpu,
                    c.commitRate, c.oneRate, c.oneRate / c.commitRate);
        result.push_back(c);
    }
    sched_setaffinity(0, sizeof mine, &mine);
    sched_setaffinity(pid_t(serverPid), sizeof servers, &servers);
    return result;
}

const char* met(bool yes) { return yes ? "met" : "MISSED"; }

} // namespace

int main(int argc, char** argv)
{
    QCoreApplication app(argc, argv);
    std::setvbuf(stdout, nullptr, _IOLBF, 0);
    int seconds = 5;
    QString base = QDir::tempPath();
    for (int i = 1; i < argc; ++i) {
        const QByteArray a(argv[i]);
        if (a == "--dir" && i + 1 < argc)
            base = QString::fromLocal8Bit(argv[++i]);
        else
            seconds = qBound(1, a.toInt(), 600);
    }
    QTemporaryDir tmp(base + QStringLiteral("/bench-requests-XXXXXX"));
    if (!tmp.isValid()) {
        std::fprintf(stderr, "cannot make a temp folder under %s\n", qPrintable(base));
        return 1;
    }
    // Settings scopes of this run stay inside the temp folder (the server inherits them).
    qputenv("XDG_CONFIG_DIRS", tmp.filePath(QStringLiteral("machine")).toLocal8Bit());
    qputenv("XDG_CONFIG_HOME", tmp.filePath(QStringLiteral("user")).toLocal8Bit());
    RegSetValue(HKEY_CURRENT_USER, KeyQuillbase, QStringLiteral("dwUseLog"), REG_DWORD, 1);
    std::printf("temp folder %s, %d s per load phase, %d cores\n", qPrintable(tmp.path()), seconds,
                QThread::idealThreadCount());

    // The server. Printer 1 on the emulator when it is there (a printer that
    // answers stays ready, so accepted requests get the plain "OK").
    Installation inst;
    inst.home = tmp.filePath(QStringLiteral("home"));
    inst.port = freePort();
    if (!runInit(inst.home)) {
        std::fprintf(stderr, "quillbase --init failed\n");
        return 1;
    }
    Emulator emulator;
    const quint16 printerPort = emulator.port;
    std::printf("printer 1 at 127.0.0.1#%u%s\n", printerPort, printerPort == 9 ? " (no emulator)" : " (emulator)");
    const QString mdb = inst.home + QStringLiteral("/brixa.mdb");
    if (!sqlOn(mdb, {QStringLiteral("UPDATE tbServer SET port = %1, AutoStartService = 1").arg(inst.port),
                     QStringLiteral("INSERT INTO tbPrinter (Id, Name, PrinterTypeId, ConnectionUsed, Connection2, "
                                    "Passive) VALUES (1, 'Bench', 1, 2, '127.0.0.1#%1', 0)")
                         .arg(printerPort)})) {
        return 1;
    }

    // The disk's speed drifts with whatever else runs, so within each round the bare
    // commit loop and the two loads take turns in short slices, and each round's
    // request rates are compared with that round's commit rate.
    auto show = [](const char* name, const LoadFigures& f) {
        std::printf("  %-15s %7.0f req/s  p50 %6.2f ms  p99 %6.2f ms  max %6.2f ms  (plain OK %lld, OK with code "
                    "%lld, ERR %lld, connected %d)\n",
                    name, f.rate(), percentile(f.latencies, 0.5), percentile(f.latencies, 0.99),
                    percentile(f.latencies, 1.0), f.plainOk, f.otherOk, f.errors,
                    f.connected);
    };
    const int rounds = 3, slices = 8, sliceMs = std::max(200, seconds * 1000 / slices);
    std::vector<double> storeRates, echoRates, echoManyRates, commitRates, oneRates, manyRates,
        oneRatios, manyRatios, oneP50, oneP99, manyP50, manyP99, oneAboveUs, oneCeiling;
    QString journal, sync;
    std::vector<OneCpu> oneCpu;
    std::vector<double> cpuUs[4]; // server CPU per request: 9003 on 1 and 32, storing on 1 and 32 connections
    {
        ServerProcess server(inst);
        if (server.start() < 0) {
            std::fprintf(stderr, "server did not start\n");
            return 1;
        }
        for (int r = 1; r <= rounds; ++r) {
            BareCommits bare(tmp.filePath(QStringLiteral("commit%1.mdb").arg(r)));
            StoreCommits storePath(tmp.filePath(QStringLiteral("store%1.mdb").arg(r)));
            journal = bare.journal;
            sync = bare.sync;
            const qint64 pid = server.processId();
            const LoadFigures echo = load(inst.port, 1, 1000, false, pid);
            // What this machine's two ends of the sockets manage when nothing is stored:
            // a ceiling for the 32-connection load.
            const LoadFigures echoMany = load(inst.port, 32, 1000, false, pid);
            LoadFigures one, many;
            for (int i = 0; i < slices; ++i) {
                bare.slice(sliceMs);
                one.add(load(inst.port, 1, sliceMs, true, pid));
                bare.slice(sliceMs);
                many.add(load(inst.port, 32, sliceMs, true, pid));
                storePath.slice(sliceMs / 2);
            }
            const double commitRate = bare.takeRate();
            const double storeRate = storePath.takeRate();
            std::printf("round %d: floor %.0f commits/s, job store in this process %.0f jobs/s\n", r,
                        commitRate, storeRate);
            std::printf("  %-15s %7.0f req/s  p50 %6.2f ms  (round trip of a reply that stores nothing)\n",
                        "1 conn., 9003", echo.rate(), percentile(echo.latencies, 0.5));
            std::printf("  %-15s %7.0f req/s  p50 %6.2f ms  (the same on 32 connections)\n", "32 conn., 9003",
                        echoMany.rate(), percentile(echoMany.latencies, 0.5));
            show("1 connection", one);
            show("32 connections", many);
            std::printf("  share of this round's floor: 1 connection %.2f, 32 connections %.2f\n",
                        one.rate() / commitRate, many.rate() / commitRate);
            std::printf("  server CPU us per request: 9003 %.1f / %.1f, storing %.1f / %.1f (1 / 32 connections)\n",
                        echo.cpuUs(), echoMany.cpuUs(), one.cpuUs(), many.cpuUs());
            cpuUs[0].push_back(echo.cpuUs());
            cpuUs[1].push_back(echoMany.cpuUs());
            cpuUs[2].push_back(one.cpuUs());
            cpuUs[3].push_back(many.cpuUs());
            commitRates.push_back(commitRate);
            storeRates.push_back(storeRate);
            echoRates.push_back(echo.rate());
            echoManyRates.push_back(echoMany.rate() / commitRate);
            oneRates.push_back(one.rate());
            manyRates.push_back(many.rate());
            oneRatios.push_back(one.rate() / commitRate);
            oneAboveUs.push_back(1e6 / one.rate() - 1e6 / commitRate);
            oneCeiling.push_back(1.0 / (1.0 + commitRate / echo.rate()));
            manyRatios.push_back(many.rate() / commitRate);
            oneP50.push_back(percentile(one.latencies, 0.5));
            oneP99.push_back(percentile(one.latencies, 0.99));
            manyP50.push_back(percentile(many.latencies, 0.5));
            manyP99.push_back(percentile(many.latencies, 0.99));
        }
        oneCpu = onEachCpu(server.processId(), tmp, inst.port, sliceMs);
        std::printf("server with the jobs of the load stopped (SIGTERM) in %lld ms\n", server.stop());
    }

    auto median = [](std::vector<double> v) {
        std::sort(v.begin(), v.end());
        return v[v.size() / 2];
    };
    std::printf("\nmedians of %d rounds\n%-44s %10s %16s %8s\n", rounds, "figure", "measured", "goal", "");
    std::printf("%-44s %10.0f %16s %8s\n", qPrintable(QStringLiteral("floor commits/s (journal %1, synchronous %2)")
                                                          .arg(journal, sync)),
                median(commitRates), "-", "");
    std::printf("%-44s %10.0f %16s %8s\n", "job store path in-process (1 job/commit)/s", median(storeRates), "-", "");
    std::printf("%-44s %10.0f %16s %8s\n", "replies/s storing nothing (9003), 1 conn.", median(echoRates), "-", "");
    std::printf("%-44s %10.0f %16s %8s\n", "requests/s, 1 connection", median(oneRates), "-", "");
    std::printf("%-44s %10.3f %16s %8s\n", "  as a share of the floor", median(oneRatios), ">= 0.90",
                met(median(oneRatios) >= 0.9));
    for (const OneCpu& c : oneCpu)
        std::printf("%-44s %10.2f %16s\n",
                    qPrintable(QStringLiteral("  all on CPU %1 (%2 commits/s there)").arg(c.cpu).arg(c.commitRate, 0, 'f', 0)),
                    c.oneRate / c.commitRate, "-");
    std::printf("%-44s %10.2f %16s\n%-44s %10.2f %16s\n", "  p50 ms", median(oneP50), "-", "  p99 ms", median(oneP99), "-");
    // The share depends on the disk as much as on the server: a request costs a
    // commit plus a fixed time on top, so the share reaches 0.9 once a commit
    // takes nine times that fixed time. That time drifts least of these figures.
    const double aboveUs = median(oneAboveUs);
    std::printf("%-44s %10.0f %16s\n", "  us per request above a commit", aboveUs, "-");
    std::printf("%-44s %10.0f %16s\n", "  us a commit took (floor)", 1e6 / median(commitRates), "-");
    std::printf("%-44s %10.0f %16s\n", "  us a commit must take for a 0.9 share", 9 * aboveUs, "-");
    // What a server would reach whose request cost nothing but the floor's own
    // commit and the round trip of a reply that stores nothing.
    std::printf("%-44s %10.3f %16s\n", "  share at a commit + a 9003 round trip", median(oneCeiling), "-");
    std::printf("%-44s %10.0f %16s %8s\n", "requests/s, 32 connections", median(manyRates), "-", "");
    std::printf("%-44s %10.2f %16s %8s\n", "  as a multiple of the floor", median(manyRatios), ">= 12",
                met(median(manyRatios) >= 12.0));
    std::printf("%-44s %10.2f %16s\n%-44s %10.2f %16s\n", "  p50 ms", median(manyP50), "-", "  p99 ms", median(manyP99), "-");
    std::printf("%-44s %10.2f %16s\n", "  storing nothing (9003), as a multiple", median(echoManyRates), "-");
    // CPU time drifts less with the disk than rates do: where a change in the
    // server shows first.
    std::printf("%-44s %10.1f %16s\n", "server CPU us/request, storing, 1 conn.", median(cpuUs[2]), "-");
    std::printf("%-44s %10.1f %16s\n", "server CPU us/request, storing, 32 conn.", median(cpuUs[3]), "-");
    std::printf("%-44s %10.1f %16s\n", "server CPU us/request, 9003, 1 conn.", median(cpuUs[0]), "-");
    std::printf("%-44s %10.1f %16s\n", "server CPU us/request, 9003, 32 conn.", median(cpuUs[1]), "-");
    return 0;
}
