#include "protocol/listener.h"
#include "foundation/cp1252.h"
#include "foundation/descriptors.h"
#include "foundation/eventlog.h"

#include <QNetworkInterface>

#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <sys/socket.h>
#include <unistd.h>

namespace quill {

Listener::Listener(QObject* parent) : QObject(parent)
{
    // Qt's own accept loop keeps the first error its socket engine ever saw,
    // and that is "try again" after any burst; out of descriptors it would
    // then retry without end at full CPU. So QTcpServer only binds and the
    // accepting is ours. With no descriptor left, clients wait in the backlog
    // and are taken once some are free; the control socket's reserve is held
    // again first, should it have been used.
    resumeAccepting_.setSingleShot(true);
    resumeAccepting_.setInterval(250);
    connect(&resumeAccepting_, &QTimer::timeout, this, [this] {
        ReserveDescriptor();
        if (acceptNotifier_)
            acceptNotifier_->setEnabled(true);
    });
}

namespace {

// The client has closed its sending side and nothing of it is left unread.
bool peerClosed(int fd)
{
    char c;
    const ssize_t n = ::recv(fd, &c, 1, MSG_PEEK | MSG_DONTWAIT);
    return n == 0 || (n < 0 && errno != EAGAIN && errno != EWOULDBLOCK && errno != EINTR);
}

void sendNow(int fd, const QByteArray& bytes)
{
    if (fd >= 0)
        (void)::send(fd, bytes.constData(), size_t(bytes.size()), MSG_NOSIGNAL | MSG_DONTWAIT);
}

} // namespace

Listener::~Listener()
{
    acceptNotifier_.reset();
    for (auto& e : entries_) {
        if (e.socket)
            e.socket->abort();
        if (e.fd >= 0)
            ::close(e.fd);
    }
    setHoldClosed(false);
}

bool Listener::MainInitTCP(qint32 port)
{
    close();
    const bool valid = port >= 0 && port <= 65535 && !bindAddress_.isNull();
    if (!valid || !server_.listen(bindAddress_, quint16(port))) {
        const QString err = bindAddress_.isNull()      ? QStringLiteral("Invalid bind address")
                            : port < 0 || port > 65535 ? QStringLiteral("Invalid port")
                                                       : server_.errorString();
        error_ = QStringLiteral("port %1: %2").arg(port).arg(err);
        LogWrite(QStringLiteral("MainInitTCP failed. Error: %1 %2").arg(int(server_.serverError())).arg(err));
        return false;
    }
    server_.pauseAccepting();
    acceptNotifier_ = std::make_unique<QSocketNotifier>(server_.socketDescriptor(), QSocketNotifier::Read);
    connect(acceptNotifier_.get(), &QSocketNotifier::activated, this, &Listener::onNewConnection);
    error_.clear();
    return true;
}

bool Listener::setBindAddress(const QString& address)
{
    // An address that does not parse opens nothing: listening everywhere
    // instead would be a surprise on a machine meant to serve one network.
    bindAddress_ = address.trimmed().isEmpty() ? QHostAddress(QHostAddress::Any) : QHostAddress(address.trimmed());
    return !bindAddress_.isNull();
}

QStringList Listener::setAllowedClients(const QString& list)
{
    QStringList invalid;
    filter_.setAllowed(list, &invalid);
    return invalid;
}

void Listener::close()
{
    acceptNotifier_.reset();
    resumeAccepting_.stop();
    server_.close();
}

int Listener::FindFreeConnection() const
{
    for (int i = 1; i <= MaxConnections; ++i)
        if (entries_[i].state == -1)
            return i;
    return -1;
}

void Listener::resetConnections()
{
    for (int i = 1; i <= MaxConnections; ++i) {
        if (entries_[i].socket)
            entries_[i].socket->abort();
        if (entries_[i].fd >= 0)
            ::close(entries_[i].fd);
        entries_[i] = Entry{};
    }
}

int Listener::connectionCount() const
{
    int n = 0;
    for (int i = 1; i <= MaxConnections; ++i)
        n += entries_[i].state == 0;
    return n;
}

void Listener::onNewConnection()
{
    for (;;) {
        const int fd = ::accept4(int(server_.socketDescriptor()), nullptr, nullptr, SOCK_CLOEXEC | SOCK_NONBLOCK);
        if (fd < 0) {
            if (errno == EMFILE || errno == ENFILE || errno == ENOBUFS || errno == ENOMEM) {
                NoteOutOfDescriptors(QStringLiteral("the listener"), QString::fromLocal8Bit(::strerror(errno)));
                acceptNotifier_->setEnabled(false);
                resumeAccepting_.start();
            }
            return; // none waiting, or a client that left before it was taken
        }
        auto* s = new QTcpSocket(this);
        if (!s->setSocketDescriptor(fd)) {
            ::close(fd);
            delete s;
            continue;
        }
        NoteDescriptorsAgain();
        if (!filter_.allows(s->peerAddress())) {
            if (filter_.shouldLogRefusal(s->peerAddress()))
                LogWrite(QStringLiteral("Connection from %1 refused: not in tAllowedClients.")
                             .arg(ClientFilter::plain(s->peerAddress()).toString()));
            s->abort();
            s->deleteLater();
            continue;
        }
        int k = FindFreeConnection();
        if (k < 0) {
            reapClosed();
            k = FindFreeConnection();
        }
        if (k < 0) {
            // A 33rd client is not served: closed at once, without a reply.
            s->abort();
            s->deleteLater();
            continue;
        }
        Entry& e = entries_[k];
        e.socket = s;
        e.buffer.clear();
        e.state = 0;
        e.serial = ++accepted_;
        e.fd = ::fcntl(int(s->socketDescriptor()), F_DUPFD_CLOEXEC, 0);
        connect(s, &QTcpSocket::readyRead, this, [this, k, s] {
            if (entries_[k].socket != s)
                return;
            const QByteArray data = s->readAll();
            if (!data.isEmpty() && onData)
                onData(FromCp1252(data), k);
        });
        connect(s, &QTcpSocket::disconnected, this, [this, k, s] {
            if (entries_[k].socket == s)
                onClosed(k);
        });
        emit connectionsChanged(connectionCount());
    }
}

void Listener::onClosed(int i)
{
    Entry& e = entries_[i];
    if (e.socket)
        e.socket->deleteLater();
    if (e.fd >= 0) {
        if (holdClosed_)
            lingering_.emplace(e.serial, e.fd);
        else
            ::close(e.fd);
    }
    e = Entry{};
    emit connectionsChanged(connectionCount());
}

void Listener::reapClosed()
{
    for (int i = 1; i <= MaxConnections; ++i) {
        Entry& e = entries_[i];
        if (!e.socket || e.fd < 0 || e.socket->bytesAvailable() > 0 || !peerClosed(e.fd))
            continue;
        QTcpSocket* s = e.socket;
        onClosed(i);
        s->abort();
    }
}

void Listener::setHoldClosed(bool hold)
{
    holdClosed_ = hold;
    if (hold)
        return;
    for (const auto& [serial, fd] : lingering_)
        ::close(fd);
    lingering_.clear();
}

void Listener::sendTo(int i, quint64 serial, const QByteArray& bytes)
{
    if (serial != 0 && this->serial(i) == serial) {
        send(i, bytes);
        return;
    }
    // A reply is a few hundred bytes: an empty socket buffer takes it whole.
    auto it = lingering_.find(serial);
    if (it != lingering_.end())
        sendNow(it->second, bytes);
}

QHostAddress Listener::reachableAddress() const
{
    const QHostAddress bound = server_.serverAddress();
    if (bound != QHostAddress::Any && bound != QHostAddress::AnyIPv4 && bound != QHostAddress::AnyIPv6)
        return bound;
    for (const QHostAddress& a : QNetworkInterface::allAddresses())
        if (a.protocol() == QAbstractSocket::IPv4Protocol && !a.isLoopback())
            return a;
    return QHostAddress(QHostAddress::LocalHost);
}

void Listener::send(int i, const QString& text) { send(i, ToCp1252(text)); }

void Listener::send(int i, const QByteArray& bytes)
{
    if (i < 1 || i > MaxConnections || !entries_[i].socket)
        return;
    // Out now rather than on the next turn of the event loop: the client is waiting.
    // While Qt holds nothing unsent for this socket the bytes go straight to it,
    // which spares the write notifier's round through the event loop (two writes
    // and a read of its wake-up descriptor per reply); what the socket does not
    // take, Qt sends.
    QTcpSocket* s = entries_[i].socket;
    qsizetype sent = 0;
    if (s->bytesToWrite() == 0 && s->socketDescriptor() >= 0) {
        const ssize_t n = ::send(int(s->socketDescriptor()), bytes.constData(), size_t(bytes.size()),
                                 MSG_NOSIGNAL | MSG_DONTWAIT);
        sent = n > 0 ? qsizetype(n) : 0;
    }
    if (sent < bytes.size()) {
        s->write(bytes.constData() + sent, bytes.size() - sent);
        s->flush();
    }
}

void Listener::drop(int i)
{
    if (i < 1 || i > MaxConnections || !entries_[i].socket)
        return;
    QTcpSocket* s = entries_[i].socket;
    onClosed(i);
    s->abort();
}

} // namespace quill
