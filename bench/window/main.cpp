// What the window costs the server: the same load against the server run
// headless and with its window open (offscreen platform, so it lays out and
// paints as on a desktop), in one run, taking turns.
//
// Each phase is a fresh installation with two emulated network printers that
// print the jobs while they arrive (the job list grows, rows leave as labels
// print, the printers' states change). Into it go 1,000 print requests over
// 1 connection, then 1,000 over 32 connections, every client sending its next
// request when the previous reply is complete. Printed per mode: requests per
// second (first request to last reply) and the server's CPU time per request
// (/proc/<pid>/stat utime + stime), the median over the rounds; then the
// window's cost as the share of headless throughput it loses.
//
// A load of 1,000 takes well under a second: the rounds are many, the median
// is what counts.
//
// Usage: bench-window [--rounds N (7)] [--requests N (1000)]
#include "../support/site.h"

#include <QCommandLineParser>
#include <QCoreApplication>
#include <QEventLoop>
#include <QFile>
#include <QTimer>

#include <cstdio>
#include <unistd.h>

namespace {

using bench::die;
using bench::Failure;

constexpr int Printers = 2;

// utime + stime of a process, in ms.
double cpuMs(qint64 pid)
{
    QFile f(QStringLiteral("/proc/%1/stat").arg(pid));
    if (!f.open(QIODevice::ReadOnly))
        return -1;
    const QByteArray s = f.readAll();
    const QList<QByteArray> w = s.mid(s.lastIndexOf(')') + 2).split(' ');
    return double(w.value(11).toLongLong() + w.value(12).toLongLong()) * 1000.0 / double(sysconf(_SC_CLK_TCK));
}

struct Figures {
    double rate = 0;     // requests per second
    double cpuPerReq = 0; // server CPU ms per request
    int ok = 0, failed = 0;
};

// `total` requests over `connections` clients, each waiting for its reply.
Figures load(bench::Site& site, int connections, int total)
{
    struct Client {
        QTcpSocket socket;
        QByteArray buffer;
    };
    std::vector<std::unique_ptr<Client>> clients;
    for (int k = 0; k < connections; ++k) {
        auto c = std::make_unique<Client>();
        c->socket.connectToHost(QHostAddress::LocalHost, site.port);
        if (!c->socket.waitForConnected(5000))
            die(QStringLiteral("connection %1 of %2 not accepted").arg(k + 1).arg(connections));
        c->socket.setSocketOption(QAbstractSocket::LowDelayOption, 1);
        clients.push_back(std::move(c));
    }
    Figures f;
    int sent = 0, answered = 0;
    QEventLoop loop;
    auto send = [&](Client& c) {
        ++sent;
        const QByteArray request = "BRIXA\t1.00\tP\t" + QByteArray::number(sent % Printers + 1) + "\t1\t1\tBENCH\t0\t" +
            QByteArray::number(sent) + "\t" + QByteArray::number(sent) + "\tbench\tGreenfee\t\t18 holes\tYellow tee\tStart 10:40";
        c.buffer.clear();
        c.socket.write(request);
        c.socket.flush();
    };
    for (auto& cp : clients) {
        Client* c = cp.get();
        QObject::connect(&c->socket, &QTcpSocket::readyRead, &loop, [&, c] {
            c->buffer += c->socket.readAll();
            const QByteArray& b = c->buffer;
            const bool plain = b == "BRIXA\tOK\t";
            const bool coded = b.size() > 4 && b.contains('\r') &&
                std::all_of(b.end() - 4, b.end(), [](char ch) { return ch >= '0' && ch <= '9'; });
            if (!plain && !coded)
                return;
            ++answered;
            ++(plain ? f.ok : f.failed);
            if (sent < total)
                send(*c);
            else if (answered == total)
                loop.quit();
        });
    }
    // Bounded: a server that stops answering ends the phase.
    QTimer::singleShot(120000, &loop, [&] { loop.quit(); });
    const double cpu0 = cpuMs(site.server.processId());
    QElapsedTimer t;
    t.start();
    for (auto& c : clients)
        if (sent < total)
            send(*c);
    loop.exec();
    const qint64 ns = t.nsecsElapsed();
    const double cpu1 = cpuMs(site.server.processId());
    if (answered < total)
        die(QStringLiteral("%1 of %2 requests answered within 2 minutes").arg(answered).arg(total));
    f.rate = double(total) * 1e9 / double(ns);
    f.cpuPerReq = (cpu1 - cpu0) / double(total);
    return f;
}

double median(std::vector<double> v)
{
    std::sort(v.begin(), v.end());
    return v.empty() ? 0 : v[v.size() / 2];
}

const int Connections[] = {1, 32};

} // namespace

int main(int argc, char** argv)
{
    QCoreApplication app(argc, argv);
    QCommandLineParser parser;
    const QCommandLineOption roundsOpt(QStringLiteral("rounds"), QStringLiteral("Rounds of each mode."),
                                       QStringLiteral("n"), QStringLiteral("7"));
    const QCommandLineOption requestsOpt(QStringLiteral("requests"), QStringLiteral("Requests per load."),
                                         QStringLiteral("n"), QStringLiteral("1000"));
    parser.addOptions({roundsOpt, requestsOpt});
    parser.addHelpOption();
    parser.process(app);
    const int rounds = std::max(1, parser.value(roundsOpt).toInt());
    const int requests = std::max(32, parser.value(requestsOpt).toInt());

    // [mode][connections index] -> one figure per round; mode 0 headless, 1 window.
    std::vector<double> rate[2][2], cpu[2][2];
    try {
        for (int round = 0; round < rounds; ++round) {
            // Alternate which mode goes first, so drift in the disk's speed falls on both.
            for (int turn = 0; turn < 2; ++turn) {
                const int mode = (round + turn) % 2;
                bench::Site site(Printers);
                site.build();
                site.startServer(mode == 0);
                // Past the start-up (printer checks, the window's first paint) in both modes.
                QThread::msleep(500);
                for (int c = 0; c < 2; ++c) {
                    const Figures f = load(site, Connections[c], requests);
                    if (f.failed)
                        die(QStringLiteral("%1 requests refused").arg(f.failed));
                    rate[mode][c].push_back(f.rate);
                    cpu[mode][c].push_back(f.cpuPerReq);
                    std::printf("round %d %-8s %2d connection(s): %7.0f requests/s, %.3f ms server CPU per request\n",
                                round + 1, mode ? "window" : "headless", Connections[c], f.rate, f.cpuPerReq);
                    std::fflush(stdout);
                }
            }
        }
    } catch (const Failure& f) {
        std::fprintf(stderr, "bench-window: %s\n", qPrintable(f.text));
        return 1;
    }

    std::printf("\n%d requests per load, median of %d rounds\n", requests, rounds);
    std::printf("%-16s %12s %12s %14s %14s %12s\n", "connections", "headless/s", "window/s", "CPU headless", "CPU window",
                "window cost");
    for (int c = 0; c < 2; ++c) {
        const double h = median(rate[0][c]), w = median(rate[1][c]);
        const double cost = h > 0 ? (1.0 - w / h) * 100.0 : 0;
        std::printf("%-16d %12.0f %12.0f %11.3f ms %11.3f ms %11.1f%%  (goal < 10%%: %s)\n", Connections[c], h, w,
                    median(cpu[0][c]), median(cpu[1][c]), cost, cost < 10.0 ? "met" : "MISSED");
    }
    return 0;
}
