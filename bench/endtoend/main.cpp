// End to end: the real headless server in a temporary installation, five
// emulated network printers answering at once, print requests over TCP.
// Figures (printed, not judged):
//   - burst: N requests sent back to back, one connection each, spread over
//     the five printers; labels per second from the first request to the last
//     label file; request-to-label latency, which here is mostly queueing;
//   - paced: one job at a time (the next request a random 0..200 ms after the
//     previous label, so requests meet the job timer anywhere in its period),
//     request-to-label latency of an idle server;
//   - reply time of the requests and the server's CPU time per job
//     (/proc/<pid>/stat utime + stime), with and without its idle timer cost.
// "Label" time is the mtime of the label's PNG, written by the emulator right
// after it received PRINT and rendered the label (file times have the kernel
// tick's granularity, a few ms). The request time is taken before connecting.
// Usage: bench-endtoend [--jobs N (500)] [--paced M (50)]
#include <QCommandLineParser>
#include <QCoreApplication>
#include <QDir>
#include <QElapsedTimer>
#include <QFile>
#include <QJsonDocument>
#include <QJsonObject>
#include <QProcess>
#include <QRandomGenerator>
#include <QSqlDatabase>
#include <QSqlQuery>
#include <QTcpServer>
#include <QTcpSocket>
#include <QTemporaryDir>
#include <QThread>

#include <algorithm>
#include <cmath>
#include <array>
#include <cstdio>
#include <ctime>
#include <map>
#include <memory>
#include <vector>
#include "../support/site.h"

#include <sys/stat.h>
#include <unistd.h>

namespace {

constexpr int Printers = 5;
using bench::Bin;
using bench::die;
using bench::Failure;
using bench::cpuMs;

qint64 nowNs()
{
    timespec t{};
    clock_gettime(CLOCK_REALTIME, &t);
    return qint64(t.tv_sec) * 1000000000 + t.tv_nsec;
}



using bench::Stats;
using bench::stats;

// Watches one emulator's output folder: label-NNNNNN.json files in order.
struct LabelWatch {
    QString dir;
    int next = 1;
    // Returns the job tag (variable 10) and the PNG's mtime of each new label.
    void poll(std::map<QString, qint64>* seen)
    {
        for (;;) {
            const QString base = dir + QStringLiteral("/label-%1").arg(next, 6, 10, QLatin1Char('0'));
            QFile f(base + QStringLiteral(".json"));
            if (!f.open(QIODevice::ReadOnly))
                return;
            const QJsonObject o = QJsonDocument::fromJson(f.readAll()).object();
            if (o.isEmpty())
                return; // still being written
            struct stat st{};
            if (::stat(QFile::encodeName(base + QStringLiteral(".png")).constData(), &st) != 0)
                return;
            (*seen)[o.value(QStringLiteral("variables")).toObject().value(QStringLiteral("10")).toString()] =
                qint64(st.st_mtim.tv_sec) * 1000000000 + st.st_mtim.tv_nsec;
            ++next;
        }
    }
};

class Bench : public bench::Site {
public:
    Bench() : Site(Printers)
    {
        for (int i = 0; i < Printers; ++i)
            watch[size_t(i)].dir = labelDir(i);
    }
    std::array<LabelWatch, Printers> watch;
    std::map<QString, qint64> labels; // job tag -> label time

    void setUp()
    {
        build();
        startServer();
    }

    // One request on its own connection; returns the reply (empty on timeout).
    QByteArray send(int printer, const QString& tag)
    {
        const QStringList fields{QStringLiteral("BRIXA"), QStringLiteral("1.00"), QStringLiteral("P"),
                                 QString::number(printer), QStringLiteral("1"), QStringLiteral("1"),
                                 QStringLiteral("BENCH"), QStringLiteral("0"), tag, tag, QStringLiteral("bench"),
                                 QStringLiteral("Greenfee"), QString(), QStringLiteral("18 holes"),
                                 QStringLiteral("Yellow tee"), QStringLiteral("Start 10:40")};
        QTcpSocket s;
        s.connectToHost(QHostAddress::LocalHost, port);
        if (!s.waitForConnected(5000))
            return {};
        s.write(fields.join(QLatin1Char('\t')).toLatin1());
        QByteArray reply;
        QElapsedTimer t;
        t.start();
        while (reply.size() < 9 && t.elapsed() < 10000 && s.waitForReadyRead(10000))
            reply += s.readAll();
        s.disconnectFromHost();
        return reply;
    }

    void poll()
    {
        for (LabelWatch& w : watch)
            w.poll(&labels);
    }

    // Waits until every tag has a label; false after timeoutMs.
    bool waitLabels(const std::map<QString, qint64>& sent, int timeoutMs)
    {
        QElapsedTimer t;
        t.start();
        for (;;) {
            poll();
            if (std::all_of(sent.begin(), sent.end(), [&](const auto& p) { return labels.count(p.first); }))
                return true;
            if (t.elapsed() > timeoutMs)
                return false;
            QThread::msleep(5);
        }
    }
};

void printStats(const char* what, const Stats& s, const char* unit, double scale)
{
    std::printf("  %-34s p50 %8.1f %s  p99 %8.1f %s  max %8.1f %s\n", what, s.p50 / scale, unit, s.p99 / scale,
                unit, s.max / scale, unit);
}

} // namespace

int run(int jobs, int paced);

int main(int argc, char** argv)
{
    QCoreApplication app(argc, argv);
    QCommandLineParser cli;
    cli.addHelpOption();
    const QCommandLineOption jobsOpt(QStringLiteral("jobs"), QStringLiteral("Burst jobs (500)."), QStringLiteral("N"),
                                     QStringLiteral("500"));
    const QCommandLineOption pacedOpt(QStringLiteral("paced"), QStringLiteral("Paced jobs (50)."),
                                      QStringLiteral("M"), QStringLiteral("50"));
    cli.addOptions({jobsOpt, pacedOpt});
    cli.process(app);
    const int jobs = qBound(5, cli.value(jobsOpt).toInt(), 100000);
    const int paced = qBound(0, cli.value(pacedOpt).toInt(), 10000);
    try {
        return run(jobs, paced);
    } catch (const Failure& f) {
        std::fprintf(stderr, "bench-endtoend: %s\n", qPrintable(f.text));
        return 1;
    }
}

int run(int jobs, int paced)
{
    Bench b;
    b.setUp();
    const qint64 pid = b.server.processId();

    // Warm-up: one job per printer, so every printer has its layout and the
    // start-up status pass is over.
    std::map<QString, qint64> sent;
    for (int p = 1; p <= Printers; ++p) {
        const QString tag = QStringLiteral("W%1").arg(p);
        sent[tag] = nowNs();
        const QByteArray r = b.send(p, tag);
        if (!r.startsWith("BRIXA\tOK\t"))
            die(QStringLiteral("warm-up request refused: ") + QString::fromLatin1(r));
    }
    if (!b.waitLabels(sent, 30000))
        die(QStringLiteral("no labels within 30 s after the warm-up requests (is the print service running?)"));

    // The server's own cost while idle (job timers, status pass).
    const double idle0 = cpuMs(pid);
    QThread::msleep(3000);
    const double idleRate = (cpuMs(pid) - idle0) / 3.0; // ms per s

    // Burst.
    sent.clear();
    std::vector<double> replyMs;
    int refused = 0;
    const double cpu0 = cpuMs(pid);
    const qint64 start = nowNs();
    for (int i = 0; i < jobs; ++i) {
        const QString tag = QStringLiteral("B%1").arg(i, 6, 10, QLatin1Char('0'));
        const qint64 t = nowNs();
        sent[tag] = t;
        const QByteArray r = b.send(i % Printers + 1, tag);
        replyMs.push_back(double(nowNs() - t) / 1e6);
        if (r != "BRIXA\tOK\t")
            ++refused;
        b.poll();
    }
    const qint64 sentAll = nowNs();
    const bool complete = b.waitLabels(sent, jobs * 200 + 60000);
    const double cpu1 = cpuMs(pid);
    const qint64 end = nowNs();
    qint64 last = start;
    std::vector<double> burstLatency;
    for (const auto& [tag, t] : sent) {
        if (!b.labels.count(tag))
            continue;
        last = std::max(last, b.labels[tag]);
        burstLatency.push_back(double(b.labels[tag] - t) / 1e6);
    }
    const double seconds = double(last - start) / 1e9;
    const double wall = double(end - start) / 1e9;

    // Paced: one job at a time, after a random pause so that requests meet
    // the printer's job timer at any point of its 200 ms period.
    std::vector<double> pacedLatency;
    for (int i = 0; i < paced; ++i) {
        QThread::msleep(QRandomGenerator::global()->bounded(200));
        const QString tag = QStringLiteral("Q%1").arg(i, 6, 10, QLatin1Char('0'));
        std::map<QString, qint64> one{{tag, nowNs()}};
        if (!b.send(i % Printers + 1, tag).startsWith("BRIXA\tOK\t") || !b.waitLabels(one, 10000))
            break;
        pacedLatency.push_back(double(b.labels[tag] - one[tag]) / 1e6);
    }

    std::printf("bench-endtoend: headless server, %d emulated network printers (no delay), job timer 200 ms/slot\n",
                Printers);
    std::printf("burst: %d requests, one connection each, printers 1..%d in turn\n", jobs, Printers);
    std::printf("  requests sent in %.2f s (%d not answered with the plain OK)\n", double(sentAll - start) / 1e9,
                refused);
    printStats("reply time", stats(replyMs), "ms", 1);
    std::printf("  labels: %zu of %d%s; first request to last label %.2f s = %.1f labels/s\n", burstLatency.size(),
                jobs, complete ? "" : " (timed out)", seconds, double(burstLatency.size()) / seconds);
    std::printf("  each printer: one label every %.0f ms\n", seconds * 1000.0 * Printers / double(jobs));
    printStats("request -> label (with queueing)", stats(burstLatency), "ms", 1);
    const double cpu = cpu1 - cpu0;
    std::printf("  server CPU %.0f ms over %.1f s: %.2f ms/job; minus idle cost (%.1f ms/s over 3 s, %ld ms "
                "ticks): %.2f ms/job\n",
                cpu, wall, cpu / jobs, idleRate, 1000 / sysconf(_SC_CLK_TCK), (cpu - idleRate * wall) / jobs);
    std::printf("paced: %zu of %d jobs, one at a time: previous label, random 0..200 ms pause, next request\n",
                pacedLatency.size(), paced);
    printStats("request -> label", stats(pacedLatency), "ms", 1);
    return complete && int(pacedLatency.size()) == paced ? 0 : 1;
}
