#pragma once
// The value lists the printer dialog offers (printer types, serial port and rate,
// darkness, speed, yes/no). They are filled into a plain ValueList, which a dialog
// copies into its drop-down (text, item data, selected index).
//
//   ValueList types;
//   SrvPrinterFillPrinterType(jdb, types);
//   for (auto& e : types.entries) combo->addItem(e.text, e.itemData);
//   combo->setCurrentIndex(types.selected);
#include <QString>
#include <QVector>

namespace quill {

class JobDatabase;

struct ValueList {
    struct Entry {
        QString text;
        qint32 itemData = 0;
        bool operator==(const Entry&) const = default;
    };
    QVector<Entry> entries;
    int selected = -1;

    void clear()
    {
        entries.clear();
        selected = -1;
    }
    void add(const QString& text, qint32 itemData) { entries.append({text, itemData}); }
    // Index of the first entry from `start` whose item data equals value; -1 when none.
    int findItemData(qint32 value, int start = 0) const;
};

// Printer types from tbPrinterType in name order; selects type 1 when present.
// Traps its errors ("SrvPrinterFillPrinterType failed. Error: ...").
void SrvPrinterFillPrinterType(JobDatabase& jdb, ValueList& list);

void SrvFillCOMRate(ValueList& list);
void SrvFillCOMPort(ValueList& list);
void SrvFillStrobe(ValueList& list);
void SrvFillSpeed(ValueList& list);
void SrvFillYesNo(ValueList& list);

} // namespace quill
