#pragma once
#include <QObject>
#include <QTimer>

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

} // namespace quill
