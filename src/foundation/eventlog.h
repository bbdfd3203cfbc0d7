#pragma once
#include <QDate>
#include <QString>

namespace quill {

// Weekly log files "<base><week>.log" in the installation folder. Every entry
// opens, appends and closes the file; a log that cannot be written is ignored.
void LogInit(const QString& baseName);
void LogWrite(const QString& message);
// The first 64 KiB of an arrival, then a note of its full length.
void LogTraffic(const QString& trafficText);
void LogCleanup(const QString& baseName);

void SetUseLog(bool on);
void SetUseTrafficLog(bool on);
bool UseLog();
bool UseTrafficLog();

// A headless server also writes every event entry to stderr, where journald
// keeps it; the switches above still decide which entries exist.
void SetLogToStderr(bool on);
bool LogToStderr();
// One line to stderr when that is on; line breaks in the text become " / ".
void WriteStderrLine(const QString& text);

// The file name LogInit fixed, without directory ("Quillbase46.log").
QString LogFileName();
QString LogFilePath();

// Pieces shared with other weekly logs (the driver's own).
int WeekNumber(const QDate& date);
QString WeeklyLogName(const QString& baseName, const QDate& date);
QString LogEntryHeader(const QDateTime& now);
// Appends text + CR LF to the file; false when it could not be written.
bool AppendLogLine(const QString& path, const QString& text);

// Tests pin "today" to check the week rules; an invalid date means the clock.
void SetLogClockForTesting(const QDate& today);

} // namespace quill
