#include "printers/linkgate.h"
#include "printers/linktransport.h"

#include <QFileInfo>
#include <QMetaObject>

namespace quill {

QString LinkKey(const LinkAddress& address)
{
    switch (address.kind) {
    case LinkAddress::Serial: {
        const QString canonical = QFileInfo(address.path).canonicalFilePath();
        return QStringLiteral("serial:") + (canonical.isEmpty() ? address.path : canonical);
    }
    case LinkAddress::Network:
        return QStringLiteral("net:") + address.host.toLower() + QLatin1Char(':') + QString::number(address.port);
    case LinkAddress::Invalid:
        break;
    }
    return {};
}

QString LinkKey(const QString& deviceName)
{
    return LinkKey(ParseDeviceName(deviceName.trimmed()));
}

LinkGate& LinkGate::instance()
{
    static LinkGate gate;
    return gate;
}

bool LinkGate::tryTake(const QString& key)
{
    if (key.isEmpty())
        return true;
    std::lock_guard lock(mutex_);
    if (holders_.contains(key))
        return false;
    holders_.insert(key, 1);
    return true;
}

void LinkGate::give(const QString& key)
{
    if (key.isEmpty())
        return;
    {
        std::lock_guard lock(mutex_);
        if (holders_.remove(key) == 0)
            return;
    }
    freed_.notify_all();
    announceRelease();
}

bool LinkGate::tryTakeAll(const QStringList& keys)
{
    std::lock_guard lock(mutex_);
    for (const QString& k : keys)
        if (holders_.contains(k))
            return false;
    for (const QString& k : keys)
        if (!k.isEmpty())
            holders_.insert(k, 1);
    return true;
}

bool LinkGate::held(const QString& key) const
{
    std::lock_guard lock(mutex_);
    return holders_.contains(key);
}

void LinkGate::cancelAll(bool on)
{
    {
        std::lock_guard lock(mutex_);
        cancelled_ = on;
    }
    freed_.notify_all();
}

void LinkGate::announceRelease()
{
    // Drivers wait on the event loop: tell them there, whoever gave back.
    QMetaObject::invokeMethod(this, &LinkGate::released, Qt::QueuedConnection);
}

LinkGate::Hold::Hold(LinkGate& gate, const QStringList& keys, Mode mode) : gate_(gate)
{
    QStringList wanted;
    for (const QString& k : keys)
        if (!k.isEmpty() && !wanted.contains(k))
            wanted << k;
    if (mode == Adopt) {
        keys_ = wanted;
        return;
    }
    std::unique_lock lock(gate_.mutex_);
    gate_.freed_.wait(lock, [&] {
        if (gate_.cancelled_)
            return true;
        for (const QString& k : wanted)
            if (gate_.holders_.contains(k))
                return false;
        return true;
    });
    if (gate_.cancelled_) {
        cancelled_ = true;
        return;
    }
    // All at once, so two holds never each wait for the other's half.
    for (const QString& k : wanted)
        gate_.holders_.insert(k, 1);
    keys_ = wanted;
}

LinkGate::Hold::~Hold()
{
    if (keys_.isEmpty())
        return;
    {
        std::lock_guard lock(gate_.mutex_);
        for (const QString& k : keys_)
            gate_.holders_.remove(k);
    }
    gate_.freed_.notify_all();
    gate_.announceRelease();
}

} // namespace quill
