#include "foundation/jobfields.h"
#include "foundation/error.h"
#include "foundation/strutil.h"

namespace quill {

namespace {
// The field readers' 16-bit search positions (see GetToken).
constexpr qsizetype MaxPosition = 32767;
constexpr size_t MaxSeparators = 32766;

Error overflow() { return Error(ErrOverflow, QStringLiteral("Overflow")); }
} // namespace

JobFields::JobFields(const QString& text) : text_(text), empty_(text.isEmpty())
{
    if (text_.startsWith(TAB))
        text_.remove(0, 1);
    if (!text_.isEmpty() && text_.endsWith(TAB))
        text_.chop(1);
    for (qsizetype at = text_.indexOf(TAB); at >= 0; at = text_.indexOf(TAB, at + 1)) {
        // Reading field k searches up to its own end, the k-th separator.
        if (at >= MaxPosition && overflowFrom_ == NoOverflow)
            overflowFrom_ = int(tabs_.size()) + 1;
        tabs_.push_back(at);
    }
}

QString JobFields::field(int n) const
{
    if (n < 1 || empty_)
        return {};
    if (n >= overflowFrom_)
        throw overflow();
    const size_t k = size_t(n);
    if (k > tabs_.size() + 1)
        return {};
    const qsizetype start = k == 1 ? 0 : tabs_[k - 2] + 1;
    const qsizetype end = k <= tabs_.size() ? tabs_[k - 1] : text_.size();
    return text_.mid(start, end - start);
}

qint32 JobFields::number(int n, qint32 def) const
{
    return NullToLong(field(n), def);
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
