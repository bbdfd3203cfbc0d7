#include "printers/comapi.h"

#include "foundation/cp1252.h"
#include "printers/link.h"
#include "printers/linktransport.h"

#include <QDeadlineTimer>
#include <QFile>
#include <QFileInfo>
#include <QSerialPort>
#include <QTcpSocket>

#include <atomic>
#include <map>
#include <memory>
#include <mutex>

namespace quill {

namespace {

constexpr int MaxOpenDevices = 64;
// Longest single wait while watching for a cancel.
constexpr int WaitSliceMs = 50;
std::atomic<int> g_timeoutMs{3000};
std::atomic<quint32> g_nextId{1};
std::atomic<bool> g_cancelled{false};

struct CloseLink {
    void operator()(QIODevice* io) const
    {
        CloseTransport(io);
        delete io;
    }
};

// A session belongs to the thread that opened it (its transport does);
// its mutex keeps a handle shared by mistake from mixing two calls' frames.
struct Session {
    std::mutex use;
    std::unique_ptr<QIODevice, CloseLink> io;
    LinkDecoder decoder;
    QString identity;
};
using SessionPtr = std::shared_ptr<Session>;

std::mutex& tableMutex()
{
    static std::mutex m;
    return m;
}

std::map<int, SessionPtr>& sessions()
{
    static std::map<int, SessionPtr> table;
    return table;
}

SessionPtr find(int handle)
{
    std::lock_guard lock(tableMutex());
    auto it = sessions().find(handle);
    return it == sessions().end() ? nullptr : it->second;
}

quint32 takeId()
{
    quint32 id = g_nextId.load();
    while (!g_nextId.compare_exchange_weak(id, id >= 0x7fffffffU ? 1 : id + 1)) {
    }
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
    QDeadlineTimer deadline(g_timeoutMs.load());
    if (g_cancelled)
        return link::ErrComm;
    QIODevice* io = s.io.get();
    if (linkLost(io))
        return link::ErrComm;
    const quint32 id = takeId();
    const QByteArray frame = EncodeRequest(id, verb, args);
    if (io->write(frame) != frame.size())
        return link::ErrComm;
    while (io->bytesToWrite() > 0) {
        if (deadline.hasExpired() || g_cancelled || !io->waitForBytesWritten(int(deadline.remainingTime())))
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
        if (deadline.hasExpired() || g_cancelled || linkLost(io))
            break;
        if (!io->waitForReadyRead(int(qBound(qint64(1), deadline.remainingTime(), qint64(WaitSliceMs))))) {
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
    const SessionPtr s = find(handle);
    if (!s)
        return link::ErrGeneral;
    std::lock_guard lock(s->use);
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
    {
        std::lock_guard lock(tableMutex());
        if (sessions().size() >= MaxOpenDevices)
            return link::ErrGeneral;
    }
    if (g_cancelled)
        return link::ErrComm;

    auto s = std::make_shared<Session>();
    s->io.reset(OpenTransport(address, line, nullptr));
    if (!s->io)
        return link::ErrComm;
    // A socket's connect cannot be waited on in slices (a timed-out wait
    // drops it), so a cancel takes effect after the connect at the latest.
    if (!WaitTransportConnected(s->io.get(), g_timeoutMs.load()))
        return link::ErrComm;
    QStringList values;
    const int r = call(*s, link::Open, {settings.trimmed(), mode}, &values);
    if (r < 1)
        return r;
    s->identity = values.value(0);

    std::lock_guard lock(tableMutex());
    if (sessions().size() >= MaxOpenDevices)
        return link::ErrGeneral;
    int handle = 1;
    while (sessions().count(handle))
        ++handle;
    sessions().emplace(handle, std::move(s));
    return handle;
}

int Printer_Close(int handle)
{
    SessionPtr s;
    {
        std::lock_guard lock(tableMutex());
        auto it = sessions().find(handle);
        if (it == sessions().end())
            return link::ErrGeneral;
        s = std::move(it->second);
        sessions().erase(it);
    }
    std::lock_guard lock(s->use);
    QIODevice* io = s->io.get();
    if (!linkLost(io)) {
        io->write(EncodeRequest(takeId(), link::Close));
        if (io->bytesToWrite() > 0)
            io->waitForBytesWritten(qMin(g_timeoutMs.load(), 500));
    }
    if (auto* socket = qobject_cast<QTcpSocket*>(io))
        socket->disconnectFromHost();
    return link::Ok;
}

int Printer_GetStatus(int handle, int what)
{
    return withSession(handle, link::Status, {QString::number(what)});
}

int Printer_SetParameter(int handle, int parameter, int value)
{
    const SessionPtr s = find(handle);
    if (!s)
        return link::ErrGeneral;
    std::lock_guard lock(s->use);
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
    const SessionPtr s = find(handle);
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
    std::lock_guard lock(s->use);
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
    const SessionPtr s = find(handle);
    if (!s)
        return QString();
    std::lock_guard lock(s->use);
    return s->identity;
}

void Printer_SetTimeout(int ms)
{
    g_timeoutMs = qMax(1, ms);
}

void Printer_CancelWaits(bool on)
{
    g_cancelled = on;
}

int Printer_Timeout()
{
    return g_timeoutMs;
}

} // namespace quill
