#pragma once
#include <QDateTime>
#include <QHash>
#include <QHostAddress>
#include <QList>
#include <QPair>
#include <QString>

namespace quill {

// Which client addresses may connect (per-machine tAllowedClients): a
// comma-separated list of addresses and CIDR networks. An empty list lets
// everyone in; a list without one valid entry lets nobody in, so a typing
// error never opens the port to the world.
class ClientFilter {
public:
    // Parses the setting; every entry that is not an address or network goes
    // into *invalid (trimmed, as written).
    void setAllowed(const QString& list, QStringList* invalid = nullptr);
    bool restricted() const { return restricted_; }
    bool allows(const QHostAddress& peer) const;

    // True when a refusal of this address is to be logged now: at most once a
    // minute per address.
    bool shouldLogRefusal(const QHostAddress& peer, const QDateTime& now = QDateTime::currentDateTimeUtc());

    // An IPv4 client reaching a dual-stack listener shows as ::ffff:a.b.c.d;
    // it is matched and logged as a.b.c.d.
    static QHostAddress plain(const QHostAddress& a);

private:
    bool restricted_ = false;
    QList<QPair<QHostAddress, int>> networks_;
    QHash<QString, QDateTime> lastLogged_;
};

} // namespace quill
