// mp104c-emulator: an MP104C label printer on the printer link, reachable as a
// network box (--listen) and/or as a serial printer on a pseudo-terminal
// (--pty), with a line-command control port (--control) for tests.
// Startup lines on stdout: "listening <port>", "pty <path>", "control <port>",
// then "ready".
#include "printer.h"

#include <QCommandLineParser>
#include <QGuiApplication>
#include <QHostAddress>
#include <QJsonDocument>
#include <QPointer>
#include <QSocketNotifier>
#include <QTcpServer>
#include <QTcpSocket>
#include <QTimer>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <memory>
#include <fcntl.h>
#include <termios.h>
#include <unistd.h>

using namespace quill;

namespace {

void out(const QString& line)
{
    std::fprintf(stdout, "%s\n", line.toUtf8().constData());
    std::fflush(stdout);
}

bool splitHostPort(const QString& text, QHostAddress* host, quint16* port)
{
    const qsizetype colon = text.lastIndexOf(QLatin1Char(':'));
    if (colon < 0)
        return false;
    QString h = text.left(colon);
    if (h.startsWith(QLatin1Char('[')) && h.endsWith(QLatin1Char(']')))
        h = h.mid(1, h.size() - 2);
    bool ok = false;
    const int p = text.mid(colon + 1).toInt(&ok);
    if (!ok || p < 0 || p > 65535)
        return false;
    if (h.isEmpty() || h == QLatin1String("*"))
        *host = QHostAddress::Any;
    else if (h == QLatin1String("localhost"))
        *host = QHostAddress::LocalHost;
    else if (!host->setAddress(h))
        return false;
    *port = quint16(p);
    return true;
}

speed_t speedConstant(int baud)
{
    switch (baud) {
    case 1200: return B1200;
    case 2400: return B2400;
    case 4800: return B4800;
    case 9600: return B9600;
    case 19200: return B19200;
    case 38400: return B38400;
    case 57600: return B57600;
    case 115200: return B115200;
    default: return B0;
    }
}

// Takes the printer off the line (an armed Unplug fault).
std::function<void()> unplugAll;

// Runs the decoded requests of one connection through the printer and sends
// the answers (after the configured delay) with `send`.
template <typename Send>
void serve(EmulatedPrinter& printer, LinkDecoder& decoder, EmulatedPrinter::Session& session,
           QObject* context, Send send)
{
    LinkFrame request;
    while (!printer.unplugged && decoder.next(&request)) {
        if (request.kind != LinkFrame::Request)
            continue;
        const EmulatedPrinter::Fault fault = printer.fire(request);
        if (fault == EmulatedPrinter::Fault::Unplug) {
            printer.logOnly(request);
            printer.unplugged = true;
            // Not from inside the connection's own handler.
            QTimer::singleShot(0, qApp, [] { unplugAll(); });
            return;
        }
        if (fault == EmulatedPrinter::Fault::Silent)
            printer.silent = true;
        if (printer.silent) {
            printer.logOnly(request);
            continue;
        }
        LinkFrame answer;
        if (!printer.handle(request, session, &answer))
            continue;
        const QByteArray bytes = EncodeFrame(answer);
        if (printer.delayMs > 0)
            QTimer::singleShot(printer.delayMs, context, [send, bytes] { send(bytes); });
        else
            send(bytes);
    }
}

class NetworkBox : public QObject {
public:
    NetworkBox(EmulatedPrinter& printer) : printer_(printer)
    {
        connect(&server_, &QTcpServer::newConnection, this, &NetworkBox::accept);
    }
    bool listen(const QHostAddress& host, quint16 port) { return server_.listen(host, port); }
    quint16 port() const { return server_.serverPort(); }
    void unplug()
    {
        server_.close();
        for (QTcpSocket* s : server_.findChildren<QTcpSocket*>())
            s->abort();
    }

private:
    struct Connection {
        LinkDecoder decoder;
        EmulatedPrinter::Session session;
    };
    void accept()
    {
        while (QTcpSocket* s = server_.nextPendingConnection()) {
            s->setSocketOption(QAbstractSocket::LowDelayOption, 1);
            auto conn = std::make_shared<Connection>();
            connect(s, &QTcpSocket::readyRead, s, [this, s, conn] {
                conn->decoder.feed(s->readAll());
                QPointer<QTcpSocket> guard(s);
                serve(printer_, conn->decoder, conn->session, s, [guard](const QByteArray& b) {
                    if (guard && guard->state() == QAbstractSocket::ConnectedState)
                        guard->write(b);
                });
            });
            connect(s, &QTcpSocket::disconnected, s, &QObject::deleteLater);
        }
    }
    EmulatedPrinter& printer_;
    QTcpServer server_;
};

class PtyPort : public QObject {
public:
    PtyPort(EmulatedPrinter& printer) : printer_(printer) {}
    ~PtyPort() override
    {
        if (!link_.isEmpty())
            ::unlink(link_.toLocal8Bit().constData());
    }

    bool open(const QString& linkPath, QString* error)
    {
        master_ = ::posix_openpt(O_RDWR | O_NOCTTY);
        if (master_ < 0 || ::grantpt(master_) != 0 || ::unlockpt(master_) != 0) {
            *error = QString::fromLocal8Bit(std::strerror(errno));
            return false;
        }
        const char* slaveName = ::ptsname(master_);
        // Holding the slave open keeps the master readable between peers and
        // gives the line a defined raw state at the printer's speed.
        slave_ = ::open(slaveName, O_RDWR | O_NOCTTY);
        if (slave_ < 0) {
            *error = QString::fromLocal8Bit(std::strerror(errno));
            return false;
        }
        termios t{};
        ::tcgetattr(slave_, &t);
        ::cfmakeraw(&t);
        ::cfsetispeed(&t, speedConstant(printer_.baud()));
        ::cfsetospeed(&t, speedConstant(printer_.baud()));
        ::tcsetattr(slave_, TCSANOW, &t);
        ::fcntl(master_, F_SETFL, ::fcntl(master_, F_GETFL) | O_NONBLOCK);
        const QByteArray path = linkPath.toLocal8Bit();
        ::unlink(path.constData());
        if (::symlink(slaveName, path.constData()) != 0) {
            *error = QString::fromLocal8Bit(std::strerror(errno));
            return false;
        }
        link_ = linkPath;
        notifier_ = new QSocketNotifier(master_, QSocketNotifier::Read, this);
        connect(notifier_, &QSocketNotifier::activated, this, &PtyPort::readMaster);
        return true;
    }

    void unplug()
    {
        delete notifier_;
        notifier_ = nullptr;
        for (int* fd : {&master_, &slave_}) {
            if (*fd >= 0)
                ::close(*fd);
            *fd = -1;
        }
    }

private:
    void readMaster()
    {
        char buf[4096];
        for (;;) {
            const ssize_t n = ::read(master_, buf, sizeof buf);
            if (n <= 0)
                break;
            // The master sees the slave's termios: bytes sent at another
            // speed than the printer's are noise on a real line.
            termios t{};
            if (::tcgetattr(master_, &t) != 0 || ::cfgetospeed(&t) != speedConstant(printer_.baud())) {
                decoder_.reset();
                continue;
            }
            decoder_.feed(QByteArray(buf, int(n)));
        }
        const int fd = master_;
        serve(printer_, decoder_, session_, this, [fd](const QByteArray& b) {
            qsizetype done = 0;
            while (done < b.size()) {
                const ssize_t w = ::write(fd, b.constData() + done, size_t(b.size() - done));
                if (w > 0)
                    done += w;
                else if (w < 0 && errno == EINTR)
                    continue;
                else
                    break; // nobody reads: the line drops it
            }
        });
    }

    EmulatedPrinter& printer_;
    int master_ = -1;
    int slave_ = -1;
    QString link_;
    QSocketNotifier* notifier_ = nullptr;
    LinkDecoder decoder_;
    EmulatedPrinter::Session session_;
};

class ControlPort : public QObject {
public:
    ControlPort(EmulatedPrinter& printer) : printer_(printer)
    {
        connect(&server_, &QTcpServer::newConnection, this, &ControlPort::accept);
    }
    bool listen(const QHostAddress& host, quint16 port) { return server_.listen(host, port); }
    quint16 port() const { return server_.serverPort(); }

private:
    void accept()
    {
        while (QTcpSocket* s = server_.nextPendingConnection()) {
            connect(s, &QTcpSocket::readyRead, s, [this, s] {
                while (s->canReadLine())
                    s->write(command(QString::fromUtf8(s->readLine()).trimmed()).toUtf8() + '\n');
                if (s->bytesAvailable() > 4096)
                    s->readAll(); // not a command line
            });
            connect(s, &QTcpSocket::disconnected, s, &QObject::deleteLater);
        }
    }

    QString command(const QString& line)
    {
        const QStringList w = line.split(QLatin1Char(' '), Qt::SkipEmptyParts);
        const QString cmd = w.value(0).toLower();
        const QString arg = w.value(1).toLower();
        auto onOff = [&](bool* flag, const char* on, const char* off) {
            if (arg == QLatin1String(on))
                *flag = true;
            else if (arg == QLatin1String(off))
                *flag = false;
            else
                return QStringLiteral("error expected %1 or %2").arg(QLatin1String(on), QLatin1String(off));
            return QStringLiteral("ok");
        };
        if (cmd == QLatin1String("paper"))
            return onOff(&printer_.paperOut, "out", "in");
        if (cmd == QLatin1String("ribbon"))
            return onOff(&printer_.ribbonOut, "out", "in");
        if (cmd == QLatin1String("head"))
            return onOff(&printer_.headUp, "up", "down");
        if (cmd == QLatin1String("silent"))
            return onOff(&printer_.silent, "on", "off");
        if (cmd == QLatin1String("delay")) {
            bool ok = false;
            const int ms = arg.toInt(&ok);
            if (!ok || ms < 0 || ms > 600000)
                return QStringLiteral("error expected milliseconds");
            printer_.delayMs = ms;
            return QStringLiteral("ok");
        }
        if (cmd == QLatin1String("state"))
            return QString::fromUtf8(QJsonDocument(printer_.state()).toJson(QJsonDocument::Compact));
        if (cmd == QLatin1String("clear-log")) {
            printer_.clearLog();
            return QStringLiteral("ok");
        }
        if (cmd == QLatin1String("on")) {
            const QString action = w.size() >= 3 ? w.last().toLower() : QString();
            const QString call = w.mid(1, w.size() - 2).join(QLatin1Char(' ')).toLower();
            if (action == QLatin1String("silent"))
                printer_.arm(call, EmulatedPrinter::Fault::Silent);
            else if (action == QLatin1String("unplug"))
                printer_.arm(call, EmulatedPrinter::Fault::Unplug);
            else
                return QStringLiteral("error expected on CALL silent|unplug");
            return QStringLiteral("ok");
        }
        return QStringLiteral("error unknown command");
    }

    EmulatedPrinter& printer_;
    QTcpServer server_;
};

} // namespace

int main(int argc, char** argv)
{
    // Labels are rendered with fonts, without any display.
    qputenv("QT_QPA_PLATFORM", "offscreen");
    QGuiApplication app(argc, argv);
    QCommandLineParser cli;
    cli.setApplicationDescription(QStringLiteral("MP104C printer emulator"));
    cli.addHelpOption();
    const QCommandLineOption listenOpt(QStringLiteral("listen"), QStringLiteral("Serve as a network box."),
                                       QStringLiteral("HOST:PORT"));
    const QCommandLineOption ptyOpt(QStringLiteral("pty"), QStringLiteral("Serve on a pty linked at PATH."),
                                    QStringLiteral("PATH"));
    const QCommandLineOption baudOpt(QStringLiteral("baud"), QStringLiteral("Current line speed."),
                                     QStringLiteral("RATE"), QStringLiteral("9600"));
    const QCommandLineOption outOpt(QStringLiteral("out"), QStringLiteral("Write printed labels here."),
                                    QStringLiteral("DIR"));
    const QCommandLineOption controlOpt(QStringLiteral("control"), QStringLiteral("Control port."),
                                        QStringLiteral("HOST:PORT"));
    const QCommandLineOption nameOpt(QStringLiteral("name"), QStringLiteral("Printer name."),
                                     QStringLiteral("NAME"), QStringLiteral("MP104C"));
    cli.addOptions({listenOpt, ptyOpt, baudOpt, outOpt, controlOpt, nameOpt});
    cli.process(app);

    const int baud = cli.value(baudOpt).toInt();
    if (!IsKnownBaud(baud)) {
        std::fprintf(stderr, "unsupported --baud\n");
        return 2;
    }
    if (!cli.isSet(listenOpt) && !cli.isSet(ptyOpt)) {
        std::fprintf(stderr, "give --listen and/or --pty\n");
        return 2;
    }
    EmulatedPrinter printer(cli.value(nameOpt), baud, cli.value(outOpt));

    NetworkBox box(printer);
    if (cli.isSet(listenOpt)) {
        QHostAddress host;
        quint16 port = 0;
        if (!splitHostPort(cli.value(listenOpt), &host, &port) || !box.listen(host, port)) {
            std::fprintf(stderr, "cannot listen on %s\n", qPrintable(cli.value(listenOpt)));
            return 1;
        }
        out(QStringLiteral("listening %1").arg(box.port()));
    }
    PtyPort pty(printer);
    if (cli.isSet(ptyOpt)) {
        QString error;
        if (!pty.open(cli.value(ptyOpt), &error)) {
            std::fprintf(stderr, "cannot create pty: %s\n", qPrintable(error));
            return 1;
        }
        out(QStringLiteral("pty %1").arg(cli.value(ptyOpt)));
    }
    unplugAll = [&box, &pty] {
        box.unplug();
        pty.unplug();
    };
    ControlPort control(printer);
    if (cli.isSet(controlOpt)) {
        QHostAddress host;
        quint16 port = 0;
        if (!splitHostPort(cli.value(controlOpt), &host, &port) || !control.listen(host, port)) {
            std::fprintf(stderr, "cannot listen on %s\n", qPrintable(cli.value(controlOpt)));
            return 1;
        }
        out(QStringLiteral("control %1").arg(control.port()));
    }
    out(QStringLiteral("ready"));
    return app.exec();
}
