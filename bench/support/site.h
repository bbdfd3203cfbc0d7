#pragma once
// Shared by the benches: a temporary installation made by `quillbase --init`,
// N emulated network boxes (each printing into its own label folder, each with
// a control port), the printers stored as connect-only boxes, and the real
// headless server on a free loopback port. Every wait is bounded; failures
// throw Failure, so the destructor still stops the child processes.
#include <QElapsedTimer>
#include <QFile>
#include <QHostAddress>
#include <QProcess>
#include <QSettings>
#include <QSqlDatabase>
#include <QSqlQuery>
#include <QTcpServer>
#include <QTcpSocket>
#include <QTemporaryDir>
#include <QThread>

#include <algorithm>
#include <cmath>
#include <memory>
#include <vector>

#include <unistd.h>

namespace bench {

// utime + stime of a process, in ms (fields 14 and 15 of its stat line).
inline double cpuMs(qint64 pid)
{
    QFile f(QStringLiteral("/proc/%1/stat").arg(pid));
    if (!f.open(QIODevice::ReadOnly))
        return -1;
    const QByteArray s = f.readAll();
    const QList<QByteArray> w = s.mid(s.lastIndexOf(')') + 2).split(' ');
    return double(w.value(11).toLongLong() + w.value(12).toLongLong()) * 1000.0 / double(sysconf(_SC_CLK_TCK));
}

// QUILL_BENCH_BIN points a bench at another build's programs, to compare.
inline const QString Bin = qEnvironmentVariable("QUILL_BENCH_BIN", QStringLiteral(QUILL_BIN_DIR));

struct Failure {
    QString text;
};

[[noreturn]] inline void die(const QString& text)
{
    throw Failure{text};
}

// Rank statistics of a sample (nearest rank).
struct Stats {
    double p50 = 0, p99 = 0, max = 0;
};

inline Stats stats(std::vector<double> v)
{
    Stats s;
    if (v.empty())
        return s;
    std::sort(v.begin(), v.end());
    auto rank = [&](double p) { return v[std::min(v.size() - 1, size_t(std::ceil(p * double(v.size()))) - 1)]; };
    s.p50 = rank(0.50);
    s.p99 = rank(0.99);
    s.max = v.back();
    return s;
}

class Site {
public:
    explicit Site(int printers) : printers_(printers) {}
    ~Site()
    {
        if (server.state() != QProcess::NotRunning) {
            server.terminate();
            if (!server.waitForFinished(10000))
                server.kill();
        }
        for (auto& e : emulators) {
            e->kill();
            e->waitForFinished(5000);
        }
    }
    Site(const Site&) = delete;
    Site& operator=(const Site&) = delete;

    QTemporaryDir tmp;
    QProcessEnvironment env = QProcessEnvironment::systemEnvironment();
    std::vector<std::unique_ptr<QProcess>> emulators;
    std::vector<quint16> boxPorts, controlPorts; // per printer, index 0 = printer 1
    QProcess server;
    quint16 port = 0;

    QString home() const { return tmp.filePath(QStringLiteral("home")); }
    QString labelDir(int index) const { return tmp.filePath(QStringLiteral("labels/%1").arg(index + 1)); }

    // The installation, the emulators and the printer rows; the server is not started.
    void build()
    {
        if (!tmp.isValid())
            die(QStringLiteral("no temporary folder"));
        env.insert(QStringLiteral("XDG_CONFIG_DIRS"), tmp.filePath(QStringLiteral("machine")));
        env.insert(QStringLiteral("XDG_CONFIG_HOME"), tmp.filePath(QStringLiteral("user")));
        QProcess init;
        init.setProcessEnvironment(env);
        init.start(Bin + QStringLiteral("/quillbase"), {QStringLiteral("--init"), QStringLiteral("--home"), home()});
        if (!init.waitForFinished(30000) || init.exitCode() != 0)
            die(QStringLiteral("quillbase --init failed: ") + QString::fromUtf8(init.readAllStandardError()));
        for (int i = 0; i < printers_; ++i)
            startEmulator(i);
        addPrinters();
    }

    // A per-machine value, "Group/name" under Norvu/Brixa; a number is stored as a dword.
    void setMachineValue(const QString& key, const QVariant& value)
    {
        QSettings machine(tmp.filePath(QStringLiteral("machine/Norvu/Brixa.conf")), QSettings::IniFormat);
        if (value.typeId() == QMetaType::Int)
            machine.setValue(key, QStringLiteral("dword:%1").arg(value.toUInt(), 8, 16, QLatin1Char('0')));
        else
            machine.setValue(key, value);
        machine.sync();
        if (machine.status() != QSettings::NoError)
            die(QStringLiteral("cannot write the machine settings"));
    }

    // The server, its output in server.out; returns once it accepts on its port.
    // Without `headless` it opens its window on the offscreen platform.
    void startServer(bool headless = true)
    {
        QProcessEnvironment e = env;
        QStringList args{QStringLiteral("--home"), home()};
        if (headless)
            args.prepend(QStringLiteral("--headless"));
        else
            e.insert(QStringLiteral("QT_QPA_PLATFORM"), QStringLiteral("offscreen"));
        server.setProcessEnvironment(e);
        server.setProcessChannelMode(QProcess::MergedChannels);
        server.setStandardOutputFile(tmp.filePath(QStringLiteral("server.out")));
        server.start(Bin + QStringLiteral("/quillbase"), args);
        if (!server.waitForStarted(10000))
            die(QStringLiteral("the server did not start"));
        QElapsedTimer t;
        t.start();
        for (;;) {
            QTcpSocket s;
            s.connectToHost(QHostAddress::LocalHost, port);
            if (s.waitForConnected(1000))
                return;
            if (t.elapsed() > 20000 || server.state() == QProcess::NotRunning)
                die(QStringLiteral("the server does not listen on port %1").arg(port));
            QThread::msleep(50);
        }
    }

private:
    void startEmulator(int i)
    {
        auto e = std::make_unique<QProcess>();
        e->start(Bin + QStringLiteral("/mp104c-emulator"),
                 {QStringLiteral("--listen"), QStringLiteral("127.0.0.1:0"), QStringLiteral("--control"),
                  QStringLiteral("127.0.0.1:0"), QStringLiteral("--out"), labelDir(i), QStringLiteral("--name"),
                  QStringLiteral("P%1").arg(i + 1)});
        quint16 box = 0, control = 0;
        bool ready = false;
        QElapsedTimer t;
        t.start();
        while (!ready && t.elapsed() < 10000 && e->waitForReadyRead(10000))
            while (e->canReadLine()) {
                const QByteArray line = e->readLine().trimmed();
                if (line.startsWith("listening "))
                    box = quint16(line.mid(10).toUInt());
                if (line.startsWith("control "))
                    control = quint16(line.mid(8).toUInt());
                ready = ready || line == "ready";
            }
        if (!ready || !box || !control)
            die(QStringLiteral("emulator %1 did not start").arg(i + 1));
        boxPorts.push_back(box);
        controlPorts.push_back(control);
        emulators.push_back(std::move(e));
    }

    void addPrinters()
    {
        QTcpServer probe;
        probe.listen(QHostAddress::LocalHost, 0);
        port = probe.serverPort();
        probe.close();
        {
            QSqlDatabase db = QSqlDatabase::addDatabase(QStringLiteral("QSQLITE"), QStringLiteral("setup"));
            db.setDatabaseName(home() + QStringLiteral("/brixa.mdb"));
            if (!db.open())
                die(QStringLiteral("cannot open brixa.mdb"));
            QSqlQuery q(db);
            for (int i = 0; i < printers_; ++i) {
                // Connect-only boxes: a configure goes over the network, no serial question.
                q.prepare(QStringLiteral(
                    "INSERT INTO tbPrinter (Id, Name, PrinterTypeId, ConnectionUsed, Connection1, Connection2, "
                    "NetConnectOnly, Strobe, Speed, Passive, CutterInstalled, DispensingFeed, ReverseFeed, "
                    "CurrentTemplateId) VALUES (?, ?, 1, 2, 'COM1:#9600', ?, 1, 4, 2, 0, 0, 60, 0, 0)"));
                q.addBindValue(i + 1);
                q.addBindValue(QStringLiteral("P%1").arg(i + 1));
                q.addBindValue(QStringLiteral("127.0.0.1#%1").arg(boxPorts[size_t(i)]));
                if (!q.exec())
                    die(QStringLiteral("cannot add printer %1").arg(i + 1));
            }
            if (!q.exec(QStringLiteral("UPDATE tbServer SET port = %1, AutoStartService = 1").arg(port)))
                die(QStringLiteral("cannot set tbServer"));
            db.close();
        }
        QSqlDatabase::removeDatabase(QStringLiteral("setup"));
    }

    int printers_;
};

} // namespace bench
