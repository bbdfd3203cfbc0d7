#pragma once
// Transports of the printer link: turns the device names and line settings
// used for printers into a connected QIODevice (QSerialPort or QTcpSocket).
// Shared by the blocking device sessions (devicesession.h) and the asynchronous print
// driver.
//
// Device names:
//   "COM1:" .. "COM9:"   serial; the port's path comes from the per-machine
//                        value COMn in SOFTWARE\Norvu\Brixa\Ports, else
//                        /dev/ttyS<n-1>. The trailing ":" is optional.
//   "NETBOX:addr#port"   network box at addr, TCP port
//   "NETBOX:addr"        network box, port = per-machine dwNetBoxPort in
//                        SOFTWARE\Norvu\Brixa\Quillbase, default 23
//   "addr#port"          network box, bare form
// Line settings (serial only): "rate,parity,databits,stopbits,handshake",
// e.g. "9600,n,8,1,x": parity n/e/o/m/s, stop bits 1, 1.5 or 2, handshake
// x = XON/XOFF, r = RTS/CTS, anything else none. Empty = "9600,n,8,1,x".
//
// Asynchronous use:
//   LinkAddress a = ParseDeviceName(port);            // a.valid()?
//   LineSettings s; ParseLineSettings(settings, &s);  // false = bad text
//   QIODevice* io = OpenTransport(a, s, this, &err);  // nullptr = failed
//   OnTransportConnected(io, this, [this] { ... });   // link is up
//   then write EncodeRequest(...) and feed readyRead() bytes to a LinkDecoder;
//   errorOccurred/disconnected of the concrete class signal a lost link.
// Blocking use: WaitTransportConnected(io, ms) and io->waitForReadyRead(ms).
#include <QIODevice>
#include <QSerialPort>
#include <QString>

namespace quill {

struct LinkAddress {
    enum Kind { Invalid, Serial, Network };
    Kind kind = Invalid;
    int comPort = 0;     // Serial: 1..9
    QString path;        // Serial: device path, e.g. /dev/ttyS0
    QString host;        // Network
    quint16 port = 0;    // Network
    bool valid() const { return kind != Invalid; }
};

struct LineSettings {
    qint32 baudRate = 9600;
    QSerialPort::Parity parity = QSerialPort::NoParity;
    QSerialPort::DataBits dataBits = QSerialPort::Data8;
    QSerialPort::StopBits stopBits = QSerialPort::OneStop;
    QSerialPort::FlowControl flow = QSerialPort::SoftwareControl;
};

constexpr quint16 DefaultNetBoxPort = 23;

// Reads the per-machine settings for COMn and the default box port.
LinkAddress ParseDeviceName(const QString& device);
bool ParseLineSettings(const QString& text, LineSettings* settings);

// Creates the transport as a child of parent. Serial: the port is opened
// and configured at once (nullptr and *error on failure). Network: the
// connection is started; it completes later (OnTransportConnected).
QIODevice* OpenTransport(const LinkAddress& address, const LineSettings& settings, QObject* parent,
                         QString* error = nullptr);
bool IsTransportConnected(const QIODevice* io);
// Blocks up to ms for a network connection; true at once for an open port.
bool WaitTransportConnected(QIODevice* io, int ms);
// Changes the line speed of a serial transport (after parameter 30 was
// accepted); no-op for a network box, whose own serial side follows the printer.
void SetTransportBaudRate(QIODevice* io, qint32 rate);
// Closes the transport. A serial line keeps the settings the session left on
// it (QSerialPort::close would put back those it found at open). Signals of io
// are blocked while it closes.
void CloseTransport(QIODevice* io);

// Connects the "link is up" moment of either transport kind to a slot:
// QTcpSocket::connected, or an immediate queued call for an open serial port.
template <typename Fn>
void OnTransportConnected(QIODevice* io, QObject* context, Fn fn);

} // namespace quill

#include <QMetaObject>
#include <QTcpSocket>

template <typename Fn>
void quill::OnTransportConnected(QIODevice* io, QObject* context, Fn fn)
{
    if (auto* s = qobject_cast<QTcpSocket*>(io)) {
        if (s->state() == QAbstractSocket::ConnectedState)
            QMetaObject::invokeMethod(context, fn, Qt::QueuedConnection);
        else
            QObject::connect(s, &QTcpSocket::connected, context, fn, Qt::SingleShotConnection);
    } else if (io && io->isOpen()) {
        QMetaObject::invokeMethod(context, fn, Qt::QueuedConnection);
    }
}
