#pragma once
#include <QByteArray>
#include <QString>

namespace quill {

// The wire encoding of requests and replies. Bytes 0x81, 0x8D, 0x8F, 0x90 and
// 0x9D have no character and map to the same code points (as Windows does);
// characters outside the code page become '?'.
QString FromCp1252(const QByteArray& bytes);
QByteArray ToCp1252(const QString& text);

} // namespace quill
