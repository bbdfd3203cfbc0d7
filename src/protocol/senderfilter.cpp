#include "protocol/senderfilter.h"
#include "foundation/strutil.h"

#include <algorithm>

namespace quill {

namespace {

bool isAscii(QStringView s)
{
    return std::all_of(s.begin(), s.end(), [](QChar c) { return c.unicode() < 0x80; });
}

// ASCII and no "|".
bool plain(QByteArrayView b)
{
    return std::all_of(b.begin(), b.end(), [](char c) { return uchar(c) < 0x80 && c != '|'; });
}

// What QString::trimmed removes, in ASCII.
bool asciiSpace(char c) { return c == ' ' || (c >= '\t' && c <= '\r'); }

QByteArrayView trimmed(QByteArrayView b)
{
    while (!b.isEmpty() && asciiSpace(b.front()))
        b = b.sliced(1);
    while (!b.isEmpty() && asciiSpace(b.back()))
        b.chop(1);
    return b;
}

// b upper-cased equals upper (ASCII).
bool sameUpper(QByteArrayView b, const QByteArray& upper)
{
    if (b.size() != upper.size())
        return false;
    for (qsizetype i = 0; i < b.size(); ++i) {
        const char c = b[i] >= 'a' && b[i] <= 'z' ? char(b[i] - 'a' + 'A') : b[i];
        if (c != upper[i])
            return false;
    }
    return true;
}

} // namespace

SenderFilter::SenderFilter(const QString& workstation, const QString& user)
    : w_(workstation), u_(user), anyW_(workstation == QLatin1String("*")), anyU_(user == QLatin1String("*"))
{
    ascii_ = isAscii(w_) && isAscii(u_);
    if (ascii_) {
        wBytes_ = w_.toLatin1();
        uBytes_ = u_.toLatin1();
    }
}

bool SenderFilter::matches(const QueuedJob& job) const
{
    if (anyW_ && anyU_)
        return true;
    if (ascii_) {
        const QByteArrayView ws = job.fieldBytes(7);
        const QByteArrayView user = job.fieldBytes(11);
        // A blank workstation splits the tag "|user" into the same two parts.
        if (plain(ws) && plain(user))
            return (anyW_ || sameUpper(trimmed(ws), wBytes_)) && (anyU_ || sameUpper(trimmed(user), uBytes_));
    }
    return matchesTexts(job);
}

bool SenderFilter::matchesTexts(const QueuedJob& job) const
{
    const QString ws = job.workstation();
    const QString user = job.user();
    QString rowW, rowU;
    if (!ws.isEmpty() && !ws.contains(QLatin1Char('|')) && !user.contains(QLatin1Char('|'))) {
        rowW = ws;
        rowU = user;
    } else {
        const QString tag = ws + QLatin1Char('|') + user;
        rowW = GetToken(tag, QStringLiteral("|"), 1);
        rowU = GetToken(tag, QStringLiteral("|"), 2);
    }
    return (anyW_ || w_ == rowW.trimmed().toUpper()) && (anyU_ || u_ == rowU.trimmed().toUpper());
}

} // namespace quill
