#pragma once
#include <QAbstractTableModel>
#include <QList>

#include "printers/deviceops.h"

namespace quill {

class PrinterSlots;

// The status word of a code: the key of its picture in the printer list
// ("Arbetar", "Klar", "Kontrollerar", "Konfigurerar", "Fel", "Passiv").
QString StatusWord(qint32 code);

// The printer list: one row per loaded printer, columns "Skrivare" (the
// slot's display text) and "Status" (the status text). Follows every status
// change of the slot table by itself. Also the row view the printer dialog's
// save and delete steps work on.
class PrinterListModel : public QAbstractTableModel, public PrinterRowView {
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
    ~PrinterListModel() override;

    int rowCount(const QModelIndex& parent = {}) const override;
    int columnCount(const QModelIndex& parent = {}) const override;
    QVariant data(const QModelIndex& index, int role = Qt::DisplayRole) const override;
    QVariant headerData(int section, Qt::Orientation orientation, int role = Qt::DisplayRole) const override;

    // Rows of every slot in use, in slot order.
    void reload();
    void clear();
    // A printer saved by the dialog: appended, or its row refreshed.
    void addPrinter(qint32 printerId);
    void removePrinter(qint32 printerId);
    // Re-reads display text and status of the printer's row.
    void updatePrinter(qint32 printerId);

    // PrinterRowView
    void addRow(qint32 slot) override { addPrinter(slot); }
    void updateRow(qint32 slot) override { updatePrinter(slot); }
    void removeRow(qint32 slot) override { removePrinter(slot); }
    void showStatus(qint32 slot, const QString& statusWord, const QString& text) override;
    void selectRow(qint32 slot) override;

    int rowOf(qint32 printerId) const;
    qint32 printerAt(int row) const;
    QString statusText(qint32 printerId) const;

signals:
    // A printer's row asks to be selected and shown (for the view).
    void rowSelectionRequested(int row);

private:
    PrinterSlots& slots_;
    QList<qint32> rows_;
    int observer_ = 0;
};

} // namespace quill
