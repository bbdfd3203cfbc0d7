#include "foundation/strutil.h"
#include "foundation/error.h"
#include "foundation/texts.h"

#include <cmath>
#include <limits>

namespace quill {

QString errorText(const std::exception& e)
{
    return asError(e).text();
}

Error asError(const std::exception& e)
{
    if (auto* q = dynamic_cast<const Error*>(&e))
        return *q;
    return Error(-1, QString::fromLocal8Bit(e.what()));
}

namespace {

constexpr qsizetype MaxPosition = 32767;

// Index of sep in text from `from`, with the 16-bit position limit of the callers.
qsizetype find16(const QString& text, const QString& sep, qsizetype from)
{
    const qsizetype at = text.indexOf(sep, from);
    if (at >= MaxPosition) // 1-based position above 32767
        throw Error(ErrOverflow, QStringLiteral("Overflow"));
    return at;
}

QString stripOneSeparator(const QString& text, const QString& sep)
{
    QString t = text;
    if (t.startsWith(sep))
        t.remove(0, sep.size());
    if (!t.isEmpty() && t.endsWith(sep))
        t.chop(sep.size());
    return t;
}

} // namespace

QString GetToken(const QString& text, const QString& sep, int n)
{
    if (text.isEmpty() || sep.isEmpty() || n < 1)
        return {};
    const QString t = stripOneSeparator(text, sep);
    qsizetype start = 0;
    for (int i = 1; i < n; ++i) {
        const qsizetype at = find16(t, sep, start);
        if (at < 0)
            return {};
        start = at + sep.size();
    }
    const qsizetype end = find16(t, sep, start);
    return end < 0 ? t.mid(start) : t.mid(start, end - start);
}

int CountTokens(const QString& text, const QString& sep)
{
    if (text.isEmpty() || sep.isEmpty())
        return 0;
    const QString t = stripOneSeparator(text, sep);
    int count = 0;
    for (qsizetype at = find16(t, sep, 0); at >= 0; at = find16(t, sep, at + sep.size())) {
        if (++count > std::numeric_limits<qint16>::max() - 1)
            throw Error(ErrOverflow, QStringLiteral("Overflow"));
    }
    return count + 1;
}

namespace {

// Converts to a whole number the way the classic runtime does: trims blanks,
// accepts a fraction and rounds it half to even. Nothing numeric gives nullopt.
std::optional<double> toWhole(const QVariant& value)
{
    if (value.isNull())
        return std::nullopt;
    double d = 0;
    switch (value.typeId()) {
    case QMetaType::Bool:
        return value.toBool() ? -1.0 : 0.0;
    case QMetaType::Int: case QMetaType::UInt: case QMetaType::LongLong:
    case QMetaType::ULongLong: case QMetaType::Short: case QMetaType::UShort:
    case QMetaType::Long: case QMetaType::ULong: case QMetaType::Char: case QMetaType::UChar:
        return double(value.toLongLong());
    case QMetaType::Double: case QMetaType::Float:
        d = value.toDouble();
        break;
    default: {
        const QString s = value.toString().trimmed();
        if (s.isEmpty())
            return std::nullopt;
        bool ok = false;
        d = s.toDouble(&ok);
        if (!ok) {
            // Hexadecimal literal &H...
            if (s.startsWith(QLatin1String("&H"), Qt::CaseInsensitive)) {
                const qint64 h = s.mid(2).toLongLong(&ok, 16);
                if (!ok)
                    return std::nullopt;
                d = double(h);
            } else {
                return std::nullopt;
            }
        }
    }
    }
    if (!std::isfinite(d))
        return std::nullopt;
    return std::nearbyint(d); // default rounding mode: half to even
}

} // namespace

qint32 NullToLong(const QVariant& value, qint32 def)
{
    if (value.typeId() == QMetaType::QString && value.toString().isEmpty())
        return def;
    const auto d = toWhole(value);
    if (!d || *d < std::numeric_limits<qint32>::min() || *d > std::numeric_limits<qint32>::max())
        return def;
    return qint32(*d);
}

qint16 NullToInt(const QVariant& value, qint16 def)
{
    if (value.typeId() == QMetaType::QString && value.toString().isEmpty())
        return def;
    const auto d = toWhole(value);
    if (!d || *d < std::numeric_limits<qint16>::min() || *d > std::numeric_limits<qint16>::max())
        return def;
    return qint16(*d);
}

QString NullToStr(const QVariant& value, const QString& def)
{
    if (value.isNull())
        return def;
    const QString s = value.toString();
    return s.isEmpty() ? def : s;
}

QString AddSlash(const QString& path)
{
    if (path.isEmpty() || path.endsWith(QLatin1Char('/')))
        return path;
    return path + QLatin1Char('/');
}

bool KeyAllowed(int key, const QString& pattern)
{
    const int items = CountTokens(pattern, QStringLiteral(";"));
    for (int i = 1; i <= items; ++i) {
        const QString item = GetToken(pattern, QStringLiteral(";"), i);
        if (item.isEmpty())
            continue;
        if (item.startsWith(QLatin1Char('[')) && item.endsWith(QLatin1Char(']')) && item.size() > 2) {
            const QString inner = item.mid(1, item.size() - 2);
            const qsizetype dash = inner.indexOf(QLatin1Char('-'), 1);
            bool ok1 = false, ok2 = true;
            int lo = 0, hi = 0;
            if (dash > 0) {
                lo = inner.left(dash).toInt(&ok1);
                hi = inner.mid(dash + 1).toInt(&ok2);
            } else {
                lo = hi = inner.toInt(&ok1);
            }
            if (ok1 && ok2 && key >= lo && key <= hi)
                return true;
            continue;
        }
        if (item.size() >= 2 && item.at(1) == QLatin1Char('-')) {
            if (key >= item.front().unicode() && key <= item.back().unicode())
                return true;
            continue;
        }
        if (item.size() == 1 && key == item.front().unicode())
            return true;
    }
    return false;
}

QString DeviceErrorText(int code)
{
    int id = 13007;
    switch (code) {
    case -1: id = 13002; break;
    case -2: id = 13003; break;
    case -3: id = 13004; break;
    case -4: id = 13005; break;
    case -5: id = 13009; break;
    case -8: id = 13006; break;
    default: break;
    }
    return GetString(id);
}

QString DeviceStatusResult(int status)
{
    if (status & 4)
        return ResultErr(DeviceErrorText(-5));
    if (status & 1)
        return ResultErr(DeviceErrorText(-4));
    if (!(status & 8))
        return ResultOk();
    return ResultErr(GetString(13010));
}

} // namespace quill
