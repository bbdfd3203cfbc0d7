#include "support/emulator.h"

#include "foundation/settings.h"

#include <QDeadlineTimer>
#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <QDir>
#include <QFile>
#include <QThread>

namespace quill::test {

namespace {
constexpr int StartTimeoutMs = 10000;
}

Emulator::Emulator() = default;

Emulator::~Emulator()
{
    stop();
}

QString Emulator::bin() const
{
    return QStringLiteral(QUILL_BIN_DIR) + QStringLiteral("/mp104c-emulator");
}

bool Emulator::startTcp(int baud)
{
    return start({QStringLiteral("--listen"), QStringLiteral("127.0.0.1:0"), QStringLiteral("--baud"),
                  QString::number(baud)});
}

bool Emulator::startPty(int baud)
{
    dir_ = std::make_unique<QTemporaryDir>();
    ptyPath_ = dir_->filePath(QStringLiteral("ttyMP0"));
    return start({QStringLiteral("--pty"), ptyPath_, QStringLiteral("--baud"), QString::number(baud)});
}

bool Emulator::startBoth(int baud)
{
    dir_ = std::make_unique<QTemporaryDir>();
    ptyPath_ = dir_->filePath(QStringLiteral("ttyMP0"));
    return start({QStringLiteral("--listen"), QStringLiteral("127.0.0.1:0"), QStringLiteral("--pty"), ptyPath_,
                  QStringLiteral("--baud"), QString::number(baud)});
}

bool Emulator::start(const QStringList& base)
{
    stop();
    QStringList args = base;
    args << QStringLiteral("--control") << QStringLiteral("127.0.0.1:0");
    if (!outDir_.isEmpty())
        args << QStringLiteral("--out") << outDir_;
    if (!name_.isEmpty())
        args << QStringLiteral("--name") << name_;
    args << extra_;
    process_ = std::make_unique<QProcess>();
    process_->setProcessChannelMode(QProcess::SeparateChannels);
    process_->start(bin(), args);
    if (!process_->waitForStarted(StartTimeoutMs)) {
        error_ = QStringLiteral("cannot start %1: %2").arg(bin(), process_->errorString());
        return false;
    }
    QDeadlineTimer deadline(StartTimeoutMs);
    bool ready = false;
    while (!ready && !deadline.hasExpired()) {
        if (!process_->canReadLine()) {
            if (process_->state() != QProcess::Running) {
                error_ = QStringLiteral("emulator ended: ") + QString::fromUtf8(process_->readAllStandardError());
                return false;
            }
            process_->waitForReadyRead(int(qMax<qint64>(1, deadline.remainingTime())));
            continue;
        }
        const QString line = QString::fromUtf8(process_->readLine()).trimmed();
        if (line.startsWith(QLatin1String("listening ")))
            port_ = quint16(line.mid(10).toUInt());
        else if (line.startsWith(QLatin1String("control ")))
            controlPort_ = quint16(line.mid(8).toUInt());
        else if (line == QLatin1String("ready"))
            ready = true;
    }
    if (!ready) {
        error_ = QStringLiteral("emulator not ready in time");
        return false;
    }
    control_.connectToHost(QStringLiteral("127.0.0.1"), controlPort_);
    if (!control_.waitForConnected(StartTimeoutMs)) {
        error_ = QStringLiteral("control port: ") + control_.errorString();
        return false;
    }
    return true;
}

void Emulator::stop()
{
    control_.abort();
    if (process_) {
        if (process_->state() != QProcess::NotRunning) {
            process_->terminate();
            if (!process_->waitForFinished(5000)) {
                process_->kill();
                process_->waitForFinished(5000);
            }
        }
        process_.reset();
    }
    port_ = controlPort_ = 0;
}

bool Emulator::running() const
{
    return process_ && process_->state() == QProcess::Running;
}

QString Emulator::netDevice() const
{
    return QStringLiteral("NETBOX:") + bareDevice();
}

QString Emulator::bareDevice() const
{
    return QStringLiteral("127.0.0.1#%1").arg(port_);
}

void Emulator::mapComPort(int n) const
{
    RegSetValue(HKEY_LOCAL_MACHINE, QStringLiteral("SOFTWARE\\Norvu\\Brixa\\Ports"), QStringLiteral("COM%1").arg(n),
                REG_SZ, ptyPath_);
}

QString Emulator::command(const QString& line, int timeoutMs)
{
    if (control_.state() != QAbstractSocket::ConnectedState)
        return {};
    control_.write(line.toUtf8() + '\n');
    QDeadlineTimer deadline(timeoutMs);
    while (!control_.canReadLine()) {
        if (deadline.hasExpired() || !control_.waitForReadyRead(int(qMax<qint64>(1, deadline.remainingTime()))))
            return {};
    }
    return QString::fromUtf8(control_.readLine()).trimmed();
}

QJsonObject Emulator::state()
{
    return QJsonDocument::fromJson(command(QStringLiteral("state")).toUtf8()).object();
}

QStringList Emulator::log()
{
    QStringList out;
    for (const QJsonValue& v : state().value(QStringLiteral("log")).toArray())
        out << v.toString();
    return out;
}

QStringList Emulator::settledLog(int timeoutMs)
{
    QDeadlineTimer deadline(timeoutMs);
    QStringList calls = log();
    while ((calls.isEmpty() || calls.last() != QLatin1String("close")) && !deadline.hasExpired()) {
        QThread::msleep(20);
        calls = log();
    }
    return calls;
}

QString Emulator::stderrText()
{
    return process_ ? QString::fromUtf8(process_->readAllStandardError()) : QString();
}

QStringList PrintedLabels(const QString& dir)
{
    QStringList out;
    for (const QString& f : QDir(dir).entryList({QStringLiteral("*.json")}, QDir::Files, QDir::Name)) {
        QFile file(QDir(dir).filePath(f));
        if (!file.open(QIODevice::ReadOnly))
            continue;
        const QJsonObject o = QJsonDocument::fromJson(file.readAll()).object();
        out << QStringLiteral("%1 %2/%3 t%4")
                   .arg(o[QLatin1String("variables")].toObject()[QLatin1String("12")].toString())
                   .arg(o[QLatin1String("copy")].toInt())
                   .arg(o[QLatin1String("copies")].toInt())
                   .arg(o[QLatin1String("template")].toString());
    }
    return out;
}

} // namespace quill::test
