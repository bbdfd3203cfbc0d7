#pragma once
#include <QElapsedTimer>
#include <QObject>
#include <QTimer>

#include <unordered_map>

namespace quill {

// The traffic indicator of the status bar: job received, other traffic, or
// none. Any indication falls back to "none" one second later.
class TrafficIndicator : public QObject {
    Q_OBJECT
public:
    enum State { NoTraffic, OtherTraffic, ReceivingJob };
    Q_ENUM(State)

    explicit TrafficIndicator(QObject* parent = nullptr);

    // Shows the state whose text (12138/12139/12140) matches exactly; any
    // other text leaves the indicator as it is.
    void SrvSetTrafficStatus(const QString& stateText);
    // Sets a state and (re)starts the one-second reset.
    void indicate(State s);

    State state() const { return state_; }
    QString stateText() const;
    static QString textOf(State s);

signals:
    void changed(quill::TrafficIndicator::State state);

private:
    State state_ = NoTraffic;
    QTimer tmrTrafficStatus_;
};

// The traffic log's share of each connection: of what one connection sends in
// a window (a minute) at most Budget bytes are logged, however it arrives; the
// rest is counted, and once the window is over a note says how much of it was
// left out.
class TrafficLog : public QObject {
    Q_OBJECT
public:
    static constexpr qsizetype Budget = 64 * 1024;

    explicit TrafficLog(QObject* parent = nullptr);
    // Notes what is still left out.
    ~TrafficLog() override;

    // One arrival on connection entry `entry`; `key` tells connections apart
    // (the next client on the same entry has another).
    void log(const QString& data, quint64 key, int entry);
    // Notes and forgets the windows that are over, or all of them.
    void closeWindows(bool all = false);

private:
    struct Window {
        qint64 start = 0;
        qsizetype logged = 0;
        qint64 leftOut = 0;
        int arrivals = 0;
        int entry = 0;
    };
    void note(const Window& w);

    std::unordered_map<quint64, Window> windows_;
    QElapsedTimer clock_;
    QTimer sweep_;
};

// The window's length; tests shorten it.
void SetTrafficWindowForTesting(int ms);

} // namespace quill
