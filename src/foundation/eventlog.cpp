#include "foundation/eventlog.h"
#include "foundation/paths.h"

#include <QDateTime>
#include <QDir>
#include <QFile>

#include <atomic>
#include <mutex>

#include <unistd.h>

namespace quill {

namespace {
struct LogState {
    QString fileName;
    std::atomic<bool> useLog{false};
    std::atomic<bool> useTraffic{false};
    std::atomic<bool> toStderr{false};
    QDate fixedToday;
};
LogState& state()
{
    static LogState s;
    return s;
}
// Device operations log from their worker thread.
std::mutex& stateMutex()
{
    static std::mutex m;
    return m;
}
QDate today()
{
    return state().fixedToday.isValid() ? state().fixedToday : QDate::currentDate();
}
} // namespace

int WeekNumber(const QDate& date)
{
    return date.weekNumber();
}

QString WeeklyLogName(const QString& baseName, const QDate& date)
{
    return baseName + QString::number(WeekNumber(date)) + QStringLiteral(".log");
}

QString LogEntryHeader(const QDateTime& now)
{
    // The main thread's id is the process id on Linux.
    return QLatin1Char('[') + now.toString(QStringLiteral("yyyy-MM-dd HH:mm:ss")) + QLatin1Char('.')
        + QStringLiteral("%1").arg(now.time().msec(), 3, 10, QLatin1Char('0')) + QStringLiteral("] ")
        + QString::number(::getpid());
}

bool AppendLogLine(const QString& path, const QString& text)
{
    QFile f(path);
    if (!f.open(QIODevice::Append | QIODevice::WriteOnly))
        return false;
    const QByteArray bytes = text.toUtf8() + "\r\n";
    return f.write(bytes) == bytes.size();
}

void LogInit(const QString& baseName)
{
    const QString name = WeeklyLogName(baseName, today());
    std::lock_guard lock(stateMutex());
    state().fileName = name;
}

QString LogFileName()
{
    std::lock_guard lock(stateMutex());
    return state().fileName;
}
QString LogFilePath() { return HomePath(LogFileName()); }

void SetUseLog(bool on) { state().useLog = on; }
void SetUseTrafficLog(bool on) { state().useTraffic = on; }
bool UseLog() { return state().useLog; }
bool UseTrafficLog() { return state().useTraffic; }

void SetLogToStderr(bool on) { state().toStderr = on; }
bool LogToStderr() { return state().toStderr; }

void WriteStderrLine(const QString& text)
{
    if (!state().toStderr)
        return;
    QString line = text;
    line.replace(QLatin1String("\r\n"), QLatin1String(" / "));
    line.replace(QLatin1Char('\r'), QLatin1String(" / "));
    line.replace(QLatin1Char('\n'), QLatin1String(" / "));
    // The journal stamps the time and the process itself: the text is enough.
    // One write per line, so lines of concurrent writers never interleave.
    const QByteArray bytes = line.toUtf8() + '\n';
    [[maybe_unused]] const auto n = ::write(STDERR_FILENO, bytes.constData(), size_t(bytes.size()));
}

void LogWrite(const QString& message)
{
    const QString name = LogFileName();
    if (!state().useLog || name.isEmpty())
        return;
    WriteStderrLine(message);
    AppendLogLine(HomePath(name), LogEntryHeader(QDateTime::currentDateTime()) + QLatin1Char(' ') + message);
}

void LogTraffic(const QString& trafficText)
{
    const QString name = LogFileName();
    if (!state().useTraffic || name.isEmpty())
        return;
    // A junk stream must not fill the log: the start of it is enough to see what it was.
    constexpr qsizetype MaxTrafficEntry = 64 * 1024;
    QString entry = trafficText.left(MaxTrafficEntry);
    if (trafficText.size() > MaxTrafficEntry)
        entry += QStringLiteral("\r\n[%1 of %2 bytes logged]").arg(MaxTrafficEntry).arg(trafficText.size());
    AppendLogLine(HomePath(name), LogEntryHeader(QDateTime::currentDateTime())
                      + QStringLiteral(" Network traffic\r\n") + entry);
}

void LogCleanup(const QString& baseName)
{
    const int w = WeekNumber(today());
    const int p = w - 1 < 1 ? 53 : w - 1;
    for (int i = 1; i <= 53; ++i) {
        if (i == w || i == p)
            continue;
        // Relative name: acts in the current directory, which start-up sets
        // to the installation folder.
        QFile::remove(baseName + QString::number(i) + QStringLiteral(".log"));
    }
}

void SetLogClockForTesting(const QDate& d) { state().fixedToday = d; }

} // namespace quill
