#include "gui/pictures.h"
#include "shell/window.h"

#include <QHash>

#include <functional>

namespace quill {

namespace {

// Each picture is made once: lists ask for them on every paint, and an SVG
// icon renders its pixmaps once per icon, not once per request.
QIcon cached(const QString& key, const std::function<QIcon()>& make)
{
    static QHash<QString, QIcon> made;
    auto it = made.constFind(key);
    if (it == made.constEnd())
        it = made.insert(key, make());
    return *it;
}

QIcon themed(const char* themeName, const QString& own)
{
    return cached(QLatin1String(themeName ? themeName : "") + QLatin1Char('|') + own, [&] {
        const QIcon fallback = OwnPicture(own);
        return themeName ? QIcon::fromTheme(QLatin1String(themeName), fallback) : fallback;
    });
}

} // namespace

QIcon OwnPicture(const QString& name)
{
    return cached(name, [&] { return QIcon(QStringLiteral(":/quill/pictures/") + name + QStringLiteral(".svg")); });
}

QIcon StatusPicture(const QString& statusWord)
{
    // The list gives the word in the language in use, so the word is matched
    // against the words of the codes rather than against Swedish literals.
    struct Entry {
        qint32 code;
        const char* theme;
        const char* own;
    };
    static const Entry entries[] = {
        {StatusWorking, "printer-printing", "status-working"},
        {StatusReady, nullptr, "status-ready"},
        {StatusChecking, nullptr, "status-checking"},
        {StatusConfiguring, nullptr, "status-configuring"},
        {StatusError, "printer-error", "status-error"},
        {StatusPassive, nullptr, "status-passive"},
    };
    for (const Entry& e : entries)
        if (!statusWord.isEmpty() && StatusWord(e.code) == statusWord)
            return themed(e.theme, QString::fromLatin1(e.own));
    return {};
}

QIcon PrinterTypePicture(const QString& key)
{
    bool ok = false;
    int type = key.startsWith(QLatin1String("PType")) ? key.mid(5).toInt(&ok) : 0;
    if (!ok || type < 1 || type > 9)
        type = 1;
    return OwnPicture(QStringLiteral("ptype") + QString::number(type));
}

QIcon ServicePicture(bool started)
{
    return themed(started ? "media-playback-start" : "media-playback-stop",
                  started ? QStringLiteral("service-started") : QStringLiteral("service-stopped"));
}

QIcon TrafficPicture(TrafficIndicator::State state)
{
    switch (state) {
    case TrafficIndicator::ReceivingJob: return themed("network-receive", QStringLiteral("traffic-job"));
    case TrafficIndicator::OtherTraffic: return themed("network-transmit-receive", QStringLiteral("traffic-other"));
    case TrafficIndicator::NoTraffic: break;
    }
    return themed("network-idle", QStringLiteral("traffic-none"));
}

QIcon TrayPicture(bool started)
{
    return OwnPicture(started ? QStringLiteral("tray-started") : QStringLiteral("tray-stopped"));
}

QIcon ServerPicture()
{
    return themed("network-server", QStringLiteral("server"));
}

} // namespace quill
