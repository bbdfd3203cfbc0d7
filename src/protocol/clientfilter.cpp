#include "protocol/clientfilter.h"

namespace quill {

namespace {
constexpr qint64 RefusalLogSeconds = 60;
// Bounds the refusal memory against a sweep from many addresses.
constexpr qsizetype MaxRemembered = 4096;
} // namespace

QHostAddress ClientFilter::plain(const QHostAddress& a)
{
    bool ok = false;
    const quint32 v4 = a.toIPv4Address(&ok);
    return ok ? QHostAddress(v4) : a;
}

void ClientFilter::setAllowed(const QString& list, QStringList* invalid)
{
    networks_.clear();
    lastLogged_.clear();
    restricted_ = false;
    for (const QString& raw : list.split(QLatin1Char(','), Qt::SkipEmptyParts)) {
        const QString entry = raw.trimmed();
        if (entry.isEmpty())
            continue;
        restricted_ = true;
        QPair<QHostAddress, int> net{QHostAddress(entry), -1};
        if (!net.first.isNull())
            net.second = net.first.protocol() == QAbstractSocket::IPv4Protocol ? 32 : 128;
        else if (entry.contains(QLatin1Char('/')))
            net = QHostAddress::parseSubnet(entry);
        if (net.first.isNull() || net.second < 0) {
            if (invalid)
                invalid->append(entry);
            continue;
        }
        net.first = plain(net.first);
        networks_.append(net);
    }
}

bool ClientFilter::allows(const QHostAddress& peer) const
{
    if (!restricted_)
        return true;
    const QHostAddress p = plain(peer);
    for (const auto& net : networks_)
        if (p.isInSubnet(net))
            return true;
    return false;
}

bool ClientFilter::shouldLogRefusal(const QHostAddress& peer, const QDateTime& now)
{
    const QString key = plain(peer).toString();
    const auto it = lastLogged_.constFind(key);
    if (it != lastLogged_.constEnd() && it->secsTo(now) < RefusalLogSeconds)
        return false;
    if (lastLogged_.size() >= MaxRemembered) {
        for (auto i = lastLogged_.begin(); i != lastLogged_.end();)
            i = i->secsTo(now) >= RefusalLogSeconds ? lastLogged_.erase(i) : std::next(i);
        if (lastLogged_.size() >= MaxRemembered)
            return false; // a sweep from thousands of addresses: the log would only flood
    }
    lastLogged_.insert(key, now);
    return true;
}

} // namespace quill
