#include "printers/printerrecord.h"
#include "foundation/connection.h"
#include "foundation/error.h"
#include "foundation/eventlog.h"
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

QString SerialDeviceName(qint32 comPort)
{
    return QStringLiteral("COM") + QString::number(comPort) + QLatin1Char(':');
}

QString NetworkDeviceName(const QString& connection)
{
    return QStringLiteral("NETBOX:") + connection.trimmed();
}

PrinterDevice SlotDevice(const PrinterSlot& slot)
{
    const QString connection = slot.connectionString.trimmed();
    switch (slot.connectionType) {
    case ConnectionSerial: {
        const auto c = ConnectionString::parse(connection);
        return {c.device.trimmed(), LineSettings(c.rateOrPort.trimmed())};
    }
    case ConnectionNetwork:
        return {NetworkDeviceName(connection), {}};
    default:
        return {};
    }
}

PrinterDevice DialogDevice(const PrinterSettings& dialog)
{
    if (dialog.serial)
        return {SerialDeviceName(dialog.comPort.value_or(1)), LineSettings(QString::number(dialog.comRate.value_or(9600)))};
    return {ConnectionString::network(dialog.netAddress, dialog.netPort), {}};
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

void SrvPrinterFillDialog(const PrinterRow& row, PrinterSettings& dialog, const QList<qint32>& typeIds)
{
    dialog.name = NullToStr(row.name, QString());

    const qint32 type = NullToLong(row.printerTypeId, 0);
    if (typeIds.isEmpty() || typeIds.contains(type))
        dialog.printerTypeId = type;
    else
        dialog.printerTypeId.reset();

    if (type >= 1 && type <= 9) {
        // Rows with another connection number name no option; the dialog keeps its own.
        const qint16 used = NullToInt(row.connectionUsed, 0);
        if (used == ConnectionSerial)
            dialog.serial = true;
        else if (used == ConnectionNetwork)
            dialog.serial = false;

        const auto serial = ConnectionString::parse(NullToStr(row.connection[0], QString()));
        bool ok = false;
        const qint32 port = serial.device.mid(3, 1).toInt(&ok);
        dialog.comPort = ok ? pick(port, ComPortChoices) : std::nullopt;
        const qint32 rate = serial.rateOrPort.toInt(&ok);
        dialog.comRate = ok ? pick(rate, ComRateChoices) : std::nullopt;

        const auto net = ConnectionString::parse(NullToStr(row.connection[1], QString()));
        dialog.netAddress = net.device;
        dialog.loadedAddress = dialog.netAddress;
        dialog.netPort = net.rateOrPort;
        dialog.netConnectOnly = NullToInt(row.netConnectOnly, 0) > 0;
    }

    const qint16 strobe = NullToInt(row.strobe, 4);
    dialog.strobe = (strobe >= 0 && strobe < StrobeSteps) ? strobe : 4;
    const qint16 speed = NullToInt(row.speed, 2);
    dialog.speed = (speed >= 0 && speed < SpeedSteps) ? speed : 2;

    dialog.passive = NullToInt(row.passive, 0) >= 1;

    dialog.advancedSettings = AdvancedSettingsText(NullToInt(row.cutterInstalled, 0),
                                                   NullToLong(row.dispensingFeed, DefaultDispensingFeed),
                                                   NullToLong(row.reverseFeed, 0));
}

PrinterRow PrinterRowFromDialog(qint32 id, const PrinterSettings& dialog, bool newPrinter)
{
    PrinterRow row;
    row.id = id;
    row.name = dialog.name;
    row.printerTypeId = dialog.printerTypeId.value_or(newPrinter ? 1 : -1);
    row.connectionUsed = dialog.serial ? ConnectionSerial : ConnectionNetwork;
    row.connection[0] = ConnectionString::serial(dialog.comPort.value_or(1), dialog.comRate.value_or(9600));
    const QString address = dialog.netAddress.trimmed();
    row.connection[1] = address.isEmpty() ? QVariant() : QVariant(ConnectionString::network(address, dialog.netPort));
    row.netConnectOnly = dialog.netConnectOnly ? 1 : 0;
    row.strobe = dialog.strobe.value_or(4);
    row.speed = dialog.speed.value_or(2);
    row.passive = dialog.passive ? 1 : 0;
    const AdvancedSettings a = ParseAdvancedSettings(dialog.advancedSettings);
    row.cutterInstalled = a.cutterInstalled;
    row.dispensingFeed = a.dispensingFeed;
    row.reverseFeed = a.reverseFeed;
    return row;
}

QString PrinterDisplayText(qint32 printerId, const QString& name, const QString& connection)
{
    return GetString(12056, QString::number(printerId) + QLatin1Char('|') + name.trimmed() + QLatin1Char('|')
                                + ConnectionString::parse(connection).device);
}

void SrvPrinterLoadSlot(PrinterSlot& slot, const PrinterRow& row)
{
    slot.printerId = NullToLong(row.id, -1);
    slot.name = FixedText(NullToStr(row.name, QString()), 25);
    slot.printerTypeId = NullToLong(row.printerTypeId, 0);
    slot.connectionType = NullToLong(row.connectionUsed, 0);
    if (slot.connectionType >= 1 && slot.connectionType <= 4)
        slot.connectionString = FixedText(NullToStr(row.connectionField(slot.connectionType), QString()), 255);
    slot.connectionString = slot.connectionString.trimmed();
    slot.name = slot.name.trimmed();
    slot.displayText = PrinterDisplayText(slot.printerId, slot.name, slot.connectionString).left(255);
    slot.inUse = true;
    slot.passive = NullToLong(row.passive, 0) > 0;
}

qint32 SrvPrinterAddNew(PrinterRepository& printers, PrinterSlots& printerSlots, const PrinterSettings& dialog)
{
    const qint32 slot = printerSlots.FreeSlot();
    if (slot < 1)
        throw Error(9, QStringLiteral("Subscript out of range"));
    const PrinterRow row = PrinterRowFromDialog(slot, dialog, true);
    PrinterSlot loaded = printerSlots.at(slot);
    SrvPrinterLoadSlot(loaded, row);
    if (auto failed = printers.insert(row))
        throw *failed;
    printerSlots.setPrinter(slot, loaded);
    return slot;
}

qint32 SrvPrinterUpdate(PrinterRepository& printers, PrinterSlots& printerSlots, qint32 editPrinterId,
                        const PrinterSettings& dialog)
{
    const PrinterRow row = PrinterRowFromDialog(editPrinterId, dialog, false);
    PrinterSlot loaded = printerSlots.at(editPrinterId);
    SrvPrinterLoadSlot(loaded, row);
    if (auto failed = printers.update(row))
        throw *failed;
    printerSlots.setPrinter(editPrinterId, loaded);
    return editPrinterId;
}

qint32 SrvMainPrinterSave(PrinterRepository& printers, PrinterSlots& printerSlots, const PrinterSettings& dialog,
                          int mode, qint32 editPrinterId, const std::function<void(qint32)>& check)
{
    qint32 id = -1;
    try {
        if (mode == PrinterSettings::ModeNew)
            id = SrvPrinterAddNew(printers, printerSlots, dialog);
        else
            id = SrvPrinterUpdate(printers, printerSlots, editPrinterId, dialog);
        if (printerSlots.SrvPrinterIsPassive(id))
            SrvPassivePrinterAfterConfig(printerSlots, id);
        else if (check)
            check(id);
        return id;
    } catch (const std::exception& e) {
        LogWrite(QStringLiteral("SrvMainPrinterSave failed. Error: ") + errorText(e));
        return -1;
    }
}

bool SrvMainPrinterDelete(PrinterRepository& printers, PrinterSlots& printerSlots, qint32 printerId)
{
    try {
        if (auto failed = printers.remove(printerId))
            throw *failed;
        printerSlots.removePrinter(printerId);
        return true;
    } catch (const std::exception& e) {
        LogWrite(QStringLiteral("SrvMainPrinterDelete failed. Error: ") + errorText(e));
        return false;
    }
}

} // namespace quill
