#pragma once
#include <QAbstractTableModel>
#include <QList>

namespace quill {

class PrinterSlots;

// The status word of a code: the key of its picture in the printer list
// ("Arbetar", "Klar", "Kontrollerar", "Konfigurerar", "Fel", "Passiv").
QString StatusWord(qint32 code);

// The printer list: one row per loaded printer, columns "Skrivare" (the
// slot's display text) and "Status" (the status text). It follows the slot
// table's signals and nothing else: a printer added is appended, a removed one
// leaves, a changed printer or status refreshes its row.
class PrinterListModel : public QAbstractTableModel {
    Q_OBJECT
public:
    enum Column { ColPrinter = 0, ColStatus = 1, ColumnCount = 2 };
    enum Role {
        PrinterIdRole = Qt::UserRole + 1, // the row's tag
        StatusWordRole,                   // picture key of the status column
        PrinterTypeRole,                  // "PType" + type id, picture key of the row
        PassiveRole,                      // row shown in grey
    };

    explicit PrinterListModel(PrinterSlots& slotTable, QObject* parent = nullptr);

    int rowCount(const QModelIndex& parent = {}) const override;
    int columnCount(const QModelIndex& parent = {}) const override;
    QVariant data(const QModelIndex& index, int role = Qt::DisplayRole) const override;
    QVariant headerData(int section, Qt::Orientation orientation, int role = Qt::DisplayRole) const override;

    int rowOf(qint32 printerId) const;
    qint32 printerAt(int row) const;
    QString statusText(qint32 printerId) const;

private:
    void addPrinter(qint32 printerId);
    void removePrinter(qint32 printerId);
    void updatePrinter(qint32 printerId);
    void clear();

    PrinterSlots& slots_;
    QList<qint32> rows_;
};

} // namespace quill
