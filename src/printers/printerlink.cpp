#include "printers/printerlink.h"
#include "printers/linktransport.h"

#include <QFileInfo>
#include <QMetaObject>
#include <QSerialPort>
#include <QTcpSocket>
#include <QTimer>

#include <atomic>
#include <future>

namespace quill {

QString LinkKey(const LinkAddress& address)
{
    switch (address.kind) {
    case LinkAddress::Serial: {
        const QString canonical = QFileInfo(address.path).canonicalFilePath();
        return QStringLiteral("serial:") + (canonical.isEmpty() ? address.path : canonical);
    }
    case LinkAddress::Network:
        return QStringLiteral("net:") + address.host.toLower() + QLatin1Char(':') + QString::number(address.port);
    case LinkAddress::Invalid:
        break;
    }
    return {};
}

QString LinkKey(const QString& deviceName)
{
    return LinkKey(ParseDeviceName(deviceName.trimmed()));
}

// ------------------------------------------------------------------ PrinterLink

PrinterLink::PrinterLink(const QString& key, PrinterLinks& owner) : QObject(&owner), key_(key) {}

PrinterLink::~PrinterLink()
{
    stopWorker();
}

QIODevice* PrinterLink::openTransport(const LinkAddress& address, const struct LineSettings& line, QString* error)
{
    return OpenTransport(address, line, this, error);
}

void PrinterLink::closeTransport(QIODevice* io, const QByteArray& goodbye, int lingerMs)
{
    if (!io)
        return;
    if (!goodbye.isEmpty() && io->isOpen())
        io->write(goodbye);
    if (auto* s = qobject_cast<QTcpSocket*>(io)) {
        // The goodbye is still buffered: the socket goes once it has left.
        s->disconnectFromHost();
        if (s->state() == QAbstractSocket::UnconnectedState) {
            s->deleteLater();
        } else {
            connect(s, &QTcpSocket::disconnected, s, &QObject::deleteLater);
            QTimer::singleShot(lingerMs, s, &QObject::deleteLater);
        }
        return;
    }
    if (auto* p = qobject_cast<QSerialPort*>(io))
        p->flush();
    // Leaves the line's speed as it is, as a device session does.
    CloseTransport(io);
    io->deleteLater();
}

void PrinterLink::post(std::function<void()> job)
{
    {
        std::lock_guard lock(mutex_);
        jobs_.push_back(std::move(job));
        stopping_ = false;
    }
    if (!thread_.joinable())
        thread_ = std::thread([this] { workerLoop(); });
    wake_.notify_one();
}

void PrinterLink::workerLoop()
{
    for (;;) {
        std::function<void()> job;
        {
            std::unique_lock lock(mutex_);
            wake_.wait(lock, [this] { return stopping_ || !jobs_.empty(); });
            if (stopping_)
                return;
            job = std::move(jobs_.front());
            jobs_.pop_front();
        }
        job();
    }
}

void PrinterLink::stopWorker()
{
    if (!thread_.joinable())
        return;
    {
        std::lock_guard lock(mutex_);
        stopping_ = true;
        jobs_.clear();
    }
    wake_.notify_one();
    thread_.join();
}

// ------------------------------------------------------------------ PrinterLinks

struct PrinterLinks::Entry {
    QStringList keys;
    std::function<void()> granted;
    bool started = false;
    // Blocking work only.
    bool blocking = false;
    const QObject* owner = nullptr;
    QPointer<QObject> context;
    std::function<void(const DeviceContext&)> work;
    std::function<void()> done;
    std::shared_ptr<std::atomic<bool>> cancel;
    std::shared_future<void> ended;
};

PrinterLinks::PrinterLinks(QObject* parent) : QObject(parent) {}

PrinterLinks::~PrinterLinks()
{
    for (const auto& e : std::as_const(entries_))
        if (e->cancel)
            e->cancel->store(true);
    for (PrinterLink* link : std::as_const(links_))
        link->stopWorker();
    entries_.clear();
}

PrinterLink* PrinterLinks::linkFor(const QString& key)
{
    PrinterLink*& link = links_[key];
    if (!link)
        link = new PrinterLink(key, *this);
    return link;
}

PrinterLinks::Ticket PrinterLinks::acquire(const QStringList& keys, std::function<void()> granted)
{
    auto e = std::make_shared<Entry>();
    for (const QString& k : keys)
        if (!k.isEmpty() && !e->keys.contains(k))
            e->keys << k;
    // Names that name no connection still queue somewhere, so the work keeps
    // its turn and, when blocking, has a worker.
    if (e->keys.isEmpty())
        e->keys << QString();
    e->granted = std::move(granted);
    const Ticket t = nextTicket_++;
    entries_.insert(t, e);
    bool first = true;
    for (const QString& k : std::as_const(e->keys)) {
        PrinterLink* link = linkFor(k);
        link->queue_.push_back(t);
        first = first && link->queue_.front() == t;
    }
    if (first)
        QMetaObject::invokeMethod(this, [this, t] { grant(t); }, Qt::QueuedConnection);
    return t;
}

bool PrinterLinks::granted(Ticket ticket) const
{
    const auto e = entries_.value(ticket);
    return e && e->started;
}

void PrinterLinks::grant(Ticket ticket)
{
    const auto e = entries_.value(ticket);
    if (!e || e->started)
        return;
    for (const QString& k : std::as_const(e->keys))
        if (links_.value(k)->queue_.front() != ticket)
            return;
    e->started = true;
    if (e->blocking)
        dispatch(ticket);
    else if (e->granted)
        e->granted();
}

void PrinterLinks::release(Ticket ticket)
{
    const auto e = entries_.take(ticket);
    if (!e)
        return;
    for (const QString& k : std::as_const(e->keys)) {
        PrinterLink* link = links_.value(k);
        const bool wasFront = !link->queue_.empty() && link->queue_.front() == ticket;
        std::erase(link->queue_, ticket);
        if (wasFront)
            advance(link);
    }
}

void PrinterLinks::advance(PrinterLink* link)
{
    if (link->queue_.empty())
        return;
    const Ticket next = link->queue_.front();
    QMetaObject::invokeMethod(this, [this, next] { grant(next); }, Qt::QueuedConnection);
}

void PrinterLinks::run(const QStringList& keys, QObject* context, std::function<void(const DeviceContext&)> work,
                       std::function<void()> done)
{
    const Ticket t = acquire(keys, {});
    const auto e = entries_.value(t);
    e->blocking = true;
    e->owner = context;
    e->context = context;
    e->work = std::move(work);
    e->done = std::move(done);
    e->cancel = std::make_shared<std::atomic<bool>>(false);
}

void PrinterLinks::dispatch(Ticket ticket)
{
    const auto e = entries_.value(ticket);
    if (!e->context) {
        release(ticket);
        return;
    }
    auto finished = std::make_shared<std::promise<void>>();
    e->ended = finished->get_future().share();
    const DeviceContext context{deviceTimeoutMs_, e->cancel.get()};
    linkFor(e->keys.first())->post([this, ticket, work = e->work, cancel = e->cancel, context, finished] {
        if (!cancel->load())
            work(context);
        finished->set_value();
        {
            std::lock_guard lock(endedMutex_);
            ended_.push_back(ticket);
        }
        // By name: nothing of ours crosses threads inside Qt's posted event.
        QMetaObject::invokeMethod(this, "takeEnded", Qt::QueuedConnection);
    });
}

void PrinterLinks::takeEnded()
{
    std::deque<Ticket> ended;
    {
        std::lock_guard lock(endedMutex_);
        ended.swap(ended_);
    }
    for (const Ticket t : ended)
        workEnded(t);
}

void PrinterLinks::workEnded(Ticket ticket)
{
    const auto e = entries_.value(ticket);
    if (!e)
        return; // stopped meanwhile
    release(ticket);
    if (e->context && e->done)
        e->done();
}

void PrinterLinks::stopWork(QObject* context)
{
    QList<Ticket> mine;
    for (auto it = entries_.cbegin(); it != entries_.cend(); ++it)
        if (it.value()->blocking && it.value()->owner == context)
            mine << it.key();
    std::sort(mine.begin(), mine.end());
    for (const Ticket t : std::as_const(mine)) {
        const auto e = entries_.value(t);
        if (e->ended.valid()) {
            e->cancel->store(true);
            e->ended.wait();
        }
        release(t);
    }
}

bool PrinterLinks::hasWork(const QObject* context) const
{
    for (const auto& e : entries_)
        if (e->blocking && e->owner == context)
            return true;
    return false;
}

} // namespace quill
