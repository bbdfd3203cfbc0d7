#pragma once
#include "protocol/clientfilter.h"

#include <QByteArray>
#include <QObject>
#include <QPointer>
#include <QSocketNotifier>
#include <QTcpServer>
#include <QTcpSocket>
#include <QTimer>
#include <array>
#include <functional>
#include <memory>
#include <unordered_map>

namespace quill {

// The listening socket and the table of client connections 1..32 (entry 0 is
// the listener's). Each readyRead's data is handed on whole as one arrival.
class Listener : public QObject {
    Q_OBJECT
public:
    static constexpr int MaxConnections = 32;
    // Add-in receive buffers beyond this are dropped with their connection.
    static constexpr qsizetype MaxBuffer = 1 << 20;

    explicit Listener(QObject* parent = nullptr);
    ~Listener() override;

    // (Re)opens the listener on the port; false (and a log line) on failure.
    bool MainInitTCP(qint32 port);
    // Per-machine tBindAddress: the address the next MainInitTCP binds; empty
    // means every address. False when it is no address: MainInitTCP then fails.
    bool setBindAddress(const QString& address);
    // Per-machine tAllowedClients; a client from elsewhere is closed at once
    // and takes no entry. Returns the entries that are no address or network.
    QStringList setAllowedClients(const QString& list);
    bool clientsRestricted() const { return filter_.restricted(); }
    void close();
    // Why the last MainInitTCP failed ("" after a success).
    QString errorText() const { return error_; }
    bool isListening() const { return server_.isListening(); }
    QHostAddress localAddress() const { return server_.serverAddress(); }
    // The address other programs can reach the listener at: the bound one, or,
    // listening on every interface, the machine's first IPv4 address that is not
    // loopback (loopback when it has none).
    QHostAddress reachableAddress() const;
    quint16 localPort() const { return server_.serverPort(); }

    // Lowest free entry 1..32, or -1.
    int FindFreeConnection() const;
    // Marks all entries free with empty buffers.
    void resetConnections();
    int connectionCount() const;

    // Sends the reply text (Windows-1252) on entry i; errors are ignored.
    void send(int i, const QString& text);
    void send(int i, const QByteArray& bytes);
    // Sends to the client with that serial: on entry i while it still holds
    // that client, else on its connection kept open for a late reply (below).
    void sendTo(int i, quint64 serial, const QByteArray& bytes);
    // While set, a client that closes (or only stops sending) keeps its
    // connection open, though not its entry, for the replies still to come;
    // clearing it closes those connections.
    void setHoldClosed(bool hold);
    // Closes entry i from the server side (the add-in overflow guard).
    void drop(int i);

    QString& buffer(int i) { return entries_[i].buffer; }
    // Which connection holds entry i (0: none); an entry freed and taken again
    // gets a new number, so a late reply cannot reach the next client.
    quint64 serial(int i) const { return i >= 1 && i <= MaxConnections ? entries_[i].serial : 0; }

    // Called for each arrival with its decoded text and entry index.
    std::function<void(const QString&, int)> onData;

signals:
    void connectionsChanged(int count);

private:
    struct Entry {
        qint16 state = -1; // -1 free, 0 connected
        QString buffer;
        QPointer<QTcpSocket> socket;
        quint64 serial = 0;
        // Our own descriptor of the connection: Qt closes its one as soon as
        // the client stops sending, and a reply may still be owed.
        int fd = -1;
    };
    void onNewConnection();
    void onClosed(int i);
    // Frees the entries of clients that closed but whose close has not been
    // handled yet (it may still be queued behind the new connection).
    void reapClosed();

    // Out of descriptors Qt stops accepting; this takes it up again.
    QTimer resumeAccepting_;
    std::unique_ptr<QSocketNotifier> acceptNotifier_;
    bool holdClosed_ = false;
    std::unordered_map<quint64, int> lingering_; // serial -> fd
    QTcpServer server_;
    QHostAddress bindAddress_{QHostAddress::Any};
    ClientFilter filter_;
    QString error_;
    std::array<Entry, MaxConnections + 1> entries_;
    quint64 accepted_ = 0;
};

} // namespace quill
