#pragma once
// The printer record (one tbPrinter row), the printer dialog's fields as one
// value, and the operations that move a printer between the table, its slot
// and the dialog.
#include "database/repositories.h"

#include <QList>
#include <QString>
#include <QVariant>
#include <functional>
#include <optional>

namespace quill {

class PrinterSlots;
struct PrinterSlot;

// What the printer dialog shows. A drop-down list with nothing selected is an
// empty optional; the operations apply their own default then (new and edited
// printers differ for the printer type).
struct PrinterSettings {
    QString name;                       // txtPrinterName, as typed
    std::optional<qint32> printerTypeId = 1; // cboPrinterType item data
    bool serial = true;                 // optConnection: index 0 serial, 1 network
    std::optional<qint32> comPort = 1;  // cboCOMPort item data, 1..4
    std::optional<qint32> comRate = 9600; // cboCOMRate item data, 9600 or 57600
    QString netAddress;                 // txtNetIP
    QString netPort;                    // txtNetPort
    QString loadedAddress;              // txtNetIP's tag: the address the box had when loaded
    bool netConnectOnly = false;        // chkNetConnectOnly
    std::optional<qint32> strobe = 4;   // cboAdjStrobe item data, darkness step 0..9
    std::optional<qint32> speed = 2;    // cboAdjSpeed item data, speed step 0..7
    bool passive = false;               // chkPassive
    QString advancedSettings;           // "cutter;feed;reverse", empty for a new printer

    // Dialog modes (its tag): 1 new, 2 edit.
    static constexpr int ModeNew = 1;
    static constexpr int ModeEdit = 2;
};

// The fixed lists of the dialog.
inline const QList<qint32> ComPortChoices{1, 2, 3, 4};
inline const QList<qint32> ComRateChoices{9600, 57600};
constexpr int StrobeSteps = 10; // item data 0..9
constexpr int SpeedSteps = 8;   // item data 0..7
constexpr qint32 DefaultDispensingFeed = 60;
constexpr quint16 DefaultNetPort = 23;

// The one place a printer's device name and line settings are made, from the
// connection strings (foundation/connection.h splits and builds those).
QString LineSettings(const QString& rate); // rate + ",n,8,1,x"
QString SerialDeviceName(qint32 comPort);   // "COM3:"
QString NetworkDeviceName(const QString& connection); // "NETBOX:10.0.0.5#23"
struct PrinterDevice {
    QString name;     // linktransport.h's device names
    QString settings; // line settings of a serial device; empty for a box
};
// A stored printer's device (empty for a connection type that names none).
PrinterDevice SlotDevice(const PrinterSlot& slot);
// The device the printer dialog's values name.
PrinterDevice DialogDevice(const PrinterSettings& dialog);

// The advanced-settings text and its three parts.
struct AdvancedSettings {
    qint32 cutterInstalled = 0;
    qint32 dispensingFeed = DefaultDispensingFeed;
    qint32 reverseFeed = 0;
};
QString AdvancedSettingsText(qint32 cutterInstalled, qint32 dispensingFeed, qint32 reverseFeed);
AdvancedSettings ParseAdvancedSettings(const QString& text);

// Copies a row into the dialog's fields. typeIds are the entries of the
// printer-type list; an empty list accepts any type.
void SrvPrinterFillDialog(const PrinterRow& row, PrinterSettings& dialog, const QList<qint32>& typeIds = {});

// The row the dialog's fields make (every column but CurrentTemplateId).
PrinterRow PrinterRowFromDialog(qint32 id, const PrinterSettings& dialog, bool newPrinter);

// Fills a slot record's printer fields from a row and marks it in use (the
// caller puts it into the table with PrinterSlots::setPrinter).
void SrvPrinterLoadSlot(PrinterSlot& slot, const PrinterRow& row);

// Saves the dialog as a new printer in the lowest free slot; returns its Id.
// Throws to the caller's trap (no free slot, database errors).
qint32 SrvPrinterAddNew(PrinterRepository& printers, PrinterSlots& printerSlots, const PrinterSettings& dialog);
// Saves the dialog over the edited printer; returns its Id. Throws like AddNew
// (3021 when its row is gone).
qint32 SrvPrinterUpdate(PrinterRepository& printers, PrinterSlots& printerSlots, qint32 editPrinterId,
                        const PrinterSettings& dialog);

// The dialog's OK after validation: add (mode 1) or update printer
// editPrinterId (mode 2), then the after-save check of an active printer:
// `check` starts it (on a printer link, deviceops.h). Returns
// the printer's Id, or -1 when saving failed (logged).
qint32 SrvMainPrinterSave(PrinterRepository& printers, PrinterSlots& printerSlots, const PrinterSettings& dialog,
                          int mode, qint32 editPrinterId, const std::function<void(qint32)>& check = {});

// Deletes the printer and frees its slot (the operator asked first). True
// when deleted; a failure is logged.
bool SrvMainPrinterDelete(PrinterRepository& printers, PrinterSlots& printerSlots, qint32 printerId);

// The slot's one-line description: "2 Kassa på COM2:".
QString PrinterDisplayText(qint32 printerId, const QString& name, const QString& connection);

} // namespace quill
