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

namespace {

const QString Bin = QStringLiteral(QUILL_BIN_DIR);
const QByteArray PlainOk = "BRIXA\tOK\t";

QByteArray printRequest(int client, qint64 n)
{
    return "BRIXA\t1.00\tP\t1\t1\t1\tBENCH" + QByteArray::number(client) + "\t0\t\t\tbench\tjob "
        + QByteArray::number(n);
}

double percentile(std::vector<qint64> ns, double p)
{
    if (ns.empty())
        return 0;
    std::sort(ns.begin(), ns.end());
    const size_t i = std::min(ns.size() - 1, size_t(double(ns.size()) * p));
    return double(ns[i]) / 1e6;
}

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

struct Installation {
    QString home;
    quint16 port = 0;
};

bool runInit(const QString& home)
{
    QProcess p;
    p.start(Bin + QStringLiteral("/quillbase"), {QStringLiteral("--init"), QStringLiteral("--home"), home});
    return p.waitForFinished(60000) && p.exitStatus() == QProcess::NormalExit && p.exitCode() == 0;
}

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

quint16 freePort()
{
    QTcpServer s;
    s.listen(QHostAddress::LocalHost, 0);
    return s.serverPort();
}

bool accepts(quint16 port)
{
    QTcpSocket probe;
    probe.connectToHost(QHostAddress::LocalHost, port);
    return probe.waitForConnected(100);
}

class ServerProcess {
public:
    explicit ServerProcess(const Installation& inst) : inst_(inst) {}
    ~ServerProcess() { stop(); }
    qint64 processId() const { return p_.processId(); }

    // Starts the server; returns ms until the port accepts (-1 on failure) and,
    // in *logMs, until the start-up line is in the log.
    qint64 start(qint64* logMs = nullptr)
    {
        const QString logFile = inst_.home + QLatin1Char('/') + WeeklyLogName(QStringLiteral("Quillbase"), QDate::currentDate());
        const qsizetype logBefore = QFile(logFile).size();
        const int startedBefore = countStarted(logFile);
        // Its log lines (a line per printed job) on the terminal would only bury the figures.
        p_.setStandardOutputFile(QProcess::nullDevice());
        p_.setStandardErrorFile(QProcess::nullDevice());
        QElapsedTimer t;
        t.start();
        p_.start(Bin + QStringLiteral("/quillbase"), {QStringLiteral("--headless"), QStringLiteral("--home"), inst_.home});
        if (!p_.waitForStarted(10000))
            return -1;
        qint64 portMs = -1, lineMs = -1;
        while (t.elapsed() < 60000 && (portMs < 0 || lineMs < 0)) {
            if (p_.state() != QProcess::Running)
                return -1;
            if (portMs < 0 && accepts(inst_.port))
                portMs = t.elapsed();
            if (lineMs < 0 && QFile(logFile).size() != logBefore && countStarted(logFile) > startedBefore)
                lineMs = t.elapsed();
            if (portMs < 0 || lineMs < 0)
                QThread::usleep(2000);
        }
        if (logMs)
            *logMs = lineMs;
        return portMs;
    }
    // SIGTERM, then SIGKILL after 20 s; ms until the process ended (-1 when killed).
    qint64 stop()
    {
        if (p_.state() == QProcess::NotRunning)
            return 0;
        QElapsedTimer t;
        t.start();
        p_.terminate();
        if (p_.waitForFinished(20000))
            return t.elapsed();
        p_.kill();
        p_.waitForFinished(5000);
        return -1;
    }

private:
    static int countStarted(const QString& logFile)
    {
        QFile f(logFile);
        return f.open(QIODevice::ReadOnly) ? int(f.readAll().count("Quillbase succesfully started")) : 0;
    }
    Installation inst_;
    QProcess p_;
};

// ---------------------------------------------------------------- 2. request load

struct LoadFigures {
    qint64 counted = 0, ns = 0;
    std::vector<qint64> latencies;
    qint64 plainOk = 0, otherOk = 0, errors = 0;
    int connected = 0;

    double rate() const { return ns ? double(counted) * 1e9 / double(ns) : 0; }
    void add(const LoadFigures& o)
    {
        counted += o.counted;
        ns += o.ns;
        latencies.insert(latencies.end(), o.latencies.begin(), o.latencies.end());
        plainOk += o.plainOk;
        otherOk += o.otherOk;
        errors += o.errors;
        connected = std::min(connected ? connected : o.connected, o.connected);
    }
};

// `connections` clients, each sending its next request when the previous reply is
// complete. A reply is complete when it is the plain "OK" or ends in its four-digit
// code. Figures cover the time after a warm-up of 10 % of the phase.
LoadFigures load(quint16 port, int connections, int ms, bool storing = true)
{
    struct Client {
        QTcpSocket socket;
        QByteArray buffer;
        QElapsedTimer sent;
        qint64 n = 0;
    };
    LoadFigures f;
    std::vector<std::unique_ptr<Client>> clients;
    for (int k = 0; k < connections; ++k) {
        auto c = std::make_unique<Client>();
        c->socket.connectToHost(QHostAddress::LocalHost, port);
        if (!c->socket.waitForConnected(5000))
            break;
        c->socket.setSocketOption(QAbstractSocket::LowDelayOption, 1);
        clients.push_back(std::move(c));
    }
    f.connected = int(clients.size());
    std::vector<qint64>& latencies = f.latencies;
    const int warmup = ms / 10;
    bool measuring = false, stopping = false;
    QElapsedTimer measured;
    QEventLoop loop;
    int outstanding = 0;

    auto send = [&](int k) {
        Client& c = *clients[size_t(k)];
        c.buffer.clear();
        c.sent.start();
        // Not storing: an unknown operation, answered 9003 without touching the database.
        c.socket.write(storing ? printRequest(k + 1, ++c.n) : QByteArray("BRIXA\t1.00\tX"));
        // Out now, as a client that waits for its reply sends it, not on the next turn of the loop.
        c.socket.flush();
        ++outstanding;
    };
    for (int k = 0; k < int(clients.size()); ++k) {
        Client* c = clients[size_t(k)].get();
        QObject::connect(&c->socket, &QTcpSocket::readyRead, &loop, [&, c, k] {
            c->buffer += c->socket.readAll();
            const QByteArray& b = c->buffer;
            const bool plain = b == PlainOk;
            const bool coded = b.size() > 4 && b.contains('\r') && std::all_of(b.end() - 4, b.end(), [](char ch) {
                                   return ch >= '0' && ch <= '9';
                               });
            if (!plain && !coded)
                return;
            --outstanding;
            const qint64 ns = c->sent.nsecsElapsed();
            if (measuring) {
                latencies.push_back(ns);
                ++f.counted;
                if (plain)
                    ++f.plainOk;
                else if (b.startsWith(PlainOk))
                    ++f.otherOk;
                else
                    ++f.errors;
            }
            if (!stopping)
                send(k);
            else if (outstanding == 0)
                loop.quit();
        });
    }
    QTimer::singleShot(warmup, &loop, [&] {
        measuring = true;
        measured.start();
    });
    QTimer::singleShot(warmup + ms, &loop, [&] {
        stopping = true;
        measuring = false;
        f.ns = measured.nsecsElapsed();
        if (outstanding == 0)
            loop.quit();
    });
    // Bounded: a server that stops answering ends the phase too.
    QTimer::singleShot(warmup + ms + 30000, &loop, [&] { loop.quit(); });
    for (int k = 0; k < int(clients.size()); ++k)
        send(k);
    loop.exec();
    return f;
}

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
    QProcess emulator;
    quint16 printerPort = 9;
    if (QFile::exists(Bin + QStringLiteral("/mp104c-emulator"))) {
        QProcessEnvironment env = QProcessEnvironment::systemEnvironment();
        env.insert(QStringLiteral("QT_QPA_PLATFORM"), QStringLiteral("offscreen"));
        emulator.setProcessEnvironment(env);
        emulator.start(Bin + QStringLiteral("/mp104c-emulator"), {QStringLiteral("--listen"), QStringLiteral("127.0.0.1:0")});
        QElapsedTimer wait;
        wait.start();
        bool ready = false;
        while (!ready && wait.elapsed() < 10000 && emulator.waitForReadyRead(10000)) {
            while (emulator.canReadLine()) {
                const QByteArray line = emulator.readLine().trimmed();
                if (line.startsWith("listening "))
                    printerPort = quint16(line.mid(10).toUInt());
                ready = ready || line == "ready";
            }
        }
        if (!ready)
            printerPort = 9;
    }
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
    std::vector<double> storeRates, echoRates, commitRates, oneRates, manyRates,
        oneRatios, manyRatios, oneP50, oneP99, manyP50, manyP99;
    QString journal, sync;
    std::vector<OneCpu> oneCpu;
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
            const LoadFigures echo = load(inst.port, 1, 1000, false);
            LoadFigures one, many;
            for (int i = 0; i < slices; ++i) {
                bare.slice(sliceMs);
                one.add(load(inst.port, 1, sliceMs));
                bare.slice(sliceMs);
                many.add(load(inst.port, 32, sliceMs));
                storePath.slice(sliceMs / 2);
            }
            const double commitRate = bare.takeRate();
            const double storeRate = storePath.takeRate();
            std::printf("round %d: floor %.0f commits/s, job store in this process %.0f jobs/s\n", r,
                        commitRate, storeRate);
            std::printf("  %-15s %7.0f req/s  p50 %6.2f ms  (round trip of a reply that stores nothing)\n",
                        "1 conn., 9003", echo.rate(), percentile(echo.latencies, 0.5));
            show("1 connection", one);
            show("32 connections", many);
            std::printf("  share of this round's floor: 1 connection %.2f, 32 connections %.2f\n",
                        one.rate() / commitRate, many.rate() / commitRate);
            commitRates.push_back(commitRate);
            storeRates.push_back(storeRate);
            echoRates.push_back(echo.rate());
            oneRates.push_back(one.rate());
            manyRates.push_back(many.rate());
            oneRatios.push_back(one.rate() / commitRate);
            manyRatios.push_back(many.rate() / commitRate);
            oneP50.push_back(percentile(one.latencies, 0.5));
            oneP99.push_back(percentile(one.latencies, 0.99));
            manyP50.push_back(percentile(many.latencies, 0.5));
            manyP99.push_back(percentile(many.latencies, 0.99));
        }
        oneCpu = onEachCpu(server.processId(), tmp, inst.port, sliceMs);
        std::printf("server with the jobs of the load stopped (SIGTERM) in %lld ms\n", server.stop());
    }

    emulator.terminate();
    emulator.waitForFinished(5000);

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
    std::printf("%-44s %10.0f %16s %8s\n", "requests/s, 32 connections", median(manyRates), "-", "");
    std::printf("%-44s %10.2f %16s %8s\n", "  as a multiple of the floor", median(manyRatios), ">= 12",
                met(median(manyRatios) >= 12.0));
    std::printf("%-44s %10.2f %16s\n%-44s %10.2f %16s\n", "  p50 ms", median(manyP50), "-", "  p99 ms", median(manyP99), "-");
    return 0;
}
