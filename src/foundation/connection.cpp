#include "foundation/connection.h"

#include <QRegularExpression>

namespace quill {

ConnectionString ConnectionString::parse(const QString& text)
{
    ConnectionString c;
    const qsizetype hash = text.indexOf(QLatin1Char('#'));
    c.hasHash = hash >= 0;
    c.device = c.hasHash ? text.left(hash) : text;
    c.rateOrPort = c.hasHash ? text.mid(hash + 1) : QString();
    return c;
}

QString ConnectionString::serial(qint32 comPort, qint32 rate)
{
    return QStringLiteral("COM") + QString::number(comPort) + QStringLiteral(":#") + QString::number(rate);
}

QString ConnectionString::network(const QString& address, const QString& port)
{
    return address.trimmed() + QLatin1Char('#') + port.trimmed();
}

int ConnectionString::comPort() const
{
    if (hasHash)
        return 0;
    static const QRegularExpression com(QStringLiteral("^COM([1-9]):?$"), QRegularExpression::CaseInsensitiveOption);
    const QRegularExpressionMatch m = com.match(device.trimmed());
    return m.hasMatch() ? m.captured(1).toInt() : 0;
}

} // namespace quill
