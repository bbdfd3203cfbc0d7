#include "service/printerload.h"
#include "database/jobdatabase.h"
#include "foundation/strutil.h"
#include "printers/printerrecord.h"
#include "foundation/texts.h"

namespace quill {

QVector<qint32> MainAddAndInitAllPrinters(JobDatabase& jdb, PrinterSlots& printerSlots)
{
    DbResult<QVector<PrinterRow>> rows = jdb.printers().all();
    if (rows.error)
        throw *rows.error;
    QVector<qint32> loaded;
    for (const PrinterRow& row : rows.value) {
        const qint32 id = NullToLong(row.id, -1);
        PrinterSlot slot = printerSlots.at(id);
        SrvPrinterLoadSlot(slot, row);
        printerSlots.setPrinter(id, slot);
        if (slot.passive)
            printerSlots.SrvSetPrinterStatus(id, StatusPassive, GetString(12052));
        else
            printerSlots.SrvSetPrinterStatus(id, StatusReady, GetString(12051));
        loaded.append(id);
    }
    return loaded;
}

} // namespace quill
