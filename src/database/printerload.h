#pragma once
// Start-up loading of the printer table into the printer slots.
//
//   QVector<qint32> ids = MainAddAndInitAllPrinters(jdb, printerSlots);  // ids in Id order
//   for (qint32 id : ids) add the printer's row to the printer list
//
// MainAddAndInitAllPrinters has no error trap: a database error, or a printer Id
// outside the slot table, throws quill::Error to the start-up trap.
#include "service/slots.h"

#include <QVector>

namespace quill {

class JobDatabase;
class Recordset;

// Copies the current row of a tbPrinter recordset into the slot: id, name (25
// characters), type, connection type, the connection string named by ConnectionUsed,
// the display text "<id> <name> på <port or address>", in use, passive.
void SrvPrinterLoadSlot(PrinterSlot& slot, const Recordset& rs);

// Loads every tbPrinter row into its slot and sets its status to Passive (5) or
// Ready (1). Slots of printers no longer in the table are left alone.
QVector<qint32> MainAddAndInitAllPrinters(JobDatabase& jdb, PrinterSlots& printerSlots);

} // namespace quill
