#include "printers/comapi.h"

#include "foundation/cp1252.h"
#include "printers/link.h"
#include "printers/linktransport.h"

#include <QDeadlineTimer>
#include <QFile>
#include <QFileInfo>
#include <QSerialPort>
#include <QTcpSocket>

#include <map>
#include <memory>

namespace quill {

namespace {

constexpr int MaxOpenDevices = 64;
int g_timeoutMs = 3000;
quint32 g_nextId = 1;

struct CloseLink {
    void operator()(QIODevice* io) const
    {
        CloseTransport(io);
        delete io;
    }
};

struct Session {
    std::unique_ptr<QIODevice, CloseLink> io;
    LinkDecoder decoder;
    QString identity;
};

std::map<int, Session>& sessions()
{
    static std::map<int, Session> table;
    return table;
}

Session* find(int handle)
{
    auto it = sessions().find(handle);
    return it == sessions().end() ? nullptr : &it->second;
}

quint32 takeId()
{
    const quint32 id = g_nextId;
    g_nextId = g_nextId >= 0x7fffffffU ? 1 : g_nextId + 1;
    return id;
}

bool linkLost(QIODevice* io)
{
    if (!io->isOpen())
        return true;
    if (auto* s = qobject_cast<QTcpSocket*>(io))
        return s->state() != QAbstractSocket::ConnectedState;
    if (auto* p = qobject_cast<QSerialPort*>(io))
        return p->error() != QSerialPort::NoError && p->error() != QSerialPort::TimeoutError;
    return false;
}

// One request, one answer within the deadline. Frames with other ids are
// late answers to earlier timed-out calls and are skipped.
int call(Session& s, const QString& verb, const QStringList& args, QStringList* values = nullptr)
{
    QDeadlineTimer deadline(g_timeoutMs);
    QIODevice* io = s.io.get();
    if (linkLost(io))
        return link::ErrComm;
    const quint32 id = takeId();
    const QByteArray frame = EncodeRequest(id, verb, args);
    if (io->write(frame) != frame.size())
        return link::ErrComm;
    while (io->bytesToWrite() > 0) {
        if (deadline.hasExpired() || !io->waitForBytesWritten(int(deadline.remainingTime())))
            return link::ErrComm;
    }
    for (;;) {
        if (io->bytesAvailable() > 0)
            s.decoder.feed(io->readAll());
        LinkFrame f;
        while (s.decoder.next(&f)) {
            if (f.kind == LinkFrame::Answer && f.id == id) {
                if (values)
                    *values = f.args;
                return f.result;
            }
        }
        if (deadline.hasExpired() || linkLost(io))
            break;
        if (!io->waitForReadyRead(int(qMax<qint64>(1, deadline.remainingTime())))) {
            if (linkLost(io))
                break;
            // Only a timeout is left to clear: a lost line must stay visible.
            if (auto* p = qobject_cast<QSerialPort*>(io))
                p->clearError();
        }
    }
    s.decoder.reset();
    return link::ErrComm;
}

int withSession(int handle, const QString& verb, const QStringList& args, QStringList* values = nullptr)
{
    Session* s = find(handle);
    if (!s)
        return link::ErrGeneral;
    return call(*s, verb, args, values);
}

int valueAt(const QStringList& values, int i)
{
    bool ok = false;
    const int v = values.value(i).toInt(&ok);
    return ok ? v : 0;
}

} // namespace

int Printer_Open(const QString& device, const QString& settings, const QString& mode)
{
    const LinkAddress address = ParseDeviceName(device);
    if (!address.valid())
        return link::ErrGeneral;
    LineSettings line;
    if (address.kind == LinkAddress::Serial && !ParseLineSettings(settings, &line))
        return link::ErrGeneral;
    if (sessions().size() >= MaxOpenDevices)
        return link::ErrGeneral;

    Session s;
    s.io.reset(OpenTransport(address, line, nullptr));
    if (!s.io)
        return link::ErrComm;
    if (!WaitTransportConnected(s.io.get(), g_timeoutMs))
        return link::ErrComm;
    QStringList values;
    const int r = call(s, link::Open, {settings.trimmed(), mode}, &values);
    if (r < 1)
        return r;
    s.identity = values.value(0);

    int handle = 1;
    while (sessions().count(handle))
        ++handle;
    sessions().emplace(handle, std::move(s));
    return handle;
}

int Printer_Close(int handle)
{
    auto it = sessions().find(handle);
    if (it == sessions().end())
        return link::ErrGeneral;
    QIODevice* io = it->second.io.get();
    if (!linkLost(io)) {
        io->write(EncodeRequest(takeId(), link::Close));
        if (io->bytesToWrite() > 0)
            io->waitForBytesWritten(qMin(g_timeoutMs, 500));
    }
    if (auto* socket = qobject_cast<QTcpSocket*>(io))
        socket->disconnectFromHost();
    sessions().erase(it);
    return link::Ok;
}

int Printer_GetStatus(int handle, int what)
{
    return withSession(handle, link::Status, {QString::number(what)});
}

int Printer_SetParameter(int handle, int parameter, int value)
{
    Session* s = find(handle);
    if (!s)
        return link::ErrGeneral;
    const int r = call(*s, link::SetParam, {QString::number(parameter), QString::number(value)});
    if (r >= 1 && parameter == link::ParamBaudRate)
        SetTransportBaudRate(s->io.get(), value);
    return r;
}

int Printer_GetParameter(int handle, int parameter, int* value)
{
    QStringList values;
    const int r = withSession(handle, link::GetParam, {QString::number(parameter)}, &values);
    if (r >= 1 && value)
        *value = valueAt(values, 0);
    return r;
}

int Printer_ServiceCommand(int handle, int command, const QString& input, QString* reply, int replyLength)
{
    QStringList values;
    const int r = withSession(handle, link::Service, {QString::number(command), input}, &values);
    if (reply)
        *reply = r >= 1 ? values.value(0).left(qMax(0, replyLength)) : QString();
    return r;
}

int Printer_LockParameters(int handle)
{
    return withSession(handle, link::Lock, {});
}

int Printer_GetCounter(int handle, int counter, int* v1, int* v2, int* v3, int* v4, int* v5)
{
    QStringList values;
    const int r = withSession(handle, link::GetCounter, {QString::number(counter)}, &values);
    if (r >= 1) {
        int* out[] = {v1, v2, v3, v4, v5};
        for (int i = 0; i < 5; ++i)
            if (out[i])
                *out[i] = valueAt(values, i);
    }
    return r;
}

int Printer_SetCounter(int handle, int counter, int value, int a, int b, int c)
{
    return withSession(handle, link::SetCounter,
                       {QString::number(counter), QString::number(value), QString::number(a),
                        QString::number(b), QString::number(c)});
}

int Printer_Init(int handle, const QString& mode)
{
    return withSession(handle, link::Init, {mode});
}

int Printer_SendLayout(int handle, const QString& path)
{
    Session* s = find(handle);
    if (!s)
        return link::ErrGeneral;
    QFile f(path);
    if (!f.open(QIODevice::ReadOnly))
        return link::ErrFile;
    if (f.size() >= link::MaxFrameBytes)
        return link::ErrMemory;
    const QString content = FromCp1252(f.readAll());
    const QStringList args{QFileInfo(path).completeBaseName(), content};
    // Escaping can make the frame longer than the file.
    if (EncodeRequest(0x7fffffff, link::Layout, args).size() > link::MaxFrameBytes)
        return link::ErrMemory;
    return call(*s, link::Layout, args);
}

int Printer_SendVariable(int handle, const QString& text, int number)
{
    return withSession(handle, link::Var, {QString::number(number), text});
}

int Printer_PrintLabel(int handle, int copies, const QString& mode)
{
    return withSession(handle, link::Print, {QString::number(copies), mode});
}

QString Printer_Identity(int handle)
{
    Session* s = find(handle);
    return s ? s->identity : QString();
}

void Printer_SetTimeout(int ms)
{
    g_timeoutMs = qMax(1, ms);
}

int Printer_Timeout()
{
    return g_timeoutMs;
}

} // namespace quill
