// What the window costs the server: the same load against the server run
// headless and with its window open (offscreen platform, so it lays out and
// paints as on a desktop), in one run, taking turns.
//
// Each round makes two fresh installations, each with two emulated network
// printers that print the jobs while they arrive (the job list grows, rows
// leave as labels print, the printers' states change), and runs one server
// headless and one with its window. Into each go 1,000 print requests over
// 1 connection, then 1,000 over 32 connections, every client sending its next
// request when the previous reply is complete; the two servers take turns in
// slices of 100 requests. Printed per round and as the median over the
// rounds: requests per second, the server's CPU time per request
// (/proc/<pid>/stat utime + stime) and the window's cost, the share of the
// headless throughput it loses.
//
// Usage: bench-window [--rounds N (9)] [--requests N (1000)]
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
using bench::cpuMs;

constexpr int Printers = 2;


// A server's clients: `connections` sockets, each sending its next request
// when the previous reply is complete.
class Clients {
public:
    Clients(bench::Site& site, int connections) : site_(site)
    {
        for (int k = 0; k < connections; ++k) {
            auto c = std::make_unique<Client>();
            c->socket.connectToHost(QHostAddress::LocalHost, site.port);
            if (!c->socket.waitForConnected(5000))
                die(QStringLiteral("connection %1 of %2 not accepted").arg(k + 1).arg(connections));
            c->socket.setSocketOption(QAbstractSocket::LowDelayOption, 1);
            Client* raw = c.get();
            QObject::connect(&c->socket, &QTcpSocket::readyRead, &loop_, [this, raw] { replied(*raw); });
            clients_.push_back(std::move(c));
        }
    }

    // `count` requests; adds their time and the server's CPU time to the totals.
    void run(int count)
    {
        total_ = count;
        sent_ = answered_ = 0;
        // Bounded: a server that stops answering ends the slice.
        QTimer guard;
        guard.setSingleShot(true);
        QObject::connect(&guard, &QTimer::timeout, &loop_, [this] { loop_.quit(); });
        guard.start(120000);
        const double cpu0 = cpuMs(site_.server.processId());
        QElapsedTimer t;
        t.start();
        for (auto& c : clients_)
            if (sent_ < total_)
                send(*c);
        loop_.exec();
        ns += t.nsecsElapsed();
        cpu += cpuMs(site_.server.processId()) - cpu0;
        requests += answered_;
        if (answered_ < total_)
            die(QStringLiteral("%1 of %2 requests answered within 2 minutes").arg(answered_).arg(total_));
        if (refused)
            die(QStringLiteral("%1 requests refused").arg(refused));
    }

    qint64 ns = 0, requests = 0, refused = 0;
    double cpu = 0; // ms

private:
    struct Client {
        QTcpSocket socket;
        QByteArray buffer;
    };
    void send(Client& c)
    {
        const QByteArray n = QByteArray::number(++number_);
        c.buffer.clear();
        c.socket.write("BRIXA\t1.00\tP\t" + QByteArray::number(number_ % Printers + 1) + "\t1\t1\tBENCH\t0\t" + n + "\t" +
                       n + "\tbench\tGreenfee\t\t18 holes\tYellow tee\tStart 10:40");
        c.socket.flush();
        ++sent_;
    }
    void replied(Client& c)
    {
        c.buffer += c.socket.readAll();
        const QByteArray& b = c.buffer;
        const bool plain = b == "BRIXA\tOK\t";
        const bool coded = b.size() > 4 && b.contains('\r') &&
            std::all_of(b.end() - 4, b.end(), [](char ch) { return ch >= '0' && ch <= '9'; });
        if (!plain && !coded)
            return;
        ++answered_;
        refused += !plain;
        if (sent_ < total_)
            send(c);
        else if (answered_ == total_)
            loop_.quit();
    }

    bench::Site& site_;
    std::vector<std::unique_ptr<Client>> clients_;
    QEventLoop loop_;
    int total_ = 0, sent_ = 0, answered_ = 0;
    qint64 number_ = 0;
};

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
                                       QStringLiteral("n"), QStringLiteral("9"));
    const QCommandLineOption requestsOpt(QStringLiteral("requests"), QStringLiteral("Requests per load."),
                                         QStringLiteral("n"), QStringLiteral("1000"));
    parser.addOptions({roundsOpt, requestsOpt});
    parser.addHelpOption();
    parser.process(app);
    const int rounds = std::max(1, parser.value(roundsOpt).toInt());
    const int requests = std::max(32, parser.value(requestsOpt).toInt());

    // Both servers run at once and take turns in slices of 100 requests, so a
    // change in the disk's speed (other work on the machine) falls on both.
    // [mode][connections index] -> one figure per round; mode 0 headless, 1 window.
    constexpr int Slice = 100;
    std::vector<double> rate[2][2], cpu[2][2], cost[2];
    try {
        for (int round = 0; round < rounds; ++round) {
            bench::Site headless(Printers), window(Printers);
            bench::Site* sites[2] = {&headless, &window};
            for (int mode = 0; mode < 2; ++mode) {
                sites[mode]->build();
                sites[mode]->startServer(mode == 0);
            }
            // Past the start-up (printer checks, the window's first paint).
            QThread::msleep(500);
            for (int c = 0; c < 2; ++c) {
                Clients headlessClients(headless, Connections[c]), windowClients(window, Connections[c]);
                Clients* clients[2] = {&headlessClients, &windowClients};
                for (int done = 0, turn = 0; done < requests; done += Slice, ++turn) {
                    const int n = std::min(Slice, requests - done);
                    clients[turn % 2]->run(n);
                    clients[1 - turn % 2]->run(n);
                }
                double r[2];
                for (int mode = 0; mode < 2; ++mode) {
                    r[mode] = double(clients[mode]->requests) * 1e9 / double(clients[mode]->ns);
                    rate[mode][c].push_back(r[mode]);
                    cpu[mode][c].push_back(clients[mode]->cpu / double(clients[mode]->requests));
                }
                cost[c].push_back((1.0 - r[1] / r[0]) * 100.0);
                std::printf("round %d, %2d connection(s): headless %7.0f/s %.3f ms CPU, window %7.0f/s %.3f ms CPU, "
                            "window cost %5.1f%%\n",
                            round + 1, Connections[c], r[0], cpu[0][c].back(), r[1], cpu[1][c].back(), cost[c].back());
                std::fflush(stdout);
            }
        }
    } catch (const Failure& f) {
        std::fprintf(stderr, "bench-window: %s\n", qPrintable(f.text));
        return 1;
    }

    std::printf("\n%d requests per server and load, median of %d rounds\n", requests, rounds);
    std::printf("%-12s %12s %12s %14s %14s %12s\n", "connections", "headless/s", "window/s", "CPU headless",
                "CPU window", "window cost");
    for (int c = 0; c < 2; ++c) {
        const double k = median(cost[c]);
        std::printf("%-12d %12.0f %12.0f %11.3f ms %11.3f ms %11.1f%%  (goal < 10%%: %s)\n", Connections[c],
                    median(rate[0][c]), median(rate[1][c]), median(cpu[0][c]), median(cpu[1][c]), k,
                    k < 10.0 ? "met" : "MISSED");
    }
    return 0;
}
