#include "support/emulator.h"

#include "foundation/settings.h"

#include <QDeadlineTimer>
#include <QDir>
#include <QFile>
#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <QRegularExpression>

namespace quill::test {

namespace {
// Every wait: the start, the control port, one control command's answer.
constexpr int StartTimeoutMs = 10000;
}

bool Emulator::fail(const QString& error)
{
    error_ = error;
    return false;
}

bool Emulator::start(bool tcp, bool pty, int baud)
{
    stop();
    QStringList args{QStringLiteral("--baud"), QString::number(baud), QStringLiteral("--control"),
                     QStringLiteral("127.0.0.1:0")};
    if (tcp)
        args << QStringLiteral("--listen") << QStringLiteral("127.0.0.1:0");
    if (pty) {
        dir_ = std::make_unique<QTemporaryDir>();
        ptyPath_ = dir_->filePath(QStringLiteral("ttyMP0"));
        args << QStringLiteral("--pty") << ptyPath_;
    }
    if (!outDir_.isEmpty())
        args << QStringLiteral("--out") << outDir_;
    process_ = std::make_unique<QProcess>();
    process_->start(QStringLiteral(QUILL_BIN_DIR "/mp104c-emulator"), args);
    // It prints "listening <port>" (with --listen), "control <port>", then "ready".
    QByteArray out;
    QDeadlineTimer deadline(StartTimeoutMs);
    while (!out.contains("ready\n")) {
        if (!process_->waitForReadyRead(int(qMax<qint64>(1, deadline.remainingTime()))))
            return fail(QStringLiteral("emulator not ready: %1 %2")
                            .arg(process_->errorString(), QString::fromUtf8(process_->readAllStandardError())));
        out += process_->readAllStandardOutput();
    }
    const QString text = QString::fromUtf8(out);
    static const QRegularExpression listening(QStringLiteral("listening (\\d+)"));
    static const QRegularExpression control(QStringLiteral("control (\\d+)"));
    port_ = quint16(listening.match(text).captured(1).toUInt());
    control_.connectToHost(QStringLiteral("127.0.0.1"), quint16(control.match(text).captured(1).toUInt()));
    return control_.waitForConnected(StartTimeoutMs) || fail(QStringLiteral("control port: ") + control_.errorString());
}

void Emulator::stop()
{
    control_.abort();
    if (process_ && process_->state() != QProcess::NotRunning) {
        process_->terminate();
        if (!process_->waitForFinished(5000))
            process_->kill(); // and the QProcess's destructor waits for it
    }
    process_.reset();
    port_ = 0;
}

void Emulator::mapComPort(int n) const
{
    RegSetValue(HKEY_LOCAL_MACHINE, QStringLiteral("SOFTWARE\\Norvu\\Brixa\\Ports"), QStringLiteral("COM%1").arg(n),
                REG_SZ, ptyPath_);
}

QString Emulator::command(const QString& line)
{
    if (control_.state() != QAbstractSocket::ConnectedState)
        return {};
    control_.write(line.toUtf8() + '\n');
    QDeadlineTimer deadline(StartTimeoutMs);
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
