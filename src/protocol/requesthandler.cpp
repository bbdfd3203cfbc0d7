#include "protocol/requesthandler.h"
#include "foundation/cp1252.h"
#include "foundation/error.h"
#include "foundation/eventlog.h"
#include "foundation/jobfields.h"
#include "foundation/paths.h"
#include "foundation/strutil.h"
#include "protocol/listener.h"
#include "protocol/senderfilter.h"
#include "protocol/traffic.h"
#include "database/slots.h"
#include "foundation/texts.h"

#include <QFileInfo>
#include <QTimer>

#include <algorithm>

namespace quill {

namespace {
const QString CR = QStringLiteral("\r");
const QString StartMarker = QStringLiteral("{STARTBRIXA");
const QString EndMarker = QStringLiteral("{ENDBRIXA}");
} // namespace

RequestHandler::RequestHandler(Listener& listener, TrafficIndicator& traffic, RequestServices services,
                               QObject* parent)
    : QObject(parent), listener_(listener), traffic_(traffic), svc_(std::move(services))
{
}

QString RequestHandler::reply(int code, const QString& statusText)
{
    const QString ok = QStringLiteral("BRIXA\tOK\t");
    if (code == 0)
        return ok; // the common answer, without looking up texts it does not use
    const QString err = QStringLiteral("BRIXA\tERR\t");
    const QString h = GetString(9003) + QStringLiteral(":") + CR;
    const QString t62 = GetString(12062, GetString(9001));
    auto t = [](int id) { return GetString(id); };
    switch (code) {
    case 9002: return err + h + t(12071) + CR + t(12072) + QStringLiteral("9002");
    case 1001: return err + h + t(12067) + CR + t(12068) + QStringLiteral("1001");
    case 1002: return err + h + t(12066) + CR + t62 + CR + CR + t(12063) + QStringLiteral("1002");
    case 1003: return err + h + t(12064) + CR + t(12065) + CR + CR + t(12063) + QStringLiteral("1003");
    case 1004: return err + h + t(12061) + CR + t62 + CR + CR + t(12063) + QStringLiteral("1004");
    case 1005: return err + h + t(12142) + CR + CR + t(12063) + QStringLiteral("1005");
    case 1102:
    case 1101:
        return ok + h + t(12059) + QLatin1Char(' ') + statusText.trimmed() + CR + CR + t(12060)
            + QString::number(code);
    case 2001: return err + h + t(12069) + CR + QStringLiteral("2001");
    case 9003: return err + h + t(12070) + CR + t62 + CR + CR + t(12063) + QStringLiteral("9003");
    default: return err;
    }
}

void RequestHandler::SrvHandleRequest(const QString& data, int connection)
{
    traffic_.indicate(TrafficIndicator::OtherTraffic);
    trafficLog_.log(data, listener_.serial(connection), connection);

    // Errors of the field readers (a separator beyond position 32767) end the
    // request here, as an unanswered one.
    try {
        QString text = data;
        if (addinScala_)
            text = addinFraming(data, connection);

        const JobFields request(text);
        if (request.field(1).toUpper() != QLatin1String("BRIXA"))
            return;
        QString answer;
        replyTicket_ = 0;
        if (request.field(2) != ProtocolVersion) {
            answer = reply(9002);
        } else {
            const QString op = request.operation();
            if (op == QLatin1String("P"))
                answer = printRequest(text);
            else if (op == QLatin1String("C"))
                answer = configureRequest(request);
            else
                answer = reply(9003);
        }
        sendReply(connection, answer, std::exchange(replyTicket_, 0));
    } catch (const std::exception& e) {
        LogWrite(QStringLiteral("SrvHandleRequest failed. Error: ") + errorText(e));
    }
}

void RequestHandler::sendReply(int connection, const QString& text, quint64 ticket)
{
    if (ticket <= committedThrough_)
        ticket = 0;
    if (pending_.empty() && ticket == 0) {
        listener_.send(connection, text);
        return;
    }
    // Behind a reply that waits for its commit: this one waits too, so none
    // overtakes an earlier reply of the same client. A client that leaves
    // meanwhile still gets its answer on the socket the listener holds open.
    if (pending_.empty())
        listener_.setHoldClosed(true);
    pending_.push_back({connection, listener_.serial(connection), ToCp1252(text), ticket});
}

std::optional<quint64> RequestHandler::storeJob(const PrintJob& job)
{
    return svc_.submitJob ? svc_.submitJob(job) : std::nullopt;
}

void RequestHandler::committed(quint64 through, const std::vector<quint64>& failed)
{
    committedThrough_ = std::max(committedThrough_, through);
    if (pending_.empty())
        return;
    QByteArray refused;
    while (!pending_.empty() && pending_.front().ticket <= committedThrough_) {
        const PendingReply r = std::move(pending_.front());
        pending_.pop_front();
        const bool lost = r.ticket != 0 && std::find(failed.begin(), failed.end(), r.ticket) != failed.end();
        if (lost && refused.isEmpty())
            refused = ToCp1252(reply(1005));
        listener_.sendTo(r.connection, r.serial, lost ? refused : r.bytes);
    }
    if (pending_.empty())
        listener_.setHoldClosed(false);
}

QString RequestHandler::printRequest(const QString& request)
{
    if (!svc_.serviceRunning())
        return reply(1001);
    // Read once: the job store, the queue and the driver take these values.
    const PrintJob job = PrintJob::fromText(request);
    if (!job.readable(PrintJob::CheckedFields))
        throw Error(ErrOverflow, QStringLiteral("Overflow"));
    const qint32 printerId = job.printerId;
    PrinterSlots& printers = *svc_.printers;
    if (!printers.SrvPrinterExists(printerId))
        return reply(1002);
    if (printers.SrvPrinterIsPassive(printerId))
        return reply(1003);
    if (!SrvTemplateOK(job.templateId, job.checkMode))
        return reply(1004);

    const std::optional<quint64> ticket = storeJob(job);
    if (!ticket)
        return reply(1005);
    replyTicket_ = *ticket;
    traffic_.indicate(TrafficIndicator::ReceivingJob);

    const PrinterSlot& s = printers.at(printerId);
    if (s.status == StatusError)
        return reply(1102, s.statusText);
    if ((s.status == StatusChecking || s.status == StatusConfiguring) && s.prevStatus == StatusError)
        return reply(1101, s.prevStatusText);
    return reply(0);
}

QString RequestHandler::configureRequest(const JobFields& request)
{
    // Fields 11 to 13 of a configure request: the sub-operation and, for 3,
    // the workstation and user filters.
    const qint32 sub = request.number(11, 0);
    switch (sub) {
    case 1:
        svc_.clearCurrentTemplate(request.templateId());
        return reply(0);
    case 2:
        return reply(0);
    case 3: {
        const QString w = request.field(12).trimmed().toUpper();
        const QString u = request.field(13).toUpper();
        if (w.isEmpty() || u.isEmpty())
            return reply(0);
        // Jobs stored before it are withdrawn too; it answers once its commit is over.
        const SenderFilter sender(w, u);
        svc_.deleteJobsWhere([&](const QueuedJob& job) { return sender.matches(job); });
        return reply(0);
    }
    default:
        return reply(2001);
    }
}

bool RequestHandler::SrvTemplateFileExists(qint32 templateId) const
{
    return QFileInfo::exists(HomePath(QString::number(templateId) + QStringLiteral(".lbl")));
}

bool RequestHandler::SrvTemplateOK(qint32 templateId, qint32 mode) const
{
    switch (mode) {
    case 1: return SrvTemplateFileExists(templateId);
    case 2: return svc_.templateInDB(templateId) && SrvTemplateFileExists(templateId);
    default: return svc_.templateInDB(templateId);
    }
}

QString RequestHandler::addinFraming(const QString& data, int connection)
{
    QString& b = listener_.buffer(connection);
    b += data;
    QString text = data;
    bool firstPass = true;
    qsizetype s = -1; // the first start marker in b when the loop ends
    for (;;) {
        s = b.indexOf(StartMarker);
        if (s < 0)
            break;
        if (firstPass)
            text.clear();
        firstPass = false;
        // The record needs its end marker after the start and one character
        // after the end marker (the sender's line end).
        const qsizetype e = b.indexOf(EndMarker, s);
        if (e < 0 || e + EndMarker.size() >= b.size())
            break;
        b.remove(0, s + 6); // up to "BRIXA"
        const qsizetype end = e - (s + 6);
        QString r = b.left(end + EndMarker.size() + 1);
        b.remove(0, r.size());
        r.chop(EndMarker.size() + 1);
        if (r.contains(QLatin1Char('}'))) {
            int converted = 0;
            for (qsizetype i = 0; i < r.size() && converted < 12; ++i) {
                if (r[i] == QLatin1Char(';')) {
                    r[i] = QLatin1Char('\t');
                    ++converted;
                }
            }
            r[r.indexOf(QLatin1Char('}'))] = QLatin1Char(' ');
        }
        r.remove(QLatin1Char('\n'));
        r.remove(QLatin1Char('\f'));
        r.replace(QLatin1Char('\r'), QLatin1Char('\t'));
        r += QStringLiteral("\t\r\n");
        // No reply in this form: a record that cannot be stored is only logged.
        if (storeJob(PrintJob::fromText(r)))
            traffic_.indicate(TrafficIndicator::ReceivingJob);
    }
    // Framing drops whatever comes before a start marker, so only a possible
    // marker's beginning needs keeping: standard requests on an add-in
    // connection do not pile up. What remains beyond the bound is a record
    // that never ends.
    b.remove(0, s >= 0 ? s : std::max<qsizetype>(0, b.size() - (StartMarker.size() - 1)));
    if (b.size() > Listener::MaxBuffer) {
        LogWrite(QStringLiteral("SrvHandleRequest: add-in buffer of connection %1 exceeded %2 bytes; "
                                "connection closed.")
                     .arg(connection)
                     .arg(Listener::MaxBuffer));
        listener_.drop(connection);
        return {};
    }
    return text;
}

} // namespace quill

