#pragma once
// Test helper: runs build/bin/mp104c-emulator as a child process and talks to
// its control port.
//
//   quill::test::Emulator emu;
//   QVERIFY2(emu.startTcp(), qPrintable(emu.errorText()));   // network box
//   session.open(emu.bareDevice(), "", "m");                 // "127.0.0.1#<port>"
//   emu.command("paper out");                                // "ok"
//   QStringList calls = emu.log();                           // ["open","status 4",...]
//   emu.command("on service 28351746 unplug");               // fault on a given call
//
//   emu.startPty(9600);   // serial printer on a pty in a private temp dir;
//   emu.mapComPort(1);    // COM1: -> the pty (per-machine Ports setting;
//                         // call after pointing XDG_CONFIG_DIRS at a temp dir)
//   session.open("COM1:", "9600,n,8,1,x", "m");
//
// Options: setOutDir(dir) before start adds --out (printed labels as PNG +
// JSON). stop() (or the destructor) ends the process. Every wait is bounded
// (10 s by default).
#include <QProcess>
#include <QString>
#include <QStringList>
#include <QTcpSocket>
#include <QTemporaryDir>

#include <memory>

namespace quill::test {

class Emulator {
public:
    Emulator() = default;
    ~Emulator() { stop(); }
    Emulator(const Emulator&) = delete;
    Emulator& operator=(const Emulator&) = delete;

    void setOutDir(const QString& dir) { outDir_ = dir; }

    // Network box on 127.0.0.1 (port chosen by the emulator) plus control port.
    bool startTcp() { return start(true, false, 9600); }
    // Serial printer on a pty (symlink in a temporary folder) plus control port.
    bool startPty(int baud = 9600) { return start(false, true, baud); }
    // Both at once, sharing one printer.
    bool startBoth(int baud) { return start(true, true, baud); }
    void stop();

    quint16 port() const { return port_; } // network box port
    QString bareDevice() const { return QStringLiteral("127.0.0.1#%1").arg(port_); }
    // Writes COM<n> = the pty into the per-machine Ports settings.
    void mapComPort(int n) const;

    // One control command, one answer line (empty on failure or timeout).
    QString command(const QString& line);
    QStringList log();
    QString errorText() const { return error_; }

private:
    bool start(bool tcp, bool pty, int baud);
    bool fail(const QString& error);

    std::unique_ptr<QProcess> process_;
    std::unique_ptr<QTemporaryDir> dir_;
    QTcpSocket control_;
    QString outDir_, ptyPath_, error_;
    quint16 port_ = 0;
};

// "caption copy/copies tTemplate" of every label printed into dir, in print
// order (the caption is variable 12), then " [a/b]" when tag lines 14..17
// printed anything.
QStringList PrintedLabels(const QString& dir);

} // namespace quill::test
