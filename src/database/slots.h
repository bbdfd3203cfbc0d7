#pragma once
#include <QDateTime>
#include <QObject>
#include <QString>
#include <array>

namespace quill {

enum PrinterStatus : qint32 {
    StatusWorking = 0,
    StatusReady = 1,
    StatusChecking = 2,
    StatusConfiguring = 3,
    StatusError = 4,
    StatusPassive = 5,
};

// Fixed-width text fields of the slot record: longer texts are cut, shorter
// ones padded with blanks (callers trim when they show them).
QString FixedText(const QString& text, int width);

// tbPrinter.ConnectionUsed: which of the connection columns is in use.
enum ConnectionType : qint32 {
    ConnectionSerial = 1,  // Connection1: "COM1:#9600"
    ConnectionNetwork = 2, // Connection2: "10.0.0.5#23"
};

struct PrinterSlot {
    qint32 printerId = 0;
    QString name;             // 25 characters
    qint32 printerTypeId = 0;
    qint32 connectionType = 0; // ConnectionSerial, ConnectionNetwork, else none
    QString connectionString; // 255 characters
    QString displayText;      // 255 characters
    bool inUse = false;
    bool passive = false;
    QDateTime statusTime;
    qint32 prevStatus = 0;
    QString prevStatusText;   // 255 characters
    qint32 status = 0;
    QString statusText;       // 255 characters
};

// Slot table with indices 0..6; only 1..5 are slots (slot number = tbPrinter.Id).
// The one place a printer or a status changes: every change goes through a
// member below and is announced, after it is made, by a signal.
class PrinterSlots : public QObject {
    Q_OBJECT
public:
    static constexpr int UpperBound = 6;

    explicit PrinterSlots(QObject* parent = nullptr) : QObject(parent) {}

    void reset(); // every field zero, empty or false; announced by cleared()

    bool valid(qint32 n) const { return n >= 1 && n < UpperBound; }
    bool SrvPrinterExists(qint32 n) const { return valid(n) && slots_[n].inUse; }
    bool SrvPrinterIsPassive(qint32 n) const { return valid(n) && slots_[n].passive; }
    // Lowest slot not in use, or -1 when all five are taken.
    qint32 FreeSlot() const;

    // Index 0..6; anything else raises Error 9 "Subscript out of range".
    const PrinterSlot& at(qint32 index) const;

    // A printer loaded into slot n: its identity, connection and passive flag
    // from `loaded`; the status fields stay as they are. The slot is in use.
    void setPrinter(qint32 n, const PrinterSlot& loaded);
    // Slot n no longer in use (its fields stay until it is loaded again).
    void removePrinter(qint32 n);

    // The only way a status changes: the current status becomes the previous one.
    void SrvSetPrinterStatus(qint32 n, qint32 code, const QString& text);

signals:
    void printerAdded(qint32 n);
    void printerChanged(qint32 n);
    void printerRemoved(qint32 n);
    void statusChanged(qint32 n);
    void cleared();

private:
    PrinterSlot& slot(qint32 index);

    std::array<PrinterSlot, UpperBound + 1> slots_{};
};

} // namespace quill
