#include "printers/deviceops.h"
#include "foundation/connection.h"
#include "foundation/error.h"
#include "foundation/eventlog.h"
#include "foundation/paths.h"
#include "foundation/strutil.h"
#include "printers/devicesession.h"
#include "printers/link.h"
#include "printers/printerlink.h"
#include "printers/printerrecord.h"
#include "database/slots.h"
#include "foundation/texts.h"

#include <array>
#include <cmath>
#include <limits>

namespace quill {

namespace {

struct TypeRange {
    int darknessSpan, darknessBase, speedSpan, speedBase;
};

// Per printer type 1..9.
constexpr std::array<TypeRange, 9> TypeRanges{{
    {150, 100, 65, 60},
    {450, 250, 65, 60},
    {300, 200, 170, 80},
    {300, 200, 70, 80},
    {300, 200, 170, 80},
    {300, 200, 70, 80},
    {400, 200, 120, 80},
    {400, 200, 120, 80},
    {700, 300, 70, 80},
}};

// Parameters and service commands of the configuration sequences.
constexpr int ParamLineSpeed = 30;
constexpr int ParamLineTimeout = 34;
constexpr int ParamDarkness = 46;
constexpr int ParamSpeed1 = 2, ParamSpeed2 = 3, ParamSpeed3 = 4;
constexpr int Param40 = 40, Param23 = 23, Param68 = 68, Param69 = 69, Param50 = 50;
constexpr int ParamDispensingFeed = 24;
constexpr int ParamReverseFeed = 100;
constexpr int CmdStartConfig = 38153;
constexpr int CmdServiceAccess = 28351746;
constexpr int CmdEndConfig = 3196;
constexpr int CmdCalibrate = 44;
constexpr int CmdBoxAddress = 100;
constexpr int CmdBoxAfterAddress = 102;
constexpr int CmdBoxAfterCmd102 = 110;
constexpr int ReplyLength = 255;
const QString NoAddress = QStringLiteral("0.0.0.0");
const QString OpenMode = QStringLiteral("m");

// A library result that ends the sequence.
struct DeviceFailure {
    int code;
};

// One open device for the length of one operation; closed on every way out.
// Calls on a device that did not open give the open's result, as a library
// that connects on first use would report it.
class Device {
public:
    explicit Device(const DeviceContext& context) : session_(context) {}
    Device(const Device&) = delete;
    Device& operator=(const Device&) = delete;

    int open(const QString& name, const QString& settings)
    {
        const int r = session_.open(name, settings, OpenMode);
        openCode_ = r >= 1 ? 1 : (r < 0 ? r : link::ErrGeneral);
        return note(r);
    }
    bool isOpen() const { return session_.isOpen(); }
    void close() { session_.close(); }
    int last() const { return last_; }

    int status() { return note(isOpen() ? session_.status(4) : openCode_); }
    int setParameter(int parameter, int value)
    {
        return note(isOpen() ? session_.setParameter(parameter, value) : openCode_);
    }
    int service(int command, const QString& input = QString())
    {
        QString reply;
        return note(isOpen() ? session_.service(command, input, &reply, ReplyLength) : openCode_);
    }
    int lock() { return note(isOpen() ? session_.lockParameters() : openCode_); }
    int getCounter(int counter, int* value)
    {
        int v2 = 0, v3 = 0, v4 = 0, v5 = 0;
        return note(isOpen() ? session_.counter(counter, value, &v2, &v3, &v4, &v5) : openCode_);
    }
    int setCounter(int counter, int value)
    {
        return note(isOpen() ? session_.setCounter(counter, value, 1, 9, 1) : openCode_);
    }
    int init() { return note(isOpen() ? session_.init(QStringLiteral("a")) : openCode_); }
    int sendLayout(const QString& path) { return note(isOpen() ? session_.sendLayout(path) : openCode_); }
    int sendVariable(const QString& text) { return note(isOpen() ? session_.sendVariable(text, 1) : openCode_); }
    int printLabel() { return note(isOpen() ? session_.printLabel(1, QStringLiteral("i")) : openCode_); }

private:
    int note(int r)
    {
        last_ = r;
        return r;
    }
    DeviceSession session_;
    int openCode_ = link::ErrGeneral;
    int last_ = 0;
};

// Most calls succeed with 1 or more.
void need(int result)
{
    if (result < 1)
        throw DeviceFailure{result};
}

QString otherRate(const QString& wanted)
{
    if (wanted == QLatin1String("9600"))
        return QStringLiteral("57600");
    if (wanted == QLatin1String("57600"))
        return QStringLiteral("9600");
    return wanted;
}

// Opens at the wanted rate; a printer that does not answer there is still at
// the other rate: reach it there and switch it over (the library follows the
// new speed on the same handle).
void openSerialAtRate(Device& dev, const QString& deviceName, const QString& wanted)
{
    dev.open(deviceName, LineSettings(wanted));
    if (dev.status() < 0) {
        dev.close();
        dev.open(deviceName, LineSettings(otherRate(wanted)));
        if (!dev.isOpen())
            throw DeviceFailure{dev.last()};
        dev.status();
        need(dev.setParameter(ParamLineSpeed, NullToLong(wanted, 0)));
    }
}

void sendPrintSettings(Device& dev, const DeviceConfig& c)
{
    need(dev.service(CmdStartConfig));
    need(dev.setParameter(ParamDarkness, c.darkness));
    need(dev.service(CmdServiceAccess));
    need(dev.setParameter(ParamSpeed1, c.speed));
    need(dev.setParameter(ParamSpeed2, c.speed));
    need(dev.setParameter(ParamSpeed3, c.speed));
    need(dev.setParameter(Param40, 0));
    need(dev.setParameter(Param23, 4500));
    need(dev.setParameter(ParamDispensingFeed, c.dispensingFeed));
    need(dev.setParameter(ParamReverseFeed, c.reverseFeed));
    need(dev.setParameter(Param68, 0));
    need(dev.setParameter(Param69, 0));
    need(dev.setParameter(Param50, 0));
    int counter = 0;
    need(dev.getCounter(1, &counter));
    need(dev.setCounter(1, counter));
    need(dev.lock());
    need(dev.service(CmdEndConfig));
}

void logConfigFailure(const char* operation, int code)
{
    LogWrite(QLatin1String(operation) + QStringLiteral(": Configuration failed. COMAPI Error: ") + DeviceErrorText(code));
}

void logConfigTrap(const char* operation, const QString& error, const Device& dev)
{
    LogWrite(QLatin1String(operation) + QStringLiteral(" failed. Error: ") + error + QStringLiteral("\rCOMAPI Err: ")
             + QString::number(dev.last()));
}

QString resultErrorText(const QString& error)
{
    return ResultErr(QStringLiteral("Error: ") + error);
}

} // namespace

bool IsConfigurableType(qint32 printerType)
{
    return printerType >= 1 && printerType <= 9;
}

qint16 RoundToInt16(double value)
{
    const double r = std::nearbyint(value);
    if (!(r >= std::numeric_limits<qint16>::min() && r <= std::numeric_limits<qint16>::max()))
        throw Error(ErrOverflow, QStringLiteral("Overflow"));
    return static_cast<qint16>(r);
}

DeviceAdjustment ConvertAdjustment(qint32 printerType, qint32 strobeStep, qint32 speedStep)
{
    if (!IsConfigurableType(printerType))
        throw Error(5, QStringLiteral("Invalid procedure call or argument"));
    const TypeRange& t = TypeRanges[size_t(printerType - 1)];
    DeviceAdjustment a;
    a.darkness = RoundToInt16(double(strobeStep) / 9.0 * t.darknessSpan + t.darknessBase);
    a.speed = RoundToInt16(double(speedStep) / 7.0 * t.speedSpan + t.speedBase);
    return a;
}

bool SrvMPConfigCOM(const DeviceContext& context, const QString& port, const QString& rate, const DeviceConfig& config)
{
    Device dev(context);
    try {
        openSerialAtRate(dev, SerialDeviceName(port.toInt()), rate);
        need(dev.setParameter(ParamLineTimeout, 2000));
        sendPrintSettings(dev, config);
        return true;
    } catch (const DeviceFailure& f) {
        dev.close();
        logConfigFailure("SrvMPConfigCOM", f.code);
    } catch (const std::exception& e) {
        dev.close();
        logConfigTrap("SrvMPConfigCOM", errorText(e), dev);
    }
    return false;
}

ConfigResult SrvMPConfigNET(const DeviceContext& context, const QString& newAddress, const QString& loadedAddress,
                            bool connectOnly, const QString& port, const QString& rate, const DeviceConfig& config,
                            bool throughSerial)
{
    Device dev(context);
    try {
        if (connectOnly) {
            dev.open(NetworkDeviceName(loadedAddress), QString());
            const int status = dev.status();
            if (status < 0)
                throw DeviceFailure{status};
        } else {
            int status = -1;
            if (!loadedAddress.isEmpty() && !throughSerial) {
                dev.open(NetworkDeviceName(loadedAddress), QString());
                status = dev.status();
            }
            if (status < 0) {
                dev.close();
                // The operator decides whether the serial port is used.
                if (!throughSerial)
                    return ConfigResult::NeedsSerial;
                dev.open(SerialDeviceName(port.toInt()), LineSettings(rate));
                status = dev.status();
                if (status < 0)
                    throw DeviceFailure{status};
            }
            // The box takes its new address over whichever link is open.
            need(dev.service(CmdBoxAddress, newAddress));
            need(dev.service(CmdBoxAfterAddress, NoAddress));
            need(dev.service(CmdBoxAfterCmd102, NoAddress));
        }
        sendPrintSettings(dev, config);
        return ConfigResult::Configured;
    } catch (const DeviceFailure& f) {
        dev.close();
        logConfigFailure("SrvMPConfigNET", f.code);
    } catch (const std::exception& e) {
        dev.close();
        logConfigTrap("SrvMPConfigNET", errorText(e), dev);
    }
    return ConfigResult::NetworkFailed;
}

bool SrvMPConfigCOM2(const DeviceContext& context, const QString& deviceName, const QString& rate)
{
    Device dev(context);
    try {
        openSerialAtRate(dev, deviceName, rate);
        need(dev.setParameter(ParamLineTimeout, 2000));
        need(dev.lock());
        need(dev.service(CmdEndConfig));
        return true;
    } catch (const DeviceFailure& f) {
        dev.close();
        logConfigFailure("SrvMPConfigCOM2", f.code);
    } catch (const std::exception& e) {
        dev.close();
        logConfigTrap("SrvMPConfigCOM2", errorText(e), dev);
    }
    return false;
}

QList<SerialLine> SerialLinesToReconfigure(const PrinterSlots& printerSlots)
{
    QList<SerialLine> lines;
    for (qint32 n = 1; n < PrinterSlots::UpperBound; ++n) {
        if (!printerSlots.SrvPrinterExists(n) || printerSlots.SrvPrinterIsPassive(n))
            continue;
        const PrinterSlot& s = printerSlots.at(n);
        if (s.connectionType != ConnectionSerial)
            continue;
        const auto c = ConnectionString::parse(s.connectionString);
        lines.append({c.device.trimmed(), c.rateOrPort.trimmed()});
    }
    return lines;
}

void ReConfigCOMLines(const DeviceContext& context, const QList<SerialLine>& lines)
{
    for (const SerialLine& line : lines)
        SrvMPConfigCOM2(context, line.deviceName, line.rate);
}

QString TestPrintTitle()
{
    return GetString(9003) + QStringLiteral(" v") + QString::number(QUILL_VERSION_MAJOR) + QLatin1Char('.')
        + QString::number(QUILL_VERSION_MINOR) + QLatin1Char('.') + QString::number(QUILL_VERSION_PATCH);
}

QString TestLayoutPath()
{
    return AddSlash(HomeDir()) + QStringLiteral("0.lbl");
}

QString SrvMPTestPrint(const DeviceContext& context, const QString& deviceName, const QString& settings)
{
    try {
        Device dev(context);
        if (dev.open(deviceName.trimmed(), settings.trimmed()) < 1)
            return ResultErr(GetString(12038));
        try {
            const int layout = dev.sendLayout(TestLayoutPath());
            if (layout < 0 && layout != link::LayoutAccepted)
                throw DeviceFailure{layout};
            need(dev.sendVariable(TestPrintTitle()));
            const int printed = dev.printLabel();
            if (printed < 1 && printed != link::PrintAccepted)
                throw DeviceFailure{printed};
        } catch (const DeviceFailure& f) {
            return ResultErr(DeviceErrorText(f.code));
        }
        return ResultOk();
    } catch (const std::exception& e) {
        LogWrite(QStringLiteral("SrvMPTestPrint failed. Error: ") + errorText(e));
        return resultErrorText(errorText(e));
    }
}

QString SrvMPClear(const DeviceContext& context, const QString& deviceName, const QString& settings)
{
    try {
        Device dev(context);
        if (dev.open(deviceName.trimmed(), settings.trimmed()) < 1)
            return ResultErr(GetString(12038));
        const int r = dev.init();
        return r >= 1 ? ResultOk() : ResultErr(DeviceErrorText(r));
    } catch (const std::exception& e) {
        LogWrite(QStringLiteral("SrvMPClear failed. Error: ") + errorText(e));
        return resultErrorText(errorText(e));
    }
}

QString SrvMPCal(const DeviceContext& context, const QString& deviceName, const QString& settings)
{
    try {
        Device dev(context);
        if (dev.open(deviceName.trimmed(), settings.trimmed()) < 1)
            return ResultErr(GetString(12038));
        try {
            need(dev.service(CmdCalibrate));
            need(dev.lock());
            need(dev.service(CmdEndConfig));
        } catch (const DeviceFailure& f) {
            return ResultErr(DeviceErrorText(f.code));
        }
        return ResultOk();
    } catch (const std::exception& e) {
        LogWrite(QStringLiteral("SrvMPCal failed. Error: ") + errorText(e));
        return resultErrorText(errorText(e));
    }
}

QString SlotLinkKey(const PrinterSlot& slot)
{
    const PrinterDevice device = SlotDevice(slot);
    return device.name.isEmpty() ? QString() : LinkKey(device.name);
}

QString SrvMPCheck(const DeviceContext& context, const PrinterSlot& slot)
{
    try {
        Device dev(context);
        const PrinterDevice device = SlotDevice(slot);
        if (!device.name.isEmpty())
            dev.open(device.name, device.settings);
        if (!dev.isOpen())
            return ResultErr(GetString(12038));
        const int status = dev.status();
        if (status < 0)
            return ResultErr(DeviceErrorText(status));
        return DeviceStatusResult(status);
    } catch (const std::exception& e) {
        const QString error = errorText(e);
        LogWrite(QStringLiteral("SrvMPCheck failed. PId = ") + QString::number(slot.printerId)
                 + QStringLiteral(" Error: ") + error);
        return resultErrorText(error);
    }
}

ConfigResult ConfigureDevice(const DeviceContext& context, PrinterSettings& dialog, bool throughSerial)
{
    try {
        const qint32 type = dialog.printerTypeId.value_or(1);
        if (!IsConfigurableType(type))
            return ConfigResult::NotConfigurable;
        const DeviceAdjustment adj = ConvertAdjustment(type, dialog.strobe.value_or(4), dialog.speed.value_or(2));
        const AdvancedSettings advanced = ParseAdvancedSettings(dialog.advancedSettings);
        DeviceConfig config;
        config.darkness = adj.darkness;
        config.speed = adj.speed;
        config.dispensingFeed = advanced.dispensingFeed;
        config.reverseFeed = advanced.reverseFeed;
        const QString port = QString::number(dialog.comPort.value_or(1));
        const QString rate = QString::number(dialog.comRate.value_or(9600));

        if (dialog.serial)
            return SrvMPConfigCOM(context, port, rate, config) ? ConfigResult::Configured : ConfigResult::SerialFailed;

        const QString address = dialog.netAddress.trimmed();
        if (address.isEmpty())
            return ConfigResult::NoAddress;
        const ConfigResult r = SrvMPConfigNET(context, address, dialog.loadedAddress.trimmed(), dialog.netConnectOnly,
                                              port, rate, config, throughSerial);
        if (r == ConfigResult::Configured)
            dialog.loadedAddress = address;
        return r;
    } catch (const std::exception& e) {
        LogWrite(QStringLiteral("SrvMPConfig failed. Error: ") + errorText(e));
        return ConfigResult::Trapped;
    }
}

QStringList DialogLinkKeys(const PrinterSettings& dialog, bool configure, bool throughSerial)
{
    const QString com = SerialDeviceName(dialog.comPort.value_or(1));
    if (!configure)
        return {LinkKey(DialogDevice(dialog).name)};
    if (dialog.serial || throughSerial)
        return {LinkKey(com)};
    // The box at its loaded address; without one nothing is opened.
    if (dialog.loadedAddress.trimmed().isEmpty())
        return {};
    return {LinkKey(NetworkDeviceName(dialog.loadedAddress))};
}

bool StartAfterConfigCheck(PrinterSlots& printerSlots, qint32 slot)
{
    try {
        printerSlots.SrvSetPrinterStatus(slot, StatusChecking, GetString(12080));
        return true;
    } catch (const std::exception& e) {
        LogWrite(QStringLiteral("SrvInitPrinterAfterConfig failed. PId = ") + QString::number(slot)
                 + QStringLiteral(" Error: ") + errorText(e));
        return false;
    }
}

void FinishAfterConfigCheck(PrinterSlots& printerSlots, qint32 slot, const QString& result)
{
    try {
        const QString outcome = GetToken(result, TAB, 1);
        const QString reason = GetToken(result, TAB, 2);
        if (outcome == QLatin1String("OK"))
            printerSlots.SrvSetPrinterStatus(slot, StatusReady, GetString(12079));
        else
            printerSlots.SrvSetPrinterStatus(slot, StatusError, reason);
    } catch (const std::exception& e) {
        LogWrite(QStringLiteral("SrvInitPrinterAfterConfig failed. PId = ") + QString::number(slot)
                 + QStringLiteral(" Error: ") + errorText(e));
    }
}

void SrvPassivePrinterAfterConfig(PrinterSlots& printerSlots, qint32 slot)
{
    try {
        printerSlots.SrvSetPrinterStatus(slot, StatusPassive, GetString(12083));
    } catch (const std::exception& e) {
        LogWrite(QStringLiteral("SrvPassivePrinterAfterConfig failed. PId = ") + QString::number(slot)
                 + QStringLiteral(" Error: ") + errorText(e));
    }
}

} // namespace quill
