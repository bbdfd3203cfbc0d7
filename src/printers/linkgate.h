#pragma once
// Who uses a printer connection now. A serial line or a network box serves one
// party at a time: the print driver's runs (on the event-loop thread, never
// waiting) and a device operation (on its worker thread, waiting its turn).
//
//   Driver:  if (!gate.tryTake(key)) { wait for released(), try again }
//            ... run ... gate.give(key);
//   Worker:  LinkGate::Hold hold(gate, keys);   // blocks until all are free
//            ... blocking device calls ...      // given back when hold ends
#include <QHash>
#include <QObject>
#include <QString>
#include <QStringList>

#include <condition_variable>
#include <mutex>

namespace quill {

struct LinkAddress;

// One name per physical connection: the resolved path of a serial line
// (COMn through the Ports settings, links followed), or host:port of a box.
// Empty for a name that names nothing.
QString LinkKey(const LinkAddress& address);
QString LinkKey(const QString& deviceName);

class LinkGate : public QObject {
    Q_OBJECT
public:
    static LinkGate& instance();

    // Never waits. False while someone else holds the key.
    bool tryTake(const QString& key);
    void give(const QString& key);
    bool held(const QString& key) const;

    // All of them or none, without waiting.
    bool tryTakeAll(const QStringList& keys);

    // Holds every key for its lifetime; waits while any is held elsewhere,
    // or until cancelAll() (then holds nothing; cancelled() tells). Adopting
    // takes over keys already taken with tryTakeAll.
    class Hold {
    public:
        enum Mode { Wait, Adopt };
        Hold(LinkGate& gate, const QStringList& keys, Mode mode = Wait);
        ~Hold();
        Hold(const Hold&) = delete;
        Hold& operator=(const Hold&) = delete;
        bool cancelled() const { return cancelled_; }

    private:
        LinkGate& gate_;
        QStringList keys_;
        bool cancelled_ = false;
    };
    // Lets every waiting Hold give up (shutdown); on = false ends that.
    void cancelAll(bool on);

signals:
    // A key became free; emitted on the gate's thread.
    void released();

private:
    LinkGate() = default;
    void announceRelease();

    mutable std::mutex mutex_;
    std::condition_variable freed_;
    QHash<QString, int> holders_;
    bool cancelled_ = false;
};

} // namespace quill
