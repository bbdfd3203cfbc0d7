#pragma once
// The printer links: one object per physical connection (a serial line or a
// network box), each running one piece of work at a time, in the order asked.
// A piece of work is a print driver's run or check (asynchronous steps on the
// event loop) or a device operation (blocking calls on the link's own worker
// thread: configure, test print, clear, calibrate, the check after a save, the
// serial lines' reconfiguration). Nobody else touches a connection: a driver's
// run takes its transport from the link (openTransport), blocking work opens a
// device session on the link's worker.
//
//   PrinterLinks links;                                  // owned by the print service
//   auto t = links.acquire({key}, [&] { ...steps... });  // event loop; runs when it is our turn
//   links.release(t);                                    // the run is over (or withdrawn)
//
//   links.run(keys, this, [](const DeviceContext& c) { /* worker: DeviceSession calls */ },
//             [] { /* event loop, afterwards */ });
//   links.stopWork(this);                                // shutdown: its waits end at once
//
// Work asking for several connections (a box configured through its serial
// line) is queued on each of them at the same moment, so two such requests
// are in the same order everywhere and never wait for each other.
#include "printers/devicesession.h"

#include <QHash>
#include <QObject>
#include <QPointer>
#include <QString>
#include <QStringList>

#include <condition_variable>
#include <deque>
#include <functional>
#include <memory>
#include <mutex>
#include <thread>

class QIODevice;

namespace quill {

struct LinkAddress;
struct LineSettings;

// One name per physical connection: the resolved path of a serial line
// (COMn through the Ports settings, links followed), or host:port of a box.
// Empty for a name that names nothing.
QString LinkKey(const LinkAddress& address);
QString LinkKey(const QString& deviceName);

class PrinterLinks;

class PrinterLink : public QObject {
    Q_OBJECT
public:
    PrinterLink(const QString& key, PrinterLinks& owner);
    ~PrinterLink() override;

    const QString& key() const { return key_; }

    // The connection of asynchronous work (a driver's run), owned by the link:
    // opened by the work that has the link (nullptr and *error when it cannot
    // be) and closed by it before it gives the link back. `goodbye` (when not
    // empty) is written first; a socket lingers at most lingerMs for it to leave.
    QIODevice* openTransport(const LinkAddress& address, const struct LineSettings& line, QString* error);
    void closeTransport(QIODevice* io, const QByteArray& goodbye, int lingerMs);

    // Work under way or waiting.
    bool busy() const { return !queue_.empty(); }
    int waiting() const { return int(queue_.size()); }

private:
    friend class PrinterLinks;
    // Runs a job on the link's worker thread, started when first needed. The
    // hand-over goes through std primitives only, so ThreadSanitizer sees it.
    void post(std::function<void()> job);
    // Ends the worker after the job under way; jobs not started are dropped.
    void stopWorker();
    void workerLoop();

    QString key_;
    std::deque<quint64> queue_; // front: the work that has the link
    std::thread thread_;
    std::mutex mutex_;
    std::condition_variable wake_;
    std::deque<std::function<void()>> jobs_;
    bool stopping_ = false;
};

class PrinterLinks : public QObject {
    Q_OBJECT
public:
    using Ticket = quint64;

    explicit PrinterLinks(QObject* parent = nullptr);
    ~PrinterLinks() override;

    // Upper bound of each device call's wait in blocking work (default 3000 ms).
    void setDeviceTimeout(int ms) { deviceTimeoutMs_ = qMax(1, ms); }
    int deviceTimeout() const { return deviceTimeoutMs_; }

    // Queues work that needs these connections (empty keys name none);
    // `granted` runs on the event loop once all of them are its own, never
    // before this returns. The holder ends it with release().
    Ticket acquire(const QStringList& keys, std::function<void()> granted);
    // Ends granted work or withdraws waiting work; the next in line goes on.
    void release(Ticket ticket);
    bool granted(Ticket ticket) const;

    // Blocking work: once the connections are its own, `work` runs on the
    // worker of the first of them with this set's device context; `done`
    // follows on the event loop after the connections are given back. Both
    // are dropped when `context` is gone or stopped its work (stopWork).
    void run(const QStringList& keys, QObject* context, std::function<void(const DeviceContext&)> work,
             std::function<void()> done);
    // Withdraws the blocking work `context` asked for: waiting work is dropped,
    // work under way has its waits cancelled and is waited for. No `done`
    // follows. Other parties' work goes on.
    void stopWork(QObject* context);
    // Blocking work of `context` waiting or under way.
    bool hasWork(const QObject* context) const;

    PrinterLink* link(const QString& key) const { return links_.value(key); }

private:
    struct Entry;
    PrinterLink* linkFor(const QString& key);
    void advance(PrinterLink* link);
    void grant(Ticket ticket);
    void dispatch(Ticket ticket);
    // Called on the event loop after a worker noted its ticket in ended_.
    Q_INVOKABLE void takeEnded();
    void workEnded(Ticket ticket);

    QHash<QString, PrinterLink*> links_;
    QHash<Ticket, std::shared_ptr<Entry>> entries_;
    Ticket nextTicket_ = 1;
    int deviceTimeoutMs_ = 3000;
    std::mutex endedMutex_;
    std::deque<Ticket> ended_; // blocking work over, from the workers

};

} // namespace quill
