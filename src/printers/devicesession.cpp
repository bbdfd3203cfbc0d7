#include "printers/devicesession.h"

#include "foundation/cp1252.h"
#include "printers/link.h"
#include "printers/linktransport.h"

#include <QDeadlineTimer>
#include <QFile>
#include <QFileInfo>
#include <QSerialPort>
#include <QTcpSocket>

#include <random>

namespace quill {

namespace {

// Longest single wait while watching for a cancel.
constexpr int WaitSliceMs = 50;

struct CloseLink {
    void operator()(QIODevice* io) const
    {
        CloseTransport(io);
        delete io;
    }
};

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

int valueAt(const QStringList& values, int i)
{
    bool ok = false;
    const int v = values.value(i).toInt(&ok);
    return ok ? v : 0;
}

} // namespace

struct DeviceSession::State {
    std::unique_ptr<QIODevice, CloseLink> io;
    LinkDecoder decoder;
};

DeviceSession::DeviceSession(const DeviceContext& context)
    : context_(context),
      // A late answer on a serial line may still come from an earlier
      // session: ids start where that one is unlikely to have been.
      nextId_(1 + std::random_device{}() % 0x7ffffffeU)
{
    context_.timeoutMs = qMax(1, context_.timeoutMs);
}

DeviceSession::~DeviceSession()
{
    close();
}

bool DeviceSession::isOpen() const
{
    return state_ != nullptr;
}

// One request, one answer within the deadline. Frames with other ids are
// late answers to earlier timed-out calls and are skipped.
int DeviceSession::call(const QString& verb, const QStringList& args, QStringList* values)
{
    if (!state_)
        return link::ErrGeneral;
    QDeadlineTimer deadline(context_.timeoutMs);
    if (context_.cancelled())
        return link::ErrComm;
    QIODevice* io = state_->io.get();
    if (linkLost(io))
        return link::ErrComm;
    const quint32 id = nextId_;
    nextId_ = nextId_ >= 0x7fffffffU ? 1 : nextId_ + 1;
    const QByteArray frame = EncodeRequest(id, verb, args);
    if (io->write(frame) != frame.size())
        return link::ErrComm;
    while (io->bytesToWrite() > 0) {
        if (deadline.hasExpired() || context_.cancelled()
            || !io->waitForBytesWritten(int(deadline.remainingTime())))
            return link::ErrComm;
    }
    LinkDecoder& decoder = state_->decoder;
    for (;;) {
        if (io->bytesAvailable() > 0)
            decoder.feed(io->readAll());
        LinkFrame f;
        while (decoder.next(&f)) {
            if (f.kind == LinkFrame::Answer && f.id == id) {
                if (values)
                    *values = f.args;
                return f.result;
            }
        }
        if (deadline.hasExpired() || context_.cancelled() || linkLost(io))
            break;
        if (!io->waitForReadyRead(int(qBound(qint64(1), deadline.remainingTime(), qint64(WaitSliceMs))))) {
            if (linkLost(io))
                break;
            // Only a timeout is left to clear: a lost line must stay visible.
            if (auto* p = qobject_cast<QSerialPort*>(io))
                p->clearError();
        }
    }
    decoder.reset();
    return link::ErrComm;
}

int DeviceSession::open(const QString& device, const QString& settings, const QString& mode)
{
    close();
    const LinkAddress address = ParseDeviceName(device);
    if (!address.valid())
        return link::ErrGeneral;
    LineSettings line;
    if (address.kind == LinkAddress::Serial && !ParseLineSettings(settings, &line))
        return link::ErrGeneral;
    if (context_.cancelled())
        return link::ErrComm;

    auto s = std::make_unique<State>();
    s->io.reset(OpenTransport(address, line, nullptr));
    if (!s->io)
        return link::ErrComm;
    // A socket's connect cannot be waited on in slices (a timed-out wait
    // drops it), so a cancel takes effect after the connect at the latest.
    if (!WaitTransportConnected(s->io.get(), context_.timeoutMs))
        return link::ErrComm;
    state_ = std::move(s);
    const int r = call(link::Open, {settings.trimmed(), mode});
    if (r < 1) {
        state_.reset();
        return r;
    }
    return link::Ok;
}

int DeviceSession::close()
{
    if (!state_)
        return link::ErrGeneral;
    QIODevice* io = state_->io.get();
    if (!linkLost(io)) {
        io->write(EncodeRequest(nextId_, link::Close));
        if (io->bytesToWrite() > 0)
            io->waitForBytesWritten(qMin(context_.timeoutMs, 500));
    }
    if (auto* socket = qobject_cast<QTcpSocket*>(io))
        socket->disconnectFromHost();
    state_.reset();
    return link::Ok;
}

int DeviceSession::status(int what)
{
    return call(link::Status, {QString::number(what)});
}

int DeviceSession::setParameter(int parameter, int value)
{
    const int r = call(link::SetParam, {QString::number(parameter), QString::number(value)});
    if (r >= 1 && parameter == link::ParamBaudRate)
        SetTransportBaudRate(state_->io.get(), value);
    return r;
}

int DeviceSession::service(int command, const QString& input, QString* reply, int replyLength)
{
    QStringList values;
    const int r = call(link::Service, {QString::number(command), input}, &values);
    if (reply)
        *reply = r >= 1 ? values.value(0).left(qMax(0, replyLength)) : QString();
    return r;
}

int DeviceSession::lockParameters()
{
    return call(link::Lock, {});
}

int DeviceSession::counter(int counter, int* v1, int* v2, int* v3, int* v4, int* v5)
{
    QStringList values;
    const int r = call(link::GetCounter, {QString::number(counter)}, &values);
    if (r >= 1) {
        int* out[] = {v1, v2, v3, v4, v5};
        for (int i = 0; i < 5; ++i)
            if (out[i])
                *out[i] = valueAt(values, i);
    }
    return r;
}

int DeviceSession::setCounter(int counter, int value, int a, int b, int c)
{
    return call(link::SetCounter, {QString::number(counter), QString::number(value), QString::number(a),
                                   QString::number(b), QString::number(c)});
}

int DeviceSession::init(const QString& mode)
{
    return call(link::Init, {mode});
}

int DeviceSession::sendLayout(const QString& path)
{
    if (!state_)
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
    return call(link::Layout, args);
}

int DeviceSession::sendVariable(const QString& text, int number)
{
    return call(link::Var, {QString::number(number), text});
}

int DeviceSession::printLabel(int copies, const QString& mode)
{
    return call(link::Print, {QString::number(copies), mode});
}

} // namespace quill
