#pragma once
#include "database/jobstore.h"

#include "foundation/printjob.h"
#include "protocol/traffic.h"

#include <QObject>
#include <QTimer>
#include <QString>
#include <QStringList>
#include <functional>

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
    // False when the job was not stored (nothing of it is in tbJob or the list).
    std::function<bool(const PrintJob& job)> addJob;
    // Configure 1: every printer whose CurrentTemplateId equals the id gets 0.
    std::function<void(qint32 templateId)> clearCurrentTemplate;
    // Configure 3: deletes the jobs whose list row matches, from table and list.
    std::function<int(const JobMatch& match)> deleteJobsWhere;
    // Grouped commits: replies to stored jobs wait until the batch is durable.
    // commitBatch is false when the batch's stored jobs were not committed.
    std::function<bool()> beginBatch;
    std::function<bool()> commitBatch;
};

// Interprets each arrival on a client connection and sends its one reply (or
// none). Print replies wait for the commit of their job: arrivals handled in
// the same turn of the event loop share one commit.
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

    // Commits the open batch and sends the replies that waited for it.
    void flush();

    // The reply texts, by code (exposed for the tests of the exact bytes).
    static QString reply(int code, const QString& statusText = {});

private:
    QString addinFraming(const QString& data, int connection);
    QString printRequest(const QString& request);
    QString configureRequest(const JobFields& request);
    void sendReply(int connection, const QString& text, bool awaitsCommit);
    void openBatch();
    bool storeJob(const PrintJob& job);

    Listener& listener_;
    TrafficIndicator& traffic_;
    TrafficLog trafficLog_;
    RequestServices svc_;
    bool addinScala_ = false;
    bool batchOpen_ = false;
    // The reply being made is for a job stored in the open batch.
    bool replyAwaitsCommit_ = false;
    // Ends the turn's batch. A zero timer rather than a posted call: the loop
    // sees it without being woken through its event descriptor.
    QTimer flushTimer_;
    struct PendingReply {
        int connection;
        quint64 serial; // of the client that asked
        QByteArray bytes;
        bool awaitsCommit; // becomes the 1005 refusal when the commit fails
    };
    QList<PendingReply> pending_;
};

} // namespace quill
