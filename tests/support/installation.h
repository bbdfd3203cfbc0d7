#pragma once
// A throw-away installation for server tests: a temporary folder provisioned
// like `quillbase --init`, private settings scopes (XDG_CONFIG_DIRS/HOME point
// inside it), and direct SQL access to its database for arranging rows.
#include "support/emulator.h"

#include <QJsonObject>
#include <QProcess>
#include <QString>
#include <QTemporaryDir>
#include <QVariant>

namespace quill::test {

class TestInstallation {
public:
    // Provisions and points HomeDir() and the settings scopes at the folder.
    TestInstallation();

    bool ok() const { return ok_; }
    QString path() const { return dir_.path(); }
    QString file(const QString& name) const { return dir_.filePath(name); }

    // Runs SQL on brixa.mdb through a connection of its own (closed again).
    bool sql(const QString& statement, const QVariantList& binds = {});
    QVariant scalar(const QString& query);

    // A printer row in tbPrinter on an emulated network box at 127.0.0.1.
    bool addNetworkPrinter(int id, const QString& name, quint16 port, bool passive = false)
    {
        return addPrinter(id, name, 2, QStringLiteral("127.0.0.1#%1").arg(port), passive);
    }
    // tbServer: the listening port and the service auto-start switch.
    bool setServer(quint16 port, bool autoStartService);
    // Per-user switches (dwUseLog etc.) and per-machine values.
    void setUserSwitch(const QString& name, int value);
    void setMachineValue(const QString& group, const QString& name, const QVariant& value, bool number);

    // The text of this week's event log.
    QString log() const;

    // A TCP port free on every address, below the ephemeral range (bound and released).
    static quint16 freePort();

protected:
    // ConnectionUsed 1 is the serial line (Connection1 "COMn:#rate"), 2 the
    // network box (Connection2 "address#port").
    bool addPrinter(int id, const QString& name, int connectionUsed, const QString& connection, bool passive);

    QTemporaryDir dir_;
    bool ok_ = false;
};

// An installation with printer 1 "Kassa" on an emulated network box and
// printer 2 "Bar" on COM2: (an emulated serial printer at 9600 baud); each
// emulator puts the labels it prints into a folder of its own.
class PrinterSite : public TestInstallation {
public:
    // Starts both emulators and adds both printers; errorText() says why not.
    bool start();
    QString errorText() const { return net.errorText() + ser.errorText(); }

    QTemporaryDir netOut, serOut;
    Emulator net, ser;
};

// `quillbase --headless` on an installation, as a process of its own (its
// stderr forwarded unless the test sets another channel mode).
class HeadlessServer {
public:
    explicit HeadlessServer(const TestInstallation& inst) : inst_(inst)
    {
        process.setProcessChannelMode(QProcess::ForwardedErrorChannel);
    }
    ~HeadlessServer() { stop(); }
    // Starts it and, unless told not to, waits for the log line that ends its
    // whole start-up (the listener opens before the first status pass).
    bool start(const QStringList& args = {}, bool waitForLog = true);
    // SIGTERM; true once it has ended with exit code 0.
    bool stop();
    QProcess process;

private:
    const TestInstallation& inst_;
};

// A program run to its end: its exit code (-1 when it crashed or did not end
// within `ms`), stdout and stderr.
struct ProgramRun {
    int code = -1;
    QString out, err;
    QJsonObject json() const;
};
ProgramRun RunProgram(const QString& program, const QStringList& args,
                      const QProcessEnvironment& env = QProcessEnvironment::systemEnvironment(), int ms = 120000);

} // namespace quill::test
