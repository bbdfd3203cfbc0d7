#include "support/emulator.h"

#include "foundation/settings.h"

#include <QDeadlineTimer>
#include <QDir>
#include <QFile>
#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>

namespace quill::test {

namespace {
constexpr int StartTimeoutMs = 10000;
}

QStringList Emulator::ptyArgs()
{
    dir_ = std::make_unique<QTemporaryDir>();
    ptyPath_ = dir_->filePath(QStringLiteral("ttyMP0"));
    return {QStringLiteral("--pty"), ptyPath_};
}

bool Emulator::fail(const QString& error)
{
    error_ = error;
    return false;
}

bool Emulator::start(QStringList args, int baud)
{
    stop();
    args << QStringLiteral("--baud") << QString::number(baud) << QStringLiteral("--control")
         << QStringLiteral("127.0.0.1:0");
    if (!outDir_.isEmpty())
        args << QStringLiteral("--out") << outDir_;
    const QString bin = QStringLiteral(QUILL_BIN_DIR "/mp104c-emulator");
    process_ = std::make_unique<QProcess>();
    process_->start(bin, args);
    if (!process_->waitForStarted(StartTimeoutMs))
        return fail(QStringLiteral("cannot start %1: %2").arg(bin, process_->errorString()));
    // It prints "listening <port>" (with --listen), "control <port>", then "ready".
    QDeadlineTimer deadline(StartTimeoutMs);
    for (QString line; line != QLatin1String("ready");) {
        if (!process_->canReadLine()) {
            if (process_->state() != QProcess::Running)
                return fail(QStringLiteral("emulator ended: ") + QString::fromUtf8(process_->readAllStandardError()));
            if (deadline.hasExpired())
                return fail(QStringLiteral("emulator not ready in time"));
            process_->waitForReadyRead(int(qMax<qint64>(1, deadline.remainingTime())));
            continue;
        }
        line = QString::fromUtf8(process_->readLine()).trimmed();
        if (line.startsWith(QLatin1String("listening ")))
            port_ = quint16(line.mid(10).toUInt());
        else if (line.startsWith(QLatin1String("control ")))
            control_.connectToHost(QStringLiteral("127.0.0.1"), quint16(line.mid(8).toUInt()));
    }
    return control_.waitForConnected(StartTimeoutMs) || fail(QStringLiteral("control port: ") + control_.errorString());
}

void Emulator::stop()
{
    control_.abort();
    if (process_ && process_->state() != QProcess::NotRunning) {
        process_->terminate();
        if (!process_->waitForFinished(5000)) {
            process_->kill();
            process_->waitForFinished(5000);
        }
    }
    process_.reset();
    port_ = 0;
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

QStringList Emulator::log()
{
    QStringList out;
    const QJsonObject state = QJsonDocument::fromJson(command(QStringLiteral("state")).toUtf8()).object();
    for (const QJsonValue& v : state.value(QStringLiteral("log")).toArray())
        out << v.toString();
    return out;
}

QStringList PrintedLabels(const QString& dir)
{
    QStringList out;
    for (const QString& f : QDir(dir).entryList({QStringLiteral("*.json")}, QDir::Files, QDir::Name)) {
        QFile file(QDir(dir).filePath(f));
        if (!file.open(QIODevice::ReadOnly))
            continue;
        const QJsonObject o = QJsonDocument::fromJson(file.readAll()).object();
        const QJsonObject vars = o[QLatin1String("variables")].toObject();
        QStringList tags;
        for (int n = 14; n <= 17; ++n)
            if (const QString v = vars[QString::number(n)].toString(); !v.isEmpty())
                tags << v;
        out << QStringLiteral("%1 %2/%3 t%4")
                       .arg(vars[QLatin1String("12")].toString())
                       .arg(o[QLatin1String("copy")].toInt())
                       .arg(o[QLatin1String("copies")].toInt())
                       .arg(o[QLatin1String("template")].toString())
                + (tags.isEmpty() ? QString() : QStringLiteral(" [") + tags.join(QLatin1Char('/')) + QLatin1Char(']'));
    }
    return out;
}

} // namespace quill::test
