#pragma once
// The control socket: quillbase.sock in the installation folder, through which
// quillbase-ctl runs the operator's commands on a running server. Only the
// server's own user and group may connect (mode 0770).
//
// Framing: the client writes one JSON object on one line
//   {"command": "printer-edit", "args": {"id": 2, "darkness": "7"}}
// and gets one JSON object on one line back
//   {"ok": true, "outcome": "Done", "messages": [{"icon": "information", "text": "..."}], ...}
// A refusal carries "reason" (a key the client words), the boxes the command
// raised carry the server's own texts. Every command runs through Operator, the
// window's code path; its questions are answered Yes/OK (the operator typed the
// command) and its boxes become messages.
#include <QJsonObject>
#include <QList>
#include <QObject>
#include <QPointer>
#include <QString>

#include <memory>

class QLocalSocket;
class QSocketNotifier;

namespace quill {

class CommandSink;
class Operator;
class Server;

class ControlServer : public QObject {
    Q_OBJECT
public:
    ControlServer(Server& server, Operator& commands, QObject* parent = nullptr);
    ~ControlServer() override;

    // HomePath("quillbase.sock").
    static QString socketPath();
    // Replaces a stale socket and listens; false (and a log line) on failure.
    bool open();
    // Stops listening and removes the socket file.
    void close();
    bool isOpen() const;

    // What one command answers (see control.cpp).
    struct Reply;

private:
    void onNewConnection();
    void onReadyRead(QLocalSocket* client);
    void runNext();
    void finish(QLocalSocket* client, Reply reply);
    // Runs one request; false when it goes on asynchronously (a device operation).
    bool run(QLocalSocket* client, const QJsonObject& request, Reply& reply);

    Reply status();
    Reply jobs(const QJsonObject& args);
    Reply deleteJobs(const QJsonObject& args);
    Reply service(bool start);
    Reply refresh(bool full);
    Reply savePrinter(const QJsonObject& args, bool isNew);
    Reply removePrinter(const QJsonObject& args);
    bool startDeviceOperation(QLocalSocket* client, const QString& command, const QJsonObject& args, Reply& reply);
    void deviceOperationFinished(int outcome);
    Reply settings();
    Reply setSettings(const QJsonObject& args);
    Reply preview(const QJsonObject& args);
    Reply move(const QJsonObject& args);
    Reply cancel(const QJsonObject& args);
    Reply history(const QJsonObject& args);
    Reply reprint(const QJsonObject& args);

    QJsonObject printerJson(qint32 id) const;

    Server& server_;
    Operator& commands_;
    // The listening socket, our own rather than a QLocalServer: out of
    // descriptors, that one closes for good, while this one takes the reserve.
    int listenFd_ = -1;
    std::unique_ptr<QSocketNotifier> notifier_;
    // Requests wait here while another one runs: a command may yield to the
    // event loop (the after-save check), and must not be entered twice.
    QList<QPointer<QLocalSocket>> waiting_;
    bool running_ = false;
    // The client of the device operation under way, with the sink its boxes go to.
    QPointer<QLocalSocket> deviceClient_;
    std::unique_ptr<CommandSink> deviceSink_;
    bool deviceOperationPending_ = false;
    // A saved printer's reply, waiting for its after-save check.
    std::unique_ptr<Reply> checkPending_;
    void printerChecked(qint32 id);
    // The answer that waited for device work, with the printer and the boxes it raised.
    void finishDeferred(Reply& r, qint32 id);
};

} // namespace quill
