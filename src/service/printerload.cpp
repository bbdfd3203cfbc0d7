#include "service/printerload.h"
#include "database/jobdatabase.h"
#include "foundation/strutil.h"
#include "printers/printerrecord.h"
#include "foundation/texts.h"

namespace quill {

QVector<qint32> MainAddAndInitAllPrinters(JobDatabase& jdb, PrinterSlots& printerSlots)
{
    QVector<qint32> loaded;
    Snapshot rs(jdb.database(), QStringLiteral("SELECT * FROM tbPrinter ORDER BY Id"));
    if (!(rs.IsBOF() && rs.IsEOF())) {
        rs.MoveLast();
        rs.MoveFirst();
        while (!rs.IsEOF()) {
            const qint32 id = NullToLong(rs.field(QStringLiteral("Id")), -1);
            PrinterSlot slot = printerSlots.at(id);
            SrvPrinterLoadSlot(slot, RowReader(rs));
            printerSlots.setPrinter(id, slot);
            if (slot.passive)
                printerSlots.SrvSetPrinterStatus(id, StatusPassive, GetString(12052));
            else
                printerSlots.SrvSetPrinterStatus(id, StatusReady, GetString(12051));
            loaded.append(id);
            rs.MoveNext();
        }
    }
    return loaded;
}

} // namespace quill
