#include "database/slots.h"
#include "foundation/error.h"

namespace quill {

QString FixedText(const QString& text, int width)
{
    return text.size() >= width ? text.left(width) : text.leftJustified(width, QLatin1Char(' '));
}

void PrinterSlots::reset()
{
    slots_.fill(PrinterSlot{});
}

qint32 PrinterSlots::FreeSlot() const
{
    for (qint32 n = 1; n < UpperBound; ++n)
        if (!slots_[n].inUse)
            return n;
    return -1;
}

PrinterSlot& PrinterSlots::at(qint32 index)
{
    if (index < 0 || index > UpperBound)
        throw Error(9, QStringLiteral("Subscript out of range"));
    return slots_[index];
}

const PrinterSlot& PrinterSlots::at(qint32 index) const
{
    return const_cast<PrinterSlots*>(this)->at(index);
}

void PrinterSlots::SrvSetPrinterStatus(qint32 n, qint32 code, const QString& text)
{
    PrinterSlot& s = at(n);
    s.prevStatus = s.status;
    s.prevStatusText = s.statusText;
    s.status = code;
    s.statusText = FixedText(text, 255);
    s.statusTime = QDateTime::currentDateTime();
    // A copy: an observer may add or remove observers.
    const auto observers = observers_;
    for (const auto& o : observers)
        o.second(n);
}

int PrinterSlots::addStatusObserver(std::function<void(qint32 n)> fn)
{
    const int handle = nextObserver_++;
    observers_.emplace_back(handle, std::move(fn));
    return handle;
}

void PrinterSlots::removeStatusObserver(int handle)
{
    std::erase_if(observers_, [handle](const auto& o) { return o.first == handle; });
}

} // namespace quill
