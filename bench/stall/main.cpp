// Print requests while a device operation waits on a printer that does not
// answer: the real headless server in a temporary installation, two emulated
// network printers, quillbase-ctl as the operator.
// Phases (printed, not judged):
//   - idle: N print requests, one connection each, one every ~10 ms;
//   - configure: printer 1's emulator goes silent, `quillbase-ctl printer
//     configure 1` runs as a child, and requests go on as in idle until it
//     returns (its device calls each wait for an answer that never comes);
//   - test print: the same with `quillbase-ctl printer test 1`.
// Requests go to printers 1 and 2 in turn. Reply time is from the write to
// the whole reply; the connect is timed apart (the kernel accepts even when
// the server's event loop is stuck, so a stall shows in the reply time).
// Usage: bench-stall [--requests N (200)] [--keep]
#include <QCommandLineParser>
#include <QCoreApplication>
#include <QElapsedTimer>
#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <QProcess>
#include <QSettings>
#include <QSqlDatabase>
#include <QSqlQuery>
#include <QTcpServer>
#include <QTcpSocket>
#include <QTemporaryDir>
#include <QThread>

#include "../support/site.h"

#include <algorithm>
#include <array>
#include <atomic>
#include <cmath>
#include <cstdio>
#include <functional>
#include <iterator>
#include <limits>
#include <memory>
#include <vector>

namespace {

constexpr int Printers = 2;
constexpr int PaceMs = 10;
constexpr double PromptMs = 100;
using bench::Bin;
using bench::die;
using bench::Failure;

// Monotonic ms since the bench started.
QElapsedTimer clock0;
double nowMs()
{
    return double(clock0.nsecsElapsed()) / 1e6;
}

struct Request {
    double sent = 0;     // write
    double done = 0;     // whole reply (or given up)
    double connectMs = 0;
    bool answered = false;
    bool plainOk = false;
};

// A whole reply: the plain OK, or a longer one, which ends in four digits.
bool wholeReply(const QByteArray& r)
{
    if (r == "BRIXA\tOK\t")
        return true;
    if (r.size() <= 9)
        return false;
    return std::all_of(r.end() - 4, r.end(), [](char c) { return c >= '0' && c <= '9'; });
}

class Bench : public bench::Site {
public:
    Bench() : Site(Printers) {}
    int sentCount = 0;

    void setUp()
    {
        build();
        // A configure reaches a box at the machine's box port, not the printer's.
        setMachineValue(QStringLiteral("Quillbase/dwNetBoxPort"), int(boxPorts[0]));
        setMachineValue(QStringLiteral("Quillbase/tBindAddress"), QStringLiteral("127.0.0.1"));
        startServer();
        if (!waitReady(20000))
            die(QStringLiteral("the printers were not Ready within 20 s (server output: %1)")
                    .arg(tmp.filePath(QStringLiteral("server.out"))));
    }

    // quillbase-ctl with --json; the parsed answer, empty when it gave none.
    QJsonObject ctl(const QStringList& command, int timeoutMs = 10000)
    {
        QProcess p;
        p.setProcessEnvironment(env);
        p.start(Bin + QStringLiteral("/quillbase-ctl"), QStringList{QStringLiteral("--home"), home(),
                                                                    QStringLiteral("--json")} + command);
        if (!p.waitForFinished(timeoutMs)) {
            p.kill();
            p.waitForFinished(2000);
            return {};
        }
        return QJsonDocument::fromJson(p.readAllStandardOutput()).object();
    }

    // True once the print service runs and every printer is Ready.
    bool waitReady(int timeoutMs)
    {
        QElapsedTimer t;
        t.start();
        while (t.elapsed() < timeoutMs && server.state() != QProcess::NotRunning) {
            const QJsonObject s = ctl({QStringLiteral("status")}, 5000);
            const QJsonArray printers = s[QLatin1String("printers")].toArray();
            const bool ready = s[QLatin1String("service")].toObject()[QLatin1String("running")].toBool()
                && printers.size() == Printers && std::all_of(printers.begin(), printers.end(), [](const QJsonValue& v) {
                       return v.toObject()[QLatin1String("status")].toInt() == 1;
                   });
            if (ready)
                return true;
            QThread::msleep(200);
        }
        return false;
    }

    // One line on an emulator's control port; its answer.
    QByteArray control(int printer, const QByteArray& line)
    {
        QTcpSocket s;
        s.connectToHost(QHostAddress::LocalHost, controlPorts[size_t(printer - 1)]);
        if (!s.waitForConnected(5000))
            return {};
        s.write(line + '\n');
        QElapsedTimer t;
        t.start();
        while (!s.canReadLine() && t.elapsed() < 5000)
            s.waitForReadyRead(500);
        return s.readLine().trimmed();
    }

    // One print request on its own connection, printers 1 and 2 in turn.
    Request send()
    {
        const int n = sentCount++;
        const QByteArray text = "BRIXA\t1.00\tP\t" + QByteArray::number(n % Printers + 1) + "\t1\t1\tSTALL\t0\t\t\tbench\tjob "
            + QByteArray::number(n);
        Request r;
        QTcpSocket s;
        const double start = nowMs();
        s.connectToHost(QHostAddress::LocalHost, port);
        const bool connected = s.waitForConnected(5000);
        r.sent = nowMs();
        r.connectMs = r.sent - start;
        if (connected) {
            s.write(text);
            s.flush();
            QByteArray reply;
            QElapsedTimer t;
            t.start();
            while (!wholeReply(reply) && t.elapsed() < 10000 && s.waitForReadyRead(int(10000 - t.elapsed())))
                reply += s.readAll();
            r.answered = wholeReply(reply);
            r.plainOk = reply == "BRIXA\tOK\t";
        }
        r.done = nowMs();
        s.abort();
        return r;
    }

    // Requests every PaceMs until `more` says stop or `limit` were sent.
    std::vector<Request> paced(int limit, const std::function<bool()>& more)
    {
        std::vector<Request> out;
        double next = nowMs();
        while (int(out.size()) < limit && more()) {
            const double wait = next - nowMs();
            if (wait > 0)
                QThread::usleep(quint64(wait * 1000));
            next = nowMs() + PaceMs;
            out.push_back(send());
        }
        return out;
    }
};

// A quillbase-ctl device command on its own thread, timed from start to exit.
class Operation {
public:
    Operation(const Bench& b, const QStringList& command)
    {
        started = nowMs();
        thread_.reset(QThread::create([this, env = b.env, home = b.home(), command] {
            QProcess p;
            p.setProcessEnvironment(env);
            p.start(Bin + QStringLiteral("/quillbase-ctl"),
                    QStringList{QStringLiteral("--home"), home, QStringLiteral("--json")} + command);
            // The device calls are bounded; this is only the bench's own limit.
            if (!p.waitForFinished(30000)) {
                p.kill();
                p.waitForFinished(2000);
                timedOut = true;
            }
            ended = nowMs();
            exitCode = p.exitCode();
            answer = QJsonDocument::fromJson(p.readAllStandardOutput()).object();
            running = false;
        }));
        thread_->start();
    }
    ~Operation() { thread_->wait(); }

    std::atomic<bool> running{true};
    double started = 0, ended = 0;
    int exitCode = -1;
    bool timedOut = false;
    QJsonObject answer;

private:
    std::unique_ptr<QThread> thread_;
};

using bench::Stats;
using bench::stats;

void printRequests(const char* what, const std::vector<Request>& rs)
{
    std::vector<double> reply;
    double connectMax = 0;
    int unanswered = 0, notPlain = 0;
    for (const Request& r : rs) {
        connectMax = std::max(connectMax, r.connectMs);
        if (!r.answered) {
            ++unanswered;
            continue;
        }
        reply.push_back(r.done - r.sent);
        notPlain += r.plainOk ? 0 : 1;
    }
    const Stats s = stats(reply);
    std::printf("  %-10s %4zu replies  median %7.2f ms  p99 %7.2f ms  max %7.2f ms  (connect max %.2f ms",
                what, reply.size(), s.p50, s.p99, s.max, connectMax);
    if (notPlain)
        std::printf(", %d not the plain OK", notPlain);
    if (unanswered)
        std::printf(", %d unanswered", unanswered);
    std::printf(")\n");
}

// Silences printer 1, runs the operation while requests go on, and prints.
void silentPhase(Bench& b, const char* title, const QStringList& command)
{
    if (b.control(1, "silent on") != "ok")
        die(QStringLiteral("printer 1's emulator did not take 'silent on'"));
    std::vector<Request> all;
    double started = 0, ended = 0;
    int exitCode = -1;
    bool timedOut = false;
    QString outcome;
    {
        Operation op(b, command);
        all = b.paced(std::numeric_limits<int>::max(), [&op] { return op.running.load(); });
        started = op.started;
        ended = op.ended;
        exitCode = op.exitCode;
        timedOut = op.timedOut;
        outcome = op.answer[QLatin1String("outcome")].toString();
        if (outcome.isEmpty())
            outcome = op.answer[QLatin1String("reason")].toString();
    }
    b.control(1, "silent off");

    std::vector<Request> during;
    std::copy_if(all.begin(), all.end(), std::back_inserter(during),
                 [&](const Request& r) { return r.sent >= started && r.sent < ended; });
    const auto before = std::count_if(during.begin(), during.end(), [&](const Request& r) { return r.done <= ended; });
    std::printf("%s on silent printer 1: quillbase-ctl %s took %.2f s (exit %d%s%s)\n", title,
                qPrintable(command.join(QLatin1Char(' '))), (ended - started) / 1000, exitCode,
                outcome.isEmpty() ? "" : ", ", qPrintable(outcome));
    if (timedOut)
        std::printf("  (stopped by the bench after 30 s)\n");
    printRequests("during it", during);
    std::printf("  answered before it returned: %lld of %zu\n", qint64(before), during.size());
    const auto slow = std::count_if(during.begin(), during.end(),
                                    [](const Request& r) { return !r.answered || r.done - r.sent > PromptMs; });
    std::printf("  every reply during it within %.0f ms: %s (%zu of %zu)\n", PromptMs, slow ? "no" : "yes",
                during.size() - size_t(slow), during.size());
}

int run(int requests, bool keep)
{
    Bench b;
    b.tmp.setAutoRemove(!keep);
    b.setUp();

    std::printf("bench-stall: headless server, %d emulated network printers; print requests one connection each, "
                "~%d ms apart, printers 1 and 2 in turn\n",
                Printers, PaceMs);
    const std::vector<Request> idle = b.paced(requests, [] { return true; });
    std::printf("idle:\n");
    printRequests("requests", idle);

    silentPhase(b, "configure", {QStringLiteral("printer"), QStringLiteral("configure"), QStringLiteral("1")});
    // A job the driver sent printer 1 while it was silent can leave it in Error.
    if (!b.waitReady(20000))
        std::printf("  (printer 1 not Ready again within 20 s)\n");
    silentPhase(b, "test print", {QStringLiteral("printer"), QStringLiteral("test"), QStringLiteral("1")});
    if (keep)
        std::printf("installation and server output kept in %s\n", qPrintable(b.tmp.path()));
    return 0;
}

} // namespace

int main(int argc, char** argv)
{
    QCoreApplication app(argc, argv);
    clock0.start();
    QCommandLineParser cli;
    cli.addHelpOption();
    const QCommandLineOption requestsOpt(QStringLiteral("requests"), QStringLiteral("Idle requests (200)."),
                                         QStringLiteral("N"), QStringLiteral("200"));
    const QCommandLineOption keepOpt(QStringLiteral("keep"), QStringLiteral("Keep the temporary installation."));
    cli.addOptions({requestsOpt, keepOpt});
    cli.process(app);
    try {
        return run(qBound(1, cli.value(requestsOpt).toInt(), 100000), cli.isSet(keepOpt));
    } catch (const Failure& f) {
        std::fprintf(stderr, "bench-stall: %s\n", qPrintable(f.text));
        return 1;
    }
}
