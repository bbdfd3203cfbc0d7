#pragma once
#include <QDateTime>
#include <QString>
#include <array>
#include <functional>
#include <vector>

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

struct PrinterSlot {
    qint32 printerId = 0;
    QString name;             // 25 characters
    qint32 printerTypeId = 0;
    qint32 connectionType = 0; // 1 serial, 2 network
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
class PrinterSlots {
public:
    static constexpr int UpperBound = 6;

    void reset(); // every field zero, empty or false

    bool valid(qint32 n) const { return n >= 1 && n < UpperBound; }
    bool SrvPrinterExists(qint32 n) const { return valid(n) && slots_[n].inUse; }
    bool SrvPrinterIsPassive(qint32 n) const { return valid(n) && slots_[n].passive; }
    // Lowest slot not in use, or -1 when all five are taken.
    qint32 FreeSlot() const;

    // Index 0..6; anything else raises Error 9 "Subscript out of range".
    PrinterSlot& at(qint32 index);
    const PrinterSlot& at(qint32 index) const;

    // The only way a status changes: the current status becomes the previous one.
    // Observers hear of every change (after it is made), whoever made it.
    void SrvSetPrinterStatus(qint32 n, qint32 code, const QString& text);

    // Returns a handle for removeStatusObserver.
    int addStatusObserver(std::function<void(qint32 n)> fn);
    void removeStatusObserver(int handle);

private:
    std::array<PrinterSlot, UpperBound + 1> slots_{};
    std::vector<std::pair<int, std::function<void(qint32)>>> observers_;
    int nextObserver_ = 1;
};

} // namespace quill
