#pragma once
#include <QString>
#include <QVariant>

namespace quill {

inline const QString TAB = QStringLiteral("\t");

// Field access with one separator stripped at each end. Search positions are
// 16-bit: a separator found beyond character 32767 raises Error(ErrOverflow).
QString GetToken(const QString& text, const QString& sep, int n);
int CountTokens(const QString& text, const QString& sep);

// Null-tolerant converters: null, empty, non-numeric or out of range give the default.
// Fractions round half to even.
qint32 NullToLong(const QVariant& value, qint32 def);
qint16 NullToInt(const QVariant& value, qint16 def);
QString NullToStr(const QVariant& value, const QString& def);

// The path with one trailing '/', an empty path stays empty.
QString AddSlash(const QString& path);

bool KeyAllowed(int key, const QString& pattern);

// "OK"/"ERR" result strings of device operations.
QString DeviceErrorText(int code);
QString DeviceStatusResult(int status);
inline QString ResultOk() { return QStringLiteral("OK\t"); }
inline QString ResultErr(const QString& text) { return QStringLiteral("ERR\t") + text; }

} // namespace quill
