#include "printers/printerrecord.h"
#include "database/recordset.h"
#include "foundation/connection.h"
#include "foundation/error.h"
#include "foundation/eventlog.h"
#include "foundation/messages.h"
#include "foundation/strutil.h"
#include "printers/deviceops.h"
#include "database/slots.h"
#include "foundation/texts.h"

namespace quill {


namespace {

const QString Semicolon = QStringLiteral(";");

std::optional<qint32> pick(qint32 value, const QList<qint32>& choices)
{
    if (choices.contains(value))
        return value;
    return std::nullopt;
}


} // namespace

QString LineSettings(const QString& rate)
{
    return rate + QStringLiteral(",n,8,1,x");
}

QString AdvancedSettingsText(qint32 cutterInstalled, qint32 dispensingFeed, qint32 reverseFeed)
{
    return QString::number(cutterInstalled >= 1 ? 1 : 0) + Semicolon + QString::number(dispensingFeed) + Semicolon
        + QString::number(reverseFeed);
}

AdvancedSettings ParseAdvancedSettings(const QString& text)
{
    AdvancedSettings a;
    a.cutterInstalled = NullToLong(GetToken(text, Semicolon, 1), 0);
    a.dispensingFeed = NullToLong(GetToken(text, Semicolon, 2), DefaultDispensingFeed);
    a.reverseFeed = NullToLong(GetToken(text, Semicolon, 3), 0);
    return a;
}

void SrvPrinterFillDialog(const FieldReader& row, PrinterSettings& dialog, const QList<qint32>& typeIds)
{
    dialog.name = NullToStr(row(QStringLiteral("Name")), QString());

    const qint32 type = NullToLong(row(QStringLiteral("PrinterTypeId")), 0);
    if (typeIds.isEmpty() || typeIds.contains(type))
        dialog.printerTypeId = type;
    else
        dialog.printerTypeId.reset();

    if (type >= 1 && type <= 9) {
        // Rows with another connection number name no option; the dialog keeps its own.
        const qint16 used = NullToInt(row(QStringLiteral("ConnectionUsed")), 0);
        if (used == 1)
            dialog.serial = true;
        else if (used == 2)
            dialog.serial = false;

        const auto serial = ConnectionString::parse(NullToStr(row(QStringLiteral("Connection1")), QString()));
        bool ok = false;
        const qint32 port = serial.device.mid(3, 1).toInt(&ok);
        dialog.comPort = ok ? pick(port, ComPortChoices) : std::nullopt;
        const qint32 rate = serial.rateOrPort.toInt(&ok);
        dialog.comRate = ok ? pick(rate, ComRateChoices) : std::nullopt;

        const auto net = ConnectionString::parse(NullToStr(row(QStringLiteral("Connection2")), QString()));
        dialog.netAddress = net.device;
        dialog.loadedAddress = dialog.netAddress;
        dialog.netPort = net.rateOrPort;
        dialog.netConnectOnly = NullToInt(row(QStringLiteral("NetConnectOnly")), 0) > 0;
    }

    const qint16 strobe = NullToInt(row(QStringLiteral("Strobe")), 4);
    dialog.strobe = (strobe >= 0 && strobe < StrobeSteps) ? strobe : 4;
    const qint16 speed = NullToInt(row(QStringLiteral("Speed")), 2);
    dialog.speed = (speed >= 0 && speed < SpeedSteps) ? speed : 2;

    dialog.passive = NullToInt(row(QStringLiteral("Passive")), 0) >= 1;

    dialog.advancedSettings = AdvancedSettingsText(NullToInt(row(QStringLiteral("CutterInstalled")), 0),
                                                   NullToLong(row(QStringLiteral("DispensingFeed")), DefaultDispensingFeed),
                                                   NullToLong(row(QStringLiteral("ReverseFeed")), 0));
}

void WritePrinterFields(const FieldWriter& row, const PrinterSettings& dialog, bool newPrinter)
{
    row(QStringLiteral("Name"), dialog.name);
    row(QStringLiteral("PrinterTypeId"), dialog.printerTypeId.value_or(newPrinter ? 1 : -1));
    row(QStringLiteral("ConnectionUsed"), dialog.serial ? 1 : 2);
    row(QStringLiteral("Connection1"),
        ConnectionString::serial(dialog.comPort.value_or(1), dialog.comRate.value_or(9600)));
    const QString address = dialog.netAddress.trimmed();
    row(QStringLiteral("Connection2"),
        address.isEmpty() ? QVariant() : QVariant(ConnectionString::network(address, dialog.netPort)));
    row(QStringLiteral("Connection3"), QVariant());
    row(QStringLiteral("Connection4"), QVariant());
    row(QStringLiteral("NetConnectOnly"), dialog.netConnectOnly ? 1 : 0);
    row(QStringLiteral("Strobe"), dialog.strobe.value_or(4));
    row(QStringLiteral("Speed"), dialog.speed.value_or(2));
    row(QStringLiteral("Passive"), dialog.passive ? 1 : 0);
    const AdvancedSettings a = ParseAdvancedSettings(dialog.advancedSettings);
    row(QStringLiteral("CutterInstalled"), a.cutterInstalled);
    row(QStringLiteral("DispensingFeed"), a.dispensingFeed);
    row(QStringLiteral("ReverseFeed"), a.reverseFeed);
}

QString PrinterDisplayText(qint32 printerId, const QString& name, const QString& connection)
{
    return GetString(12056, QString::number(printerId) + QLatin1Char('|') + name.trimmed() + QLatin1Char('|')
                                + ConnectionString::parse(connection).device);
}

void SrvPrinterLoadSlot(PrinterSlot& slot, const FieldReader& row)
{
    slot.printerId = NullToLong(row(QStringLiteral("Id")), -1);
    slot.name = FixedText(NullToStr(row(QStringLiteral("Name")), QString()), 25);
    slot.printerTypeId = NullToLong(row(QStringLiteral("PrinterTypeId")), 0);
    slot.connectionType = NullToLong(row(QStringLiteral("ConnectionUsed")), 0);
    if (slot.connectionType >= 1 && slot.connectionType <= 4) {
        const QString field = QStringLiteral("Connection") + QString::number(slot.connectionType);
        slot.connectionString = FixedText(NullToStr(row(field), QString()), 255);
    }
    slot.connectionString = slot.connectionString.trimmed();
    slot.name = slot.name.trimmed();
    slot.displayText = PrinterDisplayText(slot.printerId, slot.name, slot.connectionString).left(255);
    slot.inUse = true;
    slot.passive = NullToLong(row(QStringLiteral("Passive")), 0) > 0;
}

FieldReader RowReader(const Recordset& rs)
{
    return [&rs](const QString& name) { return rs.field(name); };
}

FieldWriter RowWriter(TableRecordset& rs)
{
    return [&rs](const QString& name, const QVariant& value) { rs.setField(name, value); };
}

void SrvPrinterFillDialog(const Recordset& rs, PrinterSettings& dialog, const QList<qint32>& typeIds)
{
    SrvPrinterFillDialog(RowReader(rs), dialog, typeIds);
}

qint32 SrvPrinterAddNew(TableRecordset& rs, PrinterSlots& printerSlots, const PrinterSettings& dialog)
{
    const qint32 slot = printerSlots.FreeSlot();
    if (slot < 1)
        throw Error(9, QStringLiteral("Subscript out of range"));
    rs.AddNew();
    try {
        rs.setField(QStringLiteral("Id"), slot);
        WritePrinterFields(RowWriter(rs), dialog, true);
        PrinterSlot loaded = printerSlots.at(slot);
        SrvPrinterLoadSlot(loaded, RowReader(rs));
        rs.Update();
        printerSlots.setPrinter(slot, loaded);
    } catch (...) {
        rs.CancelUpdate();
        throw;
    }
    return slot;
}

qint32 SrvPrinterUpdate(TableRecordset& rs, PrinterSlots& printerSlots, qint32 editPrinterId,
                        const PrinterSettings& dialog)
{
    // Job results seek the printer recordset too, so the row the edit command
    // found may no longer be the current one.
    if (!rs.seek(QStringLiteral("="), editPrinterId))
        throw Error(ErrNoCurrentRecord, QStringLiteral("No current record."));
    rs.Edit();
    qint32 id = -1;
    try {
        WritePrinterFields(RowWriter(rs), dialog, false);
        PrinterSlot loaded = printerSlots.at(editPrinterId);
        SrvPrinterLoadSlot(loaded, RowReader(rs));
        id = NullToLong(rs.field(QStringLiteral("Id")), -1);
        rs.Update();
        printerSlots.setPrinter(editPrinterId, loaded);
    } catch (...) {
        rs.CancelUpdate();
        throw;
    }
    return id;
}

qint32 SrvMainPrinterSave(TableRecordset& rs, PrinterSlots& printerSlots, const PrinterSettings& dialog, int mode,
                          qint32 editPrinterId, const std::function<void(qint32)>& check)
{
    qint32 id = -1;
    try {
        SrvPopulateRecordset(rs);
        if (mode == PrinterSettings::ModeNew)
            id = SrvPrinterAddNew(rs, printerSlots, dialog);
        else
            id = SrvPrinterUpdate(rs, printerSlots, editPrinterId, dialog);
        if (printerSlots.SrvPrinterIsPassive(id))
            SrvPassivePrinterAfterConfig(printerSlots, id);
        else if (check)
            check(id);
        else
            SrvInitPrinterAfterConfig(printerSlots, id);
        return id;
    } catch (const std::exception& e) {
        LogWrite(QStringLiteral("SrvMainPrinterSave failed. Error: ") + errorText(e));
        return -1;
    }
}

bool SrvMainPrinterDelete(TableRecordset& rs, PrinterSlots& printerSlots, qint32 printerId, const QString& rowText)
{
    try {
        if (AskNoDefault(GetString(12040, rowText)) != BoxAnswer::Yes)
            return false;
        if (rs.seek(QStringLiteral("="), printerId)) {
            rs.Delete();
            if (rs.RecordCount() > 0)
                rs.MoveFirst();
        }
        printerSlots.removePrinter(printerId);
        return true;
    } catch (const std::exception& e) {
        LogWrite(QStringLiteral("SrvMainPrinterDelete failed. Error: ") + errorText(e));
        return false;
    }
}

} // namespace quill
