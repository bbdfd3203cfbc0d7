#include "database/printerload.h"
#include "database/jobdatabase.h"
#include "foundation/strutil.h"
#include "shell/texts.h"

namespace quill {

void SrvPrinterLoadSlot(PrinterSlot& slot, const Recordset& rs)
{
    slot.printerId = NullToLong(rs.field(QStringLiteral("Id")), -1);
    slot.name = FixedText(NullToStr(rs.field(QStringLiteral("Name")), QString()), 25);
    slot.printerTypeId = NullToLong(rs.field(QStringLiteral("PrinterTypeId")), 0);
    slot.connectionType = NullToLong(rs.field(QStringLiteral("ConnectionUsed")), 0);
    if (slot.connectionType >= 1 && slot.connectionType <= 4)
        slot.connectionString = FixedText(
            NullToStr(rs.field(QStringLiteral("Connection") + QString::number(slot.connectionType)), QString()), 255);
    // Trimmed in place: the fixed-width fields keep their width.
    slot.connectionString = FixedText(slot.connectionString.trimmed(), 255);
    slot.name = FixedText(slot.name.trimmed(), 25);
    const QString connection = slot.connectionString.trimmed();
    const int hash = int(connection.indexOf(QLatin1Char('#')));
    slot.displayText = FixedText(GetString(12056, QString::number(slot.printerId) + QLatin1Char('|') + slot.name.trimmed()
                                                      + QLatin1Char('|') + (hash >= 0 ? connection.left(hash) : connection)),
                                 255);
    slot.inUse = true;
    slot.passive = NullToLong(rs.field(QStringLiteral("Passive")), 0) > 0;
}

QVector<qint32> MainAddAndInitAllPrinters(JobDatabase& jdb, PrinterSlots& printerSlots)
{
    QVector<qint32> loaded;
    Snapshot rs(jdb.database(), QStringLiteral("SELECT * FROM tbPrinter ORDER BY Id"));
    if (!(rs.IsBOF() && rs.IsEOF())) {
        rs.MoveLast();
        rs.MoveFirst();
        while (!rs.IsEOF()) {
            const qint32 id = NullToLong(rs.field(QStringLiteral("Id")), -1);
            SrvPrinterLoadSlot(printerSlots.at(id), rs);
            if (printerSlots.at(id).passive)
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
