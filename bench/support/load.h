#pragma once
// Shared by the request benches: the real headless server on an installation
// made by `quillbase --init`, and a request load of N connections, each client
// sending its next print request once the previous reply is whole.
#include "foundation/eventlog.h"

#include <QDate>
#include <QDir>
#include <QElapsedTimer>
#include <QEventLoop>
#include <QFile>
#include <QProcess>
#include <QTcpServer>
#include <QTcpSocket>
#include <QThread>
#include <QTimer>

#include <algorithm>
#include <memory>
#include <vector>

namespace reqload {

using quill::WeeklyLogName;

const QString Bin = QStringLiteral(QUILL_BIN_DIR);
const QByteArray PlainOk = "BRIXA\tOK\t";

inline QByteArray printRequest(int client, qint64 n)
{
    return "BRIXA\t1.00\tP\t1\t1\t1\tBENCH" + QByteArray::number(client) + "\t0\t\t\tbench\tjob "
        + QByteArray::number(n);
}

inline double percentile(std::vector<qint64> ns, double p)
{
    if (ns.empty())
        return 0;
    std::sort(ns.begin(), ns.end());
    const size_t i = std::min(ns.size() - 1, size_t(double(ns.size()) * p));
    return double(ns[i]) / 1e6;
}

struct Installation {
    QString home;
    quint16 port = 0;
};

inline bool runInit(const QString& home)
{
    QProcess p;
    p.start(Bin + QStringLiteral("/quillbase"), {QStringLiteral("--init"), QStringLiteral("--home"), home});
    return p.waitForFinished(60000) && p.exitStatus() == QProcess::NormalExit && p.exitCode() == 0;
}


inline quint16 freePort()
{
    QTcpServer s;
    s.listen(QHostAddress::LocalHost, 0);
    return s.serverPort();
}

inline bool accepts(quint16 port)
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

// CPU time the process has had so far, all its threads, in ns (0 when unknown).
inline qint64 processCpuNs(qint64 pid)
{
    if (pid <= 0)
        return 0;
    const QString tasks = QStringLiteral("/proc/%1/task").arg(pid);
    qint64 ns = 0;
    for (const QString& t : QDir(tasks).entryList(QDir::Dirs | QDir::NoDotAndDotDot)) {
        QFile f(tasks + QLatin1Char('/') + t + QStringLiteral("/schedstat"));
        if (f.open(QIODevice::ReadOnly))
            ns += f.readAll().split(' ').value(0).toLongLong();
    }
    return ns;
}

struct LoadFigures {
    qint64 counted = 0, ns = 0;
    qint64 serverCpuNs = 0; // the server's CPU time while measured
    std::vector<qint64> latencies;
    qint64 plainOk = 0, otherOk = 0, errors = 0;
    int connected = 0;

    double rate() const { return ns ? double(counted) * 1e9 / double(ns) : 0; }
    // The server's CPU time per answered request, in microseconds.
    double cpuUs() const { return counted ? double(serverCpuNs) / 1e3 / double(counted) : 0; }
    void add(const LoadFigures& o)
    {
        counted += o.counted;
        ns += o.ns;
        serverCpuNs += o.serverCpuNs;
        latencies.insert(latencies.end(), o.latencies.begin(), o.latencies.end());
        plainOk += o.plainOk;
        otherOk += o.otherOk;
        errors += o.errors;
        connected = std::min(connected ? connected : o.connected, o.connected);
    }
};

// `connections` clients, each sending its next request when the previous reply is
// complete. A reply is complete when it is the plain "OK" or ends in its four-digit
// code. Figures cover the time after a warm-up of 10 % of the phase; the server's
// CPU time is read when `serverPid` is given.
inline LoadFigures load(quint16 port, int connections, int ms, bool storing = true, qint64 serverPid = 0)
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
        f.serverCpuNs = -processCpuNs(serverPid);
    });
    QTimer::singleShot(warmup + ms, &loop, [&] {
        stopping = true;
        measuring = false;
        f.ns = measured.nsecsElapsed();
        f.serverCpuNs += processCpuNs(serverPid);
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

// The emulated printer 1 when the emulator is built (a printer that answers stays
// ready, so accepted requests get the plain "OK"); port 9, which nobody answers, otherwise.
struct Emulator {
    QProcess process;
    quint16 port = 9;
    Emulator()
    {
        if (!QFile::exists(Bin + QStringLiteral("/mp104c-emulator")))
            return;
        QProcessEnvironment env = QProcessEnvironment::systemEnvironment();
        env.insert(QStringLiteral("QT_QPA_PLATFORM"), QStringLiteral("offscreen"));
        process.setProcessEnvironment(env);
        process.start(Bin + QStringLiteral("/mp104c-emulator"), {QStringLiteral("--listen"), QStringLiteral("127.0.0.1:0")});
        QElapsedTimer wait;
        wait.start();
        bool ready = false;
        while (!ready && wait.elapsed() < 10000 && process.waitForReadyRead(10000)) {
            while (process.canReadLine()) {
                const QByteArray line = process.readLine().trimmed();
                if (line.startsWith("listening "))
                    port = quint16(line.mid(10).toUInt());
                ready = ready || line == "ready";
            }
        }
        if (!ready)
            port = 9;
    }
    ~Emulator()
    {
        process.terminate();
        process.waitForFinished(5000);
    }
};

} // namespace reqload
