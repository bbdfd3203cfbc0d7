#pragma once
#include "database/jobstore.h"

#include "foundation/printjob.h"
#include "protocol/traffic.h"

#include <QObject>
#include <QTimer>
#include <QString>
#include <QStringList>
#include <deque>
#include <functional>
#include <optional>
#include <vector>

namespace quill {

class JobFields;
class Listener;
class PrinterSlots;
class TrafficIndicator;

// What the request handler needs from the rest of the server. The server wires
// these to the job store, the printer table and the print service.
struct RequestServices {
    std::function<bool()> serviceRunning;
    PrinterSlots* printers = nullptr;
    std::function<bool(qint32 templateId)> templateInDB;
    // Hands a job to storage; its ticket, or none when it was refused at once.
    // The handler's committed() is told when tickets are written.
    std::function<std::optional<quint64>(const PrintJob& job)> submitJob;
    // Configure 1: every printer whose CurrentTemplateId equals the id gets 0.
    std::function<void(qint32 templateId)> clearCurrentTemplate;
    // Configure 3: deletes the jobs whose list row matches, from table and list.
    std::function<int(const JobMatch& match)> deleteJobsWhere;
};

// Interprets each arrival on a client connection and sends its one reply (or
// none). A print reply waits for the commit of its job, and every reply made
// after it waits behind it, so no reply overtakes an earlier one.
class RequestHandler : public QObject {
    Q_OBJECT
public:
    static inline const QString ProtocolVersion = QStringLiteral("1.00");

    RequestHandler(Listener& listener, TrafficIndicator& traffic, RequestServices services,
                   QObject* parent = nullptr);

    void setAddinScala(bool on) { addinScala_ = on; }
    bool addinScala() const { return addinScala_; }

    void SrvHandleRequest(const QString& data, int connection);

    bool SrvTemplateOK(qint32 templateId, qint32 mode) const;
    bool SrvTemplateFileExists(qint32 templateId) const;

    // Writes through `through` are over; `failed` were not stored. Sends the
    // replies that waited for them.
    void committed(quint64 through, const std::vector<quint64>& failed);
    // Replies still waiting for a commit.
    int waitingReplies() const { return int(pending_.size()); }

    // The reply texts, by code (exposed for the tests of the exact bytes).
    static QString reply(int code, const QString& statusText = {});

private:
    QString addinFraming(const QString& data, int connection);
    QString printRequest(const QString& request);
    QString configureRequest(const JobFields& request);
    void sendReply(int connection, const QString& text, quint64 ticket);
    std::optional<quint64> storeJob(const PrintJob& job);

    Listener& listener_;
    TrafficIndicator& traffic_;
    TrafficLog trafficLog_;
    RequestServices svc_;
    bool addinScala_ = false;
    // The ticket of the job the reply being made waits for; 0 when none.
    quint64 replyTicket_ = 0;
    quint64 committedThrough_ = 0;
    struct PendingReply {
        int connection;
        quint64 serial; // of the client that asked
        QByteArray bytes;
        quint64 ticket; // the write it waits for (becomes 1005 when it fails); 0: none
    };
    std::deque<PendingReply> pending_;
};

} // namespace quill
