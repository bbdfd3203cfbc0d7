// Round-trip time of device session calls against the emulator, over TCP
// (network box) and over a pty (serial printer at 9600), and the time of a
// whole configuration sequence (open, status, 20 calls, close).
// Usage: bench-device [calls per transport, default 1000]
#include "foundation/settings.h"
#include "printers/devicesession.h"
#include "printers/deviceops.h"

#include <QCoreApplication>
#include <QElapsedTimer>
#include <QProcess>
#include <QTemporaryDir>

#include <algorithm>
#include <cstdio>
#include <vector>

using namespace quill;

namespace {

struct Figures {
    double median = 0, p99 = 0, max = 0;
    int failures = 0;
};

Figures measure(DeviceSession& session, int calls, int (*fn)(DeviceSession&))
{
    std::vector<qint64> ns;
    ns.reserve(size_t(calls));
    Figures f;
    QElapsedTimer t;
    for (int i = 0; i < calls; ++i) {
        t.start();
        if (fn(session) < 0)
            ++f.failures;
        ns.push_back(t.nsecsElapsed());
    }
    std::sort(ns.begin(), ns.end());
    f.median = double(ns[ns.size() / 2]) / 1000.0;
    f.p99 = double(ns[std::min(ns.size() - 1, size_t(double(ns.size()) * 0.99))]) / 1000.0;
    f.max = double(ns.back()) / 1000.0;
    return f;
}

int status(DeviceSession& s) { return s.status(4); }
int setParam(DeviceSession& s) { return s.setParameter(46, 200); }

// Milliseconds of each run of op, sorted.
template <typename Op>
std::vector<double> runs(int n, Op op, int* failures)
{
    std::vector<double> ms;
    QElapsedTimer t;
    for (int i = 0; i < n; ++i) {
        t.start();
        if (!op(i))
            ++*failures;
        ms.push_back(double(t.nsecsElapsed()) / 1e6);
    }
    std::sort(ms.begin(), ms.end());
    return ms;
}

void reportRuns(const char* transport, const char* what, const std::vector<double>& ms, int failures)
{
    std::printf("%-4s %-46s runs %3d  median %8.2f ms  max %8.2f ms  failures %d\n", transport, what,
                int(ms.size()), ms[ms.size() / 2], ms.back(), failures);
}

void report(const char* transport, const char* call, int calls, const Figures& f)
{
    std::printf("%-4s %-22s calls %5d  median %8.1f us  p99 %8.1f us  max %8.1f us  failures %d\n", transport,
                call, calls, f.median, f.p99, f.max, f.failures);
}

} // namespace

int main(int argc, char** argv)
{
    QCoreApplication app(argc, argv);
    const int calls = argc > 1 ? qBound(10, atoi(argv[1]), 100000) : 1000;
    QTemporaryDir dir;
    qputenv("XDG_CONFIG_DIRS", dir.path().toLocal8Bit());
    qputenv("XDG_CONFIG_HOME", dir.filePath(QStringLiteral("user")).toLocal8Bit());
    const QString pty = dir.filePath(QStringLiteral("ttyBench"));

    QProcess emu;
    emu.start(QStringLiteral(QUILL_BIN_DIR) + QStringLiteral("/mp104c-emulator"),
              {QStringLiteral("--listen"), QStringLiteral("127.0.0.1:0"), QStringLiteral("--pty"), pty,
               QStringLiteral("--baud"), QStringLiteral("9600")});
    quint16 port = 0;
    bool ready = false;
    QElapsedTimer wait;
    wait.start();
    while (!ready && wait.elapsed() < 10000 && emu.waitForReadyRead(10000)) {
        while (emu.canReadLine()) {
            const QByteArray line = emu.readLine().trimmed();
            if (line.startsWith("listening "))
                port = quint16(line.mid(10).toUInt());
            ready = ready || line == "ready";
        }
    }
    if (!ready) {
        std::fprintf(stderr, "emulator did not start\n");
        return 1;
    }
    RegSetValue(HKEY_LOCAL_MACHINE, QStringLiteral("SOFTWARE\\Norvu\\Brixa\\Ports"), QStringLiteral("COM1"), REG_SZ, pty);

    struct Target {
        const char* name;
        QString device, settings;
    } targets[] = {
        {"tcp", QStringLiteral("NETBOX:127.0.0.1#%1").arg(port), QString()},
        {"pty", QStringLiteral("COM1:"), QStringLiteral("9600,n,8,1,x")},
    };
    int rc = 0;
    for (const Target& t : targets) {
        // Open + close as one operation does it.
        std::vector<qint64> opens;
        QElapsedTimer ot;
        for (int i = 0; i < 50; ++i) {
            ot.start();
            DeviceSession s;
            const int h = s.open(t.device, t.settings, QStringLiteral("m"));
            s.close();
            opens.push_back(ot.nsecsElapsed());
            if (h < 1)
                rc = 1;
        }
        std::sort(opens.begin(), opens.end());
        std::printf("%-4s %-22s calls %5d  median %8.1f us  p99 %8.1f us\n", t.name, "open+close", 50,
                    double(opens[25]) / 1000.0, double(opens[49]) / 1000.0);

        DeviceSession session;
        const int h = session.open(t.device, t.settings, QStringLiteral("m"));
        if (h < 1) {
            std::fprintf(stderr, "%s: open failed (%d)\n", t.name, h);
            rc = 1;
            continue;
        }
        report(t.name, "status", calls, measure(session, calls, status));
        report(t.name, "setParameter", calls, measure(session, calls, setParam));
    }

    // Whole configuration sequences as the printer dialog runs them.
    RegSetValue(HKEY_LOCAL_MACHINE, KeyQuillbase, QStringLiteral("dwNetBoxPort"), REG_DWORD, port);
    const DeviceAdjustment adj = ConvertAdjustment(1, 4, 2);
    DeviceConfig config;
    config.darkness = adj.darkness;
    config.speed = adj.speed;
    const DeviceContext context;
    int failures = 0;
    reportRuns("tcp", "SrvMPConfigNET (connect only)",
               runs(50, [&](int) { 
                   return SrvMPConfigNET(context, {}, QStringLiteral("127.0.0.1"), true, {}, {}, config)
                       == ConfigResult::Configured;
               },
                    &failures),
               failures);
    failures = 0;
    reportRuns("pty", "SrvMPConfigCOM (at the chosen rate)",
               runs(50, [&](int) { return SrvMPConfigCOM(context, QStringLiteral("1"), QStringLiteral("9600"), config); },
                    &failures),
               failures);
    // Every run finds the printer at the other rate: one open times out first.
    failures = 0;
    const std::vector<double> switches = runs(
        4,
        [&](int i) {
            return SrvMPConfigCOM(context, QStringLiteral("1"), i % 2 ? QStringLiteral("9600") : QStringLiteral("57600"),
                                  config);
        },
        &failures);
    const QByteArray what = QStringLiteral("SrvMPConfigCOM (rate switch, %1 ms timeout)").arg(context.timeoutMs).toLatin1();
    reportRuns("pty", what.constData(), switches, failures);
    rc = rc || failures;

    emu.terminate();
    emu.waitForFinished(5000);
    return rc;
}
