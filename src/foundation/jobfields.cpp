#include "foundation/jobfields.h"
#include "foundation/error.h"
#include "foundation/strutil.h"

namespace quill {

namespace {
// The field readers' 16-bit search positions (see GetToken).
constexpr qsizetype MaxPosition = 32767;
constexpr qsizetype MaxSeparators = 32766;

Error overflow() { return Error(ErrOverflow, QStringLiteral("Overflow")); }
} // namespace

JobFields::JobFields(const QString& text) : text_(text), end_(text.size()), empty_(text.isEmpty())
{
    if (text_.startsWith(TAB))
        begin_ = 1;
    if (end_ > begin_ && text_.endsWith(TAB))
        --end_;
    const QChar* data = text_.constData();
    for (qsizetype at = begin_; at < end_; ++at) {
        if (data[at] != TAB)
            continue;
        // Reading field k searches up to its own end, the k-th separator.
        if (at - begin_ >= MaxPosition && overflowFrom_ == NoOverflow)
            overflowFrom_ = int(tabs_.size()) + 1;
        tabs_.push_back(at);
    }
}

bool JobFields::span(int n, qsizetype* start, qsizetype* end) const
{
    if (n < 1 || empty_)
        return false;
    if (n >= overflowFrom_)
        throw overflow();
    const qsizetype k = n;
    if (k > tabs_.size() + 1)
        return false;
    *start = k == 1 ? begin_ : tabs_[k - 2] + 1;
    *end = k <= tabs_.size() ? tabs_[k - 1] : end_;
    return true;
}

QString JobFields::field(int n) const
{
    qsizetype start = 0, end = 0;
    return span(n, &start, &end) ? text_.mid(start, end - start) : QString();
}

QString JobFields::withField(int n, const QString& value) const
{
    qsizetype start = 0, end = 0;
    if (!span(n, &start, &end))
        return text_;
    return text_.left(start) + value + text_.mid(end);
}

qint32 JobFields::number(int n, qint32 def) const
{
    qsizetype start = 0, end = 0;
    if (!span(n, &start, &end) || start == end)
        return def;
    // Plain digits (what clients send) read at once; NullToLong reads the rest
    // (signs, blanks, decimals, &H) and gives the same for plain digits.
    if (end - start <= 9) {
        qint32 value = 0;
        bool digits = true;
        for (qsizetype i = start; i < end && digits; ++i) {
            const char16_t c = text_.at(i).unicode();
            digits = c >= u'0' && c <= u'9';
            value = value * 10 + (c - u'0');
        }
        if (digits)
            return value;
    }
    return NullToLong(text_.mid(start, end - start), def);
}

int JobFields::count() const
{
    if (empty_)
        return 0;
    if (overflowFrom_ != NoOverflow || tabs_.size() > MaxSeparators)
        throw overflow();
    return int(tabs_.size()) + 1;
}

} // namespace quill
