#pragma once
#include <QObject>
#include <QString>
#include <QElapsedTimer>
#include <QTimer>

namespace quill {

class Server;

// Tells systemd (a Type=notify unit) how the server is: READY=1 once start-up
// is done, a STATUS= line whenever the service state, the number of ready
// printers, the queue length or the listener changes, and WATCHDOG=1 from the
// event loop at half the unit's watchdog interval, so a stuck loop gets the
// process restarted. Built without libsystemd, or started outside systemd
// (no NOTIFY_SOCKET), it says nothing.
class SystemdNotifier : public QObject {
    Q_OBJECT
public:
    explicit SystemdNotifier(Server& server, QObject* parent = nullptr);

    // Whether this build can talk to systemd at all.
    static bool available();
    // "Print service running; 1 of 2 printers ready; 3 jobs queued", led by the
    // listener's trouble when it is not open.
    QString statusLine() const;

private:
    void started();
    void scheduleStatus();
    void sendStatus();
    bool notify(const QByteArray& state) const;

    Server& server_;
    static constexpr qint64 MinStatusGapMs = 250;
    QTimer statusDelay_;
    QElapsedTimer sentAt_;
    QTimer watchdog_;
    QString lastStatus_;
    bool ready_ = false;
};

} // namespace quill
