#include "service/printerlistmodel.h"
#include "database/slots.h"
#include "foundation/texts.h"

namespace quill {

QString StatusWord(qint32 code)
{
    switch (code) {
    case StatusWorking: return GetString(12078);
    case StatusReady: return GetString(12079);
    case StatusChecking: return GetString(12080);
    case StatusConfiguring: return GetString(12081);
    case StatusError: return GetString(12082);
    case StatusPassive: return GetString(12083);
    default: return {};
    }
}

PrinterListModel::PrinterListModel(PrinterSlots& slotTable, QObject* parent)
    : QAbstractTableModel(parent), slots_(slotTable)
{
    connect(&slots_, &PrinterSlots::printerAdded, this, &PrinterListModel::addPrinter);
    connect(&slots_, &PrinterSlots::printerRemoved, this, &PrinterListModel::removePrinter);
    connect(&slots_, &PrinterSlots::printerChanged, this, &PrinterListModel::updatePrinter);
    connect(&slots_, &PrinterSlots::statusChanged, this, &PrinterListModel::updatePrinter);
    connect(&slots_, &PrinterSlots::cleared, this, &PrinterListModel::clear);
    for (qint32 n = 1; n < PrinterSlots::UpperBound; ++n)
        if (slots_.SrvPrinterExists(n))
            rows_.append(n);
}

int PrinterListModel::rowCount(const QModelIndex& parent) const
{
    return parent.isValid() ? 0 : int(rows_.size());
}

int PrinterListModel::columnCount(const QModelIndex& parent) const
{
    return parent.isValid() ? 0 : ColumnCount;
}

QVariant PrinterListModel::data(const QModelIndex& index, int role) const
{
    if (!index.isValid() || index.row() >= rows_.size())
        return {};
    const qint32 id = rows_.at(index.row());
    if (!slots_.valid(id))
        return {};
    const PrinterSlot& s = slots_.at(id);
    switch (role) {
    case Qt::DisplayRole:
        return index.column() == ColPrinter ? s.displayText.trimmed() : s.statusText.trimmed();
    case PrinterIdRole:
        return id;
    case StatusWordRole:
        return StatusWord(s.status);
    case PrinterTypeRole:
        return QStringLiteral("PType") + QString::number(s.printerTypeId);
    case PassiveRole:
        return s.status == StatusPassive;
    default:
        return {};
    }
}

QVariant PrinterListModel::headerData(int section, Qt::Orientation orientation, int role) const
{
    if (orientation != Qt::Horizontal || role != Qt::DisplayRole)
        return {};
    if (section == ColPrinter)
        return GetString(12043);
    if (section == ColStatus)
        return GetString(12044);
    return {};
}

void PrinterListModel::clear()
{
    beginResetModel();
    rows_.clear();
    endResetModel();
}

void PrinterListModel::addPrinter(qint32 printerId)
{
    if (rowOf(printerId) >= 0) {
        updatePrinter(printerId);
        return;
    }
    const int row = int(rows_.size());
    beginInsertRows({}, row, row);
    rows_.append(printerId);
    endInsertRows();
}

void PrinterListModel::removePrinter(qint32 printerId)
{
    const int row = rowOf(printerId);
    if (row < 0)
        return;
    beginRemoveRows({}, row, row);
    rows_.removeAt(row);
    endRemoveRows();
}

void PrinterListModel::updatePrinter(qint32 printerId)
{
    const int row = rowOf(printerId);
    if (row >= 0)
        emit dataChanged(index(row, 0), index(row, ColumnCount - 1));
}

int PrinterListModel::rowOf(qint32 printerId) const
{
    return int(rows_.indexOf(printerId));
}

qint32 PrinterListModel::printerAt(int row) const
{
    return row >= 0 && row < rows_.size() ? rows_.at(row) : -1;
}

QString PrinterListModel::statusText(qint32 printerId) const
{
    return slots_.valid(printerId) ? slots_.at(printerId).statusText.trimmed() : QString();
}

} // namespace quill
