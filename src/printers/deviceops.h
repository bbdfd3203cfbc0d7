#pragma once
// Printer set-up through the device library (comapi.h): configuration over a
// serial port or through a network box, serial re-configuration, test print,
// clear memory, calibrate, status check, and the checks after a printer was
// saved. Each operation opens the device, runs a fixed call sequence, stops at
// the first call that fails and closes the device before it returns.
#include <QString>
#include <QList>
#include <QStringList>

#include <functional>

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
// address by the new one. askUseSerial answers the question whether to go
// through the serial port when the box cannot be reached (empty: the question
// box). Safe on a worker thread when askUseSerial does not show a box there.
enum class ConfigResult { Configured, NotConfigurable, SerialFailed, NoAddress, NetworkFailed, Trapped };
ConfigResult ConfigureDevice(PrinterSettings& dialog, const std::function<bool()>& askUseSerial = {});
// The box that tells the operator how a configuration went (none on success).
void ReportConfigResult(ConfigResult result);
// Both of the above; true when the printer was configured.
bool SrvMPConfig(PrinterSettings& dialog);
// The question 12036/12037/12017; true for Yes.
bool AskConfigureThroughSerial();
// The connection (LinkKey) of a stored printer, as SrvMPCheck opens it.
QString SlotLinkKey(const PrinterSlot& slot);
// The connections (LinkKey) an operation on the dialog's values may use.
QStringList DialogLinkKeys(const PrinterSettings& dialog, bool configure);

// port: "1".."4"; rate: "9600" or "57600".
bool SrvMPConfigCOM(const QString& port, const QString& rate, const DeviceConfig& config);
bool SrvMPConfigNET(const QString& newAddress, const QString& loadedAddress, bool connectOnly, const QString& port,
                    const QString& rate, const DeviceConfig& config, const std::function<bool()>& askUseSerial = {});
// deviceName: "COM1:"; re-sends the line speed to a serial printer.
bool SrvMPConfigCOM2(const QString& deviceName, const QString& rate);
// Every slot in use, not passive and serial, through SrvMPConfigCOM2. The
// lines are read on the event-loop thread; the calls may run on any thread.
struct SerialLine {
    QString deviceName; // "COM2:"
    QString rate;
};
QList<SerialLine> SerialLinesToReconfigure(const PrinterSlots& printerSlots);
void ReConfigCOMLines(const QList<SerialLine>& lines);
void ReConfigCOMPrinters(PrinterSlots& printerSlots);

// Result texts "OK" TAB, or "ERR" TAB reason.
QString SrvMPTestPrint(const QString& deviceName, const QString& settings);
QString SrvMPClear(const QString& deviceName, const QString& settings);
QString SrvMPCal(const QString& deviceName, const QString& settings);
QString SrvMPCheck(const PrinterSlot& slot);

// Device name and settings the dialog's test print, clear and calibrate use
// for the values it shows.
void DialogDevice(const PrinterSettings& dialog, QString* deviceName, QString* settings);

// The test label's text: display title, " v", major.minor.revision.
QString TestPrintTitle();
// The test layout file in the installation folder.
QString TestLayoutPath();

// After a printer was saved: a device check decides Ready or Error (the slot
// shows Checking meanwhile); a passive printer just becomes Passive.
void SrvInitPrinterAfterConfig(PrinterSlots& printerSlots, qint32 slot);
// The same in two halves around a SrvMPCheck made elsewhere (a worker thread):
// Checking first (false when the slot cannot take it), then the check's result.
bool StartAfterConfigCheck(PrinterSlots& printerSlots, qint32 slot);
void FinishAfterConfigCheck(PrinterSlots& printerSlots, qint32 slot, const QString& result);
void SrvPassivePrinterAfterConfig(PrinterSlots& printerSlots, qint32 slot);

} // namespace quill
