#include "protocol/traffic.h"
#include "foundation/texts.h"

namespace quill {

TrafficIndicator::TrafficIndicator(QObject* parent) : QObject(parent)
{
    tmrTrafficStatus_.setInterval(1000);
    connect(&tmrTrafficStatus_, &QTimer::timeout, this, [this] {
        SrvSetTrafficStatus(textOf(NoTraffic));
        tmrTrafficStatus_.stop();
    });
}

QString TrafficIndicator::textOf(State s)
{
    switch (s) {
    case ReceivingJob: return GetString(12138);
    case OtherTraffic: return GetString(12139);
    case NoTraffic: break;
    }
    return GetString(12140);
}

QString TrafficIndicator::stateText() const { return textOf(state_); }

void TrafficIndicator::SrvSetTrafficStatus(const QString& stateText)
{
    for (State s : {ReceivingJob, OtherTraffic, NoTraffic}) {
        if (stateText == textOf(s)) {
            if (s != state_) {
                state_ = s;
                emit changed(s);
            }
            return;
        }
    }
}

void TrafficIndicator::indicate(State s)
{
    SrvSetTrafficStatus(textOf(s));
    tmrTrafficStatus_.start();
}

} // namespace quill
