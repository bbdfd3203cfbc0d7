#include "printers/linktransport.h"

#include "foundation/connection.h"
#include "foundation/settings.h"
#include "foundation/strutil.h"

#include <QDeadlineTimer>

#ifdef Q_OS_UNIX
#include <fcntl.h>
#include <sys/ioctl.h>
#include <unistd.h>
#endif

namespace quill {

namespace {

const QString KeyPorts = QStringLiteral("SOFTWARE\\Norvu\\Brixa\\Ports");

bool parsePort(const QString& text, quint16* port)
{
    bool ok = false;
    const int v = text.trimmed().toInt(&ok);
    if (!ok || v < 1 || v > 65535)
        return false;
    *port = quint16(v);
    return true;
}

quint16 defaultBoxPort()
{
    const qint32 v = NullToLong(RegGetValue(HKEY_LOCAL_MACHINE, KeyQuillbase, QStringLiteral("dwNetBoxPort")),
                                DefaultNetBoxPort);
    return v >= 1 && v <= 65535 ? quint16(v) : DefaultNetBoxPort;
}

LinkAddress network(const QString& host, const QString& portText, bool portGiven)
{
    LinkAddress a;
    a.host = host.trimmed();
    if (a.host.isEmpty())
        return a;
    if (!portGiven || portText.trimmed().isEmpty())
        a.port = defaultBoxPort();
    else if (!parsePort(portText, &a.port))
        return a;
    a.kind = LinkAddress::Network;
    return a;
}

} // namespace

LinkAddress ParseDeviceName(const QString& device)
{
    const QString d = device.trimmed();
    const ConnectionString whole = ConnectionString::parse(d);
    if (const int n = whole.comPort()) {
        LinkAddress a;
        a.kind = LinkAddress::Serial;
        a.comPort = n;
        a.path = RegGetValue(HKEY_LOCAL_MACHINE, KeyPorts, QStringLiteral("COM%1").arg(n)).trimmed();
        if (a.path.isEmpty())
            a.path = QStringLiteral("/dev/ttyS%1").arg(n - 1);
        return a;
    }
    const QString prefix = QStringLiteral("NETBOX:");
    if (d.startsWith(prefix, Qt::CaseInsensitive)) {
        const ConnectionString box = ConnectionString::parse(d.mid(prefix.size()));
        return network(box.device, box.rateOrPort, box.hasHash);
    }
    if (whole.hasHash && !whole.device.isEmpty())
        return network(whole.device, whole.rateOrPort, true);
    return {};
}

bool ParseLineSettings(const QString& text, LineSettings* settings)
{
    LineSettings s;
    const QString t = text.trimmed();
    if (t.isEmpty()) {
        *settings = s;
        return true;
    }
    const QStringList p = t.split(QLatin1Char(','));
    bool ok = false;
    s.baudRate = p.value(0).trimmed().toInt(&ok);
    if (!ok || s.baudRate < 50 || s.baudRate > 4000000)
        return false;
    if (p.size() > 1) {
        const QString par = p[1].trimmed().toLower();
        if (par == QLatin1String("n") || par.isEmpty())
            s.parity = QSerialPort::NoParity;
        else if (par == QLatin1String("e"))
            s.parity = QSerialPort::EvenParity;
        else if (par == QLatin1String("o"))
            s.parity = QSerialPort::OddParity;
        else if (par == QLatin1String("m"))
            s.parity = QSerialPort::MarkParity;
        else if (par == QLatin1String("s"))
            s.parity = QSerialPort::SpaceParity;
        else
            return false;
    }
    if (p.size() > 2 && !p[2].trimmed().isEmpty()) {
        const int bits = p[2].trimmed().toInt(&ok);
        if (!ok || bits < 5 || bits > 8)
            return false;
        s.dataBits = QSerialPort::DataBits(bits);
    }
    if (p.size() > 3 && !p[3].trimmed().isEmpty()) {
        const QString sb = p[3].trimmed();
        if (sb == QLatin1String("1"))
            s.stopBits = QSerialPort::OneStop;
        else if (sb == QLatin1String("1.5"))
            s.stopBits = QSerialPort::OneAndHalfStop;
        else if (sb == QLatin1String("2"))
            s.stopBits = QSerialPort::TwoStop;
        else
            return false;
    }
    s.flow = QSerialPort::NoFlowControl;
    if (p.size() > 4) {
        const QString hs = p[4].trimmed().toLower();
        if (hs == QLatin1String("x"))
            s.flow = QSerialPort::SoftwareControl;
        else if (hs == QLatin1String("r") || hs == QLatin1String("p"))
            s.flow = QSerialPort::HardwareControl;
    }
    *settings = s;
    return true;
}

QIODevice* OpenTransport(const LinkAddress& address, const LineSettings& settings, QObject* parent,
                         QString* error)
{
    if (address.kind == LinkAddress::Serial) {
        auto* port = new QSerialPort(parent);
        port->setPortName(address.path);
        if (!port->open(QIODevice::ReadWrite)) {
            if (error)
                *error = port->errorString();
            delete port;
            return nullptr;
        }
        const bool ok = port->setBaudRate(settings.baudRate) && port->setParity(settings.parity)
            && port->setDataBits(settings.dataBits) && port->setStopBits(settings.stopBits)
            && port->setFlowControl(settings.flow);
        if (!ok) {
            if (error)
                *error = port->errorString();
            delete port;
            return nullptr;
        }
        // Whatever a previous user left unread is not ours.
        port->clear();
        return port;
    }
    if (address.kind == LinkAddress::Network) {
        auto* socket = new QTcpSocket(parent);
        socket->setSocketOption(QAbstractSocket::LowDelayOption, 1);
        socket->connectToHost(address.host, address.port);
        return socket;
    }
    if (error)
        *error = QStringLiteral("invalid device name");
    return nullptr;
}

bool IsTransportConnected(const QIODevice* io)
{
    if (!io || !io->isOpen())
        return false;
    if (auto* s = qobject_cast<const QTcpSocket*>(io))
        return s->state() == QAbstractSocket::ConnectedState;
    return true;
}

bool WaitTransportConnected(QIODevice* io, int ms)
{
    if (auto* s = qobject_cast<QTcpSocket*>(io)) {
        if (s->state() == QAbstractSocket::ConnectedState)
            return true;
        // waitForConnected also covers the host lookup.
        return s->waitForConnected(ms);
    }
    return io && io->isOpen();
}

void SetTransportBaudRate(QIODevice* io, qint32 rate)
{
    if (auto* p = qobject_cast<QSerialPort*>(io))
        p->setBaudRate(rate);
}

void CloseTransport(QIODevice* io)
{
    if (!io || !io->isOpen())
        return;
    const QSignalBlocker quiet(io);
#ifdef Q_OS_UNIX
    if (auto* p = qobject_cast<QSerialPort*>(io)) {
        // QSerialPort puts back the settings it found at open as it closes.
        // After a parameter 30 change that is the printer's old speed: the
        // CLOSE still on its way would arrive as noise and the next session
        // would find the line at the wrong speed. So the descriptor is closed
        // here, unchanged, and QSerialPort is left a stand-in to close.
        const int fd = int(p->handle());
        const int standIn = ::open("/dev/null", O_RDWR | O_CLOEXEC);
        if (fd >= 0 && standIn >= 0) {
            ::ioctl(fd, TIOCNXCL);
            ::dup2(standIn, fd);
        }
        if (standIn >= 0)
            ::close(standIn);
    }
#endif
    io->close();
}

} // namespace quill
