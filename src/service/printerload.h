#pragma once
// Start-up loading of the printer table into the printer slots.
//
//   QVector<qint32> ids = MainAddAndInitAllPrinters(jdb, printerSlots);  // ids in Id order
//   for (qint32 id : ids) add the printer's row to the printer list
//
// There is no error trap here: a database error, or a printer Id outside the slot
// table, throws quill::Error to the start-up trap.
#include "database/slots.h"

#include <QVector>

namespace quill {

class JobDatabase;

// Loads every tbPrinter row into its slot (SrvPrinterLoadSlot of printers/printerrecord.h)
// and sets its status to Passive (5, "Passiv") or Ready (1, "Klar"). Slots of printers
// no longer in the table are left alone. Returns the loaded ids in Id order.
QVector<qint32> MainAddAndInitAllPrinters(JobDatabase& jdb, PrinterSlots& printerSlots);

} // namespace quill
