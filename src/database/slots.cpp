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
    emit cleared();
}

qint32 PrinterSlots::FreeSlot() const
{
    for (qint32 n = 1; n < UpperBound; ++n)
        if (!slots_[n].inUse)
            return n;
    return -1;
}

PrinterSlot& PrinterSlots::slot(qint32 index)
{
    if (index < 0 || index > UpperBound)
        throw Error(9, QStringLiteral("Subscript out of range"));
    return slots_[index];
}

const PrinterSlot& PrinterSlots::at(qint32 index) const
{
    return const_cast<PrinterSlots*>(this)->slot(index);
}

void PrinterSlots::setPrinter(qint32 n, const PrinterSlot& loaded)
{
    PrinterSlot& s = slot(n);
    const bool wasInUse = s.inUse;
    s.printerId = loaded.printerId;
    s.name = loaded.name;
    s.printerTypeId = loaded.printerTypeId;
    s.connectionType = loaded.connectionType;
    s.connectionString = loaded.connectionString;
    s.displayText = loaded.displayText;
    s.passive = loaded.passive;
    s.inUse = true;
    if (wasInUse)
        emit printerChanged(n);
    else
        emit printerAdded(n);
}

void PrinterSlots::removePrinter(qint32 n)
{
    PrinterSlot& s = slot(n);
    if (!s.inUse)
        return;
    s.inUse = false;
    emit printerRemoved(n);
}

void PrinterSlots::SrvSetPrinterStatus(qint32 n, qint32 code, const QString& text)
{
    PrinterSlot& s = slot(n);
    s.prevStatus = s.status;
    s.prevStatusText = s.statusText;
    s.status = code;
    s.statusText = FixedText(text, 255);
    s.statusTime = QDateTime::currentDateTime();
    emit statusChanged(n);
}

} // namespace quill
