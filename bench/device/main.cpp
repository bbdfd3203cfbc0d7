// Round-trip time of device library calls against the emulator, over TCP
// (network box) and over a pty (serial printer at 9600).
// Usage: bench-device [calls per transport, default 1000]
#include "foundation/settings.h"
#include "printers/comapi.h"

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

Figures measure(int handle, int calls, int (*fn)(int))
{
    std::vector<qint64> ns;
    ns.reserve(size_t(calls));
    Figures f;
    QElapsedTimer t;
    for (int i = 0; i < calls; ++i) {
        t.start();
        if (fn(handle) < 0)
            ++f.failures;
        ns.push_back(t.nsecsElapsed());
    }
    std::sort(ns.begin(), ns.end());
    f.median = double(ns[ns.size() / 2]) / 1000.0;
    f.p99 = double(ns[std::min(ns.size() - 1, size_t(double(ns.size()) * 0.99))]) / 1000.0;
    f.max = double(ns.back()) / 1000.0;
    return f;
}

int status(int h) { return Printer_GetStatus(h, 4); }
int setParam(int h) { return Printer_SetParameter(h, 46, 200); }

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
            const int h = Printer_Open(t.device, t.settings, QStringLiteral("m"));
            Printer_Close(h);
            opens.push_back(ot.nsecsElapsed());
            if (h < 1)
                rc = 1;
        }
        std::sort(opens.begin(), opens.end());
        std::printf("%-4s %-22s calls %5d  median %8.1f us  p99 %8.1f us\n", t.name, "Printer_Open+Close", 50,
                    double(opens[25]) / 1000.0, double(opens[49]) / 1000.0);

        const int h = Printer_Open(t.device, t.settings, QStringLiteral("m"));
        if (h < 1) {
            std::fprintf(stderr, "%s: open failed (%d)\n", t.name, h);
            rc = 1;
            continue;
        }
        report(t.name, "Printer_GetStatus", calls, measure(h, calls, status));
        report(t.name, "Printer_SetParameter", calls, measure(h, calls, setParam));
        Printer_Close(h);
    }
    emu.terminate();
    emu.waitForFinished(5000);
    return rc;
}
