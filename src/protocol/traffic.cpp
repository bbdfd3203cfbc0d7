#include "protocol/traffic.h"
#include "foundation/eventlog.h"
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

namespace {
int windowMs = 60000;
} // namespace

void SetTrafficWindowForTesting(int ms)
{
    windowMs = ms;
}

TrafficLog::TrafficLog(QObject* parent) : QObject(parent)
{
    clock_.start();
    connect(&sweep_, &QTimer::timeout, this, [this] { closeWindows(); });
}

TrafficLog::~TrafficLog()
{
    closeWindows(true);
}

void TrafficLog::log(const QString& data, quint64 key, int entry)
{
    if (!UseTrafficLog())
        return;
    const qint64 now = clock_.elapsed();
    auto it = windows_.find(key);
    if (it != windows_.end() && now - it->second.start >= windowMs) {
        note(it->second);
        windows_.erase(it);
        it = windows_.end();
    }
    if (it == windows_.end())
        it = windows_.emplace(key, Window{now, 0, 0, 0, entry}).first;
    Window& w = it->second;
    const qsizetype room = Budget - w.logged;
    if (room > 0) {
        LogTraffic(data.left(room));
        w.logged += std::min(room, data.size());
    }
    if (data.size() > room) {
        w.leftOut += data.size() - std::max<qsizetype>(room, 0);
        ++w.arrivals;
    }
    if (!sweep_.isActive())
        sweep_.start(std::max(windowMs / 4, 100));
}

void TrafficLog::closeWindows(bool all)
{
    const qint64 now = clock_.elapsed();
    for (auto it = windows_.begin(); it != windows_.end();) {
        if (all || now - it->second.start >= windowMs) {
            note(it->second);
            it = windows_.erase(it);
        } else {
            ++it;
        }
    }
    if (windows_.empty())
        sweep_.stop();
}

void TrafficLog::note(const Window& w)
{
    if (w.leftOut == 0)
        return;
    LogTraffic(QStringLiteral("[connection %1: %2 bytes in %3 arrivals left out of the traffic log, which keeps at "
                              "most %4 bytes of a connection in %5 s]")
                   .arg(w.entry)
                   .arg(w.leftOut)
                   .arg(w.arrivals)
                   .arg(Budget)
                   .arg(windowMs / 1000.0));
}

} // namespace quill
