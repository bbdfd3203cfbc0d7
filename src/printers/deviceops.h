#pragma once
// Printer set-up through a device session (devicesession.h): configuration
// over a serial port or through a network box, serial re-configuration, test
// print, clear memory, calibrate, status check, and the checks after a printer
// was saved. Each operation opens the device, runs a fixed call sequence, stops
// at the first call that fails and closes the device before it returns. They
// block, so they run on a printer link's worker (printerlink.h), and they
// report as values: the boxes and questions are the operator's.
#include "printers/devicesession.h"

#include <QString>
#include <QList>
#include <QStringList>

namespace quill {

class PrinterSlots;
struct PrinterSlot;
struct PrinterSettings;

// Device values for a darkness step s (0..9) and speed step v (0..7) of a
// printer type 1..9: s / 9 * span + base, v / 7 * span + base, rounded to the
// nearest 16-bit integer, halves to even.
struct DeviceAdjustment {
    qint16 darkness = 0;
    qint16 speed = 0;
};
bool IsConfigurableType(qint32 printerType);
// Raises Error(ErrOverflow) outside the 16-bit range.
qint16 RoundToInt16(double value);
// Error(5) for a type outside 1..9.
DeviceAdjustment ConvertAdjustment(qint32 printerType, qint32 strobeStep, qint32 speedStep);

// The configuration steps shared by the serial and the network path.
struct DeviceConfig {
    qint16 darkness = 0;
    qint16 speed = 0;
    qint32 dispensingFeed = 60;
    qint32 reverseFeed = 0;
};

// Configure button of the printer dialog, without its boxes: converts and
// configures. A successful network configuration replaces the dialog's loaded
// address by the new one. A box that cannot be reached at its loaded address
// (or has none) gives NeedsSerial: asked again with throughSerial, the box is
// configured through the serial port.
enum class ConfigResult { Configured, NotConfigurable, SerialFailed, NoAddress, NetworkFailed, NeedsSerial, Trapped };
ConfigResult ConfigureDevice(const DeviceContext& context, PrinterSettings& dialog, bool throughSerial = false);
// The connection (LinkKey) of a stored printer, as SrvMPCheck opens it.
QString SlotLinkKey(const PrinterSlot& slot);
// The connections (LinkKey) an operation on the dialog's values uses.
QStringList DialogLinkKeys(const PrinterSettings& dialog, bool configure, bool throughSerial = false);

// port: "1".."4"; rate: "9600" or "57600".
bool SrvMPConfigCOM(const DeviceContext& context, const QString& port, const QString& rate, const DeviceConfig& config);
// Configured, NetworkFailed, or NeedsSerial (nothing sent yet) when the box
// is not reached at loadedAddress and throughSerial is not set.
ConfigResult SrvMPConfigNET(const DeviceContext& context, const QString& newAddress, const QString& loadedAddress,
                            bool connectOnly, const QString& port, const QString& rate, const DeviceConfig& config,
                            bool throughSerial = false);
// deviceName: "COM1:"; re-sends the line speed to a serial printer.
bool SrvMPConfigCOM2(const DeviceContext& context, const QString& deviceName, const QString& rate);
// Every slot in use, not passive and serial, through SrvMPConfigCOM2. The
// lines are read on the event-loop thread; the calls run on a link's worker.
struct SerialLine {
    QString deviceName; // "COM2:"
    QString rate;
};
QList<SerialLine> SerialLinesToReconfigure(const PrinterSlots& printerSlots);
void ReConfigCOMLines(const DeviceContext& context, const QList<SerialLine>& lines);

// Result texts "OK" TAB, or "ERR" TAB reason.
QString SrvMPTestPrint(const DeviceContext& context, const QString& deviceName, const QString& settings);
QString SrvMPClear(const DeviceContext& context, const QString& deviceName, const QString& settings);
QString SrvMPCal(const DeviceContext& context, const QString& deviceName, const QString& settings);
QString SrvMPCheck(const DeviceContext& context, const PrinterSlot& slot);


// The test label's text: display title, " v", major.minor.revision.
QString TestPrintTitle();
// The test layout file in the installation folder.
QString TestLayoutPath();

// After a printer was saved: a device check (SrvMPCheck, on a link's worker)
// decides Ready or Error, the slot showing Checking meanwhile; a passive
// printer just becomes Passive. Checking first (false when the slot cannot
// take it), then the check's result.
bool StartAfterConfigCheck(PrinterSlots& printerSlots, qint32 slot);
void FinishAfterConfigCheck(PrinterSlots& printerSlots, qint32 slot, const QString& result);
void SrvPassivePrinterAfterConfig(PrinterSlots& printerSlots, qint32 slot);

} // namespace quill
