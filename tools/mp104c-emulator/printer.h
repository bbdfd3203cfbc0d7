#pragma once
// The emulated printer: parameters, counters, faults, the stored layout and
// variables, and the answer to each link request. Shared by every connection
// (network and pty) of one emulator process.
#include "label/label.h"
#include "printers/link.h"

#include <QJsonObject>
#include <QMap>
#include <QString>
#include <QStringList>
#include <array>

namespace quill {

class EmulatedPrinter {
public:
    // Per-connection state: lock and service mode end with the session.
    struct Session {
        bool locked = false;
        bool serviceMode = false;
    };

    EmulatedPrinter(QString name, int baud, QString outDir);

    // false: nothing is to be answered (CLOSE).
    bool handle(const LinkFrame& request, Session& session, LinkFrame* answer);
    // Logs a request that arrives while silent (it is received, not answered).
    void logOnly(const LinkFrame& request);

    int status() const;
    int baud() const { return baud_; }
    bool silent = false;
    int delayMs = 0;
    bool paperOut = false;
    bool ribbonOut = false;
    bool headUp = false;

    // A fault armed from the control port. It fires on the first request
    // whose log entry starts with the armed call ("service 28351746"), before
    // that request is answered: Silent stops all answers from there on, Unplug
    // takes the printer off the line (connections dropped, pty closed).
    enum class Fault { None, Silent, Unplug };
    void arm(const QString& call, Fault fault);
    Fault fire(const LinkFrame& request);
    bool unplugged = false;

    QJsonObject state() const;
    void clearLog() { log_.clear(); }

private:
    int print(int copies, const QString& layoutName);
    void writeLabel(int copy, int copies);
    QString logEntry(const LinkFrame& request) const;

    QString name_;
    int baud_;
    QString outDir_;
    QMap<int, int> params_;
    QMap<int, std::array<int, 5>> counters_;
    QMap<int, QString> serviceValues_;
    QString layoutName_;
    QString layoutText_;
    LabelLayout layout_;
    bool hasLayout_ = false;
    QMap<int, QString> variables_;
    QStringList log_;
    QString armedCall_;
    Fault armedFault_ = Fault::None;
    int printed_ = 0;  // labels written since start, names the output files
};

// Line speeds the emulator (and the printer) knows.
bool IsKnownBaud(int baud);

} // namespace quill
