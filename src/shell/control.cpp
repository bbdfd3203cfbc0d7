#include "shell/control.h"
#include "database/jobstore.h"
#include "database/lists.h"
#include "database/slots.h"
#include "foundation/descriptors.h"
#include "foundation/eventlog.h"
#include "foundation/jobfields.h"
#include "shell/messages.h"
#include "foundation/paths.h"
#include "foundation/texts.h"
#include "protocol/listener.h"
#include "service/printerlistmodel.h"
#include "shell/operator.h"
#include "shell/server.h"

#include <QDateTime>
#include <QJsonArray>
#include <QJsonDocument>
#include <QFile>
#include <QFileInfo>
#include <QLocalSocket>
#include <QMetaEnum>
#include <QRegularExpression>
#include <QScopeGuard>
#include <QSocketNotifier>
#include <QTimer>

#include <cerrno>
#include <cstring>
#include <pwd.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

namespace quill {

using Outcome = Operator::Outcome;

// Answers every question as the operator who typed the command would (Yes, OK)
// and keeps each box's text for the reply. The sink in use before comes back
// when this one ends.
class CommandSink final : public MessageSink {
public:
    CommandSink() : previous_(&Messages()) { SetMessageSink(this); }
    ~CommandSink() override
    {
        if (&Messages() == this)
            SetMessageSink(previous_);
    }
    CommandSink(const CommandSink&) = delete;
    CommandSink& operator=(const CommandSink&) = delete;

    BoxAnswer show(const Box& box) override
    {
        static const char* const icons[] = {"none", "information", "exclamation", "critical", "question"};
        messages.append(QJsonObject{{QStringLiteral("icon"), QLatin1String(icons[int(box.icon)])},
                                    {QStringLiteral("text"), box.text}});
        switch (box.buttons) {
        case BoxButtons::YesNo: return BoxAnswer::Yes;
        case BoxButtons::OkCancel:
        case BoxButtons::Ok: return BoxAnswer::Ok;
        }
        return BoxAnswer::Ok;
    }

    QJsonArray messages;

private:
    MessageSink* previous_;
};

struct ControlServer::Reply {
    bool ok = true;
    QString outcome = QStringLiteral("Done");
    QString reason; // set on refusals: a key the client words
    QJsonObject data;
};

namespace {

// Texts the window shows in number boxes go out as JSON numbers when they are
// numbers, as typed otherwise.
QJsonValue numberOrText(const QString& text)
{
    bool ok = false;
    const qint64 n = text.trimmed().toLongLong(&ok);
    return ok ? QJsonValue(n) : QJsonValue(text);
}


template <typename E>
QString enumKey(E value)
{
    return QString::fromLatin1(QMetaEnum::fromType<E>().valueToKey(int(value)));
}

QJsonArray jsonTexts(const ValueList& list)
{
    QJsonArray a;
    for (const auto& e : list.entries)
        a.append(e.text);
    return a;
}

qint32 argId(const QJsonObject& args)
{
    return args.value(QStringLiteral("id")).toInt(-1);
}

// A switch the request names takes its value; one it leaves out stays.
void takeFlag(const QJsonObject& args, const char* key, bool& field)
{
    if (args.contains(QLatin1String(key)))
        field = args.value(QLatin1String(key)).toBool();
}

} // namespace

namespace {
// A command's outcome as a reply, with the reason the command gave.
ControlServer::Reply outcomeReply(const Operator::Result& result)
{
    ControlServer::Reply r;
    r.outcome = enumKey(result.outcome);
    r.ok = result.outcome == Outcome::Done || result.outcome == Outcome::NothingToDo;
    if (!r.ok)
        r.reason = control::reasonName(result.reason);
    return r;
}

ControlServer::Reply outcomeReply(Outcome o, control::Reason reason)
{
    return outcomeReply(Operator::Result(o, reason));
}
} // namespace

ControlServer::ControlServer(Server& server, Operator& commands, QObject* parent)
    : QObject(parent), server_(server), commands_(commands)
{
    connect(&commands_, &Operator::deviceOperationFinished, this,
            [this](Operator::DeviceOperation, Outcome outcome, const PrinterSettings&) {
                deviceOperationFinished(int(outcome));
            });
    connect(&commands_, &Operator::printerChecked, this, &ControlServer::printerChecked);
    connect(&commands_, &Operator::busyChanged, this, [this](bool busy) {
        if (!busy)
            runNext();
    });
}

ControlServer::~ControlServer()
{
    close();
}

QString ControlServer::socketPath()
{
    return HomePath(QStringLiteral("quillbase.sock"));
}

namespace {

QString errnoText(int err)
{
    return QString::fromLocal8Bit(std::strerror(err));
}

// A listening socket at `path`, bound in a private folder, given its mode there
// and renamed into place, so it is never reachable with wider permissions. A
// socket file already in place is replaced: start-up holds the single-instance
// lock, so it is stale.
int listenAt(const QString& path, QString* why)
{
    const QByteArray target = QFile::encodeName(path);
    QByteArray dir = QFile::encodeName(QFileInfo(path).absolutePath()) + "/.quillbase-sock-XXXXXX";
    if (!::mkdtemp(dir.data())) {
        *why = errnoText(errno);
        return -1;
    }
    const QByteArray bound = dir + "/s";
    sockaddr_un addr = {};
    addr.sun_family = AF_UNIX;
    int fd = -1, err = 0;
    if (size_t(std::max(bound.size(), target.size())) >= sizeof addr.sun_path) {
        err = ENAMETOOLONG;
    } else {
        std::memcpy(addr.sun_path, bound.constData(), size_t(bound.size()) + 1);
        fd = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
        if (fd < 0 || ::bind(fd, reinterpret_cast<sockaddr*>(&addr), sizeof addr) != 0
            || ::chmod(bound.constData(), 0770) != 0 || ::listen(fd, 64) != 0
            || ::rename(bound.constData(), target.constData()) != 0)
            err = errno;
    }
    ::unlink(bound.constData());
    ::rmdir(dir.constData());
    if (err) {
        if (fd >= 0)
            ::close(fd);
        *why = errnoText(err);
        return -1;
    }
    return fd;
}

} // namespace

bool ControlServer::open()
{
    close();
    ReserveDescriptor();
    QString why;
    const int fd = listenAt(socketPath(), &why);
    if (fd < 0) {
        LogWrite(QStringLiteral("Could not open the control socket ") + socketPath() + QStringLiteral(": ") + why);
        return false;
    }
    listenFd_ = fd;
    notifier_ = std::make_unique<QSocketNotifier>(fd, QSocketNotifier::Read);
    connect(notifier_.get(), &QSocketNotifier::activated, this, &ControlServer::onNewConnection);
    return true;
}

void ControlServer::close()
{
    notifier_.reset();
    if (listenFd_ >= 0) {
        ::close(listenFd_);
        listenFd_ = -1;
        ::unlink(QFile::encodeName(socketPath()).constData());
    }
}

bool ControlServer::isOpen() const
{
    return listenFd_ >= 0;
}

void ControlServer::onNewConnection()
{
    for (;;) {
        int fd = ::accept4(listenFd_, nullptr, nullptr, SOCK_CLOEXEC | SOCK_NONBLOCK);
        if (fd < 0 && (errno == EMFILE || errno == ENFILE)) {
            NoteOutOfDescriptors(QStringLiteral("the control socket"), errnoText(errno));
            if (ReleaseReservedDescriptor())
                fd = ::accept4(listenFd_, nullptr, nullptr, SOCK_CLOEXEC | SOCK_NONBLOCK);
            if (fd < 0) {
                // None to be had: look again shortly rather than spin on a
                // socket that stays readable.
                notifier_->setEnabled(false);
                QTimer::singleShot(250, this, [this] {
                    if (notifier_)
                        notifier_->setEnabled(true);
                });
                return;
            }
        }
        if (fd < 0)
            return; // none waiting, or a client that left before it was taken
        auto* client = new QLocalSocket(this);
        if (!client->setSocketDescriptor(fd)) {
            ::close(fd);
            delete client;
            ReserveDescriptor();
            continue;
        }
        connect(client, &QLocalSocket::disconnected, client, &QObject::deleteLater);
        // Its descriptor becomes the reserve again before a client of the
        // listener can take it.
        connect(client, &QObject::destroyed, this, [] { ReserveDescriptor(); });
        connect(client, &QLocalSocket::readyRead, this, [this, client] { onReadyRead(client); });
        if (client->bytesAvailable() > 0)
            onReadyRead(client);
    }
}

void ControlServer::onReadyRead(QLocalSocket* client)
{
    if (!client->canReadLine()) {
        // One request is a short line; anything longer is not a client of ours.
        if (client->bytesAvailable() > 1 << 20)
            client->abort();
        return;
    }
    if (!waiting_.contains(client))
        waiting_.append(client);
    runNext();
}

namespace {
// The command of a request still unread.
QString peekCommand(QLocalSocket* client)
{
    QByteArray line = client->peek(client->bytesAvailable());
    line.truncate(line.indexOf('\n'));
    return QJsonDocument::fromJson(line).object().value(QStringLiteral("command")).toString();
}
} // namespace

void ControlServer::runNext()
{
    while (!running_ && !waiting_.isEmpty()) {
        // The server's own device work (start-up reconfiguration, a check
        // after a save) is short: printer commands wait for it rather than
        // being told the printers are busy; the rest queue behind them.
        const QPointer<QLocalSocket>& head = waiting_.first();
        if (head && head->canReadLine() && commands_.backgroundWorkRunning()) {
            const QString command = peekCommand(head);
            if (command.startsWith(control::command::PrinterPrefix) || command == control::command::Refresh)
                return;
        }
        QPointer<QLocalSocket> client = waiting_.takeFirst();
        if (!client || !client->canReadLine())
            continue;
        disconnect(client, &QLocalSocket::readyRead, this, nullptr); // one request per connection
        const QJsonObject request = QJsonDocument::fromJson(client->readLine()).object();
        running_ = true;
        Reply reply;
        const bool answered = run(client, request, reply);
        running_ = false;
        if (answered)
            finish(client, reply);
    }
}

void ControlServer::finish(QLocalSocket* client, Reply reply)
{
    if (!client)
        return;
    QJsonObject body = reply.data;
    body[QStringLiteral("ok")] = reply.ok;
    body[QStringLiteral("outcome")] = reply.outcome;
    if (!reply.reason.isEmpty())
        body[QStringLiteral("reason")] = reply.reason;
    if (!body.contains(QStringLiteral("messages")))
        body[QStringLiteral("messages")] = QJsonArray();
    client->write(QJsonDocument(body).toJson(QJsonDocument::Compact) + '\n');
    client->disconnectFromServer();
}

bool ControlServer::run(QLocalSocket* client, const QJsonObject& request, Reply& reply)
{
    const QString command = request.value(QStringLiteral("command")).toString();
    const QJsonObject args = request.value(QStringLiteral("args")).toObject();
    if (server_.starting() || server_.shutDown()) {
        reply = outcomeReply(Outcome::Refused, control::Reason::Starting);
        return true;
    }
    auto sink = std::make_unique<CommandSink>();
    // The event log names who asked: the user at the other end of the socket.
    QString who = QStringLiteral("control socket");
    ucred cred = {};
    socklen_t credLen = sizeof cred;
    if (::getsockopt(int(client->socketDescriptor()), SOL_SOCKET, SO_PEERCRED, &cred, &credLen) == 0) {
        const passwd* pw = ::getpwuid(cred.uid);
        who += QStringLiteral(" user ") + (pw ? QString::fromLocal8Bit(pw->pw_name) : QString::number(cred.uid));
    }
    commands_.setRequester(who);
    const auto restore = qScopeGuard([this] { commands_.setRequester(QStringLiteral("window")); });
    bool answered = true;
    if (command == control::command::Status)
        reply = status();
    else if (command == control::command::Jobs)
        reply = jobs(args);
    else if (command == control::command::Delete)
        reply = deleteJobs(args);
    else if (command == control::command::Start || command == control::command::Stop)
        reply = service(command == control::command::Start);
    else if (command == control::command::Refresh)
        reply = refresh(args.value(QStringLiteral("full")).toBool());
    else if (command == control::command::PrinterAdd || command == control::command::PrinterEdit) {
        reply = savePrinter(args, command == control::command::PrinterAdd);
        // The check after the save runs off the event loop: the reply tells its result.
        if (reply.ok && commands_.deviceOperationRunning()) {
            checkPending_ = std::make_unique<Reply>(reply);
            deviceClient_ = client;
            answered = false;
        }
    }
    else if (command == control::command::PrinterRemove)
        reply = removePrinter(args);
    else if (command.startsWith(control::command::PrinterPrefix))
        answered = startDeviceOperation(client, command, args, reply);
    else if (command == control::command::Settings)
        reply = settings();
    else if (command == control::command::SettingsSet)
        reply = setSettings(args);
    else if (command == control::command::Preview)
        reply = preview(args);
    else if (command == control::command::Move)
        reply = move(args);
    else if (command == control::command::Cancel)
        reply = cancel(args);
    else if (command == control::command::History)
        reply = history(args);
    else if (command == control::command::Reprint)
        reply = reprint(args);
    else
        reply = outcomeReply(Outcome::Refused, control::Reason::BadRequest);
    if (!answered) {
        // The device operation's boxes come later; its sink stays in place until then.
        deviceSink_ = std::move(sink);
        return false;
    }
    reply.data[QStringLiteral("messages")] = sink->messages;
    return true;
}

// ------------------------------------------------------------------ status and jobs

QJsonObject ControlServer::printerJson(qint32 id) const
{
    const PrinterSlot& s = server_.printers().at(id);
    qint32 queued = 0;
    const JobListModel& list = server_.jobs().jobList();
    for (int r = 0; r < list.count(); ++r)
        queued += list.jobAt(r).printerId == id ? 1 : 0;
    return QJsonObject{
        {QStringLiteral("id"), id},
        {QStringLiteral("name"), s.name.trimmed()},
        {QStringLiteral("display"), s.displayText.trimmed()},
        {QStringLiteral("type"), s.printerTypeId},
        {QStringLiteral("connection"), s.connectionString.trimmed()},
        {QStringLiteral("serial"), s.connectionType == ConnectionSerial},
        {QStringLiteral("passive"), s.passive},
        {QStringLiteral("status"), s.status},
        {QStringLiteral("statusWord"), StatusWord(s.status)},
        {QStringLiteral("statusText"), s.statusText.trimmed()},
        {QStringLiteral("since"), s.statusTime.toString(Qt::ISODate)},
        {QStringLiteral("seconds"), s.statusTime.isValid() ? qint64(s.statusTime.secsTo(QDateTime::currentDateTime())) : 0},
        {QStringLiteral("queued"), queued},
    };
}

ControlServer::Reply ControlServer::status()
{
    Reply r;
    const bool running = commands_.serviceRunning();
    r.data[QStringLiteral("service")] = QJsonObject{
        {QStringLiteral("running"), running},
        {QStringLiteral("available"), commands_.serviceAvailable()},
        {QStringLiteral("text"), GetString(running ? 12084 : 12085)},
    };
    Listener& l = server_.listener();
    r.data[QStringLiteral("listener")] = QJsonObject{
        {QStringLiteral("listening"), l.isListening()},
        {QStringLiteral("address"), l.isListening() ? l.reachableAddress().toString() : QString()},
        {QStringLiteral("port"), l.isListening() ? int(l.localPort()) : commands_.serverSettings().port.toInt()},
        {QStringLiteral("connections"), l.connectionCount()},
        {QStringLiteral("maxConnections"), Listener::MaxConnections},
    };
    QJsonArray printers;
    for (qint32 id = 1; id < PrinterSlots::UpperBound; ++id)
        if (server_.printers().SrvPrinterExists(id))
            printers.append(printerJson(id));
    r.data[QStringLiteral("printers")] = printers;
    r.data[QStringLiteral("queued")] = server_.jobs().jobList().count();
    return r;
}

ControlServer::Reply ControlServer::jobs(const QJsonObject& args)
{
    Reply r;
    const qint32 only = args.value(QStringLiteral("printer")).toInt(0);
    QJsonArray rows;
    const JobListModel& list = server_.jobs().jobList();
    for (int i = 0; i < list.count(); ++i) {
        if (only > 0 && list.jobAt(i).printerId != only)
            continue;
        const JobRow j = list.rowAt(i);
        rows.append(QJsonObject{
            {QStringLiteral("id"), j.id},
            {QStringLiteral("copies"), numberOrText(j.copies)},
            {QStringLiteral("printerId"), j.printerId},
            {QStringLiteral("printer"), j.printerName},
            {QStringLiteral("sender"), j.senderText},
            {QStringLiteral("workstation"), j.workstation},
            {QStringLiteral("user"), j.user},
            // The row text is the id, a blank and the caption.
            {QStringLiteral("caption"), j.text.section(QLatin1Char(' '), 1)},
        });
    }
    r.data[QStringLiteral("jobs")] = rows;
    return r;
}

ControlServer::Reply ControlServer::deleteJobs(const QJsonObject& args)
{
    if (args.value(QStringLiteral("all")).toBool()) {
        Reply r = outcomeReply(commands_.deleteAllJobs());
        r.data[QStringLiteral("queued")] = server_.jobs().jobList().count();
        return r;
    }
    QList<qint32> ids;
    for (const QJsonValue& v : args.value(QStringLiteral("ids")).toArray())
        ids << v.toInt(-1);
    // Every id is checked before the first is deleted, so a typo deletes nothing.
    QJsonArray unknown;
    for (qint32 id : ids)
        if (server_.jobs().jobList().findJob(id) < 0)
            unknown.append(id);
    if (!unknown.isEmpty() || ids.isEmpty()) {
        Reply r = outcomeReply(Outcome::Invalid, control::Reason::UnknownJob);
        r.data[QStringLiteral("ids")] = unknown;
        return r;
    }
    QJsonArray deleted;
    for (qint32 id : ids) {
        const Operator::Result o = commands_.deleteJob(id);
        if (o != Outcome::Done) {
            // Gone meanwhile (the queue emptied): not deleted by this command.
            Reply r = outcomeReply(o == Outcome::NothingToDo ? Operator::Result(Outcome::Invalid, o.reason) : o);
            r.data[QStringLiteral("ids")] = QJsonArray{id};
            r.data[QStringLiteral("deleted")] = deleted;
            return r;
        }
        deleted.append(id);
    }
    Reply r;
    r.data[QStringLiteral("deleted")] = deleted;
    return r;
}

ControlServer::Reply ControlServer::service(bool start)
{
    Reply r = outcomeReply(start ? commands_.startService() : commands_.stopService());
    const bool running = commands_.serviceRunning();
    r.data[QStringLiteral("service")] = QJsonObject{{QStringLiteral("running"), running},
                                                    {QStringLiteral("text"), GetString(running ? 12084 : 12085)}};
    return r;
}

ControlServer::Reply ControlServer::refresh(bool full)
{
    return outcomeReply(full ? commands_.fullRefresh() : commands_.refresh());
}

// ------------------------------------------------------------------ printers

namespace {

// Sets a drop-down field to the entry the operator named: its text, ignoring
// case, or one of the spellings `also` gives for an entry's item data.
bool pick(const ValueList& list, const QString& value, std::optional<qint32>& field,
          const std::function<QStringList(const ValueList::Entry&)>& also = {})
{
    const QString v = value.trimmed();
    for (const auto& e : list.entries) {
        QStringList names{e.text};
        if (also)
            names += also(e);
        for (const QString& n : names) {
            if (n.compare(v, Qt::CaseInsensitive) == 0) {
                field = e.itemData;
                return true;
            }
        }
    }
    return false;
}

bool digitsOnly(const QString& value)
{
    static const QRegularExpression digits(QStringLiteral("^[0-9]{1,9}$"));
    return digits.match(value).hasMatch();
}

} // namespace

ControlServer::Reply ControlServer::savePrinter(const QJsonObject& args, bool isNew)
{
    if (commands_.printerDialogOpen())
        return outcomeReply(Outcome::Refused, control::Reason::DialogOpen);
    const qint32 id = argId(args);
    PrinterSettings dialog;
    const Operator::Result opened = isNew ? commands_.openNewPrinter(&dialog) : commands_.openEditPrinter(id, &dialog);
    if (opened != Outcome::Done)
        return outcomeReply(opened);

    // The fields given, as the dialog's controls would take them.
    QString badField;
    QJsonArray allowed;
    const auto list = [&](const char* key, const ValueList& values, std::optional<qint32>& field,
                          const std::function<QStringList(const ValueList::Entry&)>& also = {}) {
        const QString k = QLatin1String(key);
        if (!badField.isEmpty() || !args.contains(k))
            return;
        if (!pick(values, args.value(k).toString(), field, also)) {
            badField = k;
            allowed = jsonTexts(values);
        }
    };
    const auto flag = [&](const char* key, bool& field) { takeFlag(args, key, field); };
    const auto text = [&](const char* key, QString& field) {
        if (args.contains(QLatin1String(key)))
            field = args.value(QLatin1String(key)).toString();
    };

    using List = Operator::DialogList;
    const ValueList types = commands_.dialogList(List::PrinterType), ports = Operator::fixedList(List::ComPort),
                    rates = Operator::fixedList(List::ComRate), strobe = Operator::fixedList(List::Strobe),
                    speed = Operator::fixedList(List::Speed);
    text("name", dialog.name);
    list("type", types, dialog.printerTypeId,
         [](const ValueList::Entry& e) { return QStringList{QString::number(e.itemData)}; });
    if (args.contains(QStringLiteral("connection")))
        dialog.serial = args.value(QStringLiteral("connection")).toString() == QLatin1String("serial");
    else if (isNew && args.contains(QStringLiteral("address")))
        dialog.serial = false; // an address names a network printer
    list("com", ports, dialog.comPort, [](const ValueList::Entry& e) {
        return QStringList{QString::number(e.itemData), QStringLiteral("COM%1").arg(e.itemData)};
    });
    list("rate", rates, dialog.comRate);
    text("address", dialog.netAddress);
    text("netPort", dialog.netPort);
    flag("connectOnly", dialog.netConnectOnly);
    list("darkness", strobe, dialog.strobe);
    list("speed", speed, dialog.speed);
    flag("passive", dialog.passive);

    // Cutter and feeds travel in the advanced-settings text, as from the advanced dialog.
    AdvancedSettings advanced = ParseAdvancedSettings(dialog.advancedSettings);
    bool cutter = advanced.cutterInstalled >= 1;
    flag("cutter", cutter);
    // Tenths of a millimetre: the advanced dialog's boxes take digits only.
    const auto feed = [&](const char* key, qint32& field) {
        const QString k = QLatin1String(key);
        if (!badField.isEmpty() || !args.contains(k))
            return;
        if (digitsOnly(args.value(k).toString()))
            field = args.value(k).toString().toInt();
        else
            badField = k;
    };
    feed("feed", advanced.dispensingFeed);
    feed("reverseFeed", advanced.reverseFeed);
    if (badField.isEmpty() && (args.contains(QStringLiteral("cutter")) || args.contains(QStringLiteral("feed"))
                               || args.contains(QStringLiteral("reverseFeed"))))
        dialog.advancedSettings = AdvancedSettingsText(cutter ? 1 : 0, advanced.dispensingFeed, advanced.reverseFeed);

    if (!badField.isEmpty()) {
        commands_.cancelPrinter();
        Reply r = outcomeReply(Outcome::Invalid, control::Reason::BadValue);
        r.data[QStringLiteral("field")] = badField;
        r.data[QStringLiteral("value")] = args.value(badField).toVariant().toString();
        r.data[QStringLiteral("allowed")] = allowed;
        return r;
    }

    qint32 saved = -1;
    const Operator::Result o = commands_.savePrinter(dialog, &saved);
    if (o != Outcome::Done) {
        commands_.cancelPrinter(); // an Invalid save leaves the dialog open
        Reply r = outcomeReply(o);
        if (o == Outcome::Invalid)
            r.data[QStringLiteral("field")] = enumKey(commands_.invalidField());
        return r;
    }
    Reply r;
    r.data[QStringLiteral("printer")] = printerJson(saved);
    return r;
}

ControlServer::Reply ControlServer::removePrinter(const QJsonObject& args)
{
    const qint32 id = argId(args);
    const Operator::Result o = commands_.deletePrinter(id);
    Reply r = outcomeReply(o);
    if (o == Outcome::Done)
        r.data[QStringLiteral("removed")] = id;
    return r;
}

bool ControlServer::startDeviceOperation(QLocalSocket* client, const QString& command, const QJsonObject& args,
                                         Reply& reply)
{
    static const QHash<QString, Operator::DeviceOperation> operations{
        {control::command::PrinterConfigure, Operator::DeviceOperation::Configure},
        {control::command::PrinterTest, Operator::DeviceOperation::TestPrint},
        {control::command::PrinterClear, Operator::DeviceOperation::ClearMemory},
        {control::command::PrinterCalibrate, Operator::DeviceOperation::Calibrate},
    };
    if (!operations.contains(command)) {
        reply = outcomeReply(Outcome::Refused, control::Reason::BadRequest);
        return true;
    }
    if (commands_.deviceOperationRunning()) {
        reply = outcomeReply(Operator::Result(Outcome::Busy));
        return true;
    }
    if (commands_.printerDialogOpen()) {
        reply = outcomeReply(Outcome::Refused, control::Reason::DialogOpen);
        return true;
    }
    // The stored printer's values, as its dialog would show them; its status
    // shows Configuring until the operation is over.
    const qint32 id = argId(args);
    PrinterSettings dialog;
    const Operator::Result opened = commands_.openEditPrinter(id, &dialog);
    if (opened != Outcome::Done) {
        reply = outcomeReply(opened);
        return true;
    }
    const Operator::Result started = commands_.startDeviceOperation(operations.value(command), dialog);
    if (started != Outcome::Done) {
        commands_.cancelPrinter();
        reply = outcomeReply(started);
        return true;
    }
    deviceClient_ = client;
    deviceOperationPending_ = true;
    return false;
}

void ControlServer::deviceOperationFinished(int outcome)
{
    // Only the operation this socket started; the window's are its own.
    if (!deviceOperationPending_)
        return;
    deviceOperationPending_ = false;
    const qint32 id = commands_.editingPrinter();
    commands_.cancelPrinter(); // the printer gets its status back
    // The one refusal a started operation ends with.
    Reply r = outcomeReply(Outcome(outcome) == Outcome::Refused
                               ? Operator::Result(Outcome::Refused, control::Reason::NoDeviceSupport)
                               : Operator::Result(Outcome(outcome)));
    finishDeferred(r, id);
}

void ControlServer::finishDeferred(Reply& r, qint32 id)
{
    if (server_.printers().SrvPrinterExists(id))
        r.data[QStringLiteral("printer")] = printerJson(id);
    r.data[QStringLiteral("messages")] = deviceSink_ ? deviceSink_->messages : QJsonArray();
    deviceSink_.reset();
    finish(deviceClient_, r);
    deviceClient_.clear();
}

void ControlServer::printerChecked(qint32 id)
{
    if (!checkPending_)
        return;
    Reply r = std::move(*checkPending_);
    checkPending_.reset();
    finishDeferred(r, id);
}

// ------------------------------------------------------------------ settings

namespace {

QJsonObject settingsJson(const Operator::ServerSettings& s)
{
    return QJsonObject{
        {QStringLiteral("port"), numberOrText(s.port)},
        {QStringLiteral("autoStartAtLogon"), s.autoStartAtLogon},
        {QStringLiteral("autoStartService"), s.autoStartService},
        {QStringLiteral("startMinimized"), s.startMinimized},
        {QStringLiteral("silent"), s.silentMode},
        {QStringLiteral("log"), s.useLog},
        {QStringLiteral("trafficLog"), s.useTrafficLog},
        {QStringLiteral("quitQuestion"), s.quitQuestion},
    };
}

} // namespace

ControlServer::Reply ControlServer::settings()
{
    Reply r;
    r.data[QStringLiteral("settings")] = settingsJson(commands_.serverSettings());
    // The settings dialog's captions, in its order.
    r.data[QStringLiteral("labels")] = QJsonObject{
        {QStringLiteral("port"), GetString(12111)},
        {QStringLiteral("autoStartAtLogon"), GetString(12106)},
        {QStringLiteral("autoStartService"), GetString(12107)},
        {QStringLiteral("startMinimized"), GetString(12108)},
        {QStringLiteral("silent"), GetString(12136)},
        {QStringLiteral("log"), GetString(12109)},
        {QStringLiteral("trafficLog"), GetString(12135)},
        {QStringLiteral("quitQuestion"), GetString(12110)},
    };
    return r;
}

ControlServer::Reply ControlServer::setSettings(const QJsonObject& args)
{
    Operator::ServerSettings s = commands_.serverSettings();
    if (args.contains(QStringLiteral("port")))
        s.port = args.value(QStringLiteral("port")).toString();
    const auto flag = [&](const char* key, bool& field) { takeFlag(args, key, field); };
    flag("autoStartService", s.autoStartService);
    flag("startMinimized", s.startMinimized);
    flag("silent", s.silentMode);
    flag("log", s.useLog);
    flag("trafficLog", s.useTrafficLog);
    flag("quitQuestion", s.quitQuestion);

    // A port the save would refuse changes nothing, not even the service: the
    // save says why before the dialog's stop question is reached.
    if (Operator::validPort(s.port)) {
        const Operator::Result opened = commands_.openSettings();
        if (opened != Outcome::Done)
            return outcomeReply(opened);
    }
    Operator::PortChange change = Operator::PortChange::Unchanged;
    const Operator::Result o = commands_.saveSettings(s, &change);
    Reply r = outcomeReply(o);
    if (o == Outcome::Invalid)
        r.data[QStringLiteral("field")] = enumKey(commands_.invalidField());
    r.data[QStringLiteral("portChange")] = enumKey(change);
    r.data[QStringLiteral("settings")] = settingsJson(commands_.serverSettings());
    r.data[QStringLiteral("serviceRunning")] = commands_.serviceRunning();
    return r;
}

// ------------------------------------------------------------------ queue tools

ControlServer::Reply ControlServer::preview(const QJsonObject& args)
{
    Operator::JobPreview p;
    Reply r = outcomeReply(commands_.previewJob(argId(args), &p));
    if (p.jobId == 0)
        return r;
    QJsonObject vars;
    for (const auto& [n, value] : p.variables)
        vars[QString::number(n)] = value;
    r.data[QStringLiteral("job")] = p.jobId;
    r.data[QStringLiteral("printerId")] = p.printerId;
    r.data[QStringLiteral("template")] = p.templateId;
    r.data[QStringLiteral("caption")] = p.caption;
    r.data[QStringLiteral("layoutFile")] = p.layoutFile;
    if (r.ok) {
        r.data[QStringLiteral("layout")] = p.layoutText;
        r.data[QStringLiteral("variables")] = vars;
    }
    return r;
}

ControlServer::Reply ControlServer::move(const QJsonObject& args)
{
    const qint32 to = args.value(QStringLiteral("to")).toInt(-1);
    int moved = 0;
    Operator::Result o;
    if (args.contains(QStringLiteral("from"))) {
        o = commands_.movePrinterJobs(args.value(QStringLiteral("from")).toInt(-1), to, &moved);
    } else {
        QList<qint32> ids;
        for (const QJsonValue& v : args.value(QStringLiteral("ids")).toArray())
            ids << v.toInt(-1);
        o = commands_.moveJobs(ids, to, &moved);
    }
    Reply r = outcomeReply(o);
    r.data[QStringLiteral("moved")] = moved;
    r.data[QStringLiteral("targetPrinter")] = to;
    return r;
}

ControlServer::Reply ControlServer::cancel(const QJsonObject& args)
{
    Reply r = outcomeReply(commands_.cancelJob(argId(args)));
    r.data[QStringLiteral("id")] = argId(args);
    return r;
}

ControlServer::Reply ControlServer::history(const QJsonObject& args)
{
    std::vector<HistoryEntry> entries;
    Reply r = outcomeReply(commands_.history(args.value(QStringLiteral("limit")).toInt(50), &entries));
    QJsonArray rows;
    for (const HistoryEntry& e : entries) {
        const JobFields f(e.text);
        rows.append(QJsonObject{
            {QStringLiteral("id"), e.id},
            {QStringLiteral("job"), e.jobId},
            {QStringLiteral("printerId"), e.printerId},
            {QStringLiteral("printer"), server_.printers().SrvPrinterExists(e.printerId)
                                            ? server_.printers().at(e.printerId).name.trimmed()
                                            : QString()},
            {QStringLiteral("finished"), e.finished.toString(Qt::ISODate)},
            {QStringLiteral("outcome"), e.outcome},
            {QStringLiteral("workstation"), f.workstation()},
            {QStringLiteral("caption"), f.caption()},
        });
    }
    r.data[QStringLiteral("history")] = rows;
    return r;
}

ControlServer::Reply ControlServer::reprint(const QJsonObject& args)
{
    qint32 job = 0;
    const qint32 printer = args.value(QStringLiteral("printer")).toInt(0);
    Reply r = outcomeReply(commands_.reprint(argId(args), printer, &job));
    if (job > 0)
        r.data[QStringLiteral("job")] = job;
    r.data[QStringLiteral("targetPrinter")] = printer;
    return r;
}

} // namespace quill
